#include "broker.h"

#include "rtuplc_host/log.h"

namespace rtugw {

BrokerListener::~BrokerListener() = default;
void BrokerListener::connected(bool) {}
void BrokerListener::lost() {}
bool BrokerListener::message(const Message &)
{
    return false;
}

MqttSettings settingsOf(const MqttConfig &c)
{
    MqttSettings s;
    s.host = c.host;
    s.port = c.port;
    s.tls = c.tls;
    s.ca = c.ca;
    s.cert = c.cert;
    s.key = c.key;
    s.clientId = c.clientId;
    s.username = c.username;
    s.password = c.password;
    s.keepalive = c.keepalive;
    s.buffer = c.buffer;
    return s;
}

Broker::Broker(std::unique_ptr<MqttClient> client, const MqttConfig &config)
    : client_(std::move(client)), config_(config)
{
}

void Broker::tick()
{
    for (const MqttEvent &e : client_->takeEvents()) {
        switch (e.type) {
        case MqttEvent::Type::Connected:
            up_ = true;
            state_ = "connected";
            rtuhost::logNotice("connected to the broker at %s:%d%s", config_.host.c_str(), config_.port,
                               e.sessionPresent ? "" : " (new session)");
            for (BrokerListener *l : listeners_)
                l->connected(e.sessionPresent);
            break;
        case MqttEvent::Type::Lost:
            up_ = false;
            state_ = "connection lost";
            rtuhost::logWarning("lost the broker: %s; holding messages and reconnecting", e.text.c_str());
            for (BrokerListener *l : listeners_)
                l->lost();
            break;
        case MqttEvent::Type::Failed:
            up_ = false;
            state_ = e.text;
            rtuhost::logWarning("%s; retrying", e.text.c_str());
            for (BrokerListener *l : listeners_)
                l->lost();
            break;
        }
    }
    for (const Message &m : client_->takeIncoming()) {
        for (BrokerListener *l : listeners_) {
            if (l->message(m))
                break;
        }
    }
}

void Broker::leave(const std::vector<Message> &last, std::chrono::milliseconds timeout, const std::string &state)
{
    client_->reconnect(last, timeout);
    up_ = false;
    state_ = state;
}

} // namespace rtugw
