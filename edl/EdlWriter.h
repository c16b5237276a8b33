// Writes an edit of the store as CMX 3600 edit decision lists.
//
// Like the XML writers it works from the four lists that export preparation
// fills. A list holds one video track: a sequence with several makes one list
// for each (V1 is the lowest), and the audio tracks A1 to A4 go with the
// first. Each cel of a shot (or of a sub-clip that is one stretch of one
// shot) is an event: its reel, the source timecode of the shot's timecode
// plus the cel's source, the record timecode of the sequence's timecode plus
// its place. Events alike on several tracks are one event (B, AA, AA/V, AUD
// 3 4). A transition cel becomes the second line of an event whose first
// line is the outgoing source at the cut (BL for black or nothing): D for a
// dissolve, Wnnn for a wipe of SMPTE code nnn (a "* WIPE REVERSE" comment
// for its other direction), its length the transition's, its incoming source
// running on to the end of the incoming cel. Speed is an M2 line. A list
// starts at the sequence's timecode: when its first event starts later, a
// BL event fills the head. The sequence's markers are LOC comments.
//
// What a list cannot hold is a loss record: several video tracks in one list,
// audio tracks past four, levels, multi-angle groups, nested sequences, log
// texts other than notes, marker colours other than a list's, and reels that
// had to be invented or shortened.
#pragma once

#include <string>
#include <vector>

#include "host/Cookie.h"
#include "host/Logger.h"

namespace QvEdl {

struct ExportOptions {
    // "V2": that video track's list alone (with the audio); empty for a list
    // for each video track.
    std::string track;
    // Reels longer than this are cut to it (8 is CMX's limit); 0 leaves them
    // as long as they are.
    int reelLength = 0;
    // Leave shots whose media is offline out (their cels become gaps).
    bool skipOffline = false;
};

struct WrittenList {
    std::string track;  // "V1", or empty for a list of audio alone or of a shot
    std::string text;
};

// The lists of an edit. 1; 3 when no edit has that identity; 0 when the edit
// holds nothing to write; 4 when `options.track` names no video track of it
// (`error` says so).
int writeEdl(const Cookie& edit, const ExportOptions& options, LoggerHandle log,
             std::vector<WrittenList>& lists, std::string& error);

}  // namespace QvEdl
