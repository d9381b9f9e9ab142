#include "dialect_sparkplug.h"

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include <QJsonDocument>
#include <QJsonObject>

#include "rtuplc_host/log.h"

#include "sparkplug_b.pb.h"

namespace rtugw {

namespace {

using Payload = org::eclipse::tahu::protobuf::Payload;

constexpr const char kNamespace[] = "spBv1.0";
constexpr const char kRebirth[] = "Node Control/Rebirth";
constexpr const char kBdSeq[] = "bdSeq";
constexpr const char kQuality[] = "Quality";
constexpr const char kEngUnit[] = "engUnit";
constexpr unsigned kSeqModulo = 256; // seq and bdSeq run 0..255 and wrap
// Births and data go at QoS 0 and unretained: a host that missed one asks for a rebirth.
constexpr int kDataQos = 0;
// The death certificate must reach the hosts, once the broker sends it.
constexpr int kDeathQos = 1;
// What leaving for a primary host that went offline may hold up the poll loop.
constexpr std::chrono::milliseconds kLeaveTimeout{1000};
// How long a station back online waits for its blocks to be read before it is born
// anyway, with the values not read since marked bad.
constexpr std::chrono::seconds kBirthWait{10};

uint64_t millis(SystemTime t)
{
    return uint64_t(std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count());
}

uint64_t nowMillis()
{
    return millis(std::chrono::system_clock::now());
}

// AREA/ADDR[.BIT]: the plain topic's path without the station, which the device names.
std::string metricName(const ValueState &s)
{
    return s.path.substr(s.path.find('/') + 1);
}

void setValue(Payload::Metric *m, const ValueState &s)
{
    if (!s.known) {
        m->set_is_null(true);
        return;
    }
    const SparkplugType type = sparkplugType(s.type);
    if (s.type.plain) {
        if (type == SparkplugType::Boolean)
            m->set_boolean_value(s.raw != 0);
        else if (type == SparkplugType::UInt16)
            m->set_int_value(s.raw);
        else
            m->set_long_value(s.raw); // hosts read an unsigned 32-bit metric from long_value
        return;
    }
    uint16_t words[rtuhost::kMaxStringRegisters];
    s.registers(words);
    const rtuhost::Reading r = rtuhost::decode(s.type, words);
    switch (type) {
    case SparkplugType::Boolean:
        m->set_boolean_value(r.number != 0);
        break;
    case SparkplugType::String:
        m->set_string_value(r.text);
        break;
    case SparkplugType::Float: // NaN and the infinities as they are: a float carries them
        m->set_float_value(float(r.number));
        break;
    case SparkplugType::Double:
        m->set_double_value(r.number);
        break;
    case SparkplugType::UInt32:
        m->set_long_value(uint64_t(r.number));
        break;
    default: // the 16-bit types and Int32, a signed one as its two's complement
        m->set_int_value(uint32_t(int64_t(r.number)));
        break;
    }
}

void setEngUnit(Payload::Metric *m, const std::string &unit)
{
    Payload::PropertySet *props = m->mutable_properties();
    props->add_keys(kEngUnit);
    Payload::PropertyValue *v = props->add_values();
    v->set_type(uint32_t(SparkplugType::String));
    v->set_string_value(unit);
}

void setQuality(Payload::Metric *m, bool good)
{
    Payload::PropertySet *props = m->mutable_properties();
    props->add_keys(kQuality);
    Payload::PropertyValue *v = props->add_values();
    v->set_type(uint32_t(SparkplugType::Int32));
    v->set_int_value(uint32_t(good ? kQualityGood : kQualityBad));
}

Payload::Metric *addBdSeq(Payload *p, unsigned bdSeq)
{
    Payload::Metric *m = p->add_metrics();
    m->set_name(kBdSeq);
    m->set_timestamp(p->timestamp());
    m->set_datatype(uint32_t(SparkplugType::UInt64));
    m->set_long_value(bdSeq);
    return m;
}

std::string serialized(const Payload &p)
{
    std::string bytes;
    p.SerializeToString(&bytes);
    return bytes;
}

// The text Model::write takes, from whichever value field the command carries; a
// signed datatype's two's complement read back as the negative number it is. `type`:
// the metric's, or as the birth declared it.
std::string commandValue(const Payload::Metric &m, SparkplugType type, bool *isText)
{
    const bool isSigned = type == SparkplugType::Int8 || type == SparkplugType::Int16 || type == SparkplugType::Int32 ||
                          type == SparkplugType::Int64;
    char text[40];
    switch (m.value_case()) {
    case Payload::Metric::kBooleanValue:
        return m.boolean_value() ? "1" : "0";
    case Payload::Metric::kIntValue:
        return isSigned ? std::to_string(int32_t(m.int_value())) : std::to_string(m.int_value());
    case Payload::Metric::kLongValue:
        return isSigned ? std::to_string(int64_t(m.long_value())) : std::to_string(m.long_value());
    case Payload::Metric::kFloatValue:
        std::snprintf(text, sizeof text, "%.9g", double(m.float_value()));
        return text;
    case Payload::Metric::kDoubleValue:
        std::snprintf(text, sizeof text, "%.17g", m.double_value());
        return text;
    case Payload::Metric::kStringValue:
        *isText = true;
        return m.string_value();
    default:
        return {};
    }
}

std::string systemError(const std::string &what, const std::string &file)
{
    return what + " " + file + ": " + std::strerror(errno);
}

} // namespace

SparkplugType sparkplugType(const rtuhost::ValueType &t)
{
    switch (t.kind) {
    case rtuhost::ValueKind::Bool:
        return SparkplugType::Boolean;
    case rtuhost::ValueKind::String:
        return SparkplugType::String;
    case rtuhost::ValueKind::Float32:
        return SparkplugType::Float;
    default:
        break;
    }
    if (t.scaled())
        return SparkplugType::Double;
    switch (t.kind) {
    case rtuhost::ValueKind::UInt16:
        return SparkplugType::UInt16;
    case rtuhost::ValueKind::Int16:
        return SparkplugType::Int16;
    case rtuhost::ValueKind::Int32:
        return SparkplugType::Int32;
    default:
        return SparkplugType::UInt32;
    }
}

std::string sparkplugBdSeqFile(const Config &config)
{
    std::string dir = config.sparkplug.stateDir;
    if (dir.empty()) {
        // systemd lists the unit's state folders separated by colons; the first is ours.
        const char *state = std::getenv("STATE_DIRECTORY");
        dir = state != nullptr && *state != '\0' ? std::string(state).substr(0, std::string(state).find(':')) : ".";
    }
    const std::string &node = config.sparkplug.node.empty() ? config.name : config.sparkplug.node;
    return dir + "/sparkplug-" + config.sparkplug.group + '-' + node + ".bdseq";
}

bool loadBdSeq(const std::string &file, unsigned *bdSeq, std::string *why)
{
    if (::access(file.c_str(), F_OK) != 0 && errno == ENOENT) {
        *why = "no bdSeq kept yet in " + file;
        return false;
    }
    std::ifstream in(file);
    if (!in) {
        *why = systemError("cannot read", file);
        return false;
    }
    std::stringstream text;
    text << in.rdbuf();
    const std::string content = text.str();
    char *end = nullptr;
    errno = 0;
    const unsigned long value = std::strtoul(content.c_str(), &end, 10);
    while (end != nullptr && (*end == '\n' || *end == ' '))
        ++end;
    if (content.empty() || errno != 0 || end == nullptr || *end != '\0' || value >= kSeqModulo ||
        !std::isdigit(static_cast<unsigned char>(content[0]))) {
        *why = file + " holds no bdSeq (0 to 255)";
        return false;
    }
    *bdSeq = unsigned(value);
    return true;
}

bool storeBdSeq(const std::string &file, unsigned bdSeq, std::string *why)
{
    const std::string tmp = file + ".tmp";
    const std::string text = std::to_string(bdSeq) + '\n';
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0640);
    if (fd < 0) {
        *why = systemError("cannot create", tmp);
        return false;
    }
    const bool written = ::write(fd, text.data(), text.size()) == ssize_t(text.size()) && ::fsync(fd) == 0;
    if (!written)
        *why = systemError("cannot write", tmp);
    ::close(fd);
    if (!written || ::rename(tmp.c_str(), file.c_str()) != 0) {
        if (written)
            *why = systemError("cannot rename to", file);
        ::unlink(tmp.c_str());
        return false;
    }
    // The rename itself lasts only once the folder is on disk.
    const size_t slash = file.rfind('/');
    const std::string dir = slash == std::string::npos ? "." : slash == 0 ? "/" : file.substr(0, slash);
    const int dirFd = ::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool synced = dirFd >= 0 && ::fsync(dirFd) == 0;
    if (!synced)
        *why = systemError("cannot flush", dir);
    if (dirFd >= 0)
        ::close(dirFd);
    return synced;
}

