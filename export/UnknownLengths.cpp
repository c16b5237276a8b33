#include "export/UnknownLengths.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "host/Edit.h"
#include "host/UUIDHash.h"

namespace XML {

namespace {

bool unknownLength(double length) {
    return !std::isfinite(length) || length < 0;
}

}  // namespace

void giveUnknownLengths(CED2List& shots, const std::vector<CED2List*>& users, LoggerHandle log) {
    bool any = false;
    for (CED2* shot : each<CED2>(shots))
        any = any || unknownLength(shot->get_editLength());
    if (!any) return;

    // How far into each piece of material the cels play.
    std::unordered_map<Qv::UUID, double, Qv::UUIDHash> used;
    for (CED2List* list : users)
        for (CED2* record : each<CED2>(*list))
            for (CChannel* ch : each<CChannel>(record->channels))
                for (CED2Cell* cel = ch->firstCel(); cel; cel = cel->next()) {
                    if (!cel->cookie.isValid() || cel->cookie.isMagic()) continue;
                    double length = cel->editOut - cel->editIn;
                    CED2Cell* next = cel->next();
                    // A clip runs on under a transition that follows it.
                    if (next && next->cookie.isMagic() && !next->cookie.isBlack())
                        length += next->editOut - next->editIn;
                    double end =
                        cel->sourceIn + std::fabs(static_cast<double>(cel->speed)) * length;
                    double& at = used[cel->cookie.uuid];
                    if (std::isfinite(end)) at = std::max({at, end, cel->sourceIn});
                }

    for (CED2* shot : each<CED2>(shots)) {
        if (!unknownLength(shot->get_editLength())) continue;
        auto it = used.find(shot->cookie.uuid);
        double length = it != used.end() && std::isfinite(it->second) ? it->second : 0.0;
        shot->duration = length;
        for (CChannel* ch : each<CChannel>(shot->channels))
            for (CED2Cell* c : each<CED2Cell>(ch->cels))
                if (unknownLength(c->editOut)) c->editOut = length;
        LightweightString<char> name = toUTF8(shot->get_editName());
        log.WarningOut("The length of shot \"%s\" is no number\n", name.c_str());
        log.WarningOut(" - It is taken as %.3f seconds, as far as the cut plays it\n", length);
        LossRecord r;
        r.kind = "length-unknown";
        r.detail = name;
        log.LossOut(r);
    }
}

}  // namespace XML
