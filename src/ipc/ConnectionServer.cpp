#include "ipc/ConnectionServer.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <system_error>

#include "ipc/Framing.h"
#include "ipc/PeerCredentials.h"
#include "ipc/RequestIO.h"
#include "util/Log.h"

namespace ipc {
namespace {

constexpr uint64_t kListenTag = 0;  // connection ids start at 1
constexpr uint64_t kWakeTag = ~uint64_t{0};
constexpr auto kAcceptRetry = std::chrono::milliseconds(100);
constexpr auto kDropReportEvery = std::chrono::seconds(10);
// How long the loop's thread may serve one request before the loop moves to another thread.
constexpr auto kServeHereLimit = std::chrono::milliseconds(5);
constexpr const char* kWorkerName = "ipc-worker";

bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

ConnectionServer::ConnectionServer(int listenFd, Handler handler, ErrorFn onAcceptError, serverOptions_s options)
    : m_listenFd(listenFd),
      m_handler(std::move(handler)),
      m_onAcceptError(std::move(onAcceptError)),
      m_options(options),
      m_workers(std::max<size_t>(options.maxWorkers, 2), kWorkerName),
      m_watch(kServeHereLimit, [this] { return handLoopOn(); }),
      m_table(options.requestTimeout, options.answerTimeout) {}

ConnectionServer::~ConnectionServer() {
    shutdown();
    if (m_wakeFd >= 0) ::close(m_wakeFd);
    if (m_epollFd >= 0) ::close(m_epollFd);
}

int ConnectionServer::start() {
    const int flags = ::fcntl(m_listenFd, F_GETFL);
    if (flags < 0 || ::fcntl(m_listenFd, F_SETFL, flags | O_NONBLOCK) != 0) return errno;
    m_epollFd = ::epoll_create1(EPOLL_CLOEXEC);
    if (m_epollFd < 0) return errno;
    m_wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (m_wakeFd < 0) return errno;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kWakeTag;
    if (::epoll_ctl(m_epollFd, EPOLL_CTL_ADD, m_wakeFd, &ev) != 0) return errno;
    setListening(true);
    if (!m_bListening) return errno;
    if (const int err = m_watch.start(); err != 0) return err;
    if (!m_workers.submit([this] { loop(0); })) return EAGAIN;
    m_bStarted = true;
    return 0;
}

void ConnectionServer::shutdown() {
    if (m_bStarted) {
        m_bStarted = false;
        m_bStopping = true;
        const uint64_t one = 1;
        (void)!::write(m_wakeFd, &one, sizeof one);
        // The watch stays until the loop has ended: a request the loop's thread is serving may
        // still need the loop moved on to let the stop proceed.
        std::unique_lock lock(m_loopMutex);
        m_loopEnded.wait(lock, [this] { return m_bLoopEnded; });
    }
    m_watch.stop();
    m_workers.finish();
}

bool ConnectionServer::handLoopOn() {
    const uint64_t next = m_generation + 1;
    m_generation = next;  // before the new loop can look at it
    if (m_workers.submit([this, next] { loop(next); })) return true;
    m_generation = next - 1;  // the serving thread is still inside its request: it never saw this
    LOG_WARN("cannot move the event loop on: a slow request holds up the others until it ends");
    return false;
}

void ConnectionServer::setListening(bool on) {
    if (on == m_bListening) return;
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.u64 = kListenTag;
    if (::epoll_ctl(m_epollFd, on ? EPOLL_CTL_ADD : EPOLL_CTL_DEL, m_listenFd, &ev) == 0) m_bListening = on;
}

int ConnectionServer::waitMs(Clock::time_point now) const {
    std::optional<Clock::time_point> next = m_table.nextDeadline();
    if (m_acceptRetryAt && (!next || *m_acceptRetryAt < *next)) next = m_acceptRetryAt;
    if (!next) return -1;
    if (*next <= now) return 0;
    // Rounded up, so the wake-up is never before the deadline.
    return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(*next - now).count());
}

void ConnectionServer::loop(uint64_t generation) {
    pthread_setname_np(pthread_self(), "ipc-events");
    for (;;) {
        // A loop taken over goes on with the events its last thread had not come to.
        while (m_nextEvent < m_eventCount) {
            onReady(m_events[m_nextEvent++]);
            if (m_generation.load() != generation) {  // moved on while a request was served here
                pthread_setname_np(pthread_self(), kWorkerName);
                return;
            }
        }
        const Clock::time_point now = Clock::now();
        dropExpired(now);
        if (m_acceptRetryAt && *m_acceptRetryAt <= now) {
            m_acceptRetryAt.reset();
            if (!m_bStopBegun) setListening(true);
        }
        if (m_bStopping && !m_bStopBegun) beginStop();
        if (m_bStopBegun && m_table.size() == 0) break;
        const int n = ::epoll_wait(m_epollFd, m_events, std::size(m_events), waitMs(now));
        if (n < 0 && errno != EINTR) {
            LOG_ERR("epoll_wait() ... fail: %s", std::strerror(errno));
            break;
        }
        m_eventCount = std::max(n, 0);
        m_nextEvent = 0;
    }
    // Only after a failed epoll_wait can connections be left.
    for (uint64_t id : m_table.idsIn(connection_s::Phase::Reading)) drop(id);
    for (uint64_t id : m_table.idsIn(connection_s::Phase::Answering)) drop(id);
    reportDropped(Clock::now(), true);
    pthread_setname_np(pthread_self(), kWorkerName);
    std::lock_guard lock(m_loopMutex);
    m_bLoopEnded = true;
    m_loopEnded.notify_all();
}

void ConnectionServer::onReady(const epoll_event& ev) {
    const uint64_t tag = ev.data.u64;
    const Clock::time_point now = Clock::now();
    if (tag == kListenTag) acceptReady(now);
    else if (tag == kWakeTag) takeAnswers(now);
    else onEvent(tag, ev.events, now);
}

void ConnectionServer::acceptReady(Clock::time_point now) {
    for (;;) {
        const bool full = m_table.size() >= m_options.maxConnections;
        if (full && !m_table.oldestReading()) {
            // Every connection is being served: newcomers wait in the listen queue.
            setListening(false);
            return;
        }
        const int fd = ::accept4(m_listenFd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            const int err = errno;
            if (err == EAGAIN || err == EWOULDBLOCK) return;
            if (err == EINTR || err == ECONNABORTED) continue;
            if (m_onAcceptError) m_onAcceptError(err);
            // Out of descriptors or memory: a waiting connection makes room, else try again
            // shortly rather than spin on a listener that stays readable.
            if ((err == EMFILE || err == ENFILE) && m_table.oldestReading()) {
                drop(m_table.oldestReading()->id);
                ++m_dropped;
                continue;
            }
            setListening(false);
            m_acceptRetryAt = now + kAcceptRetry;
            return;
        }
        if (full) {  // the newcomer takes the place of the longest-waiting request
            drop(m_table.oldestReading()->id);
            ++m_dropped;
        }
        connection_s& c = m_table.add(fd, now);
        m_count = m_table.size();
        // A client usually writes its request right after connecting: it is often here already.
        readRequest(c);
        // One connection per readiness report: the listener, level-triggered, is reported again
        // while more wait, and no accept is spent on learning that none does.
        return;
    }
}

void ConnectionServer::onEvent(uint64_t id, uint32_t events, Clock::time_point) {
    connection_s* c = m_table.find(id);
    if (!c) return;
    if (c->phase == connection_s::Phase::Reading) {
        readRequest(*c);
    } else if (c->phase == connection_s::Phase::Answering) {
        if (!c->answer.bytes.empty()) {
            writeAnswer(*c);
        } else if (events & (EPOLLIN | EPOLLHUP | EPOLLERR)) {
            // The acknowledgement (or the client going away) ends the exchange.
            char ack[framing::kAckSize];
            const ssize_t n = ::recv(c->fd, ack, sizeof ack, 0);
            if (n >= 0 || (errno != EAGAIN && errno != EINTR)) drop(id);
            else arm(*c, EPOLLIN);
        }
    }
}

// A connection is registered when it first has to wait, one-shot: an event disarms it until it
// is armed again for what it waits for next, so a connection on a worker needs no change of
// registration.
bool ConnectionServer::arm(connection_s& c, uint32_t events) {
    epoll_event ev{};
    ev.events = events | EPOLLONESHOT;
    ev.data.u64 = c.id;
    if (::epoll_ctl(m_epollFd, c.bRegistered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, c.fd, &ev) == 0) {
        c.bRegistered = true;
        return true;
    }
    LOG_ERR("epoll_ctl() ... fail: %s", std::strerror(errno));
    drop(c.id);
    return false;
}

void ConnectionServer::readRequest(connection_s& c) {
    char chunk[4096];
    for (;;) {
        const size_t room = framing::kMaxRequest - c.request.size();
        const ssize_t n = ::recv(c.fd, chunk, std::min(sizeof chunk, room), 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) drop(c.id);
            else arm(c, EPOLLIN);
            return;
        }
        if (n == 0) {  // the client half-closed: answer what came
            dispatch(c);
            return;
        }
        // A request can only become complete with a '>' or with its first non-blank
        // character (text that is no document): only then is it scanned again, so a client
        // dripping bytes does not make the loop rescan its request for each one.
        const bool firstText = std::all_of(c.request.begin(), c.request.end(), isBlank) &&
                               !std::all_of(chunk, chunk + n, isBlank);
        c.request.append(chunk, static_cast<size_t>(n));
        if (c.request.size() >= framing::kMaxRequest ||
            ((firstText || std::memchr(chunk, '>', static_cast<size_t>(n))) &&
             requestio::scanDocument(c.request) == requestio::DocState::Complete)) {
            dispatch(c);
            return;
        }
    }
}

