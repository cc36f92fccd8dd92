#include "services/ServiceRequest.h"

SFRespData* RunHalFunction(SFMessage* msg, SFService* service, std::vector<char>& in) {
    std::vector<char> out;
    const char* name = msg->GetSoFuncName();
    // This code leaves by itself when the call comes back to a request that was taken away
    // (touching nothing: the service may be gone), so the thread need not be parked.
    SFService::UnwindingCaller caller;
    const int rc = service->Execute(name ? name : "", &in, &out);
    if (caller.ServiceGone()) return nullptr;
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
