// Several clients of one vornd at once: every reply reaches its sender, a client that does not
// read holds up no one, and a log reader that stalls or leaves neither stalls nor ends vornd.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
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

// The misc service on the engine tests' HAL ("JXT+HANG" hangs, "JXT+ECHO" echoes), the sensor
// service on the sample HAL; one-second timeouts.
std::string Config() {
    return std::string("{ \"misc\": { \"libpath\": \"") + VORN_TEST_HAL_PATH +
           "\", \"default_timeout\": 1, \"whitelist\": ["
           " { \"command\": \"JXT+HANG\", \"func\": \"block_cmd\" },"
           " { \"command\": \"JXT+ECHO\", \"func\": \"echo_cmd\" } ] },"
           " \"sensor\": { \"libpath\": \"" +
           VORN_HAL_PATH + "\", \"default_timeout\": 1 }, \"modem\": { \"support\": false } }";
}

class MultiClient : public ::testing::Test {
protected:
    void Launch(const std::vector<std::string>& extra = {}) {
        std::vector<std::string> argv{VORND_PATH, "--socket", socket, "--config",
                                      dir.Write("vorn.json", Config())};
        argv.insert(argv.end(), extra.begin(), extra.end());
        ASSERT_TRUE(daemon.Start(argv, {"VORN_HAL_IIO_ROOT=/nonexistent/vorn-test-iio"}));
        ASSERT_TRUE(Await([&] { return Client().Connect(socket); })) << daemon.Stderr();
    }
    void TearDown() override {
        if (!HasFailure()) return;
        std::string log = daemon.Stderr();
        if (log.size() > 4000) log = log.substr(log.size() - 4000);
        std::fprintf(stderr, "--- vornd stderr (tail) ---\n%s\n", log.c_str());
    }

    vorn_test::TempDir dir;
    std::string socket = vorn_test::UniqueSocketName("multi");
    vorn_test::ChildProcess daemon;
};

TEST_F(MultiClient, FourClientsAtOnceGetEveryReplyAndOnlyTheirOwn) {
    Launch();
    std::vector<Client> clients(4);
    for (auto& c : clients) ASSERT_TRUE(c.Connect(socket));
    std::atomic<int> lost{0}, misrouted{0};
    auto run = [&](Client& c, int id) {
        for (int i = 0; i < 200; ++i) {
            // Two services, and refusals that the loop thread answers itself.
            static const char* const kinds[] = {"JXT+ECHO=", "JXT+GSENSOR=1,", "JXT+NOPE="};
            const std::string command = kinds[i % 3] + std::to_string(id) + "." + std::to_string(i);
            Reply r;
            if (!c.Send(command) || !c.ReadReply(r, 3000ms)) {
                ++lost;
                return;  // the stream is out of step from here
            }
            if (r.request != command) ++misrouted;
        }
    };
    std::vector<std::thread> threads;
    for (int id = 0; id < 4; ++id) threads.emplace_back(run, std::ref(clients[id]), id);
    for (auto& t : threads) t.join();
    EXPECT_EQ(0, lost);
    EXPECT_EQ(0, misrouted);
}

// A timeout's 1002 goes to the client that sent the request, even after another client sent
// something; --reply-routing=latest gives it to that other client, as the library does alone.
TEST_F(MultiClient, TimeoutAnswerGoesToItsSenderUnlessRoutingIsLatest) {
    for (const bool latest : {false, true}) {
        vorn_test::ChildProcess d;
        const std::string name = socket + (latest ? "-latest" : "-sender");
        std::vector<std::string> argv{VORND_PATH, "--socket", name, "--config",
                                      dir.Write("vorn.json", Config())};
        if (latest) argv.push_back("--reply-routing=latest");
        ASSERT_TRUE(d.Start(argv));
        Client a, b;
        ASSERT_TRUE(Await([&] { return a.Connect(name); })) << d.Stderr();
        ASSERT_TRUE(b.Connect(name));
        ASSERT_TRUE(a.Send("JXT+HANG"));
        Reply r;
        ASSERT_TRUE(b.Send("JXT+NOPE") && b.ReadReply(r, 3000ms));
        EXPECT_EQ("JXT+NOPE", r.request);
        Client& target = latest ? b : a;
        Client& other = latest ? a : b;
        ASSERT_TRUE(target.ReadReply(r, 3000ms)) << (latest ? "latest" : "sender");
        EXPECT_EQ("JXT+HANG", r.request);
        EXPECT_EQ(1002, r.result);
        EXPECT_EQ("", other.ReadAvailable(100ms));
    }
}

