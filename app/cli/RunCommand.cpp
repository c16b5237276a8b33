#include "app/cli/RunCommand.h"

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "app/Status.h"
#include "app/cli/Arguments.h"
#include "app/cli/Help.h"
#include "app/commands/Commands.h"
#include "app/output/Batch.h"
#include "app/pipeline/AroundPlugin.h"
#include "app/pipeline/Pipeline.h"
#include "plugin/Version.h"

namespace qvapp {

namespace {

// Why writes to standard output failed, when stdio no longer knows: a file
// at the size limit, or a full file system; 0 when neither.
int standardOutputFailure() {
    struct stat st;
    if (::fstat(STDOUT_FILENO, &st) != 0 || !S_ISREG(st.st_mode)) return 0;
    struct rlimit limit;
    if (::getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY &&
        static_cast<rlim_t>(st.st_size) >= limit.rlim_cur)
        return EFBIG;
    struct statvfs fs;
    if (::fstatvfs(STDOUT_FILENO, &fs) == 0 && fs.f_bavail == 0) return ENOSPC;
    return 0;
}

int runGuarded(int argc, char** argv) {
    std::vector<std::string> args(argv + 1, argv + argc);
    if (args.empty()) {
        std::fputs(kUsage, stderr);
        return kExitUsage;
    }
    if (args[0] == "--help" || args[0] == "-h" || args[0] == "help") {
        std::fputs(kUsage, stdout);
        return kExitOK;
    }
    if (args[0] == "--version") {
        std::printf("qvxml %s\n", XML::kPluginVersion);
        return kExitOK;
    }
    Arguments parsed;
    if (std::optional<Outcome> ended = parseArguments(args, parsed)) return ended->status();
    const Options& o = parsed.options;
    const std::string& command = parsed.command;

    // Media is looked for where --map-path says, by every import and export.
    mapMediaPaths(parsed.paths);
    Qv::Ptr<ConsoleLog> console(new ConsoleLog(o.verbosity, stderr));
    if (o.verbosity == Verbosity::Verbose)
        setApplicationLog(Qv::Ptr<iLogSink>(new ApplicationLog(console)));

    PluginLoader plugin;
    if (Outcome loaded = plugin.load(PluginLoader::defaultPath()); !loaded.ok()) {
        std::fprintf(stderr, "qvxml: %s\n", shown(loaded.sentence()).c_str());
        return loaded.status();
    }
    Commands commands(plugin, console);
    commands.setListRate(parsed.listRate);
    shareHeapAmong(Batch::jobsFor(o.jobs, o.inputs.size()));
    // The work on the documents: whatever it throws ends it as a failure of
    // those documents, in one sentence (convert and info guard each document
    // of a batch on its own, and go on past it).
    int code = guardedJob(o.inputs.empty() ? command : o.inputs.front(), stderr, [&] {
                   Outcome done = command == "convert"  ? commands.convert(o)
                                  : command == "import" ? commands.import(o)
                                  : command == "export" ? commands.exportSnapshot(o)
                                  : command == "info"   ? commands.info(o)
                                  : command == "draw"   ? commands.draw(o)
                                  : command == "relink" ? commands.relink(o)
                                                        : commands.rate(o);
                   return commands.tell(done);
               }).status();
    setApplicationLog(nullptr);
    // What went to standard output is written, or the run says it was not
    // (a full disk, a file size limit).
    errno = 0;
    int error = std::fflush(stdout) != 0 ? errno : 0;
    if (error || std::ferror(stdout)) {
        if (!error) error = standardOutputFailure();
        std::fprintf(stderr, "qvxml: cannot write to standard output: %s\n",
                     error ? reasonOf(error).c_str() : "a write to it failed");
        if (code == kExitOK) code = kExitNotWritable;
    }
    return code;
}

}  // namespace

int runCommand(int argc, char** argv) {
    // A file size limit makes a write fail, to be reported like a full disk,
    // rather than end the process.
    std::signal(SIGXFSZ, SIG_IGN);
    // The last guard: a fault of qvxml's own, outside the work on any
    // document, is one sentence and status 1, never an abort.
    try {
        return runGuarded(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "qvxml: stopped at a fault of its own: %s\n", shown(e.what()).c_str());
    } catch (...) {
        std::fprintf(stderr, "qvxml: stopped at a fault of its own\n");
    }
    return kExitInternal;
}

}  // namespace qvapp
