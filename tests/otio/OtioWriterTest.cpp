// Timelines of the store written as OpenTimelineIO, and read back: how cels,
// transitions, speeds, markers, media, sub-clips and nested sequences cross,
// and that what OpenTimelineIO has no field for comes back from the "qvxml"
// namespace.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <limits>

#include <nlohmann/json.hpp>

#include "otio/OtioWriter.h"
#include "tests/import/ReaderTestSupport.h"
#include "tests/otio/OtioTestSupport.h"
#include "tests/support/TestSupport.h"

namespace {

using json = nlohmann::json;
using qvtest::addCel;
using qvtest::playCookie;

long frames(double t, double ticks = 25) {
    return std::lround(t * ticks);
}

class OtioWriter : public qvtest::StoreTest {
  protected:
    json write(const Qv::Ptr<Edit>& edit) { return json::parse(qvotio::otioText(edit->cookie)); }
    // The document, with the run's warnings and losses kept.
    std::string writeLogged(const Qv::Ptr<Edit>& edit) {
        std::string text;
        EXPECT_EQ(QvOtio::writeOtio(edit->cookie, QvOtio::ExportOptions(), capturingLog(), text),
                  1);
        return text;
    }

    // The items of the document's k-th track.
    static const json& items(const json& doc, size_t k) {
        return doc["tracks"]["children"][k]["children"];
    }

    // Writes the edit and reads the document into a project of its own; the
    // sequence it made, or null.
    Qv::Ptr<Edit> roundTrip(const Qv::Ptr<Edit>& edit, const std::string& name = "cut.otio") {
        std::string path = dir.file(name);
        qvtest::writeFile(path, qvotio::otioText(edit->cookie));
        ScopedCurrentStore scope(back);
        XML::ImportResult r = qvotio::importOtio(path, capturingLog());
        EXPECT_EQ(r.status, 1);
        return r.edits.empty() ? nullptr : r.edits[0].ptr();
    }
    Qv::Ptr<Edit> playedBack(const CelData& cel) { return back.find(cel.cookie); }

