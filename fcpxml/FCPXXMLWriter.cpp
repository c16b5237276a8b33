// The fcpxml writer: the header, rational times, the resources with their
// formats, effects and assets, the browser clips of the event with markers
// and keywords, and the document of shots alone.
#include "fcpxml/FCPXXMLWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <unordered_map>

#include "host/Edit.h"
#include "host/Paths.h"

namespace XML {

namespace {

CED2Cell* firstCelOf(const CED2* ced2) {
    CChannel* ch = ced2 ? ced2->firstChannel() : nullptr;
    return ch ? ch->firstCel() : nullptr;
}

// A whole number printed "%d" into a field of `width` characters: what does
// not fit is cut off.
LightweightString<wchar_t> boundedInt(int value, std::size_t width) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    if (width < sizeof text) text[width] = '\0';
    return Qv::WStringFromAscii(text);
}

// The source channels of an asset's audio, "1, 2, ..." up to the count.
LightweightString<wchar_t> sourceChannels(int count) {
    LightweightString<wchar_t> list;
    for (int n = 1; n <= count; ++n) {
        if (n > 1) list += L", ";
        list += boundedInt(n, 4);
    }
    return list;
}

// The media URL of a locator: a local path goes through its UNC form. Any
// other locator is taken to be a UNC form; what does not convert stays empty.
LightweightString<wchar_t> locatorURL(LightweightString<wchar_t> locator) {
    LightweightString<wchar_t> url;
    if (locator_IsLocal(locator)) {
        LightweightString<wchar_t> unc;
        if (locator_LocalToUNC(locator, unc)) {
            locator_UNCToURL(unc, url);
            LogBoth("FCPX-xml export clip - locator <%S>\n", url.c_str());
        }
    } else {
        LightweightString<wchar_t> copy = locator;
        locator_UNCToURL(copy, url);
        LogBoth("FCPX-xml export clip - locator <%S>\n", url.c_str());
    }
    return url;
}

// The length of a marker without an end: one frame of the sequence.
double oneFrame(Qv::FrameRate rate) {
    unsigned ticks = Qv::getTicksPerSecond(rate);
    return ticks ? 1.0 / ticks : 0.0;
}

}  // namespace

bool FCPXXMLWriter::writeHeader() {
    xmlFile.printer.PushUnknown("DOCTYPE fcpxml");
    xmlFile.printer.OpenElement("fcpxml", false);
    xmlFile.printer.PushAttribute("version", "1.4");
    xmlElement importOptions(xmlFile, "import-options");
    xmlInlineElement(
        xmlFile, "option",
        AttribList{makeAttrib("value", L"1"), makeAttrib("key", L"suppress warnings")});
    return true;
}

LightweightString<wchar_t> FCPXXMLWriter::timeToFCPRational(double time, Qv::FrameRate rate) {
    return timeToFCPRationalDouble(time, Qv::getFramesPerSecond(rate));
}

LightweightString<wchar_t> FCPXXMLWriter::timeToFCPRationalDouble(double time, double fps) {
    std::int64_t numerator = truncateToInt64(fps * 100.0 * time + 0.5);
    std::int32_t denominator = truncateToInt32(fps * 100.0);
    // Printed as a 32-bit number, the numerator shows its low 32 bits.
    auto shown = static_cast<std::int32_t>(static_cast<std::uint32_t>(numerator));
    char text[2 * 50 + 2];
    std::snprintf(text, sizeof text, "%d/%ds", shown, denominator);
    return Qv::WStringFromAscii(text);
}

int FCPXXMLWriter::cookieCelTimeToFrames(double time, Cookie cookie) const {
    LightweightString<wchar_t> assetId;
    double offset = 0.0;
    double rate = 1.0;
    cookieMap.findRef(convertCookie(cookie, kCookieEdit, 255), cookie.channel, assetId, offset,
                      rate);
    return celTimeToFrames(time, rate);
}

// ---- Resources ----

