// What the command's check of a document costs beside the import itself: the
// well-formedness scan (with its limits), and for QVXML the look at what the
// readers pass over, against the plug-in's import of the same bytes.
//
//   bench_document_check
//
// Each benchmark is one document; its counters give the milliseconds of the
// scan, of the QVXML audit (0 for xmeml) and of the import, and `share`, the
// check (scan and audit) as a part of the import. The documents are the
// corpus's largest xmeml, generated xmeml of 1 and 10 MB, the example QVXML
// cut, and generated QVXML documents of 1 and 10 MB.
#include <benchmark/benchmark.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "app/DocumentCheck.h"
#include "app/WellFormed.h"
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
        for (int mb : {1, 10})
            out.push_back({"qvxml_generated_" + std::to_string(mb) + "MB",
                           generateNative(static_cast<std::size_t>(mb) << 20), true});
        return out;
    }();
    return docs;
}

qvapp::XmlLimits limitsFor(const Document& d) {
    qvapp::XmlLimits limits;
    if (d.native) {
        limits.unnested = {{"Shot", "Edit"}, {"ChanList"}, {"Chan"},    {"CelEvent"},
                           {"Label"},        {"Effect"},   {"Keyframe"}};
        limits.format = "QVXML";
    }
    return limits;
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
        auto t0 = std::chrono::steady_clock::now();
        qvapp::XmlCheck c = qvapp::checkXml(doc->text, limitsFor(*doc));
        if (c.malformed || c.limit) state.SkipWithError("the document is refused");
        scan += since(t0);

        auto t1 = std::chrono::steady_clock::now();
        if (doc->native) benchmark::DoNotOptimize(qvapp::auditNative(doc->text, true));
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
    state.counters["share"] = (scan + audit) / import;
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
