#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "host/Config.h"
#include "host/OS.h"
#include "plugin/Status.h"
#include "plugin/XMLQvd.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace XML;

// Each test brings up a plug-in object of its own and takes it down again,
// so that the host's lists start empty.
class Frame : public qvtest::StoreTest {
  protected:
    ~Frame() override {
        for (QvPluginBase* p : QvDeviceDriverManager::theDeviceDriverManager().plugins())
            QvDeviceDriverManager::theDeviceDriverManager().unregisterPlugin(p);
    }
    static int countOfType(const XMLQvd& q, int type) {
        int n = 0;
        for (QvComponentBase* c : q.components)
            n += c->getResourceType() == type;
        return n;
    }
};

TEST_F(Frame, LoadingMakesTheResourceAndOneFactory) {
    XMLQvd q;
    EXPECT_FALSE(q.initialised);
    EXPECT_EQ(q.name, "XML Qvd");
    EXPECT_EQ(q.version, "15.0.1.132926");
    ASSERT_TRUE(q.postLoadInitialization());
    EXPECT_TRUE(q.initialised);
    ASSERT_EQ(q.components.size(), 2u);
    EXPECT_EQ(q.components[0]->getResourceType(), 25);
    EXPECT_EQ(q.components[0]->getName(), "XML");
    EXPECT_EQ(q.components[0]->getNumber(), 88);
    EXPECT_EQ(q.components[0]->getPriority(), 0);
    auto* factory = dynamic_cast<XMLExporterFactory*>(q.components[1]);
    ASSERT_TRUE(factory);
    EXPECT_EQ(factory->getResourceType(), 23);
    EXPECT_EQ(factory->channelMask, 3u);
    EXPECT_EQ(factory->logTypeMask, 0xC1Fu);
    EXPECT_EQ(factory->getFormatDescription().title.resourceNumber(), 12100);
    EXPECT_EQ(factory->getFormatDescription().shortName, "XML");

    // Once the host lists the factory, registering again adds nothing.
    QvDeviceDriverManager::theDeviceDriverManager().registerPlugin(&q);
    q.registerResources();
    EXPECT_EQ(countOfType(q, 23), 1);
}

TEST_F(Frame, LoadingAgainAfterUnloadGivesOneOfEach) {
    XMLQvd q;
    for (int load = 0; load < 3; ++load) {
        ASSERT_TRUE(q.postLoadInitialization());
        QvDeviceDriverManager::theDeviceDriverManager().registerPlugin(&q);
        EXPECT_EQ(countOfType(q, 25), 1);
        EXPECT_EQ(countOfType(q, 23), 1);
        q.preUnloadDeinitialization();
    }
}

TEST_F(Frame, EnableXmlZeroLeavesTheResourceAlone) {
    set_config_int("enableXml", 0);
    XMLQvd q;
    q.postLoadInitialization();
    ASSERT_EQ(q.components.size(), 1u);
    EXPECT_TRUE(dynamic_cast<iXMLResource*>(q.components[0]));
}

TEST_F(Frame, UnloadBeforeLoadDoesNothing) {
    XMLQvd q;
    QvDeviceDriverManager::theDeviceDriverManager().registerPlugin(&q);
    q.preUnloadDeinitialization();
    EXPECT_EQ(QvDeviceDriverManager::theDeviceDriverManager().plugins().size(), 1u);
}

TEST_F(Frame, CanExportCascade) {
    XMLQvd q;
    q.postLoadInitialization();
    auto* factory = dynamic_cast<XMLExporterFactory*>(q.components[1]);
    EditPtr none;
    EXPECT_EQ(factory->canExport(none), kCannotExportNothing);
    Qv::Ptr<Edit> effect = qvtest::addSequence(store, L"fx", Qv::eFrameRate25);
    effect->logType = kLogTypeEffect;
    Qv::Ptr<Edit> empty = qvtest::addSequence(store, L"empty", Qv::eFrameRate25, {});
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"cut", Qv::eFrameRate25);
    auto code = [&](const Qv::Ptr<Edit>& e) {
        EditPtr p;
        p.i_open(e->cookie);
        return factory->canExport(p);
    };
    EXPECT_EQ(code(effect), kCannotExportKind);
    EXPECT_EQ(code(empty), kCannotExportNoChannels);
    EXPECT_EQ(code(seq), kCanExport);
}

