// The driver, loaded as a host loads it, polls and writes a real Modbus RTU slave that
// nobody here wrote: libmodbus serving a mapping on one end of a pseudo-terminal.
#include <gtest/gtest.h>

#include <modbus.h>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "host_library.h"

namespace {

constexpr int kStation = 1;
constexpr int kMemory = 10000;

// A libmodbus RTU slave on the far end of a pseudo-terminal.
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
        mapping_ = modbus_mapping_new(kMemory, 0, kMemory, 0);
        ctx_ = modbus_new_rtu(name, 9600, 'E', 8, 1);
        if (!ctx_ || modbus_set_slave(ctx_, kStation) != 0 || modbus_connect(ctx_) != 0)
            return;
        modbus_set_indication_timeout(ctx_, 0, 50000);
        thread_ = std::thread([this] { serve(); });
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
        if (mapping_)
            modbus_mapping_free(mapping_);
        if (master_ >= 0)
            close(master_);
        if (slave_ >= 0)
            close(slave_);
    }
    bool ok() const { return thread_.joinable(); }
    modbus_mapping_t *mapping() { return mapping_; }

    // The host's side of the line: send a request, collect exactly `want` bytes.
    QByteArray transact(const FRAME_PRO &f)
    {
        if (f.frameLen > 0 && write(master_, f.frame, size_t(f.frameLen)) != f.frameLen)
            return QByteArray();
        QByteArray reply;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(f.replyLen ? 1000 : 20);
        while (reply.size() < f.replyLen) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0)
                break;
            pollfd p{master_, POLLIN, 0};
            if (poll(&p, 1, int(left.count())) <= 0)
                break;
            char buf[512];
            const ssize_t n = read(master_, buf, size_t(std::min<int>(int(sizeof buf), f.replyLen - reply.size())));
            if (n <= 0)
                break;
            reply.append(buf, int(n));
        }
        return reply;
    }

private:
    void serve()
    {
        std::vector<uint8_t> query(MODBUS_RTU_MAX_ADU_LENGTH);
        while (!stop_) {
            const int rc = modbus_receive(ctx_, query.data());
            if (rc > 0)
                modbus_reply(ctx_, query.data(), rc, mapping_);
        }
    }

    int master_ = -1;
    int slave_ = -1;
    modbus_t *ctx_ = nullptr;
    modbus_mapping_t *mapping_ = nullptr;
    std::thread thread_;
    std::atomic<bool> stop_{false};
};

KEY_ADDRESS item(const char *reg, int start, int len)
{
    KEY_ADDRESS k;
    k.station = kStation;
    k.regName = reg;
    k.startAddr = start;
    k.len = len;
    k.bitPos = 0;
    return k;
}

class AgainstLibmodbus : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(lib.ok()) << lib.error();
        ASSERT_TRUE(slave.ok());
        for (int i = 0; i < kMemory; ++i) {
            slave.mapping()->tab_bits[i] = uint8_t((i * 7) % 3 == 0);
            slave.mapping()->tab_registers[i] = uint16_t(i * 31 + 7);
        }
        int err = 0;
        lib.initProperty(memory.data(), 0, recipe.data(), &err, "1#0#0#3#64", &hostLock);
    }

    // Runs `n` cycles; counts the requests that did not succeed.
    int cycles(int n)
    {
        int failed = 0;
        for (int i = 0; i < n; ++i) {
            FRAME_PRO f;
            if (lib.getSendFrame(f) != 1)
                continue;
            QString what;
            const int r = lib.dealRcvFrame(slave.transact(f), what);
            if (r != 1) {
                ++failed;
                ADD_FAILURE() << "request " << what.toStdString() << " gave " << r;
            }
        }
        return failed;
    }

    std::vector<uint8_t> get(const char *reg, int addr, int count, int bytes)
    {
        std::vector<uint8_t> out(size_t(bytes), 0xEE);
        EXPECT_EQ(lib.getData(kStation, reg, addr, count, out.data()), 1);
        return out;
    }
    uint16_t reg(int a) { return slave.mapping()->tab_registers[a]; }
    uint32_t pair(int a) { return (uint32_t(reg(a)) << 16) | reg(a + 1); }

    HostLibrary lib;
    PtySlave slave;
    std::vector<unsigned char> memory = std::vector<unsigned char>(65536, 0);
    std::vector<unsigned short> recipe = std::vector<unsigned short>(64, 0);
    QMutex hostLock;
};

