// Small element helpers shared by the parts of the xmeml writer.
#pragma once

#include <charconv>
#include <string>
#include <string_view>

#include "export/XmlFile.h"
#include "host/Cookie.h"
#include "host/ED2.h"

namespace XML::fcp5 {

// A leaf with UTF-8 text.
inline void leaf(XmlFile& f, const char* name, const char* text) {
    xmlInlineElement(f, name, text);
}
inline void leaf(XmlFile& f, const char* name, const LightweightString<char>& text) {
    leaf(f, name, text.c_str());
}
// A leaf with wide text, converted to UTF-8 by the output layer.
inline void leaf(XmlFile& f, const char* name, const LightweightString<wchar_t>& text) {
    xmlInlineElement(f, name, text);
}
// A text the writer composes itself from printable ASCII (a fixed word, a
// number it formatted), never one from the edit: it needs no cleaning and
// goes to the printer as it is.
struct Plain {
    const char* text;
};
inline void leaf(XmlFile& f, const char* name, Plain text) {
    f.printer.OpenElement(name, false);
    f.printer.PushText(text.text, false);
    f.printer.CloseElement(false);
}
// A leaf with a whole number, in decimal.
inline void leaf(XmlFile& f, const char* name, int value) {
    char text[16];
    *std::to_chars(text, text + sizeof text - 1, value).ptr = '\0';
    leaf(f, name, Plain{text});
}

// The text of an `id`: `prefix` and then `rest` in UTF-8.
inline std::string idText(const char* prefix, std::wstring_view rest) {
    std::string text(prefix);
    appendUtf8(text, rest);
    return text;
}
// The same with a number after the prefix, in decimal.
inline std::string idText(const char* prefix, long number) {
    char digits[24];
    *std::to_chars(digits, digits + sizeof digits - 1, number).ptr = '\0';
    return std::string(prefix) + digits;
}

// The cookie under which a cel's material is registered: that of the edit
// that holds it.
inline Cookie editCookie(const Cookie& cookie) {
    return convertCookie(cookie, kCookieEdit, 255);
}

// The first cel of the first channel: where a sub-clip's material starts.
inline CED2Cell* firstCelOf(const CED2* ced2) {
    CChannel* ch = ced2 ? ced2->firstChannel() : nullptr;
    return ch ? ch->firstCel() : nullptr;
}

}  // namespace XML::fcp5
