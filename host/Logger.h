// The run's log and progress handle.
//
// A LoggerHandle is small and passed by value down a whole pipeline; a copy is
// the same log (it shares the sink and the indentation). A default-constructed
// handle has no sink and swallows everything. The application installs a sink
// that prints; tests install one that captures.
#pragma once

#include <cstdarg>
#include <vector>

#include "host/LightweightString.h"
#include "host/Ptr.h"

// printf-style formatting into a UTF-8 string. Wide strings ("%ls" or "%S") are
// converted to UTF-8 whatever the C locale says.
LightweightString<char> formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
LightweightString<char> formatTextV(const char* format, va_list args);

class ProgressReportClient {
  public:
    virtual ~ProgressReportClient() = default;
};

enum class LogKind { Info, Warning, Error, Written };

// Something of a document that did not cross, as a record beside the warning
// that tells a person about it. Readers and writers emit one wherever they
// pass over, replace or repair material, so that whoever gathers them (the
// command's loss report) never has to read the words of a warning.
struct LossRecord {
    LightweightString<char> kind;      // a stable name: "filter", "clip-shortened", ...
    LightweightString<char> sequence;  // the sequence it belongs to; empty for none
    LightweightString<char> track;     // the track, as its format numbers it ("V1", "A2")
    LightweightString<char> timecode;  // where on the sequence, as a label; empty if unknown
    long long frame = -1;              // frames from the sequence's start; -1 if unknown
    LightweightString<char> detail;    // what it was: a clip's name, an effect, a reason
};

// A loss on a track at a timecode, of the sequence being written or read.
inline LossRecord lossAt(const char* kind, const LightweightString<char>& track,
                         const LightweightString<char>& timecode, const char* detail) {
    LossRecord r;
    r.kind = kind;
    r.track = track;
    r.timecode = timecode;
    r.detail = detail;
    return r;
}

// Where a log's lines go.
class iLogSink : public iObject {
  public:
    // One line of the log: its kind, the indentation in force and the text
    // (without a trailing newline). For LogKind::Written, `type` is the output
    // type that LoggerHandle::write was given.
    virtual void line(LogKind kind, int indent, const LightweightString<char>& text, int type) = 0;
    // Progress of a long run, from 0 to 1.
    virtual void progress(double /*fraction*/) {}
    // A loss: what did not cross (see LossRecord). Sinks that keep no report
    // pass it over.
    virtual void loss(const LossRecord& /*record*/) {}
};

class LoggerBase : public ProgressReportClient {
  public:
    enum eOutputType {
        eError = 0,
        eWarning = 1,
        eInfo = 2,
        eDebug = 3,
        eVerbose = 4,
        eStatus = 5,
        eFileWritten = 6
    };

    void Out(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void WarningOut(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void ErrorOut(const char* format, ...) __attribute__((format(printf, 2, 3)));
    // Records a loss beside the warning that says it in words.
    void LossOut(const LossRecord& record) { emitLoss(record); }

  protected:
    virtual void emit(LogKind kind, const LightweightString<char>& text, int type) = 0;
    virtual void emitLoss(const LossRecord& record) = 0;
};

class LoggerHandle : public LoggerBase {
  public:
    LoggerHandle() = default;
    explicit LoggerHandle(Qv::Ptr<iLogSink> sink);

    void write(const LightweightString<wchar_t>& text, eOutputType type);
    void incIndent();
    void decIndent();
    int indent() const;
    void progress(double fraction);
    bool hasSink() const { return state_ && state_->sink; }

  protected:
    void emit(LogKind kind, const LightweightString<char>& text, int type) override;
    void emitLoss(const LossRecord& record) override;

  private:
    struct State : Qv::InternalRefCount {
        Qv::Ptr<iLogSink> sink;
        int indent = 0;
    };
    Qv::Ptr<State> state_;
};

// A sink that keeps every line; for tests and for callers that want to look at
// a run's log afterwards.
class CapturingLogSink : public iLogSink {
  public:
    struct Line {
        LogKind kind;
        int indent;
        LightweightString<char> text;
        int type;
    };
    void line(LogKind kind, int indent, const LightweightString<char>& text, int type) override {
        lines.push_back({kind, indent, text, type});
    }
    void loss(const LossRecord& record) override { losses.push_back(record); }
    bool contains(const char* text) const;
    int count(LogKind kind) const;
    std::vector<Line> lines;
    std::vector<LossRecord> losses;
};

// Writes to the application's own log and its console, not to any run's log.
void LogBoth(const char* format, ...) __attribute__((format(printf, 1, 2)));
// The application decides where LogBoth goes; by default it goes nowhere.
void setApplicationLog(Qv::Ptr<iLogSink> sink);
// A thread may have an application log of its own, which then takes LogBoth's
// lines from that thread in place of the process's: an application that runs
// several jobs side by side tells them apart so. An export's worker thread
// takes the one of the thread that started it. Null gives the thread back to
// the process's log. The sink is called on the thread that writes the line.
void setThreadApplicationLog(Qv::Ptr<iLogSink> sink);
Qv::Ptr<iLogSink> threadApplicationLog();
