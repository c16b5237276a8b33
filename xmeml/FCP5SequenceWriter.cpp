// The xmeml writer: sequences and their tracks.
//
// In the host, a transition is a cel of its own between the two clips it
// joins; in xmeml it overlaps them both. So the walk of a track carries a
// little state from cel to cel: a clip followed by a written transition runs
// on to the transition's end (and says "-1" for its end), and a clip after
// one reaches back to its start (and says "-1" for its start). Material that
// the shot does not have is cut off and left as a gap, with two warning
// lines naming the track and the timecode.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
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

// What stands on either side of a transition: a clip with the material to
// run on into it, black or nothing, or a clip that lacks that material.
enum Side { kMaterial, kBlack, kLacking };

// The alignment by which other editors place a transition between `before`
// and `after`; null when it cannot be written beside what is there.
const char* alignmentFor(int before, int after) {
    if (before == kMaterial && after == kMaterial) return "center";
    if (before == kMaterial && after == kBlack) return "end-black";
    if (before == kBlack && after == kMaterial) return "start-black";
    return nullptr;
}

}  // namespace

bool FCP5XMLWriter::writeSequence(CED2List& sequences) {
    unsigned int counter = 1;
    for (CED2* seq : each<CED2>(sequences)) {
        if (seq->excludedFromExport) continue;
        if (!writeOneSequence(seq, counter)) return false;
    }
    return true;
}

bool FCP5XMLWriter::writeOneSequence(CED2* seq, unsigned int& counter) {
    std::string id = idText("seq_", seq->cookie.asWString());
    EditPtr edit;
    edit.i_open(seq->cookie);
    // The frame size of the sequence, when it has an edit to tell it.
    std::string height, width;
    if (edit) {
        const ShotVideoMetadata& vm = edit->getVideoMetadata();
        height = std::to_string(vm.getHeight());
        width = std::to_string(vm.getWidth());
    }
    const Attribute attribs[] = {{"id", id.c_str()},
                                 {"MZ.Sequence.PreviewFrameSizeHeight", height.c_str()},
                                 {"MZ.Sequence.PreviewFrameSizeWidth", width.c_str()}};
    xmlElement sequence(xmlFile, "sequence", std::span<const Attribute>(attribs, edit ? 3 : 1));
    leaf(xmlFile, "name", seq->get_editName());
    // Losses are placed in the sequence whose tracks are being written.
    LightweightString<char> outerName = sequenceName_;
    sequenceName_ = toUTF8(seq->get_editName());
    struct Restore {
        LightweightString<char>& name;
        LightweightString<char> value;
        ~Restore() { name = value; }
    } restore{sequenceName_, outerName};
    leaf(xmlFile, "duration", seqCelTimeToFrames(seq->get_editLength()));
    printSeqRateElement();
    EditLabel label = seq->get_primaryLabel();
    printTimecodeElement(&label, false, LightweightString<wchar_t>());
    // The original writer counted a sequence's markers at its true rate,
    // while every other position of it counts whole-number timebase frames.
    if (legacy)
        writeMarkers(seq);
    else
        writeMarkers(seq, static_cast<double>(Qv::getTicksPerSecond(seqRate)));
    if (seq->channels.isEmpty()) return true;

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
                if (ch->chanType == kChanVideo && !printSeqTrack(ch, seq, counter, &label, true))
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
    return true;
}

bool FCP5XMLWriter::printNestedSequence(CED2* seq, unsigned int& counter) {
    LightweightString<wchar_t> id = L"seq_" + seq->cookie.asWString();
    // Premiere and Final Cut Pro define a nested sequence once, in the first
    // clip item that uses it, and refer to it by its id after.
    if (sequencesWritten_.count(id)) {
        xmlInlineElement(xmlFile, "sequence", Attribute{"id", xmlFile.utf8(id)});
        return true;
    }
    sequencesWritten_.insert(id);
    sequencesOpen_.insert(id);
    // Its positions count frames of its own rate.
    Qv::FrameRate outer = seqRate;
    Qv::FrameRate own = seq->edit ? seq->edit->getFrameRate() : Qv::eFrameRateNone;
    if (Qv::isKnownFrameRate(own)) seqRate = own;
    bool ok = writeOneSequence(seq, counter);
    seqRate = outer;
    sequencesOpen_.erase(id);
    return ok;
}

