// The XML output layer: the declaration, nesting and escaping, characters XML
// cannot carry, and the attribute splitter.
#include <gtest/gtest.h>

#include "export/XmlFile.h"
#include "host/Logger.h"

namespace {

using namespace XML;

TEST(XmlFile, StartsWithTheDeclaration) {
    XmlFile f;
    EXPECT_STREQ(f.text(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
}

TEST(XmlFile, ElementsNestByScopeAndEscape) {
    XmlFile f;
    {
        xmlElement root(f, "root", {L"id=\"a<b & \"c\""});
        xmlInlineElement(f, "empty", L"");
        xmlInlineElement(f, "null", static_cast<const wchar_t*>(nullptr));
        xmlInlineElement(f, "bare", AttribList{L"k=\"v\""});
        xmlInlineElement(f, "text", L"Sn\u00f8 <1> & \"2\"");
        xmlInlineElement(f, "utf8", "\xC3\xB8", {L"n=\"1\"", L"m=\"\u00f8\""});
    }
    std::string text = f.text();
    // The quote inside the attribute value cuts it short: that is getAttrib's contract.
    EXPECT_NE(text.find("<root id=\"a&lt;b &amp; \">"), std::string::npos) << text;
    EXPECT_NE(text.find("<empty></empty>"), std::string::npos) << text;
    EXPECT_NE(text.find("<null></null>"), std::string::npos) << text;
    EXPECT_NE(text.find("<bare k=\"v\"/>"), std::string::npos) << text;
    EXPECT_NE(text.find("<text>Sn\xC3\xB8 &lt;1&gt; &amp; \"2\"</text>"), std::string::npos)
        << text;
    EXPECT_NE(text.find("<utf8 n=\"1\" m=\"\xC3\xB8\">\xC3\xB8</utf8>"), std::string::npos) << text;
    EXPECT_NE(text.find("</root>"), std::string::npos);
}

TEST(XmlFile, CharactersXmlCannotCarryAreReplacedAndToldOncePerText) {
    Qv::Ptr<CapturingLogSink> sink(new CapturingLogSink);
    XmlFile f;
    f.replaceUnwritableCharacters(LoggerHandle(Qv::Ptr<iLogSink>(sink)));
    {
        xmlElement root(f, "root", {L"name=\"a\u0007b\""});
        // ESC, and the two non-characters XML excludes, in wide text.
        xmlInlineElement(f, "wide", L"x\u001by\uFFFEz");
        xmlInlineElement(f, "again", L"x\u001by\uFFFEz");
        // Bytes that are no UTF-8: a lone continuation byte, an overlong
        // slash, a cut-off sequence at the end. Tab, newline and return stay.
        xmlInlineElement(f, "bytes",
                         "a\x80"
                         "b\xC0\xAF"
                         "c\td\ne\rf\xE2\x82",
                         {});
        xmlInlineElement(f, "fine", "Sn\xC3\xB8 \xF0\x9F\x8E\xAC", {});
    }
    std::string text = f.text();
    const std::string r = "\xEF\xBF\xBD";
    EXPECT_NE(text.find("<root name=\"a" + r + "b\">"), std::string::npos) << text;
    EXPECT_NE(text.find("<wide>x" + r + "y" + r + "z</wide>"), std::string::npos) << text;
    EXPECT_NE(text.find("<bytes>a" + r + "b" + r + r + "c\td\ne\rf" + r + r + "</bytes>"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("<fine>Sn\xC3\xB8 \xF0\x9F\x8E\xAC</fine>"), std::string::npos);
    ASSERT_EQ(sink->losses.size(), 3u) << "the text written twice is told once";
    EXPECT_EQ(sink->losses[0].kind.str(), "character-replaced");
    EXPECT_EQ(sink->losses[1].detail.str(), "x" + r + "y" + r + "z");

    // Without the call, text goes out as it is.
    XmlFile raw;
    xmlInlineElement(raw, "wide", L"x\u001by");
    EXPECT_NE(std::string(raw.text()).find("<wide>x\x1by</wide>"), std::string::npos);
}

TEST(XmlFile, SavingWithoutAFileDoesNothingAndNeverUnderflows) {
    XmlFile f;
    f.saveAndClose();
    f.printer.CloseElement(false);
    EXPECT_STREQ(f.text(), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
}

TEST(GetAttrib, TheExactContract) {
    auto pair = [](const wchar_t* s) {
        auto [n, v] = getAttrib(s);
        return n.str() + "|" + v.str();
    };
    EXPECT_EQ(pair(L"a=\"b\""), "a|b");
    EXPECT_EQ(pair(L"a=\"b\"c\""), "a|b");
    EXPECT_EQ(pair(L"a=\"b"), "a|b");
    EXPECT_EQ(pair(L"a="), "a|");
    EXPECT_EQ(pair(L"a =\"b\""), "a |b");     // no trimming
    EXPECT_EQ(pair(L"abc\"d"), "abc\"d|bc");  // no '=': value from the second character
    EXPECT_EQ(pair(L""), "|");
    EXPECT_EQ(pair(L"a=xbc"), "a|bc");  // the character after '=' is skipped unread
    EXPECT_EQ(pair(L"n=\"\u00f8\""), "n|\xC3\xB8");
}

}  // namespace
