// The xmeml reader on small documents: how tracks become channels, where
// clips and transitions land, speed, reverse, stills, levels, references,
// ghosts and markers.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <tuple>

#include "import/ImportDriver.h"
#include "plugin/Interchange.h"
#include "tests/support/TestSupport.h"
#include "xmeml/FCP5XMLReader.h"

namespace {

using XML::FCP5XMLReader;

// A reader whose parse can be run on a text and looked into before the
// records are resolved and written.
class Reader : public FCP5XMLReader {
  public:
    explicit Reader(LoggerHandle log) : FCP5XMLReader(log) {}
    int parse(const std::string& text) {
        text_ = text;
        XMLParser parser(text_.c_str(), -1);
        return parseFile(parser);
    }
    using FCP5XMLReader::clipRefs;
    using FCP5XMLReader::ghostRefs;

  private:
    std::string text_;
};

// A file of `frames` at 25 with a timecode, video and `audio` channels.
std::string file(const std::string& id, int frames, int audio = 0, const std::string& extra = "") {
    std::string s = "<file id=\"" + id + "\"><name>" + id + ".mov</name>" +
                    "<pathurl>file://localhost/media/" + id + ".mov</pathurl>" +
                    "<rate><timebase>25</timebase></rate><duration>" + std::to_string(frames) +
                    "</duration><timecode><rate><timebase>25</timebase></rate>"
                    "<frame>90000</frame><displayformat>NDF</displayformat></timecode><media>";
    s += "<video><duration>" + std::to_string(frames) + "</duration></video>";
    if (audio > 0) s += "<audio><channelcount>" + std::to_string(audio) + "</channelcount></audio>";
    return s + "</media>" + extra + "</file>";
}

std::string clip(const std::string& fileXml, int start, int end, int in, int out,
                 const std::string& extra = "") {
    return "<clipitem><name>c</name><duration>1000</duration>"
           "<rate><timebase>25</timebase></rate><start>" +
           std::to_string(start) + "</start><end>" + std::to_string(end) + "</end><in>" +
           std::to_string(in) + "</in><out>" + std::to_string(out) + "</out>" + fileXml + extra +
           "</clipitem>";
}

std::string transition(int start, int end, const std::string& alignment = "center",
                       const std::string& category = "Dissolve", const std::string& more = "") {
    return "<transitionitem><start>" + std::to_string(start) + "</start><end>" +
           std::to_string(end) + "</end><alignment>" + alignment +
           "</alignment><effect><effecttype>transition</effecttype><effectcategory>" + category +
           "</effectcategory>" + more + "</effect></transitionitem>";
}

std::string sequence(const std::string& video, const std::string& audio = "", int duration = 250) {
    return "<xmeml version=\"4\"><sequence><name>Cut</name><duration>" + std::to_string(duration) +
           "</duration><rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>"
           "<media><video>" +
           video + "</video><audio>" + audio + "</audio></media></sequence></xmeml>";
}

std::string track(const std::string& items) {
    return "<track>" + items + "</track>";
}

struct Cel {
    double in, out, source;
    float speed;
    std::string ref;
};

std::vector<Cel> celsOf(const CChannel* ch) {
    std::vector<Cel> out;
    for (CED2Cell* c : each<CED2Cell>(ch->cels))
        out.push_back(
            {c->editIn * 25, c->editOut * 25, c->sourceIn * 25, c->speed, c->refId.str()});
    return out;
}

CChannel* channel(CED2* rec, unsigned index) {
    unsigned i = 0;
    for (CChannel* ch : each<CChannel>(rec->channels))
        if (i++ == index) return ch;
    return nullptr;
}

// The original reading, which the configuration key keeps within reach:
// these tests hold it to what it reads.
class FCP5Reader : public qvtest::StoreTest {
  protected:
    FCP5Reader() { set_config_int(XML::kLegacyInterchangeKey, 1); }
    CED2* readOne(const std::string& text) {
        EXPECT_EQ(reader.parse(text), 1);
        return reader.sequences().firstRecord();
    }
    Reader reader{capturingLog()};
};

TEST_F(FCP5Reader, VideoTracksArriveLastFirstAndAudioFollowsInOrder) {
    std::string f = file("f", 1000, 2);
    CED2* seq = readOne(sequence(
        track(clip(f, 0, 10, 0, 10)) + track(clip(f, 0, 20, 0, 20)) + track(clip(f, 0, 30, 0, 30)),
        track(clip(f, 0, 40, 0, 40)) + track(clip(f, 0, 50, 0, 50))));
    ASSERT_TRUE(seq);
    const double ends[] = {30, 20, 10, 40, 50};
    for (unsigned i = 0; i < 5; ++i) {
        CChannel* ch = channel(seq, i);
        ASSERT_TRUE(ch);
        EXPECT_EQ(ch->chanType, i < 3 ? kChanVideo : kChanAudio);
        EXPECT_EQ(ch->index, i);
        EXPECT_DOUBLE_EQ(celsOf(ch)[0].out, ends[i]) << "channel " << i;
    }
    EXPECT_TRUE(sink->contains("Track V3"));
    EXPECT_TRUE(sink->contains("Track A2"));
}

// Around a centred transition, the clip before ends where it begins and
// reaches on to its end in its media; the clip after begins where it ends,
// its media moved on by the transition's length.
TEST_F(FCP5Reader, CutsOnATransition) {
    std::string f = file("f", 1000);
    CED2* seq = readOne(
        sequence(track(clip(f, 0, -1, 100, 0) + transition(40, 50) + clip(f, -1, 80, 300, 0))));
    std::vector<Cel> c = celsOf(channel(seq, 0));
    ASSERT_EQ(c.size(), 4u);
    EXPECT_DOUBLE_EQ(c[0].in, 0);
    EXPECT_DOUBLE_EQ(c[0].out, 40);
    EXPECT_DOUBLE_EQ(c[0].source, 100);
    EXPECT_EQ(c[0].ref, "f$0$");
    EXPECT_DOUBLE_EQ(c[1].in, 40);
    EXPECT_DOUBLE_EQ(c[1].out, 50);
    EXPECT_DOUBLE_EQ(c[2].in, 50);
    EXPECT_DOUBLE_EQ(c[2].out, 80);
    EXPECT_DOUBLE_EQ(c[2].source, 310);
    // Black to the end of the sequence.
    EXPECT_DOUBLE_EQ(c[3].in, 80);
    EXPECT_DOUBLE_EQ(c[3].out, 250);
    CED2Cell* cel = static_cast<CED2Cell*>(channel(seq, 0)->cels.first());
    EXPECT_NEAR(cel->sourceOut * 25, 140, 1e-9);
}

TEST_F(FCP5Reader, TransitionsTieWithClipsAndMisorderedEdgesFail) {
    std::string f = file("f", 1000);
    // At the same position the clip is taken first: the transition then
    // comes after it.
    CED2* seq =
        readOne(sequence(track(transition(10, 20, "start_black") + clip(f, 10, 30, 0, 20))));
    std::vector<Cel> c = celsOf(channel(seq, 0));
    ASSERT_GE(c.size(), 2u);
    EXPECT_EQ(c[1].ref, "f$0$");
    EXPECT_DOUBLE_EQ(c[1].in, 10);

    // A transition from black leaves nothing for the next clip to start in.
    Reader second(capturingLog());
    EXPECT_EQ(
        second.parse(sequence(track(transition(0, 10, "end_black") + clip(f, -1, 30, 0, 20)))), 0);
    EXPECT_TRUE(sink->contains("Invalid component order"));
    // A clip that ends in a transition that is not there.
    Reader third(capturingLog());
    EXPECT_EQ(third.parse(sequence(track(clip(f, 0, -1, 0, 20) + clip(f, 40, 60, 0, 20)))), 0);
    EXPECT_EQ(third.sequences().firstRecord(), nullptr) << "the sequence is given up";
}

std::string timeRemap(const std::string& speed, bool reverse = false) {
    return "<filter><effect><effectid>timeremap</effectid><parameter><name>speed</name><value>" +
           speed + "</value></parameter>" +
           (reverse ? "<parameter><name>reverse</name><value>TRUE</value></parameter>" : "") +
           "</effect></filter>";
}

TEST_F(FCP5Reader, SpeedReverseAndStills) {
    std::string f = file("f", 1000);
    CED2* seq = readOne(sequence(
        track(clip(f, 0, 100, 101, 0, timeRemap("50"))) +
        track(clip(f, 0, 200, 100, 0, timeRemap("100", true))) +
        track(clip(f, 0, 50, 30, 0, "<stillframe>TRUE</stillframe>" + timeRemap("100", true))) +
        track(clip(f, 0, 50, 30, 0, timeRemap("0.1"))) +
        track(clip(f, 0, 50, 30, 0, timeRemap("0.2")))));
    // Channels are the tracks last first.
    Cel slow = celsOf(channel(seq, 4))[0];
    EXPECT_DOUBLE_EQ(slow.source, 50) << "101 at half speed truncates to 50";
    EXPECT_FLOAT_EQ(slow.speed, 0.5f);
    CED2Cell* slowCel = channel(seq, 4)->firstCel();
    EXPECT_NEAR(slowCel->sourceOut * 25, 100, 1e-9) << "100 ticks play 50 of the source";

    // Backwards: the in point counts from the far end of the media.
    CED2Cell* back = channel(seq, 3)->firstCel();
    EXPECT_NEAR(back->sourceIn * 25, 900, 1e-9);
    EXPECT_NEAR(back->sourceOut * 25, 700, 1e-9);
    EXPECT_FLOAT_EQ(back->speed, -1.0f);

    for (unsigned i : {2u, 1u}) {  // a still frame, and a tenth of a percent
        CED2Cell* still = channel(seq, i)->firstCel();
        EXPECT_FLOAT_EQ(still->speed, 0.0f) << i;
        EXPECT_DOUBLE_EQ(still->sourceIn, still->sourceOut) << i;
    }
    EXPECT_FLOAT_EQ(channel(seq, 0)->firstCel()->speed, 0.002f) << "0.2 percent plays";
}

TEST_F(FCP5Reader, WipesDissolvesAndUnknownEffects) {
    std::string f = file("f", 1000, 1);
    std::string audio =
        "<sourcetrack><mediatype>audio</mediatype><trackindex>1</trackindex></sourcetrack>";
    CED2* seq = readOne(
        sequence(track(clip(f, 0, -1, 0, 0) +
                       transition(10, 20, "center", "Wipe",
                                  "<wipecode>7</wipecode><reverse>TRUE</reverse>") +
                       clip(f, -1, 30, 0, 0) + transition(30, 40, "center", "Lens Flare") +
                       clip(f, -1, 50, 0, 0)),
                 track(clip(f, 0, -1, 0, 0, audio) + transition(10, 20, "center", "Lens Flare") +
                       clip(f, -1, 30, 0, 0, audio))));
    CED2Cell* wipe = channel(seq, 0)->firstCel()->next();
    EXPECT_TRUE(wipe->cookie.isMagic());
    EXPECT_FALSE(wipe->cookie.isBlack());
    EXPECT_EQ(wipe->GetSMPTEWipeCode(), 7);
    EXPECT_EQ(wipe->GetWipeDirection(), eWipeReverse);
    EXPECT_EQ(wipe->next()->next()->refId.str(), "...?...") << "an unknown video effect";
    // Audio transitions are crossfades whatever they are called.
    EXPECT_EQ(channel(seq, 1)->firstCel()->next()->cookie, audio_dissolve);
    EXPECT_EQ(channel(seq, 1)->firstCel()->refId.str(), "f$1$");
}

TEST_F(FCP5Reader, AudioReferencesKeepOneDigitOfTheTrackIndex) {
    std::string f = file("f", 1000, 12);
    auto item = [&](int index) {
        return clip(f, 0, 10, 0, 10,
                    "<sourcetrack><mediatype>audio</mediatype><trackindex>" +
                        std::to_string(index) + "</trackindex></sourcetrack>");
    };
    CED2* seq = readOne(sequence("", track(item(2)) + track(item(12))));
    EXPECT_EQ(channel(seq, 0)->firstCel()->refId.str(), "f$2$");
    EXPECT_EQ(channel(seq, 1)->firstCel()->refId.str(), "f$1$");
}

// Level keyframes are placed by the clip's source frames as fractions of the
// sequence, clamped to the part of the media the clip plays.
TEST_F(FCP5Reader, LevelKeyframesAreClampedToTheClip) {
    std::string f = file("f", 1000, 1);
    std::string levels =
        "<filter><effect><effectid>audiolevels</effectid><parameter>"
        "<keyframe><when>90</when><value>0.5</value></keyframe>"
        "<keyframe><when>125</when><value>2</value></keyframe>"
        "<keyframe><when>500</when><value>1</value></keyframe>"
        "</parameter></effect></filter>";
    CED2* seq = readOne(sequence("", track(clip(f, 50, 100, 100, 150, levels))));
    CChannel* ch = channel(seq, 0);
    EXPECT_TRUE(ch->hasTrackLevels);
    EXPECT_TRUE(ch->trackLevelsSet);
    std::vector<double> at;
    for (CED2TrackLevel* l : each<CED2TrackLevel>(ch->levels))
        at.push_back(l->position * 250);
    ASSERT_EQ(at.size(), 3u);
    EXPECT_NEAR(at[0], 50, 1e-9) << "before the in point: the clip's start";
    EXPECT_NEAR(at[1], 75, 1e-9);
    EXPECT_NEAR(at[2], 100, 1e-9) << "past the media played: the clip's end";
}

// An element that holds nothing but a comment is there, but tells nothing:
// the reader passes over it as if it were missing.
TEST_F(FCP5Reader, ElementsThatHoldOnlyACommentAreAbsent) {
    std::string f =
        "<file id=\"f\"><name>f.wav</name><duration>1000</duration><rate><timebase>25"
        "</timebase></rate><media><video><!-- none --></video><audio><channelcount>1"
        "</channelcount></audio></media></file>";
    std::string levels =
        "<filter><effect><effectid>audiolevels</effectid><parameter>"
        "<keyframe><!-- none --></keyframe></parameter></effect></filter>";
    std::string markers = "<marker><!-- none --></marker><marker><name>m</name><in>5</in></marker>";
    CED2* seq = readOne(sequence("", track(clip(f, 0, 50, 100, 150, levels + markers))));
    ASSERT_TRUE(seq);
    EXPECT_FALSE(channel(seq, 0)->hasTrackLevels) << "no keyframe to place";
    ASSERT_EQ(reader.shots().size(), 1u);
    CED2* shot = reader.shots().firstRecord();
    EXPECT_EQ(shot->GetNumVideoChannels(), 0) << "a picture stream that says nothing";
    EXPECT_EQ(shot->GetNumAudioChannels(), 1);
    ASSERT_EQ(shot->cues.size(), 2u) << "the named marker, at both visits of the item";
    EXPECT_EQ(shot->cues[0].name, L"m");
}

TEST_F(FCP5Reader, ShotsFromFilesAndGhostsFromSubclips) {
    std::string f = file("av", 1000, 2);
    std::string a =
        "<file id=\"snd\"><name>snd.wav</name><duration>500</duration>"
        "<media><audio><channelcount>1</channelcount></audio></media></file>";
    std::string sub =
        "<subclipinfo><startoffset>100</startoffset><endoffset>0</endoffset>"
        "</subclipinfo>";
    auto named = [](std::string item, const char* name) {
        return item.replace(item.find("<name>c</name>"), 14,
                            std::string("<name>") + name + "</name>");
    };
    std::string marker = "<marker><name>m</name><in>5</in><out>-1</out></marker>";
    CED2* seq = readOne(
        sequence(track(clip(f, 0, 10, 0, 10, marker) + clip("<file id=\"av\"/>", 10, 20, 0, 10) +
                       named(clip("<file id=\"av\"/>", 20, 30, 0, 10, sub), "Sub") +
                       named(clip("<file id=\"av\"/>", 30, 40, 0, 10, sub), "Sub")),
                 track(clip(a, 0, 10, 0, 10))));
    ASSERT_TRUE(seq);

    // One shot per file: picture at 0, sound from 1, even without picture.
    ASSERT_EQ(reader.shots().size(), 2u);
    CED2* av = reader.shots().firstRecord();
    EXPECT_EQ(av->GetNumVideoChannels(), 1);
    EXPECT_EQ(av->GetNumAudioChannels(), 2);
    EXPECT_EQ(av->originLocator, L"file://localhost/media/av.mov");
    XML::RefIdMap::RefIdMapRec rec;
    EXPECT_TRUE(reader.clipRefs.findRef("av$2$", rec));
    EXPECT_EQ(rec.chanIndex, 2u);
    CED2* snd = static_cast<CED2*>(av->getNext());
    EXPECT_EQ(snd->GetNumVideoChannels(), 0);
    EXPECT_EQ(snd->firstChannel()->index, 1u);
    EXPECT_TRUE(reader.clipRefs.findRef("snd$0$", rec)) << "the shot itself";

    // Markers are added at every visit of an item: twice for one on a track.
    EXPECT_EQ(av->cues.size(), 2u);
    EXPECT_EQ(av->cues[0].out, kCueOpenEnd);

    // Two uses of a sub-clip of one name share a ghost, which takes the
    // shot's further channels as audio.
    ASSERT_EQ(reader.ghosts().size(), 1u);
    CED2* ghost = reader.ghosts().firstRecord();
    EXPECT_EQ(ghost->editName, L"Sub");
    EXPECT_EQ(ghost->channels.size(), 3u);
    EXPECT_EQ(ghost->firstChannel()->firstCel()->refId.str(), "av$0$");
    EXPECT_DOUBLE_EQ(ghost->firstChannel()->firstCel()->sourceIn, 4.0);
    EXPECT_TRUE(reader.ghostRefs.findRef("Sub$2$", rec));
    EXPECT_TRUE(ghost->primaryLabel.is_valid()) << "the master's label, moved to its in point";
    std::vector<Cel> c = celsOf(seq->firstChannel());
    EXPECT_EQ(c[2].ref, "Sub$0$");
    EXPECT_TRUE(
        static_cast<CED2Cell*>(seq->firstChannel()->cels.first())->next()->next()->refIsGhost);
}

TEST_F(FCP5Reader, WhatIsMissingBecomesDefaultsAndWarnings) {
    // A file without a duration can't be used: its uses play black, with a
    // warning.
    std::string noLength = "<file id=\"x\"><name>x.jpg</name><media><video/></media></file>";
    CED2* seq = readOne(sequence(track(clip(noLength, 0, 10, 0, 10))));
    ASSERT_TRUE(seq);
    EXPECT_TRUE(sink->contains("Badly defined clip - name <> XML reference <x$0$>"));
    EXPECT_TRUE(reader.shots().isEmpty());

    // Names and lengths are asked for at any depth: a sequence without its
    // own is named "NoName" only when nothing inside it has a name. Without
    // a duration, an empty track is one second of black.
    Reader bare(capturingLog());
    ASSERT_EQ(bare.parse("<xmeml version=\"1\"><sequence><rate><timebase>25</timebase></rate>"
                         "<media><video><track/></video></media></sequence></xmeml>"),
              1);
    CED2* empty = bare.sequences().firstRecord();
    EXPECT_EQ(empty->editName, L"NoName");
    std::vector<Cel> black = celsOf(channel(empty, 0));
    ASSERT_EQ(black.size(), 1u);
    EXPECT_DOUBLE_EQ(black[0].out, 25);
    EXPECT_EQ(channel(empty, 0)->firstCel()->cookie, video_black);
}

TEST_F(FCP5Reader, SequenceTimecodes) {
    std::string tc = [](const char* source) {
        return std::string(
                   "<timecode><rate><timebase>30</timebase><ntsc>TRUE</ntsc></rate>"
                   "<string>01:00:00;00</string><frame>107892</frame>") +
               source + "<displayformat>DF</displayformat></timecode>";
    }("");
    CED2* seq = readOne(
        "<xmeml version=\"5\"><sequence><name>S</name><duration>30</duration>"
        "<rate><timebase>30</timebase><ntsc>TRUE</ntsc></rate>" +
        tc + "</sequence></xmeml>");
    ASSERT_EQ(seq->labelCount, 1);
    EXPECT_EQ(seq->labels[0].get_string(0).str(), "01:00:00;00");
    EXPECT_EQ(seq->labels[0].get_MediumRoll().roll, 1);

    Reader other(capturingLog());
    std::string dest = tc;
    dest.insert(dest.find("<displayformat>"), "<source>destination</source>");
    ASSERT_EQ(other.parse("<xmeml version=\"5\"><sequence><rate><timebase>30</timebase></rate>" +
                          dest + "</sequence></xmeml>"),
              1);
    EXPECT_EQ(other.sequences().firstRecord()->labelCount, 0) << "only a source timecode counts";
}

TEST_F(FCP5Reader, ABinOfClipsMakesShotsAndTakesItsRateFromTheFirst) {
    std::string doc =
        "<xmeml version=\"4\"><project><children><clip><name>A</name>"
        "<rate><timebase>30</timebase><ntsc>TRUE</ntsc></rate><clipitem>"
        "<name>A</name>" +
        file("a", 300) +
        "</clipitem><marker><name>bin</name><in>3</in></marker></clip>"
        "</children></project></xmeml>";
    EXPECT_EQ(reader.parse(doc), 1);
    EXPECT_TRUE(reader.sequences().isEmpty());
    ASSERT_EQ(reader.shots().size(), 1u);
    // The clip's own marker in the master pass, none from the item passes.
    EXPECT_EQ(reader.shots().firstRecord()->cues.size(), 1u);
    EXPECT_DOUBLE_EQ(reader.getSecondsPerTick(), 1.0 / 30);
    XMLParser parser(doc.c_str(), -1);
    EXPECT_EQ(reader.getxmlFrameRate(parser), Qv::eFrameRate29_97);
}

// The reader through the whole import: references resolved to the shots'
// material, and what resolves to nothing played as black.
TEST_F(FCP5Reader, ImportsThroughThePipeline) {
    qvtest::TempDir dir;
    std::string f = file("f", 1000, 1);
    qvtest::writeFile(dir.file("cut.xml"),
                      "\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!DOCTYPE xmeml>\n" +
                          sequence(track(clip(f, 0, 10, 0, 10) + clip("<file/>", 10, 20, 0, 10)),
                                   track(clip(f, 0, 10, 0, 10))));
    ImportFileList files;
    files.push_back(Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({dir.wpath() + L"/cut.xml"})));
    XML::ImportResult r = XML::XMLImportFiles(files, capturingLog());
    ASSERT_EQ(r.status, 1);
    ASSERT_EQ(r.edits.size(), 1u);
    Qv::Ptr<Edit> seq = r.edits[0].ptr();
    EXPECT_EQ(seq->frameRate, Qv::eFrameRate25);
    const CelData& a = seq->channels[0].cels[0];
    Qv::Ptr<Edit> shot = store.find(a.cookie);
    ASSERT_TRUE(shot);
    EXPECT_TRUE(shot->isOffline());
    EXPECT_EQ(a.cookie.type, kCookieVideo);
    EXPECT_EQ(seq->channels[1].cels[0].cookie.type, kCookieSound);
    EXPECT_EQ(seq->channels[1].cels[0].cookie.channel, 1);
    EXPECT_EQ(seq->channels[0].cels[1].cookie, video_black) << "a file without an id";
    // Its timecode is kept, and its rate is that timecode's.
    ASSERT_EQ(shot->labels.size(), 1u);
    EXPECT_EQ(shot->labels[0].get_string(0).str(), "01:00:00:00");
    EXPECT_DOUBLE_EQ(shot->rate, 25.0);
    EXPECT_DOUBLE_EQ(shot->getEndTime(), 40.0);
}

}  // namespace

