// draw: a picture of each sequence, as SVG, or as one HTML page that holds
// the pictures, the info tables and the loss report of reading it. Both are
// self-contained: no network, no other files.
#include <sys/stat.h>

#include <algorithm>
#include <cmath>

#include "app/commands/Commands.h"
#include "app/commands/Info.h"
#include "app/conform/LossReport.h"
#include "app/pipeline/Text.h"

namespace qvapp {

namespace {

std::string escaped(const std::string& s) {
    std::string out;
    for (char c : s) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            case '\'':
                out += "&#39;";
                break;
            default:
                out.push_back(c);
        }
    }
    return out;
}

std::string num(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", v);
    return text;
}

// As much of a label as fits in a box, by an average character width.
std::string fitted(const std::string& label, double width) {
    int room = static_cast<int>((width - 6) / 6.2);
    if (room <= 0) return "";
    std::size_t chars = 0, cut = 0;
    for (std::size_t i = 0; i < label.size(); ++i)
        if ((static_cast<unsigned char>(label[i]) & 0xC0) != 0x80) {
            if (static_cast<int>(chars) == room) {
                cut = i;
                break;
            }
            ++chars;
        }
    if (cut == 0) return label;
    return room <= 2 ? "" : label.substr(0, cut - 1) + "\u2026";
}

const double kWidth = 1200, kLeft = 48, kRuler = 30, kLane = 30, kLaneGap = 4;

