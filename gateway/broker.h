// The broker as the gateway's parts hear it: one place takes the client's events and
// the messages that came in, keeps the broker's state for the page and the status line,
// says what happened once in the log, and tells each listener in turn.
#ifndef RTUPLC_GATEWAY_BROKER_H
#define RTUPLC_GATEWAY_BROKER_H

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "config.h"
#include "mqtt_client.h"

namespace rtugw {

class BrokerListener {
public:
    virtual ~BrokerListener();
    virtual void connected(bool sessionPresent);
    // The connection dropped, or an attempt failed.
    virtual void lost();
    // True when the message was this listener's: the next ones do not see it.
    virtual bool message(const Message &m);
};

// The connection's settings from the mqtt section; the dialect adds its will and birth.
MqttSettings settingsOf(const MqttConfig &config);

class Broker {
public:
    Broker(std::unique_ptr<MqttClient> client, const MqttConfig &config);

    MqttClient &client() { return *client_; }
    const MqttClient &client() const { return *client_; }
    // Told in the order added.
    void addListener(BrokerListener *listener) { listeners_.push_back(listener); }

    // What happened since the last turn, to the listeners; on the loop's thread.
    void tick();
    // A connection ended on purpose, and made again at once after `last`; `state` says
    // why for people until it is up again.
    void leave(const std::vector<Message> &last, std::chrono::milliseconds timeout, const std::string &state);

    // What the state reads while up, for a dialect that waits on more than the broker.
    void setState(const std::string &state) { state_ = state; }

    bool up() const { return up_; }
    // "connecting", "connected", "connection lost", or why the last attempt failed.
    const std::string &state() const { return state_; }

private:
    std::unique_ptr<MqttClient> client_;
    const MqttConfig &config_;
    std::vector<BrokerListener *> listeners_;
    bool up_ = false;
    std::string state_ = "connecting";
};

} // namespace rtugw

#endif
