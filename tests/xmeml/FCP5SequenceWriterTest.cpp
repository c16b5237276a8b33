// Sequences and tracks as xmeml: where clip items and transitions land, and
// how speeds, levels, markers and bad material come out.
#include <cmath>

#include "host/Config.h"
#include "tests/xmeml/XmemlTestSupport.h"

namespace {

using namespace xmemltest;

const MediumRollMedium kMedium25 = kMediumVideoBase + Qv::eFrameRate25;

// The fields of a clip item that place it.
struct Placed {
    std::string in, out, start, end;
    bool operator==(const Placed&) const = default;
};
std::ostream& operator<<(std::ostream& os, const Placed& p) {
    return os << "{in " << p.in << ", out " << p.out << ", start " << p.start << ", end " << p.end
              << "}";
}
Placed placed(const XMLElement* item) {
    return {text(item, "in"), text(item, "out"), text(item, "start"), text(item, "end")};
}

class XmemlSequence : public XmemlTest {
  protected:
    // A sequence at 25 with one video channel "V1", timecode 01:00:00:00.
    Qv::Ptr<Edit> sequence(std::vector<qvtest::ChannelSpec> channels = {{kChanVideo, "V1"}}) {
        Qv::Ptr<Edit> seq = addSequence(store, L"cut", Qv::eFrameRate25, channels);
        seq->labels.push_back(EditLabel::fromFrame(90000, Qv::eFrameRate25, false, kMedium25));
        return seq;
    }
    Qv::Ptr<Edit> shot(const std::wstring& name, double length = 30,
                       std::vector<qvtest::ChannelSpec> channels = {{kChanVideo, "V1"},
                                                                    {kChanAudio, "A1"}}) {
        return addShot(store, name, 25.0, length, channels);
    }
    // The tracks of the exported sequence's video or audio.
    std::vector<const XMLElement*> tracks(const XMLElement* root, const char* kind) {
        const XMLElement* media = root->FirstChildElement("sequence")->FirstChildElement("media");
        return children(media ? media->FirstChildElement(kind) : nullptr, "track");
    }
    const XMLElement* firstTrack(const Qv::Ptr<Edit>& seq) {
        const XMLElement* root = exportAndParse(seq);
        if (!root) return nullptr;
        auto t = tracks(root, "video");
        return t.empty() ? nullptr : t[0];
    }
};

TEST_F(XmemlSequence, WorkedExamplePlacesClipsAroundTheDissolve) {
    useLegacyInterchange();
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B");
    addCel(seq, 0, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 0, video_dissolve, 4, 4.4, 0);
    addCel(seq, 0, playCookie(b, 0), 4.4, 8, 20);

    const XMLElement* track = firstTrack(seq);
    ASSERT_TRUE(track);
    EXPECT_EQ(childNames(track),
              (std::vector<std::string>{"clipitem", "transitionitem", "clipitem"}));
    auto items = children(track, "clipitem");
    EXPECT_EQ(placed(items[0]), (Placed{"250", "360", "0", "-1"}));
    EXPECT_EQ(placed(items[1]), (Placed{"490", "590", "-1", "200"}));
    const XMLElement* t = track->FirstChildElement("transitionitem");
    EXPECT_EQ(text(t, "start"), "100");
    EXPECT_EQ(text(t, "end"), "110");
    EXPECT_EQ(text(t, "alignment"), "centre");
    EXPECT_EQ(text(t, "cutPointTicks"), "50803200000");
    EXPECT_EQ(text(t, "name"), "trans_V1_1");
    EXPECT_EQ(childNames(t), (std::vector<std::string>{"name", "rate", "start", "end", "alignment",
                                                       "cutPointTicks", "effect"}));
    EXPECT_EQ(at(t, "effect/name"), "Cross Dissolve");
    EXPECT_EQ(at(t, "effect/effectcategory"), "Dissolve");
    EXPECT_EQ(at(t, "effect/wipecode"), "<none>");
    EXPECT_EQ(attr(items[0], "id"), "clipitem-1");
    EXPECT_EQ(attr(items[1], "id"), "clipitem-2");
    EXPECT_TRUE(lines(LogKind::Warning).empty());
}

TEST_F(XmemlSequence, TransitionsNextToTransitionsBlackAndTheEnd) {
    useLegacyInterchange();
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanVideo, "V3"}});
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B");
    // V1: two transitions in a row; the second goes as though black.
    addCel(seq, 0, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 0, video_dissolve, 4, 5, 0);
    addCel(seq, 0, video_dissolve, 5, 6, 0);
    addCel(seq, 0, playCookie(b, 0), 6, 8, 10);
    // V2: a transition at the very end of the track.
    addCel(seq, 1, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 1, video_dissolve, 4, 5, 0);
    // V3: a transition into black, then one out of black.
    addCel(seq, 2, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 2, video_dissolve, 4, 5, 0);
    addCel(seq, 2, video_black, 5, 6, 0);
    addCel(seq, 2, video_dissolve, 6, 7, 0);
    addCel(seq, 2, playCookie(b, 0), 7, 10, 10);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto t = tracks(root, "video");
    ASSERT_EQ(t.size(), 3u);
    // Tracks go out last channel first.
    const XMLElement *v3 = t[0], *v2 = t[1], *v1 = t[2];

    EXPECT_EQ(childNames(v1), (std::vector<std::string>{"clipitem", "transitionitem", "clipitem"}));
    auto items = children(v1, "clipitem");
    EXPECT_EQ(placed(items[0]).end, "-1");
    EXPECT_EQ(placed(items[1]).start, "150") << "the clip after the dropped transition has a "
                                                "real start";
    EXPECT_EQ(text(v1->FirstChildElement("transitionitem"), "alignment"), "end_black");

    EXPECT_EQ(childNames(v2), (std::vector<std::string>{"clipitem", "transitionitem"}));
    EXPECT_EQ(placed(v2->FirstChildElement("clipitem")).end, "-1");
    EXPECT_EQ(text(v2->FirstChildElement("transitionitem"), "alignment"), "centre");

    auto v3t = children(v3, "transitionitem");
    ASSERT_EQ(v3t.size(), 2u);
    EXPECT_EQ(text(v3t[0], "alignment"), "end_black");
    EXPECT_EQ(text(v3t[1], "alignment"), "start_black");
    EXPECT_EQ(text(v3t[1], "name"), "trans_V3_2");
    auto v3items = children(v3, "clipitem");
    EXPECT_EQ(placed(v3items[1]).start, "-1");
    EXPECT_EQ(placed(v3items[1]).in, "225") << "its head reaches back by the transition";
    EXPECT_TRUE(lines(LogKind::Warning).empty());
}

