// The XML reader: a single forward scan in the constructor builds a flat table
// of the elements of the text; every question is answered from that table.
//
// The scan looks only at markup. It jumps from one '<' to the next with
// memchr, so text between tags costs next to nothing, and it never recurses:
// open elements live on an explicit stack. Each element records where its
// name, its attributes and its inner text lie in the caller's text, and where
// the run of elements nested in it ends. Names are interned into small ids while
// scanning; afterwards the elements are bucketed by name id (a counting sort,
// which keeps document order), so that a question finds its answers without
// walking the whole table. The table keeps no name of its own: an element's
// name stands in the text just before its attributes. Attributes are split,
// and leaf text decoded, only when a question returns the element.
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

inline std::uint64_t load64(const char* p) {
    std::uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
inline std::uint64_t load32(const char* p) {
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// Names are hashed and compared a word at a time: most are 4 to 16 bytes
// long, read as two words that may overlap. Longer names are hashed whole,
// so that names that differ only in their middle do not all collide.
u32 hashName(std::string_view name) {
    constexpr std::uint64_t kMix = 0x9E3779B97F4A7C15ull;
    const char* p = name.data();
    std::size_t n = name.size();
    std::uint64_t h = (n + 1) * kMix;
    if (n >= 8) {
        for (; n > 8; p += 8, n -= 8)
            h = (h ^ load64(p)) * kMix;
        h = (h ^ load64(p + n - 8)) * kMix;
    } else if (n >= 4) {
        h = (h ^ (load32(p) | load32(p + n - 4) << 32)) * kMix;
    } else if (n > 0) {
        auto byte = [p](std::size_t i) {
            return static_cast<std::uint64_t>(static_cast<unsigned char>(p[i]));
        };
        h = (h ^ (byte(0) | byte(n / 2) << 8 | byte(n - 1) << 16)) * kMix;
    }
    return static_cast<u32>(h >> 32);
}

inline bool sameName(std::string_view a, std::string_view b) {
    std::size_t n = a.size();
    if (n != b.size()) return false;
    const char* p = a.data();
    const char* q = b.data();
    if (n >= 8) {
        for (; n > 8; p += 8, q += 8, n -= 8)
            if (load64(p) != load64(q)) return false;
        return load64(p + n - 8) == load64(q + n - 8);
    }
    if (n >= 4) return load32(p) == load32(q) && load32(p + n - 4) == load32(q + n - 4);
    for (std::size_t i = 0; i < n; ++i)
        if (p[i] != q[i]) return false;
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

// 12 bytes an element. Its name is the text between its '<' and `attrBegin`:
// names hold no '<'. Its start tag ends at the first '>' outside quotes after
// its name, found again when a question needs it: most elements have no
// attributes, so that it is the next byte. The inner text begins after
// that '>'; an empty element ("<a/>") has innerEnd at its '>', so that its
// inner text is empty. The elements nested in one, at any depth, are those
// that follow it in the table up to `end`: its children are the first of
// them and each one's `end` after that.
struct Element {
    u32 attrBegin;  // just past the name
    u32 innerEnd;
    u32 end;  // the number of the first element that is not inside this one
};
static_assert(sizeof(Element) == 12);

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
    bool outOfMemory = false;      // the scan ran out of memory: the index is empty
    std::vector<u32> nameOf;       // per element, during the scan: its name id
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
            // Out of memory on a huge text: answer nothing rather than throw,
            // and say why.
            outOfMemory = true;
            elements.clear();
            names = 0;
            firstOfName.clear();
            byName.clear();
        }
        // What only the scan needed goes back now (`= {}` would keep it).
        nameOf = std::vector<u32>();
        openCount = std::vector<u32>();
        nameLength = std::vector<u32>();
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
        // The table is sized for an element every ten bytes, more than
        // documents hold: pages it does not fill are never touched. A denser
        // text counts what is left of its '<' once, when the table is full,
        // so that it grows by one copy at most.
        elements.reserve(size / 10);
        nameOf.reserve(size / 10);
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
                u32 id = kNone;
                if (!open.empty()) {
                    // Usually it closes the innermost element: its name,
                    // and then no more of a name.
                    const Element& top = elements[open.back()];
                    const u32 topName = nameOf[open.back()];
                    u32 length = nameLength[topName];
                    if (static_cast<std::size_t>(end - name) >= length &&
                        sameName({name, length}, {text + top.attrBegin - length, length}) &&
                        (name + length == end || (classOf(name[length]) & kNameStop))) {
                        id = topName;
                        t = name + length;
                    }
                }
                if (id == kNone)
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
                if (id == kNone) id = lookup(closing, hashName(closing));
                if (id == kNone || openCount[id] == 0) continue;  // stray: ignored
                for (;;) {
                    const u32 number = open.back();
                    open.pop_back();
                    Element& e = elements[number];
                    e.innerEnd = at(lt);
                    e.end = static_cast<u32>(elements.size());
                    --openCount[nameOf[number]];
                    if (nameOf[number] == id) break;
                }
                continue;
            }

            if (!(classOf(c) & kNameStart)) {  // a lone '<' in text
                p = q;
                continue;
            }

            // A start tag: the name, then up to the '>' outside quotes.
            const char* t = q;
            while (t < end && !(classOf(*t) & kNameStop))
                ++t;
            const char* nameEnd = t;
            t = endOfTag(t, end);
            if (t >= end || *t == '<') {  // broken tag: plain text, go on from here
                p = t;
                continue;
            }
            bool selfClosing = t[-1] == '/';

            u32 id = intern(at(q), static_cast<u32>(nameEnd - q),
                            hashName({q, static_cast<std::size_t>(nameEnd - q)}));
            u32 number = static_cast<u32>(elements.size());
            if (number == elements.capacity()) {
                std::size_t room = number + countMarks(lt, end);
                elements.reserve(room);
                nameOf.reserve(room);
            }
            elements.push_back({at(nameEnd), selfClosing ? at(t) : size, number + 1});
            nameOf.push_back(id);
            if (!selfClosing) {
                open.push_back(number);
                ++openCount[id];
            }
            p = t + 1;
        }
        // Elements still open keep innerEnd == size: they run to the end,
        // and hold every element after them.
        for (u32 number : open)
            elements[number].end = static_cast<u32>(elements.size());
    }

    bool hasChildren(const Element& e, u32 number) const { return e.end > number + 1; }

    // How many elements [from, end) can begin at most: one for each '<'.
    static std::size_t countMarks(const char* from, const char* end) {
        std::size_t marks = 0;
        for (const char* q = from;
             (q = static_cast<const char*>(std::memchr(q, '<', static_cast<std::size_t>(end - q))));
             ++q)
            ++marks;
        return marks;
    }

    // Buckets the element numbers by name id, keeping document order.
    void group() {
        firstOfName.assign(names + 1, 0);
        for (u32 id : nameOf)
            ++firstOfName[id + 1];
        for (u32 i = 1; i <= names; ++i)
            firstOfName[i] += firstOfName[i - 1];
        byName.resize(elements.size());
        for (u32 i = 0; i < elements.size(); ++i)
            byName[firstOfName[nameOf[i]]++] = i;
        // Each entry now holds the end of its bucket, that is the start of the next.
        for (u32 i = names; i > 0; --i)
            firstOfName[i] = firstOfName[i - 1];
        firstOfName[0] = 0;
    }

    // Whether the element is named `name`, read from the text: its name runs
    // from just after a '<' to its attributes.
    bool named(const Element& e, std::string_view name) const {
        std::size_t n = name.size();
        return e.attrBegin > n && text[e.attrBegin - n - 1] == '<' &&
               sameName({text + e.attrBegin - n, n}, name);
    }

    // The elements of that name: [first, last) in byName.
    // The id of a name; kNone when no element of the text has it.
    u32 idOf(std::string_view name) const {
        u32 id = lookup(name, hashName(name));
        return firstOfName.empty() ? kNone : id;
    }

    std::pair<u32, u32> range(u32 id) const {
        if (id == kNone) return {0, 0};
        return {firstOfName[id], firstOfName[id + 1]};
    }

    // The '>' that ends an element's start tag, as the scan found it.
    const char* tagEnd(const Element& e) const { return endOfTag(text + e.attrBegin, text + size); }

    // The text of an element as a question returns it.
    LightweightString<char> textOf(u32 number) const {
        const Element& e = elements[number];
        const char* b = tagEnd(e) + 1;
        const char* end = text + e.innerEnd;
        if (end <= b) return {};
        std::size_t n = static_cast<std::size_t>(end - b);
        // An element with children keeps its markup, so that it can be
        // parsed again; a leaf gets its text decoded.
        if (hasChildren(e, number) || (!std::memchr(b, '&', n) && !std::memchr(b, '<', n)))
            return LightweightString<char>(b, n);
        std::string decoded;
        decoded.reserve(n);
        appendDecoded(decoded, b, end, true);
        return LightweightString<char>(decoded);
    }

    std::vector<Tag> attributesOf(u32 number) const {
        const Element& e = elements[number];
        std::vector<Tag> out;
        const char* b = text + e.attrBegin;
        const char* gt = tagEnd(e);
        // Without the '/' of an empty element.
        const char* end = gt[-1] == '/' ? gt - 1 : gt;
        if (end > b) parseAttributes(b, end, out);
        return out;
    }

    // Whether textOf(number) is not empty, without making it. Decoding
    // only ever drops comments, processing instructions and CDATA markup,
    // so only a leaf with a '<' in it needs a closer look.
    bool hasText(u32 number) const {
        const Element& e = elements[number];
        const char* b = tagEnd(e) + 1;
        const char* end = text + e.innerEnd;
        if (end <= b) return false;
        if (hasChildren(e, number) || *b != '<') return true;
        return !textOf(number).empty();
    }

    Value make(u32 number) const {
        Value v;
        v.text = textOf(number);
        v.attributes = attributesOf(number);
        return v;
    }
};

