// vorn_bench: the daemon's round trip against a raw socket echo, plus start-up, memory and idle
// figures, all in one run.
//
// Every latency case is measured with the same bytes against a minimal echo server on a raw
// abstract stream socket (a forked child, blocking read and one reply per read), against a
// running vornd (its HAL in host processes, vornd's default) and against the same vornd with
// --hal-isolation=none. The two are measured in alternating blocks, so that both see the same state
// of the machine, and each daemon figure is printed as a ratio to the echo figure.
#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Protocol constants of the daemon's socket front end.
constexpr size_t kMaxTransmission = 24576;  // 8 chunks of 3072 bytes: one transmission at most
constexpr size_t kMaxRecord = 3172;         // a reply record never exceeds this
constexpr size_t kRecordOverhead = 12;      // int32 result, uint32 R, uint32 S

// ---------------------------------------------------------------------------------------------
// Options

struct Options {
    std::string vornd;
    std::vector<std::string> vorndArgs;  // passed on to vornd (not to the baseline)
    std::string baseline;                // an older vornd measured beside it
    std::string config;
    std::string logLevel;
    std::string logFile = "/tmp/vorn_bench.vornd.log";
    std::string attach;  // a daemon started elsewhere (under a profiler, say)
    pid_t attachPid = -1;
    size_t iterations = 20000;
    size_t bigIterations = 0;  // 0: a quarter of iterations
    size_t warmup = 500;
    size_t block = 500;
    size_t startups = 5;
    int idleSeconds = 5;
    int spinUs = 50;  // the look-ahead window of the shaped echoes' spin variants
    bool check = false;
    bool quick = false;
    bool pinned = true;  // the target cases again with every process on a chosen processor
};

void Usage(const char* self) {
    std::printf(
        "usage: %s [options]\n"
        "  --vornd PATH        the daemon to measure (default: the one built with this program)\n"
        "  --vornd-arg ARG     one more argument for vornd (repeatable), e.g. --queue-spin-us\n"
        "  --baseline PATH     an older vornd, measured in the same alternating blocks\n"
        "  --spin-us N         look-ahead of the shaped echoes' spin variants (default 50)\n"
        "  --config PATH       passed to vornd as --config\n"
        "  --log-level N       passed to vornd as --log-level (default: vornd's own, 3)\n"
        "  --log-file PATH     where vornd's stderr goes (default /tmp/vorn_bench.vornd.log)\n"
        "  --iterations N      round trips per latency case (default 20000)\n"
        "  --big-iterations N  round trips of the 24 KiB case (default iterations/4)\n"
        "  --warmup N          untimed round trips before each case (default 500)\n"
        "  --startups N        daemon start-ups timed (default 5)\n"
        "  --idle-seconds N    idle window for the processor time (default 5)\n"
        "  --attach NAME       measure a vornd already serving socket NAME (e.g. under\n"
        "                      valgrind); no start-up figures, /proc figures only with --pid\n"
        "  --pid PID           the process behind --attach\n"
        "  --quick             2000 round trips, 3 start-ups, 2 idle seconds\n"
        "  --no-pinning        skip the cases with the client and the servers on chosen\n"
        "                      processors (the same one, then two different ones)\n"
        "  --check             exit 1 when a target is missed (JXT p50 ratio > 2.5 in\n"
        "                      a pinned placement, or free with --no-pinning,\n"
        "                      RSS >= 8 MiB, idle ticks > 0, \"JXT+GSENSOR=1\" through the HAL\n"
        "                      hosts > 2x the same vornd with --hal-isolation=none)\n",
        self);
}

bool ParseSize(const char* text, size_t& out) {
    char* end = nullptr;
    errno = 0;
    unsigned long long v = std::strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0') return false;
    out = static_cast<size_t>(v);
    return true;
}

bool ParseOptions(int argc, char** argv, Options& opt) {
#ifdef VORND_PATH
    opt.vornd = VORND_PATH;
#endif
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](const char*& out) {
            if (i + 1 >= argc) return false;
            out = argv[++i];
            return true;
        };
        const char* v = nullptr;
        size_t n = 0;
        if (a == "--help" || a == "-h") {
            Usage(argv[0]);
            std::exit(0);
        } else if (a == "--quick") {
            opt.quick = true;
            opt.iterations = 2000;
            opt.warmup = 200;
            opt.startups = 3;
            opt.idleSeconds = 2;
        } else if (a == "--check") {
            opt.check = true;
        } else if (a == "--no-pinning") {
            opt.pinned = false;
        } else if (a == "--vornd" && value(v)) {
            opt.vornd = v;
        } else if (a == "--vornd-arg" && value(v)) {
            opt.vorndArgs.push_back(v);
        } else if (a == "--baseline" && value(v)) {
            opt.baseline = v;
        } else if (a == "--spin-us" && value(v) && ParseSize(v, n) && n <= 1000) {
            opt.spinUs = static_cast<int>(n);
        } else if (a == "--attach" && value(v)) {
            opt.attach = v;
        } else if (a == "--pid" && value(v) && ParseSize(v, n) && n > 0) {
            opt.attachPid = static_cast<pid_t>(n);
        } else if (a == "--config" && value(v)) {
            opt.config = v;
        } else if (a == "--log-level" && value(v)) {
            opt.logLevel = v;
        } else if (a == "--log-file" && value(v)) {
            opt.logFile = v;
        } else if (a == "--iterations" && value(v) && ParseSize(v, n) && n > 0) {
            opt.iterations = n;
        } else if (a == "--big-iterations" && value(v) && ParseSize(v, n) && n > 0) {
            opt.bigIterations = n;
        } else if (a == "--warmup" && value(v) && ParseSize(v, n)) {
            opt.warmup = n;
        } else if (a == "--startups" && value(v) && ParseSize(v, n) && n > 0) {
            opt.startups = n;
        } else if (a == "--idle-seconds" && value(v) && ParseSize(v, n) && n > 0) {
            opt.idleSeconds = static_cast<int>(n);
        } else {
            std::fprintf(stderr, "vorn_bench: bad option %s\n", argv[i]);
            Usage(argv[0]);
            return false;
        }
    }
    if (opt.bigIterations == 0) opt.bigIterations = std::max<size_t>(opt.iterations / 4, 100);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Sockets

std::string SocketName(const char* what) {
    static int serial = 0;
    return "vorn_bench_" + std::string(what) + "_" + std::to_string(getpid()) + "_" +
           std::to_string(serial++);
}

socklen_t AbstractAddress(const std::string& name, sockaddr_un& addr) {
    addr = sockaddr_un{};
    addr.sun_family = AF_UNIX;
    const size_t len = std::min(name.size(), sizeof addr.sun_path - 1);
    std::memcpy(addr.sun_path + 1, name.data(), len);  // sun_path[0] = 0: abstract namespace
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + len);
}

