#include "native/QVXMLWriter.h"

#include <cmath>
#include <cstdio>

#include "host/Edit.h"
#include "plugin/Version.h"

namespace XML {

bool QVXMLWriter::writeHeader() {
    LightweightString<char> comment =
        LightweightString<char>(" Quvera version ") + kPluginVersion + " ";
    xmlFile.printer.PushComment(comment.c_str());
    // The root stays open until the document is saved. Its attribute is the
    // number 2.0 as the printer writes doubles: "2".
    xmlFile.printer.OpenElement("QVXML", false);
    xmlFile.printer.PushAttribute("version", 2.0);
    return true;
}

void QVXMLWriter::writeRational(const char* name, double value) {
    LightweightString<wchar_t> num, den;
    doubletoRational(value, num, den);
    xmlInlineElement(xmlFile, name, AttribList{makeAttrib("num", num), makeAttrib("den", den)});
}

void QVXMLWriter::writeInteger(const char* name, int value) {
    char text[16];
    std::snprintf(text, sizeof text, "%d", value);
    xmlInlineElement(xmlFile, name, Qv::WStringFromAscii(text));
}

void QVXMLWriter::writeLabel(EditLabel label) {
    LightweightString<wchar_t> keep = Qv::WStringFromAscii(label.make_keep_string(nullptr).c_str());
    xmlInlineElement(xmlFile, "Label", AttribList{L"Str=\"" + keep + L"\""});
}

void QVXMLWriter::printRateElement(double rate) {
    writeRational("Rate", rate);
}

void QVXMLWriter::printSeqRateElement() {
    printRateElement(Qv::getFramesPerSecond(seqRate));
}

bool QVXMLWriter::writeAllShots(CED2List& shots, CED2List&) {
    for (CED2* shot : each<CED2>(shots)) {
        if (shot->excludedFromExport) continue;
        xmlElement element(xmlFile, "Shot");
        log.Out("Output shot \"%s\"", toUTF8(shot->get_editName()).c_str());
        xmlInlineElement(xmlFile, "Name", shot->get_editName());
        writeInteger("Duration", celTimeToFrames(shot->get_editLength(), shot->rate));
        printRateElement(shot->rate);
        const std::pair<const char*, const LightweightString<char>*> texts[] = {
            {"PrimeReel", &shot->get_reelId()},
            {"AudReel", &shot->get_audioReelId()},
            {"CamReel", &shot->get_camReelId()},
            {"LabRoll", &shot->get_labRollId()},
            {"SceneTxt", &shot->sceneTxt},
            {"NotesTxt", &shot->notesTxt},
            {"ShotTxt", &shot->shotTxt},
            {"WhoTxt", &shot->whoTxt},
            {"DescriptionTxt", &shot->descriptionTxt}};
        for (const auto& [name, text] : texts)
            if (!text->empty()) xmlInlineElement(xmlFile, name, fromUTF8(*text));
        if (!writeCELList(shot, true)) return false;
        for (int i = 0; i < shot->labelCount; ++i)
            writeLabel(shot->labels[i]);
    }
    return true;
}

bool QVXMLWriter::writeEdit(CED2* record, bool ghost) {
    xmlElement element(xmlFile, "Edit");
    log.Out("Output Edit \"%s\"", toUTF8(record->get_editName()).c_str());
    xmlInlineElement(xmlFile, "Name", record->get_editName());
    if (ghost) {
        writeInteger("Duration", celTimeToFrames(record->get_editLength(), record->rate));
        printRateElement(record->rate);
        xmlInlineElement(xmlFile, "IsGhost", L"true");
    } else {
        writeInteger("Duration", seqCelTimeToFrames(record->get_editLength()));
        printSeqRateElement();
    }
    if (!writeCELList(record, false)) return false;
    for (int i = 0; i < record->labelCount; ++i)
        writeLabel(record->labels[i]);
    return true;
}

bool QVXMLWriter::writeGhosts(CED2List& ghosts) {
    for (CED2* record : each<CED2>(ghosts)) {
        if (record->excludedFromExport) continue;
        if (!writeEdit(record, true)) return false;
    }
    return true;
}

bool QVXMLWriter::writeSequence(CED2List& sequences) {
    for (CED2* record : each<CED2>(sequences)) {
        if (record->excludedFromExport) continue;
        if (!writeEdit(record, false)) return false;
    }
    return true;
}

bool QVXMLWriter::writeCELList(CED2* record, bool forShot) {
    xmlElement chanList(xmlFile, "ChanList");
    for (CChannel* ch : each<CChannel>(record->channels)) {
        xmlElement chan(xmlFile, "Chan");
        xmlInlineElement(xmlFile, "Name", fromUTF8(ch->name));
        xmlInlineElement(xmlFile, "Id", ch->refName);
        // An Edit's channel carries its Id twice in a row.
        if (!forShot) xmlInlineElement(xmlFile, "Id", ch->refName);
        if (ch->chanType == kChanAudio) {
            xmlInlineElement(xmlFile, "Type", L"Audio");
        } else if (ch->chanType == kChanVideo) {
            xmlInlineElement(xmlFile, "Type", L"Video");
        } else {
            continue;  // a channel of another kind is its name and identifier only
        }

        for (CED2Cell* cel : each<CED2Cell>(ch->cels)) {
            xmlElement event(xmlFile, "CelEvent");
            Cookie cookie = cel->cookie;
            if (forShot) {
                LightweightString<wchar_t> locator;
                if (getPrimaryURLLocator(locator, cookie))
                    xmlInlineElement(xmlFile, "Loc", locator);
                if (getHistoricURLLocator(locator, cookie))
                    xmlInlineElement(xmlFile, "HistLoc", locator);
            } else {
                bool magic = cookie.uuid.words[1] == kMagicWord;
                xmlInlineElement(xmlFile, "Ref", cookie.asString(false).c_str(),
                                 AttribList{magic ? L"magic=\"true\"" : L"magic=\"false\""});
                bool dissolve =
                    cookie.compare(video_dissolve) == 0 || cookie.compare(audio_dissolve) == 0;
                if (magic && (dissolve || cookie.isEffectGraph())) {
                    xmlElement transition(xmlFile, "Transition");
                    if (dissolve) {
                        xmlInlineElement(xmlFile, "Type", L"Dissolve");
                    } else {
                        xmlInlineElement(xmlFile, "Type", L"Wipe");
                        int code = cel->GetSMPTEWipeCode();
                        if (cel->GetWipeDirection() == eWipeReverse) code = -code;
                        char text[16];
                        std::snprintf(text, sizeof text, "%4d", code);
                        xmlInlineElement(xmlFile, "Id", Qv::WStringFromAscii(text));
                    }
                }
            }
            writeRational("Velocity", static_cast<double>(cel->speed));
            // A level that is not a number fails the comparison and is written.
            if (!(std::fabs(static_cast<double>(cel->level) - 1.0) < 0.000001))
                writeRational("Level", static_cast<double>(cel->level));
            writeInteger("EditIn", seqCelTimeToFrames(cel->editIn));
            writeInteger("EditOut", seqCelTimeToFrames(cel->editOut));
            writeInteger("Offset", seqCelTimeToFrames(cel->sourceIn));
        }

        if (ch->chanType == kChanAudio && !forShot && ch->hasTrackLevels && !ch->levels.isEmpty()) {
            xmlElement effect(xmlFile, "Effect");
            xmlInlineElement(xmlFile, "Type", L"Track levels");
            for (CED2TrackLevel* level : each<CED2TrackLevel>(ch->levels)) {
                xmlElement keyframe(xmlFile, "Keyframe");
                writeInteger("Position",
                             seqCelTimeToFrames(record->get_editLength() * level->position));
                writeRational("Value", static_cast<double>(level->value));
            }
        }
    }
    return true;
}

}  // namespace XML
