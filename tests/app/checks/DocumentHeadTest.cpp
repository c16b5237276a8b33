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

// The head is read a piece at a time: a prolog longer than the first piece
// (a long comment, a document type with an internal subset) still leads to
// the root, and a document is told as the same kind either way.
TEST_F(Command, LongProloguesAreReadToTheRoot) {
    std::string xmeml = std::string(QVXML_SOURCE_DIR) + "/examples/xmeml/premiere_example.xml";
    std::string doc = qvtest::readFile(xmeml);
    std::size_t root = doc.find("<xmeml");
    for (std::size_t filler : {std::size_t{16380}, std::size_t{40000}}) {
        std::string longer = doc;
        longer.insert(root, "<!--" + std::string(filler, '-').replace(0, 1, " ") + " -->\n");
        std::string path = dir.file("prolog" + std::to_string(filler) + ".xml");
        qvtest::writeFile(path, longer);
        Outcome info = qvxml("info " + quote(path));
        EXPECT_EQ(info.status, 0) << info.err;
        EXPECT_NE(info.out.find("(xmeml)"), std::string::npos) << filler << ": " << info.out;
    }
}

}  // namespace
