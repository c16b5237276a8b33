// The command's help: the usage of qvxml, and of each command.
#pragma once

#include <string>

namespace qvapp {

// The usage of qvxml as a whole, for --help and a run without a command.
extern const char* const kUsage;
// The options every command takes, after a command's own help.
extern const char* const kCommonOptions;
// A command's help; null when `command` is none.
const char* helpFor(const std::string& command);

}  // namespace qvapp
