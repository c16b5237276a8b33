// The XML reader: a single forward scan in the constructor builds a flat table
// of the elements of the text; every question is answered from that table.
//
// The scan looks only at markup. It jumps from one '<' to the next with
// memchr, so text between tags costs next to nothing, and it never recurses:
// open elements live on an explicit stack. Each element records where its
// name, its attributes and its inner text lie in the caller's text, its parent
// and whether it has child elements. Names are interned into small ids while
// scanning; afterwards the elements are bucketed by name id (a counting sort,
// which keeps document order), so that a question finds its answers without
// walking the whole table. Attributes are split, and leaf text decoded, only
// when a question returns the element.
//
// Every scan step moves forward and no step looks past the next '<' except the
// skipping of comments, processing instructions, CDATA sections and
// declarations, which consume the rest of the text when they are not closed.
// So the whole scan is linear in the length of the text, whatever the input.
//
// How damaged markup is read:
// - A closing tag closes the nearest open element of the same name; elements
//   opened inside it and still open end where that closing tag begins. A
//   closing tag whose name is not open is ignored.
// - Elements still open at the end of the text run to the end of the text.
// - A '<' that does not begin well-formed markup is plain text. A start tag
//   that meets another '<' (even inside a quoted value) or the end of the text
//   before its '>' is plain text too, and the scan resumes at that '<'. Raw
//   '<' is never legal inside a tag, and giving up there is what keeps one
//   broken tag from swallowing the rest of the document.
// - A comment, CDATA section, processing instruction or declaration that is
//   not closed runs to the end of the text.
// Since the inner text of an element is cut at such boundaries only, a new
// parser over that inner text reads the same elements as this one does
// inside it.
#include "host/XMLParser.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

using u32 = std::uint32_t;
constexpr u32 kNone = 0xFFFFFFFFu;

// Character classes for the scanner.
constexpr unsigned char kSpace = 1;      // XML white space
constexpr unsigned char kNameStart = 2;  // may begin an element name
constexpr unsigned char kNameStop = 4;   // ends an element or attribute name

constexpr std::array<unsigned char, 256> makeClasses() {
    std::array<unsigned char, 256> t{};
    for (unsigned char c : {' ', '\t', '\r', '\n'})
        t[c] |= kSpace | kNameStop;
    for (unsigned char c : {'/', '>', '<', '=', '"', '\''})
        t[c] |= kNameStop;
    for (int c = 'a'; c <= 'z'; ++c)
        t[c] |= kNameStart;
    for (int c = 'A'; c <= 'Z'; ++c)
        t[c] |= kNameStart;
    t['_'] |= kNameStart;
    t[':'] |= kNameStart;
    for (int c = 0x80; c < 256; ++c)
        t[c] |= kNameStart;  // non-ASCII names
    return t;
}
constexpr std::array<unsigned char, 256> kClasses = makeClasses();

inline unsigned char classOf(char c) {
    return kClasses[static_cast<unsigned char>(c)];
}

constexpr u32 kHashSeed = 2166136261u;  // FNV-1a
inline u32 hashStep(u32 h, char c) {
    return (h ^ static_cast<unsigned char>(c)) * 16777619u;
}

u32 hashName(std::string_view name) {
    u32 h = kHashSeed;
    for (char c : name)
        h = hashStep(h, c);
    return h;
}

// Names are short: a plain loop is quicker than a call to memcmp.
inline bool sameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i] != b[i]) return false;
    return true;
}

const char* find(const char* from, const char* end, std::string_view what) {
    std::string_view rest(from, static_cast<std::size_t>(end - from));
    std::size_t at = rest.find(what);
    return at == std::string_view::npos ? nullptr : from + at;
}

// Skips a construct that begins with "<!" or "<?" at `lt` (lt + 1 < end):
// comment, CDATA section, processing instruction, DOCTYPE or other
// declaration. Returns where it ends (the end of the text if it is not
// closed). For a CDATA section, `cdata` receives the content.
const char* skipMarkup(const char* lt, const char* end, std::string_view* cdata = nullptr) {
    std::string_view rest(lt, static_cast<std::size_t>(end - lt));
    if (lt[1] == '?') {
        const char* close = find(lt + 2, end, "?>");
        return close ? close + 2 : end;
    }
    if (rest.starts_with("<!--")) {
        const char* close = find(lt + 4, end, "-->");
        return close ? close + 3 : end;
    }
    if (rest.starts_with("<![CDATA[")) {
        const char* body = lt + 9;
        const char* close = find(body, end, "]]>");
        if (cdata)
            *cdata = std::string_view(body, static_cast<std::size_t>((close ? close : end) - body));
        return close ? close + 3 : end;
    }
    const char* after = endOfDeclaration(lt, end);
    return after ? after : end;
}

