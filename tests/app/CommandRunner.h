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

// Runs a shell command and keeps its status and what it printed.
inline Outcome run(const std::string& command) {
    TempDir scratch;
    std::string errFile = scratch.file("stderr");
    Outcome r;
    FILE* pipe = ::popen((command + " 2>" + errFile).c_str(), "r");
    if (!pipe) return r;
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        r.out.append(buffer.data(), n);
    int raw = ::pclose(pipe);
    r.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    r.err = readFile(errFile);
    return r;
}

// `prefix` goes before the command in the shell: "ulimit -f 1;", say.
inline Outcome qvxml(const std::string& arguments, const std::string& prefix = "") {
    return run(prefix + " " + std::string(QVXML_BIN_DIR) + "/qvxml " + arguments);
}

inline std::string quote(const std::string& s) {
    return "'" + s + "'";
}

}  // namespace qvtest
