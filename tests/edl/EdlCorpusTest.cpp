// Several units at once: the readers and writers on the shared corpus.
// The lists of the corpus, the examples and the corpus's xmeml documents
// through the bridge: each list reads as an independent reading of its text
// says; host to list to host to list is a fixpoint; and what xmeml makes of a
// cut crosses a list on its frames, or is named as a loss.
#include <gtest/gtest.h>

#include <cmath>
#include <map>

#include "host/Snapshot.h"
#include "import/ImportDriver.h"
#include "tests/edl/EdlTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using qvedl::corpus;

// The corpus's lists and the rate each is read at: Avid's and Premiere's are
// lists of 24 frames a second (their M2 lines say so: -024.0 is reverse play).
std::vector<std::pair<std::string, Qv::FrameRate>> corpusLists() {
    return {{"INS4_R1_010417.edl", Qv::eFrameRate24},
            {"adobe_dai109_test.edl", Qv::eFrameRate24},
            {"cdl_example01.edl", Qv::eFrameRate24}};
}

class EdlCorpus : public qvtest::StoreTest {
  protected:
    void SetUp() override {
        QVEDL_NEED_CORPUS();
        QVTEST_NEED(qvedl::havePython(), "no Python 3 for the independent reading");
    }
};

TEST_F(EdlCorpus, EveryListReadsAsAnIndependentReadingSays) {
    for (const auto& [name, rate] : corpusLists()) {
        // At the list's rate, and at the rate nothing tells, 25: the events
        // land where the list says whatever the rate.
        for (Qv::FrameRate r : {rate, Qv::eFrameRate25}) {
            SCOPED_TRACE(name + " at " + toUTF8(Qv::getPlainString(r)).str());
            EditStore project;
            ScopedCurrentStore scope(project);
            std::string file = corpus() + "/edl/" + name;
            XML::ImportResult result = qvedl::readFile(file, r);
            ASSERT_EQ(result.status, 1);
            ASSERT_EQ(result.edits.size(), 1u);
            EXPECT_TRUE(qvedl::sameReading(qvedl::pythonReading(file, r),
                                           qvedl::storeReading(result.edits[0].ptr())));
        }
    }
}

// A list of every kind of event, written for the tests (drop frame, a
// dissolve from black on four audio channels, a reverse wipe at reverse
// speed, a freeze across a minute, a locator): as the independent reading
// says, at its rate and at 25, and a fixpoint after one crossing.
TEST(EdlData, EveryKindOfEventReadsAsAnIndependentReadingSays) {
    QVTEST_NEED(qvedl::havePython(), "no Python 3 for the independent reading");
    std::string file = std::string(QVXML_TEST_DATA) + "/edl/kinds.edl";
    for (Qv::FrameRate rate : {Qv::eFrameRate29_97, Qv::eFrameRate25}) {
        EditStore project;
        ScopedCurrentStore scope(project);
        XML::ImportResult r = qvedl::readFile(file, rate);
        ASSERT_EQ(r.edits.size(), 1u);
        EXPECT_TRUE(qvedl::sameReading(qvedl::pythonReading(file, rate),
                                       qvedl::storeReading(r.edits[0].ptr())));
        EXPECT_EQ(qvedl::track(r.edits[0].ptr(), "A4")->cels.size(), 2u);
    }
}

