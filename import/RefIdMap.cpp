#include "import/RefIdMap.h"

namespace XML {

void RefIdMap::addRef(const LightweightString<char>& refId, CED2* ced2, bool initialised,
                      unsigned int chanIndex, EditChanType chanType) {
    RefIdMapRec rec;
    rec.ced2 = ced2;
    rec.initialised = initialised;
    rec.chanIndex = chanIndex;
    rec.chanType = chanType;
    rec.refId = refId;
    std::size_t number = entries_.size();
    entries_.push_back(rec);
    // Text comparison: a null and an empty reference are the same key.
    byRef_[refId.str()].push_back(number);
    if (ced2) byRecord_[ced2].push_back(number);
}

const std::vector<std::size_t>* RefIdMap::entriesOf(const LightweightString<char>& refId) const {
    auto it = byRef_.find(refId.str());
    return it == byRef_.end() ? nullptr : &it->second;
}

bool RefIdMap::findRef(const LightweightString<char>& refId, RefIdMapRec& rec) const {
    const std::vector<std::size_t>* numbers = entriesOf(refId);
    if (!numbers) return false;
    for (std::size_t n : *numbers) {
        const RefIdMapRec& e = entries_[n];
        if (e.destroyed) continue;
        LightweightString<char> keep = rec.refId;
        rec = e;
        rec.refId = keep;
        return true;
    }
    return false;
}

void RefIdMap::setRecInitialised(const LightweightString<char>& refId, bool value) {
    if (const std::vector<std::size_t>* numbers = entriesOf(refId))
        for (std::size_t n : *numbers)
            entries_[n].initialised = value;
}

void RefIdMap::setIsSingleImage(const LightweightString<char>& refId) {
    if (const std::vector<std::size_t>* numbers = entriesOf(refId))
        for (std::size_t n : *numbers)
            entries_[n].isSingleImage = true;
}

void RefIdMap::clear() {
    entries_.clear();
    byRef_.clear();
    byRecord_.clear();
}

void RefIdMap::destroyRecord(CED2* record) {
    if (!record) return;
    // Every entry that names the record stops answering, so that no lookup
    // can reach the destroyed record.
    auto it = byRecord_.find(record);
    if (it != byRecord_.end()) {
        for (std::size_t n : it->second) {
            entries_[n].ced2 = nullptr;
            entries_[n].destroyed = true;
        }
        byRecord_.erase(it);
    }
    delete record;
}

bool RefIdMap::anyEntryIsUninitialised(LoggerHandle& logger, LightweightString<char>& nameOut) {
    bool any = false;
    for (size_t i = 0; i < entries_.size(); ++i) {
        RefIdMapRec& e = entries_[i];
        if (e.initialised || e.destroyed) continue;
        any = true;
        nameOut = e.ced2 ? toUTF8(e.ced2->get_editName()) : LightweightString<char>();
        logger.WarningOut("Badly defined clip - name <%s> XML reference <%s>", nameOut.c_str(),
                          e.refId.c_str());
        if (e.ced2) {
            destroyRecord(e.ced2);
        } else {
            e.destroyed = true;
        }
    }
    return any;
}

void RefIdMap::deleteAllCed2s() {
    for (RefIdMapRec& e : entries_)
        if (e.ced2) destroyRecord(e.ced2);
    clear();
}

}  // namespace XML
