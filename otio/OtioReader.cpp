#include "otio/OtioReader.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "host/Edit.h"
#include "host/Label.h"
#include "host/VideoFormat.h"
#include "otio/OtioMetadata.h"
#include "plugin/Status.h"

namespace QvOtio {

using json = nlohmann::json;

struct OtioReader::ShotUse {
    bool used = false;
    bool fixed = false;  // the channels are the namespace's
    std::vector<std::pair<unsigned int, EditChanType>> channels;
    double extent = 0;     // the furthest source time played, cel time
    double firstRate = 0;  // the rate of a clip's source range
    // Channels that clips play though the namespace does not list them: a
    // cel may play a channel its shot lacks, as it did where it was written.
    std::vector<std::pair<unsigned int, EditChanType>> unlisted;
    std::vector<Ced2Cue> cues;
    bool cuesTaken = false;
    CED2* record = nullptr;

    // Makes the shot answer for a channel: a shot of the namespace has the
    // channels it lists, any other gets those its clips play.
    bool plays(long long index, EditChanType type) {
        if (index < 0 || index > 255) return false;
        for (const auto& [i, t] : channels)
            if (i == index) return true;
        if (!fixed) {
            channels.emplace_back(static_cast<unsigned>(index), type);
        } else if (std::find_if(unlisted.begin(), unlisted.end(), [&](const auto& u) {
                       return u.first == index;
                   }) == unlisted.end()) {
            unlisted.emplace_back(static_cast<unsigned>(index), type);
        }
        return true;
    }
};

struct OtioReader::Pending {
    CED2* owner;
    unsigned int channel;
    std::size_t ordinal;
    struct Angle {
        std::size_t media;
        unsigned char channel;
        CookieType type;
        int offset;
    };
    std::vector<Angle> angles;
};

namespace {

const json* field(const json& object, const char* name) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(name);
    return it == object.end() ? nullptr : &*it;
}

std::string textOf(const json& object, const char* name) {
    const json* v = field(object, name);
    return v && v->is_string() ? v->get<std::string>() : std::string();
}

// A number of the namespace; 0 when it is none.
double numberOf(const json& object, const char* name) {
    const json* v = field(object, name);
    return v && v->is_number() && std::isfinite(v->get<double>()) ? v->get<double>() : 0.0;
}

bool intOf(const json& object, const char* name, long long& out) {
    const json* v = field(object, name);
    if (!v || !(v->is_number_integer() || v->is_number_unsigned())) return false;
    out = v->get<long long>();
    return true;
}

std::string shotKey(std::size_t media) {
    return "m" + std::to_string(media);
}

LightweightString<char> refOf(const std::string& key, long long channel) {
    return LightweightString<char>(key + "$" + std::to_string(channel) + "$");
}

ShotVideoMetadata fixedMetadata(Qv::FrameRate rate) {
    return ShotVideoMetadata(Qv::DigitalVideoFormats::findByUID(Qv::Image::FormatUID(28)),
                             Qv::Image::kFormatYUY2, rate, Qv::Image::eAspectSquare, false,
                             Qv::Image::eScanProgressive, 8);
}

Qv::FrameRate rateOfText(const std::string& text) {
    int count = 0;
    const Qv::FrameRate* rates = Qv::allFrameRates(count);
    for (int i = 0; i < count; ++i)
        if (toUTF8(Qv::getPlainString(rates[i])).str() == text) return rates[i];
    return Qv::eFrameRateNone;
}

// Timecode that counts 29.97 and 59.94 drops frames, as OpenTimelineIO
// assumes when a file does not say.
bool dropsFrames(Qv::FrameRate rate) {
    unsigned ticks = Qv::getTicksPerSecond(rate);
    return Qv::has1001Factor(rate) && (ticks == 30 || ticks == 60);
}

// The first rate of a composition: of a gap or a transition if there is one,
// the first clip's otherwise.
double firstRate(const Document& doc, std::size_t index, bool clips, int depth) {
    if (index >= doc.items.size() || depth > 64) return 0;
    const Item& item = doc.items[index];
    switch (item.kind) {
        case ItemKind::Gap:
            return item.sourceRange.duration.valid() ? item.sourceRange.duration.rate : 0;
        case ItemKind::Transition:
            return item.inOffset.valid() ? item.inOffset.rate : 0;
        case ItemKind::Clip:
            return clips && item.sourceRange.start.valid() ? item.sourceRange.start.rate : 0;
        case ItemKind::Timeline:
            return firstRate(doc, item.tracks, clips, depth + 1);
        default:
            for (std::size_t child : item.children)
                if (double r = firstRate(doc, child, clips, depth + 1); r > 0) return r;
            return 0;
    }
}

EditChanType trackType(const Item& track) {
    if (track.trackKind == "Video") return kChanVideo;
    if (track.trackKind == "Audio") return kChanAudio;
    return 0;
}

// Cuts a channel's cels to a window of it, which becomes its whole. Answers
// how many cels that play something lay wholly outside and were let go.
int clipToWindow(CChannel* channel, double start, double length, const TimeBase& base) {
    double from = start / base.ticks, to = (start + length) / base.ticks;
    int dropped = 0;
    CED2Cell* cel = channel->firstCel();
    while (cel) {
        CED2Cell* next = cel->next();
        if (cel->editOut <= from || cel->editIn >= to) {
            if (!cel->cookie.isValid() || !cel->cookie.isBlack()) ++dropped;
            delete channel->cels.remove(cel);
        } else {
            double in = std::max(cel->editIn, from), out = std::min(cel->editOut, to);
            if (!cel->cookie.isValid() || !cel->cookie.isMagic()) {
                cel->sourceIn += (in - cel->editIn) * cel->speed;
                cel->sourceOut = cel->sourceIn + (out - in) * cel->speed;
            }
            cel->editIn = in - from;
            cel->editOut = out - from;
        }
        cel = next;
    }
    return dropped;
}

}  // namespace

