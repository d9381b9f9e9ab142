"""Values on the broker: every item with the controller's value, changes as they
happen, and the quality and station status through a silent station and a block the
controller refuses."""

import re
import time

import harness as h

P = "rtuplc/line1"
ITEMS = ["D_W:100..109", "D_D:200..203", "32C:200..201", "X:0..17", "M:0..15@2", "D_W:300..304@2"]
TIMESTAMP = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
QUIET = 1.0  # s to watch for messages that should not come
PROMPT = 1.0  # s for a change to arrive: polls take milliseconds on loopback
STARTUP_SETTLE = 0.5  # s


def x_coil(octal_text):
    return 1200 + int(octal_text, 8)


# Topic and the value the simulator's pattern fill gives it, one row per kind of area.
EXPECTED = [
    ("1/D_W/100", h.pattern_register(1, 100)),
    ("1/D_W/109", h.pattern_register(1, 109)),
    ("1/D_D/200", h.pattern_reg32(1, 200)),          # high register first
    ("1/D_D/202", h.pattern_reg32(1, 202)),          # the second value of the range
    ("1/32C/200", h.pattern_reg32(1, 9700)),
    ("1/32C/201", h.pattern_reg32(1, 9702)),         # two registers per counter
    ("1/X/0", h.pattern_coil(1, x_coil("0"))),
    ("1/X/7", h.pattern_coil(1, x_coil("7"))),
    ("1/X/17", h.pattern_coil(1, x_coil("17"))),     # octal in the topic too
    ("2/M/0", h.pattern_coil(2, 2000)),
    ("2/M/15", h.pattern_coil(2, 2015)),
    ("2/D_W/300", h.pattern_register(2, 300)),       # another station's memory
]


