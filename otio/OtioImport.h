// The OpenTimelineIO reader as the command uses it: whole files.
#pragma once

#include <string>

#include "host/FrameRate.h"
#include "host/LightweightString.h"
#include "host/Logger.h"
#include "plugin/Results.h"

namespace QvOtio {

struct Document;

// Reads an .otio file and imports it: the result as XMLImportFiles gives it.
// When the file cannot be read as a document, `error` says why in words and
// the status is 2000 (unreadable) or 2005 (no OpenTimelineIO timeline).
// `model`, if given, receives the document as it was parsed.
XML::ImportResult importOtioFile(const LightweightString<wchar_t>& path, LoggerHandle log,
                                 std::string& error, Document* model = nullptr);

// The frame rate of the first timeline of an .otio file; none when it cannot be
// told.
Qv::FrameRate otioFrameRate(const LightweightString<wchar_t>& path);

// Whether a file is an OpenTimelineIO document: JSON whose root object has an
// "OTIO_SCHEMA".
bool isOtioDocument(const LightweightString<wchar_t>& path);

}  // namespace QvOtio
