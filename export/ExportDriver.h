// The one road of every export: from the identity of a stored edit to one
// saved XML file.
#pragma once

#include <vector>

#include "export/UnknownLengths.h"
#include "export/XMLWriter.h"
#include "host/Cookie.h"
#include "plugin/Results.h"

namespace XML {

// Exports the edit `source` as `options` say. `options` is not changed: the
// run works on a copy.
ExportResult XMLExportFiles(const Cookie& source, XMLExportOptions& options, LoggerHandle log);

// Makes the writer of the flavour: 2 fcpxml, 3 xmeml, any other the native
// format. Always 1.
int getAnXMLWriter(Qv::Ptr<XMLWriter>& writer, XMLExportOptions& options, Qv::FrameRate rate,
                   LoggerHandle log);

}  // namespace XML
