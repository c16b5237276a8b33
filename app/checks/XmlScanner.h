// The scan behind checkXml, as a template on what watches it, so that a
// watcher of a known type (the QVXML audit) is called without an indirect
// call per element. Only app/checks/WellFormed.cpp and app/checks/NativeAudit.cpp use it.
//
// Longer than the command's other files: the scan is one pass over the
// bytes, and each kind of markup (tags, attributes, references, comments,
// processing instructions, CDATA, the declaration) is read where the pass
// meets it, with the limits checked on the way.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "app/checks/WellFormed.h"
#include "host/XMLParser.h"

namespace qvapp::scan {

// The offset of the first byte of `text` that is not UTF-8, or that begins a
// character XML does not allow in a document (C0 controls other than tab,
// line feed and carriage return; U+FFFE, U+FFFF); npos when there is none.
// `what` then says what stands there.
std::size_t firstForbidden(std::string_view text, std::string& what);
// Whether a character may stand in a document (as itself or as a reference).
bool isXmlChar(std::uint32_t c);
// Why a name that holds bytes past ASCII is no XML name: empty when it is
// one, or when it is not UTF-8 (firstForbidden says that).
std::string damagedName(std::string_view name);

// Character classes.
constexpr unsigned char kSpace = 1;      // XML white space
constexpr unsigned char kNameStart = 2;  // may begin a name
constexpr unsigned char kName = 4;       // may stand in a name
constexpr unsigned char kLooseStop = 8;  // ends a name for the host's reader

constexpr std::array<unsigned char, 256> makeClasses() {
    std::array<unsigned char, 256> t{};
    for (unsigned char c : {' ', '\t', '\r', '\n'})
        t[c] |= kSpace | kLooseStop;
    for (unsigned char c : {'/', '>', '<', '=', '"', '\''})
        t[c] |= kLooseStop;
    for (int c = 'a'; c <= 'z'; ++c)
        t[c] |= kNameStart | kName;
    for (int c = 'A'; c <= 'Z'; ++c)
        t[c] |= kNameStart | kName;
    for (int c = '0'; c <= '9'; ++c)
        t[c] |= kName;
    for (unsigned char c : {'_', ':'})
        t[c] |= kNameStart | kName;
    for (unsigned char c : {'-', '.'})
        t[c] |= kName;
    for (int c = 0x80; c < 256; ++c)
        t[c] |= kNameStart | kName;  // names in any script
    return t;
}
constexpr std::array<unsigned char, 256> kClasses = makeClasses();

inline bool is(char c, unsigned char cls) {
    return (kClasses[static_cast<unsigned char>(c)] & cls) != 0;
}

// The next '<' from `p`, or `end`. The stretches between tags are short as a
// rule (indentation, a leaf's text): eight bytes are looked at at a time
// before the library's search takes over a long one.
inline const char* nextTag(const char* p, const char* end) {
    const char* stop = end - p > 64 ? p + 64 : end;
    while (stop - p >= 8) {
        std::uint64_t w;
        std::memcpy(&w, p, 8);
        std::uint64_t x = w ^ 0x3c3c3c3c3c3c3c3cULL;  // '<' becomes 0
        std::uint64_t found = (x - 0x0101010101010101ULL) & ~x & 0x8080808080808080ULL;
        if (found) return p + (__builtin_ctzll(found) >> 3);
        p += 8;
    }
    while (p < stop && *p != '<')
        ++p;
    if (p < stop || p == end) return p;
    const void* lt = std::memchr(p, '<', static_cast<std::size_t>(end - p));
    return lt ? static_cast<const char*>(lt) : end;
}

inline const char* findText(const char* from, const char* end, std::string_view what) {
    std::string_view rest(from, static_cast<std::size_t>(end - from));
    std::size_t at = rest.find(what);
    return at == std::string_view::npos ? nullptr : from + at;
}

struct Open {
    std::uint32_t name;    // offset of the name
    std::uint32_t length;  // of the name
    std::uint32_t tag;     // offset of the '<'
    std::uint32_t inner;   // offset of its inner text
    int group;             // its group of unnested names, or -1
};

template <typename Observer>
class Scanner {
  public:
    Scanner(std::string_view text, const XmlLimits& limits, Observer* observer)
        : text_(text), limits_(limits), observer_(observer) {
        groupOpen_.assign(limits.unnested.size(), 0);
        for (std::size_t g = 0; g < limits.unnested.size(); ++g)
            for (const std::string& name : limits.unnested[g]) {
                if (name.empty()) continue;
                unnested_.push_back({name.data(), name.size(), name[0], static_cast<int>(g)});
                if (name.size() < 64)
                    lengthsByFirst_[static_cast<unsigned char>(name[0])] |= std::uint64_t{1}
                                                                            << name.size();
                if (name.size() > longestUnnested_) longestUnnested_ = name.size();
            }
    }

