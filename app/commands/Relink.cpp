#include "app/commands/Commands.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <memory>

#include "app/pipeline/AroundPlugin.h"
#include "app/pipeline/Text.h"
#include "host/Media.h"
#include "host/PathMap.h"
#include "host/Paths.h"
#include "host/Snapshot.h"

namespace qvapp {

namespace {

// "cut.json" gives "cut.relinked.json"; a name without an extension gets
// ".relinked.json".
std::string relinkedName(const std::string& snapshot) {
    std::size_t slash = snapshot.rfind('/');
    std::size_t dot = snapshot.rfind('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash) ||
        dot == (slash == std::string::npos ? 0 : slash + 1))
        return snapshot + ".relinked.json";
    return snapshot.substr(0, dot) + ".relinked" + snapshot.substr(dot);
}

std::string lowerCase(std::string s) {
    for (char& c : s)
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    return s;
}

// Every file under the folders, by name; the walk follows no links to
// folders, so it cannot loop.
class FileIndex {
  public:
    explicit FileIndex(const std::vector<std::string>& folders) {
        namespace fs = std::filesystem;
        for (const std::string& folder : folders) {
            std::error_code ec;
            fs::recursive_directory_iterator it(folder,
                                                fs::directory_options::skip_permission_denied, ec),
                end;
            for (; !ec && it != end; it.increment(ec)) {
                std::error_code typeError;
                fs::file_status status = it->status(typeError);
                std::string path = absolute(it->path().string());
                std::string name = it->path().filename().string();
                if (fs::is_regular_file(status)) {
                    byName_[name].push_back(path);
                    byLowerName_[lowerCase(name)].push_back(path);
                    byStem_[it->path().stem().string()].push_back(path);
                } else if (!fs::is_directory(it->symlink_status(typeError))) {
                    // Never probed: reading a pipe or a device could block
                    // or never end.
                    notFiles_.try_emplace(name, inQuotes(path) + " is " + whatIsNot(status));
                }
            }
        }
        for (auto* map : {&byName_, &byLowerName_, &byStem_})
            for (auto& [name, paths] : *map) {
                std::sort(paths.begin(), paths.end());
                paths.erase(std::unique(paths.begin(), paths.end()), paths.end());
            }
    }
    // The files of that name; failing those, of that name in another case;
    // failing those, for a name without an extension (as edit decision lists
    // name sources), the files of that name with any extension.
    std::vector<std::string> find(const std::string& name) const {
        if (auto it = byName_.find(name); it != byName_.end()) return it->second;
        if (auto it = byLowerName_.find(lowerCase(name)); it != byLowerName_.end())
            return it->second;
        if (name.find('.') == std::string::npos)
            if (auto it = byStem_.find(name); it != byStem_.end()) return it->second;
        return {};
    }
    // What an entry of that name is that is not a file ("\"x\" is a
    // device"); empty when there is none.
    std::string notAFile(const std::string& name) const {
        auto it = notFiles_.find(name);
        return it == notFiles_.end() ? "" : it->second;
    }

  private:
    static std::string whatIsNot(std::filesystem::file_status status) {
        namespace fs = std::filesystem;
        switch (status.type()) {
            case fs::file_type::fifo:
                return "a pipe (FIFO), not a file";
            case fs::file_type::block:
            case fs::file_type::character:
                return "a device, not a file";
            case fs::file_type::socket:
                return "a socket, not a file";
            case fs::file_type::directory:
                return "a link to a folder, not a file";
            case fs::file_type::not_found:
                return "a link to nothing";
            default:
                return "not a regular file";
        }
    }

    std::map<std::string, std::vector<std::string>> byName_, byLowerName_, byStem_;
    std::map<std::string, std::string> notFiles_;
};

// What a shot knows of its media, to tell files of one name apart.
struct Expected {
    double seconds = 0;
    double frame = 0.04;  // a frame of the shot, the tolerance of a length
    int width = 0, height = 0;
    bool video = false;
    int audioChannels = 0;
};

Expected expectedOf(const Edit& shot) {
    Expected e;
    e.seconds = shot.length;
    double fps = shot.rate > 0 ? shot.rate : 25;
    e.frame = 1.0 / fps;
    e.width = shot.videoMetadata.getWidth();
    e.height = shot.videoMetadata.getHeight();
    for (const StoredChannel& ch : shot.channels) {
        if (ch.type == kChanVideo) e.video = true;
        if (ch.type == kChanAudio) ++e.audioChannels;
    }
    return e;
}

std::string secondsText(double s) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", s);
    return text;
}

// Why a probed file is not the shot's media; empty when it may be.
std::string mismatch(const Expected& e, const MediaProbe& p) {
    if (!p.ok) return "it is no media qvxml can read";
    if (e.width > 0 && e.height > 0 && p.hasVideo && (p.width != e.width || p.height != e.height))
        return "its picture is " + std::to_string(p.width) + "x" + std::to_string(p.height) +
               ", not " + std::to_string(e.width) + "x" + std::to_string(e.height);
    if (e.seconds > 0 && std::fabs(p.duration - e.seconds) > std::max(e.frame, 0.02))
        return "it lasts " + secondsText(p.duration) + ", not " + secondsText(e.seconds);
    if (e.video && !p.hasVideo) return "it has no picture";
    if (e.audioChannels > 0 && p.audioChannels > 0 && p.audioChannels != e.audioChannels)
        return "it has " + counted(p.audioChannels, "sound channel") + ", not " +
               std::to_string(e.audioChannels);
    return "";
}

std::string whatMatched(const Expected& e, const MediaProbe& p) {
    std::string facts;
    if (e.width > 0 && e.height > 0 && p.hasVideo)
        facts = std::to_string(p.width) + "x" + std::to_string(p.height);
    if (e.seconds > 0) facts += (facts.empty() ? "" : ", ") + secondsText(p.duration);
    if (e.audioChannels > 0 && p.audioChannels > 0)
        facts += (facts.empty() ? "" : ", ") + counted(p.audioChannels, "sound channel");
    return facts;
}

// A line for the user, its names and paths shown, never obeyed.
void say(std::FILE* to, const std::string& line) {
    std::fputs((shown(line) + "\n").c_str(), to);
}

}  // namespace

