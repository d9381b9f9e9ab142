"""The broker connection's credentials: TLS with and without a client certificate, and
refusals (a wrong password, no client certificate where one is required) logged so an
operator understands them, retried, and never showing the password."""

import re
import time

import harness as h

P = "rtuplc/line1"
ITEMS = ["D_W:100..101"]
WRONG_PASSWORD = "wrong-Passw0rd-9931"
RETRY_WINDOW = 4.0   # s: the first retry comes after 1 s, the second 2 s later
GATEWAY_LOG_PREFIX = "rtuplc-gateway: "
# At most this many connections in the first RETRY_WINDOW + 1 s: an attempt at 0, 1 and
# 3 s, two connections each at worst (a TLS client may try twice), and slack.
MAX_ATTEMPTS = 8


class Security(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.tls = cls.keep(h.Broker(tls=True).start())
        cls.strict = cls.keep(h.Broker(tls=True, require_certificate=True).start())
        cls.sim = cls.keep(h.Simulator())

    def test_tls_connections_that_work(self):
        # (what, broker, url host, client certificate and key)
        rows = [
            ("server checked by IP, with a client certificate", self.strict, h.LOOPBACK, True),
            ("server checked by name", self.tls, "localhost", False),
        ]
        for what, broker, host, client_cert in rows:
            with self.subTest(what):
                keys = {"url": broker.url(tls=True, host=host), "ca": broker.certs["ca"]}
                if client_cert:
                    keys.update({"cert": broker.certs["client_cert"], "key": broker.certs["client_key"]})
                folder, config = h.base_config(broker, self.sim, ITEMS, **keys)
                sub = self.own(h.Subscriber(broker, P + "/#"))
                gw = self.start_gateway(folder, config, sub=sub)
                self.assertIsNotNone(sub.wait_for(P + "/1/D_W/100", lambda m: m.json().get("value") == 100))
                self.assertEqual(gw.stop(), 0)

    def test_refused_connections_are_explained_and_retried(self):
        # (what, broker, port the gateway uses, mqtt keys, words one of which the log shows)
        rows = [
            ("wrong password", self.tls, self.tls.port, {"password-file": None},
             r"password|not authori[sz]ed|bad user ?name"),
            ("no client certificate where one is required", self.strict, self.strict.tls_port,
             {"url": self.strict.url(tls=True), "ca": self.strict.certs["ca"]},
             r"client certificate"),
        ]
        for what, broker, port, keys, words in rows:
            with self.subTest(what):
                folder, config = h.base_config(broker, self.sim, ITEMS, **{k: v for k, v in keys.items() if v})
                if "password-file" in keys:
                    with open(config["mqtt"]["password-file"], "w") as f:
                        f.write(WRONG_PASSWORD + "\n")
                connections = broker.log().count("on port %d" % port)
                gw = self.own(h.Gateway(folder, config, args=["--verbose"]))
                attempts = h.wait_until(lambda: broker.log().count("on port %d" % port) - connections >= 2,
                                        RETRY_WINDOW + 1)
                self.assertTrue(attempts, "the gateway tried %d time(s), expected a retry" %
                                (broker.log().count("on port %d" % port) - connections))
                self.assertTrue(gw.running(), "a refused connection is retried, not the end")
                time.sleep(RETRY_WINDOW - 1)
                attempts = broker.log().count("on port %d" % port) - connections
                self.assertLessEqual(attempts, MAX_ATTEMPTS, "retries back off (1 s, 2 s, 4 s...)")
                explained = gw.err.wait_for(lambda l: re.search(words, l, re.I), RETRY_WINDOW)
                log = gw.log()
                self.assertTrue(explained, "the log does not say %r:\n%s" % (words, log))
                self.assertNotIn(WRONG_PASSWORD, log)
                self.assertNotIn(h.USERS["gateway"], log)
                self.assertNotIn(h.USERS["gateway"], "\n".join(gw.out.lines))
                lines = [l for l in log.splitlines() if l.strip()]
                self.assertTrue(all(l.startswith(GATEWAY_LOG_PREFIX) for l in lines),
                                "every log line starts with the program's name:\n" + log)
                self.assertEqual(gw.stop(), 0)


if __name__ == "__main__":
    h.main()
