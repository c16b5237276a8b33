#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <string>

#include "host/Media.h"
#include "host/OS.h"
#include "tests/support/TestSupport.h"

namespace {

std::string media(const char* name) {
    return std::string(QVXML_TEST_DATA) + "/media/" + name;
}

MediaProbe probe(const std::string& path) {
    return probeMediaFile(fromUTF8(path.c_str()));
}

// The bytes this process has read (read, pread and the like) so far.
std::int64_t bytesRead() {
    std::ifstream in("/proc/self/io");
    std::string key;
    std::int64_t value = 0;
    while (in >> key >> value)
        if (key == "rchar:") return value;
    return -1;
}

// A copy of `from` made `size` bytes long by a hole after its end: the
// preallocated file of a copy that stopped early.
void holesAfter(const std::string& from, const std::string& to, off_t size) {
    qvtest::writeFile(to, qvtest::readFile(from));
    ASSERT_EQ(::truncate(to.c_str(), size), 0);
}

constexpr off_t k20GB = off_t(20) << 30;

// Media is read through the probe's own reader: what FFmpeg found in a file
// opened by name, it finds the same way.
TEST(MediaProbe, ReadsWhatMediaHolds) {
    MediaProbe clip = probe(media("clip.mov"));
    ASSERT_TRUE(clip.ok) << clip.error.c_str();
    EXPECT_TRUE(clip.hasVideo);
    EXPECT_EQ(clip.width, 64);
    EXPECT_EQ(clip.height, 36);
    EXPECT_DOUBLE_EQ(clip.frameRate, 25.0);
    EXPECT_DOUBLE_EQ(clip.duration, 1.0);
    EXPECT_EQ(clip.audioChannels, 2);
    EXPECT_EQ(clip.sampleRate, 48000);
    EXPECT_STREQ(clip.timecode.c_str(), "10:00:00:00");

    qvtest::TempDir dir;
    ASSERT_EQ(::symlink(media("tone.wav").c_str(), dir.file("linked.wav").c_str()), 0);
    MediaProbe tone = probe(dir.file("linked.wav"));
    EXPECT_TRUE(tone.ok) << "a link to a file reads as the file";
    EXPECT_DOUBLE_EQ(tone.duration, 0.2);

    EXPECT_STREQ(probe(media("notmedia.mov")).error.c_str(), "not a media file that can be read");
    EXPECT_STREQ(probe("/no/such/file.mov").error.c_str(), "not a media file that can be read");
    EXPECT_TRUE(takeMediaProbingUnavailable().empty()) << "FFmpeg is here";
}

// Opening a pipe without a writer blocks, and a device can be read without
// end: neither is opened.
TEST(MediaProbe, WhatIsNotARegularFileIsNeverOpened) {
    qvtest::TempDir dir;
    ASSERT_EQ(::mkfifo(dir.file("pipe.mov").c_str(), 0644), 0);
    ASSERT_EQ(::symlink("/dev/zero", dir.file("zero.mp3").c_str()), 0);
    ASSERT_EQ(::mkdir(dir.file("folder.mov").c_str(), 0755), 0);
    EXPECT_STREQ(probe(dir.file("pipe.mov")).error.c_str(),
                 "it is a pipe (FIFO), not a media file");
    EXPECT_STREQ(probe(dir.file("zero.mp3")).error.c_str(), "it is a device, not a media file");
    EXPECT_STREQ(probe("/dev/zero").error.c_str(), "it is a device, not a media file");
    EXPECT_STREQ(probe(dir.file("folder.mov")).error.c_str(), "it is a folder, not a media file");
}

// A sparse or zero-filled file is what an interrupted copy leaves: it is
// passed over after a look at its first megabytes, never read to its end;
// and a file whose media stops early is read no further than a probe needs.
TEST(MediaProbe, LargeEmptyFilesAreNotReadToTheirEnd) {
    ASSERT_GE(bytesRead(), 0) << "this system keeps no count of bytes read";
    ASSERT_TRUE(probe(media("clip.mov")).ok);  // FFmpeg is loaded before counting
    qvtest::TempDir dir;
    std::string sparse = dir.file("sparse.mp3"), zeros = dir.file("zeros.mp3");
    qvtest::writeFile(sparse, "");
    ASSERT_EQ(::truncate(sparse.c_str(), k20GB), 0);
    qvtest::writeFile(zeros, std::string(6 << 20, '\0'));
    holesAfter(media("tone.wav"), dir.file("tone.mp3"), k20GB);
    holesAfter(media("clip.mov"), dir.file("clip.mov"), k20GB);

    struct Case {
        std::string path;
        bool ok;
        std::int64_t mostRead;
    };
    const Case cases[] = {
        {sparse, false, 1 << 20},
        {zeros, false, (4 << 20) + (1 << 20)},
        // The sound of a WAV, then holes that the MP3 reader searches for
        // frames: the probe's budget ends the search.
        {dir.file("tone.mp3"), true, 80 << 20},
        {dir.file("clip.mov"), true, 1 << 20},
    };
    for (const Case& c : cases) {
        std::int64_t before = bytesRead();
        MediaProbe p = probe(c.path);
        std::int64_t read = bytesRead() - before;
        EXPECT_EQ(p.ok, c.ok) << c.path << ": " << p.error.c_str();
        EXPECT_LE(read, c.mostRead) << c.path;
    }
    EXPECT_STREQ(probe(sparse).error.c_str(), "its first 4 MB hold nothing but zeros");
    qvtest::writeFile(zeros, std::string(1000, '\0'));
    EXPECT_STREQ(probe(zeros).error.c_str(), "it holds nothing but zeros");
}

}  // namespace
