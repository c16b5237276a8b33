// The search for moved media, as a user meets it: `qvxml import` of a
// document whose ~500 files are all offline, in a folder that also holds
// 5,000 unrelated files, beside the same import in a folder that holds only
// the document (the floor: the same bytes, nothing to search). For each
// scanning behaviour (1: the document's folder, 2: that folder and the ones
// below it), counters give the wall time of each and their ratio.
//
//   bench_media_search
//
// The folders are written to a temporary folder once and removed at the end.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "bench/import/MediaFolderGenerator.h"

extern char** environ;

namespace {

constexpr int kUnrelated = 5000;

struct Folders {
    std::string root, crowded, empty;
    Folders() {
        char pattern[] = "/tmp/qvxml-bench-media-XXXXXX";
        const char* made = ::mkdtemp(pattern);
        root = made ? made : "";
        if (root.empty()) return;
        std::string document = mediabench::offlineDocument(std::size_t(5) << 20);
        for (const char* name : {"/crowded", "/empty"})
            ::mkdir((root + name).c_str(), 0755);
        crowded = mediabench::makeFolder(root + "/crowded", document, kUnrelated);
        empty = mediabench::makeFolder(root + "/empty", document, 0);
    }
    ~Folders() {
        std::error_code ec;
        if (!root.empty()) std::filesystem::remove_all(root, ec);
    }
};

// Runs a command to its end, its output thrown away; its wall time in
// seconds, or a negative number when it failed.
double timed(const std::vector<std::string>& args) {
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    double seconds = -1;
    auto start = std::chrono::steady_clock::now();
    pid_t pid;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
            seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }
    posix_spawn_file_actions_destroy(&actions);
    return seconds;
}

std::vector<std::string> importing(const std::string& document, int behaviour) {
    return {std::string(QVXML_BIN_DIR) + "/qvxml",
            "import",
            document,
            "--quiet",
            "--set",
            "media_scanning_behaviour=" + std::to_string(behaviour)};
}

void Search(benchmark::State& state, const Folders* folders, int behaviour) {
    double crowded = 0, empty = 0;
    for (auto _ : state) {
        double a = timed(importing(folders->crowded, behaviour));
        double b = timed(importing(folders->empty, behaviour));
        if (a < 0 || b < 0) {
            state.SkipWithError("an import failed");
            break;
        }
        state.SetIterationTime(a);
        crowded += a;
        empty += b;
    }
    double n = static_cast<double>(state.iterations());
    state.counters["crowded_s"] = crowded / n;
    state.counters["empty_s"] = empty / n;
    state.counters["ratio"] = empty > 0 ? crowded / empty : 0;
}

}  // namespace

int main(int argc, char** argv) {
    Folders folders;
    if (folders.root.empty()) return 1;
    for (int behaviour : {1, 2})
        benchmark::RegisterBenchmark(("Search/" + std::to_string(kUnrelated) + "_files/behaviour_" +
                                      std::to_string(behaviour))
                                         .c_str(),
                                     Search, &folders, behaviour)
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime()
            ->Iterations(5);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
