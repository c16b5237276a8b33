#include "app/output/Batch.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include "app/Status.h"

namespace {

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

}  // namespace
