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

TEST(XmlFile, Utf8AttributesAndTextsAreWrittenAsTheyStandAndEscaped) {
    XmlFile f;
    {
        const Attribute several[] = {{"a", "1"}, {"b", "x<&\"y"}, {"c", nullptr}};
        xmlElement root(f, "root", std::span<const Attribute>(several));
        xmlInlineElement(f, "one", Attribute{"id", "Sn\xC3\xB8"});
        xmlInlineElement(f, "text", "a & <b>");
        xmlInlineElement(f, "none", static_cast<const char*>(nullptr));
    }
    std::string text = f.text();
    EXPECT_NE(text.find("<root a=\"1\" b=\"x&lt;&amp;&quot;y\" c=\"\">"), std::string::npos)
        << text;
    EXPECT_NE(text.find("<one id=\"Sn\xC3\xB8\"/>"), std::string::npos) << text;
    EXPECT_NE(text.find("<text>a &amp; &lt;b&gt;</text>"), std::string::npos) << text;
    EXPECT_NE(text.find("<none></none>"), std::string::npos) << text;
}

// The host's bytes for a text, a code point at a time.
std::string byCodePoint(const std::wstring& text) {
    std::string out;
    for (wchar_t c : text)
        appendUTF8(out, static_cast<char32_t>(c));
    return out;
}

TEST(XmlFile, WideTextBecomesTheBytesTheHostGivesIt) {
    // ASCII runs between other characters, characters of every length,
    // and values that are no character (a lone surrogate, past U+10FFFF,
    // negative): each as the host makes it of one code point.
    const std::wstring texts[] = {L"",
                                  L"plain",
                                  L"\u00f8 at start",
                                  L"end \u00f8",
                                  L"a\u00f8b\u20acc\U0001F3ACd",
                                  std::wstring(1, wchar_t(0xD800)),
                                  std::wstring(1, wchar_t(0x110000)) + L"x",
                                  std::wstring(1, wchar_t(-1)) + L"y",
                                  std::wstring(L"nul\0in", 6)};
    for (const std::wstring& t : texts) {
        std::string made = "prefix ";
        appendUtf8(made, t);
        EXPECT_EQ(made, "prefix " + byCodePoint(t));
    }
    // ASCII goes four characters at a time: one other character at every
    // place of a longer text.
    for (std::size_t at = 0; at < 11; ++at)
        for (wchar_t odd : {wchar_t(0xF8), wchar_t(0x20AC), wchar_t(0x1B), wchar_t(-1)}) {
            std::wstring t(11, L'a');
            t[at] = odd;
            std::string made;
            appendUtf8(made, t);
            EXPECT_EQ(made, byCodePoint(t)) << at;
        }
}

// The printer's own buffer holds what tinyxml2's printer would: deep
// indentation, long texts that make it grow, and escaping.
TEST(XmlFile, ThePrinterWritesWhatTinyxml2Would) {
    auto write = [](tinyxml2::XMLPrinter& p) {
        p.PushDeclaration("xml version=\"1.0\"");
        for (int depth = 0; depth < 40; ++depth) {
            p.OpenElement("level", false);
            p.PushAttribute("n", depth);
        }
        p.OpenElement("long", false);
        p.PushText(std::string(10000, 'x').c_str(), false);
        p.CloseElement(false);
        p.OpenElement("empty", false);
        p.CloseElement(false);
        // Names and texts of every length around the sizes the buffer
        // copies in fixed pieces (up to 4, 8 and 16 bytes).
        // The printer keeps the name until the element closes.
        const std::string letters = "abcdefghijklmnopqrstuvwxyz";
        for (std::size_t n = 1; n <= letters.size(); ++n) {
            const std::string name = letters.substr(0, n);
            p.OpenElement(name.c_str(), false);
            p.PushText(letters.substr(26 - n).c_str(), false);
            p.CloseElement(false);
        }
        p.PushComment("a & b");
        for (int depth = 0; depth < 40; ++depth)
            p.CloseElement(false);
    };
    tinyxml2::XMLPrinter plain(nullptr, false, 0);
    write(plain);
    Printer ours;
    write(ours);
    EXPECT_EQ(std::string(ours.text()), std::string(plain.CStr()));
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
    // A control character anywhere in an otherwise plain wide text, which
    // is converted four characters at a time.
    for (std::size_t at = 0; at < 10; ++at) {
        std::wstring t(10, L' ');
        t[at] = L'\u0001';
        XmlFile one;
        one.replaceUnwritableCharacters(LoggerHandle(Qv::Ptr<iLogSink>(new CapturingLogSink)));
        xmlInlineElement(one, "t", std::wstring_view(t));
        std::string expected =
            "<t>" + std::string(at, ' ') + "\xEF\xBF\xBD" + std::string(9 - at, ' ') + "</t>";
        EXPECT_NE(std::string(one.text()).find(expected), std::string::npos) << at;
    }
    // The same in UTF-8 text, which is looked at eight bytes at a time: a
    // byte just below space, and one that is no UTF-8, at every position;
    // DEL and '~' around them stay.
    for (char odd : {'\x1F', '\x80'}) {
        for (std::size_t at = 0; at < 20; ++at) {
            std::string t(20, '~');
            t[at] = odd;
            t[(at + 7) % 20] = '\x7F';
            XmlFile one;
            one.replaceUnwritableCharacters(LoggerHandle(Qv::Ptr<iLogSink>(new CapturingLogSink)));
            xmlInlineElement(one, "t", t.c_str());
            std::string expected = t;
            expected.replace(at, 1, "\xEF\xBF\xBD");
            EXPECT_NE(std::string(one.text()).find("<t>" + expected + "</t>"), std::string::npos)
                << at;
        }
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
