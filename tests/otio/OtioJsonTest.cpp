// Reading .otio text: the block input that drops indentation hands the parser
// the same values as the file holds, and a document it cannot take is read
// again so that NaN and the place of a fault come out as in the file.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "otio/OtioJson.h"
#include "otio/OtioModel.h"
#include "tests/support/TestSupport.h"

namespace {

struct FileCloser {
    void operator()(std::FILE* f) const {
        if (f) std::fclose(f);
    }
};

// What nlohmann makes of a file through BlockInput; null when it fails.
nlohmann::json throughBlocks(const std::string& path, bool& readError) {
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    QvOtio::BlockInput input(file.get());
    nlohmann::json out = nlohmann::json::parse(input.begin(), input.end(), nullptr, false);
    readError = input.readError();
    return out;
}

TEST(OtioJsonInput, BlocksKeepEveryValueWhateverTheLayout) {
    qvtest::TempDir dir;
    // Strings full of white space, quotes and escapes, long enough that some
    // straddle the end of a block, in indented and in tight layouts; numbers
    // and words that white space alone separates from their neighbours.
    nlohmann::json doc = nlohmann::json::object();
    std::string spaced;
    for (int i = 0; i < 40000; ++i)
        spaced += i % 7 == 0 ? "  \\\"\t\n x " : "a b  ";
    doc["spaced"] = spaced;
    doc["numbers"] = {1, -2, 3.5, 1e300, -0.0, 12345678901234LL};
    doc["words"] = {true, false, nullptr};
    doc["nested"] = nlohmann::json::array();
    for (int i = 0; i < 3000; ++i)
        doc["nested"].push_back({{"name", "clip " + std::to_string(i) + "\\"},
                                 {"value", i},
                                 {"empty", nlohmann::json::object()},
                                 {"text", std::string(static_cast<std::size_t>(i % 300), ' ')}});
    for (int indent : {-1, 0, 4, 17}) {
        std::string path = dir.file("doc" + std::to_string(indent) + ".json");
        qvtest::writeFile(path, "\n\t " + doc.dump(indent) + " \r\n");
        bool readError = true;
        EXPECT_EQ(throughBlocks(path, readError), doc) << "indent " << indent;
        EXPECT_FALSE(readError);
    }
}

TEST(OtioJsonInput, TokensThatOnlySpaceSeparatesStaySeparate) {
    qvtest::TempDir dir;
    // Squeezing white space must not join two tokens into one valid one.
    for (const char* text : {"[1 2]", "[true\nfalse]", "[1\t\t-2]", "[\"a\" \"b\"]", "{\"a\" :1 2}",
                             "  \xEF\xBB\xBF{}", "[1] [2]"}) {
        std::string path = dir.file("bad.json");
        qvtest::writeFile(path, text);
        bool readError = false;
        EXPECT_TRUE(throughBlocks(path, readError).is_discarded()) << text;
    }
}

TEST(OtioJsonInput, FaultsAndSpecialNumbersAreToldAsTheFileHasThem) {
    qvtest::TempDir dir;
    std::string path = dir.file("doc.otio");
    // A fault at the end of the fourth line, after deep indentation: the message counts
    // the file's lines and columns, not those of the squeezed text.
    qvtest::writeFile(path,
                      "{\n    \"OTIO_SCHEMA\": \"Timeline.1\",\n        \"name\": \"x\",\n"
                      "            \"tracks\": nul\n}\n");
    QvOtio::Document doc;
    QvOtio::ParseResult r = QvOtio::parseFile(path, doc);
    EXPECT_FALSE(r.ok);
    EXPECT_NE(r.error.find("line 5, column 0"), std::string::npos) << r.error;
    EXPECT_NE(r.error.find("\"tracks\": nul"), std::string::npos) << r.error;

    // NaN and Infinity, which plain JSON lacks, are read through the second
    // pass; the model is the one of the second pass alone.
    qvtest::writeFile(path, R"({"OTIO_SCHEMA": "Track.1", "name": "t", "kind": "Video",
        "children": [{"OTIO_SCHEMA": "Gap.1", "name": "g",
            "source_range": {"start_time": {"value": 0, "rate": 24},
                             "duration": {"value": Infinity, "rate": NaN}}}]})");
    QvOtio::Document special;
    ASSERT_TRUE(QvOtio::parseFile(path, special).ok);
    ASSERT_EQ(special.items.size(), 2u);
    EXPECT_TRUE(std::isinf(special.items[0].sourceRange.duration.value));
    EXPECT_TRUE(std::isnan(special.items[0].sourceRange.duration.rate));
    EXPECT_TRUE(QvOtio::looksLikeOtio(path));
}

}  // namespace
