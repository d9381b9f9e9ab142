// The gateway's configuration loader: every kind of mistake is refused with the file, the
// line, the key and the reason; good files get the defaults a user relies on; and the
// broker password never shows in a message.
#include "config.h"
#include "plan.h"
#include "rtuplc_host/driver_location.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

namespace {

using rtugw::Config;

constexpr char kSecret[] = "Pa55-w0rd-xyz";

// A minimal good file; rows append their section from line 5 on.
const std::string kBase = "line:\n  tcp: 127.0.0.1:8000\nitems:\n  - D_W:0..9\n";
const std::string kItemsOnly = "items:\n  - D_W:0..9\n";

class GatewayConfig : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/rtuplc-gwcfg-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        write("empty.secret", "\n");
        write("pw.secret", std::string(kSecret) + "\r\n");
        write("ca.pem", "certificate\n");
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }

    std::string write(const std::string &name, const std::string &text)
    {
        const std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }
    bool load(const std::string &name, const std::string &text, Config *c, std::string *error)
    {
        return rtugw::loadConfig(write(name, text), c, error);
    }

    std::string dir_;
};

struct BadFile {
    const char *what;
    std::string file; // empty: gw.yaml
    std::string yaml;
    std::vector<std::string> expected; // substrings of the error
};

TEST_F(GatewayConfig, RefusesEveryKindOfMistakeWithPlaceKeyAndReason)
{
    const std::string url = "mqtt:\n  url: mqtt://127.0.0.1\n";
    const std::string tls = "mqtt:\n  url: mqtts://broker\n";
    const std::string pw = std::string("  password: ") + kSecret + "\n";
    const std::string mbs = kBase + "modbus-server:\n";
    const std::vector<BadFile> rows = {
        // clang-format off
        // Folder none/ is not there: nothing is written, the file is missing.
        {"missing file", "none/gw.yaml", "", {"/none/gw.yaml: cannot read: No such file or directory"}},
        {"empty file", "", "", {"gw.yaml: empty"}},
        {"only comments", "", "# nothing yet\n", {"gw.yaml: empty"}},
        {"a list at the top", "", "- line\n- items\n", {"gw.yaml:1: the file: must be a mapping of keys (name, line"}},
        {"broken YAML", "", "line: [tcp\nitems: 1\n", {"gw.yaml:", "not valid YAML: "}},
        {"a tab in an indentation", "", "line:\n\ttcp: h:1\n" + kItemsOnly, {"gw.yaml:2: a tab: indent with spaces"}},
        {"second document", "", kBase + "---\nname: b\n", {"gw.yaml:6: a second document (after ---)"}},
        {"unknown top-level key", "", kBase + "mqtt-url: x\n",
         {"gw.yaml:5: mqtt-url: unknown key (the file takes: name, line, mqtt, items"}},
        {"key given twice", "", kBase + "line:\n  tcp: h:1\n", {"gw.yaml:5: line: given twice (first on line 1)"}},
        {"key that is not text", "", kBase + "? [a, b]\n: 1\n", {"gw.yaml:5: a key must be text, not a list"}},
        {"bad name", "", kBase + "name: line 1\n", {"gw.yaml:5: name: \"line 1\" cannot be a name"}},
        {"file name unusable as a name", "my line.yaml", kBase,
         {"my line.yaml: name: taken from the file's name: \"my line\" cannot be a name"}},
        // line
        {"line missing", "", kItemsOnly, {"gw.yaml: line: missing (say tcp: HOST:PORT or serial: DEVICE)"}},
        {"line not a mapping", "", "line: 127.0.0.1:8000\n" + kItemsOnly, {"gw.yaml:1: line: must be a mapping of keys (tcp"}},
        {"neither tcp nor serial", "", "line:\n  timeout: 5\n" + kItemsOnly, {"gw.yaml:1: line: no link given"}},
        {"both tcp and serial", "", "line:\n  tcp: h:1\n  serial: /dev/ttyS0\n" + kItemsOnly,
         {"gw.yaml:1: line: give tcp or serial, not both"}},
        {"tcp without port", "", "line:\n  tcp: 10.0.0.1\n" + kItemsOnly, {"gw.yaml:2: line.tcp: must be HOST:PORT"}},
        {"tcp port out of range", "", "line:\n  tcp: h:65536\n" + kItemsOnly, {"gw.yaml:2: line.tcp:", "\"h:65536\""}},
        {"tcp with no value", "", "line:\n  tcp:\n" + kItemsOnly, {"gw.yaml:2: line.tcp: has no value"}},
        {"settings on a TCP link", "", "line:\n  tcp: h:1\n  settings: 9600,8,EVEN,1\n" + kItemsOnly,
         {"gw.yaml:3: line.settings: only with serial"}},
        {"bad serial settings", "", "line:\n  serial: /dev/ttyS0\n  settings: 19200,9,EVEN,1\n" + kItemsOnly,
         {"gw.yaml:3: line.settings:", "data bits"}},
        {"timeout not a number", "", "line:\n  tcp: h:1\n  timeout: fast\n" + kItemsOnly,
         {"gw.yaml:3: line.timeout: must be a whole number of milliseconds from 1 to 600000, not \"fast\""}},
        {"timeout zero", "", "line:\n  tcp: h:1\n  timeout: 0\n" + kItemsOnly, {"line.timeout:", "not \"0\""}},
        {"timeout a float", "", "line:\n  tcp: h:1\n  timeout: 1.5\n" + kItemsOnly, {"line.timeout:", "not \"1.5\""}},
        {"timeout a list", "", "line:\n  tcp: h:1\n  timeout: [1]\n" + kItemsOnly, {"line.timeout:", "not a list"}},
        {"pause negative", "", "line:\n  tcp: h:1\n  pause: -1\n" + kItemsOnly, {"line.pause:", "from 0 to 600000"}},
        {"a probe interval without a unit it knows", "", "line:\n  tcp: h:1\n  probe-interval: 5h\n" + kItemsOnly,
         {"gw.yaml:3: line.probe-interval: \"5h\" is not a time"}},
        {"an item's interval of zero", "", "line:\n  tcp: h:1\nitems:\n  - { item: D_W:0, every: 0s }\n",
         {"gw.yaml:4: items.every:", "is not a time"}},
        {"too many retries", "", "line:\n  tcp: h:1\n  retries: 101\n" + kItemsOnly,
         {"gw.yaml:3: line.retries: must be a whole number from 1 to 100, not \"101\""}},
        {"station past 247", "", "line:\n  tcp: h:1\n  station: 248\n" + kItemsOnly, {"line.station:", "from 1 to 247"}},
        {"rs485 not a boolean", "", "line:\n  serial: /dev/ttyS0\n  rs485: maybe\n" + kItemsOnly,
         {"gw.yaml:3: line.rs485: maybe is not true or false"}},
        // mqtt
        {"mqtt typo", "", kBase + "mqtt:\n  qso: 1\n", {"gw.yaml:6: mqtt.qso: unknown key (mqtt takes: url, client-id,"}},
        {"mqtt not a mapping", "", kBase + "mqtt: mqtt://h\n", {"gw.yaml:5: mqtt: must be a mapping"}},
        {"url of another scheme", "", kBase + "mqtt:\n  url: http://h\n",
         {"gw.yaml:6: mqtt.url: must be mqtt://HOST[:PORT] or mqtts://HOST[:PORT]"}},
        {"url port out of range", "", kBase + "mqtt:\n  url: mqtt://h:0\n", {"gw.yaml:6: mqtt.url:"}},
        {"url with a path", "", kBase + "mqtt:\n  url: mqtt://h/x\n", {"gw.yaml:6: mqtt.url:"}},
        {"qos 2", "", kBase + "mqtt:\n  qos: 2\n", {"gw.yaml:6: mqtt.qos: must be 0 or 1, not \"2\""}},
        {"keepalive too short", "", kBase + "mqtt:\n  keepalive: 4\n", {"mqtt.keepalive:", "seconds from 5 to 3600"}},
        {"empty buffer", "", kBase + "mqtt:\n  buffer: 0\n", {"mqtt.buffer:", "from 1 to 10000000"}},
        {"stats interval past a day", "", kBase + "mqtt:\n  stats-interval: 86401\n", {"mqtt.stats-interval:"}},
        {"client id too long", "", kBase + "mqtt:\n  client-id: " + std::string(129, 'c') + "\n",
         {"gw.yaml:6: mqtt.client-id: at most 128 characters"}},
        {"topic with a wildcard", "", kBase + "mqtt:\n  topic: a/+/b\n", {"gw.yaml:6: mqtt.topic:", "wildcard"}},
        {"topic with #", "", kBase + "mqtt:\n  topic: a/#\n", {"mqtt.topic:", "wildcard"}},
        {"topic with a leading /", "", kBase + "mqtt:\n  topic: /a\n", {"mqtt.topic:", "leading or trailing"}},
        {"topic with a trailing /", "", kBase + "mqtt:\n  topic: a/\n", {"mqtt.topic:", "leading or trailing"}},
        {"topic with an empty level", "", kBase + "mqtt:\n  topic: a//b\n", {"mqtt.topic:", "empty level"}},
        {"password without user", "", kBase + "mqtt:\n  password: " + kSecret + "\n",
         {"gw.yaml:6: mqtt.password: needs mqtt.username"}},
        {"password and password-file", "", kBase + "mqtt:\n  username: u\n  password-file: pw.secret\n  password: " + kSecret + "\n",
         {"gw.yaml:8: mqtt.password: give password or password-file, not both"}},
        {"password file missing", "", kBase + "mqtt:\n  username: u\n  password-file: nope.secret\n",
         {"gw.yaml:7: mqtt.password-file: cannot read /", "/nope.secret: No such file or directory"}},
        {"password file endless", "", kBase + "mqtt:\n  username: u\n  password-file: /dev/zero\n",
         {"gw.yaml:7: mqtt.password-file: cannot read /dev/zero: larger than"}},
        {"password file empty", "", kBase + "mqtt:\n  username: u\n  password-file: empty.secret\n",
         {"gw.yaml:7: mqtt.password-file:", "the first line is empty"}},
        {"ca without TLS", "", kBase + url + "  ca: ca.pem\n", {"gw.yaml:7: mqtt.ca: only with an mqtts:// url"}},
        {"ca missing", "", kBase + tls + "  ca: missing.pem\n", {"gw.yaml:7: mqtt.ca: cannot read", "No such file"}},
        {"ca a folder", "", kBase + tls + "  ca: .\n", {"mqtt.ca: cannot read", "Is a directory"}},
        {"cert without key", "", kBase + tls + "  cert: ca.pem\n", {"gw.yaml:7: mqtt.cert: a client certificate and its key"}},
        {"key without cert", "", kBase + tls + "  key: ca.pem\n", {"gw.yaml:7: mqtt.key:"}},
        {"unknown mode", "", kBase + "mqtt:\n  mode: json\n", {"gw.yaml:6: mqtt.mode: must be plain or sparkplug, not \"json\""}},
        // items
        {"items missing", "", "line:\n  tcp: h:1\n", {"gw.yaml: items: missing"}},
        {"items not a list", "", "line:\n  tcp: h:1\nitems: D_W:0\n", {"gw.yaml:3: items: must be a list"}},
        {"items empty", "", "line:\n  tcp: h:1\nitems: []\n", {"gw.yaml:3: items: empty"}},
        {"an empty item", "", kBase + "  -\n", {"items: an item is text", "not nothing"}},
        {"item mapping without item", "", kBase + "  - writable: true\n", {"gw.yaml:5: items.item: missing"}},
        {"writable as YAML's old yes", "", kBase + "  - item: D_W:1\n    writable: yes\n",
         {"gw.yaml:6: items.writable: yes is not true or false"}},
        {"writable a list", "", kBase + "  - item: D_W:1\n    writable: [true]\n",
         {"gw.yaml:6: items.writable: must be true or false, not a list"}},
        {"item typo", "", kBase + "  - item: D_W:1\n    writeable: true\n",
         {"gw.yaml:6: items.writeable: unknown key (an item takes: item, writable"}},
        // the optional sections
        {"station out of range", "", kBase + "stations:\n  0: { name: a }\n", {"gw.yaml:6: stations: a station is a number"}},
        {"station without name", "", kBase + "stations:\n  2: {}\n", {"gw.yaml:6: stations.2.name: missing"}},
        {"station typo", "", kBase + "stations:\n  2: { nmae: a }\n", {"stations.2.nmae: unknown key (a station takes: name)"}},
        {"sparkplug in plain mode", "", kBase + "sparkplug:\n  group: g\n", {"gw.yaml:5: sparkplug: only with mqtt.mode"}},
        {"sparkplug without group", "", kBase + "mqtt:\n  mode: sparkplug\n", {"gw.yaml: sparkplug.group: missing"}},
        {"sparkplug group with /", "", kBase + "mqtt:\n  mode: sparkplug\nsparkplug:\n  group: a/b\n",
         {"gw.yaml:8: sparkplug.group:", "one topic level"}},
        {"discovery prefix with #", "", kBase + "homeassistant:\n  prefix: ha/#\n", {"gw.yaml:6: homeassistant.prefix:"}},
        {"discovery in sparkplug mode", "", kBase + "mqtt:\n  mode: sparkplug\nsparkplug:\n  group: g\nhomeassistant:\n",
         {"gw.yaml:9: homeassistant: only with mqtt.mode: plain"}},
        {"sparkplug device name with +", "", kBase + "mqtt:\n  mode: sparkplug\nsparkplug:\n  group: g\nstations:\n  2: { name: a+b }\n",
         {"gw.yaml:10: stations.2.name: \"a+b\"", "one topic level"}},
        {"sparkplug device name twice", "", kBase + "mqtt:\n  mode: sparkplug\nsparkplug:\n  group: g\nstations:\n  1: { name: press }\n  2: { name: press }\n",
         {"gw.yaml:11: stations.2.name: \"press\" is station 1's already"}},
        {"http listen without port", "", kBase + "http:\n  listen: 0.0.0.0\n", {"gw.yaml:6: http.listen: must be HOST:PORT"}},
        {"http token file missing", "", kBase + "http:\n  token-file: none\n", {"gw.yaml:6: http.token-file: cannot read"}},
        {"http history too long", "", kBase + "http:\n  history: 1441\n", {"http.history:", "minutes from 0 to 1440"}},
        {"log rotate unknown", "", kBase + "log:\n  rotate: weekly\n", {"gw.yaml:6: log.rotate: must be daily or never"}},
        {"log size unreadable", "", kBase + "log:\n  max-size: lots\n", {"gw.yaml:6: log.max-size:", "\"lots\""}},
        {"log size too small", "", kBase + "log:\n  max-size: 10K\n", {"log.max-size:", "from 1M"}},
        // the Modbus server: one reachable from other machines needs allow: or TLS
        {"server open beyond loopback", "", mbs + "  tcp: 0.0.0.0:502\n",
         {"gw.yaml:6: modbus-server.tcp: 0.0.0.0:502 can be reached from other machines"}},
        {"server RTU open beyond loopback", "", mbs + "  tls: { cert: ca.pem, key: ca.pem, ca: ca.pem }\n"
         "  rtu-over-tcp: 10.0.0.5:1503\n", {"gw.yaml:7: modbus-server.rtu-over-tcp:"}},
        {"server key typo", "", mbs + "  max-connection: 8\n",
         {"gw.yaml:6: modbus-server.max-connection: unknown key"}},
        {"server TLS without its authority", "", mbs + "  tls: { cert: ca.pem, key: ca.pem }\n",
         {"modbus-server.tls.ca: missing"}},
        {"server table not writable", "", mbs + "  writable: [input:0..9]\n",
         {"gw.yaml:6: modbus-server.writable: input cannot be written"}},
        {"server allow not a network", "", mbs + "  allow: [plant]\n",
         {"gw.yaml:6: modbus-server.allow: must be like"}},
        {"server settings without serial", "", mbs + "  settings: 9600,8,EVEN,1\n",
         {"gw.yaml:6: modbus-server.settings: only with"}},
        {"server poll share over 1", "", mbs + "  poll-share: 1.5\n", {"modbus-server.poll-share: must be a share"}},
        {"server time-out of nothing", "", mbs + "  request-timeout: 1ms\n",
         {"modbus-server.request-timeout: must be from"}},
        {"server queue without room", "", mbs + "  queue: 0\n", {"modbus-server.queue:"}},
        // a password next to a mistake: the key is named, never the value
        {"password given twice", "", kBase + "mqtt:\n  username: u\n" + pw + pw, {"gw.yaml:8: mqtt.password: given twice"}},
        {"secret as another key's value", "", kBase + "mqtt:\n  username: u\n" + pw + "  qos: " + kSecret + "\n",
         {"gw.yaml:8: mqtt.qos: must be 0 or 1, not \"(secret)\""}},
        {"password a list", "", kBase + "mqtt:\n  username: u\n  password: [" + kSecret + "]\n",
         {"gw.yaml:7: mqtt.password: must be text, not a list"}},
        {"password's key misspelt", "", kBase + "mqtt:\n  username: u\n  pasword: " + kSecret + "\n",
         {"gw.yaml:7: mqtt.pasword: unknown key"}},
        {"password next to a bad topic", "", kBase + "mqtt:\n  username: u\n" + pw + "  topic: a/+\n", {"gw.yaml:8: mqtt.topic:"}},
        {"password in the url", "", kBase + "mqtt:\n  url: mqtt://u:" + kSecret + "@h\n", {"gw.yaml:6: mqtt.url: no user or password"}},
        {"password file's secret as another key's value", "",
         kBase + "mqtt:\n  username: u\n  password-file: pw.secret\n  keepalive: " + kSecret + "\n",
         {"gw.yaml:8: mqtt.keepalive:", "(secret)"}},
        // clang-format on
    };
    for (const BadFile &row : rows) {
        Config c;
        c.name = "untouched";
        std::string error;
        EXPECT_FALSE(load(row.file.empty() ? "gw.yaml" : row.file, row.yaml, &c, &error)) << row.what;
        EXPECT_EQ(c.name, "untouched") << row.what << ": a refused file leaves the configuration alone";
        EXPECT_EQ(error.rfind(dir_ + "/", 0), 0u) << row.what << ": " << error;
        for (const std::string &part : row.expected)
            EXPECT_NE(error.find(part), std::string::npos) << row.what << ": \"" << part << "\" not in: " << error;
        EXPECT_EQ(error.find(kSecret), std::string::npos) << row.what << ": the password shows in: " << error;
    }
}

