// Read planning: merging addresses into read blocks, monitor registration and
// condition reads.
#include "serviceForProtocol.h"

#include <algorithm>
#include <climits>
#include <cmath>

namespace {

constexpr uint32_t kWeightStep = 65535;

int truncToInt(double v)
{
    if (std::isnan(v))
        return 0;
    if (v >= 2147483647.0)
        return INT_MAX;
    if (v <= -2147483648.0)
        return INT_MIN;
    return static_cast<int>(v);
}

// Host lengths of word areas count 16-bit registers; planning turns them into the
// area's units (32C: registers to 32-bit values).
int unitsOfHostLength(int reg, int len)
{
    return truncToInt(static_cast<double>(registerArea(reg).unitsOfWords(len)));
}

// Buffer words one unit takes in a recipe: a bit and a register take one, a 32-bit
// value two.
int recipeWordsPerUnit(int reg)
{
    return registerArea(reg).kind == AreaKind::DWordUnit ? 2 : 1;
}

struct BlockBuilder {
    int mode;
    QList<int> *starts;
    std::vector<MergeItem> out;
    MergeItem cur;
    int64_t origin = 0; // where the current run began; pieces before cur were emitted

    void emit(const MergeItem &b)
    {
        out.push_back(b);
        if (starts)
            starts->append(b.src);
    }

    void cutLong()
    {
        while (cur.len > RTUPLC_MAX_READ_UNITS) {
            MergeItem piece = cur;
            piece.len = RTUPLC_MAX_READ_UNITS;
            emit(piece);
            cur.startAddr += RTUPLC_MAX_READ_UNITS;
            cur.len -= RTUPLC_MAX_READ_UNITS;
            if (mode == MERGE_RECIPE) {
                const int reg = getIndexFromRegName(cur.regName);
                cur.offset += int64_t(RTUPLC_MAX_READ_UNITS) * (reg < 0 ? 1 : recipeWordsPerUnit(reg));
            }
        }
    }

    void open(const MergeItem &item)
    {
        cur = item;
        origin = item.startAddr;
    }

    // First pass: only touching or overlapping items join. An item that starts before
    // the run began (possible only when weights wrap) opens a block of its own, so
    // every address of every item stays inside some block.
    void add(const MergeItem &item)
    {
        cutLong();
        if (judgeAddrMerge(cur, item, 0, 0) == 0 && item.startAddr >= origin) {
            const int64_t span = item.startAddr + item.len - cur.startAddr;
            if (span <= RTUPLC_MAX_READ_UNITS) {
                cur.len = std::max(cur.len, span);
                return;
            }
        }
        emit(cur);
        open(item);
    }

    void finish()
    {
        cutLong();
        emit(cur);
    }
};

// Second pass of monitor planning: bridge gaps up to maxBlockLen within 128 units.
std::vector<MergeItem> bridgeGaps(const std::vector<MergeItem> &blocks)
{
    std::vector<MergeItem> out;
    if (blocks.empty())
        return out;
    MergeItem cur = blocks.front();
    for (size_t i = 1; i < blocks.size(); ++i) {
        const MergeItem &b = blocks[i];
        const int64_t span = b.startAddr + b.len - cur.startAddr;
        if (judgeAddrMerge(cur, b, 1, driver.maxBlockLen) == 0 && b.startAddr >= cur.startAddr &&
            span <= RTUPLC_MAX_READ_UNITS) {
            cur.len = std::max(cur.len, span);
        } else {
            out.push_back(cur);
            cur = b;
        }
    }
    out.push_back(cur);
    return out;
}

// Sorts keys of (weight << 32 | position) by weight, keeping positions in order among
// equal weights: three stable counting passes of 11 bits over the weight, linear in the
// number of items where a comparison sort of 100k items costs several times more.
void sortByWeight(std::vector<uint64_t> &keys)
{
    constexpr int kBits = 11;
    constexpr size_t kBuckets = size_t(1) << kBits;
    std::vector<uint64_t> other(keys.size());
    std::vector<size_t> count(kBuckets);
    for (int shift = 32; shift < 64; shift += kBits) {
        std::fill(count.begin(), count.end(), 0);
        for (const uint64_t k : keys)
            ++count[(k >> shift) & (kBuckets - 1)];
        size_t at = 0;
        for (size_t &c : count) {
            const size_t n = c;
            c = at;
            at += n;
        }
        for (const uint64_t k : keys)
            other[count[(k >> shift) & (kBuckets - 1)]++] = k;
        keys.swap(other);
    }
}

} // namespace

