// The one road of every export: from the identity of a stored edit to one
// saved XML file.
#pragma once

#include <vector>

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

// Gives every shot of `shots` whose length nobody knows (not a finite number,
// or below zero) the length that its uses in the edits of `users` need: as
// far into the shot as any cel plays, a transition after a cel included. A
// shot that nothing plays gets no length. Each repair is a warning and a loss
// record. No reader of a written file can use a length that is no number.
void giveUnknownLengths(CED2List& shots, const std::vector<CED2List*>& users, LoggerHandle log);

}  // namespace XML
