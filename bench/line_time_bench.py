#!/usr/bin/env python3
"""The line's time: what a silent station and slow values cost the others.

Drives rtuplc-sim and rtuplc-poll (the measuring host) on loopback, each case side by
side with its reference run, and prints one table (docs/benchmarks.md):

  silent     three stations, one switched off, against the two alone: the answering
             stations' reads per second
  groups     a fast block with a slow one (/2s) added, against the fast one alone: the
             fast block's reads per second, and the slow block's worst age
  ten        ten stations, nine silent, against the one alone
  back       a station switched on again: the time to its first fresh read

on the unpaced simulator and on one paced like a 19,200 baud line. Rates are the
replies the simulator counted in the steady part of each run (after the silent
stations failed their retries; probes included). A run lasts --seconds (default 6);
the whole takes about two and a half minutes.

  python3 bench/line_time_bench.py [--build build] [--seconds 8]
"""
import argparse
import os
import re
import subprocess
import sys
import threading
import time

ITEM = "D_W:0..9"
SLOW = "D_W:1000..1009"
TIMEOUT_MS = "100"  # the turnaround margin: a time-out costs transmission + 100 ms


class Sim:
    def __init__(self, build, stations, pace):
        args = [os.path.join(build, "rtuplc-sim"), "--tcp", "127.0.0.1:0", "--control",
                "--station", ",".join(map(str, stations))]
        if pace:
            args += ["--pace", "--line", pace]
        self.p = subprocess.Popen(args, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                  stderr=subprocess.PIPE, text=True)
        line = self.p.stdout.readline()  # where it serves: "rtuplc-sim: serving tcp 127.0.0.1:PORT"
        self.port = int(re.search(r":(\d+)$", line.strip()).group(1))
        self.p.stdout.readline()  # the stations it answers; then the answers to commands

    def control(self, command):
        self.p.stdin.write(command + "\n")
        self.p.stdin.flush()
        return self.p.stdout.readline().strip()

    def close(self):
        self.p.stdin.close()
        self.p.wait(timeout=10)


def poll(build, port, items, seconds, pace, extra=(), verbose=False):
    args = [os.path.join(build, "rtuplc-poll"), "--tcp", "127.0.0.1:%d" % port, "--timeout", TIMEOUT_MS,
            "--duration", str(seconds)] + list(extra) + list(items)
    if pace:
        args += ["--line", pace]
    if verbose:
        args.append("--verbose")
    return subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)


def replies_per_second(sim, build, items, seconds, warmup, pace):
    """Replies the simulator sent per second while rtuplc-poll polls `items`, counted
    from `warmup` seconds into the run (once every silent station has failed its
    retries) to half a second before its end: the steady pace, probes included."""
    p = poll(build, sim.port, items, seconds, pace)
    time.sleep(warmup)
    t0, r0 = time.monotonic(), replies(sim)
    time.sleep(seconds - warmup - 0.5)
    t1, r1 = time.monotonic(), replies(sim)
    p.communicate()
    return (r1 - r0) / (t1 - t0)


def replies(sim):
    return int(re.search(r"replies (\d+)", sim.control("counters")).group(1))


def side_by_side(sim, build, reference, measured, seconds, warmup, pace, runs):
    """The best of `runs` runs of each, taken in turn: the machine is shared, and a
    run slowed by someone else's build says nothing of the host."""
    ref, got = [], []
    for _ in range(runs):
        ref.append(replies_per_second(sim, build, reference, seconds, warmup, pace))
        got.append(replies_per_second(sim, build, measured, seconds, warmup, pace))
    return max(ref), max(got)


def slow_ages(build, port, seconds, pace, interval):
    """Reads of the slow block as the frame trace shows them, by the time they came."""
    p = poll(build, port, [ITEM, SLOW + "/" + interval], seconds, pace, verbose=True)
    slow_request = "tx 01 03 03 E8 00 0A"  # station 1, read 10 registers from 1000
    times = []
    for line in p.stderr:
        if slow_request in line:
            times.append(time.monotonic())
    p.wait()
    gaps = [b - a for a, b in zip(times, times[1:])]
    return max(gaps) if gaps else float("nan"), len(times)


def back_online(build, pace, seconds):
    """Station 2 silent from the start, switched on after a third of the run."""
    sim = Sim(build, [1], pace)
    p = poll(build, sim.port, [ITEM + "@1", ITEM + "@2"], seconds, pace, extra=["--json"])
    seen = {}

    def watch():
        for line in p.stdout:
            if '"station":2' in line and '"value"' in line and "first" not in seen:
                seen["first"] = time.monotonic()

    t = threading.Thread(target=watch)
    t.start()
    time.sleep(seconds / 3)
    sim.control("stations 1,2")
    on = time.monotonic()
    t.join()
    p.wait()
    sim.close()
    return seen["first"] - on if "first" in seen else float("nan")


def main():
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--build", default="build")
    ap.add_argument("--seconds", type=float, default=6)
    a = ap.parse_args()
    s = a.seconds
    rows = []
    for name, pace, runs in (("unpaced", None, 2), ("19,200 baud", "19200,8,EVEN,1", 1)):
        sim = Sim(a.build, [1, 2], pace)
        alone, silent = side_by_side(sim, a.build, [ITEM + "@1", ITEM + "@2"],
                                     [ITEM + "@1", ITEM + "@2", ITEM + "@3"], s, 1.5, pace, runs)
        rows.append((name, "three stations, one silent: reads/s of each answering one",
                     "%.0f" % (alone / 2), "%.0f" % (silent / 2), silent / alone))

        fast, both = side_by_side(sim, a.build, [ITEM], [ITEM, SLOW + "/2s"], s, 1.5, pace, runs)
        both -= 0.5  # the slow block's own reads, one every 2 s
        rows.append((name, "fast block, slow block (/2s) added: fast reads/s", "%.0f" % fast, "%.0f" % both,
                     both / fast))
        worst, count = slow_ages(a.build, sim.port, s, pace, "2s")
        rows.append((name, "slow block (/2s): longest time between reads, s", "2 + one pass", "%.3f" % worst,
                     None))

        # Nine stations fail their retries one after the other first: counted from then.
        one, ten = side_by_side(sim, a.build, [ITEM + "@1"], [ITEM + "@%d" % n for n in range(1, 11)],
                                s + 5, 5, pace, runs)
        rows.append((name, "ten stations, nine silent: reads/s of the one answering", "%.0f" % one,
                     "%.0f" % ten, ten / one))
        sim.close()

        back = back_online(a.build, pace, s)
        rows.append((name, "station switched on: time to its first fresh read, s", "at most 5 + one pass",
                     "%.2f" % back, None))

    print("| Line | Case | Reference | Measured | Ratio |")
    print("|---|---|---|---|---|")
    for line, case, ref, got, ratio in rows:
        print("| %s | %s | %s | %s | %s |" % (line, case, ref, got, "" if ratio is None else "%.2f" % ratio))


if __name__ == "__main__":
    main()
