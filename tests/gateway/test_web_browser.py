"""The live page in a real browser: headless chromium, driven over the DevTools
protocol, against the gateway on the simulator. The table fills with the controller's
values under headings that say what they are, a change updates its cell in place without
reloading, a silent station shows offline, the trend has points and draws nothing without,
and a write from the page lands with the token and is refused without it."""

import json
import re
import shutil
import subprocess
import tempfile
import time
import unittest
import urllib.request

import websocket  # python3-websocket

import harness as h
import test_web as web

P = "rtuplc/line1"
ITEMS = ["D_W:100..104", {"item": "D_W:500..501", "writable": True, "name": "setpoint"}, "D_D:200", "M:0..7@2",
         {"item": "D_W:300", "type": "int16"}]
WIDEST = 0xFFFFFFFF  # the longest a value is written, in decimal and in hex
CHROMIUM_FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
                  "--disable-background-networking", "--disable-component-update", "--disable-sync",
                  "--remote-debugging-address=127.0.0.1", "--remote-debugging-port=0", "--window-size=1400,900"]
BROWSER_TIMEOUT = 20.0  # s: chromium's first start on a loaded CI machine is slow
FLUID_WATCH = 3.0           # s of frames watched with 1,000 values changing
FLUID_MEAN_FRAME_MS = 100   # a page redrawn under ten times a second is no longer live


class Browser:
    """chromium with a profile of its own and one page, spoken to over the DevTools protocol."""

    def __init__(self):
        self.profile = tempfile.mkdtemp(prefix="rtuplc-chromium-")
        self.proc = subprocess.Popen([shutil.which("chromium")] + CHROMIUM_FLAGS +
                                     ["--user-data-dir=" + self.profile, "about:blank"],
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                     text=True)
        self.err = h.LineReader(self.proc.stderr)
        listening = self.err.wait_for(lambda l: "DevTools listening on ws://" in l, BROWSER_TIMEOUT)
        if listening is None:
            raise RuntimeError("chromium did not start:\n" + self.err.text())
        port = int(re.search(r"ws://[^:]+:(\d+)/", listening).group(1))
        pages = h.wait_until(lambda: [t for t in self.targets(port) if t["type"] == "page"], BROWSER_TIMEOUT)
        self.ws = websocket.create_connection(pages[0]["webSocketDebuggerUrl"], timeout=BROWSER_TIMEOUT,
                                              suppress_origin=True)
        self.next_id = 0

    @staticmethod
    def targets(port):
        try:
            with urllib.request.urlopen("http://127.0.0.1:%d/json/list" % port, timeout=2) as r:
                return json.loads(r.read())
        except OSError:
            return []

    def call(self, method, **params):
        self.next_id += 1
        self.ws.send(json.dumps({"id": self.next_id, "method": method, "params": params}))
        while True:
            reply = json.loads(self.ws.recv())
            if reply.get("id") == self.next_id:
                if "error" in reply:
                    raise RuntimeError("%s: %s" % (method, reply["error"]))
                return reply["result"]

    def js(self, expression):
        """The value of a JavaScript expression in the page (promises awaited)."""
        r = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in r:
            raise RuntimeError("%s: %s" % (expression, r["exceptionDetails"]))
        return r["result"].get("value")

    def wait_js(self, expression, timeout=h.ANSWER_TIMEOUT):
        """Waits until the expression is truthy in the page; its value, or None."""
        return h.wait_until(lambda: self.js(expression), timeout, step=0.1)

    def cleanup(self):
        try:
            self.ws.close()
        except Exception:
            pass
        h.end_process(self.proc)
        shutil.rmtree(self.profile, ignore_errors=True)


def cell(path, cls):
    return "document.querySelector('.row[data-path=\"%s\"] .%s')" % (path, cls)


def painted(browser, spread):
    """Pixels drawn on the trend's canvas whose colour channels differ by more than spread."""
    return browser.js("""(() => { const c = document.getElementById('trend');
        const d = c.getContext('2d').getImageData(0, 0, c.width, c.height).data; let n = 0;
        for (let i = 0; i < d.length; i += 4)
          if (d[i + 3] > 0 && Math.max(d[i], d[i + 1], d[i + 2]) - Math.min(d[i], d[i + 1], d[i + 2]) > %d) n++;
        return n; })()""" % spread)


