#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <array>
#include <string>

#include "io/RecordingServer.h"
#include "support/TestSupport.h"

using vorn_test::Client;
using vorn_test::LogCapture;

namespace {
bool NonBlocking(int fd) { return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0; }
void OnSignal(int) {}
}  // namespace

TEST(SocketServer, TransmissionsUpToAndAtTheChunkSizeArriveWhole) {
    LogCapture log;
    RecordingServer* server = RecordingServer::Launch("chunk");
    EXPECT_TRUE(fcntl(server->ServerFd(), F_GETFD) & FD_CLOEXEC);
    Client client;
    ASSERT_TRUE(client.Connect(server->Name()));
    // Empty text never reaches the callback.
    ASSERT_TRUE(client.Send(std::string(1, '\0')));
    ASSERT_TRUE(vorn_test::Await([&] { return server->ReplyTarget() != nullptr; }));

    ASSERT_TRUE(client.Send(std::string(3071, 'a')));
    ASSERT_TRUE(server->AwaitCount(1));
    EXPECT_EQ(std::string(3071, 'a'), server->Received()[0]);
    EXPECT_TRUE(log.Has("received size =3071", "Run", 1));
    int fd = server->ClientFd(0);
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);

    ASSERT_TRUE(client.Send(std::string(3072, 'b')));
    ASSERT_TRUE(server->AwaitCount(2));
    EXPECT_EQ(2u, server->Received().size());
    EXPECT_EQ(std::string(3072, 'b'), server->Received()[1]);
    EXPECT_TRUE(log.Has("No data to read,Receive completed!!!", "Run", 4));
    EXPECT_FALSE(log.Has("received size =3072"));
    EXPECT_TRUE(vorn_test::Await([&] { return !NonBlocking(fd); }));
}

TEST(SocketServer, LongTransmissionIsCutAfterEightChunks) {
    RecordingServer* server = RecordingServer::Launch("long");
    Client client;
    ASSERT_TRUE(client.Connect(server->Name()));
    std::string payload;
    for (int i = 0; i < 30000; ++i) payload += static_cast<char>('a' + i % 26);
    ASSERT_TRUE(client.Send(payload));
    ASSERT_TRUE(server->AwaitCount(2));
    EXPECT_EQ(payload.substr(0, 24576), server->Received()[0]);
    EXPECT_EQ(payload.substr(24576), server->Received()[1]);
}

TEST(SocketServer, FifthClientIsAcceptedButNeverRead) {
    LogCapture log;
    RecordingServer* server = RecordingServer::Launch("five");
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
    EXPECT_TRUE(server->isConnect());

    // A client that leaves frees its slot for the next one.
    clients[2].Close();
    ASSERT_TRUE(vorn_test::Await([&] { return server->ClientFd(2) == -1; }));
    EXPECT_TRUE(log.Has("disconnect client[2]...", "Run", 4));
    Client next;
    ASSERT_TRUE(next.Connect(server->Name()));
    ASSERT_TRUE(vorn_test::Await([&] { return server->ClientFd(2) != -1; }));
    ASSERT_TRUE(next.Send("JXT+NEXT"));
    ASSERT_TRUE(server->AwaitCount(6));
    EXPECT_EQ("JXT+NEXT", server->Received()[5]);
}

TEST(SocketServer, SignalDuringSelectEndsTheLoop) {
    struct sigaction action = {};
    action.sa_handler = OnSignal;  // no SA_RESTART: select returns EINTR
    sigemptyset(&action.sa_mask);
    ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));

    LogCapture log;
    auto* server = new RecordingServer(vorn_test::UniqueSocketName("signal"));
    ASSERT_EQ(0, server->Start());
    Client client;
    ASSERT_TRUE(client.Connect(server->Name()));
    ASSERT_TRUE(client.Send("JXT+A"));
    ASSERT_TRUE(server->AwaitCount(1));
    // A signal that lands before the loop is back in select is missed; send until it ends.
    ASSERT_TRUE(vorn_test::Await([&] {
        if (log.Has("got signal", "Run")) return true;
        pthread_kill(server->LoopThread(), SIGUSR1);
        return vorn_test::Await([&] { return log.Has("got signal", "Run"); },
                                std::chrono::milliseconds(20));
    }));
    // The loop has ended for good, so the server may go.
    delete server;
}

TEST(SocketServer, ServerWithoutSocketRefusesToStart) {
    LogCapture log;
    RecordingServer* first = RecordingServer::Launch("taken");
    RecordingServer second(first->Name());
    EXPECT_TRUE(
        log.Has("socket_local_server create fail. sockname=" + first->Name(), "InitServerSock", 4));
    EXPECT_EQ(1005, second.Start());
    EXPECT_EQ(0, second.CmdIOStart());
    EXPECT_TRUE(log.Has("server socket fd error", "Start", 4));

    RecordingServer longName(std::string(300, 'n'));
    EXPECT_TRUE(log.Has("socket name of 300 bytes cut to 255", "Processer", 4));
    EXPECT_EQ(std::string(255, 'n'), longName.Name());
}
