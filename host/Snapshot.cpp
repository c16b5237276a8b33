#include "host/Snapshot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <utility>

#include "host/Paths.h"

using json = nlohmann::ordered_json;

namespace Snapshot {

namespace {

constexpr const char* kFormatName = "qvxml-snapshot";
constexpr int kFormatVersion = 1;

struct Failure {
    std::string where, what;
};

// ---- writing ----

json number(double v) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
    return v;
}

std::string narrow(const LightweightString<wchar_t>& s) {
    return toUTF8(s).str();
}

const char* typeName(LogType32 t) {
    switch (t) {
        case kLogTypeShot:
            return "shot";
        case kLogTypeSequence:
            return "sequence";
        case kLogTypeSubclip:
            return "subclip";
        case kLogTypeEffect:
            return "effect";
        default:
            return nullptr;
    }
}

json cookieJson(const Cookie& c) {
    if (!c.isValid()) return nullptr;
    return c.asString().str();
}

json celJson(const CelData& c) {
    json j;
    j["cookie"] = cookieJson(c.cookie);
    j["editIn"] = number(c.editIn);
    j["editOut"] = number(c.editOut);
    j["sourceIn"] = number(c.sourceIn);
    j["sourceOut"] = number(c.sourceOut);
    j["level"] = number(c.level);
    j["levelEnd"] = number(c.levelEnd);
    j["speed"] = number(c.speed);
    if (c.wipeCode >= 0 || c.wipeDirection != eWipeForward)
        j["wipe"] = {{"code", c.wipeCode}, {"direction", static_cast<int>(c.wipeDirection)}};
    if (!c.alternates.empty()) {
        json alts = json::array();
        for (const CelAlternate& a : c.alternates)
            alts.push_back({{"cookie", cookieJson(a.cookie)}, {"offset", a.offset}});
        j["alternates"] = alts;
    }
    return j;
}

json editJson(const Edit& e) {
    json j;
    j["cookie"] = cookieJson(e.cookie);
    j["name"] = narrow(e.name);
    if (const char* t = typeName(e.logType))
        j["type"] = t;
    else
        j["type"] = e.logType;
    j["frameRate"] = static_cast<int>(e.frameRate);
    j["sourceFrameRate"] = static_cast<int>(e.sourceFrameRate);
    j["rate"] = number(e.rate);
    j["length"] = number(e.length);
    j["sourceMedium"] = e.sourceMedium;
    if (!e.mediaPath.empty() || !e.historicLocator.empty())
        j["media"] = {{"path", narrow(e.mediaPath)},
                      {"historicLocator", narrow(e.historicLocator)}};
    j["trackOriginFilename"] = e.trackOriginFilename.str();
    j["reels"] = {{"video", e.videoReelId.str()},
                  {"audio", e.audioReelId.str()},
                  {"film", e.filmReelId.str()},
                  {"labRoll", e.labRollId.str()}};
    json log = json::object();
    for (const auto& [key, value] : e.config)
        log[key] = value.str();
    j["log"] = log;
    json labels = json::array();
    for (const EditLabel& l : e.labels)
        labels.push_back(l.make_keep_string(nullptr).str());
    j["labels"] = labels;
    const ShotVideoMetadata& m = e.videoMetadata;
    j["videoMetadata"] = {{"width", m.getWidth()},
                          {"height", m.getHeight()},
                          {"aspect", static_cast<int>(m.getAspectRatio())},
                          {"scan", static_cast<int>(m.getScanMode())},
                          {"frameRate", static_cast<int>(m.getFrameRate())},
                          {"format", m.getFormat()},
                          {"bitDepth", m.getBitDepth()},
                          {"formatUID", m.getFormatUID()},
                          {"sequenceDataSet", m.getVideoSequenceDataSet()}};
    j["audioSampleRate"] = number(e.audioSampleRate);
    j["audioInputSampleRate"] = {{"base", static_cast<int>(e.audioInputSampleRate.base())},
                                 {"factor", static_cast<int>(e.audioInputSampleRate.factor())}};
    j["resamplingFactor"] = static_cast<int>(e.resamplingFactor);
    j["sequence"] = e.sequence;
    j["frameBased"] = e.frameBased;
    j["transfer"] = e.transfer;
    j["sourceMediumDuration"] = number(e.sourceMediumDuration);
    j["excludedFromExport"] = e.excludedFromExport;
    json cues = json::array();
    for (const Ced2Cue& c : e.cues) {
        cues.push_back({{"name", narrow(c.name)},
                        {"comment", narrow(c.comment)},
                        {"colour", c.colour},
                        {"in", number(c.in)},
                        {"out", c.out == kCueOpenEnd ? json(nullptr) : number(c.out)},
                        {"type", c.type},
                        {"flags", c.flags}});
    }
    j["cues"] = cues;
    json channels = json::array();
    for (const StoredChannel& ch : e.channels) {
        json c;
        c["index"] = ch.index;
        c["type"] = ch.type == kChanVideo   ? json("video")
                    : ch.type == kChanAudio ? json("audio")
                                            : json(ch.type);
        c["name"] = ch.name.str();
        c["hasTrackLevels"] = ch.hasTrackLevels;
        json levels = json::array();
        for (const LevelData& l : ch.levels)
            levels.push_back({{"position", number(l.position)}, {"value", number(l.value)}});
        c["levels"] = levels;
        json cels = json::array();
        for (const CelData& cel : ch.cels)
            cels.push_back(celJson(cel));
        c["cels"] = cels;
        channels.push_back(c);
    }
    j["channels"] = channels;
    return j;
}

// ---- reading ----

class Reader {
  public:
    Reader(EditStore& store, std::string base) : store_(store), base_(std::move(base)) {}

