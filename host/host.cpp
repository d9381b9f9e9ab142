#include "rtuplc_host/host.h"

#include <QByteArray>
#include <QList>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include "rtuplc_support/modbus.h"

namespace rtuhost {

namespace {

// The callback carries no context pointer: the one host of this process is reached
// through this.
Host *g_host = nullptr;

constexpr std::chrono::milliseconds kIdleWait{5};
constexpr std::chrono::milliseconds kLinkDownWait{200};
constexpr size_t kQuantityIndex = 4; // of a read request: quantity, high byte first

} // namespace

QString hexBytes(const uint8_t *b, size_t n)
{
    return QByteArray(reinterpret_cast<const char *>(b), int(n)).toHex(' ').toUpper();
}

std::vector<std::string> traceLines(const FRAME_PRO &f, const Exchange &x)
{
    std::vector<std::string> lines;
    for (const Dropped &d : x.dropped)
        lines.push_back("dropped " + hexBytes(d.bytes.data(), d.bytes.size()).toStdString() + " (" +
                        dropReasonText(d.reason) + ")");
    lines.push_back("tx " + hexBytes(f.frame, size_t(f.frameLen)).toStdString() +
                    (x.sent ? "" : " (not sent again: a late answer to the same request came first)"));
    lines.push_back("rx " + hexBytes(x.reply.data(), x.reply.size()).toStdString());
    return lines;
}

double PollRate::perSecond(const Stats &stats, Clock::time_point now)
{
    const double seconds = std::chrono::duration<double>(now - since_).count();
    const double rate = seconds > 0 ? double(stats.polls - polls_) / seconds : 0;
    polls_ = stats.polls;
    since_ = now;
    return rate;
}

const char *dropReasonText(DropReason r)
{
    switch (r) {
    case DropReason::Late:
        return "late: came after its time-out";
    case DropReason::Doubled:
        return "doubled: a copy of the reply taken before";
    case DropReason::Foreign:
        return "foreign: another station's reply";
    case DropReason::Malformed:
    default:
        return "malformed: noise, bad CRC, or not this request's function, byte count or echo";
    }
}

namespace {

bool isWriteFrame(const FRAME_PRO &f)
{
    return f.frameLen > 1 && rtuplc::isWriteFunction(f.frame[1]);
}

// What comes before the first '_' ("D" of "D_W"), or the whole name; asked at every poll.
QString prefixOf(const QString &regName)
{
    const int underscore = regName.indexOf(QLatin1Char('_'));
    return underscore < 0 ? regName : regName.left(underscore);
}

} // namespace

QString HostSettings::propertyText() const
{
    return QStringLiteral("%1#%2#0#%3#%4").arg(driverId).arg(localWriteMode).arg(retries).arg(gap);
}

QString Stats::summary() const
{
    const double seconds = std::max(1e-6, elapsed.count() / 1e6);
    const double loss = framesSent ? 100.0 * double(framesSent - std::min(accepted, framesSent)) / double(framesSent)
                                   : 0.0;
    const double cycleMs = finished ? cycleTotal.count() / 1000.0 / double(finished) : 0.0;
    const uint64_t *d = line.dropped;
    return QStringLiteral("--- %1 frames sent, %2 replies accepted, %3 retries, %4 failures, %5% loss, "
                          "%6 polls/s, mean cycle %7 ms; replies dropped: %8 late, %9 doubled, %10 foreign, "
                          "%11 malformed")
        .arg(framesSent)
        .arg(accepted)
        .arg(retries)
        .arg(failures)
        .arg(loss, 0, 'f', 1)
        .arg(double(finished) / seconds, 0, 'f', 1)
        .arg(cycleMs, 0, 'f', 1)
        .arg(d[int(DropReason::Late)])
        .arg(d[int(DropReason::Doubled)])
        .arg(d[int(DropReason::Foreign)])
        .arg(d[int(DropReason::Malformed)]);
}

QString Stats::lateAdvice(std::chrono::milliseconds margin) const
{
    if (line.lateReplies == 0)
        return QString();
    const long lateMs = long((line.maxLateness.count() + 999) / 1000);
    const long suggest = (long(margin.count()) + lateMs + 99) / 100 * 100;
    return QStringLiteral("--- %1 repl%2 came after the time-out, up to %3 ms late: try --timeout %4")
        .arg(line.lateReplies)
        .arg(line.lateReplies == 1 ? "y" : "ies")
        .arg(lateMs)
        .arg(suggest);
}

bool isFinal(WriteOutcome o, bool confirmWrites)
{
    return o != WriteOutcome::Acknowledged || !confirmWrites;
}

HostEvents::~HostEvents() = default;
LineShare::~LineShare() = default;
void HostEvents::valueRead(const Point &, uint32_t) {}
void HostEvents::blockRead(const FRAME_PRO &) {}
void HostEvents::requestFailed(const FRAME_PRO &, const Failure &) {}
void HostEvents::writeSettled(uint64_t, const WriteRequest &, WriteOutcome, const QString &) {}
void HostEvents::note(const QString &) {}
void HostEvents::exchanged(const FRAME_PRO &, const Exchange &) {}
void HostEvents::progress(const Stats &) {}

Host::Host(const DriverApi &api, Link &link, HostEvents &events, const HostSettings &settings)
    : api_(api), catalogue_(api), link_(link), events_(events), settings_(settings), memory_(kHostMemoryBytes),
      recipeBuffer_(kRecipeBufferWords)
{
    g_host = this;
    link_.setTiming(settings.margin, settings.pause);
}

Host::~Host()
{
    api_.setAddrValueChangeCallBack(nullptr);
    g_host = nullptr;
}

std::chrono::microseconds Host::timeoutFor(size_t frameBytes, size_t replyBytes) const
{
    return rtusupport::characterTime(settings_.line) * int64_t(frameBytes + replyBytes) + settings_.margin;
}

void Host::monitor(const std::vector<Item> &items)
{
    for (const Item &item : items) {
        if (item.every.count() > 0 && !item.points.empty()) {
            SlowItem s;
            s.item = items_.size();
            s.prefix = item.area->cachePrefix();
            s.first = item.points.front().firstUnit();
            s.end = s.first;
            for (const Point &p : item.points) {
                s.first = std::min(s.first, p.firstUnit());
                s.end = std::max(s.end, p.firstUnit() + p.units());
            }
            slow_.push_back(s);
        }
        items_.push_back(item);
        for (const Point &p : item.points) {
            const PointKey key{p.station, p.area->name, p.address};
            if (pointIndex_.count(key))
                continue; // the same value asked for twice is shown once
            pointIndex_[key] = points_.size();
            points_.push_back(p);
        }
    }
    areaPointsStale_ = true;
    unitOrderStale_ = true;
}

long Host::pointIndex(int station, const QString &area, int address) const
{
    const auto found = pointIndex_.find(PointKey{station, area, address});
    return found == pointIndex_.end() ? -1 : long(found->second);
}

Host::Block &Host::block(const FRAME_PRO &f)
{
    const BlockKey key{f.station, prefixOf(f.regName), f.startAddr, f.len};
    const auto found = blockIndex_.find(key);
    if (found != blockIndex_.end())
        return found->second;
    // Blocks are few and fixed once planned: each is resolved once, from the points of
    // its station's area in the order of their units, not from all of them.
    Block &b = blockIndex_[key];
    if (unitOrderStale_) {
        unitOrder_.clear();
        widest_ = 1;
        for (size_t i = 0; i < points_.size(); ++i) {
            unitOrder_[{points_[i].station, points_[i].area->cachePrefix()}].push_back(i);
            widest_ = std::max(widest_, points_[i].units());
        }
        for (auto &[area, order] : unitOrder_)
            std::stable_sort(order.begin(), order.end(),
                             [this](size_t x, size_t y) { return points_[x].firstUnit() < points_[y].firstUnit(); });
        unitOrderStale_ = false;
    }
    const auto area = unitOrder_.find({f.station, std::get<1>(key)});
    if (area == unitOrder_.end())
        return b;
    const std::vector<size_t> &order = area->second;
    const int64_t start = f.startAddr, stop = start + f.len;
    // A point that starts before the block may still reach into it.
    auto at = std::lower_bound(order.begin(), order.end(), start - widest_ + 1,
                               [this](size_t i, int64_t unit) { return points_[i].firstUnit() < unit; });
    for (; at != order.end() && points_[*at].firstUnit() < stop; ++at) {
        const Point &p = points_[*at];
        const int64_t first = p.firstUnit(), end = first + p.units();
        if (end > start)
            b.touching.push_back(*at);
        if (first >= start && end <= stop) // covers(f, p)
            b.in.push_back(*at);
    }
    // In the order of the points, as the events report them.
    std::sort(b.touching.begin(), b.touching.end());
    std::sort(b.in.begin(), b.in.end());
    return b;
}

const std::vector<size_t> &Host::pointsIn(const FRAME_PRO &f)
{
    return block(f).in;
}

uint64_t Host::write(const WriteRequest &w)
{
    PendingWrite pw;
    pw.id = nextWriteId_++;
    pw.request = w;
    // rtuplc-poll's next poll of the written value confirms the write, so it is polled too.
    const Point &p = w.target.points.front();
    if (!started_ && settings_.confirmWrites && p.station != rtusupport::kBroadcastStation &&
        !pointIndex_.count(PointKey{p.station, p.area->name, p.address}))
        monitor({w.target});
    writes_.push_back(pw);
    if (started_)
        issue(writes_.back());
    return pw.id;
}

Host::PendingWrite *Host::pending(uint64_t id)
{
    for (PendingWrite &w : writes_) {
        if (w.id == id)
            return &w;
    }
    return nullptr;
}

void Host::issue(PendingWrite &w)
{
    const Point &p = w.request.target.points.front();
    std::vector<unsigned char> bytes = w.request.bytes();
    const int count = w.request.count();
    inWrite_ = true; // the driver shows the value at once; it is reported once read
    const int taken = api_.setData(p.station, p.area->name, p.address, count, bytes.data(), RTUPLC_KIND_WRITE);
    inWrite_ = false;
    if (taken != RTUPLC_OK) {
        settle(w.id, WriteOutcome::Refused);
        return;
    }
    if (settings_.localWriteMode != 0) {
        settle(w.id, WriteOutcome::Local);
        return;
    }
    // A slow value written is read again at once, to show what the controller holds.
    for (SlowItem &s : slow_) {
        if (items_[s.item].station == p.station && s.prefix == p.area->cachePrefix() && p.firstUnit() < s.end &&
            p.firstUnit() + p.units() > s.first)
            s.due = Clock::time_point{};
    }
    // Mirror the driver's queue: the head may be in flight and is never replaced.
    for (size_t i = driverQueue_.size(); i-- > 1;) {
        QueuedWrite &q = driverQueue_[i];
        if (q.station == p.station && q.area == p.area->name && q.address == p.address && q.count == count) {
            const uint64_t replaced = q.id;
            q.id = w.id;
            settle(replaced, WriteOutcome::Replaced);
            return;
        }
    }
    const QueuedWrite entry{p.station, p.area->name, p.address, count, w.id};
    if (driverQueue_.size() <= size_t(RTUPLC_QUEUE_LAST)) {
        driverQueue_.push_back(entry);
    } else {
        const uint64_t recycled = driverQueue_.back().id;
        driverQueue_.back() = entry;
        settle(recycled, WriteOutcome::QueueFull);
    }
}

void Host::settle(uint64_t id, WriteOutcome outcome, const QString &detail)
{
    PendingWrite *w = pending(id);
    if (w == nullptr)
        return;
    using State = PendingWrite::State;
    switch (outcome) {
    case WriteOutcome::Acknowledged:
        w->state = settings_.confirmWrites ? State::Acknowledged : State::Confirmed;
        break;
    case WriteOutcome::Confirmed:
    case WriteOutcome::Broadcast:
        w->state = State::Confirmed;
        break;
    case WriteOutcome::Local:
        w->state = State::Local;
        break;
    default:
        w->state = State::Failed;
        problems_ = true;
        break;
    }
    const WriteRequest request = w->request;
    events_.writeSettled(id, request, outcome, detail);
    // Settled writes leave the list, which a long-running host would otherwise grow.
    while (!writes_.empty() && writes_.front().state != State::Queued && writes_.front().state != State::Acknowledged)
        writes_.pop_front();
}

void Host::recipe(const RecipeJob &job)
{
    job_ = job;
    recipeStage_ = job.recipe ? RecipeStage::Waiting : RecipeStage::None;
}

void Host::onChange(int driverId, int station, QString &item, int addr)
{
    Q_UNUSED(driverId);
    if (g_host)
        g_host->changed(station, item, addr);
}

void Host::changed(int station, const QString &item, int addr)
{
    if (station == -1) {
        // Notices rather than values: recipe buffer words an upload filled, and the
        // end of a batch of one-shot reads (this host queues none).
        if (item == QLatin1String("RWI"))
            filledWords_.insert(addr);
        return;
    }
    if (areaPointsStale_) {
        indexAreas();
        lastArea_ = nullptr;
        areaPointsStale_ = false;
    }
    if (lastArea_ == nullptr || lastArea_->first.first != station || lastArea_->first.second != item) {
        const auto area = areaPoints_.find({station, item});
        if (area == areaPoints_.end())
            return;
        lastArea_ = &*area;
    }
    const long found = lastArea_->second.find(addr);
    if (found < 0)
        return;
    // Shown once the exchange is over; a value we wrote only once a read brings it.
    if (inWrite_)
        written_.insert(size_t(found));
    else
        markDirty(size_t(found));
}

void Host::indexAreas()
{
    // A table by address when the area's points are close together (a range), a hash
    // when they are few and far apart: a table for one point at 0 and one at 60000
    // would hold 60,000 cells for two.
    constexpr size_t kSpreadAllowed = 4, kSmallSpan = 1024;
    std::map<std::pair<int, QString>, std::vector<std::pair<int, size_t>>> byArea;
    for (const auto &[key, index] : pointIndex_) // addresses in order within an area
        byArea[{std::get<0>(key), std::get<1>(key)}].emplace_back(std::get<2>(key), index);
    areaPoints_.clear();
    for (const auto &[area, points] : byArea) {
        AreaPoints &a = areaPoints_[area];
        a.first = points.front().first;
        const size_t span = size_t(int64_t(points.back().first) - a.first + 1);
        if (span <= kSpreadAllowed * points.size() + kSmallSpan) {
            a.dense.assign(span, -1);
            for (const auto &[address, index] : points)
                a.dense[size_t(address - a.first)] = int32_t(index);
        } else {
            for (const auto &[address, index] : points)
                a.sparse[address] = index;
        }
    }
}

long Host::AreaPoints::find(int address) const
{
    if (!dense.empty()) {
        const int64_t at = int64_t(address) - first;
        return at >= 0 && at < int64_t(dense.size()) ? dense[size_t(at)] : -1;
    }
    const auto found = sparse.find(address);
    return found == sparse.end() ? -1 : long(found->second);
}

void Host::markDirty(size_t point)
{
    if (dirtyMark_.size() <= point)
        dirtyMark_.resize(points_.size());
    if (dirtyMark_[point])
        return;
    dirtyMark_[point] = true;
    dirty_.push_back(point);
}

bool Host::run(const std::atomic<bool> &stop)
{
    start();
    while (!finished() && !stop)
        step(stop);
    return finish();
}

void Host::start()
{
    api_.setAddrValueChangeCallBack(&Host::onChange);
    int errorCode = 0;
    const QByteArray property = settings_.propertyText().toLatin1();
    api_.initProperty(memory_.data(), 0, recipeBuffer_.data(), &errorCode, property.constData(), &memoryLock_);

    if (!items_.empty())
        remerge();
    plannedBlocks_ = blocks_;

    if (job_.recipe) {
        QVector<_RCP_VAR_PRO> vars = job_.recipe->driverVariables(settings_.driverId);
        const int taken = api_.setRcpAddress(vars);
        if (taken != vars.size()) {
            events_.note(QStringLiteral("recipe: the driver took %1 of %2 variables").arg(taken).arg(vars.size()));
            problems_ = true;
        }
    }
    shown_.assign(points_.size(), 0);
    reported_.assign(points_.size(), false);
    complete_.assign(points_.size(), false);
    started_ = true;
    for (size_t i = 0; i < writes_.size(); ++i) {
        if (writes_[i].state == PendingWrite::State::Queued)
            issue(writes_[i]);
    }
    for (const size_t i : dirty_)
        dirtyMark_[i] = false;
    dirty_.clear(); // a written value shows once the controller has it
    startedAt_ = Clock::now();
}

void Host::step(const std::atomic<bool> &stop)
{
    if (!retryPending_)
        advanceRecipe();
    if (!offline_.empty())
        queueProbes();
    if (!slow_.empty())
        queueSlowReads();
    if (finished())
        return;
    // Another master's request goes between two of ours, never into the middle of a
    // request of ours that is being retried.
    if (share_ && !requestOpen_ && serveShared(stop)) {
        events_.progress(stats_);
        return;
    }
    serveOne(stop);
    events_.progress(stats_);
}

void Host::share(LineShare *share, double pollShare)
{
    share_ = share;
    pollShare_ = std::clamp(pollShare, 0.0, 1.0);
}

bool Host::serveShared(const std::atomic<bool> &stop)
{
    // Their turn comes while their line time is within their share of the time both
    // took lately; whenever this host has nothing due, the line is theirs.
    const double theirs = double(sharedTime_.count()) * pollShare_;
    const double ours = double(ownTime_.count()) * (1.0 - pollShare_);
    if (!ownIdle_ && theirs > ours)
        return false;
    SharedRequest r;
    if (!share_->take(&r))
        return false;
    FRAME_PRO f;
    Exchange x;
    const auto began = Clock::now();
    if (r.frame.size() >= 4 && r.frame.size() <= sizeof f.frame) {
        std::memcpy(f.frame, r.frame.data(), r.frame.size());
        f.frameLen = int32_t(r.frame.size());
        f.station = r.frame[0];
        // A broadcast gets no answer: it goes out and the line is free again.
        const size_t answer =
            f.station == rtusupport::kBroadcastStation ? 0 : rtuplc::answerLength(r.frame.data(), r.frame.size());
        f.replyLen = int32_t(answer);
        // One attempt: the master that asked retries as it sees fit.
        x = link_.exchange(f, timeoutFor(r.frame.size(), answer), stop);
        if (x.sent)
            ++stats_.framesSent;
        stats_.line = link_.stats();
        events_.exchanged(f, x);
    }
    const auto took = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began);
    sharedTime_ += took;
    ageLineTimes();
    if (x.outcome == Exchange::Outcome::Reply)
        share_->heard(r.frame.data(), r.frame.size(), x.reply.data(), x.reply.size(), Clock::now());
    // Any answer, a refusal too, shows a station held offline is there again.
    if ((x.outcome == Exchange::Outcome::Reply || x.outcome == Exchange::Outcome::Exception) &&
        offline_.count(f.station))
        comeBack(f.station);
    share_->answered(r, x, took);
    if (x.outcome == Exchange::Outcome::LinkDown)
        std::this_thread::sleep_for(kLinkDownWait); // do not spin on a dead link
    return true;
}

