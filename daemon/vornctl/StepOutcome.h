#ifndef VORN_DAEMON_VORNCTL_STEPOUTCOME_H
#define VORN_DAEMON_VORNCTL_STEPOUTCOME_H

#include <string>

#include "Plan.h"
#include "ReplyRecord.h"

namespace vornctl {

// What became of one plan step in one round.
struct StepOutcome {
    const PlanStep* step = nullptr;
    int round = 1;
    bool run = false;  // false: left out after a failure with --stop-on-failure
    bool passed = false;
    double seconds = 0;
    bool gotReply = false;
    ReplyRecord reply;
    std::string kind;  // of a failure: "malformed", "result", "response", "timeout", "connection"
    std::string message;  // why it failed; empty when it passed
};

}  // namespace vornctl

#endif
