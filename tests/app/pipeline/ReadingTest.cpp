// Reading documents in, through the built command: what --lenient reads, what
// the readers pass over, and OpenTimelineIO told by its content.
#include <gtest/gtest.h>

#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

// --lenient reads what a damaged document holds, and says it is damaged.
TEST_F(Safety, LenientReadsWhatCanBeRead) {
    std::string example = qvtest::readFile(kExample);
    std::string cut = doc("cut.xml", example.substr(0, example.find("<CelEvent>", 3000)));
    Outcome r = qvxml("import " + cut + " --lenient");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("1 sequence"), std::string::npos) << r.out;
    EXPECT_NE(r.err.find("warning: \"" + dir.file("cut.xml") + "\" is not well formed"),
              std::string::npos)
        << r.err;
    // Untrusted times are written with --lenient, and the status says so.
    std::string neg = doc("neg.xml", replaced(example, "<EditIn>12<", "<EditIn>-12<"));
    Outcome written = qvxml("convert " + neg + " --to native --lenient -o " + quote(out));
    EXPECT_EQ(written.status, 10) << written.err;
    EXPECT_EQ(written.out, out + "/Interview cut.xml\n");
}

// What the QVXML readers pass over is told, naming the element and its line.
TEST_F(Safety, WhatTheReaderPassesOverIsTold) {
    std::string example = qvtest::readFile(kExample);
    // The room tone's channel changes its Id: the cel that plays it names
    // nothing now.
    std::string ref = replaced(example, "S-35d53f6e", "S-45d53f6e");
    std::string df = replaced(ref, "TC 3 NDF 01:00:00:00 103", "TC 5 DF 00:01:00;00 105");
    std::string zero = replaced(df, "<Duration>30</Duration>", "<Duration>0</Duration>");
    Outcome r = qvxml("import " + doc("told.xml", zero));
    EXPECT_EQ(r.status, 0) << r.err;
    for (const char* says :
         {"told.xml:133:21: <Ref> \"S-35d53f6e-ea0b084e-de5293e5-c296ba3a-00-00\" of <CelEvent> 2",
          "told.xml:170:9: <Label> \"TC 5 DF 00:01:00;00 105\" of the Edit \"Interview cut\" is "
          "no timecode label",
          "told.xml:73:9: <Duration> 0 of the Edit \"Interview cut\" divides the positions"})
        EXPECT_NE(r.err.find(says), std::string::npos) << says << "\n" << r.err;
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
