#include <gtest/gtest.h>

#include "import/ImportDriver.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace XML;

XMLFlavour flavourOf(const char* text) {
    XMLParser parser(text, -1);
    return detectXMLFlavour(parser);
}

TEST(FlavourDetection, FirstAttributeDecides) {
    EXPECT_EQ(flavourOf("<xmeml version=\"5\"><sequence/></xmeml>"), XMLFlavourFCP5);
    EXPECT_EQ(flavourOf("<?xml version=\"1.0\"?><!DOCTYPE xmeml><xmeml version=\"1\"/>"),
              XMLFlavourFCP1);
    EXPECT_EQ(flavourOf("<xmeml version=\"4\"/>"), XMLFlavourFCP4);
    EXPECT_EQ(flavourOf("<xmeml version=\"5.0\"/>"), XMLFlavourNone);
    EXPECT_EQ(flavourOf("<xmeml id=\"x\" version=\"5\"/>"), XMLFlavourNone);
    EXPECT_EQ(flavourOf("<QVXML Version=\"1.0\"><EditRes/></QVXML>"), XMLFlavourQV1);
    EXPECT_EQ(flavourOf("<QVXML Version=\"2.0\"/>"), XMLFlavourQV2);
    EXPECT_EQ(flavourOf("<QVXML version=\"2\"/>"), XMLFlavourNone) << "as the writer writes it";
    EXPECT_EQ(flavourOf("<QVXML Version=\"3.0\"/>"), XMLFlavourNone);
    EXPECT_EQ(flavourOf("<QVXML a=\"b\" Version=\"2.0\"/>"), XMLFlavourNone);
    EXPECT_EQ(flavourOf("<fcpxml version=\"1.4\"/>"), XMLFlavourNone);
    EXPECT_EQ(flavourOf("just text"), XMLFlavourNone);
}

TEST(ReaderFactory, OnlyFlavoursWithAReader) {
    Qv::Ptr<XMLReader> reader;
    EXPECT_EQ(getAnXMLReader(reader, XMLFlavourQV1, LoggerHandle()), 1);
    EXPECT_TRUE(reader);
    EXPECT_EQ(getAnXMLReader(reader, XMLFlavourQV2, LoggerHandle()), 1);
    Qv::Ptr<XMLReader> none;
    for (XMLFlavour f : {XMLFlavourNone, XMLFlavourFCPX, static_cast<XMLFlavour>(9)}) {
        EXPECT_EQ(getAnXMLReader(none, f, LoggerHandle()), 14) << f;
        EXPECT_FALSE(none);
    }
}

class ImportDriver : public qvtest::StoreTest {
  protected:
    ImportFileList files(std::initializer_list<std::string> paths) {
        ImportFileList list;
        for (const std::string& p : paths)
            list.push_back(
                Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({fromUTF8(p.c_str())})));
        return list;
    }
    std::string document(const std::string& name, const std::string& content) {
        std::string path = dir.file(name);
        qvtest::writeFile(path, content);
        return path;
    }
    static std::string nativeDocument(const char* sequenceName) {
        return std::string("<?xml version=\"1.0\"?><QVXML Version=\"2.0\"><Edit><Name>") +
               sequenceName +
               "</Name><Duration>25</Duration><Rate num=\"250000\" den=\"10000\"/>"
               "<ChanList><Chan><Name>V1</Name><Id>x</Id><Type>Video</Type><CelEvent>"
               "<Ref magic=\"false\">nothing</Ref><EditIn>0</EditIn><EditOut>25</EditOut>"
               "<Offset>0</Offset></CelEvent></Chan></ChanList></Edit></QVXML>";
    }
    qvtest::TempDir dir;
};

TEST_F(ImportDriver, UnreadableDocumentsAre2000) {
    EXPECT_EQ(XMLImportFiles(files({dir.file("missing.xml")}), capturingLog()).status, 2000);
    EXPECT_EQ(XMLImportFiles(files({document("empty.xml", "")}), capturingLog()).status, 2000);
    EXPECT_EQ(XMLImportFiles(files({dir.path()}), capturingLog()).status, 2000);
}

