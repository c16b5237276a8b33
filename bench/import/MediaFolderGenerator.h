// Folders for the benchmarks of the media search: a document whose media is
// all offline (every file is looked for beside it), alone in its folder or
// among thousands of unrelated files, as in a Downloads folder or beside an
// image sequence.
#pragma once

#include <sys/stat.h>

#include <fstream>
#include <string>

#include "bench/xmeml/XmemlGenerator.h"

namespace mediabench {

// An xmeml document of about `bytes` whose files all lie under a folder that
// does not exist: each one is offline and looked for by name. 5 MB names
// about 500 files.
inline std::string offlineDocument(std::size_t bytes) {
    return xmemlbench::generateXmeml(bytes);
}

// Writes `document` as `folder`/cut.xml beside `unrelated` empty files, a
// fifth of them in ten sub-folders; returns the document's path. The folder
// must exist.
inline std::string makeFolder(const std::string& folder, const std::string& document,
                              int unrelated) {
    int inSubfolders = unrelated / 5;
    for (int d = 0; d < 10 && inSubfolders > 0; ++d)
        ::mkdir((folder + "/sub" + std::to_string(d)).c_str(), 0755);
    for (int i = 0; i < unrelated; ++i) {
        std::string name = "IMG_" + std::to_string(10000 + i) + ".dng";
        std::string where = i < inSubfolders ? folder + "/sub" + std::to_string(i % 10) : folder;
        std::ofstream(where + "/" + name);
    }
    std::string path = folder + "/cut.xml";
    std::ofstream(path, std::ios::binary) << document;
    return path;
}

}  // namespace mediabench
