// The benchmarks' long timelines, built once here for every writer's
// benchmark: shots of 60 s at 25 fps with a video and an audio channel that
// they fill, and a sequence at 25 fps of 2 s cels on V1 and A1 that play them
// in turn. Each benchmark dresses its shots with what its format reads (a
// locator, a picture size, a timecode label).
#pragma once

#include <functional>
#include <vector>

#include "host/Edit.h"

namespace benchsupport {

inline Qv::Ptr<Edit> shot(Cookie id, int number) {
    Qv::Ptr<Edit> e(new Edit(id));
    e->name = L"shot " + Qv::WStringFromInteger(number);
    e->logType = kLogTypeShot;
    e->rate = 25.0;
    e->frameRate = Qv::eFrameRate25;
    e->length = 60;
    e->videoReelId = "A001";
    for (unsigned ch = 0; ch < 2; ++ch) {
        StoredChannel sc;
        sc.index = ch;
        sc.type = ch == 0 ? kChanVideo : kChanAudio;
        sc.name = ch == 0 ? "V1" : "A1";
        CelData cel;
        cel.cookie = convertCookie(id, ch == 0 ? kCookieVideo : kCookieSound,
                                   static_cast<unsigned char>(ch));
        cel.editOut = cel.sourceOut = 60;
        sc.cels.push_back(cel);
        e->channels.push_back(sc);
    }
    return e;
}

inline Qv::Ptr<Edit> sequence(Cookie id) {
    Qv::Ptr<Edit> seq(new Edit(id));
    seq->name = L"long cut";
    seq->logType = kLogTypeSequence;
    seq->frameRate = Qv::eFrameRate25;
    seq->rate = 25;
    return seq;
}

// The cels of a benchmark's sequence: `perChannel` cels of 2 s on V1 and on
// A1, playing the shots in turn from 10 s + (i % 7) into them. Every tenth
// cel of V1 is a dissolve, and of A1 a crossfade where `soundDissolves`;
// `dissolveLength` long, or the whole cel where it is 0.
struct CelPattern {
    int perChannel = 0;
    bool soundDissolves = false;
    double dissolveLength = 0.4;
};

// A store of its own, made current, with `shots` shots (each dressed by
// `dress` with its number) and a sequence that plays them as `pattern` says.
// The sequence is added to the store by the caller, once it has added what
// its format reads.
struct Timeline {
    Timeline(int shots, const std::function<void(Edit&, int)>& dress, const CelPattern& pattern)
        : scope(store) {
        std::vector<Cookie> shotCookies;
        for (int s = 0; s < shots; ++s) {
            Cookie id = store.newEditCookie();
            Qv::Ptr<Edit> e = shot(id, s);
            dress(*e, s);
            store.add(e);
            shotCookies.push_back(id);
        }
        seq = sequence(store.newEditCookie());
        for (unsigned ch = 0; ch < 2; ++ch) {
            StoredChannel sc;
            sc.index = ch;
            sc.type = ch == 0 ? kChanVideo : kChanAudio;
            sc.name = ch == 0 ? "V1" : "A1";
            for (int i = 0; i < pattern.perChannel; ++i) {
                CelData cel;
                cel.editIn = 2.0 * i;
                cel.editOut = 2.0 * (i + 1);
                if ((ch == 0 || pattern.soundDissolves) && i % 10 == 9) {
                    cel.cookie = ch == 0 ? video_dissolve : audio_dissolve;
                    if (pattern.dissolveLength > 0)
                        cel.editOut = cel.editIn + pattern.dissolveLength;
                } else {
                    const Cookie& played = shotCookies[static_cast<size_t>(i % shots)];
                    cel.cookie = convertCookie(played, ch == 0 ? kCookieVideo : kCookieSound,
                                               static_cast<unsigned char>(ch));
                    cel.sourceIn = 10.0 + (i % 7);
                }
                sc.cels.push_back(cel);
            }
            seq->channels.push_back(sc);
        }
    }
    EditStore store;
    ScopedCurrentStore scope;
    Qv::Ptr<Edit> seq;
};

}  // namespace benchsupport
