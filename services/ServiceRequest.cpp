#include "services/ServiceRequest.h"

#include "service/ServiceCore.h"

SFRespData* RunHalFunction(SFMessage* msg, SFService* service, std::vector<char>& in) {
    std::vector<char> out;
    const char* name = msg->GetSoFuncName();
    // This code leaves by itself when the call comes back to a request that was taken away,
    // so the thread need not be parked.
    ServiceCore::Ticket* ticket = ServiceCore::Ticket::Current();
    if (ticket) ticket->SetCallerUnwinds(true);
    const int rc = service->Execute(name ? name : "", &in, &out);
    if (ticket) {
        ticket->SetCallerUnwinds(false);
        if (ticket->Left()) return nullptr;  // touch nothing: the service may be gone
    }
    return service->ConvertPCBAResponse(msg, rc, out.data(), static_cast<int>(out.size()));
}

SFRespData* RunDeviceCommand(SFMessage* msg, SFService* service) {
    std::vector<char> in;
    if (service->CheckDeviceCommand(msg)) {
        SFData* device = msg->GetDeviceCommandData();
        if (device->length >= 1) in.assign(device->data, device->data + device->length);
    }
    return RunHalFunction(msg, service, in);
}
