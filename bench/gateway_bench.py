#!/usr/bin/python3
"""The gateway against rtuplc-poll on the same line, side by side in one run.

Over the unpaced TCP simulator with every value changing at every poll
(rtuplc-sim --churn), rounds alternate rtuplc-poll, gateway, rtuplc-poll, gateway...
and the medians are compared: the broker must not slow the line. Over the gateway's
rounds a subscriber of its own (bench/stamp_subscriber.c, receive time in ns) gives
the latency of each register's value from the reply that carried it (the simulator's
--reply-times, on the same clock to the nanosecond) to the subscriber, and /proc gives
the CPU time per change read and per change published, of the whole process and of its
poll loop. Two last rounds at stated lighter loads (a line pause) measure latency again
where the broker keeps up, then the resident memory with the items polled (once the
page's trends hold a whole window) and with the broker gone until the gateway holds a
full buffer.

    bench/gateway_bench.py [--seconds 10] [--rounds 3] [--items 10000]

Binaries from build-bench/ unless RTUPLC_GATEWAY, RTUPLC_SIM, RTUPLC_POLL,
RTUPLC_BARE_PUBLISHER, RTUPLC_STAMP_SUBSCRIBER say otherwise. Not part of ctest: it
takes a few minutes and both cores.
"""

import argparse
import bisect
import json
import os
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import urllib.request

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
BUILD = os.environ.get("RTUPLC_BUILD", os.path.join(ROOT, "build-bench"))
os.environ.setdefault("RTUPLC_GATEWAY", os.path.join(BUILD, "rtuplc-gateway"))
os.environ.setdefault("RTUPLC_SIM", os.path.join(BUILD, "rtuplc-sim"))
POLL = os.environ.get("RTUPLC_POLL", os.path.join(BUILD, "rtuplc-poll"))
BARE = os.environ.get("RTUPLC_BARE_PUBLISHER", os.path.join(BUILD, "bench", "rtuplc_bare_publisher"))
SUBSCRIBER = os.environ.get("RTUPLC_STAMP_SUBSCRIBER", os.path.join(BUILD, "bench", "rtuplc_stamp_subscriber"))
sys.path.insert(0, os.path.join(ROOT, "support/python"))
import loopback_line as h  # noqa: E402  (needs the environment above)

PREFIX = "rtuplc/line1"
WORD_ITEMS = 8000          # D_W registers; the rest of the items are bits of M
WARM_UP = 2.0              # s after the first values before a round is measured
HOLD_TIMEOUT = 120.0       # s for the gateway to fill its buffer with the broker gone
FULL_BUFFER = 100000       # messages held while the broker is away
TREND_WINDOW = 65.0        # s: the memory round's one-minute trend window full, and a little
TICKS = os.sysconf("SC_CLK_TCK")
CAPTURES = tempfile.mkdtemp(prefix="rtuplc-gwbench-")  # the subscriber's files; the harness removes its own
REPLY_TIMES = os.path.join(CAPTURES, "replies.txt")    # the simulator's, one line per read answered
READ_REGISTERS = "3"                                   # the function of a register read, as the simulator logs it


# The other shape of line: 22 values in 7 small blocks, far apart so that none merge.
SMALL_BLOCKS = ["D_W:0..3", "D_W:1000..1003", "D_W:2000..2002", "D_W:3000..3002", "D_W:4000..4002",
                "D_W:5000..5002", "M:0..1"]


def items_for(count, shape="big"):
    """count values: registers of D first, then bits of M, as a panel's list would be."""
    if shape == "small":
        return SMALL_BLOCKS
    words = min(count, WORD_ITEMS)
    items = ["D_W:0..%d" % (words - 1)]
    if count > words:
        items.append("M:0..%d" % (count - words - 1))
    return items


def cpu_seconds(pid, thread=None):
    """utime + stime of a process (or of one of its threads), in seconds."""
    path = "/proc/%d/stat" % pid if thread is None else "/proc/%d/task/%d/stat" % (pid, thread)
    with open(path) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / TICKS  # fields 14 and 15, after pid and comm


def rss_mb(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1]) / 1024.0
    return float("nan")


def web_stats(port, tries=5):
    """The gateway's figures from its web API; asked again when an answer comes empty
    (as one may while the gateway starts)."""
    for _ in range(tries - 1):
        try:
            with urllib.request.urlopen("http://127.0.0.1:%d/api/stats" % port, timeout=2) as r:
                return json.loads(r.read())
        except ValueError:
            time.sleep(0.05)
    with urllib.request.urlopen("http://127.0.0.1:%d/api/stats" % port, timeout=2) as r:
        return json.loads(r.read())


