#include "xmeml/FCP5XMLReader.h"

#include "host/VideoFormat.h"
#include "xmeml/FCP5ReaderSupport.h"

namespace XML {

using fcp5read::doubleOf;
using fcp5read::intOf;
using fcp5read::leaf;
using fcp5read::present;
using fcp5read::readRate;

namespace {

// A picture format whose only known part is the rate of a label's medium.
ShotVideoMetadata formatOfMedium(MediumRollMedium medium) {
    ShotVideoMetadata m;
    m.setFrameRate(getFrameRatefromMedium(medium));
    m.setScanMode(Qv::Image::eScanProgressive);
    return m;
}

}  // namespace

Qv::FrameRate FCP5XMLReader::getSeqFrameRate(const XMLParser& parser) {
    double value = 0;
    XMLParser::Value sequence = parser.getValue("sequence", 0);
    if (!sequence.text.empty()) {
        XMLParser sp(sequence.text.c_str(), -1);
        if (!readRate(sp, value)) return Qv::eFrameRateNone;
        return Qv::getEquivalentQvFrameRate(value);
    }
    // A document of clips alone: the first clip of the project stands for it.
    LightweightString<char> text = parser.getValue("project", 0).text;
    for (const char* tag : {"children", "clip"}) {
        if (text.empty()) return Qv::eFrameRateNone;
        XMLParser p(text.c_str(), -1);
        text = p.getValue(tag, 0).text;
    }
    if (text.empty()) return Qv::eFrameRateNone;
    XMLParser cp(text.c_str(), -1);
    if (!readRate(cp, value)) return Qv::eFrameRateNone;
    return Qv::getEquivalentQvFrameRate(value);
}

void FCP5XMLReader::setRates(Qv::FrameRate rate) {
    seqRate = rate;
    seqFramesPerSecond = Qv::getFramesPerSecond(rate);
    ticksPerSecond = static_cast<double>(Qv::getTicksPerSecond(rate));
    secondsPerTick = 1.0 / ticksPerSecond;
}

int FCP5XMLReader::parseFile(const XMLParser& parser) {
    setRates(getSeqFrameRate(parser));

    // The passes walk their elements one at a time, so that no more than one
    // element's text is held beside the document.
    unsigned files = parser.count("file");
    for (unsigned i = 0; i < files; ++i)
        readFile(parser.getValue("file", i));

    unsigned clips = parser.count("clip");
    for (unsigned i = 0; i < clips; ++i) {
        XMLParser::Value clip = parser.getValue("clip", i);
        XMLParser clipParser(clip.text.c_str(), -1);
        XMLParser::Value item = clipParser.getSection("clipitem", 0);
        XMLParser itemParser(item.text.c_str(), -1);
        extractShotFromClipItem(true, clipParser, itemParser);
    }

    unsigned items = parser.count("clipitem");
    for (unsigned i = 0; i < items; ++i) {
        XMLParser::Value item = parser.getValue("clipitem", i);
        XMLParser itemParser(item.text.c_str(), -1);
        extractShotFromClipItem(false, itemParser, itemParser);
    }
    for (unsigned i = 0; i < items; ++i) {
        XMLParser::Value item = parser.getValue("clipitem", i);
        XMLParser itemParser(item.text.c_str(), -1);
        extractSubClipFromClipItem(itemParser);
    }

    fileRefs.deleteAllCed2s();
    LightweightString<char> name;
    clipRefs.anyEntryIsUninitialised(logger, name);
    completeGhosts();

    unsigned sequences = parser.count("sequence");
    for (unsigned i = 0; i < sequences; ++i) {
        int status = readSequence(parser.getValue("sequence", i));
        if (status != 1) return status;
    }
    return 1;
}

void FCP5XMLReader::readFile(const XMLParser::Value& section) {
    // An empty `file` is a use of a file defined elsewhere.
    if (section.text.empty()) return;
    XMLParser fp(section.text.c_str(), -1);

    LightweightString<char> id("..?..");
    if (!section.attributes.empty() && section.attributes[0].name == "id" &&
        !section.attributes[0].value.empty())
        id = section.attributes[0].value;

    // Nothing can refer to a file without a length.
    LightweightString<char> durationText = leaf(fp, "duration");
    if (durationText.empty()) return;

    CED2* rec = new CED2(true);
    if (LightweightString<char> url = leaf(fp, "pathurl"); !url.empty())
        rec->originLocator = fromUTF8(url);
    rec->editName = fromUTF8(leaf(fp, "name"));
    if (!fp.getValue("video", 0).text.empty()) rec->hasVideo = true;
    XMLParser::Value audio = fp.getValue("audio", 0);
    if (!audio.text.empty()) {
        XMLParser ap(audio.text.c_str(), -1);
        scanInt(leaf(ap, "channelcount"), rec->audioChannelCount);
    }

    Qv::FrameRate rate = seqRate;
    XMLParser::Value timecode = fp.getValue("timecode", 0);
    if (!timecode.text.empty()) {
        XMLParser tp(timecode.text.c_str(), -1);
        // The label is made before the file's duration is known: its end is
        // placed with what the new record holds.
        processTimecode(rec, tp, rec->duration);
        double value = 1.0;
        readRate(tp, value);
        rec->shotVideoMetadata = formatOfMedium(rec->get_primaryLabel().get_MediumRoll().medium);
        rec->shotVideoMetadataSet = true;
        rate = Qv::getEquivalentQvFrameRate(value);
        double fps = Qv::getFramesPerSecond(rate);
        int frames = 0;
        scanInt(durationText, frames);
        rec->duration = frames / fps;
    }
    rec->sourceMedium = getMediumRollfromInputDetails(Qv::Image::eScanProgressive, rate);

    fileRefs.addRef(id, rec, false, 0, kChanVideo);
    if (leaf(fp, "stillframe") == "TRUE") fileRefs.setIsSingleImage(id);
}

void FCP5XMLReader::completeGhosts() {
    for (CED2* ghost : each<CED2>(ghostList)) {
        LightweightString<char> ghostName, fileId;
        double editOut = 0, sourceIn = 0;
        if (CChannel* first = ghost->firstChannel()) {
            ghostName = toUTF8(first->refName);
            first->refName += L"$0$";
            if (CED2Cell* cel = first->firstCel()) {
                fileId = cel->refId;
                cel->refId += "$0$";
                editOut = cel->editOut;
                sourceIn = cel->sourceIn;
            }
        }
        RefIdMap::RefIdMapRec rec;
        if (!clipRefs.findRef(fileId + "$0$", rec) || !rec.ced2) continue;
        const CED2* shot = rec.ced2;

        // The shot's further channels become the ghost's, all of them audio.
        unsigned n = 0;
        for (CChannel* ch : each<CChannel>(shot->channels)) {
            (void)ch;
            if (n > 0) {
                char suffix[16];
                std::snprintf(suffix, sizeof suffix, "$%d$", static_cast<int>(n));
                CChannel* channel = ghost->CreateEditChannel(n, kChanAudio);
                CED2Cell* cel = new CED2Cell;
                cel->speed = 1.0f;
                cel->editIn = 0;
                cel->editOut = editOut;
                cel->sourceIn = sourceIn;
                cel->refId = fileId + suffix;
                channel->cels.append(cel);
                ghostRefs.addRef(ghostName + suffix, ghost, true, n, kChanAudio);
            }
            ++n;
        }
        ghost->shotVideoMetadata = shot->get_shotVideoMetadata();
        ghost->shotVideoMetadataSet = true;

        // Without a label of its own, a ghost takes its shot's, moved on to its
        // in point and open at the end.
        if (!ghost->get_primaryLabel().is_valid()) {
            EditLabel label = shot->get_primaryLabel();
            double at = shot->get_primaryLabel().get_abs_posn(0) + sourceIn;
            label.setStartSample(label.abs_posn_to_sample(at));
            label.setEndSample(label.posn_to_sample(900000.0));
            ghost->primaryLabel = label;
            ghost->primaryLabelSet = true;
        }
    }
}

int FCP5XMLReader::readSequence(const XMLParser::Value& section) {
    CED2* rec = new CED2(false);
    rec->cookie = makeNewEditCookie();

    // What the sequence says of itself is read first; then its text is let
    // go, so that only the part being walked is held at a time.
    XMLParser::Value media;
    std::vector<XMLParser::Value> markers;
    double seqDuration = 1.0;
    {
        XMLParser sp(section.text.c_str(), -1);
        LightweightString<char> name = leaf(sp, "name");
        if (name.empty()) name = "NoName";
        rec->editName = fromUTF8(name);
        logger.Out("Edit \"%s\"", name.c_str());

        // A fixed description: xmeml's own picture characteristics are not read.
        rec->shotVideoMetadata = ShotVideoMetadata(
            Qv::DigitalVideoFormats::findByUID(Qv::Image::FormatUID(28)), Qv::Image::kFormatYUY2,
            seqRate, Qv::Image::eAspectSquare, false, Qv::Image::eScanProgressive, 8);
        rec->shotVideoMetadataSet = true;

        if (LightweightString<char> d = leaf(sp, "duration"); !d.empty()) {
            int frames = 0;
            scanInt(d, frames);
            rec->duration = frames * secondsPerTick;
            seqDuration = rec->duration;
        }
        XMLParser::Value timecode = sp.getValue("timecode", 0);
        if (!timecode.text.empty()) {
            XMLParser tp(timecode.text.c_str(), -1);
            processSequenceTimecode(rec, tp, seqDuration);
        }
        media = sp.getValue("media", 0);
        markers = sp.getSections_TopLevel("marker");
    }

    if (!media.text.empty()) {
        std::vector<XMLParser::Value> videoTracks, audioTracks;
        {
            XMLParser mp(media.text.c_str(), -1);
            std::vector<XMLParser::Value> video = mp.getSections_TopLevel("video");
            if (!video.empty() && !video[0].text.empty()) {
                XMLParser vp(video[0].text.c_str(), -1);
                videoTracks = vp.getSections_TopLevel("track");
            }
            std::vector<XMLParser::Value> audio = mp.getSections_TopLevel("audio");
            if (!audio.empty() && !audio[0].text.empty()) {
                XMLParser ap(audio[0].text.c_str(), -1);
                audioTracks = ap.getSections_TopLevel("track");
            }
        }
        media = XMLParser::Value();

        auto walk = [&](const XMLParser::Value& track, CChannel* channel, bool isVideo) {
            XMLParser tp(track.text.c_str(), -1);
            return parseEventsForChannel(isVideo, channel, tp.getSections_TopLevel("clipitem"),
                                         tp.getSections_TopLevel("transitionitem"), seqDuration);
        };
        // The document's last video track is the host's first channel.
        std::size_t videoCount = videoTracks.size();
        for (std::size_t k = 0; k < videoCount; ++k) {
            CChannel* channel = rec->CreateEditChannel(static_cast<unsigned>(k), kChanVideo);
            logger.Out("Track V%d", static_cast<int>(k + 1));
            int status = walk(videoTracks[videoCount - 1 - k], channel, true);
            videoTracks[videoCount - 1 - k] = XMLParser::Value();
            if (status != 1) {
                delete rec;
                return status;
            }
        }
        for (std::size_t i = 0; i < audioTracks.size(); ++i) {
            CChannel* channel =
                rec->CreateEditChannel(static_cast<unsigned>(videoCount + i), kChanAudio);
            logger.Out("Track A%d", static_cast<int>(i + 1));
            int status = walk(audioTracks[i], channel, false);
            audioTracks[i] = XMLParser::Value();
            if (status != 1) {
                delete rec;
                return status;
            }
        }
    }

    for (const XMLParser::Value& marker : markers)
        readMarker(marker, rec);
    seqList.append(rec);
    return 1;
}

void FCP5XMLReader::readMarker(const XMLParser::Value& section, CED2* rec) {
    XMLParser mp(section.text.c_str(), -1);
    LightweightString<wchar_t> name = fromUTF8(leaf(mp, "name"));
    LightweightString<wchar_t> comment = fromUTF8(leaf(mp, "comment"));
    double in = intOf(mp, "in", 0) * secondsPerTick;
    double out = -1.0;
    if (LightweightString<char> text = leaf(mp, "out"); !text.empty()) {
        int frames = 0;
        scanInt(text, frames);
        if (frames != -1) out = frames * secondsPerTick;
    }
    unsigned colour = static_cast<unsigned>(intOf(mp, "red", 0) & 0xFF) << 16 |
                      static_cast<unsigned>(intOf(mp, "green", 0) & 0xFF) << 8 |
                      static_cast<unsigned>(intOf(mp, "blue", 0) & 0xFF);
    // A marker without an end stays open.
    rec->cues.emplace_back(name, comment, colour, in, kChanVideo, 0u,
                           out == -1.0 ? kCueOpenEnd : out);
}

int FCP5XMLReader::processTimecode(CED2* rec, XMLParser& parser, double durationSeconds) {
    XMLParser::Value reel = parser.getValue("reel", 0);
    if (!reel.text.empty()) {
        XMLParser rp(reel.text.c_str(), -1);
        if (LightweightString<char> name = leaf(rp, "name"); !name.empty()) rec->reelId = name;
    }
    bool dropFrame = leaf(parser, "displayformat") == "DF";
    double value = 0;
    if (!readRate(parser, value)) return 1;
    Qv::FrameRate rate = Qv::getEquivalentQvFrameRate(value);

    // A frame number wins over the timecode text.
    if (LightweightString<char> frame = leaf(parser, "frame"); !frame.empty()) {
        int number = 0;
        scanInt(frame, number);
        rec->primaryLabel = editLabFrom(number, Qv::Image::eScanProgressive, rate, dropFrame);
        rec->primaryLabelSet = true;
    } else if (LightweightString<char> text = leaf(parser, "string"); !text.empty()) {
        EditLabel label = editLabFrom(text.c_str(), Qv::Image::eScanProgressive, rate, dropFrame);
        label.setEndSample(label.posn_to_sample(durationSeconds));
        rec->primaryLabel = label;
        rec->primaryLabelSet = true;
    }
    return 1;
}

int FCP5XMLReader::processSequenceTimecode(CED2* rec, XMLParser& parser, double durationSeconds) {
    // Only the sequence's source timecode counts.
    if (LightweightString<char> source = leaf(parser, "source");
        !source.empty() && !(source == "source"))
        return 1;
    XMLParser::Value reel = parser.getValue("reel", 0);
    if (!reel.text.empty()) {
        XMLParser rp(reel.text.c_str(), -1);
        if (LightweightString<char> name = leaf(rp, "name"); !name.empty()) rec->reelId = name;
    }
    bool dropFrame = leaf(parser, "displayformat") == "DF";
    double value = 0;
    if (!readRate(parser, value)) return 1;
    Qv::FrameRate rate = Qv::getEquivalentQvFrameRate(value);

    EditLabel label;
    if (LightweightString<char> frame = leaf(parser, "frame"); !frame.empty()) {
        int number = 0;
        scanInt(frame, number);
        label = editLabFrom(number, Qv::Image::eScanProgressive, rate, dropFrame);
    } else if (LightweightString<char> text = leaf(parser, "string"); !text.empty()) {
        label = editLabFrom(text.c_str(), Qv::Image::eScanProgressive, rate, dropFrame);
        label.setEndSample(label.posn_to_sample(durationSeconds));
    } else {
        return 1;
    }
    label.set_MediumRoll(
        MediumRollIdent{getMediumRollfromOutputDetails(Qv::Image::eScanProgressive, rate), 1});
    rec->addLabel(label);
    return 1;
}

bool FCP5XMLReader::clipItemReferencesSubClip(XMLParser& item) {
    return present(item, "subclipmasterid") || present(item, "subclipinfo");
}

}  // namespace XML