int Listen(const std::string& name) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un addr;
    socklen_t len = AbstractAddress(name, addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd, 8) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// -1 when nobody listens (yet).
int Connect(const std::string& name) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un addr;
    socklen_t len = AbstractAddress(name, addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
        close(fd);
        return -1;
    }
    // A lost reply ends the case after 5 s instead of hanging it; no extra call per read.
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

// ---------------------------------------------------------------------------------------------
// The raw echo server: a forked child, one thread per connection, a blocking read of one
// transmission and one reply record carrying the same bytes, cut to the size a reply record can
// have, as the daemon's are. Nothing else: it is the floor the daemon is measured against.

void EchoConnection(int fd) {
    std::vector<char> buf(kMaxTransmission);
    for (;;) {
        ssize_t n = read(fd, buf.data(), buf.size());
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        uint32_t r = static_cast<uint32_t>(std::min<size_t>(n, kMaxRecord - kRecordOverhead));
        uint32_t head[2] = {0, r};
        uint32_t tail = 0;
        iovec iov[3] = {{head, sizeof head}, {buf.data(), r}, {&tail, sizeof tail}};
        msghdr msg{};
        msg.msg_iov = iov;
        msg.msg_iovlen = 3;
        if (sendmsg(fd, &msg, MSG_NOSIGNAL) < 0) break;
    }
    close(fd);
}

[[noreturn]] void EchoServerMain(int listenFd) {
    for (;;) {
        int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            _exit(1);
        }
        std::thread(EchoConnection, fd).detach();
    }
}

pid_t StartEchoServer(const std::string& name) {
    int fd = Listen(name);
    if (fd < 0) return -1;
    pid_t pid = fork();
    if (pid == 0) EchoServerMain(fd);
    close(fd);  // listening already: the child owns it, connects cannot race its start
    return pid;
}

// ---------------------------------------------------------------------------------------------
// The engine-shaped echo: the same echo, but each transmission travels the way a command does in
// the daemon, and nothing else is done: a select loop reads it and hands it through a locked
// queue (broadcast under the lock) to a request thread, which tells a monitor thread, hands the
// reply through a second queue to a response thread that sends it, and tells the monitor again.
// Its figure is the floor of the engine's shape on this machine: what the daemon costs above it
// is the library's own work. The variants model the ways the threads may wake each other:
//   pipe     the monitor is woken by a pipe byte when a request starts and when it ends
//   idle     the monitor gets a byte only when it sleeps without a limit; otherwise the request
//            thread publishes a sequence number that the monitor checks when its limit ends
//   spin     a thread that finds its queue empty yields and looks again for a few tens of
//            microseconds before it sleeps on the condition

struct ShapeKind {
    const char* label;
    bool idleMonitor;
    bool spin;
};

int g_shapeSpinMicros = 0;  // set before the children are forked

class HandOff {
public:
    void Put(std::string item) {
        pthread_mutex_lock(&m_mutex);
        m_items.push_back(std::move(item));
        pthread_cond_broadcast(&m_cond);
        pthread_mutex_unlock(&m_mutex);
    }
    std::string Take(bool spin) {
        pthread_mutex_lock(&m_mutex);
        if (spin && m_items.empty() && g_shapeSpinMicros > 0) {
            const auto until = Clock::now() + std::chrono::microseconds(g_shapeSpinMicros);
            do {
                pthread_mutex_unlock(&m_mutex);
                sched_yield();
                pthread_mutex_lock(&m_mutex);
            } while (m_items.empty() && Clock::now() < until);
        }
        while (m_items.empty()) pthread_cond_wait(&m_cond, &m_mutex);
        std::string item = std::move(m_items.front());
        m_items.erase(m_items.begin());
        pthread_mutex_unlock(&m_mutex);
        return item;
    }

private:
    pthread_mutex_t m_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards m_items
    pthread_cond_t m_cond = PTHREAD_COND_INITIALIZER;     // an item was put
    std::vector<std::string> m_items;
};

[[noreturn]] void ShapedEchoMain(int listenFd, ShapeKind kind) {
    static HandOff requests, responses;
    static int replyFd = -1;  // one client at a time takes turns: the reply target
    static int pipeFds[2];
    static std::atomic<bool> current{false};     // a request runs (request thread)
    static std::atomic<unsigned> sequence{0};    // bumped per request (request thread)
    static std::atomic<bool> monitorIdle{true};  // the monitor sleeps without limit (monitor)
    static ShapeKind shape;
    shape = kind;
    if (pipe2(pipeFds, O_CLOEXEC) != 0) _exit(1);
    std::thread([] {  // monitor
        unsigned timed = 0;
        for (;;) {
            bool limit = true;
            if (shape.idleMonitor) {
                limit = current.load();
                monitorIdle.store(!limit);
                if (!limit && current.load()) continue;  // a request slipped in: time it
                timed = sequence.load();
            }
            fd_set set;
            FD_ZERO(&set);
            FD_SET(pipeFds[0], &set);
            timeval left{15, 0};
            const int n = select(pipeFds[0] + 1, &set, nullptr, nullptr, limit ? &left : nullptr);
            if (n > 0) {
                char byte;
                if (read(pipeFds[0], &byte, 1) < 0) continue;
            } else if (n == 0 && shape.idleMonitor && sequence.load() == timed && current.load()) {
                // The request timed out: the engine would answer it here.
            }
        }
    })
        .detach();
    std::thread([] {  // request thread
        for (;;) {
            std::string req = requests.Take(shape.spin);
            char byte = 1;
            if (shape.idleMonitor) {
                current.store(true);
                sequence.fetch_add(1);
                if (monitorIdle.load() && write(pipeFds[1], &byte, 1) < 0) _exit(1);
            } else if (write(pipeFds[1], &byte, 1) < 0) {
                _exit(1);
            }
            uint32_t r =
                static_cast<uint32_t>(std::min<size_t>(req.size(), kMaxRecord - kRecordOverhead));
            std::string record(kRecordOverhead + r, '\0');
            std::memcpy(&record[4], &r, 4);
            std::memcpy(&record[8], req.data(), r);
            responses.Put(std::move(record));
            if (shape.idleMonitor)
                current.store(false);
            else if (write(pipeFds[1], &byte, 1) < 0)
                _exit(1);
        }
    })
        .detach();
    std::thread([] {  // response thread
        for (;;) {
            std::string record = responses.Take(shape.spin);
            send(__atomic_load_n(&replyFd, __ATOMIC_ACQUIRE), record.data(), record.size(),
                 MSG_NOSIGNAL | MSG_DONTWAIT);
        }
    })
        .detach();
    std::vector<int> clients;
    std::vector<char> buf(kMaxTransmission);
    for (;;) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(listenFd, &set);
        int maxFd = listenFd;
        for (int c : clients) {
            FD_SET(c, &set);
            maxFd = std::max(maxFd, c);
        }
        if (select(maxFd + 1, &set, nullptr, nullptr, nullptr) < 1) continue;
        if (FD_ISSET(listenFd, &set)) {
            int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) clients.push_back(fd);
            continue;
        }
        for (size_t i = 0; i < clients.size(); ++i) {
            int fd = clients[i];
            if (!FD_ISSET(fd, &set)) continue;
            ssize_t n = read(fd, buf.data(), buf.size());
            if (n <= 0) {
                close(fd);
                clients.erase(clients.begin() + static_cast<long>(i--));
                continue;
            }
            __atomic_store_n(&replyFd, fd, __ATOMIC_RELEASE);
            requests.Put(std::string(buf.data(), static_cast<size_t>(n)));
        }
    }
}

