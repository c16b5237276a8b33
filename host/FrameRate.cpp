#include "host/FrameRate.h"

#include <array>
#include <cmath>
#include <limits>

namespace Qv {

namespace {

struct RateRow {
    FrameRate rate;
    unsigned char ticks;
    const wchar_t* num;
    const wchar_t* den;
    const wchar_t* plain;
};

// 12.5 has no whole timebase; it counts in 12.
const RateRow kRates[] = {
    {eFrameRate24, 24, L"24", L"1", L"24"},
    {eFrameRate23_976, 24, L"24000", L"1001", L"23.98"},
    {eFrameRate25, 25, L"25", L"1", L"25"},
    {eFrameRate30, 30, L"30", L"1", L"30"},
    {eFrameRate29_97, 30, L"30000", L"1001", L"29.97"},
    {eFrameRate48, 48, L"48", L"1", L"48"},
    {eFrameRate47_952, 48, L"48000", L"1001", L"47.95"},
    {eFrameRate50, 50, L"50", L"1", L"50"},
    {eFrameRate60, 60, L"60", L"1", L"60"},
    {eFrameRate59_94, 60, L"60000", L"1001", L"59.94"},
    {eFrameRate12, 12, L"12", L"1", L"12"},
    {eFrameRate11_988, 12, L"12000", L"1001", L"11.99"},
    {eFrameRate12_5, 12, L"1250", L"100", L"12.5"},
    {eFrameRate15, 15, L"15", L"1", L"15"},
    {eFrameRate14_985, 15, L"15000", L"1001", L"14.99"},
    {eFrameRate20, 20, L"20", L"1", L"20"},
    {eFrameRate80, 80, L"80", L"1", L"80"},
    {eFrameRate90, 90, L"90", L"1", L"90"},
    {eFrameRate100, 100, L"100", L"1", L"100"},
    {eFrameRate120, 120, L"120", L"1", L"120"},
    {eFrameRate119_88, 120, L"120000", L"1001", L"119.88"},
    {eFrameRate240, 240, L"240", L"1", L"240"},
    {eFrameRate239_76, 240, L"240000", L"1001", L"239.76"},
};

const RateRow* row(FrameRate rate) {
    for (const RateRow& r : kRates)
        if (r.rate == rate) return &r;
    return nullptr;
}

// The true rate of a row, from its rational; worked out once, since the
// readers ask for rates at every record.
double exactFps(const RateRow& r) {
    static const auto table = [] {
        std::array<double, sizeof kRates / sizeof kRates[0]> fps{};
        for (std::size_t i = 0; i < fps.size(); ++i)
            fps[i] = std::wcstod(kRates[i].num, nullptr) / std::wcstod(kRates[i].den, nullptr);
        return fps;
    }();
    return table[static_cast<std::size_t>(&r - kRates)];
}

FrameRate nearest(double fps, double tolerance, bool relative) {
    if (!(fps > 0) || !std::isfinite(fps)) return eFrameRateNone;
    FrameRate best = eFrameRateNone;
    double bestDistance = std::numeric_limits<double>::infinity();
    for (const RateRow& r : kRates) {
        double d = std::fabs(exactFps(r) - fps);
        if (relative) d /= exactFps(r);
        if (d < bestDistance) {
            bestDistance = d;
            best = r.rate;
        }
    }
    return bestDistance <= tolerance ? best : eFrameRateNone;
}

}  // namespace

bool isKnownFrameRate(FrameRate rate) {
    return row(rate) != nullptr;
}

unsigned char getTicksPerSecond(FrameRate rate) {
    const RateRow* r = row(rate);
    return r ? r->ticks : 0;
}

double getFramesPerSecond(FrameRate rate) {
    const RateRow* r = row(rate);
    return r ? exactFps(*r) : 0.0;
}

bool has1001Factor(FrameRate rate) {
    const RateRow* r = row(rate);
    return r && std::wstring_view(r->den) == L"1001";
}

FrameRate getEquivalentQvFrameRate(double fps) {
    return nearest(fps, 0.01, false);
}

FrameRate getCelQVFrameRateFromFrameRateDouble(double fps) {
    return nearest(fps, 0.05, true);
}

LightweightString<wchar_t> getPlainString(FrameRate rate) {
    const RateRow* r = row(rate);
    return r ? LightweightString<wchar_t>(r->plain) : LightweightString<wchar_t>();
}

void frameRateRational(FrameRate rate, LightweightString<wchar_t>& num,
                       LightweightString<wchar_t>& den) {
    const RateRow* r = row(rate);
    num = r ? r->num : L"???";
    den = r ? r->den : L"???";
}

const FrameRate* allFrameRates(int& count) {
    static FrameRate rates[sizeof kRates / sizeof kRates[0]];
    static bool filled = [] {
        for (size_t i = 0; i < sizeof kRates / sizeof kRates[0]; ++i)
            rates[i] = kRates[i].rate;
        return true;
    }();
    (void)filled;
    count = static_cast<int>(sizeof kRates / sizeof kRates[0]);
    return rates;
}

}  // namespace Qv

