// Reading documents into the project: the checks before the plug-in reads
// (well-formedness, limits, what the readers pass over), the import through
// the plug-in or the command's own readers, and the accounting of every clip
// item afterwards.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <set>

#include "app/checks/DocumentCheck.h"
#include "app/checks/Encoding.h"
#include "app/checks/WellFormed.h"
#include "app/commands/Commands.h"
#include "app/conform/Accounting.h"
#include "app/pipeline/AroundPlugin.h"
#include "app/pipeline/Pipeline.h"
#include "app/pipeline/Text.h"
#include "host/Edit.h"
#include "otio/OtioImport.h"
#include "otio/OtioModel.h"
#include "plugin/Status.h"

namespace qvapp {

// Whether a reader recorded a time or rate it could not use: the result's
// times cannot be trusted.
bool readUnusable(const DocumentLosses& d) {
    return std::any_of(d.items.begin(), d.items.end(),
                       [](const Loss& l) { return l.kind == "unusable-value"; });
}

// Why the plug-in found no reader for a document, in the user's terms.
std::string whyUnreadable(const std::string& input, const DocumentHead& head) {
    const std::string file = inQuotes(input);
    switch (head.kind) {
        case DocumentHead::Kind::Xmeml:
            if (head.firstAttribute != "version")
                return file +
                       " is xmeml, but its xmeml element does not begin with its version "
                       "(version=\"1\" to version=\"5\")";
            return file + " is xmeml of version " + inQuotes(head.firstValue) +
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

Outcome Commands::checkDocument(const std::string& input, std::string_view bytes,
                                const DocumentHead& head, bool lenient, bool& untrusted,
                                XmlObserver* observer) {
    const bool native = head.kind == DocumentHead::Kind::Native;
    // Only documents of a kind that is read are checked: anything else is
    // refused for what it is.
    if (!native && head.kind != DocumentHead::Kind::Xmeml) return {};
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
        return Outcome(kExitRefused,
                       inQuotes(input) + " is refused " + at(xml.limit.at) + ": " + xml.limit.what);
    if (xml.malformed) {
        if (!lenient)
            return Outcome(kExitRefused, inQuotes(input) + " is not well formed " +
                                             at(xml.malformed.at) + ": " + xml.malformed.what +
                                             " (--lenient reads what can be read)");
        log().WarningOut(
            "%s is not well formed %s: %s; what can be read is read, as --lenient asks",
            inQuotes(input).c_str(), at(xml.malformed.at).c_str(), xml.malformed.what.c_str());
    }
    for (const Finding& f : findings) {
        log().WarningOut("%s:%zu:%zu: %s", input.c_str(), f.at.line, f.at.column, f.what.c_str());
        untrusted = untrusted || f.untrusted;
    }
    return {};
}

Outcome Commands::readAndCheck(const std::string& input, DocumentHead& head, bool lenient,
                               bool& untrusted, XmlObserver* observer, std::string& bytes,
                               bool& converted) {
    bytes.clear();
    converted = false;
    if (!readWhole(input, bytes))
        return Outcome(kExitUnreadable, "cannot read " + inQuotes(input) + ": " + reasonOf(errno));
    // A document in another encoding is read as UTF-8: the check and the
    // plug-in see the converted text.
    DeclaredEncoding encoding = toUtf8(bytes);
    if (!encoding.readable) {
        std::string why = inQuotes(input) + " is written in " + inQuotes(encoding.name) +
                          " (line 1), which qvxml cannot read; it reads UTF-8, ISO-8859-1 and " +
                          "Windows-1252";
        if (!lenient) return Outcome(kExitRefused, why + " (--lenient reads it as UTF-8)");
        log().WarningOut("%s; it is read as UTF-8, as --lenient asks", why.c_str());
    }
    converted = encoding.converted;
    if (encoding.converted) head = readDocumentHead(std::string_view(bytes));
    if (Outcome r = checkDocument(input, bytes, head, lenient, untrusted, observer); !r.ok())
        return r;
    return {};
}

bool Commands::warnUnusable(const std::vector<Qv::Ptr<Edit>>& edits) {
    Unusable found = unusableValues(edits, 10);
    for (const Finding& f : found.named)
        log().WarningOut("%s", f.what.c_str());
    if (found.more) log().WarningOut("and %zu more values that are not finite numbers", found.more);
    return found.untrusted;
}

Outcome Commands::importDocuments(const std::vector<std::string>& inputs,
                                  std::vector<Qv::Ptr<Edit>>& made, bool lenient) {
    iXMLResource* resource = plugin_.resource();
    if (!resource) return Outcome(kExitPlugin, "the XML plug-in offers no XML resource");
    for (const std::string& input : inputs) {
        struct stat st;
        if (::stat(input.c_str(), &st) != 0)
            return Outcome(kExitUnreadable,
                           "cannot read " + inQuotes(input) + ": there is no such file");
        if (S_ISDIR(st.st_mode))
            return Outcome(kExitUnreadable, inQuotes(input) + " is a folder, not a document");
        if (st.st_size == 0) return Outcome(kExitUnreadable, inQuotes(input) + " is empty");
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
                formats_.push_back("otio");
                // Times the document gives that no timeline can hold were
                // told by the reader, field by field.
                if (madeUntrusted() || !model.unusableTimes.empty()) untrusted_.push_back(input);
                continue;
            }
            if (r.status == XML::kStatusUnreadable)
                return Outcome(kExitUnreadable, "cannot read " + inQuotes(input));
            if (!why.empty())
                return Outcome(kExitUnknownDocument,
                               inQuotes(input) + " cannot be read as OpenTimelineIO: " + why);
            return Outcome(kExitFailed,
                           inQuotes(input) + " could not be imported (see the messages above)");
        }
        // An edit decision list, by its content: the command reads it too.
        if (isListInput(input)) {
            if (Outcome r = importList(input, made); !r.ok()) return r;
            // A list's events are not checked one by one: its reader
            // records what it passes over.
            read_.push_back(readingLosses(input, DocumentClips(), madeHere()));
            formats_.push_back("edl");
            if (readUnusable(read_.back()) && (untrusted_.empty() || untrusted_.back() != input))
                untrusted_.push_back(input);
            continue;
        }
        DocumentHead head = readDocumentHead(input);
        // The kind the file says it is, before any conversion of its text.
        const std::string format = formatName(head.kind);
        if (head.kind == DocumentHead::Kind::Fcpxml)
            return Outcome(kExitUnknownDocument, whyUnreadable(input, head));
        bool untrusted = false;
        // The clip items of an xmeml document are listed in the scan that
        // checks it, for the check of what its import made.
        XmemlClipLister lister;
        const bool xmeml = head.kind == DocumentHead::Kind::Xmeml;
        std::string bytes;
        bool converted = false;
        if (Outcome r = readAndCheck(input, head, lenient, untrusted, xmeml ? &lister : nullptr,
                                     bytes, converted);
            !r.ok())
            return r;
        // The list is done with the scan; what the scan needed to make it
        // (every media definition by id) goes back before the import.
        const DocumentClips clips = lister.take();
        const LightweightString<wchar_t> path = widePath(absolute(input));
        MendedVersion mended(input, head, path, log(), std::move(bytes), converted);

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
                return Outcome(kExitUnreadable, "cannot read " + inQuotes(input));
            case XML::kStatusNoMemory:
                return Outcome(kExitUnreadable,
                               "there is not enough memory to read " + inQuotes(input));
            case XML::kStatusUnknown:
                return Outcome(kExitUnknownDocument, whyUnreadable(input, head));
            case XML::kStatusNoReader:
                return Outcome(
                    kExitNotAvailable,
                    "there is no reader yet for the kind of document " + inQuotes(input) + " is");
            default:
                if (head.kind == DocumentHead::Kind::Xmeml)
                    return Outcome(kExitFailed,
                                   inQuotes(input) +
                                       " could not be imported: a track of a sequence cannot be "
                                       "read (see the error above)");
                return Outcome(kExitFailed,
                               inQuotes(input) +
                                   " could not be imported: its structure is broken "
                                   "(a Shot or Edit without channels, or an empty channel)");
        }
        read_.push_back(readingLosses(input, clips, madeHere()));
        formats_.push_back(format);
        // What the check of the document found untrusted, it has told; so
        // has the reader each time it could not use.
        if (!untrusted) untrusted = readUnusable(read_.back()) || madeUntrusted();
        if (untrusted) untrusted_.push_back(input);
    }
    // The documents' bytes, the readers' indexes and the clip lists are gone.
    releaseFreedMemory();
    return {};
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
            inQuotes(first.sequence).c_str(), first.track.c_str(),
            (counted(static_cast<long>(n - i), "clip item") + (one ? " plays" : " play")).c_str(),
            one ? "" : "the first: ", first.detail.c_str(), first.timecode.empty() ? "" : " at ",
            first.timecode.c_str());
        i = n;
    }
    for (Loss& l : a.unaccounted)
        d.items.push_back(std::move(l));
    return d;
}

}  // namespace qvapp
