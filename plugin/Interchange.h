// The one switch between what other editors write and read today and the
// readings and spellings the interchange was first written with.
//
// With the configuration key "xml_legacy_interchange" at 0 (the default) the
// readers and writers follow what Final Cut Pro, Premiere, Resolve and
// OpenTimelineIO write and read; at 1 they read and write exactly as first
// written.
// Each rule that differs branches on this once, beside the rule, with a line
// that says why; docs/user-guide.md keeps the table of what the key changes.
#pragma once

#include "host/Config.h"

namespace XML {

inline constexpr const char* kLegacyInterchangeKey = "xml_legacy_interchange";

// Read it once at the start of a run (a reader's parse, a writer's export)
// and keep the answer: the key is a process-wide lookup under a lock.
inline bool legacyInterchange() {
    return config_int(kLegacyInterchangeKey, 0) != 0;
}

}  // namespace XML
