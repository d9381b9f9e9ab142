// rtuplc-poll end to end against the simulator, which the test holds in-process: a
// recipe goes through the controller and back, stations keep their values apart, a
// broadcast reaches them all, and faults cost retries, not values. (Every area's values
// and writes are checked against a slave nobody here wrote: poll_standard_slave_test.)
#include <gtest/gtest.h>

#include <thread>

#include "poll_process.h"
#include "rtuplc_support/simulator.h"

namespace {

using tooltest::JsonOutput;
using tooltest::parseJson;

constexpr int kStation = 1;

// The simulator, started on a pty or on TCP, and rtuplc-poll run against it.
struct Served {
    bool start(bool pty)
    {
        std::string error;
        if (pty ? !sim.startPty(&error) : !sim.startTcp("127.0.0.1", 0, &error))
            return false;
        link = pty ? std::vector<std::string>{"--serial", sim.ptyPath()}
                   : std::vector<std::string>{"--tcp", "127.0.0.1:" + std::to_string(sim.tcpPort())};
        return true;
    }
    tooltest::Run poll(std::vector<std::string> args, std::chrono::seconds limit = std::chrono::seconds(30))
    {
        args.insert(args.begin(), link.begin(), link.end());
        return tooltest::poll(args, limit);
    }

    rtusupport::Simulator sim;
    std::vector<std::string> link;
};

// Over TCP: the writes and reads a recipe makes cross a pty in the other tests here,
// against the simulator, and in poll_standard_slave_test, against libmodbus.
TEST(PollOnce, RecipeRoundTripThroughTheController)
{
    Served s;
    rtusupport::Simulator &sim = s.sim;
    sim.fill(rtusupport::Fill::Pattern);
    ASSERT_TRUE(s.start(false));
    const std::string recipe = tooltest::writeFile("recipe.csv", "# area:address,length,offset\n"
                                                                 "D_W:300,4,0\n"
                                                                 "D_W:304,2,4\n"
                                                                 "D_D:310,2,6\n"
                                                                 "32C:210,2,8\n"
                                                                 "M:10,4,10\n");
    const std::string values = tooltest::writeFile("values.csv", "D_W:300,1\nD_W:301,-2\nD_W:302,3\nD_W:303,0x10\n"
                                                                 "D_W:304,40000\nD_W:305,6\nD_D:310,-100000\n"
                                                                 "32C:210,123456789\nM:10,1\nM:12,1\n");
    const std::string out = tooltest::writeFile("out.csv", "");
    const tooltest::Run r =
        s.poll({"D_W:0", "--recipe", recipe, "--recipe-download", values, "--recipe-upload", out, "--once"});
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    // The upload reads the controller back; a value missing from VALUES.csv is sent as 0.
    EXPECT_EQ(sim.reg32(kStation, 9710), 123456789u);
    EXPECT_EQ(tooltest::readFile(out), "D_W:300,1\nD_W:301,65534\nD_W:302,3\nD_W:303,16\nD_W:304,40000\n"
                                       "D_W:305,6\nD_D:310,4294867296\n32C:210,123456789\nM:10,1\nM:11,0\n"
                                       "M:12,1\nM:13,0\n");
    EXPECT_NE(r.out.find("recipe round trip: all 12 values read back as downloaded"), std::string::npos) << r.out;

    // An upload on its own reads what the controller holds now.
    sim.setReg(kStation, 302, 777);
    const tooltest::Run up = s.poll({"--recipe", recipe, "--recipe-upload", out});
    ASSERT_EQ(up.exitCode, 0) << up.out << up.err;
    EXPECT_NE(tooltest::readFile(out).find("D_W:302,777\n"), std::string::npos);
}

// Two stations, text output: each value shown once per change with its station; a
// broadcast write reaches every station.
TEST(PollStations, LinesAndBroadcastWrites)
{
    Served s;
    rtusupport::Simulator &sim = s.sim;
    sim.setStations({1, 2});
    sim.fill(rtusupport::Fill::Pattern);
    ASSERT_TRUE(s.start(false));
    const tooltest::Run r = s.poll({"--count", "3", "--hex", "--station", "2", "D_W:10", "D_D:20@1", "X:7@1"});
    ASSERT_EQ(r.exitCode, 0) << r.err;
    // Values do not change between the rounds: one line each.
    EXPECT_NE(r.out.find("  station 2  D_W:10 = 0x03F2\n"), std::string::npos) << r.out; // 10 + 1000
    EXPECT_NE(r.out.find("  station 1  D_D:20 = 0x00140015\n"), std::string::npos) << r.out;
    EXPECT_NE(r.out.find("  station 1  X:7 = 1\n"), std::string::npos) << r.out;
    EXPECT_EQ(r.out.find("D_W:10 = ", r.out.find("D_W:10 = ") + 1), std::string::npos) << "shown once";
    EXPECT_NE(r.out.find("station 2, property text 1#0#0#3#64\n"), std::string::npos);
    EXPECT_NE(r.out.find("--- 9 frames sent, 9 replies accepted, 0 retries, 0 failures, 0.0% loss"), std::string::npos)
        << "three blocks, three rounds: " << r.out;

    // Replies byte-for-byte alike (a coil that is off, at one station) are each an
    // answer: a copy of the one before is possible only once per request.
    const tooltest::Run same = s.poll({"--once", "--station", "1", "Y:0", "M:0", "S:0", "T:0", "C:0", "SM:0"});
    EXPECT_EQ(same.exitCode, 0) << same.out << same.err;

    const tooltest::Run b = s.poll({"--write", "D_W:30@0=77"});
    ASSERT_EQ(b.exitCode, 0) << b.out << b.err;
    EXPECT_NE(b.out.find("broadcast sent"), std::string::npos) << b.out;
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (sim.reg(2, 30) != 77 && std::chrono::steady_clock::now() < until)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_EQ(sim.reg(1, 30), 77);
    EXPECT_EQ(sim.reg(2, 30), 77);

    // Typed: the registers as the plant means them, and engineering values written as their words.
    sim.setReg(1, 45, 4);
    sim.setReg(1, 50, 0x4F4B); // "OK"
    sim.setReg(1, 51, 0);
    const tooltest::Run t =
        s.poll({"--once", "--station", "1", "--write", "D_W:40:float32:low-first=21.5", "--write", "D_W:44:int16=-5",
                "D_W:40:float32:low-first", "D_W:44:int16", "D_W:45.2", "D_W:50..51:string"});
    ASSERT_EQ(t.exitCode, 0) << t.out << t.err;
    EXPECT_EQ(std::make_tuple(sim.reg(1, 40), sim.reg(1, 41), sim.reg(1, 44)), std::make_tuple(0, 0x41AC, 0xFFFB));
    for (const char *line : {"  station 1  D_W:40:float32 = 21.5\n", "  station 1  D_W:44:int16 = -5\n",
                             "  station 1  D_W:45.2:bool = true\n", "  station 1  D_W:50:string = \"OK\"\n"})
        EXPECT_NE(t.out.find(line), std::string::npos) << line << t.out;
}

// A line whose replies do not always answer the request in flight, over TCP and a
// pty, two stations polled in blocks of one length (whose replies have one shape):
// every value printed must be the one the controller holds for that item, every
// item must arrive, and the write must land or be reported failed.
struct LineFault {
    const char *name;
    void (*set)(rtusupport::Faults &);
};
const LineFault kLineFaults[] = {
    // clang-format off
    {"Late", [](rtusupport::Faults &f) { f.late = 0.3, f.lateByMs = 250; }},
    {"EveryReplyLate", [](rtusupport::Faults &f) { f.delayMs = 300; }},
    {"Doubled", [](rtusupport::Faults &f) { f.doubled = 0.4; }},
    {"Foreign", [](rtusupport::Faults &f) { f.foreign = 0.3; }},
    {"Noise", [](rtusupport::Faults &f) { f.noise = 0.5; }},
    {"Split", [](rtusupport::Faults &f) { f.split = 0.5; }},
    {"WrongFunction", [](rtusupport::Faults &f) { f.wrongFunction = 0.3; }},
    {"MissingOrCorrupt", [](rtusupport::Faults &f) { f.drop = 0.2, f.corrupt = 0.1; }},
    // clang-format on
};

void PrintTo(const LineFault &f, std::ostream *os)
{
    *os << f.name;
}

class PollLineFaults : public ::testing::TestWithParam<std::tuple<LineFault, bool>> {};

TEST_P(PollLineFaults, NoValueIsAnotherItemsAndEveryItemArrives)
{
    const auto &[fault, pty] = GetParam();
    Served s;
    rtusupport::Simulator &sim = s.sim;
    sim.setStations({1, 2});
    sim.fill(rtusupport::Fill::Pattern);
    sim.setSeed(12);
    rtusupport::Faults f;
    fault.set(f);
    sim.setFaults(f);
    ASSERT_TRUE(s.start(pty));
    const tooltest::Run r = s.poll({"--json", "--count", "2", "--timeout", "100", "--retries", "10", "--write",
                                    "D_W:400=4321", "D_W:100..104", "D_W:100..104@2", "D_W:300..304", "D_W:300..304@2"},
                                   std::chrono::seconds(60));
    const JsonOutput j = parseJson(r.out);
    const bool landed = sim.reg(1, 400) == 4321;
    EXPECT_TRUE(landed || r.err.find("write D_W:400=4321: failed") != std::string::npos) << r.err;
    for (const auto &v : j.values) {
        const auto &[station, item, address] = v.first;
        EXPECT_EQ(v.second, sim.reg(station, uint32_t(address))) << "station " << station << " " << item << address;
    }
    EXPECT_EQ(j.values.size(), 21u) << "every item arrives: " << r.out << r.err;
    EXPECT_TRUE(j.errors.empty()) << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.err.find("replies dropped: "), std::string::npos) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Faults, PollLineFaults,
                         ::testing::Combine(::testing::ValuesIn(kLineFaults), ::testing::Bool()),
                         [](const ::testing::TestParamInfo<std::tuple<LineFault, bool>> &i) {
                             return std::string(std::get<0>(i.param).name) + (std::get<1>(i.param) ? "Pty" : "Tcp");
                         });

} // namespace
