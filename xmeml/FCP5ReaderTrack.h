// The items of one xmeml track as the reader walks them: each parsed once,
// with its two positions, and merged by position without walking the track
// again. Shared by the parts of the reader that build and walk tracks.
#pragma once

#include <algorithm>
#include <limits>
#include <memory>
#include <vector>

#include "xmeml/FCP5ReaderSupport.h"
#include "xmeml/FCP5XMLReader.h"

namespace XML::fcp5read {

constexpr long long kBehind = std::numeric_limits<long long>::min();

// Where an item can stand in the position order, seen from `pos`: its start
// when that is known and not behind, else its end when that is known and
// ahead. An item with neither lies behind `pos`.
inline bool keyOf(int start, int end, int pos, long long& key) {
    if (start != -1 && start >= pos) {
        key = start;
        return true;
    }
    if (end != -1 && end > pos) {
        key = end;
        return true;
    }
    return false;
}

}  // namespace XML::fcp5read

namespace XML {

// One item of a track, parsed once, with its two positions.
struct FCP5XMLReader::TrackItem {
    const XMLParser::Value* value = nullptr;  // when the item came as a text
    std::unique_ptr<XMLParser> parser;        // null for an item with nothing inside
    bool hasText = false;
    bool generator = false;  // a generator item: it holds its place as black
    int start = 0, end = 0;
    // Where the walk places the item: its start and end, or for an edge of
    // -1 the edge of the transition it meets (when that is known).
    int placedStart = 0, placedEnd = 0;
    std::size_t order = 0;  // where it stands in the document
};

// The items of one track, with what the merge by position needs to find the
// next one without walking the track again: the next clip item that has
// text, and a tree of the furthest position each transition item reaches, so
// that transitions lying behind the walk are passed over in logarithmic time.
struct FCP5XMLReader::Track {
    using Item = TrackItem;
    std::vector<Item> clips, transitions;
    std::vector<std::unique_ptr<XMLParser>> generators;  // passed over: their stretch is black
    std::vector<std::size_t> nextClip;                   // first clip at or after i with text
    std::vector<long long> reach;                        // max tree over the transitions
    std::size_t leaves = 1;

    Track(const std::vector<XMLParser::Value>& clipItems,
          const std::vector<XMLParser::Value>& transItems) {
        fill(clips, clipItems);
        fill(transitions, transItems);
        index();
    }
    Track(std::vector<std::unique_ptr<XMLParser>> clipItems,
          std::vector<std::unique_ptr<XMLParser>> transItems) {
        fill(clips, std::move(clipItems));
        fill(transitions, std::move(transItems));
        index();
    }

    static void positions(Item& item) {
        item.hasText = item.parser != nullptr;
        if (!item.parser) return;
        item.start = fcp5read::intOf(*item.parser, "start", 0);
        item.end = fcp5read::intOf(*item.parser, "end", 0);
        item.placedStart = item.start;
        item.placedEnd = item.end;
    }
    static void fill(std::vector<Item>& out, const std::vector<XMLParser::Value>& values) {
        out.resize(values.size());
        for (std::size_t i = 0; i < values.size(); ++i) {
            out[i].value = &values[i];
            if (!values[i].text.empty())
                out[i].parser = std::make_unique<XMLParser>(values[i].text.c_str(), -1);
            positions(out[i]);
        }
    }
    static void fill(std::vector<Item>& out, std::vector<std::unique_ptr<XMLParser>> parsers) {
        out.resize(parsers.size());
        for (std::size_t i = 0; i < parsers.size(); ++i) {
            out[i].parser = std::move(parsers[i]);
            positions(out[i]);
        }
    }

    void index() {
        nextClip.assign(clips.size() + 1, clips.size());
        for (std::size_t i = clips.size(); i-- > 0;)
            nextClip[i] = clips[i].hasText ? i : nextClip[i + 1];
        while (leaves < transitions.size())
            leaves *= 2;
        reach.assign(2 * leaves, fcp5read::kBehind);
        for (std::size_t i = 0; i < transitions.size(); ++i) {
            const Item& t = transitions[i];
            long long r = fcp5read::kBehind;
            if (t.hasText) {
                // The key exists while pos <= start or pos < end.
                if (t.start != -1) r = t.start;
                if (t.end != -1) r = std::max(r, static_cast<long long>(t.end) - 1);
            }
            reach[leaves + i] = r;
        }
        for (std::size_t i = leaves; i-- > 1;)
            reach[i] = std::max(reach[2 * i], reach[2 * i + 1]);
    }

