// The OpenTimelineIO documents of the corpus, and the examples, through the
// bridge: each reads as an independent reading of its JSON says; what is
// written from it passes the serialized schema; and host to .otio to host is a
// fixpoint.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "export/ExportDriver.h"
#include "host/Snapshot.h"
#include "import/ImportDriver.h"
#include "otio/OtioImport.h"
#include "tests/otio/OtioTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using qvotio::corpus;
using qvotio::corpusOtioFiles;

std::string baseName(const std::string& path) {
    return path.substr(path.rfind('/') + 1);
}

class OtioCorpus : public qvtest::StoreTest {
  protected:
    void SetUp() override {
        if (corpus().empty()) GTEST_SKIP() << "the corpus is not beside the project";
        if (!qvotio::havePython()) GTEST_SKIP() << "no Python 3 for the independent reading";
    }
    qvtest::TempDir dir;
};

TEST_F(OtioCorpus, EveryFileReadsAsItsTracksSumUp) {
    std::vector<std::string> files = corpusOtioFiles();
    ASSERT_GE(files.size(), 14u);
    for (const std::string& file : files) {
        SCOPED_TRACE(file);
        EditStore project;
        ScopedCurrentStore scope(project);
        XML::ImportResult r = qvotio::importOtio(file);
        ASSERT_EQ(r.status, 1);
        EXPECT_TRUE(qvotio::matchesPositions(qvotio::pythonPositions(file), r.edits));
    }
}

// Each file is read, written, read and written again: the second document is
// the first, byte for byte; both pass the schema; and the second reading
// matches the Python reading of the first document.
TEST_F(OtioCorpus, WrittenDocumentsPassTheSchemaAndAreAFixpoint) {
    for (const std::string& file : corpusOtioFiles()) {
        SCOPED_TRACE(file);
        EditStore first;
        ScopedCurrentStore scope(first);
        XML::ImportResult r = qvotio::importOtio(file);
        ASSERT_EQ(r.status, 1);
        for (size_t i = 0; i < r.edits.size(); ++i) {
            std::string written = dir.file(baseName(file) + "." + std::to_string(i) + ".otio");
            std::string text = qvotio::otioText(r.edits[i].getCookie());
            qvtest::writeFile(written, text);
            EXPECT_EQ(qvotio::schemaProblems(written), std::vector<std::string>());

            EditStore second;
            ScopedCurrentStore again(second);
            XML::ImportResult back = qvotio::importOtio(written);
            ASSERT_EQ(back.status, 1);
            ASSERT_EQ(back.edits.size(), 1u);
            EXPECT_TRUE(qvotio::matchesPositions(qvotio::pythonPositions(written), back.edits));
            EXPECT_EQ(qvotio::otioText(back.edits[0].getCookie()), text);
        }
    }
}

class OtioExamples : public qvtest::StoreTest {
  protected:
    // Writes the edit, reads it into a fresh project, and writes that again.
    void roundTrip(const Cookie& edit, const std::string& name) {
        std::string text = qvotio::otioText(edit);
        std::string written = dir.file(name);
        qvtest::writeFile(written, text);
        if (!corpus().empty() && qvotio::havePython()) {
            EXPECT_EQ(qvotio::schemaProblems(written), std::vector<std::string>());
        }
        EditStore again;
        ScopedCurrentStore scope(again);
        XML::ImportResult back = qvotio::importOtio(written);
        ASSERT_EQ(back.status, 1);
        ASSERT_EQ(back.edits.size(), 1u);
        EXPECT_EQ(qvotio::otioText(back.edits[0].getCookie()), text);
        if (qvotio::havePython()) {
            EXPECT_TRUE(qvotio::matchesPositions(qvotio::pythonPositions(written), back.edits));
        }
    }
    qvtest::TempDir dir;
};

TEST_F(OtioExamples, TheNativeExampleIsAFixpoint) {
    std::string example = std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";
    ImportFileList files;
    files.push_back(Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({fromUTF8(example.c_str())})));
    XML::ImportResult r = XML::XMLImportFiles(files, LoggerHandle());
    ASSERT_EQ(r.status, 1);
    ASSERT_EQ(r.edits.size(), 1u);
    roundTrip(r.edits[0].getCookie(), "interview.otio");
}

TEST_F(OtioExamples, TheSnapshotExampleIsAFixpoint) {
    std::string example = std::string(QVXML_SOURCE_DIR) + "/examples/timeline.json";
    Snapshot::Result loaded = Snapshot::loadFile(store, example);
    ASSERT_TRUE(loaded.ok) << loaded.error;
    Qv::Ptr<Edit> cut = store.findByName(L"Interview cut");
    ASSERT_TRUE(cut);
    roundTrip(cut->cookie, "timeline.otio");
}

// OpenTimelineIO's readings of xmeml documents against qvxml's own import of
// those documents: the cuts of every track that OpenTimelineIO kept agree to
// the frame. OpenTimelineIO keeps every video track and drops the second
// track of each stereo pair, so each audio track is matched with the first
// audio channel of the xmeml import, in order, that has its cuts.
TEST_F(OtioCorpus, CutsAgreeWithTheImportOfTheXmemlTheyCameFrom) {
    using Cuts = std::vector<std::pair<long, long>>;
    auto cutsOf = [](const Edit& edit, double ticks) {
        std::vector<std::pair<EditChanType, Cuts>> out;
        for (const StoredChannel& ch : edit.channels) {
            Cuts cuts;
            for (const CelData& cel : ch.cels)
                if (!cel.cookie.isMagic())
                    cuts.emplace_back(std::lround(cel.editIn * ticks),
                                      std::lround(cel.editOut * ticks));
            out.emplace_back(ch.type, cuts);
        }
        return out;
    };
    int compared = 0;
    for (const std::string& file : corpusOtioFiles()) {
        if (file.find("/from-xmeml/") == std::string::npos) continue;
        std::string name = baseName(file);
        std::string xmeml = corpus() + "/xmeml/" + name.substr(0, name.size() - 5) + ".xml";
        SCOPED_TRACE(name);
        EditStore fromXmeml;
        ScopedCurrentStore scope(fromXmeml);
        ImportFileList files;
        files.push_back(
            Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({fromUTF8(xmeml.c_str())})));
        XML::ImportResult x = XML::XMLImportFiles(files, LoggerHandle());
        if (x.status == 14) GTEST_SKIP() << "this build does not read xmeml yet";
        ASSERT_EQ(x.status, 1);
        ASSERT_GE(x.edits.size(), 1u);

        EditStore fromOtio;
        ScopedCurrentStore scope2(fromOtio);
        XML::ImportResult o = qvotio::importOtio(file);
        ASSERT_EQ(o.status, 1);
        ASSERT_EQ(o.edits.size(), 1u);

        double ticks = Qv::getTicksPerSecond(o.edits[0]->frameRate);
        auto mine = cutsOf(*x.edits[0].get(), ticks);
        auto theirs = cutsOf(*o.edits[0].get(), ticks);
        size_t next = 0;
        for (size_t c = 0; c < theirs.size(); ++c) {
            bool found = false;
            for (size_t k = next; k < mine.size() && !found; ++k) {
                if (mine[k].first != theirs[c].first) continue;
                if (theirs[c].first == kChanVideo && k != c) continue;
                if (mine[k].second == theirs[c].second) {
                    found = true;
                    next = k + 1;
                }
            }
            EXPECT_TRUE(found) << "channel " << c << " of the OpenTimelineIO reading has cuts "
                               << "that no channel of the xmeml import has";
            ++compared;
        }
    }
    EXPECT_GT(compared, 0);
}

}  // namespace
