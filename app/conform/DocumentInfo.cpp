#include "app/conform/DocumentInfo.h"

#include <algorithm>
#include <map>
#include <memory>

#include "app/pipeline/Text.h"
#include "host/Config.h"
#include "host/Media.h"
#include "host/PathMap.h"
#include "host/Paths.h"

namespace qvapp {

namespace {

// The place on this machine that a locator names, after --map-path.
LightweightString<wchar_t> placeOf(const LightweightString<wchar_t>& locator) {
    LightweightString<wchar_t> platform = locatorToPlatformForm(locator);
    std::shared_ptr<const PathMap> map = locatorMap();
    if (map && !map->empty()) platform = map->apply(platform);
    return platform;
}

// A place that lies where a --map-path rule moves media to.
bool heldByMap(const std::string& place) {
    std::shared_ptr<const PathMap> map = locatorMap();
    if (!map) return false;
    LightweightString<wchar_t> p = fromUTF8(place.c_str());
    for (const PathRule& rule : map->rules()) {
        PathMap probe;
        probe.add({rule.to, L"/"});
        if (probe.apply(p) != p) return true;
    }
    return false;
}

// The timecode of a position in a shot's media.
std::string sourceTimecode(const Edit& shot, double celTime) {
    EditLabel label = shot.getVideoTimecodeLabel();
    Qv::FrameRate rate = label.is_valid() ? label.get_rate() : shot.getSourceFrameRate();
    unsigned ticks = Qv::getTicksPerSecond(rate);
    if (ticks == 0) ticks = 25;
    std::int64_t start = label.is_valid() ? label.get_start() : 0;
    std::int64_t frame = framesPlus(start, frameAsWritten(celTime * ticks));
    return frameToTimecode(frame, ticks, label.is_valid() && label.isDropFrame()).str();
}

class Describer {
  public:
    Describer(const IdentitySet& before, const std::string& documentPath, const std::string& format,
              const Resolutions& resolutions, bool whereabouts = true, bool body = true)
        : before_(before),
          resolutions_(resolutions),
          store_(EditStore::current()),
          whereabouts_(whereabouts),
          body_(body) {
        doc_.path = documentPath;
        doc_.format = format;
    }

    DocumentInfo run(const std::vector<Qv::Ptr<Edit>>& sequences) {
        for (const Qv::Ptr<Edit>& e : sequences) {
            if (e->channels.empty()) {
                ++doc_.nestedReferences;
                continue;
            }
            doc_.sequences.push_back(sequence(e));
        }
        // A document of clips alone: its media is what it holds.
        if (sequences.empty())
            for (const Qv::Ptr<Edit>& e : store_.edits())
                if (e->isShot() && !before_.count(e->cookie.uuid)) mediaIndex(*e);
        return std::move(doc_);
    }

