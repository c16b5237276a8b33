// The accounting of every clip item (see Accounting.h).
//
// Longer than the command's other files: it holds the three parts of one
// check, the xmeml lister, the OpenTimelineIO lister and the comparison with
// what the import made, which must agree on what a clip item is and where it
// lies; they stand together so that a change to one is made beside the others.
#include "app/conform/Accounting.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <unordered_set>

#include "app/checks/XmlText.h"
#include "app/pipeline/Text.h"
#include "host/Label.h"
#include "import/Scan.h"
#include "otio/OtioModel.h"
#include "otio/OtioReader.h"
#include "otio/OtioTime.h"

namespace qvapp {

namespace {

// A frame number as the readers take it: a number, a fraction cut off; what
// is no number gives `fallback`.
std::int64_t frameNumber(std::string_view text, std::int64_t fallback) {
    // Whole numbers, as frames are written, without a copy.
    std::size_t b = 0, e = text.size();
    while (b < e && std::isspace(static_cast<unsigned char>(text[b])))
        ++b;
    while (e > b && std::isspace(static_cast<unsigned char>(text[e - 1])))
        --e;
    long long whole = 0;
    auto [end, error] = std::from_chars(text.data() + b, text.data() + e, whole);
    if (error == std::errc() && end == text.data() + e)
        return std::clamp<long long>(whole, -1000000000000000LL, 1000000000000000LL);
    // Anything else as the readers' own scan takes it ("0x10" is 0, "2.5e3"
    // is 2), so that a clip item is looked for where the import put it.
    int value = 0;
    if (!XML::scanInt(LightweightString<char>(std::string(text).c_str()), value)) return fallback;
    return value;
}

// The nearest whole frame of a count of frames; 0 for what is no number.
std::int64_t wholeFrame(double frames) {
    if (std::isnan(frames)) return 0;
    return static_cast<std::int64_t>(std::llround(std::clamp(frames, -1e15, 1e15)));
}

// Whether an element's name is `what`: most names are told apart by their
// length alone.
template <std::size_t N>
bool is(std::string_view name, const char (&what)[N]) {
    return name.size() == N - 1 && std::memcmp(name.data(), what, N - 1) == 0;
}

// The text of a leaf element, kept in `texts`: as it stands, unless it holds
// references or markup.
std::string_view keptText(ListedTexts& texts, std::string_view inner) {
    if (inner.empty()) return {};
    if (!std::memchr(inner.data(), '&', inner.size()) &&
        !std::memchr(inner.data(), '<', inner.size()))
        return texts.keep(inner);
    return texts.keep(leafText(inner));
}

// The id attribute of a start tag's text after its name, decoded.
std::string idOf(std::string_view attributes) {
    for (std::size_t at = attributes.find("id"); at != std::string_view::npos;
         at = attributes.find("id", at + 2)) {
        if (at == 0 || !std::isspace(static_cast<unsigned char>(attributes[at - 1]))) continue;
        std::size_t q = at + 2;
        while (q < attributes.size() && std::isspace(static_cast<unsigned char>(attributes[q])))
            ++q;
        if (q >= attributes.size() || attributes[q] != '=') continue;
        std::size_t v = attributes.find_first_of("\"'", q);
        std::size_t close = v == std::string_view::npos ? v : attributes.find(attributes[v], v + 1);
        if (close == std::string_view::npos) break;
        std::string_view value = attributes.substr(v + 1, close - v - 1);
        if (value.find('&') != std::string_view::npos) return attributeValue(attributes, "id");
        return std::string(value);
    }
    return {};
}

}  // namespace

std::string_view ListedTexts::keep(std::string_view text) {
    if (text.empty()) return {};
    if (text.size() > kBlock / 4) {
        // A long text has a block of its own, kept before the block in use.
        auto own = std::make_unique<char[]>(text.size());
        std::memcpy(own.get(), text.data(), text.size());
        std::string_view kept(own.get(), text.size());
        blocks_.insert(blocks_.empty() ? blocks_.end() : blocks_.end() - 1, std::move(own));
        return kept;
    }
    if (kBlock - used_ < text.size()) {
        blocks_.push_back(std::make_unique<char[]>(kBlock));
        used_ = 0;
    }
    char* at = blocks_.back().get() + used_;
    std::memcpy(at, text.data(), text.size());
    used_ += text.size();
    return {at, text.size()};
}

// ---- xmeml ----

struct XmemlClipLister::State {
    // An item of the open track: clip items and transition items, in order,
    // for the positions that are -1; only clip items that name media are
    // listed.
    struct Event {
        bool listed = false;
        bool defines = false;  // holds what it names, and may be referred to by its id
        bool bare = false;     // carries nothing but an id
        bool transition = false;
        std::int64_t start = 0, end = 0;
        ListedItem item;
        std::string masterClip;  // names media only by this master clip
    };
    // A clip item that names media only by a master clip: listed if the
    // document defines that master clip, which may come after it.
    struct ByMasterClip {
        std::size_t sequence, track, item;
        std::string masterClip;
    };

