// host/FrameRate, and the rate arithmetic the writers and readers build on it:
// the writers' rationals (export/XMLWriter) and sample rates (host/Audio).
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "export/XMLWriter.h"
#include "host/Audio.h"
#include "host/FrameRate.h"

namespace {

using XML::XMLWriter;

TEST(FrameRate, RationalsOfTheTableAndOfNoRate) {
    LightweightString<wchar_t> num, den;
    XMLWriter::qvFRtoRational(Qv::eFrameRate29_97, num, den);
    EXPECT_EQ(num, L"30000");
    EXPECT_EQ(den, L"1001");
    XMLWriter::qvFRtoRational(Qv::eFrameRate12_5, num, den);
    EXPECT_EQ(num, L"1250");
    EXPECT_EQ(den, L"100");
    for (int r : {0, 11, 20, 34, 48, 1000, -1}) {
        XMLWriter::qvFRtoRational(static_cast<Qv::FrameRate>(r), num, den);
        EXPECT_EQ(num, L"???") << r;
        EXPECT_EQ(den, L"???") << r;
    }
}

TEST(FrameRate, TicksAndTrueRates) {
    EXPECT_EQ(Qv::getTicksPerSecond(Qv::eFrameRate29_97), 30);
    EXPECT_EQ(Qv::getTicksPerSecond(Qv::eFrameRate23_976), 24);
    EXPECT_EQ(Qv::getTicksPerSecond(Qv::eFrameRate239_76), 240);
    EXPECT_EQ(Qv::getTicksPerSecond(static_cast<Qv::FrameRate>(20)), 0);
    EXPECT_DOUBLE_EQ(Qv::getFramesPerSecond(Qv::eFrameRate59_94), 60000.0 / 1001.0);
    EXPECT_TRUE(Qv::has1001Factor(Qv::eFrameRate119_88));
    EXPECT_FALSE(Qv::has1001Factor(Qv::eFrameRate12_5));
    EXPECT_EQ(Qv::getEquivalentQvFrameRate(30 / 1.001), Qv::eFrameRate29_97);
    EXPECT_EQ(Qv::getEquivalentQvFrameRate(29.97), Qv::eFrameRate29_97);
    EXPECT_EQ(Qv::getEquivalentQvFrameRate(25.0), Qv::eFrameRate25);
    EXPECT_EQ(Qv::getEquivalentQvFrameRate(1.0), Qv::eFrameRateNone);
    EXPECT_EQ(Qv::getEquivalentQvFrameRate(std::nan("")), Qv::eFrameRateNone);
    EXPECT_EQ(Qv::getCelQVFrameRateFromFrameRateDouble(23.0), Qv::eFrameRate23_976);
    EXPECT_EQ(Qv::getCelQVFrameRateFromFrameRateDouble(1.0), Qv::eFrameRateNone);
}

TEST(FrameCounts, RoundHalfUpAndTowardZero) {
    EXPECT_EQ(XMLWriter::celTimeToFrames(0.5, 25.0), 13);
    EXPECT_EQ(XMLWriter::celTimeToFrames(0.0, 29.97), 0);
    EXPECT_EQ(XMLWriter::celTimeToFrames(0.019, 25.0), 0);    // 0.475 + 0.5 cut to 0
    EXPECT_EQ(XMLWriter::celTimeToFrames(0.02, 25.0), 1);     // exactly half a frame up
    EXPECT_EQ(XMLWriter::celTimeToFrames(-0.088, 25.0), -1);  // -2.2 + 0.5 = -1.7 cut to -1
    EXPECT_EQ(XMLWriter::celTimeToFrames(-0.02, 25.0), 0);    // -0.5 + 0.5

    XMLExportOptions options;
    XMLWriter writer(LoggerHandle(), options, Qv::eFrameRate29_97);
    EXPECT_EQ(writer.seqCelTimeToFrames(1.0), 30);  // the whole timebase, not 29.97
}

// Each rule keeps its own halves: a position a whole number of frames from
// another rounds alike, a count rounds like its negative, and a frame as
// written agrees with the xmeml writer's count on both sides of zero.
TEST(FrameCounts, EachRuleRoundsHalvesItsOwnWay) {
    for (double at : {-7.0, -1.0, 0.0, 3.0})
        EXPECT_EQ(nearestFrame(at + 2.5) - nearestFrame(at + 0.5), 2) << at;
    EXPECT_EQ(nearestFrame(-2.5), -2);
    EXPECT_EQ(nearestFrame(-2.75), -3);
    EXPECT_EQ(nearestCount(-2.5), -3);
    EXPECT_EQ(nearestCount(2.5), 3);
    for (double t : {0.5, 0.02, -0.088, -0.02, -0.11})
        EXPECT_EQ(frameAsWritten(t * 25), XMLWriter::celTimeToFrames(t, 25.0)) << t;
    EXPECT_EQ(timebaseOf(29.97), 30);
    EXPECT_EQ(timebaseOf(23.976), 24);
    EXPECT_TRUE(std::isnan(nearestFrame(std::nan(""))));
    EXPECT_EQ(frameAsWritten(std::nan("")), 0);
    EXPECT_EQ(frameAsWritten(1e300), INT64_MAX);
}

TEST(FrameCounts, DefinedForEveryDouble) {
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(XMLWriter::celTimeToFrames(std::nan(""), 25.0), 0);
    EXPECT_EQ(XMLWriter::celTimeToFrames(inf, 25.0), INT32_MAX);
    EXPECT_EQ(XMLWriter::celTimeToFrames(-inf, 25.0), INT32_MIN);
    EXPECT_EQ(XMLWriter::celTimeToFrames(1e300, 25.0), INT32_MAX);
    EXPECT_EQ(XMLWriter::celTimeToFrames(-1e300, 25.0), INT32_MIN);
    EXPECT_EQ(XMLWriter::celTimeToFrames(1.0, std::nan("")), 0);
    EXPECT_EQ(truncateToInt64(1e300), INT64_MAX);
    EXPECT_EQ(truncateToInt64(-9.3e18), INT64_MIN);
    EXPECT_EQ(narrowToFloat(1e300), std::numeric_limits<float>::infinity());
    EXPECT_EQ(narrowToFloat(-1e300), -std::numeric_limits<float>::infinity());
    EXPECT_TRUE(std::isnan(narrowToFloat(std::nan(""))));
}

TEST(Rationals, TruncatedAtFourPlaces) {
    LightweightString<wchar_t> num, den;
    XMLWriter::doubletoRational(25.0, num, den);
    EXPECT_EQ(num, L"250000");
    EXPECT_EQ(den, L"10000");
    XMLWriter::doubletoRational(23.976023976, num, den);
    EXPECT_EQ(num, L"239760");
    XMLWriter::doubletoRational(-1.0, num, den);
    EXPECT_EQ(num, L"-10000");
    XMLWriter::doubletoRational(0.00009, num, den);
    EXPECT_EQ(num, L"0");
    XMLWriter::doubletoRational(std::nan(""), num, den);
    EXPECT_EQ(num, L"0");
}

TEST(Mediums, PositionsLandOnFramesOfTheTargetMedium) {
    MediumRollMedium pal =
        getMediumRollfromInputDetails(Qv::Image::eScanProgressive, Qv::eFrameRate25);
    EXPECT_EQ(getFrameRatefromMedium(pal), Qv::eFrameRate25);
    MPosn_Xlate_Params p(Qv::eFrameRateNone, Qv::eFrameRateNone);
    EXPECT_DOUBLE_EQ(mPosn_Xlate(10.03, kMediumRealTime, pal, p), 10.04);
    EXPECT_DOUBLE_EQ(mPosn_Xlate(10.03, kMediumRealTime, kMediumNone, p), 10.03);
    // Any medium a label or snapshot may carry, the ends of the range
    // included (the suite runs under UBSan too).
    for (MediumRollMedium m : {INT32_MIN, INT32_MIN + 1, -1, 0, 100, 101, 147, 148, INT32_MAX}) {
        Qv::FrameRate r = getFrameRatefromMedium(m);
        EXPECT_TRUE(r == Qv::eFrameRateNone || Qv::isKnownFrameRate(r)) << m;
        EXPECT_TRUE(std::isfinite(mPosn_Xlate(1.5, kMediumRealTime, m, p))) << m;
    }
    EXPECT_EQ(getFrameRatefromMedium(INT32_MIN), Qv::eFrameRateNone);
}

TEST(SampleRates, FactorsAndBases) {
    Aud::eFactor f = Aud::eFactorNone;
    EXPECT_TRUE(Aud::isOk(Aud::SampleRate::determineFactorFromFloat(f, 1.0)));
    EXPECT_EQ(f, Aud::eFactor1);
    EXPECT_TRUE(Aud::isOk(Aud::SampleRate::determineFactorFromFloat(f, 47952.0 / 48000.0)));
    EXPECT_EQ(f, Aud::eFactorPullDown);
    EXPECT_FALSE(Aud::isOk(Aud::SampleRate::determineFactorFromFloat(f, 1.3)));
    EXPECT_DOUBLE_EQ(Aud::SampleRate(Aud::eBase48000, Aud::eFactorDouble).hertz(), 96000.0);
}

}  // namespace
