// Helpers of the edit decision list tests: lists read from text or files into
// the current store, lists written from it, what a sequence plays as the
// independent Python reading gives it, and the comparison of the two.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "edl/EdlImport.h"
#include "edl/EdlWriter.h"
#include "host/Edit.h"
#include "plugin/Results.h"
#include "tests/support/TestSupport.h"

namespace qvedl {

// The corpus of lists by other editors; empty when it is not there, which
// fails the test under CI=true and skips it elsewhere.
std::string corpus();
#define QVEDL_NEED_CORPUS() \
    QVTEST_NEED(!qvedl::corpus().empty(), "the corpus is not beside the project")

bool havePython();
// edl_reading.py FILE TICKS FPS: what each track of the list plays.
nlohmann::json pythonReading(const std::string& file, Qv::FrameRate rate);

// A list read into the current store, from its text (as if from
// /nonexistent/list.edl) or from a file.
XML::ImportResult readText(const std::string& text, Qv::FrameRate rate = Qv::eFrameRateNone,
                           LoggerHandle log = LoggerHandle());
XML::ImportResult readFile(const std::string& path, Qv::FrameRate rate = Qv::eFrameRateNone,
                           LoggerHandle log = LoggerHandle());
// The lists of an edit of the current store; fails the test unless written.
std::vector<QvEdl::WrittenList> write(const Cookie& edit, const QvEdl::ExportOptions& options = {},
                                      LoggerHandle log = LoggerHandle());
// The text of the one list written for `track` ("V1"), or of the first.
std::string listText(const Cookie& edit, const std::string& track = "",
                     const QvEdl::ExportOptions& options = {});

// What a sequence of the store plays, in the Python reading's terms.
nlohmann::json storeReading(const Qv::Ptr<Edit>& sequence);
// Whether two readings agree, item by item, to a millionth of a frame.
::testing::AssertionResult sameReading(const nlohmann::json& expected,
                                       const nlohmann::json& actual);

// The cels of a channel of a stored edit, by its track name ("V1", "A2").
const StoredChannel* track(const Qv::Ptr<Edit>& edit, const std::string& name);

}  // namespace qvedl
