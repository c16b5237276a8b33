#include "edl/EdlList.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace QvEdl {

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

bool isDigits(std::string_view s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), isDigit);
}

char upper(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

std::string upperCase(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        c = upper(c);
    return out;
}

std::string_view trim(std::string_view s) {
    while (!s.empty() && isSpace(s.front()))
        s.remove_prefix(1);
    while (!s.empty() && isSpace(s.back()))
        s.remove_suffix(1);
    return s;
}

// Whether `s` begins with `prefix`, letters in either case.
bool startsWithWord(std::string_view s, std::string_view prefix) {
    if (s.size() < prefix.size()) return false;
    for (std::size_t i = 0; i < prefix.size(); ++i)
        if (upper(s[i]) != prefix[i]) return false;
    return true;
}

std::vector<std::string_view> tokens(std::string_view s) {
    std::vector<std::string_view> out;
    std::size_t i = 0;
    while (i < s.size()) {
        while (i < s.size() && isSpace(s[i]))
            ++i;
        std::size_t start = i;
        while (i < s.size() && !isSpace(s[i]))
            ++i;
        if (i > start) out.push_back(s.substr(start, i - start));
    }
    return out;
}

std::string joined(const std::vector<std::string_view>& parts, std::size_t from, std::size_t to) {
    std::string out;
    for (std::size_t i = from; i < to; ++i) {
        if (i > from) out += ' ';
        out += parts[i];
    }
    return out;
}

// Four fields of one to three digits; ':' between them, or ';' or '.' before
// the frames for drop frame (',' is taken as ':').
bool parseTimecode(std::string_view s, bool fcmDrop, Timecode& tc) {
    int fields[4] = {0, 0, 0, 0};
    char lastSeparator = ':';
    std::size_t at = 0;
    for (int f = 0; f < 4; ++f) {
        std::size_t start = at;
        long value = 0;
        while (at < s.size() && isDigit(s[at]) && at - start < 3)
            value = value * 10 + (s[at++] - '0');
        if (at == start) return false;
        fields[f] = static_cast<int>(value);
        if (f < 3) {
            if (at >= s.size()) return false;
            char c = s[at++];
            if (c != ':' && c != ';' && c != '.' && c != ',') return false;
            if (f == 2) lastSeparator = c;
        }
    }
    if (at != s.size() || fields[1] > 59 || fields[2] > 59) return false;
    tc.hours = fields[0];
    tc.minutes = fields[1];
    tc.seconds = fields[2];
    tc.frames = fields[3];
    tc.drop = fcmDrop || lastSeparator == ';' || lastSeparator == '.';
    tc.valid = true;
    return true;
}

bool isEffect(std::string_view t) {
    if (t == "C" || t == "D" || t == "K" || t == "KB" || t == "KO") return true;
    if (t.empty() || t[0] != 'W') return false;
    std::string_view code = t.substr(1);
    if (!code.empty() && code.back() == 'R') code.remove_suffix(1);
    return code.empty() || isDigits(code);
}

bool parseChannels(std::string_view field, Channels& out) {
    out = 0;
    std::string f = upperCase(field);
    std::size_t start = 0;
    for (;;) {
        std::size_t slash = f.find('/', start);
        std::string part = f.substr(start, slash == std::string::npos ? slash : slash - start);
        if (part == "V") {
            out |= kVideo;
        } else if (part == "A") {
            out |= audioChannel(1);
        } else if (part == "AA") {
            out |= audioChannel(1) | audioChannel(2);
        } else if (part == "B") {
            out |= kVideo | audioChannel(1);
        } else if (part == "NONE") {
        } else if (part.size() >= 2 && part[0] == 'A' && isDigits(part.substr(1)) &&
                   part.size() <= 3) {
            int n = std::atoi(part.c_str() + 1);
            if (n < 1 || n > 31) return false;
            out |= audioChannel(n);
        } else {
            return false;
        }
        if (slash == std::string::npos) break;
        start = slash + 1;
    }
    return true;
}

bool validUtf8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        auto c = static_cast<unsigned char>(s[i]);
        if (c < 0x80) {
            ++i;
            continue;
        }
        int more;
        std::uint32_t cp;
        if (c >= 0xC2 && c <= 0xDF) {
            more = 1;
            cp = c & 0x1F;
        } else if (c >= 0xE0 && c <= 0xEF) {
            more = 2;
            cp = c & 0x0F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            more = 3;
            cp = c & 0x07;
        } else {
            return false;
        }
        if (i + static_cast<std::size_t>(more) >= s.size()) return false;
        for (int k = 1; k <= more; ++k) {
            auto d = static_cast<unsigned char>(s[i + static_cast<std::size_t>(k)]);
            if ((d & 0xC0) != 0x80) return false;
            cp = cp << 6 | (d & 0x3F);
        }
        if ((more == 2 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
            (more == 3 && (cp < 0x10000 || cp > 0x10FFFF)))
            return false;
        i += static_cast<std::size_t>(more) + 1;
    }
    return true;
}

