// rtuplc-poll and rtuplc-sim as programs: what the user types is refused before
// anything is sent when it is wrong, the driver is checked as it is loaded, and the
// simulator program serves the host over TCP and a pseudo-terminal.
#include <gtest/gtest.h>

#include <signal.h>

#include <algorithm>
#include <set>
#include <sstream>

#include "poll_process.h"
#include "rtuplc_support/memory.h"

namespace {

// Exit codes a user's scripts rely on: 2 for bad input (refused before anything is
// sent: nothing listens on port 1, so a run that got as far as connecting exits with
// 4), 3 for a driver that cannot be used, 4 for a link that cannot be opened.
TEST(PollCli, ExitCodesAndMessages)
{
    int n = 0; // a recipe file of its own for each row, to upload from
    const auto recipe = [&n](const char *text) -> std::vector<std::string> {
        return {"--recipe", tooltest::writeFile(std::to_string(++n) + ".csv", text), "--recipe-upload", "x"};
    };
    const struct {
        std::vector<std::string> args;
        int exitCode;
        const char *message;
    } rows[] = {
        // clang-format off
        {{"Q:1"}, 2, "unknown area Q (the areas are X Y M SM S T C 32C CV TV Z SD D_D D_W)"},
        {{"X:18"}, 2, "\"18\" is not an address of X: X has addresses 0..377 (octal)"},
        {{"32C:199"}, 2, "32C:199 is out of range: 32C has addresses 200..255"},
        {{"D_W:7990..8005"}, 2, "D_W:8005 is out of range"},
        {{"D_W:10..5"}, 2, "the range runs backwards"},
        {{"D_W100"}, 2, "is not an item"},
        {{"D_W:1@300"}, 2, "station 300 is not 1..247"},
        {{"--write", "X:7=2"}, 2, "a bit takes 0 or 1"},
        {{"--write", "D_W:1=70000"}, 2, "a 16-bit value takes -32768..65535"},
        {{"--write", "D_W:1..2=5"}, 2, "a write names one address"},
        {{"--gap", "128", "D_W:1"}, 2, "--gap takes 1..123"},
        {{"--retries", "101", "D_W:1"}, 2, "--retries takes 1..100 attempts"},
        {{"--timeout", "600001", "D_W:1"}, 2, "--timeout takes 1..600000 milliseconds"},
        {{"--tcp", "::1", "D_W:1"}, 2, "\"::1\" is not HOST[:PORT]"},
        {{"--tcp", "[::1]:1", "--once", "D_W:100"}, 4, "cannot connect to [::1]:1: "},
        {{"--version"}, 0, "rtuplc-poll 2."},
        {{"--line", "9600,9,EVEN,1", "D_W:1"}, 2, "data bits must be 7 or 8"},
        {{}, 2, "nothing to do"},
        {{"--recipe", "r.csv"}, 2, "--recipe needs --recipe-download"},
        {{"--colour", "D_W:1"}, 2, "unknown option --colour"},
        {recipe("D_W:100,4,0\nD_W:104,2,9\n"), 2, "give D_W:104 the offset 4"},
        {recipe("D_W:100,4,0\nD_W:102,2,4\n"), 2, "overlap"},
        {recipe("D_W:100,4,0\nD_W:200,2,2\n"), 2, "shares buffer word 2"},
        {recipe("D_D:100,3,0\n"), 2, "line 1: the length counts 16-bit registers and must be even"},
        {recipe("\n# comment\nD_W:100;4;0\n"), 2, "line 3: write AREA:ADDRESS,LENGTH,OFFSET"},
        {recipe("D_W:7999,2,0\n"), 2, "line 1:"},
        {{"--driver", RTUPLC_PARTIAL_DRIVER, "D_W:1"}, 3,
         "is not a complete driver: it does not export intf_getVersion, intf_getDriverPropertyPage,"},
        {{"--driver", "/nonexistent/librtuplc.so", "D_W:1"}, 3, "cannot load the driver"},
        {{"--once", "D_W:100"}, 4, "cannot connect to 127.0.0.1:1: Connection refused"},
        // clang-format on
    };
    for (const auto &row : rows) {
        std::vector<std::string> args;
        if (std::find(row.args.begin(), row.args.end(), "--tcp") == row.args.end())
            args = {"--tcp", "127.0.0.1:1"};
        args.insert(args.end(), row.args.begin(), row.args.end());
        const tooltest::Run r = tooltest::poll(args);
        EXPECT_EQ(r.exitCode, row.exitCode) << row.message;
        EXPECT_NE((r.out + r.err).find(row.message), std::string::npos) << r.err;
        if (row.exitCode == 3 && row.args[1] == RTUPLC_PARTIAL_DRIVER) {
            EXPECT_NE(r.err.find("intf_setData"), std::string::npos) << "every missing function is named";
            EXPECT_EQ(r.err.find("intf_getProtocolType"), std::string::npos) << "it does export that one";
        }
    }
}

std::string after(const std::string &line, const std::string &prefix)
{
    return line.rfind(prefix, 0) == 0 ? line.substr(prefix.size()) : "";
}

TEST(SimProgram, ServesTheHostOverTcpAndAPtyUntilStopped)
{
    const std::string replies = tooltest::writeFile("replies.txt", "");
    tooltest::Child sim({RTUPLC_SIM, "--tcp", "127.0.0.1:0", "--pty", "--station", "1,2", "--reply-times", replies});
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

    const tooltest::Run overPty =
        tooltest::poll({"--serial", pty, "--once", "--json", "X:0..7", "--write", "D_W:50=5", "--write", "Y:6=1"});
    ASSERT_EQ(overPty.exitCode, 0) << overPty.err;
    const tooltest::JsonOutput k = tooltest::parseJson(overPty.out);
    for (int a = 0; a < 8; ++a)
        EXPECT_EQ(k.values.at({1, "X", a}), rtusupport::patternCoil(1, 1200 + a)) << "X" << a;

    sim.signal(SIGUSR1);
    EXPECT_EQ(sim.lineContaining("1 coil 6 "), "1 coil 6 Y:6 = 1") << "the dump shows the writes";
    EXPECT_EQ(sim.lineContaining("1 register 50 "), "1 register 50 D:50 = 5");

    // A stopped simulator still accepts the connection but answers nothing: every
    // block fails, with no value, and the run exits with 1.
    sim.signal(SIGSTOP);
    const tooltest::Run stopped =
        tooltest::poll({"--tcp", tcp, "--once", "--json", "--timeout", "50", "D_W:100..109", "X:0..7"});
    sim.signal(SIGCONT);
    EXPECT_EQ(stopped.exitCode, 1);
    const tooltest::JsonOutput s = tooltest::parseJson(stopped.out);
    EXPECT_EQ(s.errors, (std::vector<std::string>{"1#X0(8)", "1#D_W100(10)"}));
    EXPECT_TRUE(s.values.empty()) << "no value without a reply";
    // The first block found the station silent; the next is not tried but says so.
    EXPECT_NE(stopped.err.find("failed D_W:100..109@1: station 1 is offline (no reply within"), std::string::npos)
        << stopped.err;

    sim.signal(SIGTERM);
    const tooltest::Run end = sim.wait();
    EXPECT_EQ(end.exitCode, 0);
    EXPECT_NE(end.err.find("2 writes"), std::string::npos) << end.err;

    // Each read answered, with what names the reply a value came in (the benchmark's
    // clock of a reply): station, function, first address, count, first value.
    const std::string times = tooltest::readFile(replies);
    std::set<std::string> reads; // "STATION FUNCTION FIRST COUNT VALUE", the time left out
    std::istringstream lines(times);
    for (std::string line; std::getline(lines, line);)
        reads.insert(line.substr(line.find(' ') + 1));
    // The writes of Y:6 and D_W:50 are no reads; the reads that confirm them are.
    for (const char *read : {"1 3 100 2 100", "2 3 7 1 1007", "1 1 1200 8 0", "1 1 6 1 1", "1 3 50 1 5"})
        EXPECT_EQ(reads.count(read), 1u) << read << " in:\n" << times;
    EXPECT_EQ(reads.size(), 5u) << times;
}

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
