#include "service/SFServiceMonitorRunnable.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>

#include "io/LoopHandOff.h"
#include "platform/LogMessage.h"
#include "service/SFService.h"
#include "service/ServiceCore.h"

namespace {
// Rebuilds the pipe. When that fails (no descriptor left), the monitor pauses before the next
// try, a little longer each time up to a second, and says so once with a count when it is back.
class PipeRebuilder {
public:
    PipeRebuilder(SFService* service, ServiceCore* core) : m_service(service), m_core(core) {}

    void Rebuild() {
        m_service->OpenMessagePipe();
        if (m_service->m_nMsgPipeR != -1) {
            if (m_failures > 0)
                LogMessage(3, "VORN", "Run").stream()
                    << m_service->GetServiceName() << " message pipe rebuilt after " << m_failures
                    << " failed attempts";
            m_failures = 0;
            m_pauseMs = kFirstPauseMs;
            return;
        }
        if (m_failures++ == 0)
            LogMessage(4, "VORN", "Run").stream()
                << m_service->GetServiceName() << " message pipe cannot be rebuilt; retrying";
        m_core->Pause(m_pauseMs);
        m_pauseMs = std::min(m_pauseMs * 2, kLongestPauseMs);
    }

private:
    static constexpr int kFirstPauseMs = 10;
    static constexpr int kLongestPauseMs = 1000;
    SFService* m_service;
    ServiceCore* m_core;
    long m_failures = 0;
    int m_pauseMs = kFirstPauseMs;
};
}  // namespace

SFServiceMonitorRunnable::SFServiceMonitorRunnable(SFService* service)
    : m_pService(service),
      m_core(service && service->Core() ? service->Core()->shared_from_this() : nullptr) {}

SFServiceMonitorRunnable::~SFServiceMonitorRunnable() = default;

// The monitor sleeps in one poll on two descriptors: the service's request timer, which the
// request thread arms as it starts a request (waking nobody), and the notification pipe, whose
// bytes no longer time anything but still wake the monitor, to stop it or to rebuild the pipe.
void SFServiceMonitorRunnable::Run() {
    SFService* const service = m_pService;
    const std::shared_ptr<ServiceCore> core = m_core;
    if (!service || !core || service->m_nMsgPipeR == -1) {
        LogMessage(4, "VORN", "Run").stream() << "Command pipe is not open!";
        if (core) core->ThreadEnded();
        return;
    }
    LogMessage(1, "VORN", "Run").stream()
        << "<" << service->GetServiceName() << "> monitor thread boot";
    // The service may still be under construction here: its own OnStart is called once the
    // object is complete (registered with the manager, or given its first request).
    if (core->AwaitConstructed()) service->OnStart();
    PipeRebuilder pipe(service, core.get());
    while (!core->Stopping()) {
        const int fd = service->m_nMsgPipeR;
        if (fd < 0) {
            pipe.Rebuild();
            continue;
        }
        pollfd fds[2] = {{core->TimerFd(), POLLIN, 0}, {fd, POLLIN, 0}};
        const int n = poll(fds, 2, -1);
        if (core->Stopping()) break;
        if (n < 0) continue;  // interrupted
        if (fds[1].revents) {
            char byte;
            const ssize_t k = read(fd, &byte, 1);
            if ((k < 0 && errno != EINTR && errno != EAGAIN) || k == 0) pipe.Rebuild();
        }
        if (fds[0].revents & POLLIN) {
            uint64_t expirations;
            // The timer may have been re-armed since it fired: then there is nothing to read.
            if (read(fds[0].fd, &expirations, sizeof expirations) < 0) continue;
            // A request on the socket loop's thread past the loop's budget: the loop goes on
            // in a fresh thread, the request where it is.
            if (auto handOff = core->OnTimer()) core->HandOffDone(handOff->HandOff());
            if (auto ticket = core->ClaimDue()) TimeOutRequest(*service, *core, ticket);
        }
    }
    core->ThreadEnded();  // the last touch: the service may go right after it
}
