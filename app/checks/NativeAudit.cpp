// Reads a QVXML document as its readers do, in the scan that checks it, and
// tells what they pass over without a word.
//
// Longer than the command's other files: it is one observer that follows
// native/QVXMLReader.cpp element by element (Shot and Edit records, their
// channels, cel events, labels, rates and times), and each of its rules is
// kept beside the state it reads; cut in pieces, a rule and the reader rule
// it follows would be harder to hold side by side.
#include "app/checks/DocumentCheck.h"

#include <algorithm>
#include <cctype>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <set>
#include <tuple>
#include <unordered_set>

#include "app/checks/XmlScanner.h"
#include "app/checks/XmlText.h"
#include "host/FrameRate.h"
#include "host/Label.h"
#include "import/Scan.h"

namespace qvapp {

namespace {

// A number as the readers scan it (XML::scanInt, "%d"), so that what is told
// of a number is what the reader makes of it.
bool scanInt(std::string_view text, long long& value) {
    int v = 0;
    if (!XML::scanInt(LightweightString<char>(text.data(), text.size()), v)) return false;
    value = v;
    return true;
}

// Why a frame count's text is not the whole number it is read as: empty
// when it is one.
std::string notWhole(std::string_view text, long long& read) {
    read = 0;
    if (!scanInt(text, read)) return "is no number: the reader takes it as 0";
    std::size_t i = 0;
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
    std::size_t digits = 0;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) {
        ++i;
        ++digits;
    }
    while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i])))
        ++i;
    if (read == INT_MAX || read == INT_MIN || digits > 10)
        return "is past what a frame count holds: the reader takes it as " + std::to_string(read);
    if (i < text.size())
        return "is no whole number: the reader takes it as " + std::to_string(read);
    return "";
}

// A rational as the readers take it: of the first two attributes, num and
// den, both above 0.
bool rational(std::string_view attributes, double& out) {
    std::vector<Attribute> a = attributesOf(attributes, 2);
    if (a.size() < 2) return false;
    std::string num, den;
    for (const Attribute& x : a) {
        if (x.name == "num") num += x.value;
        if (x.name == "den") den += x.value;
    }
    long long n = 0, d = 0;
    if (num.empty() || den.empty()) return false;
    scanInt(num, n);
    scanInt(den, d);
    if (n <= 0 || d <= 0) return false;
    out = static_cast<double>(n) / static_cast<double>(d);
    return true;
}

double ticksOf(double rate) {
    return Qv::getTicksPerSecond(Qv::getCelQVFrameRateFromFrameRateDouble(rate));
}

// Replaces every `mark` in `text`.
void fill(std::string& text, char mark, const std::string& with) {
    for (std::size_t at = text.find(mark); at != std::string::npos;
         at = text.find(mark, at + with.size()))
        text.replace(at, 1, with);
}

// The first element of a name within a scope: where it begins, the text of
// its start tag and, once it has ended, its text.
struct First {
    bool seen = false, ended = false;
    int depth = 0;
    std::size_t offset = 0;
    std::string_view attributes;
    void start(int d, std::size_t at, std::string_view attrs) {
        if (seen) return;
        seen = true;
        depth = d;
        offset = at;
        attributes = attrs;
    }
    // Most texts are plain: they are seen where they stand in the document,
    // and only a text with markup or references is decoded into `kept`.
    void end(int d, std::string_view inner, std::deque<std::string>& kept) {
        if (seen && !ended && d == depth) {
            ended = true;
            text_ = inner;
            if (inner.find_first_of("<&") != std::string_view::npos)
                text_ = kept.emplace_back(leafText(inner));
        }
    }
    std::string_view text() const { return text_; }
    bool empty() const { return !seen || text_.empty(); }

  private:
    std::string_view text_;
};

// Whether a text can be a magic cookie (black, silence, a transition): only
// its form is looked at here, the host's parse decides.
bool magic(std::string_view text) {
    if (text.size() != 43 || text.substr(10, 10) != "-00000287-") return false;
    Cookie cookie(fromUTF8(std::string(text).c_str()), false);
    return cookie.isValid() && cookie.isMagic();
}

// Findings are phrased before their owner is known: kOwner stands for the
// Shot or Edit, filled in when it ends.
constexpr char kOwner = '\x02';

