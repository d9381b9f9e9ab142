"""Home Assistant's discovery: every item announced with the keys Home Assistant needs,
its templates rendered as Home Assistant renders them (value_json, the parsed state)
against the gateway's real state messages, good and bad; announced again when Home
Assistant comes online; an item no longer configured withdrawn at the next start."""

import json
import time

import jinja2

import harness as h

P = "rtuplc/line1"
HA = "homeassistant"
NODE_ID = "rtuplc_line1"
ITEMS = [
    {"item": "D_W:100", "name": "Oven temperature", "unit": "°C", "device-class": "temperature"},
    "X:0..1",
    {"item": "D_W:500", "writable": True},
    {"item": "D_D:600", "writable": True},
    {"item": "M:0", "writable": True},
    {"item": "D_W:510", "type": "int16", "scale": 0.1, "decimals": 1, "min": -20, "max": 80, "unit": "°C",
     "writable": True},
    {"item": "D_D:520", "type": "float32", "unit": "m³/h"},
    {"item": "D_W:530.3", "write": "read-modify-write", "name": "Pump 1"},
    "D_W:531.4",
    {"item": "D_W:532..533", "type": "string", "writable": True},
]
REQUIRED = ("name", "unique_id", "state_topic", "value_template", "availability", "availability_mode", "device")
ENV = jinja2.Environment()


def render(template, payload):
    """A template as Home Assistant renders it for a message: value is the payload's
    text, value_json its parsed JSON when it is JSON."""
    try:
        value_json = json.loads(payload)
    except ValueError:
        value_json = None
    return ENV.from_string(template).render(value=payload, value_json=value_json).strip()


def available(config, state_payloads):
    """Whether Home Assistant shows the entity available, from the last payload of each
    availability topic (availability_mode all: every one must say so)."""
    for a in config["availability"]:
        payload = state_payloads.get(a["topic"])
        if payload is None:
            return False
        text = render(a["value_template"], payload) if "value_template" in a else payload
        if text != a.get("payload_available", "online"):
            return False
    return True


