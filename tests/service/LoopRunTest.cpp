// The socket loop's thread running commands of idle services itself (a host setting), through a
// real socket and the engine: which thread runs a command, and what happens when one of them
// does not come back within the loop's budget.
#include <gtest/gtest.h>
#include <pthread.h>

#include <chrono>
#include <memory>
#include <mutex>

#include "EngineHarness.h"
#include "io/FrontEndState.h"

using namespace vorn_test;
using namespace std::chrono_literals;

namespace {

pthread_t LoopThread(EngineHarness& h) {
    const std::shared_ptr<FrontEndState> state = FrontEndState::Find(h.cmdio);
    std::lock_guard<std::mutex> lock(state->loopLock);
    return state->loopThread;
}

bool RanOnLoop(EngineHarness& h) { return pthread_equal(LoopThread(h), TestHal::LastCaller()); }

TEST(LoopRun, QuickCommandsRunOnTheLoopAndOneThatHangsHandsTheSocketToAFreshThread) {
    EngineHarness h;
    h.cmdio->SetLoopRunsRequests(20000);
    h.cmdio->SetReplyToSender(true);  // as vornd: the 1002 below goes to its own client
    Reply r;
    ASSERT_TRUE(h.Ask("JXT+ECHO=1", r));
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("1", r.response);
    EXPECT_TRUE(RanOnLoop(h));
    const pthread_t first = LoopThread(h);

    // The hanging command keeps the loop's thread; after the budget a fresh thread serves the
    // socket, so another client is answered long before the hanging command's timeout.
    ASSERT_TRUE(h.client.Send("JXT+HANG"));
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 1; }));
    Client other;
    ASSERT_TRUE(other.Connect(h.socketName));
    ASSERT_TRUE(other.Send("JXT+GSENSOR=2"));
    Reply quick;
    ASSERT_TRUE(other.ReadReply(quick, 700ms));
    EXPECT_EQ("2", quick.response);
    EXPECT_FALSE(pthread_equal(first, LoopThread(h)));
    // Its own reply is the timeout's, once, to its own client.
    ASSERT_TRUE(h.client.ReadReply(r, 3s));
    EXPECT_EQ(1002, r.result);
    EXPECT_EQ("JXT+HANG", r.request);
    TestHal::Release();
    EXPECT_EQ("", h.client.ReadAvailable(100ms));

    // The slow one sent the misc service's next command to its request thread; a quick one
    // there lets the loop run them again.
    ASSERT_TRUE(h.Ask("JXT+ECHO=3", r));
    EXPECT_FALSE(RanOnLoop(h));
    EXPECT_TRUE(Await([&] { return h.Ask("JXT+ECHO=4", r) && r.result == 0 && RanOnLoop(h); }));
}

TEST(LoopRun, StopWhileACommandHoldsTheLoopThreadEndsTheLoopAtTheBudget) {
    EngineHarness h;
    h.cmdio->SetLoopRunsRequests(200000);
    ASSERT_TRUE(h.client.Send("JXT+HANG"));
    ASSERT_TRUE(Await([] { return TestHal::Blocked() == 1; }));
    const auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(0, h.cmdio->Stop());
    EXPECT_LT(std::chrono::steady_clock::now() - before, 900ms);  // not at the 1-s timeout
    EXPECT_TRUE(h.log.Has("socket loop stopped", "Run"));
    EXPECT_EQ(0, h.cmdio->GetLoopResult());
    // The command still gets its timeout's answer; its thread then leaves by itself.
    Reply r;
    ASSERT_TRUE(h.client.ReadReply(r, 3s));
    EXPECT_EQ(1002, r.result);
}

}  // namespace
