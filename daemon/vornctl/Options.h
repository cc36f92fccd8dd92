#ifndef VORN_DAEMON_VORNCTL_OPTIONS_H
#define VORN_DAEMON_VORNCTL_OPTIONS_H

// vornctl's command line: one table row an option, "--opt value", "--opt=value" and "-o value".

#include <ostream>
#include <string>
#include <vector>

#include "Connection.h"
#include "Output.h"

namespace vornctl {

constexpr int kExitOk = 0;
constexpr int kExitFailed = 1;    // a result not 0, or a plan step that failed
constexpr int kExitNoAnswer = 2;  // usage error, daemon unreachable, no (right) reply in time

struct Options {
    Endpoint endpoint;
    double timeoutSec = 20.0;  // above the daemon's 15-second default request timeout
    ReplyFormat format = kText;
    std::string planPath;
    std::string junitPath;
    int repeat = 1;
    bool stopOnFailure = false;
    std::vector<std::string> commands;
};

void Usage(std::ostream& out);

// kExitOk to go on; otherwise the status to leave with. `done` is set when the request was
// served already (--help, --version).
int ParseOptions(int argc, char** argv, Options& opt, bool& done);

}  // namespace vornctl

#endif
