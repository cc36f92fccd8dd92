#include "services/ModemService.h"

#include "services/ServiceRequest.h"

ModemService::ModemService(ContextWrapper* context) : SFService(context, MODEM_SERVICE) {}

ModemService::~ModemService() { StopServiceThreads(); }

int ModemService::OnHandleRequest(SFMessage* /*msg*/) { return true; }

SFRespData* ModemService::DoRequest(SFMessage* msg, void* service) {
    // The modem takes the whole command as the client sent it, header and parameters.
    std::vector<char> in;
    SFData* req = msg->GetRequestData();
    if (req && req->length >= 1) in.assign(req->data, req->data + req->length);
    return RunHalFunction(msg, static_cast<SFService*>(service), in);
}
