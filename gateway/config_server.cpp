#include "config_server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <cstring>

#include "rtuplc_host/address.h"
#include "rtuplc_host/items.h"
#include "rtuplc_host/line_limits.h"
#include "rtuplc_support/serial_line.h"

namespace rtugw {

const Keys kModbusServerKeys = {"tcp",   "rtu-over-tcp",    "serial",          "settings",     "rs485",
                                "tls",   "allow",           "writable",        "max-age",      "poll-share",
                                "queue", "request-timeout", "max-connections", "idle-timeout", "cache"};
const Keys kModbusServerTlsKeys = {"listen", "cert", "key", "ca"};

namespace {

const char *const kDefaultListen = "127.0.0.1:1502";
const char *const kDefaultTlsListen = "127.0.0.1:802";
constexpr int kMaxQueue = 1024;
constexpr int kMaxConnections = 4096;
constexpr long long kMinute = 60000, kHour = 60 * kMinute;
constexpr int kIpv4Bits = 32, kIpv6Bits = 128;
const uint8_t kV4MappedPrefix[12] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF};

// A time as the other sections take it ("250ms", "10s", a bare number of seconds),
// from lo to hi milliseconds.
bool readDuration(Reader &r, const Section &s, const char *key, long long lo, long long hi, long long *ms)
{
    std::string text;
    if (!s.find(key))
        return true;
    if (!readText(r, s, key, &text))
        return false;
    std::chrono::milliseconds t{0};
    QString why;
    if (!rtuhost::parseInterval(QString::fromStdString(text), &t, &why))
        return r.fail(s.line(key), s.path(key), why.toStdString());
    if (t.count() < lo || t.count() > hi)
        return r.fail(s.line(key), s.path(key),
                      "must be from " + std::to_string(lo) + "ms to " + std::to_string(hi / 1000) + "s, not " +
                          inQuotes(text));
    *ms = t.count();
    return true;
}

bool readListen(Reader &r, const Section &s, const char *key, ModbusServerConfig::Listen *l)
{
    if (!s.find(key))
        return true;
    l->on = true;
    l->line = s.line(key);
    return readHostPort(r, s, key, &l->host, &l->port, &l->text);
}

// A list of scalars, each read by `parse`.
template <typename T, typename Parse>
bool readList(Reader &r, const Section &s, const char *key, const char *example, Parse parse, std::vector<T> *out)
{
    const Section::Entry *e = s.find(key);
    if (!e)
        return true;
    if (!e->value.IsSequence())
        return r.fail(s.line(key), s.path(key),
                      std::string("must be a list, e.g. [") + example + "], not " + describe(e->value));
    for (const YAML::Node &node : e->value) {
        T item;
        std::string why;
        if (!node.IsScalar() || !parse(node.Scalar(), &item, &why))
            return r.fail(lineOf(node), s.path(key),
                          (why.empty() ? "" : why + ": ") + "must be like " + example + ", not " + describe(node));
        out->push_back(item);
    }
    return true;
}

bool parseTls(Reader &r, const Section &s, ModbusServerConfig *m)
{
    const Section::Entry *e = s.find("tls");
    if (!e)
        return true;
    Section t;
    if (!t.open(r, e->value, lineOf(e->key), "modbus-server.tls", "modbus-server.tls", kModbusServerTlsKeys))
        return false;
    m->tls.on = true;
    m->tls.text = kDefaultTlsListen;
    m->tls.line = t.line();
    rtuhost::parseHostPort(m->tls.text, &m->tls.host, &m->tls.port);
    if (t.find("listen"))
        m->tls.line = t.line("listen");
    if (!readHostPort(r, t, "listen", &m->tls.host, &m->tls.port, &m->tls.text))
        return false;
    for (const char *key : {"cert", "key", "ca"})
        if (!t.find(key))
            return r.fail(t.line(), t.path(key),
                          "missing (TLS needs the server's certificate, its key, and the authority of the clients' "
                          "certificates)");
    return readFilePath(r, t, "cert", &m->cert) && readFilePath(r, t, "key", &m->key) &&
           readFilePath(r, t, "ca", &m->ca);
}

bool parsePollShare(Reader &r, const Section &s, double *share)
{
    std::string text;
    if (!s.find("poll-share"))
        return true;
    if (!readText(r, s, "poll-share", &text))
        return false;
    char *end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (*end != '\0' || !(v >= 0.0 && v <= 1.0))
        return r.fail(s.line("poll-share"), "modbus-server.poll-share",
                      "must be a share of the line from 0 to 1, e.g. 0.5, not " + inQuotes(text));
    *share = v;
    return true;
}

// A plain listener beyond loopback lets anyone who reaches the port read the line and,
// with writable ranges, write to the controllers.
bool checkExposure(Reader &r, const ModbusServerConfig &m)
{
    const std::pair<const char *, const ModbusServerConfig::Listen *> plain[] = {{"tcp", &m.tcp},
                                                                                 {"rtu-over-tcp", &m.rtuOverTcp}};
    for (const auto &[key, l] : plain) {
        if (l->on && m.allow.empty() && !isLoopbackHost(l->host))
            return r.fail(l->line, std::string("modbus-server.") + key,
                          l->text + " can be reached from other machines: give modbus-server.allow (the client "
                                    "networks, e.g. [10.1.2.0/24]), or serve them through modbus-server.tls with "
                                    "client certificates");
    }
    return true;
}

} // namespace

