// vorn_halhost: the HAL host. A service of vornd starts one with isolation on, to load its HAL
// library and call its functions in a process of its own:
//
//   vorn_halhost LIBRARY SERVICE_NAME      (the channel on descriptor 3)
//
// It serves one request at a time, in the order they come, until the channel ends; the frames
// are those of service/HalChannel.h. It links nothing of the daemon: a HAL that crashes, exits,
// hangs or spins here costs the daemon one process, which the daemon kills or replaces.
#include <dirent.h>
#include <dlfcn.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
#include <vector>

#include "service/HalChannel.h"

using namespace halchannel;

namespace {

// Exit statuses the daemon reports when the host leaves by itself.
constexpr int kChannelLost = 3;  // the channel ended or was taken over by the HAL
constexpr int kBadRequest = 4;   // a frame that breaks the format
constexpr int kUsage = 5;

// Anything inherited above the channel that is not close-on-exec is not ours to keep.
void CloseStrayDescriptors() {
    std::vector<int> stray;
    if (DIR* dir = opendir("/proc/self/fd")) {
        const int own = dirfd(dir);
        while (dirent* e = readdir(dir)) {
            const int fd = std::atoi(e->d_name);
            if (fd > kChannelFd && fd != own) stray.push_back(fd);
        }
        closedir(dir);
    }
    for (int fd : stray) close(fd);
}

bool SendReply(uint32_t kind, int32_t result, const char* data, size_t length) {
    if (length > kMaxOutput) length = kMaxOutput;  // more would be cut by the reply record
    char header[kHeader];
    PutU32(header, kind);
    PutU32(header + 4, static_cast<uint32_t>(result));
    PutU32(header + 8, static_cast<uint32_t>(length));
    iovec parts[2] = {{header, kHeader}, {const_cast<char*>(data), length}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    ssize_t sent;
    do {
        sent = sendmsg(kChannelFd, &message, MSG_NOSIGNAL);
    } while (sent < 0 && errno == EINTR);
    return sent == static_cast<ssize_t>(kHeader + length);
}

// The channel as we were given it: a HAL that closes descriptors may have closed it, and an
// open() may then have taken its number.
struct ChannelId {
    dev_t dev = 0;
    ino_t ino = 0;
    bool Same() const {
        struct stat st;
        return fstat(kChannelFd, &st) == 0 && st.st_dev == dev && st.st_ino == ino;
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) return kUsage;
    ChannelId channel;
    struct stat st;
    if (fstat(kChannelFd, &st) != 0 || !S_ISSOCK(st.st_mode)) return kUsage;
    channel.dev = st.st_dev;
    channel.ino = st.st_ino;
    CloseStrayDescriptors();
    // The daemon's end of the channel closes when the daemon ends, however it ends (SIGKILL
    // included): a host stuck or spinning in a HAL call then leaves too, instead of living on
    // with nobody to answer. The thread only waits; it reads nothing.
    std::thread([] {
        pollfd end{kChannelFd, POLLRDHUP, 0};
        for (;;) {
            const int rc = poll(&end, 1, -1);
            if (rc < 0 && errno == EINTR) continue;
            if (rc < 0 || (end.revents & (POLLRDHUP | POLLHUP | POLLERR | POLLNVAL)))
                _exit(kChannelLost);
        }
    }).detach();

    void* library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (library) {
        if (!SendReply(kHello, 0, nullptr, 0)) return kChannelLost;
    } else {
        const char* why = dlerror();
        const std::string text = why ? why : "unknown";
        if (!SendReply(kHello, 1, text.data(), std::min<size_t>(text.size(), 512)))
            return kChannelLost;
    }

    std::vector<char> request(kMaxRequest + 1);
    std::vector<char> in, out;
    for (;;) {
        ssize_t n;
        do {
            n = recv(kChannelFd, request.data(), request.size(), MSG_TRUNC);
        } while (n < 0 && errno == EINTR);
        if (n == 0) return 0;  // the daemon closed the channel: we are done
        if (n < 0) return kChannelLost;
        if (n < static_cast<ssize_t>(kHeader) || static_cast<size_t>(n) > kMaxRequest)
            return kBadRequest;
        const uint32_t kind = GetU32(request.data());
        const uint32_t nameLength = GetU32(request.data() + 4);
        const uint32_t inLength = GetU32(request.data() + 8);
        if (nameLength == 0 || nameLength > kMaxName || inLength > kMaxInput ||
            kHeader + nameLength + inLength != static_cast<uint32_t>(n))
            return kBadRequest;
        const std::string name(request.data() + kHeader, nameLength);
        void* address = library ? dlsym(library, name.c_str()) : nullptr;
        bool sent;
        if (kind == kLookup) {
            sent = SendReply(kLookup, address ? 1 : 0, nullptr, 0);
        } else if (kind == kCall) {
            if (!address) {
                sent = SendReply(kMissing, 1001, nullptr, 0);
            } else {
                const char* input = request.data() + kHeader + nameLength;
                in.assign(input, input + inLength);
                out.clear();
                auto function =
                    reinterpret_cast<int (*)(std::vector<char>*, std::vector<char>*)>(address);
                int result = 0;
                std::string thrown;
                try {
                    result = function(&in, &out);
                } catch (const std::exception& e) {
                    thrown = e.what();
                } catch (...) {
                    thrown = "(not a std::exception)";
                }
                if (!channel.Same()) return kChannelLost;
                if (!thrown.empty())
                    sent = SendReply(kThrew, 1001, thrown.data(),
                                     std::min<size_t>(thrown.size(), 512));
                else
                    sent = SendReply(kCall, result, out.data(), out.size());
                // A HAL that kept a huge output would keep its memory for good.
                if (out.capacity() > kMaxOutput) std::vector<char>().swap(out);
            }
        } else {
            return kBadRequest;
        }
        if (!sent) return kChannelLost;
    }
}