uint32_t getRegAddressWeight(int station, const QString &regName, int startAddr, int len)
{
    Q_UNUSED(len);
    const uint32_t n = static_cast<uint32_t>(driver.regList.size());
    const int p = driver.regList.indexOf(regName);
    return (uint32_t(station) * n + uint32_t(p)) * kWeightStep + uint32_t(startAddr);
}

std::vector<MergeItem> addrMerge(std::vector<MergeItem> items, int mode, QList<int> *starts)
{
    if (items.empty())
        return {};
    const bool recipe = mode == MERGE_RECIPE;
    // Per register, what monitor planning reads it as: D_D and D_W share the D
    // registers and are read together as D_W. One shared text per register, so that
    // no item builds a string of its own.
    static const struct MonitorNames {
        QString name[REG_COUNT];
        MonitorNames()
        {
            for (int i = 0; i < REG_COUNT; ++i) {
                const RegisterArea &area = registerArea(i);
                name[i] = area.name.contains(QLatin1Char('_')) ? area.prefix + QStringLiteral("_W") : area.name;
                const int same = getIndexFromRegName(name[i]);
                if (same >= 0)
                    name[i] = REG_LIST[same]; // items carry REG_LIST's texts: most need no assignment
            }
        }
    } monitorNames;
    // Weight of each register's name in the host-visible register list, looked up once
    // per call instead of once per item (-2: not yet looked up).
    int regWeight[REG_COUNT];
    std::fill(std::begin(regWeight), std::end(regWeight), -2);
    std::vector<uint64_t> order; // weight in the high half, position in the low: sorts stably
    if (!recipe)
        order.reserve(items.size());
    for (size_t i = 0; i < items.size(); ++i) {
        MergeItem &it = items[i];
        const int reg = getIndexFromRegName(it.regName);
        if (reg >= 0)
            it.len = unitsOfHostLength(reg, static_cast<int>(it.len));
        if (recipe)
            continue;
        uint32_t weight;
        if (reg >= 0) {
            const QString &name = monitorNames.name[reg];
            if (it.regName.constData() != name.constData())
                it.regName = name;
            int &p = regWeight[reg];
            if (p == -2)
                p = driver.regList.indexOf(name);
            const uint32_t n = static_cast<uint32_t>(driver.regList.size());
            weight = (uint32_t(it.station) * n + uint32_t(p)) * kWeightStep + uint32_t(int(it.startAddr));
        } else { // unknown areas merge only with their very own name
            weight =
                getRegAddressWeight(it.station, it.regName, static_cast<int>(it.startAddr), static_cast<int>(it.len));
        }
        order.push_back((uint64_t(weight) << 32) | uint64_t(i));
    }
    if (!recipe && items.size() >= 2) {
        sortByWeight(order);
        std::vector<MergeItem> sorted;
        sorted.reserve(items.size());
        for (const uint64_t o : order)
            sorted.push_back(std::move(items[size_t(o & 0xFFFFFFFFu)]));
        items.swap(sorted);
    }

    BlockBuilder builder{mode, starts, {}, {}, 0};
    builder.open(items.front());
    for (size_t i = 1; i < items.size(); ++i)
        builder.add(items[i]);
    builder.finish();
    return recipe ? builder.out : bridgeGaps(builder.out);
}

