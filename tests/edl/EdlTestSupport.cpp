#include "tests/edl/EdlTestSupport.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "edl/EdlReader.h"
#include "tests/support/TestSupport.h"

namespace qvedl {

using json = nlohmann::json;

std::string corpus() {
    std::string dir = QVXML_CORPUS;
    return qvtest::exists(dir + "/edl") ? dir : std::string();
}

bool havePython() {
    return std::string(QVXML_PYTHON).size() > 0;
}

json pythonReading(const std::string& file, Qv::FrameRate rate) {
    char fps[32];
    std::snprintf(fps, sizeof fps, "%.17g", Qv::getFramesPerSecond(rate));
    return qvtest::scriptReading(
        qvtest::shellQuote(QVXML_PYTHON) + " " + qvtest::shellQuote(QVXML_EDL_READING) + " " +
        qvtest::shellQuote(file) + " " + std::to_string(Qv::getTicksPerSecond(rate)) + " " + fps);
}

XML::ImportResult readText(const std::string& text, Qv::FrameRate rate, LoggerHandle log) {
    QvEdl::List list = QvEdl::parseList(text);
    Qv::Ptr<QvEdl::EdlReader> reader(new QvEdl::EdlReader(log));
    Qv::Ptr<ImportFileInfoRep> info(new ImportFileInfoRep({L"/nonexistent/list.edl"}));
    QvEdl::ReadOptions options;
    options.rate = rate;
    return reader->importList(list, info, options, log);
}

XML::ImportResult readFile(const std::string& path, Qv::FrameRate rate, LoggerHandle log) {
    QvEdl::ReadOptions options;
    options.rate = rate;
    std::string error;
    XML::ImportResult r = QvEdl::importEdlFile(fromUTF8(path.c_str()), options, log, error);
    if (r.status != 1) ADD_FAILURE() << path << ": " << error;
    return r;
}

std::vector<QvEdl::WrittenList> write(const Cookie& edit, const QvEdl::ExportOptions& options,
                                      LoggerHandle log) {
    std::vector<QvEdl::WrittenList> lists;
    std::string error;
    int status = QvEdl::writeEdl(edit, options, log, lists, error);
    if (status != 1) ADD_FAILURE() << "writeEdl gave " << status << " " << error;
    return lists;
}

std::string listText(const Cookie& edit, const std::string& trackName,
                     const QvEdl::ExportOptions& options) {
    for (const QvEdl::WrittenList& l : write(edit, options))
        if (trackName.empty() || l.track == trackName) return l.text;
    ADD_FAILURE() << "no list for " << trackName;
    return {};
}

const StoredChannel* track(const Qv::Ptr<Edit>& edit, const std::string& name) {
    int video = 0, audio = 0;
    std::vector<const StoredChannel*> videos;
    for (const StoredChannel& ch : edit->channels) {
        if (ch.type == kChanVideo) {
            videos.insert(videos.begin(), &ch);  // V1 is the last video channel
        } else if (name == "A" + std::to_string(++audio)) {
            return &ch;
        }
    }
    for (const StoredChannel* ch : videos)
        if (name == "V" + std::to_string(++video)) return ch;
    return nullptr;
}

json storeReading(const Qv::Ptr<Edit>& sequence) {
    EditStore& store = EditStore::current();
    unsigned ticks = Qv::getTicksPerSecond(sequence->frameRate);
    EditLabel label = sequence->getVideoTimecodeLabel();
    json tracks = json::object();
    int audio = 0;
    for (const StoredChannel& ch : sequence->channels) {
        std::string name = ch.type == kChanVideo ? "V1" : "A" + std::to_string(++audio);
        json items = json::array();
        for (const CelData& c : ch.cels) {
            json item = {{"start", std::llround(c.editIn * ticks)},
                         {"end", std::llround(c.editOut * ticks)}};
            if (c.cookie.isBlack()) {
                item["kind"] = "black";
            } else if (c.cookie.isMagic()) {
                bool wipe = ch.type == kChanVideo && c.wipeCode >= 0;
                item["kind"] = wipe ? "wipe" : "dissolve";
                if (wipe) {
                    item["code"] = c.wipeCode;
                    item["reverse"] = c.wipeDirection == eWipeReverse;
                }
            } else {
                Qv::Ptr<Edit> shot = store.find(c.cookie);
                item["kind"] = "clip";
                item["reel"] = shot ? shot->videoReelId.str() : std::string("?");
                EditLabel tc = shot ? shot->getVideoTimecodeLabel() : EditLabel();
                double origin = 0;
                if (tc.is_valid())
                    origin = static_cast<double>(tc.get_start()) * ticks /
                             Qv::getTicksPerSecond(tc.get_rate());
                item["source"] = origin + c.sourceIn * ticks;
                item["speed"] = static_cast<double>(c.speed);
            }
            items.push_back(item);
        }
        tracks[name] = items;
    }
    json start = label.is_valid() ? json(label.get_start()) : json(0);
    return {{"start", start}, {"tracks", tracks}};
}

::testing::AssertionResult sameReading(const json& expected, const json& actual) {
    if (!expected.is_object() || !actual.is_object())
        return ::testing::AssertionFailure() << "no reading";
    if (expected["start"] != actual["start"])
        return ::testing::AssertionFailure()
               << "the list starts at " << actual["start"] << ", not " << expected["start"];
    const json& want = expected["tracks"];
    const json& got = actual["tracks"];
    for (auto it = want.begin(); it != want.end(); ++it)
        if (!got.contains(it.key()))
            return ::testing::AssertionFailure() << "no track " << it.key();
    for (auto it = got.begin(); it != got.end(); ++it) {
        if (!want.contains(it.key()))
            return ::testing::AssertionFailure() << "a track " << it.key() << " too many";
        const json& w = want[it.key()];
        const json& g = it.value();
        for (std::size_t i = 0; i < std::max(w.size(), g.size()); ++i) {
            if (i >= w.size() || i >= g.size())
                return ::testing::AssertionFailure()
                       << it.key() << " has " << g.size() << " items, not " << w.size();
            const json &a = w[i], &b = g[i];
            auto fail = [&](const char* what) {
                return ::testing::AssertionFailure()
                       << it.key() << " item " << i << ": " << what << "\n  expected " << a.dump()
                       << "\n  read     " << b.dump();
            };
            if (a["kind"] != b["kind"] || a["start"] != b["start"] || a["end"] != b["end"])
                return fail("a different item");
            if (a["kind"] == "clip") {
                if (a["reel"] != b["reel"]) return fail("another reel");
                if (std::fabs(a["source"].get<double>() - b["source"].get<double>()) > 1e-6)
                    return fail("another source");
                if (std::fabs(a["speed"].get<double>() - b["speed"].get<double>()) > 1e-6)
                    return fail("another speed");
            }
            if (a["kind"] == "wipe" && (a["code"] != b["code"] || a["reverse"] != b["reverse"]))
                return fail("another wipe");
        }
    }
    return ::testing::AssertionSuccess();
}

}  // namespace qvedl