struct Raw {
    std::size_t offset;
    std::string what;
    bool untrusted;
};

// Reads a QVXML document as its readers do, from the elements the scan
// meets, and tells what they pass over. The readers look for an element's
// parts by name at any depth, first in document order first; so does this.
class NativeAudit final : public XmlObserver {
  public:
    NativeAudit(std::string_view text, bool version2) : text_(text), version2_(version2) {}

    void start(std::string_view name, std::string_view attributes, std::size_t offset,
               int d) override {
        const Kind kind = kindOf(name);
        if (kind == kOther) return;
        switch (kind) {
            case kEditRes:
                editRes_.start(d, offset, attributes);
                break;
            case kShot:
            case kEdit:
                if (!inRecord_) {
                    record_ = Record{};
                    record_.shot = kind == kShot;
                    record_.offset = offset;
                    record_.depth = d;
                    inRecord_ = true;
                }
                break;
            default:
                if (inRecord_) startInRecord(kind, attributes, offset, d);
                break;
        }
    }

    void end(std::string_view name, std::string_view inner, int d) override {
        const Kind kind = kindOf(name);
        if (kind == kOther) return;
        if (kind == kEditRes) editRes_.end(d, inner, kept_);
        if (!inRecord_) return;
        if ((kind == kShot || kind == kEdit) && d == record_.depth) {
            endRecord(inner);
            inRecord_ = false;
            return;
        }
        endInRecord(kind, inner, d);
    }

    std::vector<Finding> finish() {
        if (!version2_) {
            double rate = 0;
            if (!rational(editRes_.attributes, rate) || !editRes_.seen)
                add(editRes_.offset,
                    "the QVXML 1.0 document has no valid <EditRes>, the rate of all its times",
                    false);
            else if (ticksOf(rate) == 0)
                add(editRes_.offset,
                    "<EditRes> " + numberText(rate) +
                        " is no frame rate qvxml knows: no time of the document can be read",
                    true);
        }
        for (const PendingRef& r : refs_)
            if (r.kind && r.owner < owners_.size() && !ids_.count(r.ref))
                add(r.offset,
                    "<Ref> \"" + std::string(r.ref) + "\" of <CelEvent> " +
                        std::to_string(r.event) + " of the " + r.kind + " channel " +
                        std::to_string(r.chan) + " of the " + owners_[r.owner] +
                        " names no channel of the document: it plays black or "
                        "silence",
                    false);
        std::stable_sort(
            findings_.begin(), findings_.end(),
            [](const Finding& a, const Finding& b) { return a.at.offset < b.at.offset; });
        return std::move(findings_);
    }

  private:
    enum Kind {
        kOther,
        kEditRes,
        kShot,
        kEdit,
        kName,
        kDuration,
        kRate,
        kIsGhost,
        kChanList,
        kChan,
        kId,
        kType,
        kCelEvent,
        kRef,
        kEditIn,
        kEditOut,
        kOffset,
        kEffect,
        kKeyframe,
        kPosition,
        kLabel
    };

    // Names are compared at a length known when compiling, which costs a
    // few instructions and no call.
    template <std::size_t N>
    static bool named(std::string_view n, const char (&literal)[N]) {
        return std::memcmp(n.data(), literal, N - 1) == 0;
    }

