// Many documents at once: a command's work on each input runs as a job, up
// to N side by side (-j N). Each job writes to streams of its own; what a job
// wrote is shown when it ends, in the order of the inputs, so that the output
// of a run does not depend on how the jobs were interleaved. On a terminal one
// progress bar says how far the run is.
#pragma once

#include <condition_variable>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "app/Status.h"

namespace qvapp {

struct JobResult {
    int status = 0;        // the exit status of its outcome
    std::string out, err;  // what the job wrote
};

// Runs one document's job so that nothing it throws escapes it: a fault
// becomes one sentence on `err` naming the document, and the status of an
// import or export that failed on its way (of an unreadable document when
// memory ran out). A failure the job gives back untold is told on `err`.
// What comes back is told. Every job of a batch runs so.
Outcome guardedJob(const std::string& input, std::FILE* err, const std::function<Outcome()>& job);

class Batch {
  public:
    // `verb` names the work on the bar ("converting"). `showBar` asks for
    // the bar; it is drawn only when standard error is a terminal.
    Batch(int jobs, std::string verb, bool showBar);

    // Runs work(i, out, err) for each label, guarded (guardedJob); the
    // status of what it gives is the job's. With `stream`, each job's output goes to standard
    // output and standard error as soon as the jobs before it have shown theirs; without, it is
    // kept in the results for the caller.
    std::vector<JobResult> run(
        const std::vector<std::string>& labels,
        const std::function<Outcome(std::size_t, std::FILE*, std::FILE*)>& work, bool stream);

    // The number of jobs to run side by side: the -j value, or the number of
    // processors when it is 0.
    static int jobsFor(int requested, std::size_t inputs);

  private:
    int jobs_;
    std::string verb_;
    bool bar_;
};

// The turns of jobs that must act in the order of their inputs (choosing the
// names of the files they write, so that a run gives the same names whatever
// the number of jobs). A job waits for its turn, acts, and passes it on.
class Turns {
  public:
    void wait(std::size_t job);
    void pass(std::size_t job);

  private:
    std::size_t next_ = 0;
    std::vector<bool> passed_;
    std::mutex mutex_;
    std::condition_variable changed_;
};

}  // namespace qvapp
