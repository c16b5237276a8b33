#include "app/Commands.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <tuple>

#include "app/Accounting.h"
#include "app/DocumentCheck.h"
#include "app/Util.h"
#include "app/WellFormed.h"
#include "host/Edit.h"
#include "host/OS.h"
#include "host/Paths.h"
#include "host/Snapshot.h"
#include "otio/OtioImport.h"
#include "otio/OtioModel.h"
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
// Paths are bytes: these keep them whole on the way through the host.
LightweightString<wchar_t> widePath(const std::string& s) {
    return pathFromBytes(s);
}
std::string narrowPath(const LightweightString<wchar_t>& s) {
    return pathBytes(s);
}

std::string absolute(const std::string& path) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved)) return resolved;
    return path;
}

std::string quoted(const std::string& s) {
    return "\"" + s + "\"";
}

// Whether a reader recorded a time or rate it could not use: the result's
// times cannot be trusted.
bool readUnusable(const DocumentLosses& d) {
    return std::any_of(d.items.begin(), d.items.end(),
                       [](const Loss& l) { return l.kind == "unusable-value"; });
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

// The whole of a file, or false with errno set.
bool readWhole(const std::string& path, std::string& out) {
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st;
    if (::fstat(fd, &st) == 0 && st.st_size > 0) out.reserve(static_cast<std::size_t>(st.st_size));
    char buffer[1 << 16];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            int error = errno;
            ::close(fd);
            errno = error;
            return false;
        }
        if (n == 0) break;
        out.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(fd);
    return true;
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
Commands::~Commands() = default;
Commands::Commands(Commands&&) noexcept = default;

int Commands::fail(int code, const std::string& sentence) {
    console_->clearProgress();
    std::fprintf(err_, "qvxml: %s\n", shown(sentence).c_str());
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
    } else if (to == "edl" || to == "cmx3600") {
        out = {XML::XMLFlavourNone, "edl", false, true};
    } else if (to.empty()) {
        exitCode = fail(kExitUsage,
                        "say which format to write with --to native, --to xmeml, --to fcpxml, "
                        "--to otio or --to edl");
        return false;
    } else {
        exitCode = fail(kExitUsage, quoted(to) +
                                        " is no format qvxml writes; use native, xmeml, fcpxml, "
                                        "otio or edl");
        return false;
    }
    return true;
}

void Commands::startRun(const std::vector<std::string>& inputs, bool overwrite) {
    std::lock_guard<std::mutex> lock(run_->mutex);
    for (const std::string& input : inputs)
        run_->inputs.add(input);
    run_->output = std::make_unique<SafeOutput>(run_->inputs, overwrite);
}

WriteResult Commands::commitFile(const std::string& finished, const std::string& path) {
    std::lock_guard<std::mutex> lock(run_->mutex);
    return run_->output->commit(finished, path);
}

int Commands::writeFile(const std::string& path, std::string_view bytes, const Options& o) {
    WriteResult w;
    {
        std::lock_guard<std::mutex> lock(run_->mutex);
        if (!run_->output) run_->output = std::make_unique<SafeOutput>(run_->inputs, o.overwrite);
        w = run_->output->write(path, bytes);
    }
    if (!w) return fail(w.code, w.sentence);
    if (w.replaced) replaced(path, o);
    return kExitOK;
}

void Commands::replaced(const std::string& path, const Options& o) {
    if (o.verbosity == Verbosity::Quiet) return;
    console_->clearProgress();
    std::fprintf(err_, "qvxml: replaced the older %s, as --overwrite asks\n",
                 shown(quoted(path)).c_str());
}