XMLParser::XMLParser(const char* text, int length)
    : index_(std::make_shared<Index>(text, length)),
      root_(kNone),
      last_(static_cast<u32>(index_->elements.size())) {}

XMLParser::XMLParser(std::shared_ptr<const Index> index, unsigned int element)
    : index_(std::move(index)),
      root_(element),
      first_(element + 1),
      last_(index_->elements[element].end) {}

XMLParser::~XMLParser() = default;

std::pair<unsigned int, unsigned int> XMLParser::range(std::string_view tag) const {
    auto [first, last] = index_->range(index_->idOf(tag));
    if (root_ == kNone) return {first, last};
    // Within a bucket the elements stand in document order.
    const u32* b = index_->byName.data();
    u32 lo = static_cast<u32>(std::lower_bound(b + first, b + last, first_) - b);
    u32 hi = static_cast<u32>(std::lower_bound(b + lo, b + last, last_) - b);
    return {lo, hi};
}

unsigned int XMLParser::nth(std::string_view tag, unsigned int index) const {
    const Index& x = *index_;
    u32 id = x.idOf(tag);
    auto [first, last] = x.range(id);
    if (root_ == kNone) return index < last - first ? x.byName[first + index] : kNone;
    if (id == kNone) return kNone;
    // The first elements of a section are walked: what a reader asks of an
    // element usually stands near its start, and a walk reads neighbours in
    // memory where a search of the name's bucket, which holds every element
    // of that name in the document, jumps about. Past them the bucket is
    // searched.
    constexpr u32 kWalk = 64;
    u32 stop = last_ - first_ <= kWalk ? last_ : first_ + kWalk;
    for (u32 i = first_; i < stop; ++i)
        if (x.named(x.elements[i], tag) && index-- == 0) return i;
    if (stop == last_) return kNone;
    const u32* b = x.byName.data();
    const u32* lo = std::lower_bound(b + first, b + last, stop);
    if (index >= static_cast<u32>(b + last - lo)) return kNone;
    return lo[index] < last_ ? lo[index] : kNone;
}