    qvtest::TempDir dir;
    EditStore back{7};
};

// The cels of a channel as they came back must be those that went out, to
// the frame, playing edits of the same names.
void expectSameCels(const std::vector<CelData>& out, const std::vector<CelData>& in,
                    const EditStore& outStore, const EditStore& inStore) {
    ASSERT_EQ(in.size(), out.size());
    for (size_t i = 0; i < out.size(); ++i) {
        SCOPED_TRACE("cel " + std::to_string(i));
        EXPECT_EQ(frames(in[i].editIn), frames(out[i].editIn));
        EXPECT_EQ(frames(in[i].editOut), frames(out[i].editOut));
        EXPECT_EQ(in[i].cookie.isMagic(), out[i].cookie.isMagic());
        if (out[i].cookie.isMagic()) {
            EXPECT_EQ(in[i].cookie, out[i].cookie);
            EXPECT_EQ(in[i].wipeCode, out[i].wipeCode);
            EXPECT_EQ(in[i].wipeDirection, out[i].wipeDirection);
            continue;
        }
        EXPECT_EQ(frames(in[i].sourceIn), frames(out[i].sourceIn));
        EXPECT_EQ(in[i].speed, out[i].speed);
        EXPECT_EQ(in[i].level, out[i].level);
        EXPECT_EQ(in[i].levelEnd, out[i].levelEnd);
        EXPECT_EQ(in[i].cookie.channel, out[i].cookie.channel);
        Qv::Ptr<Edit> a = outStore.find(out[i].cookie), b = inStore.find(in[i].cookie);
        ASSERT_TRUE(a && b);
        EXPECT_EQ(b->name, a->name);
    }
}

TEST_F(OtioWriter, TransitionsStraddleTheirCutsAndComeBackAsCels) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 100, {{kChanVideo, "V1"}});
    Qv::Ptr<Edit> b = qvtest::addShot(store, L"B", 25, 100, {{kChanVideo, "V1"}});
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(seq, 0, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 0, video_dissolve, 4, 4.4, 0);  // between two clips: its middle
    addCel(seq, 0, playCookie(b, 0), 4.4, 8, 20);
    addCel(seq, 0, video_black, 8, 9, 0);
    CelData& wipe = addCel(seq, 0, video_wipe, 9, 9.2, 0);  // after black: its start
    wipe.wipeCode = 7;
    wipe.wipeDirection = eWipeReverse;
    addCel(seq, 0, playCookie(a, 0), 9.2, 10, 50);
    addCel(seq, 0, video_dissolve, 10, 10.12, 0);  // at the end: its end

    json doc = write(seq);
    const json& v = items(doc, 0);
    ASSERT_EQ(v.size(), 7u);
    auto range = [&](size_t i) {
        const json& r = v[i]["source_range"];
        return std::make_pair(r["start_time"]["value"].get<double>(),
                              r["duration"]["value"].get<double>());
    };
    auto offsets = [&](size_t i) {
        return std::make_pair(v[i]["in_offset"]["value"].get<double>(),
                              v[i]["out_offset"]["value"].get<double>());
    };
    EXPECT_EQ(range(0), std::make_pair(250.0, 105.0));  // A runs on to the cut
    EXPECT_EQ(offsets(1), std::make_pair(5.0, 5.0));
    EXPECT_EQ(v[1]["transition_type"], "SMPTE_Dissolve");
    EXPECT_EQ(range(2), std::make_pair(495.0, 95.0));  // B starts at the cut
    EXPECT_EQ(v[3]["OTIO_SCHEMA"], "Gap.1");
    EXPECT_EQ(range(3).second, 25.0);
    EXPECT_EQ(offsets(4), std::make_pair(0.0, 5.0));
    EXPECT_EQ(v[4]["transition_type"], "Custom_Transition");
    EXPECT_EQ(v[4]["metadata"]["qvxml"]["wipe"], json::parse(R"({"code": 7, "direction": 1})"));
    EXPECT_EQ(range(5), std::make_pair(1245.0, 28.0));
    EXPECT_EQ(offsets(6), std::make_pair(3.0, 0.0)) << "the track ends in the transition";

    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    expectSameCels(seq->channels[0].cels, again->channels[0].cels, store, back);
}

TEST_F(OtioWriter, TransitionsSideBySideAreKeptApartByAnEmptyGap) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 100, {{kChanAudio, "A1"}});
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25, {{kChanAudio, "A1"}});
    addCel(seq, 0, playCookie(a, 0), 0, 2, 0);
    addCel(seq, 0, audio_dissolve, 2, 2.4, 0);
    addCel(seq, 0, audio_dissolve, 2.4, 2.6, 0);
    addCel(seq, 0, playCookie(a, 0), 2.6, 4, 10);

    const json v = items(write(seq), 0);
    ASSERT_EQ(v.size(), 5u);
    EXPECT_EQ(v[1]["name"], "Cross Fade");
    EXPECT_EQ(v[1]["out_offset"]["value"], 0.0);
    EXPECT_EQ(v[2]["OTIO_SCHEMA"], "Gap.1");
    EXPECT_EQ(v[3]["in_offset"]["value"], 0.0);
    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    expectSameCels(seq->channels[0].cels, again->channels[0].cels, store, back);
}

TEST_F(OtioWriter, TracksAreStackedAsOpenTimelineIOStacksThem) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 10);
    Qv::Ptr<Edit> seq = qvtest::addSequence(
        store, L"Cut", Qv::eFrameRate25,
        {{kChanVideo, "top"}, {kChanVideo, "bottom"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}});
    for (unsigned c = 0; c < 4; ++c)
        addCel(seq, c, playCookie(a, c < 2 ? 0 : 1), 0, c + 1, c);
    json doc = write(seq);
    const json& tracks = doc["tracks"]["children"];
    ASSERT_EQ(tracks.size(), 4u);
    // The first track is the lowest: the last video channel.
    EXPECT_EQ(tracks[0]["name"], "bottom");
    EXPECT_EQ(tracks[1]["name"], "top");
    EXPECT_EQ(tracks[2]["name"], "A1");
    EXPECT_EQ(tracks[2]["kind"], "Audio");
    EXPECT_EQ(tracks[0]["metadata"]["qvxml"]["index"], 1);
    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    ASSERT_EQ(again->channels.size(), 4u);
    for (unsigned c = 0; c < 4; ++c) {
        EXPECT_EQ(again->channels[c].name, seq->channels[c].name);
        EXPECT_EQ(again->channels[c].index, c);
        expectSameCels(seq->channels[c].cels, again->channels[c].cels, store, back);
    }
}

