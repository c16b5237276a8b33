// The command with edit decision lists: lists are told by their content and
// read by every command that reads documents; --to edl writes a list for each
// video track; what does not cross is in the loss report.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace qvtest;

const char* const kList =
    "TITLE: Scene 12\r\n"
    "FCM: NON-DROP FRAME\r\n"
    "001  A192C008_160909_R1BY V     C        10:00:00:00 10:00:02:00 01:00:00:00 01:00:02:00\r\n"
    "* FROM CLIP NAME: 12A-1\r\n"
    "* SOURCE FILE: /Volumes/Camera/A192C008_160909_R1BY.mov\r\n"
    "002  A192C008_160909_R1BY V     C        10:00:02:00 10:00:02:00 01:00:02:00 01:00:02:00\r\n"
    "002  B033C009_160819_R16W V     K B 000  11:00:00:00 11:00:01:00 01:00:02:00 01:00:03:00\r\n"
    "003  B033C009_160819_R16W B     C        11:00:05:00 11:00:06:00 01:00:03:00 01:00:04:00\r\n";

class EdlCommand : public ::testing::Test {
  protected:
    std::string list(const std::string& name = "scene12.edl", const char* text = kList) {
        std::string path = dir.file(name);
        qvtest::writeFile(path, text);
        return path;
    }
    nlohmann::json report(const std::string& path) {
        return nlohmann::json::parse(qvtest::readFile(path), nullptr, false);
    }
    qvtest::TempDir dir;
};

TEST_F(EdlCommand, AListIsReadByItsContentWhateverItsName) {
    std::string path = list("scene 12 from the cutting room.txt");
    Outcome r = qvxml("import " + quote(path));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("1 sequence, 0 shots imported, 0 linked, 2 offline"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("sequence \"Scene 12\""), std::string::npos);
    // Nothing in it tells its rate: it is read at 25, and that is said.
    EXPECT_NE(r.err.find("does not say its rate: it is read at 25 fps"), std::string::npos)
        << r.err;

    Outcome rate = qvxml("rate " + quote(path));
    EXPECT_EQ(rate.status, 0) << rate.err;
    EXPECT_EQ(rate.out, "25\n");
    EXPECT_NE(rate.err.find("does not say its rate: nothing in it tells"), std::string::npos);
    Outcome given = qvxml("rate --rate 23.976 " + quote(path));
    EXPECT_EQ(given.out, "23.98\n");
    EXPECT_EQ(given.err, "");

    Outcome info = qvxml("info --media --rate 24 " + quote(path));
    EXPECT_EQ(info.status, 0) << info.err;
    EXPECT_NE(info.out.find("(edl)"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("24 fps  starts 01:00:00:00"), std::string::npos) << info.out;
    EXPECT_NE(info.out.find("named /Volumes/Camera/A192C008_160909_R1BY.mov"), std::string::npos)
        << info.out;
}

TEST_F(EdlCommand, WritesAListForEachVideoTrackAndNeverOverAnInput) {
    std::string path = list();
    Outcome r = qvxml("convert " + quote(path) + " --to edl -o " + quote(dir.path()));
    ASSERT_EQ(r.status, 0) << r.err;
    std::string written = dir.file("Scene 12 V1.edl");
    EXPECT_EQ(r.out, written + "\n");
    std::string text = qvtest::readFile(written);
    EXPECT_NE(text.find("001  A192C008_160909_R1BY V     C        10:00:00:00"), std::string::npos)
        << text;

    // Again: the list just written is an input now, and stays as it is.
    Outcome again = qvxml("convert " + quote(written) + " --to edl -o " + quote(dir.path()));
    ASSERT_EQ(again.status, 0) << again.err;
    EXPECT_EQ(again.out, dir.file("Scene 12 V1 2.edl") + "\n");
    EXPECT_EQ(qvtest::readFile(dir.file("Scene 12 V1 2.edl")), text);
    EXPECT_EQ(qvtest::readFile(written), text);

    // A sequence with several video tracks: a list for each, or the one
    // asked for.
    std::string premiere = std::string(QVXML_SOURCE_DIR) + "/examples/xmeml/premiere_example.xml";
    qvtest::TempDir out;
    Outcome tracks = qvxml("convert " + quote(premiere) + " --to edl -o " + quote(out.path()));
    ASSERT_EQ(tracks.status, 0) << tracks.err;
    EXPECT_TRUE(qvtest::exists(out.file("sc01_sh010_layerA V1.edl")));
    EXPECT_TRUE(qvtest::exists(out.file("sc01_sh010_layerA V2.edl")));
    qvtest::TempDir one;
    Outcome v2 =
        qvxml("convert " + quote(premiere) + " --to edl --edl-track V2 -o " + quote(one.path()));
    ASSERT_EQ(v2.status, 0) << v2.err;
    EXPECT_EQ(v2.out.find("V1.edl"), std::string::npos) << v2.out;
    EXPECT_TRUE(qvtest::exists(one.file("sc01_sh010_layerA V2.edl")));
    Outcome none =
        qvxml("convert " + quote(premiere) + " --to edl --edl-track V9 -o " + quote(one.path()));
    EXPECT_EQ(none.status, 1);
    EXPECT_NE(none.err.find("--edl-track V9: \"sc01_sh010_layerA\" \"V9\" is no video track"),
              std::string::npos)
        << none.err;

    // From a snapshot, named as asked.
    std::string snapshot = std::string(QVXML_SOURCE_DIR) + "/examples/timeline.json";
    Outcome exported =
        qvxml("export " + quote(snapshot) + " --to edl --name mine.xml -o " + quote(out.path()));
    EXPECT_EQ(exported.status, 0) << exported.err;
    EXPECT_EQ(exported.out, out.file("mine V1.edl") + "\n");
}

TEST_F(EdlCommand, TheLossReportHoldsWhatTheListReaderAndWriterRecorded) {
    std::string path = list();
    std::string reportFile = dir.file("losses.json");
    Outcome r = qvxml("convert " + quote(path) + " --to edl --edl-reel-length 8 --rate 24 -o " +
                      quote(dir.path()) + " --report " + quote(reportFile));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.err.find("1 keys read as cuts"), std::string::npos) << r.err;
    std::string text = qvtest::readFile(dir.file("Scene 12 V1.edl"));
    EXPECT_NE(text.find("001  A192C008 V     C"), std::string::npos) << text;
    EXPECT_NE(text.find("003  B033C009 B     C        11:00:05:00"), std::string::npos) << text;

    nlohmann::json losses = report(reportFile);
    ASSERT_TRUE(losses.is_object());
    const nlohmann::json& doc = losses["documents"][0];
    EXPECT_EQ(doc["outputs"], nlohmann::json::array({"Scene 12 V1.edl"}));
    std::vector<std::string> kinds;
    for (const nlohmann::json& item : doc["items"]) {
        kinds.push_back(item["kind"].get<std::string>() + "/" + item["origin"].get<std::string>());
        if (item["kind"] == "key-as-cut") {
            EXPECT_EQ(item["track"], "V1");
            EXPECT_EQ(item["timecode"], "01:00:02:00");
            EXPECT_EQ(item["frame"], 48);
            EXPECT_EQ(item["sequence"], "Scene 12");
        }
    }
    EXPECT_EQ(kinds, (std::vector<std::string>{"key-as-cut/reader", "reel-shortened/writer",
                                               "reel-shortened/writer"}));
}

