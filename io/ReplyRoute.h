#ifndef VORN_IO_REPLYROUTE_H
#define VORN_IO_REPLYROUTE_H

#include <cstdint>

// The client a command came from: its slot in the front end's table and the slot's generation
// at the time, so that a reply can find its sender again, and can tell it from a newcomer that
// took the same slot since. A plain value, kept with the request by whoever holds it.
struct ClientRef {
    int slot = -1;  // -1: no client known (an internal request, a host's own call)
    uint32_t generation = 0;
    bool Known() const { return slot >= 0; }
};

// Not exported. The reply target of the calling thread, beside the command I/O service (whose
// fields hosts are built against). The front end opens a scope around the delivery of each
// transmission, so that the code that takes the command in (on the loop thread) reads its
// sender with Current(), and a refusal answered at once goes back to it. The engine keeps that
// value with the request and opens a scope with it around the sending of the request's reply
// (the 1002 of its timeout included), on whatever thread sends it. With routing by sender on,
// the command I/O service sends a reply to the scope's client; outside any scope it uses the
// reply target of the latest transmission, as it always has.
class ReplyRoute {
public:
    static ClientRef Current();

    class Scope {
    public:
        explicit Scope(ClientRef client);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        ClientRef m_previous;
    };
};

#endif
