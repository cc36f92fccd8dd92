#ifndef VORN_TESTS_DAEMON_CHILDPROCESS_H
#define VORN_TESTS_DAEMON_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace vorn_test {

// A program run as a separate process (argv[0] is its path), `env` added to this process's
// environment, `input` as its stdin, stdout and stderr kept in files. Killed if still running
// when the object goes.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool Start(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               const std::string& input = "");
    // True when the child ended within the limit; ExitStatus() is then its status, or 128 + the
    // signal number that ended it.
    bool Wait(std::chrono::milliseconds limit);
    void Signal(int signo);
    int ExitStatus() const { return m_nStatus; }
    std::string Stdout() const { return Read("stdout"); }
    std::string Stderr() const { return Read("stderr"); }

private:
    std::string Read(const std::string& name) const;

    TempDir m_dir;
    pid_t m_pid = -1;
    int m_nStatus = -1;
};

struct RunResult {
    int status = -1;  // -1 when the program did not end within the limit
    std::string out;
    std::string err;
};

// Runs a program to its end (killing it after `limit`).
RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input = "",
                     std::chrono::milliseconds limit = std::chrono::milliseconds(8000),
                     const std::vector<std::string>& env = {});

}  // namespace vorn_test

#endif
