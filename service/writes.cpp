// Host writes: queued as write requests, shown in the cache at once, and settled when
// the controller answers.
#include "serviceForProtocol.h"

#include <algorithm>
#include <cstring>

namespace {

int wordAt(const uint8_t *bytes)
{
    return bytes[0] + 256 * bytes[1];
}

const uint8_t *shown(const _DATA_ &a)
{
    return a.writePending ? a.writeValue : a.value;
}

// Puts a write behind the one in flight: a write waiting for the same target is
// replaced, so only the newest value for it is sent.
void enqueueWrite(const VARIABLE &v)
{
    QMutexLocker queueLock(&driver.listMutex);
    QList<VARIABLE> &queue = driver.writeList;
    if (queue.isEmpty()) {
        queue.append(v);
        return;
    }
    for (int i = queue.size() - 1; i >= 1; --i) {
        VARIABLE &q = queue[i];
        if (q.station == v.station && q.startAddr == v.startAddr && q.len == v.len && q.regName == v.regName) {
            q = v;
            return;
        }
    }
    if (queue.size() <= RTUPLC_QUEUE_LAST)
        queue.append(v);
    else
        queue[RTUPLC_QUEUE_LAST] = v;
}

// Shows a 16-bit word written to an area, telling the host first if what it saw
// changes.
void showWord(int station, int pid, int addr, const uint8_t *bytes, int plainName)
{
    const int k = getIndexOfDataArea(station, pid, addr);
    int was = wordAt(shown(driver.dataAreas.at(k)));
    int now = wordAt(bytes);
    if (was != now)
        _wordDataChange(&was, &now, k, plainName);
    const int again = getIndexOfDataArea(station, pid, addr); // the callback may have reset the cache
    _DATA_ &area = driver.dataAreas[again];
    area.writeValue[0] = bytes[0];
    area.writeValue[1] = bytes[1];
    area.writePending = 1;
}

} // namespace

void write_saveDataToArea(int station, const QString &regName, int addr, int count, const unsigned char *data)
{
    const int reg = getIndexFromRegName(regName);
    if (reg < 0 || count <= 0 || data == nullptr)
        return;
    const RegisterArea &info = registerArea(reg);
    const int pid = driver.areaIndex.prefixId(info.prefix);
    const int plainName = info.plainName ? 1 : 0;

    switch (info.kind) {
    case AreaKind::Bit:
        for (int i = 0; i < count; ++i) {
            const int k = getIndexOfDataArea(station, pid, addr + i);
            // A bit written by the host is reported whether or not it is monitored.
            if (shown(driver.dataAreas.at(k))[0] != data[i])
                notifyHost(driver.driverId, station, regName, addr + i);
            _DATA_ &area = driver.dataAreas[getIndexOfDataArea(station, pid, addr + i)];
            area.writeValue[0] = data[i];
            area.writePending = 1;
        }
        break;
    case AreaKind::Word:
        for (int i = 0; i < count; ++i)
            showWord(station, pid, addr + i, data + 2 * i, plainName);
        break;
    case AreaKind::DWordOverWords:
        // The low half of the value goes to the register at the higher address.
        for (int j = 0; j < count / 2; ++j) {
            showWord(station, pid, addr + 2 * j + 1, data + 4 * j, plainName);
            showWord(station, pid, addr + 2 * j, data + 4 * j + 2, plainName);
        }
        break;
    case AreaKind::DWordUnit:
        for (int j = 0; j < count / 2; ++j) {
            const uint8_t *bytes = data + 4 * j;
            const int k = getIndexOfDataArea(station, pid, addr + j);
            const uint8_t *s = shown(driver.dataAreas.at(k));
            int was = uchar2int32(s[0], s[1], s[2], s[3]);
            int now = uchar2int32(bytes[0], bytes[1], bytes[2], bytes[3]);
            if (was != now)
                _dwordDataChange(&was, &now, k, plainName);
            _DATA_ &area = driver.dataAreas[getIndexOfDataArea(station, pid, addr + j)];
            std::memcpy(area.writeValue, bytes, 4);
            area.writePending = 1;
        }
        break;
    }
}