TEST_F(OtioWriter, SpeedsStillsAndReversePlayAreTimeEffects) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 100, {{kChanVideo, "V1"}});
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(seq, 0, playCookie(a, 0), 0, 2, 10, 0.5f);
    addCel(seq, 0, video_dissolve, 2, 2.4, 0);
    addCel(seq, 0, playCookie(a, 0), 2.4, 4, 30, 0.0f);
    addCel(seq, 0, playCookie(a, 0), 4, 6, 40, -1.0f);
    const json v = items(write(seq), 0);
    ASSERT_EQ(v.size(), 4u);
    EXPECT_EQ(v[0]["effects"][0]["OTIO_SCHEMA"], "LinearTimeWarp.1");
    EXPECT_EQ(v[0]["effects"][0]["time_scalar"], 0.5);
    // The still shows one frame: the transition before it takes nothing of
    // its source.
    EXPECT_EQ(v[2]["effects"][0]["OTIO_SCHEMA"], "FreezeFrame.1");
    EXPECT_EQ(v[2]["source_range"]["start_time"]["value"], 750.0);
    EXPECT_EQ(v[3]["effects"][0]["time_scalar"], -1.0);
    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    expectSameCels(seq->channels[0].cels, again->channels[0].cels, store, back);
}

TEST_F(OtioWriter, MarkersKeepTheirColoursRangesAndOwners) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 100, {{kChanVideo, "V1"}});
    a->cues.push_back(Ced2Cue(L"take", L"good", 0x00FF00, 2, kChanVideo, 0, kCueOpenEnd));
    a->labels.push_back(EditLabel::fromFrame(250000, Qv::eFrameRate25, false, 103));
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(seq, 0, playCookie(a, 0), 0, 4, 10);
    addCel(seq, 0, playCookie(a, 0), 4, 8, 20);
    seq->cues = {Ced2Cue(L"red", L"", 0xFF0000, 1, kChanVideo, 0, kCueOpenEnd),
                 Ced2Cue(L"odd", L"a comment", 0x123456, 2, kChanAudio, 3, 2.4),
                 Ced2Cue(L"point", L"", 0xFFFFFF, 3, kChanVideo, 0, 3)};
    json doc = write(seq);
    const json& markers = doc["tracks"]["markers"];
    ASSERT_EQ(markers.size(), 3u);
    EXPECT_EQ(markers[0]["color"], "RED");
    EXPECT_EQ(markers[0]["metadata"], json::object()) << "an exact colour needs no note";
    EXPECT_EQ(markers[1]["color"], "BLACK") << "the nearest";
    EXPECT_EQ(markers[1]["metadata"]["qvxml"]["colour"], "#123456");
    EXPECT_EQ(markers[1]["marked_range"]["duration"]["value"], 10.0);
    EXPECT_EQ(markers[2]["metadata"]["qvxml"]["closed"], true);
    // The shot's cue is a marker of every clip of it, in the media's time.
    const json& v = items(doc, 0);
    ASSERT_EQ(v[1]["markers"].size(), 1u);
    EXPECT_EQ(v[1]["markers"][0]["marked_range"]["start_time"]["value"], 250050.0);

    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    ASSERT_EQ(again->cues.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        const Ced2Cue &x = seq->cues[i], &y = again->cues[i];
        EXPECT_EQ(y.name, x.name);
        EXPECT_EQ(y.comment, x.comment);
        EXPECT_EQ(y.colour, x.colour);
        EXPECT_EQ(frames(y.in), frames(x.in));
        EXPECT_EQ(y.out >= kCueOpenEnd, x.out >= kCueOpenEnd);
        if (x.out < kCueOpenEnd) {
            EXPECT_EQ(frames(y.out), frames(x.out));
        }
        EXPECT_EQ(y.type, x.type);
        EXPECT_EQ(y.flags, x.flags);
    }
    Qv::Ptr<Edit> shot = playedBack(again->channels[0].cels[0]);
    ASSERT_TRUE(shot);
    ASSERT_EQ(shot->cues.size(), 1u) << "one cue, though two clips carry it";
    EXPECT_EQ(shot->cues[0], a->cues[0]);
    ASSERT_EQ(shot->labels.size(), 1u);
    EXPECT_TRUE(shot->labels[0] == a->labels[0]);
}