TEST_F(XmemlSequence, InsufficientHeadOrTailDropsTheTransitionWithTwoLines) {
    useLegacyInterchange();
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}});
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B"), shortShot = shot(L"short", 4.5);
    // V1: B starts half a second into its shot; the dissolve needs a second.
    addCel(seq, 0, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 0, video_dissolve, 4, 5, 0);
    addCel(seq, 0, playCookie(b, 0), 5, 8, 0.5);
    // V2: the outgoing clip ends 0.5 s before the end of its shot.
    addCel(seq, 1, playCookie(shortShot, 0), 0, 4, 0);
    addCel(seq, 1, video_dissolve, 4, 6, 0);
    addCel(seq, 1, playCookie(b, 0), 6, 8, 10);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto t = tracks(root, "video");
    ASSERT_EQ(t.size(), 2u);
    const XMLElement *v2 = t[0], *v1 = t[1];

    // Not enough head: the outgoing clip has passed its own test and keeps
    // its open end.
    EXPECT_EQ(childNames(v1), (std::vector<std::string>{"clipitem", "clipitem"}));
    auto i1 = children(v1, "clipitem");
    EXPECT_EQ(placed(i1[0]), (Placed{"250", "375", "0", "-1"}));
    EXPECT_EQ(placed(i1[1]), (Placed{"13", "88", "125", "200"}));

    // Not enough tail: the outgoing clip keeps its real end.
    EXPECT_EQ(childNames(v2), (std::vector<std::string>{"clipitem", "clipitem"}));
    auto i2 = children(v2, "clipitem");
    EXPECT_EQ(placed(i2[0]), (Placed{"0", "100", "0", "100"}));
    EXPECT_EQ(placed(i2[1]).start, "150");

    // V2's track is written first, so its lines come first.
    EXPECT_EQ(lines(LogKind::Warning),
              (std::vector<std::string>{
                  "Insufficient material for TRANSITION at track <V2> timecode <01:00:04:00>",
                  " - Transition has been replaced with black/silence",
                  "Insufficient material for TRANSITION at track <V1> timecode <01:00:04:00>",
                  " - Transition has been replaced with black/silence"}));
}

