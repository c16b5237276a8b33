// The readers' map of references to records.
#include <gtest/gtest.h>

#include "import/RefIdMap.h"

namespace {

using XML::RefIdMap;

TEST(RefIdMap, FirstMatchWinsAndUpdatesReachEveryMatch) {
    RefIdMap map;
    CED2 a(true), b(true);
    map.addRef("r", &a, false, 1, kChanVideo);
    map.addRef("r", &b, false, 2, kChanAudio);
    RefIdMap::RefIdMapRec rec;
    ASSERT_TRUE(map.findRef("r", rec));
    EXPECT_EQ(rec.ced2, &a);
    EXPECT_EQ(rec.chanIndex, 1u);
    map.setRecInitialised("r", true);
    map.setIsSingleImage("r");
    for (const auto& e : map.entries()) {
        EXPECT_TRUE(e.initialised);
        EXPECT_TRUE(e.isSingleImage);
    }
    EXPECT_FALSE(map.findRef("other", rec));
    // A null reference and an empty one are the same text.
    map.addRef(LightweightString<char>(), &b, true, 0, kChanVideo);
    EXPECT_TRUE(map.findRef("", rec));
    EXPECT_EQ(rec.ced2, &b);
}

TEST(RefIdMap, UninitialisedEntriesAreReportedDestroyedAndNoLongerFound) {
    Qv::Ptr<CapturingLogSink> sink(new CapturingLogSink);
    LoggerHandle log{Qv::Ptr<iLogSink>(sink)};
    RefIdMap map;
    CED2* bad = new CED2(true);
    bad->editName = L"Bad clip";
    CED2 good(true);
    map.addRef("bad", bad, false, 0, kChanVideo);
    map.addRef("good", &good, true, 0, kChanVideo);
    map.addRef("bad", &good, true, 0, kChanVideo);  // a later live entry of the same text
    LightweightString<char> name;
    EXPECT_TRUE(map.anyEntryIsUninitialised(log, name));
    EXPECT_EQ(name, "Bad clip");
    EXPECT_TRUE(sink->contains("Badly defined clip - name <Bad clip> XML reference <bad>"));
    EXPECT_EQ(map.size(), 3u);
    RefIdMap::RefIdMapRec rec;
    ASSERT_TRUE(map.findRef("bad", rec));
    EXPECT_EQ(rec.ced2, &good) << "the destroyed record is never handed out";
    EXPECT_FALSE(map.anyEntryIsUninitialised(log, name));
}

}  // namespace
