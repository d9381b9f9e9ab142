"""The CSV log: a file named by the day that a kill -9 in the middle of a burst of
changes leaves readable and that the next start appends to, and rtuplc-poll's rows as it
prints them. (That the gateway logs a row for every value and quality it publishes is
checked where test_values publishes them.)"""

import csv
import datetime
import glob
import json
import os
import subprocess
import tempfile
import time

import harness as h

P = "rtuplc/line1"
HEADER = ["time", "station", "item", "address", "value", "raw", "quality"]


def csv_config(broker, sim, items):
    folder, config = h.base_config(broker, sim, items)
    config["log"] = {"csv": os.path.join(folder, "log"), "rotate": "daily"}
    return folder, config, os.path.join(folder, "log")


def today_file(log_dir):
    day = datetime.datetime.now(datetime.timezone.utc).strftime("%Y-%m-%d")
    return os.path.join(log_dir, "rtuplc-line1-%s.csv" % day)


def read_rows(path):
    with open(path, newline="") as f:
        rows = list(csv.reader(f))
    return rows[0], rows[1:]


class CsvLog(h.GatewayTestCase):
    def test_kill_9_in_a_burst_leaves_a_readable_file(self):
        # Every value the simulator returns has changed by the next read: a row per value per poll.
        sim = self.own(h.Simulator(extra_args=["--churn"]))
        folder, config, log_dir = csv_config(None, sim, ["D_W:0..99"])
        path = today_file(log_dir)
        for run in range(2):
            gw = self.own(h.Gateway(folder, config))
            # A new run appends to the day's file: let it write a while before the kill.
            before = os.path.getsize(path) if os.path.exists(path) else 0
            self.assertTrue(h.wait_until(lambda: os.path.exists(path) and os.path.getsize(path) > before + 20000,
                                         h.START_TIMEOUT), gw.log())
            gw.kill()
            with open(path, newline="") as f:
                text = f.read()
            self.assertTrue(text.endswith("\n"), "a row cut short: %r" % text[-80:])
            header, rows = read_rows(path)
            self.assertEqual(header, HEADER, "run %d" % run)
            for row in rows:
                self.assertEqual(len(row), 7, row)
                self.assertIn(row[6], ("good", "bad"))
                int(row[4])
            self.assertNotIn(HEADER, rows, "a second header in the same file")
        self.assertEqual(glob.glob(os.path.join(log_dir, "*")), [path])


POLL = os.path.join(os.path.dirname(h.GATEWAY), "rtuplc-poll")


class PollCsv(h.GatewayTestCase):
    def test_rows_match_the_values_printed_and_a_second_run_appends(self):
        if not os.path.exists(POLL):
            self.skipTest("rtuplc-poll is not built beside rtuplc-gateway")
        sim = self.own(h.Simulator())
        path = os.path.join(tempfile.mkdtemp(prefix="rtuplc-poll-csv-"), "line.csv")
        printed = []
        for _ in range(2):
            run = subprocess.run([POLL, "--tcp", "%s:%d" % (h.LOOPBACK, sim.port), "--once", "--json", "--csv", path,
                                  "D_W:100..104", "M:0..3"], capture_output=True, text=True, timeout=h.START_TIMEOUT)
            self.assertEqual(run.returncode, 0, run.stderr)
            printed += [json.loads(line) for line in run.stdout.splitlines() if line.startswith("{")]
        header, rows = read_rows(path)
        self.assertEqual(header, HEADER)
        self.assertEqual(len(rows), 2 * 9)
        self.assertEqual([(int(r[1]), r[2], int(r[3]), int(r[4]), r[6]) for r in rows],
                         [(p["station"], p["item"], p["address"], p["value"], "good") for p in printed])


if __name__ == "__main__":
    h.main()