OtioReader::OtioReader(LoggerHandle log) : XML::XMLReader(log) {}
OtioReader::~OtioReader() = default;

// ---- the document's timelines and rates ----

std::vector<std::size_t> OtioReader::timelinesOf(const Document& doc, std::string& error) {
    std::vector<std::size_t> out;
    if (doc.root >= doc.items.size()) {
        error = "it holds no OpenTimelineIO object";
        return out;
    }
    const Item& root = doc.items[doc.root];
    switch (root.kind) {
        case ItemKind::Timeline:
        case ItemKind::Stack:
        case ItemKind::Track:
            out.push_back(doc.root);
            break;
        case ItemKind::Collection: {
            // Collections in collections too, in order.
            std::vector<std::size_t> todo(root.children.rbegin(), root.children.rend());
            while (!todo.empty() && out.size() < 100000) {
                std::size_t i = todo.back();
                todo.pop_back();
                if (i >= doc.items.size()) continue;
                const Item& it = doc.items[i];
                if (it.kind == ItemKind::Timeline) {
                    out.push_back(i);
                } else if (it.kind == ItemKind::Collection) {
                    todo.insert(todo.end(), it.children.rbegin(), it.children.rend());
                }
            }
            if (out.empty()) error = "its SerializableCollection holds no Timeline";
            break;
        }
        default:
            error = "it holds a " + root.schema + ", not a Timeline";
    }
    return out;
}

Qv::FrameRate OtioReader::timelineRate(const Document& doc, std::size_t index, bool& exact) {
    exact = true;
    const Item& item = doc.items[index];
    double fps = 0;
    if (item.kind == ItemKind::Timeline) {
        Qv::FrameRate named = rateOfText(textOf(item.qvxml, "frameRate"));
        if (Qv::isKnownFrameRate(named)) return named;
        if (item.globalStart.valid()) fps = item.globalStart.rate;
    }
    if (!(fps > 0)) fps = firstRate(doc, index, false, 0);
    if (!(fps > 0)) fps = firstRate(doc, index, true, 0);
    if (!(fps > 0)) return Qv::eFrameRate24;  // nothing is timed: any rate will do
    Qv::FrameRate rate = Qv::getEquivalentQvFrameRate(fps);
    if (Qv::isKnownFrameRate(rate)) return rate;
    exact = false;
    rate = Qv::getCelQVFrameRateFromFrameRateDouble(fps);
    return Qv::isKnownFrameRate(rate) ? rate : Qv::eFrameRate25;
}

// ---- the import ----

XML::ImportResult OtioReader::importDocument(const Document& doc,
                                             const Qv::Ptr<ImportFileInfoRep>& fileInfo,
                                             LoggerHandle log) {
    LightweightString<wchar_t> documentPath;
    if (fileInfo) {
        importDrive = fileInfo->getDrive();
        documentPath = fileInfo->name();
    }
    logger = log;
    doc_ = &doc;
    std::string error;
    std::vector<std::size_t> timelines = timelinesOf(doc, error);
    if (timelines.empty()) {
        logger.ErrorOut("%s", error.c_str());
        XML::ImportResult failed;
        failed.status = XML::kStatusFailed;
        return failed;
    }
    bool exact = true;
    seqFrameRate = timelineRate(doc, timelines[0], exact);
    // Fields of the wrong type were read as the warning says; children that
    // are no objects are passed over; times no timeline can hold make the
    // result untrusted, which the caller tells.
    for (const std::string& w : doc.wrongTypes)
        logger.WarningOut("%s", w.c_str());
    for (const std::string& p : doc.passedOver) {
        logger.WarningOut("\"%s\" is no OpenTimelineIO object: passed over", p.c_str());
        LossRecord r;
        r.kind = "unknown-item";
        r.detail = p;
        logger.LossOut(r);
    }
    for (const std::string& u : doc.unusableTimes)
        logger.WarningOut("%s", u.c_str());
    int status = build(timelines);
    XML::ImportResult result = completeImport(status, documentPath);
    if (result.status == XML::kStatusOK) fixAlternates();
    return result;
}

int OtioReader::build(const std::vector<std::size_t>& timelines) {
    shots_.assign(doc_->media.size(), ShotUse());
    for (std::size_t t : timelines)
        buildTimeline(t);
    finishShots();

    for (const auto& [what, count] : doc_->notes)
        note(what + " (not kept)", count);
    std::sort(fieldProblems_.begin(), fieldProblems_.end());
    for (const std::string& p : fieldProblems_)
        note(p + " (not kept)");
    for (const auto& [what, count] : notes_)
        logger.WarningOut("%s: %d\n", what.c_str(), count);
    return 1;
}

