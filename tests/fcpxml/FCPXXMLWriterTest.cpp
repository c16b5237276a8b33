// The fcpxml writer's rational times, and whole fcpxml documents: the
// skeleton and resources, the event's browser clips with markers and
// keywords, shots exported alone, shots whose media is not known, the golden
// documents compared byte for byte, and validation against Final Cut Pro X's
// DTD.
#include <cmath>

#include "fcpxml/FCPXXMLWriter.h"
#include "tests/fcpxml/FcpxmlTestSupport.h"

namespace {

using namespace fcpxmltest;

const MediumRollMedium kMedium25 = kMediumVideoBase + Qv::eFrameRate25;
using Names = std::vector<std::string>;

ShotVideoMetadata picture(int width, int height, Qv::FrameRate rate, Qv::Image::ScanMode scan) {
    ShotVideoMetadata m;
    m.setSize(width, height);
    m.setFrameRate(rate);
    m.setScanMode(scan);
    return m;
}

using XML::FCPXXMLWriter;

std::string str(const LightweightString<wchar_t>& s) {
    return toUTF8(s).str();
}

TEST(FcpxmlTime, RationalsCountHundredthsOfAFrame) {
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRational(10.0, Qv::eFrameRate25)), "25000/2500s");
    // 29.97 is cut to a denominator of 2997: a second is 2997/2997s.
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRational(1.0, Qv::eFrameRate29_97)), "2997/2997s");
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRational(0.0, Qv::eFrameRate25)), "0/2500s");
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRational(0.0, Qv::eFrameRate23_976)), "0/2397s");
    // Rounded to the nearest hundredth of a frame, half up.
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRational(0.0003, Qv::eFrameRate25)), "1/2500s");
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRational(0.0001, Qv::eFrameRate25)), "0/2500s");
    // Hundredths of a second at one frame a second.
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRationalDouble(10.5, 1.0)), "1050/100s");
    // The numerator is printed as 32 bits: 2^32 + 7 hundredths shows as 7.
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRationalDouble(42949673.03, 1.0)), "7/100s");
    // No number, no rate, or out of range: defined, never a crash.
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRational(std::nan(""), Qv::eFrameRate25)), "0/2500s");
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRational(1.0, Qv::eFrameRateNone)), "0/0s");
    EXPECT_EQ(str(FCPXXMLWriter::timeToFCPRationalDouble(1e300, 1e300)), "-1/2147483647s");
}

class FcpxmlDocument : public FcpxmlTest {
  protected:
    // A shot at 25 with a timecode of 10:00:00:00, a picture of 1920 by 1080
    // progressive and a marker.
    Qv::Ptr<Edit> interview() {
        Qv::Ptr<Edit> a =
            addShot(store, L"Interview A", 25.0, 60, {{kChanVideo, "V1"}, {kChanAudio, "A1"}},
                    L"/media/interview a.mov");
        a->labels.push_back(EditLabel::fromFrame(36000 * 25, Qv::eFrameRate25, false, kMedium25));
        a->videoMetadata = picture(1920, 1080, Qv::eFrameRate25, Qv::Image::eScanProgressive);
        a->cues.push_back(Ced2Cue(L"good", L"take 2", 0xFF0000, 1.0, kChanVideo, 0, kCueOpenEnd));
        return a;
    }

