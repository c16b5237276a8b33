// Edits of the store written as lists: the events, their columns and lines;
// lists that read back as they were written; and what a list cannot hold,
// recorded as losses.
#include <gtest/gtest.h>

#include "edl/EdlList.h"
#include "tests/edl/EdlTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::addCel;
using qvtest::addSequence;
using qvtest::addShot;
using qvtest::playCookie;

class EdlWriter : public qvtest::StoreTest {
  protected:
    // A shot of 25 fps with a picture and four channels of sound, whose
    // timecode starts at `start` (frames).
    Qv::Ptr<Edit> shot(const std::wstring& name, const char* reel, int start,
                       const std::wstring& media = L"") {
        Qv::Ptr<Edit> s = addShot(store, name, 25, 100,
                                  {{kChanVideo, "V1"},
                                   {kChanAudio, "A1"},
                                   {kChanAudio, "A2"},
                                   {kChanAudio, "A3"},
                                   {kChanAudio, "A4"}},
                                  media);
        s->videoReelId = reel;
        s->labels.push_back(EditLabel::fromFrame(start, Qv::eFrameRate25, false, kMediumNone));
        return s;
    }
    Qv::Ptr<Edit> sequence(int videoTracks, int audioTracks, Qv::FrameRate rate = Qv::eFrameRate25,
                           int start = 90000, bool drop = false) {
        std::vector<qvtest::ChannelSpec> channels;
        for (int i = 0; i < videoTracks; ++i)
            channels.push_back({kChanVideo, "V"});
        for (int i = 0; i < audioTracks; ++i)
            channels.push_back({kChanAudio, "A"});
        Qv::Ptr<Edit> seq = addSequence(store, L"Cut", rate, channels);
        seq->labels.push_back(EditLabel::fromFrame(start, rate, drop, kMediumNone));
        return seq;
    }
    static CelData& transition(const Qv::Ptr<Edit>& seq, unsigned channel, double in, double out,
                               int wipe = -1, Wipe_Direction direction = eWipeForward) {
        bool video = seq->findChannel(channel)->type == kChanVideo;
        CelData& c = addCel(seq, channel,
                            wipe >= 0 ? video_wipe
                            : video   ? video_dissolve
                                      : audio_dissolve,
                            in, out, 0);
        c.wipeCode = wipe;
        c.wipeDirection = direction;
        return c;
    }
    int losses(const char* kind) const {
        int n = 0;
        for (const LossRecord& l : sink->losses)
            n += l.kind == kind;
        return n;
    }
    std::vector<std::string> details(const char* kind) const {
        std::vector<std::string> out;
        for (const LossRecord& l : sink->losses)
            if (l.kind == kind) out.push_back(l.detail.str());
        return out;
    }
};