TEST_F(XmemlSequence, MaterialOutsideTheShotIsCutOffWithTwoLines) {
    useLegacyInterchange();
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanVideo, "V3"}});
    Qv::Ptr<Edit> a = shot(L"A", 20), fiveSeconds = shot(L"five", 5), b = shot(L"B"),
                  slow = shot(L"slow", 1.6);
    // V1: a second before the shot's first frame.
    addCel(seq, 0, playCookie(a, 0), 2, 4, -1);
    // V2: two seconds beyond the shot's last frame.
    addCel(seq, 1, playCookie(fiveSeconds, 0), 0, 4, 3);
    // V3: both, at half speed, and a dissolve after: its tail test passes but
    // the repaired end leaves black before the dissolve.
    addCel(seq, 2, playCookie(slow, 0), 0, 4, -1, 0.5f);
    addCel(seq, 2, video_dissolve, 4, 5, 0);
    addCel(seq, 2, playCookie(b, 0), 5, 8, 10);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto t = tracks(root, "video");
    ASSERT_EQ(t.size(), 3u);
    const XMLElement *v3 = t[0], *v2 = t[1], *v1 = t[2];
    EXPECT_EQ(placed(v1->FirstChildElement("clipitem")), (Placed{"0", "25", "75", "100"}));
    EXPECT_EQ(placed(v2->FirstChildElement("clipitem")), (Placed{"75", "125", "0", "50"}));
    auto v3items = children(v3, "clipitem");
    ASSERT_EQ(v3items.size(), 2u);
    EXPECT_EQ(placed(v3items[0]), (Placed{"0", "180", "25", "-1"}));
    EXPECT_EQ(text(v3->FirstChildElement("transitionitem"), "alignment"), "start_black");
    EXPECT_EQ(placed(v3items[1]).start, "-1");

    const std::string before =
        "Badly defined segment - starts before first frame of clip. Track <%s> timecode <%s>";
    const std::string beyond =
        "Badly defined segment - ends beyond last frame of clip. Track <%s> timecode <%s>";
    auto fill = [](std::string s, const std::string& track, const std::string& tc) {
        s.replace(s.find("%s"), 2, track);
        s.replace(s.find("%s"), 2, tc);
        return s;
    };
    const std::string bad = " - Bad section replaced with black/silence";
    EXPECT_EQ(lines(LogKind::Warning),
              (std::vector<std::string>{
                  fill(before, "V3", "01:00:00:00"), bad, fill(beyond, "V3", "01:00:04:00"), bad,
                  fill(beyond, "V2", "01:00:04:00"), bad, fill(before, "V1", "01:00:02:00"), bad}));
}

TEST_F(XmemlSequence, StillsReverseAndSpeedsAsTimeRemap) {
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"A", 4), b = shot(L"B", 20), c = shot(L"C");
    addCel(seq, 0, playCookie(a, 0), 0, 2, 0.04, 0.0f);     // still
    addCel(seq, 0, playCookie(b, 0), 2, 6, 10, -1.0f);      // backwards
    addCel(seq, 0, playCookie(c, 0), 6, 8, 0, 1.0000005f);  // as good as 1
    addCel(seq, 0, playCookie(c, 0), 8, 10, 0, 1.5f);       // 150 percent
    addCel(seq, 0, playCookie(c, 0), 10, 12, 0, 0.5f);      // 50 percent

    const XMLElement* track = firstTrack(seq);
    ASSERT_TRUE(track);
    auto items = children(track, "clipitem");
    ASSERT_EQ(items.size(), 5u);
    auto speedOf = [](const XMLElement* item) {
        for (const XMLElement* p : all(item, "parameter"))
            if (text(p, "parameterid") == "speed") return text(p, "value");
        return std::string("<none>");
    };
    auto hasReverse = [](const XMLElement* item) {
        for (const XMLElement* p : all(item, "parameter"))
            if (text(p, "parameterid") == "reverse") return text(p, "value") == "TRUE";
        return false;
    };

    // A still plays as though at a thousandth of normal speed.
    EXPECT_EQ(text(items[0], "duration"), "100000");
    EXPECT_EQ(speedOf(items[0]), "0.1");
    EXPECT_FALSE(hasReverse(items[0]));
    EXPECT_EQ(placed(items[0]), (Placed{"1000", "51000", "0", "50"}));

    EXPECT_EQ(speedOf(items[1]), "100.");
    EXPECT_TRUE(hasReverse(items[1]));
    EXPECT_EQ(placed(items[1]), (Placed{"250", "350", "50", "150"}));
    const XMLElement* remap = items[1]->FirstChildElement("filter")->FirstChildElement("effect");
    EXPECT_EQ(childNames(remap),
              (std::vector<std::string>{"name", "effectid", "effectcategory", "effecttype",
                                        "mediatype", "parameter", "parameter"}));
    EXPECT_EQ(text(remap, "name"), "Time Remap");
    EXPECT_EQ(text(remap, "mediatype"), "video");

    EXPECT_EQ(items[2]->FirstChildElement("filter"), nullptr);
    EXPECT_EQ(speedOf(items[3]), "150.");
    EXPECT_FALSE(hasReverse(items[3]));
    EXPECT_EQ(text(items[3], "duration"), "500");
    EXPECT_EQ(speedOf(items[4]), "50.0");
}