TEST_F(OtioWriter, MediaIsExternalWhenThereAndMissingWhenOffline) {
    std::string clip = qvtest::mediaDir() + "/clip.mov";
    Qv::Ptr<Edit> online = qvtest::addShot(store, L"On", 29.97002997002997, 1, {{kChanVideo, "V1"}},
                                           fromUTF8(clip.c_str()).c_str());
    Qv::Ptr<Edit> offline = qvtest::addShot(store, L"Off", 29.97002997002997, 1, {{kChanVideo}});
    offline->historicLocator = L"/Volumes/Gone/off.mov";
    offline->videoReelId = "R7";
    Qv::Ptr<Edit> seq =
        qvtest::addSequence(store, L"NTSC", Qv::eFrameRate29_97, {{kChanVideo, "V1"}});
    seq->labels.push_back(
        editLabFrom("01:00:00;00", Qv::Image::eScanProgressive, Qv::eFrameRate29_97, true));
    addCel(seq, 0, playCookie(online, 0), 0, 0.5, 0);
    addCel(seq, 0, playCookie(offline, 0), 0.5, 1, 0);

    std::string text = qvotio::otioText(seq->cookie);
    EXPECT_NE(text.find("\"rate\": 29.97002997002997"), std::string::npos)
        << "NTSC rates as OpenTimelineIO writes them";
    json doc = json::parse(text);
    EXPECT_EQ(doc["global_start_time"]["value"], 107892.0);
    const json& v = items(doc, 0);
    const json& on = v[0]["media_references"]["DEFAULT_MEDIA"];
    EXPECT_EQ(on["OTIO_SCHEMA"], "ExternalReference.1");
    EXPECT_EQ(on["target_url"].get<std::string>().rfind("file://", 0), 0u);
    EXPECT_FALSE(on["metadata"]["qvxml"].contains("videoMetadata"))
        << "media that is there speaks for itself";
    const json& off = v[1]["media_references"]["DEFAULT_MEDIA"];
    EXPECT_EQ(off["OTIO_SCHEMA"], "MissingReference.1");
    EXPECT_FALSE(off.contains("target_url"));
    EXPECT_EQ(off["metadata"]["qvxml"]["locator"], "file://localhost/Volumes/Gone/off.mov");
    EXPECT_EQ(off["metadata"]["qvxml"]["reels"]["video"], "R7");

    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->frameRate, Qv::eFrameRate29_97);
    ASSERT_EQ(again->labels.size(), 1u);
    EXPECT_EQ(again->labels[0].get_string(0).str(), "01:00:00;00");
    Qv::Ptr<Edit> a = playedBack(again->channels[0].cels[0]);
    Qv::Ptr<Edit> b = playedBack(again->channels[0].cels[1]);
    ASSERT_TRUE(a && b);
    EXPECT_FALSE(a->isOffline()) << "the media was found and imported";
    EXPECT_TRUE(b->isOffline());
    EXPECT_EQ(b->historicLocator, L"file://localhost/Volumes/Gone/off.mov");
    EXPECT_EQ(b->videoReelId, "R7");
}

