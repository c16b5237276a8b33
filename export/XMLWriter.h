// What the export driver knows of a writer.
//
// A writer owns its output document, a copy of the run's options, the log and
// the sequence rate. The driver calls its operations in a fixed order:
// writeHeader, writeAllShots, writeGhosts (twice), then writeSequence or
// writeMulticlipGroup; for shots alone writeHeader and writeShotOnly. The
// base operations do nothing and succeed.
#pragma once

#include "export/AlternatesList.h"
#include "export/XmlFile.h"
#include "host/ED2.h"
#include "host/FrameRate.h"
#include "host/VideoFormat.h"
#include "host/XMLExportOptions.h"

namespace XML {

class XMLWriter : public iObject {
  public:
    XMLWriter(LoggerHandle log, XMLExportOptions& options, Qv::FrameRate rate);
    ~XMLWriter() override = default;

    virtual bool writeHeader() { return true; }
    virtual bool writeAllShots(CED2List&, CED2List&) { return true; }
    virtual bool writeGhosts(CED2List&) { return true; }
    virtual bool writeSequence(CED2List&) { return true; }
    virtual bool writeShotOnly(CED2List&, CED2List&) { return true; }
    virtual bool supportsMulticlipGroup() { return false; }
    virtual bool writeMulticlipGroup(AlternatesList&) { return true; }
    virtual LightweightString<wchar_t> getFileExtension() const { return L".xml"; }

    // Creates the output file, replacing one that is there. 1, or 2001 when
    // the file could not be created.
    int open(const LightweightString<wchar_t>& path);
    void saveAndClose() { xmlFile.saveAndClose(); }
    // After a failure: the file holds nothing of the document.
    void abandon();

    // time x rate + 0.5, cut toward zero to a 32-bit integer.
    static int celTimeToFrames(double time, double rate);
    // The same at the whole-number timebase of the sequence rate.
    int seqCelTimeToFrames(double time) const;
    // The real seconds of `time`, cel time of an edit at `rate`: a cel second
    // holds the rate's whole-number timebase of frames, so that a cel second
    // of 29.97 lasts 1.001 seconds. A rate that is none counts real seconds.
    static double realSeconds(double time, Qv::FrameRate rate);
    // The same for cel time of `record`, at its edit's rate.
    static double realSeconds(const CED2* record, double time);
    // The exact rational of a rate, "???" for none.
    static void qvFRtoRational(Qv::FrameRate rate, LightweightString<wchar_t>& num,
                               LightweightString<wchar_t>& den);
    // rate x 10000 cut toward zero, over "10000".
    static void doubletoRational(double rate, LightweightString<wchar_t>& num,
                                 LightweightString<wchar_t>& den);
    // A reel identifier holding "&#" (the start of a character reference).
    static bool isDodgyReelID(const LightweightString<char>& reel);
    // A name ending in the extension of a still-image format, in any case.
    static bool isImageSequence(LightweightString<wchar_t> name);
    // Whether the first cel of the first channel plays an image sequence.
    static bool isImageSequence(CED2* ced2);

    XmlFile xmlFile;
    // The configuration key xml_legacy_interchange, read once for the run:
    // write each format as the interchange first wrote it instead of as other editors
    // read it.
    const bool legacy;
    Qv::FrameRate seqRate;
    ShotVideoMetadata videoMetadata;
    LoggerHandle log;
    XMLExportOptions options;

  private:
    LightweightString<wchar_t> path_;  // the file open() created
};

}  // namespace XML
