// The fcpxml writer's maps of formats, assets and cookies, and Final Cut Pro
// X's table of picture format names.
#include "fcpxml/FCPXRefMaps.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <unordered_set>

#include "fcpxml/FCPXXMLWriter.h"
#include "host/Edit.h"

namespace XML {

namespace {

// The names of the picture formats that Final Cut Pro X knows. The "DV" and
// "_16x9" names are among them, though no picture of the host is ever given
// one.
const wchar_t* const kFormatNames[] = {
    L"FFVideoFormat1080i5994",
    L"FFVideoFormat1080i50",
    L"FFVideoFormat1080p2398",
    L"FFVideoFormat1080p24",
    L"FFVideoFormat1080p25",
    L"FFVideoFormat1080p2997",
    L"FFVideoFormat1080p30",
    L"FFVideoFormat1080p50",
    L"FFVideoFormat1080p5994",
    L"FFVideoFormat1080p60",
    L"FFVideoFormat1280x1080i5994",
    L"FFVideoFormat1280x1080i50",
    L"FFVideoFormat1280x1080p2398",
    L"FFVideoFormat1280x1080p24",
    L"FFVideoFormat1280x1080p2997",
    L"FFVideoFormat1280x1080p30",
    L"FFVideoFormat1280x1080p5994",
    L"FFVideoFormat1280x1080p60",
    L"FFVideoFormat1440x1080i50",
    L"FFVideoFormat1440x1080i5994",
    L"FFVideoFormat1440x1080p2398",
    L"FFVideoFormat1440x1080p24",
    L"FFVideoFormat1440x1080p25",
    L"FFVideoFormat1440x1080p2997",
    L"FFVideoFormat1440x1080p30",
    L"FFVideoFormat1440x1080p50",
    L"FFVideoFormat1440x1080p5994",
    L"FFVideoFormat1440x1080p60",
    L"FFVideoFormat2048x1024p2398",
    L"FFVideoFormat2048x1024p24",
    L"FFVideoFormat2048x1024p25",
    L"FFVideoFormat2048x1024p2997",
    L"FFVideoFormat2048x1024p30",
    L"FFVideoFormat2048x1024p50",
    L"FFVideoFormat2048x1024p5994",
    L"FFVideoFormat2048x1024p60",
    L"FFVideoFormat2048x1080p2398",
    L"FFVideoFormat2048x1080p24",
    L"FFVideoFormat2048x1080p25",
    L"FFVideoFormat2048x1080p2997",
    L"FFVideoFormat2048x1080p30",
    L"FFVideoFormat2048x1080p50",
    L"FFVideoFormat2048x1080p5994",
    L"FFVideoFormat2048x1080p60",
    L"FFVideoFormat2048x1152p2398",
    L"FFVideoFormat2048x1152p24",
    L"FFVideoFormat2048x1152p25",
    L"FFVideoFormat2048x1152p2997",
    L"FFVideoFormat2048x1152p30",
    L"FFVideoFormat2048x1152p50",
    L"FFVideoFormat2048x1152p5994",
    L"FFVideoFormat2048x1152p60",
    L"FFVideoFormat2048x1556p2398",
    L"FFVideoFormat2048x1556p24",
    L"FFVideoFormat2048x1556p25",
    L"FFVideoFormat2048x1556p2997",
    L"FFVideoFormat2048x1556p30",
    L"FFVideoFormat2048x1556p50",
    L"FFVideoFormat2048x1556p5994",
    L"FFVideoFormat2048x1556p60",
    L"FFVideoFormat4096x2048p2398",
    L"FFVideoFormat4096x2048p24",
    L"FFVideoFormat4096x2048p25",
    L"FFVideoFormat4096x2048p2997",
    L"FFVideoFormat4096x2048p30",
    L"FFVideoFormat4096x2048p50",
    L"FFVideoFormat4096x2048p5994",
    L"FFVideoFormat4096x2048p60",
    L"FFVideoFormat4096x2160p2398",
    L"FFVideoFormat4096x2160p24",
    L"FFVideoFormat4096x2160p25",
    L"FFVideoFormat4096x2160p2997",
    L"FFVideoFormat4096x2160p30",
    L"FFVideoFormat4096x2160p50",
    L"FFVideoFormat4096x2160p5994",
    L"FFVideoFormat4096x2160p60",
    L"FFVideoFormat4096x2304p2398",
    L"FFVideoFormat4096x2304p24",
    L"FFVideoFormat4096x2304p25",
    L"FFVideoFormat4096x2304p2997",
    L"FFVideoFormat4096x2304p30",
    L"FFVideoFormat4096x2304p50",
    L"FFVideoFormat4096x2304p5994",
    L"FFVideoFormat4096x2304p60",
    L"FFVideoFormat4096x3112p2398",
    L"FFVideoFormat4096x3112p24",
    L"FFVideoFormat4096x3112p25",
    L"FFVideoFormat4096x3112p2997",
    L"FFVideoFormat4096x3112p30",
    L"FFVideoFormat4096x3112p50",
    L"FFVideoFormat4096x3112p5994",
    L"FFVideoFormat4096x3112p60",
    L"FFVideoFormat640x480p2398",
    L"FFVideoFormat640x480p24",
    L"FFVideoFormat640x480p25",
    L"FFVideoFormat640x480p2997",
    L"FFVideoFormat640x480p30",
    L"FFVideoFormat720p2398",
    L"FFVideoFormat720p24",
    L"FFVideoFormat720p25",
    L"FFVideoFormat720p2997",
    L"FFVideoFormat720p30",
    L"FFVideoFormat720p50",
    L"FFVideoFormat720p5994",
    L"FFVideoFormat720p60",
    L"FFVideoFormat720x486i5994",
    L"FFVideoFormat720x486i5994_16x9",
    L"FFVideoFormat720x486p2398",
    L"FFVideoFormat720x486p2398_16x9",
    L"FFVideoFormat720x486p2997",
    L"FFVideoFormat720x486p2997_16x9",
    L"FFVideoFormat720x576i50",
    L"FFVideoFormat720x576i50_16x9",
    L"FFVideoFormat720x576p25",
    L"FFVideoFormat720x576p25_16x9",
    L"FFVideoFormat960x540p2398",
    L"FFVideoFormat960x540p24",
    L"FFVideoFormat960x540p25",
    L"FFVideoFormat960x540p2997",
    L"FFVideoFormat960x540p30",
    L"FFVideoFormat960x720p2398",
    L"FFVideoFormat960x720p24",
    L"FFVideoFormat960x720p25",
    L"FFVideoFormat960x720p2997",
    L"FFVideoFormat960x720p30",
    L"FFVideoFormat960x720p50",
    L"FFVideoFormat960x720p5994",
    L"FFVideoFormat960x720p60",
    L"FFVideoFormatDV720x480i5994",
    L"FFVideoFormatDV720x480i5994_16x9",
    L"FFVideoFormatDV720x480p2398",
    L"FFVideoFormatDV720x480p2398_16x9",
    L"FFVideoFormatDV720x480p2997",
    L"FFVideoFormatDV720x480p2997_16x9",
    L"FFVideoFormatDV720x576i50",
    L"FFVideoFormatDV720x576i50_16x9",
};

bool isKnownFormatName(std::wstring_view name) {
    static const std::unordered_set<std::wstring_view> names(std::begin(kFormatNames),
                                                             std::end(kFormatNames));
    return names.count(name) != 0;
}

std::size_t mix(std::size_t seed, std::size_t value) {
    return seed ^ (value + 0x9E3779B97F4A7C15ull + (seed << 6) + (seed >> 2));
}

LightweightString<wchar_t> decimal(long value) {
    return Qv::WStringFromInteger(value);
}

}  // namespace

std::size_t CookieIdentityHash::operator()(const Cookie& c) const noexcept {
    std::size_t h = std::hash<unsigned>()(c.type);
    for (std::uint32_t w : c.uuid.words)
        h = mix(h, std::hash<std::uint32_t>()(w));
    return mix(h, c.channel);
}

// ---- VidFormatRefMap ----

void VidFormatRefMap::clear() {
    records_.clear();
    byName_.clear();
    byFormat_.clear();
    next_ = 1;
}

bool VidFormatRefMap::getFcpFormat(unsigned int width, unsigned int height, Qv::FrameRate rate,
                                   bool progressive, LightweightString<wchar_t>& name) {
    LightweightString<wchar_t> built = L"FFVideoFormat";
    if (width == 1920 && height == 1080) {
        built += L"1080";
    } else if (width == 1280 && height == 720) {
        built += L"720";
    } else {
        char size[32];
        std::snprintf(size, sizeof size, "%dx%d", static_cast<int>(width),
                      static_cast<int>(height));
        built += Qv::WStringFromAscii(size);
    }
    if (progressive) {
        built += L"p";
    } else {
        built += L"i";
        if (rate == Qv::eFrameRate25) rate = Qv::eFrameRate50;
        if (rate == Qv::eFrameRate29_97) rate = Qv::eFrameRate59_94;
    }
    // The rate's digits without its point: "2398", "2997", "5994".
    LightweightString<wchar_t> plain = Qv::getPlainString(rate);
    for (wchar_t c : plain.view())
        if (c != L'.') built += c;
    name = isKnownFormatName(built.view()) ? built : L"FFVideoFormatRateUndefined";
    return true;
}

LightweightString<wchar_t> VidFormatRefMap::formatName(const ShotVideoMetadata& metadata) {
    Qv::Image::ScanMode scan = metadata.getScanMode();
    bool progressive =
        scan == Qv::Image::eScanProgressive || scan == Qv::Image::eScanProgressiveSegmented;
    LightweightString<wchar_t> name;
    getFcpFormat(static_cast<unsigned int>(metadata.getWidth()),
                 static_cast<unsigned int>(metadata.getHeight()), metadata.getFrameRate(),
                 progressive, name);
    return name;
}

bool VidFormatRefMap::findRef(const ShotVideoMetadata& metadata,
                              LightweightString<wchar_t>& id) const {
    auto it = byName_.find(formatName(metadata));
    if (it == byName_.end()) return false;
    id = records_[it->second].id;
    return true;
}

void VidFormatRefMap::addRef(const ShotVideoMetadata& metadata) {
    LightweightString<wchar_t> name = formatName(metadata);
    if (byName_.count(name)) return;
    byName_.emplace(name, records_.size());
    VidFormatRefMapRec rec;
    rec.name = name;
    rec.id = L"f" + decimal(next_++);
    records_.push_back(rec);
}

LightweightString<wchar_t> VidFormatRefMap::formatFor(const ShotVideoMetadata& metadata,
                                                      Qv::FrameRate rate) {
    ShotVideoMetadata at = metadata;
    at.setFrameRate(rate);
    VidFormatRefMapRec rec;
    rec.name = formatName(at);
    rec.frameDuration = FCPXXMLWriter::frameTime(1, rate);
    rec.width = std::max(0, metadata.getWidth());
    rec.height = std::max(0, metadata.getHeight());
    LightweightString<wchar_t> key = rec.name + L"|" + rec.frameDuration + L"|" +
                                     decimal(rec.width) + L"x" + decimal(rec.height);
    auto it = byFormat_.find(key);
    if (it != byFormat_.end()) return records_[it->second].id;
    rec.id = L"f" + decimal(next_++);
    byFormat_.emplace(key, records_.size());
    byName_.try_emplace(rec.name, records_.size());
    records_.push_back(rec);
    return records_.back().id;
}

// ---- AssetRefMap ----

std::size_t AssetRefMap::SourceKeyHash::operator()(const SourceKey& k) const noexcept {
    std::hash<LightweightString<wchar_t>> h;
    return mix(h(k.src), h(k.start));
}

void AssetRefMap::clear() {
    records_.clear();
    bySource_.clear();
    byCookie_.clear();
    byId_.clear();
    next_ = 1;
}

LightweightString<wchar_t> AssetRefMap::addRef(CED2* shot, const LightweightString<wchar_t>& src,
                                               const LightweightString<wchar_t>& format,
                                               Cookie cookie) {
    AssetRefMapRec rec;
    rec.src = src;
    rec.rate = static_cast<Qv::FrameRate>(1);
    EditPtr edit;
    edit.i_open(cookie);
    if (edit) {
        EditLabel label = edit->getVideoTimecodeLabel();
        rec.startTime = label.get_abs_posn(0);
        rec.rate = edit->getSourceFrameRate();
        rec.isDropFrame = isDropFrameFormat(label.get_format());
    }
    edit.i_close();
    rec.durationTime = shot->get_editLength();
    rec.duration = FCPXXMLWriter::timeToFCPRational(rec.durationTime, rec.rate);
    rec.start = FCPXXMLWriter::timeToFCPRational(rec.startTime, rec.rate);

    LightweightString<wchar_t> id;
    if (findRef(rec, id)) return id;

    rec.id = L"as" + decimal(next_++);
    int channels = shot->audioChannelCount;
    rec.hasAudio = channels >= 1 ? L"1" : L"0";
    rec.audioSources = L"1";
    rec.audioChannels = decimal(channels);
    rec.numAudioChannels = channels;
    rec.name = shot->get_editName();
    rec.format = format;
    rec.hasVideo = L"1";
    rec.cookie = cookie;
    rec.cues = shot->cues;

    std::size_t at = records_.size();
    bySource_.try_emplace(SourceKey{rec.src, rec.start}, at);
    byCookie_.try_emplace(rec.cookie, at);
    byId_.try_emplace(rec.id, at);
    records_.push_back(std::move(rec));
    return records_.back().id;
}

bool AssetRefMap::findRef(const AssetRefMapRec& rec, LightweightString<wchar_t>& id) const {
    auto it = bySource_.find(SourceKey{rec.src, rec.start});
    if (it == bySource_.end()) return false;
    id = records_[it->second].id;
    return true;
}

bool AssetRefMap::findRef(const Cookie& cookie, LightweightString<wchar_t>& id) const {
    auto it = byCookie_.find(cookie);
    if (it == byCookie_.end()) return false;
    id = records_[it->second].id;
    return true;
}

bool AssetRefMap::findRef(const LightweightString<wchar_t>& id, AssetRefMapRec& rec) const {
    const AssetRefMapRec* found = find(id);
    if (!found) return false;
    rec = *found;
    return true;
}

const AssetRefMap::AssetRefMapRec* AssetRefMap::find(const LightweightString<wchar_t>& id) const {
    auto it = byId_.find(id);
    return it == byId_.end() ? nullptr : &records_[it->second];
}

AssetRefMap::AssetRefMapRec* AssetRefMap::find(const LightweightString<wchar_t>& id) {
    auto it = byId_.find(id);
    return it == byId_.end() ? nullptr : &records_[it->second];
}

// ---- CookieRefMap ----

std::size_t CookieRefMap::KeyHash::operator()(const Key& k) const noexcept {
    return mix(std::hash<LightweightString<wchar_t>>()(k.cookie), k.channel);
}

void CookieRefMap::clear() {
    records_.clear();
    index_.clear();
}

void CookieRefMap::addRef(const Cookie& cookie, unsigned int channel,
                          const LightweightString<wchar_t>& assetId, double rate, double offset) {
    CookieRefMapRec rec{cookie.asWString(), channel, assetId, offset, rate};
    if (!index_.try_emplace(Key{rec.cookie, channel}, records_.size()).second) return;
    records_.push_back(std::move(rec));
}

bool CookieRefMap::findRef(const Cookie& cookie, unsigned int channel,
                           LightweightString<wchar_t>& assetId, double& offset, double&) const {
    auto it = index_.find(Key{cookie.asWString(), channel});
    if (it == index_.end()) return false;
    assetId = records_[it->second].assetId;
    offset = records_[it->second].offset;
    return true;
}

}  // namespace XML
