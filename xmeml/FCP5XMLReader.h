// The reader of xmeml documents, versions 1 to 5: the XML of Final Cut Pro 5
// to 7, which Premiere, Resolve and Avid write too.
//
// A document is walked in passes, each needing the maps of the one before:
// the `file` elements (media descriptions), the master clips, every clip
// item (which makes one shot per file, with a channel per stream), the
// sub-clip uses (which make ghosts), and last the sequences, whose tracks
// become channels of cels that refer to shots and ghosts by text. The reader
// core then finds the media, resolves the references and writes the records.
//
// Every nested element is read by a parser of its own over the element's
// inner text, the way the host's XML reader is meant to be used.
#pragma once

#include <vector>

#include "import/XMLReader.h"

namespace XML {

class FCP5XMLReader : public XMLReader {
  public:
    explicit FCP5XMLReader(LoggerHandle log) : XMLReader(log) {}

    // One `timecode` element: a shot's label, or a sequence's source
    // timecode appended to its labels. Both answer 1.
    int processTimecode(CED2* rec, XMLParser& parser, double durationSeconds);
    int processSequenceTimecode(CED2* rec, XMLParser& parser, double durationSeconds);

    // True when a clip item uses a sub-clip: it has a `subclipmasterid` or a
    // `subclipinfo`.
    static bool clipItemReferencesSubClip(XMLParser& item);

    // The next item of a track in position order, merging its clip items and
    // transition items. The cursors name the last item delivered (-1 before
    // the first). False at the end of the track.
    bool getNextTrackItem(int pos, int& clipIndex, int& transIndex, bool acceptPast,
                          const std::vector<XMLParser::Value>& clipItems,
                          const std::vector<XMLParser::Value>& transItems,
                          LightweightString<char>& itemText);

    // A clip item, in a master clip or on a track: finds or makes its shot,
    // or in the sub-clip pass its ghost. Always 1.
    int processClipItem(bool isMasterClip, XMLParser& clipParser, XMLParser& itemParser,
                        bool subClipPass);
    int extractShotFromClipItem(bool isMasterClip, XMLParser& clipParser, XMLParser& itemParser) {
        return processClipItem(isMasterClip, clipParser, itemParser, false);
    }
    int extractSubClipFromClipItem(XMLParser& itemParser) {
        return processClipItem(false, itemParser, itemParser, true);
    }

    // Writes the cels of one track onto a channel the caller made: clips,
    // transitions, black filler, speed and level keyframes. 1, or 0 after
    // logging why the track cannot be read.
    int parseEventsForChannel(bool isVideo, CChannel* channel,
                              const std::vector<XMLParser::Value>& clipItems,
                              const std::vector<XMLParser::Value>& transItems, double seqDuration);

    double getSecondsPerTick() const { return secondsPerTick; }

  protected:
    int parseFile(const XMLParser& parser) override;
    Qv::FrameRate getSeqFrameRate(const XMLParser& parser) override;

  private:
    struct TrackItem;
    struct Track;
    struct Cursor;

    void setRates(Qv::FrameRate rate);
    void readFile(const XMLParser::Value& section);
    void completeGhosts();
    int readSequence(const XMLParser::Value& section);
    void readMarker(const XMLParser::Value& section, CED2* rec);
    int addClip(Track& track, Cursor& cursor, TrackItem& item, bool isVideo, CChannel* channel,
                double seqDuration);
    void addTransition(Cursor& cursor, TrackItem& item, bool isVideo, CChannel* channel);
    void appendBlack(CChannel* channel, bool isVideo, long long from, long long to) const;

    Qv::FrameRate seqRate = Qv::eFrameRateNone;
    double seqFramesPerSecond = 0;
    double ticksPerSecond = 0;
    double secondsPerTick = 0;
};

}  // namespace XML
