"""A line on loopback, for the gateway's end-to-end tests and its benchmark alike: a
mosquitto broker of its own, the controller simulator under control, the gateway
itself and MQTT subscribers.

Every process is started on loopback, bounded in time, and ended by cleanup() even
when a test fails. The binaries come from the environment: RTUPLC_GATEWAY, RTUPLC_SIM
and RTUPLC_DRIVER (CTest sets them; the benchmark from its build directory).
"""

import json
import os
import pwd
import queue
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

import paho.mqtt.client as mqtt
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

GATEWAY = os.environ.get("RTUPLC_GATEWAY", "")
SIM = os.environ.get("RTUPLC_SIM", "")
DRIVER = os.environ.get("RTUPLC_DRIVER", "")
MOSQUITTO = "/usr/sbin/mosquitto"
MOSQUITTO_PASSWD = "/usr/bin/mosquitto_passwd"
LOOPBACK = "127.0.0.1"

START_TIMEOUT = 10.0   # s for a process to be up, a broker to listen, a first value
ANSWER_TIMEOUT = 5.0   # s for an MQTT message or a simulator answer
STOP_TIMEOUT = 5.0     # s for a process to end after SIGTERM
SESSION_EXPIRY = 300   # s a persistent subscriber's session outlives it
LINE_PAUSE_MS = 2      # between exchanges on the line
# The line's time-outs and probing in base_config: a silent station noticed within a
# second and tried again twice a second. Keys as the gateway's line: and rtuplc-poll's options.
LINE_TIMING = {"timeout": 100, "retries": 2, "probe-interval": "500ms", "probe-max": "1s"}

# Accounts of the broker; the gateway's own may read and write its topics, the
# reader only reads them, the operator reads them and publishes write requests.
USERS = {"gateway": "gw-Secret-4711", "reader": "rd-Secret-0815", "operator": "op-Secret-2342"}


def free_port():
    """A TCP port free on loopback right now."""
    with socket.socket() as s:
        s.bind((LOOPBACK, 0))
        return s.getsockname()[1]


def wait_until(condition, timeout, step=0.02):
    """Polls condition() until it is true (returned) or timeout passes (None)."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() >= deadline:
            return None
        time.sleep(step)


def port_open(port, host=LOOPBACK):
    try:
        with socket.create_connection((host, port), timeout=0.2):
            return True
    except OSError:
        return False


def end_process(proc, timeout=STOP_TIMEOUT):
    """SIGTERM, then SIGKILL if it lingers; returns the exit code."""
    if proc is None:
        return None
    if proc.poll() is None:
        proc.send_signal(signal.SIGTERM)
        try:
            proc.wait(timeout)
        except subprocess.TimeoutExpired:
            proc.kill()
            proc.wait(timeout)
    return proc.returncode


def pattern_register(station, address):
    """What the simulator's pattern fill puts in a holding register."""
    return (address + 1000 * (station - 1)) & 0xFFFF


def pattern_coil(station, address):
    """What the simulator's pattern fill puts in a coil: the parity of its bits."""
    return bin(address + station - 1).count("1") & 1


def pattern_reg32(station, address):
    """A 32-bit value over two pattern registers, the high half first."""
    return pattern_register(station, address) << 16 | pattern_register(station, address + 1)


class LineReader:
    """Collects a stream's lines on a thread, for waiting on one without blocking."""

    def __init__(self, stream):
        self.lines = []
        self.queue = queue.Queue()
        self._lock = threading.Lock()
        self._thread = threading.Thread(target=self._read, args=(stream,), daemon=True)
        self._thread.start()

    def _read(self, stream):
        for line in stream:
            line = line.rstrip("\n")
            with self._lock:
                self.lines.append(line)
            self.queue.put(line)

    def finish(self, timeout=STOP_TIMEOUT):
        """Waits for the end of the stream, once its process is gone."""
        self._thread.join(timeout)

    def text(self):
        with self._lock:
            return "\n".join(self.lines)

    def next(self, timeout=ANSWER_TIMEOUT):
        return self.queue.get(timeout=timeout)

    def wait_for(self, predicate, timeout=ANSWER_TIMEOUT):
        """The first line (seen so far or coming) for which predicate holds, else None."""
        return wait_until(lambda: next((l for l in list(self.lines) if predicate(l)), None), timeout)


