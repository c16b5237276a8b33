// The dictionary that joins the reference strings of a document to the
// records built from them.
//
// Entries keep their order of insertion and a reference may be added more
// than once: a look-up answers with the first live entry of that text. Two
// indexes (by text, and by record) keep every operation from walking the whole
// map, so that a reader stays linear in the size of its document.
#pragma once

#include <string>
#include <unordered_map>
#include <vector>

#include "host/ED2.h"

namespace XML {

class RefIdMap {
  public:
    struct RefIdMapRec {
        CED2* ced2 = nullptr;  // not owned while the record sits in a reader's list
        bool initialised = false;
        unsigned int chanIndex = 0;
        bool isSingleImage = false;
        EditChanType chanType = kChanVideo;
        LightweightString<char> refId;
        // The record was destroyed through this map; the entry no longer counts.
        bool destroyed = false;
    };

    // Appends an entry; an existing entry of the same reference stays first.
    void addRef(const LightweightString<char>& refId, CED2* ced2, bool initialised,
                unsigned int chanIndex, EditChanType chanType);
    // The first live entry of that reference (all fields but refId copied).
    bool findRef(const LightweightString<char>& refId, RefIdMapRec& rec) const;
    void setRecInitialised(const LightweightString<char>& refId, bool value);
    void setIsSingleImage(const LightweightString<char>& refId);
    void clear();
    // Warns of every entry that was never filled from its element, destroys
    // its record, and reports whether there was one. The entries stay, but no
    // longer answer lookups.
    bool anyEntryIsUninitialised(LoggerHandle& logger, LightweightString<char>& nameOut);
    // Destroys the record of every entry, then empties the map.
    void deleteAllCed2s();

    std::size_t size() const { return entries_.size(); }
    const std::vector<RefIdMapRec>& entries() const { return entries_; }

  private:
    void destroyRecord(CED2* record);
    const std::vector<std::size_t>* entriesOf(const LightweightString<char>& refId) const;

    std::vector<RefIdMapRec> entries_;
    // Entry numbers of each reference text, and of each record, in order.
    std::unordered_map<std::string, std::vector<std::size_t>> byRef_;
    std::unordered_map<const CED2*, std::vector<std::size_t>> byRecord_;
};

}  // namespace XML
