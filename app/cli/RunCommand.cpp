#include "app/cli/RunCommand.h"

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

#include "app/Status.h"
#include "app/cli/Arguments.h"
#include "app/cli/Help.h"
#include "app/commands/Commands.h"
#include "app/pipeline/AroundPlugin.h"
#include "plugin/Version.h"

namespace qvapp {

int runCommand(int argc, char** argv) {
    // A file size limit makes a write fail, to be reported like a full disk,
    // rather than end the process.
    std::signal(SIGXFSZ, SIG_IGN);
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
    if (std::optional<int> ended = parseArguments(args, parsed)) return *ended;
    const Options& o = parsed.options;
    const std::string& command = parsed.command;

    // Media is looked for where --map-path says, by every import and export.
    mapMediaPaths(parsed.paths);
    Qv::Ptr<ConsoleLog> console(new ConsoleLog(o.verbosity, stderr));
    if (o.verbosity == Verbosity::Verbose)
        setApplicationLog(Qv::Ptr<iLogSink>(new ApplicationLog(console)));

    PluginLoader plugin;
    if (!plugin.load(PluginLoader::defaultPath())) {
        std::fprintf(stderr, "qvxml: %s\n", plugin.error().c_str());
        return kExitPlugin;
    }
    Commands commands(plugin, console);
    commands.setListRate(parsed.listRate);
    int code;
    if (command == "convert")
        code = commands.convert(o);
    else if (command == "import")
        code = commands.import(o);
    else if (command == "export")
        code = commands.exportSnapshot(o);
    else if (command == "info")
        code = commands.info(o);
    else if (command == "draw")
        code = commands.draw(o);
    else if (command == "relink")
        code = commands.relink(o);
    else
        code = commands.rate(o);
    setApplicationLog(nullptr);
    return code;
}

}  // namespace qvapp
