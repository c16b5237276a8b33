// The timeline that the native format's tests export and read back: shots
// at two rates, a sub-clip, and a sequence with dissolves, a wipe, black,
// speed changes, levels and track levels.
#pragma once

#include "tests/support/TestSupport.h"

namespace qvtest {

struct NativeTimeline {
    Qv::Ptr<Edit> shotA, shotB, sub, seq;
};

inline NativeTimeline buildNativeTimeline(EditStore& store) {
    NativeTimeline t;
    t.shotA = addShot(store, L"Shot A", 25, 20,
                      {{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}},
                      L"/media/day 1/A.mov");
    t.shotA->videoReelId = "A001";
    t.shotA->setConfig("scene", "1");
    t.shotA->setConfig("notes", "n\u00f8tes");
    t.shotA->labels.push_back(
        editLabFrom("10:00:00:00", Qv::Image::eScanProgressive, Qv::eFrameRate25, false));
    t.shotB =
        addShot(store, L"Shot B", 30000.0 / 1001.0, 10, {{kChanVideo, "V1"}}, L"/media/B.mov");
    t.shotB->historicLocator = L"/old/B.mov";
    t.sub = addSubclip(store, L"Sub of B", t.shotB, 2, 4);

    t.seq = addSequence(store, L"Cut \u00f8", Qv::eFrameRate25,
                        {{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}});
    t.seq->labels.push_back(
        editLabFrom("01:00:00:00", Qv::Image::eScanProgressive, Qv::eFrameRate25, false));
    t.seq->cues.push_back(
        Ced2Cue(L"marker", L"not carried", 0xFF0000, 1, kChanVideo, 0, kCueOpenEnd));
    addCel(t.seq, 0, playCookie(t.shotA, 0), 0, 4, 10);
    addCel(t.seq, 0, video_dissolve, 4, 4.4, 0);
    addCel(t.seq, 0, playCookie(t.shotB, 0), 4.4, 8, 1, 1.5f);
    CelData& wipe = addCel(t.seq, 0, video_wipe, 8, 8.5, 0);
    wipe.wipeCode = 12;
    wipe.wipeDirection = eWipeReverse;
    addCel(t.seq, 0, playCookie(t.sub, 0), 8.5, 10, 0);
    addCel(t.seq, 0, video_black, 10, 11, 0);
    addCel(t.seq, 0, playCookie(t.shotA, 0), 11, 12, 15, -1.0f);
    addCel(t.seq, 1, playCookie(t.shotA, 1), 0, 8, 10).level = 0.5f;
    addCel(t.seq, 1, audio_black, 8, 9, 0);
    addCel(t.seq, 1, playCookie(t.shotA, 1), 9, 12, 2).level = 1.00001f;
    addCel(t.seq, 2, playCookie(t.shotA, 2), 0, 12, 10);
    t.seq->channels[2].hasTrackLevels = true;
    t.seq->channels[2].levels = {{0.0, 1.0f}, {0.5, 0.25f}, {1.0, 1.0f}};
    return t;
}

}  // namespace qvtest
