// Service and Response: the control interface of a network receiver that a player drives by
// requests of its own protocol (AirPlay over HTTP, Chromecast through its sender). Each
// operation is one request; it answers 0 or a negative code and fills a Response.
#pragma once

#include <string>

struct Response {
    long m_response = 0;     // the protocol's status of the last request (HTTP status code)
    float m_duration = 0;    // media duration in seconds
    float m_position = 0;    // playback position in seconds
    float m_volume = 0;      // filled by services that know it
    bool m_muted = false;    // likewise
    std::string m_errMsg;
    std::string m_state;
    std::string m_idleReason;  // why a receiver went idle (FINISHED, CANCELLED...), where it says

    // Logs one line per field.
    void dump() const;
    // Text <-> number through a string stream (default formatting: 1 -> "1", 0.5 -> "0.5").
    static float stringToF(const std::string& text);
    static std::string fToString(float value);
};

class Service {
public:
    // renderID and deviceName are kept for the owning player; the requests use ip and port.
    Service(std::string renderID, std::string ip, int port, std::string deviceName);
    virtual ~Service() = default;
    Service(const Service&) = delete;
    Service& operator=(const Service&) = delete;

    virtual void update(std::string renderID, std::string ip, int port, std::string deviceName);

    virtual int setContentUrl(Response& response, std::string url) = 0;
    virtual int play(Response& response) = 0;
    virtual int pause(Response& response) = 0;
    virtual int stop(Response& response) = 0;
    virtual int seek(Response& response, float seconds) = 0;
    virtual int getPosInfo(Response& response) = 0;

protected:
    std::string m_deviceName;
    std::string m_renderID;
    std::string m_ip;
    int m_port = 0;
};
