#include "config/CommonConfig.h"

#include <string>

// Defined values, so that a record printed before it is filled shows zeros, not garbage.
CommonConfig::CommonConfig()
    : m_nServiceId(static_cast<ServiceId>(0)), m_nTimeout(0), m_bSupport(false) {}

CommonConfig::CommonConfig(ServiceId id, std::string name, int timeout, std::string func,
                           bool support, std::string libPath, std::vector<cmd_info> whiteList)
    : m_nServiceId(id),
      m_strName(std::move(name)),
      m_nTimeout(timeout),
      m_strFunc(std::move(func)),
      m_bSupport(support),
      m_strLibPath(std::move(libPath)),
      m_whiteList(std::move(whiteList)) {}

CommonConfig::CommonConfig(const CommonConfig& other) = default;

CommonConfig& CommonConfig::operator=(const CommonConfig& other) {
    // The cached text stays the target's own until its next ToString.
    m_nServiceId = other.m_nServiceId;
    m_strName = other.m_strName;
    m_nTimeout = other.m_nTimeout;
    m_strFunc = other.m_strFunc;
    m_bSupport = other.m_bSupport;
    m_strLibPath = other.m_strLibPath;
    if (this != &other) m_whiteList = other.m_whiteList;
    return *this;
}

CommonConfig::~CommonConfig() {}

std::string CommonConfig::ToString() {
    // "configration" is the heading tools have always parsed.
    std::string text;
    text.reserve(256 + 64 * m_whiteList.size());
    text += "<<<<<<< name:" + m_strName;
    text += "\nCommon configration:\nModule<" + std::to_string(static_cast<int>(m_nServiceId));
    text += ">name<" + m_strName;
    text += ">timeout<" + std::to_string(m_nTimeout);
    text += ">function<" + m_strFunc;
    text += std::string(">support<") + (m_bSupport ? "1" : "0");
    text += ">libpath<" + m_strLibPath + ">\n";
    text += "whitelist:\n";
    for (const cmd_info& row : m_whiteList)
        text += "<" + row.command + ">,timeout<" + std::to_string(row.timeout) + ">,function<" +
                row.func + ">\n";
    text += ">>>>>>> name:" + m_strName;
    m_strText = text;
    return text;
}
