// Runs the whole qvxml command in this process on arbitrary document bytes,
// exactly as a user's command line does: the bytes become a file in a private
// folder, and a conversion (native, xmeml, fcpxml, otio or edl) with its loss
// report, `info --json` or `draw` runs through runCommand(), arguments,
// checks, plug-in, conversion and accounting included. Built once per kind of
// document read, which sets the file's name and, for snapshots, the command
// that writes (export instead of convert):
//
//   QVXML_FUZZ_KIND_NATIVE, _XMEML, _OTIO, _SNAPSHOT, _EDL
//
// Besides crashes, the sanitizers and hangs, it checks what every run must
// hold: a status of the documented kinds for a valid command line, the input
// unchanged, nothing written outside the output folder, and no staging
// folder or half-written file left behind.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "app/Status.h"
#include "app/cli/RunCommand.h"

namespace {

#if defined(QVXML_FUZZ_KIND_NATIVE) || defined(QVXML_FUZZ_KIND_XMEML)
constexpr const char* kInputName = "document.xml";
#elif defined(QVXML_FUZZ_KIND_OTIO)
constexpr const char* kInputName = "document.otio";
#elif defined(QVXML_FUZZ_KIND_SNAPSHOT)
constexpr const char* kInputName = "project.json";
#elif defined(QVXML_FUZZ_KIND_EDL)
constexpr const char* kInputName = "list.edl";
#else
#error "say which kind of document the target reads: QVXML_FUZZ_KIND_..."
#endif

#ifdef QVXML_FUZZ_KIND_SNAPSHOT
constexpr const char* kWrite = "export";
#else
constexpr const char* kWrite = "convert";
#endif

// Larger inputs cost more than they find.
constexpr std::size_t kMaxInput = 256 * 1024;

void check(bool ok) {
    if (!ok) __builtin_trap();
}

// The private folder of this process: the input in in/, outputs in out/.
struct Folders {
    std::string root, in, out, input;
};

void removeTree(const std::string& path) {
    if (DIR* dir = ::opendir(path.c_str())) {
        while (dirent* entry = ::readdir(dir)) {
            std::string name = entry->d_name;
            if (name == "." || name == "..") continue;
            std::string child = path + "/" + name;
            struct stat st;
            if (::lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode))
                removeTree(child);
            else
                ::unlink(child.c_str());
        }
        ::closedir(dir);
    }
    ::rmdir(path.c_str());
}

std::vector<std::string> namesIn(const std::string& path) {
    std::vector<std::string> names;
    if (DIR* dir = ::opendir(path.c_str())) {
        while (dirent* entry = ::readdir(dir)) {
            std::string name = entry->d_name;
            if (name != "." && name != "..") names.push_back(name);
        }
        ::closedir(dir);
    }
    return names;
}

const Folders& folders() {
    // Never destroyed: the folder is removed at exit, after the statics.
    static const Folders* f = [] {
        auto* made = new Folders;
        // Memory-backed when the machine has it: each run writes several files.
        const char* base = ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        std::string pattern = std::string(base) + "/qvxml-fuzz-XXXXXX";
        check(::mkdtemp(pattern.data()) != nullptr);
        made->root = pattern;
        made->in = made->root + "/in";
        made->out = made->root + "/out";
        made->input = made->in + "/" + kInputName;
        check(::mkdir(made->in.c_str(), 0700) == 0 && ::mkdir(made->out.c_str(), 0700) == 0);
        std::atexit([] { removeTree(folders().root); });
        return made;
    }();
    return *f;
}

bool writeInput(const std::string& path, std::string_view bytes) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0) return false;
    std::size_t done = 0;
    while (done < bytes.size()) {
        ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        done += static_cast<std::size_t>(n);
    }
    return ::close(fd) == 0 && done == bytes.size();
}

bool sameAs(const std::string& path, std::string_view bytes) {
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    std::string read(bytes.size() + 1, '\0');
    std::size_t n = std::fread(read.data(), 1, read.size(), f);
    std::fclose(f);
    return n == bytes.size() && std::memcmp(read.data(), bytes.data(), n) == 0;
}

int run(std::vector<std::string> args) {
    std::vector<char*> argv;
    for (std::string& a : args)
        argv.push_back(a.data());
    argv.push_back(nullptr);
    return qvapp::runCommand(static_cast<int>(args.size()), argv.data());
}

