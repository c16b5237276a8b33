// The inputs the fuzz targets found (tests/data/fuzz/), each run through the
// built command as the command targets run it: every conversion with its
// loss report, info --json and draw, strict and lenient. Each run ends in a
// status that a document can cause, and says no sanitizer's or runtime's
// word.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::Outcome;
using qvtest::quote;
using qvtest::qvxml;

bool documentStatus(int status) {
    for (int allowed : {0, 2, 3, 6, 8, 9, 10})
        if (status == allowed) return true;
    return false;
}

void runEverything(const std::string& input) {
    qvtest::TempDir dir;
    const std::string common =
        " --quiet --set media_scanning_behaviour=0 --set "
        "'Import : Suppress relink existing material=true'";
    std::vector<std::string> runs;
    for (const char* to : {"native", "xmeml", "fcpxml", "otio", "edl"})
        runs.push_back(std::string("convert ") + quote(input) + " --to " + to + " -o " +
                       quote(dir.path()) + " --overwrite --report " +
                       quote(dir.file("report.json")));
    runs.push_back("info --json " + quote(input));
    runs.push_back("draw " + quote(input) + " --overwrite -o " + quote(dir.file("page.html")));
    for (const std::string& run : runs)
        for (const char* lenient : {"", " --lenient"}) {
            Outcome r = qvxml(run + common + lenient);
            EXPECT_TRUE(documentStatus(r.status)) << run << lenient << ": " << r.status << r.err;
            for (const char* word : {"runtime error", "terminate called", "Sanitizer"})
                EXPECT_EQ(r.err.find(word), std::string::npos) << run << lenient << r.err;
        }
}

TEST(FuzzFindings, EachEndsInADocumentsStatus) {
    const std::string folder = std::string(QVXML_TEST_DATA) + "/fuzz";
    int inputs = 0;
    for (const char* kind : {"native", "xmeml", "otio", "snapshot", "edl"})
        for (const std::string& name : qvtest::listDirectory(folder + "/" + kind)) {
            SCOPED_TRACE(std::string(kind) + "/" + name);
            runEverything(folder + "/" + kind + "/" + name);
            ++inputs;
        }
    EXPECT_GE(inputs, 4);
}

}  // namespace
