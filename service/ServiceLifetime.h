#ifndef VORN_SERVICE_SERVICELIFETIME_H
#define VORN_SERVICE_SERVICELIFETIME_H

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "service/RequestClock.h"

class SFService;

// Not exported. What a service keeps beside its fixed layout, found by the service's address:
// created by its constructor, erased by its destructor, and shared with every thread that runs
// one of its handlers, so those threads may still use it once the service is gone.
//
// The gate: a thread that runs a handler is inside the service, except while it sits in a HAL
// call (or in a wait that touches nothing of the service). Close, on the way to the destructor,
// waits until no thread is inside; a thread that comes back from a HAL call after that finds the
// gate closed and must not go back into code that could reach the freed service.
//
// The clock: what the request thread tells the monitor about the request it runs.
//
// The start: the monitor thread boots while the object may still be under construction, so it
// calls OnStart only once the object is known to be complete: when it is registered with the
// service manager or given its first request.
class ServiceLifetime {
public:
    static std::shared_ptr<ServiceLifetime> Create(const SFService* service);
    static std::shared_ptr<ServiceLifetime> Find(const SFService* service);
    static void Erase(const SFService* service);

    // The calling thread's handler span. Enter is false once the gate is closed.
    static bool EnterHandler(std::shared_ptr<ServiceLifetime> lifetime);
    static void LeaveHandler();
    // Around a HAL call inside a span (nesting allowed). Reattach is false when the gate was
    // closed meanwhile: the caller must leave without touching the service.
    static void Detach();
    static bool Reattach();

    // Owner side: lets no thread in any more and waits until none is inside.
    void Close();

    void MarkConstructed();
    // True once the object is complete; false when the service is stopping first.
    bool AwaitConstructed();
    // Wakes AwaitConstructed and Pause for good.
    void Stop();
    // Waits for `length`, or less when the service stops meanwhile.
    void Pause(std::chrono::milliseconds length);

    RequestClock& Clock() { return m_clock; }

private:
    std::mutex m_lock;  // guards the fields below
    std::condition_variable m_changed;
    int m_nInside = 0;  // threads inside the gate
    bool m_bClosed = false;
    bool m_bConstructed = false;
    bool m_bStopped = false;
    RequestClock m_clock;
};

#endif
