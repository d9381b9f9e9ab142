// What every exported function does with arguments a host should never pass: a clear
// result and nothing changed, never a crash; and, as regressions, what the fuzz targets
// in fuzz/ found made the driver crash, hang, or touch memory it does not own.
#include "driver_fixture.h"

#include <climits>
#include <functional>

using namespace testing_support;

namespace {

class BadInput : public DriverTest {
protected:
    // Counts of everything a refused call must leave alone.
    static auto state()
    {
        return std::make_tuple(driver.writeList.size(), driver.conditionList.size(), driver.monitorList.size(),
                               driver.dataAreas.size(), driver.frameList.size(), driver.rcpReqs.size());
    }
};

TEST_F(BadInput, RefusedCallsChangeNothing)
{
    static unsigned char bytes[4096];
    const QString nonLatin = QString::fromUtf8("D_\xE2\x82\xAC");
    struct Row {
        const char *what;
        std::function<int()> call;
        int result;
    } rows[] = {
        // clang-format off
        {"getData unknown area", [] { return intf_getData(1, "D", 0, 1, bytes); }, -1},
        {"getData lower case", [] { return intf_getData(1, "d_w", 0, 1, bytes); }, -1},
        {"getData empty name", [] { return intf_getData(1, "", 0, 1, bytes); }, -1},
        {"getData other encoding", [&] { return intf_getData(1, nonLatin, 0, 1, bytes); }, -1},
        {"getData null out", [] { return intf_getData(1, "D_W", 0, 1, nullptr); }, -1},
        {"getData huge count", [] { return intf_getData(1, "D_W", 0, INT_MAX, bytes); }, -1},
        {"getData past int", [] { return intf_getData(1, "X", INT_MAX, 2, bytes); }, -1},
        {"getData negative count", [] { return intf_getData(1, "D_W", 0, -5, bytes); }, 1},
        {"setData unknown area", [] { return intf_setData(1, "D", 0, 1, bytes, 2); }, -1},
        {"setData negative count", [] { return intf_setData(1, "D_W", 0, -1, bytes, 2); }, -1},
        {"setData too many words", [] { return intf_setData(1, "D_W", 0, 513, bytes, 2); }, -1},
        {"setData too many bits", [] { return intf_setData(1, "M", 0, 1025, bytes, 2); }, -1},
        {"setData null data", [] { return intf_setData(1, "D_W", 0, 1, nullptr, 2); }, -1},
        {"setData past int", [] { return intf_setData(1, "D_W", INT_MAX - 1, 5, bytes, 2); }, -1},
        {"condition read unknown area", [] { return intf_addConditionRead(key(1, "Q", 0, 1), 3); }, -1},
        {"condition read huge", [] { return intf_addConditionRead(key(1, "D_W", 0, INT_MAX), 3); }, -1},
        {"condition read past int", [] { return intf_addConditionRead(key(1, "D_W", INT_MAX, 5), 3); }, -1},
        {"multiCopy null texts", [] { QVector<int> v; return intf_multiCopy("D_W", 0, 1, 1, nullptr, &v); }, 0},
        {"multiCopy huge count", [] { QVector<QString> t; QVector<int> v;
             return intf_multiCopy("D_W", 0, INT_MAX, 1, &t, &v) + t.size() + v.size(); }, 0},
        {"list by type null", [] { return intf_getRegListByType(0, nullptr); }, 0},
        {"description null", [] { return intf_getRegDiscription("X", nullptr); }, 0},
        {"validity null addr", [] { return intf_checkAddrValidity("X", "7", nullptr, 1, 0); }, 4},
        {"validity text beyond int", [] { int a = 5; return intf_checkAddrValidity("D_W", "99999999999", &a, 1, 1) * 10 + a; }, 40},
        {"typed check null addr unknown area", [] { return intf_checkAddr("Q", "7", nullptr, 0, 1, 0); }, 3},
        {"deal with nothing in flight", [] { QString t = "x"; return intf_dealRcvFrame(QByteArray(5000, '\x01'), t) + t.size(); }, 0},
        // clang-format on
    };
    for (const Row &r : rows) {
        restart("1#0#0#3#64");
        const auto before = state();
        EXPECT_EQ(r.call(), r.result) << r.what;
        EXPECT_EQ(state(), before) << r.what;
    }
}

TEST_F(BadInput, OddRegistrationsStayHarmless)
{
    QList<KEY_ADDRESS> keys = {key(1, "D_W", 0, -5), key(1, "D_W", INT_MAX - 1, 10), key(1, "D_W", 0, INT_MAX),
                               key(1, "d_w", 0, 2),  key(-7, "CV", -3, 4),           key(1, "D_W", INT_MIN, 3)};
    EXPECT_EQ(intf_addrMerge(keys), 4) << "the oversized and overflowing items are skipped";
    FakeController plc;
    for (int i = 0; i < 10; ++i)
        plc.run(1);
    QVector<_RCP_VAR_PRO> vars = {rcp("D_W", 0, -4, 0), rcp("D_W", 0, 0, 0), rcp("nope", 0, 2, 0)};
    EXPECT_EQ(intf_setRcpAddress(vars), 3);
    EXPECT_EQ(driver.rcpReqs.size(), 1) << "only the unknown area gets a request, which builds nothing";
}

constexpr unsigned short kUntouched = 0xA5C3;

class FuzzFinding : public HostMemoryTest {
protected:
    // Words of the recipe buffer the driver wrote.
    QList<int> written() const
    {
        QList<int> w;
        for (int i = 0; i < int(recipe.size()); ++i) {
            if (recipe[size_t(i)] != kUntouched)
                w << i;
        }
        return w;
    }
};

// A variable too long for the address space gets no request and must transfer
// nothing. An upload used to walk every one of its units when it sorted between two
// requests of its area: billions of steps for a length near INT_MAX (the host's loop
// hung), and its first words filled from a neighbour's reply.
TEST_F(FuzzFinding, UploadSkipsAVariableThatGotNoRequest)
{
    for (int len : {65537, 1 << 20}) {
        SCOPED_TRACE(len);
        withHost();
        std::fill(recipe.begin(), recipe.end(), kUntouched);
        ASSERT_EQ(setRecipe({rcp("D_W", 0, 4, 0), rcp("D_W", 2, len, 100), rcp("D_W", 10, 4, 20)}), 3);
        ASSERT_EQ(driver.rcpReqs.size(), 2);
        for (int i = 0; i < 14; ++i)
            plc.registers[size_t(i)] = uint16_t(0x100 + i);
        memory[RTUPLC_RCP_UPLOAD_BYTE] = 1;
        plc.run(2);
        EXPECT_EQ(memory[RTUPLC_RCP_UPLOAD_BYTE], 0);
        EXPECT_EQ(written(), (QList<int>{0, 1, 2, 3, 20, 21, 22, 23}));
        EXPECT_EQ(recipe[2], 0x102);
        EXPECT_EQ(recipe[20], 0x10A);
        EXPECT_FALSE(reports().contains("0/-1/RWI/100"));
    }
}

} // namespace
