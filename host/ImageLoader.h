// The still-image formats that the host's image loader reads.
#pragma once

#include <vector>

#include "host/LightweightString.h"

namespace QvImage {
struct Loader {
    // File extensions without their full stop, in lower case.
    static std::vector<LightweightString<wchar_t>> getSupportedImageExtensions() {
        return {L"bmp", L"cin", L"dpx", L"exr", L"gif", L"jpeg", L"jpg",
                L"png", L"psd", L"sgi", L"tga", L"tif", L"tiff"};
    }
};
}  // namespace QvImage
