// Replies of every shape to every kind of request: monitor reads of any register
// area, writes, condition reads, recipe downloads and uploads, with the host calling
// in between. The first bytes set the traffic up, the rest answer the frames.
//
// Input: what, area, recipe area, station, start (2 bytes), len, tuning, second area,
// second start (2 bytes), second len, recipe offset (2 bytes), then one op byte per
// pass of the host loop (see fuzz::ReplyMode) with the bytes that op reads.
#include "harness.h"

#include <QVector>

namespace {

enum Traffic {
    T_MONITOR = 0x01,
    T_WRITE = 0x02,
    T_CONDITION = 0x04,
    T_DOWNLOAD = 0x08,
    T_UPLOAD = 0x10,
    T_HANDSHAKE = 0x20,
    T_CALLBACK = 0x40,
    T_REENTER = 0x80, // the callback reads the item it is told about
};

int callbacks = 0;
bool reenter = false;

void onChange(int, int station, QString &item, int addr)
{
    ++callbacks;
    if (!reenter)
        return;
    static int depth = 0;
    if (depth > 0)
        return;
    ++depth;
    unsigned char out[16];
    intf_getData(station, item, addr, 2, out); // two words: one 32-bit value at most
    --depth;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz::Input in(data, size);
    const uint8_t what = in.u8();
    fuzz::Scenario sc;
    sc.area = in.u8() % REG_COUNT;
    const int rcpArea = in.u8() % REG_COUNT;
    static const int kStations[] = {1, 2, 0, 247, 255, 256, -1, 1};
    sc.station = kStations[in.u8() % 8];
    sc.start = in.u16();
    sc.len = in.u8();
    const uint8_t tune = in.u8(); // bits 0-1 retries, 2-4 maxBlockLen, 5 handshake, 7 local writes
    static const int kBlocks[] = {64, 8, 1, 0, -1, 128, 200, 3};
    sc.properties =
        QStringLiteral("1#%1#0#%2#%3").arg(tune >> 7).arg(tune & 3).arg(kBlocks[(tune >> 2) & 7]).toLatin1();
    fuzz::restart(sc.properties.constData());
    callbacks = 0;
    reenter = (what & T_REENTER) != 0;
    intf_setAddrValueChangeCallBack((what & (T_CALLBACK | T_REENTER)) ? onChange : nullptr);

    const int area2 = in.u8() % REG_COUNT;
    const int start2 = in.u16();
    const int len2 = in.u8();
    const int offset = in.u16();
    const QString name = REG_LIST[sc.area];
    const bool bits = registerArea(sc.area).isBit();

    if (what & T_MONITOR) {
        QList<KEY_ADDRESS> keys;
        KEY_ADDRESS k;
        k.station = sc.station;
        k.regName = name;
        k.startAddr = sc.start;
        k.len = sc.len;
        keys.append(k);
        k.regName = REG_LIST[area2];
        k.startAddr = start2;
        k.len = len2;
        keys.append(k);
        intf_addrMerge(keys);
    }
    if (what & T_WRITE) {
        unsigned char values[2 * RTUPLC_RECORD_DATA_BYTES];
        for (size_t i = 0; i < sizeof values; ++i)
            values[i] = static_cast<unsigned char>(i * 37 + 11);
        intf_setData(sc.station, name, sc.start, sc.len, values, RTUPLC_KIND_WRITE);
        intf_setData(sc.station, REG_LIST[area2], start2, len2 % 16, values + 5, RTUPLC_KIND_WRITE);
    }
    if (what & T_CONDITION) {
        KEY_ADDRESS k;
        k.station = sc.station;
        k.regName = name;
        k.startAddr = sc.start;
        k.len = sc.len;
        k.bitPos = bits ? -1 : 0;
        intf_addConditionRead(k, RTUPLC_KIND_CONDITION_READ);
    }
    if (what & (T_DOWNLOAD | T_UPLOAD)) {
        fuzz::Host &h = fuzz::host();
        QVector<_RCP_VAR_PRO> vars(2);
        for (_RCP_VAR_PRO &v : vars) {
            v.driverId = driver.driverId;
            v.station = sc.station;
            v.regName = REG_LIST[rcpArea];
        }
        vars[0].startAddr = sc.start;
        vars[0].len = sc.len;
        vars[0].rcpOffset = offset;
        vars[1].startAddr = sc.start + sc.len;
        vars[1].len = len2;
        vars[1].rcpOffset = offset + sc.len * 2;
        fuzz::setRecipe(vars);
        h.memory[RTUPLC_RCP_DOWNLOAD_BYTE] = (what & T_DOWNLOAD) ? 1 : 0;
        h.memory[RTUPLC_RCP_UPLOAD_BYTE] = (what & T_UPLOAD) ? 1 : 0;
    }
    if ((what & T_HANDSHAKE) && (tune & 0x20))
        driver.handshakeFlag = 1; // only the host sets it; a restart clears it

    fuzz::Loop loop(sc);
    loop.run(in, 32);
    fuzz::finish();
    return 0;
}
