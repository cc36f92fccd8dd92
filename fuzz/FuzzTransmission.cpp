// Fuzzes the road of a transmission: the bytes go into CmdIOService::HandleRequest exactly as
// the socket loop hands them over, through the context wrapper and the service manager to the
// misc, sensor and modem services, and every reply is read back from the client's socket.
//
// The services live across inputs, as in the daemon. Their rows are all backed by echo
// functions (the file's rows shadow the built-in "JXT" and "JXT+TIMEOUT"), so no input can
// hang. Inputs are kept short enough that every reply fits the 3172-byte staging record, so the
// check is strict: a transmission with text gets exactly one complete reply record carrying it,
// an empty one gets nothing.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "config/ConfigManager.h"
#include "core/ErrorCode.h"
#include "io/CmdIOService.h"
#include "platform/LogMessage.h"
#include "routing/ContextWrapper.h"
#include "services/MiscService.h"
#include "services/ModemService.h"
#include "services/SensorService.h"

namespace {

// Records of 12 + R + S bytes: an echo doubles the input, so 1580 bytes always fit.
const size_t kMaxInput = 1580;

// Seats a descriptor in a client slot the way the loop does when it accepts a client.
class FuzzIO : public CmdIOService {
public:
    explicit FuzzIO(const char* name) : CmdIOService(name) {}
    void* Seat(int fd) {
        m_nClientFds[0] = fd;
        UpdateFdSet(&m_readSet);
        return &m_nClientFds[0];
    }
};

FuzzIO* g_cmdio = nullptr;
void* g_slot = nullptr;
int g_peer = -1;  // the client's end of the socket pair

void Check(bool condition) {
    if (!condition) __builtin_trap();
}

// Reads what arrives until `want` bytes are there or the deadline passes.
std::string Drain(size_t want, std::chrono::milliseconds limit) {
    std::string got;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char buf[4096];
    while (got.size() < want) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        pollfd p{g_peer, POLLIN, 0};
        // libFuzzer's own timer signal may interrupt the wait: that is no end of the reply.
        const int ready = poll(&p, 1, left > 0 ? static_cast<int>(left) : 0);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) break;
        const ssize_t n = recv(g_peer, buf, sizeof buf, MSG_DONTWAIT);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        got.append(buf, static_cast<size_t>(n));
    }
    return got;
}

uint32_t Word(const std::string& bytes, size_t at) {
    uint32_t v = 0;
    std::memcpy(&v, bytes.data() + at, 4);
    return v;
}

// Reads one whole reply record; traps when none comes or it is malformed.
std::string ReadRecord(const std::string& request) {
    const auto limit = std::chrono::milliseconds(10000);
    std::string record = Drain(8 + request.size() + 4, limit);
    Check(record.size() >= 8 + request.size() + 4);
    Check(Word(record, 4) == request.size());
    Check(record.compare(8, request.size(), request) == 0);
    const size_t s = Word(record, 8 + request.size());
    const size_t total = 12 + request.size() + s;
    Check(total <= CmdIOService::kStagingSize);
    if (record.size() < total) record += Drain(total - record.size(), limit);
    Check(record.size() == total);
    return record;
}

std::string WriteConfig() {
    const char* dir = std::getenv("TMPDIR");
    const std::string path = std::string(dir && *dir ? dir : "/tmp") + "/vorn_fuzz_" +
                             std::to_string(getpid()) + ".json";
    const std::string hal = VORN_FUZZ_HAL_PATH;
    std::ofstream out(path);
    out << "{\"misc\": {\"libpath\": \"" << hal << "\", \"default_timeout\": 5, \"whitelist\": ["
        << "{\"commands\": [\"JXT\", \"JXT+TIMEOUT\", \"JXT+MEMORY\"], \"func\": \"echo_cmd\"},"
        << "{\"command\": \"JXT+CODE\", \"func\": \"code_cmd\"}]},"
        << " \"sensor\": {\"libpath\": \"" << hal << "\", \"default_timeout\": 5, \"whitelist\": ["
        << "{\"commands\": [\"JXT+GSENSOR\", \"JXT+GYRO\", \"JXT+ASENSOR\"], \"func\": "
           "\"echo_cmd\"}]},"
        << " \"modem\": {\"libpath\": \"" << hal << "\", \"default_timeout\": 5, \"whitelist\": ["
        << "{\"commands\": [\"JXT+CPVERSION\", \"JXT+CPSLEEP\"], \"func\": \"echo_cmd\"}]}}\n";
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    LogMessage::SetCaptureHook(
        [](int, const std::string&, const std::string&, const std::string&) {});
    const std::string config = WriteConfig();
    ContextWrapper::SetConfigFilePath(config.c_str());

    const std::string name = "vorn_fuzz_" + std::to_string(getpid());
    g_cmdio = new FuzzIO(name.c_str());
    ConfigManager* cfg = new ConfigManager();
    ContextWrapper* wrapper = ContextWrapper::Initialize(g_cmdio, cfg);
    unlink(config.c_str());
    wrapper->AddAvailableService(1, new MiscService(wrapper));
    wrapper->AddAvailableService(2, new SensorService(wrapper));
    wrapper->AddAvailableService(3, new ModemService(wrapper));

    int pair[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) std::abort();
    g_slot = g_cmdio->Seat(pair[0]);
    g_peer = pair[1];

    // The services are up once each answers through the whole road.
    for (const char* cmd : {"JXT", "JXT+GSENSOR=1", "JXT+CPVERSION"}) {
        const std::string c = cmd;
        Check(g_cmdio->HandleRequest(reinterpret_cast<const unsigned char*>(cmd),
                                     static_cast<int>(c.size()), g_slot) == 0);
        const std::string record = ReadRecord(c);
        Check(Word(record, 0) == 0);
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return -1;
    // The loop hands over zero-terminated blocks.
    std::vector<unsigned char> block(data, data + size);
    block.push_back(0);
    const int rc = g_cmdio->HandleRequest(block.data(), static_cast<int>(size), g_slot);

    if (size == 0 || data[0] == 0) {
        // Nothing to handle: no reply at all.
        Check(Drain(1, std::chrono::milliseconds(0)).empty());
        return 0;
    }
    const std::string request(reinterpret_cast<const char*>(data), size);
    const std::string record = ReadRecord(request);
    const int32_t result = static_cast<int32_t>(Word(record, 0));
    if (rc != 0) {
        // Refused on the spot: the code and its text.
        char text[256] = {0};
        GetStringByErrCode(rc, text);
        Check(result == rc);
        Check(record.compare(12 + size, std::string::npos, text) == 0);
    }
    // Exactly one record: nothing else follows.
    Check(Drain(1, std::chrono::milliseconds(0)).empty());
    return 0;
}
