#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "app/commands/Commands.h"
#include "app/output/SafeOutput.h"
#include "export/ExportDriver.h"
#include "host/Paths.h"
#include "tests/support/TestSupport.h"

namespace {

using qvapp::InputFiles;
using qvapp::Outcome;
using qvapp::SafeOutput;
using qvapp::StagingFolder;

ino_t inodeOf(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
}

class SafeOutputTest : public qvtest::StoreTest {
  protected:
    qvtest::TempDir dir;
    InputFiles inputs;
};

TEST_F(SafeOutputTest, ANewFileIsWrittenWholeAndNothingElseStays) {
    SafeOutput out(inputs, false);
    bool replaced = true;
    Outcome w = out.write(dir.file("a.json"), "{}\n", &replaced);
    ASSERT_TRUE(w.ok()) << w.sentence();
    EXPECT_FALSE(replaced);
    EXPECT_EQ(qvtest::readFile(dir.file("a.json")), "{}\n");
    EXPECT_EQ(qvtest::listDirectory(dir.path()), std::vector<std::string>{"a.json"});
}

TEST_F(SafeOutputTest, AnExistingFileIsKeptUnlessReplacingIsAsked) {
    qvtest::writeFile(dir.file("a.json"), "old");
    ::chmod(dir.file("a.json").c_str(), 0640);
    {
        SafeOutput keep(inputs, false);
        Outcome w = keep.write(dir.file("a.json"), "new");
        EXPECT_EQ(w.status(), qvapp::kExitNotWritable);
        EXPECT_EQ(w.sentence(), "\"" + dir.file("a.json") +
                                    "\" exists already and is kept (--overwrite replaces it)");
        EXPECT_EQ(qvtest::readFile(dir.file("a.json")), "old");
    }
    ino_t before = inodeOf(dir.file("a.json"));
    SafeOutput replace(inputs, true);
    bool replaced = false;
    Outcome w = replace.write(dir.file("a.json"), "new", &replaced);
    ASSERT_TRUE(w.ok()) << w.sentence();
    EXPECT_TRUE(replaced);
    EXPECT_EQ(qvtest::readFile(dir.file("a.json")), "new");
    // Replaced by a rename: a reader holding the old file keeps it whole.
    EXPECT_NE(inodeOf(dir.file("a.json")), before);
    struct stat st;
    ASSERT_EQ(::stat(dir.file("a.json").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u) << "the older file's permissions stay";
    EXPECT_EQ(qvtest::listDirectory(dir.path()).size(), 1u);
}

// Inputs are known by what they are, not by how they are named.
TEST_F(SafeOutputTest, NoInputIsWrittenOverByAnyName) {
    qvtest::writeFile(dir.file("in.xml"), "input");
    ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);
    ASSERT_EQ(::link(dir.file("in.xml").c_str(), dir.file("hard.xml").c_str()), 0);
    ASSERT_EQ(::symlink(dir.file("in.xml").c_str(), dir.file("soft.xml").c_str()), 0);
    inputs.add(dir.file("in.xml"));
    SafeOutput out(inputs, true);
    for (const std::string& name : {dir.file("in.xml"), dir.file("sub/../in.xml"),
                                    dir.file("hard.xml"), dir.file("soft.xml")}) {
        Outcome w = out.write(name, "output");
        EXPECT_EQ(w.status(), qvapp::kExitNotWritable) << name;
        EXPECT_NE(w.sentence().find("it is an input of this run, and qvxml never writes over its "
                                    "inputs"),
                  std::string::npos)
            << w.sentence();
    }
    EXPECT_EQ(qvtest::readFile(dir.file("in.xml")), "input");
}

TEST_F(SafeOutputTest, FoldersThatAreNotThereOrAreFiles) {
    qvtest::writeFile(dir.file("file"), "x");
    SafeOutput out(inputs, false);
    Outcome w = out.write(dir.file("missing/s.json"), "{}");
    EXPECT_EQ(w.status(), qvapp::kExitNoFolder);
    EXPECT_EQ(w.sentence(), "the folder \"" + dir.file("missing") + "\" does not exist");
    w = out.write(dir.file("file/s.json"), "{}");
    EXPECT_EQ(w.status(), qvapp::kExitNoFolder);
    EXPECT_EQ(w.sentence(), "a file is in the way of the folder \"" + dir.file("file") + "\"");
    w = out.write(dir.file("file/deeper/s.json"), "{}");
    EXPECT_EQ(w.sentence(), "a file, \"" + dir.file("file") + "\", is in the way of the folder \"" +
                                dir.file("file/deeper") + "\"");
    ASSERT_EQ(::mkdir(dir.file("taken.json").c_str(), 0755), 0);
    w = out.write(dir.file("taken.json"), "{}");
    EXPECT_EQ(w.status(), qvapp::kExitNotWritable);
    EXPECT_NE(w.sentence().find("a folder of that name is in the way"), std::string::npos);
}

// Only a regular file (or none yet) is a destination: a pipe would hold the
// run, a device keeps nothing, and a name of the process's own streams would
// be replaced by a file. Each is refused before anything is written, with
// --overwrite too, and stays what it was.
TEST_F(SafeOutputTest, WhatIsNoRegularFileIsRefused) {
    ASSERT_EQ(::mkfifo(dir.file("fifo").c_str(), 0644), 0);
    ASSERT_EQ(::symlink("fifo", dir.file("to-fifo").c_str()), 0);
    ASSERT_EQ(::symlink("/dev/null", dir.file("to-null").c_str()), 0);
    ASSERT_EQ(::symlink("/proc/self/fd/1", dir.file("to-fd").c_str()), 0);
    ASSERT_EQ(::symlink("to-fd", dir.file("to-link").c_str()), 0);
    const std::string fifo = "it is a pipe (FIFO), not a regular file";
    const std::string device = "it is a character device, not a regular file";
    const std::string stream = "it is a stream of the process, not a regular file";
    const std::pair<std::string, std::string> cases[] = {
        {dir.file("fifo"), fifo},      {dir.file("to-fifo"), fifo}, {dir.file("to-null"), device},
        {"/dev/null", device},         {"/dev/full", device},       {dir.file("to-fd"), stream},
        {dir.file("to-link"), stream}, {"/proc/self/fd/1", stream}, {"/dev/fd/2", stream},
        {"/dev/stderr", stream},
    };
    for (bool overwrite : {false, true}) {
        SafeOutput out(inputs, overwrite);
        for (const auto& [path, says] : cases) {
            Outcome checked = out.check(path);
            EXPECT_EQ(checked.status(), qvapp::kExitNotWritable) << path;
            EXPECT_NE(checked.sentence().find(says), std::string::npos) << checked.sentence();
            Outcome w = out.write(path, "{}");
            EXPECT_EQ(w.status(), qvapp::kExitNotWritable) << path;
        }
    }
    struct stat st;
    for (const char* link : {"to-fifo", "to-null", "to-fd", "to-link"}) {
        ASSERT_EQ(::lstat(dir.file(link).c_str(), &st), 0);
        EXPECT_TRUE(S_ISLNK(st.st_mode)) << link << " is still a link";
    }
    EXPECT_EQ(qvtest::listDirectory(dir.path()).size(), 5u) << "no temporary file is left";
    EXPECT_TRUE(qvapp::isStandardOutput("-"));
    EXPECT_TRUE(qvapp::isStandardOutput("/dev/stdout"));
    EXPECT_FALSE(qvapp::isStandardOutput(dir.file("to-fd")));
}

// The plug-in appends a nameless export's file name to the folder it is
// given without a separator; a staging folder's path ends in one, so the
// file lands inside it, and from there in the destination.
TEST_F(SafeOutputTest, ANamelessExportStaysInsideTheDestination) {
    Qv::Ptr<Edit> shot = qvtest::addShot(store, L"shot", 25, 4);
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"", Qv::eFrameRate25);
    qvtest::addCel(seq, 0, qvtest::playCookie(shot, 0), 0, 2, 0);
    ASSERT_EQ(::mkdir(dir.file("out").c_str(), 0755), 0);