LightweightString<char> FCP5XMLWriter::timecodeAt(const EditLabel* label, double t) const {
    if (!label || !label->is_valid()) return {};
    return label->get_string(label->posn_to_sample(t));
}

void FCP5XMLWriter::printTransition(CED2Cell* cel, CChannel* channel, bool isVideo, int number,
                                    const char* alignment) {
    xmlElement item(xmlFile, "transitionitem");
    leaf(xmlFile, "name", formatText("trans_%s_%d", channel->name.c_str(), number));
    printSeqRateElement();
    int startFrame = seqCelTimeToFrames(cel->editIn);
    int endFrame = seqCelTimeToFrames(cel->editOut);
    leaf(xmlFile, "start", startFrame);
    leaf(xmlFile, "end", endFrame);
    leaf(xmlFile, "alignment", alignment);

    // Where the cut lies in the transition, in Premiere's ticks: its middle;
    // Premiere puts it at the start of a transition from black and at the
    // end of one to black, where its readers look for it.
    double frames = static_cast<double>(endFrame) - static_cast<double>(startFrame);
    double share = 0.5;
    if (!legacy && std::strcmp(alignment, "start-black") == 0) share = 0.0;
    if (!legacy && std::strcmp(alignment, "end-black") == 0) share = 1.0;
    long ticks =
        truncateToInt64(share * (frames / Qv::getFramesPerSecond(seqRate)) * kTicksPerSecond);
    char text[32];
    std::snprintf(text, sizeof text, "%ld", ticks);
    leaf(xmlFile, "cutPointTicks", Plain{text});

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
    leaf(xmlFile, "effecttype", Plain{"transition"});
    leaf(xmlFile, "name", Plain{effectName});
    leaf(xmlFile, "mediatype", Plain{mediaType});
    leaf(xmlFile, "effectcategory", Plain{category});
    leaf(xmlFile, "effectid", Plain{effectName});
    leaf(xmlFile, "startratio", Plain{"0"});
    leaf(xmlFile, "endratio", Plain{"1"});
    if (wipe) leaf(xmlFile, "wipecode", cel->GetSMPTEWipeCode());
    leaf(xmlFile, "reverse",
         Plain{wipe && cel->GetWipeDirection() == eWipeReverse ? "TRUE" : "FALSE"});
}

LossRecord FCP5XMLWriter::lossHere(const char* kind, CChannel* channel,
                                   const LightweightString<char>& tc, double t,
                                   const char* detail) const {
    LossRecord r = lossAt(kind, channel->name, tc, detail);
    r.sequence = sequenceName_;
    r.frame = std::max(0, seqCelTimeToFrames(t));
    return r;
}

void FCP5XMLWriter::warnBadSegment(const char* what, const char* loss, CChannel* channel,
                                   const EditLabel* label, double t) {
    LightweightString<char> tc = timecodeAt(label, t);
    log.WarningOut("Badly defined segment - %s. Track <%s> timecode <%s>\n", what,
                   channel->name.c_str(), tc.c_str());
    log.WarningOut(" - Bad section replaced with black/silence\n");
    log.LossOut(lossHere("clip-shortened", channel, tc, t, loss));
}

void FCP5XMLWriter::printEffectHeader(const char* name, const char* id, const char* category,
                                      const char* type, const char* mediaType) {
    leaf(xmlFile, "name", Plain{name});
    leaf(xmlFile, "effectid", Plain{id});
    leaf(xmlFile, "effectcategory", Plain{category});
    leaf(xmlFile, "effecttype", Plain{type});
    leaf(xmlFile, "mediatype", Plain{mediaType});
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
        leaf(xmlFile, "parameterid", Plain{id});
        leaf(xmlFile, "name", Plain{id});
        leaf(xmlFile, "valuemin", Plain{"-100000"});
        leaf(xmlFile, "valuemax", Plain{"100000"});
        leaf(xmlFile, "value", Plain{text});
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
        leaf(xmlFile, "name", Plain{"Level"});
        leaf(xmlFile, "parameterid", Plain{"level"});
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
            // As printf's "%.8f" writes it, without parsing a format.
            char text[400];
            *std::to_chars(text, text + sizeof text - 1, value, std::chars_format::fixed, 8).ptr =
                '\0';
            leaf(xmlFile, "value", Plain{text});
        }
    }
    if (clipped) LogBoth("xml export - audio levels clipped to 6dB\n");
}

