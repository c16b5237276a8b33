// The native readers, versions 1.0 and 2.0.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "native/QVXMLReader.h"
#include "tests/support/TestSupport.h"

namespace {

using namespace XML;

// Runs only the parse of a native reader over a document and keeps the
// reader, so that its lists can be looked at.
class NativeReaderTest : public qvtest::StoreTest {
  protected:
    // The reader with its parse steps opened up for the test.
    template <typename R>
    struct Exposed : R {
        explicit Exposed(LoggerHandle l) : R(l) {}
        using R::getSeqFrameRate;
        using R::parseFile;
    };
    template <typename Reader>
    int parse(const std::string& text) {
        text_ = text;
        auto* reader = new Exposed<Reader>(capturingLog());
        reader_ = Qv::Ptr<NativeReaderCore>(reader);
        XMLParser parser(text_.c_str(), -1);
        rate_ = reader->getSeqFrameRate(parser);
        return reader->parseFile(parser);
    }
    int parse1(const std::string& body) {
        return parse<QVXMLReader>("<QVXML Version=\"1.0\"><EditRes num=\"250000\" den=\"10000\"/>" +
                                  body + "</QVXML>");
    }
    int parse2(const std::string& body) {
        return parse<QV2XMLReader>("<QVXML Version=\"2.0\">" + body + "</QVXML>");
    }
    CED2* firstShot() { return reader_->shots().firstRecord(); }
    CED2* firstSeq() { return reader_->sequences().firstRecord(); }
    static std::string chan(const char* type, const std::string& events, const char* id = "c") {
        return std::string("<Chan><Name>n</Name><Id>") + id + "</Id><Type>" + type + "</Type>" +
               events + "</Chan>";
    }
    static std::string event(int in, int out, int offset, const std::string& extra = "") {
        return "<CelEvent>" + extra + "<EditIn>" + std::to_string(in) + "</EditIn><EditOut>" +
               std::to_string(out) + "</EditOut><Offset>" + std::to_string(offset) +
               "</Offset></CelEvent>";
    }
    static std::string shot(const std::string& chans, const std::string& extra = "") {
        return "<Shot><Name>s</Name>" + extra + "<ChanList>" + chans + "</ChanList></Shot>";
    }
    static std::string edit(const std::string& chans, const std::string& extra = "") {
        return "<Edit><Name>e</Name>" + extra + "<ChanList>" + chans + "</ChanList></Edit>";
    }

