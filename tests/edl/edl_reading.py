#!/usr/bin/env python3
"""An independent reading of CMX 3600 edit decision lists, for qvxml's tests.

    edl_reading.py FILE TICKS FPS

Prints, as JSON, what each track of the list plays, in record frames from the
list's start (the earliest record timecode of its events), at TICKS frames a
second (30 for 29.97: drop frame counts at 30 and 60); FPS is the list's
true rate (29.97...), which M2 speeds are counted against, to three decimals:

    {"start": FRAME, "tracks": {"V1": [ITEM, ...], "A1": [...], ...}}

An ITEM is {"kind", "start", "end"} and for a clip also "reel" (empty for an
auxiliary reel), "source" (the source frame at its start) and "speed"
(source frames a record frame); for a wipe "code" and "reverse". Kinds:
"clip", "black", "dissolve", "wipe".

How a list is read:
- An event is one line, or two lines of one number: the outgoing source at
  the cut, then the incoming one with its transition (D, Wnnn) and length.
- A transition stands between what it joins: the track plays the outgoing
  clip up to the transition's start, the transition for its length, then the
  incoming clip, whose source has moved on by that length. An outgoing line
  of no length whose source is not where the clip before it stands is a clip
  of no length of its own. Keys (K, KB, KO) are cuts.
- M2 gives a clip's speed (frames a second over the list's rate); its source
  runs from the event's source in for the record's length at that speed.
- AUD 3 / 4 lines add audio channels; V is the picture, A An AA B channels.
- Between clips the track plays black; BL is black. An event laid over the
  one before cuts that one short; an event that is there twice plays once.
- Black whose end lies before its start is no event; any other event whose
  end lies before its start lasts as long as its source.
- A transition to black is followed by nothing; a transition longer than its
  event is cut to it; one of no length is a cut.

Only the standard library is used; none of qvxml's code.
"""

import json
import re
import sys

TC = r"(\d{1,3})([:;.,])(\d{1,3})([:;.,])(\d{1,3})([:;.,])(\d{1,3})"
EVENT = re.compile(r"^(\d+)\s+(?:(.*?)\s+)?(\S+)\s+(C|D|K\s*[BO]?|W\d*R?)(?:\s+(\d+))?\s+"
                   + r"\s+".join([TC] * 4) + r"\s*$")


