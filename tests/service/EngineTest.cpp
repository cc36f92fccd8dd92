// Commands of every service, from the socket through the HAL and back.
#include <gtest/gtest.h>

#include "EngineHarness.h"

using namespace vorn_test;

namespace {

class EndToEnd : public ::testing::Test {
protected:
    Reply Ask(const std::string& command) {
        Reply reply;
        EXPECT_TRUE(h.Ask(command, reply)) << "no reply to " << command;
        return reply;
    }
    EngineHarness h;
};

TEST_F(EndToEnd, BuiltInLivenessCommandAnswersEmptySuccessByteForByte) {
    ASSERT_TRUE(h.client.Send("JXT"));
    std::string bytes;
    ASSERT_TRUE(Await([&] {
        bytes += h.client.ReadAvailable(std::chrono::milliseconds(20));
        return bytes.size() >= 15;
    }));
    EXPECT_EQ(EncodeReply(0, "JXT", ""), bytes);
}

TEST_F(EndToEnd, EachServiceHandsItsHalTheRightBytes) {
    // Misc and sensor pass the parameters only; the modem passes the whole command.
    Reply r = Ask("JXT+ECHO=a,b");
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("JXT+ECHO=a,b", r.request);
    EXPECT_EQ("a,b", r.response);

    r = Ask("JXT+GSENSOR=1,2");
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("1,2", r.response);
    EXPECT_EQ("1,2", TestHal::LastInput());

    r = Ask("JXT+GYRO");  // no parameters: the HAL still runs, with nothing in
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("", r.response);
    EXPECT_TRUE(h.log.Has("COMMAND data is empty!!!", "CheckDeviceCommand"));

    r = Ask("JXT+CPVERSION?");
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("JXT+CPVERSION?", r.response);
    r = Ask("JXT+CPVERSION=7");
    EXPECT_EQ("JXT+CPVERSION=7", r.response);
}

TEST_F(EndToEnd, RefusedCommandsAnswerNormalErrorAtOnce) {
    for (const char* command : {"JXT+UNKNOWN", "JXT+MISSING", "jxt+echo=1", "JXT+CPSLEEP"}) {
        Reply r = Ask(command);
        EXPECT_EQ(1001, r.result) << command;
        EXPECT_EQ(command, r.request);
        EXPECT_EQ("1001:Normal error\r\n", r.response) << command;
    }
    EXPECT_TRUE(h.log.Has("unsupported vendor command(JXT+UNKNOWN) in vendor list table"));
    EXPECT_TRUE(h.log.Has("MISC_SERVICEcommand(JXT+MISSING) intert fail!!!", "insert", 4));
    EXPECT_TRUE(h.log.Has("Handle Command ERROR!!!", "SendInternalMessage"));
}

TEST_F(EndToEnd, HalResultCodesBecomeReplies) {
    Reply r = Ask("JXT+CODE=5");
    EXPECT_EQ(5, r.result);
    EXPECT_EQ("5:" + std::string(strerror(5)) + "\r\n", r.response);
    for (const char* big : {"JXT+CODE=5000", "JXT+CODE=-1", "JXT+CODE=-2147483648"}) {
        r = Ask(big);
        EXPECT_EQ(1001, r.result) << big;
        EXPECT_EQ("1001:Normal error\r\n", r.response);
    }
    r = Ask("JXT+CODE=0");
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("", r.response);
    r = Ask("JXT+BYTESFAIL");  // a failure code with bytes keeps the bytes
    EXPECT_EQ(5, r.result);
    EXPECT_EQ("partial", r.response);
    r = Ask("JXT+THROW");
    EXPECT_EQ(1001, r.result);
}

TEST_F(EndToEnd, OversizedHalAnswerIsCutToAWellFormedRecord) {
    Reply r = Ask("JXT+BIG=10000");
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("JXT+BIG=10000", r.request);
    EXPECT_EQ(12 + r.request.size() + r.response.size(), 3172u);
    EXPECT_EQ(std::string(r.response.size(), 'B'), r.response);
    // The connection still carries exactly one record per command.
    r = Ask("JXT");
    EXPECT_EQ("JXT", r.request);
}

TEST(EngineRouting, ReplyGoesToTheClientOfTheLatestTransmission) {
    EngineHarness h(R"({ "misc": { "libpath": ")" + TestHal::Path() +
                    R"(", "whitelist": [ { "command": "JXT+HANG", "func": "block_cmd",
                        "timeout": 600 } ] },
        "sensor": { "libpath": ")" +
                    TestHal::Path() +
                    R"(", "whitelist": [ { "command": "JXT+GSENSOR", "func": "echo_cmd" } ] } })");
    Client other;
    ASSERT_TRUE(other.Connect(h.socketName));
    ASSERT_TRUE(h.client.Send("JXT+HANG"));
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 1; }));
    Reply r;
    // The misc service is busy; the sensor service answers meanwhile.
    ASSERT_TRUE(other.Send("JXT+GSENSOR=x") && other.ReadReply(r));
    EXPECT_EQ("x", r.response);
    TestHal::Release();  // the late answer to the first client goes to the second
    ASSERT_TRUE(other.ReadReply(r));
    EXPECT_EQ("JXT+HANG", r.request);
    EXPECT_EQ("late", r.response);
}

