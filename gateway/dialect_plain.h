// The plain MQTT topics: each value retained as JSON under P/STATION/AREA/ADDR, each
// station's status, P/status with the connection's last will, writes taken from
// .../set and answered on .../result, and the line's figures on P/stats.
#ifndef RTUPLC_GATEWAY_DIALECT_PLAIN_H
#define RTUPLC_GATEWAY_DIALECT_PLAIN_H

#include <chrono>
#include <string>
#include <vector>

#include "dialect.h"

namespace rtugw {

class PlainTopics : public Dialect {
public:
    explicit PlainTopics(Model &model);

    // "offline" on P/status as the will, "online" as the birth the client sends first
    // on every connection.
    void shapeSession(MqttSettings *settings) const override;
    // The stations polled, with their status "offline" until a read succeeds.
    void bind(Broker &broker) override;
    std::vector<Message> farewell() const override;
    std::string where() const override;
    std::string planLine(const PlannedValue &v) const override;

    void valueChanged(size_t index) override;
    void stationChanged(int station) override;
    void tick() override;

    void connected(bool sessionPresent) override;
    bool message(const Message &m) override;

private:
    void handleSet(const Message &m);
    void publishStation(int station);
    void publishStats();
    void republishAll();

    Model &model_;
    MqttClient *mqtt_ = nullptr;
    std::string prefix_;
    int qos_;
    std::vector<bool> published_;
    std::chrono::steady_clock::time_point lastStats_ = std::chrono::steady_clock::now();
    bool everConnected_ = false;
};

} // namespace rtugw

#endif
