#ifndef VORN_DAEMON_VORNCTL_JUNITREPORT_H
#define VORN_DAEMON_VORNCTL_JUNITREPORT_H

// A plan run as a JUnit XML report, the format CI servers and station dashboards read: one
// test suite a round, one test case a step with its time, its failure and the reply.

#include <string>
#include <vector>

#include "Plan.h"
#include "StepOutcome.h"

namespace vornctl {

// Empty on success, otherwise why the file could not be written.
std::string WriteJUnitReport(const std::string& path, const Plan& plan, int rounds,
                             const std::vector<StepOutcome>& outcomes);

}  // namespace vornctl

#endif
