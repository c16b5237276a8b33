// The host's plug-in framework.
//
// A plug-in is a shared object with one entry function that hands out its
// plug-in object. The host drives the object's life cycle and then finds what
// the plug-in offers in its components: resources and export formats, each
// known by a resource type number. The device driver manager keeps the loaded
// plug-ins; its iterators walk the components of one type across all of them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "host/Containers.h"
#include "host/Cookie.h"
#include "host/LightweightString.h"
#include "host/Ptr.h"
#include "host/XMLExportOptions.h"

class EditPtr;

// Resource type numbers the host knows.
inline constexpr int kResourceTypeExporterFactory = 23;

class QvComponentBaseSharedResourceTag {
  public:
    virtual ~QvComponentBaseSharedResourceTag() = default;
};

// Something a plug-in offers the host: a name, a number and a resource type.
class QvComponentBase : public virtual QvComponentBaseSharedResourceTag {
  public:
    QvComponentBase(LightweightString<char> name, int number)
        : name_(std::move(name)), number_(number) {}
    ~QvComponentBase() override = default;

    const LightweightString<char>& getName() const { return name_; }
    int getNumber() const { return number_; }
    int getResourceType() const { return resourceType_; }
    void setResourceType(int type) { resourceType_ = type; }
    virtual int getPriority() const { return priority_; }

  protected:
    LightweightString<char> name_;
    int number_;
    int resourceType_ = 0;
    int priority_ = 0;
};

class QvResourceTypeBase : public QvComponentBase {
  public:
    using QvComponentBase::QvComponentBase;
};

class QvPluginBase {
  public:
    QvPluginBase() = default;
    virtual ~QvPluginBase() = default;
    QvPluginBase(const QvPluginBase&) = delete;
    QvPluginBase& operator=(const QvPluginBase&) = delete;

    virtual bool postLoadInitialization() = 0;
    virtual bool postEnumerationInitialization() { return true; }
    virtual void preUnloadDeinitialization() {}
    virtual int enable() { return 0; }
    virtual int disable() { return 0; }

    // Takes the plug-in out of the host's lists; its components are no
    // longer found. Safe to call more than once.
    void closedown();

    bool initialised = false;
    bool enabled = false;
    int useCount = 0;
    LightweightString<char> name;
    LightweightString<char> version;
    Vector<QvComponentBase*> components;
};

class QvDeviceDriverBase : public QvPluginBase {};

// The plug-ins the host has loaded.
class QvDeviceDriverManager {
  public:
    static QvDeviceDriverManager& theDeviceDriverManager();

    void registerPlugin(QvPluginBase* plugin);
    void unregisterPlugin(QvPluginBase* plugin);
    std::vector<QvPluginBase*> plugins() const;

  private:
    mutable std::mutex mutex_;
    std::vector<QvPluginBase*> plugins_;
};

// Walks the loaded plug-ins, from `start`, the enabled ones only if asked.
class QvPluginManagerIter {
  public:
    QvPluginManagerIter(QvDeviceDriverManager& manager, bool enabledOnly, int start);

  protected:
    std::vector<QvPluginBase*> plugins_;
};

// Walks the components of one resource type across the loaded plug-ins.
class QvDeviceDriverManagerIter : public QvPluginManagerIter {
  public:
    using QvPluginManagerIter::QvPluginManagerIter;
    void init(int resourceType);
    QvComponentBase* current() const { return index_ < found_.size() ? found_[index_] : nullptr; }
    bool atEnd() const { return index_ >= found_.size(); }
    QvDeviceDriverManagerIter& operator++() {
        ++index_;
        return *this;
    }

  private:
    std::vector<QvComponentBase*> found_;
    std::size_t index_ = 0;
};

// A numeric range; an XML export always covers the whole edit and ignores it.
struct Ordered {};
template <typename T, typename Order>
struct NumRange {
    T lo{}, hi{};
};

class UIString {
  public:
    explicit UIString(int resourceNumber) : resource_(resourceNumber) {}
    int resourceNumber() const { return resource_; }

