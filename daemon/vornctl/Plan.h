#ifndef VORN_DAEMON_VORNCTL_PLAN_H
#define VORN_DAEMON_VORNCTL_PLAN_H

// A command plan: one command a line, optionally followed by what is expected of its reply.
//
//   # comment                       a line whose first non-blank is "#" is skipped, as is a
//                                   blank line
//   JXT                             the result must be 0
//   JXT+GSENSOR=bogus  => 22        the result must be 22
//   JXT+MEMORY  => 0 /MemTotal:\d+ kB/   ... and the response must contain a match
//
// The command is the text before "=>" without surrounding blanks; without "=>" it is the line up
// to a "#" that follows a blank. After "=>" come a result code, optionally a regular expression
// between slashes (ECMAScript syntax; the closing slash is the last one that is followed only by
// blanks or a comment), optionally a comment. A line that does not fit is a malformed step:
// reported as a failure, never sent. The Python client reads plans by the same rules.

#include <cstdint>
#include <regex>
#include <string>
#include <vector>

namespace vornctl {

struct PlanStep {
    int line = 0;         // 1-based line in the plan file
    std::string command;  // the bytes to send
    int32_t expectedResult = 0;
    bool hasPattern = false;
    std::string pattern;  // as written between the slashes
    std::regex regex;
    std::string malformed;  // why the line is not a step; empty for a good one
};

struct Plan {
    std::string name;  // the file's name without folders and extension
    std::vector<PlanStep> steps;
};

// Parses one line; false for a blank or comment line.
bool ParsePlanLine(const std::string& line, PlanStep& step);

// Empty on success, otherwise why the file cannot be used at all.
std::string LoadPlan(const std::string& path, Plan& plan);

}  // namespace vornctl

#endif
