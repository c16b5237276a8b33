// The shots and the sequence head of the benchmarks' long timelines, built
// once here for every writer's benchmark: a shot of 60 s at 25 fps with a
// video and an audio channel that it fills, and an empty sequence at 25 fps.
// Each benchmark adds what its format reads (a locator, a picture size, a
// timecode label).
#pragma once

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

}  // namespace benchsupport
