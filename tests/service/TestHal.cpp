// A HAL for the engine's tests: functions that echo, fail, block until released, throw.
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {
std::mutex g_lock;  // guards everything below
std::condition_variable g_changed;
bool g_released = false;
int g_blocked = 0;
int g_calls = 0;
std::string g_lastInput;
pthread_t g_lastCaller{};

void Record(const std::vector<char>* in) {
    std::lock_guard<std::mutex> lock(g_lock);
    ++g_calls;
    g_lastInput.assign(in->begin(), in->end());
    g_lastCaller = pthread_self();
}

int ParseInt(const std::vector<char>* in) {
    return std::atoi(std::string(in->begin(), in->end()).c_str());
}
}  // namespace

extern "C" {

// Test-side controls.
void test_hal_reset() {
    std::lock_guard<std::mutex> lock(g_lock);
    g_released = false;
    g_calls = 0;
    g_lastInput.clear();
}
void test_hal_release() {
    std::lock_guard<std::mutex> lock(g_lock);
    g_released = true;
    g_changed.notify_all();
}
int test_hal_blocked() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_blocked;
}
int test_hal_calls() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_calls;
}
pthread_t test_hal_last_caller() {
    std::lock_guard<std::mutex> lock(g_lock);
    return g_lastCaller;
}
int test_hal_last_input(char* out, int size) {
    std::lock_guard<std::mutex> lock(g_lock);
    int n = static_cast<int>(g_lastInput.size());
    if (n > size) n = size;
    std::memcpy(out, g_lastInput.data(), static_cast<size_t>(n));
    return n;
}

// Command functions.
int echo_cmd(std::vector<char>* in, std::vector<char>* out) {
    Record(in);
    out->assign(in->begin(), in->end());
    return 0;
}
// Returns the number given as input, with no bytes.
int code_cmd(std::vector<char>* in, std::vector<char>* /*out*/) {
    Record(in);
    return ParseInt(in);
}
// A failure code together with bytes.
int fail_with_bytes_cmd(std::vector<char>* in, std::vector<char>* out) {
    Record(in);
    static const char text[] = "partial";
    out->assign(text, text + 7);
    return 5;
}
// Blocks until the test releases it, then answers "late".
int block_cmd(std::vector<char>* in, std::vector<char>* out) {
    Record(in);
    std::unique_lock<std::mutex> lock(g_lock);
    ++g_blocked;
    g_changed.wait(lock, [] { return g_released; });
    --g_blocked;
    static const char text[] = "late";
    out->assign(text, text + 4);
    return 0;
}
// As many bytes as the input asks for.
int big_cmd(std::vector<char>* in, std::vector<char>* out) {
    Record(in);
    out->assign(static_cast<size_t>(ParseInt(in)), 'B');
    return 0;
}
// Sleeps for as many milliseconds as the input's leading number, then echoes the input.
int sleep_cmd(std::vector<char>* in, std::vector<char>* out) {
    Record(in);
    std::this_thread::sleep_for(std::chrono::milliseconds(ParseInt(in)));
    out->assign(in->begin(), in->end());
    return 0;
}
int throw_cmd(std::vector<char>* in, std::vector<char>* /*out*/) {
    Record(in);
    throw std::runtime_error("broken device");
}
// As careless vendor code does before it starts a helper: closes descriptors it does not own.
int close_fds_cmd(std::vector<char>* in, std::vector<char>* /*out*/) {
    Record(in);
    // Every number from 3 up: what the daemon inherited from whoever started it shifts its own
    // descriptors to higher numbers than a fixed range would reach.
    for (int fd = 3; fd < 1024; ++fd) close(fd);
    return 0;
}

void* vorn_hal_malloc(int size) { return std::malloc(static_cast<size_t>(size)); }
int vorn_hal_free(void* block) {
    std::free(block);
    return 0;
}
}
