#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "host/OS.h"
#include "host/Paths.h"
#include "tests/support/TestSupport.h"

namespace {

std::string readAll(const Qv::Ptr<iFile>& file) {
    std::string out(static_cast<std::size_t>(file->size()), '\0');
    out.resize(file->read(out.data(), static_cast<unsigned>(out.size())));
    return out;
}

// The command hands the plug-in the bytes it has read: an overlay given
// once goes to the first reader alone, whose hold keeps the bytes, and the
// file is the disk's again after; a lasting one stands until it is cleared.
TEST(FileOverlay, OnceGoesToTheFirstReaderAndLastingStandsUntilCleared) {
    qvtest::TempDir dir;
    const std::string where = dir.path() + "/doc.xml";
    std::ofstream(where) << "<disk/>";
    const LightweightString<wchar_t> path = pathFromBytes(where);

    setFileOverlay(path, "<held/>", true);
    Qv::Ptr<iFile> first = OS()->files()->open(path, kOpenForReading);
    ASSERT_TRUE(first);
    ASSERT_NE(first->contents(), nullptr);
    EXPECT_STREQ(first->contents(), "<held/>");
    Qv::Ptr<iFile> second = OS()->files()->open(path, kOpenForReading);
    ASSERT_TRUE(second);
    EXPECT_EQ(second->contents(), nullptr) << "a file on the disk is read";
    EXPECT_EQ(readAll(second), "<disk/>");
    EXPECT_STREQ(first->contents(), "<held/>") << "the first reader still holds its bytes";
    clearFileOverlay(path);  // nothing left to clear: no harm

    setFileOverlay(path, "<mended/>");
    for (int i = 0; i < 2; ++i) {
        Qv::Ptr<iFile> f = OS()->files()->open(path, kOpenForReading);
        ASSERT_TRUE(f);
        EXPECT_EQ(readAll(f), "<mended/>");
    }
    clearFileOverlay(path);
    EXPECT_EQ(readAll(OS()->files()->open(path, kOpenForReading)), "<disk/>");
}

}  // namespace
