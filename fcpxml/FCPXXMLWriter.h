// The writer of fcpxml 1.4, the XML of Final Cut Pro X.
//
// Nearly everything in fcpxml is an attribute. A document holds its
// resources (picture formats, three transition effects and one asset per
// media file), then a library with one event: a browser clip per asset,
// carrying its shot's markers and a keyword range per sub-clip, and a project
// with one sequence element per sequence. A sequence is a single spine of
// clips, gaps and transitions written from every video channel in turn; the
// audio channels hang below the spine's first item as connected storylines.
// A shot exported alone is the resources and one asset clip per asset.
//
// Times are rationals of seconds, "numerator/denominators". Clips and gaps
// are placed at a hundredth of a frame; the positions in a clip's source are
// written in hundredths of a second.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "export/XMLWriter.h"
#include "fcpxml/FCPXRefMaps.h"

namespace XML {

class FCPXXMLWriter : public XMLWriter {
  public:
    FCPXXMLWriter(LoggerHandle log, XMLExportOptions& options, Qv::FrameRate rate)
        : XMLWriter(log, options, rate) {}

    // The document type, the root and the import options.
    bool writeHeader() override;
    // Registers the formats, assets and cookies of the shots and sub-clips,
    // and writes the resources. False when a shot's media file is not known.
    bool writeAllShots(CED2List& shots, CED2List& ghosts) override;
    // Sub-clips are registered with the shots; those reached through further
    // levels (in nested sequences, or sub-clips of sub-clips) here.
    bool writeGhosts(CED2List& ghosts) override;
    // The library, its event with the browser clips, and the project with
    // the sequences. Bad material is repaired, never refused.
    bool writeSequence(CED2List& sequences) override;
    // The resources and one asset clip per asset; the result of writeAllShots.
    bool writeShotOnly(CED2List& shots, CED2List& ghosts) override;
    bool supportsMulticlipGroup() override { return false; }
    bool writeMulticlipGroup(AlternatesList&) override { return true; }
    LightweightString<wchar_t> getFileExtension() const override { return L".fcpxml"; }

    // `time` at a hundred times the rate's frames per second: the numerator
    // rounded, the denominator cut to a whole number. "25000/2500s" is 10
    // seconds at 25. Only the low 32 bits of the numerator are printed.
    static LightweightString<wchar_t> timeToFCPRational(double time, Qv::FrameRate rate);
    // The same at `fps` frames per second.
    static LightweightString<wchar_t> timeToFCPRationalDouble(double time, double fps);
    // The time of `frames` frames of `rate`, a whole number of its frame
    // durations, as Final Cut Pro X writes it: "0s", "3003/30000s".
    static LightweightString<wchar_t> frameTime(std::int64_t frames, Qv::FrameRate rate);
    // Whole seconds of `time`, rounded: the rate by which the cookie's
    // material would be counted is not known here, so one frame a second
    // stands in for it.
    int cookieCelTimeToFrames(double time, Cookie cookie) const;

    // One browser clip per asset, with its markers and sub-clip keywords.
    bool listAssetClips();
    // The markers among `cues` whose in-point lies in [rangeStart,
    // rangeEnd), placed relative to the range, from `base`.
    void writeMarkers(const std::vector<Ced2Cue>& cues, double base, double rangeStart,
                      double rangeEnd);
    // A gap in the main spine; at the head of the sequence it carries the
    // sequence's audio. `lane` is not written: gaps have none.
    void appendGapElement(CED2* sequence, double start, double length, double tcStart, int lane,
                          bool atHead);
    // The audio channels of `sequence` as connected storylines at `anchor`,
    // one per channel with lanes -1, -2, ... Each channel is read once per
    // sequence: a second call writes empty storylines.
    bool appendAnchoredAudioEvents(CED2* sequence, double anchor, double rangeStart,
                                   double rangeEnd);

    CED2List* ghosts = nullptr;  // the sub-clips, kept by writeAllShots; not owned
    VidFormatRefMap formatMap;
    AssetRefMap assetMap;
    CookieRefMap cookieMap;
    // While a sequence is written: where each of its audio channels has got to.
    std::vector<DLListIterator<CED2Cell>> audioIterators;

  private:
    // ---- Where times count whole frames (xml_legacy_interchange at 0) ----

    // One item of a storyline: a clip, a gap, a compound clip of a nested
    // sequence, or a transition between two of them. Places count frames of
    // the sequence from its start.
    struct Item {
        enum Kind { Clip, Gap, Compound, Transition } kind = Gap;
        std::int64_t in = 0, out = 0;
        const CED2Cell* cel = nullptr;
        const AssetRefMap::AssetRefMapRec* asset = nullptr;
        CED2* nested = nullptr;           // what a compound clip plays
        double sourceAt = 0;              // real seconds into its material at `in`
        double materialLength = 0;        // real seconds of that material
        LightweightString<wchar_t> name;  // of the shot, sub-clip or sequence
        int sourceChannel = 1;            // the channel of the file a sound clip plays
    };
    using Storyline = std::vector<Item>;

