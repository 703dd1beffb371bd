#include "command/RequestClient.h"

namespace requestclient {
namespace {
thread_local const clientCredentials_s* t_current = nullptr;
}

const clientCredentials_s* current() { return t_current; }

Scope::Scope(const clientCredentials_s* who) : m_previous(t_current) { t_current = who; }

Scope::~Scope() { t_current = m_previous; }

}  // namespace requestclient
