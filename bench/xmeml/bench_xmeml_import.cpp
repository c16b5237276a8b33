// Importing xmeml: the corpus's largest document and generated documents of
// 1, 10 and 100 MB.
//
// Two measures:
//   Reader/...      the import in this process (parse, passes, media
//                   resolution, store), CPU time, with the time per MB.
//   Command/...     `qvxml import DOC` as a whole process beside
//                   `xmllint --noout DOC` on the same bytes, wall time and
//                   peak resident memory of each; counters give the ratio of
//                   the two times and the import's peak memory over the
//                   document's size (less what the command holds before it
//                   reads anything).
//
//   bench_xmeml_import
//   bench_xmeml_import --benchmark_filter=Command
//
// The generated documents are written to a temporary folder once.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "bench/xmeml/XmemlGenerator.h"
#include "host/Edit.h"
#include "import/ImportDriver.h"

extern char** environ;

namespace {

struct Document {
    std::string label;
    std::string path;
    double megabytes = 0;
};

std::string tempFolder() {
    static std::string dir = [] {
        char pattern[] = "/tmp/qvxml-bench-XXXXXX";
        const char* made = ::mkdtemp(pattern);
        return std::string(made ? made : "/tmp");
    }();
    return dir;
}

const std::vector<Document>& documents() {
    static std::vector<Document> docs = [] {
        std::vector<Document> out;
        std::string corpus = std::string(QVXML_CORPUS) + "/xmeml/2005.xml";
        if (std::ifstream(corpus)) out.push_back({"corpus_2005", corpus, 0});
        for (int mb : {1, 10, 100}) {
            std::string path = tempFolder() + "/generated-" + std::to_string(mb) + "MB.xml";
            std::ofstream(path, std::ios::binary) << xmemlbench::generateXmeml(mb << 20);
            out.push_back({"generated_" + std::to_string(mb) + "MB", path, 0});
        }
        for (Document& d : out) {
            std::ifstream in(d.path, std::ios::binary | std::ios::ate);
            d.megabytes = static_cast<double>(in.tellg()) / (1 << 20);
        }
        return out;
    }();
    return docs;
}

void Reader(benchmark::State& state, const Document* doc) {
    for (auto _ : state) {
        EditStore store;
        ScopedCurrentStore scope(store);
        ImportFileList files;
        files.push_back(
            Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({fromUTF8(doc->path.c_str())})));
        XML::ImportResult r = XML::XMLImportFiles(files, LoggerHandle());
        if (r.status != 1) state.SkipWithError("the import failed");
        benchmark::DoNotOptimize(r);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(doc->megabytes * (1 << 20)));
    state.counters["MB"] = doc->megabytes;
    state.counters["s_per_MB"] =
        benchmark::Counter(doc->megabytes, benchmark::Counter::kIsIterationInvariantRate |
                                               benchmark::Counter::kInvert);
}

struct Run {
    double seconds = 0;
    double peakMB = 0;
    int status = -1;
};