TEST_F(XmemlSequence, AudioLevelsWithAndWithoutTheSixDecibelLimit) {
    // The loudest float gain that is still at most 5.99 dB, and the next one.
    float atLimit = 1.9929665f;
    while (20.0 * std::log10(static_cast<double>(atLimit)) > 5.99)
        atLimit = std::nextafter(atLimit, 0.0f);
    while (20.0 * std::log10(static_cast<double>(std::nextafter(atLimit, 10.0f))) <= 5.99)
        atLimit = std::nextafter(atLimit, 10.0f);
    float above = std::nextafter(atLimit, 10.0f);

    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}});
    Qv::Ptr<Edit> a = shot(L"A");
    addCel(seq, 1, playCookie(a, 1), 0, 5, 0);
    addCel(seq, 1, playCookie(a, 1), 5, 10, 20);
    addCel(seq, 2, playCookie(a, 1), 0, 10, 0);
    StoredChannel& a1 = seq->channels[1];
    a1.hasTrackLevels = true;
    // The sequence is 10 s long: keyframes at 1, 5 (on both clips' edges)
    // and 9 seconds.
    a1.levels = {{0.1, atLimit}, {0.5, above}, {0.9, 4.0f}};
    // A2 has keyframes but its levels are switched off.
    seq->channels[2].levels = {{0.5, 0.5f}};

    auto keyframes = [&](const XMLElement* item) {
        std::vector<std::string> out;
        for (const XMLElement* k : all(item, "keyframe"))
            out.push_back(text(k, "when") + "=" + text(k, "value"));
        return out;
    };
    char atText[32], aboveText[32];
    std::snprintf(atText, sizeof atText, "%.8f", static_cast<double>(atLimit));
    std::snprintf(aboveText, sizeof aboveText, "%.8f", static_cast<double>(above));

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto t = tracks(root, "audio");
    ASSERT_EQ(t.size(), 2u);
    auto items = children(t[0], "clipitem");
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(keyframes(items[0]), (std::vector<std::string>{std::string("25=") + atText,
                                                             std::string("125=") + aboveText}));
    // The second clip starts 20 s into its shot.
    EXPECT_EQ(keyframes(items[1]),
              (std::vector<std::string>{std::string("500=") + aboveText, "600=4.00000000"}));
    EXPECT_EQ(children(t[1]->FirstChildElement("clipitem"), "filter").size(), 0u);
    const XMLElement* levels = items[0]->FirstChildElement("filter")->FirstChildElement("effect");
    EXPECT_EQ(text(levels, "name"), "Audio Levels");
    const XMLElement* parameter = levels->FirstChildElement("parameter");
    EXPECT_EQ(childNames(parameter),
              (std::vector<std::string>{"name", "parameterid", "keyframe", "keyframe"}));
    EXPECT_EQ(appLines("xml export - audio levels clipped to 6dB"), 0);

    set_config_int("xml_export_limit_to_6dB", 1);
    root = exportAndParse(seq);
    ASSERT_TRUE(root);
    items = children(tracks(root, "audio")[0], "clipitem");
    EXPECT_EQ(keyframes(items[0]),
              (std::vector<std::string>{std::string("25=") + atText, "125=1.99296651"}));
    EXPECT_EQ(keyframes(items[1]), (std::vector<std::string>{"500=1.99296651", "600=1.99296651"}));
    // Once per clip item that was clipped.
    EXPECT_EQ(appLines("xml export - audio levels clipped to 6dB"), 2);
}

TEST_F(XmemlSequence, VideoTracksInReverseAndAudioInChannelOrder) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"},
                                  {kChanVideo, "V2"},
                                  {kChanVideo, "V3"},
                                  {kChanAudio, "A1"},
                                  {kChanAudio, "A2"}});
    for (unsigned i = 0; i < 5; ++i) {
        std::wstring name = L"on channel " + std::to_wstring(i);
        Qv::Ptr<Edit> s = shot(name, 30, {{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio}});
        addCel(seq, i, playCookie(s, i < 3 ? 0 : i - 2), 0, 2, 0);
    }
    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    std::vector<std::string> video, audio, trackIndex;
    for (const XMLElement* t : tracks(root, "video"))
        video.push_back(at(t, "clipitem/name"));
    for (const XMLElement* t : tracks(root, "audio")) {
        audio.push_back(at(t, "clipitem/name"));
        trackIndex.push_back(at(t, "clipitem/sourcetrack/trackindex"));
    }
    EXPECT_EQ(video, (std::vector<std::string>{"on channel 2", "on channel 1", "on channel 0"}));
    EXPECT_EQ(audio, (std::vector<std::string>{"on channel 3", "on channel 4"}));
    EXPECT_EQ(trackIndex, (std::vector<std::string>{"1", "2"}));
    EXPECT_EQ(at(tracks(root, "video")[0], "clipitem/sourcetrack/trackindex"), "<none>");
}

