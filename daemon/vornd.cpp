// vornd: the host daemon. It builds the library's objects in the order the library expects,
// serves the socket on the library's own threads, and waits for a stop signal.
//
//   1. log level and, on Linux, the log queue; SIGPIPE ignored; stop signals blocked before any
//      library thread exists (threads inherit the mask)
//   2. the command I/O service (opens the socket at once), with the daemon's settings
//   3. the configuration manager
//   4. the context wrapper (reads "/vendor/etc/vorn.json"), then --config PATH on top of it
//   5. the misc, sensor and modem services, each registered with the wrapper
//   6. the command I/O service's Start: the socket loop thread begins to serve
//
// Shutdown (SIGTERM, SIGINT, SIGHUP): the socket loop is stopped and joined, the wrapper is
// deleted (which releases the service manager and every service, ending their threads), then
// the command I/O service and the configuration. The process leaves with _exit: a thread left
// inside a HAL call that never returned may still run, so static destructors are not run under
// it. If the socket loop ends on its own (its listening socket was closed or replaced, as a HAL
// that closes descriptors it does not own does), vornd logs why and leaves at once with status
// 1, so that its supervisor restarts it.

#include <errno.h>
#include <grp.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#ifndef __ANDROID__
#include <android/log.h>
#endif

#include "vorn_core.h"