bool parseWritable(const std::string &text, ModbusServerConfig::Writable *w, std::string *why)
{
    const size_t colon = text.find(':');
    if (colon == std::string::npos)
        return false;
    const std::string table = text.substr(0, colon);
    if (table == "discrete" || table == "input") {
        *why = table + " cannot be written: only coils and holding registers";
        return false;
    }
    if (table != "coils" && table != "holding")
        return false;
    w->coils = table == "coils";
    std::string rest = text.substr(colon + 1);
    long long station = 0, first = 0, last = 0;
    const size_t at = rest.find('@');
    if (at != std::string::npos) {
        if (!parseNumber(rest.substr(at + 1), &station) || station < rtuhost::kLowestStation ||
            station > rtuhost::kHighestStation) {
            *why = "a station is a number from 1 to 247";
            return false;
        }
        rest.resize(at);
    }
    const size_t dots = rest.find("..");
    if (!parseNumber(rest.substr(0, dots), &first) ||
        !parseNumber(dots == std::string::npos ? rest : rest.substr(dots + 2), &last))
        return false;
    if (first < 0 || last > 65535 || first > last) {
        *why = "addresses run from 0 to 65535, the first not after the last";
        return false;
    }
    w->first = int(first);
    w->last = int(last);
    w->station = int(station);
    return true;
}

bool parseNetwork(const std::string &text, ModbusServerConfig::Network *n)
{
    const size_t slash = text.find('/');
    const std::string address = text.substr(0, slash);
    *n = {};
    if (inet_pton(AF_INET, address.c_str(), n->address) == 1) {
        n->prefix = kIpv4Bits;
    } else if (inet_pton(AF_INET6, address.c_str(), n->address) == 1) {
        n->v6 = true;
        n->prefix = kIpv6Bits;
    } else {
        return false;
    }
    if (slash == std::string::npos)
        return true;
    long long bits = 0;
    if (!parseNumber(text.substr(slash + 1), &bits) || bits < 0 || bits > n->prefix)
        return false;
    n->prefix = int(bits);
    return true;
}

bool isLoopbackHost(const std::string &host)
{
    uint8_t a[16];
    if (host == "localhost")
        return true;
    if (inet_pton(AF_INET, host.c_str(), a) == 1)
        return a[0] == 127;
    return inet_pton(AF_INET6, host.c_str(), a) == 1 && IN6_IS_ADDR_LOOPBACK(reinterpret_cast<in6_addr *>(a));
}