pid_t StartShapedEchoServer(const std::string& name, ShapeKind kind) {
    int fd = Listen(name);
    if (fd < 0) return -1;
    pid_t pid = fork();
    if (pid == 0) ShapedEchoMain(fd, kind);
    close(fd);
    return pid;
}

// ---------------------------------------------------------------------------------------------
// Client side: one send, then the reply record read with as few reads as it arrives in.

struct Reply {
    int32_t result = 0;
    uint32_t requestLength = 0;
    uint32_t responseLength = 0;
    std::string response;
};

class Conn {
public:
    explicit Conn(int fd = -1) : m_fd(fd), m_buf(64 * 1024) {}
    ~Conn() { Close(); }
    Conn(Conn&& o) noexcept : m_fd(o.m_fd), m_buf(std::move(o.m_buf)) { o.m_fd = -1; }
    Conn& operator=(Conn&& o) noexcept {
        if (this != &o) {
            Close();
            m_fd = o.m_fd;
            m_buf = std::move(o.m_buf);
            o.m_fd = -1;
        }
        return *this;
    }
    Conn(const Conn&) = delete;
    Conn& operator=(const Conn&) = delete;

    bool ok() const { return m_fd >= 0; }
    void Close() {
        if (m_fd >= 0) close(m_fd);
        m_fd = -1;
    }

