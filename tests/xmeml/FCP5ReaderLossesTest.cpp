// What the xmeml reader cannot play as its document means it: each such item
// is a loss record with its kind, sequence, track, frame and timecode, and
// names its clip item; what plays black or silence has a warning that says
// where.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "import/ImportDriver.h"
#include "plugin/Interchange.h"
#include "tests/support/TestSupport.h"

namespace {

// A cut of 25 frames a second that starts at 01:00:00:00.
std::string cut(const std::string& video1, const std::string& video2, const std::string& audio) {
    return "<xmeml version=\"4\"><sequence id=\"sequence-1\"><name>Reel 1</name>"
           "<duration>300</duration><rate><timebase>25</timebase></rate>"
           "<timecode><rate><timebase>25</timebase></rate><string>01:00:00:00</string>"
           "<frame>90000</frame><source>source</source><displayformat>NDF</displayformat>"
           "</timecode><media><video><track>" +
           video1 + "</track><track>" + video2 + "</track></video><audio><track>" + audio +
           "</track></audio></media></sequence></xmeml>";
}

std::string item(const char* id, const char* name, int start, int end,
                 const std::string& inside = "<file id=\"two\"/>") {
    return std::string("<clipitem id=\"") + id + "\"><name>" + name +
           "</name><rate><timebase>25</timebase></rate><start>" + std::to_string(start) +
           "</start><end>" + std::to_string(end) + "</end><in>0</in><out>" +
           std::to_string(end < 0 ? 100 : end - start) + "</out>" + inside + "</clipitem>";
}

std::string transition(int start, int end, const char* category, const char* id, const char* name) {
    return "<transitionitem><start>" + std::to_string(start) + "</start><end>" +
           std::to_string(end) + "</end><alignment>center</alignment><effect><name>" + name +
           "</name><effectid>" + id + "</effectid><effectcategory>" + category +
           "</effectcategory><effecttype>transition</effecttype></effect></transitionitem>";
}

const char* const kTwo =
    "<file id=\"two\"><name>two.mov</name><pathurl>file://localhost/media/two.mov</pathurl>"
    "<rate><timebase>25</timebase></rate><duration>1000</duration>"
    "<media><video><duration>1000</duration></video>"
    "<audio><channelcount>2</channelcount></audio></media></file>";

class ReaderLosses : public qvtest::StoreTest {
  protected:
    void import(const std::string& text) {
        qvtest::writeFile(dir.file("cut.xml"), text);
        ImportFileList files;
        files.push_back(
            Qv::Ptr<ImportFileInfoRep>(new ImportFileInfoRep({dir.wpath() + L"/cut.xml"})));
        ASSERT_EQ(XML::XMLImportFiles(files, capturingLog()).status, 1);
    }
    // The records of a kind.
    std::vector<LossRecord> of(const char* kind) const {
        std::vector<LossRecord> out;
        for (const LossRecord& l : sink->losses)
            if (l.kind == kind) out.push_back(l);
        return out;
    }
    void expectOne(const char* kind, const char* track, long long frame, const char* timecode,
                   const std::string& detail) const {
        std::vector<LossRecord> found = of(kind);
        ASSERT_EQ(found.size(), 1u) << kind;
        EXPECT_EQ(found[0].sequence.str(), "Reel 1") << kind;
        EXPECT_EQ(found[0].track.str(), track) << kind;
        EXPECT_EQ(found[0].frame, frame) << kind;
        EXPECT_EQ(found[0].timecode.str(), timecode) << kind;
        EXPECT_NE(found[0].detail.str().find(detail), std::string::npos)
            << kind << ": " << found[0].detail.str();
    }
    qvtest::TempDir dir;
};

std::string filter(const char* name, const char* id, const std::string& parameters = "") {
    return std::string("<filter><effect><name>") + name + "</name><effectid>" + id +
           "</effectid><effecttype>filter</effecttype>" + parameters + "</effect></filter>";
}

TEST_F(ReaderLosses, EveryItemPassedOverIsARecordWithItsPlace) {
    std::string ramp = filter("Time Remap", "timeremap",
                              "<parameter><parameterid>speed</parameterid><value>50</value>"
                              "<keyframe><when>0</when><value>50</value></keyframe></parameter>");
    std::string video1 =
        item("clipitem-1", "graded", 0, 50,
             std::string(kTwo) + "<enabled>FALSE</enabled>" +
                 filter("Color Corrector 3-way", "colorcorrector3way")) +
        item("clipitem-2", "ramp", 50, -1, "<file id=\"two\"/>" + ramp) +
        transition(100, 110, "Nattress", "", "G Lens Flare") +
        item("clipitem-3", "after", -1, 150) +
        "<generatoritem id=\"clipitem-4\"><name>Color</name><start>150</start><end>175</end>"
        "<effect><name>Color Matte</name><effectid>Color</effectid></effect></generatoritem>" +
        item("clipitem-5", "dip", 175, -1) +
        transition(200, 210, "Dissolve", "Dip to Color Dissolve", "Dip to Color Dissolve") +
        item("clipitem-6", "out", -1, 250);
    std::string multiclip =
        "<multiclip id=\"m\"><angle><clip><media><video><track><clipitem>"
        "<file id=\"two\"/></clipitem></track></video></media></clip></angle></multiclip>";
    std::string video2 =
        item("clipitem-7", "lost", 0, 25, "<file id=\"nowhere\"/>") +
        item("clipitem-8", "angles", 50, 100, multiclip) + item("clipitem-9", "wide", 120, 200) +
        item("clipitem-10", "buried", 130, 150) + item("clipitem-11", "later", 210, 230) +
        item("clipitem-12", "itself", 240, 250, "<sequence id=\"sequence-1\"/>");
    std::string audio = item("clipitem-13", "third", 0, 50,
                             "<file id=\"two\"/><sourcetrack><mediatype>audio</mediatype>"
                             "<trackindex>3</trackindex></sourcetrack>");
    import(cut(video1, video2, audio));

    expectOne("filter", "V1", 0, "01:00:00:00",
              "\"Color Corrector 3-way\" on \"graded\" (clipitem-1)");
    expectOne("disabled", "V1", 0, "01:00:00:00", "\"graded\" (clipitem-1)");
    expectOne("speed-ramp", "V1", 50, "01:00:02:00", "\"ramp\" (clipitem-2)");
    expectOne("unknown-transition", "V1", 100, "01:00:04:00", "G Lens Flare");
    expectOne("generator", "V1", 150, "01:00:06:00", "\"Color Matte\" (clipitem-4)");
    expectOne("transition-as-dissolve", "V1", 200, "01:00:08:00", "Dip to Color Dissolve");
    expectOne("file-missing", "V2", 0, "01:00:00:00", "\"lost\" (clipitem-7)");
    expectOne("multiclip", "V2", 50, "01:00:02:00", "\"angles\" (clipitem-8)");
    expectOne("clip-not-placed", "V2", 130, "01:00:05:05", "\"buried\" (clipitem-10)");
    expectOne("nested-sequence", "V2", 240, "01:00:09:15", "\"itself\" (clipitem-12)");
    expectOne("channel-missing", "A1", 0, "01:00:00:00", "\"third\" (clipitem-13)");
    EXPECT_EQ(sink->losses.size(), 11u);

    // The clip after the one buried under another still plays.
    Qv::Ptr<Edit> seq;
    for (const Qv::Ptr<Edit>& e : store.edits())
        if (e->name == L"Reel 1") seq = e;
    ASSERT_TRUE(seq);
    bool later = false;
    for (const CelData& c : seq->findChannel(0)->cels)
        later |= std::abs(c.editIn * 25 - 210) < 1e-6 && !c.cookie.isMagic();
    EXPECT_TRUE(later);

    // What plays black says where, naming the clip item, sequence and track.
    EXPECT_TRUE(sink->contains(
        "Badly defined clip - name <lost> XML reference <nowhere$0$>: clip item <clipitem-7> of "
        "sequence \"Reel 1\", track V2 at 01:00:00:00, plays black (its file is not in the "
        "document)"));
    EXPECT_TRUE(
        sink->contains("Edit \"Reel 1\": 1 filters passed over, 1 speed ramps read as "
                       "one speed, 1 switched-off items that play"));
}

// The original reading passes over more, and says so: a file without a
// length, and items that carry only an id.
TEST_F(ReaderLosses, TheOriginalReadingReportsWhatItDoesNotRead) {
    set_config_int(XML::kLegacyInterchangeKey, 1);
    std::string still = "<file id=\"still\"><name>still.png</name><media><video/></media></file>";
    import(cut(item("clipitem-1", "still", 0, 25, still), "<clipitem id=\"clipitem-1\"/>",
               item("clipitem-2", "past", 200, 400)));
    expectOne("unusable-file", "V1", 0, "01:00:00:00", "\"still\" (clipitem-1)");
    std::vector<LossRecord> bare = of("bare-reference");
    ASSERT_EQ(bare.size(), 1u);
    EXPECT_EQ(bare[0].track.str(), "V2");
    EXPECT_EQ(bare[0].detail.str(), "clip item clipitem-1");
    expectOne("cut-off", "A1", 200, "01:00:08:00", "\"past\" (clipitem-2)");
}

// A time or rate that is no usable number is a record and a warning that
// name its element and the line it stands on; a time that places material
// makes the result untrusted, a file's own length or a marker does not.
TEST_F(ReaderLosses, TimesThatAreNoNumbersAreToldWithTheirElementAndLine) {
    // Each item on a line of its own, so that a wrong line shows.
    const std::string withDuration = "<duration>1000</duration><file id=\"two\"/>";
    std::string doc = cut("\n" + item("clipitem-1", "one", 0, 50, std::string(kTwo)) + "\n" +
                              item("clipitem-2", "two", 50, 100, withDuration) + "\n",
                          "", "");
    doc.insert(doc.find("</sequence>"),
               "\n<marker><name>m</name><in>10</in><out>-1</out></marker>\n");
    // The text of the first `element` after `after`, replaced.
    auto damaged = [&](const std::string& element, const std::string& after,
                       const std::string& value, std::size_t& line) {
        std::string open = "<" + element + ">";
        std::size_t at = doc.find(open, doc.find(after));
        std::size_t close = doc.find("</" + element + ">", at);
        line = 1 + static_cast<std::size_t>(std::count(doc.begin(), doc.begin() + at, '\n'));
        return doc.substr(0, at + open.size()) + value + doc.substr(close);
    };
    struct Case {
        const char* element;
        const char* after;
        const char* kind;
    };
    for (const Case& c : {Case{"start", "clipitem-2", "unusable-value"},
                          {"end", "clipitem-2", "unusable-value"},
                          {"in", "clipitem-2", "unusable-value"},
                          {"out", "clipitem-2", "unusable-value"},
                          {"duration", "clipitem-2", "unusable-value"},
                          {"timebase", "<timecode>", "unusable-value"},
                          {"duration", "two.mov", "unreadable-value"},
                          {"in", "<marker>", "unreadable-value"}})
        for (const char* value : {"NaN", "Infinity", "1e300", "abc", "0x10"}) {
            sink->losses.clear();
            sink->lines.clear();
            std::size_t line = 0;
            import(damaged(c.element, c.after, value, line));
            const std::string label = std::string(c.element) + " after " + c.after + ": " + value;
            std::vector<LossRecord> found = of(c.kind);
            ASSERT_EQ(found.size(), 1u) << label;
            const std::string said = "<" + std::string(c.element) + "> \"" + value + "\" on line " +
                                     std::to_string(line) + " is ";
            EXPECT_EQ(found[0].detail.str().rfind(said, 0), 0u) << label << found[0].detail.str();
            EXPECT_TRUE(sink->contains(said.c_str())) << label << ": no warning";
            EXPECT_TRUE(
                of(std::string(c.kind) == "unusable-value" ? "unreadable-value" : "unusable-value")
                    .empty())
                << label;
        }

    // The forms real documents write read, and are told nothing of.
    sink->losses.clear();
    std::size_t line = 0;
    import(damaged("in", "clipitem-2", "0.0", line));
    import(damaged("duration", "two.mov", " 1000 ", line));
    EXPECT_TRUE(of("unusable-value").empty());
    EXPECT_TRUE(of("unreadable-value").empty());

    // The original reading tells them too.
    set_config_int(XML::kLegacyInterchangeKey, 1);
    import(damaged("start", "clipitem-2", "NaN", line));
    EXPECT_EQ(of("unusable-value").size(), 1u);
}

}  // namespace
