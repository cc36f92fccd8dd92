#include "io/CmdIOService.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "core/ErrorCode.h"
#include "io/Formatter.h"
#include "io/FrontEndState.h"
#include "io/ReplyRoute.h"
#include "platform/LogMessage.h"
#include "platform/TextUtils.h"

namespace {
// Guards the callback and its context, and is held while the callback runs, so that a host
// that replaces or removes the callback knows no call into the old one is still under way.
std::recursive_mutex g_callbackLock;

const size_t kErrTextSize = 256;
const size_t kQuotedCommand = 64;  // bytes of the command quoted when a reply is dropped

// One line for a reply that cannot be delivered, quoting the first bytes of the command it
// answers (a reply record carries the command after its result and length).
void LogDroppedReply(unsigned char const* data, size_t length, size_t written,
                     const std::string& why) {
    if (length == 0) return;  // an empty reply loses nothing
    const char* text = reinterpret_cast<const char*>(data);
    size_t shown = length;
    uint32_t requestLength = 0;
    if (length >= 8) {
        memcpy(&requestLength, data + 4, sizeof requestLength);
        text += 8;
        shown = std::min<size_t>(requestLength, length - 8);
    }
    LogMessage(3, "VORN", "HandleResponse").stream()
        << "reply to command(" << EscapedText{text, shown, kQuotedCommand} << ") dropped, "
        << written << " of " << length << " bytes written: " << why;
}
// A client's write turn, given back on every way out of the reply; errno is kept for the caller.
struct TurnHolder {
    FrontEndState* state;
    int turn;
    ~TurnHolder() {
        if (state == nullptr) return;
        const int error = errno;
        state->GiveWriteTurn(turn);
        errno = error;
    }
};
}  // namespace

CmdIOService::CmdIOService(char const* socketName)
    : Processer(socketName),
      m_pStaging(new Staging()),
      m_pReplyTarget(nullptr),
      m_pCallbackContext(nullptr),
      m_pCallback(nullptr) {}

// The loop is stopped and joined before anything of this object goes: it calls HandleRequest.
CmdIOService::~CmdIOService() {
    Processer::Stop();
    delete m_pStaging;
}

void CmdIOService::SetReplyToSender(bool on) {
    if (auto state = FrontEndState::Find(this)) state->replyToSender = on;
}

bool CmdIOService::GetReplyToSender() const {
    auto state = FrontEndState::Find(this);
    return state && state->replyToSender;
}

int CmdIOService::SlotIndex(const void* client) const {
    for (int i = 0; i < kMaxClients; ++i)
        if (client == &m_nClientFds[i]) return i;
    return -1;
}

void* CmdIOService::ReplyTarget(const FrontEndState* state) {
    if (state && state->replyToSender) {
        const ClientRef to = ReplyRoute::Current();
        if (to.Known() && to.slot < kMaxClients) return &m_nClientFds[to.slot];
    }
    return m_pReplyTarget.load();
}

void CmdIOService::CmdIOCallback(CommandCallback callback, void* context) {
    std::lock_guard<std::recursive_mutex> lock(g_callbackLock);
    m_pCallback = callback;
    m_pCallbackContext = context;
}

// 0 whatever Start reported: a server that failed to start has logged why. A host that needs
// the result calls Start itself, as vornd does.
int CmdIOService::CmdIOStart() {
    Start();
    return 0;
}

// The bytes go out as received: the parser cuts the command. They are zero-terminated, since
// every receive buffer is zero-filled beyond the data.
// The callback runs inside a reply scope naming the sender (its slot and the slot's generation),
// so that whoever takes the command in can keep it with the request.
int CmdIOService::HandleRequest(unsigned char const* data, int length, void* client) {
    m_pReplyTarget = client;
    ClientRef sender;
    const int index = SlotIndex(client);
    if (index >= 0) {
        FrontEndState* state = FrontEndState::OfLoop(this);
        std::shared_ptr<FrontEndState> found;
        if (!state) state = (found = FrontEndState::Find(this)).get();
        if (state) sender = ClientRef{index, state->generation[index].load()};
    }
    const ReplyRoute::Scope scope(sender);
    char const* command = reinterpret_cast<char const*>(data);
    std::lock_guard<std::recursive_mutex> lock(g_callbackLock);
    if (m_pCallback == nullptr || TextUtils::IsEmpty(command)) return 0;
    return m_pCallback(command, length, m_pCallbackContext);
}

