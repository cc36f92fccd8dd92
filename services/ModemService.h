#ifndef VORN_SERVICES_MODEMSERVICE_H
#define VORN_SERVICES_MODEMSERVICE_H

#include "core/VornExport.h"
#include "service/SFService.h"

class VORN_EXPORT ModemService : public SFService {
public:
    explicit ModemService(ContextWrapper* context);
    ~ModemService() override;

    int OnHandleRequest(SFMessage* msg) override;
    SFRespData* DoRequest(SFMessage* msg, void* service) override;
};

#endif
