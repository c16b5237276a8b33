#!/usr/bin/env python3
"""Converts one xmeml document to xmeml, fcpxml and OpenTimelineIO with
qvxml, and checks the three files alone, with Python's standard library, for
what Final Cut Pro 7, Premiere, Resolve, Final Cut Pro X and OpenTimelineIO
expect of them when they read them.

    written_for_others.py QVXML DOCUMENT [--figures] [QVXML OPTIONS...]

xmeml: every file well-formed; transition alignments spelt "center",
"start-black" or "end-black" (or "start", "end"); every clip item of a
sequence's tracks at the sequence's rate; no clip item whose end lies before
its start or whose out lies before its in; a start or end of -1 only beside
a transition item, and every transition beside the clip items its alignment
needs; a drop-frame timecode only at an NTSC rate, and a file's timecode at
the file's rate; no negative time.

fcpxml: every format with a frameDuration; every offset, duration and start
in a sequence a whole number of frames (of the sequence, or of the asset a
clip plays); the items of each storyline meeting end to end, with every
transition between two items and centred on the cut between them; every
clip named; markers inside the item they belong to; no negative time.

OpenTimelineIO: valid JSON without NaN or infinities; every media reference
whose shot has a timecode label at the label's rate, starting at the label's
timecode; no negative time.

With --figures the counts of each check are printed as JSON and the status
is 0 whatever they are (for measuring). Exit status 0 when every check holds,
1 otherwise, 77 when the document is not here (1 under CI=true).
"""
import collections
import glob
import json
import math
import os
import re
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET
from fractions import Fraction

ALIGNMENTS = {"center", "start-black", "end-black", "start", "end"}
# The frame of the rates that Final Cut Pro X's format names state.
NAMED_FRAME_DURATIONS = {"2398": Fraction(1001, 24000), "24": Fraction(1, 24), "25": Fraction(1, 25),
                         "2997": Fraction(1001, 30000), "30": Fraction(1, 30), "50": Fraction(1, 50),
                         "5994": Fraction(1001, 60000), "60": Fraction(1, 60)}