int CmdIOService::InternalBufferedFlush(char const* command, int length) {
    std::lock_guard<std::recursive_mutex> lock(g_callbackLock);
    if (m_pCallback == nullptr || TextUtils::IsEmpty(command)) return ERR_INVALID_PARAM;
    return m_pCallback(command, length, m_pCallbackContext);
}

// A client that reads a little late still gets its reply: when its buffer is full the reply
// waits for room, for a second at most in all (a wait behind an earlier reply to the same
// client included), so that a client that never reads cannot stall the thread that answers,
// the loop thread among them, for longer. Each send is non-blocking (MSG_DONTWAIT) and raises no
// SIGPIPE (MSG_NOSIGNAL), and happens under the reply lock with which the loop lets clients go,
// so the number stays the client's while it is used; the wait for room happens outside the
// lock, and the slot's generation tells afterwards whether the client is still the same. A
// reply sent inside a reply scope (routing by sender) goes only to the client of the scope's
// generation. With closing of stalled clients on, a reply that ran out of time marks its client
// for the loop to close, and later replies to it are dropped at once. A reply that cannot be
// delivered is dropped with one line. Result: the bytes written, or -1 with errno when none
// could be.
int CmdIOService::HandleResponse(unsigned char const* data, int length, void* client) {
    if (client == nullptr || length < 0) return 0;
    // The loop's own thread (answering a command itself) has the state at hand.
    FrontEndState* state = FrontEndState::OfLoop(this);
    std::shared_ptr<FrontEndState> found;
    if (!state) state = (found = FrontEndState::Find(this)).get();
    auto* slot = static_cast<std::atomic<int>*>(client);
    const int index = SlotIndex(client);
    const int waitMs = state ? state->replyWaitMs.load() : 1000;
    const auto deadline = FrontEndState::Clock::now() + std::chrono::milliseconds(waitMs);
    const size_t total = static_cast<size_t>(length);
    size_t done = 0;
    // The generation the reply is meant for: the scope's when it names this slot.
    ClientRef to;
    if (state && state->replyToSender && index >= 0) {
        to = ReplyRoute::Current();
        if (to.slot != index) to = ClientRef();
    }
    const bool closeStalled = state && index >= 0 && state->closeStalled;
    auto stalled = [&](uint32_t generation) {
        return closeStalled && state->stalled[index] == generation + 1;
    };

    const int turn = index >= 0 ? index : FrontEndState::kOtherTurn;
    if (state && !state->TakeWriteTurn(turn, deadline)) {
        LogDroppedReply(data, total, 0, "an earlier reply to the client still waits for room");
        errno = EAGAIN;
        return -1;
    }
    const TurnHolder held{state, turn};

    pthread_mutex_lock(&m_mutex);
    const int fd = *slot;
    const uint32_t generation = (state && index >= 0) ? state->generation[index].load() : 0;
    if (!IsValidFD(fd) || (to.Known() && to.generation != generation)) {
        pthread_mutex_unlock(&m_mutex);
        LogDroppedReply(data, total, 0, "the client is gone");
        return 0;
    }
    if (stalled(generation)) {
        pthread_mutex_unlock(&m_mutex);
        LogDroppedReply(data, total, 0, "the client does not read");
        errno = EAGAIN;
        return -1;
    }
    for (;;) {
        const ssize_t n = send(fd, data + done, total - done, MSG_NOSIGNAL | MSG_DONTWAIT);
        const int error = errno;
        if (n > 0) {
            done += static_cast<size_t>(n);
            if (state && index >= 0) state->lastActivityMs[index] = FrontEndState::NowMs();
        }
        if (done == total) {
            pthread_mutex_unlock(&m_mutex);
            return static_cast<int>(done);
        }
        const bool full = n >= 0 || error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
        const int64_t left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 deadline - FrontEndState::Clock::now())
                                 .count();
        if (!full || left <= 0) {
            // Half a record would leave the client waiting for the rest: its connection is
            // shut, and the loop lets it go when it reads the end.
            if (done > 0) shutdown(fd, SHUT_RDWR);
            const bool closing = full && closeStalled;
            if (closing) state->stalled[index] = generation + 1;
            pthread_mutex_unlock(&m_mutex);
            if (closing) state->Wake();
            LogDroppedReply(data, total, done,
                            full ? "no room within " + std::to_string(waitMs) + " ms" +
                                       (closing ? "; the client is closed" : "")
                                 : std::string(strerror(error)));
            if (done > 0) return static_cast<int>(done);
            errno = full ? EAGAIN : error;
            return -1;
        }
        pthread_mutex_unlock(&m_mutex);
        pollfd room{fd, POLLOUT, 0};
        poll(&room, 1, static_cast<int>(left));
        pthread_mutex_lock(&m_mutex);
        const bool same = *slot == fd && IsValidFD(fd) &&
                          (!state || index < 0 || state->generation[index] == generation);
        if (!same) {
            pthread_mutex_unlock(&m_mutex);
            LogDroppedReply(data, total, done, "the client is gone or its slot was reused");
            return done > 0 ? static_cast<int>(done) : 0;
        }
    }
}

