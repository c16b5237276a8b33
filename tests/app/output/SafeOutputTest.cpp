// Safe output: a file is written whole or not at all, never over an input, and
// an existing one is kept unless the run may replace it; through the class and
// through the built command with hostile and unlucky input.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "app/output/SafeOutput.h"
#include "export/ExportDriver.h"
#include "host/Paths.h"
#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

using qvapp::InputFiles;
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
    qvapp::Outcome w = out.write(dir.file("a.json"), "{}\n", &replaced);
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
        qvapp::Outcome w = keep.write(dir.file("a.json"), "new");
        EXPECT_EQ(w.status(), qvapp::kExitNotWritable);
        EXPECT_EQ(w.sentence(), "\"" + dir.file("a.json") +
                                    "\" exists already and is kept (--overwrite replaces it)");
        EXPECT_EQ(qvtest::readFile(dir.file("a.json")), "old");
    }
    ino_t before = inodeOf(dir.file("a.json"));
    SafeOutput replace(inputs, true);
    bool replaced = false;
    qvapp::Outcome w = replace.write(dir.file("a.json"), "new", &replaced);
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
        qvapp::Outcome w = out.write(name, "output");
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
    qvapp::Outcome w = out.write(dir.file("missing/s.json"), "{}");
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
            qvapp::Outcome checked = out.check(path);
            EXPECT_EQ(checked.status(), qvapp::kExitNotWritable) << path;
            EXPECT_NE(checked.sentence().find(says), std::string::npos) << checked.sentence();
            qvapp::Outcome w = out.write(path, "{}");
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

