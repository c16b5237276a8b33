// Media import: the records of files to import, the importer that probes a
// media file and makes a shot edit for it, and the look-ups from files to the
// material already in the store.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/Edit.h"
#include "host/FrameRate.h"

// How imported audio is synchronised and labelled.
struct AudioImportSync {
    AudioImportSync() = default;
    AudioImportSync(int syncType, Qv::FrameRate rate, MediumRollMedium medium, LabelType labelType)
        : syncType(syncType), rate(rate), medium(medium), labelType(labelType) {}
    int syncType = 0;
    Qv::FrameRate rate = Qv::eFrameRate24;
    MediumRollMedium medium = kMediumNone;
    LabelType labelType = 0;
};

// One piece of material to import: its files and how to take them in.
class ImportFileInfoRep : public iObject {
  public:
    explicit ImportFileInfoRep(std::vector<LightweightString<wchar_t>> files)
        : files_(std::move(files)) {}
    // The first file's path.
    LightweightString<wchar_t> name() const {
        return files_.empty() ? LightweightString<wchar_t>() : files_.front();
    }
    const std::vector<LightweightString<wchar_t>>& files() const { return files_; }

    DriveId getDrive() const { return drive_; }
    void setDrive(DriveId d) { drive_ = d; }
    // The two selection flags: take the pictures, take the sound.
    bool selectVideo() const { return selectVideo_; }
    bool selectAudio() const { return selectAudio_; }
    void setSelection(bool video, bool audio) {
        selectVideo_ = video;
        selectAudio_ = audio;
    }
    // 1 video, 2 audio.
    unsigned channelMask() const { return channelMask_; }
    void setChannelMask(unsigned m) { channelMask_ = m; }
    const AudioImportSync& audioImportSettings() const { return audioSync_; }
    void setAudioImportSettings(const AudioImportSync& s) { audioSync_ = s; }

  private:
    std::vector<LightweightString<wchar_t>> files_;
    DriveId drive_;
    bool selectVideo_ = true, selectAudio_ = true;
    unsigned channelMask_ = 3;
    AudioImportSync audioSync_;
};

using ImportFileList = LightweightVector<Qv::Ptr<ImportFileInfoRep>>;

namespace Importer {
// One record for the files, which together make one piece of material.
ImportFileList buildImportListFromFileList(const std::vector<LightweightString<wchar_t>>& paths,
                                           void* options, bool recurse);
}  // namespace Importer

namespace DiskManager {
DriveId getDriveForTask(const char* task, bool create);
}

namespace QvImport {
// Where an import looks for media that is not where a document says:
// 0 nowhere, 1 the document's folder, 2 that folder and the folders below it.
// Set by the configuration key "media_scanning_behaviour"; 1 when not set.
int getMediaScanningBehaviour();
}  // namespace QvImport

// What a media file holds, as probing found it.
struct MediaProbe {
    bool ok = false;
    LightweightString<char> error;  // why not, when not ok
    double duration = 0;            // seconds
    bool hasVideo = false;
    int width = 0, height = 0;
    double frameRate = 0;  // frames per second of the picture
    Qv::Image::ScanMode scan = Qv::Image::eScanProgressive;
    Qv::Image::AspectRatio aspect = Qv::Image::eAspectSquare;
    int audioChannels = 0;
    double sampleRate = 0;
    LightweightString<char> timecode;  // start timecode, if the file names one
    LightweightString<char> reel;
};
// Opens a file with libavformat and reads what it holds. Only a regular file
// is opened (a FIFO, a device or a folder is passed over, and so is a file
// whose first megabytes are all zeros), and only as much of it is read as a
// probe needs. FFmpeg's libraries are loaded on the first call that needs
// them; when they cannot be, every file is "not a media file that can be
// read".
MediaProbe probeMediaFile(const LightweightString<wchar_t>& path);
// Once in a process, after a probe found that FFmpeg's libraries cannot be
// loaded: a sentence saying so, for a warning. Empty otherwise.
LightweightString<char> takeMediaProbingUnavailable();

// Imports a record's material as a new shot in the current store.
class MaterialImporter {
  public:
    struct Result {
        int status = 0;  // 1 when a shot was made
        LightweightVector<EditModifier> modifiers;
        CookieVec cookies;
    };
    MaterialImporter(Qv::Ptr<ImportFileInfoRep> info, LoggerHandle log, bool interactive);
    Result importFile();

  private:
    Qv::Ptr<ImportFileInfoRep> info_;
    LoggerHandle log_;
};

// The material already imported from each file. A process-wide singleton,
// made on first use (safely against concurrent first use), that can be
// destroyed and made again; it answers from the current store, and a link
// made while one store was current is never taken for another store's: the
// identities of two projects may coincide (each seeds its own generator).
class MediaFileToClipMap {
  public:
    enum eMatchType { eMatchExact = 0, eMatchFile = 1 };

    static MediaFileToClipMap& instance();
    // Destroys the singleton; the next use makes a fresh one.
    static void destroy();
    static bool wasDestroyed();
    // Forgets the links made in a store that is going away; makes no
    // singleton when there is none.
    static void forgetStore(std::uint64_t serial);

    // The cookie of the shot whose media is that file, or invalid.
    Cookie findClip(const LightweightString<wchar_t>& path, eMatchType type) const;
    // Remembers that a file now belongs to that material.
    void addLink(const LightweightString<wchar_t>& path, const Cookie& cookie);

  private:
    MediaFileToClipMap() = default;
    mutable std::mutex mutex_;
    // For each store, by its serial, the material of each file, in the order
    // the links were made.
    std::unordered_map<std::uint64_t, std::unordered_map<std::wstring, std::vector<Cookie>>> links_;
};

// Records which files belong to which material.
class FilenameLinkHandler {
  public:
    explicit FilenameLinkHandler(LoggerHandle log) : log_(std::move(log)) {}
    void FNLaddNewLinkFile(const Cookie& cookie, const LightweightString<wchar_t>& path);

  private:
    LoggerHandle log_;
};

// Finds shots by the name of the file they were first recorded to.
class ShotLogLinkHandler {
  public:
    void initShotLogLinks();
    bool SLLFindShot(const LightweightString<wchar_t>& originName, Cookie& cookie) const;

  private:
    std::vector<std::pair<LightweightString<wchar_t>, Cookie>> names_;
};

// A file's canonical path when it exists, else the path as given.
LightweightString<wchar_t> canonicalPath(const LightweightString<wchar_t>& path);
