// Reads OpenTimelineIO timelines into the store.
//
// OtioReader is a reader of the import pipeline like the XML readers: it
// fills the three lists of records from a parsed document, and the reader
// core finds the media of the shots, resolves the references and writes the
// records, exactly as for every other import.
//
// Each Timeline (alone, or in a SerializableCollection) becomes a sequence.
// Its Video tracks become video channels, the last track first (the first is
// the lowest, like xmeml's V1), then its Audio tracks in order. Clips become
// cels of shots, one shot per piece of media; Gaps black or silence; a
// Transition, which straddles a cut by its offsets, becomes a transition cel
// of its own between the two cels it joins, which are shortened to it; a
// nested Stack or Track becomes an edit of its own that the cel plays.
// Markers become cues, linear time warps and freeze frames speeds. What the
// "qvxml" namespace holds is restored; what is not kept is said in warnings.
#pragma once

#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "import/XMLReader.h"
#include "otio/OtioImport.h"
#include "otio/OtioModel.h"
#include "otio/OtioTime.h"

namespace QvOtio {

class OtioReader : public XML::XMLReader {
  public:
    explicit OtioReader(LoggerHandle log);
    ~OtioReader() override;

    // The whole import of a parsed document; `fileInfo` names its file.
    XML::ImportResult importDocument(const Document& doc,
                                     const Qv::Ptr<ImportFileInfoRep>& fileInfo, LoggerHandle log);

    // The timelines of a document, in order; empty with `error` set when it
    // holds none.
    static std::vector<std::size_t> timelinesOf(const Document& doc, std::string& error);
    // The frame rate of a timeline (a Timeline, Stack or Track item).
    static Qv::FrameRate timelineRate(const Document& doc, std::size_t timeline, bool& exact);

  protected:
    // Documents come parsed, not as XML: see importDocument.
    int parseFile(const XMLParser&) override { return 0; }
    Qv::FrameRate getSeqFrameRate(const XMLParser&) override { return seqFrameRate; }

  private:
    struct ShotUse;
    struct Pending;
    // The reference a cel is given, for the reader core to resolve.
    struct CelRef {
        LightweightString<char> id;
        bool ghost = false;
    };

    int build(const std::vector<std::size_t>& timelines);
    void buildTimeline(std::size_t index);
    // The channels of a record from a composition's tracks; `top` for a
    // timeline's, whose range trims them.
    void buildChannels(const Item& composition, CED2* record, const TimeBase& base, bool top);
    void buildTrack(const Item& track, CED2* record, CChannel* channel, const TimeBase& base,
                    bool trimmed);
    // One cel for an item of a track, between host frames `from` and `to`;
    // `head` is how much later than the item's document start the cel starts.
    void addItemCel(const Item& item, CED2* record, CChannel* channel, const TimeBase& base,
                    double from, double to, double head);
    bool clipReference(const Item& clip, CED2* record, CChannel* channel, const TimeBase& base,
                       CelData& cel, CelRef& ref, double sourceFrames);
    ShotUse& useOf(std::size_t media);
    CED2* subclipRecord(const Item& clip, const nlohmann::json& sub, const TimeBase& base);
    CED2* nestedRecord(const Item& item, const TimeBase& outer, TimeBase& inner);
    void finishShots();
    void addCues(const std::vector<Marker>& markers, double originFrames, const TimeBase& base,
                 std::vector<Ced2Cue>& cues, bool unique);
    bool cueOf(const Marker& marker, double originFrames, const TimeBase& base, Ced2Cue& cue);
    void fixAlternates();
    void note(const std::string& what, int count = 1) { notes_[what] += count; }
    // A loss of the timeline being read, beside the note that tells it: at
    // `frame` of the track being read (of the outermost track, for what lies
    // in a nested stack: where the stack stands on it), -1 for none.
    void lose(const char* kind, double frame, const std::string& detail);
    // Where a frame of the track being read stands on its timeline.
    double placeOf(double frame) const;

    // Frames of a duration or offset in a time base.
    static double framesOf(const RationalTime& t, const TimeBase& base) {
        return t.valid() ? rescale(t.value, t.rate, base.fps) : 0.0;
    }
    double durationOf(const Item& item, const TimeBase& base, int depth) const;
    // Says how many items lay outside the source range a track or stack shows.
    void warnOutside(int dropped, const Item& trimmed, const TimeBase& base);
    double mediaOrigin(std::size_t media, const TimeBase& base) const;

    const Document* doc_ = nullptr;
    std::vector<ShotUse> shots_;  // by media index
    std::vector<std::size_t> shotOrder_;
    std::unordered_map<std::string, CED2*> subclips_, nested_;
    std::unordered_map<const CED2*, std::string> keys_;  // what a cel names a record by
    std::vector<Pending> pending_;
    std::map<std::string, int> notes_;
    std::vector<std::string> fieldProblems_;
    int nestedCount_ = 0;
    int depth_ = 0;
    // Where losses are placed: the timeline and outermost track being read,
    // in the document's numbering (V1 its first video track), what the
    // windows of the track and its stack take off its start, and where on it
    // the nested stack being read stands.
    struct Place {
        std::string sequence, track;
        double origin = 0, nestedAt = 0;
        long long startFrame = 0;
        unsigned ticks = 24;
        bool dropFrame = false;
    };
    Place place_;
    double itemFrame_ = 0;  // where the item being read starts on its track
};

}  // namespace QvOtio
