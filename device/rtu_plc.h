// The controller's register model and Modbus RTU framing.
//
// This header holds the constant tables that describe the controller's 14 register
// areas and the driver's identity strings. They are C++17 inline variables defined
// here, in dependency order, so that every translation unit that includes this header
// before defining the global driver object is guaranteed to see them constructed
// first (the driver's constructor copies REG_LIST), and so that teardown runs in the
// reverse order.
#ifndef RTUPLC_DEVICE_RTU_PLC_H
#define RTUPLC_DEVICE_RTU_PLC_H

#include <QByteArray>
#include <QList>
#include <QString>

#include <cstddef>
#include <cstdint>

#include "rtuplc.h"
#include "rtuplc_link.h"

// One request as the driver queues it and turns it into a frame: a run of units of one
// register area at one station, to read or to write.
struct VARIABLE {
    int32_t reqKind = 0;
    int32_t station = 0;
    QString regName;
    int32_t startAddr = 0;
    int32_t len = 0;
    uint8_t data[RTUPLC_RECORD_DATA_BYTES] = {};

    VARIABLE() = default;
    VARIABLE(const VARIABLE &) = default;
    VARIABLE &operator=(const VARIABLE &) = default;
};

// ---------------------------------------------------------------------------------
// Identity strings. The default device address is the loopback address, so that the
// built-in simulator is what a fresh panel reaches.
inline const QString PROCOTOL_DEFALT_COM_PAR = QStringLiteral("9600,8,EVEN,1");
inline const QString PROCOTOL_DEFALT_IP_PAR = QStringLiteral("127.0.0.1,8000");
inline const QString PROCOTOL_NAME = QStringLiteral("rtu_plc");
inline const QString PROCOTOL_VERSION = QStringLiteral("2.0.0.0");
inline const QString PROCOTOL_PAR_HMI_SET_MODE = QStringLiteral("0_0");

// ---------------------------------------------------------------------------------
// Register areas.
constexpr int REG_COUNT = 14; // the areas of REG_LIST
constexpr int REG_COLUMNS = 7;

inline const QString REG_LIST[REG_COUNT] = {
    QStringLiteral("X"), QStringLiteral("Y"),  QStringLiteral("M"),   QStringLiteral("SM"),  QStringLiteral("S"),
    QStringLiteral("T"), QStringLiteral("C"),  QStringLiteral("32C"), QStringLiteral("CV"),  QStringLiteral("TV"),
    QStringLiteral("Z"), QStringLiteral("SD"), QStringLiteral("D_D"), QStringLiteral("D_W"),
};

// Columns of ADDRESS_RANGE_PRO.
enum AddressRangeColumn {
    COL_NOTATION = 0,    // D decimal, O octal, H hexadecimal; one letter per digit
    COL_LOWEST = 1,      // lowest address, in the notation
    COL_HIGHEST = 2,     // highest address, in the notation
    COL_VALUE_WIDTH = 3, // bits of one value: "1" marks a bit area
    COL_ACCESS = 4,      // "RW", "R" or "W"
    COL_UNIT_WIDTH = 5,  // bits one address step covers on the wire
    COL_PLAIN_NAME = 6,  // "1": name stands alone; "0": prefix plus width suffix
};

#define RTUPLC_ROW(a, b, c, d, e, f, g)                                                                                \
    {                                                                                                                  \
        QStringLiteral(a), QStringLiteral(b), QStringLiteral(c), QStringLiteral(d), QStringLiteral(e),                 \
            QStringLiteral(f), QStringLiteral(g)                                                                       \
    }
inline const QString ADDRESS_RANGE_PRO[REG_COUNT][REG_COLUMNS] = {
    RTUPLC_ROW("OOO", "0", "377", "1", "RW", "1", "1"),     // X
    RTUPLC_ROW("OOO", "0", "377", "1", "RW", "1", "1"),     // Y
    RTUPLC_ROW("DDDD", "0", "1999", "1", "RW", "1", "1"),   // M
    RTUPLC_ROW("DDD", "0", "255", "1", "RW", "1", "1"),     // SM
    RTUPLC_ROW("DDD", "0", "991", "1", "RW", "1", "1"),     // S
    RTUPLC_ROW("DDD", "0", "255", "1", "RW", "1", "1"),     // T
    RTUPLC_ROW("DDD", "0", "255", "1", "RW", "1", "1"),     // C
    RTUPLC_ROW("DDD", "200", "255", "32", "RW", "32", "1"), // 32C
    RTUPLC_ROW("DDD", "0", "199", "16", "RW", "16", "1"),   // CV
    RTUPLC_ROW("DDD", "0", "255", "16", "RW", "16", "1"),   // TV
    RTUPLC_ROW("DD", "0", "15", "16", "RW", "16", "1"),     // Z
    RTUPLC_ROW("DDD", "0", "255", "16", "RW", "16", "1"),   // SD
    RTUPLC_ROW("DDDD", "0", "7998", "32", "RW", "16", "0"), // D_D
    RTUPLC_ROW("DDDD", "0", "7999", "16", "RW", "16", "0"), // D_W
};
#undef RTUPLC_ROW

// Read function class (1 = coils, 3 = holding registers) and the Modbus address of
// each area's address 0. "32C" and "CV" share 9500: CV is 0..199, 32C is 200..255.
inline constexpr int32_t ADDRESS_FUNC[REG_COUNT][2] = {
    {1, 1200}, {1, 0},    {1, 2000}, {1, 4400}, {1, 6000}, {1, 8000}, {1, 9200},
    {3, 9500}, {3, 9500}, {3, 9000}, {3, 8500}, {3, 8000}, {3, 0},    {3, 0},
};