// A picture of one sequence.
std::string sequenceSvg(const DocumentInfo& d, const SequenceInfo& s) {
    const double frames = std::max<double>(static_cast<double>(s.duration), 1);
    const double scale = (kWidth - kLeft - 8) / frames;
    auto x = [&](std::int64_t f) { return kLeft + static_cast<double>(f) * scale; };
    // Lanes top down: the highest video track first, then audio in order.
    std::vector<int> lanes;
    for (int t = s.videoTracks() - 1; t >= 0; --t)
        lanes.push_back(t);
    for (int t = s.videoTracks(); t < static_cast<int>(s.tracks.size()); ++t)
        lanes.push_back(t);
    std::vector<double> laneY(s.tracks.size(), 0);
    for (std::size_t i = 0; i < lanes.size(); ++i)
        laneY[static_cast<std::size_t>(lanes[i])] =
            kRuler + 8 + static_cast<double>(i) * (kLane + kLaneGap);
    const double height = kRuler + 16 + static_cast<double>(lanes.size()) * (kLane + kLaneGap);

    std::string svg = "<svg xmlns=\"http://www.w3.org/2000/svg\" class=\"sequence\" width=\"" +
                      num(kWidth) + "\" height=\"" + num(height) + "\" viewBox=\"0 0 " +
                      num(kWidth) + " " + num(height) + "\" data-sequence=\"" + escaped(s.name) +
                      "\" data-clips=\"" + std::to_string(s.clips.size()) + "\">\n";
    svg += "<title>" + escaped(s.name) + "</title>\n";
    svg +=
        "<style>.clip{stroke:#1d2b3a;stroke-width:1}.v{fill:#5b8def}.a{fill:#4cb782}"
        ".offline{fill:#e5484d;stroke:#7a1010;stroke-dasharray:4 2}"
        ".transition{fill:#f5c542;opacity:.85}.gap{fill:none;stroke:#c8ccd2;"
        "stroke-dasharray:3 3}.lane{fill:#f3f4f6}.label{font:11px sans-serif;fill:#fff}"
        ".tick{stroke:#8a9099}.tc{font:10px monospace;fill:#333}"
        ".track{font:bold 11px sans-serif;fill:#333}.marker{fill:#d6336c}"
        ".markerline{stroke:#d6336c;stroke-dasharray:2 3}</style>\n";

    // The ruler: a timecode every so many seconds, about ten of them.
    // A sequence of no known timebase has no ruler.
    const double seconds = s.ticks > 0 ? frames / s.ticks : 0;
    const double steps[] = {1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600};
    double step = steps[std::size(steps) - 1];
    for (double candidate : steps)
        if (seconds / candidate <= 12) {
            step = candidate;
            break;
        }
    // Longer than twelve hours: whole hours, still about ten of them.
    if (seconds / step > 12) step = std::ceil(seconds / 12 / 3600) * 3600;
    svg += "<g class=\"ruler\">\n";
    for (double t = 0; s.ticks > 0 && t <= seconds + 1e-9; t += step) {
        std::int64_t f = frameAsWritten(t * s.ticks);
        svg += "<line class=\"tick\" x1=\"" + num(x(f)) + "\" y1=\"" + num(kRuler - 8) +
               "\" x2=\"" + num(x(f)) + "\" y2=\"" + num(kRuler) + "\"/>";
        // A label that would run off the right edge is left out.
        if (x(f) + 66 <= kWidth)
            svg += "<text class=\"tc\" x=\"" + num(x(f) + 2) + "\" y=\"" + num(kRuler - 11) +
                   "\">" + s.timecode(f) + "</text>\n";
    }
    svg += "</g>\n";

    for (std::size_t t = 0; t < s.tracks.size(); ++t) {
        svg += "<rect class=\"lane\" x=\"" + num(kLeft) + "\" y=\"" + num(laneY[t]) +
               "\" width=\"" + num(kWidth - kLeft - 8) + "\" height=\"" + num(kLane) + "\"/>";
        svg += "<text class=\"track\" x=\"6\" y=\"" + num(laneY[t] + kLane / 2 + 4) + "\">" +
               escaped(s.tracks[t].name) + "</text>\n";
    }
    for (const GapInfo& g : s.gaps) {
        double y = laneY[static_cast<std::size_t>(g.track)];
        svg += "<rect class=\"gap\" x=\"" + num(x(g.recordIn) + 0.5) + "\" y=\"" + num(y + 3) +
               "\" width=\"" + num(std::max(0.0, (g.recordOut - g.recordIn) * scale - 1)) +
               "\" height=\"" + num(kLane - 6) + "\"><title>gap " + s.timecode(g.recordIn) +
               " to " + s.timecode(g.recordOut) + "</title></rect>\n";
    }
    for (const ClipInfo& c : s.clips) {
        const TrackInfo& track = s.tracks[static_cast<std::size_t>(c.track)];
        double y = laneY[static_cast<std::size_t>(c.track)];
        double w = std::max(1.0, static_cast<double>(c.recordOut - c.recordIn) * scale);
        std::string kind =
            std::string("clip ") + (track.video ? "v" : "a") + (c.offline ? " offline" : "");
        std::string title = c.name + "\n" + track.name + " " + s.timecode(c.recordIn) + " to " +
                            s.timecode(c.recordOut);
        if (!c.sourceIn.empty()) title += "\nsource " + c.sourceIn + " to " + c.sourceOut;
        if (c.speed != 1) title += "\nspeed " + num(c.speed * 100) + "%";
        if (c.offline) title += "\nOFFLINE";
        if (c.media >= 0 && !d.media[static_cast<std::size_t>(c.media)].path.empty())
            title += "\n" + d.media[static_cast<std::size_t>(c.media)].path;
        svg += "<g><rect class=\"" + kind + "\" x=\"" + num(x(c.recordIn)) + "\" y=\"" + num(y) +
               "\" width=\"" + num(w) + "\" height=\"" + num(kLane) + "\" rx=\"3\" data-track=\"" +
               escaped(track.name) + "\" data-name=\"" + escaped(c.name) + "\"><title>" +
               escaped(title) + "</title></rect>";
        std::string label = fitted(c.name, w);
        if (!label.empty())
            svg += "<text class=\"label\" x=\"" + num(x(c.recordIn) + 3) + "\" y=\"" +
                   num(y + kLane / 2 + 4) + "\">" + escaped(label) + "</text>";
        svg += "</g>\n";
    }
    for (const TransitionInfo& t : s.transitions) {
        double y = laneY[static_cast<std::size_t>(t.track)];
        svg += "<rect class=\"transition\" x=\"" + num(x(t.recordIn)) + "\" y=\"" + num(y + 4) +
               "\" width=\"" +
               num(std::max(2.0, static_cast<double>(t.recordOut - t.recordIn) * scale)) +
               "\" height=\"" + num(kLane - 8) + "\"><title>" + t.kind + " " +
               s.timecode(t.recordIn) + " to " + s.timecode(t.recordOut) + "</title></rect>\n";
    }
    for (const MarkerInfo& m : s.markers) {
        double mx = x(m.in);
        svg += "<g><line class=\"markerline\" x1=\"" + num(mx) + "\" y1=\"" + num(kRuler) +
               "\" x2=\"" + num(mx) + "\" y2=\"" + num(height - 6) + "\"/>";
        svg += "<path class=\"marker\" d=\"M" + num(mx - 5) + " " + num(kRuler - 8) +
               " h10 l-5 8 z\"><title>" +
               escaped(m.name + (m.comment.empty() ? "" : " - " + m.comment)) + " " +
               s.timecode(m.in) + "</title></path></g>\n";
    }
    svg += "</svg>\n";
    return svg;
}

