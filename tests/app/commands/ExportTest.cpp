// export, through the built command: its loss report says what the format
// cannot hold.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

#include "host/Snapshot.h"
#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using nlohmann::json;
using namespace qvtest;

TEST_F(Conform, SoundThatFcpxmlLosesOnlyAsFirstWrittenIsReportedSo) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"a", 25, 10, {{kChanVideo, "V1"}}, L"/m/a.mov");
    Qv::Ptr<Edit> s = qvtest::addShot(store, L"s", 25, 10, {{kChanAudio, "A1"}}, L"/m/s.wav");
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25,
                                            {{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    // The picture starts a second in: the original writer drops the sound.
    qvtest::addCel(seq, 0, qvtest::playCookie(a, 0), 1, 3, 0);
    qvtest::addCel(seq, 1, qvtest::playCookie(s, 0), 0, 3, 0);
    const std::string snapshot = dir.file("project.json");
    ASSERT_TRUE(Snapshot::saveFile(store, snapshot).ok);
    for (bool legacy : {false, true}) {
        SCOPED_TRACE(legacy);
        const std::string report = dir.file(legacy ? "legacy.json" : "default.json");
        Outcome r =
            qvxml("export " + quote(snapshot) + " --to fcpxml --overwrite -o " + quote(dir.path()) +
                  " --report " + quote(report) + (legacy ? " --set xml_legacy_interchange=1" : ""));
        ASSERT_EQ(r.status, 0) << r.err;
        json counts = json::parse(qvtest::readFile(report))["documents"][0]["counts"];
        EXPECT_EQ(counts.value("audio-not-written", 0), legacy ? 1 : 0) << counts.dump();
    }
}

TEST_F(Conform, ExportReportsWhatTheFormatCannotHold) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"a", 25, 10, {{kChanVideo, "V1"}}, L"/m/a.mov");
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    qvtest::addCel(seq, 0, qvtest::playCookie(a, 0), 0, 2, 0, 0.5f);
    CelData& wipe = qvtest::addCel(seq, 0, video_dissolve, 2, 3, 0);
    wipe.wipeCode = 7;
    qvtest::addCel(seq, 0, qvtest::playCookie(a, 0), 3, 5, 4);
    seq->cues.push_back(Ced2Cue(L"look", L"", 0xFF0000, 1.0, kChanVideo, 0, kCueOpenEnd));
    const std::string snapshot = dir.file("project.json");
    ASSERT_TRUE(Snapshot::saveFile(store, snapshot).ok);

    const std::string report = dir.file("report.json");
    Outcome r = qvxml("export " + quote(snapshot) + " --to fcpxml -o " + quote(dir.path()) +
                      " --report " + quote(report));
    ASSERT_EQ(r.status, 0) << r.err;
    // The dissolve lasts 25 frames: Final Cut Pro X centres it on its cut
    // over 24.
    EXPECT_NE(r.err.find("to fcpxml: 4 losses"), std::string::npos) << r.err;
    json j = json::parse(qvtest::readFile(report));
    EXPECT_EQ(j["qvxml"], "loss-report");
    json counts = j["documents"][0]["counts"];
    EXPECT_EQ(counts["transition-shortened"], 1) << counts.dump();
    EXPECT_EQ(counts["speed"], 1) << counts.dump();
    EXPECT_EQ(counts["wipe-pattern"], 1);
    EXPECT_EQ(counts["marker-colour"], 1);
    for (const json& item : j["documents"][0]["items"]) {
        EXPECT_EQ(item["sequence"], "Cut");
        if (item["kind"] == "speed") {
            EXPECT_EQ(item["track"], "V1");
            EXPECT_EQ(item["timecode"], "00:00:00:00");
            EXPECT_EQ(item["detail"], "at 50%");
        }
        if (item["kind"] == "wipe-pattern") {
            EXPECT_EQ(item["frame"], 50);
        }
    }
    // xmeml holds all three.
    Outcome x = qvxml("export " + quote(snapshot) + " --to xmeml -o " + quote(dir.path()));
    ASSERT_EQ(x.status, 0) << x.err;
    EXPECT_NE(x.err.find("to xmeml: nothing was lost"), std::string::npos) << x.err;
}

}  // namespace
