#include "service/ServiceLifetime.h"

#include <unordered_map>

namespace {
std::mutex g_tableLock;  // guards g_table
// Never destroyed: a service's threads may still look theirs up while the process exits.
auto* const g_table = new std::unordered_map<const SFService*, std::shared_ptr<ServiceLifetime>>();

// The span of the handler that the calling thread runs, if any.
thread_local std::shared_ptr<ServiceLifetime> t_lifetime;
thread_local bool t_inside = false;  // counted inside t_lifetime's gate
thread_local int t_detached = 0;     // depth of Detach calls
}  // namespace

std::shared_ptr<ServiceLifetime> ServiceLifetime::Create(const SFService* service) {
    auto lifetime = std::make_shared<ServiceLifetime>();
    std::lock_guard<std::mutex> lock(g_tableLock);
    (*g_table)[service] = lifetime;
    return lifetime;
}

std::shared_ptr<ServiceLifetime> ServiceLifetime::Find(const SFService* service) {
    std::lock_guard<std::mutex> lock(g_tableLock);
    auto it = g_table->find(service);
    return it == g_table->end() ? nullptr : it->second;
}

void ServiceLifetime::Erase(const SFService* service) {
    std::lock_guard<std::mutex> lock(g_tableLock);
    g_table->erase(service);
}

bool ServiceLifetime::EnterHandler(std::shared_ptr<ServiceLifetime> lifetime) {
    LeaveHandler();
    if (!lifetime) return true;
    {
        std::lock_guard<std::mutex> lock(lifetime->m_lock);
        if (lifetime->m_bClosed) return false;
        ++lifetime->m_nInside;
    }
    t_lifetime = std::move(lifetime);
    t_inside = true;
    return true;
}

void ServiceLifetime::LeaveHandler() {
    if (t_lifetime && t_inside) {
        std::lock_guard<std::mutex> lock(t_lifetime->m_lock);
        --t_lifetime->m_nInside;
        t_lifetime->m_changed.notify_all();
    }
    t_lifetime.reset();
    t_inside = false;
    t_detached = 0;
}

void ServiceLifetime::Detach() {
    if (!t_lifetime || t_detached++ > 0 || !t_inside) return;
    std::lock_guard<std::mutex> lock(t_lifetime->m_lock);
    --t_lifetime->m_nInside;
    t_inside = false;
    t_lifetime->m_changed.notify_all();
}

bool ServiceLifetime::Reattach() {
    if (!t_lifetime) return true;
    if (t_detached > 0 && --t_detached > 0) return true;
    if (t_inside) return true;
    std::lock_guard<std::mutex> lock(t_lifetime->m_lock);
    if (t_lifetime->m_bClosed) return false;
    ++t_lifetime->m_nInside;
    t_inside = true;
    return true;
}

void ServiceLifetime::Close() {
    std::unique_lock<std::mutex> lock(m_lock);
    m_bClosed = true;
    m_changed.wait(lock, [this] { return m_nInside == 0; });
}

void ServiceLifetime::MarkConstructed() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_bConstructed) return;
        m_bConstructed = true;
    }
    m_changed.notify_all();
}

bool ServiceLifetime::AwaitConstructed() {
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_bConstructed || m_bStopped; });
    return !m_bStopped;
}

void ServiceLifetime::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_bStopped = true;
    }
    m_changed.notify_all();
}

void ServiceLifetime::Pause(std::chrono::milliseconds length) {
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait_for(lock, length, [this] { return m_bStopped; });
}
