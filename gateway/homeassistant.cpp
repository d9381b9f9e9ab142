#include "homeassistant.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "rtuplc_host/log.h"

namespace rtugw {

namespace {

constexpr const char kOnline[] = "online";
constexpr const char kOffline[] = "offline";
constexpr const char kConfig[] = "/config";
constexpr const char kGatewayObject[] = "gateway";
constexpr int kConfigQos = 1;
constexpr double kLargest16 = 65535;
constexpr double kLargest32 = 4294967295.0;

// Home Assistant renders these against the JSON of the value's topic (value_json).
constexpr const char kNumberTemplate[] = "{{ value_json.value }}";
constexpr const char kSwitchTemplate[] = "{{ 'ON' if value_json.value else 'OFF' }}";
constexpr const char kQualityTemplate[] = "{{ 'online' if value_json.quality == 'good' else 'offline' }}";
// A number entity may send 12.0 for 12; a plain value's set topic takes whole numbers.
constexpr const char kCommandTemplate[] = "{{ value | int }}";
constexpr const char kTypedCommandTemplate[] = "{{ value }}";
// Text goes as JSON, so that no text is read as a number or an object of its own.
constexpr const char kTextCommandTemplate[] = "{{ {'value': value} | tojson }}";
// The finest step a number box offers, for a float without decimals.
constexpr double kFinestStep = 0.001;

struct Range {
    double min, max, step;
};

// What a writable number box offers: the item's min and max, else what the registers
// hold, scaled; steps of its decimals, of its scale, or whole.
Range rangeOf(const ValueType &t)
{
    const bool wide = t.registers == 2;
    double lo = 0, hi = wide ? kLargest32 : kLargest16, step = 1;
    switch (t.kind) {
    case rtuhost::ValueKind::Int16:
        lo = -32768, hi = 32767;
        break;
    case rtuhost::ValueKind::Int32:
        lo = -2147483648.0, hi = 2147483647;
        break;
    case rtuhost::ValueKind::Float32:
        lo = -3.4e38, hi = 3.4e38, step = kFinestStep;
        break;
    default:
        break;
    }
    if (t.scaled()) {
        const double a = lo * t.scale + t.offset, b = hi * t.scale + t.offset;
        lo = std::min(a, b), hi = std::max(a, b);
        step = t.kind == rtuhost::ValueKind::Float32 ? step : std::fabs(t.scale);
    }
    if (t.decimals >= 0)
        step = std::pow(10.0, -t.decimals);
    return Range{std::isfinite(t.min) ? t.min : lo, std::isfinite(t.max) ? t.max : hi, step};
}

// Home Assistant's ids take letters, digits, _ and - only.
std::string idText(const std::string &s)
{
    std::string out = s;
    for (char &c : out) {
        const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
        if (!ok)
            c = '_';
    }
    return out;
}

QString q(const std::string &s)
{
    return QString::fromStdString(s);
}

QJsonObject availabilityOf(const std::string &topic)
{
    return QJsonObject{{"topic", q(topic)}, {"payload_available", kOnline}, {"payload_not_available", kOffline}};
}

} // namespace

HomeAssistant::HomeAssistant(Model &model, MqttClient &mqtt)
    : model_(model), mqtt_(mqtt), prefix_(model.config().homeassistant.prefix), topics_(model.config().mqtt.topic),
      nodeId_(idText("rtuplc_" + model.config().name))
{
    announced_.insert(prefix_ + "/binary_sensor/" + nodeId_ + '/' + kGatewayObject + kConfig);
    for (size_t i = 0; i < model_.values().size(); ++i)
        announced_.insert(configTopic(i));
}

void HomeAssistant::subscribe()
{
    mqtt_.subscribe(prefix_ + "/status");
    // What the broker retains for this gateway shows what an earlier configuration
    // announced: whatever is not configured now is withdrawn as it arrives. The broker
    // is the only place that knows what Home Assistant was told, so no state file can
    // drift from it, and a gateway moved to another machine still cleans up.
    mqtt_.subscribe(prefix_ + "/+/" + nodeId_ + "/+/config");
}

std::string HomeAssistant::component(size_t index) const
{
    const ValueState &s = model_.values()[index];
    if (s.type.kind == rtuhost::ValueKind::Bool)
        return s.writable ? "switch" : "binary_sensor";
    if (s.type.kind == rtuhost::ValueKind::String)
        return s.writable ? "text" : "sensor";
    return s.writable ? "number" : "sensor";
}

std::string HomeAssistant::objectId(size_t index) const
{
    return idText(model_.values()[index].path);
}

std::string HomeAssistant::configTopic(size_t index) const
{
    return prefix_ + '/' + component(index) + '/' + nodeId_ + '/' + objectId(index) + kConfig;
}

std::string HomeAssistant::configJson(size_t index) const
{
    const ValueState &s = model_.values()[index];
    const ValueType &t = s.type;
    const Config &c = model_.config();
    const int station = s.point.station;
    const std::string stateTopic = topics_ + '/' + s.path;
    const std::string label = s.point.area->name.toStdString() + ' ' + s.path.substr(s.path.rfind('/') + 1);
    std::string name = label;
    if (s.item != nullptr && !s.item->name.empty())
        // One name for a range of values: each is told apart by its address. A string is one value.
        name = s.item->text.find("..") == std::string::npos || t.kind == rtuhost::ValueKind::String
                   ? s.item->name
                   : s.item->name + ' ' + label;
    const auto stationName = c.stationNames.find(station);
    const std::string deviceName = stationName != c.stationNames.end() ? stationName->second
                                                                       : c.name + " station " + std::to_string(station);

    QJsonObject o{
        {"name", q(name)},
        {"unique_id", q(nodeId_ + '_' + objectId(index))},
        {"state_topic", q(stateTopic)},
        {"qos", c.mqtt.qos},
        // The gateway, the station and the value itself must all be well for a number
        // to mean anything; any of them failing shows the entity unavailable.
        {"availability_mode", "all"},
        {"availability", QJsonArray{availabilityOf(topics_ + "/status"),
                                    availabilityOf(topics_ + '/' + std::to_string(station) + "/status"),
                                    QJsonObject{{"topic", q(stateTopic)}, {"value_template", kQualityTemplate}}}},
        {"device", QJsonObject{{"identifiers", QJsonArray{q(nodeId_ + "_" + std::to_string(station))}},
                               {"name", q(deviceName)},
                               {"via_device", q(nodeId_)}}},
    };
    const std::string kind = component(index);
    if (t.kind == rtuhost::ValueKind::Bool) {
        o["value_template"] = kSwitchTemplate;
        o["payload_on"] = s.writable ? "1" : "ON";
        o["payload_off"] = s.writable ? "0" : "OFF";
        if (s.writable) {
            o["state_on"] = "ON";
            o["state_off"] = "OFF";
        }
    } else if (t.kind == rtuhost::ValueKind::String) {
        o["value_template"] = kNumberTemplate;
        if (s.writable) {
            o["max"] = 2 * t.registers;
            o["command_template"] = kTextCommandTemplate;
        }
    } else {
        o["value_template"] = kNumberTemplate;
        if (s.writable) {
            const Range r = rangeOf(t);
            o["min"] = r.min;
            o["max"] = r.max;
            o["step"] = r.step;
            o["mode"] = "box";
            o["command_template"] = t.plain ? kCommandTemplate : kTypedCommandTemplate;
        }
    }
    if (s.writable)
        o["command_topic"] = q(stateTopic + "/set");
    const std::string unit = s.item != nullptr ? s.item->unit : std::string();
    if (!unit.empty())
        o["unit_of_measurement"] = q(unit);
    if (s.item != nullptr && !s.item->deviceClass.empty())
        o["device_class"] = q(s.item->deviceClass);
    // A number with a unit is a measurement unless the item says what else.
    const std::string stateClass = s.item != nullptr ? s.item->stateClass : std::string();
    if (kind == "sensor" && t.number() && stateClass != "none" && (!stateClass.empty() || !unit.empty()))
        o["state_class"] = q(stateClass.empty() ? "measurement" : stateClass);
    return QJsonDocument(o).toJson(QJsonDocument::Compact).toStdString();
}

void HomeAssistant::announce()
{
    const Config &c = model_.config();
    // The gateway is a device of its own, the one every station is reached through.
    const QJsonObject gateway{
        {"name", "connection"},
        {"unique_id", q(nodeId_ + "_" + kGatewayObject)},
        {"state_topic", q(topics_ + "/status")},
        {"payload_on", kOnline},
        {"payload_off", kOffline},
        {"device_class", "connectivity"},
        {"device", QJsonObject{{"identifiers", QJsonArray{q(nodeId_)}}, {"name", q(c.name)}}},
    };
    mqtt_.publish(Message{prefix_ + "/binary_sensor/" + nodeId_ + '/' + kGatewayObject + kConfig,
                          QJsonDocument(gateway).toJson(QJsonDocument::Compact).toStdString(),
                          kConfigQos,
                          true,
                          {},
                          {}});
    for (size_t i = 0; i < model_.values().size(); ++i)
        mqtt_.publish(Message{configTopic(i), configJson(i), kConfigQos, true, {}, {}});
}

void HomeAssistant::connected(bool)
{
    announce();
}

bool HomeAssistant::message(const Message &m)
{
    if (m.topic == prefix_ + "/status") {
        // Home Assistant restarted: it learns its entities again.
        if (m.payload == kOnline)
            announce();
        return true;
    }
    const std::string ours = '/' + nodeId_ + '/';
    const bool config = m.topic.compare(0, prefix_.size() + 1, prefix_ + '/') == 0 &&
                        m.topic.find(ours, prefix_.size()) != std::string::npos && m.topic.size() > sizeof kConfig &&
                        m.topic.compare(m.topic.size() - (sizeof kConfig - 1), sizeof kConfig - 1, kConfig) == 0;
    if (!config)
        return false;
    if (!m.payload.empty() && announced_.count(m.topic) == 0) {
        rtuhost::logInfo("withdrawing %s from Home Assistant: no longer configured", m.topic.c_str());
        mqtt_.publish(Message{m.topic, {}, kConfigQos, true, {}, {}});
    }
    return true;
}

} // namespace rtugw
