#include <gtest/gtest.h>

#include "export/ExportDriver.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace XML;
using qvtest::TempDir;

class ExportDriver : public qvtest::StoreTest {
  protected:
    ExportResult run(const Cookie& source, XMLFlavour flavour, const std::wstring& fileName = L"",
                     bool silent = false) {
        XMLExportOptions o;
        o.directory = dir.wpath();
        o.fileName = fileName.c_str();
        o.flavour = flavour;
        o.silent = silent;
        return XMLExportFiles(source, o, capturingLog());
    }
    // A sequence that reaches a sub-clip through a nested sequence: two
    // levels of reference.
    Qv::Ptr<Edit> deepSequence() {
        Qv::Ptr<Edit> shot = qvtest::addShot(store, L"shot", 25, 20);
        Qv::Ptr<Edit> sub = qvtest::addSubclip(store, L"sub", shot, 2, 5);
        Qv::Ptr<Edit> nested = qvtest::addSequence(store, L"nested", Qv::eFrameRate25);
        qvtest::addCel(nested, 0, qvtest::playCookie(sub, 0), 0, 5, 0);
        Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"deep", Qv::eFrameRate25);
        qvtest::addCel(seq, 0, qvtest::playCookie(nested, 0), 0, 5, 0);
        return seq;
    }
    Qv::Ptr<Edit> simpleSequence(const std::wstring& name) {
        Qv::Ptr<Edit> shot = qvtest::addShot(store, L"shot", 25, 20);
        Qv::Ptr<Edit> seq = qvtest::addSequence(store, name, Qv::eFrameRate25);
        qvtest::addCel(seq, 0, qvtest::playCookie(shot, 0), 0, 5, 0);
        return seq;
    }
    TempDir dir;
};

TEST_F(ExportDriver, MissingDirectoryIs2002AndTheEditIsNeverOpened) {
    Qv::Ptr<Edit> seq = simpleSequence(L"cut");
    XMLExportOptions o;
    o.directory = dir.wpath() + L"/missing";
    ExportResult r = XMLExportFiles(seq->cookie, o, capturingLog());
    EXPECT_EQ(r.status, 2002);
    EXPECT_TRUE(r.files.empty());
    EXPECT_EQ(store.opens(), 0);
}

TEST_F(ExportDriver, AnEditThatWillNotOpenIsSuccessWithNoFile) {
    ExportResult r = run(makeNewEditCookie(), XMLFlavourQV2, L"x");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.files.empty());
    EXPECT_TRUE(qvtest::listDirectory(dir.path()).empty());
    EXPECT_TRUE(sink->lines.empty());
}

TEST_F(ExportDriver, EmptyListsAreSuccessWithNoFile) {
    Qv::Ptr<Edit> effect = qvtest::addSequence(store, L"fx", Qv::eFrameRate25);
    effect->logType = kLogTypeEffect;
    ExportResult r = run(effect->cookie, XMLFlavourFCP5);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.files.empty());
    EXPECT_TRUE(qvtest::listDirectory(dir.path()).empty());
    EXPECT_EQ(store.opens(), store.closes());
}

TEST_F(ExportDriver, TwoLevelsOfSubclipStopFinalCutFlavoursBeforeAnyFile) {
    useLegacyInterchange();
    Qv::Ptr<Edit> seq = deepSequence();
    for (XMLFlavour f : {XMLFlavourFCP5, XMLFlavourFCPX}) {
        sink->lines.clear();
        ExportResult r = run(seq->cookie, f);
        EXPECT_EQ(r.status, 0) << f;
        EXPECT_TRUE(r.files.empty());
        EXPECT_TRUE(qvtest::listDirectory(dir.path()).empty());
        ASSERT_EQ(sink->lines.size(), 1u);
        EXPECT_EQ(sink->lines[0].text,
                  "FCP V5 export ... more than a single level of sub-clip reference");
        EXPECT_EQ(sink->lines[0].type, 0);
    }
    ExportResult native = run(seq->cookie, XMLFlavourQV2);
    EXPECT_EQ(native.status, 1);
    ASSERT_EQ(native.files.size(), 1u);
    EXPECT_EQ(native.files[0], dir.wpath() + L"/deep.xml");
    EXPECT_EQ(store.opens(), store.closes());
}

TEST_F(ExportDriver, DeeperLevelsOfReferenceAreWrittenByDefault) {
    Qv::Ptr<Edit> seq = deepSequence();
    for (XMLFlavour f : {XMLFlavourFCP5, XMLFlavourFCPX}) {
        ExportResult r = run(seq->cookie, f);
        EXPECT_EQ(r.status, 1) << f;
        ASSERT_EQ(r.files.size(), 1u);
        EXPECT_TRUE(qvtest::exists(toUTF8(r.files[0]).str()));
    }
    EXPECT_FALSE(sink->contains("more than a single level"));
    EXPECT_EQ(store.opens(), store.closes());
}

