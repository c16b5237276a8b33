#!/usr/bin/env python3
"""Checks where qvxml puts every clip of an xmeml document, and what each
place plays, against a reading of the document made here with ElementTree
alone; and, given OpenTimelineIO's reading of the same document, lists where
that reading differs from qvxml's.

    record_positions.py QVXML DOCUMENT
    record_positions.py QVXML DOCUMENT --otio OTIO

The document's own numbers say where each item stands: a clip item's
`start` and `end`, a transition item's `start` and `end`. A clip that runs
into a transition has -1 there; it ends where the transition begins and the
clip after it begins where the transition ends, since the editor keeps a
transition as an event of its own on the track. What lies between items,
and after the last one up to the sequence's end, is black. A sequence ends
at its `duration`, or where its last item ends when that is later (Premiere
writes 0, or a few frames, for a long cut).

Each place plays one of three things:
  clip        a clip item that names media the document describes: a file
              defined somewhere in it (with or without a length), on an
              audio track a channel the file has (its channels counted over
              all its sound streams; a file that counts tracks, or no
              channels, has those its uses name), or a nested sequence held
              in the item or named by the id of one defined elsewhere. A clip
              item that carries only its id is the item of that id.
  transition  an audio transition, or a video "Dissolve" or "Wipe".
  black       everything else: gaps, generators (which hold their place on
              the track like clip items), other video transitions, clip
              items that name nothing the document describes.

Every sequence of the document that has tracks is compared with the edit of
the same name in `QVXML import --snapshot`, track by track: video tracks
last first (the document's top track is the editor's first video channel),
audio tracks in order. Exit status 0 when every place agrees, 1 otherwise,
77 when the document is not there or holds no sequence.

With --otio, the first sequence is compared with the first timeline of the
.otio file, by the document's track numbers (OpenTimelineIO writes video
tracks first to last). Each difference is printed with its kind; the exit
status is 1 only for a difference of a kind not explained below (see
EXPLAINED).
"""
import json
import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET


def number(element, tag, default=0):
    text = element.findtext(tag) if element is not None else None
    if text is None or not text.strip():
        return default
    try:
        return int(float(text.strip()))
    except ValueError:
        return default


def text(element, tag):
    found = element.find(tag) if element is not None else None
    return (found.text or "").strip() if found is not None else ""


class Document:
    """What the document defines by id: files, clip items, sequences."""

    def __init__(self, root):
        self.files, self.items, self.sequences = {}, {}, set()
        for f in root.iter("file"):
            if len(f) and f.get("id") is not None:
                self.files.setdefault(f.get("id"), f)
        for c in root.iter("clipitem"):
            if len(c) and c.get("id") is not None:
                self.items.setdefault(c.get("id"), c)
        for s in root.iter("sequence"):
            if len(s) and s.get("id") is not None:
                self.sequences.add(s.get("id"))

    def channels(self, file):
        """The file's sound channels over all its streams, or None when the
        file leaves them to its uses."""
        media = file.find("media")
        count, stated, by_tracks = 0, False, False
        for stream in media.findall("audio") if media is not None else []:
            for tag in ("channelcount", "trackcount"):
                if text(stream, tag).lstrip("-").isdigit():
                    count += int(text(stream, tag))
                    stated = True
                    by_tracks = by_tracks or tag == "trackcount"
                    break
        if by_tracks or (not stated and next(file.iter("audio"), None) is not None):
            return None
        return count

    def plays(self, item, video):
        """Whether a clip item plays media."""
        if not len(item) and item.get("id") in self.items:
            item = self.items[item.get("id")]
        nested = item.find("sequence")
        if nested is not None:
            return len(nested) > 0 or nested.get("id") in self.sequences
        file = next(item.iter("file"), None)
        if file is None:
            return False
        definition = file if len(file) else self.files.get(file.get("id"))
        if definition is None:
            return False
        if video:
            return True
        index = number(item.find("sourcetrack"), "trackindex", 1)
        channels = self.channels(definition)
        return index >= 1 and (channels is None or index <= channels)


