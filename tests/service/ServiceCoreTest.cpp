// The service core's states, without sockets: a misc service with no context (its replies
// end in the "no service manager" line, which the tests count), fed through OnHandleCommand.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <vector>

#include "EngineHarness.h"
#include "service/HalIsolation.h"
#include "service/ServiceCore.h"

using namespace vorn_test;
using Ticket = ServiceCore::Ticket;

namespace {

const char kNoManager[] = "service manager is null or handle response is fail(1)";

// A misc service whose HAL rows are added by hand: "JXT+HANG" blocks in the test HAL until it
// is released, with the given timeout.
template <typename Base = MiscService>
class BareMisc : public Base {
public:
    explicit BareMisc(int hangTimeout) : Base(nullptr) {
        this->m_pDllParser->Load(TestHal::Path());
        this->insert(DATA_REQUEST, hangTimeout, "JXT+HANG", nullptr,
                     this->m_pDllParser->GetFunction("block_cmd"), "block_cmd", true);
    }
    ~BareMisc() override { this->StopServiceThreads(); }
    void Ask(const std::string& command) {
        this->OnHandleCommand(command.c_str(), static_cast<int>(command.size()));
    }
    std::shared_ptr<Ticket> AwaitRunning(Ticket::State state) {
        std::shared_ptr<Ticket> t;
        Await([&] {
            t = this->Core()->RunningTicket();
            return t && t->GetState() == state;
        });
        return t;
    }
};

class ServiceCoreTest : public ::testing::Test {
protected:
    ServiceCoreTest() { TestHal::Reset(); }
    ~ServiceCoreTest() override { TestHal::Release(); }
    LogCapture log;
};

TEST_F(ServiceCoreTest, RequestTimedOutInAHalCallIsAnsweredOnceAndItsThreadLeavesWhenBack) {
    BareMisc<> misc(1);
    misc.Ask("JXT+HANG");
    std::shared_ptr<Ticket> t = misc.AwaitRunning(Ticket::IN_HAL);
    ASSERT_TRUE(t);
    EXPECT_EQ(t->Message(), misc.m_pCurReqMsg.load());
    std::atomic<int> cancelled{0};
    // The hook of whoever runs the call: here it lets the call come back.
    t->SetCancel([&] {
        ++cancelled;
        TestHal::Release();
    });
    ASSERT_TRUE(log.AwaitLine("MISC_SERVICErestart end", "ResetRequestService"));
    EXPECT_EQ(Ticket::TIMED_OUT, t->GetState());
    EXPECT_EQ(1, cancelled.load());
    EXPECT_EQ(nullptr, misc.m_pCurReqMsg.load());
    EXPECT_TRUE(log.Has("return is 1002", "EnQueue", 1));
    // The late call came back to a request that is no longer its own: no second reply.
    ASSERT_TRUE(Await([&] { return misc.Core()->LeftBehind() == 0; }));
    EXPECT_TRUE(t->Left());
    EXPECT_EQ(1, log.Count(kNoManager));
    // The replacement thread serves the next request.
    misc.Ask("JXT");
    ASSERT_TRUE(Await([&] { return log.Count(kNoManager) == 2; }));
    EXPECT_TRUE(log.Has("return is 0", "EnQueue", 1));
    EXPECT_FALSE(misc.m_bTimeoutHandling.load());
}

TEST_F(ServiceCoreTest, ServiceDestroyedWithARequestInFlightLeavesItsThreadOnlyTheTicket) {
    auto* misc = new BareMisc<>(600);
    misc->Ask("JXT+HANG");
    std::shared_ptr<Ticket> t = misc->AwaitRunning(Ticket::IN_HAL);
    ASSERT_TRUE(t);
    misc->Ask("JXT");  // queued behind it, never run
    const auto before = std::chrono::steady_clock::now();
    delete misc;  // does not wait for the HAL call
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(2));
    EXPECT_EQ(Ticket::IN_HAL, t->GetState());
    TestHal::Release();  // back to a destroyed service: only the ticket is touched
    // Its thread let go of the ticket (and of the core) on its way out.
    EXPECT_TRUE(Await([&] { return t.use_count() == 1; }));
    EXPECT_EQ(0, log.Count(kNoManager));
}

// A host's handler that calls its HAL function and converts the answer itself.
class ConvertsItself : public MiscService {
public:
    explicit ConvertsItself(ContextWrapper* context) : MiscService(context) {}
    SFRespData* DoRequest(SFMessage* msg, void*) override {
        std::vector<char> in, out;
        const int rc = Execute(msg->GetSoFuncName(), &in, &out);
        return ConvertPCBAResponse(msg, rc, out.data(), static_cast<int>(out.size()));
    }
};

