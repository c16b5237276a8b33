// What a conform editor wants to know of a timeline once qvxml has read it:
// its sequences with their tracks, clips, transitions, gaps and markers, in
// frames and timecode, and the media each clip plays with where it came
// from. Made from the project's store after an import (or a snapshot), and
// read by `info`, `draw` and the loss report.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "host/Edit.h"

namespace qvapp {

// How a piece of media was found: linked to material the project had,
// imported from where the document said, found elsewhere (beside the
// document, or by relinking), or offline.
struct MediaInfo {
    std::string name;                   // the shot's name
    std::string status;                 // "linked", "imported", "found" or "offline"
    std::string path;                   // the file it plays; empty when offline
    std::string locator;                // where the document (or snapshot) said it is
    bool mapped = false;                // --map-path moved the locator
    std::string why;                    // offline: why
    std::vector<std::string> lookedIn;  // offline: the places searched
    double seconds = 0;                 // its length
    int width = 0, height = 0, audioChannels = 0;
    bool video = false;
    int uses = 0;  // clips that play it
    Cookie cookie;
};

struct ClipInfo {
    int track = 0;
    std::string name;  // what it plays: a shot, sub-clip or nested edit
    std::string kind;  // "shot", "subclip" or "nested"
    int media = -1;    // index in the document's media; -1 for a nested edit
    Cookie shot;       // the shot it plays, when it plays one
    std::int64_t recordIn = 0, recordOut = 0;  // sequence frames from its start
    std::string sourceIn, sourceOut;           // timecode in the media
    double speed = 1;
    float level = 1;
    bool multiAngle = false;
    bool offline = false;
};

struct TransitionInfo {
    int track = 0;
    std::int64_t recordIn = 0, recordOut = 0;
    std::string kind;  // "dissolve", "wipe" or "effect"
    int wipeCode = -1;
};

struct GapInfo {
    int track = 0;
    std::int64_t recordIn = 0, recordOut = 0;
};

struct MarkerInfo {
    std::string name, comment;
    std::int64_t in = 0;
    std::int64_t out = -1;  // -1: open-ended
    unsigned colour = 0;
};

struct TrackInfo {
    std::string name;  // V1 is the lowest video track, as editors number them
    bool video = true;
    int channel = 0;  // the channel of the edit
    int clips = 0, transitions = 0, gaps = 0;
    bool levels = false;  // has level automation
};

// A timecode's start plus a position, held at the ends of the range where
// the sum would leave it: a damaged document's positions go as far as
// int64_t does.
inline std::int64_t framesPlus(std::int64_t start, std::int64_t frames) {
    std::int64_t sum;
    if (!__builtin_add_overflow(start, frames, &sum)) return sum;
    return frames > 0 ? INT64_MAX : INT64_MIN;
}

struct SequenceInfo {
    std::string name;
    Qv::FrameRate frameRate = Qv::eFrameRateNone;
    std::string rate;    // "25", "29.97"
    unsigned ticks = 0;  // frames a second of its timebase
    bool dropFrame = false;
    std::int64_t startFrame = 0;  // its timecode, as a frame number
    std::int64_t duration = 0;    // in frames
    std::vector<TrackInfo> tracks;
    std::vector<ClipInfo> clips;
    std::vector<TransitionInfo> transitions;
    std::vector<GapInfo> gaps;
    std::vector<MarkerInfo> markers;
    int speedChanges = 0;
    std::set<int> media;  // indices in the document's media
    Qv::Ptr<Edit> edit;

    // Timecode of a frame of the sequence, counted from its start.
    std::string timecode(std::int64_t frame) const;
    // A length in frames as timecode from zero.
    std::string length(std::int64_t frames) const;
    std::int64_t frameOf(double celTime) const;
    int videoTracks() const;
    int audioTracks() const;
};

struct DocumentInfo {
    std::string path;
    std::string format;  // "xmeml", "native", "otio" or "snapshot"
    std::vector<SequenceInfo> sequences;
    std::vector<MediaInfo> media;
    int nestedReferences = 0;           // sequences that only name one defined elsewhere
    std::map<std::string, int> losses;  // what reading it lost, by kind (see LossReport.h)
};

// What was there before an import, so that media can be told linked from
// imported.
using IdentitySet = std::set<Qv::UUID>;
IdentitySet identitiesOf(const EditStore& store);

// How an import resolved the media of its shots, read from its log: for each
// file a shot now plays (canonical path), where the document said it was (after
// --map-path) and how it was had: "linked", "imported" or "found".
struct Resolution {
    std::string locator, how;
};
using Resolutions = std::map<std::string, Resolution>;
Resolutions resolutionsFrom(const std::vector<std::string>& importLog);

// Describes the sequences of the current store that an import made (or, for
// a snapshot, every sequence of it). `before` holds what the project had
// before the import; `documentPath` is where the document was read from,
// for the places an offline file was looked for; `resolutions` what the
// import's log said of each file.
DocumentInfo describe(const std::vector<Qv::Ptr<Edit>>& sequences, const IdentitySet& before,
                      const std::string& documentPath, const std::string& format,
                      const Resolutions& resolutions = {});

// The timeline alone: tracks, clips, gaps, transitions and markers, with
// each clip's media told apart by identity only (no place, status or
// source timecode). What a conversion's loss report reads, at a fraction of
// the cost. Without the `body`, each sequence is told by its name, rate,
// start, length and tracks alone, which is all that the losses of some
// conversions read (see SequenceView).
DocumentInfo describeTimeline(const std::vector<Qv::Ptr<Edit>>& sequences,
                              const std::string& format, bool body = true);

// The name of a channel as editors number tracks: the lowest video track is
// V1 (the editor's first video channel is the top one), audio A1 onwards.
std::string trackName(const Edit& edit, const StoredChannel& channel);

}  // namespace qvapp
