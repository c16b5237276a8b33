// Exporting long sequences as xmeml: the time must grow with the number of
// cels, not with its square, whether the cels play a few shots or a new shot
// each.
//
//   bench_xmeml_export                     all of them
//   bench_xmeml_export --benchmark_filter=Writer
//
// Arguments are the number of cels and the number of distinct shots.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/support/BenchShots.h"
#include "export/ExportDriver.h"
#include "host/Edit.h"
#include "xmeml/FCP5XMLWriter.h"

namespace {

// A store with `shots` shots of 60 s and one sequence of `cels` cels of 2 s
// on a video and an audio track, playing the shots in turn; every tenth
// video cel is a dissolve.
struct Timeline {
    Timeline(int cels, int shots) : scope(store) {
        std::vector<Cookie> shotCookies;
        for (int s = 0; s < shots; ++s) {
            Cookie id = store.newEditCookie();
            Qv::Ptr<Edit> e = benchsupport::shot(id, s);
            e->mediaPath = L"/media/shot " + Qv::WStringFromInteger(s) + L".mov";
            store.add(e);
            shotCookies.push_back(id);
        }
        seq = benchsupport::sequence(store.newEditCookie());
        for (unsigned ch = 0; ch < 2; ++ch) {
            StoredChannel sc;
            sc.index = ch;
            sc.type = ch == 0 ? kChanVideo : kChanAudio;
            sc.name = ch == 0 ? "V1" : "A1";
            for (int i = 0; i < cels; ++i) {
                CelData cel;
                cel.editIn = 2.0 * i;
                cel.editOut = 2.0 * (i + 1);
                if (ch == 0 && i % 10 == 9) {
                    cel.cookie = video_dissolve;
                    cel.editOut = cel.editIn + 0.4;
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

// The whole export through the driver, to a file.
void BM_Export(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    int shots = static_cast<int>(state.range(1));
    Timeline timeline(cels, shots);
    char dir[] = "/tmp/qvxml-bench-XXXXXX";
    if (!mkdtemp(dir)) {
        state.SkipWithError("no temporary directory");
        return;
    }
    XMLExportOptions options;
    options.directory = fromUTF8(dir);
    options.fileName = L"out";
    options.flavour = XML::XMLFlavourFCP5;
    options.silent = true;
    for (auto _ : state) {
        XML::ExportResult r = XML::XMLExportFiles(timeline.seq->cookie, options, LoggerHandle());
        if (r.status != 1) state.SkipWithError("export failed");
    }
    std::remove((std::string(dir) + "/out.xml").c_str());
    rmdir(dir);
    state.SetItemsProcessed(state.iterations() * cels * 2);
    state.counters["cels"] = cels * 2;
    state.counters["shots"] = shots;
}

// The writer alone, on lists prepared once: registration and the sequence,
// built in memory.
void BM_Writer(benchmark::State& state) {
    int cels = static_cast<int>(state.range(0));
    int shots = static_cast<int>(state.range(1));
    Timeline timeline(cels, shots);
    CED2List seqs, ghosts, deep, shotList;
    CookieVec cookies;
    cookies.push_back(timeline.seq->cookie);
    seqs.PrepareED2ListsForExport(cookies, seqs, ghosts, deep, shotList, false, 0, LoggerHandle(),
                                  Qv::eFrameRate25, false, false, false, false, false, false);
    XMLExportOptions options;
    options.silent = true;
    for (auto _ : state) {
        XML::FCP5XMLWriter writer(LoggerHandle(), options, Qv::eFrameRate25);
        writer.writeHeader();
        writer.writeAllShots(shotList, ghosts);
        writer.writeGhosts(deep);
        writer.writeGhosts(ghosts);
        if (!writer.writeSequence(seqs)) state.SkipWithError("write failed");
        benchmark::DoNotOptimize(writer.xmlFile.text());
    }
    state.SetItemsProcessed(state.iterations() * cels * 2);
    state.counters["cels"] = cels * 2;
    state.counters["shots"] = shots;
}

// The map alone: registering many shots and finding each once.
void BM_RefMap(benchmark::State& state) {
    int n = static_cast<int>(state.range(0));
    std::vector<LightweightString<wchar_t>> refs;
    for (int i = 0; i < n; ++i)
        refs.push_back(L"E-" + Qv::WStringFromInteger(i * 7919L));
    for (auto _ : state) {
        XML::CED2ClipRefMap map;
        for (const auto& r : refs)
            map.addRef(r, nullptr, false);
        XML::CED2ClipRefMapRec* rec = nullptr;
        for (const auto& r : refs)
            benchmark::DoNotOptimize(map.findRef(r, &rec));
    }
    state.SetItemsProcessed(state.iterations() * n);
}

void celsAndShots(benchmark::internal::Benchmark* b) {
    for (int cels : {5000, 10000, 20000}) {
        b->Args({cels, 10});    // few shots, used over and over
        b->Args({cels, cels});  // a new shot for every cel
    }
}

BENCHMARK(BM_Writer)->Apply(celsAndShots)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Export)->Apply(celsAndShots)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RefMap)->Arg(5000)->Arg(10000)->Arg(20000)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
