// info: what is in a timeline and where its media is.
#include "app/commands/Info.h"

#include <sys/stat.h>

#include <fstream>
#include <nlohmann/json.hpp>

#include "app/commands/Commands.h"
#include "app/conform/LossReport.h"
#include "app/output/Batch.h"
#include "app/pipeline/AroundPlugin.h"
#include "app/pipeline/Text.h"
#include "host/Snapshot.h"

namespace qvapp {

namespace {

using nlohmann::json;

// A snapshot is JSON whose "format" says so: most say it first, others
// anywhere among the root's keys.
bool isSnapshot(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    char head[512] = {};
    in.read(head, sizeof head - 1);
    std::string text(head, static_cast<std::size_t>(in.gcount()));
    std::size_t at = text.find_first_not_of(" \t\r\n");
    return at != std::string::npos && text[at] == '{' &&
           (text.find("\"qvxml-snapshot\"") != std::string::npos || Snapshot::isSnapshotFile(path));
}

std::string pad(const std::string& s, std::size_t width) {
    // Widths count characters, not bytes, for names in any script.
    std::size_t chars = 0;
    for (unsigned char c : s)
        chars += (c & 0xC0) != 0x80;
    return chars >= width ? s : s + std::string(width - chars, ' ');
}

std::string colourText(unsigned colour) {
    char text[16];
    std::snprintf(text, sizeof text, "#%06X", colour & 0xFFFFFF);
    return text;
}

std::string speedText(double speed) {
    char text[32];
    std::snprintf(text, sizeof text, "%g%%", speed * 100.0);
    return text;
}

}  // namespace

json infoJson(const DocumentInfo& d) {
    json media = json::array();
    for (const MediaInfo& m : d.media) {
        json j = {{"name", m.name},     {"status", m.status},
                  {"path", m.path},     {"locator", m.locator},
                  {"mapped", m.mapped}, {"seconds", m.seconds},
                  {"video", m.video},   {"width", m.width},
                  {"height", m.height}, {"audioChannels", m.audioChannels},
                  {"uses", m.uses}};
        if (m.status == "offline") {
            j["why"] = m.why;
            j["lookedIn"] = m.lookedIn;
        }
        media.push_back(std::move(j));
    }
    json sequences = json::array();
    for (const SequenceInfo& s : d.sequences) {
        json tracks = json::array(), clips = json::array(), transitions = json::array(),
             markers = json::array(), gaps = json::array();
        for (const TrackInfo& t : s.tracks)
            tracks.push_back({{"name", t.name},
                              {"kind", t.video ? "video" : "audio"},
                              {"clips", t.clips},
                              {"transitions", t.transitions},
                              {"gaps", t.gaps},
                              {"levels", t.levels}});
        for (const ClipInfo& c : s.clips) {
            json j = {{"track", s.tracks[static_cast<std::size_t>(c.track)].name},
                      {"name", c.name},
                      {"kind", c.kind},
                      {"recordIn", s.timecode(c.recordIn)},
                      {"recordOut", s.timecode(c.recordOut)},
                      {"start", c.recordIn},
                      {"end", c.recordOut},
                      {"sourceIn", c.sourceIn},
                      {"sourceOut", c.sourceOut},
                      {"speed", c.speed},
                      {"multiAngle", c.multiAngle},
                      {"offline", c.offline}};
            j["media"] = c.media >= 0 ? json(c.media) : json(nullptr);
            clips.push_back(std::move(j));
        }
        for (const TransitionInfo& t : s.transitions)
            transitions.push_back({{"track", s.tracks[static_cast<std::size_t>(t.track)].name},
                                   {"kind", t.kind},
                                   {"recordIn", s.timecode(t.recordIn)},
                                   {"start", t.recordIn},
                                   {"end", t.recordOut}});
        for (const GapInfo& g : s.gaps)
            gaps.push_back({{"track", s.tracks[static_cast<std::size_t>(g.track)].name},
                            {"start", g.recordIn},
                            {"end", g.recordOut}});
        for (const MarkerInfo& m : s.markers) {
            json j = {{"name", m.name},
                      {"comment", m.comment},
                      {"timecode", s.timecode(m.in)},
                      {"frame", m.in},
                      {"colour", colourText(m.colour)}};
            j["end"] = m.out >= 0 ? json(m.out) : json(nullptr);
            markers.push_back(std::move(j));
        }
        sequences.push_back({{"name", s.name},
                             {"rate", s.rate},
                             {"start", s.timecode(0)},
                             {"duration", s.length(s.duration)},
                             {"frames", s.duration},
                             {"counts",
                              {{"videoTracks", s.videoTracks()},
                               {"audioTracks", s.audioTracks()},
                               {"clips", s.clips.size()},
                               {"transitions", s.transitions.size()},
                               {"gaps", s.gaps.size()},
                               {"markers", s.markers.size()},
                               {"speedChanges", s.speedChanges},
                               {"media", s.media.size()}}},
                             {"tracks", tracks},
                             {"clips", clips},
                             {"transitions", transitions},
                             {"gaps", gaps},
                             {"markers", markers},
                             {"media", std::vector<int>(s.media.begin(), s.media.end())}});
    }
    json losses = json::object();
    for (const auto& [kind, n] : d.losses)
        losses[kind] = n;
    return {{"path", d.path},
            {"format", d.format},
            {"sequences", sequences},
            {"media", media},
            {"nestedReferences", d.nestedReferences},
            {"losses", losses}};
}

std::string infoText(const DocumentInfo& d, bool clips, bool mediaList, bool markers) {
    // Names, paths and locators come from documents: each is shown, never
    // obeyed by a terminal.
    std::string t = shown(d.path) + " (" + d.format + ")\n";
    if (d.sequences.empty()) t += "  no sequences\n";
    for (const SequenceInfo& s : d.sequences) {
        t += "  sequence " + shown(inQuotes(s.name)) + "  " + s.rate + " fps  starts " +
             s.timecode(0) + "  lasts " + s.length(s.duration) + "\n";
        int offline = 0;
        for (int m : s.media)
            offline += d.media[static_cast<std::size_t>(m)].status == "offline";
        t += "    " + counted(s.videoTracks(), "video track") + ", " +
             counted(s.audioTracks(), "audio track") + "; " +
             counted(static_cast<long>(s.clips.size()), "clip") + ", " +
             counted(static_cast<long>(s.transitions.size()), "transition") + ", " +
             counted(static_cast<long>(s.gaps.size()), "gap") + ", " +
             counted(static_cast<long>(s.markers.size()), "marker") + ", " +
             counted(s.speedChanges, "speed change") + "\n";
        t += "    " + counted(static_cast<long>(s.media.size()), "media file") +
             (offline ? ", " + std::to_string(offline) + " offline" : "") + "\n";
        if (clips && !s.clips.empty()) {
            t += "    clips:\n";
            for (const ClipInfo& c : s.clips) {
                t += "      " + pad(shown(s.tracks[static_cast<std::size_t>(c.track)].name), 4) +
                     s.timecode(c.recordIn) + " " + s.timecode(c.recordOut) + "  " +
                     pad(c.sourceIn.empty() ? "" : c.sourceIn + " " + c.sourceOut, 24) +
                     shown(inQuotes(c.name));
                if (c.speed != 1) t += "  speed " + speedText(c.speed);
                if (c.kind != "shot") t += "  (" + c.kind + ")";
                if (c.multiAngle) t += "  (multi-angle)";
                if (c.offline) t += "  OFFLINE";
                t += "\n";
            }
        }
        if (markers && !s.markers.empty()) {
            t += "    markers:\n";
            for (const MarkerInfo& m : s.markers) {
                t += "      " + s.timecode(m.in) + "  " + shown(inQuotes(m.name));
                if (!m.comment.empty()) t += "  " + shown(m.comment);
                if (m.colour) t += "  " + colourText(m.colour);
                t += "\n";
            }
        }
    }
    if (d.nestedReferences)
        t += "  " + counted(d.nestedReferences, "use", "uses") +
             " of a sequence defined elsewhere, without tracks of its own\n";
    int counts[4] = {};
    const char* statuses[] = {"imported", "found", "linked", "offline"};
    for (const MediaInfo& m : d.media)
        for (int i = 0; i < 4; ++i)
            counts[i] += m.status == statuses[i];
    t += "  media: " + counted(static_cast<long>(d.media.size()), "file") + ": " +
         std::to_string(counts[0]) + " imported, " + std::to_string(counts[1]) + " found, " +
         std::to_string(counts[2]) + " linked, " + std::to_string(counts[3]) + " offline\n";
    if (mediaList) {
        for (const MediaInfo& m : d.media) {
            t += "    " + pad(m.status, 9) + shown(inQuotes(m.name));
            if (!m.path.empty()) t += "  " + shown(m.path);
            if (m.mapped) t += "  (mapped)";
            t += "\n";
            if (m.status == "offline") {
                t += "             " + shown(m.why);
                if (!m.locator.empty()) t += "; named " + shown(m.locator);
                t += "\n";
                for (const std::string& place : m.lookedIn)
                    t += "             looked in " + shown(place) + "\n";
            }
        }
    }
    return t;
}

Outcome Commands::readForLooking(const std::string& input, std::vector<Qv::Ptr<Edit>>& sequences,
                                 std::string& format, bool lenient) {
    struct stat st;
    if (::stat(input.c_str(), &st) != 0)
        return Outcome(kExitUnreadable,
                       "cannot read " + inQuotes(input) + ": there is no such file");
    if (isSnapshot(input)) {
        format = "snapshot";
        Snapshot::Result loaded = Snapshot::loadFile(EditStore::current(), input);
        if (!loaded.ok) return Outcome(kExitUnknownDocument, inQuotes(input) + ": " + loaded.error);
        mapSnapshotLocators();
        for (const Qv::Ptr<Edit>& e : EditStore::current().edits())
            if (e->logType == kLogTypeSequence) sequences.push_back(e);
        return {};
    }
    // The shots keep the locators their document gave, so that what was
    // moved by --map-path can be told; only what is written is moved.
    if (Outcome r = importDocuments({input}, sequences, lenient); !r.ok()) return r;
    format = formats_.back();
    return {};
}

Outcome Commands::lookAt(const std::string& input, bool lenient, DocumentInfo& d) {
    EditStore project;
    ScopedCurrentStore scope(project);
    std::vector<Qv::Ptr<Edit>> sequences;
    std::string format;
    if (Outcome r = readForLooking(input, sequences, format, lenient); !r.ok()) return r;
    // Times that cannot be trusted are not described as if they could be.
    if (!untrusted_.empty() && !lenient)
        return Outcome(kExitUntrusted, inQuotes(input) +
                                           " cannot be trusted: times are wrong or lost (see the "
                                           "warnings above; --lenient reads it all the same)");
    d = describe(sequences, {}, input, format, resolutionsFrom(console_->takeInfoLines()));
    if (format != "snapshot" && !read_.empty()) d.losses = read_.back().counts();
    return {};
}

Outcome Commands::infoDocument(const std::string& input, const Options& o, std::string& text) {
    DocumentInfo d;
    if (Outcome r = lookAt(input, o.lenient, d); !r.ok()) return r;
    text = o.json ? infoJson(d).dump(2, ' ', false, nlohmann::json::error_handler_t::replace)
                  : infoText(d, o.listClips, o.listMedia, o.listMarkers);
    return {};
}

Outcome Commands::info(const Options& o) {
    if (o.inputs.empty()) return Outcome(kExitUsage, "say which documents to look at");
    std::vector<std::string> texts(o.inputs.size());
    std::vector<int> status(o.inputs.size(), kExitOK);
    if (o.inputs.size() == 1) {
        status[0] = guardedJob(o.inputs[0], err_, [&] {
                        return tell(infoDocument(o.inputs[0], o, texts[0]));
                    }).status();
    } else {
        Batch batch(Batch::jobsFor(o.jobs, o.inputs.size()), "reading",
                    o.verbosity != Verbosity::Quiet);
        std::vector<JobResult> results = batch.run(
            o.inputs,
            [&](std::size_t i, std::FILE* out, std::FILE* err) {
                Commands job = jobOf(o, out, err);
                Outcome looked = job.tell(job.infoDocument(o.inputs[i], o, texts[i]));
                // Text goes out in order as the jobs end; JSON as one
                // document at the end.
                if (looked.ok() && !o.json) std::fputs(texts[i].c_str(), out);
                return looked;
            },
            !o.json);
        for (std::size_t i = 0; i < results.size(); ++i) {
            status[i] = results[i].status;
            if (o.json) std::fputs(results[i].err.c_str(), stderr);
        }
    }
    int result = kExitOK, failed = 0;
    for (int s : status)
        if (s != kExitOK) {
            ++failed;
            if (result == kExitOK) result = s;
        }
    if (o.json) {
        std::string all = "{\"qvxml\": \"info\", \"version\": 1, \"documents\": [";
        bool first = true;
        for (std::size_t i = 0; i < texts.size(); ++i) {
            if (status[i] != kExitOK) continue;
            all += (first ? "\n" : ",\n") + texts[i];
            first = false;
        }
        all += "\n]}\n";
        std::fputs(all.c_str(), out_);
    } else if (o.inputs.size() == 1 && status[0] == kExitOK) {
        std::fputs(texts[0].c_str(), out_);
    }
    std::fflush(out_);
    if (o.inputs.size() > 1 && (failed || o.verbosity != Verbosity::Quiet))
        std::fprintf(err_, "qvxml: read %zu of %s%s\n", o.inputs.size() - failed,
                     counted(static_cast<long>(o.inputs.size()), "document").c_str(),
                     failed ? ("; " + std::to_string(failed) + " failed").c_str() : "");
    // Each document's failure was told as its job ended.
    return Outcome::told(result);
}

}  // namespace qvapp