// With routing by sender (vornd's default) a late answer, and the 1002 of a timeout, reach the
// client the request came from, or nobody once that client has gone.
TEST(EngineRouting, WithRoutingBySenderEveryReplyReachesItsSender) {
    EngineHarness h;  // "JXT+HANG" blocks; every request times out after a second
    h.cmdio->SetReplyToSender(true);
    Client other, leaving;
    ASSERT_TRUE(other.Connect(h.socketName));
    ASSERT_TRUE(leaving.Connect(h.socketName));
    ASSERT_TRUE(h.client.Send("JXT+HANG"));
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 1; }));
    Reply r;
    ASSERT_TRUE(other.Send("JXT+GSENSOR=x") && other.ReadReply(r));
    EXPECT_EQ("x", r.response);
    ASSERT_TRUE(h.client.ReadReply(r));
    EXPECT_EQ("JXT+HANG", r.request);
    EXPECT_EQ(1002, r.result);

    // The sensor service's request thread is held; the client that sent it leaves before the
    // timeout answers, and the other one sends meanwhile.
    ASSERT_TRUE(leaving.Send("JXT+SHANG"));
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 2; }));
    leaving.Close();
    ASSERT_TRUE(other.Send("JXT+CPVERSION=y") && other.ReadReply(r));
    EXPECT_EQ("JXT+CPVERSION=y", r.request);
    EXPECT_TRUE(h.log.AwaitLine(
        "reply to command(JXT+SHANG) dropped, 0 of 36 bytes written: the client is gone",
        "HandleResponse"));
    EXPECT_EQ("", other.ReadAvailable(std::chrono::milliseconds(50)));
    EXPECT_EQ("", h.client.ReadAvailable(std::chrono::milliseconds(0)));
}

TEST(EngineConfig, SwitchedOffServiceRefusesItsCommands) {
    EngineHarness h(R"({ "sensor": { "support": false } })");
    Reply r;
    ASSERT_TRUE(h.Ask("JXT+GSENSOR=1", r));
    EXPECT_EQ(1001, r.result);
    ASSERT_TRUE(h.Ask("JXT", r));
    EXPECT_EQ(0, r.result);
}

TEST(EngineConfig, OverlongNamesInTheFileAreRefusedNotFatal) {
    const std::string longName = "JXT+" + std::string(200, 'L');
    EngineHarness h(
        R"({ "misc": { "libpath": ")" + TestHal::Path() + R"(", "whitelist": [ { "command": ")" +
        longName +
        R"(", "func": "echo_cmd" }, { "command": "JXT+ECHO", "func": "echo_cmd" } ] } })");
    EXPECT_EQ(1, h.log.CountContaining("must be shorter than 128 bytes"));
    Reply r;
    ASSERT_TRUE(h.Ask("JXT+ECHO=ok", r));
    EXPECT_EQ("ok", r.response);
}

TEST(InternalRequest, BuiltInHandlerAnswersSynchronouslyAndHalBuffersWork) {
    EngineHarness h(TestConfigJson(), false);
    SFService* misc = SFServiceManager::GetServiceManager()->GetService(MISC_SERVICE);
    sf_response resp{};
    resp.length = 77;
    SFData jxt("JXT", 3, DATA_REQUEST);
    EXPECT_TRUE(misc->SendInternalMessage(&jxt, &resp, false));
    EXPECT_EQ(0u, resp.length);

    SFData unknown("JXT+NOBODY", 10, DATA_REQUEST);
    resp.length = 77;
    EXPECT_FALSE(misc->SendInternalMessage(&unknown, &resp, false));
    EXPECT_TRUE(h.log.Has("Unknown service", "SendInteralMessage"));
    EXPECT_EQ(77u, resp.length);

    // A HAL-backed row has no built-in handler: the answer is left untouched.
    SFData echo("JXT+ECHO=1", 10, DATA_REQUEST);
    EXPECT_TRUE(misc->SendInternalMessage(&echo, &resp, false));
    EXPECT_EQ(77u, resp.length);

    // HAL-side buffers go through the library's own allocator.
    void* block = misc->HalMalloc(64);
    ASSERT_NE(nullptr, block);
    EXPECT_EQ(0, misc->HalFree(block));
}

}  // namespace
