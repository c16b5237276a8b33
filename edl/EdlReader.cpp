#include "edl/EdlReader.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <limits>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "host/Edit.h"
#include "host/Media.h"
#include "host/OS.h"
#include "host/Paths.h"
#include "host/VideoFormat.h"
#include "plugin/Status.h"

namespace QvEdl {

namespace {

// Stray lines told one by one before the rest are only counted.
constexpr int kStrayLinesTold = 20;

ShotVideoMetadata fixedMetadata(Qv::FrameRate rate) {
    return ShotVideoMetadata(Qv::DigitalVideoFormats::findByUID(Qv::Image::FormatUID(28)),
                             Qv::Image::kFormatYUY2, rate, Qv::Image::eAspectSquare, false,
                             Qv::Image::eScanProgressive, 8);
}

bool sameText(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i) {
        char x = a[i], y = b[i];
        if (x >= 'a' && x <= 'z') x = static_cast<char>(x - 32);
        if (y >= 'a' && y <= 'z') y = static_cast<char>(y - 32);
        if (x != y) return false;
    }
    return true;
}

// The auxiliary reel, or none: the reel says nothing of the source.
bool auxiliary(const std::string& reel) {
    return reel.empty() || sameText(reel, "AX") || sameText(reel, "AUX");
}

// A name that ends in an extension of one to five letters or digits, as a
// file's does ("A001.mov", "1-21T01.WAV").
bool fileLike(const std::string& name) {
    std::size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || name.size() - dot - 1 < 1 ||
        name.size() - dot - 1 > 5)
        return false;
    for (std::size_t i = dot + 1; i < name.size(); ++i) {
        char c = name[i];
        if (!((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')))
            return false;
    }
    return true;
}

// A path that names its place whole: POSIX, a drive, UNC, or a URL.
bool absoluteLocator(const std::string& s) {
    return (!s.empty() && (s[0] == '/' || s[0] == '\\')) ||
           (s.size() >= 2 && s[1] == ':' &&
            ((s[0] >= 'a' && s[0] <= 'z') || (s[0] >= 'A' && s[0] <= 'Z'))) ||
           s.find("://") != std::string::npos;
}

std::string baseName(const std::string& path) {
    std::size_t slash = path.find_last_of("/\\");
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// Avid's locator colours.
bool colourOf(const std::string& name, unsigned& rgb) {
    static const std::pair<const char*, unsigned> kColours[] = {
        {"RED", 0xFF0000},     {"GREEN", 0x00FF00},  {"BLUE", 0x0000FF},  {"CYAN", 0x00FFFF},
        {"MAGENTA", 0xFF00FF}, {"YELLOW", 0xFFFF00}, {"BLACK", 0x000000}, {"WHITE", 0xFFFFFF},
        {"ORANGE", 0xFF8000},  {"PURPLE", 0x8000FF}, {"PINK", 0xFF80C0}};
    for (const auto& [n, v] : kColours)
        if (sameText(name, n)) {
            rgb = v;
            return true;
        }
    return false;
}

}  // namespace

// What the list says of one shot, gathered over its events.
struct EdlReader::Shot {
    std::string reel, name, sourceFile, clipFile;
    Channels channels = 0;
    double low = std::numeric_limits<double>::infinity();
    double high = -std::numeric_limits<double>::infinity();
    bool drop = false;
    std::vector<std::string> notes;
    std::unordered_set<std::string> noted;
    CED2* record = nullptr;
    double origin = 0;  // the source frame at the shot's cel time 0

    void cover(double from, double to) {
        low = std::min({low, from, to});
        high = std::max({high, from, to});
    }
    void note(const std::string& text) {
        if (noted.insert(text).second) notes.push_back(text);
    }
};

// One stretch of a channel, in record frames from the sequence's start.
struct EdlReader::Piece {
    enum Kind { Material, Black, Transition, From } kind = Black;
    std::int64_t start = 0, end = 0;
    int shot = -1;      // Material, From: the shot it plays
    double source = 0;  // the source frame played at `start`
    double speed = 1;   // source frames a record frame
    bool wipe = false;  // Transition
    int wipeCode = -1;
    bool wipeReverse = false;
    int event = 0;  // the index of its event
};

class EdlReader::Builder {
  public:
    Builder(EdlReader& reader, const List& list, const ReadOptions& options,
            const LightweightString<wchar_t>& documentPath)
        : r_(reader), list_(list), options_(options), documentPath_(documentPath) {}

    XML::ImportResult run();

  private:
    void tellProblems();
    void decideRate();
    void readEvent(std::size_t index);
    // An edit's source file: its SOURCE FILE, or its reel's in the table of
    // sources.
    const std::string& fileOf(const EditLine& e) const {
        if (!e.sourceFile.empty() || sourceTable_.empty()) return e.sourceFile;
        auto found = sourceTable_.find(e.reel);
        return found == sourceTable_.end() ? e.sourceFile : found->second;
    }
    void checkFrames(const EditLine& e);
    std::string keyOf(const EditLine& e, std::size_t event) const;
    int shotOf(const EditLine& e, std::size_t event);
    double speedOf(const EditLine& e) const { return e.hasSpeed ? e.speed / speedBase(fps_) : 1.0; }
    // Record frames of an edit, mended when its out lies before its in.
    bool recordOf(const EditLine& e, std::size_t event, std::int64_t& in, std::int64_t& out);
    void addCut(const EditLine& e, std::size_t event);
    void addTransition(const EditLine* from, const EditLine& to, std::size_t event);
    void push(int channel, Piece p) { pieces_[static_cast<std::size_t>(channel)].push_back(p); }
    void coverShots();
    void resolveMedia();
    LightweightString<wchar_t> locatorOf(const Shot& s);
    void buildSequence();
    void buildChannel(CED2* record, int channel);
    CED2Cell* addCel(CChannel* ch, const Piece& p, std::int64_t start, std::int64_t end);
    bool restates(CChannel* ch, const Piece& p) const;
    static std::string refOf(int shot, unsigned channel) {
        return "s" + std::to_string(shot) + "$" + std::to_string(channel) + "$";
    }

    std::string trackName(int channel) const {
        return channel == 0 ? "V1" : "A" + std::to_string(channel);
    }
    void loss(const char* kind, int channel, std::int64_t frame, const std::string& detail);
    void warn(const std::string& text) { r_.logger.WarningOut("%s", text.c_str()); }

    EdlReader& r_;
    const List& list_;
    ReadOptions options_;
    LightweightString<wchar_t> documentPath_;
    std::string sequenceName_;
    Qv::FrameRate rate_ = Qv::eFrameRate25;
    unsigned ticks_ = 25;
    double fps_ = 25;
    bool dropCounts_ = false;  // drop frame counts at this rate
    std::int64_t start_ = 0;   // the sequence's first frame, as a timecode frame number
    std::vector<Shot> shots_;
    std::unordered_map<std::string, int> shotByKey_;
    std::vector<std::vector<Piece>> pieces_ = std::vector<std::vector<Piece>>(32);
    std::vector<Ced2Cue> cues_;
    std::unordered_map<std::string, std::string> sourceTable_;
    std::unordered_set<int> toldFrames_;
};

// A timecode whose frames reach past the rate counts into the next second;
// it is told.
void EdlReader::Builder::checkFrames(const EditLine& e) {
    for (const Timecode* tc : {&e.sourceIn, &e.sourceOut, &e.recordIn, &e.recordOut})
        if (tc->frames >= static_cast<int>(ticks_) && toldFrames_.insert(e.line).second)
            warn("line " + std::to_string(e.line) + ": " + tc->text() +
                 " counts more frames than a second of the list has; they run into the next "
                 "second");
}

void EdlReader::Builder::loss(const char* kind, int channel, std::int64_t frame,
                              const std::string& detail) {
    LossRecord rec;
    rec.kind = kind;
    rec.sequence = sequenceName_.c_str();
    if (channel >= 0) rec.track = trackName(channel).c_str();
    if (frame >= 0) {
        rec.frame = frame;
        rec.timecode = Timecode::fromFrames(start_ + frame, ticks_, dropCounts_ && list_.firstDrop)
                           .text()
                           .c_str();
    }
    rec.detail = detail.c_str();
    r_.logger.LossOut(rec);
}

void EdlReader::Builder::tellProblems() {
    if (list_.latin1) warn("the list is not UTF-8: its text is read as Latin-1");
    int stray = 0;
    for (const Problem& p : list_.problems) {
        bool isStray = p.kind.empty() && p.what.find("is no line of") != std::string::npos;
        if (isStray && ++stray > kStrayLinesTold) continue;
        warn("line " + std::to_string(p.line) + ": " + p.what);
        if (!p.kind.empty()) loss(p.kind.c_str(), -1, -1, "line " + std::to_string(p.line));
    }
    if (stray > kStrayLinesTold)
        warn(std::to_string(stray - kStrayLinesTold) + " more lines that are no part of a list " +
             "are passed over");
}

void EdlReader::Builder::decideRate() {
    std::string how;
    bool told = true;
    rate_ = listRate(list_, options_.rate, how, told);
    ticks_ = Qv::getTicksPerSecond(rate_);
    fps_ = Qv::getFramesPerSecond(rate_);
    dropCounts_ = ticks_ == 30 || ticks_ == 60;
    std::string rateText = toUTF8(Qv::getPlainString(rate_)).str();
    if (!told)
        warn("the list does not say its rate: it is read at " + rateText + " fps, as " + how +
             "; --rate gives another");
    else
        r_.logger.Out("List rate %s fps (%s)", rateText.c_str(), how.c_str());
    if (list_.anyDrop && !dropCounts_)
        warn("the list counts drop frame, which " + rateText +
             " fps does not have: its timecodes are read as non-drop");
    for (const auto& [reel, file] : list_.sourceTable)
        if (!file.empty()) sourceTable_.emplace(reel, file);
}

Qv::FrameRate EdlReader::listRate(const List& list, Qv::FrameRate given, std::string& how,
                                  bool& told) {
    told = true;
    if (Qv::isKnownFrameRate(given)) {
        how = "--rate says";
        return given;
    }
    if (list.anyDrop) {
        how = "its timecodes count drop frame";
        return list.largestFrames >= 30 ? Qv::eFrameRate59_94 : Qv::eFrameRate29_97;
    }
    told = false;
    if (list.largestFrames >= 50) {
        how = "its frames reach " + std::to_string(list.largestFrames);
        return Qv::eFrameRate60;
    }
    if (list.largestFrames >= 30) {
        how = "its frames reach " + std::to_string(list.largestFrames);
        return Qv::eFrameRate50;
    }
    if (list.largestFrames >= 25) {
        how = "its frames reach " + std::to_string(list.largestFrames);
        return Qv::eFrameRate30;
    }
    how = "nothing in it tells";
    if (list.largestFrames >= 0)
        how += " (its frames reach only " + std::to_string(list.largestFrames) + ")";
    return Qv::eFrameRate25;
}

// ---- events into pieces ----

// One shot for each reel and source file: the SOURCE FILE, else a clip name
// that names a file; an auxiliary reel without either is told apart by its
// clip name, or is an event's own.
std::string EdlReader::Builder::keyOf(const EditLine& e, std::size_t event) const {
    bool aux = auxiliary(e.reel);
    std::string key = aux ? "" : e.reel;
    key += '\x1f';
    if (const std::string& file = fileOf(e); !file.empty())
        key += file;
    else if (fileLike(e.clipName))
        key += e.clipName;
    else if (aux && !e.clipName.empty())
        key += e.clipName;
    else if (aux)
        key += "#" + std::to_string(event);
    return key;
}

int EdlReader::Builder::shotOf(const EditLine& e, std::size_t event) {
    const std::string& reel = e.reel;
    bool aux = auxiliary(reel);
    const std::string& file = fileOf(e);
    auto [it, fresh] = shotByKey_.try_emplace(keyOf(e, event), static_cast<int>(shots_.size()));
    if (fresh) {
        Shot s;
        s.reel = aux ? "" : reel;
        s.sourceFile = file;
        s.clipFile = fileLike(e.clipName) ? e.clipName : "";
        s.name = !e.clipName.empty() ? e.clipName
                 : !file.empty()     ? baseName(file)
                 : !reel.empty()     ? reel
                                     : "NoName";
        s.drop = e.sourceIn.drop;
        shots_.push_back(std::move(s));
    }
    Shot& s = shots_[static_cast<std::size_t>(it->second)];
    s.channels |= e.channels;
    if (s.sourceFile.empty() && !file.empty()) s.sourceFile = file;
    return it->second;
}

bool EdlReader::Builder::recordOf(const EditLine& e, std::size_t event, std::int64_t& in,
                                  std::int64_t& out) {
    checkFrames(e);
    in = e.recordIn.toFrames(ticks_) - start_;
    out = e.recordOut.toFrames(ticks_) - start_;
    if (out >= in) return true;
    std::int64_t source = e.sourceOut.toFrames(ticks_) - e.sourceIn.toFrames(ticks_);
    const Event& ev = list_.events[event];
    if (e.isBlack() && e.transition == Transition::Cut) {
        // Black that ends before it begins is no black: what no event
        // covers is black already.
        warn("line " + std::to_string(e.line) + ": event " + ev.number +
             " (black) ends before it begins; it is passed over");
        return false;
    }
    if (source <= 0) {
        warn("line " + std::to_string(e.line) + ": event " + ev.number +
             " ends before it begins; it is left out");
        loss("unreadable-event", -1, in, "event " + ev.number + " ends before it begins");
        return false;
    }
    out = in + source;
    warn("line " + std::to_string(e.line) + ": event " + ev.number +
         " ends before it begins; it lasts as long as its source");
    loss("record-timed-by-source", -1, in, "event " + ev.number);
    return true;
}

void EdlReader::Builder::addCut(const EditLine& e, std::size_t event) {
    std::int64_t in, out;
    if (!recordOf(e, event, in, out) || out == in) return;
    if (!e.hasSpeed) {
        std::int64_t source = e.sourceOut.toFrames(ticks_) - e.sourceIn.toFrames(ticks_);
        if (source != out - in && !e.isBlack())
            r_.logger.Out(
                "line %d: event %s lasts %lld frames of source and %lld of record; the "
                "record's length is taken",
                e.line, list_.events[event].number.c_str(), static_cast<long long>(source),
                static_cast<long long>(out - in));
    }
    Piece p;
    p.start = in;
    p.end = out;
    p.event = static_cast<int>(event);
    if (e.isBlack()) {
        p.kind = Piece::Black;
    } else {
        p.kind = Piece::Material;
        p.shot = shotOf(e, event);
        p.source = static_cast<double>(e.sourceIn.toFrames(ticks_));
        p.speed = speedOf(e);
    }
    for (int c = 0; c < 32; ++c)
        if (e.channels & (Channels(1) << c)) push(c, p);
    if (e.transition == Transition::Key)
        for (int c = 0; c < 32; ++c)
            if (e.channels & (Channels(1) << c))
                loss("key-as-cut", c, in,
                     "event " + list_.events[event].number + " (" + e.effect + ")");
}

void EdlReader::Builder::addTransition(const EditLine* from, const EditLine& to,
                                       std::size_t event) {
    std::int64_t in, out;
    if (!recordOf(to, event, in, out)) return;
    std::int64_t length = to.duration;
    const Event& ev = list_.events[event];
    if (length > out - in) {
        warn("line " + std::to_string(to.line) + ": the transition of event " + ev.number +
             " lasts " + std::to_string(length) +
             " frames, longer than the event; it is shortened");
        loss("transition-trimmed", -1, in, "event " + ev.number);
        length = out - in;
    }
    if (length <= 0) {
        addCut(to, event);
        return;
    }
    bool zeroFrom = from && from->recordIn.toFrames(ticks_) == from->recordOut.toFrames(ticks_);
    Piece mark;
    if (zeroFrom) {
        mark.kind = from->isBlack() ? Piece::Black : Piece::From;
        mark.start = mark.end = in;
        mark.event = static_cast<int>(event);
        if (!from->isBlack()) {
            mark.shot = shotOf(*from, event);
            mark.source = static_cast<double>(from->sourceIn.toFrames(ticks_));
            mark.speed = speedOf(*from);
        }
    }
    Piece t;
    t.kind = Piece::Transition;
    t.start = in;
    t.end = in + length;
    t.event = static_cast<int>(event);
    t.wipe = to.transition == Transition::Wipe;
    t.wipeCode = to.wipeCode;
    t.wipeReverse = to.wipeReverse;
    Piece incoming;
    incoming.start = in + length;
    incoming.end = out;
    incoming.event = static_cast<int>(event);
    if (to.isBlack()) {
        incoming.kind = Piece::Black;
    } else {
        incoming.kind = Piece::Material;
        incoming.shot = shotOf(to, event);
        incoming.speed = speedOf(to);
        incoming.source = static_cast<double>(to.sourceIn.toFrames(ticks_)) +
                          static_cast<double>(length) * incoming.speed;
    }
    for (int c = 0; c < 32; ++c) {
        if (!(to.channels & (Channels(1) << c))) continue;
        if (zeroFrom && mark.kind == Piece::From) push(c, mark);
        Piece tc = t;
        if (c != 0) tc.wipe = false;  // sound crosses, whatever the picture does
        push(c, tc);
        // After a transition to black, black is what no event covers.
        if (incoming.kind == Piece::Material) push(c, incoming);
    }
}

void EdlReader::Builder::readEvent(std::size_t index) {
    const Event& ev = list_.events[index];
    const EditLine& first = ev.edits.front();
    if (ev.edits.size() == 1) {
        if (first.transition == Transition::Dissolve || first.transition == Transition::Wipe)
            addTransition(nullptr, first, index);
        else
            addCut(first, index);
    } else {
        const EditLine& second = ev.edits[1];
        if (first.recordIn.toFrames(ticks_) != first.recordOut.toFrames(ticks_))
            addCut(first, index);
        if (second.transition == Transition::Key)
            addCut(second, index);
        else
            addTransition(&first, second, index);
    }
    // The comments of an event are its incoming shot's, or its outgoing
    // one's when it goes to black.
    const EditLine* owner = nullptr;
    for (const EditLine& e : ev.edits)
        if (!e.isBlack()) owner = &e;
    if (owner && !ev.notes.empty()) {
        if (auto found = shotByKey_.find(keyOf(*owner, index)); found != shotByKey_.end())
            for (const std::string& n : ev.notes)
                shots_[static_cast<std::size_t>(found->second)].note(n);
    }
    for (const Locator& loc : ev.locators) {
        unsigned rgb = 0xFF0000;
        if (!loc.colour.empty() && !colourOf(loc.colour, rgb))
            warn("line " + std::to_string(loc.line) + ": the locator colour \"" + loc.colour +
                 "\" is read as red");
        double at = static_cast<double>(loc.at.toFrames(ticks_) - start_) / ticks_;
        cues_.emplace_back(fromUTF8(loc.text.c_str()), LightweightString<wchar_t>(), rgb, at,
                           kChanVideo, 0u, kCueOpenEnd);
    }
}

// ---- shots ----

// How far into its source each shot is played, the media a transition plays
// on past its cut included.
void EdlReader::Builder::coverShots() {
    for (auto& channel : pieces_) {
        for (std::size_t i = 0; i < channel.size(); ++i) {
            const Piece& p = channel[i];
            if (p.kind != Piece::Material && p.kind != Piece::From) continue;
            double length = static_cast<double>(p.end - p.start);
            // The outgoing side of a transition that follows plays on.
            if (i + 1 < channel.size() && channel[i + 1].kind == Piece::Transition &&
                channel[i + 1].start == p.end)
                length += static_cast<double>(channel[i + 1].end - channel[i + 1].start);
            // The incoming side began that much earlier.
            double head = 0;
            if (i > 0 && channel[i - 1].kind == Piece::Transition && channel[i - 1].end == p.start)
                head = static_cast<double>(channel[i - 1].end - channel[i - 1].start);
            Shot& s = shots_[static_cast<std::size_t>(p.shot)];
            double from = p.source - head * p.speed;
            double to = p.source + length * p.speed;
            if (p.speed > 0)
                s.cover(from, to);
            else if (p.speed < 0)
                s.cover(to + 1, from + 1);
            else
                s.cover(p.source, p.source + 1);
        }
    }
}

// Where a shot's media is looked for: its source file, its clip name beside
// the list, or its reel's name beside the list; the first of these that is
// there (after --map-path) or known to the project, or a file beside the list
// whose name without its extension is one of them. Failing all, the first.
LightweightString<wchar_t> EdlReader::Builder::locatorOf(const Shot& s) {
    std::string folder = toUTF8(getPath(documentPath_)).str();
    if (!folder.empty() && folder.back() != '/') folder += '/';
    auto placed = [&](const std::string& name) {
        return absoluteLocator(name) ? name : folder + name;
    };
    std::vector<std::string> candidates;
    if (!s.sourceFile.empty()) candidates.push_back(placed(s.sourceFile));
    if (!s.clipFile.empty()) candidates.push_back(placed(s.clipFile));
    if (s.sourceFile.empty() && s.clipFile.empty() && !s.reel.empty() &&
        s.reel.find_first_of("/\\") == std::string::npos)
        candidates.push_back(placed(s.reel));
    if (candidates.empty()) return {};
    for (const std::string& c : candidates) {
        LightweightString<wchar_t> locator = fromUTF8(c.c_str());
        LightweightString<wchar_t> platform = OSPrivate()->fileSystem()->platformForm(locator);
        if (fileExists(platform) || MediaFileToClipMap::instance()
                                        .findClip(platform, MediaFileToClipMap::eMatchFile)
                                        .isValid())
            return locator;
    }
    // A name without an extension, as Avid writes a source file or a reel,
    // is matched against the files beside the list without theirs.
    for (const std::string& c : candidates) {
        std::string name = baseName(c);
        if (fileLike(name) || name.empty() || absoluteLocator(c) != (c[0] == '/') || folder.empty())
            continue;
        std::error_code ec;
        std::vector<std::string> found;
        for (std::filesystem::directory_iterator it(folder, ec), end; !ec && it != end;
             it.increment(ec)) {
            std::error_code typeError;
            if (!it->is_regular_file(typeError)) continue;
            if (it->path().stem().string() == name) found.push_back(it->path().string());
        }
        std::sort(found.begin(), found.end());
        if (!found.empty()) return fromUTF8(found.front().c_str());
    }
    // Nothing is there: the shot keeps the name the list gave it, as the
    // list gave it.
    const std::string& named = !s.sourceFile.empty() ? s.sourceFile
                               : !s.clipFile.empty() ? s.clipFile
                                                     : s.reel;
    return fromUTF8(named.c_str());
}

// Each shot's record, and its media found as every import finds it, before
// any cel is placed: a cel's source counts from the media's own timecode
// when the media is found.
void EdlReader::Builder::resolveMedia() {
    int total = static_cast<int>(shots_.size()), done = 0;
    for (std::size_t i = 0; i < shots_.size(); ++i) {
        Shot& s = shots_[i];
        CED2* shot = new CED2(true);
        s.record = shot;
        shot->editName = fromUTF8(s.name.c_str());
        shot->reelId = s.reel.c_str();
        shot->rate = fps_;
        shot->sourceMedium = getMediumRollfromInputDetails(Qv::Image::eScanProgressive, rate_);
        std::string notes;
        for (const std::string& n : s.notes)
            notes += (notes.empty() ? "" : "\n") + n;
        shot->notesTxt = notes.c_str();
        LightweightString<wchar_t> locator = locatorOf(s);
        if (!locator.empty()) {
            shot->originLocator = locator;
            shot->originLocatorSet = true;
        }
        // The picture, when the list plays it, and the sound channels up to
        // the highest it plays: the list's channel n is the shot's n-th.
        int audio = 0;
        for (int c = 31; c > 0 && audio == 0; --c)
            if (s.channels & (Channels(1) << c)) audio = c;
        for (int c = 0; c <= audio; ++c) {
            if (c == 0 && !(s.channels & kVideo)) continue;
            EditChanType type = c == 0 ? kChanVideo : kChanAudio;
            CChannel* ch = shot->CreateEditChannel(static_cast<unsigned>(c), type);
            ch->name = trackName(c).c_str();
            ch->cels.append(new CED2Cell);
            if (c == 0) shot->hasVideo = true;
        }
        shot->audioChannelCount = audio;
        r_.shotList.append(shot);

        // The reader core's own resolution, as for every import.
        r_.materialQueue.clear();
        r_.resolveShotMaterial(shot, documentPath_);
        r_.importMaterialForShot(shot);
        r_.logger.progress(total ? static_cast<double>(++done) / total : 1.0);

        double length;
        Qv::Ptr<::Edit> media =
            shot->cookie.isValid() && (shot->materialLinked || shot->materialImported)
                ? EditStore::current().find(shot->cookie)
                : nullptr;
        // A list's picture is the media's picture, its sound channel n the
        // media's n-th sound channel, whatever their numbers in the media.
        std::vector<unsigned> pictures, sounds;
        if (media)
            for (const StoredChannel& ch : media->channels)
                (ch.type == kChanVideo ? pictures : sounds).push_back(ch.index);
        for (int c = 0; c < 32; ++c) {
            if (!(s.channels & (Channels(1) << c))) continue;
            unsigned index = static_cast<unsigned>(c);
            if (c == 0 && !pictures.empty()) index = pictures.front();
            if (c > 0 && static_cast<std::size_t>(c) <= sounds.size())
                index = sounds[static_cast<std::size_t>(c - 1)];
            r_.clipRefs.addRef(LightweightString<char>(
                                   refOf(static_cast<int>(i), static_cast<unsigned>(c)).c_str()),
                               shot, true, index, c == 0 ? kChanVideo : kChanAudio);
        }
        if (media) {
            // The media's timecode is where its frames count from.
            EditLabel tc = media->getVideoTimecodeLabel();
            s.origin = 0;
            if (tc.is_valid()) {
                unsigned labelTicks = Qv::getTicksPerSecond(tc.get_rate());
                s.origin =
                    labelTicks
                        ? nearestCount(static_cast<double>(tc.get_start()) * ticks_ / labelTicks)
                        : 0;
            }
            length = media->getEndTime();
        } else {
            // Offline: the shot starts at the first source frame the list
            // plays of it, and lasts as far as the list plays it.
            double low = std::isfinite(s.low) ? std::floor(s.low) : 0;
            double high = std::isfinite(s.high) ? std::ceil(s.high) : low + 1;
            s.origin = std::max(0.0, low);
            length = std::max(1.0, high - s.origin) / ticks_;
            EditLabel label =
                editLabFrom(static_cast<int>(std::min(s.origin, 2.0e9)),
                            Qv::Image::eScanProgressive, rate_, s.drop && dropCounts_);
            if (label.is_valid()) {
                shot->primaryLabel = label;
                shot->primaryLabelSet = true;
                shot->addLabel(label);
            }
        }
        shot->duration = length;
        for (CChannel* ch : each<CChannel>(shot->channels))
            for (CED2Cell* cel : each<CED2Cell>(ch->cels))
                cel->editOut = cel->sourceOut = length;
    }
}

// ---- the sequence ----

CED2Cell* EdlReader::Builder::addCel(CChannel* ch, const Piece& p, std::int64_t start,
                                     std::int64_t end) {
    bool video = ch->chanType == kChanVideo;
    CED2Cell* cel = new CED2Cell;
    cel->editIn = static_cast<double>(start) / ticks_;
    cel->editOut = static_cast<double>(end) / ticks_;
    switch (p.kind) {
        case Piece::Black:
            cel->cookie = video ? video_black : audio_black;
            break;
        case Piece::Transition:
            cel->cookie = video ? video_dissolve : audio_dissolve;
            if (video && p.wipe) {
                cel->cookie = video_wipe;
                cel->SetSMPTEWipeCode(std::max(0, p.wipeCode),
                                      p.wipeReverse ? eWipeReverse : eWipeForward);
            }
            break;
        case Piece::Material:
        case Piece::From: {
            const Shot& s = shots_[static_cast<std::size_t>(p.shot)];
            cel->refId = refOf(p.shot, ch->index).c_str();
            cel->speed = narrowToFloat(p.speed);
            double source = p.source + static_cast<double>(start - p.start) * p.speed;
            cel->sourceIn = (source - s.origin) / ticks_;
            cel->sourceOut = cel->sourceIn + static_cast<double>(end - start) * p.speed / ticks_;
            break;
        }
    }
    ch->cels.append(cel);
    return cel;
}

// Whether a piece plays what the channel's last cel plays from the piece's
// start to that cel's end: the same source, at the same speed.
bool EdlReader::Builder::restates(CChannel* ch, const Piece& p) const {
    const CED2Cell* last = static_cast<const CED2Cell*>(ch->cels.last());
    if (!last || p.kind != Piece::Material || last->cookie.isValid() ||
        last->refId != LightweightString<char>(refOf(p.shot, ch->index).c_str()) ||
        std::fabs(static_cast<double>(last->speed) - p.speed) > 1e-6 ||
        last->editOut * ticks_ > static_cast<double>(p.end) + 1e-6)
        return false;
    const Shot& s = shots_[static_cast<std::size_t>(p.shot)];
    double there =
        s.origin +
        (last->sourceIn + (static_cast<double>(p.start) / ticks_ - last->editIn) * last->speed) *
            ticks_;
    return std::fabs(there - p.source) < 0.5;
}

void EdlReader::Builder::buildChannel(CED2* record, int channel) {
    std::vector<Piece>& pieces = pieces_[static_cast<std::size_t>(channel)];
    CChannel* ch = record->CreateEditChannel(static_cast<unsigned>(channel),
                                             channel == 0 ? kChanVideo : kChanAudio);
    ch->name = trackName(channel).c_str();
    Piece gap;
    gap.kind = Piece::Black;
    std::int64_t cursor = 0;
    // An event written twice over (Premiere writes some so) plays once. The
    // pieces are in record order, so a piece said again starts where it did.
    using Signature = std::tuple<std::int64_t, int, int, double, double, int, bool>;
    std::vector<Signature> here;  // the pieces that start at `hereAt`
    std::int64_t hereAt = std::numeric_limits<std::int64_t>::min();
    for (const Piece& p : pieces) {
        if (p.start != hereAt) {
            here.clear();
            hereAt = p.start;
        }
        Signature sig{p.end,        static_cast<int>(p.kind), p.shot, p.source, p.speed, p.wipeCode,
                      p.wipeReverse};
        if (std::find(here.begin(), here.end(), sig) != here.end()) continue;
        here.push_back(sig);
        if (p.kind == Piece::From) {
            // The outgoing source of a transition. When the cel before plays
            // it on from there, that cel is it; otherwise (a gap, another
            // source) it is a cel of no length of its own.
            CED2Cell* last = static_cast<CED2Cell*>(ch->cels.last());
            bool continues = false;
            if (last && cursor == p.start && !last->cookie.isValid() &&
                last->refId == LightweightString<char>(
                                   refOf(p.shot, static_cast<unsigned>(channel)).c_str())) {
                double end =
                    last->sourceOut * ticks_ + shots_[static_cast<std::size_t>(p.shot)].origin;
                continues = std::fabs(end - p.source) <= 1.0 + 1e-9 &&
                            std::fabs(static_cast<double>(last->speed) - p.speed) < 1e-6;
            }
            if (continues) continue;
            if (p.start > cursor) addCel(ch, gap, cursor, p.start);
            if (p.start >= cursor) {
                addCel(ch, p, p.start, p.start);
                cursor = p.start;
            }
            continue;
        }
        if (p.start < cursor) {
            // An event laid over the one before: that one ends where it begins,
            // as a recorder that records over it. An event that only says again
            // what the one before plays there (Premiere restates the incoming
            // side of a transition so) loses nothing.
            const Event& ev = list_.events[static_cast<std::size_t>(p.event)];
            if (restates(ch, p)) {
                r_.logger.Out("line %d: event %s plays again what the event before it plays",
                              ev.line, ev.number.c_str());
            } else {
                warn("line " + std::to_string(ev.line) + ": event " + ev.number +
                     " begins before the one before it on " + trackName(channel) +
                     " ends; that one is cut where it begins");
                loss("event-overlap", channel, p.start, "event " + ev.number);
            }
            while (CED2Cell* last = static_cast<CED2Cell*>(ch->cels.last())) {
                if (last->editIn * ticks_ >= static_cast<double>(p.start) - 1e-6) {
                    delete ch->cels.remove(last);
                    continue;
                }
                double cut = static_cast<double>(p.start) / ticks_;
                if (last->editOut > cut) {
                    last->sourceOut = last->sourceIn + (cut - last->editIn) * last->speed;
                    last->editOut = cut;
                }
                break;
            }
            cursor = p.start;
        }
        if (p.start > cursor) addCel(ch, gap, cursor, p.start);
        addCel(ch, p, p.start, p.end);
        cursor = p.end;
    }
}

void EdlReader::Builder::buildSequence() {
    CED2* record = new CED2(false);
    record->cookie = makeNewEditCookie();
    record->editName = fromUTF8(sequenceName_.c_str());
    record->shotVideoMetadata = fixedMetadata(rate_);
    record->shotVideoMetadataSet = true;
    EditLabel label =
        editLabFrom(static_cast<int>(std::clamp<std::int64_t>(start_, 0, 2000000000)),
                    Qv::Image::eScanProgressive, rate_, list_.firstDrop && dropCounts_);
    if (label.is_valid()) {
        label.set_MediumRoll(
            {getMediumRollfromOutputDetails(Qv::Image::eScanProgressive, rate_), 1});
        record->addLabel(label);
    }
    std::string notes;
    for (const std::string& n : list_.notes)
        notes += (notes.empty() ? "" : "\n") + n;
    record->notesTxt = notes.c_str();
    record->cues = cues_;

    int highestAudio = 0;
    for (int c = 1; c < 32; ++c)
        if (!pieces_[static_cast<std::size_t>(c)].empty()) highestAudio = c;
    if (!pieces_[0].empty()) buildChannel(record, 0);
    // Audio channels from A1 to the highest the list plays, so that each
    // keeps its number.
    for (int c = 1; c <= highestAudio; ++c)
        buildChannel(record, c);
    r_.seqList.append(record);
}

XML::ImportResult EdlReader::Builder::run() {
    sequenceName_ = list_.title;
    if (sequenceName_.empty())
        sequenceName_ = toUTF8(stripExtension(stripPath(documentPath_))).str();
    if (sequenceName_.empty()) sequenceName_ = "NoName";
    decideRate();
    r_.seqFrameRate = rate_;
    // The sequence starts at the earliest record timecode of its events.
    start_ = std::numeric_limits<std::int64_t>::max();
    for (const Event& ev : list_.events)
        for (const EditLine& e : ev.edits)
            start_ = std::min(start_, e.recordIn.toFrames(ticks_));
    if (list_.events.empty()) start_ = 0;
    r_.logger.Out("List \"%s\"", sequenceName_.c_str());
    tellProblems();

    for (std::size_t i = 0; i < list_.events.size(); ++i)
        readEvent(i);
    for (auto& channel : pieces_) {
        // Lists sorted by source (B and C mode) are read in record order.
        bool sorted =
            std::is_sorted(channel.begin(), channel.end(),
                           [](const Piece& a, const Piece& b) { return a.start < b.start; });
        if (!sorted)
            std::stable_sort(channel.begin(), channel.end(),
                             [](const Piece& a, const Piece& b) { return a.start < b.start; });
    }
    coverShots();
    resolveMedia();
    buildSequence();

    // The reader core's remaining steps: references, then the records to
    // the store.
    XML::ImportResult result;
    for (CED2* seq : each<CED2>(r_.seqList))
        r_.resolveChanReferences(seq);
    r_.shotList.WriteAllED2s(r_.seqFrameRate);
    r_.ghostList.WriteAllED2s(r_.seqFrameRate);
    r_.seqList.WriteAllED2s(r_.seqFrameRate);
    for (const EditModifier& m : r_.seqList.buildCookieList())
        result.edits.push_back(m);
    result.status = XML::kStatusOK;
    return result;
}

EdlReader::EdlReader(LoggerHandle log) : XML::XMLReader(log) {}
EdlReader::~EdlReader() = default;

XML::ImportResult EdlReader::importList(const List& list,
                                        const Qv::Ptr<ImportFileInfoRep>& fileInfo,
                                        const ReadOptions& options, LoggerHandle log) {
    LightweightString<wchar_t> documentPath;
    if (fileInfo) {
        importDrive = fileInfo->getDrive();
        documentPath = fileInfo->name();
    }
    logger = log;
    return Builder(*this, list, options, documentPath).run();
}

// ---- files ----

namespace {

bool readFile(const LightweightString<wchar_t>& path, std::string& out) {
    std::ifstream in(pathBytes(path), std::ios::binary);
    if (!in) return false;
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

}  // namespace

XML::ImportResult importEdlFile(const LightweightString<wchar_t>& path, const ReadOptions& options,
                                LoggerHandle log, std::string& error) {
    XML::ImportResult result;
    std::string bytes;
    if (!readFile(path, bytes)) {
        error = "it cannot be read";
        result.status = XML::kStatusUnreadable;
        return result;
    }
    List list = parseList(bytes);
    // The text is its events now.
    std::string().swap(bytes);
    if (list.events.empty()) {
        error = "it holds no event that can be read";
        result.status = XML::kStatusUnknown;
        return result;
    }
    Qv::Ptr<EdlReader> reader(new EdlReader(log));
    Qv::Ptr<ImportFileInfoRep> info(new ImportFileInfoRep({path}));
    return reader->importList(list, info, options, log);
}

Qv::FrameRate edlFrameRate(const LightweightString<wchar_t>& path, const ReadOptions& options,
                           std::string& how) {
    std::string bytes;
    if (!readFile(path, bytes)) return Qv::eFrameRateNone;
    List list = parseList(bytes);
    if (list.events.empty()) return Qv::eFrameRateNone;
    bool told = true;
    return EdlReader::listRate(list, options.rate, how, told);
}

bool isEdlDocument(const LightweightString<wchar_t>& path) {
    std::ifstream in(pathBytes(path), std::ios::binary);
    if (!in) return false;
    std::string head(16384, '\0');
    in.read(head.data(), static_cast<std::streamsize>(head.size()));
    head.resize(static_cast<std::size_t>(in.gcount()));
    // A whole file shorter than the head ends its last line itself.
    if (head.size() < 16384) head += '\n';
    return looksLikeList(head);
}

}  // namespace QvEdl