// What each list holds, counted by hand from the files: a reading that drops
// or doubles events would still agree with itself.
TEST_F(EdlCorpus, TheListsHoldWhatTheirEditorsWrote) {
    std::map<std::string, std::pair<int, int>> clips;  // clips on V1 and on any audio track
    for (const auto& [name, rate] : corpusLists()) {
        EditStore project;
        ScopedCurrentStore scope(project);
        XML::ImportResult r = qvedl::readFile(corpus() + "/edl/" + name, rate);
        ASSERT_EQ(r.edits.size(), 1u);
        int video = 0, audio = 0, speeds = 0, transitions = 0;
        for (const StoredChannel& ch : r.edits[0]->channels)
            for (const CelData& c : ch.cels) {
                bool material = c.cookie.isValid() && !c.cookie.isMagic();
                if (material) (ch.type == kChanVideo ? video : audio)++;
                if (material && c.speed != 1.0f) ++speeds;
                if (c.cookie.isMagic() && !c.cookie.isBlack()) ++transitions;
            }
        SCOPED_TRACE(name);
        if (name == "INS4_R1_010417.edl") {
            // 287 events, 11 of them with M2 lines: two in reverse, one frozen.
            EXPECT_EQ(video, 287);
            EXPECT_EQ(speeds, 11);
            const StoredChannel* v1 = qvedl::track(r.edits[0].ptr(), "V1");
            ASSERT_NE(v1, nullptr);
            int reverse = 0, frozen = 0;
            for (const CelData& c : v1->cels) {
                reverse += c.speed < 0;
                frozen += c.speed == 0 && c.cookie.isValid() && !c.cookie.isMagic();
            }
            EXPECT_EQ(reverse, 2);
            EXPECT_EQ(frozen, 1);
        } else if (name == "cdl_example01.edl") {
            EXPECT_EQ(video, 39);
            EXPECT_EQ(r.edits[0]->cues.size(), 37u);
        } else {
            EXPECT_EQ(video, 0);
            EXPECT_GT(audio, 2000);
            EXPECT_GT(transitions, 400);
        }
    }
}

// Reads `edit`'s lists at the sequence's rate into a store of their own and
// writes them again: the text comes back byte for byte.
void expectFixpoint(const Qv::Ptr<Edit>& edit, const QvEdl::ExportOptions& options,
                    const std::string& label) {
    SCOPED_TRACE(label);
    std::vector<QvEdl::WrittenList> lists = qvedl::write(edit->cookie, options);
    ASSERT_FALSE(lists.empty());
    qvtest::TempDir dir;
    for (const QvEdl::WrittenList& list : lists) {
        std::string file = dir.file("list.edl");
        qvtest::writeFile(file, list.text);
        EditStore again;
        ScopedCurrentStore scope(again);
        XML::ImportResult back = qvedl::readFile(file, edit->frameRate);
        ASSERT_EQ(back.status, 1);
        ASSERT_EQ(back.edits.size(), 1u);
        std::vector<QvEdl::WrittenList> second = qvedl::write(back.edits[0]->cookie);
        ASSERT_EQ(second.size(), 1u);
        EXPECT_EQ(second[0].text, list.text) << "list " << list.track;
    }
}

// The names of the corpus's xmeml documents.
std::vector<std::string> xmemlDocuments() {
    std::vector<std::string> names;
    for (const std::string& name : qvtest::listDirectory(corpus() + "/xmeml"))
        if (name.size() > 4 && name.substr(name.size() - 4) == ".xml") names.push_back(name);
    return names;
}

std::vector<Qv::Ptr<Edit>> importXml(const std::string& path, int& status) {
    XML::ImportResult r = qvtest::importFile(path);
    status = r.status;
    std::vector<Qv::Ptr<Edit>> out;
    for (const EditModifier& m : r.edits)
        if (!m->channels.empty()) out.push_back(m.ptr());
    return out;
}

TEST_F(EdlCorpus, CorpusListsAreAFixpointAfterOneCrossing) {
    for (const auto& [name, rate] : corpusLists()) {
        EditStore project;
        ScopedCurrentStore scope(project);
        XML::ImportResult r = qvedl::readFile(corpus() + "/edl/" + name, rate);
        ASSERT_EQ(r.edits.size(), 1u);
        expectFixpoint(r.edits[0].ptr(), {}, name);
        // A list holds what was read from a list: only the reels of the
        // auxiliary sources are written as AX, which they were.
        Qv::Ptr<CapturingLogSink> sink(new CapturingLogSink);
        qvedl::write(r.edits[0]->cookie, {}, LoggerHandle(Qv::Ptr<iLogSink>(sink)));
        for (const LossRecord& l : sink->losses)
            EXPECT_EQ(l.kind, "reel-invented") << name << ": " << l.detail.str();
    }
}

