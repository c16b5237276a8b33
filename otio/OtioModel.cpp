#include "otio/OtioModel.h"

#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <unordered_map>

#include "otio/OtioJson.h"

namespace QvOtio {

using json = nlohmann::json;

bool RationalTime::valid() const {
    return rate > 0 && std::isfinite(rate) && std::isfinite(value);
}

std::string_view schemaClass(std::string_view schema) {
    return schema.substr(0, schema.find('.'));
}

namespace {

// Deeper nesting than this is taken for a hostile document.
constexpr std::size_t kMaxDepth = 512;
// Beyond these a time is no time of any timeline: frames past where doubles
// count whole frames, and rates past any sampling rate.
constexpr double kMaxFrames = 9e15;
constexpr double kMaxRate = 1e7;

const json* member(const json& object, const char* name) {
    if (!object.is_object()) return nullptr;
    auto it = object.find(name);
    return it == object.end() ? nullptr : &*it;
}

std::string text(const json& object, const char* name) {
    const json* v = member(object, name);
    return v && v->is_string() ? v->get<std::string>() : std::string();
}

double numberOf(const json* v, double fallback) {
    return v && v->is_number() ? v->get<double>() : fallback;
}

RationalTime rationalOf(const json* v) {
    RationalTime t;
    if (!v || !v->is_object()) return t;
    t.value = numberOf(member(*v, "value"), std::numeric_limits<double>::quiet_NaN());
    t.rate = numberOf(member(*v, "rate"), 0);
    return t;
}

TimeRange rangeOf(const json* v) {
    TimeRange r;
    if (!v || !v->is_object()) return r;
    r.start = rationalOf(member(*v, "start_time"));
    r.duration = rationalOf(member(*v, "duration"));
    return r;
}

json qvxmlOf(const json& object) {
    const json* metadata = member(object, "metadata");
    const json* ours = metadata ? member(*metadata, kNamespace) : nullptr;
    return ours && ours->is_object() ? *ours : json();
}

// Builds the model from the parser's events. Objects are built as JSON until
// they end; an item of a composition then becomes an Item, and its place in
// the parent is taken by a binary value that holds the item's index.
class Builder : public nlohmann::json_sax<json> {
  public:
    explicit Builder(Document& doc) : doc_(doc) {}

    bool null() override { return add(json()); }
    bool boolean(bool v) override { return add(json(v)); }
    bool number_integer(number_integer_t v) override {
        checkTime(static_cast<double>(v));
        return add(json(v));
    }
    bool number_unsigned(number_unsigned_t v) override {
        checkTime(static_cast<double>(v));
        return add(json(v));
    }
    bool number_float(number_float_t v, const string_t&) override {
        checkTime(v);
        return add(json(v));
    }
    bool string(string_t& v) override {
        if (!v.empty() && v[0] == kSpecialNumberMark) {
            double special = v == "\x01NaN"    ? std::numeric_limits<double>::quiet_NaN()
                             : v == "\x01Inf"  ? std::numeric_limits<double>::infinity()
                             : v == "\x01-Inf" ? -std::numeric_limits<double>::infinity()
                                               : 0.0;
            checkTime(special);
            return add(json(special));
        }
        return add(json(std::move(v)));
    }
    bool binary(binary_t&) override { return add(json()); }

    bool start_object(std::size_t) override { return open(json::object()); }
    bool end_object() override { return close(); }
    bool start_array(std::size_t) override { return open(json::array()); }
    bool end_array() override { return close(); }

    bool key(string_t& k) override {
        if (skip_) return true;
        Frame& f = stack_.back();
        if (f.mode == Mode::Metadata && k != kNamespace) {
            ++doc_.notes["metadata \"" + k + "\""];
            // OpenTimelineIO's reading of xmeml names the source channel of
            // an audio clip; that much of its metadata is used.
            if (k == "fcp_xml")
                nextMode_ = Mode::FcpXml;
            else
                skipNext_ = true;
        } else if (f.mode == Mode::FcpXml && k != "sourcetrack") {
            skipNext_ = true;
        }
        f.key = std::move(k);
        return true;
    }

