// Sequences as fcpxml: where clips, gaps and transitions land in the spine,
// how audio hangs below its first item, and how levels, markers and bad
// material come out.
#include "host/Config.h"
#include "tests/fcpxml/FcpxmlTestSupport.h"

namespace {

using namespace fcpxmltest;

const MediumRollMedium kMedium25 = kMediumVideoBase + Qv::eFrameRate25;
using Names = std::vector<std::string>;

class FcpxmlSequence : public FcpxmlTest {
  protected:
    // A sequence at 25 whose timecode starts at `startFrame`.
    Qv::Ptr<Edit> sequence(std::vector<qvtest::ChannelSpec> channels = {{kChanVideo, "V1"}},
                           int startFrame = 0) {
        Qv::Ptr<Edit> seq = addSequence(store, L"cut", Qv::eFrameRate25, channels);
        seq->labels.push_back(EditLabel::fromFrame(startFrame, Qv::eFrameRate25, false, kMedium25));
        return seq;
    }
    // A shot at 25 with its media file.
    Qv::Ptr<Edit> shot(const std::wstring& name, double length = 30,
                       std::vector<qvtest::ChannelSpec> channels = {{kChanVideo, "V1"},
                                                                    {kChanAudio, "A1"}}) {
        return addShot(store, name, 25.0, length, channels, L"/media/" + name + L".mov");
    }
    // The tags of a list of elements.
    static std::vector<std::string> tags(const std::vector<const XMLElement*>& elements) {
        std::vector<std::string> out;
        for (const XMLElement* e : elements)
            out.push_back(tag(e));
        return out;
    }
};

TEST_F(FcpxmlSequence, WorkedExampleClipsMeetInTheDissolve) {
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B");
    addCel(seq, 0, playCookie(a, 0), 0, 4, 1);
    addCel(seq, 0, video_dissolve, 4, 4.4, 0);
    addCel(seq, 0, playCookie(b, 0), 4.4, 8, 2);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    EXPECT_EQ(tag(path(root, "library/event/project/sequence")),
              "sequence format=\"f1\" duration=\"20000/2500s\" tcFormat=\"NDF\" "
              "tcStart=\"0/2500s\"");
    auto items = spineItems(root);
    ASSERT_EQ(items.size(), 3u);
    // The clip before reaches half the dissolve into it; the one after
    // starts half of it earlier and is the whole of it longer.
    EXPECT_EQ(tag(items[0]),
              "clip lane=\"0\" enabled=\"1\" duration=\"10500/2500s\" "
              "offset=\"0/2500s\" start=\"100/100s\"");
    EXPECT_EQ(tag(items[1]),
              "transition offset=\"10000/2500s\" name=\"trans_V1_1\" duration=\"1000/2500s\"");
    EXPECT_EQ(tag(items[2]),
              "clip lane=\"0\" enabled=\"1\" duration=\"10000/2500s\" "
              "offset=\"10500/2500s\" start=\"180/100s\"");
    EXPECT_EQ(tags(children(items[1])),
              (Names{"filter-video ref=\"fx1\" name=\"Cross Dissolve\""}));
    EXPECT_EQ(tags(children(items[0])), (Names{"video start=\"0/100s\" ref=\"as1\" "
                                               "duration=\"75000/2500s\" offset=\"0/100s\""}));
    EXPECT_EQ(attr(items[2]->FirstChildElement("video"), "ref"), "as2");
    EXPECT_TRUE(lines(LogKind::Warning).empty());

    // Ten seconds into A, its reach of 14.2 s is beyond the sequence's 8 s:
    // it keeps its end.
    Qv::Ptr<Edit> far = sequence();
    addCel(far, 0, playCookie(a, 0), 0, 4, 10);
    addCel(far, 0, video_dissolve, 4, 4.4, 0);
    addCel(far, 0, playCookie(b, 0), 4.4, 8, 2);
    root = exportAndParse(far);
    ASSERT_TRUE(root);
    EXPECT_EQ(attr(spineItems(root).at(0), "duration"), "10000/2500s");
}

TEST_F(FcpxmlSequence, ZeroIsAHundredthOfAFrameButAnUnlabelledStartIsOneSecond) {
    Qv::Ptr<Edit> a = shot(L"A");
    Qv::Ptr<Edit> plain = addSequence(store, L"plain", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(plain, 0, video_black, 0, 1, 0);
    addCel(plain, 0, playCookie(a, 0), 1, 2, 0);
    const XMLElement* root = exportAndParse(plain);
    ASSERT_TRUE(root);
    EXPECT_EQ(attr(path(root, "library/event/project/sequence"), "tcStart"), "0/1s");
    auto items = spineItems(root);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(tag(items[0]),
              "gap name=\"\" duration=\"2500/2500s\" offset=\"0/2500s\" start=\"0/2500s\"");
    // The gap's first attribute is written from the literal name = "Gap",
    // whose value the attribute reader ends at once: a blank before the
    // equals sign, two quotes, and no Gap.
    EXPECT_NE(documentText.find("<gap name =\"\" duration="), std::string::npos);
    EXPECT_EQ(documentText.find("Gap"), std::string::npos);

    // A sequence at one hour: every offset counts from there.
    Qv::Ptr<Edit> hour = sequence({{kChanVideo, "V1"}}, 90000);
    addCel(hour, 0, playCookie(a, 0), 0, 2, 0);
    root = exportAndParse(hour);
    ASSERT_TRUE(root);
    EXPECT_EQ(attr(path(root, "library/event/project/sequence"), "tcStart"), "9000000/2500s");
    EXPECT_EQ(attr(spineItems(root).at(0), "offset"), "9000000/2500s");
}

TEST_F(FcpxmlSequence, VideoChannelsShareTheSpineInLanesWithTransitionsNumberedPerChannel) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}});
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B");
    addCel(seq, 0, playCookie(a, 0), 0, 4, 1);
    addCel(seq, 0, video_dissolve, 4, 5, 0);
    addCel(seq, 0, playCookie(b, 0), 5, 8, 1);
    CelData& wipe = addCel(seq, 0, video_wipe, 8, 9, 0);
    wipe.wipeCode = 5;
    wipe.wipeDirection = eWipeReverse;
    addCel(seq, 0, playCookie(a, 0), 9, 12, 20);
    addCel(seq, 1, playCookie(b, 0), 0, 3, 2);
    addCel(seq, 1, video_dissolve, 3, 4, 0);
    addCel(seq, 1, playCookie(a, 0), 4, 6, 5);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = spineItems(root);
    Names laneOrName;
    for (const XMLElement* e : items)
        laneOrName.push_back(std::string(e->Name()) == "clip" ? "clip " + attr(e, "lane")
                                                              : attr(e, "name"));
    // The first channel's items, then the second's, with no sorting by time.
    EXPECT_EQ(laneOrName, (Names{"clip 0", "trans_V1_1", "clip 0", "trans_V1_2", "clip 0",
                                 "clip -1", "trans_V2_1", "clip -1"}));
    // Every wipe is the one wipe effect; its code and direction are not
    // written.
    EXPECT_EQ(tag(items[3]->FirstChildElement()), "filter-video ref=\"fx2\" name=\"Wipe\"");
    EXPECT_EQ(tag(items[6]->FirstChildElement()),
              "filter-video ref=\"fx1\" name=\"Cross Dissolve\"");
    EXPECT_EQ(attr(items[5], "offset"), "0/2500s");
}

