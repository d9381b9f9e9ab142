"""The gateway's Modbus server against masters nobody here wrote: mbpoll (on libmodbus's
TCP client), pymodbus's TCP, RTU-over-TCP, TLS and serial clients, and rtuplc-poll
through the rtu-over-tcp listener, on a line that loses, corrupts, doubles and delays
replies, while the gateway publishes to its broker. Every answer is the controller's,
for the request that asked; what may not reach the line never does; no master, however
rude, harms another or the line."""

import asyncio
import contextlib
import inspect
import json
import logging
import os
import random
import select
import signal
import socket
import ssl
import struct
import subprocess
import threading
import time
import tty

import harness as h
from pymodbus.client import AsyncModbusTlsClient, ModbusSerialClient, ModbusTcpClient
from pymodbus.exceptions import ModbusException
from pymodbus.framer.rtu_framer import ModbusRtuFramer
from pymodbus.framer.socket_framer import ModbusSocketFramer
from pymodbus.utilities import computeCRC

P = "rtuplc/line1"
POLL = os.environ.get("RTUPLC_POLL", "")
ITEMS = [{"item": "D_W:100..109", "writable": True}, "D_W:110..119", "D_D:200..203",
         {"item": "M:0..31", "writable": True}, "X:0..17", "D_W:300..309@2"]
# The line: paced like a fast serial line, and faulty. A reply lost, cut, doubled, from
# another station, of another function or too late is never anybody's answer. (Each
# time-out costs the line a few hundred ms: a percent of faults halves its pace.)
LINE = ["--pace", "--line", "115200,8,EVEN,1", "--seed", "27", "--drop", "0.002", "--corrupt", "0.002", "--noise",
        "0.002", "--split", "0.05", "--double", "0.005", "--foreign", "0.002", "--wrong-function", "0.002", "--late",
        "0.002", "--late-by", "300"]
LINE_TIMEOUT_MS = 150
# After a late reply the gateway keeps the line quiet for a second or so after each
# time-out: values are served from the cache that long.
MAX_AGE = 3.0
IDLE = 2.0      # s: modbus-server.idle-timeout
AT_ONCE = 0.1   # s: an answer that took no line time (a silent station costs LINE_TIMEOUT_MS)
TRIES = 10      # a master tries again after a 0B
SILENT = ("silent",)
TCP_ESTABLISHED = 1  # the first byte of TCP_INFO
OFFLINE, PATH, ADDRESS = ("exception", 0x0B), ("exception", 0x0A), ("exception", 2)
logging.getLogger("pymodbus").setLevel(logging.CRITICAL)


class NullModem:
    """Two pseudo-terminals wired to each other, as a null-modem cable: the gateway's
    serial listener on one, an RTU master on the other."""

    def __init__(self):
        self.ends = [os.openpty() for _ in range(2)]
        for master, _ in self.ends:
            tty.setraw(master)
        self.paths = [os.ttyname(slave) for _, slave in self.ends]
        self.stop_r, self.stop_w = os.pipe()
        self.thread = threading.Thread(target=self._carry, daemon=True)
        self.thread.start()

    def _carry(self):
        a, b = self.ends[0][0], self.ends[1][0]
        while self.stop_r not in (ready := select.select([a, b, self.stop_r], [], [])[0]):
            for fd in ready:
                try:
                    os.write(b if fd == a else a, os.read(fd, 4096))
                except OSError:
                    time.sleep(0.01)  # an end closed for now: the other reopens it

    def cleanup(self):
        os.write(self.stop_w, b"x")
        self.thread.join()
        for fd in [self.stop_r, self.stop_w] + [fd for end in self.ends for fd in end]:
            os.close(fd)


def pymodbus_answer(r, op, count):
    """What a pymodbus client's call got, as ("ok", values), ("exception", code) or SILENT."""
    if r is None or isinstance(r, Exception) or not hasattr(r, "isError"):
        return SILENT
    if r.isError():
        return ("exception", r.exception_code)
    if op == "read-registers":
        return ("ok", list(r.registers))
    return ("ok", [int(b) for b in r.bits[:count]]) if op == "read-coils" else ("ok", None)