void Host::ageLineTimes()
{
    // Only the last few seconds count: a burst of others' requests after a quiet minute
    // does not get the whole line, nor a quiet minute of theirs forbid the next burst.
    constexpr std::chrono::microseconds kWindow{2000000};
    if (ownTime_ + sharedTime_ > kWindow) {
        ownTime_ /= 2;
        sharedTime_ /= 2;
    }
}

bool Host::finish()
{
    stats_.elapsed = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - startedAt_);
    stats_.line = link_.stats();

    if (settings_.once) {
        for (size_t i = 0; i < points_.size(); ++i) {
            if (complete_[i])
                events_.valueRead(points_[i], readValue(api_, points_[i]));
        }
    }
    std::vector<uint64_t> open;
    for (const PendingWrite &w : writes_) {
        if (w.state == PendingWrite::State::Queued || w.state == PendingWrite::State::Acknowledged)
            open.push_back(w.id);
    }
    for (uint64_t id : open)
        settle(id, WriteOutcome::Unfinished);
    if (recipeStage_ == RecipeStage::Downloading || recipeStage_ == RecipeStage::Uploading ||
        recipeStage_ == RecipeStage::Waiting) {
        events_.note(QStringLiteral("recipe: the run ended before the transfer"));
        problems_ = true;
    }
    events_.progress(stats_);
    return !problems_ && stats_.failures == 0 && !recipeFailed_;
}

