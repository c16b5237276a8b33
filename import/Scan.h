// Reading numbers out of element text the way the readers do: a leading
// number is taken and whatever follows it ignored (documents write "326400.0"
// for a frame count); text that does not begin with a number leaves the
// default. Unlike sscanf, an integer too large for 32 bits saturates instead
// of being undefined.
//
// Each scan also says whether the text is a number the field can use: text
// that is no number, a number that is not finite, a hexadecimal one or one
// out of the field's range would be read as another time without a word, so
// the readers tell it. The value taken stays what it always was, so that a
// reading that goes on regardless reads what it did.
#pragma once

#include <cctype>
#include <cfloat>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>

#include "host/LightweightString.h"

namespace XML {

enum class Damage {
    None,          // usable, or no text at all
    NotANumber,    // "abc", "", "-"
    NotFinite,     // "NaN", "Infinity", "inf"
    Hexadecimal,   // "0x10"
    OutOfRange,    // "1e300", "99999999999", or past what the field takes
    Exponent,      // "2.5e3" where a whole number is read: another number is taken
    UnknownRate,   // a rate that is a number, but none the host has
    NotATimecode,  // "01:00:0x:00", "99:99:99:99": no time of day in frames
};

// How a warning says what is wrong with a value.
inline const char* damageText(Damage d) {
    switch (d) {
        case Damage::None:
            return "is usable";
        case Damage::NotANumber:
            return "is not a number";
        case Damage::NotFinite:
            return "is not a finite number";
        case Damage::Hexadecimal:
            return "is a hexadecimal number";
        case Damage::OutOfRange:
            return "is out of range";
        case Damage::Exponent:
            return "has an exponent, which a whole number cannot have";
        case Damage::UnknownRate:
            return "is no frame rate Quvera knows";
        case Damage::NotATimecode:
            return "is not a timecode";
    }
    return "is not usable";
}

// What a scan found: whether a value was taken (as the readers always took
// one), and whether the text is one the field can use.
struct Scanned {
    bool read = false;
    Damage damage = Damage::None;
    explicit operator bool() const { return read; }
    bool usable() const { return damage == Damage::None; }
};

namespace scan {

inline const char* skipBlanks(const char* p) {
    while (std::isspace(static_cast<unsigned char>(*p)))
        ++p;
    return p;
}

// Text after blanks and a sign that names no finite number: "nan", "inf",
// "infinity", in any case.
inline bool namesNonFinite(const char* p) {
    auto is = [p](const char* word) {
        for (std::size_t i = 0; word[i]; ++i)
            if (std::tolower(static_cast<unsigned char>(p[i])) != word[i]) return false;
        return true;
    };
    return is("nan") || is("inf");
}

// Why text that does not begin with a number is none: blanks alone are no
// text at all, as an empty element is.
inline Damage notANumber(const char* after) {
    if (*skipBlanks(after) == '\0') return Damage::None;
    return Damage::NotANumber;
}

}  // namespace scan

// As "%d": optional blanks, an optional sign, digits. `low` and `high` are
// the range the field takes; a fraction after the digits is passed over as
// before, an exponent is not (the number it writes is another).
inline Scanned scanInt(const LightweightString<char>& text, int& value, long long low = INT_MIN,
                       long long high = INT_MAX) {
    const char* start = text.c_str();
    const char* p = scan::skipBlanks(start);
    bool negative = false;
    if (*p == '+' || *p == '-') negative = *p++ == '-';
    if (!std::isdigit(static_cast<unsigned char>(*p))) {
        if (scan::namesNonFinite(p)) return {false, Damage::NotFinite};
        return {false, scan::notANumber(start)};
    }
    const char* digits = p;
    long long v = 0;
    for (; std::isdigit(static_cast<unsigned char>(*p)); ++p) {
        if (v <= static_cast<long long>(INT_MAX) + 1) v = v * 10 + (*p - '0');
    }
    if (negative) v = -v;
    value = v > INT_MAX ? INT_MAX : (v < INT_MIN ? INT_MIN : static_cast<int>(v));
    Scanned s{true, Damage::None};
    if (*digits == '0' && p == digits + 1 && (*p == 'x' || *p == 'X') &&
        std::isxdigit(static_cast<unsigned char>(p[1]))) {
        s.damage = Damage::Hexadecimal;
        return s;
    }
    if (v < low || v > high) s.damage = Damage::OutOfRange;
    // "1e300", "2.5E3": the whole number is another than the one taken.
    const char* q = p;
    if (*q == '.')
        for (++q; std::isdigit(static_cast<unsigned char>(*q));)
            ++q;
    if ((*q == 'e' || *q == 'E') &&
        (std::isdigit(static_cast<unsigned char>(q[1])) ||
         ((q[1] == '+' || q[1] == '-') && std::isdigit(static_cast<unsigned char>(q[2]))))) {
        double whole = std::strtod(start, nullptr);
        if (!std::isfinite(whole) || whole < static_cast<double>(low) ||
            whole > static_cast<double>(high))
            s.damage = Damage::OutOfRange;
        else if (std::trunc(whole) != static_cast<double>(v))
            s.damage = Damage::Exponent;
    }
    return s;
}

// As "%lf". `limit` bounds the magnitude the field takes.
inline Scanned scanDouble(const LightweightString<char>& text, double& value,
                          double limit = DBL_MAX) {
    const char* start = text.c_str();
    char* end = nullptr;
    double v = std::strtod(start, &end);
    if (end == start) return {false, scan::notANumber(start)};
    value = v;
    Scanned s{true, Damage::None};
    const char* p = scan::skipBlanks(start);
    if (*p == '+' || *p == '-') ++p;
    if (scan::namesNonFinite(p)) {
        s.damage = Damage::NotFinite;
    } else if (p[0] == '0' && (p[1] == 'x' || p[1] == 'X')) {
        s.damage = Damage::Hexadecimal;
    } else if (!std::isfinite(v) || std::fabs(v) > limit) {
        s.damage = Damage::OutOfRange;
    }
    return s;
}

// The kinds of loss record of a time or rate that cannot be used: one that
// places material on a timeline, whose result cannot be trusted, and one
// that only gives a file's own length, a marker or a keyframe.
constexpr const char* kUnusableValueKind = "unusable-value";
constexpr const char* kUnreadableValueKind = "unreadable-value";

// What a warning and a loss record say of such a value: the element (or
// the attribute of an element), its line and what is wrong, with as much of
// the text as tells it; bytes that are not printable ASCII are shown as '?'.
inline LightweightString<char> unusableText(const char* element, const char* attribute,
                                            const LightweightString<char>& text, std::size_t line,
                                            Damage why) {
    std::string shown;
    const std::string_view all(text.c_str(), text.size());
    for (std::size_t i = 0; i < all.size() && i < 32; ++i) {
        unsigned char c = static_cast<unsigned char>(all[i]);
        shown += c >= 0x20 && c < 0x7F && c != '"' ? static_cast<char>(c) : '?';
    }
    if (all.size() > 32) shown += "...";
    std::string out = "<" + std::string(element) + ">";
    if (attribute) out = std::string(attribute) + " of " + out;
    out += " \"" + shown + "\" on line " + std::to_string(line) + " " + damageText(why);
    return LightweightString<char>(out.c_str());
}

// The warning that goes with such a record.
inline LightweightString<char> unusableWarning(const LightweightString<char>& what, bool places) {
    return what + (places ? ": the times it gives cannot be trusted"
                          : ": what it gives is wrong, though every clip keeps its place");
}

// Line numbers of a document's byte offsets, counted only when asked: a
// document is read without them, and only a value to be reported needs one.
// Each question counts from the last one's offset, either way, so that the
// passes of a reader (tracks are read last first) cost what they move.
class LineCounter {
  public:
    explicit LineCounter(std::string_view text = {}) : text_(text) {}
    std::size_t lineOf(std::size_t offset) {
        if (offset > text_.size()) offset = text_.size();
        for (; at_ < offset; ++at_)
            if (text_[at_] == '\n') ++line_;
        while (at_ > offset)
            if (text_[--at_] == '\n') --line_;
        return line_;
    }

  private:
    std::string_view text_;
    std::size_t at_ = 0, line_ = 1;
};

}  // namespace XML
