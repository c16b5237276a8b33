// Edit decision lists in the command: reading a list as any document is
// read, writing an edit as lists (one for each video track), and a list's rate.
#include <cmath>
#include <set>

#include "app/commands/Commands.h"
#include "app/output/SafeOutput.h"
#include "app/pipeline/Text.h"
#include "edl/EdlImport.h"
#include "edl/EdlWriter.h"
#include "host/Edit.h"
#include "host/OS.h"
#include "host/Paths.h"
#include "plugin/Status.h"

namespace qvapp {

bool parseListRate(const std::string& text, Qv::FrameRate& rate) {
    int count = 0;
    const Qv::FrameRate* rates = Qv::allFrameRates(count);
    for (int i = 0; i < count; ++i)
        if (narrow(Qv::getPlainString(rates[i])) == text) {
            rate = rates[i];
            return true;
        }
    char* end = nullptr;
    double fps = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !(fps > 0) || fps > 1000) return false;
    Qv::FrameRate r = Qv::getEquivalentQvFrameRate(fps);
    if (!Qv::isKnownFrameRate(r) || std::fabs(Qv::getFramesPerSecond(r) - fps) > 0.01) return false;
    rate = r;
    return true;
}

bool isListInput(const std::string& input) {
    return QvEdl::isEdlDocument(pathFromBytes(absolute(input)));
}

Outcome Commands::importList(const std::string& input, std::vector<Qv::Ptr<Edit>>& made) {
    EditStore& project = EditStore::current();
    std::set<const Edit*> before;
    for (const Qv::Ptr<Edit>& e : project.edits())
        before.insert(e.get());
    console_->status("importing " + input);
    QvEdl::ReadOptions options;
    options.rate = listRate_;
    std::string why;
    XML::ImportResult r = QvEdl::importEdlFile(pathFromBytes(absolute(input)), options, log(), why);
    console_->clearProgress();
    for (const EditModifier& m : r.edits)
        made.push_back(m.ptr());
    if (r.status == XML::kStatusOK) {
        std::vector<Qv::Ptr<Edit>> fresh;
        for (const Qv::Ptr<Edit>& e : project.edits())
            if (!before.count(e.get())) fresh.push_back(e);
        if (warnUnusable(fresh)) untrusted_.push_back(input);
        return {};
    }
    if (r.status == XML::kStatusUnreadable)
        return Outcome(kExitUnreadable, "cannot read " + inQuotes(input));
    return Outcome(kExitUnknownDocument,
                   inQuotes(input) + " cannot be read as an edit decision list: " + why);
}

Outcome Commands::rateOfList(const std::string& input) {
    QvEdl::ReadOptions options;
    options.rate = listRate_;
    std::string how;
    Qv::FrameRate rate = QvEdl::edlFrameRate(pathFromBytes(absolute(input)), options, how);
    if (rate == Qv::eFrameRateNone)
        return Outcome(kExitUnknownDocument,
                       "the frame rate of " + inQuotes(input) +
                           " cannot be told: it holds no event that can be read");
    std::fprintf(out_, "%s\n", narrow(Qv::getPlainString(rate)).c_str());
    std::fflush(out_);
    if (!Qv::isKnownFrameRate(listRate_))
        log().WarningOut("%s does not say its rate: %s; --rate gives another", input.c_str(),
                         how.c_str());
    return {};
}

std::vector<std::string> Commands::takeListNames() {
    return std::move(listNames_);
}

Outcome Commands::exportEdl(const Qv::Ptr<Edit>& edit, const Options& o,
                            const std::string& fileName) {
    listNames_.clear();
    std::string label =
        edit->name.empty() ? std::string("the nameless edit") : inQuotes(narrow(edit->name));
    QvEdl::ExportOptions options;
    options.track = o.edlTrack;
    options.reelLength = o.edlReelLength;
    options.skipOffline = o.skipOffline;
    std::vector<QvEdl::WrittenList> lists;
    std::string why;
    int status = QvEdl::writeEdl(edit->cookie, options, log(), lists, why);
    if (status == 4)
        return Outcome(kExitUsage, "--edl-track " + o.edlTrack + ": " + label + " " + why);
    if (status == 0 || (status == XML::kStatusOK && lists.empty())) {
        std::fprintf(out_, "%s: nothing to write\n", shown(label).c_str());
        std::fflush(out_);
        return {};
    }
    if (status != XML::kStatusOK)
        return Outcome(kExitFailed,
                       label + " could not be exported as edl (see the messages above)");

    // Each list is written in a staging folder and moved into place, as the
    // plug-in's exports are: "NAME V1.edl", "NAME V2.edl".
    StagingFolder staging(usedDir_);
    if (staging.path().empty()) return staging.made();
    std::string stem = pathBytes(stripExtension(pathFromBytes(fileName)));
    for (const QvEdl::WrittenList& list : lists) {
        std::string name =
            list.track.empty()
                ? stem + ".edl"
                : uniqueStem(pathFromBytes(stem + " " + list.track), ".edl") + ".edl";
        name = pathBytes(stripPath(Qv::FilespecUtils::makeValidFilespec(
            pathFromBytes(usedDir_), stripExtension(pathFromBytes(name)), L".edl", false, L'_')));
        std::string staged = staging.path() + "/" + name;
        std::string destination = usedDir_ + "/" + name;
        LightweightString<wchar_t> path = pathFromBytes(staged);
        iFileSystem* fs = OS()->files();
        Qv::Ptr<iFile> file = fs->open(path, kCreateForWriting);
        if (!file || file->write(list.text.data(), static_cast<unsigned>(list.text.size())) !=
                         list.text.size()) {
            file = nullptr;
            if (int failure = takeFileWriteFailure(path))
                return Outcome(kExitNotWritable,
                               "cannot write " + inQuotes(destination) + ": " + reasonOf(failure));
            return Outcome(kExitNotWritable, "cannot write " + inQuotes(destination));
        }
        file = nullptr;
        if (Outcome w = commitFile(staged, destination, o); !w.ok()) return w;
        std::fprintf(out_, "%s\n", shown(destination).c_str());
        listNames_.push_back(name);
    }
    std::fflush(out_);
    return {};
}

}  // namespace qvapp
