#include "config/ConfigManager.h"

#include <fstream>
#include <sstream>

#include "config/ConfigSchema.h"
#include "platform/CJsonObject.h"
#include "platform/LogMessage.h"

namespace {
// The product's command vocabulary, built at library load.
const std::vector<cmd_info> g_miscWhiteList = {
    {"JXT", 0, ""},
    {"JXT+TIMEOUT", 0, ""},
    {"JXT+MEMORY", 0, "memory_check_cmd"},
};
const std::vector<cmd_info> g_sensorWhiteList = {
    {"JXT+GSENSOR", 0, "gsensor_operate_cmd"},
    {"JXT+GYRO", 0, "gyro_operate_cmd"},
    {"JXT+ASENSOR", 0, "accelerometer_operate_cmd"},
};
const std::vector<cmd_info> g_modemWhiteList = {
    {"JXT+CPVERSION", 0, ""},
    {"JXT+CPSLEEP", 0, ""},
};

const char kDefaultPath[] = "/vendor/etc/vorn.json";
const char kTag[] = "JSON-VORN";
const char kFunc[] = "ParseJSONDoc";

const char* Key(ConfigServiceMember member) { return kConfigServiceMembers[member].key; }
const char* Key(ConfigEntryMember member) { return kConfigEntryMembers[member].key; }
}  // namespace

ConfigManager::ConfigManager() {
    // Row time-outs are 0 (the request default) while the services' own default is 15: a
    // white list read from the file takes the service's value instead.
    m_configs.push_back(CommonConfig(MISC_SERVICE, "misc", 15, "", true, "libvorn_hal.so",
                                     std::vector<cmd_info>(g_miscWhiteList)));
    m_configs.push_back(CommonConfig(SENSOR_SERVICE, "sensor", 15, "", true, "libvorn_hal.so",
                                     std::vector<cmd_info>(g_sensorWhiteList)));
    m_configs.push_back(CommonConfig(MODEM_SERVICE, "modem", 15, "", true, "libvorn_hal.so",
                                     std::vector<cmd_info>(g_modemWhiteList)));
}

ConfigManager::~ConfigManager() {}

CommonConfig* ConfigManager::GetConfig(ServiceId id) {
    for (CommonConfig& c : m_configs)
        if (c.m_nServiceId == id) return &c;
    return nullptr;
}

bool ConfigManager::IsSupport(ServiceId id) {
    CommonConfig* c = GetConfig(id);
    return c ? c->m_bSupport : false;
}

std::string ConfigManager::GetLibPath(ServiceId id) {
    CommonConfig* c = GetConfig(id);
    return c ? c->m_strLibPath : std::string();
}

int ConfigManager::GetDftTimeout(ServiceId id) {
    CommonConfig* c = GetConfig(id);
    return c ? c->m_nTimeout : 0;
}

std::vector<cmd_info>* ConfigManager::GetWhiteList(ServiceId id) {
    CommonConfig* c = GetConfig(id);
    return c ? &c->m_whiteList : nullptr;
}

bool ConfigManager::ParseJSONDoc(std::string path) {
    if (path.empty()) path = kDefaultPath;
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        LogMessage(4, kTag, kFunc).stream() << "Json file" << path << "open error!!!";
        return false;
    }
    std::stringstream text;
    text << file.rdbuf();
    file.close();
    neb::CJsonObject doc;
    if (!doc.Parse(text.str())) {
        LogMessage(4, kTag, kFunc).stream() << "Json file" << path << "syntax error!!!";
        return false;
    }
    if (!doc.IsObject()) {
        LogMessage(3, kTag, kFunc).stream()
            << "Json file" << path << " holds no object at the top level; nothing applied";
    }
    // One service id for the whole document: an unknown key applies to the service named
    // last. Existing configuration files rely on it.
    int serviceId = 0;
    std::string key;
    while (doc.GetKey(key)) {
        if (key.empty()) {
            LogMessage(4, kTag, kFunc).stream() << "Key is empty~~~~~~~~~~~~~~~~~~~~~~";
            continue;
        }
        bool known = false;
        for (const ConfigServiceKey& service : kConfigServiceKeys) {
            if (key != service.key) continue;
            serviceId = service.id;
            known = true;
        }
        if (!known && serviceId == 0) continue;
        neb::CJsonObject& service = doc[key];
        for (CommonConfig& record : m_configs) {
            if (record.m_nServiceId != serviceId) continue;
            // Members are read by name in this fixed order, whatever their order in the file.
            const std::string lib = service(Key(CONFIG_LIBPATH));
            if (!lib.empty()) record.m_strLibPath = lib;
            service.Get(Key(CONFIG_DEFAULT_TIMEOUT), record.m_nTimeout);
            service.Get(Key(CONFIG_DEFAULT_FUNC), record.m_strFunc);
            service.Get(Key(CONFIG_SUPPORT), record.m_bSupport);
            ParseWhiteList(service[Key(CONFIG_WHITELIST)], record.m_whiteList,
                           static_cast<unsigned int>(record.m_nTimeout), record.m_strFunc);
        }
    }
    for (CommonConfig& record : m_configs)
        LogMessage(2, kTag, kFunc).stream() << "\n" << record.ToString();
    return true;
}

void ConfigManager::ParseWhiteList(JsonParser& array, std::vector<cmd_info>& list,
                                   unsigned int dftTimeout, std::string dftFunc) {
    const int n = array.GetArraySize();
    if (n == 0) return;  // an empty or missing list keeps the rows there are
    list.clear();
    // One scratch text for the whole array, never cleared: an element that names no command
    // repeats the last one. Kept so, as existing files were written against it.
    std::string scratch;
    for (int i = 0; i < n; ++i) {
        unsigned int timeout = dftTimeout;
        std::string func = dftFunc;
        std::vector<std::string> commands;
        std::string key;
        neb::CJsonObject& entry = array[static_cast<unsigned int>(i)];
        if (entry.GetKey(key)) {
            do {
                if (key == Key(CONFIG_ENTRY_TIMEOUT)) {
                    entry.Get(key, timeout);
                } else if (key == Key(CONFIG_ENTRY_FUNC)) {
                    entry.Get(key, func);
                } else if (key == Key(CONFIG_ENTRY_COMMANDS)) {
                    neb::CJsonObject& names = entry[key];
                    for (int j = 0; j < names.GetArraySize(); ++j) {
                        scratch = names(static_cast<unsigned int>(j));
                        commands.push_back(scratch);
                    }
                } else if (key == Key(CONFIG_ENTRY_COMMAND)) {
                    entry.Get(key, scratch);
                    commands.push_back(scratch);
                }
            } while (entry.GetKey(key));
            for (const std::string& command : commands) list.push_back({command, timeout, func});
        } else {
            array.Get(i, scratch);
            list.push_back({scratch, dftTimeout, dftFunc});
        }
    }
}
