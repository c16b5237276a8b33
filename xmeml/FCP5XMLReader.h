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
// Every nested element is read through a section of the document's one
// index: a parser over the element's inside that copies and scans nothing.
#pragma once

#include <array>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "import/XMLReader.h"
#include "xmeml/FCP5ReaderSupport.h"

namespace XML {

class FCP5XMLReader : public XMLReader, private fcp5read::ValueCheck {
  public:
    explicit FCP5XMLReader(LoggerHandle log) : XMLReader(log) {}

    // One `timecode` element: a shot's label, or a sequence's source
    // timecode appended to its labels. Both answer 1.
    int processTimecode(CED2* rec, const XMLParser& parser, double durationSeconds);
    int processSequenceTimecode(CED2* rec, const XMLParser& parser, double durationSeconds);

    // True when a clip item uses a sub-clip: it has a `subclipmasterid` or a
    // `subclipinfo`.
    static bool clipItemReferencesSubClip(const XMLParser& item);

    // The next item of a track in position order, merging its clip items and
    // transition items. The cursors name the last item delivered (-1 before
    // the first). False at the end of the track.
    bool getNextTrackItem(int pos, int& clipIndex, int& transIndex, bool acceptPast,
                          const std::vector<XMLParser::Value>& clipItems,
                          const std::vector<XMLParser::Value>& transItems,
                          LightweightString<char>& itemText);

    // A clip item, in a master clip or on a track: finds or makes its shot,
    // or in the sub-clip pass its ghost. Always 1.
    int processClipItem(bool isMasterClip, const XMLParser& clipParser, const XMLParser& itemParser,
                        bool subClipPass);
    int extractShotFromClipItem(bool isMasterClip, const XMLParser& clipParser,
                                const XMLParser& itemParser) {
        return processClipItem(isMasterClip, clipParser, itemParser, false);
    }
    int extractSubClipFromClipItem(const XMLParser& itemParser) {
        return processClipItem(false, itemParser, itemParser, true);
    }

    // Writes the cels of one track onto a channel the caller made: clips,
    // transitions, black filler, speed and level keyframes. 1, or 0 after
    // logging why the track cannot be read. The items come as texts, or as
    // parsers over them (null for an item with nothing inside).
    int parseEventsForChannel(bool isVideo, CChannel* channel,
                              const std::vector<XMLParser::Value>& clipItems,
                              const std::vector<XMLParser::Value>& transItems, double seqDuration);
    int parseEventsForChannel(bool isVideo, CChannel* channel,
                              std::vector<std::unique_ptr<XMLParser>> clipItems,
                              std::vector<std::unique_ptr<XMLParser>> transItems,
                              double seqDuration);

    double getSecondsPerTick() const { return secondsPerTick; }

  protected:
    int parseFile(const XMLParser& parser) override;
    Qv::FrameRate getSeqFrameRate(const XMLParser& parser) override;

  private:
    struct TrackItem;
    struct Track;
    struct Cursor;

    // How a `rate` is read: the host's rate, the frames a second the
    // document counts durations in, and the whole frames a second that
    // positions count in. All zero for no rate.
    struct RateReading {
        Qv::FrameRate rate = Qv::eFrameRateNone;
        double fps = 0;
        double ticks = 0;
    };
    RateReading readingOf(const fcp5read::DocRate& rate);
    // The reading of a parser's first rate, or `fallback` where the default
    // reading has no rate to go by.
    RateReading readingOf(const XMLParser& parser, const RateReading& fallback);
    RateReading documentReading(const XMLParser& parser);

    // Where the sequence being read puts its losses.
    struct Place {
        LightweightString<char> sequence;
        LightweightString<char> track;  // "V1", "A2": the document's numbering
        long long startFrame = 0;       // its timecode as a frame number
        bool dropFrame = false;
        unsigned ticks = 0;
        long long cutAt = -1;  // where the original reading ends the sequence, if early
    };
    // A clip item that carries only an id naming no item with content.
    struct PendingBare {
        bool isVideo;
        int number;
        LightweightString<char> id;
    };
    // What the uses of a file need of it, where the document does not say.
    struct FileNeeds {
        double length = 0;  // seconds of source the uses reach
        int audioChannels = 0;
        bool video = false;
    };
    // What the reader learnt of a file that its uses need to know.
    struct FileFacts {
        bool lengthFromUses = false;          // no usable duration
        bool audioFromUses = false;           // sound streams without a channel count
        bool videoFromUses = false;           // a picture stream that says nothing
        LightweightString<char> mediaSource;  // synthetic media ("Slug", ...)
    };
    // A cel whose reference is checked once every record is made. A long
    // document makes hundreds of thousands of these and few are ever told,
    // so each takes 24 bytes: its clip item is found again in the document
    // by its element number, and only an item read outside the document
    // keeps its name and id, among namedItems_.
    struct PendingRef {
        static constexpr unsigned kNamed = 0x80000000u;  // `item` is in namedItems_
        CED2Cell* cel;
        int frame;
        unsigned item;   // the clip item's element number, or kNamed | its place in namedItems_
        unsigned place;  // in places_
        bool isVideo;
    };
    struct NamedItem {
        LightweightString<char> name, id;
    };
    // The clip item's name and id, as a message names it.
    NamedItem itemOf(const PendingRef& p) const;
    // A cel that plays a nested sequence, for the check that no sequence
    // holds itself.
    struct NestedUse {
        const CED2* holder;
        std::string key;
        CED2Cell* cel;
        LossRecord where;
    };

