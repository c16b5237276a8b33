#include "app/cli/Arguments.h"

#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "app/Status.h"
#include "app/cli/Help.h"
#include "app/commands/Commands.h"
#include "host/Config.h"

namespace qvapp {

namespace {

// KEY=VALUE: preferences take true or false, configuration keys numbers.
Outcome applySetting(const std::string& setting) {
    size_t eq = setting.find('=');
    if (eq == std::string::npos || eq == 0)
        return Outcome(kExitUsage, "--set wants KEY=VALUE, not \"" + setting + "\"");
    std::string key = setting.substr(0, eq), value = setting.substr(eq + 1);
    if (key == "Import : Suppress relink existing material") {
        if (value != "true" && value != "false" && value != "1" && value != "0")
            return Outcome(kExitUsage, "\"" + key + "\" is true or false");
        prefs().setPreference(key.c_str(), value == "true" || value == "1");
        return {};
    }
    static const char* const known[] = {"enableXml", "suppress_FCP7XML_multiclip_group",
                                        "xml_export_limit_to_6dB", "media_scanning_behaviour",
                                        "xml_legacy_interchange"};
    bool isKnown = false;
    for (const char* k : known)
        isKnown |= key == k;
    if (!isKnown) return Outcome(kExitUsage, "\"" + key + "\" is no configuration key qvxml knows");
    char* end = nullptr;
    long v = std::strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0' || v < INT32_MIN || v > INT32_MAX)
        return Outcome(kExitUsage, "\"" + key + "\" takes a whole number, not \"" + value + "\"");
    set_config_int(key.c_str(), static_cast<int>(v));
    return {};
}

// FROM=TO, with a destination that is a relative path taken from here.
Outcome addPathRule(const std::string& text, PathMap& map) {
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
    if (std::string error; !PathMap::parseRule(given, rule, error))
        return Outcome(kExitUsage, error);
    map.add(rule);
    return {};
}

}  // namespace

Outcome usageError(const std::string& sentence) {
    std::fprintf(stderr, "qvxml: %s\nRun 'qvxml --help' for usage.\n", shown(sentence).c_str());
    return Outcome::told(kExitUsage);
}

std::optional<Outcome> parseArguments(const std::vector<std::string>& args, Arguments& parsed) {
    parsed.command = args[0];
    const std::string& command = parsed.command;
    const char* help = helpFor(command);
    if (!help)
        return usageError("\"" + command +
                          "\" is no command; the commands are convert, import, export, rate, info, "
                          "draw and relink");

    Options& o = parsed.options;
    PathMap& paths = parsed.paths;
    Qv::FrameRate& listRate = parsed.listRate;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& a = args[i];
        auto value = [&](std::string& into) {
            if (i + 1 >= args.size()) return false;
            into = args[++i];
            return true;
        };
        std::string setting;
        if (a == "--help" || a == "-h") {
            std::printf("%s\noptions of every command:\n%s", help, kCommonOptions);
            return Outcome();
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
            if (Outcome added = addPathRule(rule, paths); !added.ok())
                return usageError(added.sentence());
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
            if (Outcome set = applySetting(setting); !set.ok()) return usageError(set.sentence());
        } else if (a.rfind("--set=", 0) == 0) {
            if (Outcome set = applySetting(a.substr(6)); !set.ok())
                return usageError(set.sentence());
        } else if (a.size() > 1 && a[0] == '-') {
            return usageError("\"" + a + "\" is no option of " + command);
        } else {
            o.inputs.push_back(a);
        }
    }

    return std::nullopt;
}

}  // namespace qvapp
