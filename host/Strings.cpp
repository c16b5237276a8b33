#include <cwctype>
#include <string>

#include "host/LightweightString.h"

namespace {

std::wstring decodeUTF8(std::string_view in) {
    std::wstring out;
    out.reserve(in.size());
    size_t i = 0;
    while (i < in.size()) {
        unsigned char b = static_cast<unsigned char>(in[i]);
        char32_t c;
        size_t extra;
        if (b < 0x80) {
            out.push_back(static_cast<wchar_t>(b));
            ++i;
            continue;
        } else if ((b & 0xE0) == 0xC0) {
            c = b & 0x1F;
            extra = 1;
        } else if ((b & 0xF0) == 0xE0) {
            c = b & 0x0F;
            extra = 2;
        } else if ((b & 0xF8) == 0xF0) {
            c = b & 0x07;
            extra = 3;
        } else {
            out.push_back(0xFFFD);
            ++i;
            continue;
        }
        if (i + extra >= in.size()) {  // truncated sequence
            out.push_back(0xFFFD);
            ++i;
            continue;
        }
        bool ok = true;
        for (size_t k = 1; k <= extra; ++k) {
            unsigned char cb = static_cast<unsigned char>(in[i + k]);
            if ((cb & 0xC0) != 0x80) {
                ok = false;
                break;
            }
            c = (c << 6) | (cb & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are refused.
        static const char32_t minimum[4] = {0, 0x80, 0x800, 0x10000};
        if (!ok || c < minimum[extra] || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) {
            out.push_back(0xFFFD);
            ++i;
            continue;
        }
        out.push_back(static_cast<wchar_t>(c));
        i += extra + 1;
    }
    return out;
}

}  // namespace

void appendUTF8(std::string& out, char32_t c) {
    if (c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF)) c = 0xFFFD;
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else if (c < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (c >> 18)));
        out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

void appendUTF8(std::string& out, std::wstring_view text) {
    // Runs of ASCII, as most text is, go over a character a byte.
    const std::size_t at = out.size();
    std::size_t i = 0;
    out.resize(at + text.size());
    for (; i < text.size() && static_cast<char32_t>(text[i]) < 0x80; ++i)
        out[at + i] = static_cast<char>(text[i]);
    out.resize(at + i);
    for (; i < text.size(); ++i)
        appendUTF8(out, static_cast<char32_t>(text[i]));
}

LightweightString<char> toUTF8(std::wstring_view text) {
    std::string out;
    appendUTF8(out, text);
    return LightweightString<char>(out);
}

LightweightString<char> toUTF8(const LightweightString<wchar_t>& text) {
    return toUTF8(text.view());
}

LightweightString<wchar_t> fromUTF8(const LightweightString<char>& text) {
    return LightweightString<wchar_t>(decodeUTF8(text.view()));
}

LightweightString<wchar_t> fromUTF8(const char* text, int length) {
    if (!text) return {};
    std::string_view v =
        length < 0 ? std::string_view(text) : std::string_view(text, static_cast<size_t>(length));
    return LightweightString<wchar_t>(decodeUTF8(v));
}

namespace Qv {

LightweightString<wchar_t> WStringFromAscii(const char* text) {
    std::wstring out;
    for (const char* p = text; p && *p; ++p)
        out.push_back(static_cast<wchar_t>(static_cast<unsigned char>(*p)));
    return LightweightString<wchar_t>(out);
}

LightweightString<wchar_t> WStringFromInteger(long value) {
    return WStringFromAscii(std::to_string(value).c_str());
}

void toUpper(LightweightString<wchar_t>& text) {
    text.transform(
        [](wchar_t c) { return static_cast<wchar_t>(std::towupper(static_cast<wint_t>(c))); });
}

}  // namespace Qv
