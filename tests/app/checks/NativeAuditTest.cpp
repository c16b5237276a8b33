#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "app/checks/DocumentCheck.h"
#include "tests/support/TestSupport.h"

namespace {

using qvapp::auditNative;
using qvapp::Finding;

const std::string kExample = std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";

// The example with `from` replaced by `to` (the first time, or every time).
std::string example(const std::string& from, const std::string& to, bool all = false) {
    std::string doc = qvtest::readFile(kExample);
    for (std::size_t at = doc.find(from); at != std::string::npos; at = doc.find(from, at)) {
        doc.replace(at, from.size(), to);
        at += to.size();
        if (!all) break;
    }
    return doc;
}

std::string describe(const std::vector<Finding>& found) {
    std::string out;
    for (const Finding& f : found)
        out += std::to_string(f.at.line) + ":" + std::to_string(f.at.column) +
               (f.untrusted ? " untrusted: " : " ") + f.what + "\n";
    return out;
}

TEST(NativeAudit, AWellMadeDocumentHasNothingToTell) {
    EXPECT_EQ(describe(auditNative(qvtest::readFile(kExample), true)), "");
}

// Each case in which the reader reads on without a word gets one finding,
// named by element and place; those that misplace the timeline cannot be
// trusted.
TEST(NativeAudit, WhatTheReadersPassOverIsTold) {
    struct Case {
        std::string doc;
        bool version2;
        const char* says;
    };
    const std::string editRate =
        "<Rate num=\"250000\" den=\"10000\"/>\n        <ChanList>\n"
        "            <Chan>\n                <Name>V1</Name>\n"
        "                <Id>E-";
    const Case cases[] = {
        {example(editRate, "<Rate num=\"70000\" den=\"10000\"/>" + editRate.substr(33)), true,
         "74:9 untrusted: <Rate> 7 of the Edit \"Interview cut\" is no frame rate qvxml knows: "
         "none of its times can be read\n"},
        {example(editRate, editRate.substr(33)), true,
         "71:5 untrusted: the Edit \"Interview cut\" has no valid <Rate>: none of its times can "
         "be read\n"},
        {example("<EditIn>12</EditIn>", "<EditIn>-12</EditIn>"), true,
         "101:21 untrusted: <EditIn> -12 of <CelEvent> 3 of the video channel 1 of the Edit "
         "\"Interview cut\" is negative: the reader takes it as 4294967284 frames\n"},
        {example("<Duration>30</Duration>", "<Duration>0</Duration>"), true,
         "73:9 <Duration> 0 of the Edit \"Interview cut\" divides the positions of its level "
         "keyframes, which become infinite or no numbers, and are lost\n"},
        {example("S-35d53f6e-ea0b084e-de5293e5-c296ba3a-00-00</Ref>",
                 "S-45d53f6e-ea0b084e-de5293e5-c296ba3a-00-00</Ref>"),
         true,
         "133:21 <Ref> \"S-45d53f6e-ea0b084e-de5293e5-c296ba3a-00-00\" of <CelEvent> 2 of the "
         "audio channel 2 of the Edit \"Interview cut\" names no channel of the document: it "
         "plays black or silence\n"},
        {example("TC 3 NDF 01:00:00:00 103", "TC 5 DF 00:01:00;00 105"), true,
         "170:9 <Label> \"TC 5 DF 00:01:00;00 105\" of the Edit \"Interview cut\" is no timecode "
         "label (a rate, DF or NDF, a timecode that exists, a medium): it is left out\n"},
        {example("9c484f83-02-00</Id>\n                <Type>Audio</Type>",
                 "9c484f83-02-00</Id>\n                <Type>Picture</Type>"),
         true,
         "141:13 channel 3 of the Edit \"Interview cut\" has no <Type> Video or Audio: it is "
         "left out\n"},
        {example("<Offset>3</Offset>\n                </CelEvent>\n                <CelEvent>",
                 "</CelEvent>\n                <CelEvent>"),
         true,
         "81:17 <CelEvent> 1 of the video channel 1 of the Edit \"Interview cut\" has no "
         "<Offset>: it is left out\n81:17 so are the 4 <CelEvent>s after it in its channel\n"},
        // A version 1.0 document reads every time at the rate of its EditRes.
        {example("<QVXML Version=\"2.0\">",
                 "<QVXML Version=\"1.0\"><EditRes num=\"1\" den=\"1\"/>"),
         false,
         "3:22 untrusted: <EditRes> 1 is no frame rate qvxml knows: no time of the document can "
         "be read\n"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(describe(auditNative(c.doc, c.version2)), c.says);
}

// Hostile values: numbers that are no numbers, more labels than a record
// holds, a document that stops at a NUL byte.
TEST(NativeAudit, HostileValues) {
    std::string labels;
    for (int i = 0; i < 12; ++i)
        labels += "<Label Str=\"TC 3 NDF 01:00:00:00 103\"/>";
    std::string many =
        example("<Label Str=\"TC 3 NDF 01:00:00:00 103\"/>\n    </Edit>", labels + "</Edit>");
    EXPECT_NE(describe(auditNative(many, true))
                  .find("the Edit \"Interview cut\" has 12 <Label>s; a record holds 10"),
              std::string::npos);
    std::string nul = example("<Edit>", std::string("\0<Edit>", 7));
    EXPECT_EQ(describe(auditNative(nul, true)), "") << "the part before the NUL is whole";
    const std::pair<const char*, const char*> numbers[] = {
        {"nan", "is no number: the reader takes it as 0"},
        {"1e300", "is no whole number: the reader takes it as 1"},
        {"99999999999", "is past what a frame count holds: the reader takes it as 2147483647"},
        {"-2147483649", "is past what a frame count holds: the reader takes it as -2147483648"},
    };
    for (const auto& [text, says] : numbers) {
        std::vector<Finding> found = auditNative(
            example("<EditIn>12</EditIn>", std::string("<EditIn>") + text + "</EditIn>"), true);
        ASSERT_EQ(found.size(), 1u) << text;
        EXPECT_TRUE(found[0].untrusted);
        EXPECT_NE(found[0].what.find(says), std::string::npos) << found[0].what;
    }
    EXPECT_TRUE(
        auditNative(example("<EditIn>12</EditIn>", "<EditIn> +12 </EditIn>"), true).empty());
}

class NonFiniteTest : public qvtest::StoreTest {};

TEST_F(NonFiniteTest, NotANumberInTheTimelineIsUntrustedElsewhereLost) {
    Qv::Ptr<Edit> shot = qvtest::addShot(store, L"shot", 25, 4);
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"cut", Qv::eFrameRate25);
    qvtest::addCel(seq, 0, qvtest::playCookie(shot, 0), 0, 2, 0);
    EXPECT_TRUE(qvapp::unusableValues(qvapp::editAndSources(seq), 10).named.empty());
    EXPECT_EQ(qvapp::editAndSources(seq).size(), 2u);

    shot->length = INFINITY;
    seq->channels[1].levels.push_back({NAN, 1.0f});
    qvapp::Unusable found = qvapp::unusableValues({seq, shot}, 10);
    EXPECT_FALSE(found.untrusted) << "a shot's length and a level keyframe are lost alone";
    ASSERT_EQ(found.named.size(), 2u);
    EXPECT_EQ(found.named[0].what,
              "1 of the 1 level keyframes of channel 2 of edit \"cut\" have a position or value "
              "that is not a finite number, and are lost");
    EXPECT_EQ(found.named[1].what, "the length of shot \"shot\" is infinite");

    seq->channels[0].cels[0].editOut = NAN;
    found = qvapp::unusableValues({seq}, 0);
    EXPECT_TRUE(found.untrusted) << "counted past the limit too";
    EXPECT_EQ(found.more, 2u);
    EXPECT_EQ(qvapp::unusableValues({seq}, 10).named[0].what,
              "the end of cel 1 of channel 1 of edit \"cut\" is no number");
    // A time past what a frame count holds is written as a count that looks
    // right and is not.
    seq->channels[0].cels[0].editOut = 1e300;
    found = qvapp::unusableValues({seq}, 10);
    EXPECT_TRUE(found.untrusted);
    EXPECT_EQ(found.named[0].what,
              "the end of cel 1 of channel 1 of edit \"cut\" is 1e+300 "
              "seconds, more than a frame count can hold");
}

}  // namespace
