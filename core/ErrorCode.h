#ifndef VORN_CORE_ERRORCODE_H
#define VORN_CORE_ERRORCODE_H

#include "core/VornExport.h"

// Result codes: 0 success, 1..1000 errno values, 1001..1010 the library's own.
enum ErrorCode {
    ERR_SUCCESS = 0,
    ERR_NORMAL = 1001,
    ERR_TIMEOUT = 1002,
    ERR_UNSUPPORT = 1003,
    ERR_NO_MEMORY = 1004,
    ERR_INVALID_FD = 1005,
    ERR_RESPONSE_NULL = 1006,
    ERR_REQUEST_NULL = 1007,
    ERR_INVALID_PARAM = 1008,
    ERR_OUT_OF_RANGE = 1009,
    ERR_UNKNOWN = 1010
};

// Writes "%d:%s\r\n" for the code into out; nothing for code 0 or a null buffer. Callers pass
// a zero-filled buffer of 256 bytes.
VORN_EXPORT void GetStringByErrCode(int code, char* out);

#endif