def pymodbus_call(client, op, station, address, arg):
    calls = {"read-registers": lambda: client.read_holding_registers(address, arg, slave=station),
             "read-coils": lambda: client.read_coils(address, arg, slave=station),
             "write-register": lambda: client.write_register(address, arg[0], slave=station),
             "write-registers": lambda: client.write_registers(address, arg, slave=station),
             "write-coil": lambda: client.write_coil(address, bool(arg[0]), slave=station),
             "write-coils": lambda: client.write_coils(address, [bool(v) for v in arg], slave=station)}
    return calls[op]


async def done(result):
    """What a client's call gave, awaited when the client is an asyncio one."""
    return await result if inspect.isawaitable(result) else result


class Pymodbus:
    """A pymodbus client, connected for each request; the asyncio one when `make` makes
    one (its TLS client copes with what TLS 1.3 sends after the handshake)."""

    def __init__(self, name, make):
        self.name, self.make = name, make

    def __call__(self, op, station, address, arg):
        return asyncio.run(self.ask(self.make(), op, station, address, arg))

    async def ask(self, client, op, station, address, arg):
        await done(client.connect())
        try:
            began = time.monotonic()
            try:
                r = await done(pymodbus_call(client, op, station, address, arg)())
            except (ModbusException, asyncio.TimeoutError) as e:
                r = e
            self.took = time.monotonic() - began  # the request alone, without connecting
            return pymodbus_answer(r, op, arg)
        finally:
            await close(client)


async def close(client):
    """Closes a client; an asyncio one's connection is let end (TLS says goodbye first)."""
    await done(client.close())
    for _ in range(100):
        if not (getattr(client, "protocol", None) and client.protocol.transport):
            return
        await asyncio.sleep(0.01)


class PortMaster:
    def __init__(self, port):
        self.port = port


class Mbpoll(PortMaster):
    name = "mbpoll TCP"
    EXCEPTIONS = {"Illegal function": 1, "Illegal data address": 2, "Illegal data value": 3,
                  "Slave device or server is busy": 6, "Gateway path unavailable": 0x0A,
                  "Target device failed to respond": 0x0B}

    def command(self, op, station, address, arg, polls=("-1",)):
        """mbpoll's arguments: one request, unless polls says how often to repeat it."""
        args = ["mbpoll", "-m", "tcp", "-p", str(self.port), "-a", str(station), "-r", str(address), "-0", *polls,
                "-o", "2", "-t", "0" if "coil" in op else "4:hex"]
        return args + (["-c", str(arg), h.LOOPBACK] if op.startswith("read") else [h.LOOPBACK] + [str(v) for v in arg])

    def __call__(self, op, station, address, arg):
        run = subprocess.run(self.command(op, station, address, arg), capture_output=True, text=True, timeout=10)
        for text, code in self.EXCEPTIONS.items():
            if text in run.stderr:
                return ("exception", code)
        if run.returncode != 0:
            return SILENT
        if op.startswith("write"):
            return ("ok", None)
        return ("ok", [int(l.split(":")[1].strip(), 0) for l in run.stdout.splitlines() if l.startswith("[")])


class RtuplcPoll(PortMaster):
    """A panel running rtuplc, pointed at the gateway instead of the line: reads only."""
    name = "rtuplc-poll via rtu-over-tcp"

    def __call__(self, op, station, address, arg):
        if op == "read-registers":
            area, first = "D_W", address
        elif address >= 2000:
            area, first = "M", address - 2000
        else:
            area, first = "X", address - 1200
        fmt = "%o" if area == "X" else "%d"
        item = "%s:%s..%s@%d" % (area, fmt % first, fmt % (first + arg - 1), station)
        run = subprocess.run([POLL, "--tcp", "%s:%d" % (h.LOOPBACK, self.port), "--driver", h.DRIVER, "--once",
                              "--json", "--retries", "1", "--timeout", "1500", item],
                             capture_output=True, text=True, timeout=20)
        lines = [json.loads(l) for l in run.stdout.splitlines() if l.startswith("{")]
        if not lines or any("error" in l for l in lines):
            return OFFLINE  # the driver tells a 0B from silence no more than a panel needs to
        return ("ok", [l["value"] for l in sorted(lines, key=lambda l: l["address"])])


