#include "app/checks/WellFormed.h"

#include <cstdint>
#include <cstring>
#include <string>

#include "app/checks/XmlScanner.h"

namespace qvapp {

XmlPlace placeOf(std::string_view text, std::size_t offset) {
    if (offset > text.size()) offset = text.size();
    XmlPlace p;
    p.offset = offset;
    p.line = 1;
    std::size_t lineStart = 0;
    const char* base = text.data();
    for (const char* q = base; q < base + offset;) {
        const void* nl = std::memchr(q, '\n', static_cast<std::size_t>(base + offset - q));
        if (!nl) break;
        ++p.line;
        q = static_cast<const char*>(nl) + 1;
        lineStart = static_cast<std::size_t>(q - base);
    }
    // Characters, not bytes: continuation bytes of UTF-8 do not count.
    p.column = 1;
    for (std::size_t i = lineStart; i < offset; ++i)
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) ++p.column;
    return p;
}

namespace scan {

namespace {

const char kHex[] = "0123456789ABCDEF";

std::string codePoint(std::uint32_t c) {
    std::string out = "U+";
    int digits = c > 0xFFFF ? 6 : 4;
    for (int shift = (digits - 1) * 4; shift >= 0; shift -= 4)
        out.push_back(kHex[(c >> shift) & 15]);
    return out;
}

// Decodes the UTF-8 sequence at `s[i]` (a byte past ASCII): its length, or 0
// when it is not UTF-8 (overlong forms and surrogates are not).
std::size_t decode(const unsigned char* s, std::size_t n, std::size_t i, std::uint32_t& c) {
    unsigned char b = s[i];
    std::size_t length = b >= 0xC2 && b <= 0xDF   ? 2
                         : b >= 0xE0 && b <= 0xEF ? 3
                         : b >= 0xF0 && b <= 0xF4 ? 4
                                                  : 0;
    if (length == 0 || i + length > n) return 0;
    unsigned char second = s[i + 1];
    // The second byte's range narrows where a longer form is overlong, a
    // surrogate or past U+10FFFF.
    unsigned char low = b == 0xE0 ? 0xA0 : b == 0xF0 ? 0x90 : 0x80;
    unsigned char high = b == 0xED ? 0x9F : b == 0xF4 ? 0x8F : 0xBF;
    if (second < low || second > high) return 0;
    c = b & (0x7F >> length);
    for (std::size_t k = 1; k < length; ++k) {
        if ((s[i + k] & 0xC0) != 0x80) return 0;
        c = (c << 6) | (s[i + k] & 0x3F);
    }
    return length;
}

bool isNameStart(std::uint32_t c) {
    return (c >= 0xC0 && c <= 0xD6) || (c >= 0xD8 && c <= 0xF6) || (c >= 0xF8 && c <= 0x2FF) ||
           (c >= 0x370 && c <= 0x37D) || (c >= 0x37F && c <= 0x1FFF) ||
           (c >= 0x200C && c <= 0x200D) || (c >= 0x2070 && c <= 0x218F) ||
           (c >= 0x2C00 && c <= 0x2FEF) || (c >= 0x3001 && c <= 0xD7FF) ||
           (c >= 0xF900 && c <= 0xFDCF) || (c >= 0xFDF0 && c <= 0xFFFD) ||
           (c >= 0x10000 && c <= 0xEFFFF);
}

bool isNamePart(std::uint32_t c) {
    return isNameStart(c) || c == 0xB7 || (c >= 0x300 && c <= 0x36F) ||
           (c >= 0x203F && c <= 0x2040);
}

}  // namespace

bool isXmlChar(std::uint32_t c) {
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) ||
           (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

std::size_t firstForbidden(std::string_view text, std::string& what) {
    const auto* s = reinterpret_cast<const unsigned char*>(text.data());
    const std::size_t n = text.size();
    std::size_t i = 0;
    while (i < n) {
        // Eight characters at a time while none is past ASCII or below a
        // blank (the test may flag a word that holds neither; the loop
        // below then looks again).
        while (i + 8 <= n) {
            std::uint64_t w;
            std::memcpy(&w, s + i, 8);
            const std::uint64_t high = w & 0x8080808080808080ULL;
            const std::uint64_t low = (w - 0x2020202020202020ULL) & ~w & 0x8080808080808080ULL;
            if (high | low) break;
            i += 8;
        }
        if (i >= n) break;
        unsigned char b = s[i];
        if (b < 0x80) {
            if (b < 0x20 && b != '\t' && b != '\n' && b != '\r') {
                what = "the control character " + codePoint(b) +
                       ", which XML does not allow, stands in the text";
                return i;
            }
            ++i;
            continue;
        }
        std::uint32_t c = 0;
        std::size_t length = decode(s, n, i, c);
        if (length == 0) {
            what = std::string("the byte 0x") + kHex[b >> 4] + kHex[b & 15] +
                   " is not UTF-8 (a document in another encoding names it in its XML "
                   "declaration)";
            return i;
        }
        if (!isXmlChar(c)) {
            what =
                "the character " + codePoint(c) + ", which XML does not allow, stands in the text";
            return i;
        }
        i += length;
    }
    return std::string_view::npos;
}

std::string damagedName(std::string_view name) {
    const auto* s = reinterpret_cast<const unsigned char*>(name.data());
    for (std::size_t i = 0; i < name.size();) {
        if (s[i] < 0x80) {
            ++i;
            continue;
        }
        std::uint32_t c = 0;
        std::size_t length = decode(s, name.size(), i, c);
        if (length == 0) return {};  // not UTF-8: told as such
        // A byte order mark is a character a name may hold, but in a name
        // it is only ever a stray: a file's first bytes pasted into it.
        if (c == 0xFEFF) return "it holds a byte order mark (U+FEFF)";
        if (!(i == 0 ? isNameStart(c) : isNamePart(c)))
            return "it holds " + codePoint(c) +
                   (i == 0 ? ", which no XML name may begin with" : ", which no XML name may hold");
        i += length;
    }
    return {};
}

}  // namespace scan

XmlCheck checkXml(std::string_view text, const XmlLimits& limits, XmlObserver* observer) {
    return scan::Scanner<XmlObserver>(text, limits, observer).run();
}

}  // namespace qvapp
