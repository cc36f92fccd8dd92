// vornd with a HAL that crashes, aborts, exits, hangs, spins, closes descriptors, forks and
// floods its output: the daemon answers every command, keeps serving, and keeps no thread,
// process or processor time of a fault.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "daemon/ChildProcess.h"
#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using vorn_test::Await;
using vorn_test::Reply;

const std::vector<std::string> kHalEnv{"VORN_HAL_IIO_ROOT=/nonexistent/vorn-test-iio"};

// The fields of /proc/PID/stat after the command name; empty when the process is gone.
std::vector<std::string> StatFields(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t end = text.rfind(')');
    std::vector<std::string> fields;
    if (end == std::string::npos) return fields;
    std::istringstream rest(text.substr(end + 2));
    for (std::string f; rest >> f;) fields.push_back(f);
    return fields;  // [0] state, [1] ppid, [11] utime, [12] stime
}

bool Running(pid_t pid) {
    const auto f = StatFields(pid);
    return !f.empty() && f[0] != "Z";
}

long Ticks(pid_t pid) {
    const auto f = StatFields(pid);
    return f.size() > 12 ? std::stol(f[11]) + std::stol(f[12]) : 0;
}

std::vector<pid_t> Children(pid_t parent) {
    std::vector<pid_t> children;
    DIR* dir = opendir("/proc");
    while (dirent* e = dir ? readdir(dir) : nullptr) {
        const pid_t pid = std::atoi(e->d_name);
        if (pid <= 0) continue;
        const auto f = StatFields(pid);
        if (f.size() > 1 && f[0] != "Z" && std::stoi(f[1]) == parent) children.push_back(pid);
    }
    if (dir) closedir(dir);
    return children;
}

int Threads(pid_t pid) {
    int n = 0;
    DIR* dir = opendir(("/proc/" + std::to_string(pid) + "/task").c_str());
    while (dirent* e = dir ? readdir(dir) : nullptr) n += e->d_name[0] != '.';
    if (dir) closedir(dir);
    return n;
}

class HalFaults : public ::testing::Test {
protected:
    // The faulty HAL behind the misc service, 1-s timeouts; the sample HAL behind the sensor.
    void Start(const std::vector<std::string>& extra = {}) {
        const std::string config = dir.Write(
            "vorn.json", std::string("{ \"misc\": { \"libpath\": \"") + VORN_FAULTY_HAL_PATH +
                             "\", \"default_timeout\": 1, \"whitelist\": [ \"JXT\", "
                             "\"JXT+TIMEOUT\"" +
                             Rows() + " ] }, \"sensor\": { \"libpath\": \"" + VORN_HAL_PATH +
                             "\", \"default_timeout\": 1 }, \"modem\": { \"support\": false } }");
        std::vector<std::string> argv{VORND_PATH, "--socket", socket, "--config", config};
        argv.insert(argv.end(), extra.begin(), extra.end());
        ASSERT_TRUE(daemon.Start(argv, kHalEnv));
        ASSERT_TRUE(Await([&] { return client.Connect(socket); })) << daemon.Stderr();
        // Serving: both services answer.
        EXPECT_EQ("OK:up", Ask("JXT+OK=up").response);
        EXPECT_EQ(0, Ask("JXT+GSENSOR=1").result);
    }

    static std::string Rows() {
        std::string rows;
        for (const char* name :
             {"OK", "CRASH", "ABORT", "EXIT", "HANG", "SPIN", "CLOSEFDS", "FORK", "FLOOD"}) {
            std::string func = std::string(name) + "_cmd";
            for (char& c : func) c = static_cast<char>(tolower(c));
            if (func == "closefds_cmd") func = "close_fds_cmd";
            rows +=
                std::string(", { \"command\": \"JXT+") + name + "\", \"func\": \"" + func + "\" }";
        }
        return rows;
    }

    Reply Ask(const std::string& command) { return AskDaemon(client, daemon, command); }

    // Still alive and serving both services, through a connection made now.
    void ExpectServing() {
        ASSERT_TRUE(Running(daemon.Pid()));
        vorn_test::Client fresh;
        ASSERT_TRUE(fresh.Connect(socket));
        Reply reply;
        ASSERT_TRUE(fresh.Send("JXT+OK=again"));
        ASSERT_TRUE(fresh.ReadReply(reply));
        EXPECT_EQ("OK:again", reply.response);
        EXPECT_EQ(0, Ask("JXT+GSENSOR=1").result);
    }

