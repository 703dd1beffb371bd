// RaopChild: the appliance's RAOP sender (raop_play) for one speaker, a long-lived child the
// player commands with short text datagrams: it binds its server socket
// /tmp/.raop_play.srv.<pid>, the player binds /tmp/.raop_play.cli.<pid> and connects the two
// (both under the appliance root). One exchange at a time; every wait is bounded.
#pragma once

#include <chrono>
#include <functional>
#include <mutex>
#include <string>

#include "util/Process.h"

class RaopChild {
public:
    RaopChild() = default;
    ~RaopChild();
    RaopChild(const RaopChild&) = delete;
    RaopChild& operator=(const RaopChild&) = delete;

    // Starts the sender for ip:port (-e only when the speaker does not encrypt) and connects
    // to it; waits for its server socket up to `tries` times, `wait(step)` between tries (a
    // wait that returns false gives up). 0, or -1 with nothing left running.
    int start(const std::string& ip, int port, bool encrypted, int tries,
              const std::function<bool()>& wait);
    // "quit", then the socket and its files go and the child is ended and reaped.
    void close();
    bool connected();
    // Whether the child has died (reaped then).
    bool dead();
    pid_t pid();

    // One datagram; false when it could not be sent.
    bool send(const std::string& text);
    // "state": true when the answer says it plays ("NO_PAUSE"); false for anything else, no
    // answer within the time, or a failed exchange.
    bool playing(std::chrono::milliseconds wait);

    // The sender's argument vector (logged and run).
    static std::vector<std::string> argv(const std::string& ip, int port, bool encrypted);

private:
    void closeLocked();
    bool sendLocked(const std::string& text);

    std::mutex m_mutex;  // guards everything below: one exchange with the child at a time
    Subprocess m_child;
    int m_fd = -1;
    std::string m_serverPath;
    std::string m_clientPath;
};
