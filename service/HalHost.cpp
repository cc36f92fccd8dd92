// The HAL host of a service: starting it, one round trip per call, and what happens when it
// dies, hangs or is taken away.
#include "service/HalHost.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>

#include "platform/LogMessage.h"
#include "service/HalChannel.h"
#include "service/HalIsolation.h"
#include "service/MessageQueue.h"

extern char** environ;

using namespace halchannel;

namespace {
std::atomic<int> g_mode{HAL_ISOLATION_NONE};
std::mutex g_settingLock;  // guards g_hostPath
std::string* const g_hostPath = new std::string();

constexpr int kStartLimitMs = 5000;   // to load the library and say hello
constexpr int kLookupLimitMs = 5000;  // dlsym only: no HAL code runs
constexpr int kExitLimitMs = 500;     // a host whose channel ended is on its way out
constexpr auto kFirstBackoff = std::chrono::milliseconds(250);
constexpr auto kLastBackoff = std::chrono::milliseconds(8000);
constexpr size_t kMaxRememberedNames = 256;

int StandInForExportedFunction(std::vector<char>* /*in*/, std::vector<char>* /*out*/) {
    return 1001;
}

// How a process ended, as an operator reads it.
std::string Describe(int status) {
    std::ostringstream text;
    if (WIFSIGNALED(status)) {
        const int signo = WTERMSIG(status);
        const char* name = strsignal(signo);
        text << "signal " << signo << " (" << (name ? name : "?") << ")";
    } else if (WIFEXITED(status)) {
        text << "exit status " << WEXITSTATUS(status);
    } else {
        text << "status " << status;
    }
    return text.str();
}

// Waits up to `limitMs` for `fd` to be readable (or to end): poll's result, EINTR retried.
int AwaitInput(int fd, int limitMs) {
    pollfd p{fd, POLLIN, 0};
    int rc;
    do {
        rc = poll(&p, 1, limitMs);
    } while (rc < 0 && errno == EINTR);
    return rc;
}

// Waits up to `limitMs` for `pid` to end by itself; true (with its status) when it did.
bool AwaitExit(pid_t pid, int limitMs, int& status) {
    const pid_t done = waitpid(pid, &status, WNOHANG);
    if (done == pid) return true;
    if (done < 0) return false;
#ifdef SYS_pidfd_open
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        AwaitInput(pidfd, limitMs);
        close(pidfd);
        return waitpid(pid, &status, WNOHANG) == pid;
    }
#endif
    // Kernels without pidfd: this path runs only when a host lost its channel.
    for (int waited = 0; waited < limitMs; waited += 10) {
        usleep(10000);
        if (waitpid(pid, &status, WNOHANG) == pid) return true;
    }
    return false;
}

// Receives one frame into `buffer`; its length, or -1 when the channel ended, failed, timed out
// (limitMs >= 0) or carried a frame longer than the buffer.
ssize_t ReceiveFrame(int fd, std::vector<char>& buffer, int limitMs) {
    if (limitMs >= 0 && AwaitInput(fd, limitMs) <= 0) return -1;
    ssize_t n;
    do {
        n = recv(fd, buffer.data(), buffer.size(), MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    if (n <= 0 || static_cast<size_t>(n) > buffer.size()) return -1;
    return n;
}
}  // namespace

void SetHalIsolation(HalIsolation mode, const char* hostPath) {
    {
        std::lock_guard<std::mutex> lock(g_settingLock);
        *g_hostPath = hostPath ? hostPath : "";
    }
    g_mode.store(mode == HAL_ISOLATION_PROCESS ? HAL_ISOLATION_PROCESS : HAL_ISOLATION_NONE);
}

HalIsolation GetHalIsolation() { return static_cast<HalIsolation>(g_mode.load()); }

namespace {
std::atomic<int> g_heldCallLimit{0};  // written by the host, read by the request threads
}  // namespace

void SetHeldCallLimit(int threads) { g_heldCallLimit.store(threads < 0 ? 0 : threads); }

int GetHeldCallLimit() { return g_heldCallLimit.load(); }

std::shared_ptr<HalHost> HalHost::Start(const std::string& serviceName,
                                        const std::string& libPath) {
    if (GetHalIsolation() != HAL_ISOLATION_PROCESS) return nullptr;
    std::string hostPath;
    {
        std::lock_guard<std::mutex> lock(g_settingLock);
        hostPath = *g_hostPath;
    }
    auto host = std::make_shared<HalHost>(serviceName, libPath, hostPath);
    std::unique_lock<std::mutex> lock(host->m_lock);
    host->StartLocked(lock);
    return host;
}

void* HalHost::ExportedToken() { return reinterpret_cast<void*>(&StandInForExportedFunction); }

HalHost::HalHost(std::string serviceName, std::string libPath, std::string hostPath)
    : m_strServiceName(std::move(serviceName)),
      m_strLibPath(std::move(libPath)),
      m_strHostPath(std::move(hostPath)),
      m_reply(kMaxReply) {}

HalHost::~HalHost() { Stop(); }

pid_t HalHost::Pid() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_pid;
}

