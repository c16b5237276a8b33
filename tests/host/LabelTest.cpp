#include <gtest/gtest.h>

#include "host/Label.h"

namespace {

std::string tc(std::int64_t frame, unsigned ticks, bool df) {
    return frameToTimecode(frame, ticks, df).str();
}

TEST(DropFrame, SkipsTwoNumbersAtEachMinuteButEveryTenth) {
    EXPECT_EQ(tc(1799, 30, true), "00:00:59;29");
    EXPECT_EQ(tc(1800, 30, true), "00:01:00;02");  // ;00 and ;01 do not exist
    EXPECT_EQ(tc(3597, 30, true), "00:01:59;29");
    EXPECT_EQ(tc(3598, 30, true), "00:02:00;02");
    EXPECT_EQ(tc(17981, 30, true), "00:09:59;29");
    EXPECT_EQ(tc(17982, 30, true), "00:10:00;00");  // every tenth minute keeps them
    EXPECT_EQ(tc(17983, 30, true), "00:10:00;01");
    EXPECT_EQ(tc(107892, 30, true), "01:00:00;00");
    EXPECT_EQ(tc(1800, 30, false), "00:01:00:00");
}

TEST(DropFrame, SkipsFourNumbersAt5994) {
    EXPECT_EQ(tc(3599, 60, true), "00:00:59;59");
    EXPECT_EQ(tc(3600, 60, true), "00:01:00;04");
    EXPECT_EQ(tc(35964, 60, true), "00:10:00;00");
}

TEST(DropFrame, TextAndFrameNumbersAgreeBothWays) {
    for (unsigned ticks : {30u, 60u}) {
        for (std::int64_t f = 0; f < ticks * 60 * 21; ++f) {
            std::int64_t back = -1;
            ASSERT_TRUE(timecodeToFrame(tc(f, ticks, true).c_str(), ticks, true, back));
            ASSERT_EQ(back, f) << tc(f, ticks, true);
        }
    }
    std::int64_t f;
    EXPECT_FALSE(timecodeToFrame("00:00:00:30", 30, false, f));  // no frame 30 at 30
    EXPECT_FALSE(timecodeToFrame("01:00:00", 25, false, f));
    EXPECT_FALSE(timecodeToFrame("01:00:00:00x", 25, false, f));
    // Numbers that drop frame skips name no frame: they are no timecode.
    EXPECT_FALSE(timecodeToFrame("00:01:00;00", 30, true, f));
    EXPECT_FALSE(timecodeToFrame("00:01:00;01", 30, true, f));
    EXPECT_FALSE(timecodeToFrame("00:01:00;03", 60, true, f));
    EXPECT_TRUE(timecodeToFrame("00:10:00;00", 30, true, f));
    EXPECT_TRUE(timecodeToFrame("00:01:00;00", 30, false, f));
    EXPECT_FALSE(EditLabel("TC 5 DF 00:01:00;00 105").is_valid());
    EXPECT_TRUE(EditLabel("TC 5 NDF 00:01:00:00 105").is_valid());
}

TEST(EditLabel, KeepStringRoundTrip) {
    EditLabel l =
        editLabFrom("01:00:00;00", Qv::Image::eScanProgressive, Qv::eFrameRate29_97, true);
    ASSERT_TRUE(l.is_valid());
    EXPECT_TRUE(l.isDropFrame());
    EXPECT_EQ(l.get_format(), 7);
    EXPECT_EQ(l.get_start(), 107892);
    EXPECT_EQ(l.get_string(1800).str(), "01:01:00;02");
    char buffer[EditLabel::kKeepStringSize];
    LightweightString<char> keep = l.make_keep_string(buffer);
    EXPECT_EQ(keep.str(), "TC 5 DF 01:00:00;00 105");
    EXPECT_STREQ(buffer, keep.c_str());
    EXPECT_TRUE(EditLabel(keep.c_str()) == l);

    EXPECT_FALSE(EditLabel("TC 5 DF nonsense 105").is_valid());
    EXPECT_FALSE(EditLabel("TC 20 NDF 00:00:00:00 0").is_valid());  // no such rate
    EXPECT_FALSE(EditLabel("").is_valid());
    // Drop frame is only for the 30 and 60 timebases, with or without 1001:
    // a drop-frame label read at a whole 30 keeps its numbering.
    EXPECT_FALSE(editLabFrom(0, Qv::Image::eScanProgressive, Qv::eFrameRate25, true).isDropFrame());
    EditLabel thirty =
        editLabFrom("00:01:00;02", Qv::Image::eScanProgressive, Qv::eFrameRate30, true);
    EXPECT_TRUE(thirty.isDropFrame());
    EXPECT_EQ(thirty.get_start(), 1800);
    EXPECT_EQ(thirty.get_string(0).str(), "00:01:00;02");
    EXPECT_TRUE(EditLabel(thirty.make_keep_string(nullptr).c_str()) == thirty);
}

TEST(EditLabel, PositionsAndSamples) {
    EditLabel l = editLabFrom(90000, Qv::Image::eScanProgressive, Qv::eFrameRate25, false);
    EXPECT_EQ(l.posn_to_sample(2.0), 50);
    EXPECT_EQ(l.posn_to_sample(0.12), 3);  // on a frame boundary despite rounding
    EXPECT_DOUBLE_EQ(l.get_abs_posn(50), 3602.0);
    EXPECT_EQ(l.abs_posn_to_sample(3602.0), 50);
    EXPECT_EQ(l.get_string(l.posn_to_sample(2.0)).str(), "01:00:02:00");
}

TEST(Timecode, FieldsAreTwoDigitsAtLeastAndHoursRunOn) {
    EXPECT_EQ(tc(0, 25, false), "00:00:00:00");
    EXPECT_EQ(tc(-26, 25, false), "-00:00:01:01");
    EXPECT_EQ(tc(100LL * 3600 * 25 + 24, 25, false), "100:00:00:24");
    EXPECT_EQ(tc(119, 120, false), "00:00:00:119");
    // The lowest frame reads as the highest, negated.
    EXPECT_EQ(tc(INT64_MIN, 25, false), "-102481911520608:37:12:07");
    EXPECT_EQ(tc(5, 0, false), "");
}

}  // namespace