def transition_plays(item, video):
    effect = item.find("effect")
    if effect is None or text(effect, "effecttype") != "transition":
        return False
    return not video or text(effect, "effectcategory") in ("Dissolve", "Wipe")


def resolved(item, document):
    if item.tag == "clipitem" and not len(item) and item.get("id") in document.items:
        return document.items[item.get("id")]
    return item


def track_items(track, document):
    return [resolved(e, document) for e in track
            if e.tag in ("clipitem", "transitionitem", "generatoritem")]


def content_end(tracks):
    end = 0
    for track in tracks:
        for e in track:
            if e.tag in ("clipitem", "transitionitem", "generatoritem"):
                end = max(end, number(e, "start"), number(e, "end"))
    return end


def expected_track(track, video, duration, document):
    """The events of one track: (start, end, what), black included."""
    items = track_items(track, document)
    events = []
    for i, item in enumerate(items):
        start, end = number(item, "start"), number(item, "end")
        if item.tag != "transitionitem":
            if start != -1 and end != -1 and end < start:
                # Version 1 may give the end of a clip that runs into a
                # transition as one before its start; without a transition
                # after it the clip has no place.
                if i + 1 < len(items) and items[i + 1].tag == "transitionitem":
                    end = -1
                else:
                    continue
            if start == -1 and i > 0:
                start = number(items[i - 1], "end")
            if end == -1 and i + 1 < len(items):
                end = number(items[i + 1], "start")
            what = "clip" if item.tag == "clipitem" and document.plays(item, video) else "black"
        else:
            what = "transition" if transition_plays(item, video) else "black"
        events.append((start, end, what, item.tag == "transitionitem"))
    out, pos = [], 0
    for start, end, what, _ in sorted(events, key=lambda e: (e[0], e[3])):
        if start > pos:
            out.append((pos, start, "black"))
        out.append((start, end, what))
        pos = end
    if pos < duration:
        out.append((pos, duration, "black"))
    return out


def tracks_of(sequence):
    media = sequence.find("media")
    video = media.findall("video/track") if media is not None else []
    audio = media.findall("audio/track") if media is not None else []
    return video, audio


def sequence_end(sequence, ticks):
    # The editor keeps a length in seconds, frames times 1/timebase, and
    # counts it back in whole frames by truncation: 123134 frames at 50 come
    # back as 123133.999... and so 123133. Without a duration, one second.
    if sequence.find("duration") is None:
        stated = ticks
    else:
        stated = int(number(sequence, "duration") * (1.0 / ticks) * ticks) if ticks else 0
    video, audio = tracks_of(sequence)
    return max(stated, content_end(video + audio))


def expected_sequence(sequence, ticks, document):
    duration = sequence_end(sequence, ticks)
    video, audio = tracks_of(sequence)
    return [expected_track(t, True, duration, document) for t in reversed(video)] + [
        expected_track(t, False, duration, document) for t in audio
    ]


def what_plays(cookie):
    # Magic cookies have 647 (287 in hexadecimal) as their second word: 1 is
    # black, 2 a dissolve, 3 and up a wipe.
    parts = cookie.split("-")
    if len(parts) > 2 and parts[2] == "00000287":
        return "black" if int(parts[1], 16) == 1 else "transition"
    return "clip"


def imported_sequence(edit, ticks, sources=False):
    return [[(round(c["editIn"] * ticks), round(c["editOut"] * ticks), what_plays(c["cookie"]))
             + (((c["sourceIn"], c["speed"]),) if sources else ()) for c in channel["cels"]]
            for channel in edit["channels"]]


def import_snapshot(qvxml, document):
    with tempfile.TemporaryDirectory() as tmp:
        snapshot = os.path.join(tmp, "project.json")
        subprocess.run([qvxml, "import", document, "--quiet", "--snapshot", snapshot],
                       check=True, stdout=subprocess.DEVNULL)
        with open(snapshot, encoding="utf-8") as f:
            return json.load(f)["edits"]


