#include "Plan.h"

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "Output.h"

namespace vornctl {

namespace {

// A plan is a hand-written file; one this large is a mistake (a binary, a log).
constexpr std::streamoff kMaxPlanBytes = 4 * 1024 * 1024;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

std::string Trim(const std::string& s) {
    size_t b = 0, e = s.size();
    while (b < e && IsBlank(s[b])) ++b;
    while (e > b && IsBlank(s[e - 1])) --e;
    return s.substr(b, e - b);
}

// Whether s[from..] is only blanks, optionally followed by a comment.
bool OnlyCommentFrom(const std::string& s, size_t from) {
    while (from < s.size() && IsBlank(s[from])) ++from;
    return from == s.size() || s[from] == '#';
}

// Parses what follows "=>"; empty on success, otherwise what is wrong.
std::string ParseExpectation(const std::string& rest, PlanStep& step) {
    size_t i = 0;
    while (i < rest.size() && IsBlank(rest[i])) ++i;
    const size_t start = i;
    if (i < rest.size() && (rest[i] == '-' || rest[i] == '+')) ++i;
    while (i < rest.size() && rest[i] >= '0' && rest[i] <= '9') ++i;
    const std::string code = rest.substr(start, i - start);
    if (code.empty() || code == "-" || code == "+") return "a result code must follow \"=>\"";
    if (i < rest.size() && !IsBlank(rest[i]) && rest[i] != '#' && rest[i] != '/')
        return "a result code must follow \"=>\"";
    errno = 0;
    const long long value = std::strtoll(code.c_str(), nullptr, 10);
    if (errno != 0 || value < INT32_MIN || value > INT32_MAX)
        return "result code " + code + " is out of range";
    step.expectedResult = static_cast<int32_t>(value);
    while (i < rest.size() && IsBlank(rest[i])) ++i;
    if (i == rest.size() || rest[i] == '#') return {};
    if (rest[i] != '/') return "after the result code only /REGEX/ or a comment may follow";
    const size_t open = i;
    size_t close = std::string::npos;
    for (size_t k = rest.size(); k-- > open + 1;) {
        if (rest[k] == '/' && OnlyCommentFrom(rest, k + 1)) {
            close = k;
            break;
        }
    }
    if (close == std::string::npos) return "the regular expression has no closing \"/\"";
    step.pattern = rest.substr(open + 1, close - open - 1);
    try {
        step.regex = std::regex(step.pattern, std::regex::ECMAScript);
    } catch (const std::regex_error& e) {
        return "bad regular expression /" + Printable(step.pattern) + "/: " + e.what();
    }
    step.hasPattern = true;
    return {};
}

}  // namespace

bool ParsePlanLine(const std::string& raw, PlanStep& step) {
    std::string line = raw;
    if (!line.empty() && line.back() == '\r') line.pop_back();  // plans written on Windows
    const std::string trimmed = Trim(line);
    if (trimmed.empty() || trimmed[0] == '#') return false;
    // A "#" after a blank starts a comment, unless it stands after the "=>" (a regular
    // expression may hold one); an "=>" inside a comment is part of the comment.
    size_t comment = line.size();
    for (size_t k = 1; k < line.size(); ++k) {
        if (line[k] == '#' && IsBlank(line[k - 1])) {
            comment = k;
            break;
        }
    }
    const size_t arrow = line.find("=>");
    if (arrow == std::string::npos || arrow > comment) {
        step.command = Trim(line.substr(0, comment));
        return true;
    }
    step.command = Trim(line.substr(0, arrow));
    if (step.command.empty()) {
        step.malformed = "no command before \"=>\"";
        return true;
    }
    step.malformed = ParseExpectation(line.substr(arrow + 2), step);
    return true;
}

std::string LoadPlan(const std::string& path, Plan& plan) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return std::strerror(errno);
    in.seekg(0, std::ios::end);
    if (in.tellg() > kMaxPlanBytes) return "larger than 4 MiB: not a plan";
    in.seekg(0);
    const size_t slash = path.rfind('/');
    plan.name = path.substr(slash == std::string::npos ? 0 : slash + 1);
    const size_t dot = plan.name.rfind('.');
    if (dot != std::string::npos && dot > 0) plan.name.erase(dot);
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        PlanStep step;
        step.line = number;
        if (ParsePlanLine(line, step)) plan.steps.push_back(std::move(step));
    }
    if (plan.steps.empty()) return "no command in it";
    return {};
}

}  // namespace vornctl
