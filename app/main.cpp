// qvxml: converts, imports and exports timelines through the editor's XML
// interchange plug-in, without the editor.
#include <unistd.h>

#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "app/Commands.h"
#include "host/Config.h"
#include "host/PathMap.h"
#include "plugin/Version.h"

namespace {

using namespace qvapp;

const char* const kUsage =
    "usage: qvxml COMMAND [OPTIONS] ...\n"
    "\n"
    "Carries edit timelines between editors as XML, OpenTimelineIO and edit decision lists.\n"
    "\n"
    "commands:\n"
    "  convert INPUT... --to FORMAT [-o DIR]      import documents and write them as FORMAT\n"
    "  import INPUT... [--snapshot OUT.json] [--report FILE]\n"
    "                                              import documents and say what was made\n"
    "  export SNAPSHOT.json --to FORMAT [--edit NAME] [-o DIR] [--name FILE]\n"
    "                                              write an edit of a project snapshot\n"
    "  rate INPUT                                  the frame rate of a document's first sequence\n"
    "  info INPUT... [--clips] [--media] [--markers] [--json]\n"
    "                                              what is in a timeline and where its media is\n"
    "  draw INPUT -o FILE.svg|FILE.html            a picture of each sequence\n"
    "  relink SNAPSHOT.json --search DIR...        find offline media and link it\n"
    "\n"
    "FORMAT is native (QVXML 2.0), xmeml (Final Cut Pro 7, Premiere, Resolve), fcpxml,\n"
    "otio (OpenTimelineIO .otio) or edl (CMX 3600 edit decision lists); .otio files and\n"
    "lists are read too, by content, whatever the file's name.\n"
    "Run 'qvxml COMMAND --help' for a command's options, 'qvxml --version' for the version.\n"
    "The user guide is docs/user-guide.md.\n";

const char* const kCommonOptions =
    "  --overwrite       replace files that exist already (never one of the inputs)\n"
    "  --lenient         read documents that are not well formed as far as they go, and\n"
    "                    write what cannot be trusted all the same (the exit status says so)\n"
    "  --set KEY=VALUE   set a configuration key or preference (see the user guide):\n"
    "                    enableXml, suppress_FCP7XML_multiclip_group, xml_export_limit_to_6dB,\n"
    "                    media_scanning_behaviour, xml_legacy_interchange,\n"
    "                    \"Import : Suppress relink existing material\"\n"
    "  --quiet           say nothing but errors\n"
    "  --verbose         show the whole import and export log\n"
    "  --help            this text\n";

const char* helpFor(const std::string& command) {
    if (command == "convert")
        return "usage: qvxml convert INPUT... --to native|xmeml|fcpxml|otio|edl [-o DIR] "
               "[--silent]\n"
               "\n"
               "Imports each document into a fresh project and writes every sequence it made\n"
               "(or its shots, when it made none) as FORMAT into DIR (default: the current\n"
               "folder), one file per sequence, named after it. Prints each file written.\n"
               "INPUT may be QVXML, xmeml, OpenTimelineIO (.otio) or an edit decision list.\n"
               "\n"
               "  --to FORMAT       the format to write\n"
               "  -o, --output DIR  where to write\n"
               "  --silent          export without messages; also lets a sequence that is one\n"
               "                    multi-angle group go out as an xmeml multiclip\n"
               "  --skip-offline    leave shots whose media is offline out of the export\n"
               "  -j, --jobs N      convert N documents side by side (0: one per processor)\n"
               "  --report FILE     write what did not cross as JSON (a summary goes to\n"
               "                    standard error in any case)\n"
               "  --map-path FROM=TO  look for media under TO where the document says FROM\n"
               "                    (paths, drives, UNC names, file:// URLs; repeatable)\n"
               "  --rate RATE       read edit decision lists at RATE (25, 29.97, 23.976, ...)\n"
               "  --edl-track V1    --to edl: write that video track's list alone\n"
               "  --edl-reel-length N  --to edl: cut reels to N characters (CMX: 8)\n";
    if (command == "import")
        return "usage: qvxml import INPUT... [--snapshot OUT.json] [--report FILE]\n"
               "\n"
               "Imports the documents (QVXML, xmeml, OpenTimelineIO or edit decision lists)\n"
               "into one project, linking their media, importing it or marking it offline, and\n"
               "prints what was made. With --snapshot the project is written as JSON (see\n"
               "docs/snapshot.md). Every clip item of a document either plays in the project\n"
               "or is a loss of reading; a summary of the losses goes to standard error.\n"
               "\n"
               "  --snapshot FILE   write the project as JSON\n"
               "  --report FILE     write what reading lost as JSON, each loss with its\n"
               "                    sequence, track and timecode (see the user guide)\n"
               "  --map-path FROM=TO  look for media under TO where the document says FROM\n"
               "  --rate RATE       read edit decision lists at RATE (25, 29.97, 23.976, ...)\n";
    if (command == "export")
        return "usage: qvxml export SNAPSHOT.json --to native|xmeml|fcpxml|otio|edl [--edit NAME]\n"
               "                    [-o DIR] [--name FILE] [--silent]\n"
               "\n"
               "Loads a project snapshot (see docs/snapshot.md) and writes one of its edits:\n"
               "the one named by --edit, or its only sequence.\n"
               "\n"
               "  --edit NAME       the edit to write, by name or identity\n"
               "  --name FILE       the file's name; the format's extension replaces its own\n"
               "  -o, --output DIR  where to write\n"
               "  --skip-offline    leave shots whose media is offline out of the export\n"
               "  --report FILE     write what did not cross as JSON\n"
               "  --map-path FROM=TO  move media locators before writing (repeatable)\n"
               "  --edl-track V1    --to edl: write that video track's list alone\n"
               "  --edl-reel-length N  --to edl: cut reels to N characters (CMX: 8)\n";
    if (command == "info")
        return "usage: qvxml info INPUT... [--clips] [--media] [--markers] [--json] [-j N]\n"
               "\n"
               "Reads each document (QVXML, xmeml, OpenTimelineIO, an edit decision list or a\n"
               "snapshot) and tells, for each sequence, its rate, start and length, its tracks,\n"
               "clips, transitions, gaps, markers and speed changes, and the media it plays:\n"
               "imported, found, linked or offline, and where offline media was looked for.\n"
               "Nothing is written.\n"
               "\n"
               "  --clips, --media, --markers   list them\n"
               "  --json            everything, as JSON (see the user guide)\n"
               "  -j, --jobs N      read N documents side by side (0: one per processor)\n"
               "  --map-path FROM=TO  look for media under TO where the document says FROM\n"
               "  --rate RATE       read edit decision lists at RATE (25, 29.97, 23.976, ...)\n";
    if (command == "draw")
        return "usage: qvxml draw INPUT -o FILE.svg|FILE.html\n"
               "\n"
               "Draws each sequence: a timecode ruler, a lane per track, clips as labelled\n"
               "boxes (offline media in red), transitions, gaps and markers. An .html file\n"
               "also holds the info tables and what reading the document passed over; it\n"
               "opens from disk and needs nothing else.\n"
               "\n"
               "  --map-path FROM=TO  look for media under TO where the document says FROM\n"
               "  --rate RATE       read edit decision lists at RATE (25, 29.97, 23.976, ...)\n";
    if (command == "relink")
        return "usage: qvxml relink SNAPSHOT.json --search DIR... [-o OUT.json] [--dry-run]\n"
               "\n"
               "Looks in the folders (and the folders below them) for the files of the\n"
               "snapshot's offline shots: by file name, and where several files share the\n"
               "name, by picture size, length and sound channels. Says what it matched, and\n"
               "writes the relinked snapshot beside the one read, as NAME.relinked.json (or\n"
               "to OUT.json); the snapshot read is never written over.\n"
               "\n"
               "  --search DIR      a folder to look in (repeatable)\n"
               "  -o FILE           write the relinked snapshot there instead\n"
               "  --dry-run         say what would be linked; write nothing\n"
               "  --map-path FROM=TO  move locators first\n";
    if (command == "rate")
        return "usage: qvxml rate INPUT [--rate RATE]\n"
               "\n"
               "Prints the frame rate of the document's first sequence, such as 25 or 29.97.\n"
               "An edit decision list does not say its rate: the rate it is read at is\n"
               "printed, with a warning that says how it was told (--rate gives it).\n";
    return nullptr;
}

int usageError(const std::string& sentence) {
    std::fprintf(stderr, "qvxml: %s\nRun 'qvxml --help' for usage.\n", sentence.c_str());
    return kExitUsage;
}

// KEY=VALUE: preferences take true or false, configuration keys numbers.
bool applySetting(const std::string& setting, std::string& error) {
    size_t eq = setting.find('=');
    if (eq == std::string::npos || eq == 0) {
        error = "--set wants KEY=VALUE, not \"" + setting + "\"";
        return false;
    }
    std::string key = setting.substr(0, eq), value = setting.substr(eq + 1);
    if (key == "Import : Suppress relink existing material") {
        if (value != "true" && value != "false" && value != "1" && value != "0") {
            error = "\"" + key + "\" is true or false";
            return false;
        }
        prefs().setPreference(key.c_str(), value == "true" || value == "1");
        return true;
    }
    static const char* const known[] = {"enableXml", "suppress_FCP7XML_multiclip_group",
                                        "xml_export_limit_to_6dB", "media_scanning_behaviour",
                                        "xml_legacy_interchange"};
    bool isKnown = false;
    for (const char* k : known)
        isKnown |= key == k;
    if (!isKnown) {
        error = "\"" + key + "\" is no configuration key qvxml knows";
        return false;
    }
    char* end = nullptr;
    long v = std::strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || v < INT32_MIN || v > INT32_MAX) {
        error = "\"" + key + "\" takes a whole number, not \"" + value + "\"";
        return false;
    }
    set_config_int(key.c_str(), static_cast<int>(v));
    return true;
}

