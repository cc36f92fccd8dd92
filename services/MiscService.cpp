#include "services/MiscService.h"

#include <string>

#include "io/SFCommandParser.h"
#include "platform/LogMessage.h"
#include "service/ServiceCore.h"
#include "services/ServiceRequest.h"

MiscService::MiscService(ContextWrapper* context) : SFService(context, MISC_SERVICE) {
    insert(DATA_REQUEST, 15, "JXT", DoTestRequest, nullptr, nullptr, false);
    insert(DATA_REQUEST, 15, "JXT+TIMEOUT", DoTIMEOUTRequest, nullptr, nullptr, false);
}

MiscService::~MiscService() { StopServiceThreads(); }

SFRespData* MiscService::DoTestRequest(SFMessage* /*msg*/, void* /*service*/) {
    return new SFRespData(0, nullptr, 0, DATA_RESPONSE);
}

SFRespData* MiscService::DoTIMEOUTRequest(SFMessage* /*msg*/, void* service) {
    // Never answers: only the request timeout does. Once the timeout has taken the request
    // away, the thread is let go instead of waiting for ever, so a daemon that is asked this
    // every day does not collect threads. The wait touches nothing of the service, so the
    // service's destruction need not wait for it (and ends it). Not run as a queued request
    // (an internal request, on its caller's thread), it waits as long as the service lives.
    ServiceCore::Ticket* ticket = ServiceCore::Ticket::Current();
    const std::shared_ptr<ServiceCore> core =
        ticket ? ticket->Core().shared_from_this()
               : static_cast<SFService*>(service)->Core()->shared_from_this();
    core->AwaitTakenAway(ticket);
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
