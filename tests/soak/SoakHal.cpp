// The HAL behind the soak test's daemon and the transmission fuzzer: an echo, a function that
// returns the code it is given, and a slow function that outlives its one-second request
// time-out but does come back, so that the request thread the daemon abandons ends by itself.
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

extern "C" {

int echo_cmd(std::vector<char>* in, std::vector<char>* out) {
    out->assign(in->begin(), in->end());
    return 0;
}

int code_cmd(std::vector<char>* in, std::vector<char>* /*out*/) {
    return std::atoi(std::string(in->begin(), in->end()).c_str());
}

int slow_cmd(std::vector<char>* /*in*/, std::vector<char>* out) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    static const char text[] = "late";
    out->assign(text, text + 4);
    return 0;
}

void* vorn_hal_malloc(int size) { return std::malloc(static_cast<size_t>(size)); }

int vorn_hal_free(void* block) {
    std::free(block);
    return 0;
}
}
