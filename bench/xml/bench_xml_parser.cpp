// Speed of the XML reader over large xmeml-like documents, made in memory:
// building a parser over the whole document, the readers' level-by-level
// pattern as it was (a new parser for each track and each clip item) and as
// it is (sections of the one index), and libxml2 parsing the same bytes into
// a tree, as a baseline. All report bytes of the
// document per second; the sizes show whether the cost is linear.
#include <benchmark/benchmark.h>
#include <libxml/parser.h>

#include <cstdio>
#include <map>
#include <memory>
#include <string>

#include "host/XMLParser.h"

namespace {

// A deterministic xmeml-like document of about `target` bytes: one sequence
// with video and audio tracks full of clip items, each with the usual leaves,
// a rate, a file with its media description, links and a filter.
std::string makeDocument(std::size_t target) {
    std::string doc;
    doc.reserve(target + 4096);
    doc +=
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE xmeml>\n<xmeml version=\"4\">\n"
        "<sequence id=\"sequence-1\" explodedTracks=\"true\">\n"
        "\t<uuid>5ea30a6b-552f-4722-be92-6dfdb66c97e6</uuid>\n\t<duration>1000000</duration>\n"
        "\t<rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>\n\t<name>Long &amp; busy</name>\n"
        "\t<media>\n";
    const int tracksPerKind = 8;
    const std::size_t perTrack = target / (2 * tracksPerKind);
    char buffer[2048];
    int item = 0;
    for (const char* kind : {"video", "audio"}) {
        doc += "\t\t<";
        doc += kind;
        doc += ">\n";
        for (int t = 0; t < tracksPerKind; ++t) {
            std::size_t trackEnd = doc.size() + perTrack;
            doc += "\t\t\t<track TL.SQTrackShy=\"0\" MZ.TrackTargeted=\"1\">\n";
            for (int frame = 0; doc.size() < trackEnd; frame += 50) {
                ++item;
                std::snprintf(
                    buffer, sizeof buffer,
                    "\t\t\t\t<clipitem id=\"clipitem-%d\" frameBlend=\"FALSE\">\n"
                    "\t\t\t\t\t<masterclipid>masterclip-%d</masterclipid>\n"
                    "\t\t\t\t\t<name>shot_%04d_take%d.mov</name>\n"
                    "\t\t\t\t\t<enabled>TRUE</enabled>\n\t\t\t\t\t<duration>%d</duration>\n"
                    "\t\t\t\t\t<rate>\n\t\t\t\t\t\t<timebase>25</timebase>\n"
                    "\t\t\t\t\t\t<ntsc>FALSE</ntsc>\n\t\t\t\t\t</rate>\n"
                    "\t\t\t\t\t<start>%d</start>\n\t\t\t\t\t<end>%d</end>\n"
                    "\t\t\t\t\t<in>%d</in>\n\t\t\t\t\t<out>%d</out>\n"
                    "\t\t\t\t\t<file id=\"file-%d\">\n"
                    "\t\t\t\t\t\t<name>shot_%04d_take%d.mov</name>\n"
                    "\t\t\t\t\t\t<pathurl>file://localhost/Volumes/Media/R&amp;D/"
                    "shot_%04d_take%d.mov</pathurl>\n"
                    "\t\t\t\t\t\t<rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>\n"
                    "\t\t\t\t\t\t<duration>%d</duration>\n"
                    "\t\t\t\t\t\t<timecode><string>01:00:00:00</string><frame>90000</frame>"
                    "<displayformat>NDF</displayformat></timecode>\n"
                    "\t\t\t\t\t\t<media><video><samplecharacteristics><width>1920</width>"
                    "<height>1080</height></samplecharacteristics></video>"
                    "<audio><channelcount>2</channelcount></audio></media>\n"
                    "\t\t\t\t\t</file>\n"
                    "\t\t\t\t\t<filter><effect><name>Opacity</name><effectid>opacity</effectid>"
                    "<parameter><parameterid>opacity</parameterid><value>100</value></parameter>"
                    "</effect></filter>\n"
                    "\t\t\t\t\t<link><linkclipref>clipitem-%d</linkclipref>"
                    "<mediatype>video</mediatype><trackindex>1</trackindex></link>\n"
                    "\t\t\t\t\t<!-- item %d -->\n"
                    "\t\t\t\t</clipitem>\n",
                    item, item, item % 1000, item % 7, 50, frame, frame + 50, 10 + item % 13,
                    60 + item % 13, item, item % 1000, item % 7, item % 1000, item % 7, 500, item,
                    item);
                doc += buffer;
            }
            doc += "\t\t\t</track>\n";
        }
        doc += "\t\t</";
        doc += kind;
        doc += ">\n";
    }
    doc += "\t</media>\n</sequence>\n</xmeml>\n";
    return doc;
}

const std::string& document(std::size_t megabytes) {
    static std::map<std::size_t, std::string> made;
    auto it = made.find(megabytes);
    if (it == made.end()) it = made.emplace(megabytes, makeDocument(megabytes << 20)).first;
    return it->second;
}

void BM_XMLParser_Construct(benchmark::State& state) {
    const std::string& doc = document(static_cast<std::size_t>(state.range(0)));
    for (auto _ : state) {
        XMLParser parser(doc.c_str(), static_cast<int>(doc.size()));
        benchmark::DoNotOptimize(&parser);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * doc.size()));
}