// Every kind of event, written as a conform editor reads it.
TEST_F(EdlWriter, WritesEventsTransitionsSpeedsAndMarkersAsAListHoldsThem) {
    Qv::Ptr<Edit> a = shot(L"a.mov", "A001", 900000);
    Qv::Ptr<Edit> b = shot(L"b.mov", "", 0, L"/media/b.mov");
    a->setConfig("notes", "ASC_SAT 0.9640\nASC_SAT 0.9640\n\n  looks good  ");
    Qv::Ptr<Edit> seq = sequence(1, 4);
    // V1: a, a dissolve into b, a reverse wipe into black, black, a played
    // backwards, a held frame, a at half speed.
    addCel(seq, 0, playCookie(a, 0), 1, 3, 2);
    transition(seq, 0, 3, 3.4);
    addCel(seq, 0, playCookie(b, 0), 3.4, 5, 1);
    transition(seq, 0, 5, 5.4, 15, eWipeReverse);
    addCel(seq, 0, video_black, 5.4, 6, 0);
    addCel(seq, 0, playCookie(a, 0), 6, 7, 4, -1.0f);
    addCel(seq, 0, playCookie(a, 0), 7, 7.2, 1, 0.0f);
    addCel(seq, 0, playCookie(a, 0), 7.2, 8, 1, 0.5f);
    // The sound of a's first cel on four tracks; on A2 a cross-fade into b.
    for (unsigned ch = 1; ch <= 4; ++ch)
        addCel(seq, ch, playCookie(a, ch), 1, 3, 2);
    transition(seq, 2, 3, 3.2);
    addCel(seq, 2, playCookie(b, 2), 3.2, 4, 1);
    seq->cues.emplace_back(L"look", L"here", 0x00FF00u, 2.0, kChanVideo, 0u, kCueOpenEnd);
    seq->cues.emplace_back(L"sky", L"", 0x10E0E0u, 6.5, kChanVideo, 0u, 7.0);

    std::vector<QvEdl::WrittenList> lists = qvedl::write(seq->cookie, {}, capturingLog());
    ASSERT_EQ(lists.size(), 1u);
    EXPECT_EQ(lists[0].track, "V1");
    const char* expected =
        "TITLE: Cut\r\n"
        "FCM: NON-DROP FRAME\r\n"
        "001  BL       V     C        00:00:00:00 00:00:01:00 01:00:00:00 01:00:01:00\r\n"
        "002  A001     AA/V  C        10:00:02:00 10:00:04:00 01:00:01:00 01:00:03:00\r\n"
        "AUD  3 4\r\n"
        "* FROM CLIP NAME: a.mov\r\n"
        "* ASC_SAT 0.9640\r\n"
        "* looks good\r\n"
        "* LOC: 01:00:02:00 Green   look here\r\n"
        "003  A001     V     C        10:00:04:00 10:00:04:00 01:00:03:00 01:00:03:00\r\n"
        "003  AX       V     D    010 00:00:00:15 00:00:02:15 01:00:03:00 01:00:05:00\r\n"
        "* FROM CLIP NAME: a.mov\r\n"
        "* TO CLIP NAME: b.mov\r\n"
        "* SOURCE FILE: /media/b.mov\r\n"
        "004  A001     A2    C        10:00:04:00 10:00:04:00 01:00:03:00 01:00:03:00\r\n"
        "004  AX       A2    D    005 00:00:00:20 00:00:01:20 01:00:03:00 01:00:04:00\r\n"
        "* FROM CLIP NAME: a.mov\r\n"
        "* TO CLIP NAME: b.mov\r\n"
        "* SOURCE FILE: /media/b.mov\r\n"
        "005  AX       V     C        00:00:02:15 00:00:02:15 01:00:05:00 01:00:05:00\r\n"
        "005  BL       V     W015 010 00:00:00:00 00:00:00:10 01:00:05:00 01:00:05:10\r\n"
        "* FROM CLIP NAME: b.mov\r\n"
        "* WIPE REVERSE\r\n"
        "006  A001     V     C        10:00:04:00 10:00:05:00 01:00:06:00 01:00:07:00\r\n"
        "M2   A001             -025.0 10:00:04:00\r\n"
        "* FROM CLIP NAME: a.mov\r\n"
        "* ASC_SAT 0.9640\r\n"
        "* looks good\r\n"
        "* LOC: 01:00:06:13 Cyan    sky\r\n"
        "007  A001     V     C        10:00:01:00 10:00:01:01 01:00:07:00 01:00:07:05\r\n"
        "M2   A001              000.0 10:00:01:00\r\n"
        "* FROM CLIP NAME: a.mov\r\n"
        "* ASC_SAT 0.9640\r\n"
        "* looks good\r\n"
        "008  A001     V     C        10:00:01:00 10:00:01:10 01:00:07:05 01:00:08:00\r\n"
        "M2   A001              012.5 10:00:01:00\r\n"
        "* FROM CLIP NAME: a.mov\r\n"
        "* ASC_SAT 0.9640\r\n"
        "* looks good\r\n";
    EXPECT_EQ(lists[0].text, expected);
    // b has no reel: it is written as AX, and that is a loss; the marker's
    // colour and its end too.
    EXPECT_EQ(details("reel-invented"),
              std::vector<std::string>{"\"b.mov\" has no reel: written as AX"});
    EXPECT_EQ(details("marker-colour"), std::vector<std::string>{"sky #10E0E0 written as Cyan"});
    EXPECT_EQ(details("marker"), std::vector<std::string>{"sky: a locator has no end"});
}

