// Helpers of the OpenTimelineIO tests: the Python reading, imports and
// exports in the current store, and the comparison of an import with the
// Python reading of its file.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "host/Edit.h"
#include "plugin/Results.h"

namespace qvotio {

// The corpus of documents by other tools; empty when it is not there.
std::string corpus();
// Every .otio of the corpus: otio/ and otio/from-xmeml/.
std::vector<std::string> corpusOtioFiles();
// The serialized schema of OpenTimelineIO's documentation.
std::string schemaDocument();

bool havePython();
// otio_reading.py positions FILE: the cels qvxml should make.
nlohmann::json pythonPositions(const std::string& otioFile);
// otio_reading.py check FILE: what is wrong with the document, one a line.
std::vector<std::string> schemaProblems(const std::string& otioFile);

// Imports an .otio file into the current store.
XML::ImportResult importOtio(const std::string& path, LoggerHandle log = LoggerHandle());
// The .otio document of an edit of the current store.
std::string otioText(const Cookie& edit);

// Whether the sequences an import made hold the cels the Python reading
// expects, to the millionth of a frame.
::testing::AssertionResult matchesPositions(const nlohmann::json& expected,
                                            const LightweightVector<EditModifier>& made);

}  // namespace qvotio
