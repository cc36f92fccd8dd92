// The request and response passes and the queues between them.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <unordered_map>

#include "io/Formatter.h"
#include "io/ReplyRoute.h"
#include "io/SFCommandParser.h"
#include "platform/LogMessage.h"
#include "platform/Thread.h"
#include "routing/SFServiceManager.h"
#include "service/SFService.h"
#include "service/ServiceLifetime.h"

namespace {
// Read by every consumer of a queue, set by the host before or while the services run. A
// command comes back to the request and response threads well within 50 us when a client sends
// the next one at once; a slower client costs one window, then each thread sleeps at once.
std::atomic<int> g_queueSpinMicros{50};

// The OnHandleResponse hooks keep their text zero-terminated inside the 3172-byte record.
constexpr uint32_t kMaxRecord = sizeof(sf_response::text) - 1;
// A formatted reply fills the record's whole text area: the front end refuses only more.
constexpr uint32_t kMaxReply = sizeof(sf_response::text);

const cmd_entry* FindRow(const std::list<cmd_entry*>& rows, const std::string& header) {
    for (const cmd_entry* row : rows)
        if (header == row->command) return row;
    return nullptr;
}

// The handler span of one request: from OnHandleRequest to the end of the row's handler.
struct HandlerSpan {
    explicit HandlerSpan(std::shared_ptr<ServiceLifetime> lifetime)
        : entered(ServiceLifetime::EnterHandler(std::move(lifetime))) {}
    ~HandlerSpan() { ServiceLifetime::LeaveHandler(); }
    const bool entered;
};
}  // namespace

// ---- Reply routing: the client each reply goes to -------------------------------------------
// The front end names a command's sender in a reply scope while the command is taken in. The
// engine keeps that client with the request and opens a scope with it around sending the
// request's reply, the 1002 of its timeout included, on whatever thread sends it. Keyed by the
// message (the exported SFMessage has no room for it) and by the service for the request its
// request thread runs:
//   EnQueue(request)      remembers the sender of the request (the intake thread's scope)
//   HandleRequest         the taken request's sender becomes its service's current one
//   EnQueue(response)     a reply, from the request thread or the monitor's timeout, goes to the
//                         current request's sender
//   HandleResponse        sends the reply inside a scope naming that sender
// Requests without a known sender (internal ones, a host's own) keep no entry and are answered
// as before, to the client of the latest transmission.
namespace {
namespace reply_routes {
std::mutex g_lock;  // guards Table()
std::unordered_map<const void*, ClientRef>& Table() {
    static auto* table = [] {  // outlives exit
        auto* t = new std::unordered_map<const void*, ClientRef>;
        t->reserve(256);  // a few entries per queued request: no rehash on the way
        return t;
    }();
    return *table;
}
void Remember(const void* key, ClientRef client) {
    std::lock_guard<std::mutex> lock(g_lock);
    if (client.Known())
        Table()[key] = client;
    else
        Table().erase(key);
}
ClientRef Lookup(const void* key, bool take) {
    std::lock_guard<std::mutex> lock(g_lock);
    auto it = Table().find(key);
    if (it == Table().end()) return ClientRef();
    const ClientRef client = it->second;
    if (take) Table().erase(it);
    return client;
}
}  // namespace reply_routes
}  // namespace
// ---- end of reply routing ---------------------------------------------------------------------

int GetQueueSpinMicros() { return g_queueSpinMicros.load(std::memory_order_relaxed); }

void SetQueueSpinMicros(int micros) {
    // A window longer than a millisecond only burns time that a sleep would save.
    g_queueSpinMicros.store(std::max(0, std::min(micros, 1000)), std::memory_order_relaxed);
}

