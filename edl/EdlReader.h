// Reads CMX 3600 edit decision lists into the store.
//
// EdlReader is a reader of the import pipeline like the XML readers: it fills
// the lists of records from a list's events, and the reader core finds the
// media of the shots, resolves the references and writes the records.
//
// A list becomes one sequence at the list's rate, starting at the earliest
// record timecode of its events. Its events on the picture become cels of
// the video channel V1; those on audio channel n cels of the audio channel An
// (A1 to the highest channel played), each playing channel n of its shot.
// Stretches that no event covers, and the reel BL, are black or silence.
// A dissolve or wipe stands between the two cels it joins: the outgoing cel
// ends where it starts, the incoming one starts where it ends, its source
// moved on by the transition's length. An M2 line sets a cel's speed (frames
// of source a second, over the list's rate): the source runs from the event's
// source in for the record's length at that speed, backwards when negative;
// 0 holds a frame. Keys (K, KB, KO) are read as cuts. Locators become the
// sequence's markers.
//
// Shots: one for each reel and source file (the SOURCE FILE comment, else a
// clip name that is a file's name); an auxiliary reel (AX) without either is
// a shot of its own at each event. A shot's media is found as for every
// import, by its source file, by its clip name beside the list, or by its
// reel's name as a file beside the list (any extension); a shot whose media is
// found counts its source from the media's own timecode; one that is offline
// starts at the earliest source timecode the list plays of it, keeps its reel
// and gathers the comments of its events as its log notes.
#pragma once

#include <string>
#include <vector>

#include "edl/EdlImport.h"
#include "edl/EdlList.h"
#include "import/XMLReader.h"

namespace QvEdl {

class EdlReader : public XML::XMLReader {
  public:
    explicit EdlReader(LoggerHandle log);
    ~EdlReader() override;

    // The whole import of a parsed list; `fileInfo` names its file.
    XML::ImportResult importList(const List& list, const Qv::Ptr<ImportFileInfoRep>& fileInfo,
                                 const ReadOptions& options, LoggerHandle log);

    // The rate a list is read at: `given` when it is a rate, else 29.97 (or
    // 59.94) when its timecodes count drop frame, else the rate its frames
    // fields reach (30, 50 or 60), else 25. `how` says which, in words;
    // `told` is false when nothing in the list said it.
    static Qv::FrameRate listRate(const List& list, Qv::FrameRate given, std::string& how,
                                  bool& told);

  protected:
    // Lists come parsed, not as XML: see importList.
    int parseFile(const XMLParser&) override { return 0; }
    Qv::FrameRate getSeqFrameRate(const XMLParser&) override { return seqFrameRate; }

  private:
    struct Shot;
    struct Piece;
    class Builder;
    friend class Builder;
};

}  // namespace QvEdl
