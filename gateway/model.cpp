#include "model.h"

#include <algorithm>
#include <cmath>

#include "payload.h"
#include "rtuplc_host/log.h"

namespace rtugw {

using rtuhost::Failure;
using rtuhost::WriteOutcome;

Sink::~Sink() = default;
void Sink::valueChanged(size_t) {}
void Sink::stationChanged(int) {}
void Sink::tick() {}

std::string pathOf(const Point &p)
{
    return std::to_string(p.station) + '/' + p.area->name.toStdString() + '/' + p.area->format(p.address).toStdString();
}

namespace {

// The pace is measured over this window.
constexpr std::chrono::seconds kPaceWindow{1};
// How often heartbeats are looked for: finer than any interval a user gives in seconds.
constexpr std::chrono::milliseconds kBeatCheck{100};

// Decimal, signed, or 0x hexadecimal, of any size: what the range checks then judge.
bool isNumber(const std::string &text)
{
    const QString t = QString::fromStdString(text).trimmed();
    const bool hex = t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    const int first = hex ? 2 : t.startsWith('-') || t.startsWith('+') ? 1 : 0;
    if (t.size() <= first)
        return false;
    for (int i = first; i < t.size(); ++i) {
        const QChar c = t[i];
        if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (hex && QStringLiteral("abcdefABCDEF").contains(c))))
            return false;
    }
    return true;
}

} // namespace

Model::Model(const Config &config, const rtuhost::DriverApi &api, const rtuhost::Catalogue &catalogue)
    : config_(config), api_(api), catalogue_(catalogue)
{
}

int ValueState::registers(uint16_t *out) const
{
    if (type.kind != rtuhost::ValueKind::String) {
        rtuhost::unpackWords(raw, type.registers, out);
        return type.registers;
    }
    for (int i = 0; i < type.registers; ++i)
        out[i] = uint16_t(static_cast<unsigned char>(words[size_t(2 * i)]) << 8 |
                          static_cast<unsigned char>(words[size_t(2 * i + 1)]));
    return type.registers;
}

void Model::attach(rtuhost::Host &host, const std::vector<PlannedValue> &values)
{
    host_ = &host;
    points_.clear();
    values_.clear();
    byPath_.clear();
    beating_.clear();
    for (const Point &p : host.points()) {
        PointState s;
        s.point = p;
        points_.push_back(s);
        stations_[p.station];
    }
    std::vector<std::vector<uint32_t>> feeds(points_.size());
    for (const PlannedValue &pv : values) {
        ValueState v;
        v.path = pv.path;
        v.point = pv.points.front();
        v.type = pv.type;
        v.writable = pv.writable;
        v.item = pv.item;
        for (const Point &p : pv.points) {
            const long at = host.pointIndex(p.station, p.area->name, p.address);
            if (at >= 0) {
                v.points.push_back(uint32_t(at));
                feeds[size_t(at)].push_back(uint32_t(values_.size()));
            }
        }
        if (v.type.kind == rtuhost::ValueKind::String)
            v.words.assign(size_t(2 * v.type.registers), '\0');
        if (v.item != nullptr && v.item->publishEveryMs > 0)
            beating_.push_back(uint32_t(values_.size()));
        byPath_[v.path] = values_.size();
        values_.push_back(std::move(v));
    }
    feedsFrom_.assign(1, 0);
    feeds_.clear();
    for (const std::vector<uint32_t> &f : feeds) {
        feeds_.insert(feeds_.end(), f.begin(), f.end());
        feedsFrom_.push_back(uint32_t(feeds_.size()));
    }
    isPending_.assign(values_.size(), false);
    shown_.assign(values_.size(), 0);
    publishedAt_.assign(values_.size(), {});
}

void Model::addSink(Sink *sink)
{
    sinks_.push_back(sink);
}

const rtuhost::Stats &Model::hostStats() const
{
    return host_->stats();
}

