#ifndef VORN_SERVICES_SENSORSERVICE_H
#define VORN_SERVICES_SENSORSERVICE_H

#include "core/VornExport.h"
#include "service/SFService.h"

class VORN_EXPORT SensorService : public SFService {
public:
    explicit SensorService(ContextWrapper* context);
    ~SensorService() override;

    int OnHandleRequest(SFMessage* msg) override;
    SFRespData* DoRequest(SFMessage* msg, void* service) override;
};

#endif
