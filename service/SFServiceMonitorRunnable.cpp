#include "service/SFServiceMonitorRunnable.h"

#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <memory>

#include "platform/LogMessage.h"
#include "service/SFService.h"
#include "service/ServiceLifetime.h"

namespace {
// A byte that arrived in the instant the limit ran out means a request started or ended:
// that restarts the timer instead of timing the new request out at once.
bool PipeHasData(int fd) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval zero{0, 0};
    return select(fd + 1, &set, nullptr, nullptr, &zero) > 0;
}

// Rebuilds the pipe. When that fails (no descriptor left, or none that select can watch), the
// monitor pauses before the next try, a little longer each time up to a second, and says so
// once with a count when it is back.
class PipeRebuilder {
public:
    PipeRebuilder(SFService* service, std::shared_ptr<ServiceLifetime> lifetime)
        : m_service(service), m_lifetime(std::move(lifetime)) {}

    void Rebuild() {
        m_service->OpenMessagePipe();
        const int fd = m_service->m_nMsgPipeR;
        if (fd != -1 && fd < FD_SETSIZE) {
            if (m_failures > 0)
                LogMessage(3, "VORN", "Run").stream()
                    << m_service->GetServiceName() << " message pipe rebuilt after " << m_failures
                    << " failed attempts";
            m_failures = 0;
            m_pause = kFirstPause;
            return;
        }
        if (m_failures++ == 0)
            LogMessage(4, "VORN", "Run").stream()
                << m_service->GetServiceName() << " message pipe cannot be rebuilt; retrying";
        if (m_lifetime) m_lifetime->Pause(m_pause);
        m_pause = std::min(m_pause * 2, kLongestPause);
    }

private:
    static constexpr std::chrono::milliseconds kFirstPause{10};
    static constexpr std::chrono::milliseconds kLongestPause{1000};
    SFService* m_service;
    std::shared_ptr<ServiceLifetime> m_lifetime;
    long m_failures = 0;
    std::chrono::milliseconds m_pause = kFirstPause;
};

// The end of a wait of `left` from now, on the wall clock the requests are timed with.
int64_t Deadline(const timeval& left) {
    timeval now;
    gettimeofday(&now, nullptr);
    return (int64_t(now.tv_sec) + left.tv_sec) * 1000000 + now.tv_usec + left.tv_usec;
}
}  // namespace

void SFServiceMonitorRunnable::Run() {
    SFService* service = m_pService;
    if (!service || service->m_nMsgPipeR == -1) {
        LogMessage(4, "VORN", "Run").stream() << "Command pipe is not open!";
        return;
    }
    LogMessage(1, "VORN", "Run").stream()
        << "<" << service->GetServiceName() << "> monitor thread boot";
    // The service may still be under construction here: its own OnStart is called once the
    // object is complete (registered with the manager, or given its first request).
    const std::shared_ptr<ServiceLifetime> lifetime = ServiceLifetime::Find(service);
    if (!lifetime || !lifetime->AwaitConstructed()) return;
    service->OnStart();
    PipeRebuilder pipe(service, lifetime);
    RequestClock& clock = lifetime->Clock();
    char byte;
    while (!service->IsStopping()) {
        timeval left{0, 0};
        uint64_t timed = 0;
        const int r = clock.Arm(service, &left, timed);
        const int fd = service->m_nMsgPipeR;
        if (fd < 0 || fd >= FD_SETSIZE) {
            pipe.Rebuild();
            continue;
        }
        // Say how long this wait lasts before taking it, then look once more: a request that
        // began meanwhile either saw the limit (and writes a byte if it ends sooner) or is
        // seen here.
        clock.SetMonitorDeadline(r == -1 ? RequestClock::kNoLimit : Deadline(left));
        if (clock.Sequence() != timed) continue;
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        const int n = select(fd + 1, &set, nullptr, nullptr, r == -1 ? nullptr : &left);
        if (service->IsStopping()) break;
        if (n < 0) {
            // A negative limit (a negative timeout in the configuration) fails at once, for as
            // long as the request runs; the pause keeps that from burning a core.
            if (errno == EINVAL) usleep(10000);
            continue;
        }
        if (n == 0) {
            // The limit may be that of a request that has ended since: only the request that
            // was timed, if it still runs, is timed out; a newer one is timed from its start.
            if (PipeHasData(fd) || clock.Sequence() != timed || !service->m_pCurReqMsg) continue;
            clock.Judge(timed);
            service->HandleRequestTimeout();
            clock.Judge(0);
            continue;
        }
        if (!FD_ISSET(fd, &set)) continue;
        const ssize_t k = read(fd, &byte, 1);
        if (k < 0) {
            if (errno != EINTR && errno != EAGAIN) pipe.Rebuild();
            continue;
        }
        if (k == 0) {
            pipe.Rebuild();
            continue;
        }
        // Whatever the byte says, the timer starts again, from the moment the request thread
        // took its current request.
        clock.Forget();
    }
}
