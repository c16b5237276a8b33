// Feeds arbitrary bytes to the XML reader and asks what the readers ask,
// level by level. Besides crashes it checks what must hold for any input:
// top-level answers are a subset of all answers, a parser over the raw inner
// text of an element agrees with the outer parser, and so does a section.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "host/XMLParser.h"

namespace {

const char* const kTags[] = {"a", "b", "c", "xmeml", "sequence", "track", "clipitem", "name"};

bool same(const std::vector<XMLParser::Value>& x, const std::vector<XMLParser::Value>& y) {
    if (x.size() != y.size()) return false;
    for (std::size_t i = 0; i < x.size(); ++i) {
        if (x[i].text.view() != y[i].text.view()) return false;
        if (x[i].attributes.size() != y[i].attributes.size()) return false;
        for (std::size_t k = 0; k < x[i].attributes.size(); ++k)
            if (x[i].attributes[k].name.view() != y[i].attributes[k].name.view() ||
                x[i].attributes[k].value.view() != y[i].attributes[k].value.view())
                return false;
    }
    return true;
}

void check(bool ok) {
    if (!ok) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size > (1u << 20)) return 0;
    const char* text = reinterpret_cast<const char*>(data);

    // The readers' pattern: ask, then go into what was found with a new parser.
    XMLParser parser(text, static_cast<int>(size));
    std::vector<std::string> inner;
    for (const char* tag : kTags) {
        std::vector<XMLParser::Value> all = parser.getValues(tag);
        std::vector<XMLParser::Value> top = parser.getSections_TopLevel(tag);
        check(top.size() <= all.size());
        check(same(all, parser.getSections(tag)));
        XMLParser::Value v = parser.getValue(tag, 0);
        check(all.empty() ? v.text.empty() : v.text.view() == all[0].text.view());
        for (std::size_t i = 0; i < top.size() && i < 4; ++i)
            inner.push_back(top[i].text.str());
    }
    for (const std::string& text2 : inner) {
        XMLParser nested(text2.c_str(), -1);
        for (const char* tag : kTags)
            (void)nested.getSections_TopLevel(tag);
    }

    // What the readers ask now: a section of the one index answers as a
    // parser over its element's text as written does (a leaf, whose text is
    // decoded, holds no elements), and a question for one part of an answer
    // gives that part.
    for (const char* tag : kTags) {
        for (unsigned i = 0; i < 4; ++i) {
            XMLParser::Value v = parser.getValue(tag, i);
            check(parser.getText(tag, i).view() == v.text.view());
            check(same({XMLParser::Value{{}, {}, parser.getAttributes(tag, i)}},
                       {XMLParser::Value{{}, {}, v.attributes}}));
            std::unique_ptr<XMLParser> section = parser.section(tag, i);
            if (!section) {
                check(v.text.empty());
                continue;
            }
            check(section->hasText() == !v.text.empty());
            const char* end = text + size;
            const char* gt = endOfTag(text + section->offset() + 1, end);
            std::size_t inner = static_cast<std::size_t>(gt - text) + 1;
            bool asWritten = gt < end && inner + v.text.size() <= size &&
                             std::memcmp(text + inner, v.text.c_str(), v.text.size()) == 0;
            XMLParser fresh(v.text.c_str(), static_cast<int>(v.text.size()));
            for (const char* deeper : kTags) {
                if (!asWritten) {
                    check(section->count(deeper) == 0);
                    continue;
                }
                check(same(section->getValues(deeper), fresh.getValues(deeper)));
                check(same(section->getSections_TopLevel(deeper),
                           fresh.getSections_TopLevel(deeper)));
                check(section->sections_TopLevel(deeper).size() ==
                      fresh.getSections_TopLevel(deeper).size());
            }
        }
    }

    // Wrapped in an element of a name the input does not use, the input must
    // read the same from the outside and from a parser over the wrapper's raw
    // text. The text is raw only if the wrapper has child elements (a leaf's
    // text is decoded), so the comparison is made when the outside found any.
    // NUL bytes would end that inner text early, so they are left out.
    std::string_view input(text, size);
    if (input.find('w') == std::string_view::npos && input.find('\0') == std::string_view::npos) {
        std::string wrapped = "<w>" + std::string(input) + "</w>";
        XMLParser outer(wrapped.c_str(), -1);
        XMLParser::Value w = outer.getValue("w", 0);
        XMLParser nested(w.text.c_str(), -1);
        std::vector<std::vector<XMLParser::Value>> found;
        bool any = false;
        for (const char* tag : kTags) {
            found.push_back(outer.getValues(tag));
            any = any || !found.back().empty();
        }
        for (std::size_t i = 0; any && i < found.size(); ++i)
            check(same(found[i], nested.getValues(kTags[i])));
    }
    return 0;
}
