// export: one edit of a project snapshot written in a format.
#include <sys/stat.h>

#include "app/checks/DocumentCheck.h"
#include "app/commands/Commands.h"
#include "app/pipeline/Text.h"
#include "host/Edit.h"
#include "host/Paths.h"
#include "host/Snapshot.h"

namespace qvapp {

int Commands::exportSnapshot(const Options& o) {
    Flavour flavour;
    int code = kExitOK;
    if (!flavourOf(o.to, flavour, code)) return code;
    if (o.inputs.size() != 1) return fail(kExitUsage, "say which one snapshot to export from");
    const std::string& input = o.inputs[0];
    struct stat st;
    if (::stat(input.c_str(), &st) != 0)
        return fail(kExitUnreadable, "cannot read " + inQuotes(input) + ": there is no such file");
    if (WriteResult w = checkFolder(o.outputDir, "the output folder"); !w)
        return fail(w.code, w.sentence);
    usedDir_ = absolute(o.outputDir);
    startRun(o.inputs, o.overwrite);
    if (!o.report.empty())
        if (WriteResult w = run_->output->check(o.report); !w) return fail(w.code, w.sentence);

    EditStore& project = EditStore::current();
    Snapshot::Result loaded = Snapshot::loadFile(project, input);
    if (!loaded.ok) return fail(kExitUnknownDocument, inQuotes(input) + ": " + loaded.error);
    for (const std::string& w : loaded.warnings)
        log().WarningOut("%s: %s", input.c_str(), w.c_str());

    Qv::Ptr<Edit> chosen;
    if (!o.edit.empty()) {
        chosen = project.findByName(wide(o.edit));
        if (!chosen) chosen = project.find(Cookie(wide(o.edit), false));
        if (!chosen)
            return fail(kExitUsage, inQuotes(input) + " has no edit named " + inQuotes(o.edit));
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
            return fail(kExitUsage, inQuotes(input) + " holds " + std::to_string(sequences.size()) +
                                        " sequences" + (names.empty() ? "" : " (" + names + ")") +
                                        "; say which with --edit NAME");
        }
    }
    // An export writes times as frame counts: one that is not a number
    // would be written as a count that looks right and is not.
    bool untrusted = warnUnusable(editAndSources(chosen));
    if (untrusted && !o.lenient)
        return fail(kExitUntrusted, inQuotes(input) +
                                        " has times that no export can write (see the warnings "
                                        "above), so nothing is written (--lenient writes it)");
    std::string extension = extensionOf(flavour);
    run_->paths.push_back(absolute(input));
    std::string fileName =
        uniqueStem(o.name.empty() ? chosen->name : stripExtension(widePath(o.name)), extension) +
        extension;
    int exported = exportWithReport(chosen, flavour, o, fileName, input);
    if (exported == kExitOK && untrusted)
        return fail(kExitUntrusted, inQuotes(input) +
                                        " was written as --lenient asks, but its times cannot be "
                                        "trusted (see the warnings above)");
    return exported;
}

}  // namespace qvapp