void _write_FailOrSuc(int station, const QString &regName, int startAddr, int len, int ok)
{
    const int reg = getIndexFromRegName(regName);
    if (reg < 0 || len <= 0 || !hostRangeFits(startAddr, len))
        return;
    const RegisterArea &info = registerArea(reg);
    const int pid = driver.areaIndex.prefixId(info.prefix);
    const int plainName = info.plainName ? 1 : 0;
    const bool success = ok == 1;
    const int bytes = info.cacheBytes();

    for (int i = 0; i < len; ++i) {
        const int a = startAddr + i;
        const int k = getIndexOfDataArea(station, pid, a);
        _DATA_ &area = driver.dataAreas[k];
        area.writePending = 0;
        if (success) {
            std::memcpy(area.value, area.writeValue, static_cast<size_t>(bytes));
            continue;
        }
        if (bytes == 1) {
            // The host showed the bit as written; tell it to look again.
            notifyHost(driver.driverId, station, regName, a);
        } else if (bytes == 2) {
            int written = wordAt(area.writeValue);
            int cached = wordAt(area.value);
            _wordDataChange(&written, &cached, k, plainName);
        } else {
            _dwordDataChange(nullptr, nullptr, k, plainName);
        }
    }
}

extern "C" RTUPLC_EXPORT int intf_setData(int station, QString regName, int addr, int count, unsigned char *data,
                                          int reqKind)
{
    return guarded(-1, [&] {
        const int reg = getIndexFromRegName(regName);
        if (reg < 0)
            return driver.localWriteMode != 0 ? RTUPLC_OK : RTUPLC_REFUSED;
        const RegisterArea &info = registerArea(reg);
        const bool bits = info.isBit();
        // A queued write must fit the data of one request; a local write only shows.
        const int maxCount = bits ? RTUPLC_MAX_WRITE_BITS : RTUPLC_MAX_WRITE_WORDS;
        if (driver.localWriteMode == 0 && (count < 0 || count > maxCount))
            return RTUPLC_REFUSED;
        if (count > 0 && (data == nullptr || !hostRangeFits(addr, count)))
            return RTUPLC_REFUSED;

        StateLock lock(driver.stateMutex);
        if (driver.localWriteMode == 0) {
            KEY_ADDRESS key;
            key.station = station;
            key.regName = regName;
            key.startAddr = addr;
            key.len = count;
            key.bitPos = bits ? -1 : 0;
            const int bytesPerUnit = bits ? 1 : 2;
            if (count > 0)
                std::memcpy(key.data, data, static_cast<size_t>(count * bytesPerUnit));
            // Each piece must fit one Modbus write and its byte-count byte.
            const int split = bits ? std::min(splitBits(), FRAME_MAX_WRITE_COILS)
                                   : std::min(splitWords(), FRAME_MAX_WRITE_REGISTERS);
            QList<KEY_ADDRESS> pieces;
            groupingKey(key, split, pieces, 1);

            int lowered = 0; // how far later pieces move down when words become 32-bit units
            for (const KEY_ADDRESS &p : pieces) {
                VARIABLE v;
                v.reqKind = reqKind;
                v.station = p.station;
                v.regName = p.regName;
                v.startAddr = p.startAddr;
                v.len = p.len;
                std::memcpy(v.data, p.data, static_cast<size_t>(std::max(0, p.len * bytesPerUnit)));
                if (!bits) {
                    const int units = static_cast<int>(info.unitsOfWords(p.len));
                    v.startAddr = p.startAddr - lowered;
                    v.len = units;
                    lowered += p.len - units;
                }
                enqueueWrite(v);
            }
        }
        write_saveDataToArea(station, regName, addr, count, data);
        return RTUPLC_OK;
    });
}
