// convert: each document a job of its own, side by side with -j, each with
// its loss report; and the loss report of export.
#include <algorithm>

#include "app/commands/Commands.h"
#include "app/conform/LossReport.h"
#include "app/output/Batch.h"
#include "app/pipeline/AroundPlugin.h"
#include "app/pipeline/Text.h"
#include "host/Edit.h"
#include "otio/OtioImport.h"

namespace qvapp {

namespace {

// A job's turn to name its files, passed on however the job ends.
class TurnGuard {
  public:
    TurnGuard(Turns* turns, std::size_t job) : turns_(turns), job_(job) {}
    ~TurnGuard() { pass(); }
    TurnGuard(const TurnGuard&) = delete;
    TurnGuard& operator=(const TurnGuard&) = delete;
    void wait() {
        if (turns_) turns_->wait(job_);
    }
    void pass() {
        if (turns_ && !passed_) turns_->pass(job_);
        passed_ = true;
    }

  private:
    Turns* turns_;
    std::size_t job_;
    bool passed_ = false;
};

// While it lives, LogBoth's lines of this thread (and of the exports it
// starts) go to the job's application log: with --verbose only, as no line
// is formatted where no log takes it.
class ThreadAppLog {
  public:
    explicit ThreadAppLog(Qv::Ptr<ApplicationLog> log) : previous_(threadApplicationLog()) {
        setThreadApplicationLog(Qv::Ptr<iLogSink>(log));
    }
    ~ThreadAppLog() { setThreadApplicationLog(previous_); }
    ThreadAppLog(const ThreadAppLog&) = delete;
    ThreadAppLog& operator=(const ThreadAppLog&) = delete;

