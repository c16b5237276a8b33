// The whole command as a user runs it: help and version, each failure in its
// status and one sentence, and no input, not even one the fuzz targets found
// (tests/data/fuzz/), that ends it in the status of a fault of its own or in
// a sanitizer's or runtime's word.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

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

// The inputs the fuzz targets found, each run through the built command as
// the command targets run it: every conversion with its loss report, info
// --json and draw, strict and lenient.
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

// No document of the examples and test data, nor one of their names
// spoilt, brings any command to the status of a fault of qvxml's own (1) or
// to an end by signal.
TEST_F(Safety, NoInputEndsInTheStatusOfAFault) {
    std::vector<std::string> documents = {kExample, kSnapshot};
    for (const char* folder : {"/examples/native/", "/examples/xmeml/", "/tests/data/xmeml/",
                               "/tests/data/native/", "/tests/data/edl/"}) {
        std::string path = std::string(QVXML_SOURCE_DIR) + folder;
        for (const std::string& name : qvtest::listDirectory(path))
            if (name.ends_with(".xml") || name.ends_with(".edl")) documents.push_back(path + name);
    }
    // The example as OpenTimelineIO, and with names a document should not
    // hold: a control character and a byte that is not UTF-8, a NUL.
    ASSERT_EQ(qvxml("convert " + quote(kExample) + " --to otio -o " + quote(dir.path())).status, 0);
    documents.push_back(dir.file("Interview cut.otio"));
    const std::string example = qvtest::readFile(kExample);
    qvtest::writeFile(dir.file("control.xml"), replaced(example, "Interview cut", "Cut\x01\xff"));
    qvtest::writeFile(dir.file("nul.xml"),
                      replaced(example, "Interview cut", std::string("Cut\0x", 5)));
    documents.push_back(dir.file("control.xml"));
    documents.push_back(dir.file("nul.xml"));
    for (const std::string& document : documents) {
        const std::string d = quote(document);
        for (const std::string& args :
             {"import " + d, "info --json " + d,
              "draw " + d + " --overwrite -o " + quote(out + "/picture.html"),
              "convert " + d + " --to native --overwrite --report " + quote(out + "/r.json") +
                  " -o " + quote(out),
              "convert " + d + " --to fcpxml --overwrite -o " + quote(out),
              "convert " + d + " --to otio --overwrite -o " + quote(out)}) {
            Outcome r = qvxml(args);
            EXPECT_NE(r.status, 1) << args << "\n" << r.err;
            EXPECT_NE(r.status, -1) << args << " ended by a signal";
        }
    }
}

TEST_F(Command, EachFailureHasItsStatusAndOneSentence) {
    struct Case {
        std::string args;
        int status;
        const char* says;
    };
    qvtest::writeFile(dir.file("notes.txt"), "not a timeline");
    qvtest::writeFile(dir.file("empty.xml"), "");
    qvtest::writeFile(dir.file("v6.xml"), "<?xml version=\"1.0\"?>\n<xmeml version=\"6\"/>");
    qvtest::writeFile(dir.file("other.xml"), "<!-- <xmeml version=\"5\"> --><timeline/>");
    qvtest::writeFile(dir.file("broken.xml"),
                      "<QVXML Version=\"2.0\"><Edit><Name>x</Name></Edit></QVXML>");
    // A folder where the file should go: it cannot be written, even by root.
    ASSERT_EQ(::mkdir(dir.file("locked").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(dir.file("locked/Interview cut.xml").c_str(), 0755), 0);
    const Case cases[] = {
        {"", 1, "usage: qvxml"},
        {"frobnicate", 1, "is no command"},
        {"convert " + quote(kExample), 1, "say which format to write"},
        {"convert " + quote(kExample) + " --to avid", 1, "is no format qvxml writes"},
        {"convert " + quote(kExample) + " --to xmeml --set nope=1", 1, "is no configuration key"},
        {"convert " + quote(dir.file("missing.xml")) + " --to xmeml -o " + quote(dir.path()), 2,
         "there is no such file"},
        {"convert " + quote(dir.file("empty.xml")) + " --to xmeml -o " + quote(dir.path()), 2,
         "is empty"},
        {"convert " + quote(dir.file("notes.txt")) + " --to xmeml -o " + quote(dir.path()), 3,
         "is not an XML document qvxml reads"},
        {"convert " + quote(dir.file("v6.xml")) + " --to native -o " + quote(dir.path()), 3,
         "is xmeml of version \"6\"; qvxml reads xmeml versions 1 to 5"},
        {"convert " + quote(dir.file("other.xml")) + " --to native -o " + quote(dir.path()), 3,
         "its root element is <timeline>"},
        {"convert " + quote(kExample) + " --to xmeml -o " + quote(dir.file("nowhere")), 4,
         "does not exist"},
        {"convert " + quote(kExample) + " --to xmeml -o " + quote(dir.file("locked")), 5,
         "cannot write"},
        {"convert " + quote(dir.file("broken.xml")) + " --to xmeml -o " + quote(dir.path()), 6,
         "could not be imported"},
        {"convert " + quote(kExample) + " --to xmeml --set enableXml=0 -o " + quote(dir.path()), 8,
         "XML export is switched off"},
    };
    for (const Case& c : cases) {
        Outcome r = qvxml(c.args);
        EXPECT_EQ(r.status, c.status) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.args << "\n" << r.err;
    }
    EXPECT_FALSE(qvtest::exists(dir.file("x.xml")));
}

TEST_F(Command, HelpVersionAndRate) {
    Outcome help = qvxml("convert --help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("usage: qvxml convert"), std::string::npos);
    EXPECT_NE(help.out.find("--set KEY=VALUE"), std::string::npos);
    Outcome version = qvxml("--version");
    EXPECT_EQ(version.out, "qvxml 15.0.1.132926\n");
    Outcome rate = qvxml("rate " + quote(kExample));
    EXPECT_EQ(rate.status, 0) << rate.err;
    EXPECT_EQ(rate.out, "25\n");
}

}  // namespace
