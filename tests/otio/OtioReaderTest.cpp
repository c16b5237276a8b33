// Reading OpenTimelineIO documents that qvxml did not write: what the format
// allows beyond plain JSON, documents that are no timelines, and what is not
// kept, which is said rather than dropped.
#include <gtest/gtest.h>

#include <cmath>

#include "otio/OtioImport.h"
#include "otio/OtioModel.h"
#include "otio/OtioReader.h"
#include "tests/otio/OtioTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using QvOtio::Document;

std::string rt(double value, double rate = 24) {
    char text[128];
    std::snprintf(text, sizeof text,
                  R"({"OTIO_SCHEMA": "RationalTime.1", "rate": %.17g, "value": %.17g})", rate,
                  value);
    return text;
}
std::string range(double start, double duration, double rate = 24) {
    return R"({"OTIO_SCHEMA": "TimeRange.1", "start_time": )" + rt(start, rate) +
           R"(, "duration": )" + rt(duration, rate) + "}";
}
std::string clip(const std::string& name, double start, double duration,
                 const std::string& media = "", const std::string& extra = "") {
    std::string ref = media.empty()
                          ? R"({"OTIO_SCHEMA": "ExternalReference.1", "target_url": "file:///m/)" +
                                name + R"(.mov", "available_range": null})"
                          : media;
    return R"({"OTIO_SCHEMA": "Clip.2", "name": ")" + name + R"(", "source_range": )" +
           range(start, duration) + R"(, "media_references": {"DEFAULT_MEDIA": )" + ref +
           R"(}, "active_media_reference_key": "DEFAULT_MEDIA")" + extra + "}";
}
std::string track(const std::string& kind, const std::string& children) {
    return R"({"OTIO_SCHEMA": "Track.1", "kind": ")" + kind + R"(", "children": [)" + children +
           "]}";
}
std::string timeline(const std::string& name, const std::string& tracks) {
    return R"({"OTIO_SCHEMA": "Timeline.1", "name": ")" + name +
           R"(", "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [)" + tracks + "]}}";
}

class OtioReading : public qvtest::StoreTest {
  protected:
    // Imports a document written here; the status.
    XML::ImportResult import(const std::string& text, std::string* error = nullptr) {
        std::string path = dir.file("doc.otio");
        qvtest::writeFile(path, text);
        std::string why;
        XML::ImportResult r = QvOtio::importOtioFile(fromUTF8(path.c_str()), capturingLog(), why);
        if (error) *error = why;
        return r;
    }
    qvtest::TempDir dir;
};

TEST_F(OtioReading, KeysInAnyOrderAndTheNumbersOpenTimelineIOAllows) {
    // OTIO_SCHEMA last, and NaN, Inf and -Infinity where numbers stand.
    std::string doc = R"({"tracks": {"children": [{"children": [
        {"source_range": )" +
                      range(10, 48) +
                      R"(, "name": "A", "metadata": {"x": {"v": NaN, "w": [Inf, -Infinity]}},
         "media_reference": null, "OTIO_SCHEMA": "Clip.1"}], "kind": "Video",
         "OTIO_SCHEMA": "Track.1"}], "OTIO_SCHEMA": "Stack.1"},
        "name": "Late", "OTIO_SCHEMA": "Timeline.1"})";
    XML::ImportResult r = import(doc);
    ASSERT_EQ(r.status, 1);
    ASSERT_EQ(r.edits.size(), 1u);
    const Edit& seq = *r.edits[0].get();
    EXPECT_EQ(seq.name, L"Late");
    EXPECT_EQ(seq.frameRate, Qv::eFrameRate24);
    ASSERT_EQ(seq.channels.size(), 1u);
    ASSERT_EQ(seq.channels[0].cels.size(), 1u);
    EXPECT_DOUBLE_EQ(seq.channels[0].cels[0].editOut, 2.0);
    EXPECT_DOUBLE_EQ(seq.channels[0].cels[0].sourceIn, 10.0 / 24);

    Document model;
    EXPECT_TRUE(QvOtio::parseText(R"({"OTIO_SCHEMA": "RationalTime.1", "value": NaN})", model).ok);
}

