// vornctl: sends commands to vornd and prints the decoded replies, or runs a command plan.
//
// A pure socket client: it speaks the wire protocol (ReplyRecord.h) and needs nothing of
// libvorn_core. Each command goes out as one transmission (its exact bytes, no line end added)
// and is followed by exactly one reply record.
//
//   Options      the command line
//   Connection   the socket (abstract or TCP) and reading reply records
//   ReplyRecord  the record layout and the result codes' texts
//   Output       escaped text, JSON and hex
//   Plan, PlanRunner, JUnitReport   command plans and their reports

#include <iostream>
#include <string>

#include "Connection.h"
#include "Options.h"
#include "Output.h"
#include "Plan.h"
#include "PlanRunner.h"

namespace {

using namespace vornctl;

// Commands from the line or stdin, each printed as it is answered.
int RunCommands(const Options& opt) {
    Connection conn;
    if (!conn.OpenOrReport(opt.endpoint, opt.timeoutSec)) return kExitNoAnswer;
    const Clock::duration timeout = Seconds(opt.timeoutSec);
    std::string err;
    const bool fromStdin = opt.commands.empty();
    bool anyFailed = false;
    size_t next = 0;
    std::string line;
    for (;;) {
        std::string command;
        if (fromStdin) {
            if (!std::getline(std::cin, line)) break;
            while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
            if (line.empty()) continue;
            command = line;
        } else {
            if (next >= opt.commands.size()) break;
            command = opt.commands[next++];
        }
        // One command at a time: the daemon has no framing, so a second command sent before
        // the first reply could be read together with the first as one transmission.
        if (!(err = conn.Send(command)).empty()) {
            std::cerr << "vornctl: cannot send \"" << Escape(command) << "\" to vornd: " << err
                      << "\n";
            return kExitNoAnswer;
        }
        ReplyRecord reply;
        const auto status = conn.ReadReply(reply, Clock::now() + timeout, err);
        if (status == Connection::kTimeout) {
            std::cerr << "vornctl: no reply to \"" << Escape(command) << "\" within "
                      << opt.timeoutSec << " s\n";
            return kExitNoAnswer;
        }
        if (status != Connection::kReply) {
            std::cerr << "vornctl: no reply to \"" << Escape(command) << "\": " << err << "\n";
            return kExitNoAnswer;
        }
        // A vornd run with --reply-routing=latest answers the client that sent last: what
        // another client's command caused is not our answer, and printing it as one would
        // mislead.
        if (!IsReplyTo(reply, command)) {
            std::cerr << "vornctl: reply to another command: sent \"" << Escape(command)
                      << "\", the reply echoes \"" << Escape(reply.request) << "\"\n";
            return kExitNoAnswer;
        }
        PrintReply(reply, opt.format, std::cout);
        if (reply.result != 0) anyFailed = true;
    }
    return anyFailed ? kExitFailed : kExitOk;
}

}  // namespace

int main(int argc, char** argv) {
    Options opt;
    bool done;
    const int rc = ParseOptions(argc, argv, opt, done);
    if (rc != kExitOk || done) return rc;
    if (opt.planPath.empty()) return RunCommands(opt);

    Plan plan;
    const std::string err = LoadPlan(opt.planPath, plan);
    if (!err.empty()) {
        std::cerr << "vornctl: cannot use plan " << opt.planPath << ": " << err << "\n";
        return kExitNoAnswer;
    }
    return RunPlan(plan, opt);
}
