// The writer of the host's own document, version 2.0.
#pragma once

#include "export/XMLWriter.h"

namespace XML {

class QVXMLWriter : public XMLWriter {
  public:
    QVXMLWriter(LoggerHandle log, XMLExportOptions& options, Qv::FrameRate rate)
        : XMLWriter(log, options, rate) {}
};

}  // namespace XML
