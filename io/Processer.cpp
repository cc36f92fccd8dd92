#include "io/Processer.h"

#include <cutils/sockets.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "core/ErrorCode.h"
#include "io/FrontEndState.h"
#include "io/LoopIntake.h"
#include "platform/LogMessage.h"
#include "platform/LookAhead.h"
#include "service/MessageQueue.h"

namespace {
const size_t kNameSize = 256;

// The listening descriptor is written by the loop thread (when it reopens the socket) and read
// by the threads that answer; the field is a plain int, so both sides go through these.
int LoadFd(const int& fd) { return __atomic_load_n(&fd, __ATOMIC_ACQUIRE); }
void StoreFd(int& fd, int value) { __atomic_store_n(&fd, value, __ATOMIC_RELEASE); }

// fd_set holds descriptors below FD_SETSIZE only.
bool FitsFdSet(int fd) { return fd >= 0 && fd < FD_SETSIZE; }

ssize_t ReadRetrying(int fd, unsigned char* buffer, size_t length) {
    ssize_t n;
    do {
        n = read(fd, buffer, length);
    } while (n < 0 && errno == EINTR);
    return n;
}

bool IsClientFd(const std::atomic<int> (&slots)[Processer::kMaxClients], int fd) {
    for (const auto& slot : slots)
        if (slot == fd) return true;
    return false;
}

void SetNonBlocking(int fd, bool on) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) return;
    fcntl(fd, F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK));
}

// Every Processer's side state, by address. Never destroyed: detached loop threads may still
// look theirs up while the process exits.
std::mutex g_statesLock;  // guards States()
std::unordered_map<const Processer*, std::shared_ptr<FrontEndState>>& States() {
    static auto* states = new std::unordered_map<const Processer*, std::shared_ptr<FrontEndState>>;
    return *states;
}

// Accept failures that only waiting can cure: the loop backs off instead of retrying at once,
// since the listening socket stays readable for as long as the connection is pending.
bool IsShortOfResources(int error) {
    return error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
}
const int kFirstBackoffMs = 100;
const int kLongestBackoffMs = 1000;
const int64_t kBurstReportMs = 5000;

// One line for the failures of a burst not yet reported.
void ReportAcceptFailures(FrontEndState& state, int64_t now, bool ended) {
    if (state.unreported > 0) {
        LogMessage(4, "VORN", "AcceptConnection").stream()
            << "accept failures since the last report: " << state.unreported << " ("
            << strerror(state.lastError) << ") in " << (now - state.lastReportMs) << " ms; "
            << (ended ? "accepting again" : "still backing off");
    }
    state.unreported = 0;
    state.lastReportMs = now;
}

// The first failure of a burst gets the usual line; later ones are counted, reported every few
// seconds and when the burst ends, and each doubles the pause up to a second.
void NoteAcceptShortage(FrontEndState& state, int error) {
    const int64_t now = FrontEndState::NowMs();
    if (!state.backingOff) {
        LogMessage(4, "VORN", "AcceptConnection").stream() << "Failed to accept new client";
        state.backingOff = true;
        state.burstStartMs = state.lastReportMs = now;
        state.unreported = 0;
        state.backoffMs = kFirstBackoffMs;
    } else {
        ++state.unreported;
        state.backoffMs = std::min(state.backoffMs * 2, kLongestBackoffMs);
    }
    state.lastError = error;
    state.resumeAcceptMs = now + state.backoffMs;
    if (now - state.lastReportMs >= kBurstReportMs) ReportAcceptFailures(state, now, false);
}

void EndAcceptBurst(FrontEndState& state) {
    if (!state.backingOff) return;
    ReportAcceptFailures(state, FrontEndState::NowMs(), true);
    state.backingOff = false;
}

// A connection beyond the slots stays open and unread; the loop closes it once its peer has
// gone. Past the host's limit it is closed at once.
void KeepWaiting(FrontEndState& state, int fd) {
    const int limit = state.waitingLimit;
    if (limit > 0 && state.waiting.size() >= static_cast<size_t>(limit)) {
        LogMessage(4, "VORN", "AcceptConnection").stream()
            << "Too many waiting connections (" << limit << "): fd=" << fd << " closed";
        close(fd);
        return;
    }
    state.waiting.push_back({fd, FrontEndState::NowMs()});
}
}  // namespace

