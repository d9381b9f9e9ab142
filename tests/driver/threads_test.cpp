// A screen thread writes and reads while the communication thread runs the cycle.
// Built also with ThreadSanitizer in CI.
#include "driver_fixture.h"

#include <atomic>
#include <thread>

using namespace testing_support;

namespace {

class Threads : public DriverTest {};

TEST_F(Threads, WritesFromAnotherThreadAreNeitherLostNorTorn)
{
    monitor({key(1, "D_W", 0, 16), key(1, "X", 0, 8, -1)});
    intf_setAddrValueChangeCallBack(nullptr);
    FakeController plc;
    std::atomic<bool> writing{true};
    constexpr int kWrites = 3000;
    uint16_t last[16] = {};

    std::thread screen([&] {
        for (int i = 1; i <= kWrites; ++i) {
            const int addr = i % 16;
            const uint16_t value = uint16_t(i);
            unsigned char bytes[2] = {uint8_t(value & 0xFF), uint8_t(value >> 8)};
            EXPECT_EQ(intf_setData(1, "D_W", addr, 1, bytes, RTUPLC_KIND_WRITE), 1);
            last[addr] = value;
            unsigned char bit = uint8_t(i & 1);
            intf_setData(1, "X", i % 8, 1, &bit, RTUPLC_KIND_WRITE);
            unsigned char out[32];
            intf_getData(1, "D_W", 0, 16, out);
        }
        writing = false;
    });
    // The communication thread: keeps polling while the screen writes, then drains.
    int settled = 0; // monitor rounds since the screen stopped and the queue drained
    while (settled < 4) {
        FRAME_PRO f;
        if (intf_getSendFrame(f) == 1) {
            QString what;
            intf_dealRcvFrame(plc.answer(f), what);
        }
        if (!writing && driver.writeList.isEmpty() && f.reqKind == RTUPLC_KIND_MONITOR_READ)
            ++settled;
    }
    screen.join();
    EXPECT_TRUE(driver.writeList.isEmpty());
    for (int a = 0; a < 16; ++a)
        EXPECT_EQ(plc.registers[size_t(a)], last[a]) << "the newest write to " << a << " reached the controller";
    unsigned char out[32];
    intf_getData(1, "D_W", 0, 16, out);
    for (int a = 0; a < 16; ++a)
        EXPECT_EQ(out[2 * a] | out[2 * a + 1] << 8, last[a]) << a;
}

} // namespace