bool HalHost::StartLocked(std::unique_lock<std::mutex>& lock) {
    if (m_bStopped) return false;
    const auto now = std::chrono::steady_clock::now();
    if (now < m_tpNoStartBefore) {
        if (!m_bBackoffLogged) {
            m_bBackoffLogged = true;
            LogMessage(4, "VORN", "HalHost").stream()
                << m_strServiceName << " HAL host died " << m_nQuickDeaths
                << " times in a row before answering a call: no restart for "
                << std::chrono::duration_cast<std::chrono::milliseconds>(m_tpNoStartBefore - now)
                       .count()
                << " ms, calls are answered 1001 meanwhile";
        }
        return false;
    }
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) {
        LogMessage(4, "VORN", "HalHost").stream()
            << m_strServiceName << " HAL host channel: " << strerror(errno);
        return false;
    }
    int hostEnd = pair[1];
    if (hostEnd <= kChannelFd) {
        // dup2 onto itself would keep close-on-exec, and a daemon started without its standard
        // streams gets low numbers that the streams' opens below would replace: move it up.
        const int moved = fcntl(hostEnd, F_DUPFD_CLOEXEC, kChannelFd + 1);
        close(hostEnd);
        hostEnd = moved;
    }
    // Only the channel crosses: everything else the daemon holds is close-on-exec, and the
    // host closes anything above its channel that is not. No output reaches the daemon's
    // streams: a HAL that floods stdout or stderr writes to /dev/null.
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&files, 1, 2);
    posix_spawn_file_actions_adddup2(&files, hostEnd, kChannelFd);
    // No blocked signals, no ignored ones (vornd blocks its stop signals in every thread), and
    // a process group of its own, so that killing the group takes what the HAL forked too.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t none, all;
    sigemptyset(&none);
    sigfillset(&all);
    sigdelset(&all, SIGKILL);
    sigdelset(&all, SIGSTOP);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setsigdefault(&attr, &all);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(
        &attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    std::string arg0 = m_strHostPath, arg1 = m_strLibPath, arg2 = m_strServiceName;
    char* argv[] = {&arg0[0], &arg1[0], &arg2[0], nullptr};
    pid_t pid = -1;
    const int rc = m_strHostPath.empty()
                       ? ENOENT
                       : posix_spawn(&pid, m_strHostPath.c_str(), &files, &attr, argv, environ);
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attr);
    close(hostEnd);
    if (rc != 0) {
        close(pair[0]);
        LogMessage(4, "VORN", "HalHost").stream()
            << m_strServiceName << " HAL host \"" << m_strHostPath
            << "\" cannot be started: " << strerror(rc);
        return false;
    }
    m_pid = pid;
    m_fd = pair[0];
    m_bAnswered = false;
    m_exports.clear();  // the library file may have changed since the last start
    // The host says hello once it has tried to load the library.
    m_bBusy = true;
    lock.unlock();
    const ssize_t n = ReceiveFrame(m_fd, m_reply, kStartLimitMs);
    lock.lock();
    m_bBusy = false;
    m_idle.notify_all();
    // Aborted while it started (the call it was started for timed out): it goes again.
    if (m_bAborted || n < static_cast<ssize_t>(kHeader) || GetU32(m_reply.data()) != kHello ||
        kHeader + GetU32(m_reply.data() + 8) != static_cast<uint32_t>(n)) {
        BuryLocked("its start", true);
        return false;
    }
    if (GetU32(m_reply.data() + 4) != 0) {
        // The same line as a library that fails to load in this process.
        LogMessage(4, "VORN", "Load").stream()
            << "dlopen(" << m_strLibPath << ") fail: "
            << EscapedText{m_reply.data() + kHeader, static_cast<size_t>(n) - kHeader};
    } else {
        LogMessage(2, "VORN", "Load").stream()
            << "loaded " << m_strLibPath << " in " << m_strServiceName << " HAL host (pid " << m_pid
            << ")";
    }
    return true;
}