namespace {
// The loop thread's own server and state, set once as the loop starts.
thread_local const Processer* t_loopOwner = nullptr;
thread_local FrontEndState* t_loopState = nullptr;
}  // namespace

FrontEndState::FrontEndState() : controlFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (controlFd < 0)
        LogMessage(4, "VORN", "Processer").stream()
            << "no control descriptor (" << strerror(errno) << "): Stop cannot wake the loop";
}

FrontEndState::~FrontEndState() {
    const int fd = controlFd.exchange(-1);
    if (fd >= 0) close(fd);
}

void FrontEndState::Wake() {
    const int fd = controlFd;
    if (fd < 0) return;
    const uint64_t one = 1;
    ssize_t n;
    do {
        n = write(fd, &one, sizeof one);
    } while (n < 0 && errno == EINTR);
}

void FrontEndState::LoopEnded(int result) {
    if (result == 0) LogMessage(2, "VORN", "Run").stream() << "socket loop stopped";
    loopResult = result;
    if (loopEndCallback) loopEndCallback(result, loopEndContext);
    {
        std::lock_guard<std::mutex> lock(loopLock);
        loopRunning = false;
    }
    loopEnded.notify_all();
}

bool FrontEndState::HandOff() {
    {
        std::lock_guard<std::mutex> lock(loopLock);
        if (!loopRunning || owner == nullptr) return false;  // a loop its host runs by hand
        if (!stopRequested) {
            pthread_t fresh;
            const int rc = pthread_create(&fresh, nullptr, Processer::ThreadProc, owner);
            if (rc != 0) {
                LogMessage(3, "VORN", "Run").stream()
                    << "a command holds the socket loop and no thread can take the loop over ("
                    << strerror(rc) << "); the loop waits for the command";
                return false;
            }
            pthread_detach(loopThread);
            loopThread = fresh;
            if (LogMessage::IsOn(1))
                LogMessage(1, "VORN", "Run").stream()
                    << "a command outlived " << loopBudgetMicros
                    << " us on the loop's thread: a fresh thread serves the socket";
            return true;
        }
        // Being stopped: the loop ends here, and its thread leaves once its command is over.
        pthread_detach(loopThread);
        loopThread = pthread_t{};
    }
    LoopEnded(0);
    return true;
}

FrontEndState* FrontEndState::OfLoop(const Processer* owner) {
    return t_loopOwner == owner ? t_loopState : nullptr;
}

void FrontEndState::SetLoop(const Processer* owner, FrontEndState* state) {
    t_loopOwner = owner;
    t_loopState = state;
}

std::shared_ptr<FrontEndState> FrontEndState::Create(const Processer* owner) {
    auto state = std::make_shared<FrontEndState>();
    std::lock_guard<std::mutex> lock(g_statesLock);
    States()[owner] = state;
    return state;
}

std::shared_ptr<FrontEndState> FrontEndState::Find(const Processer* owner) {
    std::lock_guard<std::mutex> lock(g_statesLock);
    auto it = States().find(owner);
    return it == States().end() ? nullptr : it->second;
}

void FrontEndState::Erase(const Processer* owner) {
    std::lock_guard<std::mutex> lock(g_statesLock);
    States().erase(owner);
}

Processer::Processer(char const* name)
    : m_pSocketName(nullptr),
      m_nLastClientFd(-1),
      m_thread(static_cast<pthread_t>(-1)),
      m_nServerFd(-1),
      m_pRecvBuf(nullptr) {
    FrontEndState::Create(this);
    InitCilent();
    pthread_cond_init(&m_cond, nullptr);
    pthread_mutex_init(&m_mutex, nullptr);
    pthread_attr_init(&m_attr);
    pthread_attr_setdetachstate(&m_attr, PTHREAD_CREATE_DETACHED);
    FD_ZERO(&m_readSet);
    // Without a name there is no name array, and Start refuses with 1001.
    if (name != nullptr) {
        m_pSocketName = new char[kNameSize]();
        size_t length = strlen(name);
        if (length > kNameSize - 1) {
            LogMessage(4, "VORN", "Processer").stream()
                << "socket name of " << length << " bytes cut to " << kNameSize - 1;
            length = kNameSize - 1;
        }
        memcpy(m_pSocketName, name, length);
    }
    m_pRecvBuf = new unsigned char[kRecvChunk]();
    InitServerSock();
}

