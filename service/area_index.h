// The data areas of the value cache and the index that finds them.
#ifndef RTUPLC_SERVICE_AREA_INDEX_H
#define RTUPLC_SERVICE_AREA_INDEX_H

#include <QList>
#include <QString>

#include <cstdint>
#include <deque>
#include <unordered_map>
#include <vector>

#include "rtu_plc.h"

// One cached unit of controller memory: a bit, a 16-bit register or a 32-bit value.
struct _DATA_ {
    uint8_t writePending = 0;
    int32_t monitorFlags = 0;
    int32_t station = 0;
    QString regPrefix;
    int32_t addr = 0;
    uint8_t value[4] = {};
    uint8_t writeValue[4] = {};
};

// Monitor flag bits of a data area.
enum MonitorFlag {
    MON_UNIT = 1 << 0,     // the unit itself is watched
    MON_DWORD_LO = 1 << 1, // first register of a watched 32-bit value
    MON_DWORD_HI = 1 << 2, // second register of a watched 32-bit value
};

// Texts of the items a change report names for one area name P: P, P_W, P_D, where
// P is the name's part before its first '_'.
struct ItemTexts {
    QString plain, word, dword;
};

// Finds data areas by (station, area name, address). The cache only ever grows by
// appending and is emptied as a whole, so an area's position is stable and the index
// keeps positions. Each (station, area name) has a table of its own addressed directly
// by the unit address, in pages of kPageSize positions: a lookup is two array reads,
// and the areas of a read block are consecutive cells, walked in memory order (a hash
// probe per unit lands anywhere in a large table and misses the processor's cache).
// Addresses no register area has (negative, or past kDirectLimit) go to a small map.
//
// The index notices when dataAreas was changed behind its back (its size differs, or
// a hit names another key) and rebuilds itself, so lookups always give the first
// match, as a scan would.
class DataAreaIndex {
public:
    // Index of the area in `areas`, or -1.
    int find(const QList<_DATA_> &areas, int station, int prefixId, int addr);
    // find() for `count` consecutive addresses from `start` (wrapping like the
    // controller's 32-bit arithmetic), into out[0..count).
    void findRun(const QList<_DATA_> &areas, int station, int prefixId, int start, int count, int *out);
    // Starts fetching the index entry of a key that will be looked up soon.
    void prefetch(int station, int prefixId, int addr);
    // Starts fetching the areas of a run that findRun will be asked for soon.
    void prefetchRun(const QList<_DATA_> &areas, int station, int prefixId, int start, int count);
    // Records that areas[index] holds the key (index is the last element).
    void add(const QList<_DATA_> &areas, int station, int prefixId, int addr, int index);
    void clear();
    // Small id of an area name; names are interned on first sight.
    int prefixId(const QString &name);
    // prefixId of the area name of register `reg` (an index of REG_LIST).
    int prefixOfReg(int reg);
    const QString &prefixName(int id) const { return prefixes_[static_cast<size_t>(id)].name; }
    const ItemTexts &texts(int id) const { return prefixes_[static_cast<size_t>(id)].texts; }
    // True when the area has the key (prefix given as an id).
    bool holds(const _DATA_ &a, int station, int prefix, int addr) const;

private:
    static constexpr int kPageBits = 8;
    static constexpr int kPageSize = 1 << kPageBits;
    static constexpr int kDirectLimit = 1 << 20;
    struct Table {
        int32_t station;
        int32_t prefix;
        std::vector<int32_t> pages; // first cell of each page in cells_, or -1
    };
    int tableOf(int station, int prefix, bool create);
    int32_t *cell(int table, int addr, bool create);
    void rebuild(const QList<_DATA_> &areas);
    void insert(int station, int prefix, int addr, int index);

    std::vector<Table> tables_;
    // (station, prefix) -> tables_ index: directly for the stations a Modbus line has
    // and the first area names, through a map for the rest.
    static constexpr int kNearStations = 256;
    static constexpr int kNearPrefixes = 32;
    std::vector<int32_t> nearTables_;
    std::unordered_map<uint64_t, int> tableIds_;
    int lastTable_ = -1;                        // a block or a screen stays on one table
    std::vector<int32_t> cells_;                // area positions, -1 where none
    std::unordered_map<uint64_t, int32_t> far_; // (table, address) outside the pages
    int indexed_ = 0;                           // number of areas the index describes
    struct Prefix {
        QString name;
        ItemTexts texts;
    };
    // A deque keeps the texts where they are when a name is added, so that a change
    // report may hold a reference to them across the host's callback.
    std::deque<Prefix> prefixes_;
    int regPrefix_[REG_COUNT] = {-1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1, -1};
};

#endif
