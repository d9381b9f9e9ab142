// rtuplc-poll against a standard Modbus RTU slave that nobody here wrote: libmodbus's
// server, on the master side of the pseudo-terminal rtuplc-poll opens. Every area's
// values must come from base + address (32-bit counters as their read frame places
// them), on a stdout of JSON only, each once; writes must change exactly what the
// driver's write frame names; and a read over 125 registers, which standard slaves
// refuse, must be explained.
#include <gtest/gtest.h>

#include <modbus.h>

#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "poll_process.h"

namespace {

constexpr int kStation = 1;
constexpr int kUnits = 10000; // coils and registers 0..9999: every area's base and more

class StandardSlave : public ::testing::Test {
protected:
    void SetUp() override
    {
        // libmodbus serves on the master side of a pseudo-terminal; rtuplc-poll opens
        // the terminal itself.
        termios raw{};
        cfmakeraw(&raw);
        char name[128];
        ASSERT_EQ(openpty(&master, &slave, name, &raw, nullptr), 0);
        path = name;
        map = modbus_mapping_new_start_address(0, kUnits, 0, 0, 0, kUnits, 0, 0);
        ASSERT_NE(map, nullptr);
        for (int a = 0; a < kUnits; ++a) {
            map->tab_registers[a] = uint16_t(a * 7 + 3);
            map->tab_bits[a] = uint8_t(uint32_t(a) * 2654435761u >> 31); // irregular: a shifted read shows
        }
        ctx = modbus_new_rtu(name, 9600, 'E', 8, 1);
        ASSERT_NE(ctx, nullptr);
        modbus_set_slave(ctx, kStation);
        modbus_set_socket(ctx, master);
        modbus_set_indication_timeout(ctx, 0, 50000); // to see the stop flag
        server = std::thread([this] {
            uint8_t query[MODBUS_RTU_MAX_ADU_LENGTH];
            while (!stop) {
                const int n = modbus_receive(ctx, query);
                if (n > 0)
                    modbus_reply(ctx, query, n, map);
            }
        });
    }
    void TearDown() override
    {
        stop = true;
        if (server.joinable())
            server.join();
        if (ctx)
            modbus_free(ctx);
        close(master);
        close(slave); // held open so that the master side outlives rtuplc-poll's use
        if (map)
            modbus_mapping_free(map);
    }

    tooltest::Run poll(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--serial", path, "--once", "--json"});
        return tooltest::poll(args);
    }

    int master = -1, slave = -1;
    std::string path;
    modbus_mapping_t *map = nullptr;
    modbus_t *ctx = nullptr;
    std::atomic<bool> stop{false};
    std::thread server;
};

TEST_F(StandardSlave, ValuesWritesAndTheReadLimit)
{
    // Every area; X:0..17 is sixteen inputs (octal), D_D:200..203 the values at 200 and 202.
    const tooltest::Run r = poll({"D_W:100..109", "X:0..17", "D_D:200..203", "32C:200..203", "M:0..15", "Y:0..7",
                                  "SM:3", "S:0..2", "T:1..4", "C:0", "CV:0..3", "TV:10", "Z:0..15", "SD:0..1"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const tooltest::JsonOutput j = tooltest::parseJson(r.out);
    EXPECT_TRUE(j.other.empty()) << "stdout holds JSON only: " << j.other.front();
    constexpr int kValues = 10 + 16 + 2 + 4 + 16 + 8 + 1 + 3 + 4 + 1 + 4 + 1 + 16 + 2;
    EXPECT_EQ(j.valueLines, kValues) << r.out;
    ASSERT_EQ(int(j.values.size()), kValues) << "each value once";
    EXPECT_EQ(j.values.count({kStation, "X", 15}) + j.values.count({kStation, "D_D", 202}), 2u) << "X:17 is 15";
    const auto bit = [&](int a) { return map->tab_bits[a]; };
    const auto reg = [&](int a) { return map->tab_registers[a]; };
    for (const auto &[key, value] : j.values) {
        const auto &[station, item, address] = key;
        EXPECT_EQ(value, tooltest::held(item, address, 200, bit, reg)) << item << address; // at its area's base
    }

    // Writes change what the driver's write frame names, and nothing else.
    std::vector<uint16_t> registers(map->tab_registers, map->tab_registers + kUnits);
    std::vector<uint8_t> bits(map->tab_bits, map->tab_bits + kUnits);
    const tooltest::Run w =
        poll({"--write", "D_W:100=1234", "--write", "X:7=1", "--write", "D_D:200=-5", "--write", "32C:201=70000",
              "--write", "SD:9=-1", "--write", "D_W:101=-1", "--write", "Y:2=0", "--write", "M:1999=1"});
    ASSERT_EQ(w.exitCode, 0) << w.err;
    const tooltest::JsonOutput k = tooltest::parseJson(w.out);
    EXPECT_EQ(k.values.at({kStation, "D_W", 100}), 1234u);
    EXPECT_EQ(k.values.at({kStation, "D_D", 200}), 4294967291u);
    EXPECT_EQ(k.values.at({kStation, "32C", 201}), 70000u);
    EXPECT_NE(w.err.find("write D_D:200=-5: confirmed"), std::string::npos) << w.err;
    registers[100] = 1234;
    registers[101] = 0xFFFF;
    registers[200] = 0xFFFF; // high register first, as two's complement
    registers[201] = 0xFFFB;
    registers[9701] = 0x0001; // the counter write starts at 9500 + 201
    registers[9702] = 0x1170;
    registers[8009] = 0xFFFF;
    bits[1207] = 1;
    bits[2] = 0;
    bits[3999] = 1;
    for (int a = 0; a < kUnits; ++a) {
        EXPECT_EQ(map->tab_registers[a], registers[size_t(a)]) << "register " << a;
        EXPECT_EQ(map->tab_bits[a], bits[size_t(a)]) << "coil " << a;
    }

    // A read over 125 registers is refused with an exception, which is handed over at
    // once (waiting out this time-out thrice would end the run by its limit) and explained.
    const tooltest::Run over = poll({"--timeout", "20000", "D_W:0..127"});
    EXPECT_EQ(over.exitCode, 1);
    EXPECT_EQ(tooltest::parseJson(over.out).errors, (std::vector<std::string>{"1#D_W0(128)"}));
    EXPECT_NE(over.err.find("exception 03 (illegal data value) after 3 attempts"), std::string::npos) << over.err;
    EXPECT_NE(over.err.find("standard Modbus slaves stop at 125 while this controller takes 128"), std::string::npos);

    const tooltest::Run fits = poll({"D_W:0..124"});
    EXPECT_EQ(fits.exitCode, 0) << fits.err;
}

} // namespace