// The loop is stopped and joined first, so nothing reads the receive buffer freed here. The
// descriptors are closed then, the listening socket's name with them; after a lost listener
// they are left alone, since their numbers may belong to someone else by now.
Processer::~Processer() {
    EndLoop();
    if (const std::shared_ptr<FrontEndState> state = FrontEndState::Find(this)) {
        if (state->loopResult != ERR_INVALID_FD) {
            for (auto& slot : m_nClientFds) {
                const int fd = slot.exchange(-1);
                if (fd != -1) close(fd);
            }
            for (const auto& w : state->waiting) close(w.fd);
            state->waiting.clear();
            const int serverFd = LoadFd(m_nServerFd);
            StoreFd(m_nServerFd, -1);
            if (serverFd >= 0) close(serverFd);
        }
    }
    m_thread = 0;
    pthread_attr_destroy(&m_attr);
    pthread_mutex_destroy(&m_mutex);
    pthread_cond_destroy(&m_cond);
    delete[] m_pRecvBuf;
    delete[] m_pSocketName;
    FrontEndState::Erase(this);
}

void Processer::SetIdleTimeout(int seconds) {
    if (auto state = FrontEndState::Find(this)) state->idleSeconds = std::max(0, seconds);
}

int Processer::GetIdleTimeout() const {
    auto state = FrontEndState::Find(this);
    return state ? state->idleSeconds.load() : 0;
}

void Processer::SetWaitingLimit(int count) {
    if (auto state = FrontEndState::Find(this)) state->waitingLimit = std::max(0, count);
}

int Processer::GetWaitingLimit() const {
    auto state = FrontEndState::Find(this);
    return state ? state->waitingLimit.load() : 0;
}

void Processer::SetPromoteWaiting(bool on) {
    if (auto state = FrontEndState::Find(this)) state->promoteWaiting = on;
}

bool Processer::GetPromoteWaiting() const {
    auto state = FrontEndState::Find(this);
    return state && state->promoteWaiting;
}

void Processer::SetCloseStalledClients(bool on) {
    if (auto state = FrontEndState::Find(this)) state->closeStalled = on;
}

bool Processer::GetCloseStalledClients() const {
    auto state = FrontEndState::Find(this);
    return state && state->closeStalled;
}

void Processer::SetLoopRunsRequests(int budgetMicros) {
    if (auto state = FrontEndState::Find(this))
        state->loopBudgetMicros = std::max(0, std::min(budgetMicros, int{kMaxLoopBudgetMicros}));
}

int Processer::GetLoopRunsRequests() const {
    auto state = FrontEndState::Find(this);
    return state ? state->loopBudgetMicros.load() : 0;
}

void Processer::SetLoopEndCallback(LoopEndCallback callback, void* context) {
    if (auto state = FrontEndState::Find(this)) {
        std::lock_guard<std::mutex> lock(state->loopLock);
        state->loopEndCallback = callback;
        state->loopEndContext = context;
    }
}

int Processer::GetLoopResult() const {
    auto state = FrontEndState::Find(this);
    return state ? state->loopResult.load() : -1;
}

void Processer::NoteListener(int fd) {
    struct stat st {};
    const std::shared_ptr<FrontEndState> state = FrontEndState::Find(this);
    if (state && fstat(fd, &st) == 0) {
        state->listenerDev = st.st_dev;
        state->listenerIno = st.st_ino;
    }
}

bool Processer::ListenerLost(const FrontEndState& state) {
    const int fd = LoadFd(m_nServerFd);
    if (fd < 0) return false;  // not open: the loop opens it again
    struct stat st {};
    if (fstat(fd, &st) != 0) return true;
    return st.st_dev != state.listenerDev || st.st_ino != state.listenerIno;
}