// Before each connection attempt, on the broker client's thread: a retry of the same
// attempt writes nothing, so the disk sees one write per connection.
void SparkplugNode::keepNextBdSeq(unsigned next)
{
    const std::lock_guard<std::mutex> lock(bdSeqFileLock_);
    if (storedBdSeq_ == int(next))
        return;
    std::string why;
    if (storeBdSeq(bdSeqFile_, next, &why)) {
        storedBdSeq_ = int(next);
        if (storeFailed_)
            rtuhost::logNotice("bdSeq kept in %s again", bdSeqFile_.c_str());
        storeFailed_ = false;
    } else if (!storeFailed_) {
        storeFailed_ = true;
        rtuhost::logWarning("%s: after a crash, the next start may repeat a bdSeq the broker still holds", why.c_str());
    }
}

SparkplugNode::SparkplugNode(Model &model)
    : model_(model), group_(model.config().sparkplug.group),
      node_(model.config().sparkplug.node.empty() ? model.config().name : model.config().sparkplug.node),
      primaryHost_(model.config().sparkplug.primaryHost), bdSeqFile_(sparkplugBdSeqFile(model.config())),
      hostOnline_(primaryHost_.empty())
{
    const std::vector<ValueState> &values = model_.values();
    aliasOf_.assign(values.size(), 0);
    sentGood_.assign(values.size(), true);
    for (size_t i = 0; i < values.size(); ++i) {
        Device &d = devices_[values[i].point.station];
        if (d.name.empty()) {
            d.station = values[i].point.station;
            d.name = deviceName(d.station);
            byName_[d.name] = d.station;
        }
        d.values.push_back(i);
        // Unique across the node, as hosts require, and the same at every start with the
        // same configuration; from 1, since 0 is what a missing alias reads as.
        aliasOf_[i] = i + 1;
    }
}

