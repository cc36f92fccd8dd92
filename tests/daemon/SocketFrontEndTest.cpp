// What any local process, hostile or buggy, can do to vornd's socket: run out its descriptors,
// leave connections waiting, sit idle in every slot, connect without being allowed, read its
// replies late, and send bytes meant to forge log lines. One real vornd per case.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "daemon/ChildProcess.h"
#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using vorn_test::Await;
using vorn_test::Client;
using vorn_test::Reply;

// Every request times out after a second, so an idle limit of one second is allowed:
// "JXT+TIMEOUT" is taken over by a HAL function with a one-second timeout.
std::string ShortConfig(const std::string& hal) {
    const std::string lib = "\"libpath\": \"" + hal + "\", ";
    return "{ \"misc\": { " + lib +
           "\"whitelist\": [ { \"commands\": [ \"JXT+TIMEOUT\", \"JXT+MEMORY\" ], "
           "\"func\": \"memory_check_cmd\", \"timeout\": 1 } ] }, "
           "\"sensor\": { " +
           lib +
           "\"whitelist\": [ { \"command\": \"JXT+GSENSOR\", \"func\": \"gsensor_operate_cmd\", "
           "\"timeout\": 1 } ] }, "
           "\"modem\": { \"support\": false } }";
}

int CountEntries(const std::string& dir) {
    std::unique_ptr<DIR, int (*)(DIR*)> d(opendir(dir.c_str()), closedir);
    if (!d) return -1;
    int n = 0;
    while (dirent* e = readdir(d.get()))
        if (e->d_name[0] != '.') ++n;
    return n;
}

// A connection that does not block when the daemon's backlog is full; -1 when refused.
int ConnectNonBlocking(const std::string& name) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, name.data(), name.size());
    const socklen_t len = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// True when the peer has closed the connection (reads give end of file) within the limit.
bool AwaitClosed(int fd, std::chrono::milliseconds limit = 3000ms) {
    return Await(
        [fd] {
            char byte;
            return recv(fd, &byte, 1, MSG_DONTWAIT) == 0;
        },
        limit);
}

class SocketFrontEnd : public ::testing::Test {
protected:
    void TearDown() override {
        if (HasFailure()) {
            std::string log = daemon.Stderr();
            if (log.size() > 4000) log = log.substr(log.size() - 4000);
            std::fprintf(stderr, "--- vornd stderr (tail) ---\n%s\n", log.c_str());
        }
    }

    // vornd with the short configuration and `extra` options; `limitFds` runs it with that
    // many descriptors at most.
    void Launch(std::vector<std::string> extra = {}, int limitFds = 0) {
        std::vector<std::string> argv{VORND_PATH, "--socket", socket, "--config",
                                      dir.Write("vorn.json", ShortConfig(VORN_HAL_PATH))};
        argv.insert(argv.end(), extra.begin(), extra.end());
        if (limitFds > 0)
            argv.insert(argv.begin(),
                        {"/bin/sh", "-c",
                         "ulimit -n " + std::to_string(limitFds) + " && exec \"$@\"", "vornd"});
        ASSERT_TRUE(daemon.Start(argv, {"VORN_HAL_IIO_ROOT=/nonexistent/vorn-test-iio"}));
        ASSERT_TRUE(Await([&] { return client.Connect(socket); })) << daemon.Stderr();
        Ask(client, "JXT");
    }

    Reply Ask(Client& c, const std::string& command) {
        Reply reply;
        EXPECT_TRUE(c.Send(command));
        EXPECT_TRUE(c.ReadReply(reply, 3000ms)) << command;
        EXPECT_EQ(reply.request, command.substr(0, reply.request.size()));
        return reply;
    }

    std::string Proc(const std::string& entry) const {
        return "/proc/" + std::to_string(daemon.Pid()) + "/" + entry;
    }
    int OpenFds() const { return CountEntries(Proc("fd")); }
    // Processor time used so far, in clock ticks (utime + stime).
    long CpuTicks() const {
        std::ifstream in(Proc("stat"));
        std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::istringstream fields(stat.substr(stat.rfind(')') + 2));
        std::string field;
        long utime = 0, stime = 0;
        for (int i = 3; i <= 15 && fields >> field; ++i) {
            if (i == 14) utime = std::stol(field);
            if (i == 15) stime = std::stol(field);
        }
        return utime + stime;
    }
    size_t LogSize() const { return daemon.Stderr().size(); }
    bool LogHas(const std::string& part) const {
        return daemon.Stderr().find(part) != std::string::npos;
    }

