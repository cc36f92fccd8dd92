#include "service/ServiceCore.h"

#include <sched.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

#include "core/SFMessage.h"
#include "io/LoopHandOff.h"
#include "platform/LogMessage.h"
#include "platform/LookAhead.h"
#include "service/HalIsolation.h"
#include "service/MessageQueue.h"
#include "service/SFService.h"

namespace {
// The request the calling thread runs. Only the thread itself reads it: the HAL call template
// and the built-in handlers are handed nothing else to find their request by.
thread_local ServiceCore::Ticket* t_ticket = nullptr;

int MakeTimer() {
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
    if (fd < 0)
        LogMessage(4, "VORN", "ServiceCore").stream()
            << "no request timer (" << errno << "): requests of this service never time out";
    return fd;
}

timespec Now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now;
}

bool NotBefore(const timespec& a, const timespec& b) {
    return a.tv_sec != b.tv_sec ? a.tv_sec > b.tv_sec : a.tv_nsec >= b.tv_nsec;
}

timespec AddMicros(timespec t, int64_t micros) {
    t.tv_sec += micros / 1000000;
    t.tv_nsec += (micros % 1000000) * 1000;
    if (t.tv_nsec >= 1000000000) {
        t.tv_sec += 1;
        t.tv_nsec -= 1000000000;
    }
    return t;
}

int64_t MicrosSince(const timespec& start) {
    const timespec now = Now();
    return (now.tv_sec - start.tv_sec) * 1000000 + (now.tv_nsec - start.tv_nsec) / 1000;
}
}  // namespace

ServiceCore::Ticket::Ticket(SFMessage* msg, ClientRef sender, ServiceCore* core)
    : m_pMsg(msg), m_sender(sender), m_core(core) {}

ServiceCore::Ticket::~Ticket() { delete m_pMsg; }

void ServiceCore::Ticket::SetCancel(std::function<void()> cancel) {
    std::lock_guard<std::mutex> lock(m_core->m_lock);
    m_cancel = std::move(cancel);
}

ServiceCore::Ticket* ServiceCore::Ticket::Current() { return t_ticket; }

std::shared_ptr<ServiceCore> ServiceCore::Create(SFService* service, const std::string& name) {
    std::shared_ptr<ServiceCore> core(new ServiceCore(service, name));
    core->m_owner = core;
    return core;
}

ServiceCore::ServiceCore(SFService* service, const std::string& name)
    : m_service(service), m_strName(name), m_nTimerFd(MakeTimer()) {}

ServiceCore::~ServiceCore() {
    if (m_nTimerFd >= 0) close(m_nTimerFd);
}

void ServiceCore::ReleaseOwner() {
    std::shared_ptr<ServiceCore> owner;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        owner.swap(m_owner);
    }
    // The core may go right here, with the last reference.
}

void ServiceCore::ThreadStarting() {
    std::lock_guard<std::mutex> lock(m_lock);
    ++m_nBusy;
}

void ServiceCore::ThreadEnded() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (--m_nBusy == 0) m_changed.notify_all();
}

void ServiceCore::MarkConstructed() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_bConstructed) return;
    m_bConstructed = true;
    m_changed.notify_all();
}

bool ServiceCore::AwaitConstructed() {
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_bConstructed || Stopping(); });
    return !Stopping();
}

void ServiceCore::Stop() {
    std::shared_ptr<LoopHandOff> handOff;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_bStopping.store(true, std::memory_order_release);
        m_work.notify_all();
        m_changed.notify_all();
        // A request on the loop's thread may not come back soon (it may be stuck in the HAL),
        // and with the monitor gone nobody would hand the loop on: it goes on elsewhere now.
        if (m_loopRun == LOOP_ACTIVE) {
            m_loopRun = LOOP_CLAIMED;
            handOff = m_handOff;
        }
    }
    if (handOff) HandOffDone(handOff->HandOff());
}

void ServiceCore::AwaitQuiet() {
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [this] { return m_nBusy == 0; });
}

