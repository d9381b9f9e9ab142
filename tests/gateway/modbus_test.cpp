// The gateway's Modbus server in parts: no malformed request passes the checks, the
// cache never answers with a value older than asked, from before a write, or for
// another station, table or address, and the configuration refuses a server open to
// other machines without a list of client networks.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config.h"
#include "config_server.h"
#include "modbus_cache.h"
#include "modbus_pdu.h"

using namespace rtugw;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes withCrc(Bytes frame)
{
    const uint16_t crc = rtuplc::crc16(frame.data(), frame.size());
    frame.push_back(uint8_t(crc & 0xFF));
    frame.push_back(uint8_t(crc >> 8));
    return frame;
}

struct PduRow {
    const char *what;
    Bytes pdu;
    uint8_t code; // 0: served
    uint16_t address, quantity;
};

TEST(ModbusPdu, EveryRequestIsCheckedBeforeItCanReachTheLine)
{
    const std::vector<PduRow> rows = {
        // clang-format off
        {"read of 125 registers",           {0x03, 0x00, 0x64, 0x00, 0x7D}, 0, 100, 125},
        {"read of 126 registers",           {0x03, 0x00, 0x64, 0x00, 0x7E}, 0x03, 0, 0},
        {"read of none",                    {0x04, 0x00, 0x00, 0x00, 0x00}, 0x03, 0, 0},
        {"the last register",               {0x03, 0xFF, 0xFF, 0x00, 0x01}, 0, 65535, 1},
        {"a block past 65535",              {0x03, 0xFF, 0xFF, 0x00, 0x02}, 0x02, 0, 0},
        {"2000 coils",                      {0x01, 0x00, 0x00, 0x07, 0xD0}, 0, 0, 2000},
        {"2001 inputs",                     {0x02, 0x00, 0x00, 0x07, 0xD1}, 0x03, 0, 0},
        {"a read with a byte too many",     {0x03, 0x00, 0x64, 0x00, 0x01, 0x00}, 0x03, 0, 0},
        {"a read cut short",                {0x03, 0x00, 0x64}, 0x03, 0, 0},
        {"coil on",                         {0x05, 0x00, 0x07, 0xFF, 0x00}, 0, 7, 1},
        {"coil set to 1234",                {0x05, 0x00, 0x07, 0x12, 0x34}, 0x03, 0, 0},
        {"one register",                    {0x06, 0x01, 0x00, 0xAB, 0xCD}, 0, 256, 1},
        {"1968 coils",                      [] { Bytes b{0x0F, 0, 0, 0x07, 0xB0, 246}; b.resize(6 + 246); return b; }(), 0, 0, 1968},
        {"1969 coils",                      [] { Bytes b{0x0F, 0, 0, 0x07, 0xB1, 247}; b.resize(6 + 247); return b; }(), 0x03, 0, 0},
        {"coils, byte count one short",     {0x0F, 0x00, 0x00, 0x00, 0x09, 0x01, 0xFF}, 0x03, 0, 0},
        {"123 registers",                   [] { Bytes b{0x10, 0, 0, 0, 123, 246}; b.resize(6 + 246); return b; }(), 0, 0, 123},
        {"124 registers",                   [] { Bytes b{0x10, 0, 0, 0, 124, 248}; b.resize(6 + 248); return b; }(), 0x03, 0, 0},
        {"registers, data missing",         {0x10, 0x00, 0x00, 0x00, 0x02, 0x04, 0x00, 0x01}, 0x03, 0, 0},
        {"registers past 65535",            {0x10, 0xFF, 0xFF, 0x00, 0x02, 0x04, 0, 1, 0, 2}, 0x02, 0, 0},
        {"an unknown function",             {0x2B, 0x0E, 0x01, 0x00}, 0x01, 0, 0},
        {"an exception code as a function", {0x83, 0x02}, 0x01, 0, 0},
        {"nothing",                         {}, 0x01, 0, 0},
        // clang-format on
    };
    for (const PduRow &row : rows) {
        mb::Request r;
        EXPECT_EQ(mb::checkPdu(row.pdu.data(), row.pdu.size(), &r), row.code) << row.what;
        if (row.code == 0) {
            EXPECT_EQ(std::make_pair(r.address, r.quantity), std::make_pair(row.address, row.quantity)) << row.what;
        }
    }
}

struct MbapRow {
    const char *what;
    Bytes stream;
    mb::Cut cut;
    size_t frameBytes;
};