void OtioReader::buildTimeline(std::size_t index) {
    const Item& item = doc_->items[index];
    bool exact = true;
    Qv::FrameRate rate = timelineRate(*doc_, index, exact);
    TimeBase base = TimeBase::of(rate);
    std::string name = item.name.empty() ? "NoName" : item.name;
    if (!exact)
        note("timelines at a rate the editor does not have, read at " +
             toUTF8(Qv::getPlainString(rate)).str());
    logger.Out("Timeline \"%s\"", name.c_str());
    place_ = Place();
    place_.sequence = name;
    place_.ticks = static_cast<unsigned>(base.ticks > 0 ? base.ticks : 24);
    place_.dropFrame = dropsFrames(rate);
    if (item.kind == ItemKind::Timeline && item.globalStart.valid())
        place_.startFrame = static_cast<long long>(
            nearestCount(std::clamp(framesOf(item.globalStart, base), -1e15, 1e15)));

    std::string kind = textOf(item.qvxml, "kind");
    bool subclip = kind == "subclip";
    CED2* record = new CED2(subclip);
    if (subclip) {
        record->isGhost = true;
        record->kind = kLogTypeSubclip;
    }
    record->cookie = makeNewEditCookie();
    record->editName = fromUTF8(name.c_str());
    record->shotVideoMetadata = fixedMetadata(rate);
    record->shotVideoMetadataSet = true;
    if (const json* r = field(item.qvxml, "rate"); r && r->is_number())
        record->rate = r->get<double>();
    readRecordFields(item.qvxml, *record, fieldProblems_);
    if (record->labelCount == 0 && item.kind == ItemKind::Timeline && item.globalStart.valid()) {
        double frames = nearestCount(framesOf(item.globalStart, base));
        EditLabel label = editLabFrom(truncateToInt32(frames), Qv::Image::eScanProgressive, rate,
                                      dropsFrames(rate));
        if (label.is_valid()) {
            label.set_MediumRoll(
                {getMediumRollfromOutputDetails(Qv::Image::eScanProgressive, rate), 1});
            record->addLabel(label);
        }
    }

    const Item* stack = &item;
    if (item.kind == ItemKind::Timeline)
        stack = item.tracks < doc_->items.size() ? &doc_->items[item.tracks] : nullptr;
    if (stack) {
        buildChannels(*stack, record, base, true);
        addCues(stack->markers, 0, base, record->cues, false);
    }

    if (kind == "shot") {
        // A shot written alone: its clips made it; the timeline was only its
        // carrier.
        delete record;
    } else if (subclip) {
        ghostList.append(record);
    } else {
        seqList.append(record);
    }
}

void OtioReader::buildChannels(const Item& composition, CED2* record, const TimeBase& base,
                               bool top) {
    std::vector<const Item*> video, audio;
    if (composition.kind == ItemKind::Track) {
        (trackType(composition) == kChanAudio ? audio : video).push_back(&composition);
    } else {
        for (std::size_t child : composition.children) {
            const Item& c = doc_->items[child];
            if (c.kind != ItemKind::Track) {
                note("items of a stack that are no tracks (" + c.schema + ")");
                if (top) lose("unknown-item", -1, c.schema + " \"" + c.name + "\" in the stack");
                continue;
            }
            switch (trackType(c)) {
                case kChanVideo:
                    video.push_back(&c);
                    break;
                case kChanAudio:
                    audio.push_back(&c);
                    break;
                default:
                    note("tracks of the kind \"" + c.trackKind + "\"");
                    if (top)
                        lose("unknown-track", -1,
                             "\"" + c.name + "\" of the kind \"" + c.trackKind + "\"");
            }
        }
    }
    std::reverse(video.begin(), video.end());
    std::vector<const Item*> order = video;
    order.insert(order.end(), audio.begin(), audio.end());

    // Channel numbers: the namespace's when they are all there and distinct.
    std::vector<unsigned int> numbers;
    bool given = true;
    for (const Item* t : order) {
        long long n = -1;
        if (!intOf(t->qvxml, "index", n) || n < 0 || n > 0xFFFF ||
            std::find(numbers.begin(), numbers.end(), static_cast<unsigned>(n)) != numbers.end()) {
            given = false;
            break;
        }
        numbers.push_back(static_cast<unsigned>(n));
    }
    for (size_t i = 0; i < order.size(); ++i) {
        const Item& track = *order[i];
        EditChanType type = i < video.size() ? kChanVideo : kChanAudio;
        unsigned int index = given ? numbers[i] : static_cast<unsigned int>(i);
        logger.Out("Track %c%d", type == kChanVideo ? 'V' : 'A',
                   static_cast<int>(type == kChanVideo ? i + 1 : i - video.size() + 1));
        CChannel* channel = record->CreateEditChannel(index, type);
        if (top) {
            // Losses name the track as the document numbers it, and place
            // themselves on the timeline as its windows show it.
            place_.track = type == kChanVideo ? "V" + std::to_string(video.size() - i)
                                              : "A" + std::to_string(i - video.size() + 1);
            place_.origin = 0;
            if (&track != &composition && track.sourceRange.valid())
                place_.origin += framesOf(track.sourceRange.start, base);
            if (composition.sourceRange.valid())
                place_.origin += framesOf(composition.sourceRange.start, base);
        }
        // A track of a stack may be trimmed; a track that is itself the
        // nested item is played in part by the cel, and kept whole.
        buildTrack(track, record, channel, base, &track != &composition);
        // So is a timeline's stack; a nested one is kept whole.
        if (top && composition.sourceRange.valid())
            warnOutside(clipToWindow(channel, framesOf(composition.sourceRange.start, base),
                                     framesOf(composition.sourceRange.duration, base), base),
                        composition, base);
    }
}

void OtioReader::warnOutside(int dropped, const Item& trimmed, const TimeBase& base) {
    if (dropped == 0) return;
    // Items outside the range a track or stack shows are not part of the cut,
    // but they are in the file: say so.
    logger.WarningOut(
        "%s \"%s\": %d item%s outside its source_range (from frame %.0f, %.0f "
        "frames long) %s not read",
        trimmed.kind == ItemKind::Stack ? "stack" : "track", trimmed.name.c_str(), dropped,
        dropped == 1 ? "" : "s", framesOf(trimmed.sourceRange.start, base),
        framesOf(trimmed.sourceRange.duration, base), dropped == 1 ? "is" : "are");
}

