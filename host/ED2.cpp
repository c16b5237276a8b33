#include "host/ED2.h"

#include <algorithm>
#include <cmath>
#include <deque>
#include <map>
#include <set>

#include "host/Edit.h"

CED2::CED2(bool shot) : isShot(shot) {}
CED2::~CED2() = default;

CChannel* CED2::CreateEditChannel(unsigned int index, EditChanType type) {
    CChannel* ch = new CChannel(index, type);
    channels.append(ch);
    return ch;
}

int CED2::GetNumVideoChannels() const {
    int n = 0;
    for (CChannel* ch : each<CChannel>(channels))
        n += ch->chanType == kChanVideo;
    return n;
}

int CED2::GetNumAudioChannels() const {
    int n = 0;
    for (CChannel* ch : each<CChannel>(channels))
        n += ch->chanType == kChanAudio;
    return n;
}

int CED2::reInitialiseCookie(const Cookie& c, const DriveId& d, LightweightString<wchar_t> videoExt,
                             LightweightString<wchar_t> audioExt) {
    if (!c.isValid()) return 0;
    cookie = convertCookie(c, kCookieEdit, 255);
    drive = d;
    videoExtension = std::move(videoExt);
    audioExtension = std::move(audioExt);
    return 1;
}

double CED2::get_editLength() const {
    if (duration > 0) return duration;
    double end = 0;
    for (CChannel* ch : each<CChannel>(channels))
        for (CED2Cell* c : each<CED2Cell>(ch->cels))
            end = std::max(end, c->editOut);
    return end;
}

bool CED2::addLabel(const EditLabel& label) {
    if (labelCount >= kMaxLabels) return false;
    labels[labelCount++] = label;
    return true;
}

void CED2::WriteCuesData(EditModifier& edit) {
    if (edit) edit->cues = cues;
}

std::vector<EditLabel> CED2::storedLabels() const {
    // The main label leads; the record's own labels follow, less a copy of it.
    std::vector<EditLabel> out;
    if (primaryLabelSet && primaryLabel.is_valid()) out.push_back(primaryLabel);
    for (int i = 0; i < labelCount; ++i) {
        if (!labels[i].is_valid()) continue;
        if (!out.empty() && labels[i] == out.front()) continue;
        out.push_back(labels[i]);
    }
    return out;
}

void CED2::WriteLabels(const EditPtr& edit, MediumRollMedium medium, double) {
    if (!edit) return;
    // A record without labels leaves the edit's own (a media file's
    // timecode, say) as they are.
    std::vector<EditLabel> stored = storedLabels();
    if (stored.empty()) return;
    edit->labels.clear();
    for (EditLabel l : stored) {
        // A label without a medium of its own counts in the edit's.
        if (l.get_MediumRoll().medium == kMediumNone) l.set_MediumRoll({medium, 0});
        edit->labels.push_back(l);
    }
}

CED2List::CED2List(LoggerHandle l, int f, DriveId d) : log(std::move(l)), flags(f), drive(d) {}

