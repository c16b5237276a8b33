// An independent look at an xmeml document for what the plug-in's reader
// passes over or reads in a way a conform editor must know about: filters
// other than speed and level, generators, uses of nested sequences,
// switched-off items, speed ramps, multiclips, transitions of unknown kinds,
// files that cannot be used. It reads the document on its own (tinyxml2), and
// stands in for the loss records that the xmeml reader does not emit yet.
#pragma once

#include <string>
#include <vector>

#include "app/LossReport.h"

namespace qvapp {

// The losses of reading `path`, of the format "xmeml"; none for another
// format (OpenTimelineIO's reader records its own; QVXML's reader reads all
// its writer writes).
std::vector<Loss> scanSource(const std::string& path, const std::string& format);

}  // namespace qvapp