std::string sparkplugDevice(const Config &config, int station)
{
    const auto found = config.stationNames.find(station);
    return found != config.stationNames.end() ? found->second : "station" + std::to_string(station);
}

std::string sparkplugNodeTopics(const Config &config)
{
    const std::string &node = config.sparkplug.node.empty() ? config.name : config.sparkplug.node;
    return std::string(kNamespace) + '/' + config.sparkplug.group + "/+/" + node;
}

std::string SparkplugNode::deviceName(int station) const
{
    return sparkplugDevice(model_.config(), station);
}

std::string SparkplugNode::topic(const char *type, const std::string &device) const
{
    std::string t = std::string(kNamespace) + '/' + group_ + '/' + type + '/' + node_;
    if (!device.empty())
        t += '/' + device;
    return t;
}

Message SparkplugNode::will()
{
    const unsigned bdSeq = nextBdSeq_.load();
    willBdSeq_ = bdSeq;
    keepNextBdSeq((bdSeq + 1) % kSeqModulo);
    Payload p;
    p.set_timestamp(nowMillis());
    addBdSeq(&p, bdSeq);
    return Message{topic("NDEATH"), serialized(p), kDeathQos, false, {}, {}};
}

void SparkplugNode::shapeSession(MqttSettings *settings) const
{
    settings->sessionExpiry = 0;
}

