// Line settings as the driver's parameters give them, and the timing they imply.
#include <gtest/gtest.h>

#include "rtuplc_support/serial_line.h"

namespace {

using std::chrono::microseconds;

struct Timing {
    const char *text;
    int bitsPerCharacter;
    microseconds character;
    microseconds silence;
};

TEST(SerialLine, TimingFollowsTheCharacterFrame)
{
    const Timing cases[] = {
        {"9600,8,EVEN,1", 11, microseconds(1145), microseconds(4010)}, // the controller's default
        {"9600,8,NONE,1", 10, microseconds(1041), microseconds(3645)},
        {"9600,8,NONE,2", 11, microseconds(1145), microseconds(4010)},
        {"1200,7,o,1", 10, microseconds(8333), microseconds(29166)},
        {"19200,8,E,1", 11, microseconds(572), microseconds(2005)},    // still 3.5 characters
        {"38400,8,EVEN,1", 11, microseconds(286), microseconds(1750)}, // fixed above 19200
        {"115200,8,NONE,1", 10, microseconds(86), microseconds(1750)},
    };
    for (const Timing &c : cases) {
        rtusim::SerialLine line;
        std::string error;
        ASSERT_TRUE(rtusim::parseSerialLine(c.text, &line, &error)) << c.text << ": " << error;
        EXPECT_EQ(rtusim::bitsPerCharacter(line), c.bitsPerCharacter) << c.text;
        EXPECT_EQ(rtusim::characterTime(line), c.character) << c.text;
        EXPECT_EQ(rtusim::silentInterval(line), c.silence) << c.text;
    }
}

TEST(SerialLine, RefusesWhatNoLineCarries)
{
    const std::pair<const char *, const char *> cases[] = {
        {"9600,8,EVEN", "four fields"},       {"9601,8,EVEN,1", "unsupported baud rate"},
        {"9600,9,EVEN,1", "data bits"},       {"9600,8,MARK,1", "parity"},
        {"9600,8,EVEN,3", "stop bits"},       {"fast,8,EVEN,1", "unsupported baud rate"},
    };
    for (const auto &c : cases) {
        rtusim::SerialLine line;
        std::string error;
        EXPECT_FALSE(rtusim::parseSerialLine(c.first, &line, &error)) << c.first;
        EXPECT_NE(error.find(c.second), std::string::npos) << c.first << " gives " << error;
    }
    rtusim::SerialLine line;
    ASSERT_TRUE(rtusim::parseSerialLine("19200,7,odd,2", &line, nullptr));
    EXPECT_EQ(rtusim::formatSerialLine(line), "19200,7,ODD,2");
}

} // namespace