    void read(const json& root) {
        if (!root.is_object()) fail("", "a snapshot is a JSON object");
        if (root.contains("format") && root["format"] != kFormatName)
            fail("format", "is not \"" + std::string(kFormatName) + "\"");
        if (root.contains("version")) {
            int v = integer(root["version"], "version");
            if (v > kFormatVersion)
                fail("version", "snapshot version " + std::to_string(v) +
                                    " is newer than this program reads (" +
                                    std::to_string(kFormatVersion) + ")");
        }
        if (root.contains("seed")) store_.reseed(unsignedNumber(root["seed"], "seed"));
        const json& edits = root.contains("edits") ? root["edits"] : json::array();
        if (!edits.is_array()) fail("edits", "must be a list");
        // First every edit with its identity, so that cels may name edits
        // that come later in the list.
        for (size_t i = 0; i < edits.size(); ++i) {
            path_ = "edits[" + std::to_string(i) + "]";
            edits_.push_back(readEdit(edits[i]));
        }
        for (size_t i = 0; i < edits.size(); ++i) {
            path_ = "edits[" + std::to_string(i) + "]";
            readChannels(edits[i], *edits_[i]);
        }
        for (size_t i = 0; i < edits.size(); ++i) {
            path_ = "edits[" + std::to_string(i) + "]";
            readCels(edits[i], *edits_[i]);
        }
    }

    std::vector<Qv::Ptr<Edit>> edits_;

  private:
    [[noreturn]] void fail(const std::string& field, const std::string& what) {
        std::string where = path_;
        if (!field.empty()) where += (where.empty() ? "" : ".") + field;
        throw Failure{where, what};
    }

    double real(const json& v, const std::string& field) {
        if (v.is_number()) return v.get<double>();
        if (v.is_string()) {
            std::string s = v.get<std::string>();
            if (s == "nan") return std::nan("");
            if (s == "inf") return INFINITY;
            if (s == "-inf") return -INFINITY;
        }
        fail(field, "must be a number");
    }
    long long integer(const json& v, const std::string& field) {
        if (v.is_number_integer()) return v.get<long long>();
        if (v.is_number_float()) {
            double d = v.get<double>();
            if (d == std::floor(d) && std::fabs(d) < 9e15) return static_cast<long long>(d);
        }
        fail(field, "must be a whole number");
    }
    std::uint64_t unsignedNumber(const json& v, const std::string& field) {
        if (v.is_number_unsigned()) return v.get<std::uint64_t>();
        long long n = integer(v, field);
        if (n < 0) fail(field, "must not be negative");
        return static_cast<std::uint64_t>(n);
    }
    std::string text(const json& v, const std::string& field) {
        if (v.is_null()) return {};
        if (!v.is_string()) fail(field, "must be text");
        return v.get<std::string>();
    }
    bool flag(const json& v, const std::string& field) {
        if (!v.is_boolean()) fail(field, "must be true or false");
        return v.get<bool>();
    }
    template <typename F>
    void ifPresent(const json& j, const char* key, F f) {
        if (j.contains(key) && !j[key].is_null()) f(j[key]);
    }