class Discovery(h.GatewayTestCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.start_line(topics=[P + "/#", HA + "/#"], user="operator")
        # Announced by an earlier configuration: must be withdrawn at start.
        cls.stale_topic = "%s/sensor/%s/1_D_W_999/config" % (HA, NODE_ID)
        cls.foreign_topic = "%s/sensor/other_gateway/1_D_W_999/config" % HA
        cls.sub.publish(cls.stale_topic, json.dumps({"name": "gone"}), retain=True)
        cls.sub.publish(cls.foreign_topic, json.dumps({"name": "not ours"}), retain=True)
        folder, config = h.base_config(cls.broker, cls.sim, ITEMS)
        config["homeassistant"] = {"prefix": HA}
        config["stations"] = {1: {"name": "oven"}}
        cls.start_class_gateway(folder, config, P + "/1/D_W/500")

    def configs(self):
        """{(component, object id): config} retained at the broker now."""
        retained = h.retained_state(self.broker, HA)
        found = {}
        for topic, payload in retained.items():
            parts = topic.split("/")
            if len(parts) == 5 and parts[2] == NODE_ID and payload:
                found[(parts[1], parts[3])] = json.loads(payload)
        return found

    def state(self):
        """The last payload of every plain topic, as Home Assistant holds them."""
        return {m.topic: m.payload for m in self.sub.since() if m.topic.startswith(P + "/")}

    def test_every_item_is_announced_with_the_keys_home_assistant_needs(self):
        # (component, object id, what else must be in its config)
        rows = [
            ("sensor", "1_D_W_100", {"unit_of_measurement": "°C", "device_class": "temperature",
                                     "name": "Oven temperature"}),
            ("binary_sensor", "1_X_0", {}),
            ("binary_sensor", "1_X_1", {}),
            ("number", "1_D_W_500", {"min": 0, "max": 65535, "command_topic": P + "/1/D_W/500/set"}),
            ("number", "1_D_D_600", {"min": 0, "max": 4294967295, "command_topic": P + "/1/D_D/600/set"}),
            ("switch", "1_M_0", {"command_topic": P + "/1/M/0/set", "payload_on": "1", "payload_off": "0"}),
            ("number", "1_D_W_510", {"min": -20, "max": 80, "step": 0.1, "unit_of_measurement": "°C"}),
            ("sensor", "1_D_D_520", {"unit_of_measurement": "m³/h", "state_class": "measurement"}),
            ("switch", "1_D_W_530_3", {"name": "Pump 1", "command_topic": P + "/1/D_W/530.3/set"}),
            ("binary_sensor", "1_D_W_531_4", {"state_topic": P + "/1/D_W/531.4"}),
            ("text", "1_D_W_532", {"max": 4, "command_topic": P + "/1/D_W/532/set"}),
        ]
        configs = self.configs()
        ids = set()
        for component, object_id, extra in rows:
            with self.subTest(entity=component + "/" + object_id):
                c = configs.get((component, object_id))
                self.assertIsNotNone(c, "not announced; have %s" % sorted(configs))
                self.assertEqual([key for key in REQUIRED if key not in c], [], "missing keys")
                self.assertEqual({key: c.get(key) for key in extra}, extra)
                self.assertEqual((c["device"]["name"], c["device"]["via_device"], c["availability_mode"]),
                                 ("oven", NODE_ID, "all"))
                ids.add(c["unique_id"])
        self.assertEqual(len(ids), len(rows), "unique ids are unique")
        self.assertIn(("binary_sensor", "gateway"), configs, "the gateway is a device of its own")

    def test_templates_render_real_states_good_and_bad(self):
        configs = self.configs()
        time.sleep(0.3)
        state = self.state()
        # (component, object id, the state Home Assistant shows while good)
        rows = [
            ("sensor", "1_D_W_100", str(h.pattern_register(1, 100))),
            ("binary_sensor", "1_X_0", "ON" if h.pattern_coil(1, 1200) else "OFF"),
            ("binary_sensor", "1_X_1", "ON" if h.pattern_coil(1, 1201) else "OFF"),
            ("number", "1_D_D_600", str(h.pattern_reg32(1, 600))),
            ("number", "1_D_W_510", "%g" % (self.sim.get(1, 510) / 10)),  # tenths
            ("binary_sensor", "1_D_W_531_4", "ON" if 531 & 16 else "OFF"),  # bit 4
        ]
        for component, object_id, shown in rows:
            with self.subTest(good=object_id):
                c = configs[(component, object_id)]
                self.assertEqual(render(c["value_template"], state[c["state_topic"]]), shown)
                self.assertTrue(available(c, state), "available while good")
        # A refused block: its value bad while the station answers; then a silent station.
        c = configs[("sensor", "1_D_W_100")]
        mark = self.sub.mark()
        self.sim.refuse(1, "registers", 100, 1, 2)
        self.addCleanup(self.sim.accept, 1)
        self.assertIsNotNone(self.sub.wait_for(c["state_topic"], lambda m: m.json()["quality"] == "bad", since=mark))
        self.assertFalse(available(c, self.state()), "a bad value shows unavailable")
        self.assertEqual(self.state()[P + "/1/status"], "online")
        mark = self.sub.mark()
        self.sim.accept(1)
        self.assertIsNotNone(self.sub.wait_for(c["state_topic"], lambda m: m.json()["quality"] == "good", since=mark))
        self.assertTrue(available(c, self.state()))
        mark = self.sub.mark()
        self.sim.stations(2)
        self.addCleanup(self.sim.stations, 1)
        self.assertIsNotNone(self.sub.wait_for(P + "/1/status", lambda m: m.payload == "offline", since=mark))
        self.assertFalse(available(configs[("switch", "1_M_0")], self.state()), "a silent station's entities")
        self.sim.stations(1)
        self.assertIsNotNone(self.sub.wait_for(P + "/1/status", lambda m: m.payload == "online", since=mark))

    def test_commands_rendered_as_home_assistant_sends_them_are_written(self):
        configs = self.configs()
        number = configs[("number", "1_D_W_500")]
        # Home Assistant's number sends a float; the template makes it whole.
        payload = ENV.from_string(number["command_template"]).render(value=1234.0)
        self.sub.publish(number["command_topic"], payload)
        self.assertEqual(h.wait_until(lambda: self.sim.get(1, 500) == 1234, h.ANSWER_TIMEOUT), True)
        switch = configs[("switch", "1_M_0")]
        self.sub.publish(switch["command_topic"], switch["payload_on"])
        self.assertEqual(h.wait_until(lambda: self.sim.get_coil(1, 2000) == 1, h.ANSWER_TIMEOUT), True)
        self.sub.publish(switch["command_topic"], switch["payload_off"])
        self.assertEqual(h.wait_until(lambda: self.sim.get_coil(1, 2000) == 0, h.ANSWER_TIMEOUT), True)
        # Typed: an engineering number, text, a bit of a register with its word's other bits kept.
        # (component, object id, value Home Assistant sends, register, what it then holds)
        typed = [("number", "1_D_W_510", 21.5, 510, 215), ("text", "1_D_W_532", "HI", 532, 0x4849),
                 ("switch", "1_D_W_530_3", None, 530, 530 | 8)]
        for component, object_id, value, register, held in typed:
            with self.subTest(object_id):
                c = configs[(component, object_id)]
                sent = c["payload_on"] if value is None else ENV.from_string(c["command_template"]).render(value=value)
                self.sub.publish(c["command_topic"], sent)
                self.assertTrue(h.wait_until(lambda: self.sim.get(1, register) == held, h.ANSWER_TIMEOUT), sent)

    def test_announced_again_when_home_assistant_comes_online(self):
        mark = self.sub.mark()
        self.sub.publish(HA + "/status", "online")
        topic = "%s/number/%s/1_D_W_500/config" % (HA, NODE_ID)
        self.assertIsNotNone(self.sub.wait_for(topic, since=mark))
        mark = self.sub.mark()
        self.sub.publish(HA + "/status", "offline")
        self.assertIsNone(self.sub.wait_for(topic, since=mark, timeout=0.7))

    def test_an_item_no_longer_configured_is_withdrawn_and_others_left_alone(self):
        self.assertIsNotNone(self.sub.wait_for(self.stale_topic, lambda m: m.payload == ""), "not withdrawn")
        retained = h.retained_state(self.broker, HA)
        self.assertNotIn(self.stale_topic, retained)
        self.assertIn(self.foreign_topic, retained)


if __name__ == "__main__":
    h.main()
