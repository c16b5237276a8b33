// What the command changes around the plug-in: --map-path, for every import
// and export.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <filesystem>
#include <map>
#include <string>

#include "export/ExportDriver.h"
#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace qvtest;

TEST_F(Conform, MapPathFindsMediaNamedByPosixWindowsAndUncLocators) {
    // A cut whose media was on a Mac volume, a Windows drive and a server.
    Qv::Ptr<Edit> picture =
        offlineShot(L"clip", 1.0, {{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}},
                    L"file://localhost/D%3a/Footage/Day%201/clip.mov");
    Qv::Ptr<Edit> sound =
        offlineShot(L"tone", 0.2, {{kChanAudio, "A1"}}, L"file:///Volumes/Sound/tone.wav");
    Qv::Ptr<Edit> room =
        offlineShot(L"room", 0.2, {{kChanAudio, "A1"}}, L"file://nas/share/Audio/room tone.wav");
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25,
                                            {{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    qvtest::addCel(seq, 0, qvtest::playCookie(picture, 0), 0, 1, 0);
    qvtest::addCel(seq, 1, qvtest::playCookie(sound, 0), 0, 0.2, 0);
    qvtest::addCel(seq, 1, qvtest::playCookie(room, 0), 0.2, 0.4, 0);
    XMLExportOptions options;
    options.directory = dir.wpath();
    options.fileName = L"cut";
    options.flavour = XML::XMLFlavourFCP5;
    ASSERT_EQ(XML::XMLExportFiles(seq->cookie, options, LoggerHandle()).status, 1);
    const std::string document = dir.file("cut.xml");

    // The media now lies here, in folders of other names.
    const std::string mnt = dir.file("mnt");
    copyFile(kMedia + "/clip.mov", mnt + "/footage/Day 1/clip.mov");
    copyFile(kMedia + "/tone.wav", mnt + "/sound/tone.wav");
    copyFile(kMedia + "/tone.wav", mnt + "/nas/Audio/room tone.wav");
    const std::string maps = " --map-path " + quote("D:\\Footage=" + mnt + "/footage") +
                             " --map-path " + quote("file:///Volumes/Sound=" + mnt + "/sound") +
                             " --map-path " + quote("\\\\NAS\\share=" + mnt + "/nas");

    Outcome without = qvxml("info --json " + quote(document));
    ASSERT_EQ(without.status, 0) << without.err;
    json offline = json::parse(without.out);
    for (const json& m : offline["documents"][0]["media"])
        EXPECT_EQ(m["status"], "offline") << m.dump();

    Outcome with = qvxml("info --json --quiet " + quote(document) + maps);
    ASSERT_EQ(with.status, 0) << with.err;
    json media = json::parse(with.out)["documents"][0]["media"];
    ASSERT_EQ(media.size(), 3u);
    std::map<std::string, std::string> where;
    for (const json& m : media) {
        EXPECT_EQ(m["status"], "imported") << m.dump();
        EXPECT_TRUE(m["mapped"].get<bool>());
        where[fs::path(m["path"].get<std::string>()).filename().string()] = m["path"];
    }
    EXPECT_EQ(where["clip.mov"], fs::canonical(mnt + "/footage/Day 1/clip.mov").string());
    EXPECT_EQ(where["room tone.wav"], fs::canonical(mnt + "/nas/Audio/room tone.wav").string());

    // What is written names the media where it is now, percent-encoded.
    const std::string out = dir.file("out");
    fs::create_directories(out);
    Outcome converted =
        qvxml("convert " + quote(document) + " --to xmeml --quiet -o " + quote(out) + maps);
    ASSERT_EQ(converted.status, 0) << converted.err;
    std::string written = qvtest::readFile(out + "/Cut.xml");
    EXPECT_NE(written.find("/mnt/footage/Day%201/clip.mov</pathurl>"), std::string::npos)
        << written;
    EXPECT_NE(written.find("/mnt/nas/Audio/room%20tone.wav</pathurl>"), std::string::npos);
    EXPECT_EQ(written.find("D%3a"), std::string::npos);

    Outcome bad = qvxml("info " + quote(document) + " --map-path nowhere");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("--map-path wants FROM=TO"), std::string::npos) << bad.err;
}

}  // namespace
