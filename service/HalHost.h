#ifndef VORN_SERVICE_HALHOST_H
#define VORN_SERVICE_HALHOST_H

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

// Not exported. One service's HAL host: the child process (vorn_halhost) that loads the
// service's HAL library and runs its functions, and the channel to it (service/HalChannel.h).
//
// The host runs in a process group of its own, so whatever a HAL function forks goes with it.
// When the host dies in a call (a signal, an exit, a closed channel, a malformed answer), the
// call returns 1001 at once and the host is started again by the next call. A host that dies
// again before it has answered a call since its start is not started again at once: calls get
// 1001 for a back-off period that doubles with each such death (250 ms up to 8 s).
//
// Held by the service's core: started by insertCmd, stopped by ~SFService. Execute hands the
// request's ticket a cancel hook that aborts the call, which the timeout runs.
class HalHost {
public:
    // The result of a call that Abort (or Stop) took away; the caller's request was answered
    // already, so nobody sees it.
    static constexpr int kAborted = 1002;

    // With isolation on: starts a host for the service. Null with isolation off. Start-up
    // problems are logged; the object stays and later calls retry.
    static std::shared_ptr<HalHost> Start(const std::string& serviceName,
                                          const std::string& libPath);

    // What the command table stores for a function that the host exports: a real function of
    // the command signature that returns 1001, so a host program that calls a row's address
    // directly gets a defined answer instead of a jump into nothing.
    static void* ExportedToken();

    HalHost(std::string serviceName, std::string libPath, std::string hostPath);
    ~HalHost();
    HalHost(const HalHost&) = delete;
    HalHost& operator=(const HalHost&) = delete;

    // Does the library export `name`? Asked of the host once per name, then remembered.
    bool IsExported(const std::string& name);
    // Runs `name` in the host. The result of the function, or 1001 when the host died in the
    // call or could not be started, or kAborted. Blocks until the host answers, dies or is
    // aborted: the service's timeout bounds it through Abort.
    int Call(const std::string& name, const std::vector<char>& in, std::vector<char>& out);
    // Thread-safe. If a call is in flight, kills the host (and its process group), so the call
    // returns kAborted at once, and a new host is started for the next call. A call waiting
    // for the channel returns kAborted too. Without a call it does nothing. The caller makes
    // sure the call is the one it means (the timeout path holds the request thread while it
    // decides). True when it killed a host.
    bool Abort();
    // Kills the host for good; calls return 1001 from now on.
    void Stop();

    // The host's process id, -1 while none runs (for tests and diagnostics).
    pid_t Pid();

private:
    bool StartLocked(std::unique_lock<std::mutex>& lock);
    // One round trip: 0 with the reply in m_reply; 1001 when the host is gone (reaped and
    // logged already, naming `what`) or cannot start; kAborted when Abort took it away.
    int Transact(std::unique_lock<std::mutex>& lock, uint32_t kind, const std::string& name,
                 const std::vector<char>& in, int receiveLimitMs, const std::string& what);
    void BuryLocked(const std::string& what, bool failedToStart);

    const std::string m_strServiceName;
    const std::string m_strLibPath;
    const std::string m_strHostPath;

    std::mutex m_lock;  // guards every field below; never held while the host runs a call
    std::condition_variable m_idle;  // signalled when m_bBusy clears
    pid_t m_pid = -1;                // the host (also its process group), -1 when none
    int m_fd = -1;                   // our end of the channel; closed only under m_lock
    bool m_bBusy = false;            // a round trip is in flight: its caller owns the channel
    bool m_bAborted = false;         // Abort took the round trip in flight away
    uint64_t m_nAbortEpoch = 0;      // counts Aborts: callers waiting for the channel give up
    bool m_bStopped = false;
    bool m_bAnswered = false;  // the running host has answered a call since its start
    int m_nQuickDeaths = 0;    // deaths in a row of hosts that never answered a call
    std::chrono::steady_clock::time_point m_tpNoStartBefore{};
    bool m_bBackoffLogged = false;
    std::unordered_map<std::string, bool> m_exports;  // names asked of the host
    std::vector<char> m_reply;                        // the last reply; used by the busy caller
    uint32_t m_nReplyKind = 0;
    int32_t m_nReplyResult = 0;
    bool m_bLookAhead = true;  // look for a reply before sleeping on it; the busy caller's
};

#endif
