// Read planning: merging into blocks, monitor flags, condition reads, recipe requests.
#include "driver_fixture.h"

#include <QRandomGenerator>

using namespace testing_support;

namespace {

// Blocks as "station:area:start+len", for planned keys and for the monitor list alike.
template <typename T>
QString blocksOf(const QList<T> &blocks)
{
    QStringList out;
    for (const T &b : blocks)
        out << QStringLiteral("%1:%2:%3+%4").arg(b.station).arg(b.regName).arg(b.startAddr).arg(b.len);
    return out.join(' ');
}

class Planning : public DriverTest {};

TEST_F(Planning, MergeTable)
{
    struct Row {
        const char *what;
        int gap;
        QList<KEY_ADDRESS> items;
        const char *blocks;
    } rows[] = {
        // clang-format off
        {"long item cut at 128", 10, {key(1, "D_W", 5, 300)}, "1:D_W:5+128 1:D_W:133+128 1:D_W:261+44"},
        {"touching", 10, {key(1, "D_W", 0, 10), key(1, "D_W", 10, 5)}, "1:D_W:0+15"},
        {"overlapping", 0, {key(1, "D_W", 0, 10), key(1, "D_W", 5, 10)}, "1:D_W:0+15"},
        {"inside", 0, {key(1, "D_W", 0, 10), key(1, "D_W", 2, 3)}, "1:D_W:0+10"},
        {"span of 128 joins", 0, {key(1, "D_W", 0, 100), key(1, "D_W", 100, 28)}, "1:D_W:0+128"},
        {"span of 129 does not", 0, {key(1, "D_W", 0, 100), key(1, "D_W", 100, 29)}, "1:D_W:0+100 1:D_W:100+29"},
        {"gap equal to maxBlockLen bridged", 10, {key(1, "D_W", 0, 5), key(1, "D_W", 15, 5)}, "1:D_W:0+20"},
        {"gap one more kept", 10, {key(1, "D_W", 0, 5), key(1, "D_W", 16, 5)}, "1:D_W:0+5 1:D_W:16+5"},
        {"bridge never exceeds 128", 50, {key(1, "D_W", 0, 60), key(1, "D_W", 100, 29)}, "1:D_W:0+60 1:D_W:100+29"},
        {"bridge up to 128", 50, {key(1, "D_W", 0, 60), key(1, "D_W", 100, 28)}, "1:D_W:0+128"},
        {"stations never mix", 10, {key(1, "D_W", 0, 5), key(2, "D_W", 5, 5)}, "1:D_W:0+5 2:D_W:5+5"},
        {"areas never mix", 10, {key(1, "CV", 0, 10), key(1, "32C", 200, 4)}, "1:32C:200+2 1:CV:0+10"},
        {"D_D joins D_W", 10, {key(1, "D_W", 0, 4), key(1, "D_D", 4, 2)}, "1:D_W:0+6"},
        {"sorted by station, area, address", 0,
         {key(2, "X", 0, 1), key(1, "D_W", 9, 1), key(1, "X", 3, 1), key(1, "D_W", 0, 1)},
         "1:X:3+1 1:D_W:0+1 1:D_W:9+1 2:X:0+1"},
        {"32C halves registers", 10, {key(1, "32C", 200, 3)}, "1:32C:200+1"},
        {"unknown area merges with itself", 10, {key(1, "Q", 0, 2), key(1, "Q", 2, 2)}, "1:Q:0+4"},
        {"item inside pieces of a long one", 10, {key(1, "D_W", 200, 300), key(1, "D_W", 300, 10)},
         "1:D_W:200+128 1:D_W:328+128 1:D_W:456+44"},
        {"item reaching past pieces", 0, {key(1, "D_W", 200, 300), key(1, "D_W", 400, 200)},
         "1:D_W:200+128 1:D_W:328+128 1:D_W:456+44 1:D_W:400+128 1:D_W:528+72"},
        // clang-format on
    };
    for (const Row &r : rows) {
        driver.maxBlockLen = r.gap;
        QList<KEY_ADDRESS> items = r.items;
        addrMerge(items, 1); // monitor planning; recipe planning has its own table below
        EXPECT_EQ(blocksOf(items), r.blocks) << r.what;
    }
}

TEST_F(Planning, EqualWeightsKeepTheirOrder)
{
    QList<KEY_ADDRESS> items;
    for (int i = 0; i < 4; ++i) {
        KEY_ADDRESS k = key(1, "D_W", 5, 1);
        k.keyField1 = i;
        items << k;
    }
    items.prepend(key(1, "D_W", 9, 1));
    addrMerge(items, 1);
    ASSERT_EQ(items.size(), 1);
    EXPECT_EQ(items.first().keyField1, 0); // the block carries its opening item's fields
}

// Whatever the items, every address lands in a block and no block exceeds 128 units.
TEST_F(Planning, RandomItemsAreCoveredWithinTheLimit)
{
    QRandomGenerator rng(42);
    for (int round = 0; round < 300; ++round) {
        const int gap = int(rng.bounded(40));
        driver.maxBlockLen = gap;
        QList<KEY_ADDRESS> items;
        const int n = 1 + int(rng.bounded(12));
        for (int i = 0; i < n; ++i)
            items << key(1 + int(rng.bounded(2)), rng.bounded(2) ? "D_W" : "CV", int(rng.bounded(400)),
                         1 + int(rng.bounded(300)));
        const int mode = 1 + int(rng.bounded(2));
        QList<KEY_ADDRESS> blocks = items;
        addrMerge(blocks, mode);
        for (const KEY_ADDRESS &b : blocks)
            EXPECT_LE(b.len, RTUPLC_MAX_READ_UNITS);
        for (const KEY_ADDRESS &it : items) {
            for (int a = it.startAddr; a < it.startAddr + it.len; ++a) {
                bool covered = false;
                for (const KEY_ADDRESS &b : blocks)
                    covered |= b.station == it.station && b.regName == it.regName && a >= b.startAddr &&
                               a < b.startAddr + b.len;
                ASSERT_TRUE(covered) << "round " << round << " address " << a << " of "
                                     << blocksOf(QList<KEY_ADDRESS>{it}).toStdString() << " in "
                                     << blocksOf(blocks).toStdString();
            }
        }
    }
}

TEST_F(Planning, MonitorFlagsTable)
{
    struct Row {
        const char *reg;
        int start, len;
        QStringList areas; // "prefix/addr=flags"
    } rows[] = {
        // clang-format off
        {"X", 0, 3, {"X/0=1", "X/1=1", "X/2=1"}},
        {"D_W", 100, 2, {"D/100=1", "D/101=1"}},
        {"D_D", 10, 4, {"D/10=2", "D/11=4", "D/12=2", "D/13=4"}},
        {"D_D", 10, 3, {"D/10=2", "D/11=4"}},
        {"D_D", 10, 1, {}},
        {"32C", 200, 4, {"32C/200=1", "32C/201=1"}},
        {"32C", 200, 1, {}},
        {"CV", 5, 0, {}},
        // clang-format on
    };
    for (const Row &r : rows) {
        restart("1#0#0#3#64");
        EXPECT_EQ(_setDataAreaMonitorFlag(1, r.reg, r.start, r.len), 0);
        QStringList areas;
        for (const _DATA_ &a : driver.dataAreas)
            areas << QStringLiteral("%1/%2=%3").arg(a.regPrefix).arg(a.addr).arg(a.monitorFlags);
        EXPECT_EQ(areas, r.areas) << r.reg << " " << r.start << " " << r.len;
    }
    EXPECT_EQ(_setDataAreaMonitorFlag(1, "D", 0, 1), -1);
}

TEST_F(Planning, RegistrationReplacesTheLastOne)
{
    QList<KEY_ADDRESS> keys = {key(1, "D_W", 10, 1), key(1, "D_D", 10, 2), key(2, "D_W", 10, 1), key(1, "Q", 0, 3)};
    EXPECT_EQ(intf_addrMerge(keys), 3);
    EXPECT_EQ(blocksOf(driver.monitorList), "1:Q:0+3 1:D_W:10+2 2:D_W:10+1"); // an unknown area weighs least
    EXPECT_EQ(driver.monitorList.first().reqKind, RTUPLC_KIND_MONITOR_READ);
    const int d10 = getIndexOfDataArea(1, "D", 10, driver.dataAreas);
    EXPECT_EQ(driver.dataAreas[d10].monitorFlags, MON_UNIT | MON_DWORD_LO);
    EXPECT_EQ(driver.dataAreas.size(), 3); // D/10 and D/11 at station 1, D/10 at station 2

    QList<KEY_ADDRESS> fewer = {key(1, "D_W", 11, 1)};
    EXPECT_EQ(intf_addrMerge(fewer), 1);
    EXPECT_EQ(driver.dataAreas.size(), 3);
    EXPECT_EQ(driver.dataAreas[d10].monitorFlags, 0);
    QList<KEY_ADDRESS> none;
    EXPECT_EQ(intf_addrMerge(none), 0);
    EXPECT_TRUE(driver.monitorList.isEmpty());
}

TEST_F(Planning, ConditionReadsCutAndReplace)
{
    struct Row {
        const char *properties;
        KEY_ADDRESS k;
        const char *reads;
    } rows[] = {
        // clang-format off
        {"1#0#0#3#20", key(1, "D_W", 100, 50), "100+20 120+20 140+10"},
        {"1#0#0#3#0", key(1, "D_W", 0, 100), "0+64 64+36"}, // no split size yet: the default
        {"1#0#0#3#20", key(1, "M", 0, 300, -1), "0+160 160+140"}, // bits cut at 8 x maxBlockLen
        {"1#0#0#3#20", key(1, "M", 0, 160, -1), "0+160"},
        {"1#0#0#3#20", key(1, "D_W", 0, 20), "0+20"},
        {"1#0#0#3#20", key(1, "32C", 200, 6), "200+3"}, // registers become 32-bit values
        // clang-format on
    };
    for (const Row &r : rows) {
        restart(r.properties);
        EXPECT_EQ(intf_addConditionRead(r.k, 3), 1);
        QStringList reads;
        for (const VARIABLE &v : driver.conditionList)
            reads << QStringLiteral("%1+%2").arg(v.startAddr).arg(v.len);
        EXPECT_EQ(reads.join(' '), r.reads) << r.k.regName.toStdString() << " " << r.k.len;
        EXPECT_EQ(driver.lastCondVar.startAddr, driver.conditionList.last().startAddr);
        EXPECT_EQ(driver.conditionList.first().reqKind, 3);
    }
    EXPECT_EQ(intf_addConditionRead(key(1, "D", 0, 1), 3), -1);
    driver.conditionList.clear();
    intf_addConditionRead(key(1, "32C", 200, 30), 3); // cut at 20 registers, queued as 10 + 5 values
    ASSERT_EQ(driver.conditionList.size(), 2);
    EXPECT_EQ(driver.conditionList[1].len, 5);

    // An equal read waiting behind the head is replaced; the head never is.
    driver.conditionList.clear();
    intf_addConditionRead(key(1, "D_W", 0, 1), 3);
    intf_addConditionRead(key(1, "D_W", 0, 1), 7);
    intf_addConditionRead(key(1, "D_W", 0, 1), 9);
    ASSERT_EQ(driver.conditionList.size(), 2);
    EXPECT_EQ(driver.conditionList[0].reqKind, 3);
    EXPECT_EQ(driver.conditionList[1].reqKind, 9);

    // Past 513 entries, new reads recycle the last one.
    for (int i = 0; i < 520; ++i)
        intf_addConditionRead(key(1, "D_W", 100 + i, 1), 3);
    EXPECT_EQ(driver.conditionList.size(), 513);
    EXPECT_EQ(driver.conditionList[512].startAddr, 619);
    EXPECT_EQ(driver.lastCondVar.startAddr, 619);
}

TEST_F(Planning, RecipeRequestsTable)
{
    struct Row {
        const char *what;
        std::vector<_RCP_VAR_PRO> vars;
        int kept;
        const char *requests; // "reg:start+len@offset"
        QList<int> starts;
    } rows[] = {
        // clang-format off
        {"touching words join", {rcp("D_W", 0, 2, 10), rcp("D_W", 2, 2, 12)}, 2, "D_W:0+4@10", {0}},
        {"no gap bridged", {rcp("D_W", 0, 2, 0), rcp("D_W", 3, 1, 2)}, 2, "D_W:0+2@0 D_W:3+1@2", {0, 1}},
        {"D_D apart from D_W", {rcp("D_D", 0, 2, 0), rcp("D_W", 2, 2, 2)}, 2, "D_D:0+2@0 D_W:2+2@2", {0, 1}},
        {"other drivers skipped", {rcp("D_W", 0, 2, 0, 1, 2), rcp("D_W", 5, 1, 3)}, 1, "D_W:5+1@3", {0}},
        {"32C registers halved", {rcp("32C", 200, 4, 6)}, 1, "32C:200+2@6", {0}},
        {"descending input sorted", {rcp("D_W", 20, 1, 2), rcp("D_W", 10, 1, 1), rcp("D_W", 0, 1, 0)}, 3,
         "D_W:0+1@0 D_W:10+1@1 D_W:20+1@2", {0, 1, 2}},
        {"long variable: one entry per piece, offsets follow", {rcp("D_W", 0, 300, 0), rcp("D_W", 300, 1, 300)}, 2,
         "D_W:0+128@0 D_W:128+128@128 D_W:256+45@256", {0, 0, 0}},
        // clang-format on
    };
    for (const Row &r : rows) {
        QVector<_RCP_VAR_PRO> vars(r.vars.begin(), r.vars.end());
        EXPECT_EQ(intf_setRcpAddress(vars), r.kept) << r.what;
        QStringList reqs;
        for (const _RCP_VAR_PRO &q : driver.rcpReqs)
            reqs << QStringLiteral("%1:%2+%3@%4").arg(q.regName).arg(q.startAddr).arg(q.len).arg(q.rcpOffset);
        EXPECT_EQ(reqs.join(' '), r.requests) << r.what;
        EXPECT_EQ(driver.rcpReqStart, r.starts) << r.what;
    }
    // No variable of ours: the previous recipe stays.
    QVector<_RCP_VAR_PRO> foreign = {rcp("D_W", 0, 1, 0, 1, 9)};
    EXPECT_EQ(intf_setRcpAddress(foreign), 0);
    EXPECT_EQ(driver.rcpReqs.size(), 3);
}

} // namespace
