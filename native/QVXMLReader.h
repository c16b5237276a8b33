// The readers of the host's own document, versions 1.0 and 2.0.
//
// Both versions are one procedure. They differ only in rates: version 1.0 has
// one rate for the whole document (EditRes), version 2.0 a Rate in each Shot
// and Edit; NativeReaderCore reads both, told the version by its subclass.
#pragma once

#include <set>
#include <string>
#include <string_view>
#include <utility>

#include "import/Scan.h"
#include "import/XMLReader.h"

namespace XML {

class NativeReaderCore : public XMLReader {
  public:
    // A rational: num and den among the first two attributes, both above
    // zero. False, and `result` untouched, otherwise.
    static bool QvXMLRationalToDouble(XMLParser::Value& value, double& result);

    // Where an element stands: the elements it lies in, each by name and
    // index within the one before, from the document's top. Each level is
    // read through a parser over a copy of its text, so a place in the
    // document is found again through the document's index, and only for a
    // value that is reported.
    struct Spot {
        NativeReaderCore* reader = nullptr;
        struct Step {
            const char* tag;
            unsigned index;
        };
        Step steps[6] = {};
        unsigned depth = 0;
        Spot in(const char* tag, unsigned index) const {
            Spot s = *this;
            if (s.depth < 6) s.steps[s.depth++] = {tag, index};
            return s;
        }
        bool inShot() const { return depth > 0 && std::string_view(steps[0].tag) == "Shot"; }
        // A time or rate of `element` (or of its `attribute`) here whose text
        // cannot be used; `places` when it places material on a timeline.
        void unusable(const char* element, const char* attribute,
                      const LightweightString<char>& text, Damage why, bool places) const;
    };

  protected:
    NativeReaderCore(LoggerHandle log, bool version2) : XMLReader(log), version2_(version2) {}

    int parseFile(const XMLParser& parser) override;
    Qv::FrameRate getSeqFrameRate(const XMLParser& parser) override;

  private:
    bool readShot(const XMLParser::Value& shot, const Spot& at);
    bool readEdit(const XMLParser::Value& edit, const Spot& at);
    // A rate of the document: told unusable when its num or den is no
    // usable number, and, where its times are counted in the host's ticks
    // (`ticked`), when it is no rate the host has.
    void checkRate(const XMLParser::Value& value, const Spot& at, const char* element, bool ticked);
    void readLabels(const XMLParser& parser, CED2* record);
    void dropRecord(CED2List& list, CED2* record);

    // Keeps a document in view while it is read, so that what is told of it
    // names its lines; lets it go when the reading ends, however it ends.
    struct InView {
        InView(NativeReaderCore& core, const XMLParser& parser);
        ~InView();
        InView(const InView&) = delete;
        InView& operator=(const InView&) = delete;
        NativeReaderCore& core;
    };

    bool version2_;
    const XMLParser* document_ = nullptr;  // while a document is read
    std::set<std::pair<std::size_t, std::string>> unusableAt_;
    LineCounter lines_;
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