    XmlCheck run() {
        const char* base = text_.data();
        const char* end = base + text_.size();
        // The host's reader stops at a NUL byte: so does everything here, and
        // the NUL is a fault if nothing comes before it.
        if (const void* nul = std::memchr(base, '\0', text_.size()))
            end = static_cast<const char*>(nul);
        end_ = end;
        const char* p = base;
        if (text_.size() >= 3 && std::memcmp(p, "\xEF\xBB\xBF", 3) == 0) p += 3;
        ampNext_ = nextAmp(p);
        // Bytes that are not UTF-8 and characters XML forbids: one pass of
        // its own, quick over plain text; the first fault in the text wins.
        std::string forbidden;
        const std::size_t badAt =
            firstForbidden(std::string_view(p, static_cast<std::size_t>(end - p)), forbidden);
        const std::size_t textStart = at(p);
        while (p && p < end && !check_.limit)
            p = malformed() ? loose(p) : strict(p);
        if (badAt != std::string_view::npos && !check_.limit) {
            const std::size_t offset = textStart + badAt;
            if (!malformed() || offset < check_.malformed.at.offset)
                check_.malformed = {true, placeOf(text_, offset), std::move(forbidden)};
        }
        if (!check_.limit && !malformed()) {
            if (end < base + text_.size())
                fault(at(end), "a NUL byte stands in the text, where reading stops");
            else if (!open_.empty())
                fault(at(end), "the document ends before " + tagAt(open_.back()) +
                                   " is closed; it is cut short");
            else if (!rootSeen_)
                fault(at(end), "it holds no element");
        }
        // What is still open runs to the end of the text, as the host's reader
        // reads it.
        if (!check_.limit)
            while (!open_.empty())
                pop(end);
        return std::move(check_);
    }

  private:
    bool malformed() const { return check_.malformed.found; }
    std::size_t at(const char* p) const { return static_cast<std::size_t>(p - text_.data()); }

    void fault(std::size_t offset, std::string what) {
        if (malformed()) return;
        check_.malformed = {true, placeOf(text_, offset), std::move(what)};
    }
    void limit(std::size_t offset, std::string what) {
        check_.limit = {true, placeOf(text_, offset), std::move(what)};
    }

    std::string nameOf(const Open& o) const { return std::string(text_.substr(o.name, o.length)); }
    // "<Chan> (line 3, column 5)"
    std::string tagAt(const Open& o) const {
        XmlPlace where = placeOf(text_, o.tag);
        return "<" + nameOf(o) + "> (line " + std::to_string(where.line) + ", column " +
               std::to_string(where.column) + ")";
    }

    // ---- entity and character references ----