TEST_F(FcpxmlSequence, TransitionsThatCannotBeMadeBecomeGaps) {
    Qv::Ptr<Edit> seq =
        sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanVideo, "V3"}}, 90000);
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B");
    // V1: a transition right after a transition is a gap over both.
    addCel(seq, 0, playCookie(a, 0), 0, 4, 0);
    addCel(seq, 0, video_dissolve, 4, 5, 0);
    addCel(seq, 0, video_dissolve, 5, 6, 0);
    addCel(seq, 0, playCookie(b, 0), 6, 8, 2);
    // V2: the incoming clip lacks 1.4 s of head: in whole seconds that is
    // none, and the transition is made.
    addCel(seq, 1, playCookie(a, 0), 0, 3, 0);
    addCel(seq, 1, video_dissolve, 3, 5.8, 0);
    addCel(seq, 1, playCookie(b, 0), 5.8, 8, 0);
    // V3: 1.5 s of head missing is too little.
    addCel(seq, 2, playCookie(a, 0), 0, 3, 0);
    addCel(seq, 2, video_dissolve, 3, 6, 0);
    addCel(seq, 2, playCookie(b, 0), 6, 8, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = spineItems(root);
    ASSERT_EQ(items.size(), 10u);
    EXPECT_EQ(tag(items[2]),
              "gap name=\"\" duration=\"5000/2500s\" offset=\"9011250/2500s\" "
              "start=\"0/2500s\"");
    EXPECT_EQ(attr(items[3], "offset"), "9015000/2500s");
    EXPECT_EQ(std::string(items[5]->Name()), "transition");
    EXPECT_EQ(attr(items[5], "name"), "trans_V2_1");
    // V3's clip before still runs half the transition on; the gap stands in
    // for the transition itself.
    EXPECT_EQ(attr(items[7], "duration"), "11250/2500s");
    EXPECT_EQ(tag(items[8]),
              "gap name=\"\" duration=\"7500/2500s\" offset=\"9007500/2500s\" "
              "start=\"0/2500s\"");
    EXPECT_EQ(lines(LogKind::Warning),
              (Names{"Insufficient material for TRANSITION at track <V3> timecode <01:00:03:00>",
                     " - Transition has been replaced with black/silence"}));
}

