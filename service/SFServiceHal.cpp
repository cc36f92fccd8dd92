// Calls into the HAL library, by name, with a fixed signature per use.
#include <unistd.h>

#include <exception>

#include "platform/LogMessage.h"
#include "service/HalHost.h"
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

namespace {
// HAL isolation: the call goes to the service's HAL host. The same answers and lines as a call
// in this process: 1001 without a line for a function the library does not export, then
// "Execute(name)", then the function's result; and 1001 when the host died in the call.
int ExecuteInHost(HalHost& host, const std::string& tag, const std::string& funcName,
                  std::vector<char>* in, std::vector<char>* out) {
    if (!host.IsExported(funcName)) return 1001;
    if (LogMessage::IsOn(2))
        LogMessage(2, tag.c_str(), "ExcecuteFunc").stream() << "Execute(" << funcName << ")";
    static const std::vector<char> kNothing;
    std::vector<char> discard;
    // Outside the service while the host runs, as around a call in this process: the
    // service's destruction does not wait for the call, it kills the host.
    struct Return {
        ~Return() { SFService::ReturnFromHal(); }
    } comeBack;
    SFService::DetachFromService();
    return host.Call(funcName, in ? *in : kNothing, out ? *out : discard);
}
}  // namespace

int SFService::Execute(std::string funcName, std::vector<char>* in, std::vector<char>* out) {
    if (std::shared_ptr<HalHost> host = HalHost::Find(this))
        return ExecuteInHost(*host, m_pDllParser->GetTag(), funcName, in, out);
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

// With HAL isolation the library is not mapped here (m_pDllParser has nothing loaded), so both
// answer as for a library without the functions: a block of the host's memory would mean
// nothing in this process.
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
