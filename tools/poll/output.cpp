#include "output.h"

#include <QDateTime>

#include <unistd.h>

#include <cstdio>

#include "rtuplc_host/log.h"

namespace rtupoll {

namespace {

constexpr std::chrono::milliseconds kRedrawEvery{250};
constexpr size_t kMessagesShown = 6;

void put(FILE *f, const QString &line)
{
    fputs(line.toLocal8Bit().constData(), f);
    fputc('\n', f);
    fflush(f);
}

// What is not a value goes to standard error with the log helper's priority, so that
// standard output holds the values alone.
void say(rtuhost::LogPriority priority, const QString &line)
{
    rtuhost::logMessage(priority, line.toLocal8Bit().toStdString());
}

} // namespace

QString timeStamp()
{
    return QTime::currentTime().toString(QStringLiteral("HH:mm:ss.zzz"));
}

QString jsonString(const QString &s)
{
    QString out = QStringLiteral("\"");
    for (const QChar c : s) {
        if (c == '"' || c == '\\')
            out += '\\' + QString(c);
        else if (c.unicode() < 0x20)
            out += QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QChar('0'));
        else
            out += c;
    }
    return out + '"';
}

Output::Output(Mode mode, bool hex) : mode_(mode), hex_(hex), terminal_(isatty(STDOUT_FILENO) != 0) {}

void Output::setValues(const std::vector<QString> &labels, const std::vector<int> &stations)
{
    rows_.clear();
    for (size_t i = 0; i < labels.size(); ++i) {
        Row r;
        r.label = labels[i];
        r.station = stations[i];
        rows_.push_back(r);
    }
}

QString Output::formatValue(const Point &point, uint32_t v) const
{
    if (point.area->isBit())
        return QString::number(v);
    const bool wide = point.area->countPerValue() == 2;
    if (hex_)
        return QStringLiteral("0x") + QStringLiteral("%1").arg(v, wide ? 8 : 4, 16, QChar('0')).toUpper();
    QString text = QString::number(v);
    // The same bits read as a signed number, where that differs: -5 written shows as
    // 65531 or 4294967291 on the wire.
    const int64_t asSigned = wide ? int64_t(int32_t(v)) : int64_t(int16_t(v));
    if (asSigned < 0)
        text += QStringLiteral(" (%1)").arg(asSigned);
    return text;
}

void Output::value(size_t row, const Shown &v)
{
    switch (mode_) {
    case Mode::Lines:
        put(stdout,
            QStringLiteral("%1  station %2  %3 = %4").arg(timeStamp()).arg(v.point.station).arg(v.label, v.text));
        break;
    case Mode::Json: {
        // A plain value as it always was; a typed one says its type, its bit, its registers.
        QString extra;
        if (!v.type.isEmpty())
            extra += QStringLiteral(",\"type\":%1").arg(jsonString(v.type));
        if (v.bit >= 0)
            extra += QStringLiteral(",\"bit\":%1").arg(v.bit);
        const QString raw = v.raw.isEmpty() ? QString() : QStringLiteral(",\"raw\":%1").arg(v.raw);
        put(stdout, QStringLiteral("{\"station\":%1,\"item\":%2,\"address\":%3%4,\"value\":%5%6}")
                        .arg(v.point.station)
                        .arg(jsonString(v.point.area->name))
                        .arg(v.point.address)
                        .arg(extra, v.json, raw));
        break;
    }
    case Mode::Watch:
        if (row < rows_.size()) {
            Row &r = rows_[row];
            r.changes += r.known ? 1 : 0;
            r.known = true;
            r.text = v.text;
            r.changedAt = timeStamp();
        }
        dirty_ = true;
        break;
    }
}

void Output::failed(const QString &block, const QString &driverText, const QString &why)
{
    const QString line = QStringLiteral("%1  failed %2: %3").arg(timeStamp(), block, why);
    switch (mode_) {
    case Mode::Json:
        put(stdout, QStringLiteral("{\"error\":%1,\"result\":2}").arg(jsonString(driverText)));
        say(rtuhost::LogPriority::Warning, line);
        break;
    case Mode::Lines:
        say(rtuhost::LogPriority::Warning, line);
        break;
    case Mode::Watch:
        note(QStringLiteral("failed %1: %2").arg(block, why));
        break;
    }
}

void Output::note(const QString &text)
{
    const QString line = QStringLiteral("%1  %2").arg(timeStamp(), text);
    if (mode_ == Mode::Watch) {
        messages_.push_back(line);
        while (messages_.size() > kMessagesShown)
            messages_.pop_front();
        dirty_ = true;
        return;
    }
    if (mode_ == Mode::Json)
        say(rtuhost::LogPriority::Notice, line);
    else
        put(stdout, line);
}

void Output::plain(const QString &text)
{
    if (mode_ == Mode::Watch && lastDraw_ == std::chrono::steady_clock::time_point{}) {
        header_.push_back(text); // settings: shown above the table
        return;
    }
    if (mode_ == Mode::Json)
        say(rtuhost::LogPriority::Info, text);
    else
        put(stdout, text);
}

void Output::refresh(const QString &status, bool force)
{
    if (mode_ != Mode::Watch)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (!force && (!dirty_ || now - lastDraw_ < kRedrawEvery))
        return;
    lastDraw_ = now;
    dirty_ = false;
    QString screen;
    if (terminal_)
        screen += QStringLiteral("\x1b[H\x1b[2J"); // home and clear: the table is redrawn in place
    for (const QString &h : header_)
        screen += h + '\n';
    screen += status + "\n\n";
    screen += QStringLiteral("%1 %2 %3 %4 %5\n")
                  .arg(QStringLiteral("station"), -8)
                  .arg(QStringLiteral("item"), -14)
                  .arg(QStringLiteral("value"), -26)
                  .arg(QStringLiteral("changed"), -13)
                  .arg(QStringLiteral("changes"));
    for (const Row &r : rows_) {
        screen += QStringLiteral("%1 %2 %3 %4 %5\n")
                      .arg(r.station, -8)
                      .arg(r.label, -14)
                      .arg(r.known ? r.text : QStringLiteral("?"), -26)
                      .arg(r.changedAt, -13)
                      .arg(r.changes);
    }
    if (!messages_.empty())
        screen += '\n';
    for (const QString &m : messages_)
        screen += m + '\n';
    fputs(screen.toLocal8Bit().constData(), stdout);
    fflush(stdout);
}

} // namespace rtupoll
