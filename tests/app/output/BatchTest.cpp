#include "app/output/Batch.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <filesystem>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/Status.h"
#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace qvtest;

using qvapp::Batch;
using qvapp::JobResult;

// A job that throws ends as a failed document in one sentence; the jobs
// around it run and keep what they did, side by side or one after another.
TEST(Batch, AJobThatThrowsFailsAloneAndTheOthersGoOn) {
    const std::vector<std::string> labels = {"a.xml", "bad.otio", "c.xml", "huge.xml"};
    for (int jobs : {1, 2}) {
        Batch batch(jobs, "converting", false);
        std::vector<JobResult> results = batch.run(
            labels,
            [&](std::size_t i, std::FILE* out, std::FILE*) -> qvapp::Outcome {
                if (i == 1) throw std::runtime_error("type_error.302: type must be string");
                if (i == 3) throw std::bad_alloc();
                std::fputs((labels[i] + " written\n").c_str(), out);
                return qvapp::Outcome();
            },
            false);
        ASSERT_EQ(results.size(), 4u);
        EXPECT_EQ(results[0].status, 0);
        EXPECT_EQ(results[0].out, "a.xml written\n");
        EXPECT_EQ(results[1].status, qvapp::kExitFailed);
        EXPECT_EQ(results[1].err,
                  "qvxml: \"bad.otio\" failed at a fault qvxml did not foresee: type_error.302: "
                  "type must be string\n");
        EXPECT_EQ(results[2].status, 0);
        EXPECT_EQ(results[2].out, "c.xml written\n");
        EXPECT_EQ(results[3].status, qvapp::kExitUnreadable);
        EXPECT_EQ(results[3].err, "qvxml: there is not enough memory for \"huge.xml\"\n");
    }
}

// Outside a batch the same guard stands around one document. A failure the
// job gives back untold is told once, and one it told is not told again;
// what it says is shown, never obeyed.
TEST(Batch, AGuardedJobSaysWhatStoppedIt) {
    char* text = nullptr;
    std::size_t size = 0;
    std::FILE* err = ::open_memstream(&text, &size);
    ASSERT_NE(err, nullptr);
    qvapp::Outcome untold = qvapp::guardedJob(
        "cut.xml", err, [] { return qvapp::Outcome(3, "\"cut\x1b[2J.xml\" is no document"); });
    EXPECT_EQ(untold.status(), 3);
    EXPECT_EQ(untold.sentence(), "");
    EXPECT_EQ(qvapp::guardedJob("cut.xml", err, [] { return qvapp::Outcome::told(5); }).status(),
              5);
    EXPECT_EQ(qvapp::guardedJob("cut\x1b[2J.xml", err,
                                []() -> qvapp::Outcome { throw std::logic_error("odd"); })
                  .status(),
              qvapp::kExitFailed);
    std::fclose(err);
    EXPECT_EQ(std::string(text, size),
              "qvxml: \"cut\\x1b[2J.xml\" is no document\n"
              "qvxml: \"cut\\x1b[2J.xml\" failed at a fault qvxml did not foresee: odd\n");
    std::free(text);
}

TEST_F(Conform, ManyDocumentsSideBySideGiveWhatOneAtATimeGives) {
    // Two documents with sequences of one name, and one that is not there.
    const std::string example =
        std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";
    const std::string other =
        std::string(QVXML_SOURCE_DIR) + "/examples/xmeml/premiere_example.xml";
    copyFile(example, dir.file("in/one.xml"));
    copyFile(example, dir.file("in/two.xml"));
    copyFile(other, dir.file("in/three.xml"));
    std::string inputs;
    for (const char* name : {"one.xml", "missing.xml", "two.xml", "three.xml"})
        inputs += " " + quote(dir.file("in/") + name);

    std::map<int, std::map<std::string, std::string>> written;
    std::map<int, Outcome> outcomes;
    for (int jobs : {1, 3}) {
        std::string out = dir.file("out" + std::to_string(jobs));
        fs::create_directories(out);
        Outcome r = qvxml("convert" + inputs + " --to xmeml -j " + std::to_string(jobs) + " -o " +
                          quote(out) + " --report " +
                          quote(out + "/../report" + std::to_string(jobs) + ".json"));
        EXPECT_EQ(r.status, 2) << "the missing document's status: " << r.err;
        EXPECT_NE(
            r.err.find("converted 3 of 4 documents; 1 failed: \"" + dir.file("in/missing.xml")),
            std::string::npos)
            << r.err;
        EXPECT_EQ(r.err.find("\033"), std::string::npos) << "no bar when stderr is no terminal";
        for (const std::string& f : qvtest::listDirectory(out))
            written[jobs][f] = qvtest::readFile(out + "/" + f);
        // The output of the first job precedes that of the second.
        std::string text = r.out;
        for (size_t at = 0; (at = text.find(out)) != std::string::npos;)
            text.replace(at, out.size(), "OUT");
        outcomes[jobs] = r;
        outcomes[jobs].out = text;
    }
    EXPECT_EQ(outcomes[1].out, outcomes[3].out);
    ASSERT_EQ(written[1].size(), written[3].size());
    EXPECT_TRUE(written[1].count("Interview cut.xml") && written[1].count("Interview cut 2.xml"));
    EXPECT_EQ(written[1], written[3]) << "the same files, of the same names and bytes";
    EXPECT_EQ(qvtest::readFile(dir.file("report1.json")),
              qvtest::readFile(dir.file("report3.json")));

    Outcome info = qvxml("info --json -j 2" + inputs);
    EXPECT_EQ(info.status, 2);
    json docs = json::parse(info.out)["documents"];
    ASSERT_EQ(docs.size(), 3u);
    EXPECT_EQ(docs[1]["path"], dir.file("in/two.xml"));
}

}  // namespace
