// The store of edits and the handles by which they are opened.
//
// An Edit lives in an EditStore (one per project) under its identity. A shot's
// edit also stands for its media: SystemCache finds the media file of any of
// its material cookies, MediaFileToClipMap the material of a file.
#pragma once

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/Audio.h"
#include "host/ED2.h"

// A channel of a stored edit.
struct StoredChannel {
    unsigned int index = 0;
    EditChanType type = kChanVideo;
    LightweightString<char> name;
    std::vector<CelData> cels;
    bool hasTrackLevels = false;
    std::vector<LevelData> levels;
    bool operator==(const StoredChannel&) const = default;
};

struct IdStamp {
    int value = 0;
};

enum eEditOpenBehaviour { eEditOpenDefault = 0 };

// The keys under which a shot's log texts are kept.
inline const char* const kLogFieldKeys[] = {"scene", "description", "notes", "shot", "who"};

class Edit : public iObject {
  public:
    explicit Edit(const Cookie& cookie);

    // Read side.
    LightweightString<wchar_t> getName() const { return name; }
    Qv::FrameRate getFrameRate() const { return frameRate; }
    // The rate of the source; one that was never recorded is the edit's own
    // frame rate, or failing that the rate of its frames per second.
    Qv::FrameRate getSourceFrameRate() const;
    MediumRollMedium getSourceMedium() const { return sourceMedium; }
    LogType32 getLogType() const { return logType; }
    // Channels whose type bit (1 video, 2 audio) is in the mask.
    int getNumChans(unsigned int mask) const;
    IdStamp getId(int channel) const { return IdStamp{channel}; }
    bool getTrackOriginInfo_Filename(const IdStamp& id, LightweightString<char>& out) const;
    ShotVideoMetadata& getVideoMetadata() { return videoMetadata; }
    const ShotVideoMetadata& getVideoMetadata() const { return videoMetadata; }
    EditLabel getVideoTimecodeLabel() const;
    double getEndTime() const;
    Cookie getCookie() const { return cookie; }
    bool isShot() const { return logType == kLogTypeShot; }
    // A shot whose media file is not known.
    bool isOffline() const { return isShot() && mediaPath.empty(); }
    const StoredChannel* findChannel(unsigned int index) const;

    // Write side.
    void setName(const LightweightString<wchar_t>& n, bool) { name = n; }
    void setSequence(int n, bool) { sequence = n; }
    void setFrameBased(bool b) { frameBased = b; }
    void setTransfer(int t) { transfer = t; }
    void setSourceMediumDuration(double d) { sourceMediumDuration = d; }
    void setVideoReelId(const LightweightString<char>& r) { videoReelId = r; }
    void setFilmReelId(const LightweightString<char>& r) { filmReelId = r; }
    void setOrigAudioReelId(const LightweightString<char>& r) { audioReelId = r; }
    void setAudioInputSampleRate(const Aud::SampleRate& r) { audioInputSampleRate = r; }
    void setAudioNaturalFilmSyncPlaybackResamplingFactor(Aud::eFactor f) { resamplingFactor = f; }
    // Brings the recorded length into line with the channels: a length that
    // was never set becomes the end of the last cel.
    void verifyClipLength();
    // The edit's configuration store: the log texts among other things.
    void setConfig(const std::string& key, const LightweightString<char>& value) {
        config[key] = value;
    }
    LightweightString<char> getConfig(std::string_view key) const;

    Cookie cookie;
    LightweightString<wchar_t> name;
    LogType32 logType = kLogTypeSequence;
    Qv::FrameRate frameRate = Qv::eFrameRateNone;
    Qv::FrameRate sourceFrameRate = Qv::eFrameRateNone;
    double rate = 0;    // frames per second of a shot or sub-clip
    double length = 0;  // cel time; 0 means the end of the last cel
    MediumRollMedium sourceMedium = kMediumNone;
    std::vector<StoredChannel> channels;
    std::vector<Ced2Cue> cues;
    std::vector<EditLabel> labels;
    LightweightString<char> videoReelId, audioReelId, filmReelId, labRollId;
    std::map<std::string, LightweightString<char>, std::less<>> config;
    ShotVideoMetadata videoMetadata;
    double audioSampleRate = 0;  // hertz, as a document gave it; 0 unknown
    Aud::SampleRate audioInputSampleRate;
    Aud::eFactor resamplingFactor = Aud::eFactor1;
    LightweightString<char> trackOriginFilename;
    int sequence = 0;
    bool frameBased = false;
    int transfer = 0;
    double sourceMediumDuration = 0;
    bool excludedFromExport = false;

    // Media of a shot: the file it plays, and where it was first found.
    LightweightString<wchar_t> mediaPath;
    LightweightString<wchar_t> historicLocator;

    // How many EditPtrs hold it open now.
    int openCount = 0;
};

class EditPtr {
  public:
    EditPtr() = default;
    explicit EditPtr(Qv::Ptr<Edit> e) : edit_(std::move(e)) {}
    EditPtr(const EditPtr&) = delete;
    EditPtr& operator=(const EditPtr&) = delete;
    ~EditPtr() { i_close(); }