TEST_F(OtioReading, DocumentsThatAreNoTimelinesAreRefusedInOneSentence) {
    struct Case {
        std::string text;
        const char* says;
    };
    std::string deep;
    for (int i = 0; i < 600; ++i)
        deep += "[";
    const Case cases[] = {
        {"{\"OTIO_SCHEMA\": \"Timeline.1\", \"tracks\": ", "not valid JSON"},
        {"{\"OTIO_SCHEMA\": \"Timeline.1\", \"name\": Nope}", "not valid JSON"},
        {"[1, 2]", "no OpenTimelineIO object"},
        {"{\"name\": \"x\"}", "no \"OTIO_SCHEMA\""},
        {clip("alone", 0, 1), "holds a Clip.2, not a Timeline"},
        {R"({"OTIO_SCHEMA": "SerializableCollection.1", "children": [)" + clip("c", 0, 1) + "]}",
         "holds no Timeline"},
        {"{\"OTIO_SCHEMA\": \"Timeline.1\", \"metadata\": " + deep, "nested deeper than"},
    };
    for (const Case& c : cases) {
        std::string error;
        XML::ImportResult r = import(c.text, &error);
        EXPECT_NE(r.status, 1) << c.text.substr(0, 60);
        EXPECT_NE(error.find(c.says), std::string::npos) << error;
    }
    EXPECT_EQ(store.size(), 0u) << "nothing of a refused document lands in the project";
}

TEST_F(OtioReading, ACollectionOfTimelinesGivesASequenceEach) {
    std::string doc =
        R"({"OTIO_SCHEMA": "SerializableCollection.1", "name": "bin", "children": [)" +
        timeline("One", track("Video", clip("A", 0, 24))) + "," +
        R"({"OTIO_SCHEMA": "SerializableCollection.1", "children": [)" +
        timeline("Two", track("Audio", clip("A", 24, 12))) + "]}]}";
    XML::ImportResult r = import(doc);
    ASSERT_EQ(r.status, 1);
    ASSERT_EQ(r.edits.size(), 2u);
    EXPECT_EQ(r.edits[0]->name, L"One");
    EXPECT_EQ(r.edits[1]->name, L"Two");
    // One piece of media, one shot: a video channel and the audio one played.
    Qv::Ptr<Edit> a = store.find(r.edits[0]->channels[0].cels[0].cookie);
    ASSERT_TRUE(a);
    EXPECT_EQ(store.find(r.edits[1]->channels[0].cels[0].cookie), a);
    ASSERT_EQ(a->channels.size(), 2u);
    EXPECT_EQ(a->channels[1].type, kChanAudio);
    EXPECT_EQ(a->historicLocator, L"file:///m/A.mov");
}

TEST_F(OtioReading, WhatIsNotKeptIsSaidAndTheRestIsRead) {
    std::string generator =
        R"({"OTIO_SCHEMA": "GeneratorReference.1", "generator_kind": "SolidColor"})";
    std::string blur = R"(, "effects": [{"OTIO_SCHEMA": "Effect.1", "effect_name": "Blur"}])";
    std::string doc = timeline(
        "Notes",
        track("Video",
              clip("A", 0, 24, "", blur) + "," +
                  R"({"OTIO_SCHEMA": "Transition.1", "transition_type": "Iris", "in_offset": )" +
                  rt(2) + R"(, "out_offset": )" + rt(2) + "}," + clip("Title", 0, 24, generator) +
                  "," + clip("B", 0, 24, "", R"(, "enabled": false, "metadata": {"tool": {}})")));
    XML::ImportResult r = import(doc);
    ASSERT_EQ(r.status, 1);
    for (const char* said : {"effects \"Blur\"", "\"Iris\", read as dissolves",
                             "generated clips (SolidColor), played as black",
                             "items switched off (they play)", "metadata \"tool\""})
        EXPECT_TRUE(sink->contains(said)) << said;
    const std::vector<CelData>& cels = r.edits[0]->channels[0].cels;
    ASSERT_EQ(cels.size(), 4u);
    EXPECT_EQ(cels[1].cookie, video_dissolve);
    EXPECT_EQ(cels[2].cookie, video_black);
    EXPECT_EQ(store.find(cels[3].cookie)->name, L"B");
}

