#include "edl/EdlWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <set>
#include <unordered_map>

#include "edl/EdlList.h"
#include "host/Edit.h"
#include "host/Paths.h"
#include "host/UUIDHash.h"

namespace QvEdl {

namespace {

bool isShotRecord(const CED2* r) {
    return r->isShot && !r->isGhost;
}

std::string upperCase(std::string s) {
    for (char& c : s)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    return s;
}

// Text on one line: line ends and tabs become blanks, ends are trimmed.
std::string oneLine(std::string s) {
    for (char& c : s)
        if (c == '\r' || c == '\n' || c == '\t') c = ' ';
    std::size_t a = s.find_first_not_of(' '), b = s.find_last_not_of(' ');
    return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

// At most `bytes` bytes of `s`, cut at a character.
std::string cutTo(const std::string& s, std::size_t bytes) {
    if (s.size() <= bytes) return s;
    std::size_t cut = bytes;
    while (cut > 0 && (static_cast<unsigned char>(s[cut]) & 0xC0) == 0x80)
        --cut;
    return s.substr(0, cut);
}

// Comments a list reads as something else than a note.
bool reservedNote(const std::string& line) {
    std::string u = upperCase(line);
    for (const char* word : {"FROM CLIP NAME:", "TO CLIP NAME:", "SOURCE FILE:", "LOC:",
                             "FREEZE FRAME", "* FREEZE FRAME", "WIPE REVERSE"})
        if (u.rfind(word, 0) == 0) return true;
    return false;
}

struct AvidColour {
    const char* name;
    unsigned rgb;
};
const AvidColour kColours[] = {{"Red", 0xFF0000},   {"Green", 0x00FF00},   {"Blue", 0x0000FF},
                               {"Cyan", 0x00FFFF},  {"Magenta", 0xFF00FF}, {"Yellow", 0xFFFF00},
                               {"Black", 0x000000}, {"White", 0xFFFFFF}};

const AvidColour& nearestColour(unsigned rgb) {
    const AvidColour* best = &kColours[0];
    long bestDistance = -1;
    for (const AvidColour& c : kColours) {
        long d = 0;
        for (int shift : {16, 8, 0}) {
            long a = (rgb >> shift) & 0xFF, b = (c.rgb >> shift) & 0xFF;
            d += (a - b) * (a - b);
        }
        if (bestDistance < 0 || d < bestDistance) {
            bestDistance = d;
            best = &c;
        }
    }
    return *best;
}

// One stretch of a track on its way out, in record frames from the
// sequence's start.
struct Piece {
    enum Kind { Material, Black, Transition } kind = Black;
    std::int64_t start = 0, end = 0;
    CED2* shot = nullptr;
    std::string clipName;
    double source = 0;  // the source frame played at `start`
    double speed = 1;
    bool wipe = false;
    int wipeCode = -1;
    bool wipeReverse = false;
};

// An event of one track on its way out, with the shot its comments are of:
// the incoming one, or the outgoing one before black.
struct Out {
    Event event;
    int track = 0;
    CED2* owner = nullptr;
};

// A track of a list: a channel and its number in the list (0 the picture,
// n audio channel n).
struct Track {
    CChannel* channel = nullptr;
    int number = 0;
    std::string name;  // "V2", "A1"
};

class Writer {
  public:
    Writer(LoggerHandle log, const ExportOptions& options)
        : log_(std::move(log)), options_(options) {}

    int prepare(const Cookie& edit, std::string& error);
    int write(std::vector<WrittenList>& lists);

  private:
    CED2* find(const Cookie& cookie) const {
        auto it = records_.find(cookie.uuid);
        return it == records_.end() ? nullptr : it->second;
    }
    std::string timecodeAt(std::int64_t frame) const {
        return Timecode::fromFrames(start_ + frame, ticks_, drop_).text();
    }
    void loss(const char* kind, const std::string& track, std::int64_t frame,
              const std::string& detail, bool warn = true);
    double originOf(CED2* shot);
    std::string reelOf(CED2* shot);
    std::string fileOf(CED2* shot) const;
    bool simpleSubclip(CED2* ghost, unsigned channel, CED2*& shot, double& offset,
                       unsigned char& played) const;
    static int audioOrdinal(const CED2* shot, unsigned index);
    std::int64_t frames(double cel) const;
    bool materialOf(const Track& track, const CED2Cell* cel, double into, double speed, Piece& p);
    void flatten(const Track& track, CED2* nest, unsigned char played, std::int64_t from,
                 std::int64_t to, double nestIn, double speed, int depth, std::vector<Piece>& out);
    std::vector<Piece> piecesOf(const Track& track);
    void eventsOf(const Track& track, std::vector<Out>& out);
    EditLine editOf(const Piece& p, Channels channels) const;
    EditLine blackEdit(std::int64_t at, std::int64_t length, Channels channels) const;
    // The list of some tracks; false when it holds no event.
    bool listOf(const std::vector<Track>& tracks, const std::string& suffix, bool markers,
                std::vector<WrittenList>& lists);

    LoggerHandle log_;
    ExportOptions options_;
    CED2List seqList_, ghostList_, deepGhostList_, shotList_;
    std::unordered_map<Qv::UUID, CED2*, Qv::UUIDHash> records_;
    CED2* top_ = nullptr;
    Qv::FrameRate rate_ = Qv::eFrameRate25;
    unsigned ticks_ = 25;
    double fps_ = 25;
    bool drop_ = false;
    std::int64_t start_ = 0;  // the sequence's timecode, as a frame number
    std::map<const CED2*, std::string> reels_;
    std::map<std::string, std::string> reelOwners_;  // a written reel, and the reel it stands for
    std::map<const CED2*, double> origins_;
    std::set<const CED2*> toldLog_;
};

void Writer::loss(const char* kind, const std::string& track, std::int64_t frame,
                  const std::string& detail, bool warn) {
    LossRecord r;
    r.kind = kind;
    r.sequence = toUTF8(top_->get_editName());
    r.track = track.c_str();
    if (frame >= 0) {
        r.frame = frame;
        r.timecode = timecodeAt(frame).c_str();
    }
    r.detail = detail.c_str();
    if (warn) {
        std::string place = track;
        if (frame >= 0) place += (place.empty() ? "at " : " at ") + timecodeAt(frame);
        log_.WarningOut("%s%s%s", place.c_str(), place.empty() ? "" : ": ", detail.c_str());
    }
    log_.LossOut(r);
}

int Writer::prepare(const Cookie& edit, std::string& error) {
    EditPtr opened;
    opened.i_open(edit);
    if (!opened) return 3;
    rate_ = opened->getFrameRate();
    opened.i_close();

    CookieVec cookies;
    cookies.push_back(edit);
    int status = seqList_.PrepareED2ListsForExport(
        cookies, seqList_, ghostList_, deepGhostList_, shotList_, false, 0, log_, rate_,
        options_.skipOffline, false, false, false, false, false);
    if (status != 1) return status;
    for (CED2List* list : {&seqList_, &ghostList_, &deepGhostList_, &shotList_})
        for (CED2* r : each<CED2>(*list))
            records_.emplace(r->cookie.uuid, r);
    top_ = find(edit);
    if (!top_ || top_->excludedFromExport) return 0;

    if (!Qv::isKnownFrameRate(rate_) && top_->rate > 0)
        rate_ = Qv::getEquivalentQvFrameRate(top_->rate);
    if (!Qv::isKnownFrameRate(rate_)) rate_ = Qv::eFrameRate25;
    ticks_ = Qv::getTicksPerSecond(rate_);
    fps_ = Qv::getFramesPerSecond(rate_);
    if (ticks_ == 0) {
        rate_ = Qv::eFrameRate25;
        ticks_ = 25;
        fps_ = 25;
    }
    const EditLabel* label = nullptr;
    if (!isShotRecord(top_) && top_->labelCount > 0 && top_->labels[0].is_valid())
        label = &top_->labels[0];
    bool dropCounts = ticks_ == 30 || ticks_ == 60;
    drop_ = label ? label->isDropFrame() && dropCounts : dropCounts && Qv::has1001Factor(rate_);
    if (label) {
        unsigned t = Qv::getTicksPerSecond(label->get_rate());
        start_ =
            t ? truncateToInt64(nearestCount(static_cast<double>(label->get_start()) * ticks_ / t))
              : 0;
    }
    if (!options_.track.empty()) {
        bool found = false;
        int video = 0;
        for (CChannel* ch : each<CChannel>(top_->channels))
            video += ch->chanType == kChanVideo;
        for (int n = 1; n <= video; ++n)
            found |= options_.track == "V" + std::to_string(n);
        if (!found) {
            error = "\"" + options_.track + "\" is no video track of it (it has " +
                    std::to_string(video) + ")";
            return 4;
        }
    }
    return 1;
}

// Where a shot's frame zero lies in source timecode, in frames of the list.
double Writer::originOf(CED2* shot) {
    auto it = origins_.find(shot);
    if (it != origins_.end()) return it->second;
    const EditLabel* label = nullptr;
    if (shot->primaryLabelSet && shot->primaryLabel.is_valid())
        label = &shot->primaryLabel;
    else if (shot->labelCount > 0 && shot->labels[0].is_valid())
        label = &shot->labels[0];
    double origin = 0;
    if (label) {
        unsigned t = Qv::getTicksPerSecond(label->get_rate());
        if (t) origin = nearestCount(static_cast<double>(label->get_start()) * ticks_ / t);
    }
    double shotFps = shot->rate > 0 ? shot->rate : fps_;
    if (Qv::getTicksPerSecond(Qv::getCelQVFrameRateFromFrameRateDouble(shotFps)) != ticks_)
        loss("source-rate", "", -1,
             "\"" + toUTF8(shot->get_editName()).str() + "\" runs at " +
                 std::to_string(truncateToInt32(timebaseOf(shotFps))) +
                 " fps; its source timecode is counted at the list's rate");
    origins_.emplace(shot, origin);
    return origin;
}

// A shot's reel as the list names it: its reel, cut to --edl-reel-length,
// blanks made underscores; AX for a shot without one. Each reel that had to
// be changed is told once.
std::string Writer::reelOf(CED2* shot) {
    auto it = reels_.find(shot);
    if (it != reels_.end()) return it->second;
    std::string original;
    for (const LightweightString<char>* r : {&shot->reelId, &shot->audioReelId, &shot->camReelId})
        if (original.empty()) original = oneLine(r->str());
    std::string name = toUTF8(shot->get_editName()).str();
    std::string written;
    std::string u = upperCase(original);
    if (original.empty() || u == "AX" || u == "AUX") {
        written = "AX";
        if (original.empty())
            loss("reel-invented", "", -1, "\"" + name + "\" has no reel: written as AX", false);
    } else if (u == "BL" || u == "BLK" || u == "BLACK") {
        written = "AX";
        loss("reel-invented", "", -1,
             "\"" + name + "\": its reel \"" + original + "\" names black in a list: written as AX",
             false);
    } else {
        written = original;
        for (char& c : written)
            if (c == ' ') c = '_';
        std::size_t limit = options_.reelLength > 0 ? static_cast<std::size_t>(options_.reelLength)
                                                    : std::string::npos;
        if (written.size() > limit) written = cutTo(written, limit);
        // Two reels that would be written alike are told apart.
        for (int n = 1;; ++n) {
            auto owner = reelOwners_.find(written);
            if (owner == reelOwners_.end() || owner->second == original) break;
            std::string suffix = "~" + std::to_string(n);
            std::size_t room = limit == std::string::npos || limit <= suffix.size()
                                   ? written.size()
                                   : limit - suffix.size();
            written = cutTo(original, std::min(room, original.size())) + suffix;
            for (char& c : written)
                if (c == ' ') c = '_';
        }
        reelOwners_.emplace(written, original);
        if (written != original)
            loss("reel-shortened", "", -1, "\"" + original + "\" written as " + written, false);
    }
    reels_.emplace(shot, written);
    return written;
}

// The file of a shot's media, or the one its offline media was expected in;
// nothing when that is only the shot's name or reel, which the event says.
std::string Writer::fileOf(CED2* shot) const {
    if (!shot->edit) return {};
    const LightweightString<wchar_t>& path =
        !shot->edit->mediaPath.empty() ? shot->edit->mediaPath : shot->edit->historicLocator;
    std::string file = oneLine(pathBytes(path));
    if (file.find_first_of("/\\") == std::string::npos &&
        (file == toUTF8(shot->get_editName()).str() || file == shot->reelId.str()))
        return {};
    return file;
}

// A sub-clip that plays one stretch of one shot as recorded on the channel
// a cel plays: the shot, where the stretch begins in it, and the channel of
// the shot it plays.
bool Writer::simpleSubclip(CED2* ghost, unsigned channel, CED2*& shot, double& offset,
                           unsigned char& played) const {
    if (!ghost->edit || ghost->edit->logType != kLogTypeSubclip) return false;
    for (CChannel* ch : each<CChannel>(ghost->channels)) {
        if (ch->index != channel) continue;
        if (ch->cels.size() != 1) return false;
        const CED2Cell* cel = ch->firstCel();
        if (!cel->cookie.isValid() || cel->cookie.isMagic() || cel->speed != 1.0f ||
            cel->editIn != 0)
            return false;
        CED2* source = find(cel->cookie);
        if (!source || !isShotRecord(source)) return false;
        shot = source;
        offset = cel->sourceIn;
        played = cel->cookie.channel;
        return true;
    }
    return false;
}

// Which of a shot's sound channels a channel index is: 1 for the first.
int Writer::audioOrdinal(const CED2* shot, unsigned index) {
    int n = 0;
    for (CChannel* ch : each<CChannel>(shot->channels)) {
        if (ch->chanType == kChanAudio) ++n;
        if (ch->index == index) return ch->chanType == kChanAudio ? n : 0;
    }
    return static_cast<int>(index);
}

std::int64_t Writer::frames(double cel) const {
    // A place past a trillion frames is no place a list can name; it is kept
    // where sums of places cannot overflow.
    constexpr std::int64_t kFar = std::int64_t(1) << 40;
    return std::clamp<std::int64_t>(truncateToInt64(nearestFrame(cel * ticks_)), -kFar, kFar);
}

// A cel that plays material, from the record frame `p.start` on; `into` is
// how far past the cel's own start (in its edit's seconds) that frame lies,
// and `speed` the speed of any nest it is played through. Sets the piece's
// source and says what the list cannot hold of it; false when the cel's
// material is an edit of its own (a nest), which the caller flattens.
bool Writer::materialOf(const Track& track, const CED2Cell* cel, double into, double speed,
                        Piece& p) {
    bool video = track.channel->chanType == kChanVideo;
    CED2* source = find(cel->cookie);
    CED2* shot = nullptr;
    double offset = 0;
    unsigned char played = cel->cookie.channel;
    if (source && isShotRecord(source)) {
        shot = source;
    } else if (source && !source->excludedFromExport &&
               simpleSubclip(source, cel->cookie.channel, shot, offset, played)) {
        p.clipName = toUTF8(source->get_editName()).str();
    } else if (source && !source->excludedFromExport) {
        return false;
    } else if (!source && cel->cookie.isValid()) {
        loss("material-missing", track.name, p.start, "not in the project: left out as a gap");
    }
    if (shot && shot->excludedFromExport) shot = nullptr;
    if (!shot) return true;
    p.kind = Piece::Material;
    p.shot = shot;
    if (p.clipName.empty()) p.clipName = toUTF8(shot->get_editName()).str();
    p.speed = static_cast<double>(cel->speed) * speed;
    if (!std::isfinite(p.speed)) p.speed = 1;
    double sourceIn = cel->sourceIn + into * static_cast<double>(cel->speed);
    p.source = originOf(shot) + (offset + sourceIn) * ticks_;
    if (!cel->alternates.empty())
        loss("multi-angle-flat", track.name, p.start,
             p.clipName + ": the angle it plays is written alone");
    if (!video && (cel->level != 1.0f || cel->levelEnd != 1.0f))
        loss("cel-level", track.name, p.start, p.clipName + ": its level is not written");
    // A list plays a source's sound channel n on track An.
    int ordinal = audioOrdinal(shot, played);
    if (!video && ordinal != track.number)
        loss("audio-patch", track.name, p.start,
             p.clipName + ": plays its sound channel " + std::to_string(ordinal) +
                 ", which a list gives as " + std::to_string(track.number));
    return true;
}

// What a nest shows from record frame `from` to `to`, as pieces: a list
// holds sources, not edits, so a nested sequence is written as the picture
// it plays (at each moment its topmost video channel with material there)
// or as the sound channel the cel plays. `nestIn` is where in the nest
// (seconds) the record frame `from` lies; `speed` how fast the nest plays.
void Writer::flatten(const Track& track, CED2* nest, unsigned char played, std::int64_t from,
                     std::int64_t to, double nestIn, double speed, int depth,
                     std::vector<Piece>& out) {
    auto black = [&](std::int64_t a, std::int64_t b) {
        if (b <= a) return;
        Piece p;
        p.start = a;
        p.end = b;
        out.push_back(p);
    };
    const std::string name = toUTF8(nest->get_editName()).str();
    if (depth > 16 || !(speed > 0) || !std::isfinite(speed)) {
        loss("nested-left-out", track.name, from,
             "\"" + name + "\"" +
                 (depth > 16 ? " is nested too deeply" : " plays still or in reverse") +
                 ", which a list cannot hold: left out as a gap");
        black(from, to);
        return;
    }
    bool video = track.channel->chanType == kChanVideo;
    std::vector<const CChannel*> layers;  // top first
    for (CChannel* ch : each<CChannel>(nest->channels))
        if (video && ch->chanType == kChanVideo) layers.push_back(ch);
    if (!video) {
        for (CChannel* ch : each<CChannel>(nest->channels))
            if (ch->chanType == kChanAudio && ch->index == played) layers.push_back(ch);
        if (layers.empty())
            loss("nested-left-out", track.name, from,
                 "\"" + name + "\" has no sound channel " + std::to_string(played) +
                     ": left out as a gap");
    }
    // The record frame of a place in the nest, and back.
    auto recordOf = [&](double t) { return from + frames((t - nestIn) / speed); };
    const double nestOut = nestIn + static_cast<double>(to - from) / ticks_ * speed;

    // Fills [a, b) of the nest (seconds) from layer k down.
    auto fill = [&](auto&& self, std::size_t k, double a, double b) -> void {
        if (recordOf(b) <= recordOf(a)) return;
        if (k >= layers.size()) {
            black(recordOf(a), recordOf(b));
            return;
        }
        std::vector<const CED2Cell*> cels;
        for (CED2Cell* c : each<CED2Cell>(layers[k]->cels))
            cels.push_back(c);
        double at = a;
        for (std::size_t i = 0; i < cels.size() && at < b; ++i) {
            const CED2Cell* c = cels[i];
            double x = std::max(at, c->editIn), y = std::min(b, c->editOut);
            if (y <= x) continue;
            if (x > at) self(self, k + 1, at, x);  // nothing on this layer here
            at = y;
            bool empty = !c->cookie.isValid() || c->cookie.isBlack();
            if (empty) {
                self(self, k + 1, x, y);
                continue;
            }
            Piece p;
            p.start = recordOf(x);
            p.end = recordOf(y);
            if (p.end <= p.start) continue;
            const CED2Cell* played = c;
            double into = x - c->editIn;
            if (c->cookie.isMagic()) {
                if (x == c->editIn && y == c->editOut) {
                    p.kind = Piece::Transition;
                    p.wipe = video && c->GetSMPTEWipeCode() >= 0;
                    p.wipeCode = c->GetSMPTEWipeCode();
                    p.wipeReverse = c->GetWipeDirection() == eWipeReverse;
                    out.push_back(p);
                    continue;
                }
                // Part of a transition: the clip it leads into plays on, from
                // under the transition, or the one it leads out of.
                const CED2Cell* next = i + 1 < cels.size() ? cels[i + 1] : nullptr;
                const CED2Cell* prev = i > 0 ? cels[i - 1] : nullptr;
                if (x > c->editIn && next && !next->cookie.isMagic()) {
                    played = next;
                    into = x - next->editIn;
                } else if (prev && !prev->cookie.isMagic()) {
                    played = prev;
                    into = x - prev->editIn;
                } else {
                    self(self, k + 1, x, y);
                    continue;
                }
            }
            if (!materialOf(track, played, into, speed, p)) {
                CED2* inner = find(played->cookie);
                flatten(track, inner, played->cookie.channel, p.start, p.end,
                        played->sourceIn + into * static_cast<double>(played->speed),
                        speed * static_cast<double>(played->speed), depth + 1, out);
                continue;
            }
            out.push_back(p);
        }
        if (at < b) self(self, k + 1, at, b);
    };
    fill(fill, 0, nestIn, nestOut);
}

std::vector<Piece> Writer::piecesOf(const Track& track) {
    std::vector<Piece> out;
    CChannel* channel = track.channel;
    bool video = channel->chanType == kChanVideo;
    if (!video && (channel->hasTrackLevels || !channel->levels.isEmpty()))
        loss("track-levels", track.name, -1, "the track's level automation is not written");
    std::int64_t pos = 0;
    for (CED2Cell* cel : each<CED2Cell>(channel->cels)) {
        Piece p;
        p.start = frames(cel->editIn);
        p.end = frames(cel->editOut);
        if (p.start < pos) {
            loss("clip-shortened", track.name, p.start,
                 "it overlapped the item before it; it starts where that one ends");
            p.start = pos;
        }
        if (p.end < p.start) p.end = p.start;
        if (cel->cookie.isMagic()) {
            if (cel->cookie.isBlack()) {
                p.kind = Piece::Black;
            } else {
                p.kind = Piece::Transition;
                p.wipe = video && cel->GetSMPTEWipeCode() >= 0;
                p.wipeCode = cel->GetSMPTEWipeCode();
                p.wipeReverse = cel->GetWipeDirection() == eWipeReverse;
            }
        } else if (!materialOf(track, cel, 0, 1, p)) {
            CED2* nest = find(cel->cookie);
            loss("nested-flat", track.name, p.start,
                 "\"" + toUTF8(nest->get_editName()).str() + "\" is written as what it plays");
            double into = static_cast<double>(p.start) / ticks_ - cel->editIn;
            flatten(track, nest, cel->cookie.channel, p.start, p.end,
                    cel->sourceIn + into * static_cast<double>(cel->speed),
                    static_cast<double>(cel->speed), 0, out);
            pos = p.end;
            continue;
        }
        out.push_back(p);
        pos = p.end;
    }
    return out;
}

EditLine Writer::editOf(const Piece& p, Channels channels) const {
    EditLine e;
    e.reel = reels_.at(p.shot);
    e.channels = channels;
    e.effect = "C";
    std::int64_t length = p.end - p.start;
    double first = nearestFrame(p.source);
    double used = p.speed == 0 ? 1 : nearestFrame(std::fabs(p.speed) * static_cast<double>(length));
    if (length == 0) used = 0;
    e.sourceIn = Timecode::fromFrames(truncateToInt64(first), ticks_, drop_);
    e.sourceOut = Timecode::fromFrames(truncateToInt64(first + used), ticks_, drop_);
    e.recordIn = Timecode::fromFrames(start_ + p.start, ticks_, drop_);
    e.recordOut = Timecode::fromFrames(start_ + p.end, ticks_, drop_);
    if (p.speed != 1) {
        e.hasSpeed = true;
        e.speed = p.speed * speedBase(fps_);
    }
    e.clipName = oneLine(p.clipName);
    e.sourceFile = fileOf(p.shot);
    return e;
}

EditLine Writer::blackEdit(std::int64_t at, std::int64_t length, Channels channels) const {
    EditLine e;
    e.reel = "BL";
    e.channels = channels;
    e.effect = "C";
    e.sourceIn = Timecode::fromFrames(0, ticks_, drop_);
    e.sourceOut = Timecode::fromFrames(length, ticks_, drop_);
    e.recordIn = Timecode::fromFrames(start_ + at, ticks_, drop_);
    e.recordOut = Timecode::fromFrames(start_ + at + length, ticks_, drop_);
    return e;
}

// The events of one track, each with that track's channel alone.
void Writer::eventsOf(const Track& track, std::vector<Out>& out) {
    std::vector<Piece> pieces = piecesOf(track);
    Channels channel = track.number == 0 ? kVideo : audioChannel(track.number);
    for (Piece& p : pieces)
        if (p.kind == Piece::Material) reelOf(p.shot);
    std::vector<bool> consumed(pieces.size(), false);
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const Piece& p = pieces[i];
        if (consumed[i]) continue;
        if (p.kind == Piece::Material) {
            if (p.end == p.start) continue;  // an outgoing source alone
            Out o;
            o.event.edits.push_back(editOf(p, channel));
            o.track = track.number;
            o.owner = p.shot;
            out.push_back(std::move(o));
            continue;
        }
        if (p.kind != Piece::Transition) continue;
        const Piece* prev = i > 0 && pieces[i - 1].end == p.start ? &pieces[i - 1] : nullptr;
        const Piece* next =
            i + 1 < pieces.size() && pieces[i + 1].start == p.end ? &pieces[i + 1] : nullptr;
        std::int64_t length = p.end - p.start;
        Out o;
        o.track = track.number;
        Event& ev = o.event;
        if (prev && prev->kind == Piece::Material) {
            o.owner = prev->shot;
            Piece at = *prev;
            at.source = prev->source + static_cast<double>(prev->end - prev->start) * prev->speed;
            at.start = at.end = p.start;
            ev.edits.push_back(editOf(at, channel));
            // The outgoing line names its clip; its file is the incoming one's
            // to a reader, and was said where the clip began.
            ev.edits.back().sourceFile.clear();
        } else {
            ev.edits.push_back(blackEdit(p.start, 0, channel));
        }
        EditLine to;
        if (next && next->kind == Piece::Transition)
            loss("transition-through-black", track.name, p.start,
                 "two transitions in a row: the first goes to black, the second comes from it");
        if (next && next->kind == Piece::Material) {
            Piece from = *next;
            from.start = p.start;
            from.source = next->source - static_cast<double>(length) * next->speed;
            to = editOf(from, channel);
            o.owner = next->shot;
            consumed[i + 1] = true;
        } else {
            to = blackEdit(p.start, length, channel);
        }
        to.transition = p.wipe ? Transition::Wipe : Transition::Dissolve;
        to.duration = static_cast<int>(std::min<std::int64_t>(length, 999999));
        if (p.wipe) {
            char code[16];
            std::snprintf(code, sizeof code, "W%03d", std::clamp(p.wipeCode, 0, 999999));
            to.effect = code;
            to.wipeCode = p.wipeCode;
            to.wipeReverse = p.wipeReverse;
        } else {
            to.effect = "D";
        }
        ev.edits.push_back(std::move(to));
        out.push_back(std::move(o));
    }
}

bool Writer::listOf(const std::vector<Track>& tracks, const std::string& suffix, bool markers,
                    std::vector<WrittenList>& lists) {
    std::vector<Out> events;
    for (const Track& t : tracks)
        eventsOf(t, events);

    // Record order, the picture before the sound at one time.
    auto recordIn = [&](const Out& o) { return o.event.edits.front().recordIn.toFrames(ticks_); };
    std::stable_sort(events.begin(), events.end(), [&](const Out& a, const Out& b) {
        std::int64_t ra = recordIn(a), rb = recordIn(b);
        return ra != rb ? ra < rb : a.track < b.track;
    });
    // Events alike on several tracks are one.
    auto alike = [&](const Event& a, const Event& b) {
        if (a.edits.size() != b.edits.size()) return false;
        for (std::size_t k = 0; k < a.edits.size(); ++k) {
            const EditLine &x = a.edits[k], &y = b.edits[k];
            if (x.reel != y.reel || x.effect != y.effect || x.duration != y.duration ||
                x.sourceIn.text() != y.sourceIn.text() ||
                x.sourceOut.text() != y.sourceOut.text() ||
                x.recordIn.text() != y.recordIn.text() ||
                x.recordOut.text() != y.recordOut.text() || x.hasSpeed != y.hasSpeed ||
                x.speed != y.speed || x.clipName != y.clipName || x.sourceFile != y.sourceFile ||
                x.wipeReverse != y.wipeReverse)
                return false;
        }
        return true;
    };
    std::vector<Out> merged;
    for (Out& o : events) {
        bool joined = false;
        for (std::size_t m = merged.size(); m-- > 0;) {
            Out& other = merged[m];
            if (recordIn(other) != recordIn(o)) break;
            Channels mine = o.event.edits.front().channels;
            Channels theirs = other.event.edits.front().channels;
            if (!(mine & theirs) && other.owner == o.owner && alike(other.event, o.event)) {
                for (std::size_t k = 0; k < other.event.edits.size(); ++k)
                    other.event.edits[k].channels |= o.event.edits[k].channels;
                joined = true;
                break;
            }
        }
        if (!joined) merged.push_back(std::move(o));
    }
    if (merged.empty()) return false;

    // A list starts where its sequence does.
    if (recordIn(merged.front()) > start_) {
        Channels first = tracks.front().number == 0 ? kVideo : audioChannel(tracks.front().number);
        Out lead;
        lead.event.edits.push_back(blackEdit(0, recordIn(merged.front()) - start_, first));
        merged.insert(merged.begin(), std::move(lead));
    }

    List list;
    list.title = oneLine(toUTF8(top_->get_editName()).str());
    int width = merged.size() > 999 ? 6 : 3;
    std::size_t reelWidth = 8;
    for (std::size_t n = 0; n < merged.size(); ++n) {
        Event& ev = merged[n].event;
        char number[32];
        std::snprintf(number, sizeof number, "%0*zu", width, n + 1);
        ev.number = number;
        for (const EditLine& e : ev.edits)
            reelWidth = std::max(reelWidth, e.reel.size());
    }

    // The notes of the shot the event is most about.
    for (Out& o : merged) {
        if (!o.owner) continue;
        std::set<std::string> seen;
        std::string notes = o.owner->notesTxt.str();
        std::size_t at = 0;
        while (at <= notes.size()) {
            std::size_t end = notes.find('\n', at);
            if (end == std::string::npos) end = notes.size();
            std::string line = oneLine(notes.substr(at, end - at));
            at = end + 1;
            if (line.empty() || !seen.insert(line).second) continue;
            if (reservedNote(line)) {
                if (toldLog_.insert(o.owner).second)
                    loss("log-text", "", -1,
                         "\"" + toUTF8(o.owner->get_editName()).str() +
                             "\": a note a list reads as something else is not written",
                         false);
                continue;
            }
            o.event.notes.push_back(line);
        }
    }

    if (markers) {
        for (const Ced2Cue& cue : top_->cues) {
            std::int64_t frame =
                std::clamp<std::int64_t>(truncateToInt64(nearestFrame(cue.in * ticks_)),
                                         -(std::int64_t(1) << 40), std::int64_t(1) << 40);
            const AvidColour& colour = nearestColour(cue.colour);
            std::string text = oneLine(toUTF8(cue.name).str());
            std::string comment = oneLine(toUTF8(cue.comment).str());
            if (!comment.empty()) text += (text.empty() ? "" : " ") + comment;
            if ((colour.rgb & 0xFFFFFF) != (cue.colour & 0xFFFFFF)) {
                char hex[16];
                std::snprintf(hex, sizeof hex, "#%06X", cue.colour & 0xFFFFFF);
                loss("marker-colour", "", frame, text + " " + hex + " written as " + colour.name,
                     false);
            }
            if (cue.out < kCueOpenEnd && cue.out > cue.in)
                loss("marker", "", frame, text + ": a locator has no end", false);
            Locator loc;
            loc.at = Timecode::fromFrames(start_ + frame, ticks_, drop_);
            loc.colour = colour.name;
            loc.text = text;
            Out* home = &merged.front();
            for (Out& o : merged)
                if (recordIn(o) <= start_ + frame) home = &o;
            home->event.locators.push_back(std::move(loc));
        }
    }
    for (Out& o : merged)
        list.events.push_back(std::move(o.event));
    WriteStyle style;
    style.drop = drop_;
    style.numberWidth = width;
    style.reelWidth = static_cast<int>(reelWidth);
    lists.push_back({suffix, formatList(list, style)});
    return true;
}

int Writer::write(std::vector<WrittenList>& lists) {
    // V1 is the lowest video track: the last video channel.
    std::vector<CChannel*> video, audio;
    for (CChannel* ch : each<CChannel>(top_->channels))
        (ch->chanType == kChanVideo ? video : audio).push_back(ch);
    std::reverse(video.begin(), video.end());
    auto hasMaterial = [](CChannel* ch) {
        for (CED2Cell* cel : each<CED2Cell>(ch->cels))
            if (!cel->cookie.isMagic()) return true;
        return false;
    };
    std::vector<Track> sound;
    for (std::size_t i = 0; i < audio.size(); ++i) {
        Track t{audio[i], static_cast<int>(i + 1), "A" + std::to_string(i + 1)};
        if (i < 4)
            sound.push_back(t);
        else if (hasMaterial(audio[i]))
            loss("audio-not-written", t.name, -1, "a list holds four audio tracks");
    }
    bool shotAlone = isShotRecord(top_) || top_->isGhost;
    bool first = true;
    for (std::size_t v = 0; v < video.size(); ++v) {
        std::string name = "V" + std::to_string(v + 1);
        bool chosen = options_.track.empty() || options_.track == name;
        if (!chosen) {
            if (hasMaterial(video[v]))
                loss("track-left-out", name, -1, "only " + options_.track + " is written");
            continue;
        }
        if (!hasMaterial(video[v]) && !(first && !sound.empty())) {
            log_.WarningOut("%s holds nothing to write; it has no list", name.c_str());
            continue;
        }
        std::vector<Track> tracks{{video[v], 0, name}};
        if (first) tracks.insert(tracks.end(), sound.begin(), sound.end());
        if (!first)
            loss("video-track-apart", name, -1, "written to a list of its own, apart from V1");
        // A shot's list bears the shot's name alone; a shot of several
        // pictures names its further lists by track, as a sequence does, so
        // that no two lists share a name.
        if (listOf(tracks, shotAlone && first ? "" : name, first, lists)) first = false;
    }
    if (first && !sound.empty()) listOf(sound, "", true, lists);
    return lists.empty() ? 0 : 1;
}

}  // namespace

int writeEdl(const Cookie& edit, const ExportOptions& options, LoggerHandle log,
             std::vector<WrittenList>& lists, std::string& error) {
    lists.clear();
    Writer writer(log, options);
    int status = writer.prepare(edit, error);
    if (status != 1) return status;
    return writer.write(lists);
}

}  // namespace QvEdl
