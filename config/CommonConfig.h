#ifndef VORN_CONFIG_COMMONCONFIG_H
#define VORN_CONFIG_COMMONCONFIG_H

#include <string>
#include <vector>

#include "config/ServiceId.h"
#include "config/cmd_info.h"
#include "core/VornExport.h"

// The configuration of one service.
class VORN_EXPORT CommonConfig {
public:
    CommonConfig();
    CommonConfig(ServiceId id, std::string name, int timeout, std::string func, bool support,
                 std::string libPath, std::vector<cmd_info> whiteList);
    CommonConfig(const CommonConfig& other);
    // Copies everything but the cached text, which the target keeps.
    CommonConfig& operator=(const CommonConfig& other);
    ~CommonConfig();

    // The record as text; also kept in m_strText.
    std::string ToString();

    ServiceId m_nServiceId;
    std::string m_strName;
    int m_nTimeout;
    std::string m_strFunc;
    bool m_bSupport;
    std::string m_strLibPath;
    std::vector<cmd_info> m_whiteList;
    std::string m_strText;
};

#endif
