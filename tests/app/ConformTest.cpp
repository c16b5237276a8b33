// The conform toolkit end to end, through the built command: --map-path,
// relink, many documents at once, the loss report of an export, and the
// drawn page in a real browser.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "export/ExportDriver.h"
#include "host/Snapshot.h"
#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

using qvtest::Outcome;
using qvtest::quote;
using qvtest::qvxml;
using qvtest::run;

const std::string kMedia = std::string(QVXML_TEST_DATA) + "/media";
const std::string kCorpus = QVXML_CORPUS;

void copyFile(const std::string& from, const std::string& to) {
    fs::create_directories(fs::path(to).parent_path());
    fs::copy_file(from, to, fs::copy_options::overwrite_existing);
}

// A WAV file of silence: mono, 16 bits, 8 kHz, `samples` long.
void writeWav(const std::string& path, std::uint32_t samples) {
    fs::create_directories(fs::path(path).parent_path());
    std::string bytes = "RIFF";
    auto u32 = [&](std::uint32_t v) {
        for (int i = 0; i < 4; ++i)
            bytes.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    };
    auto u16 = [&](std::uint16_t v) {
        bytes.push_back(static_cast<char>(v & 0xFF));
        bytes.push_back(static_cast<char>(v >> 8));
    };
    u32(36 + samples * 2);
    bytes += "WAVEfmt ";
    u32(16);
    u16(1);
    u16(1);
    u32(8000);
    u32(16000);
    u16(2);
    u16(16);
    bytes += "data";
    u32(samples * 2);
    bytes.append(samples * 2, '\0');
    qvtest::writeFile(path, bytes);
}

class Conform : public qvtest::StoreTest {
  protected:
    qvtest::TempDir dir;

    // An offline shot that expects its media at `locator`.
    Qv::Ptr<Edit> offlineShot(const std::wstring& name, double length,
                              std::vector<qvtest::ChannelSpec> channels,
                              const std::wstring& locator) {
        Qv::Ptr<Edit> shot = qvtest::addShot(store, name, 25, length, std::move(channels));
        shot->historicLocator = locator;
        return shot;
    }
};