    bool Send(const std::string& bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = send(m_fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // Reads exactly one record. The response text is kept only when keepText is set.
    bool ReadReply(Reply& reply, bool keepText = false) {
        size_t have = 0;
        size_t need = 8;
        bool haveR = false, haveS = false;
        for (;;) {
            while (have < need) {
                ssize_t n = recv(m_fd, m_buf.data() + have, m_buf.size() - have, 0);
                if (n < 0 && errno == EINTR) continue;
                if (n <= 0) return false;
                have += static_cast<size_t>(n);
            }
            if (!haveR) {
                std::memcpy(&reply.result, m_buf.data(), 4);
                std::memcpy(&reply.requestLength, m_buf.data() + 4, 4);
                haveR = true;
                need = 8 + reply.requestLength + 4;
            } else if (!haveS) {
                std::memcpy(&reply.responseLength, m_buf.data() + 8 + reply.requestLength, 4);
                haveS = true;
                need += reply.responseLength;
            } else {
                break;
            }
            if (need > m_buf.size()) return false;  // no record is this long
        }
        if (have != need) return false;  // bytes beyond one record: the stream is out of step
        if (keepText)
            reply.response.assign(m_buf.data() + 12 + reply.requestLength, reply.responseLength);
        return true;
    }

    bool RoundTrip(const std::string& bytes, Reply& reply) {
        return Send(bytes) && ReadReply(reply);
    }

private:
    int m_fd;
    std::vector<char> m_buf;
};

// ---------------------------------------------------------------------------------------------
// Figures

struct Latency {
    double p50 = 0, p99 = 0;
    size_t n = 0;
    bool ok = false;
};

Latency Summarise(std::vector<double>& us) {
    Latency l;
    l.n = us.size();
    if (us.empty()) return l;
    std::sort(us.begin(), us.end());
    auto at = [&](double q) {
        size_t i = static_cast<size_t>(q * static_cast<double>(us.size() - 1) + 0.5);
        return us[std::min(i, us.size() - 1)];
    };
    l.p50 = at(0.50);
    l.p99 = at(0.99);
    l.ok = true;
    return l;
}

double Micros(Clock::duration d) { return std::chrono::duration<double, std::micro>(d).count(); }

// Runs `count` timed round trips of `bytes` on `conn`, appending each in microseconds.
// Every reply must echo as many command bytes as the first one did: a transmission split in two,
// or a reply left over, shows there and ends the case instead of skewing it.
bool TimedRounds(Conn& conn, const std::string& bytes, size_t count, std::vector<double>* out,
                 Reply& reply, uint32_t expectedR, int paceUs = 0) {
    for (size_t i = 0; i < count; ++i) {
        if (paceUs > 0) {
            timespec ts{0, paceUs * 1000L};
            nanosleep(&ts, nullptr);
        }
        auto t0 = Clock::now();
        if (!conn.RoundTrip(bytes, reply)) return false;
        auto t1 = Clock::now();
        if (reply.requestLength != expectedR) return false;
        if (out) out->push_back(Micros(t1 - t0));
    }
    return true;
}

// One untimed round trip that sets what the others must look like, then the warm-up.
bool WarmUp(Conn& conn, const std::string& bytes, size_t count, Reply& reply, uint32_t& r) {
    if (!conn.RoundTrip(bytes, reply)) return false;
    r = reply.requestLength;
    return TimedRounds(conn, bytes, count, nullptr, reply, r);
}

long long CpuNanos(pid_t pid);

// One server under test: its connection, the process behind it (for processor time), and what
// one case collected from it.
struct Server {
    std::string label;
    std::string socket;
    Conn conn;
    pid_t pid = -1;
    uint32_t expectedR = 0;
    std::vector<double> us;
    long long cpuNs = 0;
    size_t commands = 0;
};

struct Figure {
    Latency lat;
    double cpuUsPerCmd = -1;  // utime+stime of the server per command, in microseconds
};

struct CaseResult {
    std::string name;
    std::vector<Figure> figures;  // in the order of the servers
    int32_t result = 0;
    uint32_t replyBytes = 0;
    std::string error;
};

// All servers in alternating blocks over one connection each, so that each sees the same state
// of the machine. The first server is the raw echo that the others are compared with.
// `paceUs`, when set, leaves that much time between one reply and the next command.
CaseResult MeasureCase(const std::string& name, const std::string& bytes,
                       std::vector<Server>& servers, size_t iterations, int paceUs,
                       const Options& opt) {
    CaseResult c;
    c.name = name;
    Reply reply;
    for (Server& sv : servers) {
        if (!WarmUp(sv.conn, bytes, opt.warmup, reply, sv.expectedR)) {
            c.error = sv.label + ": no reply during warm-up";
            return c;
        }
        sv.us.clear();
        sv.us.reserve(iterations);
        sv.cpuNs = 0;
        sv.commands = 0;
    }
    c.result = reply.result;  // the last server's: a daemon's
    c.replyBytes =
        static_cast<uint32_t>(kRecordOverhead + reply.requestLength + reply.responseLength);
    for (size_t done = 0; done < iterations; done += opt.block) {
        size_t n = std::min(opt.block, iterations - done);
        for (Server& sv : servers) {
            const long long before = CpuNanos(sv.pid);
            if (!TimedRounds(sv.conn, bytes, n, &sv.us, reply, sv.expectedR, paceUs)) {
                c.error = sv.label + ": no reply or one out of step";
                return c;
            }
            const long long after = CpuNanos(sv.pid);
            if (before >= 0 && after >= before) {
                sv.cpuNs += after - before;
                sv.commands += n;
            }
        }
    }
    for (Server& sv : servers) {
        Figure f;
        f.lat = Summarise(sv.us);
        if (sv.commands > 0)
            f.cpuUsPerCmd =
                static_cast<double>(sv.cpuNs) / 1000.0 / static_cast<double>(sv.commands);
        c.figures.push_back(f);
    }
    return c;
}

double TakeTurns(std::vector<Conn>& clients, const std::string& bytes, size_t rounds, bool& ok) {
    Reply reply;
    ok = true;
    auto t0 = Clock::now();
    for (size_t i = 0; i < rounds; ++i) {
        if (!clients[i % clients.size()].RoundTrip(bytes, reply)) {
            ok = false;
            return 0;
        }
    }
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    return static_cast<double>(rounds) / s;
}

// ---------------------------------------------------------------------------------------------
// The daemon as a child process

class Daemon {
public:
    Daemon() = default;
    ~Daemon() { Stop(); }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // `path` is the daemon to run; `extra` goes to it after the options below.
    bool Spawn(const Options& opt, const std::string& path, const std::vector<std::string>& extra,
               const std::string& socketName) {
        std::vector<std::string> args = {path, "--socket", socketName};
        if (!opt.config.empty()) args.insert(args.end(), {"--config", opt.config});
        if (!opt.logLevel.empty()) args.insert(args.end(), {"--log-level", opt.logLevel});
        args.insert(args.end(), extra.begin(), extra.end());
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(&a[0]);
        argv.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_addopen(&fa, 1, opt.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND,
                                         0644);
        posix_spawn_file_actions_adddup2(&fa, 1, 2);
        int rc = posix_spawn(&m_pid, path.c_str(), &fa, nullptr, argv.data(), environ);
        posix_spawn_file_actions_destroy(&fa);
        if (rc != 0) {
            m_pid = -1;
            return false;
        }
        return true;
    }

    // SIGTERM and the exit status: -1 when it did not end by itself with status 0 within 5 s.
    int Stop() {
        if (m_pid <= 0) return 0;
        kill(m_pid, SIGTERM);
        int status = 0;
        auto deadline = Clock::now() + std::chrono::seconds(5);
        pid_t r = 0;
        while ((r = waitpid(m_pid, &status, WNOHANG)) == 0 && Clock::now() < deadline)
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        if (r == 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, &status, 0);
            m_pid = -1;
            return -1;
        }
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    bool Alive() const {
        if (m_pid <= 0) return false;
        int status = 0;
        return waitpid(m_pid, &status, WNOHANG) == 0;
    }

    pid_t pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
};

// Connects, retrying while the daemon has not opened its socket yet.
Conn ConnectWithin(const std::string& name, const Daemon* d, std::chrono::milliseconds limit) {
    auto deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        int fd = Connect(name);
        if (fd >= 0) return Conn(fd);
        if (d && !d->Alive()) break;
        timespec ts{0, 100 * 1000};  // 100 us: fine enough for a start-up of milliseconds
        nanosleep(&ts, nullptr);
    }
    return Conn();
}

// Spawn -> connect -> "JXT" reply, in milliseconds; negative on failure.
double StartupOnce(const Options& opt, std::string& error) {
    Daemon d;
    const std::string name = SocketName("start");
    auto t0 = Clock::now();
    if (!d.Spawn(opt, opt.vornd, opt.vorndArgs, name)) {
        error = "cannot spawn " + opt.vornd;
        return -1;
    }
    Conn c = ConnectWithin(name, &d, std::chrono::seconds(10));
    Reply reply;
    if (!c.ok() || !c.RoundTrip("JXT", reply)) {
        error = "no reply from a fresh vornd";
        return -1;
    }
    double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
    c.Close();
    int status = d.Stop();
    if (status != 0) {
        error = "vornd exit status " + std::to_string(status) + " after SIGTERM";
        return -1;
    }
    return ms;
}

// ---------------------------------------------------------------------------------------------
// /proc

long StatusKiB(pid_t pid, const char* key) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    const size_t klen = std::strlen(key);
    while (std::getline(in, line)) {
        if (line.compare(0, klen, key) == 0 && line.size() > klen && line[klen] == ':')
            return std::strtol(line.c_str() + klen + 1, nullptr, 10);
    }
    return -1;
}

// utime + stime of the whole process, in clock ticks.
long long CpuTicks(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    size_t close = all.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream rest(all.substr(close + 2));
    std::string field;
    long long utime = -1, stime = -1;
    // After the command come the state (field 3) ... utime (14), stime (15).
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14) utime = std::atoll(field.c_str());
        if (i == 15) stime = std::atoll(field.c_str());
    }
    return (utime < 0 || stime < 0) ? -1 : utime + stime;
}

// Processor time of the whole process in nanoseconds: the sum of its threads' run times from
// schedstat, which is exact where ticks are 10 ms coarse; the ticks when schedstat is missing.
long long CpuNanos(pid_t pid) {
    if (pid <= 0) return -1;
    const std::string dir = "/proc/" + std::to_string(pid) + "/task";
    long long sum = 0;
    bool any = false;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            std::ifstream in(dir + "/" + e->d_name + "/schedstat");
            long long ns = 0;
            if (in >> ns) {
                sum += ns;
                any = true;
            }
        }
        closedir(d);
    }
    if (any) return sum;
    const long long ticks = CpuTicks(pid);
    return ticks < 0 ? -1 : ticks * (1000000000LL / sysconf(_SC_CLK_TCK));
}

