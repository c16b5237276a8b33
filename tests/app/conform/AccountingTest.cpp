// The check that every clip item of a document plays in what its import made
// or is named in the loss report: the lists of clip items it makes of xmeml
// and OpenTimelineIO, the check against a project, and `import --report`.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <string>

#include "app/conform/Accounting.h"
#include "otio/OtioImport.h"
#include "otio/OtioModel.h"
#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using nlohmann::json;
using qvapp::accountFor;
using qvapp::Accounting;
using qvapp::DocumentClips;
using qvapp::ListedSequence;
using qvapp::ListedTrack;
using qvapp::Loss;

DocumentClips xmemlClips(const std::string& text) {
    qvapp::XmemlClipLister lister;
    qvapp::checkXml(text, {}, &lister);
    return lister.take();
}

Loss readerLoss(const char* kind, const char* track, std::int64_t frame) {
    Loss l;
    l.kind = kind;
    l.origin = "reader";
    l.sequence = "Cut";
    l.track = track;
    l.frame = frame;
    return l;
}

// A file of `channels` audio channels, defined in place.
std::string file(const std::string& id, int channels = 1) {
    return "<file id=\"" + id + "\"><name>" + id + ".mov</name><duration>500</duration>" +
           "<media><video/><audio><channelcount>" + std::to_string(channels) +
           "</channelcount></audio></media></file>";
}

std::string item(const std::string& id, int start, int end, const std::string& inside) {
    return "<clipitem id=\"" + id + "\"><name>" + id + "</name><start>" + std::to_string(start) +
           "</start><end>" + std::to_string(end) + "</end>" + inside + "</clipitem>";
}

TEST(XmemlClipList, ListsTheClipItemsThatNameMediaWhereTheyStand) {
    // A clip item names media by a file, a nested sequence, a multiclip, a
    // master clip or the id of one before it; a generator, a transition and
    // a master clip id the document does not define name none. The nested
    // sequence's own clip items belong to it, not to the top-level one.
    std::string nested = "<sequence id=\"n\"><name>Inner</name><media><video><track>" +
                         item("inner", 0, 10, file("f9")) + "</track></video></media></sequence>";
    std::string doc =
        "<xmeml version=\"5\"><sequence id=\"s\"><uuid>x</uuid><name>A &amp; B</name>"
        "<rate><timebase>30</timebase><ntsc>TRUE</ntsc></rate>"
        "<timecode><frame>108000</frame><displayformat>DF</displayformat></timecode>"
        "<media><video><track>" +
        item("a", 0, -1, file("f1")) +
        "<transitionitem><start>40</start><end>60</end></transitionitem>" +
        item("b", -1, 90, "<file id=\"f1\"/>") + item("n", 90, 100, nested) +
        "<generatoritem id=\"g\"><start>100</start><end>110</end></generatoritem>" +
        "</track><track>" + item("m", 0, 5, "<multiclip id=\"mc\"/>") +
        item("byMaster", 5, 9, "<masterclipid>masterclip-1</masterclipid>") +
        item("unknownMaster", 9, 12, "<masterclipid>masterclip-9</masterclipid>") +
        "</track></video><audio><track>" + item("a", 0, 40, "<file id=\"f1\"/>") +
        "<clipitem id=\"a\"/><clipitem id=\"never\"/></track></audio></media></sequence>"
        "<clip id=\"masterclip-1\"><name>master</name></clip></xmeml>";
    DocumentClips clips = xmemlClips(doc);
    ASSERT_EQ(clips.sequences.size(), 1u) << "the nested sequence is no top-level one";
    const ListedSequence& s = clips.sequences[0];
    EXPECT_EQ(s.name, "A & B");
    EXPECT_EQ(s.timebase, 30);
    EXPECT_EQ(s.startFrame, 108000);
    EXPECT_TRUE(s.dropFrame);
    ASSERT_EQ(s.tracks.size(), 3u);
    EXPECT_EQ(s.tracks[0].name, "V1");
    EXPECT_EQ(s.tracks[1].name, "V2");
    EXPECT_EQ(s.tracks[2].name, "A1");
    EXPECT_FALSE(s.tracks[2].video);

    auto spans = [](const ListedTrack& t) {
        std::string out;
        for (const qvapp::ListedItem& i : t.items)
            out += std::string(i.id) + ":" + std::to_string(i.start) + "-" + std::to_string(i.end) +
                   " ";
        return out;
    };
    // -1 is where the transition begins or ends.
    EXPECT_EQ(spans(s.tracks[0]), "a:0-40 b:60-90 n:90-100 ");
    EXPECT_EQ(spans(s.tracks[1]), "m:0-5 byMaster:5-9 ");
    // A bare reference stands for the earlier clip item of its id, where
    // that one stands.
    EXPECT_EQ(spans(s.tracks[2]), "a:0-40 a:0-40 ");
    EXPECT_EQ(s.tracks[0].items[0].name, "a");
}

