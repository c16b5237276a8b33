// What the fuzz targets that import share: a check that stops the run where it
// fails, the size of input they take, and imports that look for nothing on
// the disk.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "host/Config.h"

namespace fuzzsupport {

inline void check(bool ok) {
    if (!ok) __builtin_trap();
}

// Every shot of an import goes offline: nothing is looked for on the disk.
// Set once a process.
inline void mediaOffline() {
    static const bool set = [] {
        prefs().setPreference("Import : Suppress relink existing material", true);
        set_config_int("media_scanning_behaviour", 0);
        return true;
    }();
    (void)set;
}

// The input of a target that imports, as text, with every shot offline; false
// for an input over 1 MiB, which only slows the run.
inline bool importInput(const std::uint8_t* data, std::size_t size, std::string_view& text) {
    if (size > (1u << 20)) return false;
    mediaOffline();
    text = std::string_view(reinterpret_cast<const char*>(data), size);
    return true;
}

}  // namespace fuzzsupport
