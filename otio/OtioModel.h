// An OpenTimelineIO document, read into a compact model.
//
// The file is read with nlohmann's SAX parser, a block at a time. Each item of
// a track (clip, gap, transition, nested stack or track) is turned into an
// Item as soon as its object ends, and the parsed JSON of it is let go, so that
// memory follows the timeline rather than the text. Media references that are
// copies of one another (OpenTimelineIO has no instancing) are kept once.
// Metadata of other namespaces than "qvxml" is not kept: the document notes
// how often each was met, so that the reader can say so.
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace QvOtio {

inline constexpr const char* kNamespace = "qvxml";
inline constexpr std::size_t kNone = static_cast<std::size_t>(-1);

struct RationalTime {
    double value = 0;
    double rate = 0;
    bool valid() const;
    double seconds() const { return value / rate; }
};

struct TimeRange {
    RationalTime start, duration;
    bool valid() const { return start.valid() && duration.valid(); }
};

struct Marker {
    std::string name, comment, color;
    TimeRange range;  // invalid when the marker had none
    nlohmann::json qvxml;
};

enum class MediaKind { None, External, Missing, Generator, ImageSequence, Other };

struct Media {
    MediaKind kind = MediaKind::None;
    std::string schema;  // as written, "ExternalReference.1"
    std::string name;
    std::string url;            // target_url of an external reference
    TimeRange available;        // invalid when not known
    std::string generatorKind;  // of a generator reference
    nlohmann::json qvxml;
};

enum class ItemKind { Clip, Gap, Transition, Stack, Track, Timeline, Collection, Other };

struct Item {
    ItemKind kind = ItemKind::Other;
    std::string schema;
    std::string name;
    TimeRange sourceRange;  // invalid when null or missing
    bool enabled = true;
    std::vector<Marker> markers;
    // Effects: the product of the linear time warps, a freeze frame, and the
    // names of those that are neither.
    double timeScalar = 1.0;
    bool freeze = false;
    std::vector<std::string> otherEffects;
    nlohmann::json qvxml;

    // Clip: the active media reference, and the others by key.
    std::size_t media = kNone;
    std::vector<std::pair<std::string, std::size_t>> otherMedia;
    // The audio channel of the source that fcp_xml metadata names; 0 if none.
    int sourceTrack = 0;

    // Transition.
    RationalTime inOffset, outOffset;
    std::string transitionType;

    // Stack, Track, SerializableCollection: the children, as item indexes.
    std::string trackKind;
    std::vector<std::size_t> children;

    // Timeline.
    RationalTime globalStart;  // invalid when null
    std::size_t tracks = kNone;
};

struct Document {
    std::vector<Item> items;
    std::vector<Media> media;
    std::size_t root = kNone;
    // What the reading did not keep, with how often it was met.
    std::map<std::string, int> notes;
    // Fields of another JSON type than their schema's, each a sentence that
    // names the field's path and what was used instead.
    std::vector<std::string> wrongTypes;
    // Children of compositions passed over because they are no objects: the
    // paths of the children.
    std::vector<std::string> passedOver;
    // Times no timeline can hold (not finite, out of range, a rate that is
    // not positive): each a sentence that names the field's path.
    std::vector<std::string> unusableTimes;
};

struct ParseResult {
    bool ok = true;
    std::string error;  // one sentence, when not ok
};

// Reads an .otio file into `doc`.
ParseResult parseFile(const std::string& path, Document& doc);
// The same from text in memory.
ParseResult parseText(std::string_view text, Document& doc);

// Whether a file is JSON whose root object has an "OTIO_SCHEMA" key. Reads no
// further than that key.
bool looksLikeOtio(const std::string& path);

// The class of a schema name: "Clip" for "Clip.2".
std::string_view schemaClass(std::string_view schema);

}  // namespace QvOtio
