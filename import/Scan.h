// Reading numbers out of element text the way the readers do: a leading
// number is taken and whatever follows it ignored; text that does not begin
// with a number leaves the default. Unlike sscanf, an integer too large for
// 32 bits saturates instead of being undefined.
#pragma once

#include <cctype>
#include <climits>
#include <cstdlib>

#include "host/LightweightString.h"

namespace XML {

// As "%d": optional blanks, an optional sign, digits.
inline bool scanInt(const LightweightString<char>& text, int& value) {
    const char* p = text.c_str();
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    if (!std::isdigit(static_cast<unsigned char>(*p))) return false;
    long long v = 0;
    for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
        if (v <= static_cast<long long>(INT_MAX) + 1) v = v * 10 + (*p - '0');
    }
    if (negative) v = -v;
    value = v > INT_MAX ? INT_MAX : (v < INT_MIN ? INT_MIN : static_cast<int>(v));
    return true;
}

// As "%lf".
inline bool scanDouble(const LightweightString<char>& text, double& value) {
    const char* start = text.c_str();
    char* end = nullptr;
    double v = std::strtod(start, &end);
    if (end == start) return false;
    value = v;
    return true;
}

}  // namespace XML