namespace {

struct Options {
    std::string socketName = "vorn";
    std::string configPath;
    std::string checkPath;     // --check-config: the file to check
    int logLevel = 3;          // warnings and errors: the per-command trace stays off the hot path
    int queueSpinMicros = -1;  // -1: the library's default
    bool printConfig = false;
    int idleTimeout = 0;         // seconds; 0 keeps idle clients for good
    bool replyToSender = true;   // --reply-routing=latest: the client of the latest command
    bool promoteWaiting = true;  // --no-promote-waiting
    bool closeStalled = true;    // --keep-stalled-clients
    // Peers allowed to connect; both empty: everyone.
    std::vector<uid_t> allowUids;
    std::vector<gid_t> allowGids;
    bool help = false;
    bool version = false;
    // The HAL runs in a host process per service unless --hal-isolation=none.
    bool halIsolation = true;
    // Threads that HAL calls past their timeout may hold per service (--hal-isolation=none).
    int heldCallLimit = 8;
    int loopBudgetMicros = 10000;  // 0: every command goes to its service's request thread
};

const char kBuiltInConfig[] = "/vendor/etc/vorn.json";

#ifndef VORN_VERSION
#define VORN_VERSION "unknown"
#endif

// One entry of --allow-uid (user) or --allow-gid (group): a number or a name.
bool ParseId(bool user, const std::string& item, unsigned& id) {
    if (item.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const unsigned long number = strtoul(item.c_str(), &end, 10);
    if (*end == '\0' && errno == 0 && item[0] != '-' && number <= 0xfffffffeul) {
        id = static_cast<unsigned>(number);
        return true;
    }
    if (user) {
        const passwd* pw = getpwnam(item.c_str());
        if (pw) id = pw->pw_uid;
        return pw != nullptr;
    }
    const group* gr = getgrnam(item.c_str());
    if (gr) id = gr->gr_gid;
    return gr != nullptr;
}

// A comma-separated list; false (after a message) on an entry that is no number and no name.
template <typename Id>
bool ParseIds(const std::string& option, const std::string& list, std::vector<Id>& ids) {
    const bool user = option == "--allow-uid";
    size_t start = 0;
    for (;;) {
        const size_t comma = list.find(',', start);
        const std::string item = list.substr(start, comma - start);
        unsigned id = 0;
        if (!ParseId(user, item, id)) {
            std::cerr << "vornd: " << option << ": \"" << item << "\" is no "
                      << (user ? "user" : "group") << " id or name\n";
            return false;
        }
        ids.push_back(static_cast<Id>(id));
        if (comma == std::string::npos) return true;
        start = comma + 1;
    }
}

// A whole number from 0 to `most`; false (after a message naming the option) otherwise.
bool ParseBounded(const char* option, const std::string& v, long most, const char* unit, int& out) {
    char* end = nullptr;
    errno = 0;
    const long n = std::strtol(v.c_str(), &end, 10);
    if (v.empty() || *end != '\0' || errno != 0 || n < 0 || n > most) {
        std::cerr << "vornd: " << option << " takes 0 to " << most << unit << ", not \"" << v
                  << "\"\n";
        return false;
    }
    out = static_cast<int>(n);
    return true;
}

// One row an option: its long and short names, the name of its value (none for a switch), its
// line in --help, and what it does with the value. Parsing, --help, the man page check and the
// README check all go by this table, so a new option is one row here.
struct OptionRow {
    const char* longName;
    char shortName;     // 0: long form only
    const char* value;  // null: a switch
    const char* help;
    // Stores the value; false after saying on stderr why it is refused.
    bool (*apply)(Options& opt, const std::string& value);
};

const OptionRow kOptions[] = {
    {"socket", 's', "NAME", "abstract socket name (default \"vorn\")",
     [](Options& opt, const std::string& v) {
         // Processer keeps the name in a 256-byte array, the abstract address allows 107.
         if (v.empty() || v.size() > 100) {
             std::cerr << "vornd: the socket name must have 1 to 100 characters\n";
             return false;
         }
         opt.socketName = v;
         return true;
     }},
    {"config", 'c', "PATH", "JSON configuration applied over /vendor/etc/vorn.json",
     [](Options& opt, const std::string& v) {
         opt.configPath = v;
         return true;
     }},
    {"log-level", 'l', "N", "1 trace, 2 milestones, 3 warnings (default), 4 errors",
     [](Options& opt, const std::string& v) {
         if (v.size() != 1 || v[0] < '1' || v[0] > '4') {
             std::cerr << "vornd: --log-level takes 1, 2, 3 or 4, not \"" << v << "\"\n";
             return false;
         }
         opt.logLevel = v[0] - '0';
         return true;
     }},
    {"queue-spin-us", 0, "N",
     "how long a service thread that runs out of work, or the socket loop after a command it "
     "answered, keeps looking for more before it sleeps, 0-1000 microseconds (default 50)",
     [](Options& opt, const std::string& v) {
         return ParseBounded("--queue-spin-us", v, 1000, "", opt.queueSpinMicros);
     }},
    {"print-config", 'p', nullptr, "print the merged configuration and exit",
     [](Options& opt, const std::string&) {
         opt.printConfig = true;
         return true;
     }},
    {"idle-timeout", 0, "SEC",
     "close a client silent for SEC seconds (0, the default: never; no less than the longest "
     "request timeout)",
     [](Options& opt, const std::string& v) {
         return ParseBounded("--idle-timeout", v, 86400, " seconds", opt.idleTimeout);
     }},
    {"reply-routing", 0, "MODE",
     "sender (default): each reply goes to the client that sent the command; latest: to the "
     "client that sent last",
     [](Options& opt, const std::string& v) {
         if (v != "sender" && v != "latest") {
             std::cerr << "vornd: --reply-routing takes sender or latest, not \"" << v << "\"\n";
             return false;
         }
         opt.replyToSender = v == "sender";
         return true;
     }},
    {"no-promote-waiting", 0, nullptr,
     "leave a connection beyond the four served ones unserved even when a slot frees",
     [](Options& opt, const std::string&) {
         opt.promoteWaiting = false;
         return true;
     }},
    {"keep-stalled-clients", 0, nullptr,
     "keep a client that does not read its replies; each reply to it waits up to a second",
     [](Options& opt, const std::string&) {
         opt.closeStalled = false;
         return true;
     }},
    {"allow-uid", 0, "LIST", "only peers with one of these user ids or names may connect",
     [](Options& opt, const std::string& v) { return ParseIds("--allow-uid", v, opt.allowUids); }},
    {"allow-gid", 0, "LIST", "only peers with one of these group ids or names may connect",
     [](Options& opt, const std::string& v) { return ParseIds("--allow-gid", v, opt.allowGids); }},
    {"hal-isolation", 0, "MODE",
     "process (default): each service's HAL runs in a host process of its own, so its crash, "
     "hang or spin costs only that process; none: the HAL runs inside vornd",
     [](Options& opt, const std::string& v) {
         if (v != "process" && v != "none") {
             std::cerr << "vornd: --hal-isolation takes process or none, not \"" << v << "\"\n";
             return false;
         }
         opt.halIsolation = v == "process";
         return true;
     }},
    {"held-call-limit", 0, "N",
     "with --hal-isolation=none: once N threads per service are held by HAL calls past their "
     "timeout, answer HAL commands 1009 until one returns (default 8; 0: no limit)",
     [](Options& opt, const std::string& v) {
         return ParseBounded("--held-call-limit", v, 1000, "", opt.heldCallLimit);
     }},
    {"loop-budget-us", 0, "N",
     "the socket loop runs a command for an idle service itself, and hands the socket to a "
     "fresh thread if it takes longer than N microseconds, 0-1000000 (default 10000; 0: every "
     "command goes to its service's request thread)",
     [](Options& opt, const std::string& v) {
         return ParseBounded("--loop-budget-us", v, 1000000, " microseconds", opt.loopBudgetMicros);
     }},
    {"check-config", 0, "FILE", "check FILE strictly, one line per problem; exit 1 if any",
     [](Options& opt, const std::string& v) {
         if (v.empty()) {
             std::cerr << "vornd: --check-config needs a file\n";
             return false;
         }
         opt.checkPath = v;
         return true;
     }},
    {"version", 'V', nullptr, "print the version and exit",
     [](Options& opt, const std::string&) {
         opt.version = true;
         return true;
     }},
    {"help", 'h', nullptr, "this text",
     [](Options& opt, const std::string&) {
         opt.help = true;
         return true;
     }},
};

void Usage(std::ostream& out) {
    out << "Usage: vornd [OPTION]...\n"
           "Serves device commands on an abstract local socket (\"vorn\" unless --socket names\n"
           "another).\n"
           "\n";
    for (const OptionRow& row : kOptions) {
        std::string left = row.shortName ? std::string("-") + row.shortName + ", " : "    ";
        left += std::string("--") + row.longName;
        if (row.value) left += std::string(" ") + row.value;
        out << "  " << left << std::string(left.size() < 26 ? 26 - left.size() : 1, ' ') << row.help
            << "\n";
    }
    out << "\n"
           "A value follows its option as the next argument or after \"=\" (--socket=NAME, "
           "-sNAME).\n"
           "SIGTERM, SIGINT or SIGHUP stops the daemon (exit status 0). SIGHUP does not reload\n"
           "the configuration: restart the daemon to apply a changed file.\n";
}

const OptionRow* FindOption(const std::string& longName, char shortName) {
    for (const OptionRow& row : kOptions)
        if (shortName ? row.shortName == shortName : longName == row.longName) return &row;
    return nullptr;
}

// 0 to go on, otherwise the exit status (--help and --version leave with 0 through `done`).
int ParseOptions(int argc, char** argv, Options& opt, bool& done) {
    done = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        const OptionRow* row = nullptr;
        std::string value;
        bool inline_value = false;
        if (a.size() > 2 && a.compare(0, 2, "--") == 0) {
            const size_t eq = a.find('=');
            row = FindOption(a.substr(2, eq == std::string::npos ? std::string::npos : eq - 2), 0);
            if (eq != std::string::npos) {
                value = a.substr(eq + 1);
                inline_value = true;
            }
        } else if (a.size() >= 2 && a[0] == '-' && a[1] != '-') {
            row = FindOption("", a[1]);
            if (a.size() > 2) {
                value = a.substr(2);
                inline_value = true;
            }
        }
        if (!row) {
            std::cerr << "vornd: unknown argument \"" << a << "\" (see --help)\n";
            return 2;
        }
        const std::string name = std::string("--") + row->longName;
        if (row->value && !inline_value) {
            if (i + 1 >= argc) {
                std::cerr << "vornd: " << name << " needs a value\n";
                return 2;
            }
            value = argv[++i];
        } else if (!row->value && inline_value) {
            std::cerr << "vornd: " << name << " takes no value\n";
            return 2;
        }
        if (!row->apply(opt, value)) return 2;
        if (opt.help || opt.version) {
            if (opt.help)
                Usage(std::cout);
            else
                std::cout << "vornd " << VORN_VERSION << "\n";
            done = true;
            return 0;
        }
    }
    return 0;
}

// --check-config: one line a problem on stdout; 0 when the file is clean, 1 otherwise.
int CheckConfig(const std::string& path) {
    const std::vector<std::string> problems = ConfigChecker::Check(path);
    for (const std::string& line : problems) std::cout << line << "\n";
    std::cout.flush();
    return problems.empty() ? 0 : 1;
}

// The daemon's command I/O service. It adds what the daemon needs from the outside: whether the
// listening socket could be opened, and the peer check of --allow-uid and --allow-gid.
class DaemonCmdIO : public CmdIOService {
public:
    DaemonCmdIO(const char* name, const Options& opt)
        : CmdIOService(name), m_allowUids(opt.allowUids), m_allowGids(opt.allowGids) {}
    // The loop calls AddClient, which reads the lists: it ends before they go.
    ~DaemonCmdIO() override { Stop(); }