// ---- How editors and tools write xmeml, read as they meant it ----
//
// Each document of tests/data/xmeml is read through the whole import, by
// default and (where the configuration key switches the reading) by the
// original reading.

namespace {

class EditorsXmeml : public qvtest::StoreTest {
  protected:
    // Imports tests/data/xmeml/NAME; the sequences made, by name.
    void import(const char* name, bool legacy = false) {
        if (legacy) set_config_int(XML::kLegacyInterchangeKey, 1);
        sink->lines.clear();
        sink->losses.clear();
        ImportFileList files;
        std::string path = std::string(QVXML_TEST_DATA) + "/xmeml/" + name;
        files.push_back(
            Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({fromUTF8(path.c_str())})));
        result = XML::XMLImportFiles(files, capturingLog());
        ASSERT_EQ(result.status, 1) << name;
    }
    // Imports a document given as text.
    void importText(const std::string& text, bool legacy = false) {
        qvtest::writeFile(dir.file("doc.xml"), text);
        if (legacy) set_config_int(XML::kLegacyInterchangeKey, 1);
        ImportFileList files;
        files.push_back(
            Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({dir.wpath() + L"/doc.xml"})));
        result = XML::XMLImportFiles(files, capturingLog());
        ASSERT_EQ(result.status, 1);
    }
    Qv::Ptr<Edit> sequence(const char* name) const {
        for (const EditModifier& m : result.edits)
            if (Qv::Ptr<Edit> e = m.ptr(); e && e->name == fromUTF8(name)) return e;
        ADD_FAILURE() << "no sequence " << name;
        return Qv::Ptr<Edit>(new Edit(Cookie()));
    }
    // The cel of a channel that covers a sequence frame at `ticks`.
    const CelData& at(const Qv::Ptr<Edit>& seq, unsigned channel, double frame,
                      double ticks = 25) const {
        static const CelData none;
        const StoredChannel* ch = seq->findChannel(channel);
        if (ch)
            for (const CelData& c : ch->cels)
                if (c.editIn * ticks <= frame + 1e-6 && frame + 1e-6 < c.editOut * ticks) return c;
        ADD_FAILURE() << "nothing at frame " << frame << " of channel " << channel;
        return none;
    }
    // The shot a cel plays, or null for black, silence and effects.
    Qv::Ptr<Edit> shotOf(const CelData& cel) const {
        if (!cel.cookie.isValid() || cel.cookie.isMagic()) return nullptr;
        return EditStore::current().find(cel.cookie);
    }
    int warnings(const char* text) const {
        int n = 0;
        for (const auto& l : sink->lines)
            n += l.kind == LogKind::Warning && l.text.str().find(text) != std::string::npos;
        return n;
    }

    XML::ImportResult result;
    qvtest::TempDir dir;
};

