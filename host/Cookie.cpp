#include "host/Cookie.h"

#include <cstddef>
#include <cstdint>
#include <tuple>

#include "host/Edit.h"

Cookie::Cookie(const LightweightString<wchar_t>& text, bool) {
    // Exactly 43 characters: T-8-8-8-8-2-2.
    std::wstring_view s = text.view();
    if (s.size() != 43) return;
    auto hexAt = [&](size_t pos, size_t digits, std::uint32_t& out) {
        std::uint32_t v = 0;
        for (size_t i = 0; i < digits; ++i) {
            wchar_t c = s[pos + i];
            int d;
            if (c >= L'0' && c <= L'9')
                d = c - L'0';
            else if (c >= L'a' && c <= L'f')
                d = c - L'a' + 10;
            else
                return false;
            v = v * 16 + static_cast<std::uint32_t>(d);
        }
        out = v;
        return true;
    };
    wchar_t t = s[0];
    if (t != L'E' && t != L'V' && t != L'S') return;
    for (size_t dash : {1, 10, 19, 28, 37, 40})
        if (s[dash] != L'-') return;
    Qv::UUID id;
    std::uint32_t channelValue = 0, tailValue = 0;
    if (!hexAt(2, 8, id.words[0]) || !hexAt(11, 8, id.words[1]) || !hexAt(20, 8, id.words[2]) ||
        !hexAt(29, 8, id.words[3]) || !hexAt(38, 2, channelValue) || !hexAt(41, 2, tailValue))
        return;
    uuid = id;
    channel = static_cast<unsigned char>(channelValue);
    tail = static_cast<unsigned char>(tailValue);
    type = static_cast<CookieType>(t);
}

namespace {

// The text of asString, with a zero after it: written by hand, since exports
// write one for every clip. A type byte of zero ends the text at once.
template <class Char>
std::size_t cookieText(const Cookie& c, Char (&text)[44]) {
    static const char hex[] = "0123456789abcdef";
    Char* p = text;
    *p++ = static_cast<Char>(c.type);
    auto put = [&](std::uint32_t value, int digits) {
        *p++ = '-';
        for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
            *p++ = static_cast<Char>(hex[(value >> shift) & 0xF]);
    };
    for (std::uint32_t w : c.uuid.words)
        put(w, 8);
    put(c.channel, 2);
    put(c.tail, 2);
    *p = 0;
    return c.type ? static_cast<std::size_t>(p - text) : 0;
}

}  // namespace

LightweightString<char> Cookie::asString(bool) const {
    char text[44];
    std::size_t n = cookieText(*this, text);
    return LightweightString<char>(text, n);
}

LightweightString<wchar_t> Cookie::asWString() const {
    // The type byte is the only one that may be no ASCII.
    if (type >= 0x80) return fromUTF8(asString(false));
    wchar_t text[44];
    std::size_t n = cookieText(*this, text);
    return LightweightString<wchar_t>(text, n);
}

int Cookie::compare(const Cookie& o) const {
    auto key = [](const Cookie& c) {
        return std::make_tuple(c.type, c.uuid.words[0], c.uuid.words[1], c.uuid.words[2],
                               c.uuid.words[3], c.channel);
    };
    auto a = key(*this), b = key(o);
    return a < b ? -1 : (b < a ? 1 : 0);
}

Cookie convertCookie(const Cookie& cookie, CookieType type, unsigned char channel) {
    if (!cookie.isValid()) return cookie;
    Cookie c = cookie;
    c.type = type;
    c.channel = channel;
    return c;
}

// Magic cookies carry no channel (255, the default).
constexpr Cookie invalid_cookie;
constexpr Cookie video_black(kCookieVideo, 1, kMagicWord, 0);
constexpr Cookie audio_black(kCookieSound, 1, kMagicWord, 0);
constexpr Cookie video_dissolve(kCookieVideo, 2, kMagicWord, 0);
constexpr Cookie audio_dissolve(kCookieSound, 2, kMagicWord, 0);
constexpr Cookie video_wipe(kCookieVideo, 3, kMagicWord, 0);

Cookie newCookie(CookieType type, int channel) {
    Cookie c;
    c.uuid = EditStore::current().newIdentity();
    c.type = type;
    c.channel = static_cast<unsigned char>(channel);
    return c;
}

Cookie makeNewEditCookie() {
    return newCookie(kCookieEdit, 255);
}