    const char* nextAmp(const char* from) const {
        if (from >= end_) return end_;
        const void* a = std::memchr(from, '&', static_cast<std::size_t>(end_ - from));
        return a ? static_cast<const char*>(a) : end_;
    }
    // Every '&' before `to`: checked when it stands in [from, to) and `check`
    // is set, passed over otherwise (it lies in a comment, CDATA or a tag).
    void amps(const char* from, const char* to, bool check) {
        while (ampNext_ < to) {
            if (check && ampNext_ >= from && !malformed()) reference(ampNext_, to);
            ampNext_ = nextAmp(ampNext_ + 1);
        }
    }
    void reference(const char* a, const char* to) {
        const char* q = a + 1;
        if (q < to && *q == '#') {
            ++q;
            bool hex = q < to && *q == 'x';
            if (hex) ++q;
            std::uint32_t value = 0;
            const char* digits = q;
            for (; q < to; ++q) {
                char c = *q;
                int d = c >= '0' && c <= '9'          ? c - '0'
                        : hex && c >= 'a' && c <= 'f' ? c - 'a' + 10
                        : hex && c >= 'A' && c <= 'F' ? c - 'A' + 10
                                                      : -1;
                if (d < 0) break;
                if (value <= 0x10FFFF) value = value * (hex ? 16 : 10) + static_cast<unsigned>(d);
            }
            if (q == digits || q >= to || *q != ';') {
                fault(at(a),
                      "a '&' begins no entity or character reference (text writes it as "
                      "&amp;)");
            } else if (!isXmlChar(value)) {
                // A character a document may not hold is not held through
                // a reference either.
                fault(at(a), std::string(a, q + 1) + " names no character XML allows");
            }
            return;
        }
        if (q < to && is(*q, kNameStart)) {
            const char* name = q;
            while (q < to && is(*q, kName))
                ++q;
            if (q < to && *q == ';') {
                std::string_view entity(name, static_cast<std::size_t>(q - name));
                if (!knownEntity(entity))
                    fault(at(a), "&" + std::string(entity) +
                                     "; is no entity of XML's own (&amp; &lt; &gt; &quot; "
                                     "&apos;) and the document declares none of that name");
                return;
            }
        }
        fault(at(a), "a '&' begins no entity or character reference (text writes it as &amp;)");
    }

    bool knownEntity(std::string_view name) const {
        if (name == "amp" || name == "lt" || name == "gt" || name == "quot" || name == "apos")
            return true;
        return std::find(declared_.begin(), declared_.end(), name) != declared_.end();
    }
    // The general entities a document type declares in its internal subset.
    void declareEntities(const char* from, const char* to) {
        for (const char* d = findText(from, to, "<!ENTITY"); d;
             d = findText(d + 8, to, "<!ENTITY")) {
            const char* q = d + 8;
            while (q < to && is(*q, kSpace))
                ++q;
            if (q >= to || *q == '%') continue;  // a parameter entity
            const char* name = q;
            while (q < to && is(*q, kName))
                ++q;
            if (q > name) declared_.emplace_back(name, static_cast<std::size_t>(q - name));
        }
    }

    // ---- elements ----

    int groupOf(const char* name, std::size_t length) const {
        // Most names are told apart by their first character and length.
        if (length >= 64 || !((lengthsByFirst_[static_cast<unsigned char>(name[0])] >> length) & 1))
            return -1;
        for (const Unnested& u : unnested_)
            if (u.length == length && u.first == name[0] &&
                std::equal(u.name, u.name + length, name))
                return u.group;
        return -1;
    }