int Commands::checkDocument(const std::string& input, std::string_view bytes,
                            const DocumentHead& head, bool lenient, bool& untrusted,
                            XmlObserver* observer) {
    const bool native = head.kind == DocumentHead::Kind::Native;
    // Only documents of a kind that is read are checked: anything else is
    // refused for what it is.
    if (!native && head.kind != DocumentHead::Kind::Xmeml) return kExitOK;
    // A QVXML document is looked at as its reader of that version reads it,
    // in the same scan: what the reader passes over without a word is told.
    VersionMend mend = mendVersion(head);
    const std::string& version = mend.becomes.empty() ? head.firstValue : mend.becomes;
    const bool audited = native && (version == "1.0" || version == "2.0");
    std::vector<Finding> findings;
    XmlCheck xml = audited ? checkNative(bytes, version == "2.0", findings)
                           : checkXml(bytes, native ? qvxmlLimits() : XmlLimits(), observer);
    auto at = [](const XmlPlace& p) {
        return "(line " + std::to_string(p.line) + ", column " + std::to_string(p.column) + ")";
    };
    if (xml.limit)
        return fail(kExitRefused,
                    quoted(input) + " is refused " + at(xml.limit.at) + ": " + xml.limit.what);
    if (xml.malformed) {
        if (!lenient)
            return fail(kExitRefused, quoted(input) + " is not well formed " +
                                          at(xml.malformed.at) + ": " + xml.malformed.what +
                                          " (--lenient reads what can be read)");
        log().WarningOut(
            "%s is not well formed %s: %s; what can be read is read, as --lenient asks",
            quoted(input).c_str(), at(xml.malformed.at).c_str(), xml.malformed.what.c_str());
    }
    for (const Finding& f : findings) {
        log().WarningOut("%s:%zu:%zu: %s", input.c_str(), f.at.line, f.at.column, f.what.c_str());
        untrusted = untrusted || f.untrusted;
    }
    return kExitOK;
}

bool Commands::warnUnusable(const std::vector<Qv::Ptr<Edit>>& edits) {
    Unusable found = unusableValues(edits, 10);
    for (const Finding& f : found.named)
        log().WarningOut("%s", f.what.c_str());
    if (found.more) log().WarningOut("and %zu more values that are not finite numbers", found.more);
    return found.untrusted;
}

int Commands::importDocuments(const std::vector<std::string>& inputs,
                              std::vector<Qv::Ptr<Edit>>& made, bool lenient) {
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
        EditStore& project = EditStore::current();
        std::set<const Edit*> before;
        for (const Qv::Ptr<Edit>& e : project.edits())
            before.insert(e.get());
        const std::size_t madeBefore = made.size();
        auto madeHere = [&] {
            return std::vector<Qv::Ptr<Edit>>(
                made.begin() + static_cast<std::ptrdiff_t>(madeBefore), made.end());
        };
        // The losses of this document's reading are its own.
        console_->takeLosses();
        // What this document made: times that are not numbers can come from
        // any kind of document.
        auto madeUntrusted = [&] {
            std::vector<Qv::Ptr<Edit>> fresh;
            for (const Qv::Ptr<Edit>& e : project.edits())
                if (!before.count(e.get())) fresh.push_back(e);
            return warnUnusable(fresh);
        };
        // OpenTimelineIO: JSON whose root object has an OTIO_SCHEMA, whatever
        // the file's name. The command reads it itself.
        if (QvOtio::isOtioDocument(widePath(absolute(input)))) {
            console_->status("importing " + input);
            std::string why;
            QvOtio::Document model;
            XML::ImportResult r =
                QvOtio::importOtioFile(widePath(absolute(input)), log(), why, &model);
            console_->clearProgress();
            for (const EditModifier& m : r.edits)
                made.push_back(m.ptr());
            if (r.status == XML::kStatusOK) {
                read_.push_back(readingLosses(input, listOtioClips(model), madeHere()));
                // Times the document gives that no timeline can hold were
                // told by the reader, field by field.
                if (madeUntrusted() || !model.unusableTimes.empty()) untrusted_.push_back(input);
                continue;
            }
            if (r.status == XML::kStatusUnreadable)
                return fail(kExitUnreadable, "cannot read " + quoted(input));
            if (!why.empty())
                return fail(kExitUnknownDocument,
                            quoted(input) + " cannot be read as OpenTimelineIO: " + why);
            return fail(kExitFailed,
                        quoted(input) + " could not be imported (see the messages above)");
        }
        // An edit decision list, by its content: the command reads it too.
        if (isListInput(input)) {
            if (int code = importList(input, made)) return code;
            // A list's events are not checked one by one: its reader
            // records what it passes over.
            read_.push_back(readingLosses(input, DocumentClips(), madeHere()));
            if (readUnusable(read_.back()) && (untrusted_.empty() || untrusted_.back() != input))
                untrusted_.push_back(input);
            continue;
        }
        DocumentHead head = readDocumentHead(input);
        if (head.kind == DocumentHead::Kind::Fcpxml)
            return fail(kExitUnknownDocument, whyUnreadable(input, head));
        bool untrusted = false;
        // The clip items of an xmeml document are listed in the scan that
        // checks it, for the check of what its import made.
        XmemlClipLister lister;
        const bool xmeml = head.kind == DocumentHead::Kind::Xmeml;
        {
            std::string bytes;
            if (!readWhole(input, bytes))
                return fail(kExitUnreadable,
                            "cannot read " + quoted(input) + ": " + reasonOf(errno));
            if (int refused = checkDocument(input, bytes, head, lenient, untrusted,
                                            xmeml ? &lister : nullptr))
                return refused;
        }
        const LightweightString<wchar_t> path = widePath(absolute(input));
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
        read_.push_back(readingLosses(input, lister.take(), madeHere()));
        // What the check of the document found untrusted, it has told; so
        // has the reader each time it could not use.
        if (!untrusted) untrusted = readUnusable(read_.back()) || madeUntrusted();
        if (untrusted) untrusted_.push_back(input);
    }
    return kExitOK;
}

