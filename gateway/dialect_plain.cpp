#include "dialect_plain.h"

#include "modbus_stats.h"
#include "payload.h"

namespace rtugw {

namespace {

constexpr const char kSet[] = "/set";
constexpr const char kResult[] = "/result";
constexpr size_t kSetLength = sizeof kSet - 1;

bool endsWith(const std::string &s, const char *suffix, size_t n)
{
    return s.size() > n && s.compare(s.size() - n, n, suffix) == 0;
}

} // namespace

PlainTopics::PlainTopics(Model &model)
    : model_(model), prefix_(model.config().mqtt.topic), qos_(model.config().mqtt.qos)
{
}

void PlainTopics::shapeSession(MqttSettings *s) const
{
    s->will = Message{prefix_ + "/status", "offline", qos_, true, {}, {}};
    s->birth = Message{prefix_ + "/status", "online", qos_, true, {}, {}};
}

void PlainTopics::bind(Broker &broker)
{
    mqtt_ = &broker.client();
    // The connection's thread makes the messages: it gets its own copy of the topics and types.
    std::vector<std::pair<std::string, ValueType>> values;
    values.reserve(model_.values().size());
    for (const ValueState &s : model_.values())
        values.emplace_back(prefix_ + '/' + s.path, s.type);
    mqtt_->setFormatter([values = std::move(values), qos = qos_](const ValueUpdate &v) {
        const auto &[topic, type] = values[v.key];
        return Message{topic, valueJson(v, type), qos, true, {}, {}};
    });
    mqtt_->subscribe(prefix_ + "/+/+/+/set");
    published_.assign(model_.values().size(), false);
    for (const auto &[station, state] : model_.stations())
        publishStation(station);
}

std::string PlainTopics::where() const
{
    return "topics under " + prefix_ + "/";
}

std::string PlainTopics::planLine(const PlannedValue &v) const
{
    const std::string type = v.type.plain ? "" : std::string("  ") + v.type.name();
    return prefix_ + '/' + v.path + type + (v.writable ? "  (writable: .../set)" : "");
}

std::vector<Message> PlainTopics::farewell() const
{
    std::vector<Message> last;
    for (const auto &[station, state] : model_.stations()) {
        if (state.online)
            last.push_back(Message{prefix_ + '/' + std::to_string(station) + "/status", "offline", qos_, true, {}, {}});
    }
    last.push_back(Message{prefix_ + "/status", "offline", qos_, true, {}, {}});
    return last;
}

void PlainTopics::valueChanged(size_t index)
{
    published_[index] = true;
    // Only the value's figures: its message is made when it is sent, and not at all when
    // a newer reading replaces it first.
    mqtt_->publishValue(valueUpdate(index, model_.values()[index]));
}

void PlainTopics::publishStation(int station)
{
    const bool online = model_.stations().at(station).online;
    mqtt_->publish(Message{
        prefix_ + '/' + std::to_string(station) + "/status", online ? "online" : "offline", qos_, true, {}, {}});
}

void PlainTopics::stationChanged(int station)
{
    publishStation(station);
}

void PlainTopics::republishAll()
{
    for (const auto &[station, state] : model_.stations())
        publishStation(station);
    for (size_t i = 0; i < published_.size(); ++i) {
        if (published_[i])
            valueChanged(i);
    }
}

void PlainTopics::handleSet(const Message &m)
{
    const std::string base = m.topic.substr(0, m.topic.size() - kSetLength);
    const std::string resultTopic = base + kResult;
    const WriteRequestPayload request = parseWriteRequest(m.payload);
    const std::string responseTopic = m.responseTopic;
    const std::string correlation = m.correlation;
    // Every request gets exactly one answer: on .../result, and where MQTT 5 asked.
    auto answer = [this, resultTopic, responseTopic, correlation, id = request.idJson](const WriteAnswer &a) {
        const std::string text = answerJson(id, a);
        mqtt_->publish(Message{resultTopic, text, 1, false, {}, {}}, Outbox::Kind::Event);
        if (!responseTopic.empty())
            mqtt_->publish(Message{responseTopic, text, 1, false, {}, correlation}, Outbox::Kind::Event);
    };
    const std::string path = base.substr(prefix_.size() + 1);
    if (!request.error.empty())
        model_.refuse(path, request.error, answer);
    else
        model_.write(path, request.value, answer, request.isText);
}

void PlainTopics::publishStats()
{
    lastStats_ = std::chrono::steady_clock::now();
    mqtt_->publish(Message{
        prefix_ + "/stats",
        withServerFigures(statsJson(model_.hostStats(), mqtt_->stats(), model_.writes(), model_.pollsPerSecond(),
                                    model_.uptimeSeconds()),
                          model_.modbusStats),
        qos_,
        true,
        {},
        {}});
}

void PlainTopics::connected(bool sessionPresent)
{
    // A broker that lost its state is told everything current, so that its retained
    // messages are the gateway's state. Before the first connection nothing was sent:
    // what was published is still held and goes out now, once.
    if (!sessionPresent && everConnected_)
        republishAll();
    everConnected_ = true;
}

bool PlainTopics::message(const Message &m)
{
    if (m.topic.compare(0, prefix_.size() + 1, prefix_ + '/') != 0 || !endsWith(m.topic, kSet, kSetLength))
        return false;
    handleSet(m);
    return true;
}

void PlainTopics::tick()
{
    const int interval = model_.config().mqtt.statsInterval;
    if (interval > 0 && std::chrono::steady_clock::now() - lastStats_ >= std::chrono::seconds(interval))
        publishStats();
}

} // namespace rtugw
