#include "EngineHarness.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <unistd.h>

namespace vorn_test {
namespace {

// Keeps the test HAL loaded for the whole process, so its state outlives every service.
void* Hal() {
    static void* handle = dlopen(TestHal::Path().c_str(), RTLD_NOW);
    return handle;
}

template <typename F>
F HalFunc(const char* name) {
    return reinterpret_cast<F>(dlsym(Hal(), name));
}

}  // namespace

std::string TestHal::Path() { return vorn_test::BesideTestProgram(VORN_TEST_HAL_PATH); }

void TestHal::Reset() { HalFunc<void (*)()>("test_hal_reset")(); }
void TestHal::Release() { HalFunc<void (*)()>("test_hal_release")(); }
int TestHal::Blocked() { return HalFunc<int (*)()>("test_hal_blocked")(); }
int TestHal::Calls() { return HalFunc<int (*)()>("test_hal_calls")(); }
pthread_t TestHal::LastCaller() { return HalFunc<pthread_t (*)()>("test_hal_last_caller")(); }

std::string TestHal::LastInput() {
    char buf[4096];
    int n = HalFunc<int (*)(char*, int)>("test_hal_last_input")(buf, sizeof buf);
    return std::string(buf, static_cast<size_t>(n));
}

std::string TestConfigJson() {
    const std::string hal = TestHal::Path();
    return R"({
  "misc": { "libpath": ")" +
           hal + R"(", "default_timeout": 1, "whitelist": [
      { "command": "JXT+ECHO", "func": "echo_cmd" },
      { "command": "JXT+HANG", "func": "block_cmd" },
      { "command": "JXT+MISSING", "func": "no_such_cmd" },
      { "command": "JXT+CODE", "func": "code_cmd" },
      { "command": "JXT+BYTESFAIL", "func": "fail_with_bytes_cmd" },
      { "command": "JXT+BIG", "func": "big_cmd" },
      { "command": "JXT+THROW", "func": "throw_cmd" } ] },
  "sensor": { "libpath": ")" +
           hal + R"(", "default_timeout": 1, "whitelist": [
      { "commands": [ "JXT+GSENSOR", "JXT+GYRO" ], "func": "echo_cmd" },
      { "command": "JXT+SHANG", "func": "block_cmd" } ] },
  "modem": { "libpath": ")" +
           hal + R"(", "default_timeout": 1, "whitelist": [
      { "command": "JXT+CPVERSION", "func": "echo_cmd" },
      { "command": "JXT+MHANG", "func": "block_cmd" } ] }
})";
}

EngineHarness::EngineHarness(const std::string& configJson, bool start,
                             const ServiceFactory& makeMisc) {
    Hal();
    TestHal::Reset();
    socketName = UniqueSocketName("engine");
    ContextWrapper::SetConfigFilePath(dir.Write("vorn.json", configJson).c_str());
    cmdio = new CmdIOService(socketName.c_str());
    cfg = new ConfigManager();
    wrapper = new ContextWrapper(cmdio, cfg);
    wrapper->AddAvailableService(MISC_SERVICE,
                                 makeMisc ? makeMisc(wrapper) : new MiscService(wrapper));
    wrapper->AddAvailableService(SENSOR_SERVICE, new SensorService(wrapper));
    wrapper->AddAvailableService(MODEM_SERVICE, new ModemService(wrapper));
    if (start) {
        EXPECT_EQ(0, wrapper->Start());
        EXPECT_TRUE(client.Connect(socketName));
    }
}

EngineHarness::~EngineHarness() {
    // Blocked handlers are let go first, so their threads end instead of piling up.
    if (releaseOnExit) TestHal::Release();
    client.Close();
    // As a host does: the socket loop is stopped (and joined) before the services go, so no
    // command reaches them any more; replies still under way find the front end alive.
    if (cmdio) cmdio->Stop();
    delete wrapper;
    delete cmdio;
    delete cfg;
    ContextWrapper::SetConfigFilePath(nullptr);
}

void EngineHarness::AwaitAllServicesUp() {
    Reply r;
    for (const char* cmd : {"JXT", "JXT+GSENSOR=up", "JXT+CPVERSION=up"})
        EXPECT_TRUE(Ask(cmd, r)) << cmd;
    // A reply is sent by the request thread itself: the response thread, started just after
    // it, may still be on its way.
    for (const char* name : {"MISC_SERVICE", "SENSOR_SERVICE", "MODEM_SERVICE"})
        EXPECT_TRUE(log.AwaitLine(std::string("<") + name + "> response thread boot", "Run"))
            << name;
}

bool EngineHarness::Ask(const std::string& command, Reply& reply, std::chrono::milliseconds limit) {
    return client.Send(command) && client.ReadReply(reply, limit);
}

}  // namespace vorn_test