  private:
    SequenceInfo sequence(const Qv::Ptr<Edit>& e) {
        SequenceInfo s;
        s.edit = e;
        s.name = narrow(e->name);
        s.frameRate = e->getFrameRate();
        s.rate = narrow(Qv::getPlainString(s.frameRate));
        s.ticks = Qv::getTicksPerSecond(s.frameRate);
        if (s.ticks == 0)
            s.ticks =
                e->rate > 0 ? static_cast<unsigned>(truncateToInt32(timebaseOf(e->rate))) : 25;
        EditLabel label = e->getVideoTimecodeLabel();
        if (label.is_valid()) {
            s.startFrame = label.get_start();
            s.dropFrame = label.isDropFrame();
        }
        double end = e->length;
        for (const StoredChannel& ch : e->channels)
            for (const CelData& c : ch.cels)
                end = std::max(end, c.editOut);
        s.duration = s.frameOf(end);

        // Video tracks first, the lowest (the editor's last video channel)
        // first, then audio in order.
        std::vector<const StoredChannel*> order;
        for (auto it = e->channels.rbegin(); it != e->channels.rend(); ++it)
            if (it->type == kChanVideo) order.push_back(&*it);
        for (const StoredChannel& ch : e->channels)
            if (ch.type != kChanVideo) order.push_back(&ch);
        for (const StoredChannel* ch : order) {
            TrackInfo t;
            t.name = trackName(*e, *ch);
            t.video = ch->type == kChanVideo;
            t.channel = static_cast<int>(ch->index);
            t.levels = ch->hasTrackLevels && !ch->levels.empty();
            int track = static_cast<int>(s.tracks.size());
            if (!body_) {
                s.tracks.push_back(t);
                continue;
            }
            std::int64_t at = 0;
            for (const CelData& c : ch->cels) {
                std::int64_t in = s.frameOf(c.editIn), out = s.frameOf(c.editOut);
                if (in > at) s.gaps.push_back({track, at, in});
                at = std::max(at, out);
                if (!c.cookie.isValid() || c.cookie.isBlack()) {
                    if (out > in) {
                        if (!s.gaps.empty() && s.gaps.back().track == track &&
                            s.gaps.back().recordOut == in)
                            s.gaps.back().recordOut = out;
                        else
                            s.gaps.push_back({track, in, out});
                    }
                    continue;
                }
                if (c.cookie.isMagic()) {
                    TransitionInfo tr{track, in, out, "dissolve", c.wipeCode};
                    if (c.wipeCode >= 0)
                        tr.kind = "wipe";
                    else if (c.cookie.isEffectGraph())
                        tr.kind = "effect";
                    s.transitions.push_back(tr);
                    ++t.transitions;
                    continue;
                }
                s.clips.push_back(clip(s, track, c, in, out));
                ++t.clips;
            }
            if (s.duration > at) s.gaps.push_back({track, at, s.duration});
            s.tracks.push_back(t);
        }
        for (const GapInfo& g : s.gaps)
            ++s.tracks[static_cast<std::size_t>(g.track)].gaps;
        for (const ClipInfo& c : s.clips) {
            if (c.speed != 1) ++s.speedChanges;
            if (c.media >= 0) s.media.insert(c.media);
        }
        if (body_)
            for (const Ced2Cue& cue : e->cues)
                s.markers.push_back({narrow(cue.name), narrow(cue.comment), s.frameOf(cue.in),
                                     cue.out >= kCueOpenEnd ? -1 : s.frameOf(cue.out), cue.colour});
        std::stable_sort(s.markers.begin(), s.markers.end(),
                         [](const MarkerInfo& a, const MarkerInfo& b) { return a.in < b.in; });
        return s;
    }

    ClipInfo clip(SequenceInfo& s, int track, const CelData& c, std::int64_t in, std::int64_t out) {
        ClipInfo clip;
        clip.track = track;
        clip.recordIn = in;
        clip.recordOut = out;
        clip.speed = c.speed;
        clip.level = c.level;
        clip.multiAngle = !c.alternates.empty();
        Qv::Ptr<Edit> target = store_.find(c.cookie);
        if (!target) {
            clip.name = "?";
            clip.kind = "shot";
            clip.offline = true;
            return clip;
        }
        clip.name = narrow(target->name);
        double offset = 0;
        Qv::Ptr<Edit> shot = target;
        if (target->isShot()) {
            clip.kind = "shot";
        } else if (target->logType == kLogTypeSubclip) {
            clip.kind = "subclip";
            // A sub-clip plays a stretch of its shot.
            shot = nullptr;
            for (const StoredChannel& ch : target->channels)
                for (const CelData& sc : ch.cels)
                    if (!shot && sc.cookie.isValid() && !sc.cookie.isMagic())
                        if (Qv::Ptr<Edit> found = store_.find(sc.cookie);
                            found && found->isShot()) {
                            shot = found;
                            offset = sc.sourceIn - sc.editIn;
                        }
        } else {
            clip.kind = "nested";
            shot = nullptr;
            std::set<const Edit*> seen;
            nestedMedia(*target, s.media, seen);
        }
        if (shot) {
            clip.shot = shot->cookie;
            clip.media = mediaIndex(*shot);
            ++doc_.media[static_cast<std::size_t>(clip.media)].uses;
            clip.offline = doc_.media[static_cast<std::size_t>(clip.media)].status == "offline";
            if (!whereabouts_) return clip;
            double length = (c.editOut - c.editIn) * (c.speed == 0 ? 0 : std::abs(c.speed));
            clip.sourceIn = sourceTimecode(*shot, offset + c.sourceIn);
            clip.sourceOut = sourceTimecode(*shot, offset + c.sourceIn + length);
        }
        return clip;
    }