void ConnectionServer::dispatch(connection_s& c) {
    m_table.startServing(c);
    if (m_table.countIn(connection_s::Phase::Serving) == 1 && !m_bStopBegun) {
        serveHere(c);
        return;
    }
    const uint64_t id = c.id;
    auto job = [this, id, fd = c.fd, request = std::move(c.request)]() mutable {
        handBack(serve(id, fd, std::move(request)));
    };
    c.request = std::string();
    if (!m_workers.submit(std::move(job))) drop(id);
}

void ConnectionServer::serveHere(connection_s& c) {
    const uint64_t id = c.id;
    const uint64_t ticket = m_watch.begin();
    done_s done = serve(id, c.fd, std::move(c.request));
    if (m_watch.end(ticket)) {
        settle(done, Clock::now());
    } else {
        // The loop went on elsewhere meanwhile: this thread is a worker now, and the connection
        // (which the loop leaves alone while it is served) is handed back as a worker's is.
        handBack(std::move(done));
    }
}

ConnectionServer::done_s ConnectionServer::serve(uint64_t id, int fd, std::string request) {
    done_s done{id, {}, 0};
    try {
        done.answer = m_handler(request, Peer(fd));
    } catch (...) {
        LOG_ERR("request handler ended by an exception");
    }
    request = std::string();
    // Sent from here as far as the socket takes it: a short answer is out before the loop hears
    // of it. The connection stays the serving thread's until it is handed back.
    done.sent = sendSome(fd, done.answer.bytes, 0);
    return done;
}

