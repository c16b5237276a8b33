// import: documents read into one project, what was made told, and the
// project written as a snapshot.
#include <algorithm>
#include <set>

#include "app/commands/Commands.h"
#include "app/conform/DocumentInfo.h"
#include "app/conform/LossReport.h"
#include "app/pipeline/Text.h"
#include "host/Edit.h"
#include "host/Snapshot.h"

namespace qvapp {

Outcome Commands::import(const Options& o) {
    if (o.inputs.empty()) return Outcome(kExitUsage, "say which documents to import");
    EditStore& project = EditStore::current();
    IdentitySet before = identitiesOf(project);

    // Where the snapshot and the report go is settled before any work is done.
    startRun(o.inputs, o.overwrite);
    for (const std::string* out : {&o.snapshot, &o.report})
        if (!out->empty())
            if (Outcome w = run_->output->check(*out); !w.ok()) return w;

    std::vector<Qv::Ptr<Edit>> made;
    if (Outcome r = importDocuments(o.inputs, made, o.lenient); !r.ok()) return r;

    int imported = 0, offline = 0, subclips = 0;
    for (const Qv::Ptr<Edit>& e : project.edits()) {
        if (before.count(e->cookie.uuid)) continue;
        if (e->isShot()) (e->isOffline() ? offline : imported)++;
        if (e->logType == kLogTypeSubclip) ++subclips;
    }
    // Shots that were in the project already and that the new edits play.
    IdentitySet linked;
    for (const Qv::Ptr<Edit>& e : project.edits()) {
        if (before.count(e->cookie.uuid)) continue;
        for (const StoredChannel& ch : e->channels)
            for (const CelData& c : ch.cels)
                if (Qv::Ptr<Edit> s = project.find(c.cookie);
                    s && s->isShot() && before.count(s->cookie.uuid))
                    linked.insert(s->cookie.uuid);
    }
    // A snapshot on standard output has it to itself: what was made is told
    // on standard error then.
    std::FILE* told = isStandardOutput(o.snapshot) ? err_ : stdout;
    std::fprintf(told, "%zu sequence%s, %d shot%s imported, %zu linked, %d offline", made.size(),
                 made.size() == 1 ? "" : "s", imported, imported == 1 ? "" : "s", linked.size(),
                 offline);
    if (subclips) std::fprintf(told, ", %d sub-clip%s", subclips, subclips == 1 ? "" : "s");
    std::fprintf(told, ", %d warning%s\n", console_->warnings(),
                 console_->warnings() == 1 ? "" : "s");
    for (const Qv::Ptr<Edit>& e : made)
        std::fprintf(told, "  sequence %s\n", shown(inQuotes(narrow(e->name))).c_str());
    std::fflush(told);
    // What reading each document lost: a line each that lost anything, and
    // the report. Its timecodes are the document's, good whether the times
    // read can be trusted or not. A document whose times cannot be trusted
    // has one sentence, below, unless it is written all the same.
    if (o.verbosity != Verbosity::Quiet)
        for (const DocumentLosses& d : read_)
            if (!d.items.empty() && (o.lenient || std::find(untrusted_.begin(), untrusted_.end(),
                                                            d.input) == untrusted_.end()))
                std::fprintf(err_, "qvxml: %s\n", shown(lossSummary(d)).c_str());
    if (!o.report.empty())
        if (Outcome r = writeFile(o.report, lossReportText(read_, "import"), o); !r.ok()) return r;

    std::string untrusted;
    for (const std::string& input : untrusted_)
        untrusted += (untrusted.empty() ? "" : ", ") + inQuotes(input);
    if (!untrusted.empty() && !o.lenient)
        return Outcome(kExitUntrusted, untrusted + " cannot be trusted: times are wrong or lost " +
                                           "(see the warnings above)" +
                                           (o.snapshot.empty() ? std::string()
                                                               : ", so no snapshot is written "
                                                                 "(--lenient writes it)"));
    if (!o.snapshot.empty()) {
        if (Outcome r = writeFile(o.snapshot, Snapshot::dump(project), o); !r.ok()) return r;
        if (!isStandardOutput(o.snapshot)) {
            std::printf("snapshot written to %s\n", shown(o.snapshot).c_str());
            std::fflush(stdout);
        }
    }
    if (!untrusted.empty())
        return Outcome(kExitUntrusted, untrusted + " cannot be trusted: times are wrong or lost " +
                                           "(see the warnings above)");
    return {};
}

}  // namespace qvapp
