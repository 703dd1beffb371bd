// ConnectionTable: the connections of the event loop, what each is waiting for and its deadline.
// A connection is Reading (its request still arriving, due within the request time-out of its
// accept), Serving (on a worker, no deadline of ours), then Answering (its answer going out and
// the acknowledgement coming back, due within the answer time-out of the answer being ready).
// The time-outs are the same for every connection, so each waiting line is in deadline order
// and expiry looks only at its front. Owned and used by one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace ipc {

using Clock = std::chrono::steady_clock;

// An answer as it goes out: the 256-byte length block, then the text.
struct answer_s {
    std::string bytes;
    // Released once the answer is sent or given up (e.g. a permit for large answers, whose
    // release hands memory back: the text must be gone by then, hence the destructor).
    std::shared_ptr<void> hold;

    answer_s() = default;
    answer_s(answer_s&&) = default;
    answer_s& operator=(answer_s&&) = default;  // members in order: the old text goes first
    ~answer_s() { std::string().swap(bytes); }
};

struct connection_s {
    enum class Phase { Reading, Serving, Answering };

    uint64_t id = 0;
    int fd = -1;
    Phase phase = Phase::Reading;
    Clock::time_point deadline;
    std::string request;  // Reading: the bytes so far
    answer_s answer;      // Answering: cleared once sent
    size_t sent = 0;
    bool bRegistered = false;  // with the event loop's epoll set

    std::list<connection_s*>::iterator waitPos;  // in its phase's waiting line (not while Serving)
};

class ConnectionTable {
public:
    ConnectionTable(Clock::duration requestTimeout, Clock::duration answerTimeout)
        : m_requestTimeout(requestTimeout), m_answerTimeout(answerTimeout) {}

    // A new Reading connection, due requestTimeout after acceptedAt.
    connection_s& add(int fd, Clock::time_point acceptedAt);
    connection_s* find(uint64_t id);
    // Takes the connection out (the caller closes its descriptor).
    std::unique_ptr<connection_s> remove(uint64_t id);

    void startServing(connection_s& c);
    // Due answerTimeout after readyAt.
    void startAnswering(connection_s& c, Clock::time_point readyAt);

    // The connection that has waited longest for its request, or null.
    connection_s* oldestReading();
    // The earliest deadline of any connection, if one waits.
    std::optional<Clock::time_point> nextDeadline() const;
    // The ids of the connections whose deadline is not after now.
    std::vector<uint64_t> expired(Clock::time_point now) const;

    size_t size() const { return m_byId.size(); }
    size_t countIn(connection_s::Phase phase) const;
    // The ids of every connection in a phase (for shutdown).
    std::vector<uint64_t> idsIn(connection_s::Phase phase) const;

private:
    std::list<connection_s*>* lineFor(connection_s::Phase phase);
    void leaveLine(connection_s& c);

    const Clock::duration m_requestTimeout;
    const Clock::duration m_answerTimeout;
    uint64_t m_nextId = 1;
    std::unordered_map<uint64_t, std::unique_ptr<connection_s>> m_byId;
    std::list<connection_s*> m_reading;    // by accept time
    std::list<connection_s*> m_answering;  // by answer time
    size_t m_serving = 0;
};

}  // namespace ipc
