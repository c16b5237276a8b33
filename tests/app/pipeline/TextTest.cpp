// Names are shown, never obeyed, in every command's words.
#include <gtest/gtest.h>

#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

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

}  // namespace