TEST_F(EdlCommand, OfflineSourcesOfAListAreRelinkedByTheirNames) {
    // Avid names a source without its extension.
    std::string path = list("avid.edl",
                            "TITLE: Avid\r\n"
                            "001  A192C008_R1 V     C        10:00:00:00 10:00:00:10 01:00:00:00 "
                            "01:00:00:10\r\n"
                            "*FROM CLIP NAME:  V1A-6A\r\n"
                            "*SOURCE FILE: A192C008_R1\r\n");
    std::string snapshot = dir.file("avid.json");
    Outcome imported = qvxml("import " + quote(path) + " --snapshot " + quote(snapshot));
    ASSERT_EQ(imported.status, 0) << imported.err;
    EXPECT_NE(imported.out.find("1 offline"), std::string::npos) << imported.out;
    qvtest::TempDir footage;
    qvtest::writeFile(
        footage.file("A192C008_R1.mov"),
        qvtest::readFile(std::string(QVXML_SOURCE_DIR) + "/examples/native/interview.mov"));
    Outcome relinked = qvxml("relink " + quote(snapshot) + " --search " + quote(footage.path()));
    EXPECT_EQ(relinked.status, 0) << relinked.err;
    EXPECT_NE(relinked.out.find("linked \"V1A-6A\" to " + footage.file("A192C008_R1.mov")),
              std::string::npos)
        << relinked.out;

    // Read beside its media, the same list finds it at once.
    qvtest::writeFile(footage.file("avid.edl"), qvtest::readFile(path));
    Outcome found = qvxml("info --media " + quote(footage.file("avid.edl")));
    EXPECT_EQ(found.status, 0) << found.err;
    EXPECT_NE(found.out.find("1 file: 1 imported"), std::string::npos) << found.out;
}

TEST_F(EdlCommand, WhatIsNoListIsSaidInOneSentence) {
    Outcome empty = qvxml("import " + quote(list("empty.edl", "TITLE: nothing here\r\n")));
    EXPECT_EQ(empty.status, 3);
    EXPECT_NE(empty.err.find("cannot be read as an edit decision list: it holds no event that "
                             "can be read"),
              std::string::npos)
        << empty.err;
    EXPECT_EQ(qvxml("import --rate fast " + quote(list())).status, 1);
    EXPECT_EQ(qvxml("convert " + quote(list()) + " --to edl --edl-reel-length 0").status, 1);
    EXPECT_EQ(qvxml("convert " + quote(list()) + " --to edl --edl-track A1").status, 1);
}

}  // namespace