// Decodes the reference at `p` (which points at '&') into `out` and moves `p`
// past it. A reference that is not well formed, or names an entity other than
// the five predefined ones, is left alone (returns false, `p` unchanged).
// Character references to code points XML cannot hold become U+FFFD.
bool decodeReference(const char*& p, const char* end, std::string& out) {
    const char* q = p + 1;
    if (q < end && *q == '#') {
        ++q;
        bool hex = q < end && (*q == 'x' || *q == 'X');
        if (hex) ++q;
        u32 value = 0;
        int digits = 0;
        for (; q < end; ++q, ++digits) {
            char c = *q;
            u32 d;
            if (c >= '0' && c <= '9') {
                d = static_cast<u32>(c - '0');
            } else if (hex && c >= 'a' && c <= 'f') {
                d = static_cast<u32>(c - 'a' + 10);
            } else if (hex && c >= 'A' && c <= 'F') {
                d = static_cast<u32>(c - 'A' + 10);
            } else {
                break;
            }
            value = value * (hex ? 16 : 10) + d;
            if (value > 0x10FFFF) value = 0x110000;  // saturate: stays invalid, cannot overflow
        }
        if (digits == 0 || q >= end || *q != ';') return false;
        if (value == 0 || (value >= 0xD800 && value <= 0xDFFF) || value > 0x10FFFF) value = 0xFFFD;
        appendUTF8(out, value);
        p = q + 1;
        return true;
    }
    static constexpr struct {
        std::string_view name;
        char c;
    } kEntities[] = {{"amp;", '&'}, {"lt;", '<'}, {"gt;", '>'}, {"quot;", '"'}, {"apos;", '\''}};
    std::string_view rest(q, static_cast<std::size_t>(end - q));
    for (const auto& e : kEntities) {
        if (rest.starts_with(e.name)) {
            out += e.c;
            p = q + e.name.size();
            return true;
        }
    }
    return false;
}

// Appends [p, end) to `out` with references decoded. With `markup`, as for the
// text of a leaf element, CDATA sections are unwrapped and comments,
// processing instructions and declarations dropped; any other '<' is kept.
void appendDecoded(std::string& out, const char* p, const char* end, bool markup) {
    while (p < end) {
        const char* run = p;
        while (p < end && *p != '&' && !(markup && *p == '<'))
            ++p;
        out.append(run, static_cast<std::size_t>(p - run));
        if (p >= end) break;
        if (*p == '&') {
            if (!decodeReference(p, end, out)) out += *p++;
        } else if (p + 1 < end && (p[1] == '!' || p[1] == '?')) {
            std::string_view cdata;
            p = skipMarkup(p, end, &cdata);
            out.append(cdata);
        } else {
            out += *p++;
        }
    }
}

// Splits an attribute span ("a='1' b="2"") into name/value pairs in document
// order. Quotes of both kinds; an unquoted value runs to the next white space;
// a name without '=' gets an empty value; stray characters are skipped.
// Values are decoded but otherwise kept as written (white space in them is not
// normalised).
void parseAttributes(const char* p, const char* end, std::vector<XMLParser::Tag>& out) {
    while (p < end) {
        while (p < end && (classOf(*p) & kSpace))
            ++p;
        if (p >= end) break;
        if (classOf(*p) & kNameStop) {
            ++p;
            continue;
        }
        const char* name = p;
        while (p < end && !(classOf(*p) & kNameStop))
            ++p;
        XMLParser::Tag tag;
        tag.name = LightweightString<char>(name, static_cast<std::size_t>(p - name));
        while (p < end && (classOf(*p) & kSpace))
            ++p;
        if (p < end && *p == '=') {
            ++p;
            while (p < end && (classOf(*p) & kSpace))
                ++p;
            const char* value = p;
            const char* valueEnd;
            if (p < end && (*p == '"' || *p == '\'')) {
                ++value;
                const void* close = std::memchr(value, *p, static_cast<std::size_t>(end - value));
                valueEnd = close ? static_cast<const char*>(close) : end;
                p = close ? valueEnd + 1 : end;
            } else {
                while (p < end && !(classOf(*p) & kSpace))
                    ++p;
                valueEnd = p;
            }
            if (std::memchr(value, '&', static_cast<std::size_t>(valueEnd - value))) {
                std::string decoded;
                appendDecoded(decoded, value, valueEnd, false);
                tag.value = LightweightString<char>(decoded);
            } else {
                tag.value =
                    LightweightString<char>(value, static_cast<std::size_t>(valueEnd - value));
            }
        }
        out.push_back(std::move(tag));
    }
}