TEST_F(Conform, MapPathFindsMediaNamedByPosixWindowsAndUncLocators) {
    // A cut whose media was on a Mac volume, a Windows drive and a server.
    Qv::Ptr<Edit> picture =
        offlineShot(L"clip", 1.0, {{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}},
                    L"file://localhost/D%3a/Footage/Day%201/clip.mov");
    Qv::Ptr<Edit> sound =
        offlineShot(L"tone", 0.2, {{kChanAudio, "A1"}}, L"file:///Volumes/Sound/tone.wav");
    Qv::Ptr<Edit> room =
        offlineShot(L"room", 0.2, {{kChanAudio, "A1"}}, L"file://nas/share/Audio/room tone.wav");
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25,
                                            {{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    qvtest::addCel(seq, 0, qvtest::playCookie(picture, 0), 0, 1, 0);
    qvtest::addCel(seq, 1, qvtest::playCookie(sound, 0), 0, 0.2, 0);
    qvtest::addCel(seq, 1, qvtest::playCookie(room, 0), 0.2, 0.4, 0);
    XMLExportOptions options;
    options.directory = dir.wpath();
    options.fileName = L"cut";
    options.flavour = XML::XMLFlavourFCP5;
    ASSERT_EQ(XML::XMLExportFiles(seq->cookie, options, LoggerHandle()).status, 1);
    const std::string document = dir.file("cut.xml");

    // The media now lies here, in folders of other names.
    const std::string mnt = dir.file("mnt");
    copyFile(kMedia + "/clip.mov", mnt + "/footage/Day 1/clip.mov");
    copyFile(kMedia + "/tone.wav", mnt + "/sound/tone.wav");
    copyFile(kMedia + "/tone.wav", mnt + "/nas/Audio/room tone.wav");
    const std::string maps = " --map-path " + quote("D:\\Footage=" + mnt + "/footage") +
                             " --map-path " + quote("file:///Volumes/Sound=" + mnt + "/sound") +
                             " --map-path " + quote("\\\\NAS\\share=" + mnt + "/nas");

    Outcome without = qvxml("info --json " + quote(document));
    ASSERT_EQ(without.status, 0) << without.err;
    json offline = json::parse(without.out);
    for (const json& m : offline["documents"][0]["media"])
        EXPECT_EQ(m["status"], "offline") << m.dump();

    Outcome with = qvxml("info --json --quiet " + quote(document) + maps);
    ASSERT_EQ(with.status, 0) << with.err;
    json media = json::parse(with.out)["documents"][0]["media"];
    ASSERT_EQ(media.size(), 3u);
    std::map<std::string, std::string> where;
    for (const json& m : media) {
        EXPECT_EQ(m["status"], "imported") << m.dump();
        EXPECT_TRUE(m["mapped"].get<bool>());
        where[fs::path(m["path"].get<std::string>()).filename().string()] = m["path"];
    }
    EXPECT_EQ(where["clip.mov"], fs::canonical(mnt + "/footage/Day 1/clip.mov").string());
    EXPECT_EQ(where["room tone.wav"], fs::canonical(mnt + "/nas/Audio/room tone.wav").string());

    // What is written names the media where it is now, percent-encoded.
    const std::string out = dir.file("out");
    fs::create_directories(out);
    Outcome converted =
        qvxml("convert " + quote(document) + " --to xmeml --quiet -o " + quote(out) + maps);
    ASSERT_EQ(converted.status, 0) << converted.err;
    std::string written = qvtest::readFile(out + "/Cut.xml");
    EXPECT_NE(written.find("/mnt/footage/Day%201/clip.mov</pathurl>"), std::string::npos)
        << written;
    EXPECT_NE(written.find("/mnt/nas/Audio/room%20tone.wav</pathurl>"), std::string::npos);
    EXPECT_EQ(written.find("D%3a"), std::string::npos);

    Outcome bad = qvxml("info " + quote(document) + " --map-path nowhere");
    EXPECT_EQ(bad.status, 1);
    EXPECT_NE(bad.err.find("--map-path wants FROM=TO"), std::string::npos) << bad.err;
}

TEST_F(Conform, RelinkFindsMovedMediaAndTellsFilesOfOneNameApart) {
    offlineShot(L"clip", 1.0, {{kChanVideo, "V1"}, {kChanAudio, "A1"}, {kChanAudio, "A2"}},
                L"file://localhost/Volumes/Old/clip.mov");
    offlineShot(L"take", 0.2, {{kChanAudio, "A1"}}, L"/Volumes/Old/Audio/take.wav");
    offlineShot(L"lost", 0.2, {{kChanAudio, "A1"}}, L"/Volumes/Old/lost.wav");
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25);
    const std::string snapshot = dir.file("project.json");
    ASSERT_TRUE(Snapshot::saveFile(store, snapshot).ok);

    // Two files called take.wav: a second of sound, and the fifth of a
    // second the shot is.
    const std::string search = dir.file("search");
    writeWav(search + "/a/take.wav", 8000);
    writeWav(search + "/b/deeper/take.wav", 1600);
    copyFile(kMedia + "/clip.mov", search + "/b/clip.mov");
    ASSERT_NE(fs::file_size(search + "/a/take.wav"), fs::file_size(search + "/b/deeper/take.wav"));

    Outcome dry = qvxml("relink " + quote(snapshot) + " --search " + quote(search) + " --dry-run");
    ASSERT_EQ(dry.status, 0) << dry.err;
    EXPECT_NE(dry.out.find("would link \"take\""), std::string::npos) << dry.out;
    EXPECT_EQ(qvtest::readFile(snapshot), Snapshot::dump(store)) << "a dry run writes nothing";

    Outcome r = qvxml("relink " + quote(snapshot) + " --search " + quote(search));
    ASSERT_EQ(r.status, 0) << r.err;
    const std::string take = fs::canonical(search + "/b/deeper/take.wav").string();
    EXPECT_NE(r.out.find("linked \"take\" to " + take + " (by name, then"), std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("linked \"clip\" to " + fs::canonical(search + "/b/clip.mov").string() +
                         " (by name"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("still offline \"lost\": no file named \"lost.wav\""), std::string::npos);
    EXPECT_NE(r.out.find("3 offline shots: 2 linked, 1 still offline"), std::string::npos);
    // The snapshot read is kept; the relinked one goes beside it, and is
    // not replaced by a second run without --overwrite.
    EXPECT_EQ(qvtest::readFile(snapshot), Snapshot::dump(store));
    const std::string relinked = dir.file("project.relinked.json");
    Outcome again = qvxml("relink " + quote(snapshot) + " --search " + quote(search));
    EXPECT_EQ(again.status, 5);
    EXPECT_NE(again.err.find("exists already and is kept (--overwrite replaces it)"),
              std::string::npos)
        << again.err;
    Outcome over = qvxml("relink " + quote(snapshot) + " --search " + quote(search) + " -o " +
                         quote(snapshot) + " --overwrite");
    EXPECT_EQ(over.status, 5);
    EXPECT_NE(over.err.find("never writes over its inputs"), std::string::npos) << over.err;

    EditStore back;
    ASSERT_TRUE(Snapshot::loadFile(back, relinked).ok);
    std::map<std::wstring, std::string> media;
    for (const Qv::Ptr<Edit>& e : back.edits())
        if (e->isShot()) media[e->name.str()] = toUTF8(e->mediaPath).str();
    EXPECT_EQ(media[L"take"], take);
    EXPECT_EQ(media[L"lost"], "");
    // Nothing but the media changed.
    EXPECT_EQ(back.size(), store.size());
    EXPECT_EQ(back.findByName(L"Cut")->cookie, seq->cookie);

    Outcome info = qvxml("info --json " + quote(snapshot));
    ASSERT_EQ(info.status, 0) << info.err;
    int linked = 0;
    json described = json::parse(info.out);
    for (const json& m : described["documents"][0]["media"])
        linked += m["status"] == "linked";
    EXPECT_EQ(linked, 0) << "the cut plays none of them";

    Outcome missing = qvxml("relink " + quote(snapshot));
    EXPECT_EQ(missing.status, 1);
    EXPECT_NE(missing.err.find("--search DIR"), std::string::npos);
}

TEST_F(Conform, SoundThatFcpxmlLosesOnlyAsFirstWrittenIsReportedSo) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"a", 25, 10, {{kChanVideo, "V1"}}, L"/m/a.mov");
    Qv::Ptr<Edit> s = qvtest::addShot(store, L"s", 25, 10, {{kChanAudio, "A1"}}, L"/m/s.wav");
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25,
                                            {{kChanVideo, "V1"}, {kChanAudio, "A1"}});
    // The picture starts a second in: the original writer drops the sound.
    qvtest::addCel(seq, 0, qvtest::playCookie(a, 0), 1, 3, 0);
    qvtest::addCel(seq, 1, qvtest::playCookie(s, 0), 0, 3, 0);
    const std::string snapshot = dir.file("project.json");
    ASSERT_TRUE(Snapshot::saveFile(store, snapshot).ok);
    for (bool legacy : {false, true}) {
        SCOPED_TRACE(legacy);
        const std::string report = dir.file(legacy ? "legacy.json" : "default.json");
        Outcome r =
            qvxml("export " + quote(snapshot) + " --to fcpxml --overwrite -o " + quote(dir.path()) +
                  " --report " + quote(report) + (legacy ? " --set xml_legacy_interchange=1" : ""));
        ASSERT_EQ(r.status, 0) << r.err;
        json counts = json::parse(qvtest::readFile(report))["documents"][0]["counts"];
        EXPECT_EQ(counts.value("audio-not-written", 0), legacy ? 1 : 0) << counts.dump();
    }
}

