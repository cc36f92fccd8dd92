#include "platform/Thread.h"

#include <pthread.h>

struct ThreadState {
    Runnable* runnable = nullptr;  // read once by the thread as it starts
};

namespace {
void* Trampoline(void* arg) {
    std::unique_ptr<std::shared_ptr<ThreadState>> holder(
        static_cast<std::shared_ptr<ThreadState>*>(arg));
    Runnable* runnable = (*holder)->runnable;
    holder.reset();
    if (runnable) runnable->Run();
    return nullptr;
}
}  // namespace

Thread::Thread(Runnable* runnable) : m_state(std::make_shared<ThreadState>()), m_bStarted(false) {
    m_state->runnable = runnable;
}

Thread::~Thread() = default;

int Thread::Start() {
    pthread_attr_t attr;
    if (pthread_attr_init(&attr) != 0) return -1;
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    auto* arg = new std::shared_ptr<ThreadState>(m_state);
    pthread_t tid;
    const int rc = pthread_create(&tid, &attr, Trampoline, arg);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        delete arg;
        return -1;
    }
    m_bStarted = true;
    return 0;
}
