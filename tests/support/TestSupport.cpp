#include "support/TestSupport.h"

#include <dirent.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include "platform/LogMessage.h"

namespace vorn_test {

bool Await(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline) return condition();
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

LogCapture::LogCapture() {
    LogMessage::SetCaptureHook([this](int severity, const std::string& tag,
                                      const std::string& function, const std::string& text) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_lines.push_back(Line{severity, tag, function, text});
    });
}

LogCapture::~LogCapture() { LogMessage::SetCaptureHook(nullptr); }

std::vector<LogCapture::Line> LogCapture::Lines() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_lines;
}

int LogCapture::Count(const std::string& text, const std::string& function, int severity) const {
    std::lock_guard<std::mutex> lock(m_lock);
    int n = 0;
    for (const auto& l : m_lines) {
        if (l.text != text) continue;
        if (!function.empty() && l.function != function) continue;
        if (severity != 0 && l.severity != severity) continue;
        ++n;
    }
    return n;
}

int LogCapture::CountContaining(const std::string& part) const {
    std::lock_guard<std::mutex> lock(m_lock);
    int n = 0;
    for (const auto& l : m_lines)
        if (l.text.find(part) != std::string::npos) ++n;
    return n;
}

bool LogCapture::AwaitLine(const std::string& text, const std::string& function,
                           std::chrono::milliseconds limit) const {
    return Await([&] { return Has(text, function); }, limit);
}

void LogCapture::Clear() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_lines.clear();
}

std::string LogCapture::Dump() const {
    std::lock_guard<std::mutex> lock(m_lock);
    std::ostringstream out;
    for (const auto& l : m_lines)
        out << l.severity << " " << l.tag << " " << l.function << ": " << l.text << "\n";
    return out.str();
}

std::string UniqueSocketName(const std::string& stem) {
    static std::atomic<int> counter{0};
    return "vorn_test_" + stem + "_" + std::to_string(getpid()) + "_" +
           std::to_string(counter.fetch_add(1));
}

std::string EncodeReply(int32_t result, const std::string& request, const std::string& response) {
    std::string out;
    auto put32 = [&out](uint32_t v) { out.append(reinterpret_cast<const char*>(&v), 4); };
    put32(static_cast<uint32_t>(result));
    put32(static_cast<uint32_t>(request.size()));
    out += request;
    put32(static_cast<uint32_t>(response.size()));
    out += response;
    return out;
}

Client::~Client() { Close(); }

bool Client::Connect(const std::string& name) {
    Close();
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) return false;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    addr.sun_path[0] = '\0';
    std::memcpy(addr.sun_path + 1, name.data(), name.size());
    socklen_t len = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    if (connect(m_fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        Close();
        return false;
    }
    return true;
}

bool Client::Send(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool Client::ReadExact(char* out, size_t length, std::chrono::steady_clock::time_point deadline) {
    size_t done = 0;
    while (done < length) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) return false;
        pollfd p{m_fd, POLLIN, 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR) continue;
        if (r <= 0) return false;
        ssize_t n = recv(m_fd, out + done, length - done, 0);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

bool Client::ReadReply(Reply& reply, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    uint32_t head[2];
    if (!ReadExact(reinterpret_cast<char*>(head), sizeof head, deadline)) return false;
    reply.result = static_cast<int32_t>(head[0]);
    reply.request.assign(head[1], '\0');
    if (head[1] && !ReadExact(&reply.request[0], head[1], deadline)) return false;
    uint32_t s = 0;
    if (!ReadExact(reinterpret_cast<char*>(&s), 4, deadline)) return false;
    reply.response.assign(s, '\0');
    if (s && !ReadExact(&reply.response[0], s, deadline)) return false;
    return true;
}

std::string Client::ReadAvailable(std::chrono::milliseconds limit) {
    std::string out;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char buf[4096];
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        deadline - std::chrono::steady_clock::now())
                        .count();
        if (left <= 0) break;
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(left)) <= 0) break;
        ssize_t n = recv(m_fd, buf, sizeof buf, 0);
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

void Client::Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
}

TempDir::TempDir() {
    // $TMPDIR first; a device has no /tmp, and its test runs use /data/local/tmp.
    std::string base = getenv("TMPDIR") ? getenv("TMPDIR") : "";
    if (base.empty()) base = access("/tmp", W_OK) == 0 ? "/tmp" : "/data/local/tmp";
    std::string tmpl = base + "/vorn_test_XXXXXX";
    char* p = mkdtemp(&tmpl[0]);
    m_path = p ? tmpl : base;
    m_owned = p != nullptr;
}

TempDir::~TempDir() {
    if (!m_owned) return;
    if (DIR* d = opendir(m_path.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") unlink((m_path + "/" + n).c_str());
        }
        closedir(d);
    }
    rmdir(m_path.c_str());
}

std::string TempDir::Write(const std::string& name, const std::string& content) const {
    std::string path = m_path + "/" + name;
    std::ofstream out(path, std::ios::binary);
    out << content;
    return path;
}

static int CountEntries(const char* dir) {
    int n = 0;
    if (DIR* d = opendir(dir)) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') ++n;
        closedir(d);
    }
    return n;
}

int ThreadCount() { return CountEntries("/proc/self/task"); }
int OpenFdCount() { return CountEntries("/proc/self/fd") - 1; }

std::string BesideTestProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return name;
    char exe[4096];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof exe - 1);
    if (n <= 0) return name;
    const std::string self(exe, static_cast<size_t>(n));
    const std::string dir = self.substr(0, self.rfind('/'));
    for (const char* sub : {"/", "/lib64/", "/lib/"})
        if (access((dir + sub + name).c_str(), R_OK) == 0) return dir + sub + name;
    return name;
}

}  // namespace vorn_test
