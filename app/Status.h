// How a run of the command ends, and how each step of it tells a failure.
#pragma once

#include <string>

namespace qvapp {

// Exit statuses, each with its own kind of failure.
enum ExitCode {
    kExitOK = 0,
    kExitUsage = 1,            // the command line is wrong
    kExitInternal = 1,         // a fault of qvxml's own, that no input may cause
    kExitUnreadable = 2,       // an input is missing, empty or unreadable
    kExitUnknownDocument = 3,  // an input is no document of a known kind
    kExitNoFolder = 4,         // the output folder does not exist
    kExitNotWritable = 5,      // a file cannot be written
    kExitFailed = 6,           // an import or export failed on its way
    kExitPlugin = 7,           // the plug-in could not be loaded
    kExitNotAvailable = 8,     // what was asked for is not built yet, or switched off
    kExitRefused = 9,          // a document is not well formed, or nests past any real one
    kExitUntrusted = 10,       // what was read has times that cannot be trusted
};

}  // namespace qvapp