def poll_round(sim, items, seconds):
    """rtuplc-poll on the items for `seconds`; its polls per second."""
    # The gateway's time-outs and probing (loopback_line.base_config), for a station off.
    timing = [a for key, value in h.LINE_TIMING.items() for a in ("--" + key, str(value))]
    run = subprocess.run([POLL, "--tcp", "127.0.0.1:%d" % sim.port, "--json", "--duration", str(seconds)] + timing +
                         items,
                         stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True, timeout=seconds + 30)
    found = re.search(r"([\d.]+) polls/s", run.stderr)
    if not found:
        raise RuntimeError("rtuplc-poll said no polls/s:\n" + run.stderr[-2000:])
    return float(found.group(1))


class Capture:
    """The stamp subscriber: "receive-time topic payload" lines, in a file once it ends."""

    def __init__(self, broker, folder, name):
        self.path = os.path.join(folder, name)
        self.file = open(self.path, "w")
        self.proc = subprocess.Popen([SUBSCRIBER, "127.0.0.1", str(broker.port), "reader", h.USERS["reader"],
                                      PREFIX + "/#"], stdout=self.file, stderr=subprocess.DEVNULL)
        time.sleep(0.3)  # subscribed before the gateway starts

    def finish(self):
        h.end_process(self.proc)
        self.file.close()


def bare_round(broker, seconds, values, burst=None):
    """The broker's own ceiling: the bare publisher's acknowledged messages per second,
    with the same subscriber reading; with burst=(messages, pause ms), also the
    latency publisher -> subscriber in microseconds, as (rate, p50 ms, p99 ms)."""
    capture = Capture(broker, CAPTURES, "bare.txt")
    try:
        run = subprocess.run([BARE, "127.0.0.1", str(broker.port), "gateway", h.USERS["gateway"], PREFIX,
                              str(values), str(seconds)] + ([str(b) for b in burst] if burst else []),
                             capture_output=True, text=True, timeout=seconds + 30)
    finally:
        capture.finish()
    latencies = []
    with open(capture.path, errors="replace") as f:
        for line in f:
            at = line.find('"us":')
            if at >= 0:
                latencies.append(float(line.split(" ", 1)[0]) * 1000.0 - int(line[at + 5:].split("}")[0]) / 1000.0)
    os.remove(capture.path)
    found = re.search(r"(\d+) messages/s", run.stdout)
    if not found:
        raise RuntimeError("the bare publisher said no rate:\n" + run.stderr[-2000:])
    latencies = latencies[len(latencies) // 10:]  # past the warm-up
    return float(found.group(1)), percentile(latencies, 50), percentile(latencies, 99)


def reply_times(offset):
    """The register reads the simulator answered from `offset` in its log on: each
    block's first register, by register; and the times of each block's replies by
    (first register, its read number), in order. With the fill pattern and --churn a
    register holds its address plus the reads of its block before, so a value names
    the reply that carried it."""
    block_of, times = {}, {}
    with open(REPLY_TIMES) as f:
        f.seek(offset)
        for line in f:
            parts = line.split()
            if len(parts) != 6 or parts[2] != READ_REGISTERS:
                continue
            first, count, value = int(parts[3]), int(parts[4]), int(parts[5])
            if first not in times:
                for a in range(first, first + count):
                    block_of[a] = first
            times.setdefault((first, (value - first) & 0xFFFF), []).append(float(parts[0]))
    return block_of, times


def read_capture(path, start, end, offset):
    """The registers' value messages received in [start, end]: how many, the latency of
    each from the reply that carried it, and that of each reply's first value to arrive
    (the gateway's own share, with one message's way through the broker), in ms."""
    block_of, times = reply_times(offset)
    latencies, received_count, first = [], 0, {}
    with open(path, errors="replace") as f:
        for line in f:
            parts = line.split(" ", 2)
            if len(parts) < 3 or '"value":' not in parts[2]:
                continue
            received = float(parts[0])
            if not start <= received <= end:
                continue
            received_count += 1
            topic = parts[1].rsplit("/", 3)
            if len(topic) < 4 or topic[1] != "1" or topic[2] != "D_W":
                continue  # a bit's value does not say which read it came from; station 2 is off
            address = int(topic[3])
            at = parts[2].find('"value":') + 8
            value = int(parts[2][at:parts[2].index(",", at)])
            reply = (block_of.get(address), (value - address) & 0xFFFF)
            sent = times.get(reply)
            i = bisect.bisect_right(sent, received) - 1 if sent else -1
            if i >= 0:
                latencies.append((received - sent[i]) * 1000.0)
                first[reply + (i,)] = min(first.get(reply + (i,), latencies[-1]), latencies[-1])
    return received_count, latencies, list(first.values())


def fresh_stats(port, timeout=3.0):
    """(time, stats) as soon as the gateway renews its figures (each stats interval), so
    that two of them bound a known span; the stats topic would come late behind a backlog."""
    before = web_stats(port)
    renewed = h.wait_until(lambda: (lambda s: s if s != before else None)(web_stats(port)), timeout, step=0.005)
    return time.time(), renewed or before


def rate(first, last, key):
    (t0, a), (t1, b) = first, last
    return (b[key] - a[key]) / (t1 - t0) if t1 > t0 else float("nan")


def percentile(values, p):
    if not values:
        return float("nan")
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(p / 100.0 * len(ordered)))]


