"""A Sparkplug node that survives its own restart: the next bdSeq is kept on disk, so a
restart after kill -9 is born with the one after the dead session's; a death
certificate of the live session brings new births, an older one changes nothing; and
a station back from a silence dies alone and is born with values read since, never
older ones (block by block in gateway_logic_test.cpp; here on a real line)."""

import os
import shutil
import tempfile

import harness as h
import test_sparkplug as spb

QUIET = 1.5  # s to watch for a birth that must not come


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


class BackFromSilence(spb.SparkplugTestCase):
    def test_a_station_back_from_silence_is_born_with_values_read_since(self):
        self.own_line(stations=(1, 2))
        sim, sub = self.sim, self.sub
        folder, config = spb.sparkplug_config(self.broker, sim, items=["D_W:100..101", "D_W:300..301@2", "M:0..1@2"])
        gw, _, mark = self.start_node(folder, config, sub)
        born = self.wait_topic(sub, "DBIRTH", "press", since=mark, timeout=h.START_TIMEOUT)
        old = {m.name: spb.metric_value(m) for m in born.metrics}
        self.assertEqual(old["M/0"], bool(h.pattern_coil(2, 2000)))
        mark = sub.mark()
        sim.stations(1)
        self.assertIsNotNone(self.wait_topic(sub, "DDEATH", "press", since=mark), "no DDEATH; log:\n" + gw.log())
        self.assertIsNone(self.wait_topic(sub, "DDEATH", "station1", since=mark, timeout=0.1), "only the silent dies")
        # Changed while nobody could read it.
        sim.coil(2, 2000, not old["M/0"])
        sim.set(2, 300, 4321)
        mark = sub.mark()
        sim.stations(1, 2)
        birth = self.wait_topic(sub, "DBIRTH", "press", since=mark, timeout=h.START_TIMEOUT)
        self.assertIsNotNone(birth, "no DBIRTH; log:\n" + gw.log())
        metrics = {m.name: m for m in birth.metrics}
        for name, now in (("M/0", not old["M/0"]), ("D_W/300", 4321)):
            with self.subTest(metric=name):
                m = metrics[name]
                if spb.quality_of(m) != spb.BAD:
                    self.assertEqual(spb.metric_value(m), now, "a value from before the silence born good")


if __name__ == "__main__":
    h.main()
