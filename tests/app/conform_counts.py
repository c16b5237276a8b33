#!/usr/bin/env python3
"""Checks `qvxml info --json` and the loss report of `qvxml convert --report`
against counts made here from the document alone, with ElementTree (xmeml)
or json (OpenTimelineIO) and nothing of qvxml.

    conform_counts.py QVXML DOCUMENT

For every sequence with tracks: its video and audio tracks, clips,
transitions and markers, counted as the user guide says qvxml reads them:

xmeml: a clip item is a clip when it plays a file (a file may be defined by
another clip item and named by its id; one without a usable duration is as
long as its uses need) or a nested sequence (held in the item, or named by
its id and defined elsewhere). A clip item that carries only its id is the
item of that id. A video clip plays any file, an audio clip the channel its
source track names, the channels of a file counted over all its sound
streams; a file that counts tracks (version 1) or no channels has those its
uses name. A clip item that holds a multiclip plays the first file inside
it. Generators and video transitions that are neither a "Dissolve" nor a
"Wipe" play black. Every audio transition is a cross fade. Markers are the
sequence's own.
OpenTimelineIO: clips and nested stacks on Video and Audio tracks;
transitions; the timeline's markers and those of its tracks.

And for the loss report, what reading passes over, by kind: filters other
than Time Remap and Audio Levels, Time Remaps whose speed has keyframes,
generators (and clips of synthetic media), multiclips, switched-off items,
transitions that are no transition effect or video ones of unknown
categories, video dissolves other than the cross dissolve; what the
reader finds of references that name nothing it can play (file-missing,
channel-missing, ...) is clip_accounting.py's to check;
in OpenTimelineIO effects other than time warps, generators, image
sequences, media of other kinds, switched-off items and tracks, and video
transitions other than dissolves, in nested stacks too, and nested stacks
with nothing in them. Clip items that play nothing and that no loss names
("unaccounted") are clip_accounting.py's to count.

Exit status 0 when everything agrees, 1 otherwise, 77 when the document is
not here.
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


# ---- xmeml ----

def text(element, tag):
    found = element.find(tag) if element is not None else None
    return (found.text or "").strip() if found is not None else ""


def first_inside(element, tag):
    return next(element.iter(tag), None) if element is not None else None


def plays(file, kind, item):
    """Whether a clip item can play its file: a video clip any file, an audio
    clip the file's channel that its source track names."""
    if kind == "video":
        return True
    index = text(first_inside(item, "sourcetrack"), "trackindex") or "1"
    try:
        number = int(index)
    except ValueError:
        number = 1
    media = file.find("media")
    streams = media.findall("audio") if media is not None else []
    count, stated, by_tracks = 0, False, False
    for stream in streams:
        for tag in ("channelcount", "trackcount"):
            try:
                count += int(text(stream, tag))
            except ValueError:
                continue
            stated = True
            by_tracks = by_tracks or tag == "trackcount"
            break
    if by_tracks or (not stated and first_inside(file, "audio") is not None):
        return number >= 1
    return 1 <= number <= count


