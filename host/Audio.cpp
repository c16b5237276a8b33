#include "host/Audio.h"

#include <cmath>

namespace Aud {

double SampleRate::calcBaseSampleRate(eBaseSampleRate base) {
    switch (base) {
        case eBase8000:
            return 8000;
        case eBase11025:
            return 11025;
        case eBase16000:
            return 16000;
        case eBase22050:
            return 22050;
        case eBase24000:
            return 24000;
        case eBase32000:
            return 32000;
        case eBase44100:
            return 44100;
        case eBase48000:
            return 48000;
        case eBase96000:
            return 96000;
        default:
            return 0;
    }
}

double SampleRate::factorValue(eFactor factor) {
    switch (factor) {
        case eFactor1:
            return 1.0;
        case eFactorPullDown:
            return 1000.0 / 1001.0;
        case eFactorPullUp:
            return 1001.0 / 1000.0;
        case eFactor25over24:
            return 25.0 / 24.0;
        case eFactor24over25:
            return 24.0 / 25.0;
        case eFactorDouble:
            return 2.0;
        case eFactorQuadruple:
            return 4.0;
        case eFactorHalf:
            return 0.5;
        default:
            return 0.0;
    }
}

double SampleRate::hertz() const {
    return calcBaseSampleRate(base_) * factorValue(factor_);
}

eStatus SampleRate::determineFactorFromFloat(eFactor& factor, double ratio) {
    if (!std::isfinite(ratio) || ratio <= 0) return eNoMatch;
    for (int f = eFactor1; f <= eFactorHalf; ++f) {
        double v = factorValue(static_cast<eFactor>(f));
        if (std::fabs(ratio - v) <= v * 0.0001) {
            factor = static_cast<eFactor>(f);
            return eOk;
        }
    }
    return eNoMatch;
}

namespace Util {
eFactor determineNaturalPlaybackResamplingFactor(Qv::FrameRate rate) {
    return Qv::has1001Factor(rate) ? eFactorPullDown : eFactor1;
}
}  // namespace Util

}  // namespace Aud
