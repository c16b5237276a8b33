// Small text helpers shared by the conform commands.
#pragma once

#include <climits>
#include <cstdlib>
#include <string>

#include "host/LightweightString.h"

namespace qvapp {

inline LightweightString<wchar_t> wideText(const std::string& s) {
    return fromUTF8(s.c_str());
}
inline std::string narrowText(const LightweightString<wchar_t>& s) {
    return toUTF8(s).str();
}
inline std::string inQuotes(const std::string& s) {
    return "\"" + s + "\"";
}
// The absolute form of a path that exists; the path as given otherwise.
inline std::string absolutePath(const std::string& path) {
    char resolved[PATH_MAX];
    if (::realpath(path.c_str(), resolved)) return resolved;
    return path;
}
// "1 clip", "2 clips".
inline std::string counted(long n, const std::string& one, const std::string& many = "") {
    return std::to_string(n) + " " + (n == 1 ? one : many.empty() ? one + "s" : many);
}

}  // namespace qvapp
