// Construction, initialisation, the notification pipe, the worker threads and destruction.
#include "service/SFService.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <mutex>

#include "platform/LogMessage.h"
#include "service/HalHost.h"
#include "service/ServiceCore.h"

namespace {
// Rows of services already destroyed: the vendor-command table keeps pointing at their command
// texts, so they live on here, still reachable, to the end of the process (the list itself is
// never destroyed, not even by the exit-time destructors).
std::mutex g_retiredRowsLock;  // guards g_retiredRows
std::list<cmd_entry*>* const g_retiredRows = new std::list<cmd_entry*>();
}  // namespace

// Hosts are built against this layout (64-bit builds): the core's handle must not change it.
static_assert(sizeof(void*) != 8 || sizeof(SFService) == 576, "SFService changed size");

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
      m_pCore(nullptr) {
    // Before the monitor thread exists: each thread is handed the core as it is created.
    m_pCore = ServiceCore::Create(this, m_strServiceName).get();
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
    m_pCore->ClearQueued();
    m_pCore->ClearQueuedReplies();
    return 0;
}

namespace {
int StartHolder(ServiceThread*& field, SFService* service, int kind) {
    std::lock_guard<std::mutex> lock(service->Core()->HoldersLock());
    field = new ServiceThread{nullptr, nullptr, service, kind};
    return field->Start();
}

void DestroyHolder(ServiceThread*& field, ServiceCore* core) {
    std::lock_guard<std::mutex> lock(core->HoldersLock());
    if (!field) return;
    // Deleting the Thread neither waits for nor stops its thread: the core says when a thread
    // no longer touches anything, and a runnable's Run keeps what it needs in locals.
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
void SFService::DestroyMonitorThread() { DestroyHolder(m_pMonitorThread, m_pCore); }
void SFService::DestroyRequestThread() { DestroyHolder(m_pRequestThread, m_pCore); }
void SFService::DestroyResponseThread() { DestroyHolder(m_pResponseThread, m_pCore); }

const char* SFService::GetServiceName() { return m_strServiceName.c_str(); }

bool SFService::IsStopping() const { return m_pCore->Stopping(); }

void SFService::StopServiceThreads() {
    // Wakes every wait of the three loops: the core's conditions, the response queue's, and
    // the monitor's poll through one byte in the pipe.
    m_pCore->Stop();
    m_respQueue.SetActive(false);
    pthread_mutex_lock(&m_mtxPipeWrite);
    const int w = m_nMsgPipeW;
    if (w != -1) {
        const char wake = 0;
        while (write(w, &wake, 1) < 0 && errno == EINTR) {
        }
    }
    pthread_mutex_unlock(&m_mtxPipeWrite);
    // Until every thread has left its loop, or sits in a HAL call (or a wait) that will never
    // touch the service again: the engine's code around a HAL call (checking the device
    // command, converting the result) must be over before anything is freed.
    m_pCore->AwaitQuiet();
}

SFService::~SFService() {
    StopServiceThreads();
    // HAL isolation: the host goes with the service; a call still in it returns at once.
    if (HalHost* host = m_pCore->GetHalHost()) host->Stop();
    ClearMessageQueue();
    if (m_nMsgPipeR != -1) {
        LogMessage(3, "VORN", "~SFService").stream() << "Stop error: m_nMsgPipeR is -1";
        close(m_nMsgPipeR.exchange(-1));
    }
    if (m_nMsgPipeW != -1) {
        LogMessage(3, "VORN", "~SFService").stream() << "Stop error: m_nMsgPipeW is -1";
        close(m_nMsgPipeW.exchange(-1));
    }
    // The current request belongs to its ticket, which goes with the last thread holding it.
    m_pCurReqMsg = nullptr;
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
    {
        std::lock_guard<std::mutex> lock(g_retiredRowsLock);
        g_retiredRows->splice(g_retiredRows->end(), m_cmdList);
    }
    m_pCore->ReleaseOwner();
    m_pCore = nullptr;
}
