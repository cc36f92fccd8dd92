#include "io/CmdIOService.h"

#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <mutex>

#include "core/ErrorCode.h"
#include "io/Formatter.h"
#include "platform/LogMessage.h"
#include "platform/TextUtils.h"

namespace {
// Guards the staging record and the write that follows, so that replies sent at the same moment
// from different threads never mix inside it. One command I/O service per process.
std::mutex g_stagingLock;
// Guards the callback and its context, and is held while the callback runs, so that a host
// that replaces or removes the callback knows no call into the old one is still under way.
std::recursive_mutex g_callbackLock;

const size_t kErrTextSize = 256;
}  // namespace

CmdIOService::CmdIOService(char const* socketName)
    : Processer(socketName),
      m_pStaging(new Staging()),
      m_pReplyTarget(nullptr),
      m_pCallbackContext(nullptr),
      m_pCallback(nullptr) {}

CmdIOService::~CmdIOService() { delete m_pStaging; }

void CmdIOService::CmdIOCallback(CommandCallback callback, void* context) {
    std::lock_guard<std::recursive_mutex> lock(g_callbackLock);
    m_pCallback = callback;
    m_pCallbackContext = context;
}

// 0 whatever Start reported: a server that failed to start has logged why.
int CmdIOService::CmdIOStart() {
    Start();
    return 0;
}

// The bytes go out as received: the parser cuts the command. They are zero-terminated, since
// every receive buffer is zero-filled beyond the data.
int CmdIOService::HandleRequest(unsigned char const* data, int length, void* client) {
    m_pReplyTarget = client;
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

// One send, no retry: MSG_DONTWAIT so that a client that never reads cannot stall the thread
// that answers, MSG_NOSIGNAL so that a vanished one cannot raise SIGPIPE. A slot that went -1,
// or holds a descriptor no longer served, drops the reply.
int CmdIOService::HandleResponse(unsigned char const* data, int length, void* client) {
    if (client == nullptr || length < 0) return 0;
    // The loop closes client descriptors under the same lock: the number read here stays the
    // client's until the send is done.
    pthread_mutex_lock(&m_mutex);
    int fd = *static_cast<std::atomic<int>*>(client);
    int rc = 0;
    if (IsValidFD(fd))
        rc = static_cast<int>(
            send(fd, data, static_cast<size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT));
    pthread_mutex_unlock(&m_mutex);
    return rc;
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
    std::lock_guard<std::mutex> lock(g_stagingLock);
    m_pStaging->length = length;
    if (length != 0) memcpy(m_pStaging->data, data, length);
    HandleResponse(reinterpret_cast<unsigned char const*>(m_pStaging->data),
                   static_cast<int>(m_pStaging->length), m_pReplyTarget.load());
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
    std::lock_guard<std::mutex> lock(g_stagingLock);
    memset(m_pStaging, 0, sizeof *m_pStaging);
    m_pStaging->length = static_cast<uint32_t>(outputLength);
    if (outputLength > 0) memcpy(m_pStaging->data, output, static_cast<size_t>(outputLength));
    HandleResponse(reinterpret_cast<unsigned char const*>(m_pStaging->data),
                   static_cast<int>(m_pStaging->length), m_pReplyTarget.load());
}
