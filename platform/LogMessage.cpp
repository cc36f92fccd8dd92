#include "platform/LogMessage.h"

#include <android/log.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <sstream>

namespace {
std::atomic<int> g_minSeverity{2};
std::atomic<bool> g_hookInstalled{false};
std::mutex g_hookLock;  // guards g_hook
LogMessage::CaptureHook g_hook;

// A stream whose buffer is null: every insertion fails at once, nothing is formatted.
std::ostream& NullStream() {
    thread_local std::ostream s(nullptr);
    return s;
}

int ToAndroidPriority(int severity) {
    switch (severity) {
        case 1:
            return ANDROID_LOG_DEBUG;
        case 2:
            return ANDROID_LOG_INFO;
        case 3:
            return ANDROID_LOG_WARN;
        default:
            return severity >= 4 ? ANDROID_LOG_ERROR : ANDROID_LOG_DEBUG;
    }
}
}  // namespace

LogMessage::LogMessage(LogSeverity severity, std::string tag, std::string function)
    : m_strTag(std::move(tag)), m_strFunction(std::move(function)) {
    Init(severity, m_strTag.c_str(), m_strFunction.c_str());
}

LogMessage::LogMessage(LogSeverity severity, const char* tag, const char* function) {
    Init(severity, tag, function);
}

void LogMessage::Init(LogSeverity severity, const char* tag, const char* function) {
    m_nSeverity = severity;
    m_pTag = tag ? tag : "";
    m_pFunction = function ? function : "";
    m_bOn = IsOn(severity);
    m_pStream = m_bOn ? new std::ostringstream : nullptr;
}

std::ostream& LogMessage::stream() {
    return m_pStream ? *static_cast<std::ostringstream*>(m_pStream) : NullStream();
}

LogMessage::~LogMessage() {
    if (!m_pStream) return;
    std::unique_ptr<std::ostringstream> s(static_cast<std::ostringstream*>(m_pStream));
    const std::string text = s->str();
    if (g_hookInstalled.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> lock(g_hookLock);
        if (g_hook) g_hook(m_nSeverity, m_pTag, m_pFunction, text);
    }
    if (m_nSeverity >= g_minSeverity.load(std::memory_order_relaxed)) {
        std::string line;
        line.reserve(text.size() + 32);
        line.append("[").append(m_pFunction).append("] ").append(text);
        __android_log_write(ToAndroidPriority(m_nSeverity), m_pTag, line.c_str());
    }
}

void LogMessage::SetMinSeverity(int severity) {
    severity = std::max(1, std::min(severity, 4));
    g_minSeverity.store(severity, std::memory_order_relaxed);
    __android_log_set_minimum_priority(ToAndroidPriority(severity));
}

int LogMessage::GetMinSeverity() { return g_minSeverity.load(std::memory_order_relaxed); }

bool LogMessage::IsOn(int severity) {
    return severity >= g_minSeverity.load(std::memory_order_relaxed) ||
           g_hookInstalled.load(std::memory_order_relaxed);
}

void LogMessage::SetCaptureHook(CaptureHook hook) {
    std::lock_guard<std::mutex> lock(g_hookLock);
    g_hook = std::move(hook);
    g_hookInstalled.store(static_cast<bool>(g_hook), std::memory_order_release);
}

void DumpLogBytes(const char* tag, const char* function, const char* label, const void* data,
                  std::size_t length) {
    // Large blocks are cut: a 24 KiB transmission must not become a thousand log lines.
    constexpr std::size_t kMaxDump = 256;
    const auto* bytes = static_cast<const unsigned char*>(data);
    LogMessage msg(1, tag, function);
    std::ostream& out = msg.stream();
    out << label << " (" << length << " bytes)";
    if (!bytes) return;
    const std::size_t shown = std::min(length, kMaxDump);
    char hex[4];
    for (std::size_t row = 0; row < shown; row += 16) {
        out << "\n";
        std::string printable;
        for (std::size_t i = row; i < row + 16; ++i) {
            if (i < shown) {
                std::snprintf(hex, sizeof hex, "%02x ", bytes[i]);
                out << hex;
                printable += (bytes[i] >= 0x20 && bytes[i] < 0x7f) ? char(bytes[i]) : '.';
            } else {
                out << "   ";
            }
        }
        out << " " << printable;
    }
    if (shown < length) out << "\n... " << (length - shown) << " more bytes";
}

std::ostream& operator<<(std::ostream& out, const EscapedText& text) {
    // A line that is off has a stream without a buffer: nothing to format.
    if (!out.good() || text.data == nullptr) return out;
    static const char kHex[] = "0123456789abcdef";
    const std::size_t shown = std::min(text.length, text.limit);
    std::string escaped;
    escaped.reserve(shown);
    for (std::size_t i = 0; i < shown; ++i) {
        const auto byte = static_cast<unsigned char>(text.data[i]);
        if (byte >= 0x20 && byte < 0x7f) {
            escaped += static_cast<char>(byte);
        } else {
            escaped += "\\x";
            escaped += kHex[byte >> 4];
            escaped += kHex[byte & 0xf];
        }
    }
    out << escaped;
    if (shown < text.length) out << " ...(" << text.length << " bytes)";
    return out;
}
