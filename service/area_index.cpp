// The index of the value cache: where the area of a (station, area name, address) sits
// in the list of data areas.
#include "area_index.h"

int DataAreaIndex::prefixId(const QString &name)
{
    // Areas share the interned text, so the same characters are usually the same
    // storage: try that before comparing characters.
    for (size_t i = 0; i < prefixes_.size(); ++i) {
        if (prefixes_[i].name.constData() == name.constData() && prefixes_[i].name.size() == name.size())
            return static_cast<int>(i);
    }
    for (size_t i = 0; i < prefixes_.size(); ++i) {
        if (prefixes_[i].name == name)
            return static_cast<int>(i);
    }
    Prefix p;
    p.name = name;
    const QString plain = name.split(QLatin1Char('_')).first();
    p.texts.plain = plain;
    p.texts.word = plain + QStringLiteral("_W");
    p.texts.dword = plain + QStringLiteral("_D");
    prefixes_.push_back(p);
    return static_cast<int>(prefixes_.size() - 1);
}

int DataAreaIndex::prefixOfReg(int reg)
{
    if (reg < 0 || reg >= REG_COUNT)
        return -1;
    if (regPrefix_[reg] < 0)
        regPrefix_[reg] = prefixId(registerArea(reg).prefix);
    return regPrefix_[reg];
}

void DataAreaIndex::clear()
{
    tables_.clear();
    nearTables_.clear();
    tableIds_.clear();
    lastTable_ = -1;
    cells_.clear();
    cells_.shrink_to_fit(); // an emptied cache gives its memory back
    far_.clear();
    indexed_ = 0;
}

int DataAreaIndex::tableOf(int station, int prefix, bool create)
{
    if (lastTable_ >= 0) {
        const Table &t = tables_[size_t(lastTable_)];
        if (t.station == station && t.prefix == prefix)
            return lastTable_;
    }
    const bool near = station >= 0 && station < kNearStations && prefix < kNearPrefixes;
    const size_t nearAt = size_t(station) * kNearPrefixes + size_t(prefix);
    const uint64_t key = (uint64_t(uint32_t(station)) << 32) | uint32_t(prefix);
    if (near) {
        if (!nearTables_.empty() && nearTables_[nearAt] >= 0)
            return lastTable_ = nearTables_[nearAt];
    } else {
        const auto it = tableIds_.find(key);
        if (it != tableIds_.end())
            return lastTable_ = it->second;
    }
    if (!create)
        return -1;
    tables_.push_back(Table{station, prefix, {}});
    const int id = static_cast<int>(tables_.size() - 1);
    if (near) {
        if (nearTables_.empty())
            nearTables_.assign(size_t(kNearStations) * kNearPrefixes, -1);
        nearTables_[nearAt] = id;
    } else {
        tableIds_.emplace(key, id);
    }
    return lastTable_ = id;
}

void DataAreaIndex::prefetch(int station, int prefix, int addr)
{
    const int table = tableOf(station, prefix, false);
    if (table < 0 || addr < 0 || addr >= kDirectLimit)
        return;
    const std::vector<int32_t> &pages = tables_[size_t(table)].pages;
    const size_t page = size_t(addr) >> kPageBits;
    if (page < pages.size() && pages[page] >= 0)
        __builtin_prefetch(&cells_[size_t(pages[page]) + (size_t(addr) & (kPageSize - 1))]);
}

int32_t *DataAreaIndex::cell(int table, int addr, bool create)
{
    if (addr < 0 || addr >= kDirectLimit) {
        const uint64_t key = (uint64_t(uint32_t(table)) << 32) | uint32_t(addr);
        const auto it = far_.find(key);
        if (it != far_.end())
            return &it->second;
        return create ? &far_.emplace(key, -1).first->second : nullptr;
    }
    std::vector<int32_t> &pages = tables_[size_t(table)].pages;
    const size_t page = size_t(addr) >> kPageBits;
    if (page >= pages.size()) {
        if (!create)
            return nullptr;
        pages.resize(page + 1, -1);
    }
    if (pages[page] < 0) {
        if (!create)
            return nullptr;
        pages[page] = static_cast<int32_t>(cells_.size());
        cells_.resize(cells_.size() + kPageSize, -1);
    }
    return &cells_[size_t(pages[page]) + (size_t(addr) & (kPageSize - 1))];
}

