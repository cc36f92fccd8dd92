#ifndef VORN_PLATFORM_LOGMESSAGE_H
#define VORN_PLATFORM_LOGMESSAGE_H

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>

#include "core/VornExport.h"

// Severities: 1 trace, 2 milestone, 3 warning, 4 error.
typedef int LogSeverity;

// One log line. The text is collected through stream() and emitted by the destructor through
// liblog (stderr on Linux, logcat on Android). A line below the minimum severity, with no
// capture hook installed, formats nothing: stream() hands out a stream that discards.
class VORN_EXPORT LogMessage {
public:
    // (severity, tag, function, text) of every emitted line; tests install one to assert lines.
    using CaptureHook =
        std::function<void(int, const std::string&, const std::string&, const std::string&)>;

    LogMessage(LogSeverity severity, std::string tag, std::string function);
    // The common form: string literals need no std::string on the hot path.
    LogMessage(LogSeverity severity, const char* tag, const char* function);
    ~LogMessage();
    LogMessage(const LogMessage&) = delete;
    LogMessage& operator=(const LogMessage&) = delete;

    std::ostream& stream();

    // Lines below this severity are neither formatted nor written to liblog. Also sets liblog's
    // own minimum priority, since liblog on Linux drops debug lines by default.
    static void SetMinSeverity(int severity);
    static int GetMinSeverity();
    // True when a line of this severity would be formatted (enabled or captured).
    static bool IsOn(int severity);
    // Installs (or with an empty hook removes) the process-wide capture hook. While a hook is
    // installed it receives every line, whatever the minimum severity.
    static void SetCaptureHook(CaptureHook hook);

private:
    void Init(LogSeverity severity, const char* tag, const char* function);

    int m_nSeverity;
    bool m_bOn;
    const char* m_pTag;
    const char* m_pFunction;
    std::string m_strTag;
    std::string m_strFunction;
    void* m_pStream;  // std::ostringstream*, only for enabled lines
};

// Bytes that came from a peer, for a log line: printable ASCII as it is, every other byte as
// \xNN, and at most `limit` bytes of it, followed by " ...(N bytes)" when the text was cut. A
// line feed or a terminal escape from a client can so never start a line of its own.
//   LogMessage(4, "VORN", "Run").stream() << "command(" << EscapedText{data, length} << ")";
struct EscapedText {
    const char* data;
    std::size_t length;
    std::size_t limit = 256;
};
std::ostream& operator<<(std::ostream& out, const EscapedText& text);

// Hex and printable dump of a byte block at severity 1, bounded for large blocks.
VORN_EXPORT void DumpLogBytes(const char* tag, const char* function, const char* label,
                              const void* data, std::size_t length);

#define DUMPLOG(tag, label, data, length)                                                          \
    do {                                                                                           \
        if (LogMessage::IsOn(1)) DumpLogBytes((tag), __func__, (label), (data), (size_t)(length)); \
    } while (0)

#endif