TEST_F(XmemlSequence, AFileIsDefinedOnceAndReferencedAfter) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    Qv::Ptr<Edit> a = addShot(store, L"A", 25.0, 30, {{kChanVideo, "V1"}, {kChanAudio, "A1"}},
                              L"/media/day 1/a.mov");
    a->videoReelId = "A001";
    a->labels.push_back(EditLabel::fromFrame(36000 * 25, Qv::eFrameRate25, false, kMedium25));
    a->cues.push_back(Ced2Cue(L"clip marker", L"", 0xFF0000, 1.0, kChanVideo, 0, 2.0));
    a->videoMetadata.setSize(1920, 1080);
    a->videoMetadata.setAspectRatio(Qv::Image::eAspectSquare);
    addCel(seq, 0, playCookie(a, 0), 0, 2, 0);
    addCel(seq, 0, playCookie(a, 0), 2, 4, 5);
    addCel(seq, 1, playCookie(a, 1), 0, 4, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    std::vector<const XMLElement*> files = all(root, "file");
    ASSERT_EQ(files.size(), 3u);
    std::string id = "file_" + a->cookie.asString().str() + "_0";
    for (const XMLElement* f : files)
        EXPECT_EQ(attr(f, "id"), id);
    EXPECT_EQ(childNames(files[0]), (std::vector<std::string>{"name", "pathurl", "rate", "duration",
                                                              "timecode", "media"}));
    EXPECT_EQ(text(files[0], "pathurl"), "file://localhost/media/day%201/a.mov");
    EXPECT_EQ(text(files[0], "duration"), "750");
    EXPECT_EQ(at(files[0], "timecode/string"), "10:00:00:00");
    EXPECT_EQ(at(files[0], "timecode/reel/name"), "A001");
    EXPECT_EQ(at(files[0], "media/video/samplecharacteristics/width"), "1920");
    EXPECT_EQ(at(files[0], "media/video/samplecharacteristics/pixelaspectratio"), "square");
    EXPECT_EQ(at(files[0], "media/audio/channelcount"), "1");
    // The reference form has no children at all, on the other channel too.
    EXPECT_EQ(files[1]->FirstChild(), nullptr);
    EXPECT_EQ(files[2]->FirstChild(), nullptr);
    // The clip's markers come with the first clip item of its file only.
    auto items = all(root, "clipitem");
    EXPECT_EQ(children(items[0], "marker").size(), 1u);
    EXPECT_EQ(children(items[1], "marker").size(), 0u);
    EXPECT_EQ(children(items[2], "marker").size(), 0u);
    EXPECT_EQ(at(items[0], "marker/in"), "25");
    EXPECT_EQ(at(items[0], "marker/out"), "50");
    EXPECT_EQ(childNames(items[0]),
              (std::vector<std::string>{"name", "duration", "rate", "in", "out", "start", "end",
                                        "masterclipid", "file", "marker", "sourcetrack"}));
    EXPECT_EQ(text(items[0], "masterclipid"), a->cookie.asString().str());
    EXPECT_EQ(appLines("FCP7-xml - Exporting local file locator "
                       "<file://localhost/media/day%201/a.mov>"),
              1);
}

TEST_F(XmemlSequence, MarkersWithOpenEndsAndColoursOutsideTheTable) {
    Qv::Ptr<Edit> seq = sequence();
    seq->cues.push_back(Ced2Cue(L"open", L"no end", 0x123456, 2.0, kChanVideo, 0, kCueOpenEnd));
    seq->cues.push_back(Ced2Cue(L"green", L"", 0x00FF00, 3.0, kChanVideo, 0, 3.5));
    seq->cues.push_back(Ced2Cue(L"black", L"", 0x000000, 4.0, kChanVideo, 0, 4.0));
    seq->cues.push_back(Ced2Cue(L"blue", L"", 0x0000FF, 5.0, kChanVideo, 0, 6.0));
    Qv::Ptr<Edit> a = shot(L"A");
    addCel(seq, 0, playCookie(a, 0), 0, 8, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    const XMLElement* sequence = root->FirstChildElement("sequence");
    auto markers = children(sequence, "marker");
    ASSERT_EQ(markers.size(), 4u);
    EXPECT_EQ(childNames(markers[0]),
              (std::vector<std::string>{"name", "comment", "in", "out", "pproColor", "red", "green",
                                        "blue"}));
    EXPECT_EQ(text(markers[0], "in"), "50");
    EXPECT_EQ(text(markers[0], "out"), "-1");
    EXPECT_EQ(text(markers[0], "pproColor"), "");
    EXPECT_EQ(text(markers[0], "red"), "18");
    EXPECT_EQ(text(markers[0], "green"), "52");
    EXPECT_EQ(text(markers[0], "blue"), "86");
    EXPECT_EQ(text(markers[1], "out"), "88");
    EXPECT_EQ(text(markers[1], "pproColor"), "4200000000");
    EXPECT_EQ(text(markers[2], "pproColor"), "4200000000");
    EXPECT_EQ(text(markers[3], "pproColor"), "4294741314");
    EXPECT_EQ(text(markers[3], "blue"), "255");
    EXPECT_EQ(childNames(sequence),
              (std::vector<std::string>{"name", "duration", "rate", "timecode", "marker", "marker",
                                        "marker", "marker", "media"}));
}

TEST_F(XmemlSequence, ABadReelIdentifierFailsTheExport) {
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"Reel & co");
    a->videoReelId = "R&#38;1";
    addCel(seq, 0, playCookie(a, 0), 0, 2, 0);
    std::string path = exportEdit(seq);
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(result.files.empty());
    EXPECT_EQ(qvtest::readFile(path), "") << "a failed export is never saved";
    EXPECT_EQ(lines(LogKind::Error),
              (std::vector<std::string>{"REEL ID for clip <Reel & co> has illegal characters",
                                        "    This needs renaming before attempting export again"}));
    EXPECT_EQ(store.opens(), store.closes());
}

