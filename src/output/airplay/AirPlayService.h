// AirPlayService: the Service of an AirPlay video and photo receiver; each operation is one
// HTTP request of its CurlWrapper.
#pragma once

#include <string>

#include "output/Service.h"
#include "output/airplay/CurlWrapper.h"

class AirPlayService : public Service {
public:
    // deviceId, authMethod and the two flags describe the receiver as listed (its MAC, the
    // authentication it asks for, whether it encrypts and forces authentication); kept for the
    // player, which chooses the script path for receivers that need a password.
    AirPlayService(std::string renderID, std::string ip, int port, std::string deviceName, std::string deviceId = {},
                   std::string authMethod = {}, bool encrypted = false, bool forceAuth = false);
    ~AirPlayService() override;

    void update(std::string renderID, std::string ip, int port, std::string deviceName) override;
    void update(std::string renderID, std::string ip, int port, std::string deviceName, std::string deviceId,
                std::string authMethod, bool encrypted, bool forceAuth);

    int setContentUrl(Response& response, std::string url) override;
    int play(Response& response) override;   // rate 1
    int pause(Response& response) override;  // rate 0
    int stop(Response& response) override;
    int seek(Response& response, float seconds) override;
    int getPosInfo(Response& response) override;
    int playPhoto(Response& response, std::string path);

    std::string urlEscape(const std::string& text) { return m_curl.urlEscape(text); }
    const std::string& deviceId() const { return m_deviceId; }
    const std::string& authMethod() const { return m_authMethod; }
    bool forceAuth() const { return m_forceAuth; }

private:
    void address(const std::string& ip, int port);

    CurlWrapper m_curl;
    std::string m_deviceId;
    std::string m_authMethod;
    bool m_encrypted = false;
    bool m_forceAuth = false;
};
