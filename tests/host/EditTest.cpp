#include <gtest/gtest.h>

#include <thread>

#include "host/Edit.h"
#include "host/Media.h"
#include "host/Plugin.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::StoreTest;

TEST(CookieText, LowerCaseHexOfEveryByteAndTheWideTextAlike) {
    Cookie c(kCookieSound, 1, static_cast<int>(0xDEADBEEF), 0);
    c.uuid.words[3] = 0x0A0B0C0D;
    c.tail = 0x7F;
    EXPECT_EQ(c.asString(), "S-00000001-deadbeef-00000000-0a0b0c0d-ff-7f");
    EXPECT_EQ(c.asWString(), L"S-00000001-deadbeef-00000000-0a0b0c0d-ff-7f");
    c.type = 0;  // the text ends where the type byte is zero
    EXPECT_TRUE(c.asString().empty());
    EXPECT_TRUE(c.asWString().empty());
    c.type = 0xE9;  // no UTF-8 on its own
    EXPECT_EQ(c.asWString(), L"\uFFFD-00000001-deadbeef-00000000-0a0b0c0d-ff-7f");
}

TEST(CookieText, AsciiUniqueAndParsedBack) {
    EditStore store(42);
    ScopedCurrentStore scope(store);
    Cookie a = makeNewEditCookie();
    Cookie v = convertCookie(a, kCookieVideo, 3);
    std::string text = v.asString().str();
    EXPECT_EQ(text.size(), 43u);
    EXPECT_EQ(text[0], 'V');
    for (char c : text)
        EXPECT_TRUE(isalnum(static_cast<unsigned char>(c)) || c == '-') << text;
    EXPECT_EQ(Cookie(v.asWString(), false), v);
    EXPECT_NE(a.asString(), v.asString());
    EXPECT_NE(convertCookie(a, kCookieVideo, 2).asString(), v.asString());
    EXPECT_FALSE(Cookie(L"V-nothex", false).isValid());
    EXPECT_FALSE(Cookie(L"", false).isValid());
    EXPECT_FALSE(convertCookie(invalid_cookie, kCookieVideo, 0).isValid());
}

TEST(CookieText, MagicCookies) {
    EXPECT_TRUE(video_black.isMagic() && video_black.isBlack());
    EXPECT_EQ(video_black.uuid.words[1], 647u);
    EXPECT_EQ(audio_black.uuid.words[0], 1u);
    EXPECT_FALSE(video_dissolve.isBlack());
    EXPECT_FALSE(video_dissolve.isEffectGraph());
    EXPECT_TRUE(video_wipe.isEffectGraph());
    EXPECT_NE(video_black.compare(audio_black), 0);
    EXPECT_EQ(Cookie(video_dissolve.asWString(), false), video_dissolve);
}

TEST(CookieText, IdentitiesAreReproduciblePerSeed) {
    EditStore a(7), b(7), c(8);
    EXPECT_EQ(a.newIdentity(), b.newIdentity());
    EXPECT_FALSE(a.newIdentity() == c.newIdentity());
}

TEST_F(StoreTest, EditPtrOpensByAnyCookieOfTheIdentity) {
    Qv::Ptr<Edit> shot = qvtest::addShot(store, L"A", 25, 10);
    EditPtr p;
    p.i_open(convertCookie(shot->cookie, kCookieSound, 1));
    ASSERT_TRUE(p);
    EXPECT_EQ(p->openCount, 1);
    p.i_close();
    EXPECT_EQ(shot->openCount, 0);

    EditPtr missing;
    missing.i_open(makeNewEditCookie());
    EXPECT_FALSE(missing);
    missing.i_close();
    missing.i_close();
    missing.i_open(video_black);
    EXPECT_FALSE(missing);
    EXPECT_EQ(store.opens(), store.closes());
}

