#include "core/SFMessage.h"

namespace {
// Replaces an owned payload. Handing a message the payload it already holds changes nothing:
// deleting it first would leave the field pointing at freed memory.
template <typename T>
void Replace(T*& field, T* value) {
    if (field == value) return;
    delete field;
    field = value;
}

template <typename T>
T* CloneOf(T* payload) {
    return payload ? payload->Clone() : nullptr;
}
}  // namespace

SFMessage::SFMessage(MsgDirection dir, void* func, char const* funcName, int seconds,
                     SFData* request, SFRespData* response)
    : timeout(seconds),
      direction(dir),
      m_pRequestData(request),
      m_pVendorCmdData(nullptr),
      m_pDeviceCmdData(nullptr),
      m_pResponseData(response),
      soFunc(func),
      soFuncName(funcName) {}

SFMessage* SFMessage::NewInstance(MsgDirection dir, void* func, char const* funcName, int seconds,
                                  SFData* request, SFRespData* response) {
    return new SFMessage(dir, func, funcName, seconds, request, response);
}

SFMessage::~SFMessage() {
    delete m_pRequestData;
    delete m_pResponseData;
    delete m_pVendorCmdData;
    delete m_pDeviceCmdData;
}

// The payloads held before the assignment are released once the clones exist: the message owns
// them and nothing reads them afterwards, so this only stops them from leaking.
SFMessage& SFMessage::operator=(SFMessage const& other) {
    if (this == &other) return *this;
    timeout = other.timeout;
    direction = other.direction;
    soFunc = other.soFunc;
    soFuncName = other.soFuncName;
    SFData* request = CloneOf(other.m_pRequestData);
    SFData* vendor = CloneOf(other.m_pVendorCmdData);
    SFData* device = CloneOf(other.m_pDeviceCmdData);
    SFRespData* response = CloneOf(other.m_pResponseData);
    Replace(m_pRequestData, request);
    Replace(m_pVendorCmdData, vendor);
    Replace(m_pDeviceCmdData, device);
    Replace(m_pResponseData, response);
    return *this;
}

SFMessage* SFMessage::Clone() const {
    SFMessage* copy = new SFMessage(direction, soFunc, soFuncName, timeout, CloneOf(m_pRequestData),
                                    CloneOf(m_pResponseData));
    copy->m_pVendorCmdData = CloneOf(m_pVendorCmdData);
    copy->m_pDeviceCmdData = CloneOf(m_pDeviceCmdData);
    return copy;
}

void SFMessage::SetRequestData(SFData* data) { Replace(m_pRequestData, data); }

void SFMessage::SetVendorCommandData(SFData* data) { Replace(m_pVendorCmdData, data); }

void SFMessage::SetDeviceCommandData(SFData* data) { Replace(m_pDeviceCmdData, data); }

void SFMessage::SetResponseData(SFRespData* data) { Replace(m_pResponseData, data); }
