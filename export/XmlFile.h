// The output layer that every writer builds its document through.
//
// A document is built by a tinyxml2 printer. Once its file is open, what the
// printer has made goes to the file a piece at a time, so that a long
// document is never held whole in memory; before that (and in tests, which
// open no file) it stays in the printer. Elements close at the end of their
// scope, so that the nesting of the code is
// the nesting of the XML. Texts and attributes are handed to the printer in
// UTF-8, and it escapes them as it writes them; wide texts are turned into
// UTF-8 on the way, into a buffer the file keeps for that. Attributes may also
// be handed over as ready-made wide strings of the form name="value".
#pragma once

#include <tinyxml2.h>

#include <cstring>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "host/LightweightString.h"
#include "host/Logger.h"
#include "host/OS.h"

namespace XML {

using AttribList = std::vector<LightweightString<wchar_t>>;

// One attribute in UTF-8; a null value counts as empty.
struct Attribute {
    const char* name;
    const char* value;
};

// Appends `text` to `out` in UTF-8. What is no Unicode character (a
// surrogate, a value past U+10FFFF) becomes U+FFFD, as toUTF8 has it.
void appendUtf8(std::string& out, std::wstring_view text);

// The printer, made safe against closing more elements than were opened (the
// root of a document that no writer began, say): such a close does nothing.
// What it makes goes into a buffer of its own rather than the printer's, so
// that each small piece costs an append. Given a file (streamTo), the buffer
// is a chunk that goes to the file whenever it is full, so that a long
// document is never held whole; without one the buffer grows.
class Printer : public tinyxml2::XMLPrinter {
  public:
    Printer() : tinyxml2::XMLPrinter(nullptr, false, 0) {}
    int openElements() const { return _stack.Size(); }
    void CloseElement(bool compactMode = false) override {
        if (openElements() > 0) tinyxml2::XMLPrinter::CloseElement(compactMode);
    }
    // From now on pieces go to `file` (null: they stay in memory).
    void streamTo(iFile* file);
    // Hands the file what is held; true when anything went to it so far.
    void flush();
    bool streamed() const { return streamed_; }
    // What is held: the whole document when no file was given.
    const char* text() const {
        if (!buffer_) return "";
        *end_ = '\0';  // there is always room for it
        return buffer_.get();
    }

    // The buffer's size while a file takes what is made: what is held in
    // memory at most before it goes to the file (unless a single piece is
    // longer). Small enough for the allocator to take from the memory that
    // reading freed, where a bigger block would be mapped afresh, a page
    // fault a page.
    static constexpr int kChunk = 1 << 16;

  protected:
    // The printer writes a document in pieces of a few bytes each ("<", a
    // name, ">"), several for every element: each costs a comparison and a
    // copy of fixed size, the rest is out of line.
    using tinyxml2::XMLPrinter::Write;
    void Write(const char* data, size_t size) override {
        // The rare cases go out of line, so that this one saves no
        // registers and makes no call of its own.
        if (size > 16 || size >= room()) [[unlikely]]
            return writeLong(data, size);
        char* at = end_;
        // Up to 16 bytes: two copies of fixed size that overlap, reading
        // within the piece only; the shortest first, as most pieces are "<",
        // ">" or "</".
        if (size < 4) {
            if (size > 0) {
                at[0] = data[0];
                at[size / 2] = data[size / 2];
                at[size - 1] = data[size - 1];
            }
        } else if (size < 8) {
            std::memcpy(at, data, 4);
            std::memcpy(at + size - 4, data + size - 4, 4);
        } else {
            std::memcpy(at, data, 8);
            std::memcpy(at + size - 8, data + size - 8, 8);
        }
        end_ = at + size;
    }
    void Putc(char c) override {
        if (room() <= 1) [[unlikely]]
            return writeLong(&c, 1);
        *end_++ = c;
    }
    // The indentation of a line in one piece: four spaces a level, as the
    // printer's own writes them a level at a time. They are copied 32 at a
    // time from a row of spaces, the last copy running on into the free room
    // (which the next piece writes over).
    void PrintSpace(int depth) override {
        std::size_t n = depth > 0 ? 4 * static_cast<std::size_t>(depth) : 0;
        if (n + kSpaceRow >= room()) [[unlikely]]
            makeRoom(n + kSpaceRow);
        char* at = end_;
        for (std::size_t i = 0; i < n; i += kSpaceRow)
            std::memcpy(at + i, kSpaces, kSpaceRow);
        end_ = at + n;
    }
    void Print(const char* format, ...) override;

