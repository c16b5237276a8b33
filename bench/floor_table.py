#!/usr/bin/env python3
"""The speed table: whole qvxml runs beside their floor, on the same bytes.

    bench/floor_table.py build/bin/qvxml            the table, 9 pairs a row
    bench/floor_table.py build/bin/qvxml -n 21      steadier medians

Each row runs command A and its floor B in turn (A B A B ...), takes the CPU
seconds (user + system) and the peak memory of each finished process from
the kernel's own accounting, and prints the median of the pair-by-pair
ratios A/B, so that a machine whose speed drifts during the run still gives
a fair ratio. Goals are printed beside each ratio; a row over its goal is
marked, and the exit status is 1 when any row is over.

Rows whose runs take milliseconds run at least 41 pairs whatever -n says:
on a shared machine a median of 9 such pairs moves by 0.05 from one table
to the next. Beside each median the note gives the ratio of the fastest
runs of A and B ("fastest"): other work on the machine only ever adds time,
so a large gap between the two says the machine was busy.

Rows:
  - `qvxml --version` against /bin/true (start-up);
  - import of the largest corpus document against `xmllint --noout`;
  - convert to xmeml against import of the same document;
  - import in a folder of 5,000 unrelated files against an empty folder,
    for media_scanning_behaviour 1 (beside the document) and 2 (the tree);
  - .otio import and .otio to .otio at 100,000 clips against Python's
    json.load of the same file (OpenTimelineIO's own reader when installed);
  - peak memory of a convert per MB of a generated 100 MB xmeml.

Documents are generated in a temporary folder and removed afterwards.
"""

import argparse
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile

HERE = os.path.dirname(os.path.abspath(__file__))
CORPUS = os.environ.get("QVXML_CORPUS", os.path.join(HERE, "..", "..", "shared", "corpus"))


