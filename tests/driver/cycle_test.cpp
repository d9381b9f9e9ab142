// The send/receive cycle: priorities, retries, retiring requests, recipe transfers.
#include "driver_fixture.h"

using namespace testing_support;

namespace {

using Cycle = HostMemoryTest;

TEST_F(Cycle, NothingToSend)
{
    FRAME_PRO f;
    EXPECT_EQ(intf_getSendFrame(f), 0);
    EXPECT_EQ(driver.sendState, RTUPLC_KIND_IDLE);
    QString what = "stale";
    EXPECT_EQ(intf_dealRcvFrame(QByteArray(), what), 0);
    EXPECT_TRUE(what.isEmpty());
    monitor({key(0, "D_W", 0, 2)}); // nobody answers a read sent to the broadcast station
    EXPECT_EQ(intf_getSendFrame(f), 0);
    EXPECT_EQ(driver.monitorList.size(), 1);
}

TEST_F(Cycle, PriorityOrder)
{
    struct Row {
        int writes, conditions;
        const char *order; // sendState per frame
    } rows[] = {{12, 0, "2222222222422444"}, {0, 5, "3334334444"}, {2, 2, "223434444"}};
    for (const Row &r : rows) {
        restart("1#0#0#3#64");
        monitor({key(1, "D_W", 0, 1)});
        unsigned char v[2] = {1, 0};
        for (int i = 0; i < r.writes; ++i)
            intf_setData(1, "D_W", 100 + i, 1, v, 2);
        for (int i = 0; i < r.conditions; ++i)
            intf_addConditionRead(key(1, "D_W", 200 + i, 1), 3);
        EXPECT_EQ(plc.run(int(strlen(r.order))), r.order) << r.order;
    }
}

// Only a batch's last condition read reports, with 0 when it went through and -1 when
// a read failed and abandoned the rest of the batch.
TEST_F(Cycle, ConditionBatchReportsItsEnd)
{
    restart("1#0#0#2#64");
    intf_addConditionRead(key(1, "D_W", 300, 1), 3);
    intf_addConditionRead(key(1, "D_W", 301, 1), 3);
    EXPECT_EQ(exchange(QByteArray()), 8);
    EXPECT_EQ(exchange(QByteArray()), 2);
    EXPECT_TRUE(driver.conditionList.isEmpty());
    EXPECT_TRUE(reports().isEmpty());
    intf_addConditionRead(key(1, "D_W", 302, 1), 3);
    exchange(QByteArray());
    EXPECT_EQ(exchange(QByteArray()), 2);
    EXPECT_EQ(reports(), QStringList{"-1/-1/-1/-1"});
    reports().clear();
    monitor({key(1, "D_W", 0, 1)});
    intf_addConditionRead(key(1, "D_W", 300, 1), 3);
    intf_addConditionRead(key(1, "D_W", 301, 1), 3);
    plc.run(3);
    EXPECT_EQ(reports(), QStringList{"-1/-1/-1/0"});
}

TEST_F(Cycle, RetriesThenFailure)
{
    struct Row {
        int retryTimes;
        QList<int> results;
    } rows[] = {{3, {8, 8, 2}}, {1, {2}}, {0, {2}}, {2, {8, 2}}};
    for (const Row &r : rows) {
        restart(QStringLiteral("1#0#0#%1#64").arg(r.retryTimes).toLatin1().constData());
        monitor({key(1, "D_W", 0, 2), key(2, "D_W", 0, 1)});
        QList<int> results;
        QByteArray first;
        for (int i = 0; i < r.results.size(); ++i) {
            FRAME_PRO f;
            ASSERT_EQ(intf_getSendFrame(f), 1);
            if (i == 0)
                first = frameBytes(f);
            EXPECT_EQ(frameBytes(f), first) << "the same frame is offered again";
            QString what; // silence, or a reply that fails the check (here an exception)
            results << intf_dealRcvFrame(i == 1 ? withCrc(hex("018302")) : QByteArray(), what);
            EXPECT_EQ(what, "1#D_W0(2)");
        }
        EXPECT_EQ(results, r.results) << "retryTimes " << r.retryTimes;
        EXPECT_TRUE(driver.frameList.isEmpty());
        EXPECT_EQ(driver.commError, 1);
        EXPECT_EQ(driver.monitorList.first().station, 2) << "a failed block still rotates";
        plc.run(1);
        EXPECT_EQ(driver.commError, 0) << "a good reply clears the error";
    }
}

TEST_F(Cycle, BroadcastWriteAndHandshakeNeedNoReply)
{
    unsigned char v[2] = {0x22, 0x11};
    intf_setData(0, "D_W", 5, 1, v, 2);
    FRAME_PRO sent;
    EXPECT_EQ(exchange(QByteArray(), &sent), 1);
    EXPECT_EQ(sent.replyLen, 0);
    EXPECT_TRUE(driver.writeList.isEmpty());
    const _DATA_ &d = driver.dataAreas[getIndexOfDataArea(0, "D", 5, driver.dataAreas)];
    EXPECT_EQ(d.writePending, 0);
    EXPECT_EQ(d.value[1], 0x11) << "a broadcast write settles as written";
    driver.handshakeFlag = 1;
    for (int i = 0; i < 2; ++i) {
        QString what;
        EXPECT_EQ(exchange(QByteArray(), &sent, &what), 1);
        EXPECT_EQ(sent.frameLen, 0);
        EXPECT_EQ(driver.sendState, RTUPLC_KIND_HANDSHAKE);
        EXPECT_EQ(what, "0#0(0)");
    }
}

// Each request goes out back to back from its first variable's offset, even where
// touching variables were laid out apart in the buffer; the command byte is cleared.
TEST_F(Cycle, RecipeDownload)
{
    withHost();
    setRecipe(
        {rcp("D_W", 0, 2, 10), rcp("D_W", 2, 2, 20), rcp("D_W", 10, 1, 2), rcp("32C", 200, 2, 4), rcp("M", 5, 3, 30)});
    ASSERT_EQ(driver.rcpReqs.size(), 4);
    for (int i = 0; i < 40; ++i)
        recipe[size_t(i)] = uint16_t(0x100 + i);
    recipe[31] = 0; // a bit is set by any non-zero word
    memory[RTUPLC_RCP_DOWNLOAD_BYTE] = 1;
    EXPECT_EQ(plc.run(6), "5555");
    EXPECT_EQ(memory[RTUPLC_RCP_DOWNLOAD_BYTE], 0);
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(std::vector<uint16_t>(plc.registers.begin(), plc.registers.begin() + 4),
              (std::vector<uint16_t>{0x10A, 0x10B, 0x10C, 0x10D}));
    EXPECT_EQ(plc.registers[10], 0x102);
    EXPECT_EQ(plc.registers[9700], 0x105) << "a 32C value travels most significant word first";
    EXPECT_EQ(plc.registers[9701], 0x104);
    EXPECT_EQ(std::vector<uint8_t>(plc.coils.begin() + 2005, plc.coils.begin() + 2008),
              (std::vector<uint8_t>{1, 0, 1}));
}

TEST_F(Cycle, RecipeUploadFillsTheBufferAndReportsEachWord)
{
    withHost();
    setRecipe({rcp("D_W", 0, 2, 4), rcp("D_D", 20, 2, 10), rcp("32C", 200, 3, 12), rcp("M", 5, 3, 20)});
    // D_D 20 and the counter: the first register is the high half.
    for (const auto &[a, v] : std::vector<std::pair<size_t, uint16_t>>{
             {0, 0xABCD}, {1, 0x0102}, {20, 0x1234}, {21, 0x5678}, {9700, 0x0001}, {9701, 0x0002}})
        plc.registers[a] = v;
    plc.coils[2005] = plc.coils[2007] = 1;
    memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
    EXPECT_EQ(plc.run(4), "6666");
    EXPECT_EQ(memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
    // 4-5 D_W, 10-11 D_D, 12-13 the one 32C value, 20-22 the bits.
    EXPECT_EQ(std::vector<uint16_t>(recipe.begin() + 4, recipe.begin() + 23),
              (std::vector<uint16_t>{0xABCD, 0x0102, 0, 0, 0, 0, 0x5678, 0x1234, 2, 1, 0, 0, 0, 0, 0, 0, 1, 0, 1}));
    EXPECT_EQ(reports(), (QStringList{"0/-1/RWI/20", "0/-1/RWI/21", "0/-1/RWI/22", "0/-1/RWI/12", "0/-1/RWI/13",
                                      "0/-1/RWI/10", "0/-1/RWI/11", "0/-1/RWI/4", "0/-1/RWI/5"}));
}

TEST_F(Cycle, RecipeTransferEdges)
{
    // A command with no request ends at once.
    withHost();
    monitor({key(1, "D_W", 0, 1)});
    memory[RTUPLC_RCP_DOWNLOAD_BYTE] = 1;
    memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
    driver.rcpReqs.clear();
    EXPECT_EQ(plc.run(1), "4");
    EXPECT_EQ(memory[RTUPLC_RCP_DOWNLOAD_BYTE] + memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
    EXPECT_EQ(driver.rcpIndex, 0);
    // A failed transfer stops and clears its byte.
    withHost("1#0#0#1#64");
    setRecipe({rcp("D_W", 0, 1, 0), rcp("D_W", 5, 1, 1)});
    memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
    EXPECT_EQ(exchange(QByteArray()), 2);
    EXPECT_EQ(memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
    EXPECT_EQ(driver.rcpIndex, 0);
    // A request for the broadcast station builds no read and is skipped.
    withHost();
    setRecipe({rcp("D_W", 0, 1, 0, 0), rcp("D_W", 5, 1, 1, 1)});
    memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
    FRAME_PRO f;
    EXPECT_EQ(intf_getSendFrame(f), 0);
    EXPECT_EQ(plc.run(3), "6");
    EXPECT_EQ(memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
    // Without host memory there is no command byte to read.
    restart("1#0#0#3#64");
    setRecipe({rcp("D_W", 0, 1, 0)});
    monitor({key(1, "D_W", 0, 1)});
    EXPECT_EQ(plc.run(2), "44");
}

} // namespace
