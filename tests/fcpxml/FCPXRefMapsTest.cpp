// The fcpxml writer's maps on their own: format names and ids, assets and
// cookies.
#include "fcpxml/FCPXRefMaps.h"
#include "fcpxml/FCPXXMLWriter.h"
#include "tests/fcpxml/FcpxmlTestSupport.h"

namespace {

using qvtest::playCookie;
using XML::FCPXXMLWriter;
using XML::VidFormatRefMap;

std::string str(const LightweightString<wchar_t>& s) {
    return toUTF8(s).str();
}

TEST(FcpxmlFormat, NamesFollowSizeScanAndRate) {
    auto name = [](unsigned w, unsigned h, Qv::FrameRate rate, bool progressive) {
        LightweightString<wchar_t> n;
        EXPECT_TRUE(VidFormatRefMap::getFcpFormat(w, h, rate, progressive, n));
        return str(n);
    };
    // Interlaced names state the field rate.
    EXPECT_EQ(name(1920, 1080, Qv::eFrameRate25, false), "FFVideoFormat1080i50");
    EXPECT_EQ(name(1920, 1080, Qv::eFrameRate25, true), "FFVideoFormat1080p25");
    EXPECT_EQ(name(1920, 1080, Qv::eFrameRate29_97, false), "FFVideoFormat1080i5994");
    EXPECT_EQ(name(720, 576, Qv::eFrameRate25, false), "FFVideoFormat720x576i50");
    EXPECT_EQ(name(720, 486, Qv::eFrameRate29_97, false), "FFVideoFormat720x486i5994");
    EXPECT_EQ(name(1280, 720, Qv::eFrameRate59_94, true), "FFVideoFormat720p5994");
    EXPECT_EQ(name(1920, 1080, Qv::eFrameRate23_976, true), "FFVideoFormat1080p2398");
    EXPECT_EQ(name(4096, 2160, Qv::eFrameRate24, true), "FFVideoFormat4096x2160p24");
    // Names outside the table: odd sizes, rates the table lacks, no rate.
    EXPECT_EQ(name(1000, 1000, Qv::eFrameRate25, true), "FFVideoFormatRateUndefined");
    EXPECT_EQ(name(1920, 1080, Qv::eFrameRate24, false), "FFVideoFormatRateUndefined");
    EXPECT_EQ(name(1280, 720, Qv::eFrameRate25, false), "FFVideoFormatRateUndefined");
    EXPECT_EQ(name(1920, 1080, Qv::eFrameRateNone, true), "FFVideoFormatRateUndefined");
    // The DV names are in the table, but a size never makes them.
    EXPECT_EQ(name(720, 480, Qv::eFrameRate29_97, false), "FFVideoFormatRateUndefined");

    // The scan modes 3 and 4 are progressive.
    ShotVideoMetadata m;
    m.setSize(1920, 1080);
    m.setFrameRate(Qv::eFrameRate25);
    m.setScanMode(Qv::Image::eScanProgressiveSegmented);
    EXPECT_EQ(str(VidFormatRefMap::formatName(m)), "FFVideoFormat1080p25");
    m.setScanMode(Qv::Image::eScanInterlacedLower);
    EXPECT_EQ(str(VidFormatRefMap::formatName(m)), "FFVideoFormat1080i50");
}

TEST(FcpxmlFormat, IdsCountInOrderOfFirstUseAndShareANameAcrossRates) {
    auto picture = [](int w, int h, Qv::FrameRate rate) {
        ShotVideoMetadata m;
        m.setSize(w, h);
        m.setFrameRate(rate);
        m.setScanMode(Qv::Image::eScanProgressive);
        return m;
    };
    VidFormatRefMap map;
    map.clear();
    map.addRef(picture(1000, 1000, Qv::eFrameRate25));
    map.addRef(picture(1920, 1080, Qv::eFrameRate25));
    // Another undefined rate of another size: the same name, so the same id.
    map.addRef(picture(1000, 1000, Qv::eFrameRate30));
    map.addRef(picture(1920, 1080, Qv::eFrameRate25));
    ASSERT_EQ(map.records().size(), 2u);
    LightweightString<wchar_t> id;
    ASSERT_TRUE(map.findRef(picture(640, 360, Qv::eFrameRate50), id));
    EXPECT_EQ(str(id), "f1");
    ASSERT_TRUE(map.findRef(picture(1920, 1080, Qv::eFrameRate25), id));
    EXPECT_EQ(str(id), "f2");
    EXPECT_FALSE(map.findRef(picture(1280, 720, Qv::eFrameRate50), id));
    EXPECT_EQ(str(id), "f2") << "a miss leaves the id alone";
    map.clear();
    map.addRef(picture(1920, 1080, Qv::eFrameRate25));
    ASSERT_TRUE(map.findRef(picture(1920, 1080, Qv::eFrameRate25), id));
    EXPECT_EQ(str(id), "f1") << "clear starts the numbers again";
}

class FcpxmlMaps : public qvtest::StoreTest {
  protected:
    // A record of a stored shot, as export preparation makes it.
    CED2* record(const Qv::Ptr<Edit>& shot) {
        CED2List seqs, ghosts, deep;
        CookieVec cookies;
        cookies.push_back(shot->cookie);
        seqs.PrepareED2ListsForExport(cookies, seqs, ghosts, deep, shots, false, 0, LoggerHandle(),
                                      Qv::eFrameRate25, false, false, false, false, false, false);
        return static_cast<CED2*>(shots.last());
    }
    CED2List shots;
};

TEST_F(FcpxmlMaps, OneFileWithOneStartIsOneAsset) {
    const MediumRollMedium m25 = kMediumVideoBase + Qv::eFrameRate25;
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25.0, 10);
    Qv::Ptr<Edit> b = qvtest::addShot(store, L"B", 25.0, 20, {{kChanAudio, "A1"}});
    Qv::Ptr<Edit> c = qvtest::addShot(store, L"C", 25.0, 10);
    c->labels.push_back(EditLabel::fromFrame(250, Qv::eFrameRate25, true, m25));
    XML::AssetRefMap map;
    map.clear();
    EXPECT_EQ(str(map.addRef(record(a), L"file://h/x.mov", L"f1", a->cookie)), "as1");
    // The same file and start: B shares A's asset, with A's name and format.
    EXPECT_EQ(str(map.addRef(record(b), L"file://h/x.mov", L"f2", b->cookie)), "as1");
    // Another start of the same file is another asset.
    EXPECT_EQ(str(map.addRef(record(c), L"file://h/x.mov", L"f1", c->cookie)), "as2");
    ASSERT_EQ(map.records().size(), 2u);
    const auto& first = map.records()[0];
    EXPECT_EQ(str(first.name), "A");
    EXPECT_EQ(str(first.format), "f1");
    EXPECT_EQ(str(first.hasAudio), "1");
    EXPECT_EQ(str(first.audioChannels), "1");
    EXPECT_EQ(str(first.duration), "25000/2500s");
    const auto& second = map.records()[1];
    EXPECT_EQ(str(second.start), "25000/2500s");
    EXPECT_DOUBLE_EQ(second.startTime, 10.0);
    EXPECT_FALSE(second.isDropFrame) << "drop frame is for 29.97 and 59.94 only";

