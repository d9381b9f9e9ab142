"""The gateway's Modbus server seen by pymodbus's TCP client, a master nobody here
wrote: every answer is the simulator's own, in the transaction that asked; a write
within writable reaches the controller and the read after it shows it; one outside is
refused without reaching the line; and the broker keeps getting the gateway's values."""

import harness as h

from pymodbus.client import ModbusTcpClient

P = "rtuplc/line1"
ITEMS = ["D_W:100..109", "M:0..15"]
COIL_BASE = 2000  # M 0 is coil 2000


class ModbusServer(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line()
        folder, config = h.base_config(cls.broker, cls.sim, ITEMS)
        cls.port = h.free_port()
        config["modbus-server"] = {"tcp": "%s:%d" % (h.LOOPBACK, cls.port), "writable": ["holding:500..504"]}
        cls.start_class_gateway(folder, config, P + "/1/D_W/100")
        if not h.wait_until(lambda: h.port_open(cls.port), h.START_TIMEOUT):
            raise AssertionError("the server never listened; the gateway's log:\n" + cls.gw.log())
        cls.client = ModbusTcpClient(h.LOOPBACK, port=cls.port, timeout=3)
        cls.client.connect()
        cls.addClassCleanup(cls.client.close)

    def test_answers_are_the_controllers(self):
        c, sim = self.client, self.sim
        sim.set(1, 300, 4242)  # not polled: the read goes to the line
        rows = [
            # what, the request, what the simulator holds
            ("polled registers", lambda: c.read_holding_registers(100, 10, slave=1).registers,
             lambda: [sim.get(1, a) for a in range(100, 110)]),
            ("polled coils", lambda: c.read_coils(COIL_BASE + 3, 10, slave=1).bits[:10],
             lambda: [bool(sim.get_coil(1, COIL_BASE + a)) for a in range(3, 13)]),
            ("registers not polled", lambda: c.read_holding_registers(299, 3, slave=1).registers,
             lambda: [sim.get(1, a) for a in range(299, 302)]),
        ]
        for what, ask, held in rows:
            with self.subTest(what):
                self.assertEqual(ask(), held())

    def test_writes_within_writable_only(self):
        c, sim = self.client, self.sim
        before = sim.counters()["writes"]
        refused = c.write_register(200, 7, slave=1)
        self.assertTrue(refused.isError())
        self.assertEqual(refused.exception_code, 2)  # illegal data address
        self.assertEqual(sim.counters()["writes"], before, "a refused write never reaches the line")
        mark = self.sub.mark()
        self.assertFalse(c.write_register(501, 1234, slave=1).isError())
        self.assertEqual(sim.get(1, 501), 1234)
        self.assertEqual(c.read_holding_registers(501, 1, slave=1).registers, [1234], "read after write")
        # The broker keeps getting the gateway's own values meanwhile.
        sim.set(1, 105, 777)
        self.assertIsNotNone(self.sub.wait_for(P + "/1/D_W/105", lambda m: m.json()["value"] == 777, since=mark))

    def test_stats_and_page_count_the_masters_requests(self):
        self.assertEqual(len(self.client.read_holding_registers(100, 10, slave=1).registers), 10)
        stats = self.sub.wait_for(P + "/stats", lambda m: m.json().get("modbus_server", {}).get("from_cache", 0) > 0)
        self.assertIsNotNone(stats, "the stats topic carries the server's figures")
        figures = stats.json()["modbus_server"]
        self.assertEqual(figures["masters"], 1)
        self.assertGreater(figures["requests"]["03"], 0)
        self.assertGreater(figures["hit_ratio"], 0)

    def test_stations_not_served(self):
        answer = self.client.read_holding_registers(100, 1, slave=9)
        self.assertTrue(answer.isError())
        self.assertEqual(answer.exception_code, 0x0A)  # gateway path unavailable


if __name__ == "__main__":
    h.main()
