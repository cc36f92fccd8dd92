#ifndef VORN_TESTS_DAEMON_TCPRELAY_H
#define VORN_TESTS_DAEMON_TCPRELAY_H

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

namespace vorn_test {

// What `adb forward tcp:PORT localabstract:NAME` does for a station, on loopback: every TCP
// connection to 127.0.0.1:port() is joined to a fresh connection to the abstract socket NAME.
// Serves one connection at a time; stops with the object.
class TcpRelay {
public:
    explicit TcpRelay(std::string abstractName) : m_name(std::move(abstractName)) {
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        if (bind(m_listener, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
            listen(m_listener, 4) == 0 &&
            getsockname(m_listener, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
            m_port = ntohs(addr.sin_port);
        m_thread = std::thread([this] { Serve(); });
    }
    ~TcpRelay() {
        m_stop = true;
        m_thread.join();
        close(m_listener);
    }
    int port() const { return m_port; }

private:
    // Waits for `fd` to be readable, in slices short enough to notice the stop flag.
    bool Readable(int fd) {
        pollfd p{fd, POLLIN, 0};
        while (!m_stop) {
            if (poll(&p, 1, 20) == 1) return true;
        }
        return false;
    }

    void Serve() {
        while (Readable(m_listener)) {
            const int tcp = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (tcp < 0) continue;
            const int local = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un addr{};
            addr.sun_family = AF_UNIX;
            std::memcpy(addr.sun_path + 1, m_name.data(), m_name.size());
            const socklen_t len = offsetof(sockaddr_un, sun_path) + 1 + m_name.size();
            if (connect(local, reinterpret_cast<sockaddr*>(&addr), len) == 0) Pump(tcp, local);
            close(local);
            close(tcp);
        }
    }

    // Copies bytes both ways until either side closes.
    void Pump(int a, int b) {
        pollfd p[2] = {{a, POLLIN, 0}, {b, POLLIN, 0}};
        char buf[65536];
        while (!m_stop) {
            if (poll(p, 2, 20) <= 0) continue;
            for (int i = 0; i < 2; ++i) {
                if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                const ssize_t n = recv(p[i].fd, buf, sizeof buf, 0);
                if (n <= 0 || send(p[1 - i].fd, buf, static_cast<size_t>(n), MSG_NOSIGNAL) != n)
                    return;
            }
        }
    }

    std::string m_name;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<bool> m_stop{false};  // written by the destructor, read by the relay thread
    std::thread m_thread;
};

}  // namespace vorn_test

#endif