  private:
    Qv::Ptr<iLogSink> previous_;
};

}  // namespace

Outcome Commands::convert(const Options& o) {
    Flavour flavour;
    if (Outcome r = flavourOf(o.to, flavour); !r.ok()) return r;
    if (o.inputs.empty()) return Outcome(kExitUsage, "say which documents to convert");
    if (Outcome w = checkFolder(o.outputDir, "the output folder"); !w.ok()) return w;
    usedDir_ = absolute(o.outputDir);
    std::string extension = extensionOf(flavour);
    startRun(o.inputs, o.overwrite);
    if (!o.report.empty())
        if (Outcome w = run_->output->check(o.report); !w.ok()) return w;
    // A file written never takes the place of a document read: its name goes
    // to the next number.
    for (const std::string& input : o.inputs)
        run_->paths.push_back(absolute(input));
    return convertAll(o, flavour, extension);
}

Outcome Commands::convertDocument(std::size_t job, const std::string& input, const Options& o,
                                  const Flavour& flavour, const std::string& extension,
                                  Turns* turns, DocumentLosses& losses) {
    // Each document goes into a fresh project of its own.
    EditStore project;
    ScopedCurrentStore scope(project);
    ThreadAppLog appScope(o.verbosity == Verbosity::Verbose
                              ? Qv::Ptr<ApplicationLog>(new ApplicationLog(console_))
                              : Qv::Ptr<ApplicationLog>());
    TurnGuard turn(turns, job);
    losses.input = input;
    losses.target = flavour.name;

    std::vector<Qv::Ptr<Edit>> made;
    if (Outcome r = importDocuments({input}, made, o.lenient); !r.ok()) return r;
    const bool untrusted = !untrusted_.empty();
    if (untrusted && !o.lenient)
        return Outcome(kExitUntrusted, inQuotes(input) +
                                           " cannot be trusted: its times are wrong or lost (see "
                                           "the warnings above), so nothing is written for it "
                                           "(--lenient writes it)");
    mapImportedLocators({});
    losses.read = true;
    std::string format = formats_.back();
    // What reading lost: the import's own account of it.
    if (!read_.empty()) losses.items = std::move(read_.back().items);

    std::vector<Qv::Ptr<Edit>> toWrite = made;
    if (toWrite.empty())
        for (const Qv::Ptr<Edit>& e : project.edits())
            if (e->isShot()) toWrite.push_back(e);
    if (toWrite.empty()) {
        std::fprintf(err_, "qvxml: %s holds no sequences and no shots; nothing to write\n",
                     shown(inQuotes(input)).c_str());
        return {};
    }
    // Names are chosen in the order of the inputs, so that a run names its
    // files the same way whatever the number of jobs.
    turn.wait();
    std::vector<std::string> stems;
    for (const Qv::Ptr<Edit>& e : toWrite)
        stems.push_back(!e->isShot() && e->getNumChans(3) == 0 ? std::string()
                                                               : uniqueStem(e->name, extension));
    turn.pass();

    // A failed export is told as it happens, and the next edit written.
    Outcome result;
    for (std::size_t i = 0; i < toWrite.size(); ++i) {
        const Qv::Ptr<Edit>& e = toWrite[i];
        // A sequence without tracks (in xmeml, a use of a nested sequence
        // that is defined elsewhere) has nothing to write.
        if (stems[i].empty()) {
            log().WarningOut(
                "%s has no tracks; no file is written for it",
                inQuotes(e->name.empty() ? std::string("the nameless sequence") : narrow(e->name))
                    .c_str());
            continue;
        }
        console_->takeLosses();
        Outcome exported = exportEdit(e, flavour, o, stems[i] + extension);
        std::vector<LossRecord> records = console_->takeLosses();
        if (!exported.ok()) {
            Outcome told = tell(exported);
            if (result.ok()) result = told;
            continue;
        }
        if (flavour.edl)
            for (std::string& name : takeListNames())
                losses.outputs.push_back(std::move(name));
        else
            losses.outputs.push_back(stems[i] + extension);
        if (e->isShot()) continue;
        SequenceView view(e, format);
        if (!view.head()) continue;
        for (Loss& l : targetLosses(view, flavour.name, o.silent, o.skipOffline))
            losses.items.push_back(std::move(l));
        for (Loss& l : writerLosses(*view.head(), records))
            losses.items.push_back(std::move(l));
    }
    losses.warnings = console_->warnings();
    // The summary speaks for files written; a failure has said its own.
    if (o.verbosity != Verbosity::Quiet && result.ok())
        std::fprintf(err_, "qvxml: %s\n", shown(lossSummary(losses)).c_str());
    if (untrusted) {
        Outcome told =
            tell(Outcome(kExitUntrusted, inQuotes(input) +
                                             " was written as --lenient asks, but its times cannot "
                                             "be trusted (see the warnings above)"));
        if (result.ok()) result = told;
    }
    return result;
}

Commands Commands::jobOf(const Options& o, std::FILE* out, std::FILE* err) {
    Commands job(plugin_, Qv::Ptr<ConsoleLog>(new ConsoleLog(o.verbosity, err)));
    job.setStreams(out, err);
    job.run_ = run_;
    job.usedDir_ = usedDir_;
    job.listRate_ = listRate_;
    return job;
}

Outcome Commands::convertAll(const Options& o, const Flavour& flavour,
                             const std::string& extension) {
    std::vector<DocumentLosses> losses(o.inputs.size());
    // Each document's failure is told as its job ends; the run ends with the
    // status of the first.
    Outcome result;
    if (o.inputs.size() == 1) {
        result = guardedJob(o.inputs[0], err_, [&] {
            return tell(convertDocument(0, o.inputs[0], o, flavour, extension, nullptr, losses[0]));
        });
    } else {
        Turns turns;
        Batch batch(Batch::jobsFor(o.jobs, o.inputs.size()), "converting",
                    o.verbosity != Verbosity::Quiet);
        std::vector<JobResult> results = batch.run(
            o.inputs,
            [&](std::size_t i, std::FILE* out, std::FILE* err) {
                Commands job = jobOf(o, out, err);
                return job.tell(
                    job.convertDocument(i, o.inputs[i], o, flavour, extension, &turns, losses[i]));
            },
            true);
        std::vector<std::string> failed;
        for (std::size_t i = 0; i < results.size(); ++i)
            if (results[i].status != kExitOK) {
                failed.push_back(o.inputs[i]);
                if (result.ok()) result = Outcome::told(results[i].status);
            }
        if (o.verbosity != Verbosity::Quiet || !failed.empty()) {
            std::string summary = "converted " + std::to_string(o.inputs.size() - failed.size()) +
                                  " of " + counted(static_cast<long>(o.inputs.size()), "document");
            if (!failed.empty()) {
                summary += "; " + std::to_string(failed.size()) + " failed:";
                for (const std::string& f : failed)
                    summary += " " + inQuotes(f);
            }
            std::fprintf(err_, "qvxml: %s\n", shown(summary).c_str());
        }
    }
    if (!o.report.empty())
        if (Outcome written = writeFile(o.report, lossReportText(losses, "convert"), o);
            !written.ok()) {
            Outcome told = tell(written);
            if (result.ok()) result = told;
        }
    return result;
}

Outcome Commands::exportWithReport(const Qv::Ptr<Edit>& edit, const Flavour& flavour,
                                   const Options& o, const std::string& fileName,
                                   const std::string& input) {
    ThreadAppLog appScope(o.verbosity == Verbosity::Verbose
                              ? Qv::Ptr<ApplicationLog>(new ApplicationLog(console_))
                              : Qv::Ptr<ApplicationLog>());
    console_->takeLosses();
    if (Outcome r = exportEdit(edit, flavour, o, fileName); !r.ok()) return r;
    DocumentLosses losses;
    losses.read = true;
    losses.input = input;
    losses.target = flavour.name;
    if (flavour.edl)
        losses.outputs = takeListNames();
    else
        losses.outputs.push_back(fileName);
    std::vector<LossRecord> records = console_->takeLosses();
    losses.warnings = console_->warnings();
    if (!edit->isShot()) {
        SequenceView view(edit, "snapshot");
        if (view.head()) {
            losses.items = targetLosses(view, flavour.name, o.silent, o.skipOffline);
            for (Loss& l : writerLosses(*view.head(), records))
                losses.items.push_back(std::move(l));
        }
    }
    if (o.verbosity != Verbosity::Quiet)
        std::fprintf(err_, "qvxml: %s\n", shown(lossSummary(losses)).c_str());
    if (!o.report.empty()) return writeFile(o.report, lossReportText({losses}, "export"), o);
    return {};
}

}  // namespace qvapp
