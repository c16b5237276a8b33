// The readers' base: the common steps of an import on the lists a reader
// made (references, records, the store) and the resolution of their media.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include "host/Media.h"
#include "host/Paths.h"
#include "tests/import/ReaderTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::ListReader;
using qvtest::mediaDir;

class Material : public qvtest::StoreTest {
  protected:
    static std::wstring url(const std::string& path) {
        return localPathToURL(fromUTF8(path.c_str())).str();
    }
    // Runs the common import steps on the reader's lists.
    XML::ImportResult import(ListReader& reader, const std::string& documentPath) {
        XMLParser parser("", -1);
        Qv::Ptr<ImportFileInfoRep> info(new ImportFileInfoRep({fromUTF8(documentPath.c_str())}));
        return reader.importFile(parser, info, capturingLog());
    }
    qvtest::TempDir dir;
};

TEST_F(Material, MediaTheStoreKnowsIsLinked) {
    std::string clip = mediaDir() + "/clip.mov";
    Qv::Ptr<Edit> known = qvtest::addShot(store, L"known", 25, 1, {{kChanVideo}},
                                          canonicalPath(fromUTF8(clip.c_str())).str());
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    CED2* shot = reader->addShot("s", url(clip));
    import(*reader, dir.file("doc.xml"));
    EXPECT_TRUE(shot->materialLinked);
    EXPECT_FALSE(shot->materialImported);
    EXPECT_TRUE(shot->cookie.sameIdentity(known->cookie));
    EXPECT_EQ(shot->videoExtension, L"avi");
    EXPECT_TRUE(sink->contains("linking to existing material file"));
    EXPECT_EQ(store.size(), 1u) << "no second shot for known media";
}

TEST_F(Material, TheNamedFileIsImportedWithTheDocumentsLogData) {
    std::string clip = mediaDir() + "/clip.mov";
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    CED2* shot = reader->addShot("s", url(clip));
    shot->editName = L"Interview";
    shot->sceneTxt = "12";
    shot->reelId = "A001";
    import(*reader, dir.file("doc.xml"));

    EXPECT_TRUE(shot->materialLinked);
    EXPECT_TRUE(shot->materialImported);
    Qv::Ptr<Edit> made = store.find(shot->cookie);
    ASSERT_TRUE(made);
    EXPECT_EQ(made->name, L"Interview");
    EXPECT_EQ(made->getConfig("scene"), "12");
    EXPECT_EQ(made->getConfig("who"), "") << "empty log fields are written too";
    EXPECT_TRUE(made->config.count("who"));
    EXPECT_EQ(made->videoReelId, "A001");
    EXPECT_DOUBLE_EQ(made->rate, 25.0);
    EXPECT_DOUBLE_EQ(made->getEndTime(), 1.0);
    EXPECT_EQ(made->getNumChans(1), 1);
    EXPECT_EQ(made->getNumChans(2), 2);
    EXPECT_EQ(made->videoMetadata.getWidth(), 64);
    ASSERT_FALSE(made->labels.empty());
    EXPECT_EQ(made->labels[0].get_string(0).str(), "10:00:00:00");
    EXPECT_TRUE(made->frameBased);
    EXPECT_EQ(made->transfer, 0);
    EXPECT_EQ(shot->firstChannel()->mediaFilename, canonicalPath(fromUTF8(clip.c_str())));
    EXPECT_TRUE(sink->contains("material queued for import"));
    EXPECT_TRUE(sink->contains("Importing material files"));
    // The two lines around the import are indented inside material resolution.
    for (const auto& l : sink->lines) {
        if (l.text == "Importing material files") {
            EXPECT_EQ(l.indent, 1);
        }
    }
}

