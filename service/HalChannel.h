#ifndef VORN_SERVICE_HALCHANNEL_H
#define VORN_SERVICE_HALCHANNEL_H

// Not installed. The frames on the channel between a service and its HAL host (vorn_halhost).
// The channel is a SOCK_SEQPACKET socket pair, so one send is one frame and one receive reads
// it whole: a call costs one write and one read each way. Both sides check every length
// against what was received, and every length has a bound, so a peer that sends anything at
// all costs a bounded read and gets a defined answer.
//
//   request (service -> host): u32 kind, u32 name length, u32 input length, name, input
//   reply   (host -> service): u32 kind, i32 result, u32 output length, output
//
// Native byte order: both ends run on the same machine.

#include <cstdint>
#include <cstring>

namespace halchannel {

// The host finds its channel here; it has no other descriptor of the daemon.
constexpr int kChannelFd = 3;

enum Kind : uint32_t {
    kHello = 1,    // host -> service once loaded: result 0 loaded, 1 not (output: the reason)
    kLookup = 2,   // is `name` exported? result 1 yes, 0 no
    kCall = 3,     // call `name` with the input; result and output of the function
    kMissing = 4,  // reply to kCall: `name` is not exported, nothing was called
    kThrew = 5,    // reply to kCall: the function threw (output: what it said)
};

constexpr uint32_t kHeader = 12;
constexpr uint32_t kMaxName = 127;      // the command table's name field holds 127 characters
constexpr uint32_t kMaxInput = 65536;   // a command is at most a few kilobytes
constexpr uint32_t kMaxOutput = 65536;  // a reply record holds 3172 bytes: more is cut anyway
constexpr uint32_t kMaxRequest = kHeader + kMaxName + kMaxInput;
constexpr uint32_t kMaxReply = kHeader + kMaxOutput;

inline void PutU32(char* at, uint32_t v) { std::memcpy(at, &v, 4); }
inline uint32_t GetU32(const char* at) {
    uint32_t v;
    std::memcpy(&v, at, 4);
    return v;
}

}  // namespace halchannel

#endif
