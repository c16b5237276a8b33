// The xmeml writer: registration of shots, and the elements that sequences,
// tracks and groups are made of: rate, timecode, file and marker. Also the
// document of a shot or sub-clip exported alone.
#include "xmeml/FCP5XMLWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "host/Edit.h"
#include "host/Paths.h"
#include "xmeml/FCP5Elements.h"

namespace XML {

using namespace fcp5;

namespace {

// A whole number printed "%d" into a field of `width` characters: what does
// not fit is cut off.
LightweightString<char> boundedInt(int value, std::size_t width) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    if (width < sizeof text) text[width] = '\0';
    return LightweightString<char>(text);
}

}  // namespace

bool FCP5XMLWriter::writeHeader() {
    xmlFile.printer.PushUnknown("DOCTYPE xmeml");
    xmlFile.printer.OpenElement("xmeml", false);
    xmlFile.printer.PushAttribute("version", 5);
    return true;
}

bool FCP5XMLWriter::writeAllShots(CED2List& shots, CED2List&) {
    for (CED2* shot : each<CED2>(shots))
        if (!map_.findRef(shot->cookie, nullptr)) map_.addRef(shot->cookie, shot, false);
    return true;
}

bool FCP5XMLWriter::writeGhosts(CED2List& ghosts) {
    for (CED2* ghost : each<CED2>(ghosts))
        if (!map_.findRef(ghost->cookie, nullptr)) map_.addRef(ghost->cookie, ghost, true);
    return true;
}

void FCP5XMLWriter::printRateElement(double rate) {
    xmlElement r(xmlFile, "rate");
    if (!legacy) {
        // The original writer knew no 1000/1001 rates here: 29.97 became
        // timebase 29, ntsc FALSE. Readers know 29.97 only as 30 with ntsc.
        Qv::FrameRate known = Qv::getEquivalentQvFrameRate(rate);
        if (!Qv::isKnownFrameRate(known) && !(rate >= 1 && rate < 1000)) known = seqRate;
        bool ntsc = Qv::isKnownFrameRate(known) && Qv::has1001Factor(known);
        leaf(xmlFile, "ntsc", Plain{ntsc ? "TRUE" : "FALSE"});
        leaf(xmlFile, "timebase",
             Qv::isKnownFrameRate(known) ? static_cast<int>(Qv::getTicksPerSecond(known))
                                         : static_cast<int>(std::lround(rate)));
        return;
    }
    leaf(xmlFile, "ntsc", Plain{"FALSE"});
    leaf(xmlFile, "timebase", truncateToInt32(rate));
}

void FCP5XMLWriter::printSeqRateElement() {
    xmlElement r(xmlFile, "rate");
    leaf(xmlFile, "ntsc", Plain{Qv::has1001Factor(seqRate) ? "TRUE" : "FALSE"});
    leaf(xmlFile, "timebase", static_cast<int>(Qv::getTicksPerSecond(seqRate)));
}

void FCP5XMLWriter::printTimecodeElement(const EditLabel* label, bool withReel,
                                         const LightweightString<wchar_t>& reelName) {
    if (!label || !label->is_valid()) return;
    xmlElement tc(xmlFile, "timecode");
    Qv::FrameRate labelRate = getFrameRatefromMedium(label->get_MediumRoll().medium);
    if (legacy) {
        printRateElement(static_cast<double>(Qv::getTicksPerSecond(labelRate)));
    } else {
        // The original writer gave the timecode of 29.97 media the rate 30,
        // ntsc FALSE, beside a drop-frame display format.
        printRateElement(Qv::getFramesPerSecond(timecodeRate(*label)));
    }
    leaf(xmlFile, "string", label->get_string(0));
    leaf(xmlFile, "frame", label->get_start());
    leaf(xmlFile, "source", Plain{"source"});
    LabelType format = label->get_format();
    leaf(xmlFile, "displayformat", Plain{format == 7 || format == 33 ? "DF" : "NDF"});
    if (withReel) {
        xmlElement reel(xmlFile, "reel");
        leaf(xmlFile, "name", reelName);
    }
}

void FCP5XMLWriter::printSampleCharacteristics(const ShotVideoMetadata& metadata) {
    xmlElement sc(xmlFile, "samplecharacteristics");
    leaf(xmlFile, "width", boundedInt(metadata.getWidth(), 5));
    leaf(xmlFile, "height", boundedInt(metadata.getHeight(), 5));
    if (metadata.getAspectRatio() == Qv::Image::eAspectSquare) {
        leaf(xmlFile, "pixelaspectratio", Plain{"square"});
        leaf(xmlFile, "anamorphic", Plain{"FALSE"});
    }
}

