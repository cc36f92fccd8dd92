#include "services/ServiceRequest.h"

#include "platform/Thread.h"

SFRespData* RunHalFunction(SFMessage* msg, SFService* service, std::vector<char>& in) {
    std::vector<char> out;
    const char* name = msg->GetSoFuncName();
    SFService::UnwindingCaller caller;
    const int rc = service->Execute(name ? name : "", &in, &out);
    if (caller.ServiceGone() || Thread::IsCurrentAbandoned()) return nullptr;
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