    bool parse_error(std::size_t, const std::string&,
                     const nlohmann::detail::exception& ex) override {
        std::string what = ex.what();
        // "[json.exception.parse_error.101] parse error at line 1, ..."
        if (size_t bracket = what.find("] "); what.rfind("[json", 0) == 0 && bracket != npos)
            what = what.substr(bracket + 2);
        error = "it is not valid JSON (" + what + ")";
        syntaxError = true;
        return false;
    }

    // Called when the parse has ended without error.
    bool finish() {
        if (root_.is_binary()) {
            doc_.root = static_cast<std::size_t>(root_.get_binary().subtype());
            return true;
        }
        if (root_.is_object()) {
            error = "its root object has no \"OTIO_SCHEMA\"";
        } else {
            error = "its root is no OpenTimelineIO object";
        }
        return false;
    }

    std::string error;
    bool syntaxError = false;

  private:
    static constexpr std::size_t npos = std::string::npos;
    // Normal: OpenTimelineIO objects. Metadata: a metadata dictionary, whose
    // namespaces other than ours are skipped. FcpXml: fcp_xml's namespace, of
    // which only the source track is kept. Kept: inside a kept namespace.
    enum class Mode { Normal, Metadata, FcpXml, Kept };
    struct Frame {
        json value;
        std::string key;  // the key whose value comes next, in an object
        Mode mode = Mode::Normal;
        bool children = false;  // the array of a composition's children
    };

    bool open(json value) {
        if (skip_ || skipNext_) {
            ++skip_;
            skipNext_ = false;
            return true;
        }
        if (stack_.size() >= kMaxDepth) {
            error = "it is nested deeper than " + std::to_string(kMaxDepth) + " levels";
            return false;
        }
        Frame f;
        f.value = std::move(value);
        if (!stack_.empty()) {
            const Frame& parent = stack_.back();
            bool inObject = parent.value.is_object();
            if (nextMode_ != Mode::Normal) {
                f.mode = nextMode_;
            } else if (parent.mode != Mode::Normal) {
                f.mode = Mode::Kept;
            } else if (inObject && parent.key == "metadata" && f.value.is_object()) {
                f.mode = Mode::Metadata;
            }
            f.children = f.mode == Mode::Normal && inObject && parent.key == "children" &&
                         f.value.is_array();
        }
        nextMode_ = Mode::Normal;
        stack_.push_back(std::move(f));
        return true;
    }

    bool close() {
        if (skip_) {
            --skip_;
            return true;
        }
        Frame f = std::move(stack_.back());
        stack_.pop_back();
        json value = std::move(f.value);
        if (value.is_object() && f.mode == Mode::Normal) {
            // An object among a composition's children, or the root, is an
            // item whatever its schema.
            bool inChildren = stack_.empty() || stack_.back().children;
            if (std::size_t index = compact(value, inChildren); index != kNone)
                value = json::binary(json::binary_t::container_type(), index);
        }
        return add(std::move(value));
    }

    bool add(json value) {
        if (skip_) return true;
        if (skipNext_) {
            skipNext_ = false;
            return true;
        }
        nextMode_ = Mode::Normal;
        if (stack_.empty()) {
            root_ = std::move(value);
            return true;
        }
        Frame& f = stack_.back();
        if (f.value.is_object()) {
            f.value[f.key] = std::move(value);
        } else {
            f.value.push_back(std::move(value));
        }
        return true;
    }

    // Where the value that comes next stands: keys and indexes from the root,
    // "tracks/children/1/children/2".
    std::string pathHere() const {
        std::string path;
        for (const Frame& f : stack_) {
            if (!path.empty()) path += '/';
            path += f.value.is_object() ? f.key : std::to_string(f.value.size());
        }
        return path;
    }
    std::string pathOf(const char* field) const {
        std::string path = pathHere();
        return path.empty() ? field : path + "/" + field;
    }

