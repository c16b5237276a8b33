// The native writer.
#include <gtest/gtest.h>

#include "export/ExportDriver.h"
#include "native/QVXMLWriter.h"
#include "tests/native/NativeTimeline.h"

namespace {

using namespace XML;

class NativeWriter : public qvtest::StoreTest {
  protected:
    std::string exportNative(const Cookie& source) {
        XMLExportOptions o;
        o.directory = dir.wpath();
        o.fileName = L"out";
        o.flavour = XMLFlavourQV2;
        ExportResult r = XMLExportFiles(source, o, capturingLog());
        EXPECT_EQ(r.status, 1);
        return qvtest::readFile(dir.file("out.xml"));
    }
    // The text of a writer's document after one call.
    template <typename F>
    std::string written(F call) {
        XMLExportOptions o;
        QVXMLWriter w(capturingLog(), o, Qv::eFrameRate25);
        call(w);
        return w.xmlFile.text();
    }
    qvtest::TempDir dir;
};

TEST_F(NativeWriter, GoldenDocument) {
    qvtest::NativeTimeline t = qvtest::buildNativeTimeline(store);
    std::string text = exportNative(t.seq->cookie);
    std::string golden = std::string(QVXML_TEST_DATA) + "/native/golden_sequence.xml";
    EXPECT_EQ(text, qvtest::readFile(golden));
    EXPECT_TRUE(sink->contains("Output shot \"Shot A\""));
    EXPECT_TRUE(sink->contains("Output Edit \"Cut \xC3\xB8\""));
}

TEST_F(NativeWriter, ShotsAloneGiveTheHeaderAndAnEmptyRoot) {
    Qv::Ptr<Edit> shot = qvtest::addShot(store, L"lone", 25, 2);
    EXPECT_EQ(exportNative(shot->cookie),
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<!-- Quvera version 15.0.1.132926 -->\n"
              "<QVXML version=\"2\"/>\n");
}

TEST_F(NativeWriter, LevelsVelocitiesAndTransitions) {
    auto celText = [&](CelData data, bool forShot = false) {
        CED2 record(forShot);
        CChannel* ch = record.CreateEditChannel(0, kChanVideo);
        ch->addCel(data);
        return written([&](QVXMLWriter& w) { w.writeCELList(&record, forShot); });
    };
    CelData plain;
    plain.cookie = video_black;
    std::string text = celText(plain);
    EXPECT_NE(text.find("<Ref magic=\"true\">" + video_black.asString().str() + "</Ref>"),
              std::string::npos);
    EXPECT_EQ(text.find("<Transition>"), std::string::npos) << "black is no transition";
    EXPECT_NE(text.find("<Velocity num=\"10000\" den=\"10000\"/>"), std::string::npos);
    EXPECT_EQ(text.find("<Level"), std::string::npos);

    CelData nearlyOne = plain;
    nearlyOne.level = 1.0000005f;  // within a millionth of unity
    EXPECT_EQ(celText(nearlyOne).find("<Level"), std::string::npos);
    CelData justAbove = plain;
    justAbove.level = 1.00001f;
    EXPECT_NE(celText(justAbove).find("<Level num=\"10000\" den=\"10000\"/>"), std::string::npos);
    CelData muted = plain;
    muted.level = 0;
    EXPECT_NE(celText(muted).find("<Level num=\"0\" den=\"10000\"/>"), std::string::npos);

    CelData wipe = plain;
    wipe.cookie = video_wipe;
    wipe.wipeCode = 1;
    wipe.wipeDirection = eWipeReverse;
    EXPECT_NE(celText(wipe).find("<Type>Wipe</Type>\n                <Id>  -1</Id>"),
              std::string::npos)
        << celText(wipe);
    wipe.wipeCode = 12;
    wipe.wipeDirection = eWipeForward;
    EXPECT_NE(celText(wipe).find("<Id>  12</Id>"), std::string::npos);
    CelData dissolve = plain;
    dissolve.cookie = audio_dissolve;
    EXPECT_NE(celText(dissolve).find("<Type>Dissolve</Type>"), std::string::npos);

    CelData reverse;
    reverse.cookie = makeNewEditCookie();
    reverse.speed = -1;
    std::string r = celText(reverse);
    EXPECT_NE(r.find("magic=\"false\""), std::string::npos);
    EXPECT_NE(r.find("<Velocity num=\"-10000\" den=\"10000\"/>"), std::string::npos);
}

TEST_F(NativeWriter, ChannelsOfOtherKindsAndTrackLevels) {
    CED2 record(false);
    record.duration = 4;
    CChannel* other = record.CreateEditChannel(0, 3);
    other->refName = L"id-0";
    other->addCel(CelData{});
    CChannel* video = record.CreateEditChannel(1, kChanVideo);
    video->hasTrackLevels = true;
    video->levels.append(new CED2TrackLevel(LevelData{0.5, 2.0f}));
    CChannel* audio = record.CreateEditChannel(2, kChanAudio);
    audio->hasTrackLevels = true;
    audio->levels.append(new CED2TrackLevel(LevelData{0.5, 2.0f}));
    std::string edit = written([&](QVXMLWriter& w) { w.writeCELList(&record, false); });
    EXPECT_NE(edit.find("<Name></Name>\n        <Id>id-0</Id>\n        <Id>id-0</Id>\n    </Chan>"),
              std::string::npos)
        << edit;
    // Only the audio channel has an Effect: position 0.5 of 4 s at 25 is 50.
    EXPECT_EQ(edit.find("<Effect>"), edit.rfind("<Effect>"));
    EXPECT_NE(edit.find("<Position>50</Position>"), std::string::npos);
    EXPECT_NE(edit.find("<Value num=\"20000\" den=\"10000\"/>"), std::string::npos);

    std::string shot = written([&](QVXMLWriter& w) { w.writeCELList(&record, true); });
    EXPECT_EQ(shot.find("<Effect>"), std::string::npos) << "a shot's channels carry no levels";
    EXPECT_EQ(shot.find("<Id>id-0</Id>\n        <Id>"), std::string::npos);
}

TEST_F(NativeWriter, ExcludedRecordsLeaveNoTrace) {
    CED2List list;
    CED2* r = new CED2(false);
    r->excludedFromExport = true;
    r->editName = L"hidden";
    list.append(r);
    std::string text = written([&](QVXMLWriter& w) {
        w.writeAllShots(list, list);
        w.writeGhosts(list);
        w.writeSequence(list);
    });
    EXPECT_EQ(text, "<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
    EXPECT_TRUE(sink->lines.empty());
}

}  // namespace
