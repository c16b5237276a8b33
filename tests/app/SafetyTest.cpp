// The command with hostile and unlucky input: what it refuses, what it says,
// and that it never costs a file that was there.
#include <gtest/gtest.h>

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::Outcome;
using qvtest::quote;
using qvtest::qvxml;

const std::string kExample = std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";
const std::string kSnapshot = std::string(QVXML_SOURCE_DIR) + "/examples/timeline.json";

// Every file under a folder, hidden ones included, with a hash of its bytes
// (folders and links by their kind).
std::map<std::string, std::size_t> contents(const std::string& root,
                                            const std::string& under = "") {
    std::map<std::string, std::size_t> out;
    DIR* d = ::opendir((root + under).c_str());
    if (!d) return out;
    while (dirent* e = ::readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        std::string rel = under + "/" + name;
        struct stat st;
        if (::lstat((root + rel).c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            out[rel + "/"] = 0;
            for (auto& [k, v] : contents(root, rel))
                out[k] = v;
        } else if (S_ISLNK(st.st_mode)) {
            out[rel + "@"] = 0;
        } else {
            out[rel] = std::hash<std::string>{}(qvtest::readFile(root + rel));
        }
    }
    ::closedir(d);
    return out;
}

// The lines the command itself said (not the log's warnings and errors).
int sentences(const std::string& err) {
    int n = 0;
    for (std::size_t at = 0; (at = err.find("qvxml: ", at)) != std::string::npos; ++at)
        if (at == 0 || err[at - 1] == '\n') ++n;
    return n;
}

std::string replaced(std::string doc, const std::string& from, const std::string& to) {
    std::size_t at = doc.find(from);
    if (at != std::string::npos) doc.replace(at, from.size(), to);
    return doc;
}

// Run as nobody when run as root, whom permissions do not stop.
std::string unprivileged() {
    if (::geteuid() != 0) return "";
    if (::access("/usr/bin/setpriv", X_OK) != 0) return "-";
    return "setpriv --reuid=65534 --regid=65534 --clear-groups";
}

class Safety : public qvtest::StoreTest {
  protected:
    Safety() {
        ::chmod(dir.path().c_str(), 0755);
        out = dir.file("out");
        ::mkdir(out.c_str(), 0755);
    }
    std::string doc(const std::string& name, const std::string& text) {
        qvtest::writeFile(dir.file(name), text);
        return quote(dir.file(name));
    }
    qvtest::TempDir dir;
    std::string out;
};

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
    cases.push_back({"full disk", "import " + bad + " --snapshot /dev/full", 5,
                     "cannot write \"/dev/full\": no space left on device"});
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
    for (const Case& c : cases) {
        Outcome r = qvxml(c.args, c.prefix);
        EXPECT_EQ(r.status, c.status) << c.label << "\n" << r.err;
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

// Names are shown, never obeyed: control characters come out escaped.
TEST_F(Safety, NamesCannotDriveTheTerminal) {
    std::string example = qvtest::readFile(kExample);
    std::string evil = replaced(example, "<Name>Interview cut</Name>",
                                "<Name>Cut\x1b]0;owned\x07\x1b[2J\xc2\x9b"
                                "1m</Name>");
    Outcome r = qvxml("import --verbose " + doc("evil.xml", evil));
    ASSERT_EQ(r.status, 0) << r.err;
    for (const std::string* text : {&r.out, &r.err}) {
        EXPECT_EQ(text->find('\x1b'), std::string::npos) << *text;
        EXPECT_EQ(text->find("\xc2\x9b"), std::string::npos);
        EXPECT_EQ(text->find('\x07'), std::string::npos);
    }
    EXPECT_NE(r.out.find("sequence \"Cut\\x1b]0;owned\\x07\\x1b[2J\\x9b1m\""), std::string::npos)
        << r.out;
}

// Paths are bytes: a document whose path is not UTF-8 is read, and written
// beside, like any other.
TEST_F(Safety, PathsThatAreNotUtf8) {
    std::string folder = dir.file("caf\xe9");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    std::string input = folder + "/cut \xe9t\xe9.xml";
    qvtest::writeFile(input, qvtest::readFile(kExample));
    Outcome r = qvxml("convert " + quote(input) + " --to native -o " + quote(folder));
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_TRUE(qvtest::exists(folder + "/Interview cut.xml"));
    EXPECT_EQ(r.out, dir.file("caf\\xe9") + "/Interview cut.xml\n") << "shown escaped";
}

// A name longer than a file name may be is shortened, keeping its extension
// and telling two such names apart.
TEST_F(Safety, LongNamesAreShortened) {
    std::string example = qvtest::readFile(kExample);
    std::string name(5000, 'x');
    std::string longer =
        replaced(example, "<Name>Interview cut</Name>", "<Name>" + name + "</Name>");
    std::size_t end = longer.rfind("</QVXML>");
    std::size_t edit = longer.find("<Edit>");
    std::string twice = longer.substr(0, end) + longer.substr(edit, end - edit) + "</QVXML>\n";
    Outcome r = qvxml("convert " + doc("long.xml", twice) + " --to xmeml --quiet -o " + quote(out));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, out + "/" + name.substr(0, 251) + ".xml\n" + out + "/" + name.substr(0, 249) +
                         " 2.xml\n");
}

// A name that a shortening cuts just after a "/" keeps one extension, and
// fits: its stem is the file's, separators replaced, before the extension is
// put after it. The fuzzer found "xxx</" written as "xxx__.otio.otio", which
// was too long to create.
TEST_F(Safety, NamesCutAfterASeparatorKeepOneExtension) {
    std::string example = qvtest::readFile(kExample);
    for (const char* to : {"native", "xmeml", "fcpxml", "otio"}) {
        std::string extension = std::string(".") + (to == std::string("native") ? "xml" : to);
        if (extension == ".xmeml") extension = ".xml";
        // Cut to 255 bytes with the extension: the stem's last two are "</".
        std::string kept(255 - extension.size() - 2, 'x');
        std::string named = replaced(example, "<Name>Interview cut</Name>",
                                     "<Name>" + kept + "&lt;/y" + std::string(20, 'y') + "</Name>");
        std::string folder = dir.file(std::string("cut-") + to);
        ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
        Outcome r = qvxml("convert " + doc(std::string("cut-") + to + ".xml", named) + " --to " +
                          to + " --quiet -o " + quote(folder));
        ASSERT_EQ(r.status, 0) << to << ": " << r.err;
        EXPECT_EQ(r.out, folder + "/" + kept + "__" + extension + "\n") << to;
    }
    Outcome r = qvxml(
        "convert " +
        doc("slash.xml", replaced(example, "<Name>Interview cut</Name>", "<Name>Cut/</Name>")) +
        " --to otio --quiet -o " + quote(out));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, out + "/Cut_.otio\n");
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
