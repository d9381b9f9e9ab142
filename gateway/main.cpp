// rtuplc-gateway: polls one line through the driver and publishes its values on an
// MQTT broker, takes writes from it with an answer for each, and keeps running through
// line faults, broker restarts and bad input.
#include <signal.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <set>
#include <string>

#include "config.h"
#include "csv_sink.h"
#include "homeassistant.h"
#include "model.h"
#include "mqtt_client.h"
#include "notify.h"
#include "dialect_plain.h"
#include "rtuplc_host/host.h"
#include "rtuplc_host/stop_signals.h"
#include "dialect_sparkplug.h"
#include "web_server.h"

using namespace rtugw;
using namespace rtuhost;

namespace {

constexpr int kExitOk = 0;
constexpr int kExitUsage = 2;  // bad configuration or command line
constexpr int kExitDriver = 3; // the driver cannot be loaded
constexpr std::chrono::seconds kStopTimeout{3};

const char kUsage[] = R"(Usage: rtuplc-gateway --config FILE [--check] [--verbose] [--driver PATH]

Polls one Modbus RTU line through the driver and publishes every value on an MQTT
broker, retained, with its quality; takes writes to items configured writable from
P/STATION/AREA/ADDRESS/set and answers each on .../result. One process serves one line.

  --config FILE   the line's configuration (YAML; see rtuplc-gateway(1) and the example)
  --check         check the configuration, print the plan (blocks, topics, writable
                  items) and exit; nothing is opened
  --verbose       log every frame exchanged and every reply dropped
  --driver PATH   the driver library (default: beside the program, else librtuplc.so.2)
  --help          this text

Exit status: 0 stopped by SIGTERM or SIGINT (after publishing offline), 2 bad
configuration or command line, 3 the driver cannot be loaded.
)";

int fail(int code, const std::string &message)
{
    std::cerr << "rtuplc-gateway: " << message << '\n';
    if (code == kExitUsage && message.find(".yaml") == std::string::npos)
        std::cerr << "(rtuplc-gateway --help explains the options)\n";
    return code;
}

struct Args {
    std::string config, driver;
    bool check = false, verbose = false, help = false;
};

bool parseArgs(int argc, char **argv, Args *a, std::string *error)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const auto value = [&](std::string *out) {
            if (i + 1 >= argc) {
                *error = arg + " needs a value";
                return false;
            }
            *out = argv[++i];
            return true;
        };
        if (arg == "--config") {
            if (!value(&a->config))
                return false;
        } else if (arg == "--driver") {
            if (!value(&a->driver))
                return false;
        } else if (arg == "--check") {
            a->check = true;
        } else if (arg == "--verbose") {
            a->verbose = true;
        } else if (arg == "--help" || arg == "-h") {
            a->help = true;
        } else {
            *error = "unknown option " + arg;
            return false;
        }
    }
    if (!a->help && a->config.empty()) {
        *error = "--config FILE is required";
        return false;
    }
    return true;
}

// The driver's default line: "0,9600,8,EVEN,1,...".
std::string driverDefaultLine(const DriverApi &api)
{
    QString text;
    api.getDriverParameter(text);
    const QStringList f = text.split(',');
    return f.size() > 4 ? f.mid(1, 4).join(',').toStdString() : std::string("9600,8,EVEN,1");
}

// Where the values go on the broker, for people.
std::string publishedWhere(const Config &c)
{
    return c.mqtt.mode == MqttConfig::Mode::Sparkplug ? "Sparkplug B node " + sparkplugNodeTopics(c)
                                                      : "topics under " + c.mqtt.topic + "/";
}