    // A value or rate of a time (a RationalTime of a range, an offset or a
    // start) that no timeline can hold.
    void checkTime(double v) {
        if (skip_ || skipNext_ || stack_.size() < 2) return;
        const Frame& time = stack_.back();
        const Frame& owner = stack_[stack_.size() - 2];
        if (time.mode != Mode::Normal || !time.value.is_object() || !owner.value.is_object())
            return;
        bool rate = time.key == "rate";
        if (!rate && time.key != "value") return;
        const std::string& role = owner.key;
        bool duration = role == "duration";
        if (!duration && role != "start_time" && role != "in_offset" && role != "out_offset" &&
            role != "global_start_time")
            return;
        const char* why = nullptr;
        if (std::isnan(v)) {
            why = "is not a number";
        } else if (std::isinf(v)) {
            why = "is infinite";
        } else if (rate && !(v > 0)) {
            why = "is not a rate above 0";
        } else if (rate ? v > kMaxRate : std::fabs(v) > kMaxFrames) {
            why = "is out of range";
        } else if (duration && !rate && v < 0) {
            why = "is a negative duration";
        }
        if (!why) return;
        char text[64];
        std::snprintf(text, sizeof text, "%.17g", v);
        doc_.unusableTimes.push_back("\"" + pathHere() + "\" " + why + " (" + text + ")");
    }

    // A field of an item or reference when it has the type wanted; another
    // type is told with the path of the field and what is used instead. A
    // null stands for a missing field where the schema allows it.
    const json* typed(const json& object, const char* name, bool (json::*is)() const noexcept,
                      const char* wanted, const char* instead, bool nullable = false) {
        const json* v = member(object, name);
        if (!v || (v->*is)()) return v;
        if (nullable && v->is_null()) return nullptr;
        doc_.wrongTypes.push_back("\"" + pathOf(name) + "\" is " + typeName(*v) + ", not " +
                                  wanted + ": " + instead);
        return nullptr;
    }
    static std::string typeName(const json& v) {
        if (v.is_binary()) return "an object";
        if (v.is_null()) return "null";
        if (v.is_number()) return "a number";
        std::string name = v.type_name();
        return (name == "array" || name == "object" ? "an " : "a ") + name;
    }

    // The item index of an object that ended, or kNone when it stays JSON.
    std::size_t compact(json& object, bool inChildren);
    std::size_t mediaOf(const json* reference, const std::string& clipName);
    void readEffects(const json& object, Item& item);
    void readMarkers(const json& object, Item& item);
    std::vector<std::size_t> childrenOf(const json& object, const std::string& owner);

