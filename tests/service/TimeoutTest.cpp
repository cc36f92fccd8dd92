// Request time-outs: one answer per request, the service goes on, left-behind threads end.
#include <gtest/gtest.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <random>
#include <thread>
#include <vector>

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
    // Three hung requests queued on each of three services: 9 time-outs, about 3 seconds.
    const int perService = 3;
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

// Every reply comes at its request's start plus the smaller of its HAL time and its own
// timeout, whatever ran before it: the timer of one request must never be inherited, stretched
// or restarted by another's.
class ReplyTiming : public ::testing::Test {
protected:
    using Clock = std::chrono::steady_clock;
    using Ms = std::chrono::milliseconds;

    ReplyTiming()
        : h(R"({ "misc": { "libpath": ")" + TestHal::Path() + R"(", "whitelist": [
                { "command": "JXT+NAP1", "func": "sleep_cmd", "timeout": 1 },
                { "command": "JXT+NAP2", "func": "sleep_cmd", "timeout": 2 },
                { "command": "JXT+HANG", "func": "block_cmd", "timeout": 1 } ] },
              "sensor": { "libpath": ")" +
            TestHal::Path() + R"(", "whitelist": [
                { "command": "JXT+SNAP1", "func": "sleep_cmd", "timeout": 1 },
                { "command": "JXT+SNAP2", "func": "sleep_cmd", "timeout": 2 } ] } })") {
        h.AwaitAllServicesUp();
        m_taken = h.log.Count("End>>>>>>>>>>>>>>>>>>");
    }

    struct Request {
        int service;   // 0 misc, 1 sensor
        int napMs;     // what the HAL takes
        int timeoutS;  // 1 or 2
        std::string command;
        Clock::time_point sent, arrived;
        int result = -1;
    };

    // No framing on the socket: each command is taken in before the next is sent.
    bool Send(Request& r) {
        r.sent = Clock::now();
        if (!h.client.Send(r.command)) return false;
        ++m_taken;
        return Await([&] { return h.log.Count("End>>>>>>>>>>>>>>>>>>") >= m_taken; });
    }

    // Reads replies until every request has one, stamping each on arrival.
    bool Collect(std::vector<Request>& requests) {
        for (size_t n = 0; n < requests.size(); ++n) {
            Reply reply;
            if (!h.client.ReadReply(reply, Ms(6000))) return false;
            const auto now = Clock::now();
            bool matched = false;
            for (Request& r : requests)
                if (r.command == reply.request && r.result == -1) {
                    r.arrived = now;
                    r.result = reply.result;
                    matched = true;
                    break;
                }
            if (!matched) return false;
        }
        return true;
    }

    EngineHarness h;
    int m_taken = 0;
};

TEST_F(ReplyTiming, RandomSequencesOnTwoServicesAreAnsweredAtStartPlusTheirOwnLimit) {
    // Fixed, for a repeatable test; its sequences include a quick request followed by one that
    // outlives the same timeout, on both services.
    std::mt19937 random(13);
    const int naps[] = {0, 300, 1250, 2300};  // 0: the next request starts a hair later
    std::vector<Request> requests;
    for (int service = 0; service < 2; ++service) {
        // Four requests per service, kept within 3.5 s of work so the test stays short.
        std::vector<Request> sequence;
        int total;
        do {
            sequence.clear();
            total = 0;
            for (int i = 0; i < 4; ++i) {
                Request r;
                r.service = service;
                r.napMs = naps[random() % 4];
                r.timeoutS = 1 + static_cast<int>(random() % 2);
                total += std::min(r.napMs, r.timeoutS * 1000);
                sequence.push_back(r);
            }
        } while (total > 3500);
        for (size_t i = 0; i < sequence.size(); ++i) {
            Request& r = sequence[i];
            r.command = std::string(service == 0 ? "JXT+NAP" : "JXT+SNAP") +
                        std::to_string(r.timeoutS) + "=" + std::to_string(r.napMs) + "x" +
                        std::to_string(i);
            requests.push_back(r);
        }
    }
    // Interleaved: the two services' requests go out one after the other, at once.
    std::vector<Request*> order;
    for (size_t i = 0; i < 4; ++i)
        for (int service = 0; service < 2; ++service) order.push_back(&requests[service * 4 + i]);
    for (Request* r : order) ASSERT_TRUE(Send(*r)) << r->command;
    ASSERT_TRUE(Collect(requests));

    for (int service = 0; service < 2; ++service) {
        Clock::time_point previousEnd{};
        for (int i = 0; i < 4; ++i) {
            const Request& r = requests[service * 4 + i];
            SCOPED_TRACE(r.command);
            const bool timesOut = r.napMs > r.timeoutS * 1000;
            EXPECT_EQ(timesOut ? 1002 : 0, r.result);
            // A request starts when it is sent or when the one before it has been answered.
            const auto start = std::max(r.sent, previousEnd);
            const long took =
                static_cast<long>(std::chrono::duration_cast<Ms>(r.arrived - start).count());
            const long expected = std::min(r.napMs, r.timeoutS * 1000);
            // Loose enough for a loaded 2-core machine; a timer carried over from another
            // request is off by a whole period.
            EXPECT_GE(took, expected - 50);
            EXPECT_LE(took, expected + 400);
            previousEnd = r.arrived;
        }
    }
    EXPECT_FALSE(h.log.Has("MISC_SERVICE: Invalid timeout value detected : Reset timer"));
}

TEST_F(ReplyTiming, QuickRequestThenOneThatHangsTimesOutAfterItsOwnTimeout) {
    // Same timeout, started within microseconds of each other: the hanging request's deadline
    // lies just after the quick one's. Two clients, so that the two commands are two
    // transmissions without a wait between them.
    Client second;
    ASSERT_TRUE(second.Connect(h.socketName));
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        TestHal::Reset();
        const auto t0 = Clock::now();
        ASSERT_TRUE(h.client.Send("JXT+NAP1=0"));
        ASSERT_TRUE(second.Send("JXT+HANG"));
        // Each reply goes to the client of the latest transmission at the time: read both.
        int replies = 0, result = -1;
        long ms = -1;
        Client* clients[2] = {&second, &h.client};
        while (replies < 2 && Clock::now() - t0 < Ms(4000)) {
            pollfd ready[2] = {{second.fd(), POLLIN, 0}, {h.client.fd(), POLLIN, 0}};
            if (poll(ready, 2, 50) <= 0) continue;
            for (int i = 0; i < 2; ++i) {
                Reply r;
                // A whole record once its first byte is there: never cut one in the middle.
                if (!(ready[i].revents & POLLIN) || !clients[i]->ReadReply(r, Ms(2000))) continue;
                ++replies;
                if (r.request != "JXT+HANG") continue;
                result = r.result;
                ms = static_cast<long>(std::chrono::duration_cast<Ms>(Clock::now() - t0).count());
            }
        }
        EXPECT_EQ(2, replies);
        EXPECT_EQ(1002, result);
        EXPECT_GE(ms, 950);
        EXPECT_LE(ms, 1400);
        TestHal::Release();
        ASSERT_TRUE(Await([] { return TestHal::Blocked() == 0; }));
    }
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