    DocumentClips out;
    std::vector<std::string_view> path;  // names of the open elements, by depth
    int clipItemsOpen = 0;
    // Depths of what is open; 0 for nothing.
    int sequence = 0, media = 0, group = 0, track = 0, item = 0;
    bool sawVideo = false, sawAudio = false, groupVideo = true;
    bool ownName = false, anyName = false;
    ListedSequence current;
    std::vector<Event> events;
    // The clip item being read.
    bool isClip = false, names = false, hasChildren = false;
    std::string masterClip;
    Event open;
    std::unordered_set<std::string> masterClips;
    // The clip items that name media, by id, where they stand: a table of
    // open addressing over `definers`, whose keys are read from the listed
    // items themselves. A long document defines an item for each of its
    // clips, and the table lives through the import.
    struct Where {
        std::uint32_t sequence, track, item;
    };
    std::vector<Where> definers;
    std::vector<std::uint32_t> byId;  // 1 + a place in definers; 0 for a free slot

    const ListedItem& itemAt(const Where& w) const {
        const ListedSequence& s =
            w.sequence < out.sequences.size() ? out.sequences[w.sequence] : current;
        return s.tracks[w.track].items[w.item];
    }

    // The slot of the item of that id, or the free slot where it goes.
    std::size_t slotOf(std::string_view id) const {
        std::size_t mask = byId.size() - 1;
        for (std::size_t i = std::hash<std::string_view>{}(id)&mask;; i = (i + 1) & mask)
            if (byId[i] == 0 || itemAt(definers[byId[i] - 1]).id == id) return i;
    }

    const Where* definerOf(std::string_view id) const {
        if (byId.empty()) return nullptr;
        std::uint32_t entry = byId[slotOf(id)];
        return entry ? &definers[entry - 1] : nullptr;
    }

    // The item at `w` names media by `id`, in place of any before it.
    void define(std::string_view id, Where w) {
        if ((definers.size() + 1) * 2 > byId.size()) {
            byId.assign(std::max<std::size_t>(64, byId.size() * 2), 0);
            for (std::size_t k = 0; k < definers.size(); ++k)
                byId[slotOf(itemAt(definers[k]).id)] = static_cast<std::uint32_t>(k + 1);
        }
        std::uint32_t& entry = byId[slotOf(id)];
        if (entry) {
            definers[entry - 1] = w;
        } else {
            definers.push_back(w);
            entry = static_cast<std::uint32_t>(definers.size());
        }
    }
    std::vector<ByMasterClip> byMasterClip;

    bool at(int depth, int parent, std::string_view parentName) const {
        return parent > 0 && depth == parent + 1 &&
               path[static_cast<std::size_t>(parent)] == parentName;
    }