TEST_F(ServiceCoreTest, HostHandlerWhoseHalCallReturnsAfterItsTimeoutFinishesAndItsThreadEnds) {
    BareMisc<ConvertsItself> misc(1);
    misc.Ask("JXT");
    ASSERT_TRUE(Await([&] { return log.Count(kNoManager) == 1; }));
    ASSERT_TRUE(log.AwaitLine("<MISC_SERVICE> response thread boot", "Run"));
    const int baseline = ThreadCount();
    misc.Ask("JXT+HANG");
    ASSERT_TRUE(log.AwaitLine("MISC_SERVICErestart end", "ResetRequestService"));
    // The service still exists: the call returns into the host's handler, whose late answer
    // is dropped, and its thread ends instead of staying parked.
    TestHal::Release();
    ASSERT_TRUE(Await([&] { return misc.Core()->LeftBehind() == 0; }));
    EXPECT_TRUE(Await([&] { return ThreadCount() <= baseline; }));
    EXPECT_EQ(2, log.Count(kNoManager));  // "JXT" and the 1002
    EXPECT_FALSE(
        log.Has("a HAL call came back after its service was destroyed; its thread stops here"));
}

std::atomic<int> g_hookCalls{0};

class HandlesItsTimeouts : public MiscService {
public:
    explicit HandlesItsTimeouts(ContextWrapper* context) : MiscService(context) {}
    bool OnHandleRequestTimeout(SFMessage*) override {
        ++g_hookCalls;
        return true;
    }
};

TEST_F(ServiceCoreTest, TimeoutHookThatReturnsTrueKeepsTheRequestWithItsThread) {
    g_hookCalls = 0;
    BareMisc<HandlesItsTimeouts> misc(1);
    misc.Ask("JXT+HANG");
    ASSERT_TRUE(log.AwaitLine("MISC_SERVICEservice has handled", "HandleRequestTimeout"));
    EXPECT_EQ(1, g_hookCalls.load());
    std::shared_ptr<Ticket> t = misc.Core()->RunningTicket();
    ASSERT_TRUE(t);
    EXPECT_EQ(Ticket::IN_HAL, t->GetState());
    EXPECT_TRUE(misc.m_bTimeoutHandling.load());  // kept while the service handles it
    EXPECT_FALSE(log.Has("MISC_SERVICEstart to reset"));
    EXPECT_EQ(0, log.Count(kNoManager));
    // The handler's own reply is the one sent; then the next request runs.
    TestHal::Release();
    ASSERT_TRUE(Await([&] { return log.Count(kNoManager) == 1; }));
    EXPECT_EQ(Ticket::DONE, t->GetState());
    EXPECT_TRUE(log.Has("return is 0", "EnQueue", 1));
    misc.Ask("JXT");
    ASSERT_TRUE(Await([&] { return log.Count(kNoManager) == 2; }));
    EXPECT_FALSE(misc.m_bTimeoutHandling.load());
    EXPECT_EQ(1, g_hookCalls.load());
}

TEST_F(ServiceCoreTest, ThreadsHeldByTimedOutHalCallsAreBoundedThenHalCommandsAre1009) {
    EXPECT_EQ(0, GetHeldCallLimit());  // the library sets no bound unless its host asks
    constexpr int kLimit = 3;
    SetHeldCallLimit(kLimit);
    struct Restore {
        ~Restore() { SetHeldCallLimit(0); }
    } restore;
    BareMisc<> misc(600);
    // The test plays the monitor: each hung call is timed out at once and its thread stays.
    for (int held = 1; held <= kLimit; ++held) {
        misc.Ask("JXT+HANG");
        ASSERT_TRUE(Await([&] { return TestHal::Blocked() == held; }));
        ASSERT_TRUE(misc.AwaitRunning(Ticket::IN_HAL));
        misc.HandleRequestTimeout();
        ASSERT_TRUE(Await([&] { return misc.Core()->LeftBehind() == held; }));
    }
    misc.Ask("JXT+HANG");
    misc.Ask("JXT+HANG");
    misc.Ask("JXT");  // built-in: still served
    ASSERT_TRUE(Await([&] { return log.Count(kNoManager) == kLimit + 3; }));
    EXPECT_EQ(2, log.Count("return is 1009"));
    EXPECT_EQ(1, log.CountContaining("refuses HAL-backed commands with 1009"));
    EXPECT_EQ(kLimit, TestHal::Blocked());
    // A thread that comes back lifts the refusal, said once.
    TestHal::Release();
    ASSERT_TRUE(Await([&] { return misc.Core()->LeftBehind() == 0; }));
    EXPECT_EQ(1, log.CountContaining("serves HAL-backed commands again; 2 refused"));
}

}  // namespace