TEST(ModbusPdu, ModbusTcpFramesAreCutByTheirLengthAndAnythingElseIsRefused)
{
    const Bytes read = {0x12, 0x34, 0, 0, 0, 6, 1, 0x03, 0x00, 0x64, 0x00, 0x02};
    Bytes two = read;
    two.insert(two.end(), read.begin(), read.end());
    const std::vector<MbapRow> rows = {
        // clang-format off
        {"a whole read",                  read, mb::Cut::Frame, 12},
        {"two back to back: the first",   two, mb::Cut::Frame, 12},
        {"the header only",               Bytes(read.begin(), read.begin() + 7), mb::Cut::NeedMore, 0},
        {"a PDU not all there",           Bytes(read.begin(), read.end() - 1), mb::Cut::NeedMore, 0},
        {"protocol id 1",                 {0, 1, 0, 1, 0, 6, 1, 3, 0, 0, 0, 1}, mb::Cut::Bad, 0},
        {"length over 254",               {0, 1, 0, 0, 0, 255, 1}, mb::Cut::Bad, 0},
        {"length of the unit alone",      {0, 1, 0, 0, 0, 1, 1}, mb::Cut::Bad, 0},
        // clang-format on
    };
    for (const MbapRow &row : rows) {
        mb::Mbap m;
        EXPECT_EQ(mb::cutMbap(row.stream.data(), row.stream.size(), &m), row.cut) << row.what;
        if (row.cut == mb::Cut::Frame) {
            EXPECT_EQ(std::make_tuple(m.frameBytes, m.transaction, m.unit, m.pduBytes),
                      std::make_tuple(row.frameBytes, uint16_t(0x1234), uint8_t(1), size_t(5)))
                << row.what;
        }
    }
    // A reply goes back in the framing its request came in.
    const uint8_t pdu[] = {0x83, 0x0B};
    Bytes mbap, rtu;
    mb::appendMbap(mbap, 0xBEEF, 7, pdu, sizeof pdu);
    mb::appendRtu(rtu, 7, pdu, sizeof pdu);
    EXPECT_EQ(mbap, (Bytes{0xBE, 0xEF, 0, 0, 0, 3, 7, 0x83, 0x0B}));
    EXPECT_EQ(rtu, withCrc({7, 0x83, 0x0B}));
}

// What the line carried, and a read asked of the cache afterwards.
struct Said {
    Bytes request, reply; // RTU frames, without CRC (added here)
    int agoMs;            // how long before the read it was heard
};
struct CacheRow {
    const char *what;
    std::vector<Said> line;
    int station, table, address, quantity, maxAgeMs;
    Bytes expected; // empty: not answered from the cache
};

TEST(ModbusCache, AnswersOnlyWithWhatTheControllerSentLatelyForThoseAddresses)
{
    using T = mb::Table;
    // Holding 100..103 read at station 1: 0x0101, 0x0202, 0x0303, 0x0404.
    const Said regs = {{1, 3, 0, 100, 0, 4}, {1, 3, 8, 1, 1, 2, 2, 3, 3, 4, 4}, 10};
    // Coils 2000..2015: 0b10100101, 0b00001111.
    const Said coils = {{1, 1, 0x07, 0xD0, 0, 16}, {1, 1, 2, 0xA5, 0x0F}, 10};
    // Registers 250..261, across the cache's page boundary at 256.
    Said across = {{1, 3, 0, 250, 0, 12}, {1, 3, 24}, 10};
    for (int i = 0; i < 12; ++i)
        across.reply.insert(across.reply.end(), {uint8_t((250 + i) >> 8), uint8_t(250 + i)});
    const Said write102 = {{1, 6, 0, 102, 0x12, 0x34}, {1, 6, 0, 102, 0x12, 0x34}, 5};
    const Said writeCoils = {{1, 0x0F, 0x07, 0xD4, 0, 2, 1, 3}, {1, 0x0F, 0x07, 0xD4, 0, 2}, 5};
    Said reread = regs;
    reread.reply = {1, 3, 8, 1, 1, 2, 2, 0x12, 0x34, 4, 4};
    reread.agoMs = 1;
    const std::vector<CacheRow> rows = {
        // clang-format off
        {"the registers as sent",             {regs}, 1, int(T::Holding), 100, 4, 100, {1, 1, 2, 2, 3, 3, 4, 4}},
        {"a part of them",                    {regs}, 1, int(T::Holding), 101, 2, 100, {2, 2, 3, 3}},
        {"one address never read",            {regs}, 1, int(T::Holding), 101, 4, 100, {}},
        {"older than max-age",                {regs}, 1, int(T::Holding), 100, 4, 5, {}},
        {"another station",                   {regs}, 2, int(T::Holding), 100, 4, 100, {}},
        {"another table",                     {regs}, 1, int(T::Input), 100, 4, 100, {}},
        {"after a write to one of them",      {regs, write102}, 1, int(T::Holding), 100, 4, 100, {}},
        {"beside the write",                  {regs, write102}, 1, int(T::Holding), 100, 2, 100, {1, 1, 2, 2}},
        {"read again after the write",        {regs, write102, reread}, 1, int(T::Holding), 102, 1, 100, {0x12, 0x34}},
        {"coils packed from the lowest",      {coils}, 1, int(T::Coils), 2003, 10, 100, {0xF4, 0x01}},
        {"coils after a multiple write",      {coils, writeCoils}, 1, int(T::Coils), 2003, 3, 100, {}},
        {"coils before that write",           {coils, writeCoils}, 1, int(T::Coils), 2000, 4, 100, {0x05}},
        {"across a page",                     {across}, 1, int(T::Holding), 254, 4, 100, {0, 254, 0, 255, 1, 0, 1, 1}},
        {"an exception reply is no data",     {{{1, 3, 0, 100, 0, 4}, {1, 0x83, 2}, 10}}, 1, int(T::Holding), 100, 1, 100, {}},
        {"a byte count that does not fit",    {{{1, 3, 0, 100, 0, 2}, {1, 3, 2, 0, 1}, 10}}, 1, int(T::Holding), 100, 1, 100, {}},
        // clang-format on
    };
    for (const CacheRow &row : rows) {
        ModbusCache cache;
        const auto now = ModbusCache::Clock::now();
        for (const Said &s : row.line) {
            const Bytes request = withCrc(s.request), reply = withCrc(s.reply);
            cache.heard(request.data(), request.size(), reply.data(), reply.size(),
                        now - std::chrono::milliseconds(s.agoMs));
        }
        uint8_t data[256];
        const size_t n = cache.read(row.station, mb::Table(row.table), uint16_t(row.address), uint16_t(row.quantity),
                                    now - std::chrono::milliseconds(row.maxAgeMs), data);
        EXPECT_EQ(Bytes(data, data + n), row.expected) << row.what;
    }
}