def gateway_round(broker, sim, items, seconds, pause, name, memory=False, binary=None):
    """One gateway run measured over `seconds` after warm-up; a dict of figures."""
    h.GATEWAY = binary or GATEWAYS[0][1]
    web_port = h.free_port()
    folder, config = h.base_config(broker, sim, items, qos=1, buffer=FULL_BUFFER)
    config["line"]["pause"] = pause
    config["http"] = {"listen": "127.0.0.1:%d" % web_port}
    if memory:
        # Memory is read once the page's trends hold a whole window, as they do after
        # the first minutes of a gateway in service: a one-minute window, to be quick.
        config["http"]["history"] = 1
    capture = Capture(broker, CAPTURES, name + ".txt")
    replies_from = os.path.getsize(REPLY_TIMES)
    gw = h.Gateway(folder, config)
    gw_started = time.time()
    try:
        if not h.wait_until(lambda: gw.running() and h.port_open(web_port) and
                            web_stats(web_port).get("published", 0) > 0, h.START_TIMEOUT * 3):
            raise RuntimeError("the gateway published nothing; its log:\n" + gw.log())
        time.sleep(WARM_UP)
        first = fresh_stats(web_port)
        start, cpu0, loop0 = first[0], cpu_seconds(gw.proc.pid), cpu_seconds(gw.proc.pid, gw.proc.pid)
        time.sleep(seconds - 1)
        last = fresh_stats(web_port)
        end, cpu1, loop1 = last[0], cpu_seconds(gw.proc.pid), cpu_seconds(gw.proc.pid, gw.proc.pid)
        if memory:
            time.sleep(max(0.0, gw_started + TREND_WINDOW - time.time()))
        out = {"rss_mb": rss_mb(gw.proc.pid)}
        if memory:
            broker.stop()
            full = h.wait_until(lambda: web_stats(web_port).get("held", 0) >= FULL_BUFFER, HOLD_TIMEOUT, step=0.5)
            out["held"] = web_stats(web_port).get("held", 0)
            out["rss_full_mb"] = rss_mb(gw.proc.pid) if full else float("nan")
    finally:
        gw.stop()
        gw.cleanup()
        capture.finish()
    received, latencies, firsts = read_capture(capture.path, start, end, replies_from)
    published = rate(first, last, "published")
    dropped = rate(first, last, "buffer_dropped")
    polls = rate(first, last, "polls")
    span = end - start
    out.update({"dropped_s": dropped, "polls_s": polls, "published_s": published, "received_s": received / span,
                "p50": percentile(latencies, 50), "p99": percentile(latencies, 99), "timed": len(latencies),
                "first_p50": percentile(firsts, 50), "first_p99": percentile(firsts, 99),
                "cpu_us": (cpu1 - cpu0) / span / published * 1e6 if published > 0 else float("nan"),
                # The poll loop's thread: the line, the driver, the model, the staging of messages.
                "loop_poll_us": (loop1 - loop0) / span / polls * 1e6 if polls > 0 else float("nan"),
                # The others: the broker client's connection thread (and the idle web server's).
                "client_us": ((cpu1 - cpu0) - (loop1 - loop0)) / span / published * 1e6
                if published > 0 else float("nan"),
                # Every change read costs the poll loop, published or given way to a newer reading.
                "cpu_read_us": (cpu1 - cpu0) / (end - start) / (published + dropped) * 1e6
                if published + dropped > 0 else float("nan"),
                "cpu_share": (cpu1 - cpu0) / (end - start)})
    os.remove(capture.path)
    return out


