#include "native/QVXMLReader.h"

#include <climits>
#include <cstdlib>

#include "host/VideoFormat.h"
#include "import/Scan.h"

namespace XML {

namespace {

// Every level of the document is read by a parser of its own, over the inner
// text of the element above it.
LightweightString<char> leaf(const XMLParser& parser, const char* name) {
    return parser.getValue(name, 0).text;
}

LightweightString<char> nameOrDefault(const XMLParser& parser) {
    LightweightString<char> name = leaf(parser, "Name");
    return name.empty() ? LightweightString<char>("NoName") : name;
}

// The cel timebase of a rate: its whole-number ticks, as a double.
double ticksOf(double rate) {
    return static_cast<double>(
        Qv::getTicksPerSecond(Qv::getCelQVFrameRateFromFrameRateDouble(rate)));
}

ShotVideoMetadata editMetadata(Qv::FrameRate rate) {
    return ShotVideoMetadata(Qv::DigitalVideoFormats::findByUID(Qv::Image::FormatUID(28)),
                             Qv::Image::kFormatYUY2, rate, Qv::Image::eAspectSquare, false,
                             Qv::Image::eScanProgressive, 8);
}

using Spot = NativeReaderCore::Spot;

// A frame count of the document, told unusable at `at` when its text is no
// usable number: as scanInt reads it, `fallback` when it reads none. Only
// the times of an Edit's cels place material.
int frameCount(const LightweightString<char>& text, const char* name, const Spot& at, bool places,
               int fallback = 0) {
    int frames = fallback;
    Scanned s = scanInt(text, frames);
    if (!s.usable()) at.unusable(name, nullptr, text, s.damage, places);
    return frames;
}

// A frame count of the document, read as an unsigned number and turned into
// cel time. False when the element is missing.
bool readTime(const XMLParser& parser, const char* name, double rate, double& out, const Spot& at) {
    LightweightString<char> text = leaf(parser, name);
    if (text.empty()) return false;
    int frames = frameCount(text, name, at, !at.inShot());
    out = XMLReader::celFramesToTime(static_cast<unsigned int>(frames), rate);
    return true;
}

// A record's Rate (version 2.0): 1 when it has none, or none that is valid.
double rateOf(const XMLParser& parser) {
    double rate = 1.0;
    XMLParser::Value value = parser.getValue("Rate", 0);
    NativeReaderCore::QvXMLRationalToDouble(value, rate);
    return rate;
}

// The speed, level and times of a cel event. False, with the cel as it was
// made, when one of the times is missing.
bool readEvent(const XMLParser& ep, double celRate, CED2Cell* cel, const Spot& at) {
    double rational = 1.0;
    XMLParser::Value velocity = ep.getValue("Velocity", 0);
    cel->speed = NativeReaderCore::QvXMLRationalToDouble(velocity, rational)
                     ? narrowToFloat(rational)
                     : 1.0f;
    XMLParser::Value level = ep.getValue("Level", 0);
    if (NativeReaderCore::QvXMLRationalToDouble(level, rational))
        cel->level = cel->levelEnd = narrowToFloat(rational);
    return readTime(ep, "EditIn", celRate, cel->editIn, at) &&
           readTime(ep, "EditOut", celRate, cel->editOut, at) &&
           readTime(ep, "Offset", celRate, cel->sourceIn, at);
}

// What a cel of an Edit plays: the text of its Ref, and for a magic cookie
// (black, silence, a transition) the cookie itself, with the wipe code and
// direction of its Transition.
void readRef(const XMLParser& ep, CED2Cell* cel) {
    LightweightString<char> ref = leaf(ep, "Ref");
    if (ref.empty()) {
        cel->refId = "...?...";
        return;
    }
    cel->refId = ref;
    Cookie cookie(fromUTF8(ref), false);
    if (!cookie.isValid() || cookie.uuid.words[1] != kMagicWord) return;
    cel->cookie = cookie;
    XMLParser::Value transition = ep.getValue("Transition", 0);
    if (transition.text.empty()) return;
    XMLParser tp(transition.text.c_str(), -1);
    LightweightString<char> id = leaf(tp, "Id");
    if (id.empty()) return;
    int code = 0;
    scanInt(id, code);
    long long magnitude = std::llabs(static_cast<long long>(code));
    cel->SetSMPTEWipeCode(magnitude > INT_MAX ? INT_MAX : static_cast<int>(magnitude),
                          code < 0 ? eWipeReverse : eWipeForward);
}

// The track levels of an Edit's channel; positions are divided by the Edit's
// Duration.
void readTrackLevels(const XMLParser& cp, CChannel* ch, int duration, const Spot& at) {
    XMLParser::Value effect = cp.getValue("Effect", 0);
    if (effect.text.empty()) return;
    XMLParser fp(effect.text.c_str(), -1);
    if (!(leaf(fp, "Type") == "Track levels")) return;
    ch->hasTrackLevels = true;
    unsigned index = 0;
    for (const XMLParser::Value& keyframe : fp.getValues("Keyframe")) {
        const Spot here = at.in("Effect", 0).in("Keyframe", index++);
        XMLParser kp(keyframe.text.c_str(), -1);
        LightweightString<char> position = leaf(kp, "Position");
        if (position.empty()) continue;
        CED2TrackLevel* level = new CED2TrackLevel;
        int frames = frameCount(position, "Position", here, false);
        level->position = static_cast<double>(frames) / static_cast<double>(duration);
        double value = 1.0;
        XMLParser::Value v = kp.getValue("Value", 0);
        level->value =
            NativeReaderCore::QvXMLRationalToDouble(v, value) ? narrowToFloat(value) : 1.0f;
        ch->levels.append(level);
    }
}

// Reads the channel list of a Shot or Edit: for each Chan of a known type it
// makes the channel, registers its Id, and hands the Chan's parser to
// `content` with where it stands. False when the list is missing or empty, or
// holds an empty Chan.
template <typename Content>
bool readChannels(const XMLParser& parser, CED2* record, RefIdMap& refs, const Spot& at,
                  Content content) {
    XMLParser::Value chanList = parser.getValue("ChanList", 0);
    if (chanList.text.empty()) return false;
    XMLParser chans(chanList.text.c_str(), -1);
    std::vector<XMLParser::Value> chanValues = chans.getValues("Chan");
    if (chanValues.empty()) return false;
    unsigned int index = 0;
    for (const XMLParser::Value& chan : chanValues) {
        unsigned int chanIndex = index++;  // a skipped Chan still counts
        if (chan.text.empty()) return false;
        XMLParser cp(chan.text.c_str(), -1);
        LightweightString<char> type = leaf(cp, "Type");
        EditChanType chanType = type == "Video" ? kChanVideo : type == "Audio" ? kChanAudio : 0;
        if (chanType == 0) continue;
        CChannel* ch = record->CreateEditChannel(chanIndex, chanType);
        ch->name = nameOrDefault(cp);
        if (LightweightString<char> id = leaf(cp, "Id"); !id.empty())
            refs.addRef(id, record, true, chanIndex, chanType);
        content(cp, ch, at.in("ChanList", 0).in("Chan", chanIndex));
    }
    return true;
}

}  // namespace

bool NativeReaderCore::QvXMLRationalToDouble(XMLParser::Value& value, double& result) {
    if (value.attributes.size() < 2) return false;
    LightweightString<char> numText, denText;
    for (size_t i = 0; i < 2; ++i) {
        const XMLParser::Tag& a = value.attributes[i];
        if (a.name == "num")
            numText += a.value;
        else if (a.name == "den")
            denText += a.value;
    }
    if (numText.empty() || denText.empty()) return false;
    int num = 0, den = 0;
    scanInt(numText, num);
    scanInt(denText, den);
    if (num <= 0 || den <= 0) return false;
    result = static_cast<double>(num) / static_cast<double>(den);
    return true;
}

void NativeReaderCore::Spot::unusable(const char* element, const char* attribute,
                                      const LightweightString<char>& text, Damage why,
                                      bool places) const {
    if (!reader) return;
    NativeReaderCore& r = *reader;
    // The element is found again through the document's index.
    std::size_t offset = std::string::npos;
    if (const XMLParser* p = r.document_) {
        std::unique_ptr<XMLParser> held;
        unsigned found = 0;
        for (; found < depth; ++found) {
            std::unique_ptr<XMLParser> next = p->section(steps[found].tag, steps[found].index);
            if (!next) break;
            held = std::move(next);
            p = held.get();
            offset = p->offset();
        }
        // Where a level cannot be found again, the deepest that can stands.
        if (std::size_t o = p->offsetOf(element, 0); found == depth && o != std::string::npos)
            offset = o;
    }
    if (!r.unusableAt_.insert({offset, attribute ? attribute : ""}).second) return;
    std::size_t line = offset == std::string::npos ? 0 : r.lines_.lineOf(offset);
    LightweightString<char> what = unusableText(element, attribute, text, line, why);
    r.logger.WarningOut("%s", unusableWarning(what, places).c_str());
    r.logger.LossOut(
        lossAt(places ? kUnusableValueKind : kUnreadableValueKind, {}, {}, what.c_str()));
}

void NativeReaderCore::checkRate(const XMLParser::Value& value, const Spot& at, const char* element,
                                 bool ticked) {
    // Without two attributes there is no rate, which the reading tells itself.
    if (value.attributes.size() < 2) return;
    bool usable = true;
    for (std::size_t i = 0; i < 2; ++i) {
        const XMLParser::Tag& a = value.attributes[i];
        if (!(a.name == "num") && !(a.name == "den")) continue;
        int n = 0;
        Scanned s = scanInt(a.value, n, 1, INT_MAX);
        if (s.usable()) continue;
        usable = false;
        at.unusable(element, a.name.c_str(), a.value, s.damage, ticked);
    }
    // Times counted in the ticks of a rate the host lacks are counted in
    // those of another.
    double rate = 0;
    XMLParser::Value copy = value;
    if (usable && ticked && QvXMLRationalToDouble(copy, rate) &&
        Qv::getEquivalentQvFrameRate(rate) == Qv::eFrameRateNone) {
        LightweightString<char> text;
        for (std::size_t i = 0; i < 2; ++i)
            text += (i ? "/" : "") + value.attributes[i].value;
        at.unusable(element, nullptr, text, Damage::UnknownRate, true);
    }
}

NativeReaderCore::InView::InView(NativeReaderCore& c, const XMLParser& parser) : core(c) {
    core.document_ = &parser;
    core.lines_ = LineCounter(parser.documentText());
}

NativeReaderCore::InView::~InView() {
    core.document_ = nullptr;
}

Qv::FrameRate NativeReaderCore::getSeqFrameRate(const XMLParser& parser) {
    const InView inView(*this, parser);
    const Spot top{this};
    double rate = 0;
    if (!version2_) {
        XMLParser::Value editRes = parser.getValue("EditRes", 0);
        checkRate(editRes, top, "EditRes", true);
        return unusableAt_.empty() && QvXMLRationalToDouble(editRes, rate)
                   ? Qv::getEquivalentQvFrameRate(rate)
                   : Qv::eFrameRateNone;
    }
    // The first Edit of the document, ghost or not.
    XMLParser::Value edit = parser.getValue("Edit", 0);
    if (edit.text.empty()) return Qv::eFrameRateNone;
    XMLParser inner(edit.text.c_str(), -1);
    XMLParser::Value value = inner.getValue("Rate", 0);
    checkRate(value, top.in("Edit", 0), "Rate", true);
    return unusableAt_.empty() && QvXMLRationalToDouble(value, rate)
               ? Qv::getEquivalentQvFrameRate(rate)
               : Qv::eFrameRateNone;
}

int NativeReaderCore::parseFile(const XMLParser& parser) {
    XMLParser::Value root = parser.getValue("QVXML", 0);
    if (root.text.empty() || root.attributes.empty()) return 0;
    const XMLParser::Tag& version = root.attributes[0];
    if (!(version.name == "Version") || !(version.value == (version2_ ? "2.0" : "1.0"))) return 0;
    const InView inView(*this, parser);
    const Spot top{this};

    if (!version2_) {
        XMLParser::Value editRes = parser.getValue("EditRes", 0);
        checkRate(editRes, top, "EditRes", true);
        double rate = 0;
        if (!QvXMLRationalToDouble(editRes, rate)) return 0;
        documentCelRate_ = ticksOf(rate);
    }

    unsigned index = 0;
    for (const XMLParser::Value& shot : parser.getValues("Shot"))
        if (!readShot(shot, top.in("Shot", index++))) return 0;
    index = 0;
    for (const XMLParser::Value& edit : parser.getValues("Edit")) {
        const Spot at = top.in("Edit", index++);
        if (edit.text.empty()) continue;
        if (!readEdit(edit, at)) return 0;
    }
    return 1;
}

void NativeReaderCore::readLabels(const XMLParser& parser, CED2* record) {
    record->labelCount = 0;
    for (const XMLParser::Value& label : parser.getValues("Label")) {
        if (label.attributes.empty()) continue;
        // A record holds ten labels; further ones are passed over.
        record->addLabel(EditLabel(label.attributes[0].value.c_str()));
    }
}

void NativeReaderCore::dropRecord(CED2List& list, CED2* record) {
    delete list.remove(record);
}

bool NativeReaderCore::readShot(const XMLParser::Value& shot, const Spot& at) {
    CED2* record = new CED2(true);
    XMLParser parser(shot.text.c_str(), -1);

    LightweightString<char> name = nameOrDefault(parser);
    record->editName = fromUTF8(name);
    logger.Out("Clip \"%s\"", name.c_str());

    double celRate = documentCelRate_;
    Qv::FrameRate mediumRate = Qv::eFrameRateNone;
    if (version2_) {
        // A shot's frame counts are divided by its Rate itself, not by ticks.
        checkRate(parser.getValue("Rate", 0), at, "Rate", false);
        double rate = rateOf(parser);
        celRate = rate;
        mediumRate = Qv::getEquivalentQvFrameRate(rate);
    }
    // A shot's Duration is not read: its length comes from its cels and media.
    record->sourceMedium = getMediumRollfromInputDetails(Qv::Image::eScanProgressive, mediumRate);
    readLabels(parser, record);

    bool complete = readChannels(parser, record, clipRefs, at,
                                 [&](const XMLParser& cp, CChannel* ch, const Spot& chan) {
                                     // The first locator of the shot, across all its channels, is
                                     // its own.
                                     if (LightweightString<char> loc = leaf(cp, "Loc");
                                         !loc.empty() && !record->originLocatorSet) {
                                         record->originLocator = fromUTF8(loc);
                                         record->originLocatorSet = true;
                                     }
                                     // A shot's channel has one event: only the first is read.
                                     XMLParser::Value event = cp.getValue("CelEvent", 0);
                                     if (event.text.empty()) return;
                                     XMLParser ep(event.text.c_str(), -1);
                                     CED2Cell* cel = new CED2Cell;
                                     if (readEvent(ep, celRate, cel, chan.in("CelEvent", 0)))
                                         ch->cels.append(cel);
                                     else
                                         delete cel;
                                 });
    if (!complete) {
        delete record;
        return false;
    }

    const std::pair<const char*, LightweightString<char>*> texts[] = {
        {"PrimeReel", &record->reelId},  {"AudReel", &record->audioReelId},
        {"CamReel", &record->camReelId}, {"LabRoll", &record->labRollId},
        {"SceneTxt", &record->sceneTxt}, {"NotesTxt", &record->notesTxt},
        {"WhoTxt", &record->whoTxt},     {"DescriptionTxt", &record->descriptionTxt},
        {"ShotTxt", &record->shotTxt}};
    for (const auto& [element, field] : texts)
        if (LightweightString<char> t = leaf(parser, element); !t.empty()) *field = t;

    shotList.append(record);
    return true;
}

bool NativeReaderCore::readEdit(const XMLParser::Value& edit, const Spot& at) {
    XMLParser parser(edit.text.c_str(), -1);
    bool ghost = leaf(parser, "IsGhost") == "true";
    CED2* record = new CED2(ghost);
    CED2List& list = ghost ? ghostList : seqList;
    if (ghost) {
        record->isGhost = true;
        record->kind = kLogTypeSubclip;
    }
    list.append(record);

    double celRate = documentCelRate_;
    Qv::FrameRate rateOfEdit = Qv::eFrameRateNone;
    if (version2_) {
        checkRate(parser.getValue("Rate", 0), at, "Rate", true);
        double rate = rateOf(parser);
        // An edit's frame counts go through the ticks of its rate.
        celRate = ticksOf(rate);
        rateOfEdit = Qv::getEquivalentQvFrameRate(rate);
    }
    // The document holds no picture format: every edit gets the same one.
    record->shotVideoMetadata = editMetadata(rateOfEdit);
    record->shotVideoMetadataSet = true;
    record->cookie = makeNewEditCookie();

    LightweightString<char> name = nameOrDefault(parser);
    record->editName = fromUTF8(name);
    logger.Out("Edit \"%s\"", name.c_str());

    int duration = 100;
    if (LightweightString<char> d = leaf(parser, "Duration"); !d.empty())
        duration = frameCount(d, "Duration", at, false, duration);
    readLabels(parser, record);

    bool complete = readChannels(
        parser, record, clipRefs, at, [&](const XMLParser& cp, CChannel* ch, const Spot& chan) {
            std::vector<XMLParser::Value> events = cp.getValues("CelEvent");
            if (events.empty()) return;  // and the channel's Effect is not read
            unsigned index = 0;
            for (const XMLParser::Value& event : events) {
                if (event.text.empty()) break;
                XMLParser ep(event.text.c_str(), -1);
                CED2Cell* cel = new CED2Cell;
                readRef(ep, cel);
                if (!readEvent(ep, celRate, cel, chan.in("CelEvent", index++))) {
                    delete cel;
                    break;  // the events after an incomplete one are dropped
                }
                ch->cels.append(cel);
            }
            readTrackLevels(cp, ch, duration, chan);
        });
    if (!complete) {
        dropRecord(list, record);
        return false;
    }
    return true;
}

}  // namespace XML