TEST_F(AgainstLibmodbus, PolledValuesEqualTheSlavesMemory)
{
    struct Bits {
        const char *reg;
        int start, len, base;
    } bits[] = {{"X", 0, 16, 1200}, {"Y", 0, 8, 0}, {"M", 100, 16, 2000}, {"SM", 0, 8, 4400},
                {"S", 10, 5, 6000}, {"T", 0, 8, 8000}, {"C", 0, 8, 9200}};
    struct Words {
        const char *reg;
        int start, len, base;
    } words[] = {{"D_W", 100, 10, 0}, {"CV", 0, 10, 9500}, {"TV", 5, 5, 9000}, {"Z", 0, 16, 8500},
                 {"SD", 0, 10, 8000}, {"D_W", 7875, 125, 0}};
    QList<KEY_ADDRESS> items;
    for (const Bits &b : bits)
        items << item(b.reg, b.start, b.len);
    for (const Words &w : words)
        items << item(w.reg, w.start, w.len);
    items << item("D_D", 200, 4) << item("32C", 200, 8);
    const int blocks = lib.addrMerge(items);
    ASSERT_GT(blocks, 0);
    EXPECT_EQ(cycles(blocks), 0);

    for (const Bits &b : bits) {
        const std::vector<uint8_t> got = get(b.reg, b.start, b.len, b.len);
        for (int i = 0; i < b.len; ++i)
            EXPECT_EQ(got[size_t(i)], slave.mapping()->tab_bits[b.base + b.start + i]) << b.reg << b.start + i;
    }
    for (const Words &w : words) {
        const std::vector<uint8_t> got = get(w.reg, w.start, w.len, 2 * w.len);
        for (int i = 0; i < w.len; ++i)
            EXPECT_EQ(got[size_t(2 * i)] | (got[size_t(2 * i + 1)] << 8), reg(w.base + w.start + i)) << w.reg << w.start + i;
    }
    // D_D: the register at the lower address is the high half.
    const std::vector<uint8_t> dd = get("D_D", 200, 4, 8);
    for (int j = 0; j < 2; ++j) {
        const uint32_t v = dd[size_t(4 * j)] | dd[size_t(4 * j + 1)] << 8 | dd[size_t(4 * j + 2)] << 16 |
                           uint32_t(dd[size_t(4 * j + 3)]) << 24;
        EXPECT_EQ(v, pair(200 + 2 * j)) << "D_D " << 200 + 2 * j;
    }
    // 32C: value v of a block read from s comes from registers base + s + 2(v - s).
    const std::vector<uint8_t> c = get("32C", 200, 8, 16);
    for (int v = 0; v < 4; ++v) {
        const uint32_t got = c[size_t(4 * v)] | c[size_t(4 * v + 1)] << 8 | c[size_t(4 * v + 2)] << 16 |
                             uint32_t(c[size_t(4 * v + 3)]) << 24;
        EXPECT_EQ(got, pair(9500 + 200 + 2 * v)) << "32C " << 200 + v;
    }
}

TEST_F(AgainstLibmodbus, WritesLandAtBasePlusAddress)
{
    uint8_t xs[3] = {1, 0, 1};
    slave.mapping()->tab_bits[1205] = 1;
    ASSERT_EQ(lib.setData(kStation, "X", 4, 3, xs, 2), 1);
    uint8_t w[2] = {0xEF, 0xBE};
    ASSERT_EQ(lib.setData(kStation, "D_W", 105, 1, w, 2), 1);
    uint8_t dd[4] = {0x78, 0x56, 0x34, 0x12};
    ASSERT_EQ(lib.setData(kStation, "D_D", 202, 2, dd, 2), 1);
    const uint32_t big = 70000;
    uint8_t c32[4] = {uint8_t(big), uint8_t(big >> 8), uint8_t(big >> 16), uint8_t(big >> 24)};
    ASSERT_EQ(lib.setData(kStation, "32C", 201, 2, c32, 2), 1);
    uint8_t m[20];
    for (int i = 0; i < 20; ++i)
        m[i] = uint8_t(i % 2);
    ASSERT_EQ(lib.setData(kStation, "M", 1990, 10, m, 2), 1);
    EXPECT_EQ(cycles(5), 0);

    EXPECT_EQ(slave.mapping()->tab_bits[1204], 1);
    EXPECT_EQ(slave.mapping()->tab_bits[1205], 0);
    EXPECT_EQ(slave.mapping()->tab_bits[1206], 1);
    EXPECT_EQ(reg(105), 0xBEEF);
    EXPECT_EQ(pair(202), 0x12345678u);
    EXPECT_EQ(pair(9500 + 201), big);
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(slave.mapping()->tab_bits[2000 + 1990 + i], i % 2) << i;
    // Settled writes read back as written.
    const std::vector<uint8_t> got = get("D_W", 105, 1, 2);
    EXPECT_EQ(got[0] | got[1] << 8, 0xBEEF);
}

TEST_F(AgainstLibmodbus, RecipeDownloadedThenUploadedComesBackUnchanged)
{
    QVector<_RCP_VAR_PRO> vars;
    const auto add = [&](const char *reg, int start, int len, int offset) {
        _RCP_VAR_PRO v;
        v.driverId = 1;
        v.station = kStation;
        v.regName = reg;
        v.startAddr = start;
        v.len = len;
        v.rcpOffset = offset;
        vars << v;
    };
    add("D_W", 300, 4, 0);
    add("D_D", 310, 2, 4);
    add("32C", 220, 2, 6);
    add("Y", 20, 5, 8);
    add("CV", 50, 2, 13);
    ASSERT_EQ(lib.setRcpAddress(vars), 5);
    const std::vector<unsigned short> values = {0x1111, 0x2222, 0x3333, 0x4444, 0x5678, 0x1234, 0x0002, 0x0001,
                                                1,      0,      1,      1,      0,      0xAAAA, 0xBBBB};
    std::copy(values.begin(), values.end(), recipe.begin());

    memory[60115] = 1;
    for (int i = 0; i < 20 && memory[60115] != 0; ++i)
        EXPECT_EQ(cycles(1), 0);
    EXPECT_EQ(memory[60115], 0);
    EXPECT_EQ(reg(300), 0x1111);
    EXPECT_EQ(reg(303), 0x4444);
    EXPECT_EQ(pair(310), 0x12345678u);
    EXPECT_EQ(pair(9500 + 220), 0x00010002u);
    EXPECT_EQ(slave.mapping()->tab_bits[20], 1);
    EXPECT_EQ(slave.mapping()->tab_bits[21], 0);
    EXPECT_EQ(reg(9550), 0xAAAA);

    std::fill(recipe.begin(), recipe.end(), 0);
    memory[60116] = 1;
    for (int i = 0; i < 20 && memory[60116] != 0; ++i)
        EXPECT_EQ(cycles(1), 0);
    EXPECT_EQ(memory[60116], 0);
    EXPECT_EQ(std::vector<unsigned short>(recipe.begin(), recipe.begin() + long(values.size())), values);
}

} // namespace
