// A service's HAL host against a HAL with one fault per function: every call gets a defined
// answer at once, the log names what happened, and the next call finds a working host.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "service/HalHost.h"
#include "support/TestSupport.h"

using namespace vorn_test;
using namespace std::chrono_literals;

namespace {

const std::string kFaultyHal = vorn_test::BesideTestProgram(VORN_FAULTY_HAL_PATH);
const std::string kHalHost = vorn_test::BesideTestProgram(VORN_HALHOST_PATH);

struct HostCase : ::testing::Test {
    HalHost host{"MISC_SERVICE", kFaultyHal, kHalHost};
    LogCapture log;

    std::string Ask(const std::string& name, int& rc, const std::string& input = "") {
        std::vector<char> in(input.begin(), input.end()), out;
        rc = host.Call(name, in, out);
        return std::string(out.begin(), out.end());
    }
    // The one severity-4 line about the host, or "" when there is none.
    std::string DeathLine() const {
        for (const auto& line : log.Lines())
            if (line.severity == 4 && line.function == "HalHost") return line.text;
        return "";
    }
    // A process that is gone or a zombie no longer runs.
    static bool Gone(pid_t pid) {
        std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
        std::string pidText, comm, state;
        return !(stat >> pidText >> comm >> state) || state == "Z";
    }
};

TEST_F(HostCase, CallsLookupsAndTheHostsDescriptors) {
    int rc = -1;
    EXPECT_EQ("OK:abc", Ask("ok_cmd", rc, "abc"));
    EXPECT_EQ(0, rc);
    EXPECT_TRUE(host.IsExported("crash_cmd"));
    EXPECT_FALSE(host.IsExported("no_such_cmd"));
    EXPECT_EQ("", Ask("no_such_cmd", rc));
    EXPECT_EQ(1001, rc);
    // An exception is reported as in this process, and the host lives on.
    EXPECT_EQ("", Ask("throw_cmd", rc));
    EXPECT_EQ(1001, rc);
    EXPECT_TRUE(log.Has("HAL function throw_cmd threw: sensor bus gone", "Execute", 4));
    // Only its channel and /dev/null: no descriptor of this process reaches the host.
    const std::string fds = Ask("fds_cmd", rc);
    EXPECT_EQ(0, rc);
    EXPECT_EQ("0:/dev/null;1:/dev/null;2:/dev/null;3:socket:", fds.substr(0, 45)) << fds;
    EXPECT_EQ(std::string::npos, fds.find(";4:")) << fds;
    EXPECT_EQ("", DeathLine());
    // A HAL that writes onto the channel itself is not believed: its host goes.
    EXPECT_EQ("", Ask("lie_cmd", rc));
    EXPECT_EQ(1001, rc);
    EXPECT_TRUE(log.Has("MISC_SERVICE HAL host sent a malformed answer (12 bytes) to lie_cmd",
                        "HalHost", 4))
        << log.Dump();
    EXPECT_EQ("OK:", Ask("ok_cmd", rc));
}

TEST_F(HostCase, HostThatDiesInACallIsReportedAndReplaced) {
    struct Fault {
        const char* function;
        std::string how;  // what the line says after "died in FUNCTION: "
    };
    // Under AddressSanitizer a SIGSEGV is reported by the sanitizer, which then exits.
    const Fault faults[] = {{"crash_cmd", ""},
                            {"abort_cmd", "signal 6"},
                            {"exit_cmd", "exit status 7"},
                            {"close_fds_cmd", "exit status 3"}};
    for (const Fault& fault : faults) {
        SCOPED_TRACE(fault.function);
        log.Clear();
        int rc = -1;
        const pid_t before = host.Pid();
        EXPECT_EQ("", Ask(fault.function, rc));
        EXPECT_EQ(1001, rc);
        const std::string line = DeathLine();
        EXPECT_EQ(0u, line.find("MISC_SERVICE HAL host (pid ")) << log.Dump();
        EXPECT_NE(std::string::npos,
                  line.find(std::string(") died in ") + fault.function + ": " + fault.how))
            << line;
        EXPECT_EQ(-1, host.Pid());
        if (before > 0) {
            EXPECT_TRUE(Gone(before));
        }
        // The next call starts a new host; a call that works clears the back-off count.
        EXPECT_EQ("OK:", Ask("ok_cmd", rc));
        EXPECT_EQ(0, rc);
    }
}

TEST_F(HostCase, HostThatDiesAgainBeforeAnsweringBacksOff) {
    int rc = -1;
    Ask("crash_cmd", rc);
    Ask("crash_cmd", rc);  // the new host died before it answered anything
    EXPECT_EQ(1001, rc);
    log.Clear();
    // Refused at once, without a host, and said once.
    Ask("ok_cmd", rc);
    Ask("ok_cmd", rc);
    EXPECT_EQ(1001, rc);
    EXPECT_EQ(-1, host.Pid());
    EXPECT_EQ(1, log.CountContaining("HAL host died 2 times in a row before answering a call: "
                                     "no restart for "))
        << log.Dump();
    // After the 250-ms pause the host starts again.
    EXPECT_TRUE(Await([&] { return Ask("ok_cmd", rc) == "OK:" && rc == 0; }, 3000ms));
}

TEST_F(HostCase, AbortTakesAHungOrSpinningCallAwayAndKillsWhatTheHalForked) {
    int rc = -1;
    const pid_t child = std::stoi(Ask("fork_cmd", rc));
    ASSERT_EQ(0, rc);
    ASSERT_FALSE(Gone(child));
    for (const char* function : {"hang_cmd", "spin_cmd"}) {
        SCOPED_TRACE(function);
        log.Clear();
        auto call = std::async(std::launch::async, [&] {
            int r = -1;
            Ask(function, r);
            return r;
        });
        const pid_t busy = host.Pid();
        // Abort does nothing until a call is in flight; the host is then killed at once.
        ASSERT_TRUE(Await([&] { return host.Abort(); }));
        ASSERT_EQ(std::future_status::ready, call.wait_for(5s));
        EXPECT_EQ(HalHost::kAborted, call.get());
        EXPECT_TRUE(Gone(busy));
        EXPECT_TRUE(Gone(child));  // the host's process group went with it
        EXPECT_TRUE(log.Has("MISC_SERVICE HAL host (pid " + std::to_string(busy) + ") killed: " +
                                function + " outlived its timeout; a new one is started",
                            "HalHost", 3))
            << log.Dump();
        EXPECT_EQ("", DeathLine());
        EXPECT_GT(host.Pid(), 0);  // started again at once, by the thread that was aborted
        EXPECT_EQ("OK:", Ask("ok_cmd", rc));
    }
    // Stopped, the host is gone and every later call gets 1001.
    const pid_t last = host.Pid();
    host.Stop();
    EXPECT_TRUE(Gone(last));
    EXPECT_EQ("", Ask("ok_cmd", rc));
    EXPECT_EQ(1001, rc);
}

TEST(HalHostStart, MissingLibraryOrProgramIsLoggedAndAnswered1001) {
    LogCapture log;
    {
        HalHost host("SENSOR_SERVICE", "/nonexistent/libnothing.so", kHalHost);
        EXPECT_FALSE(host.IsExported("ok_cmd"));
        EXPECT_EQ(1, log.CountContaining("dlopen(/nonexistent/libnothing.so) fail: "))
            << log.Dump();
    }
    HalHost host("SENSOR_SERVICE", kFaultyHal, "/nonexistent/vorn_halhost");
    std::vector<char> out;
    EXPECT_EQ(1001, host.Call("ok_cmd", {}, out));
    EXPECT_EQ(1, log.CountContaining("SENSOR_SERVICE HAL host \"/nonexistent/vorn_halhost\" "
                                     "cannot be started: "))
        << log.Dump();
}

}  // namespace
