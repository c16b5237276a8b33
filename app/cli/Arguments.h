// The command line: a command, its inputs and options, read into Options.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "app/Status.h"
#include "app/cli/Options.h"
#include "host/FrameRate.h"
#include "host/PathMap.h"

namespace qvapp {

struct Arguments {
    std::string command;  // convert, import, export, rate, info, draw or relink
    Options options;
    PathMap paths;                                // --map-path
    Qv::FrameRate listRate = Qv::eFrameRateNone;  // --rate
};

// Reads a command's arguments, `args[0]` being the command. --set is applied
// as it is read. Gives what the run ends with when it ends here (a command's
// help was printed, or the command line is wrong and was told), nothing when
// the command is to run.
std::optional<Outcome> parseArguments(const std::vector<std::string>& args, Arguments& parsed);

// Tells a wrong command line on standard error, with where to find the usage.
Outcome usageError(const std::string& sentence);

}  // namespace qvapp
