// The command table, command intake, response data and internal requests.
#include <cstring>
#include <memory>
#include <string>

#include "config/ConfigManager.h"
#include "core/ErrorCode.h"
#include "io/SFCommandParser.h"
#include "platform/LogMessage.h"
#include "routing/ContextWrapper.h"
#include "routing/SFServiceManager.h"
#include "service/HalHost.h"
#include "service/SFService.h"
#include "service/ServiceCore.h"

namespace {
constexpr size_t kNameField = sizeof(cmd_entry::command);  // 128, terminator included

const cmd_entry* FindRow(const std::list<cmd_entry*>& rows, const std::string& header) {
    for (const cmd_entry* row : rows)
        if (header == row->command) return row;
    return nullptr;
}
}  // namespace

void SFService::insert(DataDirection direction, int timeout, const char* command,
                       SFRespData* (*handler)(SFMessage*, void*), void* soFunc,
                       const char* soFuncName, bool needSoFunc) {
    const char* name = command ? command : "";
    if (!soFunc && needSoFunc) {
        LogMessage(4, "VORN", "insert").stream()
            << m_strServiceName << "command(" << name << ") intert fail!!!";
        return;
    }
    // A name that does not fit its 128-byte field is refused rather than cut: a cut name
    // would answer for a different command.
    const bool hasCommand = name[0] != '\0';
    if (strlen(name) >= kNameField ||
        (hasCommand && soFuncName && strlen(soFuncName) >= kNameField)) {
        LogMessage(4, "VORN", "insert").stream()
            << m_strServiceName << "command(" << std::string(name, strnlen(name, 64))
            << "...) refused: a command or function name must be shorter than " << kNameField
            << " bytes";
        return;
    }
    auto* row = new cmd_entry();
    if (hasCommand) std::memcpy(row->command, name, strlen(name) + 1);
    row->direction = direction;
    row->timeout = timeout;
    row->handler = handler;
    row->soFunc = soFunc;
    // The test is on the command's length, not the function name's: kept as designed.
    if (soFuncName && hasCommand) std::memcpy(row->soFuncName, soFuncName, strlen(soFuncName) + 1);
    m_cmdList.push_back(row);
    SFCommandParser::AddVendorCmd(row->command, m_nServiceId);
}

void SFService::insertCmd(ServiceId id) {
    ConfigManager* cfg = GetConfigManager();
    if (!cfg || !cfg->IsSupport(id)) return;
    // HAL isolation: the library is loaded by the service's HAL host, never in this process;
    // a row of a function that the host exports gets a stand-in address (HalHost.h).
    const std::shared_ptr<HalHost> host = HalHost::Start(m_strServiceName, cfg->GetLibPath(id));
    Core()->SetHalHost(host);
    if (!host) m_pDllParser->Load(cfg->GetLibPath(id));
    std::vector<cmd_info>* list = cfg->GetWhiteList(id);
    if (!list) return;
    for (const cmd_info& entry : *list) {
        void* soFunc = !host                          ? m_pDllParser->GetFunction(entry.func)
                       : host->IsExported(entry.func) ? HalHost::ExportedToken()
                                                      : nullptr;
        insert(DATA_REQUEST, static_cast<int>(entry.timeout), entry.command.c_str(), nullptr,
               soFunc, entry.func.c_str(), true);
    }
}

bool SFService::OnHandleCommand(const char* command, int len) {
    if (!command || len == 0) {
        LogMessage(4, "VORN", "OnHandleCommand").stream()
            << m_strServiceName << "Empty command to handle nothing!!!";
        return false;
    }
    if (LogMessage::IsOn(1))
        LogMessage(1, "VORN", "OnHandleCommand").stream() << "Begin<<<<<<<<<<<<<<<<<";
    // The vendor form of a command with "=" is as long as the command, so one that cannot fit
    // the scratch buffer has no row to match: a cut parameter would reach the HAL. Without "="
    // the vendor form is the header alone, which fits however long the query behind it.
    int vendorLen = 0;
    std::memset(m_pVendorCmdBuf, 0, sizeof(sf_response::text));
    const long equals = SFCommandParser::FindEqualSymbol(command);
    const bool fits = len < static_cast<int>(sizeof(sf_response::text)) || equals < 0 ||
                      equals >= static_cast<long>(len);
    if (len > 0 && fits)
        SFCommandParser::ProductCmd2VendorCmd(command, len, m_pVendorCmdBuf, vendorLen);
    std::string vendor(m_pVendorCmdBuf);
    std::string header;
    SFCommandParser::GetCommandHeader(vendor, header);
    const cmd_entry* row = FindRow(m_cmdList, header);
    if (!row) {
        LogMessage(4, "VORN", "OnHandleCommand").stream()
            << m_strServiceName << "Unsupport command(" << header << ")!!!";
        return false;
    }
    auto* msg =
        new SFMessage(MSG_REQUEST, row->soFunc, row->soFuncName, row->timeout,
                      new SFData(command, static_cast<unsigned>(len), row->direction), nullptr);
    msg->SetVendorCommandData(
        new SFData(m_pVendorCmdBuf, static_cast<unsigned>(vendorLen), row->direction));
    EnQueue(msg);
    if (LogMessage::IsOn(1))
        LogMessage(1, "VORN", "OnHandleCommand").stream() << "End>>>>>>>>>>>>>>>>>>";
    return true;
}