TEST(ModbusServerConfig, WritableRangesAndClientNetworks)
{
    struct Row {
        const char *text;
        bool ok, coils = false;
        int first = 0, last = 0, station = 0;
    };
    const std::vector<Row> writable = {
        // clang-format off
        {"holding:100..119", true, false, 100, 119, 0},
        {"coils:7@2", true, true, 7, 7, 2},
        {"holding:0..65535@247", true, false, 0, 65535, 247},
        {"holding:10..9", false}, {"holding:0..65536", false}, {"coils:1@248", false},
        {"input:0..9", false}, {"discrete:0", false}, {"registers:0..9", false}, {"holding:", false},
        {"holding:a..b", false}, {"100..119", false},
        // clang-format on
    };
    for (const Row &row : writable) {
        ModbusServerConfig::Writable w;
        std::string why;
        ASSERT_EQ(parseWritable(row.text, &w, &why), row.ok) << row.text;
        if (row.ok) {
            EXPECT_EQ(std::make_tuple(w.coils, w.first, w.last, w.station),
                      std::make_tuple(row.coils, row.first, row.last, row.station))
                << row.text;
        }
    }
    std::vector<ModbusServerConfig::Network> allow(2);
    ASSERT_TRUE(parseNetwork("10.1.2.0/23", &allow[0]) && parseNetwork("fd00::/8", &allow[1]));
    for (const char *bad : {"10.1.2.0/33", "10.1.2/24", "host", "::1/129", ""})
        EXPECT_FALSE(parseNetwork(bad, &allow[0])) << bad;
    ASSERT_TRUE(parseNetwork("10.1.2.0/23", &allow[0]));
    struct Peer {
        const char *address;
        bool in;
    };
    for (const Peer &p : {Peer{"10.1.3.255", true}, Peer{"10.1.4.0", false}, Peer{"::ffff:10.1.2.9", true},
                          Peer{"fd12::1", true}, Peer{"fe80::1", false}, Peer{"127.0.0.1", false}}) {
        sockaddr_in6 a6{};
        sockaddr_in a4{};
        const bool v4 = inet_pton(AF_INET, p.address, &a4.sin_addr) == 1;
        a4.sin_family = AF_INET;
        a6.sin6_family = AF_INET6;
        ASSERT_TRUE(v4 || inet_pton(AF_INET6, p.address, &a6.sin6_addr) == 1) << p.address;
        const sockaddr *peer = v4 ? reinterpret_cast<const sockaddr *>(&a4) : reinterpret_cast<const sockaddr *>(&a6);
        EXPECT_EQ(inNetworks(allow, peer), p.in) << p.address;
    }
    for (const char *host : {"127.0.0.1", "127.9.9.9", "::1", "localhost"})
        EXPECT_TRUE(isLoopbackHost(host)) << host;
    for (const char *host : {"0.0.0.0", "::", "10.0.0.1", "gateway.local", "128.0.0.1"})
        EXPECT_FALSE(isLoopbackHost(host)) << host;
}

