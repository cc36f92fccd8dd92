#ifndef VORN_IO_CMDIOSERVICE_H
#define VORN_IO_CMDIOSERVICE_H

#include <atomic>
#include <cstdint>

#include "core/VornExport.h"
#include "io/Processer.h"

// The daemon's socket server: delivers each transmission to the registered callback and writes
// replies to the client of the latest transmission.
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

protected:
    Staging* m_pStaging;
    // The client-slot address of the latest transmission; written by the loop thread, read by
    // the threads that answer.
    std::atomic<void*> m_pReplyTarget;
    void* m_pCallbackContext;
    CommandCallback m_pCallback;
};

#endif