    vorn_test::TempDir dir;
    std::string socket = vorn_test::UniqueSocketName("frontend");
    vorn_test::ChildProcess daemon;
    Client client;
};

TEST_F(SocketFrontEnd, DescriptorExhaustionNeitherSpinsNorFloodsAndServesOnceTheCrowdIsGone) {
    // The HAL runs inside the daemon: the hosts' channels would take part of so small a budget.
    Launch({"--hal-isolation=none"}, 24);
    // The backlog is short: the crowd comes in as fast as the daemon takes it.
    std::vector<int> crowd;
    ASSERT_TRUE(Await([&] {
        if (int fd = crowd.size() < 40 ? ConnectNonBlocking(socket) : -1; fd >= 0)
            crowd.push_back(fd);
        return LogHas("Failed to accept new client");
    }));
    // A second of exhaustion: a spinning loop would burn the whole of it and log at each turn.
    const long ticks = CpuTicks();
    const size_t logged = LogSize();
    std::this_thread::sleep_for(1000ms);
    EXPECT_LT(CpuTicks() - ticks, 20) << "ticks of processor time in a second of exhaustion";
    EXPECT_LT(LogSize() - logged, 4096u);

    for (int fd : crowd) close(fd);
    client.Close();
    Client next;
    const auto start = std::chrono::steady_clock::now();
    ASSERT_TRUE(Await([&] {
        Reply reply;
        return next.Connect(socket) && next.Send("JXT") && next.ReadReply(reply, 200ms);
    }));
    EXPECT_LT(std::chrono::steady_clock::now() - start, 2000ms);
    EXPECT_LT(LogSize(), 64u * 1024);
}

TEST_F(SocketFrontEnd, WaitingConnectionsAreClosedWhenTheirPeerLeavesAndCapped) {
    Launch();
    std::vector<Client> slots(3);
    for (auto& c : slots) {
        ASSERT_TRUE(c.Connect(socket));
        Ask(c, "JXT");
    }
    const int baseline = OpenFds();
    for (int i = 0; i < 500; ++i) {
        Client passing;
        ASSERT_TRUE(passing.Connect(socket));
    }
    EXPECT_TRUE(Await([&] { return OpenFds() == baseline; })) << OpenFds() << " vs " << baseline;

    std::vector<Client> waiting(20);
    for (auto& c : waiting) ASSERT_TRUE(c.Connect(socket));
    EXPECT_TRUE(Await([&] { return LogHas("Too many waiting connections (16)"); }));
    EXPECT_TRUE(Await([&] { return OpenFds() == baseline + 16; })) << OpenFds();
    waiting.clear();
    EXPECT_TRUE(Await([&] { return OpenFds() == baseline; })) << OpenFds();
    EXPECT_EQ(Ask(client, "JXT").result, 0);
}

TEST_F(SocketFrontEnd, IdleClientsAreLetGoButTalkingOnesStay) {
    // The limit may not be shorter than a request: the built-in configuration has 15 s ones.
    const auto refused =
        vorn_test::RunProgram({VORND_PATH, "--socket", socket + "x", "--idle-timeout", "1"});
    EXPECT_EQ(refused.status, 2);
    EXPECT_NE(refused.err.find("below the longest request timeout"), std::string::npos)
        << refused.err;

    Launch({"--idle-timeout", "1"});
    std::vector<Client> idle(4);  // three slots and one waiting
    for (auto& c : idle) ASSERT_TRUE(c.Connect(socket));
    // The client that keeps talking, with a pause of half the limit, is never let go.
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < 1500ms) {
        ASSERT_EQ(Ask(client, "JXT").result, 0);
        std::this_thread::sleep_for(500ms);
    }
    for (auto& c : idle) EXPECT_TRUE(AwaitClosed(c.fd()));
    EXPECT_TRUE(Await([&] { return LogHas("] closed after 1 s"); }));
    Client next;
    ASSERT_TRUE(next.Connect(socket));
    EXPECT_EQ(Ask(next, "JXT").result, 0);
}

