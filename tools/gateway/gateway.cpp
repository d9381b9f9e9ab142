#include "gateway.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

#include <cmath>
#include <cstdio>
#include <ctime>

namespace rtugw {

using rtuhost::Failure;
using rtuhost::WriteOutcome;

namespace {

constexpr const char *kSetSuffix = "/set";
constexpr const char *kResultSuffix = "/result";
// A JSON number is a double: integers beyond 2^53 are not exact, so they are refused.
constexpr double kLargestExactInteger = 9007199254740992.0;

std::string lastLevels(const std::string &topic, const std::string &prefix, std::vector<std::string> *levels)
{
    if (topic.size() <= prefix.size() + 1 || topic.compare(0, prefix.size(), prefix) != 0 || topic[prefix.size()] != '/')
        return "not under " + prefix;
    levels->clear();
    size_t from = prefix.size() + 1;
    for (;;) {
        const size_t slash = topic.find('/', from);
        levels->push_back(topic.substr(from, slash == std::string::npos ? std::string::npos : slash - from));
        if (slash == std::string::npos)
            break;
        from = slash + 1;
    }
    return std::string();
}

} // namespace

namespace topics {

std::string point(const std::string &prefix, const Point &p)
{
    return prefix + '/' + std::to_string(p.station) + '/' + p.area->name.toStdString() + '/' +
           p.area->format(p.address).toStdString();
}

std::string station(const std::string &prefix, int station)
{
    return prefix + '/' + std::to_string(station) + "/status";
}

std::string isoTime(std::chrono::system_clock::time_point t)
{
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
    const std::time_t seconds = std::time_t(ms / 1000);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", utc.tm_year + 1900, utc.tm_mon + 1,
                  utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec, int(ms % 1000));
    return text;
}

std::string jsonString(const std::string &s)
{
    std::string out = "\"";
    for (const char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char esc[8];
            std::snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += c;
        }
    }
    return out + '"';
}

} // namespace topics

Gateway::Gateway(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue,
                 MqttClient &mqtt, std::set<std::tuple<int, QString, int>> writable)
    : config_(config), api_(api), catalogue_(catalogue), mqtt_(mqtt), prefix_(config.mqtt.topic),
      writable_(std::move(writable))
{
}

void Gateway::attach(rtuhost::Host &host)
{
    host_ = &host;
    points_.assign(host.points().size(), PointState());
    for (size_t i = 0; i < points_.size(); ++i)
        points_[i].topic = topics::point(prefix_, host.points()[i]);
}

void Gateway::announceStations(const std::vector<int> &stations)
{
    for (int s : stations) {
        stations_[s] = false;
        mqtt_.publish(Message{topics::station(prefix_, s), "offline", config_.mqtt.qos, true, {}, {}});
    }
}

std::vector<Message> Gateway::farewell() const
{
    std::vector<Message> last;
    for (const auto &[station, online] : stations_) {
        if (online)
            last.push_back(Message{topics::station(prefix_, station), "offline", config_.mqtt.qos, true, {}, {}});
    }
    last.push_back(Message{prefix_ + "/status", "offline", config_.mqtt.qos, true, {}, {}});
    return last;
}

void Gateway::publishPoint(size_t index)
{
    PointState &s = points_[index];
    std::string payload;
    payload.reserve(96);
    payload += "{\"value\":";
    payload += s.known ? std::to_string(s.value) : std::string("null");
    payload += s.good ? ",\"quality\":\"good\",\"ts\":\"" : ",\"quality\":\"bad\",\"ts\":\"";
    payload += s.ts;
    payload += '"';
    if (!s.good) {
        payload += ",\"error\":";
        payload += topics::jsonString(s.error);
    }
    payload += '}';
    s.published = true;
    mqtt_.publish(Message{s.topic, std::move(payload), config_.mqtt.qos, true, {}, {}});
}

void Gateway::setStation(int station, bool online)
{
    auto found = stations_.find(station);
    if (found != stations_.end() && found->second == online)
        return;
    stations_[station] = online;
    mqtt_.publish(Message{topics::station(prefix_, station), online ? "online" : "offline", config_.mqtt.qos, true,
                          {}, {}});
    std::fprintf(stderr, "rtuplc-gateway: station %d %s\n", station, online ? "online" : "offline");
}

