// Reading long edit decision lists: a list must be read in time that grows
// with its length, as `wc -l` counts its lines, and in memory in proportion
// to its events. Each benchmark takes the number of events of a generated
// list (100,000 events make a list of about 12 MB).
//
//   bench_edl                                    all of them
//   bench_edl --benchmark_filter=100000          the 100,000-event list alone
//
// Count: `wc -l` on the file, for scale. Parse: the text into events. Read:
// the whole import (rate, shots, media resolution with every shot offline,
// references, store). Write: the list of what was read, written again.
// ReadOnce reports how far the process's peak memory rose (peak_MB) against
// the file's size (file_MB).
#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "bench/support/BenchFiles.h"
#include "edl/EdlImport.h"
#include "edl/EdlList.h"
#include "edl/EdlWriter.h"
#include "host/Config.h"
#include "host/Edit.h"

namespace {

std::string tc(long long frame) {
    return QvEdl::Timecode::fromFrames(frame, 25, false).text();
}

// A list of `events` events at 25 fps as an editor writes one: cuts on the
// picture with their clip name and source file, one in eight a dissolve (two
// lines), one in ten with its sound (B), one in twenty an M2 speed, one in
// sixteen sound on four channels (AUD 3 4); a thousand reels.
std::string writeList(int events, const std::string& dir) {
    std::string path = dir + "/list-" + std::to_string(events) + ".edl";
    std::string text = "TITLE: Long list\r\nFCM: NON-DROP FRAME\r\n";
    long long record = 90000;
    for (int i = 1; i <= events; ++i) {
        int reel = (i * 7919) % 1000;
        char name[16];
        std::snprintf(name, sizeof name, "R%04d", reel);
        long long source = 900000 + (i % 500) * 50;
        long long length = 25 + i % 50;
        char number[16];
        std::snprintf(number, sizeof number, "%06d", i);
        std::string line = std::string(number) + "  " + name + "    ";
        if (i % 8 == 0) {
            text += line + "V     C        " + tc(source) + " " + tc(source) + " " + tc(record) +
                    " " + tc(record) + "\r\n";
            text += line + "V     D    010 " + tc(source) + " " + tc(source + length) + " " +
                    tc(record) + " " + tc(record + length) + "\r\n";
        } else {
            const char* channels = i % 16 == 1 ? "AA/V " : i % 10 == 0 ? "B    " : "V    ";
            text += line + channels + " C        " + tc(source) + " " + tc(source + length) + " " +
                    tc(record) + " " + tc(record + length) + "\r\n";
            if (i % 16 == 1) text += "AUD  3 4\r\n";
            if (i % 20 == 3)
                text += "M2   " + std::string(name) + "       050.0 " + tc(source) + "\r\n";
        }
        text += "* FROM CLIP NAME: " + std::string(name) + ".mov\r\n";
        text += "* SOURCE FILE: /Volumes/Media/" + std::string(name) + ".mov\r\n";
        record += length;
    }
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

struct Setup {
    Setup() {
        // Every shot offline, as on a machine without the media.
        prefs().setPreference("Import : Suppress relink existing material", true);
    }
};

void BM_Count(benchmark::State& state) {
    benchsupport::ScratchDir dir;
    std::string path = writeList(static_cast<int>(state.range(0)), dir.path());
    std::string command = "wc -l '" + path + "' > /dev/null";
    for (auto _ : state)
        if (std::system(command.c_str()) != 0) state.SkipWithError("wc failed");
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_Parse(benchmark::State& state) {
    benchsupport::ScratchDir dir;
    std::string path = writeList(static_cast<int>(state.range(0)), dir.path());
    for (auto _ : state) {
        std::ifstream in(path, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        QvEdl::List list = QvEdl::parseList(bytes);
        if (list.events.empty()) state.SkipWithError("no events");
        benchmark::DoNotOptimize(list.events.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_Read(benchmark::State& state) {
    static Setup setup;
    benchsupport::ScratchDir dir;
    std::string path = writeList(static_cast<int>(state.range(0)), dir.path());
    QvEdl::ReadOptions options;
    options.rate = Qv::eFrameRate25;
    for (auto _ : state) {
        EditStore project;
        ScopedCurrentStore scope(project);
        std::string error;
        if (QvEdl::importEdlFile(fromUTF8(path.c_str()), options, LoggerHandle(), error).status !=
            1)
            state.SkipWithError("import failed");
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_Write(benchmark::State& state) {
    static Setup setup;
    benchsupport::ScratchDir dir;
    std::string path = writeList(static_cast<int>(state.range(0)), dir.path());
    EditStore project;
    ScopedCurrentStore scope(project);
    QvEdl::ReadOptions options;
    options.rate = Qv::eFrameRate25;
    std::string error;
    XML::ImportResult r =
        QvEdl::importEdlFile(fromUTF8(path.c_str()), options, LoggerHandle(), error);
    for (auto _ : state) {
        std::vector<QvEdl::WrittenList> lists;
        if (r.edits.empty() ||
            QvEdl::writeEdl(r.edits[0].getCookie(), {}, LoggerHandle(), lists, error) != 1)
            state.SkipWithError("write failed");
        benchmark::DoNotOptimize(lists.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

void BM_ReadOnce(benchmark::State& state) {
    static Setup setup;
    benchsupport::ScratchDir dir;
    std::string path = writeList(static_cast<int>(state.range(0)), dir.path());
    struct stat st;
    stat(path.c_str(), &st);
    QvEdl::ReadOptions options;
    options.rate = Qv::eFrameRate25;
    for (auto _ : state) {
        benchsupport::PeakRise peak;
        EditStore project;
        ScopedCurrentStore scope(project);
        std::string error;
        if (QvEdl::importEdlFile(fromUTF8(path.c_str()), options, LoggerHandle(), error).status !=
            1)
            state.SkipWithError("import failed");
        state.counters["peak_MB"] = peak.megabytes();
    }
    state.counters["file_MB"] = static_cast<double>(st.st_size) / 1e6;
    state.counters["events"] = static_cast<double>(state.range(0));
}

void lengths(benchmark::internal::Benchmark* b) {
    for (int events : {25000, 50000, 100000})
        b->Arg(events);
}

BENCHMARK(BM_Count)->Apply(lengths)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse)->Apply(lengths)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Read)->Apply(lengths)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Write)->Apply(lengths)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadOnce)->Arg(100000)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
