#ifndef VORN_IO_PROCESSER_H
#define VORN_IO_PROCESSER_H

#include <pthread.h>
#include <sys/select.h>

#include <atomic>

#include "core/VornExport.h"

class FrontEndState;

// The local-socket server: a listening abstract-namespace stream socket, a table of four
// clients and one detached loop thread that reads transmissions and hands each to
// HandleRequest. The loop ends only when select is interrupted by a signal.
class VORN_EXPORT Processer {
public:
    static const int kRecvChunk = 3072;
    static const int kMaxChunks = 8;
    static const int kMaxClients = 4;

    explicit Processer(char const* name);
    virtual ~Processer();

    virtual int Start();
    virtual int Stop();
    virtual int GetMaxFd();
    virtual int UpdateFdSet(fd_set* set);
    virtual int AddClient(int fd);
    virtual void RemoveClient(int index);
    virtual void AcceptConnection(int serverFd);
    virtual bool isConnect();
    virtual int HandleResponse(unsigned char const* data, int length, void* client) = 0;
    virtual int HandleRequest(unsigned char const* data, int length, void* client) = 0;
    virtual bool IsValidFD(int fd);
    virtual bool RemoveSpecialCilent(int fd);

    int InitServerSock();
    void InitCilent();
    static void* ThreadProc(void* self);
    void Run();

    // Host settings, both off in the library. An idle limit in seconds: a client (served or
    // waiting) through which nothing has passed either way for that long is let go. A limit on
    // the connections left waiting beyond the four slots: one more is closed at once. The loop
    // reads both at the top of each round, so a host sets them before Start.
    void SetIdleTimeout(int seconds);
    int GetIdleTimeout() const;
    void SetWaitingLimit(int count);
    int GetWaitingLimit() const;
    static const int kWaitingLimit = 16;  // a fair limit for a daemon; vornd's default

protected:
    char* m_pSocketName;
    // Written by the loop thread; read by reply threads through the slot address.
    std::atomic<int> m_nClientFds[kMaxClients];
    std::atomic<int> m_nLastClientFd;
    pthread_t m_thread;
    int m_nServerFd;
    unsigned char* m_pRecvBuf;
    pthread_cond_t m_cond;
    pthread_mutex_t m_mutex;
    pthread_attr_t m_attr;
    fd_set m_readSet;

private:
    // One wait of the loop: the read set's descriptors for input, the waiting connections for
    // hang-up, the idle limit and the accept back-off for the time limit. Rewrites the read set
    // to the ready descriptors and returns their number, or -1 (errno set) when the wait failed.
    VORN_LOCAL int WaitRound(FrontEndState& state, int maxFd);
    // Frees slot `index`, then closes its descriptor, under the reply lock.
    VORN_LOCAL void LetClientGo(int index, int fd, FrontEndState& state);
};

#endif