bool FCPXXMLWriter::writeAllShots(CED2List& shots, CED2List& ghostList) {
    // Times that count whole frames need every edit of the run known before
    // the resources are written, nested sequences being resources too: they
    // go out with the body. The original writer wrote them here.
    if (!legacy) {
        registerDefaults(shots, ghostList);
        return true;
    }
    ghosts = &ghostList;
    xmlElement resources(xmlFile, "resources");
    formatMap.clear();
    assetMap.clear();
    cookieMap.clear();

    // The shots' formats first, so that the sequence's takes the next id if
    // it is new.
    for (CED2* shot : each<CED2>(shots))
        if (!shot->excludedFromExport) formatMap.addRef(shot->get_shotVideoMetadata());
    formatMap.addRef(videoMetadata);

    for (CED2* shot : each<CED2>(shots))
        if (!shot->excludedFromExport && !registerShot(shot)) return false;
    for (CED2* ghost : each<CED2>(ghostList))
        if (!ghost->excludedFromExport) registerSubclip(ghost);

    writeResources();
    return true;
}

LightweightString<wchar_t> FCPXXMLWriter::mediaLocator(EditPtr& edit, const CED2Cell* cel) const {
    LightweightString<wchar_t> locator;
    if (edit && options.useTrackOriginFilename) {
        LightweightString<char> name;
        edit->getTrackOriginInfo_Filename(edit->getId(0), name);
        locator = fromUTF8(name);
    } else if (cel) {
        if (Qv::Ptr<FsysDirectoryEntry> entry = SystemCache::findEntryForCookie(cel->cookie))
            locator = entry->getPhysicalFilename(true);
    }
    return locator;
}

bool FCPXXMLWriter::registerShot(CED2* shot) {
    CED2Cell* cel = firstCelOf(shot);
    EditPtr edit;
    edit.i_open(shot->cookie);

    LightweightString<wchar_t> locator = mediaLocator(edit, cel);
    if (locator.empty() && !(edit && options.useTrackOriginFilename)) {
        LogBoth("XML export ERROR - FsysDirectoryEntry NULL filename\n");
        return false;
    }
    LightweightString<wchar_t> url = locatorURL(locator);

    LightweightString<wchar_t> formatId;
    formatMap.findRef(edit ? edit->getVideoMetadata() : shot->get_shotVideoMetadata(), formatId);
    edit.i_close();
    LightweightString<wchar_t> assetId = assetMap.addRef(shot, url, formatId, shot->cookie);

    // Every channel of the shot plays the asset from its start.
    for (CChannel* ch : each<CChannel>(shot->channels))
        if (CED2Cell* first = ch->firstCel())
            cookieMap.addRef(shot->cookie, first->cookie.channel, assetId, shot->rate, 0.0);
    return true;
}

void FCPXXMLWriter::registerSubclip(CED2* ghost) {
    CED2Cell* cel = firstCelOf(ghost);
    if (!cel) return;
    Cookie master = convertCookie(cel->cookie, kCookieEdit, 255);
    LightweightString<wchar_t> assetId;
    // A sub-clip of material that is no asset plays nothing: its cels leave
    // gaps.
    if (!assetMap.findRef(master, assetId)) return;
    for (CChannel* ch : each<CChannel>(ghost->channels))
        if (CED2Cell* first = ch->firstCel())
            cookieMap.addRef(ghost->cookie, first->cookie.channel, assetId, ghost->rate,
                             cel->sourceIn);
}

// The transitions' effects, the same three in every document.
void FCPXXMLWriter::writeEffects() {
    struct Effect {
        const wchar_t *id, *uid, *name;
    };
    static const Effect effects[] = {
        {L"fx1", L"FxPlug:4731E73A-8DAC-4113-9A30-AE85B1761265", L"Cross Dissolve"},
        {L"fx2", L"FxPlug:857E2FBA-98DB-411B-A88C-CE6ABC1F65D8", L"WIPE"},
        {L"fx3", L"FFAudioTransition", L"Audio Crossfade"},
    };
    for (const Effect& e : effects)
        xmlInlineElement(xmlFile, "effect",
                         AttribList{makeAttrib("id", e.id), makeAttrib("uid", e.uid),
                                    makeAttrib("name", e.name)});
}