void Gateway::valueRead(const Point &p, uint32_t value)
{
    const long index = host_->pointIndex(p.station, p.area->name, p.address);
    if (index < 0)
        return;
    PointState &s = points_[size_t(index)];
    s.known = true;
    s.value = value;
    s.good = true;
    s.ts = topics::isoTime(std::chrono::system_clock::now());
    publishPoint(size_t(index));
}

void Gateway::blockRead(const FRAME_PRO &f)
{
    std::string now;
    for (size_t index : host_->pointsIn(f)) {
        PointState &s = points_[index];
        // Read again after a failure: good again, said even if the value is the same.
        if (s.good || !s.known)
            continue;
        if (now.empty())
            now = topics::isoTime(std::chrono::system_clock::now());
        s.good = true;
        s.ts = now;
        publishPoint(index);
    }
    setStation(f.station, true);
}

void Gateway::requestFailed(const FRAME_PRO &f, const Failure &failure)
{
    const std::string why = failure.why.toStdString();
    std::fprintf(stderr, "rtuplc-gateway: %s failed: %s\n", qPrintable(failure.driverText), why.c_str());
    if (f.reqKind == RTUPLC_KIND_MONITOR_READ) {
        const std::string now = topics::isoTime(std::chrono::system_clock::now());
        for (size_t index : host_->pointsIn(f)) {
            PointState &s = points_[index];
            if (!s.good && s.published)
                continue; // already shown bad: once per failure
            s.good = false;
            s.error = why;
            s.ts = now;
            publishPoint(index);
        }
    }
    // A station that refuses a request with an exception is alive.
    if (failure.kind != Failure::Kind::Exception)
        setStation(f.station, false);
}

void Gateway::exchanged(const FRAME_PRO &f, const rtuhost::Exchange &x)
{
    if (!verbose)
        return;
    for (const rtuhost::Dropped &d : x.dropped)
        std::fprintf(stderr, "rtuplc-gateway: dropped %s (%s)\n",
                     qPrintable(rtuhost::hexBytes(d.bytes.data(), d.bytes.size())), rtuhost::dropReasonText(d.reason));
    std::fprintf(stderr, "rtuplc-gateway: tx %s rx %s\n", qPrintable(rtuhost::hexBytes(f.frame, size_t(f.frameLen))),
                 qPrintable(rtuhost::hexBytes(x.reply.data(), x.reply.size())));
}

void Gateway::writeSettled(uint64_t id, const rtuhost::WriteRequest &w, WriteOutcome outcome, const QString &detail)
{
    const auto found = answers_.find(id);
    if (found == answers_.end())
        return;
    const Answer a = found->second;
    answers_.erase(found);
    switch (outcome) {
    case WriteOutcome::Acknowledged:
    case WriteOutcome::Broadcast:
    case WriteOutcome::Confirmed:
        ++counters_.writesOk;
        answer(a, true, std::string(), w.value);
        return;
    case WriteOutcome::Refused:
        ++counters_.writesRefused;
        answer(a, false, "refused by the driver");
        return;
    case WriteOutcome::Replaced:
        ++counters_.writesFailed;
        answer(a, false, "replaced by a later write to the same address before it was sent");
        return;
    case WriteOutcome::QueueFull:
        ++counters_.writesFailed;
        answer(a, false, "dropped: the driver's write queue was full");
        return;
    case WriteOutcome::Unfinished:
        ++counters_.writesFailed;
        answer(a, false, "the gateway stopped before the controller answered");
        return;
    default:
        ++counters_.writesFailed;
        answer(a, false, detail.isEmpty() ? std::string("not acknowledged") : detail.toStdString());
        return;
    }
}

