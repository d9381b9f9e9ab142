// The host's reply matcher (rtuplc_link.h): every request kind the driver builds
// against every reply shape a faulty line delivers, and the history that tells a
// doubled reply from the answer.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "rtuplc_link.h"
#include "rtuplc_support/modbus.h"

namespace {

using rtuplc::MatchVerdict;
using rtusupport::withCrc;
using Bytes = std::vector<uint8_t>;

FRAME_PRO request(const Bytes &head) // station, function, address, quantity (+ data)
{
    FRAME_PRO f;
    const Bytes b = head.empty() ? head : withCrc(head);
    std::copy(b.begin(), b.end(), f.frame);
    f.frameLen = int(b.size());
    f.replyLen = head.empty() || head[0] == 0 ? 0 : int(rtuplc::answerLength(b.data(), b.size()));
    return f;
}

// The genuine reply to a request, data bytes counting up from `seed`.
Bytes answer(const FRAME_PRO &f, uint8_t seed = 0x10)
{
    const Bytes req(f.frame, f.frame + std::max(f.frameLen, 6));
    if (req[1] == rtuplc::kWriteMultipleCoils || req[1] == rtuplc::kWriteMultipleRegisters)
        return withCrc(Bytes(req.begin(), req.begin() + 6));
    const size_t count = rtuplc::answerLength(req.data(), req.size()) - rtuplc::kReadReplyFramingBytes;
    Bytes b{req[0], req[1], uint8_t(count)};
    for (size_t i = 0; i < count; ++i)
        b.push_back(uint8_t(seed + i));
    return withCrc(b);
}

Bytes join(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes resealed(Bytes b, size_t index, uint8_t value)
{
    b.resize(b.size() - 2);
    b[index] = value;
    return withCrc(b);
}

TEST(ReplyMatcher, EveryRequestKindAgainstEveryReplyShape)
{
    const struct Kind {
        const char *name;
        Bytes head;
    } kinds[] = {
        // clang-format off
        {"coils 8", {1, 0x01, 0x04, 0xB0, 0x00, 0x08}},
        {"coils 9", {1, 0x01, 0x04, 0xB0, 0x00, 0x09}},
        {"register 1", {2, 0x03, 0x00, 0x64, 0x00, 0x01}},
        {"registers 10", {1, 0x03, 0x00, 0x64, 0x00, 0x0A}},
        {"32-bit registers 6", {1, 0x03, 0x25, 0xE4, 0x00, 0x06}},
        {"registers 128", {247, 0x03, 0x1F, 0x3F, 0x00, 0x80}},
        {"write coils", {1, 0x0F, 0x00, 0x05, 0x00, 0x0A, 0x02, 0x0D, 0x03}},
        {"write registers", {1, 0x10, 0x00, 0x0A, 0x00, 0x02, 0x04, 0x12, 0x34, 0x56, 0x78}},
        {"broadcast write", {0, 0x10, 0x00, 0x1E, 0x00, 0x01, 0x02, 0x00, 0x4D}},
        {"handshake record", {}},
        // clang-format on
    };
    constexpr auto Reply = MatchVerdict::Reply, Exception = MatchVerdict::Exception, NeedMore = MatchVerdict::NeedMore,
                   NotAnswer = MatchVerdict::NotAnswer;
    // Splitting is covered too: every shape is also fed to the matcher a byte at a time.
    const struct Shape {
        const char *name;
        Bytes (*make)(const FRAME_PRO &, const Bytes &genuine);
        MatchVerdict expect;
        size_t offset; // of the answer in the bytes
    } shapes[] = {
        // clang-format off
        {"exact", [](const FRAME_PRO &, const Bytes &g) { return g; }, Reply, 0},
        {"exception",
         [](const FRAME_PRO &f, const Bytes &) { return withCrc({f.frame[0], uint8_t(f.frame[1] | 0x80), 0x02}); },
         Exception, 0},
        {"noise before", [](const FRAME_PRO &, const Bytes &g) { return join({0x00, 0xFF, 0x55}, g); }, Reply, 3},
        {"other station", [](const FRAME_PRO &, const Bytes &g) { return resealed(g, 0, uint8_t(g[0] + 1)); },
         NotAnswer, 0},
        {"other function", [](const FRAME_PRO &, const Bytes &g) { return resealed(g, 1, uint8_t(g[1] ^ 0x04)); },
         NotAnswer, 0},
        {"wrong byte count or echo",
         [](const FRAME_PRO &, const Bytes &g) { return resealed(g, g[1] < 5 ? 2 : 3, uint8_t(g[g[1] < 5 ? 2 : 3] + 2)); },
         NotAnswer, 0},
        {"bad CRC", [](const FRAME_PRO &, const Bytes &g) { return join(Bytes(g.begin(), g.end() - 1), {uint8_t(g.back() ^ 1)}); },
         NotAnswer, 0},
        {"short", [](const FRAME_PRO &, const Bytes &g) { return Bytes(g.begin(), g.end() - 1); }, NeedMore, 0},
        {"long", [](const FRAME_PRO &, const Bytes &g) { return join(g, {0x42}); }, Reply, 0},
        // clang-format on
    };
    for (const Kind &k : kinds) {
        const FRAME_PRO f = request(k.head);
        const bool expectsNothing = f.replyLen == 0;
        const Bytes genuine = expectsNothing ? withCrc({0, 0x10, 0x00, 0x1E, 0x00, 0x01}) : answer(f);
        if (!expectsNothing) {
            ASSERT_EQ(int(genuine.size()), f.replyLen) << k.name;
        }
        for (const Shape &s : shapes) {
            SCOPED_TRACE(std::string(k.name) + " / " + s.name);
            const Bytes bytes = s.make(f, genuine);
            const rtuplc::MatchResult m = rtuplc::matchReply(f, bytes.data(), bytes.size());
            const MatchVerdict want = expectsNothing ? NotAnswer : s.expect;
            EXPECT_EQ(int(m.verdict), int(want));
            if (want == Reply) {
                EXPECT_EQ(m.offset, s.offset);
                EXPECT_EQ(m.length, genuine.size());
            } else if (want == Exception) {
                EXPECT_EQ(m.length, rtuplc::kExceptionReplyBytes);
            } else if (want == NotAnswer) {
                EXPECT_EQ(m.offset, bytes.size()) << "every byte passed over";
            }
            // Fed a byte at a time, the stateful matcher finds the same answer.
            rtuplc::ReplyMatcher matcher;
            matcher.expect(f);
            for (uint8_t b : bytes)
                matcher.feed(&b, 1);
            EXPECT_EQ(int(matcher.verdict()), int(want));
            if (want == Reply) {
                EXPECT_EQ(matcher.reply(), genuine);
            }
        }
    }
}

TEST(ReplyMatcher, DoubledForeignAndNoiseAreSkippedAndCounted)
{
    using Reason = rtuplc::ReplyMatcher::Reason;
    // Two blocks of one length at one station: their replies have the same shape.
    const FRAME_PRO a = request({1, 0x03, 0x00, 0x64, 0x00, 0x05});
    const FRAME_PRO b = request({1, 0x03, 0x01, 0x2C, 0x00, 0x05});
    const Bytes replyA = answer(a, 0x10), replyB = answer(b, 0x80);
    rtuplc::ReplyMatcher m;
    m.expect(a);
    m.feed(replyA.data(), replyA.size());
    ASSERT_EQ(m.reply(), replyA);

    // B in flight: A's copy, another station's reply and noise come before B's answer.
    // A false start, then the answer.
    const Bytes line = join(join(join(replyA, resealed(replyB, 0, 2)), {0x01, 0x03, 0x0A, 0x99}), replyB);
    m.expect(b);
    m.feed(line.data(), line.size());
    ASSERT_EQ(int(m.verdict()), int(MatchVerdict::Reply));
    EXPECT_EQ(m.reply(), replyB);
    const auto dropped = m.takeDropped();
    ASSERT_EQ(dropped.size(), 3u);
    EXPECT_EQ(dropped[0].reason, Reason::Doubled);
    EXPECT_EQ(dropped[1].reason, Reason::Foreign);
    EXPECT_EQ(dropped[2].reason, Reason::Malformed);
    EXPECT_EQ(dropped[2].bytes.size(), 4u);

    // A genuine answer identical to the reply before is skipped as a copy once per
    // request, however often the request is sent again, and not once a copy can no
    // longer come.
    const FRAME_PRO c = request({1, 0x03, 0x01, 0x90, 0x00, 0x05});
    m.expect(c);
    m.feed(replyB.data(), replyB.size());
    EXPECT_EQ(int(m.verdict()), int(MatchVerdict::NotAnswer));
    m.expect(c);
    m.feed(replyB.data(), replyB.size());
    EXPECT_EQ(int(m.verdict()), int(MatchVerdict::Reply));
    m.expect(b);
    m.feed(replyB.data(), replyB.size(), false);
    EXPECT_EQ(int(m.verdict()), int(MatchVerdict::Reply));

    // At the time-out what is held is dropped, as late when the host says so.
    m.expect(a);
    m.feed(replyA.data(), 4);
    EXPECT_EQ(int(m.verdict()), int(MatchVerdict::NeedMore));
    m.takeDropped();
    m.finish(true);
    const auto late = m.takeDropped();
    ASSERT_EQ(late.size(), 1u);
    EXPECT_EQ(late[0].reason, Reason::Late);
}

} // namespace