    // A rate: its enumeration value, or plain text such as "25" or "29.97".
    Qv::FrameRate frameRate(const json& v, const std::string& field) {
        if (v.is_number_integer()) {
            auto r = static_cast<Qv::FrameRate>(v.get<int>());
            if (r != Qv::eFrameRateNone && !Qv::isKnownFrameRate(r))
                fail(field, "is no known frame rate");
            return r;
        }
        std::string s = text(v, field);
        int count;
        const Qv::FrameRate* rates = Qv::allFrameRates(count);
        for (int i = 0; i < count; ++i)
            if (toUTF8(Qv::getPlainString(rates[i])).str() == s) return rates[i];
        char* end = nullptr;
        double fps = std::strtod(s.c_str(), &end);
        if (end && *end == '\0') {
            Qv::FrameRate r = Qv::getEquivalentQvFrameRate(fps);
            if (r != Qv::eFrameRateNone) return r;
        }
        fail(field, "\"" + s + "\" is no known frame rate");
    }

    Cookie cookie(const json& v, const std::string& field) {
        Cookie c(fromUTF8(text(v, field).c_str()), false);
        if (!c.isValid()) fail(field, "\"" + text(v, field) + "\" is not a cookie");
        return c;
    }

    LogType32 logType(const json& v) {
        if (v.is_number_integer()) return static_cast<LogType32>(v.get<long long>());
        std::string t = text(v, "type");
        if (t == "shot") return kLogTypeShot;
        if (t == "sequence") return kLogTypeSequence;
        if (t == "subclip") return kLogTypeSubclip;
        if (t == "effect") return kLogTypeEffect;
        fail("type", "\"" + t + "\" is none of shot, sequence, subclip, effect");
    }

    EditLabel label(const json& v, const std::string& field) {
        if (v.is_string()) {
            EditLabel l(v.get<std::string>().c_str());
            if (!l.is_valid()) fail(field, "\"" + v.get<std::string>() + "\" is no label");
            return l;
        }
        if (!v.is_object() || !v.contains("timecode") || !v.contains("rate"))
            fail(field, "a label is its text, or an object with timecode and rate");
        Qv::FrameRate r = frameRate(v["rate"], field + ".rate");
        bool df = v.contains("dropFrame") && flag(v["dropFrame"], field + ".dropFrame");
        std::string tc = text(v["timecode"], field + ".timecode");
        EditLabel l = editLabFrom(tc.c_str(), Qv::Image::eScanProgressive, r, df);
        if (!l.is_valid()) fail(field, "\"" + tc + "\" is no timecode at that rate");
        return l;
    }

    // The audio enumerations hold only the values they name: any other would
    // not be a value of the type at all.
    Aud::eBaseSampleRate baseSampleRate(long long v, const std::string& field) {
        if (v < Aud::eBaseNone || v > Aud::eBase96000)
            fail(field, std::to_string(v) + " is no sample rate base (0 to " +
                            std::to_string(Aud::eBase96000) + ")");
        return static_cast<Aud::eBaseSampleRate>(v);
    }
    Aud::eFactor sampleRateFactor(long long v, const std::string& field) {
        if (v < Aud::eFactorNone || v > Aud::eFactorHalf)
            fail(field, std::to_string(v) + " is no sample rate factor (0 to " +
                            std::to_string(Aud::eFactorHalf) + ")");
        return static_cast<Aud::eFactor>(v);
    }

    unsigned colour(const json& v, const std::string& field) {
        if (v.is_string()) {
            std::string s = v.get<std::string>();
            if (s.size() == 7 && s[0] == '#') {
                char* end = nullptr;
                unsigned long c = std::strtoul(s.c_str() + 1, &end, 16);
                if (end && *end == '\0') return static_cast<unsigned>(c);
            }
            fail(field, "a colour is a number or \"#RRGGBB\"");
        }
        return static_cast<unsigned>(unsignedNumber(v, field));
    }