    // A peer that matches neither list never reaches a slot: the negative result makes
    // AcceptConnection close it at once.
    int AddClient(int fd) override {
        if (m_allowUids.empty() && m_allowGids.empty()) return CmdIOService::AddClient(fd);
        ucred peer{};
        socklen_t size = sizeof peer;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
            LogMessage(4, "VORN", "AddClient").stream()
                << "peer credentials unreadable (" << strerror(errno) << "): fd=" << fd;
            return -1;
        }
        const auto has = [](const auto& ids, auto id) {
            return std::find(ids.begin(), ids.end(), id) != ids.end();
        };
        if (has(m_allowUids, peer.uid) || has(m_allowGids, peer.gid))
            return CmdIOService::AddClient(fd);
        LogMessage(4, "VORN", "AddClient").stream()
            << "peer not allowed: pid=" << peer.pid << " uid=" << peer.uid << " gid=" << peer.gid;
        return -1;
    }

    bool IsListening() const { return m_nServerFd >= 0; }

private:
    const std::vector<uid_t> m_allowUids;
    const std::vector<gid_t> m_allowGids;
};

#ifndef __ANDROID__
// vornd's log on Linux. liblog writes each line to stderr on the thread that logs, so a reader
// that stops reading (a full pipe) would stop that thread: the socket loop, a service's thread,
// the main thread on its way out. Here every line goes into a bounded queue instead, and one
// writer thread hands the lines to liblog's stderr writer. A full queue drops lines and counts
// them; the writer reports the count as "N log lines dropped" once it gets to write again. On
// Android the lines go to logd as they always have.
class LogQueue {
public:
    static LogQueue& Get() {
        static auto* queue = new LogQueue;  // never destroyed: its writer may outlive main
        return *queue;
    }