const std::map<int, rtuhost::Host::Silence> &Model::offline() const
{
    static const std::map<int, rtuhost::Host::Silence> none;
    return host_ != nullptr ? host_->offline() : none;
}

long Model::find(const std::string &path) const
{
    const auto found = byPath_.find(path);
    return found == byPath_.end() ? -1 : long(found->second);
}

void Model::changed(size_t point, bool reported)
{
    for (uint32_t i = feedsFrom_[point]; i < feedsFrom_[point + 1]; ++i) {
        const uint32_t v = feeds_[i];
        // A value over several points waits for the rest of the reply: never half old, half new.
        if (values_[v].points.size() == 1) {
            refresh(v, reported);
        } else if (!isPending_[v]) {
            isPending_[v] = true;
            pending_.push_back(v);
        }
    }
}

void Model::flushPending()
{
    for (const uint32_t v : pending_) {
        isPending_[v] = false;
        refresh(v, false);
    }
    pending_.clear();
}

void Model::refresh(size_t index, bool reported, bool force)
{
    ValueState &s = values_[index];
    const double deadband = s.item != nullptr ? s.item->deadband : 0;
    if (s.type.plain && deadband == 0) {
        // As it always was: the point's unsigned value, told whenever the host reports it.
        const PointState &p = points_[s.points.front()];
        if (!force && !reported && p.known == s.known && p.good == s.good && p.error.empty() == s.error.empty())
            return;
        s.known = p.known;
        s.good = p.good;
        s.raw = p.value;
        s.error = p.error;
        s.ts = p.ts;
    } else {
        bool known = true, good = true;
        const std::string *error = nullptr;
        SystemTime ts{};
        uint32_t values[rtuhost::kMaxStringRegisters] = {};
        for (size_t i = 0; i < s.points.size(); ++i) {
            const PointState &p = points_[s.points[i]];
            known = known && p.known;
            if (!p.good && good) {
                good = false;
                error = &p.error;
            }
            ts = std::max(ts, p.ts);
            values[i] = p.value;
        }
        uint16_t words[rtuhost::kMaxStringRegisters];
        const int n = rtuhost::wordsOf(s.point.area->kind, values, int(s.points.size()), words);
        const rtuhost::Reading r = rtuhost::decode(s.type, words);
        const bool valid = known && r.invalid == nullptr;
        const bool hasError = !good || (known && !valid);
        const bool quality = known != s.known || (good && valid) != s.good || hasError == s.error.empty();
        bool moved = false;
        if (known && (r.form == rtuhost::Reading::Form::Text || !valid)) {
            // A string, or words that hold no number (NaN, an infinity): any word changed.
            uint16_t before[rtuhost::kMaxStringRegisters];
            s.registers(before);
            moved = !std::equal(words, words + n, before);
        } else if (valid) {
            moved = deadband > 0 ? !(std::fabs(r.number - shown_[index]) < deadband) : r.number != shown_[index];
        }
        if (!force && !quality && !moved)
            return;
        s.known = known;
        s.good = good && valid;
        s.error = !good ? *error : hasError ? r.invalid : std::string();
        s.ts = ts;
        if (s.type.kind == rtuhost::ValueKind::String) {
            for (int i = 0; i < n; ++i) {
                s.words[size_t(2 * i)] = char(words[i] >> 8);
                s.words[size_t(2 * i + 1)] = char(words[i] & 0xFF);
            }
        } else {
            s.raw = rtuhost::packWords(words, n);
        }
        if (valid)
            shown_[index] = r.number;
    }
    if (s.item != nullptr && s.item->publishEveryMs > 0)
        publishedAt_[index] = std::chrono::steady_clock::now();
    for (Sink *sink : sinks_)
        sink->valueChanged(index);
}

void Model::heartbeats()
{
    if (beating_.empty())
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now - beatChecked_ < kBeatCheck)
        return;
    beatChecked_ = now;
    for (const uint32_t v : beating_) {
        // Once told, told again when nothing else was for its interval.
        const auto every = std::chrono::milliseconds(values_[v].item->publishEveryMs);
        if (publishedAt_[v] != std::chrono::steady_clock::time_point{} && now - publishedAt_[v] >= every)
            refresh(v, false, true);
    }
}

