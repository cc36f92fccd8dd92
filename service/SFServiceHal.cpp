// Calls into the HAL library, by name, with a fixed signature per use.
#include <unistd.h>

#include <exception>

#include "platform/LogMessage.h"
#include "service/SFService.h"
#include "service/ServiceCore.h"

namespace {
// The caller of a HAL call that came back after its request was taken away would go on with a
// service that may be freed (a host's handler converts the result next): the thread stays
// here instead. Only a host's own inline HAL call gets here; the engine's callers unwind.
[[noreturn]] void StayForGood() {
    LogMessage(3, "VORN", "ExcecuteFunc").stream()
        << "a HAL call came back after its service was destroyed; its thread stops here";
    // Nothing to wait on that the process's exit would have to destroy.
    for (;;) pause();
}
}  // namespace

void SFService::DetachFromService() {
    if (ServiceCore::Ticket* t = ServiceCore::Ticket::Current()) t->Core().Away(*t);
}

// False only when the service is being destroyed: after a timeout the service is still there,
// and the caller goes on in it (its reply is dropped when its handler ends).
bool SFService::ReattachToService() {
    ServiceCore::Ticket* t = ServiceCore::Ticket::Current();
    return !t || t->Core().Back(*t, true);
}

void SFService::ReturnFromHal() {
    ServiceCore::Ticket* t = ServiceCore::Ticket::Current();
    if (!t) return;
    // The engine's own callers leave by themselves once the request is taken away; a host's
    // handler goes on while the service exists, and cannot be let back once it is gone.
    const bool unwinds = t->CallerUnwinds() > 0;
    if (t->Core().Back(*t, !unwinds) || unwinds) return;
    StayForGood();
}

// The ticket keeps the count: the caller is the thread that runs the request.
SFService::UnwindingCaller::UnwindingCaller() {
    if (ServiceCore::Ticket* t = ServiceCore::Ticket::Current()) t->SetCallerUnwinds(+1);
}

SFService::UnwindingCaller::~UnwindingCaller() {
    if (ServiceCore::Ticket* t = ServiceCore::Ticket::Current()) t->SetCallerUnwinds(-1);
}

bool SFService::UnwindingCaller::ServiceGone() const {
    ServiceCore::Ticket* t = ServiceCore::Ticket::Current();
    return t && t->Left();
}

int SFService::Execute(std::string funcName, std::vector<char>* in, std::vector<char>* out) {
    if (!m_pDllParser->GetFunction(funcName)) return 1001;
    try {
        return ExcecuteFunc<int, std::vector<char>*, std::vector<char>*>(m_pDllParser, funcName, in,
                                                                         out);
    } catch (const std::exception& e) {
        LogMessage(4, "VORN", "Execute").stream()
            << "HAL function " << funcName << " threw: " << e.what();
    } catch (...) {
        LogMessage(4, "VORN", "Execute").stream() << "HAL function " << funcName << " threw";
    }
    out->clear();
    return 1001;
}

void* SFService::HalMalloc(int size) {
    if (!m_pDllParser->GetFunction("vorn_hal_malloc")) return nullptr;
    try {
        return ExcecuteFunc<void*, int>(m_pDllParser, "vorn_hal_malloc", size);
    } catch (...) {
        LogMessage(4, "VORN", "HalMalloc").stream() << "vorn_hal_malloc threw";
        return nullptr;
    }
}

int SFService::HalFree(void* block) {
    if (!m_pDllParser->GetFunction("vorn_hal_free")) return 1;
    try {
        return ExcecuteFunc<int, void*>(m_pDllParser, "vorn_hal_free", block);
    } catch (...) {
        LogMessage(4, "VORN", "HalFree").stream() << "vorn_hal_free threw";
        return 1001;
    }
}
