#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "io/RecordingServer.h"
#include "support/TestSupport.h"

using vorn_test::Await;
using vorn_test::Client;
using vorn_test::LogCapture;
using namespace std::chrono_literals;

TEST(SocketServer, TransmissionsArriveWholeUpToEightChunks) {
    LogCapture log;
    auto server = RecordingServer::Launch("chunk");
    Client client;
    ASSERT_TRUE(client.Connect(server->Name()));
    // Empty text never reaches the callback.
    ASSERT_TRUE(client.Send(std::string(1, '\0')));
    ASSERT_TRUE(Await([&] { return server->ReplyTarget() != nullptr; }));
    const int fd = server->ClientFd(0);
    EXPECT_TRUE(fcntl(server->ServerFd(), F_GETFD) & FD_CLOEXEC);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);

    ASSERT_TRUE(client.Send(std::string(3071, 'a')));
    ASSERT_TRUE(server->AwaitCount(1));
    EXPECT_TRUE(log.Has("received size =3071", "Run", 1));
    // A full chunk reads on until the socket is empty.
    ASSERT_TRUE(client.Send(std::string(3072, 'b')));
    ASSERT_TRUE(server->AwaitCount(2));
    EXPECT_TRUE(log.Has("No data to read,Receive completed!!!", "Run", 4));
    EXPECT_TRUE(Await([&] { return !(fcntl(fd, F_GETFL) & O_NONBLOCK); }));
    // A long one is cut after eight chunks.
    std::string payload;
    for (int i = 0; i < 30000; ++i) payload += static_cast<char>('a' + i % 26);
    ASSERT_TRUE(client.Send(payload));
    ASSERT_TRUE(server->AwaitCount(4));
    EXPECT_EQ(server->Received(),
              (std::vector<std::string>{std::string(3071, 'a'), std::string(3072, 'b'),
                                        payload.substr(0, 24576), payload.substr(24576)}));
}

TEST(SocketServer, FifthClientIsAcceptedButNeverReadAndAFreedSlotIsReused) {
    LogCapture log;
    auto server = RecordingServer::Launch("five");
    std::array<Client, 5> clients;
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(clients[i].Connect(server->Name()));
        ASSERT_TRUE(clients[i].Send("JXT+C" + std::to_string(i)));
        ASSERT_TRUE(server->AwaitCount(i + 1));
    }
    ASSERT_TRUE(clients[4].Connect(server->Name()));
    ASSERT_TRUE(log.AwaitLine("Not allow new connection. Reach the limit numer (4)", "AddClient"));
    ASSERT_TRUE(clients[4].Send("JXT+FIFTH"));
    ASSERT_TRUE(clients[0].Send("JXT+AFTER"));
    ASSERT_TRUE(server->AwaitCount(5));
    EXPECT_EQ("JXT+AFTER", server->Received()[4]);

    clients[2].Close();
    ASSERT_TRUE(Await([&] { return server->ClientFd(2) == -1; }));
    Client next;
    ASSERT_TRUE(next.Connect(server->Name()));
    ASSERT_TRUE(next.Send("JXT+NEXT"));
    ASSERT_TRUE(server->AwaitCount(6));
    EXPECT_EQ("JXT+NEXT", server->Received()[5]);
    EXPECT_NE(-1, server->ClientFd(2));

    // With promotion on, the waiting fifth takes the next slot that frees, and what it sent
    // while it waited is read.
    server->SetPromoteWaiting(true);
    clients[3].Close();
    ASSERT_TRUE(server->AwaitCount(7));
    EXPECT_EQ("JXT+FIFTH", server->Received()[6]);
}

TEST(SocketServer, StopEndsTheLoopWithoutASignalAndDeletingIsSafeWhileItRuns) {
    LogCapture log;
    auto server = RecordingServer::Launch("stop");
    Client client;
    ASSERT_TRUE(client.Connect(server->Name()));
    ASSERT_TRUE(client.Send("JXT+A"));
    ASSERT_TRUE(server->AwaitCount(1));
    EXPECT_EQ(-1, server->GetLoopResult());
    EXPECT_EQ(0, server->Stop());  // back once the loop thread has ended
    EXPECT_EQ(0, server->GetLoopResult());
    EXPECT_TRUE(log.Has("socket loop stopped", "Run", 2));
    ASSERT_TRUE(client.Send("JXT+B"));
    EXPECT_FALSE(Await([&] { return server->Received().size() > 1; }, 100ms));
    ASSERT_EQ(0, server->Start());  // started again, it serves again
    ASSERT_TRUE(server->AwaitCount(2));

    // Deleted while a client keeps sending: the loop ends before anything it reads goes, and
    // the socket's name is free again.
    const std::string name = server->Name();
    std::atomic<bool> sending{true};
    std::thread sender([&] {
        while (sending && client.Send("JXT+C")) {
        }
    });
    ASSERT_TRUE(server->AwaitCount(10));
    server.reset();
    sending = false;
    sender.join();
    RecordingServer again(name);
    EXPECT_EQ(0, again.Start());
}