std::unique_ptr<XMLParser> XMLParser::view(unsigned int element) const {
    const Element& e = index_->elements[element];
    // Empty inner text: the element is there but tells nothing.
    if (index_->text + e.innerEnd <= index_->tagEnd(e) + 1) return nullptr;
    return std::unique_ptr<XMLParser>(new XMLParser(index_, element));
}

std::unique_ptr<XMLParser> XMLParser::sectionAt(unsigned int element) const {
    if (element >= index_->elements.size()) return nullptr;
    return view(element);
}

std::unique_ptr<XMLParser> XMLParser::section(std::string_view tag, unsigned int index) const {
    u32 number = nth(tag, index);
    return number == kNone ? nullptr : view(number);
}

std::vector<unsigned int> XMLParser::topLevel(std::string_view tag) const {
    std::vector<u32> out;
    auto [first, last] = range(tag);
    if (first == last) return out;
    // The children are the first element inside and each one's end after
    // that: a walk that skips whatever is nested deeper, beside the elements
    // of that name inside, in document order too. A child is one of them
    // when both walks meet on it.
    const std::vector<Element>& all = index_->elements;
    const u32* named = index_->byName.data();
    for (u32 i = first_, k = first; i < last_ && k < last; i = all[i].end) {
        while (k < last && named[k] < i)
            ++k;
        if (k < last && named[k] == i) out.push_back(i);
    }
    return out;
}

