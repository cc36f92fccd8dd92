#ifndef VORN_TESTS_DAEMON_CHILDPROCESS_H
#define VORN_TESTS_DAEMON_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/TestSupport.h"

namespace vorn_test {

// A program run as a separate process, its stdout and stderr captured in files. A child still
// running when the object goes is killed and reaped.
class ChildProcess {
public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // argv[0] is the program's path; `env` adds "NAME=value" entries to this process's
    // environment; `input` becomes the child's standard input.
    bool Start(const std::vector<std::string>& argv, const std::vector<std::string>& env = {},
               const std::string& input = "");
    // True when the child ended within the limit.
    bool Wait(std::chrono::milliseconds limit);
    bool Running();
    void Signal(int signo);
    // The exit status, or 128 + the signal number when a signal ended the child.
    int ExitStatus() const { return m_nStatus; }
    std::string Stdout() const;
    std::string Stderr() const;
    pid_t pid() const { return m_pid; }

private:
    bool Reap(bool block);

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
