#ifndef VORN_IO_FRONTENDSTATE_H
#define VORN_IO_FRONTENDSTATE_H

#include <poll.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "io/Processer.h"

// What the socket front end keeps beside a Processer, whose fields hosts are compiled against:
// the host settings, per-slot bookkeeping for replies and idle clients, the connections left
// waiting beyond the four slots and the accept back-off. One per Processer, created by its
// constructor and erased by its destructor; the loop thread holds its own reference, so a
// server deleted under a running loop leaves the loop a valid state.
class FrontEndState {
public:
    using Clock = std::chrono::steady_clock;

    static std::shared_ptr<FrontEndState> Create(const Processer* owner);
    // Null for an object that has none (never for a constructed Processer).
    static std::shared_ptr<FrontEndState> Find(const Processer* owner);
    static void Erase(const Processer* owner);

    static int64_t NowMs() {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   Clock::now().time_since_epoch())
            .count();
    }

    // Host settings, written by the host (before Start as a rule), read by the loop thread.
    std::atomic<int> idleSeconds{0};   // 0: clients are never let go for idling
    std::atomic<int> waitingLimit{0};  // 0: no limit on connections left waiting
    std::atomic<int> replyWaitMs{1000};

    // Per slot. The generation grows whenever a slot's client is let go, so that a reply that
    // waited for room without the lock can tell its client from a newcomer on the same number.
    // The activity time (steady clock, ms) is written by the loop on a transmission and by the
    // thread that answers on a reply.
    std::atomic<uint32_t> generation[Processer::kMaxClients] = {};
    std::atomic<int64_t> lastActivityMs[Processer::kMaxClients] = {};
    // One reply at a time to a client, whole, so that records never interleave. A turn is
    // awaited until the reply's deadline; the last one serves replies to an address outside
    // the slot table.
    bool TakeWriteTurn(int index, Clock::time_point deadline) {
        std::unique_lock<std::mutex> lock(m_turnLock);
        if (!m_turnFree.wait_until(lock, deadline, [&] { return !m_writing[index]; })) return false;
        m_writing[index] = true;
        return true;
    }
    void GiveWriteTurn(int index) {
        {
            std::lock_guard<std::mutex> lock(m_turnLock);
            m_writing[index] = false;
        }
        m_turnFree.notify_all();
    }
    static const int kOtherTurn = Processer::kMaxClients;

    // The loop thread's own: the slot values it saw last, the connections beyond the slots
    // (descriptor and accept time), and the accept back-off.
    int seenFds[Processer::kMaxClients] = {-1, -1, -1, -1};
    struct Waiting {
        int fd;
        int64_t sinceMs;
    };
    std::vector<Waiting> waiting;
    std::vector<pollfd> polled;  // the descriptors of the current wait
    bool backingOff = false;     // an accept burst is under way
    int64_t resumeAcceptMs = 0;  // the listening socket is left out of the wait until then
    int backoffMs = 0;
    int64_t burstStartMs = 0;
    int64_t lastReportMs = 0;
    long unreported = 0;  // failures since the burst's last log line
    int lastError = 0;

private:
    std::mutex m_turnLock;  // guards m_writing
    std::condition_variable m_turnFree;
    bool m_writing[Processer::kMaxClients + 1] = {};
};

#endif