def timecode(groups, drop, ticks):
    h, m, s, f = (int(groups[i]) for i in (0, 2, 4, 6))
    if m > 59 or s > 59:
        return None
    if groups[5] in ";.":
        drop = True
    lost = {30: 2, 60: 4}.get(ticks, 0) if drop else 0
    minutes = h * 60 + m
    return (minutes * 60 + s) * ticks + f - lost * (minutes - minutes // 10)


def channels_of(field):
    bits = set()
    for part in field.upper().split("/"):
        if part == "V":
            bits.add(0)
        elif part in ("A", "A1"):
            bits.add(1)
        elif part == "AA":
            bits.update((1, 2))
        elif part == "B":
            bits.update((0, 1))
        elif part == "NONE":
            pass
        elif re.fullmatch(r"A\d{1,2}", part):
            bits.add(int(part[1:]))
        else:
            return None
    return bits


def decode(data):
    if data.startswith(b"\xef\xbb\xbf"):
        data = data[3:]
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError:
        return data.decode("latin-1")


def read_events(text, ticks):
    events, table = [], {}
    drop = False
    current = None
    in_table = False
    for line in re.split(r"\r\n|\r|\n", text):
        s = line.strip()
        if not s:
            continue
        m = EVENT.match(s)
        if m:
            g = m.groups()
            chans = channels_of(g[2])
            if chans is None:
                continue
            effect = re.sub(r"\s+", "", g[3])
            tcs = [timecode(g[5 + 7 * i: 12 + 7 * i], drop, ticks) for i in range(4)]
            if None in tcs:
                continue
            edit = {"reel": g[1] or "", "channels": chans, "effect": effect,
                    "length": int(g[4]) if g[4] else 0, "src_in": tcs[0], "src_out": tcs[1],
                    "rec_in": tcs[2], "rec_out": tcs[3], "speed": None, "file": "",
                    "clip": ""}
            in_table = False
            if (current is not None and current["number"] == g[0] and len(current["edits"]) == 1
                    and effect != "C"):
                current["edits"].append(edit)
            else:
                if current is not None:
                    events.append(current)
                current = {"number": g[0], "edits": [edit], "speeds": [], "aud": set()}
            continue
        if s.upper().startswith("FCM:"):
            mode = s[4:].strip().upper()
            if mode.startswith("DROP FRAME"):
                drop = True
            elif mode.startswith("NON"):
                drop = False
            continue
        if s.upper().startswith(">>> SOURCE"):
            parts = s[10:].split()
            if parts:
                table[parts[0]] = ""
                table_reel = parts[0]
                in_table = True
            if current is not None:
                events.append(current)
                current = None
            continue
        body = s[1:].strip() if s.startswith("*") else s
        upper = body.upper()
        if upper.startswith("SOURCE FILE:"):
            name = body[12:].strip()
            if in_table and table.get(table_reel) == "":
                table[table_reel] = name
            elif current is not None:
                # By reel; else the first open edit, a still outgoing line of
                # a transition last.
                edits = current["edits"]
                base = re.split(r"[/\\]", name)[-1]
                open_ = [e for e in edits if not is_black(e) and not e["file"]]
                target = next((e for e in open_ if e["reel"] and base.startswith(e["reel"])), None)
                if target is None:
                    target = next((e for i, e in enumerate(edits) if any(e is o for o in open_) and not (
                        e["rec_in"] == e["rec_out"] and i + 1 < len(edits))), None)
                if target is None and open_:
                    target = open_[0]
                if target is not None:
                    target["file"] = name
            continue
        if current is None:
            continue
        if upper.startswith("FROM CLIP NAME:"):
            current["edits"][0]["clip"] = body[15:].strip()
        elif upper.startswith("TO CLIP NAME:"):
            current["edits"][-1]["clip"] = body[13:].strip()
        elif upper.startswith("WIPE REVERSE"):
            current["edits"][-1]["effect"] += "R" if not current["edits"][-1]["effect"].endswith("R") else ""
        elif s.split()[0].upper() == "M2":
            parts = s.split()
            try:
                fps = float(parts[-2])
            except (ValueError, IndexError):
                continue
            if len(parts) < 3 or not re.fullmatch(TC, parts[-1]):
                continue
            entry = timecode(re.fullmatch(TC, parts[-1]).groups(), drop, ticks)
            if entry is None:
                continue
            current["speeds"].append((" ".join(parts[1:-2]), fps, entry))
        elif s.split()[0].upper() == "AUD":
            for p in s.split()[1:]:
                p = p.lstrip("Aa")
                if p.isdigit():
                    current["aud"].add(int(p))
    if current is not None:
        events.append(current)
    # Speeds go to the edit of their reel that starts where they say, else to
    # an edit of their reel, else to the last edit; AUD to every edit.
    for ev in events:
        for reel, fps, entry in ev["speeds"]:
            target = None
            for e in ev["edits"]:
                if e["speed"] is None and e["reel"] == reel and e["src_in"] == entry:
                    target = e
            if target is None:
                for e in ev["edits"]:
                    if e["speed"] is None and e["reel"] == reel:
                        target = e
                        break
            if target is None:
                target = ev["edits"][-1]
                if target["speed"] is not None:
                    continue
            target["speed"] = fps
        for e in ev["edits"]:
            e["channels"] |= ev["aud"]
            if not e["file"] and e["reel"] in table:
                e["file"] = table[e["reel"]]
    return events


def is_black(e):
    return e["reel"].upper() in ("BL", "BLK", "BLACK")


def file_like(name):
    return re.fullmatch(r".+\.[A-Za-z0-9]{1,5}", name) is not None


def shot_key(e, index):
    aux = e["reel"].upper() in ("", "AX", "AUX")
    key = ("" if aux else e["reel"]) + "\x1f"
    if e["file"]:
        return key + e["file"]
    if file_like(e["clip"]) or (aux and e["clip"]):
        return key + e["clip"]
    return key + ("#%d" % index if aux else "")


def main():
    # M2 counts frames a second against the rate as editors write it: 29.97,
    # 23.976.
    path, ticks, ticks_fps = sys.argv[1], int(sys.argv[2]), round(float(sys.argv[3]), 3)
    with open(path, "rb") as f:
        events = read_events(decode(f.read()), ticks)
    start = min(e["rec_in"] for ev in events for e in ev["edits"]) if events else 0
    pieces = {}
    order = [0]

    def push(ch, piece):
        piece["order"] = order[0]
        order[0] += 1
        pieces.setdefault(ch, []).append(piece)

    def speed(e):
        return e["speed"] / ticks_fps if e["speed"] is not None else 1.0

    def record(e):
        a, b = e["rec_in"] - start, e["rec_out"] - start
        if b >= a:
            return a, b
        if is_black(e) and e["effect"] == "C":
            return None
        if e["src_out"] - e["src_in"] <= 0:
            return None
        return a, a + e["src_out"] - e["src_in"]

    def clip(e, index, a, b, source, spd):
        aux = e["reel"].upper() in ("", "AX", "AUX")
        return {"kind": "clip", "start": a, "end": b, "reel": "" if aux else e["reel"],
                "source": source, "speed": spd, "shot": shot_key(e, index)}

    def cut(e, index):
        r = record(e)
        if r is None or r[0] == r[1]:
            return
        a, b = r
        for ch in e["channels"]:
            if is_black(e):
                push(ch, {"kind": "black", "start": a, "end": b})
            else:
                push(ch, clip(e, index, a, b, float(e["src_in"]), speed(e)))

    def transition(frm, to, index):
        r = record(to)
        if r is None:
            return
        a, b = r
        length = min(to["length"], b - a)
        if length <= 0:
            cut(to, index)
            return
        wipe = to["effect"].startswith("W")
        code = to["effect"][1:].rstrip("R")
        for ch in to["channels"]:
            if frm is not None and frm["rec_in"] == frm["rec_out"] and not is_black(frm):
                mark = clip(frm, index, a, a, float(frm["src_in"]), speed(frm))
                mark["kind"] = "from"
                push(ch, mark)
            t = {"kind": "wipe" if wipe and ch == 0 else "dissolve", "start": a, "end": a + length}
            if t["kind"] == "wipe":
                t["code"] = int(code) if code else 0
                t["reverse"] = to["effect"].endswith("R")
            push(ch, t)
            if not is_black(to):
                spd = speed(to)
                push(ch, clip(to, index, a + length, b, to["src_in"] + length * spd, spd))

    for index, ev in enumerate(events):
        edits = ev["edits"]
        if len(edits) == 1:
            if edits[0]["effect"][0] in "DW":
                transition(None, edits[0], index)
            else:
                cut(edits[0], index)
        else:
            if edits[0]["rec_in"] != edits[0]["rec_out"]:
                cut(edits[0], index)
            if edits[1]["effect"].startswith("K"):
                cut(edits[1], index)
            else:
                transition(edits[0], edits[1], index)

    tracks = {}
    for ch in sorted(pieces):
        items = []
        seen = set()
        cursor = 0
        for p in sorted(pieces[ch], key=lambda p: (p["start"], p["order"])):
            sig = (p["start"], p["end"], p["kind"], p.get("shot"), p.get("source"), p.get("speed"),
                   p.get("code"), p.get("reverse"))
            if sig in seen:
                continue
            seen.add(sig)
            if p["kind"] == "from":
                last = items[-1] if items else None
                if (last is not None and last["kind"] == "clip" and cursor == p["start"]
                        and last["shot"] == p["shot"] and abs(last["speed"] - p["speed"]) < 1e-6
                        and abs(last["source"] + (last["end"] - last["start"]) * last["speed"]
                                - p["source"]) <= 1.0 + 1e-9):
                    continue
                if p["start"] > cursor:
                    items.append({"kind": "black", "start": cursor, "end": p["start"]})
                if p["start"] >= cursor:
                    q = dict(p)
                    q["kind"] = "clip"
                    items.append(q)
                    cursor = p["start"]
                continue
            if p["start"] < cursor:
                while items and items[-1]["start"] >= p["start"]:
                    items.pop()
                if items and items[-1]["end"] > p["start"]:
                    items[-1]["end"] = p["start"]
                cursor = p["start"]
            if p["start"] > cursor:
                items.append({"kind": "black", "start": cursor, "end": p["start"]})
            items.append(p)
            cursor = p["end"]
        for it in items:
            it.pop("order", None)
            it.pop("shot", None)
        tracks["V1" if ch == 0 else "A%d" % ch] = items
    # Audio tracks from A1 to the highest the list plays.
    audio = [c for c in pieces if c > 0]
    for c in range(1, max(audio) + 1 if audio else 1):
        tracks.setdefault("A%d" % c, [])
    json.dump({"start": start, "tracks": tracks}, sys.stdout)


if __name__ == "__main__":
    main()
