#ifndef VORN_IO_PROCESSER_H
#define VORN_IO_PROCESSER_H

#include <pthread.h>
#include <sys/select.h>

#include <atomic>

#include "core/VornExport.h"

class FrontEndState;

// The local-socket server: a listening abstract-namespace stream socket, a table of four
// clients and one loop thread that reads transmissions and hands each to HandleRequest. The
// loop ends when the host calls Stop (which joins it), when its wait is interrupted by a signal
// ("got signal"), or when its listening socket was closed or replaced under it. Deleting the
// object stops the loop first; a subclass with state of its own that the loop uses (an
// AddClient override, say) calls Stop in its own destructor.
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

    // Host settings, off in the library. Promotion: when a slot frees, the connection that has
    // waited longest beyond the four slots takes it and its pending bytes are read. Closing
    // stalled clients: once one reply to a client could not be written within about a second,
    // that client is closed (with a log line) and further replies to it are dropped at once,
    // instead of each waiting the second again.
    void SetPromoteWaiting(bool on);
    bool GetPromoteWaiting() const;
    void SetCloseStalledClients(bool on);
    bool GetCloseStalledClients() const;
    // Host setting, off (0) in the library. Above 0, the loop's thread runs a command itself
    // when the service that owns it has nothing to do, instead of handing it to that service's
    // request thread: a client that sends one command at a time pays for no thread wake-up. A
    // command that takes longer than budgetMicros keeps that thread, and the loop goes on in a
    // fresh one at once; the service's next command then goes to its request thread, until one
    // is quick again. Replies, result codes, timeouts and log lines are the same either way.
    void SetLoopRunsRequests(int budgetMicros);  // at most kMaxLoopBudgetMicros
    static const int kMaxLoopBudgetMicros = 1000000;
    int GetLoopRunsRequests() const;

    // Called on the loop thread as the loop ends, with why: 0 stopped by Stop, EINTR ended by a
    // signal, 1005 the listening socket was lost (closed or replaced under the loop; no client
    // can connect any more). Set before Start. A daemon exits on the last, so that its
    // supervisor restarts it.
    typedef void (*LoopEndCallback)(int result, void* context);
    void SetLoopEndCallback(LoopEndCallback callback, void* context);
    // The same result once the loop has ended; -1 while it runs or before it ran.
    int GetLoopResult() const;

protected:
    char* m_pSocketName;
    // Written by the loop thread; read by reply threads through the slot address.
    std::atomic<int> m_nClientFds[kMaxClients];
    std::atomic<int> m_nLastClientFd;
    pthread_t m_thread;
    int m_nServerFd;
    unsigned char* m_pRecvBuf;
    // Kept for the layout hosts are built against; nothing waits on it (the loop wakes through
    // its control descriptor, see FrontEndState).
    pthread_cond_t m_cond;
    // The reply lock: guards the pairing of a client slot with its open descriptor. The loop
    // frees a slot and closes its descriptor under it; a reply reads the slot and writes to the
    // descriptor under it, so it never writes to a number that is being closed or reused.
    pthread_mutex_t m_mutex;
    // Set to the detached state as hosts expect; the loop thread itself is created joinable,
    // so that Stop can join it.
    pthread_attr_t m_attr;
    fd_set m_readSet;

private:
    // One wait of the loop: the read set's descriptors for input, the waiting connections for
    // hang-up, the idle limit and the accept back-off for the time limit. Rewrites the read set
    // to the ready descriptors and returns their number, or -1 (errno set) when the wait failed.
    VORN_LOCAL int WaitRound(FrontEndState& state, int maxFd);
    // Frees slot `index`, then closes its descriptor, under the reply lock.
    VORN_LOCAL void LetClientGo(int index, int fd, FrontEndState& state);
    // Asks the loop thread to end and joins it; nothing when no loop runs.
    VORN_LOCAL void EndLoop();
    // The top of each round: clients that do not read are closed, waiting connections take
    // free slots.
    VORN_LOCAL void TendSlots(FrontEndState& state);
    // True when the listening descriptor is no longer the socket that was opened.
    VORN_LOCAL bool ListenerLost(const FrontEndState& state);
    VORN_LOCAL void NoteListener(int fd);
    // Forgets the listening descriptor (its number is not ours any more), logs, returns 1005.
    VORN_LOCAL int LostListener();
};

#endif
