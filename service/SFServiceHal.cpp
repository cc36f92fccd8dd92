// Calls into the HAL library, by name, with a fixed signature per use.
#include <unistd.h>

#include <exception>

#include "platform/LogMessage.h"
#include "service/SFService.h"
#include "service/ServiceLifetime.h"

namespace {
thread_local int t_unwindingCallers = 0;  // UnwindingCaller objects alive on this thread
thread_local bool t_serviceGone = false;  // a HAL call came back to a destroyed service

// The caller of a HAL call that came back after its service was destroyed would go on with
// the freed service (a host handler converts the result next): the thread stays here instead.
[[noreturn]] void StayForGood() {
    LogMessage(3, "VORN", "ExcecuteFunc").stream()
        << "a HAL call came back after its service was destroyed; its thread stops here";
    // Nothing to wait on that the process's exit would have to destroy.
    for (;;) pause();
}
}  // namespace

void SFService::DetachFromService() { ServiceLifetime::Detach(); }

bool SFService::ReattachToService() {
    if (ServiceLifetime::Reattach()) return true;
    t_serviceGone = true;
    return false;
}

void SFService::ReturnFromHal() {
    if (ReattachToService() || t_unwindingCallers > 0) return;
    StayForGood();
}

SFService::UnwindingCaller::UnwindingCaller() {
    if (t_unwindingCallers++ == 0) t_serviceGone = false;
}

SFService::UnwindingCaller::~UnwindingCaller() { --t_unwindingCallers; }

bool SFService::UnwindingCaller::ServiceGone() const { return t_serviceGone; }

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
