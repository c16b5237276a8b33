// How a run of the command ends, and how each step of it tells a failure.
#pragma once

#include <string>
#include <utility>

namespace qvapp {

// Exit statuses, each with its own kind of failure.
enum ExitCode {
    kExitOK = 0,
    kExitUsage = 1,            // the command line is wrong
    kExitInternal = 1,         // a fault of qvxml's own, that no input may cause
    kExitUnreadable = 2,       // an input is missing, empty or unreadable
    kExitUnknownDocument = 3,  // an input is no document of a known kind
    kExitNoFolder = 4,         // the output folder does not exist
    kExitNotWritable = 5,      // a file cannot be written
    kExitFailed = 6,           // an import or export failed on its way
    kExitPlugin = 7,           // the plug-in could not be loaded
    kExitNotAvailable = 8,     // what was asked for is not built yet, or switched off
    kExitRefused = 9,          // a document is not well formed, or nests past any real one
    kExitUntrusted = 10,       // what was read has times that cannot be trusted
};

// What became of a step of the command: ok, or the exit status it fails with
// and one sentence that says why. Every step of the command that can fail
// gives one. A failure is told once, as "qvxml: SENTENCE" on standard error,
// by the code that stops passing it on (Commands::tell); what is passed on
// after that keeps its status and has no sentence left to tell.
class Outcome {
  public:
    Outcome() = default;
    Outcome(int status, std::string sentence) : status_(status), sentence_(std::move(sentence)) {}
    // A failure that was told already.
    static Outcome told(int status) { return Outcome(status, {}); }

    bool ok() const { return status_ == kExitOK; }
    int status() const { return status_; }
    const std::string& sentence() const { return sentence_; }

  private:
    int status_ = kExitOK;
    std::string sentence_;
};

}  // namespace qvapp
