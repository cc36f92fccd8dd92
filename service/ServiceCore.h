#ifndef VORN_SERVICE_SERVICECORE_H
#define VORN_SERVICE_SERVICECORE_H

#include <sys/types.h>
#include <time.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "io/LoopIntake.h"
#include "io/ReplyRoute.h"

class HalHost;
class LoopHandOff;
class SFService;
class SFMessage;

// Not exported. What one service keeps beside its fixed layout: the requests as tickets, the
// deadline of the current one, the accounting of the service's threads and the order of its
// replies. Created by the service's constructor; the service and each of its threads hold it
// (the threads get it when they are created), so a thread that comes back from a HAL call after
// its request timed out, or after the service was destroyed, still finds it and its ticket.
//
// One lock guards all of it. Each kind of waiter has its own condition beside that lock, so
// that waking one kind never wakes another: the request thread waits for work (every command
// would otherwise wake the response thread too), everyone else for a change of state (a
// timeout decided, a thread gone, the service stopping), which happens rarely.
//
// Who may touch the service: a thread counted in the busy count (its loop runs, or its
// request's ticket says it is inside). A thread in a HAL call is not counted: the service's
// destruction does not wait for it, and when it comes back it learns from its ticket whether
// the request is still its own.
//
// The socket loop's thread may run a request itself when the service has nothing to do (the
// host's choice, see LoopIntake): the request is then held for it at intake instead of queued,
// runs as a ticket like any other, and the service's other requests wait behind it as they would
// behind the request thread. Its timer is armed for the earlier of its deadline and the end of
// the loop's budget; when the budget ends first, the monitor asks the loop to go on in a fresh
// thread, and the request finishes where it is.
class ServiceCore : public std::enable_shared_from_this<ServiceCore>, private LoopIntake::Held {
public:
    // One request, from its intake to its end. The message belongs to the ticket; the thread
    // that runs the request holds the ticket, so the message lives as long as that thread may
    // read it, even once a timeout has answered the request and the service has moved on.
    class Ticket {
    public:
        enum State { QUEUED, RUNNING, IN_HAL, DONE, TIMED_OUT };
        Ticket(SFMessage* msg, ClientRef sender, ServiceCore* core);
        ~Ticket();
        Ticket(const Ticket&) = delete;
        Ticket& operator=(const Ticket&) = delete;

        SFMessage* Message() const { return m_pMsg; }
        // The client the command came from, captured at intake on the socket loop's thread.
        ClientRef Sender() const { return m_sender; }
        State GetState() const { return static_cast<State>(m_state.load()); }
        // A way to stop the request's HAL call from outside (an out-of-process HAL host can be
        // killed): called once, on the thread that answered the timeout, after the 1002 has
        // been sent or queued. Not called when the request ends in time.
        void SetCancel(std::function<void()> cancel);
        // The ticket of the request that the calling thread runs; null outside a request.
        static Ticket* Current();
        // Its own thread: the code around the HAL call leaves by itself when the request was
        // taken away (it checks Left() after the call), so the thread need not be parked.
        void SetCallerUnwinds(int delta) { m_nCallerUnwinds += delta; }
        int CallerUnwinds() const { return m_nCallerUnwinds; }
        // Its own thread: true once it learnt that the request is no longer its own.
        bool Left() const { return m_bLeft; }
        ServiceCore& Core() const { return *m_core; }

    private:
        friend class ServiceCore;
        SFMessage* m_pMsg;  // owned; taken out only of a ticket that never ran
        const ClientRef m_sender;
        ServiceCore* const m_core;  // outlives the ticket's use: its thread holds the core
        // Written under the core's lock; read bare by the ticket's own thread.
        std::atomic<int> m_state{QUEUED};
        // The rest is guarded by the core's lock.
        bool m_bInside = false;   // its thread runs engine or handler code (counted busy)
        bool m_bJudging = false;  // a timeout is being decided: its thread waits to go on
        bool m_bHandled = false;  // the service took its timeout on itself
        bool m_bLeft = false;     // written by its own thread: it was taken away, and left
        bool m_bHasDeadline = false;
        timespec m_started{0, 0};   // CLOCK_MONOTONIC
        timespec m_deadline{0, 0};  // CLOCK_MONOTONIC
        int m_nHalDepth = 0;        // its own thread only
        int m_nCallerUnwinds = 0;   // its own thread only
        std::function<void()> m_cancel;
    };

    static std::shared_ptr<ServiceCore> Create(SFService* service, const std::string& name);
    ~ServiceCore();
    ServiceCore(const ServiceCore&) = delete;
    ServiceCore& operator=(const ServiceCore&) = delete;
    // The service's own reference, dropped as the last step of its destructor.
    void ReleaseOwner();