void addrMerge(QList<KEY_ADDRESS> &keys, int mode)
{
    if (keys.isEmpty())
        return;
    std::vector<MergeItem> items;
    items.reserve(static_cast<size_t>(keys.size()));
    for (int i = 0; i < keys.size(); ++i) {
        const KEY_ADDRESS &k = keys.at(i);
        items.push_back(MergeItem{k.station, k.regName, k.startAddr, k.len, i, k.keyField2});
    }
    const std::vector<MergeItem> blocks =
        addrMerge(std::move(items), mode, mode == MERGE_RECIPE ? &driver.rcpReqStart : nullptr);
    QList<KEY_ADDRESS> result;
    result.reserve(static_cast<int>(blocks.size()));
    for (const MergeItem &b : blocks) {
        KEY_ADDRESS block = keys.at(b.src); // a block carries the fields of its opening item
        block.regName = b.regName;
        block.startAddr = static_cast<int>(b.startAddr);
        block.len = static_cast<int>(b.len);
        block.keyField2 = static_cast<int>(b.offset);
        result.append(block);
    }
    keys.swap(result);
}

void groupingKey(const KEY_ADDRESS &key, int maxLen, QList<KEY_ADDRESS> &out, int copyData)
{
    if (key.len <= maxLen || maxLen <= 0) {
        out.append(key);
        return;
    }
    const int whole = key.len / maxLen;
    const int rest = key.len % maxLen;
    const int pieces = whole + (rest != 0 ? 1 : 0);
    const int bytesPerUnit = key.bitPos == -1 ? 1 : 2;
    for (int j = 0; j < pieces; ++j) {
        KEY_ADDRESS piece = key;
        piece.startAddr = static_cast<int>(uint32_t(key.startAddr) + uint32_t(j) * uint32_t(maxLen));
        piece.len = (j == whole) ? rest : maxLen;
        if (copyData == 1) {
            const int64_t from = int64_t(j) * maxLen * bytesPerUnit;
            const int64_t n = std::min<int64_t>(int64_t(piece.len) * bytesPerUnit, RTUPLC_RECORD_DATA_BYTES - from);
            if (from < RTUPLC_RECORD_DATA_BYTES && n > 0)
                std::copy(key.data + from, key.data + from + n, piece.data);
        }
        out.append(piece);
    }
}

int _setBitValue(int value, int bit, int on)
{
    if (bit < 0 || bit > 31)
        return value;
    const uint32_t mask = 1u << bit;
    const uint32_t v = on ? (uint32_t(value) | mask) : (uint32_t(value) & ~mask);
    return static_cast<int>(v);
}

int _setDataAreaMonitorFlag(int station, const QString &regName, int startAddr, int len)
{
    const int reg = getIndexFromRegName(regName);
    if (reg < 0)
        return -1;
    const RegisterArea &area = registerArea(reg);
    const int pid = driver.areaIndex.prefixOfReg(reg);
    const auto flag = [&](int64_t a, int bit) {
        if (a > INT_MAX || a < INT_MIN)
            return;
        _DATA_ &unit = driver.dataAreas[getIndexOfDataArea(station, pid, static_cast<int>(a))];
        unit.monitorFlags = _setBitValue(unit.monitorFlags, bit, 1);
    };
    const int64_t start = startAddr;
    switch (area.kind) {
    case AreaKind::DWordOverWords: {
        // A 32-bit value over two registers: its first register gets bit 1, the
        // second bit 2.
        const int64_t m = len - len % 2;
        for (int64_t a = start; a < start + m; a += 2) {
            flag(a, 1);
            flag(a + 1, 2);
        }
        break;
    }
    case AreaKind::DWordUnit:
        for (int64_t a = start; a < start + len / 2; ++a)
            flag(a, 0);
        break;
    case AreaKind::Bit:
    case AreaKind::Word:
        for (int64_t a = start; a < start + len; ++a)
            flag(a, 0);
        break;
    }
    return 0;
}