TEST_F(EditorsXmeml, ChannelsAreCountedOverEveryStreamOfAFile) {
    import("several_streams.xml");
    Qv::Ptr<Edit> seq = sequence("Streams");
    // V1, then A1 to A3: the second mono stream is channel 2; channel 12 is
    // channel 12.
    for (auto [channel, expected] : {std::pair{1u, 1}, {2u, 2}, {3u, 12}}) {
        const CelData& cel = at(seq, channel, 10);
        EXPECT_EQ(cel.cookie.type, kCookieSound) << channel;
        EXPECT_EQ(cel.cookie.channel, expected) << channel;
        EXPECT_TRUE(shotOf(cel)) << channel;
    }
    EXPECT_TRUE(sink->losses.empty());
}

TEST_F(EditorsXmeml, TheOriginalReadingCountsTheFirstStreamAndOneDigit) {
    import("several_streams.xml", true);
    Qv::Ptr<Edit> seq = sequence("Streams");
    EXPECT_EQ(at(seq, 2, 10).cookie, audio_black) << "the second stream is not there";
    EXPECT_EQ(at(seq, 3, 10).cookie.channel, 1) << "12 is read as 1";
    ASSERT_EQ(sink->losses.size(), 1u);
    EXPECT_EQ(sink->losses[0].kind.str(), "channel-missing");
}