TEST_F(SocketFrontEnd, PeerOutsideTheAllowListsIsClosedAtOnce) {
    if (getuid() != 0) GTEST_SKIP() << "needs root to connect as another user";
    Launch({"--allow-uid", "root", "--allow-gid", "0"});
    const pid_t child = fork();
    if (child == 0) {
        // As user and group "nobody": the connection is closed before anything is read.
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(3);
        Client c;
        if (!c.Connect(socket)) _exit(4);
        c.Send("JXT");  // may already find the connection gone
        char byte;
        pollfd p{c.fd(), POLLIN, 0};
        _exit(poll(&p, 1, 3000) == 1 && recv(c.fd(), &byte, 1, 0) <= 0 ? 0 : 5);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the refused peer got something else than an end";
    EXPECT_TRUE(Await([&] {
        return LogHas("peer not allowed: pid=" + std::to_string(child) + " uid=65534 gid=65534");
    }));
    EXPECT_EQ(Ask(client, "JXT").result, 0);
}

TEST_F(SocketFrontEnd, SlowReaderStillGetsEveryReply) {
    Launch();
    // Each command goes out once the daemon has read the previous one, so each is a
    // transmission of its own; the replies fill the socket long before the client reads.
    const int kCommands = 200;
    for (int i = 0; i < kCommands; ++i) {
        ASSERT_TRUE(client.Send("JXT+GSENSOR=1,64"));
        ASSERT_TRUE(Await([&] {
            int queued = -1;
            return ioctl(client.fd(), SIOCOUTQ, &queued) == 0 && queued == 0;
        }));
    }
    std::this_thread::sleep_for(300ms);  // the client reads late, within the daemon's patience
    for (int i = 0; i < kCommands; ++i) {
        Reply reply;
        ASSERT_TRUE(client.ReadReply(reply, 3000ms)) << "reply " << i;
        ASSERT_EQ(reply.result, 0);
        ASSERT_EQ(reply.request, "JXT+GSENSOR=1,64");
    }
    EXPECT_EQ(client.ReadAvailable(100ms), "");
    EXPECT_FALSE(LogHas("dropped"));
}

// A HAL function run inside vornd that closes descriptors from 3 up takes the listening socket with
// it: vornd says so and leaves with status 1, so that its supervisor starts a fresh one.
TEST_F(SocketFrontEnd, LostListenerEndsVorndWithStatusOne) {
    const std::string config = dir.Write(
        "closing.json", std::string("{ \"misc\": { \"libpath\": \"") + VORN_TEST_HAL_PATH +
                            "\", \"whitelist\": [ { \"command\": \"JXT+CLOSEFDS\", "
                            "\"func\": \"close_fds_cmd\" } ] } }");
    Launch({"--config", config, "--hal-isolation=none"});
    ASSERT_TRUE(client.Send("JXT+CLOSEFDS"));
    // A connection attempt wakes the loop, which finds the listener gone or replaced.
    EXPECT_TRUE(Await(
        [&] {
            Client().Connect(socket);
            return daemon.Wait(10ms);
        },
        3000ms));
    EXPECT_EQ(daemon.ExitStatus(), 1);
    EXPECT_TRUE(LogHas("): no client can connect any more; the loop ends"));
    EXPECT_TRUE(LogHas("vornd leaves with status 1 so that it is restarted"));
}

TEST_F(SocketFrontEnd, ClientBytesInTheLogStayOnOneLineAndBounded) {
    Launch();
    const std::string forged = "JXT+NOPE\nVORN E 01-01 00:00:00 1 1 [Run] forged\x1b[2J";
    EXPECT_EQ(Ask(client, forged).result, 1001);
    ASSERT_TRUE(Await([&] { return LogHas("JXT+NOPE\\x0aVORN E 01-01"); }));
    const std::string log = daemon.Stderr();
    EXPECT_EQ(log.find("\nVORN E 01-01"), std::string::npos);
    EXPECT_EQ(log.find('\x1b'), std::string::npos);

    // 200 unknown commands of 24 KiB each: the log grows by a bounded line or two each.
    const size_t before = LogSize();
    const std::string big = "JXT+NOPE=" + std::string(24576 - 9, 'a');
    for (int i = 0; i < 200; ++i) ASSERT_EQ(Ask(client, big).result, 1001);
    ASSERT_TRUE(Await([&] { return LogSize() > before; }));
    EXPECT_LT(LogSize() - before, 200u * 1024) << "bytes of log for 200 commands";
    EXPECT_TRUE(Await([&] { return LogHas("aaaa ...(24576 bytes)"); }));
}

}  // namespace