TEST_F(OtioWriter, SubclipsBecomeClipsOfTheirShotAndSequencesNestedStacks) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 100);
    Qv::Ptr<Edit> sub = qvtest::addSubclip(store, L"Sub of A", a, 40, 10);
    Qv::Ptr<Edit> inner =
        qvtest::addSequence(store, L"Inner", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(inner, 0, playCookie(a, 0), 0, 3, 5);
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Outer", Qv::eFrameRate25);
    addCel(seq, 0, playCookie(sub, 0), 0, 2, 1);
    addCel(seq, 0, playCookie(inner, 0), 2, 3, 0.5);
    addCel(seq, 1, playCookie(sub, 1), 0, 2, 1);

    json doc = write(seq);
    const json& v = items(doc, 0);
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(v[0]["OTIO_SCHEMA"], "Clip.2");
    EXPECT_EQ(v[0]["name"], "Sub of A");
    EXPECT_EQ(v[0]["media_references"]["DEFAULT_MEDIA"]["name"], "A");
    EXPECT_EQ(v[0]["source_range"]["start_time"]["value"], 1025.0) << "(40 + 1) x 25";
    EXPECT_EQ(v[1]["OTIO_SCHEMA"], "Stack.1");
    EXPECT_EQ(v[1]["name"], "Inner");
    EXPECT_EQ(v[1]["children"][0]["children"][0]["media_references"]["DEFAULT_MEDIA"]["name"], "A");

    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    Qv::Ptr<Edit> subBack = playedBack(again->channels[0].cels[0]);
    ASSERT_TRUE(subBack);
    EXPECT_EQ(subBack->logType, kLogTypeSubclip);
    EXPECT_EQ(subBack->name, L"Sub of A");
    EXPECT_EQ(playedBack(again->channels[1].cels[0]), subBack) << "one sub-clip for both uses";
    ASSERT_EQ(subBack->channels.size(), 2u);
    EXPECT_EQ(frames(subBack->channels[0].cels[0].sourceIn), 1000);
    EXPECT_EQ(playedBack(subBack->channels[0].cels[0])->name, L"A");
    Qv::Ptr<Edit> innerBack = playedBack(again->channels[0].cels[1]);
    ASSERT_TRUE(innerBack);
    EXPECT_EQ(innerBack->logType, kLogTypeSequence);
    EXPECT_EQ(innerBack->name, L"Inner");
    expectSameCels(inner->channels[0].cels, innerBack->channels[0].cels, store, back);
    expectSameCels(seq->channels[0].cels, again->channels[0].cels, store, back);
}

TEST_F(OtioWriter, TheNamespaceCarriesWhatOpenTimelineIOHasNoFieldFor) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 24, 100);
    a->videoReelId = "A001";
    a->audioReelId = "S001";
    a->setConfig("scene", "12");
    a->setConfig("who", "Ann");
    a->audioSampleRate = 48000;
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate24);
    CelData& cel = addCel(seq, 1, playCookie(a, 1), 0, 2, 1);
    cel.level = 0.5f;
    cel.levelEnd = 0.25f;
    seq->channels[1].hasTrackLevels = true;
    seq->channels[1].levels = {{0.0, 1.0f}, {0.5, 0.125f}};
    seq->channels[1].index = 7;

    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    ASSERT_EQ(again->channels.size(), 2u);
    const StoredChannel& ch = again->channels[1];
    EXPECT_EQ(ch.index, 7u);
    EXPECT_TRUE(ch.hasTrackLevels);
    EXPECT_EQ(ch.levels, seq->channels[1].levels);
    ASSERT_EQ(ch.cels.size(), 1u);
    EXPECT_EQ(ch.cels[0].level, 0.5f);
    EXPECT_EQ(ch.cels[0].levelEnd, 0.25f);
    Qv::Ptr<Edit> shot = playedBack(ch.cels[0]);
    ASSERT_TRUE(shot);
    EXPECT_EQ(shot->videoReelId, "A001");
    EXPECT_EQ(shot->audioReelId, "S001");
    EXPECT_EQ(shot->getConfig("scene"), "12");
    EXPECT_EQ(shot->getConfig("who"), "Ann");
    EXPECT_EQ(shot->audioSampleRate, 48000);
    EXPECT_EQ(shot->rate, 24);
    EXPECT_EQ(shot->channels.size(), 2u) << "the shot's channels, not only those played";
}

