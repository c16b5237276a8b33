// What a document is, told by its root element, as the built command tells it.
#include <gtest/gtest.h>

#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

// Documents are told by their root element, not by text found in them.
TEST_F(Command, DocumentsAreKnownByTheirRoot) {
    std::string xmeml = std::string(QVXML_SOURCE_DIR) + "/examples/xmeml/premiere_example.xml";
    Outcome rate = qvxml("rate " + quote(xmeml));
    EXPECT_EQ(rate.status, 0) << rate.err;
    EXPECT_EQ(rate.out, "30\n");

    // A QVXML document that speaks of xmeml in a comment and a name.
    std::string native = qvtest::readFile(kExample);
    native.replace(native.find("<QVXML"), 0, "<!-- from <xmeml version=\"5\"> -->\n");
    native.replace(native.find("<Name>") + 6, 0, "&lt;xmeml version=\"4\"&gt; ");
    qvtest::writeFile(dir.file("talks.xml"), native);
    Outcome talks = qvxml("import --quiet " + quote(dir.file("talks.xml")));
    EXPECT_EQ(talks.status, 0) << talks.err;

    // An xmeml version written as a decimal reads, with a warning, and the
    // file is left as it was.
    std::string doc = qvtest::readFile(xmeml);
    doc.replace(doc.find("version=\"4\""), 11, "version=\"4.0\"");
    qvtest::writeFile(dir.file("decimal.xml"), doc);
    Outcome decimal = qvxml("import " + quote(dir.file("decimal.xml")));
    EXPECT_EQ(decimal.status, 0) << decimal.err;
    EXPECT_NE(decimal.err.find("xmeml version \"4.0\" is read as version 4"), std::string::npos)
        << decimal.err;
    EXPECT_EQ(qvtest::readFile(dir.file("decimal.xml")), doc);
    // Two of its four sequence elements only name a nested sequence by id.
    EXPECT_NE(decimal.out.find("2 sequences"), std::string::npos) << decimal.out;
}

}  // namespace
