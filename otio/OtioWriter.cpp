#include "otio/OtioWriter.h"

#include <cmath>
#include <cstdio>
#include <functional>
#include <set>
#include <unordered_map>
#include <vector>

#include "export/ExportDriver.h"
#include "host/Edit.h"
#include "host/OS.h"
#include "otio/OtioJson.h"
#include "otio/OtioMetadata.h"
#include "otio/OtioModel.h"
#include "otio/OtioTime.h"
#include "plugin/Interchange.h"

namespace QvOtio {

namespace {

using ordered = nlohmann::ordered_json;

const char* const kDefaultMedia = "DEFAULT_MEDIA";

struct IdentityHash {
    std::size_t operator()(const Qv::UUID& id) const noexcept {
        std::uint64_t h = 1469598103934665603ull;
        for (std::uint32_t w : id.words)
            h = (h ^ w) * 1099511628211ull;
        return static_cast<std::size_t>(h);
    }
};

bool isShotRecord(const CED2* r) {
    return r->isShot && !r->isGhost;
}

// One event of a track on its way out: a cel, or a stretch of nothing.
struct Entry {
    enum Kind { Material, Black, Transition } kind;
    double in, out;                  // record frames in the host
    double otioIn = 0, otioOut = 0;  // record frames in the document
    const CED2Cell* cel = nullptr;
    CED2* source = nullptr;  // what a material cel plays
    double inOffset = 0, outOffset = 0;
    double trimmed = 0;  // record frames cut off its head where it overlapped the one before
};

class Writer {
  public:
    Writer(LoggerHandle log, std::string& out)
        : log_(std::move(log)), json_(out), legacy_(XML::legacyInterchange()) {
        // The original writer let NaN and Infinity, and bytes that are no
        // UTF-8, into the file: OpenTimelineIO reads them, JSON does not.
        json_.setStrict(!legacy_);
    }

    // The export lists of the edit: 1, or the status that stops the export.
    int prepare(const Cookie& edit, const ExportOptions& options);
    // The document, into the writer's text; `flush` (when set) is handed the
    // text whenever a good deal of it has been written.
    void write();
    void setFlush(std::function<void(std::string&)> flush) { json_.setFlush(std::move(flush)); }

  private:
    CED2* find(const Cookie& cookie) const {
        auto it = records_.find(cookie.uuid);
        return it == records_.end() ? nullptr : it->second;
    }
    std::string idOf(const CED2* record, const char* prefix, int& counter);
    TimeBase baseOf(const CED2* record, const TimeBase& fallback) const;
    LightweightString<char> timecodeAt(double cel) const;

    void metadata(const ordered& ours);
    // `key` with an empty list: effects or markers an item has none of.
    void emptyArray(const char* key) {
        json_.key(key);
        json_.beginArray();
        json_.endArray();
    }
    void rationalTime(double value, double rate);
    void timeRange(double start, double duration, double rate);
    void effects(float speed);
    void marker(const Ced2Cue& cue, double originFrames, const TimeBase& base);
    void markers(const std::vector<Ced2Cue>& cues, double originFrames, const TimeBase& base);

    void timeline(CED2* record, const char* kind);
    void tracks(CED2* record, const TimeBase& base);
    void track(CED2* record, CChannel* channel, const TimeBase& base);
    std::vector<Entry> entriesOf(CED2* record, CChannel* channel, const TimeBase& base);
    void gap(double frames, const TimeBase& base);
    void transition(const Entry& e, bool video, const TimeBase& base);
    void material(const Entry& e, const TimeBase& base);

    ordered cueFields(const Ced2Cue& cue) const;
    ordered celFields(const CED2Cell& cel) const;
    const ordered& shotReference(CED2* shot);
    double originFrames(CED2* shot, const TimeBase& base);
    bool simpleSubclip(CED2* ghost, CED2*& shot) const;
    void clip(const Entry& e, CED2* shot, double sourceFrames,
              const LightweightString<wchar_t>& name, ordered fields, const TimeBase& base);

    // The rate a shot's footage counts, its timecode's first.
    Qv::FrameRate footageRate(const CED2* shot) const;

