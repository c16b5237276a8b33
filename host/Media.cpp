#include "host/Media.h"

#include <atomic>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "host/Config.h"
#include "host/Paths.h"

namespace Importer {
ImportFileList buildImportListFromFileList(const std::vector<LightweightString<wchar_t>>& paths,
                                           void*, bool) {
    ImportFileList list;
    if (!paths.empty()) list.push_back(Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep(paths)));
    return list;
}
}  // namespace Importer

namespace DiskManager {
DriveId getDriveForTask(const char*, bool) {
    return DriveId('1');
}
}  // namespace DiskManager

namespace QvImport {
int getMediaScanningBehaviour() {
    return config_int("media_scanning_behaviour", 1);
}
}  // namespace QvImport

LightweightString<wchar_t> canonicalPath(const LightweightString<wchar_t>& path) {
    if (path.empty()) return path;
    char resolved[PATH_MAX];
    if (::realpath(pathBytes(path).c_str(), resolved)) return pathFromBytes(resolved);
    return path;
}

MaterialImporter::MaterialImporter(Qv::Ptr<ImportFileInfoRep> info, LoggerHandle log, bool)
    : info_(std::move(info)), log_(std::move(log)) {}

MaterialImporter::Result MaterialImporter::importFile() {
    Result result;
    if (!info_) return result;
    LightweightString<wchar_t> path = canonicalPath(info_->name());
    MediaProbe probe = probeMediaFile(path);
    if (!probe.ok) {
        if (LightweightString<char> why = takeMediaProbingUnavailable(); !why.empty())
            log_.WarningOut("%s", why.c_str());
        log_.ErrorOut("Cannot import \"%ls\": %s", path.c_str(), probe.error.c_str());
        return result;
    }
    bool takeVideo = probe.hasVideo && info_->selectVideo() && (info_->channelMask() & 1);
    bool takeAudio = probe.audioChannels > 0 && info_->selectAudio() && (info_->channelMask() & 2);
    if (!takeVideo && !takeAudio) {
        log_.ErrorOut("Cannot import \"%ls\": it has no pictures or sound to take", path.c_str());
        return result;
    }

    Qv::Ptr<Edit> shot(new Edit(makeNewEditCookie()));
    shot->name = stripExtension(stripPath(path));
    shot->logType = kLogTypeShot;
    shot->mediaPath = path;
    shot->historicLocator = path;

    // The rate of the picture, or for sound alone the rate the import
    // settings count in.
    Qv::FrameRate rate = takeVideo ? Qv::getCelQVFrameRateFromFrameRateDouble(probe.frameRate)
                                   : info_->audioImportSettings().rate;
    shot->rate = takeVideo && probe.frameRate > 0 ? probe.frameRate : Qv::getFramesPerSecond(rate);
    shot->frameRate = rate;
    shot->sourceFrameRate = rate;
    unsigned ticks = Qv::getTicksPerSecond(rate);
    // Cel time counts whole-number timebases: a 29.97 picture's frames are
    // thirtieths of a cel second.
    if (takeVideo && ticks > 0 && probe.frameRate > 0) {
        double frames = nearestFrame(probe.duration * probe.frameRate);
        shot->length = frames / ticks;
    } else {
        shot->length = probe.duration;
    }
    shot->sourceMedium = getMediumRollfromInputDetails(probe.scan, rate);

    const auto& format = Qv::DigitalVideoFormats::findBySize(probe.width, probe.height);
    ShotVideoMetadata meta(format, Qv::Image::kFormatYUY2, rate, probe.aspect, true, probe.scan, 8);
    meta.setSize(probe.width, probe.height);
    shot->videoMetadata = meta;
    if (probe.sampleRate > 0) {
        shot->audioSampleRate = probe.sampleRate;
        // A file's rate is one of the base rates played as recorded.
        for (int b = Aud::eBase8000; b <= Aud::eBase96000; ++b) {
            auto base = static_cast<Aud::eBaseSampleRate>(b);
            if (Aud::SampleRate::calcBaseSampleRate(base) == probe.sampleRate)
                shot->audioInputSampleRate = Aud::SampleRate(base, Aud::eFactor1);
        }
    }
    shot->videoReelId = probe.reel;
    if (!probe.timecode.empty() && ticks > 0) {
        bool dropFrame = probe.timecode.find(';') != LightweightString<char>::npos;
        EditLabel tc = editLabFrom(probe.timecode.c_str(), probe.scan, rate, dropFrame);
        if (tc.is_valid()) shot->labels.push_back(tc);
    }

    unsigned index = 0;
    auto addChannel = [&](EditChanType type, const char* name) {
        StoredChannel ch;
        ch.index = index;
        ch.type = type;
        ch.name = name;
        CelData cel;
        cel.cookie = convertCookie(shot->cookie, type == kChanVideo ? kCookieVideo : kCookieSound,
                                   static_cast<unsigned char>(index));
        cel.editOut = cel.sourceOut = shot->length;
        ch.cels.push_back(cel);
        shot->channels.push_back(ch);
        ++index;
    };
    if (takeVideo) addChannel(kChanVideo, "V1");
    if (takeAudio) {
        for (int a = 0; a < probe.audioChannels && a < 32; ++a) {
            char name[8];
            std::snprintf(name, sizeof name, "A%d", a + 1);
            addChannel(kChanAudio, name);
        }
    }

    EditStore::current().add(shot);
    MediaFileToClipMap::instance().addLink(path, shot->cookie);
    log_.Out("Imported \"%ls\"", path.c_str());
    result.status = 1;
    result.modifiers.push_back(EditModifier(shot));
    result.cookies.push_back(shot->cookie);
    return result;
}

