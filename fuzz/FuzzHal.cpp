// The HAL behind fuzz_transmission: every command echoes its input, so no request can hang.
#include <cstdlib>
#include <string>
#include <vector>

extern "C" {

int echo_cmd(std::vector<char>* in, std::vector<char>* out) {
    out->assign(in->begin(), in->end());
    return 0;
}

// Returns the number it is given, with no bytes: exercises the error-text replies.
int code_cmd(std::vector<char>* in, std::vector<char>* /*out*/) {
    return std::atoi(std::string(in->begin(), in->end()).c_str());
}

void* vorn_hal_malloc(int size) { return std::malloc(static_cast<size_t>(size)); }

int vorn_hal_free(void* block) {
    std::free(block);
    return 0;
}
}