    void start(std::string_view name, std::string_view attributes, int depth) {
        if (path.size() <= static_cast<std::size_t>(depth)) path.resize(depth + 1);
        path[static_cast<std::size_t>(depth)] = name;
        if (is(name, "clip")) {
            if (std::string id = idOf(attributes); !id.empty()) masterClips.insert(std::move(id));
            return;
        }
        if (is(name, "clipitem")) ++clipItemsOpen;
        if (item > 0) {
            if (depth == item + 1) {
                hasChildren = true;
                if (is(name, "file") || is(name, "sequence") || is(name, "multiclip")) names = true;
            }
            return;
        }
        if (sequence == 0) {
            if (is(name, "sequence") && clipItemsOpen == 0) beginSequence(depth);
            return;
        }
        if (depth == sequence + 1) {
            if (is(name, "media") && media == 0) media = depth;
        } else if (media > 0 && depth == media + 1) {
            bool video = is(name, "video");
            if ((video || is(name, "audio")) && !(video ? sawVideo : sawAudio)) {
                (video ? sawVideo : sawAudio) = true;
                group = depth;
                groupVideo = video;
            }
        } else if (group > 0 && depth == group + 1) {
            if (!is(name, "track")) return;
            track = depth;
            int n = 1;
            for (const ListedTrack& t : current.tracks)
                n += t.video == groupVideo;
            current.tracks.push_back(
                {(groupVideo ? "V" : "A") + std::to_string(n), groupVideo, {}});
            events.clear();
        } else if (track > 0 && depth == track + 1) {
            isClip = is(name, "clipitem");
            if (!isClip && !is(name, "transitionitem")) return;
            item = depth;
            names = hasChildren = false;
            masterClip.clear();
            open = Event();
            if (isClip) open.item.id = out.texts->keep(idOf(attributes));
        }
    }

    void end(std::string_view name, std::string_view inner, int depth) {
        if (is(name, "clipitem") && clipItemsOpen > 0) --clipItemsOpen;
        // The first name inside a sequence, at any depth: names are leaves,
        // so the first to end is the first in the text.
        if (!anyName && sequence > 0 && depth > sequence && is(name, "name")) {
            anyName = true;
            current.otherName = leafText(inner);
        }
        if (item > 0) {
            if (depth == item + 1) {
                if (is(name, "start")) {
                    open.start = frameNumber(inner, 0);
                } else if (is(name, "end")) {
                    open.end = frameNumber(inner, 0);
                } else if (isClip && is(name, "name")) {
                    open.item.name = keptText(*out.texts, inner);
                } else if (isClip && is(name, "masterclipid")) {
                    masterClip = leafText(inner);
                }
            } else if (depth == item) {
                endItem();
            }
            return;
        }
        if (sequence == 0) return;
        if (depth == sequence + 1) {
            if (is(name, "name") && !ownName) {
                ownName = true;
                current.name = leafText(inner);
            } else if (depth == media) {
                media = 0;
            }
        } else if (depth == sequence + 2) {
            if (is(name, "timebase") && at(depth, sequence + 1, "rate")) {
                double tb = static_cast<double>(frameNumber(inner, 0));
                if (tb > 0 && tb < 10000) current.timebase = tb;
            } else if (is(name, "frame") && at(depth, sequence + 1, "timecode")) {
                current.startFrame = frameNumber(inner, 0);
            } else if (is(name, "displayformat") && at(depth, sequence + 1, "timecode")) {
                current.dropFrame = leafText(inner) == "DF";
            } else if (depth == group) {
                group = 0;
            }
        } else if (depth == track) {
            endTrack();
            track = 0;
        } else if (depth == sequence) {
            endSequence();
        }
    }

    void beginSequence(int depth) {
        sequence = depth;
        media = group = track = item = 0;
        sawVideo = sawAudio = ownName = anyName = false;
        current = ListedSequence();
    }

    void endItem() {
        item = 0;
        if (isClip) {
            // An element that carries nothing but an id stands for the
            // earlier element of that name and id: the track looks it up
            // once its own items before it are placed.
            open.bare = !hasChildren && !open.item.id.empty();
            open.defines = names && !open.item.id.empty();
            if (!names && !masterClip.empty()) {
                names = true;
                open.masterClip = std::move(masterClip);
            }
            open.listed = names;
        }
        open.transition = !isClip;
        events.push_back(std::move(open));
    }