def convert(qvxml, document, to, out, options):
    subprocess.run([qvxml, "convert", document, "--to", to, "-o", out, "--quiet"] + options,
                   check=False, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    return sorted(glob.glob(os.path.join(out, "*")))


def whole(text, default=None):
    try:
        return int(float((text or "").strip()))
    except ValueError:
        return default


# ---- xmeml ----

def rate_of(element):
    rate = element.find("rate") if element is not None else None
    if rate is None:
        return None
    return (whole(rate.findtext("timebase")), (rate.findtext("ntsc") or "").strip().upper())


def check_xmeml(path, faults, counts):
    try:
        root = ET.parse(path).getroot()
    except ET.ParseError as e:
        faults["xmeml not well-formed"] += 1
        print(f"{os.path.basename(path)}: {e}")
        return
    for alignment in root.iter("alignment"):
        counts["xmeml transitions"] += 1
        if (alignment.text or "").strip() not in ALIGNMENTS:
            faults["xmeml alignment spelling"] += 1
    for sequence in root.iter("sequence"):
        media = sequence.find("media")
        if media is None:
            continue
        rate = rate_of(sequence)
        for track in media.findall("video/track") + media.findall("audio/track"):
            check_track(track, rate, faults, counts)
    for timecode in root.iter("timecode"):
        if (timecode.findtext("displayformat") or "").strip() == "DF" and \
                rate_of(timecode)[1] != "TRUE":
            faults["xmeml drop-frame timecode at a rate that is not NTSC"] += 1
    for file in root.iter("file"):
        timecode = file.find("timecode")
        if timecode is not None and rate_of(file) is not None and \
                rate_of(file) != rate_of(timecode):
            faults["xmeml file timecode at another rate than its file"] += 1
    # -1 stands for "open": a clip item's edge inside a transition, a
    # marker's end.
    for e in root.iter():
        for child in e:
            least = -1 if child.tag in ("start", "end") or (e.tag, child.tag) == ("marker", "out") \
                else 0
            if child.tag in ("duration", "in", "out", "frame", "start", "end") and \
                    whole(child.text, 0) < least:
                faults["xmeml negative time"] += 1


def check_track(track, rate, faults, counts):
    items = [e for e in track if e.tag in ("clipitem", "transitionitem", "generatoritem")]
    for i, item in enumerate(items):
        before = items[i - 1] if i > 0 else None
        after = items[i + 1] if i + 1 < len(items) else None
        start, end = whole(item.findtext("start"), 0), whole(item.findtext("end"), 0)
        if item.tag == "transitionitem":
            alignment = (item.findtext("alignment") or "").strip()
            leads = before is not None and before.tag != "transitionitem" and \
                whole(before.findtext("end")) == -1
            follows = after is not None and after.tag != "transitionitem" and \
                whole(after.findtext("start")) == -1
            needs = {"start-black": (False, True), "end-black": (True, False)}.get(
                alignment, (True, True))
            if (needs[0] and not leads) or (needs[1] and not follows):
                faults["xmeml transition beside nothing"] += 1
            continue
        if item.tag == "clipitem":
            counts["xmeml clip items"] += 1
            if rate_of(item) != rate:
                faults["xmeml clip item rate other than its sequence's"] += 1
        if start == -1 and (before is None or before.tag != "transitionitem"):
            faults["xmeml dangling -1 edge"] += 1
        if end == -1 and (after is None or after.tag != "transitionitem"):
            faults["xmeml dangling -1 edge"] += 1
        if start != -1 and end != -1 and end < start:
            faults["xmeml negative length"] += 1
        if whole(item.findtext("out"), 0) < whole(item.findtext("in"), 0):
            faults["xmeml negative length"] += 1


# ---- fcpxml ----

def rational(text):
    """A time attribute as a Fraction of seconds; None when there is none."""
    if text is None:
        return None
    t = text.strip()
    if not t.endswith("s"):
        raise ValueError(t)
    t = t[:-1]
    if "/" in t:
        n, d = t.split("/")
        return Fraction(int(n), int(d))
    return Fraction(t)


def check_fcpxml(path, faults, counts):
    try:
        root = ET.parse(path).getroot()
    except ET.ParseError as e:
        faults["fcpxml not well-formed"] += 1
        print(f"{os.path.basename(path)}: {e}")
        return
    formats = {}
    for f in root.iter("format"):
        if f.get("frameDuration") is None:
            faults["fcpxml format without frameDuration"] += 1
            # Measured all the same, at the rate the format's name states.
            digits = re.search(r"[pi](\d+)$", f.get("name", ""))
            if digits:
                formats[f.get("id")] = NAMED_FRAME_DURATIONS.get(digits.group(1))
        else:
            formats[f.get("id")] = rational(f.get("frameDuration"))
    formats = {k: v for k, v in formats.items() if v}
    assets = {a.get("id"): a for a in root.iter("asset")}
    media = {m.get("id"): m for m in root.iter("media")}
    parents = {c: p for p in root.iter() for c in p}

    for e in root.iter():
        for attribute in ("offset", "duration", "start", "tcStart"):
            value = e.get(attribute)
            if value is not None and value.strip().startswith("-"):
                faults["fcpxml negative time"] += 1
    for e in root.iter():
        if e.tag in ("clip", "asset-clip", "ref-clip") and not e.get("name"):
            faults["fcpxml clip without a name"] += 1
    for a in assets.values():
        if a.get("hasVideo") == "1" and a.get("format") not in formats:
            faults["fcpxml asset without a format"] += 1

    for sequence in root.iter("sequence"):
        grid = formats.get(sequence.get("format"))
        if grid is None:
            faults["fcpxml sequence without a frame duration"] += 1
            continue

        def asset_grid(ref):
            a = assets.get(ref)
            if a is not None and a.get("format") in formats:
                return formats[a.get("format")]
            m = media.get(ref)
            if m is not None:
                s = m.find("sequence")
                if s is not None and s.get("format") in formats:
                    return formats[s.get("format")]
            return grid

        def local_grid(item):
            """The grid of an item's own time: its media's, a gap's the sequence's."""
            if item.tag == "ref-clip" or item.tag == "asset-clip":
                return asset_grid(item.get("ref"))
            if item.tag == "clip":
                inner = item.find("video")
                if inner is None:
                    inner = item.find("audio")
                return asset_grid(inner.get("ref") if inner is not None else None)
            return grid

        def on(value, g, what):
            counts["fcpxml times"] += 1
            t = rational(value)
            if t is not None and (t / g).denominator != 1:
                faults[f"fcpxml {what} off the frame grid"] += 1

        on(sequence.get("tcStart", "0s"), grid, "time")
        for spine in sequence.iter("spine"):
            check_spine(spine, parents, grid, local_grid, on, faults, counts)
        for item in sequence.iter():
            if item.tag in ("video", "audio") and parents[item].tag in ("clip",):
                g = asset_grid(item.get("ref"))
                for attribute in ("offset", "start", "duration"):
                    if item.get(attribute) is not None:
                        on(item.get(attribute), g, "time")
            if item.tag == "marker":
                owner = parents[item]
                start = rational(owner.get("start", "0s"))
                at = rational(item.get("start", "0s"))
                length = rational(owner.get("duration", "0s"))
                counts["fcpxml markers"] += 1
                if not (start <= at < start + length or (length == 0 and at == start)):
                    faults["fcpxml marker outside its item"] += 1


def check_spine(spine, parents, grid, local_grid, on, faults, counts):
    if spine.get("offset") is not None:
        on(spine.get("offset"), local_grid(parents[spine]), "time")
    children = list(spine)
    lanes = collections.defaultdict(list)
    for child in children:
        if child.tag == "spine":
            continue
        lanes[child.get("lane", "0") if child.tag != "transition" else None].append(child)
        for attribute in ("offset", "duration"):
            if child.get(attribute) is not None:
                on(child.get(attribute), grid, "time")
        if child.get("start") is not None:
            on(child.get("start"), local_grid(child), "time")
    # Items meet end to end, lane by lane, in the order written.
    items_by_lane = collections.defaultdict(list)
    for child in children:
        if child.tag not in ("spine", "transition"):
            items_by_lane[child.get("lane", "0")].append(child)
    for lane, items in items_by_lane.items():
        for a, b in zip(items, items[1:]):
            counts["fcpxml joints"] += 1
            if rational(a.get("offset")) + rational(a.get("duration")) != rational(b.get("offset")):
                faults["fcpxml storyline items that do not meet end to end"] += 1
    # A transition stands between two items, centred on the cut between them.
    for i, child in enumerate(children):
        if child.tag != "transition":
            continue
        counts["fcpxml transitions"] += 1
        before = children[i - 1] if i > 0 else None
        after = children[i + 1] if i + 1 < len(children) else None
        if before is None or after is None or "transition" in (before.tag, after.tag):
            faults["fcpxml transition beside nothing"] += 1
            continue
        cut = rational(after.get("offset"))
        middle = rational(child.get("offset")) + rational(child.get("duration")) / 2
        if middle != cut:
            faults["fcpxml transition not centred on its cut"] += 1


# ---- OpenTimelineIO ----

TIMECODE_RATES = {1: 24, 2: Fraction(24000, 1001), 3: 25, 4: 30, 5: Fraction(30000, 1001),
                  6: 48, 7: Fraction(48000, 1001), 8: 50, 9: 60, 10: Fraction(60000, 1001)}


def timecode(frame, ticks, drop):
    if drop:
        per_ten = ticks * 600 - (ticks // 15) * 9
        skip = ticks // 15
        tens, rest = divmod(frame, per_ten)
        frame += 9 * skip * tens
        if rest > skip:
            frame += skip * ((rest - skip) // (ticks * 60 - skip))
    ff = frame % ticks
    ss = frame // ticks % 60
    mm = frame // (ticks * 60) % 60
    hh = frame // (ticks * 3600)
    return f"{hh:02d}:{mm:02d}:{ss:02d}{';' if drop else ':'}{ff:02d}"


def reject_constant(name):
    raise ValueError(f"{name} is no JSON number")


def walk(node):
    if isinstance(node, dict):
        yield node
        for v in node.values():
            yield from walk(v)
    elif isinstance(node, list):
        for v in node:
            yield from walk(v)


def check_otio(path, faults, counts):
    try:
        with open(path, encoding="utf-8") as f:
            doc = json.load(f, parse_constant=reject_constant)
    except ValueError as e:
        faults["otio not valid JSON"] += 1
        print(f"{os.path.basename(path)}: {e}")
        return
    for node in walk(doc):
        schema = node.get("OTIO_SCHEMA", "")
        if schema.startswith("RationalTime") and node.get("value", 0) < 0:
            faults["otio negative time"] += 1
        if not schema.startswith(("ExternalReference", "MissingReference")):
            continue
        ours = node.get("metadata", {}).get("qvxml", {})
        labels = ours.get("labels") or []
        available = node.get("available_range")
        if not labels or not available:
            continue
        fields = labels[0].split()
        label_rate = TIMECODE_RATES.get(int(fields[1]))
        if label_rate is None:
            continue
        drop = fields[2] == "DF"
        # Drop frame counts 1000/1001 rates only: a drop-frame label at 30
        # counts 29.97.
        if drop and label_rate in (30, 60):
            label_rate = Fraction(label_rate * 1000, 1001)
        counts["otio media references with a timecode"] += 1
        start = available["start_time"]
        rate = Fraction(start["rate"]).limit_denominator(1001)
        if rate != label_rate:
            faults["otio media reference at another rate than its footage's timecode"] += 1
            continue
        ticks = round(float(label_rate))
        if abs(start["value"] - round(start["value"])) > 1e-6 or \
                timecode(int(round(start["value"])), ticks, drop) != fields[3]:
            faults["otio media reference starting off its timecode"] += 1


def main():
    args = sys.argv[1:]
    figures = "--figures" in args
    args = [a for a in args if a != "--figures"]
    qvxml, document, options = args[0], args[1], args[2:]
    if not os.path.exists(document):
        print(f"{document} is not here")
        return 1 if os.environ.get("CI") == "true" else 77

    faults, counts = collections.Counter(), collections.Counter()
    with tempfile.TemporaryDirectory() as tmp:
        for to, check in (("xmeml", check_xmeml), ("fcpxml", check_fcpxml), ("otio", check_otio)):
            out = os.path.join(tmp, to)
            os.mkdir(out)
            for path in convert(qvxml, document, to, out, options):
                counts[f"{to} files"] += 1
                check(path, faults, counts)
    if figures:
        print(json.dumps({"document": os.path.basename(document), "counts": counts,
                          "faults": faults}, sort_keys=True))
        return 0
    for what, n in sorted(faults.items()):
        print(f"{n} {what}")
    print(f"{os.path.basename(document)}: "
          f"{sum(counts[k] for k in counts if k.endswith('files'))} files, "
          f"{'all as others read them' if not faults else str(sum(faults.values())) + ' faults'}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