namespace {

// A record with the fields that an edit of any kind shares.
CED2* recordFromEdit(const Qv::Ptr<Edit>& edit, bool isShot, bool isGhost) {
    const Edit& e = *edit;
    CED2* r = new CED2(isShot || isGhost);
    r->isGhost = isGhost;
    r->kind = isGhost ? kLogTypeSubclip : e.logType;
    r->cookie = e.cookie;
    r->editName = e.name;
    r->rate = e.rate > 0 ? e.rate : Qv::getFramesPerSecond(e.frameRate);
    r->duration = e.getEndTime();
    r->reelId = e.videoReelId;
    r->audioReelId = e.audioReelId;
    r->camReelId = e.filmReelId;
    r->labRollId = e.labRollId;
    r->sceneTxt = e.getConfig("scene");
    r->descriptionTxt = e.getConfig("description");
    r->notesTxt = e.getConfig("notes");
    r->shotTxt = e.getConfig("shot");
    r->whoTxt = e.getConfig("who");
    r->cues = e.cues;
    for (const EditLabel& l : e.labels)
        r->addLabel(l);
    if (r->labelCount > 0) {
        r->primaryLabel = r->labels[0];
        r->primaryLabelSet = true;
    }
    r->shotVideoMetadata = e.videoMetadata;
    r->shotVideoMetadataSet = true;
    r->sourceMedium = e.sourceMedium;
    r->sequenceNum = e.sequence;
    if (e.audioSampleRate > 0) {
        r->audioSampleRate = e.audioSampleRate;
        r->audioSampleRateSet = true;
    }
    r->excludedFromExport = e.excludedFromExport;
    r->edit = edit;

    for (const StoredChannel& sc : e.channels) {
        CChannel* ch = r->CreateEditChannel(sc.index, sc.type);
        ch->name = sc.name;
        ch->hasTrackLevels = sc.hasTrackLevels;
        for (const LevelData& l : sc.levels)
            ch->levels.append(new CED2TrackLevel(l));
        for (const CelData& c : sc.cels)
            ch->addCel(c);
        // A cel that plays this channel names it: a shot channel by its
        // material cookie, any other by the edit cookie with the index.
        unsigned char index = static_cast<unsigned char>(sc.index);
        CookieType type =
            isShot ? (sc.type == kChanVideo ? kCookieVideo : kCookieSound) : kCookieEdit;
        ch->refName = convertCookie(e.cookie, type, index).asWString();
        if (isShot && !e.mediaPath.empty()) {
            ch->mediaFilename = e.mediaPath;
            ch->mediaFilenameUtf8 = toUTF8(e.mediaPath);
            ch->mediaFilenameSet = true;
        }
    }
    if (isShot) {
        r->originLocator = e.mediaPath;
        r->originLocatorSet = !e.mediaPath.empty();
        r->materialOffline = e.mediaPath.empty();
        r->hasVideo = r->GetNumVideoChannels() > 0;
        r->audioChannelCount = r->GetNumAudioChannels();
    }
    return r;
}

}  // namespace

