#include "service/SFServiceMonitorRunnable.h"

#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
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
    if (lifetime && !lifetime->AwaitConstructed()) return;
    service->OnStart();
    char byte;
    while (!service->IsStopping()) {
        timeval left{0, 0};
        const int r = service->CalculateRequestTimeout(&left);
        const int fd = service->m_nMsgPipeR;
        if (fd < 0 || fd >= FD_SETSIZE) {
            service->OpenMessagePipe();
            continue;
        }
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
            if (!PipeHasData(fd)) service->HandleRequestTimeout();
            continue;
        }
        if (!FD_ISSET(fd, &set)) continue;
        const ssize_t k = read(fd, &byte, 1);
        if (k < 0) {
            if (errno != EINTR && errno != EAGAIN) service->OpenMessagePipe();
            continue;
        }
        if (k == 0) {
            service->OpenMessagePipe();
            continue;
        }
        // Whatever the byte says, a request started or ended: the timer starts again.
        service->StartRequestTimeout();
    }
}