TEST(XmemlClipList, ALongTrackFindsEachBareReferenceAndKeepsLongNames) {
    // Enough items that the table of ids grows several times; a bare
    // reference to each third item, in reverse, after them all; one id
    // defined twice, where the later definition counts.
    std::string longName(70000, 'n');
    std::string items, refs, expected;
    for (int i = 0; i < 600; ++i)
        items += item("c" + std::to_string(i), i, i + 1, "<file id=\"f\"/>");
    items += item("c6", 700, 701, "<file id=\"f\"/>");
    items += "<clipitem id=\"long\"><name>" + longName + "</name><start>701</start><end>702</end>" +
             file("g") + "</clipitem>";
    for (int i = 597; i >= 0; i -= 3) {
        refs += "<clipitem id=\"c" + std::to_string(i) + "\"/>";
        int at = i == 6 ? 700 : i;
        expected += "c" + std::to_string(i) + "@" + std::to_string(at) + " ";
    }
    refs += "<clipitem id=\"long\"/>";
    expected += "long@701 ";
    DocumentClips clips = xmemlClips(
        "<xmeml version=\"5\"><sequence><name>S</name><media><video>"
        "<track>" +
        items + "</track><track>" + refs + "</track></video></media></sequence></xmeml>");
    ASSERT_EQ(clips.sequences.size(), 1u);
    const auto& tracks = clips.sequences[0].tracks;
    ASSERT_EQ(tracks.size(), 2u);
    ASSERT_EQ(tracks[0].items.size(), 602u);
    std::string found;
    for (const qvapp::ListedItem& i : tracks[1].items)
        found += std::string(i.id) + "@" + std::to_string(i.start) + " ";
    EXPECT_EQ(found, expected);
    EXPECT_EQ(tracks[1].items.back().name, longName);
    EXPECT_EQ(tracks[0].items[599].name, "c599");
}

class Check : public qvtest::StoreTest {
  protected:
    Check() {
        shot = qvtest::addShot(store, L"shot", 25, 100);
        nested = qvtest::addSequence(store, L"Inner", Qv::eFrameRate25, {{kChanVideo, "V1"}});
        qvtest::addCel(nested, 0, qvtest::playCookie(shot, 0), 0, 10, 0);
        // Channels as the editor keeps them: the top video track first.
        seq = qvtest::addSequence(
            store, L"Cut", Qv::eFrameRate25,
            {{kChanVideo, "V2"}, {kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}});
    }

    // A document of one sequence "Cut" at 25 with the tracks given.
    static DocumentClips document(std::vector<ListedTrack> tracks) {
        DocumentClips d;
        ListedSequence s;
        s.name = "Cut";
        s.timebase = 25;
        s.startFrame = 25 * 3600;
        s.tracks = std::move(tracks);
        d.sequences.push_back(std::move(s));
        return d;
    }

    Qv::Ptr<Edit> shot, nested, seq;
};

TEST_F(Check, AClipPlaysIsReportedOrIsUnaccounted) {
    // V1 (the last video channel) plays the shot for 2 s, then the nested
    // sequence for 1 s, then black for 2 s over two items.
    qvtest::addCel(seq, 1, qvtest::playCookie(shot, 0), 0, 2, 0);
    qvtest::addCel(seq, 1, qvtest::playCookie(nested, 0), 2, 3, 0);
    qvtest::addCel(seq, 1, video_black, 3, 5, 0);
    // V2, the top track, is black where V1 plays.
    qvtest::addCel(seq, 0, video_black, 0, 5, 0);
    DocumentClips d = document({{"V1",
                                 true,
                                 {{"plays", "c1", 0, 50},
                                  {"nested", "c2", 50, 75},
                                  {"told", "c3", 75, 100},
                                  {"lost", "c4", 100, 125}}}});

    // A loss that says what the item was but not that its material is gone
    // does not account for it; one of another track neither.
    Accounting a =
        accountFor(d, {seq},
                   {readerLoss("unusable-file", "V1", 80), readerLoss("filter", "V1", 100),
                    readerLoss("generator", "V2", 100)});
    EXPECT_EQ(a.items, 4);
    EXPECT_EQ(a.playing, 2);
    EXPECT_EQ(a.reported, 1);
    ASSERT_EQ(a.unaccounted.size(), 1u);
    const Loss& l = a.unaccounted[0];
    EXPECT_EQ(l.kind, "unaccounted");
    EXPECT_EQ(l.origin, "reader");
    EXPECT_EQ(l.sequence, "Cut");
    EXPECT_EQ(l.track, "V1");
    EXPECT_EQ(l.frame, 100);
    EXPECT_EQ(l.timecode, "01:00:04:00");
    EXPECT_EQ(l.detail, "\"lost\" (c4) plays black");

    // Read the other way round, V1 is black: the tracks are not the
    // channels in their order.
    DocumentClips top = document({{"V2", true, {{"top", "t", 0, 50}}}});
    EXPECT_EQ(accountFor(top, {seq}, {}).unaccounted.size(), 1u);
}

