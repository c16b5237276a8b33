// Whole xmeml documents: a shot exported alone, the golden sequence compared
// byte for byte, and validation against Final Cut Pro's DTD. Also the
// writer's map of registered shots.
#include <cstdio>
#include <cstdlib>
#include <set>
#include <sstream>

#include "host/Paths.h"
#include "tests/xmeml/XmemlTestSupport.h"
#include "xmeml/FCP5XMLWriter.h"

namespace {

using namespace xmemltest;

const MediumRollMedium kMedium25 = kMediumVideoBase + Qv::eFrameRate25;

class XmemlDocument : public XmemlTest {
  protected:
    // A shot with a description, a marker, a timecode and a reel.
    Qv::Ptr<Edit> describedShot() {
        Qv::Ptr<Edit> a =
            addShot(store, L"Interview A", 25.0, 60, {{kChanVideo, "V1"}, {kChanAudio, "A1"}},
                    L"/media/interview a.mov");
        a->setConfig("description", "Wide, in the garden");
        a->videoReelId = "A001";
        a->labels.push_back(EditLabel::fromFrame(36000 * 25, Qv::eFrameRate25, false, kMedium25));
        a->cues.push_back(Ced2Cue(L"good", L"take 2", 0xFF0000, 1.0, kChanVideo, 0, kCueOpenEnd));
        a->videoMetadata.setSize(1920, 1080);
        a->videoMetadata.setAspectRatio(Qv::Image::eAspectSquare);
        return a;
    }

