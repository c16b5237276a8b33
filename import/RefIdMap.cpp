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
    entries_.push_back(rec);
}

bool RefIdMap::findRef(const LightweightString<char>& refId, RefIdMapRec& rec) const {
    // Text comparison: a null and an empty reference are equal.
    for (const RefIdMapRec& e : entries_) {
        if (e.destroyed || !(e.refId == refId)) continue;
        LightweightString<char> keep = rec.refId;
        rec = e;
        rec.refId = keep;
        return true;
    }
    return false;
}

void RefIdMap::setRecInitialised(const LightweightString<char>& refId, bool value) {
    for (RefIdMapRec& e : entries_)
        if (e.refId == refId) e.initialised = value;
}

void RefIdMap::setIsSingleImage(const LightweightString<char>& refId) {
    for (RefIdMapRec& e : entries_)
        if (e.refId == refId) e.isSingleImage = true;
}

void RefIdMap::destroyRecord(CED2* record) {
    if (!record) return;
    // Every entry that names the record stops answering, so that no lookup
    // can reach the destroyed record.
    for (RefIdMapRec& e : entries_) {
        if (e.ced2 == record) {
            e.ced2 = nullptr;
            e.destroyed = true;
        }
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
    entries_.clear();
}

}  // namespace XML
