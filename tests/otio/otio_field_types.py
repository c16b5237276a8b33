#!/usr/bin/env python3
"""Every field of the corpus's .otio documents given every other JSON type.

    otio_field_types.py QVXML CORPUS_OTIO_FOLDER

Fields are taken by their shape: the path with the indexes of arrays left
out ("tracks/children/*/children/*/enabled"). Each shape is mutated once, at
its first place in the smallest document that has it, to each JSON type it
does not hold (null, a boolean, a number, a string, an array, an object);
the metadata of other namespaces is one field. The mutated documents are
converted to every format with --report and read with info --json in
batches of 80, every 16th is drawn and every 32nd imported
alone. Each run must end with a status the user guide lists, by exit, never
by a signal, an abort or an exception's message. A batch of a good document
and bad ones must write the good one.

Exits 77 (skipped) when the corpus is missing, unless CI=true.
"""
import copy
import glob
import json
import os
import subprocess
import sys
import tempfile

DOCUMENTED = {0, 2, 3, 5, 6, 9, 10}
FORMATS = ["native", "xmeml", "fcpxml", "otio", "edl"]
TYPES = [None, True, 1.5, "x", [], {}]
BATCH = 80
CRASH_WORDS = ["terminate called", "exception", "Assertion", "AddressSanitizer",
               "runtime error", "Segmentation"]


def type_of(value):
    if value is None:
        return "null"
    if isinstance(value, bool):
        return "bool"
    if isinstance(value, (int, float)):
        return "number"
    return type(value).__name__


def shapes(doc):
    """The first place of each field shape: (shape, path)."""
    found = {}

    def walk(value, path, shape):
        if isinstance(value, dict):
            items = list(value.items())
        elif isinstance(value, list):
            items = list(enumerate(value))
        else:
            return
        for key, child in items:
            p, s = path + [key], shape + ("*" if isinstance(key, int) else key,)
            found.setdefault(s, p)
            # Another namespace's metadata is one field: its insides are
            # not read.
            if len(s) >= 2 and s[-2] == "metadata" and key != "qvxml":
                continue
            walk(child, p, s)

    walk(doc, [], ())
    return found


def mutated(doc, path, value):
    out = copy.deepcopy(doc)
    target = out
    for key in path[:-1]:
        target = target[key]
    target[path[-1]] = copy.deepcopy(value)
    return out


def check(run, argv, what):
    """Runs one command; a problem as a sentence, or None."""
    result = subprocess.run(argv, capture_output=True, text=True, errors="replace", cwd=run)
    err = result.stderr
    if result.returncode < 0:
        return f"{what}: killed by signal {-result.returncode}\n{err[-2000:]}"
    if result.returncode not in DOCUMENTED:
        return f"{what}: status {result.returncode}\n{err[-2000:]}"
    for word in CRASH_WORDS:
        if word in err:
            return f"{what}: says {word!r}\n{err[-2000:]}"
    return None


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    qvxml, corpus = os.path.abspath(sys.argv[1]), sys.argv[2]
    documents = sorted(glob.glob(os.path.join(corpus, "*.otio")) +
                       glob.glob(os.path.join(corpus, "from-xmeml", "*.otio")),
                       key=os.path.getsize)
    if not documents:
        if os.environ.get("CI") == "true":
            sys.exit(f"no .otio documents in {corpus}")
        print(f"no corpus at {corpus}: skipped")
        sys.exit(77)

    cases = []  # (label, document)
    taken = set()
    for path in documents:
        with open(path, encoding="utf-8") as f:
            doc = json.load(f)
        for shape, where in shapes(doc).items():
            if shape in taken:
                continue
            taken.add(shape)
            target = doc
            for key in where:
                target = target[key]
            for value in TYPES:
                if type_of(value) == type_of(target):
                    continue
                label = f"{os.path.basename(path)}:{'/'.join(map(str, where))}={json.dumps(value)}"
                cases.append((label, mutated(doc, where, value)))

    problems = []
    with tempfile.TemporaryDirectory(prefix="qvxml-otio-types-") as scratch:
        files = []
        for n, (label, doc) in enumerate(cases):
            name = os.path.join(scratch, f"m{n:05d}.otio")
            with open(name, "w", encoding="utf-8") as f:
                json.dump(doc, f)
            files.append((label, name))
        for start in range(0, len(files), BATCH):
            batch = files[start:start + BATCH]
            names = [name for _, name in batch]
            what = f"cases {start}..{start + len(batch) - 1} ({batch[0][0]} ...)"
            # Two formats a batch, in turn: each format sees a share of the
            # documents, each document two formats.
            k = start // BATCH
            for fmt in (FORMATS[k % len(FORMATS)], FORMATS[(k + 2) % len(FORMATS)]):
                out = os.path.join(scratch, f"out-{fmt}")
                os.makedirs(out, exist_ok=True)
                problems.append(check(scratch, [qvxml, "convert", *names, "--to", fmt, "-o", out,
                                                "--overwrite", "--report", f"report-{fmt}.json",
                                                "-j", "2"], f"convert --to {fmt} {what}"))
            problems.append(check(scratch, [qvxml, "info", "--json", *names], f"info {what}"))
        for n, (label, name) in enumerate(files):
            if n % 16 == 0:
                problems.append(check(scratch, [qvxml, "draw", name, "-o", "d.svg", "--overwrite"],
                                      f"draw {label}"))
            if n % 32 == 0:
                problems.append(check(scratch, [qvxml, "import", name], f"import {label}"))

        # A batch goes on past a bad document and writes the good one.
        good = documents[0]
        bad = [name for label, name in files if label.endswith("=null")][:3]
        out = os.path.join(scratch, "batch")
        os.makedirs(out)
        problems.append(check(scratch, [qvxml, "convert", good, *bad, "--to", "xmeml", "-o", out],
                              "the batch of a good document and bad ones"))
        written = [f for f in os.listdir(out) if f.endswith(".xml")]
        if not written:
            problems.append("the batch of a good document and bad ones wrote nothing")

    problems = [p for p in problems if p]
    print(f"{len(cases)} mutated documents from {len(taken)} field shapes of "
          f"{len(documents)} documents")
    for p in problems:
        print("FAIL", p)
    sys.exit(1 if problems else 0)


if __name__ == "__main__":
    main()