TEST_F(OtioWriter, TheAnglesOfAMultiAngleCelAreFurtherMediaReferences) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"Cam A", 25, 100, {{kChanVideo, "V1"}});
    Qv::Ptr<Edit> b = qvtest::addShot(store, L"Cam B", 25, 100, {{kChanVideo, "V1"}});
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Multi", Qv::eFrameRate25, {{kChanVideo}});
    CelData& cel = addCel(seq, 0, playCookie(a, 0), 0, 2, 1);
    cel.alternates = {{playCookie(a, 0), 0}, {playCookie(b, 0), 12}};
    json doc = write(seq);
    const json& clip = items(doc, 0)[0];
    EXPECT_EQ(clip["active_media_reference_key"], "DEFAULT_MEDIA");
    EXPECT_EQ(clip["media_references"]["qvxml_angle_2"]["name"], "Cam B");
    EXPECT_EQ(clip["metadata"]["qvxml"]["alternates"][1]["offset"], 12);

    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    const std::vector<CelAlternate>& angles = again->channels[0].cels[0].alternates;
    ASSERT_EQ(angles.size(), 2u);
    EXPECT_EQ(back.find(angles[0].cookie)->name, L"Cam A");
    EXPECT_EQ(back.find(angles[1].cookie)->name, L"Cam B");
    EXPECT_EQ(angles[1].offset, 12);
    EXPECT_EQ(angles[1].cookie.type, kCookieVideo);
}

TEST_F(OtioWriter, AShotAloneComesBackAsAShot) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"Alone", 25, 2);
    json doc = write(a);
    EXPECT_EQ(doc["metadata"]["qvxml"]["kind"], "shot");
    EXPECT_EQ(doc["tracks"]["children"].size(), 2u);
    EXPECT_FALSE(roundTrip(a)) << "no sequence is made";
    ASSERT_EQ(back.size(), 1u);
    EXPECT_EQ(back.edits()[0]->name, L"Alone");
    EXPECT_NEAR(back.edits()[0]->getEndTime(), 2.0, 1e-9);
}

TEST_F(OtioWriter, AFileThatCannotBeWrittenIsSaidSo) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 2);
    ASSERT_EQ(::mkdir(dir.file("in the way.otio").c_str(), 0755), 0);
    EXPECT_EQ(QvOtio::exportOtio(a->cookie, fromUTF8(dir.file("in the way.otio").c_str()),
                                 QvOtio::ExportOptions(), LoggerHandle()),
              2001);
    EXPECT_EQ(QvOtio::exportOtio(a->cookie, fromUTF8(dir.file("fine.otio").c_str()),
                                 QvOtio::ExportOptions(), LoggerHandle()),
              1);
    EXPECT_TRUE(qvtest::exists(dir.file("fine.otio")));
    Cookie nothing = store.newEditCookie();
    std::string text;
    EXPECT_EQ(QvOtio::writeOtio(nothing, QvOtio::ExportOptions(), LoggerHandle(), text), 3);
}

}  // namespace

// ---- What OpenTimelineIO reads: the default, xml_legacy_interchange at 0 ----

