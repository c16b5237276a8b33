// Sequences as fcpxml by default: times in whole frames of the sequence,
// storylines end to end, transitions centred on their cuts, every channel but
// the first a connected storyline, nested sequences as compound clips.
#include <cstdlib>
#include <limits>
#include <map>

#include "host/Config.h"
#include "tests/fcpxml/FcpxmlTestSupport.h"

namespace {

using namespace fcpxmltest;

using Names = std::vector<std::string>;

class FcpxmlFrames : public FcpxmlTest {
  protected:
    void SetUp() override {
        FcpxmlTest::SetUp();
        // What Final Cut Pro X reads: the default.
        clear_config_int("xml_legacy_interchange");
    }
    Qv::Ptr<Edit> sequence(std::vector<qvtest::ChannelSpec> channels = {{kChanVideo, "V1"}},
                           Qv::FrameRate rate = Qv::eFrameRate25) {
        Qv::Ptr<Edit> seq = addSequence(store, L"cut", rate, channels);
        seq->videoMetadata.setSize(1920, 1080);
        seq->videoMetadata.setScanMode(Qv::Image::eScanProgressive);
        return seq;
    }
    Qv::Ptr<Edit> shot(const std::wstring& name, double length = 30,
                       std::vector<qvtest::ChannelSpec> channels = {{kChanVideo, "V1"},
                                                                    {kChanAudio, "A1"}}) {
        Qv::Ptr<Edit> s = addShot(store, name, 25.0, length, channels, L"/media/" + name + L".mov");
        s->videoMetadata.setSize(1920, 1080);
        s->videoMetadata.setScanMode(Qv::Image::eScanProgressive);
        return s;
    }
    // One attribute of each element.
    static Names attrs(const std::vector<const XMLElement*>& elements, const char* name) {
        Names out;
        for (const XMLElement* e : elements)
            out.push_back(attr(e, name));
        return out;
    }
    // The kinds of the run's loss records, in order.
    Names lossKinds() const {
        Names out;
        for (const LossRecord& r : sink->losses)
            out.push_back(r.kind.str());
        return out;
    }
};

TEST_F(FcpxmlFrames, ItemsMeetEndToEndOnFramesAndTransitionsAreCentredOnTheirCut) {
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B");
    addCel(seq, 0, playCookie(a, 0), 0, 4, 1);
    addCel(seq, 0, video_dissolve, 4, 4.4, 0);
    addCel(seq, 0, playCookie(b, 0), 4.4, 8, 2);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    const XMLElement* format = path(root, "resources/format");
    EXPECT_EQ(tag(format),
              "format id=\"f1\" name=\"FFVideoFormat1080p25\" frameDuration=\"1/25s\" "
              "width=\"1920\" height=\"1080\"");
    auto items = spineItems(root);
    ASSERT_EQ(items.size(), 3u);
    // The cut is the dissolve's middle: A runs to it, B starts at it with
    // its source 0.2 s earlier than the cel's.
    EXPECT_EQ(tag(items[0]),
              "clip name=\"A\" offset=\"0s\" duration=\"105/25s\" start=\"25/25s\" enabled=\"1\"");
    EXPECT_EQ(tag(items[1]),
              "transition name=\"trans_V1_1\" offset=\"100/25s\" duration=\"10/25s\"");
    EXPECT_EQ(tag(items[2]),
              "clip name=\"B\" offset=\"105/25s\" duration=\"95/25s\" start=\"45/25s\" "
              "enabled=\"1\"");
    EXPECT_TRUE(sink->losses.empty());

    // A dissolve of an odd number of frames loses one to sit on a whole
    // frame either side of its cut.
    Qv::Ptr<Edit> odd = sequence();
    addCel(odd, 0, playCookie(a, 0), 0, 4, 1);
    addCel(odd, 0, video_dissolve, 4, 4.44, 0);
    addCel(odd, 0, playCookie(b, 0), 4.44, 8, 2);
    root = exportAndParse(odd);
    ASSERT_TRUE(root);
    items = spineItems(root);
    ASSERT_EQ(items.size(), 3u);
    EXPECT_EQ(attrs(items, "offset"), (Names{"0s", "100/25s", "105/25s"}));
    EXPECT_EQ(attr(items[1], "duration"), "10/25s");
    EXPECT_EQ(lossKinds(), Names{"transition-shortened"});
}

TEST_F(FcpxmlFrames, NtscTimesAreWholeFramesOf1001Over30000) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}}, Qv::eFrameRate29_97);
    seq->labels.push_back(EditLabel::fromFrame(107892, Qv::eFrameRate29_97, true,
                                               kMediumVideoBase + Qv::eFrameRate29_97));
    Qv::Ptr<Edit> a = addShot(store, L"A", 30000.0 / 1001, 60, {{kChanVideo, "V1"}}, L"/m/a.mov");
    a->labels.push_back(EditLabel::fromFrame(3600, Qv::eFrameRate29_97, true,
                                             kMediumVideoBase + Qv::eFrameRate29_97));
    addCel(seq, 0, playCookie(a, 0), 0, 10, 2);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    // 01:00:00;00 is frame 107892 of drop-frame timecode, not a time of the
    // host's seconds at 29.97.
    const XMLElement* s = path(root, "library/event/project/sequence");
    EXPECT_EQ(attr(s, "tcStart"), "107999892/30000s");
    EXPECT_EQ(attr(s, "tcFormat"), "DF");
    const XMLElement* clip = spineItems(root).at(0);
    EXPECT_EQ(attr(clip, "offset"), "107999892/30000s");
    EXPECT_EQ(attr(clip, "duration"), "300300/30000s");
    // The asset starts at its timecode; the clip 60 frames into it.
    EXPECT_EQ(attr(path(root, "resources/asset"), "start"), "3603600/30000s");
    EXPECT_EQ(attr(clip, "start"), "3663660/30000s");
}