    void Install() {
        std::thread([this] { Write(); }).detach();
        __android_log_set_logger(&LogQueue::Take);
    }

    // Waits until every queued line has been written, for `limit` at most; false when the
    // reader did not take them in time.
    bool Flush(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(m_lock);
        return m_drained.wait_for(lock, limit,
                                  [this] { return m_lines.empty() && !m_writing && !m_dropped; });
    }

private:
    static const size_t kMaxLines = 4096;
    static const size_t kMaxBytes = 1 << 20;
    static constexpr std::chrono::milliseconds kGather{2};

    struct Line {
        int priority;
        std::string tag;
        std::string text;
    };

    static void Take(const __android_logger_data* data, const char* text) {
        LogQueue& q = Get();
        Line line{data->priority, data->tag ? data->tag : "", text ? text : ""};
        {
            std::lock_guard<std::mutex> lock(q.m_lock);
            const size_t size = line.tag.size() + line.text.size();
            if (q.m_lines.size() >= kMaxLines || q.m_bytes + size > kMaxBytes) {
                ++q.m_dropped;
                return;
            }
            q.m_bytes += size;
            q.m_lines.push_back(std::move(line));
        }
        q.m_queued.notify_one();
    }

    static void Emit(int priority, const std::string& tag, const std::string& text) {
        __android_logger_data data{
            sizeof(__android_logger_data), LOG_ID_MAIN, priority, tag.c_str(), nullptr, 0};
        __android_log_stderr_logger(&data, text.c_str());
    }

    void Write() {
        std::unique_lock<std::mutex> lock(m_lock);
        for (;;) {
            m_queued.wait(lock, [this] { return !m_lines.empty() || m_dropped; });
            // Lines come in bursts (a refused command writes three, a busy client many): the
            // writer lets a burst gather for a moment, asleep but not in the wait, so that the
            // lines queued meanwhile wake nobody and the daemon's threads pay no wake-up for them.
            lock.unlock();
            std::this_thread::sleep_for(kGather);
            lock.lock();
            std::deque<Line> lines;
            lines.swap(m_lines);
            const unsigned long dropped = m_dropped;
            m_dropped = 0;
            m_bytes = 0;
            m_writing = true;
            lock.unlock();
            for (const Line& line : lines) Emit(line.priority, line.tag, line.text);
            if (dropped)
                Emit(ANDROID_LOG_WARN, "VORN", std::to_string(dropped) + " log lines dropped");
            lock.lock();
            m_writing = false;
            if (m_lines.empty() && !m_dropped) m_drained.notify_all();
        }
    }

