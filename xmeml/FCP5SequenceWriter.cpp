// The xmeml writer: sequences and their tracks.
//
// In the host, a transition is a cel of its own between the two clips it
// joins; in xmeml it overlaps them both. So the walk of a track carries a
// little state from cel to cel: a clip followed by a written transition runs
// on to the transition's end (and says "-1" for its end), and a clip after
// one reaches back to its start (and says "-1" for its start). Material that
// the shot does not have is cut off and left as a gap, with two warning
// lines naming the track and the timecode.
#include <cmath>
#include <cstdio>
#include <vector>

#include "host/Config.h"
#include "host/Edit.h"
#include "xmeml/FCP5Elements.h"
#include "xmeml/FCP5XMLWriter.h"

namespace XML {

using namespace fcp5;

namespace {

// Ticks of a second in Premiere's cut points.
constexpr double kTicksPerSecond = 254016000000.0;
// Linear gain of 5.99 dB, the loudest level when levels are limited.
constexpr double kGain599dB = 1.992966506164718;

bool isTransitionCel(const CED2Cell* cel) {
    return cel && cel->cookie.isMagic() && !cel->cookie.isBlack();
}

}  // namespace

bool FCP5XMLWriter::writeSequence(CED2List& sequences) {
    unsigned int counter = 1;
    for (CED2* seq : each<CED2>(sequences)) {
        if (seq->excludedFromExport) continue;

        AttribList attribs{makeAttrib("id", L"seq_" + seq->cookie.asWString())};
        EditPtr edit;
        edit.i_open(seq->cookie);
        if (edit) {
            const ShotVideoMetadata& vm = edit->getVideoMetadata();
            attribs.push_back(makeAttrib("MZ.Sequence.PreviewFrameSizeHeight",
                                         Qv::WStringFromInteger(vm.getHeight())));
            attribs.push_back(makeAttrib("MZ.Sequence.PreviewFrameSizeWidth",
                                         Qv::WStringFromInteger(vm.getWidth())));
        }

        xmlElement sequence(xmlFile, "sequence", attribs);
        leaf(xmlFile, "name", seq->get_editName());
        leaf(xmlFile, "duration", seqCelTimeToFrames(seq->get_editLength()));
        printSeqRateElement();
        EditLabel label = seq->get_primaryLabel();
        printTimecodeElement(&label, false, LightweightString<wchar_t>());
        writeMarkers(seq);
        if (seq->channels.isEmpty()) continue;

        xmlElement media(xmlFile, "media");
        {
            xmlElement video(xmlFile, "video");
            if (edit) {
                xmlElement format(xmlFile, "format");
                printSampleCharacteristics(edit->getVideoMetadata());
            }
            // Video tracks go out last channel first. The host leads the
            // channel list with its video channels.
            CChannel* first = seq->firstChannel();
            if (first && first->chanType == kChanVideo) {
                CChannel* second = static_cast<CChannel*>(first->getNext());
                bool secondIsVideo = second && second->chanType == kChanVideo;
                std::vector<CChannel*> byIndex;
                for (CChannel* ch : each<CChannel>(seq->channels))
                    byIndex.push_back(ch);
                for (int v = seq->GetNumVideoChannels(); v > 0; --v) {
                    CChannel* ch = byIndex[static_cast<std::size_t>(v - 1)];
                    // Never put a sound channel into the video tracks.
                    if (ch->chanType == kChanVideo &&
                        !printSeqTrack(ch, seq, counter, &label, true))
                        return false;
                    if (!secondIsVideo) break;
                }
            }
        }
        xmlElement audio(xmlFile, "audio");
        for (CChannel* ch : each<CChannel>(seq->channels)) {
            if (ch->chanType == kChanAudio && !printSeqTrack(ch, seq, counter, &label, false))
                return false;
        }
    }
    return true;
}

LightweightString<char> FCP5XMLWriter::timecodeAt(const EditLabel* label, double t) const {
    if (!label || !label->is_valid()) return {};
    return label->get_string(label->posn_to_sample(t));
}

void FCP5XMLWriter::printTransition(CED2Cell* cel, CChannel* channel, bool isVideo, int number,
                                    bool afterBlack) {
    xmlElement item(xmlFile, "transitionitem");
    leaf(xmlFile, "name", formatText("trans_%s_%d", channel->name.c_str(), number));
    printSeqRateElement();
    int startFrame = seqCelTimeToFrames(cel->editIn);
    int endFrame = seqCelTimeToFrames(cel->editOut);
    leaf(xmlFile, "start", startFrame);
    leaf(xmlFile, "end", endFrame);

    CED2Cell* next = cel->next();
    const char* alignment = "centre";
    if (afterBlack)
        alignment = "start_black";
    else if (next && next->cookie.isMagic())
        alignment = "end_black";
    leaf(xmlFile, "alignment", alignment);

    // The middle of the transition, in Premiere's ticks.
    double frames = static_cast<double>(endFrame) - static_cast<double>(startFrame);
    long ticks =
        truncateToInt64(0.5 * (frames / Qv::getFramesPerSecond(seqRate)) * kTicksPerSecond);
    char text[32];
    std::snprintf(text, sizeof text, "%ld", ticks);
    leaf(xmlFile, "cutPointTicks", text);

    xmlElement effect(xmlFile, "effect");
    const char* effectName = "Cross Fade";
    const char* mediaType = "audio";
    const char* category = "Cross Fade";
    bool wipe = false;
    if (isVideo) {
        mediaType = "video";
        wipe = cel->GetSMPTEWipeCode() >= 0;
        effectName = category = wipe ? "Wipe" : "Cross Dissolve";
        if (!wipe) category = "Dissolve";
    }
    leaf(xmlFile, "effecttype", "transition");
    leaf(xmlFile, "name", effectName);
    leaf(xmlFile, "mediatype", mediaType);
    leaf(xmlFile, "effectcategory", category);
    leaf(xmlFile, "effectid", effectName);
    leaf(xmlFile, "startratio", "0");
    leaf(xmlFile, "endratio", "1");
    if (wipe) leaf(xmlFile, "wipecode", cel->GetSMPTEWipeCode());
    leaf(xmlFile, "reverse", wipe && cel->GetWipeDirection() == eWipeReverse ? "TRUE" : "FALSE");
}

void FCP5XMLWriter::warnBadSegment(const char* what, const char* loss, CChannel* channel,
                                   const EditLabel* label, double t) {
    LightweightString<char> tc = timecodeAt(label, t);
    log.WarningOut("Badly defined segment - %s. Track <%s> timecode <%s>\n", what,
                   channel->name.c_str(), tc.c_str());
    log.WarningOut(" - Bad section replaced with black/silence\n");
    log.LossOut(lossAt("clip-shortened", channel->name, tc, loss));
}

void FCP5XMLWriter::printEffectHeader(const char* name, const char* id, const char* category,
                                      const char* type, const char* mediaType) {
    leaf(xmlFile, "name", name);
    leaf(xmlFile, "effectid", id);
    leaf(xmlFile, "effectcategory", category);
    leaf(xmlFile, "effecttype", type);
    leaf(xmlFile, "mediatype", mediaType);
}

void FCP5XMLWriter::printTimeRemap(float speed, bool still, bool reverse, bool isVideo) {
    double percent = still ? 0.1 : static_cast<double>(speed) * 100.0;
    if (reverse) percent = std::fabs(percent);
    // The value has a field of four characters: 100 percent and more does
    // not fit, and only the first four characters stand ("150." for 150).
    char value[64];
    std::snprintf(value, sizeof value, "%.1f", percent);
    value[4] = '\0';

    xmlElement filter(xmlFile, "filter");
    xmlElement effect(xmlFile, "effect");
    printEffectHeader("Time Remap", "timeremap", "motion", "motion", isVideo ? "video" : "audio");
    auto parameter = [&](const char* id, const char* text) {
        xmlElement element(xmlFile, "parameter");
        leaf(xmlFile, "parameterid", id);
        leaf(xmlFile, "name", id);
        leaf(xmlFile, "valuemin", "-100000");
        leaf(xmlFile, "valuemax", "100000");
        leaf(xmlFile, "value", text);
    };
    parameter("speed", value);
    if (reverse) parameter("reverse", "TRUE");
}

void FCP5XMLWriter::printAudioLevels(CChannel* channel, CED2* seq, double editIn, double editOut,
                                     double inValue, double rate) {
    bool limit = config_int("xml_export_limit_to_6dB", 0) != 0;
    bool clipped = false;
    double seqLength = seq->get_editLength();
    {
        xmlElement filter(xmlFile, "filter");
        xmlElement effect(xmlFile, "effect");
        printEffectHeader("Audio Levels", "audiolevels", "audiolevels", "audiolevels", "audio");
        xmlElement parameter(xmlFile, "parameter");
        leaf(xmlFile, "name", "Level");
        leaf(xmlFile, "parameterid", "level");
        for (CED2TrackLevel* level : each<CED2TrackLevel>(channel->levels)) {
            double t = level->position * seqLength;
            if (t < editIn || t > editOut) continue;
            xmlElement keyframe(xmlFile, "keyframe");
            leaf(xmlFile, "when", celTimeToFrames((t - editIn) + inValue, rate));
            double value = level->value;
            // A level of 0 is minus infinity in dB, which is never too loud.
            if (limit && 20.0 * std::log10(value) > 5.99) {
                value = kGain599dB;
                clipped = true;
            }
            char text[64];
            std::snprintf(text, sizeof text, "%.8f", value);
            leaf(xmlFile, "value", text);
        }
    }
    if (clipped) LogBoth("xml export - audio levels clipped to 6dB\n");
}

bool FCP5XMLWriter::printSeqTrack(CChannel* channel, CED2* seq, unsigned int& counter,
                                  EditLabel* label, bool isVideo) {
    xmlElement track(xmlFile, "track");

    bool transitionOpen = false;    // the cel before was a written transition
    double transitionLength = 0.0;  // its length
    bool afterBlack = false;        // the last stretch ended in black, real or by repair
    bool insufficient = false;      // the coming transition can't be made
    int transitionNumber = 1;

    CED2Cell* next = nullptr;
    for (CED2Cell* cel = channel->firstCel(); cel; cel = next) {
        next = cel->next();

        if (cel->cookie.isMagic()) {
            // A magic cel right after a written transition is skipped, whatever
            // it is: xmeml has no room for two transitions in a row.
            if (cel->cookie.isBlack() || transitionOpen) {
                afterBlack = true;
                transitionOpen = false;
                continue;
            }
            transitionLength = cel->editOut - cel->editIn;
            // The incoming clip needs material before its in-point for the
            // first half of the transition.
            if (next && !next->cookie.isMagic()) {
                int a = seqCelTimeToFrames(next->sourceIn);
                int b = seqCelTimeToFrames(static_cast<double>(next->speed) * transitionLength);
                if (static_cast<long>(a) - static_cast<long>(b) < 0) insufficient = true;
            }
            if (insufficient) {
                LightweightString<char> tc = timecodeAt(label, cel->editIn);
                log.WarningOut("Insufficient material for TRANSITION at track <%s> timecode <%s>\n",
                               channel->name.c_str(), tc.c_str());
                log.WarningOut(" - Transition has been replaced with black/silence\n");
                log.LossOut(lossAt("transition-removed", channel->name, tc,
                                   "not enough material on either side"));
                insufficient = false;
                afterBlack = true;
                continue;
            }
            printTransition(cel, channel, isVideo, transitionNumber, afterBlack);
            transitionOpen = true;
            afterBlack = false;
            ++transitionNumber;
            continue;
        }

        // A material cel.
        LightweightString<wchar_t> cookieText = editCookieText(cel->cookie);
        CED2ClipRefMapRec* rec = nullptr;
        if (!map_.findRef(cookieText, &rec)) {
            afterBlack = true;
            transitionOpen = false;
            continue;
        }
        CED2* shot = rec->ced2;
        LightweightString<wchar_t> ref = rec->getFileElementRef(cel->cookie.channel);

        bool still = std::fabs(static_cast<double>(cel->speed)) < 1e-6;
        double rate = still ? 0.0 : std::fabs(static_cast<double>(cel->speed));
        bool reverse = !still && cel->speed < 0;

        CED2* master = nullptr;
        LightweightString<wchar_t> masterText;
        double subStart = 0.0;
        bool defined = false;
        if (rec->isGhost) {
            // A sub-clip: its material is what its first cel plays.
            CED2Cell* masterCel = firstCelOf(shot);
            if (!masterCel || masterCel->cookie.isMagic()) {
                afterBlack = true;
                transitionOpen = false;
                continue;
            }
            masterText = editCookieText(masterCel->cookie);
            subStart = masterCel->sourceIn;
            CED2ClipRefMapRec* masterRec = nullptr;
            if (map_.findRef(masterText, &masterRec)) {
                master = masterRec->ced2;
                defined = masterRec->isChanFileDefined(masterCel->cookie.channel);
            }
        } else {
            master = shot;
            masterText = cookieText;
            defined = rec->isChanFileDefined(cel->cookie.channel);
        }
        afterBlack = true;  // cleared below unless the clip runs past its shot

        xmlElement clipitem(xmlFile, "clipitem",
                            idAttrib(L"clipitem-" + Qv::WStringFromInteger(counter)));
        ++counter;
        leaf(xmlFile, "name", shot->get_editName());

        // A transition next: the clip runs on to its end, if the shot has the
        // material for it.
        double nextLength = 0.0;
        bool extendTail = false;
        double length = shot->get_editLength();
        if (isTransitionCel(next)) {
            nextLength = next->editOut - next->editIn;
            double reach = (cel->editOut - cel->editIn + nextLength) * cel->speed + cel->sourceIn;
            int reachFrames = celTimeToFrames(reach, shot->rate);
            if (reachFrames < 0 || reachFrames > celTimeToFrames(length, shot->rate))
                insufficient = true;
            else
                extendTail = true;
        }

        // A still plays as though at a thousandth of normal speed.
        double playLength = still ? length / 0.001 : length / rate;
        leaf(xmlFile, "duration", celTimeToFrames(playLength, shot->rate));
        printRateElement(shot->rate);

        double editIn = cel->editIn;
        double editOut = cel->editOut;
        double offset = cel->sourceIn;
        if (transitionOpen) {
            editIn -= transitionLength;
            offset += reverse ? transitionLength * rate : -transitionLength * rate;
        }
        if (extendTail) editOut += nextLength;

        if (seqCelTimeToFrames(offset) < 0) {
            editIn = editIn - offset;
            warnBadSegment("starts before first frame of clip",
                           "started before the first frame of its media", channel, label,
                           cel->editIn);
            offset = 0.0;
        }

        double lastSource = offset;
        if (!still) lastSource += reverse ? -(editOut - editIn) * rate : (editOut - editIn) * rate;
        if (cookieCelTimeToFrames(lastSource, cel->cookie) >
            cookieCelTimeToFrames(length, cel->cookie)) {
            editOut = editOut - (lastSource - length);
            warnBadSegment("ends beyond last frame of clip", "ran past the last frame of its media",
                           channel, label, cel->editOut);
        } else {
            afterBlack = false;
        }

        double span = editOut - editIn;
        double inValue, outValue;
        if (still) {
            inValue = offset / 0.001;
            outValue = span / 0.001 + inValue;
        } else {
            inValue = offset / rate;
            if (reverse) inValue = playLength - inValue;
            outValue = span / rate + inValue;
        }
        leaf(xmlFile, "in", seqCelTimeToFrames(inValue));
        leaf(xmlFile, "out", seqCelTimeToFrames(outValue));
        if (transitionOpen)
            leaf(xmlFile, "start", "-1");
        else
            leaf(xmlFile, "start", seqCelTimeToFrames(editIn));
        if (extendTail)
            leaf(xmlFile, "end", "-1");
        else
            leaf(xmlFile, "end", seqCelTimeToFrames(editOut));

        leaf(xmlFile, "masterclipid", cookieText);
        if (rec->isGhost) {
            if (master) {
                double masterLength = master->get_editLength();
                printSubclipInfo(celTimeToFrames(subStart, master->rate),
                                 celTimeToFrames(masterLength - (subStart + length), master->rate));
            }
            leaf(xmlFile, "subclipmasterid", masterText);
        }

        if (!printFileElement(master, defined, ref, cel->cookie.channel, rec->isMxf)) return false;
        if (std::fabs(static_cast<double>(cel->speed) - 1.0) >= 1e-6)
            printTimeRemap(cel->speed, still, reverse, channel->chanType == kChanVideo);
        // Clip markers come with the first clip item of a file.
        if (!defined) writeMarkers(master);
        // For a sub-clip this marks its own record, not its master's: the
        // master's file is written in full at each of the sub-clip's items.
        map_.setDefined(cookieText, cel->cookie.channel);

        if (channel->chanType == kChanAudio && channel->hasTrackLevels &&
            !channel->levels.isEmpty())
            printAudioLevels(channel, seq, editIn, editOut, inValue,
                             master ? master->rate : shot->rate);

        {
            xmlElement sourcetrack(xmlFile, "sourcetrack");
            leaf(xmlFile, "mediatype", isVideo ? "video" : "audio");
            if (!isVideo) leaf(xmlFile, "trackindex", static_cast<int>(cel->cookie.channel));
        }
        transitionLength = 0.0;
        transitionOpen = false;
    }
    return true;
}

}  // namespace XML