    // Opens the edit of that identity (of any cookie type) in the current
    // store; afterwards the handle is null if it could not be opened.
    void i_open(const Cookie& cookie, eEditOpenBehaviour behaviour = eEditOpenDefault);
    // Closes it; harmless on a null handle.
    void i_close();
    EditPtr& operator=(Edit* e);

    Edit* get() const { return edit_.get(); }
    Edit* operator->() const { return edit_.get(); }
    explicit operator bool() const { return static_cast<bool>(edit_); }
    bool isNull() const { return !edit_; }

  private:
    Qv::Ptr<Edit> edit_;
    bool opened_ = false;
};

// A copyable guard that keeps a written edit at hand for change.
class EditModifier {
  public:
    EditModifier() = default;
    explicit EditModifier(Qv::Ptr<Edit> e) : edit_(std::move(e)) {}
    Edit* get() const { return edit_.get(); }
    Edit* operator->() const { return edit_.get(); }
    explicit operator bool() const { return static_cast<bool>(edit_); }
    Cookie getCookie() const { return edit_ ? edit_->cookie : invalid_cookie; }
    Qv::Ptr<Edit> ptr() const { return edit_; }

  private:
    Qv::Ptr<Edit> edit_;
};

// The edits of one project.
class EditStore {
  public:
    // Identities come from a generator seeded per store, so that identical
    // work gives identical identities.
    explicit EditStore(std::uint64_t seed = 0x5156584D4Cull);
    ~EditStore();
    EditStore(const EditStore&) = delete;
    EditStore& operator=(const EditStore&) = delete;

    // The store that host services work on: the one the calling thread made
    // current, or the process's own, which a process starts with. A store is
    // current on one thread only; an export's worker thread works on the
    // store of the thread that started it.
    static EditStore& current();
    // Makes a store current on the calling thread; null goes back to the
    // process's own.
    static void setCurrent(EditStore* store);
    // A number no other store of the process has had, so that what is
    // remembered of one project is never taken for another's.
    std::uint64_t serial() const { return serial_; }

    Qv::UUID newIdentity();
    // A new identity as an edit's cookie.
    Cookie newEditCookie();
    void reseed(std::uint64_t seed);
    std::uint64_t generatorState() const;

    // Adds an edit; an edit of the same identity is replaced.
    void add(Qv::Ptr<Edit> edit);
    bool remove(const Cookie& cookie);
    void clear();
    // The edit of that identity, whatever the cookie's type and channel.
    Qv::Ptr<Edit> find(const Cookie& cookie) const;
    Qv::Ptr<Edit> findByName(const LightweightString<wchar_t>& name) const;
    // The shot whose media is that file (the first added, when several are).
    Qv::Ptr<Edit> findShotByMedia(const LightweightString<wchar_t>& path) const;
    // Code that changes the media of an edit already in the store says so,
    // so that look-ups by media see the change.
    void noteMediaChanged();
    std::vector<Qv::Ptr<Edit>> edits() const;
    std::size_t size() const;

    // Opens and closes through EditPtr, for checks that every open is closed.
    std::int64_t opens() const { return opens_; }
    std::int64_t closes() const { return closes_; }
    void noteOpen() { ++opens_; }
    void noteClose() { ++closes_; }

  private:
    const std::uint64_t serial_;
    mutable std::recursive_mutex mutex_;
    std::vector<Qv::Ptr<Edit>> edits_;
    // The place in edits_ of each identity, so that look-ups need not walk
    // the whole store.
    struct IdentityHash {
        std::size_t operator()(const Qv::UUID& id) const noexcept;
    };
    std::unordered_map<Qv::UUID, std::size_t, IdentityHash> index_;
    std::uint64_t state_;
    std::int64_t opens_ = 0, closes_ = 0;
    // Shots by media file, made when first asked for after a change.
    mutable std::unordered_map<std::wstring, std::vector<Edit*>> byMedia_;
    mutable bool byMediaValid_ = false;
};

// Makes a store current for the life of the object, then restores the last.
class ScopedCurrentStore {
  public:
    explicit ScopedCurrentStore(EditStore& store);
    ~ScopedCurrentStore();
    ScopedCurrentStore(const ScopedCurrentStore&) = delete;
    ScopedCurrentStore& operator=(const ScopedCurrentStore&) = delete;

  private:
    EditStore* previous_;
};

// Media files of material.
class FsysDirectoryEntry : public iObject {
  public:
    explicit FsysDirectoryEntry(LightweightString<wchar_t> path) : path_(std::move(path)) {}
    LightweightString<wchar_t> getPhysicalFilename(bool) const { return path_; }

  private:
    LightweightString<wchar_t> path_;
};

namespace SystemCache {
// The media file of a material or edit cookie; null when it has none.
Qv::Ptr<FsysDirectoryEntry> findEntryForCookie(const Cookie& cookie);
LightweightString<wchar_t> getPhysicalHighResMedia(const Cookie& cookie);
}  // namespace SystemCache

// A cookie's media as a file URL, and the locator it was first found at.
bool getPrimaryURLLocator(LightweightString<wchar_t>& locator, Cookie& cookie);
bool getHistoricURLLocator(LightweightString<wchar_t>& locator, Cookie& cookie);
