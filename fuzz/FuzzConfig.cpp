// Fuzzes the configuration reader: the input is written to a file and read by
// ConfigManager::ParseJSONDoc, and the same text is walked with every node operation of the
// JSON class. A file that is refused must leave the built-in records as they were; a file that
// is read may change them, but never add, remove or rename a service.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "config/ConfigManager.h"
#include "platform/CJsonObject.h"
#include "platform/LogMessage.h"

namespace {

std::string g_path;
std::vector<std::string> g_defaults;  // ToString of each built-in record

void Check(bool condition) {
    if (!condition) __builtin_trap();
}

// Visits a node the way the reader does: keys, members, elements and typed reads.
void Walk(neb::CJsonObject& node, int depth) {
    if (depth > 64) return;
    std::string s;
    int i = 0;
    unsigned u = 0;
    bool b = false;
    std::string key;
    int members = 0;
    while (node.GetKey(key)) {
        ++members;
        node.Get(key, s);
        node.Get(key, i);
        node.Get(key, u);
        node.Get(key, b);
        (void)node(key);
        Walk(node[key], depth + 1);
    }
    // A finished round starts again from the first member.
    Check(node.GetKey(key) == (members > 0));
    node.ResetKey();
    const int size = node.GetArraySize();
    Check(size >= 0);
    for (int k = 0; k < size && k < 256; ++k) {
        node.Get(k, s);
        (void)node(static_cast<unsigned>(k));
        Walk(node[static_cast<unsigned>(k)], depth + 1);
    }
    (void)node.IsEmpty();
    (void)node.IsArray();
    (void)node[std::string("no such member")].GetArraySize();
    (void)node[static_cast<unsigned>(size) + 1].ToString();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    LogMessage::SetCaptureHook(
        [](int, const std::string&, const std::string&, const std::string&) {});
    const char* dir = std::getenv("TMPDIR");
    std::string tmpl = std::string(dir && *dir ? dir : "/tmp") + "/vorn_fuzz_config_XXXXXX";
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    const int fd = mkstemp(name.data());
    if (fd < 0) std::abort();
    close(fd);
    g_path = name.data();
    ConfigManager defaults;
    for (auto& c : defaults.m_configs) g_defaults.push_back(c.ToString());
    // A file that is not there changes nothing.
    ConfigManager missing;
    Check(!missing.ParseJSONDoc(g_path + ".missing"));
    std::atexit([] { unlink(g_path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* f = std::fopen(g_path.c_str(), "wb");
    if (!f) std::abort();
    if (size) std::fwrite(data, 1, size, f);
    std::fclose(f);

    ConfigManager config;
    const bool parsed = config.ParseJSONDoc(g_path);
    Check(config.m_configs.size() == 3);
    static const char* const names[] = {"misc", "sensor", "modem"};
    for (int k = 0; k < 3; ++k) {
        CommonConfig& c = config.m_configs[static_cast<size_t>(k)];
        Check(c.m_nServiceId == static_cast<ServiceId>(k + 1));
        Check(c.m_strName == names[k]);
        if (!parsed) Check(c.ToString() == g_defaults[static_cast<size_t>(k)]);
        // The queries agree with the records.
        const ServiceId id = static_cast<ServiceId>(k + 1);
        std::vector<cmd_info>* list = config.GetWhiteList(id);
        Check(list && list->size() == c.m_whiteList.size());
        Check(config.GetDftTimeout(id) == c.m_nTimeout);
        Check(config.IsSupport(id) == c.m_bSupport);
        Check(config.GetLibPath(id) == c.m_strLibPath);
        Check(!c.m_strLibPath.empty());  // an empty "libpath" never replaces the path
    }

    const std::string text(reinterpret_cast<const char*>(data), size);
    neb::CJsonObject root;
    if (root.Parse(text)) {
        neb::CJsonObject copy(root);
        Walk(root, 0);
        neb::CJsonObject assigned;
        assigned = copy;
        Walk(assigned, 0);
        Check(copy.ToString() == root.ToString());
    }
    return 0;
}