TEST_F(Material, AFileOfTheSameNameBesideTheDocumentIsUsed) {
    std::string beside = dir.file("clip.mov");
    qvtest::writeFile(beside, qvtest::readFile(mediaDir() + "/clip.mov"));
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    CED2* shot = reader->addShot("s", L"file:///Volumes/Gone/Day%201/clip.mov");
    import(*reader, dir.file("doc.xml"));
    EXPECT_TRUE(sink->contains(("linking to local media file <" + beside + ">").c_str()));
    EXPECT_TRUE(shot->materialImported);
    Qv::Ptr<Edit> made = store.find(shot->cookie);
    ASSERT_TRUE(made);
    EXPECT_EQ(toUTF8(made->mediaPath).str(), toUTF8(canonicalPath(fromUTF8(beside.c_str()))).str());
    // The shot's headers keep the locator the document named.
    EXPECT_EQ(shot->firstChannel()->mediaFilename, L"/Volumes/Gone/Day 1/clip.mov");

    // A second shot naming the same file finds the material now in the store.
    Qv::Ptr<ListReader> again(new ListReader(capturingLog()));
    CED2* second = again->addShot("s", L"file:///Volumes/Gone/Day%201/clip.mov");
    import(*again, dir.file("doc.xml"));
    EXPECT_TRUE(second->materialLinked);
    EXPECT_FALSE(second->materialImported);
    EXPECT_TRUE(second->cookie.sameIdentity(shot->cookie));
}

// The search beside the document looks for the name the document gave, not
// for names that match it as a pattern.
TEST_F(Material, NamesBesideTheDocumentAreNotPatterns) {
    std::string clip = qvtest::readFile(mediaDir() + "/clip.mov");
    qvtest::writeFile(dir.file("Interview [take 2].mov"), clip);
    qvtest::writeFile(dir.file("clipA.mov"), clip);
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    CED2* take = reader->addShot("t", L"file:///Volumes/Gone/Interview%20%5Btake%202%5D.mov");
    CED2* pattern = reader->addShot("p", L"file:///Volumes/Gone/clip%3F.mov");
    import(*reader, dir.file("doc.xml"));
    EXPECT_TRUE(take->materialImported);
    Qv::Ptr<Edit> made = store.find(take->cookie);
    ASSERT_TRUE(made);
    EXPECT_EQ(toUTF8(stripPath(made->mediaPath)).str(), "Interview [take 2].mov");
    EXPECT_TRUE(pattern->materialOffline) << "clip?.mov is not clipA.mov";
}

TEST_F(Material, NothingFoundGoesOffline) {
    set_config_int("media_scanning_behaviour", 0);
    qvtest::writeFile(dir.file("clip.mov"), qvtest::readFile(mediaDir() + "/clip.mov"));
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    CED2* shot = reader->addShot("s", L"file:///Volumes/Gone/clip.mov");
    CED2* empty = reader->addShot("e", L"");
    CED2* nameless = reader->addShot("n", L"file:///Volumes/Gone/");
    import(*reader, dir.file("doc.xml"));
    for (CED2* s : {shot, empty, nameless}) {
        EXPECT_TRUE(s->materialOffline);
        EXPECT_TRUE(s->cookie.isValid());
        EXPECT_EQ(s->videoExtension, L"AVI");
        EXPECT_EQ(s->audioExtension, L"WAV");
    }
    EXPECT_EQ(shot->firstChannel()->mediaFilename, L"/Volumes/Gone/clip.mov");
    EXPECT_FALSE(empty->firstChannel()->mediaFilenameSet);
    EXPECT_TRUE(sink->contains("Material offline"));
    Qv::Ptr<Edit> made = store.find(shot->cookie);
    ASSERT_TRUE(made);
    EXPECT_TRUE(made->isOffline());
}

// A pipe or a device beside the document, named like the media, is passed
// over with a warning, in the folder and in the tree below it: reading one
// would block or never end. The shot goes offline as when nothing is there.
TEST_F(Material, PipesAndDevicesBesideTheDocumentArePassedOver) {
    ASSERT_EQ(::mkfifo(dir.file("clip.mov").c_str(), 0644), 0);
    ASSERT_EQ(::symlink("/dev/zero", dir.file("tone.wav").c_str()), 0);
    for (int behaviour : {1, 2}) {
        set_config_int("media_scanning_behaviour", behaviour);
        sink->lines.clear();
        Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
        CED2* clip = reader->addShot("c", L"file:///Volumes/Gone/clip.mov");
        CED2* tone = reader->addShot("t", L"file:///Volumes/Gone/tone.wav");
        import(*reader, dir.file("doc.xml"));
        EXPECT_TRUE(clip->materialOffline) << behaviour;
        EXPECT_TRUE(tone->materialOffline) << behaviour;
        EXPECT_EQ(sink->count(LogKind::Warning), 2) << behaviour;
        EXPECT_EQ(sink->count(LogKind::Error), 0) << behaviour;
        EXPECT_TRUE(sink->contains(("passed over \"" + dir.file("clip.mov") +
                                    "\": it is a pipe (FIFO), not a regular file")
                                       .c_str()));
    }
}