Qv::FrameRate getFrameRatefromMedium(MediumRollMedium medium) {
    if (medium <= kMediumVideoBase) return Qv::eFrameRateNone;
    Qv::FrameRate rate = static_cast<Qv::FrameRate>(medium - kMediumVideoBase);
    return Qv::isKnownFrameRate(rate) ? rate : Qv::eFrameRateNone;
}

MediumRollMedium getMediumRollfromInputDetails(Qv::Image::ScanMode, Qv::FrameRate rate) {
    return Qv::isKnownFrameRate(rate) ? kMediumVideoBase + rate : kMediumNone;
}

MediumRollMedium getMediumRollfromOutputDetails(Qv::Image::ScanMode scan, Qv::FrameRate rate) {
    return getMediumRollfromInputDetails(scan, rate);
}

LabelType timecodeFormatFor(Qv::FrameRate rate, bool dropFrame) {
    switch (Qv::getTicksPerSecond(rate)) {
        case 24:
            return 1;
        case 25:
            return 3;
        // Drop-frame numbering is defined on the whole timebase: a 30 or 60
        // label may count drop frame whether or not its rate says 1001.
        case 30:
            return dropFrame ? 7 : 5;
        case 48:
            return 9;
        case 50:
            return 11;
        case 60:
            return dropFrame ? 33 : 31;
        default:
            return Qv::isKnownFrameRate(rate) ? 200 + rate : 0;
    }
}

bool isDropFrameFormat(LabelType format) {
    return format == 7 || format == 33;
}

LabelType getDefaultLabelTypeforFrameRate(Qv::FrameRate rate) {
    return timecodeFormatFor(rate, Qv::has1001Factor(rate));
}

double mPosn_Xlate(double position, MediumRollMedium, MediumRollMedium to,
                   const MPosn_Xlate_Params&) {
    Qv::FrameRate rate = getFrameRatefromMedium(to);
    unsigned ticks = Qv::getTicksPerSecond(rate);
    if (ticks == 0 || !std::isfinite(position)) return position;
    return nearestFrame(position * ticks) / ticks;
}

std::int32_t truncateToInt32(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 2147483647.0) return std::numeric_limits<std::int32_t>::max();
    if (value <= -2147483648.0) return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(value);
}

std::int64_t truncateToInt64(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 9223372036854775807.0) return std::numeric_limits<std::int64_t>::max();
    if (value <= -9223372036854775808.0) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(value);
}

float narrowToFloat(double value) {
    constexpr double kMax = std::numeric_limits<float>::max();
    if (value > kMax) return std::numeric_limits<float>::infinity();
    if (value < -kMax) return -std::numeric_limits<float>::infinity();
    return static_cast<float>(value);
}
