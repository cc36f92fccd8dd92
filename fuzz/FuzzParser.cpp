// Fuzzes the command parser: header, parameter and symbol operations on any text, and the
// product-to-vendor conversion of registered commands into a 3172-byte buffer, the size the
// services use. Every result is checked against what the operations promise.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "io/SFCommandParser.h"
#include "platform/LogMessage.h"

namespace {

const size_t kOutputSize = 3172;

struct Row {
    const char* text;
    int serviceId;
};

// Two rows share a text at different addresses, as two services listing one command would.
char g_gsensorA[] = "JXT+GSENSOR";
char g_gsensorB[] = "JXT+GSENSOR";
const Row g_rows[] = {
    {"JXT", 1},      {"JXT+MEMORY", 1},    {"JXT+TIMEOUT", 1}, {g_gsensorA, 2},  {g_gsensorB, 3},
    {"JXT+GYRO", 2}, {"JXT+CPVERSION", 3}, {"A?B", 1},         {"JXT+X\r\n", 2}, {"", 3},
};

void Check(bool condition) {
    if (!condition) __builtin_trap();
}

long IndexOf(const char* text, char c) {
    const char* p = std::strchr(text, c);
    return p ? p - text : -1;
}

const char kCopied[] = "JXT+COPY";
const int kCopiedId = 2;

// The id of the registered row that a lookup must find: among equal texts, the lowest address.
int ExpectedId(const char* header) {
    const Row* best = nullptr;
    for (const Row& r : g_rows)
        if (std::strcmp(r.text, header) == 0 &&
            (!best || std::less<const char*>()(r.text, best->text)))
            best = &r;
    if (best) return best->serviceId;
    return std::strcmp(header, kCopied) == 0 ? kCopiedId : -1;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Every line is formatted and handed to a hook that drops it: the formatting runs, the
    // output stays quiet.
    LogMessage::SetCaptureHook(
        [](int, const std::string&, const std::string&, const std::string&) {});
    for (const Row& r : g_rows) SFCommandParser::AddVendorCmd(r.text, r.serviceId);
    // The same address again keeps the first service id.
    SFCommandParser::AddVendorCmd(g_rows[0].text, 3);
    // The form that takes a string object; its text must stay usable after the call.
    SFCommandParser::AddVendorCmd(std::string(kCopied), kCopiedId);
    SFCommandParser::DumpVendorCmd();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size >= kOutputSize) return -1;
    // Commands reach the parser zero-terminated, like every receive buffer.
    std::vector<char> buffer(data, data + size);
    buffer.push_back('\0');
    char* text = buffer.data();
    const int length = static_cast<int>(size);
    const std::string asText(text);

    Check(SFCommandParser::FindEqualSymbol(text) == IndexOf(text, '='));
    Check(SFCommandParser::FindPlusSymbol(text) == IndexOf(text, '+'));
    Check(SFCommandParser::FindColonSymbol(text) == IndexOf(text, ':'));

    std::string command = asText;
    std::string header;
    SFCommandParser::GetCommandHeader(command, header);
    long cut = IndexOf(text, '=');
    if (cut < 0) cut = IndexOf(text, '?');
    Check(header == (cut < 0 ? asText : asText.substr(0, static_cast<size_t>(cut))));

    std::string parameter = "untouched";
    char* tail = nullptr;
    const bool hasParameter = SFCommandParser::GetCommandParamer(text, parameter);
    Check(hasParameter == SFCommandParser::GetCommandParamer(text, &tail));
    if (hasParameter) {
        const long eq = IndexOf(text, '=');
        Check(parameter == asText.substr(static_cast<size_t>(eq) + 1));
        Check(tail == text + eq + 1);
    } else {
        Check(parameter == "untouched");
    }

    std::string trimmed = asText;
    SFCommandParser::RemoveEnterSymbol(trimmed);
    std::string expected = asText;
    while (!expected.empty() && (expected.back() == '\r' || expected.back() == '\n'))
        expected.pop_back();
    Check(trimmed == expected);
    // The character-buffer form deliberately leaves the text alone.
    Check(SFCommandParser::RemoveEnterSymbol(text) == !asText.empty());
    Check(std::memcmp(buffer.data(), data, size) == 0 && buffer[size] == '\0');

    const char* key = SFCommandParser::FindVendorCmd(text, length);
    const int id = SFCommandParser::GetServiceIdByVendorCmd(text, length);
    if (length == 0 || header.empty()) {
        Check(key == nullptr);
        Check(id == -1);
        return 0;
    }
    Check(id == ExpectedId(header.c_str()));
    if (!key) {
        Check(id == -1);
        return 0;
    }
    bool registered = std::strcmp(key, kCopied) == 0 && key != kCopied;
    for (const Row& r : g_rows) registered = registered || r.text == key;
    Check(registered && header == key);

    // The output buffer has exactly the size the services give it, so any overrun shows.
    std::unique_ptr<char[]> output(new char[kOutputSize]);
    std::memset(output.get(), 0x5a, kOutputSize);
    int outputLength = -1;
    Check(SFCommandParser::ProductCmd2VendorCmd(text, length, output.get(), outputLength));
    const size_t keyLength = std::strlen(key);
    const long eq = IndexOf(text, '=');
    if (eq < 0) {
        Check(outputLength == static_cast<int>(keyLength));
        Check(std::memcmp(output.get(), key, keyLength + 1) == 0);
    } else {
        const size_t rest = size - static_cast<size_t>(eq);
        Check(outputLength == static_cast<int>(keyLength + rest));
        Check(std::memcmp(output.get(), key, keyLength) == 0);
        Check(std::memcmp(output.get() + keyLength, text + eq, rest) == 0);
        Check(output[keyLength + rest] == '\0');
    }
    return 0;
}
