"""The gateway's life: online, offline on a clean stop and by its last will, a station
never heard, the stats topic, a broker that restarts while values change, and the
service manager's readiness and watchdog."""

import json
import os
import shutil
import signal
import socket
import tempfile
import time

import harness as h

P = "rtuplc/line1"
ITEMS = ["D_W:100..103"]
STATS_KEYS = {"polls", "accepted", "retries", "failures", "dropped", "polls_per_second", "published", "held",
              "buffer_dropped", "writes_ok", "writes_failed", "writes_refused", "uptime"}
DROPPED_KEYS = {"late", "doubled", "foreign", "malformed"}
# One block, a 2 ms pause, answers in well under a millisecond: hundreds a second; a
# line that waits for its time-out manages ten.
MIN_POLLS_PER_SECOND = 50
CHANGE_GAP = 0.4   # s between changes, so that every one is polled
SMALL_BUFFER = 5   # messages held while the broker is away
QUIET = 1.0        # s to watch for messages that should not come
BROKER_LATE = 0.5  # s a gateway polls before its broker is there
WATCHDOG_USEC = 1000000
PROMPT = 1.0       # s from start to online and the first values, all on loopback


class Lifecycle(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        # A broker as installed and left alone: 20 messages in flight to a client (the
        # others' brokers allow more), the window the gateway must never wait on for ever.
        cls.broker = cls.keep(h.Broker(max_inflight=None).start())
        cls.sim = cls.keep(h.Simulator(stations=(1,)))

    def setUp(self):
        self.sub = self.own(h.Subscriber(self.broker, P + "/#", skip_retained=True))

    def config(self, items=ITEMS, **mqtt_keys):
        return h.base_config(self.broker, self.sim, items, **mqtt_keys)

    def test_online_promptly_and_each_value_published_once_at_start(self):
        # (when the broker is there, seconds the gateway polls without it)
        rows = [("broker up before the gateway", 0), ("broker up after the first reads", BROKER_LATE)]
        # Enough values to fill a broker client's window of messages in flight.
        items = ITEMS + ["X:0..77", "M:0..63"]
        topics = [P + "/1/" + t for t in ("D_W/100", "D_W/101", "D_W/102", "D_W/103", "X/0", "X/77", "M/0", "M/63")]
        for n, (what, late) in enumerate(rows):
            with self.subTest(what):
                # A session that outlives the broker's restart, so nothing is missed meanwhile.
                sub = self.own(h.Subscriber(self.broker, P + "/#", client_id="once-%d" % n, persistent=True,
                                            skip_retained=True))
                mark = sub.mark()
                if late:
                    self.broker.stop()
                started = time.monotonic()
                gw = self.own(h.Gateway(*self.config(items=items)))
                if late:
                    time.sleep(late)
                    self.broker.start()
                online = sub.wait_for(P + "/status", lambda m: m.payload == "online", h.START_TIMEOUT, since=mark)
                time.sleep(QUIET)
                running = sub.since(mark)  # what came before the stop's farewell
                # The next row needs the broker to itself: one gateway of this name at a time.
                self.assertEqual(gw.stop(), 0)
                self.assertIsNotNone(online, gw.log())
                self.assertEqual({t: len([m for m in running if m.topic == t]) for t in topics},
                                 {t: 1 for t in topics}, "published when first read, then only on a change")
                # A station is offline until its first successful read.
                statuses = {t: [m.payload for m in running if m.topic == P + t] for t in ("/status", "/1/status")}
                self.assertEqual(statuses, {"/status": ["online"], "/1/status": ["offline", "online"]})
                if not late:  # online once connected, and the first values as first read: all on loopback
                    first = {t: next(m.time for m in running if m.topic == t) - started
                             for t in [P + "/status"] + topics}
                    self.assertEqual({t: s for t, s in first.items() if s >= PROMPT}, {}, "later than %s s" % PROMPT)

    def test_offline_retained_after_a_stop_and_by_the_will_after_kill_9(self):
        # (signal, exit code): a clean stop exits 0; after a kill -9 the broker publishes the will
        for sig, code in ((signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGKILL, -signal.SIGKILL)):
            with self.subTest(signal=sig.name):
                gw = self.start_gateway(*self.config(), sub=self.sub)
                mark = self.sub.mark()
                gw.proc.send_signal(sig)
                self.assertEqual(gw.wait_exit(), code, gw.log())
                self.assertIsNotNone(self.sub.wait_for(P + "/status", lambda m: m.payload == "offline", since=mark))
                self.assertEqual(h.retained_state(self.broker, P).get(P + "/status"), "offline")

    def test_an_item_never_read_is_bad_with_null_and_its_station_never_online(self):
        # (simulator's fault, else the class's simulator; an item added at a station that never
        #  answers; the item's topic; what its error says; the station's status ever after)
        rows = [
            (None, "D_W:10..11@3", "3/D_W/10", r"no reply", "offline"),
            # No usable reply, as if silent, but the error tells a garbled line from a dead one.
            (["--corrupt", "1"], None, "1/D_W/100", r"check|bytes came", "offline"),
            (["--exception", "1"], None, "1/D_W/100", r"exception.*busy", None),  # answers, so never called silent
        ]
        for fault, silent_item, topic, words, status in rows:
            with self.subTest(fault=fault or silent_item):
                sim = self.own(h.Simulator(extra_args=fault)) if fault else self.sim
                sub = self.own(h.Subscriber(self.broker, P + "/#", skip_retained=True))
                gw = self.own(h.Gateway(*h.base_config(self.broker, sim, ITEMS + [silent_item] * bool(silent_item))))
                bad = sub.wait_for(P + "/" + topic, lambda m: m.json().get("quality") == "bad")
                self.assertIsNotNone(bad, gw.log())
                self.assertRegex(bad.json().get("error", "").lower(), words)
                self.assertIsNone(bad.json().get("value"), "never read: null")
                if silent_item:
                    self.assertIsNotNone(sub.wait_for(P + "/1/D_W/100", lambda m: m.json().get("quality") == "good"),
                                         "a silent station does not stop the others")
                time.sleep(QUIET)
                statuses = [m.payload for m in sub.since(0, "%s/%s/status" % (P, topic.split("/")[0]))]
                self.assertNotIn("online", statuses, "never read, never online")
                if status:
                    self.assertEqual(statuses[-1:], [status])
                gw.stop()

    def test_stats_published_every_interval(self):
        self.start_gateway(*self.config(), sub=self.sub)
        first = self.sub.wait_for(P + "/stats", timeout=h.ANSWER_TIMEOUT)
        self.assertIsNotNone(first)
        later = self.sub.wait_for(P + "/stats", lambda m: m is not first, timeout=h.ANSWER_TIMEOUT,
                                  since=self.sub.messages.index(first) + 1)
        self.assertIsNotNone(later, "stats come every stats-interval")
        a, b = first.json(), later.json()
        self.assertLessEqual(STATS_KEYS, set(b), "missing: %s" % (STATS_KEYS - set(b)))
        self.assertLessEqual(DROPPED_KEYS, set(b["dropped"]))
        self.assertGreater(b["polls"], a["polls"])
        self.assertGreater(b["uptime"], a["uptime"])
        # A fault-free simulator on loopback: nothing retried, nothing dropped, and
        # the line at the pace of its pause, not of its time-out.
        self.assertEqual((b["failures"], b["retries"]), (0, 0), b)
        self.assertEqual(b["dropped"], {k: 0 for k in DROPPED_KEYS}, b)
        self.assertGreater(b["polls_per_second"], MIN_POLLS_PER_SECOND, b)
        self.assertIn(P + "/stats", h.retained_state(self.broker, P), "stats are retained")

    def test_a_broker_outage_loses_no_change_and_a_full_buffer_still_leaves_the_current_state(self):
        # (buffer size, rounds of changes {address: value} made while the broker is away)
        rows = [
            (None, [{100: 1}, {100: 2}, {100: 3}, {101: 7}]),
            # More changes than the buffer holds; the last of each must still arrive.
            (SMALL_BUFFER, [{a: 1000 * r + a for a in range(100, 104)} for r in (1, 2, 3)]),
        ]
        reset = lambda: [self.sim.set(1, a, a) for a in range(100, 104)]
        self.addCleanup(reset)
        for n, (buffer, rounds) in enumerate(rows):
            with self.subTest(buffer=buffer):
                reset()
                held = self.own(h.Subscriber(self.broker, P + "/#", client_id="held-%d" % n, persistent=True,
                                             skip_retained=True))
                gw = self.start_gateway(*self.config(**({"buffer": buffer} if buffer else {})), sub=self.sub)
                self.assertIsNotNone(held.wait_for(P + "/1/D_W/103", lambda m: m.json().get("value") == 103))
                mark = held.mark()
                self.broker.stop()
                for changes in rounds:
                    for address, value in changes.items():
                        self.sim.set(1, address, value)
                    time.sleep(CHANGE_GAP)
                self.broker.start()
                for address in sorted({a for changes in rounds for a in changes}):
                    topic, made = "%s/1/D_W/%d" % (P, address), [c[address] for c in rounds if address in c]
                    last = held.wait_for(topic, lambda m: m.json().get("value") == made[-1], h.START_TIMEOUT,
                                         since=mark)
                    self.assertIsNotNone(last, "%s: the held changes never came; log:\n%s" % (topic, gw.log()))
                    seen = [m.json().get("value") for m in held.since(mark, topic)]
                    # A value sent again (the one before the changes, or on reconnecting) is no
                    # loss; a missing, reordered or stale one is.
                    distinct = [v for i, v in enumerate(seen) if i == 0 or v != seen[i - 1]]
                    if not buffer:
                        self.assertEqual(distinct[1:] if distinct[:1] == [address] else distinct, made, "in order")
                # The gateway says it is back before the held changes: its will's "offline" must
                # not stand while they arrive. (The broker may first hand the subscriber again
                # what it had not yet acknowledged when the broker stopped: no held change.)
                made_values = {"%s/1/D_W/%d" % (P, a): {c[a] for c in rounds if a in c} for c in rounds for a in c}
                after = [(m.topic, m.payload) for m in held.since(mark)
                         if m.topic == P + "/status" or "/D_W/" in m.topic]
                online = after.index((P + "/status", "online")) if (P + "/status", "online") in after else len(after)
                first_held = next(i for i, (t, p) in enumerate(after)
                                  if t in made_values and json.loads(p).get("value") in made_values[t])
                self.assertLess(online, first_held, "online first, then what was held: %s" % after)
                if buffer:
                    stats = self.sub.wait_for(P + "/stats", lambda m: m.json().get("buffer_dropped", 0) > 0,
                                              h.START_TIMEOUT)
                    self.assertIsNotNone(stats, "the stats count what the full buffer dropped; log:\n" + gw.log())
                time.sleep(h.ANSWER_TIMEOUT / 5)
                current = dict({"status": "online", "1/status": "online"},
                               **{"1/D_W/%d" % a: self.sim.get(1, a) for a in range(100, 104)})
                self.assertEqual(h.retained_values(self.broker, P, current), current)
                gw.stop()

    def test_ready_and_watchdog_on_the_notify_socket(self):
        folder = tempfile.mkdtemp(prefix="rtuplc-notify-")
        self.addCleanup(shutil.rmtree, folder, True)
        # (kind of socket, address to bind, NOTIFY_SOCKET)
        rows = [
            ("path", os.path.join(folder, "notify"), os.path.join(folder, "notify")),
            ("abstract", "\0rtuplc-test-%d" % os.getpid(), "@rtuplc-test-%d" % os.getpid()),
        ]
        for kind, address, env in rows:
            with self.subTest(kind):
                sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
                self.addCleanup(sock.close)
                sock.bind(address)
                sock.settimeout(0.2)
                # No broker: readiness is about the line, not the broker.
                folder2, config = h.base_config(None, self.sim, ITEMS)
                gw = self.own(h.Gateway(folder2, config,
                                        env={"NOTIFY_SOCKET": env, "WATCHDOG_USEC": str(WATCHDOG_USEC)}))
                messages = []
                deadline = time.monotonic() + 3 * WATCHDOG_USEC / 1e6
                while time.monotonic() < deadline:
                    try:
                        messages += sock.recv(4096).decode().split("\n")
                    except socket.timeout:
                        pass
                gw.stop()
                self.assertIn("READY=1", messages, "%r; log:\n%s" % (messages, gw.log()))
                self.assertTrue(any(m.startswith("STATUS=") for m in messages), messages)
                self.assertGreaterEqual(messages.count("WATCHDOG=1"), 3, "a ping at least every half interval")


if __name__ == "__main__":
    h.main()
