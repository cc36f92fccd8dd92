#include "core/ErrorCode.h"

#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace {
// The library's own codes, built once before any thread starts and only read afterwards. The
// last entry is the catch-all for every code outside 1..1009.
const std::vector<std::pair<int, const char*>> g_errorTable = {
    {1001, "Normal error"},       {1002, "Time out"},
    {1003, "Unsupport command"},  {1004, "Out of memory"},
    {1005, "Invalid descriptor"}, {1006, "Response is null"},
    {1007, "Request is null"},    {1008, "The parameter is invalid"},
    {1009, "Out of range"},       {1010, "Unknow error"},
};

// Callers hand over a buffer of this size.
const size_t kErrTextSize = 256;
}  // namespace

void GetStringByErrCode(int code, char* out) {
    if (out == nullptr || code == 0) return;
    const char* text;
    // Range tests on the unsigned value, so that negative codes fall through to the catch-all.
    if (static_cast<unsigned int>(code - 1) <= 999u) {
        text = strerror(code);
    } else if (static_cast<unsigned int>(code - 1001) <= 8u) {
        text = g_errorTable[code - 1001].second;
    } else {
        text = g_errorTable.back().second;
    }
    snprintf(out, kErrTextSize, "%d:%s\r\n", code, text);
}
