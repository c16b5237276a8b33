#!/usr/bin/env python3
"""An independent reading of OpenTimelineIO files, for qvxml's tests.

    otio_reading.py positions FILE.otio
        The cels qvxml should make of each timeline: every track's items
        summed in order, each transition straddling its cut by its offsets
        (the item before ends where the transition starts, the item after
        starts where it ends), in frames of the timeline's rate.

    otio_reading.py check FILE.otio SCHEMA.md
        Every object checked against the serialized schema (its schema name
        and version, the fields the schema document lists for it, and their
        types). Prints the problems found, one a line.

Only the standard library is used; none of qvxml's code.
"""

import json
import math
import re
import sys

# ---- positions ----

RATES = [24, 24000 / 1001, 25, 30, 30000 / 1001, 48, 48000 / 1001, 50, 60, 60000 / 1001,
         12, 12000 / 1001, 15, 15000 / 1001, 20, 80, 90, 100, 120, 120000 / 1001, 240,
         240000 / 1001]
NAMED = {"24": 24, "23.98": 24000 / 1001, "25": 25, "30": 30, "29.97": 30000 / 1001, "48": 48,
         "47.95": 48000 / 1001, "50": 50, "60": 60, "59.94": 60000 / 1001, "12": 12,
         "11.99": 12000 / 1001, "15": 15, "14.99": 15000 / 1001, "20": 20, "80": 80, "90": 90,
         "100": 100, "120": 120, "119.88": 120000 / 1001, "240": 240, "239.76": 240000 / 1001}


def cls(obj):
    schema = obj.get("OTIO_SCHEMA", "") if isinstance(obj, dict) else ""
    return schema.split(".")[0]


def rt(value):
    """A RationalTime as (value, rate), or None."""
    if not isinstance(value, dict):
        return None
    v, r = value.get("value"), value.get("rate")
    if not isinstance(v, (int, float)) or not isinstance(r, (int, float)) or isinstance(v, bool):
        return None
    if not (r > 0 and math.isfinite(r) and math.isfinite(v)):
        return None
    return (float(v), float(r))


def time_range(value):
    if not isinstance(value, dict):
        return None, None
    return rt(value.get("start_time")), rt(value.get("duration"))


def ours(obj):
    meta = obj.get("metadata") if isinstance(obj, dict) else None
    q = meta.get("qvxml") if isinstance(meta, dict) else None
    return q if isinstance(q, dict) else {}


class Timeline:
    def __init__(self, fps, ticks):
        self.fps, self.ticks = fps, ticks

    def frames(self, t):
        """A RationalTime in frames of the timeline."""
        if t is None:
            return 0.0
        value, rate = t
        if abs(rate - self.fps) <= 1e-9 * self.fps:
            return value
        return value / rate * self.fps


def media_of(clip):
    refs = clip.get("media_references")
    if isinstance(refs, dict):
        key = clip.get("active_media_reference_key") or "DEFAULT_MEDIA"
        ref = refs.get(key)
    else:
        ref = clip.get("media_reference")
    return ref if isinstance(ref, dict) else None


def speed_of(item):
    speed, freeze = 1.0, False
    for e in item.get("effects") or []:
        if not isinstance(e, dict) or e.get("enabled") is False:
            continue
        if cls(e) == "LinearTimeWarp":
            scalar = e.get("time_scalar")
            speed *= scalar if isinstance(scalar, (int, float)) else 1.0
        elif cls(e) == "FreezeFrame":
            freeze = True
    if freeze:
        return 0.0
    return speed if math.isfinite(speed) else 1.0


def duration(item, tl, depth=0):
    start, dur = time_range(item.get("source_range"))
    if start and dur:
        return tl.frames(dur)
    if depth > 64:
        return 0.0
    kind = cls(item)
    if kind == "Clip":
        ref = media_of(item)
        a_start, a_dur = time_range(ref.get("available_range")) if ref else (None, None)
        return tl.frames(a_dur) if a_start and a_dur else 0.0
    if kind in ("Track", "Sequence"):
        return sum(max(0.0, duration(c, tl, depth + 1)) for c in item.get("children") or []
                   if cls(c) != "Transition")
    if kind == "Stack":
        return max([0.0] + [duration(c, tl, depth + 1) for c in item.get("children") or []])
    return 0.0


def track_kind(track):
    return {"Video": "video", "Audio": "audio"}.get(track.get("kind"))


