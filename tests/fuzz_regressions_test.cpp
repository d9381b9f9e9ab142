// Regression tests for what the fuzz targets in fuzz/ found: each case is the smallest
// host behaviour that made the driver crash, hang, or touch memory it does not own.
#include "driver_fixture.h"

#include <climits>

using namespace testing_support;

namespace {

constexpr unsigned short kUntouched = 0xA5C3;

class FuzzFinding : public DriverTest {
protected:
    FakeController plc;
    std::vector<unsigned char> memory = std::vector<unsigned char>(65536, 0);
    std::vector<unsigned short> recipe = std::vector<unsigned short>(512, kUntouched);
    QMutex hostLock;

    void SetUp() override { restart("1#0#0#3#64", memory.data(), recipe.data(), &hostLock); }

    static _RCP_VAR_PRO rcp(const char *reg, int start, int len, int offset)
    {
        _RCP_VAR_PRO v;
        v.driverId = 1;
        v.station = 1;
        v.regName = reg;
        v.startAddr = start;
        v.len = len;
        v.rcpOffset = offset;
        return v;
    }
    void setRecipe(std::initializer_list<_RCP_VAR_PRO> vars)
    {
        QVector<_RCP_VAR_PRO> v(vars);
        ASSERT_EQ(intf_setRcpAddress(v), v.size());
    }
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
        SetUp();
        std::fill(recipe.begin(), recipe.end(), kUntouched);
        setRecipe({rcp("D_W", 0, 4, 0), rcp("D_W", 2, len, 100), rcp("D_W", 10, 4, 20)});
        ASSERT_EQ(driver.rcpReqs.size(), 2);
        for (int i = 0; i < 14; ++i)
            plc.registers[size_t(i)] = uint16_t(0x100 + i);
        memory[HOST_RCP_UPLOAD_BYTE] = 1;
        plc.run(2);
        EXPECT_EQ(memory[HOST_RCP_UPLOAD_BYTE], 0);
        EXPECT_EQ(written(), (QList<int>{0, 1, 2, 3, 20, 21, 22, 23}));
        EXPECT_EQ(recipe[2], 0x102);
        EXPECT_EQ(recipe[20], 0x10A);
        EXPECT_FALSE(reports().contains("0/-1/RWI/100"));
    }
}

// A 32C variable of one register has one buffer word and no whole value. Merged with a
// variable of the same start, an upload used to store a whole value at its offset:
// two words, one of them past the variable, into memory the host may not have.
TEST_F(FuzzFinding, UploadGivesAHalf32CValueNothing)
{
    setRecipe({rcp("32C", 200, 1, 10), rcp("32C", 200, 4, 20)});
    ASSERT_EQ(driver.rcpReqs.size(), 1);
    plc.registers[9700] = 0x0001;
    plc.registers[9701] = 0x0002;
    memory[HOST_RCP_UPLOAD_BYTE] = 1;
    plc.run(2);
    EXPECT_EQ(memory[HOST_RCP_UPLOAD_BYTE], 0);
    EXPECT_EQ(written(), (QList<int>{20, 21})) << "one value for the whole variable, none for the half";
    EXPECT_EQ(recipe[20], 0x0002);
    EXPECT_EQ(recipe[21], 0x0001);
}

// The host lays its recipe out as it likes: each variable's words at its rcpOffset.
// A download of touching variables used to send the request's units back to back
// from the first variable's offset, reading words of no variable (past the end of a
// buffer sized for the variables) and sending them instead of the later variables'
// values. Each variable's units now come from its own words.
TEST_F(FuzzFinding, DownloadTakesEachVariableFromItsOwnWords)
{
    struct Row {
        const char *reg;
        int base;        // Modbus address of the area's first unit
        int start, len;  // of each of the two variables, the second placed first
        int wordsPerUnit;
        bool dword;      // 32-bit values: high register first on the wire
    };
    const Row rows[] = {{"D_W", 0, 0, 2, 1, false},
                        {"D_D", 0, 10, 2, 1, true},
                        {"32C", 9500, 200, 4, 2, true},
                        {"M", 2000, 0, 3, 1, false}};
    for (const Row &r : rows) {
        SCOPED_TRACE(r.reg);
        // Exactly the two variables' words, so that a sanitizer build sees any read
        // beyond them: the later variable (by address) first, then the earlier one.
        std::vector<unsigned short> buffer(size_t(2 * r.len));
        for (size_t i = 0; i < buffer.size(); ++i)
            buffer[i] = uint16_t(0x1100 * (i + 1) + 1);
        restart("1#0#0#3#64", memory.data(), buffer.data(), &hostLock);
        const int units = r.len / r.wordsPerUnit;
        setRecipe({rcp(r.reg, r.start + units, r.len, 0), rcp(r.reg, r.start, r.len, r.len)});
        ASSERT_EQ(driver.rcpReqs.size(), 1) << "touching variables make one request";
        memory[HOST_RCP_DOWNLOAD_BYTE] = 1;
        plc.run(1);
        EXPECT_EQ(memory[HOST_RCP_DOWNLOAD_BYTE], 0);
        // What the controller received, as buffer words in address order.
        std::vector<unsigned short> sent;
        if (isBitArea(getIndexFromRegName(r.reg))) {
            for (int i = 0; i < 2 * r.len; ++i)
                sent.push_back(plc.coils[size_t(r.base + r.start + i)]);
        } else if (r.dword) {
            for (int i = 0; i < r.len; ++i) { // each value high register first
                sent.push_back(plc.registers[size_t(r.base + r.start + 2 * i + 1)]);
                sent.push_back(plc.registers[size_t(r.base + r.start + 2 * i)]);
            }
        } else {
            for (int i = 0; i < 2 * r.len; ++i)
                sent.push_back(plc.registers[size_t(r.base + r.start + i)]);
        }
        std::vector<unsigned short> expected(buffer.begin() + r.len, buffer.end());
        expected.insert(expected.end(), buffer.begin(), buffer.begin() + r.len);
        if (isBitArea(getIndexFromRegName(r.reg))) {
            for (unsigned short &w : expected)
                w = w != 0 ? 1 : 0;
        }
        EXPECT_EQ(sent, expected);
    }
}

} // namespace
