// The status codes that the plug-in hands back to the host: both sides of
// the boundary name them from here.
#pragma once

namespace XML {
inline constexpr int kStatusFailed = 0;           // a writer failed, or a reader's document did
inline constexpr int kStatusOK = 1;               // success
inline constexpr int kStatusNoMemory = 10;        // no buffer for a document
inline constexpr int kStatusNoReader = 14;        // the flavour has no reader
inline constexpr int kStatusUnreadable = 2000;    // a document is missing, empty or unreadable
inline constexpr int kStatusCannotCreate = 2001;  // the output file could not be created
inline constexpr int kStatusNoDirectory = 2002;   // the destination directory does not exist
inline constexpr int kStatusUnknown = 2005;       // no known flavour, or no resource to run it

// What the exporter factory's canExport says of an edit.
inline constexpr int kCanExport = 0;               // the edit can be exported
inline constexpr int kCannotExportKind = 4;        // not a kind of edit the format exports
inline constexpr int kCannotExportNoChannels = 5;  // no video or audio channels
inline constexpr int kCannotExportNothing = 6;     // no edit at all
}  // namespace XML
