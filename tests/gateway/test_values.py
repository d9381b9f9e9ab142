"""Values on the broker: every item with the controller's value, changes as they
happen, typed values as the plant means them, a deadband and a heartbeat, and the
quality and station status through a silent station and a block the controller
refuses; and the CSV log, a row for every value and quality published."""

import json
import math
import re
import struct
import time

import harness as h
import test_csv as csvlog

P = "rtuplc/line1"
ITEMS = ["D_W:100..109", "D_D:200..203", "32C:200..201", "X:0..17", "M:0..15@2", "D_W:300..304@2",
         {"item": "D_W:400", "type": "int16"},
         {"item": "D_W:402", "type": "uint32"},
         {"item": "D_W:404", "type": "int32", "word-order": "low-first"},
         {"item": "D_W:406", "type": "float32"},
         {"item": "D_D:408", "type": "float32", "word-order": "low-first"},
         {"item": "D_W:412", "type": "int16", "scale": 0.1, "offset": -10, "decimals": 1, "unit": "°C"},
         "D_W:413.3",
         {"item": "D_W:414..416", "type": "string"},
         {"item": "D_W:420", "deadband": 5},
         {"item": "D_W:421", "publish-every": "1s"}]
HEARTBEAT = 1.0  # s, D_W:421's publish-every
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
    ("1/D_W/412", 31.2),                             # 412 tenths less 10
    ("1/D_W/413.3", bool(413 & 8)),                  # bit 3 of a register
]


def f32(bits):
    return struct.unpack(">f", struct.pack(">I", bits))[0]


def same(a, b):
    """Equal, a float as a float32 carries it."""
    return math.isclose(a, b, rel_tol=1e-7) if isinstance(a, float) and isinstance(b, float) else a == b


def text(value):
    """A published value as the CSV log writes it."""
    return "" if value is None else json.dumps(value) if isinstance(value, bool) else str(value)


