// The run's files and their names, through the built command: names of one
// sequence, names too long, and paths that are not UTF-8.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

// Paths are bytes: a document whose path is not UTF-8 is read, and written
// beside, like any other.
TEST_F(Safety, PathsThatAreNotUtf8) {
    std::string folder = dir.file("caf\xe9");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    std::string input = folder + "/cut \xe9t\xe9.xml";
    qvtest::writeFile(input, qvtest::readFile(kExample));
    Outcome r = qvxml("convert " + quote(input) + " --to native -o " + quote(folder));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(qvtest::exists(folder + "/Interview cut.xml"));
    EXPECT_EQ(r.out, dir.file("caf\\xe9") + "/Interview cut.xml\n") << "shown escaped";
}

// A name longer than a file name may be is shortened, keeping its extension
// and telling two such names apart.
TEST_F(Safety, LongNamesAreShortened) {
    std::string example = qvtest::readFile(kExample);
    std::string name(5000, 'x');
    std::string longer =
        replaced(example, "<Name>Interview cut</Name>", "<Name>" + name + "</Name>");
    std::size_t end = longer.rfind("</QVXML>");
    std::size_t edit = longer.find("<Edit>");
    std::string twice = longer.substr(0, end) + longer.substr(edit, end - edit) + "</QVXML>\n";
    Outcome r = qvxml("convert " + doc("long.xml", twice) + " --to xmeml --quiet -o " + quote(out));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, out + "/" + name.substr(0, 251) + ".xml\n" + out + "/" + name.substr(0, 249) +
                         " 2.xml\n");
}

// A name that a shortening cuts just after a "/" keeps one extension, and
// fits: its stem is the file's, separators replaced, before the extension is
// put after it. The fuzzer found "xxx</" written as "xxx__.otio.otio", which
// was too long to create.
TEST_F(Safety, NamesCutAfterASeparatorKeepOneExtension) {
    std::string example = qvtest::readFile(kExample);
    for (const char* to : {"native", "xmeml", "fcpxml", "otio"}) {
        std::string extension = std::string(".") + (to == std::string("native") ? "xml" : to);
        if (extension == ".xmeml") extension = ".xml";
        // Cut to 255 bytes with the extension: the stem's last two are "</".
        std::string kept(255 - extension.size() - 2, 'x');
        std::string named = replaced(example, "<Name>Interview cut</Name>",
                                     "<Name>" + kept + "&lt;/y" + std::string(20, 'y') + "</Name>");
        std::string folder = dir.file(std::string("cut-") + to);
        ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
        Outcome r = qvxml("convert " + doc(std::string("cut-") + to + ".xml", named) + " --to " +
                          to + " --quiet -o " + quote(folder));
        ASSERT_EQ(r.status, 0) << to << ": " << r.err;
        EXPECT_EQ(r.out, folder + "/" + kept + "__" + extension + "\n") << to;
    }
    Outcome r = qvxml(
        "convert " +
        doc("slash.xml", replaced(example, "<Name>Interview cut</Name>", "<Name>Cut/</Name>")) +
        " --to otio --quiet -o " + quote(out));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, out + "/Cut_.otio\n");
}

TEST_F(Command, SequencesOfOneNameGetFilesOfTheirOwn) {
    std::string doc = qvtest::readFile(kExample);
    size_t end = doc.rfind("</QVXML>");
    size_t edit = doc.find("<Edit>");
    std::string twice = doc.substr(0, end) + doc.substr(edit, end - edit) + "</QVXML>\n";
    qvtest::writeFile(dir.file("twice.xml"), twice);
    for (const char* name : {"interview.mov", "room-tone.wav"})
        qvtest::writeFile(dir.file(name), qvtest::readFile(std::string(QVXML_SOURCE_DIR) +
                                                           "/examples/native/" + name));
    Outcome r = qvxml("convert " + quote(dir.file("twice.xml")) + " --to native --quiet -o " +
                      quote(dir.path()));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, dir.file("Interview cut.xml") + "\n" + dir.file("Interview cut 2.xml") + "\n");
    EXPECT_EQ(r.err, "");
}

}  // namespace
