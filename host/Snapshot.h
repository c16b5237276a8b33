// A JSON snapshot of a store: every field that an export reads, written and
// read back without loss. Users write timelines by hand in this form too, so
// loading is forgiving where it can be (names in place of identities, plain
// rates, defaults for what is left out) and precise in its complaints where it
// cannot. docs/snapshot.md describes the format.
#pragma once

#include <string>
#include <vector>

#include "host/Edit.h"

namespace Snapshot {

struct Result {
    bool ok = true;
    std::string error;  // where and what, when not ok
    // What was loaded but will not play as written: a cel or angle that
    // names no edit of the snapshot or the store. Where and what, each.
    std::vector<std::string> warnings;
};

// Snapshots nest a handful of levels (edits, channels, cels, angles); one
// that nests deeper than this is refused before it is parsed.
inline constexpr int kMaxNesting = 64;

// The store as JSON text.
std::string dump(const EditStore& store);
// Adds the snapshot's edits to the store. Relative media paths are taken
// relative to `baseDirectory`. On failure the store is left as it was.
Result load(EditStore& store, const std::string& text, const std::string& baseDirectory);

Result loadFile(EditStore& store, const std::string& path);
// Whether a file is a snapshot: JSON whose root object's "format" is
// "qvxml-snapshot", wherever among the root's keys it stands. Reads no
// further than that key.
bool isSnapshotFile(const std::string& path);
Result saveFile(const EditStore& store, const std::string& path);

}  // namespace Snapshot