Host::Way Host::chooseWay(const FRAME_PRO &f, bool poll)
{
    probing_ = false;
    if (!offline_.empty() && !poll && offline_.count(f.station)) {
        // Its blocks are not polled. A write may find it back: tried once, at once; a
        // one-shot read is the probe queued for it, or a slow item's read, tried the
        // same way.
        probing_ = f.reqKind == RTUPLC_KIND_CONDITION_READ;
        stats_.probes += probing_ ? 1 : 0;
        return Way::Once;
    }
    return Way::Line;
}

void Host::remerge()
{
    // The driver polls only what it is given: a station held offline costs no pass
    // anything, and is given back whole when it answers.
    QList<KEY_ADDRESS> keys;
    for (const Item &item : items_) {
        if (item.every.count() == 0 && (offline_.empty() || !offline_.count(item.station)))
            keys.append(item.key());
    }
    blocks_ = api_.addrMerge(keys);
    passBlocks_.clear();
}

void Host::goOffline(const FRAME_PRO &f, Clock::time_point now, const QString &why)
{
    const int station = f.station;
    if (station == rtusupport::kBroadcastStation || settings_.probeInterval.count() <= 0)
        return;
    const auto found = offline_.find(station);
    if (found != offline_.end()) {
        // Still silent: tried less and less often, down to once every probeMax.
        Silence &s = found->second;
        s.interval = std::max(settings_.probeInterval, std::min(2 * s.interval, settings_.probeMax));
        s.nextProbe = now + s.interval;
        return;
    }
    offline_[station] = Silence{now + settings_.probeInterval, settings_.probeInterval, why, false};
    if (items_.empty())
        return;
    remerge();
    // Its other values go bad with the one that failed, each item saying why once.
    const QString because = QStringLiteral("station %1 is offline (%2): tried again every %3 s until it answers")
                                .arg(station)
                                .arg(why)
                                .arg(double(settings_.probeInterval.count()) / 1000.0);
    for (const Item &item : items_) {
        if (item.station != station || item.points.empty())
            continue;
        FRAME_PRO g;
        g.station = station;
        g.regName = item.area->name;
        g.reqKind = RTUPLC_KIND_MONITOR_READ;
        int first = item.points.front().firstUnit(), end = first;
        for (const Point &p : item.points) {
            first = std::min(first, p.firstUnit());
            end = std::max(end, p.firstUnit() + p.units());
        }
        g.startAddr = first;
        g.len = end - first;
        const bool justFailed = f.reqKind != RTUPLC_KIND_WRITE && prefixOf(f.regName) == prefixOf(g.regName) &&
                                f.startAddr <= first && end <= f.startAddr + f.len;
        if (justFailed)
            continue;
        Failure failure;
        failure.driverText = QStringLiteral("%1#%2%3(%4)").arg(station).arg(g.regName).arg(first).arg(g.len);
        failure.block = blockOf(g, failure.driverText);
        failure.why = because;
        events_.requestFailed(g, failure);
    }
}

