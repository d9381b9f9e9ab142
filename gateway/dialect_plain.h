// The plain MQTT topics: each value retained as JSON under P/STATION/AREA/ADDR, each
// station's status, P/status with the connection's last will, writes taken from
// .../set and answered on .../result, and the line's figures on P/stats.
#ifndef RTUPLC_GATEWAY_DIALECT_PLAIN_H
#define RTUPLC_GATEWAY_DIALECT_PLAIN_H

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "model.h"
#include "mqtt_client.h"

namespace rtugw {

// What happens at the broker, for whoever else speaks through the same connection
// (Home Assistant's discovery, for one).
class BrokerListener {
public:
    virtual ~BrokerListener();
    virtual void connected(bool sessionPresent);
    // True when the message was this listener's.
    virtual bool message(const Message &m);
};

class PlainTopics : public Sink {
public:
    PlainTopics(Model &model, MqttClient &mqtt);

    // The will and the subscriptions; before the client starts.
    static Message will(const Config &config);
    // "online" on the same topic, which the client sends first on every connection.
    static Message birth(const Config &config);
    void subscribe();
    void addListener(BrokerListener *listener) { listeners_.push_back(listener); }
    // The stations polled, with their status "offline" until a read succeeds.
    void start();
    // A clean stop: what says the gateway and its stations are gone.
    std::vector<Message> farewell() const;
    std::string brokerState() const { return brokerState_; }
    bool brokerUp() const { return brokerUp_; }
    double pollsPerSecond() const { return pollsPerSecond_; }

    void pointChanged(size_t index) override;
    void stationChanged(int station) override;
    void tick() override;

    std::string topicOf(size_t index) const { return prefix_ + '/' + model_.points()[index].path; }
    // The JSON of a value as the topics carry it.
    static std::string payload(const ValueUpdate &v);
    static ValueUpdate update(size_t index, const PointState &s);
    static std::string answerPayload(const std::string &idJson, const WriteAnswer &a);
    // The JSON of the stats topic.
    static std::string statsJson(const rtuhost::Stats &h, const MqttStats &m, const WriteCounters &w,
                                 double pollsPerSecond, long long uptimeSeconds);

    // A write request's payload: a bare number, or {"value":1234,"id":...}.
    struct Request {
        std::string idJson = "null";
        std::string value;      // empty: not a number
        std::string error;      // why the payload is unusable
    };
    static Request parseRequest(const std::string &payload);

private:
    void handleSet(const Message &m);
    void publishStation(int station);
    void publishStats();
    void republishAll();

    Model &model_;
    MqttClient &mqtt_;
    std::string prefix_;
    int qos_;
    std::vector<BrokerListener *> listeners_;
    std::vector<bool> published_;
    std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point lastStats_ = started_;
    uint64_t pollsAtLastStats_ = 0;
    double pollsPerSecond_ = 0;
    bool brokerUp_ = false;
    bool everConnected_ = false;
    std::string brokerState_ = "connecting";
};

} // namespace rtugw

#endif
