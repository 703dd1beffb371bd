#include "output/airplay/AirPlayService.h"

#include <utility>

#include "util/Log.h"

AirPlayService::AirPlayService(std::string renderID, std::string ip, int port, std::string deviceName,
                               std::string deviceId, std::string authMethod, bool encrypted, bool forceAuth)
    : Service(std::move(renderID), ip, port, std::move(deviceName)),
      m_deviceId(std::move(deviceId)),
      m_authMethod(std::move(authMethod)),
      m_encrypted(encrypted),
      m_forceAuth(forceAuth) {
    LOG_TRACE("performing constructor ");
    address(ip, port);
}

AirPlayService::~AirPlayService() { LOG_TRACE("performing destructor "); }

void AirPlayService::address(const std::string& ip, int port) {
    m_curl.setIp(ip);
    m_curl.setPort(port);
    m_curl.prepareUrl();
}

void AirPlayService::update(std::string renderID, std::string ip, int port, std::string deviceName) {
    Service::update(std::move(renderID), ip, port, std::move(deviceName));
    address(ip, port);
}

void AirPlayService::update(std::string renderID, std::string ip, int port, std::string deviceName,
                            std::string deviceId, std::string authMethod, bool encrypted, bool forceAuth) {
    m_deviceId = std::move(deviceId);
    m_authMethod = std::move(authMethod);
    m_encrypted = encrypted;
    m_forceAuth = forceAuth;
    update(std::move(renderID), std::move(ip), port, std::move(deviceName));
}

int AirPlayService::setContentUrl(Response& response, std::string url) {
    LOG_TRACE("performing setUrl ");
    return m_curl.airplayPostPlay(response, url);
}

int AirPlayService::play(Response& response) {
    LOG_TRACE("performing play ");
    return m_curl.airplayPostRate(response, 1.0f);
}

int AirPlayService::pause(Response& response) {
    LOG_TRACE("performing pause ");
    return m_curl.airplayPostRate(response, 0.0f);
}

int AirPlayService::stop(Response& response) {
    LOG_TRACE("performing stop ");
    return m_curl.airplayPostStop(response);
}

int AirPlayService::seek(Response& response, float seconds) {
    LOG_TRACE("performing seek ");
    return m_curl.airplayPostScrub(response, seconds);
}

int AirPlayService::getPosInfo(Response& response) {
    LOG_TRACE("performing getPosInfo ");
    return m_curl.airplayGetScrub(response);
}

int AirPlayService::playPhoto(Response& response, std::string path) {
    LOG_TRACE("performing playPhoto ");
    return m_curl.airplayPutPhoto(response, path);
}
