#ifndef VORN_SERVICES_MISCSERVICE_H
#define VORN_SERVICES_MISCSERVICE_H

#include "core/VornExport.h"
#include "service/SFService.h"

class VORN_EXPORT MiscService : public SFService {
public:
    explicit MiscService(ContextWrapper* context);
    ~MiscService() override;

    int OnHandleRequest(SFMessage* msg) override;
    SFRespData* DoRequest(SFMessage* msg, void* service) override;

    // "JXT": an empty success, at once.
    static SFRespData* DoTestRequest(SFMessage* msg, void* service);
    // "JXT+TIMEOUT": never returns; only the request timeout answers it.
    static SFRespData* DoTIMEOUTRequest(SFMessage* msg, void* service);
};

#endif