class Broker:
    """mosquitto in a temporary directory: a plain listener, optionally a TLS one,
    accounts with passwords, an ACL, and persistence that survives a restart."""

    def __init__(self, tls=False, require_certificate=False, log_every_message=True, max_inflight=1000):
        self.dir = tempfile.mkdtemp(prefix="rtuplc-broker-")
        # The tests read every message in the log when one fails; a benchmark's broker
        # logs what a plant's does, not a few lines per message.
        self.log_types = ["all"] if log_every_message else ["error", "warning", "notice"]
        self.port = free_port()
        self.tls = tls
        self.tls_port = free_port() if tls else None
        self.require_certificate = require_certificate
        self.max_inflight = max_inflight  # None: mosquitto's own default, 20
        self.proc = None
        self.certs = make_certificates(self.dir) if tls else None
        self._write_files()

    def path(self, name):
        return os.path.join(self.dir, name)

    def _write_files(self):
        for n, (user, password) in enumerate(USERS.items()):
            create = ["-c"] if n == 0 else []
            subprocess.run([MOSQUITTO_PASSWD, "-b"] + create + [self.path("passwd"), user, password], check=True,
                           timeout=START_TIMEOUT, capture_output=True)
        # The Sparkplug and discovery namespaces are open to every account.
        shared = "topic readwrite spBv1.0/#\ntopic readwrite homeassistant/#\n\n"
        with open(self.path("acl"), "w") as f:
            f.write("user gateway\ntopic readwrite rtuplc/#\n" + shared +
                    "user reader\ntopic read rtuplc/#\n" + shared +
                    "user operator\ntopic read rtuplc/#\ntopic write rtuplc/+/+/+/+/set\n"
                    "topic readwrite rtuplc/replies/#\n" + shared)
        lines = [
            # Run as root, mosquitto would become user mosquitto, who cannot read this folder.
            "user " + pwd.getpwuid(os.getuid()).pw_name,
            "per_listener_settings false",
            "allow_anonymous false",
            "password_file " + self.path("passwd"),
            "acl_file " + self.path("acl"),
            # As a plant's broker for a busy line is set up: QoS 1 messages flow in a
            # window wider than mosquitto's 20, and a slow subscriber's queue is not cut.
        ] + (["max_inflight_messages %d" % self.max_inflight] if self.max_inflight else []) + [
            "max_queued_messages 0",
            "persistence true",
            "persistence_location " + self.dir + "/",
            "log_dest file " + self.path("mosquitto.log"),
        ] + ["log_type " + t for t in self.log_types] + [
            "listener %d %s" % (self.port, LOOPBACK),
        ]
        if self.tls:
            lines += [
                "listener %d %s" % (self.tls_port, LOOPBACK),
                "cafile " + self.certs["ca"],
                "certfile " + self.certs["server_cert"],
                "keyfile " + self.certs["server_key"],
                "require_certificate " + ("true" if self.require_certificate else "false"),
            ]
        with open(self.path("mosquitto.conf"), "w") as f:
            f.write("\n".join(lines) + "\n")

    def start(self):
        self.proc = subprocess.Popen([MOSQUITTO, "-c", self.path("mosquitto.conf")],
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        ports = [self.port] + ([self.tls_port] if self.tls else [])
        if not wait_until(lambda: all(port_open(p) for p in ports), START_TIMEOUT):
            raise RuntimeError("mosquitto did not listen on %s; its log:\n%s" % (ports, self.log()))
        return self

    def stop(self):
        """SIGTERM: mosquitto saves its persistent sessions and retained messages."""
        end_process(self.proc)
        self.proc = None

    def restart(self):
        self.stop()
        return self.start()

    def url(self, tls=False, host=LOOPBACK):
        return "mqtts://%s:%d" % (host, self.tls_port) if tls else "mqtt://%s:%d" % (host, self.port)

    def log(self):
        try:
            with open(self.path("mosquitto.log")) as f:
                return f.read()
        except OSError:
            return ""

    def cleanup(self):
        self.stop()
        shutil.rmtree(self.dir, ignore_errors=True)


def make_certificates(folder):
    """A CA, a server certificate for 127.0.0.1 and localhost, and a client
    certificate, all signed by that CA; elliptic keys, because they are quick."""
    def path(name):
        return os.path.join(folder, name)

    def openssl(*args):
        subprocess.run(["openssl"] + list(args), check=True, timeout=START_TIMEOUT, capture_output=True)

    key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"]
    openssl("req", "-x509", *key, "-keyout", path("ca.key"), "-out", path("ca.pem"), "-days", "2",
            "-subj", "/CN=rtuplc test CA")
    with open(path("server.ext"), "w") as f:
        f.write("subjectAltName=IP:127.0.0.1,DNS:localhost\n")
    for who, ext in (("server", ["-extfile", path("server.ext")]), ("client", [])):
        openssl("req", *key, "-keyout", path(who + ".key"), "-out", path(who + ".csr"), "-subj", "/CN=" + who)
        openssl("x509", "-req", "-in", path(who + ".csr"), "-CA", path("ca.pem"), "-CAkey", path("ca.key"),
                "-CAcreateserial", "-out", path(who + ".pem"), "-days", "2", *ext)
    return {"ca": path("ca.pem"), "server_cert": path("server.pem"), "server_key": path("server.key"),
            "client_cert": path("client.pem"), "client_key": path("client.key")}


class Simulator:
    """rtuplc-sim on a free loopback port, driven through --control."""

    def __init__(self, stations=(1,), extra_args=()):
        station_list = ",".join(str(s) for s in stations)
        self.proc = subprocess.Popen([SIM, "--tcp", "0", "--control", "--station", station_list] + list(extra_args),
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                     text=True, bufsize=1)
        self.out = LineReader(self.proc.stdout)
        self._lock = threading.Lock()
        # Where it serves, then the station line, the last before the answers to commands.
        try:
            while not (line := self.out.next(START_TIMEOUT)).startswith("rtuplc-sim: station "):
                if line.startswith("rtuplc-sim: serving tcp "):
                    self.port = int(line.rsplit(":", 1)[1])
        except queue.Empty:
            raise RuntimeError("rtuplc-sim did not start: " + self.out.text()) from None

    def command(self, text):
        """Sends one command and returns its one-line answer; an error raises."""
        with self._lock:
            self.proc.stdin.write(text + "\n")
            self.proc.stdin.flush()
            answer = self.out.next()
        if answer.startswith("error:"):
            raise RuntimeError("rtuplc-sim %r: %s" % (text, answer))
        return answer

    def set(self, station, register, value):
        self.command("set %d %d %d" % (station, register, value))

    def set32(self, station, register, value):
        """Both halves at once, so that no read sees one changed and not the other."""
        self.command("set %d %d %d %d" % (station, register, value >> 16 & 0xFFFF, value & 0xFFFF))

    def coil(self, station, address, on):
        self.command("coil %d %d %d" % (station, address, 1 if on else 0))

    def get(self, station, register):
        return int(self.command("get %d %d" % (station, register)))

    def get_coil(self, station, address):
        return int(self.command("get-coil %d %d" % (station, address)))

    def stations(self, *stations):
        self.command("stations " + ",".join(str(s) for s in stations))

    def refuse(self, station, space, first, count, code):
        self.command("refuse %d %s %d %d %d" % (station, space, first, count, code))

    def accept(self, station):
        self.command("accept %d" % station)

    def counters(self):
        """{"requests": n, "replies": n, "exceptions": n, "writes": n}"""
        words = self.command("counters").split()
        return {words[i]: int(words[i + 1]) for i in range(0, len(words), 2)}

    def cleanup(self):
        if self.proc.poll() is None:
            self.proc.stdin.close()  # the end of its input stops it
            try:
                self.proc.wait(STOP_TIMEOUT)
            except subprocess.TimeoutExpired:
                end_process(self.proc)
        self.out.finish()
        self.proc.stdout.close()


def base_config(broker, sim, items, name="line1", user="gateway", **mqtt_keys):
    """A configuration for `sim` on `broker` with short time-outs, so that a silent
    station is noticed within a second, and tried again twice a second."""
    folder = tempfile.mkdtemp(prefix="rtuplc-gw-")
    mqtt_section = {"url": broker.url() if broker else "mqtt://127.0.0.1:%d" % free_port(),
                    "stats-interval": 1, "keepalive": 5}
    if user:
        password_file = os.path.join(folder, "password")
        with open(password_file, "w") as f:
            f.write(USERS[user] + "\n")
        mqtt_section.update({"username": user, "password-file": password_file})
    mqtt_section.update(mqtt_keys)
    # A short pause between exchanges: polling flat out on loopback would take a core
    # from the broker and the test itself on a two-core machine.
    line = {"tcp": "%s:%d" % (LOOPBACK, sim.port if sim else free_port()), "station": 1, "pause": LINE_PAUSE_MS}
    line.update(LINE_TIMING)
    return folder, {"name": name, "line": line, "mqtt": mqtt_section, "items": list(items)}


class Gateway:
    """rtuplc-gateway on a configuration written to a file of its own."""

    def __init__(self, folder, config, args=(), env=None):
        self.folder = folder
        self.config_path = os.path.join(folder, "line1.yaml")
        with open(self.config_path, "w") as f:
            json.dump(config, f, indent=2)  # YAML reads JSON
        # Its state (a Sparkplug node's bdSeq) in its own folder, as the service's in its
        # StateDirectory, unless the test gives one.
        self.proc = subprocess.Popen([GATEWAY, "--config", self.config_path] + list(args),
                                     env=dict(os.environ, **dict({"STATE_DIRECTORY": folder}, **(env or {}))), stdin=subprocess.DEVNULL,
                                     stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.out = LineReader(self.proc.stdout)
        self.err = LineReader(self.proc.stderr)

    def running(self):
        return self.proc.poll() is None

    def stop(self):
        return end_process(self.proc)

    def kill(self):
        self.proc.kill()
        self.proc.wait(STOP_TIMEOUT)

    def wait_exit(self, timeout=STOP_TIMEOUT):
        try:
            return self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            return None

    def log(self):
        """Standard error so far, after the reader has caught up."""
        time.sleep(0.05)
        return self.err.text()

    def cleanup(self):
        if self.proc.poll() is None:
            self.kill()
        for reader, stream in ((self.out, self.proc.stdout), (self.err, self.proc.stderr)):
            reader.finish()
            stream.close()
        shutil.rmtree(self.folder, ignore_errors=True)  # base_config() made it


class Message:
    def __init__(self, m):
        self.topic = m.topic
        self.payload = m.payload.decode("utf-8", "replace")
        self.raw = m.payload
        self.retain = bool(m.retain)
        self.qos = m.qos
        self.properties = getattr(m, "properties", None)
        self.time = time.monotonic()

    def json(self):
        return json.loads(self.payload)

    def __repr__(self):
        return "%s %s%s" % (self.topic, self.payload, " (retained)" if self.retain else "")


class Subscriber:
    """An MQTT 5 client on its own network thread that keeps every message it
    receives, in order."""

    def __init__(self, broker, topics, user="reader", client_id=None, persistent=False, qos=1, skip_retained=False):
        self.broker = broker
        # Retained messages the broker hands over on subscribing tell what an earlier
        # gateway left behind; a test that follows a new one's life skips them.
        self.skip_retained = skip_retained
        self.topics = [topics] if isinstance(topics, str) else list(topics)
        self.qos = qos
        self.messages = []
        self.cond = threading.Condition()
        self.connected = threading.Event()
        self.persistent = persistent
        self.client = mqtt.Client(client_id=client_id or "test-%d-%d" % (os.getpid(), id(self)),
                                  protocol=mqtt.MQTTv5)
        self.client.username_pw_set(user, USERS[user])
        self.client.on_connect = self._on_connect
        self.client.on_message = self._on_message
        self.client.on_subscribe = self._on_subscribe
        self.client.reconnect_delay_set(min_delay=1, max_delay=1)
        self.reconnect()

    def reconnect(self):
        props = Properties(PacketTypes.CONNECT)
        if self.persistent:
            props.SessionExpiryInterval = SESSION_EXPIRY
        self.client.connect_async(LOOPBACK, self.broker.port, keepalive=5, clean_start=not self.persistent,
                                  properties=props)
        self.client.loop_start()
        if not self.connected.wait(START_TIMEOUT):
            raise RuntimeError("test client could not connect to the broker")

    def _on_connect(self, client, userdata, flags, rc, properties=None):
        if rc == 0:
            # A persistent session keeps its subscriptions; asking again is harmless.
            client.subscribe([(t, self.qos) for t in self.topics])

    def _on_subscribe(self, client, userdata, mid, reason_codes, properties=None):
        # Ready only once subscribed: what the gateway publishes from now on is seen.
        self.connected.set()

    def _on_message(self, client, userdata, m):
        with self.cond:
            self.messages.append(Message(m))
            self.cond.notify_all()

    def mark(self):
        """The index of the next message, for waiting on what comes after now."""
        with self.cond:
            return len(self.messages)

    def since(self, start=0, topic=None, retained=None):
        retained = not self.skip_retained if retained is None else retained
        with self.cond:
            return [m for m in self.messages[start:]
                    if (topic is None or m.topic == topic) and (retained or not m.retain)]

    def wait_for(self, topic, predicate=lambda m: True, timeout=ANSWER_TIMEOUT, since=0, retained=None):
        """The first message on `topic` from index `since` on for which predicate
        holds; None when none came in time."""
        with self.cond:
            return self.cond.wait_for(lambda: next((m for m in self.since(since, topic, retained) if predicate(m)),
                                                   None), timeout)

    def last(self, topic, since=0):
        found = self.since(since, topic)
        return found[-1] if found else None

    def publish(self, topic, payload, qos=1, properties=None, retain=False):
        info = self.client.publish(topic, payload, qos=qos, retain=retain, properties=properties)
        info.wait_for_publish(ANSWER_TIMEOUT)

    def disconnect(self):
        self.client.disconnect()
        self.client.loop_stop()
        self.connected.clear()

    def cleanup(self):
        try:
            self.client.disconnect()
        finally:
            self.client.loop_stop()


def retained_state(broker, prefix, quiet=0.5, timeout=ANSWER_TIMEOUT):
    """{topic: payload} of the retained messages under prefix, read by a fresh client
    until none came for `quiet` seconds (a busy machine hands them over slowly)."""
    sub = Subscriber(broker, prefix + "/#", user="reader")
    try:
        deadline = time.monotonic() + timeout
        seen = -1
        while seen != sub.mark() and time.monotonic() < deadline:
            seen = sub.mark()
            time.sleep(quiet)
        return {m.topic: m.payload for m in sub.since(retained=True) if m.retain}
    finally:
        sub.cleanup()


def retained_values(broker, prefix, topics):
    """{topic: retained value} for these topics under prefix: a value message's value,
    else the payload; None for a topic with nothing retained."""
    state = retained_state(broker, prefix)
    payloads = {t: state.get(prefix + "/" + t) for t in topics}
    return {t: json.loads(p)["value"] if p and p.startswith("{") else p for t, p in payloads.items()}


def value_of(message):
    """The value field of a value message, or None for a missing one."""
    return None if message is None else message.json().get("value")
