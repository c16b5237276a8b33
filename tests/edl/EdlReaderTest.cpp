// Lists read into the store: where each event lands, what transitions,
// speeds and channels become, the rate a list is read at, its shots and their
// media, and what is passed over said as losses.
#include <gtest/gtest.h>

#include <cmath>

#include "edl/EdlReader.h"
#include "host/Media.h"
#include "host/PathMap.h"
#include "tests/edl/EdlTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using qvedl::readText;
using qvedl::track;

class EdlReader : public qvtest::StoreTest {
  protected:
    Qv::Ptr<Edit> read(const std::string& text, Qv::FrameRate rate = Qv::eFrameRateNone) {
        XML::ImportResult r = readText(text, rate, capturingLog());
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.edits.size(), 1u);
        return r.edits.empty() ? nullptr : r.edits[0].ptr();
    }
    // Frames of a cel time at the sequence's timebase.
    static long long frames(double t, const Qv::Ptr<Edit>& seq) {
        return std::llround(t * Qv::getTicksPerSecond(seq->frameRate));
    }
    Qv::Ptr<Edit> shotOf(const CelData& cel) { return store.find(cel.cookie); }
    // The source timecode frame a cel starts at.
    double sourceOf(const CelData& cel, const Qv::Ptr<Edit>& seq) {
        Qv::Ptr<Edit> shot = shotOf(cel);
        EditLabel tc = shot->getVideoTimecodeLabel();
        return (tc.is_valid() ? tc.get_start() : 0) +
               cel.sourceIn * Qv::getTicksPerSecond(seq->frameRate);
    }
    int losses(const char* kind) const {
        int n = 0;
        for (const LossRecord& l : sink->losses)
            n += l.kind == kind;
        return n;
    }
    bool warned(const char* text) const { return sink->contains(text); }
};

TEST_F(EdlReader, DropFrameRecordTimesCrossAMinuteAsTheyCount) {
    Qv::Ptr<Edit> seq = read(
        "TITLE: drop\n"
        "FCM: DROP FRAME\n"
        "001  A  V  C  01:00:00:00 01:00:00:06 00:00:59:26 00:01:00:04\n"
        "002  A  V  C  01:00:10:00 01:00:10:02 00:01:00:04 00:01:00:06\n");
    ASSERT_TRUE(seq);
    // Drop frame tells the rate: 29.97, and the sequence counts as the list.
    EXPECT_EQ(seq->frameRate, Qv::eFrameRate29_97);
    EditLabel start = seq->getVideoTimecodeLabel();
    EXPECT_TRUE(start.isDropFrame());
    EXPECT_EQ(start.get_string(0).str(), "00:00:59;26");
    const StoredChannel* v1 = track(seq, "V1");
    ASSERT_TRUE(v1);
    ASSERT_EQ(v1->cels.size(), 2u);
    // 00:00:59;26 to 00:01:00;04 is six frames: 26 to 29, then 02 and 03.
    EXPECT_EQ(frames(v1->cels[0].editOut, seq), 6);
    EXPECT_EQ(frames(v1->cels[1].editIn, seq), 6);
    EXPECT_EQ(frames(v1->cels[1].editOut, seq), 8);
    EXPECT_FALSE(warned("does not say its rate"));
}

TEST_F(EdlReader, AFrameCodeModeChangeMidListCountsEachEventInItsOwnMode) {
    Qv::Ptr<Edit> seq = read(
        "FCM: NON-DROP FRAME\n"
        "001  A  V  C  01:00:00:00 01:00:02:00 00:00:58:00 00:01:00:00\n"
        "FCM: DROP FRAME\n"
        "002  B  V  C  01:00:00:00 01:00:02:00 00:01:00:02 00:01:02:02\n",
        Qv::eFrameRate29_97);
    const StoredChannel* v1 = track(seq, "V1");
    ASSERT_TRUE(v1);
    // Non-drop 00:01:00:00 is frame 1800; drop frame 00:01:00;02 is 1800
    // too: the second event follows the first without a gap.
    ASSERT_EQ(v1->cels.size(), 2u);
    EXPECT_EQ(frames(v1->cels[0].editOut, seq), 60);
    EXPECT_EQ(frames(v1->cels[1].editIn, seq), 60);
    EXPECT_FALSE(seq->getVideoTimecodeLabel().isDropFrame());  // the first event's mode
}

