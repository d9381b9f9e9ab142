#include "report.h"

#include <algorithm>

#include "rtuplc_host/log.h"

namespace rtupoll {

using rtuhost::WriteOutcome;

void Report::track(rtuhost::Host &host, const std::vector<rtuhost::Item> &items)
{
    host_ = &host;
    const std::vector<Point> &points = host.points();
    feeds_.assign(points.size(), {});
    raw_.assign(points.size(), 0);
    for (const rtuhost::Item &item : items) {
        for (const rtuhost::ValueSpan &span : item.values()) {
            Value v;
            v.point = item.points[span.first];
            v.type = item.type;
            v.label = item.valueLabel(span) + (item.type.plain ? QString() : ':' + QLatin1String(item.type.name()));
            for (int i = 0; i < span.count; ++i) {
                const Point &p = item.points[span.first + size_t(i)];
                const long at = host.pointIndex(p.station, p.area->name, p.address);
                if (at >= 0)
                    v.points.push_back(size_t(at));
            }
            if (v.points.size() != size_t(span.count))
                continue;
            for (const size_t p : v.points)
                feeds_[p].push_back(values_.size());
            values_.push_back(v);
        }
    }
    for (size_t i = 0; i < points.size(); ++i) {
        if (!feeds_[i].empty())
            continue;
        feeds_[i].push_back(values_.size());
        values_.push_back(Value{points[i], rtuhost::ValueType{}, points[i].label(), {i}, {}});
    }
}

std::vector<QString> Report::labels() const
{
    std::vector<QString> l;
    for (const Value &v : values_)
        l.push_back(v.label);
    return l;
}

std::vector<int> Report::stations() const
{
    std::vector<int> s;
    for (const Value &v : values_)
        s.push_back(v.point.station);
    return s;
}

void Report::valueRead(const Point &point, uint32_t value)
{
    const long at = host_ != nullptr ? host_->indexOf(point) : -1;
    if (at < 0)
        return;
    raw_[size_t(at)] = value;
    for (const size_t v : feeds_[size_t(at)]) {
        if (values_[v].points.size() == 1)
            show(v);
        else if (std::find(pending_.begin(), pending_.end(), v) == pending_.end())
            pending_.push_back(v);
    }
}

void Report::flush()
{
    for (const size_t v : pending_)
        show(v);
    pending_.clear();
}

void Report::show(size_t index)
{
    Value &v = values_[index];
    const rtuhost::ValueType &t = v.type;
    Shown s;
    s.point = v.point;
    s.label = v.label;
    s.bit = t.bit;
    Logged now{true, {}, {}, true};
    if (t.plain) {
        const uint32_t raw = raw_[v.points.front()];
        s.text = out_.formatValue(v.point, raw);
        s.json = QString::number(raw);
        now.value = std::to_string(raw);
    } else {
        uint32_t values[rtuhost::kMaxStringRegisters] = {};
        for (size_t i = 0; i < v.points.size(); ++i)
            values[i] = raw_[v.points[i]];
        uint16_t words[rtuhost::kMaxStringRegisters];
        rtuhost::wordsOf(v.point.area->kind, values, int(v.points.size()), words);
        const rtuhost::Reading r = rtuhost::decode(t, words);
        const QString text = QString::fromStdString(rtuhost::readingText(r, t));
        const bool isText = r.form == rtuhost::Reading::Form::Text;
        s.type = QLatin1String(t.name());
        s.text = r.invalid != nullptr ? QString::fromLatin1(r.invalid) : isText ? jsonString(text) : text;
        s.json = r.invalid != nullptr ? QStringLiteral("null") : isText ? jsonString(text) : text;
        const std::string raw = rtuhost::rawText(t, words, isText ? ',' : ' ');
        const QString rawJson = isText ? '[' + QString::fromStdString(raw) + ']' : QString::fromStdString(raw);
        s.raw = rawJson == s.json ? QString() : rawJson;
        now.value = r.invalid != nullptr ? std::string() : text.toStdString();
        now.raw = rtuhost::rawText(t, words, ' ');
        if (now.raw == now.value)
            now.raw.clear();
    }
    out_.value(index, s);
    if (csv_)
        logRow(v, now);
}

void Report::blockRead(const FRAME_PRO &frame)
{
    flush();
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
        for (const size_t v : feeds_[index]) {
            Value &value = values_[v];
            // A value never read has no row to correct; one read is logged by show().
            if (value.logged.known && value.logged.good != good) {
                Logged now = value.logged;
                now.good = good;
                logRow(value, now);
            }
        }
    }
}

void Report::logRow(Value &v, const Logged &now)
{
    Logged &last = v.logged;
    if (last.known == now.known && last.value == now.value && last.raw == now.raw && last.good == now.good)
        return;
    last = now;
    const QString address =
        v.point.area->format(v.point.address) + (v.type.bit >= 0 ? '.' + QString::number(v.type.bit) : QString());
    const rtuhost::CsvRow row{std::chrono::system_clock::now(),
                              v.point.station,
                              v.point.area->name.toStdString(),
                              address.toStdString(),
                              now.value,
                              now.raw,
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
    flush(); // a write the driver took into its cache shows between replies
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
