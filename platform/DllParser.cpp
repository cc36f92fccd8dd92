#include "platform/DllParser.h"

#include <dlfcn.h>

#include "platform/LogMessage.h"

DllParser::DllParser() : m_strTag("DllParser") {}

DllParser::~DllParser() { UnLoad(); }

bool DllParser::Load(const std::string& path) {
    UnLoad();
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* why = dlerror();
        LogMessage(4, m_strTag.c_str(), "Load").stream()
            << "dlopen(" << path << ") fail: " << (why ? why : "unknown");
        return false;
    }
    m_handle = std::shared_ptr<void>(handle, [](void* h) { dlclose(h); });
    LogMessage(2, m_strTag.c_str(), "Load").stream() << "loaded " << path;
    return true;
}

void* DllParser::GetFunction(const std::string& name) const {
    if (!m_handle || name.empty()) return nullptr;
    return dlsym(m_handle.get(), name.c_str());
}

void DllParser::UnLoad() { m_handle.reset(); }

bool DllParser::IsLoaded() const { return static_cast<bool>(m_handle); }

std::shared_ptr<void> DllParser::Pin() const { return m_handle; }
