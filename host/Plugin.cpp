#include "host/Plugin.h"

#include <algorithm>

#include "host/Edit.h"

void QvPluginBase::closedown() {
    QvDeviceDriverManager::theDeviceDriverManager().unregisterPlugin(this);
}

QvDeviceDriverManager& QvDeviceDriverManager::theDeviceDriverManager() {
    static QvDeviceDriverManager* manager = new QvDeviceDriverManager;
    return *manager;
}

void QvDeviceDriverManager::registerPlugin(QvPluginBase* plugin) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (plugin && std::find(plugins_.begin(), plugins_.end(), plugin) == plugins_.end())
        plugins_.push_back(plugin);
}

void QvDeviceDriverManager::unregisterPlugin(QvPluginBase* plugin) {
    std::lock_guard<std::mutex> lock(mutex_);
    plugins_.erase(std::remove(plugins_.begin(), plugins_.end(), plugin), plugins_.end());
}

std::vector<QvPluginBase*> QvDeviceDriverManager::plugins() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return plugins_;
}

QvPluginManagerIter::QvPluginManagerIter(QvDeviceDriverManager& manager, bool enabledOnly,
                                         int start) {
    std::vector<QvPluginBase*> all = manager.plugins();
    for (std::size_t i = start > 0 ? static_cast<std::size_t>(start) : 0; i < all.size(); ++i)
        if (!enabledOnly || all[i]->initialised) plugins_.push_back(all[i]);
}

void QvDeviceDriverManagerIter::init(int resourceType) {
    found_.clear();
    index_ = 0;
    for (QvPluginBase* plugin : plugins_)
        for (QvComponentBase* c : plugin->components)
            if (c && c->getResourceType() == resourceType) found_.push_back(c);
}

namespace QvExport {

BackgroundTask::~BackgroundTask() {
    if (worker_.joinable()) worker_.join();
}

ExportResult BackgroundTask::wait() {
    if (worker_.joinable()) worker_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    return result_;
}

bool BackgroundTask::waitFor(std::chrono::milliseconds time) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return ended_.wait_for(lock, time, [this] { return finished_; });
}

bool BackgroundTask::finished() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return finished_;
}

Qv::Ptr<BackgroundTask> SingleSourceExporter::createBackgroundTasks(
    const Cookie& source, const NumRange<double, Ordered>& range) {
    Qv::Ptr<BackgroundTask> task(new BackgroundTask);
    Qv::Ptr<SingleSourceExporter> self(this);
    BackgroundTask* t = task.get();
    // The export works on the project of the thread that started it, and
    // reports to that thread's application log.
    EditStore* store = &EditStore::current();
    Qv::Ptr<iLogSink> appLog = threadApplicationLog();
    t->worker_ = std::thread([self, source, range, t, store, appLog] {
        EditStore::setCurrent(store);
        setThreadApplicationLog(appLog);
        ExportResult r = self->doExport(source, range);
        setThreadApplicationLog(nullptr);
        std::lock_guard<std::mutex> lock(t->mutex_);
        t->result_ = std::move(r);
        t->finished_ = true;
        t->ended_.notify_all();
    });
    return task;
}

}  // namespace QvExport
