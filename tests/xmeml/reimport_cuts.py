#!/usr/bin/env python3
"""Checks that what qvxml writes as xmeml comes back where it was: each
sequence a document imports as, written as xmeml and imported again, has the
same cuts, to the frame.

    reimport_cuts.py QVXML DOCUMENT [QVXML OPTIONS...]

imports DOCUMENT with `QVXML import --snapshot`, converts it with `QVXML
convert --to xmeml --report`, imports each file written, and compares, channel
by channel, the sequence each file holds with the sequence of that name in
the first import. A channel is compared as its cuts: the frames where one
event ends and the next begins, each with the kind of event that begins
there (a clip, a transition, black). Black and silence are one event however
many cels make them, and a transition between black and black is black.

Where the writer reported a repair (a clip shortened to its media, a clip
with no media left written as black, a transition left out), the cuts of the
events at the reported frame are not compared: the loss report says what
happened there. Everything else must come back as it was.

Exit status 0 when every cut agrees, 1 otherwise, 77 when the document is
not here (1 under CI=true).
"""
import glob
import json
import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

# Whole-number timebases of the host's frame rates, by their number.
TICKS = {1: 24, 2: 24, 3: 25, 4: 30, 5: 30, 6: 48, 7: 48, 8: 50, 9: 60, 10: 60, 35: 12, 36: 12,
         37: 12, 38: 15, 39: 15, 40: 20, 41: 80, 42: 90, 43: 100, 44: 120, 45: 120, 46: 240,
         47: 240}


def run(args):
    return subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def snapshot(qvxml, path, out, options):
    r = run([qvxml, "import", path, "--quiet", "--snapshot", out] + options)
    if r.returncode != 0:
        return None
    with open(out, encoding="utf-8") as f:
        return json.load(f)["edits"]


def kind_of(cookie):
    # A magic cookie has 00000287 in its second word; with 00000001 in its
    # first it is black or silence, otherwise a transition.
    words = cookie.split("-")
    if len(words) > 2 and words[2] == "00000287":
        return "black" if words[1] == "00000001" else "transition"
    return "clip"


def events(channel, ticks):
    """The channel's events in frames: (in, out, kind), black merged."""
    out = []
    for cel in channel["cels"]:
        a, b = round(cel["editIn"] * ticks), round(cel["editOut"] * ticks)
        kind = kind_of(cel["cookie"])
        if kind == "black" and out and out[-1][2] == "black":
            out[-1] = (out[-1][0], b, "black")
        elif b > a or kind != "black":
            out.append((a, b, kind))
    # A transition with black (or nothing) on both sides is black.
    for i, (a, b, kind) in enumerate(out):
        before = out[i - 1][2] if i > 0 else "black"
        after = out[i + 1][2] if i + 1 < len(out) else "black"
        if kind == "transition" and before == "black" and after == "black":
            out[i] = (a, b, "black")
    merged = []
    for e in out:
        if e[2] == "black" and merged and merged[-1][2] == "black":
            merged[-1] = (merged[-1][0], e[1], "black")
        else:
            merged.append(e)
    while merged and merged[-1][2] == "black":
        merged.pop()
    return merged


def cuts(evs):
    """Where each event begins, with its kind, and where the last ends."""
    out = {(a, kind) for a, b, kind in evs}
    if evs:
        out.add((evs[-1][1], "end"))
    return out


def exempt(evs, frames):
    """The stretches of the events that hold a reported frame, with their
    neighbours' edges."""
    spans = []
    for f in frames:
        for i, (a, b, kind) in enumerate(evs):
            if a <= f <= b:
                lo = evs[i - 1][0] if i > 0 else a
                hi = evs[i + 1][1] if i + 1 < len(evs) else b
                spans.append((lo, hi))
    return spans


def differences(first, second, ticks, reported):
    """The cuts of two sequences that differ outside the reported repairs."""
    if len(first["channels"]) != len(second["channels"]):
        return [f"{len(first['channels'])} channels, {len(second['channels'])} come back"]
    found = []
    for index, (a, b) in enumerate(zip(first["channels"], second["channels"])):
        ea, eb = events(a, ticks), events(b, ticks)
        frames = [f for track, f in reported if not track or track == a.get("name", "")]
        spans = exempt(ea, frames) + exempt(eb, frames)
        keep = lambda c: not any(lo <= c[0] <= hi for lo, hi in spans)
        ca, cb = {c for c in cuts(ea) if keep(c)}, {c for c in cuts(eb) if keep(c)}
        if ca != cb:
            lost, gained = sorted(ca - cb)[:3], sorted(cb - ca)[:3]
            found.append(f"channel {index}: cuts {lost} do not come back, {gained} are new")
    return found


def main():
    qvxml, document, options = sys.argv[1], sys.argv[2], sys.argv[3:]
    if not os.path.exists(document):
        print(f"{document} is not here")
        return 1 if os.environ.get("CI") == "true" else 77
    with tempfile.TemporaryDirectory() as tmp:
        first = snapshot(qvxml, document, os.path.join(tmp, "first.json"), options)
        if first is None:
            print(f"{os.path.basename(document)} does not import")
            return 1
        out = os.path.join(tmp, "out")
        os.mkdir(out)
        report = os.path.join(tmp, "report.json")
        run([qvxml, "convert", document, "--to", "xmeml", "-o", out, "--quiet", "--report",
             report] + options)
        items = []
        if os.path.exists(report):
            with open(report, encoding="utf-8") as f:
                for d in json.load(f)["documents"]:
                    items += d["items"]
        faults = files = 0
        for n, path in enumerate(sorted(glob.glob(os.path.join(out, "*.xml")))):
            files += 1
            sequences = list(ET.parse(path).getroot().iter("sequence"))
            if not sequences:
                continue
            name = sequences[0].findtext("name") or "NoName"
            second = snapshot(qvxml, path, os.path.join(tmp, f"second{n}.json"), options)
            if second is None:
                print(f"{os.path.basename(path)} does not import")
                faults += 1
                continue
            back = next((e for e in second if e.get("type") == "sequence" and
                         e.get("name") == name), None)
            candidates = [e for e in first if e.get("type") == "sequence" and
                          e.get("name") == name]
            if back is None or not candidates:
                print(f"{name}: not found again")
                faults += 1
                continue
            ticks = TICKS.get(back.get("frameRate"), 25)
            reported = [(i.get("track", ""), i["frame"]) for i in items
                        if i.get("origin") == "writer" and i.get("sequence") == name and
                        i.get("frame") is not None]
            # Of sequences of one name, the one that comes back.
            found = min((differences(c, back, ticks, reported) for c in candidates), key=len)
            if found:
                faults += 1
                print(f"{name}: " + "; ".join(found[:4]))
    print(f"{os.path.basename(document)}: {files} files, "
          f"{'every cut comes back' if not faults else str(faults) + ' differ'}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
