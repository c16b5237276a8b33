#include "app/Console.h"

#include <unistd.h>

#include <cmath>

namespace qvapp {

ConsoleLog::ConsoleLog(Verbosity verbosity, std::FILE* out)
    : verbosity_(verbosity), out_(out), terminal_(::isatty(::fileno(out)) != 0) {}

void ConsoleLog::clearLocked() {
    if (!progressShown_) return;
    std::fputs("\r\033[K", out_);
    progressShown_ = false;
}

void ConsoleLog::clearProgress() {
    std::lock_guard<std::mutex> lock(mutex_);
    clearLocked();
    std::fflush(out_);
}

void ConsoleLog::line(LogKind kind, int indent, const LightweightString<char>& text, int type) {
    std::lock_guard<std::mutex> lock(mutex_);
    const char* mark = "";
    switch (kind) {
        case LogKind::Warning:
            ++warnings_;
            warningLines_.push_back(text.str());
            mark = "warning: ";
            break;
        case LogKind::Error:
            ++errors_;
            mark = "error: ";
            break;
        case LogKind::Written:
            if (type == 6) {
                written_.push_back(text.str());
                return;  // the command reports written files itself
            }
            if (type == 0) {
                ++errors_;
                mark = "error: ";
            }
            break;
        case LogKind::Info:
            infoLines_.push_back(text.str());
            break;
    }
    bool show = kind == LogKind::Error || (kind == LogKind::Written && type == 0) ||
                (verbosity_ != Verbosity::Quiet && kind == LogKind::Warning) ||
                (verbosity_ == Verbosity::Verbose);
    if (!show) return;
    clearLocked();
    std::fprintf(out_, "%*s%s%s\n", indent * 2, "", mark, text.c_str());
    std::fflush(out_);
}

void ConsoleLog::progress(double fraction) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!terminal_ || verbosity_ == Verbosity::Quiet || !std::isfinite(fraction)) return;
    int percent = static_cast<int>(std::fmin(std::fmax(fraction, 0.0), 1.0) * 100.0 + 0.5);
    std::fprintf(out_, "\r\033[K%s %3d%%", task_.c_str(), percent);
    std::fflush(out_);
    progressShown_ = true;
}

void ConsoleLog::status(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex_);
    task_ = what;
    if (!terminal_ || verbosity_ == Verbosity::Quiet) return;
    std::fprintf(out_, "\r\033[K%s", what.c_str());
    std::fflush(out_);
    progressShown_ = true;
}

std::vector<std::string> ConsoleLog::takeWrittenPaths() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(written_);
}

std::vector<std::string> ConsoleLog::takeWarningLines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(warningLines_);
}

}  // namespace qvapp

namespace qvapp {

std::vector<std::string> ConsoleLog::takeInfoLines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(infoLines_);
}

}  // namespace qvapp
