// The value cache: finding and adding data areas, decoding read replies into them,
// the change reports to the host, and the host's reads.
#include "serviceForProtocol.h"

#include <algorithm>
#include <climits>
#include <cstring>

// ---------------------------------------------------------------------------------
// Lookup.

int getIndexOfDataArea(int station, int prefixId, int addr)
{
    QList<_DATA_> &areas = driver.dataAreas;
    const int found = driver.areaIndex.find(areas, station, prefixId, addr);
    if (found >= 0)
        return found;
    _DATA_ area;
    area.station = station;
    area.regPrefix = driver.areaIndex.prefixName(prefixId); // shares the interned text
    area.addr = addr;
    areas.append(area);
    const int index = areas.size() - 1;
    driver.areaIndex.add(areas, station, prefixId, addr, index);
    return index;
}

int getIndexOfDataArea(int station, const QString &name, int addr, QList<_DATA_> &areas)
{
    if (&areas == &driver.dataAreas)
        return getIndexOfDataArea(station, driver.areaIndex.prefixId(name), addr);
    for (int i = 0; i < areas.size(); ++i) {
        const _DATA_ &a = areas.at(i);
        if (a.station == station && a.regPrefix == name && a.addr == addr)
            return i;
    }
    _DATA_ area;
    area.station = station;
    area.regPrefix = name;
    area.addr = addr;
    areas.append(area);
    return areas.size() - 1;
}

// ---------------------------------------------------------------------------------
// Change reports.

namespace {
// What a report needs of an area, copied out before the first callback: a callback
// may call back into the driver and grow the list of areas.
struct AreaReport {
    int flags;
    int station;
    int addr;
    const ItemTexts *texts;
};

bool reportOf(int area, AreaReport &r)
{
    if (area < 0 || area >= driver.dataAreas.size())
        return false;
    const _DATA_ &a = driver.dataAreas.at(area);
    r.flags = a.monitorFlags;
    r.station = a.station;
    r.addr = a.addr;
    r.texts = &driver.areaIndex.texts(driver.areaIndex.prefixId(a.regPrefix));
    return true;
}

void reportUnit(int area, bool word, int plainName)
{
    AreaReport r;
    if (!reportOf(area, r))
        return;
    const ItemTexts &texts = *r.texts; // interned texts never move
    if (plainName != 0) {
        if (r.flags & MON_UNIT)
            notifyHost(driver.driverId, r.station, texts.plain, r.addr);
        return;
    }
    if (r.flags & MON_UNIT)
        notifyHost(driver.driverId, r.station, word ? texts.word : texts.dword, r.addr);
    if (!word)
        return;
    // A double word spans this register and the next, so a changed register concerns
    // the value starting here (bit 1) and the one starting one below (bit 2).
    for (int j = 0; j < 2; ++j) {
        if (int64_t(r.addr) - j < 0)
            break;
        if (r.flags & (1 << (j + 1)))
            notifyHost(driver.driverId, r.station, texts.dword, r.addr - j);
    }
}
} // namespace

void _bitDataChange(int area)
{
    AreaReport r;
    if (!reportOf(area, r) || !(r.flags & MON_UNIT))
        return;
    notifyHost(driver.driverId, r.station, r.texts->plain, r.addr);
}

void _wordDataChange(int *oldValue, int *newValue, int area, int plainName)
{
    Q_UNUSED(oldValue);
    Q_UNUSED(newValue);
    reportUnit(area, true, plainName);
}

void _dwordDataChange(int *oldValue, int *newValue, int area, int plainName)
{
    Q_UNUSED(oldValue);
    Q_UNUSED(newValue);
    reportUnit(area, false, plainName);
}

// ---------------------------------------------------------------------------------
// Decoding.

int uchar2int16(unsigned char lo, unsigned char hi)
{
    return lo + (hi << 8);
}

int uchar2int32(unsigned char b0, unsigned char b1, unsigned char b2, unsigned char b3)
{
    const uint32_t v = uint32_t(b0) | (uint32_t(b1) << 8) | (uint32_t(b2) << 16) | (uint32_t(b3) << 24);
    return static_cast<int>(v);
}

