#include "command/RequestClient.h"

namespace requestclient {
namespace {
thread_local const ipc::Peer* t_current = nullptr;
}

const clientCredentials_s* current() { return t_current ? &t_current->credentials() : nullptr; }

Scope::Scope(const ipc::Peer* who) : m_previous(t_current) { t_current = who; }

Scope::~Scope() { t_current = m_previous; }

}  // namespace requestclient
