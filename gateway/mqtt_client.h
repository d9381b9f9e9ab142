// The gateway's connection to the broker, on Eclipse Paho C (MQTTAsync, MQTT 5): TLS,
// user and password, the last will, a persistent session, reconnects with backoff.
// Messages wait in an Outbox, in order, for a sender thread of the client's own to hand
// them to Paho as fast as the broker takes them, and while the broker is away. The poll
// loop calls it from one thread; Paho's threads only fill the queues that takeIncoming()
// and takeEvents() empty.
#ifndef RTUPLC_GATEWAY_MQTT_CLIENT_H
#define RTUPLC_GATEWAY_MQTT_CLIENT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "outbox.h"

namespace rtugw {

struct MqttSettings {
    std::string host;
    int port = 1883;
    bool tls = false;
    std::string ca, cert, key; // files; cert and key only when the broker asks for one
    std::string clientId;
    std::string username, password;
    int keepalive = 30;         // s
    size_t buffer = 100000;     // messages held while the broker is away
    Message will;               // published by the broker if the connection dies
    Message birth;              // its counterpart: sent first on every connection, before anything held
    uint32_t sessionExpiry = 7 * 24 * 3600; // s the broker keeps the session (subscriptions, queued QoS 1)
};

struct MqttEvent {
    enum class Type {
        Connected,    // sessionPresent says whether the broker kept our session
        Lost,         // an established connection dropped
        Failed,       // a connection attempt failed: text says why, once per change of reason
    };
    Type type;
    bool sessionPresent = false;
    std::string text;           // for people: never contains the password
};

struct MqttStats {
    uint64_t published = 0;     // acknowledged by the broker (QoS 1) or written to it (QoS 0)
    uint64_t held = 0;          // in the outbox now
    uint64_t dropped = 0;       // intermediate values dropped from a full outbox
};

class MqttClient {
public:
    explicit MqttClient(const MqttSettings &settings);
    ~MqttClient();
    MqttClient(const MqttClient &) = delete;
    MqttClient &operator=(const MqttClient &) = delete;

    // Starts connecting in the background and returns at once; false only for settings
    // Paho refuses (error says why). Failed attempts are retried with backoff for ever.
    bool start(std::string *error);
    // The will of each connection, asked for before every attempt, instead of the
    // settings' fixed one: for a will that must differ from one connection to the next.
    void setWillProvider(std::function<Message()> provider);
    // What makes publishValue()'s messages; before start().
    void setFormatter(ValueFormatter formatter);
    // Filters subscribed at every connect (QoS 1).
    void subscribe(const std::string &filter);

    // Queues a message, to be sent in order behind everything published before it, and
    // held while the broker is away. Kind as the Outbox's.
    void publish(Message m, Outbox::Kind kind = Outbox::Kind::Value);
    // The same for a value, made into its message by the settings' formatter when sent.
    void publishValue(ValueUpdate v);
    // Hands what was published since to the sender thread, and connects when it is
    // time; call from the loop, every turn.
    void pump();

    std::vector<Message> takeIncoming();
    std::vector<MqttEvent> takeEvents();
    bool connected() const;
    MqttStats stats() const;

    // Publishes `last` (e.g. "offline" on the status topic), waits up to `timeout` for
    // what is in flight, then disconnects cleanly so that the will is not sent.
    void stop(const std::vector<Message> &last, std::chrono::milliseconds timeout);
    // Ends the connection like stop(), after `last`, and connects again at once: a new
    // session with a new will. No Lost event: the caller knows.
    void reconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout);

private:
    // Publishes `last`, waits for what is in flight, then a clean DISCONNECT.
    void disconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout);
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

} // namespace rtugw

#endif
