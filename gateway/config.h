// rtuplc-gateway's configuration: one YAML file per line. Every key is checked when the
// file is read; a bad file is refused with its name, the line and key, and the reason,
// before anything is opened.
#ifndef RTUPLC_GATEWAY_CONFIG_H
#define RTUPLC_GATEWAY_CONFIG_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "rtuplc_host/value_type.h"

namespace rtugw {

struct LineConfig {
    enum class Kind { Tcp, Serial };
    Kind kind = Kind::Tcp;
    std::string host;                 // tcp: HOST of HOST:PORT
    int port = 0;                     // tcp
    std::string device;               // serial
    std::string settings;             // "BAUD,BITS,PARITY,STOP"; empty: the driver's default
    bool rs485 = false;               // serial: the kernel's RS-485 mode
    int timeoutMs = 500;              // turnaround margin added to the transmission time
    int pauseMs = 0;                  // between exchanges
    int retries = 3;                  // attempts of a request before it fails
    int station = 1;                  // for items without @STATION
    long long probeIntervalMs = 5000; // a silent station is tried once this often,
    long long probeMaxMs = 60000;     // less often while it stays silent, down to this
};

struct MqttConfig {
    std::string url = "mqtt://127.0.0.1:1883";
    bool tls = false;     // mqtts://
    std::string host;     // from the url
    int port = 1883;      // from the url; 1883 plain, 8883 TLS by default
    std::string clientId; // default rtuplc-<name>
    std::string username;
    std::string password; // from password-file (preferred) or password; never printed
    std::string passwordFile;
    std::string ca, cert, key; // absolute, resolved against the configuration's folder
    std::string topic;         // prefix of every topic; default rtuplc/<name>
    int qos = 1;               // 0 or 1, values and status
    int keepalive = 30;        // s
    size_t buffer = 100000;    // messages held while the broker is away
    int statsInterval = 10;    // s; 0: no stats topic
    enum class Mode { Plain, Sparkplug };
    Mode mode = Mode::Plain; // mqtt.mode: plain JSON topics or Sparkplug B
};

// sparkplug: { group, node, primary-host, state-dir } for mqtt.mode sparkplug.
struct SparkplugConfig {
    std::string group;       // required in sparkplug mode
    std::string node;        // default: the gateway's name
    std::string primaryHost; // empty: births are published whatever the host's state
    std::string stateDir;    // where the next bdSeq is kept; empty: $STATE_DIRECTORY, else the working directory
};

// homeassistant: { prefix } announces every item to Home Assistant's MQTT discovery.
struct HomeAssistantConfig {
    bool enabled = false;
    std::string prefix = "homeassistant";
};

// http: { listen, token-file, history } serves the live page, the API and /metrics.
struct HttpConfig {
    bool enabled = false;
    std::string listen = "127.0.0.1:8080";
    std::string host; // from listen
    int port = 8080;
    std::string tokenFile;   // empty: the page is read-only
    std::string token;       // read from token-file; never printed
    int historyMinutes = 10; // kept per numeric value for the trends
};

// log: { csv, rotate, max-size } writes a row per value change.
struct LogConfig {
    std::string csvDir; // empty: no CSV log
    enum class Rotate { Daily, Never };
    Rotate rotate = Rotate::Daily;
    uint64_t maxBytes = 100ull * 1024 * 1024; // all files together; the oldest go first
};

// modbus-server: other Modbus masters served from what the line carries; off unless the
// section is there.
struct ModbusServerConfig {
    struct Listen {
        bool on = false;
        std::string text; // as given: HOST:PORT
        std::string host;
        int port = 0;
        int line = 0; // where the file gives it, for messages
    };
    // A client network: an IPv4 or IPv6 address and how many of its leading bits count.
    struct Network {
        bool v6 = false;
        uint8_t address[16] = {};
        int prefix = 0;
    };
    // Addresses of one table a master may write, at one station or (0) every station.
    struct Writable {
        bool coils = false; // else holding registers
        int first = 0, last = 0;
        int station = 0;
    };
    bool enabled = false;
    Listen tcp, rtuOverTcp, tls;
    std::string serial;   // device of the RTU slave port; empty: none
    std::string settings; // its line, as line.settings
    bool rs485 = false;
    std::string cert, key, ca; // tls: the server's certificate and key, the clients' authority
    std::vector<Network> allow;
    std::vector<Writable> writable;
    long long maxAgeMs = 0; // 0: two of the line's poll cycles, at most 1 s
    double pollShare = 0.5;
    int queue = 16;
    long long requestTimeoutMs = 1000;
    int maxConnections = 64;
    long long idleTimeoutMs = 60000;
    bool cache = true;
};

struct ItemConfig {
    std::string text; // the item in rtuplc-poll's notation, e.g. "D_W:100..109@2"
    bool writable = false;
    int line = 0; // where the file gives it, for messages
    // Passed to Home Assistant's discovery and shown on the page.
    std::string name, unit, deviceClass;
    long long everyMs = 0; // how often it is read; 0: as fast as the line goes
    // What its words mean: type, word-order, byte-order, scale, offset, decimals, min, max.
    rtuhost::TypeOptions type;
    bool readModifyWrite = false;        // write: read-modify-write, for a bit of a register
    double deadband = 0;                 // a change smaller than this is not published
    long long publishEveryMs = 0;        // an unchanged value is published again this often; 0: never
    bool metrics = false;                // a gauge of its own on /metrics
    std::string stateClass;              // Home Assistant's; empty: measurement for a number with a unit
    std::map<std::string, int> keyLines; // where each of its keys is given

    // The line of `key`, or the item's when it is not given.
    int lineOf(const std::string &key) const;
};

struct Config {
    std::string file; // as given on the command line
    std::string name; // default: the file's name without .yaml / .yml
    LineConfig line;
    MqttConfig mqtt;
    std::vector<ItemConfig> items;
    std::map<int, std::string> stationNames; // stations: { N: { name: ... } }
    SparkplugConfig sparkplug;
    HomeAssistantConfig homeassistant;
    HttpConfig http;
    LogConfig log;
    ModbusServerConfig modbusServer;
};

// Reads and checks `path`. False with `error` naming the file, the line and key, and
// why ("line1.yaml:12: mqtt.qos: must be 0 or 1, not 2").
bool loadConfig(const std::string &path, Config *config, std::string *error);

// The keys the file takes, by section: "" for the top level, then each section's (an
// item's and a station's keys under "items" and "stations"). The manual page describes
// these, each under its section; a test holds the two together.
const std::vector<std::pair<std::string, std::vector<std::string>>> &configKeys();

// "FILE:LINE: " for messages about a place in the configuration (LINE omitted when 0).
std::string where(const Config &config, int line);

} // namespace rtugw

#endif
