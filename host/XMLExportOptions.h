// The options record of one export.
#pragma once

#include "host/LightweightString.h"
#include "host/Logger.h"

namespace XML {
// The interchange flavours.
enum XMLFlavour : int {
    XMLFlavourNone = 0,
    XMLFlavourQV1 = 1,   // native document, version 1.0
    XMLFlavourFCPX = 2,  // fcpxml
    XMLFlavourFCP5 = 3,  // xmeml version 5
    XMLFlavourFCP4 = 4,
    XMLFlavourFCP3 = 5,
    XMLFlavourFCP2 = 6,
    XMLFlavourFCP1 = 7,  // xmeml version 1
    XMLFlavourQV2 = 8,   // native document, version 2.0
};
}  // namespace XML

namespace QvExport {
class OptionsBase {
  public:
    virtual ~OptionsBase() = default;
};
}  // namespace QvExport

// A destination on a remote store; carried along, never read by the exporter.
struct RemoteFolder {
    LightweightString<wchar_t> server, path;
};

class XMLExportOptions : public QvExport::OptionsBase {
  public:
    LoggerHandle log;
    LightweightString<wchar_t> directory;
    // Wanted file name; empty means the edit's name.
    LightweightString<wchar_t> fileName;
    RemoteFolder remoteFolder;
    int reserved1 = 0, reserved2 = 0;
    // Take a file's name from the track origin information of its edit.
    bool useTrackOriginFilename = false;
    XML::XMLFlavour flavour = XML::XMLFlavourFCP5;
    // Passed to export preparation: leave shots whose media is offline out.
    bool prepareOption = false;
    // No "file written" messages; also what allows a multi-angle group to be
    // written as a multiclip.
    bool silent = false;
};
