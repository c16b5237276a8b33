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
#include <malloc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench/support/BenchShots.h"
#include "host/Edit.h"
#include "otio/OtioImport.h"
#include "otio/OtioModel.h"
#include "otio/OtioWriter.h"

namespace {

// A store with `shots` shots of 60 s and a sequence of `cels` cels of 2 s,
// half on a video channel and half on an audio channel, playing the shots in
// turn; every tenth video cel is a dissolve.
struct Timeline {
    Timeline(int cels, int shots) : scope(store) {
        std::vector<Cookie> shotCookies;
        for (int s = 0; s < shots; ++s) {
            Cookie id = store.newEditCookie();
            Qv::Ptr<Edit> e = benchsupport::shot(id, s);
            e->historicLocator = L"/media/shot " + Qv::WStringFromInteger(s) + L".mov";
            e->labels.push_back(EditLabel::fromFrame(900000, Qv::eFrameRate25, false, 103));
            store.add(e);
            shotCookies.push_back(id);
        }
        seq = benchsupport::sequence(store.newEditCookie());
        for (unsigned ch = 0; ch < 2; ++ch) {
            StoredChannel sc;
            sc.index = ch;
            sc.type = ch == 0 ? kChanVideo : kChanAudio;
            sc.name = ch == 0 ? "V1" : "A1";
            for (int i = 0; i < cels / 2; ++i) {
                CelData cel;
                cel.editIn = 2.0 * i;
                cel.editOut = 2.0 * (i + 1);
                if (ch == 0 && i % 10 == 9) {
                    cel.cookie = video_dissolve;
                } else {
                    const Cookie& shot = shotCookies[static_cast<size_t>(i % shots)];
                    cel.cookie = convertCookie(shot, ch == 0 ? kCookieVideo : kCookieSound,
                                               static_cast<unsigned char>(ch));
                    cel.sourceIn = 10.0 + (i % 7);
                }
                sc.cels.push_back(cel);
            }
            seq->channels.push_back(sc);
        }
        store.add(seq);
    }
    EditStore store;
    ScopedCurrentStore scope;
    Qv::Ptr<Edit> seq;
};

std::string scratchDir() {
    char dir[] = "/tmp/qvxml-bench-otio-XXXXXX";
    return mkdtemp(dir) ? std::string(dir) : std::string();
}

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
    std::string dir = scratchDir();
    std::string path = dir + "/out.otio";
    for (auto _ : state) {
        if (QvOtio::exportOtio(timeline.seq->cookie, fromUTF8(path.c_str()),
                               QvOtio::ExportOptions(), LoggerHandle()) != 1)
            state.SkipWithError("export failed");
    }
    struct stat st;
    stat(path.c_str(), &st);
    state.SetItemsProcessed(state.iterations() * cels);
    state.counters["MB"] = static_cast<double>(st.st_size) / 1e6;
    std::remove(path.c_str());
    rmdir(dir.c_str());
}

// Parsing alone: the file into the compact model.
void BM_Parse(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    std::string dir = scratchDir();
    std::string path = writeDocument(cels, static_cast<int>(state.range(1)), dir);
    for (auto _ : state) {
        QvOtio::Document doc;
        if (!QvOtio::parseFile(path, doc).ok) state.SkipWithError("parse failed");
        benchmark::DoNotOptimize(doc.items.data());
    }
    state.SetItemsProcessed(state.iterations() * cels);
    std::remove(path.c_str());
    rmdir(dir.c_str());
}

// The whole import: parse, records, media resolution (every shot offline),
// references, store.
void BM_Read(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    std::string dir = scratchDir();
    std::string path = writeDocument(cels, static_cast<int>(state.range(1)), dir);
    for (auto _ : state) {
        EditStore project;
        ScopedCurrentStore scope(project);
        std::string error;
        XML::ImportResult r = QvOtio::importOtioFile(fromUTF8(path.c_str()), LoggerHandle(), error);
        if (r.status != 1) state.SkipWithError("import failed");
    }
    state.SetItemsProcessed(state.iterations() * cels);
    std::remove(path.c_str());
    rmdir(dir.c_str());
}

long statusKB(const char* field) {
    std::ifstream in("/proc/self/status");
    std::string line;
    size_t n = std::string(field).size();
    while (std::getline(in, line))
        if (line.compare(0, n, field) == 0) return std::atol(line.c_str() + n + 1);
    return 0;
}

// A large document (about 100 MB) read once: how far the process's peak
// memory rises above where it stood, against the size of the file.
void BM_ReadLarge(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    bool parseOnly = state.range(1) != 0;
    std::string dir = scratchDir();
    std::string path = writeDocument(cels, 100, dir);
    struct stat st;
    stat(path.c_str(), &st);
    for (auto _ : state) {
        // Gives back what earlier runs freed, then resets the peak to what
        // is in use now.
        malloc_trim(0);
        std::ofstream("/proc/self/clear_refs") << "5";
        long before = statusKB("VmRSS:");
        if (parseOnly) {
            QvOtio::Document doc;
            if (!QvOtio::parseFile(path, doc).ok) state.SkipWithError("parse failed");
            state.counters["peak_MB"] = static_cast<double>(statusKB("VmHWM:") - before) / 1024;
        } else {
            EditStore project;
            ScopedCurrentStore scope(project);
            std::string error;
            if (QvOtio::importOtioFile(fromUTF8(path.c_str()), LoggerHandle(), error).status != 1)
                state.SkipWithError("import failed");
            state.counters["peak_MB"] = static_cast<double>(statusKB("VmHWM:") - before) / 1024;
        }
    }
    state.counters["file_MB"] = static_cast<double>(st.st_size) / 1e6;
    state.counters["cels"] = cels;
    std::remove(path.c_str());
    rmdir(dir.c_str());
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