    // Thread accounting. A thread is counted from before it is created until it leaves its
    // loop (the monitor and the response thread), or gets a ticket it leaves with.
    void ThreadStarting();
    void ThreadEnded();
    // Held while a thread holder of the service is created or destroyed: the monitor starts
    // the worker threads while a timeout (on the monitor, or called by a host on its own
    // thread) may replace the request thread. Apart from m_lock because it is held across
    // pthread_create; nothing else is locked while it is held.
    std::mutex& HoldersLock() { return m_holdersLock; }
    // The monitor starts the worker threads once the service's object is complete.
    void MarkConstructed();
    bool AwaitConstructed();  // false when the service stops first
    // Stopping: wakes every wait of the service's threads; AwaitQuiet then waits until no
    // thread is counted any more.
    void Stop();
    void AwaitQuiet();
    bool Stopping() const { return m_bStopping.load(std::memory_order_acquire); }
    // Sleeps `ms`, or less when the service stops meanwhile.
    void Pause(int ms);

    // Intake (the socket loop's thread, or whoever queues a request).
    void Submit(SFMessage* msg, ClientRef sender);
    // The message of the next queued request, taken out of the queue; null when none waits.
    SFMessage* TakeQueuedMessage();
    void ClearQueued();
    // Intake on the socket loop's thread with an intake open: holds the request there, to be run
    // by that thread once the transmission is delivered, when the service has nothing queued,
    // running or held and its last request did not outlive the budget. False: Submit it.
    bool HoldForLoop(SFMessage* msg, ClientRef sender, LoopIntake& intake);

    // The request thread. Take waits for the next request (null when the service stops or the
    // thread was replaced), makes it the current one and arms its deadline.
    uint64_t RequestGeneration();
    void NewRequestGeneration();
    std::shared_ptr<Ticket> Take(uint64_t generation);
    // Around a HAL call, or a wait that touches nothing of the service. Back is false when the
    // request was taken away meanwhile (timed out, or the service stopped): the thread must
    // leave without touching the service. With mayStayInside, a timed-out request's thread
    // may go back into a service that still exists (true; its reply is dropped at Finish).
    void Away(Ticket& t);
    bool Back(Ticket& t, bool mayStayInside = false);
    // Waits until the request is taken away or the service stops (the "JXT+TIMEOUT" handler).
    void AwaitTakenAway(Ticket* t);
    // The end of the handler: true when the request is still this thread's, which then
    // answers it; false when the thread must leave without touching the service.
    bool Finish(Ticket& t);
    // True when the host's limit (GetHeldCallLimit) of threads is still held by HAL calls that
    // timed out.
    bool RefuseHalCall();

    // The monitor.
    int TimerFd() const { return m_nTimerFd; }
    // After the timer fired: re-arms it for what is still ahead, and returns the loop's hand-off
    // when a request run by the loop's thread has outlived its budget. The caller calls it and
    // reports with HandOffDone.
    std::shared_ptr<LoopHandOff> OnTimer();
    void HandOffDone(bool moved);
    std::shared_ptr<Ticket> ClaimDue();      // the current request if its deadline has passed
    std::shared_ptr<Ticket> ClaimCurrent();  // the current request, whatever its deadline
    void HandBack(Ticket& t);                // the service handled the timeout itself
    void Abandon(Ticket& t);                 // the timeout answered the request
    void RunCancel(Ticket& t);
    void SetTimeoutHandling(bool on);
    bool TimeoutHandling();
    // Time left of the current request: -1 when none runs or it has no limit.
    int TimeLeft(timespec& left);

    // Replies, in order: a reply is sent by the thread that produced it when nothing is queued
    // or being sent ahead of it; otherwise it is queued (with its sender) for the response
    // thread. SendDirect is true when the caller sends now and then calls DirectSent.
    bool SendDirect(SFMessage* reply, ClientRef sender);
    void DirectSent();
    ClientRef BeginQueuedReply();
    void EndQueuedReply();
    void ClearQueuedReplies();
    // The sender of the current request (for replies queued through the public EnQueue).
    ClientRef CurrentSender();

    // The service's HAL host when its HAL runs out of process, else null. Set once by
    // insertCmd, before the service takes requests; read without the lock afterwards.
    void SetHalHost(std::shared_ptr<HalHost> host) { m_halHost = std::move(host); }
    HalHost* GetHalHost() const { return m_halHost.get(); }

