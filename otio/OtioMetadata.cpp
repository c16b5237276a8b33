#include "otio/OtioMetadata.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace QvOtio {

using ordered = nlohmann::ordered_json;
using json = nlohmann::json;

namespace {

struct LogField {
    const char* key;
    LightweightString<char> CED2::*field;
};
const LogField kLogFields[] = {{"scene", &CED2::sceneTxt},
                               {"description", &CED2::descriptionTxt},
                               {"notes", &CED2::notesTxt},
                               {"shot", &CED2::shotTxt},
                               {"who", &CED2::whoTxt}};
const LogField kReelFields[] = {{"video", &CED2::reelId},
                                {"audio", &CED2::audioReelId},
                                {"film", &CED2::camReelId},
                                {"labRoll", &CED2::labRollId}};

struct ColourName {
    const char* name;
    unsigned int rgb;
};
// OpenTimelineIO's marker colours, with the colour each stands for here.
const ColourName kColours[] = {
    {"RED", 0xFF0000},     {"PINK", 0xFFC0CB},  {"ORANGE", 0xFFA500}, {"YELLOW", 0xFFFF00},
    {"GREEN", 0x00FF00},   {"CYAN", 0x00FFFF},  {"BLUE", 0x0000FF},   {"PURPLE", 0x800080},
    {"MAGENTA", 0xFF00FF}, {"BLACK", 0x000000}, {"WHITE", 0xFFFFFF},
};

bool isInt(const json* v) {
    return v && (v->is_number_integer() || v->is_number_unsigned());
}

int intOf(const json& object, const char* key, int fallback) {
    auto it = object.find(key);
    if (it == object.end() || !isInt(&*it)) return fallback;
    std::int64_t v = it->get<std::int64_t>();
    return v < INT32_MIN || v > INT32_MAX ? fallback : static_cast<int>(v);
}

}  // namespace

void writeRecordFields(const CED2& record, ordered& into, bool mediaFields) {
    if (record.labelCount > 0) {
        ordered labels = ordered::array();
        for (int i = 0; i < record.labelCount; ++i)
            if (record.labels[i].is_valid())
                labels.push_back(record.labels[i].make_keep_string(nullptr).str());
        if (!labels.empty()) into["labels"] = labels;
    }
    ordered log = ordered::object();
    for (const LogField& f : kLogFields)
        if (!(record.*f.field).empty()) log[f.key] = (record.*f.field).str();
    if (!log.empty()) into["log"] = log;
    ordered reels = ordered::object();
    for (const LogField& f : kReelFields)
        if (!(record.*f.field).empty()) reels[f.key] = (record.*f.field).str();
    if (!reels.empty()) into["reels"] = reels;
    if (!mediaFields) return;
    if (record.audioSampleRateSet) into["audioSampleRate"] = record.audioSampleRate;
    if (record.shotVideoMetadataSet) {
        const ShotVideoMetadata& m = record.shotVideoMetadata;
        ordered v = ordered::object();
        v["width"] = m.getWidth();
        v["height"] = m.getHeight();
        v["aspect"] = static_cast<int>(m.getAspectRatio());
        v["scan"] = static_cast<int>(m.getScanMode());
        v["frameRate"] = static_cast<int>(m.getFrameRate());
        v["format"] = m.getFormat();
        v["bitDepth"] = m.getBitDepth();
        v["formatUID"] = m.getFormatUID();
        v["sequenceDataSet"] = m.getVideoSequenceDataSet();
        into["videoMetadata"] = v;
    }
}

