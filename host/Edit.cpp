#include "host/Edit.h"

#include <algorithm>
#include <atomic>

#include "host/Media.h"
#include "host/Paths.h"

Edit::Edit(const Cookie& c) : cookie(convertCookie(c, kCookieEdit, 255)) {}

int Edit::getNumChans(unsigned int mask) const {
    int n = 0;
    for (const StoredChannel& ch : channels)
        if (static_cast<unsigned>(ch.type) & mask) ++n;
    return n;
}

bool Edit::getTrackOriginInfo_Filename(const IdStamp&, LightweightString<char>& out) const {
    if (trackOriginFilename.empty()) return false;
    out = trackOriginFilename;
    return true;
}

Qv::FrameRate Edit::getSourceFrameRate() const {
    if (Qv::isKnownFrameRate(sourceFrameRate)) return sourceFrameRate;
    if (Qv::isKnownFrameRate(frameRate)) return frameRate;
    return Qv::getEquivalentQvFrameRate(rate);
}

EditLabel Edit::getVideoTimecodeLabel() const {
    return labels.empty() ? EditLabel() : labels.front();
}

double Edit::getEndTime() const {
    if (length > 0) return length;
    double end = 0;
    for (const StoredChannel& ch : channels)
        for (const CelData& c : ch.cels)
            end = std::max(end, c.editOut);
    return end;
}

const StoredChannel* Edit::findChannel(unsigned int index) const {
    for (const StoredChannel& ch : channels)
        if (ch.index == index) return &ch;
    return nullptr;
}

void Edit::verifyClipLength() {
    if (!(length > 0)) length = getEndTime();
}

LightweightString<char> Edit::getConfig(std::string_view key) const {
    auto it = config.find(key);
    return it == config.end() ? LightweightString<char>() : it->second;
}

void EditPtr::i_open(const Cookie& cookie, eEditOpenBehaviour) {
    i_close();
    if (!cookie.isValid() || cookie.isMagic()) return;
    EditStore& store = EditStore::current();
    edit_ = store.find(cookie);
    if (edit_) {
        ++edit_->openCount;
        opened_ = true;
        store.noteOpen();
    }
}

void EditPtr::i_close() {
    if (opened_ && edit_) {
        --edit_->openCount;
        EditStore::current().noteClose();
    }
    opened_ = false;
    edit_.reset();
}

EditPtr& EditPtr::operator=(Edit* e) {
    i_close();
    edit_ = Qv::Ptr<Edit>(e);
    return *this;
}

namespace {
// The store of a thread that has not chosen one: the process's own project.
EditStore& processStore() {
    static EditStore* store = new EditStore;
    return *store;
}
// Each thread works on a store of its own choosing, so that projects can be
// worked on side by side; a thread that chose none works on the process's.
thread_local EditStore* threadStore = nullptr;
std::atomic<std::uint64_t> nextSerial{1};
// splitmix64: small, fast and good enough for identities.
std::uint64_t nextRandom(std::uint64_t& state) {
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}
}  // namespace

EditStore::EditStore(std::uint64_t seed)
    : serial_(nextSerial.fetch_add(1, std::memory_order_relaxed)), state_(seed) {}

EditStore::~EditStore() {
    MediaFileToClipMap::forgetStore(serial_);
}

EditStore& EditStore::current() {
    return threadStore ? *threadStore : processStore();
}
void EditStore::setCurrent(EditStore* store) {
    threadStore = store;
}

Qv::UUID EditStore::newIdentity() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    Qv::UUID id;
    do {
        std::uint64_t a = nextRandom(state_), b = nextRandom(state_);
        id.words[0] = static_cast<std::uint32_t>(a >> 32);
        id.words[1] = static_cast<std::uint32_t>(a);
        id.words[2] = static_cast<std::uint32_t>(b >> 32);
        id.words[3] = static_cast<std::uint32_t>(b);
        // Never a magic identity, never all zero.
    } while (id.words[1] == kMagicWord ||
             (id.words[0] | id.words[1] | id.words[2] | id.words[3]) == 0);
    return id;
}

void EditStore::reseed(std::uint64_t seed) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    state_ = seed;
}

Cookie EditStore::newEditCookie() {
    Cookie c;
    c.uuid = newIdentity();
    c.type = kCookieEdit;
    return c;
}

std::uint64_t EditStore::generatorState() const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    return state_;
}

std::size_t EditStore::IdentityHash::operator()(const Qv::UUID& id) const noexcept {
    std::uint64_t h = 0;
    for (std::uint32_t w : id.words)
        h = (h ^ w) * 0x100000001B3ull;
    return static_cast<std::size_t>(h ^ (h >> 29));
}

