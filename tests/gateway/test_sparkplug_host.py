"""The node's life as a SCADA host sees it: the death certificate the broker sends when
the gateway dies carries the bdSeq of the birth it ends, a new connection is a new
bdSeq, and with a primary host the node is born only while that host is online; typed
values born with their datatype, unit and value, and commands in those datatypes
landing as the right words. And a node that survives its own restart: the next bdSeq
is kept on disk, so a restart after kill -9 is born with the one after the dead
session's; a death certificate of the live session brings new births, an older one
changes nothing."""

import json
import os
import shutil
import tempfile
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


class Restart(spb.SparkplugTestCase):
    def setUp(self):
        self.own_line()
        self.state = tempfile.mkdtemp(prefix="rtuplc-state-")
        self.addCleanup(shutil.rmtree, self.state, ignore_errors=True)

    def start(self):
        """A gateway on the test's state folder, as systemd gives one to the service."""
        folder, config = spb.sparkplug_config(self.broker, self.sim, items=["D_W:100..101"])
        gw, birth, _ = self.start_node(folder, config, self.sub, env={"STATE_DIRECTORY": self.state})
        return gw, spb.bdseq_of(birth)

    def kill(self, gw):
        """kill -9: the bdSeq of the will the broker then publishes."""
        return spb.bdseq_of(spb.decode(self.death_after(gw.kill)))

    def test_kill_9_then_restart_is_born_with_the_next_bdseq(self):
        kept = os.path.join(self.state, "sparkplug-%s-%s.bdseq" % (spb.GROUP, spb.NODE))
        # (what the file holds at the first start, that start's bdSeq, what the log says of it)
        rows = [
            (None, 0, "no bdSeq kept yet"),
            ("seven\n", 0, "holds no bdSeq"),
            ("255\n", 255, None),          # the next one wraps to 0
        ]
        for content, first, warning in rows:
            with self.subTest(file=content):
                if os.path.exists(kept):
                    os.remove(kept)
                if content is not None:
                    with open(kept, "w") as f:
                        f.write(content)
                gw, born = self.start()
                self.assertEqual(born, first)
                if warning:
                    self.assertIn(warning, gw.log())
                self.assertEqual(self.kill(gw), first, "the will pairs with the birth")
                gw, born = self.start()
                self.assertEqual(born, (first + 1) % spb.SEQ_MODULO, "restarted with the next bdSeq")
                self.assertEqual(self.kill(gw), born, "the new will carries the new bdSeq")
                self.assertFalse([f for f in os.listdir(self.state) if f.endswith(".tmp")], "no file left half done")

    def test_only_a_death_certificate_of_the_live_session_brings_new_births(self):
        self.kill(self.start()[0])  # an earlier life, whose will comes before this one's birth
        gw, born = self.start()
        self.assertIsNotNone(self.wait_topic(self.sub, "DBIRTH", "station1", timeout=h.START_TIMEOUT))
        # (what, the certificate's bdSeq, born again)
        rows = [
            ("the old session's will, late", (born - 1) % spb.SEQ_MODULO, False),
            ("this session's", born, True),
        ]
        for what, bd, reborn in rows:
            with self.subTest(death=what):
                mark = self.sub.mark()
                self.sub.publish(spb.NS + "NDEATH/" + spb.NODE, spb.encode_command([("bdSeq", None, "long_value", bd)]))
                birth = self.wait_topic(self.sub, "NBIRTH", since=mark, timeout=h.ANSWER_TIMEOUT if reborn else QUIET)
                self.assertEqual(birth is not None, reborn, "log:\n" + gw.log())
                if reborn:
                    self.assertEqual(spb.bdseq_of(birth), born, "a rebirth keeps the bdSeq")
                    self.assertIsNotNone(self.wait_topic(self.sub, "DBIRTH", "station1", since=mark))


if __name__ == "__main__":
    h.main()
