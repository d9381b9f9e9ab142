// Request frames, the CRC, reply checking and the error text. Expected frames were
// computed with an independent CRC implementation.
#include "driver_fixture.h"

using namespace testing_support;

namespace {

class Frames : public DriverTest {};

TEST(Crc, KnownAnswers)
{
    const unsigned char request[] = {0x01, 0x03, 0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(computate_check(request, 6), 0x0A84); // sent as 84 0A
    EXPECT_EQ(computate_check(request, 0), 0xFFFF);
    const QByteArray ascii("123456789");
    EXPECT_EQ(computate_check(reinterpret_cast<const unsigned char *>(ascii.constData()), 9),
              0x4B37); // CRC-16/MODBUS check
}

// One row per request: reads of every area, writes packing bits and ordering words.
TEST_F(Frames, RequestFrames)
{
    const int R = RTUPLC_KIND_MONITOR_READ, W = RTUPLC_KIND_WRITE;
    struct Row {
        int kind, station;
        const char *reg;
        int start, len;
        std::vector<uint8_t> data;
        const char *frame; // empty: no frame is built
        int replyLen;
    } rows[] = {
        // clang-format off
        {R, 1, "X", 8, 16, {}, "010104b80010bcd3", 7},      {R, 1, "Y", 5, 9, {}, "010100050009ec0d", 7},
        {R, 1, "M", 0, 1, {}, "010107d00001fd47", 6},       {R, 1, "SM", 3, 8, {}, "010111330008c8ff", 6},
        {R, 1, "S", 991, 1, {}, "01011b4f0001caf9", 6},     {R, 1, "T", 255, 9, {}, "0101203f0009c7c0", 7},
        {R, 1, "C", 0, 128, {}, "010123f00080361d", 21},    {R, 1, "32C", 200, 3, {}, "010325e400068ef3", 17},
        {R, 1, "CV", 10, 2, {}, "0103252600022ecc", 9},     {R, 1, "TV", 0, 1, {}, "0103232800010f86", 7},
        {R, 1, "Z", 15, 1, {}, "0103214300017fe2", 7},      {R, 1, "SD", 255, 1, {}, "0103203f0001bfc6", 7},
        {R, 1, "D_W", 100, 10, {}, "01030064000a8412", 25}, {R, 247, "D_W", 7999, 128, {}, "f7031f3f00806724", 261},
        {R, 0, "D_W", 100, 10, {}, "", 0},                  {R, 1, "D", 100, 10, {}, "", 0},
        {W, 1, "Y", 5, 10, {1, 0, 1, 1, 0, 0, 0, 0, 1, 1}, "010f0005000a020d03a1fc", 8},
        {W, 2, "X", 0, 8, {1, 1, 1, 1, 1, 1, 1, 1}, "020f04b0000801ffbe9e", 8},
        // An odd bit count leaves the high bits clear: the byte beyond len must not leak.
        {W, 1, "M", 0, 3, {1, 1, 1, 1}, "010f07d0000301070ef0", 8},
        // 16-bit words are kept low byte first and travel high byte first.
        {W, 1, "D_W", 10, 2, {0x34, 0x12, 0x78, 0x56}, "0110000a0002041234567808e4", 8},
        // A 32-bit value 0x12345678 travels most significant byte first.
        {W, 1, "D_D", 0, 2, {0x78, 0x56, 0x34, 0x12}, "0110000000020412345678889b", 8},
        {W, 1, "32C", 200, 1, {0x02, 0x00, 0x01, 0x00}, "011025e4000204000100028a84", 8},
        {W, 1, "CV", 0, 1, {0x02, 0x01}, "0110251c0001020102509f", 8},
        // The controller answers a broadcast with silence.
        {W, 0, "D_W", 10, 1, {0x12, 0x34}, "0010000a00010234123da7", 0},
        {W, 1, "D", 0, 1, {1, 0}, "", 0},
        // clang-format on
    };
    for (const Row &r : rows) {
        SCOPED_TRACE(r.reg);
        driver.frameList.clear();
        VARIABLE v = variable(r.station, r.reg, r.start, r.len, r.kind);
        std::copy(r.data.begin(), r.data.end(), v.data);
        v.data[20] = 0x42;
        if (r.kind == R)
            EXPECT_EQ(getReadFrame(QList<VARIABLE>{v}, driver.frameList), r.frame[0] ? 1 : 0);
        else
            getWriteFrame(v, driver.frameList);
        if (r.frame[0] == 0) {
            EXPECT_TRUE(driver.frameList.isEmpty());
            continue;
        }
        ASSERT_EQ(driver.frameList.size(), 1);
        const FRAME_PRO &f = driver.frameList.first();
        EXPECT_EQ(frameBytes(f).toHex(), QByteArray(r.frame));
        EXPECT_EQ(f.replyLen, r.replyLen);
        // The request travels with the frame: a read's reply is decoded from it (its data
        // at byte 3), a finished write settles from it.
        EXPECT_EQ(std::make_tuple(f.reqKind, f.station, f.regName, f.startAddr, f.len, f.dataPos, f.dataLen, f.hostWord,
                                  int(f.data[20])),
                  std::make_tuple(r.kind, r.station, QString(r.reg), r.start, r.len, r.kind == R ? 3 : 0,
                                  r.kind == R ? r.len : 0, 0, 0x42));
    }
}

// Every prefix, every flipped bit and a stray trailing byte of a good reply.
TEST_F(Frames, ReplyCheckVerdicts)
{
    getReadFrame(QList<VARIABLE>{variable(1, "D_W", 100, 2)}, driver.frameList);
    const QByteArray good = registersReply(1, {0x1234, 0x0005});
    const auto check = [](const QByteArray &b) {
        return check_rcv_data(reinterpret_cast<const unsigned char *>(b.constData()), {}, b.size(),
                              driver.frameList.first());
    };
    EXPECT_EQ(check(good), 1);
    for (int n = 0; n < good.size(); ++n)
        EXPECT_EQ(check(good.left(n)), 0) << "prefix of " << n;
    for (int byte = 0; byte < good.size(); ++byte) {
        for (int bit = 0; bit < 8; ++bit) {
            QByteArray bad = good;
            bad[byte] = char(bad[byte] ^ (1 << bit));
            EXPECT_EQ(check(bad), 0) << "byte " << byte << " bit " << bit;
        }
    }
    EXPECT_EQ(check(good + '\0'), 0);
    // Only length and CRC count: a wrong station or byte count still passes.
    EXPECT_EQ(check(withCrc(hex("0903ff12340005"))), 1);
    EXPECT_EQ(check(withCrc(hex("018302"))), 0); // an exception reply costs an attempt
    // A write is answered by an echo (address and quantity are not compared), a
    // broadcast by silence.
    driver.frameList.clear();
    VARIABLE w = variable(1, "D_W", 10, 1, RTUPLC_KIND_WRITE);
    getWriteFrame(w, driver.frameList);
    EXPECT_EQ(check(writeEcho(driver.frameList.first())), 2);
    EXPECT_EQ(check(withCrc(hex("011000990007"))), 2);
    EXPECT_EQ(check(QByteArray()), 0);
    driver.frameList.clear();
    w.station = 0;
    getWriteFrame(w, driver.frameList);
    EXPECT_EQ(check(QByteArray()), 2);
}

TEST_F(Frames, ErrorTexts)
{
    struct Row {
        VARIABLE v;
        QByteArray reply;
        const char *text;
    } rows[] = {
        // clang-format off
        {variable(1, "D_W", 100, 10), QByteArray(), "1#D_W100(10)"},
        {variable(1, "D_W", 100, 10), hex("01030402020200000000"), "1#D_W100(10),error code:2"},
        {variable(1, "D_W", 100, 10), hex("0103040202ff00000000"), "1#D_W100(10),error code:255"},
        {variable(1, "D_W", 100, 10), hex("01030402020000000000"), "1#D_W100(10)"},
        {variable(1, "D_W", 100, 10), hex("010304020202000000"), "1#D_W100(10)"},
        {variable(12, "32C", 200, 3), QByteArray(), "12#32C200(3)"},
        {variable(3, "X", -1, 0), QByteArray(), "3#X-1(0)"},
        // clang-format on
    };
    for (const Row &r : rows) {
        driver.frameList.clear();
        getReadFrame(QList<VARIABLE>{r.v}, driver.frameList);
        EXPECT_EQ(getErrorInfo(r.reply).toStdString(), r.text);
    }
}

} // namespace