    LightweightString<wchar_t> mediaPath(const std::string& p) {
        if (p.empty()) return {};
        LightweightString<wchar_t> w = fromUTF8(p.c_str());
        if (p[0] == '/' || locator_IsURL(w) || base_.empty()) return w;
        return joinPath(pathFromBytes(base_), w);
    }

    Qv::Ptr<Edit> readEdit(const json& j) {
        if (!j.is_object()) fail("", "an edit is a JSON object");
        Cookie id = j.contains("cookie") && !j["cookie"].is_null() ? cookie(j["cookie"], "cookie")
                                                                   : store_.newEditCookie();
        Qv::Ptr<Edit> e(new Edit(id));
        ifPresent(j, "name", [&](const json& v) { e->name = fromUTF8(text(v, "name").c_str()); });
        ifPresent(j, "type", [&](const json& v) { e->logType = logType(v); });
        ifPresent(j, "frameRate", [&](const json& v) { e->frameRate = frameRate(v, "frameRate"); });
        ifPresent(j, "sourceFrameRate",
                  [&](const json& v) { e->sourceFrameRate = frameRate(v, "sourceFrameRate"); });
        ifPresent(j, "rate", [&](const json& v) {
            e->rate = v.is_string() && !(v == "nan" || v == "inf" || v == "-inf")
                          ? Qv::getFramesPerSecond(frameRate(v, "rate"))
                          : real(v, "rate");
        });
        if (e->rate == 0 && e->frameRate != Qv::eFrameRateNone)
            e->rate = Qv::getFramesPerSecond(e->frameRate);
        ifPresent(j, "length", [&](const json& v) { e->length = real(v, "length"); });
        ifPresent(j, "sourceMedium", [&](const json& v) {
            e->sourceMedium = static_cast<int>(integer(v, "sourceMedium"));
        });
        ifPresent(j, "media", [&](const json& v) {
            if (v.is_string()) {
                e->mediaPath = mediaPath(v.get<std::string>());
                return;
            }
            ifPresent(v, "path",
                      [&](const json& p) { e->mediaPath = mediaPath(text(p, "media.path")); });
            ifPresent(v, "historicLocator", [&](const json& p) {
                e->historicLocator = fromUTF8(text(p, "media.historicLocator").c_str());
            });
        });
        ifPresent(j, "trackOriginFilename",
                  [&](const json& v) { e->trackOriginFilename = text(v, "trackOriginFilename"); });
        ifPresent(j, "reels", [&](const json& v) {
            ifPresent(v, "video", [&](const json& r) { e->videoReelId = text(r, "reels.video"); });
            ifPresent(v, "audio", [&](const json& r) { e->audioReelId = text(r, "reels.audio"); });
            ifPresent(v, "film", [&](const json& r) { e->filmReelId = text(r, "reels.film"); });
            ifPresent(v, "labRoll",
                      [&](const json& r) { e->labRollId = text(r, "reels.labRoll"); });
        });
        ifPresent(j, "log", [&](const json& v) {
            if (!v.is_object()) fail("log", "must be an object of texts");
            for (auto it = v.begin(); it != v.end(); ++it)
                e->setConfig(it.key(), text(it.value(), "log." + it.key()));
        });
        ifPresent(j, "labels", [&](const json& v) {
            if (!v.is_array()) fail("labels", "must be a list");
            if (v.size() > CED2::kMaxLabels) fail("labels", "an edit holds at most 10 labels");
            for (size_t i = 0; i < v.size(); ++i)
                e->labels.push_back(label(v[i], "labels[" + std::to_string(i) + "]"));
        });
        ifPresent(j, "videoMetadata",
                  [&](const json& v) { readVideoMetadata(v, e->videoMetadata); });
        ifPresent(j, "audioSampleRate",
                  [&](const json& v) { e->audioSampleRate = real(v, "audioSampleRate"); });
        ifPresent(j, "audioInputSampleRate", [&](const json& v) {
            if (!v.is_object()) fail("audioInputSampleRate", "must be an object");
            long long base =
                v.contains("base") ? integer(v["base"], "audioInputSampleRate.base") : 0;
            long long factor =
                v.contains("factor") ? integer(v["factor"], "audioInputSampleRate.factor") : 1;
            e->audioInputSampleRate =
                Aud::SampleRate(baseSampleRate(base, "audioInputSampleRate.base"),
                                sampleRateFactor(factor, "audioInputSampleRate.factor"));
        });
        ifPresent(j, "resamplingFactor", [&](const json& v) {
            e->resamplingFactor =
                sampleRateFactor(integer(v, "resamplingFactor"), "resamplingFactor");
        });
        ifPresent(j, "sequence",
                  [&](const json& v) { e->sequence = static_cast<int>(integer(v, "sequence")); });
        ifPresent(j, "frameBased", [&](const json& v) { e->frameBased = flag(v, "frameBased"); });
        ifPresent(j, "transfer",
                  [&](const json& v) { e->transfer = static_cast<int>(integer(v, "transfer")); });
        ifPresent(j, "sourceMediumDuration", [&](const json& v) {
            e->sourceMediumDuration = real(v, "sourceMediumDuration");
        });
        ifPresent(j, "excludedFromExport",
                  [&](const json& v) { e->excludedFromExport = flag(v, "excludedFromExport"); });
        ifPresent(j, "cues", [&](const json& v) {
            if (!v.is_array()) fail("cues", "must be a list");
            for (size_t i = 0; i < v.size(); ++i)
                e->cues.push_back(readCue(v[i], "cues[" + std::to_string(i) + "]"));
        });
        return e;
    }

