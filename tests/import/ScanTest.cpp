// The readers' number scanner: what it takes from a text, as the readers
// always took it, and whether the text is a number the field can use.
#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <string>

#include "import/Scan.h"

namespace {

using XML::Damage;
using XML::scanDouble;
using XML::scanInt;

TEST(Scan, WholeNumbersAsDocumentsWriteThem) {
    struct Case {
        const char* text;
        int value;
    };
    // Premiere writes "326400.0"; blanks around a number and a trailing
    // word are what real documents have too.
    for (const Case& c : {Case{"25", 25},
                          {"-1", -1},
                          {"+7", 7},
                          {"326400.0", 326400},
                          {" \n 30 \t", 30},
                          {"12.5", 12},
                          {"24fps", 24},
                          {"1e", 1},
                          {"2147483647", INT_MAX},
                          {"-2147483648", INT_MIN}}) {
        int v = -99;
        XML::Scanned s = scanInt(c.text, v);
        EXPECT_TRUE(s) << c.text;
        EXPECT_TRUE(s.usable()) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
    }
    // Blanks alone are no text, as an empty element is: the default stays.
    int v = 5;
    XML::Scanned blank = scanInt("  \n", v);
    EXPECT_FALSE(blank);
    EXPECT_TRUE(blank.usable());
    EXPECT_EQ(v, 5);
}

TEST(Scan, DamagedWholeNumbersAreToldAndReadAsBefore) {
    struct Case {
        const char* text;
        Damage damage;
        bool read;
        int value;  // what the readers always took
    };
    for (const Case& c : {Case{"NaN", Damage::NotFinite, false, 5},
                          {"-Infinity", Damage::NotFinite, false, 5},
                          {"inf", Damage::NotFinite, false, 5},
                          {"abc", Damage::NotANumber, false, 5},
                          {"-", Damage::NotANumber, false, 5},
                          {"0x10", Damage::Hexadecimal, true, 0},
                          {"1e300", Damage::OutOfRange, true, 1},
                          {"2.5E3", Damage::Exponent, true, 2},
                          {"1e-5", Damage::Exponent, true, 1},
                          {"99999999999", Damage::OutOfRange, true, INT_MAX},
                          {"-99999999999", Damage::OutOfRange, true, INT_MIN}}) {
        int v = 5;
        XML::Scanned s = scanInt(c.text, v);
        EXPECT_EQ(s.damage, c.damage) << c.text;
        EXPECT_EQ(static_cast<bool>(s), c.read) << c.text;
        EXPECT_EQ(v, c.value) << c.text;
    }
    // An exponent that writes the number taken changes nothing.
    int v = 0;
    EXPECT_TRUE(scanInt("3e0", v).usable());
    EXPECT_EQ(v, 3);
}

TEST(Scan, TheFieldsRange) {
    int v = 0;
    EXPECT_EQ(scanInt("0", v, 1).damage, Damage::OutOfRange) << "a rate of no frames";
    EXPECT_EQ(scanInt("-25", v, 1).damage, Damage::OutOfRange);
    EXPECT_TRUE(scanInt("48000", v, 1).usable()) << "sound counts samples";
    EXPECT_EQ(scanInt("61", v, 0, 60).damage, Damage::OutOfRange);
    EXPECT_EQ(scanInt("1e2", v, 0, 60).damage, Damage::OutOfRange);
}

TEST(Scan, Decimals) {
    struct Case {
        const char* text;
        Damage damage;
    };
    for (const Case& c : {Case{"65.2857", Damage::None},
                          {"-0.5", Damage::None},
                          {"1e3", Damage::None},
                          {"NaN", Damage::NotFinite},
                          {"-infinity", Damage::NotFinite},
                          {"0x10", Damage::Hexadecimal},
                          {"-0X1p4", Damage::Hexadecimal},
                          {"1e400", Damage::OutOfRange},
                          {"abc", Damage::NotANumber}}) {
        double v = 0;
        EXPECT_EQ(scanDouble(c.text, v).damage, c.damage) << c.text;
    }
    double v = 0;
    EXPECT_EQ(scanDouble("1e300", v, INT_MAX).damage, Damage::OutOfRange);
    EXPECT_EQ(v, 1e300) << "the value is taken as before";
    EXPECT_TRUE(scanDouble("2147483647", v, INT_MAX).usable());
    v = 7;
    EXPECT_FALSE(scanDouble(" ", v));
    EXPECT_EQ(v, 7);
}

TEST(Scan, LinesAndWhatIsSaid) {
    XML::LineCounter lines("a\nb\n\nc");
    EXPECT_EQ(lines.lineOf(0), 1u);
    EXPECT_EQ(lines.lineOf(2), 2u);
    EXPECT_EQ(lines.lineOf(5), 4u);
    EXPECT_EQ(lines.lineOf(1), 1u) << "an offset before the last one asked";
    EXPECT_EQ(lines.lineOf(999), 4u);
    EXPECT_EQ(XML::LineCounter().lineOf(10), 1u);

    EXPECT_EQ(XML::unusableText("start", nullptr, "NaN", 12, Damage::NotFinite).str(),
              "<start> \"NaN\" on line 12 is not a finite number");
    EXPECT_EQ(XML::unusableText("Rate", "num", "0x19", 3, Damage::Hexadecimal).str(),
              "num of <Rate> \"0x19\" on line 3 is a hexadecimal number");
    // What a document holds cannot drive a terminal, nor fill the screen.
    std::string long_text = "\x1b]0;title\x07\"" + std::string(100, '9');
    std::string said =
        XML::unusableText("in", nullptr, long_text.c_str(), 1, Damage::OutOfRange).str();
    EXPECT_EQ(said.find('\x1b'), std::string::npos);
    EXPECT_EQ(said.find('\x07'), std::string::npos);
    EXPECT_LT(said.size(), 100u);
}

}  // namespace
