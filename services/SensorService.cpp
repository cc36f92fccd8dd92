#include "services/SensorService.h"

#include <string>

#include "io/SFCommandParser.h"
#include "platform/LogMessage.h"
#include "services/ServiceRequest.h"

SensorService::SensorService(ContextWrapper* context) : SFService(context, SENSOR_SERVICE) {}

SensorService::~SensorService() { StopServiceThreads(); }

int SensorService::OnHandleRequest(SFMessage* msg) {
    if (!msg) {
        LogMessage(4, "VORN", "OnHandleRequest").stream() << "Message is empty!";
        return false;
    }
    SFData* vendor = msg->GetVendorCommandData();
    std::string param;
    const bool found =
        vendor && vendor->data && SFCommandParser::GetCommandParamer(vendor->data, param);
    // Set also without parameters: the HAL then gets an empty input.
    msg->SetDeviceCommandData(new SFData(param.c_str(), static_cast<unsigned>(param.size()),
                                         vendor ? vendor->direction : DATA_REQUEST));
    return found;
}

SFRespData* SensorService::DoRequest(SFMessage* msg, void* service) {
    return RunDeviceCommand(msg, static_cast<SFService*>(service));
}