    // The media a nest plays, at any depth. Each nested edit is looked into
    // once: a nest that holds another many times, or itself, would otherwise
    // be walked once per path to it, which grows without bound.
    void nestedMedia(const Edit& edit, std::set<int>& into, std::set<const Edit*>& seen) {
        if (!seen.insert(&edit).second) return;
        for (const StoredChannel& ch : edit.channels)
            for (const CelData& c : ch.cels) {
                if (!c.cookie.isValid() || c.cookie.isMagic()) continue;
                Qv::Ptr<Edit> e = store_.find(c.cookie);
                if (!e) continue;
                if (e->isShot())
                    into.insert(mediaIndex(*e));
                else
                    nestedMedia(*e, into, seen);
            }
    }

    int mediaIndex(const Edit& shot) {
        auto [it, fresh] =
            index_.try_emplace(shot.cookie.uuid, static_cast<int>(doc_.media.size()));
        if (fresh) {
            if (whereabouts_) {
                doc_.media.push_back(media(shot));
            } else {
                MediaInfo m;
                m.cookie = shot.cookie;
                m.name = narrow(shot.name);
                doc_.media.push_back(std::move(m));
            }
        }
        return it->second;
    }

    MediaInfo media(const Edit& shot) {
        MediaInfo m;
        m.cookie = shot.cookie;
        m.name = narrow(shot.name);
        m.locator = narrow(shot.historicLocator);
        m.path = narrow(shot.mediaPath);
        m.seconds = shot.length;
        m.width = shot.videoMetadata.getWidth();
        m.height = shot.videoMetadata.getHeight();
        for (const StoredChannel& ch : shot.channels) {
            if (ch.type == kChanVideo) m.video = true;
            if (ch.type == kChanAudio) ++m.audioChannels;
        }
        LightweightString<wchar_t> place = placeOf(shot.historicLocator);
        m.mapped =
            !shot.historicLocator.empty() && place != locatorToPlatformForm(shot.historicLocator);
        bool snapshot = doc_.format == "snapshot";
        if (!shot.mediaPath.empty() && (!snapshot || fileExists(shot.mediaPath))) {
            auto told = resolutions_.find(narrow(canonicalPath(shot.mediaPath)));
            if (told != resolutions_.end()) {
                // An imported shot's edit is the importer's: the log tells
                // where its document said it was.
                m.status = told->second.how;
                m.locator = told->second.locator;
                m.mapped = heldByMap(told->second.locator);
            } else if (snapshot || before_.count(shot.cookie.uuid)) {
                m.status = "linked";
            } else if (canonicalPath(place) == canonicalPath(shot.mediaPath)) {
                m.status = "imported";
            } else {
                m.status = "found";
            }
            if (before_.count(shot.cookie.uuid)) m.status = "linked";
            return m;
        }
        m.status = "offline";
        if (snapshot && !shot.mediaPath.empty()) {
            m.why = "the file is no longer there";
            m.lookedIn.push_back(m.path);
            m.path.clear();
            return m;
        }
        if (shot.historicLocator.empty()) {
            m.why = "no file is named for it";
            return m;
        }
        if (snapshot) {
            m.why = "it was offline in the project";
            m.lookedIn.push_back(narrow(place));
            return m;
        }
        if (prefs().getPreference("Import : Suppress relink existing material", false)) {
            m.why = "relinking is switched off (\"Import : Suppress relink existing material\")";
            return m;
        }
        m.lookedIn.push_back(narrow(place));
        m.why = fileExists(place) ? "the file is no media qvxml can read" : "not found";
        int behaviour = QvImport::getMediaScanningBehaviour();
        std::string folder = narrow(getPath(canonicalPath(fromUTF8(doc_.path.c_str()))));
        if (behaviour == 1) m.lookedIn.push_back(folder);
        if (behaviour == 2) m.lookedIn.push_back(folder + " and the folders below it");
        return m;
    }

