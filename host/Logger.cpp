#include "host/Logger.h"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

namespace {

// Appends one printf conversion, formatted by the C library.
template <typename T>
void appendConverted(std::string& out, const std::string& directive, T value) {
    char small[128];
    int n = std::snprintf(small, sizeof small, directive.c_str(), value);
    if (n < 0) return;
    if (static_cast<size_t>(n) < sizeof small) {
        out.append(small, static_cast<size_t>(n));
        return;
    }
    std::string big(static_cast<size_t>(n) + 1, '\0');
    std::snprintf(big.data(), big.size(), directive.c_str(), value);
    out.append(big.data(), static_cast<size_t>(n));
}

// A text: as it is for a bare "%s", the most common directive.
void appendConverted(std::string& out, const std::string& directive, const char* text) {
    if (directive == "%s")
        out.append(text);
    else
        appendConverted<const char*>(out, directive, text);
}

}  // namespace

LightweightString<char> formatTextV(const char* format, va_list args) {
    std::string out;
    if (!format) return {};
    va_list ap;
    va_copy(ap, args);
    for (const char* p = format; *p;) {
        if (*p != '%') {
            // The text up to the next directive, in one piece.
            const char* next = std::strchr(p, '%');
            std::size_t n = next ? static_cast<std::size_t>(next - p) : std::strlen(p);
            out.append(p, n);
            p += n;
            continue;
        }
        // Collect one conversion directive: flags, width, precision,
        // length modifier and conversion letter.
        const char* start = p++;
        if (*p == '%') {
            out.push_back('%');
            ++p;
            continue;
        }
        while (*p && std::strchr("-+ #0", *p))
            ++p;
        bool starWidth = false, starPrecision = false;
        if (*p == '*') {
            starWidth = true;
            ++p;
        }
        while (*p >= '0' && *p <= '9')
            ++p;
        if (*p == '.') {
            ++p;
            if (*p == '*') {
                starPrecision = true;
                ++p;
            }
            while (*p >= '0' && *p <= '9')
                ++p;
        }
        std::string length;
        while (*p && std::strchr("hlLqjzt", *p))
            length.push_back(*p++);
        char conv = *p ? *p++ : '\0';
        if (!conv) break;
        // Star widths are resolved into the directive itself.
        std::string directive(start, static_cast<size_t>(p - start));
        if (starWidth || starPrecision) {
            std::string resolved;
            for (char c : directive) {
                if (c == '*')
                    resolved += std::to_string(va_arg(ap, int));
                else
                    resolved.push_back(c);
            }
            directive = resolved;
        }
        switch (conv) {
            case 'd':
            case 'i':
            case 'u':
            case 'x':
            case 'X':
            case 'o':
            case 'c':
                if (length == "l")
                    appendConverted(out, directive, va_arg(ap, long));
                else if (length == "ll" || length == "j" || length == "z" || length == "t" ||
                         length == "q")
                    appendConverted(out, directive, va_arg(ap, long long));
                else
                    appendConverted(out, directive, va_arg(ap, int));
                break;
            case 'e':
            case 'E':
            case 'f':
            case 'F':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                if (length == "L")
                    appendConverted(out, directive, va_arg(ap, long double));
                else
                    appendConverted(out, directive, va_arg(ap, double));
                break;
            case 'p':
                appendConverted(out, directive, va_arg(ap, void*));
                break;
            case 'S':
            case 's':
                if (conv == 'S' || length == "l") {
                    const wchar_t* w = va_arg(ap, const wchar_t*);
                    LightweightString<char> u = toUTF8(std::wstring_view(w ? w : L"(null)"));
                    // Width and precision count characters of the UTF-8 text.
                    std::string narrowDirective =
                        directive.substr(0, directive.size() - 1 - length.size());
                    narrowDirective.push_back('s');
                    appendConverted(out, narrowDirective, u.c_str());
                } else {
                    const char* s = va_arg(ap, const char*);
                    appendConverted(out, directive, s ? s : "(null)");
                }
                break;
            default:
                // Unknown conversion: keep the text as written.
                out.append(directive);
                break;
        }
    }
    va_end(ap);
    return LightweightString<char>(out);
}

