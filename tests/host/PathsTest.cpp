#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <string>
#include <vector>

#include "host/OS.h"
#include "host/Paths.h"
#include "tests/support/TestSupport.h"

namespace {

using WS = LightweightString<wchar_t>;

TEST(Locators, LocalPathsSurviveTheUrlRoundTrip) {
    for (const wchar_t* p : {L"/media/day 1/take #3.mov", L"/m\u00e9dia/sn\u00f8/\u65e5\u672c.mxf",
                             L"/a/100% b?.wav", L"/plain.mov"}) {
        WS local(p), unc, url;
        ASSERT_TRUE(locator_LocalToUNC(local, unc)) << toUTF8(local).c_str();
        ASSERT_TRUE(locator_UNCToURL(unc, url));
        EXPECT_TRUE(locator_IsURL(url));
        EXPECT_EQ(url.find(L' '), WS::npos) << "spaces are escaped";
        for (wchar_t c : url.view())
            EXPECT_LT(static_cast<unsigned>(c), 128u) << "URLs are ASCII";
        EXPECT_EQ(locatorToPlatformForm(url), local);
        WS back;
        ASSERT_TRUE(locator_UNCToLocal(unc, back));
        EXPECT_EQ(back, local);
    }
    WS unc(L"\\\\localhost\\media\\day 1\\a.mov"), url;
    locator_UNCToURL(unc, url);
    EXPECT_EQ(url, L"file://localhost/media/day%201/a.mov");
}

// What the escapes say, byte for byte, at the edges of an escape too, and
// for bytes that are no UTF-8 (kept as U+DC80..U+DCFF) both ways.
TEST(Locators, EscapesAtTheirEdges) {
    EXPECT_EQ(locatorToPlatformForm(L"file:///a%2fb%2F"), L"/a/b/");
    EXPECT_EQ(locatorToPlatformForm(L"file:///caf%C3%A9.mov"), L"/caf\u00e9.mov");
    EXPECT_EQ(locatorToPlatformForm(L"file:///a%zz%4"), L"/a%zz%4");
    EXPECT_EQ(locatorToPlatformForm(L"file:///a%41"), L"/aA");
    EXPECT_EQ(locatorToPlatformForm(L"file:///snø%20b"), L"/snø b");
    EXPECT_EQ(locatorToPlatformForm(L"file://server"), L"\\\\server\\");
    EXPECT_EQ(locatorToPlatformForm(L"file:///caf%E9"), WS(L"/caf\xDCE9"));
    EXPECT_EQ(locatorToPlatformForm(L"file://h/%E9/\u00e9"), WS(L"\\\\h\\\xDCE9\\\u00e9"));
    for (auto [unc, url] : {std::pair{L"\\\\h\\x y%~_.-", L"file://h/x%20y%25~_.-"},
                            std::pair{L"\\\\server", L"file://server/"},
                            std::pair{L"\\\\h\\\u00e9#", L"file://h/%C3%A9%23"},
                            std::pair{L"\\\\h\\caf\xDCE9", L"file://h/caf%E9"}}) {
        WS in(unc), out;
        ASSERT_TRUE(locator_UNCToURL(in, out));
        EXPECT_EQ(out, WS(url));
    }
}

TEST(Locators, Classification) {
    EXPECT_TRUE(locator_IsLocal(L"/a/b.mov"));
    EXPECT_TRUE(locator_IsLocal(L"relative/b.mov"));
    EXPECT_FALSE(locator_IsLocal(L"\\\\server\\share\\b.mov"));
    EXPECT_FALSE(locator_IsLocal(L"file:///a/b.mov"));
    EXPECT_TRUE(locator_IsURL(L"file:/a/b.mov"));
    EXPECT_TRUE(locator_IsURL(L"https://host/b.mov"));
    EXPECT_FALSE(locator_IsURL(L"C:\\media\\b.mov"));
    // Another machine's file stays a UNC form, decoded.
    EXPECT_EQ(locatorToPlatformForm(L"file://server/share/a%20b.mov"),
              L"\\\\server\\share\\a b.mov");
    EXPECT_EQ(locatorToPlatformForm(L"file:///Volumes/X/a.mov"), L"/Volumes/X/a.mov");
    EXPECT_EQ(locatorToPlatformForm(L"http://host/a%20b"), L"http://host/a%20b");
    WS unc(L"\\\\server\\share\\a.mov"), local;
    EXPECT_FALSE(locator_UNCToLocal(unc, local));
}

TEST(PathText, PartsOfAPath) {
    EXPECT_EQ(getPath(L"/a/b/c.mov"), L"/a/b");
    EXPECT_EQ(getPath(L"/c.mov"), L"/");
    EXPECT_EQ(getPath(L"c.mov"), L"");
    EXPECT_EQ(stripPath(L"\\\\srv\\a\\c.mov"), L"c.mov");
    EXPECT_EQ(stripExtension(L"/a.b/c"), L"/a.b/c");
    EXPECT_EQ(stripExtension(L"/a/Cut 1.5.xml"), L"/a/Cut 1.5");
    EXPECT_EQ(stripExtension(L"/a/.hidden"), L"/a/.hidden");
    EXPECT_EQ(getExtension(L"/a/clip.MXF", false), L"MXF");
    EXPECT_EQ(getExtension(L"/a/clip.mxf", true), L".mxf");
    EXPECT_EQ(getExtension(L"/a/clip", false), L"");
}

TEST(PathText, UserFileNamesCannotClimbOut) {
    using Qv::FilespecUtils::makeValidFilespec;
    EXPECT_EQ(makeValidFilespec(L"/out", L"../../etc/passwd", L".xml", false, L'_'),
              L"/out/.._.._etc_passwd.xml");
    EXPECT_EQ(makeValidFilespec(L"/out/", L"..", L".xml", false, L'_'), L"/out/__.xml");
    EXPECT_EQ(makeValidFilespec(L"/out", L"", L".xml", false, L'_'), L"/out/_.xml");
    EXPECT_EQ(makeValidFilespec(L"/out", L"a:b*c?", L".xml", false, L'_'), L"/out/a_b_c_.xml");
    EXPECT_EQ(makeValidFilespec(L"/out", L"sub/../../x", L".xml", true, L'_'),
              L"/out/sub/__/__/x.xml");
    EXPECT_EQ(makeValidFilespec(L"/out", L"Sn\u00f8 1", L".xml", false, L'_'),
              L"/out/Sn\u00f8 1.xml");
}

TEST(Directories, ContentsAreSortedAndRecursionIsOptIn) {
    qvtest::TempDir dir;
    qvtest::writeFile(dir.file("b.mov"), "x");
    qvtest::writeFile(dir.file("a.mov"), "x");
    ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);
    qvtest::writeFile(dir.file("sub/a.mov"), "x");
    WStringList found;
    getDirectoryContents(dir.wpath(), L"a.mov", found, kDirIncludeFiles);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0], dir.wpath() + L"/a.mov");
    found.clear();
    getDirectoryContents(dir.wpath(), L"a.mov", found, kDirIncludeFiles | kDirRecurse);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_EQ(found[1], dir.wpath() + L"/sub/a.mov");
    EXPECT_TRUE(fileExists(dir.wpath() + L"/a.mov"));
    EXPECT_FALSE(fileExists(dir.wpath() + L"/sub"));
    EXPECT_TRUE(OS()->files()->exists(dir.wpath() + L"/sub"));
}

