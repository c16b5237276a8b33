// The text layer of lists: lines read into events, timecodes, and events
// written back as lines the reading reads the same.
#include <gtest/gtest.h>

#include "edl/EdlList.h"
#include "host/Label.h"

namespace {

using namespace QvEdl;

std::string tc(const Timecode& t) {
    return t.text();
}

bool hasProblem(const List& list, int line, const char* kind = nullptr) {
    for (const Problem& p : list.problems)
        if (p.line == line && (!kind || p.kind == kind)) return true;
    return false;
}

TEST(EdlTimecode, DropFrameCountsAsBroadcastTimecodeDoes) {
    // 00:00:59;29 is the last frame of the first minute; the next is
    // 00:01:00;02, frames 0 and 1 being dropped; every tenth minute keeps them.
    Timecode last{0, 0, 59, 29, true, true};
    Timecode next{0, 1, 0, 2, true, true};
    Timecode tenth{0, 10, 0, 0, true, true};
    EXPECT_EQ(last.toFrames(30), 1799);
    EXPECT_EQ(next.toFrames(30), 1800);
    EXPECT_EQ(tenth.toFrames(30), 17982);
    EXPECT_EQ(Timecode::fromFrames(1800, 30, true).text(), "00:01:00;02");
    EXPECT_EQ(Timecode::fromFrames(17982, 30, true).text(), "00:10:00;00");
    // At 59.94 four numbers go at each minute.
    EXPECT_EQ((Timecode{0, 1, 0, 4, true, true}.toFrames(60)), 3600);
    // Drop frame means nothing at 25.
    EXPECT_EQ((Timecode{0, 1, 0, 0, true, true}.toFrames(25)), 1500);

    // The same numbering as the editor's own labels, over a day.
    for (std::int64_t f = 0; f < 2000000; f += 997) {
        for (unsigned ticks : {24u, 25u, 30u, 60u})
            for (bool drop : {false, true}) {
                Timecode t = Timecode::fromFrames(f, ticks, drop);
                ASSERT_EQ(t.text(),
                          frameToTimecode(f, ticks, drop && (ticks == 30 || ticks == 60)).str())
                    << f << " at " << ticks;
                ASSERT_EQ(t.toFrames(ticks), f);
            }
    }
    // Round the clock: before zero and past a day.
    EXPECT_EQ(Timecode::fromFrames(-1, 25, false).text(), "23:59:59:24");
    EXPECT_EQ(Timecode::fromFrames(24 * 3600 * 25 + 3, 25, false).text(), "00:00:00:03");
}

TEST(EdlList, ReadsEventsChannelsTransitionsAndTheirComments) {
    const std::string text =
        "TITLE:   A cut \r\n"
        "FCM: NON-DROP FRAME\r\n"
        "\r\n"
        "001  AX       V     C        01:00:04:05 01:00:05:12 00:59:53:11 00:59:54:18\r\n"
        "* FROM CLIP NAME:  ZZ100_501.exr\r\n"
        "002  TAPE 2   AA/V  C        01:00:04:14 01:00:04:14 00:59:54:18 00:59:54:18\r\n"
        "002  TST      AA/V  W012R 010 01:00:08:08 01:00:08:18 00:59:54:18 00:59:55:03\r\n"
        "M2   TST       -025.0                01:00:08:08\r\n"
        "AUD  3 4\r\n"
        "* FROM CLIP NAME: clip_A\r\n"
        "* TO CLIP NAME: clip_B\r\n"
        "*SOURCE FILE: /media/TST_clip_B.mov\r\n"
        "*ASC_SOP (1 1 1)(0 0 0)(1 1 1)\r\n"
        "*LOC: 00:59:54:20 GREEN   VFX 117 add sky\r\n"
        "** FREEZE FRAME\r\n"
        "000003  BL   B    K B   000 00:00:00:00 00:00:01:00 00:59:55:03 00:59:56:03\n"
        "004  R1  NONE D  005 00:00:01:00 00:00:02:00 00:59:56:03 00:59:57:03\r"
        "AUD 3\r"
        "005  R2  A2    C  01:00:00:00 01:00:01:00 00:59:57:03 00:59:58:03\n"
        "this line means nothing\n";
    List list = parseList(text);
    EXPECT_EQ(list.title, "A cut");
    ASSERT_EQ(list.events.size(), 5u);

    const EditLine& first = list.events[0].edits[0];
    EXPECT_EQ(first.reel, "AX");
    EXPECT_EQ(first.channels, kVideo);
    EXPECT_EQ(first.clipName, "ZZ100_501.exr");
    EXPECT_EQ(tc(first.recordIn), "00:59:53:11");

    // A transition: two lines of one number; the speed goes to the edit of
    // its reel, AUD to both, the clip names and the file to their edits.
    const Event& pair = list.events[1];
    ASSERT_EQ(pair.edits.size(), 2u);
    EXPECT_EQ(pair.edits[0].reel, "TAPE 2");
    EXPECT_EQ(pair.edits[0].clipName, "clip_A");
    const EditLine& wipe = pair.edits[1];
    EXPECT_EQ(wipe.transition, Transition::Wipe);
    EXPECT_EQ(wipe.wipeCode, 12);
    EXPECT_TRUE(wipe.wipeReverse);
    EXPECT_EQ(wipe.duration, 10);
    EXPECT_TRUE(wipe.hasSpeed);
    EXPECT_DOUBLE_EQ(wipe.speed, -25.0);
    EXPECT_FALSE(pair.edits[0].hasSpeed);
    Channels all4 = kVideo | audioChannel(1) | audioChannel(2) | audioChannel(3) | audioChannel(4);
    EXPECT_EQ(wipe.channels, all4);
    EXPECT_EQ(pair.edits[0].channels, all4);
    EXPECT_EQ(wipe.clipName, "clip_B");
    EXPECT_EQ(wipe.sourceFile, "/media/TST_clip_B.mov");
    EXPECT_TRUE(pair.edits[0].sourceFile.empty());
    ASSERT_EQ(pair.notes.size(), 1u);  // the freeze annotation says what M2 says
    EXPECT_EQ(pair.notes[0], "ASC_SOP (1 1 1)(0 0 0)(1 1 1)");
    ASSERT_EQ(pair.locators.size(), 1u);
    EXPECT_EQ(pair.locators[0].colour, "GREEN");
    EXPECT_EQ(pair.locators[0].text, "VFX 117 add sky");

    // A key written "K B", a six-digit number, a LF line end; a CR alone.
    EXPECT_EQ(list.events[2].number, "000003");
    EXPECT_EQ(list.events[2].edits[0].transition, Transition::Key);
    EXPECT_EQ(list.events[2].edits[0].effect, "KB");
    EXPECT_EQ(list.events[2].edits[0].channels, kVideo | audioChannel(1));
    EXPECT_EQ(list.events[3].edits[0].channels, audioChannel(3));
    EXPECT_EQ(list.events[3].edits[0].transition, Transition::Dissolve);
    EXPECT_EQ(list.events[4].edits[0].channels, audioChannel(2));

    // The stray line is said, by its number; the blank one is not.
    ASSERT_EQ(list.problems.size(), 1u);
    EXPECT_TRUE(hasProblem(list, 20));
    EXPECT_EQ(list.strayLines, 1);
}

TEST(EdlList, FrameCodeModeHoldsFromItsLineOn) {
    List list = parseList(
        "001  A  V  C  01:00:00:00 01:00:01:00 01:00:00:00 01:00:01:00\n"
        "FCM: DROP FRAME\n"
        "002  A  V  C  01:00:00:00 01:00:01:00 01:00:01:00 01:00:02:00\n"
        "FCM: NON-DROP FRAME/Users/someone/list.edl\n"
        "003  A  V  C  01:00:00:00 01:00:01:00 01:00:02:00 01:00:03;00\n");
    ASSERT_EQ(list.events.size(), 3u);
    EXPECT_FALSE(list.events[0].edits[0].recordIn.drop);
    EXPECT_TRUE(list.events[1].edits[0].recordIn.drop);
    EXPECT_FALSE(list.events[2].edits[0].recordIn.drop);
    EXPECT_TRUE(list.events[2].edits[0].recordOut.drop);  // ';' says drop frame itself
    EXPECT_FALSE(list.firstDrop);
    EXPECT_TRUE(list.anyDrop);
    EXPECT_TRUE(list.fcmGiven);
    EXPECT_TRUE(hasProblem(list, 4));  // the path glued to the mode
}

TEST(EdlList, WhatCannotBeReadIsSaidAndLeftOut) {
    List list = parseList(
        "TITLE: broken\n"
        "001  A  V  C  01:00:00:00 01:00:01:00 01:00:00:00 01:00:61:00\n"
        "002  A  Q  C  01:00:00:00 01:00:01:00 01:00:00:00 01:00:01:00\n"
        "003  A  V  C  01:00:00:00 01:00:01:00\n"
        "M2   A   fast  01:00:00:00\n"
        "004  A  V  C  01:00:00:00 01:00:01:00 01:00:00:00 01:00:01:00\n"
        "M2   A   fast  01:00:00:00\n"
        "SPLIT:     AUDIO DELAY=  00:00:00:05\n"
        "005  A  B  C  01:00:00:00 01:00:01:00 01:00:01:00 01:00:02:00\n");
    ASSERT_EQ(list.events.size(), 2u);
    EXPECT_EQ(list.events[0].number, "004");
    EXPECT_FALSE(list.events[0].split);
    EXPECT_TRUE(hasProblem(list, 2, "unusable-value"));    // 61 seconds
    EXPECT_TRUE(hasProblem(list, 3, "unreadable-event"));  // no channel Q
    EXPECT_TRUE(hasProblem(list, 4, "unreadable-event"));  // two timecodes
    EXPECT_TRUE(hasProblem(list, 5));                      // a speed with no event
    EXPECT_TRUE(hasProblem(list, 7, "unreadable-speed"));
    EXPECT_TRUE(hasProblem(list, 8, "split-edit"));
    EXPECT_TRUE(list.events[1].split);
}

// A timecode of an event that is damaged would place the event elsewhere:
// it is told as a time that cannot be used, on its line, and the event is
// left out. A line that has no four times is no event at all.
TEST(EdlList, DamagedTimecodesAreTimesThatCannotBeUsed) {
    const std::string good = "01:00:00:00 01:00:08:00 01:00:00:00 01:00:08:00";
    struct Case {
        const char* label;
        std::string times;
        const char* kind;
    };
    for (const Case& c :
         {Case{"NaN frames", "01:00:00:00 01:00:08:00 01:00:00:NaN 01:00:08:00", "unusable-value"},
          {"hexadecimal", "01:00:00:00 0x:00:08:00 01:00:00:00 01:00:08:00", "unusable-value"},
          {"exponent", "1e300:00:00:00 01:00:08:00 01:00:00:00 01:00:08:00", "unusable-value"},
          {"four digits", "01:00:00:00 01:00:08:00 01:00:00:00 0100:08:00", "unusable-value"},
          {"a word for a time", "01:00:00:00 01:00:08:00 Infinity 01:00:08:00", "unusable-value"},
          {"two times", "01:00:00:00 01:00:08:00", "unreadable-event"},
          {"no times", "abc def ghi jkl", "unreadable-event"}}) {
        List list = parseList(
            "TITLE: damaged\nFCM: NON-DROP FRAME\n"
            "001  A  V  C  " +
            good +
            "\n"
            "002  B  V  C  " +
            c.times + "\n");
        ASSERT_EQ(list.events.size(), 1u) << c.label;
        EXPECT_EQ(list.events[0].number, "001") << c.label;
        ASSERT_EQ(list.problems.size(), 1u) << c.label;
        EXPECT_EQ(list.problems[0].line, 4) << c.label;
        EXPECT_EQ(list.problems[0].kind, c.kind) << c.label;
        if (std::string(c.kind) == "unusable-value") {
            EXPECT_NE(list.problems[0].what.find("of event 002, is no timecode"), std::string::npos)
                << list.problems[0].what;
        }
    }
}

TEST(EdlList, LatinOneIsReadWhenTheTextIsNotUtf8) {
    List list = parseList(
        "001  AX  A  C  00:00:00:00 00:00:01:00 00:00:00:00 00:00:01:00\n"
        "* FROM CLIP NAME: Caf\xE9.wav\n");
    ASSERT_EQ(list.events.size(), 1u);
    EXPECT_TRUE(list.latin1);
    EXPECT_EQ(list.events[0].edits[0].clipName, "Caf\xC3\xA9.wav");
    List utf8 = parseList(
        "001  AX  A  C  00:00:00:00 00:00:01:00 00:00:00:00 00:00:01:00\n"
        "* FROM CLIP NAME: Caf\xC3\xA9.wav\n");
    EXPECT_FALSE(utf8.latin1);
    EXPECT_EQ(utf8.events[0].edits[0].clipName, "Caf\xC3\xA9.wav");
}

TEST(EdlList, AvidsTableOfSourcesNamesEachReelsFile) {
    List list = parseList(
        "001  A001C002_R1 V  C  01:00:00:00 01:00:01:00 01:00:00:00 01:00:01:00\n"
        "*FROM CLIP NAME:  1-4A\n"
        ">>> SOURCE A001C002_R1   A001C002_ 060a2b34-{53c08d51}\n"
        "*SOURCE FILE: A001C002_R1.mov\n");
    ASSERT_EQ(list.events.size(), 1u);
    EXPECT_TRUE(list.events[0].edits[0].sourceFile.empty());
    ASSERT_EQ(list.sourceTable.size(), 1u);
    EXPECT_EQ(list.sourceTable[0].first, "A001C002_R1");
    EXPECT_EQ(list.sourceTable[0].second, "A001C002_R1.mov");
    EXPECT_TRUE(list.problems.empty());
}

TEST(EdlList, ListsAreToldByTheirFirstLines) {
    EXPECT_TRUE(looksLikeList("TITLE: x\r\n"));
    EXPECT_TRUE(looksLikeList("\xEF\xBB\xBF\n\nFCM: DROP FRAME\n"));
    EXPECT_TRUE(
        looksLikeList("* made by hand\n"
                      "001  AX  V  C  00:00:00:00 00:00:01:00 00:00:00:00 00:00:01:00\n"));
    EXPECT_FALSE(looksLikeList("<?xml version=\"1.0\"?>\n<xmeml version=\"5\">\n"));
    EXPECT_FALSE(looksLikeList("{\"OTIO_SCHEMA\": \"Timeline.1\"}\n"));
    EXPECT_FALSE(looksLikeList("2024 was a good year\n"));
    EXPECT_FALSE(looksLikeList("TITLE: cut short without a line end"));
}

TEST(EdlList, WrittenEventsReadBackAsTheyWere) {
    EXPECT_EQ(speedText(-25), "-025.0");
    EXPECT_EQ(speedText(0), "000.0");
    EXPECT_EQ(speedText(47.6), "047.6");
    EXPECT_EQ(speedText(25.0 / 3), "008.3333");
    EXPECT_EQ(speedText(0.8f * 24.0), "019.2");  // a float's noise is not written
    Channels aud = 0;
    EXPECT_EQ(channelField(kVideo | audioChannel(1), aud), "B");
    EXPECT_EQ(channelField(kVideo | audioChannel(2), aud), "A2/V");
    EXPECT_EQ(channelField(audioChannel(3) | audioChannel(4), aud), "NONE");
    EXPECT_EQ(aud, audioChannel(3) | audioChannel(4));

    List list;
    list.title = "Round";
    Event cut;
    cut.number = "001";
    EditLine a;
    a.reel = "A_VERY_LONG_REEL_NAME_OF_32_CHAR";
    a.channels = kVideo | audioChannel(1) | audioChannel(2) | audioChannel(4);
    a.effect = "C";
    a.sourceIn = Timecode::fromFrames(100, 30, true);
    a.sourceOut = Timecode::fromFrames(130, 30, true);
    a.recordIn = Timecode::fromFrames(107892, 30, true);
    a.recordOut = Timecode::fromFrames(107922, 30, true);
    a.hasSpeed = true;
    a.speed = 0;
    a.clipName = "shot one";
    a.sourceFile = "/media/shot one.mov";
    cut.edits.push_back(a);
    cut.notes = {"ASC_SAT 0.9640"};
    cut.locators.push_back({0, Timecode::fromFrames(107900, 30, true), "Cyan", "look here"});
    list.events.push_back(cut);
    Event pair;
    pair.number = "002";
    EditLine from = a;
    from.hasSpeed = false;
    from.recordOut = from.recordIn = a.recordOut;
    from.sourceFile.clear();
    EditLine to = a;
    to.reel = "B";
    to.transition = Transition::Wipe;
    to.effect = "W101";
    to.wipeCode = 101;
    to.wipeReverse = true;
    to.duration = 12;
    to.hasSpeed = true;
    to.speed = -29.97;
    to.recordIn = a.recordOut;
    to.recordOut = Timecode::fromFrames(107950, 30, true);
    to.clipName = "shot two";
    pair.edits = {from, to};
    list.events.push_back(pair);
    WriteStyle style;
    style.drop = true;
    style.reelWidth = 32;
    std::string text = formatList(list, style);

    List back = parseList(text);
    EXPECT_TRUE(back.problems.empty());
    EXPECT_EQ(back.title, "Round");
    ASSERT_EQ(back.events.size(), 2u);
    const EditLine& c = back.events[0].edits[0];
    EXPECT_EQ(c.reel, a.reel);
    EXPECT_EQ(c.channels, a.channels);
    EXPECT_EQ(tc(c.recordIn), "01:00:00;00");
    EXPECT_TRUE(c.hasSpeed);
    EXPECT_EQ(c.speed, 0);
    EXPECT_EQ(c.clipName, "shot one");
    EXPECT_EQ(c.sourceFile, "/media/shot one.mov");
    EXPECT_EQ(back.events[0].notes, cut.notes);
    ASSERT_EQ(back.events[0].locators.size(), 1u);
    EXPECT_EQ(back.events[0].locators[0].text, "look here");
    ASSERT_EQ(back.events[1].edits.size(), 2u);
    const EditLine& w = back.events[1].edits[1];
    EXPECT_EQ(w.transition, Transition::Wipe);
    EXPECT_EQ(w.wipeCode, 101);
    EXPECT_TRUE(w.wipeReverse);
    EXPECT_EQ(w.duration, 12);
    EXPECT_DOUBLE_EQ(w.speed, -29.97);
    EXPECT_FALSE(back.events[1].edits[0].hasSpeed);
    EXPECT_EQ(back.events[1].edits[0].clipName, "shot one");
    EXPECT_EQ(w.clipName, "shot two");
    // And the text of what was read is the text written.
    EXPECT_EQ(formatList(back, style), text);
}

}  // namespace