Outcome Commands::relink(const Options& o) {
    if (o.inputs.size() != 1) return Outcome(kExitUsage, "say which one snapshot to relink");
    if (o.searchDirs.empty())
        return Outcome(kExitUsage, "say where to look for the media with --search DIR");
    const std::string& input = o.inputs[0];
    struct stat st;
    if (::stat(input.c_str(), &st) != 0)
        return Outcome(kExitUnreadable,
                       "cannot read " + inQuotes(input) + ": there is no such file");
    for (const std::string& dir : o.searchDirs)
        if (!isDirectory(wide(dir)))
            return Outcome(kExitNoFolder, "the folder " + inQuotes(dir) + " does not exist");
    // The snapshot read is never written over: the relinked one goes beside
    // it, as NAME.relinked.json, unless -o says where.
    std::string output = o.outputGiven ? o.outputDir : relinkedName(input);
    // A snapshot on standard output has it to itself: what is linked is told
    // on standard error then.
    if (!o.dryRun && isStandardOutput(output)) out_ = err_;
    startRun({input}, o.overwrite);
    if (!o.dryRun)
        if (Outcome w = run_->output->check(output); !w.ok()) return w;

    EditStore project;
    ScopedCurrentStore scope(project);
    Snapshot::Result loaded = Snapshot::loadFile(project, input);
    if (!loaded.ok) return Outcome(kExitUnknownDocument, inQuotes(input) + ": " + loaded.error);
    mapSnapshotLocators();

    FileIndex files(o.searchDirs);
    int offline = 0, linked = 0;
    for (const Qv::Ptr<Edit>& shot : project.edits()) {
        if (!shot->isShot()) continue;
        if (!shot->mediaPath.empty() && fileExists(shot->mediaPath)) continue;
        ++offline;
        std::string label = inQuotes(narrow(shot->name));
        LightweightString<wchar_t> named =
            !shot->mediaPath.empty() ? shot->mediaPath : shot->historicLocator;
        std::string name = narrow(stripPath(locatorToPlatformForm(named)));
        if (name.empty()) {
            say(out_, "still offline " + label + ": no file is named for it");
            continue;
        }
        std::vector<std::string> candidates = files.find(name);
        if (candidates.empty()) {
            if (std::string what = files.notAFile(name); !what.empty())
                say(out_, "still offline " + label + ": " + what);
            else
                say(out_, "still offline " + label + ": no file named " + inQuotes(name) +
                              " in the search folders");
            continue;
        }
        // Every candidate is probed: one of the same name may still be
        // another piece of media; of several, the one that agrees with what
        // the shot knows of its media is taken.
        Expected expected = expectedOf(*shot);
        std::vector<std::pair<std::string, MediaProbe>> agreeing;
        std::string whyNot;
        for (const std::string& c : candidates) {
            MediaProbe probe = probeMediaFile(wide(c));
            std::string why = mismatch(expected, probe);
            if (why.empty())
                agreeing.emplace_back(c, probe);
            else if (whyNot.empty())
                whyNot = inQuotes(c) + ": " + why;
        }
        if (LightweightString<char> why = takeMediaProbingUnavailable(); !why.empty())
            say(err_, "qvxml: " + std::string(why.c_str()));
        // The one file of that name is the shot's media, if it is media at
        // all; that it disagrees with the shot is said.
        std::string caveat;
        if (candidates.size() == 1 && agreeing.empty()) {
            MediaProbe probe = probeMediaFile(wide(candidates.front()));
            if (probe.ok) {
                caveat = "; but " + mismatch(expected, probe);
                agreeing.emplace_back(candidates.front(), probe);
            }
        }
        if (agreeing.size() != 1) {
            if (agreeing.empty())
                say(out_, "still offline " + label + ": " +
                              counted(static_cast<long>(candidates.size()), "file") +
                              " of that name, and none agrees with it (" + whyNot + ")");
            else
                say(out_, "still offline " + label + ": " + std::to_string(agreeing.size()) +
                              " files named " + inQuotes(name) +
                              " agree with it; move the wrong ones out of the search folders or "
                              "name one with --search");
            continue;
        }
        const auto& [path, probe] = agreeing.front();
        std::string how = candidates.size() == 1
                              ? "by name"
                              : "by name, then picture size, length and sound among " +
                                    std::to_string(candidates.size()) + " files";
        std::string facts = caveat.empty() ? whatMatched(expected, probe) : "";
        say(out_, std::string(o.dryRun ? "would link " : "linked ") + label + " to " + path + " (" +
                      how + (facts.empty() ? caveat : ": " + facts + caveat) + ")");
        ++linked;
        if (!o.dryRun) shot->mediaPath = wide(path);
    }
    project.noteMediaChanged();
    std::fprintf(out_, "%s: %d %s, %d still offline\n", counted(offline, "offline shot").c_str(),
                 linked, o.dryRun ? "would be linked" : "linked", offline - linked);
    std::fflush(out_);
    if (o.dryRun) return {};
    if (Outcome r = writeFile(output, Snapshot::dump(project), o); !r.ok()) return r;
    if (!isStandardOutput(output)) say(out_, "snapshot written to " + output);
    return {};
}

}  // namespace qvapp