// What an item's words mean, refused at start where it cannot be: by the loader, or once
// the driver's areas are known, by the plan; always with the file, the line of the key
// at fault, the key and why.
TEST_F(GatewayConfig, ImpossibleTypesAreRefusedAtStartWithPlaceKeyAndReason)
{
    rtuhost::DriverApi api;
    std::string why;
    ASSERT_TRUE(rtuhost::loadDriver(RTUPLC_LIBRARY, &api, &why)) << why;
    const rtuhost::Catalogue catalogue(api);
    const struct {
        const char *what;
        std::string items; // after kBase's D_W:0..9, from line 5
        std::string expected;
    } rows[] = {
        // clang-format off
        {"float32 on a bit area", "  - item: M:0\n    type: float32\n", "gw.yaml:6: items.type: \"M:0\": M holds bits: its values are bool, not float32"},
        {"a string past the area's end", "  - { item: D_W:7990..8005, type: string }\n", "gw.yaml:5: items: \"D_W:7990..8005\": D_W:8005 is out of range"},
        {".3 on a 32-bit area", "  - D_D:200.3\n", "gw.yaml:5: items.item: \"D_D:200.3\": a bit is named on a 16-bit register"},
        {"scale 0", "  - item: D_W:100\n    type: int16\n    scale: 0\n", "gw.yaml:7: items.scale: \"D_W:100\": 0 would make every value 0"},
        {"min above max", "  - item: D_W:100\n    min: 10\n    max: 5\n", "gw.yaml:6: items.min: \"D_W:100\": 10 is above max 5"},
        {"the type twice", "  - item: D_D:200:float32\n    type: int32\n", "gw.yaml:6: items.type: \"D_D:200:float32\": given twice, float32 in the item and int32"},
        {"an unknown type", "  - item: D_W:100\n    type: float64\n", "gw.yaml:6: items.type: must be uint16 or int16"},
        {"a scale that is no number", "  - item: D_W:100\n    scale: tenth\n", "gw.yaml:6: items.scale: must be a number, e.g. 0.1, not \"tenth\""},
        {"a negative deadband", "  - item: D_W:100\n    deadband: -1\n", "gw.yaml:6: items.deadband: must be 0 or more"},
        {"a bit written without saying how", "  - item: D_W:100.3\n    writable: true\n", "gw.yaml:6: items.writable: a bit of a register is written by reading the word"},
        {"read-modify-write on a whole word", "  - item: D_W:100\n    write: read-modify-write\n", "gw.yaml:6: items.write: only a bit of a register"},
        {"read-modify-write yet not writable", "  - item: D_W:100.3\n    writable: false\n    write: read-modify-write\n", "gw.yaml:7: items.write: writes, and writable: false"},
        {"a deadband on a bool", "  - item: D_W:100.3\n    deadband: 1\n", "gw.yaml:6: items.deadband: only a number moves by a deadband"},
        {"a string as a gauge", "  - item: D_W:100..103\n    type: string\n    metrics: true\n", "gw.yaml:7: items.metrics: a gauge is a number"},
        {"an address with two meanings", "  - { item: D_W:5, type: int16 }\n", "gw.yaml:5: items: 1/D_W/5 is published already, by the item on line 4"},
        // clang-format on
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.what);
        Config c;
        rtugw::LinePlan plan;
        std::string error;
        if (load("gw.yaml", kBase + row.items, &c, &error)) {
            EXPECT_FALSE(rtugw::makePlan(c, api, catalogue, &plan, &error));
        }
        EXPECT_NE(error.find(row.expected), std::string::npos) << error;
    }
}

