// A bounded soak of a real vornd: clients come and go, good commands, refused commands,
// time-outs and garbage arrive in a fixed, seeded schedule, and at the end every good command
// has had exactly one correct reply and the daemon holds no more descriptors or threads than
// when it started.
//
// A reply goes to the client of the latest transmission, so the schedule keeps two rules:
// - the client whose command is counted is the only one that sends until its reply is in;
// - garbage is sent only between counted commands, and before the next counted command every
//   garbage byte has been read by the daemon (the sender's queue is empty). Garbage that the
//   daemon refuses is answered on its loop thread before it reads anything else, so by then its
//   reply is out. Garbage that is a real command is followed by waiting for its reply.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/ErrorCode.h"
#include "support/TestSupport.h"

extern char** environ;

#ifndef VORN_EMULATOR
#define VORN_EMULATOR ""
#endif

namespace {

using namespace std::chrono_literals;
using vorn_test::Await;
using vorn_test::Client;
using vorn_test::EncodeReply;
using vorn_test::Reply;

const int kMaxClients = 4;  // the daemon serves four; a fifth would be left open for good
const int kRounds = 1000;
const int kTimeoutEvery = 40;  // 25 time-outs of one second each
const int kFreshCounterEvery = 4;

std::string ErrText(int code) {
    char text[256] = {0};
    GetStringByErrCode(code, text);
    return text;
}

int CountEntries(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (!d) return -1;
    int n = 0;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n;
}

// Whatever has arrived on the socket, without waiting.
std::string DrainNow(int fd) {
    std::string out;
    char buf[4096];
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

// Bytes the peer has not read yet from this socket's send queue.
int Unread(int fd) {
    int n = 0;
    return ioctl(fd, SIOCOUTQ, &n) == 0 ? n : -1;
}

class Daemon {
public:
    ~Daemon() { Stop(); }

    bool Start(const std::string& socket, const std::string& config, const std::string& log) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, log.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                         0644);
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
        // In a cross build the daemon runs under the emulator that runs the tests.
        std::vector<std::string> args;
        std::string emulator = VORN_EMULATOR;
        for (size_t at = 0; !emulator.empty();) {
            const size_t bar = emulator.find('|', at);
            args.push_back(emulator.substr(at, bar == std::string::npos ? bar : bar - at));
            if (bar == std::string::npos) break;
            at = bar + 1;
        }
        const std::string program = args.empty() ? VORN_VORND_PATH : args.front();
        args.insert(args.end(),
                    {VORN_VORND_PATH, "--socket", socket, "--config", config, "--log-level", "4"});
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        const int rc =
            posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) m_pid = -1;
        return rc == 0;
    }

    // Asks the daemon to stop (SIGTERM) and returns its exit status, or -1 when it had to be
    // killed or did not exit normally.
    int Stop() {
        if (m_pid <= 0) return -1;
        kill(m_pid, SIGTERM);
        int result = -1;
        if (Await([this] { return Reaped(); }, 5000ms)) {
            if (WIFEXITED(m_status)) result = WEXITSTATUS(m_status);
        } else {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &m_status, 0);
        }
        m_pid = -1;
        return result;
    }

    // True once the daemon has exited (and it has been reaped).
    bool Reaped() {
        if (m_pid <= 0) return true;
        return waitpid(m_pid, &m_status, WNOHANG) == m_pid;
    }
    bool Alive() { return m_pid > 0 && kill(m_pid, 0) == 0 && !Exited(); }
    int Fds() const { return CountEntries("/proc/" + std::to_string(m_pid) + "/fd"); }
    int Threads() const { return CountEntries("/proc/" + std::to_string(m_pid) + "/task"); }

private:
    bool Exited() {
        if (waitpid(m_pid, &m_status, WNOHANG) != m_pid) return false;
        m_pid = -1;
        return true;
    }
    pid_t m_pid = -1;
    int m_status = 0;
};

struct Expected {
    std::string command;
    int32_t result;
    std::string response;
};

