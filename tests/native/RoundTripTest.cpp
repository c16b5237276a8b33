// Several units at once: the native writer and readers together, a timeline
// through a document and back.
#include <gtest/gtest.h>

#include <cmath>

#include "export/ExportDriver.h"
#include "import/ImportDriver.h"
#include "tests/native/NativeTimeline.h"

namespace {

using namespace XML;

// A timeline exported as a native document and imported again into a fresh
// project. The writer's root attribute is given the form the readers accept
// (version="2" becomes Version="2.0") on the way.
class NativeRoundTrip : public qvtest::StoreTest {
  protected:
    void SetUp() override {
        timeline = qvtest::buildNativeTimeline(store);
        XMLExportOptions o;
        o.directory = dir.wpath();
        o.fileName = L"cut";
        o.flavour = XMLFlavourQV2;
        ASSERT_EQ(XMLExportFiles(timeline.seq->cookie, o, LoggerHandle()).status, 1);
        std::string text = qvtest::readFile(dir.file("cut.xml"));
        size_t root = text.find("<QVXML version=\"2\">");
        ASSERT_NE(root, std::string::npos);
        text.replace(root, 19, "<QVXML Version=\"2.0\">");
        qvtest::writeFile(dir.file("cut.xml"), text);

        ScopedCurrentStore scope(imported);
        ImportFileList files;
        files.push_back(
            Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({dir.wpath() + L"/cut.xml"})));
        ImportResult r = XMLImportFiles(files, LoggerHandle());
        ASSERT_EQ(r.status, 1);
        ASSERT_EQ(r.edits.size(), 1u);
        back = r.edits[0].ptr();
    }

    // The edit of the imported project that a cel plays.
    Qv::Ptr<Edit> playedBy(const CelData& cel) { return imported.find(cel.cookie); }

    qvtest::TempDir dir;
    qvtest::NativeTimeline timeline;
    EditStore imported{99};
    Qv::Ptr<Edit> back;
};

TEST_F(NativeRoundTrip, TheTimelineComesBack) {
    const Edit& original = *timeline.seq;
    EXPECT_EQ(back->name, original.name);
    EXPECT_EQ(back->frameRate, Qv::eFrameRate25);
    ASSERT_EQ(back->channels.size(), original.channels.size());
    for (size_t c = 0; c < original.channels.size(); ++c) {
        const StoredChannel& a = original.channels[c];
        const StoredChannel& b = back->channels[c];
        EXPECT_EQ(b.index, a.index);
        EXPECT_EQ(b.type, a.type);
        EXPECT_EQ(b.name, a.name);
        ASSERT_EQ(b.cels.size(), a.cels.size()) << "channel " << c;
        for (size_t i = 0; i < a.cels.size(); ++i) {
            const CelData& x = a.cels[i];
            const CelData& y = b.cels[i];
            SCOPED_TRACE("channel " + std::to_string(c) + " cel " + std::to_string(i));
            // Times to the frame.
            EXPECT_EQ(std::lround(y.editIn * 25), std::lround(x.editIn * 25));
            EXPECT_EQ(std::lround(y.editOut * 25), std::lround(x.editOut * 25));
            EXPECT_EQ(std::lround(y.sourceIn * 25), std::lround(x.sourceIn * 25));
            if (x.cookie.isMagic()) {
                EXPECT_EQ(y.cookie, x.cookie);
                EXPECT_EQ(y.wipeCode, x.wipeCode);
                EXPECT_EQ(y.wipeDirection, x.wipeDirection);
            } else {
                Qv::Ptr<Edit> source = playedBy(y);
                ASSERT_TRUE(source);
                Qv::Ptr<Edit> was = store.find(x.cookie);
                EXPECT_EQ(source->name, was->name);
                EXPECT_EQ(y.cookie.channel, x.cookie.channel);
                EXPECT_EQ(y.cookie.type, x.cookie.type);
            }
            if (x.speed > 0) {
                EXPECT_FLOAT_EQ(y.speed, x.speed);
            }
            if (x.level != 1.00001f) {
                EXPECT_FLOAT_EQ(y.level, x.level);
            }
        }
        EXPECT_EQ(b.hasTrackLevels, a.hasTrackLevels);
        ASSERT_EQ(b.levels.size(), a.levels.size());
        for (size_t i = 0; i < a.levels.size(); ++i) {
            EXPECT_DOUBLE_EQ(b.levels[i].position, a.levels[i].position);
            EXPECT_FLOAT_EQ(b.levels[i].value, a.levels[i].value);
        }
    }
    ASSERT_EQ(back->labels.size(), 1u);
    EXPECT_TRUE(back->labels[0] == original.labels[0]);

    // The sub-clip comes back as an edit of its own that plays the shot.
    Qv::Ptr<Edit> sub = playedBy(back->channels[0].cels[4]);
    ASSERT_TRUE(sub);
    EXPECT_EQ(sub->logType, kLogTypeSubclip);
    EXPECT_EQ(sub->name, L"Sub of B");
    Qv::Ptr<Edit> shotB = playedBy(sub->channels[0].cels[0]);
    ASSERT_TRUE(shotB);
    EXPECT_EQ(shotB->name, L"Shot B");
    Qv::Ptr<Edit> shotA = playedBy(back->channels[0].cels[0]);
    EXPECT_EQ(shotA->videoReelId, "A001");
    EXPECT_EQ(shotA->historicLocator, L"file://localhost/media/day%201/A.mov");
    EXPECT_TRUE(shotA->isOffline()) << "the media is not on this machine";
    ASSERT_EQ(shotA->labels.size(), 1u);
    EXPECT_EQ(shotA->labels[0].get_string(0).str(), "10:00:00:00");
}

// What the native document cannot carry, as it comes back.
TEST_F(NativeRoundTrip, WhatTheFormatDoesNotCarry) {
    const std::vector<CelData>& v = back->channels[0].cels;
    const std::vector<CelData>& a1 = back->channels[1].cels;
    EXPECT_EQ(v[6].speed, 1.0f) << "reverse play reads as normal speed";
    EXPECT_EQ(a1[2].level, 1.0f) << "levels keep four decimal places";
    EXPECT_TRUE(back->cues.empty()) << "markers are not written";
    EXPECT_EQ(v[0].sourceOut, 0.0) << "source out points are not written";
    // A shot's own Rate is not read: an offline shot counts in the rate of the
    // document's first Edit, here the sub-clip of the 29.97 shot, while its
    // source keeps the rate of its medium.
    Qv::Ptr<Edit> shotA = playedBy(v[0]);
    EXPECT_DOUBLE_EQ(shotA->rate, 30000.0 / 1001.0);
    EXPECT_EQ(shotA->sourceFrameRate, Qv::eFrameRate25);
    // A shot's cel times are written in sequence ticks and read at its own rate.
    Qv::Ptr<Edit> shotB = playedBy(playedBy(v[4])->channels[0].cels[0]);
    EXPECT_DOUBLE_EQ(shotB->getEndTime(), 250 / 29.97);
}

}  // namespace
