// Tracks to channels of cels.
//
// A track is a loose set of clip items and transition items with frame
// numbers, in ticks of the sequence's timebase; where a clip runs into a
// transition, its start or end is -1 and the true value is worked out from
// its neighbour. A channel is a gap-free list of cels: the walk takes the
// items in position order and fills what lies between them with black.
//
// The host puts a transition on a channel as a cel of its own: the clip
// before it ends at the transition's start and the clip after it begins at
// its end, with its media moved on by the transition's length so that the
// frames the transition overlaps are not played twice.
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>

#include "xmeml/FCP5ReaderSupport.h"
#include "xmeml/FCP5XMLReader.h"

namespace XML {

using fcp5read::doubleOf;
using fcp5read::intOf;
using fcp5read::leaf;
using fcp5read::present;
using fcp5read::toInt;

namespace {

// The wipe effect: a magic cookie whose first word names the effect.
const Cookie kWipeCookie(kCookieVideo, 46677, kMagicWord, 0);

constexpr long long kBehind = std::numeric_limits<long long>::min();

// Where an item can stand in the position order, seen from `pos`: its start
// when that is known and not behind, else its end when that is known and
// ahead. An item with neither lies behind `pos`.
bool keyOf(int start, int end, int pos, long long& key) {
    if (start != -1 && start >= pos) {
        key = start;
        return true;
    }
    if (end != -1 && end > pos) {
        key = end;
        return true;
    }
    return false;
}

}  // namespace

// One item of a track, parsed once, with its two positions.
struct FCP5XMLReader::TrackItem {
    const XMLParser::Value* value = nullptr;
    std::unique_ptr<XMLParser> parser;
    bool hasText = false;
    int start = 0, end = 0;
};

// The items of one track, with what the merge by position needs to find the
// next one without walking the track again: the next clip item that has
// text, and a tree of the furthest position each transition item reaches, so
// that transitions lying behind the walk are passed over in logarithmic time.
struct FCP5XMLReader::Track {
    using Item = TrackItem;
    std::vector<Item> clips, transitions;
    std::vector<std::size_t> nextClip;  // first clip at or after i with text
    std::vector<long long> reach;       // max tree over the transitions
    std::size_t leaves = 1;

    Track(const std::vector<XMLParser::Value>& clipItems,
          const std::vector<XMLParser::Value>& transItems) {
        fill(clips, clipItems);
        fill(transitions, transItems);
        nextClip.assign(clips.size() + 1, clips.size());
        for (std::size_t i = clips.size(); i-- > 0;)
            nextClip[i] = clips[i].hasText ? i : nextClip[i + 1];
        while (leaves < transitions.size())
            leaves *= 2;
        reach.assign(2 * leaves, kBehind);
        for (std::size_t i = 0; i < transitions.size(); ++i) {
            const Item& t = transitions[i];
            long long r = kBehind;
            if (t.hasText) {
                // The key exists while pos <= start or pos < end.
                if (t.start != -1) r = t.start;
                if (t.end != -1) r = std::max(r, static_cast<long long>(t.end) - 1);
            }
            reach[leaves + i] = r;
        }
        for (std::size_t i = leaves; i-- > 1;)
            reach[i] = std::max(reach[2 * i], reach[2 * i + 1]);
    }

    static void fill(std::vector<Item>& out, const std::vector<XMLParser::Value>& values) {
        out.resize(values.size());
        for (std::size_t i = 0; i < values.size(); ++i) {
            Item& item = out[i];
            item.value = &values[i];
            item.hasText = !values[i].text.empty();
            item.parser = std::make_unique<XMLParser>(values[i].text.c_str(), -1);
            item.start = intOf(*item.parser, "start", 0);
            item.end = intOf(*item.parser, "end", 0);
        }
    }

    // The first transition at or after `from` that has text and does not lie
    // behind `pos`; transitions.size() when there is none.
    std::size_t transitionFrom(std::size_t from, int pos) const {
        if (from >= transitions.size()) return transitions.size();
        return descend(1, 0, leaves, from, pos);
    }