def cel_of(item, tl, video, hs, he, head):
    """The cel of a track item that spans [hs, he] in the host."""
    kind = cls(item)
    speed = speed_of(item)
    if kind in ("Gap", "Filler"):
        return {"kind": "black", "in": hs, "out": he} if he > hs else None
    if kind == "Clip":
        ref = media_of(item)
        ref_kind = cls(ref) if ref else ""
        if ref_kind in ("GeneratorReference", "ImageSequenceReference") or \
                (ref and ref_kind not in ("ExternalReference", "MissingReference")):
            return {"kind": "black", "in": hs, "out": he}
        a_start = time_range(ref.get("available_range"))[0] if ref else None
        origin = tl.frames(a_start)
        s_start = time_range(item.get("source_range"))[0]
        start = tl.frames(s_start) if s_start else origin
        q = ours(item)
        channel = 0
        if not video:
            fcp = (item.get("metadata") or {}).get("fcp_xml") or {}
            track = fcp.get("sourcetrack") if isinstance(fcp, dict) else None
            index = track.get("trackindex") if isinstance(track, dict) else None
            m = re.match(r"\s*(\d+)", index) if isinstance(index, str) else None
            channel = int(m.group(1)) if m and 0 < int(m.group(1)) < 256 else 1
        if isinstance(q.get("channel"), int):
            channel = q["channel"]
        sub = q.get("subclip")
        if not 0 <= channel <= 255:
            return {"kind": "black", "in": hs, "out": he}
        source = start - origin + head * speed
        name = (ref.get("name") if ref else None) or item.get("name") or ""
        if isinstance(sub, dict):
            source -= sub.get("start", 0)
            name = sub.get("name") or item.get("name") or ""
        return {"kind": "clip", "in": hs, "out": he, "source": source, "speed": speed,
                "name": name, "channel": channel}
    if kind in ("Stack", "Track", "Sequence"):
        children = item.get("children") or []
        want = "video" if video else "audio"
        if kind == "Stack":
            has = any(cls(c) in ("Track", "Sequence") and track_kind(c) == want for c in children)
        else:
            has = bool(children) and (track_kind(item) or "video") == want
        if not children or (not has and not isinstance(ours(item).get("channel"), int)):
            return {"kind": "black", "in": hs, "out": he}
        s_start = time_range(item.get("source_range"))[0]
        start = tl.frames(s_start) if s_start else 0.0
        return {"kind": "nested", "in": hs, "out": he, "source": start + head * speed,
                "speed": speed, "name": item.get("name") or ""}
    return {"kind": "black", "in": hs, "out": he}


def window(cels, source_range, tl):
    start, dur = time_range(source_range)
    if not (start and dur):
        return cels
    ws = tl.frames(start)
    we = ws + tl.frames(dur)
    out = []
    for c in cels:
        if c["out"] <= ws or c["in"] >= we:
            continue
        a, b = max(c["in"], ws), min(c["out"], we)
        if "source" in c:
            c["source"] += (a - c["in"]) * c["speed"]
        c["in"], c["out"] = a - ws, b - ws
        out.append(c)
    return out


def track_cels(track, tl):
    video = track_kind(track) != "audio"
    slots, pos = [], 0.0
    for item in track.get("children") or []:
        if cls(item) == "Transition":
            slots.append({"t": True, "item": item, "cut": pos,
                          "in": max(0.0, tl.frames(rt(item.get("in_offset")))),
                          "out": max(0.0, tl.frames(rt(item.get("out_offset"))))})
        else:
            d = duration(item, tl)
            d = d if d > 0 else 0.0
            slots.append({"t": False, "item": item, "start": pos, "end": pos + d})
            pos += d
    for k, s in enumerate(slots):
        prev = slots[k - 1] if k > 0 else None
        nxt = slots[k + 1] if k + 1 < len(slots) else None
        if not s["t"]:
            s["hs"] = s["start"] + (prev["out"] if prev and prev["t"] else 0.0)
            s["he"] = s["end"]
            continue
        low = 0.0 if not prev else (prev["cut"] + prev["out"] if prev["t"] else prev["hs"])
        if s["cut"] - s["in"] < low:
            s["in"] = max(0.0, s["cut"] - low)
        if prev and not prev["t"]:
            prev["he"] = s["cut"] - s["in"]
        if nxt and nxt["t"]:
            s["out"] = 0.0
        elif nxt and s["out"] > nxt["end"] - nxt["start"]:
            s["out"] = nxt["end"] - nxt["start"]
    cels = []
    for s in slots:
        if s["t"]:
            cels.append({"kind": "transition", "in": s["cut"] - s["in"],
                         "out": s["cut"] + s["out"]})
        else:
            c = cel_of(s["item"], tl, video, s["hs"], s["he"], s["hs"] - s["start"])
            if c:
                cels.append(c)
    return window(cels, track.get("source_range"), tl)