extern "C" {

RTUPLC_EXPORT int intf_addrMerge(QList<KEY_ADDRESS> &list)
{
    return guarded(0, [&] {
        StateLock lock(driver.stateMutex);
        for (int i = 0; i < driver.dataAreas.size(); ++i)
            driver.dataAreas[i].monitorFlags = 0;
        std::vector<MergeItem> items;
        items.reserve(static_cast<size_t>(list.size()));
        for (int i = 0; i < list.size(); ++i) {
            // Each record is a heap node of its own, a kilobyte from the next, and its
            // name another: fetch the record a few ahead, and the name of one whose
            // record has arrived.
            if (i + 8 < list.size()) {
                const char *ahead = reinterpret_cast<const char *>(&list.at(i + 8));
                __builtin_prefetch(ahead);
                __builtin_prefetch(ahead + 63);
            }
            if (i + 4 < list.size()) {
#if QT_VERSION_MAJOR >= 6
                // Qt 6 keeps the characters' address in the string itself.
                __builtin_prefetch(list.at(i + 4).regName.constData());
#else
                __builtin_prefetch(const_cast<QString &>(list.at(i + 4).regName).data_ptr());
#endif
            }
            const KEY_ADDRESS &k = list.at(i);
            if (!hostRangeFits(k.startAddr, std::max(k.len, 0)))
                continue; // no screen shows that many units; flagging them would exhaust memory
            // The table's own text of a known name: the same characters, and no host
            // string is read or shared again from here on.
            const int reg = getIndexFromRegName(k.regName);
            items.push_back(MergeItem{k.station, reg >= 0 ? REG_LIST[reg] : k.regName, k.startAddr, k.len, i, 0});
        }
        // Flags in the host's order (areas are created in that order). Screens list their
        // items in no order of address, so each item's areas are somewhere else in the
        // index: the index of an item a few ahead is fetched while this one is flagged.
        constexpr size_t kAhead = 8;
        for (size_t i = 0; i < items.size(); ++i) {
            if (i + kAhead < items.size()) {
                const MergeItem &next = items[i + kAhead];
                const int reg = getIndexFromRegName(next.regName);
                if (reg >= 0)
                    driver.areaIndex.prefetch(next.station, driver.areaIndex.prefixOfReg(reg),
                                              static_cast<int>(next.startAddr));
            }
            const MergeItem &it = items[i];
            _setDataAreaMonitorFlag(it.station, it.regName, static_cast<int>(it.startAddr), static_cast<int>(it.len));
        }
        driver.monitorList.clear();
        if (items.empty())
            return 0;
        for (const MergeItem &b : addrMerge(std::move(items), MERGE_MONITOR, nullptr)) {
            VARIABLE v;
            v.reqKind = RTUPLC_KIND_MONITOR_READ;
            v.station = b.station;
            v.regName = b.regName;
            v.startAddr = static_cast<int>(b.startAddr);
            v.len = static_cast<int>(b.len);
            driver.monitorList.append(v);
        }
        return int(driver.monitorList.size());
    });
}

RTUPLC_EXPORT int intf_addConditionRead(const KEY_ADDRESS &key, int kind)
{
    return guarded(-1, [&] {
        const int reg = getIndexFromRegName(key.regName);
        if (reg < 0)
            return RTUPLC_REFUSED;
        if (!hostRangeFits(key.startAddr, std::max(key.len, 0)))
            return RTUPLC_REFUSED;
        StateLock lock(driver.stateMutex);
        const int limit = key.bitPos == -1 ? splitBits() : splitWords();
        const int whole = key.len > limit ? key.len / limit : 1;
        const int rest = key.len > limit ? key.len % limit : 0;
        const int pieces = whole + (rest != 0 ? 1 : 0);
        QList<VARIABLE> &queue = driver.conditionList;
        for (int j = 0; j < pieces; ++j) {
            VARIABLE v;
            v.reqKind = kind;
            v.station = key.station;
            v.regName = key.regName;
            v.startAddr = key.startAddr + j * (key.len > limit ? limit : 0);
            const int pieceLen = key.len > limit ? (j == whole ? rest : limit) : key.len;
            // Sized like the monitored path: bits stay bits, 32C registers become values.
            v.len = unitsOfHostLength(reg, pieceLen);

            // Index 0 may be in flight and is never replaced.
            int found = -1;
            for (int i = queue.size() - 1; i >= 1; --i) {
                const VARIABLE &q = queue.at(i);
                if (q.station == v.station && q.startAddr == v.startAddr && q.len == v.len && q.regName == v.regName) {
                    found = i;
                    break;
                }
            }
            if (found >= 0)
                queue[found] = v;
            else if (queue.size() > RTUPLC_QUEUE_LAST)
                queue[RTUPLC_QUEUE_LAST] = v;
            else
                queue.append(v);
            driver.lastCondVar = v;
        }
        return RTUPLC_OK;
    });
}

} // extern "C"
