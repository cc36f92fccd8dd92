#ifndef VORN_IO_FRONTENDSTATE_H
#define VORN_IO_FRONTENDSTATE_H

#include <poll.h>
#include <pthread.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "io/LoopHandOff.h"
#include "io/Processer.h"

// What the socket front end keeps beside a Processer, whose fields hosts are compiled against:
// the host settings, the loop thread and its control descriptor, per-slot bookkeeping for
// replies and idle clients, the connections left waiting beyond the four slots and the accept
// back-off. One per Processer, created by its constructor and erased by its destructor once the
// loop has been stopped and joined.
class FrontEndState : public LoopHandOff {
public:
    using Clock = std::chrono::steady_clock;

    FrontEndState();
    ~FrontEndState() override;
    FrontEndState(const FrontEndState&) = delete;
    FrontEndState& operator=(const FrontEndState&) = delete;

    static std::shared_ptr<FrontEndState> Create(const Processer* owner);
    // Null for an object that has none (never for a constructed Processer).
    static std::shared_ptr<FrontEndState> Find(const Processer* owner);
    static void Erase(const Processer* owner);
    // The state of `owner` when the calling thread is its loop thread (set once when the loop
    // starts, so the loop's own calls need no lookup); null on any other thread.
    static FrontEndState* OfLoop(const Processer* owner);
    static void SetLoop(const Processer* owner, FrontEndState* state);

    static int64_t NowMs() {
        return std::chrono::duration_cast<std::chrono::milliseconds>(
                   Clock::now().time_since_epoch())
            .count();
    }

    // Host settings, written by the host (before Start as a rule), read by the loop thread.
    std::atomic<int> idleSeconds{0};   // 0: clients are never let go for idling
    std::atomic<int> waitingLimit{0};  // 0: no limit on connections left waiting
    std::atomic<int> replyWaitMs{1000};
    // Off: replies go to the client of the latest transmission. On: to the client a command came
    // from (ReplyRoute), dropped with a line when that client has gone.
    std::atomic<bool> replyToSender{false};
    // On: when a slot frees, the connection that has waited longest takes it.
    std::atomic<bool> promoteWaiting{false};
    // On: a client one of whose replies could not be written within replyWaitMs is closed, and
    // later replies to it are dropped at once instead of waiting again.
    std::atomic<bool> closeStalled{false};
    // Above 0: the loop's thread runs a command for an idle service itself (LoopIntake), and
    // hands the loop to a fresh thread when such a command takes longer than this.
    std::atomic<int> loopBudgetMicros{0};

    // The loop thread. Start and Stop (and the destructor through Stop) take the lock; so do a
    // hand-off (on a service's monitor) and the loop thread as it ends, to say so.
    // Guards owner, loopStarted, loopRunning, loopThread and the setting of the loop-end
    // callback (which the loop reads only after Start, under this lock, has started it).
    std::mutex loopLock;
    std::condition_variable loopEnded;  // loopRunning went false
    Processer* owner = nullptr;         // set by Start: the object a fresh loop thread serves
    bool loopStarted = false;
    bool loopRunning = false;  // a thread is in the loop (or in a request that holds it)
    // The thread that serves the loop, joinable; a thread the loop was handed away from is
    // detached then and leaves by itself.
    pthread_t loopThread{};
    // LoopHandOff: a fresh thread takes the loop, or, when the loop is being stopped, it ends.
    bool HandOff() override;
    // The loop has ended, on its thread or at a hand-off: the line of a stop, the result, the
    // host's callback, then Stop may return.
    void LoopEnded(int result);
    // An eventfd in every wait of the loop. Stop and a reply that finds its client stalled write
    // to it; only the loop reads it. -1 once the loop found it closed under it.
    std::atomic<int> controlFd{-1};
    std::atomic<bool> stopRequested{false};
    bool controlLost = false;  // the loop's own: its control descriptor was closed under it
    void Wake();
    // Why the loop ended: -1 while it runs (or never ran), 0 stopped by Stop, EINTR ended by a
    // signal ("got signal"), 1005 the listening socket was lost. Written by the loop thread.
    std::atomic<int> loopResult{-1};
    Processer::LoopEndCallback loopEndCallback = nullptr;  // set by the host before Start
    void* loopEndContext = nullptr;
    // What the listening socket was when it was opened, so that the loop can tell it from a
    // descriptor that took its number after it was closed under it. Written by whoever opens
    // the socket (the constructor, or the loop when it reopens it), read by the loop.
    dev_t listenerDev = 0;
    ino_t listenerIno = 0;
    int64_t listenerCheckedMs = 0;  // the loop's own: when it last compared them
    bool descriptorGone = false;    // the loop's own: its last wait found a closed descriptor

    // Per slot. The generation grows whenever a slot's client is let go, so that a reply that
    // waited for room without the lock can tell its client from a newcomer on the same number.
    // The activity time (steady clock, ms) is written by the loop on a transmission and by the
    // thread that answers on a reply.
    std::atomic<uint32_t> generation[Processer::kMaxClients] = {};
    std::atomic<int64_t> lastActivityMs[Processer::kMaxClients] = {};
    // The generation + 1 of a slot's client that does not read its replies, 0 for none: the
    // thread whose reply timed out sets it, the loop closes that client at its next round.
    std::atomic<uint32_t> stalled[Processer::kMaxClients] = {};
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
    // The look-ahead after a command the loop's thread answered itself (see WaitRound).
    bool answered = false;
    bool lookAhead = true;

private:
    std::mutex m_turnLock;  // guards m_writing
    std::condition_variable m_turnFree;
    bool m_writing[Processer::kMaxClients + 1] = {};
};

#endif
