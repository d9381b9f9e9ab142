// The simulator as a master nobody here wrote sees it: libmodbus's RTU client over the
// simulator's pseudo-terminal, normal replies and exceptions alike.
#include <gtest/gtest.h>

#include <modbus.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "rtuplc_support/simulator.h"

namespace {

constexpr int kStation = 1;

// One session of a master: reads, writes, a broadcast, a station nobody is, and the
// exceptions last (they change the simulator's limits and faults).
TEST(LibmodbusMaster, ReadsWritesBroadcastsAndExceptions)
{
    rtusupport::Simulator sim;
    sim.fill(rtusupport::Fill::Pattern);
    sim.setStations({kStation, 2});
    std::string error;
    ASSERT_TRUE(sim.startPty(&error)) << error;
    modbus_t *ctx = modbus_new_rtu(sim.ptyPath().c_str(), 9600, 'E', 8, 1);
    ASSERT_NE(ctx, nullptr);
    const std::unique_ptr<modbus_t, void (*)(modbus_t *)> closer(ctx, [](modbus_t *c) {
        modbus_close(c);
        modbus_free(c);
    });
    modbus_set_response_timeout(ctx, 1, 0);
    ASSERT_EQ(modbus_connect(ctx), 0) << modbus_strerror(errno);
    modbus_set_slave(ctx, kStation);

    uint16_t regs[125];
    ASSERT_EQ(modbus_read_registers(ctx, 100, 10, regs), 10) << modbus_strerror(errno);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(regs[i], 100 + i);
    ASSERT_EQ(modbus_read_registers(ctx, 9500, 125, regs), 125) << "CV and the counters in one read";
    EXPECT_EQ(regs[124], 9624);
    uint8_t bits[16];
    ASSERT_EQ(modbus_read_bits(ctx, 1200, 16, bits), 16) << modbus_strerror(errno);
    for (int i = 0; i < 16; ++i)
        EXPECT_EQ(bits[i], rtusupport::patternCoil(kStation, 1200 + i)) << "X" << i;

    ASSERT_EQ(modbus_write_register(ctx, 100, 0xBEEF), 1) << modbus_strerror(errno);
    const uint16_t pair[] = {0x0001, 0x1170};
    ASSERT_EQ(modbus_write_registers(ctx, 9701, 2, pair), 2);
    ASSERT_EQ(modbus_write_bit(ctx, 1207, 1), 1);
    const uint8_t ys[] = {1, 0, 1, 1, 0, 0, 0, 0, 1, 1};
    ASSERT_EQ(modbus_write_bits(ctx, 5, 10, ys), 10);
    EXPECT_EQ(sim.reg(kStation, 100), 0xBEEF);
    EXPECT_EQ(sim.reg32(kStation, 9701), 70000u);
    EXPECT_TRUE(sim.coil(kStation, 1207));
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(sim.coil(kStation, 5 + i), ys[i] != 0) << "Y" << 5 + i;
    EXPECT_EQ(sim.counters().writes, 4u);

    modbus_set_slave(ctx, 2);
    ASSERT_EQ(modbus_read_registers(ctx, 100, 1, regs), 1);
    EXPECT_EQ(regs[0], rtusupport::patternRegister(2, 100)) << "each station has its own memory";

    modbus_set_slave(ctx, MODBUS_BROADCAST_ADDRESS);
    modbus_set_response_timeout(ctx, 0, 200000);
    // Some libmodbus versions wait for the reply a broadcast never gets.
    const int written = modbus_write_register(ctx, 300, 4242);
    EXPECT_TRUE(written == 1 || (written == -1 && errno == ETIMEDOUT)) << modbus_strerror(errno);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (sim.reg(2, 300) != 4242 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(sim.reg(kStation, 300), 4242);
    EXPECT_EQ(sim.reg(2, 300), 4242) << "every station takes a broadcast";
    const uint64_t replies = sim.counters().replies;
    modbus_set_slave(ctx, 9);
    EXPECT_EQ(modbus_read_registers(ctx, 100, 1, regs), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(sim.counters().broadcasts, 1u);
    EXPECT_EQ(sim.counters().otherStations, 1u);
    EXPECT_EQ(sim.counters().replies, replies) << "neither is answered";

    modbus_set_response_timeout(ctx, 1, 0);
    modbus_set_slave(ctx, kStation);
    rtusupport::Limits small;
    small.maxReadRegisters = 8;
    sim.setLimits(small);
    EXPECT_EQ(modbus_read_registers(ctx, 0, 9, regs), -1);
    EXPECT_EQ(errno, EMBXILVAL) << "a quantity above the limit";
    const uint8_t raw[] = {kStation, 0x2B, 0x0E, 0x01, 0x00};
    ASSERT_GT(modbus_send_raw_request(ctx, raw, sizeof raw), 0);
    uint8_t reply[MODBUS_RTU_MAX_ADU_LENGTH];
    ASSERT_EQ(modbus_receive_confirmation(ctx, reply), 5) << "a raw exchange hands the exception over as bytes";
    EXPECT_EQ(reply[1], 0xAB);
    EXPECT_EQ(reply[2], MODBUS_EXCEPTION_ILLEGAL_FUNCTION) << "a function the controller does not serve";
    rtusupport::Faults busy;
    busy.exception = 1.0;
    sim.setFaults(busy);
    EXPECT_EQ(modbus_write_register(ctx, 100, 1), -1);
    EXPECT_EQ(errno, EMBXSBUSY);
    EXPECT_EQ(sim.reg(kStation, 100), 0xBEEF) << "a refused write is not executed";
    EXPECT_EQ(sim.counters().exceptions, 3u);
    sim.stop();
}

} // namespace
