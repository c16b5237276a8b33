// The model of a document whose fields hold other JSON types than their
// schema's, or times no timeline can hold: each is named by its path, what
// the reading used instead is said, and nothing throws.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "otio/OtioModel.h"

namespace {

bool holds(const std::vector<std::string>& lines, const std::string& part) {
    return std::any_of(lines.begin(), lines.end(),
                       [&](const std::string& l) { return l.find(part) != std::string::npos; });
}

std::string time(const std::string& value, const std::string& rate) {
    return R"({"OTIO_SCHEMA": "RationalTime.1", "value": )" + value + R"(, "rate": )" + rate + "}";
}

std::string gap(const std::string& start, const std::string& duration) {
    return R"({"OTIO_SCHEMA": "Gap.1", "source_range": {"start_time": )" + start +
           R"(, "duration": )" + duration + "}}";
}

TEST(OtioModelFields, WrongTypesAreNamedByPathAndReadAsTheDefault) {
    std::string text = R"({"OTIO_SCHEMA": "Timeline.1", "name": "t", "tracks":
        {"OTIO_SCHEMA": "Stack.1", "children": [
          {"OTIO_SCHEMA": "Track.1", "kind": {"a": 1}, "children": [
            {"OTIO_SCHEMA": "Clip.2", "name": null, "enabled": [], "source_range": "x",
             "media_references": 4, "markers": {}, "effects": "e"},
            7,
            {"OTIO_SCHEMA": "Transition.1", "transition_type": false, "metadata": []}]},
          {"OTIO_SCHEMA": "Track.1", "kind": "Audio", "children": {"OTIO_SCHEMA": "Gap.1"}}]}})";
    QvOtio::Document doc;
    ASSERT_TRUE(QvOtio::parseText(text, doc).ok);
    const auto& w = doc.wrongTypes;
    EXPECT_TRUE(holds(w, "\"tracks/children/0/children/0/name\" is null, not text"));
    EXPECT_TRUE(holds(w,
                      "\"tracks/children/0/children/0/enabled\" is an array, not true or false: "
                      "read as true"));
    EXPECT_TRUE(holds(w, "\"tracks/children/0/children/0/source_range\" is a string"));
    EXPECT_TRUE(holds(w, "\"tracks/children/0/children/0/media_references\" is a number"));
    EXPECT_TRUE(holds(w, "\"tracks/children/0/children/0/markers\" is an object"));
    EXPECT_TRUE(holds(w, "\"tracks/children/0/children/0/effects\" is a string"));
    EXPECT_TRUE(holds(w, "\"tracks/children/0/children/2/transition_type\" is a boolean"));
    EXPECT_TRUE(holds(w, "\"tracks/children/0/children/2/metadata\" is an array"));
    EXPECT_TRUE(holds(w, "\"tracks/children/0/kind\" is an object"));
    EXPECT_TRUE(holds(w, "\"tracks/children/1/children\" is an object, not an array"));
    EXPECT_EQ(doc.passedOver, std::vector<std::string>{"tracks/children/0/children/1"});
    // The clip is still an item, with the defaults the warnings name.
    auto clip = std::find_if(doc.items.begin(), doc.items.end(), [](const QvOtio::Item& i) {
        return i.kind == QvOtio::ItemKind::Clip;
    });
    ASSERT_NE(clip, doc.items.end());
    EXPECT_TRUE(clip->enabled);
    EXPECT_TRUE(clip->name.empty());
    EXPECT_FALSE(clip->sourceRange.valid());
    EXPECT_TRUE(doc.unusableTimes.empty());
}

TEST(OtioModelFields, TimesNoTimelineCanHoldAreNamedByPath) {
    std::string ok = time("0", "24");
    std::string text = R"({"OTIO_SCHEMA": "Track.1", "kind": "Video", "children": [)" +
                       gap(ok, time("NaN", "24")) + "," + gap(ok, time("Infinity", "24")) + "," +
                       gap(ok, time("1e300", "24")) + "," + gap(ok, time("10", "0")) + "," +
                       gap(ok, time("10", "-25")) + "," + gap(ok, time("-5", "24")) + "," +
                       gap(time("-48", "24"), time("10", "48000")) + "]}";
    QvOtio::Document doc;
    ASSERT_TRUE(QvOtio::parseText(text, doc).ok);
    const auto& u = doc.unusableTimes;
    EXPECT_TRUE(holds(u, "\"children/0/source_range/duration/value\" is not a number"));
    EXPECT_TRUE(holds(u, "\"children/1/source_range/duration/value\" is infinite"));
    EXPECT_TRUE(holds(u, "\"children/2/source_range/duration/value\" is out of range"));
    EXPECT_TRUE(holds(u, "\"children/3/source_range/duration/rate\" is not a rate above 0"));
    EXPECT_TRUE(holds(u, "\"children/4/source_range/duration/rate\" is not a rate above 0"));
    EXPECT_TRUE(holds(u, "\"children/5/source_range/duration/value\" is a negative duration"));
    // A start before zero and an audio rate are times like any other.
    EXPECT_EQ(u.size(), 6u);
    // Numbers of the namespace are not times of the timeline.
    QvOtio::Document ours;
    ASSERT_TRUE(QvOtio::parseText(R"({"OTIO_SCHEMA": "Track.1", "metadata": {"qvxml":
        {"duration": {"value": NaN, "rate": 0}}}, "children": []})",
                                  ours)
                    .ok);
    EXPECT_TRUE(ours.unusableTimes.empty());
}

}  // namespace