def sequences_with_tracks(root):
    for sequence in root.iter("sequence"):
        video, audio = tracks_of(sequence)
        if len(sequence) and (video or audio):
            yield sequence


def check(qvxml, document):
    root = ET.parse(document).getroot()
    sequences = list(sequences_with_tracks(root))
    if not sequences:
        print(f"skipped: {document} holds no sequence with tracks")
        return 77
    doc = Document(root)
    edits = import_snapshot(qvxml, document)
    used, faults, events, tracks = set(), 0, 0, 0
    for sequence in sequences:
        ticks = number(sequence.find("rate"), "timebase")
        name = sequence.findtext("name") or "NoName"
        want = expected_sequence(sequence, ticks, doc)
        found = [i for i, e in enumerate(edits) if i not in used and e.get("type") == "sequence"
                 and e.get("name") == name and len(e["channels"]) == len(want)]
        if not found:
            print(f"\"{name}\": no edit of {len(want)} channels imported")
            faults += 1
            continue
        used.add(found[0])
        got = imported_sequence(edits[found[0]], ticks)
        tracks += len(want)
        for index, (w, g) in enumerate(zip(want, got)):
            events += len(w)
            if w != g:
                faults += 1
                at = next((i for i, (a, b) in enumerate(zip(w, g)) if a != b), min(len(w), len(g)))
                print(f"\"{name}\" channel {index}, event {at}: expected {w[at:at + 3]}, "
                      f"imported {g[at:at + 3]}")
    print(f"{os.path.basename(document)}: {len(sequences)} sequences, {tracks} tracks, "
          f"{events} events, {'all in place' if not faults else str(faults) + ' differ'}")
    return 1 if faults else 0


# ---- OpenTimelineIO's reading ----

# The kinds of difference between OpenTimelineIO's fcp_xml reading and
# qvxml's, and why each is so.
EXPLAINED = {
    "track-left-out": "OpenTimelineIO reads one track of a stereo pair, or of sound "
                      "tracks whose clips all pair with another's; qvxml reads every track",
    "nested-empty": "OpenTimelineIO keeps a nested sequence as an empty stack of the use's "
                    "length; qvxml plays the nested sequence's edit",
    "generator-as-clip": "OpenTimelineIO keeps a generator as a clip; qvxml plays black "
                         "and reports it",
    "transition-kind": "OpenTimelineIO reads any transition; qvxml plays a video "
                       "transition that is no dissolve or wipe as black and reports it",
    "unplayable-as-clip": "OpenTimelineIO keeps a clip item whose media the document "
                          "does not describe as a clip (a missing reference); qvxml plays "
                          "black and reports it",
    "source-in": "OpenTimelineIO counts a clip's in point in frames of the clip's own "
                 "rate; qvxml in frames of the sequence, as its reading says",
    "still": "qvxml plays a still from its one frame, with no in point; OpenTimelineIO "
             "keeps the clip item's in point",
    "speed": "qvxml reads the in point of a clip at another speed as its frame scaled by "
             "the speed, as its reading says; OpenTimelineIO keeps the document's number",
    "overlap": "the document places a clip over the end of the clip before it; "
               "OpenTimelineIO moves it to follow that clip, qvxml keeps the document's place",
}


def otio_schema(obj):
    return obj.get("OTIO_SCHEMA", "").split(".")[0] if isinstance(obj, dict) else ""


def otio_frames(time, rate):
    r = time.get("rate") or rate
    return time.get("value", 0) * rate / r if r else 0


