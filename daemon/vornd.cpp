// vornd: the host daemon. It builds the library's objects in the order the library expects,
// serves the socket on the library's own threads, and waits for a stop signal.
//
//   1. log level; stop signals blocked before any library thread exists (threads inherit it)
//   2. the command I/O service (opens the socket at once)
//   3. the configuration manager
//   4. the context wrapper (reads "/vendor/etc/vorn.json"), then --config PATH on top of it
//   5. the misc, sensor and modem services, each registered with the wrapper
//   6. the wrapper's Start: the socket loop thread begins to serve
//
// Shutdown (SIGTERM, SIGINT, SIGHUP): the socket stops delivering commands, the wrapper is
// deleted (which releases the service manager and every service, ending their threads), and
// the process leaves with _exit(0). The socket loop thread is detached and ends only when a
// signal interrupts its select; since every stop signal is blocked in it, it is still running
// at that point, so the command I/O service is deliberately never deleted and static
// destructors (the vendor-command table among them) are deliberately not run.

#include <errno.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "vorn_core.h"

namespace {

struct Options {
    std::string socketName = "vorn";
    std::string configPath;
    int logLevel = 3;          // warnings and errors: the per-command trace stays off the hot path
    int queueSpinMicros = -1;  // -1: the library's default
    bool printConfig = false;
};

const char kBuiltInConfig[] = "/vendor/etc/vorn.json";

void Usage(std::ostream& out) {
    out << "Usage: vornd [--socket NAME] [--config PATH] [--log-level 1-4] [--queue-spin-us N]\n"
           "             [--print-config]\n"
           "Serves device commands on the abstract local socket NAME.\n"
           "\n"
           "  --socket NAME     abstract socket name (default \"vorn\")\n"
           "  --config PATH     JSON configuration applied over "
        << kBuiltInConfig
        << "\n"
           "  --log-level N     1 trace, 2 milestones, 3 warnings (default), 4 errors\n"
           "  --queue-spin-us N how long a service thread that runs out of work keeps looking\n"
           "                    for more before it sleeps, 0-1000 microseconds (default 50)\n"
           "  --print-config    print the merged configuration and exit\n"
           "  --help            this text\n"
           "\n"
           "SIGTERM or SIGINT stops the daemon (exit status 0).\n";
}

// 0 to go on, otherwise the exit status (help leaves with 0 through `done`).
int ParseOptions(int argc, char** argv, Options& opt, bool& done) {
    done = false;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--help" || a == "-h") {
            Usage(std::cout);
            done = true;
            return 0;
        }
        if (a == "--print-config") {
            opt.printConfig = true;
            continue;
        }
        if (a == "--socket" || a == "--config" || a == "--log-level" || a == "--queue-spin-us") {
            if (i + 1 >= argc) {
                std::cerr << "vornd: " << a << " needs a value\n";
                return 2;
            }
            const std::string v = argv[++i];
            if (a == "--socket") {
                // Processer keeps the name in a 256-byte array, the abstract address allows 107.
                if (v.empty() || v.size() > 100) {
                    std::cerr << "vornd: the socket name must have 1 to 100 characters\n";
                    return 2;
                }
                opt.socketName = v;
            } else if (a == "--config") {
                opt.configPath = v;
            } else if (a == "--queue-spin-us") {
                char* end = nullptr;
                const long n = std::strtol(v.c_str(), &end, 10);
                if (v.empty() || *end != '\0' || n < 0 || n > 1000) {
                    std::cerr << "vornd: --queue-spin-us takes 0 to 1000, not \"" << v << "\"\n";
                    return 2;
                }
                opt.queueSpinMicros = static_cast<int>(n);
            } else {
                if (v.size() != 1 || v[0] < '1' || v[0] > '4') {
                    std::cerr << "vornd: --log-level takes 1, 2, 3 or 4, not \"" << v << "\"\n";
                    return 2;
                }
                opt.logLevel = v[0] - '0';
            }
            continue;
        }
        std::cerr << "vornd: unknown argument \"" << a << "\" (see --help)\n";
        return 2;
    }
    return 0;
}

