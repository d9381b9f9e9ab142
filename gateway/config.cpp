// Reads one line's YAML configuration. Every key is checked against the keys its section
// takes and every value against its range, so a typo stops the service at start with the
// file, the line and the key, instead of leaving a setting silently at its default.
#include "config.h"

#include "config_server.h"
#include "yaml_reader.h"

#include "rtuplc_host/address.h"
#include "rtuplc_host/items.h"
#include "rtuplc_host/line_limits.h"

#include "rtuplc_support/serial_line.h"

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>

namespace rtugw {

namespace {

namespace fs = std::filesystem;

using namespace rtuhost; // the line's limits and addresses, as rtuplc-poll takes them
constexpr int kPlainMqttPort = 1883, kTlsMqttPort = 8883;
constexpr int kMaxQos = 1; // QoS 2 costs two more round trips for values that are republished anyway
constexpr int kMinKeepalive = 5, kMaxKeepalive = 3600;
constexpr long long kMinBuffer = 1, kMaxBuffer = 10000000;
constexpr int kMaxStatsInterval = 86400;
constexpr size_t kMaxClientId = 128;
constexpr int kMaxHistoryMinutes = 24 * 60;
constexpr unsigned long long kKiB = 1024, kMiB = kKiB * 1024, kGiB = kMiB * 1024;
constexpr unsigned long long kMinLogBytes = kMiB, kMaxLogBytes = 1024 * kGiB;
constexpr size_t kMaxConfigBytes = kMiB; // far more than any line's items

const char *const kMqttScheme = "mqtt://";
const char *const kMqttsScheme = "mqtts://";
const char *const kLineHint = "say tcp: HOST:PORT or serial: DEVICE";

const Keys kTopKeys = {"name",      "line",          "mqtt", "items", "stations",
                       "sparkplug", "homeassistant", "http", "log",   "modbus-server"};
const Keys kLineKeys = {"tcp",   "serial",  "settings", "rs485",          "timeout",
                        "pause", "retries", "station",  "probe-interval", "probe-max"};
const Keys kMqttKeys = {"url",   "client-id", "username",  "password-file", "password",       "ca",  "cert", "key",
                        "topic", "qos",       "keepalive", "buffer",        "stats-interval", "mode"};
const Keys kItemKeys = {"item",       "writable",   "name",          "unit",    "device-class", "every", "type",
                        "word-order", "byte-order", "scale",         "offset",  "decimals",     "min",   "max",
                        "write",      "deadband",   "publish-every", "metrics", "state-class"};
const Keys kTypes = {"uint16", "int16", "uint32", "int32", "float32", "bool", "string"};
const Keys kOrders = {"high-first", "low-first"};
constexpr long long kMaxDecimals = 15;
const Keys kStationKeys = {"name"};
const Keys kSparkplugKeys = {"group", "node", "primary-host", "state-dir"};
const Keys kHomeAssistantKeys = {"prefix"};
const Keys kHttpKeys = {"listen", "token-file", "history"};
const Keys kLogKeys = {"csv", "rotate", "max-size"};

bool isNameChar(unsigned char c)
{
    return std::isalnum(c) || c == '_' || c == '-';
}

bool isName(const std::string &s)
{
    return !s.empty() && std::all_of(s.begin(), s.end(), isNameChar);
}

// Why `topic` cannot start the topics we publish under, or empty when it can.
std::string topicProblem(const std::string &topic)
{
    if (topic.find_first_of("+#") != std::string::npos)
        return "a wildcard (+ or #) cannot be part of a topic we publish to";
    if (topic.find('\0') != std::string::npos)
        return "a NUL character is not allowed in a topic";
    if (topic.front() == '/' || topic.back() == '/')
        return "no leading or trailing /: the levels under it are added with their own /";
    if (topic.find("//") != std::string::npos)
        return "an empty level (//) makes a different topic from what was meant";
    return {};
}

// A Sparkplug id is one topic level.
std::string sparkplugIdProblem(const std::string &id)
{
    if (id.find_first_of("/+#") != std::string::npos || id.find('\0') != std::string::npos)
        return "must be one topic level: no /, + or #";
    return {};
}

bool parseUrl(const std::string &url, MqttConfig *m)
{
    const bool tls = url.rfind(kMqttsScheme, 0) == 0;
    if (!tls && url.rfind(kMqttScheme, 0) != 0)
        return false;
    m->tls = tls;
    const std::string rest = url.substr(std::strlen(tls ? kMqttsScheme : kMqttScheme));
    return parseHostPort(rest, &m->host, &m->port, tls ? kTlsMqttPort : kPlainMqttPort);
}

// A time as rtuplc-poll takes it: "500ms", "10s", "2m"; a bare number is seconds.
bool readInterval(Reader &r, const Section &s, const char *key, long long *ms)
{
    std::string text;
    if (!readText(r, s, key, &text))
        return false;
    if (text.empty())
        return true;
    std::chrono::milliseconds t{0};
    QString why;
    if (!rtuhost::parseInterval(QString::fromStdString(text), &t, &why))
        return r.fail(s.line(key), s.path(key), why.toStdString());
    *ms = t.count();
    return true;
}

bool parseLine(Reader &r, const Section &top, LineConfig *line)
{
    const Section::Entry *e = top.find("line");
    if (!e)
        return r.fail(0, "line", std::string("missing (") + kLineHint + ")");
    Section s;
    if (!s.open(r, e->value, lineOf(e->key), "line", "line", kLineKeys))
        return false;
    const bool tcp = s.find("tcp"), serial = s.find("serial");
    if (tcp == serial)
        return r.fail(s.line(), "line",
                      std::string(tcp ? "give tcp or serial, not both" : "no link given") + " (" + kLineHint + ")");
    if (tcp) {
        line->kind = LineConfig::Kind::Tcp;
        if (!readHostPort(r, s, "tcp", &line->host, &line->port, nullptr))
            return false;
        for (const char *serialOnly : {"settings", "rs485"})
            if (s.find(serialOnly))
                return r.fail(s.line(serialOnly), s.path(serialOnly),
                              "only with serial: a TCP link has no line settings");
    } else {
        line->kind = LineConfig::Kind::Serial;
        if (!readText(r, s, "serial", &line->device) || !readText(r, s, "settings", &line->settings) ||
            !readBool(r, s, "rs485", &line->rs485))
            return false;
        if (!line->settings.empty()) {
            rtusupport::SerialLine parsed;
            std::string why;
            if (!rtusupport::parseSerialLine(line->settings, &parsed, &why))
                return r.fail(s.line("settings"), "line.settings", why);
            line->settings = rtusupport::formatSerialLine(parsed);
        }
    }
    return readNumber(r, s, "timeout", kMinTimeoutMs, kMaxTimeoutMs, "milliseconds", &line->timeoutMs) &&
           readNumber(r, s, "pause", kMinPauseMs, kMaxPauseMs, "milliseconds", &line->pauseMs) &&
           readNumber(r, s, "retries", kMinRetries, kMaxRetries, "", &line->retries) &&
           readNumber(r, s, "station", kLowestStation, kHighestStation, "", &line->station) &&
           readInterval(r, s, "probe-interval", &line->probeIntervalMs) &&
           readInterval(r, s, "probe-max", &line->probeMaxMs);
}

bool parseMqttCredentials(Reader &r, const Section &s, MqttConfig *m)
{
    if (s.find("password-file") && s.find("password"))
        return r.fail(s.line("password"), "mqtt.password", "give password or password-file, not both");
    if (!readText(r, s, "username", &m->username) ||
        !readSecretFile(r, s, "password-file", &m->passwordFile, &m->password) ||
        !readText(r, s, "password", &m->password))
        return false;
    const char *given = s.find("password") ? "password" : "password-file";
    if (s.find(given) && m->username.empty())
        return r.fail(s.line(given), s.path(given), "needs mqtt.username: a broker takes a password only with a user");
    for (const char *key : {"ca", "cert", "key"})
        if (s.find(key) && !m->tls)
            return r.fail(s.line(key), s.path(key), "only with an mqtts:// url: mqtt:// does not use TLS");
    if (!readFilePath(r, s, "ca", &m->ca) || !readFilePath(r, s, "cert", &m->cert) ||
        !readFilePath(r, s, "key", &m->key))
        return false;
    if (m->cert.empty() != m->key.empty()) {
        const char *given = m->cert.empty() ? "key" : "cert";
        return r.fail(s.line(given), s.path(given),
                      "a client certificate and its key go together: give both cert and key");
    }
    return true;
}

bool parseMqtt(Reader &r, const Section &top, const std::string &name, MqttConfig *m)
{
    Section s;
    const Section::Entry *e = top.find("mqtt");
    if (e && !s.open(r, e->value, lineOf(e->key), "mqtt", "mqtt", kMqttKeys))
        return false;
    if (!readText(r, s, "url", &m->url))
        return false;
    // user:password@ would put the password in every message that quotes the url.
    if (m->url.find('@') != std::string::npos)
        return r.fail(s.line("url"), "mqtt.url", "no user or password in the url: give username: and password-file:");
    if (!parseUrl(m->url, m))
        return r.fail(s.line("url"), "mqtt.url",
                      "must be mqtt://HOST[:PORT] or mqtts://HOST[:PORT] (a port from 1 to 65535), not " +
                          inQuotes(m->url));
    m->clientId = "rtuplc-" + name;
    m->topic = "rtuplc/" + name;
    if (!readText(r, s, "client-id", &m->clientId))
        return false;
    if (m->clientId.size() > kMaxClientId)
        return r.fail(s.line("client-id"), "mqtt.client-id",
                      "at most " + std::to_string(kMaxClientId) + " characters, not " +
                          std::to_string(m->clientId.size()) + (s.find("client-id") ? "" : " (rtuplc-NAME)"));
    if (!readText(r, s, "topic", &m->topic))
        return false;
    const std::string why = topicProblem(m->topic);
    if (!why.empty())
        return r.fail(s.line("topic"), "mqtt.topic", inQuotes(m->topic) + ": " + why);
    std::string mode;
    if (!parseMqttCredentials(r, s, m) || !readNumber(r, s, "qos", 0, kMaxQos, "", &m->qos) ||
        !readNumber(r, s, "keepalive", kMinKeepalive, kMaxKeepalive, "seconds", &m->keepalive) ||
        !readNumber(r, s, "buffer", kMinBuffer, kMaxBuffer, "messages", &m->buffer) ||
        !readNumber(r, s, "stats-interval", 0, kMaxStatsInterval, "seconds", &m->statsInterval) ||
        !readChoice(r, s, "mode", {"plain", "sparkplug"}, &mode))
        return false;
    m->mode = mode == "sparkplug" ? MqttConfig::Mode::Sparkplug : MqttConfig::Mode::Plain;
    return true;
}

const char *const kItemsHint = "a list of items, e.g. - D_W:100..109";

bool parseItem(Reader &r, const YAML::Node &node, ItemConfig *item)
{
    item->line = lineOf(node);
    if (node.IsScalar() && !node.Scalar().empty()) {
        item->text = node.Scalar();
        return true;
    }
    if (!node.IsMap())
        return r.fail(item->line, "items",
                      "an item is text like D_W:100..109, or a mapping with item: and writable:, not " +
                          describe(node));
    Section s;
    if (!s.open(r, node, item->line, "items", "an item", kItemKeys))
        return false;
    if (!s.find("item"))
        return r.fail(item->line, "items.item", "missing (the item itself, e.g. item: D_W:500..504)");
    for (const std::string &key : kItemKeys) {
        if (s.find(key))
            item->keyLines[key] = s.line(key);
    }
    rtuhost::TypeOptions &t = item->type;
    std::string write;
    if (!readText(r, s, "item", &item->text) || !readBool(r, s, "writable", &item->writable) ||
        !readText(r, s, "name", &item->name) || !readText(r, s, "unit", &item->unit) ||
        !readText(r, s, "device-class", &item->deviceClass) || !readInterval(r, s, "every", &item->everyMs) ||
        !readChoice(r, s, "type", kTypes, &t.type) || !readChoice(r, s, "word-order", kOrders, &t.wordOrder) ||
        !readChoice(r, s, "byte-order", kOrders, &t.byteOrder) || !readReal(r, s, "scale", &t.scale) ||
        !readReal(r, s, "offset", &t.offset) || !readNumber(r, s, "decimals", 0, kMaxDecimals, "", &t.decimals) ||
        !readReal(r, s, "min", &t.min) || !readReal(r, s, "max", &t.max) ||
        !readChoice(r, s, "write", {"read-modify-write"}, &write) || !readReal(r, s, "deadband", &item->deadband) ||
        !readInterval(r, s, "publish-every", &item->publishEveryMs) || !readBool(r, s, "metrics", &item->metrics) ||
        !readChoice(r, s, "state-class", {"measurement", "total", "total_increasing", "none"}, &item->stateClass))
        return false;
    if (item->deadband < 0)
        return r.fail(s.line("deadband"), "items.deadband",
                      "must be 0 or more, not " + inQuotes(s.find("deadband")->value.Scalar()));
    // A write that reads the word first overwrites what changed in it meanwhile: said, not assumed.
    if (!write.empty()) {
        if (s.find("writable") && !item->writable)
            return r.fail(s.line("write"), "items.write",
                          "writes, and writable: false says the item may not be written");
        item->writable = item->readModifyWrite = true;
    }
    return true;
}

bool parseItems(Reader &r, const Section &top, std::vector<ItemConfig> *items)
{
    const Section::Entry *e = top.find("items");
    if (!e)
        return r.fail(0, "items", std::string("missing (") + kItemsHint + ")");
    if (!e->value.IsSequence())
        return r.fail(lineOf(e->key), "items", std::string("must be ") + kItemsHint + ", not " + describe(e->value));
    if (e->value.size() == 0)
        return r.fail(lineOf(e->key), "items", std::string("empty (") + kItemsHint + ")");
    for (const YAML::Node &node : e->value) {
        ItemConfig item;
        if (!parseItem(r, node, &item))
            return false;
        items->push_back(item);
    }
    return true;
}

bool parseStations(Reader &r, const Section &top, bool sparkplug, std::map<int, std::string> *names)
{
    const Section::Entry *e = top.find("stations");
    if (!e || e->value.IsNull())
        return true;
    if (!e->value.IsMap())
        return r.fail(lineOf(e->key), "stations",
                      "must be a mapping of station numbers, e.g. 1: { name: press }, not " + describe(e->value));
    for (auto it = e->value.begin(); it != e->value.end(); ++it) {
        const int at = lineOf(it->first);
        const std::string key = it->first.IsScalar() ? it->first.Scalar() : "";
        long long n = 0;
        if (!parseNumber(key, &n) || n < kLowestStation || n > kHighestStation)
            return r.fail(at, "stations", "a station is a number from 1 to 247, not " + describe(it->first));
        if (names->count(int(n)))
            return r.fail(at, "stations." + key, "given twice");
        Section s;
        std::string name;
        if (!s.open(r, it->second, at, "stations." + key, "a station", kStationKeys) || !readText(r, s, "name", &name))
            return false;
        if (name.empty())
            return r.fail(at, "stations." + key + ".name", "missing");
        // In Sparkplug a station's name is its device's id: one topic level, its own.
        const std::string why = sparkplug ? sparkplugIdProblem(name) : std::string();
        if (!why.empty())
            return r.fail(at, "stations." + key + ".name", inQuotes(name) + ": " + why);
        for (const auto &[other, otherName] : *names) {
            if (sparkplug && otherName == name)
                return r.fail(at, "stations." + key + ".name",
                              inQuotes(name) + " is station " + std::to_string(other) +
                                  "'s already: Sparkplug devices need names of their own");
        }
        (*names)[int(n)] = name;
    }
    return true;
}

bool parseSparkplug(Reader &r, const Section &top, const Config &c, SparkplugConfig *sp)
{
    const Section::Entry *e = top.find("sparkplug");
    const bool on = c.mqtt.mode == MqttConfig::Mode::Sparkplug;
    if (e && !on)
        return r.fail(lineOf(e->key), "sparkplug", "only with mqtt.mode: sparkplug");
    if (!on)
        return true;
    Section s;
    if (e && !s.open(r, e->value, lineOf(e->key), "sparkplug", "sparkplug", kSparkplugKeys))
        return false;
    sp->node = c.name;
    if (!readText(r, s, "group", &sp->group) || !readText(r, s, "node", &sp->node) ||
        !readText(r, s, "primary-host", &sp->primaryHost) || !readPath(r, s, "state-dir", &sp->stateDir))
        return false;
    if (sp->group.empty())
        return r.fail(s.line(), "sparkplug.group", "missing (mqtt.mode sparkplug publishes under a group id)");
    const std::pair<const char *, const std::string *> ids[] = {
        {"group", &sp->group}, {"node", &sp->node}, {"primary-host", &sp->primaryHost}};
    for (const auto &[key, id] : ids) {
        const std::string why = sparkplugIdProblem(*id);
        if (!why.empty())
            return r.fail(s.line(key), s.path(key), inQuotes(*id) + ": " + why);
    }
    return true;
}

bool parseHomeAssistant(Reader &r, const Section &top, const Config &c, HomeAssistantConfig *ha)
{
    const Section::Entry *e = top.find("homeassistant");
    // Home Assistant's entities read the plain topics, which a Sparkplug node has not.
    if (e && c.mqtt.mode == MqttConfig::Mode::Sparkplug)
        return r.fail(lineOf(e->key), "homeassistant",
                      "only with mqtt.mode: plain (its entities read the plain topics)");
    Section s;
    if (!e || !s.open(r, e->value, lineOf(e->key), "homeassistant", "homeassistant", kHomeAssistantKeys))
        return !e;
    ha->enabled = true;
    if (!readText(r, s, "prefix", &ha->prefix))
        return false;
    const std::string why = topicProblem(ha->prefix);
    return why.empty() || r.fail(s.line("prefix"), "homeassistant.prefix", inQuotes(ha->prefix) + ": " + why);
}

bool parseHttp(Reader &r, const Section &top, HttpConfig *http)
{
    const Section::Entry *e = top.find("http");
    Section s;
    if (!e || !s.open(r, e->value, lineOf(e->key), "http", "http", kHttpKeys))
        return !e;
    http->enabled = true;
    parseHostPort(http->listen, &http->host, &http->port, 0); // the default address, split like a given one
    return readHostPort(r, s, "listen", &http->host, &http->port, &http->listen) &&
           readSecretFile(r, s, "token-file", &http->tokenFile, &http->token) &&
           readNumber(r, s, "history", 0, kMaxHistoryMinutes, "minutes", &http->historyMinutes);
}

// A size in bytes, or with K, M or G for binary kilo-, mega- and gigabytes.
bool parseSize(const std::string &text, unsigned long long *bytes)
{
    if (text.empty())
        return false;
    const char suffix = char(std::toupper(static_cast<unsigned char>(text.back())));
    const unsigned long long unit = suffix == 'K' ? kKiB : suffix == 'M' ? kMiB : suffix == 'G' ? kGiB : 1;
    long long n = 0;
    if (!parseNumber(unit == 1 ? text : text.substr(0, text.size() - 1), &n) || n < 0 ||
        (unsigned long long)n > kMaxLogBytes / unit)
        return false;
    *bytes = (unsigned long long)n * unit;
    return true;
}

bool parseLog(Reader &r, const Section &top, LogConfig *log)
{
    const Section::Entry *e = top.find("log");
    Section s;
    if (!e)
        return true;
    std::string rotate, size;
    if (!s.open(r, e->value, lineOf(e->key), "log", "log", kLogKeys) || !readPath(r, s, "csv", &log->csvDir) ||
        !readChoice(r, s, "rotate", {"daily", "never"}, &rotate) || !readText(r, s, "max-size", &size))
        return false;
    if (rotate == "never")
        log->rotate = LogConfig::Rotate::Never;
    unsigned long long bytes = 0;
    if (!size.empty() && (!parseSize(size, &bytes) || bytes < kMinLogBytes))
        return r.fail(s.line("max-size"), "log.max-size",
                      "must be a size in bytes, or with K, M or G, from 1M to 1024G, not " + inQuotes(size));
    if (!size.empty())
        log->maxBytes = bytes;
    return true;
}

// The name is part of topics and of the client id, so it keeps to characters that are
// safe in both.
bool parseName(Reader &r, const Section &top, const std::string &path, std::string *name)
{
    const std::string file = fs::path(path).filename();
    *name = file;
    for (const char *ext : {".yaml", ".yml"}) {
        const size_t n = std::strlen(ext);
        if (file.size() > n && file.compare(file.size() - n, n, ext) == 0)
            *name = file.substr(0, file.size() - n);
    }
    const bool given = top.find("name");
    if (!readText(r, top, "name", name))
        return false;
    if (isName(*name))
        return true;
    return r.fail(given ? top.line("name") : 0, "name",
                  std::string(given ? "" : "taken from the file's name: ") + inQuotes(*name) +
                      " cannot be a name: letters, digits, _ and - only" + (given ? "" : "; say name: ..."));
}

bool parseAll(Reader &r, const YAML::Node &root, const std::string &path, Config *c)
{
    Section top;
    if (!top.open(r, root, lineOf(root), "", "the file", kTopKeys))
        return false;
    return parseName(r, top, path, &c->name) && parseLine(r, top, &c->line) && parseMqtt(r, top, c->name, &c->mqtt) &&
           parseItems(r, top, &c->items) &&
           parseStations(r, top, c->mqtt.mode == MqttConfig::Mode::Sparkplug, &c->stationNames) &&
           parseSparkplug(r, top, *c, &c->sparkplug) && parseHomeAssistant(r, top, *c, &c->homeassistant) &&
           parseHttp(r, top, &c->http) && parseLog(r, top, &c->log) && parseModbusServer(r, top, &c->modbusServer);
}

// A secret typed by mistake into another key would be quoted back with that key's value.
void redact(const Config &c, std::string *error)
{
    for (const std::string *secret : {&c.mqtt.password, &c.http.token})
        for (size_t at; !secret->empty() && (at = error->find(*secret)) != std::string::npos;)
            error->replace(at, secret->size(), "(secret)");
}

} // namespace

int ItemConfig::lineOf(const std::string &key) const
{
    const auto found = keyLines.find(key);
    return found != keyLines.end() ? found->second : line;
}

std::string where(const Config &config, int line)
{
    return config.file + (line > 0 ? ":" + std::to_string(line) : "") + ": ";
}

const std::vector<std::pair<std::string, std::vector<std::string>>> &configKeys()
{
    static const std::vector<std::pair<std::string, std::vector<std::string>>> sections = {
        {"", kTopKeys},
        {"line", kLineKeys},
        {"mqtt", kMqttKeys},
        {"items", kItemKeys},
        {"stations", kStationKeys},
        {"sparkplug", kSparkplugKeys},
        {"homeassistant", kHomeAssistantKeys},
        {"http", kHttpKeys},
        {"log", kLogKeys},
        {"modbus-server", kModbusServerKeys},
        {"modbus-server.tls", kModbusServerTlsKeys},
    };
    return sections;
}

bool loadConfig(const std::string &path, Config *config, std::string *error)
{
    Config c;
    c.file = path;
    YAML::Node root;
    if (!loadYaml(path, kMaxConfigBytes, &root, error))
        return false;
    if (root.IsNull()) {
        *error = path + ": empty: a configuration needs at least line: and items:";
        return false;
    }
    std::error_code ec;
    const fs::path absolute = fs::absolute(path, ec);
    Reader r{path, (ec ? fs::path(path) : absolute).parent_path().string(), error};
    if (!root.IsMap())
        return r.fail(lineOf(root), "the file",
                      "must be a mapping of keys (" + joined(kTopKeys) + "), not " + describe(root));
    try {
        if (!parseAll(r, root, path, &c)) {
            redact(c, error);
            return false;
        }
    } catch (const std::exception &e) {
        *error = path + ": cannot be read as a configuration: " + e.what();
        return false;
    }
    *config = c;
    return true;
}

} // namespace rtugw