TEST_F(EdlReader, ADissolveFromBlackAndAWipeThatRunsBackwards) {
    Qv::Ptr<Edit> seq = read(
        "TITLE: transitions\n"
        "FCM: NON-DROP FRAME\n"
        "001  BL       V     C        00:00:00:00 00:00:00:00 01:00:00:00 01:00:00:00\n"
        "001  TAPE1    V     D    025 10:00:00:00 10:00:04:00 01:00:00:00 01:00:04:00\n"
        "* TO CLIP NAME: a.mov\n"
        "002  TAPE1    V     C        10:00:04:00 10:00:04:00 01:00:04:00 01:00:04:00\n"
        "002  TAPE2    V     W015 010 20:00:00:00 20:00:02:00 01:00:04:00 01:00:06:00\n"
        "* FROM CLIP NAME: a.mov\n"
        "* TO CLIP NAME: b.mov\n"
        "* WIPE REVERSE\n");
    const StoredChannel* v1 = track(seq, "V1");
    ASSERT_TRUE(v1);
    ASSERT_EQ(v1->cels.size(), 4u);
    // From black: the transition is first, and the clip after it starts
    // where it ends, its source moved on by its length.
    const CelData& fade = v1->cels[0];
    EXPECT_TRUE(fade.cookie.isMagic() && !fade.cookie.isBlack());
    EXPECT_LT(fade.wipeCode, 0);
    EXPECT_EQ(frames(fade.editOut, seq), 25);
    const CelData& a = v1->cels[1];
    EXPECT_EQ(frames(a.editIn, seq), 25);
    EXPECT_EQ(frames(a.editOut, seq), 100);
    EXPECT_DOUBLE_EQ(sourceOf(a, seq), 10 * 3600 * 25 + 25);
    EXPECT_EQ(shotOf(a)->videoReelId.str(), "TAPE1");
    // The wipe keeps its code and its direction; the outgoing clip is the
    // one before, which plays on into it.
    const CelData& wipe = v1->cels[2];
    EXPECT_EQ(wipe.cookie, video_wipe);
    EXPECT_EQ(wipe.wipeCode, 15);
    EXPECT_EQ(wipe.wipeDirection, eWipeReverse);
    EXPECT_EQ(frames(wipe.editIn, seq), 100);
    EXPECT_EQ(frames(wipe.editOut, seq), 110);
    const CelData& b = v1->cels[3];
    EXPECT_EQ(shotOf(b)->name.str(), L"b.mov");
    EXPECT_DOUBLE_EQ(sourceOf(b, seq), 20 * 3600 * 25 + 10);
    EXPECT_EQ(frames(b.editOut, seq), 150);
}

