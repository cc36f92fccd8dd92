// Construction, initialisation, the notification pipe, the worker threads and destruction.
#include "service/SFService.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "platform/LogMessage.h"
#include "service/HalHost.h"
#include "service/ServiceLifetime.h"

namespace {
// Rows of services already destroyed: the vendor-command table keeps pointing at their command
// texts, so they live on here, still reachable, to the end of the process (the list itself is
// never destroyed, not even by the exit-time destructors).
std::mutex g_retiredRowsLock;  // guards g_retiredRows
std::list<cmd_entry*>* const g_retiredRows = new std::list<cmd_entry*>();
}  // namespace

SFService::SFService(ContextWrapper* context, int serviceId)
    : m_pMonitorThread(nullptr),
      m_pResponseThread(nullptr),
      m_pRequestThread(nullptr),
      m_tvReqStart{0, 0},
      m_nMsgPipeR(-1),
      m_nMsgPipeW(-1),
      m_bInit(false),
      m_pCurReqMsg(nullptr),
      m_strServiceName(ConvertServiceName(serviceId)),
      m_nServiceId(serviceId),
      m_pContext(context),
      m_pResponse(nullptr),
      m_pVendorCmdBuf(nullptr),
      m_bTimeoutHandling(false),
      m_pDllParser(nullptr),
      m_bStopping(false),
      m_nCurReqTimeout(0) {
    // Before the monitor thread exists: it looks the extras up as it boots.
    ServiceLifetime::Create(this);
    m_pDllParser = new DllParser();
    m_pDllParser->SetTag("VORN");
    pthread_mutex_init(&m_mtxPipeWrite, nullptr);
    // Both run as the base versions: the object is still an SFService here.
    Init();
    insertCmd(static_cast<ServiceId>(serviceId));
}

int SFService::Init() {
    LogMessage(2, "VORN", "Init").stream() << "[" << m_strServiceName << "] start.";
    if (m_bInit) {
        LogMessage(1, "VORN", "Init").stream() << m_strServiceName << " already initialized";
        return 1001;
    }
    if (OnCreate() < 0) {
        LogMessage(4, "VORN", "Init").stream() << m_strServiceName << " OnCreate error";
        return 1001;
    }
    m_pVendorCmdBuf = new char[sizeof(sf_response::text)]();
    m_pResponse = new sf_response;
    InitMessageQueue();
    if (OpenMessagePipe() != 0) {
        LogMessage(4, "VORN", "Init").stream() << m_strServiceName << " Fail to open message pipe";
        return 1001;
    }
    CreateMonitorThread();
    m_bInit = true;
    LogMessage(2, "VORN", "Init").stream() << "[" << m_strServiceName << "] end.";
    return 0;
}

int SFService::OnStart() {
    CreateRequestThread();
    CreateResponseThread();
    return 0;
}

int SFService::OnCreate() { return 0; }

int SFService::OpenMessagePipe() {
    // The write end is swapped under the write lock, so a writer never hits a number that
    // has just been closed (and perhaps reused by another open).
    pthread_mutex_lock(&m_mtxPipeWrite);
    if (m_nMsgPipeR != -1) {
        LogMessage(4, "VORN", "OpenMessagePipe").stream()
            << m_strServiceName << " Open command pipe again(m_nMsgPipeR)";
        close(m_nMsgPipeR.exchange(-1));
    }
    if (m_nMsgPipeW != -1) {
        LogMessage(4, "VORN", "OpenMessagePipe").stream()
            << m_strServiceName << " Open command pipe again(m_nMsgPipeW)";
        close(m_nMsgPipeW.exchange(-1));
    }
    int fds[2];
    int rc = 0;
    if (pipe2(fds, O_CLOEXEC) != 0) {
        rc = errno;
        LogMessage(4, "VORN", "OpenMessagePipe").stream()
            << m_strServiceName << " Command pipe create fail";
    } else {
        m_nMsgPipeR = fds[0];
        m_nMsgPipeW = fds[1];
    }
    pthread_mutex_unlock(&m_mtxPipeWrite);
    return rc;
}

int SFService::InitMessageQueue() {
    m_reqQueue.SetActive(true);
    m_respQueue.SetActive(true);
    return 0;
}

int SFService::ClearMessageQueue() {
    m_reqQueue.SetActive(false);
    m_reqQueue.clear();
    m_respQueue.SetActive(false);
    m_respQueue.clear();
    return 0;
}

