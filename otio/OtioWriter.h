// Writes an edit of the store as an OpenTimelineIO timeline (.otio).
//
// Like the XML writers it works from the four lists that export preparation
// fills. A sequence becomes a Timeline: its video channels become Video
// tracks, the last channel lowest (first in the stack) as OpenTimelineIO
// stacks them, then its audio channels as Audio tracks in order. A cel that
// plays a shot becomes a Clip with the shot's media reference; a cel that
// plays part of a sub-clip of one shot becomes a Clip of that shot; a cel that
// plays a nested sequence (or any other edit) becomes a nested Stack. Black
// and silence become Gaps. A transition cel, which stands between the cels it
// joins, becomes a Transition that straddles the cut: the cut is at its
// middle between two clips, at its start after black or nothing, at its end
// before black or nothing, and the clips on either side are lengthened to it.
// What OpenTimelineIO has no field for goes into the "qvxml" metadata
// namespace. docs/user-guide.md tells what crosses.
#pragma once

#include <string>

#include "host/Cookie.h"
#include "host/LightweightString.h"
#include "host/Logger.h"

namespace QvOtio {

struct ExportOptions {
    // Leave shots whose media is offline out (their cels become gaps).
    bool skipOffline = false;
};

// The document of an edit, as text. 1; 3 when no edit has that identity; 0
// when the edit holds nothing to write.
int writeOtio(const Cookie& edit, const ExportOptions& options, LoggerHandle log,
              std::string& text);

// Writes the document to `path`, replacing a file that is there. Statuses as
// writeOtio's, and 2001 when the file cannot be written.
int exportOtio(const Cookie& edit, const LightweightString<wchar_t>& path,
               const ExportOptions& options, LoggerHandle log);

}  // namespace QvOtio