void Host::queueProbes()
{
    const auto now = Clock::now();
    for (auto &[station, s] : offline_) {
        if (s.probing || now < s.nextProbe)
            continue;
        // One register or word of its first item: enough to hear it, little line time.
        for (const Item &item : items_) {
            if (item.station != station)
                continue;
            KEY_ADDRESS key = item.key();
            key.len = 1;
            s.probing = api_.addConditionRead(key, RTUPLC_KIND_CONDITION_READ) == RTUPLC_OK;
            break;
        }
    }
}

void Host::comeBack(int station)
{
    offline_.erase(station);
    // Back: every value of it is read fresh before it counts as current.
    for (SlowItem &s : slow_) {
        if (items_[s.item].station == station)
            s.due = Clock::time_point{};
    }
    if (!items_.empty())
        remerge();
}

void Host::queueSlowReads()
{
    const auto now = Clock::now();
    for (SlowItem &s : slow_) {
        const Item &item = items_[s.item];
        if (s.queued || now < s.due || (!offline_.empty() && offline_.count(item.station)))
            continue;
        s.queued = api_.addConditionRead(item.key(), RTUPLC_KIND_CONDITION_READ) == RTUPLC_OK;
    }
}

void Host::settleSlowReads(const FRAME_PRO &f, bool allOfStation)
{
    // An item is read once the piece holding its last unit is: the driver reads a long
    // one in pieces, in order. The next read is due its interval after this one began.
    const QString prefix = prefixOf(f.regName);
    for (SlowItem &s : slow_) {
        const Item &item = items_[s.item];
        if (!s.queued || item.station != f.station)
            continue;
        if (allOfStation || (s.prefix == prefix && s.end > f.startAddr && s.end <= f.startAddr + f.len)) {
            s.queued = false;
            s.seen = true;
            s.due = requestStarted_ + item.every;
        }
    }
}