    LightweightString<wchar_t> id;
    EXPECT_TRUE(map.findRef(a->cookie, id));
    EXPECT_EQ(str(id), "as1");
    EXPECT_FALSE(map.findRef(b->cookie, id)) << "a shot that found an asset is not its owner";
    XML::AssetRefMap::AssetRefMapRec rec;
    rec.name = L"untouched";
    EXPECT_FALSE(map.findRef(LightweightString<wchar_t>(L"as9"), rec));
    EXPECT_EQ(str(rec.name), "untouched");
    EXPECT_TRUE(map.findRef(LightweightString<wchar_t>(L"as2"), rec));
    EXPECT_EQ(str(rec.name), "C");
}

TEST_F(FcpxmlMaps, CookiesKeepTheirFirstAssetAndNeverHandOutARate) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25.0, 10);
    XML::CookieRefMap map;
    map.addRef(a->cookie, 1, L"as1", 25.0, 0.0);
    map.addRef(a->cookie, 1, L"as2", 30.0, 4.0);
    map.addRef(a->cookie, 2, L"as3", 30.0, 4.0);
    LightweightString<wchar_t> asset;
    double offset = -1, rate = 1.0;
    ASSERT_TRUE(map.findRef(a->cookie, 1, asset, offset, rate));
    EXPECT_EQ(str(asset), "as1");
    EXPECT_EQ(offset, 0.0);
    EXPECT_EQ(rate, 1.0);
    ASSERT_TRUE(map.findRef(a->cookie, 2, asset, offset, rate));
    EXPECT_EQ(str(asset), "as3");
    EXPECT_EQ(offset, 4.0);
    EXPECT_FALSE(map.findRef(a->cookie, 3, asset, offset, rate));
    // The key is the cookie as it is given: a material cookie of the shot is
    // another key.
    EXPECT_FALSE(map.findRef(playCookie(a, 0), 1, asset, offset, rate));
    EXPECT_EQ(map.records().size(), 2u);
}

TEST_F(FcpxmlMaps, CookieTimesAreWholeSecondsWhateverTheCookie) {
    Qv::Ptr<Edit> a = qvtest::addShot(store, L"A", 25.0, 10);
    XMLExportOptions options;
    FCPXXMLWriter writer(LoggerHandle(), options, Qv::eFrameRate25);
    writer.cookieMap.addRef(a->cookie, 0, L"as1", 25.0, 0.0);
    for (const Cookie& c : std::vector<Cookie>{playCookie(a, 0), video_black, Cookie()}) {
        EXPECT_EQ(writer.cookieCelTimeToFrames(1.4, c), 1);
        EXPECT_EQ(writer.cookieCelTimeToFrames(1.5, c), 2);
        EXPECT_EQ(writer.cookieCelTimeToFrames(-1.4, c), 0) << "cut toward zero";
        EXPECT_EQ(writer.cookieCelTimeToFrames(-1.5, c), -1);
    }
}

}  // namespace
