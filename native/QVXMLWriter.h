// The writer of the host's own document, version 2.0.
//
// A plain dump of the prepared records: one Shot per shot, one Edit with
// IsGhost per intermediate edit, one Edit per sequence, each with its
// channels of cel events. References between records go by text: a cel's Ref
// is the text of its cookie, which is the Id of the channel it plays.
#pragma once

#include "export/XMLWriter.h"

namespace XML {

class QVXMLWriter : public XMLWriter {
  public:
    QVXMLWriter(LoggerHandle log, XMLExportOptions& options, Qv::FrameRate rate)
        : XMLWriter(log, options, rate) {}

    bool writeHeader() override;
    bool writeAllShots(CED2List& shots, CED2List& ghosts) override;
    bool writeGhosts(CED2List& ghosts) override;
    bool writeSequence(CED2List& sequences) override;
    bool writeShotOnly(CED2List&, CED2List&) override { return true; }
    bool supportsMulticlipGroup() override { return false; }
    bool writeMulticlipGroup(AlternatesList&) override { return true; }

    void writeLabel(EditLabel label);
    void printRateElement(double rate);
    void printSeqRateElement();
    bool writeCELList(CED2* record, bool forShot);

  private:
    // An Edit element, for a ghost (its own rate, IsGhost) or a sequence.
    bool writeEdit(CED2* record, bool ghost);
    void writeRational(const char* name, double value);
    void writeInteger(const char* name, int value);
};

}  // namespace XML