// 20 bytes an element. The inner text begins after the '>' at attrEnd; for
// an empty element (attrEnd at the '/' of "/>") innerEnd is that same place,
// so its inner text is empty.
struct Element {
    u32 name : 31;  // interned name id
    u32 hasChildren : 1;
    u32 attrBegin, attrEnd;
    u32 innerEnd;
    u32 parent;  // kNone at the top level of the text
};
static_assert(sizeof(Element) == 20);

struct NameSlot {
    u32 begin;  // where the name first appears in the text
    u32 length;
    u32 hash;
    u32 id;  // kNone: free slot
};

}  // namespace

const char* endOfDeclaration(const char* lt, const char* end) {
    int brackets = 0;
    char quote = 0;
    for (const char* p = lt + 2; p < end; ++p) {
        char c = *p;
        if (quote) {
            if (c == quote) quote = 0;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '[') {
            ++brackets;
        } else if (c == ']') {
            if (brackets > 0) --brackets;
        } else if (c == '>') {
            if (brackets == 0) return p + 1;
        } else if (c == '<' &&
                   std::string_view(p, static_cast<std::size_t>(end - p)).starts_with("<!--")) {
            const char* close = find(p + 4, end, "-->");
            if (!close) return nullptr;
            p = close + 2;
        }
    }
    return nullptr;
}

struct XMLParser::Index {
    const char* text = nullptr;
    u32 size = 0;
    std::vector<Element> elements;  // in document order
    std::vector<NameSlot> slots;    // open addressing, power of two
    u32 names = 0;
    std::vector<u32> openCount;    // per name id, during the scan
    std::vector<u32> nameLength;   // per name id, during the scan
    std::vector<u32> firstOfName;  // per name id, into byName; names + 1 entries
    std::vector<u32> byName;       // element numbers grouped by name, document order within

    Index(const char* t, int length) {
        if (!t || length == 0) return;
        std::size_t n = length < 0 ? std::strlen(t) : static_cast<std::size_t>(length);
        text = t;
        size = static_cast<u32>(std::min<std::size_t>(n, 0x7FFFFFFF));
        try {
            scan();
            group();
        } catch (const std::bad_alloc&) {
            // Out of memory on a huge text: answer nothing rather than throw.
            elements.clear();
            names = 0;
            firstOfName.clear();
            byName.clear();
        }
        openCount = {};
        nameLength = {};
    }

    std::string_view nameAt(const NameSlot& s) const { return {text + s.begin, s.length}; }