std::string SparkplugNode::where() const
{
    return "Sparkplug B node " + sparkplugNodeTopics(model_.config());
}

std::string SparkplugNode::planLine(const PlannedValue &v) const
{
    const std::string type = v.type.plain ? "" : std::string("  ") + v.type.name();
    return "device " + deviceName(v.points.front().station) + ", metric " + v.path.substr(v.path.find('/') + 1) + type +
           (v.writable ? "  (writable: DCMD)" : "");
}

void SparkplugNode::bind(Broker &broker)
{
    broker_ = &broker;
    mqtt_ = &broker.client();
    // Read here, not when made: --check's plan makes a node too, and connects nowhere.
    unsigned bdSeq = 0;
    std::string why;
    if (loadBdSeq(bdSeqFile_, &bdSeq, &why))
        nextBdSeq_ = bdSeq;
    else
        rtuhost::logWarning("%s: bdSeq starts at 0", why.c_str());
    mqtt_->setWillProvider([this] { return will(); });
    mqtt_->subscribe(topic("NCMD"));
    mqtt_->subscribe(topic("DCMD") + "/+");
    // The node's own death certificate: the broker may publish one for this session.
    mqtt_->subscribe(topic("NDEATH"));
    if (!primaryHost_.empty())
        mqtt_->subscribe(std::string(kNamespace) + "/STATE/" + primaryHost_);
}

std::vector<Message> SparkplugNode::farewell() const
{
    if (!nodeBorn_)
        return {};
    Payload p;
    p.set_timestamp(nowMillis());
    addBdSeq(&p, willBdSeq_.load());
    return {Message{topic("NDEATH"), serialized(p), kDeathQos, false, {}, {}}};
}

uint64_t SparkplugNode::nextSeq()
{
    const uint64_t s = seq_;
    seq_ = (seq_ + 1) % kSeqModulo;
    return s;
}

void SparkplugNode::publish(const std::string &t, const std::string &payload, Outbox::Kind kind)
{
    mqtt_->publish(Message{t, payload, kDataQos, false, {}, {}}, kind);
}

void SparkplugNode::birthNode()
{
    seq_ = 0;
    Payload p;
    p.set_timestamp(nowMillis());
    p.set_seq(nextSeq());
    addBdSeq(&p, willBdSeq_.load());
    Payload::Metric *rebirth = p.add_metrics();
    rebirth->set_name(kRebirth);
    rebirth->set_timestamp(p.timestamp());
    rebirth->set_datatype(uint32_t(SparkplugType::Boolean));
    rebirth->set_boolean_value(false);
    sentStats_.clear();
    addStats(&p);
    lastStats_ = std::chrono::steady_clock::now();
    publish(topic("NBIRTH"), serialized(p));
    nodeBorn_ = true;
    for (auto &[station, device] : devices_) {
        device.born = false;
        if (model_.stations().at(station).online)
            startBirth(device);
    }
}

// A value the station gave before it fell silent may have changed since: a device is
// born with what was read after its station came back, every block of it, so that no
// host takes an old value for a current one. A block not polled within kBirthWait (a
// slow schedule) is born bad, as the model says it is.
bool SparkplugNode::readSinceBack(Device &d) const
{
    const std::vector<PointState> &points = model_.points();
    const std::vector<SystemTime> &reads = model_.blockReads();
    // Once read since, a value stays so: each call goes on from where the last stopped.
    for (; d.readUpTo < d.values.size(); ++d.readUpTo) {
        for (const uint32_t p : model_.values()[d.values[d.readUpTo]].points) {
            const PointState &s = points[p];
            const bool polled = s.block >= 0 && size_t(s.block) < reads.size() && reads[size_t(s.block)] >= d.backAt;
            if (!s.good && !polled)
                return false;
        }
    }
    return true;
}

