"""The gateway's JSON API and /metrics, with a plain HTTP client: the same payloads as
the topics, writes behind the token answered as the result topic answers them, metrics
a Prometheus parser reads, and a station switched off tried now and then, as /metrics
and the page's events tell it."""

import http.client
import json
import os
import time

from prometheus_client.parser import text_string_to_metric_families

import harness as h

P = "rtuplc/line1"
TOKEN = "tok-7f3a9c"
HISTORY_STEP = 600 / 1200 + 0.1  # s
BACK = 3.0  # s: the longest pause between tries (probe-max, 1 s) and a pass, with room
ITEMS = ["D_W:100..103", {"item": "D_W:500..501", "writable": True, "name": "setpoint", "unit": "rpm"}, "M:0..3@2"]


def http_request(port, method, path, body=None, headers=None):
    """(status, headers, body text) of one request to the gateway on loopback."""
    conn = http.client.HTTPConnection(h.LOOPBACK, port, timeout=15)
    try:
        conn.request(method, path, body=body, headers=headers or {})
        r = conn.getresponse()
        return r.status, dict(r.getheaders()), r.read().decode("utf-8")
    finally:
        conn.close()


def web_config(broker, sim, items, token=TOKEN, listen_host=h.LOOPBACK):
    """A configuration with the page on a free port, with a token file unless token is None."""
    folder, config = h.base_config(broker, sim, items)
    port = h.free_port()
    config["http"] = {"listen": "%s:%d" % (listen_host, port)}
    if token is not None:
        path = os.path.join(folder, "token")
        with open(path, "w") as f:
            f.write(token + "\n")
        config["http"]["token-file"] = path
    return folder, config, port


def first_event(port):
    """The page's first update: every station and the figures."""
    conn = http.client.HTTPConnection(h.LOOPBACK, port, timeout=15)
    try:
        conn.request("GET", "/api/events")
        r = conn.getresponse()
        while True:
            line = r.fp.readline().decode("utf-8")
            if line.startswith("data:"):
                return json.loads(line[5:])
    finally:
        conn.close()


def wait_http(port, gw):
    if not h.wait_until(lambda: h.port_open(port), h.START_TIMEOUT):
        raise AssertionError("the page never listened; the gateway's log:\n" + gw.log())


