// An independent look at a source document for what qvxml's readers pass
// over or read in a way a conform editor must know about: filters other than
// speed and level, generators, uses of nested sequences, switched-off items,
// speed ramps, multiclips, transitions of unknown kinds, files that cannot
// be used. It reads the document on its own (tinyxml2 for xmeml, JSON for
// OpenTimelineIO), so that the plug-in's readers stay as they are.
#pragma once

#include <string>
#include <vector>

#include "app/LossReport.h"

namespace qvapp {

// The losses of reading `path`, of the format "xmeml", "otio" or "native"
// (whose reader reads all its writer writes: nothing is reported).
std::vector<Loss> scanSource(const std::string& path, const std::string& format);

}  // namespace qvapp