    // The golden sequence: two video channels and two audio channels, a
    // dissolve, a wipe, a crossfade, levels, markers on the sequence and on
    // a shot, a gap, and a sub-clip.
    Qv::Ptr<Edit> goldenSequence() {
        Qv::Ptr<Edit> a = interview();
        Qv::Ptr<Edit> b =
            addShot(store, L"Cutaway B", 25.0, 30, {{kChanVideo, "V1"}, {kChanAudio, "A1"}},
                    L"/media/cutaway_b.mov");
        b->videoMetadata = picture(1280, 720, Qv::eFrameRate50, Qv::Image::eScanProgressive);
        Qv::Ptr<Edit> music =
            addShot(store, L"Music", 25.0, 120, {{kChanAudio, "A1"}, {kChanAudio, "A2"}},
                    L"/media/music.wav");
        Qv::Ptr<Edit> bit = qvtest::addSubclip(store, L"the good bit", a, 4, 10);

        Qv::Ptr<Edit> seq = addSequence(
            store, L"Golden cut", Qv::eFrameRate25,
            {{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}});
        seq->labels.push_back(EditLabel::fromFrame(90000, Qv::eFrameRate25, false, kMedium25));
        seq->videoMetadata = picture(1920, 1080, Qv::eFrameRate25, Qv::Image::eScanProgressive);
        seq->cues.push_back(
            Ced2Cue(L"start of act", L"", 0x0000FF, 0.0, kChanVideo, 0, kCueOpenEnd));
        seq->cues.push_back(Ced2Cue(L"check", L"sky colour", 0x808080, 6.0, kChanVideo, 0, 7.0));

        addCel(seq, 0, playCookie(a, 0), 0, 4, 1);
        addCel(seq, 0, video_dissolve, 4, 4.4, 0);
        addCel(seq, 0, playCookie(b, 0), 4.4, 8, 5);
        CelData& wipe = addCel(seq, 0, video_wipe, 8, 9, 0);
        wipe.wipeCode = 1;
        wipe.wipeDirection = eWipeReverse;
        addCel(seq, 0, playCookie(bit, 0), 9, 12, 2);
        addCel(seq, 0, video_black, 12, 13, 0);
        addCel(seq, 0, playCookie(a, 0), 13, 15, 30);
        addCel(seq, 1, playCookie(b, 0), 2, 4, 20);

        addCel(seq, 2, playCookie(a, 1), 0, 8, 1);
        StoredChannel& a1 = seq->channels[2];
        a1.hasTrackLevels = true;
        a1.levels = {{0.0, 1.0f}, {0.25, 0.5f}, {0.5, 0.25f}, {0.75, 1.0f}};

        addCel(seq, 3, playCookie(music, 0), 0, 6, 0);
        addCel(seq, 3, audio_dissolve, 6, 7, 0);
        addCel(seq, 3, playCookie(music, 0), 7, 12, 40);
        return seq;
    }
};