  private:
    int resource_;
};

class Identified {
  public:
    virtual ~Identified() = default;
};

namespace QvExport {

namespace eFormatGroups {
enum eFormatGroup { eGroupNone = 0, eGroupMovie = 1, eGroupInterchange = 2, eGroupAudio = 3 };
}

// How a format stands in the host's export list.
class FormatDescription : public Identified {
  public:
    FormatDescription(UIString title, LightweightString<char> shortName,
                      eFormatGroups::eFormatGroup group, int flags)
        : title(title), shortName(std::move(shortName)), group(group), flags(flags) {}
    UIString title;
    LightweightString<char> shortName;
    eFormatGroups::eFormatGroup group;
    int flags;
};

struct ExportResult {
    int status = 0;
    std::vector<LightweightString<wchar_t>> files;
};

class Exporter : public iObject {
  public:
    virtual OptionsBase* getOptions() = 0;
    virtual bool canStart() { return true; }
    virtual bool requiresHiResMedia() { return false; }
};

// An export running on a worker thread of its own.
class BackgroundTask : public iObject {
  public:
    ~BackgroundTask() override;
    // Waits for the export to end and gives its result.
    ExportResult wait();
    bool finished() const;
    // Waits until the export ends or the time is up; true when it has ended.
    // Wakes at once when the export ends, so a caller that shows progress
    // between waits loses no time.
    bool waitFor(std::chrono::milliseconds time) const;

  private:
    friend class SingleSourceExporter;
    mutable std::mutex mutex_;
    mutable std::condition_variable ended_;
    std::thread worker_;
    bool finished_ = false;
    ExportResult result_;
};

// An exporter of one source edit.
class SingleSourceExporter : public Exporter {
  public:
    virtual ExportResult doExport(const Cookie& source, const NumRange<double, Ordered>& range) = 0;
    // Starts the export on a worker thread; the exporter is kept alive until
    // the export has ended.
    Qv::Ptr<BackgroundTask> createBackgroundTasks(const Cookie& source,
                                                  const NumRange<double, Ordered>& range);
};

template <typename Options, typename Base>
class ExporterWithOptions : public Base {
  public:
    OptionsBase* getOptions() override { return &options_; }

  protected:
    Options options_;
};

// A format in the host's export list: resource type 23.
class ExporterFactoryBase : public QvResourceTypeBase {
  public:
    explicit ExporterFactoryBase(FormatDescription description)
        : QvResourceTypeBase(description.shortName, 0), description_(std::move(description)) {
        setResourceType(kResourceTypeExporterFactory);
    }
    const FormatDescription& getFormatDescription() const { return description_; }
    virtual bool isEnabled() const { return true; }
    virtual bool isAvailable() const { return true; }
    virtual Qv::Ptr<Exporter> createExporter(const OptionsBase* options) const = 0;
    // 0 when the edit can be exported; otherwise why not.
    virtual int canExport(const EditPtr& edit) const = 0;

  private:
    FormatDescription description_;
};

template <typename T>
class ExporterFactory : public ExporterFactoryBase {
  public:
    using ExporterFactoryBase::ExporterFactoryBase;
    Qv::Ptr<Exporter> createExporter(const OptionsBase*) const override {
        return Qv::Ptr<Exporter>(new T);
    }
    int canExport(const EditPtr&) const override { return 0; }
};

// A factory that exports only edits of certain log types that have channels
// of certain kinds. The exporter type supplies canExport and createExporter.
template <typename T>
class ConditionalExporterFactory : public ExporterFactory<T> {
  public:
    ConditionalExporterFactory(FormatDescription description, unsigned int channelMask,
                               unsigned int logTypeMask)
        : ExporterFactory<T>(std::move(description)),
          channelMask(channelMask),
          logTypeMask(logTypeMask) {}
    Qv::Ptr<Exporter> createExporter(const OptionsBase* options) const override;
    int canExport(const EditPtr& edit) const override;

    unsigned int channelMask;
    unsigned int logTypeMask;
};

}  // namespace QvExport
