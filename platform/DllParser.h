#ifndef VORN_PLATFORM_DLLPARSER_H
#define VORN_PLATFORM_DLLPARSER_H

#include <memory>
#include <string>

#include "core/VornExport.h"

// Loads one shared library and looks its functions up by name (dlopen/dlsym/dlclose).
//
// The library handle is shared: a caller that is about to call into the library takes a
// reference with Pin(), so that UnLoad() (or deleting the parser) while a call is blocked in
// the library never unmaps code that a thread will return into.
//
// Internal: not exported, except the two lookups that SFService::ExcecuteFunc, a template a
// host's service may instantiate, calls from the host's own code.
class DllParser {
public:
    DllParser();
    virtual ~DllParser();
    DllParser(const DllParser&) = delete;
    DllParser& operator=(const DllParser&) = delete;

    // true when loaded. A second Load replaces the first library.
    bool Load(const std::string& path);
    // The symbol's address, or null when absent or nothing is loaded.
    VORN_EXPORT void* GetFunction(const std::string& name) const;
    void UnLoad();
    bool IsLoaded() const;
    // Keeps the library mapped for as long as the returned reference lives.
    VORN_EXPORT std::shared_ptr<void> Pin() const;

    void SetTag(const std::string& tag) { m_strTag = tag; }
    const std::string& GetTag() const { return m_strTag; }

private:
    std::string m_strTag;
    std::shared_ptr<void> m_handle;
};

#endif