double OtioReader::durationOf(const Item& item, const TimeBase& base, int depth) const {
    if (item.sourceRange.valid()) return framesOf(item.sourceRange.duration, base);
    if (depth > 64) return 0;
    double total = 0;
    switch (item.kind) {
        case ItemKind::Clip:
            if (item.media < doc_->media.size() && doc_->media[item.media].available.valid())
                return framesOf(doc_->media[item.media].available.duration, base);
            return 0;
        case ItemKind::Track:
            for (std::size_t child : item.children) {
                const Item& c = doc_->items[child];
                if (c.kind != ItemKind::Transition)
                    total += std::max(0.0, durationOf(c, base, depth + 1));
            }
            return total;
        case ItemKind::Stack:
            for (std::size_t child : item.children)
                total = std::max(total, durationOf(doc_->items[child], base, depth + 1));
            return total;
        default:
            return 0;
    }
}

double OtioReader::mediaOrigin(std::size_t media, const TimeBase& base) const {
    if (media >= doc_->media.size() || !doc_->media[media].available.start.valid()) return 0;
    return framesOf(doc_->media[media].available.start, base);
}

// A track's items in order: each item takes its duration; a transition takes
// none, and straddles the cut between its neighbours, reaching back by its in
// offset and on by its out offset. The host's cels stand side by side: the
// item before ends where the transition starts, the one after starts where it
// ends. Offsets that reach further than a neighbour lasts are cut to it.
void OtioReader::buildTrack(const Item& track, CED2* record, CChannel* channel,
                            const TimeBase& base, bool trimmed) {
    channel->name = track.name;
    if (const json* levels = field(track.qvxml, "levels"); levels && levels->is_array()) {
        channel->trackLevelsSet = true;
        for (const json& l : *levels) {
            if (!l.is_array() || l.size() != 2 || !l[0].is_number() || !l[1].is_number()) continue;
            CED2TrackLevel* level = new CED2TrackLevel;
            level->position = l[0].get<double>();
            level->value = narrowToFloat(l[1].get<double>());
            channel->levels.append(level);
        }
    }
    if (const json* on = field(track.qvxml, "hasTrackLevels"); on && on->is_boolean())
        channel->hasTrackLevels = on->get<bool>();
    if (!track.enabled) note("tracks switched off (they play)");
    if (!track.otherEffects.empty())
        note("effects on tracks", static_cast<int>(track.otherEffects.size()));
    // A track that is itself a nested item had its losses told with its cel.
    if (depth_ == 0 || trimmed) {
        double trackStart = depth_ == 0 ? place_.origin : 0;
        if (!track.enabled) lose("disabled", trackStart, "the track \"" + track.name + "\"");
        for (const std::string& e : track.otherEffects)
            lose("filter", trackStart, e + " on the track \"" + track.name + "\"");
    }

    struct Slot {
        const Item* item;
        bool transition = false;
        double start = 0, end = 0;        // an item's place in the document
        double cut = 0, in = 0, out = 0;  // a transition's
        double hs = 0, he = 0;            // an item's place in the host
    };
    std::vector<Slot> slots;
    slots.reserve(track.children.size());
    double pos = 0;
    for (std::size_t child : track.children) {
        Slot s{&doc_->items[child]};
        if (s.item->kind == ItemKind::Transition) {
            s.transition = true;
            s.cut = pos;
            s.in = std::max(0.0, framesOf(s.item->inOffset, base));
            s.out = std::max(0.0, framesOf(s.item->outOffset, base));
        } else {
            double d = durationOf(*s.item, base, 0);
            if (!(d > 0)) d = 0;
            s.start = pos;
            s.end = pos = pos + d;
        }
        slots.push_back(s);
    }
    bool cut = false;
    for (size_t k = 0; k < slots.size(); ++k) {
        Slot& s = slots[k];
        Slot* prev = k > 0 ? &slots[k - 1] : nullptr;
        Slot* next = k + 1 < slots.size() ? &slots[k + 1] : nullptr;
        if (!s.transition) {
            s.hs = s.start + (prev && prev->transition ? prev->out : 0);
            s.he = s.end;
            continue;
        }
        double low = !prev ? 0 : prev->transition ? prev->cut + prev->out : prev->hs;
        if (s.cut - s.in < low) {
            s.in = std::max(0.0, s.cut - low);
            cut = true;
        }
        if (prev && !prev->transition) prev->he = s.cut - s.in;
        if (next && next->transition) {
            cut |= s.out > 0;
            s.out = 0;
        } else if (next && s.out > next->end - next->start) {
            s.out = next->end - next->start;
            cut = true;
        }
    }
    if (cut) note("transitions that reach further than the items beside them, shortened");

    for (const Slot& s : slots) {
        if (s.transition) {
            const Item& t = *s.item;
            CED2Cell* cel = new CED2Cell;
            cel->editIn = (s.cut - s.in) / base.ticks;
            cel->editOut = (s.cut + s.out) / base.ticks;
            bool video = channel->chanType == kChanVideo;
            cel->cookie = video ? video_dissolve : audio_dissolve;
            const json* wipe = field(t.qvxml, "wipe");
            if (video && wipe && wipe->is_object()) {
                long long code = 0, direction = 0;
                intOf(*wipe, "code", code);
                intOf(*wipe, "direction", direction);
                cel->cookie = video_wipe;
                cel->SetSMPTEWipeCode(static_cast<int>(std::clamp(code, 0LL, 0x7FFFFFFFLL)),
                                      direction == 1 ? eWipeReverse : eWipeForward);
            } else if (t.transitionType != "SMPTE_Dissolve") {
                note("transitions of the type \"" + t.transitionType + "\", read as dissolves");
                // An audio transition is a cross fade whatever its type.
                if (video) lose("transition-as-dissolve", s.cut, t.transitionType);
            }
            std::string text = textOf(t.qvxml, "cookie");
            if (!text.empty()) {
                Cookie c(fromUTF8(text.c_str()), false);
                if (c.isValid() && c.isMagic() && !c.isBlack()) cel->cookie = c;
            }
            channel->cels.append(cel);
        } else {
            addItemCel(*s.item, record, channel, base, s.hs, s.he, s.hs - s.start);
        }
    }
    bool window = trimmed && track.sourceRange.valid();
    if (window)
        warnOutside(clipToWindow(channel, framesOf(track.sourceRange.start, base),
                                 framesOf(track.sourceRange.duration, base), base),
                    track, base);
    // A track's markers are the record's cues, in its time.
    double origin = window ? framesOf(track.sourceRange.start, base) : 0;
    addCues(track.markers, origin, base, record->cues, false);
}

