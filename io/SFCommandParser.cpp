#include "io/SFCommandParser.h"

#include <cstring>
#include <deque>
#include <functional>
#include <map>

#include "platform/LogMessage.h"

namespace {
// Command text address -> service id. Keys are the addresses of texts that live as long as the
// table (the rows of the services' command tables), ordered by address, so equal texts at two
// addresses are two entries. Written while the services are built, read without a lock after.
typedef std::map<const char*, int, std::less<const char*>> VendorCmdTable;

VendorCmdTable g_vendorCmdTable;
// Copies of the texts registered through the std::string form, so that their keys stay alive
// as long as the table does.
std::deque<std::string> g_internedCmds;
// The one way to the table; null once Release has run, and every operation then does nothing.
VendorCmdTable* g_pVendorCmdTable = &g_vendorCmdTable;

// The services hand ProductCmd2VendorCmd a buffer of this size; the converted command (and its
// terminator) is kept within it.
const size_t kVendorCmdCapacity = 3172;

long FindSymbol(char const* text, char symbol) {
    if (text == nullptr) return -1;
    const char* at = strchr(text, symbol);
    return at ? static_cast<long>(at - text) : -1;
}
}  // namespace

void SFCommandParser::AddVendorCmd(char const* command, int serviceId) {
    if (g_pVendorCmdTable == nullptr || command == nullptr) return;
    g_pVendorCmdTable->insert(std::make_pair(command, serviceId));
}

// A key taken from the argument itself would die with the call; the text is copied into the
// table's own storage instead, so the entry can be looked up like any other.
void SFCommandParser::AddVendorCmd(std::string command, int serviceId) {
    if (g_pVendorCmdTable == nullptr) return;
    g_internedCmds.push_back(std::move(command));
    g_pVendorCmdTable->insert(std::make_pair(g_internedCmds.back().c_str(), serviceId));
}

void SFCommandParser::DumpVendorCmd() {
    if (g_pVendorCmdTable == nullptr) return;
    for (const auto& entry : *g_pVendorCmdTable)
        LogMessage(1, "VORN", "DumpVendorCmd").stream() << "vendor command(" << entry.first << ")";
}

void SFCommandParser::Release() {
    if (g_pVendorCmdTable == nullptr) return;
    g_pVendorCmdTable->clear();
    g_internedCmds.clear();
    g_pVendorCmdTable = nullptr;
}

// "=" takes precedence over "?" wherever each stands; line ends stay in the header.
void SFCommandParser::GetCommandHeader(std::string& command, std::string& header) {
    if (command.empty()) {
        header = command;
        return;
    }
    size_t p = command.find('=');
    if (p == std::string::npos) p = command.find('?');
    header = (p == std::string::npos) ? command : command.substr(0, p);
}

namespace {
// The table entry whose text equals the command's header, found without copying the command:
// the header ends at the first "=", else at the first "?", else with the text.
const std::pair<char const* const, int>* FindEntry(char const* command) {
    const char* end = strchr(command, '=');
    if (!end) end = strchr(command, '?');
    const size_t headerLength = end ? static_cast<size_t>(end - command) : strlen(command);
    if (headerLength == 0) return nullptr;
    for (const auto& entry : *g_pVendorCmdTable)
        if (strncmp(entry.first, command, headerLength) == 0 && entry.first[headerLength] == '\0')
            return &entry;
    return nullptr;
}
}  // namespace

// The length is only tested for 0: the header is taken from the whole zero-terminated text.
char const* SFCommandParser::FindVendorCmd(char const* command, int length) {
    if (command == nullptr || length == 0 || g_pVendorCmdTable == nullptr) return nullptr;
    const auto* entry = FindEntry(command);
    return entry ? entry->first : nullptr;
}

// The first entry in table order with the header's text is also the first whose text equals
// the key found, so one walk gives the id.
int SFCommandParser::GetServiceIdByVendorCmd(char const* command, int length) {
    if (command == nullptr || length == 0 || g_pVendorCmdTable == nullptr) return -1;
    const auto* entry = FindEntry(command);
    if (entry == nullptr) {
        LogMessage(4, "VORN", "GetServiceIdByVendorCmd").stream()
            << "unsupported vendor command("
            << EscapedText{command, length > 0 ? strnlen(command, static_cast<size_t>(length))
                                               : strlen(command)}
            << ") in vendor list table";
        return -1;
    }
    return entry->second;
}

// "JXT+GSENSOR=1,2" keeps everything from the "=" on; a query suffix without "=" is dropped.
// An unregistered command gives false and leaves the output alone; a result that would not fit
// the services' buffer is cut at its last byte.
bool SFCommandParser::ProductCmd2VendorCmd(char const* command, int length, char* output,
                                           int& outputLength) {
    char const* key = FindVendorCmd(command, length);
    if (key == nullptr || output == nullptr) return false;
    size_t keyLength = strlen(key);
    long p = FindEqualSymbol(command);
    size_t tail = (p >= 0 && length > p) ? static_cast<size_t>(length - p) : 0;
    size_t total = keyLength + tail;
    if (total > kVendorCmdCapacity - 1) {
        LogMessage(4, "VORN", "ProductCmd2VendorCmd").stream()
            << "vendor command of " << total << " bytes cut to " << kVendorCmdCapacity - 1;
        total = kVendorCmdCapacity - 1;
    }
    memset(output, 0, total + 1);
    size_t head = keyLength < total ? keyLength : total;
    memcpy(output, key, head);
    if (total > head) memcpy(output + head, command + p, total - head);
    outputLength = static_cast<int>(total);
    return true;
}

long SFCommandParser::FindEqualSymbol(char const* text) { return FindSymbol(text, '='); }

long SFCommandParser::FindPlusSymbol(char const* text) { return FindSymbol(text, '+'); }

long SFCommandParser::FindColonSymbol(char const* text) { return FindSymbol(text, ':'); }

bool SFCommandParser::GetCommandParamer(char const* command, std::string& parameter) {
    long p = FindEqualSymbol(command);
    if (p < 0) return false;
    parameter = command + p + 1;
    return true;
}

bool SFCommandParser::GetCommandParamer(char const* command, char** parameter) {
    long p = FindEqualSymbol(command);
    if (p < 0 || parameter == nullptr) return false;
    *parameter = const_cast<char*>(command + p + 1);
    return true;
}

bool SFCommandParser::RemoveEnterSymbol(std::string& text) {
    while (!text.empty() && (text.back() == '\r' || text.back() == '\n')) text.pop_back();
    return true;
}

// Deliberately trims nothing and only reports whether there is text: existing callers rely on
// it. Callers that need trimming use the std::string form.
bool SFCommandParser::RemoveEnterSymbol(char* text) { return text != nullptr && text[0] != '\0'; }
