#ifndef VORN_CONFIG_CONFIGMANAGER_H
#define VORN_CONFIG_CONFIGMANAGER_H

#include <string>
#include <vector>

#include "config/CommonConfig.h"
#include "config/ServiceId.h"
#include "config/cmd_info.h"
#include "core/VornExport.h"

namespace neb {
class CJsonObject;
}
typedef neb::CJsonObject JsonParser;

// The three service records: built-in defaults, overlaid once by the JSON file.
class VORN_EXPORT ConfigManager {
public:
    ConfigManager();
    ~ConfigManager();

    bool IsSupport(ServiceId id);
    std::string GetLibPath(ServiceId id);
    int GetDftTimeout(ServiceId id);
    std::vector<cmd_info>* GetWhiteList(ServiceId id);
    CommonConfig* GetConfig(ServiceId id);

    // Overlays the file (an empty path means "/vendor/etc/vorn.json"); false when it cannot be
    // opened or is not JSON, and then nothing is changed.
    bool ParseJSONDoc(std::string path);
    void ParseWhiteList(JsonParser& array, std::vector<cmd_info>& list, unsigned int dftTimeout,
                        std::string dftFunc);

    std::vector<CommonConfig> m_configs;
};

#endif