std::vector<std::unique_ptr<XMLParser>> XMLParser::sections_TopLevel(std::string_view tag) const {
    std::vector<std::unique_ptr<XMLParser>> out;
    for (u32 number : topLevel(tag))
        out.push_back(view(number));
    return out;
}

std::vector<XMLParser::Tag> XMLParser::attributes() const {
    if (root_ == kNone) return {};
    return index_->attributesOf(root_);
}

bool XMLParser::outOfMemory() const {
    return index_ && index_->outOfMemory;
}

bool XMLParser::hasText() const {
    if (root_ == kNone) return index_->size > 0;
    return index_->hasText(root_);
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

std::string_view XMLParser::documentText() const {
    if (!index_ || !index_->text) return {};
    return {index_->text, index_->size};
}

std::size_t XMLParser::offsetOf(std::string_view tag, unsigned int index) const {
    u32 number = nth(tag, index);
    if (number == kNone) return std::string::npos;
    return tagStart(index_->text, index_->elements[number].attrBegin);
}

unsigned int XMLParser::count(std::string_view tag) const {
    auto [first, last] = range(tag);
    return last - first;
}

XMLParser::Value XMLParser::getValue(std::string_view tag, unsigned int index) const {
    u32 number = nth(tag, index);
    return number == kNone ? Value() : index_->make(number);
}

LightweightString<char> XMLParser::getText(std::string_view tag, unsigned int index) const {
    u32 number = nth(tag, index);
    return number == kNone ? LightweightString<char>() : index_->textOf(number);
}

std::vector<XMLParser::Tag> XMLParser::getAttributes(std::string_view tag,
                                                     unsigned int index) const {
    u32 number = nth(tag, index);
    return number == kNone ? std::vector<Tag>() : index_->attributesOf(number);
}

std::vector<XMLParser::Value> XMLParser::getValues(std::string_view tag) const {
    auto [first, last] = range(tag);
    std::vector<Value> values;
    values.reserve(last - first);
    for (u32 i = first; i < last; ++i)
        values.push_back(index_->make(index_->byName[i]));
    return values;
}

XMLParser::Value XMLParser::getSection(std::string_view tag, unsigned int index) const {
    return getValue(tag, index);
}

std::vector<XMLParser::Value> XMLParser::getSections(std::string_view tag) const {
    return getValues(tag);
}

std::vector<XMLParser::Value> XMLParser::getSections_TopLevel(std::string_view tag) const {
    std::vector<Value> values;
    for (u32 number : topLevel(tag))
        values.push_back(index_->make(number));
    return values;
}

std::vector<std::vector<XMLParser::Tag>> XMLParser::getAttributes_TopLevel(
    std::string_view tag) const {
    std::vector<std::vector<Tag>> out;
    for (u32 number : topLevel(tag))
        out.push_back(index_->attributesOf(number));
    return out;
}