DocumentLosses Commands::readingLosses(const std::string& input, const DocumentClips& clips,
                                       const std::vector<Qv::Ptr<Edit>>& made) {
    DocumentLosses d;
    d.input = input;
    d.read = true;
    d.items = recordedLosses(console_->takeLosses(), "reader");
    Accounting a = accountFor(clips, made, d.items);
    // One warning a track, naming the first item.
    for (std::size_t i = 0; i < a.unaccounted.size();) {
        const Loss& first = a.unaccounted[i];
        std::size_t n = i;
        while (n < a.unaccounted.size() && a.unaccounted[n].sequence == first.sequence &&
               a.unaccounted[n].track == first.track)
            ++n;
        bool one = n - i == 1;
        log().WarningOut(
            "%s: sequence %s, track %s: %s nothing, and no loss says why (%s%s%s%s)", input.c_str(),
            quoted(first.sequence).c_str(), first.track.c_str(),
            (counted(static_cast<long>(n - i), "clip item") + (one ? " plays" : " play")).c_str(),
            one ? "" : "the first: ", first.detail.c_str(), first.timecode.empty() ? "" : " at ",
            first.timecode.c_str());
        i = n;
    }
    for (Loss& l : a.unaccounted)
        d.items.push_back(std::move(l));
    return d;
}

namespace {

// The bytes of a character of a path.
std::size_t bytesOf(wchar_t c) {
    char32_t v = static_cast<char32_t>(c);
    if (v < 0x80 || (v >= 0xDC80 && v <= 0xDCFF)) return 1;
    return v < 0x800 ? 2 : v < 0x10000 ? 3 : 4;
}

// `stem` cut at a character so that it takes at most `budget` bytes.
std::wstring cutTo(std::wstring_view stem, std::size_t budget) {
    std::size_t used = 0, keep = 0;
    while (keep < stem.size() && used + bytesOf(stem[keep]) <= budget)
        used += bytesOf(stem[keep++]);
    std::wstring out(stem.substr(0, keep));
    // A cut that leaves a blank or a full stop at the end makes a name that
    // is easy to misread.
    while (!out.empty() && (out.back() == L' ' || out.back() == L'.'))
        out.pop_back();
    return out;
}

}  // namespace

std::string Commands::uniqueStem(const LightweightString<wchar_t>& name,
                                 const std::string& extension) {
    std::wstring stem = name.empty() ? std::wstring(L"untitled") : name.str();
    // The longest name the folder's file system takes.
    long longest = ::pathconf(usedDir_.c_str(), _PC_NAME_MAX);
    std::size_t limit = longest > 0 ? static_cast<std::size_t>(longest) : 255;
    std::size_t extensionBytes = narrowPath(wide(extension)).size();
    for (int n = 1;; ++n) {
        std::wstring suffix = n == 1 ? std::wstring() : L" " + std::to_wstring(n);
        std::size_t suffixBytes = suffix.size();
        std::size_t budget =
            limit > extensionBytes + suffixBytes ? limit - extensionBytes - suffixBytes : 1;
        std::wstring candidate = cutTo(stem, budget) + suffix;
        if (candidate.empty()) candidate = L"untitled";
        std::string path = narrowPath(Qv::FilespecUtils::makeValidFilespec(
            widePath(usedDir_), LightweightString<wchar_t>(candidate), wide(extension), false,
            L'_'));
        std::lock_guard<std::mutex> lock(run_->mutex);
        std::vector<std::string>& used = run_->paths;
        if (std::find(used.begin(), used.end(), path) == used.end()) {
            used.push_back(path);
            return narrowPath(LightweightString<wchar_t>(candidate));
        }
    }
}