void Model::setStation(int station, bool online)
{
    StationState &s = stations_[station];
    // Said once when a station goes silent, or is found silent at start; what fails
    // after that is counted until it answers again.
    if (!online && !s.saidOffline) {
        s.saidOffline = true;
        s.quietFailures = 0;
        rtuhost::logWarning("station %d offline", station);
    }
    if (s.online == online)
        return;
    s.online = online;
    if (online) {
        if (s.quietFailures > 0)
            rtuhost::logNotice("station %d online (%llu more requests failed while it was offline)", station,
                               (unsigned long long)s.quietFailures);
        else
            rtuhost::logNotice("station %d online", station);
        s.saidOffline = false;
        s.quietFailures = 0;
    }
    for (Sink *sink : sinks_)
        sink->stationChanged(station);
}

long long Model::uptimeSeconds() const
{
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_).count();
}

void Model::measurePace()
{
    const auto now = std::chrono::steady_clock::now();
    if (host_ != nullptr && now - pace_.since() >= kPaceWindow)
        pollsPerSecond_ = pace_.perSecond(host_->stats(), now);
}

void Model::tick()
{
    stampTaken_ = false;
    flushPending(); // what the driver showed between replies: a write taken into its cache
    heartbeats();
    measurePace();
    for (Sink *s : sinks_)
        s->tick();
}

void Model::valueRead(const Point &p, uint32_t value)
{
    const long index = host_->indexOf(p);
    if (index < 0)
        return;
    PointState &s = points_[size_t(index)];
    s.known = true;
    s.value = value;
    s.good = true;
    s.error.clear();
    // The values of one reply come one after the other, between two turns of the loop:
    // they were read at the same time, and the clock is asked once for all of them.
    if (!stampTaken_) {
        stamp_ = std::chrono::system_clock::now();
        stampTaken_ = true;
    }
    s.ts = stamp_;
    changed(size_t(index), true);
}

// One time per block, not per value: the loop polls tens of thousands of blocks a
// second, and a value's last read is its block's.
void Model::polled(const std::vector<size_t> &points, SystemTime now)
{
    if (points.empty())
        return;
    int &block = points_[points.front()].block;
    if (block < 0) { // polled for the first time
        block = int(blockReads_.size());
        blockReads_.push_back(now);
        for (const size_t index : points)
            if (points_[index].block < 0)
                points_[index].block = block;
    }
    blockReads_[size_t(block)] = now;
}

void Model::blockRead(const FRAME_PRO &f)
{
    const SystemTime now = std::chrono::system_clock::now();
    const std::vector<size_t> &points = host_->pointsIn(f);
    polled(points, now);
    for (size_t index : points) {
        PointState &s = points_[index];
        // Read again after a failure: good again, said even if the value is the same.
        if (s.good || !s.known)
            continue;
        s.good = true;
        s.error.clear();
        s.ts = now;
        changed(index, false);
    }
    flushPending(); // the reply is whole
    setStation(f.station, true);
}