    std::string text_;
    Qv::Ptr<NativeReaderCore> reader_;
    Qv::FrameRate rate_ = Qv::eFrameRateNone;
};

TEST_F(NativeReaderTest, Rationals) {
    auto rational = [](const char* attrs, double& out) {
        std::string text = std::string("<R ") + attrs + "/>";
        XMLParser p(text.c_str(), -1);
        XMLParser::Value v = p.getValue("R", 0);
        return NativeReaderCore::QvXMLRationalToDouble(v, out);
    };
    double v = -1;
    EXPECT_TRUE(rational("den=\"4\" num=\"2\"", v));
    EXPECT_EQ(v, 0.5);
    v = -1;
    EXPECT_FALSE(rational("num=\"1\" num=\"2\"", v));  // two numerators, no denominator
    EXPECT_FALSE(rational("num=\"1\" den=\"0\"", v));
    EXPECT_FALSE(rational("num=\"-1\" den=\"1\"", v));
    EXPECT_FALSE(rational("num=\"1\"", v));
    EXPECT_FALSE(rational("a=\"1\" num=\"1\" den=\"1\"", v));  // only the first two count
    EXPECT_FALSE(rational("num=\"x\" den=\"1\"", v));
    EXPECT_EQ(v, -1);
    EXPECT_TRUE(rational("num=\"99999999999\" den=\"1\"", v));  // saturates, never undefined
    EXPECT_EQ(v, 2147483647.0);
}

TEST_F(NativeReaderTest, Version1CountsInTheTicksOfEditRes) {
    ASSERT_EQ(parse<QVXMLReader>("<QVXML Version=\"1.0\"><EditRes num=\"30000\" den=\"1001\"/>" +
                                 edit(chan("Video", event(300, 330, 30))) + "</QVXML>"),
              1);
    EXPECT_EQ(rate_, Qv::eFrameRate29_97);
    CED2Cell* c = firstSeq()->firstChannel()->firstCel();
    EXPECT_DOUBLE_EQ(c->editIn, 10.0) << "divided by 30, not 29.97";
    EXPECT_DOUBLE_EQ(c->sourceIn, 1.0);
    EXPECT_EQ(firstSeq()->editName, L"e");
    EXPECT_EQ(firstSeq()->shotVideoMetadata.getWidth(), 1920);

    EXPECT_EQ(parse<QVXMLReader>("<QVXML Version=\"1.0\">" + edit(chan("Video", "")) + "</QVXML>"),
              0)
        << "EditRes is required";
    EXPECT_EQ(parse<QVXMLReader>("<QVXML Version=\"2.0\"><EditRes num=\"25\" den=\"1\"/></QVXML>"),
              0);
    EXPECT_EQ(parse<QVXMLReader>("<QVXML><EditRes num=\"25\" den=\"1\"/></QVXML>"), 0);
}

TEST_F(NativeReaderTest, ShotsTakeTheirFirstEventAndLocator) {
    std::string a =
        chan("Video",
             event(0, 25, 0, "<Loc>file:///a.mov</Loc><Velocity num=\"-10000\" den=\"10000\"/>") +
                 event(25, 50, 0),
             "va");
    std::string b = chan(
        "Audio", event(0, 25, 0, "<Loc>file:///b.wav</Loc><Level num=\"0\" den=\"10000\"/>"), "ab");
    std::string skipped = chan("Data", event(0, 25, 0), "d");
    std::string incomplete = chan("Audio", "<CelEvent><EditIn>1</EditIn></CelEvent>", "ai");
    ASSERT_EQ(parse1(shot(a + skipped + b + incomplete,
                          "<SceneTxt>7</SceneTxt><PrimeReel>R</PrimeReel>")),
              1);
    CED2* s = firstShot();
    EXPECT_EQ(s->originLocator, L"file:///a.mov");
    std::vector<unsigned> indexes;
    for (CChannel* ch : each<CChannel>(s->channels))
        indexes.push_back(ch->index);
    EXPECT_EQ(indexes, (std::vector<unsigned>{0, 2, 3})) << "a skipped Chan still counts";
    CChannel* video = s->firstChannel();
    EXPECT_EQ(video->cels.size(), 1u) << "a shot's channel has one event";
    EXPECT_EQ(video->firstCel()->speed, 1.0f) << "a negative velocity reads as 1";
    CChannel* audio = static_cast<CChannel*>(video->getNext());
    EXPECT_EQ(audio->firstCel()->level, 1.0f) << "a zero level is a missing one";
    EXPECT_TRUE(static_cast<CChannel*>(audio->getNext())->cels.isEmpty());
    EXPECT_EQ(s->sceneTxt, "7");
    EXPECT_EQ(s->reelId, "R");
}

TEST_F(NativeReaderTest, EditsStopAtAnIncompleteEventButKeepTheirLevels) {
    std::string events = event(0, 25, 0, "<Ref magic=\"false\">x</Ref>") +
                         "<CelEvent><Ref>y</Ref><EditIn>25</EditIn></CelEvent>" + event(50, 75, 0);
    std::string effect =
        "<Effect><Type>Track levels</Type><Keyframe><Position>50</Position>"
        "<Value num=\"5000\" den=\"10000\"/></Keyframe><Keyframe><Value num=\"1\" "
        "den=\"1\"/></Keyframe>"
        "</Effect>";
    ASSERT_EQ(parse1(edit(chan("Audio", events + effect), "<Duration>100</Duration>")), 1);
    CChannel* ch = firstSeq()->firstChannel();
    EXPECT_EQ(ch->cels.size(), 1u);
    EXPECT_EQ(ch->firstCel()->refId, "x");
    EXPECT_TRUE(ch->hasTrackLevels);
    ASSERT_EQ(ch->levels.size(), 1u) << "a Keyframe without Position is passed over";
    auto* level = static_cast<CED2TrackLevel*>(ch->levels.first());
    EXPECT_DOUBLE_EQ(level->position, 0.5);
    EXPECT_FLOAT_EQ(level->value, 0.5f);
}

TEST_F(NativeReaderTest, RefsMagicCookiesAndWipes) {
    std::string events =
        event(0, 10, 0) +
        event(10, 20, 0,
              "<Ref magic=\"true\">" + video_wipe.asString().str() +
                  "</Ref><Transition><Type>Wipe</Type><Id>  -7</Id></Transition>") +
        event(20, 30, 0, "<Ref>" + video_dissolve.asString().str() + "</Ref>");
    ASSERT_EQ(parse1(edit(chan("Video", events), "<IsGhost>True</IsGhost>")), 1);
    EXPECT_TRUE(reader_->ghosts().isEmpty()) << "only \"true\" makes a ghost";
    CED2Cell* c = firstSeq()->firstChannel()->firstCel();
    EXPECT_EQ(c->refId, "...?...");
    EXPECT_EQ(c->next()->cookie, video_wipe);
    EXPECT_EQ(c->next()->GetSMPTEWipeCode(), 7);
    EXPECT_EQ(c->next()->GetWipeDirection(), eWipeReverse);
    EXPECT_EQ(c->next()->next()->cookie, video_dissolve);
    EXPECT_LT(c->next()->next()->GetSMPTEWipeCode(), 0);
}

TEST_F(NativeReaderTest, BrokenStructureFailsTheParseAndKeepsEarlierRecords) {
    EXPECT_EQ(parse1(shot(chan("Video", event(0, 1, 0))) + shot("")), 0);
    EXPECT_EQ(reader_->shots().size(), 1u);
    EXPECT_EQ(parse1(shot("<Chan></Chan>")), 0);
    EXPECT_EQ(parse1(edit(chan("Video", event(0, 1, 0))) + "<Edit><Name>x</Name></Edit>"), 0);
    EXPECT_EQ(reader_->sequences().size(), 1u) << "the failed record is taken off its list";
    EXPECT_EQ(parse1("<Shot><Name>no chans</Name></Shot>"), 0);
    EXPECT_EQ(parse1("<Edit></Edit>"), 1) << "an empty Edit is passed over";
}

TEST_F(NativeReaderTest, NegativeFrameCountsReadAsUnsigned) {
    ASSERT_EQ(parse1(edit(chan("Video", event(0, 25, -25)))), 1);
    EXPECT_GT(firstSeq()->firstChannel()->firstCel()->sourceIn, 1e8);
}

TEST_F(NativeReaderTest, Version2RatesPerRecord) {
    std::string rate = "<Rate num=\"299700\" den=\"10000\"/>";
    ASSERT_EQ(parse2(shot(chan("Video", event(300, 330, 0)), rate) +
                     edit(chan("Video", event(300, 330, 0)), rate)),
              1);
    EXPECT_DOUBLE_EQ(firstShot()->firstChannel()->firstCel()->editIn, 300 / 29.97);
    EXPECT_DOUBLE_EQ(firstSeq()->firstChannel()->firstCel()->editIn, 10.0);
    EXPECT_EQ(rate_, Qv::eFrameRate29_97);
    EXPECT_EQ(firstShot()->sourceMedium, 105);
    EXPECT_EQ(firstSeq()->shotVideoMetadata.getFrameRate(), Qv::eFrameRate29_97);

    ASSERT_EQ(parse2(shot(chan("Video", event(3, 6, 0)), "<Rate num=\"0\" den=\"1\"/>")), 1);
    EXPECT_DOUBLE_EQ(firstShot()->firstChannel()->firstCel()->editIn, 3.0)
        << "no rate counts in seconds";
    EXPECT_EQ(rate_, Qv::eFrameRateNone) << "shots alone say nothing of a sequence rate";
    ASSERT_EQ(parse2(edit(chan("Video", event(0, 1, 0)))), 1);
    EXPECT_EQ(rate_, Qv::eFrameRateNone) << "an Edit without Rate";
    EXPECT_EQ(parse2("<EditRes num=\"25\" den=\"1\"/>" +
                     edit(chan("Video", event(0, 1, 0)), "<Rate num=\"25\" den=\"1\"/>")),
              1);
    EXPECT_EQ(rate_, Qv::eFrameRate25);
}

// A time or rate that is no usable number is a record and a warning that
// name the element (or attribute) and its line. An Edit's times and rate
// place its material, so its result cannot be trusted; a shot's do not.
TEST_F(NativeReaderTest, DamagedTimesAndRatesAreToldWithTheirLine) {
    const std::string rate = "<Rate num=\"250000\" den=\"10000\"/>";
    // A shot, an empty Edit and an Edit whose second channel's second event
    // is the one looked at: each on lines of its own.
    const std::string body =
        "\n" + shot(chan("Video", "\n" + event(0, 25, 0)), rate) + "\n<Edit></Edit>\n" +
        edit(chan("Video", "\n" + event(0, 10, 0), "v") + "\n" +
                 chan("Audio", "\n" + event(0, 10, 0) + "\n" + event(10, 20, 5) + "\n", "a"),
             "\n<Duration>20</Duration>\n" + rate) +
        "\n";
    struct Found {
        std::vector<LossRecord> placing, aside;
    };
    auto records = [&] {
        Found f;
        for (const LossRecord& l : sink->losses) {
            if (l.kind == "unusable-value") f.placing.push_back(l);
            if (l.kind == "unreadable-value") f.aside.push_back(l);
        }
        return f;
    };
    // The document with the text of the last `element` before `before`
    // (or the last of all) replaced; `line` where it stands.
    auto damaged = [&](std::string doc, const std::string& from, const std::string& to,
                       std::size_t& line, bool last = true) {
        std::size_t at = last ? doc.rfind(from) : doc.find(from);
        line = 1 + static_cast<std::size_t>(std::count(doc.begin(), doc.begin() + at, '\n'));
        return doc.replace(at, from.size(), to);
    };
    for (const char* value : {"NaN", "Infinity", "1e300", "abc", "0x10"}) {
        for (const char* element : {"EditIn", "EditOut", "Offset"}) {
            sink->losses.clear();
            std::size_t line = 0;
            std::string open = std::string("<") + element + ">";
            std::string from = open +
                               (std::string(element) == "Offset"   ? "5"
                                : std::string(element) == "EditIn" ? "10"
                                                                   : "20") +
                               "<";
            ASSERT_EQ(parse2(damaged(body, from, open + value + "<", line)), 1);
            Found f = records();
            ASSERT_EQ(f.placing.size(), 1u) << element << " " << value;
            EXPECT_EQ(f.placing[0].detail.str().rfind(
                          open + " \"" + value + "\" on line " + std::to_string(line) + " is ", 0),
                      0u)
                << f.placing[0].detail.str();
            EXPECT_TRUE(f.aside.empty());
        }
        // A shot's time, and an Edit's Duration, which only places its
        // level keyframes.
        for (const char* from : {"<EditOut>25<", "<Duration>20<"}) {
            sink->losses.clear();
            std::size_t line = 0;
            std::string open = std::string(from).substr(0, std::string(from).find('>') + 1);
            ASSERT_EQ(parse2(damaged(body, from, open + value + "<", line, false)), 1);
            Found f = records();
            EXPECT_TRUE(f.placing.empty()) << from << value;
            ASSERT_EQ(f.aside.size(), 1u) << from << value;
            EXPECT_NE(f.aside[0].detail.str().find("on line " + std::to_string(line) + " "),
                      std::string::npos)
                << f.aside[0].detail.str();
        }
    }

    // Rates: an Edit's of no known rate (its times would count in another
    // rate's ticks), one of 0, one that is no number.
    struct RateCase {
        const char* to;
        const char* said;
    };
    for (const RateCase& c :
         {RateCase{"<Rate num=\"123456\" den=\"10000\"/>",
                   "<Rate> \"123456/10000\" on line 7 is no frame rate Quvera knows"},
          {"<Rate num=\"0\" den=\"1\"/>", "num of <Rate> \"0\" on line 7 is out of range"},
          {"<Rate num=\"25\" den=\"0x1\"/>", "den of <Rate> \"0x1\" on line 7 is a hexadecimal"},
          {"<Rate num=\"NaN\" den=\"1\"/>", "num of <Rate> \"NaN\" on line 7 is not a finite"}}) {
        sink->losses.clear();
        std::size_t line = 0;
        ASSERT_EQ(parse2(damaged(body, rate, c.to, line)), 1);
        EXPECT_EQ(line, 7u);
        Found f = records();
        ASSERT_EQ(f.placing.size(), 1u) << c.to;
        EXPECT_EQ(f.placing[0].detail.str().rfind(c.said, 0), 0u) << f.placing[0].detail.str();
        EXPECT_EQ(rate_, Qv::eFrameRateNone) << "a damaged rate is none";
    }
    // A shot's rate divides its frame counts itself: an unknown one is no
    // harm, one that is no number is told.
    sink->losses.clear();
    std::size_t line = 0;
    ASSERT_EQ(parse2(damaged(body, rate, "<Rate num=\"123456\" den=\"10000\"/>", line, false)), 1);
    EXPECT_TRUE(records().placing.empty());
    EXPECT_TRUE(records().aside.empty());
    ASSERT_EQ(parse2(damaged(body, rate, "<Rate num=\"abc\" den=\"1\"/>", line, false)), 1);
    EXPECT_TRUE(records().placing.empty());
    EXPECT_EQ(records().aside.size(), 1u);

    // Version 1.0: EditRes of no known rate, and its frame counts.
    sink->losses.clear();
    ASSERT_EQ(
        parse<QVXMLReader>("<QVXML Version=\"1.0\">\n<EditRes num=\"123456\" den=\"10000\"/>\n" +
                           edit(chan("Video", event(0, 10, 0))) + "</QVXML>"),
        1);
    ASSERT_EQ(records().placing.size(), 1u);
    EXPECT_EQ(records().placing[0].detail.str(),
              "<EditRes> \"123456/10000\" on line 2 is no frame rate Quvera knows");
    sink->losses.clear();
    ASSERT_EQ(parse1("\n" + edit(chan("Video",
                                      "\n<CelEvent><EditIn>0x10</EditIn><EditOut>1</EditOut>"
                                      "<Offset>0</Offset></CelEvent>"))),
              1);
    ASSERT_EQ(records().placing.size(), 1u);
    EXPECT_EQ(
        records().placing[0].detail.str().rfind("<EditIn> \"0x10\" on line 3 is a hexadecimal", 0),
        0u)
        << records().placing[0].detail.str();

    // What documents write reads without a word.
    sink->losses.clear();
    ASSERT_EQ(parse2(body), 1);
    ASSERT_EQ(parse1(edit(chan("Video", event(0, 25, 0)))), 1);
    EXPECT_TRUE(sink->losses.empty());
}

TEST_F(NativeReaderTest, LabelsAreBoundedAtTen) {
    std::string labels;
    for (int i = 0; i < 12; ++i)
        labels += "<Label Str=\"TC 3 NDF 00:00:0" + std::to_string(i % 10) + ":00 103\"/>";
    ASSERT_EQ(parse1(edit(chan("Video", event(0, 1, 0)), labels)), 1);
    EXPECT_EQ(firstSeq()->labelCount, 10);
    EXPECT_EQ(firstSeq()->labels[1].get_start(), 25);
}

}  // namespace
