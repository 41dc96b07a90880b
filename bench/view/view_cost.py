#!/usr/bin/python3
"""What serving one browser costs `talvoro view`: the CPU time of the tool's process while one
viewer takes the live stream of a virtual camera in data mode 4 at 30 fps, beside the CPU time of
`talvoro stream` processing the same camera's frames with no viewer (streaming alone), and of
`talvoro view` with nobody watching. Runs alternate, so that the load of a shared machine falls
on every candidate alike; each reports the median over the rounds.

usage: bench/view/view_cost.py BUILD_DIR [--seconds S] [--rounds R]
"""

import argparse
import os
import statistics
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(__file__), "..", "..", "tests", "tools", "view"))

TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    with open(f"/proc/{pid}/stat") as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS  # utime + stime


def child_of(parent):
    for entry in os.listdir("/proc"):
        if entry.isdigit():
            try:
                with open(f"/proc/{entry}/stat") as f:
                    if int(f.read().rsplit(")", 1)[1].split()[1]) == parent:
                        return int(entry)
            except OSError:
                pass
    return None


def measure(pid, seconds):
    """Share of one core the process used over `seconds`."""
    start, t0 = cpu_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return (cpu_seconds(pid) - start) / (time.monotonic() - t0)


def stream_alone(build, seconds, warmup):
    launcher = subprocess.Popen(
        [f"{build}/vcam/talvoro-vcam", "run", "--camera", "serial=BENCH", "--",
         f"{build}/tools/talvoro/talvoro", "stream", "BENCH", "--mode", "4", "--frames", "0"],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        time.sleep(warmup)
        return measure(child_of(launcher.pid), seconds), None
    finally:
        launcher.terminate()
        launcher.wait()


def view(build, seconds, warmup, watch):
    import viewer as support
    os.environ["TALVORO_TOOL_PATH"] = f"{build}/tools/talvoro/talvoro"
    os.environ["TALVORO_LAUNCHER_PATH"] = f"{build}/vcam/talvoro-vcam"
    support.TOOL = os.environ["TALVORO_TOOL_PATH"]
    support.LAUNCHER = os.environ["TALVORO_LAUNCHER_PATH"]
    v = support.Viewer(["serial=BENCH"])
    try:
        pid = v.tool_pid()
        if not watch:
            time.sleep(warmup)
            return measure(pid, seconds), None
        live = support.LiveStream(v)
        live.read_head()
        # Read in this process while measuring the tool's: the browser's work is not counted.
        deadline = time.monotonic() + warmup
        while time.monotonic() < deadline:
            live.message()
        start, t0 = cpu_seconds(pid), time.monotonic()
        first = last = None
        while time.monotonic() - t0 < seconds:
            header, _ = live.message()
            if header["type"] == "image" and header["image"] == "depth":
                first = first or header["frame"]
                last = header["frame"]
        share = (cpu_seconds(pid) - start) / (time.monotonic() - t0)
        live.close()
        return share, (last - first) / seconds
    finally:
        v.stop()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("build")
    parser.add_argument("--seconds", type=float, default=10)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--warmup", type=float, default=3)
    args = parser.parse_args()
    build = os.path.abspath(args.build)
    results = {"stream, no viewer": [], "view, no viewer": [], "view, one viewer": []}
    served = []
    for r in range(args.rounds):
        for name, run in [("stream, no viewer", lambda: stream_alone(build, args.seconds, args.warmup)),
                          ("view, no viewer", lambda: view(build, args.seconds, args.warmup, False)),
                          ("view, one viewer", lambda: view(build, args.seconds, args.warmup, True))]:
            share, fps = run()
            results[name].append(share)
            if fps:
                served.append(fps)
            print(f"round {r + 1}: {name}: {100 * share:.1f}% of a core"
                  + (f", {fps:.1f} frames/s to the viewer" if fps else ""), flush=True)
    print()
    medians = {name: statistics.median(values) for name, values in results.items()}
    for name, m in medians.items():
        print(f"{name:18s} median {100 * m:5.1f}% of a core  (runs: "
              + ", ".join(f"{100 * v:.1f}" for v in results[name]) + ")")
    print(f"one viewer adds {100 * (medians['view, one viewer'] - medians['stream, no viewer']):.1f}% "
          f"of a core over streaming alone, at {statistics.median(served):.1f} frames/s")


if __name__ == "__main__":
    main()
