#include "plugin/XMLQvd.h"

#include "export/ExportDriver.h"
#include "host/Config.h"
#include "host/Edit.h"
#include "host/OS.h"
#include "import/ImportDriver.h"
#include "plugin/Status.h"
#include "plugin/Version.h"

namespace XML {

XMLResource::XMLResource() : QvResourceTypeBase("XML", 88) {
    setResourceType(kXMLResourceType);
}

Qv::FrameRate XMLResource::getFrameRate(const LightweightString<wchar_t>& path) const {
    return getSequenceFrameRate(path);
}

void XMLResource::gatherMetadata(ImportFileList& files) {
    getXMLSequenceInfo(files);
}

ImportResult XMLResource::importFiles(const ImportFileList& files, LoggerHandle log) {
    LoggerHandle copy = log;
    return XMLImportFiles(files, copy);
}

ExportResult XMLResource::exportFiles(const Cookie& source, XMLExportOptions& options) const {
    LoggerHandle copy = options.log;
    return XMLExportFiles(source, options, copy);
}

LightweightString<wchar_t> XMLResource::getExtension(XMLFlavour flavour) const {
    XMLExportOptions options;
    options.flavour = flavour;
    Qv::Ptr<XMLWriter> writer;
    if (getAnXMLWriter(writer, options, static_cast<Qv::FrameRate>(1), LoggerHandle()) != kStatusOK)
        return {};
    return writer->getFileExtension();
}

QvExport::ExportResult XMLExporter::doExport(const Cookie& source,
                                             const NumRange<double, Ordered>&) {
    QvExport::ExportResult result;
    result.status = kStatusUnknown;
    QvDeviceDriverManagerIter it(QvDeviceDriverManager::theDeviceDriverManager(), true, 0);
    it.init(kXMLResourceType);
    for (; !it.atEnd(); ++it) {
        auto* resource = dynamic_cast<iXMLResource*>(it.current());
        if (!resource) continue;
        ExportResult r = resource->exportFiles(source, options_);
        result.status = r.status;
        result.files = std::move(r.files);
        break;
    }
    return result;
}

XMLQvd::XMLQvd() {
    enabled = true;
    useCount = 1;
    name = "XML Qvd";
    version = kPluginVersion;
}

XMLQvd::~XMLQvd() {
    closedown();
    releaseComponents();
}

void XMLQvd::releaseComponents() {
    // Counted components are released, others deleted.
    for (QvComponentBase* c : components) {
        if (auto* counted = dynamic_cast<Qv::InternalRefCount*>(c))
            counted->decRefCount();
        else
            delete c;
    }
    components.clear();
}

bool XMLQvd::postLoadInitialization() {
    // A host that loads the plug-in again in the same process (the command
    // run many times in one process) gets what a first load gives: one
    // resource and one export format, not one more of each per load.
    releaseComponents();
    XMLResource* resource = new XMLResource;
    resource->incRefCount();  // held by the component vector
    components.add(resource);
    registerResources();
    initialised = true;
    return true;
}

void XMLQvd::registerResources() {
    if (config_int("enableXml", 1) == 0) return;
    QvDeviceDriverManagerIter it(QvDeviceDriverManager::theDeviceDriverManager(), true, 0);
    it.init(kResourceTypeExporterFactory);
    for (; !it.atEnd(); ++it)
        if (it.current() && dynamic_cast<XMLExporterFactory*>(it.current())) return;
    QvExport::FormatDescription description(UIString(12100), "XML",
                                            QvExport::eFormatGroups::eFormatGroup(2), 0);
    components.add(new XMLExporterFactory(description, 3, 0xC1F));
}

void XMLQvd::preUnloadDeinitialization() {
    if (initialised) closedown();
}

XMLQvd& thePlugin() {
    static XMLQvd plugin;
    return plugin;
}

}  // namespace XML

template <>
Qv::Ptr<QvExport::Exporter> QvExport::ConditionalExporterFactory<XML::XMLExporter>::createExporter(
    const QvExport::OptionsBase* options) const {
    Qv::Ptr<XML::XMLExporter> exporter(new XML::XMLExporter);
    if (!options) return Qv::Ptr<QvExport::Exporter>(exporter);
    const auto* given = dynamic_cast<const XMLExportOptions*>(options);
    if (!given) return nullptr;  // options of another format: no exporter
    auto& own = dynamic_cast<XMLExportOptions&>(*exporter->getOptions());
    own.log = given->log;
    own.remoteFolder = given->remoteFolder;
    own.directory = given->directory;
    own.fileName = given->fileName;
    own.reserved1 = given->reserved1;
    own.reserved2 = given->reserved2;
    own.useTrackOriginFilename = given->useTrackOriginFilename;
    own.flavour = given->flavour;
    own.prepareOption = given->prepareOption;
    own.silent = given->silent;
    return Qv::Ptr<QvExport::Exporter>(exporter);
}

template <>
int QvExport::ConditionalExporterFactory<XML::XMLExporter>::canExport(const EditPtr& edit) const {
    if (!edit) return XML::kCannotExportNothing;
    if (!(edit->getLogType() & logTypeMask)) return XML::kCannotExportKind;
    if (edit->getNumChans(channelMask) == 0) return XML::kCannotExportNoChannels;
    return XML::kCanExport;
}

extern "C" {

int nextTlsSlot_ = 0;

int getTlsSlot() {
    return OS()->atomics()->increment(&nextTlsSlot_);
}

unsigned char qvPluginInstance(QvPluginBase** plugin) {
    XML::XMLQvd& object = XML::thePlugin();
    if (plugin) *plugin = &object;
    return object.initialised ? 1 : 0;
}

}  // extern "C"
