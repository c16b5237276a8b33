// The fcpxml writer where every time counts whole frames, as Final Cut Pro X
// reads it (xml_legacy_interchange at 0).
//
// Final Cut Pro X lays a storyline end to end: each clip or gap starts where
// the one before it ends, on the frame grid of the sequence, and a transition
// sits between two items, centred on the cut between them, with each of them
// reaching half its length into it out of sight. The host keeps a transition
// as a cel of its own between the two it joins, so each channel is first
// planned as a storyline in frames of the sequence: black becomes gaps,
// material that a clip's media lacks is cut off into gaps, and each
// transition is settled between its neighbours or replaced by a gap. The
// first video channel is the primary storyline; every other channel, video
// above (lanes 1, 2, ...) and sound below (lanes -1, -2, ...), is a connected
// storyline anchored at the start of the primary one's first item. A cel of a
// nested sequence is a compound clip (a ref-clip of a media resource that
// holds the sequence).
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "fcpxml/FCPXXMLWriter.h"
#include "host/Config.h"
#include "host/Edit.h"
#include "host/Paths.h"

namespace XML {

namespace {

bool isBlackCel(const CED2Cell* cel) {
    return cel && cel->cookie.isMagic() && cel->cookie.isBlack();
}
bool isTransitionCel(const CED2Cell* cel) {
    return cel && cel->cookie.isMagic() && !cel->cookie.isBlack();
}

// A frame duration as a fraction of a second: 1001/30000 at 29.97.
struct FrameDuration {
    std::int64_t num = 1, den = 25;
};
FrameDuration frameDurationOf(Qv::FrameRate rate) {
    if (!Qv::isKnownFrameRate(rate)) return {};
    std::int64_t ticks = Qv::getTicksPerSecond(rate);
    if (Qv::has1001Factor(rate)) return {1001, ticks * 1000};
    return {1, ticks};
}

// Within a millionth of a second: times that meet on paper meet.
constexpr double kSlack = 1e-6;

}  // namespace

LightweightString<wchar_t> FCPXXMLWriter::frameTime(std::int64_t frames, Qv::FrameRate rate) {
    if (frames == 0) return L"0s";
    FrameDuration d = frameDurationOf(rate);
    char text[64];
    std::snprintf(text, sizeof text, "%lld/%llds", static_cast<long long>(frames * d.num),
                  static_cast<long long>(d.den));
    return Qv::WStringFromAscii(text);
}

std::int64_t FCPXXMLWriter::frames(double celTime) const {
    double f = nearestFrame(celTime * static_cast<double>(Qv::getTicksPerSecond(seqRate)));
    // A time that is no number, or lies before the start, counts no frames.
    if (!std::isfinite(f) || f < 0) return 0;
    return static_cast<std::int64_t>(std::min(f, 1e12));
}

std::int64_t FCPXXMLWriter::assetFrames(const AssetRefMap::AssetRefMapRec& asset,
                                        double real) const {
    double f = nearestFrame(real * Qv::getFramesPerSecond(asset.grid));
    if (!std::isfinite(f)) return 0;
    return static_cast<std::int64_t>(std::clamp(f, -1e12, 1e12));
}

Qv::FrameRate FCPXXMLWriter::footageRate(const CED2* shot) const {
    const EditLabel& label = shot->get_primaryLabel();
    if (label.is_valid()) {
        Qv::FrameRate rate = getFrameRatefromMedium(label.get_MediumRoll().medium);
        if (!Qv::isKnownFrameRate(rate)) rate = label.get_rate();
        // Drop frame counts 1000/1001 rates only.
        if (label.isDropFrame() && rate == Qv::eFrameRate30) rate = Qv::eFrameRate29_97;
        if (label.isDropFrame() && rate == Qv::eFrameRate60) rate = Qv::eFrameRate59_94;
        if (Qv::isKnownFrameRate(rate)) return rate;
    }
    if (shot->edit && Qv::isKnownFrameRate(shot->edit->getSourceFrameRate()))
        return shot->edit->getSourceFrameRate();
    Qv::FrameRate rate = Qv::getEquivalentQvFrameRate(shot->rate);
    return Qv::isKnownFrameRate(rate) ? rate : seqRate;
}

// ---- Registration ----

void FCPXXMLWriter::registerDefaults(CED2List& shots, CED2List& ghostList) {
    ghosts = &ghostList;
    formatMap.clear();
    assetMap.clear();
    cookieMap.clear();
    for (CED2List* list : {&shots, &ghostList})
        for (CED2* r : each<CED2>(*list))
            records_.try_emplace(r->cookie.asWString(), r);

    for (CED2* shot : each<CED2>(shots)) {
        if (shot->excludedFromExport) continue;
        CED2Cell* cel = shot->firstChannel() ? shot->firstChannel()->firstCel() : nullptr;
        EditPtr edit;
        edit.i_open(shot->cookie);
        LightweightString<wchar_t> locator = mediaLocator(edit, cel);
        edit.i_close();
        if (locator.empty() && !options.useTrackOriginFilename) {
            // fcpxml has no clip without a file; its uses become gaps. The
            // original writer gave up the whole export here.
            LightweightString<char> name = toUTF8(shot->get_editName());
            log.WarningOut("shot \"%s\" has no media file: fcpxml cannot hold it\n", name.c_str());
            log.WarningOut(" - Its uses become gaps\n");
            LossRecord r;
            r.kind = "shot-without-file";
            r.detail = name;
            log.LossOut(r);
            continue;
        }
        LightweightString<wchar_t> url;
        if (locator_IsLocal(locator)) {
            LightweightString<wchar_t> unc;
            if (locator_LocalToUNC(locator, unc)) locator_UNCToURL(unc, url);
        } else {
            locator_UNCToURL(locator, url);
        }
        LogBoth("FCPX-xml export clip - locator <%S>\n", url.c_str());

        LightweightString<wchar_t> id = assetMap.addRef(shot, url, L"", shot->cookie);
        AssetRefMap::AssetRefMapRec* asset = assetMap.find(id);
        if (asset->grid == Qv::eFrameRateNone) {
            // A sound file counts the sequence's frames, as Final Cut Pro X
            // conforms it; a picture its own.
            bool video = shot->GetNumVideoChannels() > 0;
            asset->grid = video ? footageRate(shot) : seqRate;
            const EditLabel& label = shot->get_primaryLabel();
            double start = 0;
            if (label.is_valid()) {
                Qv::FrameRate labelRate = footageRate(shot);
                start =
                    label.get_start() /
                    Qv::getFramesPerSecond(Qv::isKnownFrameRate(labelRate) ? labelRate : seqRate);
                if (labelRate == asset->grid) start = -1;
            }
            asset->startFrames = start < 0 ? label.get_start() : assetFrames(*asset, start);
            asset->lengthFrames = assetFrames(*asset, shot->get_editLength());
            if (asset->lengthFrames < 0) asset->lengthFrames = 0;
            asset->start = frameTime(asset->startFrames, asset->grid);
            asset->duration = frameTime(asset->lengthFrames, asset->grid);
            asset->startTime =
                static_cast<double>(asset->startFrames) / Qv::getFramesPerSecond(asset->grid);
            asset->durationTime =
                static_cast<double>(asset->lengthFrames) / Qv::getFramesPerSecond(asset->grid);
            asset->hasVideo = video ? L"1" : L"0";
            asset->format =
                video ? formatMap.formatFor(shot->get_shotVideoMetadata(), asset->grid) : L"";
        }
        for (CChannel* ch : each<CChannel>(shot->channels))
            if (CED2Cell* first = ch->firstCel())
                cookieMap.addRef(shot->cookie, first->cookie.channel, id, shot->rate, 0.0);
    }
    for (CED2* ghost : each<CED2>(ghostList))
        if (!ghost->excludedFromExport) registerSubclip(ghost);
}

void FCPXXMLWriter::registerDeepSubclips() {
    std::vector<CED2*> pending;
    for (CED2List* list : deepGhosts_)
        for (CED2* r : each<CED2>(*list)) {
            records_.try_emplace(r->cookie.asWString(), r);
            if (!r->excludedFromExport && r->edit && r->edit->getLogType() == kLogTypeSubclip)
                pending.push_back(r);
        }
    if (ghosts)
        for (CED2* r : each<CED2>(*ghosts))
            if (!r->excludedFromExport && r->edit && r->edit->getLogType() == kLogTypeSubclip)
                pending.push_back(r);
    // A sub-clip of a sub-clip plays what its first cel plays in the other,
    // from as far in again: each pass settles those whose master is settled.
    for (int pass = 0; pass < 16 && !pending.empty(); ++pass) {
        std::vector<CED2*> left;
        for (CED2* ghost : pending) {
            CED2Cell* cel = ghost->firstChannel() ? ghost->firstChannel()->firstCel() : nullptr;
            if (!cel || cel->cookie.isMagic()) continue;
            LightweightString<wchar_t> assetId;
            double offset = 0, rate = 1.0;
            Cookie master = convertCookie(cel->cookie, kCookieEdit, 255);
            bool found = false;
            if (assetMap.findRef(master, assetId)) {
                found = true;
            } else {
                found = cookieMap.findRef(master, cel->cookie.channel, assetId, offset, rate) ||
                        cookieMap.findRef(master, 0, assetId, offset, rate);
                if (!found) {
                    left.push_back(ghost);
                    continue;
                }
            }
            for (CChannel* ch : each<CChannel>(ghost->channels))
                if (CED2Cell* first = ch->firstCel())
                    cookieMap.addRef(ghost->cookie, first->cookie.channel, assetId, ghost->rate,
                                     offset + cel->sourceIn);
        }
        if (left.size() == pending.size()) break;
        pending = std::move(left);
    }
}

void FCPXXMLWriter::registerNested(CED2* sequence) {
    if (sequenceFormats_.count(sequence)) return;
    Qv::FrameRate rate = seqRate;
    if (sequence->edit && Qv::isKnownFrameRate(sequence->edit->getFrameRate()))
        rate = sequence->edit->getFrameRate();
    ShotVideoMetadata picture =
        sequence->edit ? sequence->edit->getVideoMetadata() : sequence->get_shotVideoMetadata();
    sequenceFormats_[sequence] = formatMap.formatFor(picture, rate);
    const EditLabel& label = sequence->get_primaryLabel();
    compoundStarts_[sequence] =
        label.is_valid() ? labelFrames(label, footageRate(sequence), rate) : 0;
    open_.push_back(sequence);
    for (CChannel* ch : each<CChannel>(sequence->channels))
        for (CED2Cell* cel = ch->firstCel(); cel; cel = cel->next()) {
            if (cel->cookie.isMagic()) continue;
            auto it = records_.find(convertCookie(cel->cookie, kCookieEdit, 255).asWString());
            if (it == records_.end()) continue;
            CED2* r = it->second;
            if (!r->isGhost || !r->edit || r->edit->getLogType() == kLogTypeSubclip ||
                r->excludedFromExport || compoundIds_.count(r) ||
                std::find(open_.begin(), open_.end(), r) != open_.end())
                continue;
            registerNested(r);
            // Each compound clip after the ones it holds.
            compoundIds_[r] =
                L"cc" + Qv::WStringFromInteger(static_cast<long>(compounds_.size() + 1));
            compounds_.push_back(r);
        }
    open_.pop_back();
}

// ---- Resources ----

void FCPXXMLWriter::writeFrameResources() {
    xmlElement resources(xmlFile, "resources");
    for (const VidFormatRefMap::VidFormatRefMapRec& f : formatMap.records()) {
        AttribList a{makeAttrib("id", f.id), makeAttrib("name", f.name)};
        if (!f.frameDuration.empty()) a.push_back(makeAttrib("frameDuration", f.frameDuration));
        if (f.width > 0 && f.height > 0) {
            a.push_back(makeAttrib("width", Qv::WStringFromInteger(f.width)));
            a.push_back(makeAttrib("height", Qv::WStringFromInteger(f.height)));
        }
        xmlInlineElement(xmlFile, "format", a);
    }
    writeEffects();
    for (const AssetRefMap::AssetRefMapRec& a : assetMap.records()) {
        AttribList at{makeAttrib("id", a.id),
                      makeAttrib("src", a.src),
                      makeAttrib("hasAudio", a.hasAudio),
                      makeAttrib("audioSources", a.audioSources),
                      makeAttrib("start", a.start),
                      makeAttrib("name", a.name),
                      makeAttrib("duration", a.duration)};
        // A sound file has no picture format.
        if (!a.format.empty()) at.push_back(makeAttrib("format", a.format));
        at.push_back(makeAttrib("audioChannels", a.audioChannels));
        at.push_back(makeAttrib("hasVideo", a.hasVideo));
        xmlInlineElement(xmlFile, "asset", at);
    }
    for (CED2* sequence : compounds_)
        writeCompound(sequence);
}

void FCPXXMLWriter::writeCompound(CED2* sequence) {
    xmlElement media(xmlFile, "media",
                     AttribList{makeAttrib("id", compoundIds_[sequence]),
                                makeAttrib("name", sequence->get_editName())});
    writeFrameSequence(sequence, sequenceFormats_[sequence]);
}

// ---- Sequences ----

void FCPXXMLWriter::writeFrameSequence(CED2* sequence, const LightweightString<wchar_t>& formatId) {
    // A nested sequence counts frames of its own rate.
    Qv::FrameRate outerRate = seqRate;
    if (sequence->edit && Qv::isKnownFrameRate(sequence->edit->getFrameRate()))
        seqRate = sequence->edit->getFrameRate();
    CED2* outer = current_;
    std::int64_t outerTc = tcFrames_;
    std::vector<std::pair<Storyline, bool>> outerLanes = std::move(lanes_);
    std::vector<CChannel*> outerChannels = std::move(laneChannels_);
    std::vector<int> outerNumbers = std::move(transitionNumbers_);
    current_ = sequence;
    open_.push_back(sequence);

    const EditLabel& label = sequence->get_primaryLabel();
    tcFrames_ = 0;
    bool dropFrame = false;
    if (label.is_valid()) {
        tcFrames_ = labelFrames(label, footageRate(sequence), seqRate);
        dropFrame = label.isDropFrame() && Qv::has1001Factor(seqRate);
    }
    std::int64_t length = frames(sequence->get_editLength());

    lanes_.clear();
    laneChannels_.clear();
    for (EditChanType type : {kChanVideo, kChanAudio})
        for (CChannel* ch : each<CChannel>(sequence->channels))
            if (ch->chanType == type) {
                lanes_.emplace_back(planStoryline(ch), type == kChanVideo);
                laneChannels_.push_back(ch);
            }
    // The primary storyline carries the others: without a picture of its own
    // it is one gap of the sequence's length.
    bool primaryVideo = !lanes_.empty() && lanes_.front().second;
    if (!primaryVideo) {
        lanes_.insert(lanes_.begin(), {Storyline{}, true});
        laneChannels_.insert(laneChannels_.begin(), nullptr);
    }
    transitionNumbers_.assign(lanes_.size(), 0);
    Storyline& primary = lanes_.front().first;
    if (primary.empty() && length > 0) {
        Item gap;
        gap.out = length;
        primary.push_back(gap);
    }

    {
        xmlElement element(xmlFile, "sequence",
                           AttribList{makeAttrib("format", formatId),
                                      makeAttrib("duration", frameTime(length, seqRate)),
                                      makeAttrib("tcStart", frameTime(tcFrames_, seqRate)),
                                      makeAttrib("tcFormat", dropFrame ? L"DF" : L"NDF")});
        xmlElement spine(xmlFile, "spine");
        writeStoryline(0);
    }

    open_.pop_back();
    lanes_ = std::move(outerLanes);
    laneChannels_ = std::move(outerChannels);
    transitionNumbers_ = std::move(outerNumbers);
    current_ = outer;
    tcFrames_ = outerTc;
    seqRate = outerRate;
}

std::int64_t FCPXXMLWriter::labelFrames(const EditLabel& label, Qv::FrameRate labelRate,
                                        Qv::FrameRate rate) const {
    if (Qv::getTicksPerSecond(labelRate) == Qv::getTicksPerSecond(rate))
        return std::max(0, label.get_start());
    // Another rate: the same moment, to the nearest frame.
    double f = nearestFrame(label.get_start() / Qv::getFramesPerSecond(labelRate) *
                            Qv::getFramesPerSecond(rate));
    return std::isfinite(f) && f > 0 ? static_cast<std::int64_t>(std::min(f, 1e12)) : 0;
}

LightweightString<char> FCPXXMLWriter::timecodeOfFrame(std::int64_t frame) const {
    if (!current_ || !current_->get_primaryLabel().is_valid()) return {};
    return current_->get_primaryLabel().get_string(
        static_cast<int>(std::min<std::int64_t>(frame, 1 << 30)));
}

void FCPXXMLWriter::tellLoss(const char* kind, CChannel* channel, std::int64_t frame,
                             const char* first, const char* second, const char* detail) {
    LightweightString<char> track = channel ? channel->name : LightweightString<char>();
    LightweightString<char> tc = timecodeOfFrame(frame);
    log.WarningOut("%s at track <%s> timecode <%s>\n", first, track.c_str(), tc.c_str());
    log.WarningOut(" - %s\n", second);
    LossRecord r = lossAt(kind, track, tc, detail);
    r.sequence = current_ ? toUTF8(current_->get_editName()) : LightweightString<char>();
    r.frame = frame;
    log.LossOut(r);
}

FCPXXMLWriter::Storyline FCPXXMLWriter::planStoryline(CChannel* channel) {
    Storyline line;
    const double fps = Qv::getFramesPerSecond(seqRate);
    auto gap = [&](std::int64_t a, std::int64_t b) {
        if (b <= a) return;
        if (!line.empty() && line.back().kind == Item::Gap && line.back().out == a) {
            line.back().out = b;
            return;
        }
        Item g;
        g.in = a;
        g.out = b;
        line.push_back(g);
    };

    std::int64_t pos = 0;
    for (CED2Cell* cel = channel->firstCel(); cel; cel = cel->next()) {
        std::int64_t in = frames(cel->editIn), out = frames(cel->editOut);
        if (in < pos) {
            if (out > pos && !cel->cookie.isMagic())
                tellLoss("clip-shortened", channel, in,
                         "Badly defined segment - starts before the end of the one before.",
                         "It starts where the one before ends",
                         "overlapped the item before it; it starts where that one ends");
            in = pos;
        }
        if (out < in) out = in;
        gap(pos, in);
        pos = std::max(pos, out);
        if (isBlackCel(cel)) {
            gap(in, out);
            continue;
        }
        if (isTransitionCel(cel)) {
            Item t;
            t.kind = Item::Transition;
            t.in = in;
            t.out = out;
            t.cel = cel;
            line.push_back(t);
            continue;
        }
        if (out == in) continue;

        // A material cel: a clip of an asset, or a compound clip.
        Item item;
        item.cel = cel;
        item.in = in;
        item.out = out;
        Cookie edit = convertCookie(cel->cookie, kCookieEdit, 255);
        auto record = records_.find(edit.asWString());
        CED2* r = record == records_.end() ? nullptr : record->second;
        double materialLength;
        if (r && r->isGhost && r->edit && r->edit->getLogType() != kLogTypeSubclip) {
            if (std::find(open_.begin(), open_.end(), r) != open_.end() || !compoundIds_.count(r)) {
                tellLoss("clip-as-black", channel, in,
                         "Badly defined segment - a sequence that holds itself.",
                         "It is replaced with black/silence", "a sequence that holds itself");
                gap(in, out);
                continue;
            }
            item.kind = Item::Compound;
            item.nested = r;
            item.name = r->get_editName();
            item.sourceAt = realSeconds(cel->sourceIn, seqRate);
            materialLength = realSeconds(r, r->get_editLength());
        } else {
            LightweightString<wchar_t> assetId;
            double offset = 0, rate = 1.0;
            if (!cookieMap.findRef(edit, cel->cookie.channel, assetId, offset, rate) ||
                !assetMap.find(assetId)) {
                // Material that is not among the shots leaves a gap.
                gap(in, out);
                continue;
            }
            item.kind = Item::Clip;
            item.asset = assetMap.find(assetId);
            item.name = r ? r->get_editName() : item.asset->name;
            item.sourceAt = realSeconds(offset + cel->sourceIn, seqRate);
            item.sourceChannel = std::max(1, static_cast<int>(cel->cookie.channel));
            materialLength = item.asset->durationTime;
        }
        item.materialLength = materialLength;

        // What the media lacks before its first frame or after its last is
        // black.
        // Counts of frames that no cel can need more of than it has.
        auto bounded = [&](double frames) {
            if (std::isnan(frames)) return std::int64_t(0);
            return static_cast<std::int64_t>(
                std::clamp(frames, -1.0, static_cast<double>(out - in)));
        };
        std::int64_t first = in, last = out;
        if (item.sourceAt < -kSlack) first = in + bounded(std::ceil(-item.sourceAt * fps - kSlack));
        double end = item.sourceAt + static_cast<double>(out - in) / fps;
        if (end > materialLength + kSlack)
            last = in + bounded(std::floor((materialLength - item.sourceAt) * fps + kSlack));
        // A place in the media that is no number has no material.
        if (!std::isfinite(item.sourceAt) || !std::isfinite(materialLength)) last = first;
        if (last <= first) {
            tellLoss("clip-as-black", channel, in,
                     "Badly defined segment - none of it lies within its clip.",
                     "Bad section replaced with black/silence",
                     "plays none of its media; written as black");
            gap(in, out);
            continue;
        }
        if (first > in) {
            gap(in, first);
            tellLoss("gap-added", channel, in, "Insufficient source material",
                     "A black/silent segment has been added", "the clip's media is too short");
        }
        item.sourceAt += static_cast<double>(first - in) / fps;
        item.in = first;
        item.out = last;
        line.push_back(item);
        if (last < out) {
            gap(last, out);
            tellLoss("gap-added", channel, last, "Insufficient source material",
                     "A black/silent segment has been added", "the clip's media is too short");
        }
    }
    settleTransitions(line, channel);
    return line;
}

void FCPXXMLWriter::settleTransitions(Storyline& line, CChannel* channel) {
    const double fps = Qv::getFramesPerSecond(seqRate);
    auto material = [](const Item* x) {
        return x && (x->kind == Item::Clip || x->kind == Item::Compound);
    };
    for (std::size_t i = 0; i < line.size(); ++i) {
        if (line[i].kind != Item::Transition) continue;
        Item* prev = i > 0 ? &line[i - 1] : nullptr;
        Item* next = i + 1 < line.size() ? &line[i + 1] : nullptr;
        Item& t = line[i];
        // No room for two transitions in a row: the second becomes a gap.
        if (prev && prev->kind == Item::Transition) {
            t.kind = Item::Gap;
            continue;
        }
        if (!material(prev) && !material(next)) {
            tellLoss("transition-dropped", channel, t.in, "TRANSITION joins no clip.",
                     "It is left out", "black or nothing on either side");
            t.kind = Item::Gap;
            continue;
        }
        // Centred on its cut on a whole frame: an odd length loses a frame.
        std::int64_t length = t.out - t.in;
        std::int64_t duration = length - length % 2;
        // The clip before plays on under it to its end, the clip after from
        // its start: both need that material.
        bool enough = duration > 0;
        if (enough && material(prev))
            enough = prev->sourceAt + static_cast<double>(t.in + duration - prev->in) / fps <=
                     prev->materialLength + kSlack;
        if (enough && material(next))
            enough = next->sourceAt - static_cast<double>(next->in - t.in) / fps >= -kSlack;
        if (!enough) {
            tellLoss("transition-removed", channel, t.in, "Insufficient material for TRANSITION",
                     "Transition has been replaced with black/silence",
                     "not enough material on either side");
            t.kind = Item::Gap;
            continue;
        }
        if (duration < length)
            tellLoss("transition-shortened", channel, t.in,
                     "TRANSITION lasts an odd number of frames,",
                     "It is shortened by one to be centred on its cut", "one frame shorter");
        std::int64_t cut = t.in + duration / 2;
        std::int64_t oldOut = t.out;
        t.out = t.in + duration;
        std::int64_t tin = t.in;
        // What follows starts at the cut; nothing, or another transition, is
        // a gap there.
        if (next && next->kind != Item::Transition) {
            if (material(next)) next->sourceAt -= static_cast<double>(next->in - cut) / fps;
            next->in = cut;
        } else {
            Item g;
            g.in = cut;
            g.out = oldOut;
            line.insert(line.begin() + static_cast<std::ptrdiff_t>(i) + 1, g);
        }
        if (prev) {
            line[i - 1].out = cut;
        } else {
            Item g;
            g.in = tin;
            g.out = cut;
            line.insert(line.begin() + static_cast<std::ptrdiff_t>(i), g);
            ++i;
        }
    }
    // Gaps that now touch are one; nothing is left that lasts no time.
    Storyline tidy;
    for (Item& item : line) {
        if (item.kind != Item::Transition && item.out <= item.in) continue;
        if (item.kind == Item::Gap && !tidy.empty() && tidy.back().kind == Item::Gap &&
            tidy.back().out == item.in) {
            tidy.back().out = item.out;
            continue;
        }
        tidy.push_back(item);
    }
    line = std::move(tidy);
}

Qv::FrameRate FCPXXMLWriter::localGrid(const Item& item) const {
    if (item.kind == Item::Clip) return item.asset->grid;
    if (item.kind == Item::Compound && item.nested->edit &&
        Qv::isKnownFrameRate(item.nested->edit->getFrameRate()))
        return item.nested->edit->getFrameRate();
    return seqRate;
}

std::int64_t FCPXXMLWriter::localFrames(const Item& item, std::int64_t at) const {
    double fps = Qv::getFramesPerSecond(seqRate);
    double real = item.sourceAt + static_cast<double>(at - item.in) / fps;
    if (item.kind == Item::Clip) return item.asset->startFrames + assetFrames(*item.asset, real);
    if (item.kind == Item::Compound) {
        // A compound clip's time is its sequence's, from its timecode.
        auto base = compoundStarts_.find(item.nested);
        std::int64_t start = base == compoundStarts_.end() ? 0 : base->second;
        double f = nearestFrame(real * Qv::getFramesPerSecond(localGrid(item)));
        return start + static_cast<std::int64_t>(std::isfinite(f) ? std::clamp(f, -1e12, 1e12) : 0);
    }
    return at - item.in;
}

void FCPXXMLWriter::writeStoryline(std::size_t lane) {
    const Storyline& line = lanes_[lane].first;
    bool video = lanes_[lane].second;
    CChannel* channel = laneChannels_[lane];
    for (std::size_t i = 0; i < line.size(); ++i)
        writeItem(line[i], lane, video, channel, lane == 0 && i == 0);
}

void FCPXXMLWriter::writeItem(const Item& item, std::size_t lane, bool video, CChannel* channel,
                              bool anchor) {
    // The primary storyline counts from the sequence's timecode, a
    // connected one from its own start.
    std::int64_t base = lane == 0 ? tcFrames_ : 0;
    LightweightString<wchar_t> offset = frameTime(base + item.in, seqRate);
    LightweightString<wchar_t> duration = frameTime(item.out - item.in, seqRate);
    Qv::FrameRate grid = localGrid(item);

    if (item.kind == Item::Transition) {
        LightweightString<char> name;
        if (video)
            name = formatText("trans_%s_%d", channel ? channel->name.c_str() : "",
                              ++transitionNumbers_[lane]);
        xmlElement transition(
            xmlFile, "transition",
            AttribList{makeAttrib("name", video ? fromUTF8(name)
                                                : LightweightString<wchar_t>(L"crossfade")),
                       makeAttrib("offset", offset), makeAttrib("duration", duration)});
        if (!video) {
            xmlInlineElement(
                xmlFile, "filter-audio",
                AttribList{makeAttrib("ref", L"fx3"), makeAttrib("name", L"Audio Crossfade")});
            return;
        }
        // Every wipe is the one wipe effect; its pattern and direction are lost.
        bool wipe = item.cel->GetSMPTEWipeCode() >= 0;
        xmlInlineElement(xmlFile, "filter-video",
                         AttribList{makeAttrib("ref", wipe ? L"fx2" : L"fx1"),
                                    makeAttrib("name", wipe ? L"Wipe" : L"Cross Dissolve")});
        return;
    }

    LightweightString<wchar_t> start = frameTime(localFrames(item, item.in), grid);
    if (item.kind == Item::Gap) {
        xmlElement gap(xmlFile, "gap",
                       AttribList{makeAttrib("name", L"Gap"), makeAttrib("offset", offset),
                                  makeAttrib("duration", duration), makeAttrib("start", start)});
        if (anchor) writeAnchored(item);
        if (lane == 0) writeItemMarkers(item);
        return;
    }
    if (item.kind == Item::Compound) {
        xmlElement ref(
            xmlFile, "ref-clip",
            AttribList{makeAttrib("name", item.name), makeAttrib("ref", compoundIds_[item.nested]),
                       makeAttrib("offset", offset), makeAttrib("duration", duration),
                       makeAttrib("start", start),
                       makeAttrib("srcEnable", video ? L"video" : L"audio")});
        if (anchor) writeAnchored(item);
        if (lane == 0) writeItemMarkers(item);
        return;
    }

    const AssetRefMap::AssetRefMapRec& asset = *item.asset;
    xmlElement clip(xmlFile, "clip",
                    AttribList{makeAttrib("name", item.name), makeAttrib("offset", offset),
                               makeAttrib("duration", duration), makeAttrib("start", start),
                               makeAttrib("enabled", L"1")});
    if (video) {
        xmlInlineElement(
            xmlFile, "video",
            AttribList{makeAttrib("ref", asset.id), makeAttrib("offset", asset.start),
                       makeAttrib("start", asset.start), makeAttrib("duration", asset.duration)});
    } else {
        // The channel of the file that the clip plays.
        xmlInlineElement(
            xmlFile, "audio",
            AttribList{makeAttrib("ref", asset.id), makeAttrib("offset", asset.start),
                       makeAttrib("start", asset.start), makeAttrib("duration", asset.duration),
                       makeAttrib("srcCh", Qv::WStringFromInteger(item.sourceChannel))});
        if (channel && channel->hasTrackLevels && !channel->levels.isEmpty())
            writeItemLevels(item, channel);
    }
    if (anchor) writeAnchored(item);
    if (lane == 0) writeItemMarkers(item);
}

void FCPXXMLWriter::writeAnchored(const Item& anchor) {
    // Connected storylines hang from the start of the first item: video
    // above it, sound below.
    LightweightString<wchar_t> at = frameTime(localFrames(anchor, anchor.in), localGrid(anchor));
    int above = 0, below = 0;
    for (std::size_t lane = 1; lane < lanes_.size(); ++lane) {
        // A storyline of nothing but gaps says nothing.
        const Storyline& line = lanes_[lane].first;
        if (std::all_of(line.begin(), line.end(),
                        [](const Item& i) { return i.kind == Item::Gap; }))
            continue;
        int number = lanes_[lane].second ? ++above : -++below;
        xmlElement spine(xmlFile, "spine",
                         AttribList{makeAttrib("lane", Qv::WStringFromInteger(number)),
                                    makeAttrib("offset", at)});
        writeStoryline(lane);
    }
}

namespace {

// The entries of a sorted frame index with lo <= frame < hi, in the order
// they were added.
std::vector<std::size_t> within(const std::vector<std::pair<std::int64_t, std::size_t>>& index,
                                std::int64_t lo, std::int64_t hi) {
    auto from = std::lower_bound(index.begin(), index.end(), std::make_pair(lo, std::size_t(0)));
    std::vector<std::size_t> out;
    for (auto it = from; it != index.end() && it->first < hi; ++it)
        out.push_back(it->second);
    std::sort(out.begin(), out.end());
    return out;
}

}  // namespace

const FCPXXMLWriter::FrameIndex& FCPXXMLWriter::cueIndex() {
    auto [it, fresh] = cueFrames_.try_emplace(current_);
    if (fresh) {
        for (std::size_t i = 0; i < current_->cues.size(); ++i)
            // A time that is no number has no place.
            if (std::isfinite(current_->cues[i].in))
                it->second.emplace_back(frames(current_->cues[i].in), i);
        std::sort(it->second.begin(), it->second.end());
    }
    return it->second;
}

const FCPXXMLWriter::LevelIndex& FCPXXMLWriter::levelIndex(CChannel* channel) {
    auto [it, fresh] = levelFrames_.try_emplace(channel);
    if (fresh) {
        double length = current_->get_editLength();
        for (CED2TrackLevel* level : each<CED2TrackLevel>(channel->levels)) {
            if (std::isfinite(level->position * length))
                it->second.frames.emplace_back(frames(level->position * length),
                                               it->second.levels.size());
            it->second.levels.push_back(level);
        }
        std::sort(it->second.frames.begin(), it->second.frames.end());
    }
    return it->second;
}

void FCPXXMLWriter::writeItemMarkers(const Item& item) {
    if (!current_ || item.kind == Item::Transition) return;
    Qv::FrameRate grid = localGrid(item);
    for (std::size_t i : within(cueIndex(), item.in, item.out)) {
        const Ced2Cue& cue = current_->cues[i];
        std::int64_t at = frames(cue.in);
        std::int64_t from = localFrames(item, at);
        std::int64_t length = 1;
        if (cue.out != kCueOpenEnd && cue.out > cue.in) {
            std::int64_t to = localFrames(item, frames(cue.out));
            length = std::max<std::int64_t>(1, to - from);
        }
        xmlInlineElement(xmlFile, "marker",
                         AttribList{makeAttrib("start", frameTime(from, grid)),
                                    makeAttrib("duration", frameTime(length, grid)),
                                    makeAttrib("value", cue.name + L" - " + cue.comment)});
    }
}

void FCPXXMLWriter::writeItemLevels(const Item& item, CChannel* channel) {
    double length = current_->get_editLength();
    bool limit = config_int("xml_export_limit_to_6dB", 0) != 0;
    const LevelIndex& index = levelIndex(channel);
    std::vector<std::size_t> hits = within(index.frames, item.in, item.out);
    if (hits.empty()) return;
    std::vector<const CED2TrackLevel*> counted;
    for (std::size_t i : hits)
        counted.push_back(index.levels[i]);
    xmlElement source(xmlFile, "audio-source",
                      AttribList{makeAttrib("srcCh", Qv::WStringFromInteger(item.sourceChannel))});
    xmlElement volume(xmlFile, "adjust-volume");
    xmlElement param(xmlFile, "param", AttribList{makeAttrib("name", L"amount")});
    xmlElement animation(xmlFile, "keyframeAnimation");
    for (const CED2TrackLevel* level : counted) {
        // Whole decibels, cut toward zero; silence is Final Cut Pro X's
        // quietest, -96 dB.
        float dB = level->value > 0 ? 20.0f * std::log10(level->value) : -96.0f;
        int whole = limit && dB > 6.0f ? 6 : std::max(-96, truncateToInt32(dB));
        char value[20];
        std::snprintf(value, sizeof value, "%ddB", whole);
        std::int64_t at = frames(level->position * length);
        xmlInlineElement(
            xmlFile, "keyframe",
            AttribList{makeAttrib("time", frameTime(localFrames(item, at), localGrid(item))),
                       makeAttrib("value", Qv::WStringFromAscii(value))});
    }
}

}  // namespace XML
