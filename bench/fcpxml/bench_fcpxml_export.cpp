// Exporting long sequences as fcpxml: the time per cel must stay flat as the
// sequence grows, whether its cels play a few shots or a new shot each, with
// a marker every ten cels and a level keyframe on every sound cel.
//
//   bench_fcpxml_export                     all of them
//   bench_fcpxml_export --benchmark_filter=Writer
//
// Arguments are the number of cels in the sequence (half of them on a video
// channel, half on a sound channel) and the number of distinct shots. The
// "per_cel" column is the time per cel.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bench/support/BenchShots.h"
#include "export/ExportDriver.h"
#include "fcpxml/FCPXXMLWriter.h"
#include "host/Edit.h"

namespace {

// A store with `shots` shots of 60 s at 25 and one sequence of `cels` cels of
// 2 s, half on V1 and half on A1, playing the shots in turn. Every tenth
// video cel is a dissolve, every tenth sound cel a crossfade; A1 has a level
// keyframe in each cel, and the sequence a marker every 20 s.
struct Timeline {
    Timeline(int cels, int shots) : scope(store) {
        std::vector<Cookie> shotCookies;
        for (int s = 0; s < shots; ++s) {
            Cookie id = store.newEditCookie();
            Qv::Ptr<Edit> e = benchsupport::shot(id, s);
            e->mediaPath = L"/media/shot " + Qv::WStringFromInteger(s) + L".mov";
            e->videoMetadata.setSize(1920, 1080);
            e->videoMetadata.setFrameRate(Qv::eFrameRate25);
            e->videoMetadata.setScanMode(Qv::Image::eScanProgressive);
            store.add(e);
            shotCookies.push_back(id);
        }
        seq = benchsupport::sequence(store.newEditCookie());
        int perChannel = cels / 2;
        double length = 2.0 * perChannel;
        for (unsigned ch = 0; ch < 2; ++ch) {
            StoredChannel sc;
            sc.index = ch;
            sc.type = ch == 0 ? kChanVideo : kChanAudio;
            sc.name = ch == 0 ? "V1" : "A1";
            sc.hasTrackLevels = ch == 1;
            for (int i = 0; i < perChannel; ++i) {
                CelData cel;
                cel.editIn = 2.0 * i;
                cel.editOut = 2.0 * (i + 1);
                if (i % 10 == 9) {
                    cel.cookie = ch == 0 ? video_dissolve : audio_dissolve;
                    cel.editOut = cel.editIn + 0.4;
                } else {
                    const Cookie& shot = shotCookies[static_cast<size_t>(i % shots)];
                    cel.cookie = convertCookie(shot, ch == 0 ? kCookieVideo : kCookieSound,
                                               static_cast<unsigned char>(ch));
                    cel.sourceIn = 10.0 + (i % 7);
                }
                sc.cels.push_back(cel);
                if (sc.hasTrackLevels)
                    sc.levels.push_back({(cel.editIn + 1.0) / length, 0.5f + 0.05f * (i % 10)});
            }
            seq->channels.push_back(sc);
        }
        for (int i = 0; i < perChannel; i += 10)
            seq->cues.push_back(Ced2Cue(L"mark " + Qv::WStringFromInteger(i), L"", 0, 2.0 * i + 0.5,
                                        kChanVideo, 0, kCueOpenEnd));
        store.add(seq);
    }
    EditStore store;
    ScopedCurrentStore scope;
    Qv::Ptr<Edit> seq;
};

void count(benchmark::State& state, int cels, int shots) {
    state.SetItemsProcessed(state.iterations() * cels);
    state.counters["cels"] = cels;
    state.counters["shots"] = shots;
    state.counters["per_cel"] = benchmark::Counter(
        cels, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

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
    options.flavour = XML::XMLFlavourFCPX;
    options.silent = true;
    for (auto _ : state) {
        XML::ExportResult r = XML::XMLExportFiles(timeline.seq->cookie, options, LoggerHandle());
        if (r.status != 1) state.SkipWithError("export failed");
    }
    std::remove((std::string(dir) + "/out.fcpxml").c_str());
    rmdir(dir);
    count(state, cels, shots);
}

// The writer alone, on lists prepared once: resources, browser clips and the
// sequence, built in memory.
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
        XML::FCPXXMLWriter writer(LoggerHandle(), options, Qv::eFrameRate25);
        writer.videoMetadata = seqs.firstRecord()->get_shotVideoMetadata();
        writer.writeHeader();
        writer.writeAllShots(shotList, ghosts);
        if (!writer.writeSequence(seqs)) state.SkipWithError("write failed");
        benchmark::DoNotOptimize(writer.xmlFile.text());
    }
    count(state, cels, shots);
}

void celsAndShots(benchmark::internal::Benchmark* b) {
    for (int cels : {2500, 5000, 10000, 20000}) {
        b->Args({cels, 10});        // few shots, used over and over
        b->Args({cels, cels / 2});  // a new shot for every video cel
    }
}

BENCHMARK(BM_Writer)->Apply(celsAndShots)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Export)->Apply(celsAndShots)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
