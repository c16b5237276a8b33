// Runs the built qvxml command, which loads the plug-in through the framework
// as the editor would, and keeps what it said; and what the tests of the
// command share: its example documents, the folders its tests run in, and
// ways to look at what it left behind.
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <vector>

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

inline const std::string kExample =
    std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";
inline const std::string kSnapshot = std::string(QVXML_SOURCE_DIR) + "/examples/timeline.json";
inline const std::string kMedia = std::string(QVXML_TEST_DATA) + "/media";
inline const std::string kCorpus = QVXML_CORPUS;

// Every file under a folder, hidden ones included, with a hash of its bytes
// (folders and links by their kind).
inline std::map<std::string, std::size_t> contents(const std::string& root,
                                                   const std::string& under = "") {
    std::map<std::string, std::size_t> out;
    DIR* d = ::opendir((root + under).c_str());
    if (!d) return out;
    while (dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        std::string rel = under + "/" + name;
        struct stat st;
        if (::lstat((root + rel).c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            out[rel + "/"] = 0;
            for (auto& [k, v] : contents(root, rel))
                out[k] = v;
        } else if (S_ISLNK(st.st_mode)) {
            out[rel + "@"] = 0;
        } else {
            out[rel] = std::hash<std::string>{}(readFile(root + rel));
        }
    }
    ::closedir(d);
    return out;
}

// The lines the command itself said (not the log's warnings and errors).
inline int sentences(const std::string& err) {
    int n = 0;
    for (std::size_t at = 0; (at = err.find("qvxml: ", at)) != std::string::npos; ++at)
        if (at == 0 || err[at - 1] == '\n') ++n;
    return n;
}

// `doc` with the first `from` in it replaced by `to`.
inline std::string replaced(std::string doc, const std::string& from, const std::string& to) {
    std::size_t at = doc.find(from);
    if (at != std::string::npos) doc.replace(at, from.size(), to);
    return doc;
}

// Run as nobody when run as root, whom permissions do not stop.
inline std::string unprivileged() {
    if (::geteuid() != 0) return "";
    if (::access("/usr/bin/setpriv", X_OK) != 0) return "-";
    return "setpriv --reuid=65534 --regid=65534 --clear-groups";
}

inline void copyFile(const std::string& from, const std::string& to) {
    std::filesystem::create_directories(std::filesystem::path(to).parent_path());
    std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

// A WAV file of silence: mono, 16 bits, 8 kHz, `samples` long.
inline void writeWav(const std::string& path, std::uint32_t samples) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::string bytes = "RIFF";
    auto u32 = [&](std::uint32_t v) {
        for (int i = 0; i < 4; ++i)
            bytes.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    };
    auto u16 = [&](std::uint16_t v) {
        bytes.push_back(static_cast<char>(v & 0xFF));
        bytes.push_back(static_cast<char>(v >> 8));
    };
    u32(36 + samples * 2);
    bytes += "WAVEfmt ";
    u32(16);
    u16(1);
    u16(1);
    u32(8000);
    u32(16000);
    u16(2);
    u16(16);
    bytes += "data";
    u32(samples * 2);
    bytes.append(samples * 2, '\0');
    writeFile(path, bytes);
}

// A store and a folder to work in.
class CommandFixture : public StoreTest {
  protected:
    TempDir dir;
};

// A store, a folder to work in with an output folder `out` inside, and a
// second folder for special files.
class SafetyFixture : public StoreTest {
  protected:
    SafetyFixture() {
        ::chmod(dir.path().c_str(), 0755);
        out = dir.file("out");
        ::mkdir(out.c_str(), 0755);
    }
    // Writes a document into the folder; its path, quoted for the shell.
    std::string doc(const std::string& name, const std::string& text) {
        writeFile(dir.file(name), text);
        return quote(dir.file(name));
    }
    TempDir dir;
    TempDir special;
    std::string out;
};

// A store and a folder to work in, with shots whose media is looked for.
class ConformFixture : public StoreTest {
  protected:
    TempDir dir;

    // An offline shot that expects its media at `locator`.
    Qv::Ptr<Edit> offlineShot(const std::wstring& name, double length,
                              std::vector<ChannelSpec> channels, const std::wstring& locator) {
        Qv::Ptr<Edit> shot = addShot(store, name, 25, length, std::move(channels));
        shot->historicLocator = locator;
        return shot;
    }
};

// The suites' names, as the tests of the command call them.
using Safety = SafetyFixture;
using Command = CommandFixture;
using Conform = ConformFixture;

}  // namespace qvtest
