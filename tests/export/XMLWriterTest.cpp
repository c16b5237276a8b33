// The writers' base: reels, image sequences, and the opening, streaming and
// abandoning of the file a document goes to.
#include <gtest/gtest.h>

#include <memory>

#include "export/XMLWriter.h"
#include "export/XmlFile.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace XML;

TEST(WriterBase, ReelsAndImageSequences) {
    EXPECT_TRUE(XMLWriter::isDodgyReelID("A&#38;B"));
    EXPECT_TRUE(XMLWriter::isDodgyReelID("&#"));
    EXPECT_FALSE(XMLWriter::isDodgyReelID("A&B"));
    EXPECT_FALSE(XMLWriter::isDodgyReelID(""));
    EXPECT_TRUE(XMLWriter::isImageSequence(L"frame_0001.DPX"));
    EXPECT_TRUE(XMLWriter::isImageSequence(L"png"));
    EXPECT_FALSE(XMLWriter::isImageSequence(L"movie.mov"));
    EXPECT_FALSE(XMLWriter::isImageSequence(L""));
    XMLExportOptions o;
    XMLWriter base(LoggerHandle(), o, Qv::eFrameRate25);
    EXPECT_EQ(base.getFileExtension(), L".xml");
}

// A document far longer than the part the printer holds.
void writeLong(XmlFile& f) {
    xmlElement root(f, "root");
    for (int i = 0; i < 20000; ++i) {
        xmlElement item(f, "item", {L"id=\"i" + Qv::WStringFromInteger(i) + L"\""});
        xmlInlineElement(f, "name", L"Sn\u00f8 & <" + Qv::WStringFromInteger(i) + L">");
    }
}

class WriterOpen : public qvtest::StoreTest {
  protected:
    // A writer that has opened `path` and written the long document, which
    // has gone out to the file in pieces as it was made.
    std::unique_ptr<XMLWriter> writingLong(const std::string& path) {
        auto w = std::make_unique<XMLWriter>(capturingLog(), options, Qv::eFrameRate25);
        EXPECT_EQ(w->open(fromUTF8(path.c_str())), 1);
        writeLong(w->xmlFile);
        EXPECT_TRUE(w->xmlFile.streamed());
        return w;
    }
    XMLExportOptions options;
};

TEST_F(WriterOpen, ReplacesAnOldFileAndSaysSo) {
    qvtest::TempDir dir;
    std::string path = dir.file("out.xml");
    qvtest::writeFile(path, "old content that is longer than the new");
    XMLExportOptions o;
    XMLWriter w(capturingLog(), o, Qv::eFrameRate25);
    ASSERT_EQ(w.open(fromUTF8(path.c_str())), 1);
    EXPECT_EQ(qvtest::readFile(path), "") << "the old file is gone before anything is written";
    w.xmlFile.printer.OpenElement("root", false);
    w.saveAndClose();
    w.xmlFile.file.reset();
    EXPECT_EQ(qvtest::readFile(path), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<root/>\n");
    EXPECT_TRUE(sink->contains(("Creating XML file \"" + path + "\"").c_str()));
}

TEST_F(WriterOpen, FailureIs2001AndTheMessageStillStands) {
    qvtest::TempDir dir;
    XMLExportOptions o;
    XMLWriter w(capturingLog(), o, Qv::eFrameRate25);
    EXPECT_EQ(w.open(dir.wpath() + L"/no/such/dir/out.xml"), 2001);
    EXPECT_TRUE(sink->contains("Creating XML file"));

    XMLExportOptions quiet;
    quiet.silent = true;
    sink->lines.clear();
    XMLWriter s(capturingLog(), quiet, Qv::eFrameRate25);
    EXPECT_EQ(s.open(dir.wpath() + L"/ok.xml"), 1);
    EXPECT_TRUE(sink->lines.empty());
}

// A long document written through a file is the document the printer makes
// in memory.
TEST_F(WriterOpen, ALongDocumentGoesOutInPiecesAsItWouldWhole) {
    XmlFile whole;
    writeLong(whole);
    whole.printer.CloseElement(false);
    std::string expected = whole.text();
    ASSERT_GT(expected.size(), 3u * Printer::kChunk);

    qvtest::TempDir dir;
    std::string path = dir.file("long.xml");
    std::unique_ptr<XMLWriter> w = writingLong(path);
    EXPECT_LE(std::string(w->xmlFile.text()).size(), static_cast<std::size_t>(Printer::kChunk));
    w->saveAndClose();
    w->xmlFile.file.reset();
    EXPECT_EQ(qvtest::readFile(path), expected);
}

TEST_F(WriterOpen, AWriterThatFailsLeavesNoPartOfItsDocument) {
    qvtest::TempDir dir;
    std::string path = dir.file("long.xml");
    writingLong(path)->abandon();
    EXPECT_EQ(qvtest::readFile(path), "") << "the empty file of a failed export";

    XMLWriter small(capturingLog(), options, Qv::eFrameRate25);
    ASSERT_EQ(small.open(fromUTF8(path.c_str())), 1);
    xmlInlineElement(small.xmlFile, "short", L"text");
    small.abandon();
    EXPECT_EQ(qvtest::readFile(path), "") << "nothing went out";
}

}  // namespace