void SparkplugNode::startBirth(Device &d)
{
    if (readSinceBack(d)) {
        birthDevice(d);
    } else if (!d.waiting) {
        d.waiting = true;
        d.waitSince = std::chrono::steady_clock::now();
    }
}

std::vector<std::pair<std::string, uint64_t>> SparkplugNode::stats() const
{
    const rtuhost::Stats &h = model_.hostStats();
    const WriteCounters &w = model_.writes();
    return {{"Stats/Polls", h.polls},  {"Stats/Retries", h.retries},      {"Stats/Failures", h.failures},
            {"Stats/Writes ok", w.ok}, {"Stats/Writes failed", w.failed}, {"Stats/Writes refused", w.refused}};
}

// The line's figures as node metrics, by name: those that changed since they were last
// sent (all of them in a birth, where sentStats_ is empty). False when none changed.
bool SparkplugNode::addStats(Payload *p)
{
    bool any = false;
    for (const auto &[name, value] : stats()) {
        const auto sent = sentStats_.find(name);
        if (sent != sentStats_.end() && sent->second == value)
            continue;
        Payload::Metric *m = p->add_metrics();
        m->set_name(name);
        m->set_timestamp(p->timestamp());
        m->set_datatype(uint32_t(SparkplugType::UInt64));
        m->set_long_value(value);
        sentStats_[name] = value;
        any = true;
    }
    return any;
}

void SparkplugNode::publishStats()
{
    lastStats_ = std::chrono::steady_clock::now();
    Payload p;
    p.set_timestamp(nowMillis());
    if (!addStats(&p))
        return;
    p.set_seq(nextSeq());
    publish(topic("NDATA"), serialized(p), Outbox::Kind::Value);
}

void SparkplugNode::birthDevice(Device &d)
{
    Payload p;
    p.set_timestamp(nowMillis());
    p.set_seq(nextSeq());
    for (size_t index : d.values) {
        const ValueState &s = model_.values()[index];
        Payload::Metric *m = p.add_metrics();
        m->set_name(metricName(s));
        m->set_alias(aliasOf_[index]);
        m->set_datatype(uint32_t(sparkplugType(s.type)));
        m->set_timestamp(s.known ? millis(s.ts) : p.timestamp());
        setValue(m, s);
        if (s.item != nullptr && !s.item->unit.empty())
            setEngUnit(m, s.item->unit);
        // A value the station has not given since its last failure is said bad; a good
        // one needs no word, good is what hosts assume.
        if (s.known && !s.good)
            setQuality(m, false);
        sentGood_[index] = !s.known || s.good;
    }
    publish(topic("DBIRTH", d.name), serialized(p));
    d.born = true;
    d.waiting = false;
    d.changed.clear();
}

void SparkplugNode::deathDevice(Device &d)
{
    Payload p;
    p.set_timestamp(nowMillis());
    p.set_seq(nextSeq());
    publish(topic("DDEATH", d.name), serialized(p));
    d.born = false;
    d.changed.clear();
}

void SparkplugNode::valueChanged(size_t index)
{
    Device &d = devices_[model_.values()[index].point.station];
    if (d.born && nodeBorn_)
        d.changed.push_back(index);
}

void SparkplugNode::stationChanged(int station)
{
    Device &d = devices_[station];
    if (model_.stations().at(station).online) {
        d.backAt = std::chrono::system_clock::now();
        d.readUpTo = 0;
    }
    if (!nodeBorn_)
        return; // the node's birth will tell
    // Values changed before the station fell silent go out before its death.
    flushData();
    if (model_.stations().at(station).online) {
        if (!d.born)
            startBirth(d);
    } else {
        d.waiting = false;
        if (d.born)
            deathDevice(d);
    }
}