TEST_F(EdlReader, AnOutgoingSourceThatIsNotTheClipBeforeIsAClipOfItsOwn) {
    // Event 002's outgoing line plays B from 06:00, where the clip before
    // (A) ends at 06:12: the dissolve goes from B, which is seen only in it.
    Qv::Ptr<Edit> seq = read(
        "001  AX  V  C        01:00:03:23 01:00:06:12 01:00:00:00 01:00:02:14\n"
        "* FROM CLIP NAME: Clip_A.mov\n"
        "002  AX  V  C        01:00:06:00 01:00:06:00 01:00:02:14 01:00:02:14\n"
        "002  AX  V  D    030 01:00:33:22 01:00:35:04 01:00:02:14 01:00:03:19\n"
        "* FROM CLIP NAME: Clip_B.mov\n"
        "* TO CLIP NAME: Clip_C.mov\n",
        Qv::eFrameRate25);
    const StoredChannel* v1 = track(seq, "V1");
    ASSERT_TRUE(v1);
    ASSERT_EQ(v1->cels.size(), 4u);
    EXPECT_EQ(shotOf(v1->cels[0])->name.str(), L"Clip_A.mov");
    const CelData& b = v1->cels[1];
    EXPECT_EQ(shotOf(b)->name.str(), L"Clip_B.mov");
    EXPECT_EQ(b.editIn, b.editOut);
    EXPECT_DOUBLE_EQ(sourceOf(b, seq), 3600 * 25 + 6 * 25);
    EXPECT_TRUE(v1->cels[2].cookie.isMagic());
    // The incoming clip has nothing after the dissolve; a list that ends
    // there ends with the clip of no length.
    EXPECT_EQ(shotOf(v1->cels[3])->name.str(), L"Clip_C.mov");
    EXPECT_EQ(frames(v1->cels[3].editIn, seq), frames(v1->cels[3].editOut, seq));
}

TEST_F(EdlReader, SpeedsReverseAndFreezeAsM2LinesSayThem) {
    Qv::Ptr<Edit> seq = read(
        "FCM: NON-DROP FRAME\n"
        "001  R1  V  C  10:00:10:00 10:00:10:01 01:00:00:00 01:00:02:00\n"
        "M2   R1       -025.0                10:00:10:00\n"
        "002  R1  V  C  10:00:20:00 10:00:20:01 01:00:02:00 01:00:03:00\n"
        "M2   R1       000.0                10:00:20:00\n"
        "* FREEZE FRAME\n"
        "003  R1  V  C  10:00:30:00 10:00:30:05 01:00:03:00 01:00:03:10\n"
        "M2   R1       012.5                10:00:30:00\n",
        Qv::eFrameRate25);
    const StoredChannel* v1 = track(seq, "V1");
    ASSERT_TRUE(v1);
    ASSERT_EQ(v1->cels.size(), 3u);
    // -25 at 25 fps is reverse at normal speed: the source runs back from
    // the event's source in for the whole record length, whatever the
    // source out says.
    const CelData& reverse = v1->cels[0];
    EXPECT_EQ(reverse.speed, -1.0f);
    EXPECT_DOUBLE_EQ(sourceOf(reverse, seq), (10 * 3600 + 10) * 25);
    EXPECT_NEAR((reverse.sourceOut - reverse.sourceIn) * 25, -50, 1e-9);
    const CelData& freeze = v1->cels[1];
    EXPECT_EQ(freeze.speed, 0.0f);
    EXPECT_EQ(freeze.sourceIn, freeze.sourceOut);
    EXPECT_EQ(frames(freeze.editOut - freeze.editIn, seq), 25);
    const CelData& slow = v1->cels[2];
    EXPECT_EQ(slow.speed, 0.5f);
    EXPECT_NEAR((slow.sourceOut - slow.sourceIn) * 25, 5, 1e-9);
    // One shot: the reel, starting at the earliest frame the list plays of
    // it (the reverse play shows 49 frames before 10:00:10:00).
    EXPECT_EQ(shotOf(reverse)->cookie.uuid, shotOf(slow)->cookie.uuid);
    EXPECT_EQ(shotOf(reverse)->getVideoTimecodeLabel().get_string(0).str(), "10:00:08:01");
    // The freeze annotation is what the speed says: it is no note.
    EXPECT_TRUE(shotOf(freeze)->getConfig("notes").empty());
}

