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
    EXPECT_EQ(fault("<a>&#0;</a>"), "1:4 &#0; names no character");
    EXPECT_EQ(fault("<a b=1/>"), "1:1 the value of the attribute b of <a> is not in quotes");
    EXPECT_EQ(fault("<a b='<'/>"), "1:1 the value of the attribute b of <a> holds a '<'");
    EXPECT_EQ(fault("<a/><b/>"), "1:5 a second root element <b> follows the first");
    EXPECT_EQ(fault("<a/>tail"), "1:5 text stands after the root element");
    EXPECT_EQ(fault(""), "1:1 it holds no element");
    // Columns count characters, not bytes.
    EXPECT_EQ(fault("<a>\xC3\xA9\xC3\xA9</b>"), "1:6 </b> closes <a> (line 1, column 1)");
    // What is well formed passes: references, CDATA, a document type with
    // an internal subset, attributes in either quotes, control characters
    // written as references.
    EXPECT_EQ(fault("\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!DOCTYPE x [<!ENTITY e \"v\">]>\n"
                    "<x a='1' b = \"&amp;&#x41;&e;\"><![CDATA[<&>]]><!-- <y> --><y/>&#x1b;</x>\n"),
              "");
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