bool inNetworks(const std::vector<ModbusServerConfig::Network> &allow, const sockaddr *peer)
{
    const uint8_t *bytes = nullptr;
    bool v6 = false;
    if (peer->sa_family == AF_INET) {
        bytes = reinterpret_cast<const uint8_t *>(&reinterpret_cast<const sockaddr_in *>(peer)->sin_addr);
    } else if (peer->sa_family == AF_INET6) {
        bytes = reinterpret_cast<const uint8_t *>(&reinterpret_cast<const sockaddr_in6 *>(peer)->sin6_addr);
        v6 = std::memcmp(bytes, kV4MappedPrefix, sizeof kV4MappedPrefix) != 0;
        if (!v6)
            bytes += sizeof kV4MappedPrefix; // an IPv4 client on a dual-stack socket
    } else {
        return false;
    }
    for (const ModbusServerConfig::Network &n : allow) {
        if (n.v6 != v6)
            continue;
        const int whole = n.prefix / 8, rest = n.prefix % 8;
        if (std::memcmp(bytes, n.address, size_t(whole)) != 0)
            continue;
        const uint8_t mask = uint8_t(0xFF << (8 - rest));
        if (rest == 0 || (bytes[whole] & mask) == (n.address[whole] & mask))
            return true;
    }
    return false;
}

bool parseModbusServer(Reader &r, const Section &top, ModbusServerConfig *m)
{
    const Section::Entry *e = top.find("modbus-server");
    Section s;
    if (!e)
        return true;
    if (!s.open(r, e->value, lineOf(e->key), "modbus-server", "modbus-server", kModbusServerKeys))
        return false;
    m->enabled = true;
    if (!readListen(r, s, "tcp", &m->tcp) || !readListen(r, s, "rtu-over-tcp", &m->rtuOverTcp) ||
        !readText(r, s, "serial", &m->serial) || !parseTls(r, s, m))
        return false;
    if (m->serial.empty()) {
        for (const char *serialOnly : {"settings", "rs485"})
            if (s.find(serialOnly))
                return r.fail(s.line(serialOnly), s.path(serialOnly), "only with modbus-server.serial");
    } else {
        if (!readText(r, s, "settings", &m->settings) || !readBool(r, s, "rs485", &m->rs485))
            return false;
        rtusupport::SerialLine parsed;
        std::string why;
        if (!m->settings.empty() && !rtusupport::parseSerialLine(m->settings, &parsed, &why))
            return r.fail(s.line("settings"), "modbus-server.settings", why);
        if (!m->settings.empty())
            m->settings = rtusupport::formatSerialLine(parsed);
    }
    if (!m->tcp.on && !m->rtuOverTcp.on && !m->tls.on && m->serial.empty()) {
        m->tcp.on = true;
        m->tcp.text = kDefaultListen;
        m->tcp.line = s.line();
        rtuhost::parseHostPort(m->tcp.text, &m->tcp.host, &m->tcp.port);
    }
    const auto network = [](const std::string &t, ModbusServerConfig::Network *n, std::string *) {
        return parseNetwork(t, n);
    };
    return readList(r, s, "allow", "10.1.2.0/24", network, &m->allow) &&
           readList(r, s, "writable", "holding:100..119@2", parseWritable, &m->writable) &&
           readDuration(r, s, "max-age", 1, kHour, &m->maxAgeMs) && parsePollShare(r, s, &m->pollShare) &&
           readNumber(r, s, "queue", 1, kMaxQueue, "requests", &m->queue) &&
           readDuration(r, s, "request-timeout", 10, kMinute, &m->requestTimeoutMs) &&
           readNumber(r, s, "max-connections", 1, kMaxConnections, "connections", &m->maxConnections) &&
           readDuration(r, s, "idle-timeout", 100, 24 * kHour, &m->idleTimeoutMs) &&
           readBool(r, s, "cache", &m->cache) && checkExposure(r, *m);
}

} // namespace rtugw