void FCPXXMLWriter::writeResources() {
    for (const VidFormatRefMap::VidFormatRefMapRec& f : formatMap.records())
        xmlInlineElement(xmlFile, "format",
                         AttribList{makeAttrib("id", f.id), makeAttrib("name", f.name)});

    writeEffects();

    for (const AssetRefMap::AssetRefMapRec& a : assetMap.records())
        xmlInlineElement(
            xmlFile, "asset",
            AttribList{makeAttrib("id", a.id), makeAttrib("src", a.src),
                       makeAttrib("hasAudio", a.hasAudio),
                       makeAttrib("audioSources", a.audioSources), makeAttrib("start", a.start),
                       makeAttrib("name", a.name), makeAttrib("duration", a.duration),
                       makeAttrib("format", a.format), makeAttrib("audioChannels", a.audioChannels),
                       makeAttrib("hasVideo", a.hasVideo)});
}

bool FCPXXMLWriter::writeGhosts(CED2List& list) {
    // The original writer refused sub-clips and sequences beyond the first
    // level; they are registered with the rest.
    if (!legacy && &list != ghosts) deepGhosts_.push_back(&list);
    return true;
}

bool FCPXXMLWriter::writeShotOnly(CED2List& shots, CED2List& ghostList) {
    bool ok = writeAllShots(shots, ghostList);
    if (!legacy) writeFrameResources();
    // Assets made before a failure are listed all the same.
    for (const AssetRefMap::AssetRefMapRec& a : assetMap.records())
        xmlInlineElement(xmlFile, "asset-clip",
                         AttribList{makeAttrib("name", a.name), makeAttrib("format", a.format),
                                    makeAttrib("ref", a.id), makeAttrib("duration", a.duration),
                                    makeAttrib("enabled", L"1")});
    return ok;
}

// ---- The event's browser clips ----

bool FCPXXMLWriter::listAssetClips() {
    // The sub-clips of each master, in list order, so that each asset finds
    // its own without a walk over all of them.
    std::unordered_map<Cookie, std::vector<CED2*>, CookieIdentityHash, CookieIdentityEqual>
        subclips;
    if (ghosts) {
        for (CED2* ghost : each<CED2>(*ghosts)) {
            CED2Cell* cel = firstCelOf(ghost);
            if (ghost->excludedFromExport || !cel) continue;
            subclips[convertCookie(cel->cookie, kCookieEdit, 255)].push_back(ghost);
        }
    }

    for (const AssetRefMap::AssetRefMapRec& a : assetMap.records()) {
        AttribList clipAttribs{makeAttrib("name", a.name), makeAttrib("format", a.format),
                               makeAttrib("tcFormat", a.isDropFrame ? L"DF" : L"NDF"),
                               makeAttrib("start", a.start), makeAttrib("duration", a.duration)};
        // A sound file has no picture format to name.
        if (!legacy && a.format.empty()) clipAttribs.erase(clipAttribs.begin() + 1);
        xmlElement clip(xmlFile, "clip", clipAttribs);
        AttribList audio;
        if (a.hasAudio == L"1")
            audio = AttribList{makeAttrib("srcCh", sourceChannels(a.numAudioChannels)),
                               makeAttrib("start", a.start),
                               makeAttrib("ref", a.id),
                               makeAttrib("duration", a.duration),
                               makeAttrib("lane", L"-1"),
                               makeAttrib("offset", a.start)};
        if (a.hasVideo == L"1") {
            xmlElement video(
                xmlFile, "video",
                AttribList{makeAttrib("start", a.start), makeAttrib("duration", a.duration),
                           makeAttrib("offset", a.start), makeAttrib("ref", a.id)});
            if (!audio.empty()) xmlInlineElement(xmlFile, "audio", audio);
        } else if (!audio.empty()) {
            xmlInlineElement(xmlFile, "audio", audio);
        }
        if (legacy) {
            writeMarkers(a.cues, a.startTime, 0.0, a.durationTime);
        } else {
            // A browser clip's markers count its media's frames from its
            // start; the original writer counted the sequence's.
            for (const Ced2Cue& cue : a.cues) {
                if (!(cue.in >= 0.0 && cue.in < a.durationTime)) continue;
                std::int64_t from = assetFrames(a, cue.in);
                std::int64_t length =
                    cue.out == kCueOpenEnd || !(cue.out > cue.in)
                        ? 1
                        : std::max<std::int64_t>(1, assetFrames(a, cue.out) - from);
                xmlInlineElement(
                    xmlFile, "marker",
                    AttribList{makeAttrib("start", frameTime(a.startFrames + from, a.grid)),
                               makeAttrib("duration", frameTime(length, a.grid)),
                               makeAttrib("value", cue.name + L" - " + cue.comment)});
            }
        }

        // Sub-clips become keyword ranges on their master.
        auto found = subclips.find(a.cookie);
        if (found == subclips.end()) continue;
        for (CED2* ghost : found->second) {
            CED2Cell* cel = firstCelOf(ghost);
            if (!legacy) {
                // On the frames of the media, as every time of the clip.
                std::int64_t from = assetFrames(a, realSeconds(cel->sourceIn, seqRate));
                std::int64_t length = assetFrames(a, realSeconds(ghost, ghost->get_editLength()));
                xmlInlineElement(
                    xmlFile, "keyword",
                    AttribList{makeAttrib("value", ghost->get_editName()),
                               makeAttrib("start", frameTime(a.startFrames + from, a.grid)),
                               makeAttrib("duration",
                                          frameTime(std::max<std::int64_t>(1, length), a.grid))});
                continue;
            }
            xmlInlineElement(
                xmlFile, "keyword",
                AttribList{
                    makeAttrib("value", ghost->get_editName()),
                    makeAttrib("start", timeToFCPRational(a.startTime + cel->sourceIn, a.rate)),
                    makeAttrib("duration", timeToFCPRational(ghost->get_editLength(), a.rate))});
        }
    }
    return true;
}

