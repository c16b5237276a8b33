// The fcpxml writer's three maps: picture formats, assets (one per media
// file and start), and the cookies by which cels reach an asset.
//
// Each map keeps its records in the order they were made, which is the order
// of their identifiers in the document, and answers a look-up with the first
// matching record. Hash indexes beside the records keep every look-up
// constant-time, so that an export stays linear in the number of cels.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "host/Cookie.h"
#include "host/ED2.h"
#include "host/FrameRate.h"
#include "host/LightweightString.h"
#include "host/VideoFormat.h"

namespace XML {

// Hashes and compares cookies as Cookie::compare does: identity, type and
// channel, not the tail byte.
struct CookieIdentityHash {
    std::size_t operator()(const Cookie& c) const noexcept;
};
struct CookieIdentityEqual {
    bool operator()(const Cookie& a, const Cookie& b) const noexcept { return a.compare(b) == 0; }
};

// The picture formats of a document, by their name in Final Cut Pro X's
// table of formats.
class VidFormatRefMap {
  public:
    struct VidFormatRefMapRec {
        LightweightString<wchar_t> name;  // the table's name, the key
        LightweightString<wchar_t> id;    // "f" and its number
        // A format made by formatFor: the time of one frame, "1001/30000s",
        // and the picture's size when it is known (0 otherwise).
        LightweightString<wchar_t> frameDuration;
        int width = 0, height = 0;
    };

    // Empties the map; numbering starts again at 1.
    void clear();
    // The table name of a picture: "FFVideoFormat", the size ("1080", "720"
    // or width x height), "p" or "i" (interlaced names state the field rate,
    // so 25 becomes 50 and 29.97 becomes 59.94), and the rate's digits. A name
    // that is not in the table becomes "FFVideoFormatRateUndefined".
    static bool getFcpFormat(unsigned int width, unsigned int height, Qv::FrameRate rate,
                             bool progressive, LightweightString<wchar_t>& name);
    // The table name of a shot's or sequence's picture; progressive for the
    // scan modes 3 and 4.
    static LightweightString<wchar_t> formatName(const ShotVideoMetadata& metadata);
    // The id of the picture's format; false when it has none yet.
    bool findRef(const ShotVideoMetadata& metadata, LightweightString<wchar_t>& id) const;
    // Gives the picture's format the next id, unless it has one.
    void addRef(const ShotVideoMetadata& metadata);
    // The id of the format of a picture of `metadata`'s size and scan at
    // `rate`, made if new. Unlike addRef, two pictures of one name but of
    // other rates or sizes (two that have no name of their own, say) are two
    // formats, each with its frame duration and size.
    LightweightString<wchar_t> formatFor(const ShotVideoMetadata& metadata, Qv::FrameRate rate);

    const std::vector<VidFormatRefMapRec>& records() const { return records_; }

  private:
    std::vector<VidFormatRefMapRec> records_;
    std::unordered_map<LightweightString<wchar_t>, std::size_t> byName_;
    std::unordered_map<LightweightString<wchar_t>, std::size_t> byFormat_;
    int next_ = 1;
};

// The media assets of a document. One media file with one start time is one
// asset, however many shots play it.
class AssetRefMap {
  public:
    // An asset's attributes as the text that is written, and a few of them
    // again as numbers.
    struct AssetRefMapRec {
        LightweightString<wchar_t> src;            // the media URL
        LightweightString<wchar_t> id;             // "as" and its number
        LightweightString<wchar_t> hasAudio;       // "1" or "0"
        LightweightString<wchar_t> audioSources;   // always "1"
        LightweightString<wchar_t> start;          // rational start time
        double startTime = 0;                      // the same in seconds
        Qv::FrameRate rate = Qv::eFrameRateNone;   // the source's frame rate
        bool isDropFrame = false;                  // drop-frame timecode
        LightweightString<wchar_t> name;           // the edit name
        LightweightString<wchar_t> duration;       // rational length
        double durationTime = 0;                   // the same in seconds
        LightweightString<wchar_t> format;         // format id
        LightweightString<wchar_t> audioChannels;  // the count as text
        int numAudioChannels = 0;
        LightweightString<wchar_t> hasVideo;  // always "1"
        Cookie cookie;                        // the shot's cookie
        std::vector<Ced2Cue> cues;            // the shot's markers
        // Set by the writer where times count whole frames: the rate whose
        // frames the asset's times count, and its start and length in them.
        Qv::FrameRate grid = Qv::eFrameRateNone;
        std::int64_t startFrames = 0, lengthFrames = 0;
    };

    // Forgets every asset; numbering starts again at 1.
    void clear();
    // The id of the asset of `shot`'s media at `src`: an existing asset of the
    // same file and start, or a new one with the next number.
    LightweightString<wchar_t> addRef(CED2* shot, const LightweightString<wchar_t>& src,
                                      const LightweightString<wchar_t>& format, Cookie cookie);
    // The first asset with the same src and start text as `rec`.
    bool findRef(const AssetRefMapRec& rec, LightweightString<wchar_t>& id) const;
    // The first asset whose cookie is `cookie`.
    bool findRef(const Cookie& cookie, LightweightString<wchar_t>& id) const;
    // A copy of the asset with this id; `rec` is left alone when there is none.
    bool findRef(const LightweightString<wchar_t>& id, AssetRefMapRec& rec) const;
    // The asset with this id, or null; the record stays the map's.
    const AssetRefMapRec* find(const LightweightString<wchar_t>& id) const;
    AssetRefMapRec* find(const LightweightString<wchar_t>& id);

    const std::vector<AssetRefMapRec>& records() const { return records_; }

  private:
    struct SourceKey {
        LightweightString<wchar_t> src, start;
        bool operator==(const SourceKey&) const = default;
    };
    struct SourceKeyHash {
        std::size_t operator()(const SourceKey& k) const noexcept;
    };

    std::vector<AssetRefMapRec> records_;
    std::unordered_map<SourceKey, std::size_t, SourceKeyHash> bySource_;
    std::unordered_map<Cookie, std::size_t, CookieIdentityHash, CookieIdentityEqual> byCookie_;
    std::unordered_map<LightweightString<wchar_t>, std::size_t> byId_;
    int next_ = 1;
};

// What a cel's cookie and channel play: an asset, and where in it the
// material starts.
class CookieRefMap {
  public:
    struct CookieRefMapRec {
        LightweightString<wchar_t> cookie;  // the key cookie's text
        unsigned int channel = 0;           // the key's channel byte
        LightweightString<wchar_t> assetId;
        double offset = 0;  // seconds from the asset's start to the material
        double rate = 0;    // the shot's or sub-clip's frames per second
    };

    void clear();
    // Adds a record unless the key is there already.
    void addRef(const Cookie& cookie, unsigned int channel,
                const LightweightString<wchar_t>& assetId, double rate, double offset);
    // The asset and offset of the key. The record's rate is kept but not
    // handed out: `rate` stays as the caller set it.
    bool findRef(const Cookie& cookie, unsigned int channel, LightweightString<wchar_t>& assetId,
                 double& offset, double& rate) const;

    const std::vector<CookieRefMapRec>& records() const { return records_; }

  private:
    struct Key {
        LightweightString<wchar_t> cookie;
        unsigned int channel;
        bool operator==(const Key&) const = default;
    };
    struct KeyHash {
        std::size_t operator()(const Key& k) const noexcept;
    };

    std::vector<CookieRefMapRec> records_;
    std::unordered_map<Key, std::size_t, KeyHash> index_;
};

}  // namespace XML
