#!/usr/bin/python3
"""The gateway's Modbus server under load, each figure beside its reference in one run.

Cached reads: rtuplc_modbus_load (16 masters on one epoll thread, each with one read
out at a time) reads the 100 registers the gateway polls, as fast as they are
answered, over its Modbus TCP listener; rounds alternate with rounds without masters,
and the gateway's own poll rate (polls_total on /metrics) in both is compared. The
line is the simulator paced like a serial line (--line, default 115,200 baud).

Beside a forwarding proxy: 4 masters read the same 100 registers on a 19,200 baud line
(--proxy-line), through the gateway with its cache, then through the same gateway with
`cache: false`, which puts every read on the line. Requests answered per line exchange
(the simulator's count, the gateway's own polls included), and the forwarded read's
latency beside the line's own exchange time (the same read straight to the simulator,
one master).

    bench/modbus_server_bench.py [--seconds 5] [--rounds 3]

Binaries from build-bench/ unless RTUPLC_BUILD, RTUPLC_GATEWAY, RTUPLC_SIM say
otherwise. Not part of ctest: it takes about two minutes and both cores.
"""

import argparse
import os
import re
import shutil
import statistics
import subprocess
import sys
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
BUILD = os.environ.get("RTUPLC_BUILD", os.path.join(ROOT, "build-bench"))
os.environ.setdefault("RTUPLC_GATEWAY", os.path.join(BUILD, "rtuplc-gateway"))
os.environ.setdefault("RTUPLC_SIM", os.path.join(BUILD, "rtuplc-sim"))
LOAD = os.environ.get("RTUPLC_MODBUS_LOAD", os.path.join(BUILD, "bench", "rtuplc_modbus_load"))
sys.path.insert(0, os.path.join(ROOT, "support/python"))
import loopback_line as h  # noqa: E402  (needs the environment above)

ITEMS = ["D_W:0..99"]  # one block: what the masters read
WARM_UP = 1.0          # s of load before a window is measured


def metric(port, name):
    with urllib.request.urlopen("http://127.0.0.1:%d/metrics" % port, timeout=5) as r:
        text = r.read().decode()
    found = re.search(r"^rtuplc_gateway_%s (\S+)$" % name, text, re.M)
    return float(found.group(1)) if found else float("nan")


class Line:
    """The simulator paced like `line`, a broker, and a gateway polling ITEMS with its
    Modbus server on TCP (cache on or off) and /metrics."""

    def __init__(self, line, cache=True):
        self.broker = h.Broker().start()
        self.sim = h.Simulator(extra_args=["--pace", "--line", line])
        self.web, self.port = h.free_port(), h.free_port()
        folder, config = h.base_config(self.broker, self.sim, ITEMS)
        config["line"]["pause"] = 0
        config["http"] = {"listen": "127.0.0.1:%d" % self.web}
        config["modbus-server"] = {"tcp": "127.0.0.1:%d" % self.port, "cache": cache}
        self.gw = None
        self.folder, self.config = folder, config

    def start(self):
        self.gw = h.Gateway(self.folder, self.config)
        if not h.wait_until(lambda: h.port_open(self.web) and metric(self.web, "polls_total") > 0, h.START_TIMEOUT):
            raise RuntimeError("the gateway did not poll; its log:\n" + self.gw.log())
        time.sleep(WARM_UP)
        return self

    def counts(self):
        """(time, own polls, forwarded requests, line exchanges) now. The gateway's figures
        are copied for /metrics every 250 ms; the simulator counts at once."""
        return (time.monotonic(), metric(self.web, "polls_total"), metric(self.web, "modbus_forwarded_total"),
                self.sim.counters()["requests"])

    def cleanup(self):
        if self.gw:
            self.gw.stop()
            self.gw.cleanup()  # and its folder
        else:
            shutil.rmtree(self.folder, ignore_errors=True)
        self.sim.cleanup()
        self.broker.cleanup()


def load(port, connections, seconds, rtu=False):
    """Starts rtuplc_modbus_load reading the 100 registers; figures() parses its line."""
    args = [LOAD] + (["--rtu"] if rtu else []) + [
        "--connections", str(connections), "--seconds", str(seconds), "--warm-up", str(WARM_UP), "--count", "100",
        "127.0.0.1", str(port)]
    return subprocess.Popen(args, stdout=subprocess.PIPE, text=True)


def figures(proc):
    out, _ = proc.communicate(timeout=60)
    words = out.split()
    f = {words[i]: float(words[i + 1]) if words[i] != "code" else words[i + 1] for i in range(0, len(words) - 1, 2)}
    if proc.returncode != 0 or f.get("failed"):
        raise RuntimeError("the load failed: " + out)
    return f