def xmeml_counts(root):
    files, items, sequence_ids = {}, {}, set()
    for f in root.iter("file"):
        if len(f) and f.get("id") is not None:
            files.setdefault(f.get("id"), f)
    for c in root.iter("clipitem"):
        if len(c) and c.get("id") is not None:
            items.setdefault(c.get("id"), c)
    for s in root.iter("sequence"):
        if len(s) and s.get("id") is not None:
            sequence_ids.add(s.get("id"))
    sequences, losses = [], collections.Counter()
    for seq in root.iter("sequence"):
        media = seq.find("media")
        if media is None or not media.findall("*/track"):
            continue
        name_element = first_inside(seq, "name")
        name = (name_element.text or "") if name_element is not None else ""
        counts = {"name": name or "NoName", "videoTracks": 0, "audioTracks": 0, "clips": 0,
                  "transitions": 0, "markers": len(seq.findall("marker"))}
        for kind in ("video", "audio"):
            group = media.find(kind)
            tracks = group.findall("track") if group is not None else []
            counts[kind + "Tracks"] = len(tracks)
            for track in tracks:
                for item in track:
                    if item.tag not in ("clipitem", "transitionitem", "generatoritem"):
                        continue
                    off = text(item, "enabled") == "FALSE"
                    if item.tag == "generatoritem":
                        losses["generator"] += 1
                        continue
                    if item.tag == "transitionitem":
                        effect = item.find("effect")
                        category = text(effect, "effectcategory")
                        effect_id = text(effect, "effectid")
                        if kind == "audio" or category in ("Dissolve", "Wipe"):
                            counts["transitions"] += 1
                        # What is no transition effect, and a video one of
                        # neither category, plays black; a video dissolve
                        # other than the cross dissolve is read as one.
                        if effect is None or text(effect, "effecttype") != "transition" or (
                                kind == "video" and category not in ("Dissolve", "Wipe")):
                            losses["unknown-transition"] += 1
                        elif kind == "video" and category == "Dissolve" and effect_id not in (
                                "", "Cross Dissolve"):
                            losses["transition-as-dissolve"] += 1
                        losses["disabled"] += off
                        continue
                    losses["disabled"] += off
                    for f in item.findall("filter"):
                        effect_id = text(f.find("effect"), "effectid")
                        if effect_id == "audiolevels":
                            continue
                        if effect_id == "timeremap":
                            for p in f.find("effect").findall("parameter"):
                                pid = text(p, "parameterid")
                                if (pid == "speed" and p.find("keyframe") is not None) or (
                                        pid == "variablespeed" and text(p, "value") not in ("", "0")):
                                    losses["speed-ramp"] += 1
                                    break
                            continue
                        losses["filter"] += 1
                    nested = item.find("sequence")
                    if nested is None and item.find("multiclip") is not None:
                        losses["multiclip"] += 1
                    # The reader finds a clip's file at any depth. A file of
                    # synthetic media (a slug, bars) plays black: a generator.
                    file = first_inside(item, "file")
                    definition = None
                    if file is not None:
                        definition = file if len(file) else files.get(file.get("id"))
                    source = first_inside(definition, "mediaSource")
                    if nested is None and source is not None and (source.text or "").strip():
                        losses["generator"] += 1
                    # An item that carries only its id is the item of that
                    # id. A use of a nested sequence plays it; a use of a
                    # multiclip the first file inside it.
                    if not len(item) and item.get("id") in items:
                        item = items[item.get("id")]
                        nested = item.find("sequence")
                        file = first_inside(item, "file")
                        definition = None
                        if file is not None:
                            definition = file if len(file) else files.get(file.get("id"))
                    if nested is not None:
                        counts["clips"] += len(nested) > 0 or nested.get("id") in sequence_ids
                    elif definition is not None and plays(definition, kind, item):
                        counts["clips"] += 1
        sequences.append(counts)
    return sequences, losses


# ---- OpenTimelineIO ----

def otio_counts(root):
    sequences, losses = [], collections.Counter()

    def effects(item):
        for e in item.get("effects") or []:
            if schema(e) not in ("LinearTimeWarp", "FreezeFrame") and e.get("enabled", True):
                losses["filter"] += 1

    def items(track, video, counts):
        for item in track.get("children") or []:
            kind = schema(item)
            if kind == "Transition":
                if counts is not None:
                    counts["transitions"] += 1
                qv = (item.get("metadata") or {}).get("qvxml") or {}
                if video and item.get("transition_type") != "SMPTE_Dissolve" and "wipe" not in qv:
                    losses["transition-as-dissolve"] += 1
                continue
            losses["disabled"] += item.get("enabled", True) is False
            effects(item)
            if kind == "Clip":
                refs = item.get("media_references")
                ref = schema(refs.get(item.get("active_media_reference_key") or "DEFAULT_MEDIA")
                             if isinstance(refs, dict) else item.get("media_reference"))
                if ref == "GeneratorReference":
                    losses["generator"] += 1
                elif ref == "ImageSequenceReference":
                    losses["image-sequence"] += 1
                elif ref not in ("", "ExternalReference", "MissingReference"):
                    losses["unknown-media"] += 1
                elif counts is not None:
                    counts["clips"] += 1
            elif kind in ("Stack", "Track"):
                if counts is not None:
                    counts["clips"] += 1
                if not item.get("children"):
                    losses["nested-unplayed"] += 1
                # What a nested stack holds is read as a sequence of its own.
                for inner in ([item] if kind == "Track" else item.get("children") or []):
                    if inner is not item:
                        losses["disabled"] += inner.get("enabled", True) is False
                        effects(inner)
                    if schema(inner) == "Track":
                        items(inner, inner.get("kind") != "Audio", None)

    def timeline(t):
        counts = {"name": t.get("name") or "NoName", "videoTracks": 0, "audioTracks": 0,
                  "clips": 0, "transitions": 0,
                  "markers": len((t.get("tracks") or {}).get("markers") or [])}
        for track in (t.get("tracks") or {}).get("children") or []:
            if schema(track) != "Track" or track.get("kind") not in ("Video", "Audio"):
                continue
            video = track.get("kind") == "Video"
            counts["videoTracks" if video else "audioTracks"] += 1
            counts["markers"] += len(track.get("markers") or [])
            effects(track)
            losses["disabled"] += track.get("enabled", True) is False
            items(track, video, counts)
        sequences.append(counts)

    for t in timelines(root):
        timeline(t)
    return sequences, losses