LightweightString<char> formatText(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    LightweightString<char> s = formatTextV(format, ap);
    va_end(ap);
    return s;
}

namespace {
// The host's messages end their lines themselves; a sink wants bare lines.
LightweightString<char> withoutTrailingNewlines(LightweightString<char> text) {
    std::string s(text.view());
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r'))
        s.pop_back();
    return LightweightString<char>(s);
}
}  // namespace

#define QV_LOG_FORWARD(kind)                                                         \
    va_list ap;                                                                      \
    va_start(ap, format);                                                            \
    LightweightString<char> text = withoutTrailingNewlines(formatTextV(format, ap)); \
    va_end(ap);                                                                      \
    emit(kind, text, -1)

void LoggerBase::Out(const char* format, ...) {
    QV_LOG_FORWARD(LogKind::Info);
}
void LoggerBase::WarningOut(const char* format, ...) {
    QV_LOG_FORWARD(LogKind::Warning);
}
void LoggerBase::ErrorOut(const char* format, ...) {
    QV_LOG_FORWARD(LogKind::Error);
}

LoggerHandle::LoggerHandle(Qv::Ptr<iLogSink> sink) : state_(new State) {
    state_->sink = std::move(sink);
}

void LoggerHandle::emit(LogKind kind, const LightweightString<char>& text, int type) {
    if (!hasSink()) return;
    state_->sink->line(kind, state_->indent, text, type);
}

void LoggerHandle::emitLoss(const LossRecord& record) {
    if (hasSink()) state_->sink->loss(record);
}

void LoggerHandle::write(const LightweightString<wchar_t>& text, eOutputType type) {
    emit(LogKind::Written, toUTF8(text), type);
}

void LoggerHandle::incIndent() {
    if (state_) ++state_->indent;
}
void LoggerHandle::decIndent() {
    if (state_ && state_->indent > 0) --state_->indent;
}
int LoggerHandle::indent() const {
    return state_ ? state_->indent : 0;
}

void LoggerHandle::progress(double fraction) {
    if (hasSink()) state_->sink->progress(fraction);
}

bool CapturingLogSink::contains(const char* text) const {
    for (const Line& l : lines)
        if (l.text.find(text) != LightweightString<char>::npos) return true;
    return false;
}

int CapturingLogSink::count(LogKind kind) const {
    int n = 0;
    for (const Line& l : lines)
        n += l.kind == kind;
    return n;
}

namespace {
std::mutex& appLogMutex() {
    static std::mutex m;
    return m;
}
Qv::Ptr<iLogSink>& appLog() {
    static Qv::Ptr<iLogSink> sink;
    return sink;
}
thread_local Qv::Ptr<iLogSink> threadAppLog;
}  // namespace

void setThreadApplicationLog(Qv::Ptr<iLogSink> sink) {
    threadAppLog = std::move(sink);
}

Qv::Ptr<iLogSink> threadApplicationLog() {
    return threadAppLog;
}

void setApplicationLog(Qv::Ptr<iLogSink> sink) {
    std::lock_guard<std::mutex> lock(appLogMutex());
    appLog() = std::move(sink);
}

// A line is formatted only when a log takes it: the writers say something of
// every file they write, which nobody reads without --verbose.
void LogBoth(const char* format, ...) {
    va_list ap;
    va_start(ap, format);
    if (threadAppLog) {
        threadAppLog->line(LogKind::Info, 0, withoutTrailingNewlines(formatTextV(format, ap)), -1);
    } else {
        std::lock_guard<std::mutex> lock(appLogMutex());
        if (appLog())
            appLog()->line(LogKind::Info, 0, withoutTrailingNewlines(formatTextV(format, ap)), -1);
    }
    va_end(ap);
}
