#include "output/airplay/CurlLibrary.h"

#include <dlfcn.h>

#include <mutex>

#include "util/Log.h"

namespace {

template <class Fn>
bool bind(void* lib, const char* name, Fn& fn) {
    fn = reinterpret_cast<Fn>(::dlsym(lib, name));
    if (!fn) LOG_ERR("libcurl: no %s", name);
    return fn != nullptr;
}

}  // namespace

const CurlLibrary* CurlLibrary::get() {
    static CurlLibrary library;
    static const CurlLibrary* loaded = nullptr;
    static std::once_flag once;
    std::call_once(once, [] {
        void* lib = ::dlopen("libcurl.so.4", RTLD_NOW | RTLD_LOCAL);
        if (!lib) {
            LOG_ERR("libcurl: %s", ::dlerror());
            return;
        }
        CurlLibrary& l = library;
        const bool ok = bind(lib, "curl_global_init", l.global_init) && bind(lib, "curl_easy_init", l.easy_init) &&
                        bind(lib, "curl_easy_cleanup", l.easy_cleanup) && bind(lib, "curl_easy_reset", l.easy_reset) &&
                        bind(lib, "curl_easy_setopt", l.easy_setopt) &&
                        bind(lib, "curl_easy_perform", l.easy_perform) &&
                        bind(lib, "curl_easy_getinfo", l.easy_getinfo) &&
                        bind(lib, "curl_easy_strerror", l.easy_strerror) &&
                        bind(lib, "curl_easy_escape", l.easy_escape) && bind(lib, "curl_free", l.free) &&
                        bind(lib, "curl_slist_append", l.slist_append) &&
                        bind(lib, "curl_slist_free_all", l.slist_free_all);
        // Once, before any handle: libcurl's global set-up is not thread-safe. The library
        // stays loaded for the process's life.
        if (ok && l.global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK) loaded = &library;
        else LOG_ERR("libcurl: not usable");
    });
    return loaded;
}
