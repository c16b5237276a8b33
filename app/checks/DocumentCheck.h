// What the command tells a user about a document's content that the readers
// pass over without a word: the readers keep their ways (a reference to
// nothing plays black, a negative frame count is read unsigned), and the
// command says where that happens and whether the result can be trusted
// (checks/NativeAudit.cpp). And what of a project no export can write
// (checks/UnusableValues.cpp).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "app/checks/WellFormed.h"
#include "host/Edit.h"

namespace qvapp {

struct Finding {
    XmlPlace at;       // where the element stands; line 0 when not in a document
    std::string what;  // names the element and says what becomes of it
    // The import would give times or positions that are wrong: no usable
    // rate, counts read as huge numbers, positions that are not numbers.
    bool untrusted = false;
};

// The limits of the scan for a QVXML document.
XmlLimits qvxmlLimits();

// The check of a QVXML document, and in the same scan its findings: what its
// reader of that version passes over (up to the document's first NUL byte,
// where the reader stops). No findings when a limit refuses the document.
XmlCheck checkNative(std::string_view text, bool version2, std::vector<Finding>& findings);
std::vector<Finding> auditNative(std::string_view text, bool version2);

// A number as findings show it: six significant digits ("29.97", "1e+09").
std::string numberText(double value);

// Values of the edits that no export can write as they are: numbers that
// are not finite, and times too large for a frame count (at 240 frames a
// second a 32-bit count holds 103 days), named by edit, channel and cel. The
// times, lengths and rates of sequences and sub-clips place their material,
// so such a one makes the result untrusted; those of a shot get its length
// wrong, and levels, speeds, level keyframes and markers are lost, which is
// told but does not. At most `limit` are named; `more` counts the rest.
struct Unusable {
    std::vector<Finding> named;
    std::size_t more = 0;
    bool untrusted = false;  // among all, named or not
};
Unusable unusableValues(const std::vector<Qv::Ptr<Edit>>& edits, std::size_t limit);

// The edit and every edit it plays, once each.
std::vector<Qv::Ptr<Edit>> editAndSources(const Qv::Ptr<Edit>& edit);

}  // namespace qvapp
