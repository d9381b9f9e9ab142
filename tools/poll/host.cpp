#include "host.h"

#include <QByteArray>
#include <QList>

#include <cstdio>
#include <thread>

#include "rtuplc_support/modbus.h"

namespace rtupoll {

namespace {

// The callback carries no context pointer: the one host of this process is reached
// through this.
Host *g_host = nullptr;

constexpr std::chrono::milliseconds kIdleWait{5};
constexpr std::chrono::milliseconds kLinkDownWait{200};
constexpr size_t kQuantityIndex = 4; // of a read request: quantity, high byte first

QString hexBytes(const uint8_t *b, size_t n)
{
    return QByteArray(reinterpret_cast<const char *>(b), int(n)).toHex(' ').toUpper();
}

const char *reasonText(DropReason r)
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

bool isWriteFrame(const FRAME_PRO &f)
{
    return f.frameLen > 1 && rtuplc::isWriteFunction(f.frame[1]);
}

QString prefixOf(const QString &regName)
{
    return regName.section('_', 0, 0);
}

} // namespace

QString HostSettings::propertyText() const
{
    return QStringLiteral("%1#%2#0#%3#%4").arg(driverId).arg(localWriteMode).arg(retries).arg(gap);
}

QString Stats::summary() const
{
    const double seconds = std::max(1e-6, elapsed.count() / 1e6);
    const double loss = framesSent ? 100.0 * double(framesSent - std::min(accepted, framesSent)) / double(framesSent) : 0.0;
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

Host::Host(const DriverApi &api, Link &link, Output &output, const HostSettings &settings)
    : api_(api), link_(link), out_(output), settings_(settings), memory_(kHostMemoryBytes),
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
    return rtusim::characterTime(settings_.line) * int64_t(frameBytes + replyBytes) + settings_.margin;
}

void Host::monitor(const std::vector<Item> &items)
{
    for (const Item &item : items) {
        items_.push_back(item);
        for (const Point &p : item.points) {
            const PointKey key{p.station, p.area->name, p.address};
            if (pointIndex_.count(key))
                continue; // the same value asked for twice is shown once
            pointIndex_[key] = points_.size();
            points_.push_back(p);
        }
    }
    out_.setPoints(points_);
}

void Host::write(const std::vector<WriteRequest> &writes)
{
    for (const WriteRequest &w : writes) {
        writes_.push_back(PendingWrite{w});
        // The next poll of the written value confirms the write, so it is polled too.
        const Point &p = w.target.points.front();
        if (p.station != rtusim::kBroadcastStation && !pointIndex_.count(PointKey{p.station, p.area->name, p.address}))
            monitor({w.target});
    }
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
    const auto found = pointIndex_.find(PointKey{station, item, addr});
    if (found != pointIndex_.end())
        dirty_.insert(found->second); // read and shown once the exchange is over
}

bool Host::run(const std::atomic<bool> &stop)
{
    api_.setAddrValueChangeCallBack(&Host::onChange);
    int errorCode = 0;
    const QByteArray property = settings_.propertyText().toLatin1();
    api_.initProperty(memory_.data(), 0, recipeBuffer_.data(), &errorCode, property.constData(), &memoryLock_);

    QList<KEY_ADDRESS> keys;
    for (const Item &item : items_)
        keys.append(item.key());
    blocks_ = keys.isEmpty() ? 0 : api_.addrMerge(keys);

    if (job_.recipe) {
        QVector<_RCP_VAR_PRO> vars = job_.recipe->driverVariables(settings_.driverId);
        const int taken = api_.setRcpAddress(vars);
        if (taken != vars.size()) {
            out_.note(QStringLiteral("recipe: the driver took %1 of %2 variables").arg(taken).arg(vars.size()));
            problems_ = true;
        }
    }
    for (PendingWrite &w : writes_) {
        const Point &p = w.request.target.points.front();
        std::vector<unsigned char> bytes = w.request.bytes();
        if (api_.setData(p.station, p.area->name, p.address, w.request.count(), bytes.data(), kWriteRequestKind) != 1) {
            out_.note(QStringLiteral("write %1: refused by the driver").arg(w.request.text));
            w.state = PendingWrite::State::Failed;
            problems_ = true;
        } else if (settings_.localWriteMode != 0) {
            out_.note(QStringLiteral("write %1: kept in the driver only (local write mode): nothing is sent")
                          .arg(w.request.text));
            w.state = PendingWrite::State::Local;
        }
    }
    dirty_.clear(); // a written value shows once the controller has it

    started_ = Clock::now();
    while (!finished() && !stop) {
        if (settings_.duration.count() > 0 && Clock::now() - started_ >= settings_.duration)
            break;
        if (!retryPending_)
            advanceRecipe();
        if (finished())
            break;
        serveOne(stop);
        out_.refresh(status());
    }
    stats_.elapsed = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started_);
    stats_.line = link_.stats();

