#include "import/XMLReader.h"

#include <cmath>

#include "host/Config.h"
#include "host/Edit.h"
#include "host/OS.h"

namespace XML {

namespace {
const char* const kSuppressRelink = "Import : Suppress relink existing material";
}

XMLReader::XMLReader(LoggerHandle l)
    : logger(l),
      shotList(l, 0, DriveId('0')),
      ghostList(l, 0, DriveId('0')),
      seqList(l, 0, DriveId('0')),
      importDrive('0'),
      filenameLinks(l) {}

XMLReader::~XMLReader() = default;

ImportResult XMLReader::importFile(const XMLParser& parser,
                                   const Qv::Ptr<ImportFileInfoRep>& fileInfo, LoggerHandle l) {
    return finishImport(readDocument(parser, fileInfo, l));
}

int XMLReader::readDocument(const XMLParser& parser, const Qv::Ptr<ImportFileInfoRep>& fileInfo,
                            LoggerHandle l) {
    if (fileInfo) {
        importDrive = fileInfo->getDrive();
        documentPath_ = fileInfo->name();
    }
    logger = l;
    seqFrameRate = getxmlFrameRate(parser);
    return parseFile(parser);
}

ImportResult XMLReader::completeImport(int status, const LightweightString<wchar_t>& documentPath) {
    ImportResult result;
    if (status != 1) {
        result.status = status;
        return result;
    }

    int total = static_cast<int>(shotList.size()), done = 0;
    // Media that moved is looked for under the same folder for every shot:
    // the folder is read once for all of them.
    DirectorySearchScope searches(logger);
    for (CED2* shot : each<CED2>(shotList)) {
        materialQueue.clear();
        resolveShotMaterial(shot, documentPath);
        if (!importMaterialForShot(shot)) {
            result.status = 0;
            return result;
        }
        logger.progress(total ? static_cast<double>(++done) / total : 1.0);
    }
    for (CED2* ghost : each<CED2>(ghostList)) {
        if (!resolveChanReferences(ghost)) {
            result.status = 0;
            return result;
        }
    }
    for (CED2* seq : each<CED2>(seqList)) {
        if (!resolveChanReferences(seq)) {
            result.status = 0;
            return result;
        }
    }

    shotList.WriteAllED2s(seqFrameRate);
    ghostList.WriteAllED2s(seqFrameRate);
    seqList.WriteAllED2s(seqFrameRate);

    LightweightVector<EditModifier> made = seqList.buildCookieList();
    for (const EditModifier& m : made)
        result.edits.push_back(m);
    result.status = status;
    return result;
}

Cookie XMLReader::getReferenceCookie(LightweightString<char>& refId, bool isVideo, bool isGhostRef,
                                     bool& isSingleImage) {
    RefIdMap::RefIdMapRec rec;
    const RefIdMap& map = isGhostRef ? ghostRefs : clipRefs;
    if (!map.findRef(refId, rec) || !rec.ced2) return invalid_cookie;
    Cookie cookie = rec.ced2->cookie;
    unsigned char channel = static_cast<unsigned char>(rec.chanIndex);
    Cookie result = rec.ced2->isShot && !rec.ced2->isGhost
                        ? convertCookie(cookie, isVideo ? kCookieVideo : kCookieSound, channel)
                        : convertCookie(cookie, kCookieEdit, channel);
    isSingleImage = rec.isSingleImage;
    return result;
}

int XMLReader::initCED2_WithNewCookie(CED2* ced2) {
    if (!ced2) return 0;
    Cookie cookie = makeNewEditCookie();
    // Upper case on this path, lower case on the linking paths: both are kept.
    return ced2->reInitialiseCookie(cookie, importDrive, L"AVI", L"WAV");
}

bool XMLReader::resolveChanReferences(CED2* ced2) {
    for (CChannel* ch : each<CChannel>(ced2->channels)) {
        bool isVideo = ch->chanType == kChanVideo;
        for (CED2Cell* cel : each<CED2Cell>(ch->cels)) {
            if (cel->cookie.isValid() && cel->cookie.isMagic()) continue;
            bool singleImage = false;
            Cookie cookie = getReferenceCookie(cel->refId, isVideo, cel->refIsGhost, singleImage);
            if (cookie.isValid()) {
                cel->cookie = cookie;
            } else {
                cel->cookie = ch->chanType == kChanVideo ? video_black : audio_black;
            }
            if (singleImage) {
                cel->sourceIn = 0;
                cel->sourceOut = 0;
                cel->speed = 0;
            }
        }
    }
    return true;
}

bool XMLReader::findShotDerivedFromThis(Cookie& cookie, LightweightString<wchar_t>& originName) {
    if (prefs().getPreference(kSuppressRelink, false)) return false;
    if (!shotLogLinksReady) {
        logger.Out("        ---Indexing existing shot origin file-names");
        logger.Out("        ---Please wait ........");
        shotLogLinks.initShotLogLinks();
        shotLogLinksReady = true;
    }
    return shotLogLinks.SLLFindShot(originName, cookie);
}

// ---- material resolution ----

void XMLReader::convertURLtoUNC(LightweightString<wchar_t>& url, LightweightString<wchar_t>& unc) {
    unc = url;
    size_t slashes = url.find(L"//");
    if (url.empty() || slashes == LightweightString<wchar_t>::npos) return;
    // The scheme goes; percent escapes stay as they are.
    std::wstring text(url.view().substr(slashes));
    for (wchar_t& c : text)
        if (c == L'/') c = L'\\';
    unc = LightweightString<wchar_t>(text);
}

LightweightString<wchar_t> XMLReader::getNameExtFromArbitraryLocator(
    LightweightString<wchar_t> locator) {
    LightweightString<wchar_t> platform = OSPrivate()->fileSystem()->platformForm(locator);
    if (locator_IsURL(platform)) {
        LightweightString<wchar_t> unc;
        convertURLtoUNC(platform, unc);
        platform = unc;
    }
    return stripPath(platform);
}

void XMLReader::setFilenameInMaterialHeaders(CED2* ced2, LightweightString<wchar_t>& path) {
    for (CChannel* ch : each<CChannel>(ced2->channels)) {
        ch->mediaFilename = path;
        ch->mediaFilenameUtf8 = toUTF8(path);
        ch->mediaFilenameSet = true;
    }
}

bool XMLReader::locatorFileExists(LightweightString<wchar_t>& locator) {
    if (locator.empty()) return false;
    LightweightString<wchar_t> platform = OSPrivate()->fileSystem()->platformForm(locator);
    if (locator_IsURL(platform)) convertURLtoUNC(platform, locator);
    if (!locator_IsLocal(locator)) {
        LightweightString<wchar_t> local;
        if (locator_UNCToLocal(locator, local)) locator = local;
    }
    return fileExists(locator);
}

bool XMLReader::directoryFileExists(LightweightString<wchar_t> dir,
                                    LightweightString<wchar_t> nameExt, WStringList& found,
                                    int behaviour) {
    if (behaviour == 1)
        getDirectoryContents(dir, nameExt, found, 4);
    else if (behaviour == 2)
        getDirectoryContents(dir, nameExt, found, 6);
    return !found.empty();
}

void XMLReader::resolveShotMaterial(CED2* ced2, LightweightString<wchar_t> documentPath) {
    LightweightString<wchar_t> locator =
        OSPrivate()->fileSystem()->platformForm(ced2->originLocator);
    if (locator_IsURL(locator)) {
        LightweightString<wchar_t> unc;
        convertURLtoUNC(locator, unc);
        locator = unc;
    }
    logger.Out("locator <%s>", toUTF8(locator).c_str());
    LogBoth("Import xml clip locator <%S>\n", locator.c_str());

    // With the preference set nothing is linked and nothing is looked for:
    // every shot of the document goes offline.
    bool suppress = prefs().getPreference(kSuppressRelink, false);
    if (!suppress && !locator.empty()) {
        Cookie cookie =
            MediaFileToClipMap::instance().findClip(locator, MediaFileToClipMap::eMatchFile);
        if (cookie.isValid()) {
            logger.Out("linking to existing material file");
            ced2->reInitialiseCookie(cookie, DriveId(1), L"avi", L"wav");
            ced2->materialLinked = true;
            return;
        }
        logger.Out("no existing imported material");
        if (locatorFileExists(locator)) {
            logger.incIndent();
            logger.Out("material queued for import");
            logger.decIndent();
            materialQueue.push_back(locator);
            setFilenameInMaterialHeaders(ced2, locator);
            return;
        }
        // The shot remembers the file it wanted, whatever comes of it.
        setFilenameInMaterialHeaders(ced2, locator);
        LightweightString<wchar_t> nameExt = getNameExtFromArbitraryLocator(locator);
        if (!nameExt.empty()) {
            WStringList found;
            int behaviour = QvImport::getMediaScanningBehaviour();
            if (directoryFileExists(getPath(documentPath), nameExt, found, behaviour)) {
                LightweightString<wchar_t> candidate = found[0];
                logger.incIndent();
                logger.Out("linking to local media file <%s>", toUTF8(candidate).c_str());
                Cookie cookie = MediaFileToClipMap::instance().findClip(
                    candidate, MediaFileToClipMap::eMatchFile);
                if (cookie.isValid()) {
                    logger.decIndent();
                    ced2->reInitialiseCookie(cookie, DriveId(1), L"avi", L"wav");
                    ced2->materialLinked = true;
                    return;
                }
                logger.Out("material queued for import");
                logger.decIndent();
                materialQueue.push_back(candidate);
                return;
            }
        }
    }
    initCED2_WithNewCookie(ced2);
    ced2->materialOffline = true;
    logger.Out("Material offline");
}

bool XMLReader::importMaterialForShot(CED2* ced2) {
    if (materialQueue.empty()) return true;
    ImportFileList list = Importer::buildImportListFromFileList(materialQueue, nullptr, false);
    if (list.empty()) return true;
    Qv::Ptr<ImportFileInfoRep> record = list[0];
    record->setDrive(DiskManager::getDriveForTask("import", true));
    record->setChannelMask((record->selectVideo() ? 1u : 0u) | (record->selectAudio() ? 2u : 0u));
    Qv::FrameRate rate = static_cast<Qv::FrameRate>(1);
    record->setAudioImportSettings(
        AudioImportSync(0, rate, getMediumRollfromInputDetails(Qv::Image::eScanProgressive, rate),
                        getDefaultLabelTypeforFrameRate(rate)));

    MaterialImporter importer(record, logger, false);
    logger.incIndent();
    logger.Out("Importing material files");
    logger.incIndent();
    MaterialImporter::Result imported = importer.importFile();
    if (imported.status == 1 && !imported.modifiers.empty()) {
        EditModifier modifier = imported.modifiers[0];
        assignShotMetadata(modifier, ced2);
        Cookie editCookie = modifier.getCookie();
        ced2->reInitialiseCookie(editCookie, DriveId(1), L"avi", L"wav");
        ced2->materialLinked = true;
        ced2->materialImported = true;
        for (const LightweightString<wchar_t>& locator : materialQueue)
            filenameLinks.FNLaddNewLinkFile(editCookie, locator);
    }
    logger.decIndent();
    logger.decIndent();
    return true;
}

// ---- shot metadata ----

void XMLReader::assignShotMetadata(EditModifier& edit, CED2* ced2) {
    if (!edit || !ced2) return;
    auto withEdit = [&](auto change) {
        EditPtr p;
        p.i_open(edit.getCookie());
        if (p) change(*p.get());
        p.i_close();
    };
    if (!ced2->get_editName().empty())
        withEdit([&](Edit& e) { e.setName(ced2->get_editName(), false); });
    withEdit([&](Edit& e) {
        e.setConfig("scene", ced2->sceneTxt);
        e.setConfig("description", ced2->descriptionTxt);
        e.setConfig("notes", ced2->notesTxt);
        e.setConfig("shot", ced2->shotTxt);
        e.setConfig("who", ced2->whoTxt);
    });
    withEdit([&](Edit& e) {
        if (!ced2->get_reelId().empty()) e.setVideoReelId(ced2->get_reelId());
        if (!ced2->get_audioReelId().empty()) e.setOrigAudioReelId(ced2->get_audioReelId());
        if (!ced2->get_camReelId().empty()) e.setFilmReelId(ced2->get_camReelId());
    });
    ced2->WriteCuesData(edit);
    UpdateShotLogAudioSyncFromXMLData(edit, ced2);

    double duration = 0;
    MediumRollMedium medium = kMediumNone;
    withEdit([&](Edit& e) {
        MPosn_Xlate_Params params(Qv::eFrameRateNone, Qv::eFrameRateNone);
        medium = e.getSourceMedium();
        duration = mPosn_Xlate(e.getEndTime(), kMediumRealTime, medium, params);
        e.setSourceMediumDuration(duration);
    });
    {
        EditPtr p;
        p.i_open(edit.getCookie());
        ced2->WriteLabels(p, medium, duration);
        p.i_close();
    }
    withEdit([&](Edit& e) { e.verifyClipLength(); });
}

void XMLReader::UpdateShotLogAudioSyncFromXMLData(EditModifier& edit, CED2* ced2) {
    EditPtr p;
    p.i_open(edit.getCookie());
    if (!p) return;
    Edit& e = *p.get();
    ShotVideoMetadata metadata = e.getVideoMetadata();
    e.setSequence(ced2->get_sequenceNum(), true);
    Qv::Image::ScanMode scan = metadata.getScanMode();
    e.setFrameBased(ced2->get_filmOrigin() || scan == Qv::Image::eScanProgressive ||
                    scan == Qv::Image::eScanProgressiveSegmented);
    e.setTransfer(ced2->get_filmOrigin() ? (ced2->get_pulldown() ? 7 : 3) : 0);
    e.setAudioNaturalFilmSyncPlaybackResamplingFactor(
        Aud::Util::determineNaturalPlaybackResamplingFactor(metadata.getFrameRate()));
    if (!ced2->audioSampleRateSet) {
        p.i_close();
        return;
    }
    double best = 999999999.0;
    Aud::eBaseSampleRate bestBase = Aud::eBaseNone;
    Aud::eFactor bestFactor = Aud::eFactorNone;
    for (int b = 2; b <= 10; ++b) {
        auto base = static_cast<Aud::eBaseSampleRate>(b);
        double ratio = ced2->audioSampleRate / Aud::SampleRate::calcBaseSampleRate(base);
        Aud::eFactor factor = Aud::eFactorNone;
        Aud::eStatus status = Aud::SampleRate::determineFactorFromFloat(factor, ratio);
        // Strict: on a tie the lower base stays.
        if (Aud::isOk(status) && best > std::abs(1.0 - ratio)) {
            best = std::abs(1.0 - ratio);
            bestBase = base;
            bestFactor = factor;
        }
    }
    if (bestBase != Aud::eBaseNone) {
        e.setAudioInputSampleRate(Aud::SampleRate(bestBase, bestFactor));
    } else {
        LogBoth("Shot has an invalid audio sample rate\n");
        e.setAudioInputSampleRate(Aud::SampleRate(Aud::eBaseNone, bestFactor));
    }
    p.i_close();
}

}  // namespace XML
