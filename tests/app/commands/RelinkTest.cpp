// What the commands do with files named like a document's media that hold
// none: pipes, devices, sparse and zero-filled files, in import, info and
// relink; and when FFmpeg is loaded. Every command runs under a watchdog
// (`timeout`): one that hangs fails with status 124 instead of holding the
// suite.
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "host/Snapshot.h"
#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using namespace qvtest;

const std::string kExamples = std::string(QVXML_SOURCE_DIR) + "/examples/native/";
const char* const kWatchdog = "timeout 120";

Outcome watched(const std::string& arguments, const std::string& environment = "") {
    return qvtest::qvxml(arguments, environment + " " + kWatchdog);
}

int occurrences(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        ++n;
    return n;
}

class MediaFiles : public ::testing::Test {
  protected:
    // The example cut, whose two media files are looked for beside it.
    std::string document() {
        std::string doc = dir.file("cut.xml");
        qvtest::writeFile(doc, qvtest::readFile(kExamples + "interview-cut.xml"));
        return doc;
    }
    void copyMedia() {
        for (const char* name : {"interview.mov", "room-tone.wav"})
            qvtest::writeFile(dir.file(name), qvtest::readFile(kExamples + name));
    }
    qvtest::TempDir dir;
};

// FFmpeg and the libraries it brings are mapped when the first media file is
// read, not before.
TEST_F(MediaFiles, FFmpegIsLoadedOnlyToReadMedia) {
    const std::string traced = "LD_DEBUG=libs";
    Outcome version = watched("--version", traced);
    ASSERT_EQ(version.status, 0) << version.err;
    EXPECT_EQ(version.err.find("libavformat"), std::string::npos);
    std::string doc = document();
    Outcome offline = watched("import " + quote(doc), traced);
    ASSERT_EQ(offline.status, 0) << offline.err;
    EXPECT_NE(offline.out.find("2 offline"), std::string::npos) << offline.out;
    EXPECT_EQ(offline.err.find("libavformat"), std::string::npos);
    copyMedia();
    Outcome read = watched("import " + quote(doc), traced);
    ASSERT_EQ(read.status, 0) << read.err;
    EXPECT_NE(read.err.find("libavformat"), std::string::npos) << "the trace shows loading";
}

// Without FFmpeg no file is media; that is said once, and the run goes on.
TEST_F(MediaFiles, WithoutFFmpegNoFileIsMedia) {
    std::string doc = document();
    std::string snapshot = dir.file("cut.json");
    ASSERT_EQ(watched("import " + quote(doc) + " --snapshot " + quote(snapshot)).status, 0);
    copyMedia();
    ASSERT_EQ(::mkdir(dir.file("no-ffmpeg").c_str(), 0755), 0);
    const std::string without = "QVXML_FFMPEG_DIR=" + quote(dir.file("no-ffmpeg"));
    const std::string said = "no media file can be read: FFmpeg's libraries cannot be loaded";
    Outcome r = watched("import " + quote(doc), without);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(occurrences(r.err, said), 1) << r.err;
    EXPECT_EQ(occurrences(r.err, ": not a media file that can be read"), 2) << r.err;
    EXPECT_NE(r.out.find("0 shots imported"), std::string::npos) << r.out;

    Outcome relinked = watched(
        "relink " + quote(snapshot) + " --search " + quote(dir.path()) + " --dry-run", without);
    EXPECT_EQ(relinked.status, 0) << relinked.err;
    EXPECT_EQ(occurrences(relinked.err, said), 1) << relinked.err;
    EXPECT_NE(relinked.out.find("0 would be linked, 2 still offline"), std::string::npos)
        << relinked.out;
}

// Named like the media: a pipe with no writer and a link to /dev/zero are
// passed over without being opened; a 20 GB sparse file and a zero-filled
// one are looked at and passed over. Import and info end, and so does
// relink, which looks for the media of a snapshot among them.
TEST_F(MediaFiles, PipesDevicesAndEmptyFilesAreNoMedia) {
    std::string doc = document();
    std::string snapshot = dir.file("cut.json");
    Outcome made = watched("import " + quote(doc) + " --snapshot " + quote(snapshot));
    ASSERT_EQ(made.status, 0) << made.err;

    struct Setting {
        const char* label;
        void (*make)(const std::string& mov, const std::string& wav);
        const char* importSays;
        const char* relinkSays;
    };
    const Setting settings[] = {
        {"special files",
         [](const std::string& mov, const std::string& wav) {
             ASSERT_EQ(::mkfifo(mov.c_str(), 0644), 0);
             ASSERT_EQ(::symlink("/dev/zero", wav.c_str()), 0);
         },
         "it is a pipe (FIFO), not a regular file", "is a pipe (FIFO), not a file"},
        {"empty files",
         [](const std::string& mov, const std::string& wav) {
             qvtest::writeFile(mov, "");
             ASSERT_EQ(::truncate(mov.c_str(), off_t(20) << 30), 0);
             qvtest::writeFile(wav, std::string(5 << 20, '\0'));
         },
         "its first 4 MB hold nothing but zeros", "it is no media qvxml can read"},
    };
    for (const Setting& s : settings) {
        SCOPED_TRACE(s.label);
        for (const char* name : {"interview.mov", "room-tone.wav"})
            ::unlink(dir.file(name).c_str());
        ASSERT_NO_FATAL_FAILURE(s.make(dir.file("interview.mov"), dir.file("room-tone.wav")));

        Outcome imported = watched("import " + quote(doc));
        EXPECT_EQ(imported.status, 0) << imported.err;
        EXPECT_NE(imported.err.find(s.importSays), std::string::npos) << imported.err;
        EXPECT_NE(imported.out.find("0 shots imported"), std::string::npos) << imported.out;

        Outcome info = watched("info " + quote(doc) + " --media");
        EXPECT_EQ(info.status, 0) << info.err;
        EXPECT_NE(info.err.find(s.importSays), std::string::npos) << info.err;

        Outcome relinked =
            watched("relink " + quote(snapshot) + " --search " + quote(dir.path()) + " --dry-run");
        EXPECT_EQ(relinked.status, 0) << relinked.err;
        EXPECT_NE(relinked.out.find(s.relinkSays), std::string::npos) << relinked.out;
        EXPECT_NE(relinked.out.find("0 would be linked, 2 still offline"), std::string::npos)
            << relinked.out;
    }
    // None of them was read whole: no run of the command (the largest of
    // the children waited for) held more than a probe needs.
    struct rusage usage;
    ASSERT_EQ(::getrusage(RUSAGE_CHILDREN, &usage), 0);
    EXPECT_LT(usage.ru_maxrss, 256L * 1024) << "kilobytes";
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

}  // namespace
