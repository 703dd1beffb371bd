// ConnectionServer: the daemon's connections, event-driven. One thread at a time runs the event
// loop (epoll): it accepts connections and reads their requests, so a silent or slow client costs
// a descriptor and the bytes it sent, not a thread. A complete request goes to a bounded pool of
// workers (requests are served concurrently); its answer goes back to the loop, which sends it
// and waits for the client's acknowledgement. Each connection has a whole-request deadline from
// its accept (not restarted by each read) and one for its answer to be taken. At the connection
// limit the oldest connection still waiting for its request is dropped so that a new client
// always gets in.
//
// While no other request is being served, the loop's thread serves a complete request itself:
// handing it to a worker and its answer back costs two thread wake-ups, more than most requests
// take. Should that request keep it longer than a few milliseconds, a StallWatch hands the loop
// to another thread of the pool, and the request finishes where it is, as on any worker; until
// it has, new requests go to workers. So a slow request holds the others up for a few
// milliseconds at most, and the loop itself runs on the pool (which is sized for it).
#pragma once

#include <sys/epoll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ipc/ConnectionTable.h"
#include "ipc/PeerCredentials.h"
#include "ipc/StallWatch.h"
#include "ipc/WorkerPool.h"

namespace ipc {

struct serverOptions_s {
    size_t maxConnections = 4096;
    size_t maxWorkers = 64;  // the event loop's thread among them
    std::chrono::milliseconds requestTimeout{30000};  // from accept to a complete request
    std::chrono::milliseconds answerTimeout{30000};   // from the answer being ready to its acknowledgement
};

class ConnectionServer {
public:
    // Runs on a worker: the answer to one request (empty bytes: close without answering). Must
    // not throw.
    using Handler = std::function<answer_s(std::string& request, const Peer& peer)>;
    // Told about accept failures (errno values), for the logs.
    using ErrorFn = std::function<void(int err)>;

    ConnectionServer(int listenFd, Handler handler, ErrorFn onAcceptError, serverOptions_s options);
    ~ConnectionServer();
    ConnectionServer(const ConnectionServer&) = delete;
    ConnectionServer& operator=(const ConnectionServer&) = delete;

    // Starts the event loop. 0, or the error that kept it from starting.
    int start();
    // Stops accepting and drops the connections whose request has not arrived; requests being
    // served finish and their answers go out (within the answer time-out); then every thread is
    // joined. The listening socket stays open (its owner closes it). Idempotent.
    void shutdown();

    // Connections open now (any phase).
    size_t connectionCount() const { return m_count.load(); }

private:
    struct done_s {
        uint64_t id;
        answer_s answer;
        size_t sent;  // bytes of it already out, or kSendFailed
    };
    static constexpr size_t kSendFailed = ~size_t{0};

    // Runs the loop on the calling thread until it stops, or until the loop is handed to
    // another thread (its generation is then no longer the current one).
    void loop(uint64_t generation);
    void onReady(const epoll_event& ev);
    void acceptReady(Clock::time_point now);
    void onEvent(uint64_t id, uint32_t events, Clock::time_point now);
    void readRequest(connection_s& c);
    bool arm(connection_s& c, uint32_t events);
    void dispatch(connection_s& c);
    // Serves the request on the loop's thread (see above).
    void serveHere(connection_s& c);
    // The handler's answer, sent as far as the socket takes it without waiting.
    done_s serve(uint64_t id, int fd, std::string request);
    // Called by the stall watch: the loop goes on on a new thread of the pool.
    bool handLoopOn();
    // Sends what the socket takes of bytes from `sent` on, without waiting; the new count, or
    // kSendFailed.
    static size_t sendSome(int fd, const std::string& bytes, size_t sent);
    void handBack(done_s done);
    void takeAnswers(Clock::time_point now);
    // The served request's connection goes on to its answer.
    void settle(done_s& done, Clock::time_point now);
    void writeAnswer(connection_s& c);
    void answerSent(connection_s& c);
    void drop(uint64_t id);
    void dropExpired(Clock::time_point now);
    void beginStop();
    void setListening(bool on);
    int waitMs(Clock::time_point now) const;
    void reportDropped(Clock::time_point now, bool force);

    const int m_listenFd;
    Handler m_handler;
    ErrorFn m_onAcceptError;
    const serverOptions_s m_options;
    int m_epollFd = -1;
    int m_wakeFd = -1;  // eventfd: answers are ready, or stop
    WorkerPool m_workers;
    StallWatch m_watch;
    std::atomic<uint64_t> m_generation{0};  // of the loop's current thread; changed by handLoopOn
    bool m_bStarted = false;
    std::mutex m_loopMutex;  // guards m_bLoopEnded
    std::condition_variable m_loopEnded;
    bool m_bLoopEnded = false;
    std::atomic<bool> m_bStopping{false};
    std::atomic<bool> m_bWakePending{false};  // the wake descriptor is written, not yet read
    std::atomic<size_t> m_count{0};

    // Only the loop's thread touches these (the loop passes from thread to thread through the
    // stall watch's lock and the pool's queue).
    epoll_event m_events[256];
    int m_eventCount = 0;
    int m_nextEvent = 0;
    ConnectionTable m_table;
    bool m_bListening = false;
    bool m_bStopBegun = false;
    std::optional<Clock::time_point> m_acceptRetryAt;  // after a failed accept
    size_t m_dropped = 0;  // connections closed without a complete request, not yet logged
    Clock::time_point m_lastDropReport;

    std::mutex m_doneMutex;  // guards m_done
    std::vector<done_s> m_done;
};

}  // namespace ipc