    // The first transition at or after `from` that has text and does not lie
    // behind `pos`; transitions.size() when there is none.
    std::size_t transitionFrom(std::size_t from, int pos) const {
        if (from >= transitions.size()) return transitions.size();
        return descend(1, 0, leaves, from, pos);
    }

    std::size_t descend(std::size_t node, std::size_t lo, std::size_t hi, std::size_t from,
                        int pos) const {
        if (hi <= from || reach[node] < pos) return transitions.size();
        if (hi - lo == 1) return lo < transitions.size() ? lo : transitions.size();
        std::size_t mid = (lo + hi) / 2;
        std::size_t left = descend(2 * node, lo, mid, from, pos);
        if (left != transitions.size()) return left;
        return descend(2 * node + 1, mid, hi, from, pos);
    }

    struct Pick {
        bool found = false;
        bool transition = false;
        std::size_t index = 0;
    };

    // The next item after the two cursors, by position; on a tie the clip
    // comes first.
    Pick next(int pos, int clipIndex, int transIndex, bool acceptPast) const {
        Pick clip, trans;
        long long clipKey = 0, transKey = 0;
        std::size_t c = nextClip[static_cast<std::size_t>(clipIndex + 1)];
        if (lookPast && !acceptPast) c = pastBuried(c, pos);
        if (c < clips.size()) {
            if (fcp5read::keyOf(clips[c].placedStart, clips[c].placedEnd, pos, clipKey)) {
                clip = {true, false, c};
            } else if (acceptPast) {
                return {true, false, c};
            }
            // A clip behind the walk is not looked past: later clips wait.
        }
        std::size_t t = transitionFrom(static_cast<std::size_t>(transIndex + 1), pos);
        if (t < transitions.size() &&
            fcp5read::keyOf(transitions[t].start, transitions[t].end, pos, transKey))
            trans = {true, true, t};
        if (clip.found && trans.found) return transKey < clipKey ? trans : clip;
        return clip.found ? clip : trans;
    }

    // A clip that runs into a transition meets the one that stands beside
    // it in the document: it starts where the transition before it ends, and
    // ends where the one after it starts.
    void meetNeighbours() {
        struct Ref {
            std::size_t order;
            bool transition;
            std::size_t index;
        };
        std::vector<Ref> all;
        for (std::size_t i = 0; i < clips.size(); ++i)
            if (clips[i].hasText) all.push_back({clips[i].order, false, i});
        for (std::size_t i = 0; i < transitions.size(); ++i)
            if (transitions[i].hasText) all.push_back({transitions[i].order, true, i});
        std::stable_sort(all.begin(), all.end(),
                         [](const Ref& a, const Ref& b) { return a.order < b.order; });
        for (std::size_t k = 0; k < all.size(); ++k) {
            if (all[k].transition) continue;
            Item& c = clips[all[k].index];
            if (c.start == -1 && k > 0 && all[k - 1].transition)
                c.placedStart = transitions[all[k - 1].index].end;
            if (c.end == -1 && k + 1 < all.size() && all[k + 1].transition)
                c.placedEnd = transitions[all[k + 1].index].start;
        }
    }

    // Where the walk may look past a clip that lies wholly under what is
    // placed already (both its ends known and behind), so that the clips
    // after it are still placed. A clip that lies behind stays behind, as
    // the walk only moves on: the run passed over is remembered.
    bool lookPast = false;
    mutable std::size_t buriedFrom = std::numeric_limits<std::size_t>::max(), buriedTo = 0;

    std::size_t pastBuried(std::size_t c, int pos) const {
        std::size_t from = c;
        if (c == buriedFrom) c = buriedTo;
        while (c < clips.size() && clips[c].placedStart != -1 && clips[c].placedEnd != -1 &&
               clips[c].placedStart < pos && clips[c].placedEnd <= pos)
            c = nextClip[c + 1];
        if (c != from) {
            buriedFrom = from;
            buriedTo = c;
        }
        return c;
    }

    Item& at(const Pick& p) { return p.transition ? transitions[p.index] : clips[p.index]; }
};

// The state of one walk: what has been written, and the transition a clip
// may start in.
struct FCP5XMLReader::Cursor {
    int pos = 0;
    int clipIndex = -1, transIndex = -1;
    int pendingLen = 0;
    bool pendingTrans = false;
};

}  // namespace XML
