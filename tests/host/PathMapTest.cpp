#include <gtest/gtest.h>

#include "host/OS.h"
#include "host/PathMap.h"
#include "tests/support/TestSupport.h"

namespace {

using WS = LightweightString<wchar_t>;

PathMap mapOf(std::initializer_list<const char*> rules) {
    PathMap map;
    for (const char* text : rules) {
        PathRule rule;
        std::string why;
        EXPECT_TRUE(PathMap::parseRule(text, rule, why)) << why;
        map.add(rule);
    }
    return map;
}

std::string mapped(const PathMap& map, const wchar_t* locator) {
    return toUTF8(map.apply(WS(locator))).str();
}

TEST(PathMap, PosixPathsAndUrlsMoveByWholeFolders) {
    PathMap map = mapOf({"/Volumes/Media=/mnt/media"});
    EXPECT_EQ(mapped(map, L"/Volumes/Media/day 1/a.mov"), "/mnt/media/day 1/a.mov");
    EXPECT_EQ(mapped(map, L"/Volumes/Media"), "/mnt/media");
    // A folder whose name only begins with the rule's is another folder.
    EXPECT_EQ(mapped(map, L"/Volumes/Media2/a.mov"), "/Volumes/Media2/a.mov");
    // POSIX names keep their case.
    EXPECT_EQ(mapped(map, L"/volumes/media/a.mov"), "/volumes/media/a.mov");
    // A URL stays a URL in the form it had, its escapes decoded for the
    // match and the moved path escaped again.
    EXPECT_EQ(mapped(map, L"file://localhost/Volumes/Media/day%201/caf%C3%A9.mov"),
              "file://localhost/mnt/media/day%201/caf%C3%A9.mov");
    EXPECT_EQ(mapped(map, L"file:///Volumes/Media/a%23b.mov"), "file:///mnt/media/a%23b.mov");
    // A rule written as a URL matches paths too, and trailing separators do
    // not count.
    PathMap url = mapOf({"file://localhost/Volumes/My%20Media/=/srv/media/"});
    EXPECT_EQ(mapped(url, L"/Volumes/My Media/a.mov"), "/srv/media/a.mov");
    // A destination with a space is escaped in a URL, not in a path.
    PathMap spaced = mapOf({"/old=/new media"});
    EXPECT_EQ(mapped(spaced, L"file://localhost/old/a.mov"), "file://localhost/new%20media/a.mov");
    EXPECT_EQ(mapped(spaced, L"/old/a.mov"), "/new media/a.mov");
}

TEST(PathMap, WindowsDrivesAndUncNames) {
    PathMap map = mapOf({"D:\\Media=/mnt/media", "\\\\nas\\projects=/mnt/nas"});
    // Drive letters and folder names on Windows compare without case, in
    // every spelling a document uses.
    for (const wchar_t* locator :
         {L"D:\\Media\\Day 1\\a.mov", L"d:/media/Day 1/a.mov", L"/D:/MEDIA/Day 1/a.mov"})
        EXPECT_EQ(mapped(map, locator), "/mnt/media/Day 1/a.mov") << toUTF8(WS(locator)).c_str();
    // Premiere's encoded colon and Resolve's plain one; the URL stays a URL.
    EXPECT_EQ(mapped(map, L"file://localhost/D%3a/Media/Day%201/a.mov"),
              "file://localhost/mnt/media/Day%201/a.mov");
    EXPECT_EQ(mapped(map, L"file:///D:/Media/a.mov"), "file:///mnt/media/a.mov");
    EXPECT_EQ(mapped(map, L"E:\\Media\\a.mov"), "E:\\Media\\a.mov");
    // UNC names in either form.
    EXPECT_EQ(mapped(map, L"\\\\NAS\\Projects\\cut\\a.mov"), "/mnt/nas/cut/a.mov");
    EXPECT_EQ(mapped(map, L"file://nas/projects/cut/a%20b.mov"), "file:///mnt/nas/cut/a%20b.mov");

    // Towards Windows: the destination's form, and a drive in a URL keeps the
    // spelling the locator gave its colon.
    PathMap back = mapOf({"/mnt/media=E:\\Footage", "/mnt/nas=\\\\server\\share\\x"});
    EXPECT_EQ(mapped(back, L"/mnt/media/a b.mov"), "E:\\Footage\\a b.mov");
    EXPECT_EQ(mapped(back, L"file://localhost/mnt/media/a%20b.mov"),
              "file://localhost/E:/Footage/a%20b.mov");
    PathMap drives = mapOf({"D:/Media=E:/Footage"});
    EXPECT_EQ(mapped(drives, L"file://localhost/D%3a/Media/a.mov"),
              "file://localhost/E%3a/Footage/a.mov");
    EXPECT_EQ(mapped(drives, L"D:/Media/sub/a.mov"), "E:/Footage/sub/a.mov");
    EXPECT_EQ(mapped(back, L"/mnt/nas/a.mov"), "\\\\server\\share\\x\\a.mov");
    EXPECT_EQ(mapped(back, L"file:///mnt/nas/a.mov"), "file://server/share/x/a.mov");
}

TEST(PathMap, FirstRuleWinsAndMappingTwiceMovesNothingFurther) {
    PathMap map = mapOf({"/media/old=/media", "/media=/media/archive"});
    EXPECT_EQ(mapped(map, L"/media/old/a.mov"), "/media/a.mov");
    EXPECT_EQ(mapped(map, L"/media/b.mov"), "/media/archive/b.mov");
    // Already in the destination of a rule whose destination lies in its
    // source: the import asks for the platform form more than once.
    EXPECT_EQ(mapped(map, L"/media/archive/b.mov"), "/media/archive/b.mov");
    // Relative paths and other schemes are no locators a rule can hold.
    EXPECT_EQ(mapped(map, L"media/b.mov"), "media/b.mov");
    EXPECT_EQ(mapped(map, L"https://media/b.mov"), "https://media/b.mov");
}

TEST(PathMap, RulesThatCannotBeMadeSaySo) {
    for (const char* bad : {"/a", "=/b", "/a=", "relative=/b", "/a=http://x/y"}) {
        PathRule rule;
        std::string why;
        EXPECT_FALSE(PathMap::parseRule(bad, rule, why)) << bad;
        EXPECT_FALSE(why.empty());
    }
}

TEST(PathMap, TheHostLooksForMediaWhereTheMapSays) {
    setLocatorMap(mapOf({"D:\\Media=/mnt/media"}));
    iPlatformFileSystem* fs = OSPrivate()->fileSystem();
    EXPECT_EQ(toUTF8(fs->platformForm(L"file://localhost/D%3a/Media/a%20b.mov")).str(),
              "/mnt/media/a b.mov");
    setLocatorMap(PathMap());
    EXPECT_EQ(toUTF8(fs->platformForm(L"file://localhost/D%3a/Media/a.mov")).str(),
              "/D:/Media/a.mov");
}

}  // namespace
