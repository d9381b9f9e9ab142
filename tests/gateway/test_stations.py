"""A station switched off and on again, as the broker, the page and /metrics tell it:
offline once, its values bad once, tried now and then rather than polled, a write to
it answered at once, and online again with fresh values once it answers."""

import http.client
import json
import re

import harness as h
import test_web as web

P = "rtuplc/line1"
ITEMS = ["D_W:100..109", "D_W:100..109@2", "M:0..15@2", {"item": "D_W:500@2", "writable": True}]
STATION2 = ["2/D_W/100", "2/M/15", "2/D_W/500"]
BACK = 3.0  # s: the longest pause between tries (probe-max, 1 s) and a pass, with room


def http_get(port, path):
    return web.http_request(port, "GET", path)[2]


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


def metric(text, name, labels=""):
    m = re.search(r"^rtuplc_gateway_%s%s (\S+)$" % (name, re.escape(labels)), text, re.M)
    return float(m.group(1)) if m else None


class Stations(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(stations=(1, 2), user="operator")  # it writes too
        folder, config, cls.port = web.web_config(cls.broker, cls.sim, ITEMS, token=None)
        cls.start_class_gateway(folder, config, P + "/1/status", P + "/2/status")
        web.wait_http(cls.port, cls.gw)

    def statuses(self, station, since):
        return [m.payload for m in self.sub.since(since, "%s/%d/status" % (P, station))]

    def test_off_then_on_again(self):
        self.addCleanup(self.sim.stations, 1, 2)
        mark = self.sub.mark()
        self.sim.stations(1)
        self.assertIsNotNone(self.sub.wait_for(P + "/2/status", lambda m: m.payload == "offline",
                                               h.ANSWER_TIMEOUT, mark), "station 2 never went offline")
        for topic in STATION2:
            with self.subTest(bad=topic):
                bad = self.sub.wait_for(P + "/" + topic, lambda m: m.json().get("quality") == "bad",
                                        h.ANSWER_TIMEOUT, mark)
                self.assertIsNotNone(bad, "every item of a silent station goes bad, not only the block that failed")

        # Tried, not polled: the tries count up, and the page and /metrics say when the next is.
        probes = metric(http_get(self.port, "/metrics"), "probes_total")
        self.assertTrue(h.wait_until(lambda: metric(http_get(self.port, "/metrics"), "probes_total") >= probes + 2,
                                     BACK), "no tries while offline")
        text = http_get(self.port, "/metrics")
        self.assertEqual(metric(text, "station_up", '{station="2"}'), 0)
        self.assertIsNotNone(metric(text, "station_next_probe_seconds", '{station="2"}'))
        self.assertIsNone(metric(text, "station_next_probe_seconds", '{station="1"}'))
        event = first_event(self.port)
        self.assertEqual({s["station"]: s["online"] for s in event["stations"]}, {1: True, 2: False})
        self.assertIn("2", event["figures"]["next_probe"])

        # A write is not held for the next try: it goes out once and says why it failed.
        written = self.sub.mark()
        self.sub.publish(P + "/2/D_W/500/set", "7")
        answer = self.sub.wait_for(P + "/2/D_W/500/result", since=written, timeout=0.5)
        self.assertIsNotNone(answer, "the write to the offline station was held")
        self.assertIn("station 2 is offline", answer.payload)

        for topic in STATION2:
            bads = [m for m in self.sub.since(mark, P + "/" + topic) if m.json().get("quality") == "bad"]
            self.assertEqual(len(bads), 1, "%s: bad once, not at every try" % topic)
        self.assertEqual(self.statuses(1, mark), [], "station 1 answered all along")

        on = self.sub.mark()
        self.sim.stations(1, 2)
        self.assertIsNotNone(self.sub.wait_for(P + "/2/status", lambda m: m.payload == "online", BACK, on),
                             "station 2 never came back online")
        for topic in STATION2:
            with self.subTest(good=topic):
                good = self.sub.wait_for(P + "/" + topic, lambda m: m.json().get("quality") == "good",
                                         h.ANSWER_TIMEOUT, on)
                self.assertIsNotNone(good, "back with a fresh read of every value")
        self.assertEqual(self.statuses(2, mark), ["offline", "online"])
        self.assertTrue(h.wait_until(
            lambda: metric(http_get(self.port, "/metrics"), "station_next_probe_seconds", '{station="2"}') is None,
            h.ANSWER_TIMEOUT))


if __name__ == "__main__":
    h.main()
