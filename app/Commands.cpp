#include "app/Commands.h"

#include "app/DocumentHead.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <tuple>

#include "host/Edit.h"
#include "host/OS.h"
#include "host/Paths.h"
#include "host/Snapshot.h"
#include "otio/OtioImport.h"
#include "otio/OtioWriter.h"
#include "plugin/Status.h"

namespace qvapp {

namespace {

LightweightString<wchar_t> wide(const std::string& s) {
    return fromUTF8(s.c_str());
}
std::string narrow(const LightweightString<wchar_t>& s) {
    return toUTF8(s).str();
}

std::string absolute(const std::string& path) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved)) return resolved;
    return path;
}

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

// Why the plug-in found no reader for a document, in the user's terms.
std::string whyUnreadable(const std::string& input, const DocumentHead& head) {
    const std::string file = quoted(input);
    switch (head.kind) {
        case DocumentHead::Kind::Xmeml:
            if (head.firstAttribute != "version")
                return file +
                       " is xmeml, but its xmeml element does not begin with its version "
                       "(version=\"1\" to version=\"5\")";
            return file + " is xmeml of version " + quoted(head.firstValue) +
                   "; qvxml reads xmeml versions 1 to 5";
        case DocumentHead::Kind::Native:
            return file +
                   " is a QVXML document, but not of version 1.0 or 2.0 given as the first "
                   "attribute (Version=\"2.0\") of its QVXML element";
        case DocumentHead::Kind::Fcpxml:
            return file + " is an fcpxml document; qvxml writes fcpxml but does not read it";
        case DocumentHead::Kind::Unknown:
            break;
    }
    if (head.root.empty())
        return file + " is not an XML document qvxml reads (no root element was found)";
    return file + " is no document qvxml reads: its root element is <" + head.root +
           ">, where QVXML or xmeml is expected";
}

// The whole of a file, or false.
bool readWhole(const std::string& path, std::string& out) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

// While it lives, a document whose version the readers would refuse only for
// its spelling reads as the version it means: the plug-in is handed the
// document with that one attribute mended, and the file is left as it is.
class MendedVersion {
  public:
    MendedVersion(const std::string& input, const DocumentHead& head,
                  const LightweightString<wchar_t>& path, LoggerHandle log)
        : path_(path) {
        VersionMend mend = mendVersion(head);
        std::string bytes;
        if (mend.attribute.empty() || !readWhole(input, bytes) ||
            mend.offset + mend.length > bytes.size())
            return;
        bytes.replace(mend.offset, mend.length, mend.attribute);
        setFileOverlay(path_, std::move(bytes));
        active_ = true;
        log.WarningOut("%s: %s version \"%s\" is read as version %s", input.c_str(),
                       head.root.c_str(), mend.was.c_str(), mend.becomes.c_str());
    }
    ~MendedVersion() {
        if (active_) clearFileOverlay(path_);
    }
    MendedVersion(const MendedVersion&) = delete;
    MendedVersion& operator=(const MendedVersion&) = delete;

  private:
    LightweightString<wchar_t> path_;
    bool active_ = false;
};

// fcpxml names the media file of every shot, and the plug-in gives up a whole
// export for one shot without a file. While this guard lives, the shots that
// an edit plays and whose file is not known at all (a generator, media the
// document never located) are left out of the export instead: each becomes a
// gap, and the log says which.
class LeaveOutShotsWithoutFiles {
  public:
    LeaveOutShotsWithoutFiles(const Qv::Ptr<Edit>& edit, LoggerHandle log) {
        EditStore& store = EditStore::current();
        std::set<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>> seen;
        std::vector<Qv::Ptr<Edit>> pending{edit};
        while (!pending.empty()) {
            Qv::Ptr<Edit> e = pending.back();
            pending.pop_back();
            for (const StoredChannel& ch : e->channels) {
                for (const CelData& c : ch.cels) {
                    if (!c.cookie.isValid() || c.cookie.isMagic()) continue;
                    Qv::Ptr<Edit> target = store.find(c.cookie);
                    const Qv::UUID& id = c.cookie.uuid;
                    if (!target ||
                        !seen.insert({id.words[0], id.words[1], id.words[2], id.words[3]}).second)
                        continue;
                    if (!target->isShot()) {
                        pending.push_back(target);
                    } else if (!target->excludedFromExport &&
                               !SystemCache::findEntryForCookie(target->cookie)) {
                        target->excludedFromExport = true;
                        left_.push_back(target);
                        log.WarningOut(
                            "shot \"%s\" has no media file: fcpxml cannot hold it, "
                            "and its uses become gaps",
                            toUTF8(target->name).c_str());
                    }
                }
            }
        }
    }
    ~LeaveOutShotsWithoutFiles() {
        for (const Qv::Ptr<Edit>& e : left_)
            e->excludedFromExport = false;
    }
    LeaveOutShotsWithoutFiles(const LeaveOutShotsWithoutFiles&) = delete;
    LeaveOutShotsWithoutFiles& operator=(const LeaveOutShotsWithoutFiles&) = delete;

