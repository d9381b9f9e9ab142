// What rtuplc-gateway publishes: each value with its quality, each station's status,
// the answers to writes, and the line's figures. It follows the host loop's events and
// keeps, per value, what the broker was last told, so that a value is shown good only
// when it was read since the last failure.
#ifndef RTUPLC_GATEWAY_GATEWAY_H
#define RTUPLC_GATEWAY_GATEWAY_H

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "config.h"
#include "mqtt_client.h"
#include "rtuplc_host/host.h"

namespace rtugw {

using rtuhost::Point;

// Counts of what the gateway did with writes and the broker, for the stats topic.
struct GatewayCounters {
    uint64_t writesOk = 0;
    uint64_t writesFailed = 0;   // sent and not acknowledged, replaced or dropped
    uint64_t writesRefused = 0;  // refused before anything was sent
};

// The topics and payloads, written once.
namespace topics {
std::string point(const std::string &prefix, const Point &p);   // P/STATION/AREA/ADDR
std::string station(const std::string &prefix, int station);    // P/STATION/status
std::string isoTime(std::chrono::system_clock::time_point t);   // 2026-11-24T14:02:11.204Z
std::string jsonString(const std::string &s);
}

class Gateway : public rtuhost::HostEvents {
public:
    // `writable` holds the points configured writable.
    Gateway(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue,
            MqttClient &mqtt, std::set<std::tuple<int, QString, int>> writable);
    void attach(rtuhost::Host &host);

    // The stations polled, with their status "offline" until a read succeeds.
    void announceStations(const std::vector<int> &stations);
    // Between exchanges: broker events, write requests, the stats topic.
    void serviceBroker();
    // A clean stop: the messages that say the gateway and its stations are gone.
    std::vector<Message> farewell() const;

    // One line for systemd's status and the log.
    std::string statusLine() const;
    const GatewayCounters &counters() const { return counters_; }

    void valueRead(const Point &point, uint32_t value) override;
    void blockRead(const FRAME_PRO &frame) override;
    void requestFailed(const FRAME_PRO &frame, const rtuhost::Failure &failure) override;
    void writeSettled(uint64_t id, const rtuhost::WriteRequest &write, rtuhost::WriteOutcome outcome,
                      const QString &detail) override;
    void exchanged(const FRAME_PRO &frame, const rtuhost::Exchange &exchange) override;

    bool verbose = false;

private:
    struct PointState {
        std::string topic;
        bool known = false;      // read at least once
        uint32_t value = 0;
        bool good = false;       // what the broker was last told
        bool published = false;
        std::string error;
        std::string ts;
    };
    struct Answer {
        std::string resultTopic;
        std::string idJson;      // the request's id, as JSON, or null
        std::string responseTopic;
        std::string correlation;
    };

    void publishPoint(size_t index);
    void setStation(int station, bool online);
    void handleSet(const Message &m);
    void answer(const Answer &a, bool ok, const std::string &valueOrError, uint64_t value = 0);
    void publishStats();
    void republishAll();

    const Config &config_;
    const rtuhost::DriverApi &api_;
    const rtuhost::Catalogue &catalogue_;
    MqttClient &mqtt_;
    rtuhost::Host *host_ = nullptr;
    std::string prefix_;
    std::set<std::tuple<int, QString, int>> writable_;

    std::vector<PointState> points_;
    std::map<int, bool> stations_;  // station -> online
    std::unordered_map<uint64_t, Answer> answers_;
    GatewayCounters counters_;

    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point lastStats_ = started_;
    uint64_t pollsAtLastStats_ = 0;
    double pollsPerSecond_ = 0;
    bool brokerUp_ = false;
    std::string brokerState_ = "connecting";
};

} // namespace rtugw

#endif