TEST_F(EditorsXmeml, VersionOneCountsTracksAndItsUsesTellTheChannels) {
    import("version1_trackcount.xml");
    Qv::Ptr<Edit> seq = sequence("Version one");
    EXPECT_EQ(at(seq, 1, 0).cookie.channel, 1);
    EXPECT_EQ(at(seq, 2, 0).cookie.channel, 2);
    EXPECT_TRUE(shotOf(at(seq, 2, 0)));

    // `trackcount` is read by the original reading too; the channel it
    // does not count plays silence there.
    resetConfiguration();
    EditStore other;
    ScopedCurrentStore scope(other);
    import("version1_trackcount.xml", true);
    seq = sequence("Version one");
    EXPECT_EQ(at(seq, 1, 0).cookie.channel, 1);
    EXPECT_EQ(at(seq, 2, 0).cookie, audio_black);
}

// After a fade to black nothing starts in the fade: each cue plays from its
// own fade-in, in both spellings. A spelling is read whatever the key says.
TEST_F(EditorsXmeml, FadesToBlackInBothSpellings) {
    for (bool legacy : {false, true}) {
        EditStore project;
        ScopedCurrentStore scope(project);
        import("fades_to_black.xml", legacy);
        Qv::Ptr<Edit> seq = sequence("Fades");
        for (unsigned channel : {0u, 1u}) {
            std::vector<std::tuple<double, double, double, bool>> got;
            for (const CelData& c : seq->findChannel(channel)->cels)
                got.emplace_back(c.editIn * 25, c.editOut * 25, c.sourceIn * 25,
                                 c.cookie.isMagic());
            // cue, fade, black, fade, cue, fade, black, fade, cue, black
            std::vector<std::tuple<double, double, double, bool>> want = {
                {0, 40, 0, false},   {40, 50, 0, true},      {50, 100, 0, true},
                {100, 110, 0, true}, {110, 150, 210, false}, {150, 160, 0, true},
                {160, 200, 0, true}, {200, 210, 0, true},    {210, 260, 410, false},
                {260, 300, 0, true}};
            ASSERT_EQ(got.size(), want.size()) << "channel " << channel << " legacy " << legacy;
            for (std::size_t i = 0; i < want.size(); ++i) {
                EXPECT_NEAR(std::get<0>(got[i]), std::get<0>(want[i]), 1e-6) << i;
                EXPECT_NEAR(std::get<1>(got[i]), std::get<1>(want[i]), 1e-6) << i;
                if (std::get<2>(want[i]) > 0) {
                    EXPECT_NEAR(std::get<2>(got[i]), std::get<2>(want[i]), 1e-6) << i;
                }
                EXPECT_EQ(std::get<3>(got[i]), std::get<3>(want[i])) << i;
            }
        }
    }
}