int Processer::InitServerSock() {
    int fd = m_pSocketName ? socket_local_server(m_pSocketName, ANDROID_SOCKET_NAMESPACE_ABSTRACT,
                                                 SOCK_STREAM)
                           : -1;
    if (fd < 0) {
        StoreFd(m_nServerFd, -1);
        LogMessage(4, "VORN", "InitServerSock").stream()
            << "socket_local_server create fail. sockname=" << (m_pSocketName ? m_pSocketName : "");
        return -1;
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
    NoteListener(fd);
    StoreFd(m_nServerFd, fd);
    LogMessage(1, "VORN", "InitServerSock").stream()
        << "Initialize server(" << m_pSocketName << ") socket: serversock=" << fd;
    return 0;
}

void Processer::InitCilent() {
    for (auto& slot : m_nClientFds) slot = -1;
    m_nLastClientFd = -1;
}

int Processer::Start() {
    if (m_pSocketName == nullptr) {
        LogMessage(4, "VORN", "Start").stream() << "no socket server name";
        return ERR_NORMAL;
    }
    if (LoadFd(m_nServerFd) < 0) {
        LogMessage(4, "VORN", "Start").stream() << "server socket fd error";
        return ERR_INVALID_FD;
    }
    const std::shared_ptr<FrontEndState> state = FrontEndState::Find(this);
    if (!state) return pthread_create(&m_thread, &m_attr, ThreadProc, this);
    std::lock_guard<std::mutex> lock(state->loopLock);
    if (state->loopStarted) {
        LogMessage(3, "VORN", "Start").stream() << "the socket loop is already running";
        return 0;
    }
    state->stopRequested = false;
    state->loopResult = -1;
    state->owner = this;
    state->loopRunning = true;
    // Joinable, unlike the attributes kept in m_attr: Stop and the destructor join the loop.
    const int rc = pthread_create(&m_thread, nullptr, ThreadProc, this);
    if (rc == 0) {
        state->loopThread = m_thread;
        state->loopStarted = true;
    } else {
        state->loopRunning = false;
    }
    return rc;
}

void* Processer::ThreadProc(void* self) {
    static_cast<Processer*>(self)->Run();
    return nullptr;
}

// Ends the loop thread through its control descriptor and joins it, so that the object may be
// deleted afterwards. Called on the loop thread itself (from a callback), it asks the loop to
// end after the current round and does not wait. The attributes are made afresh after being
// destroyed, so that a later Start or the destructor never meets destroyed ones.
int Processer::Stop() {
    EndLoop();
    m_thread = 0;
    pthread_attr_destroy(&m_attr);
    pthread_attr_init(&m_attr);
    pthread_attr_setdetachstate(&m_attr, PTHREAD_CREATE_DETACHED);
    return 0;
}

void Processer::EndLoop() {
    const std::shared_ptr<FrontEndState> state = FrontEndState::Find(this);
    if (!state) return;
    std::unique_lock<std::mutex> lock(state->loopLock);
    if (!state->loopStarted) return;
    state->stopRequested = true;
    state->Wake();
    if (pthread_equal(pthread_self(), state->loopThread)) {
        // Asked from the loop's own callback: it ends after this round, and a later Stop or
        // the destructor, on another thread, joins it.
        return;
    } else if (state->controlFd < 0 && state->loopResult < 0) {
        // Nothing can wake a loop without its control descriptor: it is left to run.
        LogMessage(4, "VORN", "Stop").stream()
            << "the socket loop cannot be woken (no control descriptor); it is left running";
        pthread_detach(state->loopThread);
        state->loopRunning = false;
    } else {
        // The loop ends on its thread, or, when a command holds that thread, as the loop is
        // handed on (a service's monitor does that within the loop's budget).
        state->loopEnded.wait(lock, [&] { return !state->loopRunning; });
        if (!pthread_equal(state->loopThread, pthread_t{}))
            pthread_join(state->loopThread, nullptr);
    }
    state->loopThread = pthread_t{};
    state->loopStarted = false;
}

bool Processer::isConnect() {
    for (const auto& slot : m_nClientFds)
        if (slot != -1) return true;
    return false;
}

// Answers from the client slots and the listening descriptor, never from the read set, which
// the loop thread rewrites while other threads reply.
bool Processer::IsValidFD(int fd) {
    return fd >= 0 && (IsClientFd(m_nClientFds, fd) || fd == LoadFd(m_nServerFd));
}

int Processer::GetMaxFd() {
    int maxFd = LoadFd(m_nServerFd);
    for (const auto& slot : m_nClientFds) {
        int fd = slot;
        if (fd != -1 && fd > maxFd) maxFd = fd;
    }
    return maxFd;
}

int Processer::UpdateFdSet(fd_set* set) {
    if (set == nullptr) {
        LogMessage(4, "VORN", "UpdateFdSet").stream() << "Invalid fdset";
        return ERR_INVALID_PARAM;
    }
    FD_ZERO(set);
    int serverFd = LoadFd(m_nServerFd);
    if (FitsFdSet(serverFd)) FD_SET(serverFd, set);
    for (const auto& slot : m_nClientFds) {
        int fd = slot;
        if (fd != -1 && FitsFdSet(fd)) FD_SET(fd, set);
    }
    return 0;
}

// A descriptor that fd_set cannot hold is refused like an invalid one.
int Processer::AddClient(int fd) {
    if (fd < 1 || !FitsFdSet(fd)) {
        LogMessage(4, "VORN", "AddClient").stream() << "Invalid fd:" << fd;
        return ERR_NORMAL;
    }
    for (auto& slot : m_nClientFds) {
        if (slot == -1) {
            slot = fd;
            return 0;
        }
    }
    LogMessage(4, "VORN", "AddClient").stream()
        << "Not allow new connection. Reach the limit numer (" << kMaxClients << ")";
    return ERR_OUT_OF_RANGE;
}

void Processer::RemoveClient(int index) {
    if (index < 0 || index >= kMaxClients) {
        LogMessage(4, "VORN", "RemoveClient").stream() << "Invalid client index:" << index;
        return;
    }
    int fd = m_nClientFds[index];
    if (fd < 1) {
        LogMessage(4, "VORN", "RemoveClient").stream() << "Invalid fd:" << fd;
        return;
    }
    m_nClientFds[index] = -1;
}

// The slot is freed before the descriptor is closed, so a reply can never reach a number that
// has already been handed to someone else.
bool Processer::RemoveSpecialCilent(int fd) {
    const std::shared_ptr<FrontEndState> state = FrontEndState::Find(this);
    for (int i = 0; i < kMaxClients; ++i) {
        int expected = fd;
        pthread_mutex_lock(&m_mutex);
        const bool mine = m_nClientFds[i].compare_exchange_strong(expected, -1);
        if (mine) {
            if (state) ++state->generation[i];
            close(fd);
        }
        pthread_mutex_unlock(&m_mutex);
        if (mine) return true;
    }
    LogMessage(1, "VORN", "RemoveSpecialCilent").stream() << "Can't find client: fd=" << fd;
    return true;
}

// A fifth client is accepted and left open and unread: AddClient refuses it with a positive
// code, and only a negative one closes the descriptor. Deliberate. The loop watches it for
// hang-up only (see WaitRound).
void Processer::AcceptConnection(int serverFd) {
    if (serverFd == -1) {
        LogMessage(4, "VORN", "AcceptConnection").stream() << "Invalid fd";
        return;
    }
    const std::shared_ptr<FrontEndState> state = FrontEndState::Find(this);
    int fd;
    do {
        fd = accept4(serverFd, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        if (state && IsShortOfResources(errno)) {
            NoteAcceptShortage(*state, errno);
            return;
        }
        LogMessage(4, "VORN", "AcceptConnection").stream() << "Failed to accept new client";
        return;
    }
    if (state) EndAcceptBurst(*state);
    LogMessage(1, "VORN", "AcceptConnection").stream()
        << "New client connection is accepted: fd=" << fd;
    const int rc = AddClient(fd);
    if (rc < 0) {
        LogMessage(4, "VORN", "AcceptConnection").stream() << "Add new client fail";
        close(fd);
    } else if (rc > 0 && state) {
        KeepWaiting(*state, fd);
    }
}

void Processer::LetClientGo(int index, int fd, FrontEndState& state) {
    pthread_mutex_lock(&m_mutex);
    RemoveClient(index);
    ++state.generation[index];
    close(fd);
    pthread_mutex_unlock(&m_mutex);
    FD_CLR(fd, &m_readSet);
}

int Processer::WaitRound(FrontEndState& state, int maxFd) {
    int64_t now = FrontEndState::NowMs();
    // A slot that changed hands since the last round: its reply generation moves on, and a new
    // client's idle time starts now.
    for (int i = 0; i < kMaxClients; ++i) {
        const int fd = m_nClientFds[i];
        if (fd == state.seenFds[i]) continue;
        if (state.seenFds[i] != -1) ++state.generation[i];
        if (fd != -1) state.lastActivityMs[i] = now;
        state.seenFds[i] = fd;
    }

    // While accepting backs off, the listening socket (readable as long as a connection is
    // pending) stays out of the wait. Once the pause is over it is probed at once: nothing
    // pending means the burst is over.
    const int serverFd = LoadFd(m_nServerFd);
    const bool pausing = state.backingOff && now < state.resumeAcceptMs;
    int timeout = -1;
    if (state.backingOff) timeout = pausing ? static_cast<int>(state.resumeAcceptMs - now) : 0;
    const int64_t idleMs = int64_t(state.idleSeconds) * 1000;
    auto until = [&](int64_t deadline) {
        const int left = static_cast<int>(std::max<int64_t>(0, deadline - now));
        timeout = timeout < 0 ? left : std::min(timeout, left);
    };

    std::vector<pollfd>& polled = state.polled;
    polled.clear();
    for (int fd = 0; fd <= maxFd && fd < FD_SETSIZE; ++fd) {
        if (!FD_ISSET(fd, &m_readSet) || (pausing && fd == serverFd)) continue;
        polled.push_back({fd, POLLIN, 0});
    }
    const size_t inputs = polled.size();
    for (const auto& w : state.waiting) {
        polled.push_back({w.fd, POLLRDHUP, 0});
        if (idleMs > 0) until(w.sinceMs + idleMs);
    }
    if (idleMs > 0) {
        for (int i = 0; i < kMaxClients; ++i)
            if (m_nClientFds[i] != -1) until(state.lastActivityMs[i] + idleMs);
    }
    // Last: Stop and a stalled reply wake the loop through it.
    const int controlFd = state.controlFd;
    if (controlFd >= 0) polled.push_back({controlFd, POLLIN, 0});

    // After answering a command on its own thread, the loop looks for the next one for the
    // look-ahead window before it sleeps: a client that sends back to back then finds it awake
    // instead of waking it on another processor. While commands come slower than the window,
    // the loop sleeps at once, until one came within it again.
    LookAhead look(state.lookAhead, state.answered && timeout != 0 ? GetQueueSpinMicros() : 0);
    state.answered = false;
    int found = 0;
    look.Look([&] { return (found = poll(polled.data(), polled.size(), 0)) != 0; });
    // An endless wait ends by input, by the control descriptor or by a signal (EINTR).
    if (found <= 0) {
        if (poll(polled.empty() ? nullptr : polled.data(), polled.size(), timeout) < 0) return -1;
        look.Slept();
    }
    if (controlFd >= 0) {
        const short events = polled.back().revents;
        if (events & POLLNVAL) {
            // Closed behind the loop's back: its number is not ours to write or close any more.
            state.controlFd = -1;
            state.controlLost = true;
            LogMessage(4, "VORN", "Run").stream()
                << "control descriptor closed under the loop: fd=" << controlFd;
        } else if (events & POLLIN) {
            uint64_t count;
            while (read(controlFd, &count, sizeof count) < 0 && errno == EINTR) {
            }
        }
    }

    FD_ZERO(&m_readSet);
    int ready = 0;
    state.descriptorGone = false;
    for (const pollfd& p : polled)
        if (p.revents & POLLNVAL) state.descriptorGone = true;
    for (size_t k = 0; k < inputs; ++k) {
        if (polled[k].revents == 0) continue;
        FD_SET(polled[k].fd, &m_readSet);
        ++ready;
    }
    if (state.backingOff && !pausing && FitsFdSet(serverFd) && !FD_ISSET(serverFd, &m_readSet))
        EndAcceptBurst(state);

    now = FrontEndState::NowMs();
    size_t kept = 0;
    for (size_t j = 0; j < state.waiting.size(); ++j) {
        const FrontEndState::Waiting w = state.waiting[j];
        const short events = polled[inputs + j].revents;
        if (events & POLLNVAL) {
            // Closed behind the loop's back: the number may be someone else's now.
            LogMessage(3, "VORN", "Run").stream() << "waiting client no longer open: fd=" << w.fd;
        } else if (events != 0) {
            LogMessage(1, "VORN", "Run").stream() << "waiting client gone: fd=" << w.fd;
            close(w.fd);
        } else if (idleMs > 0 && now - w.sinceMs >= idleMs) {
            LogMessage(3, "VORN", "Run").stream()
                << "idle waiting client closed after " << state.idleSeconds << " s: fd=" << w.fd;
            close(w.fd);
        } else {
            state.waiting[kept++] = w;
        }
    }
    state.waiting.resize(kept);

    if (idleMs > 0) {
        for (int i = 0; i < kMaxClients; ++i) {
            const int fd = m_nClientFds[i];
            // A client with input waiting is not idle: its transmission is read this round.
            if (fd == -1 || (FitsFdSet(fd) && FD_ISSET(fd, &m_readSet))) continue;
            if (now - state.lastActivityMs[i] < idleMs) continue;
            LogMessage(3, "VORN", "Run").stream()
                << "idle client[" << i << "] closed after " << state.idleSeconds << " s";
            LetClientGo(i, fd, state);
        }
    }
    return ready;
}

int Processer::LostListener() {
    const int lost = LoadFd(m_nServerFd);
    StoreFd(m_nServerFd, -1);  // not ours any more: never used or closed again
    LogMessage(4, "VORN", "Run").stream() << "listening socket lost (fd=" << lost
                                          << "): no client can connect any more; the loop ends";
    return ERR_INVALID_FD;
}

void Processer::TendSlots(FrontEndState& state) {
    for (int i = 0; i < kMaxClients; ++i) {
        const uint32_t mark = state.stalled[i].exchange(0);
        const int fd = m_nClientFds[i];
        if (mark == 0 || fd == -1 || state.generation[i] != mark - 1) continue;
        LogMessage(3, "VORN", "Run").stream()
            << "client[" << i << "] closed: it does not read its replies";
        LetClientGo(i, fd, state);
    }
    if (!state.promoteWaiting) return;
    while (!state.waiting.empty() && IsClientFd(m_nClientFds, -1)) {
        const int fd = state.waiting.front().fd;
        state.waiting.erase(state.waiting.begin());
        const int rc = AddClient(fd);
        if (rc < 0) {
            close(fd);
        } else if (rc > 0) {
            state.waiting.insert(state.waiting.begin(), {fd, FrontEndState::NowMs()});
            break;
        } else if (LogMessage::IsOn(1)) {
            LogMessage(1, "VORN", "Run").stream() << "waiting client takes a free slot: fd=" << fd;
        }
    }
}

void Processer::Run() {
    // The loop's own reference, taken once: its calls on this thread need no lookup.
    const std::shared_ptr<FrontEndState> state = FrontEndState::Find(this);
    FrontEndState::SetLoop(this, state.get());
    // False while a transmission spanning whole chunks is read with the descriptor non-blocking.
    bool blocking = true;
    int result = 0;
    for (;;) {
        if (state->stopRequested) break;
        // A descriptor found closed while reading: the listener is compared before the wait,
        // which could otherwise last for good on a number that is no longer the listener.
        if (state->descriptorGone && ListenerLost(*state)) {
            result = LostListener();
            break;
        }
        if (LoadFd(m_nServerFd) == -1 && InitServerSock() != 0) {
            // A second's pause that Stop can cut short.
            pollfd control{state->controlFd, POLLIN, 0};
            poll(&control, control.fd >= 0 ? 1 : 0, 1000);
            continue;
        }
        TendSlots(*state);
        int maxFd = GetMaxFd();
        UpdateFdSet(&m_readSet);
        // Every client's status flags are 0 here: clients are accepted blocking, and a
        // descriptor made non-blocking for a long transmission is restored as soon as it has
        // been read. Setting them again each round would cost a call per command and change
        // nothing.

        const int ready = WaitRound(*state, maxFd);
        if (ready < 0 && errno == EINTR) {
            result = EINTR;
            LogMessage(4, "VORN", "Run").stream() << "got signal";
            break;
        }
        if (state->stopRequested) break;
        // A HAL that closes descriptors it does not own leaves the listener's number to
        // whatever is opened next, and no client could ever connect again. Checked before any
        // accept, when the wait found any descriptor closed, and otherwise on a wake-up at most
        // every 100 ms. The loop ends then, and says so; a daemon leaves, so that its supervisor
        // restarts it. Without its control descriptor the loop could not be stopped: the same.
        const int listening = LoadFd(m_nServerFd);
        const int64_t now = FrontEndState::NowMs();
        bool listenerLost = false;
        if ((FitsFdSet(listening) && FD_ISSET(listening, &m_readSet)) || state->descriptorGone ||
            now - state->listenerCheckedMs >= 100) {
            state->listenerCheckedMs = now;
            listenerLost = ListenerLost(*state);
        }
        if (listenerLost || state->controlLost) {
            result = LostListener();
            break;
        }
        if (ready < 1) continue;
        int serverFd = LoadFd(m_nServerFd);
        if (FitsFdSet(serverFd) && FD_ISSET(serverFd, &m_readSet)) {
            AcceptConnection(serverFd);
            continue;
        }

        for (int i = 0; i < kMaxClients; ++i) {
            int fd = m_nClientFds[i];
            if (fd == -1 || !FitsFdSet(fd) || !FD_ISSET(fd, &m_readSet)) continue;

            // Chunk 0 is the receive buffer; the others exist only for long transmissions.
            std::vector<std::unique_ptr<unsigned char[]>> extra;
            size_t total = 0;
            bool gone = false;
            for (int k = 0;;) {
                if (k == 1 && blocking) {
                    SetNonBlocking(fd, true);
                    blocking = false;
                }
                unsigned char* chunk = m_pRecvBuf;
                if (k == 0) {
                    memset(m_pRecvBuf, 0, kRecvChunk);
                } else {
                    extra.emplace_back(new unsigned char[kRecvChunk]());
                    chunk = extra.back().get();
                }
                ssize_t n = ReadRetrying(fd, chunk, kRecvChunk);
                if (n > 0) {
                    total += static_cast<size_t>(n);
                    DUMPLOG("VORN", "CmdProcessor", chunk, n);
                    if (n < kRecvChunk) break;
                    // At most 8 chunks; the rest stays in the socket and arrives as the next
                    // transmission.
                    if (++k == kMaxChunks) break;
                    continue;
                }
                if (n < 0 && errno == EAGAIN) {
                    LogMessage(4, "VORN", "Run").stream() << "No data to read,Receive completed!!!";
                    gone = blocking;
                } else {
                    // A peer that closes in the middle of a long transmission leaves nothing to
                    // deliver: its chunks are released and the client is dropped at once.
                    extra.clear();
                    gone = true;
                    // Closed behind the loop's back: the listener may have gone the same way.
                    if (n < 0 && errno == EBADF) state->descriptorGone = true;
                }
                break;
            }

            if (gone) {
                LogMessage(4, "VORN", "Run").stream() << "disconnect client[" << i << "]...";
                // The slot is freed and the descriptor closed under the reply lock, so no reply
                // is ever written to a number that is being closed or already reused.
                LetClientGo(i, fd, *state);
                blocking = true;
                continue;
            }
            state->lastActivityMs[i] = FrontEndState::NowMs();
            void* client = &m_nClientFds[i];
            LoopIntake intake(state->loopBudgetMicros.load(std::memory_order_relaxed));
            if (total < static_cast<size_t>(kRecvChunk)) {
                if (LogMessage::IsOn(1))
                    LogMessage(1, "VORN", "Run").stream() << "received size =" << total;
                HandleRequest(m_pRecvBuf, static_cast<int>(total), client);
            } else {
                std::unique_ptr<unsigned char[]> block(new unsigned char[total + 1]());
                memcpy(block.get(), m_pRecvBuf, kRecvChunk);
                size_t copied = kRecvChunk;
                for (const auto& part : extra) {
                    size_t size = std::min(total - copied, static_cast<size_t>(kRecvChunk));
                    memcpy(block.get() + copied, part.get(), size);
                    copied += size;
                }
                extra.clear();
                DUMPLOG("VORN", " <<VORN>>", block.get(), total);
                HandleRequest(block.get(), static_cast<int>(total), client);
            }
            m_nLastClientFd = fd;
            if (!blocking) SetNonBlocking(fd, false);
            blocking = true;
            // The command held for this thread runs now that nothing of the round is in use.
            // When it outlived the budget the loop went on in a fresh thread, and this one
            // leaves without touching the object, which may be gone by now.
            const bool ran = intake.Holds();
            if (!intake.RunHeld(state)) return;
            state->answered = state->answered || ran;
        }
    }
    FrontEndState::SetLoop(nullptr, nullptr);
    state->LoopEnded(result);
}