TEST_F(XmemlSequence, SubclipsNameTheirMasterAndRepeatItsFile) {
    useLegacyInterchange();
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"A", 30);
    Qv::Ptr<Edit> sub = qvtest::addSubclip(store, L"sub", a, 4, 10);
    addCel(seq, 0, playCookie(sub, 0), 0, 2, 1);
    addCel(seq, 0, playCookie(sub, 0), 2, 4, 3);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = all(root, "clipitem");
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(text(items[0], "name"), "sub");
    EXPECT_EQ(text(items[0], "masterclipid"), sub->cookie.asString().str());
    EXPECT_EQ(text(items[0], "subclipmasterid"), a->cookie.asString().str());
    EXPECT_EQ(at(items[0], "subclipinfo/startoffset"), "100");
    EXPECT_EQ(at(items[0], "subclipinfo/endoffset"), "400");
    EXPECT_EQ(childNames(items[0]),
              (std::vector<std::string>{"name", "duration", "rate", "in", "out", "start", "end",
                                        "masterclipid", "subclipinfo", "subclipmasterid", "file",
                                        "sourcetrack"}));
    // The file carries the sub-clip's id and the master's content, in full
    // at each clip item.
    for (const XMLElement* item : items) {
        const XMLElement* file = item->FirstChildElement("file");
        EXPECT_EQ(attr(file, "id"), "file_" + sub->cookie.asString().str() + "_0");
        EXPECT_EQ(text(file, "name"), "A");
        EXPECT_EQ(text(file, "duration"), "750");
    }
}

TEST_F(XmemlSequence, UnknownMaterialLeavesAGapAndEmptyTracksStay) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}});
    Qv::Ptr<Edit> a = shot(L"A");
    Cookie nowhere = newCookie(kCookieVideo, 0);
    addCel(seq, 0, nowhere, 0, 2, 0);
    addCel(seq, 0, playCookie(a, 0), 2, 4, 0);
    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto t = tracks(root, "video");
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(t[0]->FirstChildElement(), nullptr);
    EXPECT_EQ(placed(t[1]->FirstChildElement("clipitem")), (Placed{"0", "50", "50", "100"}));
    EXPECT_TRUE(sink->lines.size() <= 1u) << "no words but the path";
    // A sequence with only video still has its audio element.
    EXPECT_NE(
        root->FirstChildElement("sequence")->FirstChildElement("media")->FirstChildElement("audio"),
        nullptr);
}

TEST_F(XmemlSequence, ASequenceWithoutChannelsHasNoMedia) {
    Qv::Ptr<Edit> seq = sequence({});
    seq->length = 10;
    seq->cues.push_back(Ced2Cue(L"m", L"", 0xFFFFFF, 1.0, kChanVideo, 0, kCueOpenEnd));
    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    EXPECT_EQ(childNames(root->FirstChildElement("sequence")),
              (std::vector<std::string>{"name", "duration", "rate", "timecode", "marker"}));
    EXPECT_EQ(at(root, "sequence/duration"), "250");
}

}  // namespace

// ---- What other editors read: the default, xml_legacy_interchange at 0 ----

// The kinds of the loss records of a run, in order.
std::vector<std::string> lossKinds(const CapturingLogSink& sink) {
    std::vector<std::string> kinds;
    for (const LossRecord& r : sink.losses)
        kinds.push_back(r.kind.str());
    return kinds;
}