void ServiceCore::Pause(int ms) {
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait_for(lock, std::chrono::milliseconds(ms), [this] { return Stopping(); });
}

void ServiceCore::Submit(SFMessage* msg, ClientRef sender) {
    auto ticket = std::make_shared<Ticket>(msg, sender, this);
    {
        std::lock_guard<std::mutex> lock(m_lock);
        // A service given a request is complete: the monitor may start its threads.
        if (!m_bConstructed) {
            m_bConstructed = true;
            m_changed.notify_all();
        }
        m_queue.push_back(std::move(ticket));
        m_nQueued.store(m_queue.size(), std::memory_order_release);
        // A request thread asleep is woken on this processor, not on an idle one: waking a
        // thread on another processor costs tens of microseconds on the machines we serve,
        // and this thread is about to sleep anyway. The thread takes back all processors as
        // it wakes. Under the lock, so that the id is that of the thread still in its wait.
        if (m_nSleeperTid != 0 && !m_bSleeperMoved) {
            const int cpu = sched_getcpu();
            if (cpu >= 0) {
                cpu_set_t here;
                CPU_ZERO(&here);
                CPU_SET(cpu, &here);
                m_bSleeperMoved = sched_setaffinity(m_nSleeperTid, sizeof here, &here) == 0;
            }
        }
    }
    // After the lock: the woken thread does not run into it still held.
    m_work.notify_one();
}

SFMessage* ServiceCore::TakeQueuedMessage() {
    std::shared_ptr<Ticket> t;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_queue.empty()) return nullptr;
        t = std::move(m_queue.front());
        m_queue.pop_front();
        m_nQueued.store(m_queue.size(), std::memory_order_release);
    }
    // The caller owns the message now; the ticket, never run, goes without it.
    SFMessage* msg = t->m_pMsg;
    t->m_pMsg = nullptr;
    return msg;
}

bool ServiceCore::HoldForLoop(SFMessage* msg, ClientRef sender, LoopIntake& intake) {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_nTimerFd < 0 || !m_bConstructed || Stopping() || !m_queue.empty() || m_current ||
            m_loopTicket || m_loopRun != LOOP_IDLE || m_bLastRunSlow ||
            m_service->m_bTimeoutHandling)
            return false;
        m_loopTicket = std::make_shared<Ticket>(msg, sender, this);
        m_nLoopBudgetMicros = intake.BudgetMicros();
        ++m_nBusy;  // the loop's thread is counted from here, as a request thread would be
    }
    intake.Hold(this, shared_from_this());
    return true;
}

bool ServiceCore::RunOnLoop(const std::shared_ptr<LoopHandOff>& handOff, int budgetMicros) {
    std::shared_ptr<Ticket> t;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        t = m_loopTicket;
        if (!t || Stopping()) {
            // Dropped with the queued ones: the service stops.
            const bool wake = t && OpenLoopGate(*t);
            if (--m_nBusy == 0) m_changed.notify_all();
            if (wake) m_work.notify_one();
            return true;
        }
        StartLocked(t);
        m_loopRun = LOOP_ACTIVE;
        m_handOff = handOff;
        m_handOffAt = AddMicros(t->m_started, budgetMicros);
        ArmLocked();
    }
    Started(*t);
    if (RunTakenRequest(*m_service, *this, t) == PASS_NEXT) ThreadEnded();
    // The service may be gone from here: only the core is touched.
    bool wake = false;
    bool moved = false;
    {
        std::unique_lock<std::mutex> lock(m_lock);
        // A hand-off asked for as the request ended: its outcome decides whose the loop is.
        m_changed.wait(lock, [this] { return m_loopRun != LOOP_CLAIMED; });
        moved = m_loopRun == LOOP_MOVED;
        m_loopRun = LOOP_IDLE;
        m_handOff.reset();
        wake = OpenLoopGate(*t);  // a request taken away by the service's stop
        ArmLocked(!moved && !Stopping());
    }
    if (wake) m_work.notify_one();
    return !moved;
}

