// The send/receive cycle: priorities, retries, retiring requests, recipe transfers.
#include "driver_fixture.h"

using namespace testing_support;

namespace {

class Cycle : public DriverTest {
protected:
    FakeController plc;
    std::vector<unsigned char> memory = std::vector<unsigned char>(65536, 0);
    std::vector<unsigned short> recipe = std::vector<unsigned short>(256, 0);
    QMutex hostLock;

    void withHost(const char *properties = "1#0#0#3#64")
    {
        restart(properties, memory.data(), recipe.data(), &hostLock);
    }
    void monitor(QList<KEY_ADDRESS> keys) { intf_addrMerge(keys); }
    void setRecipe(const std::vector<_RCP_VAR_PRO> &vars)
    {
        QVector<_RCP_VAR_PRO> v(vars.begin(), vars.end());
        intf_setRcpAddress(v);
    }
    static _RCP_VAR_PRO rcp(const char *reg, int start, int len, int offset, int station = 1)
    {
        _RCP_VAR_PRO v;
        v.driverId = 1;
        v.station = station;
        v.regName = reg;
        v.startAddr = start;
        v.len = len;
        v.rcpOffset = offset;
        return v;
    }
};

QString kinds(const QList<int> &k)
{
    QString s;
    for (int v : k)
        s += QString::number(v);
    return s;
}

TEST_F(Cycle, NothingToDo)
{
    FRAME_PRO f;
    EXPECT_EQ(intf_getSendFrame(f), 0);
    EXPECT_EQ(driver.sendState, RTUPLC_KIND_IDLE);
    QString what = "stale";
    EXPECT_EQ(intf_dealRcvFrame(QByteArray(), what), 0);
    EXPECT_TRUE(what.isEmpty());
}

TEST_F(Cycle, PriorityOrder)
{
    struct Row {
        const char *what;
        int writes, conditions;
        const char *order; // sendState per frame
    } rows[] = {
        {"12 writes and a block", 12, 0, "2222222222422444"},
        {"5 condition reads and a block", 0, 5, "3334334444"},
        {"writes before condition reads", 2, 2, "223434444"},
    };
    for (const Row &r : rows) {
        restart("1#0#0#3#64");
        monitor({key(1, "D_W", 0, 1)});
        unsigned char v[2] = {1, 0};
        for (int i = 0; i < r.writes; ++i)
            intf_setData(1, "D_W", 100 + i, 1, v, 2);
        for (int i = 0; i < r.conditions; ++i)
            intf_addConditionRead(key(1, "D_W", 200 + i, 1), 3);
        EXPECT_EQ(kinds(plc.run(int(strlen(r.order)))), r.order) << r.what;
    }
}

TEST_F(Cycle, ConditionBatchReportsItsEnd)
{
    monitor({key(1, "D_W", 0, 1)});
    intf_addConditionRead(key(1, "D_W", 300, 1), 3);
    intf_addConditionRead(key(1, "D_W", 301, 1), 3);
    plc.run(3);
    EXPECT_EQ(reports(), QStringList{"-1/-1/-1/0"});
    EXPECT_TRUE(driver.conditionList.isEmpty());
}

TEST_F(Cycle, FailedConditionReadAbandonsTheBatch)
{
    restart("1#0#0#2#64");
    intf_addConditionRead(key(1, "D_W", 300, 1), 3);
    intf_addConditionRead(key(1, "D_W", 301, 1), 3);
    EXPECT_EQ(exchange(QByteArray()), 8);
    EXPECT_EQ(exchange(QByteArray()), 2);
    EXPECT_TRUE(driver.conditionList.isEmpty());
    EXPECT_TRUE(reports().isEmpty()) << "only the batch's last read reports";
    intf_addConditionRead(key(1, "D_W", 302, 1), 3);
    exchange(QByteArray());
    EXPECT_EQ(exchange(QByteArray()), 2);
    EXPECT_EQ(reports(), QStringList{"-1/-1/-1/-1"});
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
            QString what;
            results << intf_dealRcvFrame(QByteArray(), what);
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

TEST_F(Cycle, WrongReplyCostsAnAttemptAndKeepsTheHead)
{
    monitor({key(1, "D_W", 0, 2)});
    plc.registers[0] = 0x1234;
    FRAME_PRO f;
    intf_getSendFrame(f);
    QString what;
    EXPECT_EQ(intf_dealRcvFrame(withCrc(hex("018302")), what), 8);
    EXPECT_EQ(driver.failCount, 1);
    EXPECT_EQ(intf_dealRcvFrame(plc.answer(f), what), 1);
    EXPECT_EQ(driver.failCount, 0);
    EXPECT_EQ(read(1, "D_W", 0, 1, 2).toHex(), QByteArray("3412"));
}

TEST_F(Cycle, BroadcastWriteAndHandshakeNeedNoReply)
{
    unsigned char v[2] = {0x22, 0x11};
    intf_setData(0, "D_W", 5, 1, v, 2);
    FRAME_PRO sent;
    EXPECT_EQ(exchange(QByteArray(), &sent), 1);
    EXPECT_EQ(sent.replyLen, 0);
    EXPECT_TRUE(driver.writeList.isEmpty());
    const int k = getIndexOfDataArea(0, "D", 5, driver.dataAreas);
    EXPECT_EQ(driver.dataAreas[k].writePending, 0);
    EXPECT_EQ(driver.dataAreas[k].value[1], 0x11) << "a broadcast write settles as written";

    driver.handshakeFlag = 1;
    for (int i = 0; i < 2; ++i) {
        FRAME_PRO f;
        ASSERT_EQ(intf_getSendFrame(f), 1);
        EXPECT_EQ(f.frameLen, 0);
        EXPECT_EQ(driver.sendState, RTUPLC_KIND_HANDSHAKE);
        QString what;
        EXPECT_EQ(intf_dealRcvFrame(QByteArray(), what), 1);
        EXPECT_EQ(what, "0#0(0)");
    }
}

TEST_F(Cycle, BroadcastReadsBuildNothing)
{
    monitor({key(0, "D_W", 0, 2)});
    FRAME_PRO f;
    EXPECT_EQ(intf_getSendFrame(f), 0);
    EXPECT_EQ(driver.monitorList.size(), 1);
}

TEST_F(Cycle, RecipeDownloadWalksEveryRequestThenClearsItsByte)
{
    withHost();
    setRecipe({rcp("D_W", 0, 2, 0), rcp("D_W", 10, 1, 2), rcp("32C", 200, 2, 4)});
    ASSERT_EQ(driver.rcpReqs.size(), 3);
    recipe[0] = 0x1111;
    recipe[1] = 0x2222;
    recipe[2] = 0x3333;
    recipe[4] = 0x5678; // 32C value 0x12345678, least significant word first
    recipe[5] = 0x1234;
    memory[RTUPLC_RCP_DOWNLOAD_BYTE] = 1;
    EXPECT_EQ(kinds(plc.run(5)), "555");
    EXPECT_EQ(memory[RTUPLC_RCP_DOWNLOAD_BYTE], 0);
    EXPECT_EQ(driver.rcpIndex, 0);
    EXPECT_EQ(plc.registers[0], 0x1111);
    EXPECT_EQ(plc.registers[1], 0x2222);
    EXPECT_EQ(plc.registers[10], 0x3333);
    EXPECT_EQ(plc.registers[9700], 0x1234);
    EXPECT_EQ(plc.registers[9701], 0x5678);
}

TEST_F(Cycle, DownloadSendsARequestBackToBackFromItsFirstOffset)
{
    withHost();
    setRecipe({rcp("D_W", 0, 2, 10), rcp("D_W", 2, 2, 20)}); // touching, laid out apart
    for (int i = 0; i < 32; ++i)
        recipe[size_t(i)] = uint16_t(0x100 + i);
    memory[RTUPLC_RCP_DOWNLOAD_BYTE] = 1;
    plc.run(2);
    for (int a = 0; a < 4; ++a)
        EXPECT_EQ(plc.registers[size_t(a)], 0x10A + a) << a;
}

TEST_F(Cycle, RecipeUploadFillsTheBufferAndReportsEachWord)
{
    withHost();
    setRecipe({rcp("D_W", 0, 2, 4), rcp("D_D", 20, 2, 10), rcp("32C", 200, 3, 12), rcp("M", 5, 3, 20)});
    plc.registers[0] = 0xABCD;
    plc.registers[1] = 0x0102;
    plc.registers[20] = 0x1234; // the first register is the high half
    plc.registers[21] = 0x5678;
    plc.registers[9700] = 0x0001;
    plc.registers[9701] = 0x0002;
    plc.coils[2005] = 1;
    plc.coils[2007] = 1;
    memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
    EXPECT_EQ(kinds(plc.run(4)), "6666");
    EXPECT_EQ(memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
    EXPECT_EQ(recipe[4], 0xABCD);
    EXPECT_EQ(recipe[5], 0x0102);
    EXPECT_EQ(recipe[10], 0x5678);
    EXPECT_EQ(recipe[11], 0x1234);
    EXPECT_EQ(recipe[12], 0x0002);
    EXPECT_EQ(recipe[13], 0x0001);
    EXPECT_EQ(recipe[14], 0) << "a 32C variable takes one value";
    EXPECT_EQ(recipe[20], 1);
    EXPECT_EQ(recipe[21], 0);
    EXPECT_EQ(recipe[22], 1);
    EXPECT_EQ(reports(), (QStringList{"0/-1/RWI/20", "0/-1/RWI/21", "0/-1/RWI/22", "0/-1/RWI/12", "0/-1/RWI/13",
                                      "0/-1/RWI/10", "0/-1/RWI/11", "0/-1/RWI/4", "0/-1/RWI/5"}));
}

TEST_F(Cycle, RecipeCommandWithoutRequestsEndsAtOnce)
{
    withHost();
    monitor({key(1, "D_W", 0, 1)});
    memory[RTUPLC_RCP_DOWNLOAD_BYTE] = 1;
    memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
    driver.rcpReqs.clear();
    EXPECT_EQ(kinds(plc.run(1)), "4");
    EXPECT_EQ(memory[RTUPLC_RCP_DOWNLOAD_BYTE], 0);
    EXPECT_EQ(memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
    EXPECT_EQ(driver.rcpIndex, 0);
}

TEST_F(Cycle, FailedRecipeTransferStopsAndClearsItsByte)
{
    withHost("1#0#0#1#64");
    setRecipe({rcp("D_W", 0, 1, 0), rcp("D_W", 5, 1, 1)});
    memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
    EXPECT_EQ(exchange(plc.answer(FRAME_PRO())), 2);
    EXPECT_EQ(memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
    EXPECT_EQ(driver.rcpIndex, 0);
}

TEST_F(Cycle, UnbuildableRecipeRequestIsSkipped)
{
    withHost();
    setRecipe({rcp("D_W", 0, 1, 0, 0), rcp("D_W", 5, 1, 1, 1)});
    memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
    FRAME_PRO f;
    EXPECT_EQ(intf_getSendFrame(f), 0) << "no read goes to the broadcast station";
    EXPECT_EQ(kinds(plc.run(3)), "6");
    EXPECT_EQ(memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
}

TEST_F(Cycle, NullHostMemoryReadsNoCommands)
{
    restart("1#0#0#3#64", nullptr, nullptr, nullptr);
    setRecipe({rcp("D_W", 0, 1, 0)});
    monitor({key(1, "D_W", 0, 1)});
    EXPECT_EQ(kinds(plc.run(2)), "44");
}

} // namespace