TEST_F(OtioReading, TransitionsAreShortenedToWhatTheirNeighboursHave) {
    // In at the start of the track, out beyond a 4-frame clip.
    std::string t = R"({"OTIO_SCHEMA": "Transition.1", "transition_type": "SMPTE_Dissolve",
                        "in_offset": )" +
                    rt(10) + R"(, "out_offset": )" + rt(10) + "}";
    XML::ImportResult r = import(
        timeline("Short", track("Video", t + "," + clip("A", 0, 4) + "," + clip("B", 0, 24))));
    ASSERT_EQ(r.status, 1);
    const std::vector<CelData>& cels = r.edits[0]->channels[0].cels;
    ASSERT_EQ(cels.size(), 3u);
    EXPECT_DOUBLE_EQ(cels[0].editIn * 24, 0);
    EXPECT_DOUBLE_EQ(cels[0].editOut * 24, 4);
    EXPECT_DOUBLE_EQ(cels[1].editIn * 24, 4) << "A is all transition";
    EXPECT_DOUBLE_EQ(cels[1].editOut * 24, 4);
    EXPECT_DOUBLE_EQ(cels[1].sourceIn * 24, 4);
    EXPECT_TRUE(sink->contains("transitions that reach further than the items beside them"));
}

TEST_F(OtioReading, ClipsWithoutRangesAndTheSourceTrackOfFcpXml) {
    std::string media = R"({"OTIO_SCHEMA": "ExternalReference.1", "target_url": "file:///m/S.wav",
                            "available_range": )" +
                        range(86400, 48) + "}";
    std::string second = R"(, "metadata": {"fcp_xml": {"sourcetrack": {"mediatype": "audio",
                             "trackindex": "2"}, "other": [1, 2]}})";
    std::string whole = R"({"OTIO_SCHEMA": "Clip.2", "name": "S", "source_range": null,
        "media_references": {"DEFAULT_MEDIA": )" +
                        media + R"(}, "active_media_reference_key": "DEFAULT_MEDIA"})";
    XML::ImportResult r =
        import(timeline("Sound", track("Audio", whole) + "," +
                                     track("Audio", clip("S", 86412, 12, media, second))));
    ASSERT_EQ(r.status, 1);
    const Edit& seq = *r.edits[0].get();
    ASSERT_EQ(seq.channels.size(), 2u);
    const CelData& a = seq.channels[0].cels[0];
    EXPECT_DOUBLE_EQ(a.editOut, 2.0) << "the media's whole range";
    EXPECT_DOUBLE_EQ(a.sourceIn, 0.0) << "counted from the media's start";
    EXPECT_EQ(a.cookie.channel, 1);
    const CelData& b = seq.channels[1].cels[0];
    EXPECT_DOUBLE_EQ(b.sourceIn, 0.5);
    EXPECT_EQ(b.cookie.channel, 2) << "fcp_xml's source track";
    Qv::Ptr<Edit> shot = store.find(a.cookie);
    ASSERT_TRUE(shot);
    ASSERT_EQ(shot->labels.size(), 1u);
    EXPECT_EQ(shot->labels[0].get_string(0).str(), "01:00:00:00");
    EXPECT_EQ(shot->channels.size(), 2u);
}

