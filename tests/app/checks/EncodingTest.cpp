#include "app/checks/Encoding.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

using qvapp::DeclaredEncoding;
using qvapp::toUtf8;

struct Converted {
    DeclaredEncoding encoding;
    std::string text;
};

Converted convert(std::string text) {
    DeclaredEncoding e = toUtf8(text);
    return {e, text};
}

// A document in ISO-8859-1 or Windows-1252 that says so becomes UTF-8, its
// declaration saying so too, each line where it was.
TEST(Encoding, LatinDocumentsBecomeUtf8) {
    const std::string latin =
        "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<a n='H\xF8iby'>\n\x80\xE9\xFF</a>\n";
    Converted c = convert(latin);
    EXPECT_TRUE(c.encoding.readable);
    EXPECT_TRUE(c.encoding.converted);
    EXPECT_EQ(c.encoding.name, "ISO-8859-1");
    EXPECT_EQ(c.text,
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<a n='H\xC3\xB8iby'>\n"
              "\xC2\x80\xC3\xA9\xC3\xBF</a>\n");
    EXPECT_EQ(std::count(c.text.begin(), c.text.end(), '\n'),
              std::count(latin.begin(), latin.end(), '\n'));

    // Windows-1252 has characters of its own where ISO-8859-1 has C1
    // controls; the five it leaves out are those controls. Names of the
    // encodings are matched whatever their case, in either quotes.
    c = convert("<?xml version='1.0' encoding = 'windows-1252' ?><a>\x80\x81\x9F\xE9</a>");
    EXPECT_TRUE(c.encoding.converted);
    EXPECT_EQ(
        c.text,
        "<?xml version='1.0' encoding = 'UTF-8' ?><a>\xE2\x82\xAC\xC2\x81\xC5\xB8\xC3\xA9</a>");
    EXPECT_TRUE(convert("<?xml version=\"1.0\" encoding=\"latin1\"?><a/>").encoding.converted);
}

// UTF-8 stays as it is, however it is said; other encodings are named and
// not read.
TEST(Encoding, WhatIsNotConverted) {
    for (const std::string& text : {
             std::string("<a>H\xC3\xB8iby</a>"),
             std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?><a/>"),
             std::string("<?xml version=\"1.0\" encoding=\"US-ASCII\"?><a/>"),
             // A byte order mark says UTF-8 whatever the declaration says.
             std::string("\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><a/>"),
             // Only the declaration names the encoding.
             std::string("<?xml version=\"1.0\"?><!-- encoding=\"ISO-8859-1\" --><a/>"),
             std::string("<?xml-stylesheet encoding=\"ISO-8859-1\"?><a/>"),
         }) {
        Converted c = convert(text);
        EXPECT_TRUE(c.encoding.readable) << text;
        EXPECT_FALSE(c.encoding.converted) << text;
        EXPECT_EQ(c.text, text);
    }
    Converted c = convert("<?xml version=\"1.0\" encoding=\"Shift_JIS\"?><a/>");
    EXPECT_FALSE(c.encoding.readable);
    EXPECT_EQ(c.encoding.name, "Shift_JIS");
    c = convert(std::string("\xFF\xFE<\0a\0/\0>\0", 10));
    EXPECT_FALSE(c.encoding.readable);
    EXPECT_EQ(c.encoding.name, "UTF-16");
}

// A document that says it is written in ISO-8859-1 or Windows-1252 is read
// as it was written: its names and locators arrive as their characters.
TEST_F(Safety, DeclaredEncodingsAreHonoured) {
    std::string latin =
        replaced(qvtest::readFile(kExample), "encoding=\"UTF-8\"", "encoding=\"ISO-8859-1\"");
    latin = replaced(latin, "<Name>Interview cut</Name>", "<Name>H\xF8iby \xE9t\xE9</Name>");
    latin = replaced(latin, "Day%201/interview.mov", "Day%201/H\xF8iby.mov");
    const std::string snapshot = dir.file("latin.json");
    Outcome r = qvxml("import " + doc("latin.xml", latin) + " --snapshot " + quote(snapshot));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("sequence \"H\xC3\xB8iby \xC3\xA9t\xC3\xA9\""), std::string::npos)
        << r.out;
    std::string written = qvtest::readFile(snapshot);
    EXPECT_NE(written.find("\"H\xC3\xB8iby \xC3\xA9t\xC3\xA9\""), std::string::npos);
    EXPECT_NE(written.find("H\xC3\xB8iby.mov"), std::string::npos);
    EXPECT_EQ(written.find('\xF8'), std::string::npos);
    Outcome rate = qvxml("rate " + quote(dir.file("latin.xml")));
    EXPECT_EQ(rate.status, 0) << rate.err;

    std::string windows = replaced(latin, "ISO-8859-1", "Windows-1252");
    windows = replaced(windows, "\xE9t\xE9", "\x80");
    r = qvxml("convert " + doc("cp.xml", windows) + " --to xmeml --overwrite -o " + quote(out));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(qvtest::readFile(out + "/H\xC3\xB8iby \xE2\x82\xAC.xml").find("<name>H\xC3\xB8iby"),
              std::string::npos);
}

}  // namespace
