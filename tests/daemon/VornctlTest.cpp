// vornctl against a stand-in daemon that answers with prepared reply records, so that every
// decoding and exit-status path can be driven exactly; its decoder against the recorded replies
// the Python client reads too.
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "Output.h"
#include "ReplyRecord.h"
#include "daemon/ChildProcess.h"
#include "support/TestSupport.h"

namespace {

using namespace std::chrono_literals;
using vorn_test::EncodeReply;
using vorn_test::RunProgram;
using vorn_test::RunResult;

struct StandInRun : RunResult {
    std::vector<std::string> received;
};

// Runs vornctl against a stand-in listening on a fresh name, which answers each transmission
// with answer(transmission) (nothing for an empty string) until vornctl hangs up.
StandInRun Vornctl(std::vector<std::string> args,
                   const std::function<std::string(const std::string&)>& answer,
                   const std::string& input = "") {
    const std::string name = vorn_test::UniqueSocketName("standin");
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, name.data(), name.size());
    const socklen_t len = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr), len));
    EXPECT_EQ(0, listen(listener, 1));
    args.insert(args.begin(), {VORNCTL_PATH, "--socket=" + name});
    vorn_test::ChildProcess ctl;
    EXPECT_TRUE(ctl.Start(args, {}, input));

    StandInRun run;
    pollfd p{listener, POLLIN, 0};
    if (poll(&p, 1, 5000) == 1) {
        p.fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        char buf[65536];
        ssize_t n;
        while (poll(&p, 1, 5000) == 1 && (n = recv(p.fd, buf, sizeof buf, 0)) > 0) {
            run.received.emplace_back(buf, static_cast<size_t>(n));
            const std::string reply = answer(run.received.back());
            (void)!send(p.fd, reply.data(), reply.size(), MSG_NOSIGNAL);
        }
        close(p.fd);
    }
    close(listener);
    EXPECT_TRUE(ctl.Wait(5000ms));
    run.status = ctl.ExitStatus();
    run.out = ctl.Stdout();
    run.err = ctl.Stderr();
    return run;
}

TEST(Vornctl, PrintsEachReplyEscapedAndExitsOneWhenAnyResultFails) {
    const auto answer = [](const std::string& c) {
        return EncodeReply(c == "FAIL" ? 22 : 0, c, std::string("a\r\nb\x01\xff", 6));
    };
    StandInRun r = Vornctl({"JXT+X=1", "FAIL", "OK"}, answer);
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(r.received, (std::vector<std::string>{"JXT+X=1", "FAIL", "OK"}));
    EXPECT_EQ(r.out,
              "JXT+X=1\n  result   0 (Success)\n  response a\\r\\nb\\x01\\xff\n"
              "FAIL\n  result   22 (" +
                  std::string(std::strerror(22)) +
                  ")\n  response a\\r\\nb\\x01\\xff\n"
                  "OK\n  result   0 (Success)\n  response a\\r\\nb\\x01\\xff\n");

    // Without commands on the line, stdin gives one a line, line ends and empty lines dropped.
    r = Vornctl({}, answer, "OK1\r\n\nOK2\nOK3");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.received, (std::vector<std::string>{"OK1", "OK2", "OK3"}));
}

TEST(Vornctl, JsonAndHexShowEveryByte) {
    StandInRun r =
        Vornctl({"--json", "A\"B", "1009", "1010", "--", "-5"}, [](const std::string& c) {
            return EncodeReply(
                std::atoi(c.c_str()), c,
                c[0] == 'A' ? std::string("q\"b\\\r\n\t\x01\x7f\xc3\xa9\xff", 12) : "");
        });
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_EQ(
        r.out,
        "{\"result\":0,\"meaning\":\"Success\",\"command\":\"A\\\"B\",\"response\":"
        "\"q\\\"b\\\\\\r\\n\\t\\u0001\\u007f\xc3\xa9\\u00ff\"}\n"
        "{\"result\":1009,\"meaning\":\"Out of range\",\"command\":\"1009\",\"response\":\"\"}\n"
        "{\"result\":1010,\"meaning\":\"Unknow error\",\"command\":\"1010\",\"response\":\"\"}\n"
        "{\"result\":-5,\"meaning\":\"Unknow error\",\"command\":\"-5\",\"response\":\"\"}\n");

    r = Vornctl({"--hex", "C"},
                [](const std::string& c) { return EncodeReply(0, c, "0123456789abcdefXY"); });
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out,
              "C\n  result   0 (Success)\n  response 18 bytes\n"
              "    000000  30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  0123456789abcdef\n"
              "    000010  58 59                                            XY\n");
}

