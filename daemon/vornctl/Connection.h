#ifndef VORN_DAEMON_VORNCTL_CONNECTION_H
#define VORN_DAEMON_VORNCTL_CONNECTION_H

// vornctl's one connection to vornd: the abstract local socket, or TCP for a device reached
// through `adb forward tcp:PORT localabstract:vorn`. Every wait, connecting included, ends at a
// deadline.

#include <chrono>
#include <functional>
#include <string>

#include "ReplyRecord.h"

namespace vornctl {

using Clock = std::chrono::steady_clock;

inline Clock::duration Seconds(double seconds) {
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

// Where vornd listens: an abstract socket name, or a TCP host and port.
struct Endpoint {
    std::string socketName = "vorn";
    bool tcp = false;
    std::string host;
    std::string port;

    // "HOST:PORT" or "[V6ADDR]:PORT"; empty on success, otherwise the reason.
    std::string SetTcp(const std::string& hostPort);
    // As the messages name it: socket "vorn", or tcp 127.0.0.1:5555.
    std::string Describe() const;
};

class Connection {
public:
    Connection() = default;
    ~Connection() { Close(); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    // Empty on success, otherwise the reason ("timed out" when the deadline passed first).
    std::string Open(const Endpoint& endpoint, Clock::time_point deadline);
    // Open within `timeoutSec` from now; false after vornctl's "cannot reach vornd" line.
    bool OpenOrReport(const Endpoint& endpoint, double timeoutSec);
    void Close();
    bool IsOpen() const { return m_fd >= 0; }

    // Sends every byte; empty on success, otherwise the reason.
    std::string Send(const std::string& bytes);

    enum ReadStatus { kReply, kTimeout, kFailed };
    // Reads the next reply record. `error` says why on kTimeout or kFailed (a malformed record,
    // a closed connection). `tick`, when given, is called about once a second while waiting.
    ReadStatus ReadReply(ReplyRecord& reply, Clock::time_point deadline, std::string& error,
                         const std::function<void()>& tick = nullptr);

private:
    int m_fd = -1;
    std::string m_pending;  // bytes received beyond the last decoded record
};

}  // namespace vornctl

#endif
