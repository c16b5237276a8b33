// The writer of xmeml version 5, the XML of Final Cut Pro 5 to 7 and Premiere.
//
// The export driver first has the writer register every shot and sub-clip of
// the run in its reference map (writeAllShots, writeGhosts: nothing is written
// there), then writes the body: one sequence per exportable sequence, or one
// multiclip group, or, for a shot alone, a project holding one master clip.
#pragma once

#include <cstddef>
#include <deque>
#include <memory>
#include <unordered_map>
#include <unordered_set>

#include "export/XMLWriter.h"

namespace XML {

// One registered shot or sub-clip.
class CED2ClipRefMapRec {
  public:
    CED2ClipRefMapRec(const Cookie& cookie, CED2* ced2, bool isGhost);

    // The reference of the shot's `file` element: every channel of a shot
    // shares one file, so the channel is not looked at.
    LightweightString<wchar_t> getFileElementRef(unsigned int channel) const;
    // Whether the file has been written in full for that channel. Channel
    // numbers of a shot without video are taken to count from 1; a number
    // that falls outside the shot's channels is never defined.
    bool isChanFileDefined(unsigned int channel);
    // Marks every channel of the shot as defined.
    void defineAll();
    // Forgets all marks.
    void dropMarks();

    CED2* ced2;    // the shot, not owned
    bool isGhost;  // a sub-clip, whose material is reached through its first cel
    // One mark per channel of the shot; made on first need.
    std::unique_ptr<unsigned char[]> chanDefined;
    std::size_t chanCount = 0;
    LightweightString<wchar_t> ref;  // the text of the shot's cookie, its key
    // The same in UTF-8, and the id of the file that getFileElementRef
    // names ("file_" and that reference): made once, written by every clip
    // item of the shot.
    std::string refUtf8, fileId;
    // The shot's name in UTF-8, which each of its clip items carries.
    std::string nameUtf8;

  private:
    friend class CED2ClipRefMap;
    void makeMarks();
    std::size_t nextSameRef_;  // the next record with this reference, or npos
};

// The registered shots, in order of registration, each under its cookie as
// it stands (type, channel and tail byte count, as they do in its text).
// Look-ups answer the first record with an equal cookie; an index from
// cookie to that record keeps them constant-time however many shots there
// are.
class CED2ClipRefMap {
  public:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    void addRef(const Cookie& cookie, CED2* ced2, bool isGhost);
    bool findRef(const Cookie& cookie, CED2ClipRefMapRec** rec);
    // Marks the file of every record with this cookie as defined, on all
    // channels.
    void setDefined(const Cookie& cookie, unsigned int channel);
    void clear();
    std::size_t size() const { return records_.size(); }

  private:
    struct Chain {
        std::size_t first, last;
    };
    // Everything of a cookie that its text shows.
    struct Key {
        Qv::UUID uuid;
        CookieType type;
        unsigned char channel, tail;
        explicit Key(const Cookie& c)
            : uuid(c.uuid), type(c.type), channel(c.channel), tail(c.tail) {}
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& k) const noexcept;
    };
    std::deque<CED2ClipRefMapRec> records_;  // stable addresses
    std::unordered_map<Key, Chain, KeyHash> index_;
};

// Premiere's marker colours for the host's 0xRRGGBB colours.
class pproColour {
  public:
    struct Row {
        unsigned int colour;
        const wchar_t* text;
    };
    // Ends at the first row with an empty text.
    static const Row table[];

    // Exact match on the colour; false for a colour not in the table.
    static bool getStr(unsigned int colour, LightweightString<wchar_t>* str);
    static LightweightString<wchar_t> getDefaultStr() { return {}; }
};

class FCP5XMLWriter : public XMLWriter {
  public:
    FCP5XMLWriter(LoggerHandle log, XMLExportOptions& options, Qv::FrameRate rate)
        : XMLWriter(log, options, rate) {}

    bool writeHeader() override;
    bool writeAllShots(CED2List& shots, CED2List& ghosts) override;
    bool writeGhosts(CED2List& ghosts) override;
    bool writeSequence(CED2List& sequences) override;
    bool writeShotOnly(CED2List& shots, CED2List& ghosts) override;
    bool supportsMulticlipGroup() override { return true; }
    bool writeMulticlipGroup(AlternatesList& group) override;

    // `rate` of a clip or file at `rate` frames a second: a 1000/1001 rate
    // as its whole-number timebase with ntsc TRUE. Under the legacy key ntsc
    // is always FALSE and the timebase is cut to a whole number.
    void printRateElement(double rate);
    // `rate` of the sequence: its whole-number timebase, ntsc for 1001 rates.
    void printSeqRateElement();
    // `timecode` of a valid label, with `reel` holding `reelName` if asked.
    void printTimecodeElement(const EditLabel* label, bool withReel,
                              const LightweightString<wchar_t>& reelName);
    // `file` with the id "file_" + ref: the whole definition, or the id alone
    // when `defined` is set or there is no shot. False on a reel identifier
    // that other systems would choke on.
    bool printFileElement(CED2* shot, bool defined, LightweightString<wchar_t>& ref);
    // The same with the element's id made already, in UTF-8.
    bool printFileElement(CED2* shot, bool defined, const std::string& id);
    // Frames at the rate of the shot that `cookie` plays; 1 for an unknown
    // shot. Drops the file marks of that shot.
    int cookieCelTimeToFrames(double time, Cookie cookie);
    // One marker per cue, in frames of the record's own rate.
    void writeMarkers(CED2* ced2);
    // The same counted `framesPerSecond` frames to a cel second.
    void writeMarkers(CED2* ced2, double framesPerSecond);

