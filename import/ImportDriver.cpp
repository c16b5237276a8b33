#include "import/ImportDriver.h"

#include <memory>

#include "host/OS.h"
#include "native/QVXMLReader.h"
#include "plugin/Status.h"
#include "xmeml/FCP5XMLReader.h"

namespace XML {

XMLFlavour detectXMLFlavour(const XMLParser& parser) {
    // Only the attributes are read: the text of the root element is the
    // whole document.
    std::vector<XMLParser::Tag> xmeml = parser.getAttributes("xmeml", 0);
    if (!xmeml.empty() && xmeml[0].name == "version") {
        const LightweightString<char>& v = xmeml[0].value;
        if (v == "5") return XMLFlavourFCP5;
        if (v == "4") return XMLFlavourFCP4;
        if (v == "3") return XMLFlavourFCP3;
        if (v == "2") return XMLFlavourFCP2;
        if (v == "1") return XMLFlavourFCP1;
    }
    std::vector<XMLParser::Tag> native = parser.getAttributes("QVXML", 0);
    if (!native.empty() && native[0].name == "Version") {
        const LightweightString<char>& v = native[0].value;
        if (v == "1.0") return XMLFlavourQV1;
        if (v == "2.0") return XMLFlavourQV2;
    }
    return XMLFlavourNone;
}

int getAnXMLReader(Qv::Ptr<XMLReader>& reader, XMLFlavour flavour, LoggerHandle log) {
    switch (flavour) {
        case XMLFlavourQV1:
            reader = Qv::Ptr<XMLReader>(new QVXMLReader(log));
            return kStatusOK;
        case XMLFlavourQV2:
            reader = Qv::Ptr<XMLReader>(new QV2XMLReader(log));
            return kStatusOK;
        case XMLFlavourFCP5:
        case XMLFlavourFCP4:
        case XMLFlavourFCP3:
        case XMLFlavourFCP2:
        case XMLFlavourFCP1:
            reader = Qv::Ptr<XMLReader>(new FCP5XMLReader(log));
            return kStatusOK;
        default:
            return kStatusNoReader;
    }
}

namespace {

// A document read whole into memory, with a zero after its last byte: the
// bytes the host holds already, or a copy read from the disk.
struct Document {
    int status = kStatusOK;
    const char* text = nullptr;
    Qv::Ptr<iFile> held;  // keeps the host's bytes
    std::unique_ptr<char[]> buffer;
};

Document readDocument(const LightweightString<wchar_t>& path) {
    Document doc;
    Qv::Ptr<iFile> file = OS()->files()->open(path, kOpenForReading);
    if (!file) {
        doc.status = kStatusUnreadable;
        return doc;
    }
    std::uint64_t size = file->size();
    // Sizes are 32-bit: files of 4 GiB or more are not read.
    if (size == 0 || size >= 0xFFFFFFFFull) {
        doc.status = kStatusUnreadable;
        return doc;
    }
    if (const char* held = file->contents()) {
        doc.text = held;
        doc.held = file;
        return doc;
    }
    doc.buffer.reset(new (std::nothrow) char[size + 1]);
    if (!doc.buffer) {
        doc.status = kStatusNoMemory;
        return doc;
    }
    unsigned count = file->read(doc.buffer.get(), static_cast<unsigned>(size));
    if (count != size) doc.status = kStatusUnreadable;
    doc.buffer[count] = '\0';
    doc.text = doc.buffer.get();
    return doc;
}

}  // namespace

ImportResult XMLImportFiles(const ImportFileList& files, LoggerHandle log) {
    ImportResult result;
    result.status = kStatusOK;
    for (const Qv::Ptr<ImportFileInfoRep>& entry : files) {
        if (result.status != kStatusOK) break;
        Document doc = readDocument(entry ? entry->name() : LightweightString<wchar_t>());
        if (doc.status != kStatusOK) {
            result.status = doc.status;
            break;
        }
        Qv::Ptr<XMLReader> reader;
        int parsed = 0;
        {
            XMLParser parser(doc.text, -1);
            if (parser.outOfMemory()) {
                result.status = kStatusNoMemory;
                break;
            }
            XMLFlavour flavour = detectXMLFlavour(parser);
            if (flavour < XMLFlavourQV1 || flavour > XMLFlavourQV2) {
                result.status = kStatusUnknown;
                break;
            }
            result.status = getAnXMLReader(reader, flavour, log);
            if (result.status != kStatusOK) break;
            parsed = reader->readDocument(parser, entry, log);
        }
        // The lists hold what the records need: the document and its index
        // go before the records are written, which is when an import needs
        // the most memory.
        doc.text = nullptr;
        doc.held = nullptr;
        doc.buffer.reset();
        ImportResult one = reader->finishImport(parsed);
        result.status = one.status;
        for (const EditModifier& m : one.edits)
            result.edits.push_back(m);
    }
    return result;
}

Qv::FrameRate getSequenceFrameRate(const LightweightString<wchar_t>& path) {
    Document doc = readDocument(path);
    if (doc.status != kStatusOK) return Qv::eFrameRateNone;
    XMLParser parser(doc.text, -1);
    XMLFlavour flavour = detectXMLFlavour(parser);
    if (flavour < XMLFlavourQV1 || flavour > XMLFlavourQV2) return Qv::eFrameRateNone;
    Qv::Ptr<XMLReader> reader;
    if (getAnXMLReader(reader, flavour, LoggerHandle()) != kStatusOK) return Qv::eFrameRateNone;
    return reader->getxmlFrameRate(parser);
}

void getXMLSequenceInfo(ImportFileList&) {}

}  // namespace XML
