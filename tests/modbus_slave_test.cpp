// The driver, loaded as a host loads it, polls and writes a real Modbus RTU slave that
// nobody here wrote: libmodbus serving a mapping on one end of a pseudo-terminal.
#include <gtest/gtest.h>

#include <modbus.h>

#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "rtuplc_support/driver_api.h"

namespace {

constexpr int kMemory = 10000;

// A libmodbus RTU slave, station 1, on the far end of a pseudo-terminal.
class PtySlave {
public:
    PtySlave()
    {
        char name[256] = {};
        if (openpty(&master_, &slave_, name, nullptr, nullptr) != 0)
            return;
        termios t{};
        tcgetattr(slave_, &t);
        cfmakeraw(&t);
        tcsetattr(slave_, TCSANOW, &t);
        map = modbus_mapping_new(kMemory, 0, kMemory, 0);
        ctx_ = modbus_new_rtu(name, 9600, 'E', 8, 1);
        if (!ctx_ || modbus_set_slave(ctx_, 1) != 0 || modbus_connect(ctx_) != 0)
            return;
        modbus_set_indication_timeout(ctx_, 0, 50000);
        thread_ = std::thread([this] {
            std::vector<uint8_t> query(MODBUS_RTU_MAX_ADU_LENGTH);
            while (!stop_) {
                const int rc = modbus_receive(ctx_, query.data());
                if (rc > 0)
                    modbus_reply(ctx_, query.data(), rc, map);
            }
        });
    }
    ~PtySlave()
    {
        stop_ = true;
        if (thread_.joinable())
            thread_.join();
        if (ctx_) {
            modbus_close(ctx_);
            modbus_free(ctx_);
        }
        modbus_mapping_free(map);
        close(master_);
        close(slave_);
    }
    bool ok() const { return thread_.joinable(); }

    // The host's side of the line: send a request, collect the reply's expected length.
    QByteArray transact(const FRAME_PRO &f)
    {
        QByteArray reply;
        if (write(master_, f.frame, size_t(f.frameLen)) != f.frameLen)
            return reply;
        pollfd p{master_, POLLIN, 0};
        while (reply.size() < f.replyLen && poll(&p, 1, 1000) > 0) {
            char buf[512];
            const ssize_t n = read(master_, buf, size_t(f.replyLen - reply.size()));
            if (n <= 0)
                break;
            reply.append(buf, int(n));
        }
        return reply;
    }

    modbus_mapping_t *map = nullptr;

private:
    int master_ = -1;
    int slave_ = -1;
    modbus_t *ctx_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stop_{false};
};

class AgainstLibmodbus : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(rtusupport::loadDriver(RTUPLC_LIBRARY, &lib, &error)) << error;
        ASSERT_TRUE(slave.ok());
        for (int i = 0; i < kMemory; ++i) {
            slave.map->tab_bits[i] = uint8_t((i * 7) % 3 == 0);
            slave.map->tab_registers[i] = uint16_t(i * 31 + 7);
        }
        int err = 0;
        lib.initProperty(nullptr, 0, nullptr, &err, "1#0#0#3#64", nullptr);
    }

    // Runs `n` cycles; every request must succeed.
    void cycles(int n)
    {
        for (int i = 0; i < n; ++i) {
            FRAME_PRO f;
            if (lib.getSendFrame(f) != 1)
                continue;
            QString what;
            EXPECT_EQ(lib.dealRcvFrame(slave.transact(f), what), 1) << what.toStdString();
        }
    }
    std::vector<uint8_t> get(const char *reg, int addr, int count, int bytes)
    {
        std::vector<uint8_t> out(size_t(bytes), 0xEE);
        EXPECT_EQ(lib.getData(1, reg, addr, count, out.data()), 1);
        return out;
    }
    static uint32_t le32(const std::vector<uint8_t> &b, size_t i)
    {
        return b[i] | b[i + 1] << 8 | b[i + 2] << 16 | uint32_t(b[i + 3]) << 24;
    }
    uint16_t reg(int a) { return slave.map->tab_registers[a]; }
    uint32_t pair(int a) { return (uint32_t(reg(a)) << 16) | reg(a + 1); } // high half first

    rtusupport::DriverApi lib;
    PtySlave slave;
};

