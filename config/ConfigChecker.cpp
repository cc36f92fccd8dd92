#include "config/ConfigChecker.h"

#include <errno.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "config/ConfigManager.h"
#include "config/ConfigSchema.h"
#include "platform/CJsonObject.h"
#include "platform/DllParser.h"

namespace {

const char* Expected(ConfigValueType type) {
    switch (type) {
        case CONFIG_OBJECT:
            return "an object";
        case CONFIG_STRING:
            return "a string";
        case CONFIG_INTEGER:
            return "a whole number";
        case CONFIG_UNSIGNED:
            return "a whole number from 0";
        case CONFIG_BOOLEAN:
            return "true or false";
        case CONFIG_ARRAY:
            return "an array";
        case CONFIG_STRING_ARRAY:
            return "an array of strings";
    }
    return "";
}

// "a string", "the number 1.5", "null"... for the message; the value itself only for numbers,
// which are short, so a line never quotes more of the file than it needs.
std::string Found(const neb::CJsonObject& node) {
    const std::string kind = node.Kind();
    if (kind == "number") return "the number " + node.ToString();
    if (kind == "null") return "null";
    if (kind == "array" || kind == "object") return "an " + kind;
    return "a " + kind;
}

// Whether the reader would take the member: the same typed reads it makes.
bool Accepts(neb::CJsonObject& parent, const std::string& key, ConfigValueType type) {
    switch (type) {
        case CONFIG_OBJECT:
            return parent[key].IsObject();
        case CONFIG_STRING: {
            std::string value;
            return parent.Get(key, value);
        }
        case CONFIG_INTEGER: {
            int value;
            return parent.Get(key, value);
        }
        case CONFIG_UNSIGNED: {
            unsigned int value;
            return parent.Get(key, value);
        }
        case CONFIG_BOOLEAN: {
            bool value;
            return parent.Get(key, value);
        }
        case CONFIG_ARRAY:
            return parent[key].IsArray();
        case CONFIG_STRING_ARRAY: {
            neb::CJsonObject& array = parent[key];
            if (!array.IsArray()) return false;
            std::string value;
            for (int i = 0; i < array.GetArraySize(); ++i)
                if (!array.Get(i, value)) return false;
            return true;
        }
    }
    return false;
}

const ConfigMember* Find(const ConfigMember* table, int count, const std::string& key) {
    for (int i = 0; i < count; ++i)
        if (key == table[i].key) return &table[i];
    return nullptr;
}

class Walker {
public:
    explicit Walker(std::vector<std::string>& problems) : m_problems(problems) {}

    void Document(neb::CJsonObject& doc) {
        if (!doc.IsObject()) {
            Report("/",
                   "expected an object of services, found " + Found(doc) + "; nothing is applied");
            return;
        }
        std::string last;  // the service the reader would apply an unknown key to
        std::string key;
        while (doc.GetKey(key)) {
            const std::string path = "/" + key;
            if (key.empty()) {
                Report(path, "an empty key is skipped");
                continue;
            }
            bool known = false;
            for (const ConfigServiceKey& service : kConfigServiceKeys) known |= key == service.key;
            if (!known) {
                if (last.empty())
                    Report(path, "unknown service, ignored (services: misc, sensor, modem)");
                else
                    Report(path, "unknown service; its members apply to \"" + last +
                                     "\", the service named before it");
            } else {
                last = key;
            }
            if (last.empty()) continue;
            if (!doc[key].IsObject()) {
                Report(path, "expected an object, found " + Found(doc[key]) + "; ignored");
                continue;
            }
            Service(doc[key], path);
        }
    }

private:
    void Service(neb::CJsonObject& service, const std::string& path) {
        std::string key;
        while (service.GetKey(key)) {
            const std::string member = path + "/" + key;
            const ConfigMember* m = Find(kConfigServiceMembers, CONFIG_SERVICE_MEMBER_COUNT, key);
            if (!m) {
                Report(member, "unknown member, ignored");
            } else if (!Accepts(service, key, m->type)) {
                Report(member, std::string("expected ") + Expected(m->type) + ", found " +
                                   Found(service[key]) + "; ignored");
            } else if (m == &kConfigServiceMembers[CONFIG_WHITELIST]) {
                WhiteList(service[key], member);
            }
        }
    }

    void WhiteList(neb::CJsonObject& list, const std::string& path) {
        for (int i = 0; i < list.GetArraySize(); ++i) {
            neb::CJsonObject& entry = list[static_cast<unsigned int>(i)];
            const std::string at = path + "/" + std::to_string(i);
            const std::string kind = entry.Kind();
            if (kind == "string") continue;
            if (kind != "object") {
                Report(at, "expected a command or an object, found " + Found(entry) +
                               "; the entry repeats the command before it");
                continue;
            }
            Entry(entry, at);
        }
    }

    void Entry(neb::CJsonObject& entry, const std::string& path) {
        bool any = false;
        bool names = false;
        std::string key;
        while (entry.GetKey(key)) {
            any = true;
            const std::string member = path + "/" + key;
            const ConfigMember* m = Find(kConfigEntryMembers, CONFIG_ENTRY_MEMBER_COUNT, key);
            if (!m) {
                Report(member, "unknown member, ignored");
                continue;
            }
            if (m == &kConfigEntryMembers[CONFIG_ENTRY_COMMAND] ||
                m == &kConfigEntryMembers[CONFIG_ENTRY_COMMANDS])
                names = true;
            if (!Accepts(entry, key, m->type))
                Report(member, std::string("expected ") + Expected(m->type) + ", found " +
                                   Found(entry[key]));
        }
        if (!any)
            Report(path, "an empty entry repeats the command before it");
        else if (!names)
            Report(path, "the entry names no \"command\" or \"commands\" and adds no command");
    }

    void Report(const std::string& path, const std::string& what) {
        m_problems.push_back(path + ": " + what);
    }

    std::vector<std::string>& m_problems;
};

// What the services would find at start-up: each library that a switched-on service binds
// must load, and must export every function its white list names.
void CheckHal(ConfigManager& cfg, std::vector<std::string>& problems) {
    for (const CommonConfig& record : cfg.m_configs) {
        if (!record.m_bSupport) continue;
        const std::string path = "/" + record.m_strName;
        DllParser hal;
        if (!hal.Load(record.m_strLibPath)) {
            problems.push_back(path + "/libpath: the HAL library \"" + record.m_strLibPath +
                               "\" does not load");
            continue;
        }
        for (const cmd_info& row : record.m_whiteList) {
            if (row.func.empty() || hal.GetFunction(row.func)) continue;
            problems.push_back(path + "/whitelist: \"" + row.command + "\": \"" +
                               record.m_strLibPath + "\" exports no function \"" + row.func + "\"");
        }
    }
}

}  // namespace

std::vector<std::string> ConfigChecker::Check(const std::string& path) {
    std::vector<std::string> problems;
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        problems.push_back(path + ": cannot be opened: " + strerror(errno));
        return problems;
    }
    std::stringstream text;
    text << file.rdbuf();
    file.close();
    neb::CJsonObject doc;
    if (!doc.Parse(text.str())) {
        problems.push_back(path + ": is not valid JSON");
        return problems;
    }
    Walker(problems).Document(doc);

    // The daemon's own reading, over the built-in configuration, gives what the services bind.
    ConfigManager cfg;
    if (!cfg.ParseJSONDoc(path)) {
        problems.push_back(path + ": the daemon's reader refused the file");
        return problems;
    }
    CheckHal(cfg, problems);
    return problems;
}
