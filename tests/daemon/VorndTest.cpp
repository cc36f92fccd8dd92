// vornd as its users run it: a separate process with a test configuration and the sample HAL,
// driven through raw sockets and vornctl.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "daemon/ChildProcess.h"
#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using vorn_test::ChildProcess;
using vorn_test::Client;
using vorn_test::Reply;
using vorn_test::RunProgram;
using vorn_test::RunResult;

// The sample HAL by its full path, with short request timeouts; an empty IIO tree keeps the
// sensor readings simulated, whatever sensors the machine has.
std::string TestConfig() {
    const std::string hal = VORN_HAL_PATH;
    return "{\n"
           "  \"misc\": { \"libpath\": \"" +
           hal +
           "\", \"default_timeout\": 2 },\n"
           "  \"sensor\": { \"libpath\": \"" +
           hal +
           "\", \"default_timeout\": 2 },\n"
           "  \"modem\": { \"libpath\": \"" +
           hal +
           "\", \"support\": false }\n"
           "}\n";
}

// Listens on an abstract name, as another program holding it would.
int ListenOn(const std::string& name) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, name.data(), name.size());
    const socklen_t len = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd, 1) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

const std::vector<std::string> kHalEnv{"VORN_HAL_IIO_ROOT=/nonexistent/vorn-test-iio"};

class Vornd : public ::testing::Test {
protected:
    void SetUp() override {
        config = dir.Write("vorn.json", TestConfig());
        ASSERT_TRUE(daemon.Start({VORND_PATH, "--socket", socket, "--config", config}, kHalEnv));
        // The socket listens from the first moment; the first reply proves the services run.
        ASSERT_TRUE(vorn_test::Await([&] { return client.Connect(socket); })) << daemon.Stderr();
    }

    Reply Ask(const std::string& command) {
        Reply reply;
        EXPECT_TRUE(client.Send(command));
        EXPECT_TRUE(client.ReadReply(reply)) << command << "\n" << daemon.Stderr();
        EXPECT_EQ(reply.request, command);
        return reply;
    }

    RunResult Vornctl(std::vector<std::string> args) {
        args.insert(args.begin(), {VORNCTL_PATH, "--socket", socket});
        return RunProgram(args);
    }

    vorn_test::TempDir dir;
    std::string config;
    std::string socket = vorn_test::UniqueSocketName("vornd");
    ChildProcess daemon;
    Client client;
};

TEST_F(Vornd, AnswersBuiltInHalAndRefusedCommands) {
    Reply r = Ask("JXT");
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.response, "");

    r = Ask("JXT+MEMORY");
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.response.rfind("MemTotal:", 0), 0u) << r.response;
    EXPECT_NE(r.response.find(" kB,MemAvailable:"), std::string::npos) << r.response;

    r = Ask("JXT+GSENSOR=1");
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.response, "X:-0.002,Y:0.002,Z:1.000");

    r = Ask("JXT+GYRO=1,2");
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.response, "X:-0.002,Y:0.002,Z:-0.001;X:0.000,Y:0.000,Z:0.000");

    r = Ask("JXT+ASENSOR");
    EXPECT_EQ(r.result, 0);
    EXPECT_EQ(r.response, "X:-0.002,Y:0.002,Z:9.807");

    r = Ask("JXT+GSENSOR=bogus");
    EXPECT_EQ(r.result, 22);
    EXPECT_EQ(r.response, "22:Invalid argument\r\n");

    r = Ask("JXT+NOSUCH");
    EXPECT_EQ(r.result, 1001);
    EXPECT_EQ(r.response, "1001:Normal error\r\n");

    // The modem service is switched off by the configuration.
    r = Ask("JXT+CPVERSION?");
    EXPECT_EQ(r.result, 1001);
}

