#include "rtuplc_host/recipe.h"

#include <QFile>
#include <QTextStream>

#include <algorithm>

namespace rtuhost {

namespace {

struct CsvLine {
    int number;
    QStringList fields;
};

// The lines of a CSV file that carry data: blank lines and # comments are skipped.
bool readCsv(const QString &path, std::vector<CsvLine> *lines, QString *error)
{
    QFile f(path);
    if (!f.open(QIODevice::ReadOnly | QIODevice::Text)) {
        *error = QStringLiteral("cannot read %1: %2").arg(path, f.errorString());
        return false;
    }
    QTextStream in(&f);
    int number = 0;
    while (!in.atEnd()) {
        const QString line = in.readLine().trimmed();
        ++number;
        if (line.isEmpty() || line.startsWith('#'))
            continue;
        QStringList fields = line.split(',');
        for (QString &s : fields)
            s = s.trimmed();
        lines->push_back(CsvLine{number, fields});
    }
    return true;
}

QString where(const QString &path, int line)
{
    return QStringLiteral("%1 line %2").arg(path).arg(line);
}

} // namespace

int RecipeVariable::units() const
{
    return area->kind == Kind::DWord ? length / 2 : length;
}

int RecipeVariable::words() const
{
    return length; // a bit takes a word, a register a word, a 32-bit value two
}

bool Recipe::load(const QString &path, int defaultStation, const Catalogue &catalogue, const DriverApi &api,
                  QString *error)
{
    defaultStation_ = defaultStation;
    std::vector<CsvLine> lines;
    if (!readCsv(path, &lines, error))
        return false;
    for (const CsvLine &l : lines) {
        const QString at = where(path, l.number);
        bool lenOk = false, offsetOk = false;
        RecipeVariable v;
        if (l.fields.size() == 3) {
            v.length = l.fields[1].toInt(&lenOk);
            v.offset = l.fields[2].toInt(&offsetOk);
        }
        if (!lenOk || !offsetOk) {
            *error = at + QStringLiteral(": write AREA:ADDRESS,LENGTH,OFFSET, e.g. D_W:100,10,0");
            return false;
        }
        Item first;
        if (!parseItem(l.fields[0], defaultStation, catalogue, api, &first, error)) {
            *error = at + ": " + *error;
            return false;
        }
        v.text = l.fields[0];
        v.station = first.station;
        v.area = first.area;
        v.start = first.first;
        const bool dword = v.area->countPerValue() == 2;
        if (v.length < 1 || (dword && v.length % 2 != 0)) {
            *error = at + QStringLiteral(": the length counts %1 and must be %2")
                              .arg(v.area->isBit() ? "bits" : "16-bit registers",
                                   dword ? "even: a 32-bit value takes two" : "at least 1");
            return false;
        }
        if (v.units() > kMaxRecipeVariableUnits) {
            *error =
                at +
                QStringLiteral(": a recipe variable holds at most %1 units; split it").arg(kMaxRecipeVariableUnits);
            return false;
        }
        if (v.offset < 0 || v.offset + v.words() > kRecipeBufferWords) {
            *error = at + QStringLiteral(": the offset must leave the variable inside the recipe buffer of %1 words")
                              .arg(kRecipeBufferWords);
            return false;
        }
        // The whole variable, checked by the driver as it will be transferred.
        const int values = v.area->kind == Kind::DWordOverWords ? v.length / 2 : v.units();
        const int last = v.start + (values - 1) * v.area->step();
        Item whole;
        const QString range = QStringLiteral("%1:%2..%3@%4")
                                  .arg(v.area->name, v.area->format(v.start), v.area->format(last))
                                  .arg(v.station);
        if (!parseItem(range, defaultStation, catalogue, api, &whole, error)) {
            *error = at + ": " + *error;
            return false;
        }
        for (size_t i = 0; i < whole.points.size(); ++i) {
            const int wordsPer = dword ? 2 : 1;
            units_.push_back(RecipeUnit{whole.points[i], v.offset + int(i) * wordsPer, wordsPer});
        }
        variables_.push_back(v);
    }
    if (variables_.empty()) {
        *error = path + QStringLiteral(" holds no recipe variable");
        return false;
    }

    // The driver joins variables that touch into one transfer, read from or written to
    // the buffer from the first one's offset on: they must follow each other there too.
    std::vector<const RecipeVariable *> sorted;
    for (const RecipeVariable &v : variables_)
        sorted.push_back(&v);
    std::stable_sort(sorted.begin(), sorted.end(), [](const RecipeVariable *a, const RecipeVariable *b) {
        return std::make_tuple(a->station, a->area->name, a->start) <
               std::make_tuple(b->station, b->area->name, b->start);
    });
    for (size_t i = 1; i < sorted.size(); ++i) {
        const RecipeVariable &a = *sorted[i - 1], &b = *sorted[i];
        if (a.station != b.station || a.area != b.area)
            continue;
        const int end = a.start + (a.area->kind == Kind::DWord ? a.units() : a.length);
        if (b.start < end) {
            *error = QStringLiteral("%1: recipe variables %2 and %3 overlap").arg(path, a.text, b.text);
            return false;
        }
        if (b.start == end && b.offset != a.offset + a.words()) {
            *error = QStringLiteral("%1: %3 follows %2 in the controller, so the driver moves them as one block: "
                                    "give %3 the offset %4, right after %2 in the buffer")
                         .arg(path, a.text, b.text)
                         .arg(a.offset + a.words());
            return false;
        }
    }
    std::vector<bool> used(kRecipeBufferWords, false);
    for (const RecipeVariable &v : variables_) {
        for (int w = v.offset; w < v.offset + v.words(); ++w) {
            if (used[size_t(w)]) {
                *error = QStringLiteral("%1: %2 shares buffer word %3 with another variable").arg(path, v.text).arg(w);
                return false;
            }
            used[size_t(w)] = true;
        }
    }
    return true;
}

QVector<_RCP_VAR_PRO> Recipe::driverVariables(int driverId) const
{
    QVector<_RCP_VAR_PRO> out;
    for (const RecipeVariable &v : variables_) {
        _RCP_VAR_PRO r;
        r.driverId = driverId;
        r.station = v.station;
        r.regName = v.area->name;
        r.startAddr = v.start;
        r.len = v.length;
        r.rcpOffset = v.offset;
        out.append(r);
    }
    return out;
}

int Recipe::unitOf(const Point &p) const
{
    for (size_t i = 0; i < units_.size(); ++i) {
        const Point &q = units_[i].point;
        if (q.station == p.station && q.area == p.area && q.address == p.address)
            return int(i);
    }
    return -1;
}

QString Recipe::label(const RecipeUnit &u) const
{
    const QString l = u.point.label();
    return u.point.station == defaultStation_ ? l : QStringLiteral("%1@%2").arg(l).arg(u.point.station);
}

bool loadRecipeValues(const QString &path, const Recipe &recipe, int defaultStation, const Catalogue &catalogue,
                      const DriverApi &api, RecipeValues *values, QString *error)
{
    std::vector<CsvLine> lines;
    if (!readCsv(path, &lines, error))
        return false;
    for (const CsvLine &l : lines) {
        const QString at = where(path, l.number);
        Item item;
        if (l.fields.size() != 2) {
            *error = at + QStringLiteral(": write AREA:ADDRESS,VALUE, e.g. D_W:100,1234");
            return false;
        }
        if (!parseItem(l.fields[0], defaultStation, catalogue, api, &item, error)) {
            *error = at + ": " + *error;
            return false;
        }
        const int unit = recipe.unitOf(item.points.front());
        if (item.points.size() != 1 || unit < 0) {
            *error = at + QStringLiteral(": %1 is not a value of the recipe").arg(l.fields[0]);
            return false;
        }
        uint32_t v = 0;
        if (!parseValue(l.fields[1], item.area->kind, &v, error)) {
            *error = at + ": " + *error;
            return false;
        }
        (*values)[unit] = v;
    }
    return true;
}

bool saveRecipeValues(const QString &path, const Recipe &recipe, const RecipeValues &values, QString *error)
{
    QFile f(path);
    if (!f.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text)) {
        *error = QStringLiteral("cannot write %1: %2").arg(path, f.errorString());
        return false;
    }
    QTextStream out(&f);
    for (const auto &entry : values)
        out << recipe.label(recipe.units()[size_t(entry.first)]) << ',' << entry.second << '\n';
    out.flush();
    if (f.error() != QFileDevice::NoError) {
        *error = QStringLiteral("cannot write %1: %2").arg(path, f.errorString());
        return false;
    }
    return true;
}

void putRecipeValues(const Recipe &recipe, const RecipeValues &values, std::vector<unsigned short> &buffer)
{
    for (size_t i = 0; i < recipe.units().size(); ++i) {
        const RecipeUnit &u = recipe.units()[i];
        const auto found = values.find(int(i));
        const uint32_t v = found == values.end() ? 0 : found->second;
        buffer[size_t(u.word)] = static_cast<unsigned short>(v & 0xFFFF);
        if (u.words == 2)
            buffer[size_t(u.word) + 1] = static_cast<unsigned short>(v >> 16);
    }
}

uint32_t recipeValue(const RecipeUnit &unit, const std::vector<unsigned short> &buffer)
{
    uint32_t v = buffer[size_t(unit.word)];
    if (unit.words == 2)
        v |= uint32_t(buffer[size_t(unit.word) + 1]) << 16;
    if (unit.point.area->isBit())
        v = v != 0 ? 1 : 0;
    return v;
}

} // namespace rtuhost
