#include "export/ExportDriver.h"

#include <algorithm>
#include <cmath>
#include <unordered_map>

#include "fcpxml/FCPXXMLWriter.h"
#include "host/Config.h"
#include "host/Edit.h"
#include "host/Paths.h"
#include "native/QVXMLWriter.h"
#include "plugin/Interchange.h"
#include "plugin/Status.h"
#include "xmeml/FCP5XMLWriter.h"

namespace XML {

int getAnXMLWriter(Qv::Ptr<XMLWriter>& writer, XMLExportOptions& options, Qv::FrameRate rate,
                   LoggerHandle log) {
    switch (options.flavour) {
        case XMLFlavourFCPX:
            writer = Qv::Ptr<XMLWriter>(new FCPXXMLWriter(log, options, rate));
            break;
        case XMLFlavourFCP5:
            writer = Qv::Ptr<XMLWriter>(new FCP5XMLWriter(log, options, rate));
            break;
        default:
            writer = Qv::Ptr<XMLWriter>(new QVXMLWriter(log, options, rate));
            break;
    }
    return kStatusOK;
}

namespace {

// The four lists that export preparation fills, and the run's state.
struct Run {
    Run(LoggerHandle log)
        : seqList(log, 0, DriveId(48)),
          ghostList(log, 0, DriveId(48)),
          deepGhostList(log, 0, DriveId(48)),
          shotList(log, 0, DriveId(48)) {}
    CED2List seqList, ghostList, deepGhostList, shotList;
};

LightweightString<wchar_t> outputPath(const XMLExportOptions& options, const XMLWriter& writer) {
    LightweightString<wchar_t> ext = writer.getFileExtension();
    if (!options.fileName.empty()) {
        LightweightString<wchar_t> stem = stripExtension(options.fileName);
        return Qv::FilespecUtils::makeValidFilespec(options.directory, stem, ext, false, L'_');
    }
    // A nameless edit: a fresh identity appended to the directory as it
    // stands, a full stop, and the extension with its own full stop.
    return options.directory + newCookie(kCookieVideo, 0).asWString() + L"." + ext;
}

// Writes the body of a document with sequences, or a multi-angle group in
// their place. False when the writer failed.
bool writeBody(XMLWriter& writer, Run& run, const XMLExportOptions& options, Qv::FrameRate rate) {
    AlternatesList alternates;
    CED2* seq = nullptr;
    // The order of these tests matters: the group test fills the list.
    if (run.seqList.hasOneExportableSequence(seq) &&
        config_int("suppress_FCP7XML_multiclip_group", 0) == 0 &&
        seqHasAlternateGroup(seq, alternates, rate) && options.silent &&
        writer.supportsMulticlipGroup())
        return writer.writeMulticlipGroup(alternates);
    return writer.writeSequence(run.seqList);
}

// Steps from expansion to the body; the status they end with.
int writeDocument(const Cookie& source, Edit& edit, XMLExportOptions& options, LoggerHandle log,
                  Qv::Ptr<XMLWriter>& writer, ExportResult& result) {
    Run run(log);
    CookieVec cookies;
    cookies.push_back(source);
    Qv::FrameRate rate = edit.getFrameRate();

    int status = run.seqList.PrepareED2ListsForExport(
        cookies, run.seqList, run.ghostList, run.deepGhostList, run.shotList, false, 0, log, rate,
        options.prepareOption, false, false, false, false, false);
    if (status != kStatusOK) return status;

    const bool legacy = legacyInterchange();
    // Final Cut knows one level of sub-clip; say so before any file exists.
    // The original writers refused the deeper levels that nested sequences
    // and sub-clips of sub-clips make; both writers hold them now.
    bool finalCut = options.flavour == XMLFlavourFCPX || options.flavour == XMLFlavourFCP5;
    if (legacy && finalCut && !run.deepGhostList.isEmpty()) {
        log.write(L"FCP V5 export ... more than a single level of sub-clip reference",
                  LoggerBase::eError);
        return kStatusFailed;
    }
    if (run.seqList.isEmpty() && run.ghostList.isEmpty() && run.shotList.isEmpty())
        return kStatusOK;
    // The original writers wrote a length that is no number as it came.
    if (!legacy)
        giveUnknownLengths(run.shotList, {&run.seqList, &run.ghostList, &run.deepGhostList}, log);

    status = getAnXMLWriter(writer, options, rate, log);
    if (status != kStatusOK) return status;

    LightweightString<wchar_t> path = outputPath(options, *writer);
    status = writer->open(path);
    if (status != kStatusOK) return status;

    if (run.seqList.isEmpty()) {
        writer->videoMetadata = ShotVideoMetadata();
        writer->writeHeader();
        if (!writer->writeShotOnly(run.shotList, run.ghostList)) return kStatusFailed;
        if (!options.silent) log.write(path, LoggerBase::eFileWritten);
        return kStatusOK;
    }

    if (CED2* first = run.seqList.firstRecord())
        writer->videoMetadata = first->get_shotVideoMetadata();
    writer->writeHeader();
    if (!writer->writeAllShots(run.shotList, run.ghostList)) status = kStatusFailed;
    writer->writeGhosts(run.deepGhostList);
    writer->writeGhosts(run.ghostList);
    if (!writeBody(*writer, run, options, rate)) return kStatusFailed;
    // A failure of writeAllShots leaves the status at 0 but the path listed.
    if (!options.silent) result.files.push_back(path);
    return status;
}

}  // namespace

ExportResult XMLExportFiles(const Cookie& source, XMLExportOptions& options, LoggerHandle log) {
    ExportResult result;
    result.status = kStatusOK;
    XMLExportOptions local = options;

    if (!OS()->files()->exists(local.directory)) {
        result.status = kStatusNoDirectory;
        return result;
    }

    Qv::Ptr<XMLWriter> writer;
    EditPtr edit;
    edit.i_open(source, eEditOpenDefault);
    if (edit) {
        if (local.fileName.empty()) local.fileName = edit->getName();
        result.status = writeDocument(source, *edit.get(), local, log, writer, result);
    }
    // The edit is closed before the file is saved.
    edit.i_close();
    if (result.status == kStatusOK && writer)
        writer->saveAndClose();
    else if (writer)
        writer->abandon();
    return result;
}

}  // namespace XML
