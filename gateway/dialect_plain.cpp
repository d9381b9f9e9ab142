#include "dialect_plain.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cmath>
#include <cstdio>

namespace rtugw {

namespace {

constexpr const char kSet[] = "/set";
constexpr const char kResult[] = "/result";
constexpr size_t kSetLength = sizeof kSet - 1;
// A JSON number is a double: integers beyond 2^53 are not exact, so they are refused.
constexpr double kLargestExactInteger = 9007199254740992.0;

bool exactInteger(double d)
{
    return std::floor(d) == d && std::fabs(d) <= kLargestExactInteger;
}

bool endsWith(const std::string &s, const char *suffix, size_t n)
{
    return s.size() > n && s.compare(s.size() - n, n, suffix) == 0;
}

} // namespace

BrokerListener::~BrokerListener() = default;
void BrokerListener::connected(bool) {}
bool BrokerListener::message(const Message &)
{
    return false;
}

PlainTopics::PlainTopics(Model &model, MqttClient &mqtt)
    : model_(model), mqtt_(mqtt), prefix_(model.config().mqtt.topic), qos_(model.config().mqtt.qos)
{
    // The sender thread makes the messages: it gets its own copy of the topics.
    std::vector<std::string> topics;
    topics.reserve(model.points().size());
    for (const PointState &s : model.points())
        topics.push_back(prefix_ + '/' + s.path);
    mqtt_.setFormatter([topics = std::move(topics), qos = qos_](const ValueUpdate &v) {
        return Message{topics[v.key], payload(v), qos, true, {}, {}};
    });
}

Message PlainTopics::will(const Config &config)
{
    return Message{config.mqtt.topic + "/status", "offline", config.mqtt.qos, true, {}, {}};
}

Message PlainTopics::birth(const Config &config)
{
    return Message{config.mqtt.topic + "/status", "online", config.mqtt.qos, true, {}, {}};
}

void PlainTopics::subscribe()
{
    mqtt_.subscribe(prefix_ + "/+/+/+/set");
}

void PlainTopics::start()
{
    published_.assign(model_.points().size(), false);
    for (const auto &[station, state] : model_.stations())
        publishStation(station);
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

std::string PlainTopics::payload(const ValueUpdate &v)
{
    std::string p;
    p.reserve(96);
    p += "{\"value\":";
    p += v.known ? std::to_string(v.value) : std::string("null");
    p += v.good ? ",\"quality\":\"good\",\"ts\":\"" : ",\"quality\":\"bad\",\"ts\":\"";
    p += isoTime(v.ms);
    p += '"';
    if (!v.good) {
        p += ",\"error\":";
        p += jsonString(v.error);
    }
    p += '}';
    return p;
}

ValueUpdate PlainTopics::update(size_t index, const PointState &s)
{
    return ValueUpdate{uint32_t(index), s.value, msSinceEpoch(s.ts), s.known, s.good,
                       s.good ? std::string() : s.error};
}

void PlainTopics::pointChanged(size_t index)
{
    published_[index] = true;
    // Only the value's figures: its message is made when it is sent, and not at all when
    // a newer reading replaces it first.
    mqtt_.publishValue(update(index, model_.points()[index]));
}

void PlainTopics::publishStation(int station)
{
    const bool online = model_.stations().at(station).online;
    mqtt_.publish(Message{prefix_ + '/' + std::to_string(station) + "/status", online ? "online" : "offline", qos_,
                          true, {}, {}});
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

std::string PlainTopics::answerPayload(const std::string &idJson, const WriteAnswer &a)
{
    if (a.ok)
        return "{\"id\":" + idJson + ",\"ok\":true,\"value\":" + std::to_string(a.value) + '}';
    return "{\"id\":" + idJson + ",\"ok\":false,\"error\":" + jsonString(a.error) + '}';
}

PlainTopics::Request PlainTopics::parseRequest(const std::string &payload)
{
    Request r;
    const QByteArray body = QByteArray::fromStdString(payload);
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(body, &parseError);
    if (!doc.isObject()) {
        // A bare number, as text: the value checks judge it.
        r.value = QString::fromUtf8(body).trimmed().toStdString();
        if (r.value.empty())
            r.error = "the payload is empty: send a number, or {\"value\":1234,\"id\":\"...\"}";
        return r;
    }
    const QJsonObject o = doc.object();
    const QJsonValue id = o.value(QLatin1String("id"));
    if (id.isString())
        r.idJson = jsonString(id.toString().toStdString());
    else if (id.isDouble())
        r.idJson = exactInteger(id.toDouble()) ? std::to_string(int64_t(id.toDouble()))
                                               : QString::number(id.toDouble(), 'g', 17).toStdString();
    else if (id.isBool())
        r.idJson = id.toBool() ? "true" : "false";
    const QJsonValue v = o.value(QLatin1String("value"));
    if (v.isDouble() && exactInteger(v.toDouble()))
        r.value = std::to_string(int64_t(v.toDouble()));
    else if (v.isBool())
        r.value = v.toBool() ? "1" : "0";
    else
        r.error = "the payload's value is not a whole number: send {\"value\":1234,\"id\":\"...\"}";
    return r;
}

void PlainTopics::handleSet(const Message &m)
{
    const std::string base = m.topic.substr(0, m.topic.size() - kSetLength);
    const std::string resultTopic = base + kResult;
    const Request request = parseRequest(m.payload);
    const std::string responseTopic = m.responseTopic;
    const std::string correlation = m.correlation;
    // Every request gets exactly one answer: on .../result, and where MQTT 5 asked.
    auto answer = [this, resultTopic, responseTopic, correlation, id = request.idJson](const WriteAnswer &a) {
        const std::string text = answerPayload(id, a);
        mqtt_.publish(Message{resultTopic, text, 1, false, {}, {}}, Outbox::Kind::Event);
        if (!responseTopic.empty())
            mqtt_.publish(Message{responseTopic, text, 1, false, {}, correlation}, Outbox::Kind::Event);
    };
    const std::string path = base.substr(prefix_.size() + 1);
    if (!request.error.empty())
        model_.refuse(path, request.error, answer);
    else
        model_.write(path, request.value, answer);
}

void PlainTopics::tick()
{
    for (const MqttEvent &e : mqtt_.takeEvents()) {
        const MqttConfig &c = model_.config().mqtt;
        switch (e.type) {
        case MqttEvent::Type::Connected:
            brokerUp_ = true;
            brokerState_ = "connected";
            std::fprintf(stderr, "rtuplc-gateway: connected to the broker at %s:%d%s\n", c.host.c_str(), c.port,
                         e.sessionPresent ? "" : " (new session)");
            // A broker that lost its state is told everything current, so that its
            // retained messages are the gateway's state. Before the first connection nothing was sent: what was published is
            // still held and goes out now, once.
            if (!e.sessionPresent && everConnected_)
                republishAll();
            everConnected_ = true;
            for (BrokerListener *l : listeners_)
                l->connected(e.sessionPresent);
            break;
        case MqttEvent::Type::Lost:
            brokerUp_ = false;
            brokerState_ = "connection lost";
            std::fprintf(stderr, "rtuplc-gateway: lost the broker: %s; holding messages and reconnecting\n",
                         e.text.c_str());
            break;
        case MqttEvent::Type::Failed:
            brokerUp_ = false;
            brokerState_ = e.text;
            std::fprintf(stderr, "rtuplc-gateway: %s; retrying\n", e.text.c_str());
            break;
        }
    }
    for (const Message &m : mqtt_.takeIncoming()) {
        if (m.topic.compare(0, prefix_.size() + 1, prefix_ + '/') == 0 && endsWith(m.topic, kSet, kSetLength)) {
            handleSet(m);
            continue;
        }
        for (BrokerListener *l : listeners_) {
            if (l->message(m))
                break;
        }
    }
    mqtt_.pump();
    const int interval = model_.config().mqtt.statsInterval;
    if (interval > 0 && std::chrono::steady_clock::now() - lastStats_ >= std::chrono::seconds(interval))
        publishStats();
}

std::string PlainTopics::statsJson(const rtuhost::Stats &h, const MqttStats &m, const WriteCounters &w,
                                   double pollsPerSecond, long long uptimeSeconds)
{
    const uint64_t *d = h.line.dropped;
    char text[768];
    std::snprintf(text, sizeof text,
                  "{\"polls\":%llu,\"accepted\":%llu,\"retries\":%llu,\"failures\":%llu,"
                  "\"dropped\":{\"late\":%llu,\"doubled\":%llu,\"foreign\":%llu,\"malformed\":%llu},"
                  "\"polls_per_second\":%.1f,\"published\":%llu,\"held\":%llu,\"buffer_dropped\":%llu,"
                  "\"writes_ok\":%llu,\"writes_failed\":%llu,\"writes_refused\":%llu,\"uptime\":%lld}",
                  (unsigned long long)h.polls, (unsigned long long)h.accepted, (unsigned long long)h.retries,
                  (unsigned long long)h.failures, (unsigned long long)d[int(rtuhost::DropReason::Late)],
                  (unsigned long long)d[int(rtuhost::DropReason::Doubled)],
                  (unsigned long long)d[int(rtuhost::DropReason::Foreign)],
                  (unsigned long long)d[int(rtuhost::DropReason::Malformed)], pollsPerSecond,
                  (unsigned long long)m.published, (unsigned long long)m.held, (unsigned long long)m.dropped,
                  (unsigned long long)w.ok, (unsigned long long)w.failed, (unsigned long long)w.refused, uptimeSeconds);
    return text;
}

void PlainTopics::publishStats()
{
    const auto now = std::chrono::steady_clock::now();
    const rtuhost::Stats &h = model_.hostStats();
    const double seconds = std::chrono::duration<double>(now - lastStats_).count();
    pollsPerSecond_ = seconds > 0 ? double(h.polls - pollsAtLastStats_) / seconds : 0;
    pollsAtLastStats_ = h.polls;
    lastStats_ = now;
    const long long uptime = std::chrono::duration_cast<std::chrono::seconds>(now - started_).count();
    mqtt_.publish(Message{prefix_ + "/stats", statsJson(h, mqtt_.stats(), model_.writes(), pollsPerSecond_, uptime),
                          qos_, true, {}, {}});
}

} // namespace rtugw