// The blocks the driver plans, in polling order, found by letting it walk its rotation
// with every request failing at once: nothing is sent.
void printPlan(const DriverApi &api, const Catalogue &catalogue, const Config &c, const std::vector<Item> &items,
               const std::vector<Point> &points, const std::set<std::tuple<int, QString, int>> &writable)
{
    std::vector<unsigned char> memory(kHostMemoryBytes);
    std::vector<unsigned short> recipe(kRecipeBufferWords);
    QMutex lock;
    int err = 0;
    api.initProperty(memory.data(), 0, recipe.data(), &err, "1#0#0#1#64", &lock);
    QList<KEY_ADDRESS> keys;
    for (const Item &item : items)
        keys.append(item.key());
    const int blocks = api.addrMerge(keys);
    const bool sparkplug = c.mqtt.mode == MqttConfig::Mode::Sparkplug;
    std::printf("gateway %s: %s, broker %s, %s\n", c.name.c_str(),
                c.line.kind == LineConfig::Kind::Tcp ? ("tcp " + c.line.host + ":" + std::to_string(c.line.port)).c_str()
                                                     : ("serial " + c.line.device).c_str(),
                c.mqtt.url.c_str(), publishedWhere(c).c_str());
    std::printf("%d block%s polled in turn:\n", blocks, blocks == 1 ? "" : "s");
    for (int b = 0; b < blocks; ++b) {
        FRAME_PRO f;
        if (api.getSendFrame(f) != 1)
            break;
        // In the area's own notation, as items are written: "D_W:100..109".
        const Area *area = catalogue.find(f.regName);
        const auto at = [&](int a) { return area ? area->format(a) : QString::number(a); };
        const QString range = f.len > 1 ? at(f.startAddr) + QStringLiteral("..") + at(f.startAddr + f.len - 1)
                                        : at(f.startAddr);
        std::printf("  station %d %s:%s, %d unit%s (function %02X)\n", f.station, qPrintable(f.regName),
                    qPrintable(range), f.len, f.len == 1 ? "" : "s", f.frameLen > 1 ? f.frame[1] : 0);
        QString ignored;
        api.dealRcvFrame(QByteArray(), ignored);
    }
    std::printf("%zu value%s:\n", points.size(), points.size() == 1 ? "" : "s");
    for (const Point &p : points) {
        const bool w = writable.count({p.station, p.area->name, p.address}) != 0;
        if (sparkplug) {
            const std::string path = pathOf(p);
            std::printf("  device %s, metric %s%s\n", sparkplugDevice(c, p.station).c_str(),
                        path.substr(path.find('/') + 1).c_str(), w ? "  (writable: DCMD)" : "");
            continue;
        }
        std::printf("  %s/%s%s\n", c.mqtt.topic.c_str(), pathOf(p).c_str(), w ? "  (writable: .../set)" : "");
    }
    api.setAddrValueChangeCallBack(nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    Args args;
    std::string why;
    if (!parseArgs(argc, argv, &args, &why))
        return fail(kExitUsage, why);
    if (args.help) {
        std::cout << kUsage;
        return kExitOk;
    }

    Config config;
    if (!loadConfig(args.config, &config, &why) || !WebPage::checkConfig(config, &why))
        return fail(kExitUsage, why);

    DriverApi api;
    const std::string driverPath = args.driver.empty() ? defaultDriver() : args.driver;
    if (!loadDriver(driverPath, &api, &why, args.driver.empty()))
        return fail(kExitDriver, why);

    // Everything in the file is checked by the driver before anything is opened.
    rtusupport::SerialLine line;
    const std::string lineText = config.line.settings.empty() ? driverDefaultLine(api) : config.line.settings;
    if (!rtusupport::parseSerialLine(lineText, &line, &why))
        return fail(kExitUsage, where(config, 0) + "line.settings: " + why);
    const Catalogue catalogue(api);
    std::vector<Item> items;
    std::vector<std::pair<Item, const ItemConfig *>> configured;
    std::set<std::tuple<int, QString, int>> writable;
    std::set<std::tuple<int, QString, int>> distinct;
    for (const ItemConfig &ic : config.items) {
        Item item;
        QString error;
        if (!parseItem(QString::fromStdString(ic.text), config.line.station, catalogue, api, &item, &error))
            return fail(kExitUsage, where(config, ic.line) + "items: " + error.toStdString());
        for (const Point &p : item.points) {
            distinct.insert({p.station, p.area->name, p.address});
            if (ic.writable)
                writable.insert({p.station, p.area->name, p.address});
        }
        items.push_back(item);
        configured.emplace_back(item, &ic);
    }
    const size_t values = distinct.size();
    if (config.mqtt.buffer < values)
        return fail(kExitUsage, where(config, 0) + "mqtt.buffer: " + std::to_string(config.mqtt.buffer) +
                                    " cannot hold the latest value of each of the " + std::to_string(values) +
                                    " values; give at least that many");

    if (args.check) {
        std::vector<Point> points;
        std::set<std::tuple<int, QString, int>> seen;
        for (const Item &item : items) {
            for (const Point &p : item.points) {
                if (seen.insert({p.station, p.area->name, p.address}).second)
                    points.push_back(p);
            }
        }
        printPlan(api, catalogue, config, items, points, writable);
        std::printf("configuration %s: ok\n", config.file.c_str());
        return kExitOk;
    }

    const std::atomic<bool> &stop = stopOnSignals();
    // A broker or a browser that hangs up is an error to handle, not the service's death.
    signal(SIGPIPE, SIG_IGN);
    std::unique_ptr<Link> link = config.line.kind == LineConfig::Kind::Tcp
                                     ? makeTcpLink(config.line.host, config.line.port)
                                     : makeSerialLink(config.line.device, line, config.line.rs485);
    // A line that is not there yet is reopened by the loop: its stations show offline.
    if (!link->open(&why))
        std::fprintf(stderr, "rtuplc-gateway: %s; retrying\n", why.c_str());

    MqttSettings ms;
    ms.host = config.mqtt.host;
    ms.port = config.mqtt.port;
    ms.tls = config.mqtt.tls;
    ms.ca = config.mqtt.ca;
    ms.cert = config.mqtt.cert;
    ms.key = config.mqtt.key;
    ms.clientId = config.mqtt.clientId;
    ms.username = config.mqtt.username;
    ms.password = config.mqtt.password;
    ms.keepalive = config.mqtt.keepalive;
    ms.buffer = config.mqtt.buffer;
    const bool sparkplugMode = config.mqtt.mode == MqttConfig::Mode::Sparkplug;
    ms.will = PlainTopics::will(config);
    if (!sparkplugMode)
        ms.birth = PlainTopics::birth(config);
    // A Sparkplug node is born afresh on every connection: commands queued for an older
    // one mean nothing to it.
    if (sparkplugMode)
        ms.sessionExpiry = 0;
    std::unique_ptr<MqttClient> client = makeMqttClient(ms);
    MqttClient &mqtt = *client;

    HostSettings settings;
    settings.retries = config.line.retries;
    settings.line = line;
    settings.serial = config.line.kind == LineConfig::Kind::Serial;
    settings.margin = std::chrono::milliseconds(config.line.timeoutMs);
    settings.pause = std::chrono::milliseconds(config.line.pauseMs);
    settings.confirmWrites = false; // answered once the controller acknowledged it

    Model model(config, api, catalogue);
    model.verbose = args.verbose;
    Host host(api, *link, model, settings);
    host.monitor(items);
    model.attach(host, configured);
    PlainTopics plain(model, mqtt);
    // One dialect per connection: a Sparkplug host expects nothing else from a node.
    std::unique_ptr<SparkplugNode> sparkplug;
    std::unique_ptr<HomeAssistant> homeassistant;
    if (sparkplugMode) {
        sparkplug = std::make_unique<SparkplugNode>(model, mqtt);
        model.addSink(sparkplug.get());
        sparkplug->subscribe();
        mqtt.setWillProvider([node = sparkplug.get()] { return node->will(); });
    } else {
        model.addSink(&plain);
        plain.subscribe();
        plain.start();
        if (config.homeassistant.enabled) {
            homeassistant = std::make_unique<HomeAssistant>(model, mqtt);
            homeassistant->subscribe();
            plain.addListener(homeassistant.get());
        }
    }
    const auto brokerStatus = [&plain, &sparkplug] {
        return sparkplug ? BrokerStatus{sparkplug->brokerUp(), sparkplug->brokerState()}
                         : BrokerStatus{plain.brokerUp(), plain.brokerState()};
    };
    std::unique_ptr<CsvSink> csv;
    if (!config.log.csvDir.empty()) {
        csv = std::make_unique<CsvSink>(model);
        if (!csv->open(&why))
            return fail(kExitUsage, why);
        model.addSink(csv.get());
    }
    std::unique_ptr<WebPage> web;
    if (config.http.enabled) {
        web = std::make_unique<WebPage>(model, mqtt, brokerStatus);
        model.addSink(web.get());
        if (!web->start(&why))
            return fail(kExitUsage, why);
    }
    if (!mqtt.start(&why))
        return fail(kExitUsage, where(config, 0) + "mqtt: " + why);
    host.start();
    std::fprintf(stderr, "rtuplc-gateway: %s: polling %zu values in %d blocks on %s; broker %s, %s\n",
                 config.name.c_str(), host.points().size(), host.blockCount(), link->describe().c_str(),
                 config.mqtt.url.c_str(), publishedWhere(config).c_str());

    // The pace since the status was last told, whatever the mode and the stats topic.
    uint64_t pollsBefore = 0;
    auto before = std::chrono::steady_clock::now();
    const auto status = [&] {
        int online = 0;
        for (const auto &[station, state] : model.stations())
            online += state.online ? 1 : 0;
        const auto now = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - before).count();
        const double pace = seconds > 0 ? double(host.stats().polls - pollsBefore) / seconds : 0;
        pollsBefore = host.stats().polls;
        before = now;
        char text[256];
        std::snprintf(text, sizeof text, "%d/%zu stations online, %.1f polls/s, broker %s, %llu held", online,
                      model.stations().size(), pace, brokerStatus().state.c_str(),
                      (unsigned long long)mqtt.stats().held);
        return std::string(text);
    };
    ServiceNotifier notifier;
    notifier.ready(status());
    while (!stop) {
        model.tick();
        host.step(stop);
        notifier.alive(status);
    }
    notifier.stopping();
    std::fprintf(stderr, "rtuplc-gateway: stopping\n");
    host.finish(); // writes still open are answered
    model.tick();
    if (web)
        web->stop(); // after the writes it asked for were answered
    mqtt.stop(sparkplug ? sparkplug->farewell() : plain.farewell(), kStopTimeout);
    return kExitOk;
}
