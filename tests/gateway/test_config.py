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


def replace(old, new):
    return lambda text: text.replace(old, new, 1)


# What only the binary shows, the loader's own refusals being tabled in config_test.cpp:
# the message's file:line and key, and the items the driver itself reads and refuses.
# (what is wrong, how to spoil the good file, a key or text the message names, the line)
BAD_FILES = [
    ("unknown key of mqtt", replace("  qos: 1\n", "  qos: 1\n  tpoic: x\n"), "tpoic", 9),
    ("unreadable password file", replace("password-file: ", "password-file: /nonexistent/"), "password-file",
     10),
    ("item text unreadable", replace("- D_W:100..109", "- D_W:abc"), "D_W:abc", 12),
    ("item of an unknown area", replace("- D_W:100..109", "- Q:1"), "Q:1", 12),
    ("item address outside its area", replace("- D_W:100..109", "- D_W:8000"), "D_W:8000", 12),
    ("item address not octal", replace("- D_W:100..109", "- X:18"), "X:18", 12),
    ("item station out of range", replace("- M:0..15@2", "- M:0..15@248"), "M:0..15@248", 13),
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
        args = [a.replace("{config}", path) for a in args]
        # A gateway still running after RUN_TIMEOUT opened something: the test errs.
        done = subprocess.run([h.GATEWAY] + args, capture_output=True, text=True, timeout=RUN_TIMEOUT,
                              stdin=subprocess.DEVNULL)
        return done.returncode, done.stdout, done.stderr

    def test_bad_files_are_refused_with_where_and_why(self):
        for what, spoil, named, line in BAD_FILES:
            with self.subTest(what):
                code, out, err = self.run_gateway(["--config", "{config}"], self.fill(spoil(GOOD)))
                self.assertEqual(code, 2, "exit code; stderr:\n" + err)
                self.assertTrue(err.startswith("rtuplc-gateway: "), err)
                self.assertIn("line1.yaml:%d: " % line, err)
                self.assertIn(named, err)
                self.assertNotIn(SECRET, err + out)

    def test_command_line(self):
        good = self.fill(GOOD)
        # (what, arguments, exit code, words on standard error)
        rows = [
            ("unknown option", ["--config", "{config}", "--bogus"], 2, "--bogus"),
            ("no configuration", [], 2, "--config"),
            ("--config without its file", ["--config"], 2, "--config"),
            ("configuration file missing", ["--config", "/nonexistent/line9.yaml"], 2, "line9.yaml"),
            ("driver missing", ["--config", "{config}", "--driver", "/nonexistent/librtuplc.so"], 3,
             "/nonexistent/librtuplc.so"),
            ("driver not a library", ["--config", "{config}", "--driver", self.password_file], 3, "password"),
        ]
        for what, args, code, words in rows:
            with self.subTest(what):
                got, out, err = self.run_gateway(args, good)
                self.assertEqual(got, code, err)
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