GATEWAYS = [("gateway", os.environ["RTUPLC_GATEWAY"])]


def main():
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--seconds", type=float, default=10, help="measured seconds a round (default 10)")
    ap.add_argument("--rounds", type=int, default=3, help="rounds of each, alternating (default 3)")
    ap.add_argument("--items", type=int, default=10000, help="values polled (default 10000)")
    ap.add_argument("--shape", choices=("big", "small"), default="big",
                    help="big: --items values in 125-value blocks; small: 22 values in 7 small blocks")
    ap.add_argument("--station-off", action="store_true",
                    help="a second station polled too, switched off (D_W:0..9@2): probed, never answering")
    ap.add_argument("--compare", metavar="NAME=PATH", action="append", default=[],
                    help="another rtuplc-gateway binary measured in the same rounds (e.g. an older build)")
    ap.add_argument("--moderate-pause", type=int, default=12,
                    help="line pause in ms of the moderate-load round (default 12: about 10k changes/s)")
    ap.add_argument("--light-pause", type=int, default=50,
                    help="line pause in ms of the light-load round (default 50: about 2.5k changes/s)")
    a = ap.parse_args()
    for c in a.compare:
        GATEWAYS.append(tuple(c.split("=", 1)))
    for path in [g for _, g in GATEWAYS] + [h.SIM, POLL, SUBSCRIBER, BARE]:
        if not os.access(path, os.X_OK):
            sys.exit("missing %s: build rtuplc-gateway rtuplc-sim rtuplc-poll rtuplc_bare_publisher rtuplc_stamp_subscriber in %s" % (path, BUILD))
    items = items_for(a.items, a.shape) + (["D_W:0..9@2"] if a.station_off else [])
    count = a.items if a.shape == "big" else 22
    load_before = os.getloadavg()
    seconds = int(a.seconds)
    broker = h.Broker(log_every_message=False).start()
    sim = h.Simulator(extra_args=["--churn", "--reply-times", REPLY_TIMES])
    runs = {name: [] for name, _ in GATEWAYS}
    light, moderate = {}, {}
    try:
        polls, bares = [], []
        for r in range(a.rounds):
            polls.append(poll_round(sim, items, seconds))
            print("round %d: rtuplc-poll %.1f polls/s" % (r + 1, polls[-1]), flush=True)
            bares.append(bare_round(broker, seconds, count)[0])
            print("round %d: bare publisher %.0f messages/s" % (r + 1, bares[-1]), flush=True)
            for name, binary in GATEWAYS:
                runs[name].append(gateway_round(broker, sim, items, seconds, 0, "full%d" % r, binary=binary))
                g = runs[name][-1]
                print("round %d: %s %.1f polls/s, %.0f published/s, %.0f given way/s, %.0f received/s, p50 %.2f ms, "
                      "p99 %.2f ms (%d timed), %.2f us CPU/change read, %.2f us/change published, poll loop %.2f "
                      "us/poll, the rest %.2f us/change published, %.0f%% of a core"
                      % (r + 1, name, g["polls_s"], g["published_s"], g["dropped_s"], g["received_s"], g["p50"],
                         g["p99"], g["timed"], g["cpu_read_us"], g["cpu_us"], g["loop_poll_us"], g["client_us"],
                         100 * g["cpu_share"]), flush=True)
        burst = min(count, 125)
        bare_light = bare_round(broker, seconds, count, (burst, a.light_pause * burst / 125.0))
        bare_moderate = bare_round(broker, seconds, count, (burst, a.moderate_pause * burst / 125.0))
        for name, binary in GATEWAYS:
            light[name] = gateway_round(broker, sim, items, seconds, a.light_pause, "light", binary=binary)
            # Small blocks fill the buffer in time only at full churn.
            moderate[name] = gateway_round(broker, sim, items, seconds, a.moderate_pause, "moderate",
                                           memory=a.shape == "big", binary=binary)
            if a.shape == "small":
                moderate[name].update({k: v for k, v in gateway_round(broker, sim, items, seconds, 0, "memory",
                                                                      memory=True, binary=binary).items()
                                       if k in ("rss_mb", "held", "rss_full_mb")})
            broker.start()  # the memory round stopped it
    finally:
        sim.cleanup()
        broker.cleanup()
        shutil.rmtree(CAPTURES, ignore_errors=True)

    poll_med = statistics.median(polls)
    bare_med = statistics.median(bares)
    names = [name for name, _ in GATEWAYS]

    def med(name, key):
        return statistics.median(g[key] for g in runs[name])

    def row(label, cell):
        print("| %s | %s |" % (label, " | ".join(cell(n) for n in names)))

    print()
    print("Gateway benchmark: %d items (%s), %d rounds of %d s each, rtuplc-sim --churn over TCP, QoS 1"
          % (count, " ".join(items), a.rounds, seconds))
    print("Load average (1, 5, 15 min) before: %.1f %.1f %.1f, after: %.1f %.1f %.1f"
          % (load_before + os.getloadavg()))
    print("Items: %s" % " ".join(items))
    print("rtuplc-poll, polls/s (median): %.1f; bare publisher, messages/s (median): %.0f" % (poll_med, bare_med))
    print("bare publisher in bursts of %d as at the light load: %.0f messages/s, latency p50 / p99 %.2f / %.2f ms"
          % (burst, bare_light[0], bare_light[1], bare_light[2]))
    print("bare publisher in bursts of %d as at the moderate load: %.0f messages/s, latency p50 / p99 %.2f / %.2f ms"
          % (burst, bare_moderate[0], bare_moderate[1], bare_moderate[2]))
    print("| Measure | %s |" % " | ".join(names))
    print("|---|%s" % ("---|" * len(names)))
    row("polls/s, full churn (median)", lambda n: "%.1f" % med(n, "polls_s"))
    row("ratio to rtuplc-poll (aim >= 0.9)", lambda n: "%.3f" % (med(n, "polls_s") / poll_med))
    row("published changes/s, full churn (median)", lambda n: "%.0f" % med(n, "published_s"))
    row("ratio to the bare publisher (aim >= 0.8)", lambda n: "%.3f" % (med(n, "published_s") / bare_med))
    row("readings given way to a newer one/s, full churn", lambda n: "%.0f" % med(n, "dropped_s"))
    row("received by the subscriber/s, full churn", lambda n: "%.0f" % med(n, "received_s"))
    row("latency reply -> subscriber, full churn, p50 / p99", lambda n: "%.2f / %.2f ms" % (med(n, "p50"), med(n, "p99")))
    row("CPU per change read / per change published, full churn",
        lambda n: "%.2f / %.2f us (%.0f%% of a core)" % (med(n, "cpu_read_us"), med(n, "cpu_us"), 100 * med(n, "cpu_share")))
    row("the same split: poll loop per poll / the other threads per change published",
        lambda n: "%.2f / %.2f us" % (med(n, "loop_poll_us"), med(n, "client_us")))
    row("light load (pause %d ms): published/s" % a.light_pause, lambda n: "%.0f" % light[n]["published_s"])
    row("light load: latency p50 / p99", lambda n: "%.2f / %.2f ms" % (light[n]["p50"], light[n]["p99"]))
    row("light load: a reply's first value, p50 / p99", lambda n: "%.2f / %.2f ms" % (light[n]["first_p50"], light[n]["first_p99"]))
    row("light load: CPU per published change (the other threads)",
        lambda n: "%.2f us (%.2f us)" % (light[n]["cpu_us"], light[n]["client_us"]))
    row("moderate load (pause %d ms): published/s" % a.moderate_pause, lambda n: "%.0f" % moderate[n]["published_s"])
    row("moderate load: readings given way/s", lambda n: "%.0f" % moderate[n]["dropped_s"])
    row("moderate load: latency p50 / p99", lambda n: "%.2f / %.2f ms" % (moderate[n]["p50"], moderate[n]["p99"]))
    row("moderate load: a reply's first value, p50 / p99",
        lambda n: "%.2f / %.2f ms" % (moderate[n]["first_p50"], moderate[n]["first_p99"]))
    row("moderate load: CPU per published change (the other threads)",
        lambda n: "%.2f us (%.2f us)" % (moderate[n]["cpu_us"], moderate[n]["client_us"]))
    row("resident memory, values polled, a full trend window", lambda n: "%.1f MB" % moderate[n]["rss_mb"])
    row("resident memory, broker gone, held", lambda n: "%.1f MB (%d held)" % (moderate[n]["rss_full_mb"], moderate[n]["held"]))
    print("Latency: each register value's receive time at the subscriber minus the time the simulator wrote the "
          "reply that carried it, both to the nanosecond on the system clock.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