// One DDATA per station with whatever changed since the last exchange: fewer, larger
// messages, each value with the time it was read.
void SparkplugNode::flushData()
{
    for (auto &[station, d] : devices_) {
        if (d.changed.empty())
            continue;
        Payload p;
        p.set_timestamp(nowMillis());
        p.set_seq(nextSeq());
        for (size_t index : d.changed) {
            const ValueState &s = model_.values()[index];
            Payload::Metric *m = p.add_metrics();
            m->set_alias(aliasOf_[index]);
            m->set_datatype(uint32_t(sparkplugType(s.type)));
            m->set_timestamp(millis(s.ts));
            setValue(m, s);
            if (sentGood_[index] != s.good) {
                setQuality(m, s.good);
                sentGood_[index] = s.good;
            }
        }
        d.changed.clear();
        publish(topic("DDATA", d.name), serialized(p), Outbox::Kind::Value);
    }
}

void SparkplugNode::connected(bool)
{
    connected_ = true;
    // The sequence after this connection's birth follows the bdSeq of its will.
    nextBdSeq_ = (willBdSeq_.load() + 1) % kSeqModulo;
    rtuhost::logInfo("connected as Sparkplug node %s/%s (bdSeq %u)", group_.c_str(), node_.c_str(), willBdSeq_.load());
    if (birthAllowed()) {
        birthNode();
    } else {
        broker_->setState("waiting for the primary host");
        rtuhost::logInfo("waiting for the primary host %s to be online", primaryHost_.c_str());
    }
}

void SparkplugNode::lost()
{
    connected_ = false;
    nodeBorn_ = false;
    for (auto &[station, d] : devices_) {
        d.born = false;
        d.waiting = false;
        d.changed.clear();
    }
    // The host's state is learnt again from its retained STATE after the reconnect.
    hostOnline_ = primaryHost_.empty();
}

void SparkplugNode::onHostState(const std::string &payload)
{
    // {"online":true,"timestamp":...}; older hosts say ONLINE or OFFLINE.
    const QJsonDocument doc = QJsonDocument::fromJson(QByteArray::fromStdString(payload));
    const bool online = doc.isObject() ? doc.object().value(QLatin1String("online")).toBool(false)
                                       : payload == "ONLINE";
    // A state older than one already seen (a retained message overtaken by a live one)
    // says nothing about the host now.
    const double stamp = doc.isObject() ? doc.object().value(QLatin1String("timestamp")).toDouble(0) : 0;
    if (stamp < hostStateStamp_)
        return;
    hostStateStamp_ = stamp;
    if (online == hostOnline_)
        return;
    hostOnline_ = online;
    if (online)
        rtuhost::logNotice("primary host %s online", primaryHost_.c_str());
    else
        rtuhost::logWarning("primary host %s offline", primaryHost_.c_str());
    if (online && connected_ && !nodeBorn_) {
        birthNode();
    } else if (!online && connected_) {
        // Without its primary host the node is dead to SCADA: it says so, leaves, and
        // comes back on a new connection (a new bdSeq) to wait for the host; it is born
        // again with current values once the host is online.
        rtuhost::logNotice("disconnecting until the primary host is back");
        broker_->leave(farewell(), kLeaveTimeout, "waiting for the primary host");
        lost();
    }
}