    static Kind kindOf(std::string_view n) {
        switch (n.size()) {
            case 2:
                return named(n, "Id") ? kId : kOther;
            case 3:
                return named(n, "Ref") ? kRef : kOther;
            case 4:
                switch (n[0]) {
                    case 'S':
                        return named(n, "Shot") ? kShot : kOther;
                    case 'E':
                        return named(n, "Edit") ? kEdit : kOther;
                    case 'N':
                        return named(n, "Name") ? kName : kOther;
                    case 'R':
                        return named(n, "Rate") ? kRate : kOther;
                    case 'C':
                        return named(n, "Chan") ? kChan : kOther;
                    case 'T':
                        return named(n, "Type") ? kType : kOther;
                    default:
                        return kOther;
                }
            case 5:
                return named(n, "Label") ? kLabel : kOther;
            case 6:
                switch (n[0]) {
                    case 'E':
                        return named(n, "EditIn") ? kEditIn : named(n, "Effect") ? kEffect : kOther;
                    case 'O':
                        return named(n, "Offset") ? kOffset : kOther;
                    default:
                        return kOther;
                }
            case 7:
                switch (n[0]) {
                    case 'E':
                        return named(n, "EditRes")   ? kEditRes
                               : named(n, "EditOut") ? kEditOut
                                                     : kOther;
                    case 'I':
                        return named(n, "IsGhost") ? kIsGhost : kOther;
                    default:
                        return kOther;
                }
            case 8:
                switch (n[0]) {
                    case 'D':
                        return named(n, "Duration") ? kDuration : kOther;
                    case 'C':
                        return named(n, "ChanList")   ? kChanList
                               : named(n, "CelEvent") ? kCelEvent
                                                      : kOther;
                    case 'K':
                        return named(n, "Keyframe") ? kKeyframe : kOther;
                    case 'P':
                        return named(n, "Position") ? kPosition : kOther;
                    default:
                        return kOther;
                }
            default:
                return kOther;
        }
    }

    struct Event {
        std::size_t offset = 0;
        unsigned index = 0;  // from 1
        int depth = 0;
        bool read = false;  // the reader looks at it
        First ref, editIn, editOut, offsetTime;
    };
    struct Chan {
        std::size_t offset = 0;
        unsigned index = 0;  // from 1
        int depth = 0;
        First type, id;
        unsigned events = 0;
        unsigned stoppedAt = 0;  // the event after which the reader stops
        std::size_t stoppedOffset = 0;
        bool inEffect = false, effectSeen = false, inKeyframe = false;
        int effectDepth = 0, keyframeDepth = 0;
        First effectType, position;
        unsigned keyframes = 0;
        std::vector<Raw> raw, levels;
    };
    struct Record {
        bool shot = false;
        std::size_t offset = 0;
        int depth = 0;
        First name, duration, rate, ghost;
        bool chanListSeen = false, inChanList = false;
        int chanListDepth = 0;
        unsigned chans = 0, labels = 0, keyframes = 0;
        bool emptyChan = false;
        std::vector<Raw> raw;
    };
    struct PendingRef {
        std::size_t offset;
        std::string_view ref;
        unsigned event, chan;
        std::size_t owner;           // in owners_
        const char* kind = nullptr;  // of its channel; none when the channel is not read
    };

    // A text that outlives the element it came from: a view into the
    // document when it stands there as it is, a kept copy when it was
    // decoded.
    std::string_view keep(std::string_view text) {
        const char* base = text_.data();
        if (text.data() >= base && text.data() + text.size() <= base + text_.size()) return text;
        return kept_.emplace_back(text);
    }

    void add(std::size_t offset, std::string what, bool untrusted) {
        findings_.push_back({placeOf(text_, offset), std::move(what), untrusted});
    }

