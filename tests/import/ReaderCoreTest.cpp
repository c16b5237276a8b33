#include <gtest/gtest.h>

#include "tests/import/ReaderTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::ListReader;
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

class ReaderCore : public qvtest::StoreTest {};

TEST_F(ReaderCore, ReferencesResolveByKindAndUnknownOnesTurnBlack) {
    ListReader reader(capturingLog());
    CED2* shot = reader.addShot("shot-ref");
    shot->cookie = makeNewEditCookie();
    CED2* ghost = new CED2(true);
    ghost->isGhost = true;
    ghost->cookie = makeNewEditCookie();
    reader.ghosts().append(ghost);
    reader.ghostRefs.addRef("ghost-ref", ghost, true, 2, kChanAudio);
    reader.clipRefs.addRef("still-ref", shot, true, 0, kChanVideo);
    reader.clipRefs.setIsSingleImage("still-ref");

    CED2* seq = new CED2(false);
    CChannel* v = seq->CreateEditChannel(0, kChanVideo);
    CChannel* a = seq->CreateEditChannel(1, kChanAudio);
    auto cel = [](CChannel* ch, const char* ref, bool ghostRef) {
        CED2Cell* c = ch->addCel(CelData{});
        c->refId = ref;
        c->refIsGhost = ghostRef;
        c->editIn = 1;
        c->editOut = 2;
        c->sourceIn = 5;
        return c;
    };
    CED2Cell* vShot = cel(v, "shot-ref", false);
    CED2Cell* vMissing = cel(v, "nowhere", false);
    CED2Cell* vStill = cel(v, "still-ref", false);
    CED2Cell* vGhostAsClip = cel(v, "ghost-ref", false);
    CED2Cell* aShot = cel(a, "shot-ref", false);
    CED2Cell* aGhost = cel(a, "ghost-ref", true);
    CED2Cell* aMissing = cel(a, "nowhere", false);
    CED2Cell* magic = cel(v, "ignored", false);
    magic->cookie = video_dissolve;
    reader.sequences().append(seq);

    EXPECT_TRUE(reader.resolveChanReferences(seq));
    EXPECT_EQ(vShot->cookie, convertCookie(shot->cookie, kCookieVideo, 0));
    EXPECT_EQ(aShot->cookie, convertCookie(shot->cookie, kCookieSound, 0));
    EXPECT_EQ(aGhost->cookie, convertCookie(ghost->cookie, kCookieEdit, 2));
    EXPECT_EQ(vGhostAsClip->cookie, video_black)
        << "ghost references are looked up in ghostRefs only";
    EXPECT_EQ(vMissing->cookie, video_black);
    EXPECT_EQ(aMissing->cookie, audio_black);
    EXPECT_EQ(vMissing->editIn, 1.0);
    EXPECT_EQ(vMissing->sourceIn, 5.0);
    EXPECT_EQ(vStill->sourceIn, 0.0);
    EXPECT_EQ(vStill->sourceOut, 0.0);
    EXPECT_EQ(vStill->speed, 0.0f);
    EXPECT_EQ(magic->cookie, video_dissolve);
}

TEST_F(ReaderCore, AnEmptyDocumentWritesNothingAndSucceeds) {
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    XMLParser parser("", -1);
    XML::ImportResult r = reader->importFile(parser, nullptr, capturingLog());
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.edits.empty());
    EXPECT_TRUE(r.cookies.empty());
    EXPECT_EQ(store.size(), 0u);
}

TEST_F(ReaderCore, AFailedParseTouchesNothing) {
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    reader->addShot("s", L"/nowhere/a.mov");
    reader->status = 0;
    XMLParser parser("", -1);
    XML::ImportResult r = reader->importFile(parser, nullptr, capturingLog());
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(store.size(), 0u);
    EXPECT_TRUE(sink->lines.empty());
}

TEST_F(ReaderCore, OnlySequencesAreReportedButEverythingIsStored) {
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    reader->addShot("s", L"");
    CED2* ghost = new CED2(true);
    ghost->isGhost = true;
    ghost->cookie = makeNewEditCookie();
    reader->ghosts().append(ghost);
    CED2* seq = new CED2(false);
    seq->cookie = makeNewEditCookie();
    seq->editName = L"cut";
    CED2Cell* c = seq->CreateEditChannel(0, kChanVideo)->addCel(CelData{});
    c->refId = "s";
    reader->sequences().append(seq);
    XMLParser parser("", -1);
    XML::ImportResult r = reader->importFile(parser, nullptr, capturingLog());
    EXPECT_EQ(r.status, 1);
    ASSERT_EQ(r.edits.size(), 1u);
    EXPECT_EQ(r.edits[0]->name, L"cut");
    EXPECT_EQ(store.size(), 3u);
    Qv::Ptr<Edit> shot = store.find(reader->shots().firstRecord()->cookie);
    ASSERT_TRUE(shot);
    EXPECT_TRUE(shot->isOffline());
    EXPECT_EQ(r.edits[0]->channels[0].cels[0].cookie, convertCookie(shot->cookie, kCookieVideo, 0));
}

}  // namespace
