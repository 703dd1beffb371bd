#include "output/cast/ChromecastService.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "util/AppRoot.h"
#include "util/Log.h"
#include "xml/XMLNode.h"

namespace {

constexpr const char* kNode = "/usr/local/medialibrary/bin/node";
constexpr const char* kSenderScript = "/usr/local/medialibrary/bin/nodejs/ChromecastSender.js";
constexpr int kWriteTimeoutMs = 5000;
constexpr int kSenderGraceMs = 1000;  // between SIGTERM and SIGKILL when ending the sender

std::atomic<int> g_replyTimeoutMs{35000};

// JSON string body: quotes, backslashes and control characters escaped; other bytes (UTF-8)
// as they are.
void appendJson(std::string& out, const std::string& value) {
    for (unsigned char c : value) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    char u[8];
                    std::snprintf(u, sizeof u, "\\u%04x", c);
                    out += u;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
}

std::string numberLine(const char* cmd, const char* key, double value) {
    char line[128];
    std::snprintf(line, sizeof line, "{ \"cmd\":\"%s\", \"%s\":\"%f\" }\r\n", cmd, key, value);
    return line;
}

std::string plainLine(const char* cmd) { return std::string("{ \"cmd\":\"") + cmd + "\" }\r\n"; }

}  // namespace

void ChromecastService::setReplyTimeout(std::chrono::milliseconds timeout) {
    g_replyTimeoutMs = static_cast<int>(timeout.count());
}

ChromecastService::ChromecastService(std::string renderID, std::string ip, int port, std::string deviceName)
    : Service(std::move(renderID), std::move(ip), port, std::move(deviceName)) {
    LOG_TRACE("ChromecastService constructor");
}

ChromecastService::~ChromecastService() {
    LOG_TRACE("ChromecastService destructor");
    closeSender();
}

void ChromecastService::update(std::string renderID, std::string ip, int port, std::string deviceName) {
    std::lock_guard lock(m_mutex);
    if ((ip != m_ip || port != m_port) && m_inited) {
        LOG_TRACE("%s: new address %s:%d, the sender starts again", m_deviceName.c_str(), ip.c_str(), port);
        closeFd();
    }
    Service::update(std::move(renderID), std::move(ip), port, std::move(deviceName));
}

std::vector<std::string> ChromecastService::senderArgv(const std::string& ip, int port) {
    std::vector<std::string> argv{approot::path(kNode), approot::path(kSenderScript), ip};
    if (port > 0 && port != kDefaultPort) argv.push_back(std::to_string(port));
    return argv;
}

int ChromecastService::init() {
    LOG_TRACE("ChromecastService init");
    Subprocess::Options options;
    options.in = Subprocess::Stream::Pipe;
    options.out = Subprocess::Stream::Pipe;
    const std::vector<std::string> argv = senderArgv(m_ip, m_port);
    LOG_TRACE("start chromecast sender ip: %s", m_ip.c_str());
    const int err = m_sender.start(argv, options);
    if (err != 0) {
        LOG_ERR("execl failed(%d): %s", err, std::strerror(err));
        return err;
    }
    LOG_TRACE("%s (pid %d)", formatCommandLine(argv).c_str(), static_cast<int>(m_sender.pid()));
    return 0;
}

void ChromecastService::closeFd() {
    if (m_sender.running()) {
        // End of input asks it to leave; a sender that does not is ended.
        m_sender.closeStdin();
        if (!m_sender.waitFor(200)) m_sender.terminate(kSenderGraceMs);
        LOG_TRACE("%s: the sender has ended", m_deviceName.c_str());
    }
    m_sender = Subprocess();
    m_inited = false;
    m_launched = false;
}

void ChromecastService::closeSender() {
    std::lock_guard lock(m_mutex);
    closeFd();
}

bool ChromecastService::inited() const { return m_inited; }

pid_t ChromecastService::senderPid() const { return m_inited ? m_senderPid.load() : -1; }

std::string ChromecastService::genStatusXml(int status, const char* error) {
    std::string out = "<?xml version=\"1.0\"?><status>" + std::to_string(status) + "</status><error>";
    ToXMLStringTool::appendEscaped(out, error, std::strlen(error));
    return out + "</error>";
}

int ChromecastService::sendMessage(const std::string& msg, std::string& reply, int timeoutSec) {
    if (!m_inited) {
        reply = genStatusXml(-1, "Sender not init");
        return 1;
    }
    if (m_sender.stdinFd() < 0) {
        reply = genStatusXml(-1, "Fd write not init");
        return 1;
    }
    if (m_sender.stdoutFd() < 0) {
        reply = genStatusXml(-1, "Fd read not init");
        return 1;
    }
    if (msg.find("LAUNCH") == std::string::npos && !m_launched) {
        reply = genStatusXml(-1, "Receiver is not launch");
        return 1;
    }
    const int timeoutMs = timeoutSec > 0 ? timeoutSec * 1000 : g_replyTimeoutMs.load();

    // A reply that came after its command gave up waiting belongs to nobody.
    std::string stale;
    while (m_sender.readLine(stale, 0) == Subprocess::Read::Line)
        LOG_WARN("%s: late sender reply dropped: %s", m_deviceName.c_str(), stale.c_str());

    // writeLine adds the final "\n" of the line's "\r\n".
    if (msg.empty() || !m_sender.writeLine(msg.substr(0, msg.size() - 1), kWriteTimeoutMs)) {
        reply = genStatusXml(1, "Write error.");
        return 1;
    }
    switch (m_sender.readLine(reply, timeoutMs)) {
        case Subprocess::Read::Line:
            if (!reply.empty()) return 0;
            reply = genStatusXml(1, "Nothing read.");
            return 1;
        case Subprocess::Read::TimedOut:
            LOG_ERR("Time out when read");
            reply = genStatusXml(0, "Time out when read");
            break;
        case Subprocess::Read::Eof: reply = genStatusXml(1, "Nothing read."); break;
    }
    // A sender that stays silent that long, or has gone, is out of step with its commands (a
    // late or half-written answer would be taken for the next one's): the next load starts a
    // new one.
    LOG_WARN("%s: the sender does not answer; it is ended", m_deviceName.c_str());
    closeFd();
    return 1;
}

