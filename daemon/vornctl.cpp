// vornctl: sends commands to vornd and prints the decoded replies.
//
// A pure socket client: it speaks the wire protocol and needs nothing of libvorn_core.
// Each command goes out as one transmission (its exact bytes, no line end added) and is
// followed by exactly one reply record:
//   int32 result, uint32 R, R bytes (the command), uint32 S, S bytes (the response),
// little-endian.
//
// Exit status: 0 every result was 0; 1 some result was not 0; 2 usage error, the daemon could
// not be reached, or a reply did not come within the timeout.

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

namespace {

constexpr int kExitOk = 0;
constexpr int kExitFailedResult = 1;
constexpr int kExitNoReply = 2;
// A reply larger than this is not one of ours: the daemon's records stay far below it.
constexpr uint32_t kMaxField = 16u * 1024 * 1024;

struct Options {
    std::string socketName = "vorn";
    double timeoutSec = 20.0;  // above the daemon's 15-second default request timeout
    bool json = false;
    bool hex = false;
    std::vector<std::string> commands;
};

struct Reply {
    int32_t result = 0;
    std::string request;
    std::string response;
};

void Usage(std::ostream& out) {
    out << "Usage: vornctl [--socket NAME] [--timeout SEC] [--json] [--hex] COMMAND...\n"
           "Sends each COMMAND to vornd and prints the decoded reply.\n"
           "With no COMMAND, commands are read from standard input, one a line.\n"
           "Options may stand anywhere; arguments after \"--\" are all commands.\n"
           "\n"
           "  --socket NAME   abstract socket name of the daemon (default \"vorn\")\n"
           "  --timeout SEC   how long to wait for each reply (default 20)\n"
           "  --json          one JSON object a reply, one a line\n"
           "  --hex           dump the response bytes in hex\n"
           "  --help          this text\n"
           "\n"
           "Exit status: 0 all results 0, 1 some result not 0,\n"
           "             2 usage error, daemon unreachable or no reply in time.\n";
}

// The library's texts for its own codes, 1001..1009; everything else beyond errno is 1010's.
std::string Meaning(int32_t code) {
    static const char* const kTexts[] = {
        "Normal error",       "Time out",         "Unsupport command", "Out of memory",
        "Invalid descriptor", "Response is null", "Request is null",   "The parameter is invalid",
        "Out of range",
    };
    if (code == 0) return "Success";
    if (static_cast<uint32_t>(code - 1) <= 999) return std::strerror(code);
    if (static_cast<uint32_t>(code - 1001) <= 8) return kTexts[code - 1001];
    return "Unknow error";
}

// Printable ASCII stays; \r \n \t \\ are shown escaped; everything else as \xNN.
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

// Length of the valid UTF-8 sequence starting at s[i], or 0 when it is not one.
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

// A JSON string literal. Valid UTF-8 passes through; a byte that is not part of valid UTF-8 is
// written as the code point of the same value (\u00NN), so any reply yields valid JSON.
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

void Print(const Options& opt, const Reply& r) {
    if (opt.json) {
        std::cout << "{\"result\":" << r.result << ",\"meaning\":" << JsonString(Meaning(r.result))
                  << ",\"command\":" << JsonString(r.request)
                  << ",\"response\":" << JsonString(r.response) << "}\n";
    } else {
        std::cout << Escape(r.request) << "\n"
                  << "  result   " << r.result << " (" << Meaning(r.result) << ")\n";
        if (opt.hex) {
            std::cout << "  response " << r.response.size() << " bytes\n";
            HexDump(r.response, std::cout);
        } else {
            std::cout << "  response " << Escape(r.response) << "\n";
        }
    }
    std::cout.flush();
}

class Connection {
public:
    ~Connection() {
        if (m_fd >= 0) close(m_fd);
    }

    // Empty on success, otherwise the reason.
    std::string Open(const std::string& name) {
        sockaddr_un addr{};
        if (name.empty() || name.size() > sizeof addr.sun_path - 1) return "invalid socket name";
        m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd < 0) return std::strerror(errno);
        addr.sun_family = AF_UNIX;
        addr.sun_path[0] = '\0';  // the abstract namespace: no file on disk
        std::memcpy(addr.sun_path + 1, name.data(), name.size());
        const socklen_t len =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        int rc;
        do {
            rc = connect(m_fd, reinterpret_cast<sockaddr*>(&addr), len);
        } while (rc != 0 && errno == EINTR);
        return rc == 0 ? std::string() : std::strerror(errno);
    }

    std::string Send(const std::string& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            const ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return std::strerror(errno);
            done += static_cast<size_t>(n);
        }
        return {};
    }

    // Empty on success, otherwise the reason.
    std::string ReadReply(Reply& reply, std::chrono::steady_clock::time_point deadline) {
        uint32_t head[2];
        std::string err = ReadExact(reinterpret_cast<char*>(head), sizeof head, deadline);
        if (!err.empty()) return err;
        reply.result = static_cast<int32_t>(FromLittle(head[0]));
        const uint32_t requestLength = FromLittle(head[1]);
        if (requestLength > kMaxField)
            return "malformed reply (request length " + std::to_string(requestLength) + ")";
        reply.request.assign(requestLength, '\0');
        if (!(err = ReadExact(&reply.request[0], requestLength, deadline)).empty()) return err;
        uint32_t responseLength;
        if (!(err = ReadExact(reinterpret_cast<char*>(&responseLength), 4, deadline)).empty())
            return err;
        responseLength = FromLittle(responseLength);
        if (responseLength > kMaxField)
            return "malformed reply (response length " + std::to_string(responseLength) + ")";
        reply.response.assign(responseLength, '\0');
        return ReadExact(&reply.response[0], responseLength, deadline);
    }

