// The controller unit: register lookups, address text, the merge decision, Modbus RTU
// request frames and the reply check.
#include "rtu_plc.h"

#include <array>
#include <climits>
#include <cstring>

// ---------------------------------------------------------------------------------
// Register lookups.

namespace {
// A register name packed into one integer: REG_LIST names have at most three
// characters, so length and characters fit 64 bits, and a name of every item of a
// registration or reply is found by comparing integers instead of texts.
uint64_t packName(const QString &name)
{
    if (name.size() > 3)
        return 0;
    uint64_t k = uint64_t(name.size());
    for (int i = 0; i < name.size(); ++i)
        k |= uint64_t(name.at(i).unicode()) << (8 + 16 * i);
    return k;
}

struct PackedRegNames {
    uint64_t key[REG_COUNT];
    PackedRegNames()
    {
        for (int i = 0; i < REG_COUNT; ++i)
            key[i] = packName(REG_LIST[i]);
    }
};
} // namespace

int getIndexFromRegName(const QString &name)
{
    static const PackedRegNames names;
    const uint64_t k = packName(name);
    if (k == 0) // longer than any register name, or empty: none matches
        return -1;
    for (int i = 0; i < REG_COUNT; ++i) {
        if (names.key[i] == k)
            return i;
    }
    return -1;
}

namespace {

AreaKind kindOf(const QString *row)
{
    if (row[COL_VALUE_WIDTH] == QLatin1String("1"))
        return AreaKind::Bit;
    if (row[COL_VALUE_WIDTH] == QLatin1String("32"))
        return row[COL_UNIT_WIDTH] == QLatin1String("16") ? AreaKind::DWordOverWords : AreaKind::DWordUnit;
    return AreaKind::Word;
}

// The table read once at start-up: every frame, decode and write asks it.
struct TypedTable {
    RegisterArea areas[REG_COUNT];
    TypedTable()
    {
        for (int r = 0; r < REG_COUNT; ++r) {
            const QString *row = ADDRESS_RANGE_PRO[r];
            RegisterArea &a = areas[r];
            a.name = REG_LIST[r];
            a.prefix = regPrefixOf(a.name);
            a.kind = kindOf(row);
            const bool coils = ADDRESS_FUNC[r][0] == 1;
            a.readFunction = coils ? FC_READ_COILS : FC_READ_HOLDING;
            a.writeFunction = coils ? FC_WRITE_COILS : FC_WRITE_REGISTERS;
            a.base = ADDRESS_FUNC[r][1];
            a2i(row[COL_LOWEST], a.lowest, row[COL_NOTATION], a.name);
            a2i(row[COL_HIGHEST], a.highest, row[COL_NOTATION], a.name);
            a.unitWidth = row[COL_UNIT_WIDTH].toInt();
            a.plainName = row[COL_PLAIN_NAME].toInt() != 0;
        }
    }
};

} // namespace

const RegisterArea &registerArea(int reg)
{
    static const TypedTable table;
    return table.areas[reg];
}

QString regPrefixOf(const QString &regName)
{
    const int cut = regName.indexOf(QLatin1Char('_'));
    return cut < 0 ? regName : regName.left(cut);
}

int a2i(QString text, int &value, QString notation, QString name)
{
    Q_UNUSED(name);
    int base = 10;
    if (!notation.isEmpty()) {
        const QChar last = notation.at(notation.size() - 1);
        if (last == QLatin1Char('O'))
            base = 8;
        else if (last == QLatin1Char('H'))
            base = 16;
    }
    bool ok = false;
    value = text.toInt(&ok, base);
    return ok ? 1 : -1;
}

int addrOffset(QString name, int addr)
{
    Q_UNUSED(name);
    return addr;
}

// ---------------------------------------------------------------------------------
// CRC.

