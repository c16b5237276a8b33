// The writer of xmeml version 5, the XML of Final Cut Pro 5 to 7 and Premiere.
#pragma once

#include "export/XMLWriter.h"

namespace XML {

class FCP5XMLWriter : public XMLWriter {
  public:
    FCP5XMLWriter(LoggerHandle log, XMLExportOptions& options, Qv::FrameRate rate)
        : XMLWriter(log, options, rate) {}
    bool supportsMulticlipGroup() override { return true; }
};

}  // namespace XML