    // `attributes` to `attributesEnd` is the text after the name; the inner
    // text begins at `inner`.
    void push(const char* lt, const char* name, std::size_t length, const char* attributes,
              const char* attributesEnd, const char* inner) {
        Open o{static_cast<std::uint32_t>(at(name)), static_cast<std::uint32_t>(length),
               static_cast<std::uint32_t>(at(lt)), static_cast<std::uint32_t>(at(inner)), -1};
        if (!limits_.unnested.empty()) {
            o.group = groupOf(name, length);
            if (o.group >= 0 && groupOpen_[o.group] > 0) {
                for (auto it = open_.rbegin(); it != open_.rend(); ++it)
                    if (it->group == o.group) {
                        limit(at(lt), "<" + std::string(name, length) + "> stands inside " +
                                          tagAt(*it) + ", which " + limits_.format + " never does");
                        return;
                    }
            }
        }
        if (open_.size() >= limits_.maxDepth) {
            limit(at(lt), "elements nest deeper than " + std::to_string(limits_.maxDepth) +
                              " levels, which no real document does");
            return;
        }
        if (o.group >= 0) ++groupOpen_[o.group];
        open_.push_back(o);
        rootSeen_ = true;
        if (observer_)
            observer_->start(
                std::string_view(name, length),
                std::string_view(attributes, static_cast<std::size_t>(attributesEnd - attributes)),
                at(lt), static_cast<int>(open_.size()));
    }
    // Closes the innermost element, whose inner text ends at `innerEnd`.
    void pop(const char* innerEnd) {
        const Open& o = open_.back();
        if (o.group >= 0) --groupOpen_[o.group];
        if (observer_) {
            std::size_t inner = o.inner <= at(innerEnd) ? o.inner : at(innerEnd);
            observer_->end(text_.substr(o.name, o.length),
                           text_.substr(inner, at(innerEnd) - inner),
                           static_cast<int>(open_.size()));
        }
        open_.pop_back();
    }
    // Names past ASCII are rare: only they are looked at closely.
    static std::string nameFault(std::string_view name) {
        for (char c : name)
            if (static_cast<unsigned char>(c) >= 0x80) return damagedName(name);
        return {};
    }
    // Names are short: a plain loop beats a call.
    bool sameName(const Open& o, const char* name, std::size_t length) const {
        if (o.length != length) return false;
        const char* a = text_.data() + o.name;
        for (std::size_t i = 0; i < length; ++i)
            if (a[i] != name[i]) return false;
        return true;
    }

    // Text outside the root element may only be white space.
    void outside(const char* from, const char* to) {
        for (const char* q = from; q < to; ++q)
            if (!is(*q, kSpace)) {
                fault(at(q), rootSeen_ ? "text stands after the root element"
                                       : "text stands before the root element");
                return;
            }
    }

    // ---- the strict scan: well-formed XML ----

    // Reads from `p` up to the end of the next piece of markup, and returns
    // where to go on; after a fault it returns where the loose scan resumes.
    const char* strict(const char* p) {
        const char* end = end_;
        const char* lt = nextTag(p, end);
        if (open_.empty()) outside(p, lt);
        amps(p, lt, true);
        if (malformed()) return lt;
        if (lt >= end) return end;
        if (lt + 1 >= end) {
            fault(at(lt), "the document ends inside a tag; it is cut short");
            return end;
        }
        char c = lt[1];
        if (c == '?') return skipTo(lt, "?>", "a processing instruction");
        if (c == '!') {
            std::string_view rest(lt, static_cast<std::size_t>(end - lt));
            if (rest.starts_with("<!--")) return skipTo(lt, "-->", "a comment");
            if (rest.starts_with("<![CDATA[")) {
                if (open_.empty()) {
                    fault(at(lt), "text stands outside the root element");
                    return lt;
                }
                return skipTo(lt, "]]>", "a CDATA section");
            }
            if (rest.starts_with("<!DOCTYPE")) {
                if (rootSeen_) {
                    fault(at(lt), "a document type stands inside the document");
                    return lt;
                }
                return declaration(lt);
            }
            fault(at(lt),
                  "markup that begins with \"<!\" is neither a comment, CDATA nor a "
                  "document type");
            return lt;
        }
        if (c == '/') return endTag(lt);
        if (!is(c, kNameStart)) {
            fault(at(lt), "a '<' begins no tag (text writes it as &lt;)");
            return lt + 1;
        }
        return startTag(lt);
    }

    const char* skipTo(const char* lt, std::string_view close, const char* what) {
        const char* found = findText(lt + 2, end_, close);
        if (!found) {
            fault(at(lt), std::string("the document ends inside ") + what + "; it is cut short");
            amps(lt, end_, false);
            return end_;
        }
        const char* after = found + close.size();
        amps(lt, after, false);
        return after;
    }

    // A document type: up to the '>' outside quotes and outside an internal
    // subset in brackets.
    const char* declaration(const char* lt) {
        if (const char* after = endOfDeclaration(lt, end_)) {
            amps(lt, after, false);
            declareEntities(lt, after);
            return after;
        }
        fault(at(lt), "the document ends inside its document type; it is cut short");
        amps(lt, end_, false);
        return end_;
    }