// A record longer than the staging record is refused, not cut: a cut record would leave the
// client waiting for bytes that never come. The refusal answers 1009.
int CmdIOService::SendResponse(int /*code*/, char const* data, unsigned int length) {
    if (length > kStagingSize) {
        LogMessage(4, "VORN", "SendResponse").stream()
            << "reply of " << length << " bytes exceeds the staging record (" << kStagingSize
            << ")";
        return ERR_OUT_OF_RANGE;
    }
    if (data == nullptr && length != 0) return ERR_INVALID_PARAM;
    // The caller's bytes go out as they are: copying them into the staging record first would
    // only make concurrent replies share it. The record stays allocated, unused, for the layout.
    static const unsigned char kNothing = 0;
    std::shared_ptr<FrontEndState> state = FrontEndState::Find(this);
    HandleResponse(length != 0 ? reinterpret_cast<unsigned char const*>(data) : &kNothing,
                   static_cast<int>(length), ReplyTarget(state.get()));
    return 0;
}

void CmdIOService::ErrorResponse(char const* request, unsigned int requestLength, int code) {
    Formatter formatter;
    unsigned char* output = nullptr;
    int outputLength = 0;
    char text[kErrTextSize] = {0};
    if (code != 0) {
        GetStringByErrCode(code, text);
        formatter.SetResponse(text, static_cast<int>(strnlen(text, kErrTextSize)));
    }
    // The refused command is echoed only as far as the record has room: a client that sent
    // 24 KiB of garbage still gets its error line in a well-formed record.
    const unsigned int room =
        kStagingSize - 12 - static_cast<unsigned int>(strnlen(text, kErrTextSize));
    if (requestLength > room) {
        LogMessage(3, "VORN", "ErrorResponse").stream()
            << "echo of a " << requestLength << "-byte command cut to " << room << " bytes";
        requestLength = room;
    }
    formatter.SetResult(code);
    formatter.SetRequest(const_cast<char*>(request), static_cast<int>(requestLength));
    formatter.GetOutputData(&output, outputLength);
    std::unique_ptr<unsigned char[]> owned(output);

    // Cannot happen after the cut above; kept as the same guard SendResponse has.
    if (static_cast<unsigned int>(outputLength) > kStagingSize) {
        LogMessage(4, "VORN", "ErrorResponse").stream()
            << "reply of " << outputLength << " bytes exceeds the staging record (" << kStagingSize
            << ")";
        return;
    }
    static const unsigned char kNothing = 0;
    std::shared_ptr<FrontEndState> state = FrontEndState::Find(this);
    HandleResponse(outputLength > 0 ? output : &kNothing, outputLength, ReplyTarget(state.get()));
}