TEST_F(EdlReader, FourAudioChannelsOfOneEventPlayTheirOwnChannels) {
    Qv::Ptr<Edit> seq = read(
        "001  TAPE  AA/V  C  01:00:00:00 01:00:01:00 01:00:00:00 01:00:01:00\n"
        "AUD  3 4\n"
        "002  TAPE  A2    C  01:00:05:00 01:00:06:00 01:00:01:00 01:00:02:00\n");
    ASSERT_TRUE(seq);
    ASSERT_TRUE(track(seq, "V1"));
    for (int n = 1; n <= 4; ++n) {
        const StoredChannel* a = track(seq, "A" + std::to_string(n));
        ASSERT_TRUE(a) << n;
        ASSERT_FALSE(a->cels.empty());
        EXPECT_EQ(a->cels[0].cookie.channel, n);
        EXPECT_EQ(a->cels[0].cookie.type, kCookieSound);
        EXPECT_EQ(frames(a->cels[0].editOut, seq), 25);
    }
    EXPECT_EQ(track(seq, "A2")->cels.size(), 2u);
    EXPECT_EQ(track(seq, "A5"), nullptr);
    // The shot has the picture and four channels of sound.
    Qv::Ptr<Edit> shot = store.find(track(seq, "V1")->cels[0].cookie);
    EXPECT_EQ(shot->channels.size(), 5u);
}

TEST_F(EdlReader, SixDigitEventsAndAListWithoutFcmAtTheRateNothingTells) {
    Qv::Ptr<Edit> seq = read(
        "000001  A001C002_R1BY  V  C  10:00:00:00 10:00:01:00 01:00:00:00 01:00:01:00\n"
        "001000  A001C002_R1BY  V  C  10:00:05:00 10:00:05:10 01:00:01:00 01:00:01:10\n");
    ASSERT_TRUE(seq);
    EXPECT_EQ(seq->frameRate, Qv::eFrameRate25);
    EXPECT_TRUE(warned("does not say its rate: it is read at 25 fps"));
    EXPECT_FALSE(seq->getVideoTimecodeLabel().isDropFrame());
    EXPECT_EQ(track(seq, "V1")->cels.size(), 2u);
    // The list's own title is none: the sequence is named after the file.
    EXPECT_EQ(seq->name.str(), L"list");

    // Frames that reach 29 tell 30.
    EditStore other;
    ScopedCurrentStore scope(other);
    Qv::Ptr<Edit> thirty = read("001  A  V  C  10:00:00:00 10:00:01:00 01:00:00:00 01:00:00:29\n");
    EXPECT_EQ(thirty->frameRate, Qv::eFrameRate30);
}

TEST_F(EdlReader, KeysOverlapsAndEventsThatEndBeforeTheyBeginAreLosses) {
    Qv::Ptr<Edit> seq = read(
        "TITLE: repairs\n"
        "001  A  V  C     01:00:00:00 01:00:02:00 01:00:00:00 01:00:02:00\n"
        "002  BL V  C     00:00:00:00 00:00:00:00 01:00:02:00 01:00:02:00\n"
        "002  K1 V  K B   01:00:00:00 01:00:01:00 01:00:02:00 01:00:03:00\n"
        "003  B  V  C     01:00:00:00 01:00:01:00 01:00:02:20 01:00:00:00\n"
        "004  BL V  C     00:00:00:00 00:00:01:00 01:00:05:00 01:00:00:00\n",
        Qv::eFrameRate25);
    const StoredChannel* v1 = track(seq, "V1");
    ASSERT_TRUE(v1);
    // The key is a cut; event 003 ends before it begins, so it lasts as
    // long as its source and is laid over the key, which ends where it
    // begins; black that ends before it begins is nothing.
    ASSERT_EQ(v1->cels.size(), 3u);
    EXPECT_EQ(shotOf(v1->cels[1])->videoReelId.str(), "K1");
    EXPECT_EQ(frames(v1->cels[1].editOut, seq), 70);
    EXPECT_EQ(frames(v1->cels[2].editIn, seq), 70);
    EXPECT_EQ(frames(v1->cels[2].editOut, seq), 95);
    EXPECT_EQ(losses("key-as-cut"), 1);
    EXPECT_EQ(losses("record-timed-by-source"), 1);
    EXPECT_EQ(losses("event-overlap"), 1);
    for (const LossRecord& l : sink->losses)
        if (l.kind == "key-as-cut") {
            EXPECT_EQ(l.track, "V1");
            EXPECT_EQ(l.sequence, "repairs");
            EXPECT_EQ(l.timecode, "01:00:02:00");
            EXPECT_EQ(l.frame, 50);
        }
}

