// Request timeouts: the timer arithmetic, the timeout answer and the replacement of the
// request thread.
#include <sys/time.h>

#include <memory>
#include <unordered_map>

#include "platform/LogMessage.h"
#include "platform/Thread.h"
#include "service/HalHost.h"
#include "service/SFService.h"
#include "service/ServiceLifetime.h"

namespace {
int64_t Micros(const timeval& tv) { return int64_t(tv.tv_sec) * 1000000 + tv.tv_usec; }
}  // namespace

bool RequestClock::Begin(SFService* service, SFMessage* msg) {
    timeval now;
    gettimeofday(&now, nullptr);
    const int seconds = msg->timeout;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        service->m_nCurReqTimeout = seconds;
        service->m_pCurReqMsg = msg;
        ++m_seq;
        m_start = now;
    }
    // The same length as the monitor computes: 0 stands for 15 seconds.
    const int64_t lengthMs = seconds == 0 ? 15000 : int64_t(seconds) * 1000;
    // Read after the publication: a monitor that settled on its limit before it could see this
    // request has stored that limit by now (it stores it before it looks at the sequence).
    return Micros(now) + lengthMs * 1000 < m_monitorDeadlineUs.load();
}

int RequestClock::Arm(SFService* service, timeval* left, uint64_t& seq) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_seq != m_adopted) {
        service->m_tvReqStart = m_start;
        m_adopted = m_seq;
    }
    seq = m_seq;
    return service->CalculateRequestTimeout(left);
}

uint64_t RequestClock::Sequence() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_seq;
}

int SFService::StartRequestTimeout() { return gettimeofday(&m_tvReqStart, nullptr); }

int SFService::CalculateRequestTimeout(timeval* left) {
    if (!m_pCurReqMsg) {
        gettimeofday(&m_tvReqStart, nullptr);
        return -1;
    }
    const int seconds = m_nCurReqTimeout;
    int64_t lengthMs;
    if (seconds == 0) {
        // The text says 60 seconds and the value is 15: both are what devices have always seen.
        LogMessage(1, "VORN", "CalculateRequestTimeout").stream()
            << m_strServiceName << ": Timeout is 0, set default timeout value to 60sec";
        lengthMs = 15000;
    } else {
        lengthMs = int64_t(seconds) * 1000;
    }
    timeval now;
    gettimeofday(&now, nullptr);
    const int64_t whole = lengthMs / 1000;
    const int64_t fraction = (lengthMs - whole * 1000) * 1000;
    int64_t secLeft, usecLeft;
    if (now.tv_sec >= m_tvReqStart.tv_sec) {
        secLeft = whole - now.tv_sec + m_tvReqStart.tv_sec;
        usecLeft = fraction - now.tv_usec + m_tvReqStart.tv_usec;
        if (usecLeft < 0) {
            secLeft -= 1;
            usecLeft += 1000000;
        }
    } else {
        LogMessage(1, "VORN", "CalculateRequestTimeout").stream()
            << m_strServiceName << ": Time changed to past : Reset timer";
        m_tvReqStart = now;
        secLeft = whole;
        usecLeft = 0;
    }
    if (secLeft < 0 || usecLeft < 0) {
        // Time that ran out while nobody waited earns a full new period, not an instant 1002.
        LogMessage(3, "VORN", "CalculateRequestTimeout").stream()
            << m_strServiceName << ": Invalid timeout value detected : Reset timer";
        m_tvReqStart = now;
        secLeft = whole;
        usecLeft = 0;
    }
    left->tv_sec = secLeft;
    left->tv_usec = usecLeft;
    return 0;
}

int SFService::HandleRequestTimeout() {
    m_bTimeoutHandling = true;
    if (!m_pCurReqMsg) {
        LogMessage(4, "VORN", "HandleRequestTimeout").stream()
            << m_strServiceName << "m_pCurReqMsg is nullptr";
        m_bTimeoutHandling = false;
        return 0;
    }
    // The request thread is held where it is while the timeout is decided: if it comes back
    // from its handler first, it answers and the timeout stands down, so there is exactly one
    // reply. A service that handles the timeout itself gets the thread back untouched.
    Thread* worker = (m_pRequestThread) ? m_pRequestThread->thread : nullptr;
    if (!worker || !worker->Claim()) {
        m_bTimeoutHandling = false;
        return 0;
    }
    SFMessage* cur = m_pCurReqMsg;  // stable now: its thread is held
    const std::shared_ptr<ServiceLifetime> lifetime = ServiceLifetime::Find(this);
    if (!cur || (lifetime && lifetime->Clock().Overtaken())) {
        worker->Resolve(false);
        m_bTimeoutHandling = false;
        return 0;
    }
    if (!cur->GetRequestData()) {
        worker->Resolve(true);
        m_pCurReqMsg = nullptr;
        worker->DeferToReturn([cur] { delete cur; });
        ResetRequestService();
        m_bTimeoutHandling = false;
        return 0;
    }
    if (SFData* vendor = cur->GetVendorCommandData()) {
        const SFData* request = cur->GetRequestData();
        LogMessage(1, "VORN", "HandleRequestTimeout").stream()
            << m_strServiceName << "Request cmd("
            << EscapedText{request->data, request->data ? request->length : 0} << "):"
            << "VENDOR cmd(" << EscapedText{vendor->data, vendor->data ? vendor->length : 0} << ")";
    }
    if (OnHandleRequestTimeout(cur)) {
        // The service took the whole recovery on itself: the flag and the request stay, and
        // the request thread goes on waiting for its handler, whose reply is still sent.
        worker->Resolve(false);
        LogMessage(1, "VORN", "HandleRequestTimeout").stream()
            << m_strServiceName << "service has handled";
        return 0;
    }
    worker->Resolve(true);
    // HAL isolation: the 1002 is queued; now the HAL host of the call that outlived it is
    // killed, so the old thread comes back at once (and leaves) instead of staying behind.
    // This is the one place a timeout aborts a host call (the request's cancel hook).
    if (std::shared_ptr<HalHost> host = HalHost::Find(this)) host->Abort();
    // The old thread may still be reading the request inside its handler: it deletes the
    // request when it comes back, or never, if it never does.
    m_pCurReqMsg = nullptr;
    worker->DeferToReturn([cur] { delete cur; });
    ResetRequestService();
    m_bTimeoutHandling = false;
    return 0;
}

bool SFService::OnHandleRequestTimeout(SFMessage* msg) {
    msg->SetResponseData(ConvertPCBAResponse(msg, 1002, "", 0));
    SFMessage* reply = msg->Clone();
    reply->direction = MSG_RESPONSE;
    SFData* req = reply->GetRequestData();
    DUMPLOG("VORN", "[TIMEOUT]", req ? req->data : nullptr, req ? req->length : 0);
    EnQueue(reply);
    return false;
}

void SFService::ResetRequestService() {
    LogMessage(2, "VORN", "ResetRequestService").stream() << m_strServiceName << "start to reset";
    DestroyRequestThread();
    CreateRequestThread();
    LogMessage(2, "VORN", "ResetRequestService").stream() << m_strServiceName << "restart end";
}