std::string Commands::extensionOf(const Flavour& flavour) {
    if (flavour.otio) return ".otio";
    if (flavour.edl) return ".edl";
    return narrow(plugin_.resource()->getExtension(flavour.value));
}

int Commands::exportOtio(const Qv::Ptr<Edit>& edit, const Options& o, const std::string& fileName) {
    std::string label =
        edit->name.empty() ? std::string("the nameless edit") : quoted(narrow(edit->name));
    // Written in a staging folder and moved into place, as the plug-in's
    // exports are.
    StagingFolder staging(usedDir_);
    if (staging.path().empty()) return fail(staging.error().code, staging.error().sentence);
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
            return fail(kExitNotWritable,
                        "cannot write " + inQuotes(destination) + ": " + reasonOf(failure));
        return fail(kExitNotWritable, "cannot write " + inQuotes(destination));
    }
    if (status != XML::kStatusOK)
        return fail(kExitFailed, label + " could not be exported as otio (see the messages above)");
    WriteResult w = commitFile(staged, destination);
    if (!w) return fail(w.code, w.sentence);
    if (w.replaced) replaced(destination, o);
    std::fprintf(out_, "%s\n", shown(destination).c_str());
    std::fflush(out_);
    return kExitOK;
}

int Commands::exportEdit(const Qv::Ptr<Edit>& edit, const Flavour& flavour, const Options& o,
                         const std::string& fileName) {
    if (flavour.otio) return exportOtio(edit, o, fileName);
    if (flavour.edl) return exportEdl(edit, o, fileName);
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

    // The plug-in writes into a folder of its own inside the output folder;
    // the finished file is moved out of it into place. Its path ends in a
    // separator, so that even a name the plug-in appends without one stays
    // inside it.
    StagingFolder staging(usedDir_);
    if (staging.path().empty()) return fail(staging.error().code, staging.error().sentence);

    XMLExportOptions options;
    options.log = log();
    options.directory = widePath(staging.prefix());
    options.fileName = widePath(fileName);
    options.flavour = flavour.value;
    options.silent = o.silent;
    options.prepareOption = o.skipOffline;
    Qv::Ptr<QvExport::Exporter> exporter = factory->createExporter(&options);
    auto* single = dynamic_cast<QvExport::SingleSourceExporter*>(exporter.get());
    if (!single) return fail(kExitPlugin, "the XML plug-in made no exporter");

    std::string expected = narrowPath(Qv::FilespecUtils::makeValidFilespec(
        widePath(usedDir_), stripExtension(options.fileName),
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
    // The paths the pipeline reported lie in the staging folder.
    console_->takeWrittenPaths();

    switch (r.status) {
        case XML::kStatusOK:
            break;
        case XML::kStatusCannotCreate:
            return fail(kExitNotWritable, "cannot write " + inQuotes(expected));
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
    std::vector<std::string> finished = staging.files();
    if (finished.empty()) {
        std::fprintf(out_, "%s: nothing to write\n", shown(label).c_str());
        std::fflush(out_);
        return kExitOK;
    }
    for (const std::string& name : finished) {
        std::string destination = usedDir_ + "/" + name;
        WriteResult w = commitFile(staging.path() + "/" + name, destination);
        if (!w) return fail(w.code, w.sentence);
        if (w.replaced) replaced(destination, o);
        std::fprintf(out_, "%s\n", shown(destination).c_str());
    }
    std::fflush(out_);
    return kExitOK;
}

int Commands::convert(const Options& o) {
    Flavour flavour;
    int code = kExitOK;
    if (!flavourOf(o.to, flavour, code)) return code;
    if (o.inputs.empty()) return fail(kExitUsage, "say which documents to convert");
    if (WriteResult w = checkFolder(o.outputDir, "the output folder"); !w)
        return fail(w.code, w.sentence);
    usedDir_ = absolute(o.outputDir);
    std::string extension = extensionOf(flavour);
    startRun(o.inputs, o.overwrite);
    if (!o.report.empty())
        if (WriteResult w = run_->output->check(o.report); !w) return fail(w.code, w.sentence);
    // A file written never takes the place of a document read: its name goes
    // to the next number.
    for (const std::string& input : o.inputs)
        run_->paths.push_back(absolute(input));
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

    // Where the snapshot and the report go is settled before any work is done.
    startRun(o.inputs, o.overwrite);
    for (const std::string* out : {&o.snapshot, &o.report})
        if (!out->empty())
            if (WriteResult w = run_->output->check(*out); !w) return fail(w.code, w.sentence);

    std::vector<Qv::Ptr<Edit>> made;
    int code = importDocuments(o.inputs, made, o.lenient);
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
        std::printf("  sequence %s\n", shown(quoted(narrow(e->name))).c_str());
    std::fflush(stdout);
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
        if (int failed = writeFile(o.report, lossReportText(read_, "import"), o)) return failed;

    std::string untrusted;
    for (const std::string& input : untrusted_)
        untrusted += (untrusted.empty() ? "" : ", ") + quoted(input);
    if (!untrusted.empty() && !o.lenient)
        return fail(kExitUntrusted, untrusted + " cannot be trusted: times are wrong or lost " +
                                        "(see the warnings above)" +
                                        (o.snapshot.empty() ? std::string()
                                                            : ", so no snapshot is written "
                                                              "(--lenient writes it)"));
    if (!o.snapshot.empty()) {
        if (int failed = writeFile(o.snapshot, Snapshot::dump(project), o)) return failed;
        std::printf("snapshot written to %s\n", shown(o.snapshot).c_str());
        std::fflush(stdout);
    }
    if (!untrusted.empty())
        return fail(kExitUntrusted, untrusted + " cannot be trusted: times are wrong or lost " +
                                        "(see the warnings above)");
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
    if (WriteResult w = checkFolder(o.outputDir, "the output folder"); !w)
        return fail(w.code, w.sentence);
    usedDir_ = absolute(o.outputDir);
    startRun(o.inputs, o.overwrite);
    if (!o.report.empty())
        if (WriteResult w = run_->output->check(o.report); !w) return fail(w.code, w.sentence);

    EditStore& project = EditStore::current();
    Snapshot::Result loaded = Snapshot::loadFile(project, input);
    if (!loaded.ok) return fail(kExitUnknownDocument, quoted(input) + ": " + loaded.error);
    for (const std::string& w : loaded.warnings)
        log().WarningOut("%s: %s", input.c_str(), w.c_str());

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
    // An export writes times as frame counts: one that is not a number
    // would be written as a count that looks right and is not.
    bool untrusted = warnUnusable(editAndSources(chosen));
    if (untrusted && !o.lenient)
        return fail(kExitUntrusted, quoted(input) +
                                        " has times that no export can write (see the warnings "
                                        "above), so nothing is written (--lenient writes it)");
    std::string extension = extensionOf(flavour);
    run_->paths.push_back(absolute(input));
    std::string fileName =
        uniqueStem(o.name.empty() ? chosen->name : stripExtension(widePath(o.name)), extension) +
        extension;
    int exported = exportWithReport(chosen, flavour, o, fileName, input);
    if (exported == kExitOK && untrusted)
        return fail(kExitUntrusted, quoted(input) +
                                        " was written as --lenient asks, but its times cannot be "
                                        "trusted (see the warnings above)");
    return exported;
}

int Commands::rate(const Options& o) {
    if (o.inputs.size() != 1) return fail(kExitUsage, "say which one document to look at");
    const std::string& input = o.inputs[0];
    struct stat st;
    if (::stat(input.c_str(), &st) != 0)
        return fail(kExitUnreadable, "cannot read " + quoted(input) + ": there is no such file");
    iXMLResource* resource = plugin_.resource();
    if (!resource) return fail(kExitPlugin, "the XML plug-in offers no XML resource");
    const LightweightString<wchar_t> path = widePath(absolute(input));
    if (QvOtio::isOtioDocument(path)) {
        Qv::FrameRate rate = QvOtio::otioFrameRate(path);
        if (rate == Qv::eFrameRateNone)
            return fail(kExitUnknownDocument, "the frame rate of " + quoted(input) +
                                                  " cannot be told: it holds no OpenTimelineIO "
                                                  "timeline qvxml can read");
        std::printf("%s\n", narrow(Qv::getPlainString(rate)).c_str());
        return kExitOK;
    }
    if (isListInput(input)) return rateOfList(input);
    DocumentHead head = readDocumentHead(input);
    {
        std::string bytes;
        if (!readWhole(input, bytes))
            return fail(kExitUnreadable, "cannot read " + quoted(input) + ": " + reasonOf(errno));
        bool untrusted = false;
        if (int refused = checkDocument(input, bytes, head, o.lenient, untrusted)) return refused;
    }
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