void Host::serveOne(const std::atomic<bool> &stop)
{
    const bool recipeFrame = (recipeStage_ == RecipeStage::Downloading && commandPending(RTUPLC_RCP_DOWNLOAD_BYTE)) ||
                             (recipeStage_ == RecipeStage::Uploading && commandPending(RTUPLC_RCP_UPLOAD_BYTE));
    FRAME_PRO f;
    if (api_.getSendFrame(f) != 1) {
        ownIdle_ = true;
        if (!share_ || !serveShared(stop))
            std::this_thread::sleep_for(kIdleWait); // nothing due: no blocks, no writes
        return;
    }
    ownIdle_ = false;
    const bool write = isWriteFrame(f) && !recipeFrame;
    const bool oneShot = f.reqKind == RTUPLC_KIND_CONDITION_READ && !recipeFrame;
    if (!requestOpen_) {
        requestStarted_ = Clock::now();
        requestOpen_ = true;
        attempt_ = 0;
        way_ = chooseWay(f, f.reqKind == RTUPLC_KIND_MONITOR_READ && !recipeFrame);
    }
    // The one-shot reads this host queues are probes and slow items' reads: a slow
    // item's read is a poll like the rotation's.
    const bool poll = (f.reqKind == RTUPLC_KIND_MONITOR_READ && !recipeFrame) || (oneShot && !probing_);
    const bool onLine = way_ == Way::Line || attempt_ == 0;
    ++attempt_;
    const auto timeout = timeoutFor(size_t(f.frameLen), size_t(f.replyLen));
    Exchange x;
    // After a single try the retries are answered at once, with nothing: a failure
    // the driver already counts.
    if (onLine && f.frameLen > 0) { // a handshake record carries nothing to send
        const auto began = Clock::now();
        x = link_.exchange(f, timeout, stop);
        ownTime_ += std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - began);
        ageLineTimes();
        if (x.sent)
            ++stats_.framesSent;
        stats_.line = link_.stats();
        events_.exchanged(f, x);
        if (way_ == Way::Once)
            first_ = x;
    }
    if (stop && onLine && x.outcome == Exchange::Outcome::NoReply && f.replyLen > 0)
        return; // interrupted while waiting: the frame is not judged

    QString errorText;
    const QByteArray reply(reinterpret_cast<const char *>(x.reply.data()), int(x.reply.size()));
    const int result = api_.dealRcvFrame(reply, errorText);
    retryPending_ = result == RTUPLC_REPLY_RETRY;
    const bool settled = result == RTUPLC_REPLY_ACCEPTED || result == RTUPLC_REPLY_FAILED;
    if (way_ == Way::Once && attempt_ == 1) {
        // An answer of any kind, even a refusal, shows the station is there again.
        if (result == RTUPLC_REPLY_ACCEPTED || x.outcome == Exchange::Outcome::Exception) {
            comeBack(f.station);
            way_ = Way::Line;
            probing_ = false;
        }
    }
    if (share_ && result == RTUPLC_REPLY_ACCEPTED && !x.reply.empty())
        share_->heard(f.frame, size_t(f.frameLen), x.reply.data(), x.reply.size(), Clock::now());
    switch (result) {
    case RTUPLC_REPLY_ACCEPTED:
        ++stats_.accepted;
        if (f.dataLen > 0)
            afterRead(f);
        else if (write)
            afterWrite(f, true, QString());
        if (f.dataLen > 0 && poll && !oneShot)
            countPass(f);
        break;
    case RTUPLC_REPLY_RETRY:
        ++stats_.retries;
        break;
    case RTUPLC_REPLY_FAILED: {
        ++stats_.failures;
        const bool once = way_ == Way::Once;
        Failure failure = whyFailed(f, once ? first_ : x, timeout, errorText, once ? 1 : settings_.retries);
        if (once)
            failure.why = QStringLiteral("station %1 is offline: %2").arg(f.station).arg(failure.why);
        if (poll && oneShot) {
            FRAME_PRO asPoll = f; // its values go bad as a polled block's do
            asPoll.reqKind = RTUPLC_KIND_MONITOR_READ;
            events_.requestFailed(asPoll, failure);
        } else {
            events_.requestFailed(f, failure);
        }
        if (failure.kind == Failure::Kind::NoReply || failure.kind == Failure::Kind::BadReply) {
            stats_.silentTime += std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - requestStarted_);
            if (!once || probing_)
                goOffline(f, Clock::now(), failure.why);
        }
        if (recipeFrame)
            recipeFailed_ = true;
        else if (write)
            afterWrite(f, false, failure.why);
        else if (poll && !oneShot)
            countPass(f);
        break;
    }
    default:
        break;
    }
    if (settled && oneShot)
        settleSlowReads(f, false);
    if (settled && probing_) {
        const auto silent = offline_.find(f.station);
        if (silent != offline_.end())
            silent->second.probing = false; // the next one is due at its time
    }
    if (settled) {
        ++stats_.finished;
        if (poll)
            ++stats_.polls;
        stats_.cycleTotal += std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - requestStarted_);
        requestOpen_ = false;
    }
    showDirty();
    if (result == RTUPLC_REPLY_ACCEPTED && poll && f.dataLen > 0)
        events_.blockRead(f);
    if (x.outcome == Exchange::Outcome::LinkDown)
        std::this_thread::sleep_for(kLinkDownWait); // do not spin on a dead link
}

