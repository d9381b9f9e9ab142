// The link on a fast, faultless line: a block polled again and again gets the same reply
// each time, and none of them may be taken for a copy of the one before.
#include <gtest/gtest.h>

#include <atomic>

#include "rtuplc_host/link.h"
#include "rtuplc_support/simulator.h"

using namespace rtuhost;

TEST(HostLink, IdenticalRepliesToTheSameRequestAreAllAnswers)
{
    rtusupport::Simulator sim;
    sim.fill(rtusupport::Fill::Pattern);
    std::string why;
    ASSERT_TRUE(sim.startTcp("127.0.0.1", 0, &why)) << why;
    std::unique_ptr<Link> link = makeTcpLink("127.0.0.1", sim.tcpPort());
    link->setTiming(std::chrono::milliseconds(100), std::chrono::milliseconds(0));
    FRAME_PRO f;
    const uint8_t request[] = {0x01, 0x03, 0x00, 0x64, 0x00, 0x02, 0x85, 0xD4}; // D 100..101
    std::copy(std::begin(request), std::end(request), f.frame);
    f.frameLen = int(sizeof request);
    f.replyLen = 9;
    std::atomic<bool> stop{false};
    for (int i = 0; i < 200; ++i) {
        const Exchange x = link->exchange(f, std::chrono::milliseconds(100), stop);
        ASSERT_EQ(x.outcome, Exchange::Outcome::Reply) << "exchange " << i;
    }
    EXPECT_EQ(link->stats().dropped[int(DropReason::Doubled)], 0u);
}