TEST_F(EdlReader, AnEventSaidTwiceOrSaidAgainPlaysOnceAndLosesNothing) {
    // Premiere writes the incoming side of a transition again as an event
    // of its own, and some events twice.
    Qv::Ptr<Edit> seq = read(
        "001  A  A  C        01:00:00:00 01:00:02:00 00:00:00:00 00:00:02:00\n"
        "002  A  A  C        01:00:02:00 01:00:02:00 00:00:02:00 00:00:02:00\n"
        "002  B  A  W001 010 02:00:00:00 02:00:02:00 00:00:02:00 00:00:04:00\n"
        "003  B  A  C        02:00:00:10 02:00:02:00 00:00:02:10 00:00:04:00\n"
        "004  A  A  C        01:00:02:00 01:00:02:00 00:00:02:00 00:00:02:00\n"
        "004  B  A  W001 010 02:00:00:00 02:00:02:00 00:00:02:00 00:00:04:00\n",
        Qv::eFrameRate25);
    const StoredChannel* a1 = track(seq, "A1");
    ASSERT_TRUE(a1);
    ASSERT_EQ(a1->cels.size(), 3u);  // A, the cross-fade, B
    EXPECT_EQ(a1->cels[1].cookie, audio_dissolve);
    EXPECT_EQ(frames(a1->cels[2].editIn, seq), 60);
    EXPECT_EQ(frames(a1->cels[2].editOut, seq), 100);
    EXPECT_EQ(losses("event-overlap"), 0);
}

TEST_F(EdlReader, LocatorsAreMarkersAndCommentsTheShotsNotes) {
    Qv::Ptr<Edit> seq = read(
        "TITLE: vfx\n"
        "001  A_0038C006  V  C  13:06:10:07 13:06:11:08 02:13:19:19 02:13:20:20\n"
        "*FROM CLIP NAME:  117B-4-A\n"
        "*LOC: 02:13:20:07 White   VFX  117_GUD_0080 add Norway landscape\n"
        "*ASC_SOP (0.8650 0.8604 0.8535)(0.0160 0.0319 0.0397)(0.9235 0.9485 0.9937)\n"
        "*ASC_SAT 0.9640\n"
        "002  A_0038C006  V  C  13:06:16:18 13:06:17:18 02:13:20:20 02:13:21:20\n"
        "*FROM CLIP NAME:  117B-4-A\n"
        "*LOC: 02:13:21:00 Plaid   odd colour\n"
        "*ASC_SAT 0.9640\n",
        Qv::eFrameRate24);
    ASSERT_EQ(seq->cues.size(), 2u);
    EXPECT_EQ(seq->cues[0].name.str(), L"VFX  117_GUD_0080 add Norway landscape");
    EXPECT_EQ(seq->cues[0].colour, 0xFFFFFFu);
    EXPECT_EQ(frames(seq->cues[0].in, seq), 12);
    EXPECT_EQ(seq->cues[0].out, kCueOpenEnd);
    EXPECT_EQ(seq->cues[1].colour, 0xFF0000u);
    EXPECT_TRUE(warned("the locator colour \"Plaid\" is read as red"));
    // One shot for the reel; its notes are its events' comments, once each.
    Qv::Ptr<Edit> shot = shotOf(track(seq, "V1")->cels[0]);
    EXPECT_EQ(shot->getConfig("notes").str(),
              "ASC_SOP (0.8650 0.8604 0.8535)(0.0160 0.0319 0.0397)(0.9235 0.9485 0.9937)\n"
              "ASC_SAT 0.9640");
    EXPECT_EQ(shot->name.str(), L"117B-4-A");
    EXPECT_EQ(shot->videoReelId.str(), "A_0038C006");
    EXPECT_TRUE(shot->isOffline());
    // Offline, it keeps the reel's name as where it was looked for.
    EXPECT_EQ(shot->historicLocator.str(), L"A_0038C006");
}