TEST_F(StoreTest, ExportPreparationWalksEveryLevel) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 20);
    Qv::Ptr<Edit> b = qvtest::addShot(store, L"B", 25, 20);
    Qv::Ptr<Edit> sub = qvtest::addSubclip(store, L"sub of B", b, 5, 4);
    Qv::Ptr<Edit> nested = qvtest::addSequence(store, L"nested", Qv::eFrameRate25);
    qvtest::addCel(nested, 0, qvtest::playCookie(sub, 0), 0, 2, 0);
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"cut", Qv::eFrameRate25);
    qvtest::addCel(seq, 0, qvtest::playCookie(a, 0), 0, 2, 1);
    qvtest::addCel(seq, 0, video_dissolve, 2, 2.5, 0);
    qvtest::addCel(seq, 0, qvtest::playCookie(nested, 0), 2.5, 4, 0);
    qvtest::addCel(seq, 1, qvtest::playCookie(a, 1), 0, 2, 1);
    qvtest::addCel(seq, 1, qvtest::playCookie(a, 1), 2, 3, 8);  // a shot twice: one record

    CED2List seqs, ghosts, deep, shots;
    CookieVec cookies{seq->cookie};
    ASSERT_EQ(
        seqs.PrepareED2ListsForExport(cookies, seqs, ghosts, deep, shots, false, 0, LoggerHandle(),
                                      Qv::eFrameRate25, false, false, false, false, false, false),
        1);
    ASSERT_EQ(seqs.size(), 1u);
    ASSERT_EQ(ghosts.size(), 1u);
    ASSERT_EQ(deep.size(), 1u);
    EXPECT_EQ(shots.size(), 2u);
    EXPECT_EQ(ghosts.firstRecord()->get_editName(), L"nested");
    EXPECT_TRUE(ghosts.firstRecord()->isGhost);
    EXPECT_EQ(deep.firstRecord()->get_editName(), L"sub of B");

    // Channel identifiers are exactly what the cels that play them name.
    CED2* s = seqs.firstRecord();
    CED2Cell* first = s->firstChannel()->firstCel();
    CChannel* shotVideo = shots.firstRecord()->firstChannel();
    EXPECT_EQ(shotVideo->refName, first->cookie.asWString());
    CED2Cell* third = first->next()->next();
    EXPECT_EQ(ghosts.firstRecord()->firstChannel()->refName, third->cookie.asWString());
    EXPECT_EQ(s->get_editLength(), 4.0);

    CED2* one = nullptr;
    EXPECT_TRUE(seqs.hasOneExportableSequence(one));
    EXPECT_EQ(one, s);
    s->excludedFromExport = true;
    EXPECT_FALSE(seqs.hasOneExportableSequence(one));
}

TEST_F(StoreTest, OfflineShotsCanBeLeftOut) {
    Qv::Ptr<Edit> online = qvtest::addShot(store, L"on", 25, 5, {{kChanVideo}}, L"/m/on.mov");
    Qv::Ptr<Edit> offline = qvtest::addShot(store, L"off", 25, 5, {{kChanVideo}});
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"cut", Qv::eFrameRate25, {{kChanVideo}});
    qvtest::addCel(seq, 0, qvtest::playCookie(online, 0), 0, 1, 0);
    qvtest::addCel(seq, 0, qvtest::playCookie(offline, 0), 1, 2, 0);
    CED2List seqs, ghosts, deep, shots;
    seqs.PrepareED2ListsForExport({seq->cookie}, seqs, ghosts, deep, shots, false, 0,
                                  LoggerHandle(), Qv::eFrameRate25, true, false, false, false,
                                  false, false);
    std::vector<bool> excluded;
    for (CED2* r : each<CED2>(shots))
        excluded.push_back(r->excludedFromExport);
    EXPECT_EQ(excluded, (std::vector<bool>{false, true}));
}

TEST_F(StoreTest, WrittenRecordsBecomeEdits) {
    Qv::Ptr<Edit> known = qvtest::addShot(store, L"known", 25, 5, {{kChanVideo}}, L"/m/k.mov");
    CED2List shots, seqs;
    CED2* linked = new CED2(true);
    linked->reInitialiseCookie(known->cookie, DriveId(1), L"avi", L"wav");
    shots.append(linked);
    CED2* offline = new CED2(true);  // an import that failed: no identity
    offline->editName = L"lost";
    offline->originLocator = L"file://localhost/m/lost.mov";
    offline->CreateEditChannel(0, kChanVideo)->addCel(CelData{})->editOut = 3;
    shots.append(offline);
    CED2* seq = new CED2(false);
    seq->cookie = makeNewEditCookie();
    seq->editName = L"cut";
    seq->CreateEditChannel(0, kChanVideo)->addCel(CelData{})->cookie = video_black;
    seqs.append(seq);

    shots.WriteAllED2s(Qv::eFrameRate25);
    seqs.WriteAllED2s(Qv::eFrameRate25);
    EXPECT_EQ(linked->edit.get(), known.get());
    ASSERT_TRUE(offline->edit);
    EXPECT_TRUE(offline->edit->isOffline());
    EXPECT_EQ(offline->edit->historicLocator, L"file://localhost/m/lost.mov");
    EXPECT_EQ(offline->edit->getEndTime(), 3.0);
    EXPECT_EQ(offline->edit->channels[0].cels[0].cookie,
              convertCookie(offline->edit->cookie, kCookieVideo, 0));
    LightweightVector<EditModifier> made = seqs.buildCookieList();
    ASSERT_EQ(made.size(), 1u);
    EXPECT_EQ(made[0]->name, L"cut");
    EXPECT_EQ(made[0]->frameRate, Qv::eFrameRate25);
    EXPECT_EQ(store.size(), 3u);
}