struct GoodFile {
    const char *what;
    std::string file;
    std::string yaml;
    std::function<void(const Config &, const std::string &dir)> check;
};

TEST_F(GatewayConfig, GoodFilesGetTheirDefaults)
{
    using std::make_tuple;
    using std::tie;
    const std::string mbs = kBase + "modbus-server:\n";
    const std::vector<GoodFile> rows = {
        // clang-format off
        {"defaults", "line7.yaml", kBase,
         [](const Config &c, const std::string &) {
             EXPECT_EQ(tie(c.name, c.mqtt.clientId, c.mqtt.topic), make_tuple("line7", "rtuplc-line7", "rtuplc/line7"));
             EXPECT_EQ(tie(c.mqtt.tls, c.mqtt.host, c.mqtt.port), make_tuple(false, "127.0.0.1", 1883));
             EXPECT_TRUE(c.line.kind == rtugw::LineConfig::Kind::Tcp);
             EXPECT_EQ(tie(c.line.host, c.line.port, c.line.timeoutMs, c.line.retries), make_tuple("127.0.0.1", 8000, 500, 3));
             ASSERT_EQ(c.items.size(), 1u);
             EXPECT_EQ(tie(c.items[0].text, c.items[0].line, c.items[0].writable), make_tuple("D_W:0..9", 4, false));
             EXPECT_EQ(tie(c.http.enabled, c.homeassistant.enabled), make_tuple(false, false));
             EXPECT_EQ(tie(c.line.probeIntervalMs, c.line.probeMaxMs, c.items[0].everyMs), make_tuple(5000, 60000, 0));
         }},
        {"times in their units", "gw.yaml",
         "line:\n  tcp: h:1\n  probe-interval: 500ms\n  probe-max: 2m\nitems:\n  - { item: D_W:0, every: 10 }\n",
         [](const Config &c, const std::string &) {
             EXPECT_EQ(tie(c.line.probeIntervalMs, c.line.probeMaxMs, c.items[0].everyMs),
                       make_tuple(500, 120000, 10000));
         }},
        {".yml stripped, plain port given", "press-2.yml", kBase + "mqtt:\n  url: mqtt://broker:1884\n",
         [](const Config &c, const std::string &) {
             EXPECT_EQ(tie(c.name, c.mqtt.host, c.mqtt.port), make_tuple("press-2", "broker", 1884));
         }},
        {"name given wins over the file's", "x.yaml", "name: oven_1\n" + kBase,
         [](const Config &c, const std::string &) {
             EXPECT_EQ(tie(c.name, c.mqtt.topic), make_tuple("oven_1", "rtuplc/oven_1"));
         }},
        {"TLS port and a relative ca", "gw.yaml", kBase + "mqtt:\n  url: mqtts://[::1]\n  ca: ca.pem\n",
         [](const Config &c, const std::string &dir) {
             EXPECT_EQ(tie(c.mqtt.tls, c.mqtt.host, c.mqtt.port, c.mqtt.ca), make_tuple(true, "::1", 8883, dir + "/ca.pem"));
         }},
        {"password file's line end stripped", "gw.yaml", kBase + "mqtt:\n  username: u\n  password-file: pw.secret\n",
         [](const Config &c, const std::string &dir) {
             EXPECT_EQ(tie(c.mqtt.password, c.mqtt.passwordFile), make_tuple(kSecret, dir + "/pw.secret"));
         }},
        {"serial line and writable items", "gw.yaml",
         "line:\n  serial: /dev/ttyS0\n  settings: 19200,8,e,1\n  rs485: true\n  station: 3\nitems:\n"
         "  - X:0..7@2\n  - item: D_W:500..504\n    writable: true\n    unit: bar\n",
         [](const Config &c, const std::string &) {
             EXPECT_TRUE(c.line.kind == rtugw::LineConfig::Kind::Serial);
             EXPECT_EQ(tie(c.line.device, c.line.settings, c.line.rs485, c.line.station),
                       make_tuple("/dev/ttyS0", "19200,8,EVEN,1", true, 3));
             ASSERT_EQ(c.items.size(), 2u);
             const rtugw::ItemConfig &i = c.items[1];
             EXPECT_EQ(tie(i.text, i.writable, i.unit, i.line), make_tuple("D_W:500..504", true, "bar", 8));
         }},
        {"optional sections", "gw.yaml",
         kBase + "mqtt:\n  mode: sparkplug\nsparkplug:\n  group: plant\n  state-dir: state\nhttp:\n  listen: 0.0.0.0:9000\n"
                 "log:\n  csv: logs\n  max-size: 5M\nstations:\n  2: { name: press }\n",
         [](const Config &c, const std::string &dir) {
             EXPECT_EQ(tie(c.sparkplug.group, c.sparkplug.node, c.sparkplug.stateDir),
                       make_tuple("plant", "gw", dir + "/state"));
             EXPECT_EQ(tie(c.homeassistant.enabled, c.http.enabled, c.http.port), make_tuple(false, true, 9000));
             EXPECT_EQ(tie(c.log.csvDir, c.log.maxBytes), make_tuple(dir + "/logs", uint64_t(5) * 1024 * 1024));
             EXPECT_EQ(c.stationNames.at(2), "press");
         }},
        {"server with every key, on loopback", "gw.yaml",
         mbs + "  tcp: 127.0.0.1:1502\n  rtu-over-tcp: '[::1]:1503'\n  writable: [holding:1..2]\n  max-age: 250ms\n"
               "  poll-share: 0.8\n  queue: 4\n  request-timeout: 2s\n  max-connections: 8\n  idle-timeout: 5m\n"
               "  cache: false\n", nullptr},
        {"server beyond loopback, allowed", "gw.yaml", mbs + "  tcp: 0.0.0.0:502\n  allow: [10.0.0.0/8]\n", nullptr},
        {"server TLS beyond loopback", "gw.yaml",
         mbs + "  tls: { listen: 0.0.0.0:802, cert: ca.pem, key: ca.pem, ca: ca.pem }\n", nullptr},
        {"server section empty: read-only Modbus TCP on loopback", "gw.yaml", mbs,
         [](const Config &c, const std::string &) {
             const rtugw::ModbusServerConfig &m = c.modbusServer;
             EXPECT_EQ(tie(m.enabled, m.tcp.on, m.tcp.text, m.rtuOverTcp.on, m.tls.on, m.cache),
                       make_tuple(true, true, "127.0.0.1:1502", false, false, true));
             EXPECT_EQ(tie(m.queue, m.requestTimeoutMs, m.maxConnections, m.idleTimeoutMs, m.maxAgeMs),
                       make_tuple(16, 1000ll, 64, 60000ll, 0ll));
             EXPECT_TRUE(m.writable.empty());
         }},
        {"discovery in plain mode, names free", "gw.yaml",
         kBase + "homeassistant:\nstations:\n  1: { name: a/b }\n  2: { name: a/b }\n",
         [](const Config &c, const std::string &) {
             EXPECT_EQ(tie(c.homeassistant.enabled, c.homeassistant.prefix), make_tuple(true, "homeassistant"));
             EXPECT_EQ(c.stationNames.at(2), "a/b");
         }},
        // clang-format on
    };
    for (const GoodFile &row : rows) {
        Config c;
        std::string error;
        ASSERT_TRUE(load(row.file, row.yaml, &c, &error)) << row.what << ": " << error;
        SCOPED_TRACE(row.what);
        if (row.check)
            row.check(c, dir_);
    }
}

