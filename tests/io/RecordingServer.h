#ifndef VORN_TESTS_IO_RECORDINGSERVER_H
#define VORN_TESTS_IO_RECORDINGSERVER_H

#include <pthread.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "io/CmdIOService.h"
#include "io/ReplyRoute.h"
#include "support/TestSupport.h"

// A command I/O service whose callback records every transmission and the loop thread, and can
// hold the loop thread inside the callback.
class RecordingServer : public CmdIOService {
public:
    explicit RecordingServer(const std::string& name) : CmdIOService(name.c_str()) {
        CmdIOCallback(&RecordingServer::Record, this);
    }
    // The loop's callback uses this object's members: the loop ends before they go.
    ~RecordingServer() override {
        m_held = false;
        Stop();
    }

    // A started server on a fresh name.
    static std::unique_ptr<RecordingServer> Launch(const std::string& stem) {
        std::unique_ptr<RecordingServer> server(
            new RecordingServer(vorn_test::UniqueSocketName(stem)));
        server->CmdIOStart();
        return server;
    }

    std::vector<std::string> Received() const {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_received;
    }
    // The reply scope each transmission was delivered in.
    ClientRef Sender(size_t index) const {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_senders.at(index);
    }
    bool AwaitCount(size_t count) const {
        return vorn_test::Await([&] { return Received().size() >= count; });
    }
    pthread_t LoopThread() const {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_loopThread;
    }
    // While held, the next transmission keeps the loop thread inside the callback.
    void Hold(bool held) { m_held = held; }

    std::string Name() const { return m_pSocketName; }
    int ClientFd(int slot) const { return m_nClientFds[slot]; }
    int ServerFd() const { return __atomic_load_n(&m_nServerFd, __ATOMIC_ACQUIRE); }
    void* ReplyTarget() const { return m_pReplyTarget; }

private:
    static int Record(char const* command, int length, void* context) {
        auto* self = static_cast<RecordingServer*>(context);
        {
            std::lock_guard<std::mutex> lock(self->m_lock);
            self->m_received.emplace_back(command, static_cast<size_t>(length));
            self->m_senders.push_back(ReplyRoute::Current());
            self->m_loopThread = pthread_self();
        }
        vorn_test::Await([self] { return !self->m_held; }, std::chrono::milliseconds(10000));
        return 0;
    }

    mutable std::mutex m_lock;  // guards m_received, m_senders and m_loopThread
    std::vector<std::string> m_received;
    std::vector<ClientRef> m_senders;
    pthread_t m_loopThread{};
    std::atomic<bool> m_held{false};  // set by the test thread, read by the loop thread
};

#endif