void HalHost::BuryLocked(const std::string& what, bool failedToStart) {
    if (m_pid <= 0) return;
    const pid_t pid = m_pid;
    int status = 0;
    bool reaped = false;
    std::string why;
    if (m_bAborted) {
        why = "killed: " + what + " outlived its timeout";
    } else {
        // The channel ends while the process exits, a moment before it can be reaped.
        reaped = AwaitExit(pid, kExitLimitMs, status);
        if (reaped)
            why = "died in " + what + ": " + Describe(status);
        else
            why = "broke its channel in " + what + " and was killed";
    }
    // The group first, while its leader is not yet reaped and its number cannot be reused.
    kill(-pid, SIGKILL);
    if (!reaped) {
        pid_t done;
        do {
            done = waitpid(pid, &status, 0);
        } while (done < 0 && errno == EINTR);
    }
    close(m_fd);
    m_fd = -1;
    m_pid = -1;
    if (m_bAborted) {
        LogMessage(3, "VORN", "HalHost").stream() << m_strServiceName << " HAL host (pid " << pid
                                                  << ") " << why << "; a new one is started";
        m_bAborted = false;
        return;
    }
    if (m_bStopped) return;
    LogMessage(4, "VORN", "HalHost").stream()
        << m_strServiceName << " HAL host (pid " << pid << ") " << why
        << (failedToStart ? "" : "; answered 1001, a new one starts with the next call");
    // A host that dies again before it has answered anything would die in a loop: wait longer
    // each time before the next start.
    if (m_bAnswered) {
        m_nQuickDeaths = 0;
    } else if (++m_nQuickDeaths >= 2) {
        const int doublings = std::min(m_nQuickDeaths - 2, 5);
        const auto wait =
            std::min<std::chrono::milliseconds>(kFirstBackoff * (1 << doublings), kLastBackoff);
        m_tpNoStartBefore = std::chrono::steady_clock::now() + wait;
        m_bBackoffLogged = false;
    }
}

