// Timecode labels.
//
// A label numbers the frames ("samples") of a roll: its start is the frame
// number of the roll's first frame, counted at the label's rate, and its text
// at a sample is the timecode of that frame. Drop-frame labels (29.97 and
// 59.94) skip frame numbers at each minute but every tenth, as broadcast
// timecode does.
#pragma once

#include <cstdint>

#include "host/FrameRate.h"
#include "host/LightweightString.h"

struct MediumRollIdent {
    MediumRollMedium medium = kMediumNone;
    std::int32_t roll = 0;
    bool operator==(const MediumRollIdent&) const = default;
};

// Frame numbers and timecode text at a whole-number timebase. Drop frame only
// applies to timebases 30 and 60. Negative frame numbers get a leading '-'.
LightweightString<char> frameToTimecode(std::int64_t frame, unsigned ticks, bool dropFrame);
// Parses "HH:MM:SS:FF" (any of ':', ';', '.', ',' between the fields); false
// if the text is no timecode, or names a number that drop frame skips.
bool timecodeToFrame(const char* text, unsigned ticks, bool dropFrame, std::int64_t& frame);

class Label {
  public:
    LightweightString<char> get_string(int sample) const;
    int get_start() const { return start_; }
    // The absolute position of a sample: cel time counted from timecode zero,
    // as abs_posn_to_sample takes it. 0 for a label without a rate.
    double get_abs_posn(int sample) const;
    // The sample at a cel-time position relative to the start of the roll.
    int posn_to_sample(double position) const;
    // The sample at an absolute position: cel time counted from timecode zero.
    int abs_posn_to_sample(double position) const;

    Qv::FrameRate get_rate() const { return rate_; }
    LabelType get_format() const { return format_; }
    bool isDropFrame() const { return isDropFrameFormat(format_); }

    // The part of the roll that a record uses, in samples from the label's
    // first frame: where it begins, and where it ends when that was set.
    int getStartSample() const { return startSample_; }
    void setStartSample(int sample) { startSample_ = sample; }
    bool hasEndSample() const { return endSampleSet_; }
    int getEndSample() const { return endSample_; }
    void setEndSample(int sample) {
        endSample_ = sample;
        endSampleSet_ = true;
    }

  protected:
    unsigned ticks() const { return Qv::getTicksPerSecond(rate_); }

    MediumRollIdent mediumRoll_;
    Qv::FrameRate rate_ = Qv::eFrameRateNone;
    LabelType format_ = 0;
    int start_ = 0;
    int startSample_ = 0;
    int endSample_ = 0;
    bool endSampleSet_ = false;
    bool valid_ = false;
};

class EditLabel : public Label {
  public:
    EditLabel() = default;
    // Parses the text that make_keep_string writes. Bad text gives an invalid
    // label.
    explicit EditLabel(const char* text);

    // The label as text: "TC <rate> <DF|NDF> <timecode> <medium>", for
    // example "TC 3 NDF 01:00:00:00 103". Copied into `buffer` too when it is
    // not null (at most kKeepStringSize bytes with the zero).
    static constexpr int kKeepStringSize = 80;
    LightweightString<char> make_keep_string(char* buffer) const;

    bool is_valid() const { return valid_; }
    MediumRollIdent get_MediumRoll() const { return mediumRoll_; }
    void set_MediumRoll(const MediumRollIdent& m) { mediumRoll_ = m; }

    // A label of `rate` whose first frame has the given number.
    static EditLabel fromFrame(int startFrame, Qv::FrameRate rate, bool dropFrame,
                               MediumRollMedium medium);

    bool operator==(const EditLabel& o) const;
};

EditLabel editLabFrom(const char* timecode, Qv::Image::ScanMode scan, Qv::FrameRate rate,
                      bool dropFrame);
EditLabel editLabFrom(int frame, Qv::Image::ScanMode scan, Qv::FrameRate rate, bool dropFrame);
