// The gateway's Modbus server: no malformed request passes the checks, the cache never
// answers with a value older than asked, from before a write, or for another station,
// table or address; client networks are parsed as written. Then its core on loopback,
// with the test as the gateway's loop: what a master is answered at the gateway without
// line time, what goes on the line and comes back as the controller said it, and that a
// reply reaches the master and transaction that asked, once, in time or not at all.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

#include <bitset>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "config_server.h"
#include "modbus_cache.h"
#include "modbus_pdu.h"
#include "modbus_server.h"
#include "rtuplc_support/modbus.h"

using namespace rtugw;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Outcome = rtuhost::Exchange::Outcome;
using rtusupport::withCrc;

namespace {

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

// A PDU as it goes over a Modbus TCP connection, or an RTU-over-TCP one.
Bytes framed(uint16_t tid, uint8_t unit, const Bytes &pdu, bool rtu = false)
{
    Bytes b;
    if (rtu)
        mb::appendRtu(b, unit, pdu.data(), pdu.size());
    else
        mb::appendMbap(b, tid, unit, pdu.data(), pdu.size());
    return b;
}

// What arrives on fd within `wait`, as it came.
Bytes receiveFrom(int fd, std::chrono::milliseconds wait)
{
    Bytes got;
    pollfd p{fd, POLLIN, 0};
    while (::poll(&p, 1, int(wait.count())) > 0) {
        uint8_t buf[512];
        const ssize_t n = ::read(fd, buf, sizeof buf);
        if (n <= 0)
            break;
        got.insert(got.end(), buf, buf + n);
        wait = 50ms; // the rest of it, if any
    }
    return got;
}

class Master {
public:
    explicit Master(int port)
    {
        fd_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(uint16_t(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
    }
    ~Master() { close(); }
    void close()
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }
    void send(const Bytes &b) { ASSERT_EQ(::send(fd_, b.data(), b.size(), MSG_NOSIGNAL), ssize_t(b.size())); }
    void mbap(uint16_t tid, uint8_t unit, const Bytes &pdu) { send(framed(tid, unit, pdu)); }
    Bytes receive(std::chrono::milliseconds wait = 1000ms) { return receiveFrom(fd_, wait); }

private:
    int fd_ = -1;
};

struct Rig {
    Rig()
    {
        config.enabled = true;
        config.tcp = {true, "127.0.0.1:0", "127.0.0.1", 0, 1};
        config.rtuOverTcp = {true, "127.0.0.1:0", "127.0.0.1", 0, 1};
        config.writable = {{false, 100, 109, 0}};
        config.requestTimeoutMs = 300;
        config.queue = 2;
        config.maxAgeMs = 1000;
        server = std::make_unique<ModbusServer>(config, std::vector<int>{1, 2}, rtusupport::SerialLine{});
        std::string error;
        EXPECT_TRUE(server->start(&error)) << error;
    }
    // The loop's turn: takes what waits within `wait` and answers it with `line`;
    // the frame taken, empty when none.
    Bytes turn(const std::function<rtuhost::Exchange(const Bytes &)> &line, std::chrono::milliseconds wait = 300ms)
    {
        rtuhost::SharedRequest r;
        const auto until = Clock::now() + wait;
        while (!server->take(&r)) {
            if (Clock::now() >= until)
                return {};
            std::this_thread::sleep_for(1ms);
        }
        const rtuhost::Exchange x = line(r.frame);
        if (x.outcome == Outcome::Reply)
            server->heard(r.frame.data(), r.frame.size(), x.reply.data(), x.reply.size(), Clock::now());
        server->answered(r, x, 1000us);
        return r.frame;
    }

