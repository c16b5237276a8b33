// Values of the project that no export can write as they are.
#include <cmath>
#include <cstdio>
#include <set>

#include "app/checks/DocumentCheck.h"

namespace qvapp {

namespace {

// The longest time a 32-bit frame count holds at the highest rate, 240.
constexpr double kLongestTime = 2147483647.0 / 240.0;

}  // namespace

std::string numberText(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

std::vector<Qv::Ptr<Edit>> editAndSources(const Qv::Ptr<Edit>& edit) {
    EditStore& store = EditStore::current();
    std::vector<Qv::Ptr<Edit>> out;
    std::set<Qv::UUID> seen;
    std::vector<Qv::Ptr<Edit>> pending{edit};
    while (!pending.empty()) {
        Qv::Ptr<Edit> e = pending.back();
        pending.pop_back();
        if (!seen.insert(e->cookie.uuid).second) continue;
        out.push_back(e);
        for (const StoredChannel& ch : e->channels)
            for (const CelData& c : ch.cels) {
                if (!c.cookie.isValid() || c.cookie.isMagic()) continue;
                if (Qv::Ptr<Edit> source = store.find(c.cookie)) pending.push_back(source);
            }
    }
    return out;
}

Unusable unusableValues(const std::vector<Qv::Ptr<Edit>>& edits, std::size_t limit) {
    Unusable out;
    auto add = [&](std::string what, bool untrusted) {
        out.untrusted = out.untrusted || untrusted;
        if (out.named.size() < limit)
            out.named.push_back({XmlPlace{}, std::move(what), untrusted});
        else
            ++out.more;
    };
    // Times and rates place the material: one that is no number cannot be
    // trusted. Levels, speeds, level keyframes and markers are lost alone.
    for (const Qv::Ptr<Edit>& e : edits) {
        const std::string name =
            (e->isShot() ? "shot \"" : "edit \"") + toUTF8(e->name).str() + "\"";
        // A shot's own times give its length; the timeline's place its
        // material.
        bool timeline = !e->isShot();
        auto time = [&](double value, const std::string& what) {
            if (!std::isfinite(value))
                add(what + " is " + (std::isnan(value) ? "no number" : "infinite"), timeline);
            else if (std::fabs(value) > kLongestTime)
                add(what + " is " + numberText(value) +
                        " seconds, more than a frame count can hold",
                    timeline);
        };
        time(e->length, "the length of " + name);
        time(e->rate, "the rate of " + name);
        for (std::size_t k = 0; k < e->channels.size(); ++k) {
            const StoredChannel& ch = e->channels[k];
            const std::string chan = "channel " + std::to_string(k + 1) + " of " + name;
            std::size_t lost = 0;
            for (std::size_t i = 0; i < ch.cels.size(); ++i) {
                const CelData& c = ch.cels[i];
                const std::string cel = "cel " + std::to_string(i + 1) + " of " + chan;
                time(c.editIn, "the start of " + cel);
                time(c.editOut, "the end of " + cel);
                time(c.sourceIn, "the source in point of " + cel);
                time(c.sourceOut, "the source out point of " + cel);
                if (!std::isfinite(c.speed) || !std::isfinite(c.level) ||
                    !std::isfinite(c.levelEnd))
                    add("the speed or level of " + cel + " is not a finite number", false);
            }
            for (const LevelData& l : ch.levels)
                lost += !std::isfinite(l.position) || !std::isfinite(l.value);
            if (lost)
                add(std::to_string(lost) + " of the " + std::to_string(ch.levels.size()) +
                        " level keyframes of " + chan +
                        " have a position or value that is not a finite number, and are lost",
                    false);
        }
        std::size_t cues = 0;
        for (const Ced2Cue& c : e->cues)
            cues += !std::isfinite(c.in) || !std::isfinite(c.out);
        if (cues)
            add(std::to_string(cues) + " markers of " + name +
                    " have a time that is not a finite number, and are lost",
                false);
    }
    return out;
}

}  // namespace qvapp
