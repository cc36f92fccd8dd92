#ifndef VORN_SERVICE_SFSERVICE_H
#define VORN_SERVICE_SFSERVICE_H

#include <pthread.h>
#include <sys/time.h>

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include "config/ServiceId.h"
#include "core/DataDirection.h"
#include "core/SFData.h"
#include "core/SFMessage.h"
#include "core/SFRespData.h"
#include "core/VornExport.h"
#include "core/sf_response.h"
#include "platform/DllParser.h"
#include "platform/LogMessage.h"
#include "service/MessageQueue.h"
#include "service/ServiceThread.h"
#include "service/cmd_entry.h"

class ContextWrapper;
class ConfigManager;
class ServiceCore;

// The common base of every device service: a request and a response queue, a notification
// pipe, monitor/request/response threads, request timeouts, the command table and HAL calls.
class VORN_EXPORT SFService {
public:
    SFService(ContextWrapper* context, int serviceId);
    virtual ~SFService();

    // Virtual slots, in this order: hosts and services are compiled against it.
    virtual int Init();
    virtual int OnStart();
    virtual int OnCreate();
    virtual bool OnHandleCommand(const char* command, int len);
    virtual int OnHandleRequest(SFMessage* msg);
    virtual bool OnHandleResponse(const char* data, int len, sf_response* out);
    virtual bool OnHandleResponse(bool flag, response_info* info, sf_response* out);
    virtual bool OnHandleRequestTimeout(SFMessage* msg);
    virtual SFRespData* ConvertPCBAResponse(SFMessage* msg, int result, const char* data, int len);
    virtual bool CheckDeviceCommand(SFMessage* msg);
    virtual bool SendInternalMessage(SFData* data, sf_response* resp, bool flag);
    virtual bool HandleInternalRequest(SFData* data, sf_response* resp, bool flag);
    virtual void insertCmd(ServiceId id);
    virtual SFRespData* DoRequest(SFMessage* msg, void* service);
    virtual bool isSupport();
    virtual bool isSupport(int serviceId);

    // Lifecycle, pipe and threads.
    int OpenMessagePipe();
    int InitMessageQueue();
    int ClearMessageQueue();
    int CreateMonitorThread();
    int CreateRequestThread();
    int CreateResponseThread();
    void DestroyMonitorThread();
    void DestroyRequestThread();
    void DestroyResponseThread();
    const char* GetServiceName();

    // Queues and passes.
    int EnQueue(SFMessage* msg);
    int NotifyNewMessage(MsgDirection direction);
    int NotifyNewMessage(SFMessage* msg);
    SFMessage* reqDeQ();
    SFMessage* respDeQ();
    int HandleRequest();
    int HandleResponse();

    // Timeouts.
    int StartRequestTimeout();
    int CalculateRequestTimeout(timeval* left);
    int HandleRequestTimeout();
    void ResetRequestService();

    // Command table.
    void insert(DataDirection direction, int timeout, const char* command,
                SFRespData* (*handler)(SFMessage*, void*), void* soFunc, const char* soFuncName,
                bool needSoFunc);
    // The same with the direction as a plain number, as hosts write it: insert(1, 15, ...).
    void insert(int direction, int timeout, const char* command,
                SFRespData* (*handler)(SFMessage*, void*), void* soFunc, const char* soFuncName,
                bool needSoFunc) {
        insert(static_cast<DataDirection>(direction), timeout, command, handler, soFunc, soFuncName,
               needSoFunc);
    }
    static const char* ConvertServiceName(int serviceId);
    ConfigManager* GetConfigManager();

    // HAL binding.
    int Execute(std::string funcName, std::vector<char>* in, std::vector<char>* out);
    void* HalMalloc(int size);
    int HalFree(void* block);

    // Calls the HAL function `name` with signature R(Args...). The library stays mapped for the
    // call even if the service is torn down meanwhile. Around the call, the request that the
    // calling thread runs is "in a HAL call": neither its timeout nor the service's destruction
    // waits for it. When the call comes back after the request was taken away (timed out, or
    // the service destroyed), only code that says it leaves by itself gets control back (the
    // engine's own callers do); a host's own inline call would go on with the freed service,
    // so its thread stays in ReturnFromHal for good.
    template <typename R, typename... Args>
    static R ExcecuteFunc(DllParser* parser, const std::string& name, Args... args) {
        std::function<R(Args...)> func;
        if (void* address = parser->GetFunction(name))
            func = reinterpret_cast<R (*)(Args...)>(address);
        std::shared_ptr<void> pin = parser->Pin();
        if (LogMessage::IsOn(2))
            LogMessage(2, parser->GetTag().c_str(), "ExcecuteFunc").stream()
                << "Execute(" << name << ")";
        struct Return {
            ~Return() { ReturnFromHal(); }
        } comeBack;
        DetachFromService();
        return func(args...);
    }

    // The request that the calling thread runs goes into a HAL call (or a wait that touches
    // nothing of the service), and comes back: ReattachToService is false when the request
    // was taken away meanwhile (timed out, or the service destroyed), and the caller must then
    // leave without touching the service. Outside a request of a service, both do nothing.
    static void DetachFromService();
    static bool ReattachToService();
    // ReattachToService for ExcecuteFunc: when the request was taken away and the caller is no
    // UnwindingCaller, the thread stays in here for good.
    static void ReturnFromHal();
    // Held around HAL calls by code that checks ServiceGone() after each of them and then
    // leaves without touching the service: its calls always come back.
    class UnwindingCaller {
    public:
        UnwindingCaller();
        ~UnwindingCaller();
        UnwindingCaller(const UnwindingCaller&) = delete;
        UnwindingCaller& operator=(const UnwindingCaller&) = delete;
        // True when a HAL call came back after its request was taken away.
        bool ServiceGone() const;
    };

    // Is the service being destroyed? Thread loops leave when it is.
    bool IsStopping() const;
    // Brings the three threads out of the engine's code: each ends, or is left behind in a
    // HAL call that will never touch the service again. The destructor of every service calls
    // it first, before the object's dynamic type starts to change.
    void StopServiceThreads();
    // What the service keeps beside its fixed layout (internal: service/ServiceCore.h).
    ServiceCore* Core() const { return m_pCore; }

    ServiceThread* m_pMonitorThread;
    ServiceThread* m_pResponseThread;
    ServiceThread* m_pRequestThread;
    struct timeval m_tvReqStart;         // wall-clock start of the current request, for the record
    pthread_mutex_t m_mtxPipeWrite;      // guards writes to m_nMsgPipeW
    MessageQueue<SFMessage> m_reqQueue;  // stays empty: requests wait as tickets in the core
    MessageQueue<SFMessage> m_respQueue;
    // The monitor rebuilds the pipe while other threads read the numbers.
    std::atomic<int> m_nMsgPipeR;
    std::atomic<int> m_nMsgPipeW;
    bool m_bInit;
    // The current request's message (its ticket owns it); written under the core's lock.
    std::atomic<SFMessage*> m_pCurReqMsg;
    std::string m_strServiceName;
    int m_nServiceId;
    std::list<cmd_entry*> m_cmdList;
    ContextWrapper* m_pContext;
    sf_response* m_pResponse;
    char* m_pVendorCmdBuf;
    std::atomic<bool> m_bTimeoutHandling;  // set while a timeout is handled; the next request waits
    DllParser* m_pDllParser;

private:
    // Created with the service, held also by its threads (so it outlives the object for a
    // thread that comes back late). It takes the eight bytes that earlier builds used for a
    // stop flag and a copy of the current timeout: the object's size and every documented
    // offset stay as they were.
    ServiceCore* m_pCore;
};

#endif