    // A clip item that runs into a transition has -1 there: it starts where
    // the item before it ends, and ends where the item after it starts; a
    // version 1 document may give such an end as one before the start. A
    // bare reference stands where the clip item it names stands.
    void endTrack() {
        ListedTrack& t = current.tracks.back();
        for (std::size_t i = 0; i < events.size(); ++i) {
            Event& e = events[i];
            if (e.bare) {
                const Where* earlier = definerOf(e.item.id);
                if (!earlier) continue;
                ListedItem copy = itemAt(*earlier);
                t.items.push_back(copy);
                continue;
            }
            if (!e.listed) continue;
            if (e.start != -1 && e.end != -1 && e.end < e.start && i + 1 < events.size() &&
                events[i + 1].transition)
                e.end = -1;
            if (e.start == -1 && i > 0) e.start = events[i - 1].end;
            if (e.end == -1 && i + 1 < events.size()) e.end = events[i + 1].start;
            e.item.start = e.start;
            e.item.end = e.end;
            if (e.defines)
                define(e.item.id, Where{static_cast<std::uint32_t>(out.sequences.size()),
                                        static_cast<std::uint32_t>(current.tracks.size() - 1),
                                        static_cast<std::uint32_t>(t.items.size())});
            if (!e.masterClip.empty())
                byMasterClip.push_back({out.sequences.size(), current.tracks.size() - 1,
                                        t.items.size(), std::move(e.masterClip)});
            t.items.push_back(std::move(e.item));
        }
        events.clear();
        // The list stays through the import: no room to spare.
        t.items.shrink_to_fit();
    }