TEST_F(Material, ThePreferenceSendsEvenKnownMediaOffline) {
    std::string clip = mediaDir() + "/clip.mov";
    qvtest::addShot(store, L"known", 25, 1, {{kChanVideo}},
                    canonicalPath(fromUTF8(clip.c_str())).str());
    prefs().setPreference("Import : Suppress relink existing material", true);
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    CED2* shot = reader->addShot("s", url(clip));
    import(*reader, dir.file("doc.xml"));
    EXPECT_TRUE(shot->materialOffline);
    EXPECT_FALSE(sink->contains("linking"));
    EXPECT_EQ(store.size(), 2u);
}

TEST_F(Material, AFileThatIsNotMediaLeavesTheShotWithoutMedia) {
    std::string bogus = mediaDir() + "/notmedia.mov";
    Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
    CED2* shot = reader->addShot("s", url(bogus));
    CED2* seq = new CED2(false);
    seq->cookie = makeNewEditCookie();
    CED2Cell* use = seq->CreateEditChannel(0, kChanVideo)->addCel(CelData{});
    use->refId = "s";
    reader->sequences().append(seq);
    XML::ImportResult r = import(*reader, dir.file("doc.xml"));
    EXPECT_EQ(r.status, 1) << "a failed media import does not fail the document";
    EXPECT_FALSE(shot->materialImported);
    EXPECT_EQ(sink->count(LogKind::Error), 1);
    EXPECT_EQ(use->cookie, video_black);
    Qv::Ptr<Edit> made = store.find(shot->cookie);
    ASSERT_TRUE(made);
    EXPECT_TRUE(made->isOffline());
}

TEST_F(Material, SoundOnlyFilesAndLocators) {
    MediaProbe tone = probeMediaFile(fromUTF8((mediaDir() + "/tone.wav").c_str()));
    ASSERT_TRUE(tone.ok);
    EXPECT_FALSE(tone.hasVideo);
    EXPECT_EQ(tone.audioChannels, 1);
    EXPECT_DOUBLE_EQ(tone.sampleRate, 8000);
    EXPECT_NEAR(tone.duration, 0.2, 0.01);
    EXPECT_FALSE(probeMediaFile(fromUTF8((mediaDir() + "/notmedia.mov").c_str())).ok);
    EXPECT_FALSE(probeMediaFile(L"/no/such/file.mov").ok);

    LightweightString<wchar_t> url(L"file://server/a/b%20c.mov"), unc;
    XML::XMLReader::convertURLtoUNC(url, unc);
    EXPECT_EQ(unc, L"\\\\server\\a\\b%20c.mov");
    url = L"file:///a/b.mov";
    XML::XMLReader::convertURLtoUNC(url, unc);
    EXPECT_EQ(unc, L"\\\\\\a\\b.mov");
    url = L"no slashes";
    XML::XMLReader::convertURLtoUNC(url, unc);
    EXPECT_EQ(unc, L"no slashes");
}

TEST_F(Material, SampleRatesOfTheDocumentPickTheNearestBase) {
    std::string clip = mediaDir() + "/clip.mov";
    auto importWithRate = [&](double rate) {
        store.clear();
        Qv::Ptr<ListReader> reader(new ListReader(capturingLog()));
        CED2* shot = reader->addShot("s", url(clip));
        shot->audioSampleRate = rate;
        shot->audioSampleRateSet = true;
        import(*reader, dir.file("doc.xml"));
        return store.find(shot->cookie)->audioInputSampleRate;
    };
    EXPECT_TRUE(importWithRate(48000) == Aud::SampleRate(Aud::eBase48000, Aud::eFactor1));
    EXPECT_TRUE(importWithRate(96000) == Aud::SampleRate(Aud::eBase96000, Aud::eFactor1));
    EXPECT_TRUE(importWithRate(47952) == Aud::SampleRate(Aud::eBase48000, Aud::eFactorPullDown));
    EXPECT_TRUE(importWithRate(12345) == Aud::SampleRate(Aud::eBaseNone, Aud::eFactorNone));
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
