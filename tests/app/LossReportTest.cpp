// The loss report's JSON text: names read from a document are written
// whatever their bytes.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "app/conform/LossReport.h"

namespace {

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