TEST_F(XmemlSequence, ClipItemsCountAtTheSequenceRateAndTransitionsAreSpeltAsEditorsSpellThem) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}});
    // 29.97 footage with a drop-frame timecode, cut into a 25 sequence.
    Qv::Ptr<Edit> ntsc = addShot(store, L"ntsc", 30000.0 / 1001, 30);
    ntsc->labels.push_back(EditLabel::fromFrame(107892, Qv::eFrameRate29_97, true,
                                                kMediumVideoBase + Qv::eFrameRate29_97));
    Qv::Ptr<Edit> b = shot(L"B");
    addCel(seq, 0, playCookie(ntsc, 0), 0, 4, 10);
    addCel(seq, 0, video_dissolve, 4, 4.4, 0);
    addCel(seq, 0, playCookie(b, 0), 4.4, 8, 20);
    // V2: a fade up from black and a fade down to black.
    addCel(seq, 1, video_black, 0, 1, 0);
    addCel(seq, 1, video_dissolve, 1, 2, 0);
    addCel(seq, 1, playCookie(b, 0), 2, 4, 5);
    addCel(seq, 1, video_dissolve, 4, 5, 0);
    // A marker before the start is at the start.
    seq->cues.push_back(Ced2Cue(L"early", L"", 0, -2.0, kChanVideo, 0, -1.0));

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    const XMLElement* early = root->FirstChildElement("sequence")->FirstChildElement("marker");
    EXPECT_EQ(text(early, "in"), "0");
    EXPECT_EQ(text(early, "out"), "0");
    auto t = tracks(root, "video");
    ASSERT_EQ(t.size(), 2u);
    const XMLElement *v2 = t[0], *v1 = t[1];

    // The worked example's places, with the sequence's rate on every clip
    // item: readers count in and out at the clip item's rate.
    auto items = children(v1, "clipitem");
    EXPECT_EQ(placed(items[0]), (Placed{"250", "360", "0", "-1"}));
    EXPECT_EQ(placed(items[1]), (Placed{"490", "590", "-1", "200"}));
    for (const XMLElement* item : items) {
        EXPECT_EQ(at(item, "rate/timebase"), "25");
        EXPECT_EQ(at(item, "rate/ntsc"), "FALSE");
    }
    EXPECT_EQ(text(items[0], "duration"), "750") << "30 s of media in frames of the sequence";
    EXPECT_EQ(text(v1->FirstChildElement("transitionitem"), "alignment"), "center");

    // The file keeps the footage's own rate, 29.97 as 30 with ntsc, and its
    // timecode says so beside its drop-frame display.
    const XMLElement* file = items[0]->FirstChildElement("file");
    EXPECT_EQ(at(file, "rate/timebase"), "30");
    EXPECT_EQ(at(file, "rate/ntsc"), "TRUE");
    EXPECT_EQ(text(file, "duration"), "899");
    EXPECT_EQ(at(file, "timecode/rate/timebase"), "30");
    EXPECT_EQ(at(file, "timecode/rate/ntsc"), "TRUE");
    EXPECT_EQ(at(file, "timecode/displayformat"), "DF");
    EXPECT_EQ(at(file, "timecode/string"), "01:00:00;00");

    auto fades = children(v2, "transitionitem");
    ASSERT_EQ(fades.size(), 2u);
    EXPECT_EQ(text(fades[0], "alignment"), "start-black");
    EXPECT_EQ(text(fades[0], "cutPointTicks"), "0") << "the cut is at the start";
    EXPECT_EQ(text(fades[1], "alignment"), "end-black");
    EXPECT_EQ(text(fades[1], "cutPointTicks"), "254016000000") << "the cut is at the end";
    EXPECT_EQ(placed(v2->FirstChildElement("clipitem")), (Placed{"100", "200", "-1", "-1"}));
    EXPECT_TRUE(lines(LogKind::Warning).empty());
}

TEST_F(XmemlSequence, ATransitionIsWrittenOnlyBesideWhatItsAlignmentNames) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanVideo, "V3"}});
    Qv::Ptr<Edit> a = shot(L"A"), b = shot(L"B");
    // V1: the incoming clip lacks the head the dissolve needs. The clip
    // before must not be left with an open end.
    addCel(seq, 0, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 0, video_dissolve, 4, 5, 0);
    addCel(seq, 0, playCookie(b, 0), 5, 8, 0.5);
    // V2: a dissolve between black and black joins nothing.
    addCel(seq, 1, video_black, 0, 4, 0);
    addCel(seq, 1, video_dissolve, 4, 5, 0);
    addCel(seq, 1, video_black, 5, 8, 0);
    // V3: a dissolve into a clip whose in-point lies past the end of its
    // media (a Premiere slug): the clip is black, the dissolve a fade down.
    addCel(seq, 2, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 2, video_dissolve, 4, 5, 0);
    addCel(seq, 2, playCookie(b, 0), 5, 8, 40);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto t = tracks(root, "video");
    ASSERT_EQ(t.size(), 3u);
    const XMLElement *v3 = t[0], *v2 = t[1], *v1 = t[2];

    EXPECT_EQ(childNames(v1), (std::vector<std::string>{"clipitem", "clipitem"}));
    auto i1 = children(v1, "clipitem");
    EXPECT_EQ(placed(i1[0]), (Placed{"250", "350", "0", "100"}));
    EXPECT_EQ(placed(i1[1]), (Placed{"13", "88", "125", "200"}));

    EXPECT_EQ(childNames(v2), std::vector<std::string>{});

    EXPECT_EQ(childNames(v3), (std::vector<std::string>{"clipitem", "transitionitem"}));
    EXPECT_EQ(placed(v3->FirstChildElement("clipitem")).end, "-1");
    EXPECT_EQ(text(v3->FirstChildElement("transitionitem"), "alignment"), "end-black");

    EXPECT_EQ(lossKinds(*sink), (std::vector<std::string>{"clip-as-black", "transition-dropped",
                                                          "transition-removed"}));
    for (const LossRecord& r : sink->losses) {
        EXPECT_EQ(r.sequence.str(), "cut");
        EXPECT_EQ(r.frame, r.kind == "clip-as-black" ? 125 : 100) << r.kind.str();
    }
}

