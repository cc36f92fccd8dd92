#include "io/Formatter.h"

#include <cstring>

namespace {
void Put32(unsigned char* at, uint32_t value) { memcpy(at, &value, sizeof value); }
}  // namespace

Formatter::Formatter()
    : m_nResult(1), m_pRequest(new View{nullptr, 0}), m_pResponse(new View{nullptr, 0}) {}

Formatter::~Formatter() {
    delete m_pRequest;
    delete m_pResponse;
}

void Formatter::SetResult(int result) { m_nResult = result; }

// A negative length counts as none.
void Formatter::SetRequest(char* data, int length) {
    m_pRequest->data = data;
    m_pRequest->length = length > 0 ? static_cast<uint32_t>(length) : 0;
}

void Formatter::SetResponse(char* data, int length) {
    m_pResponse->data = data;
    m_pResponse->length = length > 0 ? static_cast<uint32_t>(length) : 0;
}

void Formatter::GetOutputData(unsigned char** output, int& length) {
    if (output == nullptr || m_pRequest->data == nullptr || m_pRequest->data[0] == '\0' ||
        m_pRequest->length == 0)
        return;
    const size_t r = m_pRequest->length;
    // Response bytes without data behind them are written as none.
    const size_t s = m_pResponse->data ? m_pResponse->length : 0;
    unsigned char* out = new unsigned char[r + s + 13]();
    Put32(out, static_cast<uint32_t>(m_nResult));
    Put32(out + 4, static_cast<uint32_t>(r));
    memcpy(out + 8, m_pRequest->data, r);
    Put32(out + 8 + r, static_cast<uint32_t>(s));
    if (s >= 1) memcpy(out + 12 + r, m_pResponse->data, s);
    *output = out;
    length = static_cast<int>(r + s + 12);
}
