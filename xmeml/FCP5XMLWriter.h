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

#include "export/XMLWriter.h"

namespace XML {

// One registered shot or sub-clip.
class CED2ClipRefMapRec {
  public:
    CED2ClipRefMapRec(const LightweightString<wchar_t>& ref, CED2* ced2, bool isGhost);

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
    LightweightString<wchar_t> ref;  // the shot's cookie text, the key
    bool isMxf = false;              // one of the channels plays MXF media

  private:
    friend class CED2ClipRefMap;
    void makeMarks();
    std::size_t nextSameRef_;  // the next record with this reference, or npos
};

// The registered shots, in order of registration. Look-ups answer the first
// record with an equal reference; an index from reference to that record
// keeps them constant-time however many shots there are.
class CED2ClipRefMap {
  public:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    void addRef(LightweightString<wchar_t> ref, CED2* ced2, bool isGhost);
    bool findRef(const LightweightString<wchar_t>& ref, CED2ClipRefMapRec** rec);
    // Marks the file of every record with this reference as defined, on all
    // channels.
    void setDefined(LightweightString<wchar_t> ref, unsigned int channel);
    void clear();
    std::size_t size() const { return records_.size(); }

  private:
    struct Chain {
        std::size_t first, last;
    };
    std::deque<CED2ClipRefMapRec> records_;  // stable addresses
    std::unordered_map<LightweightString<wchar_t>, Chain> index_;
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

    // `rate` with ntsc FALSE and the timebase cut to a whole number.
    void printRateElement(double rate);
    // `rate` of the sequence: its whole-number timebase, ntsc for 1001 rates.
    void printSeqRateElement();
    // `timecode` of a valid label, with `reel` holding `reelName` if asked.
    void printTimecodeElement(const EditLabel* label, bool withReel,
                              const LightweightString<wchar_t>& reelName);
    // `file` with the id "file_" + ref: the whole definition, or the id alone
    // when `defined` is set or there is no shot. False on a reel identifier
    // that other systems would choke on. The channel and MXF mark are not used.
    bool printFileElement(CED2* shot, bool defined, LightweightString<wchar_t>& ref,
                          unsigned char channel, bool mxf);
    // Frames at the rate of the shot that `cookie` plays; 1 for an unknown
    // shot. Drops the file marks of that shot.
    int cookieCelTimeToFrames(double time, Cookie cookie);
    void writeMarkers(CED2* ced2);

    // One track of a sequence. False when a file element failed.
    bool printSeqTrack(CChannel* channel, CED2* seq, unsigned int& counter, EditLabel* label,
                       bool isVideo);
    // One angle of a multiclip group.
    bool printAngle(CED2* shot, bool isGhost, LightweightString<wchar_t>& id,
                    LightweightString<wchar_t>& masterId, int offset, int& counter);

    CED2ClipRefMap& refMap() { return map_; }

  private:
    // The first children of a master clip: name, duration, rate, masterclipid
    // and ismasterclip.
    void printMasterClipHeader(const LightweightString<wchar_t>& name, double length, double rate,
                               const LightweightString<wchar_t>& masterId);
    void printSampleCharacteristics(const ShotVideoMetadata& metadata);
    void printSubclipInfo(int startOffset, int endOffset);
    void printTransition(CED2Cell* cel, CChannel* channel, bool isVideo, int number,
                         bool afterBlack);
    // The first children of a filter's effect, in their fixed order.
    void printEffectHeader(const char* name, const char* id, const char* category, const char* type,
                           const char* mediaType);
    void printTimeRemap(float speed, bool still, bool reverse, bool isVideo);
    void printAudioLevels(CChannel* channel, CED2* seq, double editIn, double editOut,
                          double inValue, double rate);
    LightweightString<char> timecodeAt(const EditLabel* label, double t) const;
    // The two warning lines of material cut off at the start or end of its
    // shot: what was wrong, on which track at which timecode.
    void warnBadSegment(const char* what, const char* loss, CChannel* channel,
                        const EditLabel* label, double t);

    CED2ClipRefMap map_;
};

}  // namespace XML
