// The one road of every import: documents read whole, their flavour
// recognised, and the matching reader run.
#pragma once

#include "host/Media.h"
#include "host/XMLExportOptions.h"
#include "host/XMLParser.h"
#include "import/XMLReader.h"

namespace XML {

// The flavour of a parsed document, from the first attribute of its xmeml or
// QVXML element; XMLFlavourNone when it is neither.
XMLFlavour detectXMLFlavour(const XMLParser& parser);

// Makes the reader of a flavour: 1, or 14 when the flavour has none.
int getAnXMLReader(Qv::Ptr<XMLReader>& reader, XMLFlavour flavour, LoggerHandle log);

// Imports the files in order, stopping at the first that fails; the edits of
// the files before it stay in the result.
ImportResult XMLImportFiles(const ImportFileList& files, LoggerHandle log);

// The frame rate of a document's first sequence; none when it cannot be told.
Qv::FrameRate getSequenceFrameRate(const LightweightString<wchar_t>& path);

// Nothing is gathered from XML files ahead of an import.
void getXMLSequenceInfo(ImportFileList& files);

}  // namespace XML