std::string latin1ToUtf8(std::string_view s) {
    std::string out;
    out.reserve(s.size() + s.size() / 8);
    for (char ch : s) {
        auto c = static_cast<unsigned char>(ch);
        if (c < 0x80) {
            out += ch;
        } else {
            out += static_cast<char>(0xC0 | (c >> 6));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

// A line as a message may quote it: at most 60 bytes, cut at a character.
std::string quoted(std::string_view line) {
    std::string_view t = trim(line);
    if (t.size() > 60) {
        std::size_t cut = 57;
        while (cut > 0 && (static_cast<unsigned char>(t[cut]) & 0xC0) == 0x80)
            --cut;
        return "\"" + std::string(t.substr(0, cut)) + "...\"";
    }
    return "\"" + std::string(t) + "\"";
}

// An M2 line waiting for its event to be complete.
struct Speed {
    int line;
    std::string reel;
    double fps;
    Timecode entry;
};

class Parser {
  public:
    List run(std::string_view bytes);

  private:
    void line(std::string_view text, int number);
    bool event(std::string_view text, int number);
    void comment(std::string_view body, int number);
    void finishEvent();
    void problem(int line, std::string what, const char* kind = "") {
        list_.problems.push_back({line, std::move(what), kind});
    }
    void stray(std::string_view text, int number) {
        ++list_.strayLines;
        problem(number, quoted(text) + " is no line of an edit decision list; it is passed over");
    }
    void noteFrames(const Timecode& tc) {
        list_.largestFrames = std::max(list_.largestFrames, tc.frames);
        list_.anyDrop = list_.anyDrop || tc.drop;
    }

    List list_;
    bool drop_ = false;
    bool sawEvent_ = false;
    Event* current_ = nullptr;
    std::vector<Speed> speeds_;
    Channels aud_ = 0;
    bool inTable_ = false;    // after a ">>> SOURCE" line
    bool splitNext_ = false;  // a SPLIT line stands before the next event
};

List Parser::run(std::string_view bytes) {
    if (bytes.substr(0, 3) == "\xEF\xBB\xBF") bytes.remove_prefix(3);
    std::string converted;
    if (!validUtf8(bytes)) {
        converted = latin1ToUtf8(bytes);
        bytes = converted;
        list_.latin1 = true;
    }
    int number = 0;
    std::size_t at = 0;
    while (at < bytes.size()) {
        std::size_t end = at;
        while (end < bytes.size() && bytes[end] != '\n' && bytes[end] != '\r')
            ++end;
        line(bytes.substr(at, end - at), ++number);
        // CRLF, LF and CR alone all end a line.
        if (end < bytes.size() && bytes[end] == '\r' && end + 1 < bytes.size() &&
            bytes[end + 1] == '\n')
            ++end;
        at = end + 1;
    }
    finishEvent();
    return std::move(list_);
}

void Parser::line(std::string_view raw, int number) {
    std::string_view text = trim(raw);
    if (text.empty()) return;
    if (isDigit(text[0])) {
        std::size_t first = 0;
        while (first < text.size() && isDigit(text[first]))
            ++first;
        if (first == text.size() || isSpace(text[first])) {
            if (!event(text, number))
                problem(number, quoted(text) + " is an event that cannot be read; it is left out",
                        "unreadable-event");
            return;
        }
    }
    if (startsWithWord(text, "TITLE:")) {
        if (list_.title.empty() && !sawEvent_) list_.title = std::string(trim(text.substr(6)));
        return;
    }
    if (startsWithWord(text, "FCM:")) {
        std::string mode = upperCase(trim(text.substr(4)));
        std::size_t used = 0;
        for (const char* nd : {"NON-DROP FRAME", "NON DROP FRAME", "NONDROP FRAME", "NON-DROP"}) {
            if (mode.rfind(nd, 0) == 0) {
                drop_ = false;
                used = std::string_view(nd).size();
                break;
            }
        }
        if (used == 0 && mode.rfind("DROP FRAME", 0) == 0) {
            drop_ = true;
            used = 10;
        }
        if (used == 0) {
            problem(number, quoted(text) + " names no frame code mode; it is passed over");
        } else {
            list_.fcmGiven = true;
            if (used < mode.size())
                problem(number, "the text after the frame code mode of " + quoted(text) +
                                    " is passed over");
        }
        return;
    }
    if (text[0] == '*') {
        std::string_view body = text.substr(1);
        comment(trim(body), number);
        return;
    }
    if (startsWithWord(text, "FROM CLIP NAME:") || startsWithWord(text, "TO CLIP NAME:") ||
        startsWithWord(text, "EFFECTS NAME IS") || startsWithWord(text, "SOURCE FILE:")) {
        comment(text, number);
        return;
    }
    std::vector<std::string_view> t = tokens(text);
    if (t[0] == "M2" || t[0] == "m2") {
        Speed s{number, "", 0, {}};
        char* end = nullptr;
        std::string speed = t.size() >= 3 ? std::string(t[t.size() - 2]) : std::string();
        double fps = std::strtod(speed.c_str(), &end);
        if (!current_ || t.size() < 3 || !parseTimecode(t.back(), drop_, s.entry) ||
            end != speed.c_str() + speed.size() || speed.empty() || !std::isfinite(fps) ||
            std::fabs(fps) > 100000) {
            if (current_)
                problem(number, quoted(text) + " is a speed that cannot be read; it is passed over",
                        "unreadable-speed");
            else
                stray(text, number);
            return;
        }
        s.fps = fps;
        s.reel = joined(t, 1, t.size() - 2);
        speeds_.push_back(std::move(s));
        return;
    }
    if (upperCase(t[0]) == "AUD") {
        if (!current_) {
            stray(text, number);
            return;
        }
        for (std::size_t i = 1; i < t.size(); ++i) {
            std::string_view n = t[i];
            if (n.size() > 1 && (n[0] == 'A' || n[0] == 'a')) n.remove_prefix(1);
            int channel = isDigits(n) && n.size() <= 2 ? std::atoi(std::string(n).c_str()) : 0;
            if (channel >= 1 && channel <= 31)
                aud_ |= audioChannel(channel);
            else
                problem(number, "\"" + std::string(t[i]) + "\" of " + quoted(text) +
                                    " is no audio channel; it is passed over");
        }
        return;
    }
    if (startsWithWord(text, ">>> SOURCE")) {
        // Avid's table of sources: a reel, its name cut short, its UMID; a
        // SOURCE FILE comment names its file. No event's comments follow.
        finishEvent();
        std::vector<std::string_view> t = tokens(text.substr(10));
        if (!t.empty()) list_.sourceTable.emplace_back(std::string(t[0]), std::string());
        inTable_ = true;
        return;
    }
    if (startsWithWord(text, "SPLIT:")) {
        // A split stands before the event it splits.
        splitNext_ = true;
        problem(number, quoted(text) + ": the split is not kept; the event is read as one cut",
                "split-edit");
        return;
    }
    stray(text, number);
}

bool Parser::event(std::string_view text, int number) {
    std::vector<std::string_view> t = tokens(text);
    if (t.size() < 6 || t[0].size() > 9) return false;
    EditLine e;
    e.line = number;
    std::size_t n = t.size();
    Timecode* times[4] = {&e.sourceIn, &e.sourceOut, &e.recordIn, &e.recordOut};
    int damaged = -1, parsed = 0;
    for (int i = 0; i < 4; ++i) {
        std::string_view field = t[n - 4 + static_cast<std::size_t>(i)];
        if (parseTimecode(field, drop_, *times[i]))
            ++parsed;
        else if (damaged < 0 && field.find_first_of(":;") != std::string_view::npos)
            damaged = i;
    }
    if (parsed < 4) {
        // The times of an event are all there, one of them damaged (a
        // timecode with a field that is no number or past its range, or
        // one that is no timecode beside three that are): read as another
        // time it would move the event, so the list's times cannot be
        // trusted. Anything else is no event that can be read.
        if (damaged < 0 && parsed == 3)
            for (int i = 0; i < 4 && damaged < 0; ++i)
                if (!times[i]->valid) damaged = i;
        if (damaged < 0 || parsed < 2) return false;
        static const char* const kFields[4] = {"source in", "source out", "record in",
                                               "record out"};
        problem(number,
                quoted(t[n - 4 + static_cast<std::size_t>(damaged)]) + ", the " + kFields[damaged] +
                    " of event " + std::string(t[0]) + ", is no timecode; the event is left out",
                "unusable-value");
        return true;
    }

    // The fields between the number and the timecodes, from the right: an
    // optional transition length, the transition, the channels, the reel.
    std::size_t end = n - 4;
    auto effectAt = [&](std::size_t i) {  // the effect ending at token i, as tokens used
        if (i >= 2 && (t[i] == "B" || t[i] == "O") && t[i - 1] == "K") return 2;
        return i >= 1 && isEffect(t[i]) ? 1 : 0;
    };
    if (end >= 3 && isDigits(t[end - 1]) && effectAt(end - 2) > 0) {
        std::string digits(t[end - 1]);
        e.duration = digits.size() > 6 ? 999999 : std::atoi(digits.c_str());
        --end;
    }
    int used = effectAt(end - 1);
    if (used == 0) return false;
    e.effect = used == 2 ? "K" + std::string(t[end - 1]) : std::string(t[end - 1]);
    end -= static_cast<std::size_t>(used);
    switch (e.effect[0]) {
        case 'C':
            e.transition = Transition::Cut;
            break;
        case 'D':
            e.transition = Transition::Dissolve;
            break;
        case 'K':
            e.transition = Transition::Key;
            break;
        default: {
            e.transition = Transition::Wipe;
            std::string code = e.effect.substr(1);
            if (!code.empty() && code.back() == 'R') {
                e.wipeReverse = true;
                code.pop_back();
            }
            e.wipeCode = code.empty() ? 0 : std::atoi(code.substr(0, 6).c_str());
        }
    }
    if (end < 2 || !parseChannels(t[end - 1], e.channels)) return false;
    e.reel = joined(t, 1, end - 1);
    noteFrames(e.recordIn);
    noteFrames(e.recordOut);

    std::string eventNumber(t[0]);
    // The second line of a transition carries the first one's number.
    if (current_ && current_->number == eventNumber && current_->edits.size() == 1 &&
        e.transition != Transition::Cut) {
        current_->edits.push_back(std::move(e));
        return true;
    }
    finishEvent();
    inTable_ = false;
    if (!sawEvent_) list_.firstDrop = e.recordIn.drop;
    sawEvent_ = true;
    list_.events.emplace_back();
    current_ = &list_.events.back();
    current_->split = std::exchange(splitNext_, false);
    current_->line = number;
    current_->number = std::move(eventNumber);
    current_->edits.push_back(std::move(e));
    return true;
}

void Parser::comment(std::string_view body, int number) {
    auto value = [&](std::size_t prefix) { return std::string(trim(body.substr(prefix))); };
    if (startsWithWord(body, "FROM CLIP NAME:")) {
        if (current_) current_->edits.front().clipName = value(15);
        return;
    }
    if (startsWithWord(body, "TO CLIP NAME:")) {
        if (current_) current_->edits.back().clipName = value(13);
        return;
    }
    if (startsWithWord(body, "SOURCE FILE:")) {
        if (inTable_ && !list_.sourceTable.empty() && list_.sourceTable.back().second.empty()) {
            list_.sourceTable.back().second = value(12);
            return;
        }
        if (!current_) return;
        // A file whose name begins with an edit's reel is that edit's; any
        // other goes to the first edit without one that is not black, the
        // outgoing line of a transition, which has no length, coming last.
        std::string file = value(12);
        std::size_t slash = file.find_last_of("/\\");
        std::string_view name =
            std::string_view(file).substr(slash == std::string::npos ? 0 : slash + 1);
        std::vector<EditLine>& edits = current_->edits;
        auto open = [](const EditLine& e) { return !e.isBlack() && e.sourceFile.empty(); };
        auto still = [](const EditLine& e) {
            return e.recordIn.hours == e.recordOut.hours &&
                   e.recordIn.minutes == e.recordOut.minutes &&
                   e.recordIn.seconds == e.recordOut.seconds &&
                   e.recordIn.frames == e.recordOut.frames;
        };
        EditLine* to = nullptr;
        for (EditLine& e : edits)
            if (!to && open(e) && !e.reel.empty() && name.substr(0, e.reel.size()) == e.reel)
                to = &e;
        for (std::size_t i = 0; i < edits.size(); ++i)
            if (!to && open(edits[i]) && !(still(edits[i]) && i + 1 < edits.size())) to = &edits[i];
        for (EditLine& e : edits)
            if (!to && open(e)) to = &e;
        if (to) to->sourceFile = file;
        return;
    }
    if (startsWithWord(body, "LOC:")) {
        std::string_view rest = trim(body.substr(4));
        std::vector<std::string_view> t = tokens(rest);
        Locator loc;
        loc.line = number;
        if (t.empty() || !parseTimecode(t[0], drop_, loc.at)) {
            problem(number, "the locator " + quoted(body) + " names no timecode; it is passed over",
                    "marker-unread");
            return;
        }
        std::size_t textAt = 1;
        if (t.size() > 1) {
            loc.colour = std::string(t[1]);
            textAt = 2;
        }
        // A track field ("V1") may follow the colour.
        if (t.size() > 2 && (t[2][0] == 'V' || t[2][0] == 'A') && t[2].size() <= 3 &&
            (t[2].size() == 1 || isDigits(t[2].substr(1))))
            ++textAt;
        if (textAt < t.size())
            loc.text = std::string(
                trim(rest.substr(static_cast<std::size_t>(t[textAt].data() - rest.data()))));
        if (current_)
            current_->locators.push_back(std::move(loc));
        else
            problem(number,
                    "the locator " + quoted(body) + " comes before any event; it is passed over",
                    "marker-unread");
        return;
    }
    // The freeze of an M2 line of speed 0, said again.
    if (startsWithWord(body, "FREEZE FRAME") || startsWithWord(body, "* FREEZE FRAME")) return;
    if (startsWithWord(body, "WIPE REVERSE")) {
        if (current_) current_->edits.back().wipeReverse = true;
        return;
    }
    if (body.empty()) return;
    if (current_)
        current_->notes.emplace_back(body);
    else
        list_.notes.emplace_back(body);
}

// Speeds go to the edit of their reel whose source begins where the M2
// line's timecode says; failing that, to an edit of their reel, or to the
// last edit.
void Parser::finishEvent() {
    if (!current_) return;
    for (Speed& s : speeds_) {
        EditLine* to = nullptr;
        for (EditLine& e : current_->edits)
            if (!e.hasSpeed && e.reel == s.reel && e.sourceIn.hours == s.entry.hours &&
                e.sourceIn.minutes == s.entry.minutes && e.sourceIn.seconds == s.entry.seconds &&
                e.sourceIn.frames == s.entry.frames)
                to = &e;
        for (EditLine& e : current_->edits)
            if (!to && !e.hasSpeed && e.reel == s.reel) to = &e;
        if (!to) {
            to = &current_->edits.back();
            if (to->hasSpeed) {
                problem(s.line, "a second speed for one edit is passed over", "unreadable-speed");
                continue;
            }
            if (to->reel != s.reel)
                problem(s.line, "the speed names the reel \"" + s.reel + "\", which event " +
                                    current_->number + " does not play; it is taken as its own");
        }
        to->hasSpeed = true;
        to->speed = s.fps;
        to->speedLine = s.line;
    }
    for (EditLine& e : current_->edits)
        e.channels |= aud_;
    speeds_.clear();
    aud_ = 0;
    current_ = nullptr;
}

}  // namespace

bool EditLine::isBlack() const {
    std::string r = upperCase(reel);
    return r == "BL" || r == "BLK" || r == "BLACK";
}

// ---- timecode ----

namespace {

int droppedPerMinute(unsigned ticks, bool drop) {
    if (!drop) return 0;
    return ticks == 30 ? 2 : ticks == 60 ? 4 : 0;
}

}  // namespace

std::int64_t Timecode::toFrames(unsigned ticks) const {
    if (!valid || ticks == 0) return 0;
    const std::int64_t d = droppedPerMinute(ticks, drop);
    const std::int64_t totalMinutes = static_cast<std::int64_t>(hours) * 60 + minutes;
    std::int64_t frame = (totalMinutes * 60 + seconds) * static_cast<std::int64_t>(ticks) + frames;
    return frame - d * (totalMinutes - totalMinutes / 10);
}

Timecode Timecode::fromFrames(std::int64_t frame, unsigned ticks, bool drop) {
    Timecode tc;
    if (ticks == 0) return tc;
    const std::int64_t d = droppedPerMinute(ticks, drop);
    const std::int64_t day = 24LL * 3600 * ticks - d * (24 * 60 - 24 * 6);
    frame %= day;
    if (frame < 0) frame += day;
    if (d) {
        const std::int64_t perMinute = ticks * 60 - d;
        const std::int64_t perTenMinutes = ticks * 600 - d * 9;
        std::int64_t tens = frame / perTenMinutes;
        std::int64_t rest = frame % perTenMinutes;
        frame += d * 9 * tens;
        if (rest > d) frame += d * ((rest - d) / perMinute);
    }
    std::int64_t seconds = frame / ticks;
    tc.frames = static_cast<int>(frame % ticks);
    tc.seconds = static_cast<int>(seconds % 60);
    tc.minutes = static_cast<int>((seconds / 60) % 60);
    tc.hours = static_cast<int>(seconds / 3600);
    tc.drop = drop && d > 0;
    tc.valid = true;
    return tc;
}

std::string Timecode::text() const {
    char out[40];
    std::snprintf(out, sizeof out, "%02d:%02d:%02d%c%02d", hours % 1000, minutes % 100,
                  seconds % 100, drop ? ';' : ':', frames % 1000);
    return out;
}

List parseList(std::string_view bytes) {
    return Parser().run(bytes);
}

bool looksLikeList(std::string_view head) {
    if (head.substr(0, 3) == "\xEF\xBB\xBF") head.remove_prefix(3);
    std::size_t at = 0;
    int comments = 0;
    while (at < head.size()) {
        std::size_t end = head.find_first_of("\r\n", at);
        // The last line of a head that was cut short is not judged.
        if (end == std::string_view::npos) return false;
        std::string_view text = trim(head.substr(at, end - at));
        at = end + 1;
        if (text.empty()) continue;
        if (startsWithWord(text, "TITLE:") || startsWithWord(text, "FCM:")) return true;
        if (text[0] == '*' && ++comments <= 20) continue;
        if (!isDigit(text[0])) return false;
        List probe = parseList(text);
        return !probe.events.empty();
    }
    return false;
}

// ---- writing ----

std::string channelField(Channels channels, Channels& aud) {
    bool v = channels & kVideo;
    bool a1 = channels & audioChannel(1), a2 = channels & audioChannel(2);
    aud = channels & ~(kVideo | audioChannel(1) | audioChannel(2));
    std::string audio = a1 && a2 ? "AA" : a1 ? "A" : a2 ? "A2" : "";
    if (v && a1 && !a2) return "B";
    if (v && !audio.empty()) return audio + "/V";
    if (v) return "V";
    return audio.empty() ? "NONE" : audio;
}

double speedBase(double fps) {
    return std::round(fps * 1000) / 1000;
}

std::string speedText(double fps) {
    if (!std::isfinite(fps)) fps = 0;
    double a = std::fabs(fps);
    // Speeds are kept to a few parts in a million: what is closer than that
    // to fewer decimals is written with fewer.
    int decimals = 1;
    while (decimals < 4) {
        double scale = std::pow(10.0, decimals);
        if (std::fabs(std::round(a * scale) / scale - a) <= 1e-6 * std::max(1.0, a)) break;
        ++decimals;
    }
    char text[64];
    std::snprintf(text, sizeof text, "%s%0*.*f", fps < 0 && a > 0 ? "-" : "", 4 + decimals,
                  decimals, a);
    return text;
}

namespace {

std::string padded(const std::string& s, std::size_t width) {
    // Widths count characters, not bytes.
    std::size_t chars = 0;
    for (unsigned char c : s)
        chars += (c & 0xC0) != 0x80;
    return chars >= width ? s : s + std::string(width - chars, ' ');
}

}  // namespace

std::string formatList(const List& list, const WriteStyle& style) {
    std::string out;
    out.reserve(list.events.size() * 160 + 64);
    const char* eol = "\r\n";
    out += "TITLE: " + list.title + eol;
    out += std::string("FCM: ") + (style.drop ? "DROP FRAME" : "NON-DROP FRAME") + eol;
    const std::size_t numberWidth = static_cast<std::size_t>(std::max(style.numberWidth, 3));
    const std::size_t reelWidth = static_cast<std::size_t>(std::max(style.reelWidth, 8));
    for (const std::string& note : list.notes)
        out += "* " + note + eol;
    for (const Event& ev : list.events) {
        Channels aud = 0;
        for (const EditLine& e : ev.edits) {
            Channels extra = 0;
            std::string field = channelField(e.channels, extra);
            aud |= extra;
            char duration[16] = "   ";
            if (e.transition != Transition::Cut)
                std::snprintf(duration, sizeof duration, "%03d", std::clamp(e.duration, 0, 999999));
            out += padded(ev.number, numberWidth) + "  " + padded(e.reel, reelWidth) + " " +
                   padded(field, 5) + " " + padded(e.effect, 4) + " " + duration + " " +
                   e.sourceIn.text() + " " + e.sourceOut.text() + " " + e.recordIn.text() + " " +
                   e.recordOut.text() + eol;
        }
        // The speed ends where the transition's length does on the lines
        // above, whatever its sign.
        for (const EditLine& e : ev.edits)
            if (e.hasSpeed) {
                std::string speed = speedText(e.speed);
                out += padded("M2", numberWidth + 2) + padded(e.reel, reelWidth) + " " +
                       std::string(speed.size() < 14 ? 14 - speed.size() : 1, ' ') + speed + " " +
                       e.sourceIn.text() + eol;
            }
        if (aud) {
            out += "AUD ";
            for (int n = 3; n <= 31; ++n)
                if (aud & audioChannel(n)) out += " " + std::to_string(n);
            out += eol;
        }
        for (std::size_t i = 0; i < ev.edits.size(); ++i)
            if (!ev.edits[i].clipName.empty())
                out += std::string(i == 0 ? "* FROM CLIP NAME: " : "* TO CLIP NAME: ") +
                       ev.edits[i].clipName + eol;
        for (const EditLine& e : ev.edits)
            if (!e.sourceFile.empty()) out += "* SOURCE FILE: " + e.sourceFile + eol;
        for (const EditLine& e : ev.edits)
            if (e.transition == Transition::Wipe && e.wipeReverse)
                out += "* WIPE REVERSE" + std::string(eol);
        for (const std::string& note : ev.notes)
            out += "* " + note + eol;
        for (const Locator& loc : ev.locators)
            out += "* LOC: " + loc.at.text() + " " +
                   (loc.text.empty() ? loc.colour : padded(loc.colour, 7) + " " + loc.text) + eol;
    }
    return out;
}

}  // namespace QvEdl