// ---------------------------------------------------------------------------------
// Modbus RTU framing: function codes, the CRC and the size of every reply come from
// rtuplc_link.h, the one place hosts and the driver read them from. The controller
// reads up to RTUPLC_MAX_READ_UNITS units per request; Modbus caps a write at 123
// registers or 1968 coils, and the byte-count byte of a write must hold its data.
constexpr int FRAME_MAX_WRITE_REGISTERS = 122; // keeps 2 x q within the byte-count byte
constexpr int FRAME_MAX_WRITE_COILS = 1968;

// ---------------------------------------------------------------------------------
// The register table, typed. The text tables above stay what the editor reads; every
// rule that depends on an area's kind asks this record instead of comparing texts.

enum class AreaKind {
    Bit,            // one coil per address: X, Y, M, SM, S, T, C
    Word,           // one 16-bit register per address: CV, TV, Z, SD, D_W
    DWordOverWords, // a 32-bit value over two 16-bit addresses, high half first: D_D
    DWordUnit,      // one 32-bit value per address, two registers on the wire: 32C
};

struct RegisterArea {
    QString name;   // as REG_LIST has it, "D_W"
    QString prefix; // the cache's area name: the part before '_', "D"
    AreaKind kind = AreaKind::Word;
    uint8_t readFunction = 0;
    uint8_t writeFunction = 0;
    int base = 0;   // Modbus address of the area's address 0
    int lowest = 0; // address limits, read in the area's notation
    int highest = 0;
    int unitWidth = 16;    // bits one address step covers on the wire
    bool plainName = true; // reported under its own name, not prefix plus "_W"/"_D"

    bool isBit() const { return kind == AreaKind::Bit; }
    // Bytes of a cached value one unit uses: a bit, a register, a 32-bit unit.
    int cacheBytes() const { return kind == AreaKind::Bit ? 1 : kind == AreaKind::DWordUnit ? 4 : 2; }
    // Host lengths of word areas count 16-bit registers; this is how many of the area's
    // units they make (a 32C unit takes two). The widths are 1, 16 and 32, so integer
    // arithmetic is exact where the controller's tooling computes in single precision.
    int64_t unitsOfWords(int64_t words) const { return kind == AreaKind::Bit ? words : words * 16 / unitWidth; }
    // Registers on the wire for `units` units of a word area.
    int64_t registersOfUnits(int64_t units) const { return units * unitWidth / 16; }
};

// Index 0..13 of the name in REG_LIST (exact, case-sensitive), or -1.
int getIndexFromRegName(const QString &name);

// The typed record of area `reg` (0..13), derived once from the text tables.
const RegisterArea &registerArea(int reg);

// Area name under which the data areas of a register are kept: the part before the
// first '_' (D_D and D_W share "D").
QString regPrefixOf(const QString &regName);

// Converts address text in a notation (last letter D, O or H picks base 10, 8, 16).
// Stores 0 into value when the text is not a number in that base. `name` is part of
// the editor's documented signature; every notation of this controller is a run of
// one letter, so the name never changes the conversion.
int a2i(QString text, int &value, QString notation, QString name);

// The device's address offset hook: this controller uses addresses as they are.
int addrOffset(QString name, int addr);

// 1 when `item` must open a new block, 0 when it may join `block`: a different station
// or area, or a gap (switch 0: any gap; switch 1: a gap above maxGap). Blocks and items
// are anything with station, regName, startAddr and len: host keys or merge records.
template <typename Block, typename Item>
int judgeAddrMerge(const Block &block, const Item &item, int gapSwitch, int64_t maxGap)
{
    if (block.station != item.station || block.regName != item.regName)
        return 1;
    // 64-bit: addresses near the ends of int must not overflow into a false join.
    const int64_t gap = int64_t(item.startAddr) - (int64_t(block.startAddr) + int64_t(block.len));
    if (gapSwitch == 0)
        return gap > 0 ? 1 : 0;
    return gap > maxGap ? 1 : 0;
}

// ---------------------------------------------------------------------------------
// Framing. The builders append one FRAME_PRO to `queue`, the frame queue of whoever
// drives the link; they read nothing else.

// Modbus CRC-16 (initial 0xFFFF, reflected polynomial 0xA001); sent low byte first.
unsigned short computate_check(const unsigned char *data, unsigned short len);

// A read frame for the first variable of `vars`: 1 appended, 0 nothing (a broadcast
// station, an unknown area, an empty list).
int getReadFrame(QList<VARIABLE> vars, QList<FRAME_PRO> &queue);
// A write frame for `var`; nothing for an unknown area or a write no frame can carry.
void getWriteFrame(VARIABLE &var, QList<FRAME_PRO> &queue);
// A record that carries no bytes and expects none.
void handShakeFrame(QList<FRAME_PRO> &queue);

// Verdicts of check_rcv_data.
enum ReplyCheck {
    CHECK_REJECTED = 0,
    CHECK_DATA = 1,    // accepted, carrying values to decode
    CHECK_NO_DATA = 2, // accepted, nothing to decode (a write echo, or no reply expected)
};

// Judges `len` reply bytes against `inFlight` by length and CRC alone. `vars` (the
// requests the frame covers) is part of the documented signature and not consulted:
// which request a reply answers is the host's link to tell.
int check_rcv_data(const unsigned char *reply, QList<VARIABLE> vars, int len, const FRAME_PRO &inFlight);

#endif