class Values(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(stations=(1, 2))
        cls.start_class_gateway(*h.base_config(cls.broker, cls.sim, ITEMS), P + "/status",
                                *(P + "/" + t for t, _ in EXPECTED))
        # Whatever start-up sends besides the first values (test_lifecycle judges it)
        # is over before a test counts messages.
        time.sleep(STARTUP_SETTLE)

    def good(self, topic, value, since=0, timeout=h.ANSWER_TIMEOUT):
        def match(m):
            j = m.json()
            return j.get("quality") == "good" and j.get("value") == value
        return self.sub.wait_for(P + "/" + topic, match, timeout, since)

    def quality(self, topic, quality, since, timeout=h.ANSWER_TIMEOUT):
        return self.sub.wait_for(P + "/" + topic, lambda m: m.json().get("quality") == quality, timeout, since)

    def test_every_item_published_with_the_controllers_value(self):
        for topic, value in EXPECTED:
            with self.subTest(topic=topic):
                m = self.good(topic, value)
                seen = self.sub.last(P + "/" + topic)
                self.assertIsNotNone(m, "expected %d, saw %r" % (value, seen))
                self.assertRegex(m.json().get("ts", ""), TIMESTAMP)
        retained = dict(EXPECTED, **dict.fromkeys(("status", "1/status", "2/status"), "online"))
        self.assertEqual(h.retained_values(self.broker, P, retained), retained)

    def test_a_change_in_the_controller_arrives(self):
        # (what changes, simulator command, station, address, value set, topic, value seen)
        rows = [
            ("16-bit register", "set", 1, 105, 4321, "1/D_W/105", 4321),
            ("32-bit value with the top bit set stays unsigned", "set32", 1, 200, 0xFFFFFFFB, "1/D_D/200", 4294967291),
            ("low half of a 32-bit value alone", "set", 1, 203, 7, "1/D_D/202", 202 << 16 | 7),
            ("32-bit counter", "set32", 1, 9702, 70000, "1/32C/201", 70000),
            ("input bit, octal address", "coil", 1, x_coil("17"), 1 - h.pattern_coil(1, x_coil("17")), "1/X/17",
             1 - h.pattern_coil(1, x_coil("17"))),
            ("bit of station 2", "coil", 2, 2003, 1 - h.pattern_coil(2, 2003), "2/M/3", 1 - h.pattern_coil(2, 2003)),
        ]
        pattern = {"set": h.pattern_register, "set32": h.pattern_reg32, "coil": h.pattern_coil}
        for name, command, station, address, set_to, topic, value in rows:
            put = getattr(self.sim, command)
            with self.subTest(name):
                before = h.value_of(self.sub.last(P + "/" + topic))
                mark = self.sub.mark()
                changed = time.monotonic()
                put(station, address, set_to)
                try:
                    m = self.good(topic, value, mark)
                    self.assertIsNotNone(m, "saw %r" % self.sub.since(mark, P + "/" + topic))
                    self.assertLess(m.time - changed, PROMPT, "a change reaches the broker within a few polls")
                    self.assertEqual(len(self.sub.since(mark, P + "/" + topic)), 1, "one message per change: %r" % self.sub.since(mark, P + "/" + topic))
                finally:
                    back = self.sub.mark()
                    put(station, address, pattern[command](station, address))
                    self.assertIsNotNone(self.good(topic, before, back), "the value put back arrives too")

    def test_silent_station_goes_bad_then_offline_and_comes_back(self):
        station2 = ["2/M/0", "2/M/15", "2/D_W/300"]
        last = {t: h.value_of(self.sub.last(P + "/" + t)) for t in station2}
        self.addCleanup(self.sim.stations, 1, 2)
        mark = self.sub.mark()
        self.sim.stations(1)

        offline = self.sub.wait_for(P + "/2/status", lambda m: m.payload == "offline", h.ANSWER_TIMEOUT, mark)
        self.assertIsNotNone(offline, "station 2 never went offline")
        for topic in station2:
            with self.subTest(bad=topic):
                bad = self.quality(topic, "bad", mark)
                self.assertIsNotNone(bad)
                j = bad.json()
                self.assertIn("no reply", j.get("error", ""))
                self.assertEqual(j.get("value"), last[topic], "a bad value keeps its last value")

        time.sleep(QUIET)
        silent = self.sub.mark()
        for topic in station2:
            bads = [m for m in self.sub.since(mark, P + "/" + topic) if m.json().get("quality") == "bad"]
            self.assertEqual(len(bads), 1, "%s: bad once, not at every failed poll" % topic)
        self.assertNotIn("online", [m.payload for m in self.sub.since(mark, P + "/2/status")],
                         "station 2 said online while silent")
        for topic in ("1/D_W/100", "1/X/17"):
            self.assertEqual([m for m in self.sub.since(mark, P + "/" + topic) if m.json().get("quality") != "good"],
                             [], "station 1 answers all along, so its items stay good")
        self.assertNotIn("offline", [m.payload for m in self.sub.since(mark, P + "/1/status")])

        self.sim.stations(1, 2)
        online = self.sub.wait_for(P + "/2/status", lambda m: m.payload == "online", h.ANSWER_TIMEOUT, silent)
        self.assertIsNotNone(online, "station 2 never came back online")
        for topic in station2:
            with self.subTest(good=topic):
                # Unchanged, yet published again: good needs a fresh read.
                self.assertIsNotNone(self.good(topic, last[topic], silent))

    def test_refused_block_turns_only_its_items_bad(self):
        block = ["1/D_W/100", "1/D_W/105", "1/D_W/109"]
        self.addCleanup(self.sim.accept, 1)
        mark = self.sub.mark()
        self.sim.refuse(1, "registers", 100, 10, 2)  # illegal data address
        for topic in block:
            with self.subTest(bad=topic):
                bad = self.quality(topic, "bad", mark)
                self.assertIsNotNone(bad)
                error = bad.json().get("error", "").lower()
                self.assertIn("exception", error)
                self.assertIn("illegal data address", error, "the exception by its name")
                self.assertEqual(bad.json().get("value"), h.pattern_register(1, int(topic.rsplit("/", 1)[1])))
        time.sleep(QUIET)
        self.assertEqual([m.payload for m in self.sub.since(mark, P + "/1/status")], [],
                         "a station that answers, even with an exception, stays online")
        for topic in ("1/D_D/200", "1/X/0", "2/D_W/300"):
            self.assertEqual([m for m in self.sub.since(mark, P + "/" + topic)], [],
                             "%s is outside the refused block" % topic)

        again = self.sub.mark()
        self.sim.accept(1)
        for topic in block:
            with self.subTest(good=topic):
                self.assertIsNotNone(self.good(topic, h.pattern_register(1, int(topic.rsplit("/", 1)[1])), again))


if __name__ == "__main__":
    h.main()