def otio_track(track, rate):
    """(start, end, what, name, source) of every item but gaps, in sequence
    frames, with transitions as events of their own between the clips they
    join. `source` is a clip's first frame in its media, in seconds from the
    media's start; None for anything else."""
    items, pos = [], 0.0
    for child in track.get("children") or []:
        kind = otio_schema(child)
        if kind == "Transition":
            before = otio_frames(child.get("in_offset") or {}, rate)
            after = otio_frames(child.get("out_offset") or {}, rate)
            items.append([pos - before, pos + after, "transition", child.get("name") or "", None])
            continue
        source_range = child.get("source_range") or {}
        length = otio_frames(source_range.get("duration") or {}, rate)
        what = {"Clip": "clip", "Stack": "nested", "Gap": "gap"}.get(kind, kind)
        source = None
        if kind == "Clip" and source_range.get("start_time"):
            start = source_range["start_time"]
            media = (child.get("media_references") or {}).get(
                child.get("active_media_reference_key") or "DEFAULT_MEDIA") or {}
            origin = (media.get("available_range") or {}).get("start_time") or {}
            seconds = lambda t: t.get("value", 0) / t["rate"] if t.get("rate") else 0
            source = seconds(start) - seconds(origin)
        items.append([pos, pos + length, what, child.get("name") or "", source])
        pos += length
    # A clip that meets a transition ends or starts at its edge, its media
    # moved on as far.
    for i, item in enumerate(items):
        if item[2] != "transition":
            continue
        if i > 0 and items[i - 1][2] != "transition":
            items[i - 1][1] = min(items[i - 1][1], item[0])
        if i + 1 < len(items) and items[i + 1][2] != "transition":
            after = items[i + 1]
            moved = max(after[0], item[1]) - after[0]
            after[0] += moved
            if after[4] is not None and rate:
                after[4] += moved / rate
    return [(round(a), round(b), what, name, source) for a, b, what, name, source in items
            if what != "gap" and b > a]


def qvxml_track(events):
    return [e for e in events if e[2] != "black"]


def compare_otio(qvxml, document, otio):
    root = ET.parse(document).getroot()
    sequence = next(sequences_with_tracks(root), None)
    if sequence is None or not os.path.exists(otio):
        print(f"skipped: nothing to compare for {document}")
        return 77
    with open(otio, encoding="utf-8") as f:
        data = json.load(f)
    stack = [data]
    timeline = None
    while stack and timeline is None:
        obj = stack.pop(0)
        if otio_schema(obj) == "Timeline":
            timeline = obj
        elif isinstance(obj, dict):
            stack.extend(obj.get("children") or [])
    ticks = number(sequence.find("rate"), "timebase")
    doc = Document(root)
    name = sequence.findtext("name") or "NoName"
    edits = import_snapshot(qvxml, document)
    edit = next(e for e in edits if e.get("type") == "sequence" and e.get("name") == name)
    video, audio = tracks_of(sequence)
    channels = imported_sequence(edit, ticks, sources=True)
    ours = {}
    for k in range(len(video)):
        ours[f"V{len(video) - k}"] = (qvxml_track(channels[k]), video[len(video) - 1 - k])
    for i in range(len(audio)):
        ours[f"A{i + 1}"] = (qvxml_track(channels[len(video) + i]), audio[i])
    theirs = {"Video": [], "Audio": []}
    for track in (timeline.get("tracks") or {}).get("children") or []:
        if track.get("kind") in theirs:
            theirs[track["kind"]].append(otio_track(track, ticks))

    differences = []

    def note(kind, track, detail):
        differences.append((kind, track, detail))

    for kind, initial in (("Video", "V"), ("Audio", "A")):
        names = sorted((n for n in ours if n.startswith(initial)), key=lambda n: int(n[1:]))
        for name, their in align(names, ours, theirs[kind], note, kind):
            compare_track(name, ours[name], their, sequence, ticks, note)

    unexplained = [d for d in differences if d[0] not in EXPLAINED]
    for kind, track, detail in differences:
        print(f"{kind:20} {track:4} {detail}")
    counts = {}
    for kind, _, _ in differences:
        counts[kind] = counts.get(kind, 0) + 1
    print(f"{os.path.basename(document)} against OpenTimelineIO: "
          + (", ".join(f"{n} {k}" for k, n in sorted(counts.items())) or "the same"))
    return 1 if unexplained else 0


