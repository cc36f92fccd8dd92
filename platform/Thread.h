#ifndef VORN_PLATFORM_THREAD_H
#define VORN_PLATFORM_THREAD_H

#include <functional>
#include <memory>

#include "platform/Runnable.h"

struct ThreadState;

// A detached pthread running one Runnable.
//
// Deleting a Thread never blocks and never cancels: the thread may be stuck in a HAL call for
// ever. Instead the thread is marked abandoned. Code that calls out of the engine (a handler, a
// HAL function) brackets the call with BeginForeignCall/EndForeignCall; when EndForeignCall
// returns false the Thread was deleted or preempted meanwhile, and the caller must unwind to
// its Run loop without touching any shared object (the runnable, the service, the message).
// What such a thread still owns is released by the cleanups handed to it with DeferToReturn.
class Thread {
public:
    explicit Thread(Runnable* runnable);
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // 0 when the thread runs, negative on failure.
    int Start();

    // Owner side. If the thread is inside a foreign call, takes the call away from it: the
    // thread will find EndForeignCall false. True when it did so.
    bool Preempt();
    // Owner side, in two steps: Claim holds a thread that is inside a foreign call where it is
    // (coming back, it waits in EndForeignCall) and is true when it did so; Resolve then either
    // takes the call away (as Preempt) or hands it back untouched.
    bool Claim();
    void Resolve(bool takeAway);
    // Owner side: waits until the thread has left engine code, that is until it has ended, has
    // not started, or sits in a foreign call (which is then preempted). The owner must first
    // give the thread a reason to leave its loop (a stop flag and a wake-up).
    void Quiesce();
    // Owner side: a cleanup run by the thread when it comes back from a preempted call. If the
    // thread has already ended, or never started, it runs at once on the caller.
    void DeferToReturn(std::function<void()> cleanup);

    // Thread side, about the calling thread (false/true for threads not started by Thread).
    static void BeginForeignCall();
    static bool EndForeignCall();
    static bool IsCurrentAbandoned();

private:
    std::shared_ptr<ThreadState> m_state;
    bool m_bStarted;
};

#endif