void readRecordFields(const json& from, CED2& record, std::vector<std::string>& problems) {
    if (!from.is_object()) return;
    if (auto it = from.find("labels"); it != from.end() && it->is_array()) {
        record.labelCount = 0;
        for (const json& text : *it) {
            EditLabel label(text.is_string() ? text.get_ref<const std::string&>().c_str() : "");
            if (!label.is_valid()) {
                problems.push_back("labels that are no timecode labels");
                continue;
            }
            if (!record.addLabel(label)) problems.push_back("labels beyond the tenth");
        }
        if (record.labelCount > 0) {
            record.primaryLabel = record.labels[0];
            record.primaryLabelSet = true;
        }
    }
    auto texts = [&](const char* key, const LogField* fields, size_t count) {
        auto it = from.find(key);
        if (it == from.end() || !it->is_object()) return;
        for (size_t i = 0; i < count; ++i) {
            auto v = it->find(fields[i].key);
            if (v != it->end() && v->is_string())
                record.*fields[i].field = v->get_ref<const std::string&>();
        }
    };
    texts("log", kLogFields, std::size(kLogFields));
    texts("reels", kReelFields, std::size(kReelFields));
    if (auto it = from.find("audioSampleRate"); it != from.end() && it->is_number()) {
        record.audioSampleRate = it->get<double>();
        record.audioSampleRateSet = true;
    }
    if (auto it = from.find("videoMetadata"); it != from.end() && it->is_object()) {
        const json& v = *it;
        ShotVideoMetadata m;
        m.setSize(intOf(v, "width", 0), intOf(v, "height", 0));
        m.setAspectRatio(static_cast<Qv::Image::AspectRatio>(intOf(v, "aspect", 0)));
        m.setScanMode(static_cast<Qv::Image::ScanMode>(intOf(v, "scan", 0)));
        Qv::FrameRate rate = static_cast<Qv::FrameRate>(intOf(v, "frameRate", 0));
        m.setFrameRate(Qv::isKnownFrameRate(rate) ? rate : Qv::eFrameRateNone);
        m.setFormat(static_cast<Qv::Image::Format>(intOf(v, "format", 0)));
        m.setBitDepth(static_cast<unsigned short>(intOf(v, "bitDepth", 0) & 0xFFFF));
        m.setFormatUID(static_cast<unsigned int>(intOf(v, "formatUID", 0)));
        auto set = v.find("sequenceDataSet");
        m.setVideoSequenceDataSet(set != v.end() && set->is_boolean() && set->get<bool>());
        record.shotVideoMetadata = m;
        record.shotVideoMetadataSet = true;
    }
}

ordered cueToJson(const Ced2Cue& cue) {
    ordered c = ordered::object();
    c["name"] = toUTF8(cue.name).str();
    c["comment"] = toUTF8(cue.comment).str();
    c["colour"] = colourText(cue.colour);
    c["in"] = cue.in;
    c["out"] = cue.out >= kCueOpenEnd ? ordered() : ordered(cue.out);
    c["type"] = cue.type;
    c["flags"] = cue.flags;
    return c;
}

bool cueFromJson(const json& from, Ced2Cue& cue) {
    if (!from.is_object()) return false;
    auto text = [&](const char* key) {
        auto it = from.find(key);
        return it != from.end() && it->is_string() ? fromUTF8(it->get<std::string>().c_str())
                                                   : LightweightString<wchar_t>();
    };
    cue.name = text("name");
    cue.comment = text("comment");
    unsigned int rgb = 0;
    if (auto it = from.find("colour"); it != from.end() && it->is_string())
        colourFromText(it->get<std::string>(), rgb);
    cue.colour = rgb;
    auto in = from.find("in");
    if (in == from.end() || !in->is_number()) return false;
    cue.in = in->get<double>();
    auto out = from.find("out");
    cue.out = out != from.end() && out->is_number() ? out->get<double>() : kCueOpenEnd;
    cue.type = intOf(from, "type", kChanVideo);
    cue.flags = static_cast<unsigned int>(intOf(from, "flags", 0));
    return true;
}

const char* markerColourName(unsigned int rgb, bool& exact) {
    const ColourName* best = &kColours[0];
    long bestDistance = std::numeric_limits<long>::max();
    for (const ColourName& c : kColours) {
        long distance = 0;
        for (int shift : {16, 8, 0}) {
            long d = static_cast<long>((rgb >> shift) & 0xFF) -
                     static_cast<long>((c.rgb >> shift) & 0xFF);
            distance += d * d;
        }
        if (distance < bestDistance) {
            bestDistance = distance;
            best = &c;
        }
    }
    exact = bestDistance == 0 && (rgb >> 24) == 0;
    return best->name;
}

bool markerColourValue(const std::string& name, unsigned int& rgb) {
    for (const ColourName& c : kColours) {
        if (name == c.name) {
            rgb = c.rgb;
            return true;
        }
    }
    return false;
}

std::string colourText(unsigned int rgb) {
    char text[16];
    if (rgb >> 24)
        std::snprintf(text, sizeof text, "#%08X", rgb);
    else
        std::snprintf(text, sizeof text, "#%06X", rgb);
    return text;
}

bool colourFromText(const std::string& text, unsigned int& rgb) {
    if (text.size() < 2 || text[0] != '#' || text.size() > 9) return false;
    unsigned int v = 0;
    for (size_t i = 1; i < text.size(); ++i) {
        char c = text[i];
        int digit = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
        if (digit < 0) return false;
        v = v << 4 | static_cast<unsigned int>(digit);
    }
    rgb = v;
    return true;
}

const char* chanTypeName(EditChanType type) {
    return type == kChanVideo ? "video" : type == kChanAudio ? "audio" : "other";
}

EditChanType chanTypeOf(const std::string& name) {
    return name == "video" ? kChanVideo : name == "audio" ? kChanAudio : 0;
}

}  // namespace QvOtio