    // The golden sequence: two video and two audio tracks with a dissolve,
    // a wipe, a speed change, a reverse clip, audio levels, an audio fade and
    // markers on the sequence and on a clip.
    Qv::Ptr<Edit> goldenSequence() {
        Qv::Ptr<Edit> a = describedShot();
        Qv::Ptr<Edit> b =
            addShot(store, L"Cutaway B", 25.0, 30, {{kChanVideo, "V1"}, {kChanAudio, "A1"}},
                    L"/media/cutaway_b.mxf");
        b->videoReelId = "B002";
        b->videoMetadata.setSize(1280, 720);
        Qv::Ptr<Edit> music =
            addShot(store, L"Music", 25.0, 120, {{kChanAudio, "A1"}, {kChanAudio, "A2"}},
                    L"/media/music.wav");

        Qv::Ptr<Edit> seq = addSequence(
            store, L"Golden cut", Qv::eFrameRate25,
            {{kChanVideo, "V1"}, {kChanVideo, "V2"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}});
        seq->labels.push_back(EditLabel::fromFrame(90000, Qv::eFrameRate25, false, kMedium25));
        seq->videoMetadata.setSize(1920, 1080);
        seq->videoMetadata.setAspectRatio(Qv::Image::eAspectSquare);
        seq->cues.push_back(
            Ced2Cue(L"start of act", L"", 0x0000FF, 0.0, kChanVideo, 0, kCueOpenEnd));
        seq->cues.push_back(Ced2Cue(L"check", L"sky colour", 0x808080, 6.0, kChanVideo, 0, 7.0));

        addCel(seq, 0, playCookie(a, 0), 0, 4, 10);
        addCel(seq, 0, video_dissolve, 4, 4.4, 0);
        addCel(seq, 0, playCookie(b, 0), 4.4, 8, 5, 1.5f);
        CelData& wipe = addCel(seq, 0, video_wipe, 8, 9, 0);
        wipe.wipeCode = 1;
        wipe.wipeDirection = eWipeReverse;
        addCel(seq, 0, playCookie(a, 0), 9, 12, 30);
        addCel(seq, 1, playCookie(b, 0), 2, 4, 20, -1.0f);

        addCel(seq, 2, playCookie(a, 1), 0, 8, 10);
        StoredChannel& a1 = seq->channels[2];
        a1.hasTrackLevels = true;
        a1.levels = {{0.0, 1.0f}, {0.25, 0.5f}, {0.5, 0.25f}, {0.75, 1.0f}};

        addCel(seq, 3, playCookie(music, 0), 0, 6, 0);
        addCel(seq, 3, audio_dissolve, 6, 7, 0);
        addCel(seq, 3, playCookie(music, 0), 7, 12, 40);
        return seq;
    }
};

TEST_F(XmemlDocument, AShotAloneIsAProjectWithOneMasterClip) {
    Qv::Ptr<Edit> a = describedShot();
    const XMLElement* root = exportAndParse(a);
    ASSERT_TRUE(root);
    const XMLElement* clip = root->FirstChildElement("project")
                                 ->FirstChildElement("children")
                                 ->FirstChildElement("clip");
    ASSERT_TRUE(clip);
    std::string id = a->cookie.asString().str();
    EXPECT_EQ(attr(clip, "id"), "master_master_" + id);
    EXPECT_EQ(text(clip, "masterclipid"), "master_" + id);
    // A plain shot has no sub-clip elements, even with a description.
    EXPECT_EQ(childNames(clip),
              (std::vector<std::string>{"name", "duration", "rate", "masterclipid", "ismasterclip",
                                        "media", "marker"}));
    const XMLElement* item = clip->FirstChildElement("media")
                                 ->FirstChildElement("video")
                                 ->FirstChildElement("track")
                                 ->FirstChildElement("clipitem");
    EXPECT_EQ(attr(item, "id"), "clipitem-1");
    EXPECT_EQ(childNames(item), (std::vector<std::string>{"masterclipid", "rate", "file"}));
    EXPECT_EQ(attr(item->FirstChildElement("file"), "id"), "file_" + id);
    EXPECT_EQ(text(item->FirstChildElement("file"), "pathurl"),
              "file://localhost/media/interview%20a.mov");
    EXPECT_EQ(at(clip, "marker/out"), "-1");
}

TEST_F(XmemlDocument, ASubclipAloneNamesItsMasterAndItsDescription) {
    Qv::Ptr<Edit> a = describedShot();
    Qv::Ptr<Edit> sub = qvtest::addSubclip(store, L"the good bit", a, 4, 10);
    sub->setConfig("description", "Laughs");
    const XMLElement* root = exportAndParse(sub);
    ASSERT_TRUE(root);
    const XMLElement* clip = root->FirstChildElement("project")
                                 ->FirstChildElement("children")
                                 ->FirstChildElement("clip");
    ASSERT_TRUE(clip);
    EXPECT_EQ(childNames(clip),
              (std::vector<std::string>{"name", "duration", "rate", "masterclipid", "ismasterclip",
                                        "subclipinfo", "subclipmasterid", "logginginfo", "media"}));
    EXPECT_EQ(attr(clip, "id"), "master_master_" + sub->cookie.asString().str());
    EXPECT_EQ(text(clip, "duration"), "250");
    // Against the sub-clip's own length, the end offset is the start
    // negated before rounding: -4 s is -99.5 frames, cut toward zero.
    EXPECT_EQ(at(clip, "subclipinfo/startoffset"), "100");
    EXPECT_EQ(at(clip, "subclipinfo/endoffset"), "-99");
    EXPECT_EQ(text(clip, "subclipmasterid"), a->cookie.asString().str());
    EXPECT_EQ(at(clip, "logginginfo/description"), "Laughs");
    const XMLElement* file = all(clip, "file").at(0);
    EXPECT_EQ(attr(file, "id"), "file_" + a->cookie.asString().str());
    EXPECT_EQ(text(file, "name"), "Interview A");
}

TEST_F(XmemlDocument, TheGoldenSequenceIsWrittenByteForByte) {
    useLegacyInterchange();
    Qv::Ptr<Edit> seq = goldenSequence();
    ASSERT_TRUE(exportAndParse(seq));
    const std::string golden = QVXML_TEST_DATA "/xmeml/golden_sequence.xml";
    EXPECT_EQ(documentText, qvtest::readFile(golden));
}

// The golden sequence as Final Cut Pro 7 and Premiere read it, by default.
// The golden document opens with a comment that says what differs; the rest
// is the file, byte for byte.
TEST_F(XmemlDocument, TheGoldenSequenceForEditorsIsWrittenByteForByte) {
    Qv::Ptr<Edit> seq = goldenSequence();
    // On V2 besides: 29.97 footage with a drop-frame timecode faded up from
    // black and down to it, and a nested sequence used twice.
    Qv::Ptr<Edit> ntsc =
        addShot(store, L"Night", 30000.0 / 1001, 20, {{kChanVideo, "V1"}}, L"/media/night.mov");
    ntsc->labels.push_back(EditLabel::fromFrame(107892, Qv::eFrameRate29_97, true,
                                                kMediumVideoBase + Qv::eFrameRate29_97));
    Qv::Ptr<Edit> inner = addSequence(store, L"Titles", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(inner, 0, playCookie(ntsc, 0), 0, 3, 10);
    addCel(seq, 1, video_dissolve, 5, 6, 0);
    addCel(seq, 1, playCookie(ntsc, 0), 6, 8, 2);
    addCel(seq, 1, video_dissolve, 8, 9, 0);
    addCel(seq, 1, playCookie(inner, 0), 10, 11, 0);
    addCel(seq, 1, playCookie(inner, 0), 11, 12, 2);
    ASSERT_TRUE(exportAndParse(seq));
    EXPECT_EQ(documentText, qvtest::withoutHeadComment(qvtest::readFile(
                                QVXML_TEST_DATA "/xmeml/golden_sequence_for_editors.xml")));
}

// What the DTD of Final Cut Pro 7 refuses in the documents this writer
// writes on purpose: Premiere's marker colours, its transition cut points and
// the sequence's preview size, which Premiere reads.
const std::set<std::string> kKnownRefusals = {
    "element marker: Element marker content does not follow the DTD, expecting (name | in | out | "
    "comment)*, got (name comment in out pproColor red green blue )",
    "element pproColor: No declaration for element pproColor",
    "element red: No declaration for element red",
    "element green: No declaration for element green",
    "element blue: No declaration for element blue",
    "element transitionitem: Element transitionitem content does not follow the DTD, expecting "
    "(name | rate | start | end | alignment | effect)*, got (name rate start end alignment "
    "cutPointTicks effect )",
    "element cutPointTicks: No declaration for element cutPointTicks",
    "element sequence: No declaration for attribute MZ.Sequence.PreviewFrameSizeHeight of "
    "element sequence",
    "element sequence: No declaration for attribute MZ.Sequence.PreviewFrameSizeWidth of element "
    "sequence",
};

class XmemlDtd : public XmemlDocument {
  protected:
    void SetUp() override {
        XmemlDocument::SetUp();
        dtd = QVXML_CORPUS "/dtd/xmeml_v5.dtd";
        QVTEST_NEED(qvtest::exists(dtd), "no xmeml DTD at " + dtd);
        QVTEST_NEED(std::system("xmllint --version > /dev/null 2>&1") == 0, "no xmllint");
    }
    // The complaints that are not known refusals.
    std::set<std::string> unknownComplaints(const std::set<std::string>& known) {
        std::set<std::string> unknown;
        for (const std::string& c : dtdComplaints(dir.file("out.xml"), dtd, dir.path()))
            if (!known.count(c)) unknown.insert(c);
        return unknown;
    }
    std::string dtd;
};

TEST_F(XmemlDtd, ASequenceDocumentValidatesButForKnownRefusals) {
    ASSERT_TRUE(exportAndParse(goldenSequence()));
    EXPECT_EQ(unknownComplaints(kKnownRefusals), std::set<std::string>{});
}

TEST_F(XmemlDtd, AShotOnlyDocumentValidatesButForKnownRefusals) {
    Qv::Ptr<Edit> a = describedShot();
    ASSERT_TRUE(exportAndParse(qvtest::addSubclip(store, L"bit", a, 4, 10)));
    EXPECT_EQ(unknownComplaints(kKnownRefusals), std::set<std::string>{});
}

TEST_F(XmemlDtd, AMulticlipDocumentValidatesButForKnownRefusals) {
    Qv::Ptr<Edit> a = describedShot();
    Qv::Ptr<Edit> b = addShot(store, L"B", 25.0, 20);
    Qv::Ptr<Edit> seq = addSequence(store, L"group", Qv::eFrameRate25);
    addCel(seq, 0, playCookie(a, 0), 0, 4, 2).alternates = {{playCookie(b, 0), 3}};
    ASSERT_TRUE(exportAndParse(seq, true));
    // A group adds: the audio flag spelled "activaudioangle", the group's
    // sound after its media, the multiclip leaf with its text, the
    // multiclip's masterclipid and the id of its empty name.
    std::set<std::string> known = kKnownRefusals;
    known.insert({
        "element activaudioangle: No declaration for element activaudioangle",
        "element angle: Element angle content does not follow the DTD, expecting (clip | "
        "activevideoangle | activeaudioangle)*, got (activevideoangle activaudioangle clip )",
        "element clip: Element clip content does not follow the DTD, expecting (name | duration | "
        "rate | enabled | in | out | anamorphic | alphatype | alphareverse | compositemode | "
        "masterclipid | ismasterclip | labels | comments | stillframeoffset | subclipinfo | "
        "logginginfo | stillframe | file | marker | filter | sourcetrack | subframeoffset | "
        "timecode | media | start | end | startoffset | endoffset | pixelaspectratio | "
        "defaultangle | filmdata | uuid | updatebehavior | subclipmasterid)*, got (name duration "
        "rate masterclipid ismasterclip media audio )",
        "element multiclip: Element multiclip content does not follow the DTD, expecting (name | "
        "angle | collapsed | synctype)*, got (CDATA)",
        "element multiclip: Element multiclip content does not follow the DTD, expecting (name | "
        "angle | collapsed | synctype)*, got (name collapsed synctype angle angle masterclipid )",
        "element name: No declaration for attribute id of element name",
    });
    EXPECT_EQ(unknownComplaints(known), std::set<std::string>{});
}

// The map of registered shots, on its own.
class XmemlRefMap : public qvtest::StoreTest {};

TEST_F(XmemlRefMap, TheFirstRecordWinsAndOneFileServesAllChannels) {
    CED2 shot(true), other(true);
    shot.CreateEditChannel(0, kChanVideo);
    shot.CreateEditChannel(1, kChanAudio);
    const Cookie e1 = newCookie(kCookieEdit, 255), e2 = newCookie(kCookieEdit, 255);
    XML::CED2ClipRefMap map;
    map.addRef(e1, &shot, false);
    map.addRef(e1, &other, true);
    map.addRef(e2, &other, true);
    XML::CED2ClipRefMapRec* rec = nullptr;
    ASSERT_TRUE(map.findRef(e1, &rec));
    EXPECT_EQ(rec->ced2, &shot);
    EXPECT_FALSE(rec->isGhost);
    EXPECT_EQ(rec->getFileElementRef(7), e1.asWString() + L"_0");
    ASSERT_TRUE(map.findRef(e2, &rec));
    EXPECT_EQ(rec->ced2, &other);
    // A cookie is its own key as it stands: another type, channel or tail
    // byte is another cookie, as its text is another text.
    Cookie video = convertCookie(e1, kCookieVideo, 255),
           channel = convertCookie(e1, kCookieEdit, 1), tail = e1;
    tail.tail = 1;
    for (const Cookie& c : {video, channel, tail})
        EXPECT_FALSE(map.findRef(c, &rec)) << c.asString().c_str();

    ASSERT_TRUE(map.findRef(e1, &rec));
    EXPECT_FALSE(rec->isChanFileDefined(1));
    map.setDefined(e1, 0);
    EXPECT_TRUE(rec->isChanFileDefined(0));
    EXPECT_TRUE(rec->isChanFileDefined(1)) << "one file for all channels";
    EXPECT_FALSE(rec->isChanFileDefined(200)) << "beyond the shot's channels";
}

TEST_F(XmemlRefMap, SoundOnlyShotsCountTheirChannelsFromOne) {
    CED2 sound(true);
    sound.CreateEditChannel(0, kChanAudio);
    sound.CreateEditChannel(1, kChanAudio);
    const Cookie s = newCookie(kCookieEdit, 255);
    XML::CED2ClipRefMap map;
    map.addRef(s, &sound, false);
    map.setDefined(s, 0);
    XML::CED2ClipRefMapRec* rec = nullptr;
    ASSERT_TRUE(map.findRef(s, &rec));
    // Channel 0 falls before the first mark and so is never defined; the
    // look-up must not read outside the marks.
    EXPECT_FALSE(rec->isChanFileDefined(0));
    EXPECT_TRUE(rec->isChanFileDefined(1));
    EXPECT_TRUE(rec->isChanFileDefined(2));
    EXPECT_FALSE(rec->isChanFileDefined(3));
}

}  // namespace
