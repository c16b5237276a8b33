#!/usr/bin/env python3
"""Checks where qvxml puts every clip of an xmeml sequence, against a reading
of the document made here with ElementTree alone.

The document's own numbers say where each item stands: a clip item's
`start` and `end`, a transition item's `start` and `end`. A clip that runs
into a transition has -1 there; it ends where the transition begins and the
clip after it begins where the transition ends, since the editor keeps a
transition as an event of its own on the track. What lies between items,
and after the last one up to the sequence's duration, is black.

    record_positions.py QVXML DOCUMENT

imports DOCUMENT with `QVXML import --snapshot`, and compares, track by
track, the first sequence of the document with the edit of the same name in
the snapshot. Video tracks come last first (the document's top track is the
editor's first video channel), audio tracks in order. Only positions are
compared: what each event plays is for other tests. Exit status 0 when
every position agrees, 1 otherwise, 77 when the document is not there.
"""
import json
import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET


def number(element, tag, default=0):
    text = element.findtext(tag)
    if text is None or not text.strip():
        return default
    try:
        return int(float(text.strip()))
    except ValueError:
        return default


def expected_track(track, duration):
    """The events of one track: (start, end), black included."""
    items = [e for e in track if e.tag in ("clipitem", "transitionitem")]
    events = []
    for i, item in enumerate(items):
        start, end = number(item, "start"), number(item, "end")
        if item.tag == "clipitem":
            if start == -1 and i > 0:
                start = number(items[i - 1], "end")
            if end == -1 and i + 1 < len(items):
                end = number(items[i + 1], "start")
        events.append((start, end, item.tag == "transitionitem"))
    out, pos = [], 0
    for start, end, transition in sorted(events, key=lambda e: (e[0], e[2])):
        if start > pos:
            out.append((pos, start))
        out.append((start, end))
        pos = end
    if pos < duration:
        out.append((pos, duration))
    return out


def expected_sequence(sequence, ticks):
    # The editor keeps a length in seconds, frames times 1/timebase, and
    # counts it back in whole frames by truncation: 123134 frames at 50 come
    # back as 123133.999... and so 123133.
    duration = int(number(sequence, "duration") * (1.0 / ticks) * ticks) if ticks else 0
    media = sequence.find("media")
    video = media.findall("video/track") if media is not None else []
    audio = media.findall("audio/track") if media is not None else []
    return [expected_track(t, duration) for t in reversed(video)] + [
        expected_track(t, duration) for t in audio
    ]


def imported_sequence(edit, ticks):
    channels = []
    for channel in edit["channels"]:
        channels.append(
            [
                (round(c["editIn"] * ticks), round(c["editOut"] * ticks))
                for c in channel["cels"]
            ]
        )
    return channels


def main():
    qvxml, document = sys.argv[1], sys.argv[2]
    if not os.path.exists(document):
        print(f"skipped: {document} is not here")
        return 77
    root = ET.parse(document).getroot()
    sequence = next(root.iter("sequence"), None)
    if sequence is None:
        print(f"skipped: {document} holds no sequence")
        return 77
    ticks = number(sequence.find("rate"), "timebase")
    name = sequence.findtext("name") or "NoName"
    want = expected_sequence(sequence, ticks)

    with tempfile.TemporaryDirectory() as tmp:
        snapshot = os.path.join(tmp, "project.json")
        subprocess.run(
            [qvxml, "import", document, "--quiet", "--snapshot", snapshot],
            check=True, stdout=subprocess.DEVNULL)
        with open(snapshot, encoding="utf-8") as f:
            edits = json.load(f)["edits"]
    edit = next(e for e in edits if e.get("type") == "sequence" and e.get("name") == name)
    got = imported_sequence(edit, ticks)

    faults = 0
    if len(got) != len(want):
        print(f"{len(want)} tracks in the document, {len(got)} channels imported")
        return 1
    events = 0
    for index, (w, g) in enumerate(zip(want, got)):
        events += len(w)
        if w != g:
            faults += 1
            at = next((i for i, (a, b) in enumerate(zip(w, g)) if a != b), min(len(w), len(g)))
            print(f"channel {index}, event {at}: expected {w[at:at + 3]}, imported {g[at:at + 3]}")
    print(f"{os.path.basename(document)}: {len(want)} tracks, {events} events, "
          f"{'all in place' if not faults else str(faults) + ' tracks differ'}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