    void startInRecord(Kind kind, std::string_view attributes, std::size_t offset, int d) {
        Record& r = record_;
        switch (kind) {
            case kName:
                r.name.start(d, offset, attributes);
                break;
            case kDuration:
                r.duration.start(d, offset, attributes);
                break;
            case kRate:
                r.rate.start(d, offset, attributes);
                break;
            case kIsGhost:
                r.ghost.start(d, offset, attributes);
                break;
            case kLabel: {
                if (++r.labels == 11)
                    r.raw.push_back({offset, "", false});  // phrased with the count
                if (r.labels > 10) break;
                // Labels repeat: one text is parsed once.
                if (attributes == lastGoodLabel_) break;
                std::vector<Attribute> a = attributesOf(attributes, 1);
                if (a.empty()) break;
                if (EditLabel(a[0].value.c_str()).is_valid())
                    lastGoodLabel_ = attributes;
                else
                    r.raw.push_back({offset,
                                     "<Label> \"" + a[0].value + "\" of the " +
                                         std::string(1, kOwner) +
                                         " is no timecode label (a rate, DF or NDF, a timecode "
                                         "that exists, a medium): it is left out",
                                     false});
                break;
            }
            case kChanList:
                if (!r.chanListSeen) {
                    r.chanListSeen = r.inChanList = true;
                    r.chanListDepth = d;
                }
                break;
            default:
                break;
        }
        if (!r.inChanList) return;
        if (kind == kChan) {
            if (inChan_) return;
            chan_ = Chan{};
            chan_.offset = offset;
            chan_.index = ++r.chans;
            chan_.depth = d;
            inChan_ = true;
            return;
        }
        if (!inChan_) return;
        Chan& c = chan_;
        switch (kind) {
            case kType:
                c.type.start(d, offset, attributes);
                if (c.inEffect) c.effectType.start(d, offset, attributes);
                break;
            case kId:
                c.id.start(d, offset, attributes);
                break;
            case kCelEvent:
                if (inEvent_) break;
                event_ = Event{};
                event_.offset = offset;
                event_.index = ++c.events;
                event_.depth = d;
                // A shot's channel has one event; an Edit's are read until
                // one is incomplete.
                event_.read = r.shot ? c.events == 1 : c.stoppedAt == 0;
                inEvent_ = true;
                break;
            case kEffect:
                if (!c.effectSeen) {
                    c.effectSeen = c.inEffect = true;
                    c.effectDepth = d;
                }
                break;
            case kKeyframe:
                if (c.inEffect && !c.inKeyframe) {
                    c.inKeyframe = true;
                    c.keyframeDepth = d;
                    c.position = First{};
                }
                break;
            case kPosition:
                if (c.inKeyframe) c.position.start(d, offset, attributes);
                break;
            default:
                break;
        }
        if (!inEvent_) return;
        switch (kind) {
            case kRef:
                event_.ref.start(d, offset, attributes);
                break;
            case kEditIn:
                event_.editIn.start(d, offset, attributes);
                break;
            case kEditOut:
                event_.editOut.start(d, offset, attributes);
                break;
            case kOffset:
                event_.offsetTime.start(d, offset, attributes);
                break;
            default:
                break;
        }
    }

    // Only the parts of that name can take this element's text.
    void endInRecord(Kind kind, std::string_view inner, int d) {
        Record& r = record_;
        Chan& c = chan_;
        Event& e = event_;
        switch (kind) {
            case kName:
                r.name.end(d, inner, kept_);
                return;
            case kDuration:
                r.duration.end(d, inner, kept_);
                return;
            case kIsGhost:
                r.ghost.end(d, inner, kept_);
                return;
            case kChanList:
                if (r.inChanList && d == r.chanListDepth) r.inChanList = false;
                return;
            default:
                break;
        }
        if (!inChan_) return;
        switch (kind) {
            case kChan:
                if (d == c.depth) {
                    endChan(inner);
                    inChan_ = false;
                }
                return;
            case kType:
                c.type.end(d, inner, kept_);
                if (c.inEffect) c.effectType.end(d, inner, kept_);
                return;
            case kId:
                c.id.end(d, inner, kept_);
                return;
            case kPosition:
                if (c.inKeyframe) c.position.end(d, inner, kept_);
                return;
            case kKeyframe:
                if (c.inKeyframe && d == c.keyframeDepth) endKeyframe();
                return;
            case kEffect:
                if (c.inEffect && d == c.effectDepth) c.inEffect = false;
                return;
            default:
                break;
        }
        if (!inEvent_) return;
        switch (kind) {
            case kRef:
                e.ref.end(d, inner, kept_);
                break;
            case kEditIn:
                e.editIn.end(d, inner, kept_);
                break;
            case kEditOut:
                e.editOut.end(d, inner, kept_);
                break;
            case kOffset:
                e.offsetTime.end(d, inner, kept_);
                break;
            case kCelEvent:
                if (d == e.depth) {
                    endEvent(inner);
                    inEvent_ = false;
                }
                break;
            default:
                break;
        }
    }

    void endKeyframe() {
        Chan& c = chan_;
        c.inKeyframe = false;
        if (c.position.empty()) return;
        ++c.keyframes;
        long long frames = 0;
        scanInt(c.position.text(), frames);
        if (frames < 0)
            c.levels.push_back({c.position.offset,
                                "<Position> " + std::to_string(frames) +
                                    " of a level keyframe of the " + std::string(1, kChan) +
                                    " is negative",
                                false});
    }