void ServiceCore::DropFromLoop() {
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_loopTicket) return;
        wake = OpenLoopGate(*m_loopTicket);
        if (--m_nBusy == 0) m_changed.notify_all();
    }
    if (wake) m_work.notify_one();
}

bool ServiceCore::OpenLoopGate(const Ticket& t) {
    if (m_loopTicket.get() != &t) return false;
    m_loopTicket.reset();
    return !m_queue.empty();
}

void ServiceCore::ClearQueued() {
    std::deque<std::shared_ptr<Ticket>> queued;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        queued.swap(m_queue);
        m_nQueued.store(0, std::memory_order_release);
    }
}

uint64_t ServiceCore::RequestGeneration() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_nGeneration;
}

void ServiceCore::NewRequestGeneration() {
    std::lock_guard<std::mutex> lock(m_lock);
    ++m_nGeneration;
    m_work.notify_all();
}

std::shared_ptr<ServiceCore::Ticket> ServiceCore::Take(uint64_t generation) {
    std::unique_lock<std::mutex> lock(m_lock);
    auto retired = [&] { return Stopping() || generation != m_nGeneration; };
    if (m_service->m_bTimeoutHandling && !retired()) {
        LogMessage(1, "VORN", "HandleRequest").stream()
            << m_strName << ": Timeout thread is processing. Wait...";
        m_work.wait(lock, [&] { return !m_service->m_bTimeoutHandling || retired(); });
    }
    if (!Ready() && !retired()) {
        // A command usually comes back within the look-ahead window, and a thread still awake
        // takes it without being woken on another processor. Looks without the lock, so that
        // the intake never finds it taken by the look.
        static thread_local bool t_lookAhead = true;
        LookAhead look(t_lookAhead, GetQueueSpinMicros());
        lock.unlock();
        look.Look([this] { return m_nQueued.load(std::memory_order_acquire) != 0 || Stopping(); });
        lock.lock();
        if (!Ready() && !retired()) {
            static thread_local cpu_set_t t_allowed;
            static thread_local bool t_knowsAllowed =
                sched_getaffinity(0, sizeof t_allowed, &t_allowed) == 0;
            m_nSleeperTid = t_knowsAllowed ? static_cast<pid_t>(syscall(SYS_gettid)) : 0;
            m_work.wait(lock, [&] { return Ready() || retired(); });
            m_nSleeperTid = 0;
            if (m_bSleeperMoved) {
                m_bSleeperMoved = false;
                sched_setaffinity(0, sizeof t_allowed, &t_allowed);
            }
            look.Slept();
        }
    }
    if (retired()) return nullptr;
    std::shared_ptr<Ticket> t = std::move(m_queue.front());
    m_queue.pop_front();
    m_nQueued.store(m_queue.size(), std::memory_order_release);
    StartLocked(t);
    ArmLocked();
    lock.unlock();
    Started(*t);
    return t;
}

void ServiceCore::StartLocked(const std::shared_ptr<Ticket>& t) {
    SFMessage* msg = t->m_pMsg;
    t->m_state = Ticket::RUNNING;
    t->m_bInside = true;  // carries this thread's count from here
    t->m_started = Now();
    const int seconds = msg->timeout;
    if (seconds >= 0) {
        const int64_t ms = seconds == 0 ? 15000 : int64_t(seconds) * 1000;
        t->m_deadline = AddMicros(t->m_started, ms * 1000);
        t->m_bHasDeadline = true;
    }
    m_current = t;
    m_service->m_pCurReqMsg = msg;
    gettimeofday(&m_service->m_tvReqStart, nullptr);
}