int CED2List::PrepareED2ListsForExport(const CookieVec& cookies, CED2List& seqList,
                                       CED2List& ghostList, CED2List& deepGhostList,
                                       CED2List& shotList, bool, int, LoggerHandle log,
                                       Qv::FrameRate, bool prepareOption, bool, bool, bool, bool,
                                       bool) {
    EditStore& store = EditStore::current();
    // Each edit gets one record, in the list of the shallowest level at which
    // the walk reaches it; the walk goes breadth first so that this holds.
    std::set<Qv::UUID> seen;
    auto key = [](const Cookie& c) { return c.uuid; };
    struct Pending {
        Qv::Ptr<Edit> edit;
        int depth;  // 0: chosen for export; 1: one reference down; 2+: deeper
    };
    std::deque<Pending> queue;

    for (const Cookie& c : cookies) {
        Qv::Ptr<Edit> e = store.find(c);
        if (!e) return 3;
        if (!(e->logType & kExportableLogTypes)) continue;
        if (!seen.insert(key(e->cookie)).second) continue;
        if (e->isShot()) {
            shotList.append(recordFromEdit(e, true, false));
        } else if (e->logType == kLogTypeSubclip) {
            ghostList.append(recordFromEdit(e, false, true));
            queue.push_back({e, 1});
        } else {
            seqList.append(recordFromEdit(e, false, false));
            queue.push_back({e, 0});
        }
    }

    auto reach = [&](const Cookie& c, int depth) {
        if (!c.isValid() || c.isMagic()) return;
        // Most cels play an edit reached already (the store keeps each edit
        // under its own cookie's uuid): no look-up for them.
        if (seen.count(c.uuid)) return;
        Qv::Ptr<Edit> target = store.find(c);
        if (!target || !seen.insert(key(target->cookie)).second) return;
        if (target->isShot()) {
            CED2* shot = recordFromEdit(target, true, false);
            if (prepareOption && target->isOffline()) shot->excludedFromExport = true;
            shotList.append(shot);
            return;
        }
        (depth == 0 ? ghostList : deepGhostList).append(recordFromEdit(target, false, true));
        queue.push_back({target, depth + 1});
    };

    // How far into each shot the walked edits play, for shots whose length
    // is not known.
    std::map<Qv::UUID, double> used;
    auto note = [&](const std::vector<CelData>& cels) {
        for (std::size_t i = 0; i < cels.size(); ++i) {
            const CelData& cel = cels[i];
            if (!cel.cookie.isValid() || cel.cookie.isMagic()) continue;
            // A clip runs on under a transition that follows it.
            double length = cel.editOut - cel.editIn;
            if (i + 1 < cels.size() && cels[i + 1].cookie.isMagic() &&
                !cels[i + 1].cookie.isBlack())
                length += cels[i + 1].editOut - cels[i + 1].editIn;
            double end = cel.sourceIn + std::fabs(static_cast<double>(cel.speed)) * length;
            double& at = used[key(cel.cookie)];
            if (std::isfinite(end)) at = std::max({at, end, cel.sourceIn});
        }
    };

    while (!queue.empty()) {
        Pending p = queue.front();
        queue.pop_front();
        for (const StoredChannel& ch : p.edit->channels) {
            note(ch.cels);
            for (const CelData& cel : ch.cels) {
                reach(cel.cookie, p.depth);
                for (const CelAlternate& alt : cel.alternates)
                    reach(alt.cookie, p.depth);
            }
        }
    }

    // An offline shot whose length no document gave (an xmeml file without
    // a timecode, say) would have every use cut to nothing by a writer; it is
    // given the length its uses need instead, and the log says so.
    for (CED2* shot : each<CED2>(shotList)) {
        if (shot->get_editLength() > 0 || !shot->edit || !shot->edit->isOffline()) continue;
        auto it = used.find(key(shot->cookie));
        if (it == used.end() || !(it->second > 0)) continue;
        shot->duration = it->second;
        for (CChannel* ch : each<CChannel>(shot->channels))
            for (CED2Cell* c : each<CED2Cell>(ch->cels))
                if (c->editOut <= 0) c->editOut = it->second;
        log.WarningOut(
            "The length of offline shot \"%s\" is not known; it is taken as %.3f "
            "seconds, as far as the cut plays it",
            toUTF8(shot->get_editName()).c_str(), it->second);
    }
    return 1;
}

bool CED2List::hasOneExportableSequence(CED2*& seq) {
    CED2* found = nullptr;
    int count = 0;
    for (CED2* r : each<CED2>(*this)) {
        if (r->excludedFromExport) continue;
        found = r;
        ++count;
    }
    if (count != 1) return false;
    seq = found;
    return true;
}

namespace {

void storeChannels(const CED2& r, Edit& e, bool asShot) {
    e.channels.clear();
    for (CChannel* ch : each<CChannel>(r.channels)) {
        StoredChannel sc;
        sc.index = ch->index;
        sc.type = ch->chanType;
        sc.name = ch->name;
        sc.hasTrackLevels = ch->hasTrackLevels;
        for (CED2TrackLevel* l : each<CED2TrackLevel>(ch->levels))
            sc.levels.push_back(*l);
        for (CED2Cell* c : each<CED2Cell>(ch->cels)) {
            CelData d = *c;
            // A shot's cels play its own material.
            if (asShot)
                d.cookie = convertCookie(e.cookie,
                                         ch->chanType == kChanVideo ? kCookieVideo : kCookieSound,
                                         static_cast<unsigned char>(ch->index));
            sc.cels.push_back(d);
        }
        e.channels.push_back(std::move(sc));
    }
}

void storeFields(const CED2& r, Edit& e) {
    e.name = r.editName;
    e.videoReelId = r.reelId;
    e.audioReelId = r.audioReelId;
    e.filmReelId = r.camReelId;
    e.labRollId = r.labRollId;
    e.setConfig("scene", r.sceneTxt);
    e.setConfig("description", r.descriptionTxt);
    e.setConfig("notes", r.notesTxt);
    e.setConfig("shot", r.shotTxt);
    e.setConfig("who", r.whoTxt);
    e.cues = r.cues;
    e.labels = r.storedLabels();
    if (r.shotVideoMetadataSet) e.videoMetadata = r.shotVideoMetadata;
    e.sourceMedium = r.sourceMedium;
    if (r.audioSampleRateSet) e.audioSampleRate = r.audioSampleRate;
}

}  // namespace