TEST(SocketServer, ListenerReplacedUnderTheLoopEndsItAndTellsTheHost) {
    LogCapture log;
    RecordingServer server(vorn_test::UniqueSocketName("lost"));
    std::atomic<int> ended{-1};
    server.SetLoopEndCallback(
        [](int result, void* context) { static_cast<std::atomic<int>*>(context)->store(result); },
        &ended);
    ASSERT_EQ(0, server.Start());
    Client client;
    ASSERT_TRUE(client.Connect(server.Name()));
    ASSERT_TRUE(client.Send("JXT+A"));
    ASSERT_TRUE(server.AwaitCount(1));
    // As a HAL that closes descriptors it does not own: the number now names another file.
    const int fd = server.ServerFd();
    const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(fd, dup2(other, fd));
    close(other);
    Client next;
    next.Connect(server.Name());  // the loop wakes for the listener, and finds it replaced
    ASSERT_TRUE(client.Send("JXT+B"));
    ASSERT_TRUE(Await([&] { return ended == 1005; }));
    EXPECT_EQ(1005, server.GetLoopResult());
    EXPECT_TRUE(log.Has("listening socket lost (fd=" + std::to_string(fd) +
                            "): no client can connect any more; the loop ends",
                        "Run", 4));
    EXPECT_EQ(1u, server.Received().size());
    close(fd);  // the server leaves a lost number alone
}

TEST(SocketServer, SignalDuringSelectEndsTheLoop) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};  // no SA_RESTART: select returns EINTR
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
    LogCapture log;
    auto* server = new RecordingServer(vorn_test::UniqueSocketName("signal"));
    ASSERT_EQ(0, server->Start());
    Client client;
    ASSERT_TRUE(client.Connect(server->Name()));
    ASSERT_TRUE(client.Send("JXT+A"));
    ASSERT_TRUE(server->AwaitCount(1));
    // A signal that lands before the loop is back in select is missed; send until it ends.
    ASSERT_TRUE(Await([&] {
        pthread_kill(server->LoopThread(), SIGUSR1);
        return Await([&] { return log.Has("got signal", "Run"); }, std::chrono::milliseconds(20));
    }));
    EXPECT_TRUE(Await([&] { return server->GetLoopResult() == EINTR; }));
    delete server;  // the loop has ended for good
}

TEST(SocketServer, ServerWithoutSocketRefusesToStart) {
    LogCapture log;
    auto first = RecordingServer::Launch("taken");
    RecordingServer second(first->Name());
    EXPECT_TRUE(
        log.Has("socket_local_server create fail. sockname=" + first->Name(), "InitServerSock", 4));
    EXPECT_EQ(1005, second.Start());
    EXPECT_EQ(0, second.CmdIOStart());

    RecordingServer longName(std::string(300, 'n'));
    EXPECT_EQ(std::string(255, 'n'), longName.Name());
}

// Hosts are compiled against the documented fields: what the front end adds lives beside the
// object, so the size and every offset stay those of this record.
struct DocumentedLayout {
    void* vtable;
    char* name;
    int clientFds[Processer::kMaxClients];
    int lastClientFd;
    pthread_t thread;
    int serverFd;
    unsigned char* recvBuf;
    pthread_cond_t cond;
    pthread_mutex_t mutex;
    pthread_attr_t attr;
    fd_set readSet;
    // CmdIOService
    void* staging;
    void* replyTarget;
    void* callbackContext;
    void* callback;
};

class LayoutProbe : public CmdIOService {
public:
    LayoutProbe() : CmdIOService(vorn_test::UniqueSocketName("layout").c_str()) {}
    std::vector<size_t> Offsets() const {
        const auto* base = reinterpret_cast<const char*>(static_cast<const Processer*>(this));
        std::vector<size_t> at;
        for (const void* field :
             {(const void*)&m_pSocketName, (const void*)&m_nClientFds,
              (const void*)&m_nLastClientFd, (const void*)&m_thread, (const void*)&m_nServerFd,
              (const void*)&m_pRecvBuf, (const void*)&m_cond, (const void*)&m_mutex,
              (const void*)&m_attr, (const void*)&m_readSet, (const void*)&m_pStaging,
              (const void*)&m_pReplyTarget, (const void*)&m_pCallbackContext,
              (const void*)&m_pCallback})
            at.push_back(static_cast<size_t>(static_cast<const char*>(field) - base));
        return at;
    }
    int HandleResponse(unsigned char const*, int, void*) override { return 0; }
};

TEST(SocketServer, ExportedClassesKeepTheirDocumentedLayout) {
    EXPECT_EQ(sizeof(DocumentedLayout), sizeof(CmdIOService));
    EXPECT_EQ(offsetof(DocumentedLayout, staging), sizeof(Processer));
    const std::vector<size_t> expected{offsetof(DocumentedLayout, name),
                                       offsetof(DocumentedLayout, clientFds),
                                       offsetof(DocumentedLayout, lastClientFd),
                                       offsetof(DocumentedLayout, thread),
                                       offsetof(DocumentedLayout, serverFd),
                                       offsetof(DocumentedLayout, recvBuf),
                                       offsetof(DocumentedLayout, cond),
                                       offsetof(DocumentedLayout, mutex),
                                       offsetof(DocumentedLayout, attr),
                                       offsetof(DocumentedLayout, readSet),
                                       offsetof(DocumentedLayout, staging),
                                       offsetof(DocumentedLayout, replyTarget),
                                       offsetof(DocumentedLayout, callbackContext),
                                       offsetof(DocumentedLayout, callback)};
    EXPECT_EQ(expected, LayoutProbe().Offsets());
}
