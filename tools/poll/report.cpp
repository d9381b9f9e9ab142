#include "report.h"

#include <cstdio>

namespace rtupoll {

using rtuhost::WriteOutcome;

void Report::valueRead(const Point &point, uint32_t value)
{
    out_.value(point, value);
}

void Report::requestFailed(const FRAME_PRO &, const rtuhost::Failure &failure)
{
    out_.failed(failure.driverText, failure.why);
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
    for (const rtuhost::Dropped &d : x.dropped)
        std::fprintf(stderr, "dropped %s (%s)\n", qPrintable(rtuhost::hexBytes(d.bytes.data(), d.bytes.size())),
                     rtuhost::dropReasonText(d.reason));
    std::fprintf(stderr, "tx %s%s\nrx %s\n", qPrintable(rtuhost::hexBytes(f.frame, size_t(f.frameLen))),
                 x.sent ? "" : " (not sent again: a late answer to the same request came first)",
                 qPrintable(rtuhost::hexBytes(x.reply.data(), x.reply.size())));
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
