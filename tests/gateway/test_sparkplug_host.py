"""The node's life as a SCADA host sees it: the death certificate the broker sends when
the gateway dies carries the bdSeq of the birth it ends, a new connection is a new
bdSeq, and with a primary host the node is born only while that host is online; typed
values born with their datatype, unit and value, and commands in those datatypes
landing as the right words."""

import json
import time

import harness as h
import test_sparkplug as spb

STATE = "spBv1.0/STATE/scada1"
INT16, INT32, FLOAT, DOUBLE, STRING = 2, 3, 9, 10, 12
QUIET = 1.5  # s to watch for a birth that must not come


def host_state(online, age=0):
    """The host's STATE payload, stamped now or age seconds ago."""
    return json.dumps({"online": online, "timestamp": int((time.time() - age) * 1000)})


class NodeLife(spb.SparkplugTestCase):
    def setUp(self):
        self.own_line()

    def config(self, **sparkplug_keys):
        return spb.sparkplug_config(self.broker, self.sim, items=["D_W:100..101"], **sparkplug_keys)

    def test_the_death_certificate_carries_the_births_bdseq_after_a_stop_and_as_the_will_after_kill_9(self):
        for how in ("stop", "kill -9"):
            with self.subTest(how):
                gw, birth, _ = self.start_node(*self.config(), self.sub)
                if how == "kill -9":
                    # A broker restart is a new connection: born again with the next bdSeq.
                    # (A broker that sends the node's will as it shuts down, which a busy
                    # one may, makes the node born again first, with the bdSeq it had.)
                    mark, first = self.sub.mark(), spb.bdseq_of(birth)
                    self.sub.disconnect()
                    self.broker.restart()
                    self.sub.reconnect()
                    following = (first + 1) % spb.SEQ_MODULO
                    birth = self.wait_topic(self.sub, "NBIRTH", predicate=lambda p: spb.bdseq_of(p) == following,
                                            since=mark, timeout=h.START_TIMEOUT * 2)
                    self.assertIsNotNone(birth, "no NBIRTH with the next bdSeq after the broker restart; log:\n" +
                                         gw.log())
                    self.assertEqual(birth.seq, 0, "a birth starts the sequence")
                death = self.death_after(lambda: self.assertEqual(gw.stop(), 0) if how == "stop" else gw.kill())
                self.assertEqual((death.qos, death.retain, spb.bdseq_of(spb.decode(death))),
                                 (1, False, spb.bdseq_of(birth)), "the death pairs with the last birth")

    def test_births_wait_for_the_primary_host(self):
        folder, config = self.config(**{"primary-host": "scada1"})
        gw = self.own(h.Gateway(folder, config))
        self.assertIsNone(self.wait_topic(self.sub, "NBIRTH", timeout=QUIET), "born before the host is online")
        # (host state published, what the node must send next, its bdSeq from the first)
        rows = [(True, "NBIRTH", 0), (False, "NDEATH", 0), (True, "NBIRTH", 1)]
        first = None
        for online, expected, bd in rows:
            with self.subTest(host_online=online):
                mark = self.sub.mark()
                self.sub.publish(STATE, host_state(online), retain=True)
                got = self.wait_topic(self.sub, expected, since=mark, timeout=h.START_TIMEOUT)
                self.assertIsNotNone(got, "no %s; log:\n%s" % (expected, gw.log()))
                first = spb.bdseq_of(got) if first is None else first
                # Left and came back: a new connection, a new bdSeq.
                self.assertEqual(spb.bdseq_of(got), (first + bd) % spb.SEQ_MODULO)
                if expected == "NBIRTH":
                    self.assertIsNotNone(self.wait_topic(self.sub, "DBIRTH", "station1", since=mark))
                else:
                    self.assertIsNone(self.wait_topic(self.sub, "DDATA", "station1", since=self.sub.mark(),
                                                      timeout=QUIET / 2))
        # A state stamped before the last one is old news: the node stays born.
        mark = self.sub.mark()
        self.sub.publish(STATE, host_state(False, age=60))
        self.assertIsNone(self.wait_topic(self.sub, "NDEATH", since=mark, timeout=QUIET))
        self.sub.publish(STATE, "", retain=True)


    def test_typed_metrics_are_born_in_their_datatype_and_commands_convert_back(self):
        items = [{"item": "D_W:400", "type": "int16"},
                 {"item": "D_W:402", "type": "float32", "unit": "m3/h", "writable": True},
                 {"item": "D_W:404", "type": "int16", "scale": 0.1, "unit": "°C", "writable": True},
                 "D_W:406.3",
                 {"item": "D_W:407..408", "type": "string"},
                 {"item": "D_W:410", "type": "int32", "writable": True}]
        for first, words in {400: [0xFFFB], 402: [0x41AC, 0], 404: [215], 406: [8], 407: [0x4142, 0x4300],
                             410: [0xFFFF, 0xFFF9]}.items():
            self.sim.command("set 1 %d %s" % (first, " ".join(map(str, words))))
        gw, _, mark = self.start_node(*spb.sparkplug_config(self.broker, self.sim, items=items), self.sub)
        birth = self.wait_topic(self.sub, "DBIRTH", "station1", since=mark, timeout=h.START_TIMEOUT)
        self.assertIsNotNone(birth, gw.log())
        metrics = {m.name: m for m in birth.metrics}
        # (metric, datatype, value, engUnit); a signed integer comes as its two's complement
        rows = [("D_W/400", INT16, -5, None), ("D_W/402", FLOAT, 21.5, "m3/h"), ("D_W/404", DOUBLE, 21.5, "°C"),
                ("D_W/406.3", spb.BOOLEAN, True, None), ("D_W/407", STRING, "ABC", None), ("D_W/410", INT32, -7, None)]
        for name, datatype, value, unit in rows:
            with self.subTest(metric=name):
                m = metrics[name]
                got = spb.metric_value(m)
                signed = got - (1 << 32) if datatype in (INT16, INT32) and got >= 1 << 31 else got
                units = [v.string_value for k, v in zip(m.properties.keys, m.properties.values) if k == "engUnit"]
                self.assertEqual((m.datatype, signed, units), (datatype, value, [unit] if unit else []))
        # (metric, field, value sent, first register, the words it then holds)
        commands = [("D_W/402", "float_value", 3.25, 402, [0x4050, 0]), ("D_W/404", "double_value", -2.5, 404, [65511]),
                    ("D_W/410", "int_value", (1 << 32) - 9, 410, [0xFFFF, 0xFFF7])]
        for name, field, value, first, words in commands:
            with self.subTest(command=name):
                command = spb.encode_command([(name, None, field, value)])
                self.sub.publish(spb.NS + "DCMD/" + spb.NODE + "/station1", command, qos=0)
                self.assertTrue(h.wait_until(lambda: [self.sim.get(1, first + i) for i in range(len(words))] == words,
                                             h.ANSWER_TIMEOUT), gw.log())


if __name__ == "__main__":
    h.main()
