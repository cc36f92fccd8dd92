#ifndef VORN_IO_CMDIOSERVICE_H
#define VORN_IO_CMDIOSERVICE_H

#include <atomic>
#include <cstdint>

#include "core/VornExport.h"
#include "io/Processer.h"

class FrontEndState;

// The daemon's socket server: delivers each transmission to the registered callback and writes
// replies to the client of the latest transmission, or, with routing by sender on, to the client
// that sent the command being answered.
class VORN_EXPORT CmdIOService : public Processer {
public:
    typedef int (*CommandCallback)(char const* command, int length, void* context);

    static const unsigned int kStagingSize = 3172;
    struct Staging {
        char data[kStagingSize];
        uint32_t length;
    };

    explicit CmdIOService(char const* socketName);
    virtual ~CmdIOService();

    void CmdIOCallback(CommandCallback callback, void* context);
    int CmdIOStart();
    int InternalBufferedFlush(char const* command, int length);
    void ErrorResponse(char const* request, unsigned int requestLength, int code);

    int HandleResponse(unsigned char const* data, int length, void* client) override;
    int HandleRequest(unsigned char const* data, int length, void* client) override;
    virtual int SendResponse(int code, char const* data, unsigned int length);

    // Host setting, off in the library: off, SendResponse and ErrorResponse answer the client of
    // the latest transmission; on, they answer the client named by the calling thread's reply
    // scope (ReplyRoute: the front end opens one around each delivery, the engine one around
    // each reply it sends), and drop the reply with a log line when that client has gone.
    // Outside any scope they answer the latest client either way.
    void SetReplyToSender(bool on);
    bool GetReplyToSender() const;

protected:
    // Allocated and zero-filled for the layout hosts are built against; replies are written from
    // the caller's bytes, so nothing is copied into it.
    Staging* m_pStaging;
    // The client-slot address of the latest transmission; written by the loop thread, read by
    // the threads that answer.
    std::atomic<void*> m_pReplyTarget;
    void* m_pCallbackContext;
    CommandCallback m_pCallback;

private:
    VORN_LOCAL int SlotIndex(const void* client) const;
    // Where SendResponse and ErrorResponse write: see SetReplyToSender.
    VORN_LOCAL void* ReplyTarget(const FrontEndState* state);
};

#endif
