#ifndef VORN_ROUTING_SFSERVICEMANAGER_H
#define VORN_ROUTING_SFSERVICEMANAGER_H

#include <map>

#include "core/SFData.h"
#include "core/VornExport.h"
#include "core/sf_response.h"

class ContextWrapper;
class SFService;

// The registry of services: owns them, finds the owner of a command, carries replies out.
class VORN_EXPORT SFServiceManager {
public:
    static void Initialize(ContextWrapper* context);
    static SFServiceManager* GetServiceManager();
    static void Release();

    explicit SFServiceManager(ContextWrapper* context);
    virtual ~SFServiceManager();

    void AddService(int serviceId, SFService* service);
    SFService* GetService(int serviceId);
    SFService* GetService(const char* command, int len);
    bool HandleRequest(const char* command, int len);
    bool HandleResponse(sf_response* resp);
    bool CheckCommand(const char* command, int len);
    bool SendInteralMessage(SFData* data, sf_response* resp, bool flag);

    ContextWrapper* m_pContext;
    std::map<int, SFService*> m_services;
};

extern VORN_EXPORT SFServiceManager* g_pServiceMgr;

#endif
