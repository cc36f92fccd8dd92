#include "io/SFIOChannel.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "core/ErrorCode.h"
#include "platform/LogMessage.h"

namespace {
// The pause before another try at a device that is not ready.
const useconds_t kRetryPauseUs = 10 * 1000;
}  // namespace

SFIOChannel::SFIOChannel() : m_nFd(-1) {}

SFIOChannel::~SFIOChannel() {
    if (m_nFd >= 0) close(m_nFd);
}

// A plain open is for files; device nodes are opened non-blocking, synchronous and without
// becoming our controlling terminal.
int SFIOChannel::Open(char const* path, bool plain) {
    if (m_nFd >= 0) return 0;
    if (path == nullptr || path[0] == '\0') return ERR_INVALID_PARAM;
    int flags = plain ? O_RDWR : (O_RDWR | O_NOCTTY | O_NONBLOCK | O_SYNC);
    int fd;
    do {
        fd = open(path, flags | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        int error = errno;
        LogMessage(4, "VORN", "Open").stream() << "open fail,errno:" << error;
        return error;
    }
    m_nFd = fd;
    return 0;
}

int SFIOChannel::Read(char* buffer, int length) {
    if (buffer == nullptr || m_nFd < 0) {
        LogMessage(4, "VORN", "Read").stream() << "buffer is null!!!";
        return -1;
    }
    for (;;) {
        ssize_t n = read(m_nFd, buffer, length > 0 ? static_cast<size_t>(length) : 0);
        if (n >= 0) return static_cast<int>(n);
        if (errno != EAGAIN && errno != EINTR) return -1;
        usleep(kRetryPauseUs);
    }
}

int SFIOChannel::Write(char const* data, int length) {
    if (m_nFd < 0) {
        LogMessage(4, "VORN", "Write").stream() << "Invalid file descriptor !!!";
        return -1;
    }
    if (length <= 0) return 0;
    if (data == nullptr) {
        LogMessage(4, "VORN", "Write").stream() << "buffer is null!!!";
        return -1;
    }
    size_t done = 0;
    const size_t size = static_cast<size_t>(length);
    while (done < size) {
        ssize_t n = write(m_nFd, data + done, size - done);
        if (n >= 0) {
            done += static_cast<size_t>(n);
            continue;
        }
        int error = errno;
        if (error == EINTR) continue;
        if (error == EAGAIN) {
            usleep(kRetryPauseUs);
            continue;
        }
        LogMessage(4, "VORN", "Write").stream()
            << "Write error(" << error << ")(" << strerror(error) << ")";
        return -1;
    }
    return 0;
}

int SFIOChannel::Close() {
    if (m_nFd >= 0) close(m_nFd);
    m_nFd = -1;
    return 0;
}
