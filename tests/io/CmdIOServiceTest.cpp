#include <errno.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "io/RecordingServer.h"
#include "support/TestSupport.h"

using vorn_test::Client;
using vorn_test::Reply;

namespace {
const auto kQuiet = std::chrono::milliseconds(50);

// A server with one connected client whose first transmission has arrived.
std::unique_ptr<RecordingServer> ServerWithClient(const char* stem, Client& client) {
    auto server = RecordingServer::Launch(stem);
    EXPECT_TRUE(client.Connect(server->Name()));
    EXPECT_TRUE(client.Send("JXT+A"));
    EXPECT_TRUE(server->AwaitCount(1));
    return server;
}
}  // namespace

TEST(CmdIOService, ErrorAndOversizedRepliesGoWholeToTheClientOfTheLatestCommand) {
    vorn_test::LogCapture log;
    Client a, b;
    auto server = ServerWithClient("latest", a);
    ASSERT_TRUE(b.Connect(server->Name()));
    ASSERT_TRUE(b.Send("JXT+UNKNOWN\r"));
    ASSERT_TRUE(server->AwaitCount(2));

    server->ErrorResponse("JXT+UNKNOWN\r", 12, 1003);
    EXPECT_EQ(vorn_test::EncodeReply(1003, "JXT+UNKNOWN\r", "1003:Unsupport command\r\n"),
              b.ReadAvailable(kQuiet));
    server->ErrorResponse("JXT+X", 5, 1008);
    EXPECT_EQ(vorn_test::EncodeReply(1008, "JXT+X", "1008:The parameter is invalid\r\n"),
              b.ReadAvailable(kQuiet));
    // An empty request gives no record at all.
    server->ErrorResponse("", 0, 1001);
    EXPECT_EQ("", b.ReadAvailable(kQuiet));

    // The staging record holds 3172 bytes: a longer reply is refused whole...
    const std::string fits = vorn_test::EncodeReply(0, "JXT+A", std::string(3172 - 17, 'r'));
    EXPECT_EQ(0, server->SendResponse(2, fits.data(), fits.size()));
    EXPECT_EQ(fits, b.ReadAvailable(kQuiet));
    const std::string big(3173, 'x');
    EXPECT_EQ(1009, server->SendResponse(2, big.data(), big.size()));
    EXPECT_TRUE(
        log.Has("reply of 3173 bytes exceeds the staging record (3172)", "SendResponse", 4));
    EXPECT_EQ("", b.ReadAvailable(kQuiet));
    // ...while an error reply cuts the echoed command instead, so it still arrives whole.
    server->ErrorResponse(big.data(), 3173, 1003);
    EXPECT_EQ(vorn_test::EncodeReply(1003, big.substr(0, 3136), "1003:Unsupport command\r\n"),
              b.ReadAvailable(kQuiet));
    EXPECT_TRUE(log.Has("echo of a 3173-byte command cut to 3136 bytes", "ErrorResponse", 3));
    EXPECT_EQ("", a.ReadAvailable(kQuiet));
}

TEST(CmdIOService, ReplyToAVanishedClientIsDroppedWithoutSigpipeButWithALine) {
    vorn_test::LogCapture log;
    Client client;
    auto server = ServerWithClient("gone", client);
    server->Hold(true);
    ASSERT_TRUE(client.Send("JXT+B"));
    ASSERT_TRUE(server->AwaitCount(2));
    // The loop thread is held in the callback, so the slot still names the closed peer.
    client.Close();
    void* target = server->ReplyTarget();
    const auto* x = reinterpret_cast<const unsigned char*>("x");
    EXPECT_EQ(-1, server->HandleResponse(x, 1, target));
    EXPECT_EQ(EPIPE, errno);
    server->Hold(false);
    ASSERT_TRUE(vorn_test::Await([&] { return server->ClientFd(0) == -1; }));
    EXPECT_EQ(0, server->HandleResponse(x, 1, target));
    const std::string record = vorn_test::EncodeReply(0, "JXT+B\n", "");
    EXPECT_EQ(0, server->SendResponse(2, record.data(), record.size()));
    EXPECT_TRUE(
        log.Has("reply to command(JXT+B\\x0a) dropped, 0 of 18 bytes written: the client is gone",
                "HandleResponse", 3));
}