std::string table(const std::vector<std::string>& head,
                  const std::vector<std::vector<std::string>>& rows, const std::string& cls) {
    std::string t = "<table class=\"" + cls + "\"><thead><tr>";
    for (const std::string& h : head)
        t += "<th>" + escaped(h) + "</th>";
    t += "</tr></thead><tbody>\n";
    for (const auto& row : rows) {
        t += "<tr>";
        for (const std::string& cell : row)
            t += "<td>" + escaped(cell) + "</td>";
        t += "</tr>\n";
    }
    return t + "</tbody></table>\n";
}

std::string page(const DocumentInfo& d, const std::vector<Loss>& losses) {
    std::string title = "qvxml: " + d.path;
    std::string h =
        "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
        "<title>" +
        escaped(title) +
        "</title>\n<style>body{font:14px sans-serif;margin:24px;color:#1d2b3a}"
        "h1{font-size:20px}h2{font-size:17px;margin-top:32px}"
        "table{border-collapse:collapse;margin:8px 0 16px}"
        "td,th{border:1px solid #d5d9de;padding:3px 8px;text-align:left;"
        "font-size:12px}th{background:#eef1f4}.offline td{color:#b42318}"
        "svg{display:block;margin:8px 0;border:1px solid #d5d9de}"
        "rect.clip:hover{stroke-width:3}</style></head>\n<body>\n";
    h += "<h1>" + escaped(d.path) + " <small>(" + escaped(d.format) + ")</small></h1>\n";
    h += "<p id=\"drawn\"></p>\n";
    for (const SequenceInfo& s : d.sequences) {
        h += "<section class=\"sequence\"><h2>" + escaped(s.name) + "</h2>\n";
        h += "<p>" + escaped(s.rate) + " fps, starts " + s.timecode(0) + ", lasts " +
             s.length(s.duration) + "; " +
             escaped(counted(static_cast<long>(s.clips.size()), "clip")) + ", " +
             escaped(counted(static_cast<long>(s.transitions.size()), "transition")) + ", " +
             escaped(counted(static_cast<long>(s.markers.size()), "marker")) + "</p>\n";
        h += sequenceSvg(d, s);
        std::vector<std::vector<std::string>> rows;
        for (const ClipInfo& c : s.clips)
            rows.push_back({s.tracks[static_cast<std::size_t>(c.track)].name,
                            s.timecode(c.recordIn), s.timecode(c.recordOut), c.sourceIn,
                            c.sourceOut, c.name, c.speed != 1 ? num(c.speed * 100) + "%" : "",
                            c.offline ? "offline" : ""});
        h += "<details><summary>Clips</summary>\n" +
             table({"Track", "In", "Out", "Source in", "Source out", "Name", "Speed", ""}, rows,
                   "clips") +
             "</details>\n";
        if (!s.markers.empty()) {
            rows.clear();
            for (const MarkerInfo& m : s.markers)
                rows.push_back({s.timecode(m.in), m.name, m.comment});
            h += "<details><summary>Markers</summary>\n" +
                 table({"Timecode", "Name", "Comment"}, rows, "markers") + "</details>\n";
        }
        h += "</section>\n";
    }
    h += "<h2>Media</h2>\n";
    std::vector<std::vector<std::string>> rows;
    for (const MediaInfo& m : d.media) {
        std::string where = m.path;
        if (m.status == "offline") {
            where = m.why;
            for (const std::string& place : m.lookedIn)
                where += "; looked in " + place;
        }
        rows.push_back({m.status, m.name, where, std::to_string(m.uses)});
    }
    h += table({"Status", "Name", "File", "Clips"}, rows, "media");
    h += "<h2>What reading it passed over</h2>\n";
    if (losses.empty()) {
        h += "<p>Nothing.</p>\n";
    } else {
        rows.clear();
        for (const Loss& l : losses)
            rows.push_back({kindPhrase(l.kind), l.sequence, l.track, l.timecode, l.detail});
        h += table({"What", "Sequence", "Track", "Timecode", "Detail"}, rows, "losses");
    }
    // Counts what the browser drew, for a person and for the tests.
    h += "<script>\n"
         "(function(){var n=document.querySelectorAll('svg rect.clip').length;"
         "var off=document.querySelectorAll('svg rect.clip.offline').length;"
         "document.body.setAttribute('data-clip-boxes',String(n));"
         "document.getElementById('drawn').textContent=n+' clip boxes drawn'+"
         "(off?', '+off+' offline':'')+'.';})();\n"
         "</script>\n</body></html>\n";
    return h;
}

}  // namespace

