#ifndef VORN_PLATFORM_THREAD_H
#define VORN_PLATFORM_THREAD_H

#include <memory>

#include "platform/Runnable.h"

struct ThreadState;

// A detached pthread running one Runnable.
//
// Deleting a Thread never blocks and never cancels: the thread may be stuck in a HAL call for
// ever. Whoever owns the runnable knows by its own means when the thread no longer touches it
// (the engine's threads are accounted for by their service's core), and a Run that may outlive
// its runnable keeps what it needs in locals.
class Thread {
public:
    explicit Thread(Runnable* runnable);
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // 0 when the thread runs, negative on failure.
    int Start();

private:
    std::shared_ptr<ThreadState> m_state;
    bool m_bStarted;
};

#endif