class Soak : public ::testing::Test {
protected:
    void SetUp() override {
        m_socket = vorn_test::UniqueSocketName("soak");
        const std::string hal = VORN_SOAK_HAL_PATH;
        // Every row is backed by the soak HAL; "JXT" is the misc service's own.
        const std::string config = m_dir.Write(
            "soak.json",
            "{\n"
            " \"misc\": {\"libpath\": \"" +
                hal +
                "\", \"default_timeout\": 5, \"whitelist\": [\n"
                "   {\"command\": \"JXT+ECHO\", \"func\": \"echo_cmd\"},\n"
                "   {\"command\": \"JXT+CODE\", \"func\": \"code_cmd\"},\n"
                "   {\"command\": \"JXT+SLOW\", \"func\": \"slow_cmd\", \"timeout\": 1}]},\n"
                " \"sensor\": {\"libpath\": \"" +
                hal +
                "\", \"default_timeout\": 5,\n"
                "   \"whitelist\": [{\"command\": \"JXT+GSENSOR\", \"func\": \"echo_cmd\"}]},\n"
                " \"modem\": {\"libpath\": \"" +
                hal +
                "\", \"default_timeout\": 5,\n"
                "   \"whitelist\": [{\"command\": \"JXT+CPVERSION\", \"func\": \"echo_cmd\"}]}\n"
                "}\n");
        m_log = m_dir.path() + "/vornd.log";
        ASSERT_TRUE(m_daemon.Start(m_socket, config, m_log));
    }

    void TearDown() override {
        for (auto& c : m_clients) c.reset();
        m_daemon.Stop();
        if (HasFailure()) {
            std::string tail = ReadLog();
            if (tail.size() > 4000) tail = tail.substr(tail.size() - 4000);
            std::fprintf(stderr, "--- vornd log (tail) ---\n%s\n", tail.c_str());
        }
    }

    std::string ReadLog() const {
        std::string out;
        if (FILE* f = std::fopen(m_log.c_str(), "rb")) {
            char buf[4096];
            size_t n;
            while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
            std::fclose(f);
        }
        return out;
    }

    int OpenClients() const {
        int n = 0;
        for (auto& c : m_clients)
            if (c) ++n;
        return n;
    }

    // Opens a client in a free place of ours and waits until the daemon holds it.
    Client* Open(int index) {
        EXPECT_FALSE(m_clients[index]);
        EXPECT_LT(OpenClients(), kMaxClients);
        auto client = std::make_unique<Client>();
        bool up = Await([&] { return client->Connect(m_socket); }, 5000ms);
        EXPECT_TRUE(up) << "cannot connect";
        if (!up) return nullptr;
        m_clients[index] = std::move(client);
        const int want = m_baseFds + OpenClients();
        EXPECT_TRUE(Await([&] { return m_daemon.Fds() == want; }, 5000ms))
            << "the daemon holds " << m_daemon.Fds() << " descriptors, expected " << want;
        return m_clients[index].get();
    }

    // Closes a client and waits until the daemon has let go of it.
    void Close(int index) {
        m_clients[index].reset();
        const int want = m_baseFds + OpenClients();
        EXPECT_TRUE(Await([&] { return m_daemon.Fds() == want; }, 5000ms))
            << "the daemon holds " << m_daemon.Fds() << " descriptors, expected " << want;
    }

    // Sends one counted command and checks its one reply.
    void Counted(Client* client, const Expected& e) {
        ASSERT_TRUE(client->Send(e.command));
        Reply reply;
        ASSERT_TRUE(client->ReadReply(reply, 10000ms)) << "no reply to " << Printable(e.command);
        EXPECT_EQ(e.result, reply.result) << Printable(e.command);
        EXPECT_EQ(e.command, reply.request);
        EXPECT_EQ(e.response, reply.response) << Printable(e.command);
        ++m_counted;
    }

    // Waits until the daemon has read every byte this client sent.
    void AwaitConsumed(Client* client) {
        EXPECT_TRUE(Await([&] { return Unread(client->fd()) == 0; }, 5000ms))
            << Unread(client->fd()) << " bytes still unread by the daemon";
    }

    // Reads until the stream ends with `record`: the reply to a real command sent after
    // garbage whose replies (refused, possibly cut at the staging size) came before it.
    bool AwaitRecordAtEnd(Client* client, const std::string& record) {
        std::string got;
        const bool seen = Await(
            [&] {
                got += DrainNow(client->fd());
                return got.size() >= record.size() &&
                       got.compare(got.size() - record.size(), record.size(), record) == 0;
            },
            10000ms);
        if (!seen) {
            const size_t tail = got.size() > 60 ? got.size() - 60 : 0;
            ADD_FAILURE() << got.size() << " bytes arrived, ending with "
                          << Printable(got.substr(tail));
        }
        return seen;
    }

