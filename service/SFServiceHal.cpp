// Calls into the HAL library, by name, with a fixed signature per use.
#include <unistd.h>

#include <exception>

#include "platform/LogMessage.h"
#include "service/HalHost.h"
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
    // A timeout of the request kills the host, so the call returns at once and its thread
    // leaves instead of staying behind. The hook goes with the call: a timeout that comes
    // later (while the result is converted) must not kill the next request's host.
    struct Cancel {
        explicit Cancel(HalHost& host) : ticket(ServiceCore::Ticket::Current()) {
            if (ticket) ticket->SetCancel([&host] { host.Abort(); });
        }
        ~Cancel() {
            if (ticket) ticket->SetCancel(nullptr);
        }
        ServiceCore::Ticket* const ticket;
    } cancel(host);
    SFService::DetachFromService();
    return host.Call(funcName, in ? *in : kNothing, out ? *out : discard);
}
}  // namespace

int SFService::Execute(std::string funcName, std::vector<char>* in, std::vector<char>* out) {
    if (HalHost* host = Core()->GetHalHost())
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