namespace {
constexpr std::array<uint16_t, 256> makeCrcTable()
{
    std::array<uint16_t, 256> t{};
    for (unsigned b = 0; b < 256; ++b) {
        uint16_t crc = static_cast<uint16_t>(b);
        for (int k = 0; k < 8; ++k)
            crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : static_cast<uint16_t>(crc >> 1);
        t[b] = crc;
    }
    return t;
}
constexpr std::array<uint16_t, 256> kCrcTable = makeCrcTable();
} // namespace

unsigned short computate_check(const unsigned char *data, unsigned short len)
{
    uint16_t crc = 0xFFFF;
    for (unsigned i = 0; i < len; ++i)
        crc = static_cast<uint16_t>((crc >> 8) ^ kCrcTable[(crc ^ data[i]) & 0xFF]);
    return crc;
}

// ---------------------------------------------------------------------------------
// Frames.

namespace {

int clampToInt(int64_t v)
{
    if (v > INT_MAX)
        return INT_MAX;
    if (v < INT_MIN)
        return INT_MIN;
    return static_cast<int>(v);
}

// Writes a 16-bit field high byte first.
void putWord(uint8_t *p, int64_t v)
{
    p[0] = static_cast<uint8_t>((v >> 8) & 0xFF);
    p[1] = static_cast<uint8_t>(v & 0xFF);
}

void appendCrc(FRAME_PRO &f, int len)
{
    const uint16_t crc = computate_check(f.frame, static_cast<unsigned short>(len));
    f.frame[len] = static_cast<uint8_t>(crc & 0xFF);
    f.frame[len + 1] = static_cast<uint8_t>(crc >> 8);
    f.frameLen = len + 2;
}

void copyVariable(FRAME_PRO &f, const VARIABLE &v)
{
    f.reqKind = v.reqKind;
    f.station = v.station;
    f.regName = v.regName;
    f.startAddr = v.startAddr;
    f.len = v.len;
    std::memcpy(f.data, v.data, sizeof f.data);
}

// Request header shared by every function: station, code, address, quantity.
void putHeader(FRAME_PRO &f, int station, uint8_t function, int64_t address, int64_t quantity)
{
    f.frame[0] = static_cast<uint8_t>(station & 0xFF);
    f.frame[1] = function;
    putWord(f.frame + 2, address);
    putWord(f.frame + 4, quantity);
}

constexpr int kWriteHeaderBytes = 7; // header plus the byte-count byte
constexpr int kCrcBytes = 2;
constexpr int kMaxWriteDataBytes = RTUPLC_FRAME_BYTES - kWriteHeaderBytes - kCrcBytes;

} // namespace

// Registers on the wire for `len` units of a word area, held within int.
int wireRegisters(const RegisterArea &area, int len)
{
    return clampToInt(area.registersOfUnits(len));
}

int getReadFrame(QList<VARIABLE> vars, QList<FRAME_PRO> &queue)
{
    if (vars.isEmpty())
        return 0;
    const VARIABLE &v = vars.first();
    if (v.station == 0) // broadcasts are never read: nobody would answer
        return 0;
    const int reg = getIndexFromRegName(v.regName);
    if (reg < 0)
        return 0;

    const RegisterArea &area = registerArea(reg);
    FRAME_PRO f;
    const int64_t address = int64_t(area.base) + v.startAddr;
    if (area.isBit()) {
        // Bits are counted the Modbus way: one coil per address, packed 8 per byte.
        putHeader(f, v.station, area.readFunction, address, v.len);
        f.replyLen = clampToInt(readBitsReplyLen(v.len));
    } else {
        const int q = wireRegisters(area, v.len);
        putHeader(f, v.station, area.readFunction, address, q);
        f.replyLen = clampToInt(readRegistersReplyLen(q));
    }
    appendCrc(f, 6);
    f.dataPos = 3;
    f.dataLen = v.len;
    copyVariable(f, v);
    queue.append(f);
    return 1;
}