TEST_F(XmemlSequence, MaterialOutsideTheShotIsCutAtTheSpeedItPlays) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanVideo, "V2"}});
    Qv::Ptr<Edit> slow = shot(L"slow", 0.6), backwards = shot(L"backwards", 3);
    // V1: a second before the first frame at half speed is two seconds of
    // the sequence; the 0.6 s of media then play 1.2 s.
    addCel(seq, 0, playCookie(slow, 0), 0, 4, -1, 0.5f);
    // V2: backwards from 2 s of a 3 s shot for 4 s runs past its first frame
    // after 2 s.
    addCel(seq, 1, playCookie(backwards, 0), 0, 4, 2, -1.0f);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto t = tracks(root, "video");
    ASSERT_EQ(t.size(), 2u);
    EXPECT_EQ(placed(t[1]->FirstChildElement("clipitem")), (Placed{"0", "60", "50", "80"}));
    Placed reverse = placed(t[0]->FirstChildElement("clipitem"));
    EXPECT_EQ(reverse.start, "0");
    EXPECT_EQ(reverse.end, "50");
    EXPECT_GE(std::stoi(reverse.in), 0);
    EXPECT_EQ(lossKinds(*sink),
              (std::vector<std::string>{"clip-shortened", "clip-shortened", "clip-shortened"}));
}

TEST_F(XmemlSequence, ANestedSequenceIsHeldByItsFirstClipItemAndNamedAfter) {
    Qv::Ptr<Edit> a = shot(L"A");
    Qv::Ptr<Edit> inner = addSequence(store, L"inner", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    // The nested sequence plays a sub-clip of a sub-clip: a third level.
    Qv::Ptr<Edit> take = qvtest::addSubclip(store, L"take", a, 2, 10);
    Qv::Ptr<Edit> bit = qvtest::addSubclip(store, L"bit", take, 3, 4);
    addCel(inner, 0, playCookie(bit, 0), 0, 4, 0);
    Qv::Ptr<Edit> seq = sequence();
    addCel(seq, 0, playCookie(inner, 0), 0, 2, 1);
    addCel(seq, 0, playCookie(inner, 0), 3, 4, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = children(tracks(root, "video").at(0), "clipitem");
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(placed(items[0]), (Placed{"25", "75", "0", "50"}));
    EXPECT_EQ(text(items[0], "file"), "<none>");
    const XMLElement* nested = items[0]->FirstChildElement("sequence");
    ASSERT_TRUE(nested);
    std::string id = "seq_" + inner->cookie.asString().str();
    EXPECT_EQ(attr(nested, "id"), id);
    EXPECT_EQ(text(nested, "name"), "inner");
    const XMLElement* deep = nested->FirstChildElement("media")
                                 ->FirstChildElement("video")
                                 ->FirstChildElement("track")
                                 ->FirstChildElement("clipitem");
    ASSERT_TRUE(deep);
    // The sub-clip of a sub-clip plays its shot from 2 + 3 seconds on.
    EXPECT_EQ(at(deep, "subclipinfo/startoffset"), "125");
    EXPECT_EQ(text(deep, "subclipmasterid"), a->cookie.asString().str());
    EXPECT_EQ(text(deep->FirstChildElement("file"), "name"), "A");
    // After its first use the sequence is named by its id alone.
    const XMLElement* again = items[1]->FirstChildElement("sequence");
    ASSERT_TRUE(again);
    EXPECT_EQ(attr(again, "id"), id);
    EXPECT_EQ(childNames(again), std::vector<std::string>{});
    EXPECT_TRUE(sink->losses.empty());
}

TEST_F(XmemlSequence, ControlCharactersInNamesBecomeReplacementCharacters) {
    Qv::Ptr<Edit> seq = sequence();
    Qv::Ptr<Edit> a = shot(L"bell\u0007 and \u001b[31mred");
    addCel(seq, 0, playCookie(a, 0), 0, 2, 0);
    addCel(seq, 0, playCookie(a, 0), 2, 4, 5);
    // exportAndParse fails the test on a document that is not well-formed.
    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto items = children(tracks(root, "video").at(0), "clipitem");
    ASSERT_EQ(items.size(), 2u);
    EXPECT_EQ(text(items[0], "name"), "bell\uFFFD and \uFFFD[31mred");
    // One warning for the name, however often it is written.
    EXPECT_EQ(lossKinds(*sink), std::vector<std::string>{"character-replaced"});
    EXPECT_EQ(lines(LogKind::Warning).size(), 2u);
}

TEST_F(XmemlSequence, CelsOfTimesThatAreNoNumberWriteNoTimeThatIsNone) {
    Qv::Ptr<Edit> seq = sequence({{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    Qv::Ptr<Edit> a = shot(L"A");
    const double nan = std::nan("");
    const double inf = HUGE_VAL;
    addCel(seq, 0, playCookie(a, 0), 0, 2, nan);
    addCel(seq, 0, video_dissolve, 2, 3, 0);
    addCel(seq, 0, playCookie(a, 0), 3, 4, -inf);
    addCel(seq, 0, playCookie(a, 0), 4, 5, 1e300, -1.0f);
    addCel(seq, 0, playCookie(a, 0), 5, inf, 1);
    addCel(seq, 1, playCookie(a, 1), nan, 3, 0);
    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    for (const XMLElement* item : all(root, "clipitem")) {
        for (const char* name : {"in", "out", "duration"})
            EXPECT_GE(std::stoll(text(item, name)), 0) << name;
        EXPECT_GE(std::stoll(text(item, "start")), -1);
        EXPECT_GE(std::stoll(text(item, "end")), -1);
    }
}