TEST_F(ImportDriver, UnknownFlavoursAre2005) {
    EXPECT_EQ(XMLImportFiles(files({document("t.xml", "not xml at all")}), capturingLog()).status,
              2005);
    std::string fcpx = std::string(QVXML_CORPUS) + "/fcpxml/fcpx_example.fcpxml";
    if (qvtest::exists(fcpx)) {
        EXPECT_EQ(XMLImportFiles(files({fcpx}), capturingLog()).status, 2005);
    }
    EXPECT_EQ(
        XMLImportFiles(files({document("v3.xml", "<QVXML Version=\"3.0\"/>")}), capturingLog())
            .status,
        2005);
}

TEST_F(ImportDriver, TheListStopsAtItsFirstFailureAndKeepsEarlierEdits) {
    std::string first = document("first.xml", nativeDocument("First"));
    std::string bad =
        document("bad.xml", "<QVXML Version=\"2.0\"><Edit><Name>x</Name></Edit></QVXML>");
    std::string third = document("third.xml", nativeDocument("Third"));
    ImportResult r = XMLImportFiles(files({first, bad, third}), capturingLog());
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.edits.size(), 1u);
    EXPECT_EQ(r.edits[0]->name, L"First");
    EXPECT_FALSE(store.findByName(L"Third"));
    EXPECT_TRUE(r.cookies.empty());
}

// What an import makes, without its cookies: edits, channels and cels.
std::string summary(const ImportResult& r) {
    std::string out;
    for (const EditModifier& m : r.edits) {
        out += toUTF8(m->name).str() + "\n";
        for (const StoredChannel& ch : m->channels) {
            out += " " + ch.name.str() + ":";
            for (const CelData& c : ch.cels)
                out += " " + std::to_string(c.editIn) + "-" + std::to_string(c.editOut) + "@" +
                       std::to_string(c.sourceIn) + "x" + std::to_string(c.speed) +
                       (c.cookie.isValid() ? "" : "?");
            out += "\n";
        }
    }
    return out;
}

// The records keep nothing of the document: it and its index are let go
// before the records are written, and a document wiped at that point
// imports as one left alone.
TEST_F(ImportDriver, TheDocumentIsLetGoBeforeTheRecordsAreWritten) {
    for (const char* name : {"nested_sequence.xml", "bare_clip_items.xml", "several_streams.xml",
                             "fades_to_black.xml", "golden_sequence.xml"}) {
        std::string path = std::string(QVXML_TEST_DATA) + "/xmeml/" + name;
        std::string text = qvtest::readFile(path);
        ASSERT_FALSE(text.empty()) << name;
        ImportFileList list = files({path});
        Qv::Ptr<XMLReader> reader;
        int parsed = 0;
        {
            XMLParser parser(text.c_str(), static_cast<int>(text.size()));
            ASSERT_EQ(getAnXMLReader(reader, detectXMLFlavour(parser), capturingLog()), 1);
            parsed = reader->readDocument(parser, list[0], capturingLog());
        }
        text.assign(text.size(), 'x');
        ImportResult wiped = reader->finishImport(parsed);
        ImportResult whole = XMLImportFiles(list, capturingLog());
        ASSERT_EQ(wiped.status, 1) << name;
        ASSERT_EQ(whole.status, 1) << name;
        EXPECT_FALSE(wiped.edits.empty()) << name;
        EXPECT_EQ(summary(wiped), summary(whole)) << name;
    }
}

TEST_F(ImportDriver, SequenceRateWithoutImporting) {
    std::string doc = document("doc.xml", nativeDocument("S"));
    EXPECT_EQ(getSequenceFrameRate(fromUTF8(doc.c_str())), Qv::eFrameRate25);
    EXPECT_EQ(getSequenceFrameRate(fromUTF8(dir.file("missing.xml").c_str())), Qv::eFrameRateNone);
    EXPECT_EQ(store.size(), 0u);
    EXPECT_TRUE(sink->lines.empty());
}

}  // namespace
