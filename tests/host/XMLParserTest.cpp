#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <fstream>
#include <memory>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "host/XMLParser.h"
#include "tests/support/TestSupport.h"

namespace {

using Values = std::vector<XMLParser::Value>;

std::vector<std::string> texts(const Values& values) {
    std::vector<std::string> out;
    for (const auto& v : values)
        out.push_back(v.text.str());
    return out;
}

std::string first(const std::string& doc, const char* tag) {
    XMLParser parser(doc.c_str(), -1);
    return parser.getValue(tag, 0).text.str();
}

std::vector<std::pair<std::string, std::string>> attributes(const XMLParser::Value& v) {
    std::vector<std::pair<std::string, std::string>> out;
    for (const auto& a : v.attributes)
        out.emplace_back(a.name.str(), a.value.str());
    return out;
}

std::string corpus(const char* name) {
    std::ifstream in(std::string(QVXML_CORPUS) + "/xmeml/" + name, std::ios::binary);
    if (!in) return {};
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

// Compares answers by text and attributes.
bool same(const Values& a, const Values& b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (a[i].text.view() != b[i].text.view() || attributes(a[i]) != attributes(b[i]))
            return false;
    return true;
}

// The distinct element names of a document, found the crude way.
std::set<std::string> elementNames(const std::string& doc) {
    std::set<std::string> names;
    for (std::size_t at = doc.find('<'); at != std::string::npos; at = doc.find('<', at + 1)) {
        std::size_t end = doc.find_first_of(" \t\r\n/>", at + 1);
        if (end == std::string::npos || end == at + 1) continue;
        std::string name = doc.substr(at + 1, end - at - 1);
        if (name[0] != '!' && name[0] != '?' && name[0] != '/') names.insert(name);
    }
    return names;
}

TEST(XMLParser, MissingElementsAndEmptyElementsGiveEmptyValues) {
    XMLParser parser("<a x='1'><b/><c></c><d>d</d></a>", -1);
    for (const char* tag : {"missing", "b", "c", ""}) {
        XMLParser::Value v = parser.getValue(tag, 0);
        EXPECT_TRUE(v.text.empty()) << tag;
        EXPECT_TRUE(v.attributes.empty()) << tag;
    }
    EXPECT_TRUE(parser.getValue("d", 1).text.empty());  // past the last one
    EXPECT_TRUE(parser.getValues("missing").empty());
    EXPECT_TRUE(parser.getSections_TopLevel("d").empty());  // d is not at the top
    EXPECT_EQ(parser.getValues("b").size(), 1u);            // present, though empty

    XMLParser none(nullptr, -1), empty("", -1), zero("<a>x</a>", 0);
    EXPECT_TRUE(none.getValue("a", 0).text.empty());
    EXPECT_TRUE(empty.getValues("a").empty());
    EXPECT_TRUE(zero.getValues("a").empty());
}

TEST(XMLParser, FindsByExactNameAtAnyDepthInDocumentOrder) {
    const std::string doc =
        "<r><a>1<a>2</a></a><A>upper</A><fcp:a-b.c_d>ns</fcp:a-b.c_d><a>3</a><ab>no</ab></r>";
    XMLParser parser(doc.c_str(), -1);
    // An outer element comes before the ones nested in it.
    EXPECT_EQ(texts(parser.getValues("a")), (std::vector<std::string>{"1<a>2</a>", "2", "3"}));
    EXPECT_EQ(parser.getValue("a", 1).text.str(), "2");
    EXPECT_EQ(parser.getValue("a", 2).text.str(), "3");
    EXPECT_EQ(parser.getValue("A", 0).text.str(), "upper");
    EXPECT_EQ(parser.getValue("fcp:a-b.c_d", 0).text.str(), "ns");
    EXPECT_TRUE(parser.getValue("fcp", 0).text.empty());
    EXPECT_TRUE(same(parser.getSections("a"), parser.getValues("a")));
    EXPECT_EQ(parser.getSection("r", 0).text.str(), parser.getValue("r", 0).text.str());
}

// Names are hashed and compared a word at a time: names of every length,
// and long names that differ in a single byte anywhere, stay apart.
TEST(XMLParser, NamesOfEveryLengthStayApart) {
    const std::string alphabet = "abcdefghijklmnopqrstuvwxyz0123456789";
    std::vector<std::string> names;
    for (std::size_t n = 1; n <= alphabet.size(); ++n) {
        names.push_back(alphabet.substr(0, n));
        for (std::size_t at : {std::size_t{0}, n / 2, n - 1}) {
            std::string other = alphabet.substr(0, n);
            other[at] = '_';
            names.push_back(other);
        }
    }
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    std::string doc = "<r>";
    for (std::size_t i = 0; i < names.size(); ++i)
        doc += "<" + names[i] + ">" + std::to_string(i) + "</" + names[i] + ">";
    doc += "</r>";
    XMLParser parser(doc.c_str(), -1);
    for (std::size_t i = 0; i < names.size(); ++i) {
        EXPECT_EQ(parser.count(names[i]), 1u) << names[i];
        EXPECT_EQ(parser.getText(names[i], 0).str(), std::to_string(i)) << names[i];
    }
    EXPECT_EQ(parser.count(alphabet + "x"), 0u);
    EXPECT_EQ(parser.count(alphabet.substr(1)), 0u);
}

// A text far denser in elements than documents are still gets every one.
TEST(XMLParser, DenseAndSparseTextsKeepEveryElement) {
    std::string dense;
    for (int i = 0; i < 5000; ++i)
        dense += i % 2 ? "<a/>" : "<b>";
    XMLParser parser(dense.c_str(), -1);
    EXPECT_EQ(parser.count("a"), 2500u);
    EXPECT_EQ(parser.count("b"), 2500u);
    EXPECT_EQ(parser.getSections_TopLevel("b").size(), 1u) << "each b holds the rest";
    const std::string sparse = "<a>" + std::string(100000, 'x') + "</a><b/>";
    XMLParser few(sparse.c_str(), -1);
    EXPECT_EQ(few.getText("a", 0).size(), 100000u);
    EXPECT_EQ(few.count("b"), 1u);
}

TEST(XMLParser, NameOfAClipItemIsTheFirstInDocumentOrder) {
    // The item has no name of its own before its file's name.
    const std::string item =
        "<masterclipid>m1</masterclipid><file id=\"f1\"><name>file.mov</name></file>"
        "<name>item</name>";
    XMLParser parser(item.c_str(), -1);
    EXPECT_EQ(parser.getValue("name", 0).text.str(), "file.mov");
    EXPECT_EQ(parser.getValue("name", 1).text.str(), "item");
    const XMLParser::Value fileValue = parser.getSection("file", 0);
    XMLParser file(fileValue.text.c_str(), -1);
    EXPECT_EQ(file.getValue("name", 0).text.str(), "file.mov");
}

TEST(XMLParser, TopLevelSectionsLeaveOutItemsOfNestedSequences) {
    const std::string track =
        "<enabled>TRUE</enabled>"
        "<clipitem id=\"c1\"><name>one</name></clipitem>"
        "<clipitem id=\"c2\"><name>nest</name><sequence><media><video><track>"
        "<clipitem id=\"n1\"><name>inner</name></clipitem>"
        "<clipitem id=\"n2\"/>"
        "</track></video></media></sequence></clipitem>"
        "<transitionitem/><clipitem id=\"c3\"><name>three</name></clipitem>";
    XMLParser parser(track.c_str(), -1);
    auto ids = [](const Values& values) {
        std::vector<std::string> out;
        for (const auto& v : values)
            out.push_back(v.attributes.at(0).value.str());
        return out;
    };
    EXPECT_EQ(ids(parser.getSections_TopLevel("clipitem")),
              (std::vector<std::string>{"c1", "c2", "c3"}));
    EXPECT_EQ(ids(parser.getSections("clipitem")),
              (std::vector<std::string>{"c1", "c2", "n1", "n2", "c3"}));
    EXPECT_EQ(parser.getSections_TopLevel("transitionitem").size(), 1u);
}

// The table finds an element's name in the text before its attributes: a
// name that ends or begins another must not stand for it.
TEST(XMLParser, NamesThatEndOrBeginOthersAreTheirOwn) {
    const std::string doc =
        "<clip><filename>f.mov</filename><names>several</names><x:name>spaced</x:name>"
        "<name a=\"1\">mine</name><sub><name>deeper</name></sub></clip>";
    XMLParser parser(doc.c_str(), -1);
    std::unique_ptr<XMLParser> clip = parser.section("clip", 0);
    ASSERT_TRUE(clip);
    EXPECT_EQ(clip->getText("name", 0).str(), "mine");
    EXPECT_EQ(clip->getText("name", 1).str(), "deeper");
    EXPECT_EQ(clip->getText("names", 0).str(), "several");
    EXPECT_EQ(clip->getText("filename", 0).str(), "f.mov");
    EXPECT_EQ(clip->count("name"), 2u);
    EXPECT_EQ(clip->getSections_TopLevel("name").size(), 1u);
    EXPECT_TRUE(clip->getText("ame", 0).empty());
}

TEST(XMLParser, AttributesKeepOrderAndAreDecoded) {
    const std::string doc =
        "<xmeml version=\"5\" xmlns:x='urn:x' z=\"last\">"
        "<e a = \"1\" b='two words' c=\"&lt;&amp;&quot;&#65;&#x42;\" d='say \"hi\"' e=\"\"/>"
        "<f bare=unquoted flag g='&bogus; & x'>t</f></xmeml>";
    XMLParser parser(doc.c_str(), -1);
    using Pairs = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(attributes(parser.getValue("xmeml", 0)),
              (Pairs{{"version", "5"}, {"xmlns:x", "urn:x"}, {"z", "last"}}));
    EXPECT_EQ(
        attributes(parser.getValue("e", 0)),
        (Pairs{{"a", "1"}, {"b", "two words"}, {"c", "<&\"AB"}, {"d", "say \"hi\""}, {"e", ""}}));
    EXPECT_EQ(attributes(parser.getValue("f", 0)),
              (Pairs{{"bare", "unquoted"}, {"flag", ""}, {"g", "&bogus; & x"}}));
}

TEST(XMLParser, LeafTextIsDecodedButNotTrimmed) {
    EXPECT_EQ(first("<a> &amp;&lt;&gt;&quot;&apos; </a>", "a"), " &<>\"' ");
    EXPECT_EQ(first("<a>&#65;&#x41;&#xe9;&#8364;&#x1F600;</a>", "a"),
              "AA\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
    // Code points XML cannot carry become U+FFFD; malformed references stay.
    EXPECT_EQ(first("<a>&#0;&#xD800;&#x110000;&#99999999999999999999;</a>", "a"),
              "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
    EXPECT_EQ(first("<a>&nbsp; &#; &#x; &#12 &amp &</a>", "a"), "&nbsp; &#; &#x; &#12 &amp &");
    EXPECT_EQ(first("<a>x<![CDATA[<b>&amp;</b>]]>y</a>", "a"), "x<b>&amp;</b>y");
    EXPECT_EQ(first("<a>x<!-- <b>c</b> -->y<?pi <b>?>z</a>", "a"), "xyz");
    EXPECT_EQ(first("<a>\r\n\t</a>", "a"), "\r\n\t");
}

// The questions that give one part of an answer give what getValue gives;
// a section tells whether its element has a text without making it.
TEST(XMLParser, TextAttributesAndPresenceAnswerAsGetValue) {
    const std::string doc =
        "<r><a k='1' j=\"&amp;\">x &amp; y</a><a/><b><c/></b><e><!-- none --></e>"
        "<e><![CDATA[]]><?pi?></e><e> </e><e><![CDATA[z]]></e><f k='2'/><f k='3'>t</f></r>";
    XMLParser parser(doc.c_str(), -1);
    for (const char* tag : {"r", "a", "b", "c", "e", "f", "missing"}) {
        for (unsigned i = 0; i < 5; ++i) {
            XMLParser::Value v = parser.getValue(tag, i);
            EXPECT_EQ(parser.getText(tag, i).str(), v.text.str()) << tag << i;
            EXPECT_TRUE(same({XMLParser::Value{{}, {}, parser.getAttributes(tag, i)}},
                             {XMLParser::Value{{}, {}, v.attributes}}))
                << tag << i;
            std::unique_ptr<XMLParser> section = parser.section(tag, i);
            if (section) {
                EXPECT_EQ(section->hasText(), !v.text.empty()) << tag << i;
            }
        }
    }
    // A leaf of comments is there, but has no text.
    ASSERT_TRUE(parser.section("e", 0));
    EXPECT_FALSE(parser.section("e", 0)->hasText());
    EXPECT_FALSE(parser.section("e", 1)->hasText());
    EXPECT_TRUE(parser.section("e", 2)->hasText());
    EXPECT_TRUE(parser.section("e", 3)->hasText());
    std::vector<std::vector<XMLParser::Tag>> tops =
        parser.section("r", 0)->getAttributes_TopLevel("f");
    ASSERT_EQ(tops.size(), 2u);
    EXPECT_EQ(tops[1].at(0).value.str(), "3");
    EXPECT_TRUE(XMLParser(doc.c_str(), -1).hasText());
    EXPECT_FALSE(XMLParser("", -1).hasText());
}

// What a leaf's text escapes stays text: a section of it holds no elements,
// though its decoded text reads as markup.
TEST(XMLParser, ALeafHoldsNoElements) {
    const std::string doc =
        "<r><a>&lt;b&gt;1&lt;/b&gt;</a><c><![CDATA[<b>2</b>]]></c><d><b>3</b></d></r>";
    XMLParser parser(doc.c_str(), -1);
    EXPECT_EQ(parser.getText("a", 0).str(), "<b>1</b>");
    for (const char* leaf : {"a", "c"}) {
        std::unique_ptr<XMLParser> section = parser.section(leaf, 0);
        ASSERT_TRUE(section) << leaf;
        EXPECT_TRUE(section->hasText()) << leaf;
        EXPECT_EQ(section->count("b"), 0u) << leaf;
        EXPECT_TRUE(section->getText("b", 0).empty()) << leaf;
    }
    EXPECT_EQ(parser.section("d", 0)->getText("b", 0).str(), "3");
    EXPECT_EQ(parser.count("b"), 1u);
}

TEST(XMLParser, SectionTextKeepsItsMarkup) {
    const std::string inner = "\n <b k=\"&amp;\">x &amp; y</b><!-- c --><![CDATA[<z>]]><c/>\n";
    EXPECT_EQ(first("<a>" + inner + "</a>", "a"), inner);
}

TEST(XMLParser, MarkupInsideCommentsCDATAAndDeclarationsIsNotAnElement) {
    const std::string doc =
        "\xEF\xBB\xBF<?xml version=\"1.0\"?>\n"
        "<!DOCTYPE xmeml [ <!ELEMENT b (#PCDATA)> <!-- '> <b> --> <!ENTITY e \"<b>\"> ]>\n"
        "<!-- <b>comment</b> --><r><?pi <b>pi</b> ?><![CDATA[<b>cdata</b>]]><b>real</b></r>";
    XMLParser parser(doc.c_str(), -1);
    EXPECT_EQ(texts(parser.getValues("b")), std::vector<std::string>{"real"});
    EXPECT_EQ(parser.getSections_TopLevel("r").size(), 1u);  // the BOM did no harm
}

TEST(XMLParser, DamagedMarkupOnlyFindsLess) {
    // An unclosed element runs to the end of the text.
    EXPECT_EQ(first("<a><b>x</b>tail", "a"), "<b>x</b>tail");
    // A closing tag closes the nearest open element of its name; elements
    // left open inside it end there.
    {
        XMLParser parser("<a><b>1<c>2</a><b>3</b>", -1);
        EXPECT_EQ(texts(parser.getValues("b")), (std::vector<std::string>{"1<c>2", "3"}));
        EXPECT_EQ(parser.getValue("c", 0).text.str(), "2");
        EXPECT_EQ(parser.getSections_TopLevel("b").size(), 1u);
    }
    // A closing tag with nothing to close is ignored.
    EXPECT_EQ(first("</x><a>1</y>2</a>", "a"), "1</y>2");
    // A closing tag whose name begins with the innermost element's name
    // closes the element of its whole name.
    {
        XMLParser parser("<ab><a>x</ab>y</a><a>z</a >", -1);
        EXPECT_EQ(parser.getValue("ab", 0).text.str(), "<a>x");
        EXPECT_EQ(texts(parser.getValues("a")), (std::vector<std::string>{"x", "z"}));
    }
    // One that differs from it in any one byte does not close it.
    for (std::string name : {"abc", "abcde", "abcdefgh", "abcdefghijk", "abcdefghijklmnopq"}) {
        for (std::size_t at = 0; at < name.size(); ++at) {
            std::string other = name;
            other[at] = '_';
            const std::string doc = "<" + name + ">x</" + other + ">y</" + name + ">";
            EXPECT_EQ(first(doc, name.c_str()), "x</" + other + ">y") << doc;
        }
    }
    // Stray '<' and broken tags are text; the tag after them is still found.
    EXPECT_EQ(first("<a>1 < 2 <3 <b c=\"x<b>in</b></a>", "b"), "in");
    EXPECT_EQ(first("<a b=\"1\" <a c=\"2\">t</a>", "a"), "t");
    EXPECT_EQ(first("<a>x</a", "a"), "x</a");
    // The length bounds the text; NUL bytes inside it are just bytes.
    const char buffer[] = "<a>x\0y</a><b>cut</b>";
    XMLParser withNul(buffer, 10);
    EXPECT_EQ(withNul.getValue("a", 0).text.str(), std::string("x\0y", 3));
    EXPECT_TRUE(withNul.getValues("b").empty());
}

// A nested parser over the raw text of an element answers as the outer one
// does inside that element, also for damaged documents.
TEST(XMLParser, NestedParserAgreesWithOuter) {
    int checked = 0;
    for (const char* name : {"premiere_example.xml", "Final Cut Pro XMEML 2.xml"}) {
        const std::string doc = corpus(name);
        if (doc.empty()) continue;
        for (std::size_t cut : {doc.size(), doc.size() * 2 / 3, doc.size() / 3}) {
            const std::string text = doc.substr(0, cut);
            XMLParser outer(text.c_str(), -1);
            XMLParser::Value root = outer.getValue("xmeml", 0);
            ASSERT_FALSE(root.text.empty());
            XMLParser inner(root.text.c_str(), -1);
            for (const std::string& tag : elementNames(text)) {
                if (tag == "xmeml") continue;
                EXPECT_TRUE(same(outer.getValues(tag), inner.getValues(tag))) << name << " " << tag;
                ++checked;
            }
            // Each track's own parser sees a run of the outer clip items.
            const Values all = outer.getSections("clipitem");
            for (const auto& track : outer.getSections("track")) {
                XMLParser t(track.text.c_str(), -1);
                const Values items = t.getSections("clipitem");
                auto run = std::search(
                    all.begin(), all.end(), items.begin(), items.end(),
                    [](const auto& a, const auto& b) { return a.text.view() == b.text.view(); });
                EXPECT_TRUE(items.empty() || run != all.end()) << name;
            }
        }
    }
    QVTEST_NEED(checked > 0, "corpus not found");
}

// A section parser shares its document's index: it must answer exactly as a
// parser over the section's text does, for every element of the document,
// every name, and damaged documents too.
// Whether a section's text is its inner text as written: false only for a
// leaf whose references or CDATA were decoded.
bool asWritten(const std::string& text, const XMLParser& view, const XMLParser::Value& value) {
    const char* end = text.data() + text.size();
    const char* gt = endOfTag(text.data() + view.offset() + 1, end);
    std::size_t inner = static_cast<std::size_t>(gt - text.data()) + 1;
    return gt < end && text.compare(inner, value.text.size(), value.text.view()) == 0;
}

// Every question a reader asks, of a section and of a fresh parser, agrees;
// and so do the sections within them, a level further down.
void expectSameAnswers(const XMLParser& view, const XMLParser& fresh,
                       const std::set<std::string>& names, const std::string& where) {
    for (const std::string& tag : names) {
        unsigned n = fresh.count(tag);
        ASSERT_EQ(view.count(tag), n) << where << ": " << tag;
        EXPECT_TRUE(same(view.getValues(tag), fresh.getValues(tag))) << where << ": " << tag;
        EXPECT_TRUE(same(view.getSections_TopLevel(tag), fresh.getSections_TopLevel(tag)))
            << where << ": top-level " << tag;
        std::vector<std::unique_ptr<XMLParser>> top = view.sections_TopLevel(tag);
        EXPECT_EQ(top.size(), fresh.getSections_TopLevel(tag).size());
        EXPECT_EQ(view.getAttributes_TopLevel(tag).size(), top.size());
        for (unsigned i = 0; i < n + 1 && i < 8; ++i) {
            XMLParser::Value v = fresh.getValue(tag, i);
            EXPECT_EQ(view.getText(tag, i).view(), v.text.view()) << where << ": " << tag << i;
            EXPECT_TRUE(same({XMLParser::Value{{}, {}, view.getAttributes(tag, i)}},
                             {XMLParser::Value{{}, {}, v.attributes}}))
                << where << ": " << tag << i;
            std::unique_ptr<XMLParser> inner = view.section(tag, i);
            std::unique_ptr<XMLParser> freshInner = fresh.section(tag, i);
            ASSERT_EQ(inner == nullptr, freshInner == nullptr) << where << ": " << tag << i;
            if (!inner) continue;
            EXPECT_EQ(inner->hasText(), !v.text.empty()) << where << ": " << tag << i;
            if (i > 0) continue;
            for (const std::string& deeper : names)
                EXPECT_EQ(inner->count(deeper), freshInner->count(deeper))
                    << where << ": " << deeper << " in " << tag << i;
        }
    }
}

void expectSectionsAgree(const std::string& text, const std::string& what) {
    XMLParser outer(text.data(), static_cast<int>(text.size()));
    const std::set<std::string> names = elementNames(text);
    for (const std::string& section : names) {
        unsigned n = outer.count(section.c_str());
        ASSERT_EQ(n, outer.getValues(section.c_str()).size());
        for (unsigned i = 0; i < n && i < 40; ++i) {
            XMLParser::Value value = outer.getSection(section.c_str(), i);
            std::unique_ptr<XMLParser> view = outer.section(section.c_str(), i);
            if (!view) {
                EXPECT_TRUE(value.text.empty()) << what << " " << section << i;
                continue;
            }
            EXPECT_EQ(view->hasText(), !value.text.empty()) << what << " " << section << i;
            if (!asWritten(text, *view, value)) {
                // A leaf whose text was decoded: it holds no elements.
                for (const std::string& tag : names)
                    EXPECT_EQ(view->count(tag), 0u) << what << ": " << tag << " in " << section;
                continue;
            }
            XMLParser fresh(value.text.c_str(), -1);
            EXPECT_TRUE(same({XMLParser::Value{{}, {}, view->attributes()}},
                             {XMLParser::Value{{}, {}, value.attributes}}))
                << what << " " << section;
            expectSameAnswers(*view, fresh, names, what + ": " + section + std::to_string(i));
        }
    }
}

TEST(XMLParser, SectionParsersAnswerAsParsersOverTheirText) {
    expectSectionsAgree("<a><b x='1'><c>1</c><b><c>2</c></b></b><c>3</c><b/><b></b></a>", "nest");
    expectSectionsAgree("<a><b><c>1</a><c>2</c></b>", "damaged");
    expectSectionsAgree("<a><b><c>open", "cut short");
    expectSectionsAgree("<a><e>&lt;c&gt;1&lt;/c&gt;</e><e><![CDATA[<c>]]></e><e><!--x--></e></a>",
                        "escaped");
    // Sections of 13 to 161 elements, the same names nested at every depth:
    // a question walks the first 64 elements of a section and looks past
    // them in the name's bucket.
    for (int items : {3, 15, 16, 17, 40}) {
        std::string doc = "<a>";
        for (int i = 0; i < items; ++i)
            doc +=
                "<b id='" + std::to_string(i) + "'><c>" + std::to_string(i) + "</c><b><c/></b></b>";
        expectSectionsAgree(doc + "<c>end</c></a><b/>", "items " + std::to_string(items));
    }
    const std::string doc = corpus("premiere_example.xml");
    QVTEST_NEED(!doc.empty(), "corpus not found");
    expectSectionsAgree(doc.substr(0, 20000), "document");
    std::mt19937 random(77);
    for (int round = 0; round < 20; ++round) {
        std::string bytes = doc.substr(0, 4000);
        for (int i = 0; i < 6; ++i)
            bytes.erase(random() % bytes.size(), 1 + random() % 12);
        expectSectionsAgree(bytes, "mutated");
    }
}

// A reader keeps an element's number and finds the element again later, from
// the document or from any section of it: the same element, not its
// neighbour, whatever its depth.
TEST(XMLParser, AnElementFoundAgainByItsNumberIsTheSameSection) {
    const std::string doc =
        "<a><b id='1'><c>one</c></b><b id='2'><c>two</c><b id='3'><c>three</c></b></b>"
        "<d><b id='4'><c>four</c></b></d></a>";
    XMLParser parser(doc.c_str(), -1);
    EXPECT_EQ(parser.element(), XMLParser::kNoElement);
    std::unique_ptr<XMLParser> d = parser.section("d", 0);
    ASSERT_TRUE(d);
    for (unsigned i = 0; i < 4; ++i) {
        std::unique_ptr<XMLParser> b = parser.section("b", i);
        ASSERT_TRUE(b);
        EXPECT_TRUE(b->sameIndex(parser));
        for (const XMLParser* from : {&parser, d.get(), b.get()}) {
            std::unique_ptr<XMLParser> again = from->sectionAt(b->element());
            ASSERT_TRUE(again);
            EXPECT_EQ(again->attributes().at(0).value.str(), std::to_string(i + 1));
            EXPECT_EQ(again->getValue("c", 0).text.str(), b->getValue("c", 0).text.str());
            EXPECT_EQ(again->offset(), b->offset());
        }
    }
    EXPECT_FALSE(parser.sectionAt(1000));
    EXPECT_FALSE(parser.sectionAt(XMLParser::kNoElement));
    XMLParser copy(doc.c_str(), -1);
    EXPECT_FALSE(copy.sameIndex(parser));
}

TEST(XMLParser, ReadsARealDocumentLevelByLevel) {
    const std::string doc = corpus("premiere_example.xml");
    QVTEST_NEED(!doc.empty(), "corpus not found");
    XMLParser parser(doc.c_str(), -1);
    const XMLParser::Value sequenceValue = parser.getSection("sequence", 0);
    XMLParser sequence(sequenceValue.text.c_str(), -1);
    EXPECT_EQ(sequence.getValue("name", 0).text.str(), "sc01_sh010_layerA");
    const XMLParser::Value rateValue = sequence.getSection("rate", 0);
    XMLParser rate(rateValue.text.c_str(), -1);
    EXPECT_EQ(rate.getValue("timebase", 0).text.str(), "30");
    const XMLParser::Value videoValue = sequence.getSection("video", 0);
    XMLParser video(videoValue.text.c_str(), -1);
    Values tracks = video.getSections_TopLevel("track");
    ASSERT_FALSE(tracks.empty());
    EXPECT_EQ(attributes(tracks[0]).at(0).first, "TL.SQTrackShy");
    XMLParser track(tracks[0].text.c_str(), -1);
    Values items = track.getSections_TopLevel("clipitem");
    ASSERT_FALSE(items.empty());
    EXPECT_EQ(attributes(items[0]).at(0),
              (std::pair<std::string, std::string>{"id", "clipitem-1"}));
    XMLParser item(items[0].text.c_str(), -1);
    EXPECT_EQ(item.getValue("name", 0).text.str(), "sc01_sh010_anim.mov");
    EXPECT_EQ(item.getValue("in", 0).text.str(), "0");
    EXPECT_EQ(item.getValue("out", 0).text.str(), "50");
}

// Reads a text level by level as the readers do, asking a few questions of
// each parser, with a bound on the number of parsers at each level.
void walk(const char* text, int length) {
    XMLParser document(text, length);
    (void)document.getValue("xmeml", 0).attributes;
    Values sequences = document.getSections("sequence");
    sequences.resize(std::min<std::size_t>(sequences.size(), 4));
    for (const auto& sequence : sequences) {
        XMLParser s(sequence.text.c_str(), -1);
        (void)s.getValue("name", 0);
        const XMLParser::Value rateValue = s.getSection("rate", 0);
        XMLParser rate(rateValue.text.c_str(), -1);
        (void)rate.getValue("timebase", 0);
        Values tracks = s.getSections("track");
        tracks.resize(std::min<std::size_t>(tracks.size(), 16));
        for (const auto& track : tracks) {
            XMLParser t(track.text.c_str(), -1);
            Values items = t.getSections_TopLevel("clipitem");
            items.resize(std::min<std::size_t>(items.size(), 16));
            for (const auto& item : items) {
                XMLParser i(item.text.c_str(), -1);
                for (const char* tag : {"name", "in", "out", "start", "end"})
                    (void)i.getValue(tag, 0);
                const XMLParser::Value fileValue = i.getSection("file", 0);
                XMLParser file(fileValue.text.c_str(), -1);
                (void)file.getValues("pathurl");
            }
        }
    }
}

TEST(XMLParserFuzz, TruncatedAndMutatedDocumentsDoNotHurt) {
    const std::string doc = corpus("premiere_example.xml");
    QVTEST_NEED(!doc.empty(), "corpus not found");
    // Every byte of the first few hundred, then cuts spread over the rest.
    for (std::size_t cut = 0; cut < doc.size(); cut += cut < 400 ? 1 : 397)
        walk(doc.data(), static_cast<int>(cut));

    std::mt19937 random(20240611);
    const std::string tricky("<>/!?&#;\"'=[]-x \0", 17);
    const std::string sample = doc.substr(0, 6000);
    for (int round = 0; round < 300; ++round) {
        std::string bytes = sample;
        int changes = 1 + static_cast<int>(random() % 8);
        for (int i = 0; i < changes; ++i) {
            std::size_t at = random() % bytes.size();
            char c =
                random() % 2 ? tricky[random() % tricky.size()] : static_cast<char>(random() % 256);
            switch (random() % 3) {
                case 0:
                    bytes[at] = c;
                    break;
                case 1:
                    bytes.insert(at, 1, c);
                    break;
                default:
                    bytes.erase(at, 1 + random() % 16);
                    break;
            }
            if (bytes.empty()) bytes = "<";
        }
        walk(bytes.data(), static_cast<int>(bytes.size()));
    }
}

TEST(XMLParserFuzz, HostileShapesDoNotHurt) {
    const int depth = 200000;
    auto repeat = [](const std::string& s, int n) {
        std::string out;
        out.reserve(s.size() * n);
        for (int i = 0; i < n; ++i)
            out += s;
        return out;
    };
    {
        const std::string deep = repeat("<a>", depth) + "x" + repeat("</a>", depth);
        XMLParser parser(deep.c_str(), -1);
        EXPECT_EQ(parser.getValue("a", depth - 1).text.str(), "x");
        EXPECT_EQ(parser.getSections_TopLevel("a").size(), 1u);
        EXPECT_EQ(parser.getValue("a", 0).text.size(), deep.size() - 7);
    }
    {
        // Unclosed, closed by the wrong names, and closed all at once by an
        // outer element.
        const std::string deep = "<o>" + repeat("<a><b>", depth) + repeat("</c>", depth) + "</o>";
        XMLParser parser(deep.c_str(), -1);
        EXPECT_EQ(parser.getValue("b", depth - 1).text.str(), repeat("</c>", depth));
        EXPECT_EQ(parser.getSections_TopLevel("o").size(), 1u);
        const std::string open = repeat("<a x='1'>", depth);
        XMLParser unclosed(open.c_str(), -1);
        EXPECT_EQ(unclosed.getValue("a", depth - 1).attributes.size(), 1u);
    }
    using namespace std::string_literals;
    for (const std::string& piece : {"<"s, "<a b=\""s, "</a"s, "<!DOCTYPE ["s, "&#"s, "<![CDATA["s,
                                     "<!--"s, "<?"s, "<a/"s, "<a\0>"s}) {
        const std::string text = repeat(piece, 20000);
        XMLParser parser(text.data(), static_cast<int>(text.size()));
        (void)parser.getValues("a");
    }
    const std::string many = "<a" + repeat(" x='1'", 100000) + ">t</a>";
    XMLParser parser(many.c_str(), -1);
    EXPECT_EQ(parser.getValue("a", 0).attributes.size(), 100000u);
    EXPECT_EQ(parser.getValue("a", 0).text.str(), "t");
}

}  // namespace
