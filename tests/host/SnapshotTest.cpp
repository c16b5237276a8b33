#include <gtest/gtest.h>

#include "host/Snapshot.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::StoreTest;

// Every field that an export reads, set to something other than its default.
Qv::Ptr<Edit> fullySetEdit(EditStore& store) {
    Qv::Ptr<Edit> shot =
        qvtest::addShot(store, L"Shot \u00f8", 29.97002997002997, 12.5,
                        {{kChanVideo, "V1"}, {kChanAudio, "A1"}}, L"/media/day 1/a.mov");
    shot->historicLocator = L"file://server/share/a.mov";
    shot->trackOriginFilename = "A001C003.mov";

    Qv::Ptr<Edit> e = qvtest::addSequence(store, L"Cut \"1\" & <2>", Qv::eFrameRate29_97);
    e->sourceFrameRate = Qv::eFrameRate23_976;
    e->rate = 29.97002997002997;
    e->length = 61.25;
    e->sourceMedium = 105;
    e->videoReelId = "R1";
    e->audioReelId = "A1";
    e->filmReelId = "F1";
    e->labRollId = "L1";
    e->setConfig("scene", "12");
    e->setConfig("description", "wide");
    e->setConfig("notes", "n\u00f8tes");
    e->setConfig("shot", "3");
    e->setConfig("who", "me");
    e->labels.push_back(
        editLabFrom("01:00:00;00", Qv::Image::eScanProgressive, Qv::eFrameRate29_97, true));
    e->labels.push_back(editLabFrom(24, Qv::Image::eScanProgressive, Qv::eFrameRate24, false));
    e->videoMetadata = ShotVideoMetadata(
        Qv::DigitalVideoFormats::findByUID(Qv::Image::FormatUID(28)), Qv::Image::kFormatYUY2,
        Qv::eFrameRate29_97, Qv::Image::eAspectSquare, true, Qv::Image::eScanProgressive, 10);
    e->audioSampleRate = 48048;
    e->audioInputSampleRate = Aud::SampleRate(Aud::eBase48000, Aud::eFactorPullUp);
    e->resamplingFactor = Aud::eFactorPullDown;
    e->trackOriginFilename = "track.mov";
    e->sequence = 4;
    e->frameBased = true;
    e->transfer = 7;
    e->sourceMediumDuration = 61.2;
    e->excludedFromExport = true;
    e->cues.push_back(Ced2Cue(L"m1", L"c1", 0xFF0000, 1.5, kChanVideo, 0, kCueOpenEnd));
    e->cues.push_back(Ced2Cue(L"m2", L"", 0x123456, 2.0, kChanAudio, 3, 4.25));
    e->channels[1].hasTrackLevels = true;
    e->channels[1].levels = {{0.0, 1.0f}, {0.5, 0.25f}, {1.0, 1.99296651f}};
    CelData& a = qvtest::addCel(e, 0, qvtest::playCookie(shot, 0), 0, 4, 1.0 / 3.0, -1.5f);
    a.alternates.push_back({qvtest::playCookie(shot, 0), 3});
    a.level = 0.5f;
    a.levelEnd = 0.75f;
    CelData& w = qvtest::addCel(e, 0, video_wipe, 4, 4.4, 0);
    w.wipeCode = 12;
    w.wipeDirection = eWipeReverse;
    qvtest::addCel(e, 1, audio_black, 0, 2, 0);
    return e;
}

