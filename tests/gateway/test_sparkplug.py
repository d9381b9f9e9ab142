"""Sparkplug B, read by a decoder of its own: the payload's .proto compiled by protoc
for Python at test time, so that what the gateway encodes is checked by other code.
Births declare every value, data follows by alias, a host's rebirth request is served,
commands write only what may be written, and a station back from a silence dies alone
and is born with values read since, never older ones."""

import importlib
import os
import subprocess
import sys
import tempfile
import time

import harness as h

GROUP = "plant1"
NODE = "line1"
NS = "spBv1.0/%s/" % GROUP
PROTO = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "gateway", "sparkplug_b.proto")
# Datatypes as the payload numbers them.
INT32, UINT16, UINT32, UINT64, BOOLEAN = 3, 6, 7, 8, 11
GOOD, BAD = 192, 0
SEQ_MODULO = 256
QUIET = 1.0  # s to watch for messages that should not come
PAUSE_MS = 1  # between exchanges, in the test of thousands of messages

ITEMS = [
    "D_W:100..103",
    "X:0..7",
    "D_D:200..202",
    {"item": "D_W:500..501", "writable": True},
    {"item": "M:0..1@2", "writable": True},
    "D_W:300..301@2",
]


def load_payload_module():
    """The Payload class, generated now from the gateway's .proto."""
    folder = tempfile.mkdtemp(prefix="rtuplc-spb-")
    subprocess.run(["protoc", "--python_out=" + folder, "-I" + os.path.dirname(PROTO), PROTO], check=True,
                   timeout=h.START_TIMEOUT)
    sys.path.insert(0, folder)
    return importlib.import_module("sparkplug_b_pb2").Payload


Payload = load_payload_module()


def decode(message):
    return Payload.FromString(message.raw)


def encode_command(metrics):
    """A command payload; metrics: (name or None, alias or None, field, value)."""
    p = Payload()
    p.timestamp = int(time.time() * 1000)
    for name, alias, field, value in metrics:
        m = p.metrics.add()
        if name is not None:
            m.name = name
        if alias is not None:
            m.alias = alias
        setattr(m, field, value)
    return p.SerializeToString()


def metric_value(m):
    field = m.WhichOneof("value")
    return None if field is None else getattr(m, field)


def bdseq_of(payload):
    return {m.name: m for m in payload.metrics}["bdSeq"].long_value


def quality_of(m):
    """The Quality property of a metric, or None when it has none."""
    for key, value in zip(m.properties.keys, m.properties.values):
        if key == "Quality":
            return value.int_value
    return None


def sparkplug_config(broker, sim, items=ITEMS, **sparkplug_keys):
    folder, config = h.base_config(broker, sim, items, mode="sparkplug")
    config["sparkplug"] = dict({"group": GROUP, "node": NODE}, **sparkplug_keys)
    config["stations"] = {2: {"name": "press"}}
    return folder, config


class SparkplugTestCase(h.GatewayTestCase):
    def wait_topic(self, sub, kind, device=None, predicate=lambda p: True, since=0, timeout=h.ANSWER_TIMEOUT):
        """The first message of kind (NBIRTH, DDATA, ...) from since on whose decoded
        payload satisfies predicate, decoded; None when none came."""
        topic = NS + kind + "/" + NODE + ("/" + device if device else "")
        m = sub.wait_for(topic, lambda m: predicate(decode(m)), timeout, since)
        return None if m is None else decode(m)

    def own_line(self, stations=(1,)):
        """For this test: self.broker, self.sim and self.sub, who may send a host's messages."""
        self.broker = self.own(h.Broker().start())
        self.sim = self.own(h.Simulator(stations=stations))
        self.sub = self.own(h.Subscriber(self.broker, "spBv1.0/#", user="operator"))

    def start_node(self, folder, config, sub, env=None):
        mark = sub.mark()
        gw = self.own(h.Gateway(folder, config, env=env))
        birth = self.wait_topic(sub, "NBIRTH", since=mark, timeout=h.START_TIMEOUT)
        self.assertIsNotNone(birth, "no NBIRTH; the gateway's log:\n" + gw.log())
        return gw, birth, mark

    def death_after(self, end):
        """The death certificate self.sub receives once end() ended the node, undecoded."""
        mark = self.sub.mark()
        end()
        death = self.sub.wait_for(NS + "NDEATH/" + NODE, since=mark, timeout=h.START_TIMEOUT)
        self.assertIsNotNone(death, "the broker sent no death certificate")
        return death