// The catalogue: bad input of every kind, each refused with its status and
// one sentence, and not one existing file changed.
TEST_F(Safety, BadInputsCostNoFile) {
    struct Case {
        std::string label, args;
        int status;
        std::string says;
        std::string prefix = "";
    };
    const std::string example = qvtest::readFile(kExample);
    const std::string o = " -o " + quote(out);
    // An older export of the name the example's sequence writes, which no
    // failure may touch.
    qvtest::writeFile(out + "/Interview cut.xml", "an older cut");
    qvtest::writeFile(out + "/Interview cut.fcpxml", "an older fcpxml");
    std::vector<Case> cases;

    std::size_t end = example.rfind("</QVXML>");
    for (int k = 1; k <= 10; ++k) {
        std::string name = "cut" + std::to_string(k) + ".xml";
        cases.push_back({"cut short " + std::to_string(k),
                         "convert " + doc(name, example.substr(0, end * k / 11)) +
                             " --to xmeml --overwrite" + o,
                         9, "is not well formed"});
    }
    cases.push_back({"NUL",
                     "convert " +
                         doc("nul.xml", replaced(example, "<Edit>", std::string("\0<Edit>", 7))) +
                         " --to xmeml --overwrite" + o,
                     9, "a NUL byte stands in the text"});
    // What is not XML 1.0, wherever it stands: in a name, a locator, a tag.
    const std::string notWellFormed = "is not well formed";
    const std::pair<std::string, std::string> malformed[] = {
        {"<Name>Interview cut</Name>", "<Name>H\xF8iby</Name>"},
        {"Day%201/interview.mov", "Day%201/intervi\xE9w.mov"},
        {"<Name>Interview cut</Name>", "<Name>Cut&#27;</Name>"},
        {"<Name>Interview cut</Name>", "<Name>Cut\x01</Name>"},
        {"<Name>Interview cut</Name>", "<Name>Cut&#xFFFE;</Name>"},
        {"<Name>Interview cut</Name>", "<Name>Cut&nbsp;</Name>"},
        {"<Loc>", "<L\xEF\xBB\xBFoc>"},
        {"<Loc>",
         "<L\xEF"
         "c>"},
    };
    for (std::size_t k = 0; k < std::size(malformed); ++k) {
        std::string name = "bad" + std::to_string(k) + ".xml";
        cases.push_back({"malformed " + std::to_string(k),
                         "convert " +
                             doc(name, replaced(example, malformed[k].first, malformed[k].second)) +
                             " --to xmeml --overwrite" + o,
                         9, notWellFormed});
    }
    cases.push_back({"unknown encoding",
                     "import " + doc("sjis.xml", replaced(example, "encoding=\"UTF-8\"",
                                                          "encoding=\"Shift_JIS\"")),
                     9, "is written in \"Shift_JIS\" (line 1), which qvxml cannot read"});
    std::string nested = "<QVXML Version=\"2.0\">";
    for (int i = 0; i < 100000; ++i)
        nested += "<Edit><ChanList><Chan>";
    cases.push_back(
        {"nested Edits", "import " + doc("nested.xml", nested), 9, "<Edit> stands inside <Edit>"});
    std::string deep = "<xmeml version=\"5\">";
    for (int i = 0; i < 100000; ++i)
        deep += "<sequence>";
    cases.push_back({"deep xmeml", "convert " + doc("deep.xml", deep) + " --to native" + o, 9,
                     "elements nest deeper than 256 levels"});
    cases.push_back({"deep snapshot",
                     "export " + doc("deep.json", std::string(100000, '[')) + " --to native" + o, 3,
                     "nests deeper than 64 levels"});
    cases.push_back({"NaN frame count",
                     "convert " + doc("nan.xml", replaced(example, "<EditIn>12<", "<EditIn>nan<")) +
                         " --to xmeml --overwrite" + o,
                     10, "cannot be trusted"});
    cases.push_back({"1e300 frame count",
                     "convert " +
                         doc("huge.xml", replaced(example, "<EditIn>12<", "<EditIn>1e300<")) +
                         " --to xmeml --overwrite" + o,
                     10, "cannot be trusted"});
    std::string snapshot = qvtest::readFile(kSnapshot);
    cases.push_back(
        {"NaN in a snapshot",
         "export " +
             doc("nan.json", replaced(snapshot, "\"editOut\": 0.4", "\"editOut\": \"nan\"")) +
             " --to xmeml --overwrite" + o,
         10, "nothing is written"});
    cases.push_back(
        {"1e300 in a snapshot",
         "export " +
             doc("huge.json", replaced(snapshot, "\"editOut\": 0.4", "\"editOut\": 1e300")) +
             " --to fcpxml --overwrite" + o,
         10, "nothing is written"});
    cases.push_back({"negative count",
                     "convert " + doc("neg.xml", replaced(example, "<EditIn>12<", "<EditIn>-12<")) +
                         " --to xmeml --overwrite" + o,
                     10, "cannot be trusted"});
    cases.push_back({"unknown rate",
                     "import " +
                         doc("rate.xml", replaced(example,
                                                  "<Name>Interview cut</Name>\n        "
                                                  "<Duration>30</Duration>\n        <Rate "
                                                  "num=\"250000\"",
                                                  "<Name>Interview cut</Name>\n        "
                                                  "<Duration>30</Duration>\n        <Rate "
                                                  "num=\"70000\"")) +
                         " --snapshot " + quote(out + "/project.json"),
                     10, "so no snapshot is written"});
    cases.push_back({"Edit without Rate",
                     "convert " +
                         doc("norate.xml", replaced(example,
                                                    "<Duration>30</Duration>\n        <Rate "
                                                    "num=\"250000\" den=\"10000\"/>",
                                                    "<Duration>30</Duration>")) +
                         " --to native --overwrite" + o,
                     10, "cannot be trusted"});
    const std::string bad = quote(kExample);
    cases.push_back({"full disk", "import " + bad + " --snapshot - >/dev/full", 5,
                     "cannot write \"-\": no space left on device"});
    // Destinations that are no regular files, kept apart: reading a pipe
    // would hold the comparison of the folder.
    ASSERT_EQ(::mkfifo(special.file("fifo").c_str(), 0644), 0);
    ::symlink(special.file("fifo").c_str(), special.file("to-fifo").c_str());
    ::symlink("/dev/null", special.file("to-null").c_str());
    ::symlink("/proc/self/fd/1", special.file("to-stdout").c_str());
    for (const char* name : {"fifo", "to-fifo", "to-null", "to-stdout"}) {
        cases.push_back({std::string("snapshot to ") + name,
                         "import " + bad + " --overwrite --snapshot " + quote(special.file(name)),
                         5, "not a regular file"});
        cases.push_back({std::string("report to ") + name,
                         "convert " + bad + " --to xmeml --overwrite" + o + " --report " +
                             quote(special.file(name)),
                         5, "not a regular file"});
    }
    ASSERT_EQ(::mkfifo(special.file("picture.svg").c_str(), 0644), 0);
    cases.push_back({"picture to a pipe",
                     "draw " + bad + " -o " + quote(special.file("picture.svg")), 5,
                     "it is a pipe (FIFO), not a regular file"});
    cases.push_back({"process stream", "import " + bad + " --snapshot /proc/self/fd/2", 5,
                     "it is a stream of the process, not a regular file"});
    cases.push_back({"size limit", "convert " + bad + " --to xmeml --overwrite" + o, 5,
                     "file too large", "ulimit -f 1;"});
    std::string user = unprivileged();
    if (user != "-") {
        ::mkdir(dir.file("locked").c_str(), 0555);
        cases.push_back({"unwritable folder",
                         "convert " + bad + " --to xmeml -o " + quote(dir.file("locked")), 5,
                         "cannot write in the folder", user});
        cases.push_back({"unwritable snapshot folder",
                         "import " + bad + " --snapshot " + quote(dir.file("locked/p.json")), 5,
                         "cannot write in the folder", user});
    }
    // Outputs that would land on inputs, by any name.
    std::string own = dir.file("Interview cut.xml");
    qvtest::writeFile(own, example);
    // A hard link to the input where the output would go: another name, the
    // same file.
    ::mkdir(dir.file("same").c_str(), 0755);
    ::link(own.c_str(), dir.file("same/Interview cut.xml").c_str());
    cases.push_back(
        {"output is a link to the input",
         "convert " + quote(own) + " --to native --overwrite -o " + quote(dir.file("same")), 5,
         "it is an input of this run"});
    cases.push_back({"snapshot is the input",
                     "import " + quote(own) + " --snapshot " + quote(own) + " --overwrite", 5,
                     "it is an input of this run"});
    ::link(own.c_str(), dir.file("hard.json").c_str());
    cases.push_back(
        {"snapshot is a link to the input",
         "import " + quote(own) + " --snapshot " + quote(dir.file("hard.json")) + " --overwrite", 5,
         "it is an input of this run"});
    qvtest::writeFile(dir.file("s.json"), snapshot);
    ::mkdir(dir.file("links").c_str(), 0755);
    ::symlink(dir.file("s.json").c_str(), dir.file("links/Interview cut.xml").c_str());
    cases.push_back({"export onto a link to its snapshot",
                     "export " + quote(dir.file("s.json")) + " --to xmeml --overwrite -o " +
                         quote(dir.file("links")),
                     5, "it is an input of this run"});
    // Outputs that exist, and folders that are not there.
    cases.push_back({"existing output", "convert " + bad + " --to xmeml" + o, 5,
                     "exists already and is kept (--overwrite replaces it)"});
    cases.push_back({"existing snapshot",
                     "import " + bad + " --snapshot " + quote(dir.file("s.json")), 5,
                     "exists already and is kept"});
    cases.push_back({"failing export",
                     "export " + doc("reel.json", replaced(snapshot, "\"A001\"", "\"R&#1\"")) +
                         " --to xmeml --overwrite" + o,
                     6, "could not be exported as xmeml"});
    cases.push_back({"output folder is a file",
                     "convert " + bad + " --to xmeml -o " + quote(out + "/Interview cut.xml"), 4,
                     "a file is in the way of the output folder"});
    cases.push_back({"snapshot folder missing",
                     "import " + bad + " --snapshot " + quote(dir.file("missing/s.json")), 4,
                     "the folder \"" + dir.file("missing") + "\" does not exist"});

    std::map<std::string, std::size_t> before = contents(dir.path());
    std::vector<std::string> specialBefore = qvtest::listDirectory(special.path());
    for (const Case& c : cases) {
        Outcome r = qvxml(c.args, c.prefix);
        EXPECT_EQ(r.status, c.status) << c.label << "\n" << r.err;
        EXPECT_EQ(qvtest::listDirectory(special.path()), specialBefore) << c.label;
        EXPECT_EQ(sentences(r.err), 1) << c.label << "\n" << r.err;
        EXPECT_NE(r.err.find(c.says), std::string::npos) << c.label << "\n" << r.err;
        EXPECT_EQ(contents(dir.path()), before) << c.label;
    }
    ::chmod(dir.file("locked").c_str(), 0755);
}

