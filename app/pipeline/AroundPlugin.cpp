#include "app/pipeline/AroundPlugin.h"

#include <set>

#include "app/pipeline/Pipeline.h"
#include "host/Media.h"
#include "host/OS.h"

namespace qvapp {

MendedVersion::MendedVersion(const std::string& input, const DocumentHead& head,
                             const LightweightString<wchar_t>& path, LoggerHandle log,
                             std::string handed, bool converted)
    : path_(path) {
    VersionMend mend = mendVersion(head);
    std::string bytes = std::move(handed);
    const bool handedOver = !bytes.empty();
    bool mended = false;
    if (!mend.attribute.empty() && (handedOver || readWhole(input, bytes)) &&
        mend.offset + mend.length <= bytes.size()) {
        bytes.replace(mend.offset, mend.length, mend.attribute);
        mended = true;
    }
    if (!mended && !handedOver) return;
    // Bytes that are the file's own go to the reader alone, which gives
    // them back as soon as it has read them; mended or converted ones stand
    // for the file for as long as this lives.
    setFileOverlay(path_, std::move(bytes), !mended && !converted);
    active_ = true;
    if (mended)
        log.WarningOut("%s: %s version \"%s\" is read as version %s", input.c_str(),
                       head.root.c_str(), mend.was.c_str(), mend.becomes.c_str());
}
MendedVersion::~MendedVersion() {
    if (active_) clearFileOverlay(path_);
}

LeaveOutShotsWithoutFiles::LeaveOutShotsWithoutFiles(const Qv::Ptr<Edit>& edit, LoggerHandle log) {
    EditStore& store = EditStore::current();
    std::set<Qv::UUID> seen;
    std::vector<Qv::Ptr<Edit>> pending{edit};
    while (!pending.empty()) {
        Qv::Ptr<Edit> e = pending.back();
        pending.pop_back();
        for (const StoredChannel& ch : e->channels) {
            for (const CelData& c : ch.cels) {
                if (!c.cookie.isValid() || c.cookie.isMagic()) continue;
                Qv::Ptr<Edit> target = store.find(c.cookie);
                const Qv::UUID& id = c.cookie.uuid;
                if (!target ||
                    !seen.insert({id.words[0], id.words[1], id.words[2], id.words[3]}).second)
                    continue;
                if (!target->isShot()) {
                    pending.push_back(target);
                } else if (!target->excludedFromExport &&
                           !SystemCache::findEntryForCookie(target->cookie)) {
                    target->excludedFromExport = true;
                    left_.push_back(target);
                    log.WarningOut(
                        "shot \"%s\" has no media file: fcpxml cannot hold it, "
                        "and its uses become gaps",
                        toUTF8(target->name).c_str());
                }
            }
        }
    }
}
LeaveOutShotsWithoutFiles::~LeaveOutShotsWithoutFiles() {
    for (const Qv::Ptr<Edit>& e : left_)
        e->excludedFromExport = false;
}

void mapMediaPaths(const PathMap& rules) {
    setLocatorMap(rules);
}

void mapImportedLocators(const IdentitySet& before) {
    std::shared_ptr<const PathMap> map = locatorMap();
    if (!map || map->empty()) return;
    EditStore& store = EditStore::current();
    for (const Qv::Ptr<Edit>& e : store.edits()) {
        if (!e->isShot() || before.count(e->cookie.uuid)) continue;
        e->historicLocator = map->apply(e->historicLocator);
    }
    store.noteMediaChanged();
}

void mapSnapshotLocators() {
    std::shared_ptr<const PathMap> map = locatorMap();
    if (!map || map->empty()) return;
    EditStore& store = EditStore::current();
    for (const Qv::Ptr<Edit>& e : store.edits()) {
        if (!e->isShot()) continue;
        e->historicLocator = map->apply(e->historicLocator);
        e->mediaPath = map->apply(e->mediaPath);
    }
    store.noteMediaChanged();
}

}  // namespace qvapp
