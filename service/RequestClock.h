#ifndef VORN_SERVICE_REQUESTCLOCK_H
#define VORN_SERVICE_REQUESTCLOCK_H

#include <sys/time.h>

#include <atomic>
#include <cstdint>
#include <limits>
#include <mutex>

class SFService;
class SFMessage;

// What the request thread tells the monitor about the request it runs, beside the service
// object (whose layout hosts are built against). The monitor needs a pipe byte only when it
// sleeps without a limit, or when a new request must end before the monitor's limit does;
// otherwise the request thread only publishes the request's start and a sequence number here,
// and the monitor, when its limit runs out, times out the request only if it is still the one
// it was timing, and re-arms from the new start if not.
//
// Private to the engine: one per service, held by the service's ServiceLifetime.
class RequestClock {
public:
    static constexpr int64_t kNoLimit = std::numeric_limits<int64_t>::max();

    // Request thread: `msg` becomes the service's current request now. True when the monitor
    // must be woken to time it.
    bool Begin(SFService* service, SFMessage* msg);

    // Monitor: under the clock's lock, adopts the start of a request it has not seen yet into
    // m_tvReqStart and computes the time left, so that the two always belong to one request.
    // Returns CalculateRequestTimeout's result; `seq` is the request's sequence number.
    int Arm(SFService* service, timeval* left, uint64_t& seq);
    // Monitor: until when it sleeps (wall clock, microseconds), or kNoLimit.
    void SetMonitorDeadline(int64_t deadlineUs) { m_monitorDeadlineUs.store(deadlineUs); }
    // Monitor: the sequence number of the latest request.
    uint64_t Sequence();
    // Monitor: the next Arm adopts the published start again (after a pipe byte).
    void Forget() { m_adopted = 0; }
    // Monitor: the request it is about to time out (0: none named). Once the request thread is
    // held, the timeout goes ahead only if that request is still the current one: the thread
    // may have moved on to the next request between the monitor's look and the hold.
    void Judge(uint64_t seq) { m_judged.store(seq); }
    bool Overtaken() {
        const uint64_t judged = m_judged.load();
        return judged != 0 && judged != Sequence();
    }

private:
    std::mutex m_lock;  // guards m_seq, m_start, and the monitor's Arm against Begin
    uint64_t m_seq = 0;
    timeval m_start{0, 0};
    uint64_t m_adopted = 0;  // the request whose start m_tvReqStart holds; monitor only
    std::atomic<int64_t> m_monitorDeadlineUs{kNoLimit};  // written by the monitor
    std::atomic<uint64_t> m_judged{0};                   // written by the monitor
};

#endif