TEST_F(OtioReading, WhatIsPassedOverIsALossWithItsPlace) {
    // V1: A (with an effect), a transition of another type, a generator, an
    // empty nested stack, an image sequence and a nested stack that holds a
    // generator; V2 (the timeline's second video track): a clip switched
    // off. An audio transition is a cross fade whatever its type.
    std::string generator =
        R"({"OTIO_SCHEMA": "GeneratorReference.1", "generator_kind": "SolidColor"})";
    std::string images = R"({"OTIO_SCHEMA": "ImageSequenceReference.1", "name": "frames"})";
    std::string iris = R"({"OTIO_SCHEMA": "Transition.1", "transition_type": "Iris",
                           "in_offset": )" +
                       rt(2) + R"(, "out_offset": )" + rt(2) + "}";
    auto stack = [&](const std::string& name, const std::string& children) {
        return R"({"OTIO_SCHEMA": "Stack.1", "name": ")" + name + R"(", "source_range": )" +
               range(0, 12) + R"(, "children": [)" + children + "]}";
    };
    std::string v1 = clip("A", 0, 24, "",
                          R"(, "effects": [{"OTIO_SCHEMA": "Effect.1", "effect_name": "Blur"}])") +
                     "," + iris + "," + clip("Title", 0, 24, generator) + "," + stack("Empty", "") +
                     "," + clip("Seq", 0, 24, images) + "," +
                     stack("Inner", track("Video", clip("Bars", 0, 12, generator)));
    std::string doc =
        R"({"OTIO_SCHEMA": "Timeline.1", "name": "Cut", "global_start_time": )" + rt(86400) +
        R"(, "tracks": {"OTIO_SCHEMA": "Stack.1", "children": [)" + track("Video", v1) + "," +
        track("Video", clip("B", 0, 12, "", R"(, "enabled": false)")) + "," +
        track("Audio", clip("C", 0, 24) + "," + iris + "," + clip("D", 0, 24)) + "]}}";
    XML::ImportResult r = import(doc);
    ASSERT_EQ(r.status, 1);
    std::vector<std::string> got;
    for (const LossRecord& l : sink->losses)
        got.push_back(l.kind.str() + " " + l.sequence.str() + " " + l.track.str() + " " +
                      std::to_string(l.frame) + " " + l.timecode.str() + " " + l.detail.str());
    // Channels in the editor's order: the top video track first.
    std::vector<std::string> want = {
        "disabled Cut V2 0 01:00:00:00 \"B\"",
        "filter Cut V1 0 01:00:00:00 Blur on \"A\"",
        "transition-as-dissolve Cut V1 24 01:00:01:00 Iris",
        "generator Cut V1 24 01:00:01:00 SolidColor \"Title\"",
        "nested-unplayed Cut V1 48 01:00:02:00 \"Empty\": nothing in it",
        "image-sequence Cut V1 60 01:00:02:12 \"Seq\"",
        "generator Cut V1 84 01:00:03:12 SolidColor \"Bars\"",
    };
    EXPECT_EQ(got, want);
}

TEST_F(OtioReading, MetadataOfOtherToolsIsNotKeptInMemory) {
    // A clip whose metadata is large: the model keeps the clip, not the text.
    std::string big(200000, 'x');
    Document model;
    ASSERT_TRUE(
        QvOtio::parseText(
            timeline("Big", track("Video", clip("A", 0, 24, "",
                                                R"(, "metadata": {"tool": {"blob": ")" + big +
                                                    R"("}, "qvxml": {"channel": 0}})"))),
            model)
            .ok);
    ASSERT_EQ(model.media.size(), 1u);
    size_t kept = 0;
    for (const QvOtio::Item& item : model.items)
        kept += item.qvxml.dump().size() + item.name.size();
    EXPECT_LT(kept, 100u);
    EXPECT_EQ(model.notes["metadata \"tool\""], 1);
}

}  // namespace
