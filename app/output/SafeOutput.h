// Writing files so that a failure never costs an existing one.
//
// Every file the command writes goes through here. A file is written beside
// its destination under a temporary name, flushed to the disk and checked,
// and only then renamed into place, so that the destination holds either its
// old content or the whole new one. No file is written over one of the run's
// inputs, whatever path names it (inputs are known by device and inode), and
// an existing file is kept unless the run may replace it (--overwrite).
//
// The plug-in writes its exports itself, and by design removes an existing
// file of the name it writes before it knows whether the export succeeds.
// So the command never lets it near the destination: it gives it a private
// staging folder inside the destination folder (the same file system, so
// that the finished file can be renamed into place) and moves the file out
// when the export has succeeded.
#pragma once

#include <sys/stat.h>

#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "app/Status.h"

namespace qvapp {

// The files a run reads.
class InputFiles {
  public:
    // Missing files are passed over: they fail elsewhere.
    void add(const std::string& path);
    bool contains(const struct stat& st) const;

  private:
    std::vector<std::pair<dev_t, ino_t>> files_;
};

// Why an errno failed, as the end of a sentence: "no space left on device".
std::string reasonOf(int error);

// Whether a destination is the command's standard output: "-", or
// "/dev/stdout" by name. It is written as it stands, whatever it is (a pipe,
// a file, a terminal); every other destination must be a regular file or
// none yet.
bool isStandardOutput(const std::string& path);

// A folder that files are to go into: it must exist and be a folder. `role`
// names it in the sentence ("the output folder").
Outcome checkFolder(const std::string& folder, const std::string& role);

class SafeOutput {
  public:
    SafeOutput(const InputFiles& inputs, bool overwrite);
    // Makes the renames of the run lasting: each folder written into is
    // flushed once.
    ~SafeOutput();
    SafeOutput(const SafeOutput&) = delete;
    SafeOutput& operator=(const SafeOutput&) = delete;

    // Whether a file may be written at `path`, asked before any work is done.
    Outcome check(const std::string& path) const;
    // Writes `bytes` at `path`, whole or not at all. `replaced`, if given,
    // says whether an older file of that name was replaced.
    Outcome write(const std::string& path, std::string_view bytes, bool* replaced = nullptr);
    // Moves a finished file that lies in a folder inside the destination's
    // folder (a staging folder) to `path`, once it is flushed and checked.
    Outcome commit(const std::string& finished, const std::string& path, bool* replaced = nullptr);

  private:
    Outcome publish(const std::string& temporary, const std::string& path, bool existed,
                    bool* replaced);
    Outcome writeToStandardOutput(const std::string& path, std::string_view bytes);

    const InputFiles& inputs_;
    bool overwrite_;
    mode_t fileMode_;
    std::set<std::string> folders_;
};

// A private folder inside a destination folder, for an export to be written
// into before it is moved into place. It is removed, with whatever it still
// holds, when it goes.
class StagingFolder {
  public:
    explicit StagingFolder(const std::string& destination);
    ~StagingFolder();
    StagingFolder(const StagingFolder&) = delete;
    StagingFolder& operator=(const StagingFolder&) = delete;

    // Empty when the folder could not be made; `made` then says why.
    const std::string& path() const { return path_; }
    const Outcome& made() const { return made_; }
    // The folder with a separator at its end: whatever is appended to it
    // (even a name without one) lands inside it.
    std::string prefix() const { return path_ + "/"; }
    // The names of the files in it, in name order.
    std::vector<std::string> files() const;

  private:
    std::string path_;
    Outcome made_;
};

}  // namespace qvapp
