// The writer of fcpxml 1.4, the XML of Final Cut Pro X.
//
// Only its file extension is in place: the document itself is written by
// base operations that do nothing, so an fcpxml export is refused by the
// command until this writer is filled in.
#pragma once

#include "export/XMLWriter.h"

namespace XML {

class FCPXXMLWriter : public XMLWriter {
  public:
    FCPXXMLWriter(LoggerHandle log, XMLExportOptions& options, Qv::FrameRate rate)
        : XMLWriter(log, options, rate) {}
    LightweightString<wchar_t> getFileExtension() const override { return L".fcpxml"; }
};

}  // namespace XML