void Model::requestFailed(const FRAME_PRO &f, const Failure &failure)
{
    const std::string why = failure.why.toStdString();
    StationState &station = stations_[f.station];
    // A station already said offline fails on every poll: counted, not logged again.
    if (failure.kind != Failure::Kind::Exception && station.saidOffline && !station.online) {
        ++station.quietFailures;
        if (verbose)
            rtuhost::logDebug("%s failed: %s", qPrintable(failure.block), why.c_str());
    } else {
        rtuhost::logWarning("%s failed: %s", qPrintable(failure.block), why.c_str());
    }
    if (f.reqKind == RTUPLC_KIND_MONITOR_READ) {
        const SystemTime now = std::chrono::system_clock::now();
        const std::vector<size_t> &points = host_->pointsIn(f);
        polled(points, now); // asked, if not answered: its values are not stale
        for (size_t index : points) {
            PointState &s = points_[index];
            if (!s.good && !s.error.empty())
                continue; // already shown bad: said once per failure
            s.good = false;
            s.error = why;
            s.ts = now;
            changed(index, false);
        }
        flushPending();
    }
    // A station that refuses a request with an exception is alive.
    if (failure.kind == Failure::Kind::Exception)
        return;
    const bool wasOnline = station.online;
    setStation(f.station, false);
    if (!wasOnline)
        return;
    // Silent, the station may change any of its values unseen, whether or not their
    // blocks are polled meanwhile: none of them is good until its block is read again.
    const SystemTime now = std::chrono::system_clock::now();
    for (size_t index = 0; index < points_.size(); ++index) {
        PointState &s = points_[index];
        if (s.point.station != f.station || !s.good)
            continue;
        s.good = false;
        s.error = "station " + std::to_string(f.station) + " silent: " + why;
        s.ts = now;
        changed(index, false);
    }
    flushPending();
}

void Model::progress(const rtuhost::Stats &)
{
    stampTaken_ = false; // the next reply's values are read anew
}

void Model::exchanged(const FRAME_PRO &f, const rtuhost::Exchange &x)
{
    if (!verbose)
        return;
    for (const std::string &line : rtuhost::traceLines(f, x))
        rtuhost::logDebug("%s", line.c_str());
}

void Model::settle(WriteDone &done, const WriteAnswer &a)
{
    if (a.ok)
        ++writes_.ok;
    else if (a.refused)
        ++writes_.refused;
    else
        ++writes_.failed;
    if (done)
        done(a);
}

void Model::refuse(const std::string &path, const std::string &why, WriteDone done)
{
    WriteAnswer refusal;
    refusal.refused = true;
    refusal.error = why;
    rtuhost::logWarning("write to %s refused: %s", path.c_str(), why.c_str());
    settle(done, refusal);
}

namespace {

// "D_W:100", "D_W:100.3": a value where it starts, as items are written.
std::string labelOf(const ValueState &v)
{
    const std::string label = v.point.label().toStdString();
    return v.type.bit >= 0 ? label + '.' + std::to_string(v.type.bit) : label;
}

// The number a plain value's text gives, for its min and max: decimal, signed, or 0x.
double plainNumber(const std::string &text)
{
    const QString t = QString::fromStdString(text).trimmed();
    return t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive) ? double(t.mid(2).toULongLong(nullptr, 16))
                                                                  : double(t.toLongLong());
}

} // namespace

bool Model::encodeWrite(const ValueState &v, const std::string &text, bool isText, rtuhost::WriteRequest *w,
                        std::string *json, std::string *why) const
{
    const ValueType &t = v.type;
    const rtuhost::Area &area = *v.point.area;
    w->text = QString::fromStdString(labelOf(v)) + '@' + QString::number(v.point.station);
    rtuhost::Item &target = w->target;
    target.text = w->text;
    target.station = v.point.station;
    target.area = &area;
    target.type = t;
    for (const uint32_t p : v.points)
        target.points.push_back(points_[p].point);
    target.first = target.points.front().address;
    target.last = target.points.back().address;
    if (t.plain) {
        QString error;
        if (isText || !isNumber(text))
            *why = "\"" + text + "\" is not a number: send a whole number (1234, -5, 0x1F)";
        else if (!rtuhost::parseValue(QString::fromStdString(text), area.kind, &w->value, &error))
            *why = error.toStdString();
        else if (t.limited() && (plainNumber(text) < t.min || plainNumber(text) > t.max))
            *why = text + " is outside the item's min and max";
        *json = std::to_string(w->value);
        return why->empty();
    }
    uint16_t current = 0;
    if (t.bit >= 0) {
        const PointState &p = points_[v.points.front()];
        if (!p.known || !p.good) {
            *why = labelOf(v) + " has not been read since its last failure: the other bits of its word are unknown";
            return false;
        }
        // The driver's view: the word as read, with any write of it still on its way.
        current = uint16_t(rtuhost::readValue(api_, p.point));
    }
    uint16_t words[rtuhost::kMaxStringRegisters];
    if (!rtuhost::encode(t, text, isText, current, words, why))
        return false;
    if (area.kind == rtuhost::Kind::Word && t.registers > 1)
        w->words.assign(words, words + t.registers);
    else
        w->value = rtuhost::packWords(words, t.registers);
    *json = readingJson(rtuhost::decode(t, words), t);
    return true;
}