TEST_F(Frame, CreateExporterTakesOnlyXmlOptions) {
    XMLQvd q;
    q.postLoadInitialization();
    auto* factory = dynamic_cast<XMLExporterFactory*>(q.components[1]);
    Qv::Ptr<QvExport::Exporter> plain = factory->createExporter(nullptr);
    ASSERT_TRUE(plain);
    auto* defaults = dynamic_cast<XMLExportOptions*>(plain->getOptions());
    ASSERT_TRUE(defaults);
    EXPECT_EQ(defaults->flavour, XMLExportOptions().flavour);

    struct ForeignOptions : QvExport::OptionsBase {};
    ForeignOptions foreign;
    EXPECT_FALSE(factory->createExporter(&foreign));

    XMLExportOptions given;
    given.directory = L"/out";
    given.fileName = L"name";
    given.flavour = XMLFlavourQV2;
    given.silent = true;
    given.prepareOption = true;
    given.useTrackOriginFilename = true;
    given.remoteFolder.server = L"srv";
    Qv::Ptr<QvExport::Exporter> e = factory->createExporter(&given);
    auto* copied = dynamic_cast<XMLExportOptions*>(e->getOptions());
    EXPECT_EQ(copied->directory, L"/out");
    EXPECT_EQ(copied->fileName, L"name");
    EXPECT_EQ(copied->flavour, XMLFlavourQV2);
    EXPECT_TRUE(copied->silent && copied->prepareOption && copied->useTrackOriginFilename);
    EXPECT_EQ(copied->remoteFolder.server, L"srv");
}

TEST_F(Frame, ExportRunsInTheBackgroundThroughTheResource) {
    qvtest::TempDir dir;
    Qv::Ptr<Edit> shot = qvtest::addShot(store, L"shot", 25, 4);
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"cut", Qv::eFrameRate25);
    qvtest::addCel(seq, 0, qvtest::playCookie(shot, 0), 0, 2, 0);

    XMLQvd q;
    q.postLoadInitialization();
    auto* factory = dynamic_cast<XMLExporterFactory*>(q.components[1]);
    XMLExportOptions options;
    options.directory = dir.wpath();
    options.flavour = XMLFlavourQV2;
    options.log = capturingLog();
    Qv::Ptr<QvExport::Exporter> e = factory->createExporter(&options);
    auto* exporter = dynamic_cast<XMLExporter*>(e.get());

    // No resource of type 25 in the host's lists: 2005 and no file.
    QvExport::ExportResult none = exporter->doExport(seq->cookie, {});
    EXPECT_EQ(none.status, 2005);
    EXPECT_TRUE(none.files.empty());

    QvDeviceDriverManager::theDeviceDriverManager().registerPlugin(&q);
    Qv::Ptr<QvExport::BackgroundTask> task = exporter->createBackgroundTasks(seq->cookie, {});
    // The wait ends with the export, however long the caller offers: a wait
    // that slept its time out would hold the suite for a day.
    EXPECT_TRUE(task->waitFor(std::chrono::hours(24)));
    EXPECT_TRUE(task->finished());
    QvExport::ExportResult r = task->wait();
    EXPECT_EQ(r.status, 1);
    ASSERT_EQ(r.files.size(), 1u);
    EXPECT_EQ(r.files[0], dir.wpath() + L"/cut.xml");
    EXPECT_TRUE(qvtest::exists(dir.file("cut.xml")));
}

TEST_F(Frame, ResourceQueries) {
    XMLQvd q;
    q.postLoadInitialization();
    auto* resource = dynamic_cast<iXMLResource*>(q.components[0]);
    for (int f : {0, 1, 3, 4, 7, 8})
        EXPECT_EQ(resource->getExtension(static_cast<XMLFlavour>(f)), L".xml") << f;
    EXPECT_EQ(resource->getExtension(XMLFlavourFCPX), L".fcpxml");
    ImportFileList files;
    files.push_back(Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({L"/a.xml"})));
    resource->gatherMetadata(files);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0]->name(), L"/a.xml");
    EXPECT_EQ(resource->getFrameRate(L"/no/such/file.xml"), Qv::eFrameRateNone);
}

TEST_F(Frame, EntryPointsAndSlots) {
    QvPluginBase* first = nullptr;
    QvPluginBase* second = nullptr;
    qvPluginInstance(&first);
    qvPluginInstance(&second);
    EXPECT_EQ(first, second) << "one plug-in object per process";
    EXPECT_TRUE(dynamic_cast<XMLQvd*>(first));
    int a = getTlsSlot();
    EXPECT_EQ(getTlsSlot(), a + 1);
    EXPECT_EQ(nextTlsSlot_, a + 1);
}

TEST_F(Frame, ThePluginsMemoryGoesThroughTheHost) {
    std::string path = std::string(QVXML_BIN_DIR) + "/../lib/libqvxml.so";
    void* handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_TRUE(handle) << ::dlerror();
    auto entry = reinterpret_cast<QvPluginInstanceFunction>(::dlsym(handle, "qvPluginInstance"));
    ASSERT_TRUE(entry);
    EXPECT_FALSE(::dlsym(handle, "_ZN3XML6XMLQvdC1Ev")) << "only the entry points are exported";
    QvPluginBase* plugin = nullptr;
    EXPECT_EQ(entry(&plugin), 0) << "not initialised before the host starts it";
    std::int64_t before = OS()->memory()->totalAllocations();
    ASSERT_TRUE(plugin->postLoadInitialization());
    EXPECT_GT(OS()->memory()->totalAllocations(), before)
        << "its objects came from the host's allocator";
    EXPECT_EQ(entry(&plugin), 1);
    plugin->preUnloadDeinitialization();
}

}  // namespace
