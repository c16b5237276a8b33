#include "app/checks/Encoding.h"

#include <cstdint>
#include <string_view>

namespace qvapp {

namespace {

bool isSpace(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string upper(std::string_view s) {
    std::string out(s);
    for (char& c : out)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
    return out;
}

// Where the encoding's value stands in an XML declaration at the start of
// `text`: false when there is no declaration or it names no encoding.
bool findEncoding(std::string_view text, std::size_t& at, std::size_t& length) {
    if (!text.starts_with("<?xml") || text.size() < 6 || !isSpace(text[5])) return false;
    std::size_t end = text.find("?>");
    if (end == std::string_view::npos) return false;
    std::string_view declaration = text.substr(0, end);
    for (std::size_t key = declaration.find("encoding"); key != std::string_view::npos;
         key = declaration.find("encoding", key + 1)) {
        if (!isSpace(declaration[key - 1])) continue;
        std::size_t q = key + 8;
        while (q < declaration.size() && isSpace(declaration[q]))
            ++q;
        if (q >= declaration.size() || declaration[q] != '=') continue;
        ++q;
        while (q < declaration.size() && isSpace(declaration[q]))
            ++q;
        if (q >= declaration.size() || (declaration[q] != '"' && declaration[q] != '\'')) continue;
        std::size_t close = declaration.find(declaration[q], q + 1);
        if (close == std::string_view::npos) return false;
        at = q + 1;
        length = close - at;
        return true;
    }
    return false;
}

// Windows-1252's characters for the bytes 0x80 to 0x9F; the five it leaves
// undefined are taken as the C1 controls of their number, as Windows does.
const char16_t kWindows1252[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                   0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                   0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                   0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

void append(std::string& out, std::uint32_t c) {
    if (c < 0x80) {
        out.push_back(static_cast<char>(c));
    } else if (c < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (c >> 6)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xE0 | (c >> 12)));
        out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
    }
}

}  // namespace

DeclaredEncoding toUtf8(std::string& bytes) {
    DeclaredEncoding e;
    std::string_view text(bytes);
    if (text.starts_with("\xEF\xBB\xBF")) return e;  // UTF-8 by its byte order mark
    if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF") ||
        text.starts_with(std::string_view("\0\0\xFE\xFF", 4))) {
        e.name = text.starts_with(std::string_view("\xFF\xFE\0\0", 4)) ||
                         text.starts_with(std::string_view("\0\0\xFE\xFF", 4))
                     ? "UTF-32"
                     : "UTF-16";
        e.readable = false;
        return e;
    }
    std::size_t at = 0, length = 0;
    if (!findEncoding(text.substr(0, 1024), at, length)) return e;
    e.name = std::string(text.substr(at, length));
    const std::string name = upper(e.name);
    if (name == "UTF-8" || name == "UTF8" || name == "US-ASCII" || name == "ASCII") return e;
    const bool latin1 = name == "ISO-8859-1" || name == "ISO8859-1" || name == "ISO_8859-1" ||
                        name == "LATIN1" || name == "LATIN-1" || name == "L1" ||
                        name == "ISO-IR-100" || name == "CP819" || name == "IBM819";
    const bool windows = name == "WINDOWS-1252" || name == "CP1252" || name == "X-CP1252";
    if (!latin1 && !windows) {
        e.readable = false;
        return e;
    }
    std::string out;
    out.reserve(bytes.size() + bytes.size() / 8);
    out.append(bytes, 0, at);
    out += "UTF-8";
    for (std::size_t i = at + length; i < bytes.size(); ++i) {
        unsigned char b = static_cast<unsigned char>(bytes[i]);
        if (b < 0x80)
            out.push_back(static_cast<char>(b));
        else if (windows && b < 0xA0)
            append(out, kWindows1252[b - 0x80]);
        else
            append(out, b);
    }
    bytes = std::move(out);
    e.converted = true;
    return e;
}

}  // namespace qvapp
