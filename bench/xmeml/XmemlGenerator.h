// Long xmeml documents for the benchmarks, made to a size: a sequence of
// two video and two audio tracks whose clip items use a pool of files (the
// first use of a file describes it, later uses name it), with a dissolve
// every twentieth cut, level keyframes on the audio and a marker every
// fiftieth clip. Every tenth clip item brings a new file, so a document of
// 100 MB holds about 20,000 files and 200,000 clip items.
#pragma once

#include <cstddef>
#include <string>

namespace xmemlbench {

inline std::string generateXmeml(std::size_t targetBytes) {
    int files = 0, items = 0;
    auto fileElement = [&](int id) {
        std::string n = std::to_string(id);
        if (id < files) return "<file id=\"file-" + n + "\"/>";
        ++files;
        return "<file id=\"file-" + n + "\"><name>clip " + n + ".mov</name>" +
               "<pathurl>file://localhost/Volumes/Media/day%201/clip%20" + n +
               ".mov</pathurl><rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>"
               "<duration>7500</duration><timecode><rate><timebase>25</timebase><ntsc>FALSE"
               "</ntsc></rate><string>10:00:00:00</string><frame>900000</frame>"
               "<displayformat>NDF</displayformat><reel><name>A" +
               n +
               "</name></reel></timecode><media><video><duration>7500</duration>"
               "<samplecharacteristics><width>1920</width><height>1080</height>"
               "</samplecharacteristics></video><audio><channelcount>2</channelcount></audio>"
               "</media></file>";
    };
    // Tracks are written one after the other; each gets a quarter of the size.
    std::string tracks[4];
    for (int t = 0; t < 4; ++t) {
        bool audio = t >= 2;
        std::string& out = tracks[t];
        int pos = 0;
        for (int k = 0; out.size() < targetBytes / 4; ++k) {
            int id = k / 10;
            bool dissolve = k % 20 == 19;
            int length = 50 + k % 40;
            out += "<clipitem id=\"clipitem-" + std::to_string(++items) + "\"><name>clip " +
                   std::to_string(id) + "</name><duration>7500</duration><rate><timebase>25" +
                   "</timebase><ntsc>FALSE</ntsc></rate><start>" + std::to_string(pos) +
                   "</start><end>" + (dissolve ? std::string("-1") : std::to_string(pos + length)) +
                   "</end><in>" + std::to_string(100 + k % 500) + "</in><out>" +
                   std::to_string(100 + k % 500 + length) + "</out>" + fileElement(id);
            if (audio)
                out +=
                    "<filter><effect><name>Audio Levels</name><effectid>audiolevels</effectid>"
                    "<parameter><keyframe><when>" +
                    std::to_string(110 + k % 500) +
                    "</when><value>0.5</value></keyframe><keyframe><when>" +
                    std::to_string(120 + k % 500) +
                    "</when><value>1.0</value></keyframe></parameter></effect></filter>"
                    "<sourcetrack><mediatype>audio</mediatype><trackindex>" +
                    std::to_string(t - 1) + "</trackindex></sourcetrack>";
            if (k % 50 == 0)
                out += "<marker><name>note " + std::to_string(k) + "</name><comment>check" +
                       "</comment><in>" + std::to_string(100 + k % 500) +
                       "</in><out>-1</out></marker>";
            out += "</clipitem>";
            pos += length;
            if (dissolve) {
                out += "<transitionitem><start>" + std::to_string(pos) + "</start><end>" +
                       std::to_string(pos + 10) +
                       "</end><alignment>center</alignment><effect><name>Cross Dissolve</name>"
                       "<effecttype>transition</effecttype><effectcategory>Dissolve"
                       "</effectcategory></effect></transitionitem>";
                // The next clip starts inside the transition.
                out +=
                    "<clipitem><name>after</name><duration>7500</duration><rate><timebase>"
                    "25</timebase></rate><start>-1</start><end>" +
                    std::to_string(pos + 40) + "</end><in>200</in><out>230</out>" +
                    fileElement(id) + "</clipitem>";
                pos += 40;
            }
        }
    }
    std::string doc =
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE xmeml>\n<xmeml version=\"5\">"
        "<sequence id=\"seq\"><name>long cut</name><duration>";
    // The sequence lasts as long as its longest track.
    doc +=
        "100000000</duration><rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>"
        "<media><video><track>" +
        tracks[0] + "</track><track>" + tracks[1] + "</track></video><audio><track>" + tracks[2] +
        "</track><track>" + tracks[3] + "</track></audio></media></sequence>" + "</xmeml>\n";
    return doc;
}

}  // namespace xmemlbench