bool Host::covers(const FRAME_PRO &f, const Point &p) const
{
    return f.station == p.station && prefixOf(f.regName) == p.area->cachePrefix() && p.firstUnit() >= f.startAddr &&
           int64_t(p.firstUnit()) + p.units() <= int64_t(f.startAddr) + f.len;
}

bool Host::complete(const Point &p) const
{
    for (int u = p.firstUnit(); u < p.firstUnit() + p.units(); ++u) {
        if (!read_.count(UnitKey{p.station, p.area->cachePrefix(), u}))
            return false;
    }
    return true;
}

void Host::afterRead(const FRAME_PRO &f)
{
    Block &b = block(f);
    // The driver reports changes of what it monitors; a slow item's values, read once,
    // are compared here.
    if (f.reqKind == RTUPLC_KIND_CONDITION_READ)
        for (const size_t i : b.touching)
            markDirty(i);
    if (!b.read) {
        // The first read of a block completes the values in it; one that spans two
        // blocks is complete once both were read.
        b.read = true;
        const QString prefix = prefixOf(f.regName);
        for (int u = f.startAddr; u < f.startAddr + f.len; ++u)
            read_.insert(UnitKey{f.station, prefix, u});
        for (size_t i : b.touching) {
            if (!complete_[i] && complete(points_[i])) {
                complete_[i] = true;
                markDirty(i); // first sight of the value
            }
        }
    }
    // A value we wrote shows once a read brings it and no write of it is still on its way.
    for (auto it = written_.begin(); it != written_.end();) {
        const Point &p = points_[*it];
        bool queued = false;
        for (const QueuedWrite &q : driverQueue_)
            queued = queued || (q.station == p.station && q.area == p.area->name && q.address == p.address);
        if (!queued && covers(f, p)) {
            markDirty(*it);
            it = written_.erase(it);
        } else {
            ++it;
        }
    }
    if (!settings_.confirmWrites)
        return;
    std::vector<std::pair<uint64_t, bool>> seen;
    for (PendingWrite &w : writes_) {
        const Point &p = w.request.target.points.front();
        if (w.state == PendingWrite::State::Acknowledged && covers(f, p))
            seen.emplace_back(w.id, w.request.landed(api_));
    }
    for (const auto &[id, same] : seen) {
        const PendingWrite *w = pending(id);
        const Point &p = w->request.target.points.front();
        settle(id, same ? WriteOutcome::Confirmed : WriteOutcome::NotConfirmed, QString::number(readValue(api_, p)));
    }
}

