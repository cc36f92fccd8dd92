// vornd as its users run it: a separate process with a test configuration and the sample HAL,
// driven through raw sockets and vornctl.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <tuple>
#include <vector>

#include "daemon/ChildProcess.h"
#include "daemon/TcpRelay.h"
#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using vorn_test::Reply;
using vorn_test::RunProgram;
using vorn_test::RunResult;

// An empty IIO tree keeps the sensor readings simulated, whatever sensors the machine has.
const std::vector<std::string> kHalEnv{"VORN_HAL_IIO_ROOT=/nonexistent/vorn-test-iio"};

class Vornd : public ::testing::Test {
protected:
    // The sample HAL by its full path, with short request timeouts; no modem service.
    void SetUp() override {
        const std::string hal = std::string("{ \"libpath\": \"") + VORN_HAL_PATH + "\", ";
        const std::string config =
            dir.Write("vorn.json",
                      "{ \"misc\": " + hal + "\"default_timeout\": 2 }, \"sensor\": " + hal +
                          "\"default_timeout\": 2 }, \"modem\": " + hal + "\"support\": false } }");
        ASSERT_TRUE(daemon.Start({VORND_PATH, "--socket", socket, "--config", config}, kHalEnv));
        // The socket listens from the first moment; the first reply proves the services run.
        ASSERT_TRUE(vorn_test::Await([&] { return client.Connect(socket); })) << daemon.Stderr();
    }

    Reply Ask(const std::string& command) { return AskDaemon(client, daemon, command); }

    // A request thread kept busy for good must not hold up the shutdown.
    void StopsWithinASecondOn(int signo) {
        ASSERT_TRUE(client.Send("JXT+TIMEOUT"));
        EXPECT_EQ(client.ReadAvailable(50ms), "");
        const auto start = std::chrono::steady_clock::now();
        daemon.Signal(signo);
        ASSERT_TRUE(daemon.Wait(1000ms)) << daemon.Stderr();
        EXPECT_LT(std::chrono::steady_clock::now() - start, 1000ms);
        EXPECT_EQ(daemon.ExitStatus(), 0) << daemon.Stderr();
    }

    vorn_test::TempDir dir;
    std::string socket = vorn_test::UniqueSocketName("vornd");
    vorn_test::ChildProcess daemon;
    vorn_test::Client client;
};

TEST_F(Vornd, AnswersBuiltInHalAndRefusedCommands) {
    const std::vector<std::tuple<std::string, int, std::string>> cases{
        {"JXT", 0, ""},
        {"JXT+GSENSOR=1", 0, "X:-0.002,Y:0.002,Z:1.000"},
        {"JXT+GYRO=1,2", 0, "X:-0.002,Y:0.002,Z:-0.001;X:0.000,Y:0.000,Z:0.000"},
        {"JXT+GSENSOR=bogus", 22, "22:Invalid argument\r\n"},
        {"JXT+NOSUCH", 1001, "1001:Normal error\r\n"},
        {"JXT+CPVERSION?", 1001, "1001:Normal error\r\n"},  // the modem service is off
    };
    for (const auto& [command, result, response] : cases) {
        const Reply r = Ask(command);
        EXPECT_EQ(r.result, result) << command;
        EXPECT_EQ(r.response, response) << command;
    }
    const Reply r = Ask("JXT+MEMORY");
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.response.rfind("MemTotal:", 0), 0u) << r.response;
    EXPECT_NE(r.response.find(" kB,MemAvailable:"), std::string::npos) << r.response;

    // vornctl reads the same records (its layouts are driven exactly against a stand-in).
    const RunResult ctl = RunProgram({VORNCTL_PATH, "--socket", socket, "JXT", "JXT+NOSUCH"});
    EXPECT_EQ(ctl.status, 1) << ctl.err;
    EXPECT_NE(ctl.out.find("JXT+NOSUCH\n  result   1001 (Normal error)\n"), std::string::npos)
        << ctl.out;
}

// A station reaching a device through adb forwarding: the same records over TCP.
TEST_F(Vornd, VornctlReachesItOverATcpRelay) {
    vorn_test::TcpRelay relay(socket);
    ASSERT_GT(relay.port(), 0);
    const RunResult ctl =
        RunProgram({VORNCTL_PATH, "--tcp", "127.0.0.1:" + std::to_string(relay.port()),
                    "JXT+GSENSOR=1", "JXT+NOSUCH"});
    EXPECT_EQ(ctl.status, 1) << ctl.err;
    EXPECT_EQ(ctl.out,
              "JXT+GSENSOR=1\n  result   0 (Success)\n  response X:-0.002,Y:0.002,Z:1.000\n"
              "JXT+NOSUCH\n  result   1001 (Normal error)\n  response 1001:Normal error\\r\\n\n");
}