void OtioReader::addItemCel(const Item& item, CED2* record, CChannel* channel, const TimeBase& base,
                            double from, double to, double head) {
    bool video = channel->chanType == kChanVideo;
    CelData cel;
    CelRef ref;
    cel.editIn = from / base.ticks;
    cel.editOut = to / base.ticks;
    // The item starts `head` before its cel, where a transition ends.
    itemFrame_ = from - head;
    std::string named = "\"" + item.name + "\"";
    if (!item.enabled) {
        note("items switched off (they play)");
        lose("disabled", from - head, named);
    }

    double speed = item.freeze ? 0.0 : item.timeScalar;
    if (!std::isfinite(speed)) speed = 1.0;
    cel.speed = narrowToFloat(speed);
    if (const json* l = field(item.qvxml, "level"); l && l->is_number())
        cel.level = cel.levelEnd = narrowToFloat(l->get<double>());
    if (const json* l = field(item.qvxml, "levelEnd"); l && l->is_number())
        cel.levelEnd = narrowToFloat(l->get<double>());
    for (const std::string& e : item.otherEffects) {
        note("effects \"" + e + "\", not kept");
        lose("filter", from - head, e + " on " + named);
    }

    bool plays = false;
    switch (item.kind) {
        case ItemKind::Gap:
            if (!(to > from)) return;
            // A gap's markers are the record's, where the gap stands.
            addCues(item.markers,
                    (item.sourceRange.start.valid() ? framesOf(item.sourceRange.start, base) : 0) -
                        from + head,
                    base, record->cues, false);
            break;
        case ItemKind::Clip: {
            double origin = mediaOrigin(item.media, base);
            double start =
                item.sourceRange.start.valid() ? framesOf(item.sourceRange.start, base) : origin;
            plays =
                clipReference(item, record, channel, base, cel, ref, start - origin + head * speed);
            if (plays) {
                // A shot's markers come with each of its clips: the first
                // clip's are its cues as they stand, later clips add only
                // what is new.
                ShotUse& use = shots_[item.media];
                addCues(item.markers, origin, base, use.cues, use.cuesTaken);
                use.cuesTaken = true;
            }
            break;
        }
        case ItemKind::Stack:
        case ItemKind::Track: {
            TimeBase inner;
            // What lies inside is placed where the outermost stack stands.
            double outer = place_.nestedAt;
            if (depth_ == 0) place_.nestedAt = std::max(0.0, placeOf(itemFrame_));
            CED2* nested = nestedRecord(item, base, inner);
            place_.nestedAt = outer;
            if (!nested) {
                lose("nested-unplayed", from - head,
                     named + (item.children.empty() ? ": nothing in it"
                                                    : ": nested deeper than 64 levels"));
                break;
            }
            long long c = -1;
            if (!intOf(item.qvxml, "channel", c)) {
                for (CChannel* ch : each<CChannel>(nested->channels)) {
                    if (ch->chanType == channel->chanType) {
                        c = ch->index;
                        break;
                    }
                }
            }
            if (c < 0) {
                note(
                    "nested stacks with no track of the kind of the track they are on, played "
                    "as black or silence");
                lose("nested-unplayed", from - head,
                     named + (video ? ": no video track in it" : ": no audio track in it"));
                break;
            }
            double start =
                item.sourceRange.start.valid() ? framesOf(item.sourceRange.start, base) : 0;
            cel.sourceIn = (start + head * speed) / base.ticks;
            ref.ghost = true;
            ref.id = refOf(keys_[nested], c);
            plays = true;
            break;
        }
        default:
            note("items of the schema " + item.schema + ", read as gaps");
            lose("unknown-item", from - head, item.schema + " " + named);
            break;
    }
    if (!plays) {
        cel.cookie = video ? video_black : audio_black;
        cel.speed = 1.0f;
        cel.sourceIn = 0;
        ref = CelRef();
    } else {
        cel.sourceOut = cel.sourceIn + (cel.editOut - cel.editIn) * cel.speed;
    }
    CED2Cell* made = channel->addCel(cel);
    made->refId = ref.id;
    made->refIsGhost = ref.ghost;
}

