#ifndef VORN_TESTS_IO_RECORDINGSERVER_H
#define VORN_TESTS_IO_RECORDINGSERVER_H

#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "io/CmdIOService.h"

// A command I/O service whose callback records every transmission and the loop thread, and can
// hold the loop thread inside the callback.
class RecordingServer : public CmdIOService {
public:
    explicit RecordingServer(const std::string& name);

    // A started server on a fresh name. Never deleted: its detached loop thread runs for the
    // life of the test process.
    static RecordingServer* Launch(const std::string& stem);

    std::vector<std::string> Received() const;
    bool AwaitCount(size_t count) const;
    pthread_t LoopThread() const;
    // While held, the next transmission keeps the loop thread inside the callback.
    void Hold();
    void Let();

    std::string Name() const { return m_pSocketName; }
    int ClientFd(int slot) const { return m_nClientFds[slot]; }
    int ServerFd() const { return m_nServerFd; }
    void* ReplyTarget() const { return m_pReplyTarget; }

private:
    static int Record(char const* command, int length, void* context);

    mutable std::mutex m_lock;  // guards everything below
    std::condition_variable m_changed;
    std::vector<std::string> m_received;
    pthread_t m_loopThread{};
    bool m_held = false;
};

#endif
