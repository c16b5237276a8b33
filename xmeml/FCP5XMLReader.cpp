#include "xmeml/FCP5XMLReader.h"

#include "host/VideoFormat.h"
#include "plugin/Interchange.h"
#include "xmeml/FCP5ReaderSupport.h"
#include "xmeml/FCP5ReaderTrack.h"

namespace XML {

using fcp5read::doubleOf;
using fcp5read::emptyParser;
using fcp5read::inside;
using fcp5read::intOf;
using fcp5read::kMostChannels;
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

bool FCP5XMLReader::legacy() {
    if (legacy_ < 0) legacy_ = legacyInterchange() ? 1 : 0;
    return legacy_ == 1;
}

FCP5XMLReader::RateReading FCP5XMLReader::readingOf(const fcp5read::DocRate& r) {
    RateReading out;
    if (!r.present) return out;
    out.rate = r.exact;
    out.fps = Qv::getFramesPerSecond(r.exact);
    out.ticks = Qv::getTicksPerSecond(r.exact);
    // The original reading knows only the host's rates: any other counts
    // no time at all.
    if (legacy() || r.exact != Qv::eFrameRateNone || !(r.fps > 0)) return out;
    // Phones record at rates of their own (Premiere writes timebase 29, 34,
    // ...): the nearest rate the host knows stands for it, and the
    // document's frames keep their own length.
    out.rate = fcp5read::nearestKnownRate(r.fps);
    out.fps = r.fps;
    out.ticks = r.timebase;
    if (warnedRates_.insert({r.timebase, r.ntsc}).second)
        logger.WarningOut(
            "Timebase %d%s is not a rate Quvera knows: it is read as %s, and its frames keep "
            "their length of 1/%d of a second",
            r.timebase, r.ntsc ? " (NTSC)" : "", toUTF8(Qv::getPlainString(out.rate)).c_str(),
            r.timebase);
    return out;
}

FCP5XMLReader::RateReading FCP5XMLReader::readingOf(const XMLParser& parser,
                                                    const RateReading& fallback) {
    RateReading reading = readingOf(fcp5read::docRateOf(parser, check()));
    // Without a rate of its own an element counts in the document's.
    if (!legacy() && !(reading.ticks > 0)) return fallback;
    return reading;
}

Qv::FrameRate FCP5XMLReader::getSeqFrameRate(const XMLParser& parser) {
    Qv::FrameRate rate = documentReading(parser).rate;
    // A rate read past a damaged timebase is none the document gives.
    return unusableAt_.empty() ? rate : Qv::eFrameRateNone;
}

FCP5XMLReader::RateReading FCP5XMLReader::documentReading(const XMLParser& parser) {
    fcp5read::DocRate rate;
    if (std::unique_ptr<XMLParser> sequence = parser.section("sequence", 0)) {
        rate = fcp5read::docRateOf(*sequence, check());
    } else {
        // A document of clips alone: the first clip of the project stands for it.
        std::unique_ptr<XMLParser> project = parser.section("project", 0);
        std::unique_ptr<XMLParser> children = project ? project->section("children", 0) : nullptr;
        std::unique_ptr<XMLParser> clip = children ? children->section("clip", 0) : nullptr;
        if (clip) rate = fcp5read::docRateOf(*clip, check());
    }
    RateReading reading = readingOf(rate);
    // A document that states no usable rate is read at 25 rather than at
    // none, which would make every time infinite.
    if (!legacy() && !(reading.ticks > 0)) {
        if (warnedRates_.insert({0, false}).second)
            logger.WarningOut("The document states no frame rate: it is read at 25");
        reading = {Qv::eFrameRate25, 25.0, 25.0};
    }
    return reading;
}

void FCP5XMLReader::setRates(Qv::FrameRate rate) {
    seqRate = rate;
    seqFramesPerSecond = Qv::getFramesPerSecond(rate);
    ticksPerSecond = static_cast<double>(Qv::getTicksPerSecond(rate));
    secondsPerTick = 1.0 / ticksPerSecond;
}

void FCP5XMLReader::setRates(const RateReading& reading) {
    seqRate = reading.rate;
    seqFramesPerSecond = reading.fps;
    ticksPerSecond = reading.ticks;
    secondsPerTick = 1.0 / ticksPerSecond;
}

int FCP5XMLReader::parseFile(const XMLParser& parser) {
    // The document is looked into while it is parsed, and let go after.
    document_ = &parser;
    struct Forget {
        const XMLParser*& document;
        ~Forget() { document = nullptr; }
    } forget{document_};
    documentRate_ = documentReading(parser);
    setRates(documentRate_);

    // Each element is read through a parser over its inside that shares the
    // document's index: what a parser over the element's text would answer,
    // without copying the text or scanning it again. An element with nothing
    // inside reads as an empty text.
    auto orEmpty = [](const std::unique_ptr<XMLParser>& p) -> const XMLParser& {
        return p ? *p : emptyParser();
    };

    unsigned sequences = parser.count("sequence");
    // Where clip items play nested sequences, their in points count in the
    // nested sequence's frames.
    if (!legacy())
        for (unsigned i = 0; i < sequences; ++i)
            if (std::unique_ptr<XMLParser> s = parser.section("sequence", i))
                sequenceTicks_.emplace(sequenceKey(*s), readingOf(*s, documentRate_).ticks);

    unsigned files = parser.count("file");
    for (unsigned i = 0; i < files; ++i)
        if (std::unique_ptr<XMLParser> file = parser.section("file", i)) readFile(*file);

    unsigned clips = parser.count("clip");
    for (unsigned i = 0; i < clips; ++i) {
        std::unique_ptr<XMLParser> clip = parser.section("clip", i);
        std::unique_ptr<XMLParser> item = clip ? clip->section("clipitem", 0) : nullptr;
        extractShotFromClipItem(true, orEmpty(clip), orEmpty(item));
    }

    unsigned items = parser.count("clipitem");
    for (unsigned i = 0; i < items; ++i) {
        std::unique_ptr<XMLParser> item = parser.section("clipitem", i);
        extractShotFromClipItem(false, orEmpty(item), orEmpty(item));
    }
    for (unsigned i = 0; i < items; ++i)
        extractSubClipFromClipItem(orEmpty(parser.section("clipitem", i)));

    fileRefs.deleteAllCed2s();
    LightweightString<char> name;
    // By default each use of such a shot is named with its clip item, track
    // and sequence once the sequences are read; this warning names neither.
    LoggerHandle quiet;
    clipRefs.anyEntryIsUninitialised(legacy() ? logger : quiet, name);
    completeGhosts();

    for (unsigned i = 0; i < sequences; ++i) {
        std::unique_ptr<XMLParser> s = parser.section("sequence", i);
        // A sequence that carries only its id is a use of the one defined
        // with that id, not a sequence of its own.
        if (!s && !legacy() && !parser.getAttributes("sequence", i).empty()) continue;
        int status = readSequence(orEmpty(s));
        if (status != 1) return status;
    }
    completeFiles();
    checkNesting();
    checkReferences();
    return 1;
}

void FCP5XMLReader::readFile(const XMLParser& fp) {
    std::vector<XMLParser::Tag> attributes = fp.attributes();
    LightweightString<char> id("..?..");
    if (!attributes.empty() && attributes[0].name == "id" && !attributes[0].value.empty())
        id = attributes[0].value;

    // Nothing can refer to a file without a length in the original reading;
    // auto-editor writes `<duration/>`, Premiere leaves it out for stills and
    // titles: by default such a file is as long as its uses need.
    LightweightString<char> durationText = leaf(fp, "duration");
    int durationFrames = 0;
    bool usable =
        fcp5read::scanTime(fp, "duration", durationFrames, check(), false) && durationFrames > 0;
    FileFacts facts;
    if (durationText.empty()) {
        if (legacy()) {
            filesWithoutLength_.insert(id.str());
            return;
        }
        facts.lengthFromUses = true;
    } else if (!usable && !legacy()) {
        facts.lengthFromUses = true;
    }
    filesSeen_.insert(id.str());

    CED2* rec = new CED2(true);
    if (LightweightString<char> url = leaf(fp, "pathurl"); !url.empty())
        rec->originLocator = fromUTF8(url);
    rec->editName = fromUTF8(leaf(fp, "name"));
    if (inside(fp, "video")) rec->hasVideo = true;
    // Version 1 documents count a stream's channels in `trackcount`.
    bool byTracks = false;
    // A count past kMostChannels is no count: the file has what its uses name.
    auto channelsOf = [&byTracks](const XMLParser& audio, int& count) {
        int n = 0;
        if (scanInt(leaf(audio, "channelcount"), n)) {
            if (n > kMostChannels) return false;
            count = n;
            return true;
        }
        byTracks = scanInt(leaf(audio, "trackcount"), n) && n <= kMostChannels;
        if (byTracks) count = n;
        return byTracks;
    };
    if (legacy()) {
        // The original reading counts the first sound stream alone.
        if (std::unique_ptr<XMLParser> audio = inside(fp, "audio"))
            channelsOf(*audio, rec->audioChannelCount);
    } else {
        // Premiere and Final Cut Pro write one `audio` a stream: a file's
        // channels are those of all its streams, in order, as `trackindex`
        // counts them.
        std::unique_ptr<XMLParser> media = fp.section("media", 0);
        std::vector<std::unique_ptr<XMLParser>> streams;
        if (media) streams = media->sections_TopLevel("audio");
        int total = 0;
        bool stated = false;
        for (const std::unique_ptr<XMLParser>& stream : streams) {
            int count = 0;
            if (stream && channelsOf(*stream, count)) {
                total = std::min(total + std::max(count, 0), kMostChannels);
                stated = true;
            }
        }
        if (stated) rec->audioChannelCount = total;
        // Final Cut Pro's version 1 counts tracks, not channels: a file of
        // two mono streams says 1, and its clips use channel 2. Such a count
        // is the least the file has; its uses say the rest.
        // A file that says nothing of its media at all (a newsroom system's
        // files hold a name, a path and a timecode) has what its uses name.
        bool silent = fp.count("media") == 0;
        if (byTracks || (!stated && (fp.count("audio") > 0 || silent))) facts.audioFromUses = true;
        // `<video/>` says there is a picture, and nothing of it.
        if (!rec->hasVideo && (fp.count("video") > 0 || silent)) facts.videoFromUses = true;
    }
    if (LightweightString<char> source = leaf(fp, "mediaSource"); !source.empty())
        facts.mediaSource = source;

    Qv::FrameRate rate = seqRate;
    if (std::unique_ptr<XMLParser> timecode = inside(fp, "timecode")) {
        const XMLParser& tp = *timecode;
        // The label is made before the file's duration is known: its end is
        // placed with what the new record holds.
        processTimecode(rec, tp, rec->duration);
        rec->shotVideoMetadata = formatOfMedium(rec->get_primaryLabel().get_MediumRoll().medium);
        rec->shotVideoMetadataSet = true;
        RateReading reading = readingOf(tp, documentRate_);
        if (legacy()) {
            // Without a rate the original reading counts at 1.0: no rate.
            double value = 1.0;
            readRate(tp, value, check());
            reading.rate = Qv::getEquivalentQvFrameRate(value);
            reading.fps = Qv::getFramesPerSecond(reading.rate);
        }
        rate = reading.rate;
        int frames = 0;
        scanInt(durationText, frames);
        rec->duration = frames / reading.fps;
        // A rate the host does not know: the shot counts in the document's.
        if (reading.fps != Qv::getFramesPerSecond(rate)) rec->rate = reading.fps;
    }
    if (facts.lengthFromUses) rec->duration = 0;
    rec->sourceMedium = getMediumRollfromInputDetails(Qv::Image::eScanProgressive, rate);

    fileRefs.addRef(id, rec, false, 0, kChanVideo);
    if (leaf(fp, "stillframe") == "TRUE") fileRefs.setIsSingleImage(id);
    if (facts.lengthFromUses || facts.audioFromUses || facts.videoFromUses ||
        !facts.mediaSource.empty())
        fileFacts_.emplace(id.str(), facts);
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

std::string FCP5XMLReader::sequenceKey(const XMLParser& sequence) {
    // A character no XML text holds keeps these keys apart from the names
    // of sub-clips, which share their map.
    for (const XMLParser::Tag& a : sequence.attributes())
        if (a.name == "id" && !a.value.empty()) return "\x01" + a.value.str();
    return "\x01@" + std::to_string(sequence.offset());
}

std::unique_ptr<XMLParser> FCP5XMLReader::clipItemById(const LightweightString<char>& id) {
    if (!document_ || id.empty()) return nullptr;
    if (!clipItemsIndexed_) {
        clipItemsIndexed_ = true;
        unsigned items = document_->count("clipitem");
        for (unsigned i = 0; i < items; ++i)
            if (std::unique_ptr<XMLParser> item = document_->section("clipitem", i))
                for (const XMLParser::Tag& a : item->attributes())
                    if (a.name == "id") clipItemsById_.emplace(a.value.str(), i);
    }
    auto it = clipItemsById_.find(id.str());
    return it == clipItemsById_.end() ? nullptr : document_->section("clipitem", it->second);
}

int FCP5XMLReader::readSequence(const XMLParser& sp) {
    CED2* rec = new CED2(false);
    rec->cookie = makeNewEditCookie();

    LightweightString<char> name = leaf(sp, "name");
    if (name.empty()) name = "NoName";
    rec->editName = fromUTF8(name);
    logger.Out("Edit \"%s\"", name.c_str());

    // By default a sequence counts in its own rate; the original reading
    // counts every sequence in the document's.
    RateReading documentRates{seqRate, seqFramesPerSecond, ticksPerSecond};
    if (!legacy()) {
        setRates(readingOf(sp, documentRate_));
        if (ticksPerSecond != Qv::getTicksPerSecond(seqRate)) rec->rate = ticksPerSecond;
    }
    struct Restore {
        FCP5XMLReader* reader;
        RateReading rates;
        ~Restore() { reader->setRates(rates); }
    } restore{this, documentRates};

    // A fixed description: xmeml's own picture characteristics are not read.
    rec->shotVideoMetadata = ShotVideoMetadata(
        Qv::DigitalVideoFormats::findByUID(Qv::Image::FormatUID(28)), Qv::Image::kFormatYUY2,
        seqRate, Qv::Image::eAspectSquare, false, Qv::Image::eScanProgressive, 8);
    rec->shotVideoMetadataSet = true;

    double seqDuration = 1.0;
    long long statedTicks = -1;
    if (LightweightString<char> d = leaf(sp, "duration"); !d.empty()) {
        int frames = 0;
        fcp5read::scanTime(sp, "duration", frames, check());
        rec->duration = frames * secondsPerTick;
        seqDuration = rec->duration;
        statedTicks = frames;
    }

    // The tracks, video last first (the document's last video track is the
    // host's first channel), then audio in order.
    struct TrackSource {
        std::unique_ptr<Track> track;
        bool isVideo;
        int number;  // as the document numbers its tracks of that kind
    };
    std::vector<TrackSource> tracks;
    std::unique_ptr<XMLParser> media = sp.section("media", 0);
    long long contentTicks = 0;
    if (media) {
        std::vector<std::unique_ptr<XMLParser>> videoTracks, audioTracks;
        std::vector<std::unique_ptr<XMLParser>> video = media->sections_TopLevel("video");
        if (!video.empty() && video[0]) videoTracks = video[0]->sections_TopLevel("track");
        std::vector<std::unique_ptr<XMLParser>> audio = media->sections_TopLevel("audio");
        if (!audio.empty() && audio[0]) audioTracks = audio[0]->sections_TopLevel("track");
        auto make = [&](const std::unique_ptr<XMLParser>& track, bool isVideo, int number) {
            const XMLParser& tp = track ? *track : emptyParser();
            std::vector<std::unique_ptr<XMLParser>> clipItems = tp.sections_TopLevel("clipitem");
            // Where each item stands in the document: one of no content
            // stands just after the item before it.
            std::vector<std::size_t> order(clipItems.size(), 0);
            std::size_t last = 0;
            // An item that carries only its id (JumpCutter writes its sound
            // so) is the item of that id that has content.
            std::vector<std::vector<XMLParser::Tag>> bare;
            for (std::size_t i = 0; i < clipItems.size(); ++i) {
                if (clipItems[i]) last = clipItems[i]->offset();
                order[i] = last;
                if (clipItems[i]) continue;
                if (bare.empty()) bare = tp.getAttributes_TopLevel("clipitem");
                LightweightString<char> id;
                for (const XMLParser::Tag& a : bare[i])
                    if (a.name == "id") id = a.value;
                if (!legacy()) clipItems[i] = clipItemById(id);
                if (!clipItems[i] && !id.empty()) pendingBare_.push_back({isVideo, number, id});
            }
            // Generators: the original reading passes them over, so that a
            // clip after a fade that leads into one is taken for the clip
            // that fade leads into. By default a generator holds its place,
            // as black.
            std::vector<std::unique_ptr<XMLParser>> passedOver;
            std::vector<bool> generator(clipItems.size(), false);
            if (tp.count("generatoritem") > 0) {
                if (legacy()) {
                    passedOver = tp.sections_TopLevel("generatoritem");
                } else {
                    struct Entry {
                        std::size_t offset;
                        std::unique_ptr<XMLParser> item;
                        bool generator;
                    };
                    std::vector<Entry> entries;
                    for (std::size_t i = 0; i < clipItems.size(); ++i)
                        entries.push_back({order[i], std::move(clipItems[i]), false});
                    for (std::unique_ptr<XMLParser>& g : tp.sections_TopLevel("generatoritem"))
                        if (g) entries.push_back({g->offset(), std::move(g), true});
                    std::stable_sort(
                        entries.begin(), entries.end(),
                        [](const Entry& a, const Entry& b) { return a.offset < b.offset; });
                    clipItems.clear();
                    generator.clear();
                    order.clear();
                    for (Entry& e : entries) {
                        clipItems.push_back(std::move(e.item));
                        generator.push_back(e.generator);
                        order.push_back(e.offset);
                    }
                }
            }
            std::vector<std::unique_ptr<XMLParser>> transitions =
                tp.sections_TopLevel("transitionitem");
            std::vector<std::size_t> transitionOrder;
            for (const std::unique_ptr<XMLParser>& t : transitions)
                transitionOrder.push_back(t ? t->offset() : 0);
            auto t = std::make_unique<Track>(std::move(clipItems), std::move(transitions), check());
            for (std::size_t i = 0; i < generator.size(); ++i) {
                t->clips[i].generator = generator[i];
                t->clips[i].order = order[i];
            }
            for (std::size_t i = 0; i < transitionOrder.size(); ++i)
                t->transitions[i].order = transitionOrder[i];
            // The original reading starts a clip that runs into a transition
            // in whichever transition it passed last, though the document
            // puts it beside another.
            if (!legacy()) t->meetNeighbours();
            for (const std::vector<TrackItem>* items : {&t->clips, &t->transitions})
                for (const TrackItem& item : *items)
                    if (item.hasText)
                        contentTicks =
                            std::max<long long>(contentTicks, std::max(item.start, item.end));
            t->generators = std::move(passedOver);
            for (const std::unique_ptr<XMLParser>& g : t->generators) {
                const XMLParser& gp = g ? *g : emptyParser();
                contentTicks = std::max<long long>(
                    contentTicks, std::max(fcp5read::timeOf(gp, "start", 0, check()),
                                           fcp5read::timeOf(gp, "end", 0, check())));
            }
            tracks.push_back({std::move(t), isVideo, number});
        };
        for (std::size_t k = videoTracks.size(); k-- > 0;)
            make(videoTracks[k], true, static_cast<int>(k + 1));
        for (std::size_t i = 0; i < audioTracks.size(); ++i)
            make(audioTracks[i], false, static_cast<int>(i + 1));
    }

    // Premiere writes `<duration>75</duration>` for a cut of 24 minutes, or
    // 0: by default a sequence is as long as what it holds.
    place_.cutAt = -1;
    if (!legacy() && contentTicks * secondsPerTick > seqDuration) {
        if (statedTicks >= 0) {
            logger.WarningOut(
                "Edit \"%s\" says it lasts %lld frames, but what it holds runs to frame %lld: "
                "it is read to its end",
                name.c_str(), statedTicks, contentTicks);
            rec->duration = contentTicks * secondsPerTick;
        }
        seqDuration = contentTicks * secondsPerTick;
    } else if (legacy() && statedTicks > 0 && statedTicks < contentTicks) {
        place_.cutAt = statedTicks;
    }

    if (std::unique_ptr<XMLParser> timecode = sp.section("timecode", 0))
        processSequenceTimecode(rec, *timecode, seqDuration);

    place_.sequence = name;
    currentSequence_ = rec;
    place_.ticks =
        ticksPerSecond > 0 && ticksPerSecond < 1000 ? static_cast<unsigned>(ticksPerSecond) : 0;
    place_.startFrame = rec->labelCount > 0 ? rec->labels[0].get_start() : 0;
    place_.dropFrame = rec->labelCount > 0 && rec->labels[0].isDropFrame();
    passedOver_.clear();

    int videoCount = 0, audioCount = 0;
    for (TrackSource& source : tracks) {
        CChannel* channel;
        if (source.isVideo) {
            channel = rec->CreateEditChannel(static_cast<unsigned>(videoCount), kChanVideo);
            logger.Out("Track V%d", ++videoCount);
            place_.track = formatText("V%d", source.number);
        } else {
            channel =
                rec->CreateEditChannel(static_cast<unsigned>(videoCount + audioCount), kChanAudio);
            logger.Out("Track A%d", ++audioCount);
            place_.track = formatText("A%d", source.number);
        }
        places_.push_back(place_);
        // Channels carry the document's names of their tracks, so that what
        // is said of them later says which track.
        if (!legacy()) channel->name = place_.track;
        for (const PendingBare& b : pendingBare_)
            if (b.isVideo == source.isVideo && b.number == source.number)
                reportLoss(lossHere("bare-reference", -1, "clip item " + b.id), true);
        for (const std::unique_ptr<XMLParser>& g : source.track->generators) {
            const XMLParser& gp = g ? *g : emptyParser();
            LightweightString<char> what = leaf(gp, "name");
            if (std::unique_ptr<XMLParser> effect = inside(gp, "effect"))
                if (LightweightString<char> n = leaf(*effect, "name"); !n.empty()) what = n;
            int start = intOf(gp, "start", 0);
            if (start < 0) start = intOf(gp, "end", 0);
            reportLoss(
                lossHere("generator", start, what.empty() ? "a generator" : "\"" + what + "\""),
                true);
        }
        int status = walkTrack(*source.track, source.isVideo, channel, seqDuration);
        if (status != 1) {
            delete rec;
            return status;
        }
        // The items of a walked track are done with: a long sequence does
        // not hold every track's at once.
        source.track.reset();
    }
    pendingBare_.clear();
    flushPassedOver();

    for (const std::unique_ptr<XMLParser>& marker : sp.sections_TopLevel("marker"))
        readMarker(marker ? *marker : emptyParser(), rec);
    seqList.append(rec);

    // A clip item that plays this sequence refers to it by its key: the
    // picture is its first channel, sound track n its n-th audio channel.
    if (!legacy()) {
        std::string key = sequenceKey(sp);
        ghostRefs.addRef(LightweightString<char>(key + "$0$"), rec, true, 0, kChanVideo);
        for (int i = 1; i <= audioCount; ++i)
            ghostRefs.addRef(LightweightString<char>(key + "$" + std::to_string(i) + "$"), rec,
                             true, static_cast<unsigned>(videoCount + i - 1), kChanAudio);
    }
    return 1;
}

void FCP5XMLReader::readMarker(const XMLParser& mp, CED2* rec) {
    LightweightString<wchar_t> name = fromUTF8(leaf(mp, "name"));
    LightweightString<wchar_t> comment = fromUTF8(leaf(mp, "comment"));
    double in = fcp5read::timeOf(mp, "in", 0, check(), false) * secondsPerTick;
    double out = -1.0;
    if (LightweightString<char> text = leaf(mp, "out"); !text.empty()) {
        int frames = 0;
        fcp5read::scanTime(mp, "out", frames, check(), false);
        if (frames != -1) out = frames * secondsPerTick;
    }
    unsigned colour = static_cast<unsigned>(intOf(mp, "red", 0) & 0xFF) << 16 |
                      static_cast<unsigned>(intOf(mp, "green", 0) & 0xFF) << 8 |
                      static_cast<unsigned>(intOf(mp, "blue", 0) & 0xFF);
    // A marker without an end stays open.
    rec->cues.emplace_back(name, comment, colour, in, kChanVideo, 0u,
                           out == -1.0 ? kCueOpenEnd : out);
}

int FCP5XMLReader::processTimecode(CED2* rec, const XMLParser& parser, double durationSeconds) {
    if (std::unique_ptr<XMLParser> reel = inside(parser, "reel"))
        if (LightweightString<char> name = leaf(*reel, "name"); !name.empty()) rec->reelId = name;
    bool dropFrame = leaf(parser, "displayformat") == "DF";
    fcp5read::DocRate docRate = fcp5read::docRateOf(parser, check());
    if (!docRate.present) return 1;
    Qv::FrameRate rate = readingOf(docRate).rate;

    // A frame number wins over the timecode text.
    if (LightweightString<char> frame = leaf(parser, "frame"); !frame.empty()) {
        int number = 0;
        fcp5read::scanTime(parser, "frame", number, check());
        rec->primaryLabel = editLabFrom(number, Qv::Image::eScanProgressive, rate, dropFrame);
        rec->primaryLabelSet = true;
    } else if (LightweightString<char> text = leaf(parser, "string"); !text.empty()) {
        EditLabel label = editLabFrom(text.c_str(), Qv::Image::eScanProgressive, rate, dropFrame);
        // Text that is no timecode would start the clip's timecode at zero.
        if (!label.is_valid())
            check()->unusable(parser, "string", text, Damage::NotATimecode, false);
        label.setEndSample(label.posn_to_sample(durationSeconds));
        rec->primaryLabel = label;
        rec->primaryLabelSet = true;
    }
    return 1;
}

int FCP5XMLReader::processSequenceTimecode(CED2* rec, const XMLParser& parser,
                                           double durationSeconds) {
    // Only the sequence's source timecode counts.
    if (LightweightString<char> source = leaf(parser, "source");
        !source.empty() && !(source == "source"))
        return 1;
    if (std::unique_ptr<XMLParser> reel = inside(parser, "reel"))
        if (LightweightString<char> name = leaf(*reel, "name"); !name.empty()) rec->reelId = name;
    bool dropFrame = leaf(parser, "displayformat") == "DF";
    fcp5read::DocRate docRate = fcp5read::docRateOf(parser, check());
    if (!docRate.present) return 1;
    Qv::FrameRate rate = readingOf(docRate).rate;

    EditLabel label;
    if (LightweightString<char> frame = leaf(parser, "frame"); !frame.empty()) {
        int number = 0;
        fcp5read::scanTime(parser, "frame", number, check());
        label = editLabFrom(number, Qv::Image::eScanProgressive, rate, dropFrame);
    } else if (LightweightString<char> text = leaf(parser, "string"); !text.empty()) {
        label = editLabFrom(text.c_str(), Qv::Image::eScanProgressive, rate, dropFrame);
        // Text that is no timecode would start the sequence at 00:00:00:00.
        if (!label.is_valid())
            check()->unusable(parser, "string", text, Damage::NotATimecode, true);
        label.setEndSample(label.posn_to_sample(durationSeconds));
    } else {
        return 1;
    }
    label.set_MediumRoll(
        MediumRollIdent{getMediumRollfromOutputDetails(Qv::Image::eScanProgressive, rate), 1});
    rec->addLabel(label);
    return 1;
}

bool FCP5XMLReader::clipItemReferencesSubClip(const XMLParser& item) {
    return present(item, "subclipmasterid") || present(item, "subclipinfo");
}

}  // namespace XML