    std::size_t descend(std::size_t node, std::size_t lo, std::size_t hi, std::size_t from,
                        int pos) const {
        if (hi <= from || reach[node] < pos) return transitions.size();
        if (hi - lo == 1) return lo < transitions.size() ? lo : transitions.size();
        std::size_t mid = (lo + hi) / 2;
        std::size_t left = descend(2 * node, lo, mid, from, pos);
        if (left != transitions.size()) return left;
        return descend(2 * node + 1, mid, hi, from, pos);
    }

    struct Pick {
        bool found = false;
        bool transition = false;
        std::size_t index = 0;
    };

    // The next item after the two cursors, by position; on a tie the clip
    // comes first.
    Pick next(int pos, int clipIndex, int transIndex, bool acceptPast) const {
        Pick clip, trans;
        long long clipKey = 0, transKey = 0;
        std::size_t c = nextClip[static_cast<std::size_t>(clipIndex + 1)];
        if (c < clips.size()) {
            if (keyOf(clips[c].start, clips[c].end, pos, clipKey)) {
                clip = {true, false, c};
            } else if (acceptPast) {
                return {true, false, c};
            }
            // A clip behind the walk is not looked past: later clips wait.
        }
        std::size_t t = transitionFrom(static_cast<std::size_t>(transIndex + 1), pos);
        if (t < transitions.size() &&
            keyOf(transitions[t].start, transitions[t].end, pos, transKey))
            trans = {true, true, t};
        if (clip.found && trans.found) return transKey < clipKey ? trans : clip;
        return clip.found ? clip : trans;
    }

