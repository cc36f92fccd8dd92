#ifndef VORN_IO_FORMATTER_H
#define VORN_IO_FORMATTER_H

#include <cstdint>

#include "core/VornExport.h"

// Builds the reply record: int32 result, uint32 R, R request bytes, uint32 S, S response
// bytes (native byte order, little-endian on the target).
class VORN_EXPORT Formatter {
public:
    struct View {
        char* data;
        uint32_t length;
    };

    Formatter();
    ~Formatter();
    Formatter(const Formatter&) = delete;
    Formatter& operator=(const Formatter&) = delete;

    void SetResult(int result);
    void SetRequest(char* data, int length);
    void SetResponse(char* data, int length);
    // Allocates R + S + 13 zeroed bytes (new[]; the caller releases with delete[]) and stores
    // R + S + 12 in length; leaves both untouched when the request is empty.
    void GetOutputData(unsigned char** output, int& length);

private:
    int32_t m_nResult;
    View* m_pRequest;
    View* m_pResponse;
};

#endif