// ---- Markers ----

void FCPXXMLWriter::writeMarker(const Ced2Cue& cue, double base, double rangeStart, double frame) {
    double length = cue.out == kCueOpenEnd ? frame : cue.out - cue.in;
    xmlInlineElement(
        xmlFile, "marker",
        AttribList{makeAttrib("value", cue.name + L" - " + cue.comment),
                   makeAttrib("duration", timeToFCPRational(length, seqRate)),
                   makeAttrib("start", timeToFCPRational(cue.in - rangeStart + base, seqRate))});
}

void FCPXXMLWriter::writeMarkers(const std::vector<Ced2Cue>& cues, double base, double rangeStart,
                                 double rangeEnd) {
    double frame = oneFrame(seqRate);
    for (const Ced2Cue& cue : cues)
        if (cue.in >= rangeStart && cue.in < rangeEnd) writeMarker(cue, base, rangeStart, frame);
}

void FCPXXMLWriter::writeSequenceMarkers(double base, double rangeStart, double rangeEnd) {
    std::vector<std::size_t> hits;
    walk_->cues.find(rangeStart, rangeEnd, hits);
    double frame = oneFrame(seqRate);
    for (std::size_t i : hits)
        writeMarker(walk_->sequence->cues[i], base, rangeStart, frame);
}

void FCPXXMLWriter::RangeIndex::add(double key, std::size_t item) {
    // A key that is no number falls in no range.
    if (!std::isnan(key)) entries_.emplace_back(key, item);
}

void FCPXXMLWriter::RangeIndex::seal() {
    std::stable_sort(entries_.begin(), entries_.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
}

void FCPXXMLWriter::RangeIndex::find(double lo, double hi, std::vector<std::size_t>& out) const {
    out.clear();
    auto it = std::partition_point(entries_.begin(), entries_.end(),
                                   [lo](const auto& e) { return e.first < lo; });
    for (; it != entries_.end() && it->first < hi; ++it)
        if (it->first >= lo) out.push_back(it->second);
    std::sort(out.begin(), out.end());
}

}  // namespace XML
