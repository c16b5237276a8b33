// Picture formats: the table of digital video formats and the picture
// description that a shot or sequence carries.
#pragma once

#include <cstdint>

#include "host/FrameRate.h"
#include "host/LightweightString.h"

namespace Qv::Image {

struct FormatUID {
    explicit FormatUID(unsigned int v = 0) : value(v) {}
    unsigned int value;
};

// A pixel format as four characters, 'YUY2' for example.
using Format = std::uint32_t;
inline constexpr Format kFormatYUY2 = 0x32595559;

namespace Core {
class Data {
  public:
    int getWidth() const { return width_; }
    int getHeight() const { return height_; }
    void setSize(int w, int h) {
        width_ = w;
        height_ = h;
    }

  protected:
    int width_ = 0;
    int height_ = 0;
};
}  // namespace Core

namespace Video {
class Data : public Core::Data {
  public:
    AspectRatio getAspectRatio() const { return aspect_; }
    void setAspectRatio(AspectRatio a) { aspect_ = a; }
    ScanMode getScanMode() const { return scan_; }
    void setScanMode(ScanMode s) { scan_ = s; }
    Format getFormat() const { return format_; }
    void setFormat(Format f) { format_ = f; }
    unsigned short getBitDepth() const { return bitDepth_; }
    void setBitDepth(unsigned short b) { bitDepth_ = b; }

  protected:
    AspectRatio aspect_ = eAspectUnknown;
    ScanMode scan_ = eScanUnknown;
    Format format_ = 0;
    unsigned short bitDepth_ = 0;
};
}  // namespace Video

namespace VideoSequence {
class Data : public Video::Data {
  public:
    FrameRate getFrameRate() const { return rate_; }
    void setFrameRate(FrameRate r) { rate_ = r; }
    bool getVideoSequenceDataSet() const { return sequenceDataSet_; }
    void setVideoSequenceDataSet(bool b) { sequenceDataSet_ = b; }

  protected:
    FrameRate rate_ = eFrameRateNone;
    bool sequenceDataSet_ = false;
};
}  // namespace VideoSequence

}  // namespace Qv::Image

namespace Qv::DigitalVideoFormats {

struct DigitalVideoFormatInfo {
    unsigned int uid;
    const char* name;
    int width;
    int height;
    Image::AspectRatio aspect;
};

// The entry of that identity; unknown identities give the entry "unknown"
// (uid 0, no size).
const DigitalVideoFormatInfo& findByUID(const Image::FormatUID& uid);
// The first entry of that size, or the "unknown" entry.
const DigitalVideoFormatInfo& findBySize(int width, int height);

}  // namespace Qv::DigitalVideoFormats

class ShotVideoMetadata : public Qv::Image::VideoSequence::Data {
  public:
    ShotVideoMetadata() = default;
    ShotVideoMetadata(const Qv::DigitalVideoFormats::DigitalVideoFormatInfo& info,
                      Qv::Image::Format format, Qv::FrameRate rate, Qv::Image::AspectRatio aspect,
                      bool sequenceDataSet, Qv::Image::ScanMode scan, unsigned short bitDepth);

    unsigned int getFormatUID() const { return formatUID_; }
    void setFormatUID(unsigned int uid) { formatUID_ = uid; }
    bool operator==(const ShotVideoMetadata& o) const;

  private:
    unsigned int formatUID_ = 0;
};