// The section as a file gives it: mistakes named with file, line and key; a server
// reachable from other machines without allow: or TLS is refused.
TEST(ModbusServerConfig, SectionIsCheckedLikeTheRest)
{
    const std::string dir = std::filesystem::temp_directory_path() / ("rtuplc-mbcfg-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir + "/x.pem") << "pem\n";
    const std::string base = "line:\n  tcp: 127.0.0.1:8000\nitems:\n  - D_W:0..9\nmodbus-server:\n";
    struct Row {
        const char *what;
        std::string section;
        std::string error; // empty: loads
    };
    const std::vector<Row> rows = {
        // clang-format off
        {"every key, on loopback",     "  tcp: 127.0.0.1:1502\n  rtu-over-tcp: '[::1]:1503'\n  writable: [holding:1..2]\n"
                                       "  max-age: 250ms\n  poll-share: 0.8\n  queue: 4\n  request-timeout: 2s\n"
                                       "  max-connections: 8\n  idle-timeout: 5m\n  cache: false\n", ""},
        {"beyond loopback, allowed",   "  tcp: 0.0.0.0:502\n  allow: [10.0.0.0/8]\n", ""},
        {"TLS beyond loopback",        "  tls: { listen: 0.0.0.0:802, cert: x.pem, key: x.pem, ca: x.pem }\n", ""},
        {"beyond loopback, open",      "  tcp: 0.0.0.0:502\n", "gw.yaml:6: modbus-server.tcp: 0.0.0.0:502 can be reached from other machines"},
        {"RTU beyond loopback, open",  "  tls: { cert: x.pem, key: x.pem, ca: x.pem }\n  rtu-over-tcp: 10.0.0.5:1503\n",
                                       "gw.yaml:7: modbus-server.rtu-over-tcp:"},
        {"a typo",                     "  max-connection: 8\n", "gw.yaml:6: modbus-server.max-connection: unknown key"},
        {"TLS without its authority",  "  tls: { cert: x.pem, key: x.pem }\n", "modbus-server.tls.ca: missing"},
        {"a table not writable",       "  writable: [input:0..9]\n", "gw.yaml:6: modbus-server.writable: input cannot be written"},
        {"an address not a network",   "  allow: [plant]\n", "gw.yaml:6: modbus-server.allow: must be like"},
        {"settings without serial",    "  settings: 9600,8,EVEN,1\n", "gw.yaml:6: modbus-server.settings: only with"},
        {"a share over 1",             "  poll-share: 1.5\n", "modbus-server.poll-share: must be a share"},
        {"a time-out of nothing",      "  request-timeout: 1ms\n", "modbus-server.request-timeout: must be from"},
        {"no room in the queue",       "  queue: 0\n", "modbus-server.queue:"},
        // clang-format on
    };
    for (const Row &row : rows) {
        const std::string path = dir + "/gw.yaml";
        std::ofstream(path, std::ios::trunc) << base << row.section;
        Config c;
        std::string error;
        EXPECT_EQ(loadConfig(path, &c, &error), row.error.empty()) << row.what << ": " << error;
        if (!row.error.empty()) {
            EXPECT_NE(error.find(row.error), std::string::npos) << row.what << ": " << error;
        }
    }
    // An empty section serves Modbus TCP on loopback with the agreed defaults.
    std::ofstream(dir + "/gw.yaml", std::ios::trunc) << base;
    Config c;
    std::string error;
    ASSERT_TRUE(loadConfig(dir + "/gw.yaml", &c, &error)) << error;
    const ModbusServerConfig &m = c.modbusServer;
    EXPECT_EQ(std::make_tuple(m.enabled, m.tcp.on, m.tcp.text, m.rtuOverTcp.on, m.tls.on, m.cache),
              std::make_tuple(true, true, "127.0.0.1:1502", false, false, true));
    EXPECT_EQ(std::make_tuple(m.queue, m.requestTimeoutMs, m.maxConnections, m.idleTimeoutMs, m.maxAgeMs),
              std::make_tuple(16, 1000ll, 64, 60000ll, 0ll));
    EXPECT_TRUE(m.writable.empty()) << "a read-only server unless told";
    std::filesystem::remove_all(dir);
}

} // namespace
