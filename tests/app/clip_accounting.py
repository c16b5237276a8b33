#!/usr/bin/env python3
"""Checks that every clip of a document plays in what `qvxml import` made of
it or is named in its loss report, with a list of the document's clips made
here with Python's standard library alone (ElementTree, json) and nothing of
qvxml.

    clip_accounting.py QVXML DOCUMENT

The clips: xmeml: each clip item on a track of a sequence that is not nested
in a clip item, that names media: it holds a file, a nested sequence or a
multiclip, or names a master clip of the document, or carries nothing but
the id of such a clip item before it (and stands where that one stands).
Its record range is its start and end;
where a clip runs into a transition it has -1 there, and starts where the
item before it ends, or ends where the item after it starts.
OpenTimelineIO: each clip and nested stack or track on a Video or Audio
track of a timeline, its range its items' durations end to end, in the
window that the track's and its stack's source ranges show.

A clip plays when, in the snapshot, the cels over most of its range
(what transitions take of it aside) play an edit of the project: a shot,
sub-clip or sequence. Tracks are matched as editors number them: V1 is the
sequence's last video channel, audio in order. A clip that lasts no frame
(between two transitions, say) has nothing to play and is counted apart; one
that ends before it starts plays nothing. A clip that does not play is
reported when the report of the import has a loss of reading on its sequence
and track, within its range, of a kind that says material does not play.

Prints clip items, playing, reported by kind, and unaccounted; also checks
that the report's own "unaccounted" losses are as many as found here. Exit
status 0 when nothing is unaccounted and the counts agree, 1 otherwise, 77
when the document is not here (1 under CI=true).
"""
import collections
import json
import os
import subprocess
import sys
import tempfile
import xml.etree.ElementTree as ET

# The readings the corpus scripts share, in tests/support wherever this script
# stands below tests/ (read without leaving compiled files in the tree).
_here = os.path.dirname(os.path.abspath(__file__))
sys.dont_write_bytecode = True
sys.path.insert(0, os.path.join(_here[:_here.rindex(os.sep + "tests")], "tests", "support"))
from otio_walk import schema, timelines  # noqa: E402

# The kinds of loss that say a clip's material does not play where its
# editor put it.
REPLACING = {"generator", "nested-sequence", "multiclip", "unknown-transition",
             "unusable-file", "image-sequence", "file-missing", "bare-reference",
             "clip-not-placed", "cut-off", "unknown-media", "channel-missing",
             "nested-unplayed", "unknown-item", "unknown-track"}


# ---- xmeml ----

def number(text, default=0):
    try:
        return int(float((text or "").strip()))
    except ValueError:
        return default


def top_level_sequences(element, inside_clipitem=False):
    for child in element:
        if child.tag == "sequence" and not inside_clipitem:
            yield child
        yield from top_level_sequences(child, inside_clipitem or child.tag == "clipitem")


def xmeml_clips(root):
    master_clips = {c.get("id") for c in root.iter("clip") if c.get("id")}
    naming = {}  # clip items that name media, by id, where they stand
    sequences = []
    for seq in top_level_sequences(root):
        media = seq.find("media")
        if media is None:
            continue
        groups = [(kind, media.find(kind)) for kind in ("video", "audio")]
        tracks = [(kind, t) for kind, g in groups if g is not None for t in g.findall("track")]
        if not tracks:
            continue
        first_name = next(seq.iter("name"), None)
        listed = {"name": seq.findtext("name") or "",
                  "other": first_name.text or "" if first_name is not None else "",
                  "timebase": number(seq.findtext("rate/timebase")), "tracks": []}
        if not listed["name"]:
            listed["name"] = listed["other"] or "NoName"
        counters = collections.Counter()
        for kind, track in tracks:
            counters[kind] += 1
            name = ("V" if kind == "video" else "A") + str(counters[kind])
            events = [e for e in track if e.tag in ("clipitem", "transitionitem")]
            items = []
            for i, e in enumerate(events):
                if e.tag != "clipitem":
                    continue
                names = any(e.find(t) is not None for t in ("file", "sequence", "multiclip"))
                if not names and len(e) == 0 and e.get("id") in naming:
                    # An element that carries nothing but an id stands for
                    # the earlier element of that name and id.
                    items.append(dict(naming[e.get("id")]))
                    continue
                defines = names and bool(e.get("id"))
                if not names and (e.findtext("masterclipid") or "").strip() in master_clips:
                    names = True
                if not names:
                    continue
                start, end = number(e.findtext("start")), number(e.findtext("end"))
                # Version 1 may give the end of a clip that runs into a
                # transition as one before its start.
                if (start != -1 and end != -1 and end < start and i + 1 < len(events)
                        and events[i + 1].tag == "transitionitem"):
                    end = -1
                if start == -1 and i > 0:
                    start = number(events[i - 1].findtext("end"))
                if end == -1 and i + 1 < len(events):
                    end = number(events[i + 1].findtext("start"))
                items.append({"name": e.findtext("name") or "", "start": start, "end": end})
                if defines:
                    naming[e.get("id")] = items[-1]
            listed["tracks"].append({"name": name, "video": kind == "video", "items": items})
        sequences.append(listed)
    return sequences


