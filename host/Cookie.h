// Identities of stored edits and of material.
//
// A cookie is a 128-bit identity with a type letter (E an edit, V video
// material, S sound material, I invalid), a channel byte (the source channel a
// cel plays; 255 for none) and a tail byte that is carried along. A shot's
// edit and its media share one identity: the material cookies of a shot are
// its edit cookie with type V or S and the channel byte of the stream.
//
// Magic cookies stand for what is not material. Their second word is 647; a
// first word of 1 is black (video) or silence (sound); 2 is a dissolve; 3 and
// above are effect graphs such as wipes.
#pragma once

#include <cstdint>

#include "host/LightweightString.h"

namespace Qv {
struct UUID {
    std::uint32_t words[4] = {0, 0, 0, 0};
    bool operator==(const UUID&) const = default;
    // Word by word, so that identities can key sets and maps.
    auto operator<=>(const UUID&) const = default;
};
}  // namespace Qv

using CookieType = unsigned char;
inline constexpr CookieType kCookieEdit = 'E';
inline constexpr CookieType kCookieVideo = 'V';
inline constexpr CookieType kCookieSound = 'S';
inline constexpr CookieType kCookieInvalid = 'I';
inline constexpr std::uint32_t kMagicWord = 647;

class Cookie {
  public:
    constexpr Cookie() = default;
    // Explicit words; the fourth word is 0. Used for the magic values.
    constexpr Cookie(CookieType t, int w0, int w1, int w2)
        : uuid{{static_cast<std::uint32_t>(w0), static_cast<std::uint32_t>(w1),
                static_cast<std::uint32_t>(w2), 0}},
          type(t) {}
    // Parses the form that asString writes; anything else gives an invalid
    // cookie. The flag is accepted for the host's signature and not used.
    Cookie(const LightweightString<wchar_t>& text, bool strict);

    // "T-xxxxxxxx-xxxxxxxx-xxxxxxxx-xxxxxxxx-cc-tt" (43 characters): type letter, the four
    // words, channel and tail bytes, in lower-case hexadecimal. ASCII, unique
    // per cookie, and usable inside XML identifiers and file names.
    LightweightString<char> asString(bool verbose = false) const;
    LightweightString<wchar_t> asWString() const;

    // 0 when equal (identity, type and channel; the tail byte is not looked
    // at); otherwise the sign of a total order.
    int compare(const Cookie& other) const;
    bool operator==(const Cookie& o) const { return compare(o) == 0; }

    bool isValid() const { return type != kCookieInvalid; }
    bool isMagic() const { return uuid.words[1] == kMagicWord; }
    bool isBlack() const { return isMagic() && uuid.words[0] == 1; }
    bool isEffectGraph() const { return isValid() && isMagic() && uuid.words[0] >= 3; }
    // The same identity whatever the type and channel.
    bool sameIdentity(const Cookie& o) const { return uuid == o.uuid; }

    Qv::UUID uuid;
    unsigned char tail = 0;
    unsigned char channel = 255;
    CookieType type = kCookieInvalid;
};

// The same identity with the given type and channel byte. An invalid cookie
// stays invalid.
Cookie convertCookie(const Cookie& cookie, CookieType type, unsigned char channel);

extern const Cookie invalid_cookie;
extern const Cookie video_black;
extern const Cookie audio_black;
extern const Cookie video_dissolve;
extern const Cookie audio_dissolve;
extern const Cookie video_wipe;

// New identities come from the current store's generator (see Edit.h).
Cookie newCookie(CookieType type, int channel);
Cookie makeNewEditCookie();
