// Helpers shared by the tests: a fresh store per test, temporary directories,
// files, and quick builders of shots and sequences.
#pragma once

#include <gtest/gtest.h>

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "host/Config.h"
#include "host/Edit.h"
#include "host/Logger.h"
#include "import/ImportDriver.h"

namespace qvtest {

// A directory that is removed with everything in it at the end of its life.
class TempDir {
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    LightweightString<wchar_t> wpath() const { return fromUTF8(path_.c_str()); }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

std::string readFile(const std::string& path);
// A document without the comment that follows its XML declaration: a golden
// document's word on what it shows, which the writer does not write.
std::string withoutHeadComment(const std::string& document);
void writeFile(const std::string& path, const std::string& content);
bool exists(const std::string& path);
std::vector<std::string> listDirectory(const std::string& dir);
// Whether the tests run in CI (CI=true), where the shared corpus and every tool
// the tests use are installed.
bool onCi();
// Skips a test for which something is missing (the shared corpus beside the
// project, a tool): in CI that is a failure, as CI has everything.
#define QVTEST_NEED(present, what)                \
    do {                                          \
        if (!(present)) {                         \
            if (qvtest::onCi()) FAIL() << (what); \
            GTEST_SKIP() << (what);               \
        }                                         \
    } while (0)
// `s` quoted for the shell, as one word.
std::string shellQuote(const std::string& s);
// What `command`, run by the shell, writes on its standard output, read as
// JSON: an independent reading by a script. A failure with what it wrote
// when that is not JSON.
nlohmann::json scriptReading(const std::string& command);

// Each test gets a store of its own, made current, and clean configuration.
class StoreTest : public ::testing::Test {
  protected:
    StoreTest() : scope_(store) { resetConfiguration(); }
    ~StoreTest() override { resetConfiguration(); }

    // A log that keeps its lines.
    LoggerHandle capturingLog() { return LoggerHandle(Qv::Ptr<iLogSink>(sink)); }
    // Runs the test with xml_legacy_interchange at 1: the formats as the
    // interchange first wrote and read them.
    static void useLegacyInterchange() { set_config_int("xml_legacy_interchange", 1); }

    EditStore store;
    Qv::Ptr<CapturingLogSink> sink{new CapturingLogSink};

  private:
    ScopedCurrentStore scope_;
};

// Imports the document at `path` through the driver into the current store.
XML::ImportResult importFile(const std::string& path, LoggerHandle log = LoggerHandle());

// Channel kinds for the builders, in channel order.
struct ChannelSpec {
    EditChanType type;
    const char* name = "";
};

// A shot of `length` seconds at `rate` frames a second, with one cel per
// channel playing its own material whole.
Qv::Ptr<Edit> addShot(EditStore& store, const std::wstring& name, double rate, double length,
                      std::vector<ChannelSpec> channels = {{kChanVideo, "V1"}, {kChanAudio, "A1"}},
                      const std::wstring& mediaPath = L"");
// An empty sequence at `rate` with the channels given.
Qv::Ptr<Edit> addSequence(EditStore& store, const std::wstring& name, Qv::FrameRate rate,
                          std::vector<ChannelSpec> channels = {{kChanVideo, "V1"},
                                                               {kChanAudio, "A1"}});
// A sub-clip of `shot` covering [in, in + length) of it.
Qv::Ptr<Edit> addSubclip(EditStore& store, const std::wstring& name, const Qv::Ptr<Edit>& shot,
                         double in, double length);
// The cookie a cel uses to play channel `index` of `source`.
Cookie playCookie(const Qv::Ptr<Edit>& source, unsigned index);
// Appends a cel to channel `channel` of `seq`.
CelData& addCel(const Qv::Ptr<Edit>& seq, unsigned channel, const Cookie& cookie, double editIn,
                double editOut, double sourceIn, float speed = 1.0f);

}  // namespace qvtest
