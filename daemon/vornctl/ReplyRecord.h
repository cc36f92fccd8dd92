#ifndef VORN_DAEMON_VORNCTL_REPLYRECORD_H
#define VORN_DAEMON_VORNCTL_REPLYRECORD_H

// One reply record as vornd writes it, little-endian, with no framing around it:
//
//   offset 0       int32   result code (0 success, 1..1000 errno, 1001..1010 the daemon's own)
//   offset 4       uint32  R, the length of the command as received
//   offset 8       R bytes the command (vornd's echo; commands too long for one record are cut)
//   offset 8 + R   uint32  S, the length of the response
//   offset 12 + R  S bytes the response (for a failure, the line "<code>:<text>\r\n")
//
// The Python client (clients/python/vorn_client.py, parse_reply) decodes the same layout; both
// are tested against the recorded replies in tests/data/replies.

#include <cstddef>
#include <cstdint>
#include <string>

namespace vornctl {

struct ReplyRecord {
    int32_t result = 0;
    std::string request;
    std::string response;
};

enum DecodeStatus {
    kDecoded,     // `record` holds the reply; `used` bytes were consumed
    kIncomplete,  // the bytes so far are the start of a record: read more
    kMalformed,   // a length no reply of vornd can have; `error` says which
};

// A field longer than this is not one of vornd's: its records stay far below it.
constexpr uint32_t kMaxReplyField = 16u * 1024 * 1024;
// The largest command vornd echoes whole; the echo of a longer one is its beginning.
constexpr size_t kMaxWholeEcho = 3172 - 12;

DecodeStatus DecodeReply(const char* data, size_t size, ReplyRecord& record, size_t& used,
                         std::string& error);

// Whether `record` answers `command`: its echo is the command, or the beginning of one too long
// to be echoed whole.
bool IsReplyTo(const ReplyRecord& record, const std::string& command);

// The text of a result code: "Success", the system's text for an errno value, or vornd's own.
std::string Meaning(int32_t code);

}  // namespace vornctl

#endif
