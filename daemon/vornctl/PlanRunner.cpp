#include "PlanRunner.h"

#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <vector>

#include "Connection.h"
#include "JUnitReport.h"
#include "Output.h"
#include "StepOutcome.h"

namespace vornctl {

namespace {

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string Fixed(double v) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", v);
    return buf;
}

std::string TimeoutText(double seconds) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%g", seconds);
    return buf;
}

// Checks a reply against the step's expectation.
void Judge(const PlanStep& step, StepOutcome& o) {
    const ReplyRecord& r = o.reply;
    if (r.result != step.expectedResult) {
        o.kind = "result";
        o.message = "expected result " + std::to_string(step.expectedResult) + ", got " +
                    std::to_string(r.result) + " (" + Meaning(r.result) + ")";
        return;
    }
    if (step.hasPattern) {
        bool found = false;
        try {
            found = std::regex_search(r.response, step.regex);
        } catch (const std::regex_error& e) {
            o.kind = "response";
            o.message = "regular expression /" + Printable(step.pattern) + "/ failed: " + e.what();
            return;
        }
        if (!found) {
            o.kind = "response";
            o.message = "response does not match /" + Printable(step.pattern) + "/";
            return;
        }
    }
    o.passed = true;
}

void PrintText(const StepOutcome& o, int rounds) {
    std::cout << (o.passed ? "PASS" : "FAIL") << "  ";
    if (rounds > 1) std::cout << "round " << o.round << "  ";
    std::cout << "line " << o.step->line << "  " << Escape(o.step->command) << "  ("
              << Fixed(o.seconds) << " s)";
    if (!o.passed) {
        std::cout << ": " << o.message << "\n";
        if (o.gotReply)
            std::cout << "      reply " << o.reply.result << " (" << Meaning(o.reply.result)
                      << "): " << Escape(o.reply.response) << "\n";
    } else {
        std::cout << "\n";
    }
    std::cout.flush();
}

void PrintJson(const StepOutcome& o) {
    const PlanStep& s = *o.step;
    std::cout << "{\"round\":" << o.round << ",\"line\":" << s.line
              << ",\"command\":" << JsonString(s.command)
              << ",\"passed\":" << (o.passed ? "true" : "false") << ",\"time\":" << Fixed(o.seconds)
              << ",\"expected_result\":" << s.expectedResult
              << ",\"expected_match\":" << (s.hasPattern ? JsonString(s.pattern) : "null");
    if (o.gotReply)
        std::cout << ",\"result\":" << o.reply.result
                  << ",\"meaning\":" << JsonString(Meaning(o.reply.result))
                  << ",\"response\":" << JsonString(o.reply.response);
    else
        std::cout << ",\"result\":null,\"meaning\":null,\"response\":null";
    std::cout << ",\"message\":" << JsonString(o.message) << "}\n";
    std::cout.flush();
}

// A line on the terminal that shows a long wait is a wait, not a hang. Only on a terminal, so
// logs and pipes stay clean.
class Progress {
public:
    Progress() : m_bOn(isatty(STDERR_FILENO) == 1) {}
    void Waiting(const std::string& command, Clock::time_point since, double limit) {
        if (!m_bOn) return;
        std::cerr << "\r\033[K  waiting for " << Escape(command).substr(0, 60) << ": "
                  << static_cast<int>(SecondsSince(since)) << " s of " << TimeoutText(limit)
                  << std::flush;
        m_bShown = true;
    }
    void Clear() {
        if (m_bShown) std::cerr << "\r\033[K" << std::flush;
        m_bShown = false;
    }

private:
    bool m_bOn;
    bool m_bShown = false;
};

}  // namespace

int RunPlan(const Plan& plan, const Options& opt) {
    Connection conn;
    if (!conn.OpenOrReport(opt.endpoint, opt.timeoutSec)) return kExitNoAnswer;
    const Clock::duration timeout = Seconds(opt.timeoutSec);
    std::string err;

    // Every outcome is kept only for a report: a plan repeated all night keeps counters.
    const bool keep = !opt.junitPath.empty();
    std::vector<StepOutcome> outcomes;
    size_t passed = 0, failed = 0, notRun = 0;
    Progress progress;
    bool stopped = false, unreachable = false;
    const auto runStart = Clock::now();
    for (int round = 1; round <= opt.repeat; ++round) {
        for (const PlanStep& step : plan.steps) {
            StepOutcome o;
            o.step = &step;
            o.round = round;
            if (stopped) {
                ++notRun;
                if (keep) outcomes.push_back(o);
                continue;
            }
            o.run = true;
            const auto start = Clock::now();
            if (!step.malformed.empty()) {
                o.kind = "malformed";
                o.message = "malformed plan line: " + step.malformed;
            } else if (!conn.IsOpen() &&
                       !(err = conn.Open(opt.endpoint, Clock::now() + timeout)).empty()) {
                o.kind = "connection";
                o.message = "cannot reach vornd on " + opt.endpoint.Describe() + ": " + err;
                unreachable = true;
            } else if (!(err = conn.Send(step.command)).empty()) {
                o.kind = "connection";
                o.message = "cannot send: " + err;
                conn.Close();
            } else {
                const auto status = conn.ReadReply(o.reply, Clock::now() + timeout, err, [&] {
                    progress.Waiting(step.command, start, opt.timeoutSec);
                });
                progress.Clear();
                if (status == Connection::kReply && IsReplyTo(o.reply, step.command)) {
                    o.gotReply = true;
                    Judge(step, o);
                } else {
                    // A late or foreign reply may still be on its way: a fresh connection for
                    // the next step keeps it from being taken for that step's answer.
                    conn.Close();
                    if (status == Connection::kReply) {
                        std::cerr << "vornctl: reply to another command: sent \""
                                  << Escape(step.command) << "\", the reply echoes \""
                                  << Escape(o.reply.request) << "\"\n";
                        o.kind = "connection";
                        o.message =
                            "reply to another command (\"" + Escape(o.reply.request) + "\")";
                    } else if (status == Connection::kTimeout) {
                        o.kind = "timeout";
                        o.message = "no reply within " + TimeoutText(opt.timeoutSec) + " s";
                        if (err != "timed out") o.message += " (" + err + ")";
                    } else {
                        o.kind = "connection";
                        o.message = "no reply: " + err;
                    }
                }
            }
            o.seconds = SecondsSince(start);
            if (opt.format == kJson)
                PrintJson(o);
            else
                PrintText(o, opt.repeat);
            ++(o.passed ? passed : failed);
            if (keep) outcomes.push_back(o);
            if (unreachable || (!o.passed && opt.stopOnFailure)) stopped = true;
        }
    }

    std::ostream& summary = opt.format == kJson ? std::cerr : std::cout;
    const size_t steps = passed + failed + notRun;
    summary << "vornctl: " << steps << (steps == 1 ? " step" : " steps") << ": " << passed
            << " passed, " << failed << " failed";
    if (notRun > 0) summary << ", " << notRun << " not run";
    summary << " (" << Fixed(SecondsSince(runStart)) << " s)\n";
    summary.flush();

    if (!opt.junitPath.empty()) {
        err = WriteJUnitReport(opt.junitPath, plan, opt.repeat, outcomes);
        if (!err.empty()) {
            std::cerr << "vornctl: cannot write the JUnit report " << opt.junitPath << ": " << err
                      << "\n";
            if (!unreachable) return kExitFailed;
        }
    }
    if (unreachable) return kExitNoAnswer;
    return failed > 0 ? kExitFailed : kExitOk;
}

}  // namespace vornctl