    void endSequence() {
        sequence = 0;
        // The reader names a sequence without a name of its own by the first
        // name inside it; one without any "NoName".
        if (current.name.empty()) current.name = current.otherName;
        if (current.name.empty()) current.name = "NoName";
        if (!current.tracks.empty()) out.sequences.push_back(std::move(current));
        current = ListedSequence();
        // The room the longest track took goes back now, not with the list.
        events = std::vector<Event>();
    }
};

XmemlClipLister::XmemlClipLister() : state_(std::make_unique<State>()) {}
XmemlClipLister::~XmemlClipLister() = default;

void XmemlClipLister::start(std::string_view name, std::string_view attributes, std::size_t,
                            int depth) {
    if (depth > 0) state_->start(name, attributes, depth);
}

void XmemlClipLister::end(std::string_view name, std::string_view inner, int depth) {
    if (depth > 0) state_->end(name, inner, depth);
}

DocumentClips XmemlClipLister::take() {
    State& s = *state_;
    // Items named by a master clip the document does not define name
    // nothing after all.
    std::map<std::pair<std::size_t, std::size_t>, std::vector<std::size_t>> drop;
    for (const State::ByMasterClip& m : s.byMasterClip)
        if (!s.masterClips.count(m.masterClip) && m.sequence < s.out.sequences.size())
            drop[{m.sequence, m.track}].push_back(m.item);
    for (auto& [where, items] : drop) {
        std::vector<ListedItem>& list = s.out.sequences[where.first].tracks[where.second].items;
        std::sort(items.begin(), items.end());
        for (auto it = items.rbegin(); it != items.rend(); ++it)
            if (*it < list.size()) list.erase(list.begin() + static_cast<std::ptrdiff_t>(*it));
    }
    DocumentClips out = std::move(s.out);
    state_ = std::make_unique<State>();
    return out;
}

// ---- OpenTimelineIO ----

namespace {

using QvOtio::Item;
using QvOtio::ItemKind;
using QvOtio::TimeBase;

double framesOf(const QvOtio::RationalTime& t, const TimeBase& base) {
    return t.valid() ? QvOtio::rescale(t.value, t.rate, base.fps) : 0.0;
}

// How long an item lasts on its track: its source range, or else what it
// holds (a clip its media's available range; a track its items end to end;
// a stack its longest track).
double lengthOf(const QvOtio::Document& doc, const Item& item, const TimeBase& base, int depth) {
    if (item.sourceRange.valid()) return framesOf(item.sourceRange.duration, base);
    if (depth > 64) return 0;
    double total = 0;
    switch (item.kind) {
        case ItemKind::Clip:
            if (item.media < doc.media.size() && doc.media[item.media].available.valid())
                return framesOf(doc.media[item.media].available.duration, base);
            return 0;
        case ItemKind::Track:
            for (std::size_t child : item.children)
                if (child < doc.items.size() && doc.items[child].kind != ItemKind::Transition)
                    total += std::max(0.0, lengthOf(doc, doc.items[child], base, depth + 1));
            return total;
        case ItemKind::Stack:
            for (std::size_t child : item.children)
                if (child < doc.items.size())
                    total = std::max(total, lengthOf(doc, doc.items[child], base, depth + 1));
            return total;
        default:
            return 0;
    }
}

struct Span {
    double start, end;
    ListedItem item;
};

// Cuts spans to the window [from, from + length), which becomes their whole;
// what lies wholly outside is not part of the cut.
void window(std::vector<Span>& spans, double from, double length) {
    std::vector<Span> kept;
    for (Span& s : spans) {
        if (s.end <= from || s.start >= from + length) continue;
        s.start = std::max(s.start, from) - from;
        s.end = std::min(s.end, from + length) - from;
        kept.push_back(std::move(s));
    }
    spans = std::move(kept);
}

std::string kindOf(const nlohmann::json& qvxml) {
    if (!qvxml.is_object()) return "";
    auto it = qvxml.find("kind");
    return it != qvxml.end() && it->is_string() ? it->get<std::string>() : "";
}

}  // namespace

DocumentClips listOtioClips(const QvOtio::Document& doc) {
    DocumentClips out;
    std::string error;
    for (std::size_t index : QvOtio::OtioReader::timelinesOf(doc, error)) {
        const Item& timeline = doc.items[index];
        // A shot or a sub-clip written alone is no sequence.
        std::string kind = kindOf(timeline.qvxml);
        if (kind == "shot" || kind == "subclip") continue;
        bool exact = true;
        TimeBase base = TimeBase::of(QvOtio::OtioReader::timelineRate(doc, index, exact));
        ListedSequence seq;
        seq.name = timeline.name.empty() ? "NoName" : timeline.name;
        seq.timebase = base.ticks;
        if (timeline.kind == ItemKind::Timeline && timeline.globalStart.valid())
            seq.startFrame = wholeFrame(framesOf(timeline.globalStart, base));
        seq.dropFrame = Qv::has1001Factor(base.rate) && (base.ticks == 30 || base.ticks == 60);

        const Item* stack = &timeline;
        if (timeline.kind == ItemKind::Timeline)
            stack = timeline.tracks < doc.items.size() ? &doc.items[timeline.tracks] : nullptr;
        if (!stack) continue;
        std::vector<const Item*> tracks;
        if (stack->kind == ItemKind::Track) {
            tracks.push_back(stack);
        } else {
            for (std::size_t child : stack->children)
                if (child < doc.items.size() && doc.items[child].kind == ItemKind::Track)
                    tracks.push_back(&doc.items[child]);
        }
        std::vector<ListedTrack> video, audio;
        for (const Item* track : tracks) {
            bool isVideo = track->trackKind == "Video";
            if (!isVideo && track->trackKind != "Audio") continue;
            std::vector<Span> spans;
            double at = 0;
            for (std::size_t child : track->children) {
                if (child >= doc.items.size()) continue;
                const Item& item = doc.items[child];
                if (item.kind == ItemKind::Transition) continue;
                double length = std::max(0.0, lengthOf(doc, item, base, 0));
                if (!std::isfinite(length)) length = 0;
                if (item.kind == ItemKind::Clip || item.kind == ItemKind::Stack ||
                    item.kind == ItemKind::Track)
                    spans.push_back({at, at + length, {out.texts->keep(item.name), "", 0, 0}});
                at += length;
            }
            // A track of a stack shows the window its source range gives,
            // and so does the timeline's stack.
            if (track != stack && track->sourceRange.valid())
                window(spans, framesOf(track->sourceRange.start, base),
                       framesOf(track->sourceRange.duration, base));
            if (stack->kind == ItemKind::Stack && stack->sourceRange.valid())
                window(spans, framesOf(stack->sourceRange.start, base),
                       framesOf(stack->sourceRange.duration, base));
            std::vector<ListedTrack>& group = isVideo ? video : audio;
            ListedTrack t{(isVideo ? "V" : "A") + std::to_string(group.size() + 1), isVideo, {}};
            for (Span& s : spans) {
                s.item.start = wholeFrame(s.start);
                s.item.end = wholeFrame(s.end);
                t.items.push_back(std::move(s.item));
            }
            group.push_back(std::move(t));
        }
        seq.tracks = std::move(video);
        for (ListedTrack& t : audio)
            seq.tracks.push_back(std::move(t));
        out.sequences.push_back(std::move(seq));
    }
    return out;
}

// ---- the check ----

namespace {

// The channels of an edit by the names editors give tracks: V1 is the lowest
// video track, the edit's last video channel; audio tracks in order.
std::map<std::string, const StoredChannel*> channelsByName(const Edit& edit) {
    std::vector<const StoredChannel*> video, audio;
    for (const StoredChannel& ch : edit.channels)
        (ch.type == kChanVideo ? video : audio).push_back(&ch);
    auto byIndex = [](const StoredChannel* a, const StoredChannel* b) {
        return a->index < b->index;
    };
    std::sort(video.begin(), video.end(), [&](auto* a, auto* b) { return byIndex(b, a); });
    std::sort(audio.begin(), audio.end(), byIndex);
    std::map<std::string, const StoredChannel*> out;
    for (std::size_t i = 0; i < video.size(); ++i)
        out["V" + std::to_string(i + 1)] = video[i];
    for (std::size_t i = 0; i < audio.size(); ++i)
        out["A" + std::to_string(i + 1)] = audio[i];
    return out;
}

std::pair<std::size_t, std::size_t> trackCounts(const ListedSequence& s) {
    std::size_t video = 0;
    for (const ListedTrack& t : s.tracks)
        video += t.video;
    return {video, s.tracks.size() - video};
}

std::pair<std::size_t, std::size_t> channelCounts(const Edit& e) {
    std::size_t video = 0;
    for (const StoredChannel& ch : e.channels)
        video += ch.type == kChanVideo;
    return {video, e.channels.size() - video};
}

class Checker {
  public:
    Checker(const std::vector<Qv::Ptr<Edit>>& made, const std::vector<Loss>& losses)
        : store_(EditStore::current()) {
        for (const Qv::Ptr<Edit>& e : made)
            if (e && !e->isShot() && !e->channels.empty()) candidates_.push_back(e.get());
        used_.assign(candidates_.size(), false);
        for (const Loss& l : losses)
            if (l.origin == "reader" && l.frame >= 0 && kindReplacesMaterial(l.kind))
                marks_[{l.sequence, l.track}].push_back(l.frame);
        for (auto& [key, frames] : marks_)
            std::sort(frames.begin(), frames.end());
    }