void ServiceCore::Started(Ticket& t) {
    t_ticket = &t;
    const int seconds = t.m_pMsg->timeout;
    if (seconds == 0) {
        // The text says 60 seconds and the value is 15: both are what devices have always seen.
        if (LogMessage::IsOn(1))
            LogMessage(1, "VORN", "CalculateRequestTimeout").stream()
                << m_strName << ": Timeout is 0, set default timeout value to 60sec";
    } else if (seconds < 0) {
        // No limit, once per request.
        LogMessage(3, "VORN", "CalculateRequestTimeout").stream()
            << m_strName << ": Invalid timeout value detected : Reset timer";
    }
}

void ServiceCore::Away(Ticket& t) {
    if (t.m_nHalDepth++ > 0) return;
    std::lock_guard<std::mutex> lock(m_lock);
    if (t.m_bLeft || !t.m_bInside) return;
    if (t.GetState() == Ticket::RUNNING) t.m_state = Ticket::IN_HAL;
    t.m_bInside = false;
    if (--m_nBusy == 0) m_changed.notify_all();
}

bool ServiceCore::Back(Ticket& t, bool mayStayInside) {
    if (--t.m_nHalDepth > 0) return true;  // the outermost call decides
    std::unique_lock<std::mutex> lock(m_lock);
    m_changed.wait(lock, [&] { return !t.m_bJudging; });
    if (t.m_bLeft) return false;
    const bool timedOut = t.GetState() == Ticket::TIMED_OUT;
    if (Stopping() || (timedOut && !mayStayInside)) {
        Leave(t);
        return false;
    }
    // Still its request; or a timed-out one whose caller (a host's handler) goes on in the
    // service, which is still there and now waits for it again, until the handler ends.
    if (!timedOut) t.m_state = Ticket::RUNNING;
    t.m_bInside = true;
    ++m_nBusy;
    return !timedOut || mayStayInside;
}

void ServiceCore::AwaitTakenAway(Ticket* t) {
    if (!t) {
        // Not a queued request (an internal one, on its caller's thread): nothing will take it
        // away, so it waits for as long as the service lives.
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [this] { return Stopping(); });
        return;
    }
    Away(*t);
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return t->GetState() == Ticket::TIMED_OUT || Stopping(); });
    }
    Back(*t);
}

bool ServiceCore::Finish(Ticket& t) {
    bool wake = false;
    {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait(lock, [&] { return !t.m_bJudging; });
        if (t.m_bLeft) {
            t_ticket = nullptr;
            return false;
        }
        if (t.GetState() == Ticket::TIMED_OUT) {
            Leave(t);
            t_ticket = nullptr;
            return false;
        }
        t.m_state = Ticket::DONE;
        if (m_current.get() == &t) {
            m_current.reset();
            m_service->m_pCurReqMsg = nullptr;
        }
        // The service took this request's timeout on itself: now that it is over, the next
        // request may run.
        if (t.m_bHandled) {
            m_service->m_bTimeoutHandling = false;
            m_work.notify_all();
        }
        // A request that outlived the loop's budget sends the next one to the request thread;
        // one that did not lets the loop's thread run the next one again.
        if (m_nLoopBudgetMicros > 0)
            m_bLastRunSlow = MicrosSince(t.m_started) > m_nLoopBudgetMicros;
        wake = OpenLoopGate(t);
        // A queued request re-arms the timer as it is taken: no need to disarm it first.
        if (m_queue.empty() || m_loopRun != LOOP_IDLE) ArmLocked();
    }
    t_ticket = nullptr;
    if (wake) m_work.notify_one();
    return true;
}

void ServiceCore::Leave(Ticket& t) {
    t.m_bLeft = true;
    if (t.m_bInside) {
        t.m_bInside = false;
        if (--m_nBusy == 0) m_changed.notify_all();
    }
    if (t.GetState() == Ticket::TIMED_OUT && --m_nLeftBehind < GetHeldCallLimit() &&
        m_nRefused > 0) {
        LogMessage(3, "VORN", "HandleRequest").stream()
            << m_strName << " serves HAL-backed commands again; " << m_nRefused << " refused while "
            << GetHeldCallLimit() << " threads were held by HAL calls";
        m_nRefused = 0;
    }
}