    void readVideoMetadata(const json& v, ShotVideoMetadata& m) {
        if (!v.is_object()) fail("videoMetadata", "must be an object");
        auto get = [&](const char* key, long long def) {
            return v.contains(key) ? integer(v[key], std::string("videoMetadata.") + key) : def;
        };
        if (v.contains("formatUID")) {
            m.setFormatUID(static_cast<unsigned>(get("formatUID", 0)));
            const auto& info =
                Qv::DigitalVideoFormats::findByUID(Qv::Image::FormatUID(m.getFormatUID()));
            m.setSize(info.width, info.height);
            m.setAspectRatio(info.aspect);
        }
        m.setSize(static_cast<int>(get("width", m.getWidth())),
                  static_cast<int>(get("height", m.getHeight())));
        m.setAspectRatio(static_cast<Qv::Image::AspectRatio>(get("aspect", m.getAspectRatio())));
        m.setScanMode(static_cast<Qv::Image::ScanMode>(get("scan", m.getScanMode())));
        if (v.contains("frameRate"))
            m.setFrameRate(frameRate(v["frameRate"], "videoMetadata.frameRate"));
        m.setFormat(static_cast<Qv::Image::Format>(get("format", m.getFormat())));
        m.setBitDepth(static_cast<unsigned short>(get("bitDepth", m.getBitDepth())));
        if (v.contains("sequenceDataSet"))
            m.setVideoSequenceDataSet(flag(v["sequenceDataSet"], "videoMetadata.sequenceDataSet"));
    }

    Ced2Cue readCue(const json& v, const std::string& field) {
        if (!v.is_object()) fail(field, "a marker is an object");
        Ced2Cue c;
        ifPresent(v, "name",
                  [&](const json& x) { c.name = fromUTF8(text(x, field + ".name").c_str()); });
        ifPresent(v, "comment", [&](const json& x) {
            c.comment = fromUTF8(text(x, field + ".comment").c_str());
        });
        ifPresent(v, "colour", [&](const json& x) { c.colour = colour(x, field + ".colour"); });
        ifPresent(v, "in", [&](const json& x) { c.in = real(x, field + ".in"); });
        c.out = kCueOpenEnd;
        ifPresent(v, "out", [&](const json& x) { c.out = real(x, field + ".out"); });
        ifPresent(v, "type", [&](const json& x) {
            c.type = static_cast<EditChanType>(integer(x, field + ".type"));
        });
        ifPresent(v, "flags", [&](const json& x) {
            c.flags = static_cast<unsigned>(integer(x, field + ".flags"));
        });
        return c;
    }

    // An edit named in a cel: by cookie text or by name, among the snapshot's
    // edits first and then the store's.
    Qv::Ptr<Edit> target(const std::string& nameOrCookie) {
        Cookie c(fromUTF8(nameOrCookie.c_str()), false);
        LightweightString<wchar_t> name = fromUTF8(nameOrCookie.c_str());
        for (const Qv::Ptr<Edit>& e : edits_)
            if ((c.isValid() && e->cookie.sameIdentity(c)) || e->name == name) return e;
        if (c.isValid())
            if (Qv::Ptr<Edit> e = store_.find(c)) return e;
        return store_.findByName(name);
    }