// Moved media is looked for by its name: the name is no shell pattern.
TEST(Directories, NamesMatchLiterally) {
    qvtest::TempDir dir;
    for (const char* name : {"Interview [take 2].mov", "clipA.mov", "clip?.mov", "x*.wav"})
        qvtest::writeFile(dir.file(name), "x");
    auto find = [&](const wchar_t* name) {
        WStringList found;
        getDirectoryContents(dir.wpath(), name, found, kDirIncludeFiles);
        std::vector<std::string> names;
        for (const WS& f : found)
            names.push_back(toUTF8(stripPath(f)).str());
        return names;
    };
    EXPECT_EQ(find(L"Interview [take 2].mov"), std::vector<std::string>{"Interview [take 2].mov"});
    EXPECT_EQ(find(L"clip?.mov"), std::vector<std::string>{"clip?.mov"});
    EXPECT_EQ(find(L"clipA.mov"), std::vector<std::string>{"clipA.mov"});
    EXPECT_TRUE(find(L"clip*.mov").empty());
    EXPECT_TRUE(find(L"Interview ?take 2].mov").empty());
}

// The search as it was first written: every folder read, sorted, each entry
// looked at, names compared. The search answers from a look at one path or
// from an index of the tree; its answers must stay these.
void readingEachFolder(const std::string& dir, const std::string& wanted, unsigned flags, int depth,
                       std::vector<std::string>& found) {
    std::vector<std::string> names = qvtest::listDirectory(dir);
    std::sort(names.begin(), names.end());
    std::vector<std::string> subfolders;
    for (const std::string& name : names) {
        std::string full = dir + "/" + name;
        struct stat st;
        if (::lstat(full.c_str(), &st) != 0) continue;
        bool isDir = S_ISDIR(st.st_mode);
        if (isDir) subfolders.push_back(full);
        if (name == wanted && (isDir ? flags & kDirIncludeDirectories : flags & kDirIncludeFiles))
            found.push_back(full);
    }
    if ((flags & kDirRecurse) && depth < 8)
        for (const std::string& sub : subfolders)
            readingEachFolder(sub, wanted, flags, depth + 1, found);
}

