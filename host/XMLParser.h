// The host's XML reader: answers questions by element name over a text.
//
// A parser is built over a text (a whole document, or a fragment such as the
// inner text of an element: many top-level elements with plain text around
// them) and indexes its elements once, in the constructor. Questions then ask
// by element name, at any depth, in document order; an outer element comes
// before the elements nested in it.
//
// The text of an element with child elements is its raw inner text, markup
// kept, so that it can be fed to a new parser. The text of a leaf element has
// its entity and character references decoded and CDATA unwrapped. Attribute
// values are decoded. An element that is not there gives a Value with empty
// text and no attributes.
//
// The parser never throws and never crashes: malformed, truncated, hostile or
// deeply nested input only makes questions find less. The caller keeps the
// text alive as long as the parser.
#pragma once

#include <list>
#include <memory>
#include <string_view>
#include <vector>

#include "host/LightweightString.h"

class XMLParser {
  public:
    struct Tag {
        LightweightString<char> name;
        LightweightString<char> value;
    };

    struct Value {
        std::list<LightweightString<char>> strings;  // not used by the plug-in
        LightweightString<char> text;
        std::vector<Tag> attributes;  // in document order
    };

    // `length` -1 means up to the terminating zero.
    XMLParser(const char* text, int length);
    ~XMLParser();

    // The index-th element of that name (or of the text's top level) as a
    // parser of its own over the element's inner text as it is written: it
    // answers as a parser over that text would, but shares this parser's
    // index, so that nothing is copied or scanned again. For an element with
    // children that text is getSection(tag, index).text. A leaf holds no
    // elements, also where its decoded text would read as markup (references
    // such as "&lt;b&gt;", CDATA sections): what is escaped stays text. Null
    // when there is no such element or its inner text is empty. The text
    // given to the first parser must outlive it.
    std::unique_ptr<XMLParser> section(std::string_view tag, unsigned int index) const;
    std::vector<std::unique_ptr<XMLParser>> sections_TopLevel(std::string_view tag) const;
    // For a parser made by section(): the element's attributes, and where its
    // start tag begins in the text of the first parser (0 for a parser made
    // over a text), so that a caller can say where an element stands.
    std::vector<Tag> attributes() const;
    std::size_t offset() const;
    // For a parser made by section(): the number of its element in the index
    // it shares with the first parser (kNoElement for a parser made over a
    // text). With sameIndex() and sectionAt() a reader keeps four bytes to
    // find an element again, where it would keep copies of its texts.
    static constexpr unsigned int kNoElement = 0xFFFFFFFFu;
    unsigned int element() const { return root_; }
    bool sameIndex(const XMLParser& other) const { return index_ == other.index_; }
    // Whether the index of the text could not be made for want of memory:
    // the parser then answers as over an empty text.
    bool outOfMemory() const;
    // The element that element() numbered, as section() gives it; null for a
    // number this index does not hold or an element with nothing inside.
    std::unique_ptr<XMLParser> sectionAt(unsigned int element) const;
    // For a parser made by section(): whether getSection() gives its element
    // a text. Only a leaf that holds nothing but comments, processing
    // instructions and empty CDATA sections has none. For a parser made over
    // a text: whether the text is not empty.
    bool hasText() const;
    // Where the index-th element of that name begins in the text of the first
    // parser, empty or not; npos when there is none.
    std::size_t offsetOf(std::string_view tag, unsigned int index) const;
    // The text of the first parser, that offsets count in: for a caller that
    // says on which line of a document an element stands.
    std::string_view documentText() const;
    XMLParser(const XMLParser&) = delete;
    XMLParser& operator=(const XMLParser&) = delete;

    // The `index`-th element of that name (from 0), at any depth.
    Value getValue(std::string_view tag, unsigned int index) const;
    // Its text alone, or its attributes alone, as getValue gives them: for
    // questions that need only one, so that the other is not made.
    LightweightString<char> getText(std::string_view tag, unsigned int index) const;
    std::vector<Tag> getAttributes(std::string_view tag, unsigned int index) const;
    // Every element of that name, at any depth, in document order.
    std::vector<Value> getValues(std::string_view tag) const;
    // As getValue and getValues, for elements that have children.
    Value getSection(std::string_view tag, unsigned int index) const;
    std::vector<Value> getSections(std::string_view tag) const;
    // How many elements of that name the text holds, at any depth: with
    // getValue(tag, i), a way to walk them one at a time.
    unsigned int count(std::string_view tag) const;
    // Only the elements of that name that are not inside another element of
    // the text.
    std::vector<Value> getSections_TopLevel(std::string_view tag) const;
    // The attributes of each of those elements, without their texts.
    std::vector<std::vector<Tag>> getAttributes_TopLevel(std::string_view tag) const;

  private:
    struct Index;
    XMLParser(std::shared_ptr<const Index> index, unsigned int element);
    std::unique_ptr<XMLParser> view(unsigned int element) const;
    // The numbers of the elements of that name within this parser's text.
    std::pair<unsigned int, unsigned int> range(std::string_view tag) const;
    // The number of the index-th element of that name within this parser's
    // text; 0xFFFFFFFF when there is none.
    unsigned int nth(std::string_view tag, unsigned int index) const;
    // The numbers of the elements of that name directly inside this parser's
    // element (or at the top level of its text), in document order.
    std::vector<unsigned int> topLevel(std::string_view tag) const;

    std::shared_ptr<const Index> index_;
    unsigned int root_;       // the element this parser reads the inside of; none for a text
    unsigned int first_ = 0;  // the elements inside it: [first_, last_)
    unsigned int last_ = 0;
};

// The end of a markup declaration such as "<!DOCTYPE ...>" that begins at
// `lt`: just past its '>', the first that stands outside quotes and outside
// an internal subset in brackets. Comments inside are skipped whole, since
// they may hold quotes and brackets. nullptr when the text ends first.
const char* endOfDeclaration(const char* lt, const char* end);

// Where a tag whose name ends at `t` ends: its '>', the first outside quoted
// attribute values; or a '<' before it (a broken tag), or `end`.
inline const char* endOfTag(const char* t, const char* end) {
    char quote = 0;
    for (; t < end; ++t) {
        char d = *t;
        if (d == '<') break;
        if (quote) {
            if (d == quote) quote = 0;
        } else if (d == '>') {
            break;
        } else if (d == '"' || d == '\'') {
            quote = d;
        }
    }
    return t;
}
