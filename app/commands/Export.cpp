// export: one edit of a project snapshot written in a format.
#include <sys/stat.h>

#include "app/checks/DocumentCheck.h"
#include "app/commands/Commands.h"
#include "app/pipeline/Text.h"
#include "host/Edit.h"
#include "host/Paths.h"
#include "host/Snapshot.h"

namespace qvapp {

Outcome Commands::exportSnapshot(const Options& o) {
    Flavour flavour;
    if (Outcome r = flavourOf(o.to, flavour); !r.ok()) return r;
    if (o.inputs.size() != 1) return Outcome(kExitUsage, "say which one snapshot to export from");
    const std::string& input = o.inputs[0];
    struct stat st;
    if (::stat(input.c_str(), &st) != 0)
        return Outcome(kExitUnreadable,
                       "cannot read " + inQuotes(input) + ": there is no such file");
    if (Outcome w = checkFolder(o.outputDir, "the output folder"); !w.ok()) return w;
    usedDir_ = absolute(o.outputDir);
    startRun(o.inputs, o.overwrite);
    if (!o.report.empty())
        if (Outcome w = run_->output->check(o.report); !w.ok()) return w;

    EditStore& project = EditStore::current();
    Snapshot::Result loaded = Snapshot::loadFile(project, input);
    if (!loaded.ok) return Outcome(kExitUnknownDocument, inQuotes(input) + ": " + loaded.error);
    for (const std::string& w : loaded.warnings)
        log().WarningOut("%s: %s", input.c_str(), w.c_str());

    Qv::Ptr<Edit> chosen;
    if (!o.edit.empty()) {
        chosen = project.findByName(wide(o.edit));
        if (!chosen) chosen = project.find(Cookie(wide(o.edit), false));
        if (!chosen)
            return Outcome(kExitUsage, inQuotes(input) + " has no edit named " + inQuotes(o.edit));
    } else {
        std::vector<Qv::Ptr<Edit>> sequences;
        for (const Qv::Ptr<Edit>& e : project.edits())
            if (e->logType == kLogTypeSequence) sequences.push_back(e);
        if (sequences.size() == 1) {
            chosen = sequences[0];
        } else if (sequences.empty() && project.size() == 1) {
            chosen = project.edits()[0];
        } else {
            std::string names;
            for (const Qv::Ptr<Edit>& e : sequences)
                names += (names.empty() ? "" : ", ") + inQuotes(narrow(e->name));
            return Outcome(kExitUsage, inQuotes(input) + " holds " +
                                           std::to_string(sequences.size()) + " sequences" +
                                           (names.empty() ? "" : " (" + names + ")") +
                                           "; say which with --edit NAME");
        }
    }
    // An export writes times as frame counts: one that is not a number
    // would be written as a count that looks right and is not.
    bool untrusted = warnUnusable(editAndSources(chosen));
    if (untrusted && !o.lenient)
        return Outcome(kExitUntrusted, inQuotes(input) +
                                           " has times that no export can write (see the warnings "
                                           "above), so nothing is written (--lenient writes it)");
    std::string extension = extensionOf(flavour);
    run_->paths.push_back(absolute(input));
    std::string fileName =
        uniqueStem(o.name.empty() ? chosen->name : stripExtension(widePath(o.name)), extension) +
        extension;
    Outcome exported = exportWithReport(chosen, flavour, o, fileName, input);
    if (exported.ok() && untrusted)
        return Outcome(kExitUntrusted,
                       inQuotes(input) +
                           " was written as --lenient asks, but its times cannot be "
                           "trusted (see the warnings above)");
    return exported;
}

}  // namespace qvapp