TEST_F(FcpxmlFrames, WhatTheMediaLacksIsAGapAndATransitionWithoutItIsOne) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}});
    Qv::Ptr<Edit> a = shot(L"A", 5), b = shot(L"B");
    // V1: A plays a second past its end; then a dissolve into B, which
    // starts too early in its media for it.
    addCel(seq, 0, playCookie(a, 0), 0, 4, 2);
    addCel(seq, 0, video_dissolve, 4, 5, 0);
    addCel(seq, 0, playCookie(b, 0), 5, 8, 0.2);
    // V2: a clip that plays none of its media, between black and black.
    addCel(seq, 1, video_black, 0, 1, 0);
    addCel(seq, 1, playCookie(a, 0), 1, 3, 40);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = spineItems(root);
    Names kinds;
    for (const XMLElement* e : items)
        kinds.push_back(e->Name());
    EXPECT_EQ(kinds, (Names{"clip", "gap", "clip"}));
    EXPECT_EQ(attrs(items, "offset"), (Names{"0s", "75/25s", "125/25s"}));
    EXPECT_EQ(attrs(items, "duration"), (Names{"75/25s", "50/25s", "75/25s"}));
    // The second video channel is a connected storyline, and one of nothing
    // but gaps is left out.
    EXPECT_TRUE(all(root, "spine").size() == 1u);
    EXPECT_EQ(lossKinds(), (Names{"gap-added", "transition-removed", "clip-as-black"}));
}

TEST_F(FcpxmlFrames, EveryOtherChannelIsAConnectedStorylineAnchoredAtTheStart) {
    Qv::Ptr<Edit> seq =
        sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}});
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B");
    Qv::Ptr<Edit> interview =
        shot(L"interview", 60, {{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}});
    Qv::Ptr<Edit> music = shot(L"music", 60, {{kChanAudio, "A1"}});
    seq->cues.push_back(Ced2Cue(L"look", L"here", 0, 2.0, kChanVideo, 0, kCueOpenEnd));
    addCel(seq, 0, playCookie(a, 0), 0, 4, 1);
    addCel(seq, 1, video_black, 0, 2, 0);
    addCel(seq, 1, playCookie(b, 0), 2, 3, 0);
    addCel(seq, 2, playCookie(interview, 2), 1, 3, 10);
    addCel(seq, 2, audio_dissolve, 3, 3.4, 0);
    addCel(seq, 2, playCookie(interview, 2), 3.4, 5, 20);
    addCel(seq, 3, playCookie(music, 0), 0, 5, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = spineItems(root);
    ASSERT_EQ(items.size(), 1u);
    const XMLElement* first = items[0];
    // Anchored at the clip's own time at its start.
    auto lanes = children(first, "spine");
    ASSERT_EQ(lanes.size(), 3u);
    EXPECT_EQ(tag(lanes[0]), "spine lane=\"1\" offset=\"25/25s\"");
    EXPECT_EQ(tag(lanes[1]), "spine lane=\"-1\" offset=\"25/25s\"");
    EXPECT_EQ(tag(lanes[2]), "spine lane=\"-2\" offset=\"25/25s\"");
    // Within a connected storyline times count from its start, and silence
    // is a gap so that its items meet.
    auto sound = children(lanes[1]);
    Names kinds;
    for (const XMLElement* e : sound)
        kinds.push_back(e->Name());
    EXPECT_EQ(kinds, (Names{"gap", "clip", "transition", "clip"}));
    EXPECT_EQ(attrs(sound, "offset"), (Names{"0s", "25/25s", "75/25s", "80/25s"}));
    // A sound clip says which channel of its file it plays; its file has no
    // picture and no format.
    EXPECT_EQ(attr(sound[1]->FirstChildElement("audio"), "srcCh"), "2");
    EXPECT_EQ(attr(sound[2], "duration"), "10/25s") << "a centred cross fade";
    for (const XMLElement* asset : all(root, "asset"))
        if (attr(asset, "name") == "music") {
            EXPECT_EQ(attr(asset, "hasVideo"), "0");
            EXPECT_EQ(attr(asset, "format"), "<none>");
        }
    // The marker at 2 s lies in the clip that starts 1 s into its media.
    auto markers = children(first, "marker");
    ASSERT_EQ(markers.size(), 1u);
    EXPECT_EQ(attr(markers[0], "start"), "75/25s");
    EXPECT_EQ(attr(markers[0], "duration"), "1/25s");
}

