// What other parties look up and call: the plug-in's XML resource, found in
// the host's resource list of type 25.
#pragma once

#include "host/Media.h"
#include "host/Plugin.h"
#include "plugin/Results.h"

namespace XML {
inline constexpr int kXMLResourceType = 25;
}

class iXMLResource : public iObject {
  public:
    // The rate of a document's first sequence, before any import.
    virtual Qv::FrameRate getFrameRate(const LightweightString<wchar_t>& path) const = 0;
    // Nothing is gathered from XML files ahead of an import.
    virtual void gatherMetadata(ImportFileList& files) = 0;
    virtual XML::ImportResult importFiles(const ImportFileList& files, LoggerHandle log) = 0;
    virtual XML::ExportResult exportFiles(const Cookie& source,
                                          XMLExportOptions& options) const = 0;
    // ".xml", or ".fcpxml" for fcpxml.
    virtual LightweightString<wchar_t> getExtension(XML::XMLFlavour flavour) const = 0;
};

// The plug-in's one exported entry: hands out the plug-in object and answers
// whether it has been initialised.
extern "C" unsigned char qvPluginInstance(QvPluginBase** plugin);
typedef unsigned char (*QvPluginInstanceFunction)(QvPluginBase** plugin);