# ---- OpenTimelineIO ----

def frames(t, rate):
    if not isinstance(t, dict) or not t.get("rate"):
        return 0.0
    return t.get("value", 0) * rate / t["rate"] if t["rate"] != rate else t.get("value", 0)


def source_range(obj):
    r = obj.get("source_range") if isinstance(obj, dict) else None
    if isinstance(r, dict) and isinstance(r.get("start_time"), dict) and isinstance(
            r.get("duration"), dict):
        return r
    return None


def active_media(clip):
    refs = clip.get("media_references")
    if isinstance(refs, dict):
        return refs.get(clip.get("active_media_reference_key") or "DEFAULT_MEDIA")
    return clip.get("media_reference")


def length(item, rate, depth=0):
    r = source_range(item)
    if r:
        return frames(r["duration"], rate)
    kind = schema(item)
    if kind == "Clip":
        ref = active_media(item) or {}
        available = ref.get("available_range") if isinstance(ref, dict) else None
        if isinstance(available, dict):
            return frames(available.get("duration"), rate)
        return 0.0
    children = [c for c in item.get("children") or [] if schema(c) != "Transition"]
    if depth > 64:
        return 0.0
    if kind == "Track":
        return sum(max(0.0, length(c, rate, depth + 1)) for c in children)
    if kind == "Stack":
        return max([length(c, rate, depth + 1) for c in children] or [0.0])
    return 0.0


def first_rate(obj):
    """A rate for a timeline that names none: its first gap's or transition's,
    else its first clip's."""
    found = {"other": None, "clip": None}

    def walk(o):
        kind = schema(o)
        if kind == "Gap" and found["other"] is None:
            found["other"] = (source_range(o) or {}).get("duration", {}).get("rate")
        elif kind == "Transition" and found["other"] is None:
            found["other"] = (o.get("in_offset") or {}).get("rate")
        elif kind == "Clip" and found["clip"] is None:
            found["clip"] = ((source_range(o) or {}).get("start_time") or {}).get("rate")
        for c in o.get("children") or [] if isinstance(o, dict) else []:
            walk(c)
        if isinstance(o, dict) and isinstance(o.get("tracks"), dict):
            walk(o["tracks"])

    walk(obj)
    return found["other"] or found["clip"] or 24


def otio_clips(root):
    sequences = []

    def timeline(t):
        qv = (t.get("metadata") or {}).get("qvxml") or {}
        if qv.get("kind") in ("shot", "subclip"):
            return
        start = t.get("global_start_time")
        rate = start["rate"] if isinstance(start, dict) and start.get("rate") else first_rate(t)
        # Frames of a cel second: 29.97 counts 30.
        timebase = round(rate)
        stack = t.get("tracks") or {}
        listed = {"name": t.get("name") or "NoName", "other": "", "timebase": timebase,
                  "tracks": []}
        counters = collections.Counter()
        for track in stack.get("children") or []:
            if schema(track) != "Track" or track.get("kind") not in ("Video", "Audio"):
                continue
            video = track["kind"] == "Video"
            counters[video] += 1
            spans, at = [], 0.0
            for item in track.get("children") or []:
                kind = schema(item)
                if kind == "Transition":
                    continue
                d = max(0.0, length(item, rate))
                if kind in ("Clip", "Stack", "Track"):
                    spans.append([at, at + d, item.get("name") or ""])
                at += d
            for window in (source_range(track), source_range(stack)):
                if window:
                    w0 = frames(window["start_time"], rate)
                    w1 = w0 + frames(window["duration"], rate)
                    spans = [[max(s, w0) - w0, min(e, w1) - w0, n] for s, e, n in spans
                             if e > w0 and s < w1]
            listed["tracks"].append({
                "name": ("V" if video else "A") + str(counters[video]), "video": video,
                "items": [{"name": n, "start": round(s), "end": round(e)} for s, e, n in spans]})
        sequences.append(listed)

    for t in timelines(root):
        timeline(t)
    return sequences


# ---- what the import made ----

def identity(cookie):
    parts = (cookie or "").split("-")
    return tuple(parts[1:5]) if len(parts) >= 6 else None


def is_magic(cookie):
    parts = (cookie or "").split("-")
    return len(parts) >= 6 and int(parts[2], 16) == 647


