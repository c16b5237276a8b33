#include "app/pipeline/PluginLoader.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>

#include "host/Paths.h"

namespace qvapp {

PluginLoader::~PluginLoader() {
    if (plugin_) plugin_->preUnloadDeinitialization();
    // The shared object stays mapped: its statics are torn down at exit.
}

Outcome PluginLoader::load(const std::string& path) {
    handle_ = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle_) {
        const char* why = ::dlerror();
        return Outcome(kExitPlugin, "cannot load the XML plug-in \"" + path + "\"" +
                                        (why ? std::string(": ") + why : ""));
    }
    auto entry = reinterpret_cast<QvPluginInstanceFunction>(::dlsym(handle_, "qvPluginInstance"));
    if (!entry) {
        return Outcome(kExitPlugin, "\"" + path + "\" is no plug-in: it has no qvPluginInstance");
    }
    QvPluginBase* plugin = nullptr;
    entry(&plugin);
    if (!plugin || !plugin->postLoadInitialization()) {
        return Outcome(kExitPlugin, "the XML plug-in in \"" + path + "\" did not start");
    }
    plugin_ = plugin;
    QvDeviceDriverManager::theDeviceDriverManager().registerPlugin(plugin_);
    plugin_->postEnumerationInitialization();
    return {};
}

iXMLResource* PluginLoader::resource() const {
    QvDeviceDriverManagerIter it(QvDeviceDriverManager::theDeviceDriverManager(), true, 0);
    it.init(XML::kXMLResourceType);
    for (; !it.atEnd(); ++it)
        if (auto* r = dynamic_cast<iXMLResource*>(it.current())) return r;
    return nullptr;
}

QvExport::ExporterFactoryBase* PluginLoader::exporterFactory() const {
    QvDeviceDriverManagerIter it(QvDeviceDriverManager::theDeviceDriverManager(), true, 0);
    it.init(kResourceTypeExporterFactory);
    for (; !it.atEnd(); ++it) {
        auto* f = dynamic_cast<QvExport::ExporterFactoryBase*>(it.current());
        if (f && f->getFormatDescription().shortName == "XML") return f;
    }
    return nullptr;
}

std::string PluginLoader::defaultPath() {
    if (const char* env = std::getenv("QVXML_PLUGIN"); env && *env) return env;
    char self[PATH_MAX];
    ssize_t n = ::readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "libqvxml.so";
    self[n] = '\0';
    std::string dir = toUTF8(getPath(fromUTF8(self))).str();
    for (const std::string& candidate : {dir + "/../lib/libqvxml.so", dir + "/libqvxml.so"})
        if (fileExists(fromUTF8(candidate.c_str()))) return candidate;
    return dir + "/../lib/libqvxml.so";
}

}  // namespace qvapp