int CED2List::WriteAllED2s(Qv::FrameRate rate) {
    EditStore& store = EditStore::current();
    for (CED2* r : each<CED2>(*this)) {
        bool shot = r->isShot && !r->isGhost;
        // Material that was linked or imported already has its edit.
        if (r->cookie.isValid()) {
            if (Qv::Ptr<Edit> existing = store.find(r->cookie); existing && shot) {
                r->edit = existing;
                continue;
            }
        } else {
            // A shot whose import failed has no identity; it goes in offline.
            r->cookie = makeNewEditCookie();
        }
        Qv::Ptr<Edit> e(new Edit(r->cookie));
        storeFields(*r, *e);
        // A sequence or ghost whose record knows its own rate keeps it.
        Qv::FrameRate own =
            r->shotVideoMetadataSet ? r->shotVideoMetadata.getFrameRate() : Qv::eFrameRateNone;
        e->frameRate = !shot && Qv::isKnownFrameRate(own) ? own : rate;
        if (shot) {
            e->logType = kLogTypeShot;
            // A shot's source runs at the rate of its main timecode, else of
            // its medium, else of the list. Without a rate of its own, a shot
            // whose document gave its timecode counts whole frames of that
            // timebase, the way xmeml states a file; any other counts in the
            // list's rate, as its document placed its frames.
            Qv::FrameRate source = rate;
            bool timecoded = r->primaryLabelSet && r->primaryLabel.is_valid();
            if (timecoded)
                source = r->primaryLabel.get_rate();
            else if (Qv::FrameRate m = getFrameRatefromMedium(r->sourceMedium);
                     Qv::isKnownFrameRate(m))
                source = m;
            e->sourceFrameRate = source;
            double ticks = timecoded ? Qv::getTicksPerSecond(source) : 0;
            e->rate = r->rate > 0 ? r->rate : ticks > 0 ? ticks : Qv::getFramesPerSecond(rate);
            e->historicLocator = r->originLocator;
            if (r->originLocator.empty())
                for (CChannel* ch : each<CChannel>(r->channels))
                    if (ch->mediaFilenameSet) e->historicLocator = ch->mediaFilename;
        } else if (r->isGhost) {
            e->logType = kLogTypeSubclip;
            e->rate = r->rate > 0 ? r->rate : Qv::getFramesPerSecond(e->frameRate);
        } else {
            // A sequence counts its positions in whole frames of its timebase,
            // 30 for 29.97, as every format places items on a sequence.
            e->logType = kLogTypeSequence;
            double ticks = Qv::getTicksPerSecond(e->frameRate);
            e->rate = r->rate > 0 ? r->rate : ticks > 0 ? ticks : Qv::getFramesPerSecond(rate);
        }
        storeChannels(*r, *e, shot);
        e->length = r->get_editLength();
        store.add(e);
        r->edit = e;
    }
    return 1;
}

LightweightVector<EditModifier> CED2List::buildCookieList() const {
    LightweightVector<EditModifier> out;
    for (CED2* r : each<CED2>(*this))
        if (r->edit) out.push_back(EditModifier(r->edit));
    return out;
}