  private:
    std::vector<Qv::Ptr<Edit>> left_;
};

}  // namespace

Commands::Commands(PluginLoader& plugin, Qv::Ptr<ConsoleLog> console)
    : plugin_(plugin), console_(std::move(console)) {}

int Commands::fail(int code, const std::string& sentence) {
    console_->clearProgress();
    std::fprintf(err_, "qvxml: %s\n", sentence.c_str());
    return code;
}

bool Commands::flavourOf(const std::string& to, Flavour& out, int& exitCode) {
    if (!plugin_.resource()) {
        exitCode = fail(kExitPlugin, "the XML plug-in offers no XML resource");
        return false;
    }
    if (to == "native" || to == "qvxml") {
        out = {XML::XMLFlavourQV2, "native"};
    } else if (to == "xmeml" || to == "fcp7") {
        out = {XML::XMLFlavourFCP5, "xmeml"};
    } else if (to == "fcpxml") {
        out = {XML::XMLFlavourFCPX, "fcpxml"};
    } else if (to == "otio" || to == "opentimelineio") {
        out = {XML::XMLFlavourNone, "otio", true};
    } else if (to.empty()) {
        exitCode = fail(kExitUsage,
                        "say which format to write with --to native, --to xmeml, --to fcpxml or "
                        "--to otio");
        return false;
    } else {
        exitCode =
            fail(kExitUsage,
                 quoted(to) + " is no format qvxml writes; use native, xmeml, fcpxml or otio");
        return false;
    }
    return true;
}

int Commands::importDocuments(const std::vector<std::string>& inputs,
                              std::vector<Qv::Ptr<Edit>>& made) {
    iXMLResource* resource = plugin_.resource();
    if (!resource) return fail(kExitPlugin, "the XML plug-in offers no XML resource");
    for (const std::string& input : inputs) {
        struct stat st;
        if (::stat(input.c_str(), &st) != 0)
            return fail(kExitUnreadable,
                        "cannot read " + quoted(input) + ": there is no such file");
        if (S_ISDIR(st.st_mode))
            return fail(kExitUnreadable, quoted(input) + " is a folder, not a document");
        if (st.st_size == 0) return fail(kExitUnreadable, quoted(input) + " is empty");
        // OpenTimelineIO: JSON whose root object has an OTIO_SCHEMA, whatever
        // the file's name. The command reads it itself.
        if (QvOtio::isOtioDocument(wide(absolute(input)))) {
            console_->status("importing " + input);
            std::string why;
            XML::ImportResult r = QvOtio::importOtioFile(wide(absolute(input)), log(), why);
            console_->clearProgress();
            for (const EditModifier& m : r.edits)
                made.push_back(m.ptr());
            if (r.status == XML::kStatusOK) continue;
            if (r.status == XML::kStatusUnreadable)
                return fail(kExitUnreadable, "cannot read " + quoted(input));
            if (!why.empty())
                return fail(kExitUnknownDocument,
                            quoted(input) + " cannot be read as OpenTimelineIO: " + why);
            return fail(kExitFailed,
                        quoted(input) + " could not be imported (see the messages above)");
        }
        DocumentHead head = readDocumentHead(input);
        if (head.kind == DocumentHead::Kind::Fcpxml)
            return fail(kExitUnknownDocument, whyUnreadable(input, head));
        const LightweightString<wchar_t> path = wide(absolute(input));
        MendedVersion mended(input, head, path, log());

        ImportFileList files;
        files.push_back(Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({path})));
        console_->status("importing " + input);
        XML::ImportResult r = resource->importFiles(files, log());
        console_->clearProgress();
        for (const EditModifier& m : r.edits)
            made.push_back(m.ptr());
        switch (r.status) {
            case XML::kStatusOK:
                break;
            case XML::kStatusUnreadable:
                return fail(kExitUnreadable, "cannot read " + quoted(input));
            case XML::kStatusNoMemory:
                return fail(kExitUnreadable, "there is not enough memory to read " + quoted(input));
            case XML::kStatusUnknown:
                return fail(kExitUnknownDocument, whyUnreadable(input, head));
            case XML::kStatusNoReader:
                return fail(kExitNotAvailable, "there is no reader yet for the kind of document " +
                                                   quoted(input) + " is");
            default:
                if (head.kind == DocumentHead::Kind::Xmeml)
                    return fail(kExitFailed,
                                quoted(input) +
                                    " could not be imported: a track of a sequence cannot be "
                                    "read (see the error above)");
                return fail(kExitFailed,
                            quoted(input) +
                                " could not be imported: its structure is broken "
                                "(a Shot or Edit without channels, or an empty channel)");
        }
    }
    return kExitOK;
}

