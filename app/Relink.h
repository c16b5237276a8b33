// Relinking: --map-path applied to what a project keeps, and `relink`, which
// finds the files of offline media in folders the user names.
#pragma once

#include "app/Timeline.h"

namespace qvapp {

// After an import: the locator each new shot keeps (and an export writes
// again) moved by --map-path. Shots that were in `before` are left alone;
// the files shots play were found through the map already.
void mapImportedLocators(const IdentitySet& before);
// A loaded snapshot: every shot's media file and locator moved by --map-path.
void mapSnapshotLocators();

}  // namespace qvapp
