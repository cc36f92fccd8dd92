#ifndef VORN_SERVICE_HALISOLATION_H
#define VORN_SERVICE_HALISOLATION_H

#include "core/VornExport.h"

// Where the services call their HAL library. Process-wide; a service takes the setting when it
// is constructed, so a host sets it before it constructs its services.
//
// HAL_ISOLATION_NONE (the default): the library is loaded into this process and its functions
// are called on the request thread, as they always were.
//
// HAL_ISOLATION_PROCESS: each service loads its library in a child process of its own, the HAL
// host (the program at `hostPath`, vorn_halhost, installed beside vornd), started with the
// service. The request thread sends the function name and the input over the host's channel
// and gets the result and the output back; a crash, abort or exit of the HAL ends only its
// host, and a timeout kills the host instead of leaving a thread behind. What changes:
//   - a command answered by a host that died in the call gets 1001;
//   - the command table's rows carry a stand-in address for each function the host exports
//     (calling it directly returns 1001): the daemon never maps the vendor library itself;
//   - HalMalloc returns null and HalFree returns 1, as for a library without those functions:
//     a block of the host's memory means nothing in this process;
//   - SFService::ExcecuteFunc, called by a host program's own code with the service's parser,
//     finds nothing loaded: such code must go through Execute.
enum HalIsolation {
    HAL_ISOLATION_NONE = 0,
    HAL_ISOLATION_PROCESS = 1,
};

// `hostPath` is needed for HAL_ISOLATION_PROCESS and ignored otherwise.
VORN_EXPORT void SetHalIsolation(HalIsolation mode, const char* hostPath);
VORN_EXPORT HalIsolation GetHalIsolation();

// With the HAL in this process, a call that outlives its timeout keeps its thread until it
// returns. A limit above 0 bounds those threads per service: while that many are held, the
// service answers its HAL-backed commands with 1009 ("Out of range") and says so once per
// burst, until one comes back. 0 (the library's default) sets no bound, and every command is
// called as always. Process-wide; vornd sets 8.
VORN_EXPORT void SetHeldCallLimit(int threads);
VORN_EXPORT int GetHeldCallLimit();

#endif
