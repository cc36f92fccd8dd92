// What a host program sees of the engine: its own services and overrides, shutting down with a
// request in flight, the wrapper's lifetime, record limits and a pipe that cannot be rebuilt.
// Built against vorn_core.h only, like a host.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "EngineHarness.h"

using namespace vorn_test;
using std::chrono::milliseconds;

namespace {

std::atomic<int> g_onStartCalls{0};
std::atomic<bool> g_onStartSawItComplete{false};
std::atomic<int> g_timeoutHookCalls{0};

// A host's misc service that starts itself, outlives its 1-second timeout on every request and
// takes the timeout's recovery on itself.
class SelfRecoveringService : public MiscService {
public:
    explicit SelfRecoveringService(ContextWrapper* context) : MiscService(context) {
        // Lingers in its constructor, so that a monitor calling OnStart too early is seen.
        Await([] { return g_onStartCalls > 0; }, milliseconds(200));
        m_bComplete = true;
    }
    int OnStart() override {
        g_onStartSawItComplete = m_bComplete.load();
        ++g_onStartCalls;
        return MiscService::OnStart();
    }
    bool OnHandleRequestTimeout(SFMessage*) override {
        ++g_timeoutHookCalls;
        m_bTimeoutHandling = false;  // recovered: the next request may run
        return true;
    }
    SFRespData* DoRequest(SFMessage* msg, void* service) override {
        Await([] { return g_timeoutHookCalls > 0; }, milliseconds(3000));
        return MiscService::DoRequest(msg, service);
    }

private:
    std::atomic<bool> m_bComplete{false};
};

TEST(HostService, OverridesOfOnStartAndOfTheTimeoutHookAreHonoured) {
    g_onStartCalls = 0;
    g_timeoutHookCalls = 0;
    EngineHarness h(TestConfigJson(), true,
                    [](ContextWrapper* w) { return new SelfRecoveringService(w); });
    Reply r;
    // The handler returns only after its timeout: the service handled that, so the handler's
    // own reply is the one the client gets, and the request thread goes on serving.
    ASSERT_TRUE(h.Ask("JXT+ECHO=late but kept", r));
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("late but kept", r.response);
    EXPECT_TRUE(h.log.Has("MISC_SERVICEservice has handled", "HandleRequestTimeout", 1));
    ASSERT_TRUE(h.Ask("JXT+ECHO=next", r));
    EXPECT_EQ("next", r.response);
    EXPECT_EQ(1, g_timeoutHookCalls.load());
    EXPECT_EQ(1, g_onStartCalls.load());
    EXPECT_TRUE(g_onStartSawItComplete.load());
}

std::atomic<bool> g_handlerStarted{false};
std::atomic<bool> g_wrapperDeleted{false};
std::atomic<bool> g_handlerSawDeletion{false};
std::atomic<bool> g_handlerWaited{false};

// A host's misc service whose DoRequest, once started, goes on to the HAL only when the wrapper
// has been deleted, or after half a second if the deletion waits for it.
class SlowToCallTheHal : public MiscService {
public:
    SlowToCallTheHal(ContextWrapper* context, bool ownConversion)
        : MiscService(context), m_bOwnConversion(ownConversion) {}
    SFRespData* DoRequest(SFMessage* msg, void* service) override {
        const bool own = m_bOwnConversion;
        g_handlerStarted = true;
        g_handlerSawDeletion = Await([] { return g_wrapperDeleted.load(); }, milliseconds(500));
        g_handlerWaited = true;
        if (!own) return MiscService::DoRequest(msg, service);  // the built-in HAL call
        // Written the natural way: the HAL call, then its conversion.
        SFData* device = msg->GetDeviceCommandData();
        std::vector<char> in, out;
        if (device && device->data) in.assign(device->data, device->data + device->length);
        const int rc = Execute(msg->GetSoFuncName(), &in, &out);
        return ConvertPCBAResponse(msg, rc, out.data(), static_cast<int>(out.size()));
    }

private:
    const bool m_bOwnConversion;
};

TEST(HostService, DeletingTheWrapperWaitsForTheEngineAroundAHalCall) {
    for (bool ownConversion : {false, true}) {
        SCOPED_TRACE(ownConversion ? "host conversion" : "built-in conversion");
        g_handlerStarted = g_wrapperDeleted = g_handlerSawDeletion = g_handlerWaited = false;
        EngineHarness h(TestConfigJson(), true, [ownConversion](ContextWrapper* w) {
            return new SlowToCallTheHal(w, ownConversion);
        });
        h.AwaitAllServicesUp();
        ASSERT_TRUE(h.client.Send("JXT+ECHO=x"));
        ASSERT_TRUE(Await([] { return g_handlerStarted.load(); }));
        h.cmdio->CmdIOCallback(nullptr, nullptr);
        delete h.wrapper;  // the services go while the handler is before its HAL call
        h.wrapper = nullptr;
        g_wrapperDeleted = true;
        ASSERT_TRUE(Await([] { return g_handlerWaited.load(); }));
        EXPECT_FALSE(g_handlerSawDeletion.load());
        // The host's own conversion would use the freed service: its thread stays in the call.
        if (ownConversion) {
            EXPECT_TRUE(h.log.AwaitLine(
                "a HAL call came back after its service was destroyed; its thread stops here",
                "ExcecuteFunc"));
        }
    }
}

TEST(HostService, WrapperLeavesTheFrontEndAloneAndStaysTheInstance) {
    LogCapture log;
    TempDir dir;
    ContextWrapper::SetConfigFilePath(dir.Write("vorn.json", "{}").c_str());
    auto* cmdio = new CmdIOService(UniqueSocketName("host").c_str());
    auto* cfg = new ConfigManager();
    ContextWrapper* wrapper = ContextWrapper::Initialize(cmdio, cfg);
    const int reads = log.CountContaining("Json file");
    ConfigManager other;
    EXPECT_EQ(wrapper, ContextWrapper::Initialize(nullptr, &other));
    EXPECT_EQ(reads, log.CountContaining("Json file"));
    EXPECT_EQ(cfg, wrapper->m_pCfgMgr);
    wrapper->AddAvailableService(MISC_SERVICE, new MiscService(wrapper));
    delete cmdio;  // the host releases its front end first
    delete wrapper;
    EXPECT_EQ(nullptr, SFServiceManager::GetServiceManager());
    // The same instance again, now without collaborators: the arguments are ignored.
    CmdIOService spare(UniqueSocketName("spare").c_str());
    EXPECT_EQ(wrapper, ContextWrapper::Initialize(&spare, &other));
    EXPECT_EQ(reads, log.CountContaining("Json file"));
    EXPECT_EQ(1001, wrapper->Start());
    EXPECT_TRUE(log.Has("m_pCmdIOService is null", "Start", 4));
    EXPECT_EQ(1001, ContextWrapper::CmdIOCallback("JXT", 3, wrapper));
    delete cfg;
    ContextWrapper::SetConfigFilePath(nullptr);
}

TEST(HostService, RecordsFillTheWholeStagingRecordAndLongQueriesAreServed) {
    EngineHarness h;
    Reply r;
    // 12 + 12 + 3148 = 3172 bytes: every response byte arrives.
    ASSERT_TRUE(h.Ask("JXT+BIG=3148", r));
    EXPECT_EQ(0, r.result);
    EXPECT_EQ("JXT+BIG=3148", r.request);
    EXPECT_EQ(3148u, r.response.size());
    // A response that fits keeps all its bytes; the echoed command gives way.
    const std::string padded = "JXT+BIG=3000" + std::string(1000, 'x');
    ASSERT_TRUE(h.Ask(padded, r));
    EXPECT_EQ(3000u, r.response.size());
    EXPECT_EQ(3172u - 12 - 3000, r.request.size());
    EXPECT_EQ(0u, padded.find(r.request));
    // A query of 3172 bytes and more is its header, "JXT".
    for (size_t tail : {3168u, 5000u}) {
        const std::string query = "JXT?" + std::string(tail, 'q');
        ASSERT_TRUE(h.Ask(query, r)) << tail;
        EXPECT_EQ(0, r.result) << tail;
        EXPECT_EQ("", r.response);
        EXPECT_EQ(3160u, r.request.size());
        EXPECT_EQ(0u, query.find(r.request));
    }
    // With "=", the vendor form would not fit: refused, with the error text whole.
    ASSERT_TRUE(h.Ask("JXT+ECHO=" + std::string(3200, 'p'), r));
    EXPECT_EQ(1001, r.result);
    EXPECT_EQ("1001:Normal error\r\n", r.response);
}

TEST(HostService, MonitorPausesWhileItsPipeCannotBeRebuilt) {
    EngineHarness h;
    h.AwaitAllServicesUp();
    SFService* misc = SFServiceManager::GetServiceManager()->GetService(MISC_SERVICE);
    rlimit saved{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
    rlimit none = saved;
    none.rlim_cur = 3;  // no descriptor above stdin, stdout and stderr
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    // The write end goes: the monitor reads the end of the pipe and cannot build a new one.
    pthread_mutex_lock(&misc->m_mtxPipeWrite);
    const int writeEnd = misc->m_nMsgPipeW.exchange(-1);
    pthread_mutex_unlock(&misc->m_mtxPipeWrite);
    close(writeEnd);
    const bool failing =
        h.log.AwaitLine("MISC_SERVICE Command pipe create fail", "OpenMessagePipe");
    std::this_thread::sleep_for(milliseconds(300));  // the span in which attempts are counted
    const int attempts = h.log.Count("MISC_SERVICE Command pipe create fail");
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
    ASSERT_TRUE(failing);
    EXPECT_LE(attempts, 10);
    EXPECT_EQ(1, h.log.CountContaining("message pipe cannot be rebuilt"));
    // Back within the longest pause once descriptors are free again, and said once.
    EXPECT_TRUE(Await([&] { return h.log.CountContaining("message pipe rebuilt after") == 1; },
                      milliseconds(3000)));
    Reply r;
    ASSERT_TRUE(h.Ask("JXT+ECHO=again", r));
    EXPECT_EQ("again", r.response);
}

}  // namespace
