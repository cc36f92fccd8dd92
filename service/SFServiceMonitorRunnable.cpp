#include "service/SFServiceMonitorRunnable.h"

#include <sys/select.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "platform/LogMessage.h"
#include "service/RequestClock.h"
#include "service/SFService.h"

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
    // Called without virtual dispatch: the service may still be under construction here.
    service->SFService::OnStart();
    RequestClock& clock = RequestClock::Of(service);
    char byte;
    while (!service->IsStopping()) {
        timeval left{0, 0};
        uint64_t timed = 0;
        const int r = clock.Arm(service, &left, timed);
        const int fd = service->m_nMsgPipeR;
        if (fd < 0 || fd >= FD_SETSIZE) {
            service->OpenMessagePipe();
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
            service->HandleRequestTimeout();
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
        // Whatever the byte says, the timer starts again, from the moment the request thread
        // took its current request.
        clock.Forget();
    }
}
