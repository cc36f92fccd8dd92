#include "Connection.h"

#include <errno.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <iostream>

namespace vornctl {

namespace {

// Remaining time before `deadline`, at least one microsecond so that 0 never means "for ever".
timeval Remaining(Clock::time_point deadline) {
    const auto left = std::max<int64_t>(
        1, std::chrono::duration_cast<std::chrono::microseconds>(deadline - Clock::now()).count());
    timeval tv{};
    tv.tv_sec = static_cast<time_t>(left / 1000000);
    tv.tv_usec = static_cast<suseconds_t>(left % 1000000);
    return tv;
}

// A blocking connect bounded by SO_SNDTIMEO: a local listener whose backlog is full keeps a
// plain connect waiting for ever. The send timeout stays set, so a send is bounded too.
std::string ConnectBefore(int fd, const sockaddr* addr, socklen_t len, Clock::time_point deadline) {
    for (;;) {
        if (Clock::now() >= deadline) return "timed out";
        const timeval tv = Remaining(deadline);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        if (connect(fd, addr, len) == 0) return {};
        // A local connect that timed out reports EAGAIN, a TCP one EINPROGRESS.
        if (errno == EAGAIN || errno == EINPROGRESS || errno == EALREADY) return "timed out";
        if (errno != EINTR) return std::strerror(errno);
    }
}

}  // namespace

std::string Endpoint::SetTcp(const std::string& hostPort) {
    const size_t colon = hostPort.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == hostPort.size())
        return "--tcp needs HOST:PORT, not \"" + hostPort + "\"";
    std::string h = hostPort.substr(0, colon);
    if (h.size() >= 2 && h.front() == '[' && h.back() == ']') h = h.substr(1, h.size() - 2);
    const std::string p = hostPort.substr(colon + 1);
    if (h.empty() || p.find_first_not_of("0123456789") != std::string::npos || p.size() > 5 ||
        std::stoul(p) == 0 || std::stoul(p) > 65535)
        return "--tcp needs HOST:PORT with a port of 1 to 65535, not \"" + hostPort + "\"";
    tcp = true;
    host = h;
    port = p;
    return {};
}

std::string Endpoint::Describe() const {
    if (tcp)
        return "tcp " + (host.find(':') != std::string::npos ? "[" + host + "]" : host) + ":" +
               port;
    return "socket \"" + socketName + "\"";
}

std::string Connection::Open(const Endpoint& endpoint, Clock::time_point deadline) {
    Close();
    m_pending.clear();
    if (!endpoint.tcp) {
        sockaddr_un addr{};
        const std::string& name = endpoint.socketName;
        if (name.empty() || name.size() > sizeof addr.sun_path - 1) return "invalid socket name";
        m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_fd < 0) return std::strerror(errno);
        addr.sun_family = AF_UNIX;
        addr.sun_path[0] = '\0';  // the abstract namespace: no file on disk
        std::memcpy(addr.sun_path + 1, name.data(), name.size());
        const socklen_t len =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
        const std::string err =
            ConnectBefore(m_fd, reinterpret_cast<const sockaddr*>(&addr), len, deadline);
        if (!err.empty()) Close();
        return err;
    }
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* list = nullptr;
    const int rc = getaddrinfo(endpoint.host.c_str(), endpoint.port.c_str(), &hints, &list);
    if (rc != 0) return gai_strerror(rc);
    std::string err = "no address";
    for (addrinfo* a = list; a; a = a->ai_next) {
        m_fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (m_fd < 0) {
            err = std::strerror(errno);
            continue;
        }
        err = ConnectBefore(m_fd, a->ai_addr, a->ai_addrlen, deadline);
        if (err.empty()) {
            // Commands are small and wait for their reply: send each at once.
            const int one = 1;
            setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            break;
        }
        Close();
        if (err == "timed out") break;
    }
    freeaddrinfo(list);
    return err;
}

bool Connection::OpenOrReport(const Endpoint& endpoint, double timeoutSec) {
    const std::string err = Open(endpoint, Clock::now() + Seconds(timeoutSec));
    if (err.empty()) return true;
    std::cerr << "vornctl: cannot reach vornd on " << endpoint.Describe() << ": " << err << "\n";
    return false;
}

void Connection::Close() {
    if (m_fd >= 0) close(m_fd);
    m_fd = -1;
}

std::string Connection::Send(const std::string& bytes) {
    if (m_fd < 0) return "not connected";
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return "timed out";
        if (n < 0) return std::strerror(errno);
        done += static_cast<size_t>(n);
    }
    return {};
}

Connection::ReadStatus Connection::ReadReply(ReplyRecord& reply, Clock::time_point deadline,
                                             std::string& error,
                                             const std::function<void()>& tick) {
    if (m_fd < 0) {
        error = "not connected";
        return kFailed;
    }
    char buf[16384];
    for (;;) {
        size_t used = 0;
        switch (DecodeReply(m_pending.data(), m_pending.size(), reply, used, error)) {
            case kDecoded:
                m_pending.erase(0, used);
                return kReply;
            case kMalformed:
                return kFailed;
            case kIncomplete:
                break;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            error = m_pending.empty() ? "timed out" : "timed out in the middle of a reply";
            return kTimeout;
        }
        // Waits of at most a second, so that a progress line can move.
        pollfd p{m_fd, POLLIN, 0};
        const int r = poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 1000)));
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) {
            error = std::strerror(errno);
            return kFailed;
        }
        if (r == 0) {
            if (tick) tick();
            continue;
        }
        const ssize_t n = recv(m_fd, buf, sizeof buf, 0);
        if (n < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (n < 0) {
            error = std::strerror(errno);
            return kFailed;
        }
        if (n == 0) {
            error = m_pending.empty() ? "connection closed by vornd"
                                      : "connection closed by vornd in the middle of a reply";
            return kFailed;
        }
        m_pending.append(buf, static_cast<size_t>(n));
    }
}

}  // namespace vornctl
