"""The command line and the configuration file: every bad one refused before anything
is opened, naming the file, the key or line, and why; --check shows the plan without a
broker or a line."""

import os
import shutil
import subprocess
import tempfile

import harness as h

SECRET = "pw-Never-Shown-5150"
RUN_TIMEOUT = 5.0  # s; a refusal or a plan needs no network

# Line numbers below count from 1 in this text.
GOOD = """name: line1
line:
  tcp: 127.0.0.1:@LINE_PORT@
  timeout: 100
  retries: 2
mqtt:
  url: mqtt://127.0.0.1:@BROKER_PORT@
  qos: 1
  username: gateway
  password-file: @PASSWORD_FILE@
items:
  - D_W:100..109
  - M:0..15@2
  - { item: D_W:500..504, writable: true }
"""


# What only the binary shows, every refusal's wording being tabled in config_test.cpp (the
# loader's) and poll_cli_test.cpp (an item's, read by the host layer both programs share): the
# exit code, standard error with the program's name, and the file and line of a refusal from
# each of the two stages, the loader and the plan made with the driver.
# (what, arguments, how to spoil the good file, exit code, words on standard error)
ROWS = [
    ("unknown key of mqtt", ["--config", "{config}"], ("  qos: 1\n", "  qos: 1\n  tpoic: x\n"), 2,
     "line1.yaml:9: mqtt.tpoic"),
    ("item address outside its area", ["--config", "{config}"], ("- D_W:100..109", "- D_W:8000"), 2,
     "line1.yaml:12: items: \"D_W:8000\""),
    ("unknown option", ["--config", "{config}", "--bogus"], None, 2, "--bogus"),
    ("no configuration", [], None, 2, "--config"),
    ("--config without its file", ["--config"], None, 2, "--config"),
    ("configuration file missing", ["--config", "/nonexistent/line9.yaml"], None, 2, "line9.yaml"),
    ("driver missing", ["--config", "{config}", "--driver", "/nonexistent/librtuplc.so"], None, 3,
     "/nonexistent/librtuplc.so"),
    ("driver not a library", ["--config", "{config}", "--driver", "{password}"], None, 3, "password"),
]


class Configuration(h.GatewayTestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="rtuplc-config-")
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.password_file = os.path.join(self.folder, "password")
        with open(self.password_file, "w") as f:
            f.write(SECRET + "\n")

    def fill(self, text):
        # Nothing listens on these ports: a gateway that opened anything would hang there.
        return (text.replace("@LINE_PORT@", str(h.free_port())).replace("@BROKER_PORT@", str(h.free_port()))
                .replace("@PASSWORD_FILE@", self.password_file))

    def run_gateway(self, args, text=None):
        path = os.path.join(self.folder, "line1.yaml")
        if text is not None:
            with open(path, "w") as f:
                f.write(text)
        args = [a.replace("{config}", path).replace("{password}", self.password_file) for a in args]
        # A gateway still running after RUN_TIMEOUT opened something: the test errs.
        done = subprocess.run([h.GATEWAY] + args, capture_output=True, text=True, timeout=RUN_TIMEOUT,
                              stdin=subprocess.DEVNULL)
        return done.returncode, done.stdout, done.stderr

    def test_refusals_exit_with_their_code_and_say_where_and_why(self):
        for what, args, spoil, code, words in ROWS:
            with self.subTest(what):
                text = self.fill(GOOD.replace(*spoil, 1) if spoil else GOOD)
                got, out, err = self.run_gateway(args, text)
                self.assertEqual(got, code, err)
                self.assertTrue(err.startswith("rtuplc-gateway: "), err)
                self.assertIn(words, err)
                self.assertNotIn(SECRET, err + out)

    def test_check_prints_the_plan_without_broker_or_line(self):
        code, out, err = self.run_gateway(["--config", "{config}", "--check"], self.fill(GOOD))
        self.assertEqual(code, 0, err)
        plan = out + err
        lines = {l.split()[0]: l for l in plan.splitlines() if l.strip().startswith("rtuplc/")}
        # (topic, shown as writable)
        for topic, writable in (("1/D_W/100", False), ("1/D_W/109", False), ("2/M/15", False),
                                ("1/D_W/500", True), ("1/D_W/504", True)):
            with self.subTest(topic):
                self.assertIn("rtuplc/line1/" + topic, lines, plan)
                self.assertEqual("writable" in lines["rtuplc/line1/" + topic], writable)
        self.assertNotIn(SECRET, plan)


if __name__ == "__main__":
    h.main()
