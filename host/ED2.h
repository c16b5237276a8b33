// Edit description records: a shot, sub-clip (ghost) or sequence detached
// from the store.
//
// Writers get these from the store, filled, by CED2List::PrepareED2ListsForExport;
// readers build them and hand them back with CED2List::WriteAllED2s. Lists own
// their records, records their channels, channels their cels and levels.
#pragma once

#include <cstdint>
#include <vector>

#include "host/Containers.h"
#include "host/Cookie.h"
#include "host/Label.h"
#include "host/LightweightString.h"
#include "host/Logger.h"
#include "host/VideoFormat.h"

class Edit;
class EditModifier;
class EditPtr;

using EditChanType = std::int32_t;
inline constexpr EditChanType kChanVideo = 1;
inline constexpr EditChanType kChanAudio = 2;

enum Wipe_Direction : std::int32_t { eWipeForward = 0, eWipeReverse = 1 };

// Which disk a piece of material lives on. '0' (48) is the default drive.
struct DriveId {
    DriveId(int v = '0') : value(v) {}
    int value;
    bool operator==(const DriveId&) const = default;
};

// Log types of stored edits, as a bit mask.
using LogType32 = std::uint32_t;
inline constexpr LogType32 kLogTypeShot = 1;
inline constexpr LogType32 kLogTypeSequence = 2;
inline constexpr LogType32 kLogTypeSubclip = 16;
inline constexpr LogType32 kLogTypeEffect = 32;  // an effect template: never exported
// The log types that export preparation expands.
inline constexpr LogType32 kExportableLogTypes = 0xC1F;

// One angle of a multi-angle cel: the material and its sync offset.
struct CelAlternate {
    Cookie cookie;
    int offset = 0;
    bool operator==(const CelAlternate& o) const {
        return cookie == o.cookie && offset == o.offset;
    }
};

// What a cel event carries, in the store and in a record alike. Times are
// cel time (seconds). The widest members come first, so that nothing is
// padded: a long sequence holds hundreds of thousands of cels.
struct CelData {
    double editIn = 0, editOut = 0;
    double sourceIn = 0, sourceOut = 0;
    std::vector<CelAlternate> alternates;
    Cookie cookie;
    float level = 1.0f, levelEnd = 1.0f;
    float speed = 1.0f;
    int wipeCode = -1;
    Wipe_Direction wipeDirection = eWipeForward;
    bool operator==(const CelData&) const = default;
};
static_assert(sizeof(CelData) == 96);

class CED2Cell : public DLListRec, public CelData {
  public:
    CED2Cell() = default;
    explicit CED2Cell(const CelData& d) : CelData(d) {}

    // Negative when the cel is no wipe.
    int GetSMPTEWipeCode() const { return wipeCode; }
    Wipe_Direction GetWipeDirection() const { return wipeDirection; }
    void SetSMPTEWipeCode(int code, Wipe_Direction direction) {
        wipeCode = code;
        wipeDirection = direction;
    }
    CED2Cell* next() const { return static_cast<CED2Cell*>(getNext()); }

    // A textual reference to a shot or ghost, resolved into `cookie` on import.
    LightweightString<char> refId;
    bool refIsGhost = false;
};

// One point of level automation.
struct LevelData {
    double position = 0;  // fraction of the record's length, 0 to 1
    float value = 1.0f;   // linear gain
    bool operator==(const LevelData&) const = default;
};

class CED2TrackLevel : public DLListRec, public LevelData {
  public:
    CED2TrackLevel() = default;
    explicit CED2TrackLevel(const LevelData& d) : LevelData(d) {}
};

// One marker. An `out` of 1e99 is open-ended.
struct Ced2Cue {
    Ced2Cue() = default;
    Ced2Cue(LightweightString<wchar_t> name, LightweightString<wchar_t> comment,
            unsigned int colour, double in, EditChanType type, unsigned int flags, double out)
        : name(std::move(name)),
          comment(std::move(comment)),
          colour(colour),
          in(in),
          out(out),
          type(type),
          flags(flags) {}
    LightweightString<wchar_t> name, comment;
    unsigned int colour = 0;
    double in = 0, out = 1e99;
    EditChanType type = kChanVideo;
    unsigned int flags = 0;
    bool operator==(const Ced2Cue&) const = default;
};
inline constexpr double kCueOpenEnd = 1e99;

class CChannel : public DLListRec {
  public:
    CChannel(unsigned int index, EditChanType type) : index(index), chanType(type) {}

    LightweightString<char> name;
    DLList cels;  // of CED2Cell, in time order
    bool hasTrackLevels = false;
    // Set together with hasTrackLevels by readers that found level automation.
    bool trackLevelsSet = false;
    DLList levels;       // of CED2TrackLevel
    unsigned int index;  // the channel's index in its record
    EditChanType chanType;

    LightweightString<wchar_t> mediaFilename;
    LightweightString<char> mediaFilenameUtf8;
    bool mediaFilenameSet = false;
    // The channel's identifier: what a cel that plays this channel names.
    LightweightString<wchar_t> refName;