    const char* endTag(const char* lt) {
        const char* end = end_;
        const char* name = lt + 2;
        // As a rule the tag closes the innermost element, right away.
        if (!open_.empty()) {
            const Open& o = open_.back();
            const char* close = name + o.length;
            if (close < end && *close == '>' && sameName(o, name, o.length)) {
                pop(lt);
                return close + 1;
            }
        }
        const char* q = name;
        while (q < end && is(*q, kName))
            ++q;
        std::size_t length = static_cast<std::size_t>(q - name);
        while (q < end && is(*q, kSpace))
            ++q;
        if (q >= end) {
            fault(at(lt), "the document ends inside a tag; it is cut short");
            return lt;
        }
        if (length == 0 || *q != '>') {
            fault(at(lt), "the closing tag </" + std::string(name, length) + " is broken");
            return lt;
        }
        if (open_.empty()) {
            fault(at(lt), "</" + std::string(name, length) + "> closes no open element");
            return lt;
        }
        if (!sameName(open_.back(), name, length)) {
            fault(at(lt), "</" + std::string(name, length) + "> closes " + tagAt(open_.back()));
            return lt;
        }
        pop(lt);
        return q + 1;
    }

    const char* startTag(const char* lt) {
        const char* end = end_;
        const char* name = lt + 1;
        const char* q = name;
        while (q < end && is(*q, kName))
            ++q;
        const std::size_t length = static_cast<std::size_t>(q - name);
        const std::string_view tagName(name, length);
        // Messages are made only when something is wrong.
        auto tag = [&] { return "<" + std::string(tagName); };
        auto cutShort = [&] {
            fault(at(lt), "the document ends inside the tag " + tag() + "; it is cut short");
            return lt;
        };
        if (q >= end) return cutShort();
        if (std::string why = nameFault(tagName); !why.empty()) {
            fault(at(lt), "the name of the tag " + tag() + " is damaged: " + why);
            return lt;
        }
        if (open_.empty() && rootSeen_) {
            fault(at(lt), "a second root element " + tag() + "> follows the first");
            return lt;
        }
        const char* attributes = q;
        bool spaced = false;
        for (;;) {
            if (q >= end) return cutShort();
            char c = *q;
            if (is(c, kSpace)) {
                spaced = true;
                ++q;
                continue;
            }
            if (c == '>') {
                push(lt, name, length, attributes, q, q + 1);
                amps(lt, q + 1, false);
                return q + 1;
            }
            if (c == '/') {
                if (q + 1 >= end) return cutShort();
                if (q[1] != '>') {
                    fault(at(lt), "the tag " + tag() + " is broken: '/' is not followed by '>'");
                    return lt;
                }
                // An empty element opens and closes at once.
                push(lt, name, length, attributes, q, q);
                if (check_.limit) return end;
                pop(q);
                amps(lt, q + 2, false);
                return q + 2;
            }
            if (!spaced || !is(c, kNameStart)) {
                fault(at(lt), "the tag " + tag() + " is broken: \"" + std::string(1, c) +
                                  "\" stands where an attribute or '>' should");
                return lt;
            }
            // An attribute: a name, '=', a quoted value.
            const char* attr = q;
            while (q < end && is(*q, kName))
                ++q;
            const std::string_view attribute(attr, static_cast<std::size_t>(q - attr));
            if (std::string why = nameFault(attribute); !why.empty()) {
                fault(at(lt), "the name of the attribute " + std::string(attribute) + " of " +
                                  tag() + "> is damaged: " + why);
                return lt;
            }
            while (q < end && is(*q, kSpace))
                ++q;
            if (q >= end) return cutShort();
            if (*q != '=') {
                fault(at(lt), "the attribute " + std::string(attribute) + " of " + tag() +
                                  "> has no value");
                return lt;
            }
            ++q;
            while (q < end && is(*q, kSpace))
                ++q;
            if (q >= end) return cutShort();
            char quote = *q;
            if (quote != '"' && quote != '\'') {
                fault(at(lt), "the value of the attribute " + std::string(attribute) + " of " +
                                  tag() + "> is not in quotes");
                return lt;
            }
            const char* value = q + 1;
            const void* close = std::memchr(value, quote, static_cast<std::size_t>(end - value));
            if (!close) return cutShort();
            const char* valueEnd = static_cast<const char*>(close);
            if (std::memchr(value, '<', static_cast<std::size_t>(valueEnd - value))) {
                fault(at(lt), "the value of the attribute " + std::string(attribute) + " of " +
                                  tag() + "> holds a '<'");
                return lt;
            }
            amps(lt, value, false);
            amps(value, valueEnd, true);
            if (malformed()) return lt;
            q = valueEnd + 1;
            spaced = false;
        }
    }

