#include "app/conform/LossReport.h"

#include <algorithm>
#include <cmath>

#include "app/pipeline/Text.h"
#include "host/Config.h"
#include "plugin/Interchange.h"

namespace qvapp {

namespace {

struct KindText {
    const char* kind;
    const char* phrase;
    // The kind says that material of the document does not play where its
    // editor put it (black, silence, or other material in its place): a loss
    // of such a kind accounts for a clip item that plays nothing.
    bool replaced = false;
};

// Every kind, in the order a summary lists kinds of equal count.
const KindText kKinds[] = {
    // What the readers pass over.
    {"filter", "filters and effects passed over"},
    {"speed-ramp", "speed ramps read as one speed"},
    {"generator", "generators played as black", true},
    {"nested-sequence", "uses of nested sequences read flat", true},
    {"disabled", "switched-off items that play"},
    {"multiclip", "multiclips whose group is not rebuilt", true},
    {"unknown-transition", "transitions of unknown kinds played as black", true},
    {"transition-as-dissolve", "transitions of other kinds read as dissolves"},
    {"unusable-file", "clips of files without a length played as black", true},
    {"image-sequence", "image sequences played as black", true},
    {"file-missing", "clips whose media the document does not describe, played as black", true},
    {"bare-reference", "clip items that only name another by id, not read", true},
    {"clip-not-placed", "clips under the clip before them on their track, not played", true},
    {"cut-off", "clips past the sequence's stated length, cut off", true},
    {"unknown-media", "clips of media of unknown kinds played as black", true},
    {"channel-missing", "clips of a channel their media lacks, played as black or silence", true},
    {"nested-unplayed", "nested stacks played as black or silence", true},
    {"unknown-item", "items of unknown kinds read as gaps", true},
    {"unknown-track", "tracks of unknown kinds passed over", true},
    {"unusable-value", "times and rates that are no usable number, so times cannot be trusted"},
    {"unreadable-value", "lengths, markers and keyframes whose numbers cannot be used"},
    // What the check of an import finds that no reader said.
    {"unaccounted", "clip items that play black or silence, and nothing says why", true},
    // What the plug-in repairs as it writes.
    {"clip-shortened", "clips shortened to fit their media"},
    {"transition-removed", "transitions without enough material, replaced"},
    {"gap-added", "black added where source material is missing"},
    {"material-missing", "clips of material not in the project, written as gaps"},
    {"clip-as-black", "clips with none of their media left, written as black"},
    {"transition-dropped", "transitions that join no clip, left out"},
    {"transition-shortened", "transitions shortened by a frame to centre on their cut"},
    {"length-unknown", "shots of no known length, given the length their uses need"},
    {"character-replaced", "names with characters XML cannot carry, written with U+FFFD"},
    {"level-unplaced", "level keyframes with no place on the sequence, left out"},
    // What the target format cannot hold.
    {"speed", "speed changes the format cannot hold"},
    {"wipe-pattern", "wipes that lose their pattern"},
    {"multi-angle-flat", "multi-angle clips written flat"},
    {"cel-level", "clip levels not written"},
    {"audio-not-written", "audio tracks not written"},
    {"transition-as-gap", "transitions in a row written as gaps"},
    {"level-capped", "levels capped at 6 dB"},
    {"shot-without-file", "clips of media without a file, written as gaps"},
    {"left-out", "clips of offline media left out"},
    {"marker-colour", "marker colours not written"},
    {"reel", "reels not written"},
    {"log-text", "log texts not written"},
    {"marker", "markers the format cannot hold"},
    {"speed-read-as-1", "stills and reverse play read back at normal speed"},
    {"level-zero", "levels of 0 read back as unity"},
    // What an edit decision list passes over or cannot hold.
    {"key-as-cut", "keys read as cuts"},
    {"unreadable-event", "events that cannot be read, left out"},
    {"unreadable-speed", "speed lines that cannot be read, passed over"},
    {"split-edit", "split edits read as straight cuts"},
    {"event-overlap", "events laid over the one before, which ends where they begin"},
    {"record-timed-by-source", "events that end before they begin, timed by their source"},
    {"transition-trimmed", "transitions longer than their event, shortened"},
    {"marker-unread", "locators that cannot be placed, passed over"},
    {"reel-invented", "reels invented for shots without one"},
    {"reel-shortened", "reels shortened or renamed"},
    {"track-levels", "track level automation not written"},
    {"audio-patch", "audio clips that play another channel than their track's"},
    {"nested-left-out", "uses of nested sequences left out as gaps"},
    {"nested-flat", "uses of nested sequences written as what they play"},
    {"transition-through-black", "transitions in a row written through black"},
    {"video-track-apart", "video tracks written to lists of their own"},
    {"track-left-out", "tracks not written"},
    {"source-rate", "media at another rate, its timecode counted at the list's"},
};

int kindOrder(const std::string& kind) {
    for (std::size_t i = 0; i < std::size(kKinds); ++i)
        if (kind == kKinds[i].kind) return static_cast<int>(i);
    return static_cast<int>(std::size(kKinds));
}

Loss at(const SequenceInfo& s, const std::string& kind, int track, std::int64_t frame,
        std::string detail) {
    Loss l;
    l.kind = kind;
    l.origin = "target";
    l.sequence = s.name;
    if (track >= 0 && static_cast<std::size_t>(track) < s.tracks.size())
        l.track = s.tracks[static_cast<std::size_t>(track)].name;
    if (frame >= 0) {
        l.frame = frame;
        l.timecode = s.timecode(frame);
    }
    l.detail = std::move(detail);
    return l;
}

std::string speedText(double speed) {
    if (speed == 0) return "a still";
    char text[64];
    std::snprintf(text, sizeof text, "%s%g%%", speed < 0 ? "reverse at " : "at ",
                  std::fabs(speed) * 100.0);
    return text;
}

// The level keyframes of a channel above a linear value, with their frames.
std::vector<std::pair<std::int64_t, float>> levelsAbove(const SequenceInfo& s,
                                                        const StoredChannel& ch, float limit) {
    std::vector<std::pair<std::int64_t, float>> out;
    if (!ch.hasTrackLevels) return out;
    double length = s.edit->length > 0 ? s.edit->length : s.edit->getEndTime();
    for (const LevelData& l : ch.levels)
        if (l.value > limit) out.emplace_back(s.frameOf(l.position * length), l.value);
    return out;
}

const StoredChannel* channelOf(const SequenceInfo& s, const TrackInfo& t) {
    return s.edit ? s.edit->findChannel(static_cast<unsigned>(t.channel)) : nullptr;
}

void fcpxmlLosses(const SequenceInfo& s, std::vector<Loss>& out) {
    EditStore& store = EditStore::current();
    for (const ClipInfo& c : s.clips) {
        if (c.speed != 1) out.push_back(at(s, "speed", c.track, c.recordIn, speedText(c.speed)));
        if (c.multiAngle) out.push_back(at(s, "multi-angle-flat", c.track, c.recordIn, c.name));
        if (!s.tracks[static_cast<std::size_t>(c.track)].video && c.level != 1)
            out.push_back(at(s, "cel-level", c.track, c.recordIn, c.name));
    }
    for (const TransitionInfo& t : s.transitions)
        if (t.kind == "wipe")
            out.push_back(at(s, "wipe-pattern", t.track, t.recordIn,
                             "SMPTE wipe " + std::to_string(t.wipeCode)));
    // Two transitions side by side: the second becomes a gap.
    for (std::size_t i = 1; i < s.transitions.size(); ++i)
        if (s.transitions[i].track == s.transitions[i - 1].track &&
            s.transitions[i].recordIn == s.transitions[i - 1].recordOut)
            out.push_back(
                at(s, "transition-as-gap", s.transitions[i].track, s.transitions[i].recordIn, ""));
    for (const MarkerInfo& m : s.markers)
        if (m.colour != 0) {
            char colour[16];
            std::snprintf(colour, sizeof colour, "#%06X", m.colour & 0xFFFFFF);
            out.push_back(at(s, "marker-colour", -1, m.in, m.name + " " + colour));
        }
    // As first written, the sound goes out only when the first video
    // channel has an item at the very start; by default it always does.
    const StoredChannel* first = nullptr;
    for (const StoredChannel& ch : s.edit->channels)
        if (ch.type == kChanVideo) {
            first = &ch;
            break;
        }
    bool sound = !XML::legacyInterchange() ||
                 (first && !first->cels.empty() && std::fabs(first->cels.front().editIn) < 1e-6);
    if (!sound)
        for (std::size_t t = 0; t < s.tracks.size(); ++t)
            if (!s.tracks[t].video && s.tracks[t].clips > 0)
                out.push_back(at(s, "audio-not-written", static_cast<int>(t), -1,
                                 first ? "the first video track does not start at the start"
                                       : "the sequence has no video track"));
    if (config_int("xml_export_limit_to_6dB", 0) != 0)
        for (std::size_t t = 0; t < s.tracks.size(); ++t)
            if (const StoredChannel* ch = channelOf(s, s.tracks[t]); ch && !s.tracks[t].video)
                for (auto [frame, value] : levelsAbove(s, *ch, 1.9953f))
                    out.push_back(at(s, "level-capped", static_cast<int>(t), frame,
                                     std::to_string(20 * std::log10(value)).substr(0, 5) + " dB"));
    // Reels and log texts, once for each piece of media, at its first use.
    std::set<int> seen;
    for (const ClipInfo& c : s.clips) {
        if (c.media < 0 || !seen.insert(c.media).second) continue;
        Qv::Ptr<Edit> shot = store.find(c.shot);
        if (!shot) continue;
        std::string reels;
        for (const LightweightString<char>* r :
             {&shot->videoReelId, &shot->audioReelId, &shot->filmReelId})
            if (!r->empty()) reels += (reels.empty() ? "" : ", ") + r->str();
        if (!reels.empty())
            out.push_back(at(s, "reel", c.track, c.recordIn, c.name + ": " + reels));
        std::string texts;
        for (const char* key : kLogFieldKeys)
            if (!shot->getConfig(key).empty())
                texts += (texts.empty() ? "" : ", ") + std::string(key);
        if (!texts.empty())
            out.push_back(at(s, "log-text", c.track, c.recordIn, c.name + ": " + texts));
    }
}

}  // namespace

std::map<std::string, int> DocumentLosses::counts() const {
    std::map<std::string, int> n;
    for (const Loss& l : items)
        ++n[l.kind];
    return n;
}

std::string kindPhrase(const std::string& kind) {
    int i = kindOrder(kind);
    return i < static_cast<int>(std::size(kKinds)) ? kKinds[i].phrase : kind;
}

bool kindReplacesMaterial(const std::string& kind) {
    int i = kindOrder(kind);
    return i < static_cast<int>(std::size(kKinds)) && kKinds[i].replaced;
}

Loss lossOf(const LossRecord& r, const char* origin) {
    Loss l;
    l.kind = r.kind.str();
    l.origin = origin;
    l.sequence = r.sequence.str();
    l.track = r.track.str();
    l.timecode = r.timecode.str();
    l.detail = r.detail.str();
    l.frame = r.frame;
    return l;
}

SequenceView::SequenceView(const Qv::Ptr<Edit>& edit, const std::string& format)
    : edit_(edit), format_(format), headOnly_(describeTimeline({edit}, format, false)) {
    if (!headOnly_.sequences.empty()) head_ = &headOnly_.sequences.front();
}

const SequenceInfo& SequenceView::body() const {
    if (!whole_) {
        described_ = describeTimeline({edit_}, format_);
        whole_ = &described_.sequences.front();
    }
    return *whole_;
}

std::vector<Loss> targetLosses(const SequenceView& view, const std::string& target, bool silent,
                               bool skipOffline) {
    std::vector<Loss> out;
    const SequenceInfo* head = view.head();
    if (!head || !head->edit) return out;
    const Edit& edit = *head->edit;
    // Clips of media that the export leaves out become gaps: with
    // --skip-offline those of offline media, in fcpxml also those of media
    // without any file (which the format cannot hold). Other exports leave
    // no clip out, and their clips are not looked up.
    EditStore& store = EditStore::current();
    if (skipOffline || target == "fcpxml") {
        const SequenceInfo& s = view.body();
        for (const ClipInfo& c : s.clips) {
            Qv::Ptr<Edit> shot = c.shot.isValid() ? store.find(c.shot) : nullptr;
            if (!shot) continue;
            if (skipOffline && shot->isOffline())
                out.push_back(at(s, "left-out", c.track, c.recordIn, c.name));
            else if (target == "fcpxml" && !SystemCache::findEntryForCookie(shot->cookie))
                out.push_back(at(s, "shot-without-file", c.track, c.recordIn, c.name));
        }
    }
    if (target == "fcpxml") {
        fcpxmlLosses(view.body(), out);
    } else if (target == "xmeml") {
        // Multi-angle cels: seen in the edit itself, so that a sequence
        // without them is not described to its clips for them.
        bool angled = false;
        for (const StoredChannel& ch : edit.channels)
            for (const CelData& c : ch.cels)
                angled = angled || !c.alternates.empty();
        if (angled) {
            const SequenceInfo& s = view.body();
            // One multi-angle cel alone can go out as a multiclip, when silent.
            int video = 0, angles = 0;
            for (const ClipInfo& c : s.clips) {
                video += s.tracks[static_cast<std::size_t>(c.track)].video;
                angles += c.multiAngle;
            }
            bool group = silent && video == 1 && angles >= 1 &&
                         config_int("suppress_FCP7XML_multiclip_group", 0) == 0;
            for (const ClipInfo& c : s.clips)
                if (c.multiAngle && !group)
                    out.push_back(at(s, "multi-angle-flat", c.track, c.recordIn, c.name));
        }
        if (config_int("xml_export_limit_to_6dB", 0) != 0) {
            const SequenceInfo& s = view.body();
            for (const ClipInfo& c : s.clips) {
                const TrackInfo& t = s.tracks[static_cast<std::size_t>(c.track)];
                const StoredChannel* ch = channelOf(s, t);
                if (t.video || !ch) continue;
                for (auto [frame, value] : levelsAbove(s, *ch, 1.9907f))
                    if (frame >= c.recordIn && frame <= c.recordOut) {
                        out.push_back(at(s, "level-capped", c.track, c.recordIn,
                                         c.name + ": " +
                                             std::to_string(20 * std::log10(value)).substr(0, 5) +
                                             " dB"));
                        break;
                    }
            }
        }
    } else if (target == "native") {
        const SequenceInfo& s = view.body();
        for (const MarkerInfo& m : s.markers)
            out.push_back(at(s, "marker", -1, m.in, m.name));
        for (const ClipInfo& c : s.clips) {
            if (c.speed <= 0)
                out.push_back(at(s, "speed-read-as-1", c.track, c.recordIn, speedText(c.speed)));
            if (c.level == 0) out.push_back(at(s, "level-zero", c.track, c.recordIn, c.name));
        }
    }
    return out;
}

std::vector<Loss> writerLosses(const SequenceInfo& s, const std::vector<LossRecord>& records) {
    std::vector<Loss> out;
    for (const LossRecord& r : records) {
        Loss l = lossOf(r, "writer");
        if (l.sequence.empty()) l.sequence = s.name;
        std::int64_t frame = 0;
        if (l.frame < 0 && !l.timecode.empty() &&
            timecodeToFrame(l.timecode.c_str(), s.ticks, s.dropFrame, frame))
            l.frame = frame - s.startFrame;
        out.push_back(std::move(l));
    }
    return out;
}

std::vector<Loss> recordedLosses(const std::vector<LossRecord>& records, const char* origin) {
    std::vector<Loss> out;
    out.reserve(records.size());
    for (const LossRecord& r : records)
        out.push_back(lossOf(r, origin));
    return out;
}

std::string lossSummary(const DocumentLosses& d) {
    std::map<std::string, int> counts = d.counts();
    std::string head = d.input + (d.target.empty() ? "" : " to " + d.target) + ": ";
    if (counts.empty())
        return head + (d.warnings == 0
                           ? std::string("nothing was lost")
                           : "no loss was recorded, but " + counted(d.warnings, "warning") +
                                 " above may tell of one");
    std::vector<std::pair<std::string, int>> kinds(counts.begin(), counts.end());
    std::sort(kinds.begin(), kinds.end(), [](const auto& a, const auto& b) {
        return a.second != b.second ? a.second > b.second : kindOrder(a.first) < kindOrder(b.first);
    });
    std::string text = head + counted(static_cast<long>(d.items.size()), "loss", "losses") + " (";
    for (std::size_t i = 0; i < kinds.size(); ++i)
        text +=
            (i ? ", " : "") + std::to_string(kinds[i].second) + " " + kindPhrase(kinds[i].first);
    return text + ")";
}

nlohmann::json lossJson(const DocumentLosses& d) {
    nlohmann::json items = nlohmann::json::array();
    for (const Loss& l : d.items) {
        nlohmann::json j = {{"kind", l.kind},   {"origin", l.origin},     {"sequence", l.sequence},
                            {"track", l.track}, {"timecode", l.timecode}, {"detail", l.detail}};
        j["frame"] = l.frame >= 0 ? nlohmann::json(l.frame) : nlohmann::json(nullptr);
        items.push_back(std::move(j));
    }
    nlohmann::json counts = nlohmann::json::object();
    for (const auto& [kind, n] : d.counts())
        counts[kind] = n;
    return {{"input", d.input},
            {"target", d.target},
            {"outputs", d.outputs},
            {"counts", counts},
            {"items", items}};
}

std::string lossReportText(const std::vector<DocumentLosses>& documents,
                           const std::string& command) {
    nlohmann::json docs = nlohmann::json::array();
    nlohmann::json totals = nlohmann::json::object();
    for (const DocumentLosses& d : documents) {
        if (!d.read) continue;
        docs.push_back(lossJson(d));
        for (const auto& [kind, n] : d.counts())
            totals[kind] = totals.value(kind, 0) + n;
    }
    nlohmann::json root = {{"qvxml", "loss-report"},
                           {"version", 1},
                           {"command", command},
                           {"counts", totals},
                           {"documents", docs}};
    // Names that are not UTF-8 are written with U+FFFD.
    return root.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace qvapp
