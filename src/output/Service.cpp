#include "output/Service.h"

#include <sstream>
#include <utility>

#include "util/Log.h"

void Response::dump() const {
    LOG_TRACE("m_response=%ld", m_response);
    LOG_TRACE("m_duration=%f", static_cast<double>(m_duration));
    LOG_TRACE("m_position=%f", static_cast<double>(m_position));
    LOG_TRACE("m_volume=%f", static_cast<double>(m_volume));
    LOG_TRACE("m_muted=%d", m_muted ? 1 : 0);
    LOG_TRACE("m_errMsg=%s", m_errMsg.c_str());
    LOG_TRACE("m_state=%s", m_state.c_str());
}

float Response::stringToF(const std::string& text) {
    std::istringstream in(text);
    float value = 0;
    in >> value;
    return in.fail() ? 0.0f : value;
}

std::string Response::fToString(float value) {
    std::ostringstream out;
    out << value;
    return out.str();
}

Service::Service(std::string renderID, std::string ip, int port, std::string deviceName)
    : m_deviceName(std::move(deviceName)), m_renderID(std::move(renderID)), m_ip(std::move(ip)), m_port(port) {}

void Service::update(std::string renderID, std::string ip, int port, std::string deviceName) {
    m_deviceName = std::move(deviceName);
    m_renderID = std::move(renderID);
    m_ip = std::move(ip);
    m_port = port;
}