    // ---- the loose scan: as the host's reader reads a damaged document ----

    const char* loose(const char* p) {
        const char* end = end_;
        const void* found = std::memchr(p, '<', static_cast<std::size_t>(end - p));
        if (!found) return end;
        const char* lt = static_cast<const char*>(found);
        if (lt + 1 >= end) return end;
        const char* q = lt + 1;
        char c = *q;
        if (c == '!' || c == '?') return looseMarkup(lt);
        if (c == '/') {
            const char* name = q + 1;
            const char* t = name;
            while (t < end && !is(*t, kLooseStop))
                ++t;
            std::size_t length = static_cast<std::size_t>(t - name);
            while (t < end && *t != '>' && *t != '<')
                ++t;
            if (t >= end || *t == '<') return t;  // not a closing tag after all
            // It closes the nearest open element of its name, and every
            // element opened inside that one; a name that is not open is
            // passed over.
            for (std::size_t i = open_.size(); i-- > 0;)
                if (sameName(open_[i], name, length)) {
                    while (open_.size() > i)
                        pop(lt);
                    break;
                }
            return t + 1;
        }
        if (!is(c, kNameStart) || c == '-' || c == '.' || (c >= '0' && c <= '9')) return q;
        const char* name = q;
        const char* t = q;
        while (t < end && !is(*t, kLooseStop))
            ++t;
        std::size_t length = static_cast<std::size_t>(t - name);
        t = endOfTag(t, end);
        if (t >= end || *t == '<') return t;  // a broken tag is text
        if (t[-1] != '/') {
            push(lt, name, length, name + length, t, t + 1);
        } else if (observer_) {
            // An empty element: the host's reader sees it and its attributes.
            int depth = static_cast<int>(open_.size()) + 1;
            observer_->start(
                std::string_view(name, length),
                std::string_view(name + length, static_cast<std::size_t>(t - 1 - (name + length))),
                at(lt), depth);
            observer_->end(std::string_view(name, length), std::string_view(), depth);
        }
        return t + 1;
    }

    const char* looseMarkup(const char* lt) {
        std::string_view rest(lt, static_cast<std::size_t>(end_ - lt));
        std::string_view close = lt[1] == '?'                    ? "?>"
                                 : rest.starts_with("<!--")      ? "-->"
                                 : rest.starts_with("<![CDATA[") ? "]]>"
                                                                 : "";
        if (!close.empty()) {
            const char* found = findText(lt + 2, end_, close);
            return found ? found + close.size() : end_;
        }
        const char* after = endOfDeclaration(lt, end_);
        return after ? after : end_;
    }

    std::string_view text_;
    const XmlLimits& limits_;
    Observer* observer_;
    const char* end_ = nullptr;
    const char* ampNext_ = nullptr;
    std::vector<Open> open_;
    std::vector<std::string> declared_;  // entities the document type declares
    std::vector<unsigned> groupOpen_;
    // The unnested names, flat, for a quick look at each start tag.
    struct Unnested {
        const char* name;
        std::size_t length;
        char first;
        int group;
    };
    std::vector<Unnested> unnested_;
    std::array<std::uint64_t, 256> lengthsByFirst_{};  // bit n: a name of length n begins so
    std::size_t longestUnnested_ = 0;
    bool rootSeen_ = false;
    XmlCheck check_;
};

}  // namespace qvapp::scan
