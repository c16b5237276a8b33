// Loads the XML plug-in the way the editor does: dlopen, the entry
// function, the life cycle, then lookups by resource type.
#pragma once

#include <string>

#include "app/Status.h"
#include "host/Plugin.h"
#include "plugin/iXMLResource.h"

namespace qvapp {

class PluginLoader {
  public:
    PluginLoader() = default;
    ~PluginLoader();
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    // Loads the shared object and brings the plug-in up.
    Outcome load(const std::string& path);

    // The XML resource (type 25), or null.
    iXMLResource* resource() const;
    // The export format in the host's list (type 23), or null when the
    // plug-in registered none.
    QvExport::ExporterFactoryBase* exporterFactory() const;

    // Where the plug-in is looked for: $QVXML_PLUGIN, then beside the
    // command's build output (../lib), then beside the command itself.
    static std::string defaultPath();

  private:
    void* handle_ = nullptr;
    QvPluginBase* plugin_ = nullptr;
};

}  // namespace qvapp
