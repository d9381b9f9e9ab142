#include "model.h"

#include "rtuplc_host/log.h"

namespace rtugw {

using rtuhost::Failure;
using rtuhost::WriteOutcome;

Sink::~Sink() = default;
void Sink::pointChanged(size_t) {}
void Sink::stationChanged(int) {}
void Sink::tick() {}

std::string pathOf(const Point &p)
{
    return std::to_string(p.station) + '/' + p.area->name.toStdString() + '/' + p.area->format(p.address).toStdString();
}

namespace {

// The pace is measured over this window.
constexpr std::chrono::seconds kPaceWindow{1};

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

void Model::attach(rtuhost::Host &host, const std::vector<std::pair<rtuhost::Item, const ItemConfig *>> &items)
{
    host_ = &host;
    points_.clear();
    byPath_.clear();
    for (const Point &p : host.points()) {
        PointState s;
        s.point = p;
        s.path = pathOf(p);
        byPath_[s.path] = points_.size();
        points_.push_back(s);
        stations_[p.station];
    }
    // A value named by several items is writable if any of them says so.
    for (const auto &[item, ic] : items) {
        for (const Point &p : item.points) {
            const long at = host.pointIndex(p.station, p.area->name, p.address);
            if (at < 0)
                continue;
            PointState &s = points_[size_t(at)];
            s.writable = s.writable || (ic != nullptr && ic->writable);
            if (s.item == nullptr)
                s.item = ic;
        }
    }
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

void Model::changed(size_t index)
{
    for (Sink *s : sinks_)
        s->pointChanged(index);
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
    changed(size_t(index));
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
        changed(index);
    }
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
            changed(index);
        }
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
        changed(index);
    }
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

void Model::write(const std::string &path, const std::string &value, WriteDone done)
{
    const auto refuse = [&](const std::string &why) { this->refuse(path, why, std::move(done)); };
    // The target: STATION/AREA/ADDR, checked by the driver like a configured item.
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
    const Point &p = target.points.front();
    const long index = host_->pointIndex(p.station, p.area->name, p.address);
    if (index < 0 || !points_[size_t(index)].writable)
        return refuse(p.label().toStdString() + "@" + std::to_string(p.station) +
                      " is not configured writable (writable: true in the gateway's configuration)");
    rtuhost::WriteRequest w;
    w.text = text;
    w.target = target;
    if (!isNumber(value))
        return refuse("\"" + value + "\" is not a number: send a whole number (1234, -5, 0x1F)");
    if (!rtuhost::parseValue(QString::fromStdString(value), p.area->kind, &w.value, &error))
        return refuse(error.toStdString());
    // Filed first: a write the driver refuses is settled within write().
    pending_[host_->nextWriteId()] = std::move(done);
    host_->write(w);
}

void Model::writeSettled(uint64_t id, const rtuhost::WriteRequest &w, WriteOutcome outcome, const QString &detail)
{
    const auto found = pending_.find(id);
    if (found == pending_.end())
        return;
    WriteDone done = std::move(found->second);
    pending_.erase(found);
    WriteAnswer a;
    switch (outcome) {
    case WriteOutcome::Acknowledged:
    case WriteOutcome::Broadcast:
    case WriteOutcome::Confirmed:
        a.ok = true;
        a.value = w.value;
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