    std::mutex m_lock;                  // guards m_lines, m_bytes, m_dropped and m_writing
    std::condition_variable m_queued;   // a line was queued or dropped
    std::condition_variable m_drained;  // the queue is empty and written
    std::deque<Line> m_lines;
    size_t m_bytes = 0;
    unsigned long m_dropped = 0;
    bool m_writing = false;
};
#endif

// The longest time a client may wait for an answer: the request timeout of every command of a
// served service (0 means 15 seconds), and the misc service's own 15-second rows, "JXT+TIMEOUT"
// among them, unless its white list takes that command over.
int LongestRequestTimeout(ConfigManager& cfg) {
    const unsigned kDefault = 15;
    unsigned longest = 0;
    bool timeoutCommandTaken = false;
    for (const CommonConfig& record : cfg.m_configs) {
        if (!record.m_bSupport) continue;
        for (const cmd_info& row : record.m_whiteList) {
            longest = std::max(longest, row.timeout ? row.timeout : kDefault);
            if (record.m_nServiceId == MISC_SERVICE && row.command == "JXT+TIMEOUT" &&
                !row.func.empty())
                timeoutCommandTaken = true;
        }
    }
    if (!timeoutCommandTaken) longest = std::max(longest, kDefault);
    return static_cast<int>(longest);
}

void PrintConfig(ConfigManager& cfg) {
    for (CommonConfig& record : cfg.m_configs) std::cout << record.ToString() << "\n";
    std::cout.flush();
}

// Applies --config; false (after a clear message) when the file cannot be used.
bool ApplyConfigFile(ConfigManager& cfg, const std::string& path) {
    if (path.empty()) return true;
    if (cfg.ParseJSONDoc(path)) return true;
    std::cerr << "vornd: cannot use configuration file \"" << path
              << "\": it cannot be opened or is not valid JSON\n";
    return false;
}

// vorn_halhost is installed beside vornd (both in the build tree's bin/ too).
std::string HalHostPath() {
    char self[4096];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "vorn_halhost";
    std::string path(self, static_cast<size_t>(n));
    const size_t slash = path.rfind('/');
    return (slash == std::string::npos ? std::string() : path.substr(0, slash + 1)) +
           "vorn_halhost";
}

const char* SignalName(int signo) {
    switch (signo) {
        case SIGTERM:
            return "SIGTERM";
        case SIGINT:
            return "SIGINT";
        case SIGHUP:
            return "SIGHUP";
        default:
            return "signal";
    }
}

// The socket loop ending on its own (not through Stop) wakes main with SIGUSR1, which every
// thread blocks and main waits for beside the stop signals. A signal, not a descriptor: what
// ends the loop this way is usually a HAL that closed descriptors it does not own, main's
// among them.
std::atomic<bool> g_loopEnded{false};
pthread_t g_mainThread;

void NoteLoopEnd(int result, void* /*context*/) {
    if (result == 0) return;  // Stop, called by main itself
    g_loopEnded = true;
    pthread_kill(g_mainThread, SIGUSR1);
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    bool done;
    int rc = ParseOptions(argc, argv, opt, done);
    if (rc != 0 || done) return rc;

    LogMessage::SetMinSeverity(opt.logLevel);
    if (opt.queueSpinMicros >= 0) SetQueueSpinMicros(opt.queueSpinMicros);
    SetHeldCallLimit(opt.heldCallLimit);

    if (!opt.checkPath.empty()) return CheckConfig(opt.checkPath);

    if (opt.printConfig) {
        // The same merge as a running daemon, without the socket: the built-in file, then
        // --config. Nothing else is constructed.
        ConfigManager cfg;
        cfg.ParseJSONDoc(kBuiltInConfig);
        if (!ApplyConfigFile(cfg, opt.configPath)) return 1;
        PrintConfig(cfg);
        return 0;
    }

    // A reader of stderr that goes away, or a peer that hangs up, must not end the daemon.
    signal(SIGPIPE, SIG_IGN);

    // Blocked here, in the only thread so far; every library thread inherits the mask, so the
    // stop signals (and SIGUSR1, see NoteLoopEnd) are taken only by sigwaitinfo below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGHUP);
    sigaddset(&stopSignals, SIGUSR1);
    g_mainThread = pthread_self();
    if (pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr) != 0) {
        std::cerr << "vornd: cannot block the stop signals\n";
        return 1;
    }