def window(line, seconds, proc=None):
    """Per second over `seconds` (the load's own window if any): the gateway's own polls
    from /metrics, and as the line's exchanges less the forwarded ones (exact when none
    are); the line's exchanges."""
    if proc:
        time.sleep(WARM_UP)
    t0, p0, f0, x0 = line.counts()
    time.sleep(seconds)
    t1, p1, f1, x1 = line.counts()
    span = t1 - t0
    return (p1 - p0) / span, ((x1 - x0) - (f1 - f0)) / span, (x1 - x0) / span


def cached(a):
    line = Line(a.line)
    rounds = []
    try:
        line.start()
        for r in range(a.rounds):
            _, alone, _ = window(line, a.seconds)
            proc = load(line.port, 16, a.seconds)
            _, loaded, _ = window(line, a.seconds, proc)
            f = figures(proc)
            rounds.append((alone, loaded, f))
            print("round %d: own polls/s %.1f alone, %.1f with 16 masters; %.0f answers/s, p50 %.0f us, p99 %.0f us"
                  % (r + 1, alone, loaded, f["rate"], f["p50_us"], f["p99_us"]), flush=True)
    finally:
        line.cleanup()

    def med(get):
        return statistics.median(get(*r) for r in rounds)

    return [
        ("cached reads answered/s (aim >= 50,000)", "%.0f" % med(lambda a, p, f: f["rate"])),
        ("latency p50 / p99 (aim p99 < 1 ms)",
         "%.0f / %.0f us" % (med(lambda a, p, f: f["p50_us"]), med(lambda a, p, f: f["p99_us"]))),
        ("gateway's own polls/s, no masters / with the masters", "%.1f / %.1f" % (med(lambda a, p, f: a),
                                                                             med(lambda a, p, f: p))),
        ("ratio (aim >= 0.9)", "%.3f" % med(lambda a, p, f: p / a)),
    ]


def proxy(a):
    rows = {}
    # The line's own exchange time: the same read straight to the simulator.
    line = Line(a.proxy_line)
    try:
        direct = figures(load(line.sim.port, 1, a.seconds, rtu=True))
    finally:
        line.cleanup()
    for name, cache in (("the gateway", True), ("forwarding proxy (cache: false)", False)):
        line = Line(a.proxy_line, cache)
        try:
            line.start()
            proc = load(line.port, 4, a.seconds)
            _, polls, exchanges = window(line, a.seconds, proc)
            f = figures(proc)
        finally:
            line.cleanup()
        rows[name] = (f, polls, exchanges)
        print("%s: %.1f answers/s, %.1f exceptions/s, %.1f line exchanges/s (own polls %.1f/s), p50 %.1f ms, "
              "p99 %.1f ms" % (name, f["rate"], f["exceptions"] / f["seconds"], exchanges, polls, f["p50_us"] / 1000,
                               f["p99_us"] / 1000), flush=True)
    cells = {name: [("%.1f (%.1f)" % (f["rate"], f["exceptions"] / f["seconds"])), "%.1f" % exchanges, "%.1f" % polls,
                    "%.2f" % (f["rate"] / exchanges), "%.2f / %.2f ms" % (f["p50_us"] / 1000, f["p99_us"] / 1000)]
             for name, (f, polls, exchanges) in rows.items()}
    labels = ["answered/s, 4 masters (of which 0B: waited past request-timeout)", "line exchanges/s",
              "the gateway's own polls/s", "answered per line exchange", "read latency p50 / p99"]
    out = [(label, [cells[name][i] for name in rows]) for i, label in enumerate(labels)]
    own = "The line's own exchange time for that read (one master straight to the simulator), p50 / p99: " \
        "%.1f / %.1f ms" % (direct["p50_us"] / 1000, direct["p99_us"] / 1000)
    return list(rows), out, own


def table(title, columns, rows):
    print("\n| %s | %s |\n|---|%s" % (title, " | ".join(columns), "---|" * len(columns)))
    for label, values in rows:
        print("| %s | %s |" % (label, " | ".join(values)))


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seconds", type=float, default=5, help="measured seconds a window (default 5)")
    ap.add_argument("--rounds", type=int, default=3, help="rounds alone and loaded, alternating (default 3)")
    ap.add_argument("--line", default="115200,8,EVEN,1", help="the line of the cached-read rounds")
    ap.add_argument("--proxy-line", default="19200,8,EVEN,1", help="the line beside the forwarding proxy")
    a = ap.parse_args()
    for path in (h.GATEWAY, h.SIM, LOAD):
        if not os.access(path, os.X_OK):
            sys.exit("missing %s: build rtuplc-gateway rtuplc-sim rtuplc_modbus_load in %s" % (path, BUILD))
    table("Cached reads, %s line, 16 masters" % a.line, ["Figure"], [(l, [v]) for l, v in cached(a)])
    names, rows, own = proxy(a)
    table("4 masters reading the same 100 registers, %s line" % a.proxy_line, names, rows)
    print(own)
    return 0


if __name__ == "__main__":
    sys.exit(main())
