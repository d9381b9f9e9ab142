// The gateway's connection to the broker: TLS, user and password, the last will, a
// persistent session, reconnects with backoff. Messages wait in an Outbox, in order, and
// go out as fast as the broker takes them, and are held while it is away. The poll loop
// calls it from one thread.
#ifndef RTUPLC_GATEWAY_MQTT_CLIENT_H
#define RTUPLC_GATEWAY_MQTT_CLIENT_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "mqtt_outbox.h"

namespace rtugw {

struct MqttSettings {
    std::string host;
    int port = 1883;
    bool tls = false;
    std::string ca, cert, key; // files; cert and key only when the broker asks for one
    std::string clientId;
    std::string username, password;
    int keepalive = 30;                     // s
    size_t buffer = 100000;                 // messages held while the broker is away
    Message will;                           // published by the broker if the connection dies
    Message birth;                          // its counterpart: sent first on every connection, before anything held
    uint32_t sessionExpiry = 7 * 24 * 3600; // s the broker keeps the session (subscriptions, queued QoS 1)
};

struct MqttEvent {
    enum class Type {
        Connected, // sessionPresent says whether the broker kept our session
        Lost,      // an established connection dropped
        Failed,    // a connection attempt failed: text says why, once per change of reason
    };
    Type type;
    bool sessionPresent = false;
    std::string text; // for people: never contains the password
};

struct MqttStats {
    uint64_t published = 0; // acknowledged by the broker (QoS 1) or written to it (QoS 0)
    uint64_t held = 0;      // in the outbox now
    uint64_t dropped = 0;   // intermediate values dropped from a full outbox
};

// The broker as the gateway's logic sees it: the dialects, Home Assistant and the page
// talk to this, so that they are tested without a broker (a client of the tests' own
// stands in) and do not know which library carries the connection.
class MqttClient {
public:
    virtual ~MqttClient();

    // Starts connecting in the background and returns at once; false only for settings
    // the library refuses (error says why). Failed attempts are retried with backoff for ever.
    virtual bool start(std::string *error) = 0;
    // The will of each connection, asked for before every attempt, instead of the
    // settings' fixed one: for a will that must differ from one connection to the next.
    virtual void setWillProvider(std::function<Message()> provider) = 0;
    // What makes publishValue()'s messages; before start().
    virtual void setFormatter(ValueFormatter formatter) = 0;
    // Filters subscribed at every connect (QoS 1).
    virtual void subscribe(const std::string &filter) = 0;

    // Queues a message, to be sent in order behind everything published before it, and
    // held while the broker is away. Kind as the Outbox's.
    virtual void publish(Message m, Outbox::Kind kind = Outbox::Kind::Value) = 0;
    // The same for a value, made into its message by the formatter when sent.
    virtual void publishValue(ValueUpdate v) = 0;
    // Hands what was published since to the sender, and connects when it is time; call
    // from the loop, every turn.
    virtual void pump() = 0;

    virtual std::vector<Message> takeIncoming() = 0;
    virtual std::vector<MqttEvent> takeEvents() = 0;
    virtual bool connected() const = 0;
    virtual MqttStats stats() const = 0;

    // Publishes `last` (e.g. "offline" on the status topic), waits up to `timeout` for
    // what is in flight, then disconnects cleanly so that the will is not sent.
    virtual void stop(const std::vector<Message> &last, std::chrono::milliseconds timeout) = 0;
    // Ends the connection like stop(), after `last`, and connects again at once: a new
    // session with a new will. No Lost event: the caller knows.
    virtual void reconnect(const std::vector<Message> &last, std::chrono::milliseconds timeout) = 0;
};

// The client the service runs: libmosquitto (MQTT 5).
std::unique_ptr<MqttClient> makeMqttClient(const MqttSettings &settings);

} // namespace rtugw

#endif