    bool known(const Cookie& c) const {
        for (const Qv::Ptr<Edit>& e : edits_)
            if (e->cookie.sameIdentity(c)) return true;
        return static_cast<bool>(store_.find(c));
    }

    // What a cel plays: its cookie, a magic name, or a source edit and channel.
    Cookie celCookie(const json& j, const std::string& field, EditChanType chanType) {
        if (j.contains("cookie") && !j["cookie"].is_null()) {
            Cookie c = cookie(j["cookie"], field + ".cookie");
            if (!c.isMagic() && !known(c))
                warnings_.push_back(path_ + "." + field + ".cookie: \"" + text(j["cookie"], field) +
                                    "\" names no edit of the snapshot or the project");
            return c;
        }
        if (j.contains("magic")) {
            std::string m = text(j["magic"], field + ".magic");
            bool video = chanType == kChanVideo;
            if (m == "black" || m == "silence") return video ? video_black : audio_black;
            if (m == "dissolve") return video ? video_dissolve : audio_dissolve;
            if (m == "wipe") return video_wipe;
            fail(field + ".magic", "\"" + m + "\" is none of black, silence, dissolve, wipe");
        }
        if (j.contains("source")) {
            const json& s = j["source"];
            std::string name = s.is_string()
                                   ? s.get<std::string>()
                                   : text(s.value("edit", json()), field + ".source.edit");
            Qv::Ptr<Edit> e = target(name);
            if (!e) fail(field + ".source", "no edit is named \"" + name + "\"");
            long long ch = -1;
            if (s.is_object() && s.contains("channel"))
                ch = integer(s["channel"], field + ".source.channel");
            const StoredChannel* sc = nullptr;
            if (ch >= 0) {
                sc = e->findChannel(static_cast<unsigned>(ch));
            } else {
                for (const StoredChannel& c : e->channels)
                    if (c.type == chanType) {
                        sc = &c;
                        break;
                    }
            }
            if (!sc && ch < 0)
                fail(field + ".source", "\"" + name + "\" has no channel of this kind");
            unsigned index = sc ? sc->index : static_cast<unsigned>(ch);
            EditChanType t = sc ? sc->type : chanType;
            CookieType type =
                e->isShot() ? (t == kChanVideo ? kCookieVideo : kCookieSound) : kCookieEdit;
            return convertCookie(e->cookie, type, static_cast<unsigned char>(index));
        }
        return invalid_cookie;
    }

    // Channels come in two passes: first every edit's channels, so that a cel
    // may name a channel of an edit further down the list, then the cels.
    void readChannels(const json& j, Edit& e) {
        if (!j.contains("channels")) return;
        const json& chans = j["channels"];
        if (!chans.is_array()) fail("channels", "must be a list");
        for (size_t i = 0; i < chans.size(); ++i) {
            std::string field = "channels[" + std::to_string(i) + "]";
            const json& c = chans[i];
            if (!c.is_object()) fail(field, "a channel is an object");
            StoredChannel sc;
            sc.index = c.contains("index")
                           ? static_cast<unsigned>(integer(c["index"], field + ".index"))
                           : static_cast<unsigned>(i);
            if (c.contains("type")) {
                const json& t = c["type"];
                if (t == "video")
                    sc.type = kChanVideo;
                else if (t == "audio")
                    sc.type = kChanAudio;
                else if (t.is_number_integer())
                    sc.type = t.get<int>();
                else
                    fail(field + ".type", "is neither video nor audio");
            }
            ifPresent(c, "name", [&](const json& v) { sc.name = text(v, field + ".name"); });
            ifPresent(c, "hasTrackLevels", [&](const json& v) {
                sc.hasTrackLevels = flag(v, field + ".hasTrackLevels");
            });
            e.channels.push_back(std::move(sc));
        }
    }