Outcome Commands::draw(const Options& o) {
    if (o.inputs.size() != 1) return Outcome(kExitUsage, "say which one document to draw");
    if (!o.outputGiven)
        return Outcome(kExitUsage, "say where the picture goes with -o FILE.svg or -o FILE.html");
    const std::string& output = o.outputDir;
    bool html = output.size() > 5 && (output.ends_with(".html") || output.ends_with(".htm"));
    if (!html && !output.ends_with(".svg"))
        return Outcome(kExitUsage, "-o names an .svg or an .html file, not " + inQuotes(output));
    const std::string& input = o.inputs[0];
    // Where the picture goes is settled before any work is done.
    startRun({input}, o.overwrite);
    if (Outcome w = run_->output->check(output); !w.ok()) return w;

    DocumentInfo d;
    if (Outcome r = lookAt(input, o.lenient, d); !r.ok()) return r;
    if (d.sequences.empty())
        return Outcome(kExitFailed, inQuotes(input) + " holds no sequence to draw");

    std::string content;
    if (html) {
        content = page(d, read_.empty() ? std::vector<Loss>() : read_.back().items);
    } else {
        // The sequences one below the other, in one picture.
        double y = 0;
        std::string body;
        for (const SequenceInfo& s : d.sequences) {
            std::string svg = sequenceSvg(d, s);
            std::size_t h = svg.find("height=\"");
            double height = std::strtod(svg.c_str() + h + 8, nullptr);
            body += "<g transform=\"translate(0 " + num(y + 18) +
                    ")\">\n<text x=\"6\" y=\"-4\" "
                    "style=\"font:bold 13px sans-serif\">" +
                    escaped(s.name) + "</text>\n" + svg + "</g>\n";
            y += height + 30;
        }
        content =
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<svg "
            "xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
            num(kWidth) + "\" height=\"" + num(y) + "\" viewBox=\"0 0 " + num(kWidth) + " " +
            num(y) + "\">\n" + body + "</svg>\n";
    }
    if (Outcome r = writeFile(output, content, o); !r.ok()) return r;
    std::fprintf(out_, "%s\n", shown(absolute(output)).c_str());
    return {};
}

}  // namespace qvapp