    if (settings_.once) {
        for (const Point &p : points_) {
            if (complete(p))
                out_.value(p, readValue(api_, p));
        }
    }
    for (const PendingWrite &w : writes_) {
        if (w.state == PendingWrite::State::Queued || w.state == PendingWrite::State::Acknowledged) {
            out_.note(QStringLiteral("write %1: not confirmed before the run ended").arg(w.request.text));
            problems_ = true;
        }
    }
    if (recipeStage_ == RecipeStage::Downloading || recipeStage_ == RecipeStage::Uploading ||
        recipeStage_ == RecipeStage::Waiting) {
        out_.note(QStringLiteral("recipe: the run ended before the transfer"));
        problems_ = true;
    }
    out_.refresh(status(), true);
    return !problems_ && stats_.failures == 0 && !recipeFailed_;
}

void Host::serveOne(const std::atomic<bool> &stop)
{
    const bool recipeFrame = (recipeStage_ == RecipeStage::Downloading && commandPending(kRecipeDownloadByte)) ||
                             (recipeStage_ == RecipeStage::Uploading && commandPending(kRecipeUploadByte));
    FRAME_PRO f;
    if (api_.getSendFrame(f) != 1) {
        std::this_thread::sleep_for(kIdleWait); // nothing due: no blocks, no writes
        return;
    }
    if (!requestOpen_) {
        requestStarted_ = Clock::now();
        requestOpen_ = true;
    }
    const auto timeout = timeoutFor(size_t(f.frameLen), size_t(f.replyLen));
    Exchange x;
    if (f.frameLen > 0) { // a handshake record carries nothing to send
        x = link_.exchange(f, timeout, stop);
        if (x.sent)
            ++stats_.framesSent;
        if (settings_.verbose) {
            for (const Dropped &d : x.dropped)
                std::fprintf(stderr, "dropped %s (%s)\n", qPrintable(hexBytes(d.bytes.data(), d.bytes.size())),
                             reasonText(d.reason));
            std::fprintf(stderr, "tx %s%s\nrx %s\n", qPrintable(hexBytes(f.frame, size_t(f.frameLen))),
                         x.sent ? "" : " (not sent again: a late answer to the same request came first)",
                         qPrintable(hexBytes(x.reply.data(), x.reply.size())));
        }
    }
    if (stop && x.outcome == Exchange::Outcome::NoReply && f.replyLen > 0)
        return; // interrupted while waiting: the frame is not judged

    QString errorText;
    const QByteArray reply(reinterpret_cast<const char *>(x.reply.data()), int(x.reply.size()));
    const int result = api_.dealRcvFrame(reply, errorText);
    retryPending_ = result == 8;
    const bool write = isWriteFrame(f) && !recipeFrame;
    switch (result) {
    case 1:
        ++stats_.accepted;
        if (f.dataLen > 0)
            afterRead(f);
        else if (write)
            afterWrite(f, true);
        if (f.dataLen > 0 && f.reqKind == kMonitorReadKind && !recipeFrame)
            countPass(f);
        break;
    case 8:
        ++stats_.retries;
        break;
    case 2:
        ++stats_.failures;
        out_.failed(errorText, whyFailed(f, x, timeout));
        if (recipeFrame)
            recipeFailed_ = true;
        else if (write)
            afterWrite(f, false);
        else if (f.reqKind == kMonitorReadKind)
            countPass(f);
        break;
    default:
        break;
    }
    if (result == 1 || result == 2) {
        ++stats_.finished;
        stats_.cycleTotal += std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - requestStarted_);
        requestOpen_ = false;
    }
    showDirty();
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
    const QString prefix = prefixOf(f.regName);
    for (int u = f.startAddr; u < f.startAddr + f.len; ++u)
        read_.insert(UnitKey{f.station, prefix, u});
    for (size_t i = 0; i < points_.size(); ++i) {
        if (!shown_.count(i) && complete(points_[i]))
            dirty_.insert(i); // first sight of the value
    }
    for (PendingWrite &w : writes_) {
        const Point &p = w.request.target.points.front();
        if (w.state != PendingWrite::State::Acknowledged || !covers(f, p))
            continue;
        const uint32_t now = readValue(api_, p);
        if (now == w.request.value) {
            w.state = PendingWrite::State::Confirmed;
            out_.note(QStringLiteral("write %1: confirmed, %2 reads %3")
                          .arg(w.request.text, p.label(), out_.formatValue(p, now)));
        } else {
            w.state = PendingWrite::State::Failed;
            problems_ = true;
            out_.note(QStringLiteral("write %1: not confirmed, %2 reads %3")
                          .arg(w.request.text, p.label(), out_.formatValue(p, now)));
        }
    }
}

