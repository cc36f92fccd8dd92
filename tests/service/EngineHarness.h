#ifndef VORN_TESTS_SERVICE_ENGINEHARNESS_H
#define VORN_TESTS_SERVICE_ENGINEHARNESS_H

#include <pthread.h>

#include <functional>
#include <memory>
#include <string>

#include "support/TestSupport.h"
#include "vorn_core.h"

namespace vorn_test {

// The test HAL's own controls (the library is shared with the services that load it).
struct TestHal {
    // VORN_TEST_HAL_PATH; a bare file name (a device test module) is looked for next to the
    // test program and in its lib64/ and lib/ folders.
    static std::string Path();
    static void Reset();
    static void Release();
    static int Blocked();
    static int Calls();
    static std::string LastInput();
    static pthread_t LastCaller();  // the thread of the last call
};

// A configuration in which all three services bind the test HAL, with 1-second time-outs.
std::string TestConfigJson();

// The host's start-up sequence, in this process: command I/O service on a fresh socket name,
// configuration (from `configJson`), context wrapper, the three services (the misc one from
// `makeMisc` when given: a host's own service), Start. The destructor shuts it all down again.
// The wrapper is constructed directly: Initialize hands out one instance per process for good.
class EngineHarness {
public:
    using ServiceFactory = std::function<SFService*(ContextWrapper*)>;
    explicit EngineHarness(const std::string& configJson = TestConfigJson(), bool start = true,
                           const ServiceFactory& makeMisc = nullptr);
    ~EngineHarness();

    // Sends one command on the harness's client and reads one reply.
    bool Ask(const std::string& command, Reply& reply,
             std::chrono::milliseconds limit = std::chrono::milliseconds(5000));

    bool releaseOnExit = true;
    // Asks one command of each service, so that all their threads are known to be up.
    void AwaitAllServicesUp();

    LogCapture log;  // installed first, so start-up lines are captured too
    TempDir dir;
    std::string socketName;
    CmdIOService* cmdio = nullptr;
    ConfigManager* cfg = nullptr;
    ContextWrapper* wrapper = nullptr;
    Client client;
};

}  // namespace vorn_test

#endif
