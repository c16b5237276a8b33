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

#include "bench/support/BenchExport.h"
#include "bench/support/BenchShots.h"
#include "fcpxml/FCPXXMLWriter.h"
#include "host/Edit.h"

namespace {

// A store with `shots` shots of 60 s at 25 and one sequence of `cels` cels of
// 2 s, half on V1 and half on A1, playing the shots in turn. Every tenth
// video cel is a dissolve, every tenth sound cel a crossfade; A1 has a level
// keyframe in each cel, and the sequence a marker every 20 s.
struct Timeline : benchsupport::Timeline {
    Timeline(int cels, int shots)
        : benchsupport::Timeline(shots, dress, {.perChannel = cels / 2, .soundDissolves = true}),
          cels(cels),
          shots(shots) {
        int perChannel = cels / 2;
        double length = 2.0 * perChannel;
        StoredChannel& a1 = seq->channels[1];
        a1.hasTrackLevels = true;
        for (int i = 0; i < perChannel; ++i)
            a1.levels.push_back(
                {(a1.cels[static_cast<size_t>(i)].editIn + 1.0) / length, 0.5f + 0.05f * (i % 10)});
        for (int i = 0; i < perChannel; i += 10)
            seq->cues.push_back(Ced2Cue(L"mark " + Qv::WStringFromInteger(i), L"", 0, 2.0 * i + 0.5,
                                        kChanVideo, 0, kCueOpenEnd));
        store.add(seq);
    }
    // The benchmark's arguments: the number of cels and of distinct shots.
    explicit Timeline(const benchmark::State& state)
        : Timeline(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))) {}
    void count(benchmark::State& state) const {
        state.SetItemsProcessed(state.iterations() * cels);
        state.counters["cels"] = cels;
        state.counters["shots"] = shots;
        state.counters["per_cel"] = benchmark::Counter(
            cels, benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
    }
    int cels = 0, shots = 0;
    static void dress(Edit& e, int s) {
        e.mediaPath = L"/media/shot " + Qv::WStringFromInteger(s) + L".mov";
        e.videoMetadata.setSize(1920, 1080);
        e.videoMetadata.setFrameRate(Qv::eFrameRate25);
        e.videoMetadata.setScanMode(Qv::Image::eScanProgressive);
    }
};

// The whole export through the driver, to a file.
void BM_Export(benchmark::State& state) {
    benchsupport::exportBenchmark<Timeline>(state, XML::XMLFlavourFCPX);
}

// The writer alone, on lists prepared once: resources, browser clips and the
// sequence, built in memory.
void BM_Writer(benchmark::State& state) {
    benchsupport::writerBenchmark<Timeline, XML::FCPXXMLWriter>(
        state, [](auto& writer, benchsupport::PreparedLists& lists) {
            writer.videoMetadata = lists.seqs.firstRecord()->get_shotVideoMetadata();
            writer.writeHeader();
            writer.writeAllShots(lists.shots, lists.ghosts);
            return writer.writeSequence(lists.seqs);
        });
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
