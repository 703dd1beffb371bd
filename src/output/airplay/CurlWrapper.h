// CurlWrapper: the HTTP client of one AirPlay receiver (libcurl's easy interface). One request
// per AirPlay resource, each under the wrapper's lock: requests to one receiver never overlap,
// different receivers run in parallel.
//
// Every request sets its own method, body and upload state on a reset handle, so nothing one
// request set carries over to the next (a status GET /scrub after a seek must stay a GET: a
// receiver takes a POST /scrub as a seek). Every request has a connect and a total time-out and
// a cap on the answer it keeps, so a receiver that stops answering, or answers without end,
// never holds a player for long.
//
// Every request names the playback session it belongs to (X-Apple-Session-ID, as real senders
// do: receivers tie /play, /scrub, /rate and /stop together by it); a /stop ends the session, and
// what is played next starts a new one.
#pragma once

#include <curl/curl.h>
#include <pthread.h>

#include <chrono>
#include <string>

#include "output/Service.h"
#include "output/airplay/CurlLibrary.h"

class CurlWrapper {
public:
    CurlWrapper();
    ~CurlWrapper();
    CurlWrapper(const CurlWrapper&) = delete;
    CurlWrapper& operator=(const CurlWrapper&) = delete;

    void setIp(std::string ip);
    std::string getIp();
    // A negative port is refused (logged); 0 is stored but no request goes out with it.
    void setPort(int port);
    int getPort();
    // The base URL "http://IP:PORT" from the address set.
    void prepareUrl();
    // Whether a request can go out: address, port, base URL and handle set (each gap logged).
    bool check();
    // Percent-encodes text for a URL.
    std::string urlEscape(const std::string& text);

    // POST /play: the receiver fetches url and plays it from the start.
    int airplayPostPlay(Response& response, const std::string& url);
    // POST /rate?value=RATE, 0.0 (pause) to 1.0 (play); out of range: -1, nothing sent.
    int airplayPostRate(Response& response, float rate);
    // POST /scrub?position=SECONDS (a seek); negative: -1, nothing sent.
    int airplayPostScrub(Response& response, float seconds);
    // GET /scrub: duration and position.
    int airplayGetScrub(Response& response);
    int airplayPostStop(Response& response);
    // PUT /photo with the file's bytes.
    int airplayPutPhoto(Response& response, const std::string& path);
    int airplayGetServerInfo(Response& response);
    int airplayGetSlideshowFeature(Response& response);
    int airplayGetPlaybackInfo(Response& response);
    int airplayPostGetProperty(Response& response);

    // Every request's time limits (a photo upload gets the total twice); tests shorten them.
    static void setTimeouts(std::chrono::milliseconds connect, std::chrono::milliseconds total);
    // The most of an answer's body and headers kept; a longer answer fails the request.
    static constexpr size_t kMaxAnswer = 64 * 1024;

private:
    enum class Method { Get, Post, Put };
    // One request on a reset handle: method, path, body (POST), file (PUT) and extra headers.
    int request(Response& response, Method method, const std::string& path, const std::string& body = {},
                const std::string& contentType = {}, const std::string& uploadPath = {});
    bool checkLocked();
    int parseResponseLocked(Response& response, const std::string& header, const std::string& content);

    const CurlLibrary* m_curl;  // null when libcurl cannot be loaded: every request fails
    CURL* m_handle = nullptr;
    // Guards everything below and the handle's use.
    pthread_mutex_t m_lock;
    std::string m_ip;
    int m_port = 7000;
    std::string m_url;
    std::string m_sessionId;
};