std::vector<std::string> searched(const std::string& dir, const std::string& name, unsigned flags) {
    WStringList found;
    getDirectoryContents(pathFromBytes(dir), pathFromBytes(name), found, flags);
    std::vector<std::string> out;
    for (const WS& f : found)
        out.push_back(pathBytes(f));
    return out;
}

// Folders where a faster search could go wrong: one name in several folders
// (made in the reverse of name order), names that differ in case only, names
// that are not UTF-8, links to files and to folders, a folder named like the
// media, and a file deeper than the search goes.
TEST(Directories, TheSearchAnswersAsReadingEachFolderDid) {
    qvtest::TempDir dir;
    std::string root = dir.path();
    for (const char* sub : {"z", "b", "a", "a/deep", "Media", "caf\xE9", "clip.mov", "links"})
        ASSERT_EQ(::mkdir((root + "/" + sub).c_str(), 0755), 0) << sub;
    std::string deep = root;
    for (int i = 0; i < 10; ++i) {
        deep += "/d" + std::to_string(i);
        ASSERT_EQ(::mkdir(deep.c_str(), 0755), 0);
        qvtest::writeFile(deep + "/deep.mov", "x");
    }
    for (const char* file :
         {"a.mov", "z/a.mov", "b/a.mov", "a/a.mov", "a/deep/a.mov", "Media/a.mov", "A.mov",
          "Clip.MOV", "b/clip.mov", "b/CLIP.mov", "caf\xE9.mov", "caf\xE9/caf\xE9.mov",
          "z/caf\xC3\xA9.mov", "Interview [take 2].mov", "b/x", "clip.mov/a.mov"})
        qvtest::writeFile(root + "/" + file, "x");
    ASSERT_EQ(::symlink("../a.mov", (root + "/links/a.mov").c_str()), 0);
    ASSERT_EQ(::symlink("../b", (root + "/links/b").c_str()), 0);
    ASSERT_EQ(::symlink("a.mov", (root + "/Media/linked.mov").c_str()), 0);

    // Not "b": a link to a folder was taken for a file, and is now passed
    // over (see below).
    const std::vector<std::string> names = {
        "a.mov",    "A.mov",    "a.MOV",       "clip.mov",
        "Clip.MOV", "CLIP.mov", "caf\xE9.mov", "caf\xC3\xA9.mov",
        "x",        "deep.mov", "linked.mov",  "Interview [take 2].mov",
        "nothing"};
    const unsigned kinds[] = {kDirIncludeFiles, kDirIncludeFiles | kDirRecurse,
                              kDirIncludeDirectories | kDirIncludeFiles | kDirRecurse,
                              kDirIncludeDirectories};
    auto compare = [&](const char* how) {
        for (const std::string& name : names) {
            for (unsigned flags : kinds) {
                std::vector<std::string> expected;
                readingEachFolder(root, name, flags, 0, expected);
                EXPECT_EQ(searched(root, name, flags), expected)
                    << how << ": " << name << ", flags " << flags;
            }
        }
    };
    compare("without a scope");
    {
        DirectorySearchScope scope;
        compare("in a scope");
        compare("in a scope, again");
    }
    // What the scope remembers goes with it.
    qvtest::writeFile(root + "/z/nothing", "x");
    compare("after the scope");
    EXPECT_EQ(searched(root, "nothing", kDirIncludeFiles | kDirRecurse).size(), 1u);
    EXPECT_EQ(searched(root, "b", kDirIncludeDirectories | kDirRecurse),
              std::vector<std::string>{root + "/b"});
}

