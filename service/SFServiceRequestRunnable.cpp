#include "service/SFServiceRequestRunnable.h"

#include "platform/LogMessage.h"
#include "platform/Thread.h"
#include "service/SFService.h"

void SFServiceRequestRunnable::Run() {
    LogMessage(1, "VORN", "Run").stream()
        << "<" << (m_pService ? m_pService->GetServiceName() : "") << "> request thread boot";
    for (;;) {
        // A thread left behind by a timeout owns nothing any more, this runnable included:
        // it must leave before reading a member.
        if (Thread::IsCurrentAbandoned()) return;
        if (!m_pService) {
            LogMessage(4, "VORN", "Run").stream() << "Service was destroyed";
            return;
        }
        if (m_pService->IsStopping()) return;
        m_pService->HandleRequest();
    }
}
