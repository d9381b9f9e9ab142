// Regression tests for what the fuzz targets in fuzz/ found: each case is the smallest
// host behaviour that made the driver crash, hang, or touch memory it does not own.
#include "driver_fixture.h"

#include <climits>

using namespace testing_support;

namespace {

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