def mbap(tid, station, pdu):
    return struct.pack(">HHHB", tid, 0, len(pdu) + 1, station) + pdu


def crc(frame):
    return frame + struct.pack(">H", computeCRC(frame))  # pymodbus's, in the order it sends


def read_pdu(address, count):
    return struct.pack(">BHH", 3, address, count)


def closed_within(sock, seconds):
    """Whether the gateway closed the connection (or reset it) within `seconds`, told by
    the socket's state, without reading: a master that never reads must stay one."""
    deadline = time.monotonic() + seconds
    while sock.getsockopt(socket.IPPROTO_TCP, socket.TCP_INFO, 1)[0] == TCP_ESTABLISHED:
        if time.monotonic() >= deadline:
            return False
        time.sleep(0.02)
    return True


class ModbusServer(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(stations=(1, 2), topics=[P + "/#", "rtuplc/replies/#"], user="operator", extra_args=LINE)
        cls.cable = cls.keep(NullModem())
        folder, config = h.base_config(cls.broker, cls.sim, ITEMS)
        cls.certs = h.make_certificates(folder)
        cls.tcp, cls.rtu, cls.tls = h.free_port(), h.free_port(), h.free_port()
        config["line"].update({"timeout": LINE_TIMEOUT_MS, "retries": 4})
        config["modbus-server"] = {
            "tcp": "%s:%d" % (h.LOOPBACK, cls.tcp), "rtu-over-tcp": "%s:%d" % (h.LOOPBACK, cls.rtu),
            "serial": cls.cable.paths[0], "settings": "19200,8,EVEN,1",
            "tls": {"listen": "%s:%d" % (h.LOOPBACK, cls.tls), "cert": cls.certs["server_cert"],
                    "key": cls.certs["server_key"], "ca": cls.certs["ca"]},
            "writable": ["holding:100..109@1", "coils:2000..2015"], "max-age": "%gs" % MAX_AGE,
            "idle-timeout": "%gs" % IDLE}
        # Values a stale or misplaced answer would not show: above 32767, a pair apart.
        for i in range(10):
            cls.sim.set(1, 110 + i, 40000 + 7 * i)
        cls.sim.set32(1, 200, 0xDEADBEEF)
        cls.start_class_gateway(folder, config, P + "/status", P + "/1/D_W/119", P + "/2/D_W/309")
        tls = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        tls.load_verify_locations(cls.certs["ca"])
        tls.load_cert_chain(cls.certs["client_cert"], cls.certs["client_key"])
        cls.mbpoll = Mbpoll(cls.tcp)
        # pymodbus's own TLS framing leaves out the MBAP header; Modbus over TLS has it.
        cls.masters = [
            cls.mbpoll,
            Pymodbus("pymodbus TCP", lambda: ModbusTcpClient(h.LOOPBACK, cls.tcp, timeout=2, retries=0)),
            Pymodbus("pymodbus RTU over TCP", lambda: ModbusTcpClient(h.LOOPBACK, cls.rtu, framer=ModbusRtuFramer,
                                                                      timeout=2, retries=0)),
            Pymodbus("pymodbus TLS", lambda: AsyncModbusTlsClient(h.LOOPBACK, cls.tls, sslctx=tls,
                                                                  framer=ModbusSocketFramer, server_hostname=h.LOOPBACK,
                                                                  timeout=2, retries=0)),
            # A pseudo-terminal takes no parity; the bytes are the same.
            Pymodbus("pymodbus serial", lambda: ModbusSerialClient(port=cls.cable.paths[1], baudrate=19200,
                                                                   timeout=2, retries=0)),
            RtuplcPoll(cls.rtu),
        ]
        cls.by_name = {m.name: m for m in cls.masters}

    def controller(self, op, station, address, count):
        get = self.sim.get if op == "read-registers" else self.sim.get_coil
        return ("ok", [get(station, address + i) for i in range(count)])

    def ask(self, master, op, station, address, arg, expected=None):
        """A master's request, tried again as a master does after a 0B (the line lost it,
        or was kept quiet after a fault); every answer with values must be `expected`.
        Silence is never right: the gateway answers for every station it serves."""
        for _ in range(TRIES):
            answer = master(op, station, address, arg)
            if answer[0] == "ok" and expected is not None:
                self.assertEqual(answer, expected, "%s: %s %d@%d" % (master.name, op, address, station))
            if answer != OFFLINE:
                return answer
        return answer

    def counters(self):
        """The controller's count of executed writes and exceptions it answered: what
        the server refuses or rejects must move neither."""
        c = self.sim.counters()
        return c["writes"], c["exceptions"]

    def assert_serving(self):
        """Another master still gets the controller's values, at once."""
        expected = self.controller("read-registers", 1, 110, 10)
        self.assertEqual(self.ask(self.mbpoll, "read-registers", 1, 110, 10, expected), expected)

    # (what is read, function, station, address, count)
    READS = [
        ("cached registers", "read-registers", 1, 110, 10),
        ("a cached 32-bit pair, in the controller's word order", "read-registers", 1, 200, 4),
        ("cached coils (M)", "read-coils", 1, 2016, 16),
        ("cached inputs (X)", "read-coils", 1, 1200, 16),
        ("another station's registers", "read-registers", 2, 300, 10),
        ("registers nobody polls: read on the line", "read-registers", 1, 500, 20),
    ]

    def test_every_master_at_once_gets_the_controllers_values(self):
        failures = []

        def run(master, offset):
            for _ in range(2):
                for what, op, station, address, count in self.READS:
                    # Each master its own registers on the line: an answer gone to
                    # another shows.
                    address += offset if address >= 500 else 0
                    expected = self.controller(op, station, address, count)
                    try:
                        answer = self.ask(master, op, station, address, count, expected)
                    except AssertionError as e:
                        answer = str(e)
                    if answer != expected:
                        failures.append("%s, %s: %s" % (master.name, what, answer))

        threads = [threading.Thread(target=run, args=(m, 20 * i)) for i, m in enumerate(self.masters)]
        for t in threads:
            t.start()
        mark = self.sub.mark()
        self.sim.set(1, 105, 4242)
        self.assertIsNotNone(self.sub.wait_for(P + "/1/D_W/105", lambda m: m.json()["value"] == 4242, since=mark),
                             "the broker gets the change while masters read")
        for t in threads:
            t.join(120)
        self.assertEqual(failures, [])

    def test_a_write_acknowledged_shows_in_the_next_read_and_on_the_broker(self):
        # (writer, function, address, values, reader, topic of the first value)
        rows = [
            ("pymodbus TCP", "write-register", 105, [12345], "mbpoll TCP", "1/D_W/105"),
            ("mbpoll TCP", "write-registers", 100, [1, 65535, 3], "pymodbus TCP", "1/D_W/101"),
            ("mbpoll TCP", "write-coils", 2000, [1, 0, 1, 1], "pymodbus RTU over TCP", "1/M/0"),
            ("pymodbus TLS", "write-coil", 2005, [1 - self.sim.get_coil(1, 2005)], "pymodbus serial", "1/M/5"),
            ("pymodbus serial", "write-registers", 106, [7, 8], "pymodbus TLS", "1/D_W/106"),
        ]
        for writer, op, address, values, reader, topic in rows:
            with self.subTest(writer=writer, op=op):
                mark = self.sub.mark()
                self.assertEqual(self.ask(self.by_name[writer], op, 1, address, values), ("ok", None))
                read = "read-coils" if "coil" in op else "read-registers"
                expected = ("ok", values)
                # No answer shows the value from before an acknowledged write.
                self.assertEqual(self.ask(self.by_name[reader], read, 1, address, len(values), expected), expected)
                self.assertEqual(self.controller(read, 1, address, len(values)), expected)
                shown = values[1] if topic.endswith("/101") else values[0]
                self.assertIsNotNone(self.sub.wait_for(P + "/" + topic, lambda m: m.json()["value"] == shown,
                                                       since=mark), "the broker shows the write as any change")
        # A write from the broker, then at once a read through the server.
        mark = self.sub.mark()
        self.sub.publish(P + "/1/D_W/108/set", "31337")
        result = self.sub.wait_for(P + "/1/D_W/108/result", since=mark)
        self.assertIsNotNone(result)
        self.assertEqual(self.ask(self.mbpoll, "read-registers", 1, 108, 1, ("ok", [31337])), ("ok", [31337]))

    def test_nothing_older_than_max_age_is_served(self):
        # From now on the controller refuses the block: its last values age in the cache,
        # and once older than max-age a master gets the controller's refusal instead.
        before = self.controller("read-registers", 1, 110, 10)
        self.sim.refuse(1, "registers", 110, 10, 2)
        refused = time.monotonic()
        self.addCleanup(self.sim.accept, 1)
        answers = set()
        while time.monotonic() < refused + MAX_AGE + 1.0:
            asked = time.monotonic()  # it is answered after this
            answer = self.mbpoll("read-registers", 1, 110, 10)
            answers.add(answer[0])
            late = asked > refused + MAX_AGE + 0.05
            self.assertIn(answer, (ADDRESS, OFFLINE) if late else (before, ADDRESS, OFFLINE))
            time.sleep(0.2)
        self.assertEqual(answers & {"ok", "exception"}, {"ok", "exception"}, "served from the cache, then refused")

    def test_the_stats_topic_counts_the_masters_requests(self):
        with socket.create_connection((h.LOOPBACK, self.tcp), timeout=5):  # a master connected meanwhile
            self.assert_serving()
            mark = self.sub.mark()
            stats = self.sub.wait_for(P + "/stats", lambda m: m.json().get("modbus_server", {}).get("masters", 0) >= 1,
                                      since=mark)
        self.assertIsNotNone(stats, "the stats topic carries the server's figures")
        figures = stats.json()["modbus_server"]
        self.assertGreater(figures["requests"]["03"], 0)
        self.assertGreater(figures["from_cache"], 0)
        self.assertGreater(figures["hit_ratio"], 0)

    def test_writes_outside_writable_are_refused_without_line_traffic(self):
        # (what, master, function, station, address, values)
        rows = [
            ("a polled register not listed", "mbpoll TCP", "write-register", 1, 110, [1]),
            ("a block over the range's end", "pymodbus TCP", "write-registers", 1, 108, [1, 2, 3]),
            ("a block over the range's start", "mbpoll TCP", "write-registers", 1, 99, [1, 2]),
            ("the range, at another station", "pymodbus TLS", "write-register", 2, 100, [1]),
            ("a coil past the range", "pymodbus RTU over TCP", "write-coil", 1, 2016, [1]),
            ("coils, on the serial listener", "pymodbus serial", "write-coils", 2, 2020, [1, 1]),
        ]
        for what, master, op, station, address, values in rows:
            with self.subTest(what, master=master):
                before = self.counters()
                self.assertEqual(self.by_name[master](op, station, address, values), ADDRESS)
                self.assertEqual(self.counters(), before, "nothing reached the line")

    def test_unknown_and_offline_stations(self):
        for master in self.masters[:5]:
            rtu = "RTU" in master.name or "serial" in master.name
            with self.subTest("unknown station", master=master.name):
                # On TCP the gateway says so; on RTU, as on a line, nobody answers.
                self.assertEqual(master("read-registers", 9, 110, 1), SILENT if rtu else PATH)
        mark = self.sub.mark()
        self.sim.stations(1)
        self.addCleanup(self.sub.wait_for, P + "/2/status", lambda m: m.payload == "online", h.START_TIMEOUT)
        self.addCleanup(self.sim.stations, 1, 2)
        # Each failed try costs the line its time-out and the quiet after it.
        self.assertIsNotNone(self.sub.wait_for(P + "/2/status", lambda m: m.payload == "offline", 20, since=mark))
        for master in self.masters[:5]:
            with self.subTest("offline station", master=master.name):
                self.assertEqual(master("read-registers", 2, 500, 1), OFFLINE)
                if isinstance(master, Pymodbus):
                    self.assertLess(master.took, AT_ONCE, "at once, without the line's time-out")

    def test_rude_input_is_refused_and_never_reaches_the_line(self):
        mega = random.Random(27).randbytes(4 << 20)
        # One of each kind: every function's limits, an unknown function, and each way a
        # header is bad, are the request checks' unit tests (modbus_test.cpp).
        # (what, listener, bytes sent, what comes back: an exception, "closed" or "nothing")
        rows = [
            ("protocol id other than 0", "tcp", struct.pack(">HHHB", 1, 1, 6, 1) + read_pdu(110, 1), "closed"),
            ("length field longer than the request", "tcp", struct.pack(">HHHB", 1, 0, 9, 1) + read_pdu(110, 1) +
             b"\0\0\0", ("exception", 3, 3)),
            ("an HTTP request", "tcp", b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n", "closed"),
            ("megabytes of noise", "tcp", mega, "closed"),
            ("RTU: reading 126 registers", "rtu", crc(bytes([1]) + read_pdu(0, 126)), ("exception", 3, 3)),
            ("RTU: a frame with a bad CRC", "rtu", bytes([1]) + read_pdu(110, 1) + b"\0\0", "nothing"),
            ("RTU: megabytes of noise", "rtu", mega, "closed"),
            ("TLS without a client certificate", "tls-anonymous", mbap(1, 1, read_pdu(110, 1)), "closed"),
        ]
        for what, listener, data, expected in rows:
            with self.subTest(what):
                before = self.counters()
                port = {"tcp": self.tcp, "rtu": self.rtu}.get(listener, self.tls)
                sock = socket.create_connection((h.LOOPBACK, port), timeout=5)
                with contextlib.closing(sock):
                    try:
                        if listener == "tls-anonymous":
                            context = ssl.create_default_context(cafile=self.certs["ca"])
                            sock = context.wrap_socket(sock, server_hostname=h.LOOPBACK)
                            self.addCleanup(sock.close)
                        sock.sendall(data)
                    except OSError:
                        pass  # closed while it sent: the rest had nowhere to go
                    if expected == "closed":
                        self.assertTrue(closed_within(sock, 2.0), "the connection is closed")
                    elif expected == "nothing":
                        sock.settimeout(0.5)
                        self.assertRaises(socket.timeout, sock.recv, 64)
                    else:
                        sock.settimeout(2.0)
                        reply = sock.recv(64)
                        pdu = reply[7:] if listener == "tcp" else reply[1:-2]
                        self.assertEqual(("exception", pdu[0] & 0x7F, pdu[1]) if pdu[0] & 0x80 else pdu, expected)
                self.assertEqual(self.counters(), before, "nothing of it reached the line")
                self.assert_serving()

    def test_a_flood_gets_busy_and_each_reply_its_own_transaction(self):
        # Sixty requests out at once on one connection: reads nobody polls (put on the
        # line), cached reads and a station not served. The line's reads beyond the
        # connection's queue (16) are refused busy; every other answer is its own.
        asked = {tid: (9, 110) if tid % 20 == 0 else (1, 110 + tid % 10) if tid % 3 == 0 else (1, 600 + tid)
                 for tid in range(1, 61)}
        with socket.create_connection((h.LOOPBACK, self.tcp), timeout=5) as sock:
            sock.sendall(b"".join(mbap(tid, s, read_pdu(a, 1)) for tid, (s, a) in asked.items()))
            data, answers = b"", {}
            while len(answers) < len(asked):
                chunk = sock.recv(4096)
                self.assertTrue(chunk, "closed with %d of %d answered" % (len(answers), len(asked)))
                data += chunk
                while len(data) >= 9 and len(data) >= 6 + struct.unpack(">H", data[4:6])[0]:
                    tid, _, length = struct.unpack(">HHH", data[:6])
                    self.assertNotIn(tid, answers, "answered twice")
                    answers[tid], data = data[7:6 + length], data[6 + length:]
        for tid, pdu in answers.items():
            station, address = asked[tid]
            if station == 9:
                self.assertEqual(pdu, b"\x83\x0a", "tid %d: a station not served" % tid)
            elif pdu[0] == 3:
                self.assertEqual(struct.unpack(">H", pdu[2:4])[0], self.sim.get(1, address), "tid %d" % tid)
            else:
                self.assertIn(pdu, (b"\x83\x06", b"\x83\x0b"), "tid %d" % tid)
        on_line = [tid for tid, (_, address) in asked.items() if address >= 600]
        self.assertGreaterEqual(sum(1 for tid in on_line if answers[tid] == b"\x83\x06"), len(on_line) - 16 - 1)
        self.assert_serving()

    def test_rude_connections_are_closed_and_harm_nobody(self):
        # A master killed with a request on the line: its answer goes to nobody.
        killed = subprocess.Popen(self.mbpoll.command("read-registers", 1, 700, 125, polls=("-l", "20")),
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        time.sleep(0.3)
        killed.send_signal(signal.SIGKILL)
        killed.wait()
        self.assert_serving()
        # (what, listener, bytes sent: None sends requests and never reads a reply)
        rows = [
            ("connects and sends nothing", self.tcp, b""),
            ("sends half a request", self.tcp, mbap(1, 1, read_pdu(110, 1))[:5]),
            ("sends half an RTU frame", self.rtu, crc(bytes([1]) + read_pdu(110, 1))[:4]),
            ("never reads its replies", self.tcp, None),
        ]
        socks = []
        for what, port, data in rows:
            sock = socket.socket()
            socks.append(sock)
            if data is None:
                # A small window, so that its replies pile up in the gateway soon.
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            sock.connect((h.LOOPBACK, port))
            if data is None:
                sock.settimeout(0.5)
                batch = b"".join(mbap(tid, 1, read_pdu(100, 20)) for tid in range(1000))
                with contextlib.suppress(socket.timeout):
                    while True:
                        sock.send(batch)
            elif data:
                sock.sendall(data)
        opened = time.monotonic()
        self.assert_serving()
        for (what, _, _), sock in zip(rows, socks):
            with self.subTest(what):
                self.assertTrue(closed_within(sock, opened + IDLE + 2.0 - time.monotonic()), "closed when idle")
                self.assertGreater(time.monotonic() - opened, IDLE / 2, "not long before the idle time")
            sock.close()
        # Nothing was left behind: 64 masters fit again, the 65th is refused at once.
        with contextlib.ExitStack() as stack:
            for tid in range(64):
                answer = b""
                # The gateway may not have seen the last master go yet: tried again.
                for _ in range(TRIES):
                    sock = stack.enter_context(socket.create_connection((h.LOOPBACK, self.tcp), timeout=5))
                    with contextlib.suppress(ConnectionError):
                        sock.sendall(mbap(tid, 1, read_pdu(110, 1)))
                        answer = sock.recv(64)[7:]
                    if answer:
                        break
                    time.sleep(0.2)
                self.assertIn(answer, (b"\x03\x02" + struct.pack(">H", self.sim.get(1, 110)), b"\x83\x0b"))
            with socket.create_connection((h.LOOPBACK, self.tcp), timeout=5) as extra:
                self.assertTrue(closed_within(extra, 1.0), "the 65th connection is refused")
        self.assert_serving()


if __name__ == "__main__":
    h.main()