    // One track of a sequence. False when a file element failed.
    bool printSeqTrack(CChannel* channel, CED2* seq, unsigned int& counter, EditLabel* label,
                       bool isVideo);
    // One angle of a multiclip group.
    bool printAngle(CED2* shot, bool isGhost, LightweightString<wchar_t>& id,
                    LightweightString<wchar_t>& masterId, int offset, int& counter);

    CED2ClipRefMap& refMap() { return map_; }

  private:
    // What a material cel plays, and where its clip item lies once the
    // material its media lacks is cut off.
    struct ClipPlan {
        CED2ClipRefMapRec* rec = nullptr;
        CED2* shot = nullptr;    // the shot, sub-clip or nested sequence the cel names
        CED2* master = nullptr;  // the shot whose file it plays; null for a nested sequence
        // The cookies they are registered under; the master's record, when
        // it has one (its text names the file).
        Cookie cookie, masterCookie;
        CED2ClipRefMapRec* masterRec = nullptr;
        double subStart = 0;   // where a sub-clip starts in its master
        bool defined = false;  // the master's file is written already
        bool nested = false;   // the cel plays a sequence: the clip item holds it
        bool still = false, reverse = false;
        double rate = 0;    // |speed|
        double length = 0;  // of what the cel plays
        double playLength = 0;
        double editIn = 0, editOut = 0, offset = 0;
        double inValue = 0, outValue = 0;
        bool cutHead = false, cutTail = false;  // material cut off at either end
        bool plays = true;                      // something of it is left to play
    };
    // The master of a material cel, through sub-clips of sub-clips; false
    // when the cel plays nothing that can be written.
    bool resolveClip(CED2Cell* cel, ClipPlan& plan);
    // The text of the master's cookie: its id, and that of its file.
    static LightweightString<wchar_t> masterText(const ClipPlan& plan) {
        return plan.masterRec ? plan.masterRec->ref : plan.masterCookie.asWString();
    }
    // Places the clip item of `cel`: its head reaching back into a transition
    // before it by `headLength`, its tail on by `tailLength`.
    void placeClip(CED2Cell* cel, ClipPlan& plan, double headLength, double tailLength);
    // What a transition cel finds after it: a clip that can reach back into
    // it, black, or a clip that lacks the material.
    int sideAfter(CED2Cell* transition);
    // The whole `sequence` element of one edit, tracks and all.
    bool writeOneSequence(CED2* seq, unsigned int& counter);
    // The `sequence` element that a clip item of a nested sequence holds: in
    // full at its first use, by its id after.
    bool printNestedSequence(CED2* seq, unsigned int& counter);

    // The first children of a master clip: name, duration, rate, masterclipid
    // and ismasterclip.
    void printMasterClipHeader(const LightweightString<wchar_t>& name, double length, double rate,
                               const LightweightString<wchar_t>& masterId);
    void printSampleCharacteristics(const ShotVideoMetadata& metadata);
    void printSubclipInfo(int startOffset, int endOffset);
    void printTransition(CED2Cell* cel, CChannel* channel, bool isVideo, int number,
                         const char* alignment);
    // The first children of a filter's effect, in their fixed order: words of
    // the writer's own, in ASCII.
    void printEffectHeader(const char* name, const char* id, const char* category, const char* type,
                           const char* mediaType);
    void printTimeRemap(float speed, bool still, bool reverse, bool isVideo);
    void printAudioLevels(CChannel* channel, CED2* seq, double editIn, double editOut,
                          double inValue, double rate);
    LightweightString<char> timecodeAt(const EditLabel* label, double t) const;
    // A loss on `channel` at cel time `t` of the sequence being written.
    LossRecord lossHere(const char* kind, CChannel* channel, const LightweightString<char>& tc,
                        double t, const char* detail) const;
    // The two warning lines of material cut off at the start or end of its
    // shot: what was wrong, on which track at which timecode.
    void warnBadSegment(const char* what, const char* loss, CChannel* channel,
                        const EditLabel* label, double t);

    // The rate of the file of a shot: its timecode's, else its source's.
    double footageRate(const CED2* shot) const;
    // The rate a timecode label counts.
    static Qv::FrameRate timecodeRate(const EditLabel& label);

    CED2ClipRefMap map_;
    // Sequences written in full inside a clip item, and those being written
    // (against a sequence that holds itself).
    std::unordered_set<LightweightString<wchar_t>> sequencesWritten_;
    std::unordered_set<LightweightString<wchar_t>> sequencesOpen_;
    LightweightString<char> sequenceName_;  // of the sequence being written
};

}  // namespace XML
