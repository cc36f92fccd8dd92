// A product's own daemon in miniature, built against the installed library only: it prints the
// misc service's built-in record, then subclasses CmdIOService and SFService, serves one command
// of its own through the library's threads and prints the reply. Everything it touches must be
// exported by libvorn_core.so, including the vtables and type information its subclasses need.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>

#include "vorn_core.h"

namespace {

class HostCmdIO : public CmdIOService {
public:
    explicit HostCmdIO(const char* name) : CmdIOService(name) {}
    int HandleRequest(unsigned char const* data, int length, void* client) override {
        ++m_nRequests;
        return CmdIOService::HandleRequest(data, length, client);
    }
    std::atomic<int> m_nRequests{0};
};

class HostService : public SFService {
public:
    explicit HostService(ContextWrapper* context) : SFService(context, SENSOR_SERVICE) {
        insert(DATA_REQUEST, 5, "JXT+HOST", DoHostRequest, nullptr, nullptr, false);
    }
    ~HostService() override { StopServiceThreads(); }
    static SFRespData* DoHostRequest(SFMessage* /*msg*/, void* /*service*/) {
        static const char kText[] = "HOST:OK";
        return new SFRespData(0, kText, sizeof kText - 1, DATA_RESPONSE);
    }
};

bool ReadExact(int fd, char* out, size_t length) {
    while (length > 0) {
        const ssize_t n = read(fd, out, length);
        if (n <= 0) return false;
        out += n;
        length -= static_cast<size_t>(n);
    }
    return true;
}

// Sends one command to the abstract socket `name`; "<result> <response>" or "" on failure.
std::string RoundTrip(const std::string& name, const std::string& command) {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return "";
    timeval limit{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path + 1, name.data(), name.size());
    const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    std::string out;
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), len) == 0 &&
        write(fd, command.data(), command.size()) == static_cast<ssize_t>(command.size())) {
        int32_t result;
        uint32_t r, s;
        std::string request, response;
        if (ReadExact(fd, reinterpret_cast<char*>(&result), 4) &&
            ReadExact(fd, reinterpret_cast<char*>(&r), 4) && r < 4096 &&
            (request.resize(r), ReadExact(fd, &request[0], r)) &&
            ReadExact(fd, reinterpret_cast<char*>(&s), 4) && s < 4096 &&
            (response.resize(s), ReadExact(fd, &response[0], s)))
            out = std::to_string(result) + " " + response;
    }
    close(fd);
    return out;
}

}  // namespace

int main() {
    LogMessage::SetMinSeverity(3);
    ConfigManager probe;
    CommonConfig* misc = probe.GetConfig(MISC_SERVICE);
    if (!misc) return 1;
    std::cout << misc->ToString() << std::endl;

    // An empty configuration file of our own: a test never reads the device's.
    char config[] = "/tmp/vorn_host_XXXXXX";
    const int cfd = mkstemp(config);
    if (cfd < 0 || write(cfd, "{}", 2) != 2) return 1;
    close(cfd);
    ContextWrapper::SetConfigFilePath(config);

    const std::string name = "vorn_host_" + std::to_string(getpid());
    auto* cmdio = new HostCmdIO(name.c_str());
    auto* cfg = new ConfigManager();
    ContextWrapper* wrapper = ContextWrapper::Initialize(cmdio, cfg);
    SFService* service = new HostService(wrapper);
    wrapper->AddAvailableService(SENSOR_SERVICE, service);
    if (wrapper->Start() != 0) return 1;

    const std::string reply = RoundTrip(name, "JXT+HOST");
    unlink(config);
    std::cout << "JXT+HOST -> " << reply << " (" << cmdio->m_nRequests.load() << " request, "
              << (dynamic_cast<HostService*>(service) ? "typed" : "untyped") << ")" << std::endl;
    delete wrapper;
    // The socket loop thread still runs: leave without deleting cmdio or running destructors.
    _exit(reply == "0 HOST:OK" ? 0 : 1);
}
