// ChromecastService: the Service of one Chromecast receiver. The daemon does not speak the cast
// protocol itself: the platform's sender (a node.js script) does, as a long-lived child of this
// service. Each operation is one JSON line written to the sender's stdin and one XML status
// document read back from its stdout. The sender starts with the first content load and is
// ended (and reaped) when the service closes it, loses its receiver, or goes.
#pragma once

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "output/Service.h"
#include "util/Process.h"

class ChromecastService : public Service {
public:
    // The port a receiver listens on unless its listing says otherwise.
    static constexpr int kDefaultPort = 8009;

    ChromecastService(std::string renderID, std::string ip, int port, std::string deviceName);
    ~ChromecastService() override;

    // A new address ends a running sender: the next load starts one for the new address.
    void update(std::string renderID, std::string ip, int port, std::string deviceName) override;

    // message: a LOAD line (genMedia). Starts the sender and launches the receiver's media
    // application first when that has not been done.
    int setContentUrl(Response& response, std::string message) override;
    int play(Response& response) override;
    int pause(Response& response) override;
    int stop(Response& response) override;
    int seek(Response& response, float seconds) override;
    int getPosInfo(Response& response) override;  // STATUS: state, position, duration, volume
    virtual int setContentUrl(Response& response, std::string url, std::string title, std::string imageUrl,
                              std::string subtitle);
    virtual int getVolume(Response& response);
    virtual int setVolume(Response& response, float level);  // 0.0 - 1.0
    virtual int getMute(Response& response);
    virtual int setMute(Response& response, bool on);
    virtual int _close(Response& response);

    // Ends the sender (if any) and forgets the launch: the next load starts afresh.
    void closeSender();
    // The sender runs and the pipes are open. Both read without waiting for an exchange under
    // way (a status dump must not wait out a silent sender).
    bool inited() const;
    pid_t senderPid() const;

    // The sender's argument vector; the port is only given when it is not the default one.
    static std::vector<std::string> senderArgv(const std::string& ip, int port);
    // The LOAD line: url, then title, imageUrl and subtitle where not empty; values JSON-escaped.
    static void genMedia(std::string& out, const std::string& url, const std::string& title,
                         const std::string& imageUrl, const std::string& subtitle);
    // A status document made here, for failures that never reached the sender.
    static std::string genStatusXml(int status, const char* error);
    // How long a command waits for the sender's reply (35 s); tests shorten it.
    static void setReplyTimeout(std::chrono::milliseconds timeout);

private:
    int init();
    void closeFd();
    // 0 when the sender answered (its line in reply), 1 otherwise (reply: a local document).
    int sendMessage(const std::string& msg, std::string& reply, int timeoutSec);
    // 0 when reply is a status document (copied into response); a status of -1 (the sender
    // lost its receiver) ends the sender. 1 when it is none.
    int parseRetXml(const std::string& reply, Response& response);
    // One exchange under the lock: the line, the reply parsed into response.
    int command(const char* name, const std::string& line, Response& response);

    // Guards everything below and the Service's address: one exchange at a time.
    std::mutex m_mutex;
    Subprocess m_sender;
    std::atomic<bool> m_inited{false};   // written under m_mutex
    std::atomic<pid_t> m_senderPid{-1};  // likewise
    bool m_launched = false;
};