// The reference of a clip's cel: to the shot of its media, or to a sub-clip of
// it that the namespace describes. False when the clip plays nothing the
// editor can have (a generator, an image sequence).
bool OtioReader::clipReference(const Item& clip, CED2* record, CChannel* channel,
                               const TimeBase& base, CelData& cel, CelRef& ref,
                               double sourceFrames) {
    // Losses of the clip are placed where addItemCel found it stands.
    auto lost = [&](const char* kind, const std::string& detail) {
        lose(kind, itemFrame_, detail);
    };
    std::string named = "\"" + clip.name + "\"";
    if (clip.media >= doc_->media.size()) {
        lost("unknown-media", named + ": it names no media");
        return false;
    }
    const Media& media = doc_->media[clip.media];
    switch (media.kind) {
        case MediaKind::Generator:
            note("generated clips (" +
                 (media.generatorKind.empty() ? std::string("unnamed") : media.generatorKind) +
                 "), played as black or silence");
            lost("generator",
                 media.generatorKind.empty() ? named : media.generatorKind + " " + named);
            return false;
        case MediaKind::ImageSequence:
            note("clips of image sequences, played as black or silence");
            lost("image-sequence", named);
            return false;
        case MediaKind::Other:
            note("media references of the schema " + media.schema + ", played as black or silence");
            lost("unknown-media", named + ": " + media.schema);
            return false;
        default:
            break;
    }
    bool video = channel->chanType == kChanVideo;
    ShotUse& use = useOf(clip.media);
    if (clip.sourceRange.start.valid() && !(use.firstRate > 0))
        use.firstRate = clip.sourceRange.start.rate;

    long long channelByte = video ? 0 : clip.sourceTrack > 0 ? clip.sourceTrack : 1;
    intOf(clip.qvxml, "channel", channelByte);
    double length = (cel.editOut - cel.editIn) * std::fabs(static_cast<double>(cel.speed));

    if (const json* sub = field(clip.qvxml, "subclip"); sub && sub->is_object()) {
        // A sub-clip of the shot, written as a clip of the shot.
        double start = numberOf(*sub, "start");
        CED2* ghost = subclipRecord(clip, *sub, base);
        ref.ghost = true;
        ref.id = refOf(keys_[ghost], channelByte);
        cel.sourceIn = (sourceFrames - start) / base.ticks;
    } else {
        if (!use.plays(channelByte, video ? kChanVideo : kChanAudio)) {
            note("clips that play a channel that cannot be, played as black or silence");
            lost("channel-missing", named + ": channel " + std::to_string(channelByte));
            return false;
        }
        ref.id = refOf(shotKey(clip.media), channelByte);
        cel.sourceIn = sourceFrames / base.ticks;
        use.extent = std::max(use.extent, cel.sourceIn + length);
    }

    // The other angles of a multi-angle cel.
    if (const json* angles = field(clip.qvxml, "alternates"); angles && angles->is_array()) {
        Pending p{record, channel->index, channel->cels.size(), {}};
        for (const json& a : *angles) {
            std::string key = textOf(a, "key");
            auto other = std::find_if(clip.otherMedia.begin(), clip.otherMedia.end(),
                                      [&](const auto& m) { return m.first == key; });
            long long angleChannel = 0, offset = 0;
            std::string type = textOf(a, "type");
            intOf(a, "channel", angleChannel);
            intOf(a, "offset", offset);
            if (other == clip.otherMedia.end() || other->second >= doc_->media.size() ||
                angleChannel < 0 || angleChannel > 255 || type.size() != 1) {
                note("angles of multi-angle clips that name no media");
                continue;
            }
            useOf(other->second);
            p.angles.push_back({other->second, static_cast<unsigned char>(angleChannel),
                                static_cast<CookieType>(type[0]),
                                static_cast<int>(std::clamp(offset, -0x7FFFFFFFLL, 0x7FFFFFFFLL))});
        }
        if (!p.angles.empty()) pending_.push_back(std::move(p));
    }
    return true;
}

OtioReader::ShotUse& OtioReader::useOf(std::size_t media) {
    ShotUse& use = shots_[media];
    if (use.used) return use;
    use.used = true;
    shotOrder_.push_back(media);
    const Media& m = doc_->media[media];
    if (const json* chans = field(m.qvxml, "channels"); chans && chans->is_array()) {
        use.fixed = true;
        for (const json& c : *chans) {
            long long index = -1;
            EditChanType type = chanTypeOf(textOf(c, "type"));
            if (intOf(c, "index", index) && index >= 0 && index < 256 && type)
                use.channels.emplace_back(static_cast<unsigned>(index), type);
        }
    }
    return use;
}

// The sub-clip that a clip's namespace describes: made on its first use.
CED2* OtioReader::subclipRecord(const Item& clip, const json& sub, const TimeBase& base) {
    std::string key = "s" + std::to_string(clip.media) + "/" + textOf(sub, "id");
    if (auto found = subclips_.find(key); found != subclips_.end()) return found->second;
    double start = numberOf(sub, "start"), length = numberOf(sub, "length");
    CED2* ghost = new CED2(true);
    ghost->isGhost = true;
    ghost->kind = kLogTypeSubclip;
    ghost->cookie = makeNewEditCookie();
    std::string name = textOf(sub, "name");
    ghost->editName = fromUTF8((name.empty() ? clip.name : name).c_str());
    if (const json* r = field(sub, "rate"); r && r->is_number()) ghost->rate = r->get<double>();
    readRecordFields(sub, *ghost, fieldProblems_);
    if (const json* cues = field(sub, "cues"); cues && cues->is_array()) {
        for (const json& c : *cues) {
            Ced2Cue cue;
            if (cueFromJson(c, cue)) ghost->cues.push_back(cue);
        }
    }
    std::string ghostKey = "g" + std::to_string(subclips_.size());
    keys_[ghost] = ghostKey;
    ShotUse& use = useOf(clip.media);
    if (const json* chans = field(sub, "channels"); chans && chans->is_array()) {
        for (const json& c : *chans) {
            long long index = -1, source = -1;
            EditChanType type = chanTypeOf(textOf(c, "type"));
            if (!intOf(c, "index", index) || !intOf(c, "source", source) || index < 0 ||
                index > 0xFFFF || !type)
                continue;
            CChannel* ch = ghost->CreateEditChannel(static_cast<unsigned>(index), type);
            ch->name = textOf(c, "name");
            CED2Cell* g = new CED2Cell;
            g->editOut = length / base.ticks;
            g->sourceIn = start / base.ticks;
            g->sourceOut = g->sourceIn + g->editOut;
            if (use.plays(source, type)) g->refId = refOf(shotKey(clip.media), source);
            ch->cels.append(g);
            ghostRefs.addRef(refOf(ghostKey, index), ghost, true, static_cast<unsigned>(index),
                             type);
        }
    }
    use.extent = std::max(use.extent, (start + length) / base.ticks);
    subclips_.emplace(key, ghost);
    ghostList.append(ghost);
    return ghost;
}