TEST_F(OtioWriter, MediaCountsItsFootagesFramesFromItsTimecode) {
    // 29.97 footage, its timecode 02:48:45;00 drop frame, cut into a 25
    // sequence whose own timecode is the footage's.
    Qv::Ptr<Edit> shot = qvtest::addShot(store, L"JX4A6001.MOV", 30.0, 20, {{kChanVideo, "V1"}});
    shot->labels.push_back(
        editLabFrom("02:48:45;00", Qv::Image::eScanProgressive, Qv::eFrameRate29_97, true));
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    seq->labels.push_back(
        editLabFrom("01:00:00;00", Qv::Image::eScanProgressive, Qv::eFrameRate29_97, true));
    addCel(seq, 0, playCookie(shot, 0), 0, 2, 4);

    json doc = write(seq);
    const json& range = items(doc, 0)[0]["media_references"]["DEFAULT_MEDIA"]["available_range"];
    EXPECT_DOUBLE_EQ(range["start_time"]["rate"].get<double>(), 30000.0 / 1001);
    // The frame that drop-frame timecode names 02:48:45;00.
    std::int64_t frame = 0;
    ASSERT_TRUE(timecodeToFrame("02:48:45;00", 30, true, frame));
    EXPECT_EQ(range["start_time"]["value"].get<double>(), static_cast<double>(frame));
    EXPECT_DOUBLE_EQ(range["duration"]["rate"].get<double>(), 30000.0 / 1001);
    // The sequence's timecode at its own rate, as it reads.
    EXPECT_DOUBLE_EQ(doc["global_start_time"]["rate"].get<double>(), 30000.0 / 1001);
    EXPECT_EQ(doc["global_start_time"]["value"], 107892.0);

    // Written again from what it reads, the document is the same.
    std::string text = qvotio::otioText(seq->cookie);
    Qv::Ptr<Edit> again = roundTrip(seq);
    ASSERT_TRUE(again);
    ScopedCurrentStore scope(back);
    EXPECT_EQ(qvotio::otioText(again->cookie), text);
}

TEST_F(OtioWriter, AClipCutWhereItOverlapsTheOneBeforePlaysOnFromThere) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 30, {{kChanVideo, "V1"}});
    Qv::Ptr<Edit> b = qvtest::addShot(store, L"B", 25, 30, {{kChanVideo, "V1"}});
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    addCel(seq, 0, playCookie(a, 0), 0, 4, 0);
    // B overlaps A by 13 frames: it starts where A ends, 13 frames further
    // into its media than its cel's in-point.
    addCel(seq, 0, playCookie(b, 0), 4 - 13 / 25.0, 8, 10);
    json doc = json::parse(writeLogged(seq));
    const json& clip = items(doc, 0)[1];
    EXPECT_EQ(clip["source_range"]["start_time"]["value"], 250.0 + 13);
    EXPECT_EQ(clip["source_range"]["duration"]["value"], 100.0);
    ASSERT_EQ(sink->losses.size(), 1u);
    EXPECT_EQ(sink->losses[0].kind.str(), "clip-shortened");
}

TEST_F(OtioWriter, NoNumberThatJsonCannotHoldReachesTheFile) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25, 30, {{kChanAudio, "A1"}});
    a->length = std::numeric_limits<double>::infinity();
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"cut", Qv::eFrameRate25, {{kChanAudio, "A1"}});
    addCel(seq, 0, playCookie(a, 0), 0, 4, 2);
    // A track name of bytes that are no UTF-8.
    seq->channels[0].name =
        "A\xff"
        "1";
    seq->channels[0].hasTrackLevels = true;
    seq->channels[0].levels = {
        {0.5, 0.5f}, {std::numeric_limits<double>::infinity(), 1.0f}, {std::nan(""), 1.0f}};
    std::string text = writeLogged(seq);
    for (const char* word : {"NaN", "Infinity", "inf"})
        EXPECT_EQ(text.find(word), std::string::npos) << word;
    json doc = json::parse(text);  // strict JSON: throws on bytes that are no UTF-8
    const json& range = items(doc, 0)[0]["media_references"]["DEFAULT_MEDIA"]["available_range"];
    EXPECT_EQ(range["duration"]["value"], 150.0) << "as far as the cut plays it: 2 s + 4 s";
    EXPECT_EQ(doc["tracks"]["children"][0]["metadata"]["qvxml"]["levels"].size(), 1u);
    EXPECT_EQ(doc["tracks"]["children"][0]["name"],
              "A\xEF\xBF\xBD"
              "1");
    std::vector<std::string> kinds;
    for (const LossRecord& r : sink->losses)
        kinds.push_back(r.kind.str());
    EXPECT_EQ(kinds, (std::vector<std::string>{"length-unknown", "level-unplaced"}));
}