void Host::afterWrite(const FRAME_PRO &f, bool ok, const QString &why)
{
    // The driver's write queue and ours settle in the same order; a frame that does not
    // match the head is looked for further down rather than settling the wrong write.
    size_t at = 0;
    while (at < driverQueue_.size()) {
        const PendingWrite *w = pending(driverQueue_[at].id);
        if (w != nullptr && covers(f, w->request.target.points.front()))
            break;
        ++at;
    }
    if (at == driverQueue_.size())
        return;
    const uint64_t id = driverQueue_[at].id;
    const bool broadcast = driverQueue_[at].station == rtusupport::kBroadcastStation;
    driverQueue_.erase(driverQueue_.begin() + long(at));
    if (!ok)
        settle(id, WriteOutcome::Failed, why);
    else
        settle(id, broadcast ? WriteOutcome::Broadcast : WriteOutcome::Acknowledged);
}

void Host::showDirty()
{
    // In the order of the points, as the driver mostly reports them already.
    reporting_.swap(dirty_);
    for (const size_t i : reporting_)
        dirtyMark_[i] = false;
    if (settings_.once) {
        reporting_.clear(); // everything is reported once at the end
        return;
    }
    if (!std::is_sorted(reporting_.begin(), reporting_.end()))
        std::sort(reporting_.begin(), reporting_.end());
    // A run of points side by side (a reply's, mostly) is read from the driver at once.
    values_.resize(reporting_.size());
    for (size_t run = 0; run < reporting_.size();) {
        size_t end = run + 1;
        while (end < reporting_.size() && reporting_[end] == reporting_[end - 1] + 1 &&
               sideBySide(points_[reporting_[end - 1]], points_[reporting_[end]]))
            ++end;
        readValues(api_, &points_[reporting_[run]], end - run, &values_[run]);
        run = end;
    }
    for (size_t k = 0; k < reporting_.size(); ++k) {
        const size_t i = reporting_[k];
        if (!complete_[i] || written_.count(i))
            continue; // reported when its first read arrives
        const uint32_t v = values_[k];
        if (reported_[i] && shown_[i] == v)
            continue;
        reported_[i] = true;
        shown_[i] = v;
        events_.valueRead(points_[i], v);
    }
    reporting_.clear();
}