TEST_F(FcpxmlSequence, MaterialOutsideTheAssetLeavesGapsWithTwoLines) {
    Qv::Ptr<Edit> seq =
        sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanVideo, "V3"}}, 90000);
    Qv::Ptr<Edit> a = shot(L"A", 5);
    addCel(seq, 0, playCookie(a, 0), 0, 4, -2);  // two seconds before the first frame
    addCel(seq, 1, playCookie(a, 0), 0, 4, 3);   // two seconds past the last
    addCel(seq, 2, playCookie(a, 7), 0, 4, 0);   // a channel the shot does not have

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    EXPECT_EQ(tags(spineItems(root)),
              (Names{"gap name=\"\" duration=\"5000/2500s\" offset=\"9000000/2500s\" "
                     "start=\"0/2500s\"",
                     "clip lane=\"0\" enabled=\"1\" duration=\"5000/2500s\" "
                     "offset=\"9005000/2500s\" start=\"0/100s\"",
                     "clip lane=\"-1\" enabled=\"1\" duration=\"5000/2500s\" "
                     "offset=\"9000000/2500s\" start=\"300/100s\"",
                     "gap name=\"\" duration=\"5000/2500s\" offset=\"9005000/2500s\" "
                     "start=\"0/2500s\"",
                     "gap name=\"\" duration=\"10000/2500s\" offset=\"9000000/2500s\" "
                     "start=\"0/2500s\""}));
    // Material that is no asset leaves its gap without a word.
    EXPECT_EQ(lines(LogKind::Warning),
              (Names{"Insufficient source material at track <V1> timecode <01:00:02:00>",
                     " - A black/silent segment has been added",
                     "Insufficient source material at track <V2> timecode <01:00:02:00>",
                     " - A black/silent segment has been added"}));
}