// The first video track of every sequence of every xmeml document of the
// corpus, with the audio that goes with it.
TEST_F(EdlCorpus, EveryXmemlDocumentsFirstVideoTrackIsAFixpoint) {
    int sequences = 0;
    for (const std::string& name : xmemlDocuments()) {
        EditStore project;
        ScopedCurrentStore scope(project);
        int status = 0;
        std::vector<Qv::Ptr<Edit>> made = importXml(corpus() + "/xmeml/" + name, status);
        if (status == 14) GTEST_SKIP() << "this build does not read xmeml yet";
        for (const Qv::Ptr<Edit>& seq : made) {
            bool video = false;
            for (const StoredChannel& ch : seq->channels)
                video |= ch.type == kChanVideo;
            if (!video) continue;
            QvEdl::ExportOptions options;
            options.track = "V1";
            std::vector<QvEdl::WrittenList> lists;
            std::string error;
            if (QvEdl::writeEdl(seq->cookie, options, LoggerHandle(), lists, error) != 1)
                continue;  // nothing on V1 or the audio to write
            expectFixpoint(seq, options, name + ": " + toUTF8(seq->name).str());
            ++sequences;
        }
    }
    RecordProperty("sequences", sequences);
    EXPECT_GT(sequences, 40);
}

TEST(EdlExamples, TheExamplesAreAFixpoint) {
    for (const char* example :
         {"examples/native/interview-cut.xml", "examples/xmeml/premiere_example.xml",
          "examples/xmeml/hiero_xml_export.xml"}) {
        EditStore project;
        ScopedCurrentStore scope(project);
        int status = 0;
        std::vector<Qv::Ptr<Edit>> made =
            importXml(std::string(QVXML_SOURCE_DIR) + "/" + example, status);
        ASSERT_EQ(status, 1) << example;
        ASSERT_FALSE(made.empty());
        for (const Qv::Ptr<Edit>& seq : made)
            expectFixpoint(seq, {}, example);
    }
    EditStore project;
    ScopedCurrentStore scope(project);
    Snapshot::Result loaded =
        Snapshot::loadFile(project, std::string(QVXML_SOURCE_DIR) + "/examples/timeline.json");
    ASSERT_TRUE(loaded.ok) << loaded.error;
    for (const Qv::Ptr<Edit>& e : project.edits())
        if (e->logType == kLogTypeSequence) expectFixpoint(e, {}, "examples/timeline.json");
}