  private:
    std::size_t held() const { return static_cast<std::size_t>(end_ - buffer_.get()); }
    // Bytes free, one of them kept for the zero after the text.
    std::size_t room() const { return static_cast<std::size_t>(limit_ - end_); }
    // Makes room for `more` bytes and the zero after them.
    void grow(std::size_t more);
    // The same, handing the file what is held first when there is one.
    void makeRoom(std::size_t more);
    // Write's long pieces, and the pieces that do not fit.
    void writeLong(const char* data, std::size_t size);

    static constexpr std::size_t kSpaceRow = 32;
    static constexpr char kSpaces[kSpaceRow + 1] = "                                ";

    std::unique_ptr<char[]> buffer_;
    char* end_ = nullptr;
    char* limit_ = nullptr;  // the end of the buffer
    iFile* file_ = nullptr;
    bool streamed_ = false;
};

class XmlFile {
  public:
    // Starts the document with its XML declaration.
    XmlFile();
    XmlFile(const XmlFile&) = delete;
    XmlFile& operator=(const XmlFile&) = delete;

    // The file the document goes to, opened for writing: what the printer
    // has made so far goes to it now, the rest as it is made.
    void writeTo(Qv::Ptr<iFile> f);
    // Closes the root element and writes what is left of the document to
    // `file`. Does nothing if no file was opened.
    void saveAndClose();
    // Whether part of the document is in its file already: a writer that
    // fails after that must not leave the part behind.
    bool streamed() const { return printer.streamed(); }

    // The document so far, for tests, which open no file (with a file, only
    // what has not gone to it yet).
    const char* text() const { return printer.text(); }

    // From now on, text and attribute values that hold characters XML 1.0
    // cannot carry (control characters such as ESC or BEL, bytes that are no
    // UTF-8) are written with U+FFFD in their place, and `log` is told once
    // for each text. Without this a document that holds such a name is not
    // well-formed, and no reader opens it.
    void replaceUnwritableCharacters(LoggerHandle log);
    // `utf8` as it may be written: itself, or the cleaned copy kept in
    // `scratch`.
    const char* writable(const char* utf8, std::string& scratch);
    // `text` in UTF-8, held until the next call.
    const char* utf8(std::wstring_view text);
    // A text of the element just opened, in UTF-8 (null counts as empty).
    void pushText(const char* utf8);
    // A wide text of the element just opened.
    void pushText(std::wstring_view text);

    Qv::Ptr<iFile> file;
    Printer printer;

  private:
    bool replacing_ = false;
    std::string utf8_;  // what utf8() made last
    LoggerHandle log_;
    std::unordered_set<std::string> reported_;
};

class xmlElement {
  public:
    xmlElement(XmlFile& file, const char* name);
    xmlElement(XmlFile& file, const char* name, const AttribList& attribs);
    xmlElement(XmlFile& file, const char* name, const Attribute& attribute);
    xmlElement(XmlFile& file, const char* name, std::span<const Attribute> attribs);
    ~xmlElement();
    xmlElement(const xmlElement&) = delete;
    xmlElement& operator=(const xmlElement&) = delete;

  private:
    XmlFile& file_;
};

// An element opened and closed at once.
class xmlInlineElement {
  public:
    // With text; a null text counts as empty and still makes a start and an
    // end tag.
    xmlInlineElement(XmlFile& file, const char* name, const wchar_t* text)
        : xmlInlineElement(file, name, std::wstring_view(text ? text : L"")) {}
    xmlInlineElement(XmlFile& file, const char* name, const LightweightString<wchar_t>& text)
        : xmlInlineElement(file, name, text.view()) {}
    xmlInlineElement(XmlFile& file, const char* name, std::wstring_view text);
    // UTF-8 text; a null text counts as empty.
    xmlInlineElement(XmlFile& file, const char* name, const char* text);
    // Attributes and no content: a self-closed element.
    xmlInlineElement(XmlFile& file, const char* name, const AttribList& attribs);
    xmlInlineElement(XmlFile& file, const char* name, const Attribute& attribute);
    // Attributes and UTF-8 text.
    xmlInlineElement(XmlFile& file, const char* name, const char* text, const AttribList& attribs);
};

// Splits name="value" into its name and value, in UTF-8. The character after
// the '=' is skipped unread, the value ends at the next double quote (or the
// end of the text), and nothing is unescaped or trimmed. Without an '=' the
// whole text is the name and the value starts at its second character.
std::pair<LightweightString<char>, LightweightString<char>> getAttrib(
    const LightweightString<wchar_t>& attribute);

// Builds the attribute string name="value".
LightweightString<wchar_t> makeAttrib(const char* name, const LightweightString<wchar_t>& value);

}  // namespace XML