TEST_F(EditorsXmeml, ANestedSequencePlaysItsEditFromTheRightFrame) {
    import("nested_sequence.xml");
    ASSERT_EQ(result.edits.size(), 2u) << "a use by id is no sequence of its own";
    Qv::Ptr<Edit> outer = sequence("Programme"), inner = sequence("Graded");
    const CelData& first = at(outer, 0, 10);
    EXPECT_EQ(first.cookie.type, kCookieEdit);
    EXPECT_TRUE(first.cookie.sameIdentity(inner->cookie));
    EXPECT_EQ(first.cookie.channel, 0);
    // In point 20 of a sequence at 50: 0.4 seconds into it; 30 frames at 25
    // play 1.2 seconds of it.
    EXPECT_NEAR(first.sourceIn, 0.4, 1e-9);
    EXPECT_NEAR(first.sourceOut, 1.6, 1e-9);
    const CelData& second = at(outer, 0, 50);
    EXPECT_TRUE(second.cookie.sameIdentity(inner->cookie)) << "named by its id alone";
    EXPECT_NEAR(second.sourceIn, 0.0, 1e-9);
    EXPECT_NEAR(second.sourceOut, 0.8, 1e-9);
    // The sound plays the nested sequence's first sound track, its channel 1.
    const CelData& sound = at(outer, 1, 10);
    EXPECT_TRUE(sound.cookie.sameIdentity(inner->cookie));
    EXPECT_EQ(sound.cookie.channel, 1);
    EXPECT_EQ(inner->findChannel(1)->type, kChanAudio);
    EXPECT_DOUBLE_EQ(inner->rate, 50.0);
    EXPECT_TRUE(sink->losses.empty());
}

