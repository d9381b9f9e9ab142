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
    // The sender thread makes the messages: it gets its own copy of the topics.
    std::vector<std::string> topics;
    topics.reserve(model_.points().size());
    for (const PointState &s : model_.points())
        topics.push_back(prefix_ + '/' + s.path);
    mqtt_->setFormatter([topics = std::move(topics), qos = qos_](const ValueUpdate &v) {
        return Message{topics[v.key], valueJson(v), qos, true, {}, {}};
    });
    mqtt_->subscribe(prefix_ + "/+/+/+/set");
    published_.assign(model_.points().size(), false);
    for (const auto &[station, state] : model_.stations())
        publishStation(station);
}

std::string PlainTopics::where() const
{
    return "topics under " + prefix_ + "/";
}

std::string PlainTopics::planLine(const Point &p, bool writable) const
{
    return prefix_ + '/' + pathOf(p) + (writable ? "  (writable: .../set)" : "");
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

void PlainTopics::pointChanged(size_t index)
{
    published_[index] = true;
    // Only the value's figures: its message is made when it is sent, and not at all when
    // a newer reading replaces it first.
    mqtt_->publishValue(valueUpdate(index, model_.points()[index]));
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
            pointChanged(i);
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
        model_.write(path, request.value, answer);
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
