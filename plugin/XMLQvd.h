// The plug-in object and what it puts at the host's disposal: the XML
// resource (type 25) and an export format in the host's list (type 23).
#pragma once

#include "host/Plugin.h"
#include "plugin/iXMLResource.h"

namespace XML {

class XMLResource : public QvResourceTypeBase, public iXMLResource {
  public:
    XMLResource();
    Qv::FrameRate getFrameRate(const LightweightString<wchar_t>& path) const override;
    void gatherMetadata(ImportFileList& files) override;
    ImportResult importFiles(const ImportFileList& files, LoggerHandle log) override;
    ExportResult exportFiles(const Cookie& source, XMLExportOptions& options) const override;
    LightweightString<wchar_t> getExtension(XMLFlavour flavour) const override;
};

// One export run of one source edit.
class XMLExporter
    : public QvExport::ExporterWithOptions<XMLExportOptions, QvExport::SingleSourceExporter> {
  public:
    QvExport::ExportResult doExport(const Cookie& source,
                                    const NumRange<double, Ordered>& range) override;
};

using XMLExporterFactory = QvExport::ConditionalExporterFactory<XMLExporter>;

}  // namespace XML

// The export format's test of which edits can be exported, and how it makes
// an exporter from the options of the host's export dialog.
template <>
Qv::Ptr<QvExport::Exporter> QvExport::ConditionalExporterFactory<XML::XMLExporter>::createExporter(
    const QvExport::OptionsBase* options) const;
template <>
int QvExport::ConditionalExporterFactory<XML::XMLExporter>::canExport(const EditPtr& edit) const;

namespace XML {

class XMLQvd : public QvDeviceDriverBase {
  public:
    XMLQvd();
    ~XMLQvd() override;
    bool postLoadInitialization() override;
    void preUnloadDeinitialization() override;
    // Adds the export format, unless the configuration keeps it out or the
    // host lists one already.
    void registerResources();

  private:
    void releaseComponents();
};

// The plug-in object of this process.
XMLQvd& thePlugin();

}  // namespace XML

// Hands out slot numbers, one more each call.
extern "C" int getTlsSlot();
extern "C" int nextTlsSlot_;
