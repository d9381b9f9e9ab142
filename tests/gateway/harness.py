"""What the gateway's end-to-end tests share beyond the line on loopback
(support/python/loopback_line.py, which the benchmark uses too): a test case that ends
whatever a test or its class started, even when it fails.
"""

import unittest

from loopback_line import *  # noqa: F401,F403  (the suites reach it all as harness.X)


class GatewayTestCase(unittest.TestCase):
    """Ends whatever a test or its class started, in reverse order, even when it fails."""

    @classmethod
    def setUpClass(cls):
        if not (GATEWAY and SIM):
            raise unittest.SkipTest("RTUPLC_GATEWAY and RTUPLC_SIM name the binaries under test")

    @classmethod
    def keep(cls, thing):
        """For the whole class: ended after its last test."""
        cls.addClassCleanup(thing.cleanup)
        return thing

    @classmethod
    def start_line(cls, stations=(1,), topics="rtuplc/line1/#", user="reader", extra_args=()):
        """For the whole class: cls.broker, cls.sim with these stations, and cls.sub on topics."""
        cls.broker = cls.keep(Broker().start())
        cls.sim = cls.keep(Simulator(stations=stations, extra_args=extra_args))
        cls.sub = cls.keep(Subscriber(cls.broker, topics, user=user))

    @classmethod
    def start_class_gateway(cls, folder, config, *topics):
        """For the whole class: a gateway, once cls.sub saw each topic (a status online)."""
        cls.gw = cls.keep(Gateway(folder, config))
        for topic in topics:
            wanted = (lambda m: m.payload == "online") if topic.endswith("/status") else (lambda m: True)
            if cls.sub.wait_for(topic, wanted, START_TIMEOUT) is None:
                raise AssertionError("nothing on %s; the gateway's log:\n%s" % (topic, cls.gw.log()))
        return cls.gw

    def own(self, thing):
        """For this test only."""
        self.addCleanup(thing.cleanup)
        return thing

    def start_gateway(self, folder, config, sub=None, prefix="rtuplc/line1", **kwargs):
        """Starts a gateway for this test; with a subscriber, waits for it to be online."""
        mark = sub.mark() if sub else 0
        gw = self.own(Gateway(folder, config, **kwargs))
        if sub is not None:
            online = sub.wait_for(prefix + "/status", lambda m: m.payload == "online", START_TIMEOUT, since=mark)
            self.assertIsNotNone(online, "the gateway never said online; its log:\n" + gw.log())
        return gw


def main():
    unittest.main(verbosity=2)
