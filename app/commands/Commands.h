// The commands of qvxml, and the pipeline they share. Each command is a file
// of app/commands/ (convert, import, export, rate, info, draw, relink, and
// the edit decision lists); what they share, reading documents in, writing
// edits out, the run's files and their names, is app/pipeline/.
#pragma once

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "app/Status.h"
#include "app/checks/DocumentHead.h"
#include "app/cli/Console.h"
#include "app/cli/Options.h"
#include "app/output/SafeOutput.h"
#include "app/pipeline/PluginLoader.h"
#include "host/FrameRate.h"

namespace qvapp {

// --rate's value as a rate ("25", "29.97", "23.976"); false when it is none.
bool parseListRate(const std::string& text, Qv::FrameRate& rate);
// Whether an input is an edit decision list, by its content.
bool isListInput(const std::string& input);

struct DocumentInfo;
struct DocumentClips;
struct DocumentLosses;
class XmlObserver;

class Commands {
  public:
    Commands(PluginLoader& plugin, Qv::Ptr<ConsoleLog> console);
    ~Commands();
    Commands(Commands&&) noexcept;

    Outcome convert(const Options& o);
    Outcome import(const Options& o);
    Outcome exportSnapshot(const Options& o);
    Outcome rate(const Options& o);
    Outcome info(const Options& o);    // commands/Info.cpp
    Outcome relink(const Options& o);  // commands/Relink.cpp
    Outcome draw(const Options& o);    // commands/Draw.cpp

    // Tells a failure's sentence on the command's standard error, if it was
    // not told yet, and gives the failure back told.
    Outcome tell(const Outcome& outcome);

    // The rate edit decision lists are read at (--rate); none to tell it
    // from each list.
    void setListRate(Qv::FrameRate rate) { listRate_ = rate; }

    // Where the command's words go: a job of a batch has streams of its own.
    void setStreams(std::FILE* out, std::FILE* err) {
        out_ = out;
        err_ = err;
    }

