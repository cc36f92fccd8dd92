// Request time-outs: one answer per request, the service goes on, left-behind threads end.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "EngineHarness.h"

using namespace vorn_test;

namespace {

const std::string kTimeOut = "1002:Time out\r\n";

TEST(RequestTimeout, HungHalCallIsAnsweredOnceAndTheServiceGoesOn) {
    EngineHarness h;
    Reply r;
    ASSERT_TRUE(h.Ask("JXT+HANG=1", r, std::chrono::milliseconds(5000)));
    EXPECT_EQ(1002, r.result);
    EXPECT_EQ("JXT+HANG=1", r.request);
    EXPECT_EQ(kTimeOut, r.response);
    EXPECT_TRUE(h.log.AwaitLine("MISC_SERVICEstart to reset", "ResetRequestService"));
    EXPECT_TRUE(h.log.AwaitLine("MISC_SERVICErestart end", "ResetRequestService"));
    EXPECT_TRUE(h.log.Has("MISC_SERVICERequest cmd(JXT+HANG=1):VENDOR cmd(JXT+HANG=1)"));

    // The replacement thread serves the next request of the same service.
    ASSERT_TRUE(h.Ask("JXT+ECHO=next", r));
    EXPECT_EQ("next", r.response);

    // The late answer of the abandoned call is dropped: still one reply per request.
    TestHal::Release();
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 0; }));
    EXPECT_EQ("", h.client.ReadAvailable(std::chrono::milliseconds(300)));
}

TEST(RequestTimeout, AnswerThatArrivesAfterTheTimeoutIsNotSentTwice) {
    // A long time-out keeps the monitor out of the way; the test plays the monitor's part.
    EngineHarness h(R"({ "misc": { "libpath": ")" + TestHal::Path() +
                    R"(", "whitelist": [ { "command": "JXT+HANG", "func": "block_cmd",
                        "timeout": 600 } ] } })");
    ASSERT_TRUE(h.client.Send("JXT+HANG"));
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 1; }));
    SFService* misc = SFServiceManager::GetServiceManager()->GetService(MISC_SERVICE);
    EXPECT_EQ(0, misc->HandleRequestTimeout());
    Reply r;
    ASSERT_TRUE(h.client.ReadReply(r));
    EXPECT_EQ(1002, r.result);
    TestHal::Release();
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 0; }));
    EXPECT_EQ("", h.client.ReadAvailable(std::chrono::milliseconds(300)));
    ASSERT_TRUE(h.Ask("JXT", r));
    EXPECT_EQ(0, r.result);
}

TEST(RequestTimeout, TimeoutCommandIsAnsweredOnlyByTheTimeoutAndLeavesNoThread) {
    EngineHarness h;
    h.AwaitAllServicesUp();
    const int baseline = ThreadCount();
    ASSERT_TRUE(h.client.Send("JXT+TIMEOUT"));
    // Its row waits 15 seconds; the test plays the monitor as soon as the handler runs.
    SFService* misc = SFServiceManager::GetServiceManager()->GetService(MISC_SERVICE);
    Reply r;
    ASSERT_TRUE(Await([&] {
        misc->HandleRequestTimeout();
        return h.client.ReadReply(r, std::chrono::milliseconds(20));
    }));
    EXPECT_EQ(1002, r.result);
    EXPECT_EQ("JXT+TIMEOUT", r.request);
    EXPECT_TRUE(Await([&] { return ThreadCount() <= baseline; }, std::chrono::milliseconds(5000)))
        << ThreadCount() << " threads, baseline " << baseline;
    ASSERT_TRUE(h.Ask("JXT", r));
    EXPECT_EQ(0, r.result);
}

TEST(RequestTimeout, ThreadsLeftBehindEndWhenTheirCallsReturn) {
    EngineHarness h;
    Reply r;
    h.AwaitAllServicesUp();
    const int baseline = ThreadCount();
    // Seven hung requests queued on each of three services: 21 time-outs, about 7 seconds.
    const int perService = 7;
    // No framing on the socket: each command must be taken in before the next is sent. The
    // intake logs its end after queueing, so a warm-up reply can come before that line: count
    // from the three warm-up commands' lines.
    int taken = 3;
    ASSERT_TRUE(Await([&] { return h.log.Count("End>>>>>>>>>>>>>>>>>>") == taken; }));
    for (int i = 0; i < perService; ++i) {
        for (const char* cmd : {"JXT+HANG", "JXT+SHANG", "JXT+MHANG"}) {
            ASSERT_TRUE(h.client.Send(cmd));
            ++taken;
            ASSERT_TRUE(Await([&] { return h.log.Count("End>>>>>>>>>>>>>>>>>>") == taken; }));
        }
    }
    int timeouts = 0;
    while (timeouts < 3 * perService && h.client.ReadReply(r, std::chrono::milliseconds(5000))) {
        EXPECT_EQ(1002, r.result);
        ++timeouts;
    }
    EXPECT_EQ(3 * perService, timeouts);
    EXPECT_GE(ThreadCount(), baseline + 3 * perService - 3);
    TestHal::Release();
    EXPECT_TRUE(Await([&] { return ThreadCount() <= baseline; }, std::chrono::milliseconds(5000)))
        << ThreadCount() << " threads, baseline " << baseline;
    ASSERT_TRUE(h.Ask("JXT+GSENSOR=still", r));
    EXPECT_EQ("still", r.response);
}