bool DataAreaIndex::holds(const _DATA_ &a, int station, int prefix, int addr) const
{
    if (a.station != station || a.addr != addr)
        return false;
    const QString &name = prefixName(prefix);
    return (a.regPrefix.constData() == name.constData() && a.regPrefix.size() == name.size()) || a.regPrefix == name;
}

void DataAreaIndex::insert(int station, int prefix, int addr, int index)
{
    int32_t *c = cell(tableOf(station, prefix, true), addr, true);
    if (*c < 0) // keep the first of equal keys
        *c = index;
}

void DataAreaIndex::rebuild(const QList<_DATA_> &areas)
{
    clear();
    for (int i = 0; i < areas.size(); ++i) {
        const _DATA_ &a = areas.at(i);
        insert(a.station, prefixId(a.regPrefix), a.addr, i);
    }
    indexed_ = areas.size();
}

int DataAreaIndex::find(const QList<_DATA_> &areas, int station, int prefix, int addr)
{
    if (indexed_ != areas.size())
        rebuild(areas);
    for (int attempt = 0;; ++attempt) {
        const int table = tableOf(station, prefix, false);
        const int32_t *c = table < 0 ? nullptr : cell(table, addr, false);
        const int index = c ? *c : -1;
        // A host that rewrote an area in place leaves a stale entry behind: check the
        // area itself and rebuild once if it no longer matches.
        if (index < 0 || holds(areas.at(index), station, prefix, addr) || attempt > 0)
            return index;
        rebuild(areas);
    }
}

void DataAreaIndex::findRun(const QList<_DATA_> &areas, int station, int prefix, int start, int count, int *out)
{
    if (indexed_ != areas.size())
        rebuild(areas);
    // First the positions, one table for the whole run; then every area is asked for
    // at once (a block spans pages of memory the processor's prefetcher does not cross,
    // and the fetches overlap), and only then checked.
    const int table = tableOf(station, prefix, false);
    for (int i = 0; i < count; ++i) {
        const int32_t *c = table < 0 ? nullptr : cell(table, static_cast<int>(uint32_t(start) + uint32_t(i)), false);
        out[i] = c ? *c : -1;
    }
    for (int i = 0; i < count; ++i) {
        if (out[i] >= 0)
            __builtin_prefetch(&areas.at(out[i]));
    }
    for (int i = 0; i < count; ++i) {
        if (out[i] >= 0 && !holds(areas.at(out[i]), station, prefix, static_cast<int>(uint32_t(start) + uint32_t(i)))) {
            for (int j = 0; j < count; ++j) // stale: find() rebuilds and looks again
                out[j] = find(areas, station, prefix, static_cast<int>(uint32_t(start) + uint32_t(j)));
            return;
        }
    }
}

void DataAreaIndex::prefetchRun(const QList<_DATA_> &areas, int station, int prefix, int start, int count)
{
    if (indexed_ != areas.size())
        return; // findRun will rebuild first; nothing worth fetching now
    const int table = tableOf(station, prefix, false);
    if (table < 0)
        return;
    for (int i = 0; i < count && i < kPageSize * 4; ++i) {
        const int32_t *c = cell(table, static_cast<int>(uint32_t(start) + uint32_t(i)), false);
        if (c && *c >= 0 && *c < areas.size())
            __builtin_prefetch(&areas.at(*c));
    }
}

void DataAreaIndex::add(const QList<_DATA_> &areas, int station, int prefixId, int addr, int index)
{
    if (indexed_ != index) { // the list changed behind the index: start over
        rebuild(areas);
        return;
    }
    insert(station, prefixId, addr, index);
    indexed_ = index + 1;
}
