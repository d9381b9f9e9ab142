// Home Assistant's MQTT discovery: every item announced as an entity of its station's
// device, on the plain topics, so that a Home Assistant user sees the line's values
// appear by themselves, switches and numbers for what may be written, and a value the
// line lost shown as unavailable rather than as a stale number.
#ifndef RTUPLC_GATEWAY_HOMEASSISTANT_H
#define RTUPLC_GATEWAY_HOMEASSISTANT_H

#include <set>
#include <string>
#include <vector>

#include "broker.h"
#include "model.h"
#include "mqtt_client.h"

namespace rtugw {

class HomeAssistant : public BrokerListener {
public:
    HomeAssistant(Model &model, MqttClient &mqtt);

    void subscribe();
    void connected(bool sessionPresent) override;
    bool message(const Message &m) override;

    // "rtuplc_line1": the gateway's node id, letters, digits, _ and - only.
    std::string nodeId() const { return nodeId_; }
    // PREFIX/COMPONENT/NODE/OBJECT/config of a point.
    std::string configTopic(size_t index) const;
    // The discovery JSON of a point.
    std::string configJson(size_t index) const;

private:
    void announce();
    std::string component(size_t index) const;
    std::string objectId(size_t index) const;

    Model &model_;
    MqttClient &mqtt_;
    std::string prefix_; // Home Assistant's discovery prefix
    std::string topics_; // the plain topics' prefix
    std::string nodeId_;
    std::set<std::string> announced_; // config topics of the configured items
};

} // namespace rtugw

#endif