int SFService::EnQueue(SFMessage* msg) {
    if (!msg) {
        LogMessage(4, "VORN", "EnQueue").stream()
            << m_strServiceName << "Message enqueue fail: message is nullptr";
        return 1008;
    }
    if (msg->direction == MSG_RESPONSE) {
        SFRespData* resp = msg->GetResponseData();
        if (LogMessage::IsOn(1)) {
            LogMessage(1, "VORN", "EnQueue").stream()
                << "return is " << (resp ? resp->result : 1006);
            DUMPLOG("VORN", "[RESPONSE]", resp ? resp->data : nullptr, resp ? resp->length : 0);
        }
        reply_routes::Remember(msg, reply_routes::Lookup(this, false));
        m_respQueue.enqueue(msg);
        return 0;
    }
    if (msg->direction == MSG_REQUEST) {
        // A service given a request is complete: the monitor may start its threads.
        if (auto lifetime = ServiceLifetime::Find(this)) lifetime->MarkConstructed();
        SFData* req = msg->GetRequestData();
        DUMPLOG("VORN", "[REQUEST]", req ? req->data : nullptr, req ? req->length : 0);
        reply_routes::Remember(msg, ReplyRoute::Current());
        m_reqQueue.enqueue(msg);
        return 0;
    }
    LogMessage(4, "VORN", "EnQueue").stream() << m_strServiceName << "message direction error";
    return 1008;
}

namespace {
// The trace line of a notification, also written where the monitor needs no byte.
void TraceNotify(MsgDirection direction) {
    if (LogMessage::IsOn(1))
        LogMessage(1, "VORN", "NotifyNewMessage").stream()
            << "get new message by direction"
            << (direction == MSG_REQUEST ? "(REQUEST)" : "(RESPONSE)");
}
}  // namespace

int SFService::NotifyNewMessage(MsgDirection direction) {
    TraceNotify(direction);
    ssize_t written = 0;
    if (m_nMsgPipeW != -1) {
        const char byte = static_cast<char>(direction & 0xff);
        pthread_mutex_lock(&m_mtxPipeWrite);
        const int fd = m_nMsgPipeW;
        if (fd != -1) {
            do {
                written = write(fd, &byte, 1);
            } while (written < 0 && errno == EINTR);
        }
        pthread_mutex_unlock(&m_mtxPipeWrite);
        if (written > 0) return 0;
    }
    LogMessage(4, "VORN", "NotifyNewMessage").stream()
        << "Notify new message fail: m_nMsgPipeW is -1";
    return 1001;
}

int SFService::NotifyNewMessage(SFMessage* msg) { return NotifyNewMessage(msg->direction); }

SFMessage* SFService::reqDeQ() { return m_reqQueue.dequeue(); }

SFMessage* SFService::respDeQ() { return m_respQueue.dequeue(); }

int SFService::HandleRequest() {
    if (m_bTimeoutHandling) {
        LogMessage(1, "VORN", "HandleRequest").stream()
            << m_strServiceName << ": Timeout thread is processing. Wait...";
        usleep(20000);
        return 0;
    }
    // Only a service being destroyed has none; its request thread takes nothing more.
    std::shared_ptr<ServiceLifetime> lifetime = ServiceLifetime::Find(this);
    if (!lifetime) return 0;
    // The previous request is released only now, when the next one is taken.
    delete m_pCurReqMsg.exchange(nullptr);
    SFMessage* msg = reqDeQ();
    if (!msg) return 0;  // the queue was switched off, or a wake-up found it empty
    reply_routes::Remember(this, reply_routes::Lookup(msg, true));
    // The monitor times the request from now. It needs a byte only when it sleeps without a
    // limit or past this request's end; otherwise it finds the request when its limit runs out.
    if (lifetime->Clock().Begin(this, msg)) {
        NotifyNewMessage(msg);
    } else {
        TraceNotify(msg->direction);
        if (msg->timeout == 0 && LogMessage::IsOn(1))
            LogMessage(1, "VORN", "CalculateRequestTimeout").stream()
                << m_strServiceName << ": Timeout is 0, set default timeout value to 60sec";
    }

    // Handlers are foreign code: if one outlives its timeout, the monitor takes the request
    // away and this thread, once it comes back, leaves without touching anything shared. The
    // engine's own code inside them is waited for by the service's destruction.
    HandlerSpan span(std::move(lifetime));
    if (!span.entered) return 0;  // the service is being destroyed
    Thread::BeginForeignCall();
    OnHandleRequest(msg);
    if (!Thread::EndForeignCall()) return 0;

    SFData* vendor = msg->GetVendorCommandData();
    std::string text = (vendor && vendor->data) ? std::string(vendor->data, vendor->length) : "";
    std::string header;
    SFCommandParser::GetCommandHeader(text, header);
    if (const cmd_entry* row = FindRow(m_cmdList, header)) {
        Thread::BeginForeignCall();
        SFRespData* resp = row->handler ? row->handler(msg, this) : DoRequest(msg, this);
        if (!Thread::EndForeignCall()) {
            delete resp;  // answered by the timeout already
            return 0;
        }
        if (resp) {
            SFMessage* reply = msg->Clone();
            reply->direction = MSG_RESPONSE;
            reply->SetResponseData(resp);
            EnQueue(reply);
        }
    }
    if (m_reqQueue.size() == 0) {
        const MsgDirection direction = msg->direction;
        delete m_pCurReqMsg.exchange(nullptr);
        // No byte: the monitor finds that nothing runs when its limit ends, and then sleeps
        // without one.
        TraceNotify(direction);
    }
    return 0;
}

