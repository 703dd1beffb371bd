// libcurl, loaded when the first AirPlay receiver is played rather than with the daemon: its
// TLS and protocol libraries would otherwise take several MiB of every appliance's memory
// whether or not a receiver is ever used.
#pragma once

#include <curl/curl.h>

struct CurlLibrary {
    CURLcode (*global_init)(long flags);
    CURL* (*easy_init)();
    void (*easy_cleanup)(CURL*);
    void (*easy_reset)(CURL*);
    CURLcode (*easy_setopt)(CURL*, CURLoption, ...);
    CURLcode (*easy_perform)(CURL*);
    CURLcode (*easy_getinfo)(CURL*, CURLINFO, ...);
    const char* (*easy_strerror)(CURLcode);
    char* (*easy_escape)(CURL*, const char*, int);
    void (*free)(void*);
    curl_slist* (*slist_append)(curl_slist*, const char*);
    void (*slist_free_all)(curl_slist*);

    // The library, loaded and initialised once; null (logged) when it cannot be loaded.
    static const CurlLibrary* get();
};