TEST_F(EditorsXmeml, TheOriginalReadingPlaysTheFirstFileOfANest) {
    import("nested_sequence.xml", true);
    EXPECT_EQ(result.edits.size(), 4u) << "and a nameless edit for each use by id";
    Qv::Ptr<Edit> outer = sequence("Programme");
    Qv::Ptr<Edit> shot = shotOf(at(outer, 0, 10));
    ASSERT_TRUE(shot);
    EXPECT_EQ(shot->name, L"shot.mov");
    EXPECT_EQ(at(outer, 0, 50).cookie, video_black);
    int flat = 0;
    for (const LossRecord& l : sink->losses)
        flat += l.kind == "nested-sequence";
    EXPECT_EQ(flat, 3);
}

TEST_F(EditorsXmeml, AFileWithoutALengthIsAsLongAsItsUsesNeed) {
    import("file_without_duration.xml");
    Qv::Ptr<Edit> seq = sequence("Auto-Editor Media Group");
    for (unsigned channel : {0u, 1u})
        for (double frame : {0.0, 60.0})
            EXPECT_TRUE(shotOf(at(seq, channel, frame))) << frame;
    Qv::Ptr<Edit> shot = shotOf(at(seq, 0, 60));
    ASSERT_TRUE(shot);
    EXPECT_NEAR(shot->getEndTime(), 430 / 25.0, 1e-9);
    EXPECT_NEAR(at(seq, 0, 60).sourceIn, 400 / 25.0, 1e-9);
    EXPECT_EQ(warnings("Badly defined clip"), 0);

    resetConfiguration();
    EditStore other;
    ScopedCurrentStore scope(other);
    import("file_without_duration.xml", true);
    EXPECT_EQ(at(sequence("Auto-Editor Media Group"), 0, 0).cookie, video_black);
    EXPECT_EQ(warnings("Badly defined clip - name <> XML reference <file-1$0$>"), 1);
}