void Gateway::answer(const Answer &a, bool ok, const std::string &error, uint64_t value)
{
    std::string payload = "{\"id\":" + a.idJson;
    if (ok)
        payload += ",\"ok\":true,\"value\":" + std::to_string(value) + '}';
    else
        payload += ",\"ok\":false,\"error\":" + topics::jsonString(error) + '}';
    if (!ok)
        std::fprintf(stderr, "rtuplc-gateway: write to %s: %s\n", a.resultTopic.c_str(), error.c_str());
    // An answer is somebody's only one: QoS 1, and never dropped from the outbox.
    mqtt_.publish(Message{a.resultTopic, payload, 1, false, {}, {}}, Outbox::Kind::Event);
    if (!a.responseTopic.empty())
        mqtt_.publish(Message{a.responseTopic, payload, 1, false, {}, a.correlation}, Outbox::Kind::Event);
}

void Gateway::handleSet(const Message &m)
{
    Answer a;
    a.idJson = "null";
    a.responseTopic = m.responseTopic;
    a.correlation = m.correlation;
    const std::string base = m.topic.substr(0, m.topic.size() - std::string(kSetSuffix).size());
    a.resultTopic = base + kResultSuffix;
    const auto refuse = [&](const std::string &why) {
        ++counters_.writesRefused;
        answer(a, false, why);
    };

    // The payload: a number, or {"value": number, "id": anything}.
    const QByteArray body = QByteArray::fromStdString(m.payload);
    QString valueText;
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(body, &parseError);
    bool isNumber = false;
    if (doc.isObject()) {
        const QJsonObject o = doc.object();
        if (o.contains(QLatin1String("id"))) {
            const QJsonValue id = o.value(QLatin1String("id"));
            if (id.isString())
                a.idJson = topics::jsonString(id.toString().toStdString());
            else if (id.isDouble())
                a.idJson = std::floor(id.toDouble()) == id.toDouble() && std::fabs(id.toDouble()) <= kLargestExactInteger
                               ? std::to_string(qint64(id.toDouble()))
                               : QString::number(id.toDouble(), 'g', 17).toStdString();
            else if (id.isBool())
                a.idJson = id.toBool() ? "true" : "false";
        }
        const QJsonValue v = o.value(QLatin1String("value"));
        if (v.isDouble() && std::floor(v.toDouble()) == v.toDouble() && std::fabs(v.toDouble()) <= kLargestExactInteger) {
            valueText = QString::number(qint64(v.toDouble()));
            isNumber = true;
        } else if (v.isBool()) {
            valueText = v.toBool() ? QStringLiteral("1") : QStringLiteral("0");
            isNumber = true;
        } else if (v.isString()) {
            valueText = v.toString();
            isNumber = true; // checked below like a bare payload
        }
    } else {
        valueText = QString::fromUtf8(body).trimmed();
        isNumber = !valueText.isEmpty();
    }
    if (!isNumber)
        return refuse("the payload is not a number: send 1234, -5, or {\"value\":1234,\"id\":\"...\"}");

    // The target: P/STATION/AREA/ADDR/set.
    std::vector<std::string> levels;
    if (!lastLevels(base, prefix_, &levels).empty() || levels.size() != 3)
        return refuse("not a value's topic: write to " + prefix_ + "/STATION/AREA/ADDRESS/set");
    bool ok = false;
    const int station = QString::fromStdString(levels[0]).toInt(&ok);
    if (!ok || station < 1 || station > 247)
        return refuse("\"" + levels[0] + "\" is not a station (1..247)");
    const rtuhost::Area *area = catalogue_.find(QString::fromStdString(levels[1]));
    if (area == nullptr)
        return refuse("\"" + levels[1] + "\" is not an area of the controller");
    rtuhost::Item target;
    QString error;
    const QString text = QStringLiteral("%1:%2@%3").arg(area->name, QString::fromStdString(levels[2])).arg(station);
    if (!rtuhost::parseItem(text, station, catalogue_, api_, &target, &error) || target.points.size() != 1)
        return refuse("address outside the area: " + error.toStdString());
    const Point &p = target.points.front();
    if (!writable_.count({p.station, p.area->name, p.address}))
        return refuse(p.label().toStdString() + "@" + std::to_string(p.station) +
                      " is not configured writable (writable: true in the gateway's configuration)");
    rtuhost::WriteRequest w;
    w.text = text;
    w.target = target;
    if (!rtuhost::parseValue(valueText, p.area->kind, &w.value, &error))
        return refuse(error.toStdString());
    // Filed first: a write the driver refuses is settled within write().
    answers_[host_->nextWriteId()] = a;
    host_->write(w);
}