    void setRates(Qv::FrameRate rate);
    void setRates(const RateReading& reading);
    void readFile(const XMLParser& file);
    void completeGhosts();
    int readSequence(const XMLParser& sequence);
    int walkTrack(Track& track, bool isVideo, CChannel* channel, double seqDuration);
    void readMarker(const XMLParser& marker, CED2* rec);
    int addClip(Track& track, Cursor& cursor, TrackItem& item, bool isVideo, CChannel* channel,
                double seqDuration);
    void addTransition(Cursor& cursor, TrackItem& item, bool isVideo, CChannel* channel);
    void appendBlack(CChannel* channel, bool isVideo, long long from, long long to) const;
    // Whether an item of a track is read as a transition.
    bool asTransition(bool fromTransitions, const XMLParser& item);

    // The key of the sequence a clip item holds or refers to; empty when the
    // item holds none.
    std::string nestedKey(const XMLParser& item) const;
    static std::string sequenceKey(const XMLParser& sequence);
    // The clip item of that id that has content, for an item that only
    // carries its id; null when the document has none.
    std::unique_ptr<XMLParser> clipItemById(const LightweightString<char>& id);
    // Losses: a record at a frame of the sequence being read, with its
    // warning: one each for what plays black or silence, one a sequence for
    // what is passed over.
    LossRecord lossHere(const char* kind, long long frame, const LightweightString<char>& detail);
    void reportLoss(const LossRecord& record, bool playsBlack);
    // What the reader passes over in a clip item, named by its name and id.
    void reportItem(const XMLParser& item, long long frame, const LightweightString<char>& name,
                    const LightweightString<char>& id);
    void flushPassedOver();
    // A time or rate whose text cannot be used: a warning with the element
    // and its line, and a loss record, once for each element.
    void unusable(const XMLParser& parser, const char* name, const LightweightString<char>& text,
                  Damage why, bool places) override;
    fcp5read::ValueCheck* check() { return this; }
    void completeFiles();
    void checkNesting();
    void checkReferences();
    bool legacy();

    Qv::FrameRate seqRate = Qv::eFrameRateNone;
    double seqFramesPerSecond = 0;
    double ticksPerSecond = 0;
    double secondsPerTick = 0;

    // The original reading of xmeml, as the configuration asks; read once.
    int legacy_ = -1;
    const XMLParser* document_ = nullptr;
    RateReading documentRate_;
    Place place_;
    const CED2* currentSequence_ = nullptr;
    std::set<std::pair<int, bool>> warnedRates_;
    std::unordered_set<std::string> filesSeen_, filesWithoutLength_;
    std::unordered_set<const CED2Cell*> reported_;
    std::unordered_map<std::string, FileFacts> fileFacts_;
    std::unordered_map<std::string, FileNeeds> fileNeeds_;
    std::unordered_map<std::string, double> sequenceTicks_;
    // A cel's reference to what it plays: one shared copy of each text among
    // those met lately, since the clip items of a long edit name the same few
    // files over and over. A fixed table: what it holds cannot grow.
    LightweightString<char> sharedReference(std::string_view text);
    std::array<LightweightString<char>, 256> recentReferences_;
    std::unordered_map<std::string, unsigned> clipItemsById_;
    bool clipItemsIndexed_ = false;
    std::deque<PendingRef> pendingRefs_;  // no copy of all of them as it grows
    std::vector<NamedItem> namedItems_;
    std::vector<Place> places_;  // of every track walked, for the records made later
    std::vector<PendingBare> pendingBare_;
    std::vector<NestedUse> nestedUses_;
    std::map<std::string, int> passedOver_;
    std::set<std::size_t> unusableAt_;  // offsets of the values told unusable
    LineCounter lines_;
};

}  // namespace XML
