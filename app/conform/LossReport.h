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

// What the target format cannot hold of a sequence, found by comparing the
// project's edit with the format: "native", "xmeml", "fcpxml" or "otio".
// `silent` and `skipOffline` are the export's options of those names.
std::vector<Loss> targetLosses(const SequenceInfo& sequence, const std::string& target, bool silent,
                               bool skipOffline);
// Whether targetLosses can find anything in the clips, transitions and
// markers of `sequence` for that target; when not, a description of the
// sequence without them (describeTimeline's `body` false) gives it all it
// reads.
bool targetLossesReadTheBody(const Edit& sequence, const std::string& target, bool skipOffline);

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