    u32 intern(u32 begin, u32 length, u32 hash) {
        if (slots.empty() || (names + 1) * 2 > slots.size()) grow();
        std::size_t mask = slots.size() - 1;
        std::string_view name(text + begin, length);
        for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
            NameSlot& s = slots[i];
            if (s.id == kNone) {
                s = {begin, length, hash, names};
                openCount.push_back(0);
                nameLength.push_back(length);
                return names++;
            }
            if (s.hash == hash && sameName(nameAt(s), name)) return s.id;
        }
    }

    u32 lookup(std::string_view name, u32 hash) const {
        if (slots.empty()) return kNone;
        std::size_t mask = slots.size() - 1;
        for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
            const NameSlot& s = slots[i];
            if (s.id == kNone) return kNone;
            if (s.hash == hash && sameName(nameAt(s), name)) return s.id;
        }
    }

    void grow() {
        std::vector<NameSlot> old = std::move(slots);
        slots.assign(old.empty() ? 64 : old.size() * 2, NameSlot{0, 0, 0, kNone});
        std::size_t mask = slots.size() - 1;
        for (const NameSlot& s : old) {
            if (s.id == kNone) continue;
            std::size_t i = s.hash & mask;
            while (slots[i].id != kNone)
                i = (i + 1) & mask;
            slots[i] = s;
        }
    }

    void scan() {
        const char* const base = text;
        const char* const end = text + size;
        const char* p = base;
        if (size >= 3 && std::memcmp(p, "\xEF\xBB\xBF", 3) == 0) p += 3;
        // Every element begins with a '<': counting them first sizes the table
        // once instead of growing it by copies.
        std::size_t marks = 0;
        for (const char* q = p;
             (q = static_cast<const char*>(std::memchr(q, '<', static_cast<std::size_t>(end - q))));
             ++q)
            ++marks;
        elements.reserve(marks);
        std::vector<u32> open;  // the open elements, innermost last
        auto at = [base](const char* q) { return static_cast<u32>(q - base); };

        while (p < end) {
            const char* lt =
                static_cast<const char*>(std::memchr(p, '<', static_cast<std::size_t>(end - p)));
            if (!lt || lt + 1 >= end) break;
            const char* q = lt + 1;
            char c = *q;

            if (c == '!' || c == '?') {
                p = skipMarkup(lt, end);
                continue;
            }

            if (c == '/') {
                const char* name = q + 1;
                const char* t = name;
                while (t < end && !(classOf(*t) & kNameStop))
                    ++t;
                const char* nameEnd = t;
                while (t < end && *t != '>' && *t != '<')
                    ++t;
                if (t >= end || *t == '<') {  // not a closing tag after all
                    p = t;
                    continue;
                }
                p = t + 1;
                std::string_view closing(name, static_cast<std::size_t>(nameEnd - name));
                u32 id = kNone;
                if (!open.empty()) {  // usually it closes the innermost element
                    const Element& top = elements[open.back()];
                    u32 length = nameLength[top.name];
                    if (sameName(closing, std::string_view(text + top.attrBegin - length, length)))
                        id = top.name;
                }
                if (id == kNone) id = lookup(closing, hashName(closing));
                if (id == kNone || openCount[id] == 0) continue;  // stray: ignored
                for (;;) {
                    Element& e = elements[open.back()];
                    open.pop_back();
                    e.innerEnd = at(lt);
                    --openCount[e.name];
                    if (e.name == id) break;
                }
                continue;
            }

            if (!(classOf(c) & kNameStart)) {  // a lone '<' in text
                p = q;
                continue;
            }

            // A start tag: the name, then up to the '>' outside quotes.
            const char* t = q;
            u32 h = kHashSeed;
            while (t < end && !(classOf(*t) & kNameStop))
                h = hashStep(h, *t++);
            const char* nameEnd = t;
            t = endOfTag(t, end);
            if (t >= end || *t == '<') {  // broken tag: plain text, go on from here
                p = t;
                continue;
            }
            bool selfClosing = t[-1] == '/';
            const char* attrEnd = selfClosing ? t - 1 : t;

            u32 id = intern(at(q), static_cast<u32>(nameEnd - q), h);
            u32 parent = open.empty() ? kNone : open.back();
            if (parent != kNone) elements[parent].hasChildren = true;
            elements.push_back(
                {id, 0, at(nameEnd), at(attrEnd), selfClosing ? at(t) : size, parent});
            if (!selfClosing) {
                open.push_back(static_cast<u32>(elements.size() - 1));
                ++openCount[id];
            }
            p = t + 1;
        }
        // Elements still open keep innerEnd == size: they run to the end.
    }

    // Buckets the element numbers by name id, keeping document order.
    void group() {
        firstOfName.assign(names + 1, 0);
        for (const Element& e : elements)
            ++firstOfName[e.name + 1];
        for (u32 i = 1; i <= names; ++i)
            firstOfName[i] += firstOfName[i - 1];
        byName.resize(elements.size());
        for (u32 i = 0; i < elements.size(); ++i)
            byName[firstOfName[elements[i].name]++] = i;
        // Each entry now holds the end of its bucket, that is the start of the next.
        for (u32 i = names; i > 0; --i)
            firstOfName[i] = firstOfName[i - 1];
        firstOfName[0] = 0;
    }

    // The elements of that name: [first, last) in byName.
    std::pair<u32, u32> range(const LightweightString<char>& tag) const {
        std::string_view name = tag.view();
        u32 id = lookup(name, hashName(name));
        if (id == kNone || firstOfName.empty()) return {0, 0};
        return {firstOfName[id], firstOfName[id + 1]};
    }

    Value make(u32 number) const {
        const Element& e = elements[number];
        Value v;
        const char* b = text + e.attrEnd + 1;
        const char* end = text + e.innerEnd;
        if (end > b) {
            std::size_t n = static_cast<std::size_t>(end - b);
            // An element with children keeps its markup, so that it can be
            // parsed again; a leaf gets its text decoded.
            if (e.hasChildren || (!std::memchr(b, '&', n) && !std::memchr(b, '<', n))) {
                v.text = LightweightString<char>(b, n);
            } else {
                std::string decoded;
                decoded.reserve(n);
                appendDecoded(decoded, b, end, true);
                v.text = LightweightString<char>(decoded);
            }
        }
        if (e.attrEnd > e.attrBegin)
            parseAttributes(text + e.attrBegin, text + e.attrEnd, v.attributes);
        return v;
    }
};