    ModbusServerConfig config;
    std::unique_ptr<ModbusServer> server;
};

rtuhost::Exchange says(Outcome outcome, Bytes reply = {}, std::chrono::milliseconds after = 0ms)
{
    std::this_thread::sleep_for(after);
    rtuhost::Exchange x;
    x.outcome = outcome;
    x.reply = reply.empty() ? reply : withCrc(reply);
    return x;
}

struct Row {
    const char *what;
    bool rtu; // over the rtu-over-tcp listener, else Modbus TCP
    uint8_t station;
    Bytes pdu;    // the master's request
    Bytes onLine; // the RTU frame expected on the line (without CRC); empty: nothing goes there
    std::function<rtuhost::Exchange()> line; // what the controller does with it
    Bytes answer;                            // the PDU the master gets; empty: silence
};

TEST(ModbusServer, AnswersAtTheGatewayOrWithTheControllersOwnWords)
{
    Rig rig;
    std::bitset<256> offline;
    offline.set(2);
    rig.server->setOffline(offline);
    // What the polling read lately: holding 0..3 of station 1.
    const Bytes polled = withCrc({1, 3, 0, 0, 0, 4}), values = withCrc({1, 3, 8, 0, 1, 0, 2, 0, 3, 0, 4});
    rig.server->heard(polled.data(), polled.size(), values.data(), values.size(), Clock::now());
    const auto at = [](uint8_t a) { return Bytes{3, 1, a, 0, 2}; };
    const auto onLine = [](uint8_t a) { return Bytes{1, 3, 1, a, 0, 2}; };
    const std::vector<Row> rows = {
        // clang-format off
        {"read lately: from the cache", false, 1, {3, 0, 1, 0, 2}, {}, nullptr, {3, 4, 0, 2, 0, 3}},
        {"a station not served: 0A", false, 9, {3, 0, 0, 0, 1}, {}, nullptr, {0x83, 0x0A}},
        {"a station not served over RTU: silence", true, 9, {3, 0, 0, 0, 1}, {}, nullptr, {}},
        {"a station offline: 0B at once", false, 2, {3, 0, 0, 0, 1}, {}, nullptr, {0x83, 0x0B}},
        {"a write outside writable: 02", false, 1, {6, 0, 200, 0, 1}, {}, nullptr, {0x86, 0x02}},
        {"a write half outside: 02", false, 1, {0x10, 0, 109, 0, 2, 4, 0, 1, 0, 2}, {}, nullptr, {0x90, 0x02}},
        {"a malformed request: 03", false, 1, {3, 0, 0, 0, 200}, {}, nullptr, {0x83, 0x03}},
        {"a write inside writable: the echo", false, 1, {6, 0, 100, 0, 7}, {1, 6, 0, 100, 0, 7},
         [] { return says(Outcome::Reply, {1, 6, 0, 100, 0, 7}); }, {6, 0, 100, 0, 7}},
        // Each read at an address of its own: one the line answered is in the cache.
        {"a read not polled: the controller's reply", false, 1, at(1), onLine(1),
         [] { return says(Outcome::Reply, {1, 3, 4, 0xAB, 0xCD, 0x12, 0x34}); }, {3, 4, 0xAB, 0xCD, 0x12, 0x34}},
        {"the same over RTU", true, 1, at(2), onLine(2),
         [] { return says(Outcome::Reply, {1, 3, 4, 0xAB, 0xCD, 0x12, 0x34}); }, {3, 4, 0xAB, 0xCD, 0x12, 0x34}},
        {"the controller refuses: its exception", false, 1, at(3), onLine(3),
         [] { return says(Outcome::Exception, {1, 0x83, 0x02}); }, {0x83, 0x02}},
        {"the controller is silent: 0B", false, 1, at(4), onLine(4), [] { return says(Outcome::NoReply); }, {0x83, 0x0B}},
        {"the line too slow: 0B, never the late reply", false, 1, at(5), onLine(5),
         [] { return says(Outcome::Reply, {1, 3, 4, 0, 0, 0, 0}, 500ms); }, {0x83, 0x0B}},
        // clang-format on
    };
    Master tcp(rig.server->boundPort("tcp")), rtu(rig.server->boundPort("rtu-over-tcp"));
    uint16_t tid = 100;
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        Master &m = row.rtu ? rtu : tcp;
        ++tid;
        m.send(framed(tid, row.station, row.pdu, row.rtu));
        const Bytes taken = rig.turn([&](const Bytes &) { return row.line(); }, row.onLine.empty() ? 50ms : 300ms);
        EXPECT_EQ(taken, row.onLine.empty() ? Bytes{} : withCrc(row.onLine));
        const Bytes expected = row.answer.empty() ? Bytes{} : framed(tid, row.station, row.answer, row.rtu);
        EXPECT_EQ(m.receive(row.answer.empty() ? 200ms : 1000ms), expected);
    }
    EXPECT_EQ(rig.server->stats().queued.load(), 0) << "every request left the line's queue";
}

// Several masters and several requests each: replies in each master's order, with its
// transaction ids, whatever order the line answers in; beyond the queue, busy; a master
// that left has nothing waiting for the line.
TEST(ModbusServer, EachReplyGoesToItsOwnMasterAndTransactionOnce)
{
    Rig rig;
    const int port = rig.server->boundPort("tcp");
    Master a(port), b(port), gone(port);
    const auto read = [](uint8_t address) { return Bytes{3, 1, address, 0, 1}; };
    for (uint16_t tid : {11, 12, 13})
        a.mbap(tid, 1, read(uint8_t(tid)));
    std::this_thread::sleep_for(50ms); // a's first, in the line's queue
    b.mbap(21, 1, read(21));
    gone.mbap(31, 1, read(31));
    std::this_thread::sleep_for(50ms);
    gone.close();
    std::vector<rtuhost::SharedRequest> taken(3);
    for (auto &r : taken)
        ASSERT_TRUE(rig.server->take(&r));
    std::this_thread::sleep_for(50ms);
    rtuhost::SharedRequest none;
    EXPECT_FALSE(rig.server->take(&none)) << "a's third was refused busy, gone's dropped with it";
    // The line answers in reverse, each with the address it was asked for as its value.
    for (auto r = taken.rbegin(); r != taken.rend(); ++r)
        rig.server->answered(*r, says(Outcome::Reply, {1, 3, 2, 0, r->frame[3]}), 1000us);
    Bytes expectA = framed(11, 1, {3, 2, 0, 11});
    for (const Bytes &more : {framed(12, 1, {3, 2, 0, 12}), framed(13, 1, {0x83, 0x06})})
        expectA.insert(expectA.end(), more.begin(), more.end());
    EXPECT_EQ(a.receive(), expectA);
    EXPECT_EQ(b.receive(), framed(21, 1, {3, 2, 0, 21}));
    EXPECT_EQ(a.receive(100ms), Bytes{}) << "answered once";
}

// The serial listener on a pseudo-terminal, as a panel wired to the gateway sees it:
// frames ended by their length, or by silence for a function it does not know, and a
// quiet line between them is no reason to let go of the port.
TEST(ModbusServer, ServesAPanelOnTheSerialPort)
{
    int panel = -1, port = -1;
    ASSERT_EQ(openpty(&panel, &port, nullptr, nullptr, nullptr), 0);
    termios raw{};
    tcgetattr(panel, &raw);
    cfmakeraw(&raw);
    tcsetattr(panel, TCSANOW, &raw);
    ModbusServerConfig config;
    config.enabled = true;
    config.serial = ttyname(port);
    ModbusServer server(config, {1}, rtusupport::SerialLine{});
    std::string error;
    ASSERT_TRUE(server.start(&error)) << error;
    const Bytes polled = withCrc({1, 3, 0, 0, 0, 1}), values = withCrc({1, 3, 2, 0x12, 0x34});
    server.heard(polled.data(), polled.size(), values.data(), values.size(), Clock::now());
    const auto ask = [&](const Bytes &frame) {
        EXPECT_EQ(::write(panel, frame.data(), frame.size()), ssize_t(frame.size()));
        return receiveFrom(panel, 500ms);
    };
    EXPECT_EQ(ask(withCrc({1, 0x2B, 0x0E, 1, 0})), withCrc({1, 0xAB, 0x01})) << "an unknown function, after silence";
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(ask(withCrc({1, 3, 0, 0, 0, 1})), values) << "the port still served after a quiet moment";
    EXPECT_EQ(ask(withCrc({7, 3, 0, 0, 0, 1})), Bytes{}) << "a station not served says nothing";
    server.stop();
    ::close(panel);
    ::close(port);
}

} // namespace