// xmeml to a list and back: every cut of V1 lands on its frame with its
// source, every dissolve and wipe (code and direction) and speed crosses;
// what does not is a loss the writer recorded at that place.
TEST_F(EdlCorpus, XmemlCutsCrossAListOnTheirFrames) {
    int cels = 0, lost = 0;
    for (const std::string& name : xmemlDocuments()) {
        EditStore project;
        ScopedCurrentStore scope(project);
        int status = 0;
        std::vector<Qv::Ptr<Edit>> made = importXml(corpus() + "/xmeml/" + name, status);
        for (const Qv::Ptr<Edit>& seq : made) {
            const StoredChannel* v1 = qvedl::track(seq, "V1");
            if (!v1) continue;
            SCOPED_TRACE(name + ": " + toUTF8(seq->name).str());
            unsigned ticks = Qv::getTicksPerSecond(seq->frameRate);
            EditLabel label = seq->getVideoTimecodeLabel();
            long long start = label.is_valid() ? label.get_start() : 0;
            Qv::Ptr<CapturingLogSink> sink(new CapturingLogSink);
            QvEdl::ExportOptions options;
            options.track = "V1";
            std::vector<QvEdl::WrittenList> lists;
            std::string error;
            if (QvEdl::writeEdl(seq->cookie, options, LoggerHandle(Qv::Ptr<iLogSink>(sink)), lists,
                                error) != 1)
                continue;
            // Where each cel of a shot starts in its source timecode.
            std::map<long long, double> sources;
            for (const CelData& c : v1->cels) {
                Qv::Ptr<Edit> shot = c.cookie.isMagic() ? nullptr : project.find(c.cookie);
                if (!shot || !shot->isShot()) continue;
                EditLabel tc = shot->getVideoTimecodeLabel();
                double origin = tc.is_valid()
                                    ? std::round(static_cast<double>(tc.get_start()) * ticks /
                                                 Qv::getTicksPerSecond(tc.get_rate()))
                                    : 0;
                sources[std::llround(c.editIn * ticks)] = origin + c.sourceIn * ticks;
            }
            std::map<long long, std::string> losses;  // by frame, on V1
            for (const LossRecord& l : sink->losses)
                if (l.track == "V1" && l.frame >= 0) losses[l.frame] = l.kind.str();

            qvtest::TempDir dir;
            qvtest::writeFile(dir.file("v1.edl"), lists[0].text);
            EditStore again;
            ScopedCurrentStore scope2(again);
            XML::ImportResult back = qvedl::readFile(dir.file("v1.edl"), seq->frameRate);
            ASSERT_EQ(back.edits.size(), 1u);
            const StoredChannel* read = qvedl::track(back.edits[0].ptr(), "V1");
            if (!read) {
                // A list of sound alone: V1 had nothing to play.
                for (const CelData& c : v1->cels)
                    EXPECT_TRUE(c.cookie.isBlack() || !c.cookie.isValid() ||
                                losses.count(std::llround(c.editIn * ticks)));
                continue;
            }
            EditLabel readLabel = back.edits[0]->getVideoTimecodeLabel();
            long long readStart = readLabel.is_valid() ? readLabel.get_start() : 0;
            std::map<std::pair<long long, long long>, const CelData*> byPlace;
            for (const CelData& c : read->cels)
                byPlace[{readStart + std::llround(c.editIn * ticks),
                         readStart + std::llround(c.editOut * ticks)}] = &c;

            for (const CelData& c : v1->cels) {
                if (c.cookie.isBlack()) continue;
                long long in = std::llround(c.editIn * ticks),
                          out = std::llround(c.editOut * ticks);
                if (in == out && !c.cookie.isMagic()) continue;  // an outgoing source alone
                ++cels;
                auto found = byPlace.find({start + in, start + out});
                if (found == byPlace.end() || found->second->cookie.isBlack()) {
                    EXPECT_TRUE(losses.count(in)) << "the item at frame " << in << " is lost";
                    ++lost;
                    continue;
                }
                const CelData& r = *found->second;
                EXPECT_EQ(r.cookie.isMagic(), c.cookie.isMagic()) << "at frame " << in;
                if (c.cookie.isMagic()) {
                    EXPECT_EQ(r.wipeCode, c.wipeCode) << "at frame " << in;
                    if (c.wipeCode >= 0) {
                        EXPECT_EQ(r.wipeDirection, c.wipeDirection);
                    }
                } else {
                    EXPECT_NEAR(r.speed, c.speed, 1e-5) << "at frame " << in;
                    Qv::Ptr<Edit> shot = again.find(r.cookie);
                    if (shot && sources.count(in)) {
                        EditLabel tc = shot->getVideoTimecodeLabel();
                        double origin = tc.is_valid() ? static_cast<double>(tc.get_start()) : 0;
                        EXPECT_NEAR(origin + r.sourceIn * ticks, sources[in], 1.0)
                            << "the source of the item at frame " << in;
                    }
                }
            }
        }
    }
    RecordProperty("items", cels);
    RecordProperty("lost", lost);
    EXPECT_GT(cels, 1000);
    EXPECT_LT(lost * 20, cels) << lost << " of " << cels << " items did not cross";
}

}  // namespace
