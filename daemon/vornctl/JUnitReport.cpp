#include "JUnitReport.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "Output.h"

namespace vornctl {

namespace {

// Text for XML content and attributes. Bytes from a reply have been through Escape already;
// what comes from the plan file (a pattern) may hold anything, so bytes that are not valid
// UTF-8 and control characters become "?", and the report always parses.
std::string Xml(const std::string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        const char c = s[i];
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\n':
                out += "&#10;";
                break;
            default:
                if (static_cast<unsigned char>(c) >= 0x80) {
                    const size_t n = Utf8Length(s, i);
                    if (n == 0) {
                        out += '?';
                    } else {
                        out.append(s, i, n);
                        i += n - 1;
                    }
                } else {
                    out += static_cast<unsigned char>(c) < 0x20 || c == 0x7f ? '?' : c;
                }
        }
    }
    return out;
}

std::string Seconds(double s) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", s);
    return buf;
}

std::string ReplyText(const StepOutcome& o) {
    if (!o.gotReply) return "no reply";
    return "result " + std::to_string(o.reply.result) + " (" + Meaning(o.reply.result) +
           ")\ncommand " + Escape(o.reply.request) + "\nresponse " + Escape(o.reply.response);
}

// The counts a testsuites or testsuite element carries.
struct Tally {
    int tests = 0, failures = 0, skipped = 0;
    double seconds = 0;

    void Add(const StepOutcome& o) {
        ++tests;
        if (!o.run)
            ++skipped;
        else if (!o.passed)
            ++failures;
        seconds += o.seconds;
    }
    std::string Attributes() const {
        return " tests=\"" + std::to_string(tests) + "\" failures=\"" + std::to_string(failures) +
               "\" errors=\"0\" skipped=\"" + std::to_string(skipped) + "\" time=\"" +
               Seconds(seconds) + "\"";
    }
};

}  // namespace

std::string WriteJUnitReport(const std::string& path, const Plan& plan, int rounds,
                             const std::vector<StepOutcome>& outcomes) {
    Tally all;
    for (const StepOutcome& o : outcomes) all.Add(o);
    char stamp[32] = "";
    const std::time_t now = std::time(nullptr);
    std::tm tm{};
    if (gmtime_r(&now, &tm)) std::strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S", &tm);

    std::ostringstream x;
    x << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      << "<testsuites name=\"vornctl\"" << all.Attributes() << ">\n";
    for (int round = 1; round <= rounds; ++round) {
        Tally tally;
        for (const StepOutcome& o : outcomes)
            if (o.round == round) tally.Add(o);
        const std::string suite =
            rounds > 1 ? plan.name + " (round " + std::to_string(round) + ")" : plan.name;
        x << "  <testsuite name=\"" << Xml(suite) << "\"" << tally.Attributes() << " timestamp=\""
          << stamp << "\">\n";
        for (const StepOutcome& o : outcomes) {
            if (o.round != round) continue;
            x << "    <testcase classname=\"" << Xml(plan.name) << "\" name=\""
              << Xml("line " + std::to_string(o.step->line) + ": " + Escape(o.step->command))
              << "\" time=\"" << Seconds(o.seconds) << "\"";
            if (!o.run) {
                x << ">\n      <skipped message=\"not run after an earlier failure\"/>\n"
                  << "    </testcase>\n";
                continue;
            }
            x << ">\n";
            if (!o.passed)
                x << "      <failure type=\"" << Xml(o.kind) << "\" message=\"" << Xml(o.message)
                  << "\">" << Xml(ReplyText(o)) << "</failure>\n";
            if (o.gotReply) x << "      <system-out>" << Xml(ReplyText(o)) << "</system-out>\n";
            x << "    </testcase>\n";
        }
        x << "  </testsuite>\n";
    }
    x << "</testsuites>\n";

    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return std::strerror(errno);
    out << x.str();
    out.flush();
    if (!out) return "write failed";
    return {};
}

}  // namespace vornctl
