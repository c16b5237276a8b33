// draw through the built command: pictures of sequences of any length end,
// with a ruler of about ten timecodes.
#include <gtest/gtest.h>

#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::Outcome;
using qvtest::quote;
using qvtest::qvxml;

std::size_t count(const std::string& text, const std::string& what) {
    std::size_t n = 0;
    for (std::size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

// An xmeml document of one sequence at 25 fps whose one clip ends at `frames`.
std::string sequenceOf(long frames) {
    const std::string end = std::to_string(frames), start = std::to_string(frames - 50);
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xmeml version=\"5\">\n"
           "<sequence id=\"s\"><name>Long</name><duration>" +
           end +
           "</duration><rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>\n"
           "<media><video><track><clipitem id=\"c\"><name>c</name><duration>50</duration>"
           "<rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate><start>" +
           start + "</start><end>" + end +
           "</end><in>0</in><out>50</out>\n"
           "<file id=\"f\"><name>f.mov</name><pathurl>file://localhost/m/f.mov</pathurl>"
           "<duration>50</duration><rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>"
           "</file></clipitem></track></video></media></sequence></xmeml>\n";
}

TEST(Draw, RulerHasAboutTenTimecodesAtAnyLength) {
    qvtest::TempDir dir;
    // A minute, a working day, and a hundred hours.
    for (long frames : {1500L, 25L * 3600 * 10, 25L * 3600 * 100}) {
        const std::string document = dir.file(std::to_string(frames) + ".xml");
        const std::string picture = dir.file(std::to_string(frames) + ".svg");
        qvtest::writeFile(document, sequenceOf(frames));
        Outcome drawn = qvxml("draw --quiet " + quote(document) + " -o " + quote(picture));
        ASSERT_EQ(drawn.status, 0) << drawn.err;
        std::size_t ticks = count(qvtest::readFile(picture), "class=\"tick\"");
        EXPECT_GE(ticks, 2u) << frames;
        EXPECT_LE(ticks, 13u) << frames;
    }
}

TEST(Draw, SequenceOfUnusableLengthIsDrawnAndEnds) {
    qvtest::TempDir dir;
    const std::string document =
        std::string(QVXML_TEST_DATA) + "/native/draw_length_unknown_rate.xml";
    // Its times cannot be trusted: refused as it stands, drawn with --lenient.
    const std::string refused = dir.file("refused.html");
    Outcome strict = qvxml("draw --quiet " + quote(document) + " -o " + quote(refused));
    EXPECT_EQ(strict.status, 10) << strict.err;
    EXPECT_FALSE(qvtest::exists(refused));

    const std::string picture = dir.file("page.html");
    Outcome drawn = qvxml("draw --quiet --lenient " + quote(document) + " -o " + quote(picture));
    ASSERT_TRUE(drawn.status == 0 || drawn.status == 10) << drawn.status << drawn.err;
    const std::string page = qvtest::readFile(picture);
    EXPECT_EQ(count(page, "<svg "), 1u);
    EXPECT_LE(count(page, "class=\"tick\""), 26u);
}

}  // namespace
