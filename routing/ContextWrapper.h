#ifndef VORN_ROUTING_CONTEXTWRAPPER_H
#define VORN_ROUTING_CONTEXTWRAPPER_H

#include <cstddef>

#include "core/VornExport.h"
#include "core/sf_response.h"

class CmdIOService;
class ConfigManager;
class SFService;

// The process-wide glue between the command I/O service, the configuration and the services.
class VORN_EXPORT ContextWrapper {
public:
    static ContextWrapper* Initialize(CmdIOService* cmdio, ConfigManager* cfg);

    ContextWrapper(CmdIOService* cmdio, ConfigManager* cfg);
    virtual ~ContextWrapper();
    virtual int Start();

    static int CmdIOCallback(const char* data, int len, void* user);
    int SendMessage(const char* data, int len);
    int SendInternalMessage(const char* data, int len);
    void AddAvailableService(int serviceId, SFService* service);
    int SendResponse(const sf_response* resp);

    // The instance that Initialize hands out is, once deleted, rebuilt in place as a wrapper
    // without collaborators (Start and SendResponse refuse with 1001), since a later Initialize
    // returns it again. Any other wrapper is freed as usual.
    static void* operator new(std::size_t size);
    static void operator delete(void* object) noexcept;

    // The configuration file the constructor reads; "/vendor/etc/vorn.json" unless a host (or
    // a test) names another before Initialize.
    static void SetConfigFilePath(const char* path);
    static const char* GetConfigFilePath();

    CmdIOService* m_pCmdIOService;
    ConfigManager* m_pCfgMgr;

private:
    ContextWrapper();  // without collaborators, silently: what a deleted instance becomes
};

#endif