// The daemon's command I/O service. It adds two things the daemon needs from the outside:
// whether the listening socket could be opened, and a gate that stops commands from reaching
// the routing layer once shutdown has begun.
class DaemonCmdIO : public CmdIOService {
public:
    explicit DaemonCmdIO(const char* name) : CmdIOService(name) {}

    bool IsListening() const { return m_nServerFd >= 0; }

    int HandleRequest(unsigned char const* data, int length, void* client) override {
        // Held for the whole intake, so Close() returns only after the command being routed
        // has been queued or refused; commands that come later are dropped unanswered.
        std::lock_guard<std::mutex> lock(m_gateLock);
        if (m_bClosed) return 0;
        return CmdIOService::HandleRequest(data, length, client);
    }

    void Close() {
        std::lock_guard<std::mutex> lock(m_gateLock);
        m_bClosed = true;
    }

private:
    std::mutex m_gateLock;  // guards m_bClosed; held while a command is handed to the wrapper
    bool m_bClosed = false;
};

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

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    bool done;
    int rc = ParseOptions(argc, argv, opt, done);
    if (rc != 0 || done) return rc;

    LogMessage::SetMinSeverity(opt.logLevel);
    if (opt.queueSpinMicros >= 0) SetQueueSpinMicros(opt.queueSpinMicros);

    if (opt.printConfig) {
        // The same merge as a running daemon, without the socket: the built-in file, then
        // --config. Nothing else is constructed.
        ConfigManager cfg;
        cfg.ParseJSONDoc(kBuiltInConfig);
        if (!ApplyConfigFile(cfg, opt.configPath)) return 1;
        PrintConfig(cfg);
        return 0;
    }

    // Blocked here, in the only thread so far; every library thread inherits the mask, so the
    // stop signals are taken only by sigwaitinfo below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGHUP);
    if (pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr) != 0) {
        std::cerr << "vornd: cannot block the stop signals\n";
        return 1;
    }

    // Never deleted: its loop thread runs until the process ends (see the top of this file).
    auto* cmdio = new DaemonCmdIO(opt.socketName.c_str());
    if (!cmdio->IsListening()) {
        std::cerr << "vornd: cannot listen on socket \"" << opt.socketName
                  << "\": the name is already in use (is another vornd running?)\n";
        delete cmdio;  // no loop thread was started: nothing else holds it
        return 1;
    }

    std::unique_ptr<ConfigManager> cfg(new ConfigManager());
    ContextWrapper* wrapper = ContextWrapper::Initialize(cmdio, cfg.get());
    if (!ApplyConfigFile(*cfg, opt.configPath)) return 1;

    wrapper->AddAvailableService(MISC_SERVICE, new MiscService(wrapper));
    wrapper->AddAvailableService(SENSOR_SERVICE, new SensorService(wrapper));
    wrapper->AddAvailableService(MODEM_SERVICE, new ModemService(wrapper));
    rc = wrapper->Start();
    if (rc != 0) {
        std::cerr << "vornd: the socket server did not start (code " << rc << ")\n";
        _exit(1);
    }
    LogMessage(2, "VORN", "main").stream() << "vornd serving on socket " << opt.socketName;

    siginfo_t info;
    int signo;
    do {
        signo = sigwaitinfo(&stopSignals, &info);
    } while (signo < 0 && errno == EINTR);
    LogMessage(2, "VORN", "main").stream() << "vornd stopping on " << SignalName(signo);

    // Teardown must not keep a supervisor waiting: if releasing the services ever hangs, leave
    // anyway after 900 ms, still with status 0 since the stop was requested and honoured.
    std::thread([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(900));
        LogMessage(4, "VORN", "main").stream() << "service teardown took too long, leaving";
        _exit(0);
    }).detach();

    cmdio->Close();
    delete wrapper;  // releases the service manager and every service
    cfg.reset();
    LogMessage(2, "VORN", "main").stream() << "vornd stopped";
    _exit(0);
}