    vorn_test::TempDir dir;
    std::string socket = vorn_test::UniqueSocketName("halfault");
    vorn_test::ChildProcess daemon;
    vorn_test::Client client;
};

TEST_F(HalFaults, EveryFaultIsAnsweredAndLeavesNothingBehind) {
    Start();
    const pid_t vornd = daemon.Pid();
    ASSERT_EQ(2u, Children(vornd).size());  // one HAL host per service served
    const int threads = Threads(vornd);

    for (const char* command : {"JXT+CRASH", "JXT+ABORT", "JXT+EXIT", "JXT+CLOSEFDS"}) {
        SCOPED_TRACE(command);
        const Reply reply = Ask(command);
        EXPECT_EQ(1001, reply.result);
        ExpectServing();
    }

    for (const char* command : {"JXT+HANG", "JXT+SPIN"}) {
        SCOPED_TRACE(command);
        const std::vector<pid_t> hosts = Children(vornd);
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(1002, Ask(command).result);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 2500ms);
        // The timed-out call's thread and host are gone, a new host has taken the old one's
        // place, and the service goes on.
        EXPECT_TRUE(Await([&] { return Threads(vornd) == threads; })) << Threads(vornd);
        EXPECT_TRUE(Await([&] {
            return Children(vornd).size() == 2 && !(Running(hosts.at(0)) && Running(hosts.at(1)));
        }));
        ExpectServing();
    }
    // Nothing burns a processor afterwards.
    std::vector<pid_t> all = Children(vornd);
    all.push_back(vornd);
    std::vector<long> before;
    for (pid_t pid : all) before.push_back(Ticks(pid));
    usleep(500000);
    long spent = 0;
    for (size_t i = 0; i < all.size(); ++i) spent += Ticks(all[i]) - before[i];
    EXPECT_LE(spent, 5);

    // A megabyte to each of the HAL's stdout and stderr reaches nothing of the daemon.
    EXPECT_EQ("FLOODED", Ask("JXT+FLOOD").response);
    EXPECT_LT(daemon.Stderr().size(), 65536u);
    EXPECT_EQ(threads, Threads(vornd));
    EXPECT_EQ(2u, Children(vornd).size());
}

TEST_F(HalFaults, ForkedChildEndsWithTheDaemonAndTheSocketNameIsFreeAfterwards) {
    Start();
    const Reply reply = Ask("JXT+FORK");
    ASSERT_EQ(0, reply.result);
    const pid_t forked = std::stoi(reply.response);
    ASSERT_TRUE(Running(forked));
    daemon.Signal(SIGTERM);
    ASSERT_TRUE(daemon.Wait(2000ms));
    EXPECT_EQ(0, daemon.ExitStatus());
    EXPECT_TRUE(Await([&] { return !Running(forked); }));
    // A new daemon takes the same name at once.
    client.Close();
    vorn_test::ChildProcess next;
    ASSERT_TRUE(next.Start({VORND_PATH, "--socket", socket}, kHalEnv));
    vorn_test::Client fresh;
    ASSERT_TRUE(Await([&] { return fresh.Connect(socket); })) << next.Stderr();
    Reply r;
    ASSERT_TRUE(fresh.Send("JXT"));
    ASSERT_TRUE(fresh.ReadReply(r)) << next.Stderr();
    EXPECT_EQ(0, r.result);
}

TEST_F(HalFaults, HostInAHungCallEndsWhenTheDaemonIsKilled) {
    Start();
    const std::vector<pid_t> hosts = Children(daemon.Pid());
    ASSERT_TRUE(client.Send("JXT+HANG"));
    usleep(100000);  // well inside the call, well before its timeout
    daemon.Signal(SIGKILL);
    ASSERT_TRUE(daemon.Wait(2000ms));
    for (pid_t host : hosts) EXPECT_TRUE(Await([&] { return !Running(host); })) << host;
}

TEST_F(HalFaults, InProcessModeRunsTheHalInsideTheDaemonAndSurvivesAHang) {
    Start({"--hal-isolation=none"});
    EXPECT_TRUE(Children(daemon.Pid()).empty());
    EXPECT_EQ(1002, Ask("JXT+HANG").result);
    ExpectServing();
}

}  // namespace
