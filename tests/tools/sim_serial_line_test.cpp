// Line settings as the driver's parameters give them, and the timing they imply.
#include <gtest/gtest.h>

#include "rtuplc_support/serial_line.h"

namespace {

using std::chrono::microseconds;

// Valid settings with the timing they imply; invalid ones with why they are refused.
TEST(SerialLine, TimingFollowsTheCharacterFrameAndNoLineCarriesTheRest)
{
    const struct {
        const char *text;
        int bitsPerCharacter;
        microseconds character, silence;
        const char *refusal;
    } cases[] = {
        // clang-format off
        {"9600,8,EVEN,1", 11, microseconds(1145), microseconds(4010), nullptr}, // the controller's default
        {"9600,8,NONE,1", 10, microseconds(1041), microseconds(3645), nullptr},
        {"9600,8,NONE,2", 11, microseconds(1145), microseconds(4010), nullptr},
        {"1200,7,o,1", 10, microseconds(8333), microseconds(29166), nullptr},
        {"19200,8,E,1", 11, microseconds(572), microseconds(2005), nullptr},    // still 3.5 characters
        {"38400,8,EVEN,1", 11, microseconds(286), microseconds(1750), nullptr}, // fixed above 19200
        {"115200,8,NONE,1", 10, microseconds(86), microseconds(1750), nullptr},
        {"9600,8,EVEN", 0, {}, {}, "four fields"},
        {"9601,8,EVEN,1", 0, {}, {}, "unsupported baud rate"},
        {"9600,9,EVEN,1", 0, {}, {}, "data bits"},
        {"9600,8,MARK,1", 0, {}, {}, "parity"},
        {"9600,8,EVEN,3", 0, {}, {}, "stop bits"},
        {"fast,8,EVEN,1", 0, {}, {}, "unsupported baud rate"},
        // clang-format on
    };
    for (const auto &c : cases) {
        rtusupport::SerialLine line;
        std::string error;
        ASSERT_EQ(rtusupport::parseSerialLine(c.text, &line, &error), c.refusal == nullptr) << c.text << ": " << error;
        if (c.refusal) {
            EXPECT_NE(error.find(c.refusal), std::string::npos) << c.text << " gives " << error;
            continue;
        }
        EXPECT_EQ(rtusupport::bitsPerCharacter(line), c.bitsPerCharacter) << c.text;
        EXPECT_EQ(rtusupport::characterTime(line), c.character) << c.text;
        EXPECT_EQ(rtusupport::silentInterval(line), c.silence) << c.text;
    }
    rtusupport::SerialLine line;
    ASSERT_TRUE(rtusupport::parseSerialLine("19200,7,odd,2", &line, nullptr));
    EXPECT_EQ(rtusupport::formatSerialLine(line), "19200,7,ODD,2");
}

} // namespace
