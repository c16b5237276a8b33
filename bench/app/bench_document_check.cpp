// What the command's check of a document costs beside the import itself: the
// well-formedness scan (with its limits), and for QVXML the look at what the
// readers pass over, against the plug-in's import of the same bytes.
//
//   bench_document_check
//
// Each benchmark is one document; its counters give the milliseconds of the
// plain scan, of the scan with the QVXML look (0 for xmeml) and of the
// import, and `share`, the command's check as a part of the import. The
// documents are the corpus's largest xmeml, generated xmeml of 1 and 10 MB,
// the example QVXML cut, generated QVXML laid out as the native writer
// writes it (1 and 10 MB), and 10 MB of it packed without a blank, which
// holds the most elements a megabyte.
#include <benchmark/benchmark.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "app/checks/DocumentCheck.h"
#include "app/checks/WellFormed.h"
#include "bench/xmeml/XmemlGenerator.h"
#include "host/Config.h"
#include "host/Edit.h"
#include "host/OS.h"
#include "import/ImportDriver.h"

namespace {

struct Document {
    std::string label;
    std::string text;
    bool native = false;
};

std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// A QVXML document of about `targetBytes`: shots of three channels, and cuts
// of three channels that play them, with a dissolve and track levels.
std::string generateNative(std::size_t targetBytes) {
    std::string shots, edits;
    auto chan = [](const std::string& name, const std::string& id, const char* type,
                   const std::string& events) {
        return "<Chan><Name>" + name + "</Name><Id>" + id + "</Id><Id>" + id + "</Id><Type>" +
               type + "</Type>" + events + "</Chan>\n";
    };
    auto event = [](const std::string& ref, int in, int out, int offset) {
        return "<CelEvent><Ref magic=\"false\">" + ref +
               "</Ref><Velocity num=\"10000\" den=\"10000\"/><EditIn>" + std::to_string(in) +
               "</EditIn><EditOut>" + std::to_string(out) + "</EditOut><Offset>" +
               std::to_string(offset) + "</Offset></CelEvent>\n";
    };
    int n = 0;
    while (shots.size() + edits.size() < targetBytes) {
        std::string s = std::to_string(n++);
        std::string id = "shot" + s + "-";
        shots += "<Shot><Name>Shot " + s +
                 "</Name><Duration>250</Duration><Rate num=\"250000\" den=\"10000\"/>"
                 "<PrimeReel>A" +
                 s + "</PrimeReel><ChanList>\n";
        for (const char* c : {"V1", "A1", "A2"})
            shots += chan(c, id + c, c[0] == 'V' ? "Video" : "Audio",
                          "<CelEvent><Loc>file://localhost/media/shot%20" + s +
                              ".mov</Loc><Velocity num=\"10000\" den=\"10000\"/><EditIn>0</EditIn>"
                              "<EditOut>250</EditOut><Offset>0</Offset></CelEvent>");
        shots += "</ChanList><Label Str=\"TC 3 NDF 10:00:00:00 103\"/></Shot>\n";
        if (n % 10 != 0) continue;
        // Every tenth shot, a cut of the last ten.
        std::string cut = "<Edit><Name>Cut " + s +
                          "</Name><Duration>1000</Duration><Rate num=\"250000\" den=\"10000\"/>"
                          "<ChanList>\n";
        for (const char* c : {"V1", "A1", "A2"}) {
            std::string events;
            for (int k = 0; k < 10; ++k) {
                std::string ref = "shot" + std::to_string(n - 10 + k) + "-" + c;
                events += event(ref, k * 100, k * 100 + 100, 20);
            }
            std::string levels = c[1] == '2' ? "<Effect><Type>Track levels</Type><Keyframe>"
                                               "<Position>0</Position><Value num=\"10000\" "
                                               "den=\"10000\"/></Keyframe><Keyframe><Position>"
                                               "500</Position><Value num=\"5000\" den=\"10000\"/>"
                                               "</Keyframe></Effect>"
                                             : "";
            cut += chan(c, "cut" + s + "-" + c, c[0] == 'V' ? "Video" : "Audio", events + levels);
        }
        edits += cut + "</ChanList><Label Str=\"TC 3 NDF 01:00:00:00 103\"/></Edit>\n";
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<QVXML Version=\"2.0\">\n" + shots + edits +
           "</QVXML>\n";
}

// The same document laid out as the native writer lays it out: an element
// to a line, indented four blanks a level, a leaf's text on its line.
std::string laidOut(const std::string& compact) {
    std::string out;
    out.reserve(compact.size() * 2);
    int depth = 0;
    bool text = false;  // text stands since the last tag
    for (std::size_t i = 0; i < compact.size(); ++i) {
        char c = compact[i];
        if (c == '\n') continue;
        if (c != '<') {
            out += c;
            text = true;
            continue;
        }
        std::size_t close = compact.find('>', i);
        std::string tag = compact.substr(i, close - i + 1);
        if (tag[1] == '/') {
            --depth;
            if (!text) out += "\n" + std::string(4 * depth, ' ');
        } else {
            if (!out.empty()) out += "\n" + std::string(4 * depth, ' ');
            if (tag[1] != '?' && tag[tag.size() - 2] != '/') ++depth;
        }
        out += tag;
        text = false;
        i = close;
    }
    return out + "\n";
}

const std::vector<Document>& documents() {
    static std::vector<Document> docs = [] {
        std::vector<Document> out;
        std::string corpus = readFile(std::string(QVXML_CORPUS) + "/xmeml/2005.xml");
        if (!corpus.empty()) out.push_back({"xmeml_corpus_2005", corpus, false});
        for (int mb : {1, 10})
            out.push_back({"xmeml_generated_" + std::to_string(mb) + "MB",
                           xmemlbench::generateXmeml(static_cast<std::size_t>(mb) << 20), false});
        out.push_back(
            {"qvxml_example",
             readFile(std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml"), true});
        // As the native writer lays it out, and packed without a blank.
        for (int mb : {1, 10})
            out.push_back({"qvxml_written_" + std::to_string(mb) + "MB",
                           laidOut(generateNative(static_cast<std::size_t>(mb) << 19)), true});
        out.push_back({"qvxml_packed_10MB", generateNative(10u << 20), true});
        return out;
    }();
    return docs;
}

double since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
        .count();
}

void CheckAgainstImport(benchmark::State& state, const Document* doc) {
    prefs().setPreference("Import : Suppress relink existing material", true);
    const LightweightString<wchar_t> path(L"/qvxml-bench/document.xml");
    double scan = 0, audit = 0, import = 0;
    for (auto _ : state) {
        // The scan alone, and the scan with the look at what the QVXML
        // reader passes over, as the command makes it.
        auto t0 = std::chrono::steady_clock::now();
        qvapp::XmlCheck c =
            qvapp::checkXml(doc->text, doc->native ? qvapp::qvxmlLimits() : qvapp::XmlLimits());
        if (c.malformed || c.limit) state.SkipWithError("the document is refused");
        scan += since(t0);

        auto t1 = std::chrono::steady_clock::now();
        std::vector<qvapp::Finding> findings;
        if (doc->native) benchmark::DoNotOptimize(qvapp::checkNative(doc->text, true, findings));
        audit += since(t1);

        // The import reads the document through the host's file service.
        setFileOverlay(path, doc->text);
        auto t2 = std::chrono::steady_clock::now();
        {
            EditStore store;
            ScopedCurrentStore scope(store);
            ImportFileList files;
            files.push_back(Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({path})));
            XML::ImportResult r = XML::XMLImportFiles(files, LoggerHandle());
            if (r.status != 1) state.SkipWithError("the import failed");
        }
        import += since(t2);
        clearFileOverlay(path);
    }
    double n = static_cast<double>(state.iterations());
    state.counters["MB"] = static_cast<double>(doc->text.size()) / (1 << 20);
    state.counters["scan_ms"] = scan / n;
    state.counters["audit_ms"] = audit / n;
    state.counters["import_ms"] = import / n;
    // The command makes one of the two scans: the plain one for xmeml, the
    // one with the look for QVXML.
    state.counters["share"] = (doc->native ? audit : scan) / import;
}

const bool registered = [] {
    for (const Document& d : documents())
        benchmark::RegisterBenchmark(("CheckAgainstImport/" + d.label).c_str(), CheckAgainstImport,
                                     &d)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(d.text.size() > (4u << 20) ? 2 : 5);
    return true;
}();

}  // namespace

BENCHMARK_MAIN();