TEST_F(Conform, ExportReportsWhatTheFormatCannotHold) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"a", 25, 10, {{kChanVideo, "V1"}}, L"/m/a.mov");
    Qv::Ptr<Edit> seq = qvtest::addSequence(store, L"Cut", Qv::eFrameRate25, {{kChanVideo, "V1"}});
    qvtest::addCel(seq, 0, qvtest::playCookie(a, 0), 0, 2, 0, 0.5f);
    CelData& wipe = qvtest::addCel(seq, 0, video_dissolve, 2, 3, 0);
    wipe.wipeCode = 7;
    qvtest::addCel(seq, 0, qvtest::playCookie(a, 0), 3, 5, 4);
    seq->cues.push_back(Ced2Cue(L"look", L"", 0xFF0000, 1.0, kChanVideo, 0, kCueOpenEnd));
    const std::string snapshot = dir.file("project.json");
    ASSERT_TRUE(Snapshot::saveFile(store, snapshot).ok);

    const std::string report = dir.file("report.json");
    Outcome r = qvxml("export " + quote(snapshot) + " --to fcpxml -o " + quote(dir.path()) +
                      " --report " + quote(report));
    ASSERT_EQ(r.status, 0) << r.err;
    // The dissolve lasts 25 frames: Final Cut Pro X centres it on its cut
    // over 24.
    EXPECT_NE(r.err.find("to fcpxml: 4 losses"), std::string::npos) << r.err;
    json j = json::parse(qvtest::readFile(report));
    EXPECT_EQ(j["qvxml"], "loss-report");
    json counts = j["documents"][0]["counts"];
    EXPECT_EQ(counts["transition-shortened"], 1) << counts.dump();
    EXPECT_EQ(counts["speed"], 1) << counts.dump();
    EXPECT_EQ(counts["wipe-pattern"], 1);
    EXPECT_EQ(counts["marker-colour"], 1);
    for (const json& item : j["documents"][0]["items"]) {
        EXPECT_EQ(item["sequence"], "Cut");
        if (item["kind"] == "speed") {
            EXPECT_EQ(item["track"], "V1");
            EXPECT_EQ(item["timecode"], "00:00:00:00");
            EXPECT_EQ(item["detail"], "at 50%");
        }
        if (item["kind"] == "wipe-pattern") {
            EXPECT_EQ(item["frame"], 50);
        }
    }
    // xmeml holds all three.
    Outcome x = qvxml("export " + quote(snapshot) + " --to xmeml -o " + quote(dir.path()));
    ASSERT_EQ(x.status, 0) << x.err;
    EXPECT_NE(x.err.find("to xmeml: nothing was lost"), std::string::npos) << x.err;
}

