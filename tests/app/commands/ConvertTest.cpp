// convert, through the built command: what it writes is what the plug-in
// writes, in every format.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "export/ExportDriver.h"
#include "import/ImportDriver.h"
#include "tests/app/CommandRunner.h"
#include "tests/fcpxml/FcpxmlTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

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

}  // namespace