bool FCP5XMLWriter::printFileElement(CED2* shot, bool defined, LightweightString<wchar_t>& ref) {
    return printFileElement(shot, defined, idText("file_", ref));
}

bool FCP5XMLWriter::printFileElement(CED2* shot, bool defined, const std::string& id) {
    xmlElement file(xmlFile, "file", Attribute{"id", id.c_str()});
    if (!shot || defined) return true;

    leaf(xmlFile, "name", shot->get_editName());

    CED2Cell* cel = firstCelOf(shot);
    EditPtr edit;
    edit.i_open(shot->cookie);

    LightweightString<wchar_t> locator;
    if (edit && options.useTrackOriginFilename) {
        LightweightString<char> name;
        edit->getTrackOriginInfo_Filename(edit->getId(0), name);
        locator = fromUTF8(name);
    } else if (cel) {
        if (Qv::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(cel->cookie))
            locator = entry->getPhysicalFilename(true);
    }

    if (locator_IsLocal(locator)) {
        LightweightString<wchar_t> outcome, url;
        if (locator_LocalToUNC(locator, outcome) && locator_UNCToURL(outcome, url)) outcome = url;
        if (!outcome.empty()) {
            leaf(xmlFile, "pathurl", outcome);
            LogBoth("FCP7-xml - Exporting local file locator <%S>\n", outcome.c_str());
        }
    } else {
        LightweightString<wchar_t> copy = locator, url;
        if (locator_UNCToURL(copy, url)) {
            leaf(xmlFile, "pathurl", url);
            LogBoth("FCP7-xml - Exporting file locator <%S>\n", url.c_str());
        }
    }

    // The original writer gave a file its shot's rate, cut to a whole number,
    // whatever its timecode counts; the rate is the footage's, as the
    // timecode's is.
    double rate = legacy ? shot->rate : footageRate(shot);
    printRateElement(rate);
    int duration = celTimeToFrames(shot->get_editLength(), rate);
    leaf(xmlFile, "duration", duration);

    const LightweightString<char>& reel = shot->get_reelId();
    if (isDodgyReelID(reel)) {
        log.ErrorOut("REEL ID for clip <%S> has illegal characters", shot->get_editName().c_str());
        log.ErrorOut("    This needs renaming before attempting export again");
        edit.i_close();
        return false;
    }
    printTimecodeElement(&shot->get_primaryLabel(), true, fromUTF8(reel));

    {
        xmlElement media(xmlFile, "media");
        if (shot->GetNumVideoChannels() > 0) {
            xmlElement video(xmlFile, "video");
            leaf(xmlFile, "duration", duration);
            printSampleCharacteristics(shot->get_shotVideoMetadata());
        }
        int audioChannels = shot->GetNumAudioChannels();
        if (audioChannels > 0) {
            xmlElement audio(xmlFile, "audio");
            leaf(xmlFile, "channelcount", audioChannels);
        }
    }
    edit.i_close();
    return true;
}

int FCP5XMLWriter::cookieCelTimeToFrames(double time, Cookie cookie) {
    CED2ClipRefMapRec* rec = nullptr;
    if (!map_.findRef(editCookie(cookie), &rec)) return 1;
    // The marks are dropped here; the one caller has read them before and
    // sets them again after.
    rec->dropMarks();
    return celTimeToFrames(time, rec->ced2 ? rec->ced2->rate : 0.0);
}

Qv::FrameRate FCP5XMLWriter::timecodeRate(const EditLabel& label) {
    Qv::FrameRate rate = getFrameRatefromMedium(label.get_MediumRoll().medium);
    if (!Qv::isKnownFrameRate(rate)) rate = label.get_rate();
    // Drop frame counts only 1000/1001 rates: a drop-frame label at 30 or 60
    // counts 29.97 or 59.94.
    if (label.isDropFrame() && rate == Qv::eFrameRate30) rate = Qv::eFrameRate29_97;
    if (label.isDropFrame() && rate == Qv::eFrameRate60) rate = Qv::eFrameRate59_94;
    return rate;
}

