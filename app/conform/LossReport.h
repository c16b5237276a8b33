// The loss report: what did not cross when a document was read, converted or
// an edit exported. Four sources feed it: the loss records the readers emit
// as they pass over material, the check of each import that every clip item
// of the document plays or is named by such a record (app/conform/Accounting.h), the
// records the plug-in's writers emit as they repair material, and a
// comparison of the project's edits with what the target format can hold.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "app/conform/DocumentInfo.h"
#include "host/Logger.h"

namespace qvapp {

struct Loss {
    std::string kind;    // a stable name: "filter", "speed", ... (see kindPhrase)
    std::string origin;  // "reader" (the import), "writer" (the plug-in's repairs), "target"
    std::string sequence, track, timecode;
    std::int64_t frame = -1;  // from the sequence's start; -1 when it has no place
    std::string detail;
};

struct DocumentLosses {
    std::string input, target;
    std::vector<std::string> outputs;
    std::vector<Loss> items;
    bool read = false;  // the document was read (a failed one has no report)
    // The warnings the run gave while the document was read and written: a
    // summary without losses does not say that nothing was lost beside them.
    int warnings = 0;

    std::map<std::string, int> counts() const;
};

// What a kind of loss means, in a few words for a count ("filters passed
// over"); the kind itself when it is not known.
std::string kindPhrase(const std::string& kind);

// Whether a loss of that kind says that material does not play where its
// editor put it (black, silence or other material in its place), so that it
// accounts for a clip item that plays nothing.
bool kindReplacesMaterial(const std::string& kind);

// A record as a loss of the report, of "reader" or "writer" origin.
Loss lossOf(const LossRecord& record, const char* origin);

// A sequence as a conversion's loss report reads it: given whole, or made
// from its edit, told by its name, rate, start, length and tracks, and
// described to its clips, transitions and markers only when the report
// first asks for them (most conversions to xmeml never do).
class SequenceView {
  public:
    explicit SequenceView(const SequenceInfo& whole) : head_(&whole), whole_(&whole) {}
    SequenceView(const Qv::Ptr<Edit>& edit, const std::string& format);
    // Null when the edit is no sequence to describe. Its name, rate, start,
    // length and tracks are the whole description's.
    const SequenceInfo* head() const { return head_; }
    // The whole description; only where head() is not null.
    const SequenceInfo& body() const;
    bool bodyDescribed() const { return whole_ != nullptr; }

  private:
    Qv::Ptr<Edit> edit_;
    std::string format_;
    DocumentInfo headOnly_;
    mutable DocumentInfo described_;
    const SequenceInfo* head_ = nullptr;
    mutable const SequenceInfo* whole_ = nullptr;
};

// What the target format cannot hold of a sequence, found by comparing the
// project's edit with the format: "native", "xmeml", "fcpxml" or "otio".
// `silent` and `skipOffline` are the export's options of those names.
std::vector<Loss> targetLosses(const SequenceView& sequence, const std::string& target, bool silent,
                               bool skipOffline);

// The losses an export recorded as it wrote (clips it shortened, transitions
// it replaced), placed on the sequence.
std::vector<Loss> writerLosses(const SequenceInfo& sequence,
                               const std::vector<LossRecord>& records);

// Losses recorded as they came (by a reader as it read a document, say), as
// they stand, with the origin given.
std::vector<Loss> recordedLosses(const std::vector<LossRecord>& records, const char* origin);

// One line for standard error: how many losses of which kinds. Without
// losses, "nothing was lost" only when no warning was given either.
std::string lossSummary(const DocumentLosses& losses);

nlohmann::json lossJson(const DocumentLosses& losses);
// The whole report of a run as JSON text.
std::string lossReportText(const std::vector<DocumentLosses>& documents,
                           const std::string& command);

}  // namespace qvapp