TEST_F(MultiClient, WaitingConnectionIsServedOnceASlotFrees) {
    Launch();
    std::vector<Client> served(4);
    Reply r;
    for (auto& c : served) {
        ASSERT_TRUE(c.Connect(socket));
        ASSERT_TRUE(c.Send("JXT+NOPE") && c.ReadReply(r, 3000ms));
    }
    Client waiting;
    ASSERT_TRUE(waiting.Connect(socket));
    ASSERT_TRUE(waiting.Send("JXT+ECHO=w"));
    EXPECT_EQ("", waiting.ReadAvailable(100ms));
    served[1].Close();
    ASSERT_TRUE(waiting.ReadReply(r, 3000ms));
    EXPECT_EQ("w", r.response);
}

// The flooder's commands fill whole chunks, so each read is a transmission with a reply of its
// own, far more than its socket holds.
TEST_F(MultiClient, ClientThatSendsWithoutReadingHoldsUpNoOne) {
    Launch();
    Client probe, flood;
    ASSERT_TRUE(probe.Connect(socket));
    ASSERT_TRUE(flood.Connect(socket));
    std::atomic<int> sent{0};
    std::atomic<bool> flooding{true};
    std::thread flooder([&] {
        const std::string command = "JXT+NOPE=" + std::string(3071 - 9, 'f');
        while (sent < 10000 && flood.Send(command)) ++sent;
        flooding = false;
    });
    ASSERT_TRUE(Await([&] { return sent >= 100 || !flooding; }));
    std::vector<long> ms;
    for (int i = 0; i < 10 || (flooding && i < 20); ++i) {
        const auto start = std::chrono::steady_clock::now();
        Reply r;
        const bool answered = probe.Send("JXT+ECHO=p") && probe.ReadReply(r, 2000ms);
        EXPECT_TRUE(answered) << "probe " << i;
        if (!answered || r.request != "JXT+ECHO=p") break;
        ms.push_back(static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - start)
                                           .count()));
    }
    // The flooder is let go about a second after the first reply that found no room.
    EXPECT_TRUE(Await([&] { return !flooding; }, 3000ms));
    shutdown(flood.fd(), SHUT_RDWR);  // a flooder still blocked in send gives up
    flooder.join();
    ASSERT_GE(ms.size(), 10u);
    std::sort(ms.begin(), ms.end());
    EXPECT_LT(ms[ms.size() / 2], 100) << "probe p50 in ms";
    // The log is written by its own thread, a moment after the line was logged.
    EXPECT_TRUE(Await([&] {
        return daemon.Stderr().find("closed: it does not read its replies") != std::string::npos;
    }));
}

// vornd's stderr on a pipe whose reader never reads, then on one whose reader has gone.
TEST_F(MultiClient, LogReaderThatStallsOrGoesAwayNeitherStopsNorEndsIt) {
    const std::string config = dir.Write("vorn.json", Config());
    for (const bool readerGone : {false, true}) {
        int pipeFds[2];
        ASSERT_EQ(0, pipe2(pipeFds, O_CLOEXEC));
        const std::string name = socket + (readerGone ? "-gone" : "-stalled");
        vorn_test::ChildProcess logging;
        ASSERT_TRUE(
            logging.Start({VORND_PATH, "--socket", name, "--config", config, "--log-level", "1"},
                          {}, "", pipeFds[1]));
        close(pipeFds[1]);
        if (readerGone) close(pipeFds[0]);

        Client c;
        ASSERT_TRUE(Await([&] { return c.Connect(name); }));
        // Every command logs several lines at level 1: far more than the pipe holds.
        for (int i = 0; i < 300; ++i) {
            Reply r;
            ASSERT_TRUE(c.Send("JXT+ECHO=" + std::to_string(i)) && c.ReadReply(r, 2000ms)) << i;
        }
        logging.Signal(SIGPIPE);
        Reply r;
        ASSERT_TRUE(c.Send("JXT+ECHO=x") && c.ReadReply(r, 2000ms)) << "alive after SIGPIPE";
        logging.Signal(SIGTERM);
        EXPECT_TRUE(logging.Wait(1000ms)) << (readerGone ? "reader gone" : "reader stalled");
        EXPECT_EQ(0, logging.ExitStatus());
        if (!readerGone) close(pipeFds[0]);
    }
}

}  // namespace