    void endEvent(std::string_view inner) {
        Record& r = record_;
        Chan& c = chan_;
        Event& e = event_;
        if (!e.read) return;
        // Phrased only when there is something to say.
        auto what = [&] {
            return r.shot ? "the <CelEvent> of the " + std::string(1, kChan)
                          : "<CelEvent> " + std::to_string(e.index) + " of the " +
                                std::string(1, kChan);
        };
        if (inner.empty()) {
            if (!r.shot) {
                c.stoppedAt = e.index;
                c.stoppedOffset = e.offset;
                c.raw.push_back({e.offset, what() + " is empty: it is left out", false});
            }
            return;
        }
        if (!r.shot) {
            if (e.ref.empty()) {
                c.raw.push_back(
                    {e.offset, what() + " has no <Ref>: it plays black or silence", false});
            } else if (!magic(e.ref.text()) && !ids_.count(e.ref.text())) {
                // A channel written further on may have this Id: the
                // reference is judged when every channel is known, and
                // phrased only if it names none.
                refs_.push_back(
                    {e.ref.offset, keep(e.ref.text()), e.index, c.index, owners_.size()});
            }
        }
        const std::pair<const char*, const First*> times[] = {
            {"EditIn", &e.editIn}, {"EditOut", &e.editOut}, {"Offset", &e.offsetTime}};
        for (const auto& [name, time] : times) {
            if (time->empty()) {
                c.raw.push_back(
                    {e.offset, what() + " has no <" + name + ">: it is left out", false});
                if (!r.shot) {
                    c.stoppedAt = e.index;
                    c.stoppedOffset = e.offset;
                }
                return;
            }
            long long frames = 0;
            if (std::string why = notWhole(time->text(), frames); !why.empty()) {
                c.raw.push_back({time->offset,
                                 "<" + std::string(name) + "> \"" + std::string(time->text()) +
                                     "\" of " + what() + " " + why,
                                 !r.shot});
            } else if (frames < 0) {
                c.raw.push_back({time->offset,
                                 "<" + std::string(name) + "> " + std::to_string(frames) + " of " +
                                     what() + " is negative: the reader takes it as " +
                                     std::to_string(static_cast<unsigned int>(frames)) + " frames",
                                 !r.shot});
            }
        }
    }

    void endChan(std::string_view inner) {
        Record& r = record_;
        Chan& c = chan_;
        auto number = [&] { return "channel " + std::to_string(c.index); };
        // The references of this channel's events; judged only if it is read.
        const std::size_t firstRef = chanRefs_;
        chanRefs_ = refs_.size();
        if (inner.empty()) {
            r.raw.push_back({c.offset,
                             number() + " of the " + std::string(1, kOwner) +
                                 " is empty, so the document cannot be read",
                             false});
            return;
        }
        const char* kind = c.type.text() == "Video"   ? "video"
                           : c.type.text() == "Audio" ? "audio"
                                                      : nullptr;
        if (!kind) {
            r.raw.push_back({c.offset,
                             number() + " of the " + std::string(1, kOwner) +
                                 " has no <Type> Video or Audio: it is left out",
                             false});
            return;
        }
        if (!c.id.empty()) ids_.insert(keep(c.id.text()));
        // What the references of this channel's events are phrased with.
        for (std::size_t i = firstRef; i < refs_.size(); ++i)
            refs_[i].kind = kind;
        if (r.shot && c.events > 1)
            c.raw.push_back({c.offset,
                             "the " + std::string(1, kChan) + " has " + std::to_string(c.events) +
                                 " <CelEvent>s; a shot's channel has one, and only the first is "
                                 "read",
                             false});
        if (!r.shot && c.stoppedAt > 0 && c.stoppedAt < c.events)
            c.raw.push_back({c.stoppedOffset,
                             "so are the " + std::to_string(c.events - c.stoppedAt) +
                                 " <CelEvent>s after it in its channel",
                             false});
        // Level keyframes are read from an Edit's channel with events.
        if (!r.shot && c.events > 0 && c.effectType.text() == "Track levels") {
            r.keyframes += c.keyframes;
            for (Raw& l : c.levels)
                c.raw.push_back(std::move(l));
        }
        if (c.raw.empty()) return;
        const std::string phrase =
            std::string(kind) + " " + number() + " of the " + std::string(1, kOwner);
        for (Raw& x : c.raw) {
            fill(x.what, kChan, phrase);
            r.raw.push_back(std::move(x));
        }
    }

