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

} // namespace tooltest

#endif