@unittest.skipUnless(shutil.which("chromium"), "chromium is not installed (scripts/install-deps installs it)")
class Page(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(stations=(1, 2))
        cls.sim.set32(1, 200, WIDEST)
        cls.sim.set(1, 300, 0xFFFB)
        folder, config, cls.port = web.web_config(cls.broker, cls.sim, ITEMS)
        cls.start_class_gateway(folder, config, P + "/2/M/7")
        web.wait_http(cls.port, cls.gw)
        cls.browser = cls.keep(Browser())
        cls.browser.call("Page.navigate", url="http://127.0.0.1:%d/" % cls.port)
        if not cls.browser.wait_js("document.querySelectorAll('#items .row').length == 17", h.START_TIMEOUT):
            raise AssertionError("the table never filled; the gateway's log:\n" + cls.gw.log())
        # Set once: gone if the page were ever reloaded.
        cls.browser.js("window.loadedOnce = true")

    def under_headings(self, path):
        """{heading: text of the cell of the row at path that lines up with it}"""
        return dict(self.browser.js("""(() => {
            const row = document.querySelector('.row[data-path="%s"]');
            const edges = (e) => { const r = e.getBoundingClientRect(); return [r.left, r.right]; };
            return [...document.querySelectorAll('.row.head > div')].map((h) => {
              const [l, r] = edges(h);
              const c = [...row.children].find((c) => Math.abs(edges(c)[0] - l) + Math.abs(edges(c)[1] - r) < 2);
              return [h.textContent, c ? c.textContent : null]; }); })()""" % path))

    def test_1_table_fills_with_the_controllers_values_under_their_headings(self):
        b = self.browser
        # The item as the configuration writes it, the value in decimal and hex.
        expected = [("1/D_W/100", "D_W:100@1", h.pattern_register(1, 100), "0x0064"),
                    ("1/D_W/501", "D_W:501@1", h.pattern_register(1, 501), "0x01F5"),
                    ("1/D_D/200", "D_D:200@1", WIDEST, "0xFFFFFFFF"),
                    ("2/M/5", "M:5@2", h.pattern_coil(2, 2005), "0x%d" % h.pattern_coil(2, 2005)),
                    ("1/D_W/300", "D_W:300@1", -5, "0xFFFB")]  # typed: the value signed, its register in hex
        for path, item, value, hexed in expected:
            with self.subTest(path):
                self.assertTrue(b.wait_js("%s.textContent == '%d'" % (cell(path, "v"), value)),
                                b.js(cell(path, "v") + ".textContent"))
                under = self.under_headings(path)
                self.assertEqual({k: under.get(k) for k in ("item", "value", "hex", "quality")},
                                 {"item": item, "value": str(value), "hex": hexed, "quality": "good"})
        cut = b.js("[...document.querySelectorAll('.row.head > div, #items .path, #items .v, #items .hex')]"
                   ".filter((c) => c.scrollWidth > c.clientWidth).map((c) => c.textContent)")
        self.assertEqual(cut, [])
        # Unchanged since the gateway started, and polled all the while.
        self.assertTrue(b.wait_js("!['', '<1 s'].includes(%s.textContent)" % cell("1/D_W/100", "age")))
        self.assertTrue(b.wait_js("%s.textContent == '<1 s'" % cell("1/D_W/100", "read")),
                        b.js(cell("1/D_W/100", "read") + ".textContent"))

    def test_2_a_change_updates_its_cell_in_place(self):
        b = self.browser
        b.js("window.watched = %s" % cell("1/D_W/103", "v"))
        self.sim.set(1, 103, 4321)
        self.assertTrue(b.wait_js("window.watched.textContent == '4321'"), b.js("window.watched.textContent"))
        self.assertTrue(b.js("window.watched === %s && window.loadedOnce === true" % cell("1/D_W/103", "v")))
        self.assertEqual(b.js(cell("1/D_W/103", "hex") + ".textContent"), "0x10E1")

    def test_3_the_trend_has_points(self):
        b = self.browser
        b.js("rtuplc.select('1/D_W/102')")
        for value in (10, 500, 250, 900):
            self.sim.set(1, 102, value)
            time.sleep(0.3)
        self.assertTrue(b.wait_js("rtuplc.trendPoints() >= 4"), b.js("rtuplc.trendPoints()"))
        self.assertIn("1/D_W/102", b.js("rtuplc.seriesPaths()"))
        # Lines were drawn in colour, not only the grey axes and labels.
        self.assertGreater(painted(b, 80), 50)

    def show_page_of_a_gateway(self, sim, items, **web_keys):
        """The browser on the page of a gateway of this test's own, without a broker."""
        folder, config, port = web.web_config(None, sim, items, **web_keys)
        web.wait_http(port, self.start_gateway(folder, config))
        self.browser.call("Page.navigate", url="http://127.0.0.1:%d/" % port)
        return self.browser

    def write_from_page(self, path, value):
        b = self.browser
        row = "document.querySelector('.row[data-path=\"%s\"]')" % path
        b.js("%s.querySelector('span.answer').textContent = ''" % row)
        b.js("(() => { const i = %s.querySelector('input.w'); i.value = '%s'; "
             "%s.querySelector('.w button').click(); })()" % (row, value, row))
        return b.wait_js("(() => { const t = %s.querySelector('span.answer').textContent; "
                         "return t && t != 'sending…' ? t : null; })()" % row, h.START_TIMEOUT)

    def set_token(self, token):
        self.browser.js("(() => { const t = document.getElementById('token'); t.value = '%s'; "
                        "t.dispatchEvent(new Event('input')); })()" % token)

    def test_4_a_write_with_the_token_lands_and_without_is_refused(self):
        cases = [
            ("the token", web.TOKEN, "1/D_W/500", 777, "acknowledged 777", 777),
            ("no token", "", "1/D_W/500", 888, "refused: ", 777),
        ]
        for what, token, path, value, answer, register in cases:
            with self.subTest(what):
                self.set_token(token)
                got = self.write_from_page(path, value)
                self.assertTrue(got and got.startswith(answer), got)
                self.assertEqual(self.sim.get(1, int(path.rsplit("/", 1)[1])), register)

    def test_5_a_silent_station_shows_offline(self):
        b = self.browser
        self.assertTrue(b.wait_js("document.getElementById('station-2').classList.contains('online')"))
        self.sim.stations(1)
        self.addCleanup(self.sim.stations, 1, 2)
        self.assertTrue(b.wait_js("document.getElementById('station-2').classList.contains('offline')",
                                  h.START_TIMEOUT), b.js("document.getElementById('stations').textContent"))
        self.assertTrue(b.wait_js("%s.textContent == 'bad'" % cell("2/M/0", "q")))
        self.assertTrue(b.js("document.getElementById('station-1').classList.contains('online')"))

    def test_6_a_thousand_changing_values_stay_fluid(self):
        # Every value changes on every read: the page gets a full batch ten times a second.
        sim = self.own(h.Simulator(extra_args=["--churn"]))
        b = self.show_page_of_a_gateway(sim, ["D_W:1000..1999"])
        self.assertTrue(b.wait_js("document.querySelectorAll('#items .row').length == 1000", h.START_TIMEOUT))
        first = b.js(cell("1/D_W/1500", "v") + ".textContent")
        b.js("""window.gaps = []; (() => { let last = performance.now();
            const f = (t) => { window.gaps.push(t - last); last = t; requestAnimationFrame(f); };
            requestAnimationFrame(f); })()""")
        time.sleep(FLUID_WATCH)
        gaps = b.js("window.gaps.slice(1)")
        self.assertGreater(len(gaps), 10)
        self.assertLess(sum(gaps) / len(gaps), FLUID_MEAN_FRAME_MS, "frames of %s ms" % sorted(gaps)[-5:])
        self.assertNotEqual(b.js(cell("1/D_W/1500", "v") + ".textContent"), first)

    def test_7_a_value_never_answered_draws_no_trend_and_read_only_says_how_to_write(self):
        # Station 3 never answers; no token file.
        b = self.show_page_of_a_gateway(self.sim, ["D_W:0@3"], token=None)
        self.assertTrue(b.wait_js("%s?.textContent == 'bad'" % cell("3/D_W/0", "q"), h.START_TIMEOUT))
        # Asked, if not answered: polled all the same.
        self.assertTrue(b.wait_js("%s.textContent != ''" % cell("3/D_W/0", "read")))
        self.assertEqual(b.js("rtuplc.seriesPaths()"), ["3/D_W/0"])
        self.assertTrue(b.wait_js("document.getElementById('trendnote').textContent == 'waiting for a good reading'"))
        self.assertEqual(painted(b, -1), 0)
        self.assertIn("writes need http.token-file", b.js("document.getElementById('writeauth').textContent"))


if __name__ == "__main__":
    h.main()