SFRespData* SFService::ConvertPCBAResponse(SFMessage* /*msg*/, int result, const char* data,
                                           int len) {
    int code = result;
    if (static_cast<unsigned>(result) > 1010u) code = 1001;
    if (len == 0 && code != 0) {
        char text[256] = {0};
        GetStringByErrCode(code, text);
        return new SFRespData(code, text, static_cast<unsigned>(strnlen(text, sizeof text)),
                              DATA_RESPONSE);
    }
    return new SFRespData(code, data, static_cast<unsigned>(len < 0 ? 0 : len), DATA_RESPONSE);
}

bool SFService::CheckDeviceCommand(SFMessage* msg) {
    if (!msg) {
        LogMessage(4, "VORN", "CheckDeviceCommand").stream() << "message is empty!!!";
        return false;
    }
    SFData* device = msg->GetDeviceCommandData();
    if (!device) {
        LogMessage(4, "VORN", "CheckDeviceCommand").stream() << "Device COMMAND is empty!!!";
        return false;
    }
    if (!device->data) {
        LogMessage(4, "VORN", "CheckDeviceCommand").stream() << "COMMAND data is empty!!!";
        return false;
    }
    return true;
}

bool SFService::isSupport() { return true; }

bool SFService::isSupport(int serviceId) {
    SFServiceManager* manager = SFServiceManager::GetServiceManager();
    if (!manager) {
        LogMessage(4, "VORN", "isSupport").stream() << "pServiceMgr is nullptr!!!";
        return false;
    }
    SFService* other = manager->GetService(serviceId);
    return other ? other->isSupport() : false;
}

const char* SFService::ConvertServiceName(int serviceId) {
    switch (serviceId) {
        case MISC_SERVICE:
            return "MISC_SERVICE";
        case SENSOR_SERVICE:
            return "SENSOR_SERVICE";
        case MODEM_SERVICE:
            return "MODEM_SERVICE";
        default:
            return "UNKNOWN_SERVICE";
    }
}

ConfigManager* SFService::GetConfigManager() {
    return m_pContext ? m_pContext->m_pCfgMgr : nullptr;
}

bool SFService::SendInternalMessage(SFData* data, sf_response* resp, bool flag) {
    SFServiceManager* manager = SFServiceManager::GetServiceManager();
    if (!manager) {
        LogMessage(4, "VORN", "SendInternalMessage").stream() << "pServiceMgr is nullptr!!!";
        return false;
    }
    return manager->SendInteralMessage(data, resp, flag);
}

bool SFService::HandleInternalRequest(SFData* data, sf_response* resp, bool /*flag*/) {
    if (!data || !resp) return true;
    std::unique_ptr<SFMessage> msg(
        new SFMessage(MSG_REQUEST, nullptr, nullptr, 15, nullptr, nullptr));
    msg->SetRequestData(data->Clone());
    msg->SetVendorCommandData(data->Clone());
    OnHandleRequest(msg.get());
    std::string text = data->data ? std::string(data->data, data->length) : "";
    std::string header;
    SFCommandParser::GetCommandHeader(text, header);
    const cmd_entry* row = FindRow(m_cmdList, header);
    if (!row) return true;
    msg->SetSoFunc(row->soFunc);
    if (!row->handler) {
        // Only rows with a built-in handler serve internal requests.
        LogMessage(4, "VORN", "HandleInternalRequest").stream()
            << m_strServiceName << "command(" << header << ") has no built-in handler";
        return true;
    }
    std::unique_ptr<SFRespData> answer(row->handler(msg.get(), this));
    if (!answer) {
        LogMessage(1, "VORN", "HandleInternalRequest").stream() << "data is empty";
        return true;
    }
    uint32_t length = answer->length;
    if (length > sizeof resp->text) {
        LogMessage(3, "VORN", "HandleInternalRequest").stream()
            << m_strServiceName << "answer of " << length << " bytes cut to " << sizeof resp->text;
        length = sizeof resp->text;
    }
    resp->length = length;
    if (length) std::memcpy(resp->text, answer->data, length);
    DUMPLOG("VORN", "HandleInternalRequest", resp->text, resp->length);
    return true;
}