bool ServiceCore::RefuseHalCall() {
    std::lock_guard<std::mutex> lock(m_lock);
    const int limit = GetHeldCallLimit();
    if (limit <= 0 || m_nLeftBehind < limit) return false;
    if (m_nRefused++ == 0)
        LogMessage(4, "VORN", "HandleRequest").stream()
            << m_strName << " refuses HAL-backed commands with 1009: " << m_nLeftBehind
            << " threads are still held by HAL calls that timed out";
    return true;
}

void ServiceCore::ArmLocked(bool loopRunEnded) {
    if (m_nTimerFd < 0) return;
    // Arming wakes nobody: the monitor wakes when the time passes.
    bool any = false;
    timespec at{0, 0};
    const Ticket* t = m_current.get();
    if (t && t->m_bHasDeadline && !t->m_bHandled) {
        at = t->m_deadline;
        any = true;
    }
    if (m_loopRun == LOOP_ACTIVE && (!any || !NotBefore(m_handOffAt, at))) {
        at = m_handOffAt;
        any = true;
    }
    bool ahead = false;
    if (!any && loopRunEnded) {
        // Armed ahead for the loop's next run: a station's next command usually comes within
        // the budget, and then finds the timer armed early enough already, with no call on its
        // way. When none comes, the monitor wakes once at this time and leaves it disarmed.
        // A timer still ahead by half a budget or more is left as it is, so that a busy station
        // costs one call per half budget instead of one per command: a run that outlasts it
        // finds the monitor re-arming the timer for the run's own budget.
        const timespec now = Now();
        if (m_bArmed && m_bArmedAhead &&
            NotBefore(m_armedAt, AddMicros(now, m_nLoopBudgetMicros / 2)))
            return;
        at = AddMicros(now, m_nLoopBudgetMicros);
        any = ahead = true;
    }
    if (any) {
        if (m_bArmed && m_armedAt.tv_sec == at.tv_sec && m_armedAt.tv_nsec == at.tv_nsec) return;
        // Armed ahead for an earlier time than needed: the monitor re-arms it when it fires.
        if (m_bArmed && m_bArmedAhead && !ahead && !NotBefore(m_armedAt, at)) return;
        itimerspec when{};
        when.it_value = at;
        timerfd_settime(m_nTimerFd, TFD_TIMER_ABSTIME, &when, nullptr);
        m_bArmed = true;
        m_bArmedAhead = ahead;
        m_armedAt = at;
    } else if (m_bArmed) {
        const itimerspec off{};
        timerfd_settime(m_nTimerFd, 0, &off, nullptr);
        m_bArmed = false;
    }
}

std::shared_ptr<LoopHandOff> ServiceCore::OnTimer() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_bArmed = false;  // a one-shot timer that fired is disarmed
    std::shared_ptr<LoopHandOff> handOff;
    if (m_loopRun == LOOP_ACTIVE && NotBefore(Now(), m_handOffAt)) {
        m_loopRun = LOOP_CLAIMED;
        handOff = m_handOff;
        m_bLastRunSlow = true;
    }
    ArmLocked();
    return handOff;
}

void ServiceCore::HandOffDone(bool moved) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_loopRun = moved ? LOOP_MOVED : LOOP_STAYED;
    m_changed.notify_all();
}

std::shared_ptr<ServiceCore::Ticket> ServiceCore::ClaimDue() {
    std::lock_guard<std::mutex> lock(m_lock);
    const std::shared_ptr<Ticket>& t = m_current;
    if (!t || t->m_bJudging || t->m_bHandled || !t->m_bHasDeadline) return nullptr;
    const int state = t->GetState();
    if (state != Ticket::RUNNING && state != Ticket::IN_HAL) return nullptr;
    if (!NotBefore(Now(), t->m_deadline)) return nullptr;
    t->m_bJudging = true;
    return t;
}

