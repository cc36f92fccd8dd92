#include "service/SFServiceRequestRunnable.h"

#include "platform/LogMessage.h"
#include "service/SFService.h"
#include "service/ServiceCore.h"

SFServiceRequestRunnable::SFServiceRequestRunnable(SFService* service)
    : m_pService(service),
      m_core(service && service->Core() ? service->Core()->shared_from_this() : nullptr),
      m_nGeneration(m_core ? m_core->RequestGeneration() : 0) {}

SFServiceRequestRunnable::~SFServiceRequestRunnable() = default;

void SFServiceRequestRunnable::Run() {
    // Locals only from here: once a timeout takes this thread's request away, the service
    // replaces the thread and deletes this runnable while the thread is still in its handler.
    SFService* const service = m_pService;
    const std::shared_ptr<ServiceCore> core = m_core;
    const uint64_t generation = m_nGeneration;
    LogMessage(1, "VORN", "Run").stream()
        << "<" << (service ? service->GetServiceName() : "") << "> request thread boot";
    if (!service || !core) {
        LogMessage(4, "VORN", "Run").stream() << "Service was destroyed";
        if (core) core->ThreadEnded();
        return;
    }
    for (;;) {
        switch (RunRequestPass(*service, *core, generation)) {
            case PASS_NEXT:
                continue;
            case PASS_RETIRED:
                core->ThreadEnded();
                return;
            case PASS_TAKEN_AWAY:
                return;  // counted out already; the service may be gone
        }
    }
}
