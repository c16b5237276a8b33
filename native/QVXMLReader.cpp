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

// A frame count of the document, read as an unsigned number and turned into
// cel time. False when the element is missing.
bool readTime(const XMLParser& parser, const char* name, double rate, double& out) {
    LightweightString<char> text = leaf(parser, name);
    if (text.empty()) return false;
    int frames = 0;
    scanInt(text, frames);
    out = XMLReader::celFramesToTime(static_cast<unsigned int>(frames), rate);
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

Qv::FrameRate NativeReaderCore::getSeqFrameRate(const XMLParser& parser) {
    double rate = 0;
    if (!version2_) {
        XMLParser::Value editRes = parser.getValue("EditRes", 0);
        return QvXMLRationalToDouble(editRes, rate) ? Qv::getEquivalentQvFrameRate(rate)
                                                    : Qv::eFrameRateNone;
    }
    // The first Edit of the document, ghost or not.
    XMLParser::Value edit = parser.getValue("Edit", 0);
    if (edit.text.empty()) return Qv::eFrameRateNone;
    XMLParser inner(edit.text.c_str(), -1);
    XMLParser::Value value = inner.getValue("Rate", 0);
    return QvXMLRationalToDouble(value, rate) ? Qv::getEquivalentQvFrameRate(rate)
                                              : Qv::eFrameRateNone;
}

int NativeReaderCore::parseFile(const XMLParser& parser) {
    XMLParser::Value root = parser.getValue("QVXML", 0);
    if (root.text.empty() || root.attributes.empty()) return 0;
    const XMLParser::Tag& version = root.attributes[0];
    if (!(version.name == "Version") || !(version.value == (version2_ ? "2.0" : "1.0"))) return 0;

    if (!version2_) {
        XMLParser::Value editRes = parser.getValue("EditRes", 0);
        double rate = 0;
        if (!QvXMLRationalToDouble(editRes, rate)) return 0;
        documentCelRate_ = ticksOf(rate);
    }

    for (const XMLParser::Value& shot : parser.getValues("Shot"))
        if (!readShot(shot)) return 0;
    for (const XMLParser::Value& edit : parser.getValues("Edit")) {
        if (edit.text.empty()) continue;
        if (!readEdit(edit)) return 0;
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

bool NativeReaderCore::readShot(const XMLParser::Value& shot) {
    CED2* record = new CED2(true);
    XMLParser parser(shot.text.c_str(), -1);

    LightweightString<char> name = nameOrDefault(parser);
    record->editName = fromUTF8(name);
    logger.Out("Clip \"%s\"", name.c_str());

    double celRate = documentCelRate_;
    Qv::FrameRate mediumRate = Qv::eFrameRateNone;
    if (version2_) {
        // A shot's frame counts are divided by its Rate itself, not by ticks.
        double rate = 1.0;
        XMLParser::Value value = parser.getValue("Rate", 0);
        QvXMLRationalToDouble(value, rate);
        celRate = rate;
        mediumRate = Qv::getEquivalentQvFrameRate(rate);
    }
    int duration = 100;
    if (LightweightString<char> d = leaf(parser, "Duration"); !d.empty()) scanInt(d, duration);
    record->sourceMedium = getMediumRollfromInputDetails(Qv::Image::eScanProgressive, mediumRate);
    readLabels(parser, record);

    XMLParser::Value chanList = parser.getValue("ChanList", 0);
    if (chanList.text.empty()) {
        delete record;
        return false;
    }
    XMLParser chans(chanList.text.c_str(), -1);
    std::vector<XMLParser::Value> chanValues = chans.getValues("Chan");
    if (chanValues.empty()) {
        delete record;
        return false;
    }
    unsigned int index = 0;
    for (const XMLParser::Value& chan : chanValues) {
        unsigned int chanIndex = index++;  // a skipped Chan still counts
        if (chan.text.empty()) {
            delete record;
            return false;
        }
        XMLParser cp(chan.text.c_str(), -1);
        LightweightString<char> type = leaf(cp, "Type");
        EditChanType chanType = type == "Video" ? kChanVideo : type == "Audio" ? kChanAudio : 0;
        if (chanType == 0) continue;
        CChannel* ch = record->CreateEditChannel(chanIndex, chanType);
        ch->name = nameOrDefault(cp);
        if (LightweightString<char> id = leaf(cp, "Id"); !id.empty())
            clipRefs.addRef(id, record, true, chanIndex, chanType);
        // The first locator of the shot, across all its channels, is its own.
        if (LightweightString<char> loc = leaf(cp, "Loc");
            !loc.empty() && !record->originLocatorSet) {
            record->originLocator = fromUTF8(loc);
            record->originLocatorSet = true;
        }
        // A shot's channel has one event: only the first is read.
        XMLParser::Value event = cp.getValue("CelEvent", 0);
        if (event.text.empty()) continue;
        XMLParser ep(event.text.c_str(), -1);
        CED2Cell* cel = new CED2Cell;
        double rational = 1.0;
        XMLParser::Value velocity = ep.getValue("Velocity", 0);
        cel->speed = QvXMLRationalToDouble(velocity, rational) ? narrowToFloat(rational) : 1.0f;
        if (!readTime(ep, "EditIn", celRate, cel->editIn) ||
            !readTime(ep, "EditOut", celRate, cel->editOut) ||
            !readTime(ep, "Offset", celRate, cel->sourceIn)) {
            delete cel;
            continue;
        }
        XMLParser::Value level = ep.getValue("Level", 0);
        if (QvXMLRationalToDouble(level, rational))
            cel->level = cel->levelEnd = narrowToFloat(rational);
        ch->cels.append(cel);
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

bool NativeReaderCore::readEdit(const XMLParser::Value& edit) {
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
    if (version2_) {
        double rate = 1.0;
        XMLParser::Value value = parser.getValue("Rate", 0);
        QvXMLRationalToDouble(value, rate);
        // An edit's frame counts go through the ticks of its rate.
        celRate = ticksOf(rate);
        record->shotVideoMetadata = editMetadata(Qv::getEquivalentQvFrameRate(rate));
        record->shotVideoMetadataSet = true;
        record->cookie = makeNewEditCookie();
    } else {
        record->cookie = makeNewEditCookie();
        record->shotVideoMetadata = editMetadata(Qv::eFrameRateNone);
        record->shotVideoMetadataSet = true;
    }

    LightweightString<char> name = nameOrDefault(parser);
    record->editName = fromUTF8(name);
    logger.Out("Edit \"%s\"", name.c_str());

    int duration = 100;
    if (LightweightString<char> d = leaf(parser, "Duration"); !d.empty()) scanInt(d, duration);
    readLabels(parser, record);

    XMLParser::Value chanList = parser.getValue("ChanList", 0);
    if (chanList.text.empty()) {
        dropRecord(list, record);
        return false;
    }
    XMLParser chans(chanList.text.c_str(), -1);
    std::vector<XMLParser::Value> chanValues = chans.getValues("Chan");
    if (chanValues.empty()) {
        dropRecord(list, record);
        return false;
    }
    unsigned int index = 0;
    for (const XMLParser::Value& chan : chanValues) {
        unsigned int chanIndex = index++;
        if (chan.text.empty()) {
            dropRecord(list, record);
            return false;
        }
        XMLParser cp(chan.text.c_str(), -1);
        LightweightString<char> type = leaf(cp, "Type");
        EditChanType chanType = type == "Video" ? kChanVideo : type == "Audio" ? kChanAudio : 0;
        if (chanType == 0) continue;
        CChannel* ch = record->CreateEditChannel(chanIndex, chanType);
        ch->name = nameOrDefault(cp);
        if (LightweightString<char> id = leaf(cp, "Id"); !id.empty())
            clipRefs.addRef(id, record, true, chanIndex, chanType);

        std::vector<XMLParser::Value> events = cp.getValues("CelEvent");
        if (events.empty()) continue;  // and the channel's Effect is not read
        for (const XMLParser::Value& event : events) {
            if (event.text.empty()) break;
            XMLParser ep(event.text.c_str(), -1);
            CED2Cell* cel = new CED2Cell;
            LightweightString<char> ref = leaf(ep, "Ref");
            if (ref.empty()) {
                cel->refId = "...?...";
            } else {
                cel->refId = ref;
                Cookie cookie(fromUTF8(ref), false);
                if (cookie.isValid() && cookie.uuid.words[1] == kMagicWord) {
                    cel->cookie = cookie;
                    XMLParser::Value transition = ep.getValue("Transition", 0);
                    if (!transition.text.empty()) {
                        XMLParser tp(transition.text.c_str(), -1);
                        if (LightweightString<char> id = leaf(tp, "Id"); !id.empty()) {
                            int code = 0;
                            scanInt(id, code);
                            long long magnitude = std::llabs(static_cast<long long>(code));
                            cel->SetSMPTEWipeCode(
                                magnitude > INT_MAX ? INT_MAX : static_cast<int>(magnitude),
                                code < 0 ? eWipeReverse : eWipeForward);
                        }
                    }
                }
            }
            double rational = 1.0;
            XMLParser::Value velocity = ep.getValue("Velocity", 0);
            cel->speed = QvXMLRationalToDouble(velocity, rational) ? narrowToFloat(rational) : 1.0f;
            XMLParser::Value level = ep.getValue("Level", 0);
            if (QvXMLRationalToDouble(level, rational))
                cel->level = cel->levelEnd = narrowToFloat(rational);
            if (!readTime(ep, "EditIn", celRate, cel->editIn) ||
                !readTime(ep, "EditOut", celRate, cel->editOut) ||
                !readTime(ep, "Offset", celRate, cel->sourceIn)) {
                delete cel;
                break;  // the events after an incomplete one are dropped
            }
            ch->cels.append(cel);
        }

        XMLParser::Value effect = cp.getValue("Effect", 0);
        if (effect.text.empty()) continue;
        XMLParser fp(effect.text.c_str(), -1);
        if (!(leaf(fp, "Type") == "Track levels")) continue;
        ch->hasTrackLevels = true;
        for (const XMLParser::Value& keyframe : fp.getValues("Keyframe")) {
            XMLParser kp(keyframe.text.c_str(), -1);
            LightweightString<char> position = leaf(kp, "Position");
            if (position.empty()) continue;
            CED2TrackLevel* level = new CED2TrackLevel;
            int frames = 0;
            scanInt(position, frames);
            level->position = static_cast<double>(frames) / static_cast<double>(duration);
            double value = 1.0;
            XMLParser::Value v = kp.getValue("Value", 0);
            level->value = QvXMLRationalToDouble(v, value) ? narrowToFloat(value) : 1.0f;
            ch->levels.append(level);
        }
    }
    return true;
}

}  // namespace XML