    static std::string Printable(const std::string& s) {
        std::string out;
        for (unsigned char c : s.substr(0, 60)) {
            if (c >= 32 && c < 127) {
                out += static_cast<char>(c);
            } else {
                char hex[8];
                std::snprintf(hex, sizeof hex, "\\x%02x", c);
                out += hex;
            }
        }
        if (s.size() > 60) out += "...(" + std::to_string(s.size()) + " bytes)";
        return out;
    }

    vorn_test::TempDir m_dir;
    std::string m_socket;
    std::string m_log;
    Daemon m_daemon;
    // Places 0 and 1: the two long-lived counted clients; 2: counted clients that live for one
    // command, then garbage clients; 3: garbage clients.
    std::unique_ptr<Client> m_clients[kMaxClients];
    int m_baseFds = 0;
    int m_counted = 0;
};

TEST_F(Soak, EveryGoodCommandGetsOneReplyAndNothingLeaks) {
    // Start-up: wait until every service answers, then take the daemon's idle baseline.
    {
        Client probe;
        ASSERT_TRUE(Await([&] { return probe.Connect(m_socket); }, 10000ms))
            << "vornd did not come up";
        for (const char* cmd : {"JXT", "JXT+GSENSOR=1", "JXT+CPVERSION"}) {
            ASSERT_TRUE(probe.Send(cmd));
            Reply reply;
            ASSERT_TRUE(probe.ReadReply(reply, 10000ms)) << cmd;
            ASSERT_EQ(0, reply.result) << cmd << ": " << reply.response;
        }
        const int withProbe = m_daemon.Fds();
        probe.Close();
        ASSERT_TRUE(Await([&] { return m_daemon.Fds() == withProbe - 1; }, 5000ms));
        m_baseFds = withProbe - 1;
    }
    const int baseThreads = m_daemon.Threads();
    ASSERT_GT(m_baseFds, 0);
    ASSERT_GT(baseThreads, 0);

    std::mt19937 rng(20261122);
    auto uniform = [&rng](int lo, int hi) {
        return std::uniform_int_distribution<int>(lo, hi)(rng);
    };
    // Garbage bytes never start a registered command: every command begins with 'J', and a
    // leading zero byte makes the transmission empty. Zero bytes further on are fair game.
    auto garbage = [&](size_t length) {
        std::string s(length, '\0');
        for (auto& c : s) {
            do {
                c = static_cast<char>(uniform(0, 255));
            } while (c == 'J');
        }
        if (s[0] == '\0') s[0] = '#';
        return s;
    };
    auto text = [&](size_t length) {
        std::string s(length, ' ');
        for (auto& c : s) c = static_cast<char>(uniform(33, 126));
        return s;
    };

    ASSERT_NE(nullptr, Open(0));
    ASSERT_NE(nullptr, Open(1));
    int timeouts = 0;
    int garbageSent = 0;

    for (int round = 0; round < kRounds && !HasFatalFailure(); ++round) {
        // Counted clients take their turn: a long-lived one, or now and then a fresh one that
        // leaves right after its reply.
        const bool fresh = round % kFreshCounterEvery == kFreshCounterEvery - 1;
        if (fresh && m_clients[2]) Close(2);  // a garbage client sat there
        Client* counter = fresh ? Open(2) : m_clients[round % 2].get();
        ASSERT_NE(nullptr, counter);

        Expected e;
        if (round % kTimeoutEvery == kTimeoutEvery - 1) {
            e = {"JXT+SLOW", 1002, ErrText(1002)};
            ++timeouts;
        } else {
            switch (uniform(0, 6)) {
                case 0:
                    e = {"JXT", 0, ""};
                    break;
                case 1: {
                    const std::string payload = text(static_cast<size_t>(uniform(1, 1500)));
                    e = {"JXT+ECHO=" + payload, 0, payload};
                    break;
                }
                case 2: {
                    const std::string payload = text(static_cast<size_t>(uniform(1, 64)));
                    e = {"JXT+GSENSOR=" + payload, 0, payload};
                    break;
                }
                case 3: {
                    const std::string cmd =
                        "JXT+CPVERSION=" + text(static_cast<size_t>(uniform(0, 64)));
                    e = {cmd, 0, cmd};
                    break;
                }
                case 4: {
                    static const int codes[] = {0, 5, 22, 1000, 1001, 1007, 5000, -3};
                    const int code = codes[uniform(0, 7)];
                    const int sent = (static_cast<unsigned>(code) > 1010u) ? 1001 : code;
                    e = {"JXT+CODE=" + std::to_string(code), sent, sent ? ErrText(sent) : ""};
                    break;
                }
                case 5:
                    e = {"JXT+NOPE=" + std::to_string(round), 1001, ErrText(1001)};
                    break;
                default:
                    // Line ends belong to the header without "=" or "?": refused.
                    e = {"JXT+ECHO\r\n", 1001, ErrText(1001)};
                    break;
            }
        }

        if (e.command == "JXT+SLOW" && !m_clients[3]) {
            // While the reply is pending, a client comes and goes without sending: accepting
            // and dropping clients must not disturb the reply.
            ASSERT_TRUE(counter->Send(e.command));
            ASSERT_NE(nullptr, Open(3));
            Close(3);
            Reply reply;
            ASSERT_TRUE(counter->ReadReply(reply, 10000ms)) << "no reply to JXT+SLOW";
            EXPECT_EQ(1002, reply.result);
            EXPECT_EQ(e.command, reply.request);
            EXPECT_EQ(e.response, reply.response);
            ++m_counted;
        } else {
            Counted(counter, e);
        }
        if (fresh) Close(2);

        // Garbage between counted commands, from places 2 and 3.
        const int senders = uniform(0, 2);
        for (int g = 0; g < senders; ++g) {
            const int place = 2 + g;
            if (!m_clients[place]) {
                ASSERT_NE(nullptr, Open(place));
            }
            Client* junk = m_clients[place].get();
            DrainNow(junk->fd());  // keeps its queue short
            switch (uniform(0, 5)) {
                case 0:
                    ASSERT_TRUE(junk->Send(garbage(static_cast<size_t>(uniform(1, 200)))));
                    break;
                case 1:
                    ASSERT_TRUE(junk->Send(garbage(30 * 1024)));
                    break;
                case 2:
                    ASSERT_TRUE(junk->Send(uniform(0, 1) ? "\r\n" : "\n\n\n"));
                    break;
                case 3:
                    ASSERT_TRUE(junk->Send(std::string("\0JXT", 4)));
                    break;
                case 4:
                    ASSERT_TRUE(junk->Send("JXT+NOPE"));
                    break;
                default: {
                    // A real command from a garbage client: its reply comes back to it.
                    AwaitConsumed(junk);
                    ASSERT_TRUE(junk->Send("JXT"));
                    EXPECT_TRUE(AwaitRecordAtEnd(junk, EncodeReply(0, "JXT", "")))
                        << "garbage client got no reply to JXT";
                    break;
                }
            }
            ++garbageSent;
            AwaitConsumed(junk);
            if (uniform(0, 2) == 0) Close(place);  // leaves without reading its replies
        }
        ASSERT_TRUE(m_daemon.Alive()) << "vornd died in round " << round;
    }

    // Nothing more arrives for the long-lived counted clients: each reply came exactly once.
    for (int place : {0, 1}) {
        EXPECT_EQ("", m_clients[place]->ReadAvailable(100ms)) << "extra bytes at client " << place;
    }
    EXPECT_EQ(kRounds, m_counted);
    EXPECT_EQ(kRounds / kTimeoutEvery, timeouts);
    EXPECT_GT(garbageSent, kRounds / 2);

    std::printf(
        "soak: %d counted replies (%d time-outs), %d garbage transmissions; "
        "baseline %d descriptors, %d threads\n",
        m_counted, timeouts, garbageSent, m_baseFds, baseThreads);

    // Back to the baseline: no descriptor or thread is left behind (the abandoned request
    // threads end when their slow HAL calls come back).
    for (int place = 0; place < kMaxClients; ++place)
        if (m_clients[place]) Close(place);
    EXPECT_TRUE(Await([&] { return m_daemon.Fds() == m_baseFds; }, 10000ms))
        << "descriptors: " << m_daemon.Fds() << ", baseline " << m_baseFds;
    EXPECT_TRUE(Await([&] { return m_daemon.Threads() == baseThreads; }, 10000ms))
        << "threads: " << m_daemon.Threads() << ", baseline " << baseThreads;
    ASSERT_TRUE(m_daemon.Alive());
    // A clean shutdown after all this (under the sanitizers this also checks for leaks).
    EXPECT_EQ(0, m_daemon.Stop());
}

}  // namespace
