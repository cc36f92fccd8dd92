#include "io/ReplyRoute.h"

namespace {
thread_local ClientRef t_current;
}  // namespace

ClientRef ReplyRoute::Current() { return t_current; }

ReplyRoute::Scope::Scope(ClientRef client) : m_previous(t_current) { t_current = client; }

ReplyRoute::Scope::~Scope() { t_current = m_previous; }