    Accounting run(const DocumentClips& clips) {
        for (const ListedSequence& s : clips.sequences)
            sequence(s);
        return std::move(result_);
    }

  private:
    // The edit the import made of a sequence: the first not yet taken of its
    // name, one with its numbers of tracks before any other.
    const Edit* editOf(const ListedSequence& s) {
        auto named = [&](const Edit& e) {
            std::string name = toUTF8(e.name).str();
            return name == s.name || (!s.otherName.empty() && name == s.otherName);
        };
        std::size_t fallback = candidates_.size();
        for (std::size_t i = 0; i < candidates_.size(); ++i) {
            if (used_[i] || !named(*candidates_[i])) continue;
            if (channelCounts(*candidates_[i]) == trackCounts(s)) {
                fallback = i;
                break;
            }
            if (fallback == candidates_.size()) fallback = i;
        }
        if (fallback == candidates_.size()) return nullptr;
        used_[fallback] = true;
        return candidates_[fallback];
    }

    void sequence(const ListedSequence& s) {
        const Edit* edit = editOf(s);
        std::map<std::string, const StoredChannel*> channels;
        double timebase = s.timebase;
        std::string editName;
        if (edit) {
            channels = channelsByName(*edit);
            editName = toUTF8(edit->name).str();
            if (!(timebase > 0)) timebase = Qv::getTicksPerSecond(edit->getFrameRate());
            if (!(timebase > 0)) timebase = edit->rate > 0 ? edit->rate : 25;
        }
        unsigned ticks = static_cast<unsigned>(std::lround(std::clamp(timebase, 1.0, 1000.0)));
        for (const ListedTrack& t : s.tracks) {
            auto found = channels.find(t.name);
            const StoredChannel* channel = found == channels.end() ? nullptr : found->second;
            const std::vector<std::int64_t>* marks = marksOf(s.name, t.name);
            if (!marks && !editName.empty() && editName != s.name)
                marks = marksOf(editName, t.name);
            // Items in the order of their starts, as the cels are.
            std::vector<const ListedItem*> items;
            items.reserve(t.items.size());
            for (const ListedItem& i : t.items)
                items.push_back(&i);
            if (!std::is_sorted(items.begin(), items.end(), byStart))
                std::stable_sort(items.begin(), items.end(), byStart);
            std::size_t from = 0;  // the first cel that may reach an item
            for (const ListedItem* i : items) {
                ++result_.items;
                if (i->end == i->start) {
                    ++result_.empty;
                } else if (channel && plays(*channel, *i, timebase, from)) {
                    ++result_.playing;
                } else if (named(marks, *i)) {
                    ++result_.reported;
                } else {
                    unaccounted(s, t, *i, ticks, edit == nullptr);
                }
            }
        }
    }