namespace threads {

// An exporter that reports what its worker thread sees: the size of the
// current store, and a line in the application log.
class ProbeExporter : public QvExport::SingleSourceExporter {
  public:
    QvExport::OptionsBase* getOptions() override { return nullptr; }
    QvExport::ExportResult doExport(const Cookie&, const NumRange<double, Ordered>&) override {
        QvExport::ExportResult r;
        r.status = static_cast<int>(EditStore::current().size());
        LogBoth("exported from a store of %d edits\n", r.status);
        return r;
    }
};

TEST(StoreThreads, EachThreadWorksOnItsOwnStoreAndAnExportOnItsStarters) {
    EditStore shared;
    ScopedCurrentStore scope(shared);
    qvtest::addShot(shared, L"here", 25, 1);
    Qv::Ptr<CapturingLogSink> mainLog(new CapturingLogSink);
    setApplicationLog(Qv::Ptr<iLogSink>(mainLog));

    std::vector<std::thread> workers;
    std::vector<int> sizes(3, -1), exported(3, -1);
    std::vector<Qv::Ptr<CapturingLogSink>> logs;
    for (int i = 0; i < 3; ++i)
        logs.emplace_back(new CapturingLogSink);
    for (int i = 0; i < 3; ++i) {
        workers.emplace_back([&, i] {
            EXPECT_EQ(&EditStore::current(), &EditStore::current());
            EditStore own(static_cast<std::uint64_t>(i + 1));
            ScopedCurrentStore mine(own);
            setThreadApplicationLog(Qv::Ptr<iLogSink>(logs[i]));
            for (int n = 0; n <= i; ++n)
                qvtest::addShot(own, L"shot", 25, 1);
            sizes[i] = static_cast<int>(EditStore::current().size());
            Qv::Ptr<ProbeExporter> exporter(new ProbeExporter);
            exported[i] = exporter->createBackgroundTasks(Cookie(), {})->wait().status;
            setThreadApplicationLog(nullptr);
        });
    }
    for (std::thread& t : workers)
        t.join();
    setApplicationLog(nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(sizes[i], i + 1);
        EXPECT_EQ(exported[i], i + 1) << "the worker works on the store of its starter";
        ASSERT_EQ(logs[i]->lines.size(), 1u);
        EXPECT_TRUE(logs[i]->contains(("of " + std::to_string(i + 1) + " edits").c_str()));
    }
    EXPECT_TRUE(mainLog->lines.empty()) << "no job's line reaches the process's log";
    EXPECT_EQ(EditStore::current().size(), 1u);
}

TEST(StoreThreads, LinksOfOneProjectAreNeverTakenForAnothers) {
    // Two projects seeded alike make the same identities.
    EditStore first, second;
    Cookie shot;
    {
        ScopedCurrentStore scope(first);
        shot = qvtest::addShot(first, L"a", 25, 1)->cookie;
        MediaFileToClipMap::instance().addLink(L"/media/a.mov", shot);
        EXPECT_EQ(MediaFileToClipMap::instance().findClip(L"/media/a.mov",
                                                          MediaFileToClipMap::eMatchFile),
                  shot);
    }
    ScopedCurrentStore scope(second);
    Qv::Ptr<Edit> other = qvtest::addShot(second, L"b", 25, 1);
    ASSERT_EQ(other->cookie, shot) << "the identities coincide";
    EXPECT_FALSE(MediaFileToClipMap::instance()
                     .findClip(L"/media/a.mov", MediaFileToClipMap::eMatchFile)
                     .isValid());
}

}  // namespace threads

}  // namespace