// A document converted into its own folder, whose sequence has the document's
// name: the output takes the next name, and the input stays as it was.
TEST_F(Safety, AnOutputNeverTakesTheInputsPlace) {
    std::string own = dir.file("Interview cut.xml");
    qvtest::writeFile(own, qvtest::readFile(kExample));
    Outcome r = qvxml("convert " + quote(own) + " --to native --overwrite -o " + quote(dir.path()));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, dir.file("Interview cut 2.xml") + "\n");
    EXPECT_EQ(qvtest::readFile(own), qvtest::readFile(kExample));
}

// An existing output is kept, or with --overwrite replaced whole, and said.
TEST_F(Safety, ExistingOutputsAreKeptOrReplaced) {
    Outcome first = qvxml("convert " + quote(kExample) + " --to xmeml -o " + quote(out));
    ASSERT_EQ(first.status, 0) << first.err;
    std::string written = qvtest::readFile(out + "/Interview cut.xml");
    qvtest::writeFile(out + "/Interview cut.xml", "edited by hand");
    Outcome again = qvxml("convert " + quote(kExample) + " --to xmeml -o " + quote(out));
    EXPECT_EQ(again.status, 5);
    EXPECT_EQ(qvtest::readFile(out + "/Interview cut.xml"), "edited by hand");
    Outcome forced =
        qvxml("convert " + quote(kExample) + " --to xmeml --overwrite -o " + quote(out));
    EXPECT_EQ(forced.status, 0) << forced.err;
    EXPECT_NE(forced.err.find("replaced the older"), std::string::npos) << forced.err;
    EXPECT_EQ(qvtest::readFile(out + "/Interview cut.xml"), written);
    EXPECT_EQ(contents(out).size(), 1u) << "no staging or temporary file is left";
}