def run(cmd, cwd=None):
    """CPU seconds and peak MiB of one run of `cmd`, its output thrown away."""
    proc = subprocess.Popen(cmd, cwd=cwd, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(proc.pid, 0)
    proc.returncode = os.waitstatus_to_exitcode(status)
    if proc.returncode != 0:
        sys.exit(f"{' '.join(cmd)} ended with status {proc.returncode}")
    return usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024.0


class Pair:
    """Medians of A's and B's CPU seconds and of the ratio A/B, and the
    ratio of their fastest runs."""

    def __init__(self, ta, tb):
        self.a, self.b = statistics.median(ta), statistics.median(tb)
        self.ratio = statistics.median(x / max(y, 1e-4) for x, y in zip(ta, tb))
        self.fastest = min(ta) / max(min(tb), 1e-4)

    def note(self, digits=0):
        return f"{self.a * 1000:.{digits}f} ms vs {self.b * 1000:.{digits}f} ms, fastest {self.fastest:.2f}"


def pair(a, b, runs, cwd_a=None, cwd_b=None):
    """A and B run in turn, `runs` times each after one run of each to warm
    the caches."""
    run(a, cwd_a)
    run(b, cwd_b)
    ta, tb = [], []
    for _ in range(runs):
        ta.append(run(a, cwd_a)[0])
        tb.append(run(b, cwd_b)[0])
    return Pair(ta, tb)


def xmeml_document(target_bytes):
    """A long xmeml of four tracks whose clip items share a pool of files."""
    files = 0

    def file_element(i):
        nonlocal files
        if i < files:
            return f'<file id="file-{i}"/>'
        files += 1
        return (
            f'<file id="file-{i}"><name>clip {i}.mov</name>'
            f"<pathurl>file://localhost/Volumes/Media/day%201/clip%20{i}.mov</pathurl>"
            "<rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate><duration>7500</duration>"
            "<timecode><rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>"
            "<string>10:00:00:00</string><frame>900000</frame><displayformat>NDF</displayformat>"
            f"<reel><name>A{i}</name></reel></timecode><media><video><duration>7500</duration>"
            "<samplecharacteristics><width>1920</width><height>1080</height>"
            "</samplecharacteristics></video><audio><channelcount>2</channelcount></audio>"
            "</media></file>"
        )

    tracks = []
    for t in range(4):
        parts, size, pos, k = [], 0, 0, 0
        while size < target_bytes // 4:
            length = 50 + k % 40
            item = (
                f'<clipitem id="clipitem-{t}-{k}"><name>clip {k // 10}</name>'
                "<duration>7500</duration><rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate>"
                f"<start>{pos}</start><end>{pos + length}</end><in>{100 + k % 500}</in>"
                f"<out>{100 + k % 500 + length}</out>{file_element(k // 10)}"
            )
            if t >= 2:
                item += (
                    "<sourcetrack><mediatype>audio</mediatype>"
                    f"<trackindex>{t - 1}</trackindex></sourcetrack>"
                )
            item += "</clipitem>"
            parts.append(item)
            size += len(item)
            pos += length
            k += 1
        tracks.append("".join(parts))
    return (
        '<?xml version="1.0" encoding="UTF-8"?>\n<!DOCTYPE xmeml>\n<xmeml version="5">'
        '<sequence id="seq"><name>long cut</name><duration>1</duration>'
        "<rate><timebase>25</timebase><ntsc>FALSE</ntsc></rate><media>"
        f"<video><track>{tracks[0]}</track><track>{tracks[1]}</track></video>"
        f"<audio><track>{tracks[2]}</track><track>{tracks[3]}</track></audio>"
        "</media></sequence></xmeml>\n"
    )


def otio_document(clips):
    """A timeline of `clips` clips of 2 s over one video track, 100 media."""

    def rt(value, rate=25.0):
        return {"OTIO_SCHEMA": "RationalTime.1", "rate": rate, "value": value}

    children = []
    for k in range(clips):
        children.append(
            {
                "OTIO_SCHEMA": "Clip.1",
                "name": f"shot {k % 100}",
                "metadata": {},
                "enabled": True,
                "effects": [],
                "markers": [],
                "media_reference": {
                    "OTIO_SCHEMA": "ExternalReference.1",
                    "name": "",
                    "metadata": {},
                    "available_range": {
                        "OTIO_SCHEMA": "TimeRange.1",
                        "start_time": rt(90000),
                        "duration": rt(1500),
                    },
                    "target_url": f"file:///media/shot{k % 100}.mov",
                },
                "source_range": {
                    "OTIO_SCHEMA": "TimeRange.1",
                    "start_time": rt(90000 + k % 1000),
                    "duration": rt(50),
                },
            }
        )
    track = {
        "OTIO_SCHEMA": "Track.1",
        "name": "V1",
        "kind": "Video",
        "metadata": {},
        "enabled": True,
        "effects": [],
        "markers": [],
        "source_range": None,
        "children": children,
    }
    return {
        "OTIO_SCHEMA": "Timeline.1",
        "name": "long cut",
        "metadata": {},
        "global_start_time": rt(90000),
        "tracks": {
            "OTIO_SCHEMA": "Stack.1",
            "name": "tracks",
            "metadata": {},
            "enabled": True,
            "effects": [],
            "markers": [],
            "source_range": None,
            "children": [track],
        },
    }


def otio_floor(path, write):
    """OpenTimelineIO's own read (and write) when it is installed, else json."""
    try:
        import opentimelineio  # noqa: F401

        if write:
            code = (
                "import opentimelineio as o,sys;"
                "o.adapters.write_to_file(o.adapters.read_from_file(sys.argv[1]),sys.argv[2])"
            )
            return [sys.executable, "-c", code, path, path + ".floor.otio"], "OpenTimelineIO"
        code = "import opentimelineio as o,sys;o.adapters.read_from_file(sys.argv[1])"
        return [sys.executable, "-c", code, path], "OpenTimelineIO"
    except ImportError:
        code = "import json,sys;json.load(open(sys.argv[1]))"
        if write:
            code = (
                "import json,sys;d=json.load(open(sys.argv[1]));"
                "json.dump(d,open(sys.argv[2],'w'),indent=4)"
            )
            return [sys.executable, "-c", code, path, path + ".floor.otio"], "json"
        return [sys.executable, "-c", code, path], "json"


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("qvxml", help="the qvxml command to measure")
    parser.add_argument("-n", "--runs", type=int, default=9, help="pairs a row (default 9)")
    parser.add_argument("--otio-clips", type=int, default=100_000)
    parser.add_argument("--xmeml-mb", type=int, default=100, help="size of the memory row's document")
    args = parser.parse_args()
    qvxml = os.path.abspath(args.qvxml)
    xmllint = shutil.which("xmllint")
    if not xmllint:
        sys.exit("xmllint is needed for the floor (Debian package libxml2-utils)")
    biggest = os.path.join(CORPUS, "xmeml", "2005.xml")
    if not os.path.isfile(biggest):
        sys.exit(f"{biggest} is missing: give QVXML_CORPUS")

    rows = []

    def row(name, ratio, goal, note=""):
        over = goal is not None and ratio > goal
        rows.append(over)
        mark = "  OVER" if over else ""
        goal_text = f"<= {goal:.1f}" if goal is not None else ""
        print(f"{name:<52} {ratio:8.2f} {goal_text:>8}{mark}  {note}", flush=True)

    print(f"{'row':<52} {'A/B':>8} {'goal':>8}")
    quick = max(args.runs, 41)  # pairs of the rows that take milliseconds
    with tempfile.TemporaryDirectory(prefix="qvxml-floor-") as tmp:
        p = pair([qvxml, "--version"], ["/bin/true"], quick)
        row("qvxml --version / /bin/true", p.ratio, None, p.note(1) + " (CPU)")

        p = pair([qvxml, "import", biggest], [xmllint, "--noout", biggest], quick)
        row("import 2005.xml / xmllint --noout", p.ratio, 1.0, p.note())

        out = os.path.join(tmp, "out")
        os.mkdir(out)
        convert = [qvxml, "convert", biggest, "--to", "xmeml", "-o", out, "--overwrite"]
        p = pair(convert, [qvxml, "import", biggest], quick)
        row("convert 2005.xml to xmeml / import", p.ratio, 1.3, p.note())

        # The same document in a crowded folder and in a folder of its own.
        crowded, alone = os.path.join(tmp, "crowded"), os.path.join(tmp, "alone")
        for folder in (crowded, alone):
            os.mkdir(folder)
            shutil.copy(biggest, folder)
        for k in range(5000):
            sub = os.path.join(crowded, f"day {k // 1000}") if k % 2 else crowded
            os.makedirs(sub, exist_ok=True)
            with open(os.path.join(sub, f"unrelated {k}.mov"), "w"):
                pass
        for behaviour in (1, 2):
            cmd = [qvxml, "import", "2005.xml", "--set", f"media_scanning_behaviour={behaviour}"]
            p = pair(cmd, cmd, quick, cwd_a=crowded, cwd_b=alone)
            row(f"import among 5,000 files / alone (behaviour {behaviour})", p.ratio, 1.1, p.note())

        otio = os.path.join(tmp, "long.otio")
        with open(otio, "w") as f:
            json.dump(otio_document(args.otio_clips), f, indent=4)
        floor, which = otio_floor(otio, write=False)
        p = pair([qvxml, "import", otio], floor, args.runs)
        row(f"import .otio, {args.otio_clips:,} clips / {which} read", p.ratio, 0.8, p.note())
        floor, which = otio_floor(otio, write=True)
        cmd = [qvxml, "convert", otio, "--to", "otio", "-o", out, "--overwrite"]
        p = pair(cmd, floor, args.runs)
        row(f".otio to .otio / {which} read+write", p.ratio, 0.8, p.note())

        big = os.path.join(tmp, "long.xml")
        with open(big, "w") as f:
            f.write(xmeml_document(args.xmeml_mb * 1_000_000))
        mb = os.path.getsize(big) / 1e6
        _, peak = run([qvxml, "convert", big, "--to", "xmeml", "-o", out, "--overwrite"])
        row(f"convert peak MiB per MB of document ({mb:.0f} MB)", peak / mb, 3.0, f"{peak:.0f} MiB")
    return 1 if any(rows) else 0


if __name__ == "__main__":
    sys.exit(main())
