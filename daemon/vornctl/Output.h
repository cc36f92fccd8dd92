#ifndef VORN_DAEMON_VORNCTL_OUTPUT_H
#define VORN_DAEMON_VORNCTL_OUTPUT_H

// How vornctl shows bytes and replies: escaped text, JSON strings, hex dumps.

#include <ostream>
#include <string>

#include "ReplyRecord.h"

namespace vornctl {

// Printable ASCII stays; \r \n \t \\ are shown escaped; every other byte as \xNN. The result is
// plain ASCII whatever the bytes, so it is safe on a terminal and in XML.
std::string Escape(const std::string& bytes);

// A JSON string literal. Valid UTF-8 passes through; a byte that is not part of valid UTF-8 is
// written as the code point of the same value (\u00NN), so any reply yields valid JSON.
std::string JsonString(const std::string& bytes);

void HexDump(const std::string& bytes, std::ostream& out);

enum ReplyFormat { kText, kJson, kHex };

// One reply as the command mode prints it.
void PrintReply(const ReplyRecord& reply, ReplyFormat format, std::ostream& out);

}  // namespace vornctl

#endif