bool FCP5XMLWriter::resolveClip(CED2Cell* cel, ClipPlan& p) {
    p = ClipPlan();
    p.cookie = editCookie(cel->cookie);
    if (!map_.findRef(p.cookie, &p.rec)) return false;
    p.shot = p.rec->ced2;
    p.still = std::fabs(static_cast<double>(cel->speed)) < 1e-6;
    p.rate = p.still ? 0.0 : std::fabs(static_cast<double>(cel->speed));
    p.reverse = !p.still && cel->speed < 0;
    p.length = p.shot->get_editLength();
    // A still plays as though at a thousandth of normal speed.
    p.playLength = p.still ? p.length / 0.001 : p.length / p.rate;

    if (!p.rec->isGhost) {
        p.master = p.shot;
        p.masterCookie = p.cookie;
        p.masterRec = p.rec;
        p.defined = p.rec->isChanFileDefined(cel->cookie.channel);
        return true;
    }
    // The original writer played the first cel of a nested sequence as
    // though the sequence were a sub-clip; the clip item holds the sequence.
    if (!legacy && p.shot->edit && p.shot->edit->getLogType() != kLogTypeSubclip) {
        p.nested = true;
        // A sequence that holds itself has no end: it plays black there.
        return !sequencesOpen_.count(L"seq_" + p.shot->cookie.asWString());
    }
    // A sub-clip: its material is what its first cel plays.
    CED2Cell* masterCel = firstCelOf(p.shot);
    if (!masterCel || masterCel->cookie.isMagic()) return false;
    p.masterCookie = editCookie(masterCel->cookie);
    p.subStart = masterCel->sourceIn;
    CED2ClipRefMapRec* masterRec = nullptr;
    if (map_.findRef(p.masterCookie, &masterRec)) {
        // The original writer refused sub-clips of sub-clips; each one's
        // first cel leads on to the shot.
        for (int depth = 0; !legacy && masterRec->isGhost; ++depth) {
            CED2Cell* c = firstCelOf(masterRec->ced2);
            if (depth == 16 || !c || c->cookie.isMagic() ||
                (masterRec->ced2->edit && masterRec->ced2->edit->getLogType() != kLogTypeSubclip))
                return false;
            p.subStart += c->sourceIn;
            p.masterCookie = editCookie(c->cookie);
            if (!map_.findRef(p.masterCookie, &masterRec)) return false;
        }
        p.masterRec = masterRec;
        p.master = masterRec->ced2;
        p.defined = masterRec->isChanFileDefined(masterCel->cookie.channel);
    } else if (!legacy) {
        // A sub-clip of material that is not written plays nothing; the
        // original writer named a file it never defined.
        return false;
    }
    return true;
}

void FCP5XMLWriter::placeClip(CED2Cell* cel, ClipPlan& p, double headLength, double tailLength) {
    double editIn = cel->editIn;
    double editOut = cel->editOut + tailLength;
    double offset = cel->sourceIn;
    editIn -= headLength;
    offset += p.reverse ? headLength * p.rate : -headLength * p.rate;
    p.cutHead = p.cutTail = false;
    p.plays = true;
    double shotRate = p.shot->rate;

    if (!legacy && p.still) {
        // The original writer cut a still's clip by the distance of its
        // frame past the media's end; a frame that is not there is black.
        p.plays = seqCelTimeToFrames(offset) >= 0 &&
                  celTimeToFrames(offset, shotRate) <= celTimeToFrames(p.length, shotRate);
    } else if (!legacy && p.reverse) {
        // The original writer measured reverse play as though it ran
        // forwards; backwards it starts at `offset` and runs down to 0.
        if (offset > p.length) {
            editIn += (offset - p.length) / p.rate;
            offset = p.length;
            p.cutHead = true;
        }
        double lastSource = offset - (editOut - editIn) * p.rate;
        if (lastSource < 0) {
            editOut += lastSource / p.rate;
            p.cutTail = true;
        }
    } else {
        // The original writer moved a clip's ends by a distance in its
        // source, whatever its speed; the sequence's distance is that over
        // the speed.
        double perSecond = legacy ? 1.0 : p.rate;
        if (seqCelTimeToFrames(offset) < 0) {
            editIn = editIn - offset / perSecond;
            offset = 0.0;
            p.cutHead = true;
        }
        double lastSource = offset;
        if (!p.still)
            lastSource += p.reverse ? -(editOut - editIn) * p.rate : (editOut - editIn) * p.rate;
        if (celTimeToFrames(lastSource, shotRate) > celTimeToFrames(p.length, shotRate)) {
            editOut = editOut - (lastSource - p.length) / perSecond;
            p.cutTail = true;
        }
    }

    double span = editOut - editIn;
    if (p.still) {
        p.inValue = offset / 0.001;
        p.outValue = span / 0.001 + p.inValue;
    } else {
        p.inValue = offset / p.rate;
        if (p.reverse) p.inValue = p.playLength - p.inValue;
        p.outValue = span / p.rate + p.inValue;
    }
    p.editIn = editIn;
    p.editOut = editOut;
    p.offset = offset;
    // A clip cut to nothing, or to less than nothing, has no clip item.
    if (!legacy && seqCelTimeToFrames(editOut) <= seqCelTimeToFrames(editIn)) p.plays = false;
}