// The options every run shares: no media looked for on the disk, nothing
// said but errors.
std::vector<std::string> command(std::initializer_list<std::string> words, bool lenient) {
    std::vector<std::string> args{"qvxml"};
    args.insert(args.end(), words);
    args.insert(args.end(), {"--quiet", "--set", "media_scanning_behaviour=0", "--set",
                             "Import : Suppress relink existing material=true"});
    if (lenient) args.push_back("--lenient");
    return args;
}

// A valid command line ends in one of the statuses a document can cause;
// usage errors, a missing folder or plug-in would be the command's fault. A
// snapshot of several sequences is the exception: export asks which to write,
// as a usage error.
bool documentStatus(int status, bool exporting = false) {
    switch (status) {
        case qvapp::kExitUsage:
            return exporting;
        case qvapp::kExitOK:
        case qvapp::kExitUnreadable:
        case qvapp::kExitUnknownDocument:
        case qvapp::kExitFailed:
        case qvapp::kExitNotAvailable:
        case qvapp::kExitRefused:
        case qvapp::kExitUntrusted:
            return true;
        default:
            return false;
    }
}

bool isTemporaryName(const std::string& name) {
    if (name.size() != 13 || name.rfind(".qvxml-", 0) != 0) return false;
    for (std::size_t i = 7; i < name.size(); ++i)
        if (!std::isalnum(static_cast<unsigned char>(name[i]))) return false;
    return true;
}

// After each run: the input as it was, nothing beside in/ and out/, and out/
// emptied for the next run. Every name left in out/ must be a finished file.
void afterRun(const Folders& f, std::string_view bytes) {
    check(sameAs(f.input, bytes));
    std::vector<std::string> top = namesIn(f.root);
    check(top.size() == 2);
    std::vector<std::string> inside = namesIn(f.in);
    check(inside.size() == 1 && inside[0] == kInputName);
    for (const std::string& name : namesIn(f.out)) {
        std::string path = f.out + "/" + name;
        struct stat st;
        check(::lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode));
        // A temporary file of the safe output: ".qvxml-" and six letters or
        // digits. A sequence may be named so too, but its file has an
        // extension (".qvxml-ew.edl" is a sequence's, found by the fuzzer).
        check(!isTemporaryName(name));
        ::unlink(path.c_str());
    }
}

// One run of the command: a conversion (0-4), info --json (5) or draw (6).
int runOne(int which, const Folders& f, bool lenient) {
    static const char* const kFormats[] = {"native", "xmeml", "fcpxml", "otio", "edl"};
    if (which < 5)
        return run(command({kWrite, f.input, "--to", kFormats[which], "-o", f.out, "--report",
                            f.out + "/report.json"},
                           lenient));
    if (which == 5) return run(command({"info", f.input, "--json"}, lenient));
    return run(command({"draw", f.input, "-o", f.out + "/picture.html"}, lenient));
}

// FNV-1a: which run an input gets, the same every time it is run.
std::uint64_t hashOf(std::string_view bytes) {
    std::uint64_t h = 14695981039346656037ull;
    for (char c : bytes)
        h = (h ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    return h;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Loads the plug-in before the first input, so that its code is counted
    // from the start: a run of a missing file loads it and ends.
    const Folders& f = folders();
    check(run({"qvxml", "rate", "--quiet", f.in + "/missing.xml"}) == qvapp::kExitUnreadable);
    return 0;
}

// Each input gets one of the seven runs, chosen by its bytes, and is read
// leniently or not, so that an execution costs one run of the command and an
// input found again is run again the same way. QVXML_FUZZ_EVERY_RUN=1 in the
// environment gives every input all seven runs, both ways (to replay a
// corpus through everything).
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool every = [] {
        const char* e = std::getenv("QVXML_FUZZ_EVERY_RUN");
        return e && std::strcmp(e, "1") == 0;
    }();
    if (size > kMaxInput) return 0;
    std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const Folders& f = folders();
    check(writeInput(f.input, bytes));
    const std::uint64_t h = hashOf(bytes);
    const bool exporting = std::string_view(kWrite) == "export";
    for (int which = 0; which < 7; ++which)
        for (bool lenient : {false, true}) {
            if (!every && (which != static_cast<int>(h % 7) || lenient != ((h / 7) % 2 == 1)))
                continue;
            check(documentStatus(runOne(which, f, lenient), exporting && which < 5));
            afterRun(f, bytes);
        }
    return 0;
}