TEST(RequestTimeout, NegativeAndZeroTimeoutsFollowTheTimerRules) {
    EngineHarness h(R"({ "misc": { "libpath": ")" + TestHal::Path() +
                    R"(", "whitelist": [
                        { "command": "JXT+HANG", "func": "block_cmd", "timeout": 4294967295 },
                        { "command": "JXT+ZHANG", "func": "block_cmd", "timeout": 0 } ] } })");
    // Zero means the default, announced with the historical text.
    ASSERT_TRUE(h.client.Send("JXT+ZHANG"));
    EXPECT_TRUE(h.log.AwaitLine("MISC_SERVICE: Timeout is 0, set default timeout value to 60sec",
                                "CalculateRequestTimeout"));
    TestHal::Release();
    Reply r;
    ASSERT_TRUE(h.client.ReadReply(r));
    EXPECT_EQ("late", r.response);
    TestHal::Reset();
    // A negative time-out means no limit: said once, when the request starts, and never fires.
    ASSERT_TRUE(h.client.Send("JXT+HANG"));
    EXPECT_TRUE(h.log.AwaitLine("MISC_SERVICE: Invalid timeout value detected : Reset timer",
                                "CalculateRequestTimeout"));
    TestHal::Release();
    ASSERT_TRUE(h.client.ReadReply(r));
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("late", r.response);
    EXPECT_EQ(1, h.log.Count("MISC_SERVICE: Invalid timeout value detected : Reset timer"));
}

// The monitor is not woken for every request: while it times one limit, a request that ends
// sooner must still wake it, and one that ends later must not be cut short by the old limit.
TEST(RequestTimeout, EachRequestIsTimedFromItsOwnStartWhateverTheMonitorWaitsFor) {
    EngineHarness h(R"({ "misc": { "libpath": ")" + TestHal::Path() +
                    R"(", "default_timeout": 1, "whitelist": [
                        { "command": "JXT+LONG", "func": "block_cmd", "timeout": 600 },
                        { "command": "JXT+HANG", "func": "block_cmd" } ] } })");
    using Ms = std::chrono::milliseconds;
    Reply r;
    // Holds a request in the HAL long enough for the monitor to time it, then lets it end.
    auto holdThenRelease = [&](const char* command) {
        if (!h.client.Send(command) || !Await([] { return TestHal::Blocked() == 1; })) return false;
        std::this_thread::sleep_for(Ms(400));  // the subject of the test: the time it runs
        TestHal::Release();
        const bool answered = h.client.ReadReply(r) && r.result == 0;
        TestHal::Reset();
        return answered;
    };
    auto timedOutAfterMs = [&]() -> long {
        const auto t0 = std::chrono::steady_clock::now();
        if (!h.client.Send("JXT+HANG") || !h.client.ReadReply(r, Ms(4000)) || r.result != 1002)
            return -1;
        const auto ms = std::chrono::duration_cast<Ms>(std::chrono::steady_clock::now() - t0);
        TestHal::Release();
        const bool released = Await([] { return TestHal::Blocked() == 0; });
        TestHal::Reset();
        return released ? static_cast<long>(ms.count()) : -1;
    };
    // The monitor still waits out the 600 seconds of the request before.
    ASSERT_TRUE(holdThenRelease("JXT+LONG"));
    long ms = timedOutAfterMs();
    EXPECT_GE(ms, 950);
    EXPECT_LE(ms, 3000);
    // The limit of the request before runs out while this one runs.
    ASSERT_TRUE(holdThenRelease("JXT+HANG"));
    ms = timedOutAfterMs();
    EXPECT_GE(ms, 950);
    EXPECT_LE(ms, 3000);
    EXPECT_FALSE(h.log.Has("MISC_SERVICE: Invalid timeout value detected : Reset timer"));
}

TEST(RequestTimeout, ShutdownWhileACallHangsNeitherBlocksNorCrashes) {
    auto* h = new EngineHarness;
    h->releaseOnExit = false;
    h->AwaitAllServicesUp();
    ASSERT_TRUE(h->client.Send("JXT+SHANG"));
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 1; }));
    ASSERT_TRUE(h->client.Send("JXT+GSENSOR=queued"));
    const int baseline = ThreadCount();
    delete h;  // services, queues and the pipe go while the HAL call still runs
    // Eight of the nine worker threads end; the one in the HAL call is left behind.
    EXPECT_TRUE(Await([&] { return ThreadCount() <= baseline - 8; }));
    TestHal::Release();  // the left-behind thread comes back to freed memory, and must not touch it
    EXPECT_TRUE(Await([] { return TestHal::Blocked() == 0; }));
    EngineHarness again;  // and the process can start over
    Reply r;
    ASSERT_TRUE(again.Ask("JXT+GSENSOR=again", r));
    EXPECT_EQ("again", r.response);
}

}  // namespace