size_t ConnectionServer::sendSome(int fd, const std::string& bytes, size_t sent) {
    while (sent < bytes.size()) {
        const ssize_t n = ::send(fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            sent += static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            break;
        } else {
            return kSendFailed;  // the client went away
        }
    }
    return sent;
}

void ConnectionServer::handBack(done_s done) {
    {
        std::lock_guard lock(m_doneMutex);
        m_done.push_back(std::move(done));
    }
    // One wake-up for however many answers come back before the event thread looks.
    if (!m_bWakePending.exchange(true)) {
        const uint64_t one = 1;
        (void)!::write(m_wakeFd, &one, sizeof one);
    }
}

void ConnectionServer::takeAnswers(Clock::time_point now) {
    uint64_t count;
    (void)!::read(m_wakeFd, &count, sizeof count);
    m_bWakePending = false;  // before the list is taken: a later hand-back wakes us again
    std::vector<done_s> done;
    {
        std::lock_guard lock(m_doneMutex);
        done.swap(m_done);
    }
    for (done_s& d : done) settle(d, now);
}

void ConnectionServer::settle(done_s& done, Clock::time_point now) {
    connection_s* c = m_table.find(done.id);
    if (!c) return;
    m_table.startAnswering(*c, now);
    if (done.answer.bytes.empty() || done.sent == kSendFailed) {
        drop(c->id);
        return;
    }
    c->answer = std::move(done.answer);
    c->sent = done.sent;
    answerSent(*c);
}

void ConnectionServer::writeAnswer(connection_s& c) {
    c.sent = sendSome(c.fd, c.answer.bytes, c.sent);
    if (c.sent == kSendFailed) drop(c.id);
    else answerSent(c);
}

void ConnectionServer::answerSent(connection_s& c) {
    if (c.sent < c.answer.bytes.size()) {
        arm(c, EPOLLOUT);
        return;
    }
    c.answer = answer_s();  // the buffer and its hold go as soon as the answer is out
    if (m_bStopBegun) {
        drop(c.id);  // stopping: the answer is out, the acknowledgement is not waited for
        return;
    }
    arm(c, EPOLLIN);
}

void ConnectionServer::drop(uint64_t id) {
    std::unique_ptr<connection_s> c = m_table.remove(id);
    if (!c) return;
    ::close(c->fd);  // also takes it out of the epoll set
    m_count = m_table.size();
    if (!m_bStopBegun && !m_acceptRetryAt) setListening(true);
}

void ConnectionServer::dropExpired(Clock::time_point now) {
    for (uint64_t id : m_table.expired(now)) {
        connection_s* c = m_table.find(id);
        if (c && c->phase == connection_s::Phase::Reading) ++m_dropped;
        drop(id);
    }
    reportDropped(now, false);
}

void ConnectionServer::reportDropped(Clock::time_point now, bool force) {
    // One line now and then, not one per connection: a flood of idle clients must not flood
    // the log as well.
    if (m_dropped == 0 || (!force && now - m_lastDropReport < kDropReportEvery)) return;
    LOG_WARN("closed %zu connection(s) that sent no complete request in time or made room for new ones",
             m_dropped);
    m_dropped = 0;
    m_lastDropReport = now;
}

void ConnectionServer::beginStop() {
    m_bStopBegun = true;
    setListening(false);
    m_acceptRetryAt.reset();
    for (uint64_t id : m_table.idsIn(connection_s::Phase::Reading)) drop(id);
    // Answers already out are not waited on for their acknowledgement.
    for (uint64_t id : m_table.idsIn(connection_s::Phase::Answering))
        if (connection_s* c = m_table.find(id); c && c->answer.bytes.empty()) drop(id);
}

}  // namespace ipc
