// Every file the conform commands write (reports, pictures, snapshots) goes
// through here, whole: staged beside its destination, flushed, then renamed
// into place, so that a failure never leaves half a file where a whole one
// was expected, and an existing file is replaced in one step or not at all.
#pragma once

#include <string>

namespace qvapp {

// Writes `content` to `path`. False, with a sentence in `why`, when it cannot.
bool writeWholeFile(const std::string& path, const std::string& content, std::string& why);

}  // namespace qvapp