// A list read back and written again is the list: dissolves from and to
// black, reverse wipes, speeds, four audio tracks, the outgoing clip of a
// transition that is not the clip before it, a drop-frame sequence.
TEST_F(EdlWriter, AListReadBackIsWrittenAsItWas) {
    for (bool drop : {false, true}) {
        SCOPED_TRACE(drop ? "29.97 drop frame" : "25");
        EditStore project;
        ScopedCurrentStore scope(project);
        Qv::FrameRate rate = drop ? Qv::eFrameRate29_97 : Qv::eFrameRate25;
        Qv::Ptr<Edit> a = addShot(project, L"a.mov", drop ? 29.97 : 25, 100,
                                  {{kChanVideo, "V1"},
                                   {kChanAudio, "A1"},
                                   {kChanAudio, "A2"},
                                   {kChanAudio, "A3"},
                                   {kChanAudio, "A4"}});
        a->videoReelId = "TAPE_A";
        Qv::Ptr<Edit> b = addShot(project, L"b.mov", drop ? 29.97 : 25, 100,
                                  {{kChanVideo, "V1"}, {kChanAudio, "A1"}});
        Qv::Ptr<Edit> seq = addSequence(project, L"Round", rate,
                                        {{kChanVideo, "V1"},
                                         {kChanAudio, "A1"},
                                         {kChanAudio, "A2"},
                                         {kChanAudio, "A3"},
                                         {kChanAudio, "A4"}});
        seq->labels.push_back(EditLabel::fromFrame(drop ? 107892 : 90000, rate, drop, kMediumNone));
        addCel(seq, 0, video_dissolve, 0, 1, 0);
        addCel(seq, 0, playCookie(a, 0), 1, 3, 2);
        addCel(seq, 0, playCookie(b, 0), 3, 3, 10);  // seen only in the dissolve after it
        addCel(seq, 0, video_dissolve, 3, 3.6, 0);
        addCel(seq, 0, playCookie(a, 0), 3.6, 5, 20, -1.0f);
        CelData& w = addCel(seq, 0, video_wipe, 5, 6, 0);
        w.wipeCode = 101;
        w.wipeDirection = eWipeReverse;
        addCel(seq, 0, playCookie(b, 0), 70.0, 72.5, 30, 0.25f);
        for (unsigned ch = 1; ch <= 4; ++ch) {
            addCel(seq, ch, playCookie(a, ch), 1, 3, 2);
            addCel(seq, ch, audio_dissolve, 3, 3.6, 0);
        }
        seq->cues.emplace_back(L"red", L"", 0xFF0000u, 1.5, kChanVideo, 0u, kCueOpenEnd);

        std::string first = qvedl::listText(seq->cookie, "V1");
        qvtest::TempDir dir;
        qvtest::writeFile(dir.file("round.edl"), first);
        EditStore again;
        ScopedCurrentStore scope2(again);
        XML::ImportResult back = qvedl::readFile(dir.file("round.edl"), rate);
        ASSERT_EQ(back.edits.size(), 1u);
        EXPECT_EQ(qvedl::listText(back.edits[0]->cookie), first);
        // It reads as the independent reading says, too.
        if (qvedl::havePython()) {
            EXPECT_TRUE(qvedl::sameReading(qvedl::pythonReading(dir.file("round.edl"), rate),
                                           qvedl::storeReading(back.edits[0].ptr())));
        }
        const StoredChannel* v1 = qvedl::track(back.edits[0].ptr(), "V1");
        ASSERT_TRUE(v1);
        int zeroLength = 0, wipes = 0;
        for (const CelData& c : v1->cels) {
            zeroLength += !c.cookie.isMagic() && c.editIn == c.editOut;
            wipes += c.wipeCode == 101 && c.wipeDirection == eWipeReverse;
        }
        EXPECT_EQ(zeroLength, 1);
        EXPECT_EQ(wipes, 1);
    }
}

TEST_F(EdlWriter, ReelsAreCutToTheLengthAskedAndToldApart) {
    Qv::Ptr<Edit> one = shot(L"one", "A192C008_160909_R1BY", 0);
    Qv::Ptr<Edit> two = shot(L"two", "A192C008_160909_R2XX", 0);
    Qv::Ptr<Edit> spaced = shot(L"three", "TAPE 3", 0);
    Qv::Ptr<Edit> black = shot(L"four", "BL", 0);
    Qv::Ptr<Edit> seq = sequence(1, 0);
    addCel(seq, 0, playCookie(one, 0), 0, 1, 0);
    addCel(seq, 0, playCookie(two, 0), 1, 2, 0);
    addCel(seq, 0, playCookie(spaced, 0), 2, 3, 0);
    addCel(seq, 0, playCookie(black, 0), 3, 4, 0);
    addCel(seq, 0, playCookie(one, 0), 4, 5, 0);
    QvEdl::ExportOptions options;
    options.reelLength = 8;
    std::string text = qvedl::write(seq->cookie, options, capturingLog())[0].text;
    QvEdl::List list = QvEdl::parseList(text);
    ASSERT_EQ(list.events.size(), 5u);
    EXPECT_EQ(list.events[0].edits[0].reel, "A192C008");
    EXPECT_EQ(list.events[1].edits[0].reel, "A192C0~1");
    EXPECT_EQ(list.events[2].edits[0].reel, "TAPE_3");
    EXPECT_EQ(list.events[3].edits[0].reel, "AX");  // "BL" would be read as black
    EXPECT_EQ(list.events[4].edits[0].reel, "A192C008");
    // One line in the report for each reel, however often it is played.
    EXPECT_EQ(details("reel-shortened"),
              (std::vector<std::string>{"\"A192C008_160909_R1BY\" written as A192C008",
                                        "\"A192C008_160909_R2XX\" written as A192C0~1",
                                        "\"TAPE 3\" written as TAPE_3"}));
    EXPECT_EQ(losses("reel-invented"), 1);

    // Without a length, reels are written whole.
    std::string whole = qvedl::listText(seq->cookie);
    EXPECT_NE(whole.find("001  A192C008_160909_R1BY V     C"), std::string::npos);
}

