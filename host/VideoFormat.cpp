#include "host/VideoFormat.h"

namespace Qv::DigitalVideoFormats {

namespace {
using Image::eAspect16x9;
using Image::eAspect4x3;
using Image::eAspectSquare;
using Image::eAspectUnknown;

const DigitalVideoFormatInfo kFormats[] = {
    {0, "unknown", 0, 0, eAspectUnknown},
    {1, "PAL 576", 720, 576, eAspect4x3},
    {2, "PAL 576 widescreen", 720, 576, eAspect16x9},
    {3, "NTSC 486", 720, 486, eAspect4x3},
    {4, "NTSC 480", 720, 480, eAspect4x3},
    {5, "NTSC 480 widescreen", 720, 480, eAspect16x9},
    {10, "HD 720", 1280, 720, eAspectSquare},
    {20, "HD 1080 anamorphic", 1440, 1080, eAspect16x9},
    {28, "HD 1080", 1920, 1080, eAspectSquare},
    {30, "2K DCI", 2048, 1080, eAspectSquare},
    {31, "2K full aperture", 2048, 1556, eAspectSquare},
    {40, "UHD", 3840, 2160, eAspectSquare},
    {41, "4K DCI", 4096, 2160, eAspectSquare},
    {50, "8K UHD", 7680, 4320, eAspectSquare},
};
}  // namespace

const DigitalVideoFormatInfo& findByUID(const Image::FormatUID& uid) {
    for (const DigitalVideoFormatInfo& f : kFormats)
        if (f.uid == uid.value) return f;
    return kFormats[0];
}

const DigitalVideoFormatInfo& findBySize(int width, int height) {
    for (const DigitalVideoFormatInfo& f : kFormats)
        if (f.width == width && f.height == height) return f;
    return kFormats[0];
}

}  // namespace Qv::DigitalVideoFormats

ShotVideoMetadata::ShotVideoMetadata(const Qv::DigitalVideoFormats::DigitalVideoFormatInfo& info,
                                     Qv::Image::Format format, Qv::FrameRate rate,
                                     Qv::Image::AspectRatio aspect, bool sequenceDataSet,
                                     Qv::Image::ScanMode scan, unsigned short bitDepth) {
    setSize(info.width, info.height);
    setFormat(format);
    setFrameRate(rate);
    setAspectRatio(aspect);
    setVideoSequenceDataSet(sequenceDataSet);
    setScanMode(scan);
    setBitDepth(bitDepth);
    formatUID_ = info.uid;
}

bool ShotVideoMetadata::operator==(const ShotVideoMetadata& o) const {
    return width_ == o.width_ && height_ == o.height_ && aspect_ == o.aspect_ && scan_ == o.scan_ &&
           format_ == o.format_ && bitDepth_ == o.bitDepth_ && rate_ == o.rate_ &&
           sequenceDataSet_ == o.sequenceDataSet_ && formatUID_ == o.formatUID_;
}