    // For a look from outside (tests, diagnostics).
    std::shared_ptr<Ticket> RunningTicket();
    int LeftBehind();

private:
    ServiceCore(SFService* service, const std::string& name);
    void Leave(Ticket& t);  // with the lock held
    // With the lock held: makes a taken ticket the current request, and arms the timer.
    void StartLocked(const std::shared_ptr<Ticket>& t);
    // Without the lock, on the request's thread once it started: its trace lines.
    void Started(Ticket& t);
    // With the lock held: arms the timer for the earliest of the current request's deadline and
    // the end of the loop's budget, or disarms it when there is neither; after a quick run on
    // the loop's thread, arms it ahead for the next one.
    void ArmLocked(bool loopRunEnded = false);
    // With the lock held: the held or running request of the loop is over; what waits behind it
    // may run. True when the request thread has to be woken (after the lock).
    bool OpenLoopGate(const Ticket& t);
    bool RunOnLoop(const std::shared_ptr<LoopHandOff>& handOff, int budgetMicros) override;
    void DropFromLoop() override;
    bool Ready() const { return !m_queue.empty() && !m_loopTicket; }  // with the lock held

    SFService* const m_service;  // used only by threads counted busy
    const std::string m_strName;
    const int m_nTimerFd;  // CLOCK_MONOTONIC, armed for the current request
    std::shared_ptr<HalHost> m_halHost;
    std::shared_ptr<ServiceCore> m_owner;

    std::mutex m_holdersLock;              // see HoldersLock
    std::mutex m_lock;                     // guards everything below, and the tickets' fields
    std::condition_variable m_work;        // the request thread: a request queued, or stop
    std::condition_variable m_changed;     // any other state change anyone waits for
    std::atomic<bool> m_bStopping{false};  // written under m_lock
    bool m_bConstructed = false;
    int m_nBusy = 0;
    int m_nLeftBehind = 0;
    long m_nRefused = 0;  // HAL-backed commands refused in the current burst
    uint64_t m_nGeneration = 0;
    std::deque<std::shared_ptr<Ticket>> m_queue;
    std::atomic<size_t> m_nQueued{0};  // m_queue's size, for the look-ahead without the lock
    // The request thread asleep for work (its thread id, 0 when it is awake), and whether the
    // intake moved it to the intake's processor to wake it there.
    pid_t m_nSleeperTid = 0;
    bool m_bSleeperMoved = false;
    std::shared_ptr<Ticket> m_current;
    // The request held for, or run by, the socket loop's thread, until it is done or timed out.
    std::shared_ptr<Ticket> m_loopTicket;
    // The loop's run, from its start to its end on the loop's thread: active, a hand-off asked
    // for (claimed), and its outcome, which the loop's thread waits for when it comes back.
    enum LoopRun { LOOP_IDLE, LOOP_ACTIVE, LOOP_CLAIMED, LOOP_MOVED, LOOP_STAYED };
    LoopRun m_loopRun = LOOP_IDLE;
    std::shared_ptr<LoopHandOff> m_handOff;
    timespec m_handOffAt{0, 0};
    int m_nLoopBudgetMicros = 0;  // of the last request held for the loop
    bool m_bLastRunSlow = false;  // the last request outlived that budget: the next one queues
    // What the timer is armed for, as far as this side knows (a firing disarms it).
    bool m_bArmed = false;
    bool m_bArmedAhead = false;  // for a run of the loop that has not come yet
    timespec m_armedAt{0, 0};
    // Replies: queued in the service's response queue, with their senders in the same order.
    std::deque<ClientRef> m_senders;
    int m_nQueuedReplies = 0;
    bool m_bQueuedSending = false;
    bool m_bDirectSending = false;
    bool m_bResponseWaits = false;
};

// One pass of the request thread (service/SFServiceQueue.cpp): PASS_RETIRED when the service
// stops or the thread was replaced (the thread is still counted), PASS_TAKEN_AWAY when its
// request was taken away (counted out already: the service may be gone).
enum PassEnd { PASS_NEXT, PASS_RETIRED, PASS_TAKEN_AWAY };
PassEnd RunRequestPass(SFService& service, ServiceCore& core, uint64_t generation);
// The same for a ticket already taken (never PASS_RETIRED).
PassEnd RunTakenRequest(SFService& service, ServiceCore& core,
                        const std::shared_ptr<ServiceCore::Ticket>& ticket);

// A timeout of the ticket that the caller claimed (service/SFServiceTimeout.cpp).
void TimeOutRequest(SFService& service, ServiceCore& core,
                    const std::shared_ptr<ServiceCore::Ticket>& ticket);

#endif