namespace {
int StartHolder(ServiceThread*& field, SFService* service, int kind) {
    field = new ServiceThread{nullptr, nullptr, service, kind};
    return field->Start();
}

void DestroyHolder(ServiceThread*& field) {
    if (!field) return;
    // Deleting the Thread never blocks: a thread still inside a handler is only marked, and
    // it leaves without touching the runnable deleted next.
    delete field->thread;
    delete field->runnable;
    delete field;
    field = nullptr;
}
}  // namespace

int SFService::CreateMonitorThread() { return StartHolder(m_pMonitorThread, this, MONITOR_THREAD); }
int SFService::CreateRequestThread() { return StartHolder(m_pRequestThread, this, REQUEST_THREAD); }
int SFService::CreateResponseThread() {
    return StartHolder(m_pResponseThread, this, RESPONSE_THREAD);
}
void SFService::DestroyMonitorThread() { DestroyHolder(m_pMonitorThread); }
void SFService::DestroyRequestThread() { DestroyHolder(m_pRequestThread); }
void SFService::DestroyResponseThread() { DestroyHolder(m_pResponseThread); }

const char* SFService::GetServiceName() { return m_strServiceName.c_str(); }

void SFService::StopServiceThreads() {
    if (m_bStopping.exchange(true)) return;
    const std::shared_ptr<ServiceLifetime> lifetime = ServiceLifetime::Find(this);
    // Wake every wait of the three loops: the queues' conditions and the monitor's select (or
    // its wait for the object to be complete, or its pause).
    if (lifetime) lifetime->Stop();
    m_reqQueue.SetActive(false);
    m_respQueue.SetActive(false);
    pthread_mutex_lock(&m_mtxPipeWrite);
    const int w = m_nMsgPipeW;
    if (w != -1) {
        const char wake = 0;
        while (write(w, &wake, 1) < 0 && errno == EINTR) {
        }
    }
    pthread_mutex_unlock(&m_mtxPipeWrite);
    // The monitor first: it creates the other two at boot and replaces the request thread on
    // a timeout, so their holders are read only once it has stopped.
    if (m_pMonitorThread && m_pMonitorThread->thread) m_pMonitorThread->thread->Quiesce();
    if (m_pRequestThread && m_pRequestThread->thread) m_pRequestThread->thread->Quiesce();
    if (m_pResponseThread && m_pResponseThread->thread) m_pResponseThread->thread->Quiesce();
    // A handler's thread, even one that a timeout left behind, may still be in the engine's
    // code around its HAL call (checking the device command, converting the result): that
    // must be over before anything is freed. A thread inside a HAL call is not waited for.
    if (lifetime) lifetime->Close();
}

SFService::~SFService() {
    StopServiceThreads();
    // HAL isolation: the host goes with the service; a call still in it returns at once.
    HalHost::Release(this);
    ClearMessageQueue();
    if (m_nMsgPipeR != -1) {
        LogMessage(3, "VORN", "~SFService").stream() << "Stop error: m_nMsgPipeR is -1";
        close(m_nMsgPipeR.exchange(-1));
    }
    if (m_nMsgPipeW != -1) {
        LogMessage(3, "VORN", "~SFService").stream() << "Stop error: m_nMsgPipeW is -1";
        close(m_nMsgPipeW.exchange(-1));
    }
    // The current request goes with the thread that may still be using it.
    if (SFMessage* cur = m_pCurReqMsg.exchange(nullptr)) {
        if (m_pRequestThread && m_pRequestThread->thread)
            m_pRequestThread->thread->DeferToReturn([cur] { delete cur; });
        else
            delete cur;
    }
    delete m_pResponse;
    m_pResponse = nullptr;
    delete[] m_pVendorCmdBuf;
    m_pVendorCmdBuf = nullptr;
    DestroyRequestThread();
    DestroyResponseThread();
    DestroyMonitorThread();
    pthread_mutex_destroy(&m_mtxPipeWrite);
    m_pDllParser->UnLoad();
    delete m_pDllParser;
    m_pDllParser = nullptr;
    // The rows stay: the vendor-command table keeps pointing at their command texts.
    ServiceLifetime::Erase(this);
    std::lock_guard<std::mutex> lock(g_retiredRowsLock);
    g_retiredRows->splice(g_retiredRows->end(), m_cmdList);
}