// What a reader does: the document, its tracks, and for each track its own
// clip items, each with a parser of its own asked for a few leaves.
void BM_XMLParser_Nested(benchmark::State& state) {
    const std::string& doc = document(static_cast<std::size_t>(state.range(0)));
    std::size_t items = 0;
    for (auto _ : state) {
        XMLParser parser(doc.c_str(), -1);
        for (const auto& track : parser.getSections("track")) {
            XMLParser trackParser(track.text.c_str(), -1);
            for (const auto& item : trackParser.getSections_TopLevel("clipitem")) {
                XMLParser itemParser(item.text.c_str(), -1);
                for (const char* leaf : {"name", "in", "out", "start", "end"}) {
                    XMLParser::Value v = itemParser.getValue(leaf, 0);
                    benchmark::DoNotOptimize(v.text.c_str());
                }
                ++items;
            }
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * doc.size()));
    state.counters["items"] =
        benchmark::Counter(static_cast<double>(items) / static_cast<double>(state.iterations()));
}

// What the readers do now: one index of the document, and sections of it
// for its tracks, their clip items and what the items hold, so that nothing
// is copied or scanned twice.
void BM_XMLParser_Sections(benchmark::State& state) {
    const std::string& doc = document(static_cast<std::size_t>(state.range(0)));
    std::size_t items = 0;
    for (auto _ : state) {
        XMLParser parser(doc.c_str(), static_cast<int>(doc.size()));
        for (unsigned t = 0, tracks = parser.count("track"); t < tracks; ++t) {
            std::unique_ptr<XMLParser> track = parser.section("track", t);
            if (!track) continue;
            for (const std::unique_ptr<XMLParser>& item : track->sections_TopLevel("clipitem")) {
                if (!item) continue;
                for (const char* leaf : {"name", "in", "out", "start", "end"}) {
                    LightweightString<char> text = item->getText(leaf, 0);
                    benchmark::DoNotOptimize(text.c_str());
                }
                if (std::unique_ptr<XMLParser> rate = item->section("rate", 0))
                    benchmark::DoNotOptimize(rate->getText("timebase", 0).c_str());
                benchmark::DoNotOptimize(item->getAttributes("file", 0).size());
                ++items;
            }
        }
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * doc.size()));
    state.counters["items"] =
        benchmark::Counter(static_cast<double>(items) / static_cast<double>(state.iterations()));
}

void BM_libxml2_ReadMemory(benchmark::State& state) {
    const std::string& doc = document(static_cast<std::size_t>(state.range(0)));
    xmlInitParser();
    for (auto _ : state) {
        xmlDocPtr tree = xmlReadMemory(doc.data(), static_cast<int>(doc.size()), "bench.xml",
                                       nullptr, XML_PARSE_NONET | XML_PARSE_HUGE);
        if (!tree) state.SkipWithError("libxml2 did not parse the document");
        xmlFreeDoc(tree);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * doc.size()));
}

}  // namespace

// Document sizes in MB. From 40 MB on the document no longer fits in the last
// level cache, which shows in the figures as a step, not as a slope.
void sizes(benchmark::internal::Benchmark* b) {
    for (int megabytes : {10, 20, 40, 80})
        b->Arg(megabytes);
    b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_XMLParser_Construct)->Apply(sizes);
BENCHMARK(BM_XMLParser_Nested)->Apply(sizes);
BENCHMARK(BM_XMLParser_Sections)->Apply(sizes);
BENCHMARK(BM_libxml2_ReadMemory)->Apply(sizes);

BENCHMARK_MAIN();