def run(qvxml, *arguments):
    return subprocess.run([qvxml, *arguments, "--quiet"], check=True, capture_output=True,
                          text=True).stdout


def main():
    qvxml, document = sys.argv[1], sys.argv[2]
    if not os.path.exists(document):
        print(f"skipped: {document} is not here")
        return 77
    if document.endswith(".otio"):
        with open(document, encoding="utf-8") as f:
            want, want_losses = otio_counts(json.load(f))
    else:
        want, want_losses = xmeml_counts(ET.parse(document).getroot())

    info = json.loads(run(qvxml, "info", "--json", document))["documents"][0]
    got = [{"name": s["name"], "videoTracks": s["counts"]["videoTracks"],
            "audioTracks": s["counts"]["audioTracks"], "clips": s["counts"]["clips"],
            "transitions": s["counts"]["transitions"], "markers": s["counts"]["markers"]}
           for s in info["sequences"]]
    key = lambda s: tuple(sorted(s.items()))
    faults = 0
    missing = collections.Counter(map(key, want)) - collections.Counter(map(key, got))
    extra = collections.Counter(map(key, got)) - collections.Counter(map(key, want))
    for s in missing.elements():
        print("counted in the document:", dict(s))
        faults += 1
    for s in extra.elements():
        print("told by info --json:    ", dict(s))
        faults += 1

    # Written as .otio, which holds what the store has: the report's losses
    # are then those of reading.
    with tempfile.TemporaryDirectory() as tmp:
        report = os.path.join(tmp, "report.json")
        run(qvxml, "convert", document, "--to", "otio", "-o", tmp, "--report", report)
        with open(report, encoding="utf-8") as f:
            items = [i for d in json.load(f)["documents"] for i in d["items"]]
    # The kinds of references that name nothing playable are not counted
    # here: clip_accounting.py checks that each clip that plays nothing has
    # one.
    unresolved = {"file-missing", "channel-missing", "unusable-file", "nested-sequence",
                  "bare-reference", "clip-not-placed", "cut-off"}
    got_losses = collections.Counter(
        i["kind"] for i in items if i["origin"] == "reader" and i["kind"] != "unaccounted" and (
            document.endswith(".otio") or i["kind"] not in unresolved))
    want_losses = +want_losses
    if got_losses != want_losses:
        print(f"losses counted in the document: {dict(want_losses)}")
        print(f"losses in the report:           {dict(got_losses)}")
        faults += 1
    # Every loss has its sequence; all but the writers' repairs, whose
    # warnings may name no track, their track and place too.
    unplaced = [i for i in items if not i["sequence"] or (
        i["origin"] != "writer" and (not i["track"] or i["frame"] is None))]
    if unplaced:
        print(f"{len(unplaced)} losses without a place, such as {unplaced[0]}")
        faults += 1
    print(f"{os.path.basename(document)}: {len(want)} sequences, "
          f"{sum(s['clips'] for s in want)} clips, {sum(want_losses.values())} losses, "
          f"{'all agree' if not faults else str(faults) + ' disagreements'}")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