TEST_F(Check, MostOfTheRangeMustPlayAndTransitionsCountNeitherWay) {
    // A1: the shot for 30 frames, silence for 20; a dissolve of 20 frames
    // between two clips of the shot.
    qvtest::addCel(seq, 2, qvtest::playCookie(shot, 1), 0, 1.2, 0);
    qvtest::addCel(seq, 2, audio_black, 1.2, 2, 0);
    qvtest::addCel(seq, 2, qvtest::playCookie(shot, 1), 2, 2.4, 0);
    qvtest::addCel(seq, 2, audio_dissolve, 2.4, 3.2, 0);
    qvtest::addCel(seq, 2, qvtest::playCookie(shot, 1), 3.2, 3.6, 0);
    // A2 is silent, and A3 is not in the project.
    qvtest::addCel(seq, 3, audio_black, 0, 4, 0);
    DocumentClips d = document({{"A1",
                                 false,
                                 {{"mostly", "", 0, 50},
                                  {"under a dissolve", "", 60, 90},
                                  {"too little", "", 25, 60},
                                  {"no length", "", 95, 95},
                                  {"backwards", "", 95, 90}}},
                                {"A2", false, {{"silent", "s", 0, 50}}},
                                {"A3", false, {{"nowhere", "n", 0, 50}}}});
    Accounting a = accountFor(d, {seq}, {});
    EXPECT_EQ(a.items, 7);
    EXPECT_EQ(a.empty, 1);
    EXPECT_EQ(a.playing, 2);
    ASSERT_EQ(a.unaccounted.size(), 4u);
    EXPECT_EQ(a.unaccounted[0].detail, "\"too little\" plays silence");
    EXPECT_EQ(a.unaccounted[1].detail, "\"backwards\" plays silence");
    EXPECT_EQ(a.unaccounted[2].track, "A2");
    EXPECT_EQ(a.unaccounted[3].track, "A3");

    // A sequence the import did not make: its items are unaccounted, and
    // say so.
    DocumentClips other = document({{"V1", true, {{"x", "x", 0, 10}}}});
    other.sequences[0].name = "Other";
    Accounting missing = accountFor(other, {seq}, {});
    ASSERT_EQ(missing.unaccounted.size(), 1u);
    EXPECT_EQ(missing.unaccounted[0].detail, "\"x\" (x): its sequence is not in the import");
}

TEST_F(Check, SequencesOfOneNameAreMatchedByTheirTracks) {
    // Two sequences named "Cut": the one with the document's tracks is the
    // one its items are looked for in, whatever the order.
    Qv::Ptr<Edit> audioOnly =
        qvtest::addSequence(store, L"Cut", Qv::eFrameRate25, {{kChanAudio, "A1"}});
    qvtest::addCel(audioOnly, 0, audio_black, 0, 4, 0);
    qvtest::addCel(seq, 2, qvtest::playCookie(shot, 1), 0, 4, 0);
    DocumentClips d = document(
        {{"V1", true, {}}, {"V2", true, {}}, {"A1", false, {{"a", "", 0, 50}}}, {"A2", false, {}}});
    Accounting a = accountFor(d, {audioOnly, seq}, {});
    EXPECT_EQ(a.playing, 1);
    EXPECT_TRUE(a.unaccounted.empty());
}

