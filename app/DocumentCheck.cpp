#include "app/DocumentCheck.h"

#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <memory>
#include <set>
#include <tuple>
#include <unordered_set>

#include "host/FrameRate.h"
#include "host/Label.h"
#include "host/XMLParser.h"

namespace qvapp {

namespace {

using Parser = std::unique_ptr<XMLParser>;

// A number as the readers scan it with "%d": blanks, a sign, digits; text
// that does not begin so is no number.
bool scanInt(const LightweightString<char>& text, long long& value) {
    const char* p = text.c_str();
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
    long long v = 0;
    for (; std::isdigit(static_cast<unsigned char>(*p)); ++p)
        if (v <= static_cast<long long>(INT_MAX) + 1) v = v * 10 + (*p - '0');
    v = negative ? -v : v;
    value = v > INT_MAX ? INT_MAX : v < INT_MIN ? INT_MIN : v;
    return true;
}

// Why a frame count's text is not the whole number it is read as: empty
// when it is one.
std::string notWhole(const LightweightString<char>& text, long long& read) {
    read = 0;
    bool number = scanInt(text, read);
    if (!number) return "is no number: the reader takes it as 0";
    const char* p = text.c_str();
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    if (*p == '+' || *p == '-') ++p;
    long long exact = 0;
    bool overflow = false;
    for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
        exact = exact * 10 + (*p - '0');
        overflow = overflow || exact > static_cast<long long>(INT_MAX) + 1;
        if (overflow) exact = 0;
    }
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    if (overflow || read == INT_MAX || read == INT_MIN)
        return "is past what a frame count holds: the reader takes it as " + std::to_string(read);
    if (*p) return "is no whole number: the reader takes it as " + std::to_string(read);
    return "";
}

// A rational as the readers take it: the first two attributes, num and den,
// both above 0.
bool rational(const XMLParser::Value& v, double& out) {
    if (v.attributes.size() < 2) return false;
    LightweightString<char> num, den;
    for (int i = 0; i < 2; ++i) {
        if (v.attributes[i].name == "num") num += v.attributes[i].value;
        if (v.attributes[i].name == "den") den += v.attributes[i].value;
    }
    long long n = 0, d = 0;
    if (num.empty() || den.empty()) return false;
    scanInt(num, n);
    scanInt(den, d);
    if (n <= 0 || d <= 0) return false;
    out = static_cast<double>(n) / static_cast<double>(d);
    return true;
}

// The longest time a 32-bit frame count holds at the highest rate, 240.
constexpr double kLongestTime = 2147483647.0 / 240.0;

std::string secondsText(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", seconds);
    return text;
}

std::string rateText(double rate) {
    char text[32];
    std::snprintf(text, sizeof text, "%.6g", rate);
    return text;
}

class Audit {
  public:
    Audit(std::string_view text, bool version2)
        : text_(text), version2_(version2), doc_(text.data(), static_cast<int>(text.size())) {}

    std::vector<Finding> run() {
        // Every Id of a channel that its reader registers, so that a Ref to
        // none of them can be told apart.
        for (const char* record : {"Shot", "Edit"})
            for (unsigned i = 0, n = doc_.count(record); i < n; ++i)
                if (Parser rp = doc_.section(record, i)) collectIds(*rp);

        if (!version2_) {
            double rate = 0;
            if (!rational(doc_.getValue("EditRes", 0), rate)) {
                note(where(doc_, "EditRes"),
                     "the QVXML 1.0 document has no valid <EditRes>, the rate of all its times");
                return std::move(findings_);
            }
            if (ticksOf(rate) == 0)
                untrusted(where(doc_, "EditRes"),
                          "<EditRes> " + rateText(rate) +
                              " is no frame rate qvxml knows: no time of the document can be read");
        }
        for (unsigned i = 0, n = doc_.count("Shot"); i < n; ++i)
            if (Parser sp = doc_.section("Shot", i)) shot(*sp);
        for (unsigned i = 0, n = doc_.count("Edit"); i < n; ++i)
            if (Parser ep = doc_.section("Edit", i)) edit(*ep);
        return std::move(findings_);
    }

  private:
    static double ticksOf(double rate) {
        return Qv::getTicksPerSecond(Qv::getCelQVFrameRateFromFrameRateDouble(rate));
    }

    void note(std::size_t offset, std::string what) {
        findings_.push_back({placeOf(text_, offset), std::move(what), false});
    }
    void untrusted(std::size_t offset, std::string what) {
        findings_.push_back({placeOf(text_, offset), std::move(what), true});
    }