double FCP5XMLWriter::footageRate(const CED2* shot) const {
    const EditLabel& label = shot->get_primaryLabel();
    if (label.is_valid() && Qv::isKnownFrameRate(timecodeRate(label)))
        return Qv::getFramesPerSecond(timecodeRate(label));
    if (shot->edit && Qv::isKnownFrameRate(shot->edit->getSourceFrameRate()))
        return Qv::getFramesPerSecond(shot->edit->getSourceFrameRate());
    return shot->rate;
}

void FCP5XMLWriter::writeMarkers(CED2* ced2) {
    if (ced2) writeMarkers(ced2, ced2->rate);
}

void FCP5XMLWriter::writeMarkers(CED2* ced2, double rate) {
    if (!ced2) return;
    for (const Ced2Cue& cue : ced2->cues) {
        xmlElement marker(xmlFile, "marker");
        leaf(xmlFile, "name", cue.name);
        leaf(xmlFile, "comment", cue.comment);
        int in = celTimeToFrames(cue.in, rate);
        int out = celTimeToFrames(cue.out, rate);
        // The original writer let a marker before the start (or a time that
        // is no number) through as it came: no reader has a frame before 0.
        if (!legacy) {
            in = std::max(0, in);
            out = std::max(in, out);
        }
        leaf(xmlFile, "in", in);
        if (cue.out == kCueOpenEnd)
            leaf(xmlFile, "out", Plain{"-1"});
        else
            leaf(xmlFile, "out", out);
        LightweightString<wchar_t> colour;
        if (!pproColour::getStr(cue.colour, &colour)) colour = pproColour::getDefaultStr();
        leaf(xmlFile, "pproColor", colour);
        leaf(xmlFile, "red", static_cast<int>((cue.colour >> 16) & 0xFF));
        leaf(xmlFile, "green", static_cast<int>((cue.colour >> 8) & 0xFF));
        leaf(xmlFile, "blue", static_cast<int>(cue.colour & 0xFF));
    }
}

void FCP5XMLWriter::printSubclipInfo(int startOffset, int endOffset) {
    xmlElement info(xmlFile, "subclipinfo");
    leaf(xmlFile, "startoffset", startOffset);
    leaf(xmlFile, "endoffset", endOffset);
}

void FCP5XMLWriter::printMasterClipHeader(const LightweightString<wchar_t>& name, double length,
                                          double rate, const LightweightString<wchar_t>& masterId) {
    leaf(xmlFile, "name", name);
    leaf(xmlFile, "duration", celTimeToFrames(length, rate));
    printRateElement(rate);
    leaf(xmlFile, "masterclipid", masterId);
    leaf(xmlFile, "ismasterclip", Plain{"TRUE"});
}

bool FCP5XMLWriter::writeShotOnly(CED2List& first, CED2List& second) {
    CED2* media = first.firstRecord();
    if (!media) return false;
    CED2* clip = second.firstRecord();
    bool isSubclip = clip != nullptr;
    if (!clip) clip = media;

    double rate = clip->rate;
    LightweightString<wchar_t> masterId = L"master_" + clip->cookie.asWString();
    LightweightString<wchar_t> mediaRef = media->cookie.asWString();
    double length = clip->get_editLength();

    xmlElement project(xmlFile, "project");
    xmlElement children(xmlFile, "children");
    // The clip's id repeats the prefix that masterId already has.
    xmlElement clipElement(xmlFile, "clip", Attribute{"id", idText("master_", masterId).c_str()});
    printMasterClipHeader(clip->get_editName(), length, rate, masterId);

    if (isSubclip) {
        CED2Cell* cel = firstCelOf(clip);
        double offset = cel ? cel->sourceIn : 0.0;
        // Both lengths are the sub-clip's: the end offset is the start offset
        // negated.
        printSubclipInfo(celTimeToFrames(offset, rate),
                         celTimeToFrames(length - (length + offset), rate));
        leaf(xmlFile, "subclipmasterid", mediaRef);
        if (!clip->descriptionTxt.empty()) {
            xmlElement logging(xmlFile, "logginginfo");
            leaf(xmlFile, "description", fromUTF8(clip->descriptionTxt));
        }
    }

    bool ok;
    {
        xmlElement mediaElement(xmlFile, "media");
        xmlElement video(xmlFile, "video");
        xmlElement track(xmlFile, "track");
        xmlElement clipitem(xmlFile, "clipitem", Attribute{"id", "clipitem-1"});
        leaf(xmlFile, "masterclipid", masterId);
        printRateElement(rate);
        ok = printFileElement(media, false, mediaRef);
    }
    if (ok) writeMarkers(clip);
    return ok;
}

}  // namespace XML
