// The base of the document readers.
//
// A concrete reader turns a document into three lists of records: shots,
// ghosts (sub-clips and other intermediate edits) and sequences, whose cels
// refer to each other by text. This base does what is common to every
// flavour: it finds or imports the media of each shot, turns the textual
// references into cookies, and writes the records to the store.
#pragma once

#include <vector>

#include "host/ED2.h"
#include "host/Media.h"
#include "host/Paths.h"
#include "host/XMLParser.h"
#include "import/RefIdMap.h"
#include "plugin/Results.h"

namespace XML {

class XMLReader : public iObject {
  public:
    ~XMLReader() override;

    // The whole import of one document. One reader imports one document.
    ImportResult importFile(const XMLParser& parser, const Qv::Ptr<ImportFileInfoRep>& fileInfo,
                            LoggerHandle logger);
    // The same in two steps, so that the document and its index can be let
    // go before the records are written: the parse, which fills the lists
    // and keeps nothing of the document, and then the rest, given what the
    // parse returned.
    int readDocument(const XMLParser& parser, const Qv::Ptr<ImportFileInfoRep>& fileInfo,
                     LoggerHandle logger);
    ImportResult finishImport(int status) { return completeImport(status, documentPath_); }
    Qv::FrameRate getxmlFrameRate(const XMLParser& parser) { return getSeqFrameRate(parser); }

    // The cookie a reference stands for; invalid when it names nothing.
    Cookie getReferenceCookie(LightweightString<char>& refId, bool isVideo, bool isGhostRef,
                              bool& isSingleImage);
    int initCED2_WithNewCookie(CED2* ced2);
    // Rewrites every cel of a record from its reference; what resolves to
    // nothing becomes black or silence. Always true.
    bool resolveChanReferences(CED2* ced2);
    // A shot of the store by the name of the file it came from.
    bool findShotDerivedFromThis(Cookie& cookie, LightweightString<wchar_t>& originName);
    static double celFramesToTime(unsigned int frames, double rate) { return frames / rate; }

    // Material resolution: linked to media the store has, imported from the
    // named file, found beside the document, or offline.
    void resolveShotMaterial(CED2* ced2, LightweightString<wchar_t> documentPath);
    bool importMaterialForShot(CED2* ced2);
    void setFilenameInMaterialHeaders(CED2* ced2, LightweightString<wchar_t>& path);
    bool locatorFileExists(LightweightString<wchar_t>& locator);
    bool directoryFileExists(LightweightString<wchar_t> dir, LightweightString<wchar_t> nameExt,
                             WStringList& found, int behaviour);
    static void convertURLtoUNC(LightweightString<wchar_t>& url, LightweightString<wchar_t>& unc);
    LightweightString<wchar_t> getNameExtFromArbitraryLocator(LightweightString<wchar_t> locator);

    // Carries what the document said of a shot into its newly imported edit.
    void assignShotMetadata(EditModifier& edit, CED2* ced2);
    void UpdateShotLogAudioSyncFromXMLData(EditModifier& edit, CED2* ced2);

    // The lists a reader fills; for tests and callers that look afterwards.
    CED2List& shots() { return shotList; }
    CED2List& ghosts() { return ghostList; }
    CED2List& sequences() { return seqList; }

  protected:
    explicit XMLReader(LoggerHandle logger);

    // What every import does once the lists are filled: finds the media of
    // each shot, resolves the references of ghosts and sequences, and writes
    // the records. `status` is the parse's; anything but 1 is returned at once.
    ImportResult completeImport(int status, const LightweightString<wchar_t>& documentPath);

    // Fills the three lists; 1 on success.
    virtual int parseFile(const XMLParser& parser) = 0;
    virtual Qv::FrameRate getSeqFrameRate(const XMLParser& parser) = 0;

    LoggerHandle logger;
    LightweightString<wchar_t> documentPath_;
    RefIdMap clipRefs, ghostRefs, fileRefs;
    CED2List shotList, ghostList, seqList;
    std::vector<LightweightString<wchar_t>> materialQueue;
    Qv::FrameRate seqFrameRate = Qv::eFrameRateNone;
    DriveId importDrive;
    FilenameLinkHandler filenameLinks;
    ShotLogLinkHandler shotLogLinks;
    bool shotLogLinksReady = false;
};

}  // namespace XML
