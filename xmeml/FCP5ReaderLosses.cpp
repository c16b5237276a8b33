// What the xmeml reader cannot play as the document means it, said as loss
// records beside its warnings; and what it settles once every record of a
// document is made: the length and channels of files whose document does not
// state them, sequences that would hold themselves, and references that name
// nothing.
//
// A record says where: the sequence's name, the track as the document numbers
// it ("V1" is its first video track), the frame from the sequence's start and
// the sequence's timecode there, and the clip item by name and id.
#include <algorithm>
#include <functional>

#include "host/Label.h"
#include "xmeml/FCP5ReaderSupport.h"
#include "xmeml/FCP5XMLReader.h"

namespace XML {

using fcp5read::intOf;
using fcp5read::leaf;

namespace {

// What is passed over without silencing anything: said once a sequence.
const std::pair<const char*, const char*> kPassedOver[] = {
    {"filter", "filters passed over"},
    {"speed-ramp", "speed ramps read as one speed"},
    {"disabled", "switched-off items that play"},
    {"multiclip", "multiclips that play their first angle"},
    {"transition-as-dissolve", "transitions of other kinds read as dissolves"},
    {"nested-sequence", "uses of nested sequences that play the first file inside them"},
};

// Why an item plays black or silence, for the warning beside its record.
const char* reasonOf(const std::string& kind) {
    if (kind == "generator") return "a generator, which plays black";
    if (kind == "unknown-transition") return "a transition of a kind that plays black";
    if (kind == "clip-not-placed") return "lies under the clip before it, and is not played";
    if (kind == "cut-off") return "lies past the sequence's stated length, and is cut off";
    if (kind == "bare-reference") return "names a clip item by its id alone, and is not read";
    if (kind == "nested-sequence") return "plays no sequence";
    return "plays black";
}

std::string effectName(const XMLParser& effect) {
    LightweightString<char> name = leaf(effect, "name");
    if (name.empty()) name = leaf(effect, "effectid");
    return name.empty() ? "an unnamed effect" : "\"" + name.str() + "\"";
}

// A Time Remap whose speed changes along the clip.
bool isRamp(const XMLParser& effect) {
    unsigned parameters = effect.count("parameter");
    for (unsigned i = 0; i < parameters; ++i) {
        std::unique_ptr<XMLParser> p = effect.section("parameter", i);
        if (!p) continue;
        LightweightString<char> id = leaf(*p, "parameterid");
        if (id == "variablespeed" && intOf(*p, "value", 0) != 0) return true;
        if (id == "speed" && p->count("keyframe") > 0) return true;
    }
    return false;
}

}  // namespace

std::string FCP5XMLReader::nestedKey(const XMLParser& item) const {
    std::vector<std::unique_ptr<XMLParser>> direct = item.sections_TopLevel("sequence");
    if (direct.empty()) return {};
    if (direct[0]) return sequenceKey(*direct[0]);
    // `<sequence id="..."/>`: the sequence defined with that id.
    for (const XMLParser::Tag& a : item.getAttributes("sequence", 0))
        if (a.name == "id" && !a.value.empty()) return "\x01" + a.value.str();
    return "\x01";  // a sequence element that names none
}

LossRecord FCP5XMLReader::lossHere(const char* kind, long long frame,
                                   const LightweightString<char>& detail) {
    LossRecord r;
    r.kind = kind;
    r.sequence = place_.sequence;
    r.track = place_.track;
    r.detail = detail;
    if (frame >= 0) {
        r.frame = frame;
        if (place_.ticks > 0)
            r.timecode = frameToTimecode(place_.startFrame + frame, place_.ticks, place_.dropFrame);
    }
    return r;
}

void FCP5XMLReader::reportLoss(const LossRecord& record, bool playsBlack) {
    logger.LossOut(record);
    if (!playsBlack) {
        ++passedOver_[record.kind.str()];
        return;
    }
    logger.WarningOut("Edit \"%s\", track %s at %s: %s: %s", record.sequence.c_str(),
                      record.track.c_str(),
                      record.timecode.empty() ? "an unknown place" : record.timecode.c_str(),
                      record.detail.c_str(), reasonOf(record.kind.str()));
}

void FCP5XMLReader::reportItem(const XMLParser& ip, long long frame,
                               const LightweightString<char>& name,
                               const LightweightString<char>& id) {
    auto detail = [&name, &id] { return fcp5read::itemText(name, id); };
    if (fcp5read::disabled(ip)) reportLoss(lossHere("disabled", frame, detail()), false);
    if (!ip.sections_TopLevel("multiclip").empty())
        reportLoss(lossHere("multiclip", frame, detail()), false);
    for (const std::unique_ptr<XMLParser>& filter : ip.sections_TopLevel("filter")) {
        std::unique_ptr<XMLParser> effect = filter ? filter->section("effect", 0) : nullptr;
        if (!effect) continue;
        LightweightString<char> effectId = leaf(*effect, "effectid");
        if (effectId == "audiolevels") continue;
        if (effectId == "timeremap") {
            if (isRamp(*effect)) reportLoss(lossHere("speed-ramp", frame, detail()), false);
            continue;
        }
        reportLoss(lossHere("filter", frame, effectName(*effect) + " on " + detail().str()), false);
    }
}

void FCP5XMLReader::flushPassedOver() {
    std::string text;
    for (const auto& [kind, phrase] : kPassedOver)
        if (auto it = passedOver_.find(kind); it != passedOver_.end())
            text += (text.empty() ? "" : ", ") + std::to_string(it->second) + " " + phrase;
    if (!text.empty())
        logger.WarningOut("Edit \"%s\": %s (see the loss report)", place_.sequence.c_str(),
                          text.c_str());
    passedOver_.clear();
}

void FCP5XMLReader::unusable(const XMLParser& parser, const char* name,
                             const LightweightString<char>& text, Damage why, bool places) {
    // Passes read some elements more than once: each is told once.
    std::size_t offset = parser.offsetOf(name, 0);
    if (!unusableAt_.insert(offset).second) return;
    if (unusableAt_.size() == 1)
        lines_ = LineCounter(document_ ? document_->documentText() : parser.documentText());
    LightweightString<char> what = unusableText(name, nullptr, text, lines_.lineOf(offset), why);
    logger.WarningOut("%s", unusableWarning(what, places).c_str());
    logger.LossOut(
        lossAt(places ? kUnusableValueKind : kUnreadableValueKind, {}, {}, what.c_str()));
}

void FCP5XMLReader::completeFiles() {
    for (const auto& [id, facts] : fileFacts_) {
        if (!facts.lengthFromUses && !facts.audioFromUses && !facts.videoFromUses) continue;
        auto needed = fileNeeds_.find(id);
        RefIdMap::RefIdMapRec rec;
        if (needed == fileNeeds_.end() ||
            !clipRefs.findRef(LightweightString<char>(id + "$0$"), rec) || !rec.ced2)
            continue;
        CED2* shot = rec.ced2;
        const FileNeeds& needs = needed->second;
        if (facts.lengthFromUses && needs.length > shot->duration) {
            shot->duration = needs.length;
            for (CChannel* ch : each<CChannel>(shot->channels))
                for (CED2Cell* cel : each<CED2Cell>(ch->cels))
                    cel->editOut = needs.length;
            logger.Out(
                "File \"%s\" states no length: it is taken as %.3f seconds, as far as its "
                "uses reach",
                id.c_str(), needs.length);
        }
        auto mediaCel = [&](CChannel* channel) {
            CED2Cell* cel = new CED2Cell;
            cel->editOut = shot->duration;
            cel->speed = 1.0f;
            channel->cels.append(cel);
        };
        if (facts.videoFromUses && needs.video && shot->GetNumVideoChannels() == 0) {
            // The picture is channel 0, ahead of the sound.
            std::vector<CChannel*> sound;
            while (CChannel* ch = shot->firstChannel())
                sound.push_back(static_cast<CChannel*>(shot->channels.remove(ch)));
            mediaCel(shot->CreateEditChannel(0, kChanVideo));
            for (CChannel* ch : sound)
                shot->channels.append(ch);
            shot->hasVideo = true;
        }
        if (facts.audioFromUses)
            for (int i = shot->GetNumAudioChannels() + 1; i <= needs.audioChannels; ++i) {
                mediaCel(shot->CreateEditChannel(static_cast<unsigned>(i), kChanAudio));
                clipRefs.addRef(LightweightString<char>(id + "$" + std::to_string(i) + "$"), shot,
                                true, static_cast<unsigned>(i), kChanAudio);
                shot->audioChannelCount = i;
            }
    }
}

void FCP5XMLReader::checkNesting() {
    if (nestedUses_.empty()) return;
    auto target = [this](const std::string& key) -> const CED2* {
        RefIdMap::RefIdMapRec rec;
        return ghostRefs.findRef(LightweightString<char>(key + "$0$"), rec) ? rec.ced2 : nullptr;
    };
    std::unordered_map<const CED2*, std::vector<const CED2*>> holds;
    for (const NestedUse& u : nestedUses_)
        if (const CED2* t = target(u.key)) holds[u.holder].push_back(t);
    // Whether `from` holds `to`, through any depth of nesting.
    auto reaches = [&holds](const CED2* from, const CED2* to) {
        std::unordered_set<const CED2*> seen;
        std::vector<const CED2*> stack{from};
        while (!stack.empty()) {
            const CED2* s = stack.back();
            stack.pop_back();
            if (s == to) return true;
            if (!seen.insert(s).second) continue;
            if (auto it = holds.find(s); it != holds.end())
                stack.insert(stack.end(), it->second.begin(), it->second.end());
        }
        return false;
    };
    for (NestedUse& u : nestedUses_) {
        const CED2* t = target(u.key);
        if (!t || !reaches(t, u.holder)) continue;
        // A sequence that holds itself would play forever: the use is black.
        u.cel->refId = "...?...";
        u.cel->refIsGhost = false;
        reported_.insert(u.cel);
        u.where.detail += ": the sequence it plays holds this one";
        reportLoss(u.where, true);
    }
}

FCP5XMLReader::NamedItem FCP5XMLReader::itemOf(const PendingRef& p) const {
    if (p.item & PendingRef::kNamed) return namedItems_[p.item & ~PendingRef::kNamed];
    std::unique_ptr<XMLParser> item = document_ ? document_->sectionAt(p.item) : nullptr;
    if (!item) return {};
    return {leaf(*item, "name"), fcp5read::idOf(*item)};
}

void FCP5XMLReader::checkReferences() {
    for (PendingRef& p : pendingRefs_) {
        if (reported_.count(p.cel)) continue;
        const RefIdMap& map = p.cel->refIsGhost ? ghostRefs : clipRefs;
        RefIdMap::RefIdMapRec rec;
        if (map.findRef(p.cel->refId, rec) && rec.ced2) continue;

        std::string ref = p.cel->refId.str();
        const char* kind = "file-missing";
        std::string why;
        if (ref == "...?...") {
            why = "it names no media";
        } else if (ref[0] == '\x01') {
            kind = "nested-sequence";
            why = "the sequence it names is not in the document";
            ref = "sequence " + ref.substr(1);
        } else if (p.cel->refIsGhost) {
            kind = "unusable-file";
            why = "its sub-clip could not be made";
        } else {
            // The file's id, without the channel: "<id>$<n>$".
            std::size_t cut = ref.size() >= 2 ? ref.rfind('$', ref.size() - 2) : std::string::npos;
            std::string file = ref.substr(0, cut);
            std::string channel = cut == std::string::npos ? "" : ref.substr(cut + 1);
            if (!channel.empty()) channel.pop_back();
            if (filesWithoutLength_.count(file)) {
                kind = "unusable-file";
                why = "its file has no length";
            } else if (filesSeen_.count(file) && channel != "0") {
                kind = "channel-missing";
                why = "its file has no sound channel " + channel;
            } else if (filesSeen_.count(file)) {
                kind = "unusable-file";
                why = "its file cannot be read";
            } else {
                why = "its file is not in the document";
            }
        }
        place_ = places_[p.place];
        const NamedItem item = itemOf(p);
        LossRecord r =
            lossHere(kind, p.frame,
                     fcp5read::itemText(item.name, item.id) + LightweightString<char>(": " + why));
        logger.LossOut(r);
        logger.WarningOut(
            "Badly defined clip - name <%s> XML reference <%s>: clip item <%s> of sequence "
            "\"%s\", track %s at %s, plays %s (%s)",
            item.name.c_str(), ref.c_str(), item.id.c_str(), r.sequence.c_str(), r.track.c_str(),
            r.timecode.empty() ? "an unknown place" : r.timecode.c_str(),
            p.isVideo ? "black" : "silence", why.c_str());
    }
}

}  // namespace XML
