#ifndef VORN_SERVICES_MODEMSERVICE_H
#define VORN_SERVICES_MODEMSERVICE_H

#include "service/SFService.h"

class ModemService : public SFService {
public:
    explicit ModemService(ContextWrapper* context);
    ~ModemService() override;

    int OnHandleRequest(SFMessage* msg) override;
    SFRespData* DoRequest(SFMessage* msg, void* service) override;
};

#endif
