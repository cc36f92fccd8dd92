#ifndef VORN_TESTS_SUPPORT_TESTSUPPORT_H
#define VORN_TESTS_SUPPORT_TESTSUPPORT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace vorn_test {

// Waits for a condition, polling every millisecond; false when it did not hold in time.
bool Await(const std::function<bool()>& condition,
           std::chrono::milliseconds limit = std::chrono::milliseconds(5000));

// Records every log line while alive (installs the process-wide capture hook).
class LogCapture {
public:
    struct Line {
        int severity;
        std::string tag;
        std::string function;
        std::string text;
    };

    LogCapture();
    ~LogCapture();

    std::vector<Line> Lines() const;
    // Lines whose text equals `text` exactly (and, when given, function and severity).
    int Count(const std::string& text, const std::string& function = "", int severity = 0) const;
    bool Has(const std::string& text, const std::string& function = "", int severity = 0) const {
        return Count(text, function, severity) > 0;
    }
    // Lines whose text contains `part`.
    int CountContaining(const std::string& part) const;
    bool AwaitLine(const std::string& text, const std::string& function = "",
                   std::chrono::milliseconds limit = std::chrono::milliseconds(5000)) const;
    void Clear();
    std::string Dump() const;

private:
    mutable std::mutex m_lock;  // guards m_lines
    std::vector<Line> m_lines;
};

// A socket name no other test (or test process) uses.
std::string UniqueSocketName(const std::string& stem);

// A library given by bare name (as a device test module installs it) is looked for next to the
// test program, then in lib64/ and lib/ beside it; a path is taken as it is.
std::string BesideTestProgram(const std::string& name);

// One reply record: int32 result, uint32 R, R bytes, uint32 S, S bytes.
struct Reply {
    int32_t result = 0;
    std::string request;
    std::string response;
};

// Encodes a reply record as the daemon writes it.
std::string EncodeReply(int32_t result, const std::string& request, const std::string& response);

// A client of an abstract-namespace stream socket.
class Client {
public:
    Client() = default;
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool Connect(const std::string& name);
    bool Send(const std::string& bytes);
    // Reads exactly one reply record; false on timeout or disconnect.
    bool ReadReply(Reply& reply, std::chrono::milliseconds limit = std::chrono::milliseconds(5000));
    // Reads whatever arrives within the limit (for asserting that nothing arrives).
    std::string ReadAvailable(std::chrono::milliseconds limit);
    void Close();
    int fd() const { return m_fd; }

private:
    bool ReadExact(char* out, size_t length, std::chrono::steady_clock::time_point deadline);
    int m_fd = -1;
};

// Writes a file in a fresh temporary folder that is removed with the object.
class TempDir {
public:
    TempDir();
    ~TempDir();
    std::string Write(const std::string& name, const std::string& content) const;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
    bool m_owned = false;  // false when no folder could be made and m_path is the base
};

// Number of threads and of open descriptors of this process.
int ThreadCount();
int OpenFdCount();

}  // namespace vorn_test

#endif
