#include "platform/Thread.h"

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace {
// kClaimed: inside a foreign call that an owner is deciding whether to take away.
enum Phase { kNotStarted, kRunning, kInCall, kClaimed, kPreempted, kDone };
}  // namespace

struct ThreadState {
    Runnable* runnable = nullptr;
    std::atomic<bool> abandoned{false};
    std::mutex lock;  // guards phase changes that others wait for, and cleanups
    std::condition_variable changed;
    std::atomic<int> phase{kNotStarted};
    std::vector<std::function<void()>> cleanups;
};

namespace {
thread_local ThreadState* t_self = nullptr;

void RunCleanups(std::vector<std::function<void()>>& cleanups) {
    for (auto& c : cleanups) c();
    cleanups.clear();
}

void* Trampoline(void* arg) {
    // The thread holds its own reference: the state outlives the Thread object.
    std::unique_ptr<std::shared_ptr<ThreadState>> holder(
        static_cast<std::shared_ptr<ThreadState>*>(arg));
    std::shared_ptr<ThreadState> state = *holder;
    holder.reset();
    t_self = state.get();
    Runnable* runnable = nullptr;
    {
        std::lock_guard<std::mutex> lock(state->lock);
        if (!state->abandoned.load()) runnable = state->runnable;
    }
    if (runnable) runnable->Run();
    std::vector<std::function<void()>> cleanups;
    {
        std::lock_guard<std::mutex> lock(state->lock);
        state->phase.store(kDone);
        cleanups.swap(state->cleanups);
    }
    state->changed.notify_all();
    RunCleanups(cleanups);
    t_self = nullptr;
    return nullptr;
}
}  // namespace

Thread::Thread(Runnable* runnable) : m_state(std::make_shared<ThreadState>()), m_bStarted(false) {
    m_state->runnable = runnable;
}

Thread::~Thread() {
    std::vector<std::function<void()>> cleanups;
    {
        std::lock_guard<std::mutex> lock(m_state->lock);
        m_state->abandoned.store(true);
        const int current = m_state->phase.load();
        if (current == kInCall || current == kClaimed) m_state->phase.store(kPreempted);
        // A thread that never ran, or has ended, will never run its cleanups itself.
        const int phase = m_state->phase.load();
        if (phase == kNotStarted || phase == kDone) cleanups.swap(m_state->cleanups);
        m_state->runnable = nullptr;
    }
    m_state->changed.notify_all();
    RunCleanups(cleanups);
}

int Thread::Start() {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return -1;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    auto* arg = new std::shared_ptr<ThreadState>(m_state);
    m_state->phase.store(kRunning);
    pthread_t tid;
    const int rc = pthread_create(&tid, &attr, Trampoline, arg);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        m_state->phase.store(kNotStarted);
        delete arg;
        return -1;
    }
    m_bStarted = true;
    return 0;
}

bool Thread::Preempt() {
    std::lock_guard<std::mutex> lock(m_state->lock);
    int expected = kInCall;
    const bool done = m_state->phase.compare_exchange_strong(expected, kPreempted);
    if (done) m_state->abandoned.store(true);
    return done;
}

bool Thread::Claim() {
    std::lock_guard<std::mutex> lock(m_state->lock);
    int expected = kInCall;
    return m_state->phase.compare_exchange_strong(expected, kClaimed);
}

void Thread::Resolve(bool takeAway) {
    {
        std::lock_guard<std::mutex> lock(m_state->lock);
        if (m_state->phase.load() != kClaimed) return;
        m_state->phase.store(takeAway ? kPreempted : kInCall);
        if (takeAway) m_state->abandoned.store(true);
    }
    m_state->changed.notify_all();
}

void Thread::Quiesce() {
    std::unique_lock<std::mutex> lock(m_state->lock);
    m_state->changed.wait(lock, [this] {
        int phase = m_state->phase.load();
        if (phase == kInCall) {
            m_state->phase.store(kPreempted);
            m_state->abandoned.store(true);
            return true;
        }
        return phase != kRunning && phase != kClaimed;  // a claim is resolved by its owner
    });
}

void Thread::DeferToReturn(std::function<void()> cleanup) {
    {
        std::lock_guard<std::mutex> lock(m_state->lock);
        const int phase = m_state->phase.load();
        if (phase != kNotStarted && phase != kDone) {
            m_state->cleanups.push_back(std::move(cleanup));
            return;
        }
    }
    cleanup();
}

void Thread::BeginForeignCall() {
    ThreadState* s = t_self;
    if (!s) return;
    {
        std::lock_guard<std::mutex> lock(s->lock);
        if (s->phase.load() == kRunning) s->phase.store(kInCall);
    }
    s->changed.notify_all();
}

bool Thread::EndForeignCall() {
    ThreadState* s = t_self;
    if (!s) return true;
    std::vector<std::function<void()>> cleanups;
    bool mine = true;
    {
        std::unique_lock<std::mutex> lock(s->lock);
        // An owner that holds the call is deciding whether to take it away: wait for that.
        s->changed.wait(lock, [s] { return s->phase.load() != kClaimed; });
        if (s->phase.load() == kInCall) {
            s->phase.store(kRunning);
        } else {
            mine = false;
            cleanups.swap(s->cleanups);
        }
    }
    RunCleanups(cleanups);
    return mine;
}

bool Thread::IsCurrentAbandoned() {
    ThreadState* s = t_self;
    return s && s->abandoned.load();
}