TEST_F(ExportDriver, FileNamesAreTheStemAndTheWritersExtension) {
    Qv::Ptr<Edit> seq = simpleSequence(L"Cut: v1/final");
    ExportResult r = run(seq->cookie, XMLFlavourFCPX);
    ASSERT_EQ(r.files.size(), 1u);
    EXPECT_EQ(r.files[0], dir.wpath() + L"/Cut_ v1_final.fcpxml");
    r = run(seq->cookie, XMLFlavourQV2, L"given name.fcpxml");
    ASSERT_EQ(r.files.size(), 1u);
    EXPECT_EQ(r.files[0], dir.wpath() + L"/given name.xml");
    EXPECT_TRUE(qvtest::exists(dir.file("given name.xml")));
    EXPECT_TRUE(sink->contains("Creating XML file"));
}

TEST_F(ExportDriver, ANamelessEditGetsANewIdentityAndTwoFullStops) {
    Qv::Ptr<Edit> seq = simpleSequence(L"");
    XMLExportOptions o;
    o.directory = dir.wpath() + L"/";
    o.flavour = XMLFlavourQV2;
    ExportResult r = XMLExportFiles(seq->cookie, o, LoggerHandle());
    ASSERT_EQ(r.files.size(), 1u);
    std::string name = qvtest::listDirectory(dir.path()).at(0);
    EXPECT_EQ(name.size(), 43u + 5u) << name;
    EXPECT_EQ(name.substr(0, 2), "V-");
    EXPECT_EQ(name.substr(43), "..xml");
    EXPECT_EQ(Cookie(fromUTF8(name.substr(0, 43).c_str()), false).type, kCookieVideo);
}

TEST_F(ExportDriver, SilentListsNoFileAndSaysNothingOfIt) {
    Qv::Ptr<Edit> seq = simpleSequence(L"cut");
    ExportResult r = run(seq->cookie, XMLFlavourQV2, L"", true);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.files.empty());
    EXPECT_TRUE(qvtest::exists(dir.file("cut.xml")));
    EXPECT_FALSE(sink->contains("Creating XML file"));
    EXPECT_EQ(sink->count(LogKind::Written), 0);
}

TEST_F(ExportDriver, ShotsAloneTakeTheShotOnlyRoad) {
    Qv::Ptr<Edit> shot = qvtest::addShot(store, L"lone shot", 25, 4);
    ExportResult r = run(shot->cookie, XMLFlavourQV2);
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.files.empty()) << "this road reports its path in the log only";
    std::string path = dir.file("lone shot.xml");
    EXPECT_TRUE(qvtest::exists(path));
    bool reported = false;
    for (const auto& l : sink->lines)
        reported |= l.kind == LogKind::Written && l.type == 6 && l.text.str() == path;
    EXPECT_TRUE(reported);
}

TEST_F(ExportDriver, AFileThatCannotBeCreatedIs2001) {
    Qv::Ptr<Edit> seq = simpleSequence(L"cut");
    ASSERT_EQ(::mkdir(dir.file("cut.xml").c_str(), 0755), 0);  // a directory in the way
    ExportResult r = run(seq->cookie, XMLFlavourQV2);
    EXPECT_EQ(r.status, 2001);
    EXPECT_TRUE(r.files.empty());
    EXPECT_EQ(store.opens(), store.closes());
}

TEST_F(ExportDriver, TheCallersOptionsAreNotChanged) {
    Qv::Ptr<Edit> seq = simpleSequence(L"cut");
    XMLExportOptions o;
    o.directory = dir.wpath();
    o.flavour = XMLFlavourQV2;
    XMLExportFiles(seq->cookie, o, LoggerHandle());
    EXPECT_TRUE(o.fileName.empty());
}

TEST_F(ExportDriver, WriterFactoryAndExtensions) {
    XMLExportOptions o;
    Qv::Ptr<XMLWriter> w;
    for (int f = 0; f <= 9; ++f) {
        o.flavour = static_cast<XMLFlavour>(f);
        ASSERT_EQ(getAnXMLWriter(w, o, Qv::eFrameRate25, LoggerHandle()), 1);
        EXPECT_EQ(w->getFileExtension(), f == 2 ? L".fcpxml" : L".xml") << f;
        EXPECT_EQ(w->supportsMulticlipGroup(), f == 3) << f;
    }
}

}  // namespace
