// Writing an edit: through the plug-in's exporter (native, xmeml, fcpxml)
// or the command's own writers (.otio, edit decision lists), always into a
// staging folder, from which the finished file is moved into place.
#include <chrono>
#include <memory>

#include "app/commands/Commands.h"
#include "app/pipeline/AroundPlugin.h"
#include "app/pipeline/Pipeline.h"
#include "app/pipeline/Text.h"
#include "host/Edit.h"
#include "host/OS.h"
#include "host/Paths.h"
#include "otio/OtioWriter.h"
#include "plugin/Status.h"

namespace qvapp {

namespace {

// Whether the plug-in writes `edit` in well under the half second after
// which an export shows that it is at work: about two microseconds a cel,
// so a hundred thousand cels at most. Only the edit's own cels are counted:
// a short edit of long nested sequences is written without a spinner.
bool exportsQuickly(const Edit& edit) {
    constexpr std::size_t kQuickCels = 100000;
    std::size_t cels = 0;
    for (const StoredChannel& channel : edit.channels)
        cels += channel.cels.size();
    return cels <= kQuickCels;
}

}  // namespace

Outcome Commands::flavourOf(const std::string& to, Flavour& out) {
    if (!plugin_.resource()) return Outcome(kExitPlugin, "the XML plug-in offers no XML resource");
    if (to == "native" || to == "qvxml") {
        out = {XML::XMLFlavourQV2, "native"};
    } else if (to == "xmeml" || to == "fcp7") {
        out = {XML::XMLFlavourFCP5, "xmeml"};
    } else if (to == "fcpxml") {
        out = {XML::XMLFlavourFCPX, "fcpxml"};
    } else if (to == "otio" || to == "opentimelineio") {
        out = {XML::XMLFlavourNone, "otio", true};
    } else if (to == "edl" || to == "cmx3600") {
        out = {XML::XMLFlavourNone, "edl", false, true};
    } else if (to.empty()) {
        return Outcome(kExitUsage,
                       "say which format to write with --to native, --to xmeml, --to fcpxml, "
                       "--to otio or --to edl");
    } else {
        return Outcome(kExitUsage, inQuotes(to) +
                                       " is no format qvxml writes; use native, xmeml, fcpxml, "
                                       "otio or edl");
    }
    return {};
}

std::string Commands::extensionOf(const Flavour& flavour) {
    if (flavour.otio) return ".otio";
    if (flavour.edl) return ".edl";
    return narrow(plugin_.resource()->getExtension(flavour.value));
}

Outcome Commands::exportOtio(const Qv::Ptr<Edit>& edit, const Options& o,
                             const std::string& fileName) {
    std::string label =
        edit->name.empty() ? std::string("the nameless edit") : inQuotes(narrow(edit->name));
    // Written in a staging folder and moved into place, as the plug-in's
    // exports are.
    StagingFolder staging(usedDir_);
    if (staging.path().empty()) return staging.made();
    std::string name = narrowPath(stripPath(Qv::FilespecUtils::makeValidFilespec(
        widePath(usedDir_), stripExtension(widePath(fileName)), L".otio", false, L'_')));
    std::string staged = staging.path() + "/" + name;
    std::string destination = usedDir_ + "/" + name;
    QvOtio::ExportOptions options;
    options.skipOffline = o.skipOffline;
    int status = QvOtio::exportOtio(edit->cookie, widePath(staged), options, log());
    console_->takeWrittenPaths();
    if (status == XML::kStatusCannotCreate) {
        if (int failure = takeFileWriteFailure(widePath(staged)))
            return Outcome(kExitNotWritable,
                           "cannot write " + inQuotes(destination) + ": " + reasonOf(failure));
        return Outcome(kExitNotWritable, "cannot write " + inQuotes(destination));
    }
    if (status != XML::kStatusOK)
        return Outcome(kExitFailed,
                       label + " could not be exported as otio (see the messages above)");
    if (Outcome w = commitFile(staged, destination, o); !w.ok()) return w;
    std::fprintf(out_, "%s\n", shown(destination).c_str());
    std::fflush(out_);
    return {};
}

Outcome Commands::exportEdit(const Qv::Ptr<Edit>& edit, const Flavour& flavour, const Options& o,
                             const std::string& fileName) {
    if (flavour.otio) return exportOtio(edit, o, fileName);
    if (flavour.edl) return exportEdl(edit, o, fileName);
    QvExport::ExporterFactoryBase* factory = plugin_.exporterFactory();
    if (!factory)
        return Outcome(kExitNotAvailable,
                       "XML export is switched off (the configuration key enableXml is 0)");
    std::string label =
        edit->name.empty() ? std::string("the nameless edit") : inQuotes(narrow(edit->name));
    {
        EditPtr p;
        p.i_open(edit->cookie);
        int why = factory->canExport(p);
        p.i_close();
        if (why == XML::kCannotExportKind)
            return Outcome(kExitFailed, label + " is of a kind that cannot be exported");
        if (why == XML::kCannotExportNoChannels)
            return Outcome(kExitFailed, label + " has no video or audio channels to export");
        if (why != XML::kCanExport) return Outcome(kExitFailed, label + " cannot be exported");
    }

    // The plug-in writes into a folder of its own inside the output folder;
    // the finished file is moved out of it into place. Its path ends in a
    // separator, so that even a name the plug-in appends without one stays
    // inside it.
    StagingFolder staging(usedDir_);
    if (staging.path().empty()) return staging.made();

    XMLExportOptions options;
    options.log = log();
    options.directory = widePath(staging.prefix());
    options.fileName = widePath(fileName);
    options.flavour = flavour.value;
    options.silent = o.silent;
    options.prepareOption = o.skipOffline;
    Qv::Ptr<QvExport::Exporter> exporter = factory->createExporter(&options);
    auto* single = dynamic_cast<QvExport::SingleSourceExporter*>(exporter.get());
    if (!single) return Outcome(kExitPlugin, "the XML plug-in made no exporter");

    std::string expected = narrowPath(Qv::FilespecUtils::makeValidFilespec(
        widePath(usedDir_), stripExtension(options.fileName),
        plugin_.resource() ? plugin_.resource()->getExtension(flavour.value) : L".xml", false,
        L'_'));

    int errorsBefore = console_->errors();
    std::unique_ptr<LeaveOutShotsWithoutFiles> leftOut;
    if (flavour.value == XML::XMLFlavourFCPX)
        leftOut = std::make_unique<LeaveOutShotsWithoutFiles>(edit, log());
    QvExport::ExportResult r;
    if (exportsQuickly(*edit)) {
        // Over before a spinner would show: written on this thread, which
        // has the edit in its caches and spares starting one.
        r = single->doExport(edit->cookie, {});
    } else {
        Qv::Ptr<QvExport::BackgroundTask> task = single->createBackgroundTasks(edit->cookie, {});
        // The wait ends the moment the export does; a long one shows that
        // it is still at work.
        const char spinner[] = "|/-\\";
        for (int tick = 0; !task->waitFor(std::chrono::milliseconds(100)); ++tick)
            if (tick >= 5)
                console_->status(std::string("exporting ") + label + " " + spinner[tick % 4]);
        r = task->wait();
        // The writer and its lists of a long edit are gone. A quick
        // export's are small, and asking the allocator what it holds walks
        // every free block the reading left: the next document's reading
        // hands memory back anyway.
        releaseFreedMemory();
    }
    console_->clearProgress();
    // The paths the pipeline reported lie in the staging folder.
    console_->takeWrittenPaths();

    switch (r.status) {
        case XML::kStatusOK:
            break;
        case XML::kStatusCannotCreate:
            return Outcome(kExitNotWritable, "cannot write " + inQuotes(expected));
        case XML::kStatusNoDirectory:
            return Outcome(kExitNoFolder,
                           "the output folder " + inQuotes(o.outputDir) + " does not exist");
        case XML::kStatusUnknown:
            return Outcome(kExitPlugin, "the XML plug-in offers no XML resource");
        default:
            // fcpxml names every shot's media file; the writer tells of a
            // shot without one in the application's log alone.
            if (flavour.value == XML::XMLFlavourFCPX && console_->errors() == errorsBefore)
                return Outcome(kExitFailed,
                               label +
                                   " could not be exported as fcpxml: the media file "
                                   "of a shot is not known (--skip-offline leaves such "
                                   "shots out)");
            return Outcome(kExitFailed, label + " could not be exported as " + flavour.name +
                                            " (see the messages above)");
    }
    std::vector<std::string> finished = staging.files();
    if (finished.empty()) {
        std::fprintf(out_, "%s: nothing to write\n", shown(label).c_str());
        std::fflush(out_);
        return {};
    }
    for (const std::string& name : finished) {
        std::string destination = usedDir_ + "/" + name;
        if (Outcome w = commitFile(staging.path() + "/" + name, destination, o); !w.ok()) return w;
        std::fprintf(out_, "%s\n", shown(destination).c_str());
    }
    std::fflush(out_);
    return {};
}

}  // namespace qvapp
