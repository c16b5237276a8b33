// Multi-angle groups: the angles of a sequence's first multi-angle cel.
#pragma once

#include <vector>

#include "host/ED2.h"
#include "host/FrameRate.h"

namespace XML {

class AlternatesList {
  public:
    struct AltListRec {
        Cookie cookie;
        int offset = 0;  // sync offset in frames of the sequence's timebase
    };

    AlternatesList() = default;
    void clear() { list.clear(); }
    // Duplicates are kept.
    void add(const Cookie& cookie, int offset) { list.push_back({cookie, offset}); }
    // The offset of the first record for that cookie.
    bool findCookieOffset(const Cookie& cookie, int& offset) const;

    // The first record is the primary angle, with offset 0.
    std::vector<AltListRec> list;
};

// Fills `list` from the first cel of `seq` (channels in order, cels in order)
// that has alternates: its own material as an edit cookie with offset 0, then
// each alternate at the cel's source-in frame plus its own offset. False, with
// `list` untouched, when no cel has alternates.
bool seqHasAlternateGroup(CED2* seq, AlternatesList& list, Qv::FrameRate rate);

}  // namespace XML
