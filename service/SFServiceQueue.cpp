// The request and response passes and the queues between them.
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "io/Formatter.h"
#include "io/LoopIntake.h"
#include "io/ReplyRoute.h"
#include "io/SFCommandParser.h"
#include "platform/LogMessage.h"
#include "routing/SFServiceManager.h"
#include "service/SFService.h"
#include "service/ServiceCore.h"

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

}  // namespace

int GetQueueSpinMicros() { return g_queueSpinMicros.load(std::memory_order_relaxed); }

void SetQueueSpinMicros(int micros) {
    // A window longer than a millisecond only burns time that a sleep would save.
    g_queueSpinMicros.store(std::max(0, std::min(micros, 1000)), std::memory_order_relaxed);
}

namespace {
// Formats a reply into the service's one record and hands it to the front end, under the
// sender's route. One thread at a time: the core lets a reply be sent directly only when no
// queued one is being sent, and the response thread only when no direct one is.
int SendReply(SFService& service, std::unique_ptr<SFMessage> msg, ClientRef sender);

// A reply produced now: sent on this thread when nothing waits ahead of it, else queued.
// A reply enters the response path here, with the trace lines of the response queue, whether
// it is then sent at once or waits.
void DeliverReply(SFService& service, ServiceCore& core, SFMessage* reply, ClientRef sender) {
    if (LogMessage::IsOn(1)) {
        SFRespData* resp = reply->GetResponseData();
        LogMessage(1, "VORN", "EnQueue").stream() << "return is " << (resp ? resp->result : 1006);
        DUMPLOG("VORN", "[RESPONSE]", resp ? resp->data : nullptr, resp ? resp->length : 0);
    }
    if (core.SendDirect(reply, sender)) {
        SendReply(service, std::unique_ptr<SFMessage>(reply), sender);
        core.DirectSent();
    }
}
}  // namespace

int SFService::EnQueue(SFMessage* msg) {
    if (!msg) {
        LogMessage(4, "VORN", "EnQueue").stream()
            << m_strServiceName << "Message enqueue fail: message is nullptr";
        return 1008;
    }
    if (msg->direction == MSG_RESPONSE) {
        // The reply of the request now running (or being timed out) goes to its sender.
        DeliverReply(*this, *m_pCore, msg, m_pCore->CurrentSender());
        return 0;
    }
    if (msg->direction == MSG_REQUEST) {
        SFData* req = msg->GetRequestData();
        DUMPLOG("VORN", "[REQUEST]", req ? req->data : nullptr, req ? req->length : 0);
        // Intake runs on the socket loop's thread, inside the delivery of the command: the
        // route read here is the client that sent it. Where the host lets it, that thread runs
        // the request itself once the delivery is over, if the service has nothing to do.
        const ClientRef sender = ReplyRoute::Current();
        if (LoopIntake* intake = LoopIntake::Current())
            if (m_pCore->HoldForLoop(msg, sender, *intake)) return 0;
        m_pCore->Submit(msg, sender);
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

// Requests wait as tickets in the core: this takes the next one's message, without waiting.
SFMessage* SFService::reqDeQ() { return m_pCore->TakeQueuedMessage(); }

SFMessage* SFService::respDeQ() { return m_respQueue.dequeue(); }

int SFService::HandleRequest() {
    RunRequestPass(*this, *m_pCore, m_pCore->RequestGeneration());
    return 0;
}

PassEnd RunRequestPass(SFService& service, ServiceCore& core, uint64_t generation) {
    const std::shared_ptr<ServiceCore::Ticket> ticket = core.Take(generation);
    if (!ticket) return PASS_RETIRED;
    return RunTakenRequest(service, core, ticket);
}

PassEnd RunTakenRequest(SFService& service, ServiceCore& core,
                        const std::shared_ptr<ServiceCore::Ticket>& ticket) {
    SFMessage* const msg = ticket->Message();
    TraceNotify(msg->direction);

    // Handlers are foreign code. If one outlives its timeout, the timeout answers the request
    // and takes it away: this thread, once back, touches nothing but its ticket.
    service.OnHandleRequest(msg);
    SFData* vendor = msg->GetVendorCommandData();
    std::string text = (vendor && vendor->data) ? std::string(vendor->data, vendor->length) : "";
    std::string header;
    SFCommandParser::GetCommandHeader(text, header);
    SFRespData* resp = nullptr;
    bool answered = false;
    if (const cmd_entry* row = FindRow(service.m_cmdList, header)) {
        answered = true;
        if (row->handler)
            resp = row->handler(msg, &service);
        else if (core.RefuseHalCall())
            resp = service.ConvertPCBAResponse(msg, 1009, "", 0);
        else
            resp = service.DoRequest(msg, &service);
    }
    const MsgDirection direction = msg->direction;
    if (!core.Finish(*ticket)) {
        delete resp;  // answered by the timeout already, or the service is gone
        return PASS_TAKEN_AWAY;
    }
    if (answered && resp) {
        SFMessage* reply = msg->Clone();
        reply->direction = MSG_RESPONSE;
        reply->SetResponseData(resp);
        DeliverReply(service, core, reply, ticket->Sender());
    }
    // The monitor needs no byte: the timer was armed for this request and is disarmed once
    // nothing runs.
    TraceNotify(direction);
    return PASS_NEXT;
}

int SFService::HandleResponse() {
    std::unique_ptr<SFMessage> msg(respDeQ());
    if (!msg) {
        // Being woken to shut down is no error worth a line.
        if (!IsStopping()) LogMessage(4, "VORN", "HandleResponse").stream() << "message is null";
        return 2;
    }
    const ClientRef sender = m_pCore->BeginQueuedReply();
    const int rc = SendReply(*this, std::move(msg), sender);
    m_pCore->EndQueuedReply();
    return rc;
}

namespace {
int SendReply(SFService& service, std::unique_ptr<SFMessage> msg, ClientRef sender) {
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
            << service.m_strServiceName << " reply cut to fit the record: request " << oldReq
            << "->" << reqLen << ", response " << oldResp << "->" << respLen;
    }
    Formatter formatter;
    formatter.SetResult(resp ? resp->result : 1006);
    formatter.SetRequest(req ? req->data : nullptr, static_cast<int>(reqLen));
    formatter.SetResponse(resp ? resp->data : nullptr, static_cast<int>(respLen));
    unsigned char* output = nullptr;
    int outputLength = 0;
    formatter.GetOutputData(&output, outputLength);
    sf_response* record = service.m_pResponse;
    std::memset(record, 0, sizeof(sf_response));
    if (output && outputLength > 0) {
        record->length = static_cast<uint32_t>(outputLength);
        std::memcpy(record->text, output, static_cast<size_t>(outputLength));
    }
    delete[] output;
    record->direction = resp ? static_cast<int32_t>(resp->direction) : DATA_RESPONSE;
    msg.reset();
    SFServiceManager* manager = SFServiceManager::GetServiceManager();
    if (!manager) {
        LogMessage(4, "VORN", "HandleResponse").stream()
            << "service manager is null or handle response is fail(" << 1 << ")";
        return 1;
    }
    ReplyRoute::Scope route(sender);
    manager->HandleResponse(record);
    return 0;
}
}  // namespace

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
