#include "host/Label.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>

namespace {

// Frame numbers dropped at each minute but every tenth.
unsigned droppedPerMinute(unsigned ticks, bool dropFrame) {
    if (!dropFrame) return 0;
    if (ticks == 30) return 2;
    if (ticks == 60) return 4;
    return 0;
}

}  // namespace

LightweightString<char> frameToTimecode(std::int64_t frame, unsigned ticks, bool dropFrame) {
    if (ticks == 0) return {};
    std::string sign;
    if (frame < 0) {
        sign = "-";
        frame = frame == INT64_MIN ? INT64_MAX : -frame;
    }
    const std::int64_t drop = droppedPerMinute(ticks, dropFrame);
    if (drop) {
        const std::int64_t perMinute = ticks * 60 - drop;
        const std::int64_t perTenMinutes = ticks * 600 - drop * 9;
        std::int64_t tens = frame / perTenMinutes;
        std::int64_t rest = frame % perTenMinutes;
        frame += drop * 9 * tens;
        if (rest > drop) frame += drop * ((rest - drop) / perMinute);
    }
    std::int64_t ff = frame % ticks;
    std::int64_t seconds = frame / ticks;
    // Each field as "%02lld" would write it: two digits at least.
    std::string text = sign;
    auto field = [&text](std::int64_t value) {
        char digits[24];
        auto [end, error] = std::to_chars(digits, digits + sizeof digits, value);
        if (end - digits < 2) text += '0';
        text.append(digits, end);
    };
    field(seconds / 3600);
    text += ':';
    field((seconds / 60) % 60);
    text += ':';
    field(seconds % 60);
    text += drop ? ';' : ':';
    field(ff);
    return LightweightString<char>(text);
}

bool timecodeToFrame(const char* text, unsigned ticks, bool dropFrame, std::int64_t& frame) {
    if (!text || ticks == 0) return false;
    long long hh, mm, ss, ff;
    char s1, s2, s3;
    int used = 0;
    if (std::sscanf(text, "%lld%c%lld%c%lld%c%lld%n", &hh, &s1, &mm, &s2, &ss, &s3, &ff, &used) !=
        7)
        return false;
    auto sep = [](char c) { return c == ':' || c == ';' || c == '.' || c == ','; };
    if (!sep(s1) || !sep(s2) || !sep(s3) || text[used] != '\0') return false;
    if (hh < 0 || mm < 0 || mm > 59 || ss < 0 || ss > 59 || ff < 0 ||
        ff >= static_cast<long long>(ticks) || hh > 100000)
        return false;
    const std::int64_t drop = droppedPerMinute(ticks, dropFrame);
    // Drop-frame numbering has no frames 0 and 1 (0 to 3 at 60) at the start
    // of a minute but every tenth: "00:01:00;00" names no frame.
    if (drop && ss == 0 && ff < drop && mm % 10 != 0) return false;
    std::int64_t minutes = hh * 60 + mm;
    frame = (hh * 3600 + mm * 60 + ss) * static_cast<std::int64_t>(ticks) + ff;
    frame -= drop * (minutes - minutes / 10);
    return true;
}

LightweightString<char> Label::get_string(int sample) const {
    if (!valid_) return {};
    return frameToTimecode(static_cast<std::int64_t>(start_) + sample, ticks(), isDropFrame());
}

int Label::posn_to_sample(double position) const {
    // A small allowance keeps positions that sit on a frame boundary, give or
    // take rounding, on that frame.
    return truncateToInt32(std::floor(position * ticks() + 1e-6));
}

double Label::get_abs_posn(int sample) const {
    unsigned t = ticks();
    if (t == 0) return 0.0;
    return (static_cast<double>(start_) + sample) / t;
}

int Label::abs_posn_to_sample(double position) const {
    return truncateToInt32(std::floor(position * ticks() + 1e-6) - start_);
}

EditLabel::EditLabel(const char* text) {
    if (!text) return;
    char tag[8], mode[8], timecode[40];
    int rate = 0, medium = 0, used = 0;
    if (std::sscanf(text, "%7s %d %7s %39s %d%n", tag, &rate, mode, timecode, &medium, &used) != 5)
        return;
    if (std::strcmp(tag, "TC") != 0 || text[used] != '\0') return;
    Qv::FrameRate r = static_cast<Qv::FrameRate>(rate);
    bool df = std::strcmp(mode, "DF") == 0;
    if (!Qv::isKnownFrameRate(r) || (!df && std::strcmp(mode, "NDF") != 0)) return;
    std::int64_t frame;
    if (!timecodeToFrame(timecode, Qv::getTicksPerSecond(r), df, frame) || frame > INT32_MAX)
        return;
    *this = fromFrame(static_cast<int>(frame), r, df, medium);
}

EditLabel EditLabel::fromFrame(int startFrame, Qv::FrameRate rate, bool dropFrame,
                               MediumRollMedium medium) {
    EditLabel l;
    if (!Qv::isKnownFrameRate(rate)) return l;
    l.rate_ = rate;
    l.format_ = timecodeFormatFor(rate, dropFrame);
    // A roll starts at or after timecode zero.
    l.start_ = startFrame < 0 ? 0 : startFrame;
    l.mediumRoll_.medium = medium;
    l.valid_ = true;
    return l;
}

LightweightString<char> EditLabel::make_keep_string(char* buffer) const {
    LightweightString<char> text;
    if (valid_) {
        char out[kKeepStringSize];
        std::snprintf(out, sizeof out, "TC %d %s %s %d", static_cast<int>(rate_),
                      isDropFrame() ? "DF" : "NDF", get_string(0).c_str(), mediumRoll_.medium);
        text = out;
    }
    if (buffer) {
        std::strncpy(buffer, text.c_str(), kKeepStringSize - 1);
        buffer[kKeepStringSize - 1] = '\0';
    }
    return text;
}

bool EditLabel::operator==(const EditLabel& o) const {
    return valid_ == o.valid_ && rate_ == o.rate_ && format_ == o.format_ && start_ == o.start_ &&
           mediumRoll_ == o.mediumRoll_;
}

EditLabel editLabFrom(const char* timecode, Qv::Image::ScanMode scan, Qv::FrameRate rate,
                      bool dropFrame) {
    std::int64_t frame;
    unsigned ticks = Qv::getTicksPerSecond(rate);
    bool df = dropFrame && (ticks == 30 || ticks == 60);
    if (!timecodeToFrame(timecode, ticks, df, frame) || frame > INT32_MAX) return EditLabel();
    return editLabFrom(static_cast<int>(frame), scan, rate, df);
}

EditLabel editLabFrom(int frame, Qv::Image::ScanMode scan, Qv::FrameRate rate, bool dropFrame) {
    return EditLabel::fromFrame(frame, rate, dropFrame, getMediumRollfromInputDetails(scan, rate));
}
