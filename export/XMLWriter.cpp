#include "export/XMLWriter.h"

#include <cwchar>

#include "host/Edit.h"
#include "host/ImageLoader.h"
#include "host/Paths.h"
#include "plugin/Interchange.h"

namespace XML {

XMLWriter::XMLWriter(LoggerHandle l, XMLExportOptions& o, Qv::FrameRate rate)
    : legacy(legacyInterchange()), seqRate(rate) {
    log = l;
    options = o;
    // The original writers put a name's control characters into the file as
    // they stand, which leaves it not well-formed.
    if (!legacy) xmlFile.replaceUnwritableCharacters(log);
}

int XMLWriter::open(const LightweightString<wchar_t>& path) {
    LightweightString<wchar_t> target = path;
    iFileSystem* fs = OS()->files();
    // Any older file of that name goes first, whatever comes of the export.
    if (fs->exists(target)) fs->remove(target);
    xmlFile.writeTo(fs->open(target, kCreateForWriting));
    path_ = target;
    if (!options.silent) log.Out("Creating XML file \"%ls\"", target.c_str());
    return xmlFile.file ? 1 : 2001;
}

void XMLWriter::abandon() {
    if (!xmlFile.streamed()) return;
    // The part written goes; what is left is the empty file a failed export
    // leaves when nothing was written yet.
    xmlFile.writeTo(Qv::Ptr<iFile>());
    iFileSystem* fs = OS()->files();
    fs->remove(path_);
    Qv::Ptr<iFile> empty = fs->open(path_, kCreateForWriting);
}

int XMLWriter::celTimeToFrames(double time, double rate) {
    return truncateToInt32(time * rate + 0.5);
}

int XMLWriter::seqCelTimeToFrames(double time) const {
    return celTimeToFrames(time, static_cast<double>(Qv::getTicksPerSecond(seqRate)));
}

double XMLWriter::realSeconds(double time, Qv::FrameRate rate) {
    if (!Qv::isKnownFrameRate(rate)) return time;
    return time * static_cast<double>(Qv::getTicksPerSecond(rate)) / Qv::getFramesPerSecond(rate);
}

double XMLWriter::realSeconds(const CED2* record, double time) {
    return realSeconds(time,
                       record && record->edit ? record->edit->getFrameRate() : Qv::eFrameRateNone);
}

void XMLWriter::qvFRtoRational(Qv::FrameRate rate, LightweightString<wchar_t>& num,
                               LightweightString<wchar_t>& den) {
    Qv::frameRateRational(rate, num, den);
}

void XMLWriter::doubletoRational(double rate, LightweightString<wchar_t>& num,
                                 LightweightString<wchar_t>& den) {
    num = Qv::WStringFromInteger(truncateToInt32(rate * 10000.0));
    den = L"10000";
}

bool XMLWriter::isDodgyReelID(const LightweightString<char>& reel) {
    return reel.find("&#") != LightweightString<char>::npos;
}

bool XMLWriter::isImageSequence(LightweightString<wchar_t> name) {
    for (const LightweightString<wchar_t>& ext : QvImage::Loader::getSupportedImageExtensions()) {
        if (name.size() < ext.size() || ext.empty()) continue;
        if (wcscasecmp(name.c_str() + (name.size() - ext.size()), ext.c_str()) == 0) return true;
    }
    return false;
}

bool XMLWriter::isImageSequence(CED2* ced2) {
    CChannel* ch = ced2 ? ced2->firstChannel() : nullptr;
    CED2Cell* cel = ch ? ch->firstCel() : nullptr;
    if (!cel) return false;
    LightweightString<wchar_t> locator;
    Cookie cookie = cel->cookie;
    if (!getPrimaryURLLocator(locator, cookie)) return false;
    return isImageSequence(getExtension(locator, false));
}

}  // namespace XML
