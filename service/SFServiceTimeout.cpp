// Request timeouts: the timeout answer and the replacement of the request thread. The
// deadlines themselves are kept by the service's core, on the monotonic clock.
#include <sys/time.h>

#include <memory>

#include "platform/LogMessage.h"
#include "service/SFService.h"
#include "service/ServiceCore.h"

namespace {
// m_bTimeoutHandling for the span of one timeout. A service that takes the timeout on itself
// keeps it set: the request thread finishes that request first, and the flag is cleared then.
class TimeoutHandlingFlag {
public:
    explicit TimeoutHandlingFlag(ServiceCore& core) : m_core(core) {
        m_core.SetTimeoutHandling(true);
    }
    ~TimeoutHandlingFlag() {
        if (!m_bKeep) m_core.SetTimeoutHandling(false);
    }
    void Keep() { m_bKeep = true; }

private:
    ServiceCore& m_core;
    bool m_bKeep = false;
};
}  // namespace

int SFService::StartRequestTimeout() { return gettimeofday(&m_tvReqStart, nullptr); }

// The time left of the current request; -1 when none runs, or when it has no limit (a
// negative timeout), and then `left` is untouched.
int SFService::CalculateRequestTimeout(timeval* left) {
    timespec rest;
    if (m_pCore->TimeLeft(rest) != 0) return -1;
    left->tv_sec = rest.tv_sec;
    left->tv_usec = rest.tv_nsec / 1000;
    return 0;
}

int SFService::HandleRequestTimeout() {
    const std::shared_ptr<ServiceCore::Ticket> ticket = m_pCore->ClaimCurrent();
    if (!ticket) {
        // Nothing runs, or its timeout is being handled already.
        LogMessage(4, "VORN", "HandleRequestTimeout").stream()
            << m_strServiceName << "m_pCurReqMsg is nullptr";
        return 0;
    }
    TimeOutRequest(*this, *m_pCore, ticket);
    return 0;
}

void TimeOutRequest(SFService& service, ServiceCore& core,
                    const std::shared_ptr<ServiceCore::Ticket>& ticket) {
    // The request's thread, should it come back meanwhile, waits for the outcome: there is
    // exactly one reply, the timeout's or the handler's.
    TimeoutHandlingFlag flag(core);
    SFMessage* cur = ticket->Message();
    if (!cur->GetRequestData()) {
        core.Abandon(*ticket);
        service.ResetRequestService();
        return;
    }
    if (SFData* vendor = cur->GetVendorCommandData()) {
        const SFData* request = cur->GetRequestData();
        LogMessage(1, "VORN", "HandleRequestTimeout").stream()
            << service.m_strServiceName << "Request cmd("
            << EscapedText{request->data, request->data ? request->length : 0} << "):"
            << "VENDOR cmd(" << EscapedText{vendor->data, vendor->data ? vendor->length : 0} << ")";
    }
    if (service.OnHandleRequestTimeout(cur)) {
        // The service took the whole recovery on itself: the request stays with its thread,
        // whose reply is still sent.
        core.HandBack(*ticket);
        flag.Keep();
        LogMessage(1, "VORN", "HandleRequestTimeout").stream()
            << service.m_strServiceName << "service has handled";
        return;
    }
    core.Abandon(*ticket);
    core.RunCancel(*ticket);  // the 1002 is out or queued: the call itself may be stopped now
    service.ResetRequestService();
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
    // The old thread, if it still waits for work, leaves; if it is in a handler, it leaves
    // when it comes back. Its runnable goes now: its Run keeps what it needs in locals.
    m_pCore->NewRequestGeneration();
    DestroyRequestThread();
    CreateRequestThread();
    LogMessage(2, "VORN", "ResetRequestService").stream() << m_strServiceName << "restart end";
}