def align(names, ours, theirs, note, kind):
    """Pairs OpenTimelineIO's tracks, in order, with the document's tracks
    they read: each of theirs is one of ours, ours may be left out. The
    pairing agrees best on where clips start."""
    def score(name, their):
        mine = {e[0] for e in ours[name][0] if e[2] != "transition"}
        starts = {e[0] for e in their if e[2] != "transition"}
        return len(starts & mine) - len(starts ^ mine)

    n, m = len(theirs), len(names)
    if n > m:
        note("track-left-out", kind, f"OpenTimelineIO has {n} tracks, the document {m}")
        return []
    # best[i][j]: the best total pairing theirs[i:] with names[j:].
    best = [[0.0] * (m + 1) for _ in range(n + 1)]
    for i in range(n - 1, -1, -1):
        best[i][m] = float("-inf")
        for j in range(m - 1, -1, -1):
            best[i][j] = max(best[i][j + 1], score(names[j], theirs[i]) + best[i + 1][j + 1])
    pairs, i, j = [], 0, 0
    while j < m:
        if i < n and best[i][j] == score(names[j], theirs[i]) + best[i + 1][j + 1]:
            pairs.append((names[j], theirs[i]))
            i += 1
        elif ours[names[j]][0]:
            note("track-left-out", names[j], f"{len(ours[names[j]][0])} events")
        j += 1
    return pairs


def compare_track(name, ours, theirs, sequence, ticks, note):
    events, track = ours
    video = name.startswith("V")
    generators = {(number(g, "start"), number(g, "end")) for g in track.findall("generatoritem")}
    mine = {(a, b): w for a, b, w, _ in events}
    overlapped = {(a, b) for (a, b, _, _), before in zip(events[1:], events) if a < before[1]}
    source_of = {(a, b): source for a, b, _, source in events}
    rate = number(sequence.find("rate"), "timebase")
    for a, b, what, label, source in theirs:
        if (a, b) in mine:
            if what == "nested" and mine[(a, b)] == "clip":
                note("nested-empty", name, f"{a}-{b} \"{label}\"")
            elif source is not None and abs(source - source_of[(a, b)][0]) * rate > 0.5:
                ours_in, speed = source_of[(a, b)]
                kind = "still" if speed == 0 else "speed" if abs(speed) != 1 else "source-in"
                note(kind, name, f"{a}-{b} \"{label}\": OpenTimelineIO "
                     f"{source:.3f} s into the media, qvxml {ours_in:.3f} s")
            continue
        if any(y - x == b - a for x, y in overlapped):
            note("overlap", name, f"OpenTimelineIO {a}-{b} \"{label}\"")
        elif (a, b) in generators:
            note("generator-as-clip", name, f"{a}-{b} \"{label}\"")
        elif what == "transition" and video:
            note("transition-kind", name, f"{a}-{b} \"{label}\"")
        elif what == "clip" and not any(x <= a and b <= y for x, y in mine):
            note("unplayable-as-clip", name, f"{a}-{b} \"{label}\"")
        else:
            note("placed-differently", name,
                 f"OpenTimelineIO {a}-{b} \"{label}\"; qvxml has "
                 f"{[k for k in mine if k[0] <= b and a <= k[1]][:3]}")
    theirs_places = {(a, b) for a, b, _, _, _ in theirs}
    for (a, b), what in mine.items():
        if (a, b) in theirs_places:
            continue
        if (a, b) in overlapped:
            note("overlap", name, f"qvxml {a}-{b}")
        else:
            note("placed-differently", name, f"qvxml {a}-{b} {what}, not in OpenTimelineIO")


def main():
    qvxml, document = sys.argv[1], sys.argv[2]
    if not os.path.exists(document):
        print(f"skipped: {document} is not here")
        return 77
    if len(sys.argv) > 4 and sys.argv[3] == "--otio":
        return compare_otio(qvxml, document, sys.argv[4])
    return check(qvxml, document)


if __name__ == "__main__":
    sys.exit(main())
