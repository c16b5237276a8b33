// What the XML writers' benchmarks share: the whole export of a sequence
// through the driver to a file, and the writer alone on the lists it takes,
// prepared once.
#pragma once

#include <benchmark/benchmark.h>

#include "bench/support/BenchFiles.h"
#include "export/ExportDriver.h"
#include "host/ED2.h"

namespace benchsupport {

// Exports `seq` as `flavour` into a scratch folder on every iteration.
inline void exportEachIteration(benchmark::State& state, const Cookie& seq,
                                XML::XMLFlavour flavour) {
    ScratchDir dir;
    if (dir.path().empty()) {
        state.SkipWithError("no temporary directory");
        return;
    }
    XMLExportOptions options;
    options.directory = fromUTF8(dir.path().c_str());
    options.fileName = L"out";
    options.flavour = flavour;
    options.silent = true;
    for (auto _ : state) {
        XML::ExportResult r = XML::XMLExportFiles(seq, options, LoggerHandle());
        if (r.status != 1) state.SkipWithError("export failed");
    }
}

// The lists of an export of `seq`, as the driver prepares them for a writer.
struct PreparedLists {
    explicit PreparedLists(const Cookie& seq) {
        CookieVec cookies;
        cookies.push_back(seq);
        seqs.PrepareED2ListsForExport(cookies, seqs, ghosts, deep, shots, false, 0, LoggerHandle(),
                                      Qv::eFrameRate25, false, false, false, false, false, false);
    }
    CED2List seqs, ghosts, deep, shots;
};

// Makes a writer of type `Writer` for every iteration and has `write` write
// the lists of `seq`, prepared once, with it; `write` answers whether the
// sequence was written.
template <class Writer, class Write>
void writeEachIteration(benchmark::State& state, const Cookie& seq, Write write) {
    PreparedLists lists(seq);
    XMLExportOptions options;
    options.silent = true;
    for (auto _ : state) {
        Writer writer(LoggerHandle(), options, Qv::eFrameRate25);
        if (!write(writer, lists)) state.SkipWithError("write failed");
        benchmark::DoNotOptimize(writer.xmlFile.text());
    }
}

// A benchmark of the whole export of a `Timeline` made from the benchmark's
// arguments, as `flavour`; and one of `Writer` alone on its lists. A Timeline
// counts what a benchmark processed.
template <class Timeline>
void exportBenchmark(benchmark::State& state, XML::XMLFlavour flavour) {
    Timeline timeline(state);
    exportEachIteration(state, timeline.seq->cookie, flavour);
    timeline.count(state);
}
template <class Timeline, class Writer, class Write>
void writerBenchmark(benchmark::State& state, Write write) {
    Timeline timeline(state);
    writeEachIteration<Writer>(state, timeline.seq->cookie, write);
    timeline.count(state);
}

}  // namespace benchsupport
