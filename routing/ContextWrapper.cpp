#include "routing/ContextWrapper.h"

#include <mutex>
#include <new>
#include <string>

#include "config/ConfigManager.h"
#include "io/CmdIOService.h"
#include "platform/LogMessage.h"
#include "routing/SFServiceManager.h"
#include "routing/ServiceManagerLock.h"

namespace {
ContextWrapper* g_pContextWrapper = nullptr;  // start-up and shut-down only, on one thread
std::string g_configFilePath = "/vendor/etc/vorn.json";
}  // namespace

void ContextWrapper::SetConfigFilePath(const char* path) {
    g_configFilePath = path ? path : "/vendor/etc/vorn.json";
}

const char* ContextWrapper::GetConfigFilePath() { return g_configFilePath.c_str(); }

ContextWrapper* ContextWrapper::Initialize(CmdIOService* cmdio, ConfigManager* cfg) {
    if (g_pContextWrapper) return g_pContextWrapper;
    g_pContextWrapper = new ContextWrapper(cmdio, cfg);
    return g_pContextWrapper;
}

ContextWrapper::ContextWrapper(CmdIOService* cmdio, ConfigManager* cfg)
    : m_pCmdIOService(nullptr), m_pCfgMgr(nullptr) {
    if (!cmdio || !cfg) {
        LogMessage(4, "VORN", "ContextWrapper").stream() << "m_pCmdIOService or pCfgMgr is null";
        return;
    }
    m_pCmdIOService = cmdio;
    m_pCfgMgr = cfg;
    // The file only overlays the built-in defaults; whatever it holds, start-up goes on.
    cfg->ParseJSONDoc(g_configFilePath);
    cmdio->CmdIOCallback(&ContextWrapper::CmdIOCallback, this);
    SFServiceManager::Initialize(this);
}

// The command I/O service is not the wrapper's: the host may have deleted it already, so it is
// not touched here. The static instance stays as it is; a later Initialize returns it.
ContextWrapper::~ContextWrapper() {
    SFServiceManager::Release();
    // A command under way finishes first; any later one finds no collaborators and no manager.
    std::unique_lock<std::shared_mutex> lock(ServiceManagerLifetimeLock());
    m_pCmdIOService = nullptr;
    m_pCfgMgr = nullptr;
}

void* ContextWrapper::operator new(std::size_t size) { return ::operator new(size); }

ContextWrapper::ContextWrapper() : m_pCmdIOService(nullptr), m_pCfgMgr(nullptr) {}

void ContextWrapper::operator delete(void* object) noexcept {
    if (object == g_pContextWrapper) {
        ::new (object) ContextWrapper();  // handed out again by Initialize: a live object
        return;
    }
    ::operator delete(object);
}

int ContextWrapper::Start() {
    if (!m_pCmdIOService) {
        LogMessage(4, "VORN", "Start").stream() << "m_pCmdIOService is null";
        return 1001;
    }
    return m_pCmdIOService->CmdIOStart();
}

int ContextWrapper::CmdIOCallback(const char* data, int len, void* user) {
    if (!user) return 1001;
    return static_cast<ContextWrapper*>(user)->SendMessage(data, len);
}

namespace {
// SendInternalMessage past its argument check, with the lifetime lock held shared by the caller.
int RouteCommand(const char* data, int len) {
    SFServiceManager* manager = SFServiceManager::GetServiceManager();
    if (!manager) {
        LogMessage(4, "VORN", "SendInternalMessage").stream() << "service manger is null!!!";
        return 1001;
    }
    if (manager->HandleRequest(data, len)) return 0;
    LogMessage(4, "VORN", "SendInternalMessage").stream() << "Handle Command ERROR!!!";
    return 1001;
}
}  // namespace

int ContextWrapper::SendMessage(const char* data, int len) {
    if (!data || len == 0) {
        LogMessage(4, "VORN", "SendMessage").stream() << "RequestService is null";
        return 1008;
    }
    // Held through the error reply too: the destructor clears the collaborators under it.
    std::shared_lock<std::shared_mutex> lock(ServiceManagerLifetimeLock());
    const int rc = RouteCommand(data, len);
    if (rc == 0) return 0;
    if (m_pCmdIOService) m_pCmdIOService->ErrorResponse(data, static_cast<unsigned>(len), rc);
    return rc;
}

int ContextWrapper::SendInternalMessage(const char* data, int len) {
    if (!data || len == 0) {
        LogMessage(4, "VORN", "SendInternalMessage").stream() << "Input buffer is null";
        return 1008;
    }
    std::shared_lock<std::shared_mutex> lock(ServiceManagerLifetimeLock());
    return RouteCommand(data, len);
}

void ContextWrapper::AddAvailableService(int serviceId, SFService* service) {
    SFServiceManager* manager = SFServiceManager::GetServiceManager();
    if (manager && service) manager->AddService(serviceId, service);
}

int ContextWrapper::SendResponse(const sf_response* resp) {
    if (!m_pCmdIOService) {
        LogMessage(4, "VORN", "SendResponse").stream() << "m_pCmdIOService is null";
        return 1001;
    }
    m_pCmdIOService->SendResponse(resp->direction, resp->text, resp->length);
    return 0;
}