// The edit that a nested stack or track stands for: made on its first use,
// found again by its id in the namespace on later ones.
CED2* OtioReader::nestedRecord(const Item& item, const TimeBase& outer, TimeBase& inner) {
    const json* edit = field(item.qvxml, "edit");
    std::string id = edit ? textOf(*edit, "id") : std::string();
    Qv::FrameRate rate = edit ? rateOfText(textOf(*edit, "frameRate")) : Qv::eFrameRateNone;
    inner = Qv::isKnownFrameRate(rate) ? TimeBase::of(rate) : outer;
    if (!id.empty()) {
        auto found = nested_.find(id);
        if (found != nested_.end()) return found->second;
    }
    if (item.children.empty()) {
        note("nested stacks with nothing in them, played as black or silence");
        return nullptr;
    }
    if (depth_ >= 64) {
        note("stacks nested deeper than 64 levels, played as black or silence");
        return nullptr;
    }
    bool subclip = edit && textOf(*edit, "kind") == "subclip";
    CED2* record = new CED2(subclip);
    if (subclip) {
        record->isGhost = true;
        record->kind = kLogTypeSubclip;
    }
    record->cookie = makeNewEditCookie();
    record->editName = fromUTF8((item.name.empty() ? std::string("NoName") : item.name).c_str());
    record->shotVideoMetadata = fixedMetadata(inner.rate);
    record->shotVideoMetadataSet = true;
    if (edit) {
        if (const json* r = field(*edit, "rate"); r && r->is_number())
            record->rate = r->get<double>();
        readRecordFields(*edit, *record, fieldProblems_);
    }
    ++depth_;
    buildChannels(item, record, inner, false);
    --depth_;
    addCues(item.markers, 0, inner, record->cues, false);
    std::string key = "n" + std::to_string(nestedCount_);
    keys_[record] = key;
    for (CChannel* ch : each<CChannel>(record->channels))
        ghostRefs.addRef(refOf(key, ch->index), record, true, ch->index, ch->chanType);
    ghostList.append(record);
    if (!id.empty()) nested_.emplace(id, record);
    ++nestedCount_;
    return record;
}

// The shots, one per piece of media that a clip plays, in order of first use.
void OtioReader::finishShots() {
    for (std::size_t m : shotOrder_) {
        ShotUse& use = shots_[m];
        const Media& media = doc_->media[m];
        CED2* shot = new CED2(true);
        shot->editName =
            fromUTF8((media.name.empty() ? std::string("NoName") : media.name).c_str());
        std::string locator =
            media.kind == MediaKind::External ? media.url : textOf(media.qvxml, "locator");
        if (!locator.empty()) {
            shot->originLocator = fromUTF8(locator.c_str());
            shot->originLocatorSet = true;
        }
        double fps = 0;
        if (const json* r = field(media.qvxml, "rate"); r && r->is_number()) fps = r->get<double>();
        if (!(fps > 0) && media.available.duration.valid()) fps = media.available.duration.rate;
        if (!(fps > 0)) fps = use.firstRate;
        if (!(fps > 0) || !std::isfinite(fps)) fps = Qv::getFramesPerSecond(seqFrameRate);
        shot->rate = fps;
        Qv::FrameRate celRate = Qv::getCelQVFrameRateFromFrameRateDouble(fps);
        double ticks =
            Qv::isKnownFrameRate(celRate) ? Qv::getTicksPerSecond(celRate) : timebaseOf(fps);
        if (!(ticks > 0)) ticks = 1;
        // A length the document gives as infinite is kept: it was so where
        // the document was written.
        double length = use.extent;
        const RationalTime& d = media.available.duration;
        if (d.rate > 0 && std::isfinite(d.rate) && !std::isnan(d.value))
            length = rescale(d.value, d.rate, fps) / ticks;
        if (std::isnan(length) || length < 0) length = 0;

        readRecordFields(media.qvxml, *shot, fieldProblems_);
        if (shot->labelCount == 0 && media.available.start.valid() &&
            media.available.start.value != 0 && Qv::isKnownFrameRate(celRate)) {
            double frames =
                nearestCount(rescale(media.available.start.value, media.available.start.rate,
                                     Qv::getFramesPerSecond(celRate)));
            EditLabel label = editLabFrom(truncateToInt32(frames), Qv::Image::eScanProgressive,
                                          celRate, dropsFrames(celRate));
            if (label.is_valid()) shot->addLabel(label);
        }
        shot->sourceMedium = getMediumRollfromInputDetails(Qv::Image::eScanProgressive,
                                                           Qv::getEquivalentQvFrameRate(fps));
        std::sort(use.channels.begin(), use.channels.end());
        if (!use.fixed && use.channels.empty()) use.channels.emplace_back(0, kChanVideo);
        std::string key = shotKey(m);
        int audio = 0;
        for (const auto& [index, type] : use.channels) {
            CChannel* ch = shot->CreateEditChannel(index, type);
            char name[16];
            std::snprintf(name, sizeof name, "%s%d", type == kChanVideo ? "V" : "A",
                          type == kChanVideo ? 1 : ++audio);
            ch->name = name;
            CED2Cell* cel = new CED2Cell;
            cel->editOut = cel->sourceOut = length;
            ch->cels.append(cel);
            clipRefs.addRef(refOf(key, index), shot, true, index, type);
            if (type == kChanVideo) shot->hasVideo = true;
        }
        for (const auto& [index, type] : use.unlisted)
            clipRefs.addRef(refOf(key, index), shot, true, index, type);
        if (const json* chans = field(media.qvxml, "channels"); chans && chans->is_array()) {
            // The channels' own names.
            for (const json& c : *chans) {
                long long index = -1;
                if (!intOf(c, "index", index)) continue;
                for (CChannel* ch : each<CChannel>(shot->channels))
                    if (ch->index == index) ch->name = textOf(c, "name");
            }
        }
        shot->audioChannelCount = audio;
        shot->duration = length;
        shot->cues = use.cues;
        use.record = shot;
        shotList.append(shot);
    }
}