    // Registers the shots and sub-clips without writing: the resources go
    // out with the sequences, once every edit of the run is known.
    void registerDefaults(CED2List& shots, CED2List& ghosts);
    void registerDeepSubclips();
    // A sequence's format, and the compound clips of the sequences it nests.
    void registerNested(CED2* sequence);
    Qv::FrameRate footageRate(const CED2* shot) const;
    // The frames of a timecode label, counted at `rate`.
    std::int64_t labelFrames(const EditLabel& label, Qv::FrameRate labelRate,
                             Qv::FrameRate rate) const;
    void writeFrameResources();
    void writeCompound(CED2* sequence);
    void writeFrameSequence(CED2* sequence, const LightweightString<wchar_t>& formatId);
    Storyline planStoryline(CChannel* channel);
    void settleTransitions(Storyline& line, CChannel* channel);
    void writeStoryline(std::size_t lane);
    void writeItem(const Item& item, std::size_t lane, bool video, CChannel* channel, bool anchor);
    void writeAnchored(const Item& anchor);
    void writeItemMarkers(const Item& item);
    void writeItemLevels(const Item& item, CChannel* channel);
    // The frame of an item's own time at sequence frame `at`, on its grid:
    // its media's rate for a clip, its sequence's for a compound clip.
    std::int64_t localFrames(const Item& item, std::int64_t at) const;
    Qv::FrameRate localGrid(const Item& item) const;
    // Cel time as whole frames of the sequence being written.
    std::int64_t frames(double celTime) const;
    std::int64_t assetFrames(const AssetRefMap::AssetRefMapRec& asset, double real) const;
    LightweightString<char> timecodeOfFrame(std::int64_t frame) const;
    // Two warning lines and a loss record, at a frame of the sequence.
    void tellLoss(const char* kind, CChannel* channel, std::int64_t frame, const char* first,
                  const char* second, const char* detail);

    std::vector<CED2List*> deepGhosts_;
    // Every edit of the run by its identity: what a cel plays.
    std::unordered_map<LightweightString<wchar_t>, CED2*> records_;
    // The compound clips of nested sequences, in the order they are written
    // (each after those it holds), with their ids, formats and first frames.
    std::vector<CED2*> compounds_;
    std::unordered_map<const CED2*, LightweightString<wchar_t>> compoundIds_;
    std::unordered_map<const CED2*, std::int64_t> compoundStarts_;
    std::unordered_map<const CED2*, LightweightString<wchar_t>> sequenceFormats_;
    std::vector<const CED2*> open_;  // sequences being written, against one that holds itself
    // The storylines of the sequence being written, each with whether it is
    // video and its channel; the first carries the others.
    std::vector<std::pair<Storyline, bool>> lanes_;
    std::vector<CChannel*> laneChannels_;
    std::vector<int> transitionNumbers_;
    CED2* current_ = nullptr;
    std::int64_t tcFrames_ = 0;
    // A sequence's markers and a channel's level keyframes by their frame,
    // sorted, so that each item finds its own without a walk over all.
    using FrameIndex = std::vector<std::pair<std::int64_t, std::size_t>>;
    std::unordered_map<const CED2*, FrameIndex> cueFrames_;
    struct LevelIndex {
        FrameIndex frames;
        std::vector<const CED2TrackLevel*> levels;
    };
    std::unordered_map<const CChannel*, LevelIndex> levelFrames_;
    const FrameIndex& cueIndex();
    const LevelIndex& levelIndex(CChannel* channel);

    // Entries that fall in a time range, answered in their original order
    // without a walk over all of them.
    class RangeIndex {
      public:
        void add(double key, std::size_t item);
        void seal();
        // The items with lo <= key < hi, in the order they were added.
        void find(double lo, double hi, std::vector<std::size_t>& out) const;

      private:
        std::vector<std::pair<double, std::size_t>> entries_;
    };

    // What the walk of one sequence shares.
    struct SequenceWalk {
        CED2* sequence = nullptr;
        double length = 0;   // the sequence's length
        double tcStart = 0;  // its start, in seconds
        EditLabel label;     // its timecode
        RangeIndex cues;     // its markers by in-point
        // Its audio channels in order, with the level keyframes of each (none
        // for a channel that writes no levels), indexed by time.
        std::vector<CChannel*> audio;
        std::vector<std::vector<const CED2TrackLevel*>> levels;
        std::vector<RangeIndex> levelTimes;
    };

    bool registerShot(CED2* shot);
    // Where a shot's media is: the file its track came from where the options
    // ask for that, else the file its first cel's material was found in; ""
    // when it is not known.
    LightweightString<wchar_t> mediaLocator(EditPtr& edit, const CED2Cell* cel) const;
    void registerSubclip(CED2* ghost);
    void writeResources();
    void writeEffects();
    void writeMarker(const Ced2Cue& cue, double base, double rangeStart, double frame);
    void writeSequenceMarkers(double base, double rangeStart, double rangeEnd);
    void writeOneSequence(CED2* sequence, const LightweightString<wchar_t>& formatId);
    void walkVideoChannel(CChannel* channel, int laneIndex, bool atHead);
    // Lengthens an item by half the transition that follows it, if the
    // sequence is long enough for the material it then reaches.
    void extendTail(CED2Cell* cel, CED2Cell* next, double source, double& length,
                    double& itemOut) const;
    void writeTransition(CED2Cell* cel, CChannel* channel, int number);
    void walkAudioChannel(std::size_t audioIndex, double anchor, double rangeStart);
    void writeAudioLevels(std::size_t audioIndex, double cellIn, double cellOut, double sourceStart,
                          const AssetRefMap::AssetRefMapRec& asset);
    // The two warning lines of a transition or of material that was
    // replaced with a gap, with the track and the timecode at `t`.
    void warnMaterial(bool transition, CChannel* channel, double t);

    SequenceWalk* walk_ = nullptr;  // the sequence being written
};

}  // namespace XML
