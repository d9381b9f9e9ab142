// Host writes: queueing, splitting, the cache shown ahead of the reply, and settling.
#include "driver_fixture.h"

using namespace testing_support;

namespace {

class Writes : public DriverTest {
protected:
    static QString queue()
    {
        QStringList out;
        for (const VARIABLE &v : driver.writeList)
            out << QStringLiteral("%1:%2+%3").arg(v.regName).arg(v.startAddr).arg(v.len);
        return out.join(' ');
    }
    int write(const char *reg, int addr, std::vector<uint8_t> data, int count = -1, int station = 1)
    {
        return intf_setData(station, reg, addr, count < 0 ? int(data.size()) : count, data.data(), RTUPLC_KIND_WRITE);
    }
};

// The value is shown at once, the value read is kept for a failed write to fall back
// to; a waiting write to the same target is replaced, the head (maybe in flight) never;
// past 513 entries new writes recycle the last one.
TEST_F(Writes, QueueingReplacingAndTheCap)
{
    EXPECT_EQ(write("D_W", 10, {0x34, 0x12}, 1), 1);
    EXPECT_EQ(driver.writeList.first().reqKind, RTUPLC_KIND_WRITE);
    EXPECT_EQ(area(1, "D", 10).writePending, 1);
    EXPECT_EQ(area(1, "D", 10).writeValue[1], 0x12);
    EXPECT_EQ(area(1, "D", 10).value[1], 0x00);
    write("D_W", 10, {2, 0}, 1);
    write("D_W", 10, {3, 0}, 1);
    write("D_W", 11, {4, 0}, 1);
    write("D_W", 10, {5, 0, 6, 0}, 2); // a different length is a different target
    EXPECT_EQ(queue(), "D_W:10+1 D_W:10+1 D_W:11+1 D_W:10+2");
    EXPECT_EQ(driver.writeList[0].data[0], 0x34);
    EXPECT_EQ(driver.writeList[1].data[0], 3);
    for (int i = 0; i < 520; ++i)
        write("D_W", 100 + i, {1, 0}, 1);
    EXPECT_EQ(driver.writeList.size(), 513);
    EXPECT_EQ(driver.writeList[512].startAddr, 619);
}

// Each piece carries its own data: the first byte of the last piece is checked.
TEST_F(Writes, SplittingTable)
{
    struct Row {
        const char *properties, *reg;
        int addr, count;
        const char *queue;
        int lastFirstByte;
    } rows[] = {
        // clang-format off
        {"1#0#0#3#64", "32C", 200, 4, "32C:200+2", 0},
        {"1#0#0#3#4", "32C", 200, 10, "32C:200+2 32C:202+2 32C:204+1", 16},
        {"1#0#0#3#4", "D_W", 0, 10, "D_W:0+4 D_W:4+4 D_W:8+2", 16},
        {"1#0#0#3#4", "D_D", 0, 8, "D_D:0+4 D_D:4+4", 8},
        {"1#0#0#3#1", "M", 0, 20, "M:0+8 M:8+8 M:16+4", 16},
        {"1#0#0#3#-4", "D_W", 0, 100, "D_W:0+64 D_W:64+36", 128},
        {"1#0#0#3#0", "X", 0, 600, "X:0+512 X:512+88", 0},
        {"1#0#0#3#500", "D_W", 0, 512, "D_W:0+122 D_W:122+122 D_W:244+122 D_W:366+122 D_W:488+24", 208},
        {"1#0#0#3#500", "X", 0, 1024, "X:0+1024", 0},
        {"1#0#0#3#64", "D_W", 0, 0, "D_W:0+0", 0},
        // clang-format on
    };
    for (const Row &r : rows) {
        restart(r.properties);
        std::vector<uint8_t> data(2048);
        for (size_t i = 0; i < data.size(); ++i)
            data[i] = uint8_t(i);
        EXPECT_EQ(intf_setData(1, r.reg, r.addr, r.count, data.data(), 2), 1);
        EXPECT_EQ(queue(), r.queue) << r.properties << " " << r.reg << " " << r.count;
        EXPECT_EQ(driver.writeList.last().data[0], r.lastFirstByte) << r.properties << " " << r.reg;
    }
}

TEST_F(Writes, LocalWriteModeOnlyShows)
{
    restart("1#1#0#3#64");
    EXPECT_EQ(write("D_W", 10, {0x34, 0x12}, 1), 1);
    EXPECT_TRUE(driver.writeList.isEmpty());
    EXPECT_EQ(area(1, "D", 10).writePending, 1);
    EXPECT_EQ(read(1, "D_W", 10, 1, 2).toHex(), QByteArray("3412"));
    EXPECT_EQ(write("D", 10, {1, 2}, 1), 1) << "an unknown area is ignored";
    std::vector<uint8_t> many(2000, 7);
    EXPECT_EQ(write("D_W", 0, many, 1000), 1) << "nothing is queued, so no request limits the count";
    EXPECT_EQ(intf_setData(1, "D_W", 0, -1, many.data(), 2), 1);
    EXPECT_EQ(read(1, "D_W", 999, 1, 2).toHex(), QByteArray("0707"));
}

TEST_F(Writes, NoticesGoOutBeforeTheCacheChanges)
{
    monitor({key(1, "D_W", 10, 1), key(1, "D_D", 20, 2), key(1, "32C", 200, 2), key(1, "CV", 3, 1)});
    static QString seen;
    intf_setAddrValueChangeCallBack([](int, int, QString &item, int addr) {
        recordReport(1, 1, item, addr);
        seen += read(1, "D_W", addr, 1, 2).toHex() + " ";
    });
    struct Row {
        const char *reg;
        int addr, count;
        std::vector<uint8_t> data;
        QStringList reports;
    } rows[] = {
        // clang-format off
        {"D_W", 10, 1, {0x34, 0x12}, {"1/1/D_W/10"}},
        {"D_W", 10, 1, {0x34, 0x12}, {}}, // the same value again is no change
        // The register at the higher address takes the low half and is handled first.
        {"D_D", 20, 2, {0x02, 0x00, 0x01, 0x00}, {"1/1/D_D/20", "1/1/D_D/20"}},
        {"32C", 200, 4, {1, 0, 0, 0, 0, 0, 0, 0}, {"1/1/32C/200"}}, // 201 is written with the value it shows
        {"CV", 3, 1, {9, 0}, {"1/1/CV/3"}},
        // Bits are reported directly, under the name the host gave, monitored or not.
        {"Y", 4, 3, {1, 0, 1}, {"1/1/Y/4", "1/1/Y/6"}},
        // clang-format on
    };
    for (const Row &r : rows) {
        reports().clear();
        write(r.reg, r.addr, r.data, r.count);
        EXPECT_EQ(reports(), r.reports) << r.reg;
    }
    EXPECT_TRUE(seen.startsWith("0000 ")) << "the callback still sees what was shown before";
    EXPECT_EQ(read(1, "D_D", 20, 2, 4).toHex(), QByteArray("02000100"));
    intf_setAddrValueChangeCallBack(recordReport);
}

TEST_F(Writes, SettlingTable)
{
    struct Row {
        const char *what;
        bool ok;
        const char *reg;
        int addr, count;
        std::vector<uint8_t> data;
        QList<KEY_ADDRESS> monitored;
        QStringList reports;
    } rows[] = {
        // clang-format off
        {"word succeeds", true, "D_W", 10, 1, {0x78, 0x56}, {key(1, "D_W", 10, 1)}, {}},
        {"word fails", false, "D_W", 10, 1, {0x78, 0x56}, {key(1, "D_W", 10, 1)}, {"1/1/D_W/10"}},
        {"bits fail", false, "Y", 4, 3, {1, 1, 1}, {}, {"1/1/Y/4", "1/1/Y/5", "1/1/Y/6"}},
        {"counter fails", false, "32C", 200, 2, {1, 2, 3, 4}, {key(1, "32C", 200, 2)}, {"1/1/32C/200"}},
        {"double word fails", false, "D_D", 100, 2, {1, 2, 3, 4}, {key(1, "D_D", 100, 2)}, {"1/1/D_D/100", "1/1/D_D/100"}},
        {"unmonitored word fails", false, "TV", 1, 1, {1, 2}, {}, {}},
        // clang-format on
    };
    for (const Row &r : rows) {
        restart(r.ok ? "1#0#0#3#64" : "1#0#0#1#64");
        monitor(r.monitored);
        // What the controller had: 0x1234 in every register the write touches.
        for (int a = 0; a < 4; ++a) {
            _DATA_ &d = area(1, r.reg[0] == 'D' ? "D" : r.reg, r.addr + a);
            d.value[0] = 0x34;
            d.value[1] = 0x12;
        }
        write(r.reg, r.addr, r.data, r.count);
        reports().clear();
        FRAME_PRO f;
        ASSERT_EQ(intf_getSendFrame(f), 1);
        QString what;
        EXPECT_EQ(intf_dealRcvFrame(r.ok ? writeEcho(f) : QByteArray(), what), r.ok ? 1 : 2) << r.what;
        EXPECT_EQ(reports(), r.reports) << r.what;
        EXPECT_TRUE(driver.writeList.isEmpty()) << r.what;
        for (const _DATA_ &d : driver.dataAreas)
            EXPECT_EQ(d.writePending, 0) << r.what << " at " << d.addr;
    }
}

} // namespace