TEST_F(EdlWriter, EachVideoTrackIsAListOfItsOwn) {
    Qv::Ptr<Edit> a = shot(L"a", "A", 0);
    Qv::Ptr<Edit> seq = sequence(2, 1);
    // The first video channel is the top track, V2.
    addCel(seq, 0, playCookie(a, 0), 2, 3, 0);
    addCel(seq, 1, playCookie(a, 0), 1, 2, 0);
    addCel(seq, 2, playCookie(a, 1), 1, 2.5, 0);
    std::vector<QvEdl::WrittenList> lists = qvedl::write(seq->cookie, {}, capturingLog());
    ASSERT_EQ(lists.size(), 2u);
    EXPECT_EQ(lists[0].track, "V1");
    EXPECT_EQ(lists[1].track, "V2");
    // The sound goes with V1; each list starts where the sequence does, in
    // black.
    EXPECT_NE(lists[0].text.find("BL       V     C        00:00:00:00 00:00:01:00 01:00:00:00"),
              std::string::npos);
    EXPECT_NE(lists[1].text.find("BL       V     C        00:00:00:00 00:00:02:00 01:00:00:00"),
              std::string::npos);
    EXPECT_NE(lists[0].text.find("A        A     C"), std::string::npos);
    EXPECT_EQ(lists[1].text.find(" A     C"), std::string::npos);
    EXPECT_EQ(details("video-track-apart"),
              std::vector<std::string>{"written to a list of its own, apart from V1"});

    QvEdl::ExportOptions only;
    only.track = "V2";
    std::vector<QvEdl::WrittenList> one = qvedl::write(seq->cookie, only, capturingLog());
    ASSERT_EQ(one.size(), 1u);
    EXPECT_EQ(one[0].track, "V2");
    EXPECT_NE(one[0].text.find("A        A     C"), std::string::npos);
    EXPECT_EQ(losses("track-left-out"), 1);

    only.track = "V3";
    std::vector<QvEdl::WrittenList> none;
    std::string error;
    EXPECT_EQ(QvEdl::writeEdl(seq->cookie, only, LoggerHandle(), none, error), 4);
    EXPECT_EQ(error, "\"V3\" is no video track of it (it has 2)");
}

