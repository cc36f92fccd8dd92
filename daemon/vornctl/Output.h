#ifndef VORN_DAEMON_VORNCTL_OUTPUT_H
#define VORN_DAEMON_VORNCTL_OUTPUT_H

// How vornctl shows bytes and replies: escaped text, JSON strings, hex dumps.

#include <cstddef>
#include <ostream>
#include <string>

#include "ReplyRecord.h"

namespace vornctl {

// Printable ASCII stays; \r \n \t \\ are shown escaped; every other byte as \xNN. The result is
// plain ASCII whatever the bytes, so it is safe on a terminal and in XML.
std::string Escape(const std::string& bytes);

// Text as it was written, except that bytes which are not valid UTF-8, and control characters,
// are shown as \xNN: for texts from a plan file in messages.
std::string Printable(const std::string& bytes);

// A JSON string literal. Valid UTF-8 passes through; a byte that is not part of valid UTF-8 is
// written as the code point of the same value (\u00NN), so any reply yields valid JSON.
std::string JsonString(const std::string& bytes);

void HexDump(const std::string& bytes, std::ostream& out);

// Length of the valid UTF-8 sequence starting at s[i], or 0 when it is not one.
size_t Utf8Length(const std::string& s, size_t i);

enum ReplyFormat { kText, kJson, kHex };

// One reply as the command mode prints it.
void PrintReply(const ReplyRecord& reply, ReplyFormat format, std::ostream& out);

}  // namespace vornctl

#endif