// Commands are started by a small process forked before this one grows: a
// child's peak memory counts what it inherits, so children of a process that
// has read a 100 MB document would all seem to have used its memory.
class Launcher {
  public:
    Launcher() {
        int toChild[2], fromChild[2];
        if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) return;
        pid_ = ::fork();
        if (pid_ == 0) {
            ::close(toChild[1]);
            ::close(fromChild[0]);
            serve(toChild[0], fromChild[1]);
            ::_exit(0);
        }
        ::close(toChild[0]);
        ::close(fromChild[1]);
        out_ = toChild[1];
        in_ = fromChild[0];
    }
    ~Launcher() {
        if (out_ >= 0) ::close(out_);
        if (pid_ > 0) ::waitpid(pid_, nullptr, 0);
    }

    Run run(const std::vector<std::string>& args) {
        std::string request;
        for (const std::string& a : args)
            request += a + '\0';
        std::uint32_t size = static_cast<std::uint32_t>(request.size());
        Run r;
        if (!writeAll(out_, &size, sizeof size) || !writeAll(out_, request.data(), size) ||
            !readAll(in_, &r, sizeof r))
            r.status = -1;
        return r;
    }

  private:
    static bool writeAll(int fd, const void* data, std::size_t n) {
        const char* p = static_cast<const char*>(data);
        while (n > 0) {
            ssize_t w = ::write(fd, p, n);
            if (w <= 0) return false;
            p += w;
            n -= static_cast<std::size_t>(w);
        }
        return true;
    }
    static bool readAll(int fd, void* data, std::size_t n) {
        char* p = static_cast<char*>(data);
        while (n > 0) {
            ssize_t r = ::read(fd, p, n);
            if (r <= 0) return false;
            p += r;
            n -= static_cast<std::size_t>(r);
        }
        return true;
    }

    static void serve(int in, int out) {
        for (;;) {
            std::uint32_t size = 0;
            if (!readAll(in, &size, sizeof size)) return;
            std::string request(size, '\0');
            if (!readAll(in, request.data(), size)) return;
            std::vector<char*> argv;
            for (std::size_t at = 0; at < request.size(); at = request.find('\0', at) + 1)
                argv.push_back(request.data() + at);
            argv.push_back(nullptr);
            Run r = spawn(argv);
            if (!writeAll(out, &r, sizeof r)) return;
        }
    }

    // Runs a command to its end with its output thrown away.
    static Run spawn(std::vector<char*>& argv) {
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
        Run out;
        auto start = std::chrono::steady_clock::now();
        pid_t pid;
        if (posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) == 0) {
            int status = 0;
            struct rusage usage {};
            ::wait4(pid, &status, 0, &usage);
            out.seconds =
                std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            out.peakMB = usage.ru_maxrss / 1024.0;
            out.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        }
        posix_spawn_file_actions_destroy(&actions);
        return out;
    }

    pid_t pid_ = -1;
    int out_ = -1, in_ = -1;
};

Launcher* launcher = nullptr;

Run run(const std::vector<std::string>& args) {
    return launcher->run(args);
}

std::string qvxml() {
    return std::string(QVXML_BIN_DIR) + "/qvxml";
}

// What the command holds before it reads a document: its peak on a tiny one.
double commandBaseMB() {
    static double base = [] {
        std::string tiny = tempFolder() + "/tiny.xml";
        std::ofstream(tiny) << "<xmeml version=\"5\"><sequence><name>s</name></sequence></xmeml>";
        return run({qvxml(), "import", tiny, "--quiet"}).peakMB;
    }();
    return base;
}

void Command(benchmark::State& state, const Document* doc) {
    double ours = 0, theirs = 0, peak = 0, theirPeak = 0;
    for (auto _ : state) {
        Run a = run({qvxml(), "import", doc->path, "--quiet"});
        Run b = run({"xmllint", "--noout", doc->path});
        if (a.status != 0 || b.status != 0) state.SkipWithError("a command failed");
        state.SetIterationTime(a.seconds);
        ours += a.seconds;
        theirs += b.seconds;
        peak = std::max(peak, a.peakMB);
        theirPeak = std::max(theirPeak, b.peakMB);
    }
    double n = static_cast<double>(state.iterations());
    state.counters["MB"] = doc->megabytes;
    state.counters["qvxml_s"] = ours / n;
    state.counters["xmllint_s"] = theirs / n;
    state.counters["ratio"] = theirs > 0 ? ours / theirs : 0;
    state.counters["s_per_MB"] = ours / n / doc->megabytes;
    state.counters["peak_MB"] = peak;
    state.counters["xmllint_peak_MB"] = theirPeak;
    state.counters["peak_over_doc"] = (peak - commandBaseMB()) / doc->megabytes;
}

}  // namespace

int main(int argc, char** argv) {
    Launcher commands;
    launcher = &commands;
    for (const Document& d : documents()) {
        benchmark::RegisterBenchmark(("Reader/" + d.label).c_str(), Reader, &d)
            ->Unit(benchmark::kMillisecond)
            ->Iterations(d.megabytes > 50 ? 1 : 3);
        benchmark::RegisterBenchmark(("Command/" + d.label).c_str(), Command, &d)
            ->Unit(benchmark::kMillisecond)
            ->UseManualTime()
            ->Iterations(d.megabytes > 50 ? 1 : 3);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