QString Host::blockOf(const FRAME_PRO &f, const QString &driverText) const
{
    const Area *area = catalogue_.find(f.regName);
    return area ? blockText(*area, f.station, f.startAddr, f.len) : driverText;
}

Failure Host::whyFailed(const FRAME_PRO &f, const Exchange &x, std::chrono::microseconds timeout,
                        const QString &driverText, int attempts) const
{
    Failure failure;
    failure.driverText = driverText;
    failure.block = blockOf(f, driverText);
    attempts = std::max(1, attempts);
    const QString tries = QStringLiteral("%1 attempt%2").arg(attempts).arg(attempts == 1 ? "" : "s");
    switch (x.outcome) {
    case Exchange::Outcome::Exception: {
        const uint8_t code = x.reply[2]; // station, function | 0x80, code
        failure.kind = Failure::Kind::Exception;
        failure.exception = code;
        failure.why = QStringLiteral("exception %1 (%2) after %3")
                          .arg(code, 2, 16, QChar('0'))
                          .arg(QLatin1String(rtusupport::exceptionName(code)), tries);
        const int quantity = (f.frame[kQuantityIndex] << 8) | f.frame[kQuantityIndex + 1];
        if (f.frame[1] == rtuplc::kReadHoldingRegisters && quantity > rtusupport::kStandardMaxReadRegisters)
            failure.why += QStringLiteral(": this read asks for %1 registers; standard Modbus slaves stop at %2 while "
                                          "this controller takes %3 (use --gap or shorter items for other slaves)")
                               .arg(quantity)
                               .arg(rtusupport::kStandardMaxReadRegisters)
                               .arg(rtusupport::kControllerMaxReadRegisters);
        return failure;
    }
    case Exchange::Outcome::Reply:
        failure.kind = Failure::Kind::BadReply;
        failure.why = QStringLiteral("the reply failed the driver's check (CRC or length), %1").arg(tries);
        return failure;
    case Exchange::Outcome::LinkDown:
        failure.kind = Failure::Kind::LinkDown;
        failure.why = QStringLiteral("%1 (%2)").arg(QString::fromStdString(x.detail), tries);
        return failure;
    case Exchange::Outcome::NoReply:
    default:
        break;
    }
    failure.kind = Failure::Kind::NoReply;
    const long ms = long(timeout.count() / 1000);
    if (x.bytesSeen > 0)
        failure.why = QStringLiteral("no reply answering it within %1 ms: %2 bytes came that failed the check "
                                     "(bad CRC, noise, or not this request's answer), %3")
                          .arg(ms)
                          .arg(x.bytesSeen)
                          .arg(tries);
    else if (!x.detail.empty())
        failure.why = QStringLiteral("%1, %2").arg(QString::fromStdString(x.detail), tries);
    else
        failure.why = QStringLiteral("no reply within %1 ms, %2").arg(ms).arg(tries);
    return failure;
}

bool Host::writesSettled() const
{
    for (const PendingWrite &w : writes_) {
        if (w.state == PendingWrite::State::Queued)
            return false;
    }
    return true;
}

void Host::countPass(const FRAME_PRO &f)
{
    if (!writesSettled() || recipeStage_ == RecipeStage::Downloading || recipeStage_ == RecipeStage::Uploading) {
        passBlocks_.clear();
        return;
    }
    passBlocks_.insert({f.station, f.regName, f.startAddr, f.len});
    if (int(passBlocks_.size()) >= blocks_) {
        ++passes_;
        passBlocks_.clear();
    }
}

bool Host::finished() const
{
    if (settings_.duration.count() > 0 && started_ && Clock::now() - startedAt_ >= settings_.duration)
        return true;
    const bool recipeIdle = recipeStage_ == RecipeStage::None || recipeStage_ == RecipeStage::Done;
    if (!writesSettled() || !recipeIdle)
        return false;
    if (plannedBlocks_ == 0 && slow_.empty())
        return !share_; // nothing to poll once writes and recipe are through, unless others ask
    if (!settings_.once && settings_.count <= 0)
        return false;
    for (const SlowItem &s : slow_) {
        if (!s.seen && (offline_.empty() || !offline_.count(items_[s.item].station)))
            return false; // a bounded run reads every slow item once too
    }
    if (blocks_ == 0) // every station polled is offline, or every item is slow
        return true;
    return passes_ >= (settings_.once ? 1 : settings_.count);
}

} // namespace rtuhost
