#include "app/checks/XmlText.h"

#include <cctype>
#include <cstdint>

#include "host/LightweightString.h"

namespace qvapp {

namespace {

// Text with its entity and character references decoded and CDATA
// unwrapped, as the host's reader gives the text of a leaf element.
std::string decoded(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text.substr(i, 9) == "<![CDATA[") {
            std::size_t close = text.find("]]>", i + 9);
            std::size_t stop = close == std::string_view::npos ? text.size() : close;
            out.append(text.substr(i + 9, stop - i - 9));
            i = close == std::string_view::npos ? text.size() : close + 2;
            continue;
        }
        if (text[i] != '&') {
            out += text[i];
            continue;
        }
        std::size_t semi = text.find(';', i);
        std::string_view ref =
            semi == std::string_view::npos ? std::string_view() : text.substr(i + 1, semi - i - 1);
        static const std::pair<std::string_view, char> named[] = {
            {"lt", '<'}, {"gt", '>'}, {"amp", '&'}, {"quot", '"'}, {"apos", '\''}};
        bool done = false;
        for (const auto& [n, c] : named)
            if (ref == n) {
                out += c;
                done = true;
            }
        if (!done && ref.size() > 1 && ref[0] == '#') {
            bool hex = ref[1] == 'x' || ref[1] == 'X';
            std::uint32_t v = 0;
            bool ok = ref.size() > (hex ? 2u : 1u);
            for (std::size_t k = hex ? 2 : 1; ok && k < ref.size(); ++k) {
                int d = std::isdigit(static_cast<unsigned char>(ref[k])) ? ref[k] - '0'
                        : hex && std::isxdigit(static_cast<unsigned char>(ref[k]))
                            ? (std::tolower(static_cast<unsigned char>(ref[k])) - 'a' + 10)
                            : -1;
                ok = d >= 0;
                if (ok && v <= 0x10FFFF) v = v * (hex ? 16 : 10) + static_cast<std::uint32_t>(d);
            }
            if (ok) {
                appendUTF8(out,
                           v == 0 || v > 0x10FFFF || (v >= 0xD800 && v <= 0xDFFF) ? 0xFFFD : v);
                done = true;
            }
        }
        if (done) {
            i = semi;
        } else {
            out += '&';
        }
    }
    return out;
}

}  // namespace

// The text of an element as the readers see it: raw when it holds elements,
// decoded otherwise.
std::string leafText(std::string_view inner) {
    bool plain = inner.find_first_of("<&") == std::string_view::npos;
    if (plain) return std::string(inner);
    for (std::size_t at = inner.find('<'); at != std::string_view::npos;
         at = inner.find('<', at + 1))
        if (at + 1 < inner.size() && inner[at + 1] != '!' && inner[at + 1] != '?')
            return std::string(inner);
    return decoded(inner);
}

std::vector<Attribute> attributesOf(std::string_view text, std::size_t wanted) {
    std::vector<Attribute> out;
    std::size_t i = 0;
    auto space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (out.size() < wanted && i < text.size()) {
        while (i < text.size() && (space(text[i]) || text[i] == '/'))
            ++i;
        std::size_t name = i;
        while (i < text.size() && !space(text[i]) && text[i] != '=' && text[i] != '/')
            ++i;
        if (i == name) break;
        Attribute a{text.substr(name, i - name), {}};
        while (i < text.size() && space(text[i]))
            ++i;
        if (i < text.size() && text[i] == '=') {
            ++i;
            while (i < text.size() && space(text[i]))
                ++i;
            if (i < text.size() && (text[i] == '"' || text[i] == '\'')) {
                std::size_t close = text.find(text[i], i + 1);
                std::size_t stop = close == std::string_view::npos ? text.size() : close;
                a.value = decoded(text.substr(i + 1, stop - i - 1));
                i = stop + 1;
            } else {
                std::size_t start = i;
                while (i < text.size() && !space(text[i]))
                    ++i;
                a.value = decoded(text.substr(start, i - start));
            }
        }
        out.push_back(std::move(a));
    }
    return out;
}

std::string attributeValue(std::string_view attributes, std::string_view name) {
    for (Attribute& a : attributesOf(attributes, 64))
        if (a.name == name) return std::move(a.value);
    return {};
}

}  // namespace qvapp
