#include "Options.h"

#include <cstdlib>
#include <iostream>

#ifndef VORN_VERSION
#define VORN_VERSION "unknown"
#endif

namespace vornctl {

namespace {

enum OptionId {
    kOptSocket,
    kOptTcp,
    kOptTimeout,
    kOptJson,
    kOptHex,
    kOptPlan,
    kOptJunit,
    kOptRepeat,
    kOptStopOnFailure,
    kOptVersion,
    kOptHelp,
};

struct OptionSpec {
    OptionId id;
    const char* longName;
    char shortName;     // 0: long form only
    const char* value;  // null: a flag
    const char* help;
};

const OptionSpec kOptions[] = {
    {kOptSocket, "socket", 's', "NAME", "abstract socket name of the daemon (default \"vorn\")"},
    {kOptTcp, "tcp", 0, "HOST:PORT", "connect over TCP instead (e.g. through adb forward)"},
    {kOptTimeout, "timeout", 't', "SEC", "limit for connecting and for each reply (default 20)"},
    {kOptJson, "json", 'j', nullptr, "one JSON object a reply (a step with --plan), one a line"},
    {kOptHex, "hex", 'x', nullptr, "dump the response bytes in hex"},
    {kOptPlan, "plan", 'p', "FILE", "run the command plan FILE and check every reply"},
    {kOptJunit, "junit", 0, "PATH", "with --plan: also write a JUnit XML report to PATH"},
    {kOptRepeat, "repeat", 'r', "N", "with --plan: run the plan N times (default 1)"},
    {kOptStopOnFailure, "stop-on-failure", 0, nullptr,
     "with --plan: stop at the first failed step"},
    {kOptVersion, "version", 'V', nullptr, "print the version and exit"},
    {kOptHelp, "help", 'h', nullptr, "this text"},
};

int Bad(const std::string& message) {
    std::cerr << "vornctl: " << message << " (see --help)\n";
    return kExitNoAnswer;
}

// Applies one option with its value (empty for a flag).
int Apply(const OptionSpec& o, const std::string& v, Options& opt, bool& done) {
    switch (o.id) {
        case kOptSocket:
            opt.endpoint.socketName = v;
            break;
        case kOptTcp: {
            const std::string err = opt.endpoint.SetTcp(v);
            if (!err.empty()) return Bad(err);
            break;
        }
        case kOptTimeout: {
            char* end = nullptr;
            const double t = std::strtod(v.c_str(), &end);
            if (v.empty() || *end != '\0' || !(t > 0) || t > 86400)
                return Bad("--timeout needs a number of seconds, not \"" + v + "\"");
            opt.timeoutSec = t;
            break;
        }
        case kOptJson:
            opt.format = kJson;
            break;
        case kOptHex:
            if (opt.format != kJson) opt.format = kHex;  // --json wins, in either order
            break;
        case kOptPlan:
            opt.planPath = v;
            break;
        case kOptJunit:
            opt.junitPath = v;
            break;
        case kOptRepeat: {
            char* end = nullptr;
            const long n = std::strtol(v.c_str(), &end, 10);
            if (v.empty() || *end != '\0' || n < 1 || n > 1000000)
                return Bad("--repeat needs a count of 1 or more, not \"" + v + "\"");
            opt.repeat = static_cast<int>(n);
            break;
        }
        case kOptStopOnFailure:
            opt.stopOnFailure = true;
            break;
        case kOptVersion:
            std::cout << "vornctl " << VORN_VERSION << "\n";
            done = true;
            break;
        case kOptHelp:
            Usage(std::cout);
            done = true;
            break;
    }
    return kExitOk;
}

}  // namespace

void Usage(std::ostream& out) {
    out << "Usage: vornctl [OPTION]... COMMAND...\n"
           "       vornctl [OPTION]... --plan FILE [--junit PATH]\n"
           "Sends each COMMAND to vornd and prints the decoded reply.\n"
           "With no COMMAND and no plan, commands are read from standard input, one a line.\n"
           "Options may stand anywhere; a value follows its option or is joined to it with\n"
           "\"=\" (--timeout=5); arguments after \"--\" are all commands.\n"
           "\n";
    for (const OptionSpec& o : kOptions) {
        std::string left = o.shortName ? std::string("-") + o.shortName + ", " : "    ";
        left += std::string("--") + o.longName;
        if (o.value) left += std::string(" ") + o.value;
        out << "  " << left << std::string(left.size() < 24 ? 24 - left.size() : 1, ' ') << o.help
            << "\n";
    }
    out << "\n"
           "A plan has one command a line, optionally followed by what is expected:\n"
           "  JXT+MEMORY  => 0 /MemTotal:\\d+ kB/\n"
           "a result code and optionally a regular expression the response must contain;\n"
           "without \"=>\" the result must be 0. \"#\" at the start of a line or after a blank\n"
           "starts a comment.\n"
           "\n"
           "Exit status: 0 all results 0 (every step passed), 1 some result not 0 (some step\n"
           "failed), 2 usage error, daemon unreachable, no reply in time or a reply to another\n"
           "command.\n"
           "vornctl does not catch signals: SIGHUP, SIGINT or SIGTERM end it at once, before any\n"
           "summary or JUnit report is written.\n";
}

int ParseOptions(int argc, char** argv, Options& opt, bool& done) {
    done = false;
    int i = 1;
    for (; i < argc && !done; ++i) {
        const std::string a = argv[i];
        if (a == "--") {
            ++i;
            break;
        }
        // Commands never start with "--" (and one that does can follow "--").
        if (a.size() < 2 || a[0] != '-') {
            opt.commands.push_back(a);
            continue;
        }
        const OptionSpec* row = nullptr;
        std::string value;
        bool hasValue = false;
        if (a[1] == '-') {
            const size_t eq = a.find('=');
            const std::string name = a.substr(2, eq == std::string::npos ? eq : eq - 2);
            for (const OptionSpec& o : kOptions)
                if (name == o.longName) row = &o;
            if (eq != std::string::npos) {
                value = a.substr(eq + 1);
                hasValue = true;
            }
        } else {
            for (const OptionSpec& o : kOptions)
                if (o.shortName == a[1]) row = &o;
            // Anything else with one dash is a command, as it always was ("-5").
            if (!row) {
                opt.commands.push_back(a);
                continue;
            }
            if (a.size() > 2) {  // -t5
                value = a.substr(2);
                hasValue = true;
            }
        }
        if (!row) return Bad("unknown option " + a);
        if (!row->value && hasValue) return Bad(a.substr(0, a.find('=')) + " takes no value");
        if (row->value && !hasValue) {
            if (i + 1 >= argc) return Bad(a + " needs a value");
            value = argv[++i];
        }
        const int rc = Apply(*row, value, opt, done);
        if (rc != kExitOk) return rc;
    }
    if (done) return kExitOk;
    for (; i < argc; ++i) opt.commands.emplace_back(argv[i]);

    if (!opt.planPath.empty()) {
        if (!opt.commands.empty()) return Bad("--plan takes no commands on the line");
        if (opt.format == kHex) return Bad("--hex does not apply to --plan");
    } else if (!opt.junitPath.empty() || opt.repeat != 1 || opt.stopOnFailure) {
        return Bad("--junit, --repeat and --stop-on-failure need --plan");
    }
    for (const std::string& c : opt.commands)
        if (c.empty()) return Bad("empty command (vornd ignores empty transmissions)");
    return kExitOk;
}

}  // namespace vornctl
