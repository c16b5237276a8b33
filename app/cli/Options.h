// What a command line asks of a command.
#pragma once

#include <string>
#include <vector>

#include "app/cli/Console.h"

namespace qvapp {

struct Options {
    std::vector<std::string> inputs;
    std::string to;  // native, xmeml, fcpxml, otio, edl
    std::string outputDir = ".";
    std::string snapshot;  // import: where to write the project
    std::string edit;      // export: which edit
    std::string name;      // export: the file's name
    bool silent = false;
    bool skipOffline = false;
    bool overwrite = false;  // replace existing files (never an input)
    bool lenient = false;    // read documents that are not well formed, write untrusted ones
    Verbosity verbosity = Verbosity::Normal;
    // The conform toolkit (see the user guide's "Conforming").
    int jobs = 1;                         // -j: documents worked on side by side; 0 all cores
    std::string report;                   // --report: the loss report as JSON (import, convert)
    std::vector<std::string> searchDirs;  // relink: where to look
    bool outputGiven = false;             // -o was given (draw, relink: a file)
    bool json = false;                    // info --json
    bool listClips = false, listMedia = false, listMarkers = false;
    bool dryRun = false;  // relink: say what would be matched, write nothing
    // Edit decision lists (see the user guide's "EDL").
    std::string edlTrack;   // --edl-track: the one video track to write
    int edlReelLength = 0;  // --edl-reel-length: reels cut to this length; 0 whole
};

}  // namespace qvapp
