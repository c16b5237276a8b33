#include "app/cli/Console.h"

#include <unistd.h>

#include <cmath>

namespace qvapp {

std::string shown(std::string_view text) {
    static const char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    auto escape = [&](unsigned char b) {
        out += "\\x";
        out.push_back(hex[b >> 4]);
        out.push_back(hex[b & 15]);
    };
    for (std::size_t i = 0; i < text.size();) {
        unsigned char b = static_cast<unsigned char>(text[i]);
        if (b < 0x20 || b == 0x7F) {
            escape(b);
            ++i;
            continue;
        }
        if (b < 0x80) {
            out.push_back(static_cast<char>(b));
            ++i;
            continue;
        }
        // A whole UTF-8 sequence passes, unless it encodes a C1 control.
        std::size_t extra = (b & 0xE0) == 0xC0   ? 1
                            : (b & 0xF0) == 0xE0 ? 2
                            : (b & 0xF8) == 0xF0 ? 3
                                                 : 0;
        bool ok = extra > 0 && i + extra < text.size();
        char32_t c = b & (0x3F >> extra);
        for (std::size_t k = 1; ok && k <= extra; ++k) {
            unsigned char cb = static_cast<unsigned char>(text[i + k]);
            ok = (cb & 0xC0) == 0x80;
            c = (c << 6) | (cb & 0x3F);
        }
        static const char32_t minimum[4] = {0, 0x80, 0x800, 0x10000};
        ok = ok && c >= minimum[extra] && c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF);
        if (!ok) {
            escape(b);
            ++i;
        } else if (c >= 0x80 && c <= 0x9F) {
            escape(static_cast<unsigned char>(c));
            i += extra + 1;
        } else {
            out.append(text.substr(i, extra + 1));
            i += extra + 1;
        }
    }
    return out;
}

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
    std::fprintf(out_, "%*s%s%s\n", indent * 2, "", mark, shown(text.view()).c_str());
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
    task_ = shown(what);
    if (!terminal_ || verbosity_ == Verbosity::Quiet) return;
    std::fprintf(out_, "\r\033[K%s", task_.c_str());
    std::fflush(out_);
    progressShown_ = true;
}

std::vector<std::string> ConsoleLog::takeWrittenPaths() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(written_);
}

void ConsoleLog::loss(const LossRecord& record) {
    std::lock_guard<std::mutex> lock(mutex_);
    losses_.push_back(record);
}

std::vector<LossRecord> ConsoleLog::takeLosses() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(losses_);
}

}  // namespace qvapp

namespace qvapp {

std::vector<std::string> ConsoleLog::takeInfoLines() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::move(infoLines_);
}

}  // namespace qvapp
