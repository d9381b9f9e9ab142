// The service as one object: the line and its host loop, the model of its values, the
// broker's connection and the dialect spoken on it, and the other sinks (Home
// Assistant, the CSV log, the live page). main() builds it, runs it and stops it.
#ifndef RTUPLC_GATEWAY_GATEWAY_H
#define RTUPLC_GATEWAY_GATEWAY_H

#include <atomic>
#include <memory>
#include <string>

#include "broker.h"
#include "config.h"
#include "dialect.h"
#include "model.h"
#include "plan.h"
#include "rtuplc_host/host.h"
#include "rtuplc_host/link.h"

namespace rtugw {

class CsvSink;
class HomeAssistant;
class ModbusServer;
class WebPage;

class Gateway {
public:
    Gateway(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue,
            const LinePlan &plan, bool verbose);
    ~Gateway();

    // Opens the line (retried by the loop while it is not there), the CSV log, the page
    // and the broker's connection, and starts polling. False when the configuration
    // cannot be served: the log's folder, the page's address, the broker's settings.
    bool start(std::string *error);
    // Polls and serves until `stop` is set, telling systemd how it goes.
    void run(const std::atomic<bool> &stop);
    // Answers the writes still open, then leaves the broker with the dialect's farewell.
    void finish();

    // "2/3 stations online, 41.0 polls/s, broker connected, 0 held"; with the Modbus
    // server, ", 3 masters, 97% from cache"
    std::string status() const;
    // The Modbus server, when the configuration has one; null otherwise.
    const ModbusServer *modbusServer() const { return server_.get(); }

private:
    // What happens between exchanges: the broker's news, the sinks' work, the sending.
    void turn();

    const Config &config_;
    std::unique_ptr<rtuhost::Link> link_;
    std::unique_ptr<Model> model_;
    std::unique_ptr<rtuhost::Host> host_;
    std::unique_ptr<Dialect> dialect_;
    std::unique_ptr<Broker> broker_;
    std::unique_ptr<HomeAssistant> homeassistant_;
    std::unique_ptr<CsvSink> csv_;
    std::unique_ptr<WebPage> web_;
    std::unique_ptr<ModbusServer> server_;
    std::chrono::steady_clock::time_point nextAge_{};
};

} // namespace rtugw

#endif