    static bool byStart(const ListedItem* a, const ListedItem* b) { return a->start < b->start; }

    const std::vector<std::int64_t>* marksOf(const std::string& sequence,
                                             const std::string& track) const {
        auto it = marks_.find({sequence, track});
        return it == marks_.end() ? nullptr : &it->second;
    }

    // A loss placed within the item's range (at its start, for an item
    // without length).
    static bool named(const std::vector<std::int64_t>* marks, const ListedItem& i) {
        if (!marks) return false;
        std::int64_t end = std::max(i.end, i.start + 1);
        auto it = std::lower_bound(marks->begin(), marks->end(), i.start);
        return it != marks->end() && *it < end;
    }

    bool playsMaterial(const CelData& c) const {
        return c.cookie.isValid() && !c.cookie.isMagic() && store_.find(c.cookie) != nullptr;
    }

    // Whether the cels over most of the item's range play material; what
    // transitions take of it does not count either way. `from` moves on
    // with the items.
    bool plays(const StoredChannel& ch, const ListedItem& i, double timebase, std::size_t& from) {
        auto frame = [&](double cel) { return wholeFrame(cel * timebase); };
        const std::vector<CelData>& cels = ch.cels;
        while (from < cels.size() && frame(cels[from].editOut) <= i.start)
            ++from;
        std::int64_t start = i.start, end = i.end;
        if (end <= start) return false;
        std::int64_t playing = 0, neutral = 0;
        for (std::size_t k = from; k < cels.size(); ++k) {
            std::int64_t in = frame(cels[k].editIn), out = frame(cels[k].editOut);
            if (in >= end) break;
            std::int64_t overlap = std::min(out, end) - std::max(in, start);
            if (overlap <= 0) continue;
            const CelData& c = cels[k];
            if (playsMaterial(c))
                playing += overlap;
            else if (c.cookie.isValid() && c.cookie.isMagic() && !c.cookie.isBlack())
                neutral += overlap;
        }
        return playing > 0 && 2 * playing > end - start - neutral;
    }

    void unaccounted(const ListedSequence& s, const ListedTrack& t, const ListedItem& i,
                     unsigned ticks, bool noSequence) {
        Loss l;
        l.kind = "unaccounted";
        l.origin = "reader";
        l.sequence = s.name;
        l.track = t.name;
        if (i.start >= 0) {
            l.frame = i.start;
            l.timecode =
                frameToTimecode(framesPlus(s.startFrame, i.start), ticks, s.dropFrame).str();
        }
        l.detail = inQuotes(std::string(i.name));
        if (!i.id.empty()) l.detail += " (" + std::string(i.id) + ")";
        l.detail += noSequence ? ": its sequence is not in the import"
                    : t.video  ? " plays black"
                               : " plays silence";
        result_.unaccounted.push_back(std::move(l));
    }

    EditStore& store_;
    std::vector<const Edit*> candidates_;
    std::vector<bool> used_;
    std::map<std::pair<std::string, std::string>, std::vector<std::int64_t>> marks_;
    Accounting result_;
};

}  // namespace

Accounting accountFor(const DocumentClips& clips, const std::vector<Qv::Ptr<Edit>>& made,
                      const std::vector<Loss>& losses) {
    return Checker(made, losses).run(clips);
}

}  // namespace qvapp
