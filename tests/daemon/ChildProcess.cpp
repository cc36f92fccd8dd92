#include "daemon/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

extern char** environ;

namespace vorn_test {
namespace {

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace

ChildProcess::~ChildProcess() {
    if (m_pid > 0 && Running()) {
        kill(m_pid, SIGKILL);
        Reap(true);
    }
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                         const std::string& input) {
    const std::string in = m_dir.Write("stdin", input);
    const std::string out = m_dir.path() + "/stdout";
    const std::string err = m_dir.path() + "/stderr";

    // Everything the child needs is built before fork: after it, only async-signal-safe calls.
    std::vector<std::string> envStore;
    for (char** e = environ; *e; ++e) envStore.emplace_back(*e);
    for (const std::string& extra : env) envStore.push_back(extra);
    std::vector<char*> envp;
    for (std::string& e : envStore) envp.push_back(&e[0]);
    envp.push_back(nullptr);
    std::vector<std::string> argStore(argv);
    std::vector<char*> args;
    for (std::string& a : argStore) args.push_back(&a[0]);
    args.push_back(nullptr);

    m_nStatus = -1;
    m_pid = fork();
    if (m_pid < 0) return false;
    if (m_pid == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        const int fin = open(in.c_str(), O_RDONLY);
        const int fout = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        const int ferr = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (fin < 0 || fout < 0 || ferr < 0) _exit(126);
        dup2(fin, 0);
        dup2(fout, 1);
        dup2(ferr, 2);
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    return true;
}

bool ChildProcess::Reap(bool block) {
    int st;
    pid_t r;
    do {
        r = waitpid(m_pid, &st, block ? 0 : WNOHANG);
    } while (r < 0 && errno == EINTR);
    if (r != m_pid) return false;
    m_nStatus = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    m_pid = -1;
    return true;
}

bool ChildProcess::Running() { return m_pid > 0 && !Reap(false); }

bool ChildProcess::Wait(std::chrono::milliseconds limit) {
    return Await([this] { return !Running(); }, limit);
}

void ChildProcess::Signal(int signo) {
    if (m_pid > 0) kill(m_pid, signo);
}

std::string ChildProcess::Stdout() const { return ReadFile(m_dir.path() + "/stdout"); }

std::string ChildProcess::Stderr() const { return ReadFile(m_dir.path() + "/stderr"); }

RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input,
                     std::chrono::milliseconds limit, const std::vector<std::string>& env) {
    RunResult r;
    ChildProcess child;
    if (!child.Start(argv, env, input)) return r;
    if (child.Wait(limit)) r.status = child.ExitStatus();
    r.out = child.Stdout();
    r.err = child.Stderr();
    return r;
}

}  // namespace vorn_test