def check(sequences, edits, items):
    known = {identity(e.get("cookie")) for e in edits}
    candidates = [e for e in edits if e.get("type") == "sequence" and e.get("channels")]
    used = set()
    marks = collections.defaultdict(list)
    for loss in items:
        if loss["origin"] == "reader" and loss["kind"] in REPLACING and loss["frame"] is not None:
            marks[(loss["sequence"], loss["track"])].append((loss["frame"], loss["kind"]))
    counts = {"items": 0, "empty": 0, "playing": 0, "reported": collections.Counter(),
              "unaccounted": []}
    for seq in sequences:
        want = (sum(t["video"] for t in seq["tracks"]),
                sum(not t["video"] for t in seq["tracks"]))
        names = {seq["name"], seq["other"]} - {""}
        edit = None
        for i, e in enumerate(candidates):
            if i in used or e.get("name") not in names:
                continue
            got = (sum(c["type"] == "video" for c in e["channels"]),
                   sum(c["type"] != "video" for c in e["channels"]))
            if edit is None or got == want:
                edit = i
            if got == want:
                break
        channels = {}
        timebase = seq["timebase"] or 25
        if edit is not None:
            used.add(edit)
            chans = candidates[edit]["channels"]
            video = sorted((c for c in chans if c["type"] == "video"), key=lambda c: -c["index"])
            audio = sorted((c for c in chans if c["type"] != "video"), key=lambda c: c["index"])
            channels.update({f"V{i + 1}": c for i, c in enumerate(video)})
            channels.update({f"A{i + 1}": c for i, c in enumerate(audio)})
        for track in seq["tracks"]:
            cels = [(round(c["editIn"] * timebase), round(c["editOut"] * timebase), c.get("cookie"))
                    for c in (channels.get(track["name"]) or {}).get("cels", [])]
            for item in track["items"]:
                counts["items"] += 1
                start, end = item["start"], item["end"]
                if start == end:
                    counts["empty"] += 1
                    continue
                playing = neutral = 0
                for cin, cout, cookie in cels:
                    overlap = min(cout, end) - max(cin, start)
                    if overlap <= 0:
                        continue
                    if cookie and not is_magic(cookie) and identity(cookie) in known:
                        playing += overlap
                    elif cookie and is_magic(cookie) and int(cookie.split("-")[1], 16) != 1:
                        neutral += overlap
                if playing > 0 and 2 * playing > end - start - neutral:
                    counts["playing"] += 1
                    continue
                reported = [k for f, k in marks.get((seq["name"], track["name"]), [])
                            if start <= f < max(end, start + 1)]
                if reported:
                    counts["reported"][reported[0]] += 1
                else:
                    counts["unaccounted"].append((seq["name"], track["name"], item))
    return counts


def main():
    qvxml, document = sys.argv[1], sys.argv[2]
    if not os.path.exists(document):
        print(f"the corpus document {document} is not here")
        return 1 if os.environ.get("CI") == "true" else 77
    if document.endswith(".otio"):
        with open(document, encoding="utf-8") as f:
            sequences = otio_clips(json.load(f))
    else:
        sequences = xmeml_clips(ET.parse(document).getroot())

    with tempfile.TemporaryDirectory() as tmp:
        snapshot, report = os.path.join(tmp, "project.json"), os.path.join(tmp, "report.json")
        # A document whose times cannot be trusted is read all the same.
        r = subprocess.run([qvxml, "import", document, "--quiet", "--lenient", "--snapshot",
                            snapshot, "--report", report], capture_output=True, text=True)
        if r.returncode not in (0, 10):
            print(f"qvxml import failed with status {r.returncode}: {r.stderr}")
            return 1
        with open(snapshot, encoding="utf-8") as f:
            edits = json.load(f)["edits"]
        with open(report, encoding="utf-8") as f:
            items = [i for d in json.load(f)["documents"] for i in d["items"]]

    counts = check(sequences, edits, items)
    told = sum(i["kind"] == "unaccounted" for i in items)
    reported = ", ".join(f"{n} {k}" for k, n in counts["reported"].most_common()) or "none"
    print(f"{os.path.basename(document)}: {counts['items']} clip items, "
          f"{counts['empty']} without length, {counts['playing']} playing, reported: {reported}; "
          f"{len(counts['unaccounted'])} unaccounted (the report says {told})")
    for seq, track, item in counts["unaccounted"][:10]:
        print(f"  unaccounted: {seq} {track} {item['start']}-{item['end']} \"{item['name']}\"")
    faults = 0
    if counts["unaccounted"]:
        faults += 1
    if told != len(counts["unaccounted"]):
        print("the report's count of unaccounted clip items is not the one found here")
        faults += 1
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
