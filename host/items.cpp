#include "rtuplc_host/items.h"

#include <QRegularExpression>
#include <QVector>

#include <algorithm>
#include <limits>

#include "rtuplc_host/line_limits.h"

namespace rtuhost {

namespace {

QString notationName(int base)
{
    return base == 8 ? QStringLiteral("octal") : base == 16 ? QStringLiteral("hexadecimal") : QStringLiteral("decimal");
}

QString rangeText(const Area &a)
{
    return QStringLiteral("%1 has addresses %2..%3 (%4)")
        .arg(a.name, a.lowestText, a.highestText, notationName(a.base));
}

// Checks one address text for `count` units with the driver; on success *address
// holds it.
bool checkAddress(const DriverApi &api, const Area &area, const QString &text, int count, int *address, QString *error)
{
    int addr = 0;
    const int r = api.checkAddrValidity(area.name, text, &addr, count, area.isBit() ? 0 : 1);
    switch (r) {
    case RTUPLC_ADDR_VALID:
        *address = addr;
        return true;
    case RTUPLC_ADDR_UNREADABLE:
        *error = QStringLiteral("\"%1\" is not an address of %2: %3").arg(text, area.name, rangeText(area));
        return false;
    case RTUPLC_ADDR_OUT_OF_RANGE:
        if (addr < area.lowest || addr > area.highest)
            *error = QStringLiteral("%1:%2 is out of range: %3").arg(area.name, text, rangeText(area));
        else if (count <= area.countPerValue())
            *error = QStringLiteral("%1:%2 is refused for a whole value: %3").arg(area.name, text, rangeText(area));
        else
            *error =
                QStringLiteral("%1 from %2 runs past the highest address %3").arg(area.name, text, area.highestText);
        return false;
    case RTUPLC_ADDR_UNKNOWN_AREA:
        *error = QStringLiteral("the driver does not know the area %1").arg(area.name);
        return false;
    case RTUPLC_ADDR_WRONG_USE:
    default:
        *error = QStringLiteral("the driver refuses %1:%2 (result %3)").arg(area.name, text).arg(r);
        return false;
    }
}

} // namespace

Catalogue::Catalogue(const DriverApi &api)
{
    QStringList names;
    api.getRegListByType(0, &names);
    api.getRegListByType(1, &names);
    for (const QString &name : names) {
        QStringList info; // notation, lowest, highest, width code, access code
        api.getRegDiscription(name, &info);
        if (info.size() < 4)
            continue;
        Area a;
        a.name = name;
        const QChar letter = info[0].isEmpty() ? QChar('D') : info[0].back();
        a.base = letter == 'O' ? 8 : letter == 'H' ? 16 : 10;
        a.lowestText = info[1];
        a.highestText = info[2];
        a.lowest = info[1].toInt(nullptr, a.base);
        a.highest = info[2].toInt(nullptr, a.base);
        if (info[3] == QLatin1String("0")) {
            a.kind = Kind::Bit;
        } else if (info[3] == QLatin1String("2")) {
            // The step of one 32-bit word tells a value over two register addresses
            // from a value per address.
            QVector<QString> texts;
            QVector<int> values;
            api.multiCopy(name, a.lowest, 2, -2, &texts, &values);
            a.kind = values.size() == 2 && values[1] - values[0] == 2 ? Kind::DWordOverWords : Kind::DWord;
        } else {
            a.kind = Kind::Word;
        }
        areas_.push_back(a);
    }
}

const Area *Catalogue::find(const QString &name) const
{
    for (const Area &a : areas_) {
        if (a.name == name)
            return &a;
    }
    for (const Area &a : areas_) {
        if (a.name.compare(name, Qt::CaseInsensitive) == 0)
            return &a;
    }
    return nullptr;
}

QStringList Catalogue::names() const
{
    QStringList n;
    for (const Area &a : areas_)
        n << a.name;
    return n;
}

QString blockText(const Area &area, int station, int start, int units)
{
    const int values = std::max(1, units / area.countPerValue());
    const int last = start + (values - 1) * area.step();
    QString text = area.name + ':' + area.format(start);
    if (last != start)
        text += QStringLiteral("..") + area.format(last);
    return text + '@' + QString::number(station);
}

KEY_ADDRESS Item::key() const
{
    KEY_ADDRESS k;
    k.station = station;
    k.regName = area->name;
    k.keyText = text;
    k.startAddr = first;
    k.bitPos = area->isBit() ? -1 : 0;
    k.len = static_cast<int>(points.size()) * area->countPerValue(); // bits, or 16-bit registers
    return k;
}

namespace {

// ":float32:low-first" after an address: the type and the order of its words.
bool parseTypeWords(const QString &words, TypeOptions *o, QString *why)
{
    for (const QString &w : words.split(':', Qt::SkipEmptyParts)) {
        const std::string word = w.toLower().toStdString();
        if (word == "high-first" || word == "low-first") {
            o->wordOrder = word;
            continue;
        }
        bool known = false;
        for (const ValueKind k : {ValueKind::UInt16, ValueKind::Int16, ValueKind::UInt32, ValueKind::Int32,
                                  ValueKind::Float32, ValueKind::Bool, ValueKind::String})
            known = known || word == kindName(k);
        if (!known) {
            *why = QStringLiteral("\"%1\" is not a type (uint16 int16 uint32 int32 float32 bool string) nor an order "
                                  "of words (high-first low-first)")
                       .arg(w);
            return false;
        }
        if (!o->type.empty() && o->type != word) {
            *why = QStringLiteral("the type is given twice: %1 and %2").arg(QString::fromStdString(o->type), w);
            return false;
        }
        o->type = word;
    }
    return true;
}

} // namespace

bool parseItem(const QString &text, int defaultStation, const Catalogue &catalogue, const DriverApi &api, Item *item,
               QString *error, bool broadcast, const TypeOptions &options, std::string *option)
{
    static const QRegularExpression form(QStringLiteral(
        "^([A-Za-z0-9_]+):([0-9A-Za-z]+)(?:\\.\\.([0-9A-Za-z]+)|\\.([0-9]+))?((?::[A-Za-z0-9-]+)*)(?:@([0-9]+))?$"));
    const QRegularExpressionMatch m = form.match(text.trimmed());
    if (!m.hasMatch()) {
        *error = QStringLiteral("\"%1\" is not an item: write AREA:ADDRESS or AREA:FIRST..LAST, e.g. D_W:100..109 "
                                "or X:0..17, optionally followed by :TYPE and @STATION")
                     .arg(text);
        return false;
    }
    const Area *area = catalogue.find(m.captured(1));
    if (area == nullptr) {
        *error = QStringLiteral("\"%1\": unknown area %2 (the areas are %3)")
                     .arg(text, m.captured(1), catalogue.names().join(' '));
        return false;
    }
    Item it;
    it.text = text;
    it.area = area;
    it.station = defaultStation;
    if (!m.captured(6).isEmpty()) {
        it.station = m.captured(6).toInt();
        if ((it.station < kLowestStation && !(broadcast && it.station == kBroadcastStation)) ||
            it.station > kHighestStation) {
            const QString stations = QStringLiteral("%1..%2").arg(kLowestStation).arg(kHighestStation);
            const QString orBroadcast = broadcast ? QStringLiteral(" (or %1, the broadcast)").arg(kBroadcastStation)
                                                  : QString();
            *error = QStringLiteral("\"%1\": station %2 is not %3%4").arg(text, m.captured(6), stations, orBroadcast);
            return false;
        }
    }
    QString why;
    const int one = area->countPerValue();
    if (!checkAddress(api, *area, m.captured(2), one, &it.first, &why)) {
        *error = QStringLiteral("\"%1\": %2").arg(text, why);
        return false;
    }
    it.last = it.first;
    if (!m.captured(3).isEmpty()) {
        if (!checkAddress(api, *area, m.captured(3), one, &it.last, &why)) {
            *error = QStringLiteral("\"%1\": %2").arg(text, why);
            return false;
        }
        if (it.last < it.first) {
            *error = QStringLiteral("\"%1\": the range runs backwards").arg(text);
            return false;
        }
    }
    // The type, from the item's own words and the caller's options; given in both, they must agree.
    TypeOptions o;
    std::string key = "type", reason;
    if (!parseTypeWords(m.captured(5), &o, &why)) {
        *error = QStringLiteral("\"%1\": %2").arg(text, why);
        return false;
    }
    const auto clash = [&](const std::string &mine, const std::string &theirs, const char *what) {
        if (!mine.empty() && !theirs.empty() && mine != theirs) {
            key = what;
            reason = "given twice, " + mine + " in the item and " + theirs;
        }
        return mine.empty() ? theirs : mine;
    };
    const std::string type = clash(o.type, options.type, "type");
    const std::string words = clash(o.wordOrder, options.wordOrder, "word-order");
    o = TypeOptions(options);
    o.type = type;
    o.wordOrder = words;
    o.bit = m.captured(4).isEmpty() ? -1 : std::min(m.captured(4).toInt(), 99);
    const int registers = it.last - it.first + 1;
    if (reason.empty() && resolveType(o, area->kind, area->name.toStdString(), registers, &it.type, &key, &reason))
        key.clear();
    if (!key.empty()) {
        if (option != nullptr)
            *option = key;
        *error = QStringLiteral("\"%1\": %2").arg(text, QString::fromStdString(reason));
        return false;
    }
    // A value over several registers of a 16-bit area is polled a register a point.
    const bool spans = area->kind == Kind::Word && it.type.registers > 1;
    const int step = spans && it.type.kind != ValueKind::String ? it.type.registers : area->step();
    for (int a = it.first; a <= it.last; a += step) {
        for (int r = 0; r < (spans && step > 1 ? step : 1); ++r)
            it.points.push_back(Point{it.station, area, a + r});
    }
    it.last = it.points.back().address;
    // The whole item, checked as the driver will read it.
    const int count = static_cast<int>(it.points.size()) * one;
    int start = 0;
    if (!checkAddress(api, *area, m.captured(2), count, &start, &why)) {
        *error = QStringLiteral("\"%1\": %2").arg(text, why);
        return false;
    }
    *item = it;
    return true;
}

std::vector<ValueSpan> Item::values() const
{
    if (type.kind == ValueKind::String)
        return {ValueSpan{0, int(points.size())}};
    const int n = type.points(area->kind);
    std::vector<ValueSpan> spans;
    for (size_t i = 0; i + size_t(n) <= points.size(); i += size_t(n))
        spans.push_back(ValueSpan{i, n});
    return spans;
}

QString Item::valueLabel(const ValueSpan &value) const
{
    const QString label = points[value.first].label();
    return type.bit >= 0 ? label + '.' + QString::number(type.bit) : label;
}

bool parseInterval(const QString &text, std::chrono::milliseconds *interval, QString *error)
{
    const QString t = text.trimmed();
    int digits = 0;
    while (digits < t.size() && t[digits].isDigit())
        ++digits;
    const QString unit = t.mid(digits);
    bool ok = digits > 0 && digits <= 9;
    const long long n = t.left(digits).toLongLong();
    long long ms = 0;
    if (unit.isEmpty() || unit == QLatin1String("s"))
        ms = n * 1000;
    else if (unit == QLatin1String("ms"))
        ms = n;
    else if (unit == QLatin1String("m"))
        ms = n * 60000;
    else
        ok = false;
    if (!ok || ms <= 0) {
        *error = QStringLiteral("\"%1\" is not a time: a number and its unit, e.g. 500ms, 10s, 2m").arg(text);
        return false;
    }
    *interval = std::chrono::milliseconds(ms);
    return true;
}

bool parseTimedItem(const QString &text, int defaultStation, const Catalogue &catalogue, const DriverApi &api,
                    Item *item, QString *error)
{
    const int slash = text.lastIndexOf('/');
    std::chrono::milliseconds every{0};
    if (slash >= 0 && !parseInterval(text.mid(slash + 1), &every, error)) {
        *error = QStringLiteral("%1: after / comes how often it is read, e.g. %2/10s: %3")
                     .arg(text, text.left(slash), *error);
        return false;
    }
    if (!parseItem(slash >= 0 ? text.left(slash) : text, defaultStation, catalogue, api, item, error))
        return false;
    item->every = every;
    return true;
}

bool parseValue(const QString &text, Kind kind, uint32_t *value, QString *error)
{
    const QString t = text.trimmed();
    bool ok = false;
    qlonglong v = 0;
    if (t.startsWith(QLatin1String("0x"), Qt::CaseInsensitive))
        v = t.mid(2).toLongLong(&ok, 16);
    else
        v = t.toLongLong(&ok, 10);
    qlonglong lo = 0, hi = 1;
    QString what = QStringLiteral("a bit takes 0 or 1");
    if (kind == Kind::Word) {
        lo = std::numeric_limits<int16_t>::min();
        hi = std::numeric_limits<uint16_t>::max();
        what = QStringLiteral("a 16-bit value takes -32768..65535");
    } else if (kind != Kind::Bit) {
        lo = std::numeric_limits<int32_t>::min();
        hi = std::numeric_limits<uint32_t>::max();
        what = QStringLiteral("a 32-bit value takes -2147483648..4294967295");
    }
    if (!ok || v < lo || v > hi) {
        *error = QStringLiteral("\"%1\" is not a value here: %2").arg(text, what);
        return false;
    }
    const uint32_t mask = kind == Kind::Word ? 0xFFFFu : 0xFFFFFFFFu;
    *value = static_cast<uint32_t>(v) & mask;
    return true;
}

std::vector<unsigned char> WriteRequest::bytes() const
{
    if (target.area->isBit())
        return {static_cast<unsigned char>(value ? 1 : 0)};
    std::vector<unsigned char> b; // least significant byte first, as intf_setData takes it
    if (!words.empty()) {
        for (const uint16_t w : words) {
            b.push_back(static_cast<unsigned char>(w & 0xFF));
            b.push_back(static_cast<unsigned char>(w >> 8));
        }
        return b;
    }
    for (int i = 0; i < 2 * count(); ++i)
        b.push_back(static_cast<unsigned char>((value >> (8 * i)) & 0xFF));
    return b;
}

bool WriteRequest::landed(const DriverApi &api) const
{
    const Point &p = target.points.front();
    if (words.empty())
        return readValue(api, p) == value;
    std::vector<unsigned char> out(2 * words.size());
    api.getData(p.station, p.area->name, p.address, int(words.size()), out.data());
    return out == bytes();
}

bool encodeWrite(const QString &text, bool isText, WriteRequest *w, QString *error)
{
    const ValueType &t = w->target.type;
    const Area &area = *w->target.area;
    if (t.plain && !isText)
        return parseValue(text, area.kind, &w->value, error);
    if (t.bit >= 0) {
        *error = QStringLiteral("a bit of a register is not written alone here: write the whole register");
        return false;
    }
    uint16_t words[kMaxStringRegisters] = {};
    std::string why;
    if (!encode(t, text.trimmed().toStdString(), isText, 0, words, &why)) {
        *error = QString::fromStdString(why);
        return false;
    }
    if (area.kind == Kind::Word && t.registers > 1)
        w->words.assign(words, words + t.registers);
    else
        w->value = packWords(words, t.registers);
    return true;
}

bool parseWrite(const QString &text, int defaultStation, const Catalogue &catalogue, const DriverApi &api,
                WriteRequest *write, QString *error)
{
    const int eq = text.indexOf('=');
    if (eq < 0) {
        *error = QStringLiteral("\"%1\" is not a write: write AREA:ADDRESS=VALUE, e.g. D_W:100=1234").arg(text);
        return false;
    }
    WriteRequest w;
    w.text = text;
    if (!parseItem(text.left(eq), defaultStation, catalogue, api, &w.target, error, true))
        return false;
    // A string is the one value a range names.
    if (w.target.values().size() != 1) {
        *error = QStringLiteral("\"%1\": a write names one address").arg(text);
        return false;
    }
    QString why;
    if (!encodeWrite(text.mid(eq + 1), false, &w, &why)) {
        *error = QStringLiteral("\"%1\": %2").arg(text, why);
        return false;
    }
    *write = w;
    return true;
}

namespace {

// A value from what intf_getData gives for it: a byte per bit, two bytes (low first) per
// 16-bit word.
uint32_t decodeValue(const Area &area, const unsigned char *bytes)
{
    if (area.isBit())
        return bytes[0] ? 1 : 0;
    uint32_t v = 0;
    for (int i = 0; i < 2 * area.countPerValue(); ++i)
        v |= uint32_t(bytes[i]) << (8 * i);
    return v;
}

int bytesPerValue(const Area &area)
{
    return area.isBit() ? 1 : 2 * area.countPerValue();
}

} // namespace

uint32_t readValue(const DriverApi &api, const Point &p)
{
    unsigned char out[4] = {};
    api.getData(p.station, p.area->name, p.address, p.area->countPerValue(), out);
    return decodeValue(*p.area, out);
}

bool sideBySide(const Point &point, const Point &next)
{
    return next.station == point.station && next.area == point.area &&
           next.address == point.address + point.area->step();
}

void readValues(const DriverApi &api, const Point *points, size_t n, uint32_t *out)
{
    // A reply's worth at a time: a driver call a value costs more than the copying.
    constexpr size_t kValuesAtOnce = 128;
    unsigned char bytes[kValuesAtOnce * 4] = {};
    for (size_t done = 0; done < n;) {
        const Point &first = points[done];
        const size_t take = std::min(n - done, kValuesAtOnce);
        const int width = bytesPerValue(*first.area);
        api.getData(first.station, first.area->name, first.address, int(take) * first.area->countPerValue(), bytes);
        for (size_t i = 0; i < take; ++i)
            out[done + i] = decodeValue(*first.area, bytes + i * size_t(width));
        done += take;
    }
}

} // namespace rtuhost
