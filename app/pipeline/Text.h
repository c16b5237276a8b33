// Small text helpers of the command: names between the host's wide strings
// and the command's bytes, paths kept whole, and phrases for messages.
#pragma once

#include <climits>
#include <cstdlib>
#include <string>
#include <string_view>

#include "host/LightweightString.h"
#include "host/Paths.h"

namespace qvapp {

// Text (names, messages) between UTF-8 and the host's wide strings.
inline LightweightString<wchar_t> wide(const std::string& s) {
    return fromUTF8(s.c_str());
}
// toUTF8's bytes, made in one string.
inline std::string narrow(const LightweightString<wchar_t>& s) {
    std::string out;
    appendUTF8(out, s.view());
    return out;
}
// Paths are bytes: these keep them whole on the way through the host, even
// where they are not UTF-8.
inline LightweightString<wchar_t> widePath(const std::string& s) {
    return pathFromBytes(s);
}
inline std::string narrowPath(const LightweightString<wchar_t>& s) {
    return pathBytes(s);
}
// "name", as messages quote names and paths (not `quoted`, which std::quoted
// would take over wherever <iomanip> is seen).
inline std::string inQuotes(const std::string& s) {
    return "\"" + s + "\"";
}
// The absolute form of a path that exists; the path as given otherwise.
inline std::string absolute(const std::string& path) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved)) return resolved;
    return path;
}
// "1 clip", "2 clips".
inline std::string counted(long n, const std::string& one, const std::string& many = "") {
    return std::to_string(n) + " " + (n == 1 ? one : many.empty() ? one + "s" : many);
}

}  // namespace qvapp