private:
    static uint32_t FromLittle(uint32_t v) {
        const auto* b = reinterpret_cast<const unsigned char*>(&v);
        return uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 | uint32_t(b[3]) << 24;
    }

    std::string ReadExact(char* out, size_t length,
                          std::chrono::steady_clock::time_point deadline) {
        size_t done = 0;
        while (done < length) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  deadline - std::chrono::steady_clock::now())
                                  .count();
            if (left <= 0) return "timeout";
            pollfd p{m_fd, POLLIN, 0};
            const int r = poll(&p, 1, static_cast<int>(left));
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) return std::strerror(errno);
            if (r == 0) return "timeout";
            const ssize_t n = recv(m_fd, out + done, length - done, 0);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) return std::strerror(errno);
            if (n == 0) return "connection closed by vornd";
            done += static_cast<size_t>(n);
        }
        return {};
    }

    int m_fd = -1;
};

// 0 when the command line is good, otherwise the exit status to leave with (help: 0 via `done`).
int ParseOptions(int argc, char** argv, Options& opt, bool& done) {
    done = false;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--") {
            ++i;
            break;
        }
        // Options may stand before or after the commands; commands never start with "--" (and
        // one that does can follow "--").
        if (a.size() < 2 || a.compare(0, 2, "--") != 0) {
            opt.commands.push_back(a);
            continue;
        }
        if (a == "--help" || a == "-h") {
            Usage(std::cout);
            done = true;
            return kExitOk;
        }
        if (a == "--json") {
            opt.json = true;
        } else if (a == "--hex") {
            opt.hex = true;
        } else if (a == "--socket" || a == "--timeout") {
            if (i + 1 >= argc) {
                std::cerr << "vornctl: " << a << " needs a value\n";
                return kExitNoReply;
            }
            const std::string v = argv[++i];
            if (a == "--socket") {
                opt.socketName = v;
            } else {
                char* end = nullptr;
                const double t = std::strtod(v.c_str(), &end);
                if (v.empty() || *end != '\0' || !(t > 0) || t > 86400) {
                    std::cerr << "vornctl: --timeout needs a number of seconds, not \"" << v
                              << "\"\n";
                    return kExitNoReply;
                }
                opt.timeoutSec = t;
            }
        } else {
            std::cerr << "vornctl: unknown option " << a << " (see --help)\n";
            return kExitNoReply;
        }
    }
    for (; i < argc; ++i) opt.commands.emplace_back(argv[i]);
    return kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    bool done;
    const int rc = ParseOptions(argc, argv, opt, done);
    if (rc != kExitOk || done) return rc;

    const bool fromStdin = opt.commands.empty();
    if (!fromStdin) {
        for (const std::string& c : opt.commands) {
            if (c.empty()) {
                std::cerr << "vornctl: empty command (vornd ignores empty transmissions)\n";
                return kExitNoReply;
            }
        }
    }

    Connection conn;
    const std::string err = conn.Open(opt.socketName);
    if (!err.empty()) {
        std::cerr << "vornctl: cannot reach vornd on socket \"" << opt.socketName << "\": " << err
                  << "\n";
        return kExitNoReply;
    }

    const auto timeout = std::chrono::duration_cast<std::chrono::steady_clock::duration>(
        std::chrono::duration<double>(opt.timeoutSec));
    bool anyFailed = false;
    size_t next = 0;
    std::string line;
    for (;;) {
        std::string command;
        if (fromStdin) {
            if (!std::getline(std::cin, line)) break;
            while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
            if (line.empty()) continue;
            command = line;
        } else {
            if (next >= opt.commands.size()) break;
            command = opt.commands[next++];
        }
        // One command at a time: the daemon has no framing, so a second command sent before
        // the first reply could be read together with the first as one transmission.
        std::string e = conn.Send(command);
        if (!e.empty()) {
            std::cerr << "vornctl: cannot send \"" << Escape(command) << "\" to vornd: " << e
                      << "\n";
            return kExitNoReply;
        }
        Reply reply;
        e = conn.ReadReply(reply, std::chrono::steady_clock::now() + timeout);
        if (!e.empty()) {
            if (e == "timeout")
                std::cerr << "vornctl: no reply to \"" << Escape(command) << "\" within "
                          << opt.timeoutSec << " s\n";
            else
                std::cerr << "vornctl: no reply to \"" << Escape(command) << "\": " << e << "\n";
            return kExitNoReply;
        }
        Print(opt, reply);
        if (reply.result != 0) anyFailed = true;
    }
    return anyFailed ? kExitFailedResult : kExitOk;
}