int HalHost::Transact(std::unique_lock<std::mutex>& lock, uint32_t kind, const std::string& name,
                      const std::vector<char>& in, int receiveLimitMs, const std::string& what) {
    // One round trip at a time: a request thread that the timeout replaced may still be
    // finishing its aborted call, or starting the next host. An Abort meanwhile is meant for
    // this caller too: only a timed-out request's thread can be in here when one comes.
    const uint64_t epoch = m_nAbortEpoch;
    m_idle.wait(lock, [&] { return !m_bBusy || m_bStopped || m_nAbortEpoch != epoch; });
    if (m_bStopped) return 1001;
    if (m_nAbortEpoch != epoch) return kAborted;
    if (m_pid <= 0 && !StartLocked(lock)) return m_nAbortEpoch != epoch ? kAborted : 1001;
    if (m_bStopped || m_pid <= 0) return 1001;
    if (m_nAbortEpoch != epoch) return kAborted;
    char header[kHeader];
    PutU32(header, kind);
    PutU32(header + 4, static_cast<uint32_t>(name.size()));
    PutU32(header + 8, static_cast<uint32_t>(in.size()));
    iovec parts[3] = {{header, kHeader},
                      {const_cast<char*>(name.data()), name.size()},
                      {const_cast<char*>(in.data()), in.size()}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 3;
    const int fd = m_fd;  // stays open while m_bBusy is set
    m_bBusy = true;
    lock.unlock();
    ssize_t sent;
    do {
        sent = sendmsg(fd, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    ssize_t n = -1;
    if (sent >= 0) {
        // Before the reply is slept on, it is looked for for the engine's look-ahead window: a
        // HAL function that answers within it costs no wake-up of this thread on the other
        // processor. Only the busy caller touches the look-ahead flag; a call with a time
        // limit (the host's start) is not looked ahead for.
        LookAhead look(m_bLookAhead, receiveLimitMs < 0 ? GetQueueSpinMicros() : 0);
        const bool seen = look.Look([fd] { return AwaitInput(fd, 0) != 0; });  // or its end
        n = ReceiveFrame(fd, m_reply, receiveLimitMs);
        if (!seen) look.Slept();
    }
    lock.lock();
    m_bBusy = false;
    m_idle.notify_all();
    // A reply of the expected kind whose lengths agree with what arrived, or the host is done
    // for: whatever else it sent is not looked at.
    bool good = !m_bAborted && n >= static_cast<ssize_t>(kHeader);
    if (good) {
        m_nReplyKind = GetU32(m_reply.data());
        m_nReplyResult = static_cast<int32_t>(GetU32(m_reply.data() + 4));
        const uint32_t length = GetU32(m_reply.data() + 8);
        const bool kindFits =
            m_nReplyKind == kind ||
            (kind == kCall && (m_nReplyKind == kMissing || m_nReplyKind == kThrew));
        good = kindFits && length <= kMaxOutput && kHeader + length == static_cast<uint32_t>(n);
    }
    if (!good) {
        const bool aborted = m_bAborted;
        if (!aborted && n >= 0 && !m_bStopped)
            LogMessage(4, "VORN", "HalHost").stream()
                << m_strServiceName << " HAL host sent a malformed answer (" << n << " bytes) to "
                << what;
        BuryLocked(what, false);
        // A timeout's host is replaced at once, by the thread that was taken away (its request
        // was answered already), so the next request finds one ready; after a death the next
        // call starts one, so that the answer is not held up.
        if (aborted && !m_bStopped) StartLocked(lock);
        return aborted ? kAborted : 1001;
    }
    return 0;
}

bool HalHost::IsExported(const std::string& name) {
    if (name.empty() || name.size() > kMaxName) return false;
    std::unique_lock<std::mutex> lock(m_lock);
    auto it = m_exports.find(name);
    if (it != m_exports.end()) return it->second;
    if (Transact(lock, kLookup, name, {}, kLookupLimitMs, "the lookup of " + name) != 0)
        return false;
    const bool exported = m_nReplyResult == 1;
    if (m_exports.size() < kMaxRememberedNames) m_exports[name] = exported;
    return exported;
}

int HalHost::Call(const std::string& name, const std::vector<char>& in, std::vector<char>& out) {
    out.clear();
    if (name.empty() || name.size() > kMaxName) return 1001;
    if (in.size() > kMaxInput) {
        LogMessage(4, "VORN", "HalHost").stream()
            << m_strServiceName << " input of " << in.size() << " bytes for " << name
            << " exceeds the HAL host's limit of " << kMaxInput;
        return 1001;
    }
    std::unique_lock<std::mutex> lock(m_lock);
    const int rc = Transact(lock, kCall, name, in, -1, name);
    if (rc != 0) return rc;
    if (m_nReplyKind == kMissing) return 1001;
    m_bAnswered = true;
    m_nQuickDeaths = 0;
    const uint32_t length = GetU32(m_reply.data() + 8);
    if (m_nReplyKind == kThrew) {
        // The line of a function that throws in this process.
        LogMessage(4, "VORN", "Execute").stream()
            << "HAL function " << name
            << " threw: " << EscapedText{m_reply.data() + kHeader, length};
        return 1001;
    }
    out.assign(m_reply.data() + kHeader, m_reply.data() + kHeader + length);
    return m_nReplyResult;
}

bool HalHost::Abort() {
    std::lock_guard<std::mutex> lock(m_lock);
    ++m_nAbortEpoch;
    m_idle.notify_all();
    if (!m_bBusy || m_bAborted || m_pid <= 0) return false;
    m_bAborted = true;
    kill(-m_pid, SIGKILL);
    // A process the HAL forked outside the group may still hold the host's end.
    shutdown(m_fd, SHUT_RDWR);
    return true;
}

void HalHost::Stop() {
    std::unique_lock<std::mutex> lock(m_lock);
    if (m_bStopped) return;
    m_bStopped = true;
    m_idle.notify_all();
    if (m_pid <= 0) return;
    kill(-m_pid, SIGKILL);
    if (m_bBusy) {
        // The caller in flight comes back at once and buries the host.
        shutdown(m_fd, SHUT_RDWR);
        return;
    }
    BuryLocked("its stop", false);
}