    const IdentitySet& before_;
    const Resolutions& resolutions_;
    EditStore& store_;
    DocumentInfo doc_;
    std::map<Qv::UUID, int> index_;
    // Where each file is and how it was had, and the source timecodes: all
    // but the loss report of a conversion read them. Finding a file's place
    // costs a stat and a realpath per shot.
    bool whereabouts_;
    // The clips, gaps, transitions and markers; without them the tracks are
    // listed with nothing on them.
    bool body_;
};

}  // namespace

std::int64_t SequenceInfo::frameOf(double celTime) const {
    return frameAsWritten(celTime * ticks);
}

std::string SequenceInfo::timecode(std::int64_t frame) const {
    return frameToTimecode(framesPlus(startFrame, frame), ticks, dropFrame).str();
}

std::string SequenceInfo::length(std::int64_t frames) const {
    return frameToTimecode(frames, ticks, false).str();
}

int SequenceInfo::videoTracks() const {
    return static_cast<int>(
        std::count_if(tracks.begin(), tracks.end(), [](const TrackInfo& t) { return t.video; }));
}

int SequenceInfo::audioTracks() const {
    return static_cast<int>(tracks.size()) - videoTracks();
}

IdentitySet identitiesOf(const EditStore& store) {
    IdentitySet ids;
    for (const Qv::Ptr<Edit>& e : store.edits())
        ids.insert(e->cookie.uuid);
    return ids;
}

std::string trackName(const Edit& edit, const StoredChannel& channel) {
    int video = 0, audio = 0, below = 0, before = 0;
    for (const StoredChannel& ch : edit.channels) {
        if (ch.type == kChanVideo) {
            ++video;
            if (ch.index > channel.index) ++below;
        } else {
            ++audio;
            if (ch.index < channel.index) ++before;
        }
    }
    if (channel.type == kChanVideo) return "V" + std::to_string(below + 1);
    return "A" + std::to_string(before + 1);
}

DocumentInfo describe(const std::vector<Qv::Ptr<Edit>>& sequences, const IdentitySet& before,
                      const std::string& documentPath, const std::string& format,
                      const Resolutions& resolutions) {
    return Describer(before, documentPath, format, resolutions).run(sequences);
}

DocumentInfo describeTimeline(const std::vector<Qv::Ptr<Edit>>& sequences,
                              const std::string& format, bool body) {
    return Describer({}, {}, format, {}, false, body).run(sequences);
}

Resolutions resolutionsFrom(const std::vector<std::string>& lines) {
    // For each shot the import logs "locator <L>", then how it went:
    // "linking to existing material file", "material queued for import"
    // (and the importer's Imported "P"), or "linking to local media file
    // <C>" before either, or "Material offline".
    Resolutions out;
    std::string locator, found;
    auto inside = [](const std::string& line, char open, char close) {
        size_t a = line.find(open), b = line.rfind(close);
        return a != std::string::npos && b != std::string::npos && b > a
                   ? line.substr(a + 1, b - a - 1)
                   : std::string();
    };
    for (const std::string& raw : lines) {
        std::string line = raw.substr(std::min(raw.find_first_not_of(' '), raw.size()));
        if (line.starts_with("locator <")) {
            locator = inside(line, '<', '>');
            found.clear();
        } else if (line.starts_with("linking to local media file <")) {
            found = inside(line, '<', '>');
            out.try_emplace(narrow(canonicalPath(fromUTF8(found.c_str()))),
                            Resolution{locator, "found"});
        } else if (line == "linking to existing material file") {
            std::string path = narrow(canonicalPath(fromUTF8(locator.c_str())));
            out.try_emplace(path, Resolution{locator, "linked"});
        } else if (line.starts_with("Imported \"")) {
            std::string path = narrow(canonicalPath(fromUTF8(inside(line, '"', '"').c_str())));
            out[path] = {locator, found.empty() ? "imported" : "found"};
        }
    }
    return out;
}

}  // namespace qvapp
