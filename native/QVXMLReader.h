// The readers of the host's own document, versions 1.0 and 2.0.
//
// Both versions are one procedure. They differ only in rates: version 1.0 has
// one rate for the whole document (EditRes), version 2.0 a Rate in each Shot
// and Edit; NativeReaderCore reads both, told the version by its subclass.
#pragma once

#include "import/XMLReader.h"

namespace XML {

class NativeReaderCore : public XMLReader {
  public:
    // A rational: num and den among the first two attributes, both above
    // zero. False, and `result` untouched, otherwise.
    static bool QvXMLRationalToDouble(XMLParser::Value& value, double& result);

  protected:
    NativeReaderCore(LoggerHandle log, bool version2) : XMLReader(log), version2_(version2) {}

    int parseFile(const XMLParser& parser) override;
    Qv::FrameRate getSeqFrameRate(const XMLParser& parser) override;

  private:
    bool readShot(const XMLParser::Value& shot);
    bool readEdit(const XMLParser::Value& edit);
    void readLabels(const XMLParser& parser, CED2* record);
    void dropRecord(CED2List& list, CED2* record);

    bool version2_;
    double documentCelRate_ = 0;  // version 1.0: the ticks of EditRes
};

class QVXMLReader : public NativeReaderCore {
  public:
    explicit QVXMLReader(LoggerHandle log) : NativeReaderCore(log, false) {}
};

class QV2XMLReader : public NativeReaderCore {
  public:
    explicit QV2XMLReader(LoggerHandle log) : NativeReaderCore(log, true) {}
};

}  // namespace XML