namespace {
struct SingletonHolder {
    std::mutex criticalSection;
    MediaFileToClipMap* map = nullptr;
    bool destroyed = false;
    bool atExitScheduled = false;
};
SingletonHolder& holder() {
    static SingletonHolder* h = new SingletonHolder;
    return *h;
}
std::atomic<MediaFileToClipMap*>& published() {
    static std::atomic<MediaFileToClipMap*> p{nullptr};
    return p;
}
}  // namespace

MediaFileToClipMap& MediaFileToClipMap::instance() {
    if (MediaFileToClipMap* m = published().load(std::memory_order_acquire)) return *m;
    SingletonHolder& h = holder();
    std::lock_guard<std::mutex> lock(h.criticalSection);
    if (!h.map) {
        h.destroyed = false;
        h.map = new MediaFileToClipMap;
        if (!h.atExitScheduled) {
            h.atExitScheduled = true;
            std::atexit([] { MediaFileToClipMap::destroy(); });
        }
        published().store(h.map, std::memory_order_release);
    }
    return *h.map;
}

void MediaFileToClipMap::destroy() {
    SingletonHolder& h = holder();
    std::lock_guard<std::mutex> lock(h.criticalSection);
    published().store(nullptr, std::memory_order_release);
    delete h.map;
    h.map = nullptr;
    h.destroyed = true;
}

void MediaFileToClipMap::forgetStore(std::uint64_t serial) {
    SingletonHolder& h = holder();
    std::lock_guard<std::mutex> lock(h.criticalSection);
    if (!h.map) return;
    std::lock_guard<std::mutex> links(h.map->mutex_);
    h.map->links_.erase(serial);
}

bool MediaFileToClipMap::wasDestroyed() {
    SingletonHolder& h = holder();
    std::lock_guard<std::mutex> lock(h.criticalSection);
    return h.destroyed;
}

Cookie MediaFileToClipMap::findClip(const LightweightString<wchar_t>& path, eMatchType) const {
    if (path.empty()) return invalid_cookie;
    LightweightString<wchar_t> canonical = canonicalPath(path);
    EditStore& store = EditStore::current();
    if (Qv::Ptr<Edit> shot = store.findShotByMedia(canonical)) return shot->cookie;
    if (Qv::Ptr<Edit> shot = store.findShotByMedia(path)) return shot->cookie;
    std::lock_guard<std::mutex> lock(mutex_);
    auto project = links_.find(store.serial());
    if (project == links_.end()) return invalid_cookie;
    const LightweightString<wchar_t>* keys[] = {&canonical, &path};
    for (const LightweightString<wchar_t>* key : keys) {
        auto it = project->second.find(key->str());
        if (it == project->second.end()) continue;
        for (const Cookie& cookie : it->second)
            if (store.find(cookie)) return cookie;
    }
    return invalid_cookie;
}

void MediaFileToClipMap::addLink(const LightweightString<wchar_t>& path, const Cookie& cookie) {
    LightweightString<wchar_t> canonical = canonicalPath(path);
    std::uint64_t project = EditStore::current().serial();
    std::lock_guard<std::mutex> lock(mutex_);
    links_[project][canonical.str()].push_back(cookie);
}

void FilenameLinkHandler::FNLaddNewLinkFile(const Cookie& cookie,
                                            const LightweightString<wchar_t>& path) {
    MediaFileToClipMap::instance().addLink(path, cookie);
}

void ShotLogLinkHandler::initShotLogLinks() {
    names_.clear();
    for (const Qv::Ptr<Edit>& e : EditStore::current().edits()) {
        if (!e->isShot()) continue;
        if (!e->trackOriginFilename.empty())
            names_.emplace_back(fromUTF8(e->trackOriginFilename), e->cookie);
        if (!e->mediaPath.empty()) names_.emplace_back(stripPath(e->mediaPath), e->cookie);
    }
}

bool ShotLogLinkHandler::SLLFindShot(const LightweightString<wchar_t>& originName,
                                     Cookie& cookie) const {
    for (const auto& [name, c] : names_) {
        if (name == originName) {
            cookie = c;
            return true;
        }
    }
    return false;
}