TEST_F(Conform, ManyDocumentsSideBySideGiveWhatOneAtATimeGives) {
    // Two documents with sequences of one name, and one that is not there.
    const std::string example =
        std::string(QVXML_SOURCE_DIR) + "/examples/native/interview-cut.xml";
    const std::string other =
        std::string(QVXML_SOURCE_DIR) + "/examples/xmeml/premiere_example.xml";
    copyFile(example, dir.file("in/one.xml"));
    copyFile(example, dir.file("in/two.xml"));
    copyFile(other, dir.file("in/three.xml"));
    std::string inputs;
    for (const char* name : {"one.xml", "missing.xml", "two.xml", "three.xml"})
        inputs += " " + quote(dir.file("in/") + name);

    std::map<int, std::map<std::string, std::string>> written;
    std::map<int, Outcome> outcomes;
    for (int jobs : {1, 3}) {
        std::string out = dir.file("out" + std::to_string(jobs));
        fs::create_directories(out);
        Outcome r = qvxml("convert" + inputs + " --to xmeml -j " + std::to_string(jobs) + " -o " +
                          quote(out) + " --report " +
                          quote(out + "/../report" + std::to_string(jobs) + ".json"));
        EXPECT_EQ(r.status, 2) << "the missing document's status: " << r.err;
        EXPECT_NE(
            r.err.find("converted 3 of 4 documents; 1 failed: \"" + dir.file("in/missing.xml")),
            std::string::npos)
            << r.err;
        EXPECT_EQ(r.err.find("\033"), std::string::npos) << "no bar when stderr is no terminal";
        for (const std::string& f : qvtest::listDirectory(out))
            written[jobs][f] = qvtest::readFile(out + "/" + f);
        // The output of the first job precedes that of the second.
        std::string text = r.out;
        for (size_t at = 0; (at = text.find(out)) != std::string::npos;)
            text.replace(at, out.size(), "OUT");
        outcomes[jobs] = r;
        outcomes[jobs].out = text;
    }
    EXPECT_EQ(outcomes[1].out, outcomes[3].out);
    ASSERT_EQ(written[1].size(), written[3].size());
    EXPECT_TRUE(written[1].count("Interview cut.xml") && written[1].count("Interview cut 2.xml"));
    EXPECT_EQ(written[1], written[3]) << "the same files, of the same names and bytes";
    EXPECT_EQ(qvtest::readFile(dir.file("report1.json")),
              qvtest::readFile(dir.file("report3.json")));

    Outcome info = qvxml("info --json -j 2" + inputs);
    EXPECT_EQ(info.status, 2);
    json docs = json::parse(info.out)["documents"];
    ASSERT_EQ(docs.size(), 3u);
    EXPECT_EQ(docs[1]["path"], dir.file("in/two.xml"));
}

