#include "report.h"

#include "rtuplc_host/log.h"

namespace rtupoll {

using rtuhost::WriteOutcome;

void Report::valueRead(const Point &point, uint32_t value)
{
    out_.value(point, value);
    if (csv_)
        logRow(point, Logged{true, value, true});
}

void Report::blockRead(const FRAME_PRO &frame)
{
    // A value read again after a failure is good again, changed or not.
    if (csv_)
        logQuality(frame, true);
}

void Report::requestFailed(const FRAME_PRO &frame, const rtuhost::Failure &failure)
{
    out_.failed(failure.block, failure.driverText, failure.why);
    if (csv_ && frame.reqKind == RTUPLC_KIND_MONITOR_READ)
        logQuality(frame, false);
}

void Report::logQuality(const FRAME_PRO &frame, bool good)
{
    for (size_t index : host_->pointsIn(frame)) {
        const Point &p = host_->points()[index];
        const auto it = logged_.find({p.station, p.area->name, p.address});
        // A value never read has no row to correct; one read is logged by valueRead.
        if (it != logged_.end() && it->second.good != good)
            logRow(p, Logged{it->second.known, it->second.value, good});
    }
}

void Report::logRow(const Point &point, const Logged &now)
{
    Logged &last = logged_[{point.station, point.area->name, point.address}];
    if (last.known == now.known && last.value == now.value && last.good == now.good)
        return;
    last = now;
    const rtuhost::CsvRow row{std::chrono::system_clock::now(),
                              point.station,
                              point.area->name.toStdString(),
                              point.area->format(point.address).toStdString(),
                              now.known,
                              now.value,
                              now.good};
    std::string error;
    const bool ok = csv_->append(row, &error);
    // Said once when the log fails, and once when it works again: the polling goes on.
    if (ok == csvFailing_) {
        csvFailing_ = !ok;
        if (ok)
            rtuhost::logNotice("the CSV log is written again");
        else
            rtuhost::logError("%s", error.c_str());
    }
}

void Report::writeSettled(uint64_t, const rtuhost::WriteRequest &w, WriteOutcome outcome, const QString &detail)
{
    const Point &p = w.target.points.front();
    QString what;
    switch (outcome) {
    case WriteOutcome::Refused:
        what = QStringLiteral("refused by the driver");
        break;
    case WriteOutcome::Local:
        what = QStringLiteral("kept in the driver only (local write mode): nothing is sent");
        break;
    case WriteOutcome::Replaced:
        what = QStringLiteral("replaced by a later write to the same address before it was sent");
        break;
    case WriteOutcome::QueueFull:
        what = QStringLiteral("dropped: the driver's write queue was full");
        break;
    case WriteOutcome::Failed:
        what = QStringLiteral("failed");
        break;
    case WriteOutcome::Broadcast:
        what = QStringLiteral("broadcast sent (nobody answers, so it is not confirmed)");
        break;
    case WriteOutcome::Acknowledged:
        what = QStringLiteral("accepted by the controller");
        break;
    case WriteOutcome::Confirmed:
        what = QStringLiteral("confirmed, %1 reads %2").arg(p.label(), out_.formatValue(p, detail.toUInt()));
        break;
    case WriteOutcome::NotConfirmed:
        what = QStringLiteral("not confirmed, %1 reads %2").arg(p.label(), out_.formatValue(p, detail.toUInt()));
        break;
    case WriteOutcome::Unfinished:
        what = QStringLiteral("not confirmed before the run ended");
        break;
    }
    out_.note(QStringLiteral("write %1: %2").arg(w.text, what));
}

void Report::note(const QString &text)
{
    out_.note(text);
}

void Report::exchanged(const FRAME_PRO &f, const rtuhost::Exchange &x)
{
    if (!verbose_)
        return;
    for (const std::string &line : rtuhost::traceLines(f, x))
        rtuhost::logMessage(rtuhost::LogPriority::Debug, line);
}

void Report::progress(const rtuhost::Stats &stats)
{
    out_.refresh(status(stats));
}

QString Report::status(const rtuhost::Stats &stats)
{
    return QStringLiteral("%1 frames sent, %2 accepted, %3 retries, %4 failures")
        .arg(stats.framesSent)
        .arg(stats.accepted)
        .arg(stats.retries)
        .arg(stats.failures);
}

} // namespace rtupoll
