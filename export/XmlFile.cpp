#include "export/XmlFile.h"

#include <algorithm>
#include <bit>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace XML {

namespace {

void pushAttributes(XmlFile& file, const AttribList& attribs) {
    std::string scratch;
    for (const LightweightString<wchar_t>& a : attribs) {
        auto [name, value] = getAttrib(a);
        file.printer.PushAttribute(name.c_str(), file.writable(value.c_str(), scratch));
    }
}

void pushAttributes(XmlFile& file, std::span<const Attribute> attribs) {
    std::string scratch;
    for (const Attribute& a : attribs)
        file.printer.PushAttribute(a.name, file.writable(a.value ? a.value : "", scratch));
}

// The character at `s`: the length of its UTF-8 sequence, or 0 where the
// bytes are no UTF-8; `allowed` says whether XML 1.0 allows it.
std::size_t character(const unsigned char* s, bool& allowed) {
    unsigned char c = s[0];
    allowed = true;
    if (c < 0x80) {
        allowed = c >= 0x20 || c == 0x09 || c == 0x0A || c == 0x0D;
        return 1;
    }
    std::size_t length;
    std::uint32_t code;
    if (c >= 0xC2 && c <= 0xDF) {
        length = 2;
        code = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        length = 3;
        code = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        length = 4;
        code = c & 0x07;
    } else {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        if ((s[i] & 0xC0) != 0x80) return 0;
        code = (code << 6) | (s[i] & 0x3F);
    }
    // Overlong forms, surrogates and what lies beyond Unicode are no UTF-8.
    static const std::uint32_t least[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < least[length] || (code >= 0xD800 && code <= 0xDFFF) || code > 0x10FFFF) return 0;
    allowed = code != 0xFFFE && code != 0xFFFF;
    return length;
}

// How many bytes `text` begins with that are printable ASCII (from space
// on): eight at a time, then one at a time up to the first that is not (or
// the end).
std::size_t plainLength(const char* text) {
    const std::size_t n = std::strlen(text);
    std::size_t i = 0;
    constexpr std::uint64_t kHigh = 0x8080808080808080ull;
    constexpr std::uint64_t kUp = 0x6060606060606060ull;
    for (; i + 8 <= n; i += 8) {
        std::uint64_t w;
        std::memcpy(&w, text + i, 8);
        // With no high bit set nothing carries between bytes, and a byte
        // lifts past 0x7F exactly when it is a space or above.
        if ((w & kHigh) | (~(w + kUp) & kHigh)) break;
    }
    const auto* s = reinterpret_cast<const unsigned char*>(text);
    while (s[i] >= 0x20 && s[i] < 0x80)
        ++i;
    return i;
}

// Appends `text` to `out` in UTF-8; true when every character is printable
// ASCII (from space on), which no writer needs to clean.
bool appendUtf8Plain(std::string& out, std::wstring_view text) {
    // Most text is ASCII: it goes over a character a byte, four at a time
    // where wide characters are four bytes; from the first character that
    // is not, the rest goes as the host turns it.
    const std::size_t at = out.size(), n = text.size();
    out.resize(at + n);
    char* p = out.data() + at;
    const wchar_t* w = text.data();
    std::size_t i = 0;
    bool plain = true;
    if constexpr (sizeof(wchar_t) == 4 && std::endian::native == std::endian::little) {
        constexpr std::uint64_t kHigh = 0xFFFFFF80FFFFFF80ull;  // bits of no ASCII character
        constexpr std::uint64_t kSpaces = 0x0000002000000020ull;
        constexpr std::uint64_t kSigns = 0x8000000080000000ull;
        for (; i + 4 <= n; i += 4) {
            std::uint64_t a, b;
            std::memcpy(&a, w + i, 8);
            std::memcpy(&b, w + i + 2, 8);
            if ((a | b) & kHigh) break;
            // A character below space turns its half negative (a borrow
            // from the one before may flag a space too: that only sends
            // the text to be looked at).
            if (((a - kSpaces) | (b - kSpaces)) & kSigns) plain = false;
            p[i] = static_cast<char>(a);
            p[i + 1] = static_cast<char>(a >> 32);
            p[i + 2] = static_cast<char>(b);
            p[i + 3] = static_cast<char>(b >> 32);
        }
    }
    for (; i < n && static_cast<char32_t>(w[i]) < 0x80; ++i) {
        if (w[i] < 0x20) plain = false;
        p[i] = static_cast<char>(w[i]);
    }
    if (i == n) return plain;
    out.resize(at + i);
    appendUTF8(out, text.substr(i));
    return false;
}

}  // namespace

