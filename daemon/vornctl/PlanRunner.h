#ifndef VORN_DAEMON_VORNCTL_PLANRUNNER_H
#define VORN_DAEMON_VORNCTL_PLANRUNNER_H

// Runs a command plan against vornd: each step sent after the previous reply, one line a step
// (or one JSON object), a summary, and optionally a JUnit report.

#include "Options.h"
#include "Plan.h"

namespace vornctl {

// The exit status: 0 every step passed, 1 some failed, 2 vornd could not be reached.
int RunPlan(const Plan& plan, const Options& opt);

}  // namespace vornctl

#endif