TEST(Vornctl, ExitStatusTwoWhenNoDaemonNoWholeReplyInTimeOrBadOptions) {
    RunResult r = RunProgram({VORNCTL_PATH, "-s", vorn_test::UniqueSocketName("no"), "JXT"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("cannot reach vornd"), std::string::npos) << r.err;

    const auto start = std::chrono::steady_clock::now();
    r = Vornctl({"--timeout", "1", "JXT"}, [](const std::string&) { return std::string(); });
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no reply to \"JXT\" within 1 s"), std::string::npos) << r.err;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    // A record that stops half-way is not a reply either.
    r = Vornctl({"-t1", "JXT"},
                [](const std::string& c) { return EncodeReply(0, c, "full").substr(0, 6); });
    EXPECT_EQ(r.status, 2);
    // vornd answers the client that sent last: another client's reply is not printed as ours.
    r = Vornctl({"JXT+A", "JXT+B"}, [](const std::string& c) {
        return EncodeReply(0, c == "JXT+B" ? "JXT+OTHER" : c, "");
    });
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "JXT+A\n  result   0 (Success)\n  response \n");
    EXPECT_NE(r.err.find("reply to another command"), std::string::npos) << r.err;

    for (std::vector<std::string> bad : {std::vector<std::string>{"--timeout", "soon", "JXT"},
                                         {"--bogus"},
                                         {""},
                                         {"--json=yes", "JXT"},
                                         {"--tcp", "nohost", "JXT"},
                                         {"--junit", "r.xml", "JXT"},
                                         {"--plan", "p", "JXT"}}) {
        bad.insert(bad.begin(), VORNCTL_PATH);
        EXPECT_EQ(RunProgram(bad).status, 2) << bad[1];
    }
    r = RunProgram({VORNCTL_PATH, "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("Usage: vornctl"), std::string::npos);
    r = RunProgram({VORNCTL_PATH, "-V"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("vornctl ", 0), 0u) << r.out;
}

// A daemon that has stopped accepting leaves connections in its backlog; once that is full, a
// plain connect would wait for ever.
TEST(Vornctl, TimeoutCoversConnectingToAFullBacklog) {
    const std::string name = vorn_test::UniqueSocketName("full");
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::memcpy(addr.sun_path + 1, name.data(), name.size());
    const socklen_t len = offsetof(sockaddr_un, sun_path) + 1 + name.size();
    ASSERT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&addr), len));
    ASSERT_EQ(0, listen(listener, 0));
    std::vector<int> queued;
    for (int i = 0; i < 16; ++i) {
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        queued.push_back(fd);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) break;
    }
    ASSERT_EQ(errno, EAGAIN) << "the backlog never filled";

    const auto start = std::chrono::steady_clock::now();
    const RunResult r = RunProgram({VORNCTL_PATH, "--socket", name, "--timeout=1", "JXT"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("timed out"), std::string::npos) << r.err;
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s);
    for (int fd : queued) close(fd);
    close(listener);
}

// The recorded replies that the Python client's tests decode too.
TEST(VornctlReplies, DecodesTheRecordedReplies) {
    std::ifstream manifest(std::string(VORN_REPLIES_DIR) + "/replies.txt");
    ASSERT_TRUE(manifest);
    std::string line;
    int files = 0;
    while (std::getline(manifest, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::vector<std::string> f;
        std::stringstream fields(line);
        for (std::string x; std::getline(fields, x, '\t');) f.push_back(x);
        if (!line.empty() && line.back() == '\t') f.emplace_back();
        ASSERT_GE(f.size(), 2u) << line;
        std::ifstream in(std::string(VORN_REPLIES_DIR) + "/" + f[0], std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), {});
        ASSERT_FALSE(bytes.empty()) << f[0];
        ++files;

        vornctl::ReplyRecord rec;
        size_t used = 0;
        std::string error;
        const vornctl::DecodeStatus status =
            vornctl::DecodeReply(bytes.data(), bytes.size(), rec, used, error);
        if (f[1] == "incomplete") {
            EXPECT_EQ(status, vornctl::kIncomplete) << f[0];
            continue;
        }
        if (f[1] == "malformed") {
            EXPECT_EQ(status, vornctl::kMalformed) << f[0];
            EXPECT_NE(error.find("malformed reply"), std::string::npos) << error;
            continue;
        }
        ASSERT_EQ(f.size(), 6u) << line;
        ASSERT_EQ(status, vornctl::kDecoded) << f[0];
        EXPECT_EQ(rec.result, std::stoi(f[2])) << f[0];
        EXPECT_EQ(vornctl::Escape(rec.request), f[3]) << f[0];
        EXPECT_EQ(vornctl::Escape(rec.response), f[4]) << f[0];
        EXPECT_EQ(bytes.size() - used, std::stoul(f[5])) << f[0];
        // Every record cut short is the start of one, never a reply.
        size_t ignored = 0;
        for (size_t cut = 0; cut < used; ++cut)
            EXPECT_EQ(vornctl::DecodeReply(bytes.data(), cut, rec, ignored, error),
                      vornctl::kIncomplete)
                << f[0] << " cut at " << cut;
    }
    EXPECT_GE(files, 7);
}

}  // namespace