// A crowded tree, where names collide in the search's table: every name in
// two of three folders, found in both and in the order of the walk.
TEST(Directories, ACrowdedTreeFindsEveryNameWhereItIs) {
    qvtest::TempDir dir;
    std::string root = dir.path();
    for (const char* sub : {"one", "two"})
        ASSERT_EQ(::mkdir((root + "/" + sub).c_str(), 0755), 0);
    const char* homes[3][2] = {{"", "/one"}, {"/one", "/two"}, {"", "/two"}};
    for (int i = 0; i < 600; ++i)
        for (const char* home : homes[i % 3])
            qvtest::writeFile(root + home + "/n" + std::to_string(i) + ".mov", "x");
    DirectorySearchScope scope;
    for (int i = 0; i < 610; i += 7) {
        std::string name = "n" + std::to_string(i) + ".mov";
        std::vector<std::string> expected;
        readingEachFolder(root, name, kDirIncludeFiles | kDirRecurse, 0, expected);
        EXPECT_EQ(searched(root, name, kDirIncludeFiles | kDirRecurse), expected) << name;
        EXPECT_EQ(expected.size(), i < 600 ? 2u : 0u) << name;
    }
}

// A name that reaches a file in the other case too (as on a drive that folds
// case, here by a hard link) is still compared byte for byte.
TEST(Directories, NamesThatReachOneFileInBothCases) {
    qvtest::TempDir dir;
    qvtest::writeFile(dir.file("Clip.mov"), "x");
    ASSERT_EQ(::link(dir.file("Clip.mov").c_str(), dir.file("cLIP.MOV").c_str()), 0);
    for (bool scoped : {false, true}) {
        std::optional<DirectorySearchScope> scope;
        if (scoped) scope.emplace();
        EXPECT_EQ(searched(dir.path(), "Clip.mov", kDirIncludeFiles),
                  std::vector<std::string>{dir.file("Clip.mov")});
        EXPECT_EQ(searched(dir.path(), "cLIP.MOV", kDirIncludeFiles),
                  std::vector<std::string>{dir.file("cLIP.MOV")});
        EXPECT_TRUE(searched(dir.path(), "clip.mov", kDirIncludeFiles).empty());
    }
}

// Reading a pipe blocks, and a device may never end: entries that are not
// regular files are never taken for media, and the scope's log says so once.
TEST(Directories, EntriesThatAreNotFilesArePassedOver) {
    qvtest::TempDir dir;
    ASSERT_EQ(::mkdir(dir.file("sub").c_str(), 0755), 0);
    ASSERT_EQ(::mkfifo(dir.file("pipe.mov").c_str(), 0644), 0);
    ASSERT_EQ(::symlink("/dev/zero", dir.file("zero.wav").c_str()), 0);
    ASSERT_EQ(::symlink("nowhere", dir.file("gone.mov").c_str()), 0);
    ASSERT_EQ(::symlink("sub", dir.file("folder.mov").c_str()), 0);
    qvtest::writeFile(dir.file("sub/pipe.mov"), "x");

    Qv::Ptr<CapturingLogSink> sink(new CapturingLogSink);
    DirectorySearchScope scope{LoggerHandle(Qv::Ptr<iLogSink>(sink))};
    for (const char* name : {"pipe.mov", "zero.wav", "gone.mov", "folder.mov"})
        for (int twice = 0; twice < 2; ++twice)
            EXPECT_TRUE(searched(dir.path(), name, kDirIncludeFiles).empty()) << name;
    EXPECT_EQ(sink->count(LogKind::Warning), 4) << "one warning for each entry";
    EXPECT_TRUE(sink->contains(
        ("passed over \"" + dir.file("pipe.mov") + "\": it is a pipe (FIFO), not a regular file")
            .c_str()));
    EXPECT_TRUE(sink->contains("it is a device, not a regular file"));
    EXPECT_TRUE(sink->contains("it is a link to nothing, not a regular file"));
    EXPECT_TRUE(sink->contains("it is a link to a folder, not a regular file"));
    // In a tree, the file of the name below is found past the pipe.
    EXPECT_EQ(searched(dir.path(), "pipe.mov", kDirIncludeFiles | kDirRecurse),
              std::vector<std::string>{dir.file("sub/pipe.mov")});
}

