#include <gtest/gtest.h>

#include <string>

#include "app/checks/WellFormed.h"
#include "tests/support/TestSupport.h"

namespace {

using qvapp::checkXml;
using qvapp::XmlCheck;
using qvapp::XmlLimits;

const std::string kExample = std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";

XmlLimits qvxmlLimits() {
    XmlLimits l;
    l.unnested = {{"Shot", "Edit"}, {"Chan"}, {"CelEvent"}};
    l.format = "QVXML";
    return l;
}

// "what" of the first fault, with its line and column in front.
std::string fault(const std::string& text, const XmlLimits& limits = {}) {
    XmlCheck c = checkXml(text, limits);
    const qvapp::XmlFault& f = c.limit ? c.limit : c.malformed;
    if (!f) return "";
    return std::to_string(f.at.line) + ":" + std::to_string(f.at.column) + " " + f.what;
}

// Every document an editor wrote is well formed; the check must say so of
// each, or it would refuse real work.
TEST(WellFormed, EveryRealDocumentPasses) {
    std::vector<std::string> documents = {
        kExample, std::string(QVXML_SOURCE_DIR) + "/examples/xmeml/premiere_example.xml",
        std::string(QVXML_SOURCE_DIR) + "/examples/xmeml/hiero_xml_export.xml"};
    for (const char* folder : {"/xmeml", "/fcpxml"})
        for (const std::string& name : qvtest::listDirectory(std::string(QVXML_CORPUS) + folder))
            documents.push_back(std::string(QVXML_CORPUS) + folder + "/" + name);
    for (const std::string& path : documents) {
        XmlCheck c = checkXml(qvtest::readFile(path), qvxmlLimits());
        EXPECT_FALSE(c.malformed) << path << ": " << c.malformed.what;
        EXPECT_FALSE(c.limit) << path << ": " << c.limit.what;
    }
}

// A document cut short anywhere is found out, at its end, naming the
// innermost element left open.
TEST(WellFormed, CutShortAnywhere) {
    std::string doc = qvtest::readFile(kExample);
    std::size_t end = doc.rfind("</QVXML>");
    for (std::size_t cut = 1; cut < end; cut += 97) {
        std::string part = doc.substr(0, cut);
        XmlCheck c = checkXml(part, {});
        ASSERT_TRUE(c.malformed) << "cut at " << cut;
        // At the end, or at the start of the tag it cuts.
        std::size_t at = c.malformed.at.offset;
        EXPECT_TRUE(at == part.size() || at == part.rfind('<')) << at << " " << c.malformed.what;
        EXPECT_NE(c.malformed.what.find("cut short"), std::string::npos) << c.malformed.what;
    }
    EXPECT_EQ(fault("<a>\n  <b x='1'>t"),
              "2:13 the document ends before <b> (line 2, column 3) is "
              "closed; it is cut short");
    EXPECT_EQ(fault("<a><b x='1"), "1:4 the document ends inside the tag <b; it is cut short");
    EXPECT_EQ(fault("<a><!-- note"), "1:4 the document ends inside a comment; it is cut short");
    EXPECT_EQ(fault("<a><![CDATA[x"),
              "1:4 the document ends inside a CDATA section; it is cut short");
}

TEST(WellFormed, FaultsSayWhereAndWhat) {
    EXPECT_EQ(fault(std::string("<a>x\0y</a>", 10)),
              "1:5 a NUL byte stands in the text, where reading stops");
    EXPECT_EQ(fault("<a>\n<b></c></a>"), "2:4 </c> closes <b> (line 2, column 1)");
    EXPECT_EQ(fault("<a></a></a>"), "1:8 </a> closes no open element");
    EXPECT_EQ(fault("<a>1 < 2</a>"), "1:6 a '<' begins no tag (text writes it as &lt;)");
    EXPECT_EQ(fault("<a>R&D</a>"),
              "1:5 a '&' begins no entity or character reference (text writes it as &amp;)");
    EXPECT_EQ(fault("<a>&#0;</a>"), "1:4 &#0; names no character XML allows");
    EXPECT_EQ(fault("<a b=1/>"), "1:1 the value of the attribute b of <a> is not in quotes");
    EXPECT_EQ(fault("<a b='<'/>"), "1:1 the value of the attribute b of <a> holds a '<'");
    EXPECT_EQ(fault("<a/><b/>"), "1:5 a second root element <b> follows the first");
    EXPECT_EQ(fault("<a/>tail"), "1:5 text stands after the root element");
    EXPECT_EQ(fault(""), "1:1 it holds no element");
    // Columns count characters, not bytes.
    EXPECT_EQ(fault("<a>\xC3\xA9\xC3\xA9</b>"), "1:6 </b> closes <a> (line 1, column 1)");
    // What is well formed passes: references, CDATA, a document type with
    // an internal subset, attributes in either quotes, white space written
    // as references.
    EXPECT_EQ(fault("\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!DOCTYPE x [<!ENTITY e \"v\">]>\n"
                    "<x a='1' b = \"&amp;&#x41;&e;\"><![CDATA[<&>]]><!-- <y> --><y/>&#x9;</x>\n"),
              "");
}

// What XML 1.0 does not allow in a document, anywhere: bytes that are not
// UTF-8, control characters as they are or as references, entities nobody
// declared, names with characters no name holds. Each is a fault where it
// stands, and the first in the text is the one told.
TEST(WellFormed, CharactersAndNamesXmlForbids) {
    const std::string notUtf8 =
        " is not UTF-8 (a document in another encoding names it in its XML declaration)";
    EXPECT_EQ(fault("<a>H\xF8iby</a>"), "1:5 the byte 0xF8" + notUtf8);
    EXPECT_EQ(fault("<a>\xC0\xAF</a>"), "1:4 the byte 0xC0" + notUtf8) << "overlong";
    EXPECT_EQ(fault("<a>\xED\xA0\x80</a>"), "1:4 the byte 0xED" + notUtf8) << "a surrogate";
    EXPECT_EQ(fault("<a>\xF4\x90\x80\x80</a>"), "1:4 the byte 0xF4" + notUtf8) << "past U+10FFFF";
    EXPECT_EQ(fault("<a>\xC3</a>"), "1:4 the byte 0xC3" + notUtf8) << "cut short";
    EXPECT_EQ(fault("<a>\n<!-- \x1b[2J --></a>"),
              "2:6 the control character U+001B, which XML does not allow, stands in the text");
    EXPECT_EQ(fault("<a b='\x7f\xC2\x85\xEF\xBF\xBE'/>"),
              "1:9 the character U+FFFE, which XML does not allow, stands in the text")
        << "DEL and C1 controls are allowed; U+FFFE is not";
    EXPECT_EQ(fault("<a>&#1;</a>"), "1:4 &#1; names no character XML allows");
    EXPECT_EQ(fault("<a b='&#x1B;'/>"), "1:7 &#x1B; names no character XML allows");
    EXPECT_EQ(fault("<a>&#xFFFE;</a>"), "1:4 &#xFFFE; names no character XML allows");
    EXPECT_EQ(fault("<a>&#xD800;</a>"), "1:4 &#xD800; names no character XML allows");
    EXPECT_EQ(fault("<a>&#9;&#xA;&#13;&#x10FFFF;\t\r\n\xF4\x8F\xBF\xBF</a>"), "");

    const std::string undeclared =
        " is no entity of XML's own (&amp; &lt; &gt; &quot; &apos;) and the document declares "
        "none of that name";
    EXPECT_EQ(fault("<a>&nbsp;</a>"), "1:4 &nbsp;" + undeclared);
    EXPECT_EQ(fault("<a b='&eacute;'/>"), "1:7 &eacute;" + undeclared);
    EXPECT_EQ(fault("<!DOCTYPE a [<!ENTITY nbsp \"&#160;\">]><a>&nbsp;&quot;&apos;</a>"), "");
    EXPECT_EQ(fault("<!DOCTYPE a [<!ENTITY % p \"x\">]><a>&p;</a>"), "1:36 &p;" + undeclared)
        << "a parameter entity is no general one";

    EXPECT_EQ(fault("<a><fi\xEF\xBB\xBFle/></a>"),
              "1:4 the name of the tag <fi\xEF\xBB\xBFle is damaged: it holds a byte order mark "
              "(U+FEFF)");
    EXPECT_EQ(fault("<a x\xEF\xBB\xBF='1'/>"),
              "1:1 the name of the attribute x\xEF\xBB\xBF of <a> is damaged: it holds a byte "
              "order mark (U+FEFF)");
    EXPECT_EQ(fault("<a><\xC2\xB7x/></a>"),
              "1:4 the name of the tag <\xC2\xB7x is damaged: it holds U+00B7, which no XML name "
              "may begin with");
    EXPECT_EQ(fault("<a><x\xC3\x97/></a>"),
              "1:4 the name of the tag <x\xC3\x97 is damaged: it holds U+00D7, which no XML name "
              "may hold");
    EXPECT_EQ(
        fault("<caf\xC3\xA9 n\xC2\xB7\xE6\x97\xA5='1'><\xE6\x97\xA5\xE6\x9C\xAC/></caf\xC3\xA9>"),
        "")
        << "names in any script";
    // A flipped bit in a name leaves a byte that is not UTF-8.
    EXPECT_EQ(fault("<a><f\xE9le/></a>"), "1:6 the byte 0xE9" + notUtf8);

    // The first fault in the text is told, whichever check finds it.
    EXPECT_EQ(fault("<a>\x01</b>"),
              "1:4 the control character U+0001, which XML does not allow, stands in the text");
    EXPECT_EQ(fault("<a></b>\x01"), "1:4 </b> closes <a> (line 1, column 1)");
    // Plain text is looked at eight bytes at a time: a fault is found at
    // any place in a word and after it.
    for (std::size_t at = 3; at < 40; ++at) {
        std::string text = "<a>" + std::string(40, 'x') + "</a>";
        text[at] = '\x02';
        EXPECT_EQ(checkXml(text, {}).malformed.at.offset, at) << at;
        text[at] = '\xFF';
        EXPECT_EQ(checkXml(text, {}).malformed.at.offset, at) << at;
    }
}

// Limits hold for any document, well formed or not: they keep its reading in
// bounded memory and stack.
TEST(WellFormed, NestingLimits) {
    std::string deep;
    for (int i = 0; i < 100000; ++i)
        deep += "<a>";
    XmlCheck c = checkXml(deep, {});
    ASSERT_TRUE(c.limit);
    EXPECT_EQ(c.limit.what, "elements nest deeper than 256 levels, which no real document does");
    EXPECT_EQ(c.limit.at.offset, 256u * 3);

    std::string fine;
    for (int i = 0; i < 256; ++i)
        fine += "<a>";
    for (int i = 0; i < 256; ++i)
        fine += "</a>";
    EXPECT_EQ(fault(fine), "");

    EXPECT_EQ(fault("<QVXML><Edit><ChanList><Chan><Edit/></Chan></ChanList></Edit></QVXML>",
                    qvxmlLimits()),
              "1:30 <Edit> stands inside <Edit> (line 1, column 8), which QVXML never does");
    EXPECT_EQ(fault("<QVXML><Shot><Shot></Shot></Shot></QVXML>", qvxmlLimits()),
              "1:14 <Shot> stands inside <Shot> (line 1, column 8), which QVXML never does");
    // Past a fault the elements are counted as the host's reader reads them:
    // unclosed Edits nest in it, closing tags of names not open are passed
    // over.
    std::string broken = "<QVXML><Edit></Chan><Edit></Chan></QVXML>";
    c = checkXml(broken, qvxmlLimits());
    EXPECT_TRUE(c.malformed);
    ASSERT_TRUE(c.limit);
    EXPECT_EQ(c.limit.at.offset, broken.find("<Edit>", 10));
    // A closing tag ends every element opened inside the one it closes.
    c = checkXml("<QVXML><Edit><Chan></Edit><Edit></Edit></QVXML>", qvxmlLimits());
    EXPECT_TRUE(c.malformed);
    EXPECT_FALSE(c.limit);
}

}  // namespace