    // Where a child element stands, or its parent when it has no text.
    static std::size_t where(const XMLParser& p, const char* name, unsigned index = 0) {
        std::size_t at = p.offsetOf(name, index);
        return at == std::string::npos ? p.offset() : at;
    }
    static LightweightString<char> leaf(const XMLParser& p, const char* name) {
        return p.getValue(name, 0).text;
    }
    static std::string nameOf(const XMLParser& p) {
        LightweightString<char> name = leaf(p, "Name");
        return name.empty() ? std::string("NoName") : name.str();
    }
    static const char* kindOf(const XMLParser& chan) {
        LightweightString<char> type = leaf(chan, "Type");
        return type == "Video" ? "video" : type == "Audio" ? "audio" : nullptr;
    }

    void collectIds(const XMLParser& record) {
        Parser list = record.section("ChanList", 0);
        if (!list) return;
        for (unsigned k = 0, n = list->count("Chan"); k < n; ++k) {
            Parser chan = list->section("Chan", k);
            if (!chan || !kindOf(*chan)) continue;
            if (LightweightString<char> id = leaf(*chan, "Id"); !id.empty()) ids_.insert(id.str());
        }
    }

    void labels(const XMLParser& record, const std::string& owner) {
        unsigned n = record.count("Label");
        for (unsigned i = 0; i < n; ++i) {
            XMLParser::Value v = record.getValue("Label", i);
            if (v.attributes.empty()) continue;
            const std::string text = v.attributes[0].value.str();
            std::size_t at = where(record, "Label", i);
            if (i >= 10) {
                note(at, "the " + owner + " has " + std::to_string(n) +
                             " <Label>s; a record holds 10, and the rest are left out");
                return;
            }
            if (!EditLabel(text.c_str()).is_valid())
                note(at, "<Label> \"" + text + "\" of the " + owner +
                             " is no timecode label (a rate, DF or NDF, a timecode that exists, "
                             "a medium): it is left out");
        }
    }

    // The times of a cel event. False when one is missing. A wrong time of a
    // sequence or sub-clip misplaces its material: the result cannot be
    // trusted; one of a shot only gets the shot's own length wrong.
    bool times(const XMLParser& event, const std::string& what, bool timeline) {
        for (const char* name : {"EditIn", "EditOut", "Offset"}) {
            LightweightString<char> text = leaf(event, name);
            if (text.empty()) {
                note(event.offset(), what + " has no <" + name + ">: it is left out");
                return false;
            }
            long long frames = 0;
            if (std::string why = notWhole(text, frames); !why.empty()) {
                findings_.push_back(
                    {placeOf(text_, where(event, name)),
                     "<" + std::string(name) + "> \"" + text.str() + "\" of " + what + " " + why,
                     timeline});
                continue;
            }
            if (frames < 0)
                findings_.push_back({placeOf(text_, where(event, name)),
                                     "<" + std::string(name) + "> " + std::to_string(frames) +
                                         " of " + what + " is negative: the reader takes it as " +
                                         std::to_string(static_cast<unsigned int>(frames)) +
                                         " frames",
                                     timeline});
        }
        return true;
    }

    // Walks the channels of a record: each channel that is read goes to
    // `content` with its number (from 1) and a description.
    template <typename Content>
    void channels(const XMLParser& record, const std::string& owner, Content content) {
        Parser list = record.section("ChanList", 0);
        if (!list) {
            note(record.offset(), "the " + owner +
                                      " has no <ChanList> with channels, so the document cannot "
                                      "be read");
            return;
        }
        for (unsigned k = 0, n = list->count("Chan"); k < n; ++k) {
            Parser chan = list->section("Chan", k);
            if (!chan) {
                note(list->offset(), "channel " + std::to_string(k + 1) + " of the " + owner +
                                         " is empty, so the document cannot be read");
                return;
            }
            const char* kind = kindOf(*chan);
            if (!kind) {
                note(chan->offset(), "channel " + std::to_string(k + 1) + " of the " + owner +
                                         " has no <Type> Video or Audio: it is left out");
                continue;
            }
            content(*chan,
                    std::string(kind) + " channel " + std::to_string(k + 1) + " of the " + owner);
        }
    }

    void shot(const XMLParser& sp) {
        const std::string owner = "Shot \"" + nameOf(sp) + "\"";
        if (version2_) {
            double rate = 0;
            if (!rational(sp.getValue("Rate", 0), rate)) {
                note(where(sp, "Rate"), "the " + owner +
                                            " has no valid <Rate>: its frame counts are read as "
                                            "seconds");
            } else if (Qv::getEquivalentQvFrameRate(rate) == Qv::eFrameRateNone) {
                note(where(sp, "Rate"), "<Rate> " + rateText(rate) + " of the " + owner +
                                            " is no frame rate qvxml knows: its timecode has "
                                            "no rate");
            }
        }
        labels(sp, owner);
        channels(sp, owner, [&](const XMLParser& chan, const std::string& what) {
            unsigned events = chan.count("CelEvent");
            if (events == 0) return;
            if (events > 1)
                note(chan.offset(), "the " + what + " has " + std::to_string(events) +
                                        " <CelEvent>s; a shot's channel has one, and only the "
                                        "first is read");
            if (Parser event = chan.section("CelEvent", 0))
                times(*event, "the <CelEvent> of the " + what, false);
        });
    }

