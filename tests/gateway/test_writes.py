"""Writes from the broker: each answered exactly once, on .../result and, for an MQTT 5
request, on its response topic; refused ones never reach the controller."""

import json
import time

import harness as h
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

P = "rtuplc/line1"
ITEMS = [
    "D_W:100..101",                                   # read only
    {"item": "D_W:500..504", "writable": True},
    {"item": "D_D:600", "writable": True},
    {"item": "M:100..103", "writable": True},
    {"item": "D_W:500..501@2", "writable": True},
    {"item": "D_W:700", "type": "int16", "scale": 0.1, "min": -20, "max": 80, "writable": True},
    {"item": "D_W:702", "type": "float32", "word-order": "low-first", "writable": True},
    {"item": "D_D:704", "type": "float32", "writable": True},
    {"item": "D_W:706..707", "type": "string", "writable": True},
    {"item": "D_W:708.3", "write": "read-modify-write"},
]
SETTLE = 0.7  # s to wait for a second answer that must not come
STATS_WAIT = 3.0  # s: the stats come every second


def payload(value, request_id=None):
    return json.dumps({"value": value, "id": request_id}) if request_id is not None else str(value)


class Writes(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(stations=(1, 2), topics=[P + "/#", "rtuplc/replies/#"], user="operator")
        # Writes are taken once the items were read.
        cls.start_class_gateway(*h.base_config(cls.broker, cls.sim, ITEMS), P + "/status", P + "/2/D_W/501")

    def write(self, topic, body, properties=None):
        """Publishes a write and returns the answers on .../result that came for it."""
        mark = self.sub.mark()
        self.sub.publish("%s/%s/set" % (P, topic), body, properties=properties)
        answer = self.sub.wait_for("%s/%s/result" % (P, topic), since=mark)
        self.assertIsNotNone(answer, "no answer to %s <- %r; the gateway's log:\n%s" % (topic, body, self.gw.log()))
        return answer.json(), mark

    def assert_one_answer_each(self, topics, mark):
        """Every write since mark, to these topics in turn, got exactly one answer."""
        time.sleep(SETTLE)
        for topic in set(topics):
            answers = self.sub.since(mark, "%s/%s/result" % (P, topic))
            self.assertEqual(len(answers), topics.count(topic), "%s: one answer per write, saw %r" % (topic, answers))
            self.assertEqual({a.qos for a in answers}, {1}, "answers go at QoS 1")

    def stats_count(self, key):
        last = self.sub.last(P + "/stats")
        return last.json()[key] if last else 0

    def assert_counted(self, key, before, rows):
        """The stats topic counts these writes, within a stats interval or two."""
        counted = self.sub.wait_for(P + "/stats", lambda m: m.json().get(key, 0) >= before + rows, STATS_WAIT)
        self.assertIsNotNone(counted, "%s should reach %d, is %s" % (key, before + rows, self.stats_count(key)))

    def test_acknowledged_writes_land_in_the_controller(self):
        # (what, topic, value written, request id, read the controller, what it then holds, value published)
        rows = [
            ("plain number", "1/D_W/500", 1234, None, lambda: self.sim.get(1, 500), 1234, 1234),
            ("JSON with an id", "1/D_W/501", 4321, "w-501", lambda: self.sim.get(1, 501), 4321, 4321),
            ("negative as two's complement", "1/D_W/502", -5, "neg", lambda: self.sim.get(1, 502), 65531, 65531),
            ("largest 16-bit", "1/D_W/504", 65535, None, lambda: self.sim.get(1, 504), 65535, 65535),
            ("32-bit over two registers", "1/D_D/600", 70000, "d",
             lambda: (self.sim.get(1, 600), self.sim.get(1, 601)), (1, 4464), 70000),
            ("negative 32-bit", "1/D_D/600", -2, None,
             lambda: (self.sim.get(1, 600), self.sim.get(1, 601)), (0xFFFF, 0xFFFE), 0xFFFFFFFE),
            ("bit on", "1/M/101", 1 - h.pattern_coil(1, 2101), "bit",
             lambda: self.sim.get_coil(1, 2101), 1 - h.pattern_coil(1, 2101), 1 - h.pattern_coil(1, 2101)),
            ("station 2", "2/D_W/500", 77, "s2", lambda: self.sim.get(2, 500), 77, 77),
        ]
        start = self.sub.mark()
        ok_before = self.stats_count("writes_ok")
        for what, topic, value, request_id, read, held, published in rows:
            with self.subTest(what):
                answer, mark = self.write(topic, payload(value, request_id))
                self.assertEqual((answer.get("ok"), answer.get("id")), (True, request_id), answer)
                self.assertIn(answer.get("value"), (value, published), answer)
                self.assertEqual(read(), held)
                m = self.sub.wait_for("%s/%s" % (P, topic), lambda m: m.json().get("value") == published, since=mark)
                self.assertIsNotNone(m, "the written value is published once read back")
        self.assert_one_answer_each([r[1] for r in rows], start)
        self.assertEqual([t for t in h.retained_state(self.broker, P) if t.endswith("/result")], [],
                         "an answer is for its moment, not retained")
        self.assert_counted("writes_ok", ok_before, len(rows))

    def test_engineering_values_land_as_the_right_words(self):
        # (what, topic, payload, first register, the words it then holds, the value answered and published)
        rows = [
            ("tenths", "1/D_W/700", "21.5", 700, [215], 21.5),
            ("negative tenths, as JSON", "1/D_W/700", payload(-5, "t"), 700, [65486], -5),
            ("tenths rounded to the nearest step", "1/D_W/700", "21.55", 700, [216], 21.6),
            ("float32, low word first", "1/D_W/702", payload(1.5, "f"), 702, [0x0000, 0x3FC0], 1.5),
            ("float32 on D_D, the controller's order", "1/D_D/704", "-3.5", 704, [0xC060, 0x0000], -3.5),
            ("a string, padded with NUL", "1/D_W/706", json.dumps({"value": "HI", "id": "s"}), 706, [0x4849, 0], "HI"),
            ("a bit cleared, the other bits kept", "1/D_W/708.3", payload(False, "b"), 708, [0xF0F0], False),
            ("the bit set again", "1/D_W/708.3", "true", 708, [0xF0F8], True),
        ]
        self.sim.set(1, 708, 0xF0F8)  # the word the bit is in, read before the bit is written
        self.assertIsNotNone(self.sub.wait_for(P + "/1/D_W/708.3", lambda m: m.json().get("raw") == 0xF0F8))
        for what, topic, body, first, words, value in rows:
            with self.subTest(what):
                answer, mark = self.write(topic, body)
                self.assertEqual((answer.get("ok"), answer.get("value")), (True, value), answer)
                self.assertEqual([self.sim.get(1, first + i) for i in range(len(words))], words)
                m = self.sub.wait_for("%s/%s" % (P, topic), lambda m: m.json().get("value") == value, since=mark)
                self.assertIsNotNone(m, "the written value is published once read back")

    def test_refused_writes_send_nothing(self):
        # (why it is refused, topic, payload, id echoed). What gateway_logic_test.cpp's
        # AWriteRequestGetsOneAnswer answers row by row (read only, not a number, empty, out
        # of range) and what the host's item and value reading refuses for rtuplc-poll too
        # (poll_cli_test.cpp: X:18, D_W:8005, a bit of 2) and what a type refuses to encode
        # (value_type_test.cpp) stay there; here the edges of the values and the paths that
        # reach the line.
        rows = [
            ("unknown area", "1/QQ/1", "1", None),
            ("station not configured", "9/D_W/500", "1", None),
            ("16-bit value too big", "1/D_W/500", "65536", None),
            ("16-bit value too negative", "1/D_W/500", payload(-32769, "neg"), "neg"),
            ("32-bit value too big", "1/D_D/600", "4294967296", None),
            ("fraction", "1/D_W/500", "1.5", None),
            ("value given as a string", "1/D_W/500", json.dumps({"value": "12", "id": "str"}), "str"),
            ("JSON without a value", "1/D_W/500", json.dumps({"id": "none"}), "none"),
            ("above the item's max", "1/D_W/700", "80.1", None),
            ("text to a float", "1/D_D/704", json.dumps({"value": "1.5", "id": "t"}), "t"),
        ]
        self.sim.set(1, 500, 500)
        before = self.sim.counters()["writes"]
        refused_before = self.stats_count("writes_refused")
        start = self.sub.mark()
        for why, topic, body, request_id in rows:
            with self.subTest(why):
                answer, mark = self.write(topic, body)
                self.assertEqual((answer.get("ok"), answer.get("id")), (False, request_id), answer)
                self.assertTrue(answer.get("error"), "a refusal says why: %r" % answer)
        self.assert_one_answer_each([r[1] for r in rows], start)
        self.assertEqual(self.sim.counters()["writes"], before, "a refused write reached the controller")
        self.assertEqual(self.sim.get(1, 500), 500)
        self.assert_counted("writes_refused", refused_before, len(rows))

    def test_failed_writes_are_answered_with_the_reason(self):
        # (what fails, break the line, mend it, topic, words of the error)
        rows = [
            ("station silent", lambda: self.sim.stations(1), lambda: self.sim.stations(1, 2), "2/D_W/501",
             "no reply"),
            ("controller refuses", lambda: self.sim.refuse(1, "registers", 503, 1, 4), lambda: self.sim.accept(1),
             "1/D_W/503", "exception"),
        ]
        failed_before = self.stats_count("writes_failed")
        for what, fault, mend, topic, words in rows:
            with self.subTest(what):
                fault()
                self.addCleanup(mend)
                started = time.monotonic()
                answer, mark = self.write(topic, payload(9, "f"))
                mend()
                self.assertEqual((answer.get("ok"), answer.get("id")), (False, "f"), answer)
                self.assertIn(words, answer.get("error", "").lower())
                self.assertLess(time.monotonic() - started, h.ANSWER_TIMEOUT)
                self.assert_one_answer_each([topic], mark)
        self.assert_counted("writes_failed", failed_before, len(rows))

    def test_two_quick_writes_to_adjacent_addresses_answered_once_each(self):
        mark = self.sub.mark()
        self.sub.publish(P + "/1/D_W/502/set", payload(11, "a"))
        self.sub.publish(P + "/1/D_W/503/set", payload(22, "b"))
        for topic, request_id in (("1/D_W/502", "a"), ("1/D_W/503", "b")):
            answer = self.sub.wait_for("%s/%s/result" % (P, topic), since=mark)
            self.assertEqual(answer and (answer.json().get("ok"), answer.json().get("id")), (True, request_id), topic)
        self.assert_one_answer_each(["1/D_W/502", "1/D_W/503"], mark)
        self.assertEqual((self.sim.get(1, 502), self.sim.get(1, 503)), (11, 22))

    def test_mqtt5_request_answered_on_its_response_topic(self):
        # A refusal's copy on the response topic is gateway_logic_test.cpp's (every row of
        # AWriteRequestGetsOneAnswer); here the properties through the real broker client.
        props = Properties(PacketTypes.PUBLISH)
        props.ResponseTopic, props.CorrelationData = "rtuplc/replies/test", b"\x00corr-1"
        mark = self.sub.mark()
        self.sub.publish(P + "/1/D_W/504/set", "31", properties=props)
        m = self.sub.wait_for(props.ResponseTopic, since=mark)
        self.assertIsNotNone(m, "no answer on the response topic")
        self.assertEqual((m.json().get("ok"), getattr(m.properties, "CorrelationData", None)),
                         (True, props.CorrelationData), m)
        time.sleep(SETTLE)
        self.assertEqual(len(self.sub.since(mark, props.ResponseTopic)), 1)


if __name__ == "__main__":
    h.main()