KEY_ADDRESS item(const char *reg, int start, int len)
{
    KEY_ADDRESS k;
    k.station = 1;
    k.regName = reg;
    k.startAddr = start;
    k.len = len;
    k.bitPos = 0;
    return k;
}

// Every area is read at its own base in the slave's memory; writes land where they
// name, in the slave's byte and word order. (Recipe transfers use the same frames.)
TEST_F(AgainstLibmodbus, PollsAndWritesEveryKindOfArea)
{
    struct Area {
        const char *reg;
        int start, len, base;
        bool bits;
    } areas[] = {{"X", 0, 16, 1200, true},   {"Y", 0, 8, 0, true},        {"M", 100, 16, 2000, true},
                 {"SM", 0, 8, 4400, true},   {"S", 10, 5, 6000, true},    {"T", 0, 8, 8000, true},
                 {"C", 0, 8, 9200, true},    {"D_W", 100, 10, 0, false},  {"CV", 0, 10, 9500, false},
                 {"TV", 5, 5, 9000, false},  {"Z", 0, 16, 8500, false},   {"SD", 0, 10, 8000, false},
                 {"D_W", 7875, 125, 0, false}};
    QList<KEY_ADDRESS> items;
    for (const Area &a : areas)
        items << item(a.reg, a.start, a.len);
    items << item("D_D", 200, 4) << item("32C", 200, 8);
    const int blocks = lib.addrMerge(items);
    ASSERT_GT(blocks, 0);
    cycles(blocks);
    for (const Area &a : areas) {
        const std::vector<uint8_t> got = get(a.reg, a.start, a.len, a.bits ? a.len : 2 * a.len);
        for (int i = 0; i < a.len; ++i) {
            const int at = a.base + a.start + i;
            EXPECT_EQ(a.bits ? got[size_t(i)] : got[size_t(2 * i)] | got[size_t(2 * i + 1)] << 8,
                      a.bits ? slave.map->tab_bits[at] : reg(at))
                << a.reg << a.start + i;
        }
    }
    const std::vector<uint8_t> d = get("D_D", 200, 4, 8), c = get("32C", 200, 8, 16);
    for (int j = 0; j < 2; ++j)
        EXPECT_EQ(le32(d, size_t(4 * j)), pair(200 + 2 * j)) << "D_D " << 200 + 2 * j;
    for (int v = 0; v < 4; ++v) // 32C value 200 + v: registers 9500 + 200 + 2v (high) and the next
        EXPECT_EQ(le32(c, size_t(4 * v)), pair(9500 + 200 + 2 * v)) << "32C " << 200 + v;

    uint8_t xs[3] = {1, 0, 1}, w[2] = {0xEF, 0xBE}, dd[4] = {0x78, 0x56, 0x34, 0x12}, c32[4] = {0x70, 0x11, 0x01, 0};
    uint8_t m[10] = {0, 1, 0, 1, 0, 1, 0, 1, 0, 1};
    slave.map->tab_bits[1205] = 1;
    ASSERT_EQ(lib.setData(1, "X", 4, 3, xs, 2), 1);
    ASSERT_EQ(lib.setData(1, "D_W", 105, 1, w, 2), 1);
    ASSERT_EQ(lib.setData(1, "D_D", 202, 2, dd, 2), 1);
    ASSERT_EQ(lib.setData(1, "32C", 201, 2, c32, 2), 1);
    ASSERT_EQ(lib.setData(1, "M", 1990, 10, m, 2), 1);
    cycles(5);
    EXPECT_EQ(std::vector<uint8_t>(slave.map->tab_bits + 1204, slave.map->tab_bits + 1207),
              (std::vector<uint8_t>{1, 0, 1}));
    EXPECT_EQ(reg(105), 0xBEEF);
    EXPECT_EQ(pair(202), 0x12345678u);
    EXPECT_EQ(pair(9500 + 201), 70000u);
    EXPECT_EQ(std::vector<uint8_t>(slave.map->tab_bits + 3990, slave.map->tab_bits + 4000),
              std::vector<uint8_t>(m, m + 10));
    EXPECT_EQ(get("D_W", 105, 1, 2), (std::vector<uint8_t>{0xEF, 0xBE})) << "settled writes read back as written";
}

} // namespace