void Model::write(const std::string &path, const std::string &value, WriteDone done, bool isText)
{
    const auto refuse = [&](const std::string &why) { this->refuse(path, why, std::move(done)); };
    const long found = find(path);
    if (found >= 0 && values_[size_t(found)].writable) {
        rtuhost::WriteRequest w;
        std::string json, why;
        if (!encodeWrite(values_[size_t(found)], value, isText, &w, &json, &why))
            return refuse(why);
        // Filed first: a write the driver refuses is settled within write().
        writesOpen_[host_->nextWriteId()] = {std::move(done), json};
        host_->write(w);
        return;
    }
    // Not a writable value: why, as precisely as the path allows, checked by the driver
    // like a configured item.
    const size_t first = path.find('/');
    const size_t second = first == std::string::npos ? first : path.find('/', first + 1);
    if (second == std::string::npos || path.find('/', second + 1) != std::string::npos)
        return refuse("\"" + path + "\" is not a value: STATION/AREA/ADDRESS");
    bool ok = false;
    const int station = QString::fromStdString(path.substr(0, first)).toInt(&ok);
    if (!ok || station < 1 || station > 247)
        return refuse("\"" + path.substr(0, first) + "\" is not a station (1..247)");
    const QString areaName = QString::fromStdString(path.substr(first + 1, second - first - 1));
    const rtuhost::Area *area = catalogue_.find(areaName);
    if (area == nullptr)
        return refuse("\"" + areaName.toStdString() + "\" is not an area of the controller");
    rtuhost::Item target;
    QString error;
    const QString text =
        QStringLiteral("%1:%2@%3").arg(area->name, QString::fromStdString(path.substr(second + 1))).arg(station);
    if (!rtuhost::parseItem(text, station, catalogue_, api_, &target, &error) || target.points.size() != 1)
        return refuse("address outside the area: " + error.toStdString());
    refuse(target.valueLabel(target.values().front()).toStdString() + "@" + std::to_string(station) +
           " is not configured writable (writable: true in the gateway's configuration)");
}

void Model::writeSettled(uint64_t id, const rtuhost::WriteRequest &w, WriteOutcome outcome, const QString &detail)
{
    const auto found = writesOpen_.find(id);
    if (found == writesOpen_.end())
        return;
    WriteDone done = std::move(found->second.first);
    WriteAnswer a;
    a.valueJson = std::move(found->second.second);
    writesOpen_.erase(found);
    switch (outcome) {
    case WriteOutcome::Acknowledged:
    case WriteOutcome::Broadcast:
    case WriteOutcome::Confirmed:
        a.ok = true;
        break;
    case WriteOutcome::Refused:
        a.refused = true;
        a.error = "refused by the driver";
        break;
    case WriteOutcome::Replaced:
        a.error = "replaced by a later write to the same address before it was sent";
        break;
    case WriteOutcome::QueueFull:
        a.error = "dropped: the driver's write queue was full";
        break;
    case WriteOutcome::Unfinished:
        a.error = "the gateway stopped before the controller answered";
        break;
    default:
        a.error = detail.isEmpty() ? std::string("not acknowledged") : detail.toStdString();
        break;
    }
    if (!a.ok)
        rtuhost::logWarning("write %s: %s", qPrintable(w.text), a.error.c_str());
    settle(done, a);
}

} // namespace rtugw