void Gateway::republishAll()
{
    for (const auto &[station, online] : stations_)
        mqtt_.publish(Message{topics::station(prefix_, station), online ? "online" : "offline", config_.mqtt.qos,
                              true, {}, {}});
    for (size_t i = 0; i < points_.size(); ++i) {
        if (points_[i].published)
            publishPoint(i);
    }
}

void Gateway::serviceBroker()
{
    for (const MqttEvent &e : mqtt_.takeEvents()) {
        switch (e.type) {
        case MqttEvent::Type::Connected:
            brokerUp_ = true;
            brokerState_ = "connected";
            std::fprintf(stderr, "rtuplc-gateway: connected to the broker at %s:%d%s\n", config_.mqtt.host.c_str(),
                         config_.mqtt.port, e.sessionPresent ? "" : " (new session)");
            mqtt_.publish(Message{prefix_ + "/status", "online", config_.mqtt.qos, true, {}, {}});
            // A broker that lost its state (or a first connection) is told everything
            // current, so that its retained messages are the gateway's state.
            if (!e.sessionPresent)
                republishAll();
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
        if (m.topic.size() > std::string(kSetSuffix).size() &&
            m.topic.compare(m.topic.size() - 4, 4, kSetSuffix) == 0)
            handleSet(m);
    }
    mqtt_.pump();
    if (config_.mqtt.statsInterval > 0 &&
        std::chrono::steady_clock::now() - lastStats_ >= std::chrono::seconds(config_.mqtt.statsInterval))
        publishStats();
}

void Gateway::publishStats()
{
    const auto now = std::chrono::steady_clock::now();
    const rtuhost::Stats &h = host_->stats();
    const double seconds = std::chrono::duration<double>(now - lastStats_).count();
    pollsPerSecond_ = seconds > 0 ? double(h.polls - pollsAtLastStats_) / seconds : 0;
    pollsAtLastStats_ = h.polls;
    lastStats_ = now;
    const MqttStats m = mqtt_.stats();
    const rtuhost::LineStats line = h.line;
    char text[768];
    std::snprintf(text, sizeof text,
                  "{\"polls\":%llu,\"accepted\":%llu,\"retries\":%llu,\"failures\":%llu,"
                  "\"dropped\":{\"late\":%llu,\"doubled\":%llu,\"foreign\":%llu,\"malformed\":%llu},"
                  "\"polls_per_second\":%.1f,\"published\":%llu,\"held\":%llu,\"buffer_dropped\":%llu,"
                  "\"writes_ok\":%llu,\"writes_failed\":%llu,\"writes_refused\":%llu,\"uptime\":%lld}",
                  (unsigned long long)h.polls, (unsigned long long)h.accepted, (unsigned long long)h.retries,
                  (unsigned long long)h.failures, (unsigned long long)line.dropped[0],
                  (unsigned long long)line.dropped[1], (unsigned long long)line.dropped[2],
                  (unsigned long long)line.dropped[3], pollsPerSecond_, (unsigned long long)m.published,
                  (unsigned long long)m.held, (unsigned long long)m.dropped, (unsigned long long)counters_.writesOk,
                  (unsigned long long)counters_.writesFailed, (unsigned long long)counters_.writesRefused,
                  (long long)std::chrono::duration_cast<std::chrono::seconds>(now - started_).count());
    mqtt_.publish(Message{prefix_ + "/stats", text, config_.mqtt.qos, true, {}, {}});
}

std::string Gateway::statusLine() const
{
    int online = 0;
    for (const auto &[station, up] : stations_)
        online += up ? 1 : 0;
    char text[256];
    std::snprintf(text, sizeof text, "%d/%zu stations online, %.1f polls/s, broker %s, %llu held", online,
                  stations_.size(), pollsPerSecond_, brokerState_.c_str(),
                  (unsigned long long)mqtt_.stats().held);
    return text;
}

} // namespace rtugw
