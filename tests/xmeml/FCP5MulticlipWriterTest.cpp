// A sequence that is one multi-angle group, exported as one multiclip.
#include "export/AlternatesList.h"
#include "host/Config.h"
#include "tests/xmeml/XmemlTestSupport.h"

namespace {

using namespace xmemltest;

class XmemlMulticlip : public XmemlTest {
  protected:
    // Shots A, B and C, and a sequence whose one cel plays A from 2 s with B
    // and C as its other angles.
    void SetUp() override {
        XmemlTest::SetUp();
        a = addShot(store, L"A", 25.0, 30);
        b = addShot(store, L"B", 25.0, 20);
        c = addShot(store, L"C", 25.0, 20, {{kChanVideo, "V1"}});
        seq = addSequence(store, L"group", Qv::eFrameRate25);
        CelData& cel = addCel(seq, 0, playCookie(a, 0), 0, 4, 2);
        cel.alternates = {{playCookie(b, 0), 3}, {playCookie(c, 0), -2}};
    }
    std::string id(const Qv::Ptr<Edit>& e) const { return e->cookie.asString().str(); }

    Qv::Ptr<Edit> a, b, c, seq;
};

TEST_F(XmemlMulticlip, TheDriverWritesAGroupOnlyWhenSilentAndNotSuppressed) {
    const XMLElement* root = exportAndParse(seq, false);
    ASSERT_TRUE(root);
    EXPECT_NE(root->FirstChildElement("sequence"), nullptr);
    EXPECT_EQ(root->FirstChildElement("clip"), nullptr);

    set_config_int("suppress_FCP7XML_multiclip_group", 1);
    root = exportAndParse(seq, true);
    ASSERT_TRUE(root);
    EXPECT_NE(root->FirstChildElement("sequence"), nullptr);

    set_config_int("suppress_FCP7XML_multiclip_group", 0);
    root = exportAndParse(seq, true);
    ASSERT_TRUE(root);
    EXPECT_EQ(root->FirstChildElement("sequence"), nullptr);
    EXPECT_EQ(childNames(root), (std::vector<std::string>{"clip"}));
}

TEST_F(XmemlMulticlip, GroupClipAnglesAndSound) {
    const XMLElement* root = exportAndParse(seq, true);
    ASSERT_TRUE(root);
    const XMLElement* clip = root->FirstChildElement("clip");
    ASSERT_TRUE(clip);
    EXPECT_EQ(attr(clip, "id"), "GRP_" + id(a));
    EXPECT_EQ(childNames(clip),
              (std::vector<std::string>{"name", "duration", "rate", "masterclipid", "ismasterclip",
                                        "media", "audio"}));
    EXPECT_EQ(text(clip, "name"), "A_GRP");
    EXPECT_EQ(text(clip, "duration"), "750");
    EXPECT_EQ(text(clip, "masterclipid"), "master_" + id(a));

    const XMLElement* item = clip->FirstChildElement("media")
                                 ->FirstChildElement("video")
                                 ->FirstChildElement("track")
                                 ->FirstChildElement("clipitem");
    ASSERT_TRUE(item);
    EXPECT_EQ(attr(item, "id"), "clipitem-1");
    EXPECT_EQ(childNames(item),
              (std::vector<std::string>{"name", "masterclipid", "rate", "file", "multiclip"}));
    EXPECT_EQ(attr(item->FirstChildElement("file"), "id"), "file_" + id(a) + "_0");
    EXPECT_EQ(text(item->FirstChildElement("file"), "name"), "A");

    const XMLElement* multi = item->FirstChildElement("multiclip");
    EXPECT_EQ(attr(multi, "id"), "multiclip1");
    EXPECT_EQ(childNames(multi), (std::vector<std::string>{"name", "collapsed", "synctype", "angle",
                                                           "angle", "angle", "masterclipid"}));
    EXPECT_EQ(attr(multi->FirstChildElement("name"), "id"), "A - multi");
    EXPECT_EQ(multi->FirstChildElement("name")->FirstChild(), nullptr);
    EXPECT_EQ(text(multi, "masterclipid"), "GRP_" + id(a));

    // Exactly one angle is active, the first; the group's first member is
    // written again as that angle, with its file in full under a bare id.
    auto angles = children(multi, "angle");
    std::vector<std::string> angleIds, delays, active, itemIds;
    for (const XMLElement* angle : angles) {
        const XMLElement* angleClip = angle->FirstChildElement("clip");
        angleIds.push_back(attr(angleClip, "id"));
        const XMLElement* angleItem = angleClip->FirstChildElement("media")
                                          ->FirstChildElement("video")
                                          ->FirstChildElement("track")
                                          ->FirstChildElement("clipitem");
        delays.push_back(text(angleItem, "mediadelay"));
        itemIds.push_back(attr(angleItem, "id"));
        active.push_back(text(angle, "activevideoangle") + "/" + text(angle, "activaudioangle"));
        EXPECT_EQ(childNames(angleItem),
                  (std::vector<std::string>{"masterclipid", "rate", "mediadelay", "file"}));
        EXPECT_EQ(attr(angleItem->FirstChildElement("file"), "id"), "file_" + angleIds.back());
        EXPECT_NE(angleItem->FirstChildElement("file")->FirstChildElement("name"), nullptr);
        EXPECT_EQ(text(angleClip, "masterclipid"), "master_" + angleIds.back());
    }
    EXPECT_EQ(angleIds, (std::vector<std::string>{id(a), id(b), id(c)}));
    // Offsets: the cel's 2 s at 25 frames, plus each angle's own.
    EXPECT_EQ(delays, (std::vector<std::string>{"0", "53", "48"}));
    EXPECT_EQ(active, (std::vector<std::string>{"TRUE/TRUE", "<none>/<none>", "<none>/<none>"}));
    EXPECT_EQ(itemIds, (std::vector<std::string>{"clipitem-2", "clipitem-3", "clipitem-4"}));
    EXPECT_EQ(childNames(angles[0]),
              (std::vector<std::string>{"activevideoangle", "activaudioangle", "clip"}));

    // The sound of the first angle, after media, numbered after the angles.
    auto tracks = children(clip->FirstChildElement("audio"), "track");
    ASSERT_EQ(tracks.size(), 1u);
    const XMLElement* sound = tracks[0]->FirstChildElement("clipitem");
    EXPECT_EQ(attr(sound, "id"), "clipitem-5");
    EXPECT_EQ(childNames(sound), (std::vector<std::string>{"masterclipid", "syncoffset", "file",
                                                           "sourcetrack", "multiclip"}));
    EXPECT_EQ(text(sound, "multiclip"), "multiclip1");
    EXPECT_EQ(at(sound, "sourcetrack/trackindex"), "1");
    EXPECT_EQ(text(sound->FirstChildElement("file"), "name"), "A")
        << "every track repeats the file";
}

TEST_F(XmemlMulticlip, AFirstAngleWithOneChannelHasNoSound) {
    CelData& cel = seq->channels[0].cels[0];
    cel.cookie = playCookie(c, 0);
    cel.alternates = {{playCookie(a, 0), 0}};
    const XMLElement* root = exportAndParse(seq, true);
    ASSERT_TRUE(root);
    const XMLElement* clip = root->FirstChildElement("clip");
    EXPECT_EQ(attr(clip, "id"), "GRP_" + id(c));
    EXPECT_EQ(clip->FirstChildElement("audio"), nullptr);
    EXPECT_EQ(all(clip, "angle").size(), 2u);
}

TEST_F(XmemlMulticlip, ASoundOnlyGroupHasNoAnglesAndItsSoundAfterMedia) {
    Qv::Ptr<Edit> left = addShot(store, L"L", 25.0, 10, {{kChanAudio, "A1"}, {kChanAudio, "A2"}});
    Qv::Ptr<Edit> right = addShot(store, L"R", 25.0, 10, {{kChanAudio, "A1"}, {kChanAudio, "A2"}});
    Qv::Ptr<Edit> sound = addSequence(store, L"sound group", Qv::eFrameRate25);
    CelData& cel = addCel(sound, 1, playCookie(left, 0), 0, 4, 0);
    cel.alternates = {{playCookie(right, 0), 0}};
    const XMLElement* root = exportAndParse(sound, true);
    ASSERT_TRUE(root);
    const XMLElement* clip = root->FirstChildElement("clip");
    ASSERT_TRUE(clip);
    EXPECT_EQ(childNames(clip),
              (std::vector<std::string>{"name", "duration", "rate", "masterclipid", "ismasterclip",
                                        "media", "audio"}));
    EXPECT_EQ(clip->FirstChildElement("media")->FirstChildElement(), nullptr);
    EXPECT_TRUE(all(root, "multiclip").size() == 2u && all(root, "angle").empty());
    std::vector<std::string> index, ids;
    for (const XMLElement* item : all(clip->FirstChildElement("audio"), "clipitem")) {
        index.push_back(at(item, "sourcetrack/trackindex"));
        ids.push_back(attr(item, "id"));
    }
    EXPECT_EQ(index, (std::vector<std::string>{"0", "1"}));
    EXPECT_EQ(ids, (std::vector<std::string>{"clipitem-1", "clipitem-2"}));
}

TEST_F(XmemlMulticlip, MembersThatAreNotClipsFailBeforeAnythingIsWritten) {
    Qv::Ptr<Edit> sub = qvtest::addSubclip(store, L"sub", b, 1, 5);
    seq->channels[0].cels[0].alternates = {{playCookie(sub, 0), 0}};
    std::string path = exportEdit(seq, true);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(qvtest::readFile(path), "");
    EXPECT_EQ(lines(LogKind::Error),
              (std::vector<std::string>{
                  "The components of the exported multi-clip group must be either CLIPS or "
                  "SUB-CLIPS"}));
    EXPECT_EQ(store.opens(), store.closes());
}

TEST(XmemlAlternates, OnlyTheFirstGroupOfASequenceCounts) {
    CED2 seq(false);
    CChannel* v = seq.CreateEditChannel(0, kChanVideo);
    CChannel* v2 = seq.CreateEditChannel(1, kChanVideo);
    Cookie a = convertCookie(makeNewEditCookie(), kCookieVideo, 0);
    Cookie b = convertCookie(makeNewEditCookie(), kCookieVideo, 0);
    CelData plain;
    plain.cookie = a;
    v->addCel(plain);
    CelData grouped = plain;
    grouped.sourceIn = 1.5;
    grouped.cookie.channel = 3;
    grouped.alternates = {{b, 4}, {b, 9}};
    v->addCel(grouped);
    CelData later = plain;
    later.alternates = {{a, 1}};
    v2->addCel(later);

    XML::AlternatesList list;
    ASSERT_TRUE(XML::seqHasAlternateGroup(&seq, list, Qv::eFrameRate30));
    ASSERT_EQ(list.list.size(), 3u);
    EXPECT_EQ(list.list[0].cookie, convertCookie(a, kCookieEdit, 3));
    EXPECT_EQ(list.list[0].offset, 0);
    EXPECT_EQ(list.list[1].offset, 49);  // 1.5 s at 30 frames, rounded, plus 4
    int offset = -1;
    EXPECT_TRUE(list.findCookieOffset(b, offset));
    EXPECT_EQ(offset, 49) << "the first record for a cookie wins";

    CED2 none(false);
    none.CreateEditChannel(0, kChanVideo)->addCel(plain);
    XML::AlternatesList empty;
    EXPECT_FALSE(XML::seqHasAlternateGroup(&none, empty, Qv::eFrameRate30));
    EXPECT_TRUE(empty.list.empty());
}

}  // namespace
