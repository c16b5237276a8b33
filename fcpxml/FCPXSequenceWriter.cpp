// The fcpxml writer: sequences.
//
// In the host, a transition is a cel of its own between the two cels it
// joins. In fcpxml it sits between its neighbours, which reach half its
// length into it from either side: the item before a transition runs on by
// half of it (if the sequence is long enough for that), and the item after
// starts half of it earlier and grows by the whole. Every video channel
// writes into the one spine; the audio channels become connected storylines
// below the spine's first item. Material that a clip's asset does not have is
// replaced with gaps and reported in two warning lines.
#include <cmath>
#include <cstdio>

#include "fcpxml/FCPXXMLWriter.h"
#include "host/Config.h"
#include "host/Edit.h"

namespace XML {

namespace {

// The attribute strings of these two are handed to the output layer as they
// stand, and come out as its attribute reader takes them: the first as an
// attribute called "name " whose value is empty, the second as srcCh="1, 2"
// alone.
const wchar_t kGapName[] = L"name = \"Gap\"";
const wchar_t kAudioSourceChannels[] = L"srcCh=\"1, 2\" outCh =\"L, R\"";

bool isBlackCel(const CED2Cell* cel) {
    return cel && cel->cookie.isMagic() && cel->cookie.isBlack();
}
bool isTransitionCel(const CED2Cell* cel) {
    return cel && cel->cookie.isMagic() && !cel->cookie.isBlack();
}

LightweightString<wchar_t> integerText(long value) {
    return Qv::WStringFromInteger(value);
}

}  // namespace

bool FCPXXMLWriter::writeSequence(CED2List& sequences) {
    if (!legacy) {
        // Every time a whole number of frames, storylines end to end and
        // nested sequences as compound clips, as Final Cut Pro X reads them;
        // the original writer placed items at hundredths of a frame.
        registerDeepSubclips();
        for (CED2* seq : each<CED2>(sequences))
            if (!seq->excludedFromExport) registerNested(seq);
        writeFrameResources();
        xmlElement library(xmlFile, "library");
        xmlElement event(xmlFile, "event", AttribList{makeAttrib("name", L"Event01")});
        listAssetClips();
        xmlElement project(xmlFile, "project", AttribList{makeAttrib("name", L"Project01")});
        for (CED2* seq : each<CED2>(sequences))
            if (!seq->excludedFromExport) writeFrameSequence(seq, sequenceFormats_[seq]);
        return true;
    }
    xmlElement library(xmlFile, "library");
    xmlElement event(xmlFile, "event", AttribList{makeAttrib("name", L"Event01")});
    listAssetClips();
    xmlElement project(xmlFile, "project", AttribList{makeAttrib("name", L"Project01")});
    LightweightString<wchar_t> formatId;
    formatMap.findRef(videoMetadata, formatId);
    for (CED2* seq : each<CED2>(sequences))
        if (!seq->excludedFromExport) writeOneSequence(seq, formatId);
    return true;
}

void FCPXXMLWriter::writeOneSequence(CED2* seq, const LightweightString<wchar_t>& formatId) {
    SequenceWalk walk;
    walk.sequence = seq;
    walk.length = seq->get_editLength();
    walk.label = seq->get_primaryLabel();
    bool labelled = walk.label.is_valid();
    walk.tcStart = labelled ? walk.label.get_abs_posn(0) : 0.0;
    for (std::size_t i = 0; i < seq->cues.size(); ++i)
        walk.cues.add(seq->cues[i].in, i);
    walk.cues.seal();

    // Each audio channel is read once, by whichever item first carries the
    // sequence's audio.
    audioIterators.clear();
    for (CChannel* ch : each<CChannel>(seq->channels)) {
        if (ch->chanType != kChanAudio) continue;
        audioIterators.emplace_back(ch->cels);
        walk.audio.push_back(ch);
        walk.levels.emplace_back();
        walk.levelTimes.emplace_back();
        if (!ch->hasTrackLevels) continue;
        for (CED2TrackLevel* level : each<CED2TrackLevel>(ch->levels)) {
            walk.levelTimes.back().add(level->position * walk.length, walk.levels.back().size());
            walk.levels.back().push_back(level);
        }
        walk.levelTimes.back().seal();
    }
    walk_ = &walk;

    {
        xmlElement sequence(
            xmlFile, "sequence",
            AttribList{makeAttrib("format", formatId),
                       makeAttrib("duration", timeToFCPRational(walk.length, seqRate)),
                       makeAttrib("tcFormat", L"NDF"),
                       makeAttrib("tcStart", labelled ? timeToFCPRational(walk.tcStart, seqRate)
                                                      : LightweightString<wchar_t>(L"0/1s"))});
        xmlElement spine(xmlFile, "spine");
        int laneIndex = 0;
        for (CChannel* ch : each<CChannel>(seq->channels)) {
            if (ch->chanType != kChanVideo) continue;
            walkVideoChannel(ch, laneIndex, laneIndex == 0);
            ++laneIndex;
        }
    }
    audioIterators.clear();
    walk_ = nullptr;
}

void FCPXXMLWriter::warnMaterial(bool transition, CChannel* channel, double t) {
    LightweightString<char> tc;
    if (walk_->label.is_valid()) tc = walk_->label.get_string(walk_->label.posn_to_sample(t));
    if (transition) {
        log.WarningOut("Insufficient material for TRANSITION at track <%s> timecode <%s>\n",
                       channel->name.c_str(), tc.c_str());
        log.WarningOut(" - Transition has been replaced with black/silence\n");
        log.LossOut(
            lossAt("transition-removed", channel->name, tc, "not enough material on either side"));
    } else {
        log.WarningOut("Insufficient source material at track <%s> timecode <%s>\n",
                       channel->name.c_str(), tc.c_str());
        log.WarningOut(" - A black/silent segment has been added\n");
        log.LossOut(lossAt("gap-added", channel->name, tc, "the clip's media is too short"));
    }
}

void FCPXXMLWriter::extendTail(CED2Cell* cel, CED2Cell* next, double source, double& length,
                               double& itemOut) const {
    double nextHalf = 0.5 * (next->editOut - next->editIn);
    double reach = length + source + nextHalf;
    // Measured against the sequence, not the shot.
    if (cookieCelTimeToFrames(reach, cel->cookie) >
        cookieCelTimeToFrames(walk_->length, cel->cookie))
        return;
    itemOut += nextHalf;
    length += nextHalf;
}

void FCPXXMLWriter::writeTransition(CED2Cell* cel, CChannel* channel, int number) {
    LightweightString<char> name = formatText("trans_%s_%d", channel->name.c_str(), number);
    xmlElement transition(
        xmlFile, "transition",
        AttribList{makeAttrib("offset", timeToFCPRational(walk_->tcStart + cel->editIn, seqRate)),
                   makeAttrib("name", fromUTF8(name)),
                   makeAttrib("duration", timeToFCPRational(cel->editOut - cel->editIn, seqRate))});
    // Every wipe is the one wipe effect; its pattern and direction are lost.
    bool wipe = cel->GetSMPTEWipeCode() >= 0;
    xmlInlineElement(xmlFile, "filter-video",
                     AttribList{makeAttrib("ref", wipe ? L"fx2" : L"fx1"),
                                makeAttrib("name", wipe ? L"Wipe" : L"Cross Dissolve")});
}

void FCPXXMLWriter::walkVideoChannel(CChannel* channel, int laneIndex, bool atHead) {
    CED2* seq = walk_->sequence;
    const double tcStart = walk_->tcStart;
    const int lane = -laneIndex;
    double prevLength = 0.0;       // the written transition just before, else 0
    bool afterTransition = false;  // the cel before was a written transition
    int transitionNumber = 1;

    for (CED2Cell* cel = channel->firstCel(); cel; cel = cel->next()) {
        CED2Cell* next = cel->next();
        double half = 0.5 * prevLength;
        double itemIn = cel->editIn - half;
        double itemOut = cel->editOut;
        double length = cel->editOut - itemIn + half;
        double source = cel->sourceIn - half;
        // Only items at the very start of the sequence carry its audio.
        atHead = atHead && std::fabs(itemIn) < 1e-6;

        if (isBlackCel(cel)) {
            if (isTransitionCel(next)) extendTail(cel, next, source, length, itemOut);
            appendGapElement(seq, itemIn, length, tcStart, lane, atHead);
            prevLength = 0.0;
            afterTransition = false;
            continue;
        }

        if (isTransitionCel(cel)) {
            // fcpxml has no room for two transitions in a row: the second
            // becomes a gap.
            if (afterTransition) {
                appendGapElement(seq, itemIn, length, tcStart, lane, atHead);
                prevLength = 0.0;
                afterTransition = false;
                continue;
            }
            // The incoming clip needs material before its in-point for the
            // first half of the transition (counted in whole seconds).
            if (next && !next->cookie.isMagic()) {
                double x = next->sourceIn - 0.5 * (cel->editOut - cel->editIn);
                if (cookieCelTimeToFrames(x, next->cookie) < 0) {
                    appendGapElement(seq, itemIn, length, tcStart, lane, atHead);
                    warnMaterial(true, channel, cel->editIn);
                    prevLength = 0.0;
                    afterTransition = false;
                    continue;
                }
            }
            writeTransition(cel, channel, transitionNumber);
            prevLength = cel->editOut - cel->editIn;
            afterTransition = true;
            ++transitionNumber;
            continue;
        }

        // A material cel.
        if (isTransitionCel(next)) extendTail(cel, next, source, length, itemOut);
        LightweightString<wchar_t> assetId;
        double offset = 0.0;
        double rate = 1.0;
        if (!cookieMap.findRef(convertCookie(cel->cookie, kCookieEdit, 255), cel->cookie.channel,
                               assetId, offset, rate)) {
            // Material that is not among the shots leaves a gap.
            appendGapElement(seq, itemIn, length, tcStart, lane, atHead);
            prevLength = 0.0;
            afterTransition = false;
            continue;
        }
        const AssetRefMap::AssetRefMapRec* asset = assetMap.find(assetId);
        double assetStart = asset ? asset->startTime : 0.0;
        double assetLength = asset ? asset->durationTime : 0.0;
        source += offset;

        // The clip starts before its material: black until the material
        // begins.
        if (celTimeToFrames(source, rate) < 0) {
            appendGapElement(seq, itemIn, -source, tcStart, lane, atHead);
            length += source;
            itemIn -= source;
            source = 0.0;
            warnMaterial(false, channel, itemIn);
        }
        // It runs past the end of its material: cut short, black after.
        double end = length + source;
        double excess = 0.0;
        bool overruns = celTimeToFrames(end, rate) > celTimeToFrames(assetLength, rate);
        if (overruns) {
            excess = end - assetLength;
            length -= excess;
            itemOut -= excess;
        }

        {
            xmlElement clip(
                xmlFile, "clip",
                AttribList{
                    makeAttrib("lane", integerText(lane)), makeAttrib("enabled", L"1"),
                    makeAttrib("duration", timeToFCPRational(length, seqRate)),
                    makeAttrib("offset", timeToFCPRational(tcStart + itemIn, seqRate)),
                    makeAttrib("start", timeToFCPRationalDouble(source + assetStart, rate))});
            xmlInlineElement(
                xmlFile, "video",
                AttribList{
                    makeAttrib("start", timeToFCPRationalDouble(assetStart, rate)),
                    makeAttrib("ref", assetId),
                    makeAttrib("duration", asset ? asset->duration : LightweightString<wchar_t>()),
                    makeAttrib("offset", timeToFCPRationalDouble(assetStart, rate))});
            if (atHead) appendAnchoredAudioEvents(seq, source + assetStart, itemIn, itemOut);
            // The sequence's markers land in the clip they fall on.
            writeSequenceMarkers(assetStart, itemIn, itemOut);
        }
        if (overruns) {
            double gapStart = itemIn + length;
            appendGapElement(seq, gapStart, excess, tcStart, lane, atHead);
            warnMaterial(false, channel, gapStart);
        }
        prevLength = 0.0;
        afterTransition = false;
    }
}

void FCPXXMLWriter::appendGapElement(CED2* sequence, double start, double length, double tcStart,
                                     int, bool atHead) {
    xmlElement gap(xmlFile, "gap",
                   AttribList{kGapName, makeAttrib("duration", timeToFCPRational(length, seqRate)),
                              makeAttrib("offset", timeToFCPRational(tcStart + start, seqRate)),
                              makeAttrib("start", timeToFCPRational(0.0, seqRate))});
    if (atHead) appendAnchoredAudioEvents(sequence, 0.0, start, start + length);
    if (walk_)
        writeSequenceMarkers(0.0, start, start + length);
    else
        writeMarkers(sequence->cues, 0.0, start, start + length);
}

// ---- Connected audio ----

bool FCPXXMLWriter::appendAnchoredAudioEvents(CED2* sequence, double anchor, double rangeStart,
                                              double) {
    int lane = 0;
    std::size_t audioIndex = 0;
    for (CChannel* ch : each<CChannel>(sequence->channels)) {
        if (ch->chanType != kChanAudio) continue;
        --lane;
        xmlElement spine(xmlFile, "spine",
                         AttribList{makeAttrib("lane", integerText(lane)),
                                    makeAttrib("offset", timeToFCPRational(anchor, seqRate))});
        if (walk_ && audioIndex < audioIterators.size())
            walkAudioChannel(audioIndex, anchor, rangeStart);
        ++audioIndex;
    }
    return true;
}

void FCPXXMLWriter::walkAudioChannel(std::size_t audioIndex, double anchor, double rangeStart) {
    DLListIterator<CED2Cell>& it = audioIterators[audioIndex];
    double prevLength = 0.0;
    bool afterTransition = false;
    for (; it; ++it) {
        CED2Cell* cel = it.current();
        CED2Cell* next = cel->next();
        double cellIn = cel->editIn;
        double cellOut = cel->editOut;
        double length = cellOut - cellIn;
        double source = cel->sourceIn;

        if (isBlackCel(cel)) {
            // Silence is a hole in the storyline.
            prevLength = 0.0;
            afterTransition = false;
            continue;
        }
        if (isTransitionCel(cel)) {
            xmlElement transition(
                xmlFile, "transition",
                AttribList{
                    makeAttrib("offset", timeToFCPRational(cellIn - rangeStart + anchor, seqRate)),
                    makeAttrib("name", L"crossfade"),
                    makeAttrib("duration", timeToFCPRational(length, seqRate))});
            xmlInlineElement(
                xmlFile, "filter-audio",
                AttribList{makeAttrib("ref", L"fx3"), makeAttrib("name", L"Cross Fade")});
            prevLength = length;
            afterTransition = true;
            continue;
        }

        // A material cel: it reaches into the transitions on either side.
        if (afterTransition) {
            double half = 0.5 * prevLength;
            cellIn -= half;
            length += half;
            source -= half;
        }
        if (isTransitionCel(next)) {
            double nextHalf = 0.5 * (next->editOut - next->editIn);
            cellOut += nextHalf;
            length += nextHalf;
        }
        prevLength = 0.0;
        afterTransition = false;

        LightweightString<wchar_t> assetId;
        double offset = 0.0;
        double rate = 1.0;
        if (!cookieMap.findRef(convertCookie(cel->cookie, kCookieEdit, 255), cel->cookie.channel,
                               assetId, offset, rate))
            continue;
        const AssetRefMap::AssetRefMapRec* asset = assetMap.find(assetId);
        if (!asset) continue;

        double sourceStart = offset + source;
        xmlElement clip(
            xmlFile, "clip",
            AttribList{
                makeAttrib("name", asset->name),
                makeAttrib("duration", timeToFCPRational(length, seqRate)),
                makeAttrib("offset", timeToFCPRational(cellIn - rangeStart, seqRate)),
                makeAttrib("start", timeToFCPRational(sourceStart + asset->startTime, asset->rate)),
                makeAttrib("enabled", L"1")});
        xmlInlineElement(xmlFile, "audio",
                         AttribList{makeAttrib("start", asset->start), makeAttrib("ref", asset->id),
                                    makeAttrib("duration", asset->duration),
                                    makeAttrib("offset", asset->start)});
        CChannel* channel = walk_->audio[audioIndex];
        if (channel->hasTrackLevels && !channel->levels.isEmpty())
            writeAudioLevels(audioIndex, cellIn, cellOut, sourceStart, *asset);
    }
}

void FCPXXMLWriter::writeAudioLevels(std::size_t audioIndex, double cellIn, double cellOut,
                                     double sourceStart, const AssetRefMap::AssetRefMapRec& asset) {
    std::vector<std::size_t> counted;
    walk_->levelTimes[audioIndex].find(cellIn - 0.001, cellOut - 0.001, counted);
    if (counted.empty()) return;

    bool limit = config_int("xml_export_limit_to_6dB", 0) != 0;
    xmlElement source(xmlFile, "audio-source", AttribList{kAudioSourceChannels});
    xmlElement volume(xmlFile, "adjust-volume");
    xmlElement param(xmlFile, "param", AttribList{makeAttrib("name", L"amount")});
    xmlElement animation(xmlFile, "keyframeAnimation");
    for (std::size_t i : counted) {
        const CED2TrackLevel* level = walk_->levels[audioIndex][i];
        double t = level->position * walk_->length;
        // Whole decibels, cut toward zero; silence is minus infinity, which
        // comes out as the smallest whole number.
        float dB = 20.0f * std::log10(level->value);
        int whole = limit && dB > 6.0f ? 6 : truncateToInt32(dB);
        char value[20];
        std::snprintf(value, sizeof value, "%ddB", whole);
        xmlInlineElement(xmlFile, "keyframe",
                         AttribList{makeAttrib("time", timeToFCPRational(t - cellIn + sourceStart +
                                                                             asset.startTime,
                                                                         asset.rate)),
                                    makeAttrib("value", Qv::WStringFromAscii(value))});
    }
}

}  // namespace XML