#ifndef __ANDROID__
    LogQueue::Get().Install();  // its writer thread inherits the mask too
#endif
    // Lines still queued are written before leaving, for a bounded time: a reader that does not
    // take the log does not hold up the exit.
    const auto flushLog = [] {
#ifndef __ANDROID__
        LogQueue::Get().Flush(std::chrono::milliseconds(200));
#endif
    };

    // Before any service exists: each takes the setting when it is constructed.
    if (opt.halIsolation) {
        const std::string hostPath = HalHostPath();
        if (access(hostPath.c_str(), X_OK) != 0) {
            std::cerr << "vornd: the HAL host program \"" << hostPath << "\" cannot be run ("
                      << strerror(errno) << "); reinstall, or run the HAL inside vornd with "
                      << "--hal-isolation=none\n";
            return 1;
        }
        SetHalIsolation(HAL_ISOLATION_PROCESS, hostPath.c_str());
    }

    std::unique_ptr<DaemonCmdIO> cmdio(new DaemonCmdIO(opt.socketName.c_str(), opt));
    if (!cmdio->IsListening()) {
        std::cerr << "vornd: cannot listen on socket \"" << opt.socketName
                  << "\": the name is already in use (is another vornd running?)\n";
        flushLog();
        return 1;
    }
    cmdio->SetReplyToSender(opt.replyToSender);
    cmdio->SetPromoteWaiting(opt.promoteWaiting);
    cmdio->SetCloseStalledClients(opt.closeStalled);
    cmdio->SetLoopRunsRequests(opt.loopBudgetMicros);
    cmdio->SetLoopEndCallback(&NoteLoopEnd, nullptr);

    std::unique_ptr<ConfigManager> cfg(new ConfigManager());
    ContextWrapper* wrapper = ContextWrapper::Initialize(cmdio.get(), cfg.get());
    if (!ApplyConfigFile(*cfg, opt.configPath)) {
        flushLog();
        return 1;
    }
    // An idle limit shorter than a request would cut a client off while it waits for an answer.
    if (opt.idleTimeout > 0 && opt.idleTimeout < LongestRequestTimeout(*cfg)) {
        std::cerr << "vornd: --idle-timeout " << opt.idleTimeout
                  << " is below the longest request timeout of the configuration ("
                  << LongestRequestTimeout(*cfg) << " s)\n";
        flushLog();
        return 2;
    }
    cmdio->SetIdleTimeout(opt.idleTimeout);
    cmdio->SetWaitingLimit(Processer::kWaitingLimit);

    wrapper->AddAvailableService(MISC_SERVICE, new MiscService(wrapper));
    wrapper->AddAvailableService(SENSOR_SERVICE, new SensorService(wrapper));
    wrapper->AddAvailableService(MODEM_SERVICE, new ModemService(wrapper));
    // Start itself, not the wrapper's Start: that one answers 0 whatever Start returned.
    int status = 0;
    rc = cmdio->Start();
    if (rc != 0) {
        std::cerr << "vornd: the socket server did not start (code " << rc << ")\n";
        status = 1;
    } else {
        LogMessage(2, "VORN", "main").stream() << "vornd serving on socket " << opt.socketName;
        int signo;
        do {
            siginfo_t info;
            signo = sigwaitinfo(&stopSignals, &info);
        } while ((signo < 0 && errno == EINTR) || (signo == SIGUSR1 && !g_loopEnded));
        if (signo == SIGUSR1) {
            // The process's descriptors were closed or replaced under it: nothing of its teardown
            // can be trusted to touch only what is its own. Leave at once, so that init or
            // systemd starts a fresh daemon.
            LogMessage(4, "VORN", "main").stream()
                << "the socket loop ended (code " << cmdio->GetLoopResult()
                << "): vornd leaves with status 1 so that it is restarted";
            flushLog();
            _exit(1);
        }
        LogMessage(2, "VORN", "main").stream() << "vornd stopping on " << SignalName(signo);
    }

    cmdio->Stop();   // no command comes in any more
    delete wrapper;  // releases the service manager and every service
    cmdio.reset();
    cfg.reset();
    LogMessage(2, "VORN", "main").stream() << "vornd stopped";
    flushLog();
    _exit(status);
}
