// The Modbus server's core on loopback, with the test as the gateway's loop: what a
// master is answered at the gateway without line time, what goes on the line and comes
// back as the controller said it, and that a reply reaches the master and transaction
// that asked, once, in time or not at all.
#include <gtest/gtest.h>

#include <netinet/in.h>
#include <netinet/tcp.h>
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

#include "modbus_server.h"

using namespace rtugw;
using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using Outcome = rtuhost::Exchange::Outcome;

namespace {

Bytes withCrc(Bytes frame)
{
    const uint16_t crc = rtuplc::crc16(frame.data(), frame.size());
    frame.push_back(uint8_t(crc & 0xFF));
    frame.push_back(uint8_t(crc >> 8));
    return frame;
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
    void mbap(uint16_t tid, uint8_t unit, const Bytes &pdu)
    {
        Bytes b;
        mb::appendMbap(b, tid, unit, pdu.data(), pdu.size());
        send(b);
    }
    // What arrives within `wait`, as it came.
    Bytes receive(std::chrono::milliseconds wait = 1000ms)
    {
        Bytes got;
        pollfd p{fd_, POLLIN, 0};
        while (::poll(&p, 1, int(wait.count())) > 0) {
            uint8_t buf[512];
            const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
            if (n <= 0)
                break;
            got.insert(got.end(), buf, buf + n);
            wait = 50ms; // the rest of it, if any
        }
        return got;
    }

private:
    int fd_ = -1;
};

Bytes mbapReply(uint16_t tid, uint8_t unit, const Bytes &pdu)
{
    Bytes b;
    mb::appendMbap(b, tid, unit, pdu.data(), pdu.size());
    return b;
}

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
        if (row.rtu) {
            Bytes frame{row.station};
            frame.insert(frame.end(), row.pdu.begin(), row.pdu.end());
            m.send(withCrc(frame));
        } else {
            m.mbap(tid, row.station, row.pdu);
        }
        const Bytes taken = rig.turn([&](const Bytes &) { return row.line(); }, row.onLine.empty() ? 50ms : 300ms);
        EXPECT_EQ(taken, row.onLine.empty() ? Bytes{} : withCrc(row.onLine));
        Bytes expected;
        if (!row.answer.empty() && row.rtu) {
            Bytes frame{row.station};
            frame.insert(frame.end(), row.answer.begin(), row.answer.end());
            expected = withCrc(frame);
        } else if (!row.answer.empty()) {
            expected = mbapReply(tid, row.station, row.answer);
        }
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
    Bytes expectA = mbapReply(11, 1, {3, 2, 0, 11});
    for (const Bytes &more : {mbapReply(12, 1, {3, 2, 0, 12}), mbapReply(13, 1, {0x83, 0x06})})
        expectA.insert(expectA.end(), more.begin(), more.end());
    EXPECT_EQ(a.receive(), expectA);
    EXPECT_EQ(b.receive(), mbapReply(21, 1, {3, 2, 0, 21}));
    EXPECT_EQ(a.receive(100ms), Bytes{}) << "answered once";
}

} // namespace

namespace {

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
        Bytes got;
        pollfd p{panel, POLLIN, 0};
        for (int wait = 500; ::poll(&p, 1, wait) > 0; wait = 50) {
            uint8_t buf[256];
            const ssize_t n = ::read(panel, buf, sizeof buf);
            if (n <= 0)
                break;
            got.insert(got.end(), buf, buf + n);
        }
        return got;
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
