#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <vector>

#include "export/ExportDriver.h"
#include "host/Paths.h"
#include "import/ImportDriver.h"
#include "tests/app/CommandRunner.h"
#include "tests/fcpxml/FcpxmlTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::Outcome;
using qvtest::quote;
using qvtest::qvxml;

const std::string kExample = std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";

class Command : public qvtest::StoreTest {
  protected:
    qvtest::TempDir dir;
};

TEST_F(Command, ConvertWritesWhatTheLibraryWrites) {
    Outcome r = qvxml("convert " + quote(kExample) + " --to xmeml -o " + quote(dir.path()));
    ASSERT_EQ(r.status, 0) << r.err;
    std::string written = dir.file("Interview cut.xml");
    EXPECT_EQ(r.out, written + "\n");
    ASSERT_TRUE(qvtest::exists(written));

    // The same import and export in this process, through the library.
    qvtest::TempDir mine;
    EditStore project;
    ScopedCurrentStore scope(project);
    ImportFileList files;
    files.push_back(
        Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({fromUTF8(kExample.c_str())})));
    XML::ImportResult imported = XML::XMLImportFiles(files, LoggerHandle());
    ASSERT_EQ(imported.status, 1);
    ASSERT_EQ(imported.edits.size(), 1u);
    XMLExportOptions o;
    o.directory = mine.wpath();
    o.flavour = XML::XMLFlavourFCP5;
    ASSERT_EQ(XML::XMLExportFiles(imported.edits[0].getCookie(), o, LoggerHandle()).status, 1);
    EXPECT_EQ(qvtest::readFile(written), qvtest::readFile(mine.file("Interview cut.xml")));

    // A second run gives the same bytes.
    qvtest::TempDir again;
    ASSERT_EQ(qvxml("convert " + quote(kExample) + " --to xmeml -o " + quote(again.path())).status,
              0);
    EXPECT_EQ(qvtest::readFile(again.file("Interview cut.xml")), qvtest::readFile(written));
}

TEST_F(Command, ImportSummarisesAndSnapshotsExportBack) {
    std::string snapshot = dir.file("project.json");
    Outcome r = qvxml("import " + quote(kExample) + " --snapshot " + quote(snapshot));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("1 sequence, 2 shots imported, 0 linked, 0 offline"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("sequence \"Interview cut\""), std::string::npos);
    Outcome e = qvxml("export " + quote(snapshot) + " --to native --name cut.native -o " +
                      quote(dir.path()));
    ASSERT_EQ(e.status, 0) << e.err;
    EXPECT_EQ(e.out, dir.file("cut.xml") + "\n");
    EXPECT_NE(qvtest::readFile(dir.file("cut.xml")).find("<QVXML version=\"2\">"),
              std::string::npos);
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

// The documents a user can turn into fcpxml with the command, and the
// command that does it. Add a document here and it is converted, parsed and
// checked against the DTD of fcpxml 1.4 like the others.
struct FcpxmlSource {
    const char* command;
    std::string path;
};
std::vector<FcpxmlSource> fcpxmlSources() {
    std::vector<FcpxmlSource> sources = {
        {"convert", kExample},
        {"export", std::string(QVXML_SOURCE_DIR) + "/examples/timeline.json"},
    };
    // Every xmeml document of the corpus that holds something to write (one
    // holds a sequence without tracks only), nests two deep included.
    std::string corpus = std::string(QVXML_CORPUS) + "/xmeml";
    for (const std::string& name : qvtest::listDirectory(corpus))
        if (name.ends_with(".xml") && name != "sample_just_track.xml")
            sources.push_back({"convert", corpus + "/" + name});
    return sources;
}

TEST_F(Command, EveryExampleConvertsToFcpxml) {
    std::string dtd = fcpxmltest::fcpxmlDtd();
    for (const FcpxmlSource& source : fcpxmlSources()) {
        qvtest::TempDir out;
        Outcome r = qvxml(std::string(source.command) + " " + quote(source.path) +
                          " --to fcpxml --quiet -o " + quote(out.path()));
        EXPECT_EQ(r.status, 0) << source.path << "\n" << r.err;
        std::istringstream written(r.out);
        int files = 0;
        for (std::string file; std::getline(written, file); ++files) {
            EXPECT_TRUE(file.ends_with(".fcpxml")) << file;
            tinyxml2::XMLDocument doc;
            ASSERT_EQ(doc.LoadFile(file.c_str()), tinyxml2::XML_SUCCESS) << file;
            EXPECT_STREQ(doc.RootElement()->Name(), "fcpxml");
            EXPECT_FALSE(doc.RootElement()->FirstChildElement("resources")->NoChildren());
            if (dtd.empty()) continue;
            // Documents of shots alone have their asset clips refused; nothing
            // else is.
            for (const std::string& c : fcpxmltest::dtdComplaints(file, dtd, out.path()))
                EXPECT_TRUE(fcpxmltest::isRequiredRefusal(c)) << file << ": " << c;
        }
        EXPECT_GT(files, 0) << source.path;
    }
}

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