bool OtioReader::cueOf(const Marker& marker, double origin, const TimeBase& base, Ced2Cue& cue) {
    if (!marker.range.start.valid()) {
        note("markers without a range");
        return false;
    }
    cue.name = fromUTF8(marker.name.c_str());
    cue.comment = fromUTF8(marker.comment.c_str());
    unsigned int rgb = 0xFF0000;
    std::string exact = textOf(marker.qvxml, "colour");
    if (exact.empty() || !colourFromText(exact, rgb)) {
        if (!markerColourValue(marker.color, rgb)) {
            rgb = 0xFF0000;
            if (!marker.color.empty()) note("marker colours \"" + marker.color + "\", read as red");
        }
    }
    cue.colour = rgb;
    double start = framesOf(marker.range.start, base) - origin;
    double duration = marker.range.duration.valid() ? framesOf(marker.range.duration, base) : 0;
    cue.in = start / base.ticks;
    const json* closed = field(marker.qvxml, "closed");
    if (duration > 0) {
        cue.out = (start + duration) / base.ticks;
    } else if (closed && closed->is_boolean() && closed->get<bool>()) {
        cue.out = cue.in;
    } else {
        cue.out = kCueOpenEnd;
    }
    long long n = 0;
    cue.type = intOf(marker.qvxml, "type", n) ? static_cast<EditChanType>(n) : kChanVideo;
    cue.flags = intOf(marker.qvxml, "flags", n) ? static_cast<unsigned int>(n) : 0;
    return true;
}

void OtioReader::addCues(const std::vector<Marker>& markers, double origin, const TimeBase& base,
                         std::vector<Ced2Cue>& cues, bool unique) {
    for (const Marker& m : markers) {
        Ced2Cue cue;
        if (!cueOf(m, origin, base, cue)) continue;
        if (unique && std::find(cues.begin(), cues.end(), cue) != cues.end()) continue;
        cues.push_back(cue);
    }
}

// Angles are cookies, not references: they are set on the stored edits once
// the shots have theirs.
void OtioReader::fixAlternates() {
    for (const Pending& p : pending_) {
        if (!p.owner || !p.owner->edit) continue;
        for (StoredChannel& ch : p.owner->edit->channels) {
            if (ch.index != p.channel || p.ordinal >= ch.cels.size()) continue;
            CelData& cel = ch.cels[p.ordinal];
            for (const Pending::Angle& a : p.angles) {
                CED2* shot = shots_[a.media].record;
                if (!shot || !shot->cookie.isValid()) continue;
                cel.alternates.push_back(
                    {convertCookie(shot->cookie, a.type, a.channel), a.offset});
            }
        }
    }
}

// ---- losses ----

double OtioReader::placeOf(double frame) const {
    return depth_ > 0 ? place_.nestedAt : frame - place_.origin;
}

void OtioReader::lose(const char* kind, double frame, const std::string& detail) {
    LossRecord r;
    r.kind = kind;
    r.sequence = place_.sequence;
    r.track = place_.track;
    r.detail = detail;
    double at = frame < 0 && depth_ == 0 ? -1 : std::max(0.0, placeOf(frame));
    if (at >= 0 && std::isfinite(at)) {
        r.frame = static_cast<long long>(std::llround(std::min(at, 1e15)));
        r.timecode = frameToTimecode(place_.startFrame + r.frame, place_.ticks, place_.dropFrame);
    }
    logger.LossOut(r);
}

// ---- files ----

XML::ImportResult importOtioFile(const LightweightString<wchar_t>& path, LoggerHandle log,
                                 std::string& error, Document* model) {
    XML::ImportResult result;
    Document doc;
    ParseResult parsed = parseFile(toUTF8(path).str(), doc);
    if (!parsed.ok) {
        error = parsed.error;
        result.status =
            parsed.error == "it cannot be opened" || parsed.error == "it cannot be read to its end"
                ? XML::kStatusUnreadable
                : XML::kStatusUnknown;
        return result;
    }
    std::string none;
    if (OtioReader::timelinesOf(doc, none).empty()) {
        error = none;
        result.status = XML::kStatusUnknown;
        return result;
    }
    Qv::Ptr<OtioReader> reader(new OtioReader(log));
    Qv::Ptr<ImportFileInfoRep> info(new ImportFileInfoRep({path}));
    result = reader->importDocument(doc, info, log);
    if (model) *model = std::move(doc);
    return result;
}

Qv::FrameRate otioFrameRate(const LightweightString<wchar_t>& path) {
    Document doc;
    if (!parseFile(toUTF8(path).str(), doc).ok) return Qv::eFrameRateNone;
    std::string error;
    std::vector<std::size_t> timelines = OtioReader::timelinesOf(doc, error);
    if (timelines.empty()) return Qv::eFrameRateNone;
    bool exact = true;
    return OtioReader::timelineRate(doc, timelines[0], exact);
}

bool isOtioDocument(const LightweightString<wchar_t>& path) {
    return looksLikeOtio(toUTF8(path).str());
}

}  // namespace QvOtio
