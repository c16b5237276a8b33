// Audio sample rates: a base rate and a factor that pulls it up or down.
#pragma once

#include "host/FrameRate.h"

namespace Aud {

enum eBaseSampleRate {
    eBaseNone = 0,
    eBaseUnknown = 1,
    eBase8000 = 2,
    eBase11025 = 3,
    eBase16000 = 4,
    eBase22050 = 5,
    eBase24000 = 6,
    eBase32000 = 7,
    eBase44100 = 8,
    eBase48000 = 9,
    eBase96000 = 10,
};

enum eFactor {
    eFactorNone = 0,
    eFactor1 = 1,
    eFactorPullDown = 2,  // x 1000/1001
    eFactorPullUp = 3,    // x 1001/1000
    eFactor25over24 = 4,
    eFactor24over25 = 5,
    eFactorDouble = 6,
    eFactorQuadruple = 7,
    eFactorHalf = 8,
};

enum eStatus { eOk = 0, eNoMatch = 1 };
inline bool isOk(eStatus s) {
    return s == eOk;
}

class SampleRate {
  public:
    explicit SampleRate(eBaseSampleRate base = eBaseNone, eFactor factor = eFactor1)
        : base_(base), factor_(factor) {}
    eBaseSampleRate base() const { return base_; }
    eFactor factor() const { return factor_; }
    // The rate in hertz; 0 without a base.
    double hertz() const;
    bool operator==(const SampleRate&) const = default;

    static double calcBaseSampleRate(eBaseSampleRate base);
    static double factorValue(eFactor factor);
    // The factor that a ratio of a rate to a base rate stands for, within a
    // hundredth of a percent.
    static eStatus determineFactorFromFloat(eFactor& factor, double ratio);

  private:
    eBaseSampleRate base_;
    eFactor factor_;
};

namespace Util {
// Audio recorded beside 1001 video plays pulled down.
eFactor determineNaturalPlaybackResamplingFactor(Qv::FrameRate rate);
}  // namespace Util

}  // namespace Aud
