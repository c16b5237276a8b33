#!/usr/bin/env python3
"""The command on a long .otio beside the floor of reading its JSON.

Writes a timeline of CLIPS cels with bench_otio (the same generated cut as the
in-process benchmarks), then runs, in turn, `qvxml import`, `qvxml convert
--to otio` and Python's `json.load` of the same file, and prints for each the
median CPU and wall seconds and peak memory, with the ratios to json.load
(which stands in for OpenTimelineIO's own reading where that is not
installed).

    bench/otio/otio_vs_json.py build/bin/bench_otio build/bin/qvxml [CLIPS] [RUNS]
"""
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time


def run(argv):
    """Runs a command to its end with its output thrown away: CPU and wall
    seconds and peak memory in MiB."""
    start = time.monotonic()
    with open(os.devnull, "wb") as null:
        proc = subprocess.Popen(argv, stdout=null, stderr=null)
        _, status, usage = os.wait4(proc.pid, 0)
    wall = time.monotonic() - start
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"{argv[0]} {argv[1]} failed: status {status}")
    return usage.ru_utime + usage.ru_stime, wall, usage.ru_maxrss / 1024


def main():
    if len(sys.argv) < 3:
        sys.exit(__doc__)
    bench_otio, qvxml = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    clips = int(sys.argv[3]) if len(sys.argv) > 3 else 100000
    runs = int(sys.argv[4]) if len(sys.argv) > 4 else 3
    folder = tempfile.mkdtemp(prefix="qvxml-bench-otio-")
    try:
        doc = os.path.join(folder, "cut.otio")
        subprocess.run([bench_otio, "--write", str(clips), "100", doc], check=True)
        out = os.path.join(folder, "out")
        os.mkdir(out)
        commands = {
            "json.load": [sys.executable, "-c",
                          "import json,sys; json.load(open(sys.argv[1]))", doc],
            "import": [qvxml, "import", doc, "--quiet"],
            "otio to otio": [qvxml, "convert", doc, "--to", "otio", "-o", out,
                             "--overwrite", "--quiet"],
        }
        figures = {name: [] for name in commands}
        for name, argv in commands.items():  # warm the file into the cache
            run(argv)
        for _ in range(runs):
            for name, argv in commands.items():
                figures[name].append(run(argv))
        size = os.path.getsize(doc) / 2**20
        print(f"{clips} clips, {size:.0f} MiB, medians of {runs} runs")
        floor = [statistics.median(f[i] for f in figures["json.load"]) for i in range(3)]
        print(f"{'':14} {'cpu s':>8} {'wall s':>8} {'peak MiB':>9} {'cpu/json':>9} {'wall/json':>9}")
        for name, runs_of in figures.items():
            cpu, wall, peak = (statistics.median(f[i] for f in runs_of) for i in range(3))
            print(f"{name:14} {cpu:8.2f} {wall:8.2f} {peak:9.0f} "
                  f"{cpu / floor[0]:9.2f} {wall / floor[1]:9.2f}")
    finally:
        shutil.rmtree(folder, ignore_errors=True)


if __name__ == "__main__":
    main()