// The page in a real browser: Debian's Chromium, headless.
TEST_F(Conform, DrawnPageShowsEveryClipInChromium) {
    const char* chromium = "/usr/bin/chromium";
    if (::access(chromium, X_OK) != 0) {
        if (std::getenv("CI")) FAIL() << "CI installs chromium";
        GTEST_SKIP() << "chromium is not installed";
    }
    const std::string document = kCorpus + "/xmeml/premiere_example.xml";
    if (!fs::exists(document)) GTEST_SKIP() << "the corpus is not here";
    const std::string page = dir.file("cut.html");
    Outcome drawn = qvxml("draw " + quote(document) + " -o " + quote(page));
    ASSERT_EQ(drawn.status, 0) << drawn.err;
    Outcome info = qvxml("info --json --quiet " + quote(document));
    ASSERT_EQ(info.status, 0);
    std::size_t clips = 0;
    json described = json::parse(info.out);
    for (const json& s : described["documents"][0]["sequences"])
        clips += s["clips"].size();
    ASSERT_GT(clips, 0u) << info.out.substr(0, 400);

    const std::string browser = std::string(chromium) +
                                " --headless --no-sandbox --disable-gpu --disable-quic "
                                "--no-first-run --disable-background-networking "
                                "--disable-component-update --disable-sync --hide-scrollbars "
                                "--window-size=1280,900 --user-data-dir=";
    Outcome dom =
        run(browser + quote(dir.file("profile1")) + " --dump-dom " + quote("file://" + page));
    ASSERT_EQ(dom.status, 0) << dom.err;
    // The page's script ran and counted the boxes the browser holds.
    EXPECT_NE(dom.out.find("data-clip-boxes=\"" + std::to_string(clips) + "\""), std::string::npos)
        << clips << " clips";
    EXPECT_NE(dom.out.find(std::to_string(clips) + " clip boxes drawn"), std::string::npos);

    const std::string png = dir.file("page.png");
    Outcome shot = run(browser + quote(dir.file("profile2")) + " --screenshot=" + quote(png) + " " +
                       quote("file://" + page));
    ASSERT_EQ(shot.status, 0) << shot.err;
    std::string bytes = qvtest::readFile(png);
    ASSERT_GT(bytes.size(), 24u);
    EXPECT_EQ(bytes.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
    auto be32 = [&](size_t at) {
        return (static_cast<unsigned char>(bytes[at]) << 24) |
               (static_cast<unsigned char>(bytes[at + 1]) << 16) |
               (static_cast<unsigned char>(bytes[at + 2]) << 8) |
               static_cast<unsigned char>(bytes[at + 3]);
    };
    EXPECT_EQ(bytes.substr(12, 4), "IHDR");
    EXPECT_EQ(be32(16), 1280u);
    EXPECT_EQ(be32(20), 900u);
    // Keep the picture for a person to look at when asked.
    if (const char* keep = std::getenv("QVXML_KEEP_SCREENSHOT")) copyFile(png, keep);
}

}  // namespace