std::string Commands::uniqueStem(const Qv::Ptr<Edit>& edit, const std::string& extension) {
    std::string stem = narrow(edit->name);
    if (stem.empty()) stem = "untitled";
    for (int n = 1;; ++n) {
        std::string candidate = n == 1 ? stem : stem + " " + std::to_string(n);
        std::string path = narrow(Qv::FilespecUtils::makeValidFilespec(
            wide(usedDir_), wide(candidate), wide(extension), false, L'_'));
        std::lock_guard<std::mutex> lock(used_->mutex);
        std::vector<std::string>& used = used_->paths;
        if (std::find(used.begin(), used.end(), path) == used.end()) {
            used.push_back(path);
            return candidate;
        }
    }
}

std::string Commands::extensionOf(const Flavour& flavour) {
    if (flavour.otio) return ".otio";
    return narrow(plugin_.resource()->getExtension(flavour.value));
}

int Commands::exportOtio(const Qv::Ptr<Edit>& edit, const Options& o, const std::string& fileName) {
    std::string label =
        edit->name.empty() ? std::string("the nameless edit") : quoted(narrow(edit->name));
    LightweightString<wchar_t> path = Qv::FilespecUtils::makeValidFilespec(
        wide(absolute(o.outputDir)), stripExtension(wide(fileName)), L".otio", false, L'_');
    QvOtio::ExportOptions options;
    options.skipOffline = o.skipOffline;
    int status = QvOtio::exportOtio(edit->cookie, path, options, log());
    if (status == XML::kStatusCannotCreate)
        return fail(kExitNotWritable, "cannot write " + quoted(narrow(path)));
    if (status != XML::kStatusOK)
        return fail(kExitFailed, label + " could not be exported as otio (see the messages above)");
    console_->takeWrittenPaths();
    std::fprintf(out_, "%s\n", narrow(path).c_str());
    std::fflush(out_);
    return kExitOK;
}