// A death certificate with this session's bdSeq while the node is born: hosts now take
// the live node for dead (the broker published an old session's will with the same
// bdSeq, or someone else did), so it is born again, with the same bdSeq. One with
// another bdSeq ends an earlier session, which hosts already know is over.
void SparkplugNode::onDeath(const std::string &bytes)
{
    Payload p;
    if (!p.ParseFromString(bytes) || !nodeBorn_)
        return;
    for (const Payload::Metric &m : p.metrics()) {
        if (m.name() == kBdSeq && m.long_value() == willBdSeq_.load()) {
            rtuhost::logWarning("the broker published a death certificate of this session (bdSeq %u): born again",
                                willBdSeq_.load());
            birthNode();
            return;
        }
    }
}

void SparkplugNode::handleDeviceCommand(Device &d, const std::string &bytes)
{
    Payload p;
    if (!p.ParseFromString(bytes)) {
        rtuhost::logWarning("DCMD for %s is no Sparkplug payload: ignored", d.name.c_str());
        return;
    }
    for (const Payload::Metric &m : p.metrics()) {
        long index = -1;
        std::string label = m.name();
        if (m.has_name()) {
            index = model_.find(std::to_string(d.station) + '/' + m.name());
        } else if (m.has_alias() && m.alias() >= 1 && m.alias() <= model_.values().size() &&
                   model_.values()[m.alias() - 1].point.station == d.station) {
            index = long(m.alias() - 1);
            label = metricName(model_.values()[size_t(index)]);
        } else {
            label = "alias " + std::to_string(m.alias());
        }
        const std::string path = std::to_string(d.station) + '/' + label;
        // The write's outcome shows in the next DDATA; a refusal is logged and counted
        // by the model, since Sparkplug has no answer to a command.
        const WriteDone done = [](const WriteAnswer &) {};
        if (index < 0) {
            model_.refuse(path, "no metric " + label + " on " + d.name, done);
            continue;
        }
        const ValueState &target = model_.values()[size_t(index)];
        bool isText = false;
        const SparkplugType type = m.datatype() != 0 ? SparkplugType(m.datatype()) : sparkplugType(target.type);
        const std::string value = commandValue(m, type, &isText);
        if (value.empty() && !isText)
            model_.refuse(path, "the command carries no value", done);
        else
            model_.write(target.path, value, done, isText);
    }
}

bool SparkplugNode::message(const Message &m)
{
    const std::string state = std::string(kNamespace) + "/STATE/" + primaryHost_;
    if (!primaryHost_.empty() && m.topic == state) {
        onHostState(m.payload);
        return true;
    }
    if (m.topic == topic("NDEATH")) {
        onDeath(m.payload);
        return true;
    }
    if (m.topic == topic("NCMD")) {
        Payload p;
        if (!p.ParseFromString(m.payload)) {
            rtuhost::logWarning("NCMD is no Sparkplug payload: ignored");
            return true;
        }
        for (const Payload::Metric &metric : p.metrics()) {
            if (metric.name() == kRebirth && metric.boolean_value() && birthAllowed()) {
                rtuhost::logInfo("rebirth asked for");
                birthNode();
            }
        }
        return true;
    }
    const std::string devicePrefix = topic("DCMD") + '/';
    if (m.topic.compare(0, devicePrefix.size(), devicePrefix) == 0) {
        const std::string device = m.topic.substr(devicePrefix.size());
        const auto found = byName_.find(device);
        if (found != byName_.end())
            handleDeviceCommand(devices_[found->second], m.payload);
        else
            rtuhost::logWarning("DCMD for %s, which is no device of this node: ignored", device.c_str());
        return true;
    }
    return false;
}

void SparkplugNode::tick()
{
    if (!nodeBorn_)
        return;
    const auto now = std::chrono::steady_clock::now();
    for (auto &[station, d] : devices_) {
        if (d.waiting && model_.stations().at(station).online && (readSinceBack(d) || now - d.waitSince >= kBirthWait))
            birthDevice(d);
    }
    flushData();
    const int interval = model_.config().mqtt.statsInterval;
    if (interval > 0 && std::chrono::steady_clock::now() - lastStats_ >= std::chrono::seconds(interval))
        publishStats();
}

} // namespace rtugw