// FROM=TO, with a destination that is a relative path taken from here.
bool addPathRule(const std::string& text, PathMap& map, std::string& error) {
    PathRule rule;
    std::string given = text;
    size_t eq = given.find('=');
    if (eq != std::string::npos && eq + 1 < given.size()) {
        std::string to = given.substr(eq + 1);
        bool relative = to[0] != '/' && to[0] != '\\' && to.find(':') == std::string::npos;
        if (relative) {
            char here[PATH_MAX];
            if (::getcwd(here, sizeof here)) given = given.substr(0, eq + 1) + here + "/" + to;
        }
    }
    if (!PathMap::parseRule(given, rule, error)) return false;
    map.add(rule);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
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
    std::string command = args[0];
    const char* help = helpFor(command);
    if (!help)
        return usageError("\"" + command +
                          "\" is no command; the commands are convert, import, export, rate, info, "
                          "draw and relink");

    Options o;
    PathMap paths;
    Qv::FrameRate listRate = Qv::eFrameRateNone;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& into) {
            if (i + 1 >= args.size()) return false;
            into = args[++i];
            return true;
        };
        std::string setting, error;
        if (a == "--help" || a == "-h") {
            std::printf("%s\noptions of every command:\n%s", help, kCommonOptions);
            return kExitOK;
        } else if (a == "--to") {
            if (!value(o.to))
                return usageError("--to wants a format: native, xmeml, fcpxml, otio or edl");
        } else if (a == "-o" || a == "--output") {
            if (!value(o.outputDir))
                return usageError(a + (command == "draw" || command == "relink"
                                           ? " wants a file"
                                           : " wants a folder"));
            o.outputGiven = true;
        } else if ((a == "-j" || a == "--jobs") && (command == "convert" || command == "info")) {
            std::string n;
            char* end = nullptr;
            if (!value(n)) return usageError(a + " wants a number of jobs");
            long jobs = std::strtol(n.c_str(), &end, 10);
            if (n.empty() || *end != '\0' || jobs < 0 || jobs > 256)
                return usageError(a + " wants a number of jobs from 0 to 256, not \"" + n + "\"");
            o.jobs = static_cast<int>(jobs);
        } else if (a == "--report" &&
                   (command == "convert" || command == "export" || command == "import")) {
            if (!value(o.report)) return usageError("--report wants a file name");
        } else if (a == "--map-path" && command != "rate") {
            std::string rule;
            if (!value(rule)) return usageError("--map-path wants FROM=TO");
            if (!addPathRule(rule, paths, error)) return usageError(error);
        } else if (a == "--search" && command == "relink") {
            std::string dir;
            if (!value(dir)) return usageError("--search wants a folder");
            o.searchDirs.push_back(dir);
        } else if (a == "--dry-run" && command == "relink") {
            o.dryRun = true;
        } else if (a == "--json" && command == "info") {
            o.json = true;
        } else if (a == "--clips" && command == "info") {
            o.listClips = true;
        } else if (a == "--media" && command == "info") {
            o.listMedia = true;
        } else if (a == "--markers" && command == "info") {
            o.listMarkers = true;
        } else if (a == "--snapshot" && command == "import") {
            if (!value(o.snapshot)) return usageError("--snapshot wants a file name");
        } else if (a == "--edit" && command == "export") {
            if (!value(o.edit)) return usageError("--edit wants an edit's name");
        } else if (a == "--name" && command == "export") {
            if (!value(o.name)) return usageError("--name wants a file name");
        } else if (a == "--rate" && command != "export" && command != "relink") {
            std::string text;
            if (!value(text)) return usageError("--rate wants a frame rate, such as 25 or 29.97");
            if (!parseListRate(text, listRate))
                return usageError("\"" + text + "\" is no frame rate qvxml knows (25, 29.97, ...)");
        } else if (a == "--edl-track" && (command == "convert" || command == "export")) {
            if (!value(o.edlTrack) || o.edlTrack.size() < 2 || o.edlTrack[0] != 'V' ||
                o.edlTrack.find_first_not_of("0123456789", 1) != std::string::npos)
                return usageError("--edl-track wants a video track: V1, V2, ...");
        } else if (a == "--edl-reel-length" && (command == "convert" || command == "export")) {
            std::string n;
            char* end = nullptr;
            if (!value(n)) return usageError("--edl-reel-length wants a number of characters");
            long length = std::strtol(n.c_str(), &end, 10);
            if (n.empty() || *end != '\0' || length < 1 || length > 128)
                return usageError("--edl-reel-length wants a number from 1 to 128, not \"" + n +
                                  "\"");
            o.edlReelLength = static_cast<int>(length);
        } else if (a == "--silent") {
            o.silent = true;
        } else if (a == "--skip-offline") {
            o.skipOffline = true;
        } else if (a == "--overwrite") {
            o.overwrite = true;
        } else if (a == "--lenient") {
            o.lenient = true;
        } else if (a == "--quiet" || a == "-q") {
            o.verbosity = Verbosity::Quiet;
        } else if (a == "--verbose" || a == "-v") {
            o.verbosity = Verbosity::Verbose;
        } else if (a == "--set") {
            if (!value(setting)) return usageError("--set wants KEY=VALUE");
            if (!applySetting(setting, error)) return usageError(error);
        } else if (a.rfind("--set=", 0) == 0) {
            if (!applySetting(a.substr(6), error)) return usageError(error);
        } else if (a.size() > 1 && a[0] == '-') {
            return usageError("\"" + a + "\" is no option of " + command);
        } else {
            o.inputs.push_back(a);
        }
    }

    // Media is looked for where --map-path says, by every import and export.
    setLocatorMap(paths);
    Qv::Ptr<ConsoleLog> console(new ConsoleLog(o.verbosity, stderr));
    if (o.verbosity == Verbosity::Verbose)
        setApplicationLog(Qv::Ptr<iLogSink>(new ApplicationLog(console)));

    PluginLoader plugin;
    if (!plugin.load(PluginLoader::defaultPath())) {
        std::fprintf(stderr, "qvxml: %s\n", plugin.error().c_str());
        return kExitPlugin;
    }
    Commands commands(plugin, console);
    commands.setListRate(listRate);
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