TEST_F(EditorsXmeml, AClipItemThatCarriesOnlyItsIdIsTheItemOfThatId) {
    import("bare_clip_items.xml");
    Qv::Ptr<Edit> seq = sequence("jumps");
    Qv::Ptr<Edit> shot = shotOf(at(seq, 0, 0, 30));
    ASSERT_TRUE(shot);
    EXPECT_EQ(shot->findChannel(0)->type, kChanVideo) << "its picture, from <video/>";
    for (double frame : {0.0, 40.0}) {
        const CelData& sound = at(seq, 1, frame, 30);
        EXPECT_TRUE(sound.cookie.sameIdentity(shot->cookie)) << frame;
        EXPECT_EQ(sound.cookie.channel, 1) << frame;
    }
    EXPECT_EQ(seq->findChannel(1)->cels.size(), 2u);

    resetConfiguration();
    EditStore other;
    ScopedCurrentStore scope(other);
    import("bare_clip_items.xml", true);
    const StoredChannel* sound = sequence("jumps")->findChannel(1);
    ASSERT_EQ(sound->cels.size(), 1u) << "one gap";
    EXPECT_EQ(sound->cels[0].cookie, audio_black);
    ASSERT_EQ(sink->losses.size(), 2u);
    EXPECT_EQ(sink->losses[0].kind.str(), "bare-reference");
}

TEST_F(EditorsXmeml, RatesTheEditorDoesNotKnowKeepTheirCounts) {
    import("unknown_rates.xml");
    Qv::Ptr<Edit> seq = sequence("Phone");
    EXPECT_EQ(seq->frameRate, Qv::eFrameRate30);
    EXPECT_DOUBLE_EQ(seq->rate, 34.0);
    const CelData& cel = seq->channels[0].cels[0];
    EXPECT_DOUBLE_EQ(cel.editOut, 2.0) << "68 frames at 34";
    EXPECT_DOUBLE_EQ(cel.sourceIn, 1.0);
    Qv::Ptr<Edit> shot = shotOf(cel);
    ASSERT_TRUE(shot);
    EXPECT_DOUBLE_EQ(shot->rate, 23.0);
    EXPECT_NEAR(shot->getEndTime(), 10.0, 1e-9) << "230 frames at 23";
    EXPECT_EQ(warnings("Timebase 34 is not a rate"), 1);
    EXPECT_EQ(warnings("Timebase 23 is not a rate"), 1);

    resetConfiguration();
    EditStore other;
    ScopedCurrentStore scope(other);
    import("unknown_rates.xml", true);
    EXPECT_FALSE(std::isfinite(sequence("Phone")->channels[0].cels[0].editOut))
        << "the original reading has no time for such a rate";
}

TEST_F(EditorsXmeml, ASequenceIsAsLongAsWhatItHolds) {
    import("short_duration.xml");
    EXPECT_DOUBLE_EQ(sequence("Short")->getEndTime(), 4.0);
    const StoredChannel& sound = sequence("Zero")->channels[0];
    ASSERT_EQ(sound.levels.size(), 2u);
    EXPECT_DOUBLE_EQ(sound.levels[0].position, 0.0);
    EXPECT_DOUBLE_EQ(sound.levels[1].position, 0.5);

    resetConfiguration();
    EditStore other;
    ScopedCurrentStore scope(other);
    import("short_duration.xml", true);
    EXPECT_DOUBLE_EQ(sequence("Short")->getEndTime(), 3 / 25.0) << "cut at its duration";
    const StoredChannel& lost = sequence("Zero")->channels[0];
    ASSERT_EQ(lost.levels.size(), 2u);
    EXPECT_FALSE(std::isfinite(lost.levels[1].position)) << "levels at no finite place";
}

TEST_F(EditorsXmeml, AMasterClipBringsItsLog) {
    import("master_clip_log.xml");
    ASSERT_EQ(store.edits().size(), 1u);
    Qv::Ptr<Edit> shot = store.edits().front();
    EXPECT_EQ(shot->getConfig("scene").str(), "12");
    EXPECT_EQ(shot->getConfig("shot").str(), "3");
    EXPECT_EQ(shot->getConfig("notes").str(), "Good for the opening");
    EXPECT_EQ(shot->getConfig("description").str(), "Wide, the garden at dusk");

    resetConfiguration();
    EditStore other;
    ScopedCurrentStore scope(other);
    import("master_clip_log.xml", true);
    EXPECT_TRUE(other.edits().front()->getConfig("scene").empty());
}