    void endRecord(std::string_view inner) {
        Record& r = record_;
        const bool ghost = !r.shot && r.ghost.text() == "true";
        const std::string owner =
            std::string(r.shot  ? "Shot \""
                        : ghost ? "sub-clip Edit \""
                                : "Edit \"") +
            (r.name.empty() ? std::string("NoName") : std::string(r.name.text())) + "\"";
        owners_.push_back(owner);
        // An Edit with nothing in it is passed over by its reader.
        if (!r.shot && inner.empty()) return;
        std::size_t rateAt = r.rate.seen ? r.rate.offset : r.offset;
        if (version2_) {
            double rate = 0;
            bool valid = r.rate.seen && rational(r.rate.attributes, rate);
            if (r.shot && !valid)
                add(rateAt,
                    "the " + owner +
                        " has no valid <Rate>: its frame counts are read as "
                        "seconds",
                    false);
            else if (r.shot && Qv::getEquivalentQvFrameRate(rate) == Qv::eFrameRateNone)
                add(rateAt,
                    "<Rate> " + numberText(rate) + " of the " + owner +
                        " is no frame rate qvxml knows: its timecode has no rate",
                    false);
            else if (!r.shot && !valid)
                add(rateAt, "the " + owner + " has no valid <Rate>: none of its times can be read",
                    true);
            else if (!r.shot && ticksOf(rate) == 0)
                add(rateAt,
                    "<Rate> " + numberText(rate) + " of the " + owner +
                        " is no frame rate qvxml knows: none of its times can be read",
                    true);
        }
        if (!r.chanListSeen || r.chans == 0)
            add(r.offset,
                "the " + owner + " has no <ChanList> with channels, so the document cannot be read",
                false);
        long long duration = 100;
        if (!r.duration.empty()) scanInt(r.duration.text(), duration);
        if (!r.shot && duration <= 0 && r.keyframes > 0)
            add(r.duration.offset,
                "<Duration> " + std::to_string(duration) + " of the " + owner +
                    " divides the positions of its level keyframes, which become " +
                    (duration == 0 ? "infinite or no numbers, and are lost" : "negative"),
                false);
        for (Raw& x : r.raw) {
            if (x.what.empty())
                x.what = "the " + owner + " has " + std::to_string(r.labels) +
                         " <Label>s; a record holds 10, and the rest are left out";
            fill(x.what, kOwner, owner);
            add(x.offset, std::move(x.what), x.untrusted);
        }
    }

    std::string_view text_;
    bool version2_;

    First editRes_;
    bool inRecord_ = false, inChan_ = false, inEvent_ = false;
    Record record_;
    Chan chan_;
    Event event_;
    std::unordered_set<std::string_view> ids_;
    std::deque<std::string> kept_;

    std::string_view lastGoodLabel_;
    std::vector<PendingRef> refs_;
    std::size_t chanRefs_ = 0;         // the first reference of the channel being read
    std::vector<std::string> owners_;  // the records read, phrased
    std::vector<Finding> findings_;
};

}  // namespace

XmlLimits qvxmlLimits() {
    XmlLimits limits;
    // The elements that QVXML never nests in one another: its readers look
    // for them at any depth, and would read nested ones again at every
    // level.
    limits.unnested = {{"Shot", "Edit"}, {"ChanList"}, {"Chan"},    {"CelEvent"},
                       {"Label"},        {"Effect"},   {"Keyframe"}};
    limits.format = "QVXML";
    return limits;
}

XmlCheck checkNative(std::string_view text, bool version2, std::vector<Finding>& findings) {
    NativeAudit audit(text, version2);
    XmlCheck check = scan::Scanner<NativeAudit>(text, qvxmlLimits(), &audit).run();
    findings = check.limit ? std::vector<Finding>() : audit.finish();
    return check;
}

std::vector<Finding> auditNative(std::string_view text, bool version2) {
    std::vector<Finding> findings;
    checkNative(text, version2, findings);
    return findings;
}

}  // namespace qvapp
