// The broker client on libmosquitto (MQTT 5). Each connection runs on a network thread
// of the client's own, which makes the connection (TCP, TLS), then carries it until it
// ends: it hands queued messages to libmosquitto as fast as the broker takes them, many
// at a time, and reads the broker's answers. The network thread only fills the queues
// that takeIncoming() and takeEvents() empty.
#ifndef RTUPLC_GATEWAY_MQTT_MOSQUITTO_H
#define RTUPLC_GATEWAY_MQTT_MOSQUITTO_H

#include "mqtt_client.h"

namespace rtugw {

class MosquittoMqttClient : public MqttClient {
public:
    explicit MosquittoMqttClient(const MqttSettings &settings);
    ~MosquittoMqttClient() override;
    MosquittoMqttClient(const MosquittoMqttClient &) = delete;
    MosquittoMqttClient &operator=(const MosquittoMqttClient &) = delete;

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