class Sparkplug(SparkplugTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(stations=(1, 2), topics="spBv1.0/#", user="operator")
        cls.start_class_gateway(*sparkplug_config(cls.broker, cls.sim), *(NS + "DBIRTH/%s/%s" % (NODE, device)
                                                                          for device in ("station1", "press")))

    def birth_metrics(self, device, since=0):
        birth = self.wait_topic(self.sub, "DBIRTH", device, since=since)
        self.assertIsNotNone(birth, "no DBIRTH of " + device)
        return {m.name: m for m in birth.metrics}

    def alias(self, device, name):
        return self.birth_metrics(device)[name].alias

    def test_device_births_declare_every_value_with_its_type_and_value(self):
        # (device, metric, datatype, value the simulator's pattern gives it)
        rows = [
            ("station1", "D_W/100", UINT16, h.pattern_register(1, 100)),
            ("station1", "D_W/103", UINT16, h.pattern_register(1, 103)),
            ("station1", "X/7", BOOLEAN, bool(h.pattern_coil(1, 1207))),
            ("station1", "D_D/202", UINT32, h.pattern_reg32(1, 202)),   # a 32-bit value whole
            ("station1", "D_W/501", UINT16, h.pattern_register(1, 501)),
            ("press", "M/1", BOOLEAN, bool(h.pattern_coil(2, 2001))),     # a named station
            ("press", "D_W/300", UINT16, h.pattern_register(2, 300)),
        ]
        births = {d: self.birth_metrics(d) for d in ("station1", "press")}
        self.assertEqual(len(births["station1"]), 4 + 8 + 2 + 2)
        for device, name, datatype, value in rows:
            with self.subTest(metric=device + "/" + name):
                m = births[device][name]
                self.assertEqual(m.datatype, datatype)
                self.assertEqual(metric_value(m), value)
                self.assertGreater(m.timestamp, 0)
        aliases = [m.alias for metrics in births.values() for m in metrics.values()]
        self.assertEqual(len(set(aliases)), len(aliases), "aliases are unique across the node")
        self.assertNotIn(0, aliases)

    def test_a_change_arrives_by_alias_with_the_time_it_was_read(self):
        alias = self.alias("station1", "D_W/102")
        mark = self.sub.mark()
        before = int(time.time() * 1000)
        self.sim.set(1, 102, 4711)
        self.addCleanup(self.sim.set, 1, 102, h.pattern_register(1, 102))
        data = self.wait_topic(self.sub, "DDATA", "station1",
                               lambda p: any(m.alias == alias and m.int_value == 4711 for m in p.metrics), mark)
        self.assertIsNotNone(data, "no DDATA with 4711")
        m = next(m for m in data.metrics if m.alias == alias)
        self.assertFalse(m.name, "data goes by alias")
        self.assertGreaterEqual(m.timestamp, before - 1000)

    def test_node_births_first_and_on_request_carry_bdseq_seq_0_and_the_rebirth_control(self):
        first = self.wait_topic(self.sub, "NBIRTH")
        self.sim.set(2, 301, 1234)
        self.addCleanup(self.sim.set, 2, 301, h.pattern_register(2, 301))
        time.sleep(0.5)
        mark = self.sub.mark()
        self.sub.publish(NS + "NCMD/" + NODE, encode_command([("Node Control/Rebirth", None, "boolean_value", True)]),
                         qos=0)
        again = self.wait_topic(self.sub, "NBIRTH", since=mark)
        self.assertIsNotNone(again, "no NBIRTH after the rebirth request")
        for birth in (first, again):
            metrics = {m.name: m for m in birth.metrics}
            rebirth = metrics["Node Control/Rebirth"]
            self.assertEqual((birth.seq, metrics["bdSeq"].datatype, rebirth.datatype, rebirth.boolean_value),
                             (0, UINT64, BOOLEAN, False))
        self.assertEqual(bdseq_of(again), bdseq_of(first), "the same connection's bdSeq")
        births = [m for m in self.sub.since() if m.topic.startswith(NS + "NBIRTH/")]
        self.assertFalse(any(m.retain for m in births), "births are not retained")
        press = self.birth_metrics("press", since=mark)
        self.assertEqual(press["D_W/301"].int_value, 1234)
        self.assertIsNotNone(self.wait_topic(self.sub, "DBIRTH", "station1", since=mark))
        # A false rebirth asks for nothing.
        mark = self.sub.mark()
        self.sub.publish(NS + "NCMD/" + NODE, encode_command([("Node Control/Rebirth", None, "boolean_value", False)]),
                         qos=0)
        self.assertIsNone(self.wait_topic(self.sub, "NBIRTH", since=mark, timeout=QUIET))

    def test_commands_write_only_what_is_configured_writable(self):
        alias_501 = self.alias("station1", "D_W/501")
        # (what, device, metric name, alias, field, value, read the controller, expected there)
        landing = [
            ("word by name", "station1", "D_W/500", None, "int_value", 321, lambda: self.sim.get(1, 500), 321),
            ("word by alias", "station1", None, alias_501, "int_value", 654, lambda: self.sim.get(1, 501), 654),
            ("word as long_value", "station1", "D_W/500", None, "long_value", 99, lambda: self.sim.get(1, 500), 99),
            ("bit on", "press", "M/0", None, "boolean_value", True, lambda: self.sim.get_coil(2, 2000), 1),
            ("bit off", "press", "M/0", None, "boolean_value", False, lambda: self.sim.get_coil(2, 2000), 0),
        ]
        for what, device, name, alias, field, value, read, expected in landing:
            with self.subTest(write=what):
                self.sub.publish(NS + "DCMD/%s/%s" % (NODE, device),
                                 encode_command([(name, alias, field, value)]), qos=0)
                self.assertEqual(h.wait_until(lambda: read() == expected, h.ANSWER_TIMEOUT), True,
                                 "%s: the controller holds %r; log:\n%s" % (what, read(), self.gw.log()))
        # The result shows in the next DDATA.
        alias_500 = self.alias("station1", "D_W/500")
        self.assertIsNotNone(self.wait_topic(
            self.sub, "DDATA", "station1", lambda p: any(m.alias == alias_500 and m.int_value == 99 for m in p.metrics)))

        refused = [
            ("read-only word", "station1", "D_W/100", None, "int_value", 1, lambda: self.sim.get(1, 100)),
            ("read-only by alias", "station1", None, self.alias("station1", "D_W/101"), "int_value", 2,
             lambda: self.sim.get(1, 101)),
            ("beyond 16 bits", "station1", "D_W/500", None, "long_value", 70000, lambda: self.sim.get(1, 500)),
            ("no such metric", "station1", "D_W/999", None, "int_value", 3, lambda: self.sim.get(1, 999)),
            ("text value", "station1", "D_W/500", None, "string_value", "12", lambda: self.sim.get(1, 500)),
            ("other station's metric", "press", "D_W/500", None, "int_value", 4, lambda: self.sim.get(2, 500)),
            ("other station's alias", "press", None, alias_501, "int_value", 5, lambda: self.sim.get(1, 501)),
            ("no such device", "station9", "D_W/500", None, "int_value", 6, lambda: self.sim.get(1, 500)),
        ]
        birth = {m.name: m for m in self.wait_topic(self.sub, "NBIRTH").metrics}
        self.assertEqual(birth["Stats/Writes refused"].datatype, UINT64)
        mark = self.sub.mark()
        before = {what: read() for what, _, _, _, _, _, read in refused}
        writes = self.sim.counters()["writes"]
        for what, device, name, alias, field, value, read in refused:
            self.sub.publish(NS + "DCMD/%s/%s" % (NODE, device), encode_command([(name, alias, field, value)]), qos=0)
        time.sleep(QUIET)
        self.assertEqual(self.sim.counters()["writes"], writes, "a refused command reaches no controller")
        for what, device, name, alias, field, value, read in refused:
            with self.subTest(refused=what):
                self.assertEqual(read(), before[what])
        # A command to another node's device is not this node's to refuse: ignored.
        ours = len([row for row in refused if row[1] != "station9"])
        self.assertGreaterEqual(self.gw.log().count("refused"), ours)
        # Counted in the node's figures, which a host reads from NDATA.
        counted = self.wait_topic(self.sub, "NDATA", since=mark, timeout=h.ANSWER_TIMEOUT, predicate=lambda p: any(
            m.name == "Stats/Writes refused" and m.long_value >= ours for m in p.metrics))
        self.assertIsNotNone(counted, "refused commands not counted")

    def test_a_station_back_from_silence_dies_alone_and_is_born_with_values_read_since(self):
        # Block by block in gateway_logic_test.cpp; here on a real line.
        mark = self.sub.mark()
        self.sim.stations(1)
        self.addCleanup(self.sim.stations, 1, 2)
        self.assertIsNotNone(self.wait_topic(self.sub, "DDEATH", "press", since=mark), "no DDEATH; log:\n" + self.gw.log())
        self.assertIsNone(self.wait_topic(self.sub, "DDEATH", "station1", since=mark, timeout=0.1), "only the silent dies")
        # Changed while nobody could read it.
        now = {"M/0": not self.sim.get_coil(2, 2000), "D_W/300": 4321}
        self.sim.coil(2, 2000, now["M/0"])
        self.sim.set(2, 300, now["D_W/300"])
        self.addCleanup(self.sim.set, 2, 300, h.pattern_register(2, 300))
        mark = self.sub.mark()
        self.sim.stations(1, 2)
        birth = self.wait_topic(self.sub, "DBIRTH", "press", since=mark, timeout=h.START_TIMEOUT)
        self.assertIsNotNone(birth, "no DBIRTH; log:\n" + self.gw.log())
        metrics = {m.name: m for m in birth.metrics}
        for name, value in now.items():
            with self.subTest(metric=name):
                if quality_of(metrics[name]) != BAD:
                    self.assertEqual(metric_value(metrics[name]), value, "a value from before the silence born good")

    def test_a_value_refused_while_its_station_answers_is_bad_then_good(self):
        alias = self.alias("station1", "D_W/100")
        mark = self.sub.mark()
        self.sim.refuse(1, "registers", 100, 4, 2)
        self.addCleanup(self.sim.accept, 1)

        def quality(q):
            return lambda p: any(m.alias == alias and quality_of(m) == q for m in p.metrics)
        self.assertIsNotNone(self.wait_topic(self.sub, "DDATA", "station1", quality(BAD), mark),
                             "no Quality 0; log:\n" + self.gw.log())
        self.assertIsNone(self.wait_topic(self.sub, "DDEATH", "station1", since=mark, timeout=0.1))
        mark = self.sub.mark()
        self.sim.accept(1)
        self.assertIsNotNone(self.wait_topic(self.sub, "DDATA", "station1", quality(GOOD), mark))

    def test_nothing_but_sparkplug_is_published(self):
        plain = h.retained_state(self.broker, "rtuplc")
        self.assertEqual(plain, {})


class Sequence(SparkplugTestCase):
    """A controller whose values change at every read: thousands of messages."""

    MESSAGES = 2000

    def test_seq_counts_every_message_of_the_node_and_wraps(self):
        broker = self.own(h.Broker().start())
        sim = self.own(h.Simulator(stations=(1, 2), extra_args=["--churn"]))
        sub = self.own(h.Subscriber(broker, "spBv1.0/#", user="reader", qos=0))
        folder, config = sparkplug_config(broker, sim, items=["D_W:100..101", "D_W:300@2"])
        # A pause between exchanges keeps the rate where a busy test machine's subscriber
        # keeps up: the broker drops QoS 0 messages a slow reader leaves queued.
        config["line"]["pause"] = PAUSE_MS
        self.start_node(folder, config, sub)
        node_topics = [NS + kind + "/" + NODE for kind in ("NBIRTH", "NDATA", "DBIRTH", "DDATA", "DDEATH")]
        from_node = lambda: [m for m in sub.since() if any(m.topic.startswith(t) for t in node_topics)]
        got = h.wait_until(lambda: len(from_node()) >= self.MESSAGES, 60)
        self.assertIsNotNone(got, "only %d messages" % len(from_node()))
        messages = from_node()
        self.assertTrue(messages[0].topic.startswith(NS + "NBIRTH/"))
        seqs = [decode(m).seq for m in messages]
        for i in range(1, len(seqs)):
            self.assertEqual(seqs[i], (seqs[i - 1] + 1) % SEQ_MODULO, "seq after message %d: %s" % (i - 1, seqs[i - 5:i + 5]))
        self.assertGreater(seqs.count(0), 1, "seq wrapped")


if __name__ == "__main__":
    h.main()