TEST_F(Vornd, StopsOnSigtermWithinASecondWithStatusZero) { StopsWithinASecondOn(SIGTERM); }

TEST_F(Vornd, StopsOnSigintWithinASecondWithStatusZero) { StopsWithinASecondOn(SIGINT); }

TEST_F(Vornd, SecondDaemonOnTheSameSocketFailsButMayPrintTheConfiguration) {
    RunResult r = RunProgram({VORND_PATH, "--socket", socket}, "", 5000ms, kHalEnv);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot listen on socket \"" + socket + "\""), std::string::npos) << r.err;
    r = RunProgram({VORND_PATH, "--socket", socket, "--print-config"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(Ask("JXT").result, 0) << "the first daemon is unharmed";
}

TEST(VorndStartup, PrintConfigShowsTheMergedConfiguration) {
    vorn_test::TempDir dir;
    const std::string config =
        dir.Write("vorn.json",
                  "{ \"sensor\": { \"libpath\": \"/opt/test/libsensor_hal.so\", "
                  "\"whitelist\": [ { \"command\": \"JXT+TILT\", \"func\": \"tilt_cmd\" } ] } }");
    const RunResult r = RunProgram({VORND_PATH, "--config", config, "--print-config"});
    EXPECT_EQ(r.status, 0) << r.err;
    // The file's white list replaces the sensor's; other services keep theirs.
    for (const char* part : {"/opt/test/libsensor_hal.so", "JXT+TILT", "tilt_cmd", "JXT+MEMORY"})
        EXPECT_NE(r.out.find(part), std::string::npos) << part << "\n" << r.out;
    EXPECT_EQ(r.out.find("JXT+GYRO"), std::string::npos) << r.out;
}

TEST(VorndStartup, RejectsUnusableConfigurationAndBadOptions) {
    vorn_test::TempDir dir;
    RunResult r = RunProgram({VORND_PATH, "--socket", vorn_test::UniqueSocketName("badcfg"),
                              "--config", dir.path() + "/none"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot use configuration file"), std::string::npos) << r.err;
    r = RunProgram({VORND_PATH, "--print-config", "--config", dir.Write("bad.json", "{ nope")});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(RunProgram({VORND_PATH, "--log-level", "7"}).status, 2);
    EXPECT_EQ(RunProgram({VORND_PATH, "--queue-spin-us", "1001"}).status, 2);
    EXPECT_EQ(RunProgram({VORND_PATH, "--queue-spin-us", "5x"}).status, 2);
}

TEST(VorndStartup, OptionsTakeTheirValueInEveryFormAndCheckConfigAnswersWithItsStatus) {
    vorn_test::TempDir dir;
    const std::string config =
        dir.Write("vorn.json", "{ \"sensor\": { \"libpath\": \"/opt/test/libsensor_hal.so\" } }");
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{VORND_PATH, "--config=" + config, "-p"},
          std::vector<std::string>{VORND_PATH, "-c" + config, "--print-config"},
          std::vector<std::string>{VORND_PATH, "-l", "4", "-c", config, "-p"}}) {
        const RunResult r = RunProgram(args);
        EXPECT_EQ(r.status, 0) << args[1] << "\n" << r.err;
        EXPECT_NE(r.out.find("/opt/test/libsensor_hal.so"), std::string::npos) << args[1];
    }
    RunResult r = RunProgram({VORND_PATH, "-V"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("vornd ", 0), 0u) << r.out;
    r = RunProgram({VORND_PATH, "--help"});
    EXPECT_NE(r.out.find("SIGHUP"), std::string::npos) << r.out;
    r = RunProgram({VORND_PATH, "--print-config=yes"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("--print-config takes no value"), std::string::npos) << r.err;

    // The strict check: every function of the built-in white lists found in the sample HAL, a
    // misspelt service named.
    const std::string hal = std::string("{ \"libpath\": \"") + VORN_HAL_PATH + "\" }";
    r = RunProgram({VORND_PATH, "--check-config",
                    dir.Write("clean.json", "{ \"misc\": " + hal + ", \"sensor\": " + hal +
                                                ", \"modem\": " + hal + " }")});
    EXPECT_EQ(r.status, 0) << r.out << r.err;
    EXPECT_EQ(r.out, "");
    const std::string typo = "{ \"sesnor\": { }, \"misc\": " + hal + ", \"sensor\": " + hal +
                             ", \"modem\": " + hal + " }";
    r = RunProgram({VORND_PATH, "--check-config=" + dir.Write("typo.json", typo)});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "/sesnor: unknown service, ignored (services: misc, sensor, modem)\n");
}

}  // namespace