// The processes whose parent is `parent`: vornd's HAL hosts.
std::vector<pid_t> ChildrenOf(pid_t parent) {
    std::vector<pid_t> children;
    if (DIR* d = opendir("/proc")) {
        while (dirent* e = readdir(d)) {
            const pid_t pid = std::atoi(e->d_name);
            if (pid <= 0) continue;
            std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
            std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            const size_t close = all.rfind(')');
            if (close == std::string::npos) continue;
            std::istringstream rest(all.substr(close + 2));
            std::string state;
            long ppid = 0;
            if (rest >> state >> ppid && ppid == parent) children.push_back(pid);
        }
        closedir(d);
    }
    return children;
}

// ---------------------------------------------------------------------------------------------
// Placement
//
// On a machine of few processors, where the scheduler puts a server's threads can weigh more
// than the server's own work: waking a thread on the client's processor costs a switch, waking
// one on an idle processor costs an interrupt that brings the processor out of halt (tens of
// microseconds in a virtual machine that does not poll before it halts). The scheduler keeps a
// thread where it last ran while that processor is idle, so a server keeps its first placement
// for a whole case, and two servers of one run can differ by that alone. The pinned cases take
// placement out of the comparison: the client and every server on one processor, then the
// servers on another one.

struct Placement {
    const char* suffix;  // appended to the case's name
    int clientCpu;
    int serverCpu;
};

// The case names' suffixes: free, then the two pinned placements.
const char* const kPlacementSuffixes[] = {"", ", same processor", ", other processors"};

// Every thread of `pid` and of its children (vornd's HAL hosts) on `cpus`; a thread that ends
// meanwhile does not count as a failure.
bool PinProcess(pid_t pid, const cpu_set_t& cpus) {
    if (pid <= 0) return false;
    std::vector<pid_t> all = ChildrenOf(pid);
    all.push_back(pid);
    bool ok = true;
    for (pid_t p : all) {
        const std::string dir = "/proc/" + std::to_string(p) + "/task";
        DIR* d = opendir(dir.c_str());
        if (!d) continue;
        while (dirent* e = readdir(d)) {
            if (e->d_name[0] == '.') continue;
            if (sched_setaffinity(std::atoi(e->d_name), sizeof cpus, &cpus) != 0 && errno != ESRCH)
                ok = false;
        }
        closedir(d);
    }
    return ok;
}

cpu_set_t OneCpu(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return set;
}

std::string ThreadsOf(pid_t pid) {
    long n = StatusKiB(pid, "Threads");
    return n < 0 ? "?" : std::to_string(n);
}

std::string Fixed(double v, int decimals) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.*f", decimals, v);
    return buf;
}

std::string Ratio(double a, double b) { return b > 0 ? Fixed(a / b, 2) + "x" : "-"; }

// ---------------------------------------------------------------------------------------------

struct Report {
    std::vector<std::string> labels;  // the servers, the raw echo first
    std::vector<CaseResult> cases;
    std::vector<std::string> turnLabels;
    std::vector<double> turns;  // commands per second, in the order of turnLabels
    std::string turnsError;
    std::vector<double> startupsMs;
    double startupMedian = -1;
    long rssKiB = -1, hwmKiB = -1;
    long long idleTicks = -1;
    // vornd with its HAL hosts (one process per service), and the isolation's price.
    size_t hosts = 0;
    long rssWithHostsKiB = -1;
    long long idleTicksWithHosts = -1;
    double isolatedGsensorRatio = -1;  // "JXT+GSENSOR=1" p50, HAL hosts to HAL in-process
    int idleSeconds = 0;
    std::string threads = "?";
    std::vector<std::string> errors;
};

std::string CpuText(double us) { return us < 0 ? "-" : Fixed(us, 1); }

void PrintCase(const Report& r, const CaseResult& c) {
    if (!c.error.empty()) {
        std::printf("%-24s FAILED: %s\n", c.name.c_str(), c.error.c_str());
        return;
    }
    std::printf("%s  [result %d, reply %u B, n=%zu]\n", c.name.c_str(), c.result, c.replyBytes,
                c.figures.front().lat.n);
    const Figure& echo = c.figures.front();
    for (size_t i = 0; i < c.figures.size(); ++i) {
        const Figure& f = c.figures[i];
        std::printf("  %-26s p50 %6.1f (%6s) p99 %7.1f (%6s) us, cpu %5s us/cmd\n",
                    r.labels[i].c_str(), f.lat.p50, Ratio(f.lat.p50, echo.lat.p50).c_str(),
                    f.lat.p99, Ratio(f.lat.p99, echo.lat.p99).c_str(),
                    CpuText(f.cpuUsPerCmd).c_str());
    }
    std::fflush(stdout);
}

void PrintTable(const Report& r) {
    std::printf(
        "\n| Case | server | p50 / p99 (us) | p50 / p99 to raw echo | cpu per command (us) |\n");
    std::printf("|---|---|---|---|---|\n");
    for (const CaseResult& c : r.cases) {
        if (!c.error.empty()) {
            std::printf("| %s | failed: %s | | | |\n", c.name.c_str(), c.error.c_str());
            continue;
        }
        const Figure& echo = c.figures.front();
        for (size_t i = 0; i < c.figures.size(); ++i) {
            const Figure& f = c.figures[i];
            std::printf("| %s | %s | %s / %s | %s / %s | %s |\n", i == 0 ? c.name.c_str() : "",
                        r.labels[i].c_str(), Fixed(f.lat.p50, 1).c_str(),
                        Fixed(f.lat.p99, 1).c_str(), Ratio(f.lat.p50, echo.lat.p50).c_str(),
                        Ratio(f.lat.p99, echo.lat.p99).c_str(), CpuText(f.cpuUsPerCmd).c_str());
        }
    }
    if (r.turnsError.empty()) {
        for (size_t i = 0; i < r.turns.size(); ++i)
            std::printf(
                "| %s | %s | %s cmd/s | %s of echo | |\n",
                i == 0 ? "4 clients taking turns, \"JXT\"" : "", r.turnLabels[i].c_str(),
                Fixed(r.turns[i], 0).c_str(),
                r.turns[0] > 0 ? (Fixed(100.0 * r.turns[i] / r.turns[0], 0) + "%").c_str() : "-");
    } else {
        std::printf("| 4 clients taking turns | failed: %s | | | |\n", r.turnsError.c_str());
    }
    std::printf("\n| Daemon figure | Value | Target |\n|---|---|---|\n");
    std::printf("| start-up to first \"JXT\" reply (median of %zu) | %s ms | |\n",
                r.startupsMs.size(), r.startupMedian < 0 ? "-" : Fixed(r.startupMedian, 1).c_str());
    std::printf("| resident memory, defaults (VmRSS / VmHWM) | %s / %s KiB | < 8192 KiB |\n",
                r.rssKiB < 0 ? "-" : std::to_string(r.rssKiB).c_str(),
                r.hwmKiB < 0 ? "-" : std::to_string(r.hwmKiB).c_str());
    std::printf("| processor time over %d idle s (utime+stime) | %s ticks | 0 |\n", r.idleSeconds,
                r.idleTicks < 0 ? "-" : std::to_string(r.idleTicks).c_str());
    std::printf("| threads | %s | |\n", r.threads.c_str());
    std::printf("| vornd with its %zu HAL hosts: resident memory (VmRSS) | %s KiB | |\n", r.hosts,
                r.rssWithHostsKiB < 0 ? "-" : std::to_string(r.rssWithHostsKiB).c_str());
    std::printf("| vornd with its HAL hosts: processor time over %d idle s | %s ticks | 0 |\n",
                r.idleSeconds,
                r.idleTicksWithHosts < 0 ? "-" : std::to_string(r.idleTicksWithHosts).c_str());
    std::printf(
        "| \"JXT+GSENSOR=1\" p50, HAL hosts to HAL in-process | %s | <= 2.00x |\n",
        r.isolatedGsensorRatio < 0 ? "-" : (Fixed(r.isolatedGsensorRatio, 2) + "x").c_str());
}

