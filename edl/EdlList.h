// CMX 3600 edit decision lists as text: a list read into its events, and
// events written out as a list.
//
// This layer knows the lines of a list and nothing of the editor: timecodes
// stay as they are written (the list does not say its rate), reels and clip
// names as text. EdlReader turns a List into edits of the store, EdlWriter
// makes one from an edit.
//
// A list is a TITLE, an FCM (frame code mode) that may change anywhere, and
// numbered events. An event is one edit line (a cut), or two lines of one
// number (the outgoing source, then the incoming one with its dissolve, wipe
// or key and the transition's length). Lines after an event belong to it:
// M2 speed lines, AUD lines (audio channels 3 and 4), and comments: clip
// names, the source file, locators (markers) and anything else.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace QvEdl {

// A timecode as written. `drop` is the counting of its line: the FCM in force,
// or a ';' or '.' before its frames.
struct Timecode {
    int hours = 0, minutes = 0, seconds = 0, frames = 0;
    bool drop = false;
    bool valid = false;

    // Frames from timecode zero at a whole-number timebase; drop frame counts
    // only at 30 and 60.
    std::int64_t toFrames(unsigned ticks) const;
    // The timecode of a frame number; a number below zero or past a day is
    // taken round the clock, as a tape deck counts.
    static Timecode fromFrames(std::int64_t frame, unsigned ticks, bool drop);
    // "HH:MM:SS:FF", with ';' before the frames in drop frame.
    std::string text() const;
};

enum class Transition { Cut, Dissolve, Wipe, Key };

// Channels of an edit: bit 0 the picture, bit n audio channel n.
using Channels = std::uint32_t;
inline constexpr Channels kVideo = 1;
inline constexpr Channels audioChannel(int n) {
    return n >= 1 && n <= 31 ? Channels(1) << n : 0;
}

// One edit line.
struct EditLine {
    int line = 0;
    std::string reel;
    Channels channels = 0;
    Transition transition = Transition::Cut;
    std::string effect;  // the transition field as written ("C", "D", "W001", "KB")
    int wipeCode = -1;
    bool wipeReverse = false;
    int duration = 0;  // of the transition, in frames
    Timecode sourceIn, sourceOut, recordIn, recordOut;
    std::string clipName;    // FROM CLIP NAME (the first line), TO CLIP NAME (the second)
    std::string sourceFile;  // SOURCE FILE
    bool hasSpeed = false;   // an M2 line names it
    double speed = 0;        // frames of source a second, as M2 writes it
    int speedLine = 0;

    bool isBlack() const;  // the reel BL: black or silence
};

struct Locator {
    int line = 0;
    Timecode at;
    std::string colour;  // as written: "Red", "GREEN"
    std::string text;
};

struct Event {
    int line = 0;
    std::string number;
    std::vector<EditLine> edits;  // one, or two for a transition
    std::vector<std::string> notes;
    std::vector<Locator> locators;
    bool split = false;  // a SPLIT line before it: audio and picture cut apart
};

// A line passed over or read in a way to be told. `kind` names the loss it
// is, when it is one (see app/conform/LossReport.cpp); empty for a warning alone.
struct Problem {
    int line = 0;
    std::string what;
    std::string kind;
};

struct List {
    std::string title;
    bool fcmGiven = false;
    bool firstDrop = false;  // the frame code mode of the first event
    std::vector<Event> events;
    std::vector<std::string> notes;  // comments before the first event
    std::vector<Problem> problems;
    bool latin1 = false;     // the bytes were not UTF-8, and were read as Latin-1
    int largestFrames = -1;  // the largest frames field of any record timecode
    bool anyDrop = false;    // some record timecode counts drop frame
    // Avid's table of sources after the events (">>> SOURCE" lines, each with
    // its SOURCE FILE comment): the file of each reel.
    std::vector<std::pair<std::string, std::string>> sourceTable;
    int strayLines = 0;  // lines that are no part of a list
};

// Reads a list. Anything may come in: what is not a list yields no events,
// and every line passed over is a problem.
List parseList(std::string_view bytes);

// Whether text begins as an edit decision list does: a TITLE or FCM line, or
// a numbered event, as the first line that is not blank (comments may stand
// before it).
bool looksLikeList(std::string_view head);

// ---- writing ----

struct WriteStyle {
    bool drop = false;  // FCM: DROP FRAME
    int numberWidth = 3;
    int reelWidth = 8;
};

// A list as text, CRLF line ends. Each event's edits, speeds, AUD channels,
// clip names, source files, notes and locators are written as the reading
// above reads them.
std::string formatList(const List& list, const WriteStyle& style);

// The channel field of an edit, and the audio channels beyond it that an AUD
// line names.
std::string channelField(Channels channels, Channels& aud);

// The rate M2 speeds count against: a list's frames a second as editors
// write them, to three decimals (29.97, 23.976), so that normal speed at
// 29.97 is written 029.97 and read as exactly that.
double speedBase(double fps);

// A speed as M2 writes it: frames a second, three whole digits, a sign when
// negative, one decimal or as many as it needs (up to four).
std::string speedText(double fps);

}  // namespace QvEdl
