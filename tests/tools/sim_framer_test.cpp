// Cutting a byte stream into request frames.
#include <gtest/gtest.h>

#include <vector>

#include "rtuplc_support/framer.h"
#include "rtuplc_support/modbus.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = rtusupport::RtuFramer::Clock;
using rtusupport::withCrc;
constexpr std::chrono::milliseconds kSilence{50};

const Bytes kRead = withCrc({0x01, 0x03, 0x00, 0x64, 0x00, 0x0A});
const Bytes kWrite = withCrc({0x01, 0x10, 0x00, 0x0A, 0x00, 0x02, 0x04, 0x00, 0x01, 0x00, 0x02});

// Back to back frames are split by their own length; a frame in pieces is joined.
TEST(SimFramer, SplitsAndJoinsFramesByTheirOwnLength)
{
    rtusupport::RtuFramer f(kSilence);
    const auto t = Clock::now();
    Bytes stream = kRead;
    stream.insert(stream.end(), kWrite.begin(), kWrite.begin() + 5);
    f.feed(stream.data(), stream.size(), t);
    EXPECT_EQ(f.next(t), kRead);
    EXPECT_EQ(f.next(t), std::nullopt);
    f.feed(kWrite.data() + 5, kWrite.size() - 5, t + std::chrono::milliseconds(1));
    EXPECT_EQ(f.next(t + std::chrono::milliseconds(1)), kWrite);
}

TEST(SimFramer, DiscardsABadCrcAndAStaleFragment)
{
    rtusupport::RtuFramer f(kSilence);
    const auto t = Clock::now();
    Bytes bad = kRead;
    bad[3] ^= 0x01;
    f.feed(bad.data(), bad.size(), t);
    EXPECT_EQ(f.next(t), std::nullopt);
    EXPECT_EQ(f.discardedFrames(), 1u);

    f.feed(kRead.data(), 3, t); // a fragment, then nothing for too long
    const auto later = t + 2 * kSilence;
    f.feed(kRead.data(), kRead.size(), later); // the master's next try
    EXPECT_EQ(f.next(later), kRead);
    EXPECT_EQ(f.discardedFrames(), 2u);
}

TEST(SimFramer, UnknownFunctionIsAFrameOnceTheLineFallsSilent)
{
    rtusupport::RtuFramer f(kSilence);
    const Bytes odd = withCrc({0x01, 0x2B, 0x0E, 0x01, 0x00});
    const auto t = Clock::now();
    f.feed(odd.data(), odd.size(), t);
    EXPECT_EQ(f.next(t), std::nullopt);
    ASSERT_TRUE(f.deadline().has_value());
    EXPECT_EQ(f.next(*f.deadline()), odd);
}

} // namespace