// A clip that runs into a transition meets the transition beside it in the
// document: not the last one the track passed (a dissolve that ends a clip
// with nothing after it, as Final Cut Pro's version 1 writes), not one that
// leads into a generator, and not a fade inside a sequence the clip item
// holds.
TEST_F(EditorsXmeml, ClipsMeetTheTransitionsBesideThem) {
    std::string file =
        "<file id=\"f\"><name>f.mov</name><rate><timebase>25</timebase></rate>"
        "<duration>1000</duration><media><video><duration>1000</duration></video></media></file>";
    auto clip = [](const char* id, int start, int end, const std::string& inside) {
        return std::string("<clipitem id=\"") + id + "\"><name>" + id +
               "</name><rate><timebase>25</timebase></rate><start>" + std::to_string(start) +
               "</start><end>" + std::to_string(end) + "</end><in>100</in><out>200</out>" + inside +
               "</clipitem>";
    };
    auto fade = [](int start, int end, const char* alignment) {
        return "<transitionitem><start>" + std::to_string(start) + "</start><end>" +
               std::to_string(end) + "</end><alignment>" + alignment +
               "</alignment><effect><effectcategory>Dissolve</effectcategory>"
               "<effecttype>transition</effecttype></effect></transitionitem>";
    };
    std::string nested =
        "<sequence id=\"inner\"><name>Inner</name><duration>50</duration>"
        "<rate><timebase>25</timebase></rate><media><video><track>" +
        fade(0, 10, "start-black") + clip("inner-1", -1, 50, "<file id=\"f\"/>") +
        "</track></video></media></sequence>";
    std::string doc =
        "<xmeml version=\"4\"><sequence><name>Cut</name><duration>400</duration>"
        "<rate><timebase>25</timebase></rate><media><video><track>" +
        clip("a", 0, -1, file) + fade(40, 50, "center") + fade(100, 110, "start-black") +
        clip("b", -1, -1, "<file id=\"f\"/>") + fade(150, 160, "end-black") +
        fade(200, 210, "start-black") +
        "<generatoritem id=\"g\"><name>Matte</name><start>-1</start><end>240</end>"
        "</generatoritem>" +
        fade(300, 310, "start-black") + clip("c", -1, -1, "<file id=\"f\"/>") +
        fade(340, 350, "end-black") + clip("d", 360, 380, nested) +
        "</track></video></media></sequence></xmeml>";

    importText(doc);
    Qv::Ptr<Edit> seq = sequence("Cut");
    EXPECT_TRUE(shotOf(at(seq, 0, 120)));
    EXPECT_NEAR(at(seq, 0, 120).editIn * 25, 110, 1e-6) << "b starts in its own fade";
    EXPECT_EQ(at(seq, 0, 70).cookie, video_black);
    EXPECT_EQ(at(seq, 0, 220).cookie, video_black) << "the generator holds its place";
    EXPECT_TRUE(shotOf(at(seq, 0, 320)));
    EXPECT_NEAR(at(seq, 0, 320).editIn * 25, 310, 1e-6) << "c starts in its own fade";
    EXPECT_TRUE(at(seq, 0, 370).cookie.sameIdentity(sequence("Inner")->cookie))
        << "a clip item holding a fade inside its sequence is no transition";

    // The original reading takes b for the clip of the dissolve at 40 and c
    // for that of b's fade, passes the generator over, and takes the clip
    // item that holds a fade for a transition.
    resetConfiguration();
    EditStore other;
    ScopedCurrentStore scope(other);
    importText(doc, true);
    seq = sequence("Cut");
    EXPECT_NEAR(at(seq, 0, 60).editIn * 25, 50, 1e-6);
    EXPECT_TRUE(shotOf(at(seq, 0, 60)));
    EXPECT_TRUE(shotOf(at(seq, 0, 120)));
    EXPECT_EQ(at(seq, 0, 320).cookie, video_black);
    EXPECT_EQ(at(seq, 0, 370).cookie, video_dissolve);
}

}  // namespace

// Final Cut Pro's version 1 writes the end of a clip that runs into a
// transition as a frame before its start: the transition after it says where
// it ends. Such a clip with no transition after it has no place, and says so.
TEST_F(EditorsXmeml, AnEndBeforeTheStartRunsIntoTheTransitionAfterIt) {
    auto clip = [](const char* id, int start, int end, const char* inside) {
        return std::string("<clipitem id=\"") + id + "\"><name>" + id + "</name><start>" +
               std::to_string(start) + "</start><end>" + std::to_string(end) +
               "</end><in>17</in><out>3</out>" + inside + "</clipitem>";
    };
    std::string doc =
        "<xmeml version=\"1\"><sequence><name>Cut</name><duration>300</duration>"
        "<rate><timebase>25</timebase></rate><media><video><track>" +
        clip("a", 20, 5,
             "<file id=\"f\"><name>f.mov</name><rate><timebase>25</timebase></rate>"
             "<duration>1000</duration><media><video/></media></file>") +
        "<transitionitem><start>40</start><end>42</end><alignment>center</alignment>"
        "<effect><effectcategory>Dissolve</effectcategory><effecttype>transition</effecttype>"
        "</effect></transitionitem>" +
        clip("b", -1, 80, "<file id=\"f\"/>") + clip("z", 200, 150, "<file id=\"f\"/>") +
        "</track></video></media></sequence></xmeml>";
    importText(doc);
    Qv::Ptr<Edit> seq = sequence("Cut");
    EXPECT_TRUE(shotOf(at(seq, 0, 30)));
    EXPECT_NEAR(at(seq, 0, 30).editOut * 25, 40, 1e-6);
    EXPECT_EQ(at(seq, 0, 41).cookie, video_dissolve);
    EXPECT_EQ(at(seq, 0, 190).cookie, video_black);
    int notPlaced = 0;
    for (const LossRecord& l : sink->losses)
        notPlaced += l.kind == "clip-not-placed" && l.frame == 200;
    EXPECT_EQ(notPlaced, 1);
}
