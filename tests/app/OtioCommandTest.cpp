// The command with OpenTimelineIO: documents are told by their content, and
// .otio files are named and written as the other formats' are.
#include <gtest/gtest.h>

#include <cstdio>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::Outcome;
using qvtest::quote;
using qvtest::qvxml;

const std::string kExample = std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";

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

TEST(OtioCommand, ABrokenOtioDocumentIsSaidInOneSentence) {
    qvtest::TempDir dir;
    qvtest::writeFile(dir.file("cut.otio"), "{\"OTIO_SCHEMA\": \"Timeline.1\", \"tracks\": [");
    qvtest::writeFile(dir.file("clip.otio"), "{\"OTIO_SCHEMA\": \"Clip.2\", \"name\": \"c\"}");
    struct Case {
        std::string file;
        int status;
        const char* says;
    };
    for (const Case& c :
         {Case{"cut.otio", 3, "cannot be read as OpenTimelineIO: it is not valid JSON"},
          Case{"clip.otio", 3, "it holds a Clip.2, not a Timeline"}}) {
        Outcome r =
            qvxml("convert " + quote(dir.file(c.file)) + " --to native -o " + quote(dir.path()));
        EXPECT_EQ(r.status, c.status) << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << r.err;
    }
    Outcome r = qvxml("convert " + quote(kExample) + " --to avid");
    EXPECT_NE(r.err.find("use native, xmeml, fcpxml, otio or edl"), std::string::npos) << r.err;
}

}  // namespace