// The p50 ratio of server `num` to server `den` (indices from the back: 0 is vornd) in case
// `name`: the worse of the two pinned placements when they ran, since left free the two servers
// may have landed in different placements; else the free one; -1 when it did not run.
const CaseResult* FindCase(const Report& r, const std::string& name) {
    for (const CaseResult& c : r.cases)
        if (c.name == name && c.error.empty()) return &c;
    return nullptr;
}

double PlacedRatio(const Report& r, const std::string& name, size_t num, size_t den, bool& pinned) {
    double ratio = -1;
    pinned = false;
    for (const char* suffix : kPlacementSuffixes) {
        const CaseResult* c = FindCase(r, name + suffix);
        if (!c) continue;
        const auto& f = c->figures;
        const double v = f[f.size() - 1 - num].lat.p50 / f[f.size() - 1 - den].lat.p50;
        ratio = *suffix && pinned ? std::max(ratio, v) : v;
        pinned = pinned || *suffix;
    }
    return ratio;
}

// The latency targets by placement: vornd, and vornd with its HAL in-process, as p50 ratios to
// the raw echo of the same case.
void PrintPlacementTargets(const Report& r) {
    struct Target {
        const char* name;
        double limit;
    };
    const Target targets[] = {
        {"\"JXT\"", 2.0}, {"\"JXT+GSENSOR=1\"", 2.3}, {"\"JXT\", one per ms", 2.5}};
    const auto inProcess = std::find(r.labels.begin(), r.labels.end(), "vornd, HAL in-process");
    std::printf("\nby placement, p50 to the raw echo (vornd / with its HAL in-process):\n");
    for (const Target& t : targets) {
        std::string line;
        for (const char* suffix : kPlacementSuffixes) {
            const CaseResult* c = FindCase(r, std::string(t.name) + suffix);
            if (!c) continue;
            const double echo = c->figures.front().lat.p50;
            line += std::string("  ") + (*suffix ? suffix + 2 : "free") + " " +
                    Ratio(c->figures.back().lat.p50, echo);
            if (inProcess != r.labels.end())
                line += " / " +
                        Ratio(c->figures[static_cast<size_t>(inProcess - r.labels.begin())].lat.p50,
                              echo);
        }
        std::printf("  %-22s (<= %.1fx):%s\n", t.name, t.limit, line.c_str());
    }
}

