#ifndef VORN_PLATFORM_LOOKAHEAD_H
#define VORN_PLATFORM_LOOKAHEAD_H

#include <sched.h>

#include <chrono>

// A thread about to sleep for something that usually comes within microseconds (the next
// command, a HAL host's answer) first looks for it for a short window, yielding the processor
// between looks: what comes within the window costs no wake-up of the thread on another
// processor. While what it waits for comes slower than the window, looking is off and the
// thread sleeps at once, so slow traffic and idle time cost no spinning; a sleep that ended
// within twice the window (the wake-up itself costs about as much again) turns it on again.
//
// One per wait. `on` is the waiting thread's own flag, kept by the caller between its waits.
class LookAhead {
public:
    using Clock = std::chrono::steady_clock;

    LookAhead(bool& on, int micros) : m_on(on), m_micros(micros), m_start(Clock::now()) {}

    // Looks until `found()` holds or the window ends; true when it held. False at once while
    // looking is off or the window is 0.
    template <typename Found>
    bool Look(Found found) {
        if (m_micros <= 0 || !m_on) return false;
        const Clock::time_point until = m_start + std::chrono::microseconds(m_micros);
        for (;;) {
            if (found()) return true;
            if (Clock::now() >= until) break;
            // A yield, not a pause: the thread that brings it may need this very processor.
            sched_yield();
        }
        m_on = false;
        return false;
    }

    // After the sleep that the look did not spare.
    void Slept() {
        if (m_micros > 0) m_on = Clock::now() < m_start + std::chrono::microseconds(2 * m_micros);
    }

private:
    bool& m_on;
    const int m_micros;
    const Clock::time_point m_start;
};

#endif