class Api(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(stations=(1, 2))
        folder, config, cls.port = web_config(cls.broker, cls.sim, ITEMS)
        cls.start_class_gateway(folder, config, P + "/2/M/3")
        wait_http(cls.port, cls.gw)

    def samples(self):
        """{(name, labels): value} of /metrics, as Prometheus reads them."""
        text = http_request(self.port, "GET", "/metrics")[2]
        return {(s.name, tuple(sorted(s.labels.items()))): s.value
                for f in text_string_to_metric_families(text) for s in f.samples}

    def get_json(self, path):
        status, _, body = http_request(self.port, "GET", path)
        self.assertEqual(status, 200, path + ": " + body)
        return json.loads(body)

    def test_items_carry_the_topics_payloads(self):
        items = self.get_json("/api/items")
        self.assertEqual(len(items), 4 + 2 + 4)
        for it in items:
            topic = "%s/%s" % (P, it["path"])
            published = self.sub.last(topic)
            self.assertIsNotNone(published, topic)
            # Every field of the topic's payload, as it was published last.
            expected = published.json()
            self.assertEqual({k: it[k] for k in expected}, expected, it["path"])
            self.assertEqual(it["path"], "%d/%s/%s" % (it["station"], it["area"], it["address"]))
        setpoint = next(it for it in items if it["path"] == "1/D_W/500")
        self.assertEqual((setpoint["writable"], setpoint["name"], setpoint["unit"]), (True, "setpoint", "rpm"))
        self.assertFalse(next(it for it in items if it["path"] == "1/D_W/100")["writable"])

    def test_history_follows_a_changing_value(self):
        mark = self.sub.mark()
        for value in (11, 22, 33):
            self.sim.set(1, 102, value)
            self.assertIsNotNone(self.sub.wait_for(P + "/1/D_W/102", lambda m: m.json()["value"] == value,
                                                   since=mark))
            # Readings closer than a step (the window over 1,200) keep only the latest.
            time.sleep(HISTORY_STEP)
        history = self.get_json("/api/items/1/D_W/102/history")
        values = [v for _, v in history["points"]]
        self.assertEqual(values[-3:], [11, 22, 33])
        times = [t for t, _ in history["points"]]
        self.assertEqual(times, sorted(times))
        self.assertEqual(history["window"], 600)
        status, _, _ = http_request(self.port, "GET", "/api/items/1/D_W/999/history")
        self.assertEqual(status, 404)

    def test_stats_as_the_stats_topic(self):
        topic = self.sub.wait_for(P + "/stats", timeout=h.START_TIMEOUT)
        self.assertIsNotNone(topic)
        stats = self.get_json("/api/stats")
        self.assertEqual(set(stats), set(topic.json()))
        self.assertGreater(stats["polls"], 0)

    def test_writes_need_the_token_and_are_answered_like_the_result_topic(self):
        bearer = {"Authorization": "Bearer " + TOKEN}
        # What is at stake, the request, the status and answer expected, the register after.
        # A request's payload is read as a write on the broker is: gateway_logic_test.cpp's
        # AWriteRequestGetsOneAnswer has its refusals; here one of them, as a 400.
        cases = [
            ("the token writes", "1/D_W/500", json.dumps({"value": 1234, "id": "w1"}), bearer,
             200, {"id": "w1", "ok": True, "value": 1234}, (500, 1234)),
            ("a bare number, in hex", "1/D_W/501", "0x1F", bearer, 200, {"id": None, "ok": True, "value": 31},
             (501, 31)),
            ("no token", "1/D_W/500", "7", {}, 401, {"ok": False}, (500, 1234)),
            ("a wrong token of the same length", "1/D_W/500", "7", {"Authorization": "Bearer tok-7f3a9d"}, 401,
             {"ok": False}, (500, 1234)),
            ("a token in another scheme", "1/D_W/500", "7", {"Authorization": "Basic " + TOKEN}, 401,
             {"ok": False}, (500, 1234)),
            ("a value not configured writable", "1/D_W/100", "7", bearer, 400, {"ok": False},
             (100, h.pattern_register(1, 100))),
        ]
        for what, path, body, headers, status, answer, (register, value) in cases:
            with self.subTest(what):
                got, got_headers, text = http_request(self.port, "POST", "/api/items/" + path, body, headers)
                self.assertEqual(got, status, text)
                reply = json.loads(text)
                self.assertEqual({k: reply.get(k) for k in answer}, answer)
                if not reply["ok"]:
                    self.assertTrue(reply["error"])
                if status == 401:
                    self.assertIn("Bearer", got_headers.get("WWW-Authenticate", ""))
                self.assertEqual(self.sim.get(1, register), value)

    def test_metrics_parse_and_agree_with_the_line(self):
        status, headers, text = http_request(self.port, "GET", "/metrics")
        self.assertEqual(status, 200)
        self.assertTrue(headers["Content-Type"].startswith("text/plain; version=0.0.4"))
        families = {f.name: f for f in text_string_to_metric_families(text)}
        samples = self.samples()
        prefix = "rtuplc_gateway_"
        # Family, type: what monitoring will graph and alert on.
        counters = "polls accepted retries failures replies_dropped writes published buffer_dropped"
        expected = dict(dict.fromkeys(counters.split(), "counter"), held_messages="gauge", station_up="gauge",
                        line_up="gauge", broker_connected="gauge", poll_cycle_seconds="histogram")
        self.assertEqual({n: families[prefix + n].type for n in expected if prefix + n in families}, expected)
        self.assertGreater(samples[(prefix + "polls_total", ())], 0)
        up = {(prefix + "station_up", (("station", s),)): 1.0 for s in ("1", "2")}
        up.update({(prefix + n, ()): 1.0 for n in ("line_up", "broker_connected")})
        self.assertEqual({k: samples.get(k) for k in up}, up)
        dropped = [(prefix + "replies_dropped_total", (("reason", r),)) for r in ("late", "doubled", "foreign", "malformed")]
        self.assertEqual([k for k in dropped if k not in samples], [])
        buckets = sorted((float(dict(k[1])["le"]), v) for k, v in samples.items()
                         if k[0] == prefix + "poll_cycle_seconds_bucket")
        counts = [v for _, v in buckets]
        self.assertEqual(counts, sorted(counts), "buckets are cumulative")
        self.assertEqual(buckets[-1][0], float("inf"))
        self.assertEqual(counts[-1], samples[(prefix + "poll_cycle_seconds_count", ())])
        self.assertGreater(counts[-1], 0)
        # A station that falls silent shows down, its values bad once, and it is tried now
        # and then rather than polled: the tries count up, and /metrics and the page's
        # events say when the next is, until it answers again.
        mark = self.sub.mark()
        self.sim.stations(1)
        self.addCleanup(self.sim.stations, 1, 2)
        up, probes = prefix + "station_up", (prefix + "probes_total", ())
        self.assertTrue(h.wait_until(lambda: self.samples().get((up, (("station", "2"),))) == 0, h.START_TIMEOUT))
        tries = self.samples()[probes]
        self.assertTrue(h.wait_until(lambda: self.samples()[probes] >= tries + 2, BACK), "no tries while offline")
        next_probe = lambda s: {k[1] for k in s if k[0] == prefix + "station_next_probe_seconds"}
        self.assertEqual(next_probe(self.samples()), {(("station", "2"),)})
        event = first_event(self.port)
        self.assertEqual({s["station"]: s["online"] for s in event["stations"]}, {1: True, 2: False})
        self.assertIn("2", event["figures"]["next_probe"])
        for topic in ("2/M/0", "2/M/3"):
            bads = [m for m in self.sub.since(mark, P + "/" + topic) if m.json().get("quality") == "bad"]
            self.assertEqual(len(bads), 1, "%s: bad once, not at every try" % topic)
        self.sim.stations(1, 2)
        self.assertTrue(h.wait_until(lambda: not next_probe(self.samples()), BACK))


class ReadOnlyAndExposure(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.broker = cls.keep(h.Broker().start())
        cls.sim = cls.keep(h.Simulator())

    def test_without_a_token_the_page_is_read_only(self):
        folder, config, port = web_config(self.broker, self.sim, ITEMS[:2], token=None)
        gw = self.start_gateway(folder, config)
        wait_http(port, gw)
        status, _, text = http_request(port, "POST", "/api/items/1/D_W/500", "7",
                                       {"Authorization": "Bearer anything"})
        self.assertEqual(status, 403, text)
        self.assertIn("read-only", json.loads(text)["error"])
        self.assertFalse(json.loads(http_request(port, "GET", "/api/info")[2])["writes"])

    def test_listening_beyond_loopback_needs_a_token(self):
        # Refused before anything is opened: the address is not even bound.
        folder, config, _ = web_config(self.broker, self.sim, ITEMS[:1], token=None, listen_host="0.0.0.0")
        gw = self.own(h.Gateway(folder, config))
        self.assertEqual(gw.wait_exit(), 2)
        log = gw.log()
        self.assertIn("line1.yaml", log)
        self.assertIn("http.listen", log)
        self.assertIn("token-file", log)


if __name__ == "__main__":
    h.main()
