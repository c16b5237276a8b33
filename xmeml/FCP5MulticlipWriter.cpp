// The xmeml writer: a sequence that is one multi-angle group, written as one
// clip carrying a multiclip with an angle per member of the group.
#include <algorithm>
#include <string>

#include "host/Edit.h"
#include "xmeml/FCP5Elements.h"
#include "xmeml/FCP5XMLWriter.h"

namespace XML {

using namespace fcp5;

bool FCP5XMLWriter::writeMulticlipGroup(AlternatesList& group) {
    if (group.list.empty()) return false;

    // Every member must be a clip; nothing is written otherwise.
    for (const AlternatesList::AltListRec& member : group.list) {
        EditPtr edit;
        edit.i_open(member.cookie);
        if (!edit || edit->getLogType() != kLogTypeShot) {
            log.ErrorOut(
                "The components of the exported multi-clip group must be either CLIPS or "
                "SUB-CLIPS");
            edit.i_close();
            return false;
        }
        edit.i_close();
    }

    CED2ClipRefMapRec* rec = nullptr;
    if (!map_.findRef(editCookie(group.list.front().cookie), &rec)) return false;
    LightweightString<wchar_t> c0 = rec->ref;
    LightweightString<wchar_t> ref = rec->getFileElementRef(0);
    CED2* shot = rec->ced2;
    if (!shot) return false;
    bool isGhost = rec->isGhost;
    CED2* master = shot;
    double subStart = 0.0;
    if (isGhost) {
        master = nullptr;
        if (CED2Cell* cel = firstCelOf(shot)) {
            subStart = cel->sourceIn;
            CED2ClipRefMapRec* masterRec = nullptr;
            if (map_.findRef(editCookie(cel->cookie), &masterRec)) master = masterRec->ced2;
        }
    }
    double length = shot->get_editLength();
    LightweightString<wchar_t> masterId = L"master_" + c0;
    auto subclipInfo = [&] {
        if (isGhost && master)
            printSubclipInfo(
                celTimeToFrames(subStart, master->rate),
                celTimeToFrames(master->get_editLength() - (subStart + length), master->rate));
    };

    xmlElement clip(xmlFile, "clip", Attribute{"id", idText("GRP_", c0).c_str()});
    printMasterClipHeader(shot->get_editName() + L"_GRP", length, shot->rate, masterId);

    int counter = 1;
    if (!shot->channels.isEmpty()) {
        xmlElement media(xmlFile, "media");
        CChannel* videoChannel = nullptr;
        for (CChannel* ch : each<CChannel>(shot->channels)) {
            if (ch->chanType == kChanVideo) {
                videoChannel = ch;
                break;
            }
        }
        if (videoChannel) {
            xmlElement video(xmlFile, "video");
            xmlElement track(xmlFile, "track");
            xmlElement clipitem(xmlFile, "clipitem",
                                Attribute{"id", idText("clipitem-", counter++).c_str()});
            leaf(xmlFile, "name", shot->get_editName());
            leaf(xmlFile, "masterclipid", masterId);
            printRateElement(shot->rate);
            subclipInfo();
            if (!printFileElement(master, false, ref)) return false;

            xmlElement multiclip(xmlFile, "multiclip", Attribute{"id", "multiclip1"});
            // The id ends before a double quote in the name: the value this
            // writer has always given it.
            std::string multiName = idText("", shot->get_editName()) + " - multi";
            multiName.resize(std::min(multiName.find('"'), multiName.size()));
            xmlInlineElement(xmlFile, "name", Attribute{"id", multiName.c_str()});
            leaf(xmlFile, "collapsed", Plain{"FALSE"});
            leaf(xmlFile, "synctype", Plain{"1"});
            bool firstAngle = true;
            for (const AlternatesList::AltListRec& member : group.list) {
                CED2ClipRefMapRec* angleRec = nullptr;
                if (!map_.findRef(editCookie(member.cookie), &angleRec)) return false;
                LightweightString<wchar_t> ci = angleRec->ref;
                xmlElement angle(xmlFile, "angle");
                if (firstAngle) {
                    leaf(xmlFile, "activevideoangle", Plain{"TRUE"});
                    leaf(xmlFile, "activaudioangle", Plain{"TRUE"});
                    firstAngle = false;
                }
                LightweightString<wchar_t> angleMaster = L"master_" + ci;
                if (!printAngle(angleRec->ced2, angleRec->isGhost, ci, angleMaster, member.offset,
                                counter))
                    return false;
            }
            leaf(xmlFile, "masterclipid", L"GRP_" + c0);
        }
    }

    // The group's sound stands after its media, as a child of the clip.
    if (shot->channels.size() >= 2) {
        xmlElement audio(xmlFile, "audio");
        int index = 0;
        for (CChannel* ch : each<CChannel>(shot->channels)) {
            if (ch->chanType == kChanAudio) {
                xmlElement track(xmlFile, "track");
                xmlElement clipitem(xmlFile, "clipitem",
                                    Attribute{"id", idText("clipitem-", counter++).c_str()});
                leaf(xmlFile, "masterclipid", masterId);
                leaf(xmlFile, "syncoffset", Plain{"0"});
                subclipInfo();
                if (!printFileElement(master, false, ref)) return false;
                {
                    xmlElement sourcetrack(xmlFile, "sourcetrack");
                    leaf(xmlFile, "mediatype", Plain{"audio"});
                    leaf(xmlFile, "trackindex", index);
                }
                leaf(xmlFile, "multiclip", Plain{"multiclip1"});
            }
            ++index;
        }
    }
    return true;
}

bool FCP5XMLWriter::printAngle(CED2* shot, bool isGhost, LightweightString<wchar_t>& id,
                               LightweightString<wchar_t>& masterId, int offset, int& counter) {
    if (!shot) return false;
    xmlElement clip(xmlFile, "clip", Attribute{"id", xmlFile.utf8(id)});
    double rate = shot->rate;
    double length = shot->get_editLength();
    printMasterClipHeader(shot->get_editName(), length, rate, masterId);

    if (isGhost) {
        // The sub-clip's material: its first cel's cookie, as it stands.
        CED2Cell* cel = firstCelOf(shot);
        CED2ClipRefMapRec* masterRec = nullptr;
        if (!cel || !map_.findRef(cel->cookie, &masterRec)) return false;
        shot = masterRec->ced2;
        if (!shot) return false;
        printSubclipInfo(celTimeToFrames(cel->sourceIn, rate),
                         celTimeToFrames(shot->get_editLength() - (length + cel->sourceIn), rate));
    }

    xmlElement media(xmlFile, "media");
    xmlElement video(xmlFile, "video");
    xmlElement track(xmlFile, "track");
    xmlElement clipitem(xmlFile, "clipitem",
                        Attribute{"id", idText("clipitem-", counter++).c_str()});
    leaf(xmlFile, "masterclipid", masterId);
    printRateElement(shot->rate);
    leaf(xmlFile, "mediadelay", offset);
    // Inside an angle the file's id is the bare reference.
    return printFileElement(shot, false, id);
}

}  // namespace XML