// The example shows every key, and loads: it is where a newcomer starts.
TEST_F(GatewayConfig, ShippedExampleLoadsAndShowsEveryKey)
{
    Config c;
    std::string error;
    ASSERT_TRUE(rtugw::loadConfig(RTUPLC_GATEWAY_EXAMPLE, &c, &error)) << error;
    EXPECT_EQ(c.line.host, "127.0.0.1");
    EXPECT_GE(c.items.size(), 2u);
    std::ifstream file(RTUPLC_GATEWAY_EXAMPLE);
    const std::string text = "\n" + std::string(std::istreambuf_iterator<char>(file), {});
    for (const auto &[section, keys] : rtugw::configKeys())
        for (const std::string &key : keys)
            EXPECT_TRUE(std::regex_search(text, std::regex("[\\n #{]" + key + ":"))) << section << "." << key;
}

// The manual page is the one full description of the keys: every key the loader takes
// is described under its section (.SS), one .TP entry each tagged .BI "KEY: ", and the
// page describes no key the loader would refuse.
TEST(GatewayConfigKeys, ManualPageDescribesEveryKeyAndNoOther)
{
    std::ifstream page(RTUPLC_GATEWAY_MANUAL);
    ASSERT_TRUE(page) << RTUPLC_GATEWAY_MANUAL;
    std::map<std::string, std::set<std::string>> documented, taken;
    const std::regex tag(R"(^\.BI? "?([a-z][a-z0-9\\-]*):)");
    bool configuration = false, tagLine = false;
    std::string section;
    for (std::string line; std::getline(page, line);) {
        std::smatch m;
        if (line.rfind(".SH ", 0) == 0) {
            configuration = line == ".SH CONFIGURATION";
        } else if (configuration && line.rfind(".SS ", 0) == 0) {
            section = line == ".SS Top level" ? "" : line.substr(4);
            if (!section.empty() && section.find('.') == std::string::npos)
                documented[""].insert(section); // a section is a key of the top level
        } else if (configuration && tagLine && std::regex_search(line, m, tag)) {
            documented[section].insert(std::regex_replace(m[1].str(), std::regex(R"(\\)"), ""));
        }
        tagLine = line == ".TP";
    }
    for (const auto &[section, keys] : rtugw::configKeys())
        taken[section].insert(keys.begin(), keys.end());
    EXPECT_EQ(documented, taken) << "a section's keys differ between the loader and " RTUPLC_GATEWAY_MANUAL;
}

} // namespace
