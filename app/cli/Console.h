// The command's log: the run's lines on standard error, indented as the log
// asks, warnings and errors marked; a progress line on a terminal.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "host/Logger.h"

namespace qvapp {

enum class Verbosity { Quiet, Normal, Verbose };

// Text as it may go to a terminal: control characters (C0, DEL and C1, which
// can move the cursor, retitle a window or clear the screen) are shown as
// escapes such as \x1b, and bytes that are not UTF-8 as \xff, so that a name
// in a document is shown and never obeyed.
std::string shown(std::string_view text);

class ConsoleLog : public iLogSink {
  public:
    ConsoleLog(Verbosity verbosity, std::FILE* out);

    void line(LogKind kind, int indent, const LightweightString<char>& text, int type) override;
    void progress(double fraction) override;
    void loss(const LossRecord& record) override;

    // A progress line that is not a fraction: what is being done.
    void status(const std::string& what);
    void clearProgress();

    int warnings() const { return warnings_; }
    int errors() const { return errors_; }
    // Paths the pipeline reported as written (output type 6).
    std::vector<std::string> takeWrittenPaths();
    // The losses the pipeline recorded so far, for the loss report.
    std::vector<LossRecord> takeLosses();
    // The information lines of the run so far: how the import resolved each
    // shot's media, for `info`.
    std::vector<std::string> takeInfoLines();

  private:
    void clearLocked();
    Verbosity verbosity_;
    std::FILE* out_;
    bool terminal_;
    bool progressShown_ = false;
    std::string task_;
    int warnings_ = 0, errors_ = 0;
    std::vector<std::string> written_;
    std::vector<std::string> infoLines_;
    std::vector<LossRecord> losses_;
    std::mutex mutex_;
};

// Where LogBoth goes: the application's own log, shown with --verbose. Its
// words are for people: nothing is learnt from them.
class ApplicationLog : public iLogSink {
  public:
    explicit ApplicationLog(Qv::Ptr<ConsoleLog> console, bool show = true)
        : console_(std::move(console)), show_(show) {}
    void line(LogKind kind, int, const LightweightString<char>& text, int) override {
        if (show_) console_->line(kind, 0, LightweightString<char>("[app] ") + text, -1);
    }

  private:
    Qv::Ptr<ConsoleLog> console_;
    bool show_;
};

}  // namespace qvapp