TEST_F(Check, OpenTimelineIOClipsArePlacedInTheWindowsOfTheirTracks) {
    // A track that shows frames 24 to 72 of itself: the first clip is cut to
    // the window, the third lies outside it and is not part of the cut. A
    // generator plays black and is reported by the reader.
    auto rt = [](double v) {
        return R"({"OTIO_SCHEMA": "RationalTime.1", "rate": 24, "value": )" + std::to_string(v) +
               "}";
    };
    auto range = [&](double start, double length) {
        return R"({"OTIO_SCHEMA": "TimeRange.1", "start_time": )" + rt(start) +
               R"(, "duration": )" + rt(length) + "}";
    };
    auto clip = [&](const std::string& name, double length, const std::string& ref) {
        return R"({"OTIO_SCHEMA": "Clip.1", "name": ")" + name + R"(", "source_range": )" +
               range(0, length) + R"(, "media_reference": )" + ref + "}";
    };
    std::string external = R"({"OTIO_SCHEMA": "ExternalReference.1", "target_url": "/m/a.mov"})";
    std::string generator = R"({"OTIO_SCHEMA": "GeneratorReference.1", "generator_kind": "Bars"})";
    std::string text =
        R"({"OTIO_SCHEMA": "Timeline.1", "name": "Cut", "tracks": {"OTIO_SCHEMA": "Stack.1",
        "children": [{"OTIO_SCHEMA": "Track.1", "kind": "Video", "source_range": )" +
        range(24, 48) + R"(, "children": [)" + clip("a", 48, external) + "," +
        clip("bars", 24, generator) + "," + clip("after", 24, external) + "]}]}}";
    qvtest::TempDir dir;
    std::string path = dir.file("cut.otio");
    qvtest::writeFile(path, text);
    QvOtio::Document model;
    std::string why;
    XML::ImportResult r =
        QvOtio::importOtioFile(fromUTF8(path.c_str()), capturingLog(), why, &model);
    ASSERT_EQ(r.status, 1) << why;

    DocumentClips clips = qvapp::listOtioClips(model);
    ASSERT_EQ(clips.sequences.size(), 1u);
    const ListedTrack& t = clips.sequences[0].tracks.at(0);
    ASSERT_EQ(t.items.size(), 2u);
    EXPECT_EQ(t.items[0].start, 0);
    EXPECT_EQ(t.items[0].end, 24);
    EXPECT_EQ(t.items[1].name, "bars");
    EXPECT_EQ(t.items[1].start, 24);

    std::vector<Qv::Ptr<Edit>> made;
    for (const EditModifier& m : r.edits)
        made.push_back(m.ptr());
    Accounting a = accountFor(clips, made, qvapp::recordedLosses(sink->losses, "reader"));
    EXPECT_EQ(a.playing, 1);
    EXPECT_EQ(a.reported, 1);
    EXPECT_TRUE(a.unaccounted.empty());
}

// `import --report`: the losses of reading, each with its place, and one
// line on standard error that never says nothing was lost when a clip item
// plays nothing.
TEST(ImportReport, NamesEveryClipThatDoesNotPlay) {
    qvtest::TempDir dir;
    // A2 plays the second channel of a file of one: it cannot play.
    std::string doc =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE xmeml>\n<xmeml version=\"4\">"
        "<sequence id=\"s\"><name>Cut</name><duration>100</duration>"
        "<rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>"
        "<timecode><rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>"
        "<string>01:00:00:00</string><frame>90000</frame><displayformat>NDF</displayformat>"
        "</timecode><media><video><track>" +
        item("one", 0, 50, file("f1")) + "</track></video><audio><track>" +
        item("left", 0, 50,
             "<file id=\"f1\"/><sourcetrack><mediatype>audio</mediatype>"
             "<trackindex>1</trackindex></sourcetrack>") +
        "</track><track>" +
        item("right", 0, 50,
             "<file id=\"f1\"/><sourcetrack><mediatype>audio</mediatype>"
             "<trackindex>2</trackindex></sourcetrack>") +
        "</track></audio></media></sequence></xmeml>\n";
    std::string path = dir.file("cut.xml");
    qvtest::writeFile(path, doc);
    std::string report = dir.file("read.json");
    qvtest::Outcome r =
        qvtest::qvxml("import " + qvtest::quote(path) + " --report " + qvtest::quote(report));
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err.find("nothing was lost"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("cut.xml: 1 loss ("), std::string::npos) << r.err;

    json j = json::parse(qvtest::readFile(report));
    EXPECT_EQ(j["qvxml"], "loss-report");
    EXPECT_EQ(j["command"], "import");
    ASSERT_EQ(j["documents"].size(), 1u);
    EXPECT_EQ(j["documents"][0]["input"], path);
    EXPECT_EQ(j["documents"][0]["target"], "");
    ASSERT_EQ(j["documents"][0]["items"].size(), 1u);
    const json& loss = j["documents"][0]["items"][0];
    EXPECT_EQ(loss["origin"], "reader");
    EXPECT_EQ(loss["sequence"], "Cut");
    EXPECT_EQ(loss["track"], "A2");
    EXPECT_EQ(loss["frame"], 0);
    EXPECT_EQ(loss["timecode"], "01:00:00:00");
    EXPECT_NE(loss["detail"].get<std::string>().find("\"right\""), std::string::npos);

    // info --json counts the same losses; --quiet says nothing of them.
    qvtest::Outcome info = qvtest::qvxml("info --json --quiet " + qvtest::quote(path));
    ASSERT_EQ(info.status, 0) << info.err;
    EXPECT_EQ(json::parse(info.out)["documents"][0]["losses"].size(), 1u);
    qvtest::Outcome quiet = qvtest::qvxml("import --quiet " + qvtest::quote(path));
    EXPECT_EQ(quiet.err, "");
}

}  // namespace