TEST_F(FcpxmlFrames, ANestedSequenceIsACompoundClipOfAMediaResource) {
    Qv::Ptr<Edit> a = shot(L"A");
    Qv::Ptr<Edit> inner = sequence();
    inner->name = L"inner";
    // It plays a sub-clip of a sub-clip: the third level of reference that
    // the original writer refused.
    Qv::Ptr<Edit> take = qvtest::addSubclip(store, L"take", a, 2, 10);
    Qv::Ptr<Edit> bit = qvtest::addSubclip(store, L"bit", take, 3, 4);
    addCel(inner, 0, playCookie(bit, 0), 0, 4, 0);
    Qv::Ptr<Edit> seq = sequence();
    addCel(seq, 0, playCookie(inner, 0), 0, 2, 1);
    addCel(seq, 0, playCookie(inner, 0), 2, 3, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto media = all(root, "media");
    ASSERT_EQ(media.size(), 1u);
    EXPECT_EQ(attr(media[0], "name"), "inner");
    const XMLElement* deep = path(media[0], "sequence/spine/clip");
    ASSERT_TRUE(deep);
    EXPECT_EQ(attr(deep, "name"), "bit");
    EXPECT_EQ(attr(deep, "start"), "125/25s") << "2 s and 3 s into A";
    auto items = spineItems(root);
    ASSERT_EQ(items.size(), 2u);
    for (const XMLElement* item : items) {
        EXPECT_STREQ(item->Name(), "ref-clip");
        EXPECT_EQ(attr(item, "ref"), attr(media[0], "id"));
        EXPECT_EQ(attr(item, "srcEnable"), "video");
    }
    EXPECT_EQ(attrs(items, "start"), (Names{"25/25s", "0s"}));
    EXPECT_TRUE(sink->losses.empty());
}

TEST_F(FcpxmlFrames, NoTimeOfAShotOfUnknownLengthIsNegativeOrEndless) {
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"A");
    a->length = std::numeric_limits<double>::infinity();
    addCel(seq, 0, playCookie(a, 0), 0, 4, 6);
    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    // As far as the cut plays it: 6 s in, for 4 s.
    EXPECT_EQ(attr(path(root, "resources/asset"), "duration"), "250/25s");
    for (const char* time : {"offset=\"-", "duration=\"-", "start=\"-"})
        EXPECT_EQ(documentText.find(time), std::string::npos) << documentText;
    EXPECT_EQ(lossKinds(), Names{"length-unknown"});
}

}  // namespace

namespace {

TEST_F(FcpxmlFrames, CelsOfTimesThatAreNoNumberWriteNoTimeThatIsNone) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    Qv::Ptr<Edit> a = shot(L"A");
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double inf = std::numeric_limits<double>::infinity();
    addCel(seq, 0, playCookie(a, 0), 0, 2, nan);
    addCel(seq, 0, video_dissolve, 2, 3, 0);
    addCel(seq, 0, playCookie(a, 0), 3, 4, -inf);
    addCel(seq, 0, playCookie(a, 0), 4, 5, 1e300);
    addCel(seq, 0, playCookie(a, 0), 5, inf, 1);
    addCel(seq, 1, playCookie(a, 1), nan, 3, 0);
    seq->cues.push_back(Ced2Cue(L"lost", L"", 0, nan, kChanVideo, 0, inf));
    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    for (const char* bad : {"nan", "inf", "offset=\"-", "duration=\"-", "start=\"-"})
        EXPECT_EQ(documentText.find(bad), std::string::npos) << bad << "\n" << documentText;
}

}  // namespace