    Document& doc_;
    std::vector<Frame> stack_;
    json root_;
    std::size_t skip_ = 0;
    bool skipNext_ = false;
    Mode nextMode_ = Mode::Normal;
    std::unordered_map<std::string, std::size_t> mediaByKey_;
};

std::size_t Builder::compact(json& object, bool inChildren) {
    const json* schemaValue = member(object, "OTIO_SCHEMA");
    if (!schemaValue || !schemaValue->is_string()) return kNone;
    std::string schema = schemaValue->get<std::string>();
    std::string_view cls = schemaClass(schema);

    Item item;
    item.schema = schema;
    if (cls == "Clip") {
        item.kind = ItemKind::Clip;
    } else if (cls == "Gap" || cls == "Filler") {
        item.kind = ItemKind::Gap;
    } else if (cls == "Transition") {
        item.kind = ItemKind::Transition;
    } else if (cls == "Stack") {
        item.kind = ItemKind::Stack;
    } else if (cls == "Track" || cls == "Sequence") {
        item.kind = ItemKind::Track;
    } else if (cls == "Timeline") {
        item.kind = ItemKind::Timeline;
    } else if (cls == "SerializableCollection") {
        item.kind = ItemKind::Collection;
    } else if (!inChildren) {
        return kNone;  // a marker, effect or media reference: its owner reads it
    }

    if (const json* name = typed(object, "name", &json::is_string, "text", "read as no name"))
        item.name = name->get<std::string>();
    item.sourceRange = rangeOf(
        typed(object, "source_range", &json::is_object, "a time range", "read as none", true));
    if (const json* enabled =
            typed(object, "enabled", &json::is_boolean, "true or false", "read as true"))
        item.enabled = enabled->get<bool>();
    typed(object, "metadata", &json::is_object, "an object", "read as none", true);
    item.qvxml = qvxmlOf(object);
    if (const json* colour = member(object, "color"); colour && !colour->is_null())
        ++doc_.notes["colours of items"];

    switch (item.kind) {
        case ItemKind::Clip: {
            readEffects(object, item);
            readMarkers(object, item);
            const json* refs = typed(object, "media_references", &json::is_object, "an object",
                                     "read as none", true);
            if (refs) {
                std::string active;
                if (const json* key = typed(object, "active_media_reference_key", &json::is_string,
                                            "text", "DEFAULT_MEDIA is used", true))
                    active = key->get<std::string>();
                if (active.empty()) active = "DEFAULT_MEDIA";
                for (auto it = refs->begin(); it != refs->end(); ++it) {
                    if (it.key() == active)
                        item.media = mediaOf(&it.value(), item.name);
                    else
                        item.otherMedia.emplace_back(it.key(), mediaOf(&it.value(), item.name));
                }
            } else {
                item.media = mediaOf(typed(object, "media_reference", &json::is_object, "an object",
                                           "read as none", true),
                                     item.name);
            }
            // fcp_xml's source track, kept by the SAX pass on the way in.
            const json* metadata = member(object, "metadata");
            const json* fcp = metadata ? member(*metadata, "fcp_xml") : nullptr;
            const json* track = fcp ? member(*fcp, "sourcetrack") : nullptr;
            if (track) {
                std::string index = text(*track, "trackindex");
                int n = 0;
                if (std::sscanf(index.c_str(), "%d", &n) == 1 && n > 0 && n < 256)
                    item.sourceTrack = n;
            }
            break;
        }
        case ItemKind::Gap:
            readEffects(object, item);
            readMarkers(object, item);
            break;
        case ItemKind::Transition:
            item.inOffset = rationalOf(member(object, "in_offset"));
            item.outOffset = rationalOf(member(object, "out_offset"));
            if (const json* type = typed(object, "transition_type", &json::is_string, "text",
                                         "read as a dissolve"))
                item.transitionType = type->get<std::string>();
            break;
        case ItemKind::Stack:
        case ItemKind::Track:
            readEffects(object, item);
            readMarkers(object, item);
            if (const json* kind =
                    typed(object, "kind", &json::is_string, "text", "read as a track of no kind"))
                item.trackKind = kind->get<std::string>();
            item.children = childrenOf(object, schema);
            break;
        case ItemKind::Collection:
            item.children = childrenOf(object, schema);
            break;
        case ItemKind::Timeline: {
            item.globalStart = rationalOf(member(object, "global_start_time"));
            const json* tracks = member(object, "tracks");
            if (tracks && tracks->is_binary()) {
                item.tracks = static_cast<std::size_t>(tracks->get_binary().subtype());
            } else if (tracks && !tracks->is_null()) {
                ++doc_.notes["timeline tracks that are no Stack"];
            }
            break;
        }
        case ItemKind::Other:
            ++doc_.notes["objects of the schema " + schema + " where items belong"];
            break;
    }
    doc_.items.push_back(std::move(item));
    return doc_.items.size() - 1;
}

std::vector<std::size_t> Builder::childrenOf(const json& object, const std::string& owner) {
    std::vector<std::size_t> out;
    const json* children =
        typed(object, "children", &json::is_array, "an array", "read as empty", true);
    if (!children) return out;
    out.reserve(children->size());
    for (std::size_t i = 0; i < children->size(); ++i) {
        const json& child = (*children)[i];
        if (child.is_binary()) {
            out.push_back(static_cast<std::size_t>(child.get_binary().subtype()));
        } else {
            ++doc_.notes["children of a " + owner + " that are no OpenTimelineIO objects"];
            doc_.passedOver.push_back(pathOf("children") + "/" + std::to_string(i));
        }
    }
    return out;
}

void Builder::readEffects(const json& object, Item& item) {
    const json* effects =
        typed(object, "effects", &json::is_array, "an array", "read as none", true);
    if (!effects) return;
    for (const json& effect : *effects) {
        std::string schema = text(effect, "OTIO_SCHEMA");
        std::string_view cls = schemaClass(schema);
        const json* enabled = member(effect, "enabled");
        if (enabled && enabled->is_boolean() && !enabled->get<bool>()) continue;
        if (cls == "LinearTimeWarp") {
            item.timeScalar *= numberOf(member(effect, "time_scalar"), 1.0);
        } else if (cls == "FreezeFrame") {
            item.freeze = true;
        } else {
            std::string name = text(effect, "effect_name");
            item.otherEffects.push_back(name.empty() ? schema : name);
        }
    }
}

void Builder::readMarkers(const json& object, Item& item) {
    const json* markers =
        typed(object, "markers", &json::is_array, "an array", "read as none", true);
    if (!markers) return;
    for (const json& m : *markers) {
        if (schemaClass(text(m, "OTIO_SCHEMA")) != "Marker") continue;
        Marker marker;
        marker.name = text(m, "name");
        marker.comment = text(m, "comment");
        marker.color = text(m, "color");
        const json* range = member(m, "marked_range");
        marker.range = rangeOf(range ? range : member(m, "range"));
        marker.qvxml = qvxmlOf(m);
        item.markers.push_back(std::move(marker));
    }
}

std::size_t Builder::mediaOf(const json* reference, const std::string& clipName) {
    Media m;
    if (reference && reference->is_object()) {
        m.schema = text(*reference, "OTIO_SCHEMA");
        std::string_view cls = schemaClass(m.schema);
        m.kind = cls == "ExternalReference"        ? MediaKind::External
                 : cls == "MissingReference"       ? MediaKind::Missing
                 : cls == "GeneratorReference"     ? MediaKind::Generator
                 : cls == "ImageSequenceReference" ? MediaKind::ImageSequence
                                                   : MediaKind::Other;
        m.name = text(*reference, "name");
        m.url = text(*reference, "target_url");
        if (m.kind == MediaKind::ImageSequence) m.url = text(*reference, "target_url_base");
        m.available = rangeOf(member(*reference, "available_range"));
        m.generatorKind = text(*reference, "generator_kind");
        m.qvxml = qvxmlOf(*reference);
    }
    // Copies of one reference are one piece of media: ours by their id and
    // address, others by their address. What names nothing at all is the
    // clip's own.
    std::string id = m.qvxml.is_object() ? text(m.qvxml, "id") : std::string();
    std::string key;
    if (!id.empty() || !m.url.empty()) {
        key = m.schema + '\n' + id + '\n' + m.url;
    } else if (!m.name.empty()) {
        key = m.schema + "\nname\n" + m.name;
    } else {
        key = m.schema + "\nclip\n" + clipName;
    }
    auto [it, fresh] = mediaByKey_.try_emplace(key, doc_.media.size());
    if (fresh) {
        if (m.name.empty() && m.kind != MediaKind::Generator) m.name = clipName;
        doc_.media.push_back(std::move(m));
    }
    return it->second;
}

struct FileCloser {
    void operator()(std::FILE* f) const {
        if (f) std::fclose(f);
    }
};

}  // namespace

namespace {

using File = std::unique_ptr<std::FILE, FileCloser>;

// Parses a document into `doc`; `syntax` tells whether what failed was the
// JSON itself.
template <typename Input>
ParseResult parseInput(Input& input, Document& doc, bool& syntax) {
    ParseResult result;
    Builder builder(doc);
    bool parsed = nlohmann::json::sax_parse(input.begin(), input.end(), &builder);
    syntax = builder.syntaxError;
    if (input.readError()) {
        result.ok = false;
        result.error = "it cannot be read to its end";
        syntax = false;
    } else if (!parsed || !builder.finish()) {
        result.ok = false;
        result.error = builder.error.empty() ? "it is not valid JSON" : builder.error;
    }
    return result;
}

}  // namespace

// Most documents are plain JSON and are read as they stand. One whose JSON
// fails is read again from its start with OpenTimelineIO's words for the
// numbers that are not finite, which also tells a real fault as before.
ParseResult parseFile(const std::string& path, Document& doc) {
    ParseResult result;
    File file(std::fopen(path.c_str(), "rb"));
    bool syntax = false;
    if (file) {
        BlockInput input(file.get());
        result = parseInput(input, doc, syntax);
        if (result.ok || !syntax) return result;
        doc = Document();
        file.reset(std::fopen(path.c_str(), "rb"));
    }
    if (!file) {
        result.ok = false;
        result.error = "it cannot be opened";
        return result;
    }
    OtioInput input(file.get());
    return parseInput(input, doc, syntax);
}

namespace {

// Text in memory as the input iterators of the parser take it.
struct TextInput {
    std::string_view text;
    const char* begin() const { return text.data(); }
    const char* end() const { return text.data() + text.size(); }
    bool readError() const { return false; }
};

}  // namespace

ParseResult parseText(std::string_view text, Document& doc) {
    ParseResult result;
    if (text.empty()) {
        result.ok = false;
        result.error = "it is empty";
        return result;
    }
    bool syntax = false;
    TextInput plain{text};
    result = parseInput(plain, doc, syntax);
    if (result.ok || !syntax) return result;
    doc = Document();
    // The same input path as a file, so that NaN and Inf are read alike.
    File file(::fmemopen(const_cast<char*>(text.data()), text.size(), "rb"));
    if (!file) {
        result.ok = false;
        result.error = "it is empty";
        return result;
    }
    OtioInput input(file.get());
    return parseInput(input, doc, syntax);
}

namespace {

// Stops at the first key of the root object that is "OTIO_SCHEMA".
class SchemaProbe : public nlohmann::json_sax<json> {
  public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override {
        ++depth_;
        return true;
    }
    bool end_object() override {
        --depth_;
        return true;
    }
    bool start_array(std::size_t) override {
        // A root array is no OpenTimelineIO object.
        if (depth_ == 0) return false;
        ++depth_;
        return true;
    }
    bool end_array() override {
        --depth_;
        return true;
    }
    bool key(string_t& k) override {
        if (depth_ == 1 && k == "OTIO_SCHEMA") {
            found = true;
            return false;
        }
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        syntaxError = true;
        return false;
    }
    bool found = false;
    bool syntaxError = false;

  private:
    int depth_ = 0;
};

}  // namespace

bool looksLikeOtio(const std::string& path) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    if (!file) return false;
    // Not JSON at all: say so without parsing.
    int c;
    do {
        c = std::fgetc(file.get());
    } while (c == ' ' || c == '\n' || c == '\r' || c == '\t');
    if (c != '{') return false;
    std::rewind(file.get());
    {
        BlockInput input(file.get());
        SchemaProbe probe;
        nlohmann::json::sax_parse(input.begin(), input.end(), &probe);
        if (probe.found || !probe.syntaxError) return probe.found;
    }
    // NaN or Infinity before the key, perhaps.
    std::rewind(file.get());
    OtioInput input(file.get());
    SchemaProbe probe;
    nlohmann::json::sax_parse(input.begin(), input.end(), &probe);
    return probe.found;
}

}  // namespace QvOtio
