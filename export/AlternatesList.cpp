#include "export/AlternatesList.h"

namespace XML {

bool AlternatesList::findCookieOffset(const Cookie& cookie, int& offset) const {
    for (const AltListRec& r : list) {
        if (r.cookie.compare(cookie) == 0) {
            offset = r.offset;
            return true;
        }
    }
    return false;
}

bool seqHasAlternateGroup(CED2* seq, AlternatesList& list, Qv::FrameRate rate) {
    if (!seq) return false;
    for (CChannel* ch : each<CChannel>(seq->channels)) {
        for (CED2Cell* cel : each<CED2Cell>(ch->cels)) {
            if (cel->alternates.empty()) continue;
            int baseFrames = truncateToInt32(Qv::getTicksPerSecond(rate) * cel->sourceIn + 0.5);
            list.add(convertCookie(cel->cookie, kCookieEdit, cel->cookie.channel), 0);
            for (const CelAlternate& alt : cel->alternates)
                list.add(alt.cookie, baseFrames + alt.offset);
            return true;
        }
    }
    return false;
}

}  // namespace XML
