#include "ipc/ConnectionTable.h"

namespace ipc {

std::list<connection_s*>* ConnectionTable::lineFor(connection_s::Phase phase) {
    switch (phase) {
        case connection_s::Phase::Reading: return &m_reading;
        case connection_s::Phase::Answering: return &m_answering;
        case connection_s::Phase::Serving: break;
    }
    return nullptr;
}

void ConnectionTable::leaveLine(connection_s& c) {
    if (std::list<connection_s*>* line = lineFor(c.phase)) line->erase(c.waitPos);
    else --m_serving;
}

connection_s& ConnectionTable::add(int fd, Clock::time_point acceptedAt) {
    auto owned = std::make_unique<connection_s>();
    connection_s& c = *owned;
    c.id = m_nextId++;
    c.fd = fd;
    c.deadline = acceptedAt + m_requestTimeout;
    c.waitPos = m_reading.insert(m_reading.end(), &c);
    m_byId.emplace(c.id, std::move(owned));
    return c;
}

connection_s* ConnectionTable::find(uint64_t id) {
    auto it = m_byId.find(id);
    return it == m_byId.end() ? nullptr : it->second.get();
}

std::unique_ptr<connection_s> ConnectionTable::remove(uint64_t id) {
    auto it = m_byId.find(id);
    if (it == m_byId.end()) return nullptr;
    std::unique_ptr<connection_s> c = std::move(it->second);
    m_byId.erase(it);
    leaveLine(*c);
    return c;
}

void ConnectionTable::startServing(connection_s& c) {
    leaveLine(c);
    c.phase = connection_s::Phase::Serving;
    ++m_serving;
}

void ConnectionTable::startAnswering(connection_s& c, Clock::time_point readyAt) {
    leaveLine(c);
    c.phase = connection_s::Phase::Answering;
    c.deadline = readyAt + m_answerTimeout;
    c.waitPos = m_answering.insert(m_answering.end(), &c);
}

connection_s* ConnectionTable::oldestReading() { return m_reading.empty() ? nullptr : m_reading.front(); }

std::optional<Clock::time_point> ConnectionTable::nextDeadline() const {
    std::optional<Clock::time_point> next;
    for (const std::list<connection_s*>* line : {&m_reading, &m_answering})
        if (!line->empty() && (!next || line->front()->deadline < *next)) next = line->front()->deadline;
    return next;
}

std::vector<uint64_t> ConnectionTable::expired(Clock::time_point now) const {
    std::vector<uint64_t> ids;
    for (const std::list<connection_s*>* line : {&m_reading, &m_answering})
        for (const connection_s* c : *line) {
            if (c->deadline > now) break;
            ids.push_back(c->id);
        }
    return ids;
}

size_t ConnectionTable::countIn(connection_s::Phase phase) const {
    switch (phase) {
        case connection_s::Phase::Reading: return m_reading.size();
        case connection_s::Phase::Answering: return m_answering.size();
        case connection_s::Phase::Serving: break;
    }
    return m_serving;
}

std::vector<uint64_t> ConnectionTable::idsIn(connection_s::Phase phase) const {
    std::vector<uint64_t> ids;
    for (const auto& [id, c] : m_byId)
        if (c->phase == phase) ids.push_back(id);
    return ids;
}

}  // namespace ipc