def first_rate(item, clips, depth=0):
    if not isinstance(item, dict) or depth > 64:
        return 0
    kind = cls(item)
    if kind in ("Gap", "Filler"):
        d = rt((item.get("source_range") or {}).get("duration"))
        return d[1] if d and time_range(item.get("source_range"))[1] else 0
    if kind == "Transition":
        t = rt(item.get("in_offset"))
        return t[1] if t else 0
    if kind == "Clip":
        s = time_range(item.get("source_range"))[0]
        return s[1] if clips and s else 0
    if kind == "Timeline":
        return first_rate(item.get("tracks"), clips, depth + 1)
    for c in item.get("children") or []:
        r = first_rate(c, clips, depth + 1)
        if r:
            return r
    return 0


def timeline_rate(tl_obj):
    if cls(tl_obj) == "Timeline":
        named = ours(tl_obj).get("frameRate")
        if named in NAMED:
            return NAMED[named]
        g = rt(tl_obj.get("global_start_time"))
        if g:
            fps = g[1]
        else:
            fps = first_rate(tl_obj, False) or first_rate(tl_obj, True) or 24
    else:
        fps = first_rate(tl_obj, False) or first_rate(tl_obj, True) or 24
    best = min(RATES, key=lambda r: abs(r - fps))
    if abs(best - fps) < 0.01:
        return best
    return best if abs(best - fps) <= 0.05 * fps else 25


def timelines_of(root):
    if cls(root) in ("Timeline", "Stack", "Track"):
        return [root]
    out = []
    if cls(root) == "SerializableCollection":
        for c in root.get("children") or []:
            if cls(c) == "Timeline":
                out.append(c)
            elif cls(c) == "SerializableCollection":
                out.extend(timelines_of(c))
    return out


def positions(path):
    with open(path, encoding="utf-8") as f:
        root = json.load(f)
    result = []
    for tl_obj in timelines_of(root):
        fps = timeline_rate(tl_obj)
        tl = Timeline(fps, round(fps))
        stack = tl_obj.get("tracks") if cls(tl_obj) == "Timeline" else tl_obj
        tracks = [stack] if cls(stack) == "Track" else \
            [c for c in (stack or {}).get("children") or [] if cls(c) in ("Track", "Sequence")]
        video = [t for t in tracks if track_kind(t) == "video"]
        audio = [t for t in tracks if track_kind(t) == "audio"]
        channels = []
        for t in list(reversed(video)) + audio:
            cels = track_cels(t, tl)
            if cls(stack) == "Stack":
                cels = window(cels, stack.get("source_range"), tl)
            channels.append({"type": track_kind(t), "name": t.get("name") or "", "cels": cels})
        result.append({"name": tl_obj.get("name") or "", "fps": fps, "ticks": tl.ticks,
                       "kind": ours(tl_obj).get("kind", "sequence"), "channels": channels})
    return result


# ---- the serialized schema ----

def documented_fields(schema_doc):
    """Each class's fields, as the schema document lists them under its heading."""
    fields, current = {}, None
    with open(schema_doc, encoding="utf-8") as f:
        for line in f:
            heading = re.match(r"^### (\w+\.\d+)\s*$", line)
            if heading:
                current = heading.group(1)
                fields[current] = set()
                continue
            param = re.match(r"^- \*(\w+)\*:", line)
            if param and current:
                fields[current].add(param.group(1))
    # A composition's children are its own: the file format names them
    # "children", and the generated list of parameters leaves them out.
    for composition in ("Stack.1", "Track.1", "SerializableCollection.1"):
        if composition in fields:
            fields[composition].add("children")
    return fields


