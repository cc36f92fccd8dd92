#include "services/MiscService.h"

#include <unistd.h>

#include <string>

#include "io/SFCommandParser.h"
#include "platform/LogMessage.h"
#include "platform/Thread.h"
#include "services/ServiceRequest.h"

MiscService::MiscService(ContextWrapper* context) : SFService(context, MISC_SERVICE) {
    insert(DATA_REQUEST, 15, "JXT", DoTestRequest, nullptr, nullptr, false);
    insert(DATA_REQUEST, 15, "JXT+TIMEOUT", DoTIMEOUTRequest, nullptr, nullptr, false);
}

MiscService::~MiscService() { StopServiceThreads(); }

SFRespData* MiscService::DoTestRequest(SFMessage* /*msg*/, void* /*service*/) {
    return new SFRespData(0, nullptr, 0, DATA_RESPONSE);
}

SFRespData* MiscService::DoTIMEOUTRequest(SFMessage* /*msg*/, void* /*service*/) {
    // Never answers: only the request timeout does. Once the timeout has taken the request
    // away, the thread is let go instead of sleeping for ever, so a daemon that is asked this
    // every day does not collect sleeping threads. On a host's own thread it never returns.
    // The wait touches nothing of the service, so the service's destruction need not wait
    // for it; whatever happened meanwhile, nothing is answered from here.
    SFService::DetachFromService();
    while (!Thread::IsCurrentAbandoned()) sleep(1);
    SFService::ReattachToService();
    return nullptr;
}

int MiscService::OnHandleRequest(SFMessage* msg) {
    if (!msg) {
        LogMessage(4, "VORN", "OnHandleRequest").stream() << "[" << GetServiceName() << "]"
                                                          << "message is empty!!!";
        return false;
    }
    SFData* vendor = msg->GetVendorCommandData();
    std::string param;
    if (vendor && vendor->data && SFCommandParser::GetCommandParamer(vendor->data, param)) {
        if (LogMessage::IsOn(1))
            LogMessage(1, "VORN", "OnHandleRequest").stream()
                << "[" << GetServiceName() << "]"
                << "command content is" << EscapedText{param.data(), param.size()};
        msg->SetDeviceCommandData(
            new SFData(param.c_str(), static_cast<unsigned>(param.size()), vendor->direction));
    }
    return true;
}

SFRespData* MiscService::DoRequest(SFMessage* msg, void* service) {
    return RunDeviceCommand(msg, static_cast<SFService*>(service));
}