    StagingFolder staging(dir.file("out"));
    ASSERT_FALSE(staging.path().empty()) << staging.made().sentence();
    EXPECT_EQ(staging.prefix().back(), '/');
    XMLExportOptions o;
    o.directory = pathFromBytes(staging.prefix());
    o.flavour = XML::XMLFlavourQV2;
    ASSERT_EQ(XML::XMLExportFiles(seq->cookie, o, LoggerHandle()).status, 1);
    std::vector<std::string> made = staging.files();
    ASSERT_EQ(made.size(), 1u);
    EXPECT_TRUE(made[0].ends_with("..xml")) << made[0];

    SafeOutput out(inputs, false);
    ASSERT_TRUE(out.commit(staging.path() + "/" + made[0], dir.file("out/" + made[0])).ok());
    EXPECT_EQ(qvtest::listDirectory(dir.path()), std::vector<std::string>{"out"});

    // Handed the folder as a user names it, the plug-in writes beside it.
    o.directory = pathFromBytes(dir.file("out"));
    ASSERT_EQ(XML::XMLExportFiles(seq->cookie, o, LoggerHandle()).status, 1);
    EXPECT_EQ(qvtest::listDirectory(dir.path()).size(), 2u);
}

TEST_F(SafeOutputTest, AStagingFolderLeavesNothingBehind) {
    std::string path;
    {
        StagingFolder staging(dir.path());
        path = staging.path();
        qvtest::writeFile(path + "/left.xml", "");
        EXPECT_EQ(staging.files(), std::vector<std::string>{"left.xml"});
    }
    EXPECT_FALSE(qvtest::exists(path));
    EXPECT_TRUE(qvtest::listDirectory(dir.path()).empty());
    StagingFolder nowhere(dir.file("missing"));
    EXPECT_TRUE(nowhere.path().empty());
    EXPECT_EQ(nowhere.made().status(), qvapp::kExitNotWritable);
    EXPECT_NE(nowhere.made().sentence().find("no such file or directory"), std::string::npos);
}

}  // namespace