int Commands::exportEdit(const Qv::Ptr<Edit>& edit, const Flavour& flavour, const Options& o,
                         const std::string& fileName) {
    if (flavour.otio) return exportOtio(edit, o, fileName);
    QvExport::ExporterFactoryBase* factory = plugin_.exporterFactory();
    if (!factory)
        return fail(kExitNotAvailable,
                    "XML export is switched off (the configuration key enableXml is 0)");
    std::string label =
        edit->name.empty() ? std::string("the nameless edit") : quoted(narrow(edit->name));
    {
        EditPtr p;
        p.i_open(edit->cookie);
        int why = factory->canExport(p);
        p.i_close();
        if (why == 4) return fail(kExitFailed, label + " is of a kind that cannot be exported");
        if (why == 5) return fail(kExitFailed, label + " has no video or audio channels to export");
        if (why != 0) return fail(kExitFailed, label + " cannot be exported");
    }

    XMLExportOptions options;
    options.log = log();
    options.directory = wide(absolute(o.outputDir));
    options.fileName = wide(fileName);
    options.flavour = flavour.value;
    options.silent = o.silent;
    options.prepareOption = o.skipOffline;
    Qv::Ptr<QvExport::Exporter> exporter = factory->createExporter(&options);
    auto* single = dynamic_cast<QvExport::SingleSourceExporter*>(exporter.get());
    if (!single) return fail(kExitPlugin, "the XML plug-in made no exporter");

    std::string expected = narrow(Qv::FilespecUtils::makeValidFilespec(
        options.directory, stripExtension(options.fileName),
        plugin_.resource() ? plugin_.resource()->getExtension(flavour.value) : L".xml", false,
        L'_'));

    int errorsBefore = console_->errors();
    std::unique_ptr<LeaveOutShotsWithoutFiles> leftOut;
    if (flavour.value == XML::XMLFlavourFCPX)
        leftOut = std::make_unique<LeaveOutShotsWithoutFiles>(edit, log());
    Qv::Ptr<QvExport::BackgroundTask> task = single->createBackgroundTasks(edit->cookie, {});
    // The wait ends the moment the export does; a long one shows that it is
    // still at work.
    const char spinner[] = "|/-\\";
    for (int tick = 0; !task->waitFor(std::chrono::milliseconds(100)); ++tick)
        if (tick >= 5)
            console_->status(std::string("exporting ") + label + " " + spinner[tick % 4]);
    QvExport::ExportResult r = task->wait();
    console_->clearProgress();

    switch (r.status) {
        case XML::kStatusOK:
            break;
        case XML::kStatusCannotCreate:
            return fail(kExitNotWritable, "cannot write " + quoted(expected));
        case XML::kStatusNoDirectory:
            return fail(kExitNoFolder,
                        "the output folder " + quoted(o.outputDir) + " does not exist");
        case XML::kStatusUnknown:
            return fail(kExitPlugin, "the XML plug-in offers no XML resource");
        default:
            // fcpxml names every shot's media file; the writer tells of a
            // shot without one in the application's log alone.
            if (flavour.value == XML::XMLFlavourFCPX && console_->errors() == errorsBefore)
                return fail(kExitFailed, label +
                                             " could not be exported as fcpxml: the media file "
                                             "of a shot is not known (--skip-offline leaves such "
                                             "shots out)");
            return fail(kExitFailed, label + " could not be exported as " + flavour.name +
                                         " (see the messages above)");
    }
    std::vector<std::string> written;
    for (const LightweightString<wchar_t>& f : r.files)
        written.push_back(narrow(f));
    for (std::string& f : console_->takeWrittenPaths())
        written.push_back(std::move(f));
    // A silent export reports nothing; the file is where the name says.
    if (written.empty() && fileExists(wide(expected))) written.push_back(expected);
    if (written.empty()) {
        std::fprintf(out_, "%s: nothing to write\n", label.c_str());
    }
    for (const std::string& f : written)
        std::fprintf(out_, "%s\n", f.c_str());
    std::fflush(out_);
    return kExitOK;
}

int Commands::convert(const Options& o) {
    Flavour flavour;
    int code = kExitOK;
    if (!flavourOf(o.to, flavour, code)) return code;
    if (o.inputs.empty()) return fail(kExitUsage, "say which documents to convert");
    if (!isDirectory(wide(o.outputDir)))
        return fail(kExitNoFolder, "the output folder " + quoted(o.outputDir) + " does not exist");
    usedDir_ = absolute(o.outputDir);
    std::string extension = extensionOf(flavour);
    // A file written never takes the place of a document read.
    for (const std::string& input : o.inputs)
        used_->paths.push_back(absolute(input));
    return convertAll(o, flavour, extension);
}

int Commands::import(const Options& o) {
    if (o.inputs.empty()) return fail(kExitUsage, "say which documents to import");
    EditStore& project = EditStore::current();
    std::set<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>> before;
    auto key = [](const Cookie& c) {
        return std::make_tuple(c.uuid.words[0], c.uuid.words[1], c.uuid.words[2], c.uuid.words[3]);
    };
    for (const Qv::Ptr<Edit>& e : project.edits())
        before.insert(key(e->cookie));

    std::vector<Qv::Ptr<Edit>> made;
    int code = importDocuments(o.inputs, made);
    if (code != kExitOK) return code;

    int imported = 0, offline = 0, subclips = 0;
    for (const Qv::Ptr<Edit>& e : project.edits()) {
        if (before.count(key(e->cookie))) continue;
        if (e->isShot()) (e->isOffline() ? offline : imported)++;
        if (e->logType == kLogTypeSubclip) ++subclips;
    }
    // Shots that were in the project already and that the new edits play.
    std::set<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>> linked;
    for (const Qv::Ptr<Edit>& e : project.edits()) {
        if (before.count(key(e->cookie))) continue;
        for (const StoredChannel& ch : e->channels)
            for (const CelData& c : ch.cels)
                if (Qv::Ptr<Edit> s = project.find(c.cookie);
                    s && s->isShot() && before.count(key(s->cookie)))
                    linked.insert(key(s->cookie));
    }
    std::printf("%zu sequence%s, %d shot%s imported, %zu linked, %d offline", made.size(),
                made.size() == 1 ? "" : "s", imported, imported == 1 ? "" : "s", linked.size(),
                offline);
    if (subclips) std::printf(", %d sub-clip%s", subclips, subclips == 1 ? "" : "s");
    std::printf(", %d warning%s\n", console_->warnings(), console_->warnings() == 1 ? "" : "s");
    for (const Qv::Ptr<Edit>& e : made)
        std::printf("  sequence %s\n", quoted(narrow(e->name)).c_str());
    std::fflush(stdout);

    if (!o.snapshot.empty()) {
        Snapshot::Result r = Snapshot::saveFile(project, o.snapshot);
        if (!r.ok) return fail(kExitNotWritable, r.error);
        std::printf("snapshot written to %s\n", o.snapshot.c_str());
    }
    return kExitOK;
}