    LoggerHandle log_;
    JsonWriter json_;
    const bool legacy_;  // xml_legacy_interchange: write as first written
    CED2List seqList_, ghostList_, deepGhostList_, shotList_;
    std::unordered_map<Qv::UUID, CED2*, IdentityHash> records_;
    std::unordered_map<const CED2*, std::string> ids_;
    std::unordered_map<const CED2*, ordered> references_;
    int shots_ = 0, subclips_ = 0, edits_ = 0;
    std::set<const CED2*> writing_;  // nested edits on the way out, against cycles
    CED2* top_ = nullptr;            // the record of the timeline
    TimeBase topBase_;
    const CChannel* channel_ = nullptr;
};

// The rate a timecode label counts: drop frame counts only 1000/1001 rates.
Qv::FrameRate labelRate(const EditLabel& label) {
    Qv::FrameRate rate = getFrameRatefromMedium(label.get_MediumRoll().medium);
    if (!Qv::isKnownFrameRate(rate)) rate = label.get_rate();
    if (label.isDropFrame() && rate == Qv::eFrameRate30) rate = Qv::eFrameRate29_97;
    if (label.isDropFrame() && rate == Qv::eFrameRate60) rate = Qv::eFrameRate59_94;
    return rate;
}

Qv::FrameRate Writer::footageRate(const CED2* shot) const {
    if (shot->labelCount > 0 && shot->labels[0].is_valid() &&
        Qv::isKnownFrameRate(labelRate(shot->labels[0])))
        return labelRate(shot->labels[0]);
    // Without a timecode, the shot's own rate: the one its reference names.
    Qv::FrameRate rate = Qv::getEquivalentQvFrameRate(shot->rate);
    if (Qv::isKnownFrameRate(rate)) return rate;
    if (shot->edit && Qv::isKnownFrameRate(shot->edit->getSourceFrameRate()))
        return shot->edit->getSourceFrameRate();
    return topBase_.rate;
}

std::string Writer::idOf(const CED2* record, const char* prefix, int& counter) {
    auto [it, fresh] = ids_.try_emplace(record);
    if (fresh) it->second = std::string(prefix) + "-" + std::to_string(++counter);
    return it->second;
}

TimeBase Writer::baseOf(const CED2* record, const TimeBase& fallback) const {
    Qv::FrameRate rate = Qv::eFrameRateNone;
    if (record->edit && !isShotRecord(record)) rate = record->edit->getFrameRate();
    if (!Qv::isKnownFrameRate(rate) && record->rate > 0)
        rate = Qv::getEquivalentQvFrameRate(record->rate);
    if (!Qv::isKnownFrameRate(rate) && record->rate > 0)
        rate = Qv::getCelQVFrameRateFromFrameRateDouble(record->rate);
    return Qv::isKnownFrameRate(rate) ? TimeBase::of(rate) : fallback;
}

LightweightString<char> Writer::timecodeAt(double cel) const {
    if (top_ && top_->labelCount > 0 && top_->labels[0].is_valid())
        return top_->labels[0].get_string(top_->labels[0].posn_to_sample(cel));
    char text[32];
    std::snprintf(text, sizeof text, "%.3f s", cel);
    return text;
}

void Writer::metadata(const ordered& ours) {
    json_.key("metadata");
    json_.beginObject();
    if (!ours.empty()) {
        json_.key(kNamespace);
        json_.value(ours);
    }
    json_.endObject();
}

void Writer::rationalTime(double value, double rate) {
    json_.beginObject();
    json_.field("OTIO_SCHEMA", "RationalTime.1");
    json_.fieldNumber("rate", rate);
    json_.fieldNumber("value", value);
    json_.endObject();
}

void Writer::timeRange(double start, double duration, double rate) {
    json_.beginObject();
    json_.field("OTIO_SCHEMA", "TimeRange.1");
    json_.key("duration");
    rationalTime(duration, rate);
    json_.key("start_time");
    rationalTime(start, rate);
    json_.endObject();
}

void Writer::effects(float speed) {
    json_.key("effects");
    json_.beginArray();
    if (speed != 1.0f) {
        // A still is a freeze frame; any other speed a linear time warp.
        bool still = speed == 0.0f;
        json_.beginObject();
        json_.field("OTIO_SCHEMA", still ? "FreezeFrame.1" : "LinearTimeWarp.1");
        metadata(ordered());
        json_.field("name", "");
        json_.field("effect_name", still ? "FreezeFrame" : "LinearTimeWarp");
        json_.fieldBool("enabled", true);
        json_.fieldNumber("time_scalar", still ? 0.0 : static_cast<double>(speed));
        json_.endObject();
    }
    json_.endArray();
}

ordered Writer::cueFields(const Ced2Cue& cue) const {
    ordered q = ordered::object();
    bool exact = false;
    markerColourName(cue.colour, exact);
    if (!exact) q["colour"] = colourText(cue.colour);
    if (cue.out < kCueOpenEnd && cue.out == cue.in) q["closed"] = true;
    if (cue.type != kChanVideo) q["type"] = cue.type;
    if (cue.flags != 0) q["flags"] = cue.flags;
    return q;
}

// A cue as a marker: an open cue, or one that ends where it starts, is a
// point; the marker's range counts from `originFrames` in the owner's frame.
void Writer::marker(const Ced2Cue& cue, double origin, const TimeBase& base) {
    bool exact = false;
    const char* colour = markerColourName(cue.colour, exact);
    double in = base.frames(cue.in);
    // No time before the start, nor one that is no number; the original
    // writer wrote them as they came.
    if (!legacy_ && !(origin + in >= 0)) in = std::isfinite(origin) ? -std::min(origin, 0.0) : 0;
    double duration = cue.out >= kCueOpenEnd ? 0 : std::max(0.0, base.frames(cue.out) - in);
    if (!legacy_ && !std::isfinite(duration)) duration = 0;
    json_.beginObject();
    json_.field("OTIO_SCHEMA", "Marker.2");
    metadata(cueFields(cue));
    json_.field("name", toUTF8(cue.name).view());
    json_.field("color", colour);
    json_.key("marked_range");
    timeRange(tidyFrames(origin + in), duration, base.fps);
    json_.field("comment", toUTF8(cue.comment).view());
    json_.endObject();
}

void Writer::markers(const std::vector<Ced2Cue>& cues, double origin, const TimeBase& base) {
    json_.key("markers");
    json_.beginArray();
    for (const Ced2Cue& cue : cues)
        marker(cue, origin, base);
    json_.endArray();
}

// ---- the timeline and its tracks ----

int Writer::prepare(const Cookie& edit, const ExportOptions& options) {
    EditPtr opened;
    opened.i_open(edit);
    if (!opened) return 3;
    Qv::FrameRate rate = opened->getFrameRate();
    opened.i_close();

    CookieVec cookies;
    cookies.push_back(edit);
    int status = seqList_.PrepareED2ListsForExport(
        cookies, seqList_, ghostList_, deepGhostList_, shotList_, false, 0, log_, rate,
        options.skipOffline, false, false, false, false, false);
    if (status != 1) return status;
    // The original writer wrote a length that is no number as it came.
    if (!legacy_)
        XML::giveUnknownLengths(shotList_, {&seqList_, &ghostList_, &deepGhostList_}, log_);
    for (CED2List* list : {&seqList_, &ghostList_, &deepGhostList_, &shotList_})
        for (CED2* r : each<CED2>(*list))
            records_.emplace(r->cookie.uuid, r);

    CED2* record = find(edit);
    if (!record || record->excludedFromExport) return 0;
    top_ = record;
    return 1;
}

void Writer::write() {
    CED2* record = top_;
    if (isShotRecord(record)) {
        timeline(record, "shot");
    } else if (record->edit && record->edit->logType == kLogTypeSubclip) {
        timeline(record, "subclip");
    } else {
        timeline(record, "sequence");
    }
    // A final newline, as text files end.
    json_.raw("\n");
    json_.flush();
}

void Writer::timeline(CED2* record, const char* kind) {
    top_ = record;
    TimeBase base = baseOf(record, TimeBase::of(Qv::eFrameRate25));
    topBase_ = base;
    log_.Out("Output timeline \"%s\"", toUTF8(record->get_editName()).c_str());

    ordered ours = ordered::object();
    ours["kind"] = kind;
    ours["frameRate"] = toUTF8(Qv::getPlainString(base.rate)).str();
    if (isShotRecord(record) || record->isGhost) ours["rate"] = record->rate;
    writeRecordFields(*record, ours);

    json_.beginObject();
    json_.field("OTIO_SCHEMA", "Timeline.1");
    metadata(ours);
    json_.field("name", toUTF8(record->get_editName()).view());
    json_.key("global_start_time");
    const EditLabel& label = record->labels[0];
    if (record->labelCount > 0 && label.is_valid() && !legacy_) {
        // The timecode at its own rate, as it reads: the original writer
        // moved it through real time to the sequence's rate, where a 29.97
        // timecode in a 25 sequence names another time.
        Qv::FrameRate rate = labelRate(label);
        rationalTime(label.get_start(), Qv::getFramesPerSecond(rate));
    } else if (record->labelCount > 0 && label.is_valid()) {
        double fps = Qv::getFramesPerSecond(label.get_rate());
        rationalTime(tidyFrames(rescale(label.get_start(), fps, base.fps)), base.fps);
    } else {
        json_.null();
    }
    json_.key("tracks");
    json_.beginObject();
    json_.field("OTIO_SCHEMA", "Stack.1");
    metadata(ordered());
    json_.field("name", "tracks");
    json_.fieldNull("source_range");
    emptyArray("effects");
    // A shot's cues are its media's: they go with its clips.
    if (isShotRecord(record)) {
        emptyArray("markers");
    } else {
        markers(record->cues, 0, base);
    }
    json_.fieldBool("enabled", true);
    json_.fieldNull("color");
    tracks(record, base);
    json_.endObject();
    json_.endObject();
}

// The children of a stack: the video channels, last first, then the audio
// channels in order.
void Writer::tracks(CED2* record, const TimeBase& base) {
    std::vector<CChannel*> video, audio;
    for (CChannel* ch : each<CChannel>(record->channels)) {
        if (ch->chanType == kChanVideo) {
            video.push_back(ch);
        } else if (ch->chanType == kChanAudio) {
            audio.push_back(ch);
        } else {
            log_.WarningOut("Channel <%s> of \"%s\" is neither video nor audio\n", ch->name.c_str(),
                            toUTF8(record->get_editName()).c_str());
            log_.WarningOut(" - It is left out\n");
        }
    }
    json_.key("children");
    json_.beginArray();
    for (auto it = video.rbegin(); it != video.rend(); ++it)
        track(record, *it, base);
    for (CChannel* ch : audio)
        track(record, ch, base);
    json_.endArray();
}

void Writer::track(CED2* record, CChannel* channel, const TimeBase& base) {
    channel_ = channel;
    ordered ours = ordered::object();
    ours["index"] = channel->index;
    if (channel->hasTrackLevels) ours["hasTrackLevels"] = true;
    if (!channel->levels.isEmpty()) {
        ordered levels = ordered::array();
        int unplaced = 0;
        for (CED2TrackLevel* l : each<CED2TrackLevel>(channel->levels)) {
            // A keyframe at no place on the sequence (one of a sequence of no
            // length) has nothing to stand for; the original writer wrote it.
            if (!legacy_ && !(std::isfinite(l->position) && std::isfinite(l->value))) {
                ++unplaced;
                continue;
            }
            levels.push_back(ordered::array({l->position, static_cast<double>(l->value)}));
        }
        if (!levels.empty()) ours["levels"] = levels;
        if (unplaced > 0) {
            log_.WarningOut("%d level keyframes of track <%s> have no place on the sequence\n",
                            unplaced, channel->name.c_str());
            log_.WarningOut(" - They are left out\n");
            log_.LossOut(lossAt("level-unplaced", channel->name, LightweightString<char>(),
                                "level keyframes at no position"));
        }
    }

    json_.beginObject();
    json_.field("OTIO_SCHEMA", "Track.1");
    metadata(ours);
    json_.field("name", channel->name.view());
    json_.fieldNull("source_range");
    emptyArray("effects");
    emptyArray("markers");
    json_.fieldBool("enabled", true);
    json_.fieldNull("color");
    json_.key("children");
    json_.beginArray();
    bool video = channel->chanType == kChanVideo;
    std::vector<Entry> entries = entriesOf(record, channel, base);
    for (size_t i = 0; i < entries.size(); ++i) {
        const Entry& e = entries[i];
        switch (e.kind) {
            case Entry::Black:
                // Nothing of nothing, except between two transitions, which
                // OpenTimelineIO wants apart.
                if (e.otioOut > e.otioIn ||
                    (i > 0 && i + 1 < entries.size() && entries[i - 1].kind == Entry::Transition &&
                     entries[i + 1].kind == Entry::Transition))
                    gap(e.otioOut - e.otioIn, base);
                break;
            case Entry::Transition:
                transition(e, video, base);
                break;
            case Entry::Material:
                material(e, base);
                break;
        }
    }
    json_.endArray();
    json_.field("kind", video ? "Video" : "Audio");
    json_.endObject();
}

// The channel's cels in record frames, with the stretches of nothing between
// them, and each transition's cut and offsets.
std::vector<Entry> Writer::entriesOf(CED2* record, CChannel* channel, const TimeBase& base) {
    std::vector<Entry> entries;
    double pos = 0;
    for (CED2Cell* cel : each<CED2Cell>(channel->cels)) {
        Entry e;
        e.in = base.frames(cel->editIn);
        e.out = base.frames(cel->editOut);
        e.cel = cel;
        if (cel->cookie.isMagic()) {
            e.kind = cel->cookie.isBlack() ? Entry::Black : Entry::Transition;
        } else {
            e.source = find(cel->cookie);
            e.kind = Entry::Material;
            if (!e.source || e.source->excludedFromExport) {
                if (!e.source && cel->cookie.isValid()) {
                    log_.WarningOut("Material not in the project. Track <%s> timecode <%s>\n",
                                    channel->name.c_str(), timecodeAt(cel->editIn).c_str());
                    log_.WarningOut(" - It is left out as a gap\n");
                    log_.LossOut(lossAt("material-missing", channel->name, timecodeAt(cel->editIn),
                                        "not in the project"));
                }
                e.kind = Entry::Black;
            }
        }
        if (e.in < pos) {
            log_.WarningOut(
                "Badly defined segment - starts before the end of the one before. Track <%s> "
                "timecode <%s>\n",
                channel->name.c_str(), timecodeAt(cel->editIn).c_str());
            log_.WarningOut(" - It starts where the one before ends\n");
            log_.LossOut(lossAt("clip-shortened", channel->name, timecodeAt(cel->editIn),
                                "overlapped the item before it; it starts where that one ends"));
            // The clip plays on from where it is cut; the original writer
            // started it later with its in-point where it was.
            if (!legacy_) e.trimmed = std::min(pos, e.out) - e.in;
            e.in = pos;
        }
        if (e.out < e.in) e.out = e.in;
        // Black that lasts no time at all is nothing.
        if (e.kind == Entry::Black && e.out == e.in) continue;
        if (e.in > pos) {
            Entry hole{Entry::Black, pos, e.in};
            entries.push_back(hole);
        } else if (e.kind == Entry::Transition && !entries.empty() &&
                   entries.back().kind == Entry::Transition) {
            Entry apart{Entry::Black, e.in, e.in};
            entries.push_back(apart);
        }
        entries.push_back(e);
        pos = e.out;
    }
    (void)record;

    for (Entry& e : entries) {
        e.otioIn = e.in;
        e.otioOut = e.out;
    }
    for (size_t i = 0; i < entries.size(); ++i) {
        Entry& t = entries[i];
        if (t.kind != Entry::Transition) continue;
        double length = t.out - t.in;
        bool before = i > 0 && entries[i - 1].kind == Entry::Material;
        bool after = i + 1 < entries.size() && entries[i + 1].kind == Entry::Material;
        if (before && after) {
            t.inOffset = std::floor(length / 2);
        } else if (!before) {
            t.inOffset = 0;
        } else {
            t.inOffset = length;
        }
        t.outOffset = length - t.inOffset;
        double cut = t.in + t.inOffset;
        if (i > 0) entries[i - 1].otioOut = cut;
        if (i + 1 < entries.size()) entries[i + 1].otioIn = cut;
    }
    return entries;
}

void Writer::gap(double frames, const TimeBase& base) {
    json_.beginObject();
    json_.field("OTIO_SCHEMA", "Gap.1");
    metadata(ordered());
    json_.field("name", "");
    json_.key("source_range");
    timeRange(0, frames, base.fps);
    emptyArray("effects");
    emptyArray("markers");
    json_.fieldBool("enabled", true);
    json_.fieldNull("color");
    json_.endObject();
}

void Writer::transition(const Entry& e, bool video, const TimeBase& base) {
    const CED2Cell& cel = *e.cel;
    bool wipe = video && cel.GetSMPTEWipeCode() >= 0;
    const Cookie& standard = wipe ? video_wipe : video ? video_dissolve : audio_dissolve;
    ordered ours = ordered::object();
    if (!(cel.cookie == standard)) ours["cookie"] = cel.cookie.asString(false).str();
    if (wipe) {
        ordered w = ordered::object();
        w["code"] = cel.GetSMPTEWipeCode();
        w["direction"] = static_cast<int>(cel.GetWipeDirection());
        ours["wipe"] = w;
    }
    json_.beginObject();
    json_.field("OTIO_SCHEMA", "Transition.1");
    metadata(ours);
    json_.field("name", wipe ? "Wipe" : video ? "Cross Dissolve" : "Cross Fade");
    json_.key("in_offset");
    rationalTime(e.inOffset, base.fps);
    json_.key("out_offset");
    rationalTime(e.outOffset, base.fps);
    json_.field("transition_type", wipe ? "Custom_Transition" : "SMPTE_Dissolve");
    json_.endObject();
}

// ---- clips ----

ordered Writer::celFields(const CED2Cell& cel) const {
    ordered q = ordered::object();
    q["channel"] = cel.cookie.channel;
    if (cel.level != 1.0f) q["level"] = static_cast<double>(cel.level);
    if (cel.levelEnd != cel.level) q["levelEnd"] = static_cast<double>(cel.levelEnd);
    return q;
}

// Where a shot's frame zero lies in the media's time: the start of its
// timecode, as the available range says.
double Writer::originFrames(CED2* shot, const TimeBase& base) {
    const ordered& ref = shotReference(shot);
    const ordered& start = ref["available_range"]["start_time"];
    return rescale(start["value"].get<double>(), start["rate"].get<double>(), base.fps);
}

const ordered& Writer::shotReference(CED2* shot) {
    auto found = references_.find(shot);
    if (found != references_.end()) return found->second;

    double fps = shot->rate > 0 ? shot->rate : topBase_.fps;
    Qv::FrameRate celRate = Qv::getCelQVFrameRateFromFrameRateDouble(fps);
    double ticks = Qv::isKnownFrameRate(celRate) ? Qv::getTicksPerSecond(celRate) : timebaseOf(fps);
    double start = 0;
    double duration = tidyFrames(shot->get_editLength() * ticks);
    double rangeFps = fps;
    if (!legacy_) {
        // At the footage's own rate, 29.97 as 30000/1001, from its timecode
        // as it reads; the original writer took the shot's rate, 30 for
        // 29.97, and moved the timecode through real time to it.
        Qv::FrameRate footage = footageRate(shot);
        rangeFps = Qv::getFramesPerSecond(footage);
        duration = tidyFrames(rescale(duration, fps, rangeFps));
        if (shot->labelCount > 0 && shot->labels[0].is_valid()) {
            const EditLabel& l = shot->labels[0];
            Qv::FrameRate rate = labelRate(l);
            start =
                Qv::getTicksPerSecond(rate) == Qv::getTicksPerSecond(footage)
                    ? l.get_start()
                    : tidyFrames(rescale(l.get_start(), Qv::getFramesPerSecond(rate), rangeFps));
        }
    } else if (shot->labelCount > 0 && shot->labels[0].is_valid()) {
        const EditLabel& l = shot->labels[0];
        start = tidyFrames(rescale(l.get_start(), Qv::getFramesPerSecond(l.get_rate()), fps));
    }
    auto rt = [](double value, double rate) {
        ordered t = ordered::object();
        t["OTIO_SCHEMA"] = "RationalTime.1";
        t["rate"] = rate;
        t["value"] = value;
        return t;
    };
    ordered range = ordered::object();
    range["OTIO_SCHEMA"] = "TimeRange.1";
    range["duration"] = rt(duration, rangeFps);
    range["start_time"] = rt(start, rangeFps);

    ordered ours = ordered::object();
    ours["id"] = idOf(shot, "shot", shots_);
    ours["rate"] = fps;
    ordered channels = ordered::array();
    for (CChannel* ch : each<CChannel>(shot->channels)) {
        ordered c = ordered::object();
        c["index"] = ch->index;
        c["type"] = chanTypeName(ch->chanType);
        c["name"] = ch->name.str();
        channels.push_back(c);
    }
    ours["channels"] = channels;
    // Media that is there is an external reference; offline media is
    // missing, and the file it was expected in goes in the namespace.
    LightweightString<wchar_t> url;
    Cookie cookie = shot->cookie;
    bool online = !shot->materialOffline && getPrimaryURLLocator(url, cookie);
    writeRecordFields(*shot, ours, !online);
    if (!online) {
        LightweightString<wchar_t> historic;
        if (getHistoricURLLocator(historic, cookie)) ours["locator"] = toUTF8(historic).str();
    }

    ordered ref = ordered::object();
    ref["OTIO_SCHEMA"] = online ? "ExternalReference.1" : "MissingReference.1";
    ref["metadata"] = ordered::object({{kNamespace, ours}});
    ref["name"] = toUTF8(shot->get_editName()).str();
    ref["available_range"] = range;
    ref["available_image_bounds"] = nullptr;
    if (online) ref["target_url"] = toUTF8(url).str();
    return references_.emplace(shot, std::move(ref)).first->second;
}

// A sub-clip that is one stretch of one shot on every channel, played as
// recorded: its cels can be written as clips of the shot.
bool Writer::simpleSubclip(CED2* ghost, CED2*& shot) const {
    if (!ghost->edit || ghost->edit->logType != kLogTypeSubclip || ghost->channels.isEmpty())
        return false;
    shot = nullptr;
    const CED2Cell* first = nullptr;
    for (CChannel* ch : each<CChannel>(ghost->channels)) {
        if (ch->cels.size() != 1 || ch->hasTrackLevels || !ch->levels.isEmpty()) return false;
        const CED2Cell* cel = ch->firstCel();
        if (!cel->cookie.isValid() || cel->cookie.isMagic() || cel->speed != 1.0f ||
            cel->level != 1.0f || cel->levelEnd != 1.0f || !cel->alternates.empty())
            return false;
        CED2* source = find(cel->cookie);
        if (!source || !isShotRecord(source) || source->excludedFromExport) return false;
        if (shot && source != shot) return false;
        shot = source;
        if (first && (cel->editIn != first->editIn || cel->editOut != first->editOut ||
                      cel->sourceIn != first->sourceIn))
            return false;
        if (!first) first = cel;
        if (cel->editIn != 0) return false;
    }
    return shot != nullptr;
}

void Writer::clip(const Entry& e, CED2* shot, double sourceFrames,
                  const LightweightString<wchar_t>& name, ordered fields, const TimeBase& base) {
    const CED2Cell& cel = *e.cel;
    double origin = originFrames(shot, base);
    // The document's clip starts earlier than the cel by what a transition
    // before it takes, and plays that much more of its source first.
    double head = e.in - e.otioIn - e.trimmed;
    double start = tidyFrames(origin + sourceFrames - head * static_cast<double>(cel.speed));

    json_.beginObject();
    json_.field("OTIO_SCHEMA", "Clip.2");
    metadata(fields);
    json_.field("name", toUTF8(name).view());
    json_.key("source_range");
    timeRange(start, e.otioOut - e.otioIn, base.fps);
    effects(cel.speed);
    markers(shot->cues, origin, base);
    json_.fieldBool("enabled", true);
    json_.fieldNull("color");
    json_.key("media_references");
    json_.beginObject();
    json_.key(kDefaultMedia);
    json_.value(shotReference(shot));
    // The other angles of a multi-angle cel, by keys of their own.
    int angle = 0;
    for (const CelAlternate& alt : cel.alternates) {
        ++angle;
        CED2* source = find(alt.cookie);
        if (!source || !isShotRecord(source)) continue;
        json_.key("qvxml_angle_" + std::to_string(angle));
        json_.value(shotReference(source));
    }
    json_.endObject();
    json_.field("active_media_reference_key", kDefaultMedia);
    json_.endObject();
}

void Writer::material(const Entry& e, const TimeBase& base) {
    const CED2Cell& cel = *e.cel;
    CED2* source = e.source;
    ordered fields = celFields(cel);
    if (!cel.alternates.empty()) {
        ordered angles = ordered::array();
        int angle = 0;
        for (const CelAlternate& alt : cel.alternates) {
            ++angle;
            CED2* r = find(alt.cookie);
            if (!r || !isShotRecord(r)) {
                log_.WarningOut(
                    "Angle %d of a multi-angle cel is no shot. Track <%s> timecode <%s>\n", angle,
                    channel_ ? channel_->name.c_str() : "", timecodeAt(cel.editIn).c_str());
                log_.WarningOut(" - It is left out\n");
                continue;
            }
            ordered a = ordered::object();
            a["key"] = "qvxml_angle_" + std::to_string(angle);
            a["channel"] = alt.cookie.channel;
            a["type"] = std::string(1, static_cast<char>(alt.cookie.type));
            a["offset"] = alt.offset;
            angles.push_back(a);
        }
        fields["alternates"] = angles;
    }

    if (isShotRecord(source)) {
        clip(e, source, base.frames(cel.sourceIn), source->get_editName(), fields, base);
        return;
    }

    CED2* shot = nullptr;
    if (simpleSubclip(source, shot)) {
        const CED2Cell* first = source->firstChannel()->firstCel();
        double start = base.frames(first->sourceIn);
        ordered sub = ordered::object();
        sub["id"] = idOf(source, "subclip", subclips_);
        sub["name"] = toUTF8(source->get_editName()).str();
        sub["rate"] = source->rate;
        sub["start"] = start;
        sub["length"] = base.frames(first->editOut);
        ordered channels = ordered::array();
        bool played = false;
        for (CChannel* ch : each<CChannel>(source->channels)) {
            ordered c = ordered::object();
            c["index"] = ch->index;
            c["type"] = chanTypeName(ch->chanType);
            c["name"] = ch->name.str();
            c["source"] = ch->firstCel()->cookie.channel;
            channels.push_back(c);
            played |= ch->index == cel.cookie.channel;
        }
        sub["channels"] = channels;
        writeRecordFields(*source, sub);
        if (!source->cues.empty()) {
            ordered cues = ordered::array();
            for (const Ced2Cue& cue : source->cues)
                cues.push_back(cueToJson(cue));
            sub["cues"] = cues;
        }
        if (played) {
            fields["subclip"] = sub;
            clip(e, shot, start + base.frames(cel.sourceIn), source->get_editName(), fields, base);
            return;
        }
    }

    // Anything else is an edit of its own: a nested stack.
    if (writing_.count(source) || writing_.size() >= 64) {
        log_.WarningOut("\"%s\" holds itself. Track <%s> timecode <%s>\n",
                        toUTF8(source->get_editName()).c_str(),
                        channel_ ? channel_->name.c_str() : "", timecodeAt(cel.editIn).c_str());
        log_.WarningOut(" - It is left out as a gap\n");
        gap(e.otioOut - e.otioIn, base);
        return;
    }
    TimeBase inner = baseOf(source, base);
    ordered edit = ordered::object();
    edit["id"] = idOf(source, "edit", edits_);
    bool subclip = source->edit && source->edit->logType == kLogTypeSubclip;
    edit["kind"] = subclip ? "subclip" : "sequence";
    edit["frameRate"] = toUTF8(Qv::getPlainString(inner.rate)).str();
    if (subclip) edit["rate"] = source->rate;
    writeRecordFields(*source, edit);
    fields["edit"] = edit;

    double head = e.in - e.otioIn - e.trimmed;
    double start = tidyFrames(base.frames(cel.sourceIn) - head * static_cast<double>(cel.speed));
    const CChannel* outer = channel_;
    writing_.insert(source);
    json_.beginObject();
    json_.field("OTIO_SCHEMA", "Stack.1");
    metadata(fields);
    json_.field("name", toUTF8(source->get_editName()).view());
    json_.key("source_range");
    timeRange(start, e.otioOut - e.otioIn, base.fps);
    effects(cel.speed);
    markers(source->cues, 0, inner);
    json_.fieldBool("enabled", true);
    json_.fieldNull("color");
    tracks(source, inner);
    json_.endObject();
    writing_.erase(source);
    channel_ = outer;
}

}  // namespace

int writeOtio(const Cookie& edit, const ExportOptions& options, LoggerHandle log,
              std::string& text) {
    text.clear();
    Writer writer(log, text);
    int status = writer.prepare(edit, options);
    if (status == 1) writer.write();
    return status;
}

int exportOtio(const Cookie& edit, const LightweightString<wchar_t>& path,
               const ExportOptions& options, LoggerHandle log) {
    std::string text;
    Writer writer(log, text);
    int status = writer.prepare(edit, options);
    if (status != 1) return status;
    iFileSystem* fs = OS()->files();
    if (fs->exists(path)) fs->remove(path);
    Qv::Ptr<iFile> file = fs->open(path, kCreateForWriting);
    if (!file) return 2001;
    // The document goes to the file as it is written, a piece at a time, so
    // that a long timeline needs no copy of its whole text.
    bool failed = false;
    writer.setFlush([&](std::string& piece) {
        if (!failed &&
            file->write(piece.data(), static_cast<unsigned>(piece.size())) != piece.size())
            failed = true;
        piece.clear();
    });
    writer.write();
    if (failed) return 2001;
    log.write(path, LoggerBase::eFileWritten);
    return 1;
}

}  // namespace QvOtio