TEST_F(EdlReader, ShotsAreOnePerReelAndSourceFile) {
    Qv::Ptr<Edit> seq = read(
        "001  230104  A   C  19:48:41:03 19:48:43:19 00:00:00:00 00:00:02:16\n"
        "* FROM CLIP NAME: 1-21T01.WAV\n"
        "002  230104  A   C  21:03:47:14 21:03:49:16 00:00:02:16 00:00:04:18\n"
        "* FROM CLIP NAME: 1-25T02.WAV\n"
        "003  AX      A   C  00:00:00:00 00:00:01:00 00:00:04:18 00:00:05:18\n"
        "004  AX      A   C  00:00:00:00 00:00:01:00 00:00:05:18 00:00:06:18\n"
        "005  TAPE9   A   C  10:00:00:00 10:00:01:00 00:00:06:18 00:00:07:18\n"
        "* FROM CLIP NAME: take 1\n"
        "006  TAPE9   A   C  10:00:02:00 10:00:03:00 00:00:07:18 00:00:08:18\n"
        "* FROM CLIP NAME: take 2\n",
        Qv::eFrameRate25);
    const StoredChannel* a1 = track(seq, "A1");
    ASSERT_TRUE(a1);
    ASSERT_EQ(a1->cels.size(), 6u);
    auto id = [&](int i) { return shotOf(a1->cels[static_cast<std::size_t>(i)])->cookie.uuid; };
    // A recorder's reel holds many files: clip names with an extension tell
    // them apart. An auxiliary reel without a name is a source of its own at
    // each event. A tape played under two clip names is one shot.
    EXPECT_NE(id(0), id(1));
    EXPECT_NE(id(2), id(3));
    EXPECT_EQ(id(4), id(5));
    EXPECT_EQ(shotOf(a1->cels[4])->name.str(), L"take 1");
    EXPECT_TRUE(shotOf(a1->cels[2])->videoReelId.empty());
}

class EdlMedia : public EdlReader {
  protected:
    void SetUp() override {
        media = std::string(QVXML_SOURCE_DIR) + "/examples/native/interview.mov";
        qvtest::writeFile(dir.file("interview.mov"), qvtest::readFile(media));
    }
    Qv::Ptr<Edit> readFileBesideMedia(const std::string& text) {
        std::string path = dir.file("cut.edl");
        qvtest::writeFile(path, text);
        XML::ImportResult r = qvedl::readFile(path, Qv::eFrameRate25, capturingLog());
        EXPECT_EQ(r.edits.size(), 1u);
        return r.edits.empty() ? nullptr : r.edits[0].ptr();
    }
    qvtest::TempDir dir;
    std::string media;
};