int ChromecastService::parseRetXml(const std::string& reply, Response& response) {
    XMLNode root = XMLNode::parseString(reply, "root");
    if (root.isEmpty() || root.nChildNode() == 0) return 1;
    const char* status = root.getChildNode("status").getText();
    if (!status) return 1;
    response.m_response = xmltoi(status, 1);
    if (response.m_response == -1) {
        LOG_ERR("connection closed, close fd and init flag");
        closeFd();
    }
    response.m_errMsg = xmltoa(root.getChildNode("error").getText());
    response.m_duration = Response::stringToF(xmltoa(root.getChildNode("duration").getText()));
    response.m_position = Response::stringToF(xmltoa(root.getChildNode("position").getText()));
    response.m_volume = Response::stringToF(xmltoa(root.getChildNode("volume").getText()));
    response.m_muted = Response::stringToF(xmltoa(root.getChildNode("mute").getText())) != 0;
    response.m_state = xmltoa(root.getChildNode("state").getText());
    response.m_idleReason = xmltoa(root.getChildNode("idleReason").getText());
    return 0;
}

int ChromecastService::command(const char* name, const std::string& line, Response& response) {
    std::lock_guard lock(m_mutex);
    std::string reply;
    const int rc = sendMessage(line, reply, 0);
    if (rc != 0) {
        LOG_ERR("sendMessage failed: %s", reply.c_str());
        return rc;
    }
    if (parseRetXml(reply, response) != 0) {
        LOG_ERR("%s: the sender's answer to %s is no status: %s", m_deviceName.c_str(), name, reply.c_str());
        return 1;
    }
    return 0;
}

void ChromecastService::genMedia(std::string& out, const std::string& url, const std::string& title,
                                 const std::string& imageUrl, const std::string& subtitle) {
    out = "{\"cmd\":\"LOAD\", \"url\":\"";
    appendJson(out, url);
    out += '"';
    const std::pair<const char*, const std::string*> optional[] = {
        {", \"title\":\"", &title}, {", \"imageUrl\":\"", &imageUrl}, {", \"subtitle\":\"", &subtitle}};
    for (const auto& [prefix, value] : optional) {
        if (value->empty()) continue;
        out += prefix;
        appendJson(out, *value);
        out += '"';
    }
    out += "}\r\n";
}

int ChromecastService::setContentUrl(Response& response, std::string message) {
    LOG_TRACE("set content url");
    std::lock_guard lock(m_mutex);
    std::string reply;
    if (!m_inited) {
        if (const int err = init(); err != 0) {
            LOG_ERR("init failed");
            return err;
        }
        m_senderPid = m_sender.pid();
        m_inited = true;
        if (const int rc = sendMessage(plainLine("LAUNCH"), reply, 0); rc != 0) {
            LOG_ERR("sendMessage failed: %s", reply.c_str());
            return rc;
        }
        // The application could not be launched (or the receiver not reached): say why.
        Response launch;
        if (parseRetXml(reply, launch) != 0 || launch.m_response != 0) {
            LOG_ERR("%s: launch failed: %s", m_deviceName.c_str(), reply.c_str());
            response = launch;
            if (response.m_response == 0) response.m_response = 1;
            return 1;
        }
        m_launched = true;
    }
    const int rc = sendMessage(message, reply, 0);
    if (rc != 0) {
        LOG_ERR("sendMessage failed: %s", reply.c_str());
        return rc;
    }
    return parseRetXml(reply, response) == 0 ? 0 : 1;
}

int ChromecastService::setContentUrl(Response& response, std::string url, std::string title, std::string imageUrl,
                                     std::string subtitle) {
    std::string line;
    genMedia(line, url, title, imageUrl, subtitle);
    return setContentUrl(response, std::move(line));
}

int ChromecastService::play(Response& response) { return command("PLAY", plainLine("PLAY"), response); }
int ChromecastService::pause(Response& response) { return command("PAUSE", plainLine("PAUSE"), response); }
int ChromecastService::stop(Response& response) { return command("STOP", plainLine("STOP"), response); }
int ChromecastService::getPosInfo(Response& response) { return command("STATUS", plainLine("STATUS"), response); }
int ChromecastService::getVolume(Response& response) {
    return command("GET_VOLUME", plainLine("GET_VOLUME"), response);
}
int ChromecastService::getMute(Response& response) { return command("GET_MUTE", plainLine("GET_MUTE"), response); }
int ChromecastService::_close(Response& response) { return command("CLOSE", plainLine("CLOSE"), response); }

int ChromecastService::seek(Response& response, float seconds) {
    return command("SEEK", numberLine("SEEK", "seektime", seconds), response);
}

int ChromecastService::setVolume(Response& response, float level) {
    return command("SET_VOLUME", numberLine("SET_VOLUME", "volume", level), response);
}

int ChromecastService::setMute(Response& response, bool on) {
    return command("SET_MUTE", std::string("{ \"cmd\":\"SET_MUTE\", \"mute\":\"") + (on ? "true" : "false") +
                                   "\" }\r\n",
                   response);
}