TEST_F(FcpxmlDocument, ResourcesHoldFormatsEffectsAndAnAssetPerShot) {
    Qv::Ptr<Edit> a = interview();
    Qv::Ptr<Edit> music = addShot(store, L"Music", 25.0, 120,
                                  {{kChanAudio, "A1"}, {kChanAudio, "A2"}}, L"/media/music.wav");
    Qv::Ptr<Edit> mute =
        addShot(store, L"Mute", 25.0, 10, {{kChanVideo, "V1"}}, L"/media/mute.mov");
    mute->videoMetadata = picture(1000, 1000, Qv::eFrameRate30, Qv::Image::eScanProgressive);
    Qv::Ptr<Edit> seq =
        addSequence(store, L"cut", Qv::eFrameRate25, {{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    seq->videoMetadata = picture(720, 576, Qv::eFrameRate25, Qv::Image::eScanInterlacedUpper);
    addCel(seq, 0, playCookie(a, 0), 0, 2, 0);
    addCel(seq, 0, playCookie(mute, 0), 2, 4, 0);
    addCel(seq, 1, playCookie(music, 1), 0, 4, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    const std::string head =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE fcpxml>\n<fcpxml "
        "version=\"1.4\">\n";
    EXPECT_EQ(documentText.substr(0, head.size()), head);
    EXPECT_EQ(childNames(root), (Names{"import-options", "resources", "library"}));
    EXPECT_EQ(tag(path(root, "import-options/option")),
              "option value=\"1\" key=\"suppress warnings\"");
    auto resources = children(root->FirstChildElement("resources"));
    Names tags;
    for (const XMLElement* e : resources)
        tags.push_back(tag(e));
    // The shots' formats come first; the undefined one of the shot without a
    // picture and of the odd size are one. Then the sequence's.
    EXPECT_EQ(
        tags,
        (Names{
            "format id=\"f1\" name=\"FFVideoFormat1080p25\"",
            "format id=\"f2\" name=\"FFVideoFormatRateUndefined\"",
            "format id=\"f3\" name=\"FFVideoFormat720x576i50\"",
            "effect id=\"fx1\" uid=\"FxPlug:4731E73A-8DAC-4113-9A30-AE85B1761265\" "
            "name=\"Cross Dissolve\"",
            "effect id=\"fx2\" uid=\"FxPlug:857E2FBA-98DB-411B-A88C-CE6ABC1F65D8\" name=\"WIPE\"",
            "effect id=\"fx3\" uid=\"FFAudioTransition\" name=\"Audio Crossfade\"",
            "asset id=\"as1\" src=\"file://localhost/media/interview%20a.mov\" hasAudio=\"1\" "
            "audioSources=\"1\" start=\"90000000/2500s\" name=\"Interview A\" "
            "duration=\"150000/2500s\" format=\"f1\" audioChannels=\"1\" hasVideo=\"1\"",
            "asset id=\"as2\" src=\"file://localhost/media/mute.mov\" hasAudio=\"0\" "
            "audioSources=\"1\" start=\"0/2500s\" name=\"Mute\" duration=\"25000/2500s\" "
            "format=\"f2\" audioChannels=\"0\" hasVideo=\"1\"",
            "asset id=\"as3\" src=\"file://localhost/media/music.wav\" hasAudio=\"1\" "
            "audioSources=\"1\" start=\"0/2500s\" name=\"Music\" duration=\"300000/2500s\" "
            "format=\"f2\" audioChannels=\"2\" hasVideo=\"1\""}));
    EXPECT_EQ(attr(path(root, "library/event/project/sequence"), "format"), "f3");
    EXPECT_EQ(attr(path(root, "library/event"), "name"), "Event01");
    EXPECT_EQ(attr(path(root, "library/event/project"), "name"), "Project01");
    EXPECT_EQ(appLines(),
              (Names{"FCPX-xml export clip - locator <file://localhost/media/interview%20a.mov>",
                     "FCPX-xml export clip - locator <file://localhost/media/mute.mov>",
                     "FCPX-xml export clip - locator <file://localhost/media/music.wav>"}));

    // Browser clips: a picture holds the sound, if there is any; a
    // sound-only shot has a picture element all the same.
    auto clips = children(path(root, "library/event"), "clip");
    ASSERT_EQ(clips.size(), 3u);
    EXPECT_EQ(tag(clips[0]),
              "clip name=\"Interview A\" format=\"f1\" tcFormat=\"NDF\" "
              "start=\"90000000/2500s\" duration=\"150000/2500s\"");
    EXPECT_EQ(tag(clips[0]->FirstChildElement("video")),
              "video start=\"90000000/2500s\" duration=\"150000/2500s\" "
              "offset=\"90000000/2500s\" ref=\"as1\"");
    EXPECT_EQ(tag(path(clips[0], "video/audio")),
              "audio srcCh=\"1\" start=\"90000000/2500s\" ref=\"as1\" "
              "duration=\"150000/2500s\" lane=\"-1\" offset=\"90000000/2500s\"");
    EXPECT_EQ(childNames(clips[1]->FirstChildElement("video")), Names{});
    EXPECT_EQ(attr(path(clips[2], "video/audio"), "srcCh"), "1, 2");
}

TEST_F(FcpxmlDocument, BrowserClipsCarryTheirMarkersAndSubclipsAsKeywords) {
    Qv::Ptr<Edit> a = interview();
    a->cues.push_back(Ced2Cue(L"end", L"", 0, 60.0, kChanVideo, 0, kCueOpenEnd));
    a->cues.push_back(Ced2Cue(L"wind", L"noise", 0, 0.0, kChanVideo, 0, 2.5));
    Qv::Ptr<Edit> b = addShot(store, L"B", 25.0, 30, {{kChanVideo, "V1"}}, L"/media/b.mov");
    Qv::Ptr<Edit> bit = qvtest::addSubclip(store, L"the good bit", a, 4, 10);
    Qv::Ptr<Edit> other = qvtest::addSubclip(store, L"elsewhere", b, 1, 2);
    Qv::Ptr<Edit> seq = addSequence(store, L"cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(seq, 0, playCookie(bit, 0), 0, 2, 0);
    addCel(seq, 0, playCookie(other, 0), 2, 4, 0);

    const XMLElement* root = exportAndParse(seq);
    ASSERT_TRUE(root);
    auto clips = children(path(root, "library/event"), "clip");
    ASSERT_EQ(clips.size(), 2u);
    // Markers are placed from the asset's start; one at the very end of the
    // shot is outside it.
    EXPECT_EQ(childNames(clips[0]), (Names{"video", "marker", "marker", "keyword"}));
    auto markers = children(clips[0], "marker");
    EXPECT_EQ(tag(markers[0]),
              "marker value=\"good - take 2\" duration=\"100/2500s\" "
              "start=\"90002500/2500s\"");
    EXPECT_EQ(tag(markers[1]),
              "marker value=\"wind - noise\" duration=\"6250/2500s\" "
              "start=\"90000000/2500s\"");
    EXPECT_EQ(tag(clips[0]->FirstChildElement("keyword")),
              "keyword value=\"the good bit\" start=\"90010000/2500s\" duration=\"25000/2500s\"");
    EXPECT_EQ(tag(clips[1]->FirstChildElement("keyword")),
              "keyword value=\"elsewhere\" start=\"2500/2500s\" duration=\"5000/2500s\"");
}

TEST_F(FcpxmlDocument, AShotWithoutMediaFailsTheExportUnlessOfflineShotsAreLeftOut) {
    Qv::Ptr<Edit> a = interview();
    Qv::Ptr<Edit> lost = addShot(store, L"Lost", 25.0, 10);
    Qv::Ptr<Edit> seq = addSequence(store, L"cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(seq, 0, playCookie(lost, 0), 0, 2, 0);
    addCel(seq, 0, playCookie(a, 0), 2, 4, 0);

    exportEdit(seq);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(qvtest::readFile(dir.file("out.fcpxml")), "") << "nothing is saved";
    EXPECT_EQ(appLines().back(), "XML export ERROR - FsysDirectoryEntry NULL filename");

    // Left out, the shot's cel is a gap.
    const XMLElement* root = exportAndParse(seq, true);
    ASSERT_TRUE(root);
    EXPECT_EQ(childNames(path(root, "library/event/project/sequence/spine")),
              (Names{"gap", "clip"}));
    EXPECT_EQ(all(root, "asset").size(), 1u);

    // Names of the track's origin are taken as they come: an empty one is an
    // empty URL, and no failure.
    useTrackOriginFilename = true;
    root = exportAndParse(seq);
    ASSERT_TRUE(root);
    EXPECT_EQ(attr(all(root, "asset").at(0), "src"), "");
    EXPECT_EQ(appLines().back(), "FCPX-xml export clip - locator <>");
}

TEST_F(FcpxmlDocument, TheGoldenSequenceIsWrittenByteForByte) {
    ASSERT_TRUE(exportAndParse(goldenSequence()));
    EXPECT_EQ(documentText, qvtest::readFile(QVXML_TEST_DATA "/fcpxml/golden_sequence.fcpxml"));
    EXPECT_TRUE(lines(LogKind::Warning).empty());
}

// The golden sequence as Final Cut Pro X reads it, by default. The golden
// document opens with a comment that says what differs; the rest is the
// file, byte for byte.
TEST_F(FcpxmlDocument, TheGoldenSequenceForEditorsIsWrittenByteForByte) {
    clear_config_int("xml_legacy_interchange");
    Qv::Ptr<Edit> seq = goldenSequence();
    // On V2 besides: 29.97 footage with a drop-frame timecode faded up from
    // black and down to it, and a nested sequence used twice.
    Qv::Ptr<Edit> ntsc =
        addShot(store, L"Night", 30000.0 / 1001, 20, {{kChanVideo, "V1"}}, L"/media/night.mov");
    ntsc->labels.push_back(EditLabel::fromFrame(107892, Qv::eFrameRate29_97, true,
                                                kMediumVideoBase + Qv::eFrameRate29_97));
    ntsc->videoMetadata = picture(1920, 1080, Qv::eFrameRate29_97, Qv::Image::eScanProgressive);
    Qv::Ptr<Edit> inner = addSequence(store, L"Titles", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    inner->videoMetadata = picture(1920, 1080, Qv::eFrameRate25, Qv::Image::eScanProgressive);
    addCel(inner, 0, playCookie(ntsc, 0), 0, 3, 10);
    addCel(seq, 1, video_dissolve, 5, 6, 0);
    addCel(seq, 1, playCookie(ntsc, 0), 6, 8, 2);
    addCel(seq, 1, video_dissolve, 8, 9, 0);
    addCel(seq, 1, playCookie(inner, 0), 10, 11, 0);
    addCel(seq, 1, playCookie(inner, 0), 11, 12, 2);
    ASSERT_TRUE(exportAndParse(seq));
    EXPECT_EQ(documentText, qvtest::withoutHeadComment(qvtest::readFile(
                                QVXML_TEST_DATA "/fcpxml/golden_sequence_for_editors.fcpxml")));
}

// A shot alone: its resources, with the unset picture of the missing
// sequence as a second format, and one asset clip.
TEST_F(FcpxmlDocument, TheGoldenShotDocumentIsWrittenByteForByte) {
    ASSERT_TRUE(exportAndParse(interview()));
    EXPECT_EQ(documentText, qvtest::readFile(QVXML_TEST_DATA "/fcpxml/golden_shot.fcpxml"));
}

class FcpxmlDtd : public FcpxmlDocument {
  protected:
    void SetUp() override {
        FcpxmlDocument::SetUp();
        dtd = fcpxmlDtd();
        QVTEST_NEED(!dtd.empty(), "no xmllint or no fcpxml 1.4 DTD in the corpus");
    }
    std::string dtd;
};

TEST_F(FcpxmlDtd, TheGoldenSequenceValidates) {
    std::string golden = QVXML_TEST_DATA "/fcpxml/golden_sequence.fcpxml";
    EXPECT_EQ(dtdComplaints(golden, dtd, dir.path()), std::set<std::string>{});
}

TEST_F(FcpxmlDtd, TheGoldenShotDocumentIsRefusedForItsAssetClipsAlone) {
    std::string golden = QVXML_TEST_DATA "/fcpxml/golden_shot.fcpxml";
    std::set<std::string> expected = assetClipRefusals();
    expected.insert(shotOnlyRootRefusal(1));
    EXPECT_EQ(dtdComplaints(golden, dtd, dir.path()), expected);
    // What the command's tests allow in any document: these, for any number
    // of asset clips, and nothing else.
    for (const std::string& refusal : expected)
        EXPECT_TRUE(isRequiredRefusal(refusal)) << refusal;
    EXPECT_TRUE(isRequiredRefusal(shotOnlyRootRefusal(3)));
    EXPECT_FALSE(isRequiredRefusal(shotOnlyRootRefusal(1) + " "));
    EXPECT_FALSE(
        isRequiredRefusal("element gap: No declaration for attribute name  of element gap"));
}

}  // namespace
