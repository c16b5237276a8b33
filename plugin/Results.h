// What the two pipelines hand back to the host.
#pragma once

#include <vector>

#include "host/ED2.h"
#include "host/Edit.h"

namespace XML {

struct ExportResult {
    int status = 1;
    // The file written, for the host to show; at most one entry.
    std::vector<LightweightString<wchar_t>> files;
};

struct ImportResult {
    int status = 1;
    LightweightVector<EditModifier> edits;  // the sequences made, left open for the host
    CookieVec cookies;                      // present and empty
};

}  // namespace XML
