// The simulator's slave logic, request by request, against the controller's memory map.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rtuplc_support/request.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Pattern: register a holds a; coil a holds the parity of the bits of a. A request
// changes exactly the units it writes (here each to a value unlike the pattern's), and a
// refused one nothing, not even the mapped part of what it addressed.
TEST(SimRequest, AnswersAsTheControllerDoesAndChangesExactlyWhatItWrites)
{
    struct Unit {
        bool coil;
        uint32_t address;
        uint16_t value;
    };
    const int standard = rtusupport::kStandardMaxReadRegisters;
    const struct {
        const char *name;
        Bytes request;  // PDU: function and data
        Bytes expected; // reply PDU
        std::vector<Unit> changes = {};
        int maxReadRegisters = rtusupport::Limits().maxReadRegisters;
    } cases[] = {
        // clang-format off
        {"read registers", {0x03, 0x00, 0x64, 0x00, 0x02}, {0x03, 0x04, 0x00, 0x64, 0x00, 0x65}},
        {"read registers across touching areas", {0x03, 0x1F, 0x3F, 0x00, 0x02}, {0x03, 0x04, 0x1F, 0x3F, 0x1F, 0x40}},
        {"read coils of X", {0x01, 0x04, 0xB0, 0x00, 0x0A}, {0x01, 0x02, 0x96, 0x01}},
        {"read too many registers", {0x03, 0x00, 0x00, 0x00, 0x81}, {0x83, 0x03}},
        {"read more than a standard slave takes", {0x03, 0x00, 0x00, 0x00, 128}, {0x83, 0x03}, {}, standard},
        {"read no register", {0x03, 0x00, 0x00, 0x00, 0x00}, {0x83, 0x03}},
        {"read unmapped register", {0x03, 0x20, 0xD0, 0x00, 0x01}, {0x83, 0x02}},
        {"read past the end of SD", {0x03, 0x20, 0x3F, 0x00, 0x02}, {0x83, 0x02}},
        {"read unmapped coil", {0x01, 0x01, 0x00, 0x00, 0x01}, {0x81, 0x02}},
        {"unknown function", {0x2B, 0x0E, 0x01, 0x00}, {0xAB, 0x01}},
        // A write is answered by its echo.
        {"write coil X6 on", {0x05, 0x04, 0xB6, 0xFF, 0x00}, {0x05, 0x04, 0xB6, 0xFF, 0x00}, {{true, 1206, 1}}},
        {"write register D100", {0x06, 0x00, 0x64, 0x04, 0xD2}, {0x06, 0x00, 0x64, 0x04, 0xD2}, {{false, 100, 1234}}},
        {"write coils Y5..", {0x0F, 0x00, 0x05, 0x00, 0x0A, 0x02, 0xB3, 0x00}, {0x0F, 0x00, 0x05, 0x00, 0x0A},
         {{true, 5, 1}, {true, 6, 1}, {true, 7, 0}, {true, 8, 0}, {true, 9, 1}, {true, 10, 1}, {true, 11, 0},
          {true, 12, 1}, {true, 13, 0}, {true, 14, 0}}},
        {"write registers 9500..", {0x10, 0x25, 0x1C, 0x00, 0x02, 0x04, 0x00, 0x01, 0x11, 0x70},
         {0x10, 0x25, 0x1C, 0x00, 0x02}, {{false, 9500, 1}, {false, 9501, 0x1170}}},
        {"write coil bad value", {0x05, 0x04, 0xB7, 0x12, 0x34}, {0x85, 0x03}},
        {"write coil unmapped", {0x05, 0x01, 0x00, 0xFF, 0x00}, {0x85, 0x02}},
        {"write registers count mismatch", {0x10, 0x00, 0x0A, 0x00, 0x02, 0x02, 0x00, 0x01}, {0x90, 0x03}},
        {"write registers too short", {0x10, 0x00, 0x0A, 0x00, 0x02, 0x04, 0x00, 0x01}, {0x90, 0x03}},
        {"write coils count mismatch", {0x0F, 0x00, 0x00, 0x00, 0x09, 0x01, 0xFF}, {0x8F, 0x03}},
        {"write registers unmapped", {0x10, 0x21, 0x43, 0x00, 0x02, 0x04, 0, 1, 0, 2}, {0x90, 0x02}},
        {"write registers over SD 255 and unmapped 8256", {0x10, 0x20, 0x3F, 0x00, 0x02, 0x04, 0, 7, 0, 7}, {0x90, 0x02}},
        // clang-format on
    };
    rtusupport::StationMemory pattern;
    rtusupport::fillMemory(pattern, 1, rtusupport::Fill::Pattern);
    for (const auto &c : cases) {
        rtusupport::StationMemory memory = pattern, expected = pattern;
        for (const Unit &u : c.changes) {
            if (u.coil)
                expected.coils[u.address] = uint8_t(u.value);
            else
                expected.registers[u.address] = u.value;
        }
        rtusupport::Limits limits;
        limits.maxReadRegisters = c.maxReadRegisters;
        EXPECT_EQ(rtusupport::executeRequest(memory, c.request.data(), c.request.size(), limits), c.expected) << c.name;
        std::string differing;
        for (size_t a = 0; a < rtusupport::kAddressSpace; ++a) {
            if (memory.coils[a] != expected.coils[a] || memory.registers[a] != expected.registers[a])
                differing += " " + std::to_string(a);
        }
        EXPECT_EQ(differing, "") << c.name << ": units not as written or left";
    }
    // The controller takes 128 registers in one read.
    rtusupport::StationMemory memory;
    const Bytes all{0x03, 0x00, 0x00, 0x00, 128};
    const Bytes reply = rtusupport::executeRequest(memory, all.data(), all.size(), rtusupport::Limits());
    ASSERT_EQ(reply.size(), 2u + 256u);
    EXPECT_EQ(reply[0], 0x03);
}

} // namespace