std::string MachineLine() {
    std::ifstream in("/proc/cpuinfo");
    std::string line, model = "unknown CPU";
    while (std::getline(in, line)) {
        if (line.compare(0, 10, "model name") == 0) {
            size_t colon = line.find(':');
            if (colon != std::string::npos) model = line.substr(colon + 2);
            break;
        }
    }
    return "nproc " + std::to_string(std::thread::hardware_concurrency()) + ", " + model;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    if (!ParseOptions(argc, argv, opt)) return 2;
    signal(SIGPIPE, SIG_IGN);
    g_shapeSpinMicros = opt.spinUs;

    // The echo children are forked first, while this process still has a single thread.
    const ShapeKind shapes[] = {
        {"shaped: pipe", false, false},
        {"shaped: idle monitor", true, false},
        {"shaped: spin", false, true},
        {"shaped: idle monitor+spin", true, true},
    };
    std::vector<std::string> echoNames = {SocketName("echo")};
    std::vector<pid_t> echoPids = {StartEchoServer(echoNames[0])};
    for (const ShapeKind& k : shapes) {
        echoNames.push_back(SocketName("shaped"));
        echoPids.push_back(StartShapedEchoServer(echoNames.back(), k));
    }
    auto stopEcho = [&] {
        for (pid_t pid : echoPids) {
            if (pid <= 0) continue;
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    };
    if (std::any_of(echoPids.begin(), echoPids.end(), [](pid_t p) { return p < 0; })) {
        std::fprintf(stderr, "vorn_bench: cannot start the echo servers\n");
        stopEcho();
        return 1;
    }

    std::printf("vorn_bench: %s\n", MachineLine().c_str());
    if (opt.attach.empty())
        std::printf("vornd: %s\n", opt.vornd.empty() ? "(none)" : opt.vornd.c_str());
    else
        std::printf("vornd: attached to socket %s\n", opt.attach.c_str());
    if (!opt.baseline.empty()) std::printf("baseline vornd: %s\n", opt.baseline.c_str());
    std::printf(
        "round trips per case: %zu (24 KiB case %zu), warm-up %zu, blocks of %zu, shaped spin "
        "%d us\n\n",
        opt.iterations, opt.bigIterations, opt.warmup, opt.block, opt.spinUs);
    if (opt.attach.empty() && (opt.vornd.empty() || access(opt.vornd.c_str(), X_OK) != 0)) {
        std::fprintf(stderr,
                     "vorn_bench: no vornd to run (build the vornd target or pass --vornd)\n");
        stopEcho();
        return 1;
    }

    Report report;
    report.idleSeconds = opt.idleSeconds;

    Daemon daemon, baseline, inProcess;
    const bool attached = !opt.attach.empty();
    const std::string daemonName = attached ? opt.attach : SocketName("vornd");
    const std::string baselineName = SocketName("baseline");
    // The same vornd with its HAL inside it: what the HAL hosts cost, in the same run.
    const std::string inProcessName = SocketName("inprocess");
    std::vector<std::string> inProcessArgs = opt.vorndArgs;
    inProcessArgs.push_back("--hal-isolation=none");
    if (!attached && !inProcess.Spawn(opt, opt.vornd, inProcessArgs, inProcessName)) {
        std::fprintf(stderr, "vorn_bench: cannot spawn %s\n", opt.vornd.c_str());
        stopEcho();
        return 1;
    }
    if (!attached && !daemon.Spawn(opt, opt.vornd, opt.vorndArgs, daemonName)) {
        std::fprintf(stderr, "vorn_bench: cannot spawn %s\n", opt.vornd.c_str());
        stopEcho();
        return 1;
    }
    if (!opt.baseline.empty() && !baseline.Spawn(opt, opt.baseline, {}, baselineName)) {
        std::fprintf(stderr, "vorn_bench: cannot spawn %s\n", opt.baseline.c_str());
        stopEcho();
        return 1;
    }
    const pid_t daemonPid = attached ? opt.attachPid : daemon.pid();

    std::vector<Server> servers;
    auto addServer = [&servers](const std::string& label, const std::string& socket, Conn conn,
                                pid_t pid) {
        Server sv;
        sv.label = label;
        sv.socket = socket;
        sv.conn = std::move(conn);
        sv.pid = pid;
        servers.push_back(std::move(sv));
    };
    const char* echoLabels[] = {"raw echo", shapes[0].label, shapes[1].label, shapes[2].label,
                                shapes[3].label};
    for (size_t i = 0; i < echoNames.size(); ++i)
        addServer(echoLabels[i], echoNames[i], Conn(Connect(echoNames[i])), echoPids[i]);
    const auto limit = std::chrono::seconds(10);
    if (!opt.baseline.empty())
        addServer("vornd (baseline)", baselineName, ConnectWithin(baselineName, &baseline, limit),
                  baseline.pid());
    if (!attached)
        addServer("vornd, HAL in-process", inProcessName,
                  ConnectWithin(inProcessName, &inProcess, limit), inProcess.pid());
    addServer("vornd", daemonName, ConnectWithin(daemonName, attached ? nullptr : &daemon, limit),
              daemonPid);
    for (const Server& sv : servers) {
        if (sv.conn.ok()) continue;
        std::fprintf(stderr, "vorn_bench: cannot connect to %s; see %s\n", sv.label.c_str(),
                     opt.logFile.c_str());
        stopEcho();
        return 1;
    }
    for (const Server& sv : servers) report.labels.push_back(sv.label);

    // Latency cases: the same bytes to every server.
    std::string big = "JXT+GSENSOR=";
    big.resize(kMaxTransmission, '7');
    struct Case {
        const char* name;
        std::string bytes;
        size_t iterations;
        int paceUs;
    };
    const Case cases[] = {
        {"\"JXT\"", "JXT", opt.iterations, 0},
        {"\"JXT+GSENSOR=1\"", "JXT+GSENSOR=1", opt.iterations, 0},
        {"24 KiB transmission", big, opt.bigIterations, 0},
        // A slow test station: what a command costs when the threads have gone to sleep.
        {"\"JXT\", one per ms", "JXT", std::max<size_t>(opt.iterations / 10, 200), 1000},
    };
    bool inStep = true;
    for (const Case& c : cases) {
        report.cases.push_back(MeasureCase(c.name, c.bytes, servers, c.iterations, c.paceUs, opt));
        PrintCase(report, report.cases.back());
        inStep = report.cases.back().error.empty();
        if (!inStep) break;  // the stream is out of step
    }

    // The cases with targets again, first with everything on one processor, then with the
    // servers on another processor than the client. Skipped when a server's process is unknown
    // (--attach without --pid) or the bench may use a single processor.
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    sched_getaffinity(0, sizeof allowed, &allowed);
    std::vector<int> cpus;
    for (int i = 0; i < CPU_SETSIZE && cpus.size() < 2; ++i)
        if (CPU_ISSET(i, &allowed)) cpus.push_back(i);
    const bool canPin =
        opt.pinned && cpus.size() == 2 &&
        std::all_of(servers.begin(), servers.end(), [](const Server& sv) { return sv.pid > 0; });
    if (opt.pinned && !canPin)
        std::printf("pinned cases skipped: a single processor, or a server of unknown pid\n");
    if (canPin && inStep) {
        const Placement pinned[] = {{kPlacementSuffixes[1], cpus[0], cpus[0]},
                                    {kPlacementSuffixes[2], cpus[0], cpus[1]}};
        for (const Placement& where : pinned) {
            if (!inStep) break;
            const cpu_set_t client = OneCpu(where.clientCpu), server = OneCpu(where.serverCpu);
            bool ok = sched_setaffinity(0, sizeof client, &client) == 0;
            for (const Server& sv : servers) ok = PinProcess(sv.pid, server) && ok;
            if (!ok) {
                std::printf("pinned cases skipped: cannot set the processor affinity\n");
                break;
            }
            for (size_t i : {size_t{0}, size_t{1}, size_t{3}}) {
                const Case& c = cases[i];
                report.cases.push_back(MeasureCase(std::string(c.name) + where.suffix, c.bytes,
                                                   servers, c.iterations, c.paceUs, opt));
                PrintCase(report, report.cases.back());
                inStep = report.cases.back().error.empty();
                if (!inStep) break;
            }
        }
        sched_setaffinity(0, sizeof allowed, &allowed);
        for (const Server& sv : servers) PinProcess(sv.pid, allowed);
    }

    // Four clients taking turns: each waits for its reply before the next one sends. The raw
    // echo and the daemons (not the shaped echoes: they serve one client at a time).
    {
        std::vector<size_t> which = {0};
        for (size_t i = 1 + std::size(shapes); i < servers.size(); ++i) which.push_back(i);
        std::vector<std::vector<Conn>> groups(which.size());
        bool ok = true;
        for (size_t g = 0; g < which.size(); ++g) {
            const std::string& name = servers[which[g]].socket;
            for (int i = 0; i < 3; ++i) groups[g].emplace_back(Connect(name));
            groups[g].push_back(std::move(servers[which[g]].conn));
            ok = ok && std::all_of(groups[g].begin(), groups[g].end(),
                                   [](const Conn& c) { return c.ok(); });
            report.turnLabels.push_back(servers[which[g]].label);
        }
        report.turns.assign(which.size(), 0);
        for (size_t g = 0; ok && g < groups.size(); ++g) {
            TakeTurns(groups[g], "JXT", opt.warmup, ok);
        }
        // Alternating halves, as for the latency cases.
        for (int half = 0; ok && half < 2; ++half) {
            for (size_t g = 0; ok && g < groups.size(); ++g)
                report.turns[g] += TakeTurns(groups[g], "JXT", opt.iterations / 2, ok) / 2;
        }
        if (ok) {
            for (size_t g = 0; g < groups.size(); ++g)
                std::printf("4 clients taking turns   %-18s %8.0f cmd/s (%.0f%% of echo)\n",
                            report.turnLabels[g].c_str(), report.turns[g],
                            100.0 * report.turns[g] / report.turns[0]);
        } else {
            report.turnsError = "a client got no reply";
            std::printf("4 clients taking turns   FAILED\n");
        }

        // Resident memory after the warm-up, then the idle window with all clients connected.
        if (daemonPid > 0) {
            report.rssKiB = StatusKiB(daemonPid, "VmRSS");
            report.hwmKiB = StatusKiB(daemonPid, "VmHWM");
            report.threads = ThreadsOf(daemonPid);
            long long before = CpuTicks(daemonPid);
            std::this_thread::sleep_for(std::chrono::seconds(opt.idleSeconds));
            long long after = CpuTicks(daemonPid);
            if (before >= 0 && after >= 0) report.idleTicks = after - before;
            std::printf("resident memory          VmRSS %ld KiB, VmHWM %ld KiB, %s threads\n",
                        report.rssKiB, report.hwmKiB, report.threads.c_str());
            std::printf("idle processor time      %lld ticks over %d s\n", report.idleTicks,
                        opt.idleSeconds);
            // Again with its HAL hosts counted in.
            const std::vector<pid_t> hosts = ChildrenOf(daemonPid);
            report.hosts = hosts.size();
            long rss = report.rssKiB;
            long long before2 = CpuTicks(daemonPid);
            std::vector<long long> hostBefore;
            for (pid_t h : hosts) {
                const long kib = StatusKiB(h, "VmRSS");
                rss = (rss < 0 || kib < 0) ? -1 : rss + kib;
                hostBefore.push_back(CpuTicks(h));
            }
            report.rssWithHostsKiB = rss;
            std::this_thread::sleep_for(std::chrono::seconds(opt.idleSeconds));
            long long ticks = CpuTicks(daemonPid) - before2;
            for (size_t i = 0; i < hosts.size(); ++i) ticks += CpuTicks(hosts[i]) - hostBefore[i];
            report.idleTicksWithHosts = ticks;
            std::printf(
                "with %zu HAL hosts        VmRSS %ld KiB together, %lld ticks over %d idle s\n",
                report.hosts, report.rssWithHostsKiB, report.idleTicksWithHosts, opt.idleSeconds);
        }
    }
    servers.clear();
    inProcess.Stop();
    baseline.Stop();
    int status = daemon.Stop();
    if (status != 0) {
        report.errors.push_back("vornd exit status " + std::to_string(status) + " after SIGTERM");
    }

    // Start-up to the first reply, each on a fresh socket name.
    for (size_t i = 0; !attached && i < opt.startups; ++i) {
        std::string error;
        double ms = StartupOnce(opt, error);
        if (ms < 0) {
            report.errors.push_back("start-up: " + error);
            break;
        }
        report.startupsMs.push_back(ms);
    }
    if (!report.startupsMs.empty()) {
        std::vector<double> s = report.startupsMs;
        std::sort(s.begin(), s.end());
        report.startupMedian = s[s.size() / 2];
        std::printf("start-up to first reply  median %.1f ms (of %zu: %.1f .. %.1f)\n",
                    report.startupMedian, s.size(), s.front(), s.back());
    }
    stopEcho();

    // The HAL hosts' price: "JXT+GSENSOR=1" through them against the HAL in vornd (target 2x).
    if (!attached) {
        for (const CaseResult& c : report.cases) {
            if (!c.error.empty() || c.name.compare(0, 15, "\"JXT+GSENSOR=1\"") != 0) continue;
            const double hosts = c.figures.back().lat.p50;
            const double inside = c.figures[c.figures.size() - 2].lat.p50;
            std::printf("HAL hosts: %s p50 %.1f us against %.1f us in-process: %s\n",
                        c.name.c_str(), hosts, inside, Ratio(hosts, inside).c_str());
        }
        bool pinned = false;
        report.isolatedGsensorRatio = PlacedRatio(report, "\"JXT+GSENSOR=1\"", 0, 1, pinned);
        const double r = report.isolatedGsensorRatio;
        std::printf(
            "HAL hosts: p50 ratio%s %s (target <= 2.00x): %s; idle ticks with hosts %lld == 0: "
            "%s\n",
            pinned ? ", pinned" : "", r < 0 ? "-" : Fixed(r, 2).c_str(),
            r >= 0 && r <= 2.0 ? "met" : "MISSED", report.idleTicksWithHosts,
            report.idleTicksWithHosts == 0 ? "met" : "MISSED");
    }
    PrintTable(report);
    PrintPlacementTargets(report);
    std::printf("\nmachine: %s\n", MachineLine().c_str());
    for (const std::string& e : report.errors) std::printf("error: %s\n", e.c_str());

    // Targets: "JXT" p50 within 1.5x of the echo (acceptance 2.5x), RSS < 8 MiB, idle ticks 0.
    bool failed = !report.errors.empty() || !report.turnsError.empty();
    for (const CaseResult& c : report.cases) failed = failed || !c.error.empty();
    const CaseResult* jxt = report.cases.empty() ? nullptr : &report.cases.front();
    bool pinnedRatio = false;
    const double ratio = PlacedRatio(
        report, "\"JXT\"", 0, report.labels.empty() ? 0 : report.labels.size() - 1, pinnedRatio);
    std::printf(
        "\ntargets: \"JXT\" p50 ratio%s %s (target 1.5x, acceptance 2.5x): %s; "
        "RSS %ld KiB < 8192: %s; idle ticks %lld == 0: %s\n",
        pinnedRatio ? ", pinned" : "", ratio < 0 ? "-" : Fixed(ratio, 2).c_str(),
        ratio < 0      ? "n/a"
        : ratio <= 1.5 ? "met"
        : ratio <= 2.5 ? "accepted"
                       : "MISSED",
        report.rssKiB, (report.rssKiB >= 0 && report.rssKiB < 8192) ? "met" : "MISSED",
        report.idleTicks, report.idleTicks == 0 ? "met" : "MISSED");
    if (jxt && jxt->error.empty() && !opt.baseline.empty()) {
        const Figure& now = jxt->figures.back();
        const size_t at = static_cast<size_t>(
            std::find(report.labels.begin(), report.labels.end(), "vornd (baseline)") -
            report.labels.begin());
        const Figure& old = jxt->figures[std::min(at, jxt->figures.size() - 1)];
        std::printf("vornd / baseline: \"JXT\" p50 %s, p99 %s, cpu per command %s\n",
                    Ratio(now.lat.p50, old.lat.p50).c_str(),
                    Ratio(now.lat.p99, old.lat.p99).c_str(),
                    Ratio(now.cpuUsPerCmd, old.cpuUsPerCmd).c_str());
    }
    if (opt.check) {
        failed = failed || ratio < 0 || ratio > 2.5 || report.rssKiB < 0 || report.rssKiB >= 8192 ||
                 report.idleTicks != 0 || report.isolatedGsensorRatio > 2.0 ||
                 report.idleTicksWithHosts > 0;
    }
    return failed ? 1 : 0;
}
