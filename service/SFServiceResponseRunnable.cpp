#include "service/SFServiceResponseRunnable.h"

#include "platform/LogMessage.h"
#include "service/SFService.h"
#include "service/ServiceCore.h"

SFServiceResponseRunnable::SFServiceResponseRunnable(SFService* service)
    : m_pService(service),
      m_core(service && service->Core() ? service->Core()->shared_from_this() : nullptr) {}

SFServiceResponseRunnable::~SFServiceResponseRunnable() = default;

void SFServiceResponseRunnable::Run() {
    SFService* const service = m_pService;
    const std::shared_ptr<ServiceCore> core = m_core;
    LogMessage(1, "VORN", "Run").stream()
        << "<" << (service ? service->GetServiceName() : "") << "> response thread boot";
    if (!service)
        LogMessage(4, "VORN", "Run").stream() << "Service was destroyed in response runnable!";
    while (service && core && !core->Stopping()) service->HandleResponse();
    if (core) core->ThreadEnded();  // the last touch: the service may go right after it
}