// A path is bytes: what is not UTF-8 survives the wide string and reaches
// the file system as it was.
TEST(Files, PathsThatAreNotUtf8) {
    const std::string raw[] = {
        "/tmp/caf\xE9.xml",       "/a/\xFF\xFE", "/b/\xC3", "/c/\xED\xA0\x80",
        "/d/\xF0\x9F\x8E\xAC ok", "/e/\xC0\xAF"};
    for (const std::string& bytes : raw) {
        WS wide = pathFromBytes(bytes);
        EXPECT_EQ(pathBytes(wide), bytes);
        EXPECT_EQ(pathBytes(pathFromBytes(pathBytes(wide))), bytes);
    }
    EXPECT_EQ(pathFromBytes("/m\xC3\xA9"
                            "dia"),
              WS(L"/m\u00e9dia"))
        << "UTF-8 reads as text";
    EXPECT_EQ(pathFromBytes("/\xE9")[1], static_cast<wchar_t>(0xDCE9));

    qvtest::TempDir dir;
    std::string name = dir.path() + "/Cut \xE9t\xE9.xml";
    qvtest::writeFile(name, "<QVXML/>");
    WS path = pathFromBytes(name);
    EXPECT_TRUE(fileExists(path));
    Qv::Ptr<iFile> in = OS()->files()->open(path, kOpenForReading);
    ASSERT_TRUE(in);
    EXPECT_EQ(in->size(), 8u);
    WStringList found;
    getDirectoryContents(dir.wpath(), stripPath(path), found, kDirIncludeFiles);
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(pathBytes(found[0]), name);
    // A file URL escapes the bytes themselves, and comes back to them.
    WS url = localPathToURL(path);
    EXPECT_NE(url.find(L"%E9t%E9.xml"), WS::npos) << toUTF8(url).c_str();
    EXPECT_EQ(pathBytes(locatorToPlatformForm(url)), name);
}

// A write that the file system refuses is remembered for whoever runs the
// export, since the writer does not look at what a write returns.
TEST(Files, FailedWritesAreRecorded) {
    takeFileWriteFailures();
    Qv::Ptr<iFile> full = OS()->files()->open(WS(L"/dev/full"), kCreateForWriting);
    ASSERT_TRUE(full);
    EXPECT_EQ(full->write("abc", 3), 0u);
    full = nullptr;
    std::vector<FileWriteFailure> failures = takeFileWriteFailures();
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0].path, WS(L"/dev/full"));
    EXPECT_EQ(failures[0].error, ENOSPC);
    EXPECT_TRUE(takeFileWriteFailures().empty());
}

TEST(Files, TheTwoWaysOfOpening) {
    qvtest::TempDir dir;
    WS path = dir.wpath() + L"/f\u00f8.txt";
    iFileSystem* fs = OS()->files();
    EXPECT_FALSE(fs->open(path, kOpenForReading));
    {
        Qv::Ptr<iFile> out = fs->open(path, kCreateForWriting);
        ASSERT_TRUE(out);
        EXPECT_EQ(out->write("hello", 5), 5u);
    }
    {
        Qv::Ptr<iFile> out = fs->open(path, kCreateForWriting);  // truncates
        out->write("hi", 2);
    }
    Qv::Ptr<iFile> in = fs->open(path, kOpenForReading);
    ASSERT_TRUE(in);
    EXPECT_EQ(in->size(), 2u);
    char buf[8] = {};
    EXPECT_EQ(in->read(buf, 8), 2u);
    EXPECT_STREQ(buf, "hi");
    EXPECT_FALSE(fs->open(dir.wpath(), kOpenForReading)) << "a directory is no file";
    EXPECT_TRUE(fs->remove(path));
    EXPECT_FALSE(fs->exists(path));
}

}  // namespace
