// Running rtuplc-poll and rtuplc-sim as a user does, with every wait bounded, and
// reading what they print.
#ifndef RTUPLC_TESTS_TOOLS_POLL_PROCESS_H
#define RTUPLC_TESTS_TOOLS_POLL_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace tooltest {

struct Run {
    int exitCode = -1; // -1: killed at the time limit
    std::string out, err;
};

// A program left running, e.g. rtuplc-sim; killed when destroyed.
class Child {
public:
    explicit Child(const std::vector<std::string> &args);
    ~Child();
    // The next line on its standard output that contains `text`, or "" by `limit`.
    std::string lineContaining(const std::string &text, std::chrono::seconds limit = std::chrono::seconds(10));
    void signal(int sig);
    // Waits for its end (killing it after `limit`): its exit code and the rest of its output.
    Run wait(std::chrono::seconds limit = std::chrono::seconds(10));

private:
    bool pump(int ms); // false once both pipes are closed
    pid_t pid_ = -1;
    int fd_[2] = {-1, -1}; // stdout, stderr
    std::string text_[2];
};

// rtuplc-poll with these arguments, run to its end or killed after `limit`.
Run poll(const std::vector<std::string> &args, std::chrono::seconds limit = std::chrono::seconds(30));

// The lines of --json output: values by (station, item, address), failed requests.
struct JsonOutput {
    std::map<std::tuple<int, std::string, int>, uint64_t> values;
    int valueLines = 0;
    std::vector<std::string> errors; // the driver's texts of failed requests
    std::vector<std::string> other;  // lines of neither form
};
JsonOutput parseJson(const std::string &out);

std::string writeFile(const std::string &name, const std::string &text); // returns its path
std::string readFile(const std::string &path);

// Modbus base of each area, as the controller maps them.
inline const std::map<std::string, int> kCoilBase = {{"X", 1200}, {"Y", 0},    {"M", 2000}, {"SM", 4400},
                                                     {"S", 6000}, {"T", 8000}, {"C", 9200}};
inline const std::map<std::string, int> kRegisterBase = {{"D_W", 0},  {"D_D", 0},   {"CV", 9500}, {"TV", 9000},
                                                         {"Z", 8500}, {"SD", 8000}, {"32C", 9500}};

// What the controller holds, read through coil(a) and reg(a), for a value rtuplc-poll
// reports. 32-bit values are high register first; a counter v of a read that starts at
// counter s sits in the registers 9500 + s + 2(v - s).
template <class Coil, class Reg>
uint64_t held(const std::string &item, int address, int counterStart, Coil coil, Reg reg)
{
    const auto reg32 = [&](int a) { return uint64_t(reg(a)) << 16 | reg(a + 1); };
    if (kCoilBase.count(item))
        return coil(kCoilBase.at(item) + address) ? 1 : 0;
    if (item == "D_D")
        return reg32(address);
    if (item == "32C")
        return reg32(9500 + counterStart + 2 * (address - counterStart));
    return reg(kRegisterBase.at(item) + address);
}

} // namespace tooltest

#endif
