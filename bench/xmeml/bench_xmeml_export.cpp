// Exporting long sequences as xmeml: the time must grow with the number of
// cels, not with its square, whether the cels play a few shots or a new shot
// each.
//
//   bench_xmeml_export                     all of them
//   bench_xmeml_export --benchmark_filter=Writer
//
// Arguments are the number of cels and the number of distinct shots.
#include <benchmark/benchmark.h>

#include <vector>

#include "bench/support/BenchExport.h"
#include "bench/support/BenchShots.h"
#include "host/Edit.h"
#include "xmeml/FCP5XMLWriter.h"

namespace {

// A store with `shots` shots of 60 s and one sequence of `cels` cels of 2 s
// on a video and an audio track, playing the shots in turn; every tenth
// video cel is a dissolve.
struct Timeline : benchsupport::Timeline {
    Timeline(int cels, int shots)
        : benchsupport::Timeline(shots,
                                 [](Edit& e, int s) {
                                     e.mediaPath =
                                         L"/media/shot " + Qv::WStringFromInteger(s) + L".mov";
                                 },
                                 {.perChannel = cels}),
          cels(cels),
          shots(shots) {
        store.add(seq);
    }
    // The benchmark's arguments: the number of cels and of distinct shots.
    explicit Timeline(const benchmark::State& state)
        : Timeline(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))) {}
    void count(benchmark::State& state) const {
        state.SetItemsProcessed(state.iterations() * cels * 2);
        state.counters["cels"] = cels * 2;
        state.counters["shots"] = shots;
    }
    int cels = 0, shots = 0;
};

// The whole export through the driver, to a file.
void BM_Export(benchmark::State& state) {
    benchsupport::exportBenchmark<Timeline>(state, XML::XMLFlavourFCP5);
}

// The writer alone, on lists prepared once: registration and the sequence,
// built in memory.
void BM_Writer(benchmark::State& state) {
    benchsupport::writerBenchmark<Timeline, XML::FCP5XMLWriter>(
        state, [](auto& writer, benchsupport::PreparedLists& lists) {
            writer.writeHeader();
            writer.writeAllShots(lists.shots, lists.ghosts);
            writer.writeGhosts(lists.deep);
            writer.writeGhosts(lists.ghosts);
            return writer.writeSequence(lists.seqs);
        });
}

// The map alone: registering many shots and finding each once.
void BM_RefMap(benchmark::State& state) {
    int n = static_cast<int>(state.range(0));
    std::vector<Cookie> refs;
    for (int i = 0; i < n; ++i)
        refs.push_back(newCookie(kCookieEdit, 255));
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
