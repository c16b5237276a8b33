// The command with hostile and unlucky input: what it refuses, what it says,
// and that it never costs a file that was there.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <nlohmann/json.hpp>

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
    qvtest::TempDir special;
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

// A time or rate of a document that is no usable number (NaN, Infinity,
// 1e300, hexadecimal, a rate the editor does not have) would be read as
// another time: in every format the command warns naming the element and
// its line, writes nothing and ends with status 10.
TEST_F(Safety, DamagedTimesAreUntrustedInEveryFormat) {
    const std::string premiere =
        qvtest::readFile(std::string(QVXML_SOURCE_DIR) + "/examples/xmeml/premiere_example.xml");
    const std::string interview = qvtest::readFile(kExample);
    // `from` replaced by `to` in `text`, and the line it stood on.
    auto damage = [](const std::string& text, const std::string& from, const std::string& to,
                     std::string& line) {
        std::size_t at = text.find(from);
        line = std::to_string(1 + std::count(text.begin(), text.begin() + at, '\n'));
        return replaced(text, from, to);
    };
    struct Case {
        std::string label, name, text, says;
        std::string options = "";
    };
    std::vector<Case> cases;
    std::string line;
    std::string text = damage(premiere, "<start>536<", "<start>NaN<", line);
    cases.push_back({"xmeml start", "start.xml", text, "<start> \"NaN\" on line " + line});
    text = damage(premiere, "<timebase>30<", "<timebase>inf<", line);
    cases.push_back({"xmeml timebase", "rate.xml", text, "<timebase> \"inf\" on line " + line});
    text = damage(premiere, "<in>", "<in>0x10", line);
    cases.push_back({"xmeml in", "in.xml", text, "<in> \"0x10"});
    // A sequence's timecode given only as text, which names no time of day.
    cases.push_back({"xmeml timecode text", "timecode.xml",
                     "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xmeml version=\"5\">"
                     "<sequence id=\"s\"><name>s</name><duration>50</duration>"
                     "<rate><timebase>25</timebase></rate>\n<timecode><rate><timebase>25"
                     "</timebase></rate><string>01:00:0x:00</string></timecode>\n<media><video>"
                     "<track><clipitem id=\"c\"><name>c</name><duration>50</duration><rate>"
                     "<timebase>25</timebase></rate><start>0</start><end>50</end><in>0</in>"
                     "<out>50</out><file id=\"f\"><name>f.mov</name><duration>50</duration>"
                     "<rate><timebase>25</timebase></rate></file></clipitem></track></video>"
                     "</media></sequence></xmeml>\n",
                     "<string> \"01:00:0x:00\" on line 3 is not a timecode"});
    text = damage(interview, "<Duration>30</Duration>\n        <Rate num=\"250000\"",
                  "<Duration>30</Duration>\n        <Rate num=\"123456\"", line);
    cases.push_back({"QVXML 2.0 Edit rate", "rate2.xml", text,
                     "<Rate> \"123456/10000\" on line " + std::to_string(std::stoi(line) + 1) +
                         " is no frame rate"});
    cases.push_back({"QVXML 1.0 EditRes", "rate1.xml",
                     "<QVXML Version=\"1.0\">\n<EditRes num=\"123456\" den=\"10000\"/>\n"
                     "<Edit><Name>e</Name><ChanList><Chan><Name>v</Name><Id>c</Id>"
                     "<Type>Video</Type><CelEvent><EditIn>0</EditIn><EditOut>25</EditOut>"
                     "<Offset>0</Offset></CelEvent></Chan></ChanList></Edit>\n</QVXML>\n",
                     "<EditRes> \"123456/10000\" on line 2 is no frame rate"});
    cases.push_back({"EDL timecode", "damaged.edl",
                     "TITLE: damaged\nFCM: NON-DROP FRAME\n"
                     "001  A  V  C  01:00:00:00 01:00:01:00 01:00:00:00 01:00:01:00\n"
                     "002  A  V  C  01:00:01:00 01:00:02:00 01:00:01:NaN 01:00:02:00\n",
                     "line 4: \"01:00:01:NaN\", the record in of event 002, is no timecode",
                     " --rate 25"});

    for (const Case& c : cases) {
        const std::string input = doc(c.name, c.text);
        const std::string snapshot = out + "/project.json";
        const std::map<std::string, std::size_t> before = contents(out);
        for (const std::string& command :
             {"import " + input + " --snapshot " + quote(snapshot),
              "convert " + input + " --to otio -o " + quote(out), "info " + input,
              "draw " + input + " -o " + quote(out + "/page.svg")}) {
            Outcome r = qvxml(command + c.options);
            EXPECT_EQ(r.status, 10) << c.label << ": " << command << "\n" << r.err;
            EXPECT_NE(r.err.find(c.says), std::string::npos) << c.label << ": " << command << "\n"
                                                             << r.err;
            EXPECT_NE(r.err.find("cannot be trusted"), std::string::npos) << r.err;
            EXPECT_EQ(contents(out), before) << c.label << ": " << command;
            if (command.rfind("info", 0) == 0) {
                EXPECT_EQ(r.out, "") << c.label;
            }
        }
    }
    // `rate` of a document whose rate is damaged answers nothing it cannot trust.
    Outcome rate = qvxml("rate " + doc("rate.xml", cases[1].text));
    EXPECT_EQ(rate.status, 10) << rate.err;
    EXPECT_EQ(rate.out, "");
    EXPECT_NE(rate.err.find(cases[1].says), std::string::npos) << rate.err;

    // The forms documents write read as ever.
    const std::string fine = doc("fine.xml", replaced(premiere, "<start>536<", "<start> 536.0 <"));
    EXPECT_EQ(qvxml("convert " + fine + " --to otio -o " + quote(out)).status, 0);
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

// Names are shown, never obeyed: control characters and bytes that are not
// UTF-8 come out escaped, in every command's words, whether they come from
// the document's content or the name of its file. XML holds no C0 control,
// but may hold a C1 one; OpenTimelineIO and snapshots hold any.
TEST_F(Safety, NamesCannotDriveTheTerminal) {
    const std::string c1 = "\xc2\x9b";
    std::string text = replaced(qvtest::readFile(kExample), "<Name>Interview cut</Name>",
                                "<Name>Cut" + c1 + "1m</Name>");
    for (int k = 0; k < 4; ++k)
        text = replaced(text, "Day%201/", "Day%201" + c1 + "/");
    // The file's name holds what a document cannot: a byte that is not UTF-8.
    const std::string xml = doc("evil\x1b[2J\xff.xml", text);
    const std::string snapshot = dir.file("evil.json");
    Outcome imported = qvxml("import --verbose " + xml + " --snapshot " + quote(snapshot));
    ASSERT_EQ(imported.status, 0) << imported.err;
    EXPECT_NE(imported.out.find("sequence \"Cut\\x9b1m\""), std::string::npos) << imported.out;
    // The snapshot's names and locators given escape sequences, and written
    // as OpenTimelineIO.
    const std::string evil = "\\u001b]0;owned\\u0007\\u001b[2J\\u009b";
    std::string json = replaced(qvtest::readFile(snapshot), "Cut" + c1, "Cut" + evil);
    for (int k = 0; k < 2; ++k)
        json = replaced(json, "Day%201/", "Day%201" + evil + "/");
    json = replaced(json, "\"name\": \"Interview\"", "\"name\": \"Interview" + evil + "\"");
    ASSERT_NE(json.find("Cut" + evil), std::string::npos) << json;
    qvtest::writeFile(snapshot, json);
    Outcome otio = qvxml("export " + quote(snapshot) + " --to otio -o " + quote(dir.path()) +
                         " --name " + quote("evil\x1b[2J.otio"));
    ASSERT_EQ(otio.status, 0) << otio.err;
    const std::string input = quote(dir.file("evil\x1b[2J.otio"));
    const std::pair<const char*, std::string> runs[] = {
        {"import", "import --verbose " + input + " " + xml},
        {"convert", "convert --verbose " + input + " --to xmeml --overwrite -o " + quote(out)},
        {"batch",
         "convert " + input + " " + xml + " -j 2 --to native --overwrite -o " + quote(out)},
        {"edl", "convert " + input + " --to edl --overwrite -o " + quote(out)},
        {"info", "info " + input + " --clips --media --markers"},
        {"info of two", "info " + input + " " + xml + " --media -j 2"},
        {"draw", "draw " + input + " --overwrite -o " + quote(out + "/\x1b[2J.svg")},
        {"relink", "relink " + quote(snapshot) + " --search " + quote(dir.path()) + " --dry-run"},
        {"rate", "rate " + input},
        {"refused", "import " + doc("\x1b[2Jcut.xml", text.substr(0, text.size() / 2))},
        {"missing", "info " + quote(dir.file("\x1b[2Jmissing.xml"))},
    };
    for (const auto& [label, args] : runs) {
        Outcome r = qvxml(args);
        EXPECT_NE(r.status, -1) << label;
        for (const std::string* said : {&r.out, &r.err}) {
            EXPECT_EQ(said->find('\x1b'), std::string::npos) << label << "\n" << *said;
            EXPECT_EQ(said->find('\x07'), std::string::npos) << label << "\n" << *said;
            EXPECT_EQ(said->find(c1), std::string::npos) << label << "\n" << *said;
            EXPECT_EQ(said->find('\xff'), std::string::npos) << label << "\n" << *said;
        }
        EXPECT_NE((r.out + r.err).find("\\x1b"), std::string::npos) << label << " names it";
    }
}

// A document that says it is written in ISO-8859-1 or Windows-1252 is read
// as it was written: its names and locators arrive as their characters.
TEST_F(Safety, DeclaredEncodingsAreHonoured) {
    std::string latin =
        replaced(qvtest::readFile(kExample), "encoding=\"UTF-8\"", "encoding=\"ISO-8859-1\"");
    latin = replaced(latin, "<Name>Interview cut</Name>", "<Name>H\xF8iby \xE9t\xE9</Name>");
    latin = replaced(latin, "Day%201/interview.mov", "Day%201/H\xF8iby.mov");
    const std::string snapshot = dir.file("latin.json");
    Outcome r = qvxml("import " + doc("latin.xml", latin) + " --snapshot " + quote(snapshot));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("sequence \"H\xC3\xB8iby \xC3\xA9t\xC3\xA9\""), std::string::npos)
        << r.out;
    std::string written = qvtest::readFile(snapshot);
    EXPECT_NE(written.find("\"H\xC3\xB8iby \xC3\xA9t\xC3\xA9\""), std::string::npos);
    EXPECT_NE(written.find("H\xC3\xB8iby.mov"), std::string::npos);
    EXPECT_EQ(written.find('\xF8'), std::string::npos);
    Outcome rate = qvxml("rate " + quote(dir.file("latin.xml")));
    EXPECT_EQ(rate.status, 0) << rate.err;

    std::string windows = replaced(latin, "ISO-8859-1", "Windows-1252");
    windows = replaced(windows, "\xE9t\xE9", "\x80");
    r = qvxml("convert " + doc("cp.xml", windows) + " --to xmeml --overwrite -o " + quote(out));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(qvtest::readFile(out + "/H\xC3\xB8iby \xE2\x82\xAC.xml").find("<name>H\xC3\xB8iby"),
              std::string::npos);
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
