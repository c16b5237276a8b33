// A reader whose document is whatever the test puts in its lists, so that
// the common steps of an import can be tested without a format.
#pragma once

#include "import/XMLReader.h"

namespace qvtest {

class ListReader : public XML::XMLReader {
  public:
    explicit ListReader(LoggerHandle log) : XML::XMLReader(log) {}
    using XML::XMLReader::clipRefs;
    using XML::XMLReader::ghostRefs;
    using XML::XMLReader::materialQueue;

    // A shot record with one video channel registered under `ref`.
    CED2* addShot(const char* ref, const std::wstring& locator = L"") {
        CED2* shot = new CED2(true);
        shot->editName = fromUTF8(ref, -1);
        shot->originLocator = locator.c_str();
        CChannel* ch = shot->CreateEditChannel(0, kChanVideo);
        ch->addCel(CelData{})->editOut = 1;
        clipRefs.addRef(ref, shot, true, 0, kChanVideo);
        shots().append(shot);
        return shot;
    }

    int status = 1;

  protected:
    int parseFile(const XMLParser&) override { return status; }
    Qv::FrameRate getSeqFrameRate(const XMLParser&) override { return Qv::eFrameRate25; }
};

// The folder of the tiny media files that the import tests use.
inline std::string mediaDir() {
    return std::string(QVXML_TEST_DATA) + "/media";
}

}  // namespace qvtest
