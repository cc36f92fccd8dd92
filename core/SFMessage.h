#ifndef VORN_CORE_SFMESSAGE_H
#define VORN_CORE_SFMESSAGE_H

#include <cstdint>

#include "core/DataDirection.h"
#include "core/SFData.h"
#include "core/SFRespData.h"
#include "core/VornExport.h"

// One request or response travelling through a service. It owns its four payloads.
class VORN_EXPORT SFMessage {
public:
    SFMessage(MsgDirection direction, void* soFunc, char const* soFuncName, int timeout,
              SFData* request, SFRespData* response);
    static SFMessage* NewInstance(MsgDirection direction, void* soFunc, char const* soFuncName,
                                  int timeout, SFData* request, SFRespData* response);
    // The same with the direction as a plain number (1 request, 2 response).
    SFMessage(int direction, void* soFunc, char const* soFuncName, int timeout, SFData* request,
              SFRespData* response)
        : SFMessage(static_cast<MsgDirection>(direction), soFunc, soFuncName, timeout, request,
                    response) {}
    static SFMessage* NewInstance(int direction, void* soFunc, char const* soFuncName, int timeout,
                                  SFData* request, SFRespData* response) {
        return NewInstance(static_cast<MsgDirection>(direction), soFunc, soFuncName, timeout,
                           request, response);
    }
    virtual ~SFMessage();
    // Replaces each payload by a clone of the other's and releases the payloads held before.
    virtual SFMessage& operator=(SFMessage const& other);
    virtual SFMessage* Clone() const;

    // Each setter deletes the payload it replaces; setting the payload already held is a no-op.
    void SetRequestData(SFData* data);
    void SetVendorCommandData(SFData* data);
    void SetDeviceCommandData(SFData* data);
    void SetResponseData(SFRespData* data);
    SFData* GetRequestData() const { return m_pRequestData; }
    SFData* GetVendorCommandData() const { return m_pVendorCmdData; }
    SFData* GetDeviceCommandData() const { return m_pDeviceCmdData; }
    SFRespData* GetResponseData() const { return m_pResponseData; }

    void SetSoFunc(void* func) { soFunc = func; }
    void* GetSoFunc() const { return soFunc; }
    void SetSoFuncName(char* name) { soFuncName = name; }
    char const* GetSoFuncName() const { return soFuncName; }

    int32_t timeout;
    MsgDirection direction;

private:
    SFData* m_pRequestData;
    SFData* m_pVendorCmdData;
    SFData* m_pDeviceCmdData;
    SFRespData* m_pResponseData;

public:
    void* soFunc;
    char const* soFuncName;

private:
    SFMessage(const SFMessage&) = delete;
};

#endif