    void readCels(const json& j, Edit& e) {
        if (!j.contains("channels")) return;
        const json& chans = j["channels"];
        for (size_t i = 0; i < chans.size(); ++i) {
            std::string field = "channels[" + std::to_string(i) + "]";
            const json& c = chans[i];
            StoredChannel& sc = e.channels[i];
            ifPresent(c, "levels", [&](const json& v) {
                if (!v.is_array()) fail(field + ".levels", "must be a list");
                for (size_t k = 0; k < v.size(); ++k) {
                    std::string lf = field + ".levels[" + std::to_string(k) + "]";
                    LevelData l;
                    ifPresent(v[k], "position",
                              [&](const json& x) { l.position = real(x, lf + ".position"); });
                    ifPresent(v[k], "value", [&](const json& x) {
                        l.value = narrowToFloat(real(x, lf + ".value"));
                    });
                    sc.levels.push_back(l);
                }
            });
            ifPresent(c, "cels", [&](const json& v) {
                if (!v.is_array()) fail(field + ".cels", "must be a list");
                for (size_t k = 0; k < v.size(); ++k)
                    sc.cels.push_back(
                        readCel(v[k], field + ".cels[" + std::to_string(k) + "]", sc.type));
            });
            // A shot's channel without cels plays its own material whole.
            if (e.isShot() && !c.contains("cels")) {
                CelData d;
                d.cookie =
                    convertCookie(e.cookie, sc.type == kChanVideo ? kCookieVideo : kCookieSound,
                                  static_cast<unsigned char>(sc.index));
                d.editOut = d.sourceOut = e.length;
                sc.cels.push_back(d);
            }
        }
    }

    CelData readCel(const json& j, const std::string& field, EditChanType chanType) {
        if (!j.is_object()) fail(field, "a cel is an object");
        CelData d;
        d.cookie = celCookie(j, field, chanType);
        ifPresent(j, "editIn", [&](const json& v) { d.editIn = real(v, field + ".editIn"); });
        ifPresent(j, "editOut", [&](const json& v) { d.editOut = real(v, field + ".editOut"); });
        ifPresent(j, "sourceIn", [&](const json& v) { d.sourceIn = real(v, field + ".sourceIn"); });
        d.sourceOut = d.sourceIn + (d.editOut - d.editIn);
        ifPresent(j, "sourceOut",
                  [&](const json& v) { d.sourceOut = real(v, field + ".sourceOut"); });
        ifPresent(j, "level", [&](const json& v) {
            d.level = d.levelEnd = narrowToFloat(real(v, field + ".level"));
        });
        ifPresent(j, "levelEnd",
                  [&](const json& v) { d.levelEnd = narrowToFloat(real(v, field + ".levelEnd")); });
        ifPresent(j, "speed",
                  [&](const json& v) { d.speed = narrowToFloat(real(v, field + ".speed")); });
        ifPresent(j, "wipe", [&](const json& v) {
            d.wipeCode =
                v.contains("code") ? static_cast<int>(integer(v["code"], field + ".wipe.code")) : 0;
            d.wipeDirection =
                v.contains("direction") && integer(v["direction"], field + ".wipe.direction") == 1
                    ? eWipeReverse
                    : eWipeForward;
        });
        ifPresent(j, "alternates", [&](const json& v) {
            if (!v.is_array()) fail(field + ".alternates", "must be a list");
            for (size_t k = 0; k < v.size(); ++k) {
                std::string af = field + ".alternates[" + std::to_string(k) + "]";
                CelAlternate a;
                a.cookie = celCookie(v[k], af, chanType);
                if (v[k].contains("offset"))
                    a.offset = static_cast<int>(integer(v[k]["offset"], af + ".offset"));
                d.alternates.push_back(a);
            }
        });
        return d;
    }

    EditStore& store_;
    std::string base_;
    std::string path_;

  public:
    std::vector<std::string> warnings_;
};

// Line and column (from 1, columns in bytes) of a place in a text.
std::string lineAndColumn(const std::string& text, std::size_t at) {
    at = std::min(at, text.size());
    std::size_t line = 1, lineStart = 0;
    for (std::size_t i = 0; i < at; ++i)
        if (text[i] == '\n') {
            ++line;
            lineStart = i + 1;
        }
    return "line " + std::to_string(line) + ", column " + std::to_string(at - lineStart + 1);
}

// Where the text first nests deeper than kMaxNesting, or npos. The parser
// would follow such nesting with its own stack; the question is settled
// before it starts.
std::size_t tooDeep(const std::string& text) {
    int depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxNesting) return i;
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return std::string::npos;
}