TEST_F(EdlWriter, WhatAListCannotHoldIsALossAtItsPlace) {
    Qv::Ptr<Edit> a = shot(L"a", "A", 250);
    Qv::Ptr<Edit> nestedSeq = sequence(1, 0);
    nestedSeq->name = L"inner";
    addCel(nestedSeq, 0, playCookie(a, 0), 0, 1, 0);
    Qv::Ptr<Edit> sub = qvtest::addSubclip(store, L"sub", a, 2, 1);
    Qv::Ptr<Edit> seq = sequence(1, 5);
    addCel(seq, 0, playCookie(sub, 0), 0, 1, 0.2);
    addCel(seq, 0, playCookie(nestedSeq, 0), 1, 2, 0);
    CelData& angles = addCel(seq, 0, playCookie(a, 0), 2, 3, 0);
    angles.alternates.push_back({playCookie(a, 0), 0});
    addCel(seq, 0, video_dissolve, 3, 3.2, 0);
    addCel(seq, 0, video_dissolve, 3.2, 3.4, 0);
    addCel(seq, 0, playCookie(a, 0), 3.4, 4, 0);
    CelData& quiet = addCel(seq, 1, playCookie(a, 2), 0, 1, 0);
    quiet.level = 0.5f;
    seq->channels[1].hasTrackLevels = true;
    for (unsigned ch = 2; ch <= 5; ++ch)
        addCel(seq, ch, playCookie(a, ch <= 4 ? ch : 1), 0, 1, 0);
    std::string text = qvedl::listText(seq->cookie);
    std::vector<QvEdl::WrittenList> lists = qvedl::write(seq->cookie, {}, capturingLog());
    ASSERT_EQ(lists.size(), 1u);

    // The sub-clip's cel is its shot from where the sub-clip starts, named
    // after the sub-clip; the nested sequence is what it plays.
    EXPECT_NE(text.find("001  A        V     C        00:00:12:05 00:00:13:05 01:00:00:00"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("* FROM CLIP NAME: sub"), std::string::npos);
    EXPECT_NE(text.find("A        V     C        00:00:10:00 00:00:11:00 01:00:01:00 01:00:02:00"),
              std::string::npos)
        << text;
    EXPECT_EQ(losses("nested-flat"), 1);
    EXPECT_EQ(losses("multi-angle-flat"), 1);
    EXPECT_EQ(losses("transition-through-black"), 1);
    EXPECT_EQ(losses("cel-level"), 1);
    EXPECT_EQ(losses("track-levels"), 1);
    EXPECT_EQ(losses("audio-patch"), 1);  // A1 plays the shot's channel 2
    EXPECT_EQ(losses("audio-not-written"), 1);
    for (const LossRecord& l : sink->losses)
        if (l.kind == "nested-flat") {
            EXPECT_EQ(l.track, "V1");
            EXPECT_EQ(l.frame, 25);
            EXPECT_EQ(l.timecode, "01:00:01:00");
        }
}

TEST_F(EdlWriter, ANestIsWrittenAsThePictureItShows) {
    // The nest's top channel plays b from 1 s to 2 s over a on the channel
    // below; the cut uses the nest from 0.4 s on, so a shows, then b, then a.
    Qv::Ptr<Edit> a = shot(L"a", "A", 250);
    Qv::Ptr<Edit> b = shot(L"b", "B", 500);
    Qv::Ptr<Edit> inner = sequence(2, 0);
    inner->name = L"inner";
    addCel(inner, 0, video_black, 0, 1, 0);
    addCel(inner, 0, playCookie(b, 0), 1, 2, 0);
    addCel(inner, 1, playCookie(a, 0), 0, 3, 0);
    Qv::Ptr<Edit> seq = sequence(1, 0);
    addCel(seq, 0, playCookie(inner, 0), 0, 2.6, 0.4);
    std::string text = qvedl::listText(seq->cookie);
    EXPECT_NE(text.find("A        V     C        00:00:10:10 00:00:11:00 01:00:00:00 01:00:00:15"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("B        V     C        00:00:20:00 00:00:21:00 01:00:00:15 01:00:01:15"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("A        V     C        00:00:12:00 00:00:13:00 01:00:01:15 01:00:02:15"),
              std::string::npos)
        << text;
}

TEST_F(EdlWriter, ListsOfMoreThan999EventsNumberThemWithSixDigits) {
    Qv::Ptr<Edit> a = shot(L"a", "A", 0);
    Qv::Ptr<Edit> seq = sequence(1, 0);
    for (int i = 0; i < 1000; ++i)
        addCel(seq, 0, playCookie(a, 0), i * 0.04 * 2, i * 0.04 * 2 + 0.04, 0);
    std::string text = qvedl::listText(seq->cookie);
    EXPECT_NE(text.find("\r\n000001  A        V     C"), std::string::npos);
    EXPECT_NE(text.find("\r\n001000  A        V     C"), std::string::npos);
    Qv::Ptr<Edit> small = sequence(1, 0);
    addCel(small, 0, playCookie(a, 0), 0, 1, 0);
    EXPECT_NE(qvedl::listText(small->cookie).find("\r\n001  A        V     C"), std::string::npos);
}

// A shot is one list named after it; a shot of two pictures makes a second
// list, named by its track, never a second list of the same name (the fuzzer
// found the second written over the first's name and refused).
TEST_F(EdlWriter, ShotOfTwoPicturesNamesItsSecondListByTrack) {
    Qv::Ptr<Edit> one = shot(L"one.mov", "A001", 0);
    std::vector<QvEdl::WrittenList> lists = qvedl::write(one->cookie, {}, capturingLog());
    ASSERT_EQ(lists.size(), 1u);
    EXPECT_EQ(lists[0].track, "");

    Qv::Ptr<Edit> two = addShot(store, L"two.mov", 25, 100,
                                {{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanAudio, "A1"}});
    lists = qvedl::write(two->cookie, {}, capturingLog());
    ASSERT_EQ(lists.size(), 2u);
    EXPECT_EQ(lists[0].track, "");
    EXPECT_EQ(lists[1].track, "V2");
}

}  // namespace
