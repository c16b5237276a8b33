// Clip items to shots and ghosts.
//
// In xmeml the media is described by `file` elements, which clip items use
// wherever they stand: in master clips and on tracks. The host wants one
// record per piece of media with one channel per stream: channel 0 is the
// picture and audio channels count from 1, also when the file has no
// picture, so that the reference `<file id>$<n>$` names channel n. A sub-clip
// use makes a ghost under the sub-clip's name instead. The same item is
// visited by up to three passes; the reference maps make each record once,
// while log texts and markers are read on every visit.
#include <cstdio>

#include "xmeml/FCP5ReaderSupport.h"
#include "xmeml/FCP5XMLReader.h"

namespace XML {

using fcp5read::inside;
using fcp5read::intOf;
using fcp5read::leaf;
using fcp5read::readRate;

int FCP5XMLReader::processClipItem(bool isMasterClip, const XMLParser& clipParser,
                                   const XMLParser& itemParser, bool subClipPass) {
    // An item that plays a nested sequence names no media of its own: by
    // default it is read as a use of the sequence, not of the first file
    // inside it.
    if (!legacy() && !itemParser.sections_TopLevel("sequence").empty()) return 1;

    LightweightString<char> name = leaf(itemParser, "name");
    if (name.empty()) name = "NoName";

    // The file is named by the first attribute, whatever it is called. An
    // item without one is of no use to the shot passes.
    std::vector<XMLParser::Tag> file = itemParser.getAttributes("file", 0);
    LightweightString<char> fileId;
    if (!file.empty())
        fileId = file[0].value;
    else if (!subClipPass)
        return 1;
    LightweightString<char> masterRef = fileId;

    bool subclipUse = clipItemReferencesSubClip(itemParser);
    bool ghostRoute = subclipUse && subClipPass;

    CED2* ced2 = nullptr;
    bool linked = false;
    LightweightString<char> refBase, key;
    int startOffset = 0, endOffset = 0;
    RefIdMap::RefIdMapRec rec;
    if (!ghostRoute) {
        // An item without a file has no shot to make: the original reading
        // makes one under an empty name, which is then dropped with a
        // warning that names nothing.
        if (fileId.empty() && !legacy()) return 1;
        refBase = fileId;
        key = fileId + "$0$";
        if (clipRefs.findRef(key, rec)) {
            ced2 = rec.ced2;
            linked = rec.initialised;
        } else {
            ced2 = new CED2(true);
            clipRefs.addRef(key, ced2, false, 0, kChanVideo);
            logger.Out("Clip \"%s\"", name.c_str());
        }
    } else {
        refBase = name;
        key = name;
        if (ghostRefs.findRef(name + "$0$", rec)) {
            ced2 = rec.ced2;
            linked = rec.initialised;
        } else {
            ced2 = new CED2(true);
            ced2->cookie = makeNewEditCookie();
            ced2->isGhost = true;
            ced2->kind = kLogTypeSubclip;
            ghostRefs.addRef(name + "$0$", ced2, false, 0, kChanVideo);
            logger.Out("sub-clip \"%s\"", name.c_str());
            ghostList.append(ced2);
        }
        if (std::unique_ptr<XMLParser> info = inside(itemParser, "subclipinfo")) {
            startOffset = intOf(*info, "startoffset", 0);
            endOffset = intOf(*info, "endoffset", 0);  // read, but a sub-clip's end is its duration
            (void)endOffset;
        }
    }
    if (!ced2) return 1;  // an entry whose record is gone

    RateReading reading = readingOf(itemParser, documentRate_);
    if (legacy() && !reading.rate) {
        // Without a rate the original reading counts at 1.0: no rate.
        double rateValue = 1.0;
        readRate(itemParser, rateValue);
        reading.rate = Qv::getEquivalentQvFrameRate(rateValue);
    }
    Qv::FrameRate rate = reading.rate;
    double fps = legacy() ? Qv::getFramesPerSecond(rate) : reading.fps;
    double ticks = legacy() ? static_cast<double>(Qv::getTicksPerSecond(rate)) : reading.ticks;
    // Every visit sets the medium: the last one decides.
    ced2->sourceMedium = getMediumRollfromInputDetails(Qv::Image::eScanProgressive, rate);

    if (ghostRoute) {
        // A ghost's markers and log texts are not read, nor its own timecode:
        // its label comes from its master when the ghosts are completed.
        if (linked) return 1;
        ced2->editName = fromUTF8(name);
        LightweightString<char> duration = leaf(itemParser, "duration");
        if (duration.empty()) return 1;
        int frames = 0;
        scanInt(duration, frames);
        CChannel* channel = ced2->CreateEditChannel(0, kChanVideo);
        CED2Cell* cel = new CED2Cell;
        cel->speed = 1.0f;
        cel->editIn = 0;
        cel->editOut = celFramesToTime(static_cast<unsigned>(frames), fps);
        cel->sourceIn = celFramesToTime(static_cast<unsigned>(startOffset), ticks);
        cel->refId = masterRef;  // completed with its channel when the ghosts are
        cel->refIsGhost = false;
        channel->refName = fromUTF8(key);
        channel->cels.append(cel);
        ghostRefs.setRecInitialised(key + "$0$", true);
        return 1;
    }

    // Log texts, on every visit, each overwriting when present.
    const std::pair<const char*, LightweightString<char>*> texts[] = {
        {"scene", &ced2->sceneTxt},
        {"description", &ced2->descriptionTxt},
        {"shottake", &ced2->shotTxt},
        {"lognote", &ced2->notesTxt}};
    for (const auto& [element, field] : texts)
        if (LightweightString<char> t = leaf(itemParser, element); !t.empty()) *field = t;
    // A master clip keeps its log in its own `logginginfo`, beside its
    // media: by default a bin of clips brings its log along.
    if (isMasterClip && !legacy())
        for (const std::unique_ptr<XMLParser>& log : clipParser.sections_TopLevel("logginginfo"))
            if (log)
                for (const auto& [element, field] : texts)
                    if (LightweightString<char> t = leaf(*log, element); !t.empty()) *field = t;

    if (!linked) {
        RefIdMap::RefIdMapRec frec;
        bool named = !file.empty() && file[0].name == "id" && !file[0].value.empty();
        if (named && fileRefs.findRef(file[0].value, frec) && frec.ced2) {
            const CED2* fileRec = frec.ced2;
            if (frec.isSingleImage) clipRefs.setIsSingleImage(key);
            ced2->originLocator = fileRec->originLocator;
            ced2->editName = fileRec->get_editName();
            ced2->rate = fileRec->rate;  // set only for a rate the host does not know

            auto addMediaCel = [&](CChannel* channel) {
                CED2Cell* cel = new CED2Cell;
                cel->editIn = 0;
                cel->editOut = fileRec->duration;
                cel->sourceIn = 0;
                cel->speed = 1.0f;
                channel->cels.append(cel);
            };
            if (fileRec->hasVideo) addMediaCel(ced2->CreateEditChannel(0, kChanVideo));
            for (int i = 1; i <= fileRec->audioChannelCount; ++i) {
                addMediaCel(ced2->CreateEditChannel(static_cast<unsigned>(i), kChanAudio));
                char suffix[16];
                std::snprintf(suffix, sizeof suffix, "$%d$", i);
                clipRefs.addRef(refBase + suffix, ced2, true, static_cast<unsigned>(i), kChanAudio);
            }
            clipRefs.setRecInitialised(key, true);
            shotList.append(ced2);
            ced2->reelId = fileRec->get_reelId();
            if (fileRec->labelCount > 0) {
                ced2->labels[0] = fileRec->labels[0];
                ced2->labelCount = 1;
            }
            ced2->primaryLabel = fileRec->get_primaryLabel();
            ced2->primaryLabelSet = true;
            ced2->sourceMedium = fileRec->get_sourceMedium();
            ced2->shotVideoMetadata = fileRec->get_shotVideoMetadata();
            ced2->shotVideoMetadataSet = true;
        }
        // Otherwise the record stays uninitialised and without channels; it
        // is reported and dropped once all clip items are read.
    }

    // Markers are added on every visit: a master clip's own in the master
    // pass, an item's own in the others.
    const XMLParser& markerSource = isMasterClip ? clipParser : itemParser;
    for (const std::unique_ptr<XMLParser>& marker : markerSource.sections_TopLevel("marker"))
        if (marker && marker->hasText()) readMarker(*marker, ced2);
    return 1;
}

}  // namespace XML
