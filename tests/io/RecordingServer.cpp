#include "io/RecordingServer.h"

#include "support/TestSupport.h"

RecordingServer::RecordingServer(const std::string& name) : CmdIOService(name.c_str()) {
    CmdIOCallback(&RecordingServer::Record, this);
}

RecordingServer* RecordingServer::Launch(const std::string& stem) {
    RecordingServer* server = new RecordingServer(vorn_test::UniqueSocketName(stem));
    server->CmdIOStart();
    return server;
}

int RecordingServer::Record(char const* command, int length, void* context) {
    auto* self = static_cast<RecordingServer*>(context);
    std::unique_lock<std::mutex> lock(self->m_lock);
    self->m_received.emplace_back(command, static_cast<size_t>(length));
    self->m_loopThread = pthread_self();
    self->m_changed.wait(lock, [self] { return !self->m_held; });
    return 0;
}

std::vector<std::string> RecordingServer::Received() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_received;
}

bool RecordingServer::AwaitCount(size_t count) const {
    return vorn_test::Await([&] { return Received().size() >= count; });
}

pthread_t RecordingServer::LoopThread() const {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_loopThread;
}

void RecordingServer::Hold() {
    std::lock_guard<std::mutex> lock(m_lock);
    m_held = true;
}

void RecordingServer::Let() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_held = false;
    }
    m_changed.notify_all();
}
