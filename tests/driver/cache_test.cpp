// The value cache: change reports, decoding replies into data areas, host reads.
#include "driver_fixture.h"

#include <functional>

using namespace testing_support;

namespace {

class Cache : public DriverTest {
protected:
    void decode(const VARIABLE &v, const QByteArray &reply)
    {
        const int dataPos = 3;
        analyzeFrameOfVal(reply, v.len, dataPos, v);
    }
};

TEST_F(Cache, ChangeReportTable)
{
    enum Kind { Bit, Word, Dword };
    struct Row {
        const char *prefix;
        int addr, flags, plainName;
        Kind kind;
        QStringList expected;
    } rows[] = {
        // clang-format off
        {"D", 10, 1, 0, Word, {"1/1/D_W/10"}},
        {"D", 0, 6, 0, Word, {"1/1/D_D/0"}},
        {"D", 5, 6, 0, Word, {"1/1/D_D/5", "1/1/D_D/4"}},
        {"D", 5, 7, 0, Word, {"1/1/D_W/5", "1/1/D_D/5", "1/1/D_D/4"}},
        {"D", 5, 4, 0, Word, {"1/1/D_D/4"}},
        {"CV", 3, 1, 1, Word, {"1/1/CV/3"}},
        {"CV", 3, 6, 1, Word, {}},
        {"CV", 3, 0, 1, Word, {}},
        {"Y", 9, 1, 1, Bit, {"1/1/Y/9"}},
        {"Y", 9, 0, 1, Bit, {}},
        {"32C", 200, 1, 1, Dword, {"1/1/32C/200"}},
        {"D", 8, 7, 0, Dword, {"1/1/D_D/8"}},
        // clang-format on
    };
    for (const Row &r : rows) {
        restart("1#0#0#3#64");
        const int k = getIndexOfDataArea(1, r.prefix, r.addr, driver.dataAreas);
        driver.dataAreas[k].monitorFlags = r.flags;
        int a = 0, b = 1;
        if (r.kind == Bit)
            _bitDataChange(k);
        else if (r.kind == Word)
            _wordDataChange(&a, &b, k, r.plainName);
        else
            _dwordDataChange(nullptr, nullptr, k, r.plainName);
        EXPECT_EQ(reports(), r.expected) << r.prefix << r.addr << " flags " << r.flags;
    }
}

TEST_F(Cache, RepliesDecodeIntoAreasAndReportChanges)
{
    const struct Row {
        const char *what;
        KEY_ADDRESS key;
        VARIABLE var;
        QByteArray reply;
        QStringList expected;
        const char *reg;
        int count, bytes;
        const char *read;
    } rows[] = {
        // clang-format off
        {"words, low byte first", key(1, "D_W", 10, 2), variable(1, "D_W", 10, 2), registersReply(1, {0x1234, 5}),
         {"1/1/D_W/10", "1/1/D_W/11"}, "D_W", 2, 4, "34120500"},
        {"counters", key(1, "32C", 200, 2), variable(1, "32C", 200, 1), withCrc(hex("01030400010002")),
         {"1/1/32C/200"}, "32C", 2, 4, "02000100"},
        // Both registers of the value report it: from its first register and its second.
        {"double words over two registers", key(1, "D_D", 20, 2), variable(1, "D_W", 20, 2),
         registersReply(1, {1, 2}), {"1/1/D_D/20", "1/1/D_D/20"}, "D_D", 2, 4, "02000100"},
        {"bits, least significant first", key(1, "X", 0, 10, -1), variable(1, "X", 0, 10),
         withCrc(hex("0101020502")), {"1/1/X/0", "1/1/X/2", "1/1/X/9"}, "X", 10, 10, "01000100000000000001"},
        {"unknown area", key(1, "D_W", 0, 1), variable(1, "Q", 0, 1), registersReply(1, {7}), {}, nullptr, 0, 0, ""},
        // clang-format on
    };
    for (const Row &r : rows) {
        restart("1#0#0#3#64");
        monitor({r.key});
        const int areas = driver.dataAreas.size();
        decode(r.var, r.reply);
        EXPECT_EQ(reports(), r.expected) << r.what;
        if (r.reg)
            EXPECT_EQ(read(1, r.reg, r.var.startAddr, r.count, r.bytes).toHex(), QByteArray(r.read)) << r.what;
        else
            EXPECT_EQ(driver.dataAreas.size(), areas) << r.what;
    }

    // An unchanged value leaves a pending write alone; a changed one settles what the
    // screen shows.
    restart("1#0#0#3#64");
    monitor({key(1, "D_W", 10, 2)});
    decode(variable(1, "D_W", 10, 2), registersReply(1, {0x1234, 5}));
    area(1, "D", 10).writePending = 1;
    decode(variable(1, "D_W", 10, 2), registersReply(1, {0x1234, 5}));
    EXPECT_EQ(area(1, "D", 10).writePending, 1);
    decode(variable(1, "D_W", 10, 2), registersReply(1, {0x1235, 5}));
    EXPECT_EQ(area(1, "D", 10).writePending, 0);
}

TEST_F(Cache, HostReadsTable)
{
    struct Row {
        const char *reg;
        int addr, count, bytes;
        const char *expected;
        int result;
    } const rows[] = {
        // clang-format off
        {"D_W", 100, 1, 3, "01005a", 1},
        {"D_D", 100, 2, 5, "020001005a", 1},    // higher register first: low half of the value
        {"D_D", 100, 3, 5, "020001005a", 1},    // an odd last word is ignored
        {"32C", 200, 4, 9, "78563412000000805a", 1},
        {"X", 8, 3, 4, "0100015a", 1},
        {"D", 100, 1, 2, "5a5a", -1},
        {"D_W", 100, 0, 2, "5a5a", 1},
        // clang-format on
    };
    const struct {
        const char *prefix;
        int addr, byte, value;
    } held[] = {// clang-format off
        {"D", 100, 0, 0x01},   {"D", 101, 0, 0x02},   {"32C", 200, 0, 0x78}, {"32C", 200, 1, 0x56}, {"32C", 200, 2, 0x34},
        {"32C", 200, 3, 0x12}, {"32C", 201, 3, 0x80}, {"X", 8, 0, 1},        {"X", 10, 0, 1}};
    for (const auto &h : held)
        area(1, h.prefix, h.addr).value[h.byte] = uint8_t(h.value);
    for (const Row &r : rows) {
        QByteArray out(r.bytes, char(0x5A));
        EXPECT_EQ(intf_getData(1, r.reg, r.addr, r.count, reinterpret_cast<unsigned char *>(out.data())), r.result)
            << r.reg;
        EXPECT_EQ(out.toHex(), QByteArray(r.expected)) << r.reg << " " << r.addr << " count " << r.count;
    }
}

TEST_F(Cache, PendingWriteShowsUntilSettledAndReadsCreateAreas)
{
    area(1, "D", 100).value[0] = 0x34;
    area(1, "D", 100).value[1] = 0x12;
    unsigned char w[2] = {0x78, 0x56};
    intf_setData(1, "D_W", 100, 1, w, 2);
    EXPECT_EQ(read(1, "D_W", 100, 1, 2).toHex(), QByteArray("7856"));
    // A pending write on either register shows both from what was written.
    area(1, "D", 101).value[0] = 0x11;
    EXPECT_EQ(read(1, "D_D", 100, 2, 4).toHex(), QByteArray("00007856"));

    const int before = driver.dataAreas.size();
    EXPECT_EQ(read(1, "D_W", 500, 2, 4).toHex(), QByteArray("00000000"));
    EXPECT_EQ(driver.dataAreas.size(), before + 2);
    EXPECT_EQ(read(2, "D_W", 500, 1, 2).toHex(), QByteArray("0000"));
    EXPECT_EQ(driver.dataAreas.size(), before + 3) << "stations have areas of their own";
}

TEST_F(Cache, IndexFollowsTheListWhenTheHostEditsItAndScansOtherLists)
{
    getIndexOfDataArea(1, "D", 5, driver.dataAreas);
    const int b = getIndexOfDataArea(1, "D", 6, driver.dataAreas);
    driver.dataAreas.removeFirst(); // behind the driver's back
    EXPECT_EQ(getIndexOfDataArea(1, "D", 6, driver.dataAreas), b - 1);
    QList<_DATA_> other;
    EXPECT_EQ(getIndexOfDataArea(3, "X", 1, other), 0);
    EXPECT_EQ(getIndexOfDataArea(3, "X", 1, other), 0);
    EXPECT_EQ(other.size(), 1);
}

// A callback that makes the screen read an address nobody has read yet: the list of
// areas grows while a reply is being decoded.
void reportAndReadNewAddress(int id, int station, QString &item, int addr)
{
    recordReport(id, station, item, addr);
    unsigned char out[2];
    intf_getData(station, QStringLiteral("D_W"), 1000 + addr, 1, out);
}

// A polled block lands in the right areas however the cache changed since it was
// registered: areas added by screens, writes and other reads, a restart, or a host
// that edited the list behind the driver's back.
TEST_F(Cache, PolledBlockFindsItsAreasAfterTheCacheChanged)
{
    const auto unit = [](int addr) {
        for (int i = 0; i < driver.dataAreas.size(); ++i) { // first match, as a scan finds it
            const _DATA_ &a = driver.dataAreas.at(i);
            if (a.station == 1 && a.regPrefix == QLatin1String("D") && a.addr == addr)
                return i;
        }
        return -1;
        // clang-format on
    };
    const QStringList all = {"1/1/D_W/10", "1/1/D_W/11", "1/1/D_W/12", "1/1/D_W/13"};
    struct Row {
        const char *what;
        std::function<void()> change;
        QStringList expected; // reports of the second poll
    } rows[] = {
        // clang-format off
        {"nothing", [] {}, all},
        {"screen reads new addresses", [] { read(1, "D_W", 100, 3, 6); }, all},
        {"local writes, old and new", [] {
             unsigned char w[2] = {9, 9};
             intf_setData(1, "D_W", 12, 1, w, 2);
             intf_setData(1, "D_W", 300, 1, w, 2);
         }, all},
        {"another read decoded", [] {
             analyzeFrameOfVal(registersReply(1, {7, 7}), 2, 3, variable(1, "D_W", 500, 2, RTUPLC_KIND_CONDITION_READ));
         }, all},
        {"restart and register again", [] {
             intf_initProperty(nullptr, 0, nullptr, nullptr, "1#1#0#3#64", nullptr);
             monitor({key(1, "D_W", 10, 4)});
         }, all},
        {"host empties the list", [] { driver.dataAreas.clear(); }, {}},
        {"host removes the first area", [] { driver.dataAreas.removeFirst(); },
         {"1/1/D_W/11", "1/1/D_W/12", "1/1/D_W/13"}},
        {"host rekeys an area", [&] { driver.dataAreas[unit(11)].addr = 99; },
         {"1/1/D_W/10", "1/1/D_W/12", "1/1/D_W/13"}},
        {"callback grows the list", [] { intf_setAddrValueChangeCallBack(reportAndReadNewAddress); }, all},
        // clang-format on
    };
    for (const Row &r : rows) {
        restart("1#1#0#3#64"); // local writes: nothing but the block goes out
        monitor({key(1, "D_W", 10, 4)});
        ASSERT_EQ(exchange(registersReply(1, {1, 2, 3, 4})), 1);
        r.change();
        reports().clear();
        ASSERT_EQ(exchange(registersReply(1, {5, 6, 7, 8})), 1) << r.what;
        EXPECT_EQ(reports().filter("D_W/1"), r.expected) << r.what;
        for (int a = 10; a < 14; ++a) {
            ASSERT_GE(unit(a), 0) << r.what << " " << a;
            EXPECT_EQ(driver.dataAreas.at(unit(a)).value[0], 5 + a - 10) << r.what << " " << a;
            EXPECT_EQ(driver.dataAreas.at(unit(a)).writePending, 0) << r.what << " " << a;
        }
        EXPECT_EQ(read(1, "D_W", 10, 4, 8).toHex(), QByteArray("0500060007000800")) << r.what;
    }
}

} // namespace