// Under a file size limit a write fails with its sentence and status 5:
// the command ignores SIGXFSZ, which would end it without a word. The child
// is given the signal's default action, so that only the command can
// ignore it.
TEST_F(Safety, AFileSizeLimitIsAWriteError) {
    struct Run {
        std::vector<std::string> args;
        rlim_t limit;
        const char* says;
    };
    const Run runs[] = {
        {{"import", kExample, "--snapshot", "-"}, 100, "cannot write \"-\": file too large"},
        {{"info", kExample, "--clips", "--media"},
         0,
         "cannot write to standard output: file too "
         "large"},
        {{"convert", kExample, "--to", "xmeml", "-o", out}, 512, "file too large"},
    };
    for (const Run& run : runs) {
        // Standard output is a file under the limit; standard error a pipe,
        // which no limit cuts.
        const std::string stdoutFile = dir.file("stdout");
        int errors[2];
        ASSERT_EQ(::pipe(errors), 0);
        pid_t child = ::fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            std::signal(SIGXFSZ, SIG_DFL);
            int o = ::open(stdoutFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
            ::dup2(o, 1);
            ::dup2(errors[1], 2);
            ::close(errors[0]);
            struct rlimit limit = {run.limit, run.limit};
            ::setrlimit(RLIMIT_FSIZE, &limit);
            std::string command = std::string(QVXML_BIN_DIR) + "/qvxml";
            std::vector<char*> argv{command.data()};
            std::vector<std::string> args = run.args;
            for (std::string& a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            ::execv(command.c_str(), argv.data());
            ::_exit(127);
        }
        ::close(errors[1]);
        std::string err;
        char buffer[4096];
        for (ssize_t n; (n = ::read(errors[0], buffer, sizeof buffer)) > 0;)
            err.append(buffer, static_cast<std::size_t>(n));
        ::close(errors[0]);
        int raw = 0;
        ASSERT_EQ(::waitpid(child, &raw, 0), child);
        ASSERT_TRUE(WIFEXITED(raw)) << run.args[0] << " ended by signal " << WTERMSIG(raw);
        EXPECT_EQ(WEXITSTATUS(raw), 5) << run.args[0];
        EXPECT_NE(err.find(run.says), std::string::npos) << run.args[0] << "\n" << err;
    }
}

// Output folders that are files, and a snapshot's folder that is not there,
// are said as what they are, with the status of a missing folder.
TEST_F(Safety, FoldersInTheWay) {
    qvtest::writeFile(dir.file("file"), "x");
    Outcome r = qvxml("convert " + quote(kExample) + " --to xmeml -o " + quote(dir.file("file")));
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err,
              "qvxml: a file is in the way of the output folder \"" + dir.file("file") + "\"\n");
    r = qvxml("import " + quote(kExample) + " --snapshot missing/s.json");
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "qvxml: the folder \"missing\" does not exist\n");
}

}  // namespace