TEST_F(EdlMedia, MediaIsFoundByFileByClipNameAndByReelBesideTheList) {
    for (const char* event :
         {"001  AX  V  C  10:00:00:10 10:00:00:20 01:00:00:00 01:00:00:10\n"
          "* FROM CLIP NAME: shot\n* SOURCE FILE: interview.mov\n",
          "001  AX  V  C  10:00:00:10 10:00:00:20 01:00:00:00 01:00:00:10\n"
          "* FROM CLIP NAME: interview.mov\n",
          "001  interview  V  C  10:00:00:10 10:00:00:20 01:00:00:00 01:00:00:10\n"}) {
        SCOPED_TRACE(event);
        EditStore project;
        ScopedCurrentStore scope(project);
        Qv::Ptr<Edit> seq = readFileBesideMedia(event);
        ASSERT_TRUE(seq);
        Qv::Ptr<Edit> shot = project.find(track(seq, "V1")->cels[0].cookie);
        ASSERT_TRUE(shot);
        EXPECT_FALSE(shot->isOffline());
        EXPECT_TRUE(shot->mediaPath == canonicalPath(fromUTF8(dir.file("interview.mov").c_str())));
        // The media's own timecode starts at 10:00:00:00: the cel plays it
        // from its eleventh frame.
        EXPECT_NEAR(track(seq, "V1")->cels[0].sourceIn, 0.4, 1e-9);
    }
}

TEST_F(EdlMedia, ListChannelsAreTheMediasSoundChannelsInOrder) {
    // A sound file's one channel is its first: channel 1 of the list.
    qvtest::writeFile(
        dir.file("room-tone.wav"),
        qvtest::readFile(std::string(QVXML_SOURCE_DIR) + "/examples/native/room-tone.wav"));
    Qv::Ptr<Edit> seq = readFileBesideMedia(
        "001  AX  A  C  00:00:00:00 00:00:00:05 01:00:00:00 01:00:00:05\n"
        "* FROM CLIP NAME: room-tone.wav\n"
        "002  AX  A2 C  10:00:00:00 10:00:00:05 01:00:00:00 01:00:00:05\n"
        "* FROM CLIP NAME: interview.mov\n");
    ASSERT_TRUE(seq);
    const CelData& tone = track(seq, "A1")->cels[0];
    Qv::Ptr<Edit> wav = store.find(tone.cookie);
    ASSERT_TRUE(wav && !wav->isOffline());
    ASSERT_EQ(wav->channels.size(), 1u);
    EXPECT_EQ(tone.cookie.channel, wav->channels[0].index);
    const CelData& right = track(seq, "A2")->cels[0];
    Qv::Ptr<Edit> mov = store.find(right.cookie);
    EXPECT_EQ(right.cookie.channel, 2);  // after the picture and the left channel
    EXPECT_EQ(mov->findChannel(2)->type, kChanAudio);
}

TEST_F(EdlMedia, AMovedSourceFileIsFoundThroughThePathMap) {
    PathMap map;
    PathRule rule;
    std::string error;
    ASSERT_TRUE(PathMap::parseRule("/Volumes/Media=" + dir.path(), rule, error)) << error;
    map.add(rule);
    setLocatorMap(map);
    Qv::Ptr<Edit> seq = readFileBesideMedia(
        "001  AX  V  C  10:00:00:00 10:00:01:00 01:00:00:00 01:00:01:00\n"
        "* SOURCE FILE: /Volumes/Media/interview.mov\n"
        "002  AX  V  C  00:00:00:00 00:00:01:00 01:00:01:00 01:00:02:00\n"
        "* SOURCE FILE: /Volumes/Media/gone.mov\n");
    setLocatorMap(PathMap());
    ASSERT_TRUE(seq);
    const StoredChannel* v1 = track(seq, "V1");
    Qv::Ptr<Edit> found = store.find(v1->cels[0].cookie);
    Qv::Ptr<Edit> gone = store.find(v1->cels[1].cookie);
    EXPECT_FALSE(found->isOffline());
    // Offline media keeps where the list said it is, its reel's timecode
    // and its length as far as the list plays it.
    EXPECT_TRUE(gone->isOffline());
    EXPECT_EQ(gone->historicLocator.str(), L"/Volumes/Media/gone.mov");
    EXPECT_EQ(gone->getVideoTimecodeLabel().get_string(0).str(), "00:00:00:00");
    EXPECT_NEAR(gone->getEndTime(), 1.0, 1e-9);
}

}  // namespace