def check(path, schema_doc):
    documented = documented_fields(schema_doc)
    problems = []
    count = [0]

    def number(v):
        return isinstance(v, (int, float)) and not isinstance(v, bool)

    def expect(cond, where, what):
        if not cond:
            problems.append("%s: %s" % (where, what))

    def obj(v, where, allowed):
        """Checks an OpenTimelineIO object whose class must be one of `allowed`."""
        if not isinstance(v, dict):
            problems.append("%s: not an object" % where)
            return
        count[0] += 1
        schema = v.get("OTIO_SCHEMA")
        if schema not in documented:
            problems.append("%s: %r is no documented schema" % (where, schema))
            return
        if schema.split(".")[0] not in allowed:
            problems.append("%s: %s where %s belongs" % (where, schema, "/".join(allowed)))
        keys = set(v) - {"OTIO_SCHEMA"}
        want = documented[schema]
        for k in sorted(want - keys):
            problems.append("%s (%s): no %s" % (where, schema, k))
        for k in sorted(keys - want):
            problems.append("%s (%s): %s is no field of the schema" % (where, schema, k))
        kind = schema.split(".")[0]
        here = "%s %s" % (where, schema)
        if "metadata" in v:
            expect(isinstance(v["metadata"], dict), here, "metadata is no dictionary")
        if "name" in v:
            expect(isinstance(v["name"], str), here, "name is no string")
        if "enabled" in v:
            expect(isinstance(v["enabled"], bool), here, "enabled is no boolean")
        if "color" in v and kind != "Marker":
            expect(v["color"] is None, here, "color is not null")
        if "effects" in v:
            expect(isinstance(v["effects"], list), here, "effects is no list")
            for i, e in enumerate(v.get("effects") or []):
                obj(e, "%s.effects[%d]" % (here, i), ["LinearTimeWarp", "FreezeFrame"])
        if "markers" in v:
            expect(isinstance(v["markers"], list), here, "markers is no list")
            for i, m in enumerate(v.get("markers") or []):
                obj(m, "%s.markers[%d]" % (here, i), ["Marker"])
        if "source_range" in v and v["source_range"] is not None:
            obj(v["source_range"], here + ".source_range", ["TimeRange"])
        if kind == "RationalTime":
            expect(number(v.get("rate")) and v.get("rate") > 0, here, "rate is no positive number")
            expect(number(v.get("value")), here, "value is no number")
        elif kind == "TimeRange":
            obj(v.get("start_time"), here + ".start_time", ["RationalTime"])
            obj(v.get("duration"), here + ".duration", ["RationalTime"])
            d = v.get("duration", {}).get("value")
            expect(not number(d) or d >= 0, here, "duration is negative")
        elif kind == "Timeline":
            g = v.get("global_start_time")
            if g is not None:
                obj(g, here + ".global_start_time", ["RationalTime"])
            obj(v.get("tracks"), here + ".tracks", ["Stack"])
        elif kind in ("Stack", "Track"):
            expect(isinstance(v.get("children"), list), here, "children is no list")
            inner = ["Track"] if kind == "Stack" else ["Clip", "Gap", "Transition", "Stack"]
            children = v.get("children") or []
            for i, c in enumerate(children):
                obj(c, "%s.children[%d]" % (here, i), inner)
            if kind == "Track":
                expect(v.get("kind") in ("Video", "Audio"), here, "kind is neither Video nor Audio")
                for a, b in zip(children, children[1:]):
                    expect(not (cls(a) == "Transition" and cls(b) == "Transition"), here,
                           "two transitions side by side")
        elif kind == "Clip":
            refs = v.get("media_references")
            expect(isinstance(refs, dict) and refs, here, "media_references is no dictionary")
            for key, ref in (refs or {}).items():
                obj(ref, "%s.media_references[%s]" % (here, key),
                    ["ExternalReference", "MissingReference"])
            expect(v.get("active_media_reference_key") in (refs or {}), here,
                   "the active media reference key names no reference")
        elif kind == "Gap":
            expect(v.get("source_range") is not None, here, "no source range")
        elif kind == "Transition":
            obj(v.get("in_offset"), here + ".in_offset", ["RationalTime"])
            obj(v.get("out_offset"), here + ".out_offset", ["RationalTime"])
            expect(v.get("transition_type") in ("SMPTE_Dissolve", "Custom_Transition"), here,
                   "transition_type is no Transition.Type")
        elif kind in ("ExternalReference", "MissingReference"):
            a = v.get("available_range")
            if a is not None:
                obj(a, here + ".available_range", ["TimeRange"])
            expect(v.get("available_image_bounds") is None, here,
                   "available_image_bounds is not null")
            if kind == "ExternalReference":
                expect(isinstance(v.get("target_url"), str) and v.get("target_url"), here,
                       "target_url is no address")
        elif kind == "Marker":
            expect(v.get("color") in ("PINK", "RED", "ORANGE", "YELLOW", "GREEN", "CYAN", "BLUE",
                                      "PURPLE", "MAGENTA", "BLACK", "WHITE"), here,
                   "color is no Marker.Color")
            obj(v.get("marked_range"), here + ".marked_range", ["TimeRange"])
            expect(isinstance(v.get("comment"), str), here, "comment is no string")
        elif kind in ("LinearTimeWarp", "FreezeFrame"):
            expect(isinstance(v.get("effect_name"), str), here, "effect_name is no string")
            expect(number(v.get("time_scalar")), here, "time_scalar is no number")
            if kind == "FreezeFrame":
                expect(v.get("time_scalar") == 0, here, "a freeze frame's time_scalar is not 0")

    with open(path, encoding="utf-8") as f:
        root = json.load(f)
    obj(root, "root", ["Timeline"])
    return problems, count[0]


def main(argv):
    if len(argv) == 3 and argv[1] == "positions":
        json.dump(positions(argv[2]), sys.stdout)
        return 0
    if len(argv) == 4 and argv[1] == "check":
        problems, count = check(argv[2], argv[3])
        json.dump({"objects": count, "problems": problems}, sys.stdout)
        return 0
    sys.stderr.write(__doc__)
    return 2


if __name__ == "__main__":
    sys.exit(main(sys.argv))