void expectSameEdit(const Edit& a, const Edit& b) {
    EXPECT_EQ(a.cookie, b.cookie);
    EXPECT_EQ(a.name, b.name);
    EXPECT_EQ(a.logType, b.logType);
    EXPECT_EQ(a.frameRate, b.frameRate);
    EXPECT_EQ(a.sourceFrameRate, b.sourceFrameRate);
    EXPECT_EQ(a.rate, b.rate);
    EXPECT_EQ(a.length, b.length);
    EXPECT_EQ(a.sourceMedium, b.sourceMedium);
    EXPECT_EQ(a.channels, b.channels);
    EXPECT_EQ(a.cues, b.cues);
    EXPECT_EQ(a.labels.size(), b.labels.size());
    for (size_t i = 0; i < a.labels.size() && i < b.labels.size(); ++i)
        EXPECT_TRUE(a.labels[i] == b.labels[i]) << i;
    EXPECT_EQ(a.videoReelId, b.videoReelId);
    EXPECT_EQ(a.audioReelId, b.audioReelId);
    EXPECT_EQ(a.filmReelId, b.filmReelId);
    EXPECT_EQ(a.labRollId, b.labRollId);
    EXPECT_EQ(a.config, b.config);
    EXPECT_TRUE(a.videoMetadata == b.videoMetadata);
    EXPECT_EQ(a.audioSampleRate, b.audioSampleRate);
    EXPECT_TRUE(a.audioInputSampleRate == b.audioInputSampleRate);
    EXPECT_EQ(a.resamplingFactor, b.resamplingFactor);
    EXPECT_EQ(a.trackOriginFilename, b.trackOriginFilename);
    EXPECT_EQ(a.sequence, b.sequence);
    EXPECT_EQ(a.frameBased, b.frameBased);
    EXPECT_EQ(a.transfer, b.transfer);
    EXPECT_EQ(a.sourceMediumDuration, b.sourceMediumDuration);
    EXPECT_EQ(a.excludedFromExport, b.excludedFromExport);
    EXPECT_EQ(a.mediaPath, b.mediaPath);
    EXPECT_EQ(a.historicLocator, b.historicLocator);
}

TEST_F(StoreTest, SnapshotWithEveryFieldSetSurvivesDumpAndLoad) {
    fullySetEdit(store);
    std::string text = Snapshot::dump(store);

    EditStore other(1);
    Snapshot::Result r = Snapshot::load(other, text, "");
    ASSERT_TRUE(r.ok) << r.error;
    ASSERT_EQ(other.size(), store.size());
    for (size_t i = 0; i < store.size(); ++i)
        expectSameEdit(*store.edits()[i], *other.edits()[i]);
    EXPECT_EQ(Snapshot::dump(other), text);
    EXPECT_EQ(other.generatorState(), store.generatorState());
}

TEST_F(StoreTest, HandWrittenSnapshotNamesEditsAndMagic) {
    const char* text = R"({
      "edits": [
        {"name": "Cut", "type": "sequence", "frameRate": "25",
         "channels": [
           {"type": "video", "cels": [
             {"source": "Shot A", "editIn": 0, "editOut": 2, "sourceIn": 1},
             {"magic": "dissolve", "editIn": 2, "editOut": 2.4},
             {"source": {"edit": "Shot A", "channel": 0}, "editIn": 2.4, "editOut": 4, "sourceIn": 5}]},
           {"type": "audio", "cels": [{"source": "Shot A", "editIn": 0, "editOut": 4}]}]},
        {"name": "Shot A", "type": "shot", "rate": 25, "length": 10, "media": "media/a.mov",
         "labels": [{"timecode": "10:00:00:00", "rate": "25"}],
         "channels": [{"type": "video"}, {"type": "audio"}]}
      ]})";
    Snapshot::Result r = Snapshot::load(store, text, "/project");
    ASSERT_TRUE(r.ok) << r.error;
    Qv::Ptr<Edit> cut = store.findByName(L"Cut");
    Qv::Ptr<Edit> shot = store.findByName(L"Shot A");
    ASSERT_TRUE(cut && shot);
    EXPECT_EQ(cut->frameRate, Qv::eFrameRate25);
    EXPECT_EQ(shot->mediaPath, L"/project/media/a.mov");
    EXPECT_EQ(shot->labels.at(0).get_start(), 900000);
    const std::vector<CelData>& v = cut->channels[0].cels;
    EXPECT_EQ(v[0].cookie, convertCookie(shot->cookie, kCookieVideo, 0));
    EXPECT_EQ(v[0].sourceOut, 3.0);
    EXPECT_EQ(v[1].cookie, video_dissolve);
    EXPECT_EQ(cut->channels[1].cels[0].cookie, convertCookie(shot->cookie, kCookieSound, 1));
    // A shot's channels without cels play the shot whole.
    ASSERT_EQ(shot->channels[1].cels.size(), 1u);
    EXPECT_EQ(shot->channels[1].cels[0].editOut, 10.0);
}

