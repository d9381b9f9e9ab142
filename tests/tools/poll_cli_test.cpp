// rtuplc-poll and rtuplc-sim as programs: what the user types is refused before
// anything is sent when it is wrong, the driver is checked as it is loaded, and the
// simulator program serves the host over TCP and a pseudo-terminal.
#include <gtest/gtest.h>

#include <signal.h>

#include "poll_process.h"
#include "rtuplc_support/memory.h"

namespace {

struct BadInput {
    const char *name;
    std::vector<std::string> args;
    const char *message;
};

void PrintTo(const BadInput &b, std::ostream *os)
{
    *os << b.name;
}

class RefusedInput : public ::testing::TestWithParam<BadInput> {};

// Nothing listens on port 1: a run that got as far as connecting would exit with 4.
TEST_P(RefusedInput, BeforeAnythingIsSent)
{
    std::vector<std::string> args{"--tcp", "127.0.0.1:1"};
    args.insert(args.end(), GetParam().args.begin(), GetParam().args.end());
    const tooltest::Run r = tooltest::poll(args);
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_NE(r.err.find(GetParam().message), std::string::npos) << r.err;
}

const BadInput kBadInputs[] = {
    {"unknown_area", {"Q:1"}, "unknown area Q (the areas are X Y M SM S T C 32C CV TV Z SD D_D D_W)"},
    {"not_octal", {"X:18"}, "\"18\" is not an address of X: X has addresses 0..377 (octal)"},
    {"below_lowest", {"32C:199"}, "32C:199 is out of range: 32C has addresses 200..255"},
    {"past_highest", {"D_W:7990..8005"}, "D_W:8005 is out of range"},
    {"runs_backwards", {"D_W:10..5"}, "the range runs backwards"},
    {"not_an_item", {"D_W100"}, "is not an item"},
    {"bad_station", {"D_W:1@300"}, "station 300 is not 1..247"},
    {"bit_value", {"--write", "X:7=2"}, "a bit takes 0 or 1"},
    {"word_value", {"--write", "D_W:1=70000"}, "a 16-bit value takes -32768..65535"},
    {"write_range", {"--write", "D_W:1..2=5"}, "a write names one address"},
    {"gap", {"--gap", "128", "D_W:1"}, "--gap takes 1..123"},
    {"line", {"--line", "9600,9,EVEN,1", "D_W:1"}, "data bits must be 7 or 8"},
    {"nothing", {}, "nothing to do"},
    {"recipe_alone", {"--recipe", "r.csv"}, "--recipe needs --recipe-download"},
    {"unknown_option", {"--colour", "D_W:1"}, "unknown option --colour"},
};

INSTANTIATE_TEST_SUITE_P(Poll, RefusedInput, ::testing::ValuesIn(kBadInputs),
                         [](const ::testing::TestParamInfo<BadInput> &i) { return std::string(i.param.name); });

TEST(PollRecipeFile, ProblemsAreNamedWithTheirLine)
{
    const struct {
        const char *text;
        const char *message;
    } cases[] = {
        {"D_W:100,4,0\nD_W:104,2,9\n", "give D_W:104 the offset 4"},
        {"D_W:100,4,0\nD_W:102,2,4\n", "overlap"},
        {"D_W:100,4,0\nD_W:200,2,2\n", "shares buffer word 2"},
        {"D_D:100,3,0\n", "line 1: the length counts 16-bit registers and must be even"},
        {"\n# comment\nD_W:100;4;0\n", "line 3: write AREA:ADDRESS,LENGTH,OFFSET"},
        {"D_W:7999,2,0\n", "line 1:"},
    };
    for (const auto &c : cases) {
        const std::string recipe = tooltest::writeFile("bad-recipe.csv", c.text);
        const tooltest::Run r = tooltest::poll({"--tcp", "127.0.0.1:1", "--recipe", recipe, "--recipe-upload", "x"});
        EXPECT_EQ(r.exitCode, 2) << c.text;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.text << " gives " << r.err;
    }
}

TEST(PollDriver, MissingFunctionsAreNamed)
{
    const tooltest::Run r = tooltest::poll({"--driver", RTUPLC_PARTIAL_DRIVER, "D_W:1"});
    EXPECT_EQ(r.exitCode, 3);
    EXPECT_NE(r.err.find("is not a complete driver: it does not export intf_getVersion,"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("intf_getSendFrame"), std::string::npos);
    EXPECT_NE(r.err.find("intf_setData"), std::string::npos);
    EXPECT_EQ(r.err.find("intf_getProtocolType"), std::string::npos) << "it does export that one";

    const tooltest::Run none = tooltest::poll({"--driver", "/nonexistent/librtuplc.so", "D_W:1"});
    EXPECT_EQ(none.exitCode, 3);
    EXPECT_NE(none.err.find("cannot load the driver"), std::string::npos) << none.err;
}

std::string after(const std::string &line, const std::string &prefix)
{
    return line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : "";
}

TEST(SimProgram, ServesTheHostOverTcpAndAPtyUntilStopped)
{
    tooltest::Child sim({RTUPLC_SIM, "--tcp", "127.0.0.1:0", "--pty", "--station", "1,2"});
    const std::string tcp = after(sim.lineContaining("rtuplc-sim: serving tcp "), "rtuplc-sim: serving tcp ");
    const std::string pty = after(sim.lineContaining("rtuplc-sim: serving pty "), "rtuplc-sim: serving pty ");
    ASSERT_FALSE(tcp.empty());
    ASSERT_FALSE(pty.empty());

    // The fill pattern: a register holds its address plus 1000 per station above 1.
    const tooltest::Run overTcp = tooltest::poll({"--tcp", tcp, "--once", "--json", "D_W:100..101", "D_W:7@2"});
    ASSERT_EQ(overTcp.exitCode, 0) << overTcp.err;
    const tooltest::JsonOutput j = tooltest::parseJson(overTcp.out);
    EXPECT_EQ(j.values.at({1, "D_W", 101}), 101u);
    EXPECT_EQ(j.values.at({2, "D_W", 7}), 1007u);

    const tooltest::Run overPty = tooltest::poll({"--serial", pty, "--once", "--json", "X:0..7", "--write", "D_W:50=5"});
    ASSERT_EQ(overPty.exitCode, 0) << overPty.err;
    const tooltest::JsonOutput k = tooltest::parseJson(overPty.out);
    for (int a = 0; a < 8; ++a)
        EXPECT_EQ(k.values.at({1, "X", a}), rtusim::patternCoil(1, 1200 + a)) << "X" << a;

    sim.signal(SIGUSR1);
    EXPECT_EQ(sim.lineContaining("1 register 50 "), "1 register 50 D:50 = 5") << "the dump shows the write";

    // A stopped simulator still accepts the connection but answers nothing.
    sim.signal(SIGSTOP);
    const tooltest::Run stopped = tooltest::poll({"--tcp", tcp, "--once", "--timeout", "50", "D_W:100"});
    EXPECT_EQ(stopped.exitCode, 1);
    EXPECT_NE(stopped.err.find("failed 1#D_W100(1): no reply within"), std::string::npos) << stopped.err;
    sim.signal(SIGCONT);

    sim.signal(SIGTERM);
    const tooltest::Run end = sim.wait();
    EXPECT_EQ(end.exitCode, 0);
    EXPECT_NE(end.err.find("1 writes"), std::string::npos) << end.err;
}

} // namespace

namespace {

TEST(PollBuiltIn, RunsAgainstItsOwnSimulatorUntilCtrlC)
{
    tooltest::Child poll({RTUPLC_POLL, "D_W:0..1", "M:0"});
    EXPECT_NE(poll.lineContaining("link: tcp 127.0.0.1:"), "") << "no link option: the built-in simulator";
    EXPECT_NE(poll.lineContaining("station 1, property text 1#0#0#3#64"), "");
    EXPECT_NE(poll.lineContaining("  station 1  M:0 = "), "") << "values are shown";
    poll.signal(SIGINT);
    const tooltest::Run r = poll.wait();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_NE(r.out.find("--- "), std::string::npos) << "the summary line: " << r.out;
    EXPECT_NE(r.out.find(" polls/s, mean cycle "), std::string::npos);
}

} // namespace
