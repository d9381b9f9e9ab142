// The broker client on Eclipse Paho C (MQTTAsync, MQTT 5). A sender thread of the
// client's own hands queued messages to Paho as fast as the broker takes them; Paho's
// threads only fill the queues that takeIncoming() and takeEvents() empty.
#ifndef RTUPLC_GATEWAY_MQTT_PAHO_H
#define RTUPLC_GATEWAY_MQTT_PAHO_H

#include "mqtt_client.h"

namespace rtugw {

class PahoMqttClient : public MqttClient {
public:
    explicit PahoMqttClient(const MqttSettings &settings);
    ~PahoMqttClient() override;
    PahoMqttClient(const PahoMqttClient &) = delete;
    PahoMqttClient &operator=(const PahoMqttClient &) = delete;

    bool start(std::string *error) override;
    void setWillProvider(std::function<Message()> provider) override;
    void setFormatter(ValueFormatter formatter) override;
    void subscribe(const std::string &filter) override;
    void publish(Message m, Outbox::Kind kind = Outbox::Kind::Value) override;
    void publishValue(ValueUpdate v) override;
    void pump() override;
    std::vector<Message> takeIncoming() override;
    std::vector<MqttEvent> takeEvents() override;
    bool connected() const override;
    MqttStats stats() const override;
    void stop(const std::vector<Message> &last, std::chrono::milliseconds timeout) override;
    void reconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout) override;

private:
    // Publishes `last`, waits for what is in flight, then a clean DISCONNECT.
    void disconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout);
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace rtugw

#endif
