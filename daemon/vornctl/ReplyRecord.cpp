#include "ReplyRecord.h"

#include <cstring>

namespace vornctl {

namespace {

uint32_t Little32(const char* p) {
    const auto* b = reinterpret_cast<const unsigned char*>(p);
    return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
}

}  // namespace

DecodeStatus DecodeReply(const char* data, size_t size, ReplyRecord& record, size_t& used,
                         std::string& error) {
    if (size < 8) return kIncomplete;
    const uint32_t requestLength = Little32(data + 4);
    if (requestLength > kMaxReplyField) {
        error = "malformed reply (request length " + std::to_string(requestLength) + ")";
        return kMalformed;
    }
    if (size < 12 + size_t{requestLength}) return kIncomplete;
    const uint32_t responseLength = Little32(data + 8 + requestLength);
    if (responseLength > kMaxReplyField) {
        error = "malformed reply (response length " + std::to_string(responseLength) + ")";
        return kMalformed;
    }
    const size_t total = 12 + size_t{requestLength} + responseLength;
    if (size < total) return kIncomplete;
    record.result = static_cast<int32_t>(Little32(data));
    record.request.assign(data + 8, requestLength);
    record.response.assign(data + 12 + requestLength, responseLength);
    used = total;
    return kDecoded;
}

bool IsReplyTo(const ReplyRecord& record, const std::string& command) {
    if (record.request == command) return true;
    return command.size() > kMaxWholeEcho && !record.request.empty() &&
           record.request.size() < command.size() &&
           command.compare(0, record.request.size(), record.request) == 0;
}

std::string Meaning(int32_t code) {
    // vornd's texts for 1001..1009, character for character; 1010 and every other code share
    // "Unknow error".
    static const char* const kTexts[] = {
        "Normal error",       "Time out",         "Unsupport command", "Out of memory",
        "Invalid descriptor", "Response is null", "Request is null",   "The parameter is invalid",
        "Out of range",
    };
    if (code == 0) return "Success";
    if (static_cast<uint32_t>(code) - 1u <= 999u) return std::strerror(code);
    if (static_cast<uint32_t>(code) - 1001u <= 8u) return kTexts[code - 1001];
    return "Unknow error";
}

}  // namespace vornctl