std::shared_ptr<ServiceCore::Ticket> ServiceCore::ClaimCurrent() {
    std::lock_guard<std::mutex> lock(m_lock);
    const std::shared_ptr<Ticket>& t = m_current;
    if (!t || t->m_bJudging) return nullptr;
    const int state = t->GetState();
    if (state != Ticket::RUNNING && state != Ticket::IN_HAL) return nullptr;
    t->m_bJudging = true;
    return t;
}

void ServiceCore::HandBack(Ticket& t) {
    std::lock_guard<std::mutex> lock(m_lock);
    t.m_bJudging = false;
    t.m_bHandled = true;
    m_changed.notify_all();
}

void ServiceCore::Abandon(Ticket& t) {
    std::lock_guard<std::mutex> lock(m_lock);
    t.m_bJudging = false;
    t.m_state = Ticket::TIMED_OUT;
    if (!t.m_bLeft) ++m_nLeftBehind;
    if (m_current.get() == &t) {
        m_current.reset();
        m_service->m_pCurReqMsg = nullptr;
    }
    if (m_nLoopBudgetMicros > 0) m_bLastRunSlow = true;
    if (OpenLoopGate(t)) m_work.notify_one();
    m_changed.notify_all();
}

void ServiceCore::RunCancel(Ticket& t) {
    std::function<void()> cancel;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        cancel.swap(t.m_cancel);
    }
    if (cancel) cancel();
}

void ServiceCore::SetTimeoutHandling(bool on) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_service->m_bTimeoutHandling = on;
    if (!on) m_work.notify_all();
}

bool ServiceCore::TimeoutHandling() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_service->m_bTimeoutHandling;
}

int ServiceCore::TimeLeft(timespec& left) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (!m_current || !m_current->m_bHasDeadline) return -1;
    const timespec now = Now();
    const timespec& end = m_current->m_deadline;
    if (NotBefore(now, end)) {
        left = {0, 0};
        return 0;
    }
    left.tv_sec = end.tv_sec - now.tv_sec;
    left.tv_nsec = end.tv_nsec - now.tv_nsec;
    if (left.tv_nsec < 0) {
        left.tv_sec -= 1;
        left.tv_nsec += 1000000000;
    }
    return 0;
}

bool ServiceCore::SendDirect(SFMessage* reply, ClientRef sender) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_nQueuedReplies == 0 && !m_bQueuedSending && !m_bDirectSending) {
        m_bDirectSending = true;
        return true;
    }
    // Behind what is queued or being sent: in the queue, in the same order as its sender.
    // The queue's own lock is only ever taken inside this one, never the other way round.
    ++m_nQueuedReplies;
    m_senders.push_back(sender);
    m_service->m_respQueue.enqueue(reply);
    return false;
}

void ServiceCore::DirectSent() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_bDirectSending = false;
    if (m_bResponseWaits) m_changed.notify_all();
}

ClientRef ServiceCore::BeginQueuedReply() {
    std::unique_lock<std::mutex> lock(m_lock);
    m_bResponseWaits = true;
    m_changed.wait(lock, [this] { return !m_bDirectSending; });
    m_bResponseWaits = false;
    ClientRef sender;
    if (!m_senders.empty()) {
        sender = m_senders.front();
        m_senders.pop_front();
    }
    if (m_nQueuedReplies > 0) --m_nQueuedReplies;
    m_bQueuedSending = true;
    return sender;
}

void ServiceCore::EndQueuedReply() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_bQueuedSending = false;
}

void ServiceCore::ClearQueuedReplies() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_service->m_respQueue.SetActive(false);
    m_service->m_respQueue.clear();
    m_senders.clear();
    m_nQueuedReplies = 0;
}

ClientRef ServiceCore::CurrentSender() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_current ? m_current->m_sender : ClientRef{};
}

std::shared_ptr<ServiceCore::Ticket> ServiceCore::RunningTicket() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_current;
}

int ServiceCore::LeftBehind() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_nLeftBehind;
}
