#ifndef VORN_SERVICES_SERVICEREQUEST_H
#define VORN_SERVICES_SERVICEREQUEST_H

#include "service/SFService.h"

// Not exported. The HAL call that the misc and sensor services share: the device command
// bytes (the parameters) in, the function's bytes and code out.
SFRespData* RunDeviceCommand(SFMessage* msg, SFService* service);

// Calls the message's HAL function with `in` and converts its answer. A thread that the
// timeout left behind while the HAL ran, or whose service was destroyed meanwhile, returns
// null at once, without touching the service.
SFRespData* RunHalFunction(SFMessage* msg, SFService* service, std::vector<char>& in);

#endif
