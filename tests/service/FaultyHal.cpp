// A HAL with one fault per function, as vendor code written in a hurry has them.
#include <dirent.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#define FAULTY_EXPORT extern "C" __attribute__((visibility("default")))

namespace {
void Put(std::vector<char>* out, const std::string& text) {
    out->insert(out->end(), text.begin(), text.end());
}
}  // namespace

FAULTY_EXPORT int ok_cmd(std::vector<char>* in, std::vector<char>* out) {
    Put(out, "OK:" + std::string(in->begin(), in->end()));
    return 0;
}

FAULTY_EXPORT int crash_cmd(std::vector<char>*, std::vector<char>*) {
    raise(SIGSEGV);
    return 0;
}

FAULTY_EXPORT int abort_cmd(std::vector<char>*, std::vector<char>*) { abort(); }

FAULTY_EXPORT int exit_cmd(std::vector<char>*, std::vector<char>*) { exit(7); }

FAULTY_EXPORT int throw_cmd(std::vector<char>*, std::vector<char>*) {
    throw std::runtime_error("sensor bus gone");
}

FAULTY_EXPORT int hang_cmd(std::vector<char>*, std::vector<char>*) {
    for (;;) pause();
}

FAULTY_EXPORT int spin_cmd(std::vector<char>*, std::vector<char>*) {
    for (volatile unsigned long i = 0;; i = i + 1) {
    }
}

// Closes what it does not own, as a HAL that "cleans up" before starting a tool does.
FAULTY_EXPORT int close_fds_cmd(std::vector<char>*, std::vector<char>* out) {
    for (int fd = 3; fd <= 20; ++fd) close(fd);
    Put(out, "CLOSED");
    return 0;
}

// Leaves a child behind that lives on; answers with its process id.
FAULTY_EXPORT int fork_cmd(std::vector<char>*, std::vector<char>* out) {
    const pid_t child = fork();
    if (child == 0) {
        for (;;) pause();
    }
    Put(out, std::to_string(child));
    return child > 0 ? 0 : 1;
}

// A megabyte to each of stdout and stderr.
FAULTY_EXPORT int flood_cmd(std::vector<char>*, std::vector<char>* out) {
    const std::string block(4096, 'x');
    for (int i = 0; i < 256; ++i) {
        if (write(1, block.data(), block.size()) < 0 || write(2, block.data(), block.size()) < 0)
            break;
    }
    Put(out, "FLOODED");
    return 0;
}

// The open descriptors of the calling process, "fd:target;" each.
FAULTY_EXPORT int fds_cmd(std::vector<char>*, std::vector<char>* out) {
    DIR* dir = opendir("/proc/self/fd");
    if (!dir) return 2;
    const int own = dirfd(dir);
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.' || std::atoi(e->d_name) == own) continue;
        char target[256] = {0};
        const std::string path = std::string("/proc/self/fd/") + e->d_name;
        const ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
        Put(out, std::string(e->d_name) + ":" + (n > 0 ? target : "?") + ";");
    }
    closedir(dir);
    return 0;
}

// Writes onto the host's channel itself: a reply that claims a gigabyte of output.
FAULTY_EXPORT int lie_cmd(std::vector<char>*, std::vector<char>*) {
    const unsigned header[3] = {3, 0, 1u << 30};
    return send(3, header, sizeof header, MSG_NOSIGNAL) < 0 ? 1 : 0;
}
