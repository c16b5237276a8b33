// Writing an edit, through the built command: .otio written as the other
// formats are, and read back by its content.
#include <gtest/gtest.h>

#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

TEST(OtioCommand, WritesOtioAndReadsItBackByItsContent) {
    qvtest::TempDir dir;
    Outcome r = qvxml("convert " + quote(kExample) + " --to otio -o " + quote(dir.path()));
    ASSERT_EQ(r.status, 0) << r.err;
    std::string written = dir.file("Interview cut.otio");
    EXPECT_EQ(r.out, written + "\n");
    ASSERT_TRUE(qvtest::exists(written));

    // Converted again into the same folder: the input is not written over.
    Outcome again = qvxml("convert " + quote(written) + " --to otio -o " + quote(dir.path()));
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out, dir.file("Interview cut 2.otio") + "\n");
    EXPECT_EQ(qvtest::readFile(dir.file("Interview cut 2.otio")), qvtest::readFile(written));

    // The name does not matter: the content does.
    qvtest::writeFile(dir.file("timeline.json"), qvtest::readFile(written));
    Outcome rate = qvxml("rate " + quote(dir.file("timeline.json")));
    EXPECT_EQ(rate.status, 0) << rate.err;
    EXPECT_EQ(rate.out, "25\n");
    Outcome imported = qvxml("import " + quote(dir.file("timeline.json")));
    EXPECT_EQ(imported.status, 0) << imported.err;
    EXPECT_NE(imported.out.find("1 sequence, 2 shots imported"), std::string::npos) << imported.out;

    Outcome exported =
        qvxml("export " + quote(std::string(QVXML_SOURCE_DIR) + "/examples/timeline.json") +
              " --to otio --name mine.xml -o " + quote(dir.path()));
    EXPECT_EQ(exported.status, 0) << exported.err;
    EXPECT_EQ(exported.out, dir.file("mine.otio") + "\n");

    // Items that a track's source range leaves out are said, not dropped
    // without a word.
    std::string screening = std::string(QVXML_CORPUS) + "/otio/screening_example.otio";
    if (qvtest::exists(screening)) {
        Outcome trimmed = qvxml("import " + quote(screening));
        EXPECT_EQ(trimmed.status, 0) << trimmed.err;
        EXPECT_NE(trimmed.err.find("track \"V\": 9 items outside its source_range"),
                  std::string::npos)
            << trimmed.err;
    }
}

}  // namespace
