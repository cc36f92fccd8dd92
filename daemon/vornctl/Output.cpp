#include "Output.h"

#include <cstdint>
#include <cstdio>

namespace vornctl {

size_t Utf8Length(const std::string& s, size_t i) {
    const auto b = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    const unsigned char c = b(i);
    size_t n;
    uint32_t cp;
    if (c >= 0xc2 && c <= 0xdf) {
        n = 2;
        cp = c & 0x1f;
    } else if (c >= 0xe0 && c <= 0xef) {
        n = 3;
        cp = c & 0x0f;
    } else if (c >= 0xf0 && c <= 0xf4) {
        n = 4;
        cp = c & 0x07;
    } else {
        return 0;
    }
    if (i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k) {
        if ((b(i + k) & 0xc0) != 0x80) return 0;
        cp = (cp << 6) | (b(i + k) & 0x3f);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not valid UTF-8.
    if ((n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) || cp > 0x10ffff ||
        (cp >= 0xd800 && cp <= 0xdfff))
        return 0;
    return n;
}

std::string Escape(const std::string& bytes) {
    std::string out;
    char buf[8];
    for (unsigned char c : bytes) {
        switch (c) {
            case '\r':
                out += "\\r";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\t':
                out += "\\t";
                break;
            case '\\':
                out += "\\\\";
                break;
            default:
                if (c >= 0x20 && c < 0x7f) {
                    out += static_cast<char>(c);
                } else {
                    std::snprintf(buf, sizeof buf, "\\x%02x", c);
                    out += buf;
                }
        }
    }
    return out;
}

std::string Printable(const std::string& s) {
    std::string out;
    char buf[8];
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        const size_t n = c >= 0x80 ? Utf8Length(s, i) : (c >= 0x20 && c != 0x7f ? 1 : 0);
        if (n > 0) {
            out.append(s, i, n);
            i += n;
        } else {
            std::snprintf(buf, sizeof buf, "\\x%02x", c);
            out += buf;
            ++i;
        }
    }
    return out;
}

std::string JsonString(const std::string& s) {
    std::string out = "\"";
    char buf[8];
    for (size_t i = 0; i < s.size();) {
        const unsigned char c = static_cast<unsigned char>(s[i]);
        if (c >= 0x80) {
            const size_t n = Utf8Length(s, i);
            if (n > 0) {
                out.append(s, i, n);
                i += n;
            } else {
                std::snprintf(buf, sizeof buf, "\\u%04x", c);
                out += buf;
                ++i;
            }
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (c < 0x20 || c == 0x7f) {
                    std::snprintf(buf, sizeof buf, "\\u%04x", c);
                    out += buf;
                } else {
                    out += static_cast<char>(c);
                }
        }
        ++i;
    }
    out += "\"";
    return out;
}

void HexDump(const std::string& bytes, std::ostream& out) {
    char buf[32];
    for (size_t row = 0; row < bytes.size(); row += 16) {
        std::snprintf(buf, sizeof buf, "    %06zx ", row);
        out << buf;
        std::string printable;
        for (size_t i = row; i < row + 16; ++i) {
            if (i < bytes.size()) {
                const unsigned char c = static_cast<unsigned char>(bytes[i]);
                std::snprintf(buf, sizeof buf, " %02x", c);
                out << buf;
                printable += (c >= 0x20 && c < 0x7f) ? static_cast<char>(c) : '.';
            } else {
                out << "   ";
            }
        }
        out << "  " << printable << "\n";
    }
}

void PrintReply(const ReplyRecord& r, ReplyFormat format, std::ostream& out) {
    if (format == kJson) {
        out << "{\"result\":" << r.result << ",\"meaning\":" << JsonString(Meaning(r.result))
            << ",\"command\":" << JsonString(r.request)
            << ",\"response\":" << JsonString(r.response) << "}\n";
    } else {
        out << Escape(r.request) << "\n"
            << "  result   " << r.result << " (" << Meaning(r.result) << ")\n";
        if (format == kHex) {
            out << "  response " << r.response.size() << " bytes\n";
            HexDump(r.response, out);
        } else {
            out << "  response " << Escape(r.response) << "\n";
        }
    }
    out.flush();
}

}  // namespace vornctl
