#include "gateway.h"

#include <bitset>
#include <cstdio>

#include "csv_sink.h"
#include "homeassistant.h"
#include "modbus_server.h"
#include "notify.h"
#include "rtuplc_host/log.h"
#include "web_server.h"

namespace rtugw {

namespace {

// What the broker gets to take what is in flight on a clean stop.
constexpr std::chrono::seconds kStopTimeout{3};

rtuhost::HostSettings hostSettings(const Config &config, const LinePlan &plan)
{
    rtuhost::HostSettings s;
    s.retries = config.line.retries;
    s.line = plan.line;
    s.serial = config.line.kind == LineConfig::Kind::Serial;
    s.margin = std::chrono::milliseconds(config.line.timeoutMs);
    s.pause = std::chrono::milliseconds(config.line.pauseMs);
    s.confirmWrites = false; // answered once the controller acknowledged it
    s.probeInterval = std::chrono::milliseconds(config.line.probeIntervalMs);
    s.probeMax = std::chrono::milliseconds(std::max(config.line.probeMaxMs, config.line.probeIntervalMs));
    return s;
}

// How often the server's default max-age is brought in line with the polling's pace.
constexpr std::chrono::seconds kAgeInterval{1};

} // namespace

Gateway::Gateway(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue,
                 const LinePlan &plan, bool verbose)
    : config_(config)
{
    link_ = config.line.kind == LineConfig::Kind::Tcp
                ? rtuhost::makeTcpLink(config.line.host, config.line.port)
                : rtuhost::makeSerialLink(config.line.device, plan.line, config.line.rs485);
    model_ = std::make_unique<Model>(config, api, catalogue);
    model_->verbose = verbose;
    host_ = std::make_unique<rtuhost::Host>(api, *link_, *model_, hostSettings(config, plan));
    host_->monitor(plan.items);
    model_->attach(*host_, plan.values);
    if (config.modbusServer.enabled) {
        server_ = std::make_unique<ModbusServer>(config.modbusServer, knownStations(config, plan),
                                                 serverSerialLine(config.modbusServer, plan.line));
        host_->share(server_.get(), config.modbusServer.pollShare);
        model_->modbusStats = &server_->stats();
    }

    dialect_ = makeDialect(*model_);
    MqttSettings settings = settingsOf(config.mqtt);
    dialect_->shapeSession(&settings);
    broker_ = std::make_unique<Broker>(makeMqttClient(settings), config.mqtt);
    dialect_->bind(*broker_);
    model_->addSink(dialect_.get());
    broker_->addListener(dialect_.get());
    if (config.homeassistant.enabled) {
        homeassistant_ = std::make_unique<HomeAssistant>(*model_, broker_->client());
        homeassistant_->subscribe();
        broker_->addListener(homeassistant_.get());
    }
}

Gateway::~Gateway() = default;

bool Gateway::start(std::string *error)
{
    std::string why;
    // A line that is not there yet is reopened by the loop: its stations show offline.
    if (!link_->open(&why))
        rtuhost::logWarning("%s; retrying", why.c_str());
    if (!config_.log.csvDir.empty()) {
        csv_ = std::make_unique<CsvSink>(*model_);
        if (!csv_->open(error))
            return false;
        model_->addSink(csv_.get());
    }
    if (config_.http.enabled) {
        web_ = std::make_unique<WebPage>(*model_, *broker_);
        model_->addSink(web_.get());
        if (!web_->start(error))
            return false;
    }
    if (server_) {
        if (!server_->start(&why)) {
            *error = where(config_, 0) + why;
            return false;
        }
        for (const std::string &l : server_->listeners())
            rtuhost::logNotice("modbus server: %s", l.c_str());
    }
    if (!broker_->client().start(&why)) {
        *error = where(config_, 0) + "mqtt: " + why;
        return false;
    }
    host_->start();
    rtuhost::logNotice("%s: polling %zu values in %d blocks on %s; broker %s, %s", config_.name.c_str(),
                       model_->values().size(), host_->blockCount(), link_->describe().c_str(),
                       config_.mqtt.url.c_str(), dialect_->where().c_str());
    return true;
}

void Gateway::turn()
{
    broker_->tick();
    model_->tick();
    broker_->client().pump();
    if (server_) {
        std::bitset<256> offline;
        for (const auto &[station, silence] : host_->offline())
            offline.set(size_t(station) & 0xFF);
        server_->setOffline(offline);
        const auto now = std::chrono::steady_clock::now();
        const double polls = model_->pollsPerSecond();
        if (now >= nextAge_ && polls > 0) {
            // Two of the line's poll cycles: a value polled in turn is always that fresh.
            nextAge_ = now + kAgeInterval;
            server_->setMaxAge(std::chrono::milliseconds(long(2000.0 * std::max(1, host_->blockCount()) / polls)));
        }
    }
}

void Gateway::run(const std::atomic<bool> &stop)
{
    ServiceNotifier notifier;
    notifier.ready(status());
    while (!stop) {
        turn();
        host_->step(stop);
        notifier.alive([this] { return status(); });
    }
    notifier.stopping();
}

void Gateway::finish()
{
    rtuhost::logNotice("stopping");
    // Other masters' requests still waiting get no answer.
    if (server_)
        server_->stop();
    host_->finish(); // writes still open are answered
    turn();
    if (web_)
        web_->stop(); // after the writes it asked for were answered
    broker_->client().stop(dialect_->farewell(), kStopTimeout);
}

std::string Gateway::status() const
{
    int online = 0;
    for (const auto &[station, state] : model_->stations())
        online += state.online ? 1 : 0;
    char text[256];
    const int n = std::snprintf(text, sizeof text, "%d/%zu stations online, %.1f polls/s, broker %s, %llu held", online,
                                model_->stations().size(), model_->pollsPerSecond(), broker_->state().c_str(),
                                (unsigned long long)broker_->client().stats().held);
    if (server_ && n > 0 && size_t(n) < sizeof text) {
        const ModbusFigures f = server_->stats().figures();
        std::snprintf(text + n, sizeof text - size_t(n), ", %lld masters, %.0f%% from cache", (long long)f.masters,
                      100.0 * f.hitRatio());
    }
    return text;
}

} // namespace rtugw
