// The command as a function: what main() runs, and what tests and fuzz
// targets can run in-process.
#pragma once

namespace qvapp {

// Runs qvxml with a command line as main() receives it (argv[0] is the
// program) and returns the exit status.
int runCommand(int argc, char** argv);

}  // namespace qvapp
