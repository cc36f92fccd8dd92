#include "daemon/ChildProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>

extern char** environ;

namespace vorn_test {

ChildProcess::~ChildProcess() {
    Signal(SIGKILL);
    Wait(std::chrono::milliseconds(5000));
}

bool ChildProcess::Start(const std::vector<std::string>& argv, const std::vector<std::string>& env,
                         const std::string& input) {
    std::vector<std::string> envStore(env);
    for (char** e = environ; *e; ++e) envStore.emplace_back(*e);
    std::vector<std::string> argStore(argv);
    std::vector<char*> envp, args;
    for (std::string& e : envStore) envp.push_back(&e[0]);
    for (std::string& a : argStore) args.push_back(&a[0]);
    envp.push_back(nullptr);
    args.push_back(nullptr);

    // The child starts with no blocked signals, whatever the test thread blocks.
    posix_spawn_file_actions_t files;
    posix_spawnattr_t attr;
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_init(&attr);
    posix_spawnattr_setsigmask(&attr, &none);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK);
    posix_spawn_file_actions_init(&files);
    const std::string in = m_dir.Write("stdin", input);
    const std::string out = m_dir.path() + "/stdout", err = m_dir.path() + "/stderr";
    posix_spawn_file_actions_addopen(&files, 0, in.c_str(), O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&files, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    m_nStatus = -1;
    const int rc = posix_spawn(&m_pid, args[0], &files, &attr, args.data(), envp.data());
    posix_spawn_file_actions_destroy(&files);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) m_pid = -1;
    return rc == 0;
}

bool ChildProcess::Wait(std::chrono::milliseconds limit) {
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

void ChildProcess::Signal(int signo) {
    if (m_pid > 0) kill(m_pid, signo);
}

std::string ChildProcess::Read(const std::string& name) const {
    std::ifstream in(m_dir.path() + "/" + name, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

RunResult RunProgram(const std::vector<std::string>& argv, const std::string& input,
                     std::chrono::milliseconds limit, const std::vector<std::string>& env) {
    ChildProcess child;
    if (!child.Start(argv, env, input)) return {};
    child.Wait(limit);
    return {child.ExitStatus(), child.Stdout(), child.Stderr()};
}

}  // namespace vorn_test
