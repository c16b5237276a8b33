// The loss report: what its summary says, and its JSON text, which names read
// from a document are written into whatever their bytes.
#include "app/conform/LossReport.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

namespace {

using qvapp::DocumentLosses;
using qvapp::lossSummary;

// "Nothing was lost" is said only of a run without losses and without
// warnings: a warning that something plays black is never contradicted.
TEST(LossReport, NothingWasLostOnlyWithoutLossesOrWarnings) {
    DocumentLosses d;
    d.input = "cut.otio";
    d.target = "xmeml";
    d.read = true;
    EXPECT_EQ(lossSummary(d), "cut.otio to xmeml: nothing was lost");
    d.warnings = 2;
    EXPECT_EQ(lossSummary(d),
              "cut.otio to xmeml: no loss was recorded, but 2 warnings above may "
              "tell of one");
    qvapp::Loss l;
    l.kind = "nested-unplayed";
    d.items.push_back(l);
    EXPECT_EQ(lossSummary(d),
              "cut.otio to xmeml: 1 loss (1 nested stacks played as black or "
              "silence)");
}

// A sequence named in Latin-1 (a byte 0xF8 that is no UTF-8) lost a filter;
// the fuzzer found convert --report ending in an exception on such a name,
// after the documents were written.
TEST(LossReport, NamesThatAreNotUtf8AreWrittenWithReplacementCharacters) {
    qvapp::DocumentLosses document;
    document.input = "cut\xF8.xml";
    document.target = "xmeml";
    document.read = true;
    document.outputs.push_back("H\xF8iby.xml");
    qvapp::Loss loss;
    loss.kind = "filter";
    loss.origin = "reader";
    loss.sequence = "H\xF8iby";
    loss.track = "V1";
    loss.detail = "<effect> \"Bl\xE5\" \xC3";  // a lone byte, and a sequence cut short
    document.items.push_back(loss);

    std::string text;
    ASSERT_NO_THROW(text = qvapp::lossReportText({document}, "convert"));
    nlohmann::json report = nlohmann::json::parse(text);
    const nlohmann::json& item = report["documents"][0]["items"][0];
    EXPECT_EQ(item["sequence"], "H\xEF\xBF\xBDiby");
    EXPECT_NE(item["detail"].get<std::string>().find("Bl\xEF\xBF\xBD"), std::string::npos);
    EXPECT_EQ(report["documents"][0]["input"], "cut\xEF\xBF\xBD.xml");
}

}  // namespace
