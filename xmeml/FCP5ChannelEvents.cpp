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
#include "xmeml/FCP5ReaderTrack.h"
#include "xmeml/FCP5XMLReader.h"

namespace XML {

using fcp5read::doubleOf;
using fcp5read::inside;
using fcp5read::intOf;
using fcp5read::leaf;
using fcp5read::present;
using fcp5read::timeOf;
using fcp5read::toInt;

namespace {

// The wipe effect: a magic cookie whose first word names the effect.
const Cookie kWipeCookie(kCookieVideo, 46677, kMagicWord, 0);

}  // namespace

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

bool FCP5XMLReader::asTransition(bool fromTransitions, const XMLParser& item) {
    // The original reading takes any item that holds an alignment, at any
    // depth, for a transition, whatever list it came from: a clip item that
    // holds a nested sequence with fades in it among them. By default the
    // list decides.
    return legacy() ? present(item, "alignment") : fromTransitions;
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
    Track track(clipItems, transItems, check());
    return walkTrack(track, isVideo, channel, seqDuration);
}

int FCP5XMLReader::parseEventsForChannel(bool isVideo, CChannel* channel,
                                         std::vector<std::unique_ptr<XMLParser>> clipItems,
                                         std::vector<std::unique_ptr<XMLParser>> transItems,
                                         double seqDuration) {
    Track track(std::move(clipItems), std::move(transItems), check());
    return walkTrack(track, isVideo, channel, seqDuration);
}

int FCP5XMLReader::walkTrack(Track& track, bool isVideo, CChannel* channel, double seqDuration) {
    // The original reading stops at a clip that lies under the one before
    // it: every clip after it on the track plays black.
    track.lookPast = !legacy();
    Cursor cursor;
    for (;;) {
        Track::Pick p =
            track.next(cursor.pos, cursor.clipIndex, cursor.transIndex, cursor.pendingTrans);
        if (!p.found) break;
        (p.transition ? cursor.transIndex : cursor.clipIndex) = static_cast<int>(p.index);
        Track::Item& item = track.at(p);
        if (!item.hasText) {
            logger.ErrorOut("Empty track component");
            return 0;
        }
        if (asTransition(p.transition, *item.parser)) {
            addTransition(cursor, item, isVideo, channel);
        } else if (addClip(track, cursor, item, isVideo, channel, seqDuration) != 1) {
            return 0;
        }
        item.parser.reset();  // each item is delivered once
    }
    // A clip that lies behind one placed before it is never reached.
    for (TrackItem& clip : track.clips)
        if (clip.parser) {
            LightweightString<char> name = leaf(*clip.parser, "name");
            LightweightString<char> id = fcp5read::idOf(*clip.parser);
            reportLoss(lossHere("clip-not-placed", clip.start, fcp5read::itemText(name, id)), true);
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
    int in = timeOf(ip, "in", 0, check()), out = timeOf(ip, "out", 0, check());

    // A fade to black, at the tail of a clip, leaves nothing for the next
    // clip to start in. Final Cut Pro and Premiere spell it "end-black".
    LightweightString<char> alignment = leaf(ip, "alignment");
    if (alignment == "end_black" || alignment == "end-black") {
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

    std::unique_ptr<XMLParser> effect = inside(ip, "effect");
    LightweightString<char> what;  // the effect, as losses name it
    bool asDissolve = false;
    if (!effect) {
        cel->refId = "...?...";
    } else {
        const XMLParser& ep = *effect;
        what = leaf(ep, "name");
        if (what.empty()) what = leaf(ep, "effectid");
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
                LightweightString<char> id = leaf(ep, "effectid");
                asDissolve = !id.empty() && !(id == "Cross Dissolve");
            } else {
                cel->refId = "...?...";
            }
        }
    }
    if (what.empty()) what = "a transition";
    long long at = start >= 0 ? start : cursor.pos;
    if (cel->refId == "...?...")
        reportLoss(lossHere("unknown-transition", at, "\"" + what + "\""), true);
    else if (asDissolve)
        reportLoss(lossHere("transition-as-dissolve", at, "\"" + what + "\""), false);
    if (fcp5read::disabled(ip)) reportLoss(lossHere("disabled", at, "\"" + what + "\""), false);

    if (start > cursor.pos) appendBlack(channel, isVideo, cursor.pos, start);
    cursor.pos = end;
    channel->cels.append(cel);
}

int FCP5XMLReader::addClip(Track& track, Cursor& cursor, TrackItem& item, bool isVideo,
                           CChannel* channel, double seqDuration) {
    XMLParser& ip = *item.parser;
    long long start = item.start, end = item.end;
    // Final Cut Pro's version 1 writes a clip that runs into a transition with
    // an end before its start; the transition after it says where it ends.
    // Without one the clip has no place on the track, and is said to have none.
    if (!legacy() && start != -1 && end != -1 && end < start) {
        Track::Pick peek = track.next(cursor.pos, cursor.clipIndex, cursor.transIndex, false);
        if (peek.found && asTransition(peek.transition, *track.at(peek).parser)) {
            end = -1;
        } else {
            reportLoss(lossHere("clip-not-placed", start,
                                fcp5read::itemText(leaf(ip, "name"), fcp5read::idOf(ip))),
                       true);
            return 1;
        }
    }
    int in = timeOf(ip, "in", 0, check()), out = timeOf(ip, "out", 0, check());
    long long origStart = start;
    int duration = timeOf(ip, "duration", 1, check());

    // Speed and reverse play from the first Time Remap filter.
    double speed = 1.0;
    bool reversed = false;
    for (unsigned i = 0, filters = ip.count("filter"); i < filters; ++i) {
        std::unique_ptr<XMLParser> filter = inside(ip, "filter", i);
        std::unique_ptr<XMLParser> effect = filter ? inside(*filter, "effect") : nullptr;
        if (!effect || !(leaf(*effect, "effectid") == "timeremap")) continue;
        for (unsigned j = 0, parameters = effect->count("parameter"); j < parameters; ++j) {
            std::unique_ptr<XMLParser> parameter = inside(*effect, "parameter", j);
            if (!parameter) continue;
            LightweightString<char> name = leaf(*parameter, "name");
            if (name == "reverse") {
                if (leaf(*parameter, "value") == "TRUE") reversed = true;
            } else if (name == "speed") {
                scanDouble(leaf(*parameter, "value"), speed);
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
        if (!peek.found || !asTransition(peek.transition, *track.at(peek).parser)) {
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

    if (item.generator) {
        // What a generator makes cannot be played here: its place is black.
        appendBlack(channel, isVideo, start, end);
        LightweightString<char> what = leaf(ip, "name");
        if (std::unique_ptr<XMLParser> effect = inside(ip, "effect"))
            if (LightweightString<char> n = leaf(*effect, "name"); !n.empty()) what = n;
        reportLoss(lossHere("generator", start, fcp5read::itemText(what, fcp5read::idOf(ip))),
                   true);
        cursor.pos = toInt(end);
        cursor.pendingLen = 0;
        cursor.pendingTrans = false;
        return 1;
    }

    CED2Cell* cel = new CED2Cell;
    // By default a clip item that holds or names a sequence plays that
    // sequence's edit; the original reading plays the first file inside it.
    std::string nested = legacy() ? std::string() : nestedKey(ip);
    double sourceSecondsPerTick = secondsPerTick;
    LightweightString<char> base;
    if (!nested.empty()) {
        cel->refIsGhost = true;
        base = LightweightString<char>(nested);
        // Its in point counts in the nested sequence's frames.
        if (auto t = sequenceTicks_.find(nested); t != sequenceTicks_.end() && t->second > 0)
            sourceSecondsPerTick = 1.0 / t->second;
    } else {
        cel->refIsGhost = clipItemReferencesSubClip(ip);
        if (cel->refIsGhost) {
            base = leaf(ip, "name");
        } else if (std::vector<XMLParser::Tag> file = ip.getAttributes("file", 0); !file.empty()) {
            base = file[0].value;
        }
    }
    int trackNumber = 1;
    if (base.empty()) {
        cel->refId = "...?...";
    } else if (isVideo) {
        cel->refId = sharedReference(std::string(base.view()) + "$0$");
    } else {
        // An audio cel plays the file's channel that its source track names.
        if (std::unique_ptr<XMLParser> source = inside(ip, "sourcetrack"))
            scanInt(leaf(*source, "trackindex"), trackNumber);
        if (legacy()) {
            // The original reading keeps the first character of the number.
            char digits[16];
            std::snprintf(digits, sizeof digits, "%1d", trackNumber);
            cel->refId = base + "$";
            cel->refId += digits[0];
            cel->refId += "$";
        } else {
            cel->refId =
                sharedReference(std::string(base.view()) + "$" + std::to_string(trackNumber) + "$");
        }
    }

    if (frozen) {
        out = in;
        cel->speed = 0.0f;
    } else {
        cel->speed = narrowToFloat(reversed ? -speed : speed);
    }
    cel->editIn = static_cast<double>(start) * secondsPerTick;
    cel->editOut = static_cast<double>(end) * secondsPerTick;
    cel->sourceIn = in * sourceSecondsPerTick;
    cel->sourceOut =
        nested.empty() ? out * secondsPerTick : cel->sourceIn + (out - in) * secondsPerTick;
    channel->cels.append(cel);

    // What the reader passes over in the item, and what its references
    // need: checked once every record is made.
    LightweightString<char> itemName = leaf(ip, "name");
    LightweightString<char> itemId = fcp5read::idOf(ip);
    // How losses name the item, made only for a loss.
    auto detail = [&itemName, &itemId] { return fcp5read::itemText(itemName, itemId); };
    reportItem(ip, start, itemName, itemId);
    if (legacy() && !ip.sections_TopLevel("sequence").empty())
        reportLoss(lossHere("nested-sequence", start, detail()), false);
    if (place_.cutAt >= 0 && end > place_.cutAt)
        reportLoss(lossHere("cut-off", start, detail()), true);
    if (!nested.empty()) {
        nestedUses_.push_back(
            {currentSequence_, nested, cel, lossHere("nested-sequence", start, detail())});
    }
    if (!cel->refIsGhost && !base.empty()) {
        if (auto f = fileFacts_.find(base.str()); f != fileFacts_.end()) {
            FileNeeds& needs = fileNeeds_[base.str()];
            double reach = std::max(cel->sourceIn, cel->sourceOut);
            if (!(reach > 0)) reach = cel->editOut - cel->editIn;
            needs.length = std::max(needs.length, reach);
            // A channel past kMostChannels is not made: its clip stays unresolved.
            if (isVideo)
                needs.video = true;
            else if (trackNumber <= fcp5read::kMostChannels)
                needs.audioChannels = std::max(needs.audioChannels, trackNumber);
            if (!f->second.mediaSource.empty())
                reportLoss(
                    lossHere("generator", start,
                             detail() + ", synthetic media \"" + f->second.mediaSource + "\""),
                    true);
        }
    }
    if (places_.empty()) places_.push_back(place_);
    // `start` came from an int position: the item's or the walk's.
    PendingRef pending{cel, static_cast<int>(start), 0, static_cast<unsigned>(places_.size() - 1),
                       isVideo};
    // Element numbers stay below kNamed: every element takes three bytes
    // of a text of at most 2 GB.
    if (document_ && ip.sameIndex(*document_) && ip.element() < PendingRef::kNamed) {
        pending.item = ip.element();
    } else {
        pending.item = PendingRef::kNamed | static_cast<unsigned>(namedItems_.size());
        namedItems_.push_back({itemName, itemId});
    }
    pendingRefs_.push_back(pending);

    // Level keyframes, in the clip's source frames, placed on the sequence
    // as fractions of its length.
    for (const std::unique_ptr<XMLParser>& filter : ip.sections_TopLevel("filter")) {
        std::unique_ptr<XMLParser> effect = filter ? inside(*filter, "effect") : nullptr;
        if (!effect || !(leaf(*effect, "effectid") == "audiolevels")) continue;
        for (unsigned k = 0, keyframes = filter->count("keyframe"); k < keyframes; ++k) {
            std::unique_ptr<XMLParser> keyframe = inside(*filter, "keyframe", k);
            if (!keyframe) continue;
            long long when =
                truncateToInt32(fcp5read::fractionalTimeOf(*keyframe, "when", 0.0, check()));
            double value = doubleOf(*keyframe, "value", 1.0);
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

LightweightString<char> FCP5XMLReader::sharedReference(std::string_view text) {
    LightweightString<char>& slot =
        recentReferences_[std::hash<std::string_view>()(text) % recentReferences_.size()];
    if (slot.view() != text) slot = LightweightString<char>(text);
    return slot;
}

}  // namespace XML