void appendUtf8(std::string& out, std::wstring_view text) {
    appendUtf8Plain(out, text);
}

XmlFile::XmlFile() {
    printer.PushDeclaration("xml version=\"1.0\" encoding=\"UTF-8\"");
}

void XmlFile::replaceUnwritableCharacters(LoggerHandle log) {
    replacing_ = true;
    log_ = std::move(log);
}

const char* XmlFile::writable(const char* utf8, std::string& scratch) {
    if (!replacing_ || !utf8) return utf8;
    const auto* s = reinterpret_cast<const unsigned char*>(utf8);
    // Most texts are plain: look before copying.
    std::size_t i = plainLength(utf8);
    if (!s[i]) return utf8;
    scratch.assign(utf8, i);
    bool replaced = false;
    while (s[i]) {
        bool allowed;
        std::size_t n = character(s + i, allowed);
        if (n == 0 || !allowed) {
            scratch += "\xEF\xBF\xBD";  // U+FFFD, for a character or for a byte that is none
            replaced = true;
            i += n == 0 ? 1 : n;
        } else {
            scratch.append(utf8 + i, n);
            i += n;
        }
    }
    if (!replaced) return utf8;
    if (reported_.insert(utf8).second) {
        log_.WarningOut("\"%s\" holds characters that XML cannot carry\n", scratch.c_str());
        log_.WarningOut(" - They are written as U+FFFD\n");
        LossRecord r;
        r.kind = "character-replaced";
        r.detail = scratch.c_str();
        log_.LossOut(r);
    }
    return scratch.c_str();
}

const char* XmlFile::utf8(std::wstring_view text) {
    utf8_.clear();
    appendUtf8Plain(utf8_, text);
    return utf8_.c_str();
}

void XmlFile::pushText(std::wstring_view text) {
    utf8_.clear();
    if (appendUtf8Plain(utf8_, text))
        printer.PushText(utf8_.c_str(), false);
    else
        pushText(utf8_.c_str());
}

void XmlFile::pushText(const char* utf8) {
    std::string scratch;
    printer.PushText(writable(utf8 ? utf8 : "", scratch), false);
}

void Printer::grow(std::size_t more) {
    std::size_t used = held();
    std::size_t capacity = static_cast<std::size_t>(limit_ - buffer_.get());
    capacity = std::max<std::size_t>({capacity * 2, used + more + 1, 4096});
    // Not zeroed: every byte is written before it is read.
    std::unique_ptr<char[]> bigger(new char[capacity]);
    if (used) std::memcpy(bigger.get(), buffer_.get(), used);
    buffer_ = std::move(bigger);
    end_ = buffer_.get() + used;
    limit_ = buffer_.get() + capacity;
}

void Printer::makeRoom(std::size_t more) {
    if (more < room()) return;
    flush();
    if (more >= room()) grow(more);
}

void Printer::streamTo(iFile* file) {
    file_ = file;
    // What was made before the file was opened stays until the buffer is
    // full, as it would have been made with the file.
    if (file_ && limit_ - buffer_.get() < kChunk) grow(kChunk - held());
}

void Printer::writeLong(const char* data, std::size_t size) {
    makeRoom(size);
    if (size) std::memcpy(end_, data, size);
    end_ += size;
}

