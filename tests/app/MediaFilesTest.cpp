// What the commands do with files named like a document's media that hold
// none: pipes, devices, sparse and zero-filled files, in import, info and
// relink; and when FFmpeg is loaded. Every command runs under a watchdog
// (`timeout`): one that hangs fails with status 124 instead of holding the
// suite.
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "tests/app/CommandRunner.h"
#include "tests/support/TestSupport.h"

namespace {

using qvtest::Outcome;
using qvtest::quote;

const std::string kExamples = std::string(QVXML_SOURCE_DIR) + "/examples/native/";
const char* const kWatchdog = "timeout 120";

Outcome qvxml(const std::string& arguments, const std::string& environment = "") {
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
    Outcome version = qvxml("--version", traced);
    ASSERT_EQ(version.status, 0) << version.err;
    EXPECT_EQ(version.err.find("libavformat"), std::string::npos);
    std::string doc = document();
    Outcome offline = qvxml("import " + quote(doc), traced);
    ASSERT_EQ(offline.status, 0) << offline.err;
    EXPECT_NE(offline.out.find("2 offline"), std::string::npos) << offline.out;
    EXPECT_EQ(offline.err.find("libavformat"), std::string::npos);
    copyMedia();
    Outcome read = qvxml("import " + quote(doc), traced);
    ASSERT_EQ(read.status, 0) << read.err;
    EXPECT_NE(read.err.find("libavformat"), std::string::npos) << "the trace shows loading";
}

// Without FFmpeg no file is media; that is said once, and the run goes on.
TEST_F(MediaFiles, WithoutFFmpegNoFileIsMedia) {
    std::string doc = document();
    std::string snapshot = dir.file("cut.json");
    ASSERT_EQ(qvxml("import " + quote(doc) + " --snapshot " + quote(snapshot)).status, 0);
    copyMedia();
    ASSERT_EQ(::mkdir(dir.file("no-ffmpeg").c_str(), 0755), 0);
    const std::string without = "QVXML_FFMPEG_DIR=" + quote(dir.file("no-ffmpeg"));
    const std::string said = "no media file can be read: FFmpeg's libraries cannot be loaded";
    Outcome r = qvxml("import " + quote(doc), without);
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(occurrences(r.err, said), 1) << r.err;
    EXPECT_EQ(occurrences(r.err, ": not a media file that can be read"), 2) << r.err;
    EXPECT_NE(r.out.find("0 shots imported"), std::string::npos) << r.out;

    Outcome relinked = qvxml(
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
    Outcome made = qvxml("import " + quote(doc) + " --snapshot " + quote(snapshot));
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

        Outcome imported = qvxml("import " + quote(doc));
        EXPECT_EQ(imported.status, 0) << imported.err;
        EXPECT_NE(imported.err.find(s.importSays), std::string::npos) << imported.err;
        EXPECT_NE(imported.out.find("0 shots imported"), std::string::npos) << imported.out;

        Outcome info = qvxml("info " + quote(doc) + " --media");
        EXPECT_EQ(info.status, 0) << info.err;
        EXPECT_NE(info.err.find(s.importSays), std::string::npos) << info.err;

        Outcome relinked =
            qvxml("relink " + quote(snapshot) + " --search " + quote(dir.path()) + " --dry-run");
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

}  // namespace
