// The simulator's slave logic, request by request, against the controller's memory map.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "rtuplc_support/request.h"

namespace {

using Bytes = std::vector<uint8_t>;

struct Case {
    const char *name;
    Bytes request;  // PDU: function and data
    Bytes expected; // reply PDU
};

void PrintTo(const Case &c, std::ostream *os)
{
    *os << c.name;
}

class Request : public ::testing::TestWithParam<Case> {};

TEST_P(Request, AnswersAsTheControllerDoes)
{
    rtusupport::StationMemory memory;
    rtusupport::fillMemory(memory, 1, rtusupport::Fill::Pattern);
    const Case &c = GetParam();
    EXPECT_EQ(rtusupport::executeRequest(memory, c.request.data(), c.request.size(), rtusupport::Limits()), c.expected);
}

// Pattern: register a holds a; coil a holds the parity of the bits of a.
const Case kCases[] = {
    {"read_registers", {0x03, 0x00, 0x64, 0x00, 0x02}, {0x03, 0x04, 0x00, 0x64, 0x00, 0x65}},
    {"read_registers_across_touching_areas", {0x03, 0x1F, 0x3F, 0x00, 0x02}, {0x03, 0x04, 0x1F, 0x3F, 0x1F, 0x40}},
    {"read_coils_of_X", {0x01, 0x04, 0xB0, 0x00, 0x0A}, {0x01, 0x02, 0x96, 0x01}},
    {"read_too_many_registers", {0x03, 0x00, 0x00, 0x00, 0x81}, {0x83, 0x03}},
    {"read_no_register", {0x03, 0x00, 0x00, 0x00, 0x00}, {0x83, 0x03}},
    {"read_unmapped_register", {0x03, 0x20, 0xD0, 0x00, 0x01}, {0x83, 0x02}},
    {"read_past_the_end_of_SD", {0x03, 0x20, 0x3F, 0x00, 0x02}, {0x83, 0x02}},
    {"read_unmapped_coil", {0x01, 0x01, 0x00, 0x00, 0x01}, {0x81, 0x02}},
    {"unknown_function", {0x2B, 0x0E, 0x01, 0x00}, {0xAB, 0x01}},
    {"write_coil_bad_value", {0x05, 0x04, 0xB7, 0x12, 0x34}, {0x85, 0x03}},
    {"write_coil_unmapped", {0x05, 0x01, 0x00, 0xFF, 0x00}, {0x85, 0x02}},
    {"write_registers_count_mismatch", {0x10, 0x00, 0x0A, 0x00, 0x02, 0x02, 0x00, 0x01}, {0x90, 0x03}},
    {"write_registers_too_short", {0x10, 0x00, 0x0A, 0x00, 0x02, 0x04, 0x00, 0x01}, {0x90, 0x03}},
    {"write_coils_count_mismatch", {0x0F, 0x00, 0x00, 0x00, 0x09, 0x01, 0xFF}, {0x8F, 0x03}},
    {"write_registers_unmapped", {0x10, 0x21, 0x43, 0x00, 0x02, 0x04, 0, 1, 0, 2}, {0x90, 0x02}},
};

INSTANTIATE_TEST_SUITE_P(Sim, Request, ::testing::ValuesIn(kCases),
                         [](const ::testing::TestParamInfo<Case> &i) { return std::string(i.param.name); });

TEST(SimRequest, ReadsAsManyRegistersAsTheControllerTakesAndNoMore)
{
    rtusupport::StationMemory memory;
    const Bytes all{0x03, 0x00, 0x00, 0x00, 128};
    const Bytes reply = rtusupport::executeRequest(memory, all.data(), all.size(), rtusupport::Limits());
    ASSERT_EQ(reply.size(), 2u + 256u);
    EXPECT_EQ(reply[0], 0x03);

    rtusupport::Limits standard;
    standard.maxReadRegisters = rtusupport::kStandardMaxReadRegisters;
    EXPECT_EQ(rtusupport::executeRequest(memory, all.data(), all.size(), standard), (Bytes{0x83, 0x03}));
}

TEST(SimRequest, WritesChangeExactlyTheAddressedUnits)
{
    rtusupport::StationMemory memory;
    const Bytes requests[] = {
        {0x05, 0x04, 0xB7, 0xFF, 0x00},                         // X7 on
        {0x06, 0x00, 0x64, 0x04, 0xD2},                         // D100 = 1234
        {0x0F, 0x00, 0x05, 0x00, 0x0A, 0x02, 0x0D, 0x03},       // Y5.. = 1,0,1,1,0,0,0,0,1,1
        {0x10, 0x25, 0x1C, 0x00, 0x02, 0x04, 0x00, 0x01, 0x11, 0x70}, // 9500.. = 1, 0x1170
    };
    for (const Bytes &r : requests) {
        const Bytes reply = rtusupport::executeRequest(memory, r.data(), r.size(), rtusupport::Limits());
        EXPECT_EQ(reply, Bytes(r.begin(), r.begin() + 5)) << "a write is answered by its echo";
    }
    EXPECT_EQ(memory.coils[1207], 1);
    EXPECT_EQ(memory.registers[100], 1234);
    const int y[] = {1, 0, 1, 1, 0, 0, 0, 0, 1, 1};
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(memory.coils[5 + i], y[i]) << "Y" << 5 + i;
    EXPECT_EQ(memory.coils[15], 0);
    EXPECT_EQ(memory.registers[9500], 1);
    EXPECT_EQ(memory.registers[9501], 0x1170);

    int changedCoils = 0, changedRegisters = 0;
    for (size_t a = 0; a < rtusupport::kAddressSpace; ++a) {
        changedCoils += memory.coils[a] != 0;
        changedRegisters += memory.registers[a] != 0;
    }
    EXPECT_EQ(changedCoils, 1 + 5);
    EXPECT_EQ(changedRegisters, 1 + 2);
}

TEST(SimRequest, RefusedWriteChangesNothing)
{
    rtusupport::StationMemory memory;
    const Bytes gap{0x10, 0x20, 0x3F, 0x00, 0x02, 0x04, 0, 7, 0, 7}; // SD 255 and unmapped 8256
    rtusupport::executeRequest(memory, gap.data(), gap.size(), rtusupport::Limits());
    EXPECT_EQ(memory.registers[0x203F], 0) << "the mapped half of a refused write stays untouched";
}

} // namespace