Result failure(std::string error) {
    Result r;
    r.ok = false;
    r.error = std::move(error);
    return r;
}

}  // namespace

std::string dump(const EditStore& store) {
    json root;
    root["format"] = kFormatName;
    root["version"] = kFormatVersion;
    root["seed"] = store.generatorState();
    json edits = json::array();
    for (const Qv::Ptr<Edit>& e : store.edits())
        edits.push_back(editJson(*e));
    root["edits"] = edits;
    // Texts that came from a document are not always UTF-8: their stray bytes
    // are written as U+FFFD rather than stopping the dump.
    return root.dump(2, ' ', false, json::error_handler_t::replace) + "\n";
}

Result load(EditStore& store, const std::string& text, const std::string& baseDirectory) {
    if (std::size_t at = tooDeep(text); at != std::string::npos)
        return failure("the snapshot nests deeper than " + std::to_string(kMaxNesting) +
                       " levels (" + lineAndColumn(text, at) + "), which no snapshot does");
    json root;
    try {
        root = json::parse(text);
    } catch (const json::parse_error& e) {
        return failure("the file is not valid JSON (" +
                       lineAndColumn(text, e.byte > 0 ? e.byte - 1 : 0) + ")");
    } catch (const json::exception&) {
        // The parser's only other complaint: a number past what a double holds.
        return failure("the file holds a number too large to read");
    }
    std::uint64_t seed = store.generatorState();
    Reader reader(store, baseDirectory);
    try {
        reader.read(root);
    } catch (const Failure& f) {
        store.reseed(seed);
        return failure((f.where.empty() ? "" : f.where + ": ") + f.what);
    } catch (const json::exception& e) {
        store.reseed(seed);
        return failure(e.what());
    }
    for (const Qv::Ptr<Edit>& e : reader.edits_)
        store.add(e);
    Result r;
    r.warnings = std::move(reader.warnings_);
    return r;
}

Result loadFile(EditStore& store, const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return failure("cannot read \"" + path + "\"");
    std::stringstream buffer;
    buffer << in.rdbuf();
    // Media paths in the snapshot are relative to its folder, made absolute
    // so that the store's media paths are.
    LightweightString<wchar_t> file = pathFromBytes(path);
    if (!file.startsWith(L"/"))
        file = joinPath(pathFromBytes(std::filesystem::current_path().native()), file);
    return load(store, buffer.str(), pathBytes(getPath(file)));
}

namespace {

// Stops at the root's "format" key once its value is read.
class FormatProbe : public json::json_sax_t {
  public:
    bool null() override { return value(); }
    bool boolean(bool) override { return value(); }
    bool number_integer(number_integer_t) override { return value(); }
    bool number_unsigned(number_unsigned_t) override { return value(); }
    bool number_float(number_float_t, const string_t&) override { return value(); }
    bool string(string_t& v) override {
        if (atFormat_) found = v == kFormatName;
        return value();
    }
    bool binary(binary_t&) override { return value(); }
    bool start_object(std::size_t) override {
        atFormat_ = false;
        return ++depth_ < kMaxNesting;
    }
    bool end_object() override {
        --depth_;
        return true;
    }
    bool start_array(std::size_t) override {
        atFormat_ = false;
        // A root array is no snapshot.
        return depth_ > 0 && ++depth_ < kMaxNesting;
    }
    bool end_array() override {
        --depth_;
        return true;
    }
    bool key(string_t& k) override {
        atFormat_ = depth_ == 1 && k == "format";
        // An OpenTimelineIO document is no snapshot: no need to read it all.
        return !(depth_ == 1 && k == "OTIO_SCHEMA");
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }
    bool found = false;

  private:
    // False once the format's value is read: the parse ends there.
    bool value() { return !std::exchange(atFormat_, false); }
    int depth_ = 0;
    bool atFormat_ = false;
};

}  // namespace

bool isSnapshotFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    FormatProbe probe;
    json::sax_parse(in, &probe);
    return probe.found;
}

Result saveFile(const EditStore& store, const std::string& path) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    if (!out) return failure("cannot write \"" + path + "\"");
    out << dump(store);
    out.close();
    if (!out) return failure("could not finish writing \"" + path + "\"");
    return {};
}

}  // namespace Snapshot