TEST_F(FcpxmlSequence, AudioHangsBelowTheFirstItemInLanesCountingDown) {
    Qv::Ptr<Edit> seq =
        sequence({{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}, {kChanAudio, "A3"}});
    Qv::Ptr<Edit> a = shot(L"A");
    Qv::Ptr<Edit> music = shot(L"music", 60, {{kChanAudio, "A1"}, {kChanAudio, "A2"}});
    addCel(seq, 0, playCookie(a, 0), 0, 4, 1);
    addCel(seq, 0, playCookie(a, 0), 4, 8, 5);
    addCel(seq, 1, playCookie(a, 1), 0, 3, 1);
    addCel(seq, 1, audio_black, 3, 4, 0);
    addCel(seq, 1, playCookie(a, 1), 4, 8, 5);
    addCel(seq, 2, playCookie(music, 0), 0, 4, 0);
    addCel(seq, 2, audio_dissolve, 4, 5, 0);
    addCel(seq, 2, playCookie(music, 0), 5, 8, 10);
    addCel(seq, 3, playCookie(music, 1), 0, 8, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = spineItems(root);
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(childNames(items[1]), (Names{"video"})) << "only the first item carries audio";
    auto spines = children(items[0], "spine");
    EXPECT_EQ(tags(spines), (Names{"spine lane=\"-1\" offset=\"2500/2500s\"",
                                   "spine lane=\"-2\" offset=\"2500/2500s\"",
                                   "spine lane=\"-3\" offset=\"2500/2500s\""}));
    // Silence is a hole in the storyline.
    EXPECT_EQ(tags(children(spines[0])),
              (Names{"clip name=\"A\" duration=\"7500/2500s\" offset=\"0/2500s\" "
                     "start=\"2500/2500s\" enabled=\"1\"",
                     "clip name=\"A\" duration=\"10000/2500s\" offset=\"10000/2500s\" "
                     "start=\"12500/2500s\" enabled=\"1\""}));
    EXPECT_EQ(tags(children(children(spines[0])[0])),
              (Names{"audio start=\"0/2500s\" ref=\"as1\" duration=\"75000/2500s\" "
                     "offset=\"0/2500s\""}));
    // A crossfade is placed from the anchor; the clips on either side reach
    // half of it into it.
    EXPECT_EQ(tags(children(spines[1])),
              (Names{"clip name=\"music\" duration=\"11250/2500s\" offset=\"0/2500s\" "
                     "start=\"0/2500s\" enabled=\"1\"",
                     "transition offset=\"12500/2500s\" name=\"crossfade\" "
                     "duration=\"2500/2500s\"",
                     "clip name=\"music\" duration=\"8750/2500s\" offset=\"11250/2500s\" "
                     "start=\"23750/2500s\" enabled=\"1\""}));
    EXPECT_EQ(tag(children(spines[1])[1]->FirstChildElement()),
              "filter-audio ref=\"fx3\" name=\"Cross Fade\"");
    EXPECT_EQ(attr(children(spines[2])[0]->FirstChildElement("audio"), "ref"), "as2");
}

TEST_F(FcpxmlSequence, AudioIsLostUnlessTheFirstVideoItemStartsAtZero) {
    Qv::Ptr<Edit> a = shot(L"A");
    // A gap at the head carries the audio, anchored at 0.
    Qv::Ptr<Edit> blackFirst = sequence({{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    addCel(blackFirst, 0, video_black, 0, 1, 0);
    addCel(blackFirst, 0, playCookie(a, 0), 1, 4, 0);
    addCel(blackFirst, 1, playCookie(a, 1), 0, 4, 0);
    const XMLElement* root = exportAndParse(blackFirst);
    ASSERT_TRUE(root);
    EXPECT_EQ(tags(children(spineItems(root).at(0))),
              (Names{"spine lane=\"-1\" offset=\"0/2500s\""}));
    EXPECT_EQ(children(spineItems(root)[0]->FirstChildElement("spine")).size(), 1u);

    // A first video cel that starts later: nothing carries the audio.
    Qv::Ptr<Edit> late = sequence({{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    addCel(late, 0, playCookie(a, 0), 1, 4, 0);
    addCel(late, 1, playCookie(a, 1), 0, 4, 0);
    root = exportAndParse(late);
    ASSERT_TRUE(root);
    EXPECT_TRUE(all(root, "spine").size() == 1u);
    EXPECT_EQ(childNames(spineItems(root).at(0)), (Names{"video"}));

    // No video at all: an empty spine.
    Qv::Ptr<Edit> soundOnly = sequence({{kChanAudio, "A1"}});
    addCel(soundOnly, 0, playCookie(a, 1), 0, 4, 0);
    root = exportAndParse(soundOnly);
    ASSERT_TRUE(root);
    EXPECT_TRUE(spineItems(root).empty());
}

TEST_F(FcpxmlSequence, LevelsAreKeyframesInWholeDecibels) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    Qv::Ptr<Edit> a = shot(L"A");
    addCel(seq, 0, playCookie(a, 0), 0, 8, 0);
    addCel(seq, 1, playCookie(a, 1), 0, 8, 0);
    StoredChannel& a1 = seq->channels[1];
    a1.hasTrackLevels = true;
    // Positions are fractions of the sequence's 8 s. The last two sit half a
    // millisecond before the cel's start (it counts) and its end (it does
    // not); they keep their place in the list.
    a1.levels = {{0.0, 1.0f},  {0.25, 0.5f},       {0.5, 0.0f},         {0.625, 2.0f},
                 {0.75, 4.0f}, {7.9995 / 8, 1.0f}, {-0.0005 / 8, 0.25f}};

    auto keyframes = [&]() {
        const XMLElement* root = exportAndParse(seq);
        Names out;
        if (!root) return out;
        const XMLElement* source = all(root, "audio-source").at(0);
        EXPECT_EQ(tag(source), "audio-source srcCh=\"1, 2\"") << "no outCh";
        EXPECT_EQ(tag(path(source, "adjust-volume/param")), "param name=\"amount\"");
        return tags(all(source, "keyframe"));
    };
    EXPECT_EQ(keyframes(), (Names{"keyframe time=\"0/2500s\" value=\"0dB\"",
                                  "keyframe time=\"5000/2500s\" value=\"-6dB\"",
                                  "keyframe time=\"10000/2500s\" value=\"-2147483648dB\"",
                                  "keyframe time=\"12500/2500s\" value=\"6dB\"",
                                  "keyframe time=\"15000/2500s\" value=\"12dB\"",
                                  "keyframe time=\"0/2500s\" value=\"-12dB\""}));
    set_config_int("xml_export_limit_to_6dB", 1);
    Names limited = keyframes();
    ASSERT_EQ(limited.size(), 6u);
    EXPECT_EQ(limited[2], "keyframe time=\"10000/2500s\" value=\"-2147483648dB\"");
    EXPECT_EQ(limited[3], "keyframe time=\"12500/2500s\" value=\"6dB\"");
    EXPECT_EQ(limited[4], "keyframe time=\"15000/2500s\" value=\"6dB\"");
}

TEST_F(FcpxmlSequence, SequenceMarkersLandInTheItemTheyFallOn) {
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"A");
    addCel(seq, 0, video_black, 0, 2, 0);
    addCel(seq, 0, playCookie(a, 0), 2, 6, 3);
    seq->cues.push_back(Ced2Cue(L"open", L"", 0xFF0000, 0.0, kChanVideo, 0, kCueOpenEnd));
    seq->cues.push_back(Ced2Cue(L"late", L"out of order", 0, 5.0, kChanVideo, 0, 5.5));
    seq->cues.push_back(Ced2Cue(L"cut", L"here", 0, 2.0, kChanVideo, 0, 3.0));
    seq->cues.push_back(Ced2Cue(L"after", L"", 0, 6.0, kChanVideo, 0, kCueOpenEnd));

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = spineItems(root);
    ASSERT_EQ(items.size(), 2u);
    // A marker without an end lasts one frame; one at the end of an item
    // belongs to the next; the sequence's order is kept.
    EXPECT_EQ(tags(children(items[0], "marker")),
              (Names{"marker value=\"open - \" duration=\"100/2500s\" start=\"0/2500s\""}));
    EXPECT_EQ(tags(children(items[1], "marker")),
              (Names{"marker value=\"late - out of order\" duration=\"1250/2500s\" "
                     "start=\"7500/2500s\"",
                     "marker value=\"cut - here\" duration=\"2500/2500s\" start=\"0/2500s\""}));
    EXPECT_EQ(documentText.find("after - "), std::string::npos);
}

TEST_F(FcpxmlSequence, ASubclipPlaysItsMastersAssetFromItsInPoint) {
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"A");
    Qv::Ptr<Edit> bit = qvtest::addSubclip(store, L"bit", a, 4, 10);
    addCel(seq, 0, playCookie(bit, 0), 0, 3, 1);
    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    const XMLElement* clip = spineItems(root).at(0);
    EXPECT_EQ(attr(clip, "start"), "500/100s");
    EXPECT_EQ(attr(clip->FirstChildElement("video"), "ref"), "as1");
}

}  // namespace