TEST_F(Vornd, VornctlExitStatusFollowsTheResults) {
    RunResult r = Vornctl({"JXT", "JXT+GSENSOR=1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(
        r.out.find("JXT+GSENSOR=1\n  result   0 (Success)\n  response X:-0.002,Y:0.002,Z:1.000\n"),
        std::string::npos)
        << r.out;

    r = Vornctl({"--json", "JXT", "JXT+NOSUCH"});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.out,
              "{\"result\":0,\"meaning\":\"Success\",\"command\":\"JXT\",\"response\":\"\"}\n"
              "{\"result\":1001,\"meaning\":\"Normal error\",\"command\":\"JXT+NOSUCH\","
              "\"response\":\"1001:Normal error\\r\\n\"}\n");
}

TEST_F(Vornd, StopsOnSigtermWithinASecondWithStatusZero) {
    EXPECT_EQ(Ask("JXT").result, 0);
    const auto start = std::chrono::steady_clock::now();
    daemon.Signal(SIGTERM);
    ASSERT_TRUE(daemon.Wait(1000ms)) << daemon.Stderr();
    EXPECT_LT(std::chrono::steady_clock::now() - start, 1000ms);
    EXPECT_EQ(daemon.ExitStatus(), 0) << daemon.Stderr();
}

TEST_F(Vornd, StopsOnSigintWhileARequestIsStillRunning) {
    // "JXT+TIMEOUT" keeps a request thread busy for good; shutdown must not wait for it.
    ASSERT_TRUE(client.Send("JXT+TIMEOUT"));
    EXPECT_EQ(client.ReadAvailable(50ms), "");
    daemon.Signal(SIGINT);
    ASSERT_TRUE(daemon.Wait(1000ms)) << daemon.Stderr();
    EXPECT_EQ(daemon.ExitStatus(), 0) << daemon.Stderr();
}

TEST_F(Vornd, SecondDaemonOnTheSameSocketFailsWithAClearMessage) {
    EXPECT_EQ(Ask("JXT").result, 0);
    const RunResult second = RunProgram({VORND_PATH, "--socket", socket}, "", 5000ms, kHalEnv);
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.err.find("cannot listen on socket \"" + socket + "\""), std::string::npos)
        << second.err;
    EXPECT_EQ(Ask("JXT").result, 0) << "the first daemon is unharmed";
}

TEST(VorndStartup, PrintConfigShowsTheMergedConfigurationWithoutServing) {
    vorn_test::TempDir dir;
    const std::string config =
        dir.Write("vorn.json",
                  "{ \"sensor\": { \"libpath\": \"/opt/test/libsensor_hal.so\", "
                  "\"whitelist\": [ { \"command\": \"JXT+TILT\", \"func\": \"tilt_cmd\" } ] } }");
    const RunResult r = RunProgram({VORND_PATH, "--config", config, "--print-config"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("/opt/test/libsensor_hal.so"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("JXT+TILT"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("tilt_cmd"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("JXT+GYRO"), std::string::npos) << "the file's white list replaces it";
    EXPECT_NE(r.out.find("JXT+MEMORY"), std::string::npos) << "other services keep theirs";
}

TEST(VorndStartup, PrintConfigNeedsNoSocket) {
    // Someone else holds the name: printing the configuration must still work.
    const std::string socket = vorn_test::UniqueSocketName("taken");
    const int fd = ListenOn(socket);
    ASSERT_GE(fd, 0);
    const RunResult r = RunProgram({VORND_PATH, "--socket", socket, "--print-config"});
    close(fd);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("JXT+GSENSOR"), std::string::npos) << r.out;
}

TEST(VorndStartup, RejectsUnusableConfigurationAndBadOptions) {
    vorn_test::TempDir dir;
    const std::string socket = vorn_test::UniqueSocketName("badcfg");
    RunResult r = RunProgram({VORND_PATH, "--socket", socket, "--config", dir.path() + "/none"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("cannot use configuration file"), std::string::npos) << r.err;

    r = RunProgram({VORND_PATH, "--print-config", "--config", dir.Write("bad.json", "{ nope")});
    EXPECT_EQ(r.status, 1);

    EXPECT_EQ(RunProgram({VORND_PATH, "--log-level", "7"}).status, 2);
    EXPECT_EQ(RunProgram({VORND_PATH, "--socket"}).status, 2);
    r = RunProgram({VORND_PATH, "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Usage: vornd"), std::string::npos);
}

}  // namespace