    void edit(const XMLParser& ep) {
        bool ghost = leaf(ep, "IsGhost") == "true";
        const std::string owner =
            std::string(ghost ? "sub-clip Edit \"" : "Edit \"") + nameOf(ep) + "\"";
        if (version2_) {
            double rate = 0;
            if (!rational(ep.getValue("Rate", 0), rate)) {
                untrusted(where(ep, "Rate"),
                          "the " + owner + " has no valid <Rate>: none of its times can be read");
            } else if (ticksOf(rate) == 0) {
                untrusted(where(ep, "Rate"), "<Rate> " + rateText(rate) + " of the " + owner +
                                                 " is no frame rate qvxml knows: none of its "
                                                 "times can be read");
            }
        }
        long long duration = 100;
        if (LightweightString<char> d = leaf(ep, "Duration"); !d.empty()) scanInt(d, duration);
        labels(ep, owner);
        bool durationTold = false;
        channels(ep, owner, [&](const XMLParser& chan, const std::string& what) {
            unsigned events = chan.count("CelEvent");
            if (events == 0) return;
            for (unsigned e = 0; e < events; ++e) {
                Parser event = chan.section("CelEvent", e);
                const std::string cel = "<CelEvent> " + std::to_string(e + 1) + " of the " + what;
                if (!event) {
                    if (e + 1 < events)
                        note(chan.offset(), cel + " is empty: it and the " +
                                                std::to_string(events - e - 1) +
                                                " after it are left out");
                    break;
                }
                reference(*event, cel);
                if (!times(*event, cel, true)) {
                    if (e + 1 < events)
                        note(event->offset(), "so are the " + std::to_string(events - e - 1) +
                                                  " <CelEvent>s after it in its channel");
                    break;
                }
            }
            Parser effect = chan.section("Effect", 0);
            if (!effect || !(leaf(*effect, "Type") == "Track levels")) return;
            for (unsigned k = 0, n = effect->count("Keyframe"); k < n; ++k) {
                Parser key = effect->section("Keyframe", k);
                if (!key) continue;
                LightweightString<char> position = leaf(*key, "Position");
                if (position.empty()) continue;
                long long frames = 0;
                scanInt(position, frames);
                if (duration <= 0 && !durationTold) {
                    note(where(ep, "Duration"),
                         "<Duration> " + std::to_string(duration) + " of the " + owner +
                             " divides the positions of its level keyframes, which "
                             "become " +
                             (duration == 0 ? "infinite or no numbers, and are lost" : "negative"));
                    durationTold = true;
                } else if (frames < 0) {
                    note(where(*key, "Position"), "<Position> " + std::to_string(frames) +
                                                      " of a level keyframe of the " + what +
                                                      " is negative");
                }
            }
        });
    }

    // What a cel of an Edit plays: a magic cookie, or a channel's Id.
    void reference(const XMLParser& event, const std::string& cel) {
        LightweightString<char> ref = leaf(event, "Ref");
        if (ref.empty()) {
            note(event.offset(), cel + " has no <Ref>: it plays black or silence");
            return;
        }
        Cookie cookie(fromUTF8(ref), false);
        if (cookie.isValid() && cookie.isMagic()) return;
        if (ids_.count(ref.str())) return;
        note(where(event, "Ref"), "<Ref> \"" + ref.str() + "\" of " + cel +
                                      " names no channel of the document: it plays black or "
                                      "silence");
    }

    std::string_view text_;
    bool version2_;
    XMLParser doc_;
    std::unordered_set<std::string> ids_;
    std::vector<Finding> findings_;
};

}  // namespace

std::vector<Finding> auditNative(std::string_view text, bool version2) {
    std::size_t nul = text.find('\0');
    if (nul != std::string_view::npos) text = text.substr(0, nul);
    return Audit(text, version2).run();
}

std::vector<Qv::Ptr<Edit>> editAndSources(const Qv::Ptr<Edit>& edit) {
    EditStore& store = EditStore::current();
    std::vector<Qv::Ptr<Edit>> out;
    std::set<std::tuple<uint32_t, uint32_t, uint32_t, uint32_t>> seen;
    std::vector<Qv::Ptr<Edit>> pending{edit};
    while (!pending.empty()) {
        Qv::Ptr<Edit> e = pending.back();
        pending.pop_back();
        const Qv::UUID& id = e->cookie.uuid;
        if (!seen.insert({id.words[0], id.words[1], id.words[2], id.words[3]}).second) continue;
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
                add(what + " is " + secondsText(value) +
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
