#ifndef VORN_TESTS_DAEMON_CHILDPROCESS_H
#define VORN_TESTS_DAEMON_CHILDPROCESS_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "support/TestSupport.h"

extern char** environ;

namespace vorn_test {

// A program run as a separate process (argv[0] is its path) with `env` added to this process's
// environment, `input` as its stdin and its stdout and stderr kept in files, or both written to
// `outputFd` when one is given; killed if still running when the object goes.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess() {
        Signal(SIGKILL);
        Wait(std::chrono::milliseconds(5000));
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Start(std::vector<std::string> argv, std::vector<std::string> env = {},
               const std::string& input = "", int outputFd = -1) {
        for (char** e = environ; *e; ++e) env.emplace_back(*e);  // the first of a name wins
        std::vector<char*> envp, args;
        for (std::string& e : env) envp.push_back(&e[0]);
        for (std::string& a : argv) args.push_back(&a[0]);
        envp.push_back(nullptr);
        args.push_back(nullptr);
        // The child starts with no blocked signals, whatever the test thread blocks.
        posix_spawnattr_t attr;
        sigset_t none;
        sigemptyset(&none);
        posix_spawnattr_init(&attr);
        posix_spawnattr_setsigmask(&attr, &none);
        posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
        posix_spawn_file_actions_t files;
        posix_spawn_file_actions_init(&files);
        const std::string in = m_dir.Write("stdin", input), out = m_dir.path() + "/stdout",
                          err = m_dir.path() + "/stderr";
        posix_spawn_file_actions_addopen(&files, 0, in.c_str(), O_RDONLY, 0);
        if (outputFd >= 0) {
            posix_spawn_file_actions_adddup2(&files, outputFd, 1);
            posix_spawn_file_actions_adddup2(&files, outputFd, 2);
        } else {
            posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT, 0600);
            posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT, 0600);
        }
        const int rc = posix_spawn(&m_pid, args[0], &files, &attr, args.data(), envp.data());
        posix_spawn_file_actions_destroy(&files);
        posix_spawnattr_destroy(&attr);
        if (rc != 0) m_pid = -1;
        return rc == 0;
    }

    // True when the child ended within the limit; ExitStatus() is then its status, or 128 + the
    // number of the signal that ended it.
    bool Wait(std::chrono::milliseconds limit) {
        return Await(
            [this] {
                int st;
                if (m_pid <= 0 || waitpid(m_pid, &st, WNOHANG) != m_pid) return m_pid <= 0;
                m_nStatus = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
                m_pid = -1;
                return true;
            },
            limit);
    }
    void Signal(int signo) {
        if (m_pid > 0) kill(m_pid, signo);
    }
    int ExitStatus() const { return m_nStatus; }
    pid_t Pid() const { return m_pid; }
    std::string Stdout() const { return Read("/stdout"); }
    std::string Stderr() const { return Read("/stderr"); }

private:
    std::string Read(const std::string& name) const {
        std::ostringstream s;
        s << std::ifstream(m_dir.path() + name, std::ios::binary).rdbuf();
        return s.str();
    }

    TempDir m_dir;
    pid_t m_pid = -1;
    int m_nStatus = -1;  // -1 until the child has ended
};

struct RunResult {
    int status = -1;  // -1 when the program did not end within the limit
    std::string out;
    std::string err;
};

// Runs a program to its end (killing it after `limit`).
inline RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                            std::chrono::milliseconds limit = std::chrono::milliseconds(8000),
                            const std::vector<std::string>& env = {}) {
    ChildProcess child;
    if (!child.Start(argv, env, input)) return {};
    child.Wait(limit);
    return {child.ExitStatus(), child.Stdout(), child.Stderr()};
}

// One command to a daemon run as `daemon`, sent on `client`, and its reply; a missing reply, or
// one to another command, fails the test with the daemon's output.
inline Reply AskDaemon(Client& client, const ChildProcess& daemon, const std::string& command) {
    Reply reply;
    EXPECT_TRUE(client.Send(command));
    EXPECT_TRUE(client.ReadReply(reply)) << command << "\n" << daemon.Stderr();
    EXPECT_EQ(reply.request, command);
    return reply;
}

}  // namespace vorn_test

#endif
