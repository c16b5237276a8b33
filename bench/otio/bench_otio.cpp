// Writing and reading long timelines as OpenTimelineIO: time must grow with
// the number of cels, and reading a large document must take memory in
// proportion to its timeline, not copies of its text.
//
//   bench_otio                                   all of them
//   bench_otio --benchmark_filter=Read
//   bench_otio --write CELS SHOTS PATH            only writes the document
//
// otio_vs_json.py times the command on such a document beside json.load.
//
// Arguments are the number of cels (over a video and an audio channel) and
// the number of distinct shots they play.
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/support/BenchFiles.h"
#include "bench/support/BenchShots.h"
#include "host/Edit.h"
#include "otio/OtioImport.h"
#include "otio/OtioModel.h"
#include "otio/OtioWriter.h"

namespace {

// A store with `shots` shots of 60 s and a sequence of `cels` cels of 2 s,
// half on a video channel and half on an audio channel, playing the shots in
// turn; every tenth video cel is a dissolve as long as its cel.
struct Timeline : benchsupport::Timeline {
    Timeline(int cels, int shots)
        : benchsupport::Timeline(
              shots,
              [](Edit& e, int s) {
                  e.historicLocator = L"/media/shot " + Qv::WStringFromInteger(s) + L".mov";
                  e.labels.push_back(EditLabel::fromFrame(900000, Qv::eFrameRate25, false, 103));
              },
              {.perChannel = cels / 2, .dissolveLength = 0}) {
        store.add(seq);
    }
};

// The document of a timeline, written to a file once.
std::string writeDocument(int cels, int shots, const std::string& dir) {
    Timeline timeline(cels, shots);
    std::string text;
    QvOtio::writeOtio(timeline.seq->cookie, QvOtio::ExportOptions(), LoggerHandle(), text);
    std::string path = dir + "/cut-" + std::to_string(cels) + "-" + std::to_string(shots) + ".otio";
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

// The export: the document written to a file as it is made.
void BM_Write(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    int shots = static_cast<int>(state.range(1));
    Timeline timeline(cels, shots);
    benchsupport::ScratchDir dir;
    std::string path = dir.file("out.otio");
    for (auto _ : state) {
        if (QvOtio::exportOtio(timeline.seq->cookie, fromUTF8(path.c_str()),
                               QvOtio::ExportOptions(), LoggerHandle()) != 1)
            state.SkipWithError("export failed");
    }
    struct stat st;
    stat(path.c_str(), &st);
    state.SetItemsProcessed(state.iterations() * cels);
    state.counters["MB"] = static_cast<double>(st.st_size) / 1e6;
}

// Parsing alone: the file into the compact model.
void BM_Parse(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    benchsupport::ScratchDir dir;
    std::string path = writeDocument(cels, static_cast<int>(state.range(1)), dir.path());
    for (auto _ : state) {
        QvOtio::Document doc;
        if (!QvOtio::parseFile(path, doc).ok) state.SkipWithError("parse failed");
        benchmark::DoNotOptimize(doc.items.data());
    }
    state.SetItemsProcessed(state.iterations() * cels);
}

// The whole import: parse, records, media resolution (every shot offline),
// references, store.
void BM_Read(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    benchsupport::ScratchDir dir;
    std::string path = writeDocument(cels, static_cast<int>(state.range(1)), dir.path());
    for (auto _ : state) {
        EditStore project;
        ScopedCurrentStore scope(project);
        std::string error;
        XML::ImportResult r = QvOtio::importOtioFile(fromUTF8(path.c_str()), LoggerHandle(), error);
        if (r.status != 1) state.SkipWithError("import failed");
    }
    state.SetItemsProcessed(state.iterations() * cels);
}

// A large document (about 100 MB) read once: how far the process's peak
// memory rises above where it stood, against the size of the file.
void BM_ReadLarge(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    bool parseOnly = state.range(1) != 0;
    benchsupport::ScratchDir dir;
    std::string path = writeDocument(cels, 100, dir.path());
    struct stat st;
    stat(path.c_str(), &st);
    for (auto _ : state) {
        benchsupport::PeakRise peak;
        if (parseOnly) {
            QvOtio::Document doc;
            if (!QvOtio::parseFile(path, doc).ok) state.SkipWithError("parse failed");
            state.counters["peak_MB"] = peak.megabytes();
        } else {
            EditStore project;
            ScopedCurrentStore scope(project);
            std::string error;
            if (QvOtio::importOtioFile(fromUTF8(path.c_str()), LoggerHandle(), error).status != 1)
                state.SkipWithError("import failed");
            state.counters["peak_MB"] = peak.megabytes();
        }
    }
    state.counters["file_MB"] = static_cast<double>(st.st_size) / 1e6;
    state.counters["cels"] = cels;
}

void celsAndShots(benchmark::internal::Benchmark* b) {
    for (int cels : {5000, 10000, 20000}) {
        b->Args({cels, 10});
        b->Args({cels, 1000});
    }
}

BENCHMARK(BM_Write)->Apply(celsAndShots)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse)->Apply(celsAndShots)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read)->Apply(celsAndShots)->Unit(benchmark::kMillisecond);
// 50,000 cels make a document of about 100 MB.
BENCHMARK(BM_ReadLarge)
    ->Args({25000, 1})
    ->Args({50000, 1})
    ->Args({25000, 0})
    ->Args({50000, 0})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    // bench_otio --write CELS SHOTS PATH: only writes the document, for
    // timing the command on it from outside.
    if (argc == 5 && std::string(argv[1]) == "--write") {
        Timeline timeline(std::atoi(argv[2]), std::atoi(argv[3]));
        std::string text;
        QvOtio::writeOtio(timeline.seq->cookie, QvOtio::ExportOptions(), LoggerHandle(), text);
        std::ofstream out(argv[4], std::ios::binary);
        out << text;
        return out.good() ? 0 : 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