int SFService::HandleResponse() {
    std::unique_ptr<SFMessage> msg(respDeQ());
    if (!msg) {
        // Being woken to shut down is no error worth a line.
        if (!IsStopping()) LogMessage(4, "VORN", "HandleResponse").stream() << "message is null";
        return 2;
    }
    const ReplyRoute::Scope route(reply_routes::Lookup(msg.get(), true));
    SFRespData* resp = msg->GetResponseData();
    SFData* req = msg->GetRequestData();
    uint32_t reqLen = req ? req->length : 0;
    uint32_t respLen = resp ? resp->length : 0;
    // A record must fit the reply record, so that the client always gets a well-formed one.
    // The echoed command gives way to the response, as in error replies; only a response
    // that cannot fit on its own is cut, and then the echo is kept.
    if (12 + uint64_t(reqLen) + respLen > kMaxReply) {
        const uint32_t oldReq = reqLen, oldResp = respLen;
        if (respLen <= kMaxReply - 12) {
            reqLen = kMaxReply - 12 - respLen;
        } else {
            reqLen = std::min<uint32_t>(reqLen, kMaxReply - 12);
            respLen = kMaxReply - 12 - reqLen;
        }
        LogMessage(3, "VORN", "HandleResponse").stream()
            << m_strServiceName << " reply cut to fit the record: request " << oldReq << "->"
            << reqLen << ", response " << oldResp << "->" << respLen;
    }
    Formatter formatter;
    formatter.SetResult(resp ? resp->result : 1006);
    formatter.SetRequest(req ? req->data : nullptr, static_cast<int>(reqLen));
    formatter.SetResponse(resp ? resp->data : nullptr, static_cast<int>(respLen));
    unsigned char* output = nullptr;
    int outputLength = 0;
    formatter.GetOutputData(&output, outputLength);
    std::memset(m_pResponse, 0, sizeof(sf_response));
    if (output && outputLength > 0) {
        m_pResponse->length = static_cast<uint32_t>(outputLength);
        std::memcpy(m_pResponse->text, output, static_cast<size_t>(outputLength));
    }
    delete[] output;
    m_pResponse->direction = resp ? static_cast<int32_t>(resp->direction) : DATA_RESPONSE;
    msg.reset();
    SFServiceManager* manager = SFServiceManager::GetServiceManager();
    if (!manager) {
        LogMessage(4, "VORN", "HandleResponse").stream()
            << "service manager is null or handle response is fail(" << 1 << ")";
        return 1;
    }
    manager->HandleResponse(m_pResponse);
    return 0;
}

int SFService::OnHandleRequest(SFMessage* /*msg*/) { return 1; }

SFRespData* SFService::DoRequest(SFMessage* msg, void* service) {
    return static_cast<SFService*>(service)->ConvertPCBAResponse(msg, 1, nullptr, 0);
}

bool SFService::OnHandleResponse(const char* data, int len, sf_response* out) {
    std::memset(out->text, 0, sizeof out->text);
    out->length =
        len < static_cast<int>(kMaxRecord) ? static_cast<uint32_t>(std::max(len, 0)) : kMaxRecord;
    if (data && out->length) std::memcpy(out->text, data, out->length);
    return true;
}

bool SFService::OnHandleResponse(bool flag, response_info* info, sf_response* out) {
    std::memset(out->text, 0, sizeof out->text);
    if (flag) return true;
    if (out->length >= sizeof out->text) out->length = kMaxRecord;
    if (info && out->length) std::memcpy(out->text, info, out->length);
    return true;
}
