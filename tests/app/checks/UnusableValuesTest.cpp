// Times that no export can write, through the built command: every format
// refuses them unless --lenient, and no file is touched.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

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

}  // namespace