bool analyzeFrameOfVal(const QByteArray &reply, int count, int dataPos, const VARIABLE &var)
{
    const ReplyBytes r{reinterpret_cast<const unsigned char *>(reply.constData()), reply.size()};
    const int reg = getIndexFromRegName(var.regName);
    if (reg < 0)
        return true;
    const RegisterArea &info = registerArea(reg);
    const int pid = driver.areaIndex.prefixOfReg(reg);
    const int plainName = info.plainName ? 1 : 0;
    const uint32_t generation = driver.resetGeneration;
    const auto addrOf = [&](int i) { return static_cast<int>(uint32_t(var.startAddr) + uint32_t(i)); };

    // The block's areas are resolved once, a chunk at a time, before the values are
    // compared: one table for the block, its cells walked in order. A position is
    // used while the list keeps its size and the area still holds the key; once a
    // callback has added areas (or the host changed the list) each unit is looked up
    // again, and a unit with no area yet gets one when its turn comes, so areas are
    // created in the same order as by a lookup per unit.
    constexpr int kChunk = 128;
    int resolved[kChunk];
    int resolvedSize = -1;
    for (int i = 0; i < count; ++i) {
        if (i % kChunk == 0) {
            driver.areaIndex.findRun(driver.dataAreas, var.station, pid, addrOf(i), std::min(kChunk, count - i),
                                     resolved);
            resolvedSize = driver.dataAreas.size();
        }
        int k = resolved[i % kChunk];
        if (k < 0 || driver.dataAreas.size() != resolvedSize ||
            !driver.areaIndex.holds(driver.dataAreas.at(k), var.station, pid, addrOf(i)))
            k = getIndexOfDataArea(var.station, pid, addrOf(i));
        _DATA_ &area = driver.dataAreas[k];
        // Units are decoded by their width on the wire: D_D travels as its registers.
        if (info.kind == AreaKind::Bit) {
            const uint8_t b = (r[dataPos + i / 8] >> (i % 8)) & 1;
            if (area.value[0] == b)
                continue;
            area.value[0] = b;
            area.writePending = 0;
            _bitDataChange(k);
        } else if (info.kind != AreaKind::DWordUnit) {
            const int64_t p = dataPos + 2 * int64_t(i);
            int newValue = uchar2int16(r[p + 1], r[p]);
            int oldValue = uchar2int16(area.value[0], area.value[1]);
            if (oldValue == newValue)
                continue;
            area.value[0] = r[p + 1];
            area.value[1] = r[p];
            area.writePending = 0;
            _wordDataChange(&oldValue, &newValue, k, plainName);
        } else {
            const int64_t p = dataPos + 4 * int64_t(i);
            int newValue = uchar2int32(r[p + 3], r[p + 2], r[p + 1], r[p]);
            int oldValue = uchar2int32(area.value[0], area.value[1], area.value[2], area.value[3]);
            if (oldValue == newValue)
                continue;
            for (int b = 0; b < 4; ++b)
                area.value[b] = r[p + 3 - b];
            area.writePending = 0;
            _dwordDataChange(&oldValue, &newValue, k, plainName);
        }
        if (driver.resetGeneration != generation)
            return false; // a callback restarted the driver: this reply is stale
    }
    return true;
}

// ---------------------------------------------------------------------------------
// Host reads.

namespace {
const uint8_t *visible(const _DATA_ &a)
{
    return a.writePending ? a.writeValue : a.value;
}

} // namespace

extern "C" RTUPLC_EXPORT int intf_getData(int station, QString regName, int addr, int count, unsigned char *out)
{
    return guarded(-1, [&] {
        const int reg = getIndexFromRegName(regName);
        if (reg < 0)
            return RTUPLC_REFUSED;
        if (count <= 0)
            return RTUPLC_OK;
        if (out == nullptr || !hostRangeFits(addr, count))
            return RTUPLC_REFUSED;
        StateLock lock(driver.stateMutex);
        const RegisterArea &info = registerArea(reg);
        const int pid = driver.areaIndex.prefixId(info.prefix);
        const QList<_DATA_> &areas = driver.dataAreas;
        switch (info.kind) {
        case AreaKind::Bit:
            for (int i = 0; i < count; ++i)
                out[i] = visible(areas.at(getIndexOfDataArea(station, pid, addr + i)))[0];
            break;
        case AreaKind::Word:
            for (int i = 0; i < count; ++i) {
                const uint8_t *v = visible(areas.at(getIndexOfDataArea(station, pid, addr + i)));
                out[2 * i] = v[0];
                out[2 * i + 1] = v[1];
            }
            break;
        case AreaKind::DWordOverWords:
            // The register at the higher address is the low half of the value.
            for (int j = 0; j < count / 2; ++j) {
                const _DATA_ &hi = areas.at(getIndexOfDataArea(station, pid, addr + 2 * j + 1));
                const _DATA_ &lo = areas.at(getIndexOfDataArea(station, pid, addr + 2 * j));
                const bool pending = hi.writePending || lo.writePending;
                const uint8_t *h = pending ? hi.writeValue : hi.value;
                const uint8_t *l = pending ? lo.writeValue : lo.value;
                out[4 * j] = h[0];
                out[4 * j + 1] = h[1];
                out[4 * j + 2] = l[0];
                out[4 * j + 3] = l[1];
            }
            break;
        case AreaKind::DWordUnit:
            for (int j = 0; j < count / 2; ++j)
                std::memcpy(out + 4 * j, visible(areas.at(getIndexOfDataArea(station, pid, addr + j))), 4);
            break;
        }
        return RTUPLC_OK;
    });
}