void EditStore::add(Qv::Ptr<Edit> edit) {
    if (!edit) return;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    byMediaValid_ = false;
    auto [it, fresh] = index_.try_emplace(edit->cookie.uuid, edits_.size());
    if (!fresh) {
        edits_[it->second] = std::move(edit);
        return;
    }
    edits_.push_back(std::move(edit));
}

bool EditStore::remove(const Cookie& cookie) {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    auto it = index_.find(cookie.uuid);
    if (it == index_.end()) return false;
    std::size_t at = it->second;
    index_.erase(it);
    byMediaValid_ = false;
    edits_.erase(edits_.begin() + static_cast<std::ptrdiff_t>(at));
    for (auto& entry : index_)
        if (entry.second > at) --entry.second;
    return true;
}

void EditStore::clear() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    edits_.clear();
    index_.clear();
    byMediaValid_ = false;
}

Qv::Ptr<Edit> EditStore::find(const Cookie& cookie) const {
    if (!cookie.isValid()) return nullptr;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    auto it = index_.find(cookie.uuid);
    return it == index_.end() ? nullptr : edits_[it->second];
}

Qv::Ptr<Edit> EditStore::findByName(const LightweightString<wchar_t>& name) const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    for (const Qv::Ptr<Edit>& e : edits_)
        if (e->name == name) return e;
    return nullptr;
}

Qv::Ptr<Edit> EditStore::findShotByMedia(const LightweightString<wchar_t>& path) const {
    if (path.empty()) return nullptr;
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    if (!byMediaValid_) {
        byMedia_.clear();
        for (const Qv::Ptr<Edit>& e : edits_)
            if (e->isShot() && !e->mediaPath.empty())
                byMedia_[e->mediaPath.str()].push_back(e.get());
        byMediaValid_ = true;
    }
    auto it = byMedia_.find(path.str());
    if (it == byMedia_.end()) return nullptr;
    for (Edit* e : it->second)
        if (e->isShot() && e->mediaPath == path) return find(e->cookie);
    return nullptr;
}

void EditStore::noteMediaChanged() {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    byMediaValid_ = false;
}

std::vector<Qv::Ptr<Edit>> EditStore::edits() const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    return edits_;
}

std::size_t EditStore::size() const {
    std::lock_guard<std::recursive_mutex> lock(mutex_);
    return edits_.size();
}

ScopedCurrentStore::ScopedCurrentStore(EditStore& store) : previous_(&EditStore::current()) {
    EditStore::setCurrent(&store);
}
ScopedCurrentStore::~ScopedCurrentStore() {
    EditStore::setCurrent(previous_);
}

namespace SystemCache {

Qv::Ptr<FsysDirectoryEntry> findEntryForCookie(const Cookie& cookie) {
    if (!cookie.isValid() || cookie.isMagic()) return nullptr;
    Qv::Ptr<Edit> e = EditStore::current().find(cookie);
    if (!e) return nullptr;
    if (!e->mediaPath.empty())
        return Qv::Ptr<FsysDirectoryEntry>(new FsysDirectoryEntry(e->mediaPath));
    // Offline material is known by the file it was expected in, so that a
    // document written from it still names its media for relinking.
    if (e->historicLocator.empty()) return nullptr;
    LightweightString<wchar_t> expected = locatorToPlatformForm(e->historicLocator);
    if (expected.empty()) return nullptr;
    return Qv::Ptr<FsysDirectoryEntry>(new FsysDirectoryEntry(expected));
}

LightweightString<wchar_t> getPhysicalHighResMedia(const Cookie& cookie) {
    Qv::Ptr<FsysDirectoryEntry> entry = findEntryForCookie(cookie);
    return entry ? entry->getPhysicalFilename(true) : LightweightString<wchar_t>();
}

}  // namespace SystemCache

bool getPrimaryURLLocator(LightweightString<wchar_t>& locator, Cookie& cookie) {
    LightweightString<wchar_t> path = SystemCache::getPhysicalHighResMedia(cookie);
    if (path.empty()) return false;
    locator = locator_IsLocal(path) ? localPathToURL(path) : path;
    return !locator.empty();
}

bool getHistoricURLLocator(LightweightString<wchar_t>& locator, Cookie& cookie) {
    if (!cookie.isValid() || cookie.isMagic()) return false;
    Qv::Ptr<Edit> e = EditStore::current().find(cookie);
    if (!e || e->historicLocator.empty()) return false;
    locator = locator_IsLocal(e->historicLocator) ? localPathToURL(e->historicLocator)
                                                  : e->historicLocator;
    return !locator.empty();
}