  private:
    struct Flavour {
        XML::XMLFlavour value;
        const char* name;
        bool otio = false;  // OpenTimelineIO: written by the command, not the plug-in
        bool edl = false;   // edit decision lists: written by the command too
    };
    // A --to value as a flavour.
    Outcome flavourOf(const std::string& to, Flavour& out);
    // Imports documents into the current project. The sequences made are
    // appended to `made`. A document whose result cannot be trusted is
    // imported all the same, and added to `untrusted_`. What reading each
    // document lost is appended to `read_`, once the import is checked for
    // clip items that play nothing and that no loss names.
    Outcome importDocuments(const std::vector<std::string>& inputs,
                            std::vector<Qv::Ptr<Edit>>& made, bool lenient);
    // Refuses a document that is not well formed (unless `lenient`) or that
    // nests past the limits, and tells what its readers will pass over.
    // `observer`, if any, sees the document's elements in the same scan.
    Outcome checkDocument(const std::string& input, std::string_view bytes,
                          const DocumentHead& head, bool lenient, bool& untrusted,
                          XmlObserver* observer = nullptr);
    // Reads a document's bytes and checks them (checkDocument). A document
    // declared in ISO-8859-1 or Windows-1252 is checked as UTF-8, and `head`
    // is read again from its converted text. The bytes as checked are left
    // in `bytes`, to be handed to the plug-in (MendedVersion), so that the
    // document is read from the disk once; `converted` says whether they
    // are still the file's own.
    Outcome readAndCheck(const std::string& input, DocumentHead& head, bool lenient,
                         bool& untrusted, XmlObserver* observer, std::string& bytes,
                         bool& converted);
    // The losses of reading a document: what the reader recorded, and the
    // clip items of `clips` that the check cannot account for, which it
    // also tells in warnings.
    DocumentLosses readingLosses(const std::string& input, const DocumentClips& clips,
                                 const std::vector<Qv::Ptr<Edit>>& made);
    // Warns of the values among `edits` that no export can write as they are;
    // true if any makes the result untrusted.
    bool warnUnusable(const std::vector<Qv::Ptr<Edit>>& edits);
    // Registers the inputs of a run and sets up its output.
    void startRun(const std::vector<std::string>& inputs, bool overwrite);
    // Says that an older file was replaced.
    void replaced(const std::string& path, const Options& o);
    // Writes a whole file through the run's safe output (reports, pictures,
    // snapshots).
    Outcome writeFile(const std::string& path, std::string_view bytes, const Options& o);
    // Moves a finished export out of its staging folder into place, and
    // says so if it replaced an older file.
    Outcome commitFile(const std::string& finished, const std::string& path, const Options& o);
    // Exports one edit; prints the path of each file written.
    Outcome exportEdit(const Qv::Ptr<Edit>& edit, const Flavour& flavour, const Options& o,
                       const std::string& fileName);
    // A name for a file from `stem` that no earlier export of this run used,
    // shortened to what the file system takes with its extension.
    std::string uniqueStem(const LightweightString<wchar_t>& stem, const std::string& extension);
    // Writes an edit as an OpenTimelineIO file.
    Outcome exportOtio(const Qv::Ptr<Edit>& edit, const Options& o, const std::string& fileName);
    std::string extensionOf(const Flavour& flavour);
    // Edit decision lists (commands/Edl.cpp): a list read into the current
    // project, an edit written as lists, a list's rate, and the names of the
    // lists the last export wrote.
    Outcome importList(const std::string& input, std::vector<Qv::Ptr<Edit>>& made);
    Outcome exportEdl(const Qv::Ptr<Edit>& edit, const Options& o, const std::string& fileName);
    Outcome rateOfList(const std::string& input);
    std::vector<std::string> takeListNames();
    // A job of a batch: its own console and streams, this run's files.
    Commands jobOf(const Options& o, std::FILE* out, std::FILE* err);
    // Converts the documents, side by side with -j, each with its loss
    // report (commands/Convert.cpp).
    Outcome convertAll(const Options& o, const Flavour& flavour, const std::string& extension);
    Outcome convertDocument(std::size_t job, const std::string& input, const Options& o,
                            const Flavour& flavour, const std::string& extension,
                            class Turns* turns, DocumentLosses& losses);
    // Exports an edit of a snapshot and reports what did not cross.
    Outcome exportWithReport(const Qv::Ptr<Edit>& edit, const Flavour& flavour, const Options& o,
                             const std::string& fileName, const std::string& input);
    // Reads a document or snapshot into a project of its own and describes
    // it (commands/Info.cpp).
    Outcome lookAt(const std::string& input, bool lenient, DocumentInfo& d);
    // Describes one document for `info` (commands/Info.cpp).
    Outcome infoDocument(const std::string& input, const Options& o, std::string& json);
    // Reads a document or snapshot into the current store: the sequences it
    // made, what the store held before, and its format.
    Outcome readForLooking(const std::string& input, std::vector<Qv::Ptr<Edit>>& sequences,
                           std::string& format, bool lenient);
    LoggerHandle log() const { return LoggerHandle(Qv::Ptr<iLogSink>(console_)); }

    PluginLoader& plugin_;
    Qv::Ptr<ConsoleLog> console_;
    std::string usedDir_;  // the folder that file names are made for
    // What the jobs of a run share: the files it has written (or named, for
    // one of its exports to write), its inputs and its safe output. `mutex`
    // guards all of them.
    struct RunFiles {
        std::mutex mutex;
        std::vector<std::string> paths;
        InputFiles inputs;
        std::unique_ptr<SafeOutput> output;
    };
    std::shared_ptr<RunFiles> run_ = std::make_shared<RunFiles>();
    std::vector<std::string> untrusted_;  // documents whose result cannot be trusted
    std::vector<DocumentLosses> read_;    // what reading each document lost, in order
    std::vector<std::string> formats_;    // the format of each document read, as read_
    Qv::FrameRate listRate_ = Qv::eFrameRateNone;
    std::vector<std::string> listNames_;
    std::FILE* out_ = stdout;
    std::FILE* err_ = stderr;
};

}  // namespace qvapp