class Values(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(stations=(1, 2))
        folder, config, cls.csv_dir = csvlog.csv_config(cls.broker, cls.sim, ITEMS)
        cls.start_class_gateway(folder, config, P + "/status", *(P + "/" + t for t, _ in EXPECTED))
        # Whatever start-up sends besides the first values (test_lifecycle judges it)
        # is over before a test counts messages.
        time.sleep(STARTUP_SETTLE)

    def good(self, topic, value, since=0):
        return self.sub.wait_for(P + "/" + topic, lambda m: (m.json().get("quality"), m.json().get("value")) ==
                                 ("good", value), h.ANSWER_TIMEOUT, since)

    def test_every_item_published_with_the_controllers_value(self):
        for topic, value in EXPECTED:
            with self.subTest(topic=topic):
                m = self.good(topic, value)
                self.assertIsNotNone(m, "expected %d, saw %r" % (value, self.sub.last(P + "/" + topic)))
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
                before, mark, changed = h.value_of(self.sub.last(P + "/" + topic)), self.sub.mark(), time.monotonic()
                put(station, address, set_to)
                try:
                    m = self.good(topic, value, mark)
                    seen = self.sub.since(mark, P + "/" + topic)
                    self.assertIsNotNone(m, "saw %r" % seen)
                    self.assertLess(m.time - changed, PROMPT, "a change reaches the broker within a few polls")
                    self.assertEqual(len(seen), 1, "one message per change: %r" % seen)
                finally:
                    back = self.sub.mark()
                    put(station, address, pattern[command](station, address))
                    self.assertIsNotNone(self.good(topic, before, back), "the value put back arrives too")

    def test_a_fault_turns_only_its_items_bad_and_a_fresh_read_good_again(self):
        # (what fails, break the line, mend it, the items turned bad, words of their error,
        #  each station's status while it lasts, items that hear nothing of it)
        rows = [
            ("silent station", lambda: self.sim.stations(1), lambda: self.sim.stations(1, 2),
             ["2/M/0", "2/M/15", "2/D_W/300"], ["no reply"], {"1": [], "2": ["offline"]}, ["1/D_W/100", "1/X/17"]),
            # A station that answers, even with an exception, stays online.
            ("refused block", lambda: self.sim.refuse(1, "registers", 100, 10, 2), lambda: self.sim.accept(1),
             ["1/D_W/100", "1/D_W/105", "1/D_W/109"], ["exception", "illegal data address"], {"1": [], "2": []},
             ["1/D_D/200", "1/X/0", "2/D_W/300"]),
        ]
        for what, fault, mend, bad, words, statuses, alone in rows:
            with self.subTest(what):
                last = {t: h.value_of(self.sub.last(P + "/" + t)) for t in bad}
                self.addCleanup(mend)
                mark = self.sub.mark()
                fault()
                for topic in bad:
                    m = self.sub.wait_for(P + "/" + topic, lambda m: m.json().get("quality") == "bad", since=mark)
                    self.assertIsNotNone(m, topic)
                    error = m.json().get("error", "").lower()
                    self.assertEqual([w for w in words if w not in error], [], "%s: %s" % (topic, error))
                    self.assertEqual(m.json().get("value"), last[topic], "a bad value keeps its last value")
                for station, payloads in statuses.items():
                    for payload in payloads:
                        self.assertIsNotNone(self.sub.wait_for(P + "/%s/status" % station,
                                                               lambda m: m.payload == payload, since=mark))
                time.sleep(QUIET)
                for topic in bad:
                    bads = [m for m in self.sub.since(mark, P + "/" + topic) if m.json().get("quality") == "bad"]
                    self.assertEqual(len(bads), 1, "%s: bad once, not at every failed poll" % topic)
                self.assertEqual({s: [m.payload for m in self.sub.since(mark, P + "/%s/status" % s)] for s in statuses},
                                 statuses)
                for topic in alone:
                    self.assertEqual(self.sub.since(mark, P + "/" + topic), [], "%s is outside the fault" % topic)

                again = self.sub.mark()
                mend()
                for topic in bad:
                    # Unchanged, yet published again: good needs a fresh read.
                    self.assertIsNotNone(self.good(topic, last[topic], again), topic)
                for station in (s for s, payloads in statuses.items() if payloads):
                    self.assertIsNotNone(self.sub.wait_for(P + "/%s/status" % station, lambda m: m.payload == "online",
                                                           since=again), "station %s back online" % station)
        # The CSV log holds a row for every value message published, bad ones too, and none twice.
        time.sleep(QUIET)
        published = {(m.json()["ts"], m.topic[len(P) + 1:], text(m.json()["value"]), m.json()["quality"])
                     for m in self.sub.since() if m.topic.count("/") == 4}
        header, rows = csvlog.read_rows(csvlog.today_file(self.csv_dir))
        logged = {(t, "%s/%s/%s" % (station, item, address), value, quality)
                  for t, station, item, address, value, raw, quality in rows}
        self.assertEqual((header, len(logged)), (csvlog.HEADER, len(rows)), "a header, then no row twice")
        self.assertEqual(logged, published)
        self.assertEqual({q for _, _, _, q in logged}, {"good", "bad"})

    def test_typed_values_as_the_plant_means_them(self):
        # Each type's extremes in each order are value_type_test.cpp's; here what the gateway
        # adds: the item's keys reach the type, raw beside a value, JSON floats, no number bad.
        # (what, registers set from the first: {address: [words]}, topic, value, raw, words of an error)
        rows = [
            ("int16 -5", {400: [0xFFFB]}, "1/D_W/400", -5, 65531, None),
            ("uint32 highest, raw the same", {402: [0xFFFF, 0xFFFF]}, "1/D_W/402", 4294967295, None, None),
            ("int32 lowest, low word first", {404: [0x0000, 0x8000]}, "1/D_W/404", -2147483648, 32768, None),
            ("float32", {406: [0x41AC, 0x0000]}, "1/D_W/406", 21.5, 0x41AC0000, None),
            ("float32 -0 is 0", {406: [0x8000, 0x0000]}, "1/D_W/406", 0, 0x80000000, None),
            ("float32 largest", {406: [0x7F7F, 0xFFFF]}, "1/D_W/406", f32(0x7F7FFFFF), 0x7F7FFFFF, None),
            ("float32 NaN: no number, bad", {406: [0x7FC0, 0x0000]}, "1/D_W/406", None, 0x7FC00000, "NaN"),
            ("float32 on D_D, low word first", {408: [0x0000, 0x41AC]}, "1/D_D/408", 21.5, 0x41AC, None),
            ("tenths less 10", {412: [315]}, "1/D_W/412", 21.5, 315, None),
            ("bit 3 clear, the others set", {413: [0xFFF7]}, "1/D_W/413.3", False, 65527, None),
            ("a string ends at its NUL", {414: [0x4142, 0x4300, 0x5859]}, "1/D_W/414", "ABC",
             [0x4142, 0x4300, 0x5859], None),
        ]
        for what, registers, topic, value, raw, error in rows:
            with self.subTest(what):
                mark = self.sub.mark()
                for first, words in registers.items():
                    self.sim.command("set 1 %d %s" % (first, " ".join(str(w) for w in words)))
                m = self.sub.wait_for(P + "/" + topic, lambda m: same(m.json().get("raw", m.json()["value"]),
                                                                     value if raw is None else raw), since=mark)
                self.assertIsNotNone(m, "saw %r" % self.sub.last(P + "/" + topic))
                got = m.json()
                self.assertTrue(same(got["value"], value), got)
                self.assertEqual(("raw" in got, got["quality"]), (raw is not None, "bad" if error else "good"), got)
                self.assertIn(error or "", got.get("error", ""))

    def test_a_deadband_holds_back_small_changes_and_a_heartbeat_repeats_a_value(self):
        self.sim.set(1, 420, 100)
        self.assertIsNotNone(self.good("1/D_W/420", 100))
        # (set to, published: within 5 of what was last published is not)
        for set_to, published in ((104, False), (96, False), (105, True), (101, False), (100, True)):
            with self.subTest(set_to=set_to):
                mark = self.sub.mark()
                self.sim.set(1, 420, set_to)
                if published:
                    self.assertIsNotNone(self.good("1/D_W/420", set_to, mark))
                else:
                    time.sleep(QUIET)
                    self.assertEqual(self.sub.since(mark, P + "/1/D_W/420"), [])
        mark = self.sub.mark()
        time.sleep(2.5 * HEARTBEAT)
        beats = [m.json() for m in self.sub.since(mark, P + "/1/D_W/421")]
        self.assertIn(len(beats), (2, 3), "one a second: %r" % beats)
        self.assertEqual({(b["value"], b["ts"], b["quality"]) for b in beats},
                         {(h.pattern_register(1, 421), beats[0]["ts"], "good")}, "the same value, its read's time")


if __name__ == "__main__":
    h.main()
