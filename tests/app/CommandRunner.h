// Runs the built qvxml command, which loads the plug-in through the framework
// as the editor would, and keeps what it said.
#pragma once

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <string>

#include "tests/support/TestSupport.h"

namespace qvtest {

struct Outcome {
    int status = -1;
    std::string out, err;
};

// `prefix` goes before the command in the shell: "ulimit -f 1;", say.
inline Outcome qvxml(const std::string& arguments, const std::string& prefix = "") {
    TempDir scratch;
    std::string errFile = scratch.file("stderr");
    std::string command =
        prefix + " " + std::string(QVXML_BIN_DIR) + "/qvxml " + arguments + " 2>" + errFile;
    Outcome run;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return run;
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        run.out.append(buffer.data(), n);
    int raw = ::pclose(pipe);
    run.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    run.err = readFile(errFile);
    return run;
}

inline std::string quote(const std::string& s) {
    return "'" + s + "'";
}

}  // namespace qvtest
