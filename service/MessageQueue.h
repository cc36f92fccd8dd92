#ifndef VORN_SERVICE_MESSAGEQUEUE_H
#define VORN_SERVICE_MESSAGEQUEUE_H

#include <pthread.h>

#include <cstddef>
#include <deque>

#include "core/VornExport.h"
#include "platform/LookAhead.h"

// How long, in microseconds, a consumer that finds its queue empty keeps looking (yielding the
// processor between looks) before it sleeps on the queue's condition. A command usually comes
// back within that window, and a thread that is still awake takes it without the cost of being
// woken on another processor. 0 sleeps at once. Process-wide, 50 unless the host sets it (vornd
// has an option for it).
VORN_EXPORT int GetQueueSpinMicros();
VORN_EXPORT void SetQueueSpinMicros(int micros);

// A queue of owned message pointers. While active, dequeue waits once on an empty queue.
template <typename T>
class MessageQueue {
public:
    MessageQueue() : m_bActive(false) {
        pthread_mutex_init(&m_mutex, nullptr);
        pthread_cond_init(&m_cond, nullptr);
    }
    ~MessageQueue() {
        for (T* msg : m_queue) delete msg;
        m_queue.clear();
        pthread_cond_destroy(&m_cond);
        pthread_mutex_destroy(&m_mutex);
    }
    MessageQueue(const MessageQueue&) = delete;
    MessageQueue& operator=(const MessageQueue&) = delete;

    void enqueue(T* msg) {
        pthread_mutex_lock(&m_mutex);
        m_queue.push_back(msg);
        if (m_bActive) pthread_cond_broadcast(&m_cond);
        pthread_mutex_unlock(&m_mutex);
    }

    // One wait at most: a wake-up that finds the queue empty returns null. Producers keep
    // broadcasting under the lock, so the look-ahead below needs nothing from them; a
    // broadcast with nobody asleep costs no system call.
    T* dequeue() {
        pthread_mutex_lock(&m_mutex);
        if (m_bActive && m_queue.empty()) WaitOnce();
        T* msg = nullptr;
        if (!m_queue.empty()) {
            msg = m_queue.front();
            m_queue.pop_front();
        }
        pthread_mutex_unlock(&m_mutex);
        return msg;
    }

    void clear() {
        pthread_mutex_lock(&m_mutex);
        while (!m_queue.empty()) {
            T* msg = m_queue.front();
            m_queue.pop_front();
            delete msg;
        }
        pthread_mutex_unlock(&m_mutex);
    }

    // Clearing the flag also wakes every waiter, so a thread blocked in dequeue can leave.
    void SetActive(bool active) {
        pthread_mutex_lock(&m_mutex);
        m_bActive = active;
        pthread_cond_broadcast(&m_cond);
        pthread_mutex_unlock(&m_mutex);
    }

    size_t size() {
        pthread_mutex_lock(&m_mutex);
        size_t n = m_queue.size();
        pthread_mutex_unlock(&m_mutex);
        return n;
    }

private:
    // Called and left with the lock held: at most one sleep on the condition, after a bounded
    // look-ahead, so a queue that stays empty costs no processor time. Each consumer thread
    // takes from one queue only, so its own look-ahead flag speaks for this queue.
    void WaitOnce() {
        static thread_local bool t_lookAhead = true;
        LookAhead look(t_lookAhead, GetQueueSpinMicros());
        // The looks take the lock; a look that found something keeps it.
        pthread_mutex_unlock(&m_mutex);
        const bool found = look.Look([this] {
            pthread_mutex_lock(&m_mutex);
            if (!m_bActive || !m_queue.empty()) return true;
            pthread_mutex_unlock(&m_mutex);
            return false;
        });
        if (found) return;
        pthread_mutex_lock(&m_mutex);
        if (!m_bActive || !m_queue.empty()) return;
        pthread_cond_wait(&m_cond, &m_mutex);
        look.Slept();
    }

    pthread_mutex_t m_mutex;  // guards m_queue and m_bActive
    pthread_cond_t m_cond;    // signalled when a message is added or the queue is switched
    std::deque<T*> m_queue;
    bool m_bActive;
};

#endif
