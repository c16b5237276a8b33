// draw through the built command: pictures of sequences of any length end,
// with a ruler of about ten timecodes.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace qvtest;

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

// The page in a real browser: Debian's Chromium, headless.
TEST_F(Conform, DrawnPageShowsEveryClipInChromium) {
    const char* chromium = "/usr/bin/chromium";
    if (::access(chromium, X_OK) != 0) {
        if (std::getenv("CI")) FAIL() << "CI installs chromium";
        GTEST_SKIP() << "chromium is not installed";
    }
    const std::string document = kCorpus + "/xmeml/premiere_example.xml";
    QVTEST_NEED(fs::exists(document), "the corpus is not here");
    const std::string page = dir.file("cut.html");
    Outcome drawn = qvxml("draw " + quote(document) + " -o " + quote(page));
    ASSERT_EQ(drawn.status, 0) << drawn.err;
    Outcome info = qvxml("info --json --quiet " + quote(document));
    ASSERT_EQ(info.status, 0);
    std::size_t clips = 0;
    json described = json::parse(info.out);
    for (const json& s : described["documents"][0]["sequences"])
        clips += s["clips"].size();
    ASSERT_GT(clips, 0u) << info.out.substr(0, 400);

    const std::string browser = std::string(chromium) +
                                " --headless --no-sandbox --disable-gpu --disable-quic "
                                "--no-first-run --disable-background-networking "
                                "--disable-component-update --disable-sync --hide-scrollbars "
                                "--window-size=1280,900 --user-data-dir=";
    Outcome dom =
        run(browser + quote(dir.file("profile1")) + " --dump-dom " + quote("file://" + page));
    ASSERT_EQ(dom.status, 0) << dom.err;
    // The page's script ran and counted the boxes the browser holds.
    EXPECT_NE(dom.out.find("data-clip-boxes=\"" + std::to_string(clips) + "\""), std::string::npos)
        << clips << " clips";
    EXPECT_NE(dom.out.find(std::to_string(clips) + " clip boxes drawn"), std::string::npos);

    const std::string png = dir.file("page.png");
    Outcome shot = run(browser + quote(dir.file("profile2")) + " --screenshot=" + quote(png) + " " +
                       quote("file://" + page));
    ASSERT_EQ(shot.status, 0) << shot.err;
    std::string bytes = qvtest::readFile(png);
    ASSERT_GT(bytes.size(), 24u);
    EXPECT_EQ(bytes.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
    auto be32 = [&](size_t at) {
        return (static_cast<unsigned char>(bytes[at]) << 24) |
               (static_cast<unsigned char>(bytes[at + 1]) << 16) |
               (static_cast<unsigned char>(bytes[at + 2]) << 8) |
               static_cast<unsigned char>(bytes[at + 3]);
    };
    EXPECT_EQ(bytes.substr(12, 4), "IHDR");
    EXPECT_EQ(be32(16), 1280u);
    EXPECT_EQ(be32(20), 900u);
    // Keep the picture for a person to look at when asked.
    if (const char* keep = std::getenv("QVXML_KEEP_SCREENSHOT")) copyFile(png, keep);
}

}  // namespace