TEST(CmdIOService, WithRoutingBySenderAReplyGoesToTheClientOfItsScopeOrNowhere) {
    vorn_test::LogCapture log;
    Client a, b;
    auto server = ServerWithClient("sender", a);
    ASSERT_TRUE(b.Connect(server->Name()));
    ASSERT_TRUE(b.Send("JXT+B"));
    ASSERT_TRUE(server->AwaitCount(2));
    const ClientRef fromA = server->Sender(0);
    ASSERT_TRUE(fromA.Known());
    EXPECT_NE(fromA.slot, server->Sender(1).slot);
    const std::string record = vorn_test::EncodeReply(0, "JXT+A", "a");
    const std::string error = vorn_test::EncodeReply(1003, "JXT+A", "1003:Unsupport command\r\n");

    // Off, as described: the client of the latest transmission, scope or not.
    {
        const ReplyRoute::Scope scope(fromA);
        server->SendResponse(2, record.data(), record.size());
    }
    EXPECT_EQ(record, b.ReadAvailable(kQuiet));

    server->SetReplyToSender(true);
    {
        const ReplyRoute::Scope scope(fromA);
        server->SendResponse(2, record.data(), record.size());
        server->ErrorResponse("JXT+A", 5, 1003);
    }
    EXPECT_EQ(record + error, a.ReadAvailable(kQuiet));
    EXPECT_EQ("", b.ReadAvailable(kQuiet));
    server->SendResponse(2, record.data(), record.size());  // no scope: the latest client
    EXPECT_EQ(record, b.ReadAvailable(kQuiet));

    // The sender has gone and a newcomer has its slot: the reply reaches nobody.
    a.Close();
    ASSERT_TRUE(vorn_test::Await([&] { return server->ClientFd(fromA.slot) == -1; }));
    Client c;
    ASSERT_TRUE(c.Connect(server->Name()));
    ASSERT_TRUE(c.Send("JXT+C"));
    ASSERT_TRUE(server->AwaitCount(3));
    ASSERT_EQ(fromA.slot, server->Sender(2).slot);
    {
        const ReplyRoute::Scope scope(fromA);
        server->SendResponse(2, record.data(), record.size());
    }
    EXPECT_EQ("", c.ReadAvailable(kQuiet));
    EXPECT_EQ("", b.ReadAvailable(kQuiet));
    EXPECT_TRUE(
        log.Has("reply to command(JXT+A) dropped, 0 of 18 bytes written: the client is gone",
                "HandleResponse", 3));
}

TEST(CmdIOService, ClientThatDoesNotReadIsClosedAfterOneReplyRanOutOfTime) {
    vorn_test::LogCapture log;
    Client client;
    auto server = ServerWithClient("stalled", client);
    server->SetCloseStalledClients(true);
    // Far more than the socket holds: without the setting each reply past the first that
    // runs out of room would wait its own second.
    const std::string record = vorn_test::EncodeReply(0, "JXT+A", std::string(3000, 'r'));
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 300; ++i) server->SendResponse(2, record.data(), record.size());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2500));
    EXPECT_TRUE(log.AwaitLine("client[0] closed: it does not read its replies", "Run"));
    EXPECT_TRUE(
        log.Has("reply to command(JXT+A) dropped, 0 of 3017 bytes written: no room "
                "within 1000 ms; the client is closed",
                "HandleResponse", 3));
    // What did fit arrives whole, then the end.
    std::string got;
    ASSERT_TRUE(vorn_test::Await([&] {
        const std::string more = client.ReadAvailable(std::chrono::milliseconds(50));
        got += more;
        return more.empty();
    }));
    EXPECT_EQ(0u, got.size() % record.size());
    EXPECT_GT(got.size(), 0u);
}

TEST(CmdIOService, RepliesFromTwoThreadsNeverInterleave) {
    Client client;
    auto server = ServerWithClient("race", client);
    const int kEach = 200;
    std::atomic<int> sent{0}, seen{0};
    // A reply waits a second at most for a slow reader, so the senders keep only a few records
    // in flight.
    auto sender = [&](char fill) {
        const std::string record = vorn_test::EncodeReply(0, std::string(1500, fill), "");
        for (int i = 0; i < kEach; ++i) {
            vorn_test::Await([&] { return sent - seen < 8; });
            ++sent;
            server->SendResponse(2, record.data(), record.size());
        }
    };
    std::thread reader([&] {
        Reply reply;
        while (seen < 2 * kEach && client.ReadReply(reply)) {
            ++seen;
            ASSERT_EQ(std::string(1500, reply.request[0]), reply.request);
        }
    });
    std::thread a(sender, 'a'), b(sender, 'b');
    a.join();
    b.join();
    reader.join();
    EXPECT_EQ(2 * kEach, seen);
}

TEST(CmdIOService, InternalCommandsUseTheCallbackButNotTheReplyTarget) {
    auto server = RecordingServer::Launch("internal");
    EXPECT_EQ(1008, server->InternalBufferedFlush("", 0));
    EXPECT_EQ(0, server->InternalBufferedFlush("JXT+I", 5));
    EXPECT_EQ("JXT+I", server->Received().at(0));
    EXPECT_EQ(nullptr, server->ReplyTarget());
    server->CmdIOCallback(nullptr, nullptr);
    EXPECT_EQ(1008, server->InternalBufferedFlush("JXT+I", 5));
}
