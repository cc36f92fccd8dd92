#include "routing/SFServiceManager.h"

#include <cstring>
#include <mutex>
#include <string>

#include "io/SFCommandParser.h"
#include "platform/LogMessage.h"
#include "routing/ContextWrapper.h"
#include "routing/ServiceManagerLock.h"
#include "service/SFService.h"
#include "service/ServiceCore.h"

SFServiceManager* g_pServiceMgr = nullptr;

namespace {
// Nothing reads it; kept as the module's name.
const std::string g_strModuleName = "SFServiceManager";
}  // namespace

std::shared_mutex& ServiceManagerLifetimeLock() {
    static std::shared_mutex lock;
    return lock;
}

void SFServiceManager::Initialize(ContextWrapper* context) {
    if (!g_pServiceMgr) g_pServiceMgr = new SFServiceManager(context);
}

SFServiceManager* SFServiceManager::GetServiceManager() { return g_pServiceMgr; }

void SFServiceManager::Release() {
    std::unique_lock<std::shared_mutex> lock(ServiceManagerLifetimeLock());
    if (g_pServiceMgr) {
        delete g_pServiceMgr;
        g_pServiceMgr = nullptr;
    }
}

SFServiceManager::SFServiceManager(ContextWrapper* context) : m_pContext(context) {}

SFServiceManager::~SFServiceManager() {
    // Every service's threads are out of the engine's code before any destructor starts: a
    // handler still inside would otherwise see a host subclass's part destroyed under it.
    for (auto& entry : m_services)
        if (entry.second) entry.second->StopServiceThreads();
    for (auto& entry : m_services) {
        delete entry.second;
        entry.second = nullptr;
    }
    m_services.clear();
}

void SFServiceManager::AddService(int serviceId, SFService* service) {
    // A second service under a known id is neither stored nor deleted.
    m_services.emplace(serviceId, service);
    // Whoever registers a service has finished building it: its threads may start.
    if (service && service->Core()) service->Core()->MarkConstructed();
}

SFService* SFServiceManager::GetService(int serviceId) {
    auto it = m_services.find(serviceId);
    if (it == m_services.end()) {
        LogMessage(4, "VORN", "GetService").stream()
            << "Didn't find service by Service Id (" << serviceId << ")";
        return nullptr;
    }
    if (LogMessage::IsOn(1))
        LogMessage(1, "VORN", "GetService").stream()
            << "Find service(" << SFService::ConvertServiceName(serviceId) << ")";
    return it->second;
}

SFService* SFServiceManager::GetService(const char* command, int len) {
    if (!command) {
        LogMessage(4, "VORN", "GetService").stream() << "command is empty";
        return nullptr;
    }
    return GetService(SFCommandParser::GetServiceIdByVendorCmd(command, len));
}

bool SFServiceManager::HandleRequest(const char* command, int len) {
    if (!command || len == 0) {
        LogMessage(4, "VORN", "HandleRequest").stream() << "paramer ERROR";
        return false;
    }
    SFService* service = GetService(command, len);
    if (!service) {
        LogMessage(4, "VORN", "HandleRequest").stream() << "didn't find service";
        return false;
    }
    return service->OnHandleCommand(command, len);
}

bool SFServiceManager::HandleResponse(sf_response* resp) {
    if (m_pContext && m_pContext->SendResponse(resp) == 0) return true;
    LogMessage(4, "VORN", "HandleResponse").stream() << "ContextWrapper is null";
    return false;
}

bool SFServiceManager::CheckCommand(const char* command, int len) {
    if (GetService(command, len)) return true;
    LogMessage(4, "VORN", "CheckCommand").stream()
        << "Unsupported command["
        << EscapedText{command ? command : "",
                       command && len > 0 ? strnlen(command, static_cast<size_t>(len)) : 0}
        << "]";
    return false;
}

bool SFServiceManager::SendInteralMessage(SFData* data, sf_response* resp, bool flag) {
    SFService* service = data ? GetService(data->data, static_cast<int>(data->length)) : nullptr;
    if (!service) {
        LogMessage(4, "VORN", "SendInteralMessage").stream() << "Unknown service";
        return false;
    }
    return service->HandleInternalRequest(data, resp, flag);
}