XMLParser::XMLParser(const char* text, int length)
    : index_(std::make_shared<Index>(text, length)),
      root_(kNone),
      last_(static_cast<u32>(index_->elements.size())) {}

XMLParser::XMLParser(std::shared_ptr<const Index> index, unsigned int element)
    : index_(std::move(index)), root_(element), first_(element + 1) {
    // The elements inside one are those that begin before its inner text
    // ends: a run that follows it in document order.
    const std::vector<Element>& all = index_->elements;
    u32 end = all[element].innerEnd;
    auto past = std::partition_point(all.begin() + first_, all.end(),
                                     [end](const Element& e) { return e.attrBegin < end; });
    last_ = static_cast<u32>(past - all.begin());
}

XMLParser::~XMLParser() = default;

std::pair<unsigned int, unsigned int> XMLParser::range(const LightweightString<char>& tag) const {
    auto [first, last] = index_->range(tag);
    if (root_ == kNone) return {first, last};
    // Within a bucket the elements stand in document order.
    const u32* b = index_->byName.data();
    u32 lo = static_cast<u32>(std::lower_bound(b + first, b + last, first_) - b);
    u32 hi = static_cast<u32>(std::lower_bound(b + lo, b + last, last_) - b);
    return {lo, hi};
}

std::unique_ptr<XMLParser> XMLParser::view(unsigned int element) const {
    const Element& e = index_->elements[element];
    // Empty inner text: the element is there but tells nothing.
    if (e.innerEnd <= e.attrEnd + 1) return nullptr;
    return std::unique_ptr<XMLParser>(new XMLParser(index_, element));
}

std::unique_ptr<XMLParser> XMLParser::section(const LightweightString<char>& tag,
                                              unsigned int index) const {
    auto [first, last] = range(tag);
    if (index >= last - first) return nullptr;
    return view(index_->byName[first + index]);
}

std::vector<std::unique_ptr<XMLParser>> XMLParser::sections_TopLevel(
    const LightweightString<char>& tag) const {
    auto [first, last] = range(tag);
    std::vector<std::unique_ptr<XMLParser>> out;
    for (u32 i = first; i < last; ++i) {
        u32 number = index_->byName[i];
        if (index_->elements[number].parent == root_) out.push_back(view(number));
    }
    return out;
}

std::vector<XMLParser::Tag> XMLParser::attributes() const {
    std::vector<Tag> out;
    if (root_ == kNone) return out;
    const Element& e = index_->elements[root_];
    if (e.attrEnd > e.attrBegin)
        parseAttributes(index_->text + e.attrBegin, index_->text + e.attrEnd, out);
    return out;
}

namespace {
// The name holds no '<': a tag begins at the last one before its attributes.
std::size_t tagStart(const char* text, std::size_t attrBegin) {
    std::size_t at = attrBegin;
    while (at > 0 && text[at] != '<')
        --at;
    return at;
}
}  // namespace

std::size_t XMLParser::offset() const {
    if (root_ == kNone) return 0;
    return tagStart(index_->text, index_->elements[root_].attrBegin);
}

std::size_t XMLParser::offsetOf(const LightweightString<char>& tag, unsigned int index) const {
    auto [first, last] = range(tag);
    if (index >= last - first) return std::string::npos;
    return tagStart(index_->text, index_->elements[index_->byName[first + index]].attrBegin);
}

unsigned int XMLParser::count(const LightweightString<char>& tag) const {
    auto [first, last] = range(tag);
    return last - first;
}

XMLParser::Value XMLParser::getValue(const LightweightString<char>& tag, unsigned int index) const {
    auto [first, last] = range(tag);
    if (index >= last - first) return {};
    return index_->make(index_->byName[first + index]);
}

std::vector<XMLParser::Value> XMLParser::getValues(const LightweightString<char>& tag) const {
    auto [first, last] = range(tag);
    std::vector<Value> values;
    values.reserve(last - first);
    for (u32 i = first; i < last; ++i)
        values.push_back(index_->make(index_->byName[i]));
    return values;
}

XMLParser::Value XMLParser::getSection(const LightweightString<char>& tag,
                                       unsigned int index) const {
    return getValue(tag, index);
}

std::vector<XMLParser::Value> XMLParser::getSections(const LightweightString<char>& tag) const {
    return getValues(tag);
}

std::vector<XMLParser::Value> XMLParser::getSections_TopLevel(
    const LightweightString<char>& tag) const {
    auto [first, last] = range(tag);
    std::vector<Value> values;
    for (u32 i = first; i < last; ++i) {
        u32 number = index_->byName[i];
        if (index_->elements[number].parent == root_) values.push_back(index_->make(number));
    }
    return values;
}