int Commands::exportSnapshot(const Options& o) {
    Flavour flavour;
    int code = kExitOK;
    if (!flavourOf(o.to, flavour, code)) return code;
    if (o.inputs.size() != 1) return fail(kExitUsage, "say which one snapshot to export from");
    const std::string& input = o.inputs[0];
    struct stat st;
    if (::stat(input.c_str(), &st) != 0)
        return fail(kExitUnreadable, "cannot read " + quoted(input) + ": there is no such file");
    if (!isDirectory(wide(o.outputDir)))
        return fail(kExitNoFolder, "the output folder " + quoted(o.outputDir) + " does not exist");
    usedDir_ = absolute(o.outputDir);

    EditStore& project = EditStore::current();
    Snapshot::Result loaded = Snapshot::loadFile(project, input);
    if (!loaded.ok) return fail(kExitUnknownDocument, quoted(input) + ": " + loaded.error);

    Qv::Ptr<Edit> chosen;
    if (!o.edit.empty()) {
        chosen = project.findByName(wide(o.edit));
        if (!chosen) chosen = project.find(Cookie(wide(o.edit), false));
        if (!chosen)
            return fail(kExitUsage, quoted(input) + " has no edit named " + quoted(o.edit));
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
                names += (names.empty() ? "" : ", ") + quoted(narrow(e->name));
            return fail(kExitUsage, quoted(input) + " holds " + std::to_string(sequences.size()) +
                                        " sequences" + (names.empty() ? "" : " (" + names + ")") +
                                        "; say which with --edit NAME");
        }
    }
    std::string extension = extensionOf(flavour);
    used_->paths.push_back(absolute(input));
    std::string fileName = o.name.empty() ? uniqueStem(chosen, extension) + extension : o.name;
    return exportWithReport(chosen, flavour, o, fileName, input);
}

int Commands::rate(const Options& o) {
    if (o.inputs.size() != 1) return fail(kExitUsage, "say which one document to look at");
    const std::string& input = o.inputs[0];
    struct stat st;
    if (::stat(input.c_str(), &st) != 0)
        return fail(kExitUnreadable, "cannot read " + quoted(input) + ": there is no such file");
    iXMLResource* resource = plugin_.resource();
    if (!resource) return fail(kExitPlugin, "the XML plug-in offers no XML resource");
    const LightweightString<wchar_t> path = wide(absolute(input));
    if (QvOtio::isOtioDocument(path)) {
        Qv::FrameRate rate = QvOtio::otioFrameRate(path);
        if (rate == Qv::eFrameRateNone)
            return fail(kExitUnknownDocument, "the frame rate of " + quoted(input) +
                                                  " cannot be told: it holds no OpenTimelineIO "
                                                  "timeline qvxml can read");
        std::printf("%s\n", narrow(Qv::getPlainString(rate)).c_str());
        return kExitOK;
    }
    DocumentHead head = readDocumentHead(input);
    Qv::FrameRate r;
    {
        MendedVersion mended(input, head, path, log());
        r = resource->getFrameRate(path);
    }
    if (r == Qv::eFrameRateNone) {
        bool known = (head.kind == DocumentHead::Kind::Xmeml && head.firstAttribute == "version" &&
                      head.firstValue.size() == 1 && head.firstValue[0] >= '1' &&
                      head.firstValue[0] <= '5') ||
                     (head.kind == DocumentHead::Kind::Native && head.firstAttribute == "Version" &&
                      (head.firstValue == "1.0" || head.firstValue == "2.0"));
        if (!known) return fail(kExitUnknownDocument, whyUnreadable(input, head));
        return fail(kExitUnknownDocument, "the frame rate of " + quoted(input) +
                                              " cannot be told: its first sequence names no rate "
                                              "qvxml knows");
    }
    std::printf("%s\n", narrow(Qv::getPlainString(r)).c_str());
    return kExitOK;
}

}  // namespace qvapp