    Item& at(const Pick& p) { return p.transition ? transitions[p.index] : clips[p.index]; }
};

// The state of one walk: what has been written, and the transition a clip
// may start in.
struct FCP5XMLReader::Cursor {
    int pos = 0;
    int clipIndex = -1, transIndex = -1;
    int pendingLen = 0;
    bool pendingTrans = false;
};

bool FCP5XMLReader::getNextTrackItem(int pos, int& clipIndex, int& transIndex, bool acceptPast,
                                     const std::vector<XMLParser::Value>& clipItems,
                                     const std::vector<XMLParser::Value>& transItems,
                                     LightweightString<char>& itemText) {
    if (clipIndex < -1 || transIndex < -1 || clipIndex >= static_cast<int>(clipItems.size()) ||
        transIndex >= static_cast<int>(transItems.size()))
        return false;
    Track track(clipItems, transItems);
    Track::Pick p = track.next(pos, clipIndex, transIndex, acceptPast);
    if (!p.found) return false;
    (p.transition ? transIndex : clipIndex) = static_cast<int>(p.index);
    itemText = track.at(p).value->text;
    return true;
}

void FCP5XMLReader::appendBlack(CChannel* channel, bool isVideo, long long from,
                                long long to) const {
    CED2Cell* cel = new CED2Cell;
    cel->cookie = isVideo ? video_black : audio_black;
    cel->editIn = static_cast<double>(from) * secondsPerTick;
    cel->editOut = static_cast<double>(to) * secondsPerTick;
    cel->sourceIn = 0;
    channel->cels.append(cel);
}

int FCP5XMLReader::parseEventsForChannel(bool isVideo, CChannel* channel,
                                         const std::vector<XMLParser::Value>& clipItems,
                                         const std::vector<XMLParser::Value>& transItems,
                                         double seqDuration) {
    Track track(clipItems, transItems);
    Cursor cursor;
    for (;;) {
        Track::Pick p =
            track.next(cursor.pos, cursor.clipIndex, cursor.transIndex, cursor.pendingTrans);
        if (!p.found) break;
        (p.transition ? cursor.transIndex : cursor.clipIndex) = static_cast<int>(p.index);
        Track::Item& item = track.at(p);
        if (item.value->text.empty()) {
            logger.ErrorOut("Empty track component");
            return 0;
        }
        // Whatever list an item came from, an alignment makes it a transition.
        if (present(*item.parser, "alignment")) {
            addTransition(cursor, item, isVideo, channel);
        } else if (addClip(track, cursor, item, isVideo, channel, seqDuration) != 1) {
            return 0;
        }
        item.parser.reset();  // each item is delivered once
    }
    // Black to the end of the sequence.
    int seqTicks = truncateToInt32(seqDuration * ticksPerSecond);
    if (cursor.pos < seqTicks) appendBlack(channel, isVideo, cursor.pos, seqTicks);
    return 1;
}

void FCP5XMLReader::addTransition(Cursor& cursor, TrackItem& item, bool isVideo,
                                  CChannel* channel) {
    XMLParser& ip = *item.parser;
    int start = item.start, end = item.end;
    int in = intOf(ip, "in", 0), out = intOf(ip, "out", 0);

    // A transition from black, at the head of a clip, leaves nothing for the
    // next clip to start in.
    if (leaf(ip, "alignment") == "end_black") {
        cursor.pendingLen = 0;
        cursor.pendingTrans = false;
    } else {
        cursor.pendingLen = toInt(static_cast<long long>(end) - start);
        cursor.pendingTrans = true;
    }

    CED2Cell* cel = new CED2Cell;
    cel->editIn = start * secondsPerTick;
    cel->editOut = end * secondsPerTick;
    cel->sourceIn = in * secondsPerTick;
    cel->sourceOut = out * secondsPerTick;

    XMLParser::Value effect = ip.getValue("effect", 0);
    if (effect.text.empty()) {
        cel->refId = "...?...";
    } else {
        XMLParser ep(effect.text.c_str(), -1);
        if (!(leaf(ep, "effecttype") == "transition")) {
            cel->refId = "...?...";
        } else if (!isVideo) {
            cel->cookie = audio_dissolve;
        } else {
            LightweightString<char> category = leaf(ep, "effectcategory");
            if (category == "Wipe") {
                cel->cookie = kWipeCookie;
                cel->SetSMPTEWipeCode(intOf(ep, "wipecode", 0),
                                      leaf(ep, "reverse") == "TRUE" ? eWipeReverse : eWipeForward);
            } else if (category == "Dissolve") {
                cel->cookie = video_dissolve;
            } else {
                cel->refId = "...?...";
            }
        }
    }

    if (start > cursor.pos) appendBlack(channel, isVideo, cursor.pos, start);
    cursor.pos = end;
    channel->cels.append(cel);
}

int FCP5XMLReader::addClip(Track& track, Cursor& cursor, TrackItem& item, bool isVideo,
                           CChannel* channel, double seqDuration) {
    XMLParser& ip = *item.parser;
    long long start = item.start, end = item.end;
    int in = intOf(ip, "in", 0), out = intOf(ip, "out", 0);
    long long origStart = start;
    int duration = intOf(ip, "duration", 1);

    // Speed and reverse play from the first Time Remap filter.
    double speed = 1.0;
    bool reversed = false;
    for (const XMLParser::Value& filter : ip.getValues("filter")) {
        XMLParser fp(filter.text.c_str(), -1);
        XMLParser::Value effect = fp.getValue("effect", 0);
        XMLParser ep(effect.text.c_str(), -1);
        if (!(leaf(ep, "effectid") == "timeremap")) continue;
        for (const XMLParser::Value& parameter : ep.getValues("parameter")) {
            XMLParser pp(parameter.text.c_str(), -1);
            LightweightString<char> name = leaf(pp, "name");
            if (name == "reverse") {
                if (leaf(pp, "value") == "TRUE") reversed = true;
            } else if (name == "speed") {
                scanDouble(leaf(pp, "value"), speed);
                speed /= 100.0;
            }
        }
        break;
    }

    // A still, or a speed of a tenth of a percent, holds one frame.
    bool frozen = false;
    int scaledIn = truncateToInt32(in * speed);
    if (leaf(ip, "stillframe") == "TRUE" || std::fabs(speed - 0.001) < 1e-6) {
        frozen = true;
        reversed = false;
    } else if (reversed) {
        // Played backwards, the in point counts from the far end of the media.
        scaledIn = toInt(static_cast<long long>(truncateToInt32(duration * speed)) - scaledIn);
    }
    in = scaledIn;

    // A clip that starts inside a transition starts where the transition
    // ends, and its media runs on by the transition's length.
    if (start == -1) {
        if (!cursor.pendingTrans) {
            logger.ErrorOut("Invalid component order");
            return 0;
        }
        start = cursor.pos;
        origStart = static_cast<long long>(cursor.pos) - cursor.pendingLen;
        double moved = cursor.pendingLen * speed;
        in = truncateToInt32(reversed ? scaledIn - moved : scaledIn + moved);
    }

    // A clip that ends inside a transition ends where the transition begins;
    // its media reaches on to the transition's end.
    long long sourceEnd;
    if (end == -1) {
        Track::Pick peek = track.next(cursor.pos, cursor.clipIndex, cursor.transIndex, false);
        if (!peek.found || !present(*track.at(peek).parser, "alignment")) {
            logger.ErrorOut("Invalid component order");
            return 0;
        }
        long long t0 = track.at(peek).start, t1 = track.at(peek).end;
        end = t0;
        out = toInt(in + static_cast<long long>(truncateToInt32((t0 - start) * speed)));
        sourceEnd = out + static_cast<long long>(truncateToInt32((t1 - t0) * speed));
    } else {
        long long played = truncateToInt32((end - start) * speed);
        out = toInt(reversed ? in - played : in + played);
        sourceEnd = out;
    }

    if (cursor.pos < start) appendBlack(channel, isVideo, cursor.pos, start);

    CED2Cell* cel = new CED2Cell;
    cel->refIsGhost = clipItemReferencesSubClip(ip);
    LightweightString<char> base;
    if (cel->refIsGhost) {
        base = leaf(ip, "name");
    } else if (XMLParser::Value file = ip.getValue("file", 0); !file.attributes.empty()) {
        base = file.attributes[0].value;
    }
    if (base.empty()) {
        cel->refId = "...?...";
    } else if (isVideo) {
        cel->refId = base + "$0$";
    } else {
        // An audio cel plays the file's channel that its source track names.
        // Only the first character of the number is kept.
        int trackNumber = 1;
        XMLParser::Value source = ip.getValue("sourcetrack", 0);
        if (!source.text.empty()) {
            XMLParser sp(source.text.c_str(), -1);
            scanInt(leaf(sp, "trackindex"), trackNumber);
        }
        char digits[16];
        std::snprintf(digits, sizeof digits, "%1d", trackNumber);
        cel->refId = base + "$";
        cel->refId += digits[0];
        cel->refId += "$";
    }

    if (frozen) {
        out = in;
        cel->speed = 0.0f;
    } else {
        cel->speed = narrowToFloat(reversed ? -speed : speed);
    }
    cel->editIn = static_cast<double>(start) * secondsPerTick;
    cel->editOut = static_cast<double>(end) * secondsPerTick;
    cel->sourceIn = in * secondsPerTick;
    cel->sourceOut = out * secondsPerTick;
    channel->cels.append(cel);

    // Level keyframes, in the clip's source frames, placed on the sequence
    // as fractions of its length.
    for (const XMLParser::Value& filter : ip.getSections_TopLevel("filter")) {
        XMLParser fp(filter.text.c_str(), -1);
        XMLParser::Value effect = fp.getValue("effect", 0);
        if (effect.text.empty()) continue;
        XMLParser ep(effect.text.c_str(), -1);
        if (!(leaf(ep, "effectid") == "audiolevels")) continue;
        for (const XMLParser::Value& keyframe : fp.getSections("keyframe")) {
            if (keyframe.text.empty()) continue;
            XMLParser kp(keyframe.text.c_str(), -1);
            long long when = truncateToInt32(doubleOf(kp, "when", 0.0));
            double value = doubleOf(kp, "value", 1.0);
            when = std::max(when, static_cast<long long>(scaledIn));
            when = std::min(when, sourceEnd);
            when -= scaledIn;
            if (when >= 0) {
                CED2TrackLevel* level = new CED2TrackLevel;
                level->position =
                    static_cast<double>(when + origStart) * secondsPerTick / seqDuration;
                level->value = narrowToFloat(value);
                channel->levels.append(level);
            }
            channel->hasTrackLevels = true;
            channel->trackLevelsSet = true;
        }
    }

    cursor.pos = toInt(end);
    cursor.pendingLen = 0;
    cursor.pendingTrans = false;
    return 1;
}

}  // namespace XML
