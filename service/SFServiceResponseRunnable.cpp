#include "service/SFServiceResponseRunnable.h"

#include "platform/LogMessage.h"
#include "platform/Thread.h"
#include "service/SFService.h"

void SFServiceResponseRunnable::Run() {
    LogMessage(1, "VORN", "Run").stream()
        << "<" << (m_pService ? m_pService->GetServiceName() : "") << "> response thread boot";
    for (;;) {
        if (Thread::IsCurrentAbandoned()) return;
        if (!m_pService) {
            LogMessage(4, "VORN", "Run").stream() << "Service was destroyed in response runnable!";
            return;
        }
        if (m_pService->IsStopping()) return;
        m_pService->HandleResponse();
    }
}