TEST_F(StoreTest, SnapshotErrorsSayWhereAndLeaveTheStoreAlone) {
    auto error = [&](const char* text) {
        Snapshot::Result r = Snapshot::load(store, text, "");
        EXPECT_FALSE(r.ok);
        return r.error;
    };
    EXPECT_EQ(error("{\n  \"edits\": [,]}"), "the file is not valid JSON (line 2, column 13)");
    EXPECT_EQ(error(R"({"edits":[{"name":"a","frameRate":"27"}]})"),
              "edits[0].frameRate: \"27\" is no known frame rate");
    EXPECT_EQ(error(R"({"edits":[{"name":"a","channels":[{"cels":[{"source":"nobody"}]}]}]})"),
              "edits[0].channels[0].cels[0].source: no edit is named \"nobody\"");
    EXPECT_EQ(error(R"({"edits":[{"name":"a","length":"long"}]})"),
              "edits[0].length: must be a number");
    EXPECT_EQ(error(R"({"version": 99})"),
              "version: snapshot version 99 is newer than this program reads (1)");
    EXPECT_EQ(store.size(), 0u);
}

// Hostile snapshots: nesting past any real snapshot is refused before it is
// parsed, and no value of a field makes a value its type cannot hold.
TEST_F(StoreTest, SnapshotsThatNoEditorWroteAreRefusedPlainly) {
    auto error = [&](const std::string& text) {
        Snapshot::Result r = Snapshot::load(store, text, "");
        EXPECT_FALSE(r.ok) << text.substr(0, 80);
        return r.error;
    };
    std::string deep = std::string(100000, '[') + std::string(100000, ']');
    EXPECT_EQ(error(deep),
              "the snapshot nests deeper than 64 levels (line 1, column 65), which no snapshot "
              "does");
    EXPECT_EQ(error(R"({"seed": 107080865E9529497632})"),
              "the file holds a number too large to read");
    std::string deepInString = "{\"edits\":[],\"x\":\"" + std::string(1000, '[') + "\"}";
    EXPECT_TRUE(Snapshot::load(store, deepInString, "").ok) << "brackets in text do not nest";

    EXPECT_EQ(error(R"({"edits":[{"audioInputSampleRate":{"base":-7}}]})"),
              "edits[0].audioInputSampleRate.base: -7 is no sample rate base (0 to 10)");
    EXPECT_EQ(error(R"({"edits":[{"audioInputSampleRate":{"base":9,"factor":2147483648}}]})"),
              "edits[0].audioInputSampleRate.factor: 2147483648 is no sample rate factor (0 to 8)");
    EXPECT_EQ(error(R"({"edits":[{"resamplingFactor":-1}]})"),
              "edits[0].resamplingFactor: -1 is no sample rate factor (0 to 8)");
    EXPECT_EQ(error(R"({"edits":[{"channels":[{"cels":[{"alternates":{"a":1}}]}]}]})"),
              "edits[0].channels[0].cels[0].alternates: must be a list");
    EXPECT_EQ(store.size(), 0u);
}

TEST_F(StoreTest, SnapshotCelsThatNameNoEditAreReported) {
    Cookie stranger = makeNewEditCookie();
    std::string text =
        R"({"edits":[{"name":"Cut","channels":[{"type":"video","cels":[{"cookie":")" +
        stranger.asString().str() + R"(","alternates":[{"cookie":")" + stranger.asString().str() +
        R"("}]},{"magic":"black"}]}]}]})";
    Snapshot::Result r = Snapshot::load(store, text, "");
    ASSERT_TRUE(r.ok) << r.error;
    ASSERT_EQ(r.warnings.size(), 2u);
    EXPECT_EQ(r.warnings[0], "edits[0].channels[0].cels[0].cookie: \"" + stranger.asString().str() +
                                 "\" names no edit of the snapshot or the project");
    EXPECT_NE(r.warnings[1].find("cels[0].alternates[0].cookie"), std::string::npos);
}

// Text taken from a document need not be UTF-8; the snapshot still writes.
TEST_F(StoreTest, SnapshotOfTextThatIsNotUtf8) {
    Qv::Ptr<Edit> shot = qvtest::addShot(store, L"Shot", 25, 2);
    shot->videoReelId = "Rolle \xF8";
    std::string text = Snapshot::dump(store);
    EXPECT_NE(text.find("Rolle \xEF\xBF\xBD"), std::string::npos);
}

}  // namespace