void getWriteFrame(VARIABLE &v, QList<FRAME_PRO> &queue)
{
    const int reg = getIndexFromRegName(v.regName);
    if (reg < 0)
        return;

    const RegisterArea &area = registerArea(reg);
    FRAME_PRO f;
    const int64_t address = int64_t(area.base) + v.startAddr;
    int dataBytes = 0;
    if (area.isBit()) {
        const int64_t n = v.len;
        const int64_t c = (n + 7) / 8;
        // The queue and recipe planning keep writes far below this; a record that
        // would overrun the frame or its own data builds nothing rather than garbage.
        if (n < 0 || c > kMaxWriteDataBytes || n > RTUPLC_RECORD_DATA_BYTES)
            return;
        putHeader(f, v.station, area.writeFunction, address, n);
        f.frame[6] = static_cast<uint8_t>(c);
        for (int64_t i = 0; i < c; ++i) {
            const int bitsHere = (i == c - 1 && n % 8 != 0) ? int(n % 8) : 8;
            uint8_t packed = 0;
            for (int j = 0; j < bitsHere; ++j) {
                if (v.data[8 * i + j] != 0)
                    packed = static_cast<uint8_t>(packed | (1u << j));
            }
            f.frame[kWriteHeaderBytes + i] = packed;
        }
        dataBytes = static_cast<int>(c);
    } else {
        const int q = wireRegisters(area, v.len);
        if (q < 0 || 2 * int64_t(q) > kMaxWriteDataBytes)
            return;
        putHeader(f, v.station, area.writeFunction, address, q);
        f.frame[6] = static_cast<uint8_t>((2 * q) & 0xFF);
        uint8_t *out = f.frame + kWriteHeaderBytes;
        if (area.kind == AreaKind::Word) {
            // Each register high byte first; the record holds them low byte first.
            const int words = qMin(qMin(v.len, q), RTUPLC_RECORD_DATA_BYTES / 2);
            for (int i = 0; i < words; ++i) {
                out[2 * i] = v.data[2 * i + 1];
                out[2 * i + 1] = v.data[2 * i];
            }
        } else {
            // A 32-bit value goes most significant byte first, so its high register
            // travels first.
            const int values = qMin(q / 2, RTUPLC_RECORD_DATA_BYTES / 4);
            for (int i = 0; i < values; ++i) {
                out[4 * i] = v.data[4 * i + 3];
                out[4 * i + 1] = v.data[4 * i + 2];
                out[4 * i + 2] = v.data[4 * i + 1];
                out[4 * i + 3] = v.data[4 * i];
            }
        }
        dataBytes = 2 * q;
    }
    appendCrc(f, kWriteHeaderBytes + dataBytes);
    // The controller answers a broadcast with silence, so no reply is expected.
    f.replyLen = v.station != 0 ? WRITE_ECHO_BYTES : 0;
    f.dataPos = 0;
    f.dataLen = 0;
    copyVariable(f, v);
    queue.append(f);
}

void handShakeFrame(QList<FRAME_PRO> &queue)
{
    // Carries no bytes and expects none: the host just gets a turn of its loop.
    queue.append(FRAME_PRO());
}

int check_rcv_data(const unsigned char *reply, QList<VARIABLE> vars, int len, const FRAME_PRO &inFlight)
{
    Q_UNUSED(vars);
    if (len == 0)
        return inFlight.replyLen == 0 ? CHECK_NO_DATA : CHECK_REJECTED;
    // Longer than any frame the CRC routine can take is longer than any reply expected.
    if (len != inFlight.replyLen || len < 2 || len > 0xFFFF || reply == nullptr)
        return CHECK_REJECTED;
    const uint16_t crc = computate_check(reply, static_cast<unsigned short>(len - 2));
    if (reply[len - 1] != (crc >> 8) || reply[len - 2] != (crc & 0xFF))
        return CHECK_REJECTED;
    return inFlight.dataLen != 0 ? CHECK_DATA : CHECK_NO_DATA;
}
