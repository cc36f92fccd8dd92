// vornctl against a stand-in server that answers with prepared reply records, so that every
// decoding and exit-status path can be driven exactly.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "daemon/ChildProcess.h"
#include "support/TestSupport.h"

namespace {

using vorn_test::EncodeReply;
using vorn_test::RunProgram;
using vorn_test::RunResult;

// Listens on a fresh abstract name; each transmission is recorded and answered with the bytes
// `answer` returns for it (nothing for an empty string).
class FakeServer {
public:
    using Answer = std::function<std::string(const std::string&)>;

    explicit FakeServer(Answer answer)
        : m_name(vorn_test::UniqueSocketName("fake")), m_answer(std::move(answer)) {
        m_listen = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::memcpy(addr.sun_path + 1, m_name.data(), m_name.size());
        const socklen_t len = offsetof(sockaddr_un, sun_path) + 1 + m_name.size();
        if (bind(m_listen, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
            listen(m_listen, 4) != 0 || pipe2(m_stop, O_CLOEXEC) != 0)
            ADD_FAILURE() << "fake server: " << std::strerror(errno);
        m_thread = std::thread([this] { Loop(); });
    }

    ~FakeServer() {
        (void)!write(m_stop[1], "x", 1);
        m_thread.join();
        for (int fd : {m_listen, m_client, m_stop[0], m_stop[1]})
            if (fd >= 0) close(fd);
    }

    const std::string& name() const { return m_name; }

    std::vector<std::string> Received() {
        std::lock_guard<std::mutex> lock(m_lock);
        return m_received;
    }

private:
    void Loop() {
        for (;;) {
            pollfd p[3] = {{m_stop[0], POLLIN, 0}, {m_listen, POLLIN, 0}, {m_client, POLLIN, 0}};
            if (poll(p, m_client >= 0 ? 3 : 2, -1) < 0) continue;
            if (p[0].revents) return;
            if (p[1].revents & POLLIN) {
                if (m_client >= 0) close(m_client);
                m_client = accept4(m_listen, nullptr, nullptr, SOCK_CLOEXEC);
                continue;
            }
            if (m_client >= 0 && p[2].revents) {
                char buf[65536];
                const ssize_t n = recv(m_client, buf, sizeof buf, 0);
                if (n <= 0) {
                    close(m_client);
                    m_client = -1;
                    continue;
                }
                const std::string command(buf, static_cast<size_t>(n));
                {
                    std::lock_guard<std::mutex> lock(m_lock);
                    m_received.push_back(command);
                }
                const std::string reply = m_answer(command);
                if (!reply.empty()) (void)!send(m_client, reply.data(), reply.size(), MSG_NOSIGNAL);
            }
        }
    }

    std::string m_name;
    Answer m_answer;
    int m_listen = -1;
    int m_client = -1;  // owned by the loop thread
    int m_stop[2] = {-1, -1};
    std::mutex m_lock;  // guards m_received
    std::vector<std::string> m_received;
    std::thread m_thread;
};

RunResult Vornctl(const std::vector<std::string>& args, const std::string& input = "") {
    std::vector<std::string> argv{VORNCTL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return RunProgram(argv, input);
}

// Answers "OK..." with result 0 and an echo, "FAIL" with 22, anything else with 1003.
std::string Canned(const std::string& command) {
    if (command.rfind("OK", 0) == 0) return EncodeReply(0, command, "echo:" + command);
    if (command == "FAIL") return EncodeReply(22, command, "22:Invalid argument\r\n");
    return EncodeReply(1003, command, "1003:Unsupport command\r\n");
}

TEST(Vornctl, PrintsResultMeaningCommandAndEscapedResponse) {
    FakeServer server(
        [](const std::string& c) { return EncodeReply(0, c, std::string("a\r\nb\x01\xff", 6)); });
    const RunResult r = Vornctl({"--socket", server.name(), "JXT+X=1"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "JXT+X=1\n  result   0 (Success)\n  response a\\r\\nb\\x01\\xff\n");
    EXPECT_EQ(server.Received(), std::vector<std::string>{"JXT+X=1"}) << "sent as is, no line end";
}

TEST(Vornctl, ExitStatusIsOneWhenAnyResultIsNotZero) {
    FakeServer server(Canned);
    const RunResult ok = Vornctl({"--socket", server.name(), "OK1", "OK2"});
    EXPECT_EQ(ok.status, 0) << ok.err;

    const RunResult mixed = Vornctl({"--socket", server.name(), "OK1", "FAIL", "OK2"});
    EXPECT_EQ(mixed.status, 1) << mixed.err;
    EXPECT_NE(mixed.out.find("  result   22 (" + std::string(std::strerror(22)) + ")\n"),
              std::string::npos)
        << mixed.out;
    EXPECT_NE(mixed.out.find("OK2\n"), std::string::npos) << "a failed result does not stop";
}

TEST(Vornctl, MeaningsFollowTheLibraryCodeTable) {
    FakeServer server([](const std::string& c) { return EncodeReply(std::stoi(c), c, ""); });
    const RunResult r =
        Vornctl({"--socket", server.name(), "1002", "--json", "1009", "1010", "--", "-5", "5000"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(
        r.out,
        "{\"result\":1002,\"meaning\":\"Time out\",\"command\":\"1002\",\"response\":\"\"}\n"
        "{\"result\":1009,\"meaning\":\"Out of range\",\"command\":\"1009\",\"response\":\"\"}\n"
        "{\"result\":1010,\"meaning\":\"Unknow error\",\"command\":\"1010\",\"response\":\"\"}\n"
        "{\"result\":-5,\"meaning\":\"Unknow error\",\"command\":\"-5\",\"response\":\"\"}\n"
        "{\"result\":5000,\"meaning\":\"Unknow error\",\"command\":\"5000\",\"response\":\"\"}\n");
}

TEST(Vornctl, JsonEscapesEveryByteIntoValidJson) {
    FakeServer server([](const std::string& c) {
        return EncodeReply(0, c, std::string("q\"b\\\r\n\t\x01\x7f\xc3\xa9\xff", 12));
    });
    const RunResult r = Vornctl({"--socket", server.name(), "--json", "A\"B"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "{\"result\":0,\"meaning\":\"Success\",\"command\":\"A\\\"B\",\"response\":"
              "\"q\\\"b\\\\\\r\\n\\t\\u0001\\u007f\xc3\xa9\\u00ff\"}\n");
}

TEST(Vornctl, HexDumpsTheResponse) {
    FakeServer server([](const std::string& c) { return EncodeReply(0, c, "0123456789abcdefXY"); });
    const RunResult r = Vornctl({"--socket", server.name(), "--hex", "C"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "C\n  result   0 (Success)\n  response 18 bytes\n"
              "    000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
              "    000010  58 59                                            XY\n");
}

TEST(Vornctl, ReadsCommandsFromStdinOneALineWithoutLineEnds) {
    FakeServer server(Canned);
    const RunResult r = Vornctl({"--socket", server.name()}, "OK1\r\n\nOK2\nOK3");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(server.Received(), (std::vector<std::string>{"OK1", "OK2", "OK3"}));
}

TEST(Vornctl, ExitStatusTwoWhenNoDaemonOrNoReplyInTime) {
    const RunResult none = Vornctl({"--socket", vorn_test::UniqueSocketName("nobody"), "JXT"});
    EXPECT_EQ(none.status, 2);
    EXPECT_NE(none.err.find("cannot reach vornd"), std::string::npos) << none.err;

    FakeServer silent([](const std::string&) { return std::string(); });
    const auto start = std::chrono::steady_clock::now();
    const RunResult late = Vornctl({"--socket", silent.name(), "--timeout", "1", "JXT"});
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(late.status, 2);
    EXPECT_NE(late.err.find("no reply to \"JXT\" within 1 s"), std::string::npos) << late.err;
    EXPECT_LT(took, std::chrono::seconds(3));

    // A record that stops half-way is not a reply either.
    FakeServer cut([](const std::string& c) { return EncodeReply(0, c, "full").substr(0, 6); });
    const RunResult partial = Vornctl({"--socket", cut.name(), "--timeout", "1", "JXT"});
    EXPECT_EQ(partial.status, 2);
}

TEST(Vornctl, RejectsBadOptions) {
    EXPECT_EQ(Vornctl({"--timeout", "soon", "JXT"}).status, 2);
    EXPECT_EQ(Vornctl({"--bogus"}).status, 2);
    EXPECT_EQ(Vornctl({""}).status, 2);
    const RunResult help = Vornctl({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("Usage: vornctl"), std::string::npos);
}

}  // namespace