    CED2Cell* firstCel() const { return static_cast<CED2Cell*>(cels.first()); }
    CED2Cell* addCel(const CelData& d) {
        CED2Cell* c = new CED2Cell(d);
        cels.append(c);
        return c;
    }
};

class CED2 : public DLListRec {
  public:
    static constexpr int kMaxLabels = 10;

    explicit CED2(bool isShot);
    ~CED2() override;

    CChannel* CreateEditChannel(unsigned int index, EditChanType type);
    int GetNumVideoChannels() const;
    int GetNumAudioChannels() const;
    CChannel* firstChannel() const { return static_cast<CChannel*>(channels.first()); }

    // Sets the identity and the extensions of the record's material.
    int reInitialiseCookie(const Cookie& c, const DriveId& drive,
                           LightweightString<wchar_t> videoExt,
                           LightweightString<wchar_t> audioExt);

    const LightweightString<wchar_t>& get_editName() const { return editName; }
    const LightweightString<char>& get_reelId() const { return reelId; }
    const LightweightString<char>& get_audioReelId() const { return audioReelId; }
    const LightweightString<char>& get_camReelId() const { return camReelId; }
    const LightweightString<char>& get_labRollId() const { return labRollId; }
    const EditLabel& get_primaryLabel() const { return primaryLabel; }
    ShotVideoMetadata get_shotVideoMetadata() const { return shotVideoMetadata; }
    MediumRollMedium get_sourceMedium() const { return sourceMedium; }
    // The record's length: its duration when one was set, otherwise the end of
    // its last cel.
    double get_editLength() const;
    int get_sequenceNum() const { return sequenceNum; }
    bool get_filmOrigin() const { return filmOrigin; }
    bool get_pulldown() const { return pulldown; }

    // Store the record's cues and labels into an edit.
    void WriteCuesData(EditModifier& edit);
    void WriteLabels(const EditPtr& edit, MediumRollMedium medium, double duration);
    // The labels an edit made from the record keeps: the main label first,
    // when it is set and valid, then the others.
    std::vector<EditLabel> storedLabels() const;
    // Appends a label if there is room; false when all ten places are taken.
    bool addLabel(const EditLabel& label);

    DLList channels;  // of CChannel
    std::vector<Ced2Cue> cues;
    EditLabel labels[kMaxLabels];
    int labelCount = 0;
    Cookie cookie;
    LightweightString<wchar_t> originLocator;
    bool originLocatorSet = false;
    bool materialOffline = false;
    bool materialLinked = false;
    bool materialImported = false;
    double duration = 0;
    int audioChannelCount = 0;
    bool hasVideo = false;
    std::uint32_t kind = 0;
    bool isShot;
    bool isGhost = false;
    bool excludedFromExport = false;
    LightweightString<char> reelId, audioReelId, camReelId, labRollId;
    LightweightString<wchar_t> editName;
    EditLabel primaryLabel;
    bool primaryLabelSet = false;
    double audioSampleRate = 0;
    bool audioSampleRateSet = false;
    LightweightString<char> sceneTxt, shotTxt, whoTxt, descriptionTxt, notesTxt;
    MediumRollMedium sourceMedium = kMediumNone;
    ShotVideoMetadata shotVideoMetadata;
    bool shotVideoMetadataSet = false;
    double rate = 0;  // frames per second of a shot or ghost
    int sequenceNum = 0;
    bool filmOrigin = false;
    bool pulldown = false;

    // Where the record's material lives and how its files are named.
    DriveId drive;
    LightweightString<wchar_t> videoExtension, audioExtension;
    // The stored edit the record came from, or was written to.
    Qv::Ptr<Edit> edit;
};

using CookieVec = LightweightVector<Cookie>;

class CED2List : public DLList {
  public:
    CED2List(LoggerHandle log = LoggerHandle(), int flags = 0, DriveId drive = DriveId());

    // Expands the edits named by the cookies into four lists: the sequences
    // to export, the edits they reach through one level of reference (sub-clips
    // or nested sequences), those reached through further levels, and the shots
    // that all the material comes from. Returns 1, or 3 when an edit named by a
    // cookie is not in the store. With `prepareOption`, shots whose media is
    // offline are marked excluded from export.
    int PrepareED2ListsForExport(const CookieVec& cookies, CED2List& seqList, CED2List& ghostList,
                                 CED2List& deepGhostList, CED2List& shotList, bool, int,
                                 LoggerHandle log, Qv::FrameRate rate, bool prepareOption, bool,
                                 bool, bool, bool, bool);

    // True if the list holds exactly one record that is not excluded from
    // export; that record is stored in the argument.
    bool hasOneExportableSequence(CED2*& seq);

    // Writes the records to the current store at that rate and gives each one
    // its Edit. Shots whose identity the store already knows (linked or
    // imported material) keep that edit.
    int WriteAllED2s(Qv::FrameRate rate);
    LightweightVector<EditModifier> buildCookieList() const;

    CED2* firstRecord() const { return static_cast<CED2*>(first()); }

    LoggerHandle log;
    int flags;
    DriveId drive;
};
