// import, through the built command: its summary, its snapshot, and a
// snapshot on standard output.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "host/Sanitizers.h"
#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using nlohmann::json;
using namespace qvtest;

// A drop-frame label at a whole 30 keeps its numbering through an import:
// 00:10:00;00 is frame 17,982, 18 frames before 00:10:00:00.
TEST_F(Safety, DropFrameLabelsAtThirtyKeepTheirNumbers) {
    std::string example = qvtest::readFile(kExample);
    std::string thirty = replaced(example, "TC 3 NDF 01:00:00:00 103", "TC 4 DF 00:10:00;00 104");
    std::string snapshot = dir.file("p.json");
    Outcome r = qvxml("import " + doc("df.xml", thirty) + " --snapshot " + quote(snapshot));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(qvtest::readFile(snapshot).find("\"TC 4 DF 00:10:00;00 104\""), std::string::npos);
}

// A snapshot goes to standard output as it stands, named "-" or
// /dev/stdout, into a pipe or a file; what import tells goes to standard
// error then. A link to the process's standard output is no such name.
TEST_F(Safety, ASnapshotGoesToStandardOutput) {
    Outcome piped = qvxml("import " + quote(kExample) + " --snapshot -");
    ASSERT_EQ(piped.status, 0) << piped.err;
    EXPECT_EQ(piped.out.rfind("{", 0), 0u) << piped.out;
    EXPECT_TRUE(nlohmann::json::accept(piped.out));
    EXPECT_NE(piped.err.find("1 sequence, 2 shots imported"), std::string::npos) << piped.err;

    const std::string file = dir.file("stdout.json");
    qvtest::writeFile(file, "");
    Outcome redirected =
        qvxml("import " + quote(kExample) + " --snapshot /dev/stdout >" + quote(file));
    ASSERT_EQ(redirected.status, 0) << redirected.err;
    EXPECT_EQ(qvtest::readFile(file), piped.out);

    ::symlink("/proc/self/fd/1", dir.file("link.json").c_str());
    Outcome linked = qvxml("import " + quote(kExample) + " --overwrite --snapshot " +
                           quote(dir.file("link.json")) + " >" + quote(file));
    EXPECT_EQ(linked.status, 5);
    struct stat st;
    ASSERT_EQ(::lstat(dir.file("link.json").c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode)) << "the link is not replaced by a file";
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

// A document that memory cannot hold the index of is told as such, never
// as a document of a kind or version qvxml does not read. The command runs
// under a ceiling on its address space (which the sanitizers, reserving
// terabytes, cannot run under).

TEST_F(Command, AnImportWithoutMemoryEnoughSaysSo) {
#ifdef QVXML_UNDER_SANITIZERS
    GTEST_SKIP() << "an address-space ceiling stops the sanitizers themselves";
#endif
    // 40 MB of empty elements, an index of three times that.
    std::string doc = "<?xml version=\"1.0\"?>\n<xmeml version=\"5\"><sequence><name>x</name>";
    doc.reserve(40u << 20);
    while (doc.size() < (40u << 20))
        doc += "<a/>";
    doc += "</sequence></xmeml>\n";
    std::string path = dir.file("long.xml");
    qvtest::writeFile(path, doc);
    bool refused = false;
    // Refused for want of memory, never for its version; nor is its rate
    // said to be unknown, however leniently it is asked.
    for (int megabytes : {150, 200}) {
        for (const char* command : {"import --quiet ", "rate --lenient "}) {
            Outcome r =
                qvxml(command + quote(path), "ulimit -v " + std::to_string(megabytes << 10) + ";");
            if (r.status == 0) continue;
            refused = true;
            EXPECT_NE(r.err.find("not enough memory"), std::string::npos)
                << command << megabytes << ": " << r.err;
            EXPECT_EQ(r.err.find("version"), std::string::npos) << megabytes << ": " << r.err;
            EXPECT_EQ(r.err.find("names no rate"), std::string::npos) << megabytes << ": " << r.err;
        }
    }
    EXPECT_TRUE(refused) << "no ceiling was low enough to matter";
}

}  // namespace