int FCP5XMLWriter::sideAfter(CED2Cell* transition) {
    CED2Cell* n = transition->next();
    // Only a clip that starts where the transition ends can reach back into
    // it; a stretch of nothing between them is black.
    if (!n || n->cookie.isMagic() ||
        seqCelTimeToFrames(n->editIn) != seqCelTimeToFrames(transition->editOut))
        return kBlack;
    double length = transition->editOut - transition->editIn;
    int a = seqCelTimeToFrames(n->sourceIn);
    int b = seqCelTimeToFrames(static_cast<double>(n->speed) * length);
    if (static_cast<long>(a) - static_cast<long>(b) < 0) return kLacking;
    ClipPlan plan;
    if (!resolveClip(n, plan)) return kBlack;
    placeClip(n, plan, length, 0.0);
    return plan.plays ? kMaterial : kBlack;
}

bool FCP5XMLWriter::printSeqTrack(CChannel* channel, CED2* seq, unsigned int& counter,
                                  EditLabel* label, bool isVideo) {
    xmlElement track(xmlFile, "track");

    bool transitionOpen = false;    // the cel before was a written transition
    double transitionLength = 0.0;  // its length
    bool afterBlack = false;        // the last stretch ended in black, real or by repair
    bool insufficient = false;      // the coming transition can't be made
    int transitionNumber = 1;
    // The alignment that the clip before a transition settled for it, null
    // when it is not to be written; only while `settled`.
    bool settled = false;
    const char* settledAlignment = nullptr;

    CED2Cell* next = nullptr;
    for (CED2Cell* cel = channel->firstCel(); cel; cel = next) {
        next = cel->next();

        if (cel->cookie.isMagic()) {
            // A magic cel right after a written transition is skipped, whatever
            // it is: xmeml has no room for two transitions in a row.
            if (cel->cookie.isBlack() || transitionOpen) {
                // The original writer passed over the second transition
                // without a word.
                if (!cel->cookie.isBlack() && !legacy) {
                    LightweightString<char> tc = timecodeAt(label, cel->editIn);
                    log.WarningOut("TRANSITION at track <%s> timecode <%s> follows another\n",
                                   channel->name.c_str(), tc.c_str());
                    log.WarningOut(" - xmeml has no room for it: it is black\n");
                    log.LossOut(lossHere("transition-as-gap", channel, tc, cel->editIn,
                                         "a transition right after another"));
                }
                afterBlack = true;
                transitionOpen = false;
                settled = false;
                continue;
            }
            transitionLength = cel->editOut - cel->editIn;
            // The incoming clip needs material before its in-point for the
            // first half of the transition.
            // A clip after a stretch of black reaches back into nothing.
            bool nextAdjoins = legacy || (next && seqCelTimeToFrames(next->editIn) ==
                                                      seqCelTimeToFrames(cel->editOut));
            if (next && !next->cookie.isMagic() && nextAdjoins) {
                int a = seqCelTimeToFrames(next->sourceIn);
                int b = seqCelTimeToFrames(static_cast<double>(next->speed) * transitionLength);
                if (static_cast<long>(a) - static_cast<long>(b) < 0) insufficient = true;
            }
            const char* alignment;
            if (legacy) {
                // The original spellings, which no other editor reads: they
                // take an unknown alignment as centred.
                alignment = "centre";
                if (afterBlack)
                    alignment = "start_black";
                else if (next && next->cookie.isMagic())
                    alignment = "end_black";
            } else {
                // A reader places a transition by what its alignment says
                // stands beside it; it is written only where that is there.
                alignment = settled ? settledAlignment : alignmentFor(kBlack, sideAfter(cel));
            }
            settled = false;
            if (insufficient) {
                LightweightString<char> tc = timecodeAt(label, cel->editIn);
                log.WarningOut("Insufficient material for TRANSITION at track <%s> timecode <%s>\n",
                               channel->name.c_str(), tc.c_str());
                log.WarningOut(" - Transition has been replaced with black/silence\n");
                log.LossOut(lossHere("transition-removed", channel, tc, cel->editIn,
                                     "not enough material on either side"));
                insufficient = false;
                afterBlack = true;
                continue;
            }
            if (!alignment) {
                LightweightString<char> tc = timecodeAt(label, cel->editIn);
                log.WarningOut("TRANSITION at track <%s> timecode <%s> joins no clip\n",
                               channel->name.c_str(), tc.c_str());
                log.WarningOut(" - It is left out\n");
                log.LossOut(lossHere("transition-dropped", channel, tc, cel->editIn,
                                     "black or nothing on either side"));
                afterBlack = true;
                continue;
            }
            printTransition(cel, channel, isVideo, transitionNumber, alignment);
            // Nothing after a fade to black reaches back into it.
            transitionOpen = legacy || std::strcmp(alignment, "end-black") != 0;
            afterBlack = false;
            ++transitionNumber;
            continue;
        }

        // A material cel.
        ClipPlan plan;
        bool found = resolveClip(cel, plan);
        if (!found) {
            if (plan.nested) {
                LightweightString<char> tc = timecodeAt(label, cel->editIn);
                log.WarningOut("\"%s\" holds itself. Track <%s> timecode <%s>\n",
                               toUTF8(plan.shot->get_editName()).c_str(), channel->name.c_str(),
                               tc.c_str());
                log.WarningOut(" - It is replaced with black/silence\n");
                log.LossOut(lossHere("clip-as-black", channel, tc, cel->editIn,
                                     "a sequence that holds itself"));
            }
            afterBlack = true;
            transitionOpen = false;
            settled = false;
            continue;
        }
        CED2* shot = plan.shot;
        afterBlack = true;  // cleared below unless the clip runs past its shot

        double head = transitionOpen ? transitionLength : 0.0;
        placeClip(cel, plan, head, 0.0);
        if (!plan.plays) {
            LightweightString<char> tc = timecodeAt(label, cel->editIn);
            log.WarningOut(
                "Badly defined segment - none of it lies within its clip. Track <%s> "
                "timecode <%s>\n",
                channel->name.c_str(), tc.c_str());
            log.WarningOut(" - Bad section replaced with black/silence\n");
            log.LossOut(lossHere("clip-as-black", channel, tc, cel->editIn,
                                 "plays none of its media; written as black"));
            transitionOpen = false;
            settled = false;
            continue;
        }

        // A transition next: the clip runs on to its end, if the shot has the
        // material for it.
        double nextLength = 0.0;
        bool extendTail = false;
        // A transition that starts later than the clip ends stands after
        // black; the original writer ran the clip on into it over the gap.
        bool adjoins = legacy || (isTransitionCel(next) && seqCelTimeToFrames(next->editIn) ==
                                                               seqCelTimeToFrames(cel->editOut));
        if (isTransitionCel(next) && adjoins) {
            nextLength = next->editOut - next->editIn;
            bool reaches;
            if (legacy) {
                double reach =
                    (cel->editOut - cel->editIn + nextLength) * cel->speed + cel->sourceIn;
                int reachFrames = celTimeToFrames(reach, shot->rate);
                reaches =
                    !(reachFrames < 0 || reachFrames > celTimeToFrames(plan.length, shot->rate));
            } else {
                // Measured from where the clip really starts once its head is
                // repaired; the original writer measured from the cel's own
                // in-point and could leave an open end before black.
                ClipPlan extended = plan;
                placeClip(cel, extended, head, nextLength);
                reaches = extended.plays && !extended.cutTail;
            }
            if (!reaches) insufficient = true;
            if (legacy) {
                extendTail = reaches;
            } else {
                // Settle the transition's alignment now, so that this clip
                // runs on into it only when it is written.
                settledAlignment = alignmentFor(reaches ? kMaterial : kLacking, sideAfter(next));
                settled = true;
                extendTail = settledAlignment != nullptr;
            }
        }
        if (extendTail) placeClip(cel, plan, head, nextLength);
        if (plan.cutHead)
            warnBadSegment("starts before first frame of clip",
                           "started before the first frame of its media", channel, label,
                           cel->editIn);
        if (plan.cutTail)
            warnBadSegment("ends beyond last frame of clip", "ran past the last frame of its media",
                           channel, label, cel->editOut);
        else
            afterBlack = false;

        xmlElement clipitem(xmlFile, "clipitem",
                            Attribute{"id", idText("clipitem-", counter).c_str()});
        ++counter;
        leaf(xmlFile, "name", plan.rec->nameUtf8.c_str());
        if (legacy) {
            // The original writer gave a clip item its media's rate, while
            // its in and out count frames of the sequence.
            leaf(xmlFile, "duration", celTimeToFrames(plan.playLength, shot->rate));
            printRateElement(shot->rate);
        } else {
            leaf(xmlFile, "duration", seqCelTimeToFrames(plan.playLength));
            printSeqRateElement();
        }
        leaf(xmlFile, "in", seqCelTimeToFrames(plan.inValue));
        leaf(xmlFile, "out", seqCelTimeToFrames(plan.outValue));
        if (transitionOpen)
            leaf(xmlFile, "start", Plain{"-1"});
        else
            leaf(xmlFile, "start", seqCelTimeToFrames(plan.editIn));
        if (extendTail)
            leaf(xmlFile, "end", Plain{"-1"});
        else
            leaf(xmlFile, "end", seqCelTimeToFrames(plan.editOut));

        if (plan.nested) {
            if (!printNestedSequence(shot, counter)) return false;
        } else {
            leaf(xmlFile, "masterclipid", plan.rec->refUtf8.c_str());
            CED2* master = plan.master;
            if (plan.rec->isGhost) {
                if (master) {
                    double masterLength = master->get_editLength();
                    printSubclipInfo(celTimeToFrames(plan.subStart, master->rate),
                                     celTimeToFrames(masterLength - (plan.subStart + plan.length),
                                                     master->rate));
                }
                leaf(xmlFile, "subclipmasterid", masterText(plan));
            }
            // The original writer named a sub-clip's file by the sub-clip, so
            // that each of its clip items repeated the file in full.
            const CED2ClipRefMapRec* named = legacy ? plan.rec : plan.masterRec;
            if (named) {
                if (!printFileElement(master, plan.defined, named->fileId)) return false;
            } else {
                LightweightString<wchar_t> ref = masterText(plan) + L"_0";
                if (!printFileElement(master, plan.defined, ref)) return false;
            }
        }
        if (std::fabs(static_cast<double>(cel->speed) - 1.0) >= 1e-6)
            printTimeRemap(cel->speed, plan.still, plan.reverse, channel->chanType == kChanVideo);
        if (!plan.nested) {
            // Clip markers come with the first clip item of a file.
            if (!plan.defined) {
                if (legacy)
                    writeMarkers(plan.master);
                else
                    writeMarkers(plan.master, static_cast<double>(Qv::getTicksPerSecond(seqRate)));
            }
            // For a sub-clip the original writer marks its own record, not its
            // master's: the master's file is written in full at each of its
            // items.
            map_.setDefined(legacy ? plan.cookie : plan.masterCookie, cel->cookie.channel);
        }

        if (channel->chanType == kChanAudio && channel->hasTrackLevels &&
            !channel->levels.isEmpty())
            printAudioLevels(channel, seq, plan.editIn, plan.editOut, plan.inValue,
                             plan.master ? plan.master->rate : shot->rate);

        {
            xmlElement sourcetrack(xmlFile, "sourcetrack");
            leaf(xmlFile, "mediatype", Plain{isVideo ? "video" : "audio"});
            if (!isVideo) leaf(xmlFile, "trackindex", static_cast<int>(cel->cookie.channel));
        }
        transitionLength = 0.0;
        transitionOpen = false;
    }
    return true;
}

}  // namespace XML