void Printer::Print(const char* format, ...) {
    // The printer itself writes through Write and Putc; this is here so that
    // nothing it prints can pass the buffer by.
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (length > 0) {
        std::size_t n = static_cast<std::size_t>(length);
        makeRoom(n);
        std::vsnprintf(end_, n + 1, format, again);
        end_ += n;
    }
    va_end(again);
}

void Printer::flush() {
    if (!file_ || held() == 0) return;
    file_->write(buffer_.get(), static_cast<unsigned>(held()));
    streamed_ = true;
    end_ = buffer_.get();
}

void XmlFile::writeTo(Qv::Ptr<iFile> f) {
    file = std::move(f);
    printer.streamTo(file.get());
}

void XmlFile::saveAndClose() {
    if (!file) return;
    printer.CloseElement(false);
    printer.flush();
}

xmlElement::xmlElement(XmlFile& file, const char* name) : file_(file) {
    file_.printer.OpenElement(name, false);
}

xmlElement::xmlElement(XmlFile& file, const char* name, const AttribList& attribs) : file_(file) {
    file_.printer.OpenElement(name, false);
    pushAttributes(file_, attribs);
}

xmlElement::xmlElement(XmlFile& file, const char* name, const Attribute& attribute)
    : xmlElement(file, name, std::span<const Attribute>(&attribute, 1)) {}

xmlElement::xmlElement(XmlFile& file, const char* name, std::span<const Attribute> attribs)
    : file_(file) {
    file_.printer.OpenElement(name, false);
    pushAttributes(file_, attribs);
}

xmlElement::~xmlElement() {
    file_.printer.CloseElement(false);
}

xmlInlineElement::xmlInlineElement(XmlFile& file, const char* name, std::wstring_view text) {
    file.printer.OpenElement(name, false);
    file.pushText(text);
    file.printer.CloseElement(false);
}

xmlInlineElement::xmlInlineElement(XmlFile& file, const char* name, const char* text) {
    file.printer.OpenElement(name, false);
    file.pushText(text);
    file.printer.CloseElement(false);
}

xmlInlineElement::xmlInlineElement(XmlFile& file, const char* name, const Attribute& attribute) {
    file.printer.OpenElement(name, false);
    pushAttributes(file, std::span<const Attribute>(&attribute, 1));
    file.printer.CloseElement(false);
}

xmlInlineElement::xmlInlineElement(XmlFile& file, const char* name, const AttribList& attribs) {
    file.printer.OpenElement(name, false);
    pushAttributes(file, attribs);
    file.printer.CloseElement(false);
}

xmlInlineElement::xmlInlineElement(XmlFile& file, const char* name, const char* text,
                                   const AttribList& attribs) {
    file.printer.OpenElement(name, false);
    pushAttributes(file, attribs);
    std::string scratch;
    file.printer.PushText(file.writable(text ? text : "", scratch), false);
    file.printer.CloseElement(false);
}

std::pair<LightweightString<char>, LightweightString<char>> getAttrib(
    const LightweightString<wchar_t>& attribute) {
    std::wstring_view s = attribute.view();
    long pos = -1;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == L'=') {
            pos = static_cast<long>(i);
            break;
        }
    }
    std::wstring_view name = pos < 0 ? s : s.substr(0, static_cast<size_t>(pos));
    std::wstring_view value;
    size_t start = static_cast<size_t>(pos + 2);
    if (start < s.size()) {
        size_t quote = s.find(L'"', start);
        value = s.substr(
            start, quote == std::wstring_view::npos ? std::wstring_view::npos : quote - start);
    }
    return {toUTF8(name), toUTF8(value)};
}

LightweightString<wchar_t> makeAttrib(const char* name, const LightweightString<wchar_t>& value) {
    return Qv::WStringFromAscii(name) + L"=\"" + value + L"\"";
}

}  // namespace XML