void Host::afterWrite(const FRAME_PRO &f, bool ok)
{
    for (PendingWrite &w : writes_) {
        const Point &p = w.request.target.points.front();
        if (w.state != PendingWrite::State::Queued || !covers(f, p))
            continue;
        if (!ok) {
            w.state = PendingWrite::State::Failed;
            problems_ = true;
            out_.note(QStringLiteral("write %1: failed").arg(w.request.text));
        } else if (p.station == rtusim::kBroadcastStation) {
            w.state = PendingWrite::State::Confirmed;
            out_.note(QStringLiteral("write %1: broadcast sent (nobody answers, so it is not confirmed)")
                          .arg(w.request.text));
        } else {
            w.state = PendingWrite::State::Acknowledged;
            out_.note(QStringLiteral("write %1: accepted by the controller").arg(w.request.text));
        }
    }
}

void Host::showDirty()
{
    if (settings_.once) {
        dirty_.clear(); // everything is printed once at the end
        return;
    }
    for (size_t i : dirty_) {
        const Point &p = points_[i];
        if (!complete(p))
            continue; // shown when its first read arrives
        const uint32_t v = readValue(api_, p);
        const auto was = shown_.find(i);
        if (was != shown_.end() && was->second == v)
            continue;
        shown_[i] = v;
        out_.value(p, v);
    }
    dirty_.clear();
}

QString Host::whyFailed(const FRAME_PRO &f, const Exchange &x, std::chrono::microseconds timeout) const
{
    const int attempts = std::max(1, settings_.retries);
    const QString tries = QStringLiteral("%1 attempt%2").arg(attempts).arg(attempts == 1 ? "" : "s");
    switch (x.outcome) {
    case Exchange::Outcome::Exception: {
        const uint8_t code = x.reply[2]; // station, function | 0x80, code
        QString why = QStringLiteral("exception %1 (%2) after %3")
                          .arg(code, 2, 16, QChar('0'))
                          .arg(QLatin1String(rtusim::exceptionName(code)), tries);
        const int quantity = (f.frame[kQuantityIndex] << 8) | f.frame[kQuantityIndex + 1];
        if (f.frame[1] == rtuplc::kReadHoldingRegisters && quantity > rtusim::kStandardMaxReadRegisters)
            why += QStringLiteral(": this read asks for %1 registers; standard Modbus slaves stop at %2 while this "
                                  "controller takes %3 (use --gap or shorter items for other slaves)")
                       .arg(quantity)
                       .arg(rtusim::kStandardMaxReadRegisters)
                       .arg(rtusim::kControllerMaxReadRegisters);
        return why;
    }
    case Exchange::Outcome::Reply:
        return QStringLiteral("the reply failed the driver's check (CRC or length), %1").arg(tries);
    case Exchange::Outcome::LinkDown:
        return QStringLiteral("%1 (%2)").arg(QString::fromStdString(x.detail), tries);
    case Exchange::Outcome::NoReply:
    default:
        break;
    }
    const long ms = long(timeout.count() / 1000);
    if (x.bytesSeen > 0)
        return QStringLiteral("no reply answering it within %1 ms (%2 bytes came that did not), %3")
            .arg(ms)
            .arg(x.bytesSeen)
            .arg(tries);
    if (!x.detail.empty())
        return QStringLiteral("%1, %2").arg(QString::fromStdString(x.detail), tries);
    return QStringLiteral("no reply within %1 ms, %2").arg(ms).arg(tries);
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
    const bool recipeIdle = recipeStage_ == RecipeStage::None || recipeStage_ == RecipeStage::Done;
    if (!writesSettled() || !recipeIdle)
        return false;
    if (blocks_ == 0)
        return true; // nothing to poll once writes and recipe are through
    if (settings_.once)
        return passes_ >= 1;
    if (settings_.count > 0)
        return passes_ >= settings_.count;
    return false;
}

QString Host::status() const
{
    return QStringLiteral("%1 frames sent, %2 accepted, %3 retries, %4 failures")
        .arg(stats_.framesSent)
        .arg(stats_.accepted)
        .arg(stats_.retries)
        .arg(stats_.failures);
}

} // namespace rtupoll
